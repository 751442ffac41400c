// Every allocation the object's operations make is made to fail in turn. Each failing run must
// return the documented code, leave the object as it was (or, for create, zeroed) and leak
// nothing (LeakSanitizer checks the last point in the sanitizer build). File writes and flushes
// are made to fail the same way (see the end of this file).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "alloc_fault.h"
#include "io_fault.h"
#include "core/system.h"
#include "support/system_fixture.h"

namespace {

using orve_test::create_with_capacity;
using orve_test::run_with_failing_allocation;
using orve_test::system_block;

TEST(AllocFailure, CreateFailsCleanlyAtEveryAllocation) {
    long runs = 0;
    for (long k = 1;; ++k, ++runs) {
        system_block b;
        int rc = 0;
        const bool injected =
            run_with_failing_allocation(k, [&] { rc = create_with_capacity(b.get(), "64"); });
        if (!injected) {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(b.get()->initialized, 1);
            break;
        }
        EXPECT_EQ(rc, -1) << "allocation " << k;
        EXPECT_EQ(b.get()->initialized, 0) << "allocation " << k;
        EXPECT_EQ(b.get()->lsh_index, nullptr);
        EXPECT_EQ(b.get()->clustering_index, nullptr);
        // Create again with a working allocator: the block is reusable.
        ASSERT_EQ(create_with_capacity(b.get(), "64"), 0);
    }
    EXPECT_GE(runs, 3) << "create makes at least the node table and two index records";
}

TEST(AllocFailure, IngestionLeavesNoTrace) {
    auto vecs = orve_test::gaussian_vectors(4, 50);
    for (long k = 1;; ++k) {
        system_block b;
        auto* sys = b.get();
        ASSERT_EQ(create_with_capacity(sys, "64"), 0);
        ASSERT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 9, vecs.data()), 0);
        int rc = 0;
        const bool injected = run_with_failing_allocation(k, [&] {
            rc = semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data() + 512, 3);
        });
        if (!injected) {
            EXPECT_EQ(rc, 3);
            break;
        }
        // Either refused outright or stopped at a row: committed rows are consistent.
        ASSERT_TRUE(rc == -1 || (rc >= 0 && rc < 3)) << rc;
        const uint32_t committed = rc < 0 ? 0 : static_cast<uint32_t>(rc);
        EXPECT_EQ(sys->node_count, 1 + committed);
        EXPECT_EQ(sys->ingest_generation.load(), 1 + committed);
        EXPECT_EQ(sys->row_valid[sys->node_count], 0);
        EXPECT_EQ(sys->nodes[sys->node_count].node_id, 0u);
        // The object still works.
        EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 77, vecs.data()), 0);
    }
}

TEST(AllocFailure, FirstEmbeddingWhenTheFlatStoreCannotBeAllocated) {
    auto v = orve_test::gaussian_vectors(1, 51);
    for (long k = 1;; ++k) {
        system_block b;
        auto* sys = b.get();
        ASSERT_EQ(create_with_capacity(sys, "64"), 0);
        int rc = 0;
        const bool injected = run_with_failing_allocation(k, [&] {
            rc = semantic_vector_indexing_system_add_embedding_orve512(sys, 5, v.data());
        });
        if (!injected) {
            EXPECT_EQ(rc, 0);
            break;
        }
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(sys->node_count, 0u);
        EXPECT_EQ(sys->nodes[0].node_id, 0u);
        EXPECT_EQ(sys->ingest_generation.load(), 0u);
        EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, 5, v.data()), 0);
    }
}

TEST(AllocFailure, BruteForceSearchFailsWithMinus1AndCountZero) {
    system_block b;
    auto* sys = b.get();
    ASSERT_EQ(create_with_capacity(sys, "64"), 0);
    auto vecs = orve_test::gaussian_vectors(20, 52);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 20), 20);
    auto q = orve_test::int8_query(vecs.data(), 5);
    for (long k = 1;; ++k) {
        vector_similarity_result res[5];
        uint32_t n = 99;
        int rc = 0;
        const bool injected = run_with_failing_allocation(
            k, [&] { rc = semantic_vector_indexing_system_search_similar(sys, &q, res, &n); });
        if (!injected) {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(n, 5u);
            EXPECT_EQ(res[0].node_id, 1u);
            break;
        }
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(n, 0u);
    }
}

