// orve_ivf_paged_build: an H-IVF written to a .ivfp file that replaces any previous one
// atomically.
//
// The content is laid out in memory first (only the leaf directory is kept, 24 bytes a slot),
// then written in one pass through a shared writable mapping of "<path>.tmp", flushed to
// stable storage and renamed over the final path. A reader of the final path therefore sees
// either the old file or the complete new one: until the rename nothing under that name is
// touched, and the rename happens only after msync and fdatasync. Every failure after the
// temporary file exists removes it again; the final path is never removed or truncated here.
#include <fcntl.h>
#include <libgen.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "paged/error_text.h"
#include "paged/paged_format.h"
#include "paged/unique_mapping.h"
#include "semantic_vector_indexing.h"
#include "util/c_alloc.h"
#include "util/unique_fd.h"

namespace {

using namespace orve::paged;
using orve::unique_fd;

constexpr size_t kPathBuffer = 4096;  // temporary and directory names, NUL included
constexpr char kTempSuffix[] = ".tmp";

// Checks the structure the fill pass will walk, so that it cannot read past an array: every
// leaf count within b2, every non-empty leaf's rows inside its IVF, the arrays it reads
// present, and the row total within the header's 32 bits. A built H-IVF always passes; a
// damaged one gets -1 instead of a crash or a file that lies about its counts.
bool hivf_walkable(const orve_hivf_index* h) {
    for (uint32_t i = 0; i < h->b1; ++i) {
        const orve_ivf_index& e = h->l2_indexes[i];
        if (e.n_buckets == 0) continue;
        if (e.n_buckets > h->b2) return false;
        if (e.centroid_codes == nullptr || e.centroid_scales == nullptr ||
            e.centroid_norms == nullptr || e.bucket_offsets == nullptr ||
            e.bucket_sizes == nullptr) {
            return false;
        }
        for (uint32_t j = 0; j < e.n_buckets; ++j) {
            const uint32_t m = e.bucket_sizes[j];
            if (m == 0) continue;
            if (e.codes == nullptr || e.row_scales == nullptr || e.row_norms == nullptr ||
                e.row_ids == nullptr) {
                return false;
            }
            if (static_cast<uint64_t>(e.bucket_offsets[j]) + m > e.n_rows) return false;
        }
    }
    return true;
}

// The build's temporary file: its name, its descriptor, and a second descriptor on the same
// open file that carries an exclusive flock for the whole build.
//
// Two builds to the same path would otherwise share "<path>.tmp": one could truncate the file
// the other is about to rename into place, publishing a half-written index. With the lock the
// second build waits; and because the first build renames the locked inode away, the second
// checks after locking that the name still leads to the inode it holds, and starts over on a
// fresh file when it does not. The lock lives on a duplicate descriptor so that the data
// descriptor can be closed before the rename, in the publishing order, while the lock is held
// until the rename is done. A build killed outright drops its lock with its descriptors. Where
// the file system offers no flock the build goes on unguarded, as it would without the lock.
class temp_file {
  public:
    explicit temp_file(const char* name) noexcept : name_(name) {}
    ~temp_file() {
        if (!published_ && created_) (void)::unlink(name_);
    }
    temp_file(const temp_file&) = delete;
    temp_file& operator=(const temp_file&) = delete;

