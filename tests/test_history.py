import datetime as dt
import time

import pytest

NOW = dt.datetime(2026, 3, 29, 10, 0, 0)


class FrozenDateTime(dt.datetime):
    @classmethod
    def now(cls, tz=None):
        return cls(NOW.year, NOW.month, NOW.day, NOW.hour, NOW.minute, NOW.second)


@pytest.fixture(params=["UTC", "Europe/Berlin"])
def zone(request, monkeypatch):
    monkeypatch.setenv("TZ", request.param)
    yield time.tzset()
    monkeypatch.undo()
    time.tzset()


@pytest.fixture
def frozen(gu, monkeypatch):
    monkeypatch.setattr(gu, "datetime", FrozenDateTime)


@pytest.mark.parametrize(
    "spec, expected",
    [
        (" 7d ", NOW - dt.timedelta(days=7)), ("30m", NOW - dt.timedelta(minutes=30)), ("07d", NOW - dt.timedelta(days=7)),
        ("24h", NOW - dt.timedelta(hours=24)),  # across the spring-forward night: wall clock arithmetic
        ("2w", NOW - dt.timedelta(days=14)), ("2026-09-01", dt.datetime(2026, 9, 1)),
        ("2026-09-01T12:30", dt.datetime(2026, 9, 1, 12, 30)),
        ("2026-09-01 12:30:05.123", dt.datetime(2026, 9, 1, 12, 30, 5, 123000)),
    ],
)
def test_accepted_specs(gu, frozen, zone, spec, expected):
    result = gu.parse_time_spec(spec)
    assert result == expected and result.tzinfo is None


@pytest.mark.parametrize("spec", ["0d", "7D", "7 d", "+7d", "1.5h", "-3d", "", "yesterday", "2026-09-01T12:30Z", "2026-9-1",
                                  "20260901", "2026-02-30", "2026-09-01T24:00", "2026-09-01T12:30+24:00", "0000-01-01",
                                  "0" * 5000 + "1d"])  # more digits than int() reads by default
def test_refused_specs(gu, frozen, spec):
    with pytest.raises(ValueError) as info:
        gu.parse_time_spec(spec)
    assert str(info.value) == f"since must be {gu.TIME_SPEC_FORMS}; got {spec!r}"
    assert info.value.__cause__ is None and info.value.__suppress_context__ is False


@pytest.mark.parametrize("spec, python", [
    ("99999999999d", lambda: dt.timedelta(days=99999999999)), ("999999999w", lambda: dt.timedelta(weeks=999999999)),
    ("1000000000d", lambda: dt.timedelta(days=1000000000)),
    ("999999999d", lambda: dt.datetime.now() - dt.timedelta(days=999999999)),
    ("0001-01-01T00:00+05:00", lambda: dt.datetime(1, 1, 1) - dt.timedelta(hours=5)),
])
def test_outside_the_calendar(gu, zone, spec, python):
    with pytest.raises(ValueError) as info:
        gu.parse_time_spec(spec)
    assert str(info.value) == f"since {spec!r} reaches outside the calendar"
    assert isinstance(info.value.__cause__, OverflowError) and str(info.value.__cause__) == str(
        pytest.raises(OverflowError, python).value)


class PlainDateTime(dt.datetime):  # takes parse_time_spec off its native moments, onto the class's calls
    pass


ZONES = ["UTC", "Europe/Berlin", "America/New_York", "Australia/Lord_Howe", "America/St_Johns", "Pacific/Kiritimati"]

# Around daylight-saving changes of these zones, before the epoch, under local mean time, at the calendar's ends.
OFFSET_SPECS = [
    "2026-03-29T00:59:59.999999+00:00", "2026-03-29T01:00:00+00:00", "2026-10-25T00:30+00:00",
    "2026-10-25T01:30+00:00", "2026-03-08T06:59:59-00:00", "2026-03-08 02:30-05:00", "2026-11-01T01:30-04:00",
    "2026-11-01T01:30-05:00", "2026-04-05T01:45+11:00", "2026-10-04T02:15+10:30", "1969-12-31T23:59:59.500+00:00",
    "1890-06-01T12:00:00.250+00:00", "2026-09-01T12:30:00+02:00", "2026-09-01T12:30:00+05:30:15.000001",
    "2026-01-15T00:00-05:30", "0001-01-01T23:00+14:00", "9999-12-31T10:00-13:59", "9999-12-31T23:59+00:00",
]


