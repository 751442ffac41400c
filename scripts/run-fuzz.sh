#!/usr/bin/env bash
# Fuzzes the paged index reader and the sidecar reader: builds tests/paged/fuzz and
# tests/sidecar/fuzz with clang (libFuzzer with AddressSanitizer and UndefinedBehaviorSanitizer),
# writes fresh seed corpora of real files from the library's writers, and fuzzes paged open +
# search for two thirds of the given number of seconds (default 60) and sidecar replay + open
# for the rest, then the tool's .npy/.fvecs and manifest readers for five seconds. Exits non-zero when a fuzzer finds a crash; the input is kept under
# build/fuzz/artifacts/.
#   usage: scripts/run-fuzz.sh [SECONDS]
source "$(dirname "$0")/common.sh"
FUZZ_SECONDS="${1:-60}"
ensure_packages cmake ninja-build clang-14 libclang-rt-14-dev libfuzzer-14-dev

cd "$ROOT"
BUILD_TARGETS="paged_open_fuzz paged_fuzz_seeds sidecar_open_fuzz sidecar_fuzz_seeds
    orve_vector_file_fuzz" build_tree build/fuzz \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
    -DORVE_BUILD_FUZZ=ON -DORVE_SANITIZE=ON -DORVE_BUILD_TESTS=OFF -DORVE_BUILD_BENCH=OFF

bin=build/fuzz/tests/paged/fuzz
corpus=build/fuzz/corpus
rm -rf "$corpus"
mkdir -p "$corpus" build/fuzz/artifacts
"$bin/paged_fuzz_seeds" "$corpus"

PAGED_SECONDS=$((FUZZ_SECONDS * 2 / 3))
echo "=== fuzzing the paged index reader for ${PAGED_SECONDS}s ==="
# close_fd_mask=3 silences the library's own lines for every rejected input; libFuzzer and the
# sanitizers keep reporting on a duplicate of standard error.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$bin/paged_open_fuzz" -max_total_time="$PAGED_SECONDS" -timeout=20 -rss_limit_mb=2048 \
    -close_fd_mask=3 -print_final_stats=1 -artifact_prefix=build/fuzz/artifacts/ "$corpus"

# Sidecar rows are 2056 bytes: inputs up to 8 KiB reach a few whole rows and a partial one.
sidecar_corpus=build/fuzz/corpus-sidecar
rm -rf "$sidecar_corpus"
mkdir -p "$sidecar_corpus"
build/fuzz/tests/sidecar/fuzz/sidecar_fuzz_seeds "$sidecar_corpus"
echo "=== fuzzing the sidecar reader for $((FUZZ_SECONDS - PAGED_SECONDS))s ==="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    build/fuzz/tests/sidecar/fuzz/sidecar_open_fuzz -max_total_time=$((FUZZ_SECONDS - PAGED_SECONDS)) \
    -max_len=8192 -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix=build/fuzz/artifacts/ "$sidecar_corpus"

# The tool's .npy/.fvecs and manifest readers, a few seconds from the seed files kept with the target.
rm -rf build/fuzz/corpus-tool && mkdir -p build/fuzz/corpus-tool
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    build/fuzz/tools/fuzz/orve_vector_file_fuzz -max_total_time=5 -timeout=20 -rss_limit_mb=2048 \
    -artifact_prefix=build/fuzz/artifacts/ build/fuzz/corpus-tool tests/tools/fuzz/seeds
echo "fuzzing finished without a crash"
