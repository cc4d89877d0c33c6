// HashDelTable: memory images, whole, cut and damaged.

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "dict/hashdeltable.h"
#include "support/death.h"
#include "support/files.h"
#include "support/hashdeltable_model.h"
#include "support/messages.h"

namespace {

using support::Bytes;
using support::Find;
using support::HashDelTablePtr;
using support::Image;
using support::Insert;
using support::KeyText;
using support::Length;
using support::ReadImage;
using support::Remove;
using support::SlotsOf;
using support::Text;

using Slots = std::vector<UInt>;

constexpr UInt kEmpty = 0xFFFFFFFF;
constexpr UInt kTombstone = 0xFFFFFFFE;

HashDelTablePtr New(UInt capacity = 5, UInt val_len = 8, UInt key_size = 0) {
  return HashDelTablePtr(HashDelTableNew(capacity, nullptr, nullptr, nullptr, val_len, key_size));
}

std::string Number(UInt value) {
  std::string bytes;
  for (unsigned i = 0; i < 4; i++) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

// An image, field by field; each can be made to lie.
struct Fields {
  std::string heap;
  Slots slots = Slots(7, kEmpty);
  UInt nkeys_max = 5;
  UInt nkeys = 0;
  UInt deleted = 0;
  UInt val_len = 0;
  UByte key_size = 0;
  UByte selected = 0;

  std::string image() const {
    std::string bytes = Number(static_cast<UInt>(heap.size())) + heap;
    for (const UInt n : {static_cast<UInt>(slots.size()), nkeys_max, nkeys, deleted}) bytes += Number(n);
    for (const UInt slot : slots) bytes += Number(slot);
    return bytes + Number(val_len) + static_cast<char>(key_size) + static_cast<char>(selected);
  }
};

HashDelTablePtr Read(const Fields& fields) {
  HashDelTablePtr table = New();
  EXPECT_TRUE(ReadImage(table.get(), fields.image()));
  return table;
}

// The table of the golden image with tombstones.
HashDelTablePtr WithTombstones() {
  HashDelTablePtr table = New(10, 4, 2);
  int number = 0;
  for (const char* key : {"alpha", "beta", "", "gamma", "delta", "epsilon"}) {
    const std::string value = "v" + std::to_string(number++) + "..";
    std::memcpy(Insert(table.get(), key), value.data(), 4);
  }
  Remove(table.get(), "beta");
  Remove(table.get(), "");
  std::memcpy(Insert(table.get(), "beta"), "agai", 4);
  return table;
}

int CompareKeyLengthsDown(const UByte* a, const UByte* b, void* ptr) {
  const auto* table = static_cast<const HashDelTable*>(ptr);
  const size_t length_a = KeyText(table, a).size();
  const size_t length_b = KeyText(table, b).size();
  return length_a > length_b ? -1 : length_a < length_b ? 1 : 0;
}

Boolean SelectLongKeys(UByte* entry, void* ptr) {
  return !KeyText(static_cast<const HashDelTable*>(ptr), entry).empty();
}

HashDelTablePtr WithSelection() {
  HashDelTablePtr table = New(5, 1);
  *Insert(table.get(), std::string(127, 'x')) = '1';
  *Insert(table.get(), std::string(128, 'y')) = '2';
  *Insert(table.get(), "") = '3';
  *Insert(table.get(), std::string(16384, 'z')) = '4';
  HashDelTableSelect(table.get(), 0, SelectLongKeys, table.get());
  HashDelTableSort(table.get(), CompareKeyLengthsDown, table.get());
  return table;
}

TEST(HashDelTableMemWrite, WritesTheGoldenImages) {
  support::ExpectGolden("hashdeltable-empty.img", Image(New().get()));
  support::ExpectGolden("hashdeltable-tombstones.img", Image(WithTombstones().get()));
  support::ExpectGolden("hashdeltable-selected.img", Image(WithSelection().get()));
}

TEST(HashDelTableMemWrite, WritesAnEmptyTableAs26BytesAndItsSlots) {
  const std::string expected = std::string("\0\0\0\0\x07\0\0\0\x05\0\0\0\0\0\0\0\0\0\0\0", 20) +
                               std::string(28, '\xFF') + std::string("\x08\0\0\0\x00\x00", 6);
  EXPECT_EQ(Image(New(5).get()), expected);
}

TEST(HashDelTableMemWrite, AppendsToWhatTheArrayHolds) {
  const HashDelTablePtr table = WithTombstones();
  const std::string image = Image(table.get());
  UByteArray array;
  ArrayInit_(&array.a);
  ArrayGrowExact_(&array.a, 300, 1, "test", __LINE__);
  std::memcpy(array.t.elts, "before", 6);
  array.t.length = 6;
  const UByte* elts = array.t.elts;
  HashDelTableMemWrite(table.get(), &array);
  EXPECT_EQ(array.t.elts, elts);  // it had room
  EXPECT_EQ(array.t.capacity, 300u);
  HashDelTableMemWrite(table.get(), &array);
  EXPECT_EQ(Text(array.t.elts, array.t.length), "before" + image + image);
  EXPECT_GE(array.t.capacity, array.t.length);
  ArrayFree_(&array.a, "test", __LINE__);
}

TEST(HashDelTableMemWrite, LeavesTheTableAsItIs) {
  const HashDelTablePtr table = WithTombstones();
  const std::string image = Image(table.get());
  EXPECT_EQ(Image(table.get()), image);
  EXPECT_EQ(table->t_deleted, 2u);
}

TEST(HashDelTableMemWrite, ShowsNoStrayMemory) {
  // What was removed leaves nothing in the padding between the entries that moved over it.
  const HashDelTablePtr table = New(5, 0, 1);
  for (const char* key : {"aaaaaaaaaaaaaaaaaaaaaaa", "b", "c", "ddddddddddddd", "e"}) Insert(table.get(), key);
  Remove(table.get(), "aaaaaaaaaaaaaaaaaaaaaaa");
  Remove(table.get(), "ddddddddddddd");
  HashDelTableGrow(table.get(), 1.00001F, nullptr);
  EXPECT_EQ(Text(table->t_data, table->t_data_used), std::string("\x01"
                                                                 "b\0\0\0\0\0\0"
                                                                 "\x01"
                                                                 "c\0\0\0\0\0\0"
                                                                 "\x01"
                                                                 "e\0\0\0\0\0\0",
                                                                 24));
  Insert(table.get(), "f");
  EXPECT_EQ(Text(table->t_data + 24, table->t_data_used - 24), std::string("\x01"
                                                                           "f",
                                                                           2));
}

TEST(HashDelTableMemWriteDeathTest, AssertsAHeapThat32BitsCount) {
  const HashDelTablePtr table = New();
  UByteArray array;
  ArrayInit_(&array.a);
  for (const size_t used : {size_t{0xFFFFFFFF}, size_t{1} << 32}) {
    table->t_data_used = used;
    EXPECT_ASSERTION(HashDelTableMemWrite(table.get(), &array), "dict/hashdeltable", "HashDelTableMemWrite",
                     "table->t_data_used < ((UInt) (2147483647 * 2U + 1U))");
  }
}

TEST(HashDelTableMemWriteDeathTest, EndsTheProcessWhereTheArrayCannotGoOn) {
  const HashDelTablePtr table = New();
  UByte nothing[1];
  UByteArray array;
  ArrayInit_(&array.a);
  table->t_data_used = 0xFFFFFFFE;
  EXPECT_CLEAR_END(HashDelTableMemWrite(table.get(), &array), ":hashdeltable: memory image too large: size=4294967348");
  table->t_data_used = 0x7FFFFFFF - 53;
  EXPECT_CLEAR_END(HashDelTableMemWrite(table.get(), &array), ":hashdeltable: memory image too large: size=2147483648");
  // An array that already holds nearly all it can: nothing of it is touched.
  table->t_data_used = 0;
  array.t.elts = nothing;
  array.t.length = array.t.capacity = 0x7FFFFFFF - 53;
  EXPECT_CLEAR_END(HashDelTableMemWrite(table.get(), &array), ":hashdeltable: memory image too large: size=54");
}

TEST(HashDelTableMemRead, ReadsTheGoldenImages) {
  const HashDelTablePtr empty = New(100, 3, 1);
  ASSERT_TRUE(ReadImage(empty.get(), support::ReadFile(support::GoldenPath("hashdeltable-empty.img"))));
  EXPECT_EQ(HashDelTableSize(empty.get()), 0u);
  EXPECT_EQ(HashDelTableCapacity(empty.get()), 5u);
  EXPECT_EQ(empty->t_data_used, 0u);
  EXPECT_EQ(empty->t_val_len, 8u);
  EXPECT_EQ(empty->t_key_size, 0);
  EXPECT_NE(Insert(empty.get(), "first"), nullptr);

  const HashDelTablePtr table = New();
  ASSERT_TRUE(ReadImage(table.get(), support::ReadFile(support::GoldenPath("hashdeltable-tombstones.img"))));
  EXPECT_EQ(table->t_deleted, 2u);
  EXPECT_EQ(table->t_data_used, 98u);
  EXPECT_EQ(table->t_data_size, 98u);
  EXPECT_EQ(HashDelTableSize(table.get()), 5u);
  EXPECT_EQ(Find(table.get(), ""), nullptr);
  const std::pair<const char*, const char*> expected[] = {
      {"alpha", "v0.."}, {"gamma", "v3.."}, {"delta", "v4.."}, {"epsilon", "v5.."}, {"beta", "agai"}};
  for (const auto& [key, value] : expected) {
    const UByte* entry = Find(table.get(), key);
    ASSERT_NE(entry, nullptr) << key;
    EXPECT_EQ(Text(entry, 4), value);
  }

  const HashDelTablePtr selected = New();
  ASSERT_TRUE(ReadImage(selected.get(), support::ReadFile(support::GoldenPath("hashdeltable-selected.img"))));
  EXPECT_EQ(selected->t_selected, TRUE);
  ASSERT_EQ(HashDelTableSize(selected.get()), 3u);
  EXPECT_EQ(*HashDelTableGetIndex(selected.get(), 0), '4');
  EXPECT_EQ(*HashDelTableGetIndex(selected.get(), 1), '2');
  EXPECT_EQ(*HashDelTableGetIndex(selected.get(), 2), '1');
}

TEST(HashDelTableMemRead, GivesTheSameImageAgain) {
  const HashDelTablePtr tables[] = {New(), WithTombstones(), WithSelection()};
  for (const HashDelTablePtr& table : tables) {
    const std::string image = Image(table.get());
    const HashDelTablePtr read = New();
    size_t taken = 0;
    ASSERT_TRUE(ReadImage(read.get(), image, &taken));
    EXPECT_EQ(taken, image.size());
    EXPECT_EQ(Image(read.get()), image);
  }
}

TEST(HashDelTableMemRead, KeepsCallbacksAndMarksAligned) {
  const auto hash = [](const UByte*, UInt, void*) -> UInt { return 3; };
  const auto value = [](UByte*, const UByte*, UInt, void*) -> Boolean { return TRUE; };
  const auto equal = [](const UByte*, UInt a, const UByte*, UInt b, void*) -> Boolean { return a == b; };
  const HashDelTablePtr table(HashDelTableNew(5, hash, value, equal, 1, 1));
  table->t_aligned = FALSE;
  ASSERT_TRUE(ReadImage(table.get(), Image(New().get())));
  EXPECT_EQ(table->t_hash, +hash);
  EXPECT_EQ(table->t_value, +value);
  EXPECT_EQ(table->t_equal, +equal);
  EXPECT_EQ(table->t_aligned, TRUE);
}

TEST(HashDelTableMemRead, ReadsOneImageBehindTheOther) {
  const std::string images = Image(WithTombstones().get()) + Image(New(9).get()) + "rest";
  const HashDelTablePtr table = New();
  std::vector<UByte> block(images.begin(), images.end());
  UByte* at = block.data();
  UByte* end = at + block.size();
  ASSERT_TRUE(HashDelTableMemRead(table.get(), &at, end));
  EXPECT_EQ(at, block.data() + 192);
  EXPECT_EQ(HashDelTableSize(table.get()), 5u);
  ASSERT_TRUE(HashDelTableMemRead(table.get(), &at, end));
  EXPECT_EQ(HashDelTableCapacity(table.get()), 9u);
  EXPECT_EQ(Text(at, static_cast<size_t>(end - at)), "rest");
  EXPECT_FALSE(HashDelTableMemRead(table.get(), &at, end));  // a heap of 0x74736572 bytes, of which none is there
  EXPECT_EQ(at, end);
  EXPECT_FALSE(HashDelTableMemRead(table.get(), &at, end));
  EXPECT_EQ(at, end);
}

TEST(HashDelTableMemRead, ReadsAtAnyAddress) {
  const std::string image = Image(WithTombstones().get());
  for (size_t shift = 1; shift < 8; shift++) {
    const HashDelTablePtr table = New();
    std::vector<UByte> block(shift + image.size());
    std::memcpy(block.data() + shift, image.data(), image.size());
    UByte* at = block.data() + shift;
    ASSERT_TRUE(HashDelTableMemRead(table.get(), &at, block.data() + block.size()));
    EXPECT_EQ(Image(table.get()), image);
  }
}

TEST(HashDelTableMemRead, TakesOnlyOneForSelected) {
  for (const UByte byte : {UByte{0}, UByte{2}, UByte{255}}) {
    Fields fields;
    fields.selected = byte;
    EXPECT_EQ(Read(fields)->t_selected, FALSE) << int{byte};
  }
  Fields fields;
  fields.selected = 1;
  EXPECT_EQ(Read(fields)->t_selected, TRUE);
}

TEST(HashDelTableMemRead, LeavesAPositionPastTheEndAlone) {
  const HashDelTablePtr table = WithTombstones();
  const std::string before = Image(table.get());
  UByte bytes[200] = {};
  UByte* at = bytes + 100;
  EXPECT_FALSE(HashDelTableMemRead(table.get(), &at, bytes + 50));
  EXPECT_EQ(at, bytes + 100);
  EXPECT_EQ(Image(table.get()), before);
}

// Uses every operation that the state of a table allows. What they answer is not looked at: a damaged table may answer
// anything, but it must answer, and stay inside its memory.
void Exercise(HashDelTable* table, UInt seed) {
  if (table->t_key_size > 4) return;  // each operation that meets a key asserts, see below
  static const std::string kKeys[] = {"alpha", "beta", "", "gamma", "delta", "epsilon", "new", std::string(40, 'n')};
  const auto look = [](UByte* entry, void* ptr) -> UInt {
    auto* t = static_cast<HashDelTable*>(ptr);
    const UByte* bytes = nullptr;
    UInt sum = 0;
    for (UInt i = 0, n = HashDelTableKey(t, entry, &bytes); i < n; i++) sum += bytes[i];
    for (UInt i = 0; i < t->t_val_len; i++) sum += entry[i];
    return sum == 0xFFFFFFFF;
  };
  const auto select = [](UByte* entry, void* ptr) -> Boolean {
    auto* t = static_cast<HashDelTable*>(ptr);
    return KeyText(t, entry).size() % 2 == 0 || (t->t_val_len > 0 && entry[t->t_val_len - 1] > 9);
  };
  HashDelTablePtr(HashDelTableCopy(table));
  EXPECT_EQ(Image(table).size(), 26 + table->t_data_used + 4 * table->t_nentries);
  for (UInt step = 0; step < 12 && !table->t_selected; step++) {
    switch ((seed + step * 7) % 12) {
      case 0:
      case 1:
        for (const std::string& key : kKeys) {
          if (table->t_key_size == 0 || key.size() < 256) Find(table, key);
        }
        break;
      case 2:
      case 3:
      case 4:
        if (table->t_val_len > 1 << 20) break;  // it would do as it is told, and take gigabytes
        for (const std::string& key : kKeys) Insert(table, key);
        break;
      case 5:
        Remove(table, "alpha");
        Remove(table, "none");
        break;
      case 6:
        HashDelTableGrow(table, 1.5F, nullptr);
        break;
      case 7:
        HashDelTableGrow(table, 1.00001F, nullptr);
        break;
      case 8: {
        HashDelTableIterator* it = HashDelTableIteratorInit(table, nullptr);
        for (; !HashDelTableIteratorEnd(it); HashDelTableIteratorNext(it)) {
          const UByte* bytes = nullptr;
          HashDelTableIteratorGetKey(it, &bytes);
          look(HashDelTableIteratorGetValue(it), table);
        }
        const UByte* none = nullptr;
        HashDelTableIteratorGetKey(it, &none);  // at the end, where a heap may have no byte left
        HashDelTableIteratorFinalize(it);
        break;
      }
      case 9:
        HashDelTableEnumerate(table, 0, look, table);
        HashDelTableEnumerate(table, seed * 977, look, table);
        break;
      case 10:
        Image(table);
        break;
      default:
        for (const std::string& key : kKeys) Remove(table, key);
        break;
    }
  }
  if (table->t_selected && table->t_deleted != 0) return;  // choosing would assert, see below
  const UInt chosen = HashDelTableSelect(table, seed % 3, select, table);
  const auto compare = [](const UByte* a, const UByte* b, void* ptr) {
    const auto* t = static_cast<const HashDelTable*>(ptr);
    return KeyText(t, a).compare(KeyText(t, b));
  };
  HashDelTableSort(table, compare, table);
  for (UInt i = 0; i < chosen; i++) {
    if (UByte* entry = HashDelTableGetIndex(table, i); entry != nullptr) look(entry, table);
  }
  HashDelTableGetIndex(table, 0xFFFFFFFF);
  HashDelTablePtr(HashDelTableCopy(table));
  Image(table);
}

// Whatever happened to a table: cleared, it works again, and another image can be read into it.
void ExpectUsable(HashDelTable* table) {
  HashDelTableClear(table);
  if (table->t_key_size <= 4 && table->t_val_len < 1000) {
    const UInt capacity = HashDelTableCapacity(table);
    for (UInt i = 0; i < capacity && i < 100; i++) {
      ASSERT_NE(Insert(table, "k" + std::to_string(i)), nullptr) << "key " << i << " of " << capacity;
    }
    for (UInt i = 0; i < capacity && i < 100; i++) ASSERT_NE(Find(table, "k" + std::to_string(i)), nullptr);
  }
  const std::string image = Image(WithTombstones().get());
  ASSERT_TRUE(ReadImage(table, image));
  ASSERT_EQ(Image(table), image);
  ASSERT_NE(Find(table, "gamma"), nullptr);
}

// Tables that have held something before: nothing, a little, a lot, a selection.
HashDelTablePtr Used(size_t kind) {
  if (kind == 0) return New();
  if (kind == 1) return New(300, 1, 1);
  if (kind == 2) return WithSelection();
  HashDelTablePtr table = New(3000, 8);
  for (int i = 0; i < 500; i++) Insert(table.get(), "used" + std::to_string(i));
  return table;
}

TEST(HashDelTableMemRead, RefusesAnImageCutAtAnyByte) {
  const std::string image = Image(WithTombstones().get());
  for (size_t cut = 0; cut < image.size(); cut++) {
    for (size_t kind = 0; kind < 4; kind++) {
      const HashDelTablePtr table = Used(kind);
      const support::Messages messages;
      size_t taken = 77777;
      ASSERT_FALSE(ReadImage(table.get(), image.substr(0, cut), &taken)) << cut;
      EXPECT_EQ(taken, cut) << "the first missing byte";
      EXPECT_EQ(messages.texts(), std::vector<std::string>());
      if (cut % 3 == kind % 3) Exercise(table.get(), static_cast<UInt>(cut));
      const HashDelTablePtr copy(HashDelTableCopy(table.get()));
      ExpectUsable(copy.get());
      ASSERT_TRUE(ReadImage(table.get(), image)) << "without clearing";
      ASSERT_EQ(Image(table.get()), image);
    }
  }
}

TEST(HashDelTableMemRead, StoresWhatCameWhole) {
  const std::string image = Image(WithTombstones().get());  // heap at 4, counts at 102, slots at 118, the rest at 186
  const auto read_to = [&](size_t cut) {
    HashDelTablePtr table = New(30, 9, 1);
    Insert(table.get(), "old");
    table->t_aligned = FALSE;
    EXPECT_FALSE(ReadImage(table.get(), image.substr(0, cut)));
    return table;
  };
  // Without the whole heap there is none; t_aligned follows the size that was read.
  EXPECT_EQ(read_to(3)->t_aligned, FALSE);
  HashDelTablePtr table = read_to(101);
  EXPECT_EQ(table->t_aligned, TRUE);
  EXPECT_EQ(table->t_data_size, 235u);
  EXPECT_EQ(KeyText(table.get(), Find(table.get(), "old")), "old");
  // The heap, and no count yet.
  table = read_to(105);
  EXPECT_EQ(table->t_data_used, 98u);
  EXPECT_EQ(table->t_data_size, 98u);
  EXPECT_EQ(table->t_nentries, 47u);
  EXPECT_EQ(table->t_nkeys_max, 30u);
  // The counts, but the slot count waits for its slots.
  table = read_to(118 + 67);
  EXPECT_EQ(table->t_nentries, 47u);
  EXPECT_EQ(table->t_nkeys_max, 10u);
  EXPECT_EQ(table->t_nkeys, 5u);
  EXPECT_EQ(table->t_deleted, 2u);
  EXPECT_EQ(table->t_val_len, 9u);
  // The slots; then the value length; then the width.
  table = read_to(186);
  EXPECT_EQ(table->t_nentries, 17u);
  EXPECT_EQ(table->t_val_len, 9u);
  table = read_to(190);
  EXPECT_EQ(table->t_val_len, 4u);
  EXPECT_EQ(table->t_key_size, 1);
  table = read_to(191);
  EXPECT_EQ(table->t_key_size, 2);
}

TEST(HashDelTableMemRead, TakesNoMemoryForWhatCannotBeThere) {
  // Both would be more than this machine has; the position goes to the end, where the first byte is missing.
  const HashDelTablePtr table = New();
  size_t taken = 0;
  EXPECT_FALSE(ReadImage(table.get(), Number(0xFFFFFFFE) + std::string(100, 'h'), &taken));
  EXPECT_EQ(taken, 104u);
  EXPECT_EQ(table->t_data_size, 35u);
  const std::string counts = Number(3) + Number(1) + Number(0);
  for (const UInt slots : {0xFFFFFFFFu, 0x40000000u, 0x3FFFFFFFu, 26u}) {
    taken = 0;
    EXPECT_FALSE(ReadImage(table.get(), Number(0) + Number(slots) + counts + std::string(103, '\xFF'), &taken));
    EXPECT_EQ(taken, 4 + 16 + 103u) << slots;
    EXPECT_EQ(table->t_nentries, 7u);
    EXPECT_EQ(table->t_nkeys_max, 3u);
  }
}

TEST(HashDelTableMemRead, ReadsAnEmptyHeapAndNoSlots) {
  Fields fields;
  fields.slots.clear();
  const HashDelTablePtr table = Used(3);
  ASSERT_TRUE(ReadImage(table.get(), fields.image()));
  EXPECT_EQ(table->t_data_size, 0u);
  EXPECT_EQ(table->t_nentries, 0u);
  EXPECT_EQ(Image(table.get()), fields.image());
  EXPECT_EQ(Find(table.get(), "a"), nullptr);
  EXPECT_EQ(Insert(table.get(), "a"), nullptr);
  EXPECT_FALSE(Remove(table.get(), "a"));
  HashDelTablePtr(HashDelTableCopy(table.get()));
  HashDelTableGrow(table.get(), 1.5F, nullptr);
  EXPECT_EQ(table->t_nentries, 11u);
  EXPECT_NE(Insert(table.get(), "a"), nullptr);
  ASSERT_TRUE(ReadImage(table.get(), fields.image()));
  EXPECT_EQ(HashDelTableSelect(table.get(), 0, nullptr, nullptr), 0u);
  ExpectUsable(table.get());
}

TEST(HashDelTableMemRead, ReadsAnyNumberOfSlots) {
  for (UInt n = 0; n < 40; n++) {
    for (const UInt content : {kEmpty, kTombstone, 0u, 8u}) {
      Fields fields;
      fields.heap =
          "\x02"
          "a";
      fields.slots.assign(n, content);
      fields.nkeys_max = n;
      const HashDelTablePtr table = Read(fields);
      for (const char* key : {"a", "b", "abc", ""}) {
        Find(table.get(), key);
        // Where no slot is empty nothing is inserted, although the counts say that there is room.
        if (content != kEmpty && Find(table.get(), key) == nullptr) {
          EXPECT_EQ(Insert(table.get(), key), nullptr) << n;
        }
        Remove(table.get(), "b");
      }
      Exercise(table.get(), n);
      ExpectUsable(table.get());
    }
  }
}

TEST(HashDelTableMemRead, NeedsThreeSlotsToProbe) {
  for (UInt n = 0; n < 3; n++) {
    Fields fields;
    fields.slots.assign(n, kEmpty);
    const HashDelTablePtr table = Read(fields);
    EXPECT_EQ(Insert(table.get(), "a"), nullptr) << n;
    EXPECT_EQ(Find(table.get(), "a"), nullptr);
  }
  Fields fields;
  fields.slots.assign(3, kEmpty);
  const HashDelTablePtr table = Read(fields);
  for (const char* key : {"a", "b", "c"}) EXPECT_NE(Insert(table.get(), key), nullptr);
  EXPECT_EQ(Insert(table.get(), "d"), nullptr);
  for (const char* key : {"a", "b", "c"}) EXPECT_NE(Find(table.get(), key), nullptr);
}

// Of three slots each is the next one's neighbour, whichever comes first.
TEST(HashDelTableFind, GoesRoundThreeSlots) {
  Fields fields;
  fields.heap = std::string(
      "\x02"
      "b\0\0\0\0\0\0"
      "\x02"
      "e",
      10);  // both begin at slot 2
  fields.slots = {8, kEmpty, 0};
  fields.nkeys_max = 2;
  fields.nkeys = 2;
  HashDelTablePtr table = Read(fields);
  EXPECT_TRUE(HashDelTableCheck(table.get(), nullptr));
  EXPECT_EQ(Find(table.get(), "b"), table->t_data);
  EXPECT_EQ(Find(table.get(), "e"), table->t_data + 8);
  EXPECT_EQ(Find(table.get(), "h"), nullptr);
  EXPECT_TRUE(Remove(table.get(), "b"));
  EXPECT_TRUE(Remove(table.get(), "e"));
  EXPECT_FALSE(Remove(table.get(), "e"));
}

TEST(HashDelTableClear, KeepsUpTo10000Slots) {
  Fields fields;
  fields.nkeys_max = 6000;
  fields.slots.assign(10000, kEmpty);
  HashDelTablePtr table = Read(fields);
  HashDelTableClear(table.get());
  EXPECT_EQ(table->t_nentries, 10000u);
  EXPECT_EQ(HashDelTableCapacity(table.get()), 6000u);
  fields.slots.assign(10001, kEmpty);
  table = Read(fields);
  HashDelTableClear(table.get());
  EXPECT_EQ(table->t_nentries, 7u);
  EXPECT_EQ(HashDelTableCapacity(table.get()), 5u);
}

TEST(HashDelTableClear, StartsAfreshWhereTheSlotsCannotHoldTheCapacity) {
  Fields fields;
  fields.val_len = 3;
  fields.key_size = 2;
  for (const UInt capacity : {7u, 8u, 9000u, 0xFFFFFFFFu}) {
    fields.nkeys_max = capacity;
    const HashDelTablePtr table = Read(fields);
    HashDelTableClear(table.get());
    EXPECT_TRUE(HashDelTableCheck(table.get(), nullptr));
    EXPECT_EQ(HashDelTableCapacity(table.get()), 5u);
    EXPECT_EQ(table->t_nentries, 7u);
    EXPECT_EQ(table->t_data_size, 35u);
    EXPECT_EQ(table->t_val_len, 3u);
    EXPECT_EQ(table->t_key_size, 2);
  }
  fields.nkeys_max = 6;
  const HashDelTablePtr table = Read(fields);
  HashDelTableClear(table.get());
  EXPECT_EQ(HashDelTableCapacity(table.get()), 6u);
  EXPECT_TRUE(HashDelTableCheck(table.get(), nullptr));
}

// Each of a million keys that are all alike lies on the same way, of which a search for it sees 65536 slots at most.
TEST(HashDelTableStats, GivesUpOnWaysThatADamagedImageMakesLong) {
  Fields fields;
  fields.slots.resize(1000003);
  std::iota(fields.slots.begin(), fields.slots.end(), 0u);
  fields.heap.assign(1000003, '\0');  // at every place an entry with the empty key
  const HashDelTablePtr table = Read(fields);
  HashTableStatistics stats;
  HashDelTableStats(table.get(), &stats, nullptr);
  EXPECT_EQ(stats.s_slots, 1000003u);
  EXPECT_EQ(stats.s_longest_probe, 65536u);
  EXPECT_EQ(stats.s_dead, 0u);
}

// A key of a million bytes that every slot names is hashed once.
TEST(HashDelTableStats, GivesUpOnAKeyThatIsNamedOverAndOver) {
  Fields fields;
  fields.key_size = 4;
  fields.heap = Number(1000000) + std::string(1000000, 'k');
  fields.slots.assign(1000003, 0);
  const HashDelTablePtr table = Read(fields);
  HashTableStatistics stats;
  HashDelTableStats(table.get(), &stats, nullptr);
  EXPECT_EQ(stats.s_longest_probe, 65536u);
  EXPECT_EQ(stats.s_mean_probe, 65536.0);
  EXPECT_EQ(stats.s_heap_used, 1000004u);
}

TEST(HashDelTableGrow, BelievesACapacityAsFarAsItIsCheap) {
  Fields fields;
  fields.heap =
      "\x02"
      "a";
  fields.nkeys_max = 0x30000000;  // more than 4 GiB of slots
  fields.deleted = 1;
  HashDelTablePtr table = Read(fields);
  HashDelTableGrow(table.get(), 1.5F, nullptr);
  EXPECT_EQ(HashDelTableCapacity(table.get()), 15000u);
  fields.nkeys_max = 0xFFFFFFFF;
  table = Read(fields);
  HashDelTableIteratorFinalize(HashDelTableIteratorInit(table.get(), nullptr));
  EXPECT_EQ(HashDelTableCapacity(table.get()), 10000u);
  fields.nkeys_max = 8000;
  table = Read(fields);
  HashDelTableGrow(table.get(), 1.5F, nullptr);
  EXPECT_EQ(HashDelTableCapacity(table.get()), 12000u);
}

TEST(HashDelTableMemRead, SurvivesLyingCounts) {
  for (const UInt deleted : {0u, 1u, 2u, 3u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    for (const UInt nkeys : {0u, 1u, 7u, 8u, 0xFFFFFFFFu}) {
      for (const UInt capacity : {0u, 1u, 2u, 3u, 5u, 0xFFFFFFFFu}) {
        Fields fields;
        fields.heap = std::string(
            "\x02"
            "a\0\0\0\0\0\0"
            "\x02"
            "b",
            10);
        fields.slots = {0, kEmpty, 8, kTombstone, kEmpty, kEmpty, kEmpty};
        fields.deleted = deleted;
        fields.nkeys = nkeys;
        fields.nkeys_max = capacity;
        for (UInt seed = 0; seed < 12; seed += 5) {
          const HashDelTablePtr table = Read(fields);
          Exercise(table.get(), seed);
          ExpectUsable(table.get());
        }
        fields.selected = 1;
        const HashDelTablePtr table = Read(fields);
        Exercise(table.get(), deleted + nkeys);
        ExpectUsable(table.get());
      }
    }
  }
}

TEST(HashDelTableFind, DoesNotWrapTwiceTheTombstones) {
  Fields fields;
  fields.deleted = 0x80000000;
  const HashDelTablePtr table = Read(fields);
  EXPECT_EQ(Insert(table.get(), "a"), nullptr);
}

TEST(HashDelTableSelect, ClampsASelectionThatClaimsMoreThanTheSlots) {
  Fields fields;
  fields.heap = std::string(
      "\x02"
      "a\0\0\0\0\0\0"
      "\x02"
      "b",
      10);
  fields.slots = {8, 0, kTombstone, 77, 0x80000000};
  fields.nkeys = 0xFFFFFFFF;
  fields.selected = 1;
  const HashDelTablePtr table = Read(fields);
  EXPECT_EQ(HashDelTableGetIndex(table.get(), 0), table->t_data + 8);
  for (const UInt i : {2u, 3u, 4u, 5u, 0xFFFFFFFFu}) EXPECT_EQ(HashDelTableGetIndex(table.get(), i), nullptr) << i;
  const auto compare = [](const UByte* a, const UByte* b, void*) { return a[1] - b[1]; };
  HashDelTableSort(table.get(), compare, nullptr);
  EXPECT_EQ(HashDelTableGetIndex(table.get(), 0), table->t_data);
  EXPECT_EQ(HashDelTableGetIndex(table.get(), 1), table->t_data + 8);
  EXPECT_EQ(HashDelTableSelect(table.get(), 0, nullptr, nullptr), 2u);
  EXPECT_EQ(SlotsOf(table.get()), (Slots{0, 8, kEmpty, kEmpty, kEmpty}));
}

TEST(HashDelTableGrow, KeepsAForgedHeapInsideItsBounds) {
  // One entry of 21 bytes, which the next multiple of 8 would put past the heap's end.
  Fields fields;
  fields.heap = "\x28" + std::string(20, 'k');
  fields.slots[0] = 0;
  fields.nkeys = 1;
  fields.deleted = 1;
  const HashDelTablePtr table = Read(fields);
  HashDelTableGrow(table.get(), 1.00001F, nullptr);
  EXPECT_EQ(table->t_data_used, 21u);
  EXPECT_EQ(table->t_data_size, 21u);
  EXPECT_NE(Find(table.get(), std::string(20, 'k')), nullptr);
  EXPECT_EQ(Image(table.get()).size(), 26u + 21 + 28);
}

TEST(HashDelTableGrow, MovesNoEntryUp) {
  // Entries of 9 bytes side by side: aligned, they would need more room than there is. The second one would go to 16,
  // behind where it starts, and is left behind; the third may move there.
  Fields fields;
  fields.heap =
      "\x10"
      "aaaaaaaa"
      "\x10"
      "bbbbbbbb"
      "\x10"
      "cccccccc";
  fields.slots = {18, 9, 0, kEmpty, kEmpty, kEmpty, kEmpty};
  fields.nkeys = 3;
  fields.deleted = 1;
  const HashDelTablePtr table = Read(fields);
  HashDelTableGrow(table.get(), 1.00001F, nullptr);
  EXPECT_EQ(table->t_data_used, 27u);  // not 32
  EXPECT_EQ(Find(table.get(), "aaaaaaaa"), table->t_data);
  EXPECT_EQ(Find(table.get(), "bbbbbbbb"), nullptr);
  EXPECT_EQ(Find(table.get(), "cccccccc"), table->t_data + 16);
}

TEST(HashDelTableGrow, MovesAnEntryNamedTwiceOnce) {
  Fields fields;
  fields.heap = std::string(
      "\x02"
      "x\0\0\0\0\0\0"
      "\x28"
      "kkkkkkkkkkkkkkkkkkkk",
      29);
  fields.slots = {8, 8, 8, 8, 8, 8, kTombstone};
  fields.nkeys = 6;
  fields.deleted = 1;
  const HashDelTablePtr table = Read(fields);
  HashDelTableGrow(table.get(), 1.00001F, nullptr);
  EXPECT_EQ(table->t_data_used, 24u);
  EXPECT_EQ(Find(table.get(), std::string(20, 'k')), table->t_data);
}

TEST(HashDelTableGrow, LeavesEntriesInsideOthersBehind) {
  // Every offset of a heap is called an entry; so many would never fit if each were moved.
  Fields fields;
  fields.heap =
      "\x14"
      "\x12"
      "\x10"
      "\x0E"
      "\x0C"
      "\x0A"
      "\x08"
      "\x06"
      "\x04"
      "\x02"
      "z";
  for (UInt deleted = 1; deleted < 3; deleted++) {
    fields.deleted = deleted;
    fields.slots.assign(11, kEmpty);
    for (UInt i = 0; i < 11; i++) fields.slots[10 - i] = i;
    const HashDelTablePtr table = Read(fields);
    HashDelTableGrow(table.get(), 1.00001F, nullptr);
    EXPECT_EQ(table->t_data_used, 11u);
    EXPECT_EQ(Text(table->t_data, 11), fields.heap);
    ExpectUsable(table.get());
  }
}

TEST(HashDelTableMemRead, SurvivesEntriesThatLeaveTheHeap) {
  const std::string heaps[] = {
      "",
      "\x02",                                // a key of one byte that is not there
      "\x01",                                // a length field that is cut
      "\xFF\xFF\xFF\xFF\xFF",                // a malformed one
      "\xFF\xFF\xFF\xFF\x1E",                // a length of 2^32 - 1
      std::string("\0\0\0\0\0\0\0\0\0", 9),  // empty keys
      "abcdefghijklmnopqrstuvwxyz",
  };
  for (const std::string& heap : heaps) {
    for (const UInt val_len : {0u, 1u, 8u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
      for (const UByte key_size : {UByte{0}, UByte{1}, UByte{4}}) {
        for (const UInt offset : {0u, 1u, 4u, 8u, 9u, 25u, 26u, 0x7FFFFFFFu, 0xFFFFFFF8u, 0xFFFFFFFDu}) {
          Fields fields;
          fields.heap = heap;
          fields.val_len = val_len;
          fields.key_size = key_size;
          fields.slots = {offset, kEmpty, offset, 0, kEmpty, kTombstone, kEmpty};
          fields.nkeys = 3;
          fields.deleted = offset % 2;
          const HashDelTablePtr table = Read(fields);
          Exercise(table.get(), offset);
          ExpectUsable(table.get());
        }
      }
    }
  }
}

TEST(HashDelTableMemRead, SurvivesEveryHeaderNumberChanged) {
  const std::string image = Image(WithTombstones().get());
  const size_t numbers[] = {0, 102, 106, 110, 114, 118, 118 + 4 * 4, 118 + 4 * 10, 118 + 4 * 15, 118 + 4 * 16, 186};
  for (const size_t at : numbers) {
    UInt old = 0;
    for (unsigned i = 0; i < 4; i++) old |= static_cast<UInt>(static_cast<UByte>(image[at + i])) << (8 * i);
    std::vector<UInt> values = {0,          1,          2,          3,       4,       5,          7,
                                8,          16,         18,         97,      99,      0x7FFFFFFF, 0xFFFFFFF8,
                                0xFFFFFFFD, 0xFFFFFFFE, 0xFFFFFFFF, old + 1, old - 1, old + 8};
    for (unsigned bit = 0; bit < 32; bit++) values.push_back(old ^ (1u << bit));
    for (const UInt value : values) {
      std::string damaged = image;
      damaged.replace(at, 4, Number(value));
      const HashDelTablePtr table = New();
      const support::Messages messages;
      size_t taken = 0;
      if (!ReadImage(table.get(), damaged, &taken)) {
        EXPECT_EQ(taken, damaged.size());
      }
      Exercise(table.get(), value + static_cast<UInt>(at));
      ExpectUsable(table.get());
    }
  }
}

TEST(HashDelTableMemRead, SurvivesAnyByteChanged) {
  const std::string images[] = {Image(WithTombstones().get()), Image(New().get())};
  UInt seed = 0;
  for (const std::string& image : images) {
    for (size_t at = 0; at < image.size(); at++) {
      for (const int change : {1, 2, 8, 0x7F, 0x80, 0xFF}) {
        std::string damaged = image;
        damaged[at] = static_cast<char>(damaged[at] ^ change);
        const HashDelTablePtr table = New();
        const support::Messages messages;
        ReadImage(table.get(), damaged);
        Exercise(table.get(), seed++);
        ExpectUsable(table.get());
      }
    }
  }
}

TEST(HashDelTableMemRead, SurvivesRandomDamage) {
  const std::string image = Image(WithTombstones().get());
  uint64_t state = 7;
  const auto random = [&](uint64_t below) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    return (state >> 33) % below;
  };
  for (UInt round = 0; round < 3000; round++) {
    std::string damaged = image;
    for (uint64_t i = random(6) + 1; i > 0; i--) damaged[random(damaged.size())] = static_cast<char>(random(256));
    if (random(3) == 0) damaged.resize(1 + random(damaged.size()));
    damaged.back() = static_cast<char>(random(2));
    const HashDelTablePtr table = New();
    const support::Messages messages;
    ReadImage(table.get(), damaged);
    Exercise(table.get(), round);
    Exercise(table.get(), round + 5);
    ExpectUsable(table.get());
  }
}

TEST(HashDelTableMemReadDeathTest, AWidthAboveFourIsAssertedWhereAKeyIsMet) {
  Fields fields;
  fields.heap =
      "\x02"
      "a"
      "bcdefgh";
  fields.slots.assign(7, 0);
  fields.nkeys = 1;
  for (const UByte width : {UByte{5}, UByte{8}, UByte{255}}) {
    fields.key_size = width;
    const HashDelTablePtr table = Read(fields);
    EXPECT_ASSERTION(Find(table.get(), "a"), "util/io2", "IO2_MemReadPaddedLE4", "size <= 4");
    EXPECT_ASSERTION(Remove(table.get(), "a"), "util/io2", "IO2_MemReadPaddedLE4", "size <= 4");
    EXPECT_ASSERTION(HashDelTableGrow(table.get(), 2.0F, nullptr), "util/io2", "IO2_MemReadPaddedLE4", "size <= 4");
    table->t_deleted = 1;
    EXPECT_ASSERTION(HashDelTableIteratorInit(table.get(), nullptr), "util/io2", "IO2_MemReadPaddedLE4", "size <= 4");
    EXPECT_EQ(Image(table.get()).size(), 26u + 9 + 28);
  }
}

TEST(HashDelTableSelectDeathTest, ASelectionWithTombstonesIsNone) {
  Fields fields;
  fields.selected = 1;
  fields.deleted = 1;
  const HashDelTablePtr table = Read(fields);
  EXPECT_ASSERTION(HashDelTableSelect(table.get(), 0, nullptr, nullptr), "dict/hashdeltable", "HashDelTableGrow",
                   "!table->t_selected");
  // Walks leave a selected table as it is.
  HashDelTableIteratorFinalize(HashDelTableIteratorInit(table.get(), nullptr));
  EXPECT_EQ(table->t_deleted, 1u);
}

}  // namespace
