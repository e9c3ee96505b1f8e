"""Diff and log benchmarks, side by side in one run.

    python benchmarks/bench_changes.py [--reps N] [--peer-reps N] [--peer-commits N] [--no-peers]
                                       [--only queries,batches,parsers,bytes,peers,memory]

On the synthetic history of make_history.py (built once, cached in
benchmarks/out/):

1. diff_line_spans(main...feature), diff_file_changes(main...feature) and
   log_commit_changes over the whole history against the bare spawn of the
   same git command line (bare_spawn.cpp: posix_spawn and drain, no
   decoding): wall time, module/bare, and the CPU the module's own process
   spends against git's, beside what bare_spawn itself spends draining the
   same output. `_git_output` alone splits the module's time into the
   runner's and the parser's part.
2. diff_line_spans with every path of the tree (one git per batch of paths)
   against one git with all paths on one command line.
3. The three parsers alone on the captured output against the same rules in
   plain Python (plain_git_utils.py), the result freed inside the timing
   and, beside it, kept, and the freeing of each result alone; then each
   parser on git's bytes as its query hands them over (a stand-in git
   printing the captured output).
4. The libraries a user might pick instead, when installed (pip install
   '.[bench]'): unidiff and whatthepatch parsing the patch; GitPython (with
   unidiff for the patch) and pygit2 doing the three jobs their own way.
5. The peak memory of each parse against the size of git's output, in fresh
   child processes.

Each figure is the median of several repetitions taken in turns.
"""

from __future__ import annotations

import argparse
import dataclasses
import os
import resource
import statistics
import subprocess
import sys
import time
from datetime import datetime
from pathlib import Path
from typing import Callable

import plain_git_utils as ref
from bench_runner import OUT, BareServer, bare, build_bare, print_table, rate
from make_history import ensure_history

from morvane_tessary.utils import git_utils

SINCE = datetime(2000, 1, 1)
BASE, HEAD = "main", "feature"
RANGE = f"{BASE}...{HEAD}"

# The command lines the module runs for these calls, written out here so
# that the bare runs do not depend on the module; checked against what the
# module hands to _git_output before anything is timed.
PATCH_OPTIONS = ["--no-color", "--no-ext-diff", "--no-textconv", "--no-prefix", "-M", "-U0"]
SPANS_ARGS = ["-c", "core.quotepath=off", "--literal-pathspecs", "diff", *PATCH_OPTIONS, "--diff-filter=MR", RANGE]
FILES_ARGS = ["diff", "--raw", "--numstat", "-M", "-z", "--no-textconv", RANGE]


def log_args(max_commits: int) -> list[str]:
    return ["log", f"--since={SINCE:%Y-%m-%d %H:%M:%S}", f"--max-count={max_commits}", "--no-show-signature",
            "--format=%x1e%ct", "--raw", "--numstat", "-M", "-z"]


# The query that hands its git output to each parser.
QUERY_OF = {"parse_line_spans": "diff_line_spans", "parse_file_changes": "diff_file_changes",
            "parse_commit_changes": "log_commit_changes"}


def native(name: str) -> Callable | None:
    """The module's function, or None while this build lacks it."""
    return getattr(git_utils, name, None)


# -- measuring --------------------------------------------------------------------


@dataclasses.dataclass
class Sample:
    wall: float
    own_cpu: float  # this process: reading the pipes, decoding, parsing, building records
    child_cpu: float  # the reaped children: git (and bare_spawn for a bare run)


def _cpu(who: int) -> float:
    usage = resource.getrusage(who)
    return usage.ru_utime + usage.ru_stime


def measure(fn: Callable[[], object]) -> Sample:
    own, child, start = _cpu(resource.RUSAGE_SELF), _cpu(resource.RUSAGE_CHILDREN), time.perf_counter()
    fn()
    wall = time.perf_counter() - start
    return Sample(wall, _cpu(resource.RUSAGE_SELF) - own, _cpu(resource.RUSAGE_CHILDREN) - child)


