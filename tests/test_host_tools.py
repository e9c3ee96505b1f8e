"""The module under a host's own tooling: test doubles, clock and file-system fakes, monitoring wrappers and
gevent see the same calls, and give the same answers, as with a plain Python module. Each case is checked
against a few lines of such Python, run under the same tool."""

import datetime as dt
import functools
import inspect
import logging
import os
import pathlib
import re
import subprocess
import sys
import textwrap
from pathlib import Path
from unittest import mock

import pytest
from pyfakefs.helpers import reset_ids, set_uid

from plain_git_utils import find_git_root as python_find_git_root, run_git_command as python_run

from morvane_tessary.utils import git_utils


def outcome(f, *args):
    try:
        return f(*args)
    except OSError as e:
        return type(e), str(e)


def fast_path_names() -> list[str]:  # the binding layer's registry
    [header] = (Path(__file__).parents[1] / "native").rglob("fast_paths.hpp")
    registry = header.read_text().split("#define GU_FAST_PATHS(X)", 1)[1].split("\n\n", 1)[0]
    return re.findall(r"X\((\w+)\)", registry)


def wrapped(owner, name):
    """A host's wrapper of owner.name, which a fast path must not take for the original."""
    original = inspect.getattr_static(owner, name)

    @functools.wraps(original)
    def wrapper(*args, **kwargs):
        return original(*args, **kwargs)

    in_class = isinstance(owner, type) and inspect.isbuiltin(original)  # no self for a built-in held by a class
    return lambda monkeypatch: monkeypatch.setattr(owner, name, staticmethod(wrapper) if in_class else wrapper)


def travelling(monkeypatch):  # a clock double swaps the C function behind datetime.now in place
    import time_machine

    traveller = time_machine.travel(dt.datetime(2020, 6, 15, 12, 0), tick=False)
    traveller.start()
    monkeypatch.undo = lambda stop=traveller.stop, undo=monkeypatch.undo: (stop(), undo())


def clock_followed(result, called):  # C calls from C are not profiled: the moment tells which clock was read
    return result == dt.datetime(2020, 6, 8, 12, 0)


def joined_by_parts(result, called):  # the native join is one `/` of "memory/lorebook/<branch>"
    return called.count("__truediv__") == 3


RECORDS = "\x00".join([":100644 100644 a b M", "f", "1\t2\tf", ""])
# For each fast path: what replaces what it stands in for, the call that takes it, and the Python function
# that only the Python path runs (or what tells the Python path's result).
FAST_PATHS = {
    "spawn": (wrapped(subprocess, "run"), lambda gu, root: gu.run_git_command(root, ["x"]), "communicate"),
    "path": (wrapped(pathlib.PurePath, "__truediv__"), lambda gu, root: gu.wiki_directory(root, "b"), joined_by_parts),
    # up to 3.10 the path's stat() reaches os.stat through its accessor class
    "path_stat": (wrapped(getattr(pathlib, "_NormalAccessor", os), "stat"),
                  lambda gu, root: gu.find_git_root(root / "a" / "b"), "stat"),
    "clock": (travelling, lambda gu, root: gu.parse_time_spec("7d"), clock_followed),
    "logger": (wrapped(logging.Logger, "debug"), lambda gu, root: gu.run_git_command(root, ["fail"]), "debug"),
    "file_change": (wrapped(git_utils.FileChange, "__init__"), lambda gu, root: gu.parse_file_changes(RECORDS),
                    "__init__"),
    "commit_changes": (wrapped(git_utils.CommitChanges, "__init__"),
                       lambda gu, root: gu.parse_commit_changes("\x1e1700000000\x00"), "__init__"),
    "line_span": (wrapped(git_utils.LineSpan, "__init__"), lambda gu, root: gu.parse_line_spans("+++ f\n@@ -1 +1 @@\n"),
                  "__init__"),
}


def took_python_path(fast_path, gu, root):
    """Runs the fast path's probe; whether the Python path answered it."""
    _, probe, python_only = FAST_PATHS[fast_path]
    called = []
    sys.setprofile(lambda frame, event, arg: event == "call" and called.append(frame.f_code.co_name))
    try:
        result = probe(gu, root)
    finally:
        sys.setprofile(None)
    return python_only(result, called) if callable(python_only) else python_only in called


def test_every_fast_path_has_a_case():
    assert sorted(fast_path_names()) == sorted(FAST_PATHS)


@pytest.mark.parametrize("replaced", [False, True], ids=["genuine", "replaced"])
@pytest.mark.parametrize("fast_path", fast_path_names())
def test_fast_path_native_unless_replaced(gu, fake_git, tmp_path, monkeypatch, caplog, fast_path, replaced):
    """Native while what a fast path stands in for is genuine, the Python path once a host wrapped it; a guard
    that wrongly rejects the standard library changes no answer, only speed: caught here."""
    fake_git('[ "$1" = fail ] && exit 3; echo out')
    (tmp_path / ".git").mkdir()
    if replaced:
        FAST_PATHS[fast_path][0](monkeypatch)
    caplog.set_level(logging.DEBUG, logger=gu.__name__)
    assert took_python_path(fast_path, gu, tmp_path) == replaced


