// HashTable: walks, selection, sorting, index access, copies, clearing.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "dict/hashtable.h"
#include "support/death.h"
#include "support/faults.h"
#include "support/hashtable_model.h"
#include "support/messages.h"

using support::Find;
using support::HashTablePtr;
using support::Insert;
using support::KeyText;
using support::OffsetOf;
using support::Text;
namespace faults = support::faults;

namespace {

constexpr UInt kEmpty = 0xFFFFFFFF;

HashTablePtr New(UInt capacity, UInt val_len = 8, UByte key_size = 0, Boolean vm = FALSE) {
  return HashTablePtr(HashTableNew(capacity, nullptr, nullptr, nullptr, val_len, key_size, vm));
}

// Ten keys, "j" down to "a", 8 heap bytes each: "j" at 0, "a" at 72. 17 slots ("a" is 97 = 5 * 17 + 12), so that "a" to
// "e" lie in slots 12 to 16 and "f" to "j" in slots 0 to 4: the slot order is fghijabcde.
HashTablePtr TenKeys(Boolean vm = FALSE) {
  HashTablePtr table = New(11, 0, 0, vm);
  for (char c = 'j'; c >= 'a'; c--) Insert(table.get(), std::string(1, c));
  return table;
}

std::vector<UInt> Slots(const HashTable* table) { return {table->t_entries, table->t_entries + table->t_entries_size}; }

// The slots of a selected table that hold these keys of TenKeys.
std::vector<UInt> Chosen(const std::string& keys) {
  std::vector<UInt> slots(17, kEmpty);
  for (size_t i = 0; i < keys.size(); i++) slots[i] = static_cast<UInt>(8 * ('j' - keys[i]));
  return slots;
}

struct Array {
  Array() { ArrayInit_(&offsets.a); }
  ~Array() { ArrayFree_(&offsets.a, "test", __LINE__); }
  Array(const Array&) = delete;
  Array& operator=(const Array&) = delete;
  void Append(UInt offset) {
    if (offsets.t.length == offsets.t.capacity) ArrayGrow_(&offsets.a, sizeof(UInt), "test", __LINE__);
    offsets.t.elts[offsets.t.length++] = offset;
  }
  std::vector<UInt> list() const { return {offsets.t.elts, offsets.t.elts + offsets.t.length}; }

  UIntArray offsets;
};

// A visitor of any kind, and the table it visits.
struct Caller {
  explicit Caller(const HashTablePtr& visited) : table(visited.get()) {}

  const HashTable* table;
  std::string seen;
  std::function<UInt(UByte*)> answer = [](UByte*) { return 0u; };
};
UInt Visit(UByte* entry, void* ptr) {
  auto* c = static_cast<Caller*>(ptr);
  c->seen += KeyText(c->table, entry);
  return c->answer(entry);
}
Boolean Offer(UByte* entry, void* ptr) { return static_cast<Boolean>(Visit(entry, ptr)); }

std::string Walk(const HashTable* table) {
  std::string keys;
  HashTableIterator* it = HashTableIteratorInit(table);
  for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it)) {
    const UByte* bytes = nullptr;
    const UInt length = HashTableIteratorGetKey(it, &bytes);
    keys += Text(bytes, length);
  }
  HashTableIteratorFinalize(it);
  return keys;
}

TEST(HashTableIterator, GoesInInsertionOrder) {
  EXPECT_EQ(Walk(TenKeys().get()), "jihgfedcba");
  EXPECT_EQ(Walk(TenKeys(TRUE).get()), "jihgfedcba");
}

TEST(HashTableIterator, NullTableHasNone) { EXPECT_EQ(HashTableIteratorInit(nullptr), nullptr); }

TEST(HashTableIterator, EmptyTableIsAtItsEndAtOnce) {
  HashTablePtr table = New(5);
  HashTableIterator* it = HashTableIteratorInit(table.get());
  EXPECT_EQ(it->t_hash, table.get());
  EXPECT_EQ(it->t_offset, 0u);
  EXPECT_TRUE(HashTableIteratorEnd(it));
  HashTableIteratorNext(it);  // stays
  EXPECT_EQ(it->t_offset, 0u);
  Insert(table.get(), "later");
  EXPECT_FALSE(HashTableIteratorEnd(it));
  HashTableIteratorFinalize(it);
}

