#!/usr/bin/env bash
# The library's main job on this machine: build it and measure the int8 scan kernels against
# the machine's memory bandwidth.
source "$(dirname "$0")/common.sh"
ensure_packages cmake ninja-build g++ libgtest-dev googletest libbenchmark-dev

cd "$ROOT"
build_tree build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo
echo "library: build/release/libsemantic_vector_indexing.so"
build/release/bench/bench_kernels "$@"
