"""The module's namespace: every name in load order and nothing else, each function with the signature,
defaults and annotations of the Python function it stands for, the constants, and late binding."""
import ast
import collections.abc
import dataclasses
import datetime
import inspect
import logging
import pathlib
import pickle
import pydoc
import re
import subprocess
import sys
import types
import typing
from importlib import resources

import pytest

from morvane_tessary.utils import git_utils, process

METADATA = {"__name__", "__doc__", "__file__", "__package__", "__spec__", "__loader__"}

# (name, what it is): the imported object, a function's parameters and result as Python source, or None.
TABLE = [
    ("logging", logging), ("re", re), ("subprocess", subprocess), ("Sequence", collections.abc.Sequence),
    ("dataclass", dataclasses.dataclass), ("datetime", datetime.datetime), ("timedelta", datetime.timedelta),
    ("Path", pathlib.Path), ("Any", typing.Any), ("get_subprocess_hidden_kwargs", process.get_subprocess_hidden_kwargs),
    *[(name, None) for name in (
        "logger", "TIME_SPEC_FORMS", "_RELATIVE_SPEC", "_SPEC_UNITS", "_STATUS_BY_LETTER", "_TWO_PATH_LETTERS",
        "_COMMIT_START", "_PATCH_OPTIONS", "_HUNK_HEADER", "_C_ESCAPE", "_C_ESCAPES", "GitError", "FileChange",
        "CommitChanges", "LineSpan")],
    ("find_git_root", "(start: Path | None = None) -> Path | None"), ("find_repo_root", "() -> Path"),
    ("resolve_display_branch", "(repo_root: Path) -> str | None"),
    ("normalize_branch_name", "(name: str | None) -> str | None"), ("parse_time_spec", "(since: str) -> datetime"),
    ("sanitize_branch_name", "(branch: str) -> str"), ("wiki_root", "(repo_root: Path) -> Path"),
    ("wiki_directory", "(repo_root: Path, branch: str) -> Path"),
    ("run_git_command", "(repo_root: Path, args: list[str], timeout: int = 30) -> tuple[str, str, int]"),
    ("get_head_commit", "(repo_root: Path, short: bool = True) -> str | None"),
    ("get_default_branch", "(repo_root: Path) -> str"), ("branch_exists", "(repo_root: Path, branch: str) -> bool"),
    ("get_authors_for_period", "(repo_root: Path, since: str = '30d') -> list[dict[str, Any]]"),
    ("_MAX_PATHSPEC_CHARS", None), ("resolve_commit", "(repo_root: Path, name: str) -> str | None"),
    ("count_commits", "(repo_root: Path, base: str, head: str) -> int"),
    ("commit_before", "(repo_root: Path, ref: str, moment: datetime) -> str | None"),
    ("diff_file_changes", "(repo_root: Path, base: str, head: str) -> list[FileChange]"),
    ("log_commit_changes",
     "(repo_root: Path, *, since: datetime, ref: str | None, max_commits: int) -> list[CommitChanges]"),
    ("diff_line_spans", "(repo_root: Path, base: str, head: str, *, merge_base: bool, paths: Sequence[str] = (), "
                        "diff_filter: str = 'MR') -> dict[str, list[LineSpan]]"),
    ("parse_file_changes", "(output: str) -> list[FileChange]"),
    ("parse_commit_changes", "(output: str) -> list[CommitChanges]"),
    ("parse_line_spans", "(patch: str) -> dict[str, list[LineSpan]]"),
    ("_span", "(start: int, new_count: int, old_count: int) -> LineSpan"),
    ("_file_changes", "(tokens: Sequence[str]) -> list[FileChange]"), ("_line_count", "(field: str) -> int"),
    ("_patch_path", "(text: str) -> str | None"), ("_unquote", "(text: str) -> str"),
    ("_path_batches", "(paths: Sequence[str]) -> list[list[str]]"),
    ("_git_output", "(repo_root: Path, args: list[str]) -> str"),
]
FUNCTIONS = [(name, source) for name, source in TABLE if isinstance(source, str)]


