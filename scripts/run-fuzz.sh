#!/usr/bin/env bash
# Fuzzes the paged index reader: builds tests/paged/fuzz with clang (libFuzzer with
# AddressSanitizer and UndefinedBehaviorSanitizer), writes a fresh seed corpus of real files
# from the library's writer, and fuzzes open + search for the given number of seconds
# (default 60). Exits non-zero when the fuzzer finds a crash; the input is kept under
# build/fuzz/artifacts/.
#   usage: scripts/run-fuzz.sh [SECONDS]
source "$(dirname "$0")/common.sh"
FUZZ_SECONDS="${1:-60}"
ensure_packages cmake ninja-build clang-14 libclang-rt-14-dev libfuzzer-14-dev

cd "$ROOT"
BUILD_TARGETS="paged_open_fuzz paged_fuzz_seeds orve_vector_file_fuzz" build_tree build/fuzz \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
    -DORVE_BUILD_FUZZ=ON -DORVE_SANITIZE=ON -DORVE_BUILD_TESTS=OFF -DORVE_BUILD_BENCH=OFF

bin=build/fuzz/tests/paged/fuzz
corpus=build/fuzz/corpus
rm -rf "$corpus"
mkdir -p "$corpus" build/fuzz/artifacts
"$bin/paged_fuzz_seeds" "$corpus"

echo "=== fuzzing the paged index reader for ${FUZZ_SECONDS}s ==="
# close_fd_mask=3 silences the library's own lines for every rejected input; libFuzzer and the
# sanitizers keep reporting on a duplicate of standard error.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$bin/paged_open_fuzz" -max_total_time="$FUZZ_SECONDS" -timeout=20 -rss_limit_mb=2048 \
    -close_fd_mask=3 -print_final_stats=1 -artifact_prefix=build/fuzz/artifacts/ "$corpus"
# The tool's .npy/.fvecs readers, a few seconds from the seed files kept with the target.
rm -rf build/fuzz/corpus-tool && mkdir -p build/fuzz/corpus-tool
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    build/fuzz/tools/fuzz/orve_vector_file_fuzz -max_total_time=5 -timeout=20 -rss_limit_mb=2048 \
    -artifact_prefix=build/fuzz/artifacts/ build/fuzz/corpus-tool tests/tools/fuzz/seeds
echo "fuzzing finished without a crash"
