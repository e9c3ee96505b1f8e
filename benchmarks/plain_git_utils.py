"""Git utilities for parsing git log, diff and related commands, written in plain Python.

The yardstick of the native module: the same namespace, the same names, defaults and annotations, and the
same behaviour, in the simplest Python that has it. The benchmarks time the module against it, and
fuzz/bad_input.py --against-plain calls both with the same arguments and reports where they part. Nothing
in the package or the tests imports it.

git runs as a child process with a time-out (30 seconds by default) and error recovery. Main features:
time specs (7d, 24h, 30m, 2w), diffs and commit logs parsed into file changes and changed line spans,
default-branch detection (main or master), author contribution statistics. On Windows the console window
is hidden with a STARTUPINFO using SW_HIDE.
"""

import errno
import logging
import re
import subprocess
from collections.abc import Sequence
from dataclasses import dataclass
from datetime import datetime, timedelta
from pathlib import Path
from typing import Any

from morvane_tessary.utils.process import get_subprocess_hidden_kwargs

logger = logging.getLogger(__name__)

TIME_SPEC_FORMS = ("a positive whole number followed by m (minutes), h (hours), d (days) or w (weeks), "
                   "such as 7d or 24h, or an ISO date such as 2026-09-01")
_RELATIVE_SPEC = re.compile(r"(\d+)([mhdw])")
_SPEC_UNITS = {"m": "minutes", "h": "hours", "d": "days", "w": "weeks"}
_STATUS_BY_LETTER = {"A": "added", "C": "copied", "D": "deleted", "M": "modified", "R": "renamed",
                     "T": "modified"}
_TWO_PATH_LETTERS = frozenset({"R", "C"})
_COMMIT_START = "\x1e"
_PATCH_OPTIONS = ("--no-color", "--no-ext-diff", "--no-textconv", "--no-prefix", "-M", "-U0")
_HUNK_HEADER = re.compile(r"@@ -\d+(?:,(\d+))? \+(\d+)(?:,(\d+))? @@")
_C_ESCAPE = re.compile(r"\\([0-7]{3}|.)", re.DOTALL)
_C_ESCAPES = {"a": "\a", "b": "\b", "f": "\f", "n": "\n", "r": "\r", "t": "\t", "v": "\v"}


class GitError(RuntimeError):
    """A git command failed; the message carries what git said."""


@dataclass(frozen=True)
class FileChange:
    """One file of a diff: its newer path, what happened to it, its line counts."""
    path: str
    status: str
    additions: int
    deletions: int
    old_path: str | None = None


@dataclass(frozen=True)
class CommitChanges:
    """The files one commit changed, and its commit time in seconds since the epoch."""
    timestamp: int
    files: tuple[FileChange, ...]


@dataclass(frozen=True)
class LineSpan:
    """Lines start to end (1-based, inclusive) of a file's newer side that a diff touched."""
    start: int
    end: int
    added: bool


def find_git_root(start: Path | None = None) -> Path | None:
    """The nearest directory at or above start (default: the working directory) holding a .git entry."""
    here = (start if start is not None else Path.cwd()).absolute()
    for candidate in (here, *here.parents):
        try:
            (candidate / ".git").stat()
            return candidate
        except OSError as e:  # what exists() answered false for up to 3.13; anything else reaches the caller
            if e.errno not in _NO_ENTRY:
                raise
        except ValueError:
            pass
    return None


_NO_ENTRY = (errno.ENOENT, errno.ENOTDIR, errno.EBADF, errno.ELOOP)


def find_repo_root() -> Path:
    """The repository root above the working directory, or the working directory itself."""
    root = find_git_root()
    return root if root is not None else Path.cwd()


def resolve_display_branch(repo_root: Path) -> str | None:
    """The current branch, or None (detached HEAD, or git failed)."""
    out, _, code = run_git_command(repo_root, ["branch", "--show-current"])
    return out.strip() if code == 0 and out.strip() else None


def normalize_branch_name(name: str | None) -> str | None:
    """The short form of a branch name, ref prefixes and origin/ removed; None when nothing is left."""
    if not name:
        return None
    name = name.strip()
    changed = True
    while changed:
        changed = False
        for prefix in ("refs/heads/", "refs/remotes/", "remotes/", "origin/"):
            if name.startswith(prefix):
                name = name[len(prefix):]
                changed = True
    return name or None


