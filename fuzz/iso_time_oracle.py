"""Differential check of native/core/iso_time.cpp against Python 3.10.

Run from anywhere, with Python 3.10 (its C datetime is the reference):

    python3.10 fuzz/iso_time_oracle.py [--count N] [--seed S] [--probe PATH]

It builds fuzz/iso_time_probe.cpp with the core parser ($CXX, default g++,
with ASan and UBSan) unless --probe names a built one, feeds it the hand-picked
texts below plus N random ones (default 250000: valid texts of every form 3.10
takes, mutated by substitution, insertion, deletion, truncation and so on),
and compares each result with datetime.fromisoformat: every field, the offset,
and for refusals the kind of ValueError. Prints "N passed, M failed" and exits
non-zero on any mismatch.
"""

import argparse
import datetime
import os
import random
import subprocess
import sys
import tempfile
import _datetime
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]

# 3.10's ValueError messages, by the IsoError the parser should give.
ERROR_KINDS = [
    ("Invalid isoformat string", "invalid"),
    ("offset must be a timedelta", "offset_range"),
    ("year ", "year_range"),
    ("month must be in", "month_range"),
    ("day is out of range", "day_range"),
    ("hour must be in", "hour_range"),
    ("minute must be in", "minute_range"),
    ("second must be in", "second_range"),
]

HAND_PICKED = [
    "", "2026-09-01", "2026-09-0", "2026-9-01", "2026-09-01T", "2026-09-01 ", "2026-09-01é",
    "2026-09-01T12", "2026-09-01T1", "2026-09-01T123", "2026-09-01T12:3", "2026-09-01T12:30",
    "2026-09-01T12:30:45", "2026-09-01T12:30:45.123", "2026-09-01T12:30:45.123456",
    "2026-09-01T12:30:45.1", "2026-09-01T12:30:45.12", "2026-09-01T12:30:45.1234",
    "2026-09-01T12:30:45.12345", "2026-09-01T12:30:45.1234567", "2026-09-01T12:30:45,123",
    "2026-09-01T12.123", "2026-09-01T12.123456", "2026-09-01T12:30.123", "2026-09-01T12:30.123456",
    "2026-09-01T12:30:45:123", "2026-09-01T12:30:45:123456", "2026-09-01T12:30:45.",
    "2026-09-01T12\x00", "2026-09-01T12\x00\x00", "2026-09-01T12:30\x00", "2026-09-01T12:30:45\x00",
    "2026-09-01\x0012", "2026-09-01T12X+05:00", "2026-09-01T12:+05:00", "2026-09-01T123+05:00",
    "2026-09-01T12:304+05:00", "2026-09-01T12:30:45.+05:00", "2026-09-01T1+05:00",
    "2026-09-01T-05:00", "2026-09-01T12:30+05", "2026-09-01T12:30+0500", "2026-09-01T12:30+05:00",
    "2026-09-01T12:30-05:00", "2026-09-01T12:30+05:99", "2026-09-01T12:30+05:00:99",
    "2026-09-01T12:30+00:00", "2026-09-01T12:30-00:00", "2026-09-01T12:30+00:00:00.123456",
    "2026-09-01T12:30-00:00:00:123456", "2026-09-01T12:30+00:00:01.5", "2026-09-01T12:30+05:00:00.123",
    "2026-09-01T12:30+23:59:59.999999", "2026-09-01T12:30-23:59:59.999999", "2026-09-01T12:30+24:00",
    "2026-09-01T12:30-24:00", "2026-09-01T12:30+23:60", "2026-09-01T12:30+99:99:99.999999",
    "2026-09-01T12:30+05:00+01:00", "2026-09-01T12:30+05:00Z", "2026-09-01T12:30Z",
    "2026-09-01T12:30:45Z", "20260901", "20260901T123000", "2026-W35-1", "2026-W35", "2026-244",
    "2026-09-01T1230", "2026-09-01T123045", "2026-09-01T12:30+0530", "2026-09-01T12:30+05:30:00.5",
    "0000-01-01", "0001-01-01", "9999-12-31T23:59:59.999999", "10000-01-01", "-2026-09-01",
    "+2026-09-01", "2026-00-01", "2026-13-01", "2026-09-00", "2026-09-31", "2026-02-29",
    "2024-02-29", "1900-02-29", "2000-02-29", "9996-02-29", "2026-09-01T24:00", "2026-09-01T23:60",
    "2026-09-01T23:59:60", "2026-09-01T99:99:99", "２０２６-09-01", "2026-09-01T١٢:30",
    "2026-09-01\ud800", "2026-09-01\ud80012", "2026-09-01\udc8012:30", "2026-09-01T12:\ud800",
    "2026-09-01\U0001F60012:30", "2026-09-01中12", "2026-09-01\u00a012", "2026-09-01\n12",
    "2026-09-01--12", "2026-09-01+12", "2026-09-01T+", "2026-09-01T12+", "2026-09-01T12-",
    "2026-09-01T12:30+05:00\x00", "2026-09-01T12:30+05:0\x00", "2026-09-01T12:30 +05:00",
    "2026-09-01T 12:30", " 2026-09-01", "2026-09-01T12:30:45.123456+05:00:00.123456",
]

