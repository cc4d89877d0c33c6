// The ordered dictionary over 32-bit keys as a red-black tree: node_tree.h over 16-byte nodes, and the balancing.
//
//   node  [ n_right 4 | n_left 4 | n_key 4 | n_value 4 ]      bit 31 of n_left: set for red, clear for black
//
// No red node has a red child; every path from a node down to the sentinel passes the same number of black nodes; the
// root is black, and so is the sentinel. n_right carries no flag.
//
// Insertion works top-down: it splits every node with two red children that it passes, so that the new node always
// finds a place where no repair has to go back up. Removal keeps the path and repairs the colours bottom-up. The slots,
// colours and order of the steps are part of the format: tools compare node arrays word for word.
//
// The algorithm is that of L. J. Guibas and R. Sedgewick, "A dichromatic framework for balanced trees" (1978).

#include "dict/rbdict.h"

#include <bit>
#include <utility>

#include "dict/node_tree.h"
#include "dict/tree_reads.h"
#include "dict/tree_walk.h"

namespace {

using tree::Child;
using tree::Index;
using tree::kFlag;
using tree::kHeader;
using tree::kSentinel;
using tree::Other;
using tree::SetChild;
using tree::Side;

constexpr const char* kModule = "dict/rbdict";

struct RBTraits {
  using Dict = RBDict;
  using Node = RBDictNode;
  using Key = RBDictKey;
  using Value = RBDictValue;

  static constexpr const char* kModule = ::kModule;

  // With b black nodes on every path there are at least 2^b - 1 nodes, and as red nodes never follow one another, no
  // path has more than 2b: at most 2 log2(keys + 1).
  static constexpr unsigned kMaxHeight = 2 * std::bit_width(tree::kMaxKeys);

