import copy
import dataclasses
import gc
import pickle
import re
import types

import pytest
from hypothesis import given, settings, strategies as st

from morvane_tessary.utils import git_utils as gu

FC, CC, LS = gu.FileChange, gu.CommitChanges, gu.LineSpan


def z(*tokens):
    return "\0".join(tokens)


# The diff of the documented example: tokens in git's order, records in raw-record order.
DIFF_TOKENS = [":100644 100644 aaaaaaa bbbbbbb M", "src/a.py", ":000000 100644 0000000 ccccccc A", "docs/new.md",
               ":100644 100644 ddddddd eeeeeee R087", "old/name.py", "new/name.py", ":100644 000000 fffffff 0000000 D",
               "gone.txt", ":100644 100644 abcdefa bcdefab M", "logo.png", "3\t1\tsrc/a.py", "10\t0\tdocs/new.md",
               "2\t2\t", "old/name.py", "new/name.py", "0\t7\tgone.txt", "-\t-\tlogo.png", ""]
DIFF_RECORDS = [FC("src/a.py", "modified", 3, 1), FC("docs/new.md", "added", 10, 0),
                FC("new/name.py", "renamed", 2, 2, old_path="old/name.py"), FC("gone.txt", "deleted", 0, 7),
                FC("logo.png", "modified", 0, 0)]
LOG = z("\x1e1700000300", "\n:100644 100644 aaaaaaa bbbbbbb M", "a.txt", "1\t1\ta.txt", "\x1e1700000200",
        "\x1e1700000100", "\n:000000 100644 0000000 ddddddd A", "b.txt", "5\t0\tb.txt", "")
LOG_RECORDS = [CC(1700000300, (FC("a.txt", "modified", 1, 1),)), CC(1700000200, ()),
               CC(1700000100, (FC("b.txt", "added", 5, 0),))]
H = ":1 2 a b "  # a raw head without its status


# Ordinary streams come from the models at the end; these rows are what git never prints.
@pytest.mark.parametrize(
    "output, expected",
    [
        (z(*DIFF_TOKENS), DIFF_RECORDS),
        (z(H + "X", "x", H, "e", ":M", "m"), [FC(p, "modified", 0, 0) for p in "xem"]),
        (z(H + "M", "a", H + "A"), [FC("a", "modified", 0, 0)]),  # head without its path
        (z(H + "A", "a", H + "R100", "only-old"), [FC("a", "added", 0, 0)]),
        (z(H + "A", "", "x", H + "D", "d"), [FC("d", "deleted", 0, 0)]),  # an empty path records nothing
        (z(" " + H + "A", "a"), []),  # only line feeds are removed before the test
        # Path tokens are taken as they stand: never stripped, never read as records.
        (z(H + "A", "\n:x", H + "A", "3\t4\tq", "5\t6\t\n:x", "9\t9\t3\t4\tq"),
         [FC("\n:x", "added", 5, 6), FC("3\t4\tq", "added", 9, 9)]),
        # Ties: first place, last status; last counts; counts without a raw record dropped.
        (z(H + "A", "p", H + "M", "q", H + "R1", "o", "p", "1\t1\tp", "2\t2\tp", "7\t7\tnone"),
         [FC("p", "renamed", 2, 2, old_path="o"), FC("q", "modified", 0, 0)]),
        (z(H + "M", "é", "12345678901234567890123\t-\té"), [FC("é", "modified", 12345678901234567890123, 0)]),
    ],
)
def test_parse_file_changes(output, expected):
    assert gu.parse_file_changes(output) == expected
    assert gu._file_changes(output.split("\0")) == expected
    assert gu._file_changes(tuple(output.split("\0"))) == expected


@pytest.mark.parametrize("field, expected", [("3", 3), ("007", 7), ("-", 0), ("", 0), ("1a", 0), (" 1", 0), ("+1", 0),
                                             ("-1", 0), ("1.0", 0), ("98765432109876543210", 98765432109876543210),
                                             # not a str: the truth test, then its own isdigit and int
                                             (None, 0), (0, 0), ([], 0), (b"12", 12), (b"1a", 0)])
def test_line_count(field, expected):
    assert gu._line_count(field) == expected and type(gu._line_count(field)) is int


