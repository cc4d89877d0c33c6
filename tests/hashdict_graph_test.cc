// The graph behind the perfect-hash dictionary: the order in which it comes apart; and what a look-up computes.

#include "dict/hashdict_graph.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <memory>
#include <string>
#include <vector>

#include "dict/hashdict_kernel.h"
#include "support/death.h"
#include "support/hashdict_model.h"

namespace {

using hashdict::Graph;
using support::ModelGraph;
using support::ModelTriple;

constexpr const char* kModule = "dict/hashdict";

struct Deleted {
  void operator()(Graph* graph) const { hashdict::GraphDelete(graph); }
};
using GraphPtr = std::unique_ptr<Graph, Deleted>;

GraphPtr Make(const std::vector<ModelTriple>& edges, Id vertices) {
  GraphPtr graph(hashdict::GraphNew(static_cast<Id>(edges.size()), vertices));
  hashdict::GraphClear(graph.get());
  for (Id e = 1; e <= edges.size(); e++) {
    hashdict::GraphAddEdge(graph.get(), e, {{edges[e - 1][0], edges[e - 1][1], edges[e - 1][2]}});
  }
  return graph;
}

std::vector<Id> Removed(const Graph& graph) {
  std::vector<Id> edges;
  for (Id i = 0; i < graph.g_peeled_top; i++) edges.push_back(graph.g_vertex[graph.g_peeled[i]].Edge());
  return edges;
}

TEST(HashDictGraph, NoEdgesComeApart) {
  const GraphPtr graph = Make({}, 5);
  EXPECT_TRUE(hashdict::GraphPeel(graph.get()));
  EXPECT_EQ(graph->g_peeled_top, 0u);
}

TEST(HashDictGraph, WhatAnEdgeFreesGoesDepthFirst) {
  // Edge 1 goes first, for vertex 1. It frees vertex 2, where edge 2 is then alone, and vertex 3, where edge 3 is; and
  // edge 2 frees edge 4 at vertex 4, before edge 3 is looked at.
  const GraphPtr graph = Make({{1, 2, 3}, {2, 4, 5}, {3, 6, 7}, {4, 5, 8}, {6, 7, 8}}, 8);
  EXPECT_TRUE(hashdict::GraphPeel(graph.get()));
  EXPECT_EQ(Removed(*graph), (std::vector<Id>{1, 2, 4, 5, 3}));
}

TEST(HashDictGraph, EqualEdgesStay) {
  const GraphPtr graph = Make({{1, 2, 3}, {4, 5, 6}, {1, 2, 3}}, 6);
  EXPECT_FALSE(hashdict::GraphPeel(graph.get()));
  EXPECT_EQ(Removed(*graph), (std::vector<Id>{2}));
}

TEST(HashDictGraph, EdgesWithoutVerticesStayAndDoNoHarm) {
  const GraphPtr graph = Make({{0, 0, 0}, {1, 2, 3}}, 5);
  EXPECT_FALSE(hashdict::GraphPeel(graph.get()));
  EXPECT_EQ(Removed(*graph), (std::vector<Id>{2}));
}

TEST(HashDictGraph, ComesApartLikeTheModelsLists) {
  EXPECT_TRUE(rc::check([] {
    const auto vertices = *rc::gen::inRange<Id>(3, 60);
    const auto vertex = rc::gen::inRange<Id>(1, vertices + 1);
    const auto count = *rc::gen::inRange<size_t>(0, vertices + 1);
    const auto edges = *rc::gen::container<std::vector<ModelTriple>>(
        count, rc::gen::map(rc::gen::unique<std::vector<Id>>(3, vertex), [](const std::vector<Id>& v) {
          return ModelTriple{v[0], v[1], v[2]};
        }));
    const GraphPtr graph = Make(edges, vertices);
    const ModelGraph model(edges, vertices);
    const bool all = hashdict::GraphPeel(graph.get());
    RC_ASSERT(Removed(*graph) == model.order());
    RC_ASSERT(all == (model.order().size() == edges.size()));
    RC_CLASSIFY(all);
  }));
}

TEST(HashDictGraph, ComesApartLikeTheModelsListsWhenLarge) {
  constexpr Id kVertices = 200000;
  std::vector<ModelTriple> edges;
  ULong state = 1;
  const auto draw = [&state] {
    state = state * 6364136223846793005 + 1442695040888963407;
    return static_cast<Id>((state >> 33) % kVertices + 1);
  };
  while (edges.size() < kVertices * 81 / 100) {  // just before graphs no longer come apart: long chains
    const ModelTriple edge = {draw(), draw(), draw()};
    if (edge[0] != edge[1] && edge[0] != edge[2] && edge[1] != edge[2]) edges.push_back(edge);
  }
  const GraphPtr graph = Make(edges, kVertices);
  const ModelGraph model(edges, kVertices);
  hashdict::GraphPeel(graph.get());
  EXPECT_TRUE(Removed(*graph) == model.order());
}

TEST(HashDictGraph, TheStackGrowsWithTheChain) {
  // Each edge frees the next at its first vertex and leaves its own second one to be looked at later: every one of them
  // stays on the stack.
  constexpr Id kEdges = 5000;
  std::vector<ModelTriple> edges;
  for (Id e = 1; e <= kEdges; e++) edges.push_back({e + 1, e, kEdges + 1 + e});
  const GraphPtr graph = Make(edges, 2 * kEdges + 1);
  const ModelGraph model(edges, 2 * kEdges + 1);
  EXPECT_GT(model.deepest(), 4096u);
  EXPECT_TRUE(hashdict::GraphPeel(graph.get()));
  EXPECT_EQ(graph->g_state_allocated, 8192u);
  EXPECT_TRUE(Removed(*graph) == model.order());
  EXPECT_EQ(Removed(*graph).front(), 1u);
  EXPECT_EQ(Removed(*graph).back(), kEdges);
}

TEST(HashDictGraph, CanBeFilledAgain) {
  const GraphPtr graph = Make({{1, 2, 3}, {1, 2, 3}}, 5);
  EXPECT_FALSE(hashdict::GraphPeel(graph.get()));
  hashdict::GraphClear(graph.get());
  hashdict::GraphAddEdge(graph.get(), 1, {{1, 2, 3}});
  hashdict::GraphAddEdge(graph.get(), 2, {{2, 4, 5}});
  EXPECT_TRUE(hashdict::GraphPeel(graph.get()));
  EXPECT_EQ(Removed(*graph), (std::vector<Id>{1, 2}));
}

using HashDictGraphDeathTest = ::testing::Test;

TEST_F(HashDictGraphDeathTest, RemovalStartsWithAnEmptyStack) {
  const GraphPtr graph = Make({{1, 2, 3}}, 5);
  graph->g_state_top = 1;
  EXPECT_ASSERTION(hashdict::DeleteAllEdges(graph.get(), 1), kModule, "DeleteAllEdges", "graph->g_state_top == 0");
}

TEST_F(HashDictGraphDeathTest, AnEdgeIsRemovedOnce) {
  const GraphPtr graph = Make({{1, 2, 3}}, 5);
  hashdict::DeleteAllEdges(graph.get(), 1);
  EXPECT_ASSERTION(hashdict::DeleteAllEdges(graph.get(), 1), kModule, "DeleteAllEdges", "StatusGet(graph, e) == 0");
}

TEST(HashDictPacked, EntriesOfEveryWidthKeepToThemselves) {
  for (UInt width = 1; width <= 32; width++) {
    std::vector<Id> values;
    for (Id v = 0; v < 100; v++)
      values.push_back(static_cast<Id>((v * 0x9E3779B97F4A7C15) >> 32 & ((ULong{1} << width) - 1)));
    std::vector<ULong> words((100 * width + 63) / 64, 0xAAAAAAAAAAAAAAAA);
    for (Id v = 0; v < 100; v++) hashdict::PackedSet(words.data(), 99 - v, width, values[99 - v]);
    const std::string packed = support::ModelPack(values, width);
    const size_t whole = 100 * width / 8;  // behind the last entry the words are as they were
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(words.data()), whole), packed.substr(0, whole)) << width;
    for (Id v = 0; v < 100; v++) EXPECT_EQ(hashdict::PackedGet(words.data(), v, width), values[v]);
  }
}

