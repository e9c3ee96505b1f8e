"""Every function of the module called with wrong types and odd values: each must return or raise an ordinary
exception with a message, never SystemError or a crash. Each group of functions runs in a child interpreter in
development mode (allocator checks), so a crash names the last call. Run it from anywhere with the module
installed:

    python fuzz/bad_input.py

It prints one line per group and exits non-zero when any case misbehaves."""
import datetime as dt
import gc
import inspect
import json
import os
import subprocess
import sys
import tempfile
from pathlib import Path

TESTS = Path(__file__).resolve().parents[1] / "tests"  # proof_support: the repository builder, children()

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
    anything = [None, b"main", 10**100, -1, 3.5, "a\0b", "\ud800", "", [], (), {}, object(), Hostile()]
    listed = [[None], [b"x"], ["\ud800"], ["a\0b"], [10**100], [Path("x")], ["\udcff", "é\n\t"], "abc",
              ("rev-parse", "HEAD"), iter(["x"]), ["x" * 20_000] * 3]
    return {
        "path": anything + [Path("a\0b"), Path("\ud800"), Path("/nonexistent/x"), str(repo), repo / "keep.txt",
                            b"/tmp"],
        "text": anything + [Path("main"), "\udcff", "-h", "x" * 100_000, "99999999999999999999d", "\x1e\0\t:",
                            '"\\377\\', "@@ -1 +1 @@"],
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


def drive(group: str, repo: str, spawner: str) -> None:  # in the child: one JSON line per case
    import faulthandler

    sys.path.insert(0, str(TESTS))
    from proof_support import children

    from morvane_tessary.utils import git_utils as gu

    faulthandler.enable()
    if spawner == "subprocess":  # host options send every run through subprocess.run
        gu.get_subprocess_hidden_kwargs = lambda: {"close_fds": True}
    fds = len(os.listdir("/proc/self/fd"))
    for label, f, args, kwargs, must_raise in cases(gu, GROUPS[group], Path(repo)):
        print(f"calling {label}", file=sys.stderr, flush=True)
        try:
            result = f(*args, **kwargs)
            outcome = {"raised": None, "result": type(result).__name__}
        except Exception as e:
            outcome = {"raised": type(e).__name__, "message": str(e)[:200], "system": isinstance(e, SystemError)}
        print(json.dumps({"case": label, "must_raise": must_raise, **outcome}), flush=True)
    assert len(os.listdir("/proc/self/fd")) == fds and children() == [], "descriptors or children left behind"
    assert gc.isenabled(), "a parser left the collector off"


def check_group(repo: Path, group: str, spawner: str) -> list:
    child = subprocess.run([sys.executable, "-X", "dev", __file__, group, str(repo), spawner],
                           stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)
    last_call = [line for line in child.stderr.splitlines() if line.startswith("calling ")][-1:]
    if child.returncode != 0:
        return [{"crashed": last_call, "stderr": child.stderr[-3000:]}]
    results = [json.loads(line) for line in child.stdout.splitlines()]
    bad = [r for r in results if (r["raised"] is None and r["must_raise"]) or r.get("system")
           or (r["raised"] is not None and not r["message"])]
    return bad if results else [{"no cases": group}]


def main() -> int:
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
        for group in GROUPS:
            for spawner in ["native", "subprocess"] if group in SPAWNING else ["native"]:
                bad = check_group(repo, group, spawner)
                print(f"{group} ({spawner}): {'ok' if not bad else f'{len(bad)} bad'}", flush=True)
                for case in bad[:20]:
                    print("   ", case)
                failed += bool(bad)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(drive(*sys.argv[1:]) if len(sys.argv) > 1 else main())
