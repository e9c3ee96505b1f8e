import collections
import os
import sys
from pathlib import Path, PurePosixPath

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from morvane_tessary.utils import git_utils


# Plain Python versions of the branch-name functions: what the native ones must equal on every input.
def normalize_reference(name):
    if not name:
        return None
    name, changed = name.strip(), True
    while changed:
        changed = False
        for prefix in ("refs/heads/", "refs/remotes/", "remotes/", "origin/"):
            if name.startswith(prefix):
                name, changed = name[len(prefix):], True
    return name or None


def sanitize_reference(branch):
    safe = branch.replace("/", "__").replace("\\", "__")
    safe = "".join(c if c.isalnum() or c in "-_." else "_" for c in safe)
    return safe[:100] or "default"


def outcome(f, *args):
    try:
        result = f(*args)
    except Exception as e:  # noqa: BLE001 - the exception is the outcome compared
        return type(e), str(e)
    return type(result), result


SubPath = type("SubPath", (type(Path()),), {})  # a host's own path class: reached through its methods, not shortcuts


# ---- Branch names ----

FRAGMENTS = ["refs/", "heads/", "remotes/", "origin/", "/", "\\", "-", "_", ".", " ", "\t", "\n", "\x1c", "\x85",
             "\xa0", "\u2028", "\u3000", "\u200b", "\ufeff", "e\u0301", "\xb2", "\xbd", "\u0660", "größe", "ブランチ",
             "\U0001f600", "\U00020000", "\ud800", "\udfff", "\x00", "Origin/", "HEAD"]
names = st.lists(st.one_of(st.sampled_from(FRAGMENTS), st.characters(exclude_categories=())), max_size=40).map("".join)


@settings(max_examples=800, deadline=None)
@given(names)
def test_branch_names_equal_the_reference(name):
    gu = git_utils
    assert outcome(gu.normalize_branch_name, name) == outcome(normalize_reference, name)
    assert outcome(gu.sanitize_branch_name, name) == outcome(sanitize_reference, name)
    assert outcome(gu.sanitize_branch_name, name * 7) == outcome(sanitize_reference, name * 7)


class Shouting(str):
    def strip(self):
        return Shouting(str.strip(self).upper())

    def replace(self, old, new):
        return list(str.replace(self, old, new)) + [7]


# Strings come from the property above; these are the rows it can't make: other types, str subclasses.
@pytest.mark.parametrize("value", [None, "origin/origin/x", "x" * 150, 0, 5, b"", b"refs/heads/x", ["origin/x"],
                                   Shouting(" origin/x "), Shouting("a/b"), type("S", (str,), {})(" origin/a/b ")])
def test_branch_name_cases(gu, value):
    assert outcome(gu.normalize_branch_name, value) == outcome(normalize_reference, value)
    assert outcome(gu.sanitize_branch_name, value) == outcome(sanitize_reference, value)


# ---- Wiki paths ----

@pytest.mark.parametrize("root", [Path("/r/x"), Path("rel"), Path("/"), PurePosixPath("/r"), SubPath("/s"), "str-root"])
@pytest.mark.parametrize("branch", ["feature/x", "", ".", "..", "a\\b", "x" * 120, None])
def test_wiki_paths_equal_the_chain_of_joins(gu, root, branch):
    def reference(repo_root, b):
        return repo_root / "memory" / "lorebook" / sanitize_reference(b)

    assert outcome(gu.wiki_root, root) == outcome(lambda r: r / "memory" / "lorebook", root)
    assert outcome(gu.wiki_directory, root, branch) == outcome(reference, root, branch)


def test_wiki_directory_calls_the_namespace(gu, monkeypatch):
    monkeypatch.setattr(gu, "sanitize_branch_name", lambda b: b.upper())
    assert gu.wiki_directory(Path("/r"), "a") == Path("/r/memory/lorebook/A")
    monkeypatch.setattr(gu, "wiki_root", lambda r: r / "w")
    assert gu.wiki_directory(Path("/r"), "a") == Path("/r/w/A")
    monkeypatch.delattr(gu, "sanitize_branch_name")
    with pytest.raises(NameError, match="name 'sanitize_branch_name' is not defined"):
        gu.wiki_directory(Path("/r"), "a")


# ---- Discovery ----

@pytest.fixture
def tree(tmp_path):
    repo = tmp_path / "repo"
    (repo / ".git").mkdir(parents=True)
    (repo / "a" / "b").mkdir(parents=True)
    (repo / "inner" / "deep").mkdir(parents=True)
    (repo / "inner" / ".git").write_text("gitdir: elsewhere\n")
    (repo / "file.txt").write_text("x")
    (repo / "loop").symlink_to(repo / "loop")
    (tmp_path / "link").symlink_to(repo)
    (tmp_path / "plain" / "dangling").mkdir(parents=True)
    (tmp_path / "plain" / "dangling" / ".git").symlink_to(tmp_path / "missing")
    return tmp_path