TEST(AllocFailure, SidecarAttachReplaysOrFailsWithoutAttaching) {
    char dir_template[] = "/tmp/orve_fault_XXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    const std::string path = std::string(dir_template) + "/rows.sidecar";
    auto vecs = orve_test::gaussian_vectors(3, 53);
    {
        system_block b;
        ASSERT_EQ(create_with_capacity(b.get(), "64"), 0);
        ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(b.get(), path.c_str()), 0);
        ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(b.get(), vecs.data(), 3), 3);
    }
    for (long k = 1;; ++k) {
        system_block b;
        auto* sys = b.get();
        ASSERT_EQ(create_with_capacity(sys, "64"), 0);
        int rc = 0;
        const bool injected = run_with_failing_allocation(
            k, [&] { rc = semantic_vector_indexing_system_open_sidecar(sys, path.c_str()); });
        // The replay's read buffer may fail and be done without (a row at a time): the attach
        // then succeeds whole. Any other failure refuses it with nothing attached.
        if (rc == 0) {
            EXPECT_EQ(sys->node_count, 3u);
            EXPECT_NE(sys->sidecar, nullptr);
            if (!injected) break;
            continue;
        }
        EXPECT_TRUE(injected);
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(sys->sidecar, nullptr);
        EXPECT_LE(sys->node_count, 3u);
    }
    // The file was never rewritten by the failed attachments.
    system_block b;
    ASSERT_EQ(create_with_capacity(b.get(), "64"), 0);
    ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(b.get(), path.c_str()), 0);
    EXPECT_EQ(b.get()->node_count, 3u);
    unlink(path.c_str());
    rmdir(dir_template);
}

}  // namespace

namespace {

// The builds and the index searches under failing allocations: a failed build publishes
// nothing and leaves the previous index serving; a failed index search falls back to brute
// force, so the front end still answers.
TEST(AllocFailure, IndexBuildsAndIndexSearches) {
    orve_test::system_block b;
    auto* sys = b.get();
    ASSERT_EQ(orve_test::create_with_capacity(sys, "2000"), 0);
    const auto vecs = orve_test::gaussian_vectors(1000, 54);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), 1000), 1000);
    for (int which = 0; which < 2; ++which) {
        for (long k = 1;; ++k) {
            const void* before = which == 0 ? static_cast<const void*>(sys->live_ivf.load())
                                            : static_cast<const void*>(sys->live_hivf.load());
            int rc = 0;
            const bool injected = orve_test::run_with_failing_allocation(k, [&] {
                rc = which == 0 ? semantic_vector_indexing_system_build_ivf(sys, 4, 1)
                                : semantic_vector_indexing_system_build_ivf_level2(sys, 2, 2, 1);
            });
            const void* after = which == 0 ? static_cast<const void*>(sys->live_ivf.load())
                                           : static_cast<const void*>(sys->live_hivf.load());
            if (!injected) {
                EXPECT_EQ(rc, 0);
                break;
            }
            // Some scratch is optional (the training falls back to a slower exact path
            // without it), so a build may still succeed; a failed one publishes nothing.
            ASSERT_TRUE(rc == 0 || rc == -1) << rc;
            if (rc == -1) {
                EXPECT_EQ(after, before) << "allocation " << k;
            } else {
                EXPECT_NE(after, before) << "allocation " << k;
            }
        }
    }
    auto q = orve_test::int8_query(vecs.data() + 512 * 10, 3);
    q.use_ivf = 1;
    q.n_probe = 2;
    q.use_hivf = 1;
    q.n_probe_l1 = 1;
    q.n_probe_l2 = 2;
    for (long k = 1;; ++k) {
        vector_similarity_result r[3];
        uint32_t n = 0;
        int rc = 0;
        const bool injected = orve_test::run_with_failing_allocation(
            k, [&] { rc = semantic_vector_indexing_system_search_similar(sys, &q, r, &n); });
        if (!injected) {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(r[0].node_id, 11u);
            break;
        }
        // Every index path falls through to brute force, which fails only when its own
        // allocations do.
        if (rc == 0) {
            EXPECT_EQ(r[0].node_id, 11u);
        } else {
            EXPECT_EQ(rc, -1);
        }
    }
}

