// Exact re-ranking from the sidecar file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core/sidecar_attachment.h"
#include "core/system.h"
#include "search/topk.h"
#include "support/system_fixture.h"
#include "support/test_math.h"

namespace {

using orve_test::system_block;

class SidecarSearch : public ::testing::Test {
  protected:
    orve_test::scratch_dir dir;
    std::string path = dir.file("vectors.sidecar");
};

// Re-ranking through the file's mapping and by positional reads gives every candidate its own
// row's exact cosine, bit for bit, in the same order. Rows appended after the mapping (two vectored
// writes' worth), a row ingested before the attach (no file row) and an all-zero row keep their
// score; a dead file row is never replayed and later rows land behind it.
TEST_F(SidecarSearch, MappedRerankEqualsTheReadPathAndTheExactCosine) {
    auto v = orve_test::gaussian_vectors(340, 73);
    std::fill(v.begin() + 100 * 512, v.begin() + 101 * 512, 0.0f);  // a row with no direction
    for (int layout = 0; layout < 2; ++layout) {
        SCOPED_TRACE(layout);
        unlink(path.c_str());
        if (layout == 1) {  // the file: ids 1 .. 30, id 2 dead
            orve_vec_sidecar* h = nullptr;
            ASSERT_EQ(orve_vec_sidecar_open(path.c_str(), &h), 0);
            for (uint32_t id = 1; id <= 30; ++id)
                ASSERT_EQ(orve_vec_sidecar_append(h, id, &v[(id - 1) * 512]), 0);
            const uint8_t dead = 0;
            ASSERT_EQ(pwrite(h->fd, &dead, 1, 32 + 2056 + 4), 1);
            orve_vec_sidecar_close(h);
        }
        system_block b("1000");
        auto* sys = b.get();
        if (layout == 1) {
            ASSERT_EQ(
                semantic_vector_indexing_system_add_embedding_orve512(sys, 331, &v[330 * 512]), 0);
        }
        ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(sys, path.c_str()), 0);
        ASSERT_NE(orve::attachment_of(sys->sidecar)->mapped.base, nullptr);
        // After the mapping: 300 rows in one load, ids their 1-based row positions.
        const uint32_t before = sys->node_count;
        ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, &v[30 * 512], 300), 300);
        const uint32_t rows = sys->node_count;
        std::vector<const float*> vec_of(rows);
        for (uint32_t r = 0; r < rows; ++r) {
            const uint32_t id = sys->nodes[r].node_id;
            vec_of[r] = r >= before ? &v[(30 + r - before) * 512] : &v[(id - 1) * 512];
        }
        const float* query = &v[5 * 512];
        std::vector<bf_topk_entry> mapped(rows), read;
        for (uint32_t r = 0; r < rows; ++r) mapped[r] = {-1.0f, sys->nodes[r].node_id, 0, 0, r};
        read = mapped;
        rerank_from_sidecar(mapped.data(), rows, query, sys);
        auto* a = orve::attachment_of(sys->sidecar);
        const auto kept = a->mapped;
        a->mapped = {};
        rerank_from_sidecar(read.data(), rows, query, sys);
        a->mapped = kept;
        EXPECT_EQ(test_files::read_file(path).size(), 32u + (layout == 1 ? 330 : 300) * 2056);
        for (uint32_t i = 0; i < rows; ++i) {
            ASSERT_EQ(mapped[i].row, read[i].row) << i;
            EXPECT_TRUE(i == 0 || mapped[i - 1].score >= mapped[i].score) << i;
            ASSERT_EQ(std::memcmp(&mapped[i].score, &read[i].score, sizeof(float)), 0) << i;
            const bool in_file = orve::sidecar_file_row_of(sys, mapped[i].row) != orve::kNoFileRow;
            const bool zero = vec_of[mapped[i].row] == &v[100 * 512];
            EXPECT_EQ(mapped[i].score, in_file && !zero ? static_cast<float>(test_math::cosine512(
                                                              query, vec_of[mapped[i].row]))
                                                        : -1.0f)
                << i;
        }
    }
}

// Searches re-rank while another thread appends: a row is written before it is counted, so each
// answer has its own row's exact cosine, however far the file grew past its length at the attach.
TEST_F(SidecarSearch, RerankDuringIngestionReadsOnlyWrittenRows) {
    const auto v = orve_test::gaussian_vectors(1200, 74);
    system_block b("2000");
    auto* sys = b.get();
    ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(sys, path.c_str()), 0);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, v.data(), 100), 100);
    std::thread writer([&] {
        for (uint32_t r = 100; r < 1200; r += 100)
            EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, &v[r * 512], 100), 100);
    });
    for (int i = 0; i < 60; ++i) {
        const float* query = &v[(i * 37 % 1200) * 512];
        auto q = orve_test::int8_query(query, 5);
        q.rerank = 1;
        for (const auto& r : orve_test::search(sys, q))
            EXPECT_EQ(r.similarity,
                      static_cast<float>(test_math::cosine512(query, &v[(r.node_id - 1) * 512])));
    }
    writer.join();
}

}  // namespace