def measure_bare(exe: Path, root: Path, args: list[str]) -> Sample:
    """One bare run of git, spawning bare_spawn for it; only its wall time counts."""
    return Sample(bare(exe, 1, root, args), float("nan"), float("nan"))


class BareDrain:
    """bare_spawn serving one command line; each call is one run, with the
    CPU that bare_spawn itself spent (from /proc/PID/schedstat, in ns) and
    the CPU of the git it reaped (from /proc/PID/stat, in clock ticks)."""

    def __init__(self, exe: Path, root: Path, args: list[str]) -> None:
        self._server = BareServer(exe, root, args)
        self._pid = self._server._proc.pid
        self.size = 0

    def _cpu(self) -> tuple[float, float]:
        try:
            with open(f"/proc/{self._pid}/schedstat") as fh:
                own = int(fh.read().split()[0]) / 1e9
            with open(f"/proc/{self._pid}/stat") as fh:
                fields = fh.read().rsplit(")", 1)[1].split()
            return own, (int(fields[13]) + int(fields[14])) / os.sysconf("SC_CLK_TCK")
        except OSError:
            return float("nan"), float("nan")

    def __call__(self) -> Sample:
        own, child = self._cpu()
        seconds, self.size = self._server()
        own_after, child_after = self._cpu()
        return Sample(seconds, own_after - own, child_after - child)

    def close(self) -> None:
        self._server.close()


def median(samples: list[Sample]) -> Sample:
    return Sample(*(statistics.median(getattr(s, f.name) for s in samples) for f in dataclasses.fields(Sample)))


def rounds(jobs: list[Callable[[], Sample]], reps: int) -> list[list[Sample]]:
    """The samples of each job over `reps` rounds, one run of every job per
    round in a rotating order (after one warm-up round), so that the
    machine's noise hits all of them alike."""
    for job in jobs:
        job()
    samples: list[list[Sample]] = [[] for _ in jobs]
    for i in range(reps):
        for j in [*range(i % len(jobs), len(jobs)), *range(i % len(jobs))]:
            samples[j].append(jobs[j]())
    return samples


def interleaved(jobs: list[Callable[[], Sample]], reps: int) -> list[Sample]:
    """The median sample of each job over `reps` rounds."""
    return [median(s) for s in rounds(jobs, reps)]


def parse_times(fns: list[Callable[[str], object]], text: str, reps: int) -> list[float]:
    """Median seconds of each parser on `text`, the parsers taking turns: the
    CPU time of this process, which on a shared machine, unlike the wall
    time, leaves out the turns other processes take on the cores."""
    return [s.own_cpu for s in interleaved([lambda f=f: measure(lambda: f(text)) for f in fns], reps)]


