"""A large synthetic repository for the diff and log benchmarks.

    python benchmarks/make_history.py [--force]

Builds, through one `git fast-import` stream, a repository with a few
thousand files in nested directories and a few thousand commits on main:
edits, additions, deletions, renames with edits, copies, binary files, mode
and type changes, files without a final newline, short topic branches merged
back, and names that are non-ASCII, hold blanks, or hold the characters git
quotes (double quote, backslash, tab, line feed). A long-lived branch
`feature` leaves main three quarters of the way along; a few sweeping commits
on it make `git diff -U0 main...feature` several MB long. HEAD is main.

Everything is derived from one seed and fixed commit times, so the same
parameters give the same commit ids. The result is cached under
benchmarks/out/ in a directory named after the parameters.
"""

from __future__ import annotations

import argparse
import random
import shutil
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

OUT = Path(__file__).resolve().parent / "out"

# Bump when the generator changes what it writes, so cached copies are rebuilt.
_GENERATOR_VERSION = 1

_TOP = ("src", "lib", "docs", "tests", "tools", "assets", "vendor", "données", "文档")
_SUB = ("core", "util", "io", "net", "model", "view", "api", "impl", "ästhetik", "with space", "naïve", "数据")
_WORDS = ("alpha", "beta", "gamma", "delta", "parse", "render", "store", "fetch", "index", "merge", "scan",
          "token", "stream", "buffer", "commit", "branch", "state", "value", "result", "config")
_ODD_WORDS = ("café", "Ünïcödé", "日本語", "emoji_🙂", "Ωmega", "résumé")
_QUOTED_NAMES = ('quote"d', "back\\slash", "tab\there", 'both"\\of', "bell\x07ring", "esc\x1bape")
_TEXT_EXT = ("py", "c", "h", "md", "txt", "json", "toml")
_EPOCH = 1609459200  # 2021-01-01 00:00:00 UTC: every commit is later than this


@dataclass(frozen=True)
class Params:
    files: int = 5000
    main_commits: int = 4000
    feature_commits: int = 600
    sweeps: int = 5
    sweep_files: int = 1800
    seed: int = 20260901

    def name(self) -> str:
        return (f"history-v{_GENERATOR_VERSION}-f{self.files}-m{self.main_commits}-b{self.feature_commits}"
                f"-s{self.sweeps}x{self.sweep_files}-r{self.seed}")


def _quote(path: str) -> bytes:
    """A C-style quoted path as fast-import reads it (raw UTF-8 inside is fine)."""
    out = bytearray(b'"')
    for byte in path.encode("utf-8"):
        if byte in (0x22, 0x5C):
            out += b"\\" + bytes([byte])
        elif byte == 0x0A:
            out += b"\\n"
        elif byte == 0x09:
            out += b"\\t"
        elif byte < 0x20 or byte == 0x7F:
            out += b"\\%03o" % byte
        else:
            out.append(byte)
    out += b'"'
    return bytes(out)


class _File:
    """One file of a tree: mode, kind ("text", "bin" or "link") and content."""

    __slots__ = ("mode", "kind", "lines", "blob", "noeol")

    def __init__(self, mode: bytes, kind: str, lines: tuple[str, ...] = (), blob: bytes = b"",
                 noeol: bool = False) -> None:
        self.mode, self.kind, self.lines, self.blob, self.noeol = mode, kind, lines, blob, noeol

    def data(self) -> bytes:
        if self.kind != "text":
            return self.blob
        text = "".join(self.lines)
        if self.noeol and text.endswith("\n"):
            text = text[:-1]
        return text.encode("utf-8")

    def with_lines(self, lines: tuple[str, ...]) -> _File:
        return _File(self.mode, self.kind, lines, noeol=self.noeol)


