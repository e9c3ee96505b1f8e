"""Every function of the module called with wrong types and odd values: each must return or raise an ordinary
exception with a message, never SystemError or a crash. Each group of functions runs in a child interpreter in
development mode (allocator checks), so a crash names the last call. Run it from anywhere with the module
installed:

    python fuzz/bad_input.py

It prints one line per group and exits non-zero when any case misbehaves.

With --against-plain it calls the native module and the module written in plain Python
(benchmarks/plain_git_utils.py) with the same arguments, case by case, and reports every case where one returns
and the other raises, they raise different exception types, or they return different values:

    python fuzz/bad_input.py --against-plain"""
import datetime as dt
import gc
import inspect
import json
import os
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
PLAIN = ROOT / "benchmarks"  # plain_git_utils: the module written in plain Python
TESTS = ROOT / "tests"  # proof_support: the repository builder, children()

GROUPS = {
    "runner": ["run_git_command", "_git_output"],
    "repository": ["find_git_root", "find_repo_root", "normalize_branch_name", "sanitize_branch_name", "wiki_root",
                   "wiki_directory"],
    "branch-queries": ["resolve_display_branch", "get_head_commit", "get_default_branch", "branch_exists",
                       "resolve_commit"],
    "history": ["parse_time_spec", "get_authors_for_period", "count_commits", "commit_before"],
    "change-queries": ["diff_file_changes", "log_commit_changes", "diff_line_spans"],
    "parsers": ["parse_file_changes", "parse_commit_changes", "parse_line_spans", "_span", "_file_changes",
                "_line_count", "_patch_path", "_unquote", "_path_batches"],
}
SPAWNING = {"runner", "branch-queries", "history", "change-queries"}


class Hostile:  # fails every conversion, comparison and protocol

    def _refuse(self, *args):
        raise LookupError("hostile argument")

    __str__ = __repr__ = __fspath__ = __bool__ = __len__ = __iter__ = __index__ = __int__ = __eq__ = __hash__ = \
        __getitem__ = __add__ = __radd__ = __format__ = __getattr__ = _refuse


def odd_values(repo: Path) -> dict[str, list]:  # by the kind of parameter
    anything = [None, b"main", 10**100, -1, 3.5, "a\0b", "\ud800", "", [], (), {}, object(), Hostile(),
                0, False, 0.0, b"", bytearray(b"main"), frozenset(), range(0),  # falsy ones: truth tests
                ("main",)]  # a one-item tuple: a lone argument that must not become the argument list
    listed = [[None], [b"x"], ["\ud800"], ["a\0b"], [10**100], [Path("x")], ["\udcff", "é\n\t"], "abc",
              ("rev-parse", "HEAD"), iter(["x"]), ["x" * 20_000] * 3]
    return {
        "path": anything + [Path("a\0b"), Path("\ud800"), Path("/nonexistent/x"), str(repo), repo / "keep.txt",
                            b"/tmp"],
        "text": anything + [Path("main"), "\udcff", "-h", "x" * 100_000, "99999999999999999999d", "\x1e\0\t:",
                            '"\\377\\', "@@ -1 +1 @@",
                            "0" * 5000 + "1d", "+++ a\n@@ -1 +1," + "0" * 5000 + " @@"],  # beyond int()'s digits
        "int": anything + [-10**100, 0, True, float("nan"), float("inf"), 2**63, -2**63 - 1, "7"],
        "bool": anything,
        "moment": anything + [dt.datetime.max, dt.datetime.min, dt.datetime(2026, 1, 1, tzinfo=dt.timezone.max),
                              dt.date(2026, 1, 1), "2026-01-01"],
        "list": anything + listed,
    }


def kind_of(annotation) -> str:
    text = str(annotation)
    for needle, kind in [("Path", "path"), ("datetime", "moment"), ("list[", "list"), ("Sequence", "list"),
                         ("bool", "bool"), ("int", "int")]:
        if needle in text:
            return kind
    return "text"