def plain(value: object) -> object:
    """Records as tuples, so the module's and the yardstick's results compare."""
    if dataclasses.is_dataclass(value):
        return dataclasses.astuple(value)
    if isinstance(value, dict):
        return {k: plain(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [plain(v) for v in value]
    return value


# -- checks before timing -----------------------------------------------------------


def recorded_args(call: Callable[[], object]) -> list[list[str]]:
    """The argument lists the module hands to _git_output during `call`."""
    original = git_utils._git_output
    seen: list[list[str]] = []

    def recording(repo_root, args):
        seen.append(list(args))
        return original(repo_root, args)

    git_utils._git_output = recording
    try:
        call()
    finally:
        git_utils._git_output = original
    return seen


def check_same_argv(name: str, call: Callable[[], object], expected: list[list[str]]) -> None:
    seen = recorded_args(call)
    if seen != expected:
        raise SystemExit(f"{name}: the module ran {seen[:1]}... ({len(seen)} runs), the benchmark expects "
                         f"{expected[:1]}... ({len(expected)} runs)")


def check_same_result(name: str, ours: object, theirs: object) -> None:
    if plain(ours) != plain(theirs):
        raise SystemExit(f"{name}: the module and the plain-Python yardstick disagree")


# -- the jobs -----------------------------------------------------------------------


def query_rows(root: Path, exe: Path, reps: int, max_commits: int) -> list[tuple[str, float, str]]:
    jobs = [
        ("diff_line_spans(main...feature)", SPANS_ARGS,
         lambda: git_utils.diff_line_spans(root, BASE, HEAD, merge_base=True), "diff_line_spans"),
        ("diff_file_changes(main...feature)", FILES_ARGS,
         lambda: git_utils.diff_file_changes(root, BASE, HEAD), "diff_file_changes"),
        ("log_commit_changes(whole history)", log_args(max_commits),
         lambda: git_utils.log_commit_changes(root, since=SINCE, ref=None, max_commits=max_commits),
         "log_commit_changes"),
    ]
    rows = []
    for label, args, call, fn_name in jobs:
        output = git_utils._git_output(root, args)
        size = len(output.encode("utf-8"))
        if native(fn_name) is not None:
            check_same_argv(fn_name, call, [args])
        drain = BareDrain(exe, root, args)
        candidates = [drain, lambda a=args: measure(lambda: git_utils._git_output(root, a))]
        if native(fn_name) is not None:
            candidates.append(lambda c=call: measure(c))
        try:
            samples = rounds(candidates, reps)
        finally:
            drain.close()
        if drain.size != size:
            raise SystemExit(f"{label}: bare_spawn read {drain.size} bytes, the runner returned {size}")
        t_bare, t_runner, *t_mod = [median(s) for s in samples]
        best_bare = min(s.wall for s in samples[0])
        rows.append((f"{label}: bare git", t_bare.wall,
                     f"{size / 1e6:.2f} MB of output; bare_spawn's own CPU {t_bare.own_cpu * 1e3:.1f} ms = "
                     f"{t_bare.own_cpu / t_bare.child_cpu:.1%} of git's {t_bare.child_cpu * 1e3:.0f} ms"))
        rows.append((f"{label}: _git_output alone", t_runner.wall,
                     f"runner/bare {t_runner.wall / t_bare.wall:.3f}; own CPU {t_runner.own_cpu * 1e3:.1f} ms = "
                     f"{rate(size, t_runner.own_cpu)}"))
        if not t_mod:
            rows.append((f"{label}: module", float("nan"), f"{fn_name} not in this build"))
            continue
        best_mod = min(s.wall for s in samples[2])
        rows.append((f"{label}: module", t_mod[0].wall,
                     f"module/bare {t_mod[0].wall / t_bare.wall:.3f}, best runs {best_mod / best_bare:.3f} "
                     f"(target <= 1.05); own CPU {t_mod[0].own_cpu * 1e3:.1f} ms = "
                     f"{t_mod[0].own_cpu / t_mod[0].child_cpu:.1%} of git's {t_mod[0].child_cpu * 1e3:.0f} ms "
                     f"(target <= 3%) = {rate(size, t_mod[0].own_cpu)}"))
    return rows


def tree_paths(root: Path) -> list[str]:
    out = subprocess.run(["git", "ls-tree", "-r", "-z", "--name-only", HEAD], cwd=root, capture_output=True,
                         check=True).stdout
    return [p.decode("utf-8", "surrogateescape") for p in out.split(b"\0") if p]


def batch_rows(root: Path, exe: Path, reps: int) -> list[tuple[str, float, str]]:
    paths = tree_paths(root)
    batches = ref._path_batches(paths)
    per_batch = [[*SPANS_ARGS, "--", *batch] for batch in batches]
    one_line = [*SPANS_ARGS, "--", *paths]
    fn = native("diff_line_spans")

    def call() -> object:
        return git_utils.diff_line_spans(root, BASE, HEAD, merge_base=True, paths=paths)

    jobs = [lambda: measure_bare(exe, root, one_line),
            lambda: Sample(*(sum(x) for x in zip(*(dataclasses.astuple(measure_bare(exe, root, a))
                                                   for a in per_batch))))]
    if fn is not None:
        check_same_argv("diff_line_spans with paths", call, per_batch)
        jobs.append(lambda: measure(call))
    results = interleaved(jobs, reps)
    label = f"{len(paths)} paths, {sum(map(len, paths)) + len(paths)} chars"
    rows = [(f"{label}: bare git, all on one line", results[0].wall, "one git"),
            (f"{label}: bare git per batch, summed", results[1].wall,
             f"{len(batches)} gits; batches/one line {results[1].wall / results[0].wall:.2f}")]
    if fn is None:
        rows.append((f"{label}: module", float("nan"), "diff_line_spans not in this build"))
    else:
        rows.append((f"{label}: diff_line_spans(paths=...)", results[2].wall,
                     f"module/one line {results[2].wall / results[0].wall:.2f}; "
                     f"module/bare batches {results[2].wall / results[1].wall:.3f}"))
    return rows


def str_kind(text: str) -> str:
    """How CPython stores the text: what a parser that reads UTF-8 has to encode first."""
    widest = ord(max(text)) if text else 0
    return "ASCII" if widest < 0x80 else "1-byte" if widest < 0x100 else "2-byte" if widest < 0x10000 else "4-byte"


# Speed-up over the plain-Python yardstick each parser aims at, by version.
PARSER_TARGETS = {"parse_line_spans": 15, "parse_file_changes": 12, "parse_commit_changes": 12} \
    if sys.version_info < (3, 11) else dict.fromkeys(QUERY_OF, 10)


def kept_times(fns: list[Callable[[str], object]], text: str, reps: int) -> list[float]:
    """As parse_times, but the clock stops when the parser returns: each
    result is freed before the next run starts, outside the timing."""
    box: list[object] = []

    def job(f: Callable[[str], object]) -> Sample:
        box.clear()
        return measure(lambda: box.append(f(text)))

    return [s.own_cpu for s in interleaved([lambda f=f: job(f) for f in fns], reps)]


def free_times(fns: list[Callable[[str], object]], text: str, reps: int) -> list[float]:
    """Median seconds of freeing each parser's result alone, the parsers
    taking turns: the objects are alike, but not where they lie in memory."""
    def job(f: Callable[[str], object]) -> Sample:
        box = [f(text)]
        return measure(box.clear)

    return [s.own_cpu for s in interleaved([lambda f=f: job(f) for f in fns], reps)]


def parser_rows(outputs: dict[str, str], reps: int) -> list[tuple[str, float, str]]:
    rows = []
    for name, text in outputs.items():
        size = len(text.encode("utf-8"))
        fn = native(name)
        if fn is None:
            t_ref = parse_times([getattr(ref, name)], text, reps)[0]
            rows.append((f"{name}: plain Python", t_ref, f"{size / 1e6:.1f} MB/s on a {str_kind(text)} str"))
            rows.append((f"{name}: module", float("nan"), "not in this build"))
            continue
        check_same_result(name, fn(text), getattr(ref, name)(text))
        t_ref, t_mod = parse_times([getattr(ref, name), fn], text, reps)
        k_ref, k_mod = kept_times([getattr(ref, name), fn], text, reps)
        f_ref, f_mod = free_times([getattr(ref, name), fn], text, reps)
        rows.append((f"{name}: plain Python", t_ref, f"{size / 1e6 / t_ref:.1f} MB/s on a {str_kind(text)} str"))
        rows.append((f"{name}: module", t_mod,
                     f"{size / 1e6 / t_mod:.1f} MB/s; plain Python/module {t_ref / t_mod:.1f}x "
                     f"(target >= {PARSER_TARGETS[name]}x); with the result kept (its freeing untimed) "
                     f"{k_ref / k_mod:.1f}x; freeing the result {f_ref * 1e3:.2f} ms for plain Python's, "
                     f"{f_mod * 1e3:.2f} ms for the module's"))
        # The same output in narrower strs, which the module reads in place:
        # without the characters past U+FFFF (two bytes a character, as most
        # repositories' output with non-Latin names), and all ASCII.
        copies = {"2-byte copy": ("".join(c if c <= "\uffff" else "?" for c in text), "past U+FFFF"),
                  "ASCII copy": (text.encode("ascii", "replace").decode("ascii"), "non-ASCII")}
        for label, (copy, which) in copies.items():
            if copy == text or (label == "2-byte copy" and str_kind(copy) != "2-byte"):
                continue
            t_ref, t_mod = parse_times([getattr(ref, name), fn], copy, reps)
            rows.append((f"{name}: module, {label}", t_mod,
                         f"{size / 1e6 / t_mod:.1f} MB/s; plain Python/module {t_ref / t_mod:.1f}x on the output "
                         f"with every {which} character as '?'"))
    return rows


# A git that prints a file: the queries then read exactly the bytes the
# benchmark captured, and hand them to their parsers as they would git's.
STAND_IN_GIT = "#!/bin/sh\nexec cat \"$GITUTILS_BENCH_OUTPUT\"\n"


def bytes_rows(root: Path, outputs: dict[str, str], reps: int) -> list[tuple[str, float, str]]:
    """Each parser on git's bytes, as its query hands them over. A stand-in
    git prints the captured output, and the query runs the runner and then
    the parser on the bytes. The runner alone is timed as _git_output of as
    many bytes of ASCII, less their decoding (cheap for ASCII, so its
    timing's error is small): parse = query - (_git_output - decoding), in
    this process's CPU."""
    queries = {
        "parse_line_spans": lambda: git_utils.diff_line_spans(root, BASE, HEAD, merge_base=True),
        "parse_file_changes": lambda: git_utils.diff_file_changes(root, BASE, HEAD),
        "parse_commit_changes": lambda: git_utils.log_commit_changes(root, since=SINCE, ref=None,
                                                                     max_commits=100000),
    }
    bin_dir = OUT / "stand-in-git"
    bin_dir.mkdir(parents=True, exist_ok=True)
    (bin_dir / "git").write_text(STAND_IN_GIT)
    (bin_dir / "git").chmod(0o755)
    saved = os.environ.get("PATH", ""), os.environ.get("GITUTILS_BENCH_OUTPUT")
    os.environ["PATH"] = f"{bin_dir}{os.pathsep}{saved[0]}"
    rows = []
    try:
        for name, text in outputs.items():
            path, filler = OUT / f"captured-{name}.txt", OUT / f"ascii-{name}.txt"
            path.write_text(text, encoding="utf-8", newline="")
            size = path.stat().st_size
            filler.write_bytes(b"x" * size)

            def printing(which: Path, job: Callable[[], object]) -> Callable[[], Sample]:
                def run() -> Sample:
                    os.environ["GITUTILS_BENCH_OUTPUT"] = str(which)
                    return measure(job)

                return run

            query, parse = queries[name], getattr(ref, name)
            os.environ["GITUTILS_BENCH_OUTPUT"] = str(path)
            check_same_result(f"{QUERY_OF[name]} on git's bytes", query(), parse(text))
            ascii_bytes = b"x" * size
            t_query, t_runner, t_decode, t_ref = [s.own_cpu for s in interleaved([
                printing(path, query), printing(filler, lambda: git_utils._git_output(root, ["x"])),
                lambda: measure(lambda: ascii_bytes.decode("utf-8", "replace")),
                lambda: measure(lambda: parse(text))], reps)]
            t_mod = t_query - (t_runner - t_decode)
            rows.append((f"{name} on git's bytes: module", t_mod,
                         f"{QUERY_OF[name]} {t_query * 1e3:.1f} ms - runner {(t_runner - t_decode) * 1e3:.1f} ms; "
                         f"{rate(size, t_mod)}; plain Python on the str/module {t_ref / t_mod:.1f}x "
                         f"(target >= {PARSER_TARGETS[name]}x)"))
    finally:
        os.environ["PATH"] = saved[0]
        if saved[1] is None:
            os.environ.pop("GITUTILS_BENCH_OUTPUT", None)
        else:
            os.environ["GITUTILS_BENCH_OUTPUT"] = saved[1]
    return rows


# -- peers ----------------------------------------------------------------------------


def _span(start: int, new_count: int, old_count: int) -> tuple[int, int, bool]:
    if new_count == 0:
        return (max(start, 1), max(start, 1), False)
    return (start, start + new_count - 1, old_count == 0)


def patch_parsers() -> dict[str, Callable[[str], object] | str]:
    """Patch parsers of other libraries, or why one is missing."""
    found: dict[str, Callable[[str], object] | str] = {}
    try:
        import unidiff

        found["unidiff PatchSet"] = unidiff.PatchSet
    except ImportError:
        found["unidiff PatchSet"] = "not installed"
    try:
        import whatthepatch

        found["whatthepatch parse_patch"] = lambda text: list(whatthepatch.parse_patch(text))
    except ImportError:
        found["whatthepatch parse_patch"] = "not installed"
    return found


def gitpython_jobs(root: Path, commits: int) -> dict[str, Callable[[], object]] | str:
    try:
        import git
        import unidiff
    except ImportError as exc:
        return f"not installed ({exc.name})"
    repo = git.Repo(root)
    since = f"{SINCE:%Y-%m-%d %H:%M:%S}"

    def spans() -> object:
        text = repo.git.diff(RANGE, "--no-color", "--no-ext-diff", "-M", "--unified=0", "--diff-filter=MR")
        result: dict[str, list] = {}
        for pf in unidiff.PatchSet(text):
            for h in pf:
                result.setdefault(pf.path, []).append(_span(h.target_start, h.target_length, h.source_length))
        return result

    def files() -> object:
        base = repo.merge_base(BASE, HEAD)[0]
        counts = {}
        for line in repo.git.diff(RANGE, "--numstat", "-M").splitlines():
            added, deleted, path = line.split("\t", 2)
            counts[path] = (added, deleted)
        return [(d.b_path, d.change_type, counts.get(d.b_path), d.a_path) for d in base.diff(HEAD)]

    def log() -> object:
        return [(c.committed_date, c.stats.files) for c in repo.iter_commits("HEAD", since=since, max_count=commits)]

    return {"spans": spans, "files": files, "log": log}


def pygit2_jobs(root: Path, commits: int) -> dict[str, Callable[[], object]] | str:
    try:
        import pygit2
    except ImportError:
        return "not installed"
    repo = pygit2.Repository(str(root))
    by_time = getattr(pygit2, "GIT_SORT_TIME", None) or pygit2.enums.SortMode.TIME
    since = SINCE.timestamp()

    def merge_base_diff(**kwargs) -> object:
        base = repo.merge_base(repo.revparse_single(BASE).id, repo.revparse_single(HEAD).id)
        diff = repo.diff(repo[base], repo.revparse_single(HEAD), **kwargs)
        diff.find_similar()
        return diff

    def spans() -> object:
        result: dict[str, list] = {}
        for patch in merge_base_diff(context_lines=0):
            if patch.delta.status_char() in "MR":
                for h in patch.hunks:
                    result.setdefault(patch.delta.new_file.path, []).append(_span(h.new_start, h.new_lines, h.old_lines))
        return result

    def files() -> object:
        return [(p.delta.new_file.path, p.delta.status_char(), p.line_stats, p.delta.old_file.path)
                for p in merge_base_diff()]

    def log() -> object:
        result = []
        for commit in repo.walk(repo.head.target, by_time):
            if len(result) >= commits or commit.commit_time < since:
                break
            if len(commit.parents) > 1:
                result.append((commit.commit_time, ()))
                continue
            diff = repo.diff(commit.parents[0], commit) if commit.parents else commit.tree.diff_to_tree(swap=True)
            diff.find_similar()
            result.append((commit.commit_time, [(p.delta.new_file.path, p.line_stats) for p in diff]))
        return result

    return {"spans": spans, "files": files, "log": log}


def contest(label: str, module_call: Callable[[], object] | None, peers: dict[str, Callable[[], object] | str],
            reps: int, rate_bytes: int = 0, notes: dict[str, str] | None = None) -> list[tuple[str, float, str]]:
    """The module and every installed peer taking turns on one job; one row each."""
    runnable = {name: job for name, job in peers.items() if not isinstance(job, str)}
    contenders = ([module_call] if module_call else []) + list(runnable.values())
    walls = [s.wall for s in interleaved([lambda c=c: measure(c) for c in contenders], reps)]
    t_mod = walls.pop(0) if module_call else None
    rate = (lambda t: f"{rate_bytes / 1e6 / t:.1f} MB/s; ") if rate_bytes else (lambda t: "")
    rows = [(f"{label}: module", t_mod, rate(t_mod).rstrip("; ")) if t_mod
            else (f"{label}: module", float("nan"), "not in this build")]
    for name, job in peers.items():
        if isinstance(job, str):
            rows.append((f"{label}: {name}", float("nan"), job))
            continue
        t_peer = walls.pop(0)
        versus = f"{name}/module {t_peer / t_mod:.1f}x (target > 1)" if t_mod else ""
        rows.append((f"{label}: {name}", t_peer, rate(t_peer) + versus + (notes or {}).get(name, "")))
    return rows


def peer_rows(root: Path, patch: str, prefixed_patch: str, reps: int, commits: int) -> list[tuple[str, float, str]]:
    parsers: dict[str, Callable[[], object] | str] = {}
    notes = {}
    for name, parser in patch_parsers().items():
        if isinstance(parser, str):
            parsers[name] = parser
            continue
        text = patch
        try:
            parser(patch)
        except Exception as exc:  # noqa: BLE001 - a peer that cannot read the module's patch form
            text = prefixed_patch
            notes[name] = f" (fails on the --no-prefix patch: {type(exc).__name__}; timed on the a/ b/ one)"
        parsers[name] = lambda p=parser, t=text: p(t)
    fn = native("parse_line_spans")
    rows = contest("parse the patch", (lambda: fn(patch)) if fn else None, parsers, reps,
                   len(patch.encode("utf-8")), notes)

    jobs = {
        "spans": ("lines of main...feature", native("diff_line_spans"),
                  lambda: git_utils.diff_line_spans(root, BASE, HEAD, merge_base=True)),
        "files": ("files of main...feature", native("diff_file_changes"),
                  lambda: git_utils.diff_file_changes(root, BASE, HEAD)),
        "log": (f"{commits} newest commits with stats", native("log_commit_changes"),
                lambda: git_utils.log_commit_changes(root, since=SINCE, ref=None, max_commits=commits)),
    }
    peers = {"GitPython": gitpython_jobs(root, commits), "pygit2": pygit2_jobs(root, commits)}
    for job, (label, fn, call) in jobs.items():
        others = {name: found if isinstance(found, str) else found[job] for name, found in peers.items()}
        rows += contest(label, call if fn else None, others, reps)
    return rows


# -- memory -----------------------------------------------------------------------------

_MEMORY_CHILD = r"""
import resource, sys, time
sys.path.insert(0, sys.argv[4])
from morvane_tessary.utils import git_utils
import plain_git_utils
path, mode, name, root = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[5]
queries = {  # the query that hands its git output to each parser
    "parse_line_spans": lambda: git_utils.diff_line_spans(root, "main", "feature", merge_base=True),
    "parse_file_changes": lambda: git_utils.diff_file_changes(root, "main", "feature"),
    "parse_commit_changes": lambda: git_utils.log_commit_changes(
        root, since=__import__("datetime").datetime(2000, 1, 1), ref=None, max_commits=100000),
}
with open(path, encoding="utf-8", newline="") as fh:
    text = fh.read()
def status(key):
    with open("/proc/self/status") as fh:
        for line in fh:
            if line.startswith(key):
                return int(line.split()[1]) * 1024
before = status("VmRSS:")
try:  # forget the peak of reading the file, so the parse's own peak shows
    with open("/proc/self/clear_refs", "w") as fh:
        fh.write("5")
    reset = 1
except OSError:
    reset = 0
start = time.perf_counter()
result = None
if mode in ("module", "reference"):
    result = getattr(git_utils if mode == "module" else plain_git_utils, name)(text)
elif mode == "query":
    result = queries[name]()
seconds = time.perf_counter() - start
if mode == "records":  # what the result alone holds, as the interpreter's allocator counts it
    import tracemalloc
    tracemalloc.start()
    result = getattr(git_utils, name)(text)
    seconds = tracemalloc.get_traced_memory()[0]
print(resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024, status("VmHWM:") - before, reset, seconds)
"""


def memory_rows(root: Path, outputs: dict[str, str]) -> list[tuple[str, float, str]]:
    """Peak memory of each parse in a fresh child, as a multiple of the output's size.

    The high-water mark is reset after the child has read the output, so
    what it shows is the parse's own peak (its result included). Without
    that reset (no /proc/self/clear_refs) the figure is ru_maxrss over that
    of a child that only reads, which hides any peak below the reading's
    own (the bytes and the text side by side).
    """
    rows = []
    here = str(Path(__file__).resolve().parent)
    for name, text in outputs.items():
        path = OUT / f"captured-{name}.txt"
        path.write_text(text, encoding="utf-8", newline="")
        size = len(text.encode("utf-8"))

        def child(mode: str) -> list[float]:
            out = subprocess.run([sys.executable, "-c", _MEMORY_CHILD, str(path), mode, name, here, str(root)],
                                 capture_output=True, text=True, check=True).stdout
            return [float(x) for x in out.split()]

        baseline = child("read")[0]
        modes = [("module", "module"), ("reference", "plain Python")]
        if native(name) is None:
            rows.append((f"peak memory, {name}: module", float("nan"), "not in this build"))
            modes = modes[1:]
        else:
            modes.append(("query", f"{QUERY_OF[name]}, git's output read and parsed"))
        for mode, who in modes:
            maxrss, grown, reset, seconds = child(mode)
            peak = grown if reset else maxrss - baseline
            how = "high-water over RSS before the call" if reset else "ru_maxrss over a read-only child"
            extra = ""
            if mode == "module":
                held = child("records")[3]
                extra = (f"; the records alone {held / size:.2f}x, beyond them {(peak - held) / size:.2f}x "
                         f"(target <= 0.5x)")
            rows.append((f"peak memory, {name}: {who}", seconds,
                         f"{peak / size:.2f}x of {size / 1e6:.2f} MB{extra}: {how}"))
    return rows


# -- main ---------------------------------------------------------------------------------


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--reps", type=int, default=7, help="repetitions of each module/bare job")
    parser.add_argument("--peer-reps", type=int, default=3, help="repetitions of each peer job")
    parser.add_argument("--peer-commits", type=int, default=300, help="commits in the peers' log job")
    parser.add_argument("--max-commits", type=int, default=100000)
    parser.add_argument("--no-peers", action="store_true")
    parser.add_argument("--only", default="queries,batches,parsers,bytes,peers,memory",
                        help="comma-separated sections to run (a short run on a busy machine)")
    opts = parser.parse_args()
    only = set(opts.only.split(","))
    if opts.no_peers:
        only.discard("peers")

    root = ensure_history()
    exe = build_bare()
    commits = int(subprocess.run(["git", "rev-list", "--count", "HEAD"], cwd=root, capture_output=True,
                                 text=True, check=True).stdout)
    print(f"Python {sys.version.split()[0]}; history {root.name}: {commits} commits on HEAD; "
          f"load average {os.getloadavg()[0]:.2f} at start")

    outputs = {
        "parse_line_spans": git_utils._git_output(root, SPANS_ARGS),
        "parse_file_changes": git_utils._git_output(root, FILES_ARGS),
        "parse_commit_changes": git_utils._git_output(root, log_args(opts.max_commits)),
    }
    rows = query_rows(root, exe, opts.reps, opts.max_commits) if "queries" in only else []
    if "batches" in only:
        rows += batch_rows(root, exe, max(opts.reps // 2, 3))
    if "parsers" in only:
        rows += parser_rows(outputs, opts.reps)
    if "bytes" in only:
        rows += bytes_rows(root, outputs, opts.reps)
    if "peers" in only:
        prefixed = [a for a in SPANS_ARGS if a != "--no-prefix"]
        rows += peer_rows(root, outputs["parse_line_spans"], git_utils._git_output(root, prefixed), opts.peer_reps,
                          opts.peer_commits)
    if "memory" in only:
        rows += memory_rows(root, outputs)
    print_table(rows)


if __name__ == "__main__":
    main()
