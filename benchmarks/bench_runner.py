"""Runner benchmarks, side by side in one run.

    python benchmarks/bench_runner.py [--runs N] [--big-mb M]

1. `rev-parse HEAD`: run_git_command and _git_output against the bare spawn
   of the same command line in the same directory (bare_spawn.cpp: posix_spawn
   and drain, no decoding, no interpreter, kept warm in its serving form) and
   against subprocess.run with the runner's options. Single runs take turns
   and each figure is a median of N runs, so the machine's noise hits all
   alike. subprocess.run is compared in turns of its own with the module,
   while no bare program is alive. Targets: module/bare at most 1.05,
   subprocess.run/module at least 1.4.
2. A run that prints about M MB: the same columns, and the module's peak
   memory against the size of the output.
3. Two threads running git side by side against one.

subprocess.run waits for the exit in sleeps of 1 ms and more once git's
output has ended, and git reports its exit some microseconds after it closed
its pipes: its figure depends on how often it takes that first sleep, which
varies with the machine's load and with which core git runs on.
"""

from __future__ import annotations

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path
from typing import Callable

from morvane_tessary.utils import git_utils

HERE = Path(__file__).resolve().parent
OUT = HERE / "out"
MODULE_TARGET = 1.05
SUBPROCESS_TARGET = 1.4


def build_bare() -> Path:
    OUT.mkdir(exist_ok=True)
    exe = OUT / "bare_spawn"
    src = HERE / "bare_spawn.cpp"
    if not exe.exists() or exe.stat().st_mtime < src.stat().st_mtime:
        subprocess.run(["g++", "-O2", "-std=c++20", "-o", str(exe), str(src)], check=True)
    return exe


def bare(exe: Path, runs: int, cwd: Path, args: list[str]) -> float:
    """Mean seconds of one bare run, over `runs` runs in a row."""
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


def rate(size: int, seconds: float) -> str:
    """The module's own throughput: `size` bytes handled in `seconds`."""
    return f"{size / 1e6 / seconds:.4g} MB/s"


def print_table(rows: list[tuple[str, float, str]]) -> None:
    width = max(len(r[0]) for r in rows)
    print(f"{'job':<{width}}  {'seconds':>12}  ratio")
    for name, seconds, note in rows:
        print(f"{name:<{width}}  {seconds:>12.9f}  {note}")


class BareServer:
    """bare_spawn in its serving form: each call is one bare run of git with
    `args` in `cwd`, timed inside the program; returns (seconds, bytes read)."""

    def __init__(self, exe: Path, cwd: Path, args: list[str]) -> None:
        requests, self._requests = os.pipe()
        self._proc = subprocess.Popen([str(exe), "serve", str(requests), str(cwd), "git", *args],
                                      stdout=subprocess.PIPE, text=True, pass_fds=(requests,))
        os.close(requests)

    def __call__(self) -> tuple[float, int]:
        os.write(self._requests, b"\n")
        micros, size = self._proc.stdout.readline().split()
        return float(micros) / 1e6, int(size)

    def close(self) -> None:
        os.close(self._requests)
        self._proc.communicate()


def wall(fn: Callable[[], object]) -> Callable[[], float]:
    def run() -> float:
        start = time.perf_counter()
        fn()
        return time.perf_counter() - start

    return run


def interleaved(jobs: dict[str, Callable[[], float]], runs: int) -> dict[str, float]:
    """Median seconds of each job over `runs` single runs, the jobs taking
    turns in a rotating order so that they share the machine's noise."""
    names = list(jobs)
    for name in names:
        jobs[name]()
    samples: dict[str, list[float]] = {name: [] for name in names}
    for i in range(runs):
        for name in names[i % len(names):] + names[:i % len(names)]:
            samples[name].append(jobs[name]())
    return {name: statistics.median(times) for name, times in samples.items()}


