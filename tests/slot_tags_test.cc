// The tags beside the slots of both tables: in step with the slots, and without a trace in anything that a user sees.
//
// A table whose hash is a callback that calls HashBytes has no tags, and everything else of it is the same.

#include "dict/slot_tags.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "dict/hashdeltable.h"
#include "dict/hashtable.h"
#include "qxlib/misc.h"
#include "support/files.h"
#include "support/keys.h"

using support::Bytes;
using support::Length;

namespace {

constexpr UInt kEmpty = 0xFFFFFFFF;
constexpr UInt kTombstone = 0xFFFFFFFE;

UInt Plain(const UByte* bytes, UInt len, void*) { return HashBytes(bytes, len); }

UInt SlotCount(const HashTable& table) { return table.t_entries_size; }
UInt SlotCount(const HashDelTable& table) { return table.t_nentries; }

// Keys of which many have the same start slot, and some the same tag.
std::string Key(UInt i) { return (i % 3 == 0 ? "k" : "another key ") + std::to_string(i * 7919 % 100003); }

template <typename Table>
void ExpectTagsInStep(const Table& table) {
  ASSERT_NE(table.t_tags, nullptr);
  const UInt slots = SlotCount(table);
  for (UInt s = 0; s < slots; s++) {
    const UByte tag = table.t_tags[s];
    if (table.t_entries[s] == kEmpty) {
      ASSERT_EQ(tag, 0) << s;
    } else if (table.t_entries[s] == kTombstone) {
      ASSERT_EQ(tag, 1) << s;
    } else {
      ASSERT_GE(tag, 2) << s;
    }
  }
  for (UInt s = 0; s < 16; s++) ASSERT_EQ(table.t_tags[slots + s], table.t_tags[s]) << s;
}

template <typename Table>
void ExpectSame(const Table& a, const Table& b) {
  ASSERT_EQ(SlotCount(a), SlotCount(b));
  ASSERT_EQ(std::memcmp(a.t_entries, b.t_entries, sizeof(UInt) * SlotCount(a)), 0);
  ASSERT_EQ(a.t_data_used, b.t_data_used);
  ASSERT_EQ(a.t_data_size, b.t_data_size);
  ASSERT_EQ(std::memcmp(a.t_data, b.t_data, a.t_data_size), 0);
}

TEST(SlotTag, IsNoneOfTheTwoThatMeanSomethingElse) {
  EXPECT_EQ(tags::Of(0), 2);
  EXPECT_EQ(tags::Of(1), 0x9E);
  EXPECT_EQ(tags::Of(2), 0x3C);  // of 0x13C6EF362
  std::vector<int> seen(256);
  for (UInt hash = 0; hash < 1000000; hash++) seen[tags::Of(hash)]++;
  EXPECT_EQ(seen[0], 0);
  EXPECT_EQ(seen[1], 0);
  for (UInt tag = 4; tag < 256; tag++) EXPECT_NEAR(seen[tag], 3906, 400) << tag;
}

TEST(SlotTagGroup, TellsEachOfSixteen) {
  UByte bytes[17] = {};
  for (UByte at = 0; at < 16; at++) {
    std::memset(bytes, 7, sizeof bytes);
    bytes[at] = 9;
    EXPECT_EQ(tags::Group(bytes).Equal(9), 1u << at);
    EXPECT_EQ(tags::Group(bytes).Equal(7), 0xFFFFu ^ (1u << at));
    EXPECT_EQ(tags::Group(bytes).Equal(8), 0u);
  }
  bytes[16] = 8;
  EXPECT_EQ(tags::Group(bytes).Equal(8), 0u);
}

TEST(HashTableTags, LeaveNoTraceInSlotsAndHeap) {
  for (const Boolean vm : {FALSE, TRUE}) {
    HashTable* tagged = HashTableNew(60, nullptr, nullptr, nullptr, 4, 0, vm);
    HashTable* plain = HashTableNew(60, Plain, nullptr, nullptr, 4, 0, vm);
    for (UInt i = 0; i < 5000; i++) {
      const std::string key = Key(i / 2 * 2);  // every other insertion finds the key
      UInt at_tagged = 0, at_plain = 0;
      for (HashTable* table : {tagged, plain}) {
        if (HashTableFull(table)) HashTableGrow(table, 1.3F, nullptr);
      }
      HashTableFind(tagged, Bytes(key), Length(key), TRUE, &at_tagged, nullptr);
      HashTableFind(plain, Bytes(key), Length(key), TRUE, &at_plain, nullptr);
      ASSERT_EQ(at_tagged, at_plain);
      if (i % 500 == 499) {
        ExpectSame(*tagged, *plain);
        ExpectTagsInStep(*tagged);
        ASSERT_EQ(plain->t_tags, nullptr);
      }
    }
    for (UInt i = 0; i < 10000; i++) {
      const std::string key = Key(i);
      const bool there = HashTableFind(plain, Bytes(key), Length(key), FALSE, nullptr, nullptr) != nullptr;
      ASSERT_EQ(HashTableFind(tagged, Bytes(key), Length(key), FALSE, nullptr, nullptr) != nullptr, there) << key;
    }
    HashTableFree(tagged);
    HashTableFree(plain);
  }
}

TEST(HashTableTags, LastCapacityIsFilledAndWrapsAround) {
  // "a", "b", ... hash to 97 and on, so that their run goes over the last of 127 slots to the first.
  HashTable* table = HashTableNew(84, nullptr, nullptr, nullptr, 0, 0, FALSE);
  ASSERT_EQ(table->t_entries_size, 127u);
  for (UByte c = 0; c < 84; c++) {
    const UByte key = static_cast<UByte>(c + 90);
    ASSERT_NE(HashTableFind(table, &key, 1, TRUE, nullptr, nullptr), nullptr);
    ExpectTagsInStep(*table);
  }
  EXPECT_EQ(table->t_entries[90], 0u);
  EXPECT_EQ(table->t_entries[126], 36u * 8);
  EXPECT_EQ(table->t_entries[0], 37u * 8);
  EXPECT_EQ(table->t_entries[46], 83u * 8);
  EXPECT_EQ(table->t_entries[47], kEmpty);
  for (UInt c = 0; c < 256; c++) {
    const UByte key = static_cast<UByte>(c);
    EXPECT_EQ(HashTableFind(table, &key, 1, FALSE, nullptr, nullptr) != nullptr, c >= 90 && c < 174) << c;
  }
  HashTableFree(table);
}

TEST(HashTableTags, SearchEndsInATableWithoutEmptySlots) {
  HashTable* table = HashTableNew(84, nullptr, nullptr, nullptr, 0, 0, FALSE);
  table->t_entries_capacity = 127;
  for (UByte key = 0; key < 127; key++) ASSERT_NE(HashTableFind(table, &key, 1, TRUE, nullptr, nullptr), nullptr);
  ExpectTagsInStep(*table);
  table->t_entries_capacity = 1000;
  const UByte absent = 200;
  EXPECT_EQ(HashTableFind(table, &absent, 1, TRUE, nullptr, nullptr), nullptr);
  for (UByte key = 0; key < 127; key++) EXPECT_NE(HashTableFind(table, &key, 1, FALSE, nullptr, nullptr), nullptr);
  HashTableFree(table);
}

TEST(HashTableTags, GoWithTheSelectionAndComeBackWhenTheSlotsAreEmptied) {
  HashTable* table = HashTableNew(100, nullptr, nullptr, nullptr, 0, 0, FALSE);
  const UByte key = 'k';
  ASSERT_NE(HashTableFind(table, &key, 1, TRUE, nullptr, nullptr), nullptr);
  HashTable* copy = HashTableCopy(table);
  ExpectTagsInStep(*copy);
  EXPECT_NE(copy->t_tags, table->t_tags);
  EXPECT_NE(HashTableFind(copy, &key, 1, FALSE, nullptr, nullptr), nullptr);
  EXPECT_EQ(HashTableSelect(copy, 0, nullptr, nullptr, nullptr), 1u);
  EXPECT_EQ(copy->t_tags, nullptr);
  HashTable* selected = HashTableCopy(copy);
  EXPECT_EQ(selected->t_tags, nullptr);
  HashTableFree(selected);
  HashTableClear(copy);
  ExpectTagsInStep(*copy);
  EXPECT_EQ(HashTableFind(copy, &key, 1, FALSE, nullptr, nullptr), nullptr);
  HashTableFree(copy);

  // Selected into an array the table stays hashed and finds nothing.
  UIntArray array;
  ArrayInit_(&array.a);
  EXPECT_EQ(HashTableSelect(table, 0, nullptr, nullptr, &array), 1u);
  EXPECT_EQ(HashTableFind(table, &key, 1, FALSE, nullptr, nullptr), nullptr);
  ArrayFree_(&array.a, "test", __LINE__);
  HashTableFree(table);
}

TEST(HashTableTags, TableFromAFileGetsThemWhenItGrows) {
  const support::TemporaryDirectory directory;
  HashTable* table = HashTableNew(100, nullptr, nullptr, nullptr, 0, 0, FALSE);
  const UByte key = 'k';
  ASSERT_NE(HashTableFind(table, &key, 1, TRUE, nullptr, nullptr), nullptr);
  ASSERT_TRUE(HashTableWrite(table, directory.file("t").c_str()));
  HashTableFree(table);
  table = HashTableRead(directory.file("t").c_str(), nullptr, nullptr, nullptr, FALSE);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->t_tags, nullptr);
  EXPECT_NE(HashTableFind(table, &key, 1, FALSE, nullptr, nullptr), nullptr);
  HashTableGrow(table, 2.0F, nullptr);
  ExpectTagsInStep(*table);
  EXPECT_NE(HashTableFind(table, &key, 1, FALSE, nullptr, nullptr), nullptr);
  HashTableFree(table);
}

