// The text of a system error number for the file messages, without strerror's shared buffer:
// builds and opens may run on several threads at once.
#pragma once

#include <cstring>

namespace orve::paged {

class error_text {
  public:
    explicit error_text(int errnum) noexcept : text_(pick(strerror_r(errnum, buf_, sizeof buf_))) {}
    const char* c_str() const noexcept { return text_; }

  private:
    // strerror_r comes in two flavours: the GNU one returns the text (which may or may not be
    // in buf_), the POSIX one returns 0 and fills buf_.
    const char* pick(const char* gnu_result) noexcept { return gnu_result; }
    const char* pick(int posix_result) noexcept {
        return posix_result == 0 ? buf_ : "Unknown error";
    }

    char buf_[128] = {};
    const char* text_;
};

}  // namespace orve::paged
