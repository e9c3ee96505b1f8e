"""The module loaded again in subinterpreters beside the main one: one with its own GIL and one sharing it.
From 3.14 the isolated one is made through concurrent.interpreters, the public API a host would use."""
import sys
import textwrap

import pytest
from proof_support import make_repo, query_table

pytestmark = pytest.mark.skipif(sys.version_info < (3, 13), reason="_interpreters arrives with 3.13")


def answers(repo):
    from morvane_tessary.utils import git_utils as gu

    found = {name: repr(call()) for name, call in query_table(repo)}
    try:
        gu._git_output(repo, ["rev-parse", "--verify", "nope"])
    except gu.GitError as e:
        found["GitError"] = f"{type(e).__module__}.{type(e).__qualname__}: {e}"
    found["parse_time_spec"] = repr(gu.parse_time_spec("2024-01-02T03:04:05+01:00"))
    found["records"] = repr((gu.parse_file_changes(":1 2 a b R090\0o\0n\0"), gu.parse_line_spans("+++ x\n@@ -1 +1,2 @@")))
    found["wiki_directory"] = repr(gu.wiki_directory(repo, "feature/ä b"))
    return found


def run_in(config, source):
    code = f"import sys\nsys.path[:] = {sys.path!r}\n{textwrap.dedent(source)}"
    if config == "isolated" and sys.version_info >= (3, 14):  # the public API a host would use
        from concurrent import interpreters

        interp = interpreters.create()
        try:
            interp.exec(code)  # raises ExecutionFailed, with the subinterpreter's traceback
        finally:
            interp.close()
        return
    import _interpreters

    interp = _interpreters.create(config)
    try:
        failure = _interpreters.exec(interp, code)
    finally:
        _interpreters.destroy(interp)
    assert failure is None, failure.errdisplay


@pytest.fixture(scope="module")
def repo(tmp_path_factory):
    return make_repo(tmp_path_factory.mktemp("interp"))


@pytest.mark.parametrize("config", ["isolated", "legacy"])
def test_subinterpreter_gives_the_main_interpreters_answers(repo, tmp_path, config, quiet_stdin):
    out = tmp_path / "answers"
    run_in(config, f"""
        from pathlib import Path
        import test_interpreters
        Path({str(out)!r}).write_text(repr(test_interpreters.answers(Path({str(repo)!r}))))
    """)
    assert eval(out.read_text()) == answers(repo)


@pytest.mark.slow
def test_soak_inside_an_isolated_subinterpreter(repo, quiet_stdin):
    run_in("isolated", f"""
        from pathlib import Path
        import test_proof_load
        test_proof_load.test_soak_leaves_memory_descriptors_and_children_unchanged(Path({str(repo)!r}), None)
    """)