SEPARATORS = ["T", "T", "T", " ", "t", "x", "\x00", "\n", "+", "-", ":", ".", "0", "9", "é", "中",
              "\U0001F600", "\ud800", "\udfff", "\u2028", "\x7f"]
NOISE = list("0123456789:.+-TZWtz ,_/\x00\n") + ["é", "٣", "５", "中", "\U0001F600", "\ud800", "\x80"]


def two(rng, lo=0, hi=99):
    return "%02d" % rng.randint(lo, hi)


def digits(rng, n):
    return "".join(rng.choice("0123456789") for _ in range(n))


def plausible(rng, hi):
    # Mostly in range, sometimes just past it, sometimes anything.
    r = rng.random()
    if r < 0.8:
        return two(rng, 0, hi)
    if r < 0.9:
        return two(rng, hi, min(hi + 2, 99))
    return two(rng)


def random_date(rng):
    r = rng.random()
    if r < 0.05:  # the leap-year rule's corners
        year = rng.choice([4, 100, 400, 1900, 2000, 2023, 2024, 2100, 9996, 9999])
        return "%04d-02-%02d" % (year, rng.choice([28, 29]))
    if r < 0.1:
        year = rng.choice([0, 1, 4, 100, 400, 1900, 2000, 2024, 9996, 9999])
    else:
        year = rng.randint(1, 9999)
    month = rng.randint(1, 12) if rng.random() < 0.95 else rng.randint(0, 13)
    day = rng.randint(1, 31) if rng.random() < 0.95 else rng.choice([0, 28, 29, 30, 31, 32])
    return "%04d-%02d-%02d" % (year, month, day)


def random_clock(rng):
    parts = [plausible(rng, 23)]
    fields = rng.choice([1, 2, 2, 3, 3, 3])
    if fields >= 2:
        parts.append(plausible(rng, 59))
    if fields >= 3:
        parts.append(plausible(rng, 59))
    text = ":".join(parts)
    r = rng.random()
    if r < 0.4:
        text += rng.choice(".." + (":" if fields == 3 else ".")) + digits(rng, rng.choice([3, 6, 6, 1, 2, 4, 5, 7, 9]))
    elif r < 0.5:
        text += rng.choice(NOISE)
    return text


def random_zone(rng):
    sign = rng.choice("+-")
    hour = plausible(rng, 23) if rng.random() < 0.9 else "00"
    form = rng.choice(["hm", "hm", "hms", "hmsf", "h", "hmsf3"])
    text = sign + hour
    if form != "h":
        text += ":" + (plausible(rng, 59) if rng.random() < 0.9 else "00")
    if form.startswith("hms"):
        text += ":" + (plausible(rng, 59) if rng.random() < 0.9 else "00")
    if form == "hmsf":
        text += rng.choice("..:") + digits(rng, 6)
    elif form == "hmsf3":
        text += "." + digits(rng, 3)
    return text


def random_valid(rng):
    text = random_date(rng)
    if rng.random() < 0.1:
        return text
    text += rng.choice(SEPARATORS) + random_clock(rng)
    if rng.random() < 0.5:
        text += random_zone(rng)
    return text


