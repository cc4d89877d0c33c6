// The ordered dictionary over 32-bit keys: its record, and its rule for the nearest key.

#include "dict/avldict.h"

#include <cstddef>
#include <set>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include "support/trees.h"

namespace {

using Dict = support::Owned<support::Avl>;

constexpr AVLDictKey kMax = 0xFFFFFFFFu;

void InsertAll(const Dict& dict, const std::vector<AVLDictKey>& keys) {
  for (const AVLDictKey key : keys) QXAVLDictInsert(dict.get(), key, ~key, 1);
}

// The nearest key, having asked without and with a pointer to the value, which must be that of slot `slot`.
AVLDictKey Nearest(const Dict& dict, AVLDictKey v, int mode, uint32_t slot) {
  AVLDictValue* value = nullptr;
  const AVLDictKey key = QXAVLDictFindNearest(dict.get(), v, mode, &value);
  EXPECT_EQ(value, &dict.node(slot).n_value) << v << " in mode " << mode;
  EXPECT_EQ(QXAVLDictFindNearest(dict.get(), v, mode, nullptr), key);
  return key;
}

TEST(AVLDict, HasTheRecordsThatToolsRead) {
  EXPECT_EQ(sizeof(AVLDictNode), 16u);
  EXPECT_EQ(offsetof(AVLDictNode, n_right), 0u);
  EXPECT_EQ(offsetof(AVLDictNode, n_left), 4u);
  EXPECT_EQ(offsetof(AVLDictNode, n_key), 8u);
  EXPECT_EQ(offsetof(AVLDictNode, n_value), 12u);
  EXPECT_EQ(sizeof(AVLDict), 24u);
  EXPECT_EQ(offsetof(AVLDict, d_nodes), 0u);
  EXPECT_EQ(offsetof(AVLDict, d_capacity), 8u);
  EXPECT_EQ(offsetof(AVLDict, d_size), 12u);
  EXPECT_EQ(offsetof(AVLDict, d_free), 16u);
  EXPECT_EQ(offsetof(AVLDict, d_list), 20u);
}

TEST(AVLDictFindNearest, IsTheHeaderWhenEmpty) {
  Dict dict;
  for (const AVLDictKey v : {0u, 5u, kMax}) {
    for (const int mode : {-1, 0, 1}) EXPECT_EQ(Nearest(dict, v, mode, 1), 0u);
  }
}

TEST(AVLDictFindNearest, IsThePresentKeyItself) {
  Dict dict;
  InsertAll(dict, {10, 20, 0, kMax});  // slots 2 to 5
  for (const int mode : {-1, 0, 1}) {
    EXPECT_EQ(Nearest(dict, 10, mode, 2), 10u);
    EXPECT_EQ(Nearest(dict, 20, mode, 3), 20u);
    EXPECT_EQ(Nearest(dict, 0, mode, 4), 0u);
    EXPECT_EQ(Nearest(dict, kMax, mode, 5), kMax);
  }
}

TEST(AVLDictFindNearest, RoundsDownUpOrToTheNearer) {
  Dict dict;
  InsertAll(dict, {10, 20});  // slots 2 and 3
  EXPECT_EQ(Nearest(dict, 15, -1, 2), 10u);
  EXPECT_EQ(Nearest(dict, 15, 1, 3), 20u);
  EXPECT_EQ(Nearest(dict, 14, 0, 2), 10u);
  EXPECT_EQ(Nearest(dict, 15, 0, 3), 20u);  // a tie goes up
  EXPECT_EQ(Nearest(dict, 16, 0, 3), 20u);
  EXPECT_EQ(Nearest(dict, 15, INT32_MIN, 2), 10u);
  EXPECT_EQ(Nearest(dict, 15, INT32_MAX, 3), 20u);
}

TEST(AVLDictFindNearest, IsTheHeaderWhereTheNeighbourIsMissing) {
  Dict dict;
  InsertAll(dict, {10, 20});
  EXPECT_EQ(Nearest(dict, 5, -1, 1), 0u);
  EXPECT_EQ(Nearest(dict, 5, 1, 2), 10u);
  EXPECT_EQ(Nearest(dict, 25, -1, 3), 20u);
  EXPECT_EQ(Nearest(dict, 25, 1, 1), 0u);
}

// In mode 0 the lower end of the range lies at 0 and the upper one at 2^32.
TEST(AVLDictFindNearest, MeasuresAgainstTheEndsOfTheRangeInModeZero) {
  Dict dict;
  InsertAll(dict, {10, 20});
  EXPECT_EQ(Nearest(dict, 3, 0, 1), 0u);
  EXPECT_EQ(Nearest(dict, 4, 0, 1), 0u);
  EXPECT_EQ(Nearest(dict, 5, 0, 2), 10u);  // a tie goes up, to the key
  EXPECT_EQ(Nearest(dict, 6, 0, 2), 10u);
  EXPECT_EQ(Nearest(dict, 0, 0, 1), 0u);
  // 2^31 + 10 is half way between 20 and 2^32.
  EXPECT_EQ(Nearest(dict, 25, 0, 3), 20u);
  EXPECT_EQ(Nearest(dict, 0x80000009u, 0, 3), 20u);
  EXPECT_EQ(Nearest(dict, 0x8000000Au, 0, 1), 0u);  // a tie goes up, to the end
  EXPECT_EQ(Nearest(dict, 0x8000000Bu, 0, 1), 0u);
  EXPECT_EQ(Nearest(dict, kMax, 0, 1), 0u);
}

TEST(AVLDictFindNearest, RoundsDownToAStoredKeyZero) {
  Dict dict;
  InsertAll(dict, {0, 100});  // slots 2 and 3
  EXPECT_EQ(Nearest(dict, 1, 0, 2), 0u);
  EXPECT_EQ(Nearest(dict, 1, -1, 2), 0u);
  EXPECT_EQ(Nearest(dict, 50, 0, 3), 100u);
}

TEST(AVLDictFindNearest, GivesTheValueInPlace) {
  Dict dict;
  InsertAll(dict, {10, 20});
  AVLDictValue* value = nullptr;
  ASSERT_EQ(QXAVLDictFindNearest(dict.get(), 13, 0, &value), 10u);
  EXPECT_EQ(*value, ~10u);
  *value = 77;
  EXPECT_EQ(QXAVLDictFind(dict.get(), 10, 1), 77u);
}

TEST(AVLDictFindNearest, LeavesItsKeyInTheSentinel) {
  Dict dict;
  InsertAll(dict, {10});
  QXAVLDictFindNearest(dict.get(), 15, 0, nullptr);
  EXPECT_EQ(dict.node(0).n_key, 15u);
}

// In 64 bits, where nothing wraps.
AVLDictKey NearestOf(const std::set<AVLDictKey>& keys, AVLDictKey v, int mode) {
  if (keys.count(v) != 0) return v;
  const auto above = keys.upper_bound(v);
  const uint64_t up = above == keys.end() ? uint64_t{1} << 32 : *above;
  const uint64_t down = above == keys.begin() ? 0 : *std::prev(above);
  const uint64_t chosen = mode < 0 || (mode == 0 && v - down < up - v) ? down : up;
  return static_cast<AVLDictKey>(chosen);  // 2^32 becomes 0
}

TEST(AVLDictFindNearest, AgreesWithASet) {
  EXPECT_TRUE(rc::check([] {
    const auto key = rc::gen::oneOf(rc::gen::inRange<AVLDictKey>(0, 40), rc::gen::arbitrary<AVLDictKey>(),
                                    rc::gen::element(0xFFFFFFFFu, 0xFFFFFFFEu, 0x7FFFFFFFu, 0x80000000u));
    const auto keys = *rc::gen::container<std::set<AVLDictKey>>(key);
    const auto probes = *rc::gen::container<std::vector<AVLDictKey>>(key);
    Dict dict;
    for (const AVLDictKey v : keys) QXAVLDictInsert(dict.get(), v, v + 1, 2);
    for (const AVLDictKey v : probes) {
      for (const int mode : {-2, -1, 0, 1, 2}) {
        AVLDictValue* value = nullptr;
        const AVLDictKey nearest = QXAVLDictFindNearest(dict.get(), v, mode, &value);
        RC_ASSERT(nearest == NearestOf(keys, v, mode));
        if (nearest != 0) {
          RC_ASSERT(value == QXAVLDictValueGet(dict.get(), nearest));
          RC_ASSERT(*value == nearest + 1);
        }
      }
    }
  }));
}

}  // namespace