def parse_time_spec(since: str) -> datetime:
    """The local moment that a time spec (7d, 24h, 30m, 2w, or an ISO date) names; ValueError when refused."""
    spec = since.strip()
    match = _RELATIVE_SPEC.fullmatch(spec)
    try:
        if match:
            amount = int(match.group(1))
            if amount > 0:
                return datetime.now() - timedelta(**{_SPEC_UNITS[match.group(2)]: amount})
        elif spec:
            moment = datetime.fromisoformat(spec)
            return moment if moment.tzinfo is None else moment.astimezone().replace(tzinfo=None)
    except OverflowError as e:
        raise ValueError(f"since {since!r} reaches outside the calendar") from e
    except ValueError:
        pass
    raise ValueError(f"since must be {TIME_SPEC_FORMS}; got {since!r}")


def sanitize_branch_name(branch: str) -> str:
    """A directory name for a branch: at most 100 characters, no path separator, never empty."""
    safe = branch.replace("/", "__").replace("\\", "__")
    safe = "".join(c if c.isalnum() or c in "-_." else "_" for c in safe)
    return safe[:100] or "default"


def wiki_root(repo_root: Path) -> Path:
    """repo_root/memory/lorebook, where every branch's wiki lives."""
    return repo_root / "memory" / "lorebook"


def wiki_directory(repo_root: Path, branch: str) -> Path:
    """The wiki directory of one branch, named by sanitize_branch_name."""
    return wiki_root(repo_root) / sanitize_branch_name(branch)


def run_git_command(repo_root: Path, args: list[str], timeout: int = 30) -> tuple[str, str, int]:
    """Runs git in repo_root: (stdout, stderr, returncode); a time-out or a missing git give code 1."""
    try:
        result = subprocess.run(["git"] + args, cwd=str(repo_root), capture_output=True, encoding="utf-8",
                                errors="replace", timeout=timeout, **get_subprocess_hidden_kwargs())
    except subprocess.TimeoutExpired:
        logger.warning("git command timed out after %ss: args=%s", timeout, args)
        return "", "Command timed out", 1
    except FileNotFoundError:
        logger.warning("git executable not found while running args=%s", args)
        return "", "git not found", 1
    if result.returncode != 0:
        logger.debug("git command failed: args=%s rc=%s stderr=%s", args, result.returncode, result.stderr.strip())
    return result.stdout, result.stderr, result.returncode


def get_head_commit(repo_root: Path, short: bool = True) -> str | None:
    """The commit id of HEAD (abbreviated when short), or None."""
    out, _, code = run_git_command(repo_root, ["rev-parse", "--short", "HEAD"] if short else ["rev-parse", "HEAD"])
    return out.strip() if code == 0 and out.strip() else None


def get_default_branch(repo_root: Path) -> str:
    """origin's HEAD branch, else main or master when they resolve, else main."""
    out, _, code = run_git_command(repo_root, ["symbolic-ref", "refs/remotes/origin/HEAD"])
    if code == 0 and out.strip():
        return out.strip().removeprefix("refs/remotes/origin/")
    for name in ("main", "master"):
        _, _, code = run_git_command(repo_root, ["rev-parse", "--verify", name])
        if code == 0:
            return name
    return "main"


def branch_exists(repo_root: Path, branch: str) -> bool:
    """Whether git resolves branch, or origin/branch."""
    _, _, code = run_git_command(repo_root, ["rev-parse", "--verify", branch])
    if code == 0:
        return True
    if not branch.startswith("origin/"):
        _, _, code = run_git_command(repo_root, ["rev-parse", "--verify", "origin/" + branch])
        return code == 0
    return False


