"""Every public function of the module on its native paths, success and failure alike, as a table of calls that
the allocation-failure sweep (fuzz/out_of_memory.py) and the leak check (fuzz/leak_check.py) share.

Each call runs in one of four settings: "plain"; "no git" (PATH holds no git: the runner's not-found answer);
"slow git" (a git that sleeps, and run_git_command's default time-out cut to a twentieth of a second, so that
every query times out); "empty stdin" (standard input reads as empty). The scripts give the calls a terminal on
standard input, from which git shortlog, in a repository, reads nothing; outside one it reads standard input
whatever it is, hence the empty one there."""
import contextlib
import datetime as dt
import importlib
import logging
import os
import sys
from pathlib import Path

TESTS = Path(__file__).resolve().parents[1] / "tests"  # proof_support: the repository builder
SLOW_TIMEOUT = 0.05


class World:
    """make_repo's repository, a folder that is none, and the bin folders of the settings, under `scratch`."""

    def __init__(self, scratch: Path, build: bool = True):
        sys.path.insert(0, str(TESTS))
        from proof_support import make_repo

        self.repo = make_repo(scratch) if build else scratch / "repo"
        self.norepo, self.no_git, self.slow_git = scratch / "norepo", scratch / "no-git", scratch / "slow-git"
        if build:
            for folder in (self.norepo, self.no_git, self.slow_git):
                folder.mkdir()
            (self.slow_git / "git").write_text("#!/bin/sh\nexec sleep 10\n")
            (self.slow_git / "git").chmod(0o755)


def quiet_git_configuration() -> None:
    """The module's gits (and the children's) read no user or system configuration."""
    os.environ.update(GIT_CONFIG_NOSYSTEM="1", GIT_CONFIG_GLOBAL=os.devnull)


@contextlib.contextmanager
def setting(gu, world: World, name: str):
    saved_path, saved_defaults, saved_stdin = os.environ["PATH"], gu.run_git_command.__defaults__, os.dup(0)
    if name in ("no git", "slow git"):
        os.environ["PATH"] = str(world.no_git if name == "no git" else world.slow_git)
    if name == "slow git":
        gu.run_git_command.__defaults__ = (SLOW_TIMEOUT,)
    if name == "empty stdin":
        empty = os.open(os.devnull, os.O_RDONLY)
        os.dup2(empty, 0)
        os.close(empty)
    try:
        yield
    finally:
        os.environ["PATH"], gu.run_git_command.__defaults__ = saved_path, saved_defaults
        os.dup2(saved_stdin, 0)
        os.close(saved_stdin)


class LogLines(logging.Handler):
    """The module's log lines, as what a host's handler would see of them."""

    def __init__(self):
        super().__init__(logging.DEBUG)
        self.lines = []

    def emit(self, record):
        # Not lines.append: 3.14's specialised append, when the list can't grow, releases the item in a way
        # the debug interpreter's own checks abort on.
        self.lines += [(record.levelno, record.getMessage(), record.funcName, record.module, record.pathname)]


def capture_log(gu) -> LogLines:
    handler = LogLines()
    gu.logger.addHandler(handler)
    gu.logger.setLevel(logging.DEBUG)
    gu.logger.propagate = False
    return handler


