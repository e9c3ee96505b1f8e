"""A restricted host: `python restricted_host_child.py CASE WORLD OUT` restricts this process as CASE says
(a seccomp filter, no /proc, a full descriptor table) before the module is imported, then makes each
call of CALLS three ways: through the module's native path, through its subprocess.run path (taken whenever
get_subprocess_hidden_kwargs gives a non-empty mapping) and through benchmarks/plain_git_utils.py, the module
written in plain Python; it writes every outcome and log line to OUT as JSON, or {"skip": reason} when CASE
can't be set up here. WORLD holds `repo` (a small real repository) and `missing` (no such directory); the
`git` on PATH is the stand-in of test_restricted_hosts.py."""
import contextlib
import ctypes
import errno
import importlib
import importlib.util
import json
import logging
import os
import resource
import sys
from pathlib import Path

case, world, out = sys.argv[1], Path(sys.argv[2]), sys.argv[3]
repo, missing, nowhere = world / "repo", world / "missing", world / "empty-bin"
PLAIN = Path(__file__).resolve().parent.parent / "benchmarks" / "plain_git_utils.py"
TIMEOUT = 0.05  # the time-out call: the stand-in sleeps far longer
INHERITED = 9  # the stand-in's `descriptor` says whether git has it open


def give_up(reason):
    with open(out, "w") as f:
        json.dump({"skip": reason}, f)
    sys.exit(0)


# What the module and the plain module import, imported and their finders' directory listings cached before
# any restriction, so that a refused getdents64 or a full table restricts the calls, not the import system.
# The module itself is only found here; it is loaded under the restriction.
import dataclasses, datetime, re, subprocess, typing  # noqa: E401,F401
from morvane_tessary.utils import process  # noqa: F401

if importlib.util.find_spec("morvane_tessary.utils.git_utils") is None:
    give_up("the module is not installed")
sys.path.insert(0, str(PLAIN.parent))
importlib.util.find_spec("plain_git_utils")


# ---- restrictions ------------------------------------------------------------------------------------------
SCMP_ACT_ALLOW = 0x7FFF0000


def seccomp_refuse(names, err):
    """Every system call in `names` fails with `err` from now on, in this process and what it starts."""
    try:
        lib = ctypes.CDLL("libseccomp.so.2", use_errno=True)
    except OSError as e:
        give_up(f"no libseccomp.so.2: {e}")
    lib.seccomp_init.restype = ctypes.c_void_p
    lib.seccomp_init.argtypes = [ctypes.c_uint32]
    lib.seccomp_syscall_resolve_name.argtypes = [ctypes.c_char_p]
    lib.seccomp_rule_add.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_int, ctypes.c_uint]
    lib.seccomp_load.argtypes = [ctypes.c_void_p]
    lib.seccomp_release.argtypes = [ctypes.c_void_p]
    ctx = lib.seccomp_init(SCMP_ACT_ALLOW)
    if not ctx:
        give_up("seccomp_init failed")
    try:
        for name in names:  # NAME? only where the architecture has it
            number = lib.seccomp_syscall_resolve_name(name.rstrip("?").encode())
            if number < 0 and name.endswith("?"):
                continue
            if number < 0:
                give_up(f"libseccomp does not know {name} on this architecture")
            rc = lib.seccomp_rule_add(ctx, 0x00050000 | err, number, 0)  # SCMP_ACT_ERRNO(err)
            if rc < 0:
                give_up(f"seccomp_rule_add({name}) failed: {os.strerror(-rc)}")
        rc = lib.seccomp_load(ctx)
        if rc < 0:
            give_up(f"seccomp_load failed: {os.strerror(-rc)}")
    finally:
        lib.seccomp_release(ctx)


