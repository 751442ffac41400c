// A descriptor owner, so every path out of a function that opened a file closes it.
#pragma once

namespace orve {

class unique_fd {
  public:
    explicit unique_fd(int fd) noexcept : fd_(fd) {}
    ~unique_fd();
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }
    // Closes the descriptor held so far, if any, and holds fd instead.
    void reset(int fd) noexcept;
    int release() noexcept {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_;
};

}  // namespace orve
