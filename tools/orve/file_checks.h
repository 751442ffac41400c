// Checks on the paths a command is given, made before any work: what kind of file each one is,
// whether two of them are the same file, and the durability of what the tool writes. Every
// failure is a tool_error naming the path.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace orve::tool {

// "a directory", "a FIFO", "a character device", ...: for messages about a path of the wrong
// kind.
std::string file_type_name(mode_t mode);

// An input must exist and be a regular file. Looked at with stat, so a FIFO is refused before
// anything opens it (an open would wait for a writer).
void check_input_file(const std::string& path);

// Every output must be absent or a regular file (the tool renames over it; a device or a FIFO
// would be replaced by a plain file, a directory cannot be). No two outputs, and no output and
// input, may be the same file: existing files are compared by device and inode, so links and
// different spellings of one path are caught; outputs that do not exist yet are compared by
// their directory's resolved path and their last name.
void check_paths(const std::vector<std::string>& outputs, const std::vector<std::string>& inputs);

// Removes temporaries a killed run left for final_path ("<final>.partial-PID" and its
// "<final>.partial-PID.tmp"), only those of processes that no longer exist. Returns how many.
int remove_stale_temporaries(const std::string& final_path);

// Complete sidecar rows in the file: (size - header) / row size, 0 when the file is shorter than
// the header. The library does not report a failed append, so a row count that falls behind the
// rows ingested is how the tool learns the file stopped receiving them.
uint64_t sidecar_whole_rows(const std::string& path);

// Throws when the sidecar at `file` holds fewer than `ingested` whole rows, naming display_name,
// how many rows reached it and the errno the failed ingestion call left (err, 0 when unknown).
void check_sidecar_kept_up(const std::string& file, const std::string& display_name,
                           uint64_t ingested, int err);

// fsync of a file (or a directory, so that renames in it survive a crash); throws naming
// display_name and the errno text.
void sync_path(const std::string& path, const std::string& display_name);

// The directory part of a path, "." when it has none.
std::string directory_of(const std::string& path);

}  // namespace orve::tool
