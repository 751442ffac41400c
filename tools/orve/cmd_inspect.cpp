// orve inspect: what a paged index or a sidecar file holds, decoded from its bytes, and whether
// the library accepts it.
#include <cstdio>
#include <string>

#include "commands.h"
#include "index_files.h"
#include "library.h"
#include "tool_error.h"

namespace orve::tool {

namespace {

std::string yes_no(bool v) {
    return v ? "yes" : "no";
}

int inspect_paged(const std::string& path) {
    const ivfp_report r = read_ivfp_report(path);
    std::printf("%s: paged index\n", path.c_str());
    std::printf("  file size        %s (%llu bytes)\n", mib_text(r.file_size).c_str(),
                static_cast<unsigned long long>(r.file_size));
    std::printf("  header           version %u, dim %u, b1 %u, b2 %u, rows %u, reserved %s\n",
                r.version, r.dim, r.b1, r.b2, r.n_rows, r.reserved_zero ? "zero" : "NOT zero");
    if (r.tables_read) {
        std::printf(
            "  sections         leaf centroids @%llu, leaf table @%llu, "
            "leaf directory @%llu, leaf data @%llu\n",
            static_cast<unsigned long long>(r.leaf_centroids),
            static_cast<unsigned long long>(r.leaf_table),
            static_cast<unsigned long long>(r.leaf_directory),
            static_cast<unsigned long long>(r.leaf_data));
        std::printf("  leaves           %llu slots, %llu empty, %llu rows in leaves\n",
                    static_cast<unsigned long long>(r.slots),
                    static_cast<unsigned long long>(r.empty_slots),
                    static_cast<unsigned long long>(r.rows_in_leaves));
        std::printf("  leaf size        min %u, median %u, max %u (non-empty leaves)\n", r.leaf_min,
                    r.leaf_median, r.leaf_max);
        std::printf("  level-1 bucket   min %u, median %u, max %u rows\n", r.l1_min, r.l1_median,
                    r.l1_max);
    }
    for (const std::string& p : r.problems) std::printf("  problem          %s\n", p.c_str());

    orve_ivf_paged_index* handle = nullptr;
    library_output log;
    const int rc = orve_ivf_paged_open(path.c_str(), &handle);
    std::string text = log.finish();
    orve_ivf_paged_close(handle);
    if (rc == 0) {
        std::printf("  validates        yes\n");
        if (!r.problems.empty()) throw tool_error(path + ": layout problems (listed above)");
        return 0;
    }
    text = text.substr(0, text.find('\n'));
    std::printf("  validates        no (library code %d%s%s)\n", rc, text.empty() ? "" : ": ",
                text.c_str());
    throw tool_error(path + ": the library does not accept this paged index (code " +
                     std::to_string(rc) + ")");
}

int inspect_sidecar(const std::string& path) {
    const sidecar_report r = read_sidecar_report(path);
    std::printf("%s: vector sidecar\n", path.c_str());
    std::printf("  file size        %s (%llu bytes)\n", mib_text(r.file_size).c_str(),
                static_cast<unsigned long long>(r.file_size));
    std::printf("  header           version %u, dim %u, row size %u (%s)\n", r.version, r.dim,
                r.row_bytes, r.header_ok ? "valid" : "NOT valid");
    if (!r.header_ok) {
        throw tool_error(path + ": the library would discard this sidecar's rows (bad header)");
    }
    std::printf(
        "  rows             %llu (%llu live, %llu dead)\n", static_cast<unsigned long long>(r.rows),
        static_cast<unsigned long long>(r.live_rows), static_cast<unsigned long long>(r.dead_rows));
    if (r.live_rows) {
        std::printf("  ids              %u to %u, %llu repeated\n", r.min_id, r.max_id,
                    static_cast<unsigned long long>(r.duplicate_ids));
    }
    std::printf("  partial row      %s", yes_no(r.partial_bytes != 0).c_str());
    if (r.partial_bytes) {
        std::printf(" (%llu bytes after row %llu)",
                    static_cast<unsigned long long>(r.partial_bytes),
                    static_cast<unsigned long long>(r.rows));
    }
    std::printf("\n");
    return 0;
}

}  // namespace

const command_def& inspect_def() {
    static const command_def def{
        "inspect",
        "FILE",
        "describe a paged index (.ivfp) or a sidecar file",
        "For a paged index: the header fields, the section offsets, the leaf-size distribution\n"
        "and whether the library's reader accepts the file. For a sidecar: the header, the\n"
        "number of rows, dead rows (live byte 0 or id 0, skipped on replay), the id range and\n"
        "whether the file ends in a partial row. The kind is recognised from the magic bytes.\n"
        "Exits non-zero when the file is not one the library would accept.",
        {
            {"--help", "", "show this help"},
        }};
    return def;
}

int run_inspect(const parsed_args& args) {
    if (args.positionals().size() != 1) throw usage_error("expects exactly one FILE");
    const std::string& path = args.positionals()[0];
    switch (sniff_index_file(path)) {
        case index_file_kind::paged_index:
            return inspect_paged(path);
        case index_file_kind::sidecar:
            return inspect_sidecar(path);
        case index_file_kind::unknown:
            break;
    }
    throw tool_error(path + ": neither a paged index nor a sidecar file (unknown magic)");
}

}  // namespace orve::tool
