"""Repository benchmarks, side by side in one run.

    python benchmarks/bench_repository.py [--runs N] [--rounds R]

1. normalize_branch_name, sanitize_branch_name and wiki_directory against
   the same functions in plain Python (plain_git_utils.py).
2. get_head_commit and resolve_commit against the bare spawn of the same git
   command line (bare_spawn.cpp: posix_spawn and drain, no interpreter).
"""

from __future__ import annotations

import argparse
import os
import subprocess
import sys
import tempfile
import timeit
from pathlib import Path

import plain_git_utils as ref
from bench_runner import bare, build_bare, print_table, rate, timed

from morvane_tessary.utils import git_utils

NAMES = ["main", "  refs/remotes/origin/feature/login-42\n", "origin/release-1.2_rc", "hot fix#12 größe",
         "x" * 150]


def per_call(fn, number: int) -> float:
    """Best of 7 rounds, seconds per call of fn over every name."""
    return min(timeit.repeat(fn, number=number, repeat=7)) / number / len(NAMES)


def make_repo(root: Path) -> None:
    env = {**os.environ, "GIT_AUTHOR_NAME": "b", "GIT_AUTHOR_EMAIL": "b@x", "GIT_COMMITTER_NAME": "b",
           "GIT_COMMITTER_EMAIL": "b@x"}
    subprocess.run(["git", "init", "-q", "-b", "main", str(root)], check=True)
    subprocess.run(["git", "commit", "-q", "--allow-empty", "-m", "one"], cwd=root, check=True, env=env)
    subprocess.run(["git", "tag", "-a", "v1", "-m", "tag"], cwd=root, check=True, env=env)


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--runs", type=int, default=300)
    parser.add_argument("--rounds", type=int, default=20)
    opts = parser.parse_args()
    rows = []

    root = Path("/home/user/src/app")
    pure = [
        ("normalize_branch_name", lambda f: lambda: [f(n) for n in NAMES], ref.normalize_branch_name,
         git_utils.normalize_branch_name),
        ("sanitize_branch_name", lambda f: lambda: [f(n) for n in NAMES], ref.sanitize_branch_name,
         git_utils.sanitize_branch_name),
        ("wiki_directory", lambda f: lambda: [f(root, n) for n in NAMES], ref.wiki_directory,
         git_utils.wiki_directory),
    ]
    name_bytes = sum(len(n.encode("utf-8")) for n in NAMES) / len(NAMES)  # per call, as per_call counts
    for name, loop, python_fn, native_fn in pure:
        t_py, t_native = per_call(loop(python_fn), 20000), per_call(loop(native_fn), 20000)
        rows.append((f"{name}: plain Python", t_py, ""))
        rows.append((f"{name}: module", t_native,
                     f"python/module {t_py / t_native:.2f}; {rate(name_bytes, t_native)} of names"))

    exe = build_bare()
    with tempfile.TemporaryDirectory() as tmp:
        repo = Path(tmp)
        make_repo(repo)
        per_round = max(opts.runs // 10, 5)
        for name, call, args in [
            ("get_head_commit", lambda: git_utils.get_head_commit(repo), ["rev-parse", "--short", "HEAD"]),
            ("resolve_commit", lambda: git_utils.resolve_commit(repo, "v1"),
             ["rev-parse", "--verify", "--quiet", "v1^{commit}"]),
        ]:
            # Interleaved rounds, best round of each: the machine's noise hits both alike.
            # run_git_command of the same arguments shows what the query adds to the runner.
            rounds = [(bare(exe, per_round, repo, args), timed(call, per_round),
                       timed(lambda: git_utils.run_git_command(repo, args), per_round)) for _ in range(opts.rounds)]
            t_bare, t_mod, t_run = (min(r[i] for r in rounds) for i in range(3))
            size = len(git_utils.run_git_command(repo, args)[0].encode("utf-8"))
            rows.append((f"{name}: bare spawn", t_bare, ""))
            rows.append((f"{name}: run_git_command", t_run, f"runner/bare {t_run / t_bare:.3f}; {rate(size, t_run)}"))
            rows.append((f"{name}: module", t_mod, f"module/bare {t_mod / t_bare:.3f}; {rate(size, t_mod)} of "
                         f"git's {size}-byte output"))

    print(f"Python {sys.version.split()[0]}")
    print_table(rows)


if __name__ == "__main__":
    main()
