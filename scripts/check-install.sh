#!/usr/bin/env bash
# check-install.sh BUILD_DIR: installs the built tree into a temporary prefix, moves the prefix
# elsewhere (the package files must not remember where they were installed), then builds
# examples/search_example.c against it twice, with pkg-config and with CMake's find_package,
# and runs both programs.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="$(cd "$1" && pwd)"
TMP="$(mktemp -d)"
trap 'rm -rf "$TMP"' EXIT

cmake --install "$BUILD" --prefix "$TMP/staged" >/dev/null
mv "$TMP/staged" "$TMP/prefix"
PREFIX="$TMP/prefix"
PC_DIR="$(dirname "$(find "$PREFIX" -name semantic_vector_indexing.pc)")"

export PKG_CONFIG_PATH="$PC_DIR"
cc -std=c99 -pedantic-errors -Wall -Werror "$ROOT/examples/search_example.c" \
    -o "$TMP/with_pkgconfig" $(pkg-config --cflags --libs semantic_vector_indexing) \
    -Wl,-rpath,"$(pkg-config --variable=libdir semantic_vector_indexing)"
"$TMP/with_pkgconfig" >/dev/null
echo "pkg-config: built and ran search_example against $(pkg-config --modversion semantic_vector_indexing) in a moved prefix"

mkdir "$TMP/host"
cat >"$TMP/host/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(host C)
find_package(semantic_vector_indexing 0.1 REQUIRED)
add_executable(with_cmake "$ROOT/examples/search_example.c")
target_link_libraries(with_cmake PRIVATE semantic_vector_indexing::semantic_vector_indexing)
CMAKE
cmake -S "$TMP/host" -B "$TMP/host/build" -G Ninja -DCMAKE_PREFIX_PATH="$PREFIX" >/dev/null
cmake --build "$TMP/host/build" >/dev/null
"$TMP/host/build/with_cmake" >/dev/null
echo "find_package: built and ran search_example in a moved prefix"