TEST(HashDictPacked, WhatIsTooWideIsCutAndSpillsNowhere) {
  ULong words[2] = {0, 0};
  hashdict::PackedSet(words, 12, 5, 0xFFFFFFFF);  // bits 60 to 64
  EXPECT_EQ(words[0], 0xF000000000000000);
  EXPECT_EQ(words[1], 1u);
}

TEST(HashDictPacked, AnArraysWidthIsThatOfItsLargestValue) {
  const struct {
    ULong largest;
    int nbits;
  } widths[] = {{0, 1},
                {1, 1},
                {2, 2},
                {3, 2},
                {127, 7},
                {128, 8},
                {255, 8},
                {256, 9},
                {0xFFFFFFFF, 32},
                {ULong{1} << 32, 33},
                {ULong{1} << 63, 64},
                {~ULong{0}, 64}};
  for (const auto& [largest, nbits] : widths) {
    UShort got = 0;
    size_t size = 0;
    void* array = hashdict::ArrayNew(100, largest, &got, &size);
    EXPECT_EQ(got, nbits) << largest;
    EXPECT_EQ(size, (100 * static_cast<size_t>(nbits) + 63) / 64 * 8);
    AnonArrayFree_(array, kModule, 1);
  }
  size_t size = 1;
  EXPECT_EQ(hashdict::ArrayNew(0, 255, nullptr, &size), nullptr);
  EXPECT_EQ(size, 0u);
}

