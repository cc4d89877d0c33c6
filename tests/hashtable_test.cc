// HashTable: creation, look-up, insertion, growth, and what fails.

#include "dict/hashtable.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/death.h"
#include "support/faults.h"
#include "support/hashtable_model.h"
#include "support/messages.h"

using support::Bytes;
using support::Find;
using support::HashTablePtr;
using support::Insert;
using support::KeyText;
using support::Length;
using support::OffsetOf;
using support::Text;
namespace faults = support::faults;

namespace {

constexpr UInt kEmpty = 0xFFFFFFFF;

std::function<void(void*)> on_resize;  // called when a block is about to be resized

}  // namespace

extern "C" void* Allocate_(size_t size, void* old, const char* file, int line) {
  if (old != nullptr && on_resize) on_resize(old);
  return reinterpret_cast<void* (*)(size_t, void*, const char*, int)>(dlsym(RTLD_NEXT, "Allocate_"))(size, old, file,
                                                                                                     line);
}

namespace {

HashTablePtr New(UInt capacity, UInt val_len = 8, UByte key_size = 0, Boolean vm = FALSE) {
  return HashTablePtr(HashTableNew(capacity, nullptr, nullptr, nullptr, val_len, key_size, vm));
}

// Each of these tests runs on both kinds of memory.
class HashTableMemory : public ::testing::TestWithParam<Boolean> {
 protected:
  ~HashTableMemory() override { faults::Clear(); }
  static Boolean vm() { return GetParam(); }
  static HashTablePtr Make(UInt capacity, UInt val_len = 8, UByte key_size = 0) {
    return New(capacity, val_len, key_size, vm());
  }
};
using HashTableNewTest = HashTableMemory;
using HashTableFindTest = HashTableMemory;
using HashTableGrowTest = HashTableMemory;
const auto memory_name = [](const auto& info) { return info.param ? "Mapped" : "Allocated"; };
INSTANTIATE_TEST_SUITE_P(, HashTableNewTest, ::testing::Values(FALSE, TRUE), memory_name);
INSTANTIATE_TEST_SUITE_P(, HashTableFindTest, ::testing::Values(FALSE, TRUE), memory_name);
INSTANTIATE_TEST_SUITE_P(, HashTableGrowTest, ::testing::Values(FALSE, TRUE), memory_name);

TEST(QXDictInit, MayBeCalledAnyNumberOfTimes) {
  QXDictInit();
  QXDictInit();
}

TEST(HashBytes, IsThePolynomialFromTheLastByteToTheFirst) {
  EXPECT_EQ(HashBytes(nullptr, 0), 0u);
  EXPECT_EQ(HashBytes(Bytes("a"), 1), 97u);
  EXPECT_EQ(HashBytes(Bytes("ab"), 2), 25283u);     // 98 * 257 + 97
  EXPECT_EQ(HashBytes(Bytes("abc"), 3), 6564134u);  // (99 * 257 + 98) * 257 + 97
  EXPECT_EQ(HashBytes(Bytes("hello"), 5), 743325460u);
  EXPECT_EQ(HashBytes(Bytes("the quick brown fox jumps over the lazy dog"), 43), 1324802297u);
}

TEST(HashBytes, DoesNotSeeZeroBytesAtTheEnd) {
  EXPECT_EQ(HashBytes(Bytes(std::string("a\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 19)), 19), 97u);
}

TEST_P(HashTableNewTest, IsEmptyAndHashed) {
  HashTablePtr table = Make(100, 12, 2);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->t_hash, nullptr);
  EXPECT_EQ(table->t_value, nullptr);
  EXPECT_EQ(table->t_equal, nullptr);
  EXPECT_EQ(table->t_data_used, 0u);
  EXPECT_EQ(table->t_data_size, 755u);  // 5 bytes a slot
  EXPECT_EQ(table->t_entries_capacity, 100u);
  EXPECT_EQ(table->t_entries_used, 0u);
  EXPECT_EQ(table->t_entries_size, 151u);  // 150 is no prime
  EXPECT_EQ(table->t_val_len, 12u);
  EXPECT_FALSE(table->t_selected);
  EXPECT_EQ(table->t_key_size, 2);
  EXPECT_EQ(table->t_vm, vm());
  EXPECT_TRUE(table->t_aligned);
  for (UInt s = 0; s < 151; s++) EXPECT_EQ(table->t_entries[s], kEmpty);
  for (size_t i = 0; i < 755; i++) EXPECT_EQ(table->t_data[i], 0);
  EXPECT_EQ(HashTableSize(table.get()), 0u);
  EXPECT_EQ(HashTableCapacity(table.get()), 100u);
  EXPECT_FALSE(HashTableFull(table.get()));
}

TEST_P(HashTableNewTest, CapacityZeroIsFive) {
  for (const UInt capacity : {0u, 1u, 4u, 5u}) {
    HashTablePtr table = Make(capacity);
    EXPECT_EQ(HashTableCapacity(table.get()), 5u);
    EXPECT_EQ(table->t_entries_size, 7u);
    EXPECT_EQ(table->t_data_size, 35u);
  }
  EXPECT_EQ(Make(6)->t_entries_size, 11u);  // 9 is no prime
}

TEST(HashTableNew, KeepsTheCallbacks) {
  const HashKeyFunction hash = [](const UByte*, UInt, void*) { return 0u; };
  const HashValueFunction value = [](UByte*, const UByte*, UInt, void*) -> Boolean { return TRUE; };
  const HashEqualFunction equal = [](const UByte*, UInt, const UByte*, UInt, void*) -> Boolean { return TRUE; };
  HashTablePtr table(HashTableNew(5, hash, value, equal, 0, 4, 77));
  EXPECT_EQ(table->t_hash, hash);
  EXPECT_EQ(table->t_value, value);
  EXPECT_EQ(table->t_equal, equal);
  EXPECT_EQ(table->t_vm, 1);  // every non-zero Boolean is true
}

TEST(HashTableNew, TakesItsMemoryByMappingOnlyWhenAsked) {
  const long maps = faults::Maps(), unmaps = faults::Unmaps();
  New(5).reset();
  EXPECT_EQ(faults::Maps(), maps);
  New(5, 8, 0, TRUE).reset();
  EXPECT_EQ(faults::Maps(), maps + 2);
  EXPECT_EQ(faults::Unmaps(), unmaps + 2);
}

TEST(HashTableNew, RefusesACapacityWhoseSlotCountWouldWrap) {
  for (const UInt capacity : {1431655766u, 2147483648u, 4294967295u}) {
    const support::Messages messages;
    EXPECT_EQ(HashTableNew(capacity, nullptr, nullptr, nullptr, 8, 0, TRUE), nullptr);
    ASSERT_EQ(messages.all().size(), 1u);
    const support::Message& message = messages.all()[0];
    EXPECT_EQ(message.text, ":hashtable: capacity too large: capacity=" + std::to_string(capacity));
    EXPECT_EQ(message.function, "HashTableNew");
    EXPECT_EQ(message.level, 4);
    EXPECT_FALSE(message.flag);
  }
}

TEST(HashTableNew, AsksForTheGreatestCapacityThatDoesNotWrap) {
  const support::Messages messages;
  faults::FailMap(0);
  EXPECT_EQ(HashTableNew(1431655765, nullptr, nullptr, nullptr, 8, 0, TRUE), nullptr);
  EXPECT_EQ(faults::LastMapSize(), 4 * size_t{2147483647});  // itself a prime
  faults::Clear();
  EXPECT_EQ(messages.texts(),
            std::vector<std::string>{":hashtable: memory allocation failed: size=8589934588: Cannot allocate memory"});
}

TEST(HashTableNew, ReportsAFailedMappingAndGivesNull) {
  for (const long after : {0L, 1L}) {
    const long unmaps = faults::Unmaps();
    const support::Messages messages;
    faults::FailMap(after);
    EXPECT_EQ(HashTableNew(5, nullptr, nullptr, nullptr, 8, 0, TRUE), nullptr);
    faults::Clear();
    ASSERT_EQ(messages.all().size(), 1u);
    const support::Message& message = messages.all()[0];
    EXPECT_EQ(message.text, after == 0 ? ":hashtable: memory allocation failed: size=28: Cannot allocate memory"
                                       : ":hashtable: memory allocation failed: size=35: Cannot allocate memory");
    EXPECT_EQ(message.file, "dict/hashtable");
    EXPECT_EQ(message.module, "qxdict");
    EXPECT_EQ(message.function, "HashMalloc");
    EXPECT_EQ(message.level, 4);
    EXPECT_TRUE(message.flag);
    EXPECT_EQ(faults::Unmaps(), unmaps + after);  // what was mapped before is released
  }
}

TEST(HashTableFree, ReportsMappingsThatCannotBeReleased) {
  HashTablePtr table = New(5, 8, 0, TRUE);
  const support::Messages messages;
  faults::FailUnmap(0, 2);
  table.reset();
  faults::Clear();
  ASSERT_EQ(messages.all().size(), 2u);
  EXPECT_EQ(messages.all()[0].text, ":hashtable: memory deallocation failed: size=35: Invalid argument");
  EXPECT_EQ(messages.all()[1].text, ":hashtable: memory deallocation failed: size=28: Invalid argument");
  for (const support::Message& message : messages.all()) {
    EXPECT_EQ(message.file, "dict/hashtable");
    EXPECT_EQ(message.module, "qxdict");
    EXPECT_EQ(message.function, "HashFree");
    EXPECT_EQ(message.level, 4);
    EXPECT_TRUE(message.flag);
  }
}

TEST_P(HashTableFindTest, InsertsAndFinds) {
  HashTablePtr table = Make(5);
  UInt offset = 99;
  EXPECT_EQ(HashTableFind(table.get(), Bytes("one"), 3, FALSE, &offset, nullptr), nullptr);
  EXPECT_EQ(offset, 99u);  // told only together with an entry
  UByte* one = HashTableFind(table.get(), Bytes("one"), 3, TRUE, &offset, nullptr);
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(offset, 0u);
  EXPECT_EQ(Text(one, 8), std::string(8, '\0'));
  UByte* two = HashTableFind(table.get(), Bytes("two"), 3, 2, &offset, nullptr);  // any non-zero Boolean creates
  ASSERT_NE(two, nullptr);
  EXPECT_EQ(offset, 16u);
  EXPECT_EQ(two, HashTableGetOffset(table.get(), 16));
  EXPECT_EQ(HashTableSize(table.get()), 2u);

  offset = 99;
  EXPECT_EQ(HashTableFind(table.get(), Bytes("one"), 3, TRUE, &offset, nullptr), table->t_data);
  EXPECT_EQ(offset, 0u);
  EXPECT_EQ(HashTableSize(table.get()), 2u);
  EXPECT_EQ(Find(table.get(), "three"), nullptr);
  EXPECT_EQ(Find(table.get(), "on"), nullptr);
  EXPECT_EQ(Find(table.get(), "onee"), nullptr);
}

TEST_P(HashTableFindTest, LaysAnEntryOutAsValueLengthKey) {
  HashTablePtr table = Make(5, 3);
  UByte* entry = Insert(table.get(), "key");
  entry[0] = 1;
  entry[1] = 2;
  entry[2] = 3;
  EXPECT_EQ(Text(table->t_data, 7), std::string("\1\2\3\6key"));
  EXPECT_EQ(table->t_data_used, 7u);
  Insert(table.get(), "q");  // starts at 8
  EXPECT_EQ(Text(table->t_data, 13), std::string("\1\2\3\6key\0\0\0\0\2q", 13));
  EXPECT_EQ(table->t_data_used, 13u);
}

TEST_P(HashTableFindTest, WritesLengthFieldsOfEachWidth) {
  const std::string fields[] = {{"\4", 1}, {"\2", 1}, {"\2\0", 2}, {"\2\0\0", 3}, {"\2\0\0\0", 4}};
  for (UByte width = 0; width <= 4; width++) {
    HashTablePtr table = Make(5, 0, width);
    Insert(table.get(), "ab");
    EXPECT_EQ(Text(table->t_data, table->t_data_used), fields[width] + "ab");
    EXPECT_EQ(KeyText(table.get(), table->t_data), "ab");
    EXPECT_NE(Find(table.get(), "ab"), nullptr);
  }
}

TEST_P(HashTableFindTest, EmptyKeyIsAKey) {
  HashTablePtr table = Make(5, 4);
  UByte* entry = HashTableFind(table.get(), nullptr, 0, TRUE, nullptr, nullptr);
  ASSERT_EQ(entry, table->t_data);
  EXPECT_EQ(table->t_entries[0], 0u);  // it hashes to 0
  EXPECT_EQ(table->t_data[4], 0);
  EXPECT_EQ(table->t_data_used, 5u);
  EXPECT_EQ(HashTableFind(table.get(), nullptr, 0, FALSE, nullptr, nullptr), entry);
  EXPECT_EQ(HashTableFind(table.get(), Bytes("x"), 0, TRUE, nullptr, nullptr), entry);
  EXPECT_EQ(HashTableSize(table.get()), 1u);
  EXPECT_EQ(Find(table.get(), std::string(1, '\0')), nullptr);  // hashes to 0 too, and is another key
}

TEST_P(HashTableFindTest, ZeroBytesBelongToAKey) {
  HashTablePtr table = Make(5);
  const std::string keys[] = {{"a", 1}, {"a\0", 2}, {"a\0\0", 3}, {"\0a", 2}};
  for (const std::string& key : keys) ASSERT_NE(Insert(table.get(), key), nullptr);
  for (UInt i = 0; i < 4; i++) EXPECT_EQ(OffsetOf(table.get(), Find(table.get(), keys[i])), 16 * i);
}

TEST_P(HashTableFindTest, ValuesMayBeEmptyOrLong) {
  HashTablePtr none = Make(5, 0);
  EXPECT_EQ(Insert(none.get(), ""), none->t_data);
  EXPECT_EQ(none->t_data_used, 1u);
  HashTablePtr large = Make(5, 1000000);
  UByte* entry = Insert(large.get(), "k");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(Text(entry, 1000000), std::string(1000000, '\0'));
  EXPECT_EQ(large->t_data_size, 1000006u);  // exactly what the entry may need: more than half as much again
}

TEST_P(HashTableFindTest, LengthFieldGrowsWithTheKey) {
  const struct {
    UInt length;
    std::string field;
  } cases[] = {{127, "\xFE"},           {128, "\x01\x02"},         {16383, "\xFF\xFE"},
               {16384, "\x01\x01\x02"}, {2097151, "\xFF\xFF\xFE"}, {2097152, "\x01\x01\x01\x02"}};
  for (const auto& c : cases) {
    HashTablePtr table = Make(5, 1);
    const std::string key(c.length, 'k');
    ASSERT_EQ(Insert(table.get(), key), table->t_data);
    EXPECT_EQ(Text(table->t_data + 1, c.field.size()), c.field) << c.length;
    EXPECT_EQ(table->t_data_used, 1 + c.field.size() + c.length);
    EXPECT_EQ(Find(table.get(), key), table->t_data);
    EXPECT_EQ(Find(table.get(), key + "k"), nullptr);
    const UByte* bytes = nullptr;
    EXPECT_EQ(HashTableKey(table.get(), table->t_data, &bytes), c.length);
    EXPECT_EQ(bytes, table->t_data + 1 + c.field.size());
  }
}

TEST(HashTableFind, LengthFieldGrowsToFiveBytes) {
  // A key of zero bytes that nobody has to write: untouched private memory.
  constexpr size_t kBytes = 268435456;
  void* memory = mmap(nullptr, kBytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  const auto* key = static_cast<const UByte*>(memory);
  const struct {
    UInt length;
    std::string field;
  } cases[] = {{268435455, "\xFF\xFF\xFF\xFE"}, {268435456, "\x01\x01\x01\x01\x02"}};
  for (const auto& c : cases) {
    HashTablePtr table(HashTableNew(5, support::HashToOne, nullptr, nullptr, 1, 0, TRUE));
    ASSERT_EQ(HashTableFind(table.get(), key, c.length, TRUE, nullptr, nullptr), table->t_data);
    EXPECT_EQ(Text(table->t_data + 1, c.field.size()), c.field);
    EXPECT_EQ(table->t_data_used, 1 + c.field.size() + c.length);
    EXPECT_EQ(HashTableFind(table.get(), key, c.length, FALSE, nullptr, nullptr), table->t_data);
    const UByte* bytes = nullptr;
    EXPECT_EQ(HashTableKey(table.get(), table->t_data, &bytes), c.length);
  }
  munmap(memory, kBytes);
}

TEST_P(HashTableFindTest, FixedWidthTakesKeysBelowItsRange) {
  HashTablePtr one = Make(5, 8, 1);
  EXPECT_NE(Insert(one.get(), std::string(255, 'k')), nullptr);
  EXPECT_NE(Find(one.get(), std::string(255, 'k')), nullptr);
  HashTablePtr two = Make(5, 8, 2);
  EXPECT_NE(Insert(two.get(), std::string(65535, 'k')), nullptr);
  EXPECT_NE(Find(two.get(), std::string(65535, 'k')), nullptr);
}

TEST(HashTableFindDeathTest, FixedWidthRefusesLongerKeys) {
  const char* text = "l < (b << (8 * k))";
  HashTablePtr one = New(5, 8, 1);
  EXPECT_ASSERTION(Insert(one.get(), std::string(256, 'k')), "dict/hashtable", "HashTableFind", text);
  EXPECT_ASSERTION(Find(one.get(), std::string(256, 'k')), "dict/hashtable", "HashTableFind", text);
  HashTablePtr two = New(5, 8, 2);
  EXPECT_ASSERTION(Insert(two.get(), std::string(65536, 'k')), "dict/hashtable", "HashTableFind", text);
  HashTablePtr three = New(5, 8, 3);
  EXPECT_ASSERTION(Insert(three.get(), std::string(16777216, 'k')), "dict/hashtable", "HashTableFind", text);
}

TEST(HashTableFindDeathTest, WidthAboveFourFailsWhenTheFirstKeyIsStoredOrRead) {
  HashTablePtr table = New(5, 8, 5);
  EXPECT_EQ(Find(table.get(), "k"), nullptr);  // nothing is coded yet
  EXPECT_ASSERTION(Insert(table.get(), "k"), "util/io2", "IO2_MemWritePaddedLE4", "size <= 4");
  const UByte* bytes = nullptr;
  EXPECT_ASSERTION(HashTableKey(table.get(), table->t_data, &bytes), "util/io2", "IO2_MemReadPaddedLE4", "size <= 4");
  HashTablePtr widest = New(5, 8, 255);
  EXPECT_ASSERTION(Insert(widest.get(), "k"), "util/io2", "IO2_MemWritePaddedLE4", "size <= 4");
}

TEST(HashTableFindDeathTest, SelectedTableCannotBeSearched) {
  HashTablePtr table = New(5);
  Insert(table.get(), "k");
  HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr);
  EXPECT_ASSERTION(Find(table.get(), "k"), "dict/hashtable", "HashTableFind", "!table->t_selected");
  EXPECT_ASSERTION(Insert(table.get(), "l"), "dict/hashtable", "HashTableFind", "!table->t_selected");
}

TEST_P(HashTableFindTest, ProbesWrapFromTheLastSlotToTheFirst) {
  // All keys start at the last slot of 7.
  HashTablePtr table(HashTableNew(
      5, [](const UByte*, UInt, void*) { return 13u; }, nullptr, nullptr, 0, 0, vm()));
  for (const char* key : {"a", "b", "c"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  EXPECT_EQ(table->t_entries[6], 0u);
  EXPECT_EQ(table->t_entries[0], 8u);
  EXPECT_EQ(table->t_entries[1], 16u);
  EXPECT_EQ(table->t_entries[2], kEmpty);
  EXPECT_EQ(OffsetOf(table.get(), Find(table.get(), "c")), 16u);
  EXPECT_EQ(Find(table.get(), "d"), nullptr);
}

TEST_P(HashTableFindTest, HashIsTakenModuloTheSlotCountInFull) {
  HashTablePtr table(HashTableNew(
      5, [](const UByte*, UInt, void*) { return 0xFFFFFFFFu; }, nullptr, nullptr, 0, 0, vm()));
  Insert(table.get(), "a");
  EXPECT_EQ(table->t_entries[3], 0u);  // 4294967295 = 7 * 613566756 + 3
}

TEST_P(HashTableFindTest, FullTableRefusesNewKeysAndFindsOldOnes) {
  HashTablePtr table = Make(5);
  for (const char* key : {"a", "b", "c", "d", "e"}) ASSERT_NE(Insert(table.get(), key), nullptr);
  EXPECT_TRUE(HashTableFull(table.get()));
  const std::string heap = Text(table->t_data, table->t_data_size);
  const size_t used = table->t_data_used;
  const support::Messages messages;
  UInt offset = 99;
  EXPECT_EQ(HashTableFind(table.get(), Bytes("f"), 1, TRUE, &offset, nullptr), nullptr);
  EXPECT_EQ(offset, 99u);
  EXPECT_EQ(table->t_data_used, used);
  EXPECT_EQ(Text(table->t_data, table->t_data_size), heap);
  EXPECT_EQ(HashTableSize(table.get()), 5u);
  EXPECT_NE(Insert(table.get(), "c"), nullptr);
  EXPECT_TRUE(messages.all().empty());

  HashTableGrow(table.get(), 1.5F, nullptr);
  EXPECT_FALSE(HashTableFull(table.get()));
  EXPECT_NE(Insert(table.get(), "f"), nullptr);
  UInt expected = 0;
  for (const char* key : {"a", "b", "c", "d", "e", "f"}) {
    EXPECT_EQ(OffsetOf(table.get(), Find(table.get(), key)), expected);
    expected += 16;
  }
}

TEST_P(HashTableFindTest, EveryOffsetIsAMultipleOfEight) {
  HashTablePtr table = Make(200, 3);
  for (UInt i = 0; i < 200; i++) {
    UInt offset = 1;
    ASSERT_NE(HashTableFind(table.get(), Bytes(std::string(i % 40, 'k') + std::to_string(i)),
                            static_cast<UInt>(i % 40 + std::to_string(i).size()), TRUE, &offset, nullptr),
              nullptr);
    EXPECT_EQ(offset % 8, 0u);
  }
}

TEST_P(HashTableFindTest, HeapGrowsByHalfOrToWhatIsNeeded) {
  HashTablePtr table = Make(5, 0);
  Insert(table.get(), std::string(20, 'a'));  // 21 of 35 bytes
  EXPECT_EQ(table->t_data_size, 35u);
  Insert(table.get(), std::string(6, 'b'));  // 21 + 3 + 6 + 5 = 35: just enough
  EXPECT_EQ(table->t_data_size, 35u);
  EXPECT_EQ(table->t_data_used, 31u);
  Insert(table.get(), "");  // 31 + 1 + 5 = 37; half as much again is more
  EXPECT_EQ(table->t_data_size, 52u);
  Insert(table.get(), std::string(40, 'c'));  // 33 + 7 + 40 + 5 = 85 > 78
  EXPECT_EQ(table->t_data_size, 85u);
  EXPECT_EQ(Text(table->t_data + table->t_data_used, 4), std::string(4, '\0'));
  for (const std::string& key : {std::string(20, 'a'), std::string(6, 'b'), std::string(), std::string(40, 'c')}) {
    EXPECT_NE(Find(table.get(), key), nullptr);
  }
}

TEST_P(HashTableFindTest, UnusedHeapAndPaddingAreZero) {
  HashTablePtr table = Make(50, 0);
  std::string expected;
  for (int i = 0; i < 50; i++) {
    const std::string key(static_cast<size_t>(i % 11), 'k');
    if (Find(table.get(), key + std::to_string(i)) != nullptr) continue;
    ASSERT_NE(Insert(table.get(), key + std::to_string(i)), nullptr);
    expected.append((8 - expected.size() % 8) % 8, '\0');
    expected += static_cast<char>(2 * (key.size() + std::to_string(i).size()));
    expected += key + std::to_string(i);
    ASSERT_EQ(Text(table->t_data, table->t_data_size),
              expected + std::string(table->t_data_size - expected.size(), '\0'));
  }
  HashTableClear(table.get());
  Insert(table.get(), "12345");  // 6 bytes, and 2 of padding over old bytes
  Insert(table.get(), "6");
  EXPECT_EQ(Text(table->t_data, 10), std::string("\n12345\0\0\2\66", 10));
}

struct Callback {
  HashTable* table = nullptr;
  std::vector<std::string> calls;
  Boolean accept = TRUE;
};

TEST_P(HashTableFindTest, CallbacksGetTheirArgumentsInOrder) {
  Callback context;
  const auto hash = [](const UByte* bytes, UInt len, void* ptr) -> UInt {
    static_cast<Callback*>(ptr)->calls.push_back("hash " + Text(bytes, len));
    return 1;
  };
  const auto value = [](UByte* to, const UByte* bytes, UInt len, void* ptr) -> Boolean {
    auto* c = static_cast<Callback*>(ptr);
    c->calls.push_back("value " + Text(bytes, len) + " at " + std::to_string(to - c->table->t_data));
    to[0] = 'V';
    return c->accept;
  };
  const auto equal = [](const UByte* stored, UInt stored_len, const UByte* bytes, UInt len, void* ptr) -> Boolean {
    static_cast<Callback*>(ptr)->calls.push_back("equal " + Text(stored, stored_len) + " " + Text(bytes, len));
    return stored_len == len ? 256 : FALSE;
  };
  HashTablePtr table(HashTableNew(5, hash, value, equal, 1, 0, vm()));
  context.table = table.get();
  UByte* x = Insert(table.get(), "x", &context);
  EXPECT_EQ(Insert(table.get(), "y", &context), x);  // equal, says the callback: the lengths agree
  EXPECT_EQ(Text(x, 3), "V\2x");
  Insert(table.get(), "zz", &context);
  Find(table.get(), "abc", &context);
  HashTableGrow(table.get(), 2.0F, &context);
  EXPECT_EQ(context.calls, (std::vector<std::string>{"hash x", "value x at 0", "hash y", "equal x y", "hash zz",
                                                     "equal x zz", "value zz at 8", "hash abc", "equal x abc",
                                                     "equal zz abc", "hash x", "hash zz"}));
}

TEST_P(HashTableFindTest, RefusingValueCallbackLeavesOnlyPadding) {
  Callback context;
  const auto value = [](UByte* to, const UByte*, UInt, void* ptr) -> Boolean {
    to[0] = 'V';
    return static_cast<Callback*>(ptr)->accept;
  };
  HashTablePtr table(HashTableNew(5, nullptr, value, nullptr, 1, 0, vm()));
  ASSERT_NE(Insert(table.get(), "abc", &context), nullptr);  // 5 bytes
  const support::Messages messages;
  context.accept = FALSE;
  UInt offset = 99;
  EXPECT_EQ(HashTableFind(table.get(), Bytes("d"), 1, TRUE, &offset, &context), nullptr);
  EXPECT_EQ(offset, 99u);
  EXPECT_EQ(HashTableSize(table.get()), 1u);
  EXPECT_EQ(table->t_data_used, 8u);
  EXPECT_EQ(Text(table->t_data + 5, 3), std::string(3, '\0'));
  EXPECT_EQ(Insert(table.get(), "e", &context), nullptr);
  EXPECT_EQ(table->t_data_used, 8u);
  UInt taken = 0;
  for (UInt s = 0; s < table->t_entries_size; s++) taken += table->t_entries[s] != kEmpty;
  EXPECT_EQ(taken, 1u);
  EXPECT_TRUE(messages.all().empty());

  HashTableIterator* it = HashTableIteratorInit(table.get());
  HashTableIteratorNext(it);
  EXPECT_TRUE(HashTableIteratorEnd(it));
  context.accept = TRUE;
  EXPECT_EQ(OffsetOf(table.get(), Insert(table.get(), "d", &context)), 8u);
  EXPECT_FALSE(HashTableIteratorEnd(it));  // the iterator stands where the entry came
  HashTableIteratorFinalize(it);
  EXPECT_NE(Find(table.get(), "d", &context), nullptr);
}

TEST_P(HashTableFindTest, KeyMayLieInTheTableItself) {
  const std::string text = [] {
    std::string bytes;
    for (int i = 0; i < 3000; i++) bytes += static_cast<char>('a' + i * i % 23);
    return bytes;
  }();
  struct Seen {
    std::string key;
    bool wrong = false;
  } seen;
  const auto value = [](UByte*, const UByte* bytes, UInt len, void* ptr) -> Boolean {
    auto* s = static_cast<Seen*>(ptr);
    if (Text(bytes, len) != s->key) s->wrong = true;
    return TRUE;
  };
  HashTablePtr table(HashTableNew(4000, nullptr, value, nullptr, 8, 0, vm()));
  seen.key = text;
  ASSERT_EQ(Insert(table.get(), text, &seen), table->t_data);
  size_t moves = 0;
  for (UInt length = 1; length < 2000; length++) {
    const UByte* whole = nullptr;
    HashTableKey(table.get(), table->t_data, &whole);
    seen.key = text.substr(length, length);
    const size_t size = table->t_data_size;
    UByte* entry = HashTableFind(table.get(), whole + length, std::min(length, 3000 - length), TRUE, nullptr, &seen);
    ASSERT_NE(entry, nullptr);
    moves += table->t_data_size != size;
    ASSERT_EQ(KeyText(table.get(), entry), seen.key);
    ASSERT_EQ(Find(table.get(), seen.key, &seen), entry);
  }
  EXPECT_GT(moves, 5u);
  EXPECT_FALSE(seen.wrong);
}

TEST_P(HashTableFindTest, ValueCallbackThatInsertsLosesItsInsertion) {
  const auto value = [](UByte*, const UByte*, UInt len, void* ptr) -> Boolean {
    auto* table = static_cast<HashTable*>(ptr);
    if (len == 1) {
      for (int i = 0; i < 4; i++) Insert(table, "inner key that moves the heap " + std::to_string(i), table);
    }
    return TRUE;
  };
  HashTablePtr table(HashTableNew(10, nullptr, value, nullptr, 8, 0, vm()));
  EXPECT_EQ(Insert(table.get(), "x", table.get()), nullptr);
  EXPECT_EQ(HashTableSize(table.get()), 4u);
  for (int i = 0; i < 4; i++) {
    EXPECT_NE(Find(table.get(), "inner key that moves the heap " + std::to_string(i), table.get()), nullptr);
  }
}

TEST_P(HashTableFindTest, ValueCallbackMayGrowTheTable) {
  const auto value = [](UByte*, const UByte*, UInt, void* ptr) -> Boolean {
    auto* table = static_cast<HashTable*>(ptr);
    HashTableGrow(table, 3.0F, table);
    return TRUE;
  };
  HashTablePtr table(HashTableNew(5, nullptr, value, nullptr, 8, 0, vm()));
  for (const char* key : {"a", "b", "c", "d"}) ASSERT_NE(Insert(table.get(), key, table.get()), nullptr);
  for (const char* key : {"a", "b", "c", "d"}) EXPECT_NE(Find(table.get(), key, table.get()), nullptr);
}

TEST_P(HashTableFindTest, EqualityCallbackThatGrowsTheTableLosesTheOperation) {
  static UInt most;
  most = 20;
  const auto equal = [](const UByte* stored, UInt, const UByte* bytes, UInt, void* ptr) -> Boolean {
    auto* table = static_cast<HashTable*>(ptr);
    if (HashTableCapacity(table) < most) HashTableGrow(table, 4.0F, table);
    return *stored == *bytes;
  };
  HashTablePtr table(HashTableNew(5, support::HashToLength, nullptr, equal, 8, 0, vm()));
  ASSERT_NE(Insert(table.get(), "a", table.get()), nullptr);
  EXPECT_EQ(Insert(table.get(), "b", table.get()), nullptr);
  EXPECT_EQ(HashTableCapacity(table.get()), 20u);
  EXPECT_EQ(HashTableSize(table.get()), 1u);
  ASSERT_NE(Insert(table.get(), "b", table.get()), nullptr);
  most = 80;
  EXPECT_EQ(Find(table.get(), "b", table.get()), nullptr);
  EXPECT_EQ(HashTableCapacity(table.get()), 80u);
  EXPECT_NE(Find(table.get(), "b", table.get()), nullptr);
}

TEST_P(HashTableFindTest, ValueCallbackThatGrowsToTheSameSlotCountIsBorne) {
  // A damaged file may name an entry twice: growing empties one of the slots, and the new key belongs there then.
  const auto value = [](UByte*, const UByte*, UInt, void* ptr) -> Boolean {
    if (ptr != nullptr) HashTableGrow(static_cast<HashTable*>(ptr), 1.01F, nullptr);
    return TRUE;
  };
  HashTablePtr table(HashTableNew(5, support::HashToLength, value, nullptr, 8, 0, vm()));
  ASSERT_NE(Insert(table.get(), "b"), nullptr);
  ASSERT_EQ(table->t_entries[2], 0u);
  table->t_entries[3] = 0;  // as a damaged file would have it: the entry in two slots
  UInt offset = 0;
  ASSERT_NE(HashTableFind(table.get(), support::Bytes("c"), 1, TRUE, &offset, table.get()), nullptr);
  EXPECT_EQ(table->t_entries_size, 7u);
  EXPECT_EQ(table->t_entries[2], 0u);
  EXPECT_EQ(table->t_entries[3], offset);
  EXPECT_NE(Find(table.get(), "c"), nullptr);
}

// Callbacks that insert a long key move the heap, and with it the key that is looked for, if that lies there.
TEST_P(HashTableFindTest, KeyInTheTableIsFoundAgainAfterACallbackHasMovedIt) {
  struct Mover {
    HashTable* table;
    int moves;
    void Move() {
      if (moves-- > 0) Insert(table, std::string(100000, 'x'), nullptr);
    }
  };
  const HashKeyFunction hash = [](const UByte* bytes, UInt len, void* ptr) {
    const UInt h = HashBytes(bytes, len);
    if (ptr != nullptr) static_cast<Mover*>(ptr)->Move();
    return h % 2;
  };
  const HashEqualFunction equal = [](const UByte* stored, UInt stored_len, const UByte* bytes, UInt len,
                                     void* ptr) -> Boolean {
    const bool same = std::string(stored, stored + stored_len) == std::string(bytes, bytes + len);
    if (ptr != nullptr) static_cast<Mover*>(ptr)->Move();
    return same;
  };
  for (const auto& [in_hash, in_equal] : {std::pair{true, false}, {false, true}}) {
    HashTablePtr table(
        HashTableNew(20, in_hash ? hash : support::HashToOne, nullptr, in_equal ? equal : nullptr, 8, 0, vm()));
    ASSERT_NE(Insert(table.get(), "an outer key, and an inner one"), nullptr);
    ASSERT_NE(Insert(table.get(), "another"), nullptr);
    const UByte* key;
    ASSERT_EQ(HashTableKey(table.get(), HashTableGetOffset(table.get(), 0), &key), 30u);
    Mover mover{table.get(), 1};
    UByte* entry = HashTableFind(table.get(), key + 18, 12, TRUE, nullptr, &mover);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(KeyText(table.get(), entry), "an inner one");
    EXPECT_EQ(HashTableSize(table.get()), 4u);
  }
}

// A heap that lies in 4 GiB of memory that is mostly never touched.
class HugeHeap {
 public:
  static constexpr size_t kSize = 0x100010000;
  explicit HugeHeap(HashTable* table) : table_(table), data_(table->t_data), size_(table->t_data_size) {
    memory_ = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    table->t_data = static_cast<UByte*>(memory_);
    table->t_data_size = kSize;
  }
  ~HugeHeap() {
    table_->t_data = data_;
    table_->t_data_size = size_;
    munmap(memory_, kSize);
  }
  HugeHeap(const HugeHeap&) = delete;
  HugeHeap& operator=(const HugeHeap&) = delete;
  bool mapped() const { return memory_ != MAP_FAILED; }

 private:
  HashTable* table_;
  UByte* data_;
  size_t size_;
  void* memory_;
};

TEST(HashTableFind, HeapEndsWhere32BitOffsetsDo) {
  HashTablePtr table = New(10, 3, 0);
  HugeHeap heap(table.get());
  ASSERT_TRUE(heap.mapped());
  // From 0xFFFFFFE0 on, 24 bytes are left: 3 of value, 1 of length, 20 of key.
  table->t_data_used = 0xFFFFFFDE;
  const support::Messages messages;
  UInt offset = 99;
  EXPECT_EQ(HashTableFind(table.get(), Bytes(std::string(21, 'k')), 21, TRUE, &offset, nullptr), nullptr);
  EXPECT_EQ(offset, 99u);
  EXPECT_EQ(table->t_data_used, 0xFFFFFFDE);
  EXPECT_EQ(HashTableSize(table.get()), 0u);
  EXPECT_TRUE(messages.all().empty());
  ASSERT_NE(HashTableFind(table.get(), Bytes(std::string(20, 'k')), 20, TRUE, &offset, nullptr), nullptr);
  EXPECT_EQ(offset, 0xFFFFFFE0);
  EXPECT_EQ(table->t_data_used, 0xFFFFFFF8);
  EXPECT_EQ(Insert(table.get(), ""), nullptr);
  EXPECT_EQ(Find(table.get(), std::string(20, 'k')), table->t_data + 0xFFFFFFE0);

  HashTableIterator it = {table.get(), 0xFFFFFFE0};
  EXPECT_FALSE(HashTableIteratorEnd(&it));
  HashTableIteratorNext(&it);
  EXPECT_EQ(it.t_offset, 0xFFFFFFF8);
  EXPECT_TRUE(HashTableIteratorEnd(&it));
  UInt visits = 0;
  const auto count = [](UByte*, void* ptr) -> UInt {
    ++*static_cast<UInt*>(ptr);
    return 0;
  };
  EXPECT_EQ(HashTableEnumerate(table.get(), 0xFFFFFFE0, count, &visits), 0u);
  EXPECT_EQ(visits, 1u);
}

TEST(HashTableFind, HeapPastItsLimitTakesNothingMore) {
  HashTablePtr table = New(10, 0, 0);
  HugeHeap heap(table.get());
  ASSERT_TRUE(heap.mapped());
  for (const size_t used :
       {size_t{0xFFFFFFF8}, size_t{0xFFFFFFF9}, size_t{0xFFFFFFFF}, size_t{0x100000000}, SIZE_MAX - 3, SIZE_MAX}) {
    table->t_data_used = used;
    EXPECT_EQ(Insert(table.get(), ""), nullptr) << used;
    table->t_aligned = FALSE;
    EXPECT_EQ(Insert(table.get(), ""), nullptr) << used;
    table->t_aligned = TRUE;
    EXPECT_EQ(table->t_data_used, used);
  }
  table->t_val_len = 0xFFFFFFFF;
  table->t_data_used = 8;
  EXPECT_EQ(Insert(table.get(), ""), nullptr);
}

TEST_P(HashTableFindTest, ProbeThatHasSeenEverySlotEnds) {
  // More keys than the capacity, as only a damaged file claims, so that "full" is never noticed.
  HashTablePtr table = Make(5, 0);
  table->t_entries_used = 6;
  for (int i = 0; i < 7; i++) ASSERT_NE(Insert(table.get(), std::to_string(i)), nullptr);
  const size_t used = table->t_data_used;
  EXPECT_EQ(Find(table.get(), "x"), nullptr);
  EXPECT_EQ(Insert(table.get(), "x"), nullptr);
  EXPECT_EQ(table->t_data_used, used);
  EXPECT_EQ(HashTableSize(table.get()), 13u);
  for (int i = 0; i < 7; i++) EXPECT_NE(Find(table.get(), std::to_string(i)), nullptr);
}

TEST(HashTableFind, FailedMappingLeavesTheTableAsItWas) {
  HashTablePtr table = New(20, 8, 0, TRUE);
  std::vector<std::string> keys;
  for (int i = 0; HashTableSize(table.get()) < 4; i++) {
    keys.push_back("key number " + std::to_string(i));
    Insert(table.get(), keys.back());
  }
  const std::string record(reinterpret_cast<const char*>(table.get()), sizeof(HashTable));
  const std::string heap = Text(table->t_data, table->t_data_size);
  const support::Messages messages;
  faults::FailRemap(0, -1);
  UInt offset = 99;
  EXPECT_EQ(HashTableFind(table.get(), Bytes(std::string(100, 'x')), 100, TRUE, &offset, nullptr), nullptr);
  faults::Clear();
  EXPECT_EQ(offset, 99u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(table.get()), sizeof(HashTable)), record);
  EXPECT_EQ(Text(table->t_data, table->t_data_size), heap);
  ASSERT_EQ(messages.all().size(), 1u);
  const support::Message& message = messages.all()[0];
  // 4 entries of 24 bytes, the last one unpadded: 93 used, 3 of padding, 8 of value, 100 of key, 5 for the length; but
  // half as much again of 155 is more.
  EXPECT_EQ(message.text, ":hashtable: memory reallocation failed: size=232: Cannot allocate memory");
  EXPECT_EQ(message.file, "dict/hashtable");
  EXPECT_EQ(message.module, "qxdict");
  EXPECT_EQ(message.function, "HashRealloc");
  EXPECT_EQ(message.level, 4);
  EXPECT_TRUE(message.flag);
  EXPECT_NE(Insert(table.get(), std::string(100, 'x')), nullptr);
  for (const std::string& key : keys) EXPECT_NE(Find(table.get(), key), nullptr);
}

TEST(HashTableFindDeathTest, RoomIsAssertedAfterTheHeapHasGrown) {
  HashTablePtr table = New(5, 8);
  EXPECT_ASSERTION(
      {
        on_resize = [&](void* old) {
          if (old == table->t_data) table->t_data_used += 100;  // a stray write
        };
        Insert(table.get(), std::string(100, 'k'));
      },
      "dict/hashtable", "HashTableFind", "table->t_data_used + delta <= table->t_data_size");
}

TEST(HashTableFindDeathTest, AlignmentIsAssertedThroughTheBaseLibrary) {
  HashTablePtr table = New(5, 8);
  Insert(table.get(), "k");
  table->t_aligned = FALSE;
  EXPECT_CLEAR_END(
      {
        on_resize = [&](void* old) {
          if (old == table->t_data) table->t_aligned = TRUE;  // a stray write
        };
        Insert(table.get(), std::string(100, 'k'));
      },
      "Assertion `!table->t_aligned || (entry % sizeof(void*) == 0)' failed.");
}

TEST_P(HashTableGrowTest, RaisesTheCapacityAndKeepsEveryEntry) {
  HashTablePtr table = Make(5);
  for (const char* key : {"a", "b", "c", "d", "e"}) Insert(table.get(), key);
  const UByte* data = table->t_data;
  const std::string heap = Text(table->t_data, table->t_data_size);
  HashTableGrow(table.get(), 2.5F, nullptr);
  EXPECT_EQ(HashTableCapacity(table.get()), 12u);  // 12.5, cut
  EXPECT_EQ(table->t_entries_size, 19u);           // 18 is no prime
  EXPECT_EQ(HashTableSize(table.get()), 5u);
  EXPECT_EQ(table->t_data, data);  // the heap is not touched
  EXPECT_EQ(Text(table->t_data, table->t_data_size), heap);
  // 'a' is 97 = 5 * 19 + 2
  for (UInt s = 0; s < 19; s++) EXPECT_EQ(table->t_entries[s], s >= 2 && s < 7 ? 16 * (s - 2) : kEmpty) << s;
}

TEST_P(HashTableGrowTest, EntriesEnterTheNewSlotsInInsertionOrder) {
  HashTablePtr table(HashTableNew(5, support::HashToOne, nullptr, nullptr, 0, 0, vm()));
  for (const char* key : {"e", "d", "c", "b", "a"}) Insert(table.get(), key);
  HashTableGrow(table.get(), 2.0F, nullptr);
  for (UInt i = 0; i < 5; i++) EXPECT_EQ(table->t_entries[3 + i], 8 * i);
}

TEST_P(HashTableGrowTest, HashesMoreEntriesThanAreUnderWayAtOnce) {
  HashTablePtr table = Make(1000, 0);
  for (int i = 0; i < 1000; i++) Insert(table.get(), std::to_string(i));
  HashTableGrow(table.get(), 1.001F, nullptr);
  EXPECT_EQ(HashTableCapacity(table.get()), 1001u);
  UInt taken = 0;
  for (UInt s = 0; s < table->t_entries_size; s++) taken += table->t_entries[s] != kEmpty;
  EXPECT_EQ(taken, 1000u);
  for (int i = 0; i < 1000; i++) EXPECT_EQ(OffsetOf(table.get(), Find(table.get(), std::to_string(i))), 8 * i);
}

TEST_P(HashTableGrowTest, FactorTooSmallForOneMoreKeyRehashesOnly) {
  HashTablePtr table = Make(5);
  Insert(table.get(), "a");
  HashTableGrow(table.get(), 1.19F, nullptr);
  EXPECT_EQ(HashTableCapacity(table.get()), 5u);
  EXPECT_NE(Find(table.get(), "a"), nullptr);
}

TEST_P(HashTableGrowTest, EmptyTableGrowsToo) {
  HashTablePtr table = Make(5);
  HashTableGrow(table.get(), 100.0F, nullptr);
  EXPECT_EQ(HashTableCapacity(table.get()), 500u);
  EXPECT_EQ(table->t_entries_size, 751u);
  for (int i = 0; i < 500; i++) ASSERT_NE(Insert(table.get(), std::to_string(i)), nullptr);
  EXPECT_TRUE(HashTableFull(table.get()));
}

TEST_P(HashTableGrowTest, RefusesACapacityWhoseSlotCountWouldWrap) {
  for (const float factor : {286331168.0F, 1e30F, std::numeric_limits<float>::infinity()}) {
    HashTablePtr table = Make(5);
    Insert(table.get(), "a");
    const std::string record(reinterpret_cast<const char*>(table.get()), sizeof(HashTable));
    const support::Messages messages;
    HashTableGrow(table.get(), factor, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(table.get()), sizeof(HashTable)), record);
    ASSERT_EQ(messages.all().size(), 1u);
    EXPECT_TRUE(messages.all()[0].text.starts_with(":hashtable: capacity too large: capacity=5, factor="));
    EXPECT_EQ(messages.all()[0].function, "HashTableGrow");
    EXPECT_EQ(messages.all()[0].level, 4);
    EXPECT_FALSE(messages.all()[0].flag);
    EXPECT_NE(Find(table.get(), "a"), nullptr);
  }
}

TEST(HashTableGrow, FailedMappingLeavesTheTableAsItWas) {
  HashTablePtr table = New(5, 8, 0, TRUE);
  for (const char* key : {"a", "b", "c", "d", "e"}) Insert(table.get(), key);
  const std::string record(reinterpret_cast<const char*>(table.get()), sizeof(HashTable));
  const support::Messages messages;
  faults::FailRemap(0);
  HashTableGrow(table.get(), 2.0F, nullptr);
  faults::Clear();
  EXPECT_EQ(messages.texts(),
            std::vector<std::string>{":hashtable: memory reallocation failed: size=68: Cannot allocate memory"});
  EXPECT_EQ(messages.all()[0].function, "HashRealloc");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(table.get()), sizeof(HashTable)), record);
  for (const char* key : {"a", "b", "c", "d", "e"}) EXPECT_NE(Find(table.get(), key), nullptr);
  HashTableGrow(table.get(), 2.0F, nullptr);
  EXPECT_NE(Insert(table.get(), "f"), nullptr);
}

TEST(HashTableGrowDeathTest, FactorMustBeAboveOne) {
  HashTablePtr table = New(5);
  for (const float factor : {1.0F, 0.5F, 0.0F, -2.0F, std::nanf("")}) {
    EXPECT_ASSERTION(HashTableGrow(table.get(), factor, nullptr), "dict/hashtable", "HashTableGrow", "factor > 1.0");
  }
}

TEST(HashTableGrowDeathTest, SelectedTableCannotGrow) {
  HashTablePtr table = New(5);
  HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr);
  EXPECT_ASSERTION(HashTableGrow(table.get(), 2.0F, nullptr), "dict/hashtable", "HashTableGrow", "!table->t_selected");
}

TEST(HashTableGrowDeathTest, SlotsNeverBecomeFewer) {
  HashTablePtr table = New(100);
  table->t_entries_capacity = 5;  // as only a damaged file says
  EXPECT_ASSERTION(HashTableGrow(table.get(), 2.0F, nullptr), "dict/hashtable", "HashRealloc", "osize <= nsize");
}

TEST_P(HashTableGrowTest, HeapWithMoreEntriesThanSlotsFillsTheSlots) {
  HashTablePtr table = Make(100, 0);
  for (int i = 0; i < 100; i++) Insert(table.get(), std::to_string(i));
  // As only a damaged file says: 100 entries in the heap, 7 slots, capacity 5.
  table->t_entries_size = 7;
  table->t_entries_capacity = 5;
  HashTableGrow(table.get(), 2.0F, nullptr);
  EXPECT_EQ(table->t_entries_size, 17u);
  for (UInt s = 0; s < 17; s++) EXPECT_NE(table->t_entries[s], kEmpty);
  EXPECT_EQ(Find(table.get(), "x"), nullptr);
}

TEST_P(HashTableFindTest, ManyKeysAreAllFoundThroughManyGrowths) {
  std::mt19937_64 random(42);
  std::unordered_map<std::string, ULong> expected;
  HashTablePtr table = Make(5);
  std::vector<std::string> keys;
  while (keys.size() < 200000) {
    ULong words[8];
    for (ULong& word : words) word = random();
    const std::string key(reinterpret_cast<const char*>(words), 8 + random() % 57);
    if (HashTableFull(table.get())) HashTableGrow(table.get(), 1.5F, nullptr);
    UByte* entry = Insert(table.get(), key);
    ASSERT_NE(entry, nullptr);
    const ULong value = random();
    std::memcpy(entry, &value, 8);
    if (expected.insert_or_assign(key, value).second) keys.push_back(key);
  }
  EXPECT_EQ(HashTableSize(table.get()), 200000u);
  size_t wrong = 0;
  for (const auto& [key, value] : expected) {
    const UByte* entry = Find(table.get(), key);
    wrong += entry == nullptr || std::memcmp(entry, &value, 8) != 0;
    wrong += Find(table.get(), key + "-") != nullptr;
  }
  EXPECT_EQ(wrong, 0u);
  size_t i = 0;
  HashTableIterator* it = HashTableIteratorInit(table.get());
  for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it)) {
    const UByte* bytes = nullptr;
    const UInt length = HashTableIteratorGetKey(it, &bytes);
    wrong += i >= keys.size() || Text(bytes, length) != keys[i++];
  }
  HashTableIteratorFinalize(it);
  EXPECT_EQ(wrong, 0u);
  EXPECT_EQ(i, keys.size());
}

}  // namespace
