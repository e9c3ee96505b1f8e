"""importlib.reload after a host replaced collaborators, as test suites reload a module to undo their stubs:
every name bound again as loading binds it, in the order a Python module's reload gives (the module written in
plain Python, given the same replacements, is the reference), every native fast path taken again, by the new
functions and by those a host took before, and nothing of the earlier load kept once the host lets go. Each
case runs in a child process of its own: a reload changes the whole process."""
import dataclasses
import gc
import importlib
import inspect
import logging
import subprocess
import sys
import textwrap
import threading
import time
import types
import weakref
from pathlib import Path

import pytest
from proof_support import make_repo

MODULE = "morvane_tessary.utils.git_utils"
METADATA = {"__name__", "__doc__", "__file__", "__package__", "__spec__", "__loader__", "__builtins__", "__cached__"}
RECORDS = "\x00".join([":100644 100644 a b M", "f", "1\t2\tf", ""])

# What a host replaced, as Python run with `gu` bound to the module (the native one, then the plain one).
REPLACEMENTS = {
    "functions": "gu.run_git_command = lambda *a, **k: ('stub', '', 0); gu.get_head_commit = lambda *a, **k: 'stub'; "
                 "gu._unquote = str.upper; gu._span = print",
    "constants": "gu._MAX_PATHSPEC_CHARS = 1; gu._PATCH_OPTIONS = ('--stat',); gu._STATUS_BY_LETTER = {}; "
                 "gu.TIME_SPEC_FORMS = 'x'; gu._RELATIVE_SPEC = re.compile('never')",
    "imports": "gu.subprocess = types.SimpleNamespace(run=None); gu.Path = str; gu.datetime = None; "
               "gu.logger = logging.getLogger('elsewhere')",
    "records": "gu.FileChange = collections.namedtuple('FileChange', 'path status additions deletions old_path'); "
               "gu.LineSpan.__init__ = functools.wraps(gu.LineSpan.__init__)(lambda *a: None); gu.CommitChanges = dict",
    "deleted": "del gu.get_head_commit, gu.TIME_SPEC_FORMS, gu.LineSpan, gu.subprocess",
}


def describe(value):
    """What loading binds, as far as a second load can repeat it: imported objects and the logger by identity,
    constants by type and value, the functions and classes loading makes by what they are (reprs, so that
    the description keeps none of them alive)."""
    if isinstance(value, type) and value.__module__ == MODULE:
        fields = [(f.name, repr(f.type), repr(f.default)) for f in dataclasses.fields(value)] \
            if dataclasses.is_dataclass(value) else None
        return ("class", value.__qualname__, [c.__qualname__ for c in value.__mro__[1:]], fields,
                repr(getattr(value, "__dataclass_params__", None)), value.__doc__)
    if repr(type(value)) == f"<class '{MODULE}.native_function'>":  # the module's own function type
        return ("function", value.__qualname__, value.__module__, str(inspect.signature(value)), value.__doc__)
    return type(value), value


def native_everywhere(gu, repo):
    from test_host_tools import FAST_PATHS, took_python_path

    assert not [fast_path for fast_path in FAST_PATHS if took_python_path(fast_path, gu, repo)]


