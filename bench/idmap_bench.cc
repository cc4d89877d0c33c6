// The integer maps beside hash maps of the same integer types, over keys in three arrangements.
//
//   sequential  1, 2, 3 ...: what identifiers are; they lie in our slots without a gap
//   random      odd numbers
//   strided     multiples of 64, as addresses are
//
// Keys that are looked up in vain are of the same arrangement, so that none can be told by its last bits: even numbers
// beside odd ones, multiples of 64 plus one, and for sequential keys random ones, which start their probes anywhere in
// the run. Values are the keys and a little more. "hit in bulk" is one call for all keys where there is such a call.

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <chrono>
#include <sparsehash/dense_hash_map>
#include <string>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "dict/idmap.h"
#include "support/duel.h"
#include "tsl/robin_map.h"

namespace {

enum class Order { kSequential, kRandom, kStrided };

constexpr uint32_t kStride = 64;

template <typename Integer>
struct Work {
  std::vector<Integer> keys;    // in the order of insertion
  std::vector<Integer> probes;  // the same, shuffled
  std::vector<Integer> others;  // absent, shuffled
};

template <typename Integer>
Work<Integer> MakeWork(Order order, size_t count) {
  duel::Random random(1);
  Work<Integer> work;
  std::vector<Integer> others;
  for (size_t i = 1; i <= count; i++) {
    const auto n = static_cast<Integer>(i);
    switch (order) {
      case Order::kSequential:
        work.keys.push_back(n);
        others.push_back(static_cast<Integer>(random() % 0x80000000u + 0x40000000u));
        break;
      case Order::kRandom:
        work.keys.push_back(static_cast<Integer>(random()) | 1);
        others.push_back(static_cast<Integer>(random()) & ~Integer{1} & ~(Integer{1} << 20));  // not the marker
        break;
      default:
        work.keys.push_back(n * kStride);
        others.push_back(n * kStride + 1);
    }
  }
  for (const uint32_t i : duel::Shuffled(count, 2)) {
    work.probes.push_back(work.keys[i]);
    work.others.push_back(others[i]);
  }
  return work;
}

// Each contender has Insert, Find and Update (0 when absent), FindMany, Clear and Size.

struct IdContender {
  using Integer = Id;
  IdMap* map = IdMapNew();
  ~IdContender() { IdMapDelete(map); }
  void Insert(Id key, Id value) { IdMapFind(map, key, value, IDMAP_NONE, nullptr); }
  Id Find(Id key) {
    const Id value = IdMapFind(map, key, IDMAP_NONE, IDMAP_NONE, nullptr);
    return value != IDMAP_NONE ? value : 0;
  }
  Id Update(Id key, Id value) { return IdMapFind(map, key, IDMAP_NONE, value, nullptr); }
  uint64_t FindMany(const std::vector<Id>& keys, std::vector<Id>* values) {
    IdMapFindMany(map, keys.data(), keys.size(), values->data());
    uint64_t sum = 0;
    for (const Id value : *values) sum += value;
    return sum;
  }
  void Clear() { IdMapClear(map); }
  size_t Size() { return IdMapSize(map); }
};

struct RefContender {
  using Integer = ULong;
  RefMap* map = RefMapNew();
  ~RefContender() { RefMapDelete(map); }
  void Insert(ULong key, ULong value) { RefMapFind(map, key, value, REFMAP_NONE, nullptr); }
  ULong Find(ULong key) {
    const ULong value = RefMapFind(map, key, REFMAP_NONE, REFMAP_NONE, nullptr);
    return value != REFMAP_NONE ? value : 0;
  }
  ULong Update(ULong key, ULong value) { return RefMapFind(map, key, REFMAP_NONE, value, nullptr); }
  uint64_t FindMany(const std::vector<ULong>& keys, std::vector<ULong>* values) {
    RefMapFindMany(map, keys.data(), keys.size(), values->data());
    uint64_t sum = 0;
    for (const ULong value : *values) sum += value;
    return sum;
  }
  void Clear() { RefMapClear(map); }
  size_t Size() { return RefMapSize(map); }
};

template <typename Map>
struct MapContender {
  using Integer = typename Map::key_type;
  Map map;
  MapContender() {
    if constexpr (requires { map.set_empty_key(Integer{}); }) map.set_empty_key(static_cast<Integer>(-1));
  }
  void Insert(Integer key, Integer value) { map.insert({key, value}); }
  Integer Find(Integer key) {
    const auto at = map.find(key);
    return at == map.end() ? 0 : at->second;
  }
  Integer Update(Integer key, Integer value) {
    const auto at = map.find(key);
    if (at == map.end()) return 0;
    if constexpr (requires { at.value() = value; }) {
      at.value() = value;
    } else {
      at->second = value;
    }
    return value;
  }
  uint64_t FindMany(const std::vector<Integer>& keys, std::vector<Integer>* values) {
    for (size_t i = 0; i < keys.size(); i++) (*values)[i] = Find(keys[i]);
    uint64_t sum = 0;
    for (const Integer value : *values) sum += value;
    return sum;
  }
  void Clear() {
    if constexpr (requires { map.clear_no_resize(); }) {
      map.clear_no_resize();
    } else {
      map.clear();
    }
  }
  size_t Size() { return map.size(); }
};

template <typename Contender>
void Turn(duel::Sheet& sheet, const Work<typename Contender::Integer>& work) {
  using Integer = typename Contender::Integer;
  const size_t count = work.keys.size();
  std::vector<Integer> values(count);
  Contender contender;
  sheet.Time("insert, growing", count, [&] {
    for (const Integer key : work.keys) contender.Insert(key, key + 2);
    return contender.Size();
  });
  sheet.BytesPerKey(count);
  sheet.Time("hit", count, [&] {
    uint64_t sum = 0;
    for (const Integer key : work.probes) sum += contender.Find(key);
    return sum;
  });
  sheet.Time("miss", count, [&] {
    uint64_t sum = 1;
    for (const Integer key : work.others) sum += contender.Find(key);
    return sum;
  });
  sheet.Time("hit in bulk", count, [&] { return contender.FindMany(work.probes, &values); });
  sheet.Time("update", count, [&] {
    uint64_t sum = 0;
    for (const Integer key : work.probes) sum += contender.Update(key, key + 3);
    return sum;
  });
  sheet.Time("clear and refill", count, [&] {
    contender.Clear();
    for (const Integer key : work.keys) contender.Insert(key, key + 2);
    return contender.Size();
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

template <typename Ours>
void Fill(duel::Duel& duel, const char* name, Order order, size_t count) {
  using Integer = typename Ours::Integer;
  const auto work = MakeWork<Integer>(order, count);
  const auto contend = [&duel, &work]<typename Contender>(const char* contender) {
    duel.Contend(contender, [work](duel::Sheet& sheet) { Turn<Contender>(sheet, work); });
  };
  contend.template operator()<Ours>(name);
  contend.template operator()<MapContender<absl::flat_hash_map<Integer, Integer>>>("absl::flat_hash_map");
  contend.template operator()<MapContender<boost::unordered_flat_map<Integer, Integer>>>("boost::flat_map");
  contend.template operator()<MapContender<tsl::robin_map<Integer, Integer>>>("tsl::robin_map");
  contend.template operator()<MapContender<google::dense_hash_map<Integer, Integer>>>("google::dense_hash_map");
}

}  // namespace

int main(int argc, char** argv) {
  int failed = 0;
  for (const auto& [order, name] : {std::pair{Order::kSequential, "sequential"}, std::pair{Order::kRandom, "random"},
                                    std::pair{Order::kStrided, "strided"}}) {
    failed |= duel::Main(argc, argv, ("idmap, " + std::string(name)).c_str(),
                         [&](duel::Duel& duel, size_t count) { Fill<IdContender>(duel, "IdMap", order, count); });
    failed |= duel::Main(argc, argv, ("refmap, " + std::string(name)).c_str(),
                         [&](duel::Duel& duel, size_t count) { Fill<RefContender>(duel, "RefMap", order, count); });
  }
  return failed;
}
