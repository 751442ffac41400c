// The sharded directory's manifest as the tool reads it: every malformed or hostile manifest is
// refused by a tool_error, never a crash or a path outside the directory. (Reading what the
// Python package writes is checked end to end from its tests.)
#include <gtest/gtest.h>

#include <string>

#include "../../tools/orve/sharded_dir.h"
#include "../../tools/orve/tool_error.h"

namespace {

using orve::tool::parse_manifest;
using orve::tool::tool_error;

// As json.dump(indent=1, sort_keys=True) writes it for two shards, one of them sealed; each
// case below breaks it in one way.
const std::string kPython = R"({
 "format": "orve-sharded",
 "next_shard": 3,
 "settings": {
  "hivf": null,
  "nlist": 16,
  "seed": 7,
  "shard_rows": 1000
 },
 "shards": [
  {"hivf": [6, 5], "name": "shard-000001", "nlist": 16, "rows": 1000, "state": "sealed"},
  {"name": "shard-000002", "state": "open"}
 ],
 "version": 1
})";

TEST(ShardedManifest, MalformedOrHostileManifestsAreRefused) {
    auto with = [](const std::string& from, const std::string& to) {
        std::string s = kPython;
        s.replace(s.find(from), from.size(), to);
        return s;
    };
    const std::string cases[] = {
        "",
        "{",
        "[]",
        std::string(100, '['),
        kPython + "x",
        with("orve-sharded", "other"),
        with("\"version\": 1", "\"version\": 2"),
        with("\"shard_rows\": 1000", "\"shard_rows\": 1.5"),
        with("\"shard_rows\": 1000", "\"shard_rows\": 2000000"),
        with("\"shard_rows\": 1000", "\"shard_rows\": \"1000\""),
        with("shard-000002", "../../etc"),
        with("shard-000002", "/tmp/x"),
        with("shard-000002", "shard-000001"),
        with("\"open\"", "\"sealing?\""),
        with("[6, 5]", "[6]"),
        with("\"seed\": 7", "\"seed\": -1"),
        with("\"shards\": [", "\"shards\": {\"a\": ["),
        with("\"name\": \"shard-000002\", ", ""),
        with("\"shard-000002\"", "\"shard-0000\\"),
    };
    for (const std::string& text : cases) {
        EXPECT_THROW(parse_manifest(text, "m"), tool_error) << text;
    }
}

}  // namespace