TEST(HashTableIterator, StepsOfThreeByteValuesAndOneByteKeysAreEight) {
  HashTablePtr table = New(5, 3);
  for (const char* key : {"a", "b", "c"}) Insert(table.get(), key);
  HashTableIterator* it = HashTableIteratorInit(table.get());
  for (const UInt offset : {0u, 8u, 16u}) {
    EXPECT_FALSE(HashTableIteratorEnd(it));
    EXPECT_EQ(it->t_offset, offset);
    EXPECT_EQ(HashTableIteratorGetValue(it), table->t_data + offset);
    HashTableIteratorNext(it);
  }
  EXPECT_TRUE(HashTableIteratorEnd(it));
  HashTableIteratorFinalize(it);
}

TEST(HashTableIterator, VisitsWhatIsInsertedBehindIt) {
  for (const Boolean vm : {FALSE, TRUE}) {
    HashTablePtr table = New(1000, 0, 0, vm);
    Insert(table.get(), "0");
    HashTableIterator* it = HashTableIteratorInit(table.get());
    int seen = 0;
    for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it)) {
      const UByte* bytes = nullptr;
      const UInt length = HashTableIteratorGetKey(it, &bytes);
      EXPECT_EQ(Text(bytes, length), std::to_string(seen));
      if (++seen < 1000) Insert(table.get(), std::to_string(seen));  // moves the heap now and then
    }
    HashTableIteratorFinalize(it);
    EXPECT_EQ(seen, 1000);
  }
}

TEST(HashTableIterator, WalksASelectedTable) {
  HashTablePtr table = TenKeys();
  HashTableSelect(table.get(), 2, nullptr, nullptr, nullptr);
  EXPECT_EQ(Walk(table.get()), "jihgfedcba");
}

TEST(HashTableIterator, DecodesEveryWidth) {
  for (UByte width = 0; width <= 4; width++) {
    HashTablePtr table = New(10, 5, width);
    std::string expected;
    for (const size_t length : {0u, 1u, 100u, 127u, 128u, 200u, 255u}) {
      Insert(table.get(), std::string(length, 'k'));
      expected += std::string(length, 'k');
    }
    EXPECT_EQ(Walk(table.get()), expected);
  }
}

TEST(HashTableEnumerate, GoesInInsertionOrder) {
  HashTablePtr table = TenKeys();
  Caller caller(table);
  EXPECT_EQ(HashTableEnumerate(table.get(), 0, Visit, &caller), 0u);
  EXPECT_EQ(caller.seen, "jihgfedcba");
}

TEST(HashTableEnumerate, StopsAtTheFirstResult) {
  HashTablePtr table = TenKeys();
  Caller caller(table);
  caller.answer = [&](UByte*) { return caller.seen.size() == 3 ? 7u : 0u; };
  EXPECT_EQ(HashTableEnumerate(table.get(), 0, Visit, &caller), 7u);
  EXPECT_EQ(caller.seen, "jih");
}

TEST(HashTableEnumerate, GoesOnFromAnEntry) {
  HashTablePtr table = TenKeys();
  Caller caller(table);
  UInt stopped = 0;
  caller.answer = [&](UByte* entry) {
    stopped = static_cast<UInt>(entry - HashTableGetOffset(table.get(), 0));
    return caller.seen.size() == 4 ? 1u : 0u;
  };
  HashTableEnumerate(table.get(), 0, Visit, &caller);
  EXPECT_EQ(stopped, 24u);
  caller.seen.clear();
  caller.answer = [](UByte*) { return 0u; };
  EXPECT_EQ(HashTableEnumerate(table.get(), stopped, Visit, &caller), 0u);
  EXPECT_EQ(caller.seen, "gfedcba");
}