  // The sizes are reported in 32 bits.
  static void ReportMapping(size_t bytes) {
    QX_MESSAGE_IN(kModule, "QXRBDictNew", qx::kFailure, FALSE, "memory allocation failed: size=%u",
                  static_cast<UInt>(bytes));
  }
  static void ReportGrowth(size_t bytes) {
    QX_MESSAGE_IN(kModule, "NodeNew", qx::kFailure, FALSE, "memory reallocation failed: size=%u",
                  static_cast<UInt>(bytes));
  }
};

using Path = tree::Path<RBTraits>;

static_assert(RBTraits::kMaxHeight == 62);
static_assert(sizeof(RBDictNode) == 16);
static_assert(offsetof(RBDictNode, n_right) == 0 && offsetof(RBDictNode, n_left) == 4);
static_assert(offsetof(RBDictNode, n_key) == 8 && offsetof(RBDictNode, n_value) == 12);
static_assert(sizeof(RBDict) == 24);
static_assert(offsetof(RBDict, d_nodes) == 0 && offsetof(RBDict, d_capacity) == 8);
static_assert(offsetof(RBDict, d_size) == 12 && offsetof(RBDict, d_free) == 16 && offsetof(RBDict, d_list) == 20);

bool IsRed(const RBDict* dict, Index x) { return (dict->d_nodes[x].n_left & kFlag) != 0; }
void SetRed(RBDict* dict, Index x) { dict->d_nodes[x].n_left |= kFlag; }
void SetBlack(RBDict* dict, Index x) { dict->d_nodes[x].n_left &= ~kFlag; }

Index Left(const RBDict* dict, Index x) { return Child<Side::kLeft>(dict->d_nodes[x]); }
Index Right(const RBDict* dict, Index x) { return Child<Side::kRight>(dict->d_nodes[x]); }

// Rotates below y, on the way towards v: y's child c goes down, its child gc takes its place. Gives gc.
Index TreeRotate(RBDict* dict, RBDictKey v, Index y) {
  RBDictNode* nodes = dict->d_nodes;
  const Index c = tree::Toward(nodes[y], v);
  const Index gc = tree::Toward(nodes[c], v);
  if (v < nodes[c].n_key) {
    SetChild<Side::kLeft>(nodes[c], Child<Side::kRight>(nodes[gc]));
    SetChild<Side::kRight>(nodes[gc], c);
  } else {
    SetChild<Side::kRight>(nodes[c], Child<Side::kLeft>(nodes[gc]));
    SetChild<Side::kLeft>(nodes[gc], c);
  }
  tree::SetToward(nodes[y], v, gc);
  return gc;
}

// Makes x red and its children black, and sets a red parent right: x, its parent p, grandparent g and great-grandparent
// gg on the way towards v. Gives the node that stands at x's place, or above it, afterwards. The sentinel may be
// written, black as it was.
Index TreeSplit(RBDict* dict, RBDictKey v, Index gg, Index g, Index p, Index x) {
  SetRed(dict, x);
  SetBlack(dict, Left(dict, x));
  SetBlack(dict, Right(dict, x));
  if (IsRed(dict, p)) {
    SetRed(dict, g);
    if ((v < dict->d_nodes[g].n_key) != (v < dict->d_nodes[p].n_key)) TreeRotate(dict, v, g);
    x = TreeRotate(dict, v, gg);
    SetBlack(dict, x);
  }
  SetBlack(dict, tree::Root(dict));
  return x;
}

RBDictValue TreeInsert(RBDict* dict, RBDictKey v, RBDictValue d, RBDictValue n) {
  Index g = kHeader;
  Index p = kHeader;
  Index x = kHeader;
  for (;;) {
    // The header comes first, so key 0 ends here, at the header's value.
    if (dict->d_nodes[x].n_key == v) return std::exchange(dict->d_nodes[x].n_value, d);
    Index c = tree::Toward(dict->d_nodes[x], v);
    if (IsRed(dict, Left(dict, c)) && IsRed(dict, Right(dict, c))) c = TreeSplit(dict, v, g, p, x, c);
    if (c == 0) break;
    g = p;
    p = x;
    x = c;
  }
  const Index added = tree::NodeNew<RBTraits>(dict, v, d);
  tree::SetToward(dict->d_nodes[x], v, added);
  TreeSplit(dict, v, g, p, x, added);
  return n;
}

// Rotates at x, a child of p: x's child on the other side than `side` takes its place, and x goes down on `side`.
template <Side side>
void TreeRemoveRotate(RBDict* dict, Index p, Index x) {
  constexpr const char* kFunction = side == Side::kLeft ? "TreeRemoveLeftRotate" : "TreeRemoveRightRotate";
  RBDictNode* nodes = dict->d_nodes;
  QX_ASSERT_IN(kModule, kFunction, x != 0, "x != 0");
  const Index y = Child<Other(side)>(nodes[x]);
  SetChild<Other(side)>(nodes[x], Child<side>(nodes[y]));
  QX_ASSERT_IN(kModule, kFunction, p != 0, "p != 0");
  tree::ReplaceChild(nodes[p], x, y);
  QX_ASSERT_IN(kModule, kFunction, y != 0, "y != 0");
  SetChild<side>(nodes[y], x);
}

// One step of the repair: the top of the path, on `side` of its parent, is one black node short. Gives whether the step
// was the last, and if so, whether with a final rotation.
enum class Repair { kGoOn, kRecoloured, kRotated };

template <Side side>
Repair RepairStep(RBDict* dict, Path* path) {
  constexpr const char* kFunction = "TreeRemoveCorrect";
  RBDictNode* nodes = dict->d_nodes;
  const Index p = path->Below(1);
  Index w = Child<Other(side)>(nodes[p]);
  if (IsRed(dict, w)) {
    SetBlack(dict, w);
    QX_ASSERT_IN(kModule, kFunction, p != 0, "p != 0");
    SetRed(dict, p);
    TreeRemoveRotate<side>(dict, path->Below(2), p);
    path->InsertBelow(1, w);
    w = Child<Other(side)>(nodes[p]);
  }
  const Index inner = Child<side>(nodes[w]);
  const Index outer = Child<Other(side)>(nodes[w]);
  if (!IsRed(dict, inner) && !IsRed(dict, outer)) {
    if (w != 0) SetRed(dict, w);
    if (!IsRed(dict, p)) return Repair::kGoOn;
    SetBlack(dict, p);
    return Repair::kRecoloured;
  }
  if (!IsRed(dict, outer)) {
    SetBlack(dict, inner);
    QX_ASSERT_IN(kModule, kFunction, w != 0, "w != 0");
    SetRed(dict, w);
    TreeRemoveRotate<Other(side)>(dict, p, w);
    w = Child<Other(side)>(nodes[p]);
  }
  QX_ASSERT_IN(kModule, kFunction, w != 0 || !IsRed(dict, p),
               "(w != 0) || ((dict->d_nodes[p].n_left & (((UInt) 1) << 31)) == 0)");
  IsRed(dict, p) ? SetRed(dict, w) : SetBlack(dict, w);
  SetBlack(dict, p);
  SetBlack(dict, Child<Other(side)>(nodes[w]));
  TreeRemoveRotate<side>(dict, path->Below(2), p);
  return Repair::kRotated;
}

// Repairs the colours: the top of the path, possibly the sentinel, stands where a black node was.
void TreeRemoveCorrect(RBDict* dict, Path* path) {
  while (path->Size() > 1) {
    const Index x = path->Top();
    const Index p = path->Below(1);
    if (IsRed(dict, x)) {
      SetBlack(dict, x);
      return;
    }
    if (Left(dict, p) != 0 || Right(dict, p) != 0) {
      const Repair repair =
          x == Left(dict, p) ? RepairStep<Side::kLeft>(dict, path) : RepairStep<Side::kRight>(dict, path);
      if (repair == Repair::kRecoloured) return;
      if (repair == Repair::kRotated) break;
    }
    path->Pop();
  }
  SetBlack(dict, kHeader);
}

RBDictValue TreeRemove(RBDict* dict, RBDictKey v, RBDictValue n) {
  Path path(dict);
  path.Push(kHeader);
  const Index z = tree::SearchPath<RBTraits>(dict, v, &path);
  if (z == kSentinel) return n;

  RBDictNode* nodes = dict->d_nodes;
  const RBDictValue value = nodes[z].n_value;
  path.Push(z);
  Index gone = z;  // the node that leaves the tree, with one child at most
  if (Left(dict, z) != 0 && Right(dict, z) != 0) {
    // The successor's key moves into z. The AVL dictionaries prefer the predecessor; here we do not.
    for (gone = Right(dict, z); Left(dict, gone) != 0; gone = Left(dict, gone)) path.Push(gone);
    path.Push(gone);
    nodes[z].n_key = nodes[gone].n_key;
    nodes[z].n_value = nodes[gone].n_value;
  }
  const Index child = Left(dict, gone) != 0 ? Left(dict, gone) : Right(dict, gone);
  tree::ReplaceChild(nodes[path.Below(1)], gone, child);
  path.ReplaceTop(child);
  if (!IsRed(dict, gone)) TreeRemoveCorrect(dict, &path);
  tree::NodeDelete<RBTraits>(dict, gone);
  return value;
}

// The black height of the tree under x.
UInt TreeCheckRec(const RBDict* dict, Index x, unsigned depth, tree::CheckLimit* limit) {
  if (x == 0) return 0;
  QX_ASSERT_TEXT(limit->Allows(x, depth), "0");
  const Index left = Left(dict, x);
  const Index right = Right(dict, x);
  if (IsRed(dict, x)) {
    QX_ASSERT_TEXT(
        !limit->Holds(left) || !IsRed(dict, left),
        "(dict->d_nodes[(dict->d_nodes[x].n_left & (~(((UInt) 1) << 31)))].n_left & (((UInt) 1) << 31)) == 0");
    QX_ASSERT_TEXT(!limit->Holds(right) || !IsRed(dict, right),
                   "(dict->d_nodes[dict->d_nodes[x].n_right].n_left & (((UInt) 1) << 31)) == 0");
  }
  const UInt height = TreeCheckRec(dict, left, depth + 1, limit);
  QX_ASSERT_TEXT(height == TreeCheckRec(dict, right, depth + 1, limit), "0");
  return IsRed(dict, x) ? height : height + 1;
}

}  // namespace

