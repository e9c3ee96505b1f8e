"""Gits that flood, meet the descriptor limit or lose their directory, and Ctrl-C: each run ends with its
documented result or exception, in bounded time, and leaves no process, zombie, descriptor or memory behind.
(Gits that hang or die are rows of the runner's table in test_runner.py.)"""
import ctypes
import gc
import os
import random
import resource
import signal
import subprocess
import threading
import time

import pytest
from proof_support import MB, assert_nothing_left, dead, process_state, snapshot

from morvane_tessary.utils import git_utils as gu

pytestmark = pytest.mark.slow

FLOOD = 200_000_000


def release_free_heap():  # freed chunks of subprocess.run's reads still count as resident until trimmed
    getattr(ctypes.CDLL(None), "malloc_trim", lambda _: 0)(0)


def test_git_that_floods_standard_error(runner_path, fake_git, tmp_path):
    fake_git(f"head -c {FLOOD} /dev/zero >&2; echo done")
    before = snapshot()
    out, err, code = gu.run_git_command(tmp_path, ["x"])
    assert (out, len(err), err.count("\0"), code) == ("done\n", FLOOD, FLOOD, 0)
    del err
    release_free_heap()
    assert_nothing_left(before, rss_slack=16 * MB)


@pytest.mark.parametrize("free", range(4))
def test_descriptor_limit(tmp_path, free):  # native only: subprocess.run keeps some pipes open on EMFILE
    before = snapshot()
    lowest_free = os.open(os.devnull, os.O_RDONLY)  # the lowest descriptor not in use
    os.close(lowest_free)
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (lowest_free + free, hard))
    try:
        with pytest.raises(OSError) as info:
            gu.run_git_command(tmp_path, ["--version"])
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    assert info.value.errno == 24  # EMFILE
    assert_nothing_left(before)


def test_directory_removed_at_random_moments(runner_path, tmp_path):  # before, while or after git starts there
    repo = tmp_path / "repo"
    subprocess.run(["git", "init", "-q", str(repo)], check=True)
    rng = random.Random(7)
    before = snapshot()
    kinds = set()
    for i in range(60):
        (repo / f"d{i}").mkdir()
        remover = threading.Timer(rng.uniform(0, 0.003), os.rmdir, (repo / f"d{i}",))
        remover.start()
        out, err, code = gu.run_git_command(repo / f"d{i}", ["rev-parse", "--show-prefix"])
        remover.join()
        assert (out, err, code) in {(f"d{i}/\n", "", 0), ("", "git not found", 1)} or (
            out == "" and err.startswith("fatal: ") and code == 128), (out, err, code)
        kinds.add(code)
    assert len(kinds) > 1, "the directory always went at the same moment"
    assert_nothing_left(before)


@pytest.mark.parametrize(
    "script, call",
    [
        ("exec sleep 30", lambda root: gu.run_git_command(root, ["log"])),
        ("exec sleep 30", lambda root: gu._git_output(root, ["log"])),
        (f"head -c {FLOOD} /dev/zero; exec sleep 30", lambda root: gu.run_git_command(root, ["log"], 2)),
    ],
    ids=["lenient", "strict", "streaming"],
)
def test_ctrl_c_during_a_long_run(runner_path, fake_git, tmp_path, script, call):
    # Streaming: SIGINT kept off the waiting thread, so that it lands outside a blocking system call.
    streaming = "head" in script
    pids = tmp_path / "pids"
    fake_git(f"echo $$ > {pids}; {script}")
    before = snapshot()
    timer = threading.Timer(0.05 if streaming else 0.3, os.kill, (os.getpid(), signal.SIGINT))
    started = time.monotonic()
    timer.start()
    if streaming:
        signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT})
    try:
        with pytest.raises(KeyboardInterrupt):
            call(tmp_path)
    finally:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGINT})
        timer.join()
    assert time.monotonic() - started < 1.5
    if runner_path == "subprocess":
        # subprocess.run kills the child after a quarter second and may leave the zombie to the next start
        assert dead(int(pids.read_text()), within=1)
        gc.collect()
        fake_git("exit 0")
        gu.run_git_command(tmp_path, ["x"])
    release_free_heap()
    assert_nothing_left(before, rss_slack=16 * MB)
    assert process_state(int(pids.read_text())) == ""


def test_signal_handled_during_the_wait(runner_path, fake_git, tmp_path):  # and the wait goes on
    fake_git("sleep 0.6; echo done")
    handled = []
    previous = signal.signal(signal.SIGUSR1, lambda *_: handled.append(time.monotonic()))
    timer = threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGUSR1))
    before = snapshot()
    try:
        started = time.monotonic()
        timer.start()
        assert gu.run_git_command(tmp_path, ["x"]) == ("done\n", "", 0)
        ended = time.monotonic()
    finally:
        timer.join()
        signal.signal(signal.SIGUSR1, previous)
    assert len(handled) == 1 and started + 0.15 < handled[0] < ended - 0.2
    assert_nothing_left(before)


def test_time_outs_in_many_threads(runner_path, fake_git, tmp_path):  # side by side: the lock is free meanwhile
    fake_git("exec sleep 30")
    results = []
    before = snapshot()
    started = time.monotonic()
    threads = [threading.Thread(target=lambda: results.append(gu.run_git_command(tmp_path, ["x"], 1)))
               for _ in range(8)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout=10)
    assert results == [("", "Command timed out", 1)] * 8 and time.monotonic() - started < 3
    assert_nothing_left(before)
