// HashTable, its memory from the allocator and mapped, beside hash maps from strings to 64-bit numbers.
//
// Keys of 8 to 64 bytes. "insert" starts with an empty table that grows by doubling, which is part of the time; hits
// and misses are looked up at the load that the insertions left. Ours alone: "enumerate" is a walk by callback in place
// of the iterator; "write" and "read" are a file of the whole table, synced; "full" is a table whose capacity is just
// its keys, and "find many" looks them up in bulk. "slowest insert" is the longest single insertion, in microseconds:
// the growth step that a user may notice.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dict/hashtable.h"
#include "support/duel.h"
#include "support/string_maps.h"

namespace {

using bench::kAbsent;

template <Boolean kMapped>
class OurTable {
 public:
  OurTable() : table_(HashTableNew(0, nullptr, nullptr, nullptr, sizeof(uint64_t), 0, kMapped)) {}
  ~OurTable() { HashTableFree(table_); }
  OurTable(const OurTable&) = delete;
  OurTable& operator=(const OurTable&) = delete;

  void Insert(const std::string& key, uint64_t value) {
    if (HashTableFull(table_)) HashTableGrow(table_, 2.0F, nullptr);
    std::memcpy(Entry(key, TRUE), &value, sizeof value);
  }
  uint64_t Find(const std::string& key) const {
    const UByte* entry = Entry(key, FALSE);
    if (entry == nullptr) return kAbsent;
    uint64_t value;
    std::memcpy(&value, entry, sizeof value);
    return value;
  }
  uint64_t Sum() const {
    uint64_t sum = 0;
    HashTableIterator* it = HashTableIteratorInit(table_);
    for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it)) {
      const UByte* key;
      uint64_t value;
      std::memcpy(&value, HashTableIteratorGetValue(it), sizeof value);
      sum += value + HashTableIteratorGetKey(it, &key);
    }
    HashTableIteratorFinalize(it);
    return sum;
  }
  HashTable* table() { return table_; }

 private:
  UByte* Entry(const std::string& key, Boolean create) const {
    return HashTableFind(table_, reinterpret_cast<const UByte*>(key.data()), static_cast<UInt>(key.size()), create,
                         nullptr, nullptr);
  }

  HashTable* table_;
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
uint64_t FindAll(const Map& map, const std::vector<std::string>& keys) {
  uint64_t sum = 0;
  for (const std::string& key : keys) sum = sum * 3 + map.Find(key);
  return sum;
}

UInt AddEntry(UByte* entry, void* ptr) {
  uint64_t value;
  std::memcpy(&value, entry, sizeof value);
  *static_cast<uint64_t*>(ptr) += value;
  return 0;
}

// What only our tables have.
template <typename Map>
void OurTurn(duel::Sheet& sheet, Map& map, const Work& work) {
  const size_t count = work.keys.size();
  sheet.Time("enumerate", count, [&] {
    uint64_t sum = 1;
    HashTableEnumerate(map.table(), 0, AddEntry, &sum);
    return sum;
  });
  std::string file = "/tmp/hashtable_bench.XXXXXX";
  const int descriptor = mkstemp(file.data());
  if (descriptor < 0) std::abort();
  close(descriptor);
  sheet.Time("write", count, [&] { return uint64_t{HashTableWrite(map.table(), file.c_str()) != FALSE}; });
  sheet.Time("read", count, [&] {
    HashTable* table = HashTableRead(file.c_str(), nullptr, nullptr, nullptr, map.table()->t_vm);
    const uint64_t size = HashTableSize(table);
    HashTableFree(table);
    return size;
  });
  unlink(file.c_str());

  // Just as full as a table may be: a capacity of the very number of its keys.
  HashTable* full = HashTableNew(static_cast<UInt>(count), nullptr, nullptr, nullptr, 8, 0, map.table()->t_vm);
  const auto find = [&](const std::string& key, Boolean create) {
    return HashTableFind(full, reinterpret_cast<const UByte*>(key.data()), static_cast<UInt>(key.size()), create,
                         nullptr, nullptr) != nullptr;
  };
  for (const std::string& key : work.keys) find(key, TRUE);
  sheet.Time("find hit, full", count, [&] {
    uint64_t found = 0;
    for (const std::string& key : work.probes) found += find(key, FALSE);
    return found;
  });
  std::vector<const UByte*> keys;
  std::vector<UInt> lens;
  for (const std::string& key : work.probes) {
    keys.push_back(reinterpret_cast<const UByte*>(key.data()));
    lens.push_back(static_cast<UInt>(key.size()));
  }
  std::vector<UByte*> entries(count);
  sheet.Time("find many hit, full", count, [&] {
    HashTableFindMany(full, static_cast<UInt>(count), keys.data(), lens.data(), entries.data(), nullptr, nullptr);
    uint64_t found = 0;
    for (const UByte* entry : entries) found += entry != nullptr;
    return found;
  });
  sheet.Time("find miss, full", count, [&] {
    uint64_t found = 1;
    for (const std::string& key : work.others) found += find(key, FALSE);
    return found;
  });
  HashTableFree(full);
}

template <typename Map>
void Turn(duel::Sheet& sheet, const Work& work) {
  const size_t count = work.keys.size();
  Map map;
  sheet.Time("insert, growing", count, [&] {
    for (size_t i = 0; i < count; i++) map.Insert(work.keys[i], i);
    return count;
  });
  sheet.BytesPerKey(count);
  sheet.Time("find hit", count, [&] { return FindAll(map, work.probes); });
  sheet.Time("find miss", count, [&] { return FindAll(map, work.others); });
  sheet.Time("iterate", count, [&] { return map.Sum(); });
  if constexpr (requires { map.table(); }) OurTurn(sheet, map, work);

  Map again;
  std::chrono::nanoseconds slowest{0};
  for (size_t i = 0; i < count; i++) {
    const auto start = std::chrono::steady_clock::now();
    again.Insert(work.keys[i], i);
    slowest = std::max<std::chrono::nanoseconds>(slowest, std::chrono::steady_clock::now() - start);
  }
  sheet.Tell("slowest insert, us", static_cast<double>(slowest.count()) / 1000);
}

}  // namespace

int main(int argc, char** argv) {
  return duel::Main(argc, argv, "hashtable", [](duel::Duel& duel, size_t count) {
    const auto work = std::make_shared<const Work>(MakeWork(count));  // gigabytes: shared by the turns
    duel.Contend("HashTable", [work](duel::Sheet& sheet) { Turn<OurTable<FALSE>>(sheet, *work); });
    duel.Contend("HashTable, mapped", [work](duel::Sheet& sheet) { Turn<OurTable<TRUE>>(sheet, *work); });
    duel.Contend("absl::flat_hash_map", [work](duel::Sheet& sheet) { Turn<bench::AbslMap>(sheet, *work); });
    duel.Contend("std::unordered_map", [work](duel::Sheet& sheet) { Turn<bench::StdMap>(sheet, *work); });
    duel.Contend("tsl::robin_map", [work](duel::Sheet& sheet) { Turn<bench::RobinMap>(sheet, *work); });
    duel.Contend("GHashTable", [work](duel::Sheet& sheet) { Turn<bench::GlibMap>(sheet, *work); });
  });
}
