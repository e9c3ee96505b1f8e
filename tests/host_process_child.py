"""A host process as real hosts run: `python host_process_child.py CASE REPO OUT` sets the process up as CASE
says, runs git through the module natively and through subprocess.run (what a Python module does), and writes
both answers to OUT as JSON. The `git` on PATH is the stand-in of test_host_process.py."""
import json
import os
import signal
import sys
import threading
import time

from morvane_tessary.utils import git_utils as gu

case, repo, out = sys.argv[1], sys.argv[2], sys.argv[3]
original_options = gu.get_subprocess_hidden_kwargs


def both(args):
    """The native answer, then that of the subprocess.run path (taken whenever the host gives spawn options)."""
    answers = []
    for options in (original_options, lambda: {"close_fds": True}):
        gu.get_subprocess_hidden_kwargs = options
        try:
            answers.append(list(gu.run_git_command(repo, args)))
        except OSError as e:
            answers.append(repr(e))
    gu.get_subprocess_hidden_kwargs = original_options
    return answers


def write(result):
    with open(out, "w") as f:
        json.dump(result, f)


if case.startswith("closed"):  # closed-012 or closed-012-reopened
    numbers = [int(c) for c in case.split("-")[1]]
    for fd in numbers:
        os.close(fd)
    if case.endswith("reopened"):
        for _ in numbers:
            os.open(os.devnull, os.O_RDWR)
    write(both(["echo", "hello"]) + both(["fail"]))
elif case == "signals":
    # What git inherits: an ignored and a blocked signal of the host, and whatever its own start left it.
    signal.signal(signal.SIGHUP, signal.SIG_IGN)
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGUSR2})
    with open("/proc/self/status") as f:
        own = [line for line in f if line.startswith("SigIgn")]
    write(both(["status"]) + own)
elif case == "sigchld-ignored":
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    write(both(["echo", "x"]) + both(["fail"]))
elif case == "profiler":  # a sampling profiler's timer interrupts every system call many times
    ticks = []
    signal.signal(signal.SIGPROF, lambda *_: ticks.append(1))
    signal.setitimer(signal.ITIMER_PROF, 0.0005, 0.0005)
    answers = both(["slow", "0.3"])
    signal.setitimer(signal.ITIMER_PROF, 0)
    write(answers)
elif case.startswith("daemon-exit"):  # the interpreter exits while a daemon thread waits for git
    if case.endswith("python"):
        gu.get_subprocess_hidden_kwargs = lambda: {"close_fds": True}
    threading.Thread(target=gu.run_git_command, args=(repo, ["slow", "30"]), daemon=True).start()
    while not os.path.exists(os.environ["PIDS"]):
        time.sleep(0.01)
    time.sleep(0.2)
    print("host output", end="")  # left in the buffer: exit must still flush it
elif case == "fork-mid-call":  # the host forks while another thread waits for git
    answers = {}
    waiting = threading.Thread(target=lambda: answers.setdefault("thread", gu.run_git_command(repo, ["slow", "0.5"])))
    waiting.start()
    while not os.path.exists(os.environ["PIDS"]):
        time.sleep(0.01)
    import warnings

    warnings.simplefilter("ignore", DeprecationWarning)  # fork with threads, as the host chose
    pid = os.fork()
    if pid == 0:  # the fork runs git and exits through the interpreter's own exit
        with open(out + ".fork", "w") as f:
            json.dump(list(gu.run_git_command(repo, ["echo", "fork"])), f)
        sys.exit(0)
    forked_status = os.waitpid(pid, 0)[1]
    waiting.join()
    with open(out + ".fork") as f:
        write({"thread": list(answers["thread"]), "fork": json.load(f), "status": forked_status})
