// What the two byte-keyed tables share, where it cannot be seen through either of them.

#include "dict/heap_entry.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/death.h"

namespace {

// A heap of exactly these bytes: whatever reads past them is caught by the sanitizer.
struct Heap {
  explicit Heap(const std::vector<UByte>& content, UInt val_len = 0, UByte key_size = 0)
      : bytes(new UByte[content.size()]) {
    std::copy(content.begin(), content.end(), bytes.get());
    table.t_data = bytes.get();
    table.t_data_used = table.t_data_size = content.size();
    table.t_val_len = val_len;
    table.t_key_size = key_size;
  }
  std::unique_ptr<UByte[]> bytes;
  HashTable table{};
};

TEST(HashKey, IsThePolynomialAtEveryLength) {
  std::mt19937_64 random(1);
  std::vector<UByte> bytes(300);
  for (UByte& b : bytes) b = static_cast<UByte>(random());
  for (UInt len = 0; len <= 260; len++) {
    for (UInt start = 0; start < 20; start++) {
      // Blocks of exact size: a read past either end is caught by the sanitizer.
      const std::vector<UByte> key(bytes.begin() + start, bytes.begin() + start + len);
      UInt expected = 0;
      for (UInt i = len; i-- > 0;) expected = expected * 257 + key[i];
      ASSERT_EQ(heap::HashKey(key.data(), len), expected) << len << " bytes from " << start;
      ASSERT_EQ(heap::HashBytewise(key.data(), len), expected);
    }
  }
}

TEST(HashKey, IsThePolynomialWhereEveryLaneIsFull) {
  for (UInt len = 0; len <= 2000; len += 7) {
    const std::vector<UByte> key(len, 0xFF);
    UInt expected = 0;
    for (UInt i = len; i-- > 0;) expected = expected * 257 + 0xFF;
    ASSERT_EQ(heap::HashKey(key.data(), len), expected) << len;
  }
}

TEST(Remainder, IsTheRemainder) {
  std::mt19937 random(2);
  const UInt divisors[] = {1, 2, 3, 5, 7, 11, 13, 101, 1499977, 65537, 2147483647, 4294967291u, 0xFFFFFFFF};
  for (const UInt divisor : divisors) {
    const ULong reciprocal = heap::Reciprocal(divisor);
    for (const UInt n :
         {0u, 1u, divisor - 1, divisor, divisor + 1, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
      ASSERT_EQ(heap::Remainder(n, divisor, reciprocal), n % divisor) << n << " mod " << divisor;
    }
    for (int i = 0; i < 2000; i++) {
      const auto n = static_cast<UInt>(random());
      ASSERT_EQ(heap::Remainder(n, divisor, reciprocal), n % divisor) << n << " mod " << divisor;
    }
  }
  EXPECT_EQ(heap::Remainder(12345u, 0u, heap::Reciprocal(0)), 0u);
}

TEST(BytesEqual, LooksAtEveryByte) {
  for (size_t len = 0; len <= 70; len++) {
    std::vector<UByte> a(len, 0x5A), b(len, 0x5A);
    ASSERT_TRUE(heap::BytesEqual(a.data(), b.data(), len)) << len;
    for (size_t i = 0; i < len; i++) {
      b[i] ^= 0x80;
      ASSERT_FALSE(heap::BytesEqual(a.data(), b.data(), len)) << len << " at " << i;
      b[i] ^= 0x80;
    }
  }
}

TEST(ScaleCapacity, MultipliesInSinglePrecisionAndCuts) {
  UInt capacity = 0;
  EXPECT_TRUE(heap::ScaleCapacity(5, 1.5F, &capacity));
  EXPECT_EQ(capacity, 7u);
  EXPECT_TRUE(heap::ScaleCapacity(5, 1.19F, &capacity));
  EXPECT_EQ(capacity, 5u);
  EXPECT_TRUE(heap::ScaleCapacity(16777217, 1.0000001F, &capacity));  // 16777216 * (1 + 2^-23) in single precision
  EXPECT_EQ(capacity, 16777218u);
  EXPECT_TRUE(heap::ScaleCapacity(99474, 1.00001F, &capacity));
  EXPECT_EQ(capacity, 99474u);
  EXPECT_TRUE(heap::ScaleCapacity(29, 1 + 1.0F / 29, &capacity));
  EXPECT_EQ(capacity, 29u);  // 29.999998 in single precision: one key's share is too little
  EXPECT_TRUE(heap::ScaleCapacity(29, 1 + 2.0F / 29, &capacity));
  EXPECT_EQ(capacity, 31u);
  EXPECT_TRUE(heap::ScaleCapacity(0, 1e30F, &capacity));
  EXPECT_EQ(capacity, 0u);
}

TEST(ScaleCapacity, RefusesWhatHasNoSlotCount) {
  UInt capacity = 77;
  EXPECT_TRUE(heap::ScaleCapacity(1431655680, 1.0F, &capacity));  // the greatest single-precision number that fits
  EXPECT_EQ(capacity, 1431655680u);
  EXPECT_EQ(heap::SlotsFor(1431655765), 2147483647u);
  capacity = 77;
  EXPECT_FALSE(heap::ScaleCapacity(1431655765, 1.0F, &capacity));  // rounds to 1431655808
  EXPECT_FALSE(heap::ScaleCapacity(5, 1e30F, &capacity));
  EXPECT_FALSE(heap::ScaleCapacity(5, std::numeric_limits<float>::infinity(), &capacity));
  EXPECT_FALSE(heap::ScaleCapacity(0, std::numeric_limits<float>::infinity(), &capacity));
  EXPECT_FALSE(heap::ScaleCapacity(5, std::nanf(""), &capacity));
  EXPECT_EQ(capacity, 77u);
}

TEST(LengthFits, IsBelowTheFieldsRange) {
  EXPECT_TRUE(heap::LengthFits(0xFFFFFFFF, 0));
  EXPECT_TRUE(heap::LengthFits(255, 1));
  EXPECT_FALSE(heap::LengthFits(256, 1));
  EXPECT_TRUE(heap::LengthFits(65535, 2));
  EXPECT_FALSE(heap::LengthFits(65536, 2));
  EXPECT_TRUE(heap::LengthFits(16777215, 3));
  EXPECT_FALSE(heap::LengthFits(16777216, 3));
  EXPECT_TRUE(heap::LengthFits(0xFFFFFFFF, 4));
  EXPECT_TRUE(heap::LengthFits(0xFFFFFFFF, 8));  // a width that fails elsewhere
  EXPECT_TRUE(heap::LengthFits(0xFFFFFFFF, 255));
}

TEST(KeyAt, ReadsAnEntryThatEndsWithTheHeap) {
  const Heap heap({9, 9, 9, 2 << 1, 'a', 'b'}, 3);
  const heap::Key key = heap::KeyAt(heap.table, 0);
  ASSERT_EQ(key.bytes, heap.table.t_data + 4);
  EXPECT_EQ(key.length, 2u);
}

TEST(KeyAt, ReadsALengthFieldThatEndsWithTheHeap) {
  const Heap empty_key({9, 9, 9, 0}, 3);
  EXPECT_EQ(heap::KeyAt(empty_key.table, 0).bytes, empty_key.table.t_data + 4);
  const Heap fixed({0, 0, 0, 0}, 0, 4);
  EXPECT_EQ(heap::KeyAt(fixed.table, 0).bytes, fixed.table.t_data + 4);
}

TEST(KeyAt, RefusesAKeyThatLeavesTheHeap) {
  EXPECT_EQ(heap::KeyAt(Heap({2 << 1, 'a'}).table, 0).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({8 << 1, 1, 2, 3, 4, 5, 6, 7}).table, 0).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({0xFF, 0xFF, 0xFF, 0xFF, 0x1E, 6, 7}).table, 0).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3}, 0, 4).table, 0).bytes, nullptr);
}

