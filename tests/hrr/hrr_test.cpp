#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <string>
#include <vector>

#include "hrr/atom_seed.h"
#include "hrr/l2_normalize.h"
#include "hrr/sha256.h"
#include "semantic_vector_indexing.h"

static_assert(std::endian::native == std::endian::little);

namespace {

constexpr int kDim = ORVE_HRR_DIM;
using Vec = std::vector<float>;

// ---- reference values from tests/hrr/hrr_golden.py (hashlib + an independent Python model) --

struct Comp {
    int index;
    float value;
};

// 600 bytes cycling through the alphabet.
std::string long_name() {
    std::string s;
    for (int i = 0; i < 600; ++i) s.push_back(static_cast<char>('a' + i % 26));
    return s;
}

struct AtomGolden {
    uint64_t seed;
    const char* role;
    std::string name;
    uint64_t state[4];
    Comp comps[7];
    const char* digest;  // of all 512 components, little-endian float32
};

// clang-format off
const AtomGolden kAtoms[] = {
    {1, "entity", "x", {0x2154e3e1c8100430ull, 0xb1ef443c77a5218full, 0x8086fab166f52643ull, 0x1b32dcb13615d1bcull}, {{0, -0x1.4d09c8p-5f}, {1, -0x1.0f2ba4p-4f}, {2, -0x1.31cc88p-6f}, {255, -0x1.da465ep-5f}, {256, 0x1.7970eep-5f}, {510, -0x1.eb0f2p-7f}, {511, -0x1.a05882p-6f}}, "cfb97de3f87210065d2ba74d1fd492818d88abb10c6b3f3c45b36979da43b638"},
    {1, "relation", "x", {0x0a2b9b78f28af90dull, 0x6a2f96100a8f74d0ull, 0x22af1d0069e676baull, 0xa0e2486ea4f52322ull}, {{0, 0x1.2f5be6p-5f}, {1, 0x1.6c9dbp-7f}, {2, 0x1.046e02p-4f}, {255, -0x1.39588p-5f}, {256, -0x1.729f5ep-6f}, {510, -0x1.1c9ac4p-5f}, {511, 0x1.03048cp-5f}}, "897b3a03eebe98d47f2742b289f21f93a0fb71ede37f3d586efbd4dbff118f50"},
    {2, "entity", "x", {0xd1cefb230a487935ull, 0xa4ee6c38f8e82bbaull, 0x83fcb23ff3d61019ull, 0xb1f7efbbc3865d1cull}, {{0, -0x1.87ee92p-5f}, {1, -0x1.9aeca4p-6f}, {2, 0x1.43abc2p-6f}, {255, -0x1.202b7ep-4f}, {256, -0x1.13d73p-5f}, {510, -0x1.c75c92p-7f}, {511, -0x1.3ac624p-6f}}, "007c5ee794a5ec98138ec2352ac1f6fd5c562b62779d333402736be61793d910"},
    {0, "entity", "", {0x97943b52ff6ee0d5ull, 0xee83727e357454c2ull, 0x252bca33b0ad1acbull, 0xbaf5d3b5340b01b7ull}, {{0, -0x1.b3080cp-6f}, {1, -0x1.dcf98p-5f}, {2, 0x1.77327cp-5f}, {255, -0x1.ea8126p-6f}, {256, -0x1.efaacp-7f}, {510, 0x1.6b12bap-5f}, {511, 0x1.80b764p-5f}}, "513b51627c8a7831f754e201fe2decc89ba3fe3df0aa05ab269290057d881483"},
    {18446744073709551615ull, "relation", "is_a", {0x0196427c3d252082ull, 0xc729e1c86d2e5a7cull, 0x0a34bf01648ebb2dull, 0x0c7b74ae4da654ecull}, {{0, 0x1.072f18p-5f}, {1, -0x1.9c3abap-4f}, {2, 0x1.580728p-4f}, {255, -0x1.304d48p-5f}, {256, 0x1.2e2bcap-6f}, {510, 0x1.b413b6p-5f}, {511, 0x1.bc2fb6p-6f}}, "33c8ec22b8a3e885b7d15bf5eddb0a3ee70f5abb08662662265e88c44573db1d"},
    {42, "entity", long_name(), {0x419b6e317bb30450ull, 0xa31a30c416b86701ull, 0x9bd4b34e92f43444ull, 0x2d871f2a229af852ull}, {{0, 0x1.2d0382p-5f}, {1, 0x1.5bececp-5f}, {2, -0x1.fb9982p-5f}, {255, -0x1.1b3148p-6f}, {256, 0x1.0138a6p-4f}, {510, -0x1.594f9p-6f}, {511, 0x1.6856fep-7f}}, "af301bc1a891f9c98bd936fe23f31d8870c264efe6fc10567373d82223361a55"},
};

const struct {
    uint64_t seed;
    const char *subject, *relation, *object;
    Comp comps[6];
    const char* digest;
} kFacts[] = {
    {7, "alice", "knows", "bob", {{0, 0x1.a11616p-8f}, {1, 0x1.242008p-5f}, {2, -0x1.eeb76ep-4f}, {300, -0x1.c110aap-8f}, {510, -0x1.069d04p-5f}, {511, 0x1.79e15ap-4f}}, "1510963c279d8e0cadd544d81a2b02914a8dfcf6365e92e79751647d37fa21e0"},
    {7, "bob", "knows", "alice", {{0, 0x1.29f81p-7f}, {1, 0x1.0ab696p-5f}, {2, -0x1.b5db58p-5f}, {300, 0x1.07a6d4p-6f}, {510, -0x1.45d466p-5f}, {511, 0x1.343c7ap-4f}}, "deb3e0cafb3aafa19659f7e7fae6df380295ac5f03634cb574f8cc1721a31918"},
    {1, "x", "x", "x", {{0, -0x1.da995cp-7f}, {1, -0x1.0d9b94p-5f}, {2, -0x1.dc0fe6p-6f}, {300, -0x1.9ed2b8p-5f}, {510, 0x1.54b02ep-6f}, {511, -0x1.060ce4p-4f}}, "52ee7009ecc27ec50ed298fa5c87815e6b675d0d56d087143af4386d0208fd21"},
};
// clang-format on

Vec atom(uint64_t seed, const char* role, const std::string& name) {
    Vec v(kDim);
    orve_hrr_atom(seed, role, name.c_str(), v.data());
    return v;
}

Vec fact(uint64_t seed, const char* s, const char* r, const char* o) {
    Vec v(kDim);
    orve_hrr_encode(seed, s, r, o, v.data());
    return v;
}

double dot(const Vec& a, const Vec& b) {
    double s = 0.0;
    for (int i = 0; i < kDim; ++i) s += static_cast<double>(a[i]) * b[i];
    return s;
}

// SHA-256 of the components' float32 bytes, as hrr_golden.py computes it (both targets are
// little-endian, like its struct format).
std::string vector_digest(const Vec& v) {
    orve::sha256_ctx ctx;
    orve::sha256_init(&ctx);
    orve::sha256_update(&ctx, v.data(), v.size() * sizeof(float));
    uint8_t d[orve::kSha256DigestBytes];
    orve::sha256_final(&ctx, d);
    std::string hex;
    for (uint8_t b : d) hex += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    return hex;
}

TEST(HrrGolden, AtomStatesAndComponents) {
    for (const AtomGolden& a : kAtoms) {
        SCOPED_TRACE(std::to_string(a.seed) + "/" + a.role + "/" + a.name.substr(0, 8));
        uint64_t state[4];
        orve::seed_for_atom(state, a.seed, a.role, a.name.c_str());
        for (int i = 0; i < 4; ++i) EXPECT_EQ(state[i], a.state[i]) << "s" << i;
        const Vec v = atom(a.seed, a.role, a.name);
        for (const Comp& c : a.comps) EXPECT_EQ(v[c.index], c.value) << "[" << c.index << "]";
        EXPECT_EQ(vector_digest(v), a.digest);
        EXPECT_NEAR(dot(v, v), 1.0, 1e-6);
    }
}

TEST(HrrGolden, FactComponents) {
    for (const auto& f : kFacts) {
        SCOPED_TRACE(std::string(f.subject) + " " + f.relation + " " + f.object);
        const Vec v = fact(f.seed, f.subject, f.relation, f.object);
        for (const Comp& c : f.comps) EXPECT_EQ(v[c.index], c.value) << "[" << c.index << "]";
        EXPECT_EQ(vector_digest(v), f.digest);
        EXPECT_NEAR(dot(v, v), 1.0, 1e-6);
    }
}

TEST(HrrNormalize, LeavesNegligibleAndNanVectorsAlone) {
    Vec zero(kDim, 0.0f);
    orve::l2_normalize(zero.data());
    EXPECT_EQ(zero, Vec(kDim, 0.0f));

    // One component of 1e-31: its square (1e-62) is below the threshold.
    Vec tiny(kDim, 0.0f);
    tiny[3] = 1e-31f;
    orve::l2_normalize(tiny.data());
    EXPECT_EQ(tiny[3], 1e-31f);

    Vec with_nan(kDim, 1.0f);
    with_nan[7] = std::nanf("");
    orve::l2_normalize(with_nan.data());
    EXPECT_EQ(with_nan[0], 1.0f);

    Vec v(kDim, 0.0f);
    v[0] = 3.0f;
    v[511] = 4.0f;
    orve::l2_normalize(v.data());
    EXPECT_EQ(v[0], 0.6f);
    EXPECT_EQ(v[511], 0.8f);
}

}  // namespace