def outcome(parse, spec):
    try:
        moment = parse(spec)
    except ValueError as error:
        return str(error), str(error.__cause__)
    assert moment.tzinfo is None
    return moment, moment.fold


def python_local_moment(spec):
    try:
        return dt.datetime.fromisoformat(spec).astimezone().replace(tzinfo=None)
    except OverflowError as error:
        raise ValueError(f"since {spec!r} reaches outside the calendar") from error


@pytest.mark.parametrize("zone", ZONES, indirect=True)
def test_offsets_agree_with_astimezone(gu, monkeypatch, zone):
    native = [outcome(gu.parse_time_spec, spec) for spec in OFFSET_SPECS]
    assert native == [outcome(python_local_moment, spec) for spec in OFFSET_SPECS]
    monkeypatch.setattr(gu, "datetime", PlainDateTime)
    assert [outcome(gu.parse_time_spec, spec) for spec in OFFSET_SPECS] == native


@pytest.mark.parametrize("zone", ["UTC", "Europe/Berlin", "America/St_Johns", "Pacific/Kiritimati"], indirect=True)
@pytest.mark.parametrize(
    "spec, span, change",
    [
        (" 30m", dt.timedelta(minutes=30), None), ("24h\n", dt.timedelta(hours=24), None),
        ("2w", dt.timedelta(weeks=2), None), ("0000000000000000000700000d", dt.timedelta(days=700000), None),
        ("7d", dt.timedelta(hours=7), lambda gu, mp: mp.setitem(gu._SPEC_UNITS, "d", "hours")),
        ("7d", dt.timedelta(seconds=7), lambda gu, mp: mp.setitem(gu._SPEC_UNITS, "d", "seconds")),
        ("7d", dt.timedelta(days=7), lambda gu, mp: mp.setattr(gu, "datetime", PlainDateTime)),
    ],
)
def test_relative_specs_read_the_local_clock(gu, monkeypatch, zone, spec, span, change):
    if change:
        change(gu, monkeypatch)
    before = dt.datetime.now() - span
    result = gu.parse_time_spec(spec)
    after = dt.datetime.now() - span
    assert before <= result <= after and result.tzinfo is None and result.fold == 0


# ---- queries ----------------------------------------------------------------


@pytest.mark.parametrize(
    "output, expected",
    [
        ("    42\tAda Lovelace <ada@example.org>\n     3\tÉmile Zoé <emile@x>\n",
         [{"name": "Ada Lovelace", "email": "ada@example.org", "commits": 42},
          {"name": "Émile Zoé", "email": "emile@x", "commits": 3}]),
        ("  1\tno brackets\n\nno tab here\n  2\tonly < here\n", [{"name": "no brackets", "email": "", "commits": 1},
                                                               {"name": "only < here", "email": "", "commits": 2}]),
        ("  5\tx > y <a b<c>\n", [{"name": "x > y", "email": "a b", "commits": 5}]),
        ("", []),
    ],
)
def test_authors_parsing(gu, frozen, stand_in, tmp_path, output, expected):
    calls = stand_in("run_git_command", (output, "", 0))
    result = gu.get_authors_for_period(tmp_path, "7d")
    assert result == expected and all(list(e) == ["name", "email", "commits"] for e in result)
    assert calls == [["shortlog", "--since=2026-03-22 10:00:00", "-sne"]]


def test_authors_failure_is_an_empty_list(gu, frozen, stand_in, tmp_path, caplog):
    stand_in("run_git_command", ("", "  fatal: no  \n", 128))
    with caplog.at_level("DEBUG", logger=gu.__name__):
        assert gu.get_authors_for_period(tmp_path) == []
    assert caplog.records[-1].getMessage() == "get_authors_for_period: git shortlog failed rc=128 stderr=fatal: no"
    with pytest.raises(ValueError):
        gu.get_authors_for_period(tmp_path, "soon")
