"""References and memory blocks left behind by the calls of fuzz/native_calls.py, counted as the interpreter's own
test suite hunts leaks: under a debug interpreter, each call runs a few times to warm caches, then in rounds of
repeated calls; `sys.gettotalrefcount()` and `sys.getallocatedblocks()` are read between rounds, and a call
leaks when every round leaves more behind than it found. Run it from anywhere with the module installed:

    python3.14d fuzz/leak_check.py [--rounds N] [--calls N] [--quiet] [LABEL-SUBSTRING...]

It prints one line per call (the references and blocks each round of the last few left behind) and exits
non-zero when any call leaks."""
import argparse
import gc
import os
import pty
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import native_calls  # noqa: E402


def run_quietly(call, lines: list) -> None:
    try:
        call()
    except Exception:  # the error paths are among the calls
        pass
    lines.clear()  # the log lines the call made


# One int object per difference, made before the rounds: a new int made between two readings would count as a
# block left behind (as in the interpreter's own leak hunt).
POOL = {value: value for value in range(-1000, 1000)}


def pooled(value: int) -> int:
    return POOL.setdefault(value, value)


def deltas(call, lines: list, rounds: int, calls: int, most: int) -> list[tuple[int, int, int]]:
    """(references, blocks, calls so far) that each round of `calls` calls added, over the last `rounds` rounds: the rounds go
    on (up to `most`) while each of the last `rounds` left something behind, as caches do while they fill.
    Before each reading the interpreter's own caches are emptied (its method cache keeps the attribute names it
    last looked up) and strings interned for good (freed at exit) are not counted as blocks, as in the
    interpreter's own leak hunt."""
    for _ in range(3):
        run_quietly(call, lines)
    # round 0 is not judged: it warms what the rounds themselves use
    refs, blocks = [0] * most, [0] * most
    gettotalrefcount, getallocatedblocks, interned = \
        sys.gettotalrefcount, sys.getallocatedblocks, sys.getunicodeinternedsize
    sys._clear_internal_caches()
    gc.collect()
    refs_before, blocks_before = gettotalrefcount(), getallocatedblocks() - interned(_only_immortal=True)
    for i in range(most):
        for _ in range(calls):
            run_quietly(call, lines)
        sys._clear_internal_caches()
        gc.collect()
        blocks_after = getallocatedblocks() - interned(_only_immortal=True)
        refs_after = gettotalrefcount()
        refs[i], blocks[i] = pooled(refs_after - refs_before), pooled(blocks_after - blocks_before)
        refs_before, blocks_before = refs_after, blocks_after
        if i >= rounds and not (all(r >= 1 for r in refs[i + 1 - rounds:i + 1]) or
                                    all(b >= 1 for b in blocks[i + 1 - rounds:i + 1])):
            break
    return [(refs[j], blocks[j], 3 + (j + 1) * calls) for j in range(i + 1 - rounds, i + 1)]


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=4)
    parser.add_argument("--calls", type=int, default=10)
    parser.add_argument("--most", type=int, default=30, help="rounds at most, warm-up included")
    parser.add_argument("--quiet", action="store_true", help="print the leaks and the outcome only")
    parser.add_argument("patterns", nargs="*", help="check only the calls whose label holds one of these")
    options = parser.parse_args()
    if not hasattr(sys, "gettotalrefcount"):
        print("needs a debug interpreter (python3.14d)")
        return 2
    from morvane_tessary.utils import git_utils as gu

    native_calls.quiet_git_configuration()
    # git shortlog reads the log from standard input unless that is a terminal
    terminal, keep = pty.openpty()
    os.dup2(terminal, 0)
    started, leaking, count = time.monotonic(), [], 0
    with tempfile.TemporaryDirectory() as scratch:
        world = native_calls.World(Path(scratch))
        os.chdir(world.repo / "moved")  # find_repo_root's start
        log = native_calls.capture_log(gu)
        for label, setting, call in native_calls.calls(gu, world):
            name = f"{label} ({setting})"
            if options.patterns and not any(p in name for p in options.patterns):
                continue
            count += 1
            with native_calls.setting(gu, world, setting):
                found = deltas(call, log.lines, options.rounds, options.calls, options.most)
            refs, blocks = [r for r, _, _ in found], [b for _, b, _ in found]
            leaks = all(r >= 1 for r in refs) or all(b >= 1 for b in blocks)
            leaking += [name] if leaks else []
            if leaks or not options.quiet:
                print(f"{name}: {'LEAKS' if leaks else 'flat'}, calls {found[0][2] - options.calls + 1} to "
                      f"{found[-1][2]} left {refs} references, {blocks} blocks", flush=True)
    os.close(terminal), os.close(keep)
    print(f"leak check: {count} calls, each judged on {options.rounds} rounds of {options.calls} after its warm-up, "
          f"in {time.monotonic() - started:.0f} s: {'flat' if not leaking else f'{len(leaking)} leak'}")
    return 1 if leaking else 0


if __name__ == "__main__":
    sys.exit(main())