@pytest.mark.parametrize("path_type", [Path, SubPath])
@pytest.mark.parametrize(
    "start, expected",
    [
        ("repo", "repo"), ("repo/a/b", "repo"), ("repo/inner/deep", "repo/inner"), ("repo/missing/dir", "repo"),
        ("repo/file.txt/sub", "repo"), ("repo/loop/x", "repo"), ("link/a/b", "link"), ("repo/inner/..", "repo/inner/.."),
        ("plain/dangling", None),
    ],
)
def test_find_git_root(gu, tree, path_type, start, expected):
    start = path_type(tree / start)
    found = gu.find_git_root(start)
    assert found == (tree / expected if expected else None)
    assert found is None or type(found) is type(start)


def test_relative_start_and_working_directory(gu, tree, monkeypatch):
    monkeypatch.chdir(tree / "repo" / "a")
    assert gu.find_git_root(Path("b")) == tree / "repo" and gu.find_git_root() == tree / "repo"
    assert gu.find_repo_root() == tree / "repo"
    monkeypatch.chdir(tree / "plain")
    assert gu.find_git_root() is None and gu.find_repo_root() == tree / "plain"
    gone = tree / "plain" / "gone"
    gone.mkdir()
    monkeypatch.chdir(gone)
    gone.rmdir()
    for f in (gu.find_git_root, gu.find_repo_root):
        with pytest.raises(FileNotFoundError):
            f()


# On every version, whatever pathlib's exists() does (from 3.14 it is false for every error): only a missing
# entry, a component that is no directory, a link loop and a bad descriptor mean "no .git"; any other error of
# the entry's stat() reaches the caller.
@pytest.mark.parametrize("path_type", [Path, SubPath])
@pytest.mark.parametrize("case", ["name too long", "permission denied"])
def test_errors_other_than_a_missing_entry_propagate(gu, tree, path_type, case):
    if case == "permission denied" and os.geteuid() == 0:
        pytest.skip("permission bits do not stop root")
    start = path_type(tree / ("n" * 300) / "x" if case == "name too long" else tree / "repo" / "a" / "b")
    (tree / "repo" / "a").chmod(0)
    try:
        theirs = pytest.raises(OSError, (start / ".git").stat).value
        ours = pytest.raises(OSError, gu.find_git_root, start).value
    finally:
        (tree / "repo" / "a").chmod(0o755)
    assert (type(ours), ours.errno, ours.filename, str(ours)) == (type(theirs), theirs.errno, theirs.filename,
                                                                  str(theirs))


def test_discovery_reaches_path_through_the_namespace(gu, tree, monkeypatch):
    class Here(SubPath):
        @classmethod
        def cwd(cls):
            return cls(tree / "repo" / "a")

    monkeypatch.setattr(gu, "Path", Here)
    assert type(gu.find_git_root()) is Here and gu.find_repo_root() == tree / "repo"
    monkeypatch.setattr(gu, "find_git_root", lambda: None)
    assert gu.find_repo_root() == tree / "repo" / "a"


# ---- Queries against a recording stand-in for run_git_command ----

OK, FAIL = 0, 128
HEAD_SHORT, HEAD_FULL = ["rev-parse", "--short", "HEAD"], ["rev-parse", "HEAD"]
SYMREF, MAIN, MASTER = ["symbolic-ref", "refs/remotes/origin/HEAD"], ["rev-parse", "--verify", "main"], [
    "rev-parse", "--verify", "master"]


@pytest.mark.parametrize(
    "name, args, replies, expected, runs",
    [
        ("resolve_display_branch", (), [(" feature/x\n", "", OK)], "feature/x", [["branch", "--show-current"]]),
        ("resolve_display_branch", (), [("x\n", "fatal", FAIL)], None, [["branch", "--show-current"]]),
        ("get_head_commit", (), [("abc1234\n", "", OK)], "abc1234", [HEAD_SHORT]),
        ("get_head_commit", (0,), [["abc\n", "", OK]], "abc", [HEAD_FULL]),
        ("get_head_commit", ("",), [("", "fatal", FAIL)], None, [HEAD_FULL]),
        ("get_default_branch", (), [("refs/remotes/origin/develop\n", "", OK)], "develop", [SYMREF]),
        ("get_default_branch", (), [("refs/heads/odd\n", "", OK)], "refs/heads/odd", [SYMREF]),
        ("get_default_branch", (), [(" \n", "", OK), ("", "", OK)], "main", [SYMREF, MAIN]),
        ("get_default_branch", (), [("x", "", 1), ("", "", 1), ("y", "", OK)], "master", [SYMREF, MAIN, MASTER]),
        ("get_default_branch", (), [("", "", FAIL)] * 3, "main", [SYMREF, MAIN, MASTER]),
        ("branch_exists", ("f",), [("", "", FAIL), ("", "", OK)], True,
         [["rev-parse", "--verify", "f"], ["rev-parse", "--verify", "origin/f"]]),
        ("branch_exists", ("origin/f",), [("", "", FAIL)], False, [["rev-parse", "--verify", "origin/f"]]),
        ("resolve_commit", ("",), [], None, []),
        ("resolve_commit", ("-x",), [], None, []),
        ("resolve_commit", ("s ",), [(" abc\n", "", OK)], "abc", [["rev-parse", "--verify", "--quiet", "s ^{commit}"]]),
        ("resolve_commit", ("s",), [("abc\n", "", 1)], None, [["rev-parse", "--verify", "--quiet", "s^{commit}"]]),
    ],
)
def test_queries_run_and_read(gu, stand_in, tmp_path, name, args, replies, expected, runs):
    calls = stand_in("run_git_command", *replies)
    result = getattr(gu, name)(tmp_path, *args)
    assert result == expected and type(result) is type(expected)
    assert calls == runs and len(runs) == len(replies)


