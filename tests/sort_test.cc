// Sorting with a context: right for honest comparisons, in bounds for every other.

#include "qxlib/sort.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "support/limits.h"
#include "support/sanitizers.h"

QX_ALLOCATIONS_MAY_FAIL;

namespace {

int CompareUInts(const void* a, const void* b, void* context) {
  if (context != nullptr) ++*static_cast<size_t*>(context);
  UInt x = 0;
  UInt y = 0;
  memcpy(&x, a, sizeof(x));
  memcpy(&y, b, sizeof(y));
  return x < y ? -1 : x > y ? 1 : 0;
}

std::vector<UInt> RandomUInts(size_t count, UInt below) {
  std::mt19937 random(1);
  std::vector<UInt> result(count);
  for (UInt& element : result) element = static_cast<UInt>(random()) % below;
  return result;
}

void Sort(std::vector<UInt>* elements, size_t* comparisons = nullptr) {
  QSort(elements->data(), elements->size(), sizeof(UInt), CompareUInts, comparisons);
}

TEST(QSort, SortsInPlace) {
  std::vector<UInt> elements = {5, 3, 9, 1, 3, 7, 0, 4294967295, 2, 8};
  Sort(&elements);
  EXPECT_EQ(elements, (std::vector<UInt>{0, 1, 2, 3, 3, 5, 7, 8, 9, 4294967295}));
}

TEST(QSort, HandsTheContextToEveryComparison) {
  std::vector<UInt> elements = {2, 1};
  size_t comparisons = 0;
  Sort(&elements, &comparisons);
  EXPECT_EQ(comparisons, 1u);
}

TEST(QSort, NothingAndOneElementNeedNoComparison) {
  size_t comparisons = 0;
  QSort(nullptr, 0, 4, CompareUInts, &comparisons);
  UInt one = 7;
  QSort(&one, 1, 4, CompareUInts, &comparisons);
  QSort(&one, 5, 0, CompareUInts, &comparisons);
  EXPECT_EQ(comparisons, 0u);
  EXPECT_EQ(one, 7u);
}

TEST(QSort, EveryPermutationOfEightElements) {
  std::vector<UInt> order(8);
  std::iota(order.begin(), order.end(), 0);
  const std::vector<UInt> sorted = order;
  do {
    std::vector<UInt> elements = order;
    Sort(&elements);
    ASSERT_EQ(elements, sorted);
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(QSort, ElementsOfEverySizeStayWhole) {
  for (const size_t size : {1u, 2u, 3u, 4u, 5u, 7u, 8u, 12u, 16u, 24u, 33u, 100u, 1000u, 3000u}) {
    constexpr size_t kCount = 250;
    // An element is its key byte over and over, behind a guard byte at each end of the array.
    std::vector<UByte> bytes(kCount * size + 2, 0xee);
    std::mt19937 random(static_cast<UInt>(size));
    std::vector<UByte> keys(kCount);
    for (size_t i = 0; i < kCount; i++) {
      keys[i] = static_cast<UByte>(random());
      memset(&bytes[1 + i * size], keys[i], size);
    }
    const auto compare = [](const void* a, const void* b, void* context) {
      return memcmp(a, b, *static_cast<size_t*>(context));
    };
    size_t context = size;
    QSort(&bytes[1], kCount, size, compare, &context);
    std::sort(keys.begin(), keys.end());
    for (size_t i = 0; i < kCount; i++) {
      const std::vector<UByte> expected(size, keys[i]);
      ASSERT_EQ(memcmp(&bytes[1 + i * size], expected.data(), size), 0) << size << " " << i;
    }
    EXPECT_EQ(bytes.front(), 0xee);
    EXPECT_EQ(bytes.back(), 0xee);
  }
}

TEST(QSort, AHundredThousandElementsInTheComparisonsOfAMergeSort) {
  for (const UInt below : {1u, 2u, 100u, 4294967295u}) {
    std::vector<UInt> elements = RandomUInts(100000, below);
    std::vector<UInt> expected = elements;
    std::sort(expected.begin(), expected.end());
    size_t comparisons = 0;
    Sort(&elements, &comparisons);
    EXPECT_EQ(elements, expected);
    EXPECT_LT(comparisons, 1700000u);  // 100000 * log2(100000) is 1660964
  }
}

TEST(QSort, OrderedInputCostsLittleMoreThanALook) {
  std::vector<UInt> elements(100000);
  std::iota(elements.begin(), elements.end(), 0);
  size_t comparisons = 0;
  Sort(&elements, &comparisons);
  EXPECT_LT(comparisons, 100000u);
}

TEST(QSort, AnyElementsAnyOrder) {
  EXPECT_TRUE(rc::check("agrees with std::sort", [](std::vector<UInt> elements) {
    std::vector<UInt> expected = elements;
    std::sort(expected.begin(), expected.end());
    Sort(&elements);
    RC_ASSERT(elements == expected);
  }));
}

// A comparison without rhyme or reason. What comes out is in no order, but it is what went in.
int CompareAtRandom(const void* /*a*/, const void* /*b*/, void* context) {
  return static_cast<int>((*static_cast<std::mt19937*>(context))() % 3) - 1;
}
int CompareLess(const void* /*a*/, const void* /*b*/, void* /*context*/) { return -1; }
int CompareGreater(const void* /*a*/, const void* /*b*/, void* /*context*/) { return 1; }

// The array lies in a block of its exact size: a step outside is seen by AddressSanitizer, and here by a lost element.
template <typename Element>
void ExpectPermutation(size_t count) {
  std::mt19937 random(static_cast<UInt>(count));
  for (const auto compare : {CompareAtRandom, CompareLess, CompareGreater}) {
    std::vector<Element> elements(count);
    for (size_t i = 0; i < count; i++) elements[i] = static_cast<Element>(i);
    std::vector<Element> expected = elements;
    elements.shrink_to_fit();
    QSort(elements.data(), count, sizeof(Element), compare, &random);
    std::sort(elements.begin(), elements.end());
    ASSERT_EQ(elements, expected) << count;
  }
}

TEST(QSort, AComparisonThatContradictsItselfStaysInBounds) {
  for (size_t count = 0; count < 200; count++) {
    ExpectPermutation<UShort>(count);
    ExpectPermutation<UInt>(count);
    ExpectPermutation<ULong>(count);
  }
  ExpectPermutation<UShort>(50000);
  ExpectPermutation<UInt>(100000);
  ExpectPermutation<ULong>(100000);
}

// Without memory for the scratch array the answer is the same. The array must be large for the allocation to fail.
constexpr size_t kLarge = size_t{1} << 20;

void ExitWith(bool right) { _exit(right ? 0 : 1); }

TEST(QSortDeathTest, SortsWithoutScratchMemory) {
  EXPECT_EXIT(
      {
        std::vector<UInt> elements = RandomUInts(kLarge, 4000000000u);
        std::vector<UInt> expected = elements;
        std::sort(expected.begin(), expected.end());
        support::LimitMemory();
        size_t comparisons = 0;
        Sort(&elements, &comparisons);
        // A merge sort would need fewer: this was the other one.
        ExitWith(elements == expected && comparisons > 24 * kLarge);
      },
      testing::ExitedWithCode(0), "");
}

TEST(QSortDeathTest, WithoutScratchMemoryAContradictingComparisonStaysInBounds) {
  EXPECT_EXIT(
      {
        std::vector<UInt> elements(kLarge);
        std::iota(elements.begin(), elements.end(), 0);
        std::mt19937 random(1);
        std::vector<UInt> expected = elements;
        support::LimitMemory();
        QSort(elements.data(), kLarge, sizeof(UInt), CompareAtRandom, &random);
        std::sort(elements.begin(), elements.end());
        ExitWith(elements == expected);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
