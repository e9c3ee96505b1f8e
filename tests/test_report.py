"""The report end to end: `python -m morvane_tessary.report` on repositories
made here, with fixed identities and dates."""

import json
import os
import subprocess
import sys

import pytest

ADA, BO = ("Ada Lovelace", "ada@example.com"), ("Bo Ek", "bo@example.com")
TEN_LINES = "".join(f"line {i}\n" for i in range(1, 11))


@pytest.fixture
def feature(git):
    """main, and feature/login checked out: two commits since main, which moved on by one."""
    repo = git.init("repo")
    git.commit(repo, ADA, 1, {"a.txt": TEN_LINES, "old.txt": "kept\n" * 20, "gone.txt": "bye\n"})
    git.commit(repo, BO, 2, {"b.txt": "b\n"})
    git(repo, "checkout", "-q", "-b", "feature/login")
    (repo / "old.txt").rename(repo / "new.txt")
    git.commit(repo, ADA, 3, {"a.txt": TEN_LINES.replace("line 3\n", "three\n") + "line 11\n",
                              "gone.txt": None, "added.txt": "new\n" * 5})
    git.commit(repo, BO, 4, {"a.txt": (repo / "a.txt").read_text().replace("line 7\n", "seven\n")})
    git(repo, "checkout", "-q", "main")
    git.commit(repo, ADA, 5, {"main_only.txt": "m\n"})
    git(repo, "checkout", "-q", "feature/login")
    return repo


def report(*args, stdin=subprocess.DEVNULL):
    return subprocess.run([sys.executable, "-m", "morvane_tessary.report", *map(str, args)], stdin=stdin,
                          capture_output=True, text=True, timeout=25)


def as_json(*args, stdin=subprocess.DEVNULL):
    done = report(*args, "--json", stdin=stdin)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def test_feature_branch(git, feature):
    (feature / "sub").mkdir()
    reader, writer = os.pipe()  # without a terminal git shortlog would read this, held open and never written
    try:
        doc = as_json(feature / "sub", "--since", "2024-01-02", stdin=reader)
    finally:
        os.close(reader), os.close(writer)
    assert {k: doc[k] for k in ("repository", "branch", "default_branch", "base", "ahead", "behind", "notes")} == {
        "repository": str(feature), "branch": "feature/login", "default_branch": "main", "base": "main",
        "ahead": 2, "behind": 1, "notes": []}
    assert doc["head"] == git(feature, "rev-parse", "HEAD") and doc["head"].startswith(doc["head_short"])
    assert doc["wiki_directory"] == str(feature / "memory" / "lorebook" / "feature__login")
    assert doc["authors"] == [{"name": "Bo Ek", "email": "bo@example.com", "commits": 2},
                              {"name": "Ada Lovelace", "email": "ada@example.com", "commits": 1}]
    assert doc["changes"]["counts"] == {"added": 1, "modified": 1, "deleted": 1, "renamed": 1, "copied": 0}
    spans = lambda *s: [dict(zip(("start", "end", "added"), span)) for span in s]  # noqa: E731
    assert doc["changes"]["files"] == [
        {"path": "a.txt", "status": "modified", "additions": 3, "deletions": 2, "old_path": None,
         "spans": spans((3, 3, False), (7, 7, False), (11, 11, True))},
        {"path": "added.txt", "status": "added", "additions": 5, "deletions": 0, "old_path": None,
         "spans": spans((1, 5, True))},
        {"path": "gone.txt", "status": "deleted", "additions": 0, "deletions": 1, "old_path": None, "spans": []},
        {"path": "new.txt", "status": "renamed", "additions": 0, "deletions": 0, "old_path": "old.txt", "spans": []},
    ]
    assert as_json(feature, "--base", "HEAD~1")["ahead"] == 1
    # The human output: the same facts, one file per line with its spans.
    done = report(feature, "--since", "2024-01-02")
    assert done.returncode == 0 and done.stderr == ""
    assert "changed since leaving main: 4 files (1 added, 1 modified, 1 deleted, 1 renamed), +8 -3 lines" in done.stdout
    rows = [line.split() for line in done.stdout.splitlines()[-4:]]
    assert rows == [["modified", "3", "2", "a.txt", "3,", "7,", "11"], ["added", "5", "0", "added.txt", "1-5"],
                    ["deleted", "0", "1", "gone.txt"], ["renamed", "0", "0", "new.txt", "(from", "old.txt)"]]
    assert "no commits in the period" in report(feature).stdout  # the default 30d is long after 2024


@pytest.mark.parametrize("state, branch, base, ahead, commits, note, shown", [
    ("no commits", "main", None, None, 0, "no commits yet", "HEAD            (no commits yet)"),
    ("detached", None, "main", 0, 1, "detached HEAD: the wiki directory is the one for no branch",
     "branch          (detached HEAD)"),
    ("no default branch", "trunk", None, None, 2, "no default branch: neither main nor origin/main exists",
     "default branch  main (not found)"),
    ("default on origin", "main", "origin/develop", 1, 2, None, "compared with   origin/develop"),
])
def test_repository_states(git, state, branch, base, ahead, commits, note, shown):
    repo = git.init("r", "trunk" if state == "no default branch" else "main")
    if state != "no commits":
        git.commit(repo, ADA, 1, {"a": "a\n"})
        git.commit(repo, ADA, 2, {"b": "b\n"})
    if state == "detached":
        git(repo, "checkout", "-q", "--detach", "HEAD~1")
        (repo / "memory" / "lorebook" / "default").mkdir(parents=True)
    if state == "default on origin":
        git(repo, "update-ref", "refs/remotes/origin/develop", "HEAD~1")
        git(repo, "symbolic-ref", "refs/remotes/origin/HEAD", "refs/remotes/origin/develop")
    doc = as_json(repo, "--since", "2024-01-01")
    ada = [{"name": "Ada Lovelace", "email": "ada@example.com", "commits": commits}] if commits else []
    assert (doc["branch"], doc["base"], doc["ahead"], doc["authors"]) == (branch, base, ahead, ada)
    assert doc["notes"] == ([note] if note else [])
    assert (doc["changes"] is None) == (base is None or ahead is None)
    assert doc["wiki_directory"] == str(repo / "memory" / "lorebook" / (branch or "default"))
    assert doc["wiki_directory_exists"] == (state == "detached")
    human = report(repo)
    assert (human.returncode, human.stderr) == (0, "") and shown in human.stdout.splitlines()


@pytest.mark.parametrize("args, message", [
    (["{tmp}"], "{tmp} is not inside a git repository"),
    (["{tmp}/missing"], "{tmp}/missing is not a directory"),
    (["{repo}", "--since", "yesterday"], "since must be a positive whole number followed by m (minutes), h (hours), "
                                         "d (days) or w (weeks), such as 7d or 24h, or an ISO date such as "
                                         "2026-09-01; got 'yesterday'"),
    (["{repo}", "--base", "nope"], "--base 'nope' names no commit"),
])
def test_errors_are_one_line_and_exit_2(git, tmp_path, args, message):
    repo = git.init("r")
    git.commit(repo, ADA, 1, {"a": "a\n"})
    (tmp_path / "plain").mkdir()
    done = report(*[a.format(tmp=tmp_path / "plain", repo=repo) for a in args])
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("python -m morvane_tessary.report: error: " + message.format(tmp=tmp_path / "plain"))
    assert done.stderr.count("\n") == 1
