import functools
import os
import textwrap
from pathlib import Path

import proof_support
import pytest

from morvane_tessary.utils import git_utils


@pytest.fixture
def gu():
    return git_utils


@pytest.fixture(params=["native", "subprocess"])
def runner_path(request, monkeypatch):
    """Both runner paths: the native spawner, and subprocess.run, taken whenever the host options are not empty."""
    if request.param == "subprocess":
        monkeypatch.setattr(git_utils, "get_subprocess_hidden_kwargs", lambda: {"close_fds": True})
    return request.param


@pytest.fixture
def git(monkeypatch, tmp_path):
    """git(cwd, *args) -> stripped stdout, with a fixed identity and no user or system configuration (for the
    module's own gits too); git.init(name, branch) makes tmp_path/name; git.commit(repo, (name, email), day,
    {path: text or None}) commits on that day of January 2024."""
    monkeypatch.setenv("GIT_CONFIG_NOSYSTEM", "1")
    monkeypatch.setenv("HOME", str(tmp_path))
    monkeypatch.setenv("TZ", "UTC")

    def init(name, branch="main"):
        (tmp_path / name).mkdir()
        proof_support.git(tmp_path / name, "init", "-q", "-b", branch)
        return tmp_path / name

    def commit(repo, who, day, files):
        for path, text in files.items():
            (repo / path).unlink() if text is None else (repo / path).write_text(text)
        proof_support.git(repo, "add", "-A")
        proof_support.git(repo, "commit", "-qm", f"day {day}", date=f"2024-01-{day:02d}T12:00:00+00:00", who=who)

    run = functools.partial(proof_support.git)
    run.init, run.commit = init, commit
    return run


@pytest.fixture
def quiet_stdin():  # shortlog reads a standard input that is no terminal
    saved, null = os.dup(0), os.open(os.devnull, os.O_RDONLY)
    os.dup2(null, 0), os.close(null)
    yield
    os.dup2(saved, 0), os.close(saved)


@pytest.fixture
def stand_in(monkeypatch, tmp_path):
    """Replaces the module's `name` with a function of (tmp_path, args) that records the argument lists and
    gives the replies in turn, raising those that are exceptions."""

    def install(name, *replies):
        calls, answers = [], iter(replies)

        def fake(root, args):
            assert root is tmp_path and type(args) is list
            calls.append(args)
            reply = next(answers)
            if isinstance(reply, Exception):
                raise reply
            return reply

        monkeypatch.setattr(git_utils, name, fake)
        return calls

    return install


@pytest.fixture
def fake_git(tmp_path, monkeypatch):
    """Puts a `git` made of the given shell script first on PATH."""
    bindir = tmp_path / "fakebin"
    bindir.mkdir()

    def install(script: str) -> Path:
        path = bindir / "git"
        path.write_text("#!/bin/sh\n" + textwrap.dedent(script))
        path.chmod(0o755)
        monkeypatch.setenv("PATH", f"{bindir}{os.pathsep}{os.environ.get('PATH', '')}")
        return path

    return install
