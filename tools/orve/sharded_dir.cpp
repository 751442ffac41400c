#include "sharded_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "file_checks.h"
#include "semantic_vector_indexing.h"
#include "tool_error.h"

namespace orve::tool {

namespace {

// The JSON the manifest needs, read into a tree. Nesting is bounded so a hostile file cannot
// exhaust the stack.
struct json {
    enum kind_t { null, boolean, number, string, array, object } kind = null;
    bool b = false;
    double num = 0.0;
    std::string str;
    std::vector<json> items;
    std::map<std::string, json> fields;

    const json* field(const std::string& name) const {
        const auto it = fields.find(name);
        return it == fields.end() ? nullptr : &it->second;
    }
};

class json_reader {
  public:
    json_reader(const std::string& text, const std::string& where) : s_(text), where_(where) {}

    json document() {
        json v = value(0);
        skip_space();
        if (pos_ != s_.size()) fail("text after the JSON value");
        return v;
    }

  private:
    [[noreturn]] void fail(const std::string& what) const {
        throw tool_error(where_ + ": malformed manifest: " + what + " at byte " +
                         std::to_string(pos_));
    }
    void skip_space() {
        while (pos_ < s_.size() && std::strchr(" \t\r\n", s_[pos_]) && s_[pos_]) ++pos_;
    }
    bool take(char c) {
        skip_space();
        if (pos_ < s_.size() && s_[pos_] == c) return ++pos_, true;
        return false;
    }
    void expect(char c) {
        if (!take(c)) fail(std::string("expected '") + c + "'");
    }
    bool word(const char* w) {
        const size_t n = std::strlen(w);
        if (s_.compare(pos_, n, w) != 0) return false;
        pos_ += n;
        return true;
    }

    json value(int depth) {
        if (depth > 16) fail("nested too deeply");
        skip_space();
        if (pos_ >= s_.size()) fail("unexpected end");
        json v;
        const char c = s_[pos_];
        if (c == '{') {
            v.kind = json::object;
            ++pos_;
            if (take('}')) return v;
            do {
                skip_space();
                std::string key = string_body();
                expect(':');
                v.fields[key] = value(depth + 1);
            } while (take(','));
            expect('}');
        } else if (c == '[') {
            v.kind = json::array;
            ++pos_;
            if (take(']')) return v;
            do v.items.push_back(value(depth + 1));
            while (take(','));
            expect(']');
        } else if (c == '"') {
            v.kind = json::string;
            v.str = string_body();
        } else if (word("true") || word("false")) {
            v.kind = json::boolean;
            v.b = s_[pos_ - 1] == 'e' && s_[pos_ - 2] == 'u';
        } else if (word("null")) {
            v.kind = json::null;
        } else {
            v.kind = json::number;
            v.num = number_body();
        }
        return v;
    }

    // Escapes are kept only as far as the manifest needs them: names and states are ASCII.
    std::string string_body() {
        if (pos_ >= s_.size() || s_[pos_] != '"') fail("expected a string");
        std::string out;
        for (++pos_; pos_ < s_.size() && s_[pos_] != '"'; ++pos_) {
            if (s_[pos_] == '\\') {
                if (++pos_ >= s_.size()) break;
                const char e = s_[pos_];
                if (e == 'u') {
                    if (s_.size() - pos_ < 5) fail("short \\u escape");
                    pos_ += 4;
                    out += '?';
                    continue;
                }
                const char* from = "\"\\/bfnrt";
                const char* to = "\"\\/\b\f\n\r\t";
                const char* at = std::strchr(from, e);
                if (!at || !e) fail("bad escape");
                out += to[at - from];
            } else {
                out += s_[pos_];
            }
        }
        if (pos_ >= s_.size()) fail("unterminated string");
        ++pos_;
        return out;
    }

    double number_body() {
        const size_t start = pos_;
        while (pos_ < s_.size() && std::strchr("+-0123456789.eE", s_[pos_]) && s_[pos_]) ++pos_;
        if (start == pos_) fail("unexpected character");
        const std::string text = s_.substr(start, pos_ - start);
        char* end = nullptr;
        const double d = std::strtod(text.c_str(), &end);
        if (*end != '\0' || !std::isfinite(d)) fail("bad number '" + text + "'");
        return d;
    }

