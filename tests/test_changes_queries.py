import datetime as dt

import pytest
from proof_support import ODD, QUOTED, make_repo

from morvane_tessary.utils import git_utils as gu

FC, CC, LS = gu.FileChange, gu.CommitChanges, gu.LineSpan
SINCE = dt.datetime(2026, 1, 5, 9, 3, 7, 999)
LOG = ["log", "--since=2026-01-05 09:03:07", "--max-count=0", "--no-show-signature", "--format=%x1e%ct", "--raw",
       "--numstat", "-M", "-z"]
PATCH = ["-c", "core.quotepath=off", "--literal-pathspecs", "diff", "--no-color", "--no-ext-diff", "--no-textconv",
         "--no-prefix", "-M", "-U0"]
BEFORE = ["rev-list", "-1", "--before=2026-01-05 09:03:07"]
ONE_FILE = "\0".join([":1 2 a b A", "f", "1\t0\tf", ""])


@pytest.mark.parametrize(
    "run, reply, expected, args",
    [
        (lambda r: gu.count_commits(r, "main", "feature"), " 3\n", 3, ["rev-list", "--count", "main..feature"]),
        (lambda r: gu.count_commits(r, "a", "b"), "\n", 0, ["rev-list", "--count", "a..b"]),
        (lambda r: gu.commit_before(r, "main", SINCE), " 3\n", "3", [*BEFORE, "main"]),
        (lambda r: gu.commit_before(r, "a", SINCE), "\n", None, [*BEFORE, "a"]),
        (lambda r: gu.diff_file_changes(r, "main", "feature"), ONE_FILE, [FC("f", "added", 1, 0)],
         ["diff", "--raw", "--numstat", "-M", "-z", "--no-textconv", "main...feature"]),
        (lambda r: gu.log_commit_changes(r, since=SINCE, ref=None, max_commits=0), "", [], LOG),
        (lambda r: gu.log_commit_changes(r, since=SINCE, ref="abc", max_commits=10**20), "\x1e5\0\n" + ONE_FILE,
         [CC(5, (FC("f", "added", 1, 0),))], [*LOG[:2], "--max-count=100000000000000000000", *LOG[3:], "abc"]),
        # The moment's own fields, whatever its zone; no range check on the count; an empty ref is an argument.
        (lambda r: gu.log_commit_changes(r, since=dt.datetime(2026, 9, 1, 14, 5, tzinfo=dt.timezone.max), ref="",
                                         max_commits=-1), "", [],
         [LOG[0], "--since=2026-09-01 14:05:00", "--max-count=-1", *LOG[3:], ""]),
        (lambda r: gu.diff_line_spans(r, "a", "b", merge_base=True), "+++ f\n@@ -1 +1 @@\n-x\n+y\n",
         {"f": [LS(1, 1, False)]}, [*PATCH, "--diff-filter=MR", "a...b"]),
        (lambda r: gu.diff_line_spans(r, "a", "b", merge_base=[], paths=[], diff_filter="MRA"), "", {},
         [*PATCH, "--diff-filter=MRA", "a", "b"]),
        (lambda r: gu.diff_line_spans(r, "a", "b", merge_base=1, paths=("x y", "-p", "*")), "", {},
         [*PATCH, "--diff-filter=MR", "a...b", "--", "x y", "-p", "*"]),
        (lambda r: gu.diff_line_spans(r, 1, 2, merge_base=True, diff_filter=3), "", {},
         [*PATCH, "--diff-filter=3", "1...2"]),
        (lambda r: gu.diff_line_spans(r, 1, 2, merge_base=False), "", {}, [*PATCH, "--diff-filter=MR", 1, 2]),
        # Keywords made at run time are equal to the parameter names, not the same objects.
        (lambda r: gu.diff_line_spans(**{"".join(["repo_", "root"]): r, "".join(["merge_", "base"]): 0}, base="a",
                                      head="b"), "", {}, [*PATCH, "--diff-filter=MR", "a", "b"]),
    ],
)
def test_git_arguments(stand_in, tmp_path, run, reply, expected, args):
    calls = stand_in("_git_output", reply)
    result = run(tmp_path)
    assert result == expected and type(result) is type(expected)
    assert calls == [args] and [type(a) for a in calls[0]] == [type(a) for a in args]


