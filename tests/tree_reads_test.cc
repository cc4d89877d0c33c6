// Reading the ordered dictionaries without writing to them: shared and bulk look-ups, lower bounds, ranges.

#include <cstring>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "support/death.h"
#include "support/sanitizers.h"
#include "support/trees.h"

namespace {

using support::kTopBit;
using support::Owned;

template <typename Api>
class TreeReads : public testing::Test {
 protected:
  using Key = typename Api::Key;
  using Value = typename Api::Value;

  static constexpr Key kGreatest = static_cast<Key>(0xFFFFFFFFFFFFFFFFu);

  void InsertAll(std::initializer_list<Key> keys) {
    for (const Key key : keys) Api::Insert(dict_.get(), key, key + 1, 0);
  }

  std::vector<Value> FindMany(const std::vector<Key>& keys, Value n) const {
    std::vector<Value> values(keys.size() + 1, 77);
    Api::FindMany(dict_.get(), keys.data(), keys.size(), n, values.data());
    EXPECT_EQ(values.back(), 77u);  // nothing behind the last
    values.pop_back();
    return values;
  }

  // The key found, or what was there before, 5.
  Key LowerBound(Key v) const {
    Key key = 5;
    Value value = 6;
    if (!Api::LowerBound(dict_.get(), v, &key, &value)) {
      EXPECT_EQ(key, 5u);
      EXPECT_EQ(value, 6u);
    } else {
      EXPECT_EQ(value, key + 1);
    }
    return key;
  }

  // The keys of a range; stops, as told, after so many.
  std::vector<Key> Range(Key lo, Key hi, Boolean reverse, size_t stop_after = 1000, Boolean expected = TRUE) const {
    struct Visit {
      std::vector<Key> keys;
      size_t stop_after;
    } visit{{}, stop_after};
    const Boolean result = Api::EnumerateRange(
        dict_.get(), lo, hi, reverse,
        [](typename Api::Dict*, Key key, Value value, void* arg) -> Boolean {
          auto* v = static_cast<Visit*>(arg);
          EXPECT_EQ(value, key + 1);
          v->keys.push_back(key);
          return v->keys.size() < v->stop_after ? 2 : 0;  // every Boolean but 0 is true
        },
        &visit);
    EXPECT_EQ(result, expected);
    return visit.keys;
  }

  Owned<Api> dict_;
};

template <typename Api>
class TreeReadsDeathTest : public TreeReads<Api> {};

using All = testing::Types<support::Avll, support::Avl, support::Rb>;
TYPED_TEST_SUITE(TreeReads, All, support::TreeNames);
TYPED_TEST_SUITE(TreeReadsDeathTest, All, support::TreeNames);

TYPED_TEST(TreeReads, FindNothingInAnEmptyDictionary) {
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), 0, 7), 7u);
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), 1, 7), 7u);
  EXPECT_EQ(this->FindMany({0, 1, this->kGreatest}, 7), (std::vector<typename TypeParam::Value>{7, 7, 7}));
  EXPECT_EQ(this->LowerBound(0), 5u);
  EXPECT_TRUE(this->Range(0, this->kGreatest, FALSE).empty());
  EXPECT_TRUE(this->Range(0, this->kGreatest, TRUE).empty());
}

TYPED_TEST(TreeReads, FindSharedGivesTheValueOrTheMarker) {
  this->InsertAll({30, 10, 20, this->kGreatest});
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), 10, 7), 11u);
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), 20, 7), 21u);
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), 30, 7), 31u);
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), this->kGreatest, 7), 0u);
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), 9, 7), 7u);
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), 31, 8), 8u);
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), 0, 8), 8u);
}

TYPED_TEST(TreeReads, FindManyGivesEachKeysValueAtItsPlace) {
  this->InsertAll({30, 10, 20});
  EXPECT_EQ(this->FindMany({20, 15, 30, 20, 0, 10, this->kGreatest}, 7),
            (std::vector<typename TypeParam::Value>{21, 7, 31, 21, 7, 11, 7}));
  EXPECT_TRUE(this->FindMany({}, 7).empty());
  TypeParam::FindMany(this->dict_.get(), nullptr, 0, 7, nullptr);
}

