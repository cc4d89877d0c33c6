// HashDelTable: walks, selections, sorting.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "dict/hashdeltable.h"
#include "support/death.h"
#include "support/hashdeltable_model.h"

namespace {

using support::Bytes;
using support::Find;
using support::HashDelTablePtr;
using support::Insert;
using support::KeyText;
using support::OffsetOf;
using support::Remove;
using support::SlotsOf;
using support::Text;

using Strings = std::vector<std::string>;

constexpr UInt kEmpty = 0xFFFFFFFF;

// The hash is the number that the key starts with.
UInt HashToNumber(const UByte* bytes, UInt len, void*) {
  UInt number = 0;
  for (UInt i = 0; i < len && bytes[i] >= '0' && bytes[i] <= '9'; i++) number = number * 10 + bytes[i] - '0';
  return number;
}

// Keys "0" to "9" in 17 slots, each in the slot of its number, at the heap offset 8 times its number.
HashDelTablePtr TenKeys() {
  HashDelTablePtr table(HashDelTableNew(10, HashToNumber, nullptr, nullptr, 3, 0));
  for (int i = 0; i < 10; i++) Insert(table.get(), std::to_string(i));
  return table;
}

Strings Walk(HashDelTable* table, void* ptr = nullptr) {
  Strings keys;
  HashDelTableIterator* it = HashDelTableIteratorInit(table, ptr);
  for (; !HashDelTableIteratorEnd(it); HashDelTableIteratorNext(it)) {
    const UByte* bytes = nullptr;
    const UInt length = HashDelTableIteratorGetKey(it, &bytes);
    keys.push_back(Text(bytes, length));
    EXPECT_EQ(HashDelTableIteratorGetValue(it), table->t_data + it->t_offset);
  }
  HashDelTableIteratorFinalize(it);
  return keys;
}

Strings Chosen(const HashDelTable* table) {
  Strings keys;
  for (UInt i = 0; i < HashDelTableSize(table); i++) keys.push_back(KeyText(table, HashDelTableGetIndex(table, i)));
  return keys;
}

struct Visit {
  HashDelTable* table;
  UInt stop_at = 0;  // the call that stops; 0: none
  Strings seen{};
};

UInt VisitEntry(UByte* entry, void* ptr) {
  auto* visit = static_cast<Visit*>(ptr);
  visit->seen.push_back(KeyText(visit->table, entry));
  return visit->seen.size() == visit->stop_at ? 7 : 0;
}

TEST(HashDelTableIterator, IsNullForANullTable) { EXPECT_EQ(HashDelTableIteratorInit(nullptr, nullptr), nullptr); }

TEST(HashDelTableIterator, EndsAtOnceOnAnEmptyTable) {
  const HashDelTablePtr table(HashDelTableNew(5, nullptr, nullptr, nullptr, 8, 0));
  EXPECT_EQ(Walk(table.get()), Strings());
}

TEST(HashDelTableIterator, VisitsInTheOrderOfInsertion) {
  const HashDelTablePtr table(HashDelTableNew(5, HashToNumber, nullptr, nullptr, 3, 0));
  for (const char* key : {"4", "1", "3"}) Insert(table.get(), key);
  HashDelTableIterator* it = HashDelTableIteratorInit(table.get(), nullptr);
  EXPECT_EQ(it->t_hash, table.get());
  for (const UInt offset : {0u, 8u, 16u}) {
    EXPECT_EQ(HashDelTableIteratorEnd(it), FALSE);
    EXPECT_EQ(it->t_offset, offset);
    HashDelTableIteratorNext(it);
  }
  EXPECT_EQ(HashDelTableIteratorEnd(it), TRUE);
  HashDelTableIteratorFinalize(it);
  EXPECT_EQ(Walk(table.get()), (Strings{"4", "1", "3"}));
}

TEST(HashDelTableIterator, CleansUpFirst) {
  const HashDelTablePtr table = TenKeys();
  for (const char* key : {"2", "5", "9"}) ASSERT_TRUE(Remove(table.get(), key));
  EXPECT_EQ(table->t_data_used, 77u);
  EXPECT_EQ(Walk(table.get()), (Strings{"0", "1", "3", "4", "6", "7", "8"}));
  EXPECT_EQ(table->t_deleted, 0u);
  EXPECT_EQ(table->t_data_used, 56u);
  EXPECT_EQ(HashDelTableCapacity(table.get()), 10u);
  EXPECT_EQ(table->t_nentries, 17u);
  EXPECT_EQ(SlotsOf(table.get()), (std::vector<UInt>{0, 8, kEmpty, 16, 24, kEmpty, 32, 40, 48, kEmpty, kEmpty, kEmpty,
                                                     kEmpty, kEmpty, kEmpty, kEmpty, kEmpty}));
  EXPECT_EQ(Find(table.get(), "8"), table->t_data + 48);
}

TEST(HashDelTableIterator, LeavesATableWithoutTombstonesAlone) {
  const HashDelTablePtr table = TenKeys();
  const std::string before = support::Image(table.get());
  EXPECT_EQ(Walk(table.get()).size(), 10u);
  EXPECT_EQ(support::Image(table.get()), before);
}

TEST(HashDelTableIterator, KeepsTheCapacityUpTo99474) {
  const struct {
    UInt before, after, slots;
  } cases[] = {{99474, 99474, 149213}, {99475, 99476, 149239}, {200000, 200002, 300007}};
  for (const auto& c : cases) {
    const HashDelTablePtr table(HashDelTableNew(c.before, nullptr, nullptr, nullptr, 0, 0));
    Insert(table.get(), "a");
    Insert(table.get(), "b");
    ASSERT_TRUE(Remove(table.get(), "a"));
    EXPECT_EQ(Walk(table.get()), Strings{"b"});
    EXPECT_EQ(HashDelTableCapacity(table.get()), c.after);
    EXPECT_EQ(table->t_nentries, c.slots);
  }
}

UInt CountingHash(const UByte*, UInt, void* ptr) {
  if (ptr != nullptr) ++*static_cast<int*>(ptr);
  return 1;
}

TEST(HashDelTableIterator, HandsThePointerToTheHashOfTheCleanUp) {
  const HashDelTablePtr table(HashDelTableNew(5, CountingHash, nullptr, nullptr, 3, 0));
  for (const char* key : {"a", "b", "c"}) Insert(table.get(), key);
  Remove(table.get(), "b");
  int calls = 0;
  EXPECT_EQ(Walk(table.get(), &calls), (Strings{"a", "c"}));
  EXPECT_EQ(calls, 2);
}

TEST(HashDelTableIterator, VisitsWhatIsInsertedBehindIt) {
  const HashDelTablePtr table = TenKeys();
  HashDelTableClear(table.get());
  Insert(table.get(), "0");
  HashDelTableIterator* it = HashDelTableIteratorInit(table.get(), nullptr);
  Insert(table.get(), std::string(500, '1'));  // moves the heap
  HashDelTableIteratorNext(it);
  ASSERT_EQ(HashDelTableIteratorEnd(it), FALSE);
  const UByte* bytes = nullptr;
  EXPECT_EQ(HashDelTableIteratorGetKey(it, &bytes), 500u);
  HashDelTableIteratorNext(it);
  EXPECT_EQ(HashDelTableIteratorEnd(it), TRUE);
  Insert(table.get(), "2");
  EXPECT_EQ(HashDelTableIteratorEnd(it), FALSE);
  EXPECT_EQ(HashDelTableIteratorGetKey(it, &bytes), 1u);
  HashDelTableIteratorFinalize(it);
}

TEST(HashDelTableIterator, WalksASelectedTableAsItStands) {
  const HashDelTablePtr table = TenKeys();
  HashDelTableSelect(table.get(), 2, nullptr, nullptr);
  EXPECT_EQ(Walk(table.get()).size(), 10u);  // the heap, not the selection
}

TEST(HashDelTableEnumerate, VisitsEveryLiveEntry) {
  const HashDelTablePtr table = TenKeys();
  Visit all{table.get()};
  EXPECT_EQ(HashDelTableEnumerate(table.get(), 0, VisitEntry, &all), 0u);
  EXPECT_EQ(all.seen, (Strings{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}));
  for (const char* key : {"0", "4", "9"}) ASSERT_TRUE(Remove(table.get(), key));
  Visit live{table.get()};
  EXPECT_EQ(HashDelTableEnumerate(table.get(), 0, VisitEntry, &live), 0u);
  EXPECT_EQ(live.seen, (Strings{"1", "2", "3", "5", "6", "7", "8"}));
  EXPECT_EQ(table->t_deleted, 0u);
}

TEST(HashDelTableEnumerate, StopsAtTheFirstResultThatIsNotZero) {
  const HashDelTablePtr table = TenKeys();
  Visit visit{table.get(), 3};
  EXPECT_EQ(HashDelTableEnumerate(table.get(), 0, VisitEntry, &visit), 7u);
  EXPECT_EQ(visit.seen, (Strings{"0", "1", "2"}));
}

TEST(HashDelTableEnumerate, StartsAtAnOffset) {
  const HashDelTablePtr table = TenKeys();
  Visit visit{table.get()};
  EXPECT_EQ(HashDelTableEnumerate(table.get(), 56, VisitEntry, &visit), 0u);
  EXPECT_EQ(visit.seen, (Strings{"7", "8", "9"}));
  for (const UInt offset : {77u, 80u, 0xFFFFFFFFu}) {
    Visit nothing{table.get()};
    EXPECT_EQ(HashDelTableEnumerate(table.get(), offset, VisitEntry, &nothing), 0u);
    EXPECT_EQ(nothing.seen, Strings()) << offset;
  }
}

TEST(HashDelTableEnumerate, LetsTheVisitorInsertAndRemove) {
  const HashDelTablePtr table(HashDelTableNew(40, HashToNumber, nullptr, nullptr, 3, 0));
  for (const char* key : {"0", "1", "2"}) Insert(table.get(), key);
  const auto visitor = [](UByte* entry, void* ptr) -> UInt {
    auto* visit = static_cast<Visit*>(ptr);
    const std::string key = KeyText(visit->table, entry);
    visit->seen.push_back(key);
    EXPECT_TRUE(Remove(visit->table, key));
    if (visit->seen.size() < 6) Insert(visit->table, std::to_string(10 * visit->seen.size()) + std::string(200, 'x'));
    return 0;
  };
  Visit visit{table.get()};
  EXPECT_EQ(HashDelTableEnumerate(table.get(), 0, visitor, &visit), 0u);
  EXPECT_EQ(visit.seen.size(), 8u);
  EXPECT_EQ(HashDelTableSize(table.get()), 0u);
  EXPECT_EQ(Walk(table.get()), Strings());
}

TEST(HashDelTableSelect, KeepsEveryEntryInSlotOrder) {
  const HashDelTablePtr table(HashDelTableNew(5, HashToNumber, nullptr, nullptr, 3, 0));
  for (const char* key : {"4", "0", "2", "0a"}) Insert(table.get(), key);  // "0a" goes on to slot 5
  EXPECT_EQ(HashDelTableSelect(table.get(), 0, nullptr, nullptr), 4u);
  EXPECT_EQ(table->t_selected, TRUE);
  EXPECT_EQ(HashDelTableSize(table.get()), 4u);
  EXPECT_EQ(SlotsOf(table.get()), (std::vector<UInt>{8, 16, 0, 24, kEmpty, kEmpty, kEmpty}));
  EXPECT_EQ(Chosen(table.get()), (Strings{"0", "2", "4", "0a"}));
}

TEST(HashDelTableSelect, KeepsNoMoreThanTheCount) {
  const HashDelTablePtr table = TenKeys();
  EXPECT_EQ(HashDelTableSelect(table.get(), 3, nullptr, nullptr), 3u);
  std::vector<UInt> slots(17, kEmpty);
  slots[0] = 0;
  slots[1] = 8;
  slots[2] = 16;
  EXPECT_EQ(SlotsOf(table.get()), slots);
  EXPECT_EQ(HashDelTableSize(table.get()), 3u);
}

struct Selector {
  HashDelTable* table;
  Strings offered{};
};

Boolean SelectOdd(UByte* entry, void* ptr) {
  auto* selector = static_cast<Selector*>(ptr);
  const std::string key = KeyText(selector->table, entry);
  selector->offered.push_back(key);
  return key[0] % 2 == 1 ? -1 : FALSE;
}

TEST(HashDelTableSelect, AsksUntilEnoughAreKept) {
  const HashDelTablePtr table = TenKeys();
  Selector selector{table.get()};
  EXPECT_EQ(HashDelTableSelect(table.get(), 2, SelectOdd, &selector), 2u);
  EXPECT_EQ(Chosen(table.get()), (Strings{"1", "3"}));
  EXPECT_EQ(selector.offered, (Strings{"0", "1", "2", "3"}));
}

TEST(HashDelTableSelect, ChoosesAgainAmongTheChosen) {
  const HashDelTablePtr table = TenKeys();
  EXPECT_EQ(HashDelTableSelect(table.get(), 5, nullptr, nullptr), 5u);
  Selector selector{table.get()};
  EXPECT_EQ(HashDelTableSelect(table.get(), 0, SelectOdd, &selector), 2u);
  EXPECT_EQ(selector.offered, (Strings{"0", "1", "2", "3", "4"}));
  EXPECT_EQ(Chosen(table.get()), (Strings{"1", "3"}));
  EXPECT_EQ(HashDelTableSelect(table.get(), 0, nullptr, nullptr), 2u);
  EXPECT_EQ(HashDelTableSelect(table.get(), 1, nullptr, nullptr), 1u);
  EXPECT_EQ(Chosen(table.get()), (Strings{"1"}));
}

TEST(HashDelTableSelect, CleansUpFirst) {
  const HashDelTablePtr table = TenKeys();
  for (const char* key : {"0", "2", "7"}) ASSERT_TRUE(Remove(table.get(), key));
  EXPECT_EQ(HashDelTableSelect(table.get(), 2, nullptr, nullptr), 2u);
  EXPECT_EQ(table->t_deleted, 0u);
  EXPECT_EQ(table->t_data_used, 56u);
  std::vector<UInt> slots(17, kEmpty);
  slots[0] = 0;  // "1" and "3" have moved to the front
  slots[1] = 8;
  EXPECT_EQ(SlotsOf(table.get()), slots);
  EXPECT_EQ(Chosen(table.get()), (Strings{"1", "3"}));
}

TEST(HashDelTableSelect, ChoosesNothingFromAnEmptyTable) {
  const HashDelTablePtr table(HashDelTableNew(5, nullptr, nullptr, nullptr, 8, 0));
  EXPECT_EQ(HashDelTableSelect(table.get(), 0, nullptr, nullptr), 0u);
  EXPECT_EQ(table->t_selected, TRUE);
  EXPECT_EQ(HashDelTableGetIndex(table.get(), 0), nullptr);
}

int CompareKeysDown(const UByte* a, const UByte* b, void* ptr) {
  const auto* table = static_cast<const HashDelTable*>(ptr);
  return -KeyText(table, a).compare(KeyText(table, b));
}

TEST(HashDelTableSort, SortsTheChosen) {
  const HashDelTablePtr table = TenKeys();
  Selector selector{table.get()};
  HashDelTableSelect(table.get(), 0, SelectOdd, &selector);
  HashDelTableSort(table.get(), CompareKeysDown, table.get());
  EXPECT_EQ(Chosen(table.get()), (Strings{"9", "7", "5", "3", "1"}));
  std::vector<UInt> slots(17, kEmpty);
  for (UInt i = 0; i < 5; i++) slots[i] = 72 - 16 * i;
  EXPECT_EQ(SlotsOf(table.get()), slots);
}

TEST(HashDelTableGetIndex, IsNullWhereNoEntryIsChosen) {
  const HashDelTablePtr table = TenKeys();
  HashDelTableSelect(table.get(), 2, nullptr, nullptr);
  EXPECT_EQ(HashDelTableGetIndex(table.get(), 1), table->t_data + 8);
  EXPECT_EQ(HashDelTableGetIndex(table.get(), 2), nullptr);
  EXPECT_EQ(HashDelTableGetIndex(table.get(), 16), nullptr);
  EXPECT_EQ(HashDelTableGetIndex(table.get(), 17), nullptr);
  EXPECT_EQ(HashDelTableGetIndex(table.get(), 0xFFFFFFFF), nullptr);
}

TEST(HashDelTableSortDeathTest, AssertsOrderAndState) {
  const HashDelTablePtr table = TenKeys();
  const char* text = "cmp != ((void *)0) && table->t_selected";
  EXPECT_ASSERTION(HashDelTableSort(table.get(), CompareKeysDown, nullptr), "dict/hashdeltable", "HashDelTableSort",
                   text);
  HashDelTableSelect(table.get(), 0, nullptr, nullptr);
  EXPECT_ASSERTION(HashDelTableSort(table.get(), nullptr, nullptr), "dict/hashdeltable", "HashDelTableSort", text);
}

TEST(HashDelTableGetIndexDeathTest, AssertsTheSelectedState) {
  const HashDelTablePtr table = TenKeys();
  EXPECT_ASSERTION(HashDelTableGetIndex(table.get(), 0), "dict/hashdeltable", "HashDelTableGetIndex",
                   "table->t_selected");
}

}  // namespace