def test_pytest_subprocess_double_answers(gu, fp, tmp_path):
    fp.register(["git", "rev-parse", "--short", "HEAD"], stdout="abc1234\n", occurrences=2)
    assert gu.get_head_commit(tmp_path) == "abc1234"
    assert gu._git_output(tmp_path, ["rev-parse", "--short", "HEAD"]) == "abc1234\n"
    assert fp.call_count(["git", "rev-parse", "--short", "HEAD"]) == 2


def test_mocked_popen_is_called(gu, fake_git, tmp_path):
    fake_git("echo out")
    with mock.patch("subprocess.Popen", wraps=subprocess.Popen) as popen:
        assert gu.run_git_command(tmp_path, ["x"]) == python_run(tmp_path, ["x"]) == ("out\n", "", 0)
    assert [c.args[0] for c in popen.call_args_list] == [["git", "x"]] * 2


REAL_START = Path("/repo/a/b")  # made before any fake file system replaces pathlib's classes


def test_pyfakefs_file_system(gu, fs, monkeypatch):
    fs.create_dir("/repo/.git"), fs.create_dir("/repo/a/b"), fs.create_file("/repo/a/sub/.git")
    fs.create_dir("/repo/a/locked/.git"), os.chmod("/repo/a/locked", 0)  # its .git: "permission denied"
    monkeypatch.chdir("/repo/a")
    starts = [None, Path("/repo/a/b"), Path("b"), Path("/repo/a/sub/x"), Path("/elsewhere"), REAL_START,
              Path("/repo/a/locked"), REAL_START.with_name("locked")]
    set_uid(1000)  # the fake's user, whom permission bits stop
    try:
        assert [outcome(gu.find_git_root, s) for s in starts] == [outcome(python_find_git_root, s) for s in starts]
        assert outcome(gu.find_git_root, Path("/repo/a/locked"))[0] is PermissionError
    finally:
        reset_ids()
    assert gu.find_git_root(Path("b")) == Path("/repo") == gu.find_repo_root()


@pytest.mark.parametrize(
    "query, reply, expected",
    [
        ("count_commits", bytearray(b" 4 \n"), 4),
        ("count_commits", b" \n", 0),
        ("count_commits", b"x\n", ValueError("invalid literal for int() with base 10: b'x'")),
        ("count_commits", 7, AttributeError("'int' object has no attribute 'strip'")),
        ("commit_before", bytearray(b"def\n"), bytearray(b"def")),
        ("commit_before", b"\n", None),
        ("get_authors_for_period", (b" 3\tA <a@x>\n", "", 0), TypeError("a bytes-like object is required, not 'str'")),
    ],
)
def test_queries_read_a_replaced_runner_as_python(gu, stand_in, tmp_path, query, reply, expected):
    runner, args = {"count_commits": ("_git_output", ("main", "feature")),
                    "commit_before": ("_git_output", ("main", dt.datetime(2024, 1, 2))),
                    "get_authors_for_period": ("run_git_command", ("1d",))}[query]
    stand_in(runner, reply)
    if isinstance(expected, Exception):
        assert str(pytest.raises(type(expected), getattr(gu, query), tmp_path, *args).value) == str(expected)
    else:
        assert getattr(gu, query)(tmp_path, *args) == expected


class CountingLogger(logging.Logger):
    """A host's logger class: it must get the plain calls."""

    def debug(self, *args):
        self.calls.append(args)

    warning = debug


@pytest.mark.parametrize("logger_kind", ["standard", "filtered", "disabled", "host class"])
def test_log_records_name_the_module_function(gu, tmp_path, monkeypatch, request, logger_kind):
    monkeypatch.setenv("PATH", str(tmp_path / "nowhere"))  # a warning from the runner, a debug line from the query
    records, handler, logger = [], logging.Handler(), gu.logger
    handler.emit = records.append
    logger.addHandler(handler)
    logger.setLevel(logging.DEBUG)
    request.addfinalizer(lambda: (logger.removeHandler(handler), logger.setLevel(0), logging.disable(0)))
    if logger_kind == "filtered":
        monkeypatch.setattr(gu.logger, "filters", [lambda record: record.funcName != "run_git_command"])
    elif logger_kind == "disabled":
        logging.disable(logging.DEBUG)
    elif logger_kind == "host class":
        monkeypatch.setattr(gu, "logger", CountingLogger(gu.__name__))
        gu.logger.calls = []
    gu.get_authors_for_period(tmp_path, "1d")
    lines = [(r.levelname, r.funcName, r.module, r.pathname, r.lineno) for r in records]
    expected = {"standard": [("WARNING", "run_git_command"), ("DEBUG", "get_authors_for_period")],
                "filtered": [("DEBUG", "get_authors_for_period")],
                "disabled": [("WARNING", "run_git_command")]}.get(logger_kind, [])
    assert lines == [(level, f, "git_utils", gu.__file__, 0) for level, f in expected]
    if logger_kind == "host class":
        assert [c[0] for c in gu.logger.calls] == ["git executable not found while running args=%s",
                                              "get_authors_for_period: git shortlog failed rc=%s stderr=%s"]


