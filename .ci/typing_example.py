"""How a typed host uses the module; CI checks it with mypy --strict (the
tests don't run it). The ignores mark calls the stubs must refuse: were one
accepted, --strict would report the ignore as unused."""

from datetime import datetime, timedelta
from pathlib import Path

from morvane_tessary.utils import git_utils
from morvane_tessary.utils.git_utils import CommitChanges, FileChange, GitError, LineSpan


def branch_summary(start: Path) -> dict[str, str | int | None]:
    root = git_utils.find_git_root(start)
    if root is None:
        return {}
    branch = git_utils.normalize_branch_name(git_utils.resolve_display_branch(root))
    default = git_utils.get_default_branch(root)
    stdout, _stderr, code = git_utils.run_git_command(root, ["status", "--short"], timeout=10)
    return {
        "branch": branch,
        "head": git_utils.get_head_commit(root, short=False),
        "wiki": str(git_utils.wiki_directory(root, branch or "")),
        "ahead": git_utils.count_commits(root, default, "HEAD") if git_utils.branch_exists(root, default) else None,
        "dirty": len(stdout.splitlines()) if code == 0 else None,
    }


def touched_lines(root: Path, base: str, paths: tuple[str, ...] = ()) -> dict[str, int]:
    spans: dict[str, list[LineSpan]] = git_utils.diff_line_spans(root, base, "HEAD", merge_base=True, paths=paths)
    return {path: sum(span.end - span.start + 1 for span in found) for path, found in spans.items()}


def renamed(root: Path, base: str) -> list[tuple[str, str]]:
    try:
        changes: list[FileChange] = git_utils.diff_file_changes(root, base, "HEAD")
    except GitError:
        return []
    return [(change.old_path, change.path) for change in changes if change.old_path is not None]


def busy_days(root: Path, since: str = "7d") -> list[datetime]:
    moment = git_utils.parse_time_spec(since)
    commits: list[CommitChanges] = git_utils.log_commit_changes(root, since=moment, ref=None, max_commits=100)
    authors = git_utils.get_authors_for_period(root, since)
    last = git_utils.commit_before(root, "HEAD", moment + timedelta(days=1))
    print(len(authors), last, git_utils.resolve_commit(root, "HEAD"))
    return [datetime.fromtimestamp(commit.timestamp) for commit in commits if len(commit.files) > 3]


def refused(root: Path) -> None:
    git_utils.diff_line_spans(root, "main", "HEAD")  # type: ignore[call-arg]
    git_utils.log_commit_changes(root, datetime.now(), None, 10)  # type: ignore[call-arg]
    git_utils.run_git_command(root, ("log",))  # type: ignore[arg-type]
    git_utils.parse_time_spec(7)  # type: ignore[arg-type]
    FileChange("a", "added", 1, 0).path = "b"  # type: ignore[misc]
    head: str = git_utils.get_head_commit(root)  # type: ignore[assignment]
    print(head)
