// AVL trees in a node array: every rotation, removal with a substitute, value pointers, the checker, damaged trees.

#include "dict/avl_tree.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/death.h"
#include "support/messages.h"
#include "support/trees.h"

namespace {

using support::kTopBit;
using support::Owned;

template <typename Api>
class AvlTree : public testing::Test {};

template <typename Api>
class AvlTreeDeathTest : public testing::Test {};

using Twins = testing::Types<support::Avll, support::Avl>;
TYPED_TEST_SUITE(AvlTree, Twins, support::TreeNames);
TYPED_TEST_SUITE(AvlTreeDeathTest, Twins, support::TreeNames);

// A tree as text: a leaf is its key, an inner node "(left key skew right)" with < for LEFT, > for RIGHT, = for NONE,
// and a dot for a missing child.
template <typename Api>
std::string Shape(const Owned<Api>& dict, uint32_t x) {
  if (x == 0) return ".";
  const bool left = (dict.node(x).n_left & kTopBit) != 0;
  const bool right = (dict.node(x).n_right & kTopBit) != 0;
  const std::string skew = left && right ? "!" : left ? "<" : right ? ">" : "=";
  const std::string key = std::to_string(dict.node(x).n_key);
  if (dict.left(x) == 0 && dict.right(x) == 0) return skew == "=" ? key : "(. " + key + skew + " .)";
  return "(" + Shape(dict, dict.left(x)) + " " + key + skew + " " + Shape(dict, dict.right(x)) + ")";
}

template <typename Api>
std::string Shape(const Owned<Api>& dict) {
  return Shape(dict, dict.right(1));
}

template <typename Api>
void InsertAll(const Owned<Api>& dict, const std::vector<unsigned>& keys) {
  for (const unsigned key : keys) Api::Insert(dict.get(), key, key * 10, 7);
}

struct InsertionCase {
  std::vector<unsigned> keys;
  std::string shape;
};

// Indices have 31 bits; the top bit of a link is a flag.
TEST(NodeArray, HoldsTwoToThe31Slots) {
  EXPECT_EQ(tree::kMaxSlots, 2147483648u);
  EXPECT_EQ(tree::kIndexMask, 2147483647u);
}

TYPED_TEST(AvlTree, InsertionRebalances) {
  const InsertionCase cases[] = {
      {{20}, "20"},
      {{20, 10}, "(10 20< .)"},
      {{20, 30}, "(. 20> 30)"},
      {{20, 10, 30}, "(10 20= 30)"},
      {{20, 30, 10}, "(10 20= 30)"},
      // single rotations
      {{30, 20, 10}, "(10 20= 30)"},
      {{10, 20, 30}, "(10 20= 30)"},
      {{50, 30, 60, 20, 40, 10}, "((10 20< .) 30= (40 50= 60))"},
      {{20, 10, 40, 30, 50, 60}, "((10 20= 30) 40= (. 50> 60))"},
      // double rotations, by the skew of the node that rises: NONE, LEFT, RIGHT
      {{30, 10, 20}, "(10 20= 30)"},
      {{50, 20, 60, 10, 30, 25}, "((10 20= 25) 30= (. 50> 60))"},
      {{50, 20, 60, 10, 30, 35}, "((10 20< .) 30= (35 50= 60))"},
      {{10, 30, 20}, "(10 20= 30)"},
      {{20, 10, 50, 40, 60, 35}, "((10 20= 35) 40= (. 50> 60))"},
      {{20, 10, 50, 40, 60, 45}, "((10 20< .) 40= (45 50= 60))"},
      // below the root: the rotated subtree's parent takes the new top on the right side
      {{50, 30, 60, 20, 10}, "((10 20= 30) 50< 60)"},
      {{50, 30, 60, 70, 80}, "(30 50> (60 70= 80))"},
      {{50, 30, 60, 10, 20}, "((10 20= 30) 50< 60)"},
      {{50, 30, 60, 80, 70}, "(30 50> (60 70= 80))"},
  };
  for (const InsertionCase& c : cases) {
    Owned<TypeParam> dict;
    InsertAll(dict, c.keys);
    EXPECT_EQ(Shape(dict), c.shape);
    TypeParam::Check(dict.get());
  }
}

struct RemovalCase {
  std::vector<unsigned> keys;
  unsigned removed;
  std::string shape;
};

TYPED_TEST(AvlTree, RemovalRebalances) {
  const RemovalCase cases[] = {
      {{20}, 20, "."},
      {{20, 10}, 10, "20"},
      {{20, 30}, 30, "20"},
      {{20, 10, 30}, 30, "(10 20< .)"},
      {{20, 10, 30}, 10, "(. 20> 30)"},
      // the left side is two levels taller: its top LEFT, NONE, RIGHT over NONE, LEFT, RIGHT
      {{30, 20, 40, 10}, 40, "(10 20= 30)"},
      {{30, 20, 40, 10, 25}, 40, "(10 20> (25 30< .))"},
      {{30, 10, 40, 20}, 40, "(10 20= 30)"},
      {{50, 20, 60, 10, 30, 70, 25}, 70, "((10 20= 25) 30= (. 50> 60))"},
      {{50, 20, 60, 10, 30, 70, 35}, 70, "((10 20< .) 30= (35 50= 60))"},
      // the right side
      {{20, 10, 30, 40}, 10, "(20 30= 40)"},
      {{20, 10, 30, 25, 40}, 10, "((. 20> 25) 30< 40)"},
      {{20, 10, 40, 30}, 10, "(20 30= 40)"},
      {{30, 20, 60, 10, 50, 70, 45}, 10, "((20 30= 45) 50= (. 60> 70))"},
      {{30, 20, 60, 10, 50, 70, 55}, 10, "((20 30< .) 50= (55 60= 70))"},
      // a rotation that lowers the subtree is felt above; one that does not ends there
      {{5, 3, 7, 2, 4, 6, 1}, 4, "((1 2= 3) 5= (6 7< .))"},
      {{8, 5, 11, 3, 7, 10, 12, 2, 4, 6, 9, 1}, 12, "(((1 2< .) 3< 4) 5= ((6 7< .) 8= (9 10= 11)))"},
      {{50, 5, 80, 3, 7, 70, 90, 2, 4, 6, 65, 75, 1}, 90, "((((1 2< .) 3< 4) 5< (6 7< .)) 50< (65 70> (75 80< .)))"},
  };
  for (const RemovalCase& c : cases) {
    Owned<TypeParam> dict;
    InsertAll(dict, c.keys);
    EXPECT_EQ(TypeParam::Remove(dict.get(), c.removed, 7), c.removed * 10);
    EXPECT_EQ(Shape(dict), c.shape) << "without " << c.removed;
    TypeParam::Check(dict.get());
  }
}

TYPED_TEST(AvlTree, RemovalTakesThePredecessorWheneverThereIsALeftSide) {
  const RemovalCase cases[] = {
      {{20, 10}, 20, "10"},
      {{20, 10, 30}, 20, "(. 10> 30)"},
      {{20, 10, 40, 30, 50}, 20, "((. 10> 30) 40< 50)"},                        // though the right side is the taller
      {{40, 20, 60, 10, 30, 50, 70}, 40, "((10 20< .) 30= (50 60= 70))"},       // the predecessor lies deeper,
      {{40, 20, 60, 10, 30, 50, 70, 25}, 40, "((10 20= 25) 30= (50 60= 70))"},  // has a left child,
      {{40, 20, 60, 10, 30, 70, 5}, 40, "((5 10= 20) 30= (. 60> 70))"},         // leaves a parent to be set right
      {{60, 20, 80, 10, 30, 70, 90, 5, 40, 100}, 60, "(((5 10< .) 20< 30) 40= (70 80> (. 90> 100)))"},
  };
  for (const RemovalCase& c : cases) {
    Owned<TypeParam> dict;
    InsertAll(dict, c.keys);
    const uint32_t root = dict.right(1);
    EXPECT_EQ(TypeParam::Remove(dict.get(), c.removed, 7), c.removed * 10);
    EXPECT_EQ(Shape(dict), c.shape);
    EXPECT_LT(dict.node(root).n_key, c.removed);  // the node stays, under its predecessor's key
    TypeParam::Check(dict.get());
  }
}

TYPED_TEST(AvlTree, RemovalTakesTheSuccessorWhenThereIsNoLeftSide) {
  Owned<TypeParam> dict;
  InsertAll(dict, {10, 20});
  EXPECT_EQ(TypeParam::Remove(dict.get(), 10, 7), 100u);
  EXPECT_EQ(Shape(dict), "20");
  EXPECT_EQ(dict.right(1), 2u);
  EXPECT_EQ(dict.node(2).n_value, 200u);
  EXPECT_EQ(dict.get()->d_list, 3u);
}

// No AVL tree has more than a leaf beside a missing left side, so only a forged one shows the whole way to a successor:
// each word against the reference.
TYPED_TEST(AvlTree, RemovalFindsADeepSuccessorInAForgedTree) {
  using Node = typename TypeParam::Node;
  Owned<TypeParam> dict;
  typename TypeParam::Reference reference(0);
  const std::vector<Node> forged = {{kTopBit | 3, 0, 10, 100}, {5, kTopBit | 4, 40, 400}, {0, kTopBit | 6, 30, 300},
                                    {0, 0, 50, 500},           {kTopBit | 7, 0, 20, 200}, {0, 0, 25, 250}};
  std::copy(forged.begin(), forged.end(), &dict.node(2));
  dict.node(1).n_right = 2;
  dict.get()->d_free = reference.free = 8;
  dict.get()->d_size = reference.size = 6;
  std::memcpy(reference.nodes.data(), dict.get()->d_nodes, 8 * sizeof(Node));
  EXPECT_EQ(TypeParam::Remove(dict.get(), 10, 7), 100u);
  EXPECT_EQ(reference.Remove(10, 7), 100u);
  EXPECT_EQ(std::memcmp(reference.nodes.data(), dict.get()->d_nodes, 8 * sizeof(Node)), 0);
  EXPECT_EQ(dict.node(6).n_right, kTopBit);  // the released slot keeps its right flag beside the end of the list
  EXPECT_EQ(Shape(dict), "(. 20= ((25 30= .) 40= 50))");
}

// The words of the array themselves, flags included.
TYPED_TEST(AvlTree, LaysItsNodesOutWordForWord) {
  Owned<TypeParam> dict;
  InsertAll(dict, {50, 20, 60, 10, 30, 70, 25});  // slots 2 to 8
  const auto expect = [&dict](uint32_t x, uint32_t left, uint32_t right, unsigned key) {
    EXPECT_EQ(dict.node(x).n_left, left) << x;
    EXPECT_EQ(dict.node(x).n_right, right) << x;
    EXPECT_EQ(dict.node(x).n_key, key) << x;
    EXPECT_EQ(dict.node(x).n_value, key * 10) << x;
  };
  EXPECT_EQ(dict.node(1).n_right, 2u);
  EXPECT_EQ(dict.node(1).n_left, 0u);
  expect(2, 0x80000003u, 0x00000004u, 50);
  expect(3, 0x00000005u, 0x80000006u, 20);
  expect(4, 0x00000000u, 0x80000007u, 60);
  expect(5, 0x00000000u, 0x00000000u, 10);
  expect(6, 0x80000008u, 0x00000000u, 30);
  expect(7, 0x00000000u, 0x00000000u, 70);
  expect(8, 0x00000000u, 0x00000000u, 25);

  TypeParam::Remove(dict.get(), 60, 7);  // 70 moves into slot 4, slot 7 is released; 30 rises to the root
  EXPECT_EQ(dict.node(1).n_right, 6u);
  expect(2, 0x00000000u, 0x80000004u, 50);
  expect(3, 0x00000005u, 0x00000008u, 20);
  expect(4, 0x00000000u, 0x00000000u, 70);
  expect(6, 0x00000003u, 0x00000002u, 30);
  expect(7, 0x00000000u, 0x00000000u, 70);
  EXPECT_EQ(dict.get()->d_list, 7u);

  TypeParam::Remove(dict.get(), 50, 7);  // 70 moves on into slot 2, slot 4 follows slot 7
  expect(2, 0x00000000u, 0x00000000u, 70);
  expect(4, 0x00000000u, 0x00000007u, 70);
  expect(6, 0x80000003u, 0x00000002u, 30);
  EXPECT_EQ(dict.get()->d_list, 4u);

  TypeParam::Remove(dict.get(), 70, 7);  // a leaf: 20 rises over 30, slot 2 follows slot 4
  EXPECT_EQ(dict.node(1).n_right, 3u);
  expect(3, 0x00000005u, 0x80000006u, 20);
  expect(6, 0x80000008u, 0x00000000u, 30);
  expect(2, 0x00000000u, 0x00000004u, 70);
  EXPECT_EQ(dict.get()->d_list, 2u);

  TypeParam::Remove(dict.get(), 30, 7);  // 25 moves into slot 6; a released slot keeps its left link and flags
  expect(6, 0x00000000u, 0x00000000u, 25);
  expect(8, 0x00000000u, 0x00000002u, 25);
  EXPECT_EQ(Shape(dict), "(10 20= 25)");
}

TYPED_TEST(AvlTree, AReleasedSlotKeepsItsFlag) {
  Owned<TypeParam> dict;
  InsertAll(dict, {50, 30, 60, 20, 40, 70, 35});
  // 40 is the predecessor of 50 and leans left: its slot, 6, keeps the flag and the link to 35, slot 8.
  EXPECT_EQ(dict.node(6).n_left, 0x80000008u);
  TypeParam::Remove(dict.get(), 50, 7);
  EXPECT_EQ(dict.get()->d_list, 6u);
  EXPECT_EQ(dict.node(6).n_left, 0x80000008u);
  EXPECT_EQ(dict.node(6).n_right, 0u);
  EXPECT_EQ(Shape(dict), "((20 30= 35) 40= (. 60> 70))");
  TypeParam::Insert(dict.get(), 1, 2, 7);  // and loses both when it is taken again
  EXPECT_EQ(dict.node(6).n_left, 0u);
  EXPECT_EQ(dict.node(6).n_right, 0u);
  EXPECT_EQ(dict.node(6).n_key, 1u);
}

TYPED_TEST(AvlTree, StoresKeyZero) {
  Owned<TypeParam> dict;
  EXPECT_EQ(TypeParam::Find(dict.get(), 0, 7), 7u);
  EXPECT_EQ(TypeParam::ValueGet(dict.get(), 0), nullptr);
  EXPECT_EQ(TypeParam::Remove(dict.get(), 0, 7), 7u);
  EXPECT_EQ(TypeParam::Insert(dict.get(), 0, 5, 7), 7u);
  EXPECT_EQ(TypeParam::Size(dict.get()), 1u);
  EXPECT_EQ(dict.right(1), 2u);
  EXPECT_EQ(TypeParam::Find(dict.get(), 0, 7), 5u);
  EXPECT_EQ(TypeParam::Insert(dict.get(), 0, 6, 7), 5u);
  InsertAll(dict, {10, 20, 30});
  EXPECT_EQ(support::Pairs<TypeParam>(dict.get()).front().first, 0u);
  EXPECT_EQ(TypeParam::Remove(dict.get(), 0, 7), 6u);
  EXPECT_EQ(TypeParam::Find(dict.get(), 0, 7), 7u);
}

TYPED_TEST(AvlTree, ValueGetGivesTheValueInPlace) {
  Owned<TypeParam> dict;
  InsertAll(dict, {20, 10, 30});
  auto* value = TypeParam::ValueGet(dict.get(), 30);
  ASSERT_EQ(value, &dict.node(4).n_value);
  EXPECT_EQ(*value, 300u);
  *value = 301;
  EXPECT_EQ(TypeParam::Find(dict.get(), 30, 7), 301u);
  EXPECT_EQ(TypeParam::ValueGet(dict.get(), 31), nullptr);
}

TYPED_TEST(AvlTree, ValueInsertGivesTheOldValueAndThePlace) {
  Owned<TypeParam> dict;
  typename TypeParam::Value* value = nullptr;
  EXPECT_EQ(TypeParam::ValueInsert(dict.get(), 20, 200, 7, &value), 7u);
  EXPECT_EQ(value, &dict.node(2).n_value);
  EXPECT_EQ(*value, 200u);
  value = nullptr;
  EXPECT_EQ(TypeParam::ValueInsert(dict.get(), 20, 201, 7, &value), 200u);
  EXPECT_EQ(value, &dict.node(2).n_value);
  EXPECT_EQ(*value, 201u);
  EXPECT_EQ(TypeParam::ValueInsert(dict.get(), 20, 202, 7, nullptr), 201u);
  EXPECT_EQ(TypeParam::ValueInsert(dict.get(), 21, 210, 7, nullptr), 7u);
  EXPECT_EQ(TypeParam::Find(dict.get(), 21, 7), 210u);
}

TYPED_TEST(AvlTree, ValueInsertGivesThePlaceAfterTheArrayHasGrown) {
  Owned<TypeParam> dict;
  for (unsigned key = 1; key <= 40000; key++) {
    typename TypeParam::Value* value = nullptr;
    TypeParam::ValueInsert(dict.get(), key, key, 7, &value);
    ASSERT_EQ(value, &dict.node(key + 1).n_value);
  }
  EXPECT_EQ(dict.get()->d_capacity, 65536u);
}

TYPED_TEST(AvlTree, AValuePointerOutlivesLookupsAndReplacements) {
  Owned<TypeParam> dict;
  InsertAll(dict, {20, 10, 30});
  auto* value = TypeParam::ValueGet(dict.get(), 10);
  TypeParam::Find(dict.get(), 20, 7);
  TypeParam::Remove(dict.get(), 25, 7);
  TypeParam::Insert(dict.get(), 10, 101, 7);
  TypeParam::Insert(dict.get(), 30, 301, 7);
  EXPECT_EQ(*value, 101u);
  EXPECT_EQ(TypeParam::ValueGet(dict.get(), 10), value);
}

TYPED_TEST(AvlTree, AValuePointerGoesStaleWhenItsKeyMoves) {
  Owned<TypeParam> dict;
  InsertAll(dict, {20, 10, 30});
  auto* value = TypeParam::ValueGet(dict.get(), 10);
  ASSERT_EQ(value, &dict.node(3).n_value);
  TypeParam::Remove(dict.get(), 20, 7);  // 10 moves into 20's slot
  EXPECT_EQ(dict.get()->d_list, 3u);     // the pointer points into a released slot now
  auto* moved = TypeParam::ValueGet(dict.get(), 10);
  EXPECT_EQ(moved, &dict.node(2).n_value);
  EXPECT_EQ(*moved, 100u);
  TypeParam::Insert(dict.get(), 40, 400, 7);
  EXPECT_EQ(*value, 400u);  // and the slot is another key's soon
}

TYPED_TEST(AvlTree, AVisitorMayChangeValuesThatAreStillToCome) {
  using Dict = typename TypeParam::Dict;
  using Integer = typename TypeParam::Key;
  Owned<TypeParam> dict;
  for (unsigned key = 1; key <= 200; key++) TypeParam::Insert(dict.get(), key, 1, 7);
  // Each visited key's value is added to its successor's: 1, 2, 3 ...
  Integer sum = 0;
  EXPECT_TRUE(TypeParam::Enumerate(
      dict.get(), FALSE,
      [](Dict* d, Integer key, Integer value, void* arg) -> Boolean {
        EXPECT_EQ(key, value);
        *static_cast<Integer*>(arg) += value;
        if (auto* next = TypeParam::ValueGet(d, key + 1); next != nullptr) *next += value;
        return TRUE;
      },
      &sum));
  EXPECT_EQ(sum, 20100u);
}

TYPED_TEST(AvlTreeDeathTest, TheCheckerFindsWrongFlags) {
  Owned<TypeParam> dict;
  InsertAll(dict, {20, 10, 30, 5, 40});  // 20 =, 10 <, 30 >
  TypeParam::Check(dict.get());
  const auto with = [&dict](uint32_t x, uint32_t left_flag, uint32_t right_flag) {
    dict.node(x).n_left = dict.left(x) | left_flag;
    dict.node(x).n_right = dict.right(x) | right_flag;
    TypeParam::Check(dict.get());
  };
  EXPECT_ASSERTION(with(3, 0, 0), TypeParam::kModule, TypeParam::kCheckName, "(GetSkew(dict, x)) == LEFT");
  EXPECT_ASSERTION(with(3, 0, kTopBit), TypeParam::kModule, TypeParam::kCheckName, "(GetSkew(dict, x)) == LEFT");
  EXPECT_ASSERTION(with(4, 0, 0), TypeParam::kModule, TypeParam::kCheckName, "(GetSkew(dict, x)) == RIGHT");
  EXPECT_ASSERTION(with(4, kTopBit, 0), TypeParam::kModule, TypeParam::kCheckName, "(GetSkew(dict, x)) == RIGHT");
  EXPECT_ASSERTION(with(2, kTopBit, 0), TypeParam::kModule, TypeParam::kCheckName, "(GetSkew(dict, x)) == NONE");
  EXPECT_ASSERTION(with(2, 0, kTopBit), TypeParam::kModule, TypeParam::kCheckName, "(GetSkew(dict, x)) == NONE");
  EXPECT_ASSERTION(with(5, kTopBit, 0), TypeParam::kModule, TypeParam::kCheckName, "(GetSkew(dict, x)) == NONE");
}

TYPED_TEST(AvlTreeDeathTest, TheCheckerFindsSidesThatDifferByTwo) {
  Owned<TypeParam> dict;
  InsertAll(dict, {20, 10, 30, 5});
  const auto cut = [&dict] {
    dict.node(2).n_right = 0;
    TypeParam::Check(dict.get());
  };
  EXPECT_ASSERTION(cut(), TypeParam::kModule, TypeParam::kCheckName, "0");
  const auto cut_other = [&dict] {
    dict.node(4).n_right = 6;
    dict.node(6) = {kTopBit | 7, 0, 40, 0};
    dict.node(7) = {0, 0, 50, 0};
    TypeParam::Check(dict.get());
  };
  EXPECT_ASSERTION(cut_other(), TypeParam::kModule, TypeParam::kCheckName, "0");
}

TYPED_TEST(AvlTree, TheCheckerLooksAtNeitherKeysNorCounts) {
  Owned<TypeParam> dict;
  InsertAll(dict, {20, 10, 30, 5});
  for (uint32_t x = 2; x <= 5; x++) dict.node(x).n_key = 1;
  dict.get()->d_size = 77;
  dict.get()->d_free = 2;
  TypeParam::Check(dict.get());
}

// However the links are damaged, the checker comes to an end, and inside the array.
TYPED_TEST(AvlTreeDeathTest, TheCheckerEndsOnDamagedLinks) {
  Owned<TypeParam> dict;
  InsertAll(dict, {20, 10, 30});
  const auto check_with_left = [&dict](uint32_t x, uint32_t child) {
    dict.node(x).n_left = child;
    TypeParam::Check(dict.get());
  };
  EXPECT_ASSERTION(check_with_left(2, 2), TypeParam::kModule, TypeParam::kCheckName, "0");
  EXPECT_ASSERTION(check_with_left(3, 2), TypeParam::kModule, TypeParam::kCheckName, "0");
  EXPECT_ASSERTION(check_with_left(3, 1), TypeParam::kModule, TypeParam::kCheckName, "0");
  EXPECT_ASSERTION(check_with_left(3, 1024), TypeParam::kModule, TypeParam::kCheckName, "0");
  EXPECT_ASSERTION(check_with_left(3, 0x7FFFFFFF), TypeParam::kModule, TypeParam::kCheckName, "0");
  const auto share = [&dict] {  // balanced all over, and 2^200 ways down
    for (uint32_t x = 2; x < 202; x++) dict.node(x).n_left = dict.node(x).n_right = x + 1;
    dict.node(202) = {0, 0, 0, 0};
    TypeParam::Check(dict.get());
  };
  EXPECT_ASSERTION(share(), TypeParam::kModule, TypeParam::kCheckName, "0");
}

TYPED_TEST(AvlTreeDeathTest, BothFlagsAtOnceAreAnAssertion) {
  constexpr const char* kText = "!(dict->d_nodes[x].n_right & (((UInt) 1) << 31))";
  Owned<TypeParam> dict;
  InsertAll(dict, {20, 10});
  dict.node(2).n_right |= kTopBit;
  EXPECT_ASSERTION(TypeParam::Check(dict.get()), TypeParam::kModule, "GetSkew", kText);
  EXPECT_ASSERTION(TypeParam::Insert(dict.get(), 30, 1, 7), TypeParam::kModule, "GetSkew", kText);
  EXPECT_ASSERTION(TypeParam::Remove(dict.get(), 10, 7), TypeParam::kModule, "GetSkew", kText);
}

struct Traits {
  using Dict = AVLDict;
  using Node = AVLDictNode;
  using Key = AVLDictKey;
  using Value = AVLDictValue;
  static constexpr const char* kModule = "some/module";
};

TEST(AvlSkew, IsWrittenAndReadThroughTheFlags) {
  AVLDictNode nodes[1] = {{5, 6, 0, 0}};
  AVLDict dict{nodes, 1, 0, 0, 0};
  EXPECT_EQ(avl::GetSkew<Traits>(&dict, 0), avl::NONE);
  avl::SetSkew<Traits>(&dict, 0, avl::LEFT);
  EXPECT_EQ(nodes[0].n_right, 5u);
  EXPECT_EQ(nodes[0].n_left, 0x80000006u);
  EXPECT_EQ(avl::GetSkew<Traits>(&dict, 0), avl::LEFT);
  avl::SetSkew<Traits>(&dict, 0, avl::RIGHT);
  EXPECT_EQ(nodes[0].n_right, 0x80000005u);
  EXPECT_EQ(nodes[0].n_left, 6u);
  EXPECT_EQ(avl::GetSkew<Traits>(&dict, 0), avl::RIGHT);
  avl::SetSkew<Traits>(&dict, 0, avl::NONE);
  EXPECT_EQ(nodes[0].n_right, 5u);
  EXPECT_EQ(nodes[0].n_left, 6u);
}

TEST(AvlSkewDeathTest, OfAnotherValueIsAnAssertion) {
  AVLDictNode nodes[1] = {};
  AVLDict dict{nodes, 1, 0, 0, 0};
  EXPECT_ASSERTION(avl::SetSkew<Traits>(&dict, 0, static_cast<avl::SkewType>(3)), "some/module", "SetSkew", "0");
  EXPECT_ASSERTION(avl::SetSkew<Traits>(&dict, 0, static_cast<avl::SkewType>(-1)), "some/module", "SetSkew", "0");
}

TEST(AvlHeight, HasTheWorstShapesOfFibonacci) {
  EXPECT_EQ(avl::MaxHeight(0), 0u);
  EXPECT_EQ(avl::MaxHeight(1), 1u);
  EXPECT_EQ(avl::MaxHeight(2), 2u);
  EXPECT_EQ(avl::MaxHeight(3), 2u);
  EXPECT_EQ(avl::MaxHeight(4), 3u);
  EXPECT_EQ(avl::MaxHeight(6), 3u);
  EXPECT_EQ(avl::MaxHeight(7), 4u);
  EXPECT_EQ(avl::MaxHeight(3524576), 30u);
  EXPECT_EQ(avl::MaxHeight(3524577), 31u);
  EXPECT_EQ(avl::MaxHeight(9227464), 33u);
  EXPECT_EQ(avl::MaxHeight(2147483646), 44u);
}

// The one long path of a tree of `levels` levels, without what hangs on it: as far as a search can go. The flags say
// that each left side is the taller, so that an insertion at the end rebalances one level and stops.
template <typename Api>
void BuildPath(const Owned<Api>& dict, uint32_t levels, uint32_t left_flag) {
  for (uint32_t i = 0; i < levels; i++) {
    dict.node(2 + i) = {i + 1 < levels ? 3 + i : 0, left_flag, (i + 1) * 100, i};
  }
  dict.node(1).n_right = 2;
  dict.get()->d_free = 2 + levels;
  dict.get()->d_size = levels;
}

// 44 levels is the tallest AVL tree of 31-bit indices; more are there only where somebody else linked the nodes.
TYPED_TEST(AvlTree, PathsHoldATreeOfAnyHeight) {
  for (const uint32_t levels : {31u, 32u, 33u, 34u, 43u, 44u, 45u, 46u, 47u, 48u, 94u, 95u, 500u, 1000u}) {
    Owned<TypeParam> dict;
    BuildPath(dict, levels, kTopBit);
    EXPECT_EQ(TypeParam::Remove(dict.get(), 999999, 7), 7u);
    EXPECT_EQ(support::Pairs<TypeParam>(dict.get()).size(), levels);
    EXPECT_EQ(support::Pairs<TypeParam>(dict.get(), TRUE).size(), levels);
    EXPECT_EQ(TypeParam::Insert(dict.get(), levels * 100 + 1, 5, 7), 7u);
    EXPECT_EQ(dict.right(levels + 1), levels + 2);
    EXPECT_EQ(dict.node(levels + 1).n_left, 0u);  // was LEFT, is NONE

    BuildPath(dict, levels, 0);
    EXPECT_EQ(TypeParam::Remove(dict.get(), levels * 100, 7), levels - 1);
    EXPECT_EQ(dict.node(levels).n_left, kTopBit);  // was NONE, is LEFT
    EXPECT_EQ(dict.right(levels), 0u);

    BuildPath(dict, levels, 0);  // the root's predecessor at the far end: turn the path round below it
    dict.node(2).n_left = std::exchange(dict.node(2).n_right, 0);
    EXPECT_EQ(TypeParam::Remove(dict.get(), 100, 7), 0u);
    EXPECT_EQ(dict.node(2).n_key, levels * 100);
    EXPECT_EQ(dict.node(levels).n_left, kTopBit);
  }
}

TYPED_TEST(AvlTreeDeathTest, APathInACircleEndsTheProcess) {
  constexpr const char* kText = "a path in the tree has more than 1024 nodes: the tree is damaged";
  Owned<TypeParam> dict;
  BuildPath(dict, 48, kTopBit);
  dict.node(40).n_right = 2;
  EXPECT_CLEAR_END(TypeParam::Insert(dict.get(), 999999, 1, 7), kText);
  EXPECT_CLEAR_END(TypeParam::Remove(dict.get(), 999999, 7), kText);
  EXPECT_CLEAR_END(support::Pairs<TypeParam>(dict.get(), TRUE), kText);
}

}  // namespace