    // Creates or reuses the file, locked, and drops any previous content. -1 with errno set
    // when the file cannot be opened.
    int open_locked() noexcept {
        for (;;) {
            data_.reset(::open(name_, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
            if (!data_.valid()) return -1;
            lock_.reset(::fcntl(data_.get(), F_DUPFD_CLOEXEC, 0));
            if (!lock_.valid() || !lock_and_still_named()) break;
            data_.reset(-1);
            lock_.reset(-1);
        }
        created_ = true;  // from here on the name is this build's to remove
        return 0;
    }

    int fd() const noexcept { return data_.get(); }

    // Closes the data descriptor; the lock stays.
    void close_data() noexcept { data_.reset(-1); }

    // The rename moved the file under its final name: nothing to remove any more.
    void mark_published() noexcept { published_ = true; }

  private:
    // True when the lock was taken but the name now leads elsewhere (the build holding the
    // lock before renamed or removed this inode), so the caller must open the name again.
    bool lock_and_still_named() noexcept {
        int r;
        do {
            r = ::flock(lock_.get(), LOCK_EX);
        } while (r != 0 && errno == EINTR);
        if (r != 0) return false;  // no locking here: go on without the guard
        struct stat held, named;
        if (::fstat(data_.get(), &held) != 0) return false;
        if (::stat(name_, &named) != 0) return true;
        return held.st_dev != named.st_dev || held.st_ino != named.st_ino;
    }

    const char* name_;
    unique_fd data_{-1};
    unique_fd lock_{-1};
    bool created_ = false;
    bool published_ = false;
};

// Sets the file's length and reserves its blocks. Without the reservation a full file system
// would surface as SIGBUS while the mapping is filled, killing the host; with it the build
// fails here with -2 instead. Returns 0 or an error number.
int size_file(int fd, uint64_t length) {
    if (::ftruncate(fd, 0) != 0 || ::ftruncate(fd, static_cast<off_t>(length)) != 0) return errno;
    int r;
    do {
        r = ::posix_fallocate(fd, 0, static_cast<off_t>(length));
    } while (r == EINTR);
    // File systems that cannot reserve blocks fall back to the sparse file ftruncate made.
    if (r == EOPNOTSUPP || r == ENOSYS) return 0;
    return r;
}

// Makes the rename itself durable. Every failure here is ignored: the content is already on
// stable storage under its final name as far as this process can tell.
void sync_directory_of(const char* path) {
    char buf[kPathBuffer];
    const size_t n = strnlen(path, kPathBuffer - 1);
    std::memcpy(buf, path, n);
    buf[n] = '\0';
    const int dfd = ::open(dirname(buf), O_RDONLY | O_CLOEXEC);
    if (dfd < 0) return;
    (void)::fsync(dfd);
    (void)::close(dfd);
}

void fill_mapping(uint8_t* out, uint64_t length, const section_layout& lay,
                  const orve_hivf_index* h, const uint32_t* node_ids, uint32_t n_rows,
                  const uint8_t* dir) {
    std::memset(out, 0, length);

    std::memcpy(out, kMagic, sizeof kMagic);
    store_u32(out + kHeaderVersion, kVersionWritten);
    store_u32(out + kHeaderDim, kDim);
    store_u32(out + kHeaderB1, h->b1);
    store_u32(out + kHeaderB2, h->b2);
    store_u32(out + kHeaderRows, n_rows);

    std::memcpy(out + lay.l1_codes, h->l1_centroid_codes, kCodeBytes * h->b1);
    for (uint32_t i = 0; i < h->b1; ++i) {
        uint8_t* pair = out + lay.l1_pairs + kL1PairBytes * i;
        store_f32(pair, h->l1_centroid_scales[i]);
        store_f32(pair + 4, h->l1_centroid_norms[i]);
    }

    for (uint32_t i = 0; i < h->b1; ++i) {
        const orve_ivf_index& e = h->l2_indexes[i];
        for (uint32_t j = 0; j < e.n_buckets; ++j) {
            const uint64_t s = static_cast<uint64_t>(i) * h->b2 + j;
            std::memcpy(out + lay.leaf_codes + kCodeBytes * s, e.centroid_codes + kCodeBytes * j,
                        kCodeBytes);
            uint8_t* t = out + lay.leaf_table + kLeafTableBytes * s;
            store_f32(t + kLeafTableScale, e.centroid_scales[j]);
            store_f32(t + kLeafTableNorm, e.centroid_norms[j]);
            store_u32(t + kLeafTableCount, e.bucket_sizes[j]);
        }
    }

    std::memcpy(out + lay.leaf_dir, dir, kLeafDirBytes * lay.slots);

    for (uint32_t i = 0; i < h->b1; ++i) {
        const orve_ivf_index& e = h->l2_indexes[i];
        for (uint32_t j = 0; j < e.n_buckets; ++j) {
            const uint32_t m = e.bucket_sizes[j];
            if (m == 0) continue;
            const uint8_t* d = dir + kLeafDirBytes * (static_cast<uint64_t>(i) * h->b2 + j);
            uint8_t* codes = out + load_u64(d + kLeafDirCodes);
            uint8_t* meta = out + load_u64(d + kLeafDirMeta);
            const uint32_t first = e.bucket_offsets[j];
            std::memcpy(codes, e.codes + kCodeBytes * first, kCodeBytes * m);
            for (uint32_t k = 0; k < m; ++k) {
                const uint32_t p = first + k;
                store_f32(meta + 4 * k, e.row_scales[p]);
                store_f32(meta + 4 * (static_cast<uint64_t>(m) + k), e.row_norms[p]);
                store_u32(meta + 4 * (2 * static_cast<uint64_t>(m) + k), e.row_ids[p]);
                store_u32(meta + 4 * (3 * static_cast<uint64_t>(m) + k), node_ids[e.row_ids[p]]);
            }
        }
    }
}

}  // namespace

// Choices made beyond the file format:
//   - an H-IVF whose level-1 arrays are missing, or whose leaf indexes do not match their own
//     counts (a leaf count above b2, a leaf run past its rows, a missing array, more than
//     2^32 - 1 rows in all), is refused with -1 before any file is touched;
//   - b1 or b2 above ORVE_PAGED_MAX_BRANCHING is refused with -1 before any file is touched;
//   - a failed msync or fdatasync is -2: the temporary is removed, nothing is renamed;
//   - concurrent builds to one path are serialised by an flock on the temporary file (see
//     temp_file above);
//   - the file's blocks are reserved when it is sized, so running out of space is the -2 of a
//     failed sizing rather than a SIGBUS in the middle of the fill.
extern "C" ORVE_API int32_t orve_ivf_paged_build(const orve_hivf_index* hivf,
                                                 const uint32_t* node_ids, const char* path) {
    if (hivf == nullptr || node_ids == nullptr || path == nullptr) return -1;
    if (hivf->b1 == 0 || hivf->b2 == 0) return -1;
    // Open refuses a file with more branches a level than the search's fixed tables hold;
    // writing one would replace a good index under path with a file nobody can open.
    if (hivf->b1 > ORVE_PAGED_MAX_BRANCHING || hivf->b2 > ORVE_PAGED_MAX_BRANCHING) return -1;
    if (hivf->l1_centroid_codes == nullptr || hivf->l1_centroid_scales == nullptr ||
        hivf->l1_centroid_norms == nullptr || hivf->l2_indexes == nullptr) {
        return -1;
    }

    // Layout pass: section offsets, then every leaf's place in the data part.
    section_layout lay;
    if (!compute_layout(hivf->b1, hivf->b2, &lay)) return -1;
    if (lay.slots > SIZE_MAX / kLeafDirBytes) return -3;
    auto dir = orve::c_calloc_array<uint8_t>(static_cast<size_t>(kLeafDirBytes * lay.slots));
    if (!dir) return -3;
    if (!hivf_walkable(hivf)) return -1;

    uint64_t pos = lay.data_start;
    uint64_t rows = 0;
    for (uint32_t i = 0; i < hivf->b1; ++i) {
        const orve_ivf_index& e = hivf->l2_indexes[i];
        for (uint32_t j = 0; j < hivf->b2; ++j) {
            const uint32_t m = j < e.n_buckets ? e.bucket_sizes[j] : 0;
            rows += m;
            uint8_t* d = dir.get() + kLeafDirBytes * (static_cast<uint64_t>(i) * hivf->b2 + j);
            const uint64_t meta = pos + kCodeBytes * m;  // below 2^63: bounded by the check below
            store_u64(d + kLeafDirCodes, pos);
            store_u64(d + kLeafDirMeta, meta);
            store_u32(d + kLeafDirCount, m);
            if (!align_up(meta + meta_bytes_per_row(kVersionWritten) * m, kLeafAlign, &pos) ||
                pos > static_cast<uint64_t>(INT64_MAX)) {
                return -1;  // a file past what off_t can address
            }
        }
    }
    if (rows > UINT32_MAX) return -1;
    const uint64_t length = pos;

    // The temporary name sits beside the final one, so the rename stays in one file system.
    const size_t path_len = strnlen(path, kPathBuffer);
    if (path_len + sizeof kTempSuffix > kPathBuffer) return -1;
    char tmp_name[kPathBuffer];
    std::memcpy(tmp_name, path, path_len);
    std::memcpy(tmp_name + path_len, kTempSuffix, sizeof kTempSuffix);

    temp_file tmp(tmp_name);
    if (tmp.open_locked() != 0) {
        const int err = errno;
        std::fprintf(stderr, "[IVF_PAGED] open(%s): %s\n", tmp_name, error_text(err).c_str());
        return -2;
    }
    if (const int err = size_file(tmp.fd(), length); err != 0) {
        std::fprintf(stderr, "[IVF_PAGED] ftruncate: %s\n", error_text(err).c_str());
        return -2;
    }
    unique_mapping map(::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, tmp.fd(), 0),
                       length);
    if (!map.valid()) {
        const int err = errno;
        std::fprintf(stderr, "[IVF_PAGED] mmap(write): %s\n", error_text(err).c_str());
        return -2;
    }

