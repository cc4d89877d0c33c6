// Walks over trees so large that their low subtrees are laid out before they are visited.

#include <gtest/gtest.h>

#include "support/death.h"
#include "support/trees.h"

namespace {

using support::kTopBit;
using support::Owned;

// 20,000 keys, 1 to 20,000, taken in steps of 7,919, each with ten times itself as its value.
template <typename Api>
class LargeWalk : public testing::Test {
 protected:
  using Key = typename Api::Key;
  using Value = typename Api::Value;
  using Dict = typename Api::Dict;

  static constexpr Key kKeys = 20000;

  LargeWalk() {
    for (Key i = 0; i < kKeys; i++) {
      const Key key = i * 7919 % kKeys + 1;
      Api::Insert(dict_.get(), key, key * 10, 0);
    }
  }

  // Goes through keys that follow one another, up or down, and expects to be stopped after so many.
  struct Visit {
    Key next;
    bool down;
    size_t left;
  };
  static Boolean Follow(Dict*, Key key, Value value, void* arg) {
    auto* visit = static_cast<Visit*>(arg);
    EXPECT_EQ(key, visit->next);
    EXPECT_EQ(value, key * 10);
    visit->next = visit->down ? key - 1 : key + 1;
    return --visit->left != 0 ? TRUE : FALSE;
  }

  void ExpectRange(Key lo, Key hi) {
    for (const Boolean reverse : {FALSE, TRUE}) {
      Visit visit{reverse ? hi : lo, reverse != FALSE, size_t{kKeys} + 1};
      EXPECT_EQ(Api::EnumerateRange(dict_.get(), lo, hi, reverse, Follow, &visit), TRUE);
      EXPECT_EQ(size_t{kKeys} + 1 - visit.left, size_t{hi - lo} + 1);
    }
  }

