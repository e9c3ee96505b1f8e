"""Runner benchmarks, side by side in one run.

    python benchmarks/bench_runner.py [--runs N] [--big-mb M]

1. `rev-parse HEAD`: the module against the bare spawn of the same command
   line (posix_spawn and drain, no decoding, no interpreter) and against
   subprocess.run.
2. A run that prints about M MB: the module against the bare spawn, and the
   module's peak memory against the size of the output.
3. Two threads running git side by side against one.
"""

from __future__ import annotations

import argparse
import os
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from morvane_tessary.utils import git_utils

HERE = Path(__file__).resolve().parent
OUT = HERE / "out"


def build_bare() -> Path:
    OUT.mkdir(exist_ok=True)
    exe = OUT / "bare_spawn"
    src = HERE / "bare_spawn.cpp"
    if not exe.exists() or exe.stat().st_mtime < src.stat().st_mtime:
        subprocess.run(["g++", "-O2", "-std=c++20", "-o", str(exe), str(src)], check=True)
    return exe


def bare(exe: Path, runs: int, cwd: Path, args: list[str]) -> float:
    out = subprocess.run([str(exe), str(runs), str(cwd), "git", *args], capture_output=True, text=True, check=True)
    return float(out.stdout.split()[0]) / 1e6


def timed(fn, runs: int) -> float:
    fn()
    start = time.perf_counter()
    for _ in range(runs):
        fn()
    return (time.perf_counter() - start) / runs


def make_big_repo(root: Path, megabytes: int) -> None:
    env = {**os.environ, "GIT_AUTHOR_NAME": "b", "GIT_AUTHOR_EMAIL": "b@x", "GIT_COMMITTER_NAME": "b",
           "GIT_COMMITTER_EMAIL": "b@x"}
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    line = b"0123456789abcdefghijklmnopqrstuvwxyz0123456789abcdefghijklmnopqrstuvwxyz01234567890123456789\n"
    (root / "big.txt").write_bytes(line * (megabytes * 1024 * 1024 // len(line)))
    subprocess.run(["git", "add", "big.txt"], cwd=root, check=True, env=env)
    subprocess.run(["git", "commit", "-qm", "big"], cwd=root, check=True, env=env)


def peak_memory_of_run(root: Path, args: list[str]) -> tuple[int, int]:
    """Peak resident memory growth of one module run, measured in a fresh interpreter."""
    # VmHWM belongs to the process's own memory map; ru_maxrss would start
    # from the parent's peak.
    code = (
        "from pathlib import Path\n"
        "from morvane_tessary.utils import git_utils\n"
        "def hwm():\n"
        "    for line in open('/proc/self/status'):\n"
        "        if line.startswith('VmHWM:'): return int(line.split()[1]) * 1024\n"
        "before = hwm()\n"
        f"out, err, code = git_utils.run_git_command(Path({str(root)!r}), {args!r})\n"
        "after = hwm()\n"
        "print(after - before, len(out.encode()))\n"
    )
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True).stdout.split()
    return int(out[0]), int(out[1])


def print_table(rows: list[tuple[str, float, str]]) -> None:
    width = max(len(r[0]) for r in rows)
    print(f"{'job':<{width}}  {'seconds':>12}  ratio")
    for name, seconds, note in rows:
        print(f"{name:<{width}}  {seconds:>12.9f}  {note}")


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--runs", type=int, default=300)
    parser.add_argument("--big-mb", type=int, default=100)
    opts = parser.parse_args()
    exe = build_bare()
    rows = []

    with tempfile.TemporaryDirectory() as tmp:
        root = Path(tmp)
        make_big_repo(root, opts.big_mb)
        args = ["rev-parse", "HEAD"]
        # Interleaved rounds, best round of each: the machine's noise hits all three alike.
        per_round = max(opts.runs // 10, 5)
        rounds = [
            (
                bare(exe, per_round, root, args),
                timed(lambda: git_utils.run_git_command(root, args), per_round),
                timed(lambda: subprocess.run(["git", *args], cwd=str(root), capture_output=True, encoding="utf-8",
                                             errors="replace", timeout=30), per_round),
            )
            for _ in range(10)
        ]
        t_bare, t_mod, t_sub = (min(r[i] for r in rounds) for i in range(3))
        rows.append(("rev-parse HEAD: bare spawn", t_bare, ""))
        rows.append(("rev-parse HEAD: run_git_command", t_mod, f"module/bare {t_mod / t_bare:.3f}"))
        rows.append(("rev-parse HEAD: subprocess.run", t_sub, f"subprocess/module {t_sub / t_mod:.3f}"))

        big = ["cat-file", "blob", "HEAD:big.txt"]
        t_bare_big = bare(exe, 5, root, big)
        t_mod_big = timed(lambda: git_utils.run_git_command(root, big), 5)
        peak, size = peak_memory_of_run(root, big)
        rows.append((f"{size / 1e6:.0f} MB output: bare spawn", t_bare_big, ""))
        rows.append((f"{size / 1e6:.0f} MB output: run_git_command", t_mod_big,
                     f"module/bare {t_mod_big / t_bare_big:.3f}; peak memory {peak / size:.2f} x output"))

        one = timed(lambda: git_utils.run_git_command(root, big), 3)

        def two() -> None:
            threads = [threading.Thread(target=git_utils.run_git_command, args=(root, big)) for _ in range(2)]
            for t in threads:
                t.start()
            for t in threads:
                t.join()

        both = timed(two, 3)
        rows.append(("one run of the big output", one, ""))
        rows.append(("two threads side by side", both, f"two/one {both / one:.2f}"))

    print_table(rows)


if __name__ == "__main__":
    main()
