// The ordered dictionary over 32-bit keys: avl_tree.h over 16-byte nodes, and its rule for the nearest key.
//
//   node  [ n_right 4 | n_left 4 | n_key 4 | n_value 4 ]

#include "dict/avldict.h"

#include "dict/avl_tree.h"
#include "dict/tree_reads.h"
#include "dict/tree_walk.h"

namespace {

constexpr const char* kModule = "dict/avldict";

struct AVLTraits {
  using Dict = AVLDict;
  using Node = AVLDictNode;
  using Key = AVLDictKey;
  using Value = AVLDictValue;

  static constexpr const char* kModule = ::kModule;
  static constexpr const char* kCheckRecName = "AVLCheckRec";
  static constexpr unsigned kMaxHeight = avl::kMaxHeight;

  // A first mapping, too, is called a reallocation: tools that watch for the text know one for both.
  static void ReportMapping(size_t bytes) {
    QX_MESSAGE_IN(kModule, "QXAVLDictNew", qx::kFailure, FALSE, ":memory reallocation failed: size=%lu", bytes);
  }
  static void ReportGrowth(size_t bytes) {
    QX_MESSAGE_IN(kModule, "NodeNew", qx::kFailure, FALSE, ":memory reallocation failed: size=%lu", bytes);
  }
};

static_assert(sizeof(AVLDictNode) == 16);
static_assert(offsetof(AVLDictNode, n_right) == 0 && offsetof(AVLDictNode, n_left) == 4);
static_assert(offsetof(AVLDictNode, n_key) == 8 && offsetof(AVLDictNode, n_value) == 12);
static_assert(sizeof(AVLDict) == 24);
static_assert(offsetof(AVLDict, d_nodes) == 0 && offsetof(AVLDict, d_capacity) == 8);
static_assert(offsetof(AVLDict, d_size) == 12 && offsetof(AVLDict, d_free) == 16 && offsetof(AVLDict, d_list) == 20);

}  // namespace

AVLDict* QXAVLDictNew(UInt capacity) { return tree::New<AVLTraits>(capacity); }

void QXAVLDictDelete(AVLDict* dict) {
  QX_ASSERT_TEXT(dict != nullptr, "dict != ((void *)0)");
  tree::Delete<AVLTraits>(dict);
}

void QXAVLDictClear(AVLDict* dict) { tree::Clear<AVLTraits>(dict); }

UInt QXAVLDictSize(AVLDict* dict) { return dict->d_size; }

AVLDictValue QXAVLDictFind(AVLDict* dict, AVLDictKey v, AVLDictValue n) { return tree::Find<AVLTraits>(dict, v, n); }

AVLDictKey QXAVLDictFindNearest(AVLDict* dict, AVLDictKey v, int roundingMode, AVLDictValue** valPtr) {
  const avl::Neighbours near = avl::SearchNeighbours<AVLTraits>(dict, v);
  const AVLDictNode* nodes = dict->d_nodes;
  tree::Index x = near.found;
  if (x == tree::kSentinel) {
    // The header stands in for a missing neighbour, with key 0: below, it lies at 0, and above, the difference wraps
    // and puts it at 2^32.
    const bool up = roundingMode == 0 ? v - nodes[near.lo].n_key >= nodes[near.hi].n_key - v : roundingMode > 0;
    x = up ? near.hi : near.lo;
  }
  if (valPtr != nullptr) *valPtr = &dict->d_nodes[x].n_value;
  return nodes[x].n_key;
}

AVLDictValue* QXAVLDictValueGet(AVLDict* dict, AVLDictKey v) { return avl::ValueGet<AVLTraits>(dict, v); }

AVLDictValue QXAVLDictInsert(AVLDict* dict, AVLDictKey v, AVLDictValue d, AVLDictValue n) {
  return avl::ValueInsert<AVLTraits>(dict, v, d, n, nullptr);
}

AVLDictValue QXAVLDictValueInsert(AVLDict* dict, AVLDictKey v, AVLDictValue d, AVLDictValue n, AVLDictValue** vPtr) {
  return avl::ValueInsert<AVLTraits>(dict, v, d, n, vPtr);
}

AVLDictValue QXAVLDictRemove(AVLDict* dict, AVLDictKey v, AVLDictValue n) { return avl::Remove<AVLTraits>(dict, v, n); }

Boolean QXAVLDictEnumerate(AVLDict* dict, Boolean reverse, AVLDictEnumerateFun fun, void* arg) {
  return tree::Enumerate<AVLTraits>(dict, reverse, fun, arg);
}

void AVLCheck(AVLDict* dict) { avl::Check<AVLTraits>(dict); }

AVLDictValue QXAVLDictFindShared(const AVLDict* dict, AVLDictKey v, AVLDictValue n) {
  return tree::FindShared<AVLTraits>(dict, v, n);
}

void QXAVLDictFindMany(const AVLDict* dict, const AVLDictKey* keys, size_t count, AVLDictValue n,
                       AVLDictValue* values) {
  tree::FindMany<AVLTraits>(dict, keys, count, n, values);
}

Boolean QXAVLDictLowerBound(const AVLDict* dict, AVLDictKey v, AVLDictKey* key, AVLDictValue* value) {
  return tree::LowerBound<AVLTraits>(dict, v, key, value);
}

Boolean QXAVLDictEnumerateRange(AVLDict* dict, AVLDictKey lo, AVLDictKey hi, Boolean reverse, AVLDictEnumerateFun fun,
                                void* arg) {
  return tree::EnumerateRange<AVLTraits>(dict, lo, hi, reverse, fun, arg);
}
