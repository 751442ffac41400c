#!/usr/bin/env bash
# Every benchmark, one after the other: the scan kernels against the machine's read bandwidth,
# the system object end to end, and the comparison with FAISS, hnswlib and USearch (fetched
# with npm from its package).
#
# Usage: bash scripts/run-bench.sh [--rows N]
#   --rows N   rows for bench_system (default 1000000) and bench_peers (default 100000)
#
# libopenblas0-serial: Debian's FAISS links the system BLAS, and the reference BLAS that
# libfaiss-dev pulls in by default would make its k-means and batch flat search unrepresentatively
# slow; the serial OpenBLAS takes its place through the alternatives system and stays on one
# thread.
source "$(dirname "$0")/common.sh"
ensure_packages cmake ninja-build g++ libbenchmark-dev libfaiss-dev libhnswlib-dev \
    libopenblas0-serial

rows_args=()
while [ $# -gt 0 ]; do
    case "$1" in
    --rows)
        [ $# -ge 2 ] || { echo "--rows needs a value" >&2; exit 2; }
        rows_args=(--rows "$2")
        shift 2
        ;;
    *)
        echo "usage: $0 [--rows N]" >&2
        exit 2
        ;;
    esac
done

cd "$ROOT"
BUILD_TARGETS="bench_kernels bench_system bench_peers" \
    build_tree build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVE_PEERS_USEARCH=ON

echo
echo "=== bench_kernels: 512-lane kernels in cache and over a 1 GiB slab ==="
build/release/bench/bench_kernels
echo
echo "=== bench_system: ingestion, brute force, resident bytes per row ==="
build/release/bench/bench_system "${rows_args[@]}"
echo
echo "=== bench_peers: against FAISS, hnswlib and USearch (takes several minutes) ==="
build/release/bench/peers/bench_peers "${rows_args[@]}"