@pytest.mark.parametrize(
    "output, expected",
    [
        (LOG, LOG_RECORDS),
        (z("x", H + "A", "a", "\x1e5"), [CC(5, ())]),  # tokens before the first header are ignored
        (z("\n\n\x1e 42 \n", H + "A", "a"), [CC(42, (FC("a", "added", 0, 0),))]),
        # A header is a header even where a path was due, and body tokens keep their line feeds.
        (z("\x1e1", H + "A", "\x1e2", H + "A", "\nx"), [CC(1, ()), CC(2, (FC("\nx", "added", 0, 0),))]),
        # The interpreter's int(): signs, underscores, other digits, Unicode blanks, huge values.
        (z("\x1e-3", "\x1e+4", "\x1e1_000", "\x1e\u0664\u0662", "\x1e\x1e7\u2003", "\x1e99999999999999999999"),
         [CC(-3, ()), CC(4, ()), CC(1000, ()), CC(42, ()), CC(7, ()), CC(99999999999999999999, ())]),
        *[(log, ValueError(f"invalid literal for int() with base 10: {t!r}"))  # a header time that is no number
          for log, t in [("\x1e", ""), (z("\x1e1", "", "\x1eabc", "x"), "abc"), ("\x1e1 2", "1 2")]],
    ],
)
def test_parse_commit_changes(output, expected):
    if isinstance(expected, ValueError):
        assert str(pytest.raises(ValueError, gu.parse_commit_changes, output).value) == str(expected)
    else:
        result = gu.parse_commit_changes(output)
        assert result == expected and all(type(c.files) is tuple for c in result)


# ---- patches ----------------------------------------------------------------


def patch(name, *lines):
    return "\n".join(["diff --git x y", "index 1..2 100644", "--- a", "+++ " + name, *lines, ""])


@pytest.mark.parametrize(
    "text, expected",
    [
        # Header-like lines inside a hunk are its lines; the counters run even for /dev/null.
        (patch("f", "@@ -0,0 +1,2 @@", "+++ b", "+x") + patch("g", "@@ -1 +1,2 @@", "@@ -7 +7 @@", "-x", "+y", "+z"),
         {"f": [LS(1, 2, True)], "g": [LS(1, 2, False)]}),
        (patch("/dev/null", "@@ -1,2 +0,0 @@", "+++ evil", "@@ -1 +1 @@", "-x", "-y", "@@ -3 +3 @@"), {}),
        (patch("f", "@@ -1 +1 @@", "+a", "+b", "-c", "@@ -4 +6 @@", " ctx", "+x"),
         {"f": [LS(1, 1, False), LS(6, 6, False)]}),
        # Lines are cut at line feeds only.
        ("+++ f\r\n@@ -1 +1 @@\r\n-a\r\n+b\r\n", {"f\r": [LS(1, 1, False)]}),
        ("+++ f\n @@ -1 +1 @@\n@@ -1 +1@@\n@@ -x +1 @@\n@@ -1,2 +3, @@\n+++f\n", {}),
        (patch("", "@@ -1 +1 @@", "-a", "+b"), {"": [LS(1, 1, False)]}),
        (patch("f", "@@ -01,02 +003,004 @@", "-a", "-b", "+c", "+d", "+e", "+f", "@@ -1 +\u0665,\u0662 @@", "-x", "+y"),
         {"f": [LS(3, 6, False), LS(5, 6, False)]}),
        (patch("f", "@@ -1 +99999999999999999999,2 @@", "-a", "+b", "+c", "@@ -0,0 +1,99999999999999999999 @@",
               "@@ -1 +1 @@"), {"f": [LS(99999999999999999999, 100000000000000000000, False),
                                       LS(1, 99999999999999999999, True)]}),
    ],
)
def test_parse_line_spans(text, expected):
    result = gu.parse_line_spans(text)
    assert result == expected and list(result) == list(expected)
    assert all(type(s.start) is int and type(s.added) is bool for spans in result.values() for s in spans)


