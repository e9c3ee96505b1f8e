"""Repositories and revision names chosen by an attacker: no file written or program run through a revision,
and nothing that git started left running after a time-out or Ctrl-C."""
import datetime as dt
import os
import pty
import shutil
import signal
import subprocess
import sys
import threading
import time

import pytest
from proof_support import dead

from morvane_tessary.utils import git_utils as gu

VICTIM = "precious\n"
QUERIES = {  # (root, revision, moment)
    "count_commits-base": lambda root, rev, _: gu.count_commits(root, rev, "HEAD"),
    "count_commits-head": lambda root, rev, _: gu.count_commits(root, "HEAD", rev),
    "commit_before": lambda root, rev, moment: gu.commit_before(root, rev, moment),
    "diff_file_changes-head": lambda root, rev, _: gu.diff_file_changes(root, "HEAD", rev),
    "log_commit_changes": lambda root, rev, moment: gu.log_commit_changes(root, since=moment, ref=rev, max_commits=3),
    "diff_line_spans-head": lambda root, rev, _: gu.diff_line_spans(root, "HEAD", rev, merge_base=False),
    "diff_line_spans-three-dots": lambda root, rev, _: gu.diff_line_spans(root, rev, "HEAD", merge_base=True),
}


@pytest.fixture
def repo(git, tmp_path):
    repo = git.init("repo")
    for day in (1, 2):
        git.commit(repo, ("A", "a@x"), day, {"f": f"{day}\n"})
    (tmp_path / "victim").write_text(VICTIM)
    return repo


@pytest.mark.parametrize("query", QUERIES.values(), ids=QUERIES.keys())
@pytest.mark.parametrize("rev", ["--output={victim}", "--ext-diff", "-n"])
def test_option_like_revisions(repo, fake_git, tmp_path, query, rev):
    """Two dashes are refused first of all (a moment of None is never read); one dash still reaches git."""
    marker = tmp_path / "git-ran"
    fake_git(f'echo >> "{marker}"; exec "{shutil.which("git")}" "$@"')
    rev = rev.format(victim=tmp_path / "victim")
    if rev.startswith("--"):
        refused = pytest.raises(gu.GitError, query, repo, rev, None).value
        assert str(refused) == f"revision looks like an option: {rev!r}" and not marker.exists()
    else:
        try:
            query(repo, rev, dt.datetime(2024, 1, 1))
        except gu.GitError as failed:
            assert "looks like an option" not in str(failed)
        assert marker.exists()
    assert (tmp_path / "victim").read_text() == VICTIM


def test_clone_whose_remote_head_is_an_option(git, repo, tmp_path):
    """A branch name that came out of a hostile repository, handed on as a revision and through the report."""
    victim = tmp_path / "victim"
    hostile = f"--output={victim}"
    git(repo, "update-ref", f"refs/heads/{hostile}", "HEAD")
    git(repo, "symbolic-ref", "HEAD", f"refs/heads/{hostile}")
    git(tmp_path, "clone", "-q", str(repo), "clone")
    clone = tmp_path / "clone"
    assert {gu.resolve_display_branch(clone), gu.get_default_branch(clone)} == {hostile}
    with pytest.raises(gu.GitError, match="^revision looks like an option: "):
        gu.log_commit_changes(clone, since=dt.datetime(2000, 1, 1), ref=hostile, max_commits=3)
    def report(*args):
        return subprocess.run([sys.executable, "-m", "morvane_tessary.report", str(clone), *args],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=25)

    assert report("--json").returncode == 0
    refused = report(f"--base={hostile}")
    assert (refused.returncode, refused.stderr.count("\n")) == (2, 1) and "names no commit" in refused.stderr
    assert victim.read_text() == VICTIM


LONG_LIVED = "sleep 60 </dev/null >/dev/null 2>&1 & echo $! > {pids}"


@pytest.mark.slow
@pytest.mark.parametrize("how", ["time-out", "ctrl-c"])
@pytest.mark.parametrize(
    "git_script, fsmonitor",
    [
        (LONG_LIVED + "; exec sleep 60", None),  # git hangs, its child holds nothing of ours
        ("sleep 60 & echo $! > {pids}", None),  # git exits, its child holds the pipes
        (None, LONG_LIVED + "; sleep 60"),  # the repository's own fsmonitor hook, run by the real git
    ],
    ids=["git-hangs", "child-holds-pipes", "fsmonitor"],
)
def test_nothing_git_started_outlives_the_call(git, fake_git, tmp_path, how, git_script, fsmonitor):
    pids = tmp_path / "pids"
    repo = git.init("repo")
    if git_script:
        fake_git(git_script.format(pids=pids))
    else:  # fake_git writes the hook script; renamed, it is no git on PATH
        git(repo, "config", "core.fsmonitor", str(fake_git(fsmonitor.format(pids=pids)).rename(tmp_path / "hook")))
    started = time.monotonic()
    if how == "time-out":
        assert gu.run_git_command(repo, ["status"], 1) == ("", "Command timed out", 1)
    else:
        timer = threading.Timer(0.5, os.kill, (os.getpid(), signal.SIGINT))
        timer.start()
        try:
            with pytest.raises(KeyboardInterrupt):
                gu.run_git_command(repo, ["status"])
        finally:
            timer.join()
    assert time.monotonic() - started < 2
    assert dead(int(pids.read_text()))


TERMINAL_HOST = """
import fcntl, os, sys, termios, time
from pathlib import Path
from morvane_tessary.utils import git_utils as gu
fcntl.ioctl(0, termios.TIOCSCTTY, 0)  # standard input becomes this session's controlling terminal
repo = Path(sys.argv[1])
print(gu.run_git_command(repo, ["stty"], 5), gu.get_authors_for_period(repo, "2023-12-01"), flush=True)
started = time.monotonic()
try:
    gu.run_git_command(repo, ["hang"])
except KeyboardInterrupt:
    print("interrupted after", round(time.monotonic() - started), "s")
"""


def test_git_on_the_hosts_terminal(repo, fake_git, tmp_path):
    """With the host in the foreground of its terminal, git is never stopped for touching it, shortlog still
    summarises HEAD, and the terminal's Ctrl-C ends the call at once and takes git with it."""
    pids = tmp_path / "pids"
    fake_git(f"""[ "$1" = stty ] && stty -echo && stty echo && echo ok && exit
        [ "$1" = hang ] && echo $$ > "{pids}" && exec sleep 30
        exec "{shutil.which("git")}" "$@"
        """)
    leader, follower = pty.openpty()
    try:
        host = subprocess.Popen([sys.executable, "-c", TERMINAL_HOST, str(repo)], stdin=follower,
                                stdout=subprocess.PIPE, text=True, start_new_session=True)
        deadline = time.monotonic() + 15
        while not pids.exists() and host.poll() is None and time.monotonic() < deadline:
            time.sleep(0.01)
        time.sleep(0.1)
        os.write(leader, b"\x03")
        out, _ = host.communicate(timeout=10)
    finally:
        os.close(leader), os.close(follower)
    assert out.splitlines() == [
        "('ok\\n', '', 0) [{'name': 'A', 'email': 'a@x', 'commits': 2}]", "interrupted after 0 s"]
    assert dead(int(pids.read_text()))
