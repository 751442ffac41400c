// libFuzzer target of the tool's readers: the input is written to a file once as ".npy" and
// once as ".fvecs" and opened as vectors (every row read back), as node ids and as a bare NPY
// preamble, and parsed as a sharded directory's manifest. Refusals are tool_error; anything else (a
// crash, a sanitizer report, another exception escaping) is a finding.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "../../../tools/orve/sharded_dir.h"
#include "../../../tools/orve/tool_error.h"
#include "../../../tools/orve/vector_file.h"

namespace {

using namespace orve::tool;

// Two files named after the process, removed at the end of every input: libFuzzer leaves
// with _Exit, so nothing kept for the whole run would ever be cleaned up.
std::string input_path(const char* extension) {
    const char* base = std::getenv("TMPDIR");
    return std::string(base && *base ? base : "/tmp") + "/orve-fuzz-" + std::to_string(::getpid()) +
           extension;
}

void write_input(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) std::abort();
    if (size && std::fwrite(data, 1, size, f) != size) std::abort();
    std::fclose(f);
}

void open_vectors(const std::string& path) {
    try {
        const vector_file v(path);
        std::vector<float> row(kDim);
        for (uint64_t r = 0; r < v.rows(); ++r) v.read_rows(r, 1, row.data());
    } catch (const tool_error&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        parse_npy_header(data, size, "input");
    } catch (const tool_error&) {
    }
    try {
        parse_manifest(std::string(reinterpret_cast<const char*>(data), size), "input");
    } catch (const tool_error&) {
    }
    static const std::string npy = input_path(".npy"), fvecs = input_path(".fvecs");
    write_input(npy, data, size);
    write_input(fvecs, data, size);
    open_vectors(npy);
    open_vectors(fvecs);
    try {
        // The id count is the one thing the caller supplies; take it from the header itself.
        const npy_header h = parse_npy_header(data, size, "input");
        read_ids(npy, h.shape.size() == 1 ? h.shape[0] : 0);
    } catch (const tool_error&) {
    }
    ::unlink(npy.c_str());
    ::unlink(fvecs.c_str());
    return 0;
}
