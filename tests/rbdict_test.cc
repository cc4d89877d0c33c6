// The red-black dictionary: its record, key 0, every recolouring and rotation, the checker, damaged trees.

#include "dict/rbdict.h"

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/death.h"
#include "support/trees.h"

namespace {

using support::kTopBit;
using Dict = support::Owned<support::Rb>;

constexpr const char* kModule = "dict/rbdict";

// A tree as text: a leaf is its key, an inner node "(left key right)", a red node's key is followed by an r, and a dot
// stands for a missing child.
std::string Shape(const Dict& dict, uint32_t x) {
  if (x == 0) return ".";
  const std::string key = std::to_string(dict.node(x).n_key) + ((dict.node(x).n_left & kTopBit) != 0 ? "r" : "");
  if (dict.left(x) == 0 && dict.right(x) == 0) return key;
  return "(" + Shape(dict, dict.left(x)) + " " + key + " " + Shape(dict, dict.right(x)) + ")";
}

std::string Shape(const Dict& dict) { return Shape(dict, dict.node(1).n_right); }

// Builds the tree of such a text in a fresh node array; values are ten times the keys.
class Builder {
 public:
  Builder(const Dict& dict, const std::string& text) : dict_(dict), text_(text) {
    QXRBDictClear(dict.get());
    dict.node(1).n_right = Node();
    dict.get()->d_size = dict.get()->d_free - 2;
  }

