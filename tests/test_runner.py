import logging
import os
import signal
import subprocess
import sys
import threading
import time

import pytest


def run(gu, root, args, timeout=30):
    return gu.run_git_command(root, args, timeout)


@pytest.mark.parametrize(
    "script, expected",
    [
        ("printf 'out\\n'; printf 'warn\\n' >&2", ("out\n", "warn\n", 0)),
        ("printf 'a\\r\\nb\\rc\\r\\r\\n'", ("a\nb\nc\n\n", "", 0)),
        ("printf 'caf\\303\\251 \\377\\376 x\\342\\202'", ("café \ufffd\ufffd x\ufffd", "", 0)),
        ("printf 'bad\\r\\n' >&2; exit 3", ("", "bad\n", 3)),
        ("kill -9 $$", ("", "", -9)),
    ],
    ids=["stderr-on-success", "line-ends", "invalid-utf8", "non-zero", "killed"],
)
def test_triples(gu, runner_path, fake_git, tmp_path, script, expected):
    fake_git(script)
    assert run(gu, tmp_path, ["x"]) == expected


def test_logs_failure_at_debug_only(gu, runner_path, fake_git, tmp_path, caplog):
    fake_git("echo fine >&2")
    with caplog.at_level(logging.DEBUG, logger=gu.__name__):
        run(gu, tmp_path, ["ok"])
        assert caplog.records == []
        fake_git("echo '  oops  ' >&2; exit 2")
        assert run(gu, tmp_path, ["bad", "x"]) == ("", "  oops  \n", 2)
    [record] = caplog.records
    assert record.levelno == logging.DEBUG
    assert record.getMessage() == "git command failed: args=['bad', 'x'] rc=2 stderr=oops"


@pytest.mark.parametrize(
    "script, message",
    [
        ("echo '  fatal: bad revision  ' >&2; exit 128", "fatal: bad revision"),
        ("echo '   ' >&2; exit 5", "git exited with code 5"),
        ("kill -15 $$", "git exited with code -15"),
    ],
)
def test_strict_runner_raises(gu, runner_path, fake_git, tmp_path, script, message):
    fake_git(script)
    with pytest.raises(gu.GitError) as info:
        gu._git_output(tmp_path, ["x"])
    assert str(info.value) == message and type(info.value) is gu.GitError


def test_strict_runner_keeps_stdout_whole(gu, runner_path, fake_git, tmp_path):
    fake_git("printf ' spaced \\n\\n'")
    assert gu._git_output(tmp_path, ["x"]) == " spaced \n\n"


def test_missing_git(gu, runner_path, tmp_path, monkeypatch, caplog):
    monkeypatch.setenv("PATH", str(tmp_path / "nowhere"))
    with caplog.at_level(logging.WARNING, logger=gu.__name__):
        assert run(gu, tmp_path, ["status"]) == ("", "git not found", 1)
    assert [r.getMessage() for r in caplog.records] == ["git executable not found while running args=['status']"]
    with pytest.raises(gu.GitError, match="^git not found$"):
        gu._git_output(tmp_path, ["status"])


def test_missing_working_directory_counts_as_not_found(gu, runner_path, fake_git, tmp_path):
    fake_git("exit 0")
    assert run(gu, tmp_path / "missing", ["x"]) == ("", "git not found", 1)


def test_time_out_kills_and_reports(gu, runner_path, fake_git, tmp_path, caplog):
    fake_git("echo partial; exec sleep 30")
    with caplog.at_level(logging.WARNING, logger=gu.__name__):
        assert run(gu, tmp_path, ["log"], timeout=0.3) == ("", "Command timed out", 1)
    assert [r.getMessage() for r in caplog.records] == ["git command timed out after 0.3s: args=['log']"]


def test_time_out_covers_a_grandchild_holding_the_pipes(gu, runner_path, fake_git, tmp_path):
    fake_git("sleep 5 & exit 0")
    assert run(gu, tmp_path, ["x"], timeout=0.3) == ("", "Command timed out", 1)


@pytest.mark.parametrize(
    "script, timeout, expected",
    [
        ("exec >&- 2>&-; sleep 0.1; exit 7", 5, ("", "", 7)),
        ("exec >&- 2>&-; exec sleep 30", 0.3, ("", "Command timed out", 1)),
    ],
    ids=["exits-later", "runs-on"],
)
def test_git_that_outlives_its_pipes(gu, runner_path, fake_git, tmp_path, script, timeout, expected):
    fake_git(script)
    assert run(gu, tmp_path, ["x"], timeout=timeout) == expected


def _echo_git(directory, word):
    directory.mkdir(exist_ok=True)
    (directory / "git").write_text(f"#!/bin/sh\necho {word}\n")
    (directory / "git").chmod(0o755)


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
        _echo_git(tmp_path / name, word)
    path = path_of(tmp_path)
    monkeypatch.setenv("PATH", str(tmp_path / "one"))
    if isinstance(path, dict):
        monkeypatch.setattr(os, "environ", path)
    elif path is None:
        monkeypatch.delenv("PATH")
    else:
        monkeypatch.setenv("PATH", path)
    ours = run(gu, repo, ["--version"])
    reference = subprocess.run(["git", "--version"], cwd=str(repo), capture_output=True, text=True)
    assert ours == (reference.stdout, reference.stderr, 0)
    assert expected is None or ours[0] == expected