TEST(HashTableEnumerate, VisitsNothingAtOrPastTheEnd) {
  HashTablePtr table = TenKeys();
  Caller caller(table);
  EXPECT_EQ(table->t_data_used, 74u);
  for (const UInt offset : {74u, 80u, 1000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(HashTableEnumerate(table.get(), offset, Visit, &caller), 0u);
  }
  EXPECT_EQ(HashTableEnumerate(New(5).get(), 0, Visit, &caller), 0u);
  EXPECT_EQ(caller.seen, "");
}

TEST(HashTableEnumerate, VisitorMayInsert) {
  HashTablePtr table = New(200, 0);
  Insert(table.get(), "x");
  Caller caller(table);
  caller.answer = [&](UByte*) {
    if (HashTableSize(table.get()) < 200) Insert(table.get(), std::string(HashTableSize(table.get()), 'y'));
    return 0u;
  };
  EXPECT_EQ(HashTableEnumerate(table.get(), 0, Visit, &caller), 0u);
  EXPECT_EQ(caller.seen.size(), 1u + 199 * 200 / 2);
}

TEST(HashTableEnumerate, DoesNotDependOnTheSlots) {
  HashTablePtr table = TenKeys();
  Array array;
  HashTableSelect(table.get(), 0, nullptr, nullptr, &array.offsets);
  Caller caller(table);
  HashTableEnumerate(table.get(), 0, Visit, &caller);
  EXPECT_EQ(caller.seen, "jihgfedcba");
}

TEST(HashTableSelect, CountZeroKeepsEveryEntry) {
  HashTablePtr table = TenKeys();
  EXPECT_EQ(HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr), 10u);
  EXPECT_TRUE(table->t_selected);
  EXPECT_EQ(HashTableSize(table.get()), 10u);
  EXPECT_EQ(Slots(table.get()), Chosen("fghijabcde"));
}

TEST(HashTableSelect, CountZeroKeepsEveryAcceptedEntry) {
  HashTablePtr table = TenKeys();
  Caller caller(table);
  caller.answer = [&](UByte* entry) { return KeyText(table.get(), entry)[0] % 2 == 0 ? 0x100u : 0u; };
  EXPECT_EQ(HashTableSelect(table.get(), 0, Offer, &caller, nullptr), 5u);
  EXPECT_EQ(caller.seen, "fghijabcde");
  EXPECT_EQ(Slots(table.get()), Chosen("fhjbd"));
}

TEST(HashTableSelect, CountThreeKeepsTheFirstThreeInSlotOrder) {
  HashTablePtr table = TenKeys();
  EXPECT_EQ(HashTableSelect(table.get(), 3, nullptr, nullptr, nullptr), 3u);
  EXPECT_EQ(HashTableSize(table.get()), 3u);
  EXPECT_EQ(Slots(table.get()), Chosen("fgh"));
}

TEST(HashTableSelect, StopsAskingOnceEnoughAreKept) {
  HashTablePtr table = TenKeys();
  Caller caller(table);
  caller.answer = [&](UByte*) { return caller.seen.size() % 2; };
  EXPECT_EQ(HashTableSelect(table.get(), 2, Offer, &caller, nullptr), 2u);
  EXPECT_EQ(caller.seen, "fgh");
  EXPECT_EQ(Slots(table.get()), Chosen("fh"));
}

TEST(HashTableSelect, SelectsAgainAmongTheSelected) {
  HashTablePtr table = TenKeys();
  HashTableSelect(table.get(), 3, nullptr, nullptr, nullptr);
  Caller caller(table);
  caller.answer = [&](UByte*) { return caller.seen.size() > 1 ? 1u : 0u; };
  EXPECT_EQ(HashTableSelect(table.get(), 0, Offer, &caller, nullptr), 2u);
  EXPECT_EQ(caller.seen, "fgh");
  EXPECT_EQ(HashTableSize(table.get()), 2u);
  EXPECT_EQ(Slots(table.get()), Chosen("gh"));
  EXPECT_EQ(HashTableSelect(table.get(), 100, nullptr, nullptr, nullptr), 2u);
}