RBDict* QXRBDictNew(UInt capacity) { return tree::New<RBTraits>(capacity); }

void QXRBDictDelete(RBDict* dict) {
  QX_ASSERT_TEXT(dict != nullptr, "dict != ((void *)0)");
  tree::Delete<RBTraits>(dict);
}

void QXRBDictClear(RBDict* dict) { tree::Clear<RBTraits>(dict); }

UInt QXRBDictSize(RBDict* dict) { return dict->d_size; }

RBDictValue QXRBDictFind(RBDict* dict, RBDictKey v, RBDictValue n) { return tree::Find<RBTraits>(dict, v, n); }

RBDictValue QXRBDictInsert(RBDict* dict, RBDictKey v, RBDictValue d, RBDictValue n) {
  return TreeInsert(dict, v, d, n);
}

RBDictValue QXRBDictRemove(RBDict* dict, RBDictKey v, RBDictValue n) { return TreeRemove(dict, v, n); }

Boolean QXRBDictEnumerate(RBDict* dict, Boolean reverse, RBDictEnumerateFun fun, void* arg) {
  return tree::Enumerate<RBTraits>(dict, reverse, fun, arg);
}

void TreeCheck(RBDict* dict) {
  tree::CheckLimit limit{.slots = dict->d_capacity};
  TreeCheckRec(dict, tree::Root(dict), 0, &limit);
}

RBDictValue QXRBDictFindShared(const RBDict* dict, RBDictKey v, RBDictValue n) {
  return tree::FindShared<RBTraits>(dict, v, n);
}

void QXRBDictFindMany(const RBDict* dict, const RBDictKey* keys, size_t count, RBDictValue n, RBDictValue* values) {
  tree::FindMany<RBTraits>(dict, keys, count, n, values);
}

Boolean QXRBDictLowerBound(const RBDict* dict, RBDictKey v, RBDictKey* key, RBDictValue* value) {
  return tree::LowerBound<RBTraits>(dict, v, key, value);
}

Boolean QXRBDictEnumerateRange(RBDict* dict, RBDictKey lo, RBDictKey hi, Boolean reverse, RBDictEnumerateFun fun,
                               void* arg) {
  return tree::EnumerateRange<RBTraits>(dict, lo, hi, reverse, fun, arg);
}
