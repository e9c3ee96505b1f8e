"""History benchmarks, side by side in one run.

    python benchmarks/bench_history.py

parse_time_spec on relative and ISO specs against the same function written
in plain Python on top of datetime.fromisoformat (the target: at least 3 times
faster on every spec); count_commits and commit_before against the bare git
command line.
"""

from __future__ import annotations

import subprocess
import sys
import tempfile
import time
import timeit
from datetime import datetime
from pathlib import Path

from morvane_tessary.utils import git_utils

sys.path.insert(0, str(Path(__file__).resolve().parent))
from bench_runner import bare, build_bare, print_table, rate  # noqa: E402
from plain_git_utils import parse_time_spec as reference_parse_time_spec  # noqa: E402

RELATIVE_SPECS = ("7d", " 24h ", "30m", "2w")
ISO_SPECS = ("2026-09-01", "2026-09-01T12:30", "2026-09-01T12:30:00+02:00")
TARGET = 3.0


def per_call(fn, runs: int) -> float:
    fn()
    start = time.perf_counter()
    for _ in range(runs):
        fn()
    return (time.perf_counter() - start) / runs


def per_parse(parse, spec: str, runs: int = 20000) -> float:
    # A direct call in timeit's loop: no lambda around it to blur the ratio.
    return timeit.Timer("parse(spec)", globals={"parse": parse, "spec": spec}).timeit(runs) / runs


def spec_rows(kind: str, specs: tuple[str, ...]) -> tuple[list[tuple[str, float, str]], float]:
    rows, ratios = [], []
    for spec in specs:
        # Interleaved rounds, best of each: the machine's noise hits both alike.
        rounds = [(per_parse(reference_parse_time_spec, spec), per_parse(git_utils.parse_time_spec, spec))
                  for _ in range(7)]
        ref, ours = (min(r[i] for r in rounds) for i in range(2))
        ratios.append(ref / ours)
        rows.append((f"{kind} {spec!r}: plain Python", ref, ""))
        rows.append((f"{kind} {spec!r}: module", ours,
                     f"plain Python / module {ref / ours:.2f}; {rate(len(spec.encode()), ours)} of specs"))
    return rows, min(ratios)


def main() -> None:
    relative, relative_low = spec_rows("relative", RELATIVE_SPECS)
    iso, iso_low = spec_rows("ISO", ISO_SPECS)
    rows = relative + iso

    exe = build_bare()
    with tempfile.TemporaryDirectory() as tmp:
        root = Path(tmp)
        subprocess.run(["git", "init", "-q", str(root)], check=True)
        for i in range(20):
            subprocess.run(["git", "-c", "user.name=b", "-c", "user.email=b@x", "commit", "-q", "--allow-empty",
                            "-m", str(i)], cwd=root, check=True)
        moment = datetime.now()
        jobs = [
            ("count_commits", lambda: git_utils.count_commits(root, "HEAD~10", "HEAD"),
             ["rev-list", "--count", "HEAD~10..HEAD"]),
            ("commit_before", lambda: git_utils.commit_before(root, "HEAD", moment),
             ["rev-list", "-1", f"--before={moment:%Y-%m-%d %H:%M:%S}", "HEAD"]),
        ]
        for name, fn, args in jobs:
            rounds = [(bare(exe, 30, root, args), per_call(fn, 30)) for _ in range(8)]
            t_bare, t_mod = (min(r[i] for r in rounds) for i in range(2))
            size = len(git_utils.run_git_command(root, args)[0].encode("utf-8"))
            rows.append((f"{name}: bare git", t_bare, ""))
            rows.append((f"{name}: module", t_mod,
                         f"module/bare {t_mod / t_bare:.3f}; {rate(size, t_mod)} of git's {size}-byte output"))

    print(f"Python {sys.version.split()[0]}")
    print_table(rows)
    for kind, low in (("relative", relative_low), ("ISO", iso_low)):
        verdict = "meets" if low >= TARGET else "misses"
        print(f"parse_time_spec, {kind} specs: lowest plain Python / module {low:.2f}"
              f" ({verdict} the {TARGET:g}x target)")


if __name__ == "__main__":
    main()
