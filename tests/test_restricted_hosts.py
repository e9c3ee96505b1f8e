"""The module in restricted hosts: system calls refused by a seccomp filter, no /proc and no close_range, a full
descriptor table, a reload after the host's stubs. Each case runs in a fresh interpreter
(tests/restricted_host_child.py) that sets its restriction before it imports the module, then makes each call
through the native path, through the subprocess.run path and through the module written in plain Python
(benchmarks/plain_git_utils.py). The three must agree exactly: the same answer and log lines, or the same
exception type, errno, message and filename. Where the restriction leaves Python's own spawn alone, that
answer is git's real one (the unrestricted case's); where it stops Python's spawn, the native path fails the
same way. Nothing a git started may be left running, and a natively started git has none of the host's
descriptors beyond 0 to 2. A case that can't set its restriction here (no libseccomp, not root, unshare
refused) is skipped with the reason."""
import errno
import json
import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest
from proof_support import dead, git

CHILD = Path(__file__).with_name("restricted_host_child.py")
# Records its pid, then answers the test's own commands and hands every other to the real git. It starts no
# process of its own (`exec`), so that a filter refusing forks still lets it answer.
STAND_IN = """#!/bin/sh
echo $$ >> "$PIDS"
case "$1" in
  echo) echo "ok $*"; echo warn >&2 ;;
  fail) echo failed >&2; exit 3 ;;
  slow) exec sleep "$2" ;;
  descriptor) if { true >&9; } 2>/dev/null; then echo open; else echo closed; fi ;;
  session) read -r pid comm state ppid group session rest < /proc/$$/stat
           if [ "$session" = "$$" ]; then echo leader; else echo member; fi ;;
  *) exec "$REAL_GIT" "$@" ;;
esac
"""

# Natively started, git leads a session of its own; through subprocess.run it does not.
NATIVE_SESSION = {"native": ["leader\n", "", 0], "python": ["member\n", "", 0]}
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


@pytest.fixture(scope="module")
def world(tmp_path_factory):
    """run(case) runs the child interpreter for `case` in a shared world (a small real repository, the
    stand-in first on PATH); returns (its exit status, its stderr, what it wrote, the pids of the gits it ran)."""
    root = tmp_path_factory.mktemp("restricted")
    repo = root / "repo"
    repo.mkdir()
    git(repo, "init", "-q", "-b", "main")
    (repo / "a.txt").write_text("a\n")
    git(repo, "add", "-A")
    git(repo, "commit", "-qm", "one")
    (root / "empty-bin").mkdir()
    bindir = root / "bin"
    bindir.mkdir()
    (bindir / "git").write_text(STAND_IN)
    (bindir / "git").chmod(0o755)
    env = {k: v for k, v in os.environ.items() if not k.startswith("GIT_")}
    env.update(GIT_CONFIG_NOSYSTEM="1", GIT_CONFIG_GLOBAL=os.devnull, HOME=str(root), REAL_GIT=shutil.which("git"),
               PATH=f"{bindir}{os.pathsep}{os.environ['PATH']}")

    def run(case, name):
        pids, out = root / f"{name}.pids", root / f"{name}.json"
        done = subprocess.run([sys.executable, str(CHILD), case, str(root), str(out)], env={**env, "PIDS": str(pids)},
                              capture_output=True, text=True, timeout=120, cwd=root)
        written = json.loads(out.read_text()) if out.exists() else None
        started = [int(p) for p in pids.read_text().split()] if pids.exists() else []
        return done.returncode, done.stderr, written, started

    return run


def answers_of(world, case, name):
    status, stderr, written, started = world(case, name)
    if written is not None and "skip" in written:
        pytest.skip(written["skip"])
    assert (status, stderr) == (0, ""), stderr
    left = [pid for pid in started if not dead(pid)]
    assert left == [], f"gits left running: {left}"
    return written


@pytest.fixture(scope="module")
def control(world):
    return answers_of(world, "free", "free")


@pytest.fixture(scope="module")
def unrestricted(control):
    return control["answers"]


def test_unrestricted(control, unrestricted):
    """The control: git's real answers, the same on every path."""
    assert control["native git's descriptor"] == ["closed\n", "", 0]
    assert control["session"] == NATIVE_SESSION
    for call, paths in unrestricted.items():
        assert paths["native"] == paths["python"] == paths["plain"], call
    answer = {call: paths["native"]["value"] for call, paths in unrestricted.items()}
    assert answer["run_git_command"] == ["ok echo hello\n", "warn\n", 0]
    assert answer["run_git_command-fails"] == ["", "failed\n", 3]
    assert answer["run_git_command-times-out"] == ["", "Command timed out", 1]
    assert answer["_git_output"] == "1\n"
    assert answer["_git_output-fails"] == {"raised": "GitError", "text": "failed"}
    assert len(answer["get_head_commit"]) >= 7
    assert answer["branch_exists"] == [True, False] and answer["get_default_branch"] == "main"
    assert answer["missing-directory"] == answer["missing-git"] == ["", "git not found", 1]


def show(outcome):
    return json.dumps(outcome, ensure_ascii=False)


@pytest.mark.parametrize("row", ROWS)
def test_restricted_host(world, unrestricted, row):
    case, python_spawn = ROWS[row]
    written = answers_of(world, case, row)
    problems = []
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
