// The x86 intrinsics, for every kernel file: include this instead of <immintrin.h>, first, so
// that the warning settings below cover the intrinsics headers.
#pragma once

#if defined(__AVX512F__) && defined(__GNUC__) && !defined(__clang__)
// GCC 12's AVX-512 headers initialise their "undefined" vectors from themselves, which its own
// uninitialised-use warnings then flag inside the header (fixed in later releases). Only files
// compiled for AVX-512 need this; clang has no such group and would warn about the pragma.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