class _Generator:
    def __init__(self, params: Params, sink) -> None:
        self.p = params
        self.rng = random.Random(params.seed)
        self.sink = sink
        self.mark = 0
        self.clock = _EPOCH
        self.serial = 0
        self.dirs = self._directories()
        self.stats = {"commits": 0, "merges": 0, "renames": 0, "copies": 0, "deletes": 0, "adds": 0,
                      "binaries": 0, "type_changes": 0, "mode_changes": 0}

    # -- names and contents -------------------------------------------------

    def _directories(self) -> list[str]:
        rng = self.rng
        dirs = list(_TOP)
        for _ in range(max(self.p.files // 16, 40)):
            parent = rng.choice(dirs)
            if parent.count("/") >= 4:
                continue
            child = rng.choice(_SUB) if rng.random() < 0.3 else f"pkg{rng.randrange(1000)}"
            dirs.append(f"{parent}/{child}")
        return sorted(set(dirs))

    def new_path(self, tree: dict[str, _File], binary: bool = False) -> str:
        rng = self.rng
        while True:
            self.serial += 1
            roll = rng.random()
            word = rng.choice(_WORDS)
            if roll < 0.03:
                word = rng.choice(_ODD_WORDS)
            elif roll < 0.045:
                word = f"my {word} file"
            elif roll < 0.05:
                word = rng.choice(_QUOTED_NAMES)
            ext = rng.choice(("bin", "png")) if binary else rng.choice(_TEXT_EXT)
            path = f"{rng.choice(self.dirs)}/{word}_{self.serial}.{ext}"
            if path not in tree:
                return path

    def line(self) -> str:
        rng = self.rng
        return (f"    {rng.choice(_WORDS)}_{rng.randrange(100000)} = {rng.choice(_WORDS)}"
                f"({rng.randrange(1000)}, {rng.randrange(1000)})\n")

    def text_file(self) -> _File:
        n = self.rng.randrange(10, 90)
        return _File(b"100644", "text", tuple(self.line() for _ in range(n)), noeol=self.rng.random() < 0.02)

    def binary_file(self) -> _File:
        rng = self.rng
        size = rng.randrange(512, 6000)
        return _File(b"100644", "bin", blob=b"\x89BIN\x00" + rng.randbytes(size))

    def edit(self, f: _File, hunks: int) -> _File:
        if f.kind == "bin":
            blob = bytearray(f.blob)
            for _ in range(hunks):
                blob[self.rng.randrange(5, len(blob))] = self.rng.randrange(256)
            return _File(f.mode, "bin", blob=bytes(blob))
        rng = self.rng
        lines = list(f.lines)
        for _ in range(hunks):
            pos = rng.randrange(len(lines) + 1)
            roll = rng.random()
            if roll < 0.5 and pos < len(lines):
                k = rng.randrange(1, 5)
                lines[pos:pos + k] = [self.line() for _ in range(rng.randrange(1, 5))]
            elif roll < 0.8 or len(lines) < 6:
                lines[pos:pos] = [self.line() for _ in range(rng.randrange(1, 6))]
            else:
                del lines[pos:pos + rng.randrange(1, 4)]
        return f.with_lines(tuple(lines))

    # -- the stream -----------------------------------------------------------

    def write(self, chunk: bytes) -> None:
        self.sink.write(chunk)

    def put(self, path: str, f: _File) -> None:
        data = f.data()
        self.write(b"M %s inline %s\ndata %d\n%s\n" % (f.mode, _quote(path), len(data), data))

    def commit(self, ref: str, parents: list[int], changes: list[tuple[str, _File | None]], message: str) -> int:
        self.mark += 1
        self.clock += 600 + self.rng.randrange(3000)
        who = f"Dev {self.rng.randrange(12)}"
        email = who.lower().replace(" ", "") + "@example.com"
        msg = message.encode()
        head = (f"commit {ref}\nmark :{self.mark}\n"
                f"author {who} <{email}> {self.clock} +0000\n"
                f"committer {who} <{email}> {self.clock} +0000\n").encode()
        self.write(head + b"data %d\n%s\n" % (len(msg), msg))
        if parents:
            self.write(b"from :%d\n" % parents[0])
        for parent in parents[1:]:
            self.write(b"merge :%d\n" % parent)
        for path, f in changes:
            if f is None:
                self.write(b"D %s\n" % _quote(path))
            else:
                self.put(path, f)
        self.write(b"\n")
        self.stats["commits"] += 1
        return self.mark

    def step(self, tree: dict[str, _File], ops: int) -> list[tuple[str, _File | None]]:
        """Applies `ops` random operations to `tree`; returns the file commands."""
        rng = self.rng
        changes: list[tuple[str, _File | None]] = []
        touched: set[str] = set()
        paths = list(tree)

        def pick(kinds=("text",)) -> str | None:
            for _ in range(20):
                path = rng.choice(paths)
                if path in tree and path not in touched and tree[path].kind in kinds:
                    touched.add(path)
                    return path
            return None

        for _ in range(ops):
            roll = rng.random()
            if roll < 0.70:
                path = pick()
                if path:
                    tree[path] = self.edit(tree[path], rng.randrange(1, 5))
                    changes.append((path, tree[path]))
            elif roll < 0.78:
                path = self.new_path(tree)
                tree[path] = self.text_file()
                touched.add(path)
                changes.append((path, tree[path]))
                self.stats["adds"] += 1
            elif roll < 0.83:
                path = pick(("text", "bin"))
                if path and len(tree) > self.p.files // 2:
                    del tree[path]
                    changes.append((path, None))
                    self.stats["deletes"] += 1
            elif roll < 0.91:
                path = pick()
                if path:
                    new = self.new_path(tree)
                    tree[new] = self.edit(tree.pop(path), 1)
                    touched.add(new)
                    changes += [(path, None), (new, tree[new])]
                    self.stats["renames"] += 1
            elif roll < 0.94:
                path = pick()
                if path:
                    new = self.new_path(tree)
                    tree[new] = self.edit(tree[path], 1)
                    touched.add(new)
                    changes.append((new, tree[new]))
                    self.stats["copies"] += 1
            elif roll < 0.97:
                path = pick(("bin",))
                if path is None:
                    path = self.new_path(tree, binary=True)
                    tree[path] = self.binary_file()
                    touched.add(path)
                else:
                    tree[path] = self.edit(tree[path], 3)
                changes.append((path, tree[path]))
                self.stats["binaries"] += 1
            elif roll < 0.99:
                path = pick()
                if path:
                    f = tree[path]
                    mode = b"100755" if f.mode == b"100644" else b"100644"
                    tree[path] = _File(mode, "text", f.lines, noeol=f.noeol)
                    changes.append((path, tree[path]))
                    self.stats["mode_changes"] += 1
            else:
                path = pick()
                if path:
                    target = rng.choice(paths)
                    tree[path] = _File(b"120000", "link", blob=target.encode("utf-8"))
                    changes.append((path, tree[path]))
                    self.stats["type_changes"] += 1
        return changes

    def sweep(self, tree: dict[str, _File], count: int) -> list[tuple[str, _File | None]]:
        texts = [p for p, f in tree.items() if f.kind == "text"]
        chosen = self.rng.sample(texts, min(count, len(texts)))
        for path in chosen:
            tree[path] = self.edit(tree[path], self.rng.randrange(2, 6))
        return [(path, tree[path]) for path in chosen]

    def run(self) -> None:
        p, rng = self.p, self.rng
        main: dict[str, _File] = {}
        for _ in range(p.files):
            main[self.new_path(main)] = self.text_file()
        for _ in range(p.files // 100):
            main[self.new_path(main, binary=True)] = self.binary_file()
        # One path with a line feed in its name, which git always quotes.
        main["docs/line\nfeed.txt"] = self.text_file()
        tip = self.commit("refs/heads/main", [], list(main.items()), "initial import")

        fork_at = p.main_commits * 3 // 4
        feature: dict[str, _File] = {}
        feature_tip = 0
        feature_left = p.feature_commits
        sweeps_left = p.sweeps
        for i in range(1, p.main_commits):
            if i == fork_at:
                feature = {path: f for path, f in main.items()}
                feature_tip = tip
            if i % 200 == 100:
                # A short topic branch, merged back with a merge commit.
                topic = dict(main)
                topic_tip = self.commit("refs/heads/topic", [tip], self.step(topic, 3), f"topic {i} a")
                topic_tip = self.commit("refs/heads/topic", [topic_tip], self.step(topic, 2), f"topic {i} b")
                merged = [(path, f) for path, f in topic.items() if main.get(path) is not f]
                merged += [(path, None) for path in main if path not in topic]
                main = topic
                tip = self.commit("refs/heads/main", [tip, topic_tip], merged, f"merge topic {i}")
                self.stats["merges"] += 1
                continue
            tip = self.commit("refs/heads/main", [tip], self.step(main, rng.randrange(1, 7)), f"change {i}")
            if feature_tip and feature_left:
                # Spread the feature commits over the rest of main's history.
                per_step = -(-p.feature_commits // (p.main_commits - fork_at))
                for _ in range(min(per_step, feature_left)):
                    feature_left -= 1
                    if sweeps_left and feature_left % max(p.feature_commits // (p.sweeps + 1), 1) == 0:
                        sweeps_left -= 1
                        changes = self.sweep(feature, p.sweep_files)
                        message = "sweeping change"
                    else:
                        changes = self.step(feature, rng.randrange(3, 11))
                        message = "feature change"
                    feature_tip = self.commit("refs/heads/feature", [feature_tip], changes, message)
        self.write(b"reset refs/heads/topic\nfrom 0000000000000000000000000000000000000000\n\n")


def build(params: Params, target: Path) -> dict[str, int]:
    tmp = target.with_name(target.name + ".tmp")
    shutil.rmtree(tmp, ignore_errors=True)
    subprocess.run(["git", "init", "-q", "--initial-branch=main", str(tmp)], check=True)
    proc = subprocess.Popen(["git", "fast-import", "--quiet", "--done"], cwd=tmp, stdin=subprocess.PIPE)
    assert proc.stdin is not None
    gen = _Generator(params, proc.stdin)
    gen.run()
    proc.stdin.write(b"done\n")
    proc.stdin.close()
    if proc.wait() != 0:
        raise RuntimeError("git fast-import failed")
    subprocess.run(["git", "update-ref", "-d", "refs/heads/topic"], cwd=tmp, check=False)
    subprocess.run(["git", "reset", "-q", "--hard", "main"], cwd=tmp, check=True)
    shutil.rmtree(target, ignore_errors=True)
    tmp.rename(target)
    return gen.stats


def ensure_history(params: Params = Params(), force: bool = False, quiet: bool = False) -> Path:
    """The repository for `params`, built once and cached under benchmarks/out/."""
    target = OUT / params.name()
    done = target / ".git" / "bench-history-complete"
    if force or not done.exists():
        OUT.mkdir(exist_ok=True)
        start = time.perf_counter()
        stats = build(params, target)
        done.write_text(repr(stats) + "\n")
        if not quiet:
            print(f"built {target} in {time.perf_counter() - start:.1f} s: {stats}", file=sys.stderr)
    return target


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--force", action="store_true", help="rebuild even when a cached copy exists")
    opts = parser.parse_args()
    print(ensure_history(force=opts.force))


if __name__ == "__main__":
    main()
