"""A report on the git repository around a directory: where it is, which
branch is checked out, how that branch stands against the default branch,
who committed in a period, and what the branch changed since it left the
default branch.

    python -m morvane_tessary.report [PATH] [--since SPEC] [--base REV] [--json]

Exit codes: 0 for a report, 2 when PATH lies in no repository, SPEC is refused
or REV names no commit (one line on standard error).
"""

from __future__ import annotations

import argparse
import json
import os
import sys
from collections.abc import Sequence
from dataclasses import asdict, dataclass
from datetime import datetime
from pathlib import Path
from typing import Any

from morvane_tessary.utils import git_utils

STATUSES = ("added", "modified", "deleted", "renamed", "copied")
# Kinds of change whose touched lines are listed: all but deletions, which
# have no newer side.
SPAN_FILTER = "ACMRT"
# Files listed in the human output, largest first; --json lists them all.
TOP_FILES = 20
SPAN_TEXT_WIDTH = 60


class ReportError(Exception):
    """Why no report can be made, in one line."""


@dataclass
class FileRow:
    path: str
    status: str
    additions: int
    deletions: int
    old_path: str | None
    spans: list[dict[str, Any]]


@dataclass
class Report:
    repository: str
    branch: str | None
    default_branch: str
    default_branch_found: bool
    head: str | None
    head_short: str | None
    wiki_directory: str
    wiki_directory_exists: bool
    base: str | None
    ahead: int | None
    behind: int | None
    since: str
    since_moment: str
    authors: list[dict[str, Any]]
    counts: dict[str, int] | None
    files: list[FileRow] | None
    notes: list[str]


def repository_root(path: Path) -> Path:
    if not path.is_dir():
        raise ReportError(f"{path} is not a directory")
    root = git_utils.find_git_root(path)
    if root is None:
        raise ReportError(f"{path} is not inside a git repository")
    _out, err, code = git_utils.run_git_command(root, ["rev-parse", "--git-dir"])
    if code != 0:
        reason = err.strip().splitlines()[-1] if err.strip() else f"git exited with code {code}"
        raise ReportError(f"{root} is not a usable git repository: {reason}")
    return root


def comparison_base(root: Path, default: str, requested: str | None) -> str | None:
    """The revision the branch is compared with: --base, else the default
    branch, locally or on origin; None when neither exists."""
    if requested is not None:
        if git_utils.resolve_commit(root, requested) is None:
            raise ReportError(f"--base {requested!r} names no commit")
        return requested
    for name in (default, f"origin/{default}"):
        if git_utils.resolve_commit(root, name) is not None:
            return name
    return None


def authors_of_period(root: Path, since: str, moment: datetime) -> list[dict[str, Any]]:
    """The authors of HEAD's history since the moment.

    git shortlog without a revision summarises HEAD only when standard input
    is a terminal; otherwise it reads a log from standard input (and waits for
    it when nobody writes). With a terminal the module's query is used as it
    stands; without one the same summary is asked for with HEAD named. Callers
    skip a repository without commits: there git would read the terminal.
    """
    if os.isatty(0):
        return git_utils.get_authors_for_period(root, since)
    out, _err, code = git_utils.run_git_command(
        root, ["shortlog", f"--since={moment:%Y-%m-%d %H:%M:%S}", "-sne", "HEAD"])
    return parse_shortlog(out) if code == 0 else []


def parse_shortlog(output: str) -> list[dict[str, Any]]:
    """Lines "  COUNT<TAB>NAME <EMAIL>" as get_authors_for_period reads them."""
    authors = []
    for line in output.strip().split("\n"):
        count, tab, rest = line.strip().partition("\t")
        if not tab:
            continue
        name, email = rest, ""
        if "<" in rest and ">" in rest:
            name, _, email = rest.partition("<")
            name, email = name.strip(), email.split(">")[0].split("<")[0]
        authors.append({"name": name, "email": email, "commits": int(count)})
    return authors


def changed_files(root: Path, base: str) -> tuple[dict[str, int], list[FileRow]]:
    changes = git_utils.diff_file_changes(root, base, "HEAD")
    spans = git_utils.diff_line_spans(root, base, "HEAD", merge_base=True, diff_filter=SPAN_FILTER)
    counts = {status: 0 for status in STATUSES}
    rows = []
    for change in changes:
        counts[change.status] = counts.get(change.status, 0) + 1
        rows.append(FileRow(change.path, change.status, change.additions, change.deletions, change.old_path,
                            [asdict(span) for span in spans.get(change.path, [])]))
    rows.sort(key=lambda row: (-(row.additions + row.deletions), row.path))
    return counts, rows


