// Writes the seed corpus of sidecar_open_fuzz: small real files from the library's own writer,
// one of them with a dead row and a trailing partial row. Usage: sidecar_fuzz_seeds DIR
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "semantic_vector_indexing.h"

namespace {

bool write_seed(const std::string& path, uint32_t rows, bool damaged) {
    orve_vec_sidecar* h = nullptr;
    if (orve_vec_sidecar_open(path.c_str(), &h) != 0) return false;
    float values[512];
    for (uint32_t r = 0; r < rows; ++r) {
        for (int i = 0; i < 512; ++i) values[i] = static_cast<float>(r + 1) * 0.5f - i * 0.01f;
        if (orve_vec_sidecar_append(h, 100 + r, values) != 0) return false;
    }
    bool ok = true;
    if (damaged) {
        const uint8_t dead = 0;
        const uint8_t tail[100] = {1, 2, 3};
        ok = pwrite(h->fd, &dead, 1, 32 + 4) == 1 &&
             write(h->fd, tail, sizeof tail) == static_cast<ssize_t>(sizeof tail);
    }
    orve_vec_sidecar_close(h);
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    const bool ok = write_seed(dir + "/empty.sidecar", 0, false) &&
                    write_seed(dir + "/two.sidecar", 2, false) &&
                    write_seed(dir + "/damaged.sidecar", 3, true);
    std::fprintf(stderr, ok ? "wrote 3 seed files to %s\n" : "could not write seeds to %s\n",
                 dir.c_str());
    return ok ? 0 : 1;
}