    const std::string& s_;
    std::string where_;
    size_t pos_ = 0;
};

// A whole number in [lo, hi] from a manifest field.
uint64_t whole(const json* v, uint64_t lo, uint64_t hi, const std::string& what,
               const std::string& where) {
    if (!v || v->kind != json::number || v->num != std::floor(v->num) || v->num < double(lo) ||
        v->num > double(hi)) {
        throw tool_error(where + ": manifest field " + what + " must be a whole number from " +
                         std::to_string(lo) + " to " + std::to_string(hi));
    }
    return static_cast<uint64_t>(v->num);
}

// "shard-" and digits only: the name becomes a path, and "../x" or "/etc" must never be read.
bool safe_shard_name(const std::string& name) {
    if (name.size() < 7 || name.size() > 32 || name.compare(0, 6, "shard-") != 0) return false;
    for (size_t i = 6; i < name.size(); ++i) {
        if (name[i] < '0' || name[i] > '9') return false;
    }
    return true;
}

// A bucket count, or null / absent (0) for "none".
uint32_t optional_count(const json* v, const std::string& what, const std::string& where) {
    if (!v || v->kind == json::null) return 0;
    return static_cast<uint32_t>(whole(v, 1, UINT32_MAX, what, where));
}

// A [b1, b2] pair, or null / absent for "not fixed".
void branching(const json* v, uint32_t* b1, uint32_t* b2, const std::string& what,
               const std::string& where) {
    *b1 = *b2 = 0;
    if (!v || v->kind == json::null) return;
    if (v->kind != json::array || v->items.size() != 2) {
        throw tool_error(where + ": manifest field " + what + " must be [b1, b2] or null");
    }
    *b1 = static_cast<uint32_t>(whole(&v->items[0], 1, UINT32_MAX, what, where));
    *b2 = static_cast<uint32_t>(whole(&v->items[1], 1, UINT32_MAX, what, where));
}

shard_entry parse_entry(const json& e, const std::string& where) {
    const json* name = e.field("name");
    const json* state = e.field("state");
    if (e.kind != json::object || !name || name->kind != json::string || !state ||
        state->kind != json::string) {
        throw tool_error(where + ": every shard needs a name and a state");
    }
    shard_entry s;
    s.name = name->str;
    if (!safe_shard_name(s.name)) {
        throw tool_error(where + ": bad shard name '" + s.name + "'");
    }
    if (state->str != "open" && state->str != "sealed") {
        throw tool_error(where + ": shard " + s.name + " has unknown state '" + state->str + "'");
    }
    s.sealed = state->str == "sealed";
    branching(e.field("hivf"), &s.b1, &s.b2, s.name + ".hivf", where);
    s.nlist = optional_count(e.field("nlist"), s.name + ".nlist", where);
    return s;
}

std::string read_text(const std::string& path, uint64_t limit) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw tool_error(path + ": cannot open: " + errno_text(errno));
    std::string text;
    char buf[4096];
    while (in.read(buf, sizeof buf) || in.gcount() > 0) {
        text.append(buf, static_cast<size_t>(in.gcount()));
        if (text.size() > limit) throw tool_error(path + ": too large for a manifest");
    }
    return text;
}

uint32_t crc32_of(const uint8_t* p, size_t n) {
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
    }
    return ~c;
}

uint32_t u32_le(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

}  // namespace

bool is_sharded_directory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
           ::stat((path + "/" + kManifestName).c_str(), &st) == 0;
}

sharded_manifest parse_manifest(const std::string& text, const std::string& where) {
    const json doc = json_reader(text, where).document();
    const json* format = doc.field("format");
    const json* version = doc.field("version");
    if (!format || format->kind != json::string || format->str != "orve-sharded" || !version ||
        version->kind != json::number || version->num != 1) {
        throw tool_error(where + ": not a sharded index manifest (format/version)");
    }
    const json* settings = doc.field("settings");
    const json* shards = doc.field("shards");
    if (!settings || settings->kind != json::object || !shards || shards->kind != json::array) {
        throw tool_error(where + ": manifest needs settings and a list of shards");
    }
    sharded_manifest m;
    m.shard_rows = whole(settings->field("shard_rows"), 1, ORVE_MAX_CAPACITY, "shard_rows", where);
    branching(settings->field("hivf"), &m.hivf_b1, &m.hivf_b2, "hivf", where);
    m.nlist = optional_count(settings->field("nlist"), "nlist", where);
    m.seed = static_cast<uint32_t>(whole(settings->field("seed"), 0, UINT32_MAX, "seed", where));
    m.next_shard = whole(doc.field("next_shard"), 1, 999999999, "next_shard", where);
    std::set<std::string> names;
    for (const json& e : shards->items) {
        m.shards.push_back(parse_entry(e, where));
        if (!names.insert(m.shards.back().name).second) {
            throw tool_error(where + ": shard " + m.shards.back().name + " named twice");
        }
    }
    return m;
}