# Patches made before the import, in a fresh interpreter: each script asserts what it needs.
FRESH = {
    "subprocess.run wrapped": """
        import functools, subprocess
        calls, real = [], subprocess.run
        subprocess.run = functools.wraps(real)(lambda *args, **kwargs: calls.append(args[0]) or real(*args, **kwargs))
        from morvane_tessary.utils import git_utils as gu
        assert gu.run_git_command(ROOT, ["x"]) == ("out\\n", "", 0)
        assert calls == [["git", "x"]], calls
    """,
    "pathlib's stat wrapped": """
        import functools, pathlib
        calls, real = [], pathlib.Path.stat
        pathlib.Path.stat = functools.wraps(real)(lambda self, **kwargs: calls.append(self.name) or real(self, **kwargs))
        from morvane_tessary.utils import git_utils as gu
        (ROOT / ".git").mkdir()
        assert gu.find_git_root(ROOT / "a") == ROOT == python_find_git_root(ROOT / "a")
        assert calls == [".git"] * 4, calls
    """,
    "sentry-sdk offline": """
        import sys, sentry_sdk
        sentry_sdk.init()
        from morvane_tessary.utils import git_utils as gu
        def wrapper_calls(call):
            seen = []
            sys.setprofile(lambda frame, event, arg: event == "call" and "sentry_patched" in frame.f_code.co_name
                           and seen.append(frame.f_code.co_name))
            result = call()
            sys.setprofile(None)
            return result, sorted(seen)
        module = wrapper_calls(lambda: gu.run_git_command(ROOT, ["x"]))
        python = wrapper_calls(lambda: python_run(ROOT, ["x"]))
        assert module == python and len(module[1]) >= 3, (module, python)
        import logging  # sentry-sdk wraps Logger.callHandlers: records still name the module's function
        records, handler = [], logging.Handler()
        handler.emit = records.append
        gu.logger.addHandler(handler)
        gu.logger.setLevel(logging.DEBUG)
        gu.run_git_command(ROOT, ["fail"])
        assert [r.funcName for r in records] == ["run_git_command"], records
    """,
    "time-machine travelling": """
        import datetime as dt, time_machine
        with time_machine.travel(dt.datetime(2020, 6, 15, 12, 0), tick=False):
            from morvane_tessary.utils import git_utils as gu
            assert gu.parse_time_spec("7d") == dt.datetime.now() - dt.timedelta(days=7)
        assert gu.parse_time_spec("7d").year > 2020
    """,
    "pyfakefs active": """
        from pyfakefs.fake_filesystem_unittest import Patcher
        with Patcher() as patcher:
            patcher.fs.create_dir("/repo/.git")
            patcher.fs.create_dir("/repo/a")
            from morvane_tessary.utils import git_utils as gu
            from pathlib import Path
            assert gu.find_git_root(Path("/repo/a")) == Path("/repo") == python_find_git_root(Path("/repo/a"))
    """,
    "gevent monkey-patched": """
        from gevent import monkey
        monkey.patch_all()
        import gevent
        from morvane_tessary.utils import git_utils as gu
        ticks = []
        def tick():
            while True:
                ticks.append(1)
                gevent.sleep(0.05)
        ticker = gevent.spawn(tick)
        gevent.sleep(0)
        assert gu.run_git_command(ROOT, ["x"]) == ("out\\n", "", 0)
        ticker.kill()
        assert len(ticks) >= 10, len(ticks)  # about 20 in the second git sleeps; 1 if the loop is blocked
    """,
}


@pytest.mark.parametrize("case", FRESH)
def test_patched_before_import(fake_git, tmp_path, case):
    if case.startswith("gevent") and "libasan" in os.environ.get("LD_PRELOAD", ""):
        pytest.skip("AddressSanitizer reports greenlet's stack copies as underflows")
    fake_git(("sleep 1; " if case.startswith("gevent") else "") + '[ "$1" = fail ] && exit 3; echo out')
    source = textwrap.dedent(f"""
        import sys
        sys.path.insert(0, {str(Path(__file__).parents[1] / "benchmarks")!r})
        from pathlib import Path
        from plain_git_utils import find_git_root as python_find_git_root, run_git_command as python_run
        ROOT = Path({str(tmp_path)!r})
    """) + textwrap.dedent(FRESH[case])
    child = subprocess.run([sys.executable, "-c", source], capture_output=True, text=True, timeout=60)
    assert child.returncode == 0, child.stderr
