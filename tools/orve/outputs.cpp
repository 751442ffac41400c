#include "outputs.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "file_checks.h"
#include "tool_error.h"

namespace orve::tool {

namespace {

// The signal handler may only touch plain memory and call async-signal-safe functions, so
// registered paths live in fixed buffers rather than in std::string.
constexpr int kSlots = 16;
constexpr size_t kPathMax = 4096;

struct cleanup_slot {
    volatile sig_atomic_t used;
    volatile sig_atomic_t is_dir;
    char path[kPathMax];
};

cleanup_slot g_slots[kSlots];

int register_path(const std::string& path, bool is_dir) {
    if (path.size() >= kPathMax) return -1;
    for (int i = 0; i < kSlots; ++i) {
        if (!g_slots[i].used) {
            std::memcpy(g_slots[i].path, path.c_str(), path.size() + 1);
            g_slots[i].is_dir = is_dir ? 1 : 0;
            g_slots[i].used = 1;
            return i;
        }
    }
    return -1;
}

void unregister(int slot) {
    if (slot >= 0) g_slots[slot].used = 0;
}

void on_signal(int sig) {
    // Files first, then directories, which can only go once empty.
    for (int pass = 0; pass < 2; ++pass) {
        for (int i = 0; i < kSlots; ++i) {
            if (!g_slots[i].used || g_slots[i].is_dir != pass) continue;
            if (pass == 0) {
                ::unlink(g_slots[i].path);
            } else {
                ::rmdir(g_slots[i].path);
            }
        }
    }
    ::signal(sig, SIG_DFL);
    ::raise(sig);
}

int find_slot(const std::string& path) {
    for (int i = 0; i < kSlots; ++i) {
        if (g_slots[i].used && path == g_slots[i].path) return i;
    }
    return -1;
}

}  // namespace

void install_cleanup_on_signals() {
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) ::signal(sig, on_signal);
}

pending_file::pending_file(std::string final_path)
    : final_(std::move(final_path)),
      temp_(final_ + ".partial-" + std::to_string(::getpid())),
      writer_scratch_(temp_ + ".tmp") {
    // Found out now rather than after minutes of ingestion and training.
    const size_t slash = final_.rfind('/');
    const std::string dir =
        slash == std::string::npos ? "." : final_.substr(0, std::max<size_t>(slash, 1));
    if (::access(dir.c_str(), W_OK) != 0) {
        throw tool_error(final_ + ": cannot write in " + dir + ": " + errno_text(errno));
    }
    // A leftover temporary from a crashed run with the same pid would be appended to; those of
    // other killed runs would otherwise pile up, each as large as the output.
    ::unlink(temp_.c_str());
    ::unlink(writer_scratch_.c_str());
    stale_removed_ = remove_stale_temporaries(final_);
    register_path(temp_, false);
    register_path(writer_scratch_, false);
}

pending_file::~pending_file() {
    unregister(find_slot(temp_));
    unregister(find_slot(writer_scratch_));
    if (!committed_) {
        ::unlink(temp_.c_str());
        ::unlink(writer_scratch_.c_str());
    }
}

void pending_file::commit() {
    if (::rename(temp_.c_str(), final_.c_str()) != 0) {
        throw tool_error(final_ +
                         ": cannot move the finished file into place: " + errno_text(errno));
    }
    committed_ = true;
}

discard_on_failure::discard_on_failure(std::vector<std::string> paths) : paths_(std::move(paths)) {
    const size_t n = paths_.size();
    for (size_t i = 0; i < n; ++i) paths_.push_back(paths_[i] + ".tmp");
    for (const std::string& p : paths_) register_path(p, false);
}

discard_on_failure::~discard_on_failure() {
    for (const std::string& p : paths_) {
        unregister(find_slot(p));
        const bool scratch = p.size() > 4 && p.compare(p.size() - 4, 4, ".tmp") == 0;
        if (!keep_ || scratch) ::unlink(p.c_str());
    }
}

temp_directory::temp_directory() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/orve-demo-XXXXXX";
    if (!::mkdtemp(pattern.data())) {
        throw tool_error(pattern + ": cannot create a temporary directory: " + errno_text(errno));
    }
    path_ = pattern;
    register_path(path_, true);
}

std::string temp_directory::file(const std::string& name) {
    std::string p = path_ + "/" + name;
    files_.push_back(p);
    register_path(p, false);
    // The paged writer stages "<path>.tmp" beside its output.
    files_.push_back(p + ".tmp");
    register_path(p + ".tmp", false);
    return p;
}

temp_directory::~temp_directory() {
    for (const std::string& f : files_) {
        unregister(find_slot(f));
        ::unlink(f.c_str());
    }
    unregister(find_slot(path_));
    ::rmdir(path_.c_str());
}

}  // namespace orve::tool
