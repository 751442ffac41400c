#include "file_checks.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "tool_error.h"

namespace orve::tool {

namespace {

constexpr uint64_t kSidecarHeader = 32;
constexpr uint64_t kSidecarRow = 2056;

std::string base_name(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Who a path is: device and inode when it exists, else its resolved directory and last name.
struct identity {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    std::string resolved;
    bool operator==(const identity& o) const {
        return exists == o.exists &&
               (exists ? dev == o.dev && ino == o.ino : resolved == o.resolved);
    }
};

identity identify(const std::string& path, bool output) {
    identity id;
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) {
        if (output && !S_ISREG(st.st_mode)) {
            throw tool_error(path + ": is " + file_type_name(st.st_mode) +
                             "; an output must be a regular file or not exist yet");
        }
        id.exists = true;
        id.dev = st.st_dev;
        id.ino = st.st_ino;
        return id;
    }
    if (errno != ENOENT) throw tool_error(path + ": cannot stat: " + errno_text(errno));
    const std::string dir = directory_of(path);
    std::unique_ptr<char, decltype(&std::free)> real(::realpath(dir.c_str(), nullptr), &std::free);
    if (!real) throw tool_error(path + ": cannot write in " + dir + ": " + errno_text(errno));
    id.resolved = std::string(real.get()) + "/" + base_name(path);
    return id;
}

// "<final>.partial-PID" or "<final>.partial-PID.tmp" with PID all digits: the pid, else 0.
pid_t temporary_owner(const std::string& name, const std::string& prefix) {
    if (name.compare(0, prefix.size(), prefix) != 0) return 0;
    std::string digits = name.substr(prefix.size());
    if (digits.size() > 4 && digits.compare(digits.size() - 4, 4, ".tmp") == 0) {
        digits.resize(digits.size() - 4);
    }
    if (digits.empty() || digits.size() > 9) return 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return 0;
    }
    return static_cast<pid_t>(std::strtol(digits.c_str(), nullptr, 10));
}

// The library reports neither which append failed nor why, and a short write sets no errno.
// The command is failing and the file is being discarded, so one more row's worth of bytes
// appended here is harmless and recovers the cause (ENOSPC, EFBIG, EIO). 0 when it succeeds.
int probe_write_error(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) return errno;
    static const char zeros[kSidecarRow] = {};
    size_t done = 0;
    int err = 0;
    while (done < sizeof zeros && err == 0) {
        const ssize_t w = ::write(fd, zeros + done, sizeof zeros - done);
        if (w > 0)
            done += static_cast<size_t>(w);
        else if (w == 0)
            err = EIO;
        else if (errno != EINTR)
            err = errno;
    }
    ::close(fd);
    return err;
}

}  // namespace

std::string file_type_name(mode_t mode) {
    if (S_ISREG(mode)) return "a regular file";
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a regular file";
}

std::string directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

void check_input_file(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        throw tool_error(path + ": cannot open: " + errno_text(errno));
    }
    if (!S_ISREG(st.st_mode)) {
        throw tool_error(path + ": is " + file_type_name(st.st_mode) + ", not a regular file");
    }
}

void check_paths(const std::vector<std::string>& outputs, const std::vector<std::string>& inputs) {
    std::vector<identity> out_ids;
    for (const std::string& o : outputs) out_ids.push_back(identify(o, true));
    for (const std::string& i : inputs) check_input_file(i);
    for (size_t a = 0; a < outputs.size(); ++a) {
        for (size_t b = a + 1; b < outputs.size(); ++b) {
            if (out_ids[a] == out_ids[b]) {
                throw usage_error(outputs[a] + " and " + outputs[b] + " are the same file");
            }
        }
        for (const std::string& i : inputs) {
            if (out_ids[a] == identify(i, false)) {
                throw usage_error("output " + outputs[a] + " is the input " + i);
            }
        }
    }
}

int remove_stale_temporaries(const std::string& final_path) {
    const std::string dir = directory_of(final_path);
    const std::string prefix = base_name(final_path) + ".partial-";
    struct dir_closer {
        void operator()(DIR* p) const { ::closedir(p); }
    };
    std::unique_ptr<DIR, dir_closer> d(::opendir(dir.c_str()));
    if (!d) return 0;
    int removed = 0;
    while (const dirent* e = ::readdir(d.get())) {
        const pid_t pid = temporary_owner(e->d_name, prefix);
        // Only a process that is gone for certain: a live one (or one we may not signal) may
        // still be writing its temporary.
        if (pid <= 0 || pid == ::getpid() || ::kill(pid, 0) == 0 || errno != ESRCH) continue;
        const std::string path = dir + "/" + e->d_name;
        struct stat st {};
        if (::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::unlink(path.c_str()) == 0) {
            ++removed;
        }
    }
    return removed;
}

uint64_t sidecar_whole_rows(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        throw tool_error(path + ": cannot stat: " + errno_text(errno));
    }
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    return size < kSidecarHeader ? 0 : (size - kSidecarHeader) / kSidecarRow;
}

void check_sidecar_kept_up(const std::string& file, const std::string& display_name,
                           uint64_t ingested, int err) {
    const uint64_t rows = sidecar_whole_rows(file);
    if (rows >= ingested) return;
    if (err == 0) err = probe_write_error(file);
    throw tool_error(display_name + ": writing the sidecar failed after " + std::to_string(rows) +
                     " of " + std::to_string(ingested) +
                     " rows: " + (err ? errno_text(err) : "the library could not append a row"));
}

void sync_path(const std::string& path, const std::string& display_name) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw tool_error(display_name + ": cannot open to flush: " + errno_text(errno));
    struct stat st {};
    const bool is_dir = ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
    const int rc = ::fsync(fd);
    const int err = errno;
    ::close(fd);
    // Some file systems cannot flush a directory; the rename itself has still happened.
    if (rc != 0 && !(is_dir && err == EINVAL)) {
        throw tool_error(display_name + ": cannot flush to disk: " + errno_text(err));
    }
}

}  // namespace orve::tool
