#!/usr/bin/env bash
# The whole test suite: the x86-64 build, the same tests under AddressSanitizer and
# UndefinedBehaviorSanitizer, the concurrency tests under ThreadSanitizer, and the aarch64 cross
# build run under qemu, then 60 seconds of fuzzing the paged index and sidecar readers.
source "$(dirname "$0")/common.sh"
ensure_packages cmake ninja-build g++ libgtest-dev googletest g++-aarch64-linux-gnu qemu-user

cd "$ROOT"
run_leg() {
    local title="$1" dir="$2"
    shift 2
    echo
    echo "=== $title ==="
    build_tree "$dir" -DORVE_WERROR=ON "$@"
    ctest --test-dir "$dir" --output-on-failure -j "$JOBS" --timeout 900
}

run_leg "x86-64" build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo
echo
echo "=== x86-64, installed into a prefix: a C host via pkg-config and find_package ==="
ensure_packages pkg-config
bash "$ROOT/scripts/check-install.sh" build/release

# ---- Python package (x86-64 leg only) ------------------------------------------------------
# The orve package's tests, against the extension just built in build/release. The packages
# are installed here, then the tree is configured again so that CMake finds them. pytest must
# collect and pass tests: any nonzero exit, including 5 (nothing collected), fails the run.
echo
echo "=== x86-64, Python package (pytest) ==="
ensure_packages python3-dev python3-numpy pybind11-dev python3-pytest python3-distributed
build_tree build/release -DORVE_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DORVE_BUILD_PYTHON=ON -DPython3_EXECUTABLE=/usr/bin/python3
if ! compgen -G "build/release/python/orve/_core*.so" >/dev/null; then
    echo "the orve extension was not built (see build/release/build.log)" >&2
    exit 1
fi
PYTHONPATH="$ROOT/build/release/python" PYTHONDONTWRITEBYTECODE=1 \
    timeout 300 /usr/bin/python3 -m pytest -q -p no:cacheprovider "$ROOT/tests/python"
# ---- end of the Python package block -------------------------------------------------------
run_leg "x86-64, AddressSanitizer + UndefinedBehaviorSanitizer" build/sanitize \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVE_SANITIZE=ON -DORVE_BUILD_BENCH=OFF
echo
echo "=== x86-64, ThreadSanitizer (concurrency tests) ==="
BUILD_TARGETS=test_concurrency build_tree build/tsan -DORVE_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVE_TSAN=ON -DORVE_BUILD_BENCH=OFF
ctest --test-dir build/tsan --output-on-failure -L concurrency --timeout 900
run_leg "aarch64 (cross-compiled, run under qemu-aarch64 -cpu max)" build/aarch64 \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVE_BUILD_BENCH=OFF \
    -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/aarch64-linux-gnu.cmake"
echo
bash "$ROOT/scripts/run-fuzz.sh" 60
echo
echo "all legs passed"