 private:
  char Next() { return text_[at_++]; }
  uint32_t Node() {
    if (text_[at_] == '.') {
      at_++;
      return 0;
    }
    const bool inner = text_[at_] == '(';
    uint32_t left = 0, right = 0;
    if (inner) {
      at_++;
      left = Node();
      at_++;
    }
    uint32_t key = 0;
    while (at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9')
      key = key * 10 + static_cast<uint32_t>(Next() - '0');
    uint32_t colour = 0;
    if (at_ < text_.size() && text_[at_] == 'r') {
      colour = kTopBit;
      at_++;
    }
    if (inner) {
      at_++;
      right = Node();
      at_++;
    }
    const uint32_t x = dict_.get()->d_free++;
    dict_.node(x) = {right, left | colour, key, key * 10};
    return x;
  }

  const Dict& dict_;
  const std::string text_;
  size_t at_ = 0;
};

// The slot of a key.
uint32_t SlotOf(const Dict& dict, uint32_t key) {
  uint32_t x = dict.node(1).n_right;
  while (x != 0 && dict.node(x).n_key != key) x = key < dict.node(x).n_key ? dict.left(x) : dict.right(x);
  return x;
}

TEST(RBDict, HasTheRecordsThatToolsRead) {
  EXPECT_EQ(sizeof(RBDictNode), 16u);
  EXPECT_EQ(offsetof(RBDictNode, n_right), 0u);
  EXPECT_EQ(offsetof(RBDictNode, n_left), 4u);
  EXPECT_EQ(offsetof(RBDictNode, n_key), 8u);
  EXPECT_EQ(offsetof(RBDictNode, n_value), 12u);
  EXPECT_EQ(sizeof(RBDict), 24u);
  EXPECT_EQ(offsetof(RBDict, d_nodes), 0u);
  EXPECT_EQ(offsetof(RBDict, d_capacity), 8u);
  EXPECT_EQ(offsetof(RBDict, d_size), 12u);
  EXPECT_EQ(offsetof(RBDict, d_free), 16u);
  EXPECT_EQ(offsetof(RBDict, d_list), 20u);
}

TEST(RBDictKeyZero, ExchangesTheHeadersValue) {
  Dict dict;
  EXPECT_EQ(QXRBDictInsert(dict.get(), 0, 50, 7), 0u);  // what a fresh header holds, not the marker
  EXPECT_EQ(QXRBDictInsert(dict.get(), 0, 51, 7), 50u);
  EXPECT_EQ(dict.node(1).n_value, 51u);
  QXRBDictInsert(dict.get(), 5, 1, 7);
  EXPECT_EQ(QXRBDictInsert(dict.get(), 0, 52, 7), 51u);
}

TEST(RBDictKeyZero, IsNeverPartOfTheTree) {
  Dict dict;
  QXRBDictInsert(dict.get(), 5, 55, 7);
  QXRBDictInsert(dict.get(), 0, 50, 7);
  QXRBDictInsert(dict.get(), 0, 51, 7);
  EXPECT_EQ(QXRBDictSize(dict.get()), 1u);
  EXPECT_EQ(QXRBDictFind(dict.get(), 0, 7), 7u);
  EXPECT_EQ(QXRBDictRemove(dict.get(), 0, 7), 7u);
  EXPECT_EQ(support::Pairs<support::Rb>(dict.get()), (std::vector<std::pair<RBDictKey, RBDictValue>>{{5, 55}}));
  TreeCheck(dict.get());
}

TEST(RBDictKeyZero, OutlivesClear) {
  Dict dict;
  QXRBDictInsert(dict.get(), 0, 50, 7);
  QXRBDictClear(dict.get());
  EXPECT_EQ(QXRBDictInsert(dict.get(), 0, 51, 7), 50u);
}

struct InsertionCase {
  std::string before;
  uint32_t key;
  std::string after;
};

TEST(RBDictInsert, KeepsTheColours) {
  const InsertionCase cases[] = {
      {".", 20, "20"},
      {"20", 10, "(10r 20 .)"},
      {"20", 30, "(. 20 30r)"},
      {"(10r 20 .)", 30, "(10r 20 30r)"},
      // a node with two red children is split on the way
      {"(10r 20 30r)", 5, "((5r 10 .) 20 30)"},
      {"(10r 20 30r)", 40, "(10 20 (. 30 40r))"},
      // a red node below a red one: one rotation, or two
      {"(10r 20 .)", 5, "(5r 10 20r)"},
      {"(10r 20 .)", 15, "(10r 15 20r)"},
      {"(. 20 30r)", 40, "(20r 30 40r)"},
      {"(. 20 30r)", 25, "(20r 25 30r)"},
      {"((5r 10 .) 20 30)", 3, "((3r 5 10r) 20 30)"},
      {"((5r 10 .) 20 30)", 7, "((5r 7 10r) 20 30)"},
      {"(10 20 (. 30 40r))", 50, "(10 20 (30r 40 50r))"},
      {"(10 20 (. 30 40r))", 35, "(10 20 (30r 35 40r))"},
      // a split below a red node rotates above it
      {"(1 2 (3 4r (5r 6 7r)))", 8, "((1 2r 3) 4 (5 6r (. 7 8r)))"},
      {"(((2r 3 4r) 5r 6) 7 8)", 1, "(((1r 2 .) 3r 4) 5 (6 7r 8))"},
      {"((20 30r (40r 50 60r)) 70 80)", 55, "((20 30r 40) 50 ((55r 60 .) 70r 80))"},
      {"((20 30r (40r 50 60r)) 70 80)", 45, "((20 30r (. 40 45r)) 50 (60 70r 80))"},
  };
  for (const InsertionCase& c : cases) {
    Dict dict;
    Builder(dict, c.before);
    TreeCheck(dict.get());
    EXPECT_EQ(QXRBDictInsert(dict.get(), c.key, 1, 7), 7u);
    EXPECT_EQ(Shape(dict), c.after) << c.before << " with " << c.key;
    TreeCheck(dict.get());
  }
}

// A key that is there is found where it lies now, below the splits that its search made.
TEST(RBDictInsert, SplitsOnTheWayToAPresentKey) {
  Dict dict;
  Builder(dict, "(10r 20 30r)");
  EXPECT_EQ(QXRBDictInsert(dict.get(), 20, 1, 7), 200u);
  EXPECT_EQ(Shape(dict), "(10 20 30)");
  Builder(dict, "(1 2 (3 4r (5r 6 7r)))");
  EXPECT_EQ(QXRBDictInsert(dict.get(), 7, 1, 7), 70u);
  EXPECT_EQ(Shape(dict), "((1 2r 3) 4 (5 6r 7))");
  EXPECT_EQ(QXRBDictFind(dict.get(), 7, 9), 1u);
}

TEST(RBDictInsert, LaysItsNodesOutWordForWord) {
  Dict dict;
  for (uint32_t key = 1; key <= 8; key++) QXRBDictInsert(dict.get(), key, key * 10, 7);  // slots 2 to 9
  ASSERT_EQ(Shape(dict), "((1 2r 3) 4 (5 6r (. 7 8r)))");
  EXPECT_EQ(dict.node(1).n_right, 5u);
  EXPECT_EQ(dict.node(1).n_left, 0u);
  const std::vector<RBDictNode> expected = {{0, 0, 1, 10},           {4, 0x80000002u, 2, 20}, {0, 0, 3, 30},
                                            {7, 0x00000003u, 4, 40}, {0, 0, 5, 50},           {8, 0x80000006u, 6, 60},
                                            {9, 0, 7, 70},           {0, 0x80000000u, 8, 80}};
  EXPECT_EQ(std::memcmp(&dict.node(2), expected.data(), 8 * sizeof(RBDictNode)), 0);

  QXRBDictRemove(dict.get(), 8, 7);  // a red leaf: its slot keeps its colour
  EXPECT_EQ(dict.node(9).n_left, 0x80000000u);
  EXPECT_EQ(dict.node(9).n_right, 0u);
  QXRBDictRemove(dict.get(), 1, 7);
  EXPECT_EQ(dict.node(2).n_left, 0u);
  EXPECT_EQ(dict.node(2).n_right, 9u);
  EXPECT_EQ(dict.get()->d_list, 2u);
  EXPECT_EQ(Shape(dict), "((. 2 3r) 4 (5 6r 7))");
}

struct RemovalCase {
  std::string before;
  uint32_t key;
  std::string after;
};

// The same tree seen in a mirror, each key taken from 100.
std::string Mirror(const std::string& text) {
  if (text == ".") return text;
  if (text[0] != '(') {
    const bool red = text.back() == 'r';
    return std::to_string(100 - std::stoi(text)) + (red ? "r" : "");
  }
  size_t ends[2] = {0, 0};  // of the left subtree and of the key
  int depth = 0;
  for (size_t i = 1, found = 0; found < 2; i++) {
    if (text[i] == '(') depth++;
    if (text[i] == ')') depth--;
    if (text[i] == ' ' && depth == 0) ends[found++] = i;
  }
  const std::string left = text.substr(1, ends[0] - 1);
  const std::string key = text.substr(ends[0] + 1, ends[1] - ends[0] - 1);
  const std::string right = text.substr(ends[1] + 1, text.size() - ends[1] - 2);
  return "(" + Mirror(right) + " " + Mirror(key) + " " + Mirror(left) + ")";
}

void ExpectRemoval(const RemovalCase& c) {
  Dict dict;
  Builder(dict, c.before);
  ASSERT_EQ(Shape(dict), c.before);
  TreeCheck(dict.get());
  EXPECT_EQ(QXRBDictRemove(dict.get(), c.key, 7), c.key * 10);
  EXPECT_EQ(Shape(dict), c.after) << c.before << " without " << c.key;
  EXPECT_EQ(dict.node(1).n_left, 0u);
  TreeCheck(dict.get());
}

TEST(RBDictRemove, RepairsTheColoursOnEitherSide) {
  const RemovalCase cases[] = {
      {"20", 20, "."},
      {"(10r 20 .)", 20, "10"},
      {"(10r 20 30r)", 10, "(. 20 30r)"},
      {"((5r 10 .) 20 30)", 10, "(5 20 30)"},
      // a black leaf goes; the sibling is black with black children: the parent is red, or it goes on upwards
      {"((5 10r 15) 20 (25 30r 35))", 5, "((. 10 15r) 20 (25 30r 35))"},
      {"(10 20 30)", 10, "(. 20 30r)"},
      {"((1 2 3) 4 (5 6 7))", 1, "((. 2 3r) 4 (5 6r 7))"},
      // the sibling's outer child is red, its inner child too, or alone
      {"(10 20 (. 30 40r))", 10, "(20 30 40)"},
      {"(10 20 (25r 30 40r))", 10, "((. 20 25r) 30 40)"},
      {"(10 20 (25r 30 .))", 10, "(20 25 30)"},
      {"((5 10r (. 15 17r)) 20 30)", 5, "((10 15r 17) 20 30)"},
      {"((5 10r (12r 15 .)) 20 30)", 5, "((10 12r 15) 20 30)"},
      // the sibling is red, and the node that becomes the sibling has black children, a red outer or a red inner child
      {"(10 20 (25 30r 40))", 10, "((. 20 25r) 30 40)"},
      {"(10 20 ((. 25 27r) 30r 40))", 10, "((20 25r 27) 30 40)"},
      {"(10 20 ((23r 25 .) 30r 40))", 10, "((20 23r 25) 30 40)"},
      {"((10 20 (25 30r 40)) 50 (60 70 80))", 10, "(((. 20 25r) 30 40) 50 (60 70 80))"},
      // further up: two levels short, then a rotation
      {"((1 2 3) 4 (5 6 (7 8r 9)))", 1, "(((. 2 3r) 4 5) 6 (7 8 9))"},
      {"((1 2 3) 4 ((5 6r 7) 8 9))", 1, "(((. 2 3r) 4 5) 6 (7 8 9))"},
      {"((1 2 3) 4 ((5 6 7) 8r (9 10 11)))", 1, "(((. 2 3r) 4 (5 6r 7)) 8 (9 10 11))"},
  };
  for (const RemovalCase& c : cases) {
    ExpectRemoval(c);
    ExpectRemoval({Mirror(c.before), 100 - c.key, Mirror(c.after)});
  }
}

TEST(RBDictRemove, MovesTheSuccessorIntoTheRemovedKeysSlot) {
  const RemovalCase cases[] = {
      {"(10r 20 30r)", 20, "(10r 30 .)"},
      {"(10 20 30)", 20, "(10r 30 .)"},
      {"(10 20 (. 30 40r))", 20, "(10 30 40)"},  // the successor is the right child, and has a child
      {"((5 10 15) 20 ((. 25 27r) 30 35))", 20, "((5 10 15) 25 (27 30 35))"},  // it lies deeper, and has a child
      {"((5 10 15) 20 (25 30 35))", 20, "((5 10r 15) 25 (. 30 35r))"},         // it is a black leaf
  };
  for (const RemovalCase& c : cases) {
    ExpectRemoval(c);
    Dict dict;
    Builder(dict, c.before);
    const uint32_t slot = SlotOf(dict, c.key);
    QXRBDictRemove(dict.get(), c.key, 7);
    EXPECT_GT(dict.node(slot).n_key, c.key);
    EXPECT_EQ(dict.node(slot).n_value, dict.node(slot).n_key * 10);
  }
}

// The flag of the header's left link is cleared when a repair reaches the header or ends with a rotation, and left
// alone otherwise. Nothing else ever sets it.
TEST(RBDictRemove, ClearsTheHeadersColourWhereARepairRotatesOrRunsOut) {
  const auto header_after = [](const std::string& tree, uint32_t key) {
    Dict dict;
    Builder(dict, tree);
    dict.node(1).n_left = kTopBit;
    QXRBDictRemove(dict.get(), key, 7);
    return dict.node(1).n_left;
  };
  EXPECT_EQ(header_after("20", 20), 0u);
  EXPECT_EQ(header_after("(10 20 (. 30 40r))", 10), 0u);
  EXPECT_EQ(header_after("(10r 20 30r)", 10), kTopBit);
  EXPECT_EQ(header_after("((5r 10 .) 20 30)", 10), kTopBit);
  EXPECT_EQ(header_after("((5 10r 15) 20 (25 30r 35))", 5), kTopBit);
}

TEST(RBDictDeathTest, TheCheckerFindsRedBelowRed) {
  Dict dict;
  Builder(dict, "((5r 10r .) 20 30)");
  EXPECT_ASSERTION(
      TreeCheck(dict.get()), kModule, "TreeCheckRec",
      "(dict->d_nodes[(dict->d_nodes[x].n_left & (~(((UInt) 1) << 31)))].n_left & (((UInt) 1) << 31)) == 0");
  Builder(dict, "((. 10r 15r) 20 30)");
  EXPECT_ASSERTION(TreeCheck(dict.get()), kModule, "TreeCheckRec",
                   "(dict->d_nodes[dict->d_nodes[x].n_right].n_left & (((UInt) 1) << 31)) == 0");
}

TEST(RBDictDeathTest, TheCheckerFindsDifferingBlackHeights) {
  Dict dict;
  for (const char* tree : {"(10 20 .)", "(. 20 30)", "((5 10 .) 20 30)", "(10 20 (25 30r .))", "(10r 20 30)"}) {
    Builder(dict, tree);
    EXPECT_ASSERTION(TreeCheck(dict.get()), kModule, "TreeCheckRec", "0");
  }
}

TEST(RBDict, TheCheckerLooksAtNeitherKeysNorCountsNorTheRootsColour) {
  Dict dict;
  Builder(dict, "(9 20r 7)");
  dict.get()->d_size = 77;
  TreeCheck(dict.get());
}

TEST(RBDictDeathTest, TheCheckerEndsOnDamagedLinks) {
  Dict dict;
  const auto check_with = [&dict](uint32_t left, uint32_t right) {
    Builder(dict, "(10 20 30)");
    dict.node(2).n_left = left;
    dict.node(2).n_right = right;
    TreeCheck(dict.get());
  };
  EXPECT_ASSERTION(check_with(2, 2), kModule, "TreeCheckRec", "0");
  EXPECT_ASSERTION(check_with(4, 4), kModule, "TreeCheckRec", "0");
  EXPECT_ASSERTION(check_with(1024, 0), kModule, "TreeCheckRec", "0");
  EXPECT_ASSERTION(check_with(kTopBit | 1024, 0), kModule, "TreeCheckRec", "0");
  EXPECT_ASSERTION(check_with(kTopBit, 0x7FFFFFFF), kModule, "TreeCheckRec", "0");
  const auto share = [&dict] {  // balanced all over, and 2^200 ways down
    Builder(dict, "20");
    for (uint32_t x = 2; x < 202; x++) dict.node(x) = {x + 1, x + 1, 0, 0};
    TreeCheck(dict.get());
  };
  EXPECT_ASSERTION(share(), kModule, "TreeCheckRec", "0");
}

// The repair's own assertions hold in every tree that insertions and removals can make: these trees are forged.
TEST(RBDictDeathTest, TheRepairEndsOnDamagedTrees) {
  Dict dict;
  // The sentinel has children, so a missing sibling seems to have a red child.
  const auto remove = [&dict](const char* tree, uint32_t key, uint32_t sentinel_left, uint32_t sentinel_right) {
    Builder(dict, tree);
    dict.node(900) = {0, kTopBit, 0, 0};
    dict.node(0).n_left = sentinel_left;
    dict.node(0).n_right = sentinel_right;
    QXRBDictRemove(dict.get(), key, 7);
  };
  constexpr const char* kNoSibling = "(w != 0) || ((dict->d_nodes[p].n_left & (((UInt) 1) << 31)) == 0)";
  EXPECT_ASSERTION(remove("((5 10 .) 20 .)", 10, 900, 0), kModule, "TreeRemoveCorrect", "w != 0");
  EXPECT_ASSERTION(remove("(. 20 (. 30 35))", 30, 0, 900), kModule, "TreeRemoveCorrect", "w != 0");
  EXPECT_ASSERTION(remove("((5 10 .) 20r .)", 10, 0, 900), kModule, "TreeRemoveCorrect", kNoSibling);
  EXPECT_ASSERTION(remove("(. 20r (. 30 35))", 30, 900, 0), kModule, "TreeRemoveCorrect", kNoSibling);
  EXPECT_ASSERTION(remove("((5 10 .) 20 .)", 10, 0, 900), kModule, "TreeRemoveLeftRotate", "y != 0");
  EXPECT_ASSERTION(remove("(. 20 (. 30 35))", 30, 900, 0), kModule, "TreeRemoveRightRotate", "y != 0");
  // The header has a left child, so the root seems to have a sibling.
  const auto remove_root = [&dict](const char* tree, uint32_t header_left) {
    Builder(dict, tree);
    dict.node(900) = {0, kTopBit, 0, 0};
    dict.node(1).n_left = header_left;
    QXRBDictRemove(dict.get(), 20, 7);
  };
  EXPECT_ASSERTION(remove_root("(10 20 .)", 900), kModule, "TreeRemoveRightRotate", "p != 0");
  // 10 gets slot 3 here, and is both children of the header once 20 is gone.
  EXPECT_ASSERTION(remove_root("((. 10 15r) 20 .)", 3), kModule, "TreeRemoveLeftRotate", "p != 0");
}

// The one long path of a tree of `levels` levels, without what hangs on it, red at its end.
void BuildPath(const Dict& dict, uint32_t levels) {
  QXRBDictClear(dict.get());
  for (uint32_t i = 0; i < levels; i++) {
    dict.node(2 + i) = {i + 1 < levels ? 3 + i : 0, i + 1 < levels ? 0 : kTopBit, (i + 1) * 100, i};
  }
  dict.node(1).n_right = 2;
  dict.get()->d_free = 2 + levels;
  dict.get()->d_size = levels;
}

// 62 levels is the tallest red-black tree of 31-bit indices; more are there only where somebody else linked the nodes.
TEST(RBDictRemove, PathsHoldATreeOfAnyHeight) {
  Dict dict;
  for (const uint32_t levels : {31u, 32u, 33u, 60u, 61u, 62u, 64u, 65u, 66u, 131u, 1000u}) {
    BuildPath(dict, levels);
    EXPECT_EQ(QXRBDictRemove(dict.get(), 999999, 7), 7u);
    EXPECT_EQ(support::Pairs<support::Rb>(dict.get()).size(), levels);
    EXPECT_EQ(support::Pairs<support::Rb>(dict.get(), TRUE).size(), levels);
    EXPECT_EQ(QXRBDictRemove(dict.get(), levels * 100, 7), levels - 1);
    EXPECT_EQ(dict.node(levels).n_right, 0u);
  }
}

TEST(RBDictDeathTest, APathInACircleEndsTheProcess) {
  constexpr const char* kText = "a path in the tree has more than 1024 nodes: the tree is damaged";
  Dict dict;
  BuildPath(dict, 66);
  dict.node(50).n_right = 2;
  EXPECT_CLEAR_END(QXRBDictRemove(dict.get(), 999999, 7), kText);
  EXPECT_CLEAR_END(support::Pairs<support::Rb>(dict.get(), TRUE), kText);
}

}  // namespace
