"""The module in restricted hosts (host_child.py: a seccomp filter, no /proc and no close_range, a full
descriptor table, a reload after the host's stubs), each call made on the native path, the subprocess.run path
and the plain-Python module (benchmarks/plain_git_utils.py): the same answer and log lines, or the same exception,
errno, message and filename; git's real answer where Python's own spawn still works; no git left running, and
none of the host's descriptors beyond 0 to 2 in a native git. A case that can't be set up here is skipped."""
import errno
import json

import pytest
from proof_support import dead

NATIVE_SESSION = {"native": ["leader\n", "", 0], "python": ["member\n", "", 0]}  # natively, git leads a session
REAL = None  # Python's own spawn is untouched: every path must give the unrestricted case's answers


def refusing(names, err):  # a seccomp filter refusing the system calls with errno `err`
    return f"seccomp:{','.join(names)}:{err}"


SYSCALLS = ["clone3", "vfork", "clone", "setsid", "pidfd_open", "close_range", "getdents64", "pipe2"]
# (case, what Python's spawn does under it: REAL, or the errno every call raises), by test id
ROWS = {
    # Python's spawn falls back from vfork to fork and makes its pipes with pipe2 alone (no fallback to pipe).
    **{f"{name}-{err}": (refusing([name], err), getattr(errno, err) if name == "pipe2" else REAL)
       for name in SYSCALLS for err in ("ENOSYS", "EPERM")},
    # Refused forks: RLIMIT_NPROC does not bind root, so every way of starting a process is refused as it would
    # refuse them. fork and vfork only where the architecture has them.
    "forks-EAGAIN": (refusing(["clone", "clone3", "fork?", "vfork?"], "EAGAIN"), errno.EAGAIN),
    "no-proc-no-close_range": ("no-proc", REAL),
    "reload": ("reload", REAL),
    # Exactly k descriptors free: subprocess.run needs six (two pipes for the output, one for its errors).
    **{f"free-descriptors-{k}": (f"fds:{k}", errno.EMFILE if k < 6 else REAL) for k in range(7)},
}


def answers_of(host_child, case):
    status, _, stderr, written, started = host_child(case)
    assert (status, stderr) == (0, ""), stderr
    assert [pid for pid in started if not dead(pid)] == [], "gits left running"
    return written


@pytest.fixture(scope="module")
def control(host_child):
    return answers_of(host_child, "free")


def test_unrestricted(control):
    """The control: git's real answers, the same on every path."""
    assert control["native git's descriptor"] == ["closed\n", "", 0]
    assert control["session"] == NATIVE_SESSION
    for call, paths in control["answers"].items():
        assert paths["native"] == paths["python"] == paths["plain"], call
    answer = {call: paths["native"]["value"] for call, paths in control["answers"].items()}
    assert answer["run_git_command"] == ["ok echo hello\n", "warn\n", 0]
    assert answer["run_git_command-fails"] == ["", "failed\n", 3]
    assert answer["run_git_command-times-out"] == ["", "Command timed out", 1]
    assert answer["_git_output"] == "4\n"
    assert answer["_git_output-fails"] == {"raised": "GitError", "text": "failed"}
    assert len(answer["get_head_commit"]) >= 7
    assert answer["branch_exists"] == [True, False] and answer["get_default_branch"] == "main"
    assert answer["missing-directory"] == answer["missing-git"] == ["", "git not found", 1]


def show(outcome):
    return json.dumps(outcome, ensure_ascii=False)


@pytest.mark.parametrize("row", ROWS)
def test_restricted_host(host_child, control, row):
    case, python_spawn = ROWS[row]
    written, unrestricted, problems = answers_of(host_child, case), control["answers"], []
    for call, paths in written["answers"].items():
        if not paths["native"] == paths["python"] == paths["plain"]:
            problems.append(f"{call}: native, python and plain part\n"
                            + "".join(f"  {path}: {show(outcome)}\n" for path, outcome in paths.items()))
        if python_spawn is REAL and paths["plain"] != unrestricted[call]["plain"]:
            problems.append(f"{call}: not git's real answer\n  restricted: {show(paths['plain'])}\n"
                            f"  unrestricted: {show(unrestricted[call]['plain'])}\n")
        elif python_spawn is not REAL and not (isinstance(paths["plain"]["value"], dict)
                                               and paths["plain"]["value"].get("errno") == python_spawn):
            problems.append(f"{call}: Python's spawn should fail with {errno.errorcode[python_spawn]}\n"
                            f"  plain: {show(paths['plain'])}\n")
    if written["native git's descriptor"] == ["open\n", "", 0]:
        problems.append("the host's inheritable descriptor 9 is open in a natively started git\n")
    if written.get("session", NATIVE_SESSION) != NATIVE_SESSION:
        problems.append(f"git started the wrong way: {written['session']}\n")
    if problems:
        pytest.fail("\n".join(problems), pytrace=False)