def mutate(rng, text):
    for _ in range(rng.choice([1, 1, 1, 2, 3])):
        op = rng.randrange(7)
        i = rng.randint(0, len(text))
        if op == 0 and text:
            i = min(i, len(text) - 1)
            text = text[:i] + rng.choice(NOISE) + text[i + 1:]
        elif op == 1:
            text = text[:i] + rng.choice(NOISE) + text[i:]
        elif op == 2 and text:
            i = min(i, len(text) - 1)
            text = text[:i] + text[i + 1:]
        elif op == 3:
            text = text[:i]
        elif op == 4 and text:
            j = rng.randint(0, len(text))
            a, b = min(i, j), max(i, j)
            text = text[:b] + text[a:b] + text[b:]
        elif op == 5 and text:
            i = min(i, len(text) - 1)
            text = text[:i] + rng.choice("0123456789") + text[i + 1:]
        elif op == 6 and len(text) > 1:
            i = min(i, len(text) - 2)
            text = text[:i] + text[i + 1] + text[i] + text[i + 2:]
    return text


def random_texts(rng, count):
    for _ in range(count):
        r = rng.random()
        if r < 0.35:
            yield random_valid(rng)
        elif r < 0.95:
            yield mutate(rng, random_valid(rng))
        else:
            yield "".join(rng.choice(NOISE) for _ in range(rng.randint(0, 24)))


def expected(text):
    try:
        dt = datetime.datetime.fromisoformat(text)
    except ValueError as exc:
        message = str(exc)
        for prefix, kind in ERROR_KINDS:
            if message.startswith(prefix):
                return "error " + kind
        return "error unknown: " + message
    head = "ok %d %d %d %d %d %d %d " % (dt.year, dt.month, dt.day, dt.hour, dt.minute, dt.second, dt.microsecond)
    offset = dt.utcoffset()
    if offset is None:
        return head + "none"
    us = offset // datetime.timedelta(microseconds=1)
    sign = "-" if us < 0 else "+"
    us = abs(us)
    return head + "%s %d %d %d %d" % (sign, us // 3_600_000_000, us // 60_000_000 % 60, us // 1_000_000 % 60,
                                      us % 1_000_000)


def build_probe(directory):
    exe = os.path.join(directory, "iso_time_probe")
    cmd = [os.environ.get("CXX", "g++"), "-std=c++20", "-O1", "-g", "-Wall", "-Wextra", "-Wshadow", "-Wconversion",
           "-Wno-sign-conversion", "-Werror", "-fsanitize=address,undefined", "-fno-sanitize-recover=undefined",
           "-I", str(ROOT / "native"), str(ROOT / "fuzz" / "iso_time_probe.cpp"),
           str(ROOT / "native" / "core" / "iso_time.cpp"), "-o", exe]
    subprocess.run(cmd, check=True)
    return exe


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=250_000)
    parser.add_argument("--seed", type=int, default=20260901)
    parser.add_argument("--probe", help="an already built fuzz/iso_time_probe.cpp")
    args = parser.parse_args()

    if sys.version_info[:2] != (3, 10):
        sys.exit("run this with Python 3.10: it is the reference")
    if datetime.datetime is not _datetime.datetime:
        sys.exit("the C datetime module is not in use")

    rng = random.Random(args.seed)
    texts = HAND_PICKED + list(random_texts(rng, args.count))
    payload = "".join(t.encode("utf-8", "surrogatepass").hex() + "\n" for t in texts)

    with tempfile.TemporaryDirectory() as tmp:
        probe = args.probe or build_probe(tmp)
        run = subprocess.run([probe], input=payload, capture_output=True, text=True)
    if run.returncode != 0:
        sys.exit("probe failed (%d):\n%s" % (run.returncode, run.stderr[-4000:]))
    got = run.stdout.splitlines()
    if len(got) != len(texts):
        sys.exit("probe answered %d lines for %d texts" % (len(got), len(texts)))

    wants = [expected(t) for t in texts]
    failed = 0
    for text, want, answer in zip(texts, wants, got):
        if answer != want:
            failed += 1
            if failed <= 30:
                print("MISMATCH %r\n  python: %s\n  parser: %s" % (text, want, answer))
    accepted = sum(1 for w in wants if w.startswith("ok"))
    print("seed %d: %d texts, %d accepted by Python" % (args.seed, len(texts), accepted))
    print("%d passed, %d failed" % (len(texts) - failed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