TEST(HashTableSelect, NothingChosenLeavesAnEmptySelection) {
  HashTablePtr table = TenKeys();
  Caller caller(table);
  EXPECT_EQ(HashTableSelect(table.get(), 0, Offer, &caller, nullptr), 0u);
  EXPECT_TRUE(table->t_selected);
  EXPECT_EQ(Slots(table.get()), Chosen(""));
  EXPECT_EQ(HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr), 0u);
}

TEST(HashTableSelect, EmptyTableCanBeSelected) {
  HashTablePtr table = New(5);
  EXPECT_EQ(HashTableSelect(table.get(), 4, nullptr, nullptr, nullptr), 0u);
  EXPECT_TRUE(table->t_selected);
}

TEST(HashTableSelect, IntoAnArrayHasNoLimitAndEmptiesTheSlots) {
  HashTablePtr table = TenKeys();
  Array array;
  array.Append(77);  // what was there before goes
  EXPECT_EQ(HashTableSelect(table.get(), 1, nullptr, nullptr, &array.offsets), 10u);
  std::vector<UInt> expected = Chosen("fghijabcde");
  expected.resize(10);
  EXPECT_EQ(array.list(), expected);
  EXPECT_FALSE(table->t_selected);
  EXPECT_EQ(HashTableSize(table.get()), 10u);  // no longer what the slots hold
  EXPECT_EQ(Slots(table.get()), Chosen(""));
  EXPECT_EQ(Find(table.get(), "a"), nullptr);
  HashTableClear(table.get());
  EXPECT_NE(Insert(table.get(), "a"), nullptr);
}

TEST(HashTableSelect, IntoAnArrayTakesTheAcceptedOnes) {
  HashTablePtr table = TenKeys();
  Array array;
  Caller caller(table);
  caller.answer = [&](UByte* entry) { return KeyText(table.get(), entry)[0] % 2 == 0 ? 1u : 0u; };
  EXPECT_EQ(HashTableSelect(table.get(), 1, Offer, &caller, &array.offsets), 5u);
  std::vector<UInt> expected = Chosen("fhjbd");
  expected.resize(5);
  EXPECT_EQ(array.list(), expected);
  EXPECT_EQ(caller.seen, "fghijabcde");
}

TEST(HashTableSelect, IntoAnArrayFromASelectedTableKeepsItSelected) {
  HashTablePtr table = TenKeys();
  HashTableSelect(table.get(), 3, nullptr, nullptr, nullptr);
  Array array;
  EXPECT_EQ(HashTableSelect(table.get(), 0, nullptr, nullptr, &array.offsets), 3u);
  EXPECT_TRUE(table->t_selected);
  EXPECT_EQ(HashTableSize(table.get()), 3u);
  EXPECT_EQ(Slots(table.get()), Chosen(""));
}

TEST(HashTableSelect, DropsOffsetsThatNameNoEntry) {
  for (const bool into_array : {false, true}) {
    HashTablePtr table = TenKeys();
    table->t_entries[5] = 0xFFFFFFFE;
    table->t_entries[6] = static_cast<UInt>(table->t_data_size);
    Array array;
    Caller caller(table);
    caller.answer = [](UByte*) { return 1u; };
    EXPECT_EQ(HashTableSelect(table.get(), 0, Offer, &caller, into_array ? &array.offsets : nullptr), 10u);
    EXPECT_EQ(caller.seen, "fghijabcde");
  }
}

int ByKey(const UByte* a, const UByte* b, void* ptr) {
  const auto* table = static_cast<const HashTable*>(ptr);
  return KeyText(table, a).compare(KeyText(table, b));
}

TEST(HashTableSelect, SelectCallbackMayGrowTheTableOrItsHeap) {
  for (const Boolean vm : {FALSE, TRUE}) {
    const HashTablePtr table = TenKeys(vm);
    Array array;
    const auto growing = [](UByte*, void* ptr) -> Boolean {
      auto* grown = static_cast<HashTable*>(ptr);
      if (HashTableCapacity(grown) < 1000) HashTableGrow(grown, 10.0F, nullptr);
      return TRUE;
    };
    EXPECT_GE(HashTableSelect(table.get(), 0, growing, table.get(), &array.offsets), 1u);
    for (const UInt offset : array.list()) EXPECT_LE(offset, 72u);

    const HashTablePtr other = TenKeys(vm);
    const auto inserting = [](UByte*, void* ptr) -> Boolean {
      Insert(static_cast<HashTable*>(ptr), std::string(100000, 'x'));
      return TRUE;
    };
    EXPECT_GE(HashTableSelect(other.get(), 0, inserting, other.get(), &array.offsets), 10u);
    EXPECT_EQ(KeyText(other.get(), HashTableGetIndex(other.get(), 0, &array.offsets)), "f");
    for (const UInt offset : array.list()) EXPECT_LT(offset, other->t_data_used);
  }
}