def test_batches_merge_and_later_ones_replace_spans(stand_in, tmp_path):
    paths = ["dup"] + [f"p{i:08d}" for i in range(1600)] + ["dup"]  # 4 + 1599 * 10 fill the first batch
    calls = stand_in("_git_output", "+++ dup\n@@ -1 +1 @@\n-a\n+b\n+++ one\n@@ -0,0 +1 @@\n+x\n",
                       "+++ two\n@@ -0,0 +1 @@\n+x\n+++ dup\n@@ -0,0 +7,2 @@\n+a\n+b\n")
    result = gu.diff_line_spans(tmp_path, "a", "b", merge_base=True, paths=paths)
    assert list(result.items()) == [("dup", [LS(7, 8, True)]), ("one", [LS(1, 1, True)]), ("two", [LS(1, 1, True)])]
    head = [*PATCH, "--diff-filter=MR", "a...b", "--"]
    assert calls == [head + paths[:1600], head + paths[1600:]]


def test_failing_batch_stops_the_call(stand_in, tmp_path):
    calls = stand_in("_git_output", "+++ f\n@@ -1 +1 @@\n", gu.GitError("fatal: boom"), "")
    with pytest.raises(gu.GitError, match="^fatal: boom$"):
        gu.diff_line_spans(tmp_path, "a", "b", merge_base=False, paths=["a" * 9000, "b" * 9000, "c" * 9000])
    assert [c[-1][0] for c in calls] == ["a", "b"]


@pytest.mark.parametrize(
    "paths, sizes",
    [
        ([], [0]), (["p" * 9] * 2000, [1600, 400]), (("x" * 20000, "y"), [1, 1]), (["y", "x" * 20000, "z"], [1, 1, 1]),
        (["a" * 7999] * 2, [2]), (["a" * 7999, "a" * 8000], [1, 1]), (["é" * 9] * 1600, [1600]),
        (["\U0001f600" * 9] * 1601, [1600, 1]), ([""] * 16001, [16000, 1]), (["d", "d"], [2]),
    ],
)
def test_path_batches(paths, sizes):
    batches = gu._path_batches(paths)
    assert type(batches) is list and all(type(b) is list for b in batches)
    assert [len(b) for b in batches] == sizes and [p for b in batches for p in b] == list(paths)


@pytest.mark.parametrize(
    "name, replacement, run, replies, expected, args",
    [
        ("parse_file_changes", lambda out: [out], lambda r: gu.diff_file_changes(r, "a", "b"), ["x"], ["x"], None),
        ("parse_commit_changes", lambda out: [out],
         lambda r: gu.log_commit_changes(r, since=SINCE, ref=None, max_commits=0), ["x"], ["x"], None),
        ("parse_line_spans", lambda p: {p: 1}, lambda r: gu.diff_line_spans(r, "a", "b", merge_base=True, paths=["p"]),
         ["x"], {"x": 1}, None),
        ("_path_batches", lambda paths: [["x"], [], ["y"]],
         lambda r: gu.diff_line_spans(r, "a", "b", merge_base=True, paths=["q"]), ["", "", ""], {},
         [[*PATCH, "--diff-filter=MR", "a...b", "--", "x"], [*PATCH, "--diff-filter=MR", "a...b"],
          [*PATCH, "--diff-filter=MR", "a...b", "--", "y"]]),
        ("_PATCH_OPTIONS", ("--opt",), lambda r: gu.diff_line_spans(r, "a", "b", merge_base=True), [""], {},
         [[*PATCH[:4], "--opt", "--diff-filter=MR", "a...b"]]),
        ("_MAX_PATHSPEC_CHARS", 4, lambda r: gu._path_batches(["ab", "cd", "e"]), [], [["ab"], ["cd"], ["e"]], None),
    ],
)
def test_collaborators_are_looked_up_at_each_call(monkeypatch, stand_in, tmp_path, name, replacement, run, replies,
                                                  expected, args):
    calls = stand_in("_git_output", *replies)
    monkeypatch.setattr(gu, name, replacement)
    assert run(tmp_path) == expected
    assert args is None or calls == args
    monkeypatch.delattr(gu, "_git_output")
    with pytest.raises(NameError, match="^name '_git_output' is not defined$"):
        gu.diff_file_changes(tmp_path, "a", "b")


# ---- real repositories ----------------------------------------------------------

