"""The branch-name and wiki-path functions written in plain Python: the
baseline of benchmarks/bench_repository.py."""

from __future__ import annotations

from pathlib import Path


def normalize_branch_name(name: str | None) -> str | None:
    if not name:
        return None
    name = name.strip()
    changed = True
    while changed:
        changed = False
        for prefix in ("refs/heads/", "refs/remotes/", "remotes/", "origin/"):
            if name.startswith(prefix):
                name = name[len(prefix):]
                changed = True
    return name or None


def sanitize_branch_name(branch: str) -> str:
    safe = branch.replace("/", "__").replace("\\", "__")
    safe = "".join(c if c.isalnum() or c in "-_." else "_" for c in safe)
    return safe[:100] or "default"


def wiki_root(repo_root: Path) -> Path:
    return repo_root / "memory" / "lorebook"


def wiki_directory(repo_root: Path, branch: str) -> Path:
    return wiki_root(repo_root) / sanitize_branch_name(branch)