def build_report(path: Path, since: str, base_option: str | None) -> Report:
    root = repository_root(path)
    try:
        moment = git_utils.parse_time_spec(since)
    except ValueError as refused:
        raise ReportError(str(refused)) from None
    notes = []
    branch = git_utils.resolve_display_branch(root)
    default = git_utils.get_default_branch(root)
    head = git_utils.get_head_commit(root, short=False)
    base = comparison_base(root, default, base_option)
    wiki = git_utils.wiki_directory(root, git_utils.normalize_branch_name(branch) or "")
    if branch is None:
        notes.append("detached HEAD: the wiki directory is the one for no branch")
    ahead = behind = counts = files = None
    if head is None:
        notes.append("no commits yet")
    elif base is None:
        notes.append(f"no default branch: neither {default} nor origin/{default} exists")
    else:
        try:
            ahead = git_utils.count_commits(root, base, "HEAD")
            behind = git_utils.count_commits(root, "HEAD", base)
            counts, files = changed_files(root, base)
        except git_utils.GitError as failed:
            notes.append(f"comparison with {base} failed: {failed}")
    return Report(
        repository=str(root), branch=branch, default_branch=default,
        default_branch_found=git_utils.branch_exists(root, default), head=head,
        head_short=git_utils.get_head_commit(root) if head else None, wiki_directory=str(wiki),
        wiki_directory_exists=wiki.is_dir(), base=base, ahead=ahead, behind=behind, since=since,
        since_moment=moment.isoformat(sep=" ", timespec="seconds"),
        authors=authors_of_period(root, since, moment) if head else [], counts=counts, files=files, notes=notes)


def table(rows: Sequence[Sequence[str]], right: Sequence[int] = ()) -> list[str]:
    """Rows of cells as aligned lines; the columns in `right` align right."""
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    lines = []
    for row in rows:
        cells = [cell.rjust(w) if i in right else cell.ljust(w) for i, (cell, w) in enumerate(zip(row, widths))]
        lines.append("  ".join(cells).rstrip())
    return lines


def span_text(spans: list[dict[str, Any]]) -> str:
    parts = [str(s["start"]) if s["start"] == s["end"] else f"{s['start']}-{s['end']}" for s in spans]
    text = ", ".join(parts)
    if len(text) > SPAN_TEXT_WIDTH:
        text = text[:SPAN_TEXT_WIDTH].rsplit(", ", 1)[0] + f", ... ({len(parts)} spans)"
    return text


def human(report: Report) -> str:
    def optional(value: object, missing: str) -> str:
        return missing if value is None else str(value)

    summary = [
        ("repository", report.repository),
        ("branch", optional(report.branch, "(detached HEAD)")),
        ("default branch", report.default_branch + ("" if report.default_branch_found else " (not found)")),
        ("HEAD", optional(report.head_short, "(no commits yet)")),
        ("wiki directory", report.wiki_directory + ("" if report.wiki_directory_exists else " (not created yet)")),
        ("compared with", optional(report.base, "-")),
        ("ahead", optional(report.ahead, "-")),
        ("behind", optional(report.behind, "-")),
        ("period", f"since {report.since} ({report.since_moment})"),
    ]
    lines = table(summary)
    lines += [f"note: {note}" for note in report.notes]
    lines.append("")
    if report.authors:
        rows: list[tuple[str, ...]] = [("commits", "author")]
        rows += [(str(a["commits"]), f"{a['name']} <{a['email']}>" if a["email"] else a["name"]) for a in report.authors]
        lines += table(rows, right=[0])
    else:
        lines.append("no commits in the period")
    if report.files is not None and report.counts is not None:
        lines.append("")
        added = sum(row.additions for row in report.files)
        deleted = sum(row.deletions for row in report.files)
        by_status = ", ".join(f"{n} {status}" for status, n in report.counts.items() if n)
        lines.append(f"changed since leaving {report.base}: {len(report.files)} files"
                     + (f" ({by_status}), +{added} -{deleted} lines" if report.files else ""))
        if report.files:
            listing = [("status", "+", "-", "path", "lines")]
            for row in report.files[:TOP_FILES]:
                path = row.path if row.old_path is None else f"{row.path} (from {row.old_path})"
                listing.append((row.status, str(row.additions), str(row.deletions), path, span_text(row.spans)))
            lines += table(listing, right=[1, 2])
            if len(report.files) > TOP_FILES:
                lines.append(f"... and {len(report.files) - TOP_FILES} smaller files (--json lists all)")
    return "\n".join(lines)


def as_json(report: Report) -> str:
    document = asdict(report)
    counts, files, notes = document.pop("counts"), document.pop("files"), document.pop("notes")
    document["changes"] = None if files is None else {"counts": counts, "files": files}
    document["notes"] = notes
    return json.dumps(document, indent=2, ensure_ascii=False)


def main(argv: Sequence[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="python -m morvane_tessary.report",
                                     description="Report on the git repository around PATH.")
    parser.add_argument("path", nargs="?", default=".", metavar="PATH",
                        help="a directory in the repository (default: the working directory)")
    parser.add_argument("--since", default="30d", metavar="SPEC",
                        help="start of the authors' period: 7d, 24h, 30m, 2w or an ISO date (default: 30d)")
    parser.add_argument("--base", metavar="REV",
                        help="compare with this revision instead of the default branch")
    parser.add_argument("--json", action="store_true", help="print one JSON document")
    args = parser.parse_args(argv)
    try:
        report = build_report(Path(args.path), args.since, args.base)
    except ReportError as error:
        print(f"{parser.prog}: error: {error}", file=sys.stderr)
        return 2
    try:
        print(as_json(report) if args.json else human(report), flush=True)
    except BrokenPipeError:  # a reader such as head stopped early: no traceback at exit
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    return 0


if __name__ == "__main__":
    sys.exit(main())
