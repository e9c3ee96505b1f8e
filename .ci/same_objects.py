"""python same_objects.py BUILD-DIR HEADERS OTHER-HEADERS: every translation unit that
BUILD-DIR compiles against the interpreter headers in HEADERS compiles, same target and
flags, to the same object byte for byte with OTHER-HEADERS in their place: whatever the
two folders' pyconfig.h set differently changes nothing the module is made of."""
import json
import shlex
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

build, headers, other = sys.argv[1:]
units = [u for u in json.loads((Path(build) / "compile_commands.json").read_text())
         if headers in shlex.split(u["command"])]


def same(unit: dict) -> bool:
    objects = []
    with tempfile.TemporaryDirectory() as scratch:
        for include in (headers, other):
            arguments = [include if a == headers else a for a in shlex.split(unit["command"])]
            arguments[arguments.index("-o") + 1] = str(Path(scratch, f"{len(objects)}.o"))
            subprocess.run(arguments, cwd=unit["directory"], check=True)
            objects.append(Path(scratch, f"{len(objects)}.o").read_bytes())
    return objects[0] == objects[1]


with ThreadPoolExecutor(2) as pool:
    differing = [Path(u["file"]).name for u, alike in zip(units, pool.map(same, units)) if not alike]
if not units or differing:
    print(f"{build}: {len(differing)} of {len(units)} objects differ with {other}: {differing}", file=sys.stderr)
    sys.exit(1)
print(f"{len(units)} objects alike with {other}")
