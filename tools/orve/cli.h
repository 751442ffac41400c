// Command-line parsing shared by the sub-commands: each declares its options once, and the same
// table drives parsing, validation and the --help text.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orve::tool {

struct option_def {
    std::string name;        // "--rows", or a short form such as "-k"
    std::string value_name;  // empty for a flag that takes no value
    std::string help;
};

struct command_def {
    std::string name;         // "demo"
    std::string usage;        // text after "orve demo "
    std::string summary;      // one line for the command list
    std::string description;  // paragraph(s) under the usage line
    std::vector<option_def> options;
};

class parsed_args {
  public:
    bool has(const std::string& name) const { return values_.count(name) != 0; }
    const std::string& get(const std::string& name) const;
    std::string get_or(const std::string& name, const std::string& fallback) const;
    // Whole-string decimal parse within [min, max]; anything else is a usage error naming the
    // option, so "--rows 1e6" or "--rows -5" never turns into a surprising number.
    uint64_t get_uint(const std::string& name, uint64_t fallback, uint64_t min, uint64_t max) const;
    const std::vector<std::string>& positionals() const { return positionals_; }

  private:
    friend parsed_args parse_args(const command_def&, const std::vector<std::string>&);
    std::map<std::string, std::string> values_;
    std::vector<std::string> positionals_;
};

// Accepts "--opt value", "--opt=value" and bare flags; rejects unknown options and options
// given twice. "--help"/"-h" must be looked for by the caller before parsing.
parsed_args parse_args(const command_def& def, const std::vector<std::string>& args);

std::string format_help(const command_def& def);

bool wants_help(const std::vector<std::string>& args);

// Strict decimal parse used by get_uint and by the readers' tests; false on any stray byte.
bool parse_decimal(const std::string& text, uint64_t* out);

}  // namespace orve::tool