using hashdict::Hashed;
using hashdict::Watch;

// The look-ups of this processor take one way to notice damage; here both are asked, and the one without.
constexpr Id kDamaged = 0xDDDDDDDD;
constexpr Id kAbsent = 0xAAAAAAAA;

template <Watch kWatch>
Id FindBy(const HashDict& hdict, const std::string& key) {
  hashdict::Triple triple;
  const auto len = static_cast<UInt>(key.size());
  switch (hashdict::HashFast<kWatch>(hdict, support::Bytes(key), len, &triple)) {
    case Hashed::kAbsent:
      return kAbsent;
    case Hashed::kDamaged:
      return kDamaged;
    case Hashed::kVertices:
      break;
  }
  return hashdict::Combine(hdict, triple);
}

TEST(HashDictKernel, KeysOfEveryLengthHaveTheirNumbersHoweverDamageIsWatched) {
  support::KeySet set;
  for (size_t length = 0; length <= 40; length++) {
    set.keys.push_back(std::string(length, 'a'));
    if (length == 0) continue;
    set.keys.push_back(std::string(length - 1, 'a') + 'b');
    if (length > 1) set.keys.push_back('b' + std::string(length - 1, 'a'));
  }
  HashDict* hdict = set.Build();
  for (Id idx = 0; idx < set.keys.size(); idx++) {
    EXPECT_EQ(FindBy<Watch::kNothing>(*hdict, set.keys[idx]), idx) << set.keys[idx];
    EXPECT_EQ(FindBy<Watch::kTopBits>(*hdict, set.keys[idx]), idx) << set.keys[idx];
    EXPECT_EQ(FindBy<Watch::kLargest>(*hdict, set.keys[idx]), idx) << set.keys[idx];
  }
  for (const size_t length : {1u, 3u, 4u, 7u, 8u, 9u, 15u, 16u, 17u, 40u}) {
    for (size_t at = 0; at < length; at++) {
      std::string key(length, 'a');
      key[at] = 'c';
      EXPECT_EQ(FindBy<Watch::kTopBits>(*hdict, key), kAbsent) << key;
      EXPECT_EQ(FindBy<Watch::kLargest>(*hdict, key), kAbsent) << key;
    }
  }
  EXPECT_EQ(FindBy<Watch::kLargest>(*hdict, std::string(41, 'a')), kAbsent);
  HashDictFree(hdict);
}

TEST(HashDictKernel, ACoefficientOutOfRangeIsNoticedAtEveryPositionOfEveryLength) {
  support::KeySet set;
  for (size_t length = 0; length <= 20; length++) set.keys.push_back(std::string(length, 'a'));
  HashDict* hdict = set.Build();
  ASSERT_EQ(hdict->h_size, 31u);
  for (const Id bad : {31u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    for (size_t at = 0; at < 20 * 3; at++) {
      const Id good = hdict->h_coef[at];
      hdict->h_coef[at] = bad;
      for (Id length = 0; length <= 20; length++) {
        const Id expected = length > at / 3 ? kDamaged : length;
        EXPECT_EQ(FindBy<Watch::kTopBits>(*hdict, set.keys[length]), expected) << at << ' ' << bad;
        EXPECT_EQ(FindBy<Watch::kLargest>(*hdict, set.keys[length]), expected) << at << ' ' << bad;
      }
      hdict->h_coef[at] = good;
    }
  }
  HashDictFree(hdict);
}

TEST(HashDictProbeValue, IsTheKeyInBase257) {
  EXPECT_TRUE(rc::check([](const std::string& key) {
    ULong p = 0;
    for (const char byte : key) p = p * 257 + static_cast<UByte>(byte);
    RC_ASSERT(hashdict::ProbeValue(support::Bytes(key), static_cast<UInt>(key.size())) == p);
    RC_ASSERT(hashdict::ProbeValueShort(support::Bytes(key), static_cast<UInt>(key.size())) % 65536 == p % 65536);
  }));
  const std::string ones(100, '\xFF');
  ULong p = 0;
  for (UInt length = 0; length <= 100; length++) {
    EXPECT_EQ(hashdict::ProbeValue(support::Bytes(ones), length), p) << length;
    EXPECT_EQ(hashdict::ProbeValueShort(support::Bytes(ones), length) % 65536, p % 65536) << length;
    p = p * 257 + 255;
  }
}

}  // namespace
