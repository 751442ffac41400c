// Every allocation an operation makes fails in turn: each failing run returns the documented
// code, leaves the object as it was (create: zeroed and reusable) and leaks nothing (checked by
// LeakSanitizer). The IoFailure tests fail file writes and flushes the same way.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fault_hooks.h"
#include "core/system.h"
#include "paged/paged_fixture.h"
#include "support/system_fixture.h"
#include "support/test_math.h"

namespace {

using orve_test::create_with_capacity;
using orve_test::system_block;
using sys_t = semantic_vector_indexing_system;

// Runs op on make()'s object with allocation k = 1, 2, ... failing until a run makes fewer than
// k; check(sys, rc, injected) judges every run. Returns the failed runs.
long sweep(const std::function<sys_t*()>& make, const std::function<int(sys_t*)>& op,
           const std::function<void(sys_t*, int, bool)>& check) {
    for (long k = 1;; ++k) {
        SCOPED_TRACE(testing::Message() << "allocation " << k);
        sys_t* sys = make();
        int rc = 0;
        const bool injected = orve_test::run_with_failing_allocation(k, [&] { rc = op(sys); });
        check(sys, rc, injected);
        if (!injected) return k - 1;
    }
}

TEST(AllocFailure, CreateFailsCleanlyAtEveryAllocation) {
    std::unique_ptr<system_block> b;
    const long failed =
        sweep([&] { return (b = std::make_unique<system_block>())->get(); },
              [](sys_t* s) { return create_with_capacity(s, "64"); },
              [](sys_t* s, int rc, bool injected) {
                  EXPECT_EQ(rc, injected ? -1 : 0);
                  EXPECT_EQ(s->initialized, injected ? 0 : 1);
                  if (!injected) return;
                  EXPECT_EQ(s->lsh_index, nullptr);
                  EXPECT_EQ(s->clustering_index, nullptr);
                  ASSERT_EQ(create_with_capacity(s, "64"), 0);  // the block is reusable
              });
    EXPECT_GE(failed, 3) << "the node table and two index records at least";
}

// Ingestion of one row or many, onto an empty object or one holding a row: a failure refuses the
// call or stops it at a row; committed rows stay consistent and the object keeps working.
TEST(AllocFailure, IngestionLeavesNoTrace) {
    const auto vecs = orve_test::gaussian_vectors(4, 50);
    const struct {
        uint32_t preload, rows;  // rows 0: one add_embedding
    } cases[] = {{0, 0}, {1, 0}, {1, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.preload << " then " << c.rows);
        std::unique_ptr<system_block> b;
        sweep(
            [&] {
                auto* s = (b = std::make_unique<system_block>("64"))->get();
                for (uint32_t r = 0; r < c.preload; ++r)
                    EXPECT_EQ(
                        semantic_vector_indexing_system_add_embedding_orve512(s, 9, vecs.data()),
                        0);
                return s;
            },
            [&](sys_t* s) {
                const float* v = vecs.data() + 512;
                if (c.rows != 0)
                    return semantic_vector_indexing_system_load_vectors_f32(s, v, c.rows);
                return semantic_vector_indexing_system_add_embedding_orve512(s, 5, v) == 0 ? 1 : -1;
            },
            [&](sys_t* s, int rc, bool injected) {
                const int want = c.rows == 0 ? 1 : static_cast<int>(c.rows);
                if (!injected) {
                    EXPECT_EQ(rc, want);
                    return;
                }
                ASSERT_TRUE(rc == -1 || (rc >= 0 && rc < want)) << rc;
                const uint32_t kept = c.preload + (rc < 0 ? 0 : static_cast<uint32_t>(rc));
                EXPECT_EQ(s->node_count, kept);
                EXPECT_EQ(s->ingest_generation.load(), kept);
                EXPECT_TRUE(kept == 0 || s->row_valid[kept] == 0);  // no row store before row 1
                EXPECT_EQ(s->nodes[kept].node_id, 0u);
                EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(s, 77, vecs.data()),
                          0);
            });
    }
}

