// AVL trees in a node array: what the AVL twins share.
//
// The two spare bits of a node's links say which of its sides is the taller by one:
//
//   n_left bit 31  n_right bit 31
//        0              0          NONE
//        1              0          LEFT
//        0              1          RIGHT
//        1              1          never; reading it fails an assertion
//
// Every step of the balancing exists once, for the `side` that it is told, and its mirror image is the other side's.
// Released slots, moved keys and the order of the steps are part of the format: tools compare node arrays word for
// word.
//
// The traits record of a tree is that of node_tree.h, and beside it kCheckRecName, the function that a failed check
// names.
//
// The algorithm is that of G. M. Adelson-Velsky and E. M. Landis, "An algorithm for the organization of information"
// (1962), with the paths kept on a stack.

#ifndef DICT_AVL_TREE_H
#define DICT_AVL_TREE_H

#include "dict/node_tree.h"

namespace avl {

using tree::Child;
using tree::Index;
using tree::kFlag;
using tree::kHeader;
using tree::kSentinel;
using tree::Other;
using tree::Path;
using tree::SetChild;
using tree::Side;

enum SkewType : int { RIGHT = 0, NONE = 1, LEFT = 2 };
enum SkewStatus : int { OK = 0, BALANCE = 1 };  // BALANCE: the height has changed, the parent must be looked at too

// The tallest tree that the slots can hold: the thinnest tree of h levels is a node over the thinnest of h - 1 and of
// h - 2. 44 levels need 1,836,311,902 nodes, 45 would need 2,971,215,072.
constexpr unsigned MaxHeight(unsigned long nodes) {
  unsigned long thinnest = 1;
  unsigned long lower = 0;
  unsigned height = 0;
  while (thinnest <= nodes) {
    const unsigned long next = thinnest + lower + 1;
    lower = thinnest;
    thinnest = next;
    height++;
  }
  return height;
}

constexpr unsigned kMaxHeight = MaxHeight(tree::kMaxKeys);
static_assert(kMaxHeight == 44);

constexpr SkewType Taller(Side side) { return side == Side::kLeft ? LEFT : RIGHT; }

template <typename T>
SkewType GetSkew(const typename T::Dict* dict, Index x) {
  const typename T::Node& node = dict->d_nodes[x];
  if ((node.n_left & kFlag) != 0) {
    QX_ASSERT_IN(T::kModule, "GetSkew", (node.n_right & kFlag) == 0,
                 "!(dict->d_nodes[x].n_right & (((UInt) 1) << 31))");
    return LEFT;
  }
  return (node.n_right & kFlag) != 0 ? RIGHT : NONE;
}

template <typename T>
void SetSkew(typename T::Dict* dict, Index x, SkewType skew) {
  QX_ASSERT_IN(T::kModule, "SetSkew", skew == RIGHT || skew == NONE || skew == LEFT, "0");
  typename T::Node& node = dict->d_nodes[x];
  node.n_right = (node.n_right & ~kFlag) | (skew == RIGHT ? kFlag : 0);
  node.n_left = (node.n_left & ~kFlag) | (skew == LEFT ? kFlag : 0);
}

// Rotates at x, a child of p: x's child on `side` takes its place.
template <typename T, Side side>
void Lift(typename T::Dict* dict, Index p, Index x) {
  typename T::Node* nodes = dict->d_nodes;
  const Index c = Child<side>(nodes[x]);
  SetChild<side>(nodes[x], Child<Other(side)>(nodes[c]));
  SetChild<Other(side)>(nodes[c], x);
  tree::ReplaceChild(nodes[p], x, c);
}

// Sets x right, whose `side` is two levels taller than the other, under its parent p. BALANCE: the whole has become one
// level lower; OK: it is as high as it was, which only a removal can bring about.
template <typename T, Side side>
SkewStatus Rebalance(typename T::Dict* dict, Index p, Index x) {
  constexpr SkewType kInward = Taller(Other(side));
  constexpr SkewType kOutward = Taller(side);
  const Index c = Child<side>(dict->d_nodes[x]);
  switch (GetSkew<T>(dict, c)) {
    case kOutward:
      SetSkew<T>(dict, x, NONE);
      SetSkew<T>(dict, c, NONE);
      Lift<T, side>(dict, p, x);
      return BALANCE;
    case NONE:
      SetSkew<T>(dict, x, kOutward);
      SetSkew<T>(dict, c, kInward);
      Lift<T, side>(dict, p, x);
      return OK;
    default:
      break;
  }
  const Index g = Child<Other(side)>(dict->d_nodes[c]);
  const SkewType skew = GetSkew<T>(dict, g);
  SetSkew<T>(dict, x, skew == kOutward ? kInward : NONE);
  SetSkew<T>(dict, c, skew == kInward ? kOutward : NONE);
  SetSkew<T>(dict, g, NONE);
  Lift<T, Other(side)>(dict, x, c);
  Lift<T, side>(dict, p, x);
  return BALANCE;
}

// The `side` of x, a child of p, has become one level higher.
template <typename T, Side side>
SkewStatus Grown(typename T::Dict* dict, Index p, Index x) {
  switch (GetSkew<T>(dict, x)) {
    case Taller(Other(side)):
      SetSkew<T>(dict, x, NONE);
      return OK;
    case NONE:
      SetSkew<T>(dict, x, Taller(side));
      return BALANCE;
    default:
      Rebalance<T, side>(dict, p, x);
      return OK;
  }
}

// The `side` of x, a child of p, has become one level lower.
template <typename T, Side side>
SkewStatus Shrunk(typename T::Dict* dict, Index p, Index x) {
  switch (GetSkew<T>(dict, x)) {
    case Taller(side):
      SetSkew<T>(dict, x, NONE);
      return BALANCE;
    case NONE:
      SetSkew<T>(dict, x, Taller(Other(side)));
      return OK;
    default:
      return Rebalance<T, Other(side)>(dict, p, x);
  }
}

// Stores d under v and gives its node. A value that was there before goes to *n.
template <typename T>
Index Insert(typename T::Dict* dict, typename T::Key v, typename T::Value d, typename T::Value* n) {
  Path<T> path(dict);
  path.Push(kHeader);
  for (Index x = tree::Root(dict); x != 0;) {
    typename T::Node& node = dict->d_nodes[x];
    if (node.n_key == v) {
      *n = node.n_value;
      node.n_value = d;
      return x;
    }
    path.Push(x);
    x = tree::Toward(node, v);
  }

  const Index added = tree::NodeNew<T>(dict, v, d);
  typename T::Node* nodes = dict->d_nodes;
  // The header's key is 0 and so below every key, or equal: the first node becomes its right child, the root.
  tree::SetToward(nodes[path.Top()], v, added);
  for (SkewStatus status = BALANCE; status == BALANCE && path.Size() > 1;) {
    const Index x = path.Pop();
    status =
        v >= nodes[x].n_key ? Grown<T, Side::kRight>(dict, path.Top(), x) : Grown<T, Side::kLeft>(dict, path.Top(), x);
  }
  return added;
}

// Removes the key of x, a child of p with a child on `side`: the nearest key on that side moves into x, and its own
// node, which has at most one child, is unlinked and released.
template <typename T, Side side>
SkewStatus ReplaceByNearest(typename T::Dict* dict, Index p, Index x) {
  typename T::Node* nodes = dict->d_nodes;
  Path<T> path(dict);  // from x's child to the parent of the node that goes
  Index h = Child<side>(nodes[x]);
  for (Index next; (next = Child<Other(side)>(nodes[h])) != 0; h = next) path.Push(h);
  nodes[x].n_key = nodes[h].n_key;
  nodes[x].n_value = nodes[h].n_value;
  if (path.Empty()) {
    SetChild<side>(nodes[x], Child<side>(nodes[h]));
  } else {
    SetChild<Other(side)>(nodes[path.Top()], Child<side>(nodes[h]));
  }
  tree::NodeDelete<T>(dict, h);

  SkewStatus status = BALANCE;
  while (status == BALANCE && !path.Empty()) {
    const Index y = path.Pop();
    status = Shrunk<T, Other(side)>(dict, path.Empty() ? x : path.Top(), y);
  }
  return status == BALANCE ? Shrunk<T, side>(dict, p, x) : OK;
}

template <typename T>
typename T::Value Remove(typename T::Dict* dict, typename T::Key v, typename T::Value n) {
  Path<T> path(dict);
  path.Push(kHeader);
  const Index x = tree::SearchPath<T>(dict, v, &path);
  if (x == kSentinel) return n;

  typename T::Node* nodes = dict->d_nodes;
  const typename T::Value value = nodes[x].n_value;
  SkewStatus status = BALANCE;
  bool leaf = false;
  if (Child<Side::kLeft>(nodes[x]) != 0) {  // the predecessor first, however x leans
    status = ReplaceByNearest<T, Side::kLeft>(dict, path.Top(), x);
  } else if (Child<Side::kRight>(nodes[x]) != 0) {
    status = ReplaceByNearest<T, Side::kRight>(dict, path.Top(), x);
  } else {
    tree::SetToward(nodes[path.Top()], v, 0);
    leaf = true;
  }
  // The removed key tells on which side of each node the path went: a link does not, a rotation below may have put
  // another child there.
  while (status == BALANCE && path.Size() > 1) {
    const Index y = path.Pop();
    status =
        v < nodes[y].n_key ? Shrunk<T, Side::kLeft>(dict, path.Top(), y) : Shrunk<T, Side::kRight>(dict, path.Top(), y);
  }
  if (leaf) tree::NodeDelete<T>(dict, x);
  return value;
}

template <typename T>
typename T::Value* ValueGet(typename T::Dict* dict, typename T::Key v) {
  const Index x = tree::Search<T>(dict, v);
  return x != kSentinel ? &dict->d_nodes[x].n_value : nullptr;
}

template <typename T>
typename T::Value ValueInsert(typename T::Dict* dict, typename T::Key v, typename T::Value d, typename T::Value n,
                              typename T::Value** vPtr) {
  const Index x = Insert<T>(dict, v, d, &n);
  if (vPtr != nullptr) *vPtr = &dict->d_nodes[x].n_value;
  return n;
}

// Where a search for a key went: to the key's node, or between two neighbours. A neighbour that is missing is the
// header.
struct Neighbours {
  Index found;  // the sentinel when the key is absent
  Index lo;     // the last node that is below the key
  Index hi;     // the last node that is above
};

template <typename T>
Neighbours SearchNeighbours(typename T::Dict* dict, typename T::Key v) {
  Neighbours near{kSentinel, kHeader, kHeader};
  near.found = tree::Search<T>(dict, v, [&near, v](const typename T::Node& node, Index x) {
    near.hi = qx::IfBelow(v, node.n_key, x, near.hi);
    near.lo = qx::IfBelow(node.n_key, v, x, near.lo);
  });
  return near;
}

// The height of the tree under x.
template <typename T>
unsigned CheckRec(const typename T::Dict* dict, Index x, unsigned depth, tree::CheckLimit* limit) {
  if (x == 0) return 0;
  QX_ASSERT_IN(T::kModule, T::kCheckRecName, limit->Allows(x, depth), "0");
  const unsigned left = CheckRec<T>(dict, Child<Side::kLeft>(dict->d_nodes[x]), depth + 1, limit);
  const unsigned right = CheckRec<T>(dict, Child<Side::kRight>(dict->d_nodes[x]), depth + 1, limit);
  QX_ASSERT_IN(T::kModule, T::kCheckRecName, left <= right + 1 && right <= left + 1, "0");
  if (left > right) {
    QX_ASSERT_IN(T::kModule, T::kCheckRecName, GetSkew<T>(dict, x) == LEFT, "(GetSkew(dict, x)) == LEFT");
  } else if (left < right) {
    QX_ASSERT_IN(T::kModule, T::kCheckRecName, GetSkew<T>(dict, x) == RIGHT, "(GetSkew(dict, x)) == RIGHT");
  } else {
    QX_ASSERT_IN(T::kModule, T::kCheckRecName, GetSkew<T>(dict, x) == NONE, "(GetSkew(dict, x)) == NONE");
  }
  return 1 + std::max(left, right);
}

template <typename T>
void Check(const typename T::Dict* dict) {
  tree::CheckLimit limit{.slots = dict->d_capacity};
  CheckRec<T>(dict, tree::Root(dict), 0, &limit);
}

}  // namespace avl

#endif