TEST(KeyAt, RefusesALengthFieldThatLeavesTheHeap) {
  EXPECT_EQ(heap::KeyAt(Heap({1}).table, 0).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({1, 1, 1}).table, 0).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({0}, 0, 2).table, 0).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({0, 0, 0}, 0, 4).table, 0).bytes, nullptr);
}

TEST(KeyAt, RefusesAnEntryThatStartsOrHasItsValueOutside) {
  EXPECT_EQ(heap::KeyAt(Heap({0, 0}, 2).table, 0).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({0, 0}, 3).table, 0).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({0, 0}, 0xFFFFFFFF).table, 0).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({0, 0}, 0).table, 2).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({0, 0}, 0).table, 0xFFFFFFFE).bytes, nullptr);
  EXPECT_EQ(heap::KeyAt(Heap({}).table, 0).bytes, nullptr);
}

TEST(KeyAt, TakesAMalformedLengthForAnEmptyKey) {
  const Heap heap({7, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 'x'}, 1);
  const heap::Key key = heap::KeyAt(heap.table, 0);
  EXPECT_EQ(key.bytes, heap.table.t_data + 1);
  EXPECT_EQ(key.length, 0u);
}

TEST(Next, RoundsInAnAlignedHeapOnly) {
  Heap heap({1 << 1, 'a', 0, 0, 0, 0, 0, 0, 1 << 1, 'b'});
  EXPECT_EQ(heap::Next(heap.table, 0), 2u);
  heap.table.t_aligned = TRUE;
  EXPECT_EQ(heap::Next(heap.table, 0), 8u);
  EXPECT_EQ(heap::Next(heap.table, 8), 16u);
  EXPECT_EQ(heap::Next(heap.table, 16), 0u);
}

