"""A host process: `python host_child.py CASE WORLD OUT` sets this process up as CASE says, runs git through the
native path, the subprocess.run path and, restricted, benchmarks/plain_git_utils.py, and writes what they gave to
OUT as JSON, or {"skip": reason}. WORLD holds `repo`, `missing` and `empty-bin`; PATH starts with conftest's git."""
import contextlib
import ctypes
import errno
import importlib
import importlib.util
import json
import logging
import os
import resource
import signal
import sys
import threading
import time
from pathlib import Path

case, world, out = sys.argv[1], Path(sys.argv[2]), sys.argv[3]
kind, _, detail = case.partition(":")
repo, missing, nowhere = world / "repo", world / "missing", world / "empty-bin"
PLAIN = Path(__file__).resolve().parent.parent / "benchmarks" / "plain_git_utils.py"
INHERITED = 9  # the stand-in's `descriptor` says whether git has it open


def write(result):
    with open(out, "w") as f:
        json.dump(result, f, default=str)


def give_up(reason):
    write({"skip": reason})
    sys.exit(0)


# What the module and the plain module import, imported and their finders' directory listings cached before
# any restriction, so that a refused getdents64 or a full table restricts the calls, not the import system.
import dataclasses, datetime, re, subprocess, typing  # noqa: E401,E402,F401
from morvane_tessary.utils import process  # noqa: E402,F401

if importlib.util.find_spec("morvane_tessary.utils.git_utils") is None:
    give_up("the module is not installed")
sys.path.insert(0, str(PLAIN.parent))
importlib.util.find_spec("plain_git_utils")


def seccomp_refuse(names, err):
    """Every system call in `names` (NAME? only where the architecture has it) fails with `err` from now on,
    in this process and what it starts."""
    try:
        lib = ctypes.CDLL("libseccomp.so.2", use_errno=True)
    except OSError as e:
        give_up(f"no libseccomp.so.2: {e}")
    lib.seccomp_init.restype = ctypes.c_void_p
    lib.seccomp_init.argtypes = [ctypes.c_uint32]
    lib.seccomp_syscall_resolve_name.argtypes = [ctypes.c_char_p]
    lib.seccomp_rule_add.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_int, ctypes.c_uint]
    lib.seccomp_load.argtypes = lib.seccomp_release.argtypes = [ctypes.c_void_p]
    ctx = lib.seccomp_init(0x7FFF0000) or give_up("seccomp_init failed")  # SCMP_ACT_ALLOW
    try:
        for name in names:
            number = lib.seccomp_syscall_resolve_name(name.rstrip("?").encode())
            if number < 0 and not name.endswith("?"):
                give_up(f"libseccomp does not know {name} on this architecture")
            rc = lib.seccomp_rule_add(ctx, 0x00050000 | err, number, 0) if number >= 0 else 0  # SCMP_ACT_ERRNO
            if rc < 0:
                give_up(f"seccomp_rule_add({name}) failed: {os.strerror(-rc)}")
        rc = lib.seccomp_load(ctx)
        if rc < 0:
            give_up(f"seccomp_load failed: {os.strerror(-rc)}")
    finally:
        lib.seccomp_release(ctx)


def without_proc():  # a mount namespace of this process's own, with /proc detached from it (root only)
    libc = ctypes.CDLL(None, use_errno=True)
    libc.mount.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_ulong, ctypes.c_void_p]
    libc.umount2.argtypes = [ctypes.c_char_p, ctypes.c_int]
    steps = [("unshare(CLONE_NEWNS)", lambda: libc.unshare(0x00020000)),
             ("making mounts private", lambda: libc.mount(b"none", b"/", None, 0x4000 | 0x40000, None)),
             ("umount2(/proc, MNT_DETACH)", lambda: libc.umount2(b"/proc", 2))]
    for what, step in steps:
        if step() != 0:
            give_up(f"{what} refused: {os.strerror(ctypes.get_errno())}")
    if os.path.exists("/proc/self"):
        give_up("/proc is still there after umount2")


@contextlib.contextmanager
def free_descriptors(k):  # while inside: exactly k descriptors left below RLIMIT_NOFILE, the highest numbers
    held = []
    with contextlib.suppress(OSError):
        while True:
            held.append(os.open(os.devnull, os.O_RDONLY))
    for _ in range(min(k, len(held))):
        os.close(held.pop())
    try:
        yield
    finally:
        for fd in held:
            os.close(fd)


# ---- restrictions, set before the module is loaded ---------------------------------------------------------
around_each_call = contextlib.nullcontext
if kind == "seccomp":  # seccomp:NAME,NAME...:ERRNO
    names, _, err = detail.partition(":")
    seccomp_refuse(names.split(","), getattr(errno, err))
elif kind == "no-proc":  # no /proc, and close_range refused with ENOSYS
    if os.geteuid() != 0:
        give_up("unmounting /proc needs root")
    without_proc()
    seccomp_refuse(["close_range"], errno.ENOSYS)
elif kind == "fds":  # fds:K; the table is filled around each call: the import and OUT need descriptors
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (64 if hard == resource.RLIM_INFINITY else min(64, hard), hard))
    around_each_call = lambda: free_descriptors(int(detail))  # noqa: E731

from morvane_tessary.utils import git_utils as gu  # noqa: E402

import plain_git_utils as plain  # noqa: E402

if kind == "reload":  # the host's stubs, then importlib.reload, as suites undo stubs
    for module in (gu, plain):
        module.run_git_command = module.get_head_commit = lambda *a, **k: "stub"
        module.subprocess = module.Path = None
        del module.get_default_branch, module.logger
        importlib.reload(module)

