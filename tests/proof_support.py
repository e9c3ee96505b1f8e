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


def git(cwd, *args, date="2024-01-02T03:04:05+00:00", who=("A", "a@x")) -> str:
    """Runs git in cwd with no user or system configuration and a fixed identity and date; its stripped stdout."""
    env = {k: v for k, v in os.environ.items() if not k.startswith("GIT_")}
    env.update(GIT_CONFIG_NOSYSTEM="1", GIT_CONFIG_GLOBAL=os.devnull)
    env.update({f"GIT_{role}_{key}": value for role in ("AUTHOR", "COMMITTER")
                for key, value in (("NAME", who[0]), ("EMAIL", who[1]), ("DATE", date))})
    return subprocess.run(["git", *args], cwd=cwd, env=env, check=True, capture_output=True, text=True).stdout.strip()


QUOTED = ["été.txt", "tab\there.txt", 'quo"te.txt', "back\\slash.txt", "new\nline.txt", "sp ace.txt"]
# Names as on disk, then as the -z records and the patch give them back: the runner decodes git's output
# with invalid bytes replaced and every CR turned into LF; the patch quotes a CR as \r.
ODD = {os.fsdecode(b"bad\xff.txt"): ("bad\ufffd.txt", "bad\ufffd.txt"), "cr\rname.txt": ("cr\nname.txt", "cr\rname.txt")}
# Two names that differ only in bytes that are not UTF-8 decode alike: one file, as parsing the decoded output gives.
ALIKE = [os.fsdecode(b"a\xe9.txt"), os.fsdecode(b"a\xe8.txt")]


def make_repo(root: Path) -> Path:
    """root/repo, on main: C1 (everything added), C3 (main_only.txt), C4 merging feature; feature: C2 off C1
    with modifications, a rename, a deletion, an addition, binary, CR LF, no final newline and quoted names.
    Commit C<n> is dated 2026-01-0<n>T10:00Z."""
    repo = root / "repo"
    repo.mkdir(parents=True)

    def run(*args, day=1):
        git(repo, *args, date=f"2026-01-0{day}T10:00:00+00:00")

    def write(files):
        for name, data in files.items():
            (repo / name).write_bytes(data.encode() if isinstance(data, str) else data)

    run("init", "-q", "-b", "main")
    files = {"keep.txt": "".join(f"k{i}\n" for i in range(1, 11)), "move_me.py": "".join(f"l{i}\n" for i in range(1, 21)),
             "bin.dat": bytes(range(256)), "crlf.txt": "a\r\nb\r\nc\r\n", "nonl.txt": "x\ny", "gone.txt": "g1\ng2\n",
             "main_only.txt": "m\n", **dict.fromkeys([*QUOTED, *ODD, *ALIKE], "one\ntwo\n")}
    write(files)
    run("add", "-A")
    run("commit", "-qm", "C1")
    run("checkout", "-qb", "feature")
    (repo / "moved").mkdir()
    run("mv", "move_me.py", "moved/me.py")
    write({"keep.txt": "k1\nk2\nK3\nk4\nk5\nn1\nn2\nk6\nk7\nk10\n", "bin.dat": bytes(range(255, -1, -1)),
           "moved/me.py": files["move_me.py"].replace("l20", "L20"), "crlf.txt": "a\r\nB\r\nc\r\n", "nonl.txt": "x\nz",
           "added.txt": "n1\nn2\n", **dict.fromkeys([*QUOTED, *ODD, *ALIKE], "one\nTWO\n")})
    run("rm", "-q", "gone.txt")
    run("add", "-A")
    run("commit", "-qm", "C2", day=2)
    run("checkout", "-q", "main")
    write({"main_only.txt": "m\nM\n"})
    run("commit", "-qam", "C3", day=3)
    run("merge", "-q", "--no-ff", "-m", "C4", "feature", day=4)
    return repo


def query_table(repo: Path):  # every query, on make_repo's repository
    past, mid = dt.datetime(2025, 12, 1), dt.datetime(2026, 1, 2, 12)  # before C1; between C2 and C3
    return [
        ("resolve_display_branch", lambda: gu.resolve_display_branch(repo)),
        ("get_head_commit", lambda: gu.get_head_commit(repo)), ("get_default_branch", lambda: gu.get_default_branch(repo)),
        ("get_head_commit-long", lambda: gu.get_head_commit(repo, False)),
        ("branch_exists", lambda: (gu.branch_exists(repo, "main"), gu.branch_exists(repo, "nope"))),
        ("get_authors_for_period", lambda: gu.get_authors_for_period(repo, "2025-12-01")),
        ("resolve_commit", lambda: gu.resolve_commit(repo, "main")),
        ("commit_before", lambda: gu.commit_before(repo, "feature", mid)),
        ("count_commits", lambda: gu.count_commits(repo, "main^1", "feature")),
        ("diff_file_changes", lambda: gu.diff_file_changes(repo, "main^1", "feature")),
        ("log_commit_changes", lambda: gu.log_commit_changes(repo, since=past, ref=None, max_commits=10)),
        ("diff_line_spans", lambda: gu.diff_line_spans(repo, "main^1", "feature", merge_base=True, diff_filter="MRAD")),
        ("diff_line_spans-paths", lambda: gu.diff_line_spans(repo, "feature", "HEAD", merge_base=False,
                                                             paths=["main_only.txt", "tab\there.txt"])),
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


def assert_nothing_left(before: dict[str, int], rss_slack: int = 64 * MB) -> None:
    after = snapshot()
    assert after["fds"] <= before["fds"], (before, after, os.listdir("/proc/self/fd"))
    assert after["children"] == 0, children()
    with pytest.raises(ChildProcessError):
        os.waitpid(-1, os.WNOHANG)
    assert after["rss"] - before["rss"] < rss_slack, (before, after)
