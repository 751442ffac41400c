// The scan of IVF buckets (or H-IVF leaves) into a query's candidate heap.
#pragma once

#include "search/query_context.h"

namespace orve {

// Scores every row of bucket b of `index` against the query and offers each to the sink.
void scan_bucket(const orve_ivf_index& index, uint32_t b, query_context& ctx);

// Asks the processor to start loading the first rows of bucket b (codes, ids, scales, norms),
// so that a scan moving on to it from another bucket does not wait for memory at each of the
// four arrays' new start. Only a hint: nothing is read, and any bucket number is harmless.
void prefetch_bucket(const orve_ivf_index& index, uint32_t b);

// Offers the rows of bucket b to the sink in bucket order, with their dot products against the
// query already in dots[0 .. size of b): the second half of scan_bucket, for a caller that
// scored the rows earlier (a batch scores a bucket once for all the queries that probe it).
void offer_bucket(const orve_ivf_index& index, uint32_t b, const int32_t* dots, query_context& ctx);

// Writes the dot products of the rows of bucket b against each of the n queries, query j's to
// out[j][0 .. size of b), loading each row once per kMultiQueries queries.
void score_bucket_rows(const orve_ivf_index& index, uint32_t b, const int8_t* const* queries,
                       uint32_t n, int32_t* const* out);

}  // namespace orve
