// Walking an ordered dictionary in the order of its keys, or against it.
//
// Near the root a walk goes node by node, over a path of what is still to be visited. Near the leaves that would be to
// wait: for each node to come from memory, and at each for a guess at its children to be put right. There a whole low
// subtree is laid out first, and then visited:
//
//   places    of a tree of kLevels levels, numbered as in a heap: the children of place i are 2i and 2i + 1
//             [ - | root | . . | . . . . | ... ]      0, the sentinel, where there is no node
//   sequence  the nodes among them, in order
//
// Laying out reads every place without asking what is there: the sentinel has no children, like any missing node.

#ifndef DICT_TREE_WALK_H
#define DICT_TREE_WALK_H

#include <array>
#include <bit>

#include "dict/node_tree.h"

namespace tree {

// A low subtree, its nodes in the order of a walk that visits the `first` side of each before it.
template <typename Node, Side first>
class LowTree {
 public:
  static constexpr unsigned kLevels = 8;

  // Lays out the subtree of `root`. False when it is higher than kLevels.
  bool LayOut(const Node* nodes, Index root) {
    Index places[kPlaces];
    places[1] = root;
    for (size_t i = 1; i < kPlaces / 2; i++) {
      const Node& node = nodes[places[i]];
      const Index before = Child<first>(node);
      const Index after = Child<Other(first)>(node);
      __builtin_prefetch(&nodes[before]);
      __builtin_prefetch(&nodes[after]);
      places[2 * i] = before;
      places[2 * i + 1] = after;
    }
    Index below = 0;
    for (size_t i = kPlaces / 2; i < kPlaces; i++) {
      below |= Child<Side::kLeft>(nodes[places[i]]) | Child<Side::kRight>(nodes[places[i]]);
    }
    if (below != 0) return false;

    unsigned size = 0;
    for (const UByte place : kInOrder) {
      sequence_[size] = places[place];
      size += places[place] != 0 ? 1 : 0;
    }
    size_ = size;
    return true;
  }

  const Index* begin() const { return sequence_; }
  const Index* end() const { return sequence_ + size_; }

 private:
  static constexpr unsigned kPlaces = 1u << kLevels;

  // The places in the order of a walk: those of the last level come at its odd steps, those of the level above at the
  // odd multiples of 2, and so on.
  static constexpr auto kInOrder = [] {
    std::array<UByte, kPlaces - 1> order{};
    for (unsigned step = 1; step < kPlaces; step++) {
      order[step - 1] = static_cast<UByte>((kPlaces + step) >> (std::countr_zero(step) + 1));
    }
    return order;
  }();

  Index sequence_[kPlaces];
  unsigned size_ = 0;
};

// The nodes that a walk comes back to, each with its level below the root.
template <typename T>
class Way {
 public:
  explicit Way(const typename T::Dict* dict) : nodes_(dict), levels_(dict) {}
  void Push(Index x, Index level) {
    nodes_.Push(x);
    levels_.Push(level);
  }
  Index Pop(Index* level) {
    *level = levels_.Pop();
    return nodes_.Pop();
  }
  bool Empty() const { return nodes_.Empty(); }

 private:
  Path<T> nodes_;
  Path<T> levels_;
};

// Goes on with a walk in order, the nodes on the `first` side of each before it, from the top of the way to where
// `past` says that a key is past the end. The array is read anew after every call.
template <typename T, Side first, typename Past, typename Fun>
Boolean WalkOn(typename T::Dict* dict, Way<T>* way, Past past, Fun fun, void* arg) {
  using Low = LowTree<typename T::Node, first>;
  // A walk that ends after a few nodes would not be worth laying a tree out, nor would a small tree.
  constexpr Index kFew = 64;
  constexpr Index kMany = 512;
  // The level whose subtrees are mostly as high as can be laid out, or lower by one.
  constexpr Index kNever = ~Index{0};
  const Index low_level =
      dict->d_size < kMany ? kNever : static_cast<Index>(std::bit_width(dict->d_size)) - (Low::kLevels - 1);
  Low low;
  Index visited = 0;
  bool stopped = false;
  const auto goes_on = [&](Index x) {
    if (visited == dict->d_capacity) {
      QX_DIE_IN(T::kModule, "Enumerate", "a walk meets more than %u nodes: the tree is damaged", visited);
    }
    visited++;
    const typename T::Node& node = dict->d_nodes[x];
    if (past(node.n_key)) return false;
    stopped = !fun(dict, node.n_key, node.n_value, arg);
    return !stopped;
  };
  while (!way->Empty()) {
    Index level;
    Index x = way->Pop(&level);
    if (!goes_on(x)) return stopped ? FALSE : TRUE;
    for (x = Child<Other(first)>(dict->d_nodes[x]); x != 0; x = Child<first>(dict->d_nodes[x])) {
      level++;
      if (level >= low_level && visited >= kFew && low.LayOut(dict->d_nodes, x)) {
        for (const Index y : low) {
          if (!goes_on(y)) return stopped ? FALSE : TRUE;
        }
        break;
      }
      __builtin_prefetch(&dict->d_nodes[Child<Other(first)>(dict->d_nodes[x])]);
      way->Push(x, level);
    }
  }
  return TRUE;
}

template <typename T, Side first, typename Fun>
Boolean Walk(typename T::Dict* dict, Fun fun, void* arg) {
  Way<T> way(dict);
  Index level = 0;
  for (Index x = Root(dict); x != 0; x = Child<first>(dict->d_nodes[x])) way.Push(x, level++);
  return WalkOn<T, first>(
      dict, &way, [](typename T::Key) { return false; }, fun, arg);
}

template <typename T, typename Fun>
Boolean Enumerate(typename T::Dict* dict, Boolean reverse, Fun fun, void* arg) {
  return reverse ? Walk<T, Side::kRight>(dict, fun, arg) : Walk<T, Side::kLeft>(dict, fun, arg);
}

// Whether a walk that visits the `first` side of a node before it comes to key a before it comes to b.
template <Side first, typename Key>
bool Precedes(Key a, Key b) {
  return first == Side::kLeft ? a < b : b < a;
}

// Walks from one key to another, both included. They need not be there.
template <typename T, Side first, typename Fun>
Boolean WalkRange(typename T::Dict* dict, typename T::Key from, typename T::Key to, Fun fun, void* arg) {
  Way<T> way(dict);
  Index x = Root(dict);
  for (Index level = 0; x != 0; level++) {
    const typename T::Node& node = dict->d_nodes[x];
    if (Precedes<first>(node.n_key, from)) {
      x = Child<Other(first)>(node);
    } else {
      way.Push(x, level);
      x = Child<first>(node);
    }
  }
  return WalkOn<T, first>(
      dict, &way, [to](typename T::Key key) { return Precedes<first>(to, key); }, fun, arg);
}

template <typename T, typename Fun>
Boolean EnumerateRange(typename T::Dict* dict, typename T::Key lo, typename T::Key hi, Boolean reverse, Fun fun,
                       void* arg) {
  return reverse ? WalkRange<T, Side::kRight>(dict, hi, lo, fun, arg)
                 : WalkRange<T, Side::kLeft>(dict, lo, hi, fun, arg);
}

}  // namespace tree

#endif
