"""git with a clean configuration, a small real repository, and snapshots of the process's memory,
descriptors and children."""
import datetime as dt
import os
import subprocess
import time
from pathlib import Path

import pytest

from morvane_tessary.utils import git_utils as gu

PAGE = os.sysconf("SC_PAGE_SIZE")
MB = 1 << 20
DAY = 86400


def git(cwd, *args, date="2024-01-02T03:04:05+00:00", who=("A", "a@x")) -> str:
    """Runs git in cwd with no user or system configuration and a fixed identity and date; its stripped stdout."""
    env = {k: v for k, v in os.environ.items() if not k.startswith("GIT_")}
    env.update(GIT_CONFIG_NOSYSTEM="1", GIT_CONFIG_GLOBAL=os.devnull)
    env.update({f"GIT_{role}_{key}": value for role in ("AUTHOR", "COMMITTER")
                for key, value in (("NAME", who[0]), ("EMAIL", who[1]), ("DATE", date))})
    return subprocess.run(["git", *args], cwd=cwd, env=env, check=True, capture_output=True, text=True).stdout.strip()


def make_repo(root: Path) -> Path:
    """main: two commits; feature (checked out): modified, renamed, added, deleted and odd names, two authors."""
    repo = root / "repo"
    repo.mkdir(parents=True)
    now = int(time.time())

    def commit(message, author=("Ann", "ann@x"), at=0, *flags):
        git(repo, "commit", "-q", *flags, "-m", message, date=f"@{now - (10 - at) * DAY} +0000", who=author)

    def write(name, lines):
        path = repo / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("".join(f"{line}\n" for line in lines))

    git(repo, "init", "-q", "-b", "main")
    for i in range(8):
        write(f"src/m{i}.py", [f"line {j}" for j in range(40)])
    write("dir/c d.txt", ["keep"] * 30)
    write("ünï.txt", ["u"])
    git(repo, "add", "-A")
    commit("one", at=1)
    write("src/m0.py", [f"line {j}" if j % 7 else f"changed {j}" for j in range(40)])
    commit("two", ("Bob", "bob@x"), 2, "-a")
    git(repo, "checkout", "-q", "-b", "feature")
    for i in range(1, 6):
        write(f"src/m{i}.py", [f"line {j}" if j % (i + 2) else f"feature {i} {j}" for j in range(44)])
    git(repo, "mv", "dir/c d.txt", "dir/e f.txt")
    write("dir/e f.txt", ["keep"] * 29 + ["moved"])
    write("new.txt", ["n"] * 5)
    git(repo, "rm", "-q", "ünï.txt")
    git(repo, "add", "-A")
    commit("three", at=3)
    write("src/m6.py", [f"line {j}" for j in range(10, 50)])
    commit("four", ("Bob", "bob@x"), 4, "-a")
    return repo


def query_table(repo: Path):
    past = dt.datetime.now() - dt.timedelta(days=30)
    mid = dt.datetime.now() - dt.timedelta(days=7.5)  # between "two" and "three"
    return [
        ("resolve_display_branch", lambda: gu.resolve_display_branch(repo)),
        ("get_head_commit", lambda: gu.get_head_commit(repo)),
        ("get_head_commit-long", lambda: gu.get_head_commit(repo, False)),
        ("get_default_branch", lambda: gu.get_default_branch(repo)),
        ("branch_exists", lambda: (gu.branch_exists(repo, "main"), gu.branch_exists(repo, "nope"))),
        ("get_authors_for_period", lambda: gu.get_authors_for_period(repo)),
        ("resolve_commit", lambda: gu.resolve_commit(repo, "main")),
        ("count_commits", lambda: gu.count_commits(repo, "main", "feature")),
        ("commit_before", lambda: gu.commit_before(repo, "feature", mid)),
        ("diff_file_changes", lambda: gu.diff_file_changes(repo, "main", "feature")),
        ("log_commit_changes", lambda: gu.log_commit_changes(repo, since=past, ref=None, max_commits=10)),
        ("diff_line_spans", lambda: gu.diff_line_spans(repo, "main", "feature", merge_base=True, diff_filter="MRAD")),
        ("diff_line_spans-paths", lambda: gu.diff_line_spans(repo, "main", "HEAD", merge_base=False,
                                                             paths=["src/m1.py", "dir/e f.txt"])),
        ("run_git_command", lambda: gu.run_git_command(repo, ["status", "--porcelain"])),
        ("_git_output", lambda: gu._git_output(repo, ["rev-list", "--count", "HEAD"])),
    ]


def stat_fields(pid) -> list[bytes]:  # /proc/PID/stat after the command name: state, parent, ...; [] once reaped
    try:
        with open(f"/proc/{pid}/stat", "rb") as f:
            stat = f.read()
    except OSError:
        return []
    return stat[stat.rindex(b")") + 2:].split()


def process_state(pid: int) -> str:  # the state letter, "" once reaped
    return b"".join(stat_fields(pid)[:1]).decode()


def dead(pid: int, within: float = 2.0) -> bool:  # gone, or a zombie nobody has reaped yet
    deadline = time.monotonic() + within
    while process_state(pid) not in ("", "Z"):
        if time.monotonic() > deadline:
            return False
        time.sleep(0.01)
    return True


def children() -> list[int]:  # zombies included
    me = str(os.getpid()).encode()
    return [int(e) for e in os.listdir("/proc") if e.isdigit() and stat_fields(e)[1:2] == [me]]


def snapshot() -> dict[str, int]:
    with open("/proc/self/statm") as f:
        rss = int(f.read().split()[1]) * PAGE
    return {"rss": rss, "fds": len(os.listdir("/proc/self/fd")), "children": len(children())}


def assert_nothing_left(before: dict[str, int], rss_slack: int = 64 * MB) -> dict[str, int]:
    after = snapshot()
    assert after["fds"] <= before["fds"], (before, after, os.listdir("/proc/self/fd"))
    assert after["children"] == 0, children()
    with pytest.raises(ChildProcessError):
        os.waitpid(-1, os.WNOHANG)
    assert after["rss"] - before["rss"] < rss_slack, (before, after)
    return after
