// The node array of the ordered dictionaries, and everything that does not depend on how a tree is kept in balance:
// creation, slots, growth, search.
//
//   d_nodes  [ 0 sentinel | 1 header | 2 ... keys and released slots ... | d_free ... never used ... ]  d_capacity
//   slots
//              links 0      n_right: root    n_right, n_left: children
//              key: last    n_left:  0       n_right of a released slot: the next one, 0 ends the list at d_list
//              searched     key:     0
//
//   n_right, n_left  [ bit 31: flag | bits 30-0: index, 0 is no child ]
//
// The flags belong to the balancing: a tree hides the balance or the colour of a node in them. A write of a link keeps
// them, a read masks them. The sentinel holds the searched key, so a search that falls off the tree stops there and
// needs no test for a missing child. The header is the parent of the root, so a change of root is a change of a link.
//
// A tree is told to these templates by a traits record:
//
//   Dict, Node, Key, Value         the public types
//   kModule                        "dict/avlldict", in messages and assertions
//   kMaxHeight                     the most levels that a tree of 31-bit indices can have
//   ReportMapping, ReportGrowth    functions of a byte size: the messages for memory that cannot be had
//
// Assertions and messages name the dictionary's module, and the line of the template that makes them.

#ifndef DICT_NODE_TREE_H
#define DICT_NODE_TREE_H

#include <algorithm>
#include <bit>
#include <cstddef>

#include "dict/choose.h"
#include "dict/huge_pages.h"
#include "dict/report.h"
#include "qxlib/misc.h"

namespace tree {

using Index = UInt;

constexpr Index kFlag = Index{1} << 31;
constexpr Index kIndexMask = kFlag - 1;

constexpr Index kSentinel = 0;  // as a link: no child
constexpr Index kHeader = 1;
constexpr Index kFirstFree = 2;
constexpr Index kMinCapacity = 1024;
constexpr Index kMaxSlots = kIndexMask + 1;  // indices 0 to 2^31 - 1
constexpr Index kMaxKeys = kMaxSlots - kFirstFree;

enum class Side { kRight, kLeft };

constexpr Side Other(Side side) { return side == Side::kLeft ? Side::kRight : Side::kLeft; }

template <Side side, typename Node>
auto& Word(Node& node) {
  if constexpr (side == Side::kLeft) {
    return node.n_left;
  } else {
    return node.n_right;
  }
}

template <Side side, typename Node>
Index Child(const Node& node) {
  return Word<side>(node) & kIndexMask;
}

template <Side side, typename Node>
void SetChild(Node& node, Index child) {
  Word<side>(node) = (Word<side>(node) & kFlag) | child;
}

// Replaces a child, on whichever side it is.
template <typename Node>
void ReplaceChild(Node& node, Index old, Index child) {
  if (Child<Side::kLeft>(node) == old) {
    SetChild<Side::kLeft>(node, child);
  } else {
    SetChild<Side::kRight>(node, child);
  }
}

// The child on the side where `v` belongs.
template <typename Node, typename Key>
Index Toward(const Node& node, Key v) {
  return qx::IfBelow(v, node.n_key, node.n_left, node.n_right) & kIndexMask;
}

// Where a search for `v` goes from x, whose node this is: to the child on the side where `v` belongs, or nowhere when
// it has arrived. Both choices are written out, as in choose.h.
template <typename Node, typename Key>
Index Step(const Node& node, Key v, Index x) {
#ifdef __x86_64__
  Index next = node.n_right;
  __asm__("cmp %[key], %[v]\n\tcmovb %[left], %[next]\n\tcmove %[x], %[next]"
          : [next] "+&r"(next)
          : [v] "r"(v), [key] "m"(node.n_key), [left] "m"(node.n_left), [x] "r"(x)
          : "cc");
  return next & kIndexMask;
#else
  return node.n_key == v ? x : Toward(node, v);
#endif
}

// Replaces the child on the side where `v` belongs; an equal key belongs to the right.
template <typename Node, typename Key>
void SetToward(Node& node, Key v, Index child) {
  if (v < node.n_key) {
    SetChild<Side::kLeft>(node, child);
  } else {
    SetChild<Side::kRight>(node, child);
  }
}

template <typename Dict>
Index Root(const Dict* dict) {
  return Child<Side::kRight>(dict->d_nodes[kHeader]);
}

// The way from the header down to a node. There is room at hand for every balanced tree: all its levels, the header
// above them, the sentinel or a new node below, and one node more, which the red-black repair slips in. A longer way,
// in nodes that somebody else has linked, moves to a block of its own. One that is longer than the node array runs in a
// circle; there is no going on from there.
template <typename T>
class Path {
 public:
  explicit Path(const typename T::Dict* dict) : dict_(dict) {}
  ~Path() {
    if (nodes_ != at_hand_) UnAllocate_(nodes_, T::kModule, __LINE__);
  }
  Path(const Path&) = delete;
  Path& operator=(const Path&) = delete;