TYPED_TEST(TreeReads, FindManyMayAnswerInPlace) {
  this->InsertAll({30, 10, 20});
  std::vector<typename TypeParam::Key> keys;
  for (int i = 0; i < 50; i++) keys.insert(keys.end(), {10, 20, 40});
  TypeParam::FindMany(this->dict_.get(), keys.data(), keys.size(), 7, keys.data());
  for (size_t i = 0; i < keys.size(); i += 3) {
    ASSERT_EQ(keys[i], 11u);
    ASSERT_EQ(keys[i + 1], 21u);
    ASSERT_EQ(keys[i + 2], 7u);
  }
}

// The keys go down together, so many at a time: every number of them, over a tree of a hundred keys.
TYPED_TEST(TreeReads, FindManyTakesEveryNumberOfKeys) {
  std::vector<typename TypeParam::Key> keys;
  std::vector<typename TypeParam::Value> expected;
  for (unsigned key = 1; key <= 100; key++) this->InsertAll({key * 37 % 101 * 2});
  for (unsigned i = 0; i < 150; i++) {
    keys.push_back(1 + i * 71 % 200);
    expected.push_back(keys.back() % 2 == 0 ? keys.back() + 1 : 7);
    ASSERT_EQ(this->FindMany(keys, 7), expected) << keys.size();
  }
}

TYPED_TEST(TreeReads, LowerBoundGivesTheKeyItselfOrTheNextOneAbove) {
  this->InsertAll({30, 10, 20, 40, 50});
  EXPECT_EQ(this->LowerBound(0), 10u);
  EXPECT_EQ(this->LowerBound(9), 10u);
  EXPECT_EQ(this->LowerBound(10), 10u);
  EXPECT_EQ(this->LowerBound(11), 20u);
  EXPECT_EQ(this->LowerBound(20), 20u);
  EXPECT_EQ(this->LowerBound(30), 30u);
  EXPECT_EQ(this->LowerBound(31), 40u);
  EXPECT_EQ(this->LowerBound(50), 50u);
  EXPECT_EQ(this->LowerBound(51), 5u);  // none
  EXPECT_EQ(this->LowerBound(this->kGreatest), 5u);
  this->InsertAll({this->kGreatest});
  EXPECT_EQ(this->LowerBound(51), this->kGreatest);
  EXPECT_EQ(this->LowerBound(this->kGreatest), this->kGreatest);
}

TYPED_TEST(TreeReads, LowerBoundTellsOnlyWhatIsAskedFor) {
  this->InsertAll({10});
  typename TypeParam::Key key = 0;
  typename TypeParam::Value value = 0;
  EXPECT_EQ(TypeParam::LowerBound(this->dict_.get(), 3, nullptr, nullptr), TRUE);
  EXPECT_EQ(TypeParam::LowerBound(this->dict_.get(), 11, nullptr, nullptr), FALSE);
  EXPECT_EQ(TypeParam::LowerBound(this->dict_.get(), 3, &key, nullptr), TRUE);
  EXPECT_EQ(key, 10u);
  EXPECT_EQ(TypeParam::LowerBound(this->dict_.get(), 3, nullptr, &value), TRUE);
  EXPECT_EQ(value, 11u);
}

// Where key 0 can be stored it is a key like any other here; a missing neighbour is told apart from it.
TYPED_TEST(TreeReads, KeyZeroIsFoundWhereItIsStored) {
  this->InsertAll({0, 10});
  const bool stored = TypeParam::kStoresZero;
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), 0, 7), stored ? 1u : 7u);
  EXPECT_EQ(this->FindMany({0}, 7)[0], stored ? 1u : 7u);
  EXPECT_EQ(this->LowerBound(0), stored ? 0u : 10u);
  EXPECT_EQ(this->Range(0, 9, FALSE).size(), stored ? 1u : 0u);
}

