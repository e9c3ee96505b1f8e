import inspect
import pickle
import re
import subprocess
import sys
from pathlib import Path

import pytest


def test_constants(gu):
    assert gu.logger.name == "morvane_tessary.utils.git_utils" == gu.__name__
    assert gu._RELATIVE_SPEC.pattern == r"(\d+)([mhdw])" and gu._RELATIVE_SPEC.flags == re.UNICODE
    assert gu._HUNK_HEADER.flags == re.UNICODE
    assert gu._C_ESCAPE.pattern == "\\\\([0-7]{3}|.)" and gu._C_ESCAPE.flags & re.DOTALL
    assert gu._C_ESCAPE.fullmatch("\\\n") and gu._C_ESCAPE.fullmatch("\\101")
    assert list(gu._SPEC_UNITS.items()) == [("m", "minutes"), ("h", "hours"), ("d", "days"), ("w", "weeks")]
    assert list(gu._STATUS_BY_LETTER) == list("ACDMRT") and gu._STATUS_BY_LETTER["T"] == "modified"
    assert gu._TWO_PATH_LETTERS == frozenset("RC") and type(gu._TWO_PATH_LETTERS) is frozenset
    assert gu._COMMIT_START == "\x1e" and gu._MAX_PATHSPEC_CHARS == 16000
    assert gu._PATCH_OPTIONS == ("--no-color", "--no-ext-diff", "--no-textconv", "--no-prefix", "-M", "-U0")
    assert gu._C_ESCAPES == dict(zip("abfnrtv", "\a\b\f\n\r\t\v"))
    assert gu.TIME_SPEC_FORMS.startswith("a positive whole number followed by m (minutes)")


def test_git_error(gu):
    assert issubclass(gu.GitError, RuntimeError) and gu.GitError.__module__ == gu.__name__
    assert gu.GitError.__doc__ == "A git command failed; the message carries what git said."
    assert str(gu.GitError("boom")) == "boom"


def test_functions_behave_like_python_functions(gu):
    f = gu.run_git_command
    assert inspect.isroutine(f) and f.__globals__ is vars(gu)
    assert pickle.loads(pickle.dumps(f)) is f


def test_functions_bind_as_methods_and_take_attributes(gu):
    class Holder:
        method = gu._git_output

    bound = Holder().method
    assert bound.__self__.__class__ is Holder and bound.__func__ is gu._git_output
    gu.run_git_command.custom = 1
    try:
        assert vars(gu.run_git_command) == {"custom": 1}
    finally:
        del gu.run_git_command.custom


def reference(repo_root: Path, args: list[str], timeout: int = 30) -> tuple[str, str, int]:
    pass


reference.__qualname__ = "run_git_command"


@pytest.mark.parametrize(
    "args, kwargs",
    [
        ((), {}),
        (("r",), {}),
        (("r", [], 1, 2), {}),
        (("r", [], 1, 2, 3), {"x": 1}),
        (("r",), {"repo_root": "r"}),
        (("r", []), {"nope": 1}),
        ((), {"args": []}),
        (("r", [], 5), {"timeout": 1}),
    ],
)
def test_argument_errors_match_python_functions(gu, args, kwargs):
    with pytest.raises(TypeError) as expected:
        reference(*args, **kwargs)
    with pytest.raises(TypeError) as ours:
        gu.run_git_command(*args, **kwargs)
    assert str(ours.value) == str(expected.value)


def test_import_fails_without_the_host_process_module():
    code = (
        "import sys; sys.modules['morvane_tessary.utils.process'] = None\n"
        "try:\n    import morvane_tessary.utils.git_utils\nexcept ImportError as e: print('ImportError')\n"
    )
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True).stdout
    assert out.strip() == "ImportError"


def test_late_binding(gu, monkeypatch, tmp_path):
    calls = []
    monkeypatch.setattr(gu, "run_git_command", lambda root, args: calls.append((root, args)) or ("out", "", 0))
    assert gu._git_output(tmp_path, ["x"]) == "out" and calls == [(tmp_path, ["x"])]
    monkeypatch.setattr(gu, "run_git_command", lambda root, args: ["o", "e", 7])
    monkeypatch.setattr(gu, "GitError", KeyError)
    with pytest.raises(KeyError):
        gu._git_output(tmp_path, ["x"])
    monkeypatch.setattr(gu, "run_git_command", lambda root, args: ("o", "e"))
    with pytest.raises(ValueError, match=r"not enough values to unpack \(expected 3, got 2\)"):
        gu._git_output(tmp_path, ["x"])
    monkeypatch.delattr(gu, "run_git_command")
    with pytest.raises(NameError, match="name 'run_git_command' is not defined"):
        gu._git_output(tmp_path, ["x"])


def test_runner_uses_a_replaced_subprocess(gu, monkeypatch, tmp_path):
    seen = {}

    class Result:
        stdout, stderr, returncode = "a\r\n", "", 0

    def fake_run(argv, **kwargs):
        seen.update(kwargs, argv=argv)
        return Result()

    monkeypatch.setattr(gu, "subprocess", type(sys)("fake_subprocess"))
    gu.subprocess.run, gu.subprocess.TimeoutExpired = fake_run, subprocess.TimeoutExpired
    assert gu.run_git_command(tmp_path, ["log"]) == ("a\r\n", "", 0)
    assert seen == {"argv": ["git", "log"], "cwd": str(tmp_path), "capture_output": True, "encoding": "utf-8",
                    "errors": "replace", "timeout": 30}
