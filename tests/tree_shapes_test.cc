// Every small tree and the worst large ones.
//
// Small: every insertion order of a few keys followed by every removal order; and every tree that insertions and
// removals in any order can make of a few keys, with every operation on it. What a step does depends on the shape of a
// tree, its flags and its keys, not on the slots that its nodes have, so trees that differ in slots alone are stepped
// on once where that is said.
//
// Large: the thinnest AVL trees (Fibonacci) and the tallest red-black trees that ascending keys build, at the sizes
// where paths pass 32, 34 and 44 nodes.

#include <algorithm>
#include <cstring>
#include <deque>
#include <numeric>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/trees.h"

namespace {

using support::kTopBit;
using support::Owned;

template <typename Api>
class EverySmallTree : public testing::Test {};
using All = testing::Types<support::Avll, support::Avl, support::Rb>;
TYPED_TEST_SUITE(EverySmallTree, All, support::TreeNames);

// A dictionary of a few keys and its reference, which can be put back to an earlier state together.
template <typename Api>
class Small {
 public:
  using Key = typename Api::Key;
  using Node = typename Api::Node;
  static constexpr uint32_t kKeys = 10;
  static constexpr uint32_t kSlots = kKeys + 2;

  struct State {
    Node nodes[kSlots];
    uint32_t size, free, list;
  };

  Small() : reference_(0) {}

  State Save() const {
    const auto* dict = dict_.get();
    State state{{}, dict->d_size, dict->d_free, dict->d_list};
    std::copy_n(dict->d_nodes, kSlots, state.nodes);
    return state;
  }

  void Load(const State& state) {
    auto* dict = dict_.get();
    dict->d_size = reference_.size = state.size;
    dict->d_free = reference_.free = state.free;
    dict->d_list = reference_.list = state.list;
    std::copy_n(state.nodes, kSlots, dict->d_nodes);
    std::memcpy(reference_.nodes.data(), state.nodes, sizeof state.nodes);
  }

  // Makes an operation on both; whether they, the checker and the keys agree.
  bool Insert(Key key) {
    const bool present = (keys() >> key & 1) != 0;
    const Key before = present ? key + 100 : 7;
    const uint32_t expected = keys() | 1u << key;
    return Api::Insert(dict_.get(), key, key + 100, 7) == before && reference_.Insert(key, key + 100, 7) == before &&
           Agree() && keys() == expected;
  }
  bool Remove(Key key) {
    const bool present = (keys() >> key & 1) != 0;
    const Key before = present ? key + 100 : 7;
    const uint32_t expected = keys() & ~(1u << key);
    return Api::Remove(dict_.get(), key, 7) == before && reference_.Remove(key, 7) == before && Agree() &&
           keys() == expected;
  }
  void Clear() {
    Api::Clear(dict_.get());
    reference_.Clear();
  }

  // The keys as a bit set, 0 when they are out of order or an enumerated value is another key's.
  uint32_t keys() const {
    uint32_t set = 1;
    Api::Enumerate(
        dict_.get(), FALSE,
        [](typename Api::Dict*, Key key, typename Api::Value value, void* arg) -> Boolean {
          auto* s = static_cast<uint32_t*>(arg);
          if (value != key + 100 || *s >> key != 0) {
            *s = 0;
            return FALSE;
          }
          *s |= 1u << key;
          return TRUE;
        },
        &set);
    return set;
  }

  // Keys and flags in preorder: all that the next step depends on, but for the slots.
  std::string Shape() const {
    std::string shape;
    Append(dict_.right(1), &shape);
    return shape;
  }

 private:
  bool Agree() const {
    const auto* dict = dict_.get();
    Api::Check(dict_.get());
    return dict->d_size == reference_.size && dict->d_free == reference_.free && dict->d_list == reference_.list &&
           std::memcmp(dict->d_nodes, reference_.nodes.data(), sizeof(Node) * kSlots) == 0;
  }

  void Append(uint32_t x, std::string* shape) const {
    if (x == 0) {
      *shape += '.';
      return;
    }
    const Node& node = dict_.node(x);
    *shape += static_cast<char>('a' + node.n_key);
    *shape += static_cast<char>('0' + (node.n_left >> 31) * 2 + (node.n_right >> 31));
    Append(dict_.left(x), shape);
    Append(dict_.right(x), shape);
  }