def python_function(gu, name, source):
    scope = {"Path": pathlib.Path, "datetime": datetime.datetime, "Sequence": collections.abc.Sequence,
             "Any": typing.Any, "FileChange": gu.FileChange, "CommitChanges": gu.CommitChanges,
             "LineSpan": gu.LineSpan}
    exec(f"def {name}{source}: pass", scope)
    return scope[name]


def test_names_in_order_and_nothing_else(fresh):
    gu = fresh
    assert len(TABLE) == 55 and len(FUNCTIONS) == 29
    names = list(vars(gu))
    assert set(names) - {name for name, _ in TABLE} == METADATA
    assert [n for n in names if n not in METADATA] == [name for name, _ in TABLE]
    for name, imported in TABLE:
        if imported is not None and not isinstance(imported, str):
            assert getattr(gu, name) is imported, name


@pytest.mark.parametrize("name, source", FUNCTIONS, ids=[name for name, _ in FUNCTIONS])
def test_function_interface(fresh, name, source):
    gu = fresh
    f, expected = getattr(gu, name), python_function(gu, name, source)
    assert (f.__name__, f.__qualname__, f.__module__) == (name, name, gu.__name__)
    assert f.__defaults__ == expected.__defaults__
    assert (f.__kwdefaults__ is None) == (expected.__kwdefaults__ is None)
    assert list((f.__kwdefaults__ or {}).items()) == list((expected.__kwdefaults__ or {}).items())
    assert list(f.__annotations__.items()) == list(expected.__annotations__.items())  # X | None unions included
    assert not any(isinstance(a, str) for a in f.__annotations__.values())
    assert inspect.signature(f) == inspect.signature(expected)
    help_page = "".join(pydoc.render_doc(f, renderer=pydoc.plaintext).split())  # 3.13 wraps long signatures
    assert "".join(f"{name}{inspect.signature(expected)}".split()) in help_page
    assert isinstance(f.__doc__, str) and len(f.__doc__.strip()) > 40
    assert inspect.isroutine(f) and f.__globals__ is vars(gu)


@pytest.mark.parametrize("attribute, value", [("__module__", "m"), ("__doc__", "d"), ("__name__", "n"),
                                              ("__qualname__", "q"), ("__defaults__", ("x",)),
                                              ("__kwdefaults__", {"paths": ()}), ("__annotations__", {"a": int})])
def test_attributes_set_and_deleted_as_on_python_functions(fresh, attribute, value):
    def outcome(f, change, *args):  # set, delete, delete again, set to a wrong type
        try:
            change(f, attribute, *args)
            return getattr(f, attribute)
        except Exception as e:
            return type(e), str(e)

    theirs = python_function(fresh, "diff_line_spans", dict(FUNCTIONS)["diff_line_spans"])
    for change in [(setattr, value), (delattr,), (delattr,), (setattr, 1)]:
        assert outcome(fresh.diff_line_spans, *change) == outcome(theirs, *change)


def test_stub_follows_the_table():  # stubtest leaves annotations out
    # The stub as the package ships it: beside the extension when installed,
    # in the source tree for an editable install.
    stub = ast.parse(resources.files("morvane_tessary.utils").joinpath("git_utils.pyi").read_text())
    defs = {node.name: node for node in stub.body if isinstance(node, (ast.FunctionDef, ast.ClassDef))}
    names = [[a.asname or a.name for a in node.names] if isinstance(node, (ast.Import, ast.ImportFrom)) else
             [node.target.id] if isinstance(node, ast.AnnAssign) else [node.name] for node in stub.body]
    assert sum(names, []) == [name for name, _ in TABLE]
    for name, source in FUNCTIONS:
        expected = ast.parse(f"def {name}{source}: pass").body[0]
        assert ast.dump(defs[name].args) == ast.dump(expected.args), name
        assert ast.dump(defs[name].returns) == ast.dump(expected.returns), name