@pytest.mark.parametrize(
    "make_args, error, text",
    [
        (lambda: ("a", "b"), TypeError, 'can only concatenate list (not "tuple") to list'),
        (lambda: ["a\0b"], ValueError, "embedded null byte"),
        (lambda: [b"rev-parse", 3], TypeError, None),
    ],
)
def test_bad_arguments_raise_the_interpreters_errors(gu, runner_path, fake_git, tmp_path, make_args, error, text):
    fake_git("exit 0")
    with pytest.raises(error) as info:
        run(gu, tmp_path, make_args())
    expected = pytest.raises(error)
    with expected as reference:
        subprocess.run(["git"] + make_args(), cwd=str(tmp_path), capture_output=True)
    assert str(info.value) == (text if text is not None else str(reference.value))


def test_working_directory_that_is_a_file(gu, runner_path, fake_git, tmp_path):
    fake_git("exit 0")
    a_file = tmp_path / "file"
    a_file.write_text("")
    with pytest.raises(NotADirectoryError) as info:
        run(gu, a_file, ["x"])
    assert info.value.filename == str(a_file)


def test_git_that_cannot_be_executed(gu, runner_path, fake_git, tmp_path, monkeypatch):
    script = fake_git("exit 0")
    script.chmod(0o644)
    monkeypatch.setenv("PATH", str(script.parent))
    with pytest.raises(PermissionError) as info:
        run(gu, tmp_path, ["x"])
    assert info.value.filename == "git"


def test_child_environment_matches_the_interpreters_spawner(gu, runner_path, fake_git, tmp_path):
    """Standard input inherited, no extra descriptors, SIGPIPE/SIGXFSZ at default."""
    fake_git(
        """
        readlink /proc/self/fd/0
        ls -C /proc/self/fd
        exec grep -E '^Sig(Ign|Blk)' /proc/self/status
        """
    )
    extra = os.open(os.devnull, os.O_RDONLY)
    os.set_inheritable(extra, True)
    try:
        ours = run(gu, tmp_path, ["x"])
        reference = subprocess.run(["git"], capture_output=True, text=True)
    finally:
        os.close(extra)
    assert ours == (reference.stdout, "", 0)
    assert str(extra) not in ours[0].splitlines()[1].split()


def test_helper_options_reach_subprocess_run(gu, fake_git, tmp_path, monkeypatch):
    fake_git("exit 0")
    monkeypatch.setattr(gu, "get_subprocess_hidden_kwargs", lambda: {"cwd": "/"})
    with pytest.raises(TypeError, match="got multiple values for keyword argument 'cwd'"):
        run(gu, tmp_path, ["x"])

    def broken():
        raise FileNotFoundError("from the helper")

    monkeypatch.setattr(gu, "get_subprocess_hidden_kwargs", broken)
    with pytest.raises(FileNotFoundError, match="from the helper"):
        run(gu, tmp_path, ["x"])


def test_audit_event(gu, runner_path, fake_git, tmp_path):
    fake_git("exit 0")
    seen = []
    active = True

    def hook(event, args):
        if active and event == "subprocess.Popen":
            seen.append(args)

    sys.addaudithook(hook)
    try:
        run(gu, tmp_path, ["rev-parse", "HEAD"])
    finally:
        active = False
    assert seen == [("git", ["git", "rev-parse", "HEAD"], str(tmp_path), None)]


def test_large_output_on_both_streams(gu, runner_path, fake_git, tmp_path):
    fake_git("head -c 3000000 /dev/zero | tr '\\0' e >&2; head -c 5000000 /dev/zero | tr '\\0' o")
    out, err, code = run(gu, tmp_path, ["x"])
    assert (len(out), len(err), code) == (5_000_000, 3_000_000, 0)


def test_interpreter_lock_is_free_while_git_runs(gu, fake_git, tmp_path):
    fake_git("sleep 0.5")
    ticks = 0
    done = threading.Event()

    def spin():
        nonlocal ticks
        while not done.is_set():
            ticks += 1
            time.sleep(0.001)

    spinner = threading.Thread(target=spin)
    spinner.start()
    try:
        run(gu, tmp_path, ["x"])
    finally:
        done.set()
        spinner.join()
    assert ticks > 50


def test_ctrl_c_kills_and_reaps_git(gu, fake_git, tmp_path):
    fake_git("exec sleep 30")
    timer = threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT))
    timer.start()
    with pytest.raises(KeyboardInterrupt):
        run(gu, tmp_path, ["x"])
    timer.join()
    with pytest.raises(ChildProcessError):
        os.waitpid(-1, os.WNOHANG)