def get_authors_for_period(repo_root: Path, since: str = "30d") -> list[dict[str, Any]]:
    """The authors of the period since the spec, with e-mail and commit count, as git's shortlog orders them."""
    moment = parse_time_spec(since)
    out, err, code = run_git_command(repo_root, ["shortlog", "--since=" + moment.strftime("%Y-%m-%d %H:%M:%S"), "-sne"])
    if code != 0:
        logger.debug("get_authors_for_period: git shortlog failed rc=%s stderr=%s", code, err.strip())
        return []
    authors = []
    for line in out.strip().split("\n"):
        if not line:
            continue
        line = line.strip()
        if "\t" not in line:
            continue
        count, rest = line.split("\t", 1)
        if "<" in rest and ">" in rest:
            name, _, tail = rest.partition("<")
            name, email = name.strip(), re.split("[<>]", tail, maxsplit=1)[0]
        else:
            name, email = rest, ""
        authors.append({"name": name, "email": email, "commits": int(count.strip())})
    return authors


_MAX_PATHSPEC_CHARS = 16000


def resolve_commit(repo_root: Path, name: str) -> str | None:
    """The full commit id that name resolves to, or None; a name starting with - is refused."""
    if not name or name.startswith("-"):
        return None
    out, _, code = run_git_command(repo_root, ["rev-parse", "--verify", "--quiet", name + "^{commit}"])
    return out.strip() if code == 0 and out.strip() else None


def count_commits(repo_root: Path, base: str, head: str) -> int:
    """The number of commits reachable from head and not from base."""
    out = _git_output(repo_root, ["rev-list", "--count", f"{base}..{head}"]).strip()
    return int(out) if out else 0


def commit_before(repo_root: Path, ref: str, moment: datetime) -> str | None:
    """The newest commit of ref's history at or before the local moment, or None."""
    out = _git_output(repo_root, ["rev-list", "-1", "--before=" + moment.strftime("%Y-%m-%d %H:%M:%S"), ref]).strip()
    return out or None


def diff_file_changes(repo_root: Path, base: str, head: str) -> list[FileChange]:
    """The files that head changed since it left base."""
    return parse_file_changes(_git_output(repo_root, ["diff", "--raw", "--numstat", "-M", "-z", "--no-textconv",
                                                      f"{base}...{head}"]))


def log_commit_changes(repo_root: Path, *, since: datetime, ref: str | None, max_commits: int) -> list[CommitChanges]:
    """The commits since the local moment, newest first, each with the files it changed."""
    args = ["log", "--since=" + since.strftime("%Y-%m-%d %H:%M:%S"), f"--max-count={max_commits}",
            "--no-show-signature", "--format=%x1e%ct", "--raw", "--numstat", "-M", "-z"]
    if ref is not None:
        args.append(ref)
    return parse_commit_changes(_git_output(repo_root, args))


def diff_line_spans(repo_root: Path, base: str, head: str, *, merge_base: bool, paths: Sequence[str] = (),
                    diff_filter: str = "MR") -> dict[str, list[LineSpan]]:
    """The lines of each file's newer side that the diff touched, in batches of literal paths."""
    revisions = [f"{base}...{head}"] if merge_base else [base, head]
    command = ["-c", "core.quotepath=off", "--literal-pathspecs", "diff", *_PATCH_OPTIONS,
               f"--diff-filter={diff_filter}", *revisions]
    spans: dict[str, list[LineSpan]] = {}
    for batch in _path_batches(paths) if paths else [[]]:
        spans.update(parse_line_spans(_git_output(repo_root, command + ["--", *batch] if batch else command)))
    return spans


def parse_file_changes(output: str) -> list[FileChange]:
    """FileChange records of a diff written with --raw --numstat -z."""
    return _file_changes(output.split("\x00"))


def parse_commit_changes(output: str) -> list[CommitChanges]:
    """CommitChanges records of a log written with --format=%x1e%ct --raw --numstat -z."""
    commits: list[CommitChanges] = []
    current: str | None = None
    body: list[str] = []
    for token in output.split("\x00"):
        head = token.lstrip("\n")
        if head.startswith(_COMMIT_START):
            if current is not None:
                commits.append(CommitChanges(int(current), tuple(_file_changes(body))))
            current, body = head[1:].strip(), []
        elif current is not None:
            body.append(token)
    if current is not None:
        commits.append(CommitChanges(int(current), tuple(_file_changes(body))))
    return commits