@pytest.mark.parametrize(
    "name, expected",
    [
        # Names the patch model quotes come from there; these are the ones git never writes.
        ("a\t\t", "a\t"), ('"/dev/null"', "/dev/null"), ('"', '"'), ('""', ""), ('x"', 'x"'), ('"x', '"x'),
    ],
)
def test_patch_path(name, expected):
    assert gu._patch_path(name) == expected
    assert gu.parse_line_spans(patch(name, "@@ -1 +1 @@", "-a", "+b")) == {expected: [LS(1, 1, False)]}


@pytest.mark.parametrize(
    "text, expected",
    [
        ("\\a\\b\\f\\n\\r\\t\\v", "\a\b\f\n\r\t\v"), ("\\12x", "12x"), ("end\\", "end\\"),
        ("\\\n", "\n"), ("\\z\\é", "zé"), ("\\303", "\ufffd"), ("\\377\\000", "\ufffd\x00"), ("é\\303\\251", "éé"),
        ("\\\\303", "\\303"), ("\\3031", "\ufffd1"), ("\\360\\237\\230\\200!", "\U0001f600!"),
        ("\\400", ValueError), ("ok\\777", ValueError), ("\\303\\251\\401", ValueError),  # above a byte
        (("a\\tb",), TypeError), ((), TypeError),  # handed to the pattern whole, as finditer(text) takes it
    ],
)
def test_unquote(text, expected):
    if isinstance(expected, type):
        pytest.raises(expected, gu._unquote, text)
    else:
        assert gu._unquote(text) == expected


@pytest.mark.parametrize(
    "start, new_count, old_count, expected",
    [
        (5, 1, 1, LS(5, 5, False)), (1, 3, 0, LS(1, 3, True)), (9, 0, 2, LS(9, 9, False)), (0, 0, 2, LS(1, 1, False)),
        (-5, 0, 1, LS(1, 1, False)), (3, 2, 7, LS(3, 4, False)), (2**70, 2, 0, LS(2**70, 2**70 + 1, True)),
    ],
)
def test_span(start, new_count, old_count, expected):
    assert gu._span(start, new_count, old_count) == expected


# ---- records built natively ---------------------------------------------------


@pytest.mark.parametrize(
    "build, called",
    [
        (lambda: gu.parse_file_changes(z(H + "R1", "o", "n", "1\t2\t", "o", "n", H + "A", "é")),
         [FC("n", "renamed", 1, 2, old_path="o"), FC("é", "added", 0, 0)]),
        (lambda: gu.parse_commit_changes(LOG), LOG_RECORDS),
        (lambda: gu.parse_line_spans(patch("f", "@@ -0,0 +1 @@", "+a"))["f"], [LS(1, 1, True)]),
        (lambda: [gu._span(4, 0, 1)], [LS(4, 4, False)]),
    ],
)
def test_native_records_equal_called_ones(build, called):
    try:  # the collector, paused while records are filled, is as the host left it afterwards
        gc.disable()
        build()
        assert not gc.isenabled()
    finally:
        gc.enable()
    native = build()
    assert gc.isenabled()
    for a, b in zip(native, called, strict=True):
        assert type(a) is type(b) and a == b and hash(a) == hash(b) and repr(a) == repr(b)
        assert [(k, v, type(v)) for k, v in vars(a).items()] == [(k, v, type(v)) for k, v in vars(b).items()]
        assert dataclasses.asdict(a) == dataclasses.asdict(b) and dataclasses.fields(a) == dataclasses.fields(b)
        for clone in (pickle.loads(pickle.dumps(a)), copy.deepcopy(a), dataclasses.replace(a)):
            assert type(clone) is type(b) and clone == b and list(vars(clone)) == list(vars(b))
        with pytest.raises(dataclasses.FrozenInstanceError):
            a.__setattr__(dataclasses.fields(a)[0].name, 0)


# ---- late binding -------------------------------------------------------------

SPANS_PATCH = (patch('"a\\tb"', "@@ -10,0 +11,2 @@", "+a", "+++ b", "@@ -3 +2,0 @@", "-x")
               + patch("/dev/null", "@@ -1 +0,0 @@", "-y") + patch("c", "@@ -1 +1 @@", "-p", "+q"))


def c(*args, **kwargs):
    return args, kwargs


