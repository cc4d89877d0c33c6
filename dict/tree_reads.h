// Reading an ordered dictionary without writing to it.
//
// The searches of node_tree.h leave the searched key in the sentinel, so no two of them may run at once. These look for
// the end of a descent at the link instead, and share a dictionary with any number of their kind while nobody inserts
// or removes. For the sentinel as a node they rely on its links alone, which are 0.

#ifndef DICT_TREE_READS_H
#define DICT_TREE_READS_H

#include "dict/node_tree.h"

namespace tree {

constexpr size_t kInFlight = 32;  // searches that go down together

template <typename T>
typename T::Value FindShared(const typename T::Dict* dict, typename T::Key v, typename T::Value n) {
  const typename T::Node* nodes = dict->d_nodes;
  Index x = Root(dict);
  for (unsigned level = SureLevels<T>(dict); level > 0; level--) x = Step(nodes[x], v, x);
  while (x != 0 && nodes[x].n_key != v) x = Toward(nodes[x], v);
  return x != 0 ? nodes[x].n_value : n;
}

// Looks up to kInFlight keys up, a level of the tree at a time: what one search has to wait for is on its way while the
// others step. A search that has ended stays where it is, at its key's node or at the sentinel.
template <typename T>
void FindTogether(const typename T::Dict* dict, const typename T::Key* keys, size_t count, typename T::Value n,
                  typename T::Value* values) {
  const typename T::Node* nodes = dict->d_nodes;
  Index at[kInFlight];
  std::fill_n(at, count, Root(dict));
  Index moved;
  do {
    moved = 0;
    for (size_t i = 0; i < count; i++) {
      const typename T::Node& node = nodes[at[i]];
      const Index next = Step(node, keys[i], at[i]);
      __builtin_prefetch(&nodes[next]);
      moved |= next ^ at[i];
      at[i] = next;
    }
  } while (moved != 0);
  for (size_t i = 0; i < count; i++) values[i] = at[i] != 0 ? nodes[at[i]].n_value : n;
}

template <typename T>
void FindMany(const typename T::Dict* dict, const typename T::Key* keys, size_t count, typename T::Value n,
              typename T::Value* values) {
  for (size_t done = 0; done < count; done += kInFlight) {
    FindTogether<T>(dict, keys + done, std::min(count - done, kInFlight), n, values + done);
  }
}

// Finds the least key that is not below v. Gives whether there is one.
template <typename T>
Boolean LowerBound(const typename T::Dict* dict, typename T::Key v, typename T::Key* key, typename T::Value* value) {
  const typename T::Node* nodes = dict->d_nodes;
  Index above = 0;  // the last node on the way whose key is above v
  Index x = Root(dict);
  while (x != 0 && nodes[x].n_key != v) {
    above = qx::IfBelow(v, nodes[x].n_key, x, above);
    x = Toward(nodes[x], v);
  }
  if (x == 0) x = above;
  if (x == 0) return FALSE;
  if (key != nullptr) *key = nodes[x].n_key;
  if (value != nullptr) *value = nodes[x].n_value;
  return TRUE;
}

}  // namespace tree

#endif
