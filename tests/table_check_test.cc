// The checkers of both tables: each kind of damage has its name, and a table that passes can be used in every way.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "dict/hashdeltable.h"
#include "dict/hashtable.h"
#include "support/files.h"
#include "support/guarded.h"
#include "support/hashdeltable_model.h"
#include "support/hashtable_model.h"

using support::Bytes;
using support::HashDelTablePtr;
using support::HashTablePtr;
using support::Length;
using support::TemporaryDirectory;

namespace {

constexpr UInt kEmpty = 0xFFFFFFFF;
constexpr UInt kTombstone = 0xFFFFFFFE;

std::string Fault(const HashTable* table) {
  const char* reason = "unset";
  const Boolean sound = HashTableCheck(table, &reason);
  EXPECT_EQ(HashTableCheck(table, nullptr), sound);
  EXPECT_EQ(sound, reason == nullptr);
  return reason == nullptr ? "" : reason;
}
std::string Fault(const HashDelTable* table) {
  const char* reason = "unset";
  const Boolean sound = HashDelTableCheck(table, &reason);
  EXPECT_EQ(HashDelTableCheck(table, nullptr), sound);
  EXPECT_EQ(sound, reason == nullptr);
  return reason == nullptr ? "" : reason;
}

// Four keys of 16 heap bytes each: 4 of the value, 1 of the length, up to 8 of the key, padding. Capacity 5, 7 slots.
// Single letters hash to their code: "a" (97 = 13 * 7 + 6) lies in slot 6, "b" in 0, "c" in 1, "d" in 2.
constexpr const char* kKeys[] = {"a", "b", "c", "d"};

HashTablePtr FourKeys() {
  HashTablePtr table(HashTableNew(5, nullptr, nullptr, nullptr, 4, 0, FALSE));
  for (const char* key : kKeys) support::Insert(table.get(), key);
  return table;
}

TEST(HashTableCheck, PassesSoundTables) {
  const HashTablePtr table = FourKeys();
  EXPECT_EQ(Fault(table.get()), "");
  HashTableSelect(table.get(), 2, nullptr, nullptr, nullptr);
  EXPECT_EQ(Fault(table.get()), "");
  HashTableClear(table.get());
  EXPECT_EQ(Fault(table.get()), "");
}

// Wherever the entry lies that two slots name, and the one that none names for it.
template <typename Table>
void ExpectEveryTwinToBeSeen(Table* table, UInt* slots, UInt count) {
  EXPECT_EQ(Fault(table), "");
  UInt before = kEmpty;
  UInt twins = 0;
  for (UInt s = 0; s < count; s++) {
    if (slots[s] == kEmpty) continue;
    const UInt offset = std::exchange(slots[s], before == kEmpty ? slots[s] : before);
    if (before != kEmpty) {
      ASSERT_EQ(Fault(table), "two slots name the same entry") << s;
      twins++;
    }
    slots[s] = offset;
    before = offset;
  }
  EXPECT_EQ(twins, 699u);
  EXPECT_EQ(Fault(table), "");
}

TEST(HashTableCheck, SeesEveryTwinInALargeTable) {
  const HashTablePtr table(HashTableNew(1000, nullptr, nullptr, nullptr, 4, 0, FALSE));
  for (int i = 0; i < 700; i++) support::Insert(table.get(), "key " + std::to_string(i));
  ExpectEveryTwinToBeSeen(table.get(), table->t_entries, table->t_entries_size);
}

TEST(HashDelTableCheck, SeesEveryTwinInALargeTable) {
  const HashDelTablePtr table(HashDelTableNew(1000, nullptr, nullptr, nullptr, 4, 0));
  for (int i = 0; i < 700; i++) support::Insert(table.get(), "key " + std::to_string(i));
  ExpectEveryTwinToBeSeen(table.get(), table->t_entries, table->t_nentries);
}

TEST(HashTableCheck, PassesTheLastEntryWithoutPaddingAndPaddingWithoutAnEntry) {
  const auto refuse = [](UByte*, const UByte*, UInt, void* ptr) -> Boolean { return ptr == nullptr; };
  HashTablePtr table(HashTableNew(5, nullptr, refuse, nullptr, 3, 0, FALSE));
  support::Insert(table.get(), "a");
  EXPECT_EQ(table->t_data_used, 5u);
  EXPECT_EQ(Fault(table.get()), "");
  EXPECT_EQ(support::Insert(table.get(), "b", table.get()), nullptr);
  EXPECT_EQ(table->t_data_used, 8u);
  EXPECT_EQ(Fault(table.get()), "");
}

TEST(HashTableCheck, PassesAnUnalignedTableFromAFile) {
  // Two entries without padding: "a" at 0, "b" at 2.
  const TemporaryDirectory directory;
  HashTablePtr table(HashTableNew(5, nullptr, nullptr, nullptr, 0, 0, FALSE));
  support::Insert(table.get(), "a");
  support::Insert(table.get(), "b");
  std::memcpy(table->t_data,
              "\x02"
              "a\x02"
              "b",
              4);
  table->t_data_used = 4;
  table->t_entries[0] = 2;
  ASSERT_TRUE(HashTableWrite(table.get(), directory.file("t").c_str()));
  const HashTablePtr read(HashTableRead(directory.file("t").c_str(), nullptr, nullptr, nullptr, FALSE));
  EXPECT_FALSE(read->t_aligned);
  EXPECT_EQ(Fault(read.get()), "");
  EXPECT_NE(support::Find(read.get(), "b"), nullptr);
}

TEST(HashTableCheck, NamesMissingBlocks) {
  const HashTablePtr table = FourKeys();
  HashTable forged = *table;
  forged.t_entries = nullptr;
  EXPECT_EQ(Fault(&forged), "there are too few slots");
  forged = *table;
  forged.t_data = nullptr;
  EXPECT_EQ(Fault(&forged), "the heap in use is larger than the heap");
}

TEST(HashTableCheck, NamesEachKindOfDamage) {
  const struct {
    const char* reason;
    std::function<void(HashTable*)> damage;
  } kinds[] = {
      {"the key length field is wider than 4 bytes", [](HashTable* t) { t->t_key_size = 5; }},
      {"there are too few slots", [](HashTable* t) { t->t_entries_size = 0; }},
      {"there are too few slots", [](HashTable* t) { t->t_entries_size = 2; }},
      {"the capacity leaves no free slot", [](HashTable* t) { t->t_entries_capacity = 7; }},
      {"the capacity leaves no free slot", [](HashTable* t) { t->t_entries_capacity = kEmpty; }},
      {"there are more slots than the capacity asks for", [](HashTable* t) { t->t_entries_capacity = 3; }},
      {"there are more keys than the capacity", [](HashTable* t) { t->t_entries_used = 6; }},
      {"the heap in use is larger than the heap", [](HashTable* t) { t->t_data_size = t->t_data_used - 1; }},
      {"the heap in use is larger than offsets reach",
       [](HashTable* t) { t->t_data_used = 0xFFFFFFF9, t->t_data_size = 0x100000000; }},
      {"a slot names a place outside the heap", [](HashTable* t) { t->t_entries[0] = 56; }},
      {"a slot names a place outside the heap", [](HashTable* t) { t->t_entries[0] = kTombstone; }},
      {"a slot names a place between entries", [](HashTable* t) { t->t_entries[0] = 9; }},
      {"two slots name the same entry", [](HashTable* t) { t->t_entries[0] = 0; }},
      {"the number of keys is not that of the slots taken", [](HashTable* t) { t->t_entries_used = 3; }},
      {"the number of keys is not that of the slots taken", [](HashTable* t) { t->t_entries[0] = kEmpty; }},
      {"an entry leaves the heap", [](HashTable* t) { t->t_data[4] = 200; }},
      {"an entry leaves the heap", [](HashTable* t) { t->t_data[28] = 8; }},
      {"an entry leaves the heap", [](HashTable* t) { t->t_val_len = 100; }},
      {"a key length is malformed", [](HashTable* t) { std::memset(t->t_data + 4, 0xFF, 5); }},
      {"an entry has no slot", [](HashTable* t) { t->t_entries[0] = kEmpty, t->t_entries_used = 3; }},
      {"a slot behind the selection is not empty",
       [](HashTable* t) {
         HashTableSelect(t, 2, nullptr, nullptr, nullptr);
         t->t_entries[2] = 24;
       }},
      {"the number of keys is not that of the slots taken",
       [](HashTable* t) {
         HashTableSelect(t, 2, nullptr, nullptr, nullptr);
         t->t_entries_used = 3;
       }},
      {"a slot names a place between entries",
       [](HashTable* t) {
         HashTableSelect(t, 2, nullptr, nullptr, nullptr);
         t->t_data[4] = 18;  // "a" now goes over "b", which is chosen
       }},
  };
  for (const auto& kind : kinds) {
    const HashTablePtr table = FourKeys();
    ASSERT_EQ(table->t_data_used, 30u);
    kind.damage(table.get());
    EXPECT_EQ(Fault(table.get()), kind.reason);
  }
}

TEST(HashTableCheck, DoesNotPassATableSelectedIntoAnArray) {
  const HashTablePtr table = FourKeys();
  UIntArray array;
  ArrayInit_(&array.a);
  HashTableSelect(table.get(), 0, nullptr, nullptr, &array);
  EXPECT_EQ(Fault(table.get()), "the number of keys is not that of the slots taken");
  ArrayFree_(&array.a, "test", __LINE__);
}

// Every operation on a table that has passed, with values written over their full length; and it passes again.
void UseInEveryWay(HashTable* table) {
  {
    // Reading, where a byte too far ends the process.
    const support::Guarded heap(std::string(table->t_data, table->t_data + table->t_data_size));
    const support::Guarded slots(std::string(reinterpret_cast<char*>(table->t_entries), 4 * table->t_entries_size));
    HashTable guarded = *table;
    guarded.t_data = heap.data();
    guarded.t_entries = reinterpret_cast<UInt*>(slots.data());
    HashTableEnumerate(
        &guarded, 0,
        [](UByte* entry, void* ptr) {
          const auto* t = static_cast<HashTable*>(ptr);
          std::memset(entry, 0xFF, t->t_val_len);
          const UByte* bytes;
          const UInt length = HashTableKey(t, entry, &bytes);
          return UInt{std::string(bytes, bytes + length) == "stop"};
        },
        &guarded);
    HashTableStatistics stats;
    HashTableStats(&guarded, &stats, nullptr);
    EXPECT_EQ(Fault(&guarded), "");
    if (!guarded.t_selected) {
      for (const char* key : {"a", "b", "", "a longer key"}) support::Find(&guarded, key);
    } else {
      for (UInt i = 0; i < HashTableSize(&guarded); i++) {
        std::memset(HashTableGetIndex(&guarded, i, nullptr), 0xAA, table->t_val_len);
      }
      EXPECT_EQ(Fault(&guarded), "");
    }
  }
  const HashTablePtr copy(HashTableCopy(table));
  ASSERT_EQ(Fault(copy.get()), "");
  HashTableSelect(copy.get(), 3, nullptr, nullptr, nullptr);
  EXPECT_EQ(Fault(copy.get()), "");
  HashTableSort(
      copy.get(), [](const UByte* a, const UByte* b, void*) { return a < b   ? -1
                                                                     : a > b ? 1
                                                                             : 0; }, nullptr, nullptr);
  EXPECT_EQ(Fault(copy.get()), "");
  if (table->t_selected) HashTableClear(table);
  if (table->t_val_len > 4096) return;  // would only take memory
  for (int i = 0; i < 30; i++) {
    if (HashTableFull(table)) HashTableGrow(table, 2.0F, nullptr);
    const std::string key = "new " + std::to_string(i);
    UByte* entry = HashTableFind(table, Bytes(key), Length(key), TRUE, nullptr, nullptr);
    if (entry == nullptr) continue;  // a length that this key length field cannot hold is not met here
    std::memset(entry, 0x55, table->t_val_len);
  }
  EXPECT_EQ(Fault(table), "");
  HashTableIterator* it = HashTableIteratorInit(table);
  size_t steps = 0;
  for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it)) steps++;
  EXPECT_EQ(steps, HashTableSize(table));
  HashTableIteratorFinalize(it);
}