def without_proc():
    """A mount namespace of this process's own, with /proc detached from it (root only)."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc.mount.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_ulong, ctypes.c_void_p]
    libc.umount2.argtypes = [ctypes.c_char_p, ctypes.c_int]
    steps = [("unshare(CLONE_NEWNS)", lambda: libc.unshare(0x00020000)),
             ("making mounts private", lambda: libc.mount(b"none", b"/", None, 0x4000 | 0x40000, None)),  # MS_REC|MS_PRIVATE
             ("umount2(/proc, MNT_DETACH)", lambda: libc.umount2(b"/proc", 2))]
    for what, step in steps:
        if step() != 0:
            give_up(f"{what} refused: {os.strerror(ctypes.get_errno())}")
    if os.path.exists("/proc/self"):
        give_up("/proc is still there after umount2")


@contextlib.contextmanager
def free_descriptors(k):
    """While inside: exactly k descriptors left below RLIMIT_NOFILE, the highest numbers."""
    held = []
    try:
        while True:
            held.append(os.open(os.devnull, os.O_RDONLY))
    except OSError as e:
        if e.errno != errno.EMFILE:
            raise
    for _ in range(min(k, len(held))):
        os.close(held.pop())
    try:
        yield
    finally:
        for fd in held:
            os.close(fd)


around_each_call = contextlib.nullcontext
kind, _, detail = case.partition(":")
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
elif kind not in ("free", "reload"):  # reload: the host's stubs, then importlib.reload, as suites undo stubs
    raise SystemExit(f"unknown case {case}")

# ---- the module, under the restriction ----------------------------------------------------------------------
from morvane_tessary.utils import git_utils as gu  # noqa: E402

import plain_git_utils as plain  # noqa: E402

if kind == "reload":
    for module in (gu, plain):
        module.run_git_command = module.get_head_commit = lambda *a, **k: "stub"
        module.subprocess = module.Path = None
        del module.get_default_branch, module.logger
        importlib.reload(module)

extra = {}
records = []


class Keep(logging.Handler):
    def emit(self, record):
        records.append([record.levelname, record.funcName, record.getMessage()])


logging.getLogger().addHandler(Keep())
logging.getLogger().setLevel(logging.DEBUG)


def without_git(module):  # run_git_command with no git on PATH
    saved = os.environ["PATH"]
    os.environ["PATH"] = str(nowhere)
    try:
        return module.run_git_command(repo, ["echo", "x"])
    finally:
        os.environ["PATH"] = saved


CALLS = {
    "run_git_command": lambda m: m.run_git_command(repo, ["echo", "hello"]),
    "run_git_command-fails": lambda m: m.run_git_command(repo, ["fail"]),
    "run_git_command-times-out": lambda m: m.run_git_command(repo, ["slow", "30"], timeout=TIMEOUT),
    "_git_output": lambda m: m._git_output(repo, ["rev-list", "--count", "HEAD"]),
    "_git_output-fails": lambda m: m._git_output(repo, ["fail"]),
    "get_head_commit": lambda m: m.get_head_commit(repo),
    "branch_exists": lambda m: [m.branch_exists(repo, "main"), m.branch_exists(repo, "nope")],
    "get_default_branch": lambda m: m.get_default_branch(repo),
    "missing-directory": lambda m: m.run_git_command(missing, ["echo", "x"]),
    "missing-git": without_git,
}
native_options = gu.get_subprocess_hidden_kwargs
PATHS = {  # path name -> (module, its get_subprocess_hidden_kwargs)
    "native": (gu, native_options),
    "python": (gu, lambda: {"close_fds": True}),
    "plain": (plain, plain.get_subprocess_hidden_kwargs),
}


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


# A descriptor the host left inheritable: the subprocess.run path closes it in git (close_fds) unless the
# restriction keeps the interpreter from listing its descriptors; the native path closes it always.
null = os.open(os.devnull, os.O_RDONLY)
os.dup2(null, INHERITED, inheritable=True)
os.close(null)
answers = {name: {path: outcome(call, path) for path in PATHS} for name, call in CALLS.items()}
extra["native git's descriptor"] = outcome(lambda m: m.run_git_command(repo, ["descriptor"]), "native")["value"]
if kind in ("free", "reload"):  # which way git started: natively it leads a session of its own
    extra["session"] = {path: outcome(lambda m: m.run_git_command(repo, ["session"]), path)["value"]
                        for path in ("native", "python")}
with open(out, "w") as f:
    json.dump({"answers": answers, **extra}, f, default=str)
