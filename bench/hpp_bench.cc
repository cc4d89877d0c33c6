// The C++ face beside the C functions under it: what its owners, views and optionals cost. Nothing, that is, where the
// ratio is 1.

#include <memory>
#include <string>
#include <vector>

#include "dict/qxdict.hpp"
#include "support/duel.h"

namespace {

struct Work {
  std::vector<std::string> keys;
  std::vector<uint32_t> order;
};

Work MakeWork(size_t count) { return {duel::Strings(count, 8, 24, 1), duel::Shuffled(count, 2)}; }

const UByte* Bytes(const std::string& key) { return reinterpret_cast<const UByte*>(key.data()); }

void TurnOfCxx(duel::Sheet& sheet, const Work& work) {
  const size_t count = work.keys.size();
  qx::Table<ULong> table(static_cast<UInt>(count));
  sheet.Time("table insert", count, [&] {
    for (size_t i = 0; i < count; i++) table[work.keys[i]].set(i);
    return uint64_t{table.size()};
  });
  sheet.Time("table hit", count, [&] {
    uint64_t sum = 0;
    for (const uint32_t i : work.order) sum += table.Find(work.keys[i])->value();
    return sum;
  });
  sheet.Time("table walk", count, [&] {
    uint64_t sum = 0;
    for (const auto entry : table.entries()) sum += entry.value() + entry.key().size();
    return sum;
  });
  qx::Map64 map;
  map.Reserve(static_cast<UInt>(count));
  sheet.Time("map insert", count, [&] {
    for (size_t i = 0; i < count; i++) map.Insert(i * 7, i);
    return uint64_t{map.size()};
  });
  sheet.Time("map hit", count, [&] {
    uint64_t sum = 0;
    for (const uint32_t i : work.order) sum += *map.Find(uint64_t{i} * 7);
    return sum;
  });
  const qx::Dict dict = qx::Dict::Build(work.keys, {.probe = 2});
  sheet.Time("dictionary hit", count, [&] {
    uint64_t sum = 0;
    for (const uint32_t i : work.order) sum += *dict.Find(work.keys[i]);
    return sum;
  });
}

void TurnOfC(duel::Sheet& sheet, const Work& work) {
  const size_t count = work.keys.size();
  HashTable* table = HashTableNew(static_cast<UInt>(count), nullptr, nullptr, nullptr, sizeof(ULong), 0, FALSE);
  sheet.Time("table insert", count, [&] {
    for (size_t i = 0; i < count; i++) {
      const std::string& key = work.keys[i];
      UByte* entry = HashTableFind(table, Bytes(key), static_cast<UInt>(key.size()), TRUE, nullptr, nullptr);
      std::memcpy(entry, &i, sizeof i);
    }
    return uint64_t{HashTableSize(table)};
  });
  sheet.Time("table hit", count, [&] {
    uint64_t sum = 0;
    for (const uint32_t i : work.order) {
      const std::string& key = work.keys[i];
      ULong value;
      std::memcpy(&value, HashTableFind(table, Bytes(key), static_cast<UInt>(key.size()), FALSE, nullptr, nullptr),
                  sizeof value);
      sum += value;
    }
    return sum;
  });
  sheet.Time("table walk", count, [&] {
    uint64_t sum = 0;
    HashTableIterator* it = HashTableIteratorInit(table);
    for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it)) {
      const UByte* bytes = nullptr;
      ULong value;
      std::memcpy(&value, HashTableIteratorGetValue(it), sizeof value);
      sum += value + HashTableIteratorGetKey(it, &bytes);
    }
    HashTableIteratorFinalize(it);
    return sum;
  });
  HashTableFree(table);
  RefMap* map = RefMapNew();
  RefMapGrow(map, static_cast<UInt>(count));
  Boolean added = FALSE;
  sheet.Time("map insert", count, [&] {
    for (size_t i = 0; i < count; i++) RefMapFind(map, i * 7, i, REFMAP_NONE, &added);
    return uint64_t{RefMapSize(map)};
  });
  sheet.Time("map hit", count, [&] {
    uint64_t sum = 0;
    for (const uint32_t i : work.order) sum += RefMapFind(map, uint64_t{i} * 7, REFMAP_NONE, REFMAP_NONE, &added);
    return sum;
  });
  RefMapDelete(map);
  const auto key_of = [](void* keys, Id i, const UByte** bytes) -> UShort {
    const std::string& key = (*static_cast<const std::vector<std::string>*>(keys))[i];
    *bytes = Bytes(key);
    return static_cast<UShort>(key.size());
  };
  HashDict* dict = HashDictBuild(static_cast<Id>(count), const_cast<std::vector<std::string>*>(&work.keys), key_of,
                                 nullptr, 0, 2, FALSE);
  sheet.Time("dictionary hit", count, [&] {
    uint64_t sum = 0;
    for (const uint32_t i : work.order) {
      sum += HashDictFind(dict, Bytes(work.keys[i]), static_cast<UInt>(work.keys[i].size()));
    }
    return sum;
  });
  HashDictFree(dict);
}

}  // namespace

int main(int argc, char** argv) {
  return duel::Main(argc, argv, "hpp", [](duel::Duel& duel, size_t count) {
    const auto work = std::make_shared<Work>(MakeWork(count));
    duel.Contend("qxdict.hpp", [work](duel::Sheet& sheet) { TurnOfCxx(sheet, *work); });
    duel.Contend("C functions", [work](duel::Sheet& sheet) { TurnOfC(sheet, *work); });
  });
}