TEST(HashDelTableTags, LeaveNoTraceInSlotsAndHeap) {
  HashDelTable* tagged = HashDelTableNew(60, nullptr, nullptr, nullptr, 4, 0);
  HashDelTable* plain = HashDelTableNew(60, Plain, nullptr, nullptr, 4, 0);
  std::mt19937 random(1);
  for (UInt i = 0; i < 30000; i++) {
    const std::string key = Key(static_cast<UInt>(random() % 3000));
    UInt at_tagged = 0, at_plain = 0;
    switch (random() % 4) {
      case 0:
        ASSERT_EQ(HashDelTableRemove(tagged, Bytes(key), Length(key), nullptr),
                  HashDelTableRemove(plain, Bytes(key), Length(key), nullptr));
        break;
      case 1:
        HashDelTableFind(tagged, Bytes(key), Length(key), FALSE, &at_tagged, nullptr);
        HashDelTableFind(plain, Bytes(key), Length(key), FALSE, &at_plain, nullptr);
        break;
      default:
        if (HashDelTableFind(tagged, Bytes(key), Length(key), TRUE, &at_tagged, nullptr) == nullptr) {
          HashDelTableGrow(tagged, 1.2F, nullptr);
          HashDelTableGrow(plain, 1.2F, nullptr);
        } else {
          ASSERT_NE(HashDelTableFind(plain, Bytes(key), Length(key), TRUE, &at_plain, nullptr), nullptr);
        }
    }
    ASSERT_EQ(at_tagged, at_plain);
    if (i % 1000 == 999) {
      ExpectSame(*tagged, *plain);
      ExpectTagsInStep(*tagged);
      ASSERT_EQ(plain->t_tags, nullptr);
    }
  }
  EXPECT_GT(tagged->t_deleted, 0u);
  HashDelTableFree(tagged);
  HashDelTableFree(plain);
}

