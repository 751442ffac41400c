// Walking the rows of an open sidecar file, with their positions in the file. The attachment
// needs the positions: a dead row is skipped, so the k-th row handed over need not be row k
// of the file, and re-ranking must read each row back from where it really is.
#pragma once

#include <cstdint>

namespace orve::sidecar {

// Called with the next n (at least 1) live rows with a nonzero id, in file order: their ids,
// their n x 512 values and their row numbers in the file. Return 0 to go on, anything else to
// stop the walk.
using replay_block_fn = int32_t (*)(const uint32_t* ids, const float* values,
                                    const uint32_t* positions, uint32_t n, void* user);

// Walks the whole rows of the file on fd, whose header is known to be valid, many rows per
// positional read (the descriptor's position is left alone, so a handle can keep appending at
// its end). Returns the callback's nonzero value when it stopped the walk, otherwise 0, also
// after a trailing partial row or a failed read (both end the walk after the whole rows before
// them).
int32_t replay_rows(int fd, replay_block_fn callback, void* user);

}  // namespace orve::sidecar