def calls(gu, world: World) -> list:
    """(label, setting, call) for every function on each of its paths."""
    repo, norepo = world.repo, world.norepo
    past, mid = dt.datetime(2025, 12, 1), dt.datetime(2026, 1, 2, 12)  # before the first commit; between C2 and C3
    raw = gu._git_output(repo, ["diff", "--raw", "--numstat", "-M", "-z", "main^1", "feature"])
    log = gu._git_output(repo, ["log", "--format=%x1e%ct", "--raw", "--numstat", "-z", "-M", "feature"])
    patch = gu._git_output(repo, ["diff", "--no-color", "--no-ext-diff", "--no-prefix", "-M", "-U0", "main^1", "feature"])
    table = [
        # the runners: success, git's own failures, a folder that does not exist, bad arguments
        ("run_git_command", "plain", lambda: gu.run_git_command(repo, ["rev-parse", "HEAD"])),
        ("run_git_command unknown revision", "plain", lambda: gu.run_git_command(repo, ["rev-parse", "--verify", "nope"])),
        ("run_git_command no repository", "plain", lambda: gu.run_git_command(norepo, ["rev-parse", "HEAD"])),
        ("run_git_command missing folder", "plain", lambda: gu.run_git_command(norepo / "missing", ["status"])),
        ("run_git_command args a tuple", "plain", lambda: gu.run_git_command(repo, ("status",))),
        ("run_git_command unknown keyword", "plain", lambda: gu.run_git_command(repo, ["status"], time_out=3)),
        ("_git_output", "plain", lambda: gu._git_output(repo, ["rev-list", "--count", "HEAD"])),
        ("_git_output unknown revision", "plain", lambda: gu._git_output(repo, ["rev-parse", "--verify", "nope"])),
        ("_git_output no repository", "plain", lambda: gu._git_output(norepo, ["log"])),
        ("run_git_command", "no git", lambda: gu.run_git_command(repo, ["status"])),
        ("_git_output", "no git", lambda: gu._git_output(repo, ["status"])),
        ("run_git_command", "slow git", lambda: gu.run_git_command(repo, ["status"], SLOW_TIMEOUT)),
        ("_git_output", "slow git", lambda: gu._git_output(repo, ["status"])),
        # discovery, branch names and wiki paths: no git
        ("find_git_root", "plain", lambda: gu.find_git_root(repo / "moved")),
        ("find_git_root none above", "plain", lambda: gu.find_git_root(norepo)),
        ("find_git_root bad start", "plain", lambda: gu.find_git_root(5)),
        ("find_repo_root", "plain", gu.find_repo_root),
        ("normalize_branch_name", "plain", lambda: gu.normalize_branch_name("remotes/origin/feature/x")),
        ("normalize_branch_name None", "plain", lambda: gu.normalize_branch_name(None)),
        ("sanitize_branch_name", "plain", lambda: gu.sanitize_branch_name("feature/Ünï code: x*?")),
        ("wiki_root", "plain", lambda: gu.wiki_root(repo)),
        ("wiki_directory", "plain", lambda: gu.wiki_directory(repo, "feature/x")),
        ("wiki_directory bad branch", "plain", lambda: gu.wiki_directory(repo, None)),
        # the lenient branch and revision queries
        ("resolve_display_branch", "plain", lambda: gu.resolve_display_branch(repo)),
        ("resolve_display_branch no repository", "plain", lambda: gu.resolve_display_branch(norepo)),
        ("get_head_commit", "plain", lambda: gu.get_head_commit(repo)),
        ("get_head_commit long", "plain", lambda: gu.get_head_commit(repo, False)),
        ("get_head_commit no repository", "plain", lambda: gu.get_head_commit(norepo)),
        ("get_default_branch", "plain", lambda: gu.get_default_branch(repo)),
        ("get_default_branch no repository", "plain", lambda: gu.get_default_branch(norepo)),
        ("branch_exists", "plain", lambda: gu.branch_exists(repo, "main")),
        ("branch_exists unknown", "plain", lambda: gu.branch_exists(repo, "nope")),
        ("resolve_commit", "plain", lambda: gu.resolve_commit(repo, "main")),
        ("resolve_commit unknown revision", "plain", lambda: gu.resolve_commit(repo, "nope")),
        ("resolve_commit option", "plain", lambda: gu.resolve_commit(repo, "-x")),
        ("resolve_display_branch", "no git", lambda: gu.resolve_display_branch(repo)),
        ("get_default_branch", "slow git", lambda: gu.get_default_branch(repo)),
        # time specs, authors, counting and lookup by time
        ("parse_time_spec relative", "plain", lambda: gu.parse_time_spec("7d")),
        ("parse_time_spec date", "plain", lambda: gu.parse_time_spec("2026-01-02")),
        ("parse_time_spec offset", "plain", lambda: gu.parse_time_spec("2026-01-02T03:04:05+02:00")),
        ("parse_time_spec refused", "plain", lambda: gu.parse_time_spec("soon")),
        ("get_authors_for_period", "plain", lambda: gu.get_authors_for_period(repo, "2025-12-01")),
        ("get_authors_for_period no repository", "empty stdin", lambda: gu.get_authors_for_period(norepo, "7d")),
        ("get_authors_for_period refused spec", "plain", lambda: gu.get_authors_for_period(repo, "soon")),
        ("count_commits", "plain", lambda: gu.count_commits(repo, "main^1", "feature")),
        ("count_commits unknown revision", "plain", lambda: gu.count_commits(repo, "nope", "feature")),
        ("count_commits missing arguments", "plain", lambda: gu.count_commits(repo)),
        ("commit_before", "plain", lambda: gu.commit_before(repo, "feature", mid)),
        ("commit_before unknown revision", "plain", lambda: gu.commit_before(repo, "nope", mid)),
        ("commit_before bad moment", "plain", lambda: gu.commit_before(repo, "feature", "2026")),
        ("get_authors_for_period", "no git", lambda: gu.get_authors_for_period(repo, "2025-12-01")),
        ("count_commits", "slow git", lambda: gu.count_commits(repo, "main", "feature")),
        # the change queries
        ("diff_file_changes", "plain", lambda: gu.diff_file_changes(repo, "main^1", "feature")),
        ("diff_file_changes unknown revision", "plain", lambda: gu.diff_file_changes(repo, "nope", "feature")),
        ("log_commit_changes", "plain", lambda: gu.log_commit_changes(repo, since=past, ref=None, max_commits=10)),
        ("log_commit_changes unknown revision", "plain",
         lambda: gu.log_commit_changes(repo, since=past, ref="nope", max_commits=10)),
        ("log_commit_changes missing keyword", "plain", lambda: gu.log_commit_changes(repo, since=past, ref=None)),
        ("diff_line_spans", "plain",
         lambda: gu.diff_line_spans(repo, "main^1", "feature", merge_base=True, diff_filter="MRAD")),
        ("diff_line_spans paths", "plain", lambda: gu.diff_line_spans(repo, "feature", "HEAD", merge_base=False,
                                                                      paths=["main_only.txt", "tab\there.txt"])),
        ("diff_line_spans unknown revision", "plain", lambda: gu.diff_line_spans(repo, "nope", "HEAD", merge_base=True)),
        ("diff_file_changes", "no git", lambda: gu.diff_file_changes(repo, "main", "feature")),
        ("diff_line_spans", "slow git", lambda: gu.diff_line_spans(repo, "main", "feature", merge_base=True)),
        ("log_commit_changes", "slow git", lambda: gu.log_commit_changes(repo, since=past, ref=None, max_commits=1)),
        # the parsers and their helpers, on the repository's own output
        ("parse_file_changes", "plain", lambda: gu.parse_file_changes(raw)),
        ("parse_commit_changes", "plain", lambda: gu.parse_commit_changes(log)),
        ("parse_line_spans", "plain", lambda: gu.parse_line_spans(patch)),
        ("parse_line_spans bad patch", "plain", lambda: gu.parse_line_spans(None)),
        ("_span", "plain", lambda: gu._span(4, 3, 1)),
        ("_span deletion", "plain", lambda: gu._span(4, 0, 2)),
        ("_file_changes", "plain", lambda: gu._file_changes(raw.split("\0"))),
        ("_line_count", "plain", lambda: gu._line_count("12")),
        ("_patch_path", "plain", lambda: gu._patch_path('"moved/t\\303\\251\\tx.txt"')),
        ("_patch_path none", "plain", lambda: gu._patch_path("/dev/null")),
        ("_unquote", "plain", lambda: gu._unquote("dir/a\\tb\\303\\251\\\"")),
        ("_unquote out of range", "plain", lambda: gu._unquote("\\777")),
        ("_path_batches", "plain", lambda: gu._path_batches(["a" * 5000, "b" * 6000, "c" * 7000, "d"])),
        # a reload binds the namespace again
        ("importlib.reload", "plain", lambda: importlib.reload(gu)),
    ]
    return table
