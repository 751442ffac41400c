// Outputs are written under temporary names and renamed into place only when complete, so an
// error or an interrupt never leaves a half-written file under the name the user asked for.
#pragma once

#include <string>
#include <vector>

namespace orve::tool {

// SIGINT, SIGTERM and SIGHUP remove every registered temporary before the process dies.
void install_cleanup_on_signals();

// Temporaries are named "<final>.partial-PID"; those a killed run left behind are removed when
// the next pending_file for the same final path is created.
class pending_file {
  public:
    explicit pending_file(std::string final_path);
    ~pending_file();
    pending_file(const pending_file&) = delete;
    pending_file& operator=(const pending_file&) = delete;

    const std::string& temp_path() const { return temp_; }
    const std::string& final_path() const { return final_; }
    // How many temporaries of dead runs the constructor removed.
    int stale_removed() const { return stale_removed_; }
    // Renames the temporary over the final name; throws tool_error when that fails.
    void commit();

  private:
    std::string final_;
    std::string temp_;
    // The library's paged writer stages its own file at "<path>.tmp" next to ours.
    std::string writer_scratch_;
    bool committed_ = false;
    int stale_removed_ = 0;
};

// Outputs that must be written under their final names (the demo restarts from them) and are
// removed again if the command fails or is interrupted before keep().
class discard_on_failure {
  public:
    explicit discard_on_failure(std::vector<std::string> paths);
    ~discard_on_failure();
    discard_on_failure(const discard_on_failure&) = delete;
    discard_on_failure& operator=(const discard_on_failure&) = delete;
    void keep() { keep_ = true; }

  private:
    std::vector<std::string> paths_;
    bool keep_ = false;
};

// A fresh private directory under $TMPDIR (or /tmp), removed with its files at the end.
class temp_directory {
  public:
    temp_directory();
    ~temp_directory();
    temp_directory(const temp_directory&) = delete;
    temp_directory& operator=(const temp_directory&) = delete;
    const std::string& path() const { return path_; }
    // Names a file inside the directory and schedules it for removal.
    std::string file(const std::string& name);

  private:
    std::string path_;
    std::vector<std::string> files_;
};

}  // namespace orve::tool
