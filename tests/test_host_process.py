"""The module in the processes real hosts run as: closed standard descriptors, signals the host ignores, blocks
or inherited from its own start, SIGCHLD ignored, a profiler's timer, exit with a daemon thread waiting for git,
fork in the middle of a call. Each case runs in a fresh interpreter (host_child.py), which answers through the
native spawner and through subprocess.run; the two must agree, and no native git may be left running."""
import itertools
import os
import signal

import pytest
from proof_support import dead

CLOSED = ["".join(c) for n in (1, 2, 3) for c in itertools.combinations("012", n)]


@pytest.mark.parametrize("reopened", [False, True], ids=["closed", "reopened"])
@pytest.mark.parametrize("closed", CLOSED)
def test_closed_standard_descriptors(host_child, closed, reopened):
    status, _, stderr, (native, python, native_fail, python_fail), _ = host_child(
        f"closed:{closed}" + ":reopened" * reopened)
    assert (status, stderr) == (0, "")
    assert native == python == ["ok echo hello\n", "warn\n", 0]
    assert native_fail == python_fail == ["", "failed\n", 3]


@pytest.mark.parametrize("start", ["fork", "posix_spawn"])
def test_signals_git_inherits(host_child, start):
    """Dispositions and mask as subprocess.run leaves them: the host's ignored and blocked signals stay so,
    glibc's internal signals stay ignored where the host's own start left them ignored."""
    status, _, stderr, (native, python, host_ignores), _ = host_child("signals", start)
    assert (status, stderr, native[2]) == (0, "", 0) and native == python
    blocked, ignored = (int(line.split()[1], 16) for line in native[0].splitlines())
    assert blocked & 1 << (signal.SIGUSR2 - 1) and ignored & 1 << (signal.SIGHUP - 1)
    assert not ignored & 1 << (signal.SIGPIPE - 1)
    internal = 3 << 31  # 32 and 33: ignored by some glibc versions' posix_spawn
    assert ignored & internal == int(host_ignores.split()[1], 16) & internal


@pytest.mark.parametrize("case", ["sigchld-ignored", "profiler"])
def test_signals_of_the_host(host_child, case):
    status, _, stderr, answers, started = host_child(case)
    assert (status, stderr) == (0, "")
    assert answers[0] == answers[1] and answers[0][0] in ("ok echo x\n", "late\n")
    if case == "sigchld-ignored":  # the exit status is lost without SIGCHLD, for both
        assert answers[2] == answers[3]
    assert all(dead(pid) for pid in started)


# -held: the interpreter's finalization lasts until the waiting thread has asked for the lock
@pytest.mark.parametrize("path", ["native", "python", "native-held", "python-held"])
def test_exit_with_a_daemon_thread_waiting_for_git(host_child, path):
    status, stdout, stderr, _, started = host_child(f"daemon-exit:{path}")
    try:
        assert (status, stdout, stderr) == (0, "host output", "")
        assert path.startswith("python") or [pid for pid in started if not dead(pid)] == []
    finally:
        for pid in started:
            try:
                os.kill(pid, signal.SIGKILL) if path.startswith("python") else os.killpg(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass


def test_fork_in_the_middle_of_a_call(host_child):
    status, _, stderr, answers, started = host_child("fork-mid-call")
    assert (status, stderr) == (0, "")
    assert answers == {"thread": ["late\n", "", 0], "fork": ["ok echo fork\n", "warn\n", 0], "status": 0}
    assert all(dead(pid) for pid in started)
