#!/usr/bin/env bash
# The library's main job on this machine: build it, then run `orve demo`, which ingests a
# generated dataset with a sidecar, builds every index, answers held-out queries on every
# search path, prints one table, and restarts from the files to show the answers hold.
# Extra arguments go to `orve demo` (try --help, --rows 1000000, --dataset facts).
source "$(dirname "$0")/common.sh"
ensure_packages cmake ninja-build g++ libgtest-dev googletest

cd "$ROOT"
BUILD_TARGETS=orve build_tree build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVE_BUILD_BENCH=OFF
build/release/tools/orve/orve demo "$@"