  void Push(Index x) {
    if (size_ == room_) [[unlikely]]
      Grow();
    nodes_[size_++] = x;
  }
  Index Pop() { return nodes_[--size_]; }
  Index Top() const { return nodes_[size_ - 1]; }
  Index Below(size_t depth) const { return depth < size_ ? nodes_[size_ - 1 - depth] : kSentinel; }
  void ReplaceTop(Index x) { nodes_[size_ - 1] = x; }
  void InsertBelow(size_t depth, Index x) {
    Push(kSentinel);
    std::copy_backward(nodes_ + size_ - 2 - depth, nodes_ + size_ - 1, nodes_ + size_);
    nodes_[size_ - 2 - depth] = x;
  }
  size_t Size() const { return size_; }
  bool Empty() const { return size_ == 0; }

 private:
  static constexpr size_t kAtHand = T::kMaxHeight + 3;

  [[gnu::noinline, gnu::cold]] void Grow() {
    if (size_ > dict_->d_capacity) {
      QX_DIE_IN(T::kModule, "Push", "a path in the tree has more than %u nodes: the tree is damaged",
                dict_->d_capacity);
    }
    Index* const block = nodes_ != at_hand_ ? nodes_ : nullptr;
    nodes_ = static_cast<Index*>(Allocate_(2 * room_ * sizeof(Index), block, T::kModule, __LINE__));
    if (block == nullptr) std::copy_n(at_hand_, size_, nodes_);
    room_ *= 2;
  }