def reload_check(repo: Path, replacement: str) -> None:
    """The whole check, in the interpreter that runs it: a fresh import, the replacements, the reload."""
    import plain_git_utils as plain
    import proof_support
    import test_interpreters

    from morvane_tessary.utils import git_utils as gu

    logging.getLogger(MODULE).setLevel(logging.DEBUG)
    fresh = {name: describe(value) for name, value in vars(gu).items() if name not in METADATA}
    assert [name for name in vars(plain) if name in fresh] == list(fresh)
    answers = test_interpreters.answers(repo)
    head = proof_support.git(repo, "rev-parse", "--short", "HEAD")
    taken = types.SimpleNamespace(**vars(gu))  # what a host took from the module before it replaced anything
    for module in (gu, plain):
        exec(f"import collections, functools, logging, re, types\n{REPLACEMENTS[replacement]}", {"gu": module})
    assert importlib.reload(gu) is gu and importlib.reload(plain) is plain

    # (a) every name bound as loading binds it, in the order the plain module's reload gives
    names = [name for name in vars(gu) if name not in METADATA]
    assert names == [name for name in vars(plain) if name in fresh], names
    unlike = [name for name in fresh if name not in names or describe(vars(gu)[name]) != fresh[name]]
    assert not unlike, unlike
    functions = [vars(gu)[name] for name, what in fresh.items() if what[0] == "function"]
    assert len({type(f) for f in functions}) == 1 and not isinstance(functions[0], types.FunctionType)
    # (b) real answers and the native paths again, also through the functions taken before the reload
    assert test_interpreters.answers(repo) == answers and taken.get_head_commit(repo) == head
    assert type(taken.parse_file_changes(RECORDS)[0]) is gu.FileChange
    native_everywhere(gu, repo)
    native_everywhere(taken, repo)
    # (c) nothing of the first load is kept once the host lets go of it, as with a Python module
    first_load = [weakref.ref(taken.get_head_commit), weakref.ref(taken.FileChange), weakref.ref(taken.GitError)]
    del taken
    gc.collect()
    assert [ref() for ref in first_load] == [None] * len(first_load), first_load


def reload_during_call(repo: Path, started: Path) -> None:
    """Reloads while another thread waits for git with the interpreter's lock released: that call ends with
    its answer, and what it held of the earlier load goes with the first reload after it."""
    from morvane_tessary.utils import git_utils as gu

    call = gu.run_git_command
    first_load = [weakref.ref(call), weakref.ref(gu.FileChange)]
    result, go = [], started.with_name("go")  # git waits until the reloads are done, however slow they are
    waiting = threading.Thread(target=lambda: result.append(call(
        repo, ["-c", f"alias.nap=!touch '{started}'; while [ ! -e '{go}' ]; do sleep 0.02; done; echo rested", "nap"])))
    waiting.start()
    while not started.exists():
        time.sleep(0.01)
    for _ in range(3):
        gu.run_git_command = lambda *a, **k: ("stub", "", 0)
        importlib.reload(gu)
        gc.collect()
        assert gu.run_git_command(repo, ["rev-parse", "--verify", "-q", "main"])[2] == 0
        assert waiting.is_alive()
    go.touch()
    waiting.join()
    assert result == [("rested\n", "", 0)]
    del call
    importlib.reload(gu)
    gc.collect()
    assert [ref() for ref in first_load] == [None, None], first_load
    native_everywhere(gu, repo)


def in_child(repo: Path, source: str) -> None:
    tests, root = Path(__file__).parent, Path(__file__).parents[1]
    code = (f"import sys\nsys.path[:0] = {[str(tests), str(root / 'benchmarks')]!r}\nfrom pathlib import Path\n"
            f"import test_interpreters, test_reload\nREPO = Path({str(repo)!r})\n{textwrap.dedent(source)}")
    done = subprocess.run([sys.executable, "-c", code], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=120)
    assert done.returncode == 0, done.stderr


@pytest.fixture(scope="module")
def repo(tmp_path_factory):
    return make_repo(tmp_path_factory.mktemp("reload"))


@pytest.mark.parametrize("replacement", REPLACEMENTS)
def test_reload_binds_the_namespace_again(repo, replacement):
    in_child(repo, f"test_reload.reload_check(REPO, {replacement!r})")


@pytest.mark.skipif(sys.version_info < (3, 13), reason="_interpreters arrives with 3.13")
@pytest.mark.parametrize("replacement", ["functions", "records"])
def test_reload_inside_an_isolated_subinterpreter(repo, replacement):
    """The module loaded in the main interpreter too: the reload in the subinterpreter changes only its own."""
    in_child(repo, f"""
        from morvane_tessary.utils import git_utils as gu
        before = test_interpreters.answers(REPO)
        test_interpreters.run_in("isolated", "from pathlib import Path\\nimport test_reload\\n"
                                             f"test_reload.reload_check(Path({{str(REPO)!r}}), {replacement!r})")
        assert test_interpreters.answers(REPO) == before
        test_reload.native_everywhere(gu, REPO)
    """)


def test_reload_while_a_call_waits_for_git(repo, tmp_path):
    in_child(repo, f"test_reload.reload_during_call(REPO, Path({str(tmp_path / 'started')!r}))")
