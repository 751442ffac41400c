// orve inspect: what a paged index or a sidecar file holds, decoded from its bytes, and whether
// the library accepts it.
#include <sys/stat.h>

#include <cstdio>
#include <set>
#include <string>

#include "commands.h"
#include "index_files.h"
#include "file_checks.h"
#include "library.h"
#include "sharded_dir.h"
#include "tool_error.h"

namespace orve::tool {

namespace {

std::string yes_no(bool v) {
    return v ? "yes" : "no";
}

// A JSON string literal: paths may hold quotes, backslashes or control bytes.
std::string json_string(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

using ull = unsigned long long;

// The library's own verdict on a paged file: 0, or its code and first log line.
int library_accepts(const std::string& path, std::string* why) {
    orve_ivf_paged_index* handle = nullptr;
    library_output log;
    const int rc = orve_ivf_paged_open(path.c_str(), &handle);
    const std::string text = log.finish();
    orve_ivf_paged_close(handle);
    *why = text.substr(0, text.find('\n'));
    return rc;
}

int paged_json(const std::string& path) {
    const ivfp_report r = read_ivfp_report(path);
    std::string why;
    const int rc = library_accepts(path, &why);
    std::printf(
        "{\"kind\": \"paged_index\", \"path\": %s, \"file_bytes\": %llu, "
        "\"version\": %u, \"dim\": %u, \"b1\": %u, \"b2\": %u, \"rows\": %u, "
        "\"validates\": %s, \"library_code\": %d, \"problems\": [",
        json_string(path).c_str(), static_cast<ull>(r.file_size), r.version, r.dim, r.b1, r.b2,
        r.n_rows, rc == 0 && r.problems.empty() ? "true" : "false", rc);
    for (size_t i = 0; i < r.problems.size(); ++i) {
        std::printf("%s%s", i ? ", " : "", json_string(r.problems[i]).c_str());
    }
    std::printf("]}\n");
    if (rc != 0) throw tool_error(path + ": the library does not accept this paged index");
    if (!r.problems.empty()) throw tool_error(path + ": layout problems (listed above)");
    return 0;
}

int sidecar_json(const std::string& path) {
    const sidecar_report r = read_sidecar_report(path);
    std::printf(
        "{\"kind\": \"sidecar\", \"path\": %s, \"file_bytes\": %llu, "
        "\"version\": %u, \"dim\": %u, \"row_bytes\": %u, \"header_ok\": %s, "
        "\"rows\": %llu, \"live_rows\": %llu, \"dead_rows\": %llu, \"min_id\": %u, "
        "\"max_id\": %u, \"repeated_ids\": %llu, \"partial_bytes\": %llu}\n",
        json_string(path).c_str(), static_cast<ull>(r.file_size), r.version, r.dim, r.row_bytes,
        r.header_ok ? "true" : "false", static_cast<ull>(r.rows), static_cast<ull>(r.live_rows),
        static_cast<ull>(r.dead_rows), r.live_rows ? r.min_id : 0, r.live_rows ? r.max_id : 0,
        static_cast<ull>(r.duplicate_ids), static_cast<ull>(r.partial_bytes));
    if (!r.header_ok) {
        throw tool_error(path + ": the library would discard this sidecar's rows (bad header)");
    }
    return 0;
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

uint64_t size_of(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

struct shard_summary {
    std::string name;
    bool sealed = false;
    uint64_t rows = 0;     // live rows of the sidecar
    uint64_t deleted = 0;  // of those, deleted by a tombstone
    uint64_t bytes = 0;    // every file of the shard
};

shard_summary summarise(const std::string& dir, const shard_entry& e) {
    shard_summary s{e.name, e.sealed, 0, 0, 0};
    const std::string shard_dir = dir + "/" + e.name;
    const std::string sidecar = shard_dir + "/rows.vec";
    if (sidecar_whole_rows(sidecar)) {
        sidecar_live_rows live;
        s.rows = read_sidecar_report(sidecar, &live).live_rows;
        const std::set<uint32_t> dead = read_tombstones(shard_dir);
        for (const uint32_t key : live.ids) s.deleted += dead.count(key);
    }
    for (const char* f : {"/rows.vec", "/ids.u32", "/dead.tmb", "/index.ivfp"}) {
        s.bytes += size_of(shard_dir + f);
    }
    return s;
}

// Per shard and in total: rows, deleted rows and bytes on disk.
int inspect_sharded(const std::string& dir, bool json) {
    const sharded_manifest m = read_manifest(dir);
    std::vector<shard_summary> shards;
    shard_summary total;
    for (const shard_entry& e : m.shards) {
        shards.push_back(summarise(dir, e));
        total.rows += shards.back().rows;
        total.deleted += shards.back().deleted;
        total.bytes += shards.back().bytes;
    }
    if (json) {
        std::printf("{\"kind\": \"sharded\", \"path\": %s, \"shard_rows\": %llu, \"shards\": [",
                    json_string(dir).c_str(), static_cast<ull>(m.shard_rows));
        for (size_t i = 0; i < shards.size(); ++i) {
            const shard_summary& s = shards[i];
            std::printf(
                "%s{\"name\": %s, \"state\": \"%s\", \"rows\": %llu, \"deleted\": %llu, "
                "\"file_bytes\": %llu}",
                i ? ", " : "", json_string(s.name).c_str(), s.sealed ? "sealed" : "open",
                static_cast<ull>(s.rows), static_cast<ull>(s.deleted), static_cast<ull>(s.bytes));
        }
        std::printf("], \"rows\": %llu, \"deleted\": %llu, \"file_bytes\": %llu}\n",
                    static_cast<ull>(total.rows), static_cast<ull>(total.deleted),
                    static_cast<ull>(total.bytes));
        return 0;
    }
    std::printf("%s: sharded index, %zu shards of at most %llu rows\n", dir.c_str(), shards.size(),
                static_cast<ull>(m.shard_rows));
    for (const shard_summary& s : shards) {
        std::printf("  %-14s %-7s %10llu rows  %8llu deleted  %s\n", s.name.c_str(),
                    s.sealed ? "sealed" : "open", static_cast<ull>(s.rows),
                    static_cast<ull>(s.deleted), mib_text(s.bytes).c_str());
    }
    std::printf("  %-14s %-7s %10llu rows  %8llu deleted  %s\n", "total", "",
                static_cast<ull>(total.rows), static_cast<ull>(total.deleted),
                mib_text(total.bytes).c_str());
    return 0;
}

}  // namespace

const command_def& inspect_def() {
    static const command_def def{
        "inspect",
        "FILE|DIR [--format text|json]",
        "describe a paged index (.ivfp), a sidecar file or a sharded directory",
        "For a paged index: the header fields, the section offsets, the leaf-size distribution\n"
        "and whether the library's reader accepts the file. For a sidecar: the header, the\n"
        "number of rows, dead rows (live byte 0 or id 0, skipped on replay), the id range and\n"
        "whether the file ends in a partial row. For a sharded directory: each shard's state,\n"
        "rows, deleted rows and size on disk, and the totals. The kind is recognised from the\n"
        "magic bytes.\n"
        "Exits non-zero when the file is not one the library would accept.",
        {
            {"--format", "FORMAT", "text (default) or json (one object on one line)"},
            {"--help", "", "show this help"},
        }};
    return def;
}

int run_inspect(const parsed_args& args) {
    if (args.positionals().size() != 1) throw usage_error("expects exactly one FILE");
    const std::string& path = args.positionals()[0];
    const std::string format = args.get_or("--format", "text");
    if (format != "text" && format != "json") {
        throw usage_error("--format expects text or json, got '" + format + "'");
    }
    const bool json = format == "json";
    if (is_sharded_directory(path)) return inspect_sharded(path, json);
    switch (sniff_index_file(path)) {
        case index_file_kind::paged_index:
            return json ? paged_json(path) : inspect_paged(path);
        case index_file_kind::sidecar:
            return json ? sidecar_json(path) : inspect_sidecar(path);
        case index_file_kind::unknown:
            break;
    }
    throw tool_error(path + ": neither a paged index nor a sidecar file (unknown magic)");
}

}  // namespace orve::tool
