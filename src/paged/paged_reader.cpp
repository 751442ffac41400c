// Opening, closing and the residency controls of a paged index.
//
// The handle points straight into a read-only shared mapping of the file; nothing is copied.
// Open accepts only files that a search can walk without leaving the mapping (see
// file_check.h), so a damaged or hostile file is refused here once instead of being
// distrusted on every probe.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "paged/error_text.h"
#include "paged/file_check.h"
#include "paged/page_advice.h"
#include "paged/paged_format.h"
#include "paged/unique_mapping.h"
#include "semantic_vector_indexing.h"
#include "util/unique_fd.h"

namespace {

using namespace orve::paged;

int32_t corrupt_or_missing(const char* path) {
    std::fprintf(stderr, "[IVF_PAGED] corrupt or missing: %s\n", path);
    return -7;
}

}  // namespace

// Choices made beyond the checks the format requires:
//   - the file is opened close-on-exec, and non-blocking so that a FIFO given as the path
//     cannot hang the open (it then fails the size check); regular files ignore the flag;
//   - after the b1/b2 test, a file whose index part, counts or leaf blocks do not fit inside
//     it, or whose b1 or b2 is above ORVE_IVF_PAGED_MAX_B (64, the search's fixed scratch), is
//     refused with -7 and the "corrupt or missing" line. 64 is kept rather than raised: it
//     bounds the per-query stack scratch and the p x B selection cost, and 64 x 64 leaves
//     already give a million-row index leaves of a few hundred rows.
namespace {

// Every leaf's code block is read front to back whenever it is probed. Sequential-read advice
// is a property of the mapping, not of one read, so it is given here once for every leaf
// rather than again on every probe: a search then makes no system call at all (low-memory mode
// aside), and what it reads is the same. Neighbouring blocks are advised in one call.
void advise_leaf_codes_sequential(const orve_ivf_paged_index* h) {
    const uint64_t slots = static_cast<uint64_t>(h->b1) * h->b2;
    uint64_t start = 0, end = 0;
    for (uint64_t s = 0; s < slots; ++s) {
        const uint8_t* d = h->leaf_dir + kLeafDirBytes * s;
        const uint32_t m = load_u32(d + kLeafDirCount);
        if (m == 0) continue;
        const uint64_t offset = load_u64(d + kLeafDirCodes);
        if (offset != end) {
            advise_range(h->base, h->length, start, end - start, MADV_SEQUENTIAL);
            start = offset;
        }
        end = offset + kCodeBytes * m;
    }
    advise_range(h->base, h->length, start, end - start, MADV_SEQUENTIAL);
}

}  // namespace

extern "C" ORVE_API int32_t orve_ivf_paged_open(const char* path,
                                                orve_ivf_paged_index** out_handle) {
    if (path == nullptr || out_handle == nullptr) return -1;

    orve::unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid()) {
        const int err = errno;
        std::fprintf(stderr, "[IVF_PAGED] open(%s): %s\n", path, error_text(err).c_str());
        return -2;
    }
    struct stat st;
    if (::fstat(fd.get(), &st) != 0 || st.st_size <= 71) return corrupt_or_missing(path);
    const uint64_t length = static_cast<uint64_t>(st.st_size);

    unique_mapping map(::mmap(nullptr, length, PROT_READ, MAP_SHARED, fd.get(), 0), length);
    if (!map.valid()) {
        const int err = errno;
        std::fprintf(stderr, "[IVF_PAGED] mmap: %s\n", error_text(err).c_str());
        return -2;
    }
    const auto* base = static_cast<const uint8_t*>(map.get());

    if (std::memcmp(base, kMagic, sizeof kMagic) != 0) {
        std::fprintf(stderr, "[IVF_PAGED] bad magic in %s (not an .ivfp file)\n", path);
        return -4;
    }
    const uint32_t version = load_u32(base + kHeaderVersion);
    if (version != kVersionNoNodeIds && version != kVersionWritten) {
        std::fprintf(stderr, "[IVF_PAGED] unsupported version %u in %s (expected 1 or %u)\n",
                     version, path, kVersionWritten);
        return -5;
    }
    const uint32_t dim = load_u32(base + kHeaderDim);
    if (dim != kDim) {
        std::fprintf(stderr, "[IVF_PAGED] dim mismatch: file=%u runtime=%u in %s\n", dim, kDim,
                     path);
        return -6;
    }
    const uint32_t b1 = load_u32(base + kHeaderB1);
    const uint32_t b2 = load_u32(base + kHeaderB2);
    if (b1 == 0 || b2 == 0) {
        std::fprintf(stderr, "[IVF_PAGED] corrupt B1/B2 (0) in %s\n", path);
        return -7;
    }
    const uint32_t n_rows = load_u32(base + kHeaderRows);
    section_layout lay;
    if (!file_structure_fits(base, length, version, b1, b2, n_rows, &lay)) {
        return corrupt_or_missing(path);
    }

    auto* h = static_cast<orve_ivf_paged_index*>(std::calloc(1, sizeof(orve_ivf_paged_index)));
    if (h == nullptr) return -3;
    h->b1 = b1;
    h->b2 = b2;
    h->n_rows = n_rows;
    h->version = version;
    h->l1_codes = reinterpret_cast<const int8_t*>(base + lay.l1_codes);
    h->l1_scales = reinterpret_cast<const float*>(base + lay.l1_pairs);
    h->l1_norms = reinterpret_cast<const float*>(base + lay.l1_pairs + 4);
    h->leaf_centroid_codes = reinterpret_cast<const int8_t*>(base + lay.leaf_codes);
    h->leaf_table = base + lay.leaf_table;
    h->leaf_dir = base + lay.leaf_dir;
    h->length = length;
    h->base = map.release();
    h->fd = fd.release();
    h->low_memory = 0;

    // Routing reads the whole index part on every probe: have it fetched now.
    advise_range(h->base, length, 0, lay.data_start, MADV_WILLNEED);
    advise_leaf_codes_sequential(h);

    *out_handle = h;
    std::fprintf(stdout, "[IVF_PAGED] opened %s  B1=%u B2=%u n=%u  (%.1f MB)\n", path, b1, b2,
                 n_rows, static_cast<double>(length) / 1048576.0);
    std::fflush(stdout);
    return 0;
}

// A plain store would be a data race with the searches that read the flag; a relaxed atomic
// store keeps it a single 32-bit write that a running search may see before or after.
extern "C" ORVE_API void orve_ivf_paged_set_low_memory(orve_ivf_paged_index* handle, uint32_t on) {
    if (handle == nullptr) return;
    std::atomic_ref<uint32_t>(handle->low_memory).store(on, std::memory_order_relaxed);
}

extern "C" ORVE_API void orve_ivf_paged_drop_cache(orve_ivf_paged_index* handle) {
    if (handle == nullptr || handle->base == nullptr || handle->base == MAP_FAILED) return;
    (void)::madvise(handle->base, handle->length, MADV_DONTNEED);
}

extern "C" ORVE_API void orve_ivf_paged_close(orve_ivf_paged_index* handle) {
    if (handle == nullptr) return;
    if (handle->base != nullptr && handle->base != MAP_FAILED) {
        (void)::munmap(handle->base, handle->length);
    }
    if (handle->fd >= 0) (void)::close(handle->fd);
    std::free(handle);
}