def parse_line_spans(patch: str) -> dict[str, list[LineSpan]]:
    """The touched line spans of each file of a zero-context patch, by newer path."""
    spans: dict[str, list[LineSpan]] = {}
    path: str | None = None
    old_left = new_left = 0
    for line in patch.split("\n"):
        if old_left > 0 or new_left > 0:
            if line.startswith("-"):
                old_left -= 1
            elif line.startswith("+"):
                new_left -= 1
            elif line.startswith(" "):
                old_left -= 1
                new_left -= 1
            continue
        if line.startswith("+++ "):
            path = _patch_path(line[4:])
            continue
        match = _HUNK_HEADER.match(line)
        if not match:
            continue
        old_left = int(match.group(1)) if match.group(1) is not None else 1
        start = int(match.group(2))
        new_left = int(match.group(3)) if match.group(3) is not None else 1
        if path is not None:
            spans.setdefault(path, []).append(_span(start, new_left, old_left))
    return spans


def _span(start: int, new_count: int, old_count: int) -> LineSpan:
    """The span of one hunk header; a pure removal marks the line above it (or line 1)."""
    if new_count == 0:
        line = max(start, 1)
        return LineSpan(line, line, False)
    return LineSpan(start, start + new_count - 1, old_count == 0)


def _file_changes(tokens: Sequence[str]) -> list[FileChange]:
    """Pairs the raw and numstat records of NUL-separated tokens by path."""
    statuses: dict[str, tuple[str, str | None]] = {}
    counts: dict[str, tuple[int, int]] = {}
    stream = iter(tokens)
    for raw in stream:
        token = raw.lstrip("\n")
        if token.startswith(":"):
            letter = token.rsplit(" ", 1)[-1][:1]
            old_path = next(stream, "") if letter in _TWO_PATH_LETTERS else None
            path = next(stream, "")
            if path:
                statuses[path] = (_STATUS_BY_LETTER.get(letter, "modified"), old_path)
            continue
        pieces = token.split("\t", 2)
        if len(pieces) != 3:
            continue
        added, deleted, path = pieces
        if not path:
            next(stream, "")
            path = next(stream, "")
        counts[path] = (_line_count(added), _line_count(deleted))
    return [FileChange(path, status, *counts.get(path, (0, 0)), old_path=old_path)
            for path, (status, old_path) in statuses.items()]


def _line_count(field: str) -> int:
    """A numstat count; 0 for anything that is not digits (a binary file's -)."""
    return int(field) if field and field.isdigit() else 0


def _patch_path(text: str) -> str | None:
    """The path of a +++ line, unquoted; None for /dev/null."""
    name = text[:-1] if text.endswith("\t") else text
    if name == "/dev/null":
        return None
    if len(name) >= 2 and name[0] == '"' and name[-1] == '"':
        return _unquote(name[1:-1])
    return name


def _unquote(text: str) -> str:
    """Undoes git's C-style quoting: octal escapes are bytes, decoded as UTF-8 at the end."""
    buf = bytearray()
    pos = 0
    for match in _C_ESCAPE.finditer(text):
        buf += text[pos:match.start()].encode("utf-8")
        code = match.group(1)
        if len(code) == 3:
            buf.append(int(code, 8))
        else:
            buf += _C_ESCAPES.get(code, code).encode("utf-8")
        pos = match.end()
    buf += text[pos:].encode("utf-8")
    return buf.decode("utf-8", errors="replace")


def _path_batches(paths: Sequence[str]) -> list[list[str]]:
    """Cuts paths into runs of at most _MAX_PATHSPEC_CHARS characters, one extra per path."""
    batches: list[list[str]] = [[]]
    length = 0
    for path in paths:
        if batches[-1] and length + len(path) + 1 > _MAX_PATHSPEC_CHARS:
            batches.append([])
            length = 0
        batches[-1].append(path)
        length += len(path) + 1
    return batches


def _git_output(repo_root: Path, args: list[str]) -> str:
    """git's stdout; GitError with git's stripped stderr (or the exit code) when it fails."""
    out, err, code = run_git_command(repo_root, args)
    if code != 0:
        raise GitError(err.strip() or f"git exited with code {code}")
    return out