@pytest.mark.parametrize(
    "name, args, kwargs",
    [
        ("run_git_command", ("r",), {}), ("run_git_command", ("r", [], 1, 2, 3), {"x": 1}),
        ("run_git_command", ("r",), {"repo_root": "r"}), ("run_git_command", ("r", []), {"nope": 1}),
        ("run_git_command", (), {"args": []}), ("log_commit_changes", ("r", 1, None, 5), {}),
        ("log_commit_changes", ("r",), {"since": 1, "ref": None}), ("diff_line_spans", ("r", "a", "b", True), {}),
    ],
)
def test_argument_errors_match_python_functions(gu, name, args, kwargs):
    theirs = pytest.raises(TypeError, python_function(gu, name, dict(FUNCTIONS)[name]), *args, **kwargs).value
    assert str(pytest.raises(TypeError, getattr(gu, name), *args, **kwargs).value) == str(theirs)


def test_constants(gu):  # those no query's result shows
    assert gu.logger.name == "morvane_tessary.utils.git_utils" == gu.__name__
    assert gu._RELATIVE_SPEC.pattern == r"(\d+)([mhdw])" and gu._RELATIVE_SPEC.flags == re.UNICODE
    assert gu._HUNK_HEADER.flags == re.UNICODE and gu._C_ESCAPE.flags & re.DOTALL
    assert issubclass(gu.GitError, RuntimeError) and gu.GitError.__module__ == gu.__name__
    for cls, fields in [(gu.FileChange, "path status additions deletions old_path"), (gu.CommitChanges, "timestamp files"),
                        (gu.LineSpan, "start end added")]:
        assert cls.__dataclass_params__.frozen and [f.name for f in dataclasses.fields(cls)] == fields.split()
    assert gu.FileChange("p", "added", 1, 2).old_path is None


def test_functions_pickle_bind_as_methods_and_take_attributes(fresh):
    holder = type("Holder", (), {"method": fresh._git_output})()
    assert pickle.loads(pickle.dumps(git_utils.run_git_command)) is git_utils.run_git_command
    assert holder.method.__self__ is holder and holder.method.__func__ is fresh._git_output
    fresh.run_git_command.custom = 1
    assert vars(fresh.run_git_command) == {"custom": 1}


def test_import_fails_without_the_host_process_module():
    code = ("import sys; sys.modules['morvane_tessary.utils.process'] = None\n"
            "try:\n    import morvane_tessary.utils.git_utils\nexcept ImportError as e: print('ImportError')\n")
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True).stdout
    assert out.strip() == "ImportError"


def test_late_binding(gu, monkeypatch, tmp_path):
    calls = []
    monkeypatch.setattr(gu, "run_git_command", lambda root, args: calls.append((root, args)) or ("out", "", 0))
    assert gu._git_output(tmp_path, ["x"]) == "out" and calls == [(tmp_path, ["x"])]
    monkeypatch.setattr(gu, "run_git_command", lambda root, args: ["o", "e", 7])
    monkeypatch.setattr(gu, "GitError", KeyError)
    pytest.raises(KeyError, gu._git_output, tmp_path, ["x"])
    monkeypatch.setattr(gu, "run_git_command", lambda root, args: ("o", "e"))
    with pytest.raises(ValueError, match=r"not enough values to unpack \(expected 3, got 2\)"):
        gu._git_output(tmp_path, ["x"])
    monkeypatch.delattr(gu, "run_git_command")
    with pytest.raises(NameError, match="name 'run_git_command' is not defined"):
        gu._git_output(tmp_path, ["x"])


def test_runner_uses_a_replaced_subprocess(gu, monkeypatch, tmp_path):
    seen = {}

    class Result:
        stdout, stderr, returncode = "a\r\n", "", 0

    fake = types.SimpleNamespace(TimeoutExpired=subprocess.TimeoutExpired,
                                 run=lambda argv, **kw: seen.update(kw, argv=argv) or Result())
    monkeypatch.setattr(gu, "subprocess", fake)
    assert gu.run_git_command(tmp_path, ["log"]) == ("a\r\n", "", 0)
    assert seen == {"argv": ["git", "log"], "cwd": str(tmp_path), "capture_output": True, "encoding": "utf-8",
                    "errors": "replace", "timeout": 30}