TEST(HashTableSort, OrdersTheSelection) {
  HashTablePtr table = TenKeys();
  HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr);
  HashTableSort(table.get(), ByKey, table.get(), nullptr);
  EXPECT_EQ(Slots(table.get()), Chosen("abcdefghij"));
  EXPECT_EQ(KeyText(table.get(), HashTableGetIndex(table.get(), 9, nullptr)), "j");
}

TEST(HashTableSort, OrdersAnArray) {
  HashTablePtr table = TenKeys();
  Array array;
  HashTableSelect(table.get(), 0, nullptr, nullptr, &array.offsets);
  HashTableSort(table.get(), ByKey, table.get(), &array.offsets);
  std::vector<UInt> expected = Chosen("abcdefghij");
  expected.resize(10);
  EXPECT_EQ(array.list(), expected);
  EXPECT_EQ(KeyText(table.get(), HashTableGetIndex(table.get(), 0, &array.offsets)), "a");
  EXPECT_EQ(KeyText(table.get(), HashTableGetIndex(table.get(), 9, &array.offsets)), "j");
}

TEST(HashTableSort, ArrayOfASelectedTableIsSortedAndNotItsSlots) {
  HashTablePtr table = TenKeys();
  HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr);
  Array array;
  for (const UInt offset : {0u, 72u, 8u}) array.Append(offset);
  HashTableSort(table.get(), ByKey, table.get(), &array.offsets);
  EXPECT_EQ(array.list(), (std::vector<UInt>{72, 8, 0}));
  EXPECT_EQ(Slots(table.get()), Chosen("fghijabcde"));
}

TEST(HashTableSort, ComparisonMayMoveTheHeap) {
  struct Inserter {
    HashTable* table;
    UInt length;
  };
  const HashTablePtr table = TenKeys();
  Array array;
  for (UInt offset = 0; offset <= 72; offset += 8) array.Append(offset);
  const auto insert = [](const UByte* a, const UByte* b, void* ptr) {
    auto* inserter = static_cast<Inserter*>(ptr);
    const int order = a[1] - b[1];
    Insert(inserter->table, std::string(inserter->length += 1000, 'x'));
    return order;
  };
  HashTableGrow(table.get(), 10.0F, nullptr);
  Inserter inserter{table.get(), 0};
  HashTableSort(table.get(), insert, &inserter, &array.offsets);
  EXPECT_EQ(array.list(), (std::vector<UInt>{72, 64, 56, 48, 40, 32, 24, 16, 8, 0}));
}

TEST(HashTableSort, EmptySelectionsAreSorted) {
  HashTablePtr table = New(5);
  Array array;
  HashTableSort(table.get(), ByKey, table.get(), &array.offsets);
  HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr);
  HashTableSort(table.get(), ByKey, table.get(), nullptr);
  EXPECT_EQ(HashTableSize(table.get()), 0u);
}

TEST(HashTableSort, OffsetsThatNameNoEntryGoToTheEndUnseen) {
  HashTablePtr table = TenKeys();
  HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr);
  table->t_entries[2] = 0xFFFFFFFE;
  table->t_entries[4] = kEmpty;
  table->t_entries_used = 1000;  // as only a damaged file says: more than there are slots
  HashTableSort(table.get(), ByKey, table.get(), nullptr);
  std::vector<UInt> expected = Chosen("abcdefgi");  // "h" and "j" have gone
  std::vector<UInt> slots = Slots(table.get());
  EXPECT_TRUE(std::equal(slots.begin(), slots.begin() + 8, expected.begin()));
}