def valid_arguments(gu, repo: Path) -> dict:  # by parameter name, or (function, name) where names clash
    run = gu._git_output
    raw = run(repo, ["diff", "--raw", "--numstat", "-M", "-z", "main", "feature"])
    return {
        "repo_root": repo, "start": repo, "name": "main", "branch": "feature", "since": "7d", "base": "main",
        "head": "feature", "ref": "feature", "moment": dt.datetime.now(), "args": ["rev-parse", "HEAD"],
        "timeout": 2, "short": True, "merge_base": True, "paths": ["keep.txt"], "diff_filter": "MR",
        "max_commits": 5, "output": raw, "tokens": raw.split("\0"), "field": "12", "text": "dir/a\\tb",
        "new_count": 3, "old_count": 1,
        ("log_commit_changes", "since"): dt.datetime.now() - dt.timedelta(days=30),
        ("parse_commit_changes", "output"): run(repo, ["log", "--format=%x1e%ct", "--raw", "--numstat", "-z"]),
        ("_span", "start"): 4,
        "patch": run(repo, ["diff", "--no-color", "--no-ext-diff", "--no-prefix", "-M", "-U0", "main", "feature"]),
    }


def cases(gu, names, repo):  # (label, function, args, kwargs, must_raise)
    valid, odd = valid_arguments(gu, repo), odd_values(repo)
    for name in names:
        f = getattr(gu, name)
        params = inspect.signature(f).parameters.values()
        base = {p.name: valid.get((name, p.name), valid.get(p.name)) for p in params}

        def call(values):
            args = [values[p.name] for p in params if p.kind is p.POSITIONAL_OR_KEYWORD]
            return args, {p.name: values[p.name] for p in params if p.kind is p.KEYWORD_ONLY}

        args, kwargs = call(base)
        yield f"{name}(one argument too many)", f, [*args, None], kwargs, True
        yield f"{name}(unknown keyword)", f, args, {**kwargs, "bogus": 1}, True
        for p in params:
            for i, value in enumerate(odd[kind_of(p.annotation)]):
                args, kwargs = call({**base, p.name: value})
                shown = "Hostile()" if isinstance(value, Hostile) else repr(value)[:40]
                yield f"{name}({p.name}=<{kind_of(p.annotation)} #{i}: {shown}>)", f, args, kwargs, False


def sweep(gu, group: str, repo: Path):  # one JSON line per case
    for label, f, args, kwargs, must_raise in cases(gu, GROUPS[group], repo):
        print(f"calling {label}", file=sys.stderr, flush=True)
        try:
            result = f(*args, **kwargs)
            outcome = {"raised": None, "result": type(result).__name__}
        except Exception as e:
            outcome = {"raised": type(e).__name__, "message": str(e)[:200], "system": isinstance(e, SystemError)}
        print(json.dumps({"case": label, "must_raise": must_raise, **outcome}), flush=True)


def shown(value) -> str:  # a result as the comparison sees it: repr, paths by their text
    return str(value) if isinstance(value, Path) else repr(value)


def outcome_of(f, args, kwargs) -> dict:
    try:
        return {"raised": None, "result": f(*args, **kwargs)}
    except Exception as e:
        return {"raised": type(e).__name__, "message": str(e)[:200]}


def same_outcome(native: dict, plain: dict) -> bool:
    if plain["raised"] == "ValueError" and plain["message"].startswith("Exceeds the limit") and not native["raised"]:
        return True  # the parsers never reject their input: a count's leading zeros are read past int()'s limit
    if native["raised"] or plain["raised"]:
        return native["raised"] == plain["raised"]
    a, b = native["result"], plain["result"]
    if isinstance(a, dt.datetime) and isinstance(b, dt.datetime) and a.tzinfo is None and b.tzinfo is None:
        return abs(a - b) < dt.timedelta(seconds=2)  # "now" minus a period, read twice
    return type(a).__name__ == type(b).__name__ and shown(a) == shown(b)


def compare(gu, plain, group: str, repo: Path):  # one JSON line per case, both modules with fresh arguments
    native_cases, plain_cases = cases(gu, GROUPS[group], repo), cases(plain, GROUPS[group], repo)
    for (label, f, args, kwargs, _), (_, g, plain_args, plain_kwargs, _) in zip(native_cases, plain_cases):
        print(f"calling {label}", file=sys.stderr, flush=True)
        native, other = outcome_of(f, args, kwargs), outcome_of(g, plain_args, plain_kwargs)
        if not same_outcome(native, other):
            for side in (native, other):
                if not side["raised"]:
                    side["result"] = f"{type(side['result']).__name__}: {shown(side['result'])[:300]}"
            print(json.dumps({"case": label, "native": native, "plain": other}), flush=True)
        else:
            print(json.dumps({"case": label, "same": True}), flush=True)