  Owned<Api> dict_;
};

template <typename Api>
class LargeWalkDeathTest : public LargeWalk<Api> {};

template <typename Api>
class LargeAvlWalk : public LargeWalk<Api> {};

using Twins = testing::Types<support::Avll, support::Avl>;
using All = testing::Types<support::Avll, support::Avl, support::Rb>;
TYPED_TEST_SUITE(LargeWalk, All, support::TreeNames);
TYPED_TEST_SUITE(LargeWalkDeathTest, All, support::TreeNames);
TYPED_TEST_SUITE(LargeAvlWalk, Twins, support::TreeNames);

TYPED_TEST(LargeWalk, MeetsEveryKeyInOrder) {
  typename TestFixture::Visit up{1, false, 20001};
  EXPECT_EQ(TypeParam::Enumerate(this->dict_.get(), FALSE, TestFixture::Follow, &up), TRUE);
  EXPECT_EQ(up.next, 20001u);
  typename TestFixture::Visit down{20000, true, 20001};
  EXPECT_EQ(TypeParam::Enumerate(this->dict_.get(), TRUE, TestFixture::Follow, &down), TRUE);
  EXPECT_EQ(down.next, 0u);
}

TYPED_TEST(LargeWalk, StopsWhereItIsTold) {
  for (const unsigned calls : {1u, 2u, 63u, 64u, 65u, 66u, 100u, 127u, 128u, 129u, 255u, 10000u, 19999u, 20000u}) {
    typename TestFixture::Visit up{1, false, calls};
    EXPECT_EQ(TypeParam::Enumerate(this->dict_.get(), FALSE, TestFixture::Follow, &up), FALSE);
    EXPECT_EQ(up.next, calls + 1);
    typename TestFixture::Visit down{20000, true, calls};
    EXPECT_EQ(TypeParam::Enumerate(this->dict_.get(), TRUE, TestFixture::Follow, &down), FALSE);
    EXPECT_EQ(down.next, 20000 - calls);
  }
}

TYPED_TEST(LargeWalk, EndsWithItsRange) {
  this->ExpectRange(1, 20000);
  this->ExpectRange(1, 1);
  this->ExpectRange(77, 150);
  this->ExpectRange(5000, 5300);
  this->ExpectRange(9999, 19998);
  for (typename TypeParam::Key last = 3000; last < 3300; last++) this->ExpectRange(2900, last);
}

TYPED_TEST(LargeWalk, GoesAroundWhatIsNotThere) {
  for (typename TypeParam::Key key = 1; key <= 20000; key++) {
    if (key % 16 != 0) TypeParam::Remove(this->dict_.get(), key, 0);
    if (key % 16 == 0) TypeParam::Insert(this->dict_.get(), key + 100000, 1, 0);  // 1,250, in slots used before
  }
  for (typename TypeParam::Key key = 200001; key <= 210000; key++) TypeParam::Insert(this->dict_.get(), key, 1, 0);
  const auto pairs = support::Pairs<TypeParam>(this->dict_.get());
  ASSERT_EQ(pairs.size(), 12500u);
  for (size_t i = 0; i < 1250; i++) {
    EXPECT_EQ(pairs[i].first, 16 * (i + 1));
    EXPECT_EQ(pairs[1250 + i].first, 100000 + 16 * (i + 1));
  }
  for (size_t i = 0; i < 10000; i++) EXPECT_EQ(pairs[2500 + i].first, 200001 + i);
}

TYPED_TEST(LargeAvlWalk, SeesValuesThatAVisitorHasChanged) {
  struct Watch {
    typename TypeParam::Value next;
  } watch{10};
  // Each visit changes the value of the next key; all are thus one more than that of the key before.
  EXPECT_EQ(TypeParam::Enumerate(
                this->dict_.get(), FALSE,
                [](typename TypeParam::Dict* dict, typename TypeParam::Key key, typename TypeParam::Value value,
                   void* arg) -> Boolean {
                  auto* w = static_cast<Watch*>(arg);
                  EXPECT_EQ(value, w->next);
                  w->next = value + 1;
                  if (key < 20000) *TypeParam::ValueGet(dict, key + 1) = value + 1;
                  return TRUE;
                },
                &watch),
            TRUE);
  EXPECT_EQ(watch.next, 20010u);
}

// Inserted in ascending order, a red-black tree is up to twice as high on one side as on the other.
TYPED_TEST(LargeWalk, MeetsEveryKeyOfALopsidedTree) {
  Owned<TypeParam> dict;
  for (typename TypeParam::Key key = 1; key <= 30000; key++) TypeParam::Insert(dict.get(), key, key * 10, 0);
  typename TestFixture::Visit up{1, false, 30001};
  EXPECT_EQ(TypeParam::Enumerate(dict.get(), FALSE, TestFixture::Follow, &up), TRUE);
  EXPECT_EQ(up.next, 30001u);
  typename TestFixture::Visit down{30000, true, 30001};
  EXPECT_EQ(TypeParam::Enumerate(dict.get(), TRUE, TestFixture::Follow, &down), TRUE);
  EXPECT_EQ(down.next, 0u);
}

TYPED_TEST(LargeWalk, MeetsEveryKeyOfAListThatCallsItselfATree) {
  Owned<TypeParam> dict(40000);
  for (typename TypeParam::Key key = 1; key <= 20000; key++) {
    const auto x = static_cast<uint32_t>(key) + 1;
    dict.node(x) = {key < 20000 ? x + 1 : 0, 0, key, key * 10};
  }
  dict.node(1).n_right = 2;
  dict.get()->d_size = 20000;
  typename TestFixture::Visit up{1, false, 20001};
  EXPECT_EQ(TypeParam::Enumerate(dict.get(), FALSE, TestFixture::Follow, &up), TRUE);
  EXPECT_EQ(up.next, 20001u);
  typename TestFixture::Visit down{20000, true, 20001};
  EXPECT_EQ(TypeParam::Enumerate(dict.get(), TRUE, TestFixture::Follow, &down), TRUE);
  EXPECT_EQ(down.next, 0u);
}

// The greatest key's node is its own right child, then its own left one. 32,768 slots.
TYPED_TEST(LargeWalkDeathTest, InACircleEndsTheProcess) {
  uint32_t last = this->dict_.right(1);
  while (this->dict_.right(last) != 0) last = this->dict_.right(last);
  const auto walk = [this](Boolean reverse) {
    TypeParam::Enumerate(
        this->dict_.get(), reverse,
        [](typename TypeParam::Dict*, typename TypeParam::Key, typename TypeParam::Value, void*) -> Boolean {
          return TRUE;
        },
        nullptr);
  };
  EXPECT_CLEAR_END(
      {
        this->dict_.node(last).n_right |= last;
        walk(FALSE);
      },
      "a walk meets more than 32768 nodes: the tree is damaged");
  EXPECT_CLEAR_END(
      {
        this->dict_.node(last).n_left = (this->dict_.node(last).n_left & kTopBit) | last;
        walk(FALSE);
      },
      "a path in the tree has more than 32768 nodes: the tree is damaged");
}

}  // namespace
