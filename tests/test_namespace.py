"""The module's namespace against its interface table: every name in the
order loading binds it and nothing else, and every function with the
signature, defaults and annotations of the Python function it stands for."""

import ast
import collections.abc
import dataclasses
import datetime
import importlib.util
import inspect
import logging
import pathlib
import pydoc
import re
import subprocess
import typing

import pytest

from morvane_tessary.utils import git_utils, process

METADATA = {"__name__", "__doc__", "__file__", "__package__", "__spec__", "__loader__"}

# (name, what it is): the imported object itself, a function's parameter list
# and result as Python source, or None for a constant or class (their values
# are test_module_frame's and test_records' business).
TABLE = [
    ("logging", logging),
    ("re", re),
    ("subprocess", subprocess),
    ("Sequence", collections.abc.Sequence),
    ("dataclass", dataclasses.dataclass),
    ("datetime", datetime.datetime),
    ("timedelta", datetime.timedelta),
    ("Path", pathlib.Path),
    ("Any", typing.Any),
    ("get_subprocess_hidden_kwargs", process.get_subprocess_hidden_kwargs),
    *[(name, None) for name in (
        "logger", "TIME_SPEC_FORMS", "_RELATIVE_SPEC", "_SPEC_UNITS", "_STATUS_BY_LETTER", "_TWO_PATH_LETTERS",
        "_COMMIT_START", "_PATCH_OPTIONS", "_HUNK_HEADER", "_C_ESCAPE", "_C_ESCAPES", "GitError", "FileChange",
        "CommitChanges", "LineSpan")],
    ("find_git_root", "(start: Path | None = None) -> Path | None"),
    ("find_repo_root", "() -> Path"),
    ("resolve_display_branch", "(repo_root: Path) -> str | None"),
    ("normalize_branch_name", "(name: str | None) -> str | None"),
    ("parse_time_spec", "(since: str) -> datetime"),
    ("sanitize_branch_name", "(branch: str) -> str"),
    ("wiki_root", "(repo_root: Path) -> Path"),
    ("wiki_directory", "(repo_root: Path, branch: str) -> Path"),
    ("run_git_command", "(repo_root: Path, args: list[str], timeout: int = 30) -> tuple[str, str, int]"),
    ("get_head_commit", "(repo_root: Path, short: bool = True) -> str | None"),
    ("get_default_branch", "(repo_root: Path) -> str"),
    ("branch_exists", "(repo_root: Path, branch: str) -> bool"),
    ("get_authors_for_period", "(repo_root: Path, since: str = '30d') -> list[dict[str, Any]]"),
    ("_MAX_PATHSPEC_CHARS", None),
    ("resolve_commit", "(repo_root: Path, name: str) -> str | None"),
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
    ("_file_changes", "(tokens: Sequence[str]) -> list[FileChange]"),
    ("_line_count", "(field: str) -> int"),
    ("_patch_path", "(text: str) -> str | None"),
    ("_unquote", "(text: str) -> str"),
    ("_path_batches", "(paths: Sequence[str]) -> list[list[str]]"),
    ("_git_output", "(repo_root: Path, args: list[str]) -> str"),
]
FUNCTIONS = [(name, source) for name, source in TABLE if isinstance(source, str)]


@pytest.fixture(scope="module")
def gu():
    """A module object of its own, as loading makes it. (Other tests replace
    attributes of the shared one; one deleted and restored comes back last.)"""
    spec = importlib.util.find_spec("morvane_tessary.utils.git_utils")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def python_function(gu, name, source):
    """The Python function with that signature, annotated with the module's own classes."""
    scope = {"Path": pathlib.Path, "datetime": datetime.datetime, "Sequence": collections.abc.Sequence,
             "Any": typing.Any, "FileChange": gu.FileChange, "CommitChanges": gu.CommitChanges,
             "LineSpan": gu.LineSpan}
    exec(f"def {name}{source}: pass", scope)
    return scope[name]


def test_names_in_order_and_nothing_else(gu):
    assert len(TABLE) == 55 and len(FUNCTIONS) == 29
    names = list(vars(gu))
    assert set(names) - {name for name, _ in TABLE} == METADATA
    assert [n for n in names if n not in METADATA] == [name for name, _ in TABLE]
    for name, imported in TABLE:
        if imported is not None and not isinstance(imported, str):
            assert getattr(gu, name) is imported, name


def test_module_documentation(gu):
    doc = " ".join(gu.__doc__.split())
    for phrase in ("git log", "diff", "time-out", "7d", "24h", "30m", "2w", "main or master", "author",
                   "STARTUPINFO", "SW_HIDE", "30 seconds"):
        assert phrase in doc, phrase


@pytest.mark.parametrize("name, source", FUNCTIONS, ids=[name for name, _ in FUNCTIONS])
def test_function_interface(gu, name, source):
    f, expected = getattr(gu, name), python_function(gu, name, source)
    assert (f.__name__, f.__qualname__, f.__module__) == (name, name, gu.__name__)
    assert f.__defaults__ == expected.__defaults__
    assert (f.__kwdefaults__ is None) == (expected.__kwdefaults__ is None)
    assert list((f.__kwdefaults__ or {}).items()) == list((expected.__kwdefaults__ or {}).items())
    assert list(f.__annotations__.items()) == list(expected.__annotations__.items())  # X | None unions included
    assert not any(isinstance(a, str) for a in f.__annotations__.values())
    assert inspect.signature(f) == inspect.signature(expected)
    assert isinstance(f.__doc__, str) and len(f.__doc__.strip()) > 40


def test_documentation_texts_differ_and_help_renders(gu):
    docs = [getattr(gu, name).__doc__ for name, _ in FUNCTIONS]
    assert len(set(docs)) == len(docs)
    def page(thing):
        return "".join(pydoc.render_doc(thing, renderer=pydoc.plaintext).split())  # 3.13 wraps long signatures

    # help() of a module lists the public functions of the one in sys.modules.
    module_page = page(git_utils)
    for name, source in FUNCTIONS:
        expected = "".join(f"{name}{inspect.signature(python_function(gu, name, source))}".split())
        assert expected in (page(getattr(git_utils, name)) if name.startswith("_") else module_page), name


def test_stub_follows_the_table(gu):
    """stubtest compares names, kinds and defaults but not annotations: these are compared here."""
    stub = ast.parse((pathlib.Path(gu.__file__).parent / "git_utils.pyi").read_text())
    defs = {}
    names = []
    for node in stub.body:
        if isinstance(node, (ast.Import, ast.ImportFrom)):
            names += [alias.asname or alias.name for alias in node.names]
        elif isinstance(node, ast.AnnAssign):
            names.append(node.target.id)
        else:
            names.append(node.name)
            defs[node.name] = node
    assert names == [name for name, _ in TABLE]
    for name, source in FUNCTIONS:
        expected = ast.parse(f"def {name}{source}: pass").body[0]
        assert ast.dump(defs[name].args) == ast.dump(expected.args), name
        assert ast.dump(defs[name].returns) == ast.dump(expected.returns), name