  const typename T::Dict* dict_;
  Index at_hand_[kAtHand];
  Index* nodes_ = at_hand_;
  size_t room_ = kAtHand;
  size_t size_ = 0;
};

template <typename T>
size_t ByteSize(Index capacity) {
  return size_t{capacity} * sizeof(typename T::Node);
}

// Empties the tree. Slots other than the sentinel and the header, and these two's values, keep what they hold.
template <typename T>
void Clear(typename T::Dict* dict) {
  dict->d_free = kFirstFree;
  dict->d_size = 0;
  dict->d_list = 0;
  for (const Index x : {kSentinel, kHeader}) {
    dict->d_nodes[x].n_right = 0;
    dict->d_nodes[x].n_left = 0;
  }
  dict->d_nodes[kHeader].n_key = 0;
}

template <typename T>
typename T::Dict* New(UInt capacity) {
  using Node = typename T::Node;
  capacity = std::max(capacity, kMinCapacity);
  void* nodes = capacity <= kMaxSlots ? MemoryMap_(ByteSize<T>(capacity), T::kModule, __LINE__) : nullptr;
  if (nodes == nullptr) {
    T::ReportMapping(ByteSize<T>(capacity));
    return nullptr;
  }
  qx::AdviseHugePages(nodes, ByteSize<T>(capacity));
  auto* dict = static_cast<typename T::Dict*>(Allocate_(sizeof(typename T::Dict), nullptr, T::kModule, __LINE__));
  dict->d_nodes = static_cast<Node*>(nodes);
  dict->d_capacity = capacity;
  Clear<T>(dict);
  return dict;
}

template <typename T>
void Delete(typename T::Dict* dict) {
  if (dict->d_nodes != nullptr) MemoryUnmap_(dict->d_nodes, ByteSize<T>(dict->d_capacity), T::kModule, __LINE__);
  UnAllocate_(dict, T::kModule, __LINE__);
}

// Doubles the array. When memory is gone, or indices would pass 31 bits (the doubled capacity wraps to 0 there), there
// is no place for the key and no result that could say so: the process ends.
template <typename T>
void Grow(typename T::Dict* dict) {
  const Index capacity = 2 * dict->d_capacity;
  void* nodes = nullptr;
  if (dict->d_free < kMaxSlots && capacity > dict->d_capacity) {
    nodes = MemoryRemap_(dict->d_nodes, ByteSize<T>(dict->d_capacity), ByteSize<T>(capacity), T::kModule, __LINE__);
  }
  if (nodes == nullptr) {
    T::ReportGrowth(ByteSize<T>(capacity));
    QX_DIE_IN(T::kModule, "NodeNew", "no room for another key beside %u", dict->d_size);
  }
  qx::AdviseHugePages(nodes, ByteSize<T>(capacity));
  dict->d_nodes = static_cast<typename T::Node*>(nodes);
  dict->d_capacity = capacity;
}

// Takes a slot for a new key: the one released last, else the first that was never used.
template <typename T>
Index NodeNew(typename T::Dict* dict, typename T::Key key, typename T::Value value) {
  Index x = dict->d_list;
  if (x != 0) {
    dict->d_list = Child<Side::kRight>(dict->d_nodes[x]);
  } else {
    if (dict->d_free >= std::min(dict->d_capacity, kMaxSlots)) Grow<T>(dict);
    x = dict->d_free++;
  }
  dict->d_size++;
  dict->d_nodes[x] = {0, 0, key, value};
  return x;
}

// Releases a slot. It keeps its flags, its left link, its key and its value until it is taken again.
template <typename T>
void NodeDelete(typename T::Dict* dict, Index x) {
  dict->d_size--;
  SetChild<Side::kRight>(dict->d_nodes[x], dict->d_list);
  dict->d_list = x;
}

// The levels that a search goes down without asking whether it has arrived: most end there, a level or two before or
// after the last of the balanced tree. To ask at each would be to guess at each, and the one wrong guess, which comes
// to light when the key's node has come from memory, would keep the processor from the next search until then.
template <typename T>
unsigned SureLevels(const typename T::Dict* dict) {
  return static_cast<unsigned>(std::bit_width(dict->d_size + dict->d_size / 2));
}

// Searches for a key and calls `passed` with every node on the way whose key is another, and maybe once more with the
// one where it ends. Gives the key's node, or the sentinel.
template <typename T, typename Passed>
Index Search(typename T::Dict* dict, typename T::Key v, Passed passed) {
  typename T::Node* nodes = dict->d_nodes;
  nodes[kSentinel].n_key = v;
  Index x = Root(dict);
  for (unsigned level = SureLevels<T>(dict); level > 0; level--) {
    passed(nodes[x], x);
    x = Step(nodes[x], v, x);
  }
  while (nodes[x].n_key != v) {
    passed(nodes[x], x);
    x = Toward(nodes[x], v);
  }
  return x;
}

template <typename T>
Index Search(typename T::Dict* dict, typename T::Key v) {
  return Search<T>(dict, v, [](const typename T::Node&, Index) {});
}

// Searches for a key and pushes every node on the way whose key is another, the sentinel excepted. Gives the key's
// node, or the sentinel.
template <typename T>
Index SearchPath(typename T::Dict* dict, typename T::Key v, Path<T>* path) {
  typename T::Node* nodes = dict->d_nodes;
  nodes[kSentinel].n_key = v;
  Index x = Root(dict);
  while (nodes[x].n_key != v) {
    path->Push(x);
    x = Toward(nodes[x], v);
  }
  return x;
}

template <typename T>
typename T::Value Find(typename T::Dict* dict, typename T::Key v, typename T::Value n) {
  const Index x = Search<T>(dict, v);
  return x != kSentinel ? dict->d_nodes[x].n_value : n;
}

// What a checker may spend, so that damaged links can neither hang it nor lead it out of the array: no tree has more
// nodes than slots, and none that is anywhere near balanced has this many levels.
struct CheckLimit {
  static constexpr unsigned kDepth = 256;

  Index slots;
  Index visited = 0;

  bool Holds(Index x) const { return x < slots; }
  bool Allows(Index x, unsigned depth) { return depth < kDepth && Holds(x) && visited++ < slots; }
};

}  // namespace tree

#endif