  Owned<Api> dict_;
  typename Api::Reference reference_;
};

// Removes the keys of a set in every order; the number of removals, or -1 at the first disagreement.
template <typename Api>
long RemoveInEveryOrder(Small<Api>* small, unsigned keys) {
  const auto state = small->Save();
  long removals = 0;
  for (unsigned key = 1; key <= Small<Api>::kKeys; key++) {
    if ((keys >> key & 1) == 0) continue;
    small->Load(state);
    if (!small->Remove(key)) return -1;
    const long below = RemoveInEveryOrder(small, keys & ~(1u << key));
    if (below < 0) return -1;
    removals += 1 + below;
  }
  return removals;
}

// Inserts 1 to `count` in every order and calls `then` after each.
template <typename Api, typename Then>
void InsertInEveryOrder(Small<Api>* small, unsigned count, Then then) {
  std::vector<unsigned> order(count);
  std::iota(order.begin(), order.end(), 1u);
  do {
    small->Clear();
    for (const unsigned key : order) {
      if (!small->Insert(key)) {
        ADD_FAILURE() << "inserting " << key << " into " << small->Shape();
        return;
      }
    }
    if (!then()) {
      ADD_FAILURE() << "removing from the insertion order " << testing::PrintToString(order);
      return;
    }
  } while (std::next_permutation(order.begin(), order.end()));
}

TYPED_TEST(EverySmallTree, IsTakenApartInEveryOrder) {
  // n! insertion orders, and for each n!/0! + n!/1! + ... + n!/(n-1)! removals, those with a common start counted once.
  const long removals[] = {0, 1, 4, 15, 64, 325, 1956};
  const long orders[] = {1, 1, 2, 6, 24, 120, 720};
  for (unsigned count = 1; count <= 6; count++) {
    Small<TypeParam> small;
    long made = 0;
    InsertInEveryOrder(&small, count, [&] {
      const long steps = RemoveInEveryOrder(&small, (2u << count) - 2);
      made += steps;
      return steps == removals[count];
    });
    EXPECT_EQ(made, orders[count] * removals[count]);
  }
}

// All 5040 insertion orders; the removal orders of each tree that they make, once.
TYPED_TEST(EverySmallTree, OfSevenKeysIsTakenApartInEveryOrder) {
  Small<TypeParam> small;
  std::unordered_set<std::string> seen;
  InsertInEveryOrder(&small, 7,
                     [&] { return !seen.insert(small.Shape()).second || RemoveInEveryOrder(&small, 0xFE) == 13699; });
  // All 17 AVL trees of seven nodes; of the 33 red-black trees those that insertions alone can make.
  EXPECT_EQ(seen.size(), TypeParam::kBalancesHeights ? 17u : 29u);
}

// From every tree over the keys, every insertion, replacement, removal and absent removal.
TYPED_TEST(EverySmallTree, TakesEveryStep) {
  using State = typename Small<TypeParam>::State;
  const unsigned count = Small<TypeParam>::kKeys;
  Small<TypeParam> small;
  std::unordered_set<std::string> seen = {small.Shape()};
  std::deque<State> open = {small.Save()};
  for (; !open.empty(); open.pop_front()) {
    for (unsigned key = 1; key <= count; key++) {
      for (const bool insert : {true, false}) {
        small.Load(open.front());
        const std::string before = small.Shape();
        ASSERT_TRUE(insert ? small.Insert(key) : small.Remove(key)) << before << " " << key;
        if (seen.insert(small.Shape()).second) open.push_back(small.Save());
      }
    }
  }
  // Every tree there is: 1 1 2 1 4 6 4 17 32 44 60 AVL trees of 0 to 10 nodes, 1 1 2 2 4 8 16 33 56 90 164 red-black
  // trees with a black root, each over every choice of that many of the keys.
  EXPECT_EQ(seen.size(), TypeParam::kBalancesHeights ? 7393u : 14101u);
}

template <typename Api>
class LargeAvlTree : public testing::Test {};
using Twins = testing::Types<support::Avll, support::Avl>;
TYPED_TEST_SUITE(LargeAvlTree, Twins, support::TreeNames);

template <typename Api>
unsigned Height(const Owned<Api>& dict, uint32_t x) {
  return x == 0 ? 0 : 1 + std::max(Height(dict, dict.left(x)), Height(dict, dict.right(x)));
}

// The nodes of the thinnest AVL tree of a height.
constexpr uint32_t Thinnest(unsigned height) {
  uint32_t lower = 0;
  uint32_t nodes = 0;
  while (height-- != 0) lower = std::exchange(nodes, nodes == 0 ? 1 : nodes + lower + 1);
  return nodes;
}
static_assert(Thinnest(31) == 3524577 && Thinnest(33) == 9227464);

// Writes that tree, its left sides the taller, into slots from d_free on, with every second key from *key on.
template <typename Api>
uint32_t BuildThinnest(const Owned<Api>& dict, unsigned height, uint32_t* key) {
  if (height == 0) return 0;
  const uint32_t x = dict.get()->d_free++;
  const uint32_t left = BuildThinnest(dict, height - 1, key);
  const uint32_t own = *key;
  *key += 2;
  const uint32_t right = height < 2 ? 0 : BuildThinnest(dict, height - 2, key);
  dict.node(x) = {right, left | (height < 2 ? 0 : kTopBit), own, own};
  return x;
}

template <typename Api>
void BuildThinnest(const Owned<Api>& dict, unsigned height) {
  uint32_t key = 2;
  const uint32_t root = BuildThinnest(dict, height, &key);
  dict.node(1).n_right = root;
  dict.get()->d_size = dict.get()->d_free - 2;
}

// Insertion beside the deepest leaf, removal of the shallowest, which rotates all the way up, and searches that end
// below the deepest: each of them walks and keeps a path of the full height.
template <typename Api>
void Strain(unsigned height) {
  const uint32_t count = Thinnest(height);
  const uint32_t last = 2 * count;
  Owned<Api> dict(count + 10);
  BuildThinnest(dict, height);
  ASSERT_EQ(Api::Size(dict.get()), count);
  ASSERT_EQ(Height(dict, dict.right(1)), height);
  Api::Check(dict.get());

  EXPECT_EQ(Api::Remove(dict.get(), 1, 7), 7u);
  EXPECT_EQ(Api::Remove(dict.get(), 3, 7), 7u);
  EXPECT_EQ(Api::Find(dict.get(), 2, 7), 2u);
  EXPECT_EQ(Api::Insert(dict.get(), 1, 11, 7), 7u);
  EXPECT_EQ(Api::Insert(dict.get(), 3, 33, 7), 7u);
  Api::Check(dict.get());
  EXPECT_EQ(Api::Remove(dict.get(), 1, 7), 11u);
  EXPECT_EQ(Api::Remove(dict.get(), 3, 7), 33u);
  Api::Check(dict.get());
  EXPECT_EQ(Api::Remove(dict.get(), last, 7), last);
  EXPECT_EQ(Api::Remove(dict.get(), dict.node(dict.right(1)).n_key, 9) % 2, 0u);  // the root: it has two children
  Api::Check(dict.get());

  uint64_t sum = 0;
  EXPECT_TRUE(Api::Enumerate(
      dict.get(), FALSE,
      [](typename Api::Dict*, typename Api::Key, typename Api::Value, void* arg) -> Boolean {
        ++*static_cast<uint64_t*>(arg);
        return TRUE;
      },
      &sum));
  EXPECT_EQ(sum, count - 2);
}

// 32 nodes from the header to the deepest leaf, and one more for an absent key.
TYPED_TEST(LargeAvlTree, OfHeight31HoldsItsPaths) { Strain<TypeParam>(31); }
TYPED_TEST(LargeAvlTree, OfHeight33HoldsItsPaths) { Strain<TypeParam>(33); }
TYPED_TEST(LargeAvlTree, OfEveryLesserHeightHoldsItsPaths) {
  for (unsigned height = 4; height <= 22; height++) Strain<TypeParam>(height);
}

// Level by level, the keys of the thinnest tree rebuild it without a rotation: outsiders can make it.
TYPED_TEST(LargeAvlTree, OfTheThinnestShapeArisesFromItsLevels) {
  const unsigned height = 22;
  Owned<TypeParam> model(Thinnest(height) + 2);
  BuildThinnest(model, height);
  std::vector<uint32_t> level = {model.right(1)};
  Owned<TypeParam> dict;
  for (size_t i = 0; i < level.size(); i++) {
    const uint32_t x = level[i];
    TypeParam::Insert(dict.get(), model.node(x).n_key, model.node(x).n_value, 7);
    if (model.left(x) != 0) level.push_back(model.left(x));
    if (model.right(x) != 0) level.push_back(model.right(x));
  }
  TypeParam::Check(dict.get());
  EXPECT_EQ(TypeParam::Size(dict.get()), Thinnest(height));
  EXPECT_EQ(Height(dict, dict.right(1)), height);
}

// Taken apart from its shallow end, the thinnest tree rotates at every level; each word against the reference.
TYPED_TEST(LargeAvlTree, OfTheThinnestShapeShrinksWordForWord) {
  using Reference = typename TypeParam::Reference;
  const unsigned height = 12;
  const uint32_t count = Thinnest(height);
  Owned<TypeParam> dict;
  BuildThinnest(dict, height);
  Reference reference(0);
  std::memcpy(reference.nodes.data(), dict.get()->d_nodes, 1024 * sizeof(typename TypeParam::Node));
  reference.size = count;
  reference.free = count + 2;
  for (uint32_t key = 2 * count; key != 0; key -= 2) {
    ASSERT_EQ(TypeParam::Remove(dict.get(), key, 7), key);
    ASSERT_EQ(reference.Remove(key, 7), key);
    ASSERT_EQ(std::memcmp(reference.nodes.data(), dict.get()->d_nodes, 1024 * sizeof(typename TypeParam::Node)), 0);
    TypeParam::Check(dict.get());
  }
}

void BuildAscending(const Owned<support::Rb>& dict, uint32_t from, uint32_t to) {
  for (uint32_t key = from; key <= to; key++) QXRBDictInsert(dict.get(), key, key, 7);
}

// Removals at the far end of the tallest path, of its start, and of a key that is beyond it.
void StrainEnd(const Owned<support::Rb>& dict, uint32_t last) {
  EXPECT_EQ(QXRBDictRemove(dict.get(), last + 1, 7), 7u);
  for (uint32_t key = last; key > last - 20; key--) EXPECT_EQ(QXRBDictRemove(dict.get(), key, 7), key);
  for (uint32_t i = 0; i < 20; i++) {
    const uint32_t root = dict.node(dict.right(1)).n_key;
    EXPECT_EQ(QXRBDictRemove(dict.get(), root, 7), root);
  }
  for (uint32_t key = 1; key <= 20; key++) EXPECT_EQ(QXRBDictRemove(dict.get(), key, 7), key);
  EXPECT_EQ(QXRBDictSize(dict.get()), last - 60);
  TreeCheck(dict.get());
}

TEST(LargeRedBlackTree, OfAscendingKeysHoldsItsPaths) {
  Owned<support::Rb> dict;
  BuildAscending(dict, 1, 98304);
  EXPECT_EQ(Height(dict, dict.right(1)), 31u);
  BuildAscending(dict, 98305, 131072);
  EXPECT_EQ(Height(dict, dict.right(1)), 32u);
  TreeCheck(dict.get());
  StrainEnd(dict, 131072);
}

TEST(LargeRedBlackTree, OfEightMillionAscendingKeysHoldsItsPaths) {
  constexpr uint32_t kLast = 8388608;
  Owned<support::Rb> dict;
  BuildAscending(dict, 1, kLast);
  EXPECT_EQ(Height(dict, dict.right(1)), 44u);
  TreeCheck(dict.get());
  StrainEnd(dict, kLast);
}

TEST(LargeRedBlackTree, OfDescendingKeysHoldsItsPaths) {
  Owned<support::Rb> dict;
  for (uint32_t key = 131072; key != 0; key--) QXRBDictInsert(dict.get(), key, key, 7);
  EXPECT_EQ(Height(dict, dict.right(1)), 32u);
  TreeCheck(dict.get());
  StrainEnd(dict, 131072);
}

}  // namespace