TEST(HashTableCheck, WhatPassesCanBeUsedInEveryWay) {
  // A file in memory: thousands of them are written.
  const int descriptor = memfd_create("table", MFD_CLOEXEC);
  const std::string file = "/proc/self/fd/" + std::to_string(descriptor);
  std::mt19937 random(1);
  int passed = 0, refused = 0;
  const auto try_bytes = [&](const std::string& bytes) {
    ASSERT_EQ(pwrite(descriptor, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    const HashTablePtr read(HashTableRead(file.c_str(), nullptr, nullptr, nullptr, FALSE));
    if (read == nullptr) return;
    if (!HashTableCheck(read.get(), nullptr)) {
      refused++;
      return;
    }
    passed++;
    UseInEveryWay(read.get());
  };
  for (const bool selected : {false, true}) {
    const HashTablePtr table = FourKeys();
    if (selected) HashTableSelect(table.get(), 3, nullptr, nullptr, nullptr);
    ASSERT_TRUE(HashTableWrite(table.get(), file.c_str()));
    const std::string sound = support::ReadFile(file);
    ASSERT_EQ(sound.size(), 37u + 28 + 35);
    for (size_t at = 0; at < sound.size(); at++) {
      for (const int value : {0, 1, 2, 3, 4, 5, 7, 8, 16, 24, 0x7F, 0x80, 0xFE, 0xFF}) {
        std::string bytes = sound;
        bytes[at] = static_cast<char>(value);
        try_bytes(bytes);
      }
    }
    for (int i = 0; i < 3000; i++) {
      std::string bytes = sound;
      for (int n = 0; n < 2; n++) bytes[random() % bytes.size()] = static_cast<char>(random() % 40 - 4);
      try_bytes(bytes);
    }
  }
  close(descriptor);
  EXPECT_GT(passed, 1000);
  EXPECT_GT(refused, 1000);
}

// The same four keys; "d" has been removed and "e" inserted behind it.
HashDelTablePtr Tombstoned() {
  HashDelTablePtr table(HashDelTableNew(8, nullptr, nullptr, nullptr, 4, 0));
  for (const char* key : {"a", "b", "c", "d", "e"}) support::Insert(table.get(), key);
  support::Remove(table.get(), "d");
  return table;
}

UInt SlotHolding(const HashDelTable* table, UInt value) {
  return static_cast<UInt>(std::find(table->t_entries, table->t_entries + table->t_nentries, value) - table->t_entries);
}

TEST(HashDelTableCheck, PassesSoundTables) {
  const HashDelTablePtr table = Tombstoned();
  EXPECT_EQ(Fault(table.get()), "");
  support::Insert(table.get(), "d");  // its entry is in the heap twice now
  EXPECT_EQ(Fault(table.get()), "");
  HashDelTableGrow(table.get(), 2.0F, nullptr);
  EXPECT_EQ(Fault(table.get()), "");
  support::Remove(table.get(), "a");
  HashDelTableSelect(table.get(), 2, nullptr, nullptr);
  EXPECT_EQ(Fault(table.get()), "");
  HashDelTableClear(table.get());
  EXPECT_EQ(Fault(table.get()), "");
}

TEST(HashDelTableCheck, NamesMissingBlocks) {
  const HashDelTablePtr table = Tombstoned();
  HashDelTable forged = *table;
  forged.t_entries = nullptr;
  EXPECT_EQ(Fault(&forged), "there are too few slots");
  forged = *table;
  forged.t_data = nullptr;
  EXPECT_EQ(Fault(&forged), "the heap in use is larger than the heap");
}

TEST(HashDelTableCheck, NamesEachKindOfDamage) {
  const struct {
    const char* reason;
    std::function<void(HashDelTable*)> damage;
  } kinds[] = {
      {"the key length field is wider than 4 bytes", [](HashDelTable* t) { t->t_key_size = 255; }},
      {"there are too few slots", [](HashDelTable* t) { t->t_nentries = 2; }},
      {"the capacity leaves no free slot", [](HashDelTable* t) { t->t_nkeys_max = 13; }},
      {"there are more keys than the capacity", [](HashDelTable* t) { t->t_deleted = 5; }},
      {"there are more keys than the capacity", [](HashDelTable* t) { t->t_deleted = 0x80000000; }},
      {"there are more keys than the capacity", [](HashDelTable* t) { t->t_nkeys = 9; }},
      {"a selection has tombstones", [](HashDelTable* t) { t->t_selected = TRUE; }},
      {"the heap in use is larger than the heap", [](HashDelTable* t) { t->t_data_size = 37; }},
      {"a slot names a place outside the heap", [](HashDelTable* t) { t->t_entries[SlotHolding(t, 0)] = 40; }},
      {"a slot names a place outside the heap", [](HashDelTable* t) { t->t_deleted = 0; }},
      {"a slot names a place between entries", [](HashDelTable* t) { t->t_entries[SlotHolding(t, 0)] = 4; }},
      {"two slots name the same entry", [](HashDelTable* t) { t->t_entries[SlotHolding(t, 0)] = 8; }},
      {"the number of keys is not that of the slots taken", [](HashDelTable* t) { t->t_nkeys = 5; }},
      {"the number of tombstones is not that of the slots", [](HashDelTable* t) { t->t_deleted = 2; }},
      {"an entry leaves the heap", [](HashDelTable* t) { t->t_data[36] = 100; }},
      {"a key length is malformed", [](HashDelTable* t) { std::memset(t->t_data + 4, 0xFF, 5); }},
      {"an entry has no slot",
       [](HashDelTable* t) { t->t_entries[SlotHolding(t, kTombstone)] = kEmpty, t->t_deleted = 0; }},
  };
  for (const auto& kind : kinds) {
    const HashDelTablePtr table = Tombstoned();
    ASSERT_EQ(table->t_nentries, 13u);
    ASSERT_EQ(table->t_data_used, 38u);
    kind.damage(table.get());
    EXPECT_EQ(Fault(table.get()), kind.reason);
  }
}

void UseInEveryWay(HashDelTable* table) {
  {
    const support::Guarded heap(std::string(table->t_data, table->t_data + table->t_data_size));
    const support::Guarded slots(std::string(reinterpret_cast<char*>(table->t_entries), 4 * table->t_nentries));
    HashDelTable guarded = *table;
    guarded.t_data = heap.data();
    guarded.t_entries = reinterpret_cast<UInt*>(slots.data());
    HashTableStatistics stats;
    HashDelTableStats(&guarded, &stats, nullptr);
    for (UInt s = 0; s < guarded.t_nentries; s++) {
      if (guarded.t_entries[s] < kTombstone) {
        std::memset(HashDelTableGetOffset(&guarded, guarded.t_entries[s]), 0xFF, guarded.t_val_len);
      }
    }
    EXPECT_EQ(Fault(&guarded), "");
    if (!guarded.t_selected) {
      for (const char* key : {"a", "b", "", "a longer key"}) support::Find(&guarded, key);
      support::Remove(&guarded, "b");
      EXPECT_EQ(Fault(&guarded), "");
    }
  }
  const HashDelTablePtr copy(HashDelTableCopy(table));
  ASSERT_EQ(Fault(copy.get()), "");
  HashDelTableSelect(copy.get(), 3, nullptr, nullptr);
  EXPECT_EQ(Fault(copy.get()), "");
  HashDelTableSort(
      copy.get(), [](const UByte* a, const UByte* b, void*) { return a < b   ? -1
                                                                     : a > b ? 1
                                                                             : 0; }, nullptr);
  EXPECT_EQ(Fault(copy.get()), "");
  if (table->t_selected) HashDelTableClear(table);
  if (table->t_val_len > 4096) return;
  for (int i = 0; i < 30; i++) {
    const std::string key = "new " + std::to_string(i);
    UByte* entry = support::Insert(table, key);
    if (entry == nullptr) {
      HashDelTableGrow(table, 1.5F, nullptr);
      entry = support::Insert(table, key);
    }
    if (entry != nullptr) std::memset(entry, 0x55, table->t_val_len);
    if (i % 3 == 0) support::Remove(table, key);
  }
  EXPECT_EQ(Fault(table), "");
  HashDelTableIterator* it = HashDelTableIteratorInit(table, nullptr);
  size_t steps = 0;
  for (; !HashDelTableIteratorEnd(it); HashDelTableIteratorNext(it)) steps++;
  EXPECT_EQ(steps, HashDelTableSize(table));
  HashDelTableIteratorFinalize(it);
  EXPECT_EQ(Fault(table), "");
}

TEST(HashDelTableCheck, WhatPassesCanBeUsedInEveryWay) {
  std::mt19937 random(2);
  int passed = 0, refused = 0;
  const auto try_image = [&](const std::string& image) {
    const HashDelTablePtr table(HashDelTableNew(5, nullptr, nullptr, nullptr, 4, 0));
    if (!support::ReadImage(table.get(), image)) return;
    if (!HashDelTableCheck(table.get(), nullptr)) {
      refused++;
      return;
    }
    passed++;
    UseInEveryWay(table.get());
  };
  for (const bool selected : {false, true}) {
    const HashDelTablePtr table = Tombstoned();
    if (selected) HashDelTableSelect(table.get(), 3, nullptr, nullptr);
    const std::string sound = support::Image(table.get());
    for (size_t at = 0; at < sound.size(); at++) {
      for (const int value : {0, 1, 2, 3, 4, 5, 7, 8, 16, 24, 0x7F, 0x80, 0xFE, 0xFF}) {
        std::string image = sound;
        image[at] = static_cast<char>(value);
        try_image(image);
      }
    }
    for (int i = 0; i < 3000; i++) {
      std::string image = sound;
      for (int n = 0; n < 2; n++) image[random() % image.size()] = static_cast<char>(random() % 40 - 4);
      try_image(image);
    }
  }
  EXPECT_GT(passed, 1000);
  EXPECT_GT(refused, 1000);
}

}  // namespace