def drive(group: str, repo: str, spawner: str, against: str = "") -> None:  # in the child
    import faulthandler

    sys.path.insert(0, str(TESTS))
    from proof_support import children

    from morvane_tessary.utils import git_utils as gu

    faulthandler.enable()
    modules = [gu]
    if against == "plain":
        sys.path.insert(0, str(PLAIN))
        import plain_git_utils

        modules.append(plain_git_utils)
    if spawner == "subprocess":  # host options send every run through subprocess.run
        for module in modules:
            module.get_subprocess_hidden_kwargs = lambda: {"close_fds": True}
    fds = len(os.listdir("/proc/self/fd"))
    if against == "plain":
        compare(gu, modules[1], group, Path(repo))
    else:
        sweep(gu, group, Path(repo))
    assert len(os.listdir("/proc/self/fd")) == fds and children() == [], "descriptors or children left behind"
    assert gc.isenabled(), "a parser left the collector off"


def run_child(repo: Path, group: str, spawner: str, against: str = ""):  # (cases, None) or (None, crash)
    child = subprocess.run([sys.executable, "-X", "dev", __file__, group, str(repo), spawner, against],
                           stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)
    last_call = [line for line in child.stderr.splitlines() if line.startswith("calling ")][-1:]
    if child.returncode != 0:
        return None, {"crashed": last_call, "stderr": child.stderr[-3000:]}
    return [json.loads(line) for line in child.stdout.splitlines()], None


def check_group(repo: Path, group: str, spawner: str) -> list:
    results, crash = run_child(repo, group, spawner)
    if crash:
        return [crash]
    bad = [r for r in results if (r["raised"] is None and r["must_raise"]) or r.get("system")
           or (r["raised"] is not None and not r["message"])]
    return bad if results else [{"no cases": group}]


def compare_with_plain(repo: Path) -> int:  # every case where the two modules part, by group and spawner
    compared = parted = 0
    for group in GROUPS:
        for spawner in ["native", "subprocess"] if group in SPAWNING else ["native"]:
            results, crash = run_child(repo, group, spawner, "plain")
            if crash:
                print(f"{group} ({spawner}): crashed", crash, flush=True)
                parted += 1
                continue
            differ = [r for r in results if not r.get("same")]
            compared += len(results)
            parted += len(differ)
            print(f"{group} ({spawner}): {len(results)} cases, {len(differ)} differ", flush=True)
            for r in differ:
                print(f"    {r['case']}\n        native: {r['native']}\n        plain:  {r['plain']}")
    print(f"{compared} cases compared, {parted} differ")
    return 1 if parted else 0


def main(against_plain: bool = False) -> int:
    from morvane_tessary.utils import git_utils as gu

    sys.path.insert(0, str(TESTS))
    from proof_support import make_repo

    functions = {n for n, v in vars(gu).items() if callable(v) and not isinstance(v, type)
                 and getattr(v, "__module__", None) == gu.__name__}
    grouped = [n for names in GROUPS.values() for n in names]
    if len(grouped) != len(functions) or set(grouped) != functions:
        print("the groups do not cover the module's functions:", sorted(functions ^ set(grouped)))
        return 1
    failed = 0
    with tempfile.TemporaryDirectory() as scratch:
        repo = make_repo(Path(scratch))
        if against_plain:
            return compare_with_plain(repo)
        for group in GROUPS:
            for spawner in ["native", "subprocess"] if group in SPAWNING else ["native"]:
                bad = check_group(repo, group, spawner)
                print(f"{group} ({spawner}): {'ok' if not bad else f'{len(bad)} bad'}", flush=True)
                for case in bad[:20]:
                    print("   ", case)
                failed += bool(bad)
    return 1 if failed else 0


if __name__ == "__main__":
    if sys.argv[1:] == ["--against-plain"]:
        sys.exit(main(against_plain=True))
    sys.exit(drive(*sys.argv[1:]) if len(sys.argv) > 1 else main())