def shouting(cls):
    """An __init__ patched in place, as a host might: the first field upper-cased or negated. Like any
    Python code it runs with the cyclic collector as the host left it."""
    init = cls.__init__

    def patched(self, first, *a, **k):
        assert gc.isenabled()
        init(self, first.upper() if isinstance(first, str) else -first, *a, **k)

    return patched


@pytest.mark.parametrize(
    "name, replacement, run, expected",
    [
        ("_STATUS_BY_LETTER", {"M": "MOD", "é": "accent"},
         lambda: gu.parse_file_changes(z(H + "M", "x", H + "éR", "y", H + "A", "z")),
         [FC("x", "MOD", 0, 0), FC("y", "accent", 0, 0), FC("z", "modified", 0, 0)]),
        ("_TWO_PATH_LETTERS", ("M",), lambda: gu.parse_file_changes(z(H + "M", "old", "new", H + "R9", "x")),
         [FC("new", "modified", 0, 0, old_path="old"), FC("x", "renamed", 0, 0)]),
        ("_COMMIT_START", "#", lambda: gu.parse_commit_changes(z("#5", H + "A", "f", "\x1e6", "\n#7")),
         [CC(5, (FC("f", "added", 0, 0),)), CC(7, ())]),
        ("_HUNK_HEADER", re.compile(r"## -\d+(?:,(\d+))? \+(\d+)(?:,(\d+))? ##"),
         lambda: gu.parse_line_spans("+++ f\n@@ -1 +1 @@\n## -2 +3,2 ##\n+a\n+b\n"), {"f": [LS(3, 4, False)]}),
        ("_C_ESCAPES", {"t": "T", "q": "Q"}, lambda: gu._unquote("\\t\\q\\n"), "TQn"),
        ("_C_ESCAPE", re.compile(r"%([0-7]{3}|.)", re.DOTALL), lambda: gu._unquote("%303%251\\t%%"), "é\\t%"),
        # Replacements that hand back their arguments show each call the original would get.
        ("FileChange", c, lambda: gu.parse_file_changes(z(*DIFF_TOKENS)),
         [c(r.path, r.status, r.additions, r.deletions, old_path=r.old_path) for r in DIFF_RECORDS]),
        ("FileChange", c, lambda: gu.parse_commit_changes(LOG),
         [CC(r.timestamp, tuple(c(f.path, f.status, f.additions, f.deletions, old_path=None) for f in r.files))
          for r in LOG_RECORDS]),
        ("CommitChanges", c, lambda: gu.parse_commit_changes(LOG), [c(r.timestamp, r.files) for r in LOG_RECORDS]),
        ("LineSpan", c, lambda: gu.parse_line_spans(SPANS_PATCH),
         {"a\tb": [c(11, 12, True), c(2, 2, False)], "c": [c(1, 1, False)]}),
        ("_span", lambda *a: a, lambda: gu.parse_line_spans(SPANS_PATCH), {"a\tb": [(11, 2, 0), (2, 0, 1)], "c": [(1, 1, 1)]}),
        # The classes themselves patched in place: records are made through what the class now runs.
        ("FileChange.__init__", shouting(FC), lambda: gu.parse_file_changes(z(*DIFF_TOKENS)),
         [dataclasses.replace(r, path=r.path.upper()) for r in DIFF_RECORDS]),
        ("FileChange.__init__", shouting(FC), lambda: gu.parse_commit_changes(LOG),
         [CC(r.timestamp, tuple(dataclasses.replace(f, path=f.path.upper()) for f in r.files)) for r in LOG_RECORDS]),
        ("CommitChanges.__init__", shouting(CC), lambda: gu.parse_commit_changes(LOG),
         [CC(-r.timestamp, r.files) for r in LOG_RECORDS]),
        ("LineSpan.__init__", shouting(LS), lambda: gu.parse_line_spans(SPANS_PATCH),
         {"a\tb": [LS(-11, 12, True), LS(-2, 2, False)], "c": [LS(-1, 1, False)]}),
        ("_patch_path", lambda t: None if t == "skip" else t.upper(),
         lambda: gu.parse_line_spans(patch("a\t", "@@ -1 +1 @@", "-x", "+y") + patch("skip", "@@ -1 +1 @@", "-x", "+y")),
         {"A\t": [LS(1, 1, False)]}),
        ("_unquote", lambda t: f"<{t}>", lambda: gu._patch_path('"a\\tb"'), "<a\\tb>"),
        ("_line_count", lambda f: f, lambda: gu.parse_file_changes(z(*DIFF_TOKENS)),
         [FC(r.path, r.status, *counts, old_path=r.old_path) for r, counts in
          zip(DIFF_RECORDS, [("3", "1"), ("10", "0"), ("2", "2"), ("0", "7"), ("-", "-")])]),
        ("_file_changes", list, lambda: gu.parse_file_changes("a\0b"), ["a", "b"]),
        ("_file_changes", list, lambda: gu.parse_commit_changes(LOG),
         [CC(LOG_RECORDS[0].timestamp, ("\n:100644 100644 aaaaaaa bbbbbbb M", "a.txt", "1\t1\ta.txt")),
          CC(LOG_RECORDS[1].timestamp, ()),
          CC(LOG_RECORDS[2].timestamp, ("\n:000000 100644 0000000 ddddddd A", "b.txt", "5\t0\tb.txt", ""))]),
        *[(name, None, run, NameError(f"name '{name}' is not defined")) for name, run in [
            ("_file_changes", lambda: gu.parse_file_changes("")), ("_line_count", lambda: gu._file_changes(["1\t2\tx"])),
            ("CommitChanges", lambda: gu.parse_commit_changes("\x1e1")), ("LineSpan", lambda: gu._span(1, 1, 1)),
            ("_span", lambda: gu.parse_line_spans("+++ f\n@@ -1 +1 @@")), ("_unquote", lambda: gu._patch_path('"x"'))]],
    ],
)
def test_replaced_helpers_change_the_result(monkeypatch, name, replacement, run, expected):
    *owner, name = name.split(".")
    target = getattr(gu, owner[0]) if owner else gu
    if replacement is None:
        monkeypatch.delattr(gu, name)
        with pytest.raises(NameError, match=f"^{re.escape(str(expected))}$"):
            run()
    else:
        monkeypatch.setattr(target, name, replacement)
        assert run() == expected