TYPED_TEST(TreeReads, RangesIncludeBothTheirEnds) {
  using Keys = std::vector<typename TypeParam::Key>;
  this->InsertAll({30, 10, 20, 40, 50, this->kGreatest});
  EXPECT_EQ(this->Range(20, 40, FALSE), (Keys{20, 30, 40}));
  EXPECT_EQ(this->Range(20, 40, TRUE), (Keys{40, 30, 20}));
  EXPECT_EQ(this->Range(11, 49, FALSE), (Keys{20, 30, 40}));
  EXPECT_EQ(this->Range(11, 49, TRUE), (Keys{40, 30, 20}));
  EXPECT_EQ(this->Range(0, this->kGreatest, FALSE), (Keys{10, 20, 30, 40, 50, this->kGreatest}));
  EXPECT_EQ(this->Range(0, this->kGreatest, TRUE), (Keys{this->kGreatest, 50, 40, 30, 20, 10}));
  EXPECT_EQ(this->Range(30, 30, FALSE), Keys{30});
  EXPECT_EQ(this->Range(30, 30, TRUE), Keys{30});
  EXPECT_EQ(this->Range(51, this->kGreatest - 1, FALSE), Keys{});
  EXPECT_EQ(this->Range(0, 9, TRUE), Keys{});
  EXPECT_EQ(this->Range(21, 29, FALSE), Keys{});
}

TYPED_TEST(TreeReads, ARangeThatEndsBeforeItBeginsIsEmpty) {
  this->InsertAll({30, 10, 20});
  EXPECT_TRUE(this->Range(30, 10, FALSE).empty());
  EXPECT_TRUE(this->Range(30, 10, TRUE).empty());
  EXPECT_TRUE(this->Range(this->kGreatest, 0, FALSE).empty());
}

TYPED_TEST(TreeReads, AVisitorStopsARange) {
  using Keys = std::vector<typename TypeParam::Key>;
  this->InsertAll({30, 10, 20, 40, 50});
  EXPECT_EQ(this->Range(15, 50, FALSE, 1, FALSE), Keys{20});
  EXPECT_EQ(this->Range(15, 50, TRUE, 2, FALSE), (Keys{50, 40}));
}

TYPED_TEST(TreeReads, AgreeWithAMapOnEveryRangeOfASmallTree) {
  uint32_t state = 5;
  const auto random = [&state] { return (state = state * 1664525 + 1013904223) >> 8; };
  for (int round = 0; round < 20; round++) {
    Owned<TypeParam> dict;
    std::map<typename TypeParam::Key, typename TypeParam::Value> map;
    for (int i = 0; i < 12 + round * 3; i++) {
      const typename TypeParam::Key key = 1 + random() % 30;
      if (random() % 4 == 0) {
        TypeParam::Remove(dict.get(), key, 0);
        map.erase(key);
      } else {
        TypeParam::Insert(dict.get(), key, key + 1, 0);
        map[key] = key + 1;
      }
    }
    for (typename TypeParam::Key lo = 0; lo <= 31; lo++) {
      const auto bound = map.lower_bound(lo);
      typename TypeParam::Key key = 0;
      ASSERT_EQ(TypeParam::LowerBound(dict.get(), lo, &key, nullptr), bound != map.end() ? TRUE : FALSE);
      if (bound != map.end()) {
        ASSERT_EQ(key, bound->first);
      }
      for (typename TypeParam::Key hi = 0; hi <= 31; hi++) {
        using Found = std::vector<std::pair<typename TypeParam::Key, typename TypeParam::Value>>;
        Found expected;
        for (auto at = bound; at != map.end() && at->first <= hi; ++at) expected.push_back(*at);
        for (const Boolean reverse : {FALSE, TRUE}) {
          Found list;
          TypeParam::EnumerateRange(
              dict.get(), lo, hi, reverse,
              [](typename TypeParam::Dict*, typename TypeParam::Key k, typename TypeParam::Value v,
                 void* arg) -> Boolean {
                static_cast<Found*>(arg)->push_back({k, v});
                return TRUE;
              },
              &list);
          ASSERT_EQ(list, expected) << lo << " " << hi << " " << reverse;
          std::reverse(expected.begin(), expected.end());
        }
      }
    }
  }
}

