// The three ordered dictionaries under one set of names, and a model of them: every operation is made on the
// dictionary, on its reference implementation and on a std::map, and the three are compared down to the last word of
// the node array.
#ifndef TESTS_SUPPORT_TREES_H
#define TESTS_SUPPORT_TREES_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "dict/avldict.h"
#include "dict/avlldict.h"
#include "dict/rbdict.h"
#include "support/avl_reference.h"
#include "support/rb_reference.h"

namespace support {

// Names the instances of a typed test suite after the dictionaries.
struct TreeNames {
  template <typename Api>
  static std::string GetName(int) {
    return std::string(Api::kModule).substr(5);
  }
};

struct Avll {
  using Dict = AVLLDict;
  using Node = AVLLDictNode;
  using Key = AVLLDictKey;
  using Value = AVLLDictValue;
  using Reference = AvlReference<uint64_t>;

  static constexpr bool kStoresZero = true;
  static constexpr bool kBalancesHeights = true;
  static constexpr const char* kModule = "dict/avlldict";
  static constexpr const char* kNewName = "QXAVLLDictNew";
  static constexpr const char* kDeleteName = "QXAVLLDictDelete";
  static constexpr const char* kCheckName = "AVLLCheckRec";
  static constexpr const char* kMappingText = ":memory reallocation failed: size=";
  static constexpr const char* kGrowthText = ":memory reallocation failed: size=";

  static constexpr auto New = QXAVLLDictNew;
  static constexpr auto Delete = QXAVLLDictDelete;
  static constexpr auto Clear = QXAVLLDictClear;
  static constexpr auto Size = QXAVLLDictSize;
  static constexpr auto Find = QXAVLLDictFind;
  static constexpr auto ValueGet = QXAVLLDictValueGet;
  static constexpr auto Insert = QXAVLLDictInsert;
  static constexpr auto ValueInsert = QXAVLLDictValueInsert;
  static constexpr auto Remove = QXAVLLDictRemove;
  static constexpr auto Enumerate = QXAVLLDictEnumerate;
  static constexpr auto FindShared = QXAVLLDictFindShared;
  static constexpr auto FindMany = QXAVLLDictFindMany;
  static constexpr auto LowerBound = QXAVLLDictLowerBound;
  static constexpr auto EnumerateRange = QXAVLLDictEnumerateRange;
  static constexpr auto Check = AVLLCheck;
};

struct Avl {
  using Dict = AVLDict;
  using Node = AVLDictNode;
  using Key = AVLDictKey;
  using Value = AVLDictValue;
  using Reference = AvlReference<uint32_t>;

  static constexpr bool kStoresZero = true;
  static constexpr bool kBalancesHeights = true;
  static constexpr const char* kModule = "dict/avldict";
  static constexpr const char* kNewName = "QXAVLDictNew";
  static constexpr const char* kDeleteName = "QXAVLDictDelete";
  static constexpr const char* kCheckName = "AVLCheckRec";
  static constexpr const char* kMappingText = ":memory reallocation failed: size=";
  static constexpr const char* kGrowthText = ":memory reallocation failed: size=";

  static constexpr auto New = QXAVLDictNew;
  static constexpr auto Delete = QXAVLDictDelete;
  static constexpr auto Clear = QXAVLDictClear;
  static constexpr auto Size = QXAVLDictSize;
  static constexpr auto Find = QXAVLDictFind;
  static constexpr auto ValueGet = QXAVLDictValueGet;
  static constexpr auto Insert = QXAVLDictInsert;
  static constexpr auto ValueInsert = QXAVLDictValueInsert;
  static constexpr auto Remove = QXAVLDictRemove;
  static constexpr auto Enumerate = QXAVLDictEnumerate;
  static constexpr auto FindShared = QXAVLDictFindShared;
  static constexpr auto FindMany = QXAVLDictFindMany;
  static constexpr auto LowerBound = QXAVLDictLowerBound;
  static constexpr auto EnumerateRange = QXAVLDictEnumerateRange;
  static constexpr auto Check = AVLCheck;
};

struct Rb {
  using Dict = RBDict;
  using Node = RBDictNode;
  using Key = RBDictKey;
  using Value = RBDictValue;
  using Reference = RbReference;

