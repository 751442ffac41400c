#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <string>
#include <vector>

#include "hrr/l2_normalize.h"
#include "hrr/sha256.h"
#include "semantic_vector_indexing.h"

static_assert(std::endian::native == std::endian::little);

namespace {

using Vec = std::vector<float>;

std::string sha256_hex(const void* data, std::size_t n) {
    orve::sha256_ctx ctx;
    orve::sha256_init(&ctx);
    orve::sha256_update(&ctx, data, n);
    uint8_t d[orve::kSha256DigestBytes];
    orve::sha256_final(&ctx, d);
    std::string hex;
    for (uint8_t b : d) hex += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    return hex;
}

TEST(Sha256, LengthsAroundThePaddingBoundary) {
    // Bytes i % 251, from hashlib (hrr_golden.py). 55 bytes is the longest message whose
    // padding fits in its last block; 56..63 push the length field into one more block.
    const struct {
        std::size_t n;
        const char* digest;
    } lengths[] = {
        {0, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {55, "463eb28e72f82e0a96c0a4cc53690c571281131f672aa229e0d45ae59b598b59"},
        {56, "da2ae4d6b36748f2a318f23e7ab1dfdf45acdc9d049bd80e59de82a60895f562"},
        {64, "fdeab9acf3710362bd2658cdc9a29e8f9c757fcf9811603a8c447cd1d9151108"},
        {119, "da18797ed7c3a777f0847f429724a2d8cd5138e6ed2895c3fa1a6d39d18f7ec6"},
        {1000, "4e4c294b331f7a2099a379bec34b9f9fc03dc46ab465d998f4d683da53487e6d"},
    };
    for (const auto& c : lengths) {
        std::string s(c.n, '\0');
        for (std::size_t i = 0; i < c.n; ++i) s[i] = static_cast<char>(i % 251);
        EXPECT_EQ(sha256_hex(s.data(), s.size()), c.digest) << c.n;
    }
}

// SHA-256 digests of whole vectors from hrr_golden.py (hashlib and an independent model): a digest
// pins every bit, so seeding, generator, Box-Muller and normalisation are all checked through it.
TEST(HrrGolden, AtomsAndFacts) {
    std::string long_name;  // 600 bytes cycling through the alphabet
    for (int i = 0; i < 600; ++i) long_name.push_back(static_cast<char>('a' + i % 26));
    const struct {
        uint64_t seed;
        const char *role, *name, *digest;  // name null: long_name
    } atoms[] = {
        // clang-format off
        {1ull, "entity", "x", "cfb97de3f87210065d2ba74d1fd492818d88abb10c6b3f3c45b36979da43b638"},
        {1ull, "relation", "x", "897b3a03eebe98d47f2742b289f21f93a0fb71ede37f3d586efbd4dbff118f50"},
        {2ull, "entity", "x", "007c5ee794a5ec98138ec2352ac1f6fd5c562b62779d333402736be61793d910"},
        {0ull, "entity", "", "513b51627c8a7831f754e201fe2decc89ba3fe3df0aa05ab269290057d881483"},
        {18446744073709551615ull, "relation", "is_a", "33c8ec22b8a3e885b7d15bf5eddb0a3ee70f5abb08662662265e88c44573db1d"},
        {42ull, "entity", nullptr, "af301bc1a891f9c98bd936fe23f31d8870c264efe6fc10567373d82223361a55"},
        // clang-format on
    };
    Vec v(ORVE_HRR_DIM);
    for (const auto& a : atoms) {
        const char* name = a.name ? a.name : long_name.c_str();
        SCOPED_TRACE(std::to_string(a.seed) + "/" + a.role + "/" + std::string(name).substr(0, 8));
        orve_hrr_atom(a.seed, a.role, name, v.data());
        EXPECT_EQ(sha256_hex(v.data(), v.size() * sizeof(float)), a.digest);
    }
    const struct {
        uint64_t seed;
        const char *subject, *relation, *object, *digest;
    } facts[] = {
        // clang-format off
        {7, "alice", "knows", "bob", "1510963c279d8e0cadd544d81a2b02914a8dfcf6365e92e79751647d37fa21e0"},
        {7, "bob", "knows", "alice", "deb3e0cafb3aafa19659f7e7fae6df380295ac5f03634cb574f8cc1721a31918"},
        {1, "x", "x", "x", "52ee7009ecc27ec50ed298fa5c87815e6b675d0d56d087143af4386d0208fd21"},
        // clang-format on
    };
    for (const auto& f : facts) {
        SCOPED_TRACE(std::string(f.subject) + " " + f.relation + " " + f.object);
        orve_hrr_encode(f.seed, f.subject, f.relation, f.object, v.data());
        EXPECT_EQ(sha256_hex(v.data(), v.size() * sizeof(float)), f.digest);
    }
}

TEST(HrrNormalize, ScalesToUnitLengthButLeavesNegligibleAndNanVectorsAlone) {
    // Component `index` set to `value` and component 511 to `v511`, the rest 0 (1 for the NaN
    // case, which must come back untouched). A square of 1e-62 is below the threshold.
    const struct {
        int index;
        float value, want, v511, want511;
    } cases[] = {{0, 3.0f, 0.6f, 4.0f, 0.8f},
                 {5, 0.0f, 0.0f, 0.0f, 0.0f},
                 {3, 1e-31f, 1e-31f, 0.0f, 0.0f},
                 {7, std::nanf(""), 0.0f, 1.0f, 1.0f}};
    for (const auto& c : cases) {
        Vec v(ORVE_HRR_DIM, std::isnan(c.value) ? 1.0f : 0.0f);
        v[c.index] = c.value;
        v[511] = c.v511;
        orve::l2_normalize(v.data());
        EXPECT_TRUE(std::isnan(c.value) ? std::isnan(v[c.index]) : v[c.index] == c.want) << c.index;
        EXPECT_EQ(v[511], c.want511) << c.index;
        EXPECT_EQ(v[200], std::isnan(c.value) ? 1.0f : 0.0f) << c.index;
    }
}

}  // namespace