def compare(exe: Path, root: Path, args: list[str], runs: int) -> tuple[dict[str, float], int]:
    """Medians of bare, run_git_command and _git_output in turns, then of
    run_git_command ("module, 2nd") and subprocess.run in turns; first checks
    that the bare program reads what the module returns."""
    run_git_command = wall(lambda: git_utils.run_git_command(root, args))
    server = BareServer(exe, root, args)
    try:
        out, err, code = git_utils.run_git_command(root, args)
        _, size = server()
        if code != 0 or size != len(out.encode()) + len(err.encode()):
            raise SystemExit(f"bare run and module disagree on {args}: {size} bytes against {out!r} {err!r}")
        medians = interleaved({
            "bare": lambda: server()[0],
            "run_git_command": run_git_command,
            "_git_output": wall(lambda: git_utils._git_output(root, args)),
        }, runs)
    finally:
        server.close()
    second = interleaved({
        "module, 2nd": run_git_command,
        "subprocess.run": wall(lambda: subprocess.run(["git", *args], cwd=str(root), capture_output=True,
                                                      encoding="utf-8", errors="replace", timeout=30)),
    }, runs)
    return {**medians, **second}, size


def print_side_by_side(rows: list[tuple[str, str, dict[str, float], int]]) -> None:
    """One line per job and module function: bare, module, the module's
    throughput (git's output over the module's time), subprocess.run, ratios."""
    head = ("job", "bare s", "module s", "module/bare", "module", "module s, 2nd", "subprocess.run s",
            "subprocess/module")
    lines = [head]
    for job, function, m, size in rows:
        line = (f"{job}: {function}", f"{m['bare']:.6f}", f"{m[function]:.6f}", f"{m[function] / m['bare']:.3f}",
                rate(size, m[function]))
        if function == "run_git_command":
            second = m["module, 2nd"]
            line += (f"{second:.6f}", f"{m['subprocess.run']:.6f}", f"{m['subprocess.run'] / second:.3f}")
        lines.append(line + ("",) * (len(head) - len(line)))
    widths = [max(len(line[i]) for line in lines) for i in range(len(head))]
    for line in lines:
        print("  ".join(cell.ljust(w) if i == 0 else cell.rjust(w) for i, (cell, w) in enumerate(zip(line, widths))))


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--runs", type=int, default=400)
    parser.add_argument("--big-mb", type=int, default=100)
    opts = parser.parse_args()
    exe = build_bare()

    with tempfile.TemporaryDirectory() as tmp:
        root = Path(tmp)
        make_big_repo(root, opts.big_mb)
        big_args = ["cat-file", "blob", "HEAD:big.txt"]
        small, small_size = compare(exe, root, ["rev-parse", "HEAD"], opts.runs)
        big, size = compare(exe, root, big_args, 5)
        peak, _ = peak_memory_of_run(root, big_args)

        def two() -> None:
            threads = [threading.Thread(target=git_utils.run_git_command, args=(root, big_args)) for _ in range(2)]
            for t in threads:
                t.start()
            for t in threads:
                t.join()

        threads = interleaved({"one": wall(lambda: git_utils.run_git_command(root, big_args)), "two": wall(two)}, 3)

    print(f"Python {sys.version.split()[0]}")
    rows = [("rev-parse HEAD", f, small, small_size) for f in ("run_git_command", "_git_output")]
    rows.append((f"{size / 1e6:.0f} MB output", "run_git_command", big, size))
    print_side_by_side(rows)
    print(f"{size / 1e6:.0f} MB output: peak memory {peak / size:.2f} x output; two threads side by side "
          f"{threads['two']:.3f} s against one {threads['one']:.3f} s (two/one {threads['two'] / threads['one']:.2f})")
    module_ratio = small["run_git_command"] / small["bare"]
    subprocess_ratio = small["subprocess.run"] / small["module, 2nd"]
    print(f"rev-parse HEAD, medians of {opts.runs} runs each: module/bare {module_ratio:.3f} "
          f"({'meets' if module_ratio <= MODULE_TARGET else 'misses'} the {MODULE_TARGET} target), "
          f"subprocess.run/module {subprocess_ratio:.3f} "
          f"({'meets' if subprocess_ratio >= SUBPROCESS_TARGET else 'misses'} the {SUBPROCESS_TARGET} target)")


if __name__ == "__main__":
    main()
