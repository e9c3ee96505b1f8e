import contextlib
import logging
import os
import signal
import subprocess
import sys
import time

import pytest
from proof_support import children, dead


@pytest.mark.parametrize(
    "script, timeout, expected",
    [
        ("printf 'out\\n'; printf 'warn\\n' >&2", 30, ("out\n", "warn\n", 0)),
        ("printf 'a\\r\\nb\\rc\\r\\r\\n'", 30, ("a\nb\nc\n\n", "", 0)),
        ("printf 'caf\\303\\251 \\377\\376 x\\342\\202'", 30, ("café \ufffd\ufffd x\ufffd", "", 0)),
        ("printf 'bad\\r\\n' >&2; exit 3", 30, ("", "bad\n", 3)),
        ("kill -9 $$", 30, ("", "", -9)),
        ("echo out; kill -TERM $$", 30, ("out\n", "", -15)),
        ("echo partial; exec sleep 30", 0.3, ("", "Command timed out", 1)),
        ("sleep 5 & echo $! > {pids}; exit 0", 0.3, ("", "Command timed out", 1)),  # a grandchild holds the pipes
        ("exec >&- 2>&-; sleep 0.1; exit 7", 5, ("", "", 7)),  # git outlives its pipes
        ("exec >&- 2>&-; exec sleep 30", 0.3, ("", "Command timed out", 1)),
    ],
)
def test_triples(gu, runner_path, fake_git, tmp_path, caplog, script, timeout, expected):
    """The result, in bounded time, and nothing left behind: git reaped, and on the native path what git
    started killed with it."""
    pids = tmp_path / "pids"
    fake_git(script.format(pids=pids))
    started = time.monotonic()
    try:
        with caplog.at_level(logging.WARNING, logger=gu.__name__):
            assert gu.run_git_command(tmp_path, ["x"], timeout) == expected
        assert time.monotonic() - started < timeout + 1.5
        assert children() == []
        assert runner_path != "native" or not pids.exists() or dead(int(pids.read_text()))
    finally:
        if pids.exists():
            with contextlib.suppress(ProcessLookupError):
                os.kill(int(pids.read_text()), signal.SIGKILL)
    timed_out = expected[1] == "Command timed out"
    assert [r.getMessage() for r in caplog.records] == [f"git command timed out after {timeout}s: args=['x']"] * timed_out


def test_logs_failure_at_debug_only(gu, runner_path, fake_git, tmp_path, caplog):
    fake_git("echo fine >&2")
    with caplog.at_level(logging.DEBUG, logger=gu.__name__):
        gu.run_git_command(tmp_path, ["ok"])
        assert caplog.records == []
        fake_git("echo '  oops  ' >&2; exit 2")
        assert gu.run_git_command(tmp_path, ["bad", "x"]) == ("", "  oops  \n", 2)
    [record] = caplog.records
    assert record.levelno == logging.DEBUG
    assert record.getMessage() == "git command failed: args=['bad', 'x'] rc=2 stderr=oops"


@pytest.mark.parametrize(
    "script, output, error",
    [
        ("printf ' spaced \\n\\n'", " spaced \n\n", None),  # stdout whole, unstripped
        ("echo '  fatal: bad revision  ' >&2; exit 128", None, "fatal: bad revision"),
        ("echo '   ' >&2; exit 5", None, "git exited with code 5"),
        ("kill -15 $$", None, "git exited with code -15"),
    ],
)
def test_strict_runner(gu, runner_path, fake_git, tmp_path, script, output, error):
    fake_git(script)
    if error is None:
        assert gu._git_output(tmp_path, ["x"]) == output
    else:
        with pytest.raises(gu.GitError) as info:
            gu._git_output(tmp_path, ["x"])
        assert str(info.value) == error and type(info.value) is gu.GitError


@pytest.mark.parametrize("cwd", ["", "missing"])  # a missing working directory counts as a missing git
def test_missing_git(gu, runner_path, fake_git, tmp_path, monkeypatch, caplog, cwd):
    if cwd:
        fake_git("exit 0")
    else:
        monkeypatch.setenv("PATH", str(tmp_path / "nowhere"))
    with caplog.at_level(logging.WARNING, logger=gu.__name__):
        assert gu.run_git_command(tmp_path / cwd, ["status"]) == ("", "git not found", 1)
    assert [r.getMessage() for r in caplog.records] == ["git executable not found while running args=['status']"]
    with pytest.raises(gu.GitError, match="^git not found$"):
        gu._git_output(tmp_path / cwd, ["status"])
    assert children() == []


