// The engines bench_peers compares. Each builds its indexes over the same rows, adds its build
// and search figures to the report, and hands back what must outlive it (kept until the end, so
// that every later resident-memory figure is measured on top of the earlier indexes, not on
// memory they gave back).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "harness.h"

namespace peers {

using keep_alive = std::vector<std::shared_ptr<void>>;

extern const char* const kOurs;  // engine name of this library in the tables

void run_ours(const dataset& d, const options& opt, const answers& exact, report& rep,
              keep_alive& keep);

#if ORVE_PEERS_FAISS
// Builds IndexFlatIP, measures it, and returns its batch answers as the exact top 10.
answers run_faiss_flat(const dataset& d, const options& opt, report& rep, keep_alive& keep);
// IndexScalarQuantizer and IndexIVFScalarQuantizer, both 8-bit.
void run_faiss_quantised(const dataset& d, const options& opt, const answers& exact, report& rep,
                         keep_alive& keep);
#endif

#if ORVE_PEERS_HNSWLIB
void run_hnswlib(const dataset& d, const options& opt, const answers& exact, report& rep,
                 keep_alive& keep);
#endif

#if ORVE_PEERS_USEARCH
// f32 HNSW over the float rows and i8 HNSW over our int8 codes of them.
void run_usearch(const dataset& d, const options& opt, const answers& exact, report& rep,
                 keep_alive& keep);
#endif

// nlist and the H-IVF's b of a run, after the defaults are applied.
uint32_t ivf_nlist(const options& opt);
uint32_t hivf_b(const options& opt);

}  // namespace peers
