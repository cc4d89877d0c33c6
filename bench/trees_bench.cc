// The ordered dictionaries beside std::map and absl::btree_map, over the same integer types.
//
// All keys are odd, so that a key that is absent is an even one, next to a key that is there. std::map is the peer of
// the same kind, a binary tree with a node an entry; absl::btree_map keeps many entries a node and moves them about, so
// it has no stable places for values. Judy's arrays, for words alone, are tries whose nodes take the form that fits.

#include <Judy.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <numeric>
#include <type_traits>
#include <vector>

#include "absl/container/btree_map.h"
#include "dict/avldict.h"
#include "dict/avlldict.h"
#include "dict/rbdict.h"
#include "support/duel.h"

namespace {

template <typename Integer>
struct Work {
  std::vector<Integer> keys;    // in the order of insertion, at random
  std::vector<Integer> probes;  // the same, shuffled
};

template <typename Integer>
Work<Integer> MakeWork(size_t count) {
  duel::Random random(1);
  Work<Integer> work;
  for (size_t i = 0; i < count; i++) work.keys.push_back(static_cast<Integer>(random()) | 1);
  for (const uint32_t i : duel::Shuffled(count, 2)) work.probes.push_back(work.keys[i]);
  return work;
}

// Each contender has Insert, Find (0 when absent), FindMany (one call for all keys where there is such a call),
// Nearest, Sum (over all keys and values in order) and Remove.

struct AvllContender {
  using Integer = ULong;
  AVLLDict* dict = QXAVLLDictNew(0);
  ~AvllContender() { QXAVLLDictDelete(dict); }
  void Insert(ULong key, ULong value) { QXAVLLDictInsert(dict, key, value, 0); }
  ULong Find(ULong key) { return QXAVLLDictFind(dict, key, 0); }
  ULong Nearest(ULong key) { return QXAVLLDictFindNearest(dict, key, 1); }
  ULong Remove(ULong key) { return QXAVLLDictRemove(dict, key, 0); }
  void FindMany(const std::vector<ULong>& keys, std::vector<ULong>* values) {
    QXAVLLDictFindMany(dict, keys.data(), keys.size(), 0, values->data());
  }
  uint64_t Sum() {
    uint64_t sum = 0;
    QXAVLLDictEnumerate(
        dict, FALSE,
        [](AVLLDict*, ULong key, ULong value, void* arg) -> Boolean {
          auto* s = static_cast<uint64_t*>(arg);
          *s = *s * 3 + (key ^ value);
          return TRUE;
        },
        &sum);
    return sum;
  }
};

struct AvlContender {
  using Integer = UInt;
  AVLDict* dict = QXAVLDictNew(0);
  ~AvlContender() { QXAVLDictDelete(dict); }
  void Insert(UInt key, UInt value) { QXAVLDictInsert(dict, key, value, 0); }
  UInt Find(UInt key) { return QXAVLDictFind(dict, key, 0); }
  UInt Nearest(UInt key) { return QXAVLDictFindNearest(dict, key, 1, nullptr); }
  UInt Remove(UInt key) { return QXAVLDictRemove(dict, key, 0); }
  void FindMany(const std::vector<UInt>& keys, std::vector<UInt>* values) {
    QXAVLDictFindMany(dict, keys.data(), keys.size(), 0, values->data());
  }
  uint64_t Sum() {
    uint64_t sum = 0;
    QXAVLDictEnumerate(
        dict, FALSE,
        [](AVLDict*, UInt key, UInt value, void* arg) -> Boolean {
          auto* s = static_cast<uint64_t*>(arg);
          *s = *s * 3 + (key ^ value);
          return TRUE;
        },
        &sum);
    return sum;
  }
};

// Has no search for the nearest key.
struct RbContender {
  using Integer = UInt;
  RBDict* dict = QXRBDictNew(0);
  ~RbContender() { QXRBDictDelete(dict); }
  void Insert(UInt key, UInt value) { QXRBDictInsert(dict, key, value, 0); }
  UInt Find(UInt key) { return QXRBDictFind(dict, key, 0); }
  UInt Remove(UInt key) { return QXRBDictRemove(dict, key, 0); }
  void FindMany(const std::vector<UInt>& keys, std::vector<UInt>* values) {
    QXRBDictFindMany(dict, keys.data(), keys.size(), 0, values->data());
  }
  uint64_t Sum() {
    uint64_t sum = 0;
    QXRBDictEnumerate(
        dict, FALSE,
        [](RBDict*, UInt key, UInt value, void* arg) -> Boolean {
          auto* s = static_cast<uint64_t*>(arg);
          *s = *s * 3 + (key ^ value);
          return TRUE;
        },
        &sum);
    return sum;
  }
};

template <typename Map>
struct MapContender {
  using Integer = typename Map::key_type;
  Map map;
  void Insert(Integer key, Integer value) { map.insert_or_assign(key, value); }
  Integer Find(Integer key) {
    const auto at = map.find(key);
    return at == map.end() ? 0 : at->second;
  }
  void FindMany(const std::vector<Integer>& keys, std::vector<Integer>* values) {
    for (size_t i = 0; i < keys.size(); i++) (*values)[i] = Find(keys[i]);
  }
  Integer Nearest(Integer key) {
    const auto at = map.lower_bound(key);
    return at == map.end() ? 0 : at->first;
  }
  Integer Remove(Integer key) {
    const auto at = map.find(key);
    if (at == map.end()) return 0;
    const Integer value = at->second;
    map.erase(at);
    return value;
  }
  uint64_t Sum() {
    uint64_t sum = 0;
    for (const auto& [key, value] : map) sum = sum * 3 + (key ^ value);
    return sum;
  }
};

struct JudyContender {
  using Integer = ULong;
  Pvoid_t array = nullptr;
  ~JudyContender() { JudyLFreeArray(&array, nullptr); }
  static ULong Value(PPvoid_t place) { return place != nullptr ? *reinterpret_cast<ULong*>(place) : 0; }
  void Insert(ULong key, ULong value) { *reinterpret_cast<ULong*>(JudyLIns(&array, key, nullptr)) = value; }
  ULong Find(ULong key) { return Value(JudyLGet(array, key, nullptr)); }
  void FindMany(const std::vector<ULong>& keys, std::vector<ULong>* values) {
    for (size_t i = 0; i < keys.size(); i++) (*values)[i] = Find(keys[i]);
  }
  ULong Nearest(ULong key) { return JudyLFirst(array, &key, nullptr) != nullptr ? key : 0; }
  ULong Remove(ULong key) {
    const ULong value = Find(key);
    JudyLDel(&array, key, nullptr);
    return value;
  }
  uint64_t Sum() {
    uint64_t sum = 0;
    ULong key = 0;
    for (PPvoid_t at = JudyLFirst(array, &key, nullptr); at != nullptr; at = JudyLNext(array, &key, nullptr)) {
      sum = sum * 3 + (key ^ Value(at));
    }
    return sum;
  }
};

template <typename Contender>
void Turn(duel::Sheet& sheet, const Work<typename Contender::Integer>& work) {
  using Integer = typename Contender::Integer;
  const size_t count = work.keys.size();
  {
    Contender contender;
    sheet.Time("insert random", count, [&] {
      for (const Integer key : work.keys) contender.Insert(key, key + 2);
      return count;
    });
    sheet.BytesPerKey(count);
    sheet.Time("find hit", count, [&] {
      uint64_t sum = 0;
      for (const Integer key : work.probes) sum += contender.Find(key);
      return sum;
    });
    sheet.Time("find miss", count, [&] {
      uint64_t sum = count;
      for (const Integer key : work.probes) sum += contender.Find(key - 1);
      return sum;
    });
    std::vector<Integer> values(count);
    sheet.Time("find hit in bulk", count, [&] {
      contender.FindMany(work.probes, &values);
      return std::accumulate(values.begin(), values.end(), uint64_t{0});
    });
    if constexpr (requires { contender.Nearest(Integer{}); }) {
      sheet.Time("nearest above", count, [&] {
        uint64_t sum = 0;
        for (const Integer key : work.probes) sum += contender.Nearest(key - 1);
        return sum;
      });
    }
    sheet.Time("enumerate", count, [&] { return contender.Sum(); });
    sheet.Time("remove", count, [&] {
      uint64_t sum = 0;
      for (const Integer key : work.probes) sum += contender.Remove(key);
      return sum;
    });
  }
  Contender contender;
  sheet.Time("insert ascending", count, [&] {
    for (size_t i = 1; i <= count; i++) contender.Insert(static_cast<Integer>(i), static_cast<Integer>(i));
    return count;
  });

  Contender again;
  std::chrono::nanoseconds slowest{0};
  for (const Integer key : work.keys) {
    const auto start = std::chrono::steady_clock::now();
    again.Insert(key, key);
    slowest = std::max<std::chrono::nanoseconds>(slowest, std::chrono::steady_clock::now() - start);
  }
  sheet.Tell("slowest insert, us", static_cast<double>(slowest.count()) / 1000);
}

template <typename Integer, typename Ours>
void Fill(duel::Duel& duel, const char* name, size_t count) {
  const auto work = MakeWork<Integer>(count);
  duel.Contend(name, [work](duel::Sheet& sheet) { Turn<Ours>(sheet, work); });
  duel.Contend("std::map", [work](duel::Sheet& sheet) { Turn<MapContender<std::map<Integer, Integer>>>(sheet, work); });
  duel.Contend("absl::btree_map",
               [work](duel::Sheet& sheet) { Turn<MapContender<absl::btree_map<Integer, Integer>>>(sheet, work); });
  if constexpr (std::is_same_v<Integer, ULong>) {
    duel.Contend("JudyL", [work](duel::Sheet& sheet) { Turn<JudyContender>(sheet, work); });
  }
}

}  // namespace

int main(int argc, char** argv) {
  int failed = duel::Main(argc, argv, "avlldict",
                          [](duel::Duel& duel, size_t count) { Fill<ULong, AvllContender>(duel, "AVLLDict", count); });
  failed |= duel::Main(argc, argv, "avldict",
                       [](duel::Duel& duel, size_t count) { Fill<UInt, AvlContender>(duel, "AVLDict", count); });
  failed |= duel::Main(argc, argv, "rbdict",
                       [](duel::Duel& duel, size_t count) { Fill<UInt, RbContender>(duel, "RBDict", count); });
  return failed;
}
