// HashDelTable beside hash maps from strings to 64-bit numbers.
//
// Keys of 8 to 64 bytes. "mix" is the steady state of a table that forgets: each operation removes the oldest key and
// inserts a new one, four rounds of all keys; ours cleans up when it refuses an insertion, which is part of the time.
// "clean up" is ours alone: half of the keys are removed, then the other half moves together and is hashed anew; the
// time is that of a live key.

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dict/hashdeltable.h"
#include "support/duel.h"
#include "support/string_maps.h"

namespace {

using bench::kAbsent;

class OurTable {
 public:
  OurTable() : table_(HashDelTableNew(0, nullptr, nullptr, nullptr, sizeof(uint64_t), 0)) {}
  ~OurTable() { HashDelTableFree(table_); }
  OurTable(const OurTable&) = delete;
  OurTable& operator=(const OurTable&) = delete;

  void Insert(const std::string& key, uint64_t value) {
    UByte* entry = Entry(key, TRUE);
    if (entry == nullptr) {
      // Up to two keys of three it is tombstones that fill the table.
      const bool crowded = HashDelTableSize(table_) >= HashDelTableCapacity(table_) / 3 * 2;
      HashDelTableGrow(table_, crowded ? 2.0F : 1.00001F, nullptr);
      entry = Entry(key, TRUE);
    }
    std::memcpy(entry, &value, sizeof value);
  }
  uint64_t Find(const std::string& key) const {
    const UByte* entry = Entry(key, FALSE);
    if (entry == nullptr) return kAbsent;
    uint64_t value;
    std::memcpy(&value, entry, sizeof value);
    return value;
  }
  bool Remove(const std::string& key) {
    return HashDelTableRemove(table_, Bytes(key), static_cast<UInt>(key.size()), nullptr);
  }
  uint64_t Sum() const {
    uint64_t sum = 0;
    HashDelTableIterator* it = HashDelTableIteratorInit(table_, nullptr);
    for (; !HashDelTableIteratorEnd(it); HashDelTableIteratorNext(it)) {
      const UByte* key;
      uint64_t value;
      std::memcpy(&value, HashDelTableIteratorGetValue(it), sizeof value);
      sum += value + HashDelTableIteratorGetKey(it, &key);
    }
    HashDelTableIteratorFinalize(it);
    return sum;
  }
  void CleanUp() { HashDelTableGrow(table_, 1.00001F, nullptr); }

 private:
  static const UByte* Bytes(const std::string& key) { return reinterpret_cast<const UByte*>(key.data()); }
  UByte* Entry(const std::string& key, Boolean create) const {
    return HashDelTableFind(table_, Bytes(key), static_cast<UInt>(key.size()), create, nullptr, nullptr);
  }

  HashDelTable* table_;
};

struct Work {
  std::vector<std::string> keys;    // in the order of insertion
  std::vector<std::string> probes;  // the same, shuffled
  std::vector<std::string> others;  // keys that are not there
};

Work MakeWork(size_t count) {
  Work work;
  work.keys = duel::Strings(count, 8, 64, 1);
  for (const uint32_t i : duel::Shuffled(count, 2)) work.probes.push_back(work.keys[i]);
  work.others = duel::Strings(count, 8, 64, 3);
  return work;
}

template <typename Map>
void Turn(duel::Sheet& sheet, const Work& work) {
  const size_t count = work.keys.size();
  Map map;
  const auto find_all = [&](const std::vector<std::string>& keys) {
    uint64_t sum = 0;
    for (const std::string& key : keys) sum = sum * 3 + map.Find(key);
    return sum;
  };
  sheet.Time("insert, growing", count, [&] {
    for (size_t i = 0; i < count; i++) map.Insert(work.keys[i], i);
    return count;
  });
  sheet.BytesPerKey(count);
  sheet.Time("find hit", count, [&] { return find_all(work.probes); });
  sheet.Time("find miss", count, [&] { return find_all(work.others); });
  sheet.Time("iterate", count, [&] { return map.Sum(); });
  // Of two halves of all keys, one is there and the other comes for it, and so back, four times.
  const size_t half = count / 2;
  for (size_t i = half; i < count; i++) map.Remove(work.keys[i]);
  sheet.Time("mix, a step", 4 * half, [&] {
    uint64_t removed = 0;
    for (size_t round = 0; round < 4; round++) {
      const size_t out = round % 2 == 0 ? 0 : half;
      const size_t in = half - out;
      for (size_t i = 0; i < half; i++) {
        removed += map.Remove(work.keys[out + i]);
        map.Insert(work.keys[in + i], i);
      }
    }
    return removed + map.Find(work.keys[0]);
  });
  sheet.Time("remove all", half, [&] {
    uint64_t removed = 0;
    for (const std::string& key : work.probes) removed += map.Remove(key);
    return removed;
  });
  if constexpr (requires { map.CleanUp(); }) {
    Map table;
    for (size_t i = 0; i < count; i++) table.Insert(work.keys[i], i);
    for (size_t i = half; i < count; i++) table.Remove(work.probes[i]);
    sheet.Time("clean up, a live key", half, [&] {
      table.CleanUp();
      return half;
    });
  }
}

}  // namespace

int main(int argc, char** argv) {
  return duel::Main(argc, argv, "hashdeltable", [](duel::Duel& duel, size_t count) {
    const auto work = std::make_shared<const Work>(MakeWork(count));  // gigabytes: shared by the turns
    duel.Contend("HashDelTable", [work](duel::Sheet& sheet) { Turn<OurTable>(sheet, *work); });
    duel.Contend("absl::flat_hash_map", [work](duel::Sheet& sheet) { Turn<bench::AbslMap>(sheet, *work); });
    duel.Contend("std::unordered_map", [work](duel::Sheet& sheet) { Turn<bench::StdMap>(sheet, *work); });
    duel.Contend("tsl::robin_map", [work](duel::Sheet& sheet) { Turn<bench::RobinMap>(sheet, *work); });
    duel.Contend("GHashTable", [work](duel::Sheet& sheet) { Turn<bench::GlibMap>(sheet, *work); });
  });
}
