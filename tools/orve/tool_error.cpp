#include "tool_error.h"

#include <cstring>

namespace orve::tool {

std::string errno_text(int err) {
    char buf[256];
    // The GNU strerror_r returns the message, which may or may not live in buf.
#if defined(__GLIBC__) && defined(_GNU_SOURCE)
    return strerror_r(err, buf, sizeof buf);
#else
    if (strerror_r(err, buf, sizeof buf) != 0) return "error " + std::to_string(err);
    return buf;
#endif
}

}  // namespace orve::tool
