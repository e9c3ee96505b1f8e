import functools
import importlib.util
import itertools
import json
import os
import shutil
import subprocess
import sys
import textwrap
from pathlib import Path

import proof_support
import pytest

sys.path.insert(0, str(Path(__file__).parents[1] / "benchmarks"))  # plain_git_utils, the module in plain Python

from morvane_tessary.utils import git_utils  # noqa: E402


@pytest.fixture
def gu():
    return git_utils


@pytest.fixture(scope="module")
def fresh():
    """A module object of the test module's own: an attribute deleted and restored on the shared one comes back
    last, and CPython keeps a class's __new__ slot once it was set, even after del."""
    spec = importlib.util.find_spec(git_utils.__name__)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


@pytest.fixture(params=["native", "subprocess"])
def runner_path(request, monkeypatch):
    """Both runner paths: the native spawner, and subprocess.run, taken whenever the host options are not empty."""
    if request.param == "subprocess":
        monkeypatch.setattr(git_utils, "get_subprocess_hidden_kwargs", lambda: {"close_fds": True})
    return request.param


@pytest.fixture
def git(monkeypatch, tmp_path):
    """git(cwd, *args) -> stripped stdout, with a fixed identity and no user or system configuration (for the
    module's own gits too); git.init(name, branch) makes tmp_path/name; git.commit(repo, (name, email), day,
    {path: text or None}) commits on that day of January 2024."""
    monkeypatch.setenv("GIT_CONFIG_NOSYSTEM", "1")
    monkeypatch.setenv("HOME", str(tmp_path))
    monkeypatch.setenv("TZ", "UTC")

    def init(name, branch="main"):
        (tmp_path / name).mkdir()
        proof_support.git(tmp_path / name, "init", "-q", "-b", branch)
        return tmp_path / name

    def commit(repo, who, day, files):
        for path, text in files.items():
            (repo / path).unlink() if text is None else (repo / path).write_text(text)
        proof_support.git(repo, "add", "-A")
        proof_support.git(repo, "commit", "-qm", f"day {day}", date=f"2024-01-{day:02d}T12:00:00+00:00", who=who)

    run = functools.partial(proof_support.git)
    run.init, run.commit = init, commit
    return run


@pytest.fixture
def quiet_stdin():  # shortlog reads a standard input that is no terminal
    saved, null = os.dup(0), os.open(os.devnull, os.O_RDONLY)
    os.dup2(null, 0), os.close(null)
    yield
    os.dup2(saved, 0), os.close(saved)


@pytest.fixture
def stand_in(monkeypatch, tmp_path):
    """Replaces the module's `name` with a function of (tmp_path, args) that records the argument lists and
    gives the replies in turn, raising those that are exceptions."""

    def install(name, *replies):
        calls, answers = [], iter(replies)

        def fake(root, args):
            assert root is tmp_path and type(args) is list
            calls.append(args)
            reply = next(answers)
            if isinstance(reply, Exception):
                raise reply
            return reply

        monkeypatch.setattr(git_utils, name, fake)
        return calls

    return install


@pytest.fixture
def fake_git(tmp_path, monkeypatch):
    """Puts a `git` made of the given shell script first on PATH."""
    bindir = tmp_path / "fakebin"
    bindir.mkdir()

    def install(script: str) -> Path:
        path = bindir / "git"
        path.write_text("#!/bin/sh\n" + textwrap.dedent(script))
        path.chmod(0o755)
        monkeypatch.setenv("PATH", f"{bindir}{os.pathsep}{os.environ.get('PATH', '')}")
        return path

    return install


# The `git` of host_child.py: records its pid, answers the tests' own commands and hands every other to the real
# git. Where it can it starts no process of its own (`exec`), so that a filter refusing forks lets it answer.
HOST_STAND_IN = """#!/bin/sh
echo $$ >> "$PIDS"
case "$1" in
  echo) echo "ok $*"; echo warn >&2 ;;
  fail) echo failed >&2; exit 3 ;;
  slow) exec sleep "$2" ;;
  late) sleep "$2"; echo late ;;
  status) exec grep -E '^Sig(Blk|Ign)' /proc/self/status ;;
  descriptor) if { true >&9; } 2>/dev/null; then echo open; else echo closed; fi ;;
  session) read -r pid comm state ppid group session rest < /proc/$$/stat
           if [ "$session" = "$$" ]; then echo leader; else echo member; fi ;;
  *) exec "$REAL_GIT" "$@" ;;
esac
"""


@pytest.fixture(scope="module")
def host_child(tmp_path_factory):
    """host_child(case, start="fork") runs tests/host_child.py for `case` (started by fork/exec or, as a 3.13+
    parent starts an interpreter, by posix_spawn) in a world of its module; returns (exit status, stdout,
    stderr, what it wrote, the pids of the gits it ran)."""
    root = tmp_path_factory.mktemp("host")
    proof_support.make_repo(root)
    (root / "empty-bin").mkdir()
    (root / "bin").mkdir()
    (root / "bin" / "git").write_text(HOST_STAND_IN)
    (root / "bin" / "git").chmod(0o755)
    env = {k: v for k, v in os.environ.items() if not k.startswith("GIT_")}
    env.update(GIT_CONFIG_NOSYSTEM="1", GIT_CONFIG_GLOBAL=os.devnull, HOME=str(root), REAL_GIT=shutil.which("git"),
               PATH=f"{root / 'bin'}{os.pathsep}{os.environ['PATH']}")
    runs = itertools.count()

    def run(case, start="fork"):
        name = next(runs)
        pids, out = root / f"{name}.pids", root / f"{name}.json"
        argv = [sys.executable, str(Path(__file__).with_name("host_child.py")), case, str(root), str(out)]
        env["PIDS"] = str(pids)
        if start == "posix_spawn":  # glibc's own signals ignored, as such a parent leaves them
            read, write = os.pipe()
            actions = [(os.POSIX_SPAWN_DUP2, write, 1), (os.POSIX_SPAWN_CLOSE, read)]
            pid = os.posix_spawn(sys.executable, argv, env, file_actions=actions)
            os.close(write)
            with os.fdopen(read) as f:
                stdout, stderr = f.read(), ""
            status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
        else:
            done = subprocess.run(argv, env=env, capture_output=True, text=True, timeout=120, cwd=root)
            status, stdout, stderr = done.returncode, done.stdout, done.stderr
        written = json.loads(out.read_text()) if out.exists() else None
        if written is not None and "skip" in written:
            pytest.skip(written["skip"])
        started = [int(p) for p in pids.read_text().split()] if pids.exists() else []
        return status, stdout, stderr, written, started

    return run
