#!/usr/bin/env bash
# Fuzzes one reader of untrusted files with libFuzzer under AddressSanitizer and UBSan.
#   scripts/fuzz.sh NAME SECONDS [LIBFUZZER_OPTION...]
# Builds fuzz/NAME_fuzz.cpp with clang++-14 against the numeric and matting sources (compiled into
# one static archive, so the linker takes only the units the target needs) into build-fuzz/NAME/, then
# runs it for SECONDS on build-fuzz/NAME/corpus, a working copy of fuzz/corpus/NAME that keeps the
# inputs the fuzzer finds from one run to the next. Crashing inputs go to build-fuzz/NAME/crashes/;
# copy each one into fuzz/corpus/NAME/ once the reader is fixed, so that every build replays it.
# Exit status: 0 when the run found nothing, 1 when it left crashes, 2 on a usage or build error.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

if [ $# -lt 2 ] || ! [[ $2 =~ ^[0-9]+$ ]]; then
    echo "usage: scripts/fuzz.sh NAME SECONDS [LIBFUZZER_OPTION...]" >&2
    exit 2
fi
name=$1
seconds=$2
shift 2
target_src=$root/fuzz/${name}_fuzz.cpp
seeds=$root/fuzz/corpus/$name
if [ ! -f "$target_src" ]; then
    echo "fuzz: no fuzz target $target_src" >&2
    exit 2
fi
cxx=${CXX_FUZZ:-clang++-14}
if ! command -v "$cxx" >/dev/null; then
    echo "fuzz: $cxx not found; scripts/setup.sh installs clang-14 and libclang-rt-14-dev" >&2
    exit 2
fi

# Each target has its own objects and archive, so that two targets can be fuzzed at the same time.
out=$root/build-fuzz
work=$out/$name
objs=$work/obj
archive=$work/libkeldra_fuzz.a
mkdir -p "$objs" "$work/corpus" "$work/crashes"

suitesparse=/usr/include/suitesparse
common=(-std=c++17 -g -O1 -fno-omit-frame-pointer -fno-sanitize-recover=undefined -I"$root" -isystem "$suitesparse")

# The library is rebuilt only where a source or any project header is newer than its object; a unit
# that does not compile (another engineer's file in the middle of an edit) is left out with a
# warning, and the link below fails only if the target needed it.
newest_header=$(find "$root/numeric" "$root/matting" -name '*.h' -printf '%T@\n' 2>/dev/null | sort -n | tail -1)
newest_header=${newest_header:-0}
rm -f "$archive"
members=()
for src in "$root"/numeric/*.cpp "$root"/matting/*.cpp; do
    [ -f "$src" ] || continue
    obj=$objs/$(basename "$(dirname "$src")")_$(basename "${src%.cpp}").o
    if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] ||
        awk -v h="$newest_header" -v o="$(stat -c %Y "$obj")" 'BEGIN { exit !(h > o) }'; then
        if ! "$cxx" "${common[@]}" -fsanitize=fuzzer-no-link,address,undefined -c "$src" -o "$obj"; then
            echo "fuzz: warning: $src does not compile; left out of the library" >&2
            rm -f "$obj"
            continue
        fi
    fi
    members+=("$obj")
done
if [ ${#members[@]} -gt 0 ]; then
    ar rcs "$archive" "${members[@]}"
fi

binary=$out/${name}_fuzz
libs=()
[ -f "$archive" ] && libs+=("$archive")
if ! "$cxx" "${common[@]}" -fsanitize=fuzzer,address,undefined "$target_src" "${libs[@]}" \
    -lumfpack -lcholmod -lamd -lcolamd -lsuitesparseconfig -lm -o "$binary"; then
    echo "fuzz: building $binary failed" >&2
    exit 2
fi

if [ -d "$seeds" ]; then
    cp -n "$seeds"/* "$work/corpus/" 2>/dev/null || true
fi
before=$(find "$work/crashes" -type f | wc -l)
echo "fuzz: running $name for $seconds s on $work/corpus"
set +e
"$binary" -max_total_time="$seconds" -artifact_prefix="$work/crashes/" -print_final_stats=1 "$@" \
    "$work/corpus" 2>"$work/log.txt"
status=$?
set -e
tail -n 25 "$work/log.txt"
after=$(find "$work/crashes" -type f | wc -l)
echo "fuzz: libFuzzer exit status $status; full log in $work/log.txt"
if [ "$after" -gt "$before" ] || [ "$status" -ne 0 ]; then
    echo "fuzz: crashing inputs are in $work/crashes/:"
    ls -l "$work/crashes"
    exit 1
fi
echo "fuzz: no crash; $(find "$work/corpus" -type f | wc -l) inputs in $work/corpus"
