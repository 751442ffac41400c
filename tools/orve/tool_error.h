// Errors the tool reports to the user. Each carries one finished line naming the file and the
// problem; main prints it after "orve: " and exits non-zero.
#pragma once

#include <stdexcept>
#include <string>

namespace orve::tool {

class tool_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A mistake on the command line rather than in a file: main adds a pointer to --help and exits
// with 2, the conventional code for bad usage.
class usage_error : public tool_error {
  public:
    using tool_error::tool_error;
};

// strerror is not thread-safe and the tool computes neighbours on worker threads.
std::string errno_text(int err);

}  // namespace orve::tool