TEST(HashDelTableTags, GoWithSelectionsAndImagesAndComeBack) {
  HashDelTable* table = HashDelTableNew(100, nullptr, nullptr, nullptr, 0, 0);
  const UByte key = 'k';
  ASSERT_NE(HashDelTableFind(table, &key, 1, TRUE, nullptr, nullptr), nullptr);
  UByteArray image;
  ArrayInit_(&image.a);
  HashDelTableMemWrite(table, &image);

  HashDelTable* copy = HashDelTableCopy(table);
  ExpectTagsInStep(*copy);
  EXPECT_NE(copy->t_tags, table->t_tags);
  EXPECT_EQ(HashDelTableSelect(copy, 0, nullptr, nullptr), 1u);
  EXPECT_EQ(copy->t_tags, nullptr);
  HashDelTableClear(copy);
  ExpectTagsInStep(*copy);

  UByte* from = image.t.elts;
  ASSERT_TRUE(HashDelTableMemRead(copy, &from, image.t.elts + image.t.length));
  EXPECT_EQ(copy->t_tags, nullptr);
  HashDelTableClear(copy);  // an image's slots have a place for tags too
  ExpectTagsInStep(*copy);
  from = image.t.elts;
  ASSERT_TRUE(HashDelTableMemRead(copy, &from, image.t.elts + image.t.length));
  EXPECT_NE(HashDelTableFind(copy, &key, 1, FALSE, nullptr, nullptr), nullptr);
  EXPECT_TRUE(HashDelTableRemove(copy, &key, 1, nullptr));
  HashDelTableGrow(copy, 2.0F, nullptr);
  ExpectTagsInStep(*copy);
  HashDelTableGrow(copy, 200.0F, nullptr);
  HashDelTableClear(copy);  // starts again with few slots
  EXPECT_EQ(copy->t_tags, nullptr);
  HashDelTableFree(copy);
  HashDelTableFree(table);
  ArrayFree_(&image.a, "test", __LINE__);
}

