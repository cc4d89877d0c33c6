// The ordered dictionary over 64-bit keys: its record, and its rule for the nearest key.

#include "dict/avlldict.h"

#include <cstddef>
#include <set>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include "support/trees.h"

namespace {

using Dict = support::Owned<support::Avll>;

constexpr AVLLDictKey kMax = 0xFFFFFFFFFFFFFFFFu;

void InsertAll(const Dict& dict, const std::vector<AVLLDictKey>& keys) {
  for (const AVLLDictKey key : keys) QXAVLLDictInsert(dict.get(), key, ~key, 1);
}

TEST(AVLLDict, HasTheRecordsThatToolsRead) {
  EXPECT_EQ(sizeof(AVLLDictNode), 24u);
  EXPECT_EQ(offsetof(AVLLDictNode, n_right), 0u);
  EXPECT_EQ(offsetof(AVLLDictNode, n_left), 4u);
  EXPECT_EQ(offsetof(AVLLDictNode, n_key), 8u);
  EXPECT_EQ(offsetof(AVLLDictNode, n_value), 16u);
  EXPECT_EQ(sizeof(AVLLDict), 24u);
  EXPECT_EQ(offsetof(AVLLDict, d_nodes), 0u);
  EXPECT_EQ(offsetof(AVLLDict, d_capacity), 8u);
  EXPECT_EQ(offsetof(AVLLDict, d_size), 12u);
  EXPECT_EQ(offsetof(AVLLDict, d_free), 16u);
  EXPECT_EQ(offsetof(AVLLDict, d_list), 20u);
}

TEST(AVLLDict, TellsKeysApartByAll64Bits) {
  Dict dict;
  InsertAll(dict, {1, 0x100000001, 0x200000001});
  EXPECT_EQ(QXAVLLDictSize(dict.get()), 3u);
  EXPECT_EQ(QXAVLLDictFind(dict.get(), 0x100000001, 7), 0xFFFFFFFEFFFFFFFEu);
  EXPECT_EQ(QXAVLLDictFind(dict.get(), 0x300000001, 7), 7u);
  EXPECT_EQ(QXAVLLDictRemove(dict.get(), 0x200000001, 7), 0xFFFFFFFDFFFFFFFEu);
}

TEST(AVLLDictFindNearest, IsZeroWhenEmpty) {
  Dict dict;
  for (const AVLLDictKey v : {AVLLDictKey{0}, AVLLDictKey{5}, kMax}) {
    for (const int mode : {-1, 0, 1}) EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), v, mode), 0u);
  }
}

TEST(AVLLDictFindNearest, IsThePresentKeyItself) {
  Dict dict;
  InsertAll(dict, {10, 20});
  for (const int mode : {-1, 0, 1}) {
    EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 10, mode), 10u);
    EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 20, mode), 20u);
  }
}

TEST(AVLLDictFindNearest, RoundsDownUpOrToTheNearer) {
  Dict dict;
  InsertAll(dict, {10, 20});
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 15, -1), 10u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 15, 1), 20u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 14, 0), 10u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 15, 0), 20u);  // a tie goes up
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 16, 0), 20u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 15, INT32_MIN), 10u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 15, INT32_MAX), 20u);
}

TEST(AVLLDictFindNearest, IsZeroWhereTheNeighbourIsMissing) {
  Dict dict;
  InsertAll(dict, {10, 20});
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 5, -1), 0u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 5, 1), 10u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 25, -1), 20u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 25, 1), 0u);
}

TEST(AVLLDictFindNearest, TakesTheOneNeighbourThatIsThereHoweverFar) {
  Dict dict;
  InsertAll(dict, {1000, 2000});
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 1, 0), 1000u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 0, 0), 1000u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), kMax, 0), 2000u);
}

TEST(AVLLDictFindNearest, NeverRoundsDownToAStoredKeyZeroInModeZero) {
  Dict dict;
  InsertAll(dict, {0});
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 0, 0), 0u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 1, 0), 0u);  // no upper neighbour: 0 for none, not for the key
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 1, -1), 0u);
  InsertAll(dict, {100});
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 1, 0), 100u);  // though 0 is nearer
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 1, -1), 0u);
}

TEST(AVLLDictFindNearest, MeasuresOverTheWholeRange) {
  Dict dict;
  InsertAll(dict, {1, kMax});
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 0x7FFFFFFFFFFFFFFFu, 0), 1u);
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 0x8000000000000000u, 0), kMax);  // equally far from both
  EXPECT_EQ(QXAVLLDictFindNearest(dict.get(), 0x8000000000000001u, 0), kMax);
}

TEST(AVLLDictFindNearest, LeavesItsKeyInTheSentinel) {
  Dict dict;
  InsertAll(dict, {10});
  QXAVLLDictFindNearest(dict.get(), 15, 0);
  EXPECT_EQ(dict.node(0).n_key, 15u);
}

AVLLDictKey Nearest(const std::set<AVLLDictKey>& keys, AVLLDictKey v, int mode) {
  if (keys.count(v) != 0) return v;
  const auto above = keys.upper_bound(v);
  const AVLLDictKey up = above == keys.end() ? 0 : *above;
  const AVLLDictKey down = above == keys.begin() ? 0 : *std::prev(above);
  if (mode != 0) return mode < 0 ? down : up;
  if (down == 0 || up == 0) return down == 0 ? up : down;
  return up - v <= v - down ? up : down;
}

TEST(AVLLDictFindNearest, AgreesWithASet) {
  EXPECT_TRUE(rc::check([] {
    const auto key = rc::gen::oneOf(rc::gen::inRange<AVLLDictKey>(0, 40), rc::gen::arbitrary<AVLLDictKey>(),
                                    rc::gen::element(kMax, kMax - 1, kMax / 2));
    const auto keys = *rc::gen::container<std::set<AVLLDictKey>>(key);
    const auto probes = *rc::gen::container<std::vector<AVLLDictKey>>(key);
    Dict dict;
    for (const AVLLDictKey v : keys) QXAVLLDictInsert(dict.get(), v, 1, 2);
    for (const AVLLDictKey v : probes) {
      for (const int mode : {-2, -1, 0, 1, 2}) {
        RC_ASSERT(QXAVLLDictFindNearest(dict.get(), v, mode) == Nearest(keys, v, mode));
      }
    }
  }));
}

}  // namespace