TIMES = [int(dt.datetime(2026, 1, day, 10, tzinfo=dt.timezone.utc).timestamp()) for day in (1, 2, 3, 4)]


@pytest.fixture(scope="module")
def repo(tmp_path_factory):
    return make_repo(tmp_path_factory.mktemp("changes"))


FEATURE = [FC("added.txt", "added", 2, 0), FC("bin.dat", "modified", 0, 0), FC("crlf.txt", "modified", 1, 1),
           FC("gone.txt", "deleted", 0, 2), FC("keep.txt", "modified", 3, 3),
           FC("moved/me.py", "renamed", 1, 1, old_path="move_me.py"), FC("nonl.txt", "modified", 1, 1),
           *[FC(name, "modified", 1, 1) for name in QUOTED + [records for records, _ in ODD.values()] + ["a\ufffd.txt"]]]
SPANS = {"keep.txt": [LS(3, 3, False), LS(6, 7, True), LS(9, 9, False)], "moved/me.py": [LS(20, 20, False)],
         "crlf.txt": [LS(2, 2, False)], "nonl.txt": [LS(2, 2, False)],
         **{name: [LS(2, 2, False)] for name in QUOTED + [patch for _, patch in ODD.values()]},
         "a\ufffd.txt": [LS(2, 2, False)] * 2}


def by_path(changes):
    return sorted(changes, key=lambda c: c.path)


def test_file_and_commit_changes(git, repo, runner_path):  # git: UTC, no configuration
    assert by_path(gu.diff_file_changes(repo, "main^1", "feature")) == by_path(FEATURE)
    assert gu.diff_file_changes(repo, "feature", "feature") == []
    assert gu.diff_file_changes(repo, "feature", "main^1") == [FC("main_only.txt", "modified", 1, 0)]
    log = gu.log_commit_changes(repo, since=dt.datetime(2025, 12, 1), ref=None, max_commits=10)
    assert [c.timestamp for c in log] == TIMES[::-1] and log[0].files == ()  # the merge shows no files
    assert log[1].files == (FC("main_only.txt", "modified", 1, 0),)
    assert by_path(log[2].files) == by_path(FEATURE)
    assert {c.status for c in log[3].files} == {"added"} and len(log[3].files) == 16
    assert [c.timestamp for c in gu.log_commit_changes(repo, since=dt.datetime(2026, 1, 2, 12), ref=None,
                                                       max_commits=10)] == TIMES[:1:-1]
    assert gu.log_commit_changes(repo, since=dt.datetime(2025, 1, 1), ref="feature", max_commits=1) == [
        CC(TIMES[1], log[2].files)]
    assert gu.log_commit_changes(repo, since=dt.datetime(2025, 1, 1), ref=None, max_commits=0) == []
    with pytest.raises(gu.GitError, match="unknown revision"):
        gu.log_commit_changes(repo, since=SINCE, ref="nope", max_commits=1)
    assert [gu.count_commits(repo, "main^1", "feature"), gu.count_commits(repo, "main", "main")] == [1, 0]
    assert gu.commit_before(repo, "main", dt.datetime(2026, 1, 3, 12)) == gu.resolve_commit(repo, "main~1")
    assert gu.commit_before(repo, "main", dt.datetime(2025, 12, 31)) is None


def test_line_spans(git, repo, runner_path):
    assert gu.diff_line_spans(repo, "main^1", "feature", merge_base=True) == SPANS
    # Compared with main itself, main's own change shows as a removal on feature's side.
    assert gu.diff_line_spans(repo, "main^1", "feature", merge_base=False) == {**SPANS, "main_only.txt": [LS(1, 1, False)]}
    assert gu.diff_line_spans(repo, "main^1", "feature", merge_base=True, diff_filter="AD") == {
        "added.txt": [LS(1, 2, True)]}
    paths = ["keep.txt", "tab\there.txt", "*.txt", "gone.txt"]  # literal paths: "*.txt" names no file
    assert gu.diff_line_spans(repo, "main^1", "feature", merge_base=True, paths=paths) == {
        "keep.txt": SPANS["keep.txt"], "tab\there.txt": [LS(2, 2, False)]}
    with pytest.raises(gu.GitError, match="unknown revision|bad revision"):
        gu.diff_line_spans(repo, "nope", "feature", merge_base=True)