@pytest.mark.parametrize(
    "path_of, expected",
    [
        (lambda d: f"{d / 'nowhere'}:{d / 'one'}/:{d / 'two'}", "one\n"),
        (lambda d: f"{d / 'nowhere'}::{d / 'two'}", "cwd\n"),
        (lambda d: str(d / os.fsdecode(b"bin\xff")), "odd\n"),
        (lambda d: {"PATH": str(d / "two")}, "two\n"),
        (lambda d: None, None),
    ],
    ids=["order", "empty-entry-is-cwd", "undecodable-dir", "environ-replaced", "unset"],
)
def test_path_search_follows_os_environ(gu, runner_path, tmp_path, monkeypatch, path_of, expected):
    repo = tmp_path / "repo"
    for name, word in [("one", "one"), ("two", "two"), ("repo", "cwd"), (os.fsdecode(b"bin\xff"), "odd")]:
        (tmp_path / name).mkdir()
        (tmp_path / name / "git").write_text(f"#!/bin/sh\necho {word}\n")
        (tmp_path / name / "git").chmod(0o755)
    path = path_of(tmp_path)
    monkeypatch.setenv("PATH", str(tmp_path / "one"))
    if isinstance(path, dict):
        monkeypatch.setattr(os, "environ", path)
    elif path is None:
        monkeypatch.delenv("PATH")
    else:
        monkeypatch.setenv("PATH", path)
    ours = gu.run_git_command(repo, ["--version"])
    reference = subprocess.run(["git", "--version"], cwd=str(repo), capture_output=True, text=True)
    assert ours == (reference.stdout, reference.stderr, 0)
    assert expected is None or ours[0] == expected


@pytest.mark.parametrize("case", ["args a tuple", "null byte", "bytes and int", "too long", "cwd a file", "not executable"])
def test_errors_are_the_interpreters_spawners(gu, runner_path, fake_git, tmp_path, monkeypatch, case):
    script = fake_git("exit 0")
    (tmp_path / "file").write_text("")
    cwd = tmp_path / "file" if case == "cwd a file" else tmp_path
    args = {"args a tuple": ("a", "b"), "null byte": ["a\0b"], "bytes and int": [b"rev-parse", 3],
            "too long": ["x" * 1000] * 3000}.get(case, ["x"])
    if case == "not executable":
        script.chmod(0o644)
        monkeypatch.setenv("PATH", str(script.parent))
    theirs = pytest.raises(Exception, lambda: subprocess.run(["git"] + args, cwd=str(cwd), capture_output=True)).value
    ours = pytest.raises(Exception, gu.run_git_command, cwd, args).value
    assert (type(ours), str(ours), getattr(ours, "filename", None)) == (
        type(theirs), str(theirs), getattr(theirs, "filename", None))
    assert children() == []


def test_child_environment_matches_the_interpreters_spawner(gu, runner_path, fake_git, tmp_path):
    # standard input inherited, no extra descriptors, SIGPIPE/SIGXFSZ at default
    fake_git("readlink /proc/self/fd/0; ls -C /proc/self/fd; exec grep -E '^Sig(Ign|Blk)' /proc/self/status")
    extra = os.open(os.devnull, os.O_RDONLY)
    os.set_inheritable(extra, True)
    try:
        ours = gu.run_git_command(tmp_path, ["x"])
        reference = subprocess.run(["git"], capture_output=True, text=True)
    finally:
        os.close(extra)
    assert ours == (reference.stdout, "", 0)
    assert str(extra) not in ours[0].splitlines()[1].split()


def test_helper_options_reach_subprocess_run(gu, fake_git, tmp_path, monkeypatch):
    fake_git("exit 0")
    monkeypatch.setattr(gu, "get_subprocess_hidden_kwargs", lambda: {"cwd": "/"})
    with pytest.raises(TypeError, match="got multiple values for keyword argument 'cwd'"):
        gu.run_git_command(tmp_path, ["x"])
    monkeypatch.setattr(gu, "get_subprocess_hidden_kwargs", lambda: open(tmp_path / "missing"))
    with pytest.raises(FileNotFoundError, match="missing"):
        gu.run_git_command(tmp_path, ["x"])


def test_audit_event(gu, runner_path, fake_git, tmp_path):
    fake_git("exit 0")
    seen = []  # a hook can't be removed: it records only while the list is the first one
    sys.addaudithook(lambda event, args: event == "subprocess.Popen" and seen[:1] != [None] and seen.append(args))
    gu.run_git_command(tmp_path, ["rev-parse", "HEAD"])
    assert seen == [("git", ["git", "rev-parse", "HEAD"], str(tmp_path), None)]
    seen.insert(0, None)


def test_large_output_on_both_streams(gu, runner_path, fake_git, tmp_path):
    fake_git("head -c 3000000 /dev/zero | tr '\\0' e >&2; head -c 5000000 /dev/zero | tr '\\0' o")
    out, err, code = gu.run_git_command(tmp_path, ["x"])
    assert (len(out), len(err), code) == (5_000_000, 3_000_000, 0)