// Zero bytes at a key's end do not change its hash: all of these share start and tag, and only their lengths differ.
std::string Alike(UInt zeros) { return "k" + std::string(zeros, '\0'); }

constexpr UInt kAlike = 200;  // past the lengths that take one byte

TEST(HashTableTags, TellKeysApartThatHashAlike) {
  HashTable* table = HashTableNew(kAlike, nullptr, nullptr, nullptr, 1, 0, FALSE);
  std::vector<std::string> keys;
  for (UInt i = 0; i < kAlike; i++) keys.push_back(Alike(i));
  for (UInt i = 0; i < kAlike; i += 2) {
    UByte* entry = HashTableFind(table, Bytes(keys[i]), Length(keys[i]), TRUE, nullptr, nullptr);
    ASSERT_NE(entry, nullptr);
    *entry = static_cast<UByte>(i);
  }
  ExpectTagsInStep(*table);
  std::vector<const UByte*> bytes;
  std::vector<UInt> lengths;
  for (UInt i = 0; i < kAlike; i++) {
    bytes.push_back(Bytes(keys[i]));
    lengths.push_back(Length(keys[i]));
    const UByte* entry = HashTableFind(table, bytes[i], lengths[i], FALSE, nullptr, nullptr);
    ASSERT_EQ(entry != nullptr, i % 2 == 0) << i;
    if (entry != nullptr) {
      EXPECT_EQ(*entry, i);
    }
  }
  std::vector<UByte*> entries(kAlike);
  HashTableFindMany(table, kAlike, bytes.data(), lengths.data(), entries.data(), nullptr, nullptr);
  for (UInt i = 0; i < kAlike; i++) {
    ASSERT_EQ(entries[i] != nullptr, i % 2 == 0) << i;
    if (entries[i] != nullptr) {
      EXPECT_EQ(*entries[i], i);
    }
  }
  HashTableFree(table);
}

TEST(HashDelTableTags, TellKeysApartThatHashAlike) {
  HashDelTable* table = HashDelTableNew(2 * kAlike, nullptr, nullptr, nullptr, 1, 0);
  for (UInt i = 0; i < kAlike; i += 2) {
    UByte* entry = HashDelTableFind(table, Bytes(Alike(i)), Length(Alike(i)), TRUE, nullptr, nullptr);
    ASSERT_NE(entry, nullptr);
    *entry = static_cast<UByte>(i);
  }
  for (UInt i = 0; i < kAlike; i++) {
    if (i % 4 != 0) continue;
    ASSERT_TRUE(HashDelTableRemove(table, Bytes(Alike(i)), Length(Alike(i)), nullptr)) << i;
    ASSERT_FALSE(HashDelTableRemove(table, Bytes(Alike(i)), Length(Alike(i)), nullptr)) << i;
    ASSERT_FALSE(HashDelTableRemove(table, Bytes(Alike(i + 1)), Length(Alike(i + 1)), nullptr)) << i;
  }
  EXPECT_EQ(HashDelTableSize(table), 50u);
  ExpectTagsInStep(*table);
  for (UInt i = 0; i < kAlike; i++) {
    const UByte* entry = HashDelTableFind(table, Bytes(Alike(i)), Length(Alike(i)), FALSE, nullptr, nullptr);
    ASSERT_EQ(entry != nullptr, i % 4 == 2) << i;
    if (entry != nullptr) {
      EXPECT_EQ(*entry, i);
    }
  }
  HashDelTableFree(table);
}

TEST(TableTags, SmallTablesHaveNone) {
  HashTable* table = HashTableNew(40, nullptr, nullptr, nullptr, 0, 0, FALSE);
  EXPECT_EQ(table->t_entries_size, 61u);
  EXPECT_EQ(table->t_tags, nullptr);
  HashTableFree(table);
  table = HashTableNew(44, nullptr, nullptr, nullptr, 0, 0, FALSE);
  EXPECT_EQ(table->t_entries_size, 67u);
  EXPECT_NE(table->t_tags, nullptr);
  HashTableFree(table);
}

}  // namespace
