"""Allocation failures, one at a time, in every call of fuzz/native_calls.py: under a debug interpreter (it needs
`_testcapi.set_nomemory`), each call runs again and again with allocation number i = 0, 1, 2, ... failing, until
a run makes all its allocations with none failing. Each run must give the call's normal result (its value, or
its exception and message, and the same log lines) or MemoryError: never a crash, a SystemError, another
answer, an "Exception ignored" report or a reference leaked. Each call is swept in a child process, so that a
crash is caught and names the call and the allocation. Run it from anywhere with the module installed:

    python3.14d fuzz/out_of_memory.py [--jobs N] [--quiet] [LABEL-SUBSTRING...]

It prints one line per call (with --quiet only those with faults) and the sweep's size (calls x allocations),
and exits non-zero on any fault."""
import argparse
import datetime as dt
import gc
import json
import os
import pty
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import native_calls  # noqa: E402

MAX_POINTS = 100_000  # a call that never finishes without a failure is a fault of its own


def same(a, b) -> bool:  # a relative time spec names a moment of the run
    if isinstance(a, dt.datetime) and isinstance(b, dt.datetime):
        return a.tzinfo == b.tzinfo and abs(a - b) < dt.timedelta(minutes=1)
    return type(a) is type(b) and a == b


def attempt(call, point, set_nomemory, remove_mem_hooks):
    """One run of `call` with allocation `point` failing: (the failure fell inside the call, value, exception)."""
    value = error = None
    inside = True
    set_nomemory(point, point + 1)
    try:
        try:
            value = call()
        except BaseException as e:  # noqa: B036 - whatever the call let out is the answer
            error = e
        try:  # the first allocation after the call: it fails when the call made fewer than point + 1
            bytearray(64)
        except MemoryError:
            inside = False
    finally:
        remove_mem_hooks()
    return inside, value, error


def describe(value, error) -> str:
    return f"raised {type(error).__name__}: {error}" if error is not None else f"returned {value!r}"[:300]


def sweep(label: str, world_dir: str) -> None:  # in the child: one JSON line
    import _testcapi

    from morvane_tessary.utils import git_utils as gu

    world = native_calls.World(Path(world_dir), build=False)
    os.chdir(world.repo / "moved")  # find_repo_root's start
    log = native_calls.capture_log(gu)
    unraisable = []
    sys.unraisablehook = lambda u: unraisable.extend([f"{u.err_msg}: {u.exc_type.__name__}: {u.exc_value}"])
    (_, setting, call), = [c for c in native_calls.calls(gu, world) if f"{c[0]} ({c[1]})" == label]
    faults = []

    def run(point, collect=False):
        """One run with allocation `point` failing, its answer checked: (the failure fell inside the call, the
        interpreter's reference total after it). The total is read at this one place, with the same objects
        of the sweep alive each time, so that two readings differ by what the run left behind."""
        log.lines.clear()
        inside, value, error = attempt(call, point, _testcapi.set_nomemory, _testcapi.remove_mem_hooks)
        if inside and not isinstance(error, MemoryError):
            if error is not None and (type(error) is not type(expected[1]) or str(error) != str(expected[1])) \
                    or error is None and (expected[1] is not None or not same(value, expected[0])):
                faults.append(f"at {point}: {describe(value, error)}, not {describe(*expected)}")
            elif log.lines != expected_log:
                faults.append(f"at {point}: log {log.lines}, not {expected_log}")
        if unraisable:
            faults.append(f"at {point}: {unraisable}")
            unraisable.clear()
        if error is not None:
            error.__traceback__ = None
        del value, error
        log.lines.clear()
        if collect:
            sys._clear_internal_caches()  # the method cache keeps the names it last looked up
            gc.collect()
        return inside, sys.gettotalrefcount()

    with native_calls.setting(gu, world, setting):
        expected, expected_log = None, None
        for _ in range(3):  # warm caches; the last run gives the normal answer
            log.lines.clear()
            inside, value, error = attempt(call, MAX_POINTS * 100, _testcapi.set_nomemory, _testcapi.remove_mem_hooks)
            expected, expected_log = (value, error), list(log.lines)
        del value, error
        if expected[1] is not None:
            expected[1].__traceback__ = None
        sys._clear_internal_caches()
        gc.collect()
        last = sys.gettotalrefcount()
        point = 0
        while point < MAX_POINTS:
            print(f"point {point}", file=sys.stderr, flush=True)
            inside, now = run(point)
            if now > last and not faults:  # garbage, a cache filled once, or a leak: a leak leaves references
                sys._clear_internal_caches()  # on every run (each fault noted holds some too)
                gc.collect()
                now = sys.gettotalrefcount()
                for _ in range(3):
                    inside, reading = run(point, collect=True)
                    if reading <= now:
                        break
                    now = reading
                else:
                    faults.append(f"at {point}: references left behind on every run")
            last = now
            if not inside:
                break
            point += 1
        else:
            faults.append(f"still failing after {MAX_POINTS} allocations")
    print(json.dumps({"points": point, "faults": faults[:10]}), flush=True)


