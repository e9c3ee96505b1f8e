"""The module in the processes real hosts run as: closed standard descriptors, signals the host ignores,
blocks or inherited from its own start, SIGCHLD ignored, a profiler's timer, exit with a daemon thread waiting
for git, fork in the middle of a call. Each case runs in a fresh interpreter (tests/host_process_child.py),
which answers through the native spawner and through subprocess.run; the two must agree, and nothing a native
git started may be left running."""
import itertools
import json
import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest
from proof_support import dead

CHILD = Path(__file__).with_name("host_process_child.py")
STAND_IN = """#!/bin/sh
echo $$ >> "$PIDS"
case "$1" in
  slow) sleep "$2"; echo slow ;;
  status) exec grep -E '^Sig(Blk|Ign)' /proc/self/status ;;
  fail) echo failed >&2; exit 3 ;;
  *) echo "ok $*"; echo warn >&2 ;;
esac
"""


@pytest.fixture
def host(tmp_path):
    """host(case, start="fork") runs the child interpreter for `case`, started by fork/exec or by
    posix_spawn; returns (its exit status, its stdout, what it wrote, the pids of the gits it ran)."""
    bindir = tmp_path / "bin"
    bindir.mkdir()
    (bindir / "git").write_text(STAND_IN)
    (bindir / "git").chmod(0o755)
    pids, out = tmp_path / "pids", tmp_path / "out.json"
    env = {**os.environ, "PATH": f"{bindir}{os.pathsep}{os.environ['PATH']}", "PIDS": str(pids)}
    argv = [sys.executable, str(CHILD), "", str(tmp_path), str(out)]

    def run(case, start="fork"):
        argv[2] = case
        if start == "posix_spawn":  # as a 3.13+ parent starts an interpreter: glibc's own signals ignored
            read, write = os.pipe()
            actions = [(os.POSIX_SPAWN_DUP2, write, 1), (os.POSIX_SPAWN_CLOSE, read)]
            pid = os.posix_spawn(sys.executable, argv, env, file_actions=actions)
            os.close(write)
            with os.fdopen(read) as f:
                stdout = f.read()
            status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
        else:
            done = subprocess.run(argv, env=env, capture_output=True, text=True, timeout=60, cwd=tmp_path)
            assert done.stderr == ""
            status, stdout = done.returncode, done.stdout
        written = json.loads(out.read_text()) if out.exists() else None
        started = [int(p) for p in pids.read_text().split()] if pids.exists() else []
        return status, stdout, written, started

    return run


CLOSED = ["".join(c) for n in (1, 2, 3) for c in itertools.combinations("012", n)]


@pytest.mark.parametrize("reopened", [False, True], ids=["closed", "reopened"])
@pytest.mark.parametrize("closed", CLOSED)
def test_closed_standard_descriptors(host, closed, reopened):
    status, _, (native, python, native_fail, python_fail), _ = host(f"closed-{closed}" + "-reopened" * reopened)
    assert status == 0
    assert native == python == ["ok echo hello\n", "warn\n", 0]
    assert native_fail == python_fail == ["", "failed\n", 3]


@pytest.mark.parametrize("start", ["fork", "posix_spawn"])
def test_signals_git_inherits(host, start):
    """Dispositions and mask as subprocess.run leaves them: the host's ignored and blocked signals stay so,
    glibc's internal signals stay ignored where the host's own start left them ignored."""
    status, _, (native, python, host_ignores), _ = host("signals", start)
    assert status == 0 and native[2] == 0
    assert native == python
    blocked, ignored = (int(line.split()[1], 16) for line in native[0].splitlines())
    assert blocked & 1 << (signal.SIGUSR2 - 1) and ignored & 1 << (signal.SIGHUP - 1)
    assert not ignored & 1 << (signal.SIGPIPE - 1)
    internal = 3 << 31  # 32 and 33: ignored by some glibc versions' posix_spawn
    assert ignored & internal == int(host_ignores.split()[1], 16) & internal


@pytest.mark.parametrize("case", ["sigchld-ignored", "profiler"])
def test_signals_of_the_host(host, case):
    status, _, answers, started = host(case)
    assert status == 0
    assert answers[0] == answers[1]
    assert answers[0][0] in ("ok echo x\n", "slow\n")
    if case == "sigchld-ignored":  # the exit status is lost without SIGCHLD, for both
        assert answers[2] == answers[3]
    assert all(dead(pid) for pid in started)


@pytest.mark.parametrize("path", ["native", "python"])
def test_exit_with_a_daemon_thread_waiting_for_git(host, path):
    status, stdout, _, started = host(f"daemon-exit-{path}")
    try:
        assert (status, stdout) == (0, "host output")
        if path == "native":
            assert [pid for pid in started if not dead(pid)] == []
    finally:
        for pid in started:
            try:
                os.killpg(pid, signal.SIGKILL) if path == "native" else os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass


def test_fork_in_the_middle_of_a_call(host):
    status, _, answers, started = host("fork-mid-call")
    assert status == 0
    assert answers == {"thread": ["slow\n", "", 0], "fork": ["ok echo fork\n", "warn\n", 0], "status": 0}
    assert all(dead(pid) for pid in started)
