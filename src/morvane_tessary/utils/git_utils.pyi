import logging as logging
import re as re
import subprocess as subprocess
from collections.abc import Sequence as Sequence
from dataclasses import dataclass as dataclass
from datetime import datetime as datetime, timedelta as timedelta
from pathlib import Path as Path
from typing import Any as Any

from morvane_tessary.utils.process import get_subprocess_hidden_kwargs as get_subprocess_hidden_kwargs

logger: logging.Logger

TIME_SPEC_FORMS: str
_RELATIVE_SPEC: re.Pattern[str]
_SPEC_UNITS: dict[str, str]
_STATUS_BY_LETTER: dict[str, str]
_TWO_PATH_LETTERS: frozenset[str]
_COMMIT_START: str
_PATCH_OPTIONS: tuple[str, ...]
_HUNK_HEADER: re.Pattern[str]
_C_ESCAPE: re.Pattern[str]
_C_ESCAPES: dict[str, str]

class GitError(RuntimeError): ...

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

def find_git_root(start: Path | None = None) -> Path | None: ...
def find_repo_root() -> Path: ...
def resolve_display_branch(repo_root: Path) -> str | None: ...
def normalize_branch_name(name: str | None) -> str | None: ...
def sanitize_branch_name(branch: str) -> str: ...
def wiki_root(repo_root: Path) -> Path: ...
def wiki_directory(repo_root: Path, branch: str) -> Path: ...
def run_git_command(repo_root: Path, args: list[str], timeout: int = 30) -> tuple[str, str, int]: ...
def get_head_commit(repo_root: Path, short: bool = True) -> str | None: ...
def get_default_branch(repo_root: Path) -> str: ...
def branch_exists(repo_root: Path, branch: str) -> bool: ...

_MAX_PATHSPEC_CHARS: int

def resolve_commit(repo_root: Path, name: str) -> str | None: ...

def _git_output(repo_root: Path, args: list[str]) -> str: ...
