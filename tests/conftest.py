import os
import stat
import textwrap
from pathlib import Path

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
        path.chmod(path.stat().st_mode | stat.S_IXUSR | stat.S_IXGRP | stat.S_IXOTH)
        monkeypatch.setenv("PATH", f"{bindir}{os.pathsep}{os.environ.get('PATH', '')}")
        return path

    return install
