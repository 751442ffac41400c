#include "cli.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <sstream>

#include "tool_error.h"

namespace orve::tool {

bool parse_decimal(const std::string& text, uint64_t* out) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    uint64_t v = 0;
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, v);
    if (ec != std::errc() || ptr != end) return false;
    *out = v;
    return true;
}

const std::string& parsed_args::get(const std::string& name) const {
    auto it = values_.find(name);
    if (it == values_.end()) throw usage_error("missing required option " + name);
    return it->second;
}

std::string parsed_args::get_or(const std::string& name, const std::string& fallback) const {
    auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

uint64_t parsed_args::get_uint(const std::string& name, uint64_t fallback, uint64_t min,
                               uint64_t max) const {
    auto it = values_.find(name);
    if (it == values_.end()) return fallback;
    uint64_t v = 0;
    if (!parse_decimal(it->second, &v) || v < min || v > max) {
        throw usage_error(name + " expects a whole number from " + std::to_string(min) + " to " +
                          std::to_string(max) + ", got '" + it->second + "'");
    }
    return v;
}

bool wants_help(const std::vector<std::string>& args) {
    for (const std::string& a : args) {
        if (a == "--") return false;
        if (a == "--help" || a == "-h") return true;
    }
    return false;
}

parsed_args parse_args(const command_def& def, const std::vector<std::string>& args) {
    parsed_args out;
    bool options_done = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (options_done || a.size() < 2 || a[0] != '-') {
            out.positionals_.push_back(a);
            continue;
        }
        if (a == "--") {
            options_done = true;
            continue;
        }
        std::string name = a;
        std::string value;
        bool inline_value = false;
        if (const size_t eq = a.find('='); a.rfind("--", 0) == 0 && eq != std::string::npos) {
            name = a.substr(0, eq);
            value = a.substr(eq + 1);
            inline_value = true;
        }
        const option_def* found = nullptr;
        for (const option_def& o : def.options) {
            if (o.name == name) found = &o;
        }
        if (!found) throw usage_error("unknown option " + name);
        if (out.values_.count(name)) {
            throw usage_error("option " + name + " given twice");
        }
        if (found->value_name.empty()) {
            if (inline_value) {
                throw usage_error("option " + name + " takes no value");
            }
            out.values_[name] = "";
            continue;
        }
        if (!inline_value) {
            if (i + 1 >= args.size()) {
                throw usage_error("option " + name + " needs a value (" + found->value_name + ")");
            }
            value = args[++i];
        }
        out.values_[name] = value;
    }
    return out;
}

std::string format_help(const command_def& def) {
    std::ostringstream s;
    s << "usage: orve " << def.name << " " << def.usage << "\n\n" << def.description << "\n";
    if (!def.options.empty()) s << "\noptions:\n";
    size_t width = 0;
    for (const option_def& o : def.options) {
        width =
            std::max(width, o.name.size() + (o.value_name.empty() ? 0 : o.value_name.size() + 1));
    }
    for (const option_def& o : def.options) {
        std::string left = o.name + (o.value_name.empty() ? "" : " " + o.value_name);
        s << "  " << left << std::string(width - left.size() + 2, ' ');
        // Continuation lines of a long help text line up under its first line.
        size_t start = 0;
        bool first = true;
        while (start <= o.help.size()) {
            size_t nl = o.help.find('\n', start);
            if (nl == std::string::npos) nl = o.help.size();
            if (!first) s << std::string(width + 4, ' ');
            s << o.help.substr(start, nl - start) << "\n";
            first = false;
            start = nl + 1;
        }
    }
    return s.str();
}

}  // namespace orve::tool