# A reply of the wrong shape, and what unpacking it says up to 3.13 and from 3.14 (which counts the values of an
# exact list, tuple or dict). Each row is also checked against the running interpreter's own unpacking.
TOO_MANY = "too many values to unpack (expected 3)"
UNPACK_ERRORS = [
    (("a", "b"), "not enough values to unpack (expected 3, got 2)", "not enough values to unpack (expected 3, got 2)"),
    (("a", "b", 0, 1), TOO_MANY, "too many values to unpack (expected 3, got 4)"),
    (["a", "b", 0, 1, 2], TOO_MANY, "too many values to unpack (expected 3, got 5)"),
    (dict.fromkeys("abcd"), TOO_MANY, "too many values to unpack (expected 3, got 4)"),
    (type("Quad", (tuple,), {})(("a", "b", 0, 1)), TOO_MANY, TOO_MANY),  # no exact tuple: no count
    (collections.deque(("a", "b", 0, 1)), TOO_MANY, TOO_MANY),
    (None, "cannot unpack non-iterable NoneType object", "cannot unpack non-iterable NoneType object"),
    (7, "cannot unpack non-iterable int object", "cannot unpack non-iterable int object"),
]


@pytest.mark.parametrize("reply, before_314, from_314", UNPACK_ERRORS)
def test_unpacking_errors_are_pythons(gu, stand_in, tmp_path, reply, before_314, from_314):
    def python_code():
        stdout, _, returncode = reply

    expected = from_314 if sys.version_info >= (3, 14) else before_314
    theirs = pytest.raises((TypeError, ValueError), python_code).value
    assert str(theirs) == expected
    stand_in("run_git_command", reply, reply)
    for query in (gu.get_head_commit, gu.resolve_display_branch):
        assert str(pytest.raises(type(theirs), query, tmp_path).value) == expected


# ---- Queries against real repositories ----

def test_repository_with_branches_tags_and_remote(gu, git, tmp_path):
    repo = git.init("repo")
    git(repo, "commit", "-q", "--allow-empty", "-m", "one")
    git(repo, "tag", "-a", "v1", "-m", "tag")
    git(repo, "commit", "-q", "--allow-empty", "-m", "two")
    head, first, tree = git(repo, "rev-parse", "HEAD"), git(repo, "rev-parse", "v1^{commit}"), git(repo, "rev-parse",
                                                                                                   "HEAD^{tree}")
    git(repo, "update-ref", "refs/remotes/origin/feature", first)
    git(repo, "checkout", "-q", "-b", "feature/x")
    assert gu.resolve_display_branch(repo) == "feature/x"
    assert gu.get_head_commit(repo, False) == head and head.startswith(gu.get_head_commit(repo))
    assert gu.get_default_branch(repo) == "main"
    assert [gu.branch_exists(repo, b) for b in ("feature", "origin/feature", "v1", first, "nope", "origin/nope")] == [
        True, True, True, True, False, False]
    assert gu.resolve_commit(repo, "v1") == first != git(repo, "rev-parse", "v1")
    assert gu.resolve_commit(repo, "main") == head and gu.resolve_commit(repo, "main ") is None
    assert gu.resolve_commit(repo, tree) is None and gu.resolve_commit(repo, "-h") is None
    git(repo, "update-ref", "refs/remotes/origin/develop", first)
    git(repo, "symbolic-ref", "refs/remotes/origin/HEAD", "refs/remotes/origin/develop")
    assert gu.get_default_branch(repo) == "develop"
    git(repo, "checkout", "-q", "--detach")
    assert gu.resolve_display_branch(repo) is None and gu.get_head_commit(repo, False) == head
    worktree = tmp_path / "wt"
    git(repo, "worktree", "add", "-q", "-b", "wt", str(worktree))
    (worktree / "sub").mkdir()
    assert (worktree / ".git").is_file() and gu.find_git_root(worktree / "sub") == worktree
    assert gu.resolve_display_branch(worktree) == "wt" and gu.get_head_commit(worktree, False) == head
