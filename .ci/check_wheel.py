"""Checks one release wheel: python check_wheel.py WHEEL PYTHON-TAG PLATFORM-TAG SOABI.

The wheel is tagged for PYTHON-TAG (abi too) and PLATFORM-TAG (dot-separated
aliases, the first the one auditwheel gives) and auditwheel show agrees; its
extension is named for SOABI, was built for the tag's processor, needs no
shared library but the C library's (and, for manylinux, libgcc_s.so.1),
exports PyInit_git_utils alone and leaves nothing of the C++ runtime for the
host to supply (linked in and hidden), but for manylinux the unwinder: that
one is libgcc_s's, with which glibc unwinds the threads it ends, and none is
linked in.
"""
import io
import json
import subprocess
import sys
import zipfile
from pathlib import Path

from elftools.elf.dynamic import DynamicSection
from elftools.elf.elffile import ELFFile
from elftools.elf.gnuversions import GNUVerNeedSection, GNUVerSymSection
from packaging.utils import parse_wheel_filename

wheel, python_tag, platform_tag, soabi = sys.argv[1:]
platforms = platform_tag.split(".")
arch = "aarch64" if platforms[0].endswith("aarch64") else "x86_64"
glibc = not platforms[0].startswith("musllinux")
if not glibc:
    c_library = {f"libc.musl-{arch}.so.1"}
else:  # glibc, and the parts it was split into before 2.34; libgcc_s for the unwinder
    c_library = {"libc.so.6", "libm.so.6", "libpthread.so.0", "libdl.so.2", "librt.so.1",
                 "ld-linux-x86-64.so.2" if arch == "x86_64" else "ld-linux-aarch64.so.1", "libgcc_s.so.1"}
machine = {"x86_64": "EM_X86_64", "aarch64": "EM_AARCH64"}[arch]
# Symbols of the C++ runtime (libstdc++, libc++, their ABI and unwinding libraries).
cxx_runtime = ("_Z", "__cxa_", "__gxx_", "__dynamic_cast", "_Unwind_")
# What a throw, a cleanup and the personality routine call of the unwinder: a
# manylinux extension takes them from libgcc_s.so.1 (with a copy linked in
# instead, they would not be dynamic symbols at all).
unwinder = {"_Unwind_RaiseException", "_Unwind_Resume", "_Unwind_GetLanguageSpecificData", "_Unwind_GetIP",
            "_Unwind_GetRegionStart", "_Unwind_SetGR", "_Unwind_SetIP"}
problems = []

tags = parse_wheel_filename(Path(wheel).name)[3]
if {(t.interpreter, t.abi) for t in tags} != {(python_tag, python_tag)}:
    problems.append(f"python tags {sorted({t.interpreter + '-' + t.abi for t in tags})}, not {python_tag}")
if {t.platform for t in tags} != set(platforms):
    problems.append(f"platform tags {sorted({t.platform for t in tags})}, not {platforms}")

shown = subprocess.run([sys.executable, "-m", "auditwheel", "show", "--json", wheel],
                       capture_output=True, text=True, check=True)
verdict = json.loads(shown.stdout)
if verdict["overall_tag"] != platforms[0]:
    problems.append(f"auditwheel show: {verdict['overall_tag']}, not {platforms[0]}")
if verdict["external_libs"]:
    problems.append(f"auditwheel show: external libraries {sorted(verdict['external_libs'])}")

with zipfile.ZipFile(wheel) as archive:
    extensions = [name for name in archive.namelist() if name.endswith(".so")]
    if [Path(name).name for name in extensions] != [f"git_utils.{soabi}.so"]:
        problems.append(f"extensions {extensions}, not git_utils.{soabi}.so")
    for name in extensions:
        elf = ELFFile(io.BytesIO(archive.read(name)))
        if elf["e_machine"] != machine:
            problems.append(f"{name}: built for {elf['e_machine']}, not {machine}")
        dynamic = next(s for s in elf.iter_sections() if isinstance(s, DynamicSection))
        needed = {tag.needed for tag in dynamic.iter_tags("DT_NEEDED")}
        if needed - c_library:
            problems.append(f"{name}: needs {sorted(needed - c_library)}")
        symbols = list(elf.get_section_by_name(".dynsym").iter_symbols())
        exported = {s.name for s in symbols if s.name and s["st_shndx"] != "SHN_UNDEF"}
        if exported != {"PyInit_git_utils"}:
            problems.append(f"{name}: exports {sorted(exported)[:8]} ({len(exported)} in all)")
        undefined = [(i, s.name) for i, s in enumerate(symbols) if s["st_shndx"] == "SHN_UNDEF"]
        if glibc:  # the unwinder is libgcc_s's, bound by its version names
            sections = list(elf.iter_sections())
            versions = next((s for s in sections if isinstance(s, GNUVerSymSection)), None)
            needs = next((s for s in sections if isinstance(s, GNUVerNeedSection)), None)
            from_libgcc_s = {aux["vna_other"] for need, auxes in (needs.iter_versions() if needs else ())
                             for aux in auxes if need.name == "libgcc_s.so.1"}
            unwinding = [(i, n) for i, n in undefined if n.startswith("_Unwind_")]
            bound = {n for i, n in unwinding if versions and versions.get_symbol(i)["ndx"] in from_libgcc_s}
            if elsewhere := sorted({n for _, n in unwinding} - bound):
                problems.append(f"{name}: takes {elsewhere[:5]} from elsewhere than libgcc_s.so.1")
            if unwinder - bound:  # linked in (and hidden), or not called as expected
                problems.append(f"{name}: does not take {sorted(unwinder - bound)} from libgcc_s.so.1")
            undefined = [u for u in undefined if u not in unwinding]
        runtime = sorted(n for _, n in undefined if n.startswith(cxx_runtime))
        if runtime:
            problems.append(f"{name}: leaves the C++ runtime's {runtime[:5]} to the host")

for problem in problems:
    print(f"{Path(wheel).name}: {problem}", file=sys.stderr)
sys.exit(1 if problems else 0)