sharded_manifest read_manifest(const std::string& dir) {
    const std::string path = dir + "/" + kManifestName;
    return parse_manifest(read_text(path, 16u << 20), path);
}

std::string manifest_text(const sharded_manifest& m) {
    auto pair = [](uint32_t a, uint32_t b) {
        return a ? "[" + std::to_string(a) + ", " + std::to_string(b) + "]" : std::string("null");
    };
    auto count = [](uint32_t n) { return n ? std::to_string(n) : std::string("null"); };
    std::ostringstream out;
    out << "{\"format\": \"orve-sharded\", \"next_shard\": " << m.next_shard
        << ", \"settings\": {\"hivf\": " << pair(m.hivf_b1, m.hivf_b2)
        << ", \"nlist\": " << count(m.nlist) << ", \"seed\": " << m.seed
        << ", \"shard_rows\": " << m.shard_rows << "}, \"shards\": [";
    for (size_t i = 0; i < m.shards.size(); ++i) {
        const shard_entry& s = m.shards[i];
        out << (i ? ", " : "") << "{\"hivf\": " << pair(s.b1, s.b2) << ", \"name\": \"" << s.name
            << "\", \"nlist\": " << count(s.nlist) << ", \"state\": \""
            << (s.sealed ? "sealed" : "open") << "\"}";
    }
    out << "], \"version\": 1}\n";
    return out.str();
}

void write_manifest(const std::string& dir, const sharded_manifest& m) {
    const std::string path = dir + "/" + kManifestName;
    const std::string tmp = path + ".tmp";
    const std::string text = manifest_text(m);
    {
        std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(tmp.c_str(), "wb"), &std::fclose);
        if (!f || std::fwrite(text.data(), 1, text.size(), f.get()) != text.size() ||
            std::fflush(f.get()) != 0) {
            throw tool_error(tmp + ": cannot write: " + errno_text(errno));
        }
    }
    sync_path(tmp, tmp);
    if (std::rename(tmp.c_str(), path.c_str()) != 0) {
        throw tool_error(path + ": cannot rename into place: " + errno_text(errno));
    }
    sync_path(dir, dir);
}

std::vector<uint32_t> read_shard_ids(const std::string& shard_dir) {
    const std::string path = shard_dir + "/ids.u32";
    const std::string bytes = read_text(path, uint64_t{ORVE_MAX_CAPACITY} * 4 + 4);
    std::vector<uint32_t> ids(bytes.size() / 4);
    for (size_t i = 0; i < ids.size(); ++i) {
        ids[i] = u32_le(reinterpret_cast<const uint8_t*>(bytes.data()) + 4 * i);
    }
    return ids;
}

std::set<uint32_t> read_tombstones(const std::string& shard_dir) {
    const std::string path = shard_dir + "/dead.tmb";
    std::set<uint32_t> keys;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return keys;
    // At most one record per row key, and the same key may be recorded more than once.
    const std::string bytes = read_text(path, uint64_t{ORVE_MAX_CAPACITY} * 64);
    size_t bad = std::string::npos;
    for (size_t off = 0; off + 16 <= bytes.size(); off += 16) {
        const auto* rec = reinterpret_cast<const uint8_t*>(bytes.data()) + off;
        const uint32_t key = u32_le(rec + 4);
        if (std::memcmp(rec, "OTMB", 4) != 0 || u32_le(rec + 12) != crc32_of(rec, 12) || key == 0) {
            if (bad == std::string::npos) bad = off;
            continue;
        }
        if (bad != std::string::npos) {
            throw tool_error(path + ": damaged tombstone record at byte " + std::to_string(bad));
        }
        keys.insert(key);
    }
    return keys;
}

}  // namespace orve::tool