TEST(Next, EndsWhereTheHeapInUseEnds) {
  Heap heap({1 << 1, 'a', 1 << 1, 'b', 1 << 1, 'c'});
  heap.table.t_data_used = 3;
  EXPECT_EQ(heap::Next(heap.table, 0), 2u);
  EXPECT_EQ(heap::Next(heap.table, 2), 4u);  // this entry starts inside
  EXPECT_EQ(heap::Next(heap.table, 4), 0u);
}

TEST(Next, EndsWhereAStepWouldNotMove) {
  EXPECT_EQ(heap::Next(Heap({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0}).table, 0), 0u);
  EXPECT_EQ(heap::Next(Heap({1, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0}, 1).table, 0), 1u);  // over the value, at least
}

TEST(Next, EndsWhereTheHeapIsShorterThanItSays) {
  Heap heap({1 << 1, 'a', 1 << 1, 'b'});
  heap.table.t_data_used = SIZE_MAX;
  EXPECT_EQ(heap::Next(heap.table, 2), 4u);
  EXPECT_EQ(heap::Next(heap.table, 4), 0u);
  EXPECT_EQ(heap::Next(heap.table, 0xFFFFFFFF), 0u);
}

TEST(HoldsValue, IsAboutTheBytesThatCallersAreHanded) {
  Heap heap({0, 0, 0, 0}, 3);
  EXPECT_TRUE(heap::HoldsValue(heap.table, 0));
  EXPECT_TRUE(heap::HoldsValue(heap.table, 1));
  EXPECT_FALSE(heap::HoldsValue(heap.table, 2));
  EXPECT_FALSE(heap::HoldsValue(heap.table, 4));
  EXPECT_FALSE(heap::HoldsValue(heap.table, heap::kEmptySlot));
  heap.table.t_val_len = 0;
  EXPECT_TRUE(heap::HoldsValue(heap.table, 3));
  EXPECT_FALSE(heap::HoldsValue(heap.table, 4));  // not even a key length is there
}

TEST(KeyOf, ReadsACallersCopyOfAnEntry) {
  const Heap heap({0, 0});
  const UByte copy[] = {2 << 1, 'x', 'y', 0, 0};
  const UByte* bytes = nullptr;
  EXPECT_EQ(heap::KeyOf(heap.table, copy, &bytes), 2u);
  EXPECT_EQ(bytes, copy + 1);
}

TEST(KeyOf, TellsAnEmptyKeyWhereADamagedOneWouldLeaveTheHeap) {
  const Heap heap({9 << 1, 'x', 'y'});
  const UByte* bytes = nullptr;
  EXPECT_EQ(heap::KeyOf(heap.table, heap.table.t_data, &bytes), 0u);
  EXPECT_EQ(bytes, heap.table.t_data);
}

// A table whose heap lies about having grown.
struct LyingTraits {
  using Table = HashTable;
  static constexpr const char* kModule = "dict/test";
  static constexpr const char* kFindName = "TestFind";
  static bool Padded(const HashTable&) { return true; }
  static bool ResizeHeap(HashTable*, size_t) { return true; }
  static void CheckPlace(const HashTable&, size_t) {}
};

TEST(AppendDeathTest, AssertsThatTheHeapHasRoom) {
  Heap heap({0, 0, 0, 0, 0, 0, 0, 0});
  size_t place = 0;
  const UByte key[] = {1, 2, 3};
  heap.table.t_data_used = 0;
  EXPECT_TRUE(heap::Append<LyingTraits>(&heap.table, key, 3, nullptr, &place));
  EXPECT_ASSERTION(heap::Append<LyingTraits>(&heap.table, key, 3, nullptr, &place), "dict/test", "TestFind",
                   "table->t_data_used + delta <= table->t_data_size");
}

}  // namespace
