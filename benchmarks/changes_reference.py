"""The diff and log parsers written in plain Python: the yardstick of
benchmarks/bench_changes.py. Same rules and same record shapes as the
module's; nothing in the package or the tests imports it."""

from __future__ import annotations

import re
from dataclasses import dataclass
from typing import Iterator, Sequence


@dataclass(frozen=True)
class FileChange:
    path: str
    status: str
    additions: int
    deletions: int
    old_path: str | None = None


@dataclass(frozen=True)
class CommitChanges:
    timestamp: int
    files: tuple[FileChange, ...]


@dataclass(frozen=True)
class LineSpan:
    start: int
    end: int
    added: bool


_STATUS_BY_LETTER = {"A": "added", "C": "copied", "D": "deleted", "M": "modified", "R": "renamed",
                     "T": "modified"}
_TWO_PATH_LETTERS = frozenset({"R", "C"})
_COMMIT_START = "\x1e"
_HUNK_HEADER = re.compile(r"@@ -\d+(?:,(\d+))? \+(\d+)(?:,(\d+))? @@")
_C_ESCAPE = re.compile(r"\\([0-7]{3}|.)", re.DOTALL)
_C_ESCAPES = {"a": "\a", "b": "\b", "f": "\f", "n": "\n", "r": "\r", "t": "\t", "v": "\v"}
_MAX_PATHSPEC_CHARS = 16000


def _line_count(field: str) -> int:
    return int(field) if field and field.isdigit() else 0


def _file_changes(tokens: Sequence[str]) -> list[FileChange]:
    statuses: dict[str, tuple[str, str | None]] = {}
    counts: dict[str, tuple[int, int]] = {}
    stream: Iterator[str] = iter(tokens)
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
    return [
        FileChange(path, status, *counts.get(path, (0, 0)), old_path=old_path)
        for path, (status, old_path) in statuses.items()
    ]


def parse_file_changes(output: str) -> list[FileChange]:
    return _file_changes(output.split("\x00"))


def parse_commit_changes(output: str) -> list[CommitChanges]:
    commits: list[CommitChanges] = []
    current: str | None = None
    body: list[str] = []
    for token in output.split("\x00"):
        head = token.lstrip("\n")
        if head.startswith(_COMMIT_START):
            if current is not None:
                commits.append(CommitChanges(int(current), tuple(_file_changes(body))))
            current = head[1:].strip()
            body = []
        elif current is not None:
            body.append(token)
    if current is not None:
        commits.append(CommitChanges(int(current), tuple(_file_changes(body))))
    return commits


def _unquote(text: str) -> str:
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


def _patch_path(text: str) -> str | None:
    name = text[:-1] if text.endswith("\t") else text
    if name == "/dev/null":
        return None
    if len(name) >= 2 and name[0] == '"' and name[-1] == '"':
        return _unquote(name[1:-1])
    return name


def _span(start: int, new_count: int, old_count: int) -> LineSpan:
    if new_count == 0:
        line = max(start, 1)
        return LineSpan(line, line, False)
    return LineSpan(start, start + new_count - 1, old_count == 0)


def parse_line_spans(patch: str) -> dict[str, list[LineSpan]]:
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


def _path_batches(paths: Sequence[str]) -> list[list[str]]:
    batches: list[list[str]] = [[]]
    length = 0
    for path in paths:
        if batches[-1] and length + len(path) + 1 > _MAX_PATHSPEC_CHARS:
            batches.append([])
            length = 0
        batches[-1].append(path)
        length += len(path) + 1
    return batches
