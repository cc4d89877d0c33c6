// Blocks and anonymous mappings.

#include "qxlib/memory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "support/death.h"
#include "support/limits.h"
#include "support/sanitizers.h"

QX_ALLOCATIONS_MAY_FAIL;

namespace {

constexpr const char* kFile = "dict/example";
constexpr size_t kTooMuch = SIZE_MAX / 4;

UByte* NewBlock(size_t size, void* old = nullptr) { return static_cast<UByte*>(Allocate_(size, old, kFile, 1)); }
UByte* NewMapping(size_t size) { return static_cast<UByte*>(MemoryMap_(size, kFile, 1)); }

void Number(UByte* bytes, size_t count) {
  for (size_t i = 0; i < count; i++) bytes[i] = static_cast<UByte>(i * 31 + 7);
}

bool IsNumbered(const UByte* bytes, size_t count) {
  for (size_t i = 0; i < count; i++) {
    if (bytes[i] != static_cast<UByte>(i * 31 + 7)) return false;
  }
  return true;
}

bool IsZero(const UByte* bytes, size_t count) {
  return std::all_of(bytes, bytes + count, [](UByte byte) { return byte == 0; });
}

TEST(Allocate, GivesABlockThatIsAlignedForEveryType) {
  UByte* block = NewBlock(100);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0u);
  Number(block, 100);
  EXPECT_TRUE(IsNumbered(block, 100));
  UnAllocate_(block, kFile, 2);
}

TEST(Allocate, ResizingKeepsTheContentsUpToTheSmallerSize) {
  UByte* block = NewBlock(1000);
  Number(block, 1000);
  block = NewBlock(1000000, block);
  EXPECT_TRUE(IsNumbered(block, 1000));
  Number(block, 1000000);
  block = NewBlock(10, block);
  EXPECT_TRUE(IsNumbered(block, 10));
  UnAllocate_(block, kFile, 2);
}

TEST(Allocate, ZeroBytesIsNoFailure) {
  UByte* block = NewBlock(0);
  EXPECT_NE(block, nullptr);
  UnAllocate_(block, kFile, 2);
}

TEST(Allocate, ShrinkingToZeroKeepsABlockThatCanGrowAgain) {
  UByte* block = NewBlock(50);
  block = NewBlock(0, block);
  ASSERT_NE(block, nullptr);
  block = NewBlock(50, block);
  Number(block, 50);
  EXPECT_TRUE(IsNumbered(block, 50));
  UnAllocate_(block, kFile, 2);
}

TEST(Allocate, FreeingNullIsNothing) { UnAllocate_(nullptr, kFile, 1); }

TEST(AllocateDeathTest, EndsTheProcessWithAMessageWhenMemoryRunsOut) {
  EXPECT_CLEAR_END(Allocate_(kTooMuch, nullptr, kFile, 77),
                   "qxlib: level 4: dict/example:77: Allocate_: memory allocation failed: size=4611686018427387903: "
                   "Cannot allocate memory\n");
}

TEST(AllocateDeathTest, EndsTheProcessWhenAGrownBlockDoesNotFit) {
  UByte* block = NewBlock(8);
  EXPECT_CLEAR_END(Allocate_(kTooMuch, block, kFile, 78), "dict/example:78: Allocate_: memory allocation failed");
  UnAllocate_(block, kFile, 2);
}

TEST(AllocateDeathTest, EndsTheProcessWhenTheMachineHasNoMoreToGive) {
  EXPECT_CLEAR_END(
      {
        support::LimitMemory();
        Allocate_(size_t{1} << 30, nullptr, kFile, 79);
      },
      "dict/example:79: Allocate_: memory allocation failed: size=1073741824: Cannot allocate memory\n");
}

TEST(MemoryMap, GivesZeroedWritablePages) {
  UByte* base = NewMapping(100000);
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(base) % static_cast<uintptr_t>(sysconf(_SC_PAGESIZE)), 0u);
  EXPECT_TRUE(IsZero(base, 100000));
  Number(base, 100000);
  EXPECT_TRUE(IsNumbered(base, 100000));
  EXPECT_NE(MemoryUnmap_(base, 100000, kFile, 2), FALSE);
}

TEST(MemoryMap, FailsWithErrnoWhereAllocateWouldEnd) {
  errno = 0;
  EXPECT_EQ(NewMapping(kTooMuch), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  errno = 0;
  EXPECT_EQ(NewMapping(SIZE_MAX), nullptr);
  EXPECT_EQ(errno, ENOMEM);
}

TEST(MemoryMap, ZeroBytesIsAFailure) {
  errno = 0;
  EXPECT_EQ(NewMapping(0), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

TEST(MemoryRemap, GrowingKeepsTheContentsAndZeroesTheRest) {
  constexpr size_t kPage = 4096;
  UByte* base = NewMapping(3 * kPage);
  Number(base, 3 * kPage);
  base = static_cast<UByte*>(MemoryRemap_(base, 3 * kPage, 1000 * kPage, kFile, 2));
  ASSERT_NE(base, nullptr);
  EXPECT_TRUE(IsNumbered(base, 3 * kPage));
  EXPECT_TRUE(IsZero(base + 3 * kPage, 997 * kPage));
  EXPECT_NE(MemoryUnmap_(base, 1000 * kPage, kFile, 3), FALSE);
}

TEST(MemoryRemap, ShrinkingKeepsTheBeginning) {
  UByte* base = NewMapping(1000000);
  Number(base, 1000000);
  base = static_cast<UByte*>(MemoryRemap_(base, 1000000, 5000, kFile, 2));
  ASSERT_NE(base, nullptr);
  EXPECT_TRUE(IsNumbered(base, 5000));
  EXPECT_NE(MemoryUnmap_(base, 5000, kFile, 3), FALSE);
}

TEST(MemoryRemap, AFailureLeavesTheOldMapping) {
  UByte* base = NewMapping(10000);
  Number(base, 10000);
  errno = 0;
  EXPECT_EQ(MemoryRemap_(base, 10000, kTooMuch, kFile, 2), nullptr);
  EXPECT_NE(errno, 0);
  errno = 0;
  EXPECT_EQ(MemoryRemap_(base, 10000, 0, kFile, 2), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(IsNumbered(base, 10000));
  EXPECT_NE(MemoryUnmap_(base, 10000, kFile, 3), FALSE);
}

TEST(MemoryRemap, NothingCannotBeResized) {
  errno = 0;
  EXPECT_EQ(MemoryRemap_(nullptr, 4096, 8192, kFile, 1), nullptr);
  EXPECT_EQ(errno, EINVAL);
  UByte* base = NewMapping(4096);
  errno = 0;
  EXPECT_EQ(MemoryRemap_(base, 0, 8192, kFile, 1), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_NE(MemoryUnmap_(base, 4096, kFile, 3), FALSE);
}

TEST(MemoryUnmap, FailsWithErrnoForWhatIsNoMapping) {
  errno = 0;
  EXPECT_EQ(MemoryUnmap_(nullptr, 4096, kFile, 1), FALSE);
  EXPECT_EQ(errno, EINVAL);
  UByte* base = NewMapping(8192);
  errno = 0;
  EXPECT_EQ(MemoryUnmap_(base + 1, 4096, kFile, 1), FALSE);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(MemoryUnmap_(base, 0, kFile, 1), FALSE);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_NE(MemoryUnmap_(base, 8192, kFile, 1), FALSE);
}

}  // namespace
