#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "hrr/sha256.h"

namespace {

std::string hex(const uint8_t* d) {
    char buf[2 * orve::kSha256DigestBytes + 1];
    for (std::size_t i = 0; i < orve::kSha256DigestBytes; ++i)
        std::snprintf(buf + 2 * i, 3, "%02x", d[i]);
    return buf;
}

std::string sha256_hex(const std::string& msg) {
    orve::sha256_ctx ctx;
    orve::sha256_init(&ctx);
    orve::sha256_update(&ctx, msg.data(), msg.size());
    uint8_t d[orve::kSha256DigestBytes];
    orve::sha256_final(&ctx, d);
    return hex(d);
}

// Bytes i % 251, as hashed by tests/hrr/hrr_golden.py.
std::string pattern(std::size_t n) {
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i % 251);
    return s;
}

TEST(Sha256, Fips180Examples) {
    EXPECT_EQ(sha256_hex("abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(sha256_hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256_hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(sha256_hex(
                  "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopq"
                  "klmnopqrlmnopqrsmnopqrstnopqrstu"),
              "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1");
    EXPECT_EQ(sha256_hex(std::string(1000000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, LengthsAroundThePaddingBoundary) {
    // From hashlib (hrr_golden.py). 55 bytes is the longest message whose padding fits in one
    // block; 56..63 push the length field into a second, all-padding block.
    const struct {
        std::size_t n;
        const char* digest;
    } cases[] = {
        {55, "463eb28e72f82e0a96c0a4cc53690c571281131f672aa229e0d45ae59b598b59"},
        {56, "da2ae4d6b36748f2a318f23e7ab1dfdf45acdc9d049bd80e59de82a60895f562"},
        {63, "29af2686fd53374a36b0846694cc342177e428d1647515f078784d69cdb9e488"},
        {64, "fdeab9acf3710362bd2658cdc9a29e8f9c757fcf9811603a8c447cd1d9151108"},
        {65, "4bfd2c8b6f1eec7a2afeb48b934ee4b2694182027e6d0fc075074f2fabb31781"},
        {119, "da18797ed7c3a777f0847f429724a2d8cd5138e6ed2895c3fa1a6d39d18f7ec6"},
        {120, "f52b23db1fbb6ded89ef42a23ce0c8922c45f25c50b568a93bf1c075420bbb7c"},
        {1000, "4e4c294b331f7a2099a379bec34b9f9fc03dc46ab465d998f4d683da53487e6d"},
    };
    for (const auto& c : cases) EXPECT_EQ(sha256_hex(pattern(c.n)), c.digest) << c.n;
}

}  // namespace