TEST(HashTableSort, ManyEntriesAreSorted) {
  HashTablePtr table = New(20000, 0);
  std::mt19937 random(3);
  std::vector<std::string> keys;
  while (HashTableSize(table.get()) < 20000) Insert(table.get(), std::to_string(random()));
  EXPECT_EQ(HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr), 20000u);
  HashTableSort(table.get(), ByKey, table.get(), nullptr);
  for (UInt i = 0; i < 20000; i++) keys.push_back(KeyText(table.get(), HashTableGetIndex(table.get(), i, nullptr)));
  EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
  EXPECT_TRUE(std::adjacent_find(keys.begin(), keys.end()) == keys.end());
}

TEST(HashTableSortDeathTest, WantsAnOrderAndAList) {
  const char* text = "cmp != ((void *)0) && (entries != ((void *)0) || table->t_selected)";
  HashTablePtr table = TenKeys();
  Array array;
  EXPECT_ASSERTION(HashTableSort(table.get(), ByKey, nullptr, nullptr), "dict/hashtable", "HashTableSort", text);
  EXPECT_ASSERTION(HashTableSort(table.get(), nullptr, nullptr, &array.offsets), "dict/hashtable", "HashTableSort",
                   text);
  HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr);
  EXPECT_ASSERTION(HashTableSort(table.get(), nullptr, nullptr, nullptr), "dict/hashtable", "HashTableSort", text);
}

TEST(HashTableGetIndex, GivesTheChosenEntries) {
  HashTablePtr table = TenKeys();
  HashTableSelect(table.get(), 3, nullptr, nullptr, nullptr);
  EXPECT_EQ(HashTableGetIndex(table.get(), 0, nullptr), table->t_data + 32);
  EXPECT_EQ(HashTableGetIndex(table.get(), 2, nullptr), table->t_data + 16);
}

TEST(HashTableGetIndex, GivesNullWhereNoEntryIs) {
  HashTablePtr table = TenKeys();
  HashTableSelect(table.get(), 3, nullptr, nullptr, nullptr);
  EXPECT_EQ(HashTableGetIndex(table.get(), 3, nullptr), nullptr);
  EXPECT_EQ(HashTableGetIndex(table.get(), 16, nullptr), nullptr);
  EXPECT_EQ(HashTableGetIndex(table.get(), 17, nullptr), nullptr);
  EXPECT_EQ(HashTableGetIndex(table.get(), 0xFFFFFFFF, nullptr), nullptr);
}

TEST(HashTableGetIndexDeathTest, WantsASelectedTable) {
  HashTablePtr table = TenKeys();
  EXPECT_ASSERTION(HashTableGetIndex(table.get(), 0, nullptr), "dict/hashtable", "HashTableGetIndex",
                   "table->t_selected");
}

TEST(HashTableCopy, IsEqualAndIndependent) {
  for (const Boolean vm : {FALSE, TRUE}) {
    HashTablePtr table = TenKeys(vm);
    HashTablePtr copy(HashTableCopy(table.get()));
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy->t_data, table->t_data);
    EXPECT_NE(copy->t_entries, table->t_entries);
    EXPECT_EQ(copy->t_vm, vm);
    EXPECT_EQ(Text(copy->t_data, copy->t_data_size), Text(table->t_data, table->t_data_size));
    EXPECT_EQ(Slots(copy.get()), Slots(table.get()));

    Insert(copy.get(), "k");
    EXPECT_EQ(Find(table.get(), "k"), nullptr);
    HashTableGrow(copy.get(), 10.0F, nullptr);
    HashTableClear(table.get());
    table.reset();
    EXPECT_EQ(Walk(copy.get()), "jihgfedcbak");
    for (char c = 'a'; c <= 'k'; c++) EXPECT_NE(Find(copy.get(), std::string(1, c)), nullptr);
  }
}

