// The tool's side of the public C API: an owned system object, the search paths as named on
// the command line, and a guard that keeps the library's own log lines out of the tool's
// standard output.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "semantic_vector_indexing.h"

namespace orve::tool {

class reporter;
class parsed_args;

// Largest b1 and b2 an H-IVF may have to be written as a paged index: the paged search keeps its
// per-level scratch in fixed tables of this many entries. Checked by the tool before any work,
// so a user learns it from the command line rather than from a failed write after training.
inline constexpr uint32_t kPagedMaxBranching = ORVE_IVF_PAGED_MAX_B;

// --b1 / --b2 of an H-IVF that will be paged: 1 to kPagedMaxBranching, with a message that says
// why the upper limit exists.
uint32_t paged_branching_arg(const parsed_args& args, const std::string& name, uint32_t fallback);

// The library announces paged files it opens or writes on standard output and its problems on
// standard error. Standard output carries the tool's tables, CSV and JSON, so while a guarded
// call runs both descriptors point at a scratch file; finish() restores them and hands back
// what was written, which the caller replays on standard error after its own status line.
class library_output {
  public:
    library_output();
    ~library_output();
    library_output(const library_output&) = delete;
    library_output& operator=(const library_output&) = delete;
    std::string finish();
    // finish(), then the text on standard error unless --quiet.
    void replay(const reporter& rep);

  private:
    void restore();
    int saved_out_ = -1;
    int saved_err_ = -1;
    int scratch_ = -1;
};

// A created system object in memory the tool owns. The capacity is handed to the library
// through ORVE_VECTOR_CAPACITY, the only way it accepts one, set just before create.
class system_object {
  public:
    explicit system_object(uint64_t capacity);
    ~system_object();
    system_object(const system_object&) = delete;
    system_object& operator=(const system_object&) = delete;

    semantic_vector_indexing_system* get() const { return sys_; }
    // Destroy and create again: what a host does when it restarts.
    void recreate(uint64_t capacity);
    // Destroy for good, closing (and flushing) any attached sidecar now.
    void destroy();
    uint32_t node_count() const;

  private:
    void create(uint64_t capacity);
    semantic_vector_indexing_system* sys_ = nullptr;
};

// Writes the object's H-IVF to `path` as a paged index and attaches it; the library's lines are
// replayed on standard error unless --quiet. Throws naming display_name and the library's
// reason.
void write_paged_index(semantic_vector_indexing_system* sys, const std::string& path,
                       const std::string& display_name, const reporter& rep);

enum class search_path { brute, ivf, hivf, paged };

// "brute", "ivf", "hivf", "paged"; parse_search_path throws a usage error for anything else.
const char* path_name(search_path p);
search_path parse_search_path(const std::string& text);

struct search_params {
    search_path path = search_path::brute;
    uint32_t k = 10;
    uint32_t nprobe = 1;
    uint32_t nprobe_l1 = 1;
    uint32_t nprobe_l2 = 1;
    bool rerank = false;
    uint32_t rerank_factor = 0;  // 0: the library's default of 5
};

struct hit {
    uint32_t node_id = 0;
    float similarity = 0.0f;
    bool operator==(const hit&) const = default;
};

// Runs queries on one path, reusing its query record and result buffer.
class searcher {
  public:
    searcher(semantic_vector_indexing_system* sys, const search_params& params);
    // Throws tool_error when the library reports a failure.
    const std::vector<hit>& run(const float* query);

  private:
    semantic_vector_indexing_system* sys_;
    vector_similarity_query query_;
    std::vector<vector_similarity_result> results_;
    std::vector<hit> hits_;
};

// Index sizes used when the command line does not give them, as functions of the row count.
uint32_t default_nlist(uint64_t rows);
uint32_t default_nprobe(uint32_t nlist);
// One side of the H-IVF (b1 = b2), capped by what the paged file accepts.
uint32_t default_branching(uint64_t rows);
uint32_t default_nprobe_level(uint32_t branching);

// A size as every command prints it: MiB (2^20 bytes) with one decimal, "53.6 MiB".
std::string mib_text(uint64_t bytes);

}  // namespace orve::tool
