"""A short report on the git repository around a directory.

    python -m morvane_tessary.report [PATH]
"""

from __future__ import annotations

import sys
from pathlib import Path

from morvane_tessary.utils import git_utils


def _git(root: Path, *args: str) -> str | None:
    out, _err, code = git_utils.run_git_command(root, list(args))
    text = out.strip()
    return text if code == 0 and text else None


def main(argv: list[str] | None = None) -> int:
    args = sys.argv[1:] if argv is None else argv
    start = Path(args[0]) if args else Path.cwd()
    root = _git(start, "rev-parse", "--show-toplevel")
    if root is None:
        print(f"error: {start} is not inside a git repository", file=sys.stderr)
        return 2
    root_path = Path(root)
    rows = [
        ("repository", str(root_path)),
        ("branch", _git(root_path, "branch", "--show-current") or "(detached HEAD)"),
        ("HEAD", _git(root_path, "rev-parse", "--short", "HEAD") or "(no commits yet)"),
    ]
    width = max(len(name) for name, _ in rows)
    for name, value in rows:
        print(f"{name:<{width}}  {value}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
