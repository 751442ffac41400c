// A sharded directory: several shards, each a sidecar (rows.vec), the node id of each of its
// rows (ids.u32), optional tombstones (dead.tmb) and, once sealed, a paged index (index.ivfp),
// named by a small JSON manifest. The Python package's ShardedIndex reads and writes the same
// layout, so a directory the tool builds opens there and the other way round.
//
// Inside a shard the library knows a row by its key (its 1-based position in the shard); the
// node id of key r is entry r - 1 of ids.u32.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace orve::tool {

struct shard_entry {
    std::string name;  // "shard-000001": a directory inside the sharded directory
    bool sealed = false;
    uint32_t b1 = 0, b2 = 0;  // the H-IVF of a sealed shard, 0 when the manifest omits it
    uint32_t nlist = 0;       // the IVF built with it at the seal, 0 when none was
};

struct sharded_manifest {
    uint64_t shard_rows = 0;
    uint32_t hivf_b1 = 0, hivf_b2 = 0;  // 0: chosen per shard from its row count
    uint32_t nlist = 0;                 // 0: seals build no IVF
    uint32_t seed = 1;
    uint64_t next_shard = 1;
    std::vector<shard_entry> shards;
};

inline constexpr const char* kManifestName = "manifest.json";

// A directory holding a manifest.json: what query and inspect treat as a sharded index.
bool is_sharded_directory(const std::string& path);

// Parses the manifest text; anything malformed, of another format or version, or naming a shard
// outside the directory is a tool_error naming `where`.
sharded_manifest parse_manifest(const std::string& text, const std::string& where);
sharded_manifest read_manifest(const std::string& dir);

std::string manifest_text(const sharded_manifest& m);
// Temp file, fsync, rename, fsync of the directory: a reader sees the old manifest or the new
// one, whole, even after a crash at any point.
void write_manifest(const std::string& dir, const sharded_manifest& m);

// The node id of every row key of a shard, read from ids.u32.
std::vector<uint32_t> read_shard_ids(const std::string& shard_dir);

// Row keys deleted in a shard. A torn last record (a crash during an append) is ignored; a bad
// record followed by a good one is damage, and reading past it could bring a deleted row back,
// so that is an error.
std::set<uint32_t> read_tombstones(const std::string& shard_dir);

}  // namespace orve::tool
