#include "paged/file_check.h"

#include "semantic_vector_indexing.h"

namespace orve::paged {

bool file_structure_fits(const uint8_t* base, uint64_t length, uint32_t version, uint32_t b1,
                         uint32_t b2, uint32_t n_rows, section_layout* layout) {
    if (b1 > ORVE_IVF_PAGED_MAX_B || b2 > ORVE_IVF_PAGED_MAX_B) return false;
    section_layout lay;
    if (!compute_layout(b1, b2, &lay) || lay.data_start > length) return false;

    const uint64_t meta_per_row = meta_bytes_per_row(version);
    uint64_t total = 0;
    uint64_t next_free = lay.data_start;  // leaves come in slot order and never overlap
    for (uint64_t s = 0; s < lay.slots; ++s) {
        const uint8_t* t = base + lay.leaf_table + kLeafTableBytes * s;
        const uint8_t* d = base + lay.leaf_dir + kLeafDirBytes * s;
        const uint32_t m = load_u32(d + kLeafDirCount);
        if (load_u32(t + kLeafTableCount) != m) return false;
        total += m;
        if (m == 0) continue;

        const uint64_t codes = load_u64(d + kLeafDirCodes);
        const uint64_t meta = load_u64(d + kLeafDirMeta);
        if (codes % kLeafAlign != 0 || codes < next_free) return false;
        uint64_t expect_meta, end;
        if (!add_u64(codes, kCodeBytes * m, &expect_meta) || meta != expect_meta) return false;
        if (!add_u64(meta, meta_per_row * m, &end) || end > length) return false;
        next_free = end;
        // Row positions are not looked at: they are the caller's to map (a first-version file
        // through the caller's table), and the search skips any position the table lacks.
    }
    // At most 4096 slots of 32-bit counts: the total cannot wrap.
    if (total != n_rows) return false;
    *layout = lay;
    return true;
}

}  // namespace orve::paged
