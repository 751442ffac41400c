#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "semantic_vector_indexing.h"

namespace {

// 200 bytes cycling through the alphabet in steps of 7; with `z`, 'Z' at byte 150.
std::string long_text(bool z) {
    std::string s;
    for (int i = 0; i < 200; ++i) s.push_back(static_cast<char>('a' + (i * 7) % 26));
    if (z) s[150] = 'Z';
    return s;
}

// Reference components from hashed_embeddings_golden.py (float32 rounding emulated in Python).
struct Golden {
    std::string text;
    std::pair<int, float> comps[7];
};

// clang-format off
const Golden kGolden[] = {
    {"hello world", {{0, 0x1.1b0dfcp-6f}, {1, 0x1.00df6ap-4f}, {31, -0x1.1f0676p-3f}, {32, 0x1.667f7ap-5f}, {64, 0x1.667f7ap-5f}, {96, 0x1.667f7ap-5f}, {127, -0x1.1f0676p-3f}}},
    {" ", {{0, -0x1.95334cp-4f}, {1, 0x1.0bacb6p-4f}, {31, -0x1.0cba7ep-3f}, {32, -0x1.0dc844p-11f}, {64, -0x1.0dc844p-11f}, {96, -0x1.0dc844p-11f}, {127, -0x1.0cba7ep-3f}}},
    {long_text(false), {{0, 0x1.4f8106p-4f}, {1, 0x1.7de07ep-4f}, {31, -0x1.1f6bep-3f}, {32, 0x1.8d3bd4p-4f}, {64, 0x1.66a712p-4f}, {96, 0x1.a461ep-4f}, {127, -0x1.27233ap-3f}}},
    {long_text(true), {{0, -0x1.92e5eep-4f}, {1, 0x1.b00fe2p-8f}, {31, -0x1.2fe7c4p-3f}, {32, -0x1.51a0dp-4f}, {64, -0x1.7a6c04p-4f}, {96, -0x1.3926e6p-4f}, {127, -0x1.381068p-3f}}},
};
// clang-format on

std::vector<float> embed(const std::string& text) {
    std::vector<float> v(128, 0.0f);
    EXPECT_EQ(generate_semantic_embedding(text.c_str(), v.data()), 0);
    return v;
}

TEST(SemanticEmbedding, MatchesIndependentReferenceAndRefusesEmptyOrNull) {
    for (const Golden& g : kGolden) {
        const auto v = embed(g.text);
        for (const auto& [i, x] : g.comps) EXPECT_EQ(v[i], x) << g.text << " " << i;
    }
    std::vector<float> out(128, 42.0f);
    orve_host_node node{};
    for (int rc :
         {generate_semantic_embedding("", out.data()),
          generate_semantic_embedding(nullptr, out.data()),
          generate_semantic_embedding("text", nullptr),
          generate_node_embedding(nullptr, out.data()), generate_node_embedding(&node, nullptr)})
        EXPECT_EQ(rc, -1);
    EXPECT_EQ(out, std::vector<float>(128, 42.0f));
}

TEST(NodeEmbedding, JoinsNameAndDescriptionWithABlankCutTo1023Bytes) {
    // Empty fields embed the single blank between them.
    for (auto [name, description] : {std::pair{"alpha", "first letter"}, std::pair{"", ""}}) {
        orve_host_node node{};
        std::strcpy(node.name, name);
        std::strcpy(node.description, description);
        std::vector<float> out(128, 0.0f);
        ASSERT_EQ(generate_node_embedding(&node, out.data()), 0);
        EXPECT_EQ(out, embed(std::string(name) + " " + description));
    }
    // A host record whose second text runs on past the standard layout: the texts are read
    // from their byte positions and the joined text is cut to fit 1024 bytes with its NUL.
    alignas(8) char record[2048] = {};
    std::memset(record + 12, 'n', 63);  // NUL at byte 75
    for (int i = 0; i < 1500; ++i) record[76 + i] = static_cast<char>('a' + i % 23);
    const std::string full = std::string(63, 'n') + " " + std::string(record + 76, 1500);
    std::vector<float> out(128, 0.0f);
    ASSERT_EQ(generate_node_embedding(reinterpret_cast<const orve_host_node*>(record), out.data()),
              0);
    EXPECT_EQ(out, embed(full.substr(0, 1023)));
    EXPECT_NE(out, embed(full.substr(0, 1022)));
    EXPECT_NE(out, embed(full));
}

}  // namespace