  static constexpr bool kStoresZero = false;
  static constexpr bool kBalancesHeights = false;
  static constexpr const char* kModule = "dict/rbdict";
  static constexpr const char* kNewName = "QXRBDictNew";
  static constexpr const char* kDeleteName = "QXRBDictDelete";
  static constexpr const char* kCheckName = "TreeCheckRec";
  static constexpr const char* kMappingText = "memory allocation failed: size=";
  static constexpr const char* kGrowthText = "memory reallocation failed: size=";

  static constexpr auto New = QXRBDictNew;
  static constexpr auto Delete = QXRBDictDelete;
  static constexpr auto Clear = QXRBDictClear;
  static constexpr auto Size = QXRBDictSize;
  static constexpr auto Find = QXRBDictFind;
  static constexpr auto Insert = QXRBDictInsert;
  static constexpr auto Remove = QXRBDictRemove;
  static constexpr auto Enumerate = QXRBDictEnumerate;
  static constexpr auto FindShared = QXRBDictFindShared;
  static constexpr auto FindMany = QXRBDictFindMany;
  static constexpr auto LowerBound = QXRBDictLowerBound;
  static constexpr auto EnumerateRange = QXRBDictEnumerateRange;
  static constexpr auto Check = TreeCheck;
};

constexpr uint32_t kTopBit = 0x80000000u;

// A dictionary that is deleted with its owner.
template <typename Api>
class Owned {
 public:
  explicit Owned(UInt capacity = 0) : dict_(Api::New(capacity)) {}
  ~Owned() { Api::Delete(dict_); }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;

  typename Api::Dict* get() const { return dict_; }
  typename Api::Node& node(uint32_t x) const { return dict_->d_nodes[x]; }
  uint32_t left(uint32_t x) const { return node(x).n_left & ~kTopBit; }
  uint32_t right(uint32_t x) const { return node(x).n_right & ~kTopBit; }

 private:
  typename Api::Dict* dict_;
};

// All pairs, in the order in which the enumeration gives them.
template <typename Api>
std::vector<std::pair<typename Api::Key, typename Api::Value>> Pairs(typename Api::Dict* dict,
                                                                     Boolean reverse = FALSE) {
  using List = std::vector<std::pair<typename Api::Key, typename Api::Value>>;
  List list;
  Api::Enumerate(
      dict, reverse,
      [](typename Api::Dict*, typename Api::Key key, typename Api::Value value, void* arg) -> Boolean {
        static_cast<List*>(arg)->push_back({key, value});
        return TRUE;
      },
      &list);
  return list;
}

// Each operation gives "" when all agree, else what differs first.
template <typename Api>
class TreeModel {
 public:
  using Key = typename Api::Key;
  using Value = typename Api::Value;

  static constexpr Value kAbsent = static_cast<Value>(0xFEDCBA9876543210u);

  explicit TreeModel(UInt capacity = 0) : dict_(capacity), reference_(capacity) {}

  typename Api::Dict* dict() const { return dict_.get(); }
  const std::map<Key, Value>& map() const { return map_; }

  std::string Insert(Key v, Value d) {
    Value expected = kAbsent;
    if (!Api::kStoresZero && v == 0) {
      expected = std::exchange(header_value_, d);
    } else if (const auto [at, added] = map_.insert({v, d}); !added) {
      expected = std::exchange(at->second, d);
    }
    const Value value = Api::Insert(dict(), v, d, kAbsent);
    if (value != reference_.Insert(v, d, kAbsent)) return "insert: not what the reference gives";
    if (value != expected) return "insert: not what the map gives";
    return Compare();
  }

  // The same, and the value in place; of a dictionary that hands its values out.
  std::string InsertInPlace(Key v, Value d) {
    if constexpr (Api::kStoresZero) {
      const auto [at, added] = map_.insert({v, d});
      const Value expected = added ? kAbsent : std::exchange(at->second, d);
      reference_.Insert(v, d, kAbsent);
      Value* place = nullptr;
      if (Api::ValueInsert(dict(), v, d, kAbsent, &place) != expected) return "insert in place: not what the map gives";
      if (place == nullptr || *place != d) return "insert in place: another place";
      if (Api::ValueGet(dict(), v) != place) return "the place of a value";
      reference_.Find(v, kAbsent);  // which leaves its key in the header
      return Compare();
    } else {
      return Insert(v, d);
    }
  }