records = []
logging.getLogger().addHandler(type("Keep", (logging.Handler,), {"emit": lambda self, r: records.append(
    [r.levelname, r.funcName, r.getMessage()])})())
logging.getLogger().setLevel(logging.DEBUG)
native_options = gu.get_subprocess_hidden_kwargs
PATHS = {"native": (gu, native_options), "python": (gu, lambda: {"close_fds": True}),
         "plain": (plain, plain.get_subprocess_hidden_kwargs)}


def outcome(call, path):
    module, options = PATHS[path]
    module.get_subprocess_hidden_kwargs = options
    del records[:]
    try:
        with around_each_call():
            value = call(module)
    except Exception as e:
        value = {"raised": type(e).__name__, "text": str(e),
                 **{a: getattr(e, a) for a in ("errno", "strerror", "filename", "filename2") if hasattr(e, a)}}
    finally:
        gu.get_subprocess_hidden_kwargs = native_options
    return {"value": value, "log": list(records)}


def both(args):  # run_git_command's native answer, then that of the subprocess.run path
    return [outcome(lambda m: m.run_git_command(repo, args), path)["value"] for path in ("native", "python")]


def without_git(module):
    saved, os.environ["PATH"] = os.environ["PATH"], str(nowhere)
    try:
        return module.run_git_command(repo, ["echo", "x"])
    finally:
        os.environ["PATH"] = saved


# ---- hosts as real hosts run -------------------------------------------------------------------------------
if kind == "closed":  # closed:012 or closed:012:reopened
    numbers = [int(c) for c in detail.split(":")[0]]
    for fd in numbers:
        os.close(fd)
    for _ in numbers * detail.endswith("reopened"):
        os.open(os.devnull, os.O_RDWR)
    write(both(["echo", "hello"]) + both(["fail"]))
elif kind == "signals":  # git inherits an ignored and a blocked signal of the host, and what its start left
    signal.signal(signal.SIGHUP, signal.SIG_IGN)
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGUSR2})
    with open("/proc/self/status") as f:
        write(both(["status"]) + [line for line in f if line.startswith("SigIgn")])
elif kind == "sigchld-ignored":
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    write(both(["echo", "x"]) + both(["fail"]))
elif kind == "profiler":  # a sampling profiler's timer interrupts every system call many times
    signal.signal(signal.SIGPROF, lambda *_: None)
    signal.setitimer(signal.ITIMER_PROF, 0.0005, 0.0005)
    answers = both(["late", "0.3"])
    signal.setitimer(signal.ITIMER_PROF, 0)
    write(answers)
elif kind in ("daemon-exit", "fork-mid-call"):  # exit, or fork, while another thread waits for git
    path, _, finalization = detail.partition("-")
    if path == "python":
        gu.get_subprocess_hidden_kwargs = PATHS["python"][1]
    if finalization == "held":
        # Finalization outlasts the native wait's next look at signals (every 50 ms): the waiting thread asks
        # for the lock while the interpreter finalizes, and is ended there (before 3.14) or parked, every time.

        class HeldTeardown:
            def __del__(self, sleep=time.sleep):
                sleep(0.5)

        # Deleted as the finalizing interpreter empties sys.modules (this module's namespace outlives it: the
        # waiting thread's frame holds it).
        sys.modules["held teardown"] = HeldTeardown()
    answers = {}
    # python-held: subprocess.run's git ends while the interpreter finalizes, and the thread asks for the lock
    args = ["slow", "30"] if kind == "daemon-exit" and detail != "python-held" else ["late", "0.5"]
    waiting = threading.Thread(target=lambda: answers.setdefault("thread", gu.run_git_command(repo, args)),
                               daemon=True)
    waiting.start()
    while not os.path.exists(os.environ["PIDS"]):
        time.sleep(0.01)
    if kind == "daemon-exit":
        time.sleep(0.2)
        print("host output", end="")  # left in the buffer: exit must still flush it
        sys.exit(0)
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

# ---- restricted hosts: every call on every path ------------------------------------------------------------
elif kind in ("free", "reload", "seccomp", "no-proc", "fds"):
    CALLS = {
        "run_git_command": lambda m: m.run_git_command(repo, ["echo", "hello"]),
        "run_git_command-fails": lambda m: m.run_git_command(repo, ["fail"]),
        "run_git_command-times-out": lambda m: m.run_git_command(repo, ["slow", "30"], timeout=0.05),
        "_git_output": lambda m: m._git_output(repo, ["rev-list", "--count", "HEAD"]),
        "_git_output-fails": lambda m: m._git_output(repo, ["fail"]),
        "get_head_commit": lambda m: m.get_head_commit(repo),
        "branch_exists": lambda m: [m.branch_exists(repo, "main"), m.branch_exists(repo, "nope")],
        "get_default_branch": lambda m: m.get_default_branch(repo),
        "missing-directory": lambda m: m.run_git_command(missing, ["echo", "x"]),
        "missing-git": without_git,
    }
    # A descriptor the host left inheritable: the subprocess.run path closes it in git (close_fds) unless the
    # restriction keeps the interpreter from listing its descriptors; the native path closes it always.
    null = os.open(os.devnull, os.O_RDONLY)
    os.dup2(null, INHERITED, inheritable=True)
    os.close(null)
    result = {"answers": {name: {path: outcome(call, path) for path in PATHS} for name, call in CALLS.items()},
              "native git's descriptor": outcome(lambda m: m.run_git_command(repo, ["descriptor"]), "native")["value"]}
    if kind in ("free", "reload"):  # which way git started: natively it leads a session of its own
        result["session"] = {path: outcome(lambda m: m.run_git_command(repo, ["session"]), path)["value"]
                             for path in ("native", "python")}
    write(result)
else:
    raise SystemExit(f"unknown case {case}")
