// The ordered dictionary over 64-bit keys: avl_tree.h over 24-byte nodes, and its rule for the nearest key.
//
//   node  [ n_right 4 | n_left 4 | n_key 8 | n_value 8 ]

#include "dict/avlldict.h"

#include "dict/avl_tree.h"
#include "dict/tree_reads.h"
#include "dict/tree_walk.h"

namespace {

constexpr const char* kModule = "dict/avlldict";

struct AVLLTraits {
  using Dict = AVLLDict;
  using Node = AVLLDictNode;
  using Key = AVLLDictKey;
  using Value = AVLLDictValue;

  static constexpr const char* kModule = ::kModule;
  static constexpr const char* kCheckRecName = "AVLLCheckRec";
  static constexpr unsigned kMaxHeight = avl::kMaxHeight;

  // A first mapping, too, is called a reallocation: tools that watch for the text know one for both.
  static void ReportMapping(size_t bytes) {
    QX_MESSAGE_IN(kModule, "QXAVLLDictNew", qx::kFailure, FALSE, ":memory reallocation failed: size=%lu", bytes);
  }
  static void ReportGrowth(size_t bytes) {
    QX_MESSAGE_IN(kModule, "NodeNew", qx::kFailure, FALSE, ":memory reallocation failed: size=%lu", bytes);
  }
};

static_assert(sizeof(AVLLDictNode) == 24);
static_assert(offsetof(AVLLDictNode, n_right) == 0 && offsetof(AVLLDictNode, n_left) == 4);
static_assert(offsetof(AVLLDictNode, n_key) == 8 && offsetof(AVLLDictNode, n_value) == 16);
static_assert(sizeof(AVLLDict) == 24);
static_assert(offsetof(AVLLDict, d_nodes) == 0 && offsetof(AVLLDict, d_capacity) == 8);
static_assert(offsetof(AVLLDict, d_size) == 12 && offsetof(AVLLDict, d_free) == 16 && offsetof(AVLLDict, d_list) == 20);

}  // namespace

AVLLDict* QXAVLLDictNew(UInt capacity) { return tree::New<AVLLTraits>(capacity); }

void QXAVLLDictDelete(AVLLDict* dict) {
  QX_ASSERT_TEXT(dict != nullptr, "dict != ((void *)0)");
  tree::Delete<AVLLTraits>(dict);
}

void QXAVLLDictClear(AVLLDict* dict) { tree::Clear<AVLLTraits>(dict); }

UInt QXAVLLDictSize(AVLLDict* dict) { return dict->d_size; }

AVLLDictValue QXAVLLDictFind(AVLLDict* dict, AVLLDictKey v, AVLLDictValue n) {
  return tree::Find<AVLLTraits>(dict, v, n);
}

AVLLDictKey QXAVLLDictFindNearest(AVLLDict* dict, AVLLDictKey v, int roundingMode) {
  const avl::Neighbours near = avl::SearchNeighbours<AVLLTraits>(dict, v);
  if (near.found != tree::kSentinel) return v;
  const AVLLDictKey a = dict->d_nodes[near.lo].n_key;
  const AVLLDictKey b = dict->d_nodes[near.hi].n_key;
  if (roundingMode < 0) return a;
  if (roundingMode > 0) return b;
  // Key 0 is the header's, and so "none": a stored key 0 is never the nearer one.
  if (a == 0) return b;
  return b == 0 || v - a < b - v ? a : b;
}

AVLLDictValue* QXAVLLDictValueGet(AVLLDict* dict, AVLLDictKey v) { return avl::ValueGet<AVLLTraits>(dict, v); }

AVLLDictValue QXAVLLDictInsert(AVLLDict* dict, AVLLDictKey v, AVLLDictValue d, AVLLDictValue n) {
  return avl::ValueInsert<AVLLTraits>(dict, v, d, n, nullptr);
}

AVLLDictValue QXAVLLDictValueInsert(AVLLDict* dict, AVLLDictKey v, AVLLDictValue d, AVLLDictValue n,
                                    AVLLDictValue** vPtr) {
  return avl::ValueInsert<AVLLTraits>(dict, v, d, n, vPtr);
}

AVLLDictValue QXAVLLDictRemove(AVLLDict* dict, AVLLDictKey v, AVLLDictValue n) {
  return avl::Remove<AVLLTraits>(dict, v, n);
}

Boolean QXAVLLDictEnumerate(AVLLDict* dict, Boolean reverse, AVLLDictEnumerateFun fun, void* arg) {
  return tree::Enumerate<AVLLTraits>(dict, reverse, fun, arg);
}

void AVLLCheck(AVLLDict* dict) { avl::Check<AVLLTraits>(dict); }

AVLLDictValue QXAVLLDictFindShared(const AVLLDict* dict, AVLLDictKey v, AVLLDictValue n) {
  return tree::FindShared<AVLLTraits>(dict, v, n);
}

void QXAVLLDictFindMany(const AVLLDict* dict, const AVLLDictKey* keys, size_t count, AVLLDictValue n,
                        AVLLDictValue* values) {
  tree::FindMany<AVLLTraits>(dict, keys, count, n, values);
}

Boolean QXAVLLDictLowerBound(const AVLLDict* dict, AVLLDictKey v, AVLLDictKey* key, AVLLDictValue* value) {
  return tree::LowerBound<AVLLTraits>(dict, v, key, value);
}

Boolean QXAVLLDictEnumerateRange(AVLLDict* dict, AVLLDictKey lo, AVLLDictKey hi, Boolean reverse,
                                 AVLLDictEnumerateFun fun, void* arg) {
  return tree::EnumerateRange<AVLLTraits>(dict, lo, hi, reverse, fun, arg);
}
