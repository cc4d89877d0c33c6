// Growable arrays and storage for packed arrays.

#include "qxlib/array.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "support/death.h"
#include "support/sanitizers.h"

QX_ALLOCATIONS_MAY_FAIL;

namespace {

constexpr const char* kFile = "dict/example";
constexpr UInt kMaximum = 2147483647;

void Append(UIntArray* array, UInt value) {
  if (array->a.length == array->a.capacity) ArrayGrow_(&array->a, sizeof(UInt), kFile, 1);
  array->t.elts[array->t.length++] = value;
}

class ArrayTest : public testing::Test {
 protected:
  ArrayTest() { ArrayInit_(&array_.a); }
  ~ArrayTest() override { ArrayFree_(&array_.a, kFile, 2); }

  UIntArray array_;
};

TEST_F(ArrayTest, StartsEmpty) {
  array_.a = {&array_, 7, 9};
  ArrayInit_(&array_.a);
  EXPECT_EQ(array_.a.elts, nullptr);
  EXPECT_EQ(array_.a.length, 0u);
  EXPECT_EQ(array_.a.capacity, 0u);
}

TEST_F(ArrayTest, GrowingMakesRoomAndLeavesTheLength) {
  ArrayGrow_(&array_.a, sizeof(UInt), kFile, 1);
  EXPECT_GT(array_.a.capacity, 0u);
  EXPECT_EQ(array_.a.length, 0u);
  EXPECT_NE(array_.a.elts, nullptr);
}

TEST_F(ArrayTest, GrowingAnArrayWithRoomChangesNothing) {
  ArrayGrowExact_(&array_.a, 100, sizeof(UInt), kFile, 1);
  void* elts = array_.a.elts;
  ArrayGrow_(&array_.a, sizeof(UInt), kFile, 1);
  EXPECT_EQ(array_.a.elts, elts);
  EXPECT_EQ(array_.a.capacity, 100u);
}

TEST_F(ArrayTest, AppendingAMillionElementsKeepsThemAndGrowsSeldom) {
  int growths = 0;
  for (UInt i = 0; i < 1000000; i++) {
    const UInt capacity = array_.a.capacity;
    Append(&array_, i * 3);
    if (array_.a.capacity != capacity) growths++;
  }
  EXPECT_LE(growths, 35);
  ASSERT_EQ(array_.t.length, 1000000u);
  for (UInt i = 0; i < 1000000; i++) ASSERT_EQ(array_.t.elts[i], i * 3);
}

TEST_F(ArrayTest, GrowExactSetsExactlyThatCapacityUpAndDown) {
  for (UInt i = 0; i < 10; i++) Append(&array_, i);
  ArrayGrowExact_(&array_.a, 1237, sizeof(UInt), kFile, 1);
  EXPECT_EQ(array_.a.capacity, 1237u);
  ArrayGrowExact_(&array_.a, 10, sizeof(UInt), kFile, 1);
  EXPECT_EQ(array_.a.capacity, 10u);
  EXPECT_EQ(array_.a.length, 10u);
  for (UInt i = 0; i < 10; i++) EXPECT_EQ(array_.t.elts[i], i);
}

TEST_F(ArrayTest, GrowExactToNothingFreesAnEmptyArray) {
  ArrayGrowExact_(&array_.a, 10, sizeof(UInt), kFile, 1);
  ArrayGrowExact_(&array_.a, 0, sizeof(UInt), kFile, 1);
  EXPECT_EQ(array_.a.elts, nullptr);
  EXPECT_EQ(array_.a.capacity, 0u);
}

TEST_F(ArrayTest, FreeingLeavesAnEmptyArrayThatCanGrowAgain) {
  Append(&array_, 5);
  ArrayFree_(&array_.a, kFile, 2);
  EXPECT_EQ(array_.a.elts, nullptr);
  EXPECT_EQ(array_.a.length, 0u);
  EXPECT_EQ(array_.a.capacity, 0u);
  Append(&array_, 6);
  EXPECT_EQ(array_.t.elts[0], 6u);
}

TEST(Array, TheLastGrowthStopsAtTheGreatestLength) {
  // Bytes that nobody touches cost no memory. The array holds no elements yet, so that nothing is copied.
  Array_ array = {nullptr, kMaximum - 1, kMaximum - 1};
  ArrayGrow_(&array, 1, kFile, 1);
  EXPECT_EQ(array.capacity, kMaximum);
  EXPECT_EQ(array.length, kMaximum - 1);
  ArrayFree_(&array, kFile, 2);
}

TEST(ArrayDeathTest, AFullArrayCannotGrow) {
  Array_ array = {nullptr, kMaximum, kMaximum};
  EXPECT_CLEAR_END(ArrayGrow_(&array, 1, kFile, 33),
                   "qxlib: level 4: dict/example:33: ArrayGrow_: array is full: length=2147483647\n");
  array = {nullptr, UINT32_MAX, UINT32_MAX};
  EXPECT_CLEAR_END(ArrayGrow_(&array, 1, kFile, 34), "array is full: length=4294967295");
}

TEST(ArrayDeathTest, ASizeThatWouldWrapEndsTheProcess) {
  Array_ array = {nullptr, 0, 0};
  EXPECT_CLEAR_END(ArrayGrowExact_(&array, 4, SIZE_MAX / 4 + 1, kFile, 35), "array is too large: capacity=4");
  EXPECT_CLEAR_END(ArrayGrowExact_(&array, UINT32_MAX, SIZE_MAX / 8, kFile, 36),
                   "array is too large: capacity=4294967295");
}

TEST(ArrayDeathTest, AllocationFailureEndsTheProcess) {
  Array_ array = {nullptr, 0, 0};
  EXPECT_CLEAR_END(ArrayGrowExact_(&array, 2, SIZE_MAX / 8, kFile, 37),
                   "dict/example:37: Allocate_: memory allocation failed");
}

TEST(ArrayDeathTest, TheCapacityCannotGoBelowTheLength) {
  Array_ array = {nullptr, 5, 8};
  EXPECT_EXIT(ArrayGrowExact_(&array, 4, 4, kFile, 38), testing::KilledBySignal(SIGABRT),
              "array_test: dict/example:38: Assertion `capacity >= array->length' failed\\.");
}

TEST(ArrayNextSize, IsAtLeastNeededAndAtMostTheMaximum) {
  for (const UInt capacity : {0u, 1u, 7u, 8u, 1000u, 1431655764u, 1431655765u, 1431655766u, kMaximum - 1, kMaximum}) {
    for (const UInt needed : {0u, 1u, 8u, 9u, 1001u, 1500000000u, kMaximum - 1, kMaximum}) {
      const UInt next = ArrayNextSize(capacity, needed, kMaximum);
      EXPECT_GE(next, needed) << capacity;
      EXPECT_LE(next, kMaximum) << capacity << " " << needed;
      EXPECT_GE(next, capacity) << needed;
    }
  }
}

TEST(ArrayNextSize, IsGeometricUntilTheMaximumStopsIt) {
  EXPECT_EQ(ArrayNextSize(0, 1, kMaximum), 8u);
  EXPECT_EQ(ArrayNextSize(100, 101, kMaximum), 150u);
  EXPECT_EQ(ArrayNextSize(100, 1000, kMaximum), 1000u);
  EXPECT_EQ(ArrayNextSize(1431655764, 1431655765, kMaximum), 2147483646u);
  EXPECT_EQ(ArrayNextSize(1431655766, 1431655767, kMaximum), kMaximum);
  EXPECT_EQ(ArrayNextSize(2147483646, 2147483647, kMaximum), kMaximum);
  EXPECT_EQ(ArrayNextSize(3000000000, 4000000000, UINT32_MAX), UINT32_MAX);
}

TEST(ArrayNextSize, StaysWhereThereIsRoom) {
  EXPECT_EQ(ArrayNextSize(100, 100, kMaximum), 100u);
  EXPECT_EQ(ArrayNextSize(100, 5, kMaximum), 100u);
  EXPECT_EQ(ArrayNextSize(0, 0, kMaximum), 0u);
  EXPECT_EQ(ArrayNextSize(100, 5, 50), 50u);
}

TEST(ArrayNextSizeDeathTest, MoreThanTheMaximumEndsTheProcess) {
  EXPECT_CLEAR_END(ArrayNextSize(10, 2147483648u, kMaximum),
                   "ArrayNextSize: array is too large: needed=2147483648, maximum=2147483647\n");
  EXPECT_CLEAR_END(ArrayNextSize(10, UINT32_MAX, kMaximum), "needed=4294967295");
}

struct PackedSize {
  ULong nvalues;
  UInt nbits;
  size_t bytes;
};

class AnonArraySizes : public testing::TestWithParam<PackedSize> {};

TEST_P(AnonArraySizes, IsZeroedStorageInWholeWords) {
  const PackedSize& size = GetParam();
  size_t bytes = 0;
  UByte* words = static_cast<UByte*>(AnonArrayGrow_(8, 0, size.nvalues, size.nbits, &bytes, kFile, 1));
  EXPECT_EQ(bytes, size.bytes);
  ASSERT_NE(words, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(words) % 8, 0u);
  EXPECT_TRUE(std::all_of(words, words + size.bytes, [](UByte byte) { return byte == 0; }));
  AnonArrayFree_(words, kFile, 2);
}

INSTANTIATE_TEST_SUITE_P(Sizes, AnonArraySizes,
                         testing::Values(PackedSize{1, 1, 8}, PackedSize{63, 1, 8}, PackedSize{64, 1, 8},
                                         PackedSize{65, 1, 16}, PackedSize{32, 2, 8}, PackedSize{33, 2, 16},
                                         PackedSize{1, 64, 8}, PackedSize{1, 65, 16}, PackedSize{7, 9, 8},
                                         PackedSize{8, 9, 16}, PackedSize{1000, 20, 2504},
                                         PackedSize{1000003, 32, 4000016}));

TEST(AnonArray, FreshStorageIsZeroedWhereOldHeapContentsLay) {
  for (int round = 0; round < 20; round++) {
    UByte* words = static_cast<UByte*>(AnonArrayGrow_(8, 0, 500, 8, nullptr, kFile, 1));
    ASSERT_TRUE(std::all_of(words, words + 504, [](UByte byte) { return byte == 0; }));
    std::fill_n(words, 504, UByte{0xa5});
    AnonArrayFree_(words, kFile, 2);
  }
}

TEST(AnonArray, NothingNeedsNoStorage) {
  size_t bytes = 99;
  EXPECT_EQ(AnonArrayGrow_(8, 0, 0, 32, &bytes, kFile, 1), nullptr);
  EXPECT_EQ(bytes, 0u);
  bytes = 99;
  EXPECT_EQ(AnonArrayGrow_(8, 0, 1000, 0, &bytes, kFile, 1), nullptr);
  EXPECT_EQ(bytes, 0u);
  AnonArrayFree_(nullptr, kFile, 2);
}

TEST(AnonArrayDeathTest, ACountOfBitsThatWouldWrapEndsTheProcess) {
  EXPECT_CLEAR_END(AnonArrayGrow_(8, 0, ULong{1} << 63, 2, nullptr, kFile, 41),
                   "dict/example:41: AnonArrayGrow_: packed array is too large: values=9223372036854775808, bits=2\n");
  EXPECT_CLEAR_END(AnonArrayGrow_(8, 0, UINT64_MAX, UINT32_MAX, nullptr, kFile, 42), "packed array is too large");
}

TEST(AnonArrayDeathTest, MoreThanThereIsEndsTheProcess) {
  EXPECT_CLEAR_END(AnonArrayGrow_(8, 0, UINT64_MAX, 1, nullptr, kFile, 43),
                   "dict/example:43: AnonArrayGrow_: memory allocation failed: size=2305843009213693952: "
                   "Cannot allocate memory\n");
}

}  // namespace