TEST(AllocFailure, SidecarAttachReplaysOrFailsWithoutAttaching) {
    orve_test::scratch_dir dir;
    const std::string path = dir.file("rows.sidecar");
    const auto vecs = orve_test::gaussian_vectors(3, 53);
    std::unique_ptr<system_block> b;
    auto fresh = [&] { return (b = std::make_unique<system_block>("64"))->get(); };
    auto attach = [&](sys_t* s) {
        return semantic_vector_indexing_system_open_sidecar(s, path.c_str());
    };
    ASSERT_EQ(attach(fresh()), 0);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(b->get(), vecs.data(), 3), 3);
    sweep(fresh, attach, [](sys_t* s, int rc, bool injected) {
        // Without the replay's read buffer (a row at a time) the attach still succeeds whole;
        // any other failure refuses it with nothing attached.
        if (rc == 0) {
            EXPECT_EQ(s->node_count, 3u);
            EXPECT_NE(s->sidecar, nullptr);
            return;
        }
        EXPECT_TRUE(injected);
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(s->sidecar, nullptr);
    });
    // The failed attachments never rewrote the file.
    ASSERT_EQ(attach(fresh()), 0);
    EXPECT_EQ(b->get()->node_count, 3u);
    b.reset();
}

// A failed build publishes nothing and leaves the previous index serving (optional scratch may
// let it succeed); a failed index search falls back to brute force, failing only with its own.
TEST(AllocFailure, IndexBuildsAndIndexSearches) {
    system_block b("2000");
    sys_t* sys = b.get();
    const auto vecs = orve_test::gaussian_vectors(1000, 54);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 1000), 1000);
    const void* before = nullptr;
    for (int which = 0; which < 2; ++which) {
        auto live = [&]() -> const void* {
            return which == 0 ? static_cast<const void*>(sys->live_ivf.load())
                              : sys->live_hivf.load();
        };
        sweep(
            [&] {
                before = live();
                return sys;
            },
            [&](sys_t* s) {
                return which == 0 ? semantic_vector_indexing_system_build_ivf(s, 4, 1)
                                  : semantic_vector_indexing_system_build_ivf_level2(s, 2, 2, 1);
            },
            [&](sys_t*, int rc, bool injected) {
                ASSERT_TRUE(rc == 0 || (injected && rc == -1)) << rc;
                EXPECT_EQ(live() == before, rc == -1);
            });
    }
    auto q = orve_test::int8_query(vecs.data() + 512 * 10, 3);
    q.n_probe = q.n_probe_l2 = 2;
    q.n_probe_l1 = 1;
    vector_similarity_result r[3];
    uint32_t n = 0;
    for (uint8_t indexed : {0, 1}) {
        q.use_ivf = q.use_hivf = indexed;
        sweep([&] { return sys; },
              [&](sys_t* s) {
                  n = 99;
                  return semantic_vector_indexing_system_search_similar(s, &q, r, &n);
              },
              [&](sys_t*, int rc, bool injected) {
                  ASSERT_TRUE(rc == 0 || (injected && rc == -1)) << rc;
                  EXPECT_EQ(n, rc == 0 ? 3u : 0u);
                  EXPECT_TRUE(rc != 0 || r[0].node_id == 11u);
              });
    }
}

using orve_test::io_call;
using orve_test::io_failure;