TEST(AllocFailure, IvfBuildMakesNoFloatCopyOfTheRows) {
    // A float copy of the rows (2 KiB per row) is gigabytes at full capacity: it would double
    // a build's peak memory, and made under the object's lock it would stall ingestion, brute
    // force and every pin. Training reads the int8 rows, so no allocation that large happens.
    constexpr uint32_t kRows = 1100;
    system_block b;
    auto* sys = b.get();
    ASSERT_EQ(create_with_capacity(sys, "2000"), 0);
    const auto vecs = orve_test::gaussian_vectors(kRows, 53);
    ASSERT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), kRows),
              static_cast<int>(kRows));
    int large = 0;
    orve_test::run_observing_allocations(
        [&](std::size_t bytes) {
            if (bytes >= std::size_t{kRows} * 2048) ++large;
        },
        [&] { EXPECT_EQ(semantic_vector_indexing_system_build_ivf(sys, 8, 3), 0); });
    EXPECT_EQ(large, 0);
}

}  // namespace

namespace {

using orve_test::io_call;
using orve_test::io_failure;

struct scratch {
    std::string dir;
    scratch() {
        char t[] = "/tmp/orve_io_fault_XXXXXX";
        dir = mkdtemp(t) != nullptr ? t : "/tmp";
    }
    ~scratch() {
        for (const char* n : {"/rows.sidecar", "/index.ivfp", "/index.ivfp.tmp"}) {
            unlink((dir + n).c_str());
        }
        rmdir(dir.c_str());
    }
};

int64_t file_size(const std::string& p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

double cosine(const float* a, const float* b) {
    double ab = 0, aa = 0, bb = 0;
    for (int i = 0; i < 512; ++i) {
        ab += static_cast<double>(a[i]) * b[i];
        aa += static_cast<double>(a[i]) * a[i];
        bb += static_cast<double>(b[i]) * b[i];
    }
    return ab / (std::sqrt(aa) * std::sqrt(bb));
}

// An append fails partway through the rows (ingested one by one, or in bulk where one vectored
// write carries many rows and a short one stops inside a row). Ingestion still succeeds, the
// file keeps exactly the rows written before the failure, whole and each at its own position,
// and re-ranking never scores a row with another row's vector.
TEST(IoFailure, FailedSidecarAppendLeavesAWholePrefixAndNoMisplacedRow) {
    const auto vecs = orve_test::gaussian_vectors(300, 61);
    struct append_case {
        io_failure how;
        uint32_t rows;  // 0: seven single appends
        long nth;       // the failing write
        uint32_t kept;  // whole rows the file keeps
    };
    const append_case cases[] = {
        {io_failure::no_space, 0, 4, 3},
        {io_failure::io_error, 0, 4, 3},
        {io_failure::short_write, 0, 4, 3},
        {io_failure::no_space, 7, 1, 0},
        {io_failure::io_error, 7, 1, 0},
        // Half of seven rows' bytes end inside the fourth row.
        {io_failure::short_write, 7, 1, 3},
        // The second vector (rows 256 on) stops halfway through its 44 rows.
        {io_failure::short_write, 300, 2, 278},
    };
    for (const append_case& c : cases) {
        SCOPED_TRACE(testing::Message() << "failure " << static_cast<int>(c.how) << " rows "
                                        << c.rows << " write " << c.nth);
        const uint32_t total = c.rows == 0 ? 7 : c.rows;
        scratch d;
        const std::string path = d.dir + "/rows.sidecar";
        {
            system_block b;
            auto* sys = b.get();
            ASSERT_EQ(create_with_capacity(sys, "512"), 0);
            ASSERT_EQ(semantic_vector_indexing_system_open_sidecar(sys, path.c_str()), 0);
            orve_test::arm_io_failure(io_call::write, c.nth, c.how);
            if (c.rows != 0) {
                EXPECT_EQ(semantic_vector_indexing_system_load_vectors_f32(sys, vecs.data(), total),
                          static_cast<int>(total));
            } else {
                for (uint32_t r = 0; r < total; ++r) {
                    EXPECT_EQ(semantic_vector_indexing_system_add_embedding_orve512(sys, r + 1,
                                                                                    &vecs[r * 512]),
                              0);
                }
            }
            ASSERT_TRUE(orve_test::disarm_io_failure());
            EXPECT_EQ(sys->node_count, total);
            // What a host compares: the file's whole rows against the rows ingested.
            EXPECT_EQ(file_size(path), 32 + int64_t{c.kept} * 2056);

            for (uint32_t want : {1u, c.kept, c.kept + 1, total}) {
                if (want == 0) continue;
                auto q = orve_test::int8_query(&vecs[(want - 1) * 512], 6);
                q.rerank = 1;
                vector_similarity_result res[6];
                uint32_t n = 0;
                ASSERT_EQ(semantic_vector_indexing_system_search_similar(sys, &q, res, &n), 0);
                ASSERT_EQ(n, 6u);
                EXPECT_EQ(res[0].node_id, want);
                for (uint32_t i = 0; i < n; ++i) {
                    const float* own = &vecs[(res[i].node_id - 1) * 512];
                    EXPECT_NEAR(res[i].similarity, cosine(&vecs[(want - 1) * 512], own), 0.02)
                        << "node " << res[i].node_id << " for query " << want;
                }
            }
        }
        // The kept rows, read back from the file's bytes (little-endian, as on every target):
        // ids 1.. in order, their exact floats.
        FILE* f = std::fopen(path.c_str(), "rb");
        ASSERT_NE(f, nullptr);
        std::vector<uint8_t> file(32 + std::size_t{c.kept} * 2056);
        EXPECT_EQ(std::fread(file.data(), 1, file.size(), f), file.size());
        std::fclose(f);
        for (uint32_t r = 0; r < c.kept; ++r) {
            const uint8_t* row = file.data() + 32 + std::size_t{r} * 2056;
            EXPECT_EQ(row[0] | row[1] << 8 | row[2] << 16 | row[3] << 24, static_cast<int>(r + 1));
            EXPECT_EQ(std::memcmp(row + 8, &vecs[r * 512], 2048), 0) << r;
        }
    }
}

// A flush that fails keeps the new file from being published: -2, the previous file still
// under the final name, the temporary gone.
TEST(IoFailure, PagedWriterFlushFailureKeepsThePreviousFile) {
    const uint32_t n = 16;
    const auto vecs = orve_test::gaussian_vectors(n, 62);
    std::vector<int8_t> codes(n * 512);
    std::vector<float> scales(n), norms(n);
    for (uint32_t r = 0; r < n; ++r) {
        ASSERT_EQ(orve_quantize_float_vector_symmetric(&vecs[r * 512], 512, &codes[r * 512],
                                                       &scales[r], &norms[r]),
                  0);
    }
    orve_hivf_index h{};
    ASSERT_EQ(orve_hivf_build_i8(codes.data(), scales.data(), norms.data(), n, 2, 2, 1, &h), 0);
    std::vector<uint32_t> ids(n);
    for (uint32_t r = 0; r < n; ++r) ids[r] = r + 1;

    scratch d;
    const std::string path = d.dir + "/index.ivfp";
    const std::string previous = "the index being served";
    {
        FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fputs(previous.c_str(), f);
        std::fclose(f);
    }
    for (io_call call : {io_call::msync, io_call::fdatasync}) {
        for (io_failure how : {io_failure::io_error, io_failure::no_space}) {
            SCOPED_TRACE(testing::Message() << "call " << static_cast<int>(call) << " failure "
                                            << static_cast<int>(how));
            orve_test::arm_io_failure(call, 1, how);
            testing::internal::CaptureStdout();
            const int32_t rc = orve_ivf_paged_build(&h, ids.data(), path.c_str());
            const std::string out = testing::internal::GetCapturedStdout();
            ASSERT_TRUE(orve_test::disarm_io_failure());
            EXPECT_EQ(rc, -2);
            EXPECT_EQ(out, "");
            EXPECT_EQ(file_size(path), static_cast<int64_t>(previous.size()));
            EXPECT_EQ(file_size(path + ".tmp"), -1);
        }
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(orve_ivf_paged_build(&h, ids.data(), path.c_str()), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_GT(file_size(path), static_cast<int64_t>(previous.size()));
    orve_hivf_index_destroy(&h);
}

}  // namespace
