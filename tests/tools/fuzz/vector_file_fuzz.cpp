// libFuzzer target of the tool's readers: the input is parsed as an NPY preamble and as a
// sharded directory's manifest, then written to a file once as ".npy" and once as ".fvecs" and
// opened as vectors (every row read back) and as node ids. Refusals are tool_error; anything
// else (a crash, a sanitizer report, another exception escaping) is a finding.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "../../../tools/orve/sharded_dir.h"
#include "../../../tools/orve/tool_error.h"
#include "../../../tools/orve/vector_file.h"

using namespace orve::tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Files named after the process, removed after every input: libFuzzer leaves with _Exit,
    // so nothing kept for the whole run would ever be cleaned up.
    const char* tmp = std::getenv("TMPDIR");
    const std::string base =
        std::string(tmp && *tmp ? tmp : "/tmp") + "/orve-fuzz-" + std::to_string(::getpid());
    uint64_t ids = 0;
    try {
        ids = parse_npy_header(data, size, "input").shape.size() == 1
                  ? parse_npy_header(data, size, "input").shape[0]
                  : 0;  // the id count the caller supplies, taken from the header itself
    } catch (const tool_error&) {
    }
    try {
        parse_manifest(std::string(reinterpret_cast<const char*>(data), size), "input");
    } catch (const tool_error&) {
    }
    for (const char* ext : {".npy", ".fvecs"}) {
        const std::string path = base + ext;
        FILE* f = std::fopen(path.c_str(), "wb");
        if (!f || (size && std::fwrite(data, 1, size, f) != size)) std::abort();
        std::fclose(f);
        try {
            const vector_file v(path);
            std::vector<float> row(kDim);
            for (uint64_t r = 0; r < v.rows(); ++r) v.read_rows(r, 1, row.data());
        } catch (const tool_error&) {
        }
        try {
            if (ext[1] == 'n') read_ids(path, ids);
        } catch (const tool_error&) {
        }
        ::unlink(path.c_str());
    }
    return 0;
}
