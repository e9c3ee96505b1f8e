#!/usr/bin/env bash
# Builds one libFuzzer binary per parser (fuzz/fuzz_*.cpp with the core
# sources) and runs each for the number of seconds given as the first
# argument (default 60). Corpora, dictionaries, logs and any crash inputs
# go to $FUZZ_OUT (default build/fuzz). Exits non-zero when a target fails.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
out=${FUZZ_OUT:-build/fuzz}

# shellcheck source=.ci/common.sh
source .ci/common.sh
needs clang++ clang

san=(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
cxx=(clang++ -std=c++20 -O1 -g -Wall -Wextra -Werror -Inative "${san[@]}")
mkdir -p "$out/obj"

# The core is compiled once with coverage, then linked into every target.
objs=()
for src in native/core/*.cpp; do
  obj="$out/obj/$(basename "${src%.cpp}").o"
  "${cxx[@]}" -fsanitize=fuzzer-no-link -c "$src" -o "$obj"
  objs+=("$obj")
done

# Seeds and dictionaries: enough of each format for the fuzzer to start
# from real records instead of discovering the syntax byte by byte.
seed() {  # seed TARGET NAME PRINTF-FORMAT
  mkdir -p "$out/corpus/$1"
  printf "$3" >"$out/corpus/$1/$2"
}
seed fuzz_raw_numstat diff ':100644 100644 aaa bbb M\0a.py\0:000000 100644 000 ccc A\0n.md\0:1 2 d e R087\0old\0new\0\n:1 2 x y C075\0s\0c\0:1 2 x y T\0t\0003\t1\ta.py\0-\t-\tn.md\0002\t2\t\0old\0new\0'
seed fuzz_raw_numstat numstat '1\t2\ta\tb\0\n:1 2 a b D\0a\tb\0'
seed fuzz_commits log '\036170\0\n:1 2 a b M\0a.txt\0001\t1\ta.txt\0\0362\0\n\n\0363\0\n:0 1 c d A\0b\0005\t0\tb\0'
seed fuzz_patch diff 'diff --git a b\n--- a\n+++ "b\\tc"\t\n@@ -1,2 +1 @@ f\n-x\n-y\n+z\n\\ No newline at end of file\n@@ -0,0 +3,2 @@\n+p\n+q\n+++ /dev/null\n@@ -5 +4,0 @@\n ctx\n'
seed fuzz_utf8 text 'ascii, caf\303\251, \346\226\207\346\241\243, \360\237\231\202, \355\240\200, \300\257, end'
seed fuzz_unquote name '\\303\\251t\\303\\251\\t\\"q\\\\ \\12x \\777 end\\'

cat >"$out/raw_numstat.dict" <<'DICT'
"\x00"
"\x09"
"\x0a"
":100644 100644 aaa bbb "
" R100"
" C075"
" M"
" A"
" D"
" T"
"-\x09-\x09"
DICT
sed -e '$a "\\x1e"' "$out/raw_numstat.dict" >"$out/commits.dict"
cat >"$out/patch.dict" <<'DICT'
"\x0a"
"@@ -"
" +"
" @@"
","
"+++ "
"/dev/null"
"\x09"
"\""
"9223372036854775807"
DICT
cat >"$out/unquote.dict" <<'DICT'
"\\"
"\\377"
"\\400"
"\\\xc3\xa9"
DICT

status=0
for src in fuzz/fuzz_*.cpp; do
  name=$(basename "${src%.cpp}")
  "${cxx[@]}" -fsanitize=fuzzer "$src" "${objs[@]}" -o "$out/$name"
  mkdir -p "$out/corpus/$name"
  dict=()
  [ -f "$out/${name#fuzz_}.dict" ] && dict=(-dict="$out/${name#fuzz_}.dict")
  echo "=== $name: ${seconds}s"
  if "$out/$name" "$out/corpus/$name" "${dict[@]}" -max_total_time="$seconds" -timeout=10 \
       -artifact_prefix="$out/$name-" >"$out/$name.log" 2>&1; then
    grep -E '^(#[0-9]+ +DONE|Done )' "$out/$name.log" | tail -n 1 || true
  else
    status=1
    tail -n 40 "$out/$name.log"
  fi
done
exit "$status"
