"""A C++ allocation that fails inside the native code reaches the caller as MemoryError, at every allocation of a
call. Runs against a test build only (CMake option GITUTILS_FAULT_INJECTION, as CI's debug-interpreter leg builds
it), whose operator new fails on demand."""
import ctypes
import datetime as dt
import functools
import os

import proof_support
import pytest

from morvane_tessary.utils import git_utils

try:
    _extension = ctypes.CDLL(git_utils.__file__)
    fail_new_at, new_calls = _extension.gitutils_fail_new_at, _extension.gitutils_new_calls
except AttributeError:
    pytest.skip("built without GITUTILS_FAULT_INJECTION", allow_module_level=True)
fail_new_at.argtypes, new_calls.restype = [ctypes.c_long], ctypes.c_long

CALLS = {  # the spawn, the collectors of the change queries, the patch walk, a time spec's digits, unquoting
    "run_git_command": lambda gu, repo: gu.run_git_command(repo, ["rev-parse", "HEAD"]),
    "diff_file_changes": lambda gu, repo: gu.diff_file_changes(repo, "main^1", "feature"),
    "log_commit_changes": lambda gu, repo: gu.log_commit_changes(repo, since=dt.datetime(2025, 12, 1), ref=None,
                                                                 max_commits=10),
    "diff_line_spans": lambda gu, repo: gu.diff_line_spans(repo, "main^1", "feature", merge_base=True),
    "parse_time_spec": lambda gu, repo: gu.parse_time_spec("99999999999999999999d"),
    "_unquote": lambda gu, repo: gu._unquote("dir/a\\tb\\303\\251"),
}


def outcome(call):
    try:
        return call()
    except Exception as e:
        return type(e), str(e)


@pytest.fixture(scope="module")
def repo(tmp_path_factory):
    return proof_support.make_repo(tmp_path_factory.mktemp("failing-new"))


@pytest.mark.parametrize("name", CALLS)
def test_each_failed_allocation_gives_memory_error(gu, repo, name):
    call = functools.partial(CALLS[name], gu, repo)
    expected, point = outcome(call), 0
    descriptors = len(os.listdir("/proc/self/fd"))
    while True:
        fail_new_at(point)
        try:
            got = outcome(call)
        finally:
            made = new_calls()
            fail_new_at(-1)
        if made <= point:  # the call ended before allocation number `point`
            break
        assert got in (expected, (MemoryError, "")), f"allocation {point}"
        assert len(os.listdir("/proc/self/fd")) == descriptors, f"allocation {point} left descriptors open"
        point += 1
    assert got == expected and point > 0
