// HashDelTable: memory, look-up, removal, growth and clean-up. tests/hashdeltable_walk_test.cc has walks and
// selections, tests/hashdeltable_image_test.cc memory images, whole and damaged.

#include "dict/hashdeltable.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <sys/mman.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "support/death.h"
#include "support/hashdeltable_model.h"
#include "support/ledger.h"
#include "support/messages.h"

namespace {

using support::Bytes;
using support::Find;
using support::HashDelTableModel;
using support::HashDelTablePtr;
using support::Insert;
using support::KeyText;
using support::Length;
using support::OffsetOf;
using support::Remove;
using support::SlotsOf;
using support::Text;

constexpr UInt kEmpty = 0xFFFFFFFF;
constexpr UInt kTombstone = 0xFFFFFFFE;

// The hash is the key's first character, as a digit: keys say where they start.
UInt HashToDigit(const UByte* bytes, UInt len, void*) { return len == 0 ? 0 : static_cast<UInt>(bytes[0] - '0'); }

HashDelTablePtr New(UInt capacity, UInt val_len = 8, UInt key_size = 0) {
  return HashDelTablePtr(HashDelTableNew(capacity, nullptr, nullptr, nullptr, val_len, key_size));
}

// A table of 7 slots that hashes by digit, with values of 7 bytes: an entry with a key of up to 8 bytes takes 16.
HashDelTablePtr NewByDigit() { return HashDelTablePtr(HashDelTableNew(5, HashToDigit, nullptr, nullptr, 7, 0)); }

// Where an insertion put a key; 0xABCDABCD when it refused.
UInt InsertedAt(HashDelTable* table, const std::string& key) {
  UInt offset = 0xABCDABCD;
  const UByte* entry = HashDelTableFind(table, Bytes(key), Length(key), TRUE, &offset, nullptr);
  EXPECT_EQ(entry, offset == 0xABCDABCD ? nullptr : table->t_data + offset);
  return offset;
}

// Everything that a caller can see of a record.
std::string Snapshot(HashDelTable* table) {
  return support::Image(table) + '|' + Text(table->t_data, table->t_data_size) + '|' +
         std::to_string(table->t_data_size) + (table->t_aligned ? 'a' : 'u');
}

TEST(HashDelTableInit, MakesAnEmptyTableOfAnyRecord) {
  HashDelTable table;
  std::memset(&table, 0xA5, sizeof table);
  const auto hash = [](const UByte*, UInt, void*) -> UInt { return 1; };
  const auto value = [](UByte*, const UByte*, UInt, void*) -> Boolean { return TRUE; };
  const auto equal = [](const UByte*, UInt, const UByte*, UInt, void*) -> Boolean { return FALSE; };
  HashDelTableInit(&table, 6, hash, value, equal, 12, 3);
  EXPECT_EQ(table.t_hash, +hash);
  EXPECT_EQ(table.t_value, +value);
  EXPECT_EQ(table.t_equal, +equal);
  EXPECT_EQ(table.t_data_used, 0u);
  EXPECT_EQ(table.t_data_size, 55u);
  EXPECT_EQ(table.t_nkeys_max, 6u);
  EXPECT_EQ(table.t_nkeys, 0u);
  EXPECT_EQ(table.t_nentries, 11u);
  EXPECT_EQ(table.t_deleted, 0u);
  EXPECT_EQ(table.t_val_len, 12u);
  EXPECT_EQ(table.t_selected, FALSE);
  EXPECT_EQ(table.t_key_size, 3);
  EXPECT_EQ(table.t_aligned, TRUE);
  EXPECT_EQ(SlotsOf(&table), std::vector<UInt>(11, kEmpty));
  EXPECT_EQ(Text(table.t_data, 55), std::string(55, '\0'));
  UnAllocate_(table.t_data, "test", __LINE__);
  UnAllocate_(table.t_entries, "test", __LINE__);
}

TEST(HashDelTableNew, TakesACapacityOfAtLeastFive) {
  for (const UInt capacity : {0u, 1u, 4u, 5u}) {
    const HashDelTablePtr table = New(capacity);
    EXPECT_EQ(HashDelTableCapacity(table.get()), 5u) << capacity;
    EXPECT_EQ(table->t_nentries, 7u);
    EXPECT_EQ(table->t_data_size, 35u);
  }
  EXPECT_EQ(New(1000)->t_nentries, 1511u);  // the prime behind 1500
}

TEST(HashDelTableNew, TakesTheLowBitsOfTheKeySize) {
  EXPECT_EQ(New(5, 8, 0x102)->t_key_size, 2);
  EXPECT_EQ(New(5, 8, 0x100)->t_key_size, 0);
}

TEST(HashDelTableInit, WhatARecordOwnsIsItsHeapAndItsSlots) {
  const support::Ledger ledger;
  HashDelTable table;
  HashDelTableInit(&table, 1000, nullptr, nullptr, nullptr, 8, 0);
  HashDelTableGrow(&table, 1.5F, nullptr);
  const UByte key = 'k';
  EXPECT_NE(HashDelTableFind(&table, &key, 1, TRUE, nullptr, nullptr), nullptr);
  EXPECT_EQ(ledger.blocks(), 2u);
  UnAllocate_(table.t_data, "test", __LINE__);
  UnAllocate_(table.t_entries, "test", __LINE__);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST(HashDelTableInitDeathTest, EndsTheProcessWhereTheSlotCountWouldWrap) {
  HashDelTable table;
  EXPECT_CLEAR_END(HashDelTableInit(&table, 1431655766, nullptr, nullptr, nullptr, 8, 0),
                   ":hashdeltable: capacity too large: capacity=1431655766\n");
  EXPECT_CLEAR_END(HashDelTableNew(0xFFFFFFFF, nullptr, nullptr, nullptr, 8, 0),
                   ":hashdeltable: capacity too large: capacity=4294967295\n");
}

TEST(HashDelTableFind, InsertsOnlyWhenAsked) {
  const HashDelTablePtr table = New(5);
  EXPECT_EQ(Find(table.get(), "one"), nullptr);
  EXPECT_EQ(HashDelTableSize(table.get()), 0u);
  UInt offset = 77;
  UByte* entry = HashDelTableFind(table.get(), Bytes("one"), 3, TRUE, &offset, nullptr);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(offset, 0u);
  EXPECT_EQ(entry, table->t_data);
  EXPECT_EQ(HashDelTableSize(table.get()), 1u);
  offset = 77;
  EXPECT_EQ(HashDelTableFind(table.get(), Bytes("one"), 3, FALSE, &offset, nullptr), entry);
  EXPECT_EQ(offset, 0u);
  offset = 77;
  EXPECT_EQ(HashDelTableFind(table.get(), Bytes("two"), 3, FALSE, &offset, nullptr), nullptr);
  EXPECT_EQ(offset, 77u);
  EXPECT_EQ(Insert(table.get(), "one"), entry);
  EXPECT_EQ(HashDelTableSize(table.get()), 1u);
}

TEST(HashDelTableFind, TakesEveryTrueForCreate) {
  const HashDelTablePtr table = New(5);
  EXPECT_NE(HashDelTableFind(table.get(), Bytes("k"), 1, -2, nullptr, nullptr), nullptr);
}

TEST(HashDelTableFind, LaysAnEntryOutAsValueLengthAndKey) {
  const HashDelTablePtr table = New(5, 3);
  std::memcpy(Insert(table.get(), "ab"), "VVV", 3);
  std::memcpy(Insert(table.get(), "xyz"), "WWW", 3);
  EXPECT_EQ(Text(table->t_data, table->t_data_used), std::string("VVV\x04"
                                                                 "ab\0\0"
                                                                 "WWW\x06xyz",
                                                                 15));
  EXPECT_EQ(table->t_data_used, 15u);
}

TEST(HashDelTableFind, WritesKeyLengthsOfFixedWidth) {
  for (UInt width = 1; width <= 4; width++) {
    const HashDelTablePtr table = New(5, 0, width);
    const std::string key(200, 'k');
    ASSERT_NE(Insert(table.get(), key), nullptr);
    EXPECT_EQ(Text(table->t_data, table->t_data_used), '\xC8' + std::string(width - 1, '\0') + key) << width;
    EXPECT_EQ(Find(table.get(), key), table->t_data);
  }
}

TEST(HashDelTableFind, SwitchesTheKeyLengthFieldWhereItsRangesEnd) {
  const struct {
    size_t length;
    std::string field;
  } cases[] = {
      {127, "\xFE"},
      {128, {"\x01\x02", 2}},
      {16383, "\xFF\xFE"},
      {16384, {"\x01\x01\x02", 3}},
      {2097151, "\xFF\xFF\xFE"},
      {2097152, {"\x01\x01\x01\x02", 4}},
  };
  for (const auto& c : cases) {
    const HashDelTablePtr table = New(5, 1);
    const std::string key(c.length, 'k');
    ASSERT_NE(Insert(table.get(), key), nullptr);
    EXPECT_EQ(table->t_data_used, 1 + c.field.size() + c.length) << c.length;
    EXPECT_EQ(Text(table->t_data + 1, c.field.size()), c.field) << c.length;
    EXPECT_EQ(Find(table.get(), key), table->t_data);
    EXPECT_TRUE(KeyText(table.get(), table->t_data) == key);
  }
}

TEST(HashDelTableFind, EmptyKeyIsAKey) {
  const HashDelTablePtr table = New(5, 2);
  UByte* entry = HashDelTableFind(table.get(), nullptr, 0, TRUE, nullptr, nullptr);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(table->t_entries[0], 0u);
  EXPECT_EQ(Text(table->t_data, table->t_data_used), std::string(3, '\0'));
  EXPECT_EQ(Find(table.get(), ""), entry);
  EXPECT_EQ(KeyText(table.get(), entry), "");
  EXPECT_EQ(HashDelTableRemove(table.get(), nullptr, 0, nullptr), TRUE);
  EXPECT_EQ(Find(table.get(), ""), nullptr);
}

TEST(HashDelTableFind, PlacesByTheDefaultHash) {
  const HashDelTablePtr table = New(5);
  // HashBytes: "two" 7362138, 0 modulo 7; "one" 6699330, 1; "three" 4244836632, 1; "abc" 6564134, 3.
  for (const char* key : {"two", "one", "three", "abc"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  // "three" goes from 1 by 4 to 5.
  EXPECT_EQ(SlotsOf(table.get()), (std::vector<UInt>{0, 16, kEmpty, 48, kEmpty, 32, kEmpty}));
}

TEST(HashDelTableFind, GoesOnByTheStepOfItsStart) {
  // From 0 by 5, from 3 by 2, from 5 by 5 (its rest is 0), from 6 by 4: each time through all 7 slots.
  const struct {
    const char* digit;
    UInt way[7];
  } cases[] = {{"0", {0, 5, 3, 1, 6, 4, 2}}, {"1", {1, 5, 2, 6, 3, 0, 4}}, {"2", {2, 5, 1, 4, 0, 3, 6}},
               {"3", {3, 5, 0, 2, 4, 6, 1}}, {"4", {4, 5, 6, 0, 1, 2, 3}}, {"5", {5, 3, 1, 6, 4, 2, 0}},
               {"6", {6, 3, 0, 4, 1, 5, 2}}};
  for (const auto& c : cases) {
    const HashDelTablePtr table = NewByDigit();
    std::vector<UInt> slots(7, kEmpty);
    for (UInt i = 0; i < 5; i++) {
      slots[c.way[i]] = 16 * i;
      ASSERT_EQ(InsertedAt(table.get(), c.digit + std::to_string(i)), 16 * i);
      ASSERT_EQ(SlotsOf(table.get()), slots) << "start " << c.digit << ", key " << i;
    }
  }
}

TEST(HashDelTableFind, RefusesMoreKeysThanTheCapacity) {
  const HashDelTablePtr table = New(5);
  for (const char* key : {"a", "b", "c", "d"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  EXPECT_EQ(HashDelTableFull(table.get()), FALSE);
  ASSERT_NE(Insert(table.get(), "e"), nullptr);
  EXPECT_EQ(HashDelTableFull(table.get()), TRUE);
  const std::string before = Snapshot(table.get());
  UInt offset = 77;
  EXPECT_EQ(HashDelTableFind(table.get(), Bytes("f"), 1, TRUE, &offset, nullptr), nullptr);
  EXPECT_EQ(offset, 77u);
  EXPECT_EQ(Snapshot(table.get()), before);
  EXPECT_EQ(InsertedAt(table.get(), "c"), 32u);  // one that is there is found all the same
  HashDelTableGrow(table.get(), 1.5F, nullptr);
  EXPECT_EQ(HashDelTableCapacity(table.get()), 7u);
  EXPECT_EQ(InsertedAt(table.get(), "f"), 80u);
  UInt place = 0;
  for (const char* key : {"a", "b", "c", "d", "e", "f"}) {
    EXPECT_EQ(Find(table.get(), key), table->t_data + place);
    place += 16;
  }
}

TEST(HashDelTableFind, CountsTombstonesTwice) {
  const HashDelTablePtr table = New(5);
  for (const char* key : {"a", "b", "c", "d", "e"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  EXPECT_TRUE(Remove(table.get(), "b"));
  EXPECT_TRUE(Remove(table.get(), "d"));
  EXPECT_EQ(HashDelTableSize(table.get()), 3u);
  EXPECT_EQ(table->t_deleted, 2u);
  EXPECT_EQ(HashDelTableFull(table.get()), FALSE);
  const std::string before = Snapshot(table.get());
  EXPECT_EQ(Insert(table.get(), "f"), nullptr);  // 2 * 2 + 3 >= 5
  EXPECT_EQ(Snapshot(table.get()), before);
  HashDelTableGrow(table.get(), 1.00001F, nullptr);
  EXPECT_EQ(HashDelTableCapacity(table.get()), 5u);
  EXPECT_NE(Insert(table.get(), "f"), nullptr);
  EXPECT_NE(Insert(table.get(), "g"), nullptr);
  EXPECT_EQ(Insert(table.get(), "h"), nullptr);
}

TEST(HashDelTableFind, InsertsBesideATombstoneWhileTwiceItsNumberFits) {
  const HashDelTablePtr table = New(5);
  ASSERT_NE(Insert(table.get(), "a"), nullptr);
  ASSERT_TRUE(Remove(table.get(), "a"));
  ASSERT_NE(Insert(table.get(), "b"), nullptr);  // 2 * 1 + 0 < 5
  ASSERT_NE(Insert(table.get(), "c"), nullptr);
  ASSERT_NE(Insert(table.get(), "d"), nullptr);  // 2 * 1 + 2 < 5
  EXPECT_EQ(Insert(table.get(), "e"), nullptr);  // 2 * 1 + 3 >= 5
}

TEST(HashDelTableFind, PassesTombstonesOnTheWayToAKey) {
  const HashDelTablePtr table = NewByDigit();
  for (const char* key : {"0a", "0b", "0c"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  EXPECT_TRUE(Remove(table.get(), "0a"));
  EXPECT_TRUE(Remove(table.get(), "0b"));
  EXPECT_EQ(SlotsOf(table.get()), (std::vector<UInt>{kTombstone, kEmpty, kEmpty, 32, kEmpty, kTombstone, kEmpty}));
  EXPECT_EQ(Find(table.get(), "0c"), table->t_data + 32);
  EXPECT_EQ(Find(table.get(), "0a"), nullptr);
  EXPECT_TRUE(Remove(table.get(), "0c"));
  EXPECT_EQ(Find(table.get(), "0c"), nullptr);
}

TEST(HashDelTableFind, LeavesTombstonesAloneWhenItInserts) {
  const HashDelTablePtr table = NewByDigit();
  ASSERT_NE(Insert(table.get(), "0a"), nullptr);
  ASSERT_TRUE(Remove(table.get(), "0a"));
  UInt offset = 0;
  ASSERT_NE(HashDelTableFind(table.get(), Bytes("0a"), 2, TRUE, &offset, nullptr), nullptr);
  EXPECT_EQ(offset, 16u);  // a second copy, behind the first
  EXPECT_EQ(SlotsOf(table.get()), (std::vector<UInt>{kTombstone, kEmpty, kEmpty, kEmpty, kEmpty, 16, kEmpty}));
  EXPECT_EQ(table->t_deleted, 1u);
  EXPECT_EQ(table->t_nkeys, 1u);
  EXPECT_EQ(Text(table->t_data, table->t_data_used), std::string("\0\0\0\0\0\0\0\x04"
                                                                 "0a\0\0\0\0\0\0"
                                                                 "\0\0\0\0\0\0\0\x04"
                                                                 "0a",
                                                                 26));
}

struct Calls {
  std::vector<std::string> log;
  bool refuse = false;
};

UInt LoggingHash(const UByte* bytes, UInt len, void* ptr) {
  static_cast<Calls*>(ptr)->log.push_back("hash " + Text(bytes, len));
  return 4;
}

Boolean LoggingValue(UByte* value, const UByte* bytes, UInt len, void* ptr) {
  auto* calls = static_cast<Calls*>(ptr);
  calls->log.push_back("value " + Text(bytes, len));
  std::memset(value, 'v', 3);
  return calls->refuse ? FALSE : 2;  // every number but 0 is true
}

Boolean LoggingEqual(const UByte* stored, UInt stored_len, const UByte* bytes, UInt len, void* ptr) {
  static_cast<Calls*>(ptr)->log.push_back("equal " + Text(stored, stored_len) + " " + Text(bytes, len));
  return stored[0] == bytes[0] ? -1 : FALSE;
}

TEST(HashDelTableFind, HandsKeysAndPointerToTheCallbacks) {
  const HashDelTablePtr table(HashDelTableNew(5, LoggingHash, LoggingValue, LoggingEqual, 3, 0));
  Calls calls;
  ASSERT_NE(Insert(table.get(), "ab", &calls), nullptr);
  ASSERT_NE(Insert(table.get(), "cde", &calls), nullptr);
  EXPECT_EQ(Find(table.get(), "cx", &calls), table->t_data + 8);  // equal is what the callback says
  EXPECT_TRUE(Remove(table.get(), "ay", &calls));
  EXPECT_EQ(calls.log, (std::vector<std::string>{"hash ab", "value ab", "hash cde", "equal ab cde", "value cde",
                                                 "hash cx", "equal ab cx", "equal cde cx", "hash ay", "equal ab ay"}));
  EXPECT_EQ(Text(table->t_data, 6),
            "vvv\x04"
            "ab");
  calls.log.clear();
  HashDelTableGrow(table.get(), 2.0F, &calls);
  EXPECT_EQ(calls.log, (std::vector<std::string>{"hash cde"}));
}

TEST(HashDelTableFind, KeepsOnlyThePaddingOfARefusedInsertion) {
  const HashDelTablePtr table(HashDelTableNew(5, LoggingHash, LoggingValue, LoggingEqual, 3, 0));
  Calls calls;
  ASSERT_NE(Insert(table.get(), "a", &calls), nullptr);
  EXPECT_EQ(table->t_data_used, 5u);
  const std::vector<UInt> slots = SlotsOf(table.get());
  calls.refuse = true;
  UInt offset = 77;
  EXPECT_EQ(HashDelTableFind(table.get(), Bytes("b"), 1, TRUE, &offset, &calls), nullptr);
  EXPECT_EQ(offset, 77u);
  EXPECT_EQ(table->t_data_used, 8u);
  EXPECT_EQ(table->t_nkeys, 1u);
  EXPECT_EQ(SlotsOf(table.get()), slots);
  calls.refuse = false;
  EXPECT_EQ(Insert(table.get(), "b", &calls), table->t_data + 8);
}

TEST(HashDelTableFind, FillsAValueWithZeros) {
  const HashDelTablePtr table = New(5, 20);
  std::memset(Insert(table.get(), "a"), 0xFF, 20);
  HashDelTableClear(table.get());
  EXPECT_EQ(Text(Insert(table.get(), "b"), 20), std::string(20, '\0'));  // where 0xFF lay
}

TEST(HashDelTableFind, ComparesEveryByteOfKeysThatHashAlike) {
  const HashDelTablePtr table(HashDelTableNew(400, support::HashToOne, nullptr, nullptr, 1, 0));
  const std::string base(70, 'k');
  for (size_t length = 0; length <= 70; length += 7) ASSERT_NE(Insert(table.get(), base.substr(0, length)), nullptr);
  for (size_t i = 0; i < 70; i++) {
    std::string other = base;
    other[i] = 'K';
    ASSERT_EQ(Find(table.get(), other), nullptr) << i;
    ASSERT_NE(Insert(table.get(), other), nullptr);
  }
  EXPECT_EQ(HashDelTableSize(table.get()), 81u);
}

TEST(HashDelTableFind, EnlargesTheHeapByHalfOrByWhatIsNeeded) {
  const HashDelTablePtr table = New(5, 8);
  EXPECT_EQ(table->t_data_size, 35u);
  ASSERT_NE(Insert(table.get(), std::string(22, 'a')), nullptr);  // 8 + 22 + 5 fit
  EXPECT_EQ(table->t_data_size, 35u);
  EXPECT_EQ(table->t_data_used, 31u);
  ASSERT_NE(Insert(table.get(), "b"), nullptr);  // 31 + 1 + 8 + 1 + 5 = 46 bytes; half more are 52
  EXPECT_EQ(table->t_data_size, 52u);
  ASSERT_NE(Insert(table.get(), std::string(100, 'c')), nullptr);  // 42 + 6 + 8 + 100 + 5
  EXPECT_EQ(table->t_data_size, 161u);
  EXPECT_EQ(table->t_data_used, 157u);
  EXPECT_EQ(Text(table->t_data + 157, 4), std::string(4, '\0'));
}

TEST(HashDelTableFind, PadsInAnUnalignedTableToo) {
  const HashDelTablePtr table = New(5, 1);
  table->t_aligned = FALSE;
  UInt offset = 0;
  for (const UInt expected : {0u, 8u, 16u}) {
    ASSERT_NE(HashDelTableFind(table.get(), Bytes(std::to_string(expected)), 1, TRUE, &offset, nullptr), nullptr);
    EXPECT_EQ(offset, expected);
  }
}

TEST(HashDelTableFind, TakesAKeyFromItsOwnHeap) {
  const HashDelTablePtr table = New(100, 0);
  ASSERT_NE(Insert(table.get(), std::string(400, 'x') + "tail"), nullptr);
  // Each key is a piece of the first entry; the heap moves again and again.
  for (UInt len = 1; len < 90; len++) {
    const UByte* bytes = nullptr;
    const UInt whole = HashDelTableKey(table.get(), table->t_data, &bytes);
    ASSERT_EQ(whole, 404u);
    ASSERT_NE(HashDelTableFind(table.get(), bytes + whole - len, len, TRUE, nullptr, nullptr), nullptr);
  }
  for (UInt len = 1; len < 90; len++) {
    EXPECT_NE(Find(table.get(), (std::string(400, 'x') + "tail").substr(404 - len)), nullptr) << len;
  }
}

TEST(HashDelTableRemove, TakesAKeyFromTheVeryEntryThatGoes) {
  const HashDelTablePtr table = New(5, 0);
  UByte* entry = Insert(table.get(), "self");
  const UByte* bytes = nullptr;
  const UInt len = HashDelTableKey(table.get(), entry, &bytes);
  EXPECT_EQ(HashDelTableRemove(table.get(), bytes, len, nullptr), TRUE);
  EXPECT_EQ(HashDelTableRemove(table.get(), bytes, len, nullptr), FALSE);
  EXPECT_NE(HashDelTableFind(table.get(), bytes, len, TRUE, nullptr, nullptr), nullptr);
}

TEST(HashDelTableRemove, LeavesTheEntryInTheHeap) {
  const HashDelTablePtr table = NewByDigit();
  ASSERT_NE(Insert(table.get(), "1a"), nullptr);
  ASSERT_NE(Insert(table.get(), "2b"), nullptr);
  const std::string heap = Text(table->t_data, table->t_data_used);
  EXPECT_EQ(HashDelTableRemove(table.get(), Bytes("1a"), 2, nullptr), TRUE);
  EXPECT_EQ(table->t_deleted, 1u);
  EXPECT_EQ(table->t_nkeys, 1u);
  EXPECT_EQ(Text(table->t_data, table->t_data_used), heap);
  EXPECT_EQ(SlotsOf(table.get()), (std::vector<UInt>{kEmpty, kTombstone, 16, kEmpty, kEmpty, kEmpty, kEmpty}));
}

TEST(HashDelTableRemove, ChangesNothingForAnAbsentKey) {
  const HashDelTablePtr table = NewByDigit();
  for (const char* key : {"0a", "0b", "1c"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  ASSERT_TRUE(Remove(table.get(), "0a"));
  const std::string before = Snapshot(table.get());
  for (const char* key : {"0a", "0c", "6", ""}) EXPECT_FALSE(Remove(table.get(), key)) << key;
  EXPECT_EQ(Snapshot(table.get()), before);
}

TEST(HashDelTableRemove, DoesNotMindALengthPastTheField) {
  const HashDelTablePtr table = New(5, 0, 1);
  ASSERT_NE(Insert(table.get(), "a"), nullptr);
  EXPECT_FALSE(Remove(table.get(), std::string(256, 'a')));
}

TEST(HashDelTableGrow, MovesTheLiveEntriesToTheFront) {
  const HashDelTablePtr table = NewByDigit();
  const std::string long_key = "4" + std::string(20, 'l');
  for (const std::string& key :
       {std::string("0a"), std::string("1b"), std::string("2c"), std::string("3d"), long_key}) {
    UByte* entry = Insert(table.get(), key);
    ASSERT_NE(entry, nullptr);
    std::memset(entry, key[0], 7);
  }
  EXPECT_EQ(table->t_data_used, 93u);
  const size_t size = table->t_data_size;
  EXPECT_TRUE(Remove(table.get(), "0a"));
  EXPECT_TRUE(Remove(table.get(), "2c"));
  HashDelTableGrow(table.get(), 1.5F, nullptr);
  EXPECT_EQ(table->t_deleted, 0u);
  EXPECT_EQ(table->t_nkeys, 3u);
  EXPECT_EQ(table->t_nkeys_max, 7u);
  EXPECT_EQ(table->t_nentries, 11u);
  EXPECT_EQ(table->t_data_size, size);
  EXPECT_EQ(table->t_data_used, 64u);
  EXPECT_EQ(Text(table->t_data, 64), std::string("1111111\x04"
                                                 "1b\0\0\0\0\0\0"
                                                 "3333333\x04"
                                                 "3d\0\0\0\0\0\0"
                                                 "4444444\x2A"
                                                 "4llllllllllllllllllll\0\0\0",
                                                 64));
  EXPECT_EQ(SlotsOf(table.get()),
            (std::vector<UInt>{kEmpty, 0, kEmpty, 16, 32, kEmpty, kEmpty, kEmpty, kEmpty, kEmpty, kEmpty}));
  EXPECT_EQ(Find(table.get(), "1b"), table->t_data);
  EXPECT_EQ(Find(table.get(), "3d"), table->t_data + 16);
  EXPECT_EQ(Find(table.get(), long_key), table->t_data + 32);
  EXPECT_EQ(Find(table.get(), "0a"), nullptr);
  EXPECT_EQ(Find(table.get(), "2c"), nullptr);
}

TEST(HashDelTableGrow, LeavesTheHeapAloneWithoutTombstones) {
  const HashDelTablePtr table = NewByDigit();
  for (const char* key : {"0a", "0b"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  const UByte* data = table->t_data;
  HashDelTableGrow(table.get(), 3.0F, nullptr);
  EXPECT_EQ(table->t_data, data);
  EXPECT_EQ(table->t_data_used, 26u);  // not rounded up
  EXPECT_EQ(HashDelTableCapacity(table.get()), 15u);
  EXPECT_EQ(table->t_nentries, 23u);
  std::vector<UInt> slots(23, kEmpty);
  slots[0] = 0;
  slots[21] = 16;  // from 0 by 21
  EXPECT_EQ(SlotsOf(table.get()), slots);
}

TEST(HashDelTableGrow, EmptiesATableOfTombstones) {
  const HashDelTablePtr table = New(5);
  for (const char* key : {"a", "b", "c", "d", "e"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  for (const char* key : {"a", "b", "c", "d", "e"}) ASSERT_TRUE(Remove(table.get(), key));
  EXPECT_EQ(Insert(table.get(), "a"), nullptr);
  HashDelTableGrow(table.get(), 1.00001F, nullptr);
  EXPECT_EQ(table->t_data_used, 0u);
  EXPECT_EQ(table->t_deleted, 0u);
  EXPECT_EQ(SlotsOf(table.get()), std::vector<UInt>(7, kEmpty));
  EXPECT_EQ(InsertedAt(table.get(), "a"), 0u);
}

TEST(HashDelTableGrow, PacksAnUnalignedHeap) {
  const HashDelTablePtr table = NewByDigit();
  for (const char* key : {"0a", "1b", "2c"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  ASSERT_TRUE(Remove(table.get(), "0a"));
  table->t_aligned = FALSE;
  HashDelTableGrow(table.get(), 1.00001F, nullptr);
  EXPECT_EQ(table->t_data_used, 20u);
  EXPECT_EQ(Text(table->t_data, 20), std::string("\0\0\0\0\0\0\0\x04"
                                                 "1b\0\0\0\0\0\0\0\x04"
                                                 "2c",
                                                 20));
  EXPECT_EQ(Find(table.get(), "2c"), table->t_data + 10);
}

TEST(HashDelTableGrow, MultipliesInSinglePrecisionAndCuts) {
  const HashDelTablePtr table = New(10);
  HashDelTableGrow(table.get(), 1.3F, nullptr);  // 12.9999995 in double precision
  EXPECT_EQ(HashDelTableCapacity(table.get()), 13u);
  HashDelTableGrow(table.get(), 1.07F, nullptr);  // 13.91
  EXPECT_EQ(HashDelTableCapacity(table.get()), 13u);
  EXPECT_EQ(table->t_nentries, 19u);
}

TEST(HashDelTableGrow, RefusesACapacityWithoutASlotCount) {
  const HashDelTablePtr table = NewByDigit();
  for (const char* key : {"0a", "0b", "1c"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  ASSERT_TRUE(Remove(table.get(), "0a"));
  const std::string before = Snapshot(table.get());
  for (const float factor : {std::numeric_limits<float>::infinity(), 1e30F, 3e8F}) {
    const support::Messages messages;
    HashDelTableGrow(table.get(), factor, nullptr);
    ASSERT_EQ(messages.all().size(), 1u) << factor;
    EXPECT_EQ(messages.all()[0].file, "dict/hashdeltable");
    EXPECT_EQ(messages.all()[0].function, "HashDelTableGrow");
    EXPECT_EQ(messages.all()[0].level, 4);
    EXPECT_EQ(Snapshot(table.get()), before) << factor;
  }
  const support::Messages messages;
  HashDelTableGrow(table.get(), std::numeric_limits<float>::infinity(), nullptr);
  EXPECT_EQ(messages.texts(), (std::vector<std::string>{":hashdeltable: capacity too large: capacity=5, factor=inf"}));
}

TEST(HashDelTableClear, KeepsCapacityAndMemory) {
  const HashDelTablePtr table = New(20, 8);
  for (int i = 0; i < 20; i++) ASSERT_NE(Insert(table.get(), "key" + std::to_string(i)), nullptr);
  ASSERT_TRUE(Remove(table.get(), "key7"));
  const UByte* data = table->t_data;
  const UInt* slots = table->t_entries;
  const size_t size = table->t_data_size;
  table->t_aligned = FALSE;
  HashDelTableClear(table.get());
  EXPECT_EQ(table->t_nkeys, 0u);
  EXPECT_EQ(table->t_deleted, 0u);
  EXPECT_EQ(table->t_data_used, 0u);
  EXPECT_EQ(table->t_nkeys_max, 20u);
  EXPECT_EQ(table->t_data, data);
  EXPECT_EQ(table->t_data_size, size);
  EXPECT_EQ(table->t_entries, slots);
  EXPECT_EQ(table->t_aligned, FALSE);
  EXPECT_EQ(SlotsOf(table.get()), std::vector<UInt>(31, kEmpty));
  EXPECT_EQ(Find(table.get(), "key3"), nullptr);
  EXPECT_EQ(InsertedAt(table.get(), "key3"), 0u);
}

TEST(HashDelTableClear, LeadsBackFromTheSelectedState) {
  const HashDelTablePtr table = New(5);
  ASSERT_NE(Insert(table.get(), "a"), nullptr);
  EXPECT_EQ(HashDelTableSelect(table.get(), 0, nullptr, nullptr), 1u);
  HashDelTableClear(table.get());
  EXPECT_EQ(table->t_selected, FALSE);
  EXPECT_EQ(Find(table.get(), "a"), nullptr);
  EXPECT_NE(Insert(table.get(), "a"), nullptr);
}

TEST(HashDelTableClear, KeepsATableOf9973Slots) {
  const HashDelTablePtr table = New(6649);
  ASSERT_EQ(table->t_nentries, 9973u);
  HashDelTableClear(table.get());
  EXPECT_EQ(table->t_nentries, 9973u);
  EXPECT_EQ(HashDelTableCapacity(table.get()), 6649u);
}

TEST(HashDelTableClear, GivesTheMemoryOfALargeTableBack) {
  const auto value = [](UByte* bytes, const UByte*, UInt, void*) -> Boolean {
    std::memset(bytes, 'v', 9);
    return TRUE;
  };
  const auto equal = [](const UByte*, UInt a, const UByte*, UInt b, void*) -> Boolean { return a == b; };
  const HashDelTablePtr table(HashDelTableNew(6650, HashToDigit, value, equal, 9, 2));
  ASSERT_EQ(table->t_nentries, 10007u);
  ASSERT_NE(Insert(table.get(), "0a"), nullptr);
  table->t_aligned = FALSE;
  HashDelTableClear(table.get());
  EXPECT_EQ(table->t_nentries, 7u);
  EXPECT_EQ(table->t_nkeys_max, 5u);
  EXPECT_EQ(table->t_data_size, 35u);
  EXPECT_EQ(table->t_data_used, 0u);
  EXPECT_EQ(table->t_nkeys, 0u);
  EXPECT_EQ(table->t_aligned, TRUE);
  EXPECT_EQ(table->t_hash, HashToDigit);
  EXPECT_EQ(table->t_value, +value);
  EXPECT_EQ(table->t_equal, +equal);
  EXPECT_EQ(table->t_val_len, 9u);
  EXPECT_EQ(table->t_key_size, 2);
  EXPECT_NE(Insert(table.get(), "0a"), nullptr);
}

TEST(HashDelTableCopy, IsIndependent) {
  const HashDelTablePtr table = NewByDigit();
  for (const char* key : {"0a", "0b", "1c"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  ASSERT_TRUE(Remove(table.get(), "0a"));
  table->t_data[table->t_data_size - 1] = 0x77;  // the whole allocation is copied, not only what is in use
  const HashDelTablePtr copy(HashDelTableCopy(table.get()));
  EXPECT_EQ(Snapshot(copy.get()), Snapshot(table.get()));
  EXPECT_EQ(copy->t_hash, table->t_hash);
  EXPECT_NE(copy->t_data, table->t_data);
  EXPECT_NE(copy->t_entries, table->t_entries);
  ASSERT_TRUE(Remove(copy.get(), "0b"));
  ASSERT_NE(Insert(table.get(), "5x"), nullptr);
  EXPECT_NE(Find(table.get(), "0b"), nullptr);
  EXPECT_EQ(Find(copy.get(), "5x"), nullptr);
}

TEST(HashDelTableKey, TellsLengthAndPlace) {
  const HashDelTablePtr table = New(5, 4, 2);
  UByte* entry = Insert(table.get(), "hello");
  const UByte* bytes = nullptr;
  EXPECT_EQ(HashDelTableKey(table.get(), entry, &bytes), 5u);
  EXPECT_EQ(bytes, entry + 6);
  EXPECT_EQ(HashDelTableGetOffset(table.get(), 0), table->t_data);
  EXPECT_EQ(HashDelTableGetOffset(table.get(), 8), table->t_data + 8);
}

// A heap of more than 4 GiB of which hardly a page is there.
struct SparseHeap {
  static constexpr size_t kSize = (size_t{1} << 32) + (1 << 20);
  explicit SparseHeap(HashDelTable* table) : owner(table), data(table->t_data), size(table->t_data_size) {
    map = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    table->t_data = static_cast<UByte*>(map);
    table->t_data_size = kSize;
  }
  ~SparseHeap() {
    munmap(map, kSize);
    owner->t_data = data;
    owner->t_data_size = size;
    owner->t_data_used = 0;
  }
  HashDelTable* owner;
  UByte* data;
  size_t size;
  void* map;
};

TEST(HashDelTableFind, RefusesWhatWouldEndPastThe32BitOffsets) {
  const HashDelTablePtr table = New(5, 8);
  const SparseHeap heap(table.get());
  ASSERT_NE(heap.map, MAP_FAILED);
  table->t_data_used = 0xFFFFFFE0;
  const std::vector<UInt> slots = SlotsOf(table.get());
  EXPECT_EQ(Insert(table.get(), "sixteenbytes+123"), nullptr);  // 8 + 1 + 16 would end at 0xFFFFFFF9
  EXPECT_EQ(table->t_data_used, 0xFFFFFFE0);
  EXPECT_EQ(table->t_nkeys, 0u);
  EXPECT_EQ(SlotsOf(table.get()), slots);
  UInt offset = 0;
  UByte* entry = HashDelTableFind(table.get(), Bytes("fifteenbytes+12"), 15, TRUE, &offset, nullptr);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(offset, 0xFFFFFFE0);
  EXPECT_EQ(table->t_data_used, 0xFFFFFFF8);
  EXPECT_EQ(Find(table.get(), "fifteenbytes+12"), entry);
  EXPECT_EQ(Insert(table.get(), ""), nullptr);
  EXPECT_EQ(HashDelTableSize(table.get()), 1u);
  EXPECT_TRUE(Remove(table.get(), "fifteenbytes+12"));
}

TEST(HashDelTableFind, RefusesAnEntryThatNoHeapCanHold) {
  const HashDelTablePtr table = New(5, 0xFFFFFFFF);
  const std::string before = Snapshot(table.get());
  EXPECT_EQ(Insert(table.get(), "a"), nullptr);
  EXPECT_EQ(Snapshot(table.get()), before);
}

// A value callback that uses the very table that calls it.
struct Meddler {
  HashDelTable* table = nullptr;
  void (*meddle)(HashDelTable* table) = nullptr;
};

Boolean MeddlingValue(UByte*, const UByte*, UInt, void* ptr) {
  auto* meddler = static_cast<Meddler*>(ptr);
  if (meddler == nullptr || meddler->meddle == nullptr) return TRUE;
  const auto meddle = meddler->meddle;
  meddler->meddle = nullptr;
  meddle(meddler->table);
  return TRUE;
}

TEST(HashDelTableFind, SurvivesAValueCallbackThatChangesTheTable) {
  void (*const meddles[])(HashDelTable*) = {
      [](HashDelTable* table) { Insert(table, "0inner"); },
      [](HashDelTable* table) { Insert(table, std::string(5000, '1')); },
      [](HashDelTable* table) { HashDelTableGrow(table, 20.0F, nullptr); },
      [](HashDelTable* table) { Remove(table, "0first"); },
      [](HashDelTable* table) {
        Remove(table, "0first");
        HashDelTableGrow(table, 1.00001F, nullptr);
      },
      [](HashDelTable* table) { HashDelTableClear(table); },
  };
  for (const auto& meddle : meddles) {
    HashDelTablePtr table(HashDelTableNew(5, HashToDigit, MeddlingValue, nullptr, 4, 0));
    ASSERT_NE(Insert(table.get(), "0first"), nullptr);
    Meddler meddler{table.get(), meddle};
    Insert(table.get(), "0outer", &meddler);
    // Whatever became of the insertion, the table goes on.
    EXPECT_NE(Insert(table.get(), "2after"), nullptr);
    EXPECT_NE(Find(table.get(), "2after"), nullptr);
    HashDelTableGrow(table.get(), 2.0F, nullptr);
    EXPECT_NE(Find(table.get(), "2after"), nullptr);
  }
}

HashDelTable* grown_by_equal = nullptr;

Boolean GrowingEqual(const UByte* stored, UInt, const UByte* bytes, UInt, void*) {
  if (grown_by_equal != nullptr) HashDelTableGrow(grown_by_equal, 1.7F, nullptr);
  return stored[1] == bytes[1];
}

TEST(HashDelTableFind, SurvivesAnEqualityCallbackThatGrowsTheTable) {
  const HashDelTablePtr table(HashDelTableNew(5, HashToDigit, nullptr, GrowingEqual, 4, 0));
  for (const char* key : {"0a", "0b", "0c"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  grown_by_equal = table.get();
  Insert(table.get(), "0d");
  Find(table.get(), "0c");
  Remove(table.get(), "0a");
  grown_by_equal = nullptr;
  for (const char* key : {"0b", "0c"}) EXPECT_NE(Find(table.get(), key), nullptr);
}

TEST(HashDelTableDeathTest, AssertsTheHashedState) {
  const HashDelTablePtr table = New(5);
  ASSERT_NE(Insert(table.get(), "a"), nullptr);
  HashDelTableSelect(table.get(), 0, nullptr, nullptr);
  const char* text = "!table->t_selected";
  EXPECT_ASSERTION(Find(table.get(), "a"), "dict/hashdeltable", "HashDelTableFind", text);
  EXPECT_ASSERTION(Insert(table.get(), "b"), "dict/hashdeltable", "HashDelTableFind", text);
  EXPECT_ASSERTION(Remove(table.get(), "a"), "dict/hashdeltable", "HashDelTableRemove", text);
  EXPECT_ASSERTION(HashDelTableGrow(table.get(), 2.0F, nullptr), "dict/hashdeltable", "HashDelTableGrow", text);
}

TEST(HashDelTableGrowDeathTest, AssertsAFactorAboveOne) {
  const HashDelTablePtr table = New(5);
  for (const float factor : {1.0F, 0.5F, 0.0F, -2.0F, std::nanf("")}) {
    EXPECT_ASSERTION(HashDelTableGrow(table.get(), factor, nullptr), "dict/hashdeltable", "HashDelTableGrow",
                     "factor > 1.0");
  }
}

TEST(HashDelTableFindDeathTest, AssertsThatTheKeyLengthFitsItsField) {
  const struct {
    UInt width;
    UInt longest;
  } cases[] = {{1, 255}, {2, 65535}, {3, 16777215}};
  for (const auto& c : cases) {
    const HashDelTablePtr table = New(5, 0, c.width);
    std::string key(c.longest, 'k');
    EXPECT_NE(Insert(table.get(), key), nullptr) << c.width;
    EXPECT_NE(Find(table.get(), key), nullptr) << c.width;
    key += 'k';
    EXPECT_ASSERTION(Insert(table.get(), key), "dict/hashdeltable", "HashDelTableFind", "l < (b << (8 * k))");
    EXPECT_ASSERTION(Find(table.get(), key), "dict/hashdeltable", "HashDelTableFind", "l < (b << (8 * k))");
  }
}

TEST(HashDelTableFindDeathTest, AssertsTheWidthOfTheKeyLengthField) {
  for (const UInt width : {5u, 255u}) {
    const HashDelTablePtr table = New(5, 0, width);
    EXPECT_EQ(Find(table.get(), "a"), nullptr);
    EXPECT_ASSERTION(Insert(table.get(), "a"), "util/io2", "IO2_MemWritePaddedLE4", "size <= 4");
  }
}

// A random history of up to 400 operations on keys from a small set, so that keys come, go and come again.
void RunHistory(const HashDelTableModel::Options& options) {
  HashDelTableModel model(options);
  const auto steps = *rc::gen::scale(4.0, rc::gen::container<std::vector<std::pair<UInt, UInt>>>(
                                              rc::gen::pair(rc::gen::inRange(0u, 100u), rc::gen::inRange(0u, 60u))));
  for (const auto& [what, pick] : steps) {
    // Lengths cross those where comparison and hash change their ways; number 0 is the empty key.
    const std::string key = pick == 0 ? "" : std::to_string(pick * pick) + std::string(pick % 40 * (pick % 3), 'x');
    if (model.selected()) {
      if (what < 30) {
        model.Select(pick % 7, 1 + pick % 3, 0);
      } else if (what < 60) {
        model.Sort();
      } else if (what < 70) {
        model.Copy();
      } else if (what < 80) {
        model.WriteAndRead();
      } else if (what < 90) {
        pick % 2 == 0 ? model.Iterate() : model.Enumerate();
      } else {
        model.Clear();
      }
    } else if (what < 45) {
      if (model.full() && pick % 4 != 0) model.Grow(pick % 3 == 0 ? 1.00001F : 1.4F);
      model.Insert(key, pick);
    } else if (what < 70) {
      model.Remove(key);
    } else if (what < 80) {
      model.Find(key);
    } else if (what < 84) {
      model.Grow(1.0F + static_cast<float>(1 + pick) / 50.0F);
    } else if (what < 87) {
      model.Iterate();
    } else if (what < 90) {
      model.Enumerate();
    } else if (what < 93) {
      model.WriteAndRead();
    } else if (what < 96) {
      model.Copy();
    } else if (what < 98) {
      model.Select(pick % 9, 1 + pick % 3, 0);
    } else {
      model.Clear();
    }
    model.Check();
  }
}

TEST(HashDelTable, EveryHistoryAgreesWithTheModel) {
  EXPECT_TRUE(rc::check([] {
    HashDelTableModel::Options options;
    options.capacity = *rc::gen::inRange(0u, 40u);
    options.val_len = *rc::gen::element(0u, 1u, 3u, 8u, 13u);
    options.key_size = *rc::gen::element<UByte>(0, 1, 2, 3, 4);
    options.hash = *rc::gen::element<HashKeyFunction>(nullptr, support::HashToOne, support::HashToFew,
                                                      support::HashToLength, HashToDigit);
    RunHistory(options);
  }));
}

TEST(HashDelTable, ALongHistoryAgreesWithTheModel) {
  HashDelTableModel::Options options;
  options.capacity = 7000;  // cleared, it shrinks
  HashDelTableModel model(options);
  uint64_t state = 1;
  const auto random = [&] { return (state = state * 6364136223846793005u + 1442695040888963407u) >> 33; };
  for (int round = 0; round < 3; round++) {
    for (unsigned i = 0; i < 12000; i++) {
      const std::string key = std::to_string(random() % 9000);
      if (model.full()) model.Grow(random() % 2 == 0 ? 1.00001F : 1.1F);
      if (random() % 5 < 3) {
        model.Insert(key, i);
      } else {
        model.Remove(key);
      }
    }
    model.Check();
    for (unsigned i = 0; i < 9000; i++) model.Find(std::to_string(i));
    model.WriteAndRead();
    model.Check();
    model.Iterate();
    model.Check();
    model.Clear();
    model.Check();
  }
}

}  // namespace