def test_patched_new_makes_the_records(fresh):
    fresh.LineSpan.__new__ = lambda cls, *a: a
    assert fresh.parse_line_spans(SPANS_PATCH) == {"a\tb": [(11, 12, True), (2, 2, False)], "c": [(1, 1, False)]}


def test_hunk_header_sees_only_lines_outside_hunk_bodies(monkeypatch):
    calls, header = [], gu._HUNK_HEADER
    monkeypatch.setattr(gu, "_HUNK_HEADER", types.SimpleNamespace(match=lambda line: calls.append(line) or header.match(line)))
    assert gu.parse_line_spans("+++ f\n@@ -1 +1 @@\n-@@ -2 +2 @@\n+x\n@@ -5 +5 @@ g\n-y\n+z\n") == {
        "f": [LS(1, 1, False), LS(5, 5, False)]}
    assert calls == ["@@ -1 +1 @@", "@@ -5 +5 @@ g", ""]


# ---- properties: streams and patches rendered from a model --------------------

STATUS = {"A": "added", "C": "copied", "D": "deleted", "M": "modified", "R": "renamed", "T": "modified"}
names = st.text(st.sampled_from(list("ab/._-: \t\n\r\"\\\x01\x7f") + ["é", "ü", "\u3000", "\U0001f600"]), min_size=1,
                max_size=10)
numbers = st.one_of(st.integers(0, 99), st.integers(0, 2**70))


@st.composite
def file_changes(draw):
    files = draw(st.lists(st.tuples(names, st.sampled_from("ACDMRTUX"), names, st.booleans(),
                                    st.one_of(st.none(), st.just(("-", "-")), st.tuples(numbers, numbers))),
                          unique_by=lambda f: f[0], max_size=6))
    raw, numstat, records = [], [], []
    for path, letter, old, newline, counts in files:
        old = old if letter in "RC" else None
        raw += ["\n" * newline + f":100644 100644 1234567 89abcde {letter}{'075' if old else ''}", *[old] * bool(old), path]
        if counts:
            fields = "\t".join(map(str, counts)) + "\t"
            numstat.append([fields, old, path] if old else [fields + path])
        added, deleted = (0, 0) if counts in (None, ("-", "-")) else counts
        records.append(FC(path, STATUS.get(letter, "modified"), added, deleted, old_path=old))
    numstat = draw(st.permutations(numstat))
    return records, raw + [token for record in numstat for token in record] + [""]