TEST(HashTableCopy, KeepsCallbacksSelectionAndAlignment) {
  HashTablePtr table(HashTableNew(
      11, support::HashToOne, [](UByte*, const UByte*, UInt, void*) -> Boolean { return TRUE; },
      [](const UByte*, UInt, const UByte*, UInt, void*) -> Boolean { return FALSE; }, 3, 2, FALSE));
  Insert(table.get(), "a");
  table->t_aligned = FALSE;
  HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr);
  HashTablePtr copy(HashTableCopy(table.get()));
  EXPECT_EQ(copy->t_hash, table->t_hash);
  EXPECT_EQ(copy->t_value, table->t_value);
  EXPECT_EQ(copy->t_equal, table->t_equal);
  EXPECT_EQ(copy->t_val_len, 3u);
  EXPECT_EQ(copy->t_key_size, 2);
  EXPECT_EQ(copy->t_entries_capacity, 11u);
  EXPECT_EQ(copy->t_entries_used, 1u);
  EXPECT_TRUE(copy->t_selected);
  EXPECT_FALSE(copy->t_aligned);
  EXPECT_EQ(HashTableGetIndex(copy.get(), 0, nullptr), copy->t_data);
}

TEST(HashTableCopy, CopiesTheWholeHeap) {
  HashTablePtr table = TenKeys();
  table->t_data[table->t_data_size - 1] = 0x5A;  // far behind the last entry
  HashTablePtr copy(HashTableCopy(table.get()));
  EXPECT_EQ(copy->t_data_size, table->t_data_size);
  EXPECT_EQ(copy->t_data[copy->t_data_size - 1], 0x5A);
}

TEST(HashTableCopy, ReportsAFailedMappingAndGivesNull) {
  HashTablePtr table = TenKeys(TRUE);
  for (const long after : {0L, 1L}) {
    const long unmaps = faults::Unmaps();
    const support::Messages messages;
    faults::FailMap(after);
    EXPECT_EQ(HashTableCopy(table.get()), nullptr);
    faults::Clear();
    ASSERT_EQ(messages.all().size(), 1u);
    EXPECT_EQ(messages.all()[0].text, after == 0
                                          ? ":hashtable: memory allocation failed: size=85: Cannot allocate memory"
                                          : ":hashtable: memory allocation failed: size=68: Cannot allocate memory");
    EXPECT_EQ(messages.all()[0].function, "HashMalloc");
    EXPECT_EQ(faults::Unmaps(), unmaps + after);
  }
  EXPECT_EQ(Walk(table.get()), "jihgfedcba");
}

TEST(HashTableClear, EmptiesAndKeepsTheMemory) {
  for (const Boolean vm : {FALSE, TRUE}) {
    HashTablePtr table = TenKeys(vm);
    const UByte* data = table->t_data;
    const UInt* entries = table->t_entries;
    const size_t size = table->t_data_size;
    HashTableClear(table.get());
    EXPECT_EQ(HashTableSize(table.get()), 0u);
    EXPECT_EQ(table->t_data_used, 0u);
    EXPECT_EQ(table->t_data, data);
    EXPECT_EQ(table->t_entries, entries);
    EXPECT_EQ(table->t_data_size, size);
    EXPECT_EQ(HashTableCapacity(table.get()), 11u);
    EXPECT_EQ(Slots(table.get()), Chosen(""));
    EXPECT_EQ(Find(table.get(), "a"), nullptr);
    EXPECT_EQ(Walk(table.get()), "");
    EXPECT_EQ(OffsetOf(table.get(), Insert(table.get(), "z")), 0u);
  }
}

TEST(HashTableClear, MakesASelectedTableSearchableAgain) {
  HashTablePtr table = TenKeys();
  HashTableSelect(table.get(), 3, nullptr, nullptr, nullptr);
  HashTableClear(table.get());
  EXPECT_FALSE(table->t_selected);
  EXPECT_NE(Insert(table.get(), "a"), nullptr);
  EXPECT_NE(Find(table.get(), "a"), nullptr);
}

TEST(HashTableClear, KeepsTheAlignmentFlag) {
  HashTablePtr table = TenKeys();
  table->t_aligned = FALSE;
  HashTableClear(table.get());
  EXPECT_FALSE(table->t_aligned);
}

}  // namespace