TYPED_TEST(TreeReads, ChangeNoWordOfTheDictionary) {
  this->InsertAll({30, 10, 20, 40, 50});
  TypeParam::Find(this->dict_.get(), 41, 0);  // leaves its key in the sentinel
  std::vector<typename TypeParam::Node> before(this->dict_.get()->d_nodes, this->dict_.get()->d_nodes + 1024);
  TypeParam::FindShared(this->dict_.get(), 20, 7);
  TypeParam::FindShared(this->dict_.get(), 21, 7);
  this->FindMany({20, 21, 41, 0}, 7);
  this->LowerBound(42);
  this->Range(11, 44, FALSE);
  EXPECT_EQ(std::memcmp(before.data(), this->dict_.get()->d_nodes, sizeof before[0] * 1024), 0);
}

// A key that the sentinel holds from an earlier search is absent all the same.
TYPED_TEST(TreeReads, DoNotTakeTheSentinelForANode) {
  this->InsertAll({10});
  EXPECT_EQ(TypeParam::Find(this->dict_.get(), 41, 9), 9u);
  this->dict_.node(0).n_value = 1234;
  EXPECT_EQ(TypeParam::FindShared(this->dict_.get(), 41, 7), 7u);
  EXPECT_EQ(this->FindMany({41}, 7)[0], 7u);
  EXPECT_EQ(this->LowerBound(41), 5u);
}

TYPED_TEST(TreeReads, AgreeWithTheSingleLookUpsOnALargeTree) {
  constexpr size_t kKeys = support::kSanitized ? 20000 : 400000;  // past the size that huge pages are asked for
  std::mt19937_64 random(3);
  std::vector<typename TypeParam::Key> keys;
  for (size_t i = 0; i < kKeys; i++) {
    keys.push_back(static_cast<typename TypeParam::Key>(random()) | 1);
    TypeParam::Insert(this->dict_.get(), keys.back(), keys.back() ^ 99, 0);
  }
  for (size_t i = 0; i < kKeys; i += 3) TypeParam::Remove(this->dict_.get(), keys[i], 0);
  TypeParam::Check(this->dict_.get());
  for (size_t i = 1; i < kKeys; i += 2) keys[i] ^= 1;  // absent
  const auto values = this->FindMany(keys, 0);
  for (size_t i = 0; i < kKeys; i++) {
    ASSERT_EQ(values[i], TypeParam::Find(this->dict_.get(), keys[i], 0));
    ASSERT_EQ(values[i], TypeParam::FindShared(this->dict_.get(), keys[i], 0));
  }
}

TYPED_TEST(TreeReads, MayBeMadeByManyThreadsAtOnce) {
  for (unsigned key = 1; key <= 2000; key++) this->InsertAll({key * 2});
  const typename TypeParam::Dict* dict = this->dict_.get();
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; t++) {
    threads.emplace_back([this, dict, t] {
      for (unsigned v = t; v < 4000; v += 7) {
        const bool there = v % 2 == 0 && v > 0;
        ASSERT_EQ(TypeParam::FindShared(dict, v, 7), there ? v + 1 : 7);
        ASSERT_EQ(this->FindMany({v, v + 2}, 7)[0], there ? v + 1 : 7);
        ASSERT_EQ(this->LowerBound(v), v == 0 ? 2 : v + v % 2);
      }
      ASSERT_EQ(this->Range(100, 200, FALSE).size(), 51u);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TYPED_TEST(TreeReadsDeathTest, AWalkInACircleEndsTheProcess) {
  constexpr const char* kText = "a walk meets more than 1024 nodes: the tree is damaged";
  this->InsertAll({20, 10, 30});
  const auto link = [this](uint32_t x, uint32_t child, Boolean reverse) {
    (reverse ? this->dict_.node(x).n_left : this->dict_.node(x).n_right) |= child;
    support::Pairs<TypeParam>(this->dict_.get(), reverse);
  };
  EXPECT_CLEAR_END(link(4, 4, FALSE), kText);  // each time the path is short again
  EXPECT_CLEAR_END(link(3, 3, TRUE), kText);
  EXPECT_CLEAR_END(
      {
        this->dict_.node(4).n_right |= 4;
        this->Range(1, 1000, FALSE, 100000);
      },
      kText);
}

}  // namespace