    fill_mapping(static_cast<uint8_t*>(map.get()), length, lay, hivf, node_ids,
                 static_cast<uint32_t>(rows), dir.get());

    // Publishing. The content reaches stable storage before the rename can make it visible: a
    // failed flush means the new file may not be what was written, so it is not published and
    // the previous file stays under the final name (tmp's destructor removes the temporary).
    // The library's log lines are a fixed set, so this failure is reported by -2 alone.
    const bool flushed = ::msync(map.get(), length, MS_SYNC) == 0;
    map.reset();
    if (!flushed) return -2;
    int synced;
    do {
        synced = ::fdatasync(tmp.fd());
    } while (synced != 0 && errno == EINTR);
    if (synced != 0) return -2;
    tmp.close_data();
    dir.reset();

    if (::rename(tmp_name, path) != 0) {
        const int err = errno;
        std::fprintf(stderr, "[IVF_PAGED] rename(%s → %s): %s\n", tmp_name, path,
                     error_text(err).c_str());
        return -2;  // tmp's destructor removes the temporary file
    }
    tmp.mark_published();
    sync_directory_of(path);

    std::fprintf(stdout, "[IVF_PAGED] wrote %zu MB → %s  (B1=%u B2=%u n=%u)\n",
                 static_cast<size_t>(length / 1048576), path, hivf->b1, hivf->b2,
                 static_cast<uint32_t>(rows));
    std::fflush(stdout);
    return 0;
}