def run_child(label: str, world_dir: Path, terminal: int) -> dict:
    child = subprocess.run([sys.executable, __file__, "--child", label, str(world_dir)], stdin=terminal,
                           capture_output=True, text=True, timeout=900)
    reached = [line for line in child.stderr.splitlines() if line.startswith("point ")][-1:]
    noise = [line for line in child.stderr.splitlines() if not line.startswith("point ")]
    if child.returncode != 0 or not child.stdout.strip():
        return {"points": 0, "faults": [f"crashed (exit {child.returncode}) {reached}: {child.stderr[-2000:]}"]}
    report = json.loads(child.stdout.splitlines()[-1])
    if any("Exception ignored" in line for line in noise):
        report["faults"].append("\n".join(noise[-20:]))
    return report


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--jobs", type=int, default=2, help="calls swept at once, each in its own child")
    parser.add_argument("--quiet", action="store_true", help="print the faults and the outcome only")
    parser.add_argument("patterns", nargs="*", help="sweep only the calls whose label holds one of these")
    options = parser.parse_args()
    try:
        from _testcapi import set_nomemory  # noqa: F401
    except ImportError:
        print("needs a debug interpreter with _testcapi.set_nomemory (python3.14d)")
        return 2
    from morvane_tessary.utils import git_utils as gu

    native_calls.quiet_git_configuration()
    started = time.monotonic()
    total_points, failed = 0, 0
    # git shortlog reads the log from standard input unless that is a terminal: the children get one
    terminal, keep = pty.openpty()
    with tempfile.TemporaryDirectory() as scratch, ThreadPoolExecutor(options.jobs) as pool:
        world = native_calls.World(Path(scratch))
        # Not the reload: most of it is importlib's and dataclasses' Python code, in which 3.14's debug
        # interpreter aborts on a failed list append of its own (see native_calls.LogLines).
        labels = [f"{label} ({setting})" for label, setting, _ in native_calls.calls(gu, world)
                  if label != "importlib.reload"]
        labels = [label for label in labels if not options.patterns or any(p in label for p in options.patterns)]
        for label, report in zip(labels, pool.map(lambda label: run_child(label, Path(scratch), terminal), labels)):
            total_points += report["points"]
            failed += bool(report["faults"])
            if report["faults"] or not options.quiet:
                print(f"{label}: {report['points']} allocations, {'clean' if not report['faults'] else 'FAULTS'}",
                      flush=True)
            for fault in report["faults"]:
                print("    " + fault.replace("\n", "\n    "), flush=True)
    os.close(terminal), os.close(keep)
    outcome = "clean" if not failed else f"{failed} calls with faults"
    print(f"out-of-memory sweep: {len(labels)} calls x their allocations = {total_points} runs "
          f"with one allocation failing, in {time.monotonic() - started:.0f} s: {outcome}")
    return 1 if failed else 0


if __name__ == "__main__":
    if sys.argv[1:2] == ["--child"]:
        sweep(*sys.argv[2:])
    else:
        sys.exit(main())