@settings(max_examples=200, deadline=None)
@given(file_changes(), st.lists(st.tuples(st.integers(0, 2**40), file_changes()), max_size=4))
def test_streams_rendered_from_a_model(diff, log):
    records, tokens = diff
    assert gu.parse_file_changes(z(*tokens)) == records
    stream = []
    for time, (_, body) in log:  # git puts a line feed between a header and the records after it
        stream += [f"\x1e{time}", *(["\n" + body[0], *body[1:-1]] if len(body) > 1 else [])]
    assert gu.parse_commit_changes(z(*stream, "")) == [CC(time, tuple(files)) for time, (files, _) in log]


def quoted(name, octal):  # as git writes it on a "+++ " line; `octal` is core.quotepath on
    letters = dict(zip("\a\b\f\n\r\t\v\"\\", "abfnrtv\"\\"))
    escaped = "".join("\\" + letters[c] if c in letters else "".join(f"\\{b:03o}" for b in c.encode())
                      if ord(c) < 0x20 or ord(c) == 0x7F or (octal and ord(c) > 0x7F) else c for c in name)
    return name if escaped == name else f'"{escaped}"'


contents = st.sampled_from(["", "x", "++ b/x", "++ /dev/null", "@@ -1 +1 @@", "-- a", "\r", "é", " ", "\\ No newline"])
hunks = st.tuples(numbers, numbers, st.integers(0, 2), st.integers(0, 3), st.integers(0, 3), st.lists(contents, max_size=4),
                  st.booleans(), st.booleans(), st.sampled_from(["", " def f():", " @@ x"]))


NO_HUNKS = {"B": ["Binary files a/x and b/x differ"], "R": ["similarity index 100%", "rename from x", "rename to y"]}


@st.composite
def patches(draw):
    files = draw(st.lists(st.tuples(names.filter(lambda n: n != "/dev/null"), st.sampled_from(["M", "D", "B", "R"]),
                                    st.lists(hunks, max_size=3), st.booleans(), st.booleans()),
                          unique_by=lambda f: f[0], max_size=5))
    lines, spans = [], {}
    for path, kind, file_hunks, octal, tab in files:
        lines += ["diff --git a/x b/x", "index 1234567..89abcde 100644"]
        if kind in NO_HUNKS:
            lines += NO_HUNKS[kind]
            continue
        lines += ["--- a/x", "+++ " + ("/dev/null" if kind == "D" else quoted(path, octal)) + "\t" * tab]
        for old_start, new_start, context, removed, added, text, old_remark, new_remark, heading in file_hunks:
            if kind == "D":
                new_start, context, added = 0, 0, 0
            old_count, new_count = context + removed, context + added

            def count(n):  # git leaves out a count of 1; writing it must not matter
                return "" if n == 1 and old_remark else f",{n}"

            lines.append(f"@@ -{old_start}{count(old_count)} +{new_start}{count(new_count)} @@{heading}")
            body = [text[i % len(text)] if text else "" for i in range(old_count + added)]
            lines += [" " + t for t in body[:context]] + ["-" + t for t in body[context:context + removed]]
            lines += ["\\ No newline at end of file"] * (old_remark and removed > 0)
            lines += ["+" + t for t in body[context + removed:]]
            lines += ["\\ No newline at end of file"] * (new_remark and added > 0)
            if kind == "M":
                line = max(new_start, 1)
                spans.setdefault(path, []).append(LS(line, line, False) if new_count == 0 else
                                                  LS(new_start, new_start + new_count - 1, old_count == 0))
    return spans, "\n".join(lines) + "\n" * draw(st.booleans())


@settings(max_examples=200, deadline=None)
@given(patches())
def test_patches_rendered_from_a_model(model):
    spans, text = model
    result = gu.parse_line_spans(text)
    assert result == spans and list(result) == list(spans)