// An append fails partway (single rows, or a bulk vectored write cut short inside a row: of
// seven rows inside the fourth, of 300 halfway through the second vector, rows 256 on).
// Ingestion succeeds, the file keeps exactly the whole rows written before, each at its own
// position, and re-ranking never scores a row with another row's vector.
TEST(IoFailure, FailedSidecarAppendLeavesAWholePrefixAndNoMisplacedRow) {
    const auto vecs = orve_test::gaussian_vectors(300, 61);
    const struct {
        io_failure how;
        uint32_t rows;  // 0: seven single appends
        long nth;       // the failing write
        uint32_t kept;  // whole rows the file keeps
    } cases[] = {{io_failure::no_space, 0, 4, 3},       {io_failure::io_error, 0, 4, 3},
                 {io_failure::short_write, 0, 4, 3},    {io_failure::no_space, 7, 1, 0},
                 {io_failure::io_error, 7, 1, 0},       {io_failure::short_write, 7, 1, 3},
                 {io_failure::short_write, 300, 2, 278}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << static_cast<int>(c.how) << " " << c.rows << " " << c.nth);
        const uint32_t total = c.rows == 0 ? 7 : c.rows;
        orve_test::scratch_dir d;
        const std::string path = d.file("rows.sidecar");
        {
            system_block b("512");
            auto* sys = b.get();
            ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(sys, path.c_str()), 0);
            orve_test::arm_io_failure(io_call::write, c.nth, c.how);
            if (c.rows != 0) {
                EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), total),
                          static_cast<int>(total));
            }
            for (uint32_t r = 0; c.rows == 0 && r < total; ++r)
                EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, r + 1,
                                                                                &vecs[r * 512]),
                          0);
            ASSERT_TRUE(orve_test::disarm_io_failure());
            EXPECT_EQ(sys->node_count, total);
            for (uint32_t want : {1u, c.kept, c.kept + 1, total}) {
                if (want == 0) continue;
                auto q = orve_test::int8_query(&vecs[(want - 1) * 512], 6);
                q.rerank = 1;
                const auto res = orve_test::search(sys, q);
                ASSERT_EQ(res.size(), 6u);
                EXPECT_EQ(res[0].node_id, want);
                for (const auto& r : res)
                    EXPECT_NEAR(r.similarity,
                                test_math::cosine512(q.query_vector, &vecs[(r.node_id - 1) * 512]),
                                0.02)
                        << r.node_id;
            }
        }
        const std::vector<uint8_t> file = test_files::read_file(path);
        ASSERT_EQ(file.size(), 32 + std::size_t{c.kept} * 2056);
        for (uint32_t r = 0; r < c.kept; ++r) {
            const uint8_t* row = file.data() + 32 + std::size_t{r} * 2056;
            EXPECT_EQ(row[0] | row[1] << 8 | row[2] << 16 | row[3] << 24, static_cast<int>(r + 1));
            EXPECT_EQ(std::memcmp(row + 8, &vecs[r * 512], 2048), 0) << r;
        }
    }
}

// A failed flush publishes nothing: -2, no output, the previous file kept, no temporary left.
TEST(IoFailure, PagedWriterFlushFailureKeepsThePreviousFile) {
    const paged_test::hand_hivf h(2, 2, paged_test::random_buckets(2, 2, 6, 62));
    const auto ids = paged_test::node_table(h.total_rows);
    orve_test::scratch_dir d;
    const std::string path = d.file("index.ivfp"), served = "the index being served";
    const std::vector<uint8_t> previous(served.begin(), served.end());
    test_files::write_file(path, previous);
    for (io_call call : {io_call::msync, io_call::fdatasync}) {
        for (io_failure how : {io_failure::io_error, io_failure::no_space}) {
            SCOPED_TRACE(testing::Message()
                         << static_cast<int>(call) << " " << static_cast<int>(how));
            orve_test::arm_io_failure(call, 1, how);
            testing::internal::CaptureStdout();
            EXPECT_EQ(orve_ivf_paged_build(h.get(), ids.data(), path.c_str()), -2);
            EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
            ASSERT_TRUE(orve_test::disarm_io_failure());
            EXPECT_EQ(test_files::read_file(path), previous);
            EXPECT_FALSE(test_files::file_exists(path + ".tmp"));
        }
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(orve_ivf_paged_build(h.get(), ids.data(), path.c_str()), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(test_files::read_file(path), paged_test::encode_ivfp(h, ids, 2));
}

}  // namespace