  std::string Remove(Key v) {
    Value expected = kAbsent;
    if (const auto at = map_.find(v); at != map_.end()) {
      expected = at->second;
      map_.erase(at);
    }
    const Value value = Api::Remove(dict(), v, kAbsent);
    if (value != reference_.Remove(v, kAbsent)) return "remove: not what the reference gives";
    if (value != expected) return "remove: not what the map gives";
    return Compare();
  }

  std::string Find(Key v) {
    const auto at = map_.find(v);
    const Value value = Api::Find(dict(), v, kAbsent);
    if (value != reference_.Find(v, kAbsent)) return "find: not what the reference gives";
    if (value != (at == map_.end() ? kAbsent : at->second)) return "find: not what the map gives";
    return Compare();
  }

  // What is read without writing, for a key and a range from it on.
  std::string Read(Key lo, Key hi) const {
    const auto at = map_.find(lo);
    const Value expected = at == map_.end() ? kAbsent : at->second;
    if (Api::FindShared(dict(), lo, kAbsent) != expected) return "find shared";
    const Key keys[] = {hi, lo, 0, lo};
    Value values[4];
    Api::FindMany(dict(), keys, 4, kAbsent, values);
    if (values[1] != expected || values[3] != expected) return "find many";
    if (values[0] != Api::FindShared(dict(), hi, kAbsent)) return "find many: not what a single look-up gives";

    const auto bound = map_.lower_bound(lo);
    Key key = 0;
    Value value = 0;
    const Boolean there = Api::LowerBound(dict(), lo, &key, &value);
    if ((there != FALSE) != (bound != map_.end())) return "lower bound: whether there is one";
    if (there && (key != bound->first || value != bound->second)) return "lower bound";

    List expected_range;
    for (auto next = bound; next != map_.end() && next->first <= hi; ++next) expected_range.push_back(*next);
    for (const Boolean reverse : {FALSE, TRUE}) {
      List range;
      Api::EnumerateRange(
          dict(), lo, hi, reverse,
          [](typename Api::Dict*, Key k, Value v, void* arg) -> Boolean {
            static_cast<List*>(arg)->push_back({k, v});
            return TRUE;
          },
          &range);
      if (range != expected_range) return reverse ? "range in decreasing order" : "range in increasing order";
      std::reverse(expected_range.begin(), expected_range.end());
    }
    return "";
  }

  std::string Clear() {
    map_.clear();
    reference_.Clear();
    Api::Clear(dict());
    return Compare();
  }

  // The record and every word of the array against the reference, then the checker. Cheap enough for every step.
  std::string Compare() const {
    const auto* d = dict();
    if (d->d_capacity != reference_.capacity) return "d_capacity";
    if (d->d_size != reference_.size || d->d_size != map_.size() || Api::Size(dict()) != d->d_size) return "d_size";
    if (d->d_free != reference_.free) return "d_free";
    if (d->d_list != reference_.list) return "d_list";
    using ReferenceNode = std::remove_reference_t<decltype(reference_.nodes[0])>;
    static_assert(sizeof(ReferenceNode) == sizeof(typename Api::Node));
    if (std::memcmp(d->d_nodes, reference_.nodes.data(), d->d_capacity * sizeof(typename Api::Node)) != 0) {
      return "nodes";
    }
    Api::Check(dict());
    return "";
  }

  // The pairs in both orders against the map.
  std::string CompareOrder() const {
    List expected(map_.begin(), map_.end());
    if (Pairs<Api>(dict()) != expected) return "increasing order";
    std::reverse(expected.begin(), expected.end());
    if (Pairs<Api>(dict(), TRUE) != expected) return "decreasing order";
    return "";
  }

 private:
  using List = std::vector<std::pair<Key, Value>>;

  Owned<Api> dict_;
  typename Api::Reference reference_;
  std::map<Key, Value> map_;
  Value header_value_ = 0;
};

}  // namespace support

#endif
