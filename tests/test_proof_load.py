"""Soak and thread tests: no growth of memory, descriptors or children; threads get single-threaded answers.
(That the interpreter's lock is free while git runs shows in test_proof_faults: eight time-outs at once.)"""
import gc
import itertools
import sys
import threading
import time

import pytest
from proof_support import MB, assert_nothing_left, make_repo, query_table, snapshot

from morvane_tessary.utils import git_utils as gu

pytestmark = pytest.mark.slow

SOAK_CALLS, SOAK_SPAWNING = 20_000, 2_000
PATCH = ["-c", "core.quotepath=off", "diff", "--no-color", "--no-ext-diff", "--no-prefix", "-M", "-U0"]


@pytest.fixture(scope="module")
def repo(tmp_path_factory):
    return make_repo(tmp_path_factory.mktemp("proof"))


def soak_calls(repo):
    outputs = {
        gu.parse_file_changes: gu._git_output(repo, ["diff", "--raw", "--numstat", "-M", "-z", "main", "feature"]),
        gu.parse_commit_changes: gu._git_output(repo, ["log", "--format=%x1e%ct", "--raw", "--numstat", "-M", "-z"]),
        gu.parse_line_spans: gu._git_output(repo, [*PATCH, "main", "feature"]),
    }
    parsing = [(lambda p=parse, o=output: p(o), parse(output)) for parse, output in outputs.items()]
    spawning = [(call, call()) for _, call in query_table(repo)]
    assert all(expected for _, expected in parsing)
    return spawning, parsing


def run_mix(spawning, parsing, calls, spawns):
    spawn_every = calls // spawns
    cycle_spawn, cycle_parse = itertools.cycle(spawning), itertools.cycle(parsing)
    for i in range(calls):
        call, expected = next(cycle_spawn) if i % spawn_every == 0 else next(cycle_parse)
        assert call() == expected, i


def test_soak_leaves_memory_descriptors_and_children_unchanged(repo, quiet_stdin):
    spawning, parsing = soak_calls(repo)
    run_mix(spawning, parsing, 5_000, 500)  # fill caches and the interpreter's free lists first
    gc.collect()
    before, blocks = snapshot(), sys.getallocatedblocks()
    run_mix(spawning, parsing, SOAK_CALLS, SOAK_SPAWNING)
    gc.collect()
    # One block kept per git run or per parse would add 2,000 or 18,000.
    assert sys.getallocatedblocks() - blocks < 1_000 and gc.isenabled()
    assert_nothing_left(before, rss_slack=2 * MB)


def test_threads_get_the_single_threaded_answers(repo, runner_path, quiet_stdin):
    table = query_table(repo)
    expected = {name: call() for name, call in table}
    before = snapshot()
    done, errors, stop_at = [], [], time.monotonic() + 2

    def work(i):
        try:
            for name, call in itertools.islice(itertools.cycle(table), i, None):
                assert call() == expected[name], name
                done.append(name)
                if time.monotonic() > stop_at:
                    return
        except BaseException as e:  # reported below, in the test's thread
            errors.append(e)

    threads = [threading.Thread(target=work, args=(i,), daemon=True) for i in range(8)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout=32)
    assert not any(t.is_alive() for t in threads), "deadlock: threads still running"
    assert errors == [] and set(done) == set(expected) and len(done) > 8 * len(table) and gc.isenabled()
    assert_nothing_left(before)
