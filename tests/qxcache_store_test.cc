// Storing and fetching.

#include <dlfcn.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <thread>

#include "dict/qxcache.h"
#include "dict/qxcache_internal.h"
#include "support/death.h"
#include "support/faults.h"
#include "support/quiet_cache.h"

namespace {

using support::BlocksOf;
using support::Bytes;
using support::FreeList;
using support::FullList;
using support::kNever;
using support::Numbered;
using support::QuietCache;

bool all_alike = false;

}  // namespace

// In front of the base library's: keys that begin with '#' can be made to collide.
extern "C" FPrint Fingerprint(const UByte* bytes, UInt length) {
  static const auto real = reinterpret_cast<FPrint (*)(const UByte*, UInt)>(dlsym(RTLD_NEXT, "Fingerprint"));
  if (all_alike && length > 0 && bytes[0] == '#') return 0x1234567890abcdef;
  return real(bytes, length);
}

namespace {

constexpr ULong kStart = 1000000000;  // the clock of these tests

class CacheAt : public testing::Test {
 protected:
  CacheAt() { At(kStart); }
  ~CacheAt() override {
    support::faults::ClockReal();
    all_alike = false;
  }
  static void At(ULong time) { support::faults::ClockSet(time); }

  // The growable array's contents.
  static std::string Text(const UByteArray& array) {
    return {reinterpret_cast<const char*>(array.t.elts), array.t.length};
  }
};

using QXCacheStoreTest = CacheAt;
using QXCacheGetStaticTest = CacheAt;
using QXCacheGetDynamicTest = CacheAt;
using CacheHistogram = CacheAt;
using CacheFetchRace = CacheAt;

TEST_F(QXCacheStoreTest, WhatWasStoredIsFetched) {
  const QuietCache cache;
  EXPECT_TRUE(cache.Store("key", "value"));
  EXPECT_EQ(cache.Fetch("key"), "value");
  EXPECT_EQ(cache.Fetch("kez"), "(none)");
  EXPECT_EQ(cache.Fetch("ke"), "(none)");
  EXPECT_EQ(cache.Fetch("keyy"), "(none)");
}

TEST_F(QXCacheStoreTest, AnyBytesAreAValue) {
  const QuietCache cache;
  const std::string value("\0\xff\0 zero\0", 9);
  EXPECT_TRUE(cache.Store("k", value));
  EXPECT_EQ(cache.Fetch("k"), value);
}

TEST_F(QXCacheStoreTest, EmptyKeysAndEmptyValuesCount) {
  const QuietCache cache;
  EXPECT_TRUE(cache.Store("", "of the empty key"));
  EXPECT_TRUE(cache.Store("empty value", ""));
  EXPECT_TRUE(QXCacheStore(cache.get(), Bytes("null value"), nullptr, 0, kNever));
  EXPECT_EQ(cache.Fetch(""), "of the empty key");
  EXPECT_EQ(cache.Fetch("empty value"), "");
  EXPECT_EQ(cache.Fetch("null value"), "");
  EXPECT_EQ(cache.Objects(), 3u);
}

TEST_F(QXCacheStoreTest, LaysTheBlockOutAsDescribed) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("abc", "12345", 777));
  Page* const page = cache.PageAt(0);  // the tail
  UByte* const start = page->p_copy_ptr;
  ASSERT_EQ(cache.Indexed("abc"), reinterpret_cast<ULong>(start));
  const CacheBlock* const block = cache.Block("abc");
  EXPECT_EQ(block->b_key, Fingerprint(Bytes("abc"), 3));
  EXPECT_EQ(block->b_size, 9u);
  EXPECT_EQ(block->b_created, kStart);
  EXPECT_EQ(block->b_expires, 777u);
  EXPECT_EQ(block->b_accessed, kStart);
  EXPECT_EQ(block->b_page, page);
  EXPECT_EQ(block->b_next, nullptr);
  EXPECT_EQ(std::memcmp(start + 56,
                        "abc\0"
                        "12345",
                        9),
            0);
  EXPECT_EQ(page->p_last, block);
  EXPECT_EQ(page->p_alloc_ptr, start + 72);  // 56 + 9, up to a multiple of 8
  EXPECT_EQ(cache->c_nb_objects, 1u);
  EXPECT_EQ(cache->c_total_size, 9u);
  EXPECT_EQ(cache->c_age_histogram[0], 1u);
}

TEST_F(QXCacheStoreTest, BlocksOfAPageAreLinkedInOrder) {
  const QuietCache cache({.region_size = 6});
  // With six pages a store finds five left for the next one, so each store comes back to the page it began with.
  for (const char* key : {"a", "bb", "ccc"}) {
    qxcache::AddFreePage(cache.get(), qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), FALSE, TRUE);
    ASSERT_TRUE(cache.Store(key, "0123456789"));
  }
  const std::vector<CacheBlock*> blocks = BlocksOf(cache.Block("a")->b_page);
  EXPECT_EQ(blocks, (std::vector<CacheBlock*>{cache.Block("a"), cache.Block("bb"), cache.Block("ccc")}));
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(QXCacheStoreTest, TakesTheTailPageAndGivesItBackAsTheHead) {
  const QuietCache cache({.region_size = 6});
  ASSERT_TRUE(cache.Store("k", "v"));
  EXPECT_EQ(FreeList(cache.get()), (std::vector<Page*>{cache.PageAt(0), cache.PageAt(5), cache.PageAt(4),
                                                       cache.PageAt(3), cache.PageAt(2), cache.PageAt(1)}));
  EXPECT_EQ(cache->c_nb_full_pages, 0u);
}

TEST_F(QXCacheStoreTest, AValueThatFillsAPageExactlyIsStored) {
  const QuietCache cache({.region_size = 6, .page_size = 1024});
  const std::string value(1024 - 88 - 56 - 4, 'x');  // key "abc" and its zero byte
  ASSERT_TRUE(cache.Store("abc", value));
  EXPECT_EQ(cache.Fetch("abc"), value);
  EXPECT_EQ(cache.PageAt(0)->p_alloc_ptr, cache.PageAt(0)->p_end);
  EXPECT_EQ(cache->c_free_head, cache.PageAt(0));
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(QXCacheStoreTest, AByteMoreThanAPageHoldsIsTooLarge) {
  const QuietCache cache({.region_size = 6, .page_size = 1024});
  EXPECT_FALSE(cache.Store("abc", std::string(1024 - 88 - 56 - 4 + 1, 'x')));
  EXPECT_EQ(cache.Fetch("abc"), "(none)");
  EXPECT_EQ(cache->c_free_head, cache.PageAt(0));  // given back to the head, untouched
  EXPECT_EQ(cache->c_nb_free_pages, 6u);
  EXPECT_EQ(cache->c_nb_full_pages, 0u);
  EXPECT_EQ(cache.PageAt(0)->p_last, nullptr);
  EXPECT_EQ(cache.Objects(), 0u);
}

TEST_F(QXCacheStoreTest, ABlockThatFillsAPagesRoomExactlyIsStoredThere) {
  const QuietCache cache({.region_size = 6, .page_size = 1024});
  ASSERT_TRUE(cache.Store("a", std::string(800, 'a')));  // 858, so 864: 72 are left
  qxcache::AddFreePage(cache.get(), qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), FALSE, TRUE);
  ASSERT_TRUE(cache.Store("b", std::string(72 - 56 - 2, 'b')));
  EXPECT_EQ(cache.Block("b")->b_page, cache.PageAt(0));
  EXPECT_EQ(cache.PageAt(0)->p_alloc_ptr, cache.PageAt(0)->p_end);
  EXPECT_EQ(cache->c_nb_full_pages, 0u);
}

TEST_F(QXCacheStoreTest, APageWithAByteTooFewGoesToTheFullListAndTheNextIsTried) {
  const QuietCache cache({.region_size = 7, .page_size = 1024});
  ASSERT_TRUE(cache.Store("a", std::string(800, 'a')));
  qxcache::AddFreePage(cache.get(), qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), FALSE, TRUE);
  ASSERT_TRUE(cache.Store("b", std::string(72 - 56 - 2 + 1, 'b')));
  EXPECT_EQ(FullList(cache.get()), std::vector<Page*>{cache.PageAt(0)});
  EXPECT_EQ(cache.Block("b")->b_page, cache.PageAt(1));
  EXPECT_EQ(cache.Fetch("a"), std::string(800, 'a'));
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(QXCacheStoreTest, AValueThatNeedsAWholePageGoesOnToAnEmptyOne) {
  const QuietCache cache({.region_size = 7, .page_size = 1024});
  ASSERT_TRUE(cache.Store("a", "1"));
  qxcache::AddFreePage(cache.get(), qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), FALSE, TRUE);
  EXPECT_TRUE(cache.Store("abc", std::string(1024 - 88 - 56 - 4, 'x')));
  EXPECT_EQ(cache.Block("abc")->b_page, cache.PageAt(1));
  EXPECT_EQ(cache->c_nb_full_pages, 1u);
}

TEST_F(QXCacheStoreTest, GivesUpAfterTenPagesWithoutRoom) {
  const QuietCache cache({.region_size = 20, .page_size = 1024});
  for (int i = 0; i < 20; i++) ASSERT_TRUE(cache.Store(Numbered("k", i), std::string(800, 'x')));
  EXPECT_EQ(cache->c_nb_full_pages, 0u);
  EXPECT_FALSE(cache.Store("big", std::string(200, 'x')));
  EXPECT_EQ(cache->c_nb_full_pages, 10u);
  EXPECT_EQ(cache->c_nb_free_pages, 10u);
  // The tail first, each in front of the one before.
  std::vector<Page*> expected;
  for (UInt i = 10; i-- > 0;) expected.push_back(cache.PageAt(i));
  EXPECT_EQ(FullList(cache.get()), expected);
  EXPECT_EQ(cache.Objects(), 20u);
  EXPECT_EQ(cache.Fetch("big"), "(none)");
  EXPECT_EQ(cache.Fetch("k3"), std::string(800, 'x'));
}

TEST_F(QXCacheStoreTest, TheTenthPageIsStillTried) {
  const QuietCache cache({.region_size = 20, .page_size = 1024});
  for (int i = 0; i < 9; i++) ASSERT_TRUE(cache.Store(Numbered("k", i), std::string(800, 'x')));
  // The nine pages with little room, which are the first nine at the head, become the first nine at the tail.
  for (int i = 0; i < 9; i++) {
    qxcache::AddFreePage(cache.get(), qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), FALSE, TRUE);
  }
  EXPECT_TRUE(cache.Store("big", std::string(200, 'x')));
  EXPECT_EQ(cache->c_nb_full_pages, 9u);
}

TEST_F(QXCacheStoreTest, NeedsSixFreePages) {
  const QuietCache cache({.region_size = 6, .safety = 0.0});
  EXPECT_TRUE(cache.Store("k", "v"));
  Page* const page = qxcache::GetFreePage(cache.get(), FALSE, TRUE, TRUE);
  EXPECT_FALSE(cache.Store("k", "w"));
  EXPECT_EQ(cache.Fetch("k"), "v");
  qxcache::AddFreePage(cache.get(), page, TRUE, TRUE);
  EXPECT_TRUE(cache.Store("k", "w"));
}

TEST_F(QXCacheStoreTest, IsRefusedAtTheSafetyThreshold) {
  const QuietCache cache({.region_size = 20, .safety = 50.0});
  std::vector<Page*> held;
  for (int i = 0; i < 9; i++) held.push_back(qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE));
  EXPECT_TRUE(cache.Store("k", "v"));  // 11 of 20
  held.push_back(qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE));
  EXPECT_FALSE(cache.Store("k", "v"));  // 10 of 20
  for (Page* page : held) qxcache::AddFreePage(cache.get(), page, TRUE, TRUE);
}

TEST_F(QXCacheStoreTest, RefusesNull) {
  const QuietCache cache;
  EXPECT_FALSE(QXCacheStore(cache.get(), nullptr, Bytes("v"), 1, kNever));
  EXPECT_FALSE(QXCacheStore(cache.get(), Bytes("k"), nullptr, 1, kNever));
  EXPECT_EQ(cache.Objects(), 0u);
}

TEST_F(QXCacheStoreTest, SizesNearTheLimitOf32BitsAreRefusedUnread) {
  const QuietCache cache;
  for (const UInt size : {4294967295u, 4294967294u, 4294967295u - 57, 4294967295u - 145, 2147483648u, 2147483647u}) {
    EXPECT_FALSE(QXCacheStore(cache.get(), Bytes("k"), Bytes("v"), size, kNever)) << size;
  }
  EXPECT_EQ(cache.Objects(), 0u);
  EXPECT_EQ(cache->c_nb_free_pages, 8u);
}

TEST_F(QXCacheStoreTest, AKeyAsLongAsAPageIsRefused) {
  const QuietCache cache({.page_size = 1024});
  const std::string longest(1024 - 88 - 56 - 1, 'k');
  EXPECT_TRUE(cache.Store(longest, ""));
  EXPECT_EQ(cache.Fetch(longest), "");
  EXPECT_FALSE(cache.Store(longest + "k", ""));
  EXPECT_FALSE(cache.Store(std::string(1024, 'k'), ""));
  EXPECT_FALSE(cache.Store(std::string(100000, 'k'), "v"));
  EXPECT_EQ(cache.Fetch(longest + "k"), "(none)");
  EXPECT_EQ(cache.Fetch(std::string(100000, 'k')), "(none)");
}

TEST_F(QXCacheStoreTest, AnExpiryThatHasComeGivesAValueThatIsNeverFetched) {
  const QuietCache cache;
  EXPECT_TRUE(cache.Store("now", "v", kStart));
  EXPECT_TRUE(cache.Store("before", "v", kStart - 1));
  EXPECT_TRUE(cache.Store("zero", "v", 0));
  for (const char* key : {"now", "before", "zero"}) EXPECT_EQ(cache.Fetch(key), "(none)");
  EXPECT_EQ(cache.Objects(), 3u);
}

TEST_F(QXCacheStoreTest, AValueLivesUntilTheVeryMillisecond) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "v", kStart + 10));
  At(kStart + 9);
  EXPECT_EQ(cache.Fetch("k"), "v");
  At(kStart + 10);
  EXPECT_EQ(cache.Fetch("k"), "(none)");
  At(kStart + 9);  // a clock set back brings it back
  EXPECT_EQ(cache.Fetch("k"), "v");
}

TEST_F(QXCacheStoreTest, AClockThatStepsADayExpiresEarlyOrLateAndBreaksNothing) {
  constexpr ULong kHour = 3600000, kDay = 24 * kHour;
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "v", kStart + kHour));
  At(kStart + kDay);
  EXPECT_EQ(cache.Fetch("k"), "(none)");
  ASSERT_TRUE(cache.Store("of tomorrow", "w", kStart + kDay + kHour));
  At(kStart);
  EXPECT_EQ(cache.Fetch("k"), "v");
  EXPECT_EQ(cache.Fetch("of tomorrow"), "w");
  At(kStart - kDay);
  ASSERT_TRUE(cache.Store("of yesterday", "u", kStart));
  EXPECT_EQ(cache.Fetch("of yesterday"), "u");
  EXPECT_EQ(cache.Fetch("of tomorrow"), "w");
  for (const ULong time : {kStart - kDay, kStart, kStart + kDay, kStart - kDay}) {
    At(time);
    qxcache::ShiftHistogram(cache.get());
    qxcache::GCGetMinTime(cache.get());
    qxcache::Collector collector{.idle = false};
    qxcache::GCCollect(cache.get(), &collector);
    EXPECT_EQ(support::CheckCache(cache.get()), 0u);
  }
  At(kStart);
  EXPECT_EQ(cache.Fetch("of yesterday"), "(none)");
}

TEST_F(QXCacheStoreTest, AKeyStoredTwiceHasTheSecondValue) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "first"));
  const CacheBlock* const first = cache.Block("k");
  ASSERT_TRUE(cache.Store("k", "second"));
  EXPECT_EQ(cache.Fetch("k"), "second");
  EXPECT_NE(cache.Block("k"), first);
  EXPECT_FALSE(support::IsDead(first));  // it stays, and counts, until the collector meets it
  EXPECT_EQ(cache.Objects(), 2u);
  EXPECT_EQ(cache->c_total_size, 7u + 8u);
  EXPECT_EQ(QXAVLLDictSize(cache->c_dict), 1u);
}

TEST_F(QXCacheStoreTest, OfTwoKeysWithOneFingerprintTheLaterWins) {
  all_alike = true;
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("#first", "1"));
  EXPECT_EQ(cache.Fetch("#first"), "1");
  EXPECT_EQ(cache.Fetch("#other"), "(none)");
  ASSERT_TRUE(cache.Store("#second", "2"));
  EXPECT_EQ(cache.Fetch("#first"), "(none)");
  EXPECT_EQ(cache.Fetch("#second"), "2");
  // A prefix and an extension of the stored text, and a text longer than the whole block, are other keys.
  EXPECT_EQ(cache.Fetch("#secon"), "(none)");
  EXPECT_EQ(cache.Fetch("#second2"), "(none)");
  EXPECT_EQ(cache.Fetch(std::string(5000, '#')), "(none)");
  UInt size = 9;
  EXPECT_FALSE(QXCacheGetStatic(cache.get(), Bytes("#first"), nullptr, 0, &size));
  EXPECT_EQ(size, 0u);
}

TEST_F(QXCacheStoreTest, ALongerKeyIsNotComparedBeyondTheBlock) {
  all_alike = true;
  const QuietCache cache({.region_size = 8, .page_size = 4096});
  ASSERT_TRUE(cache.Store("#a", std::string(4096 - 88 - 64 - 56 - 3, 'x')));
  qxcache::AddFreePage(cache.get(), qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), FALSE, TRUE);
  ASSERT_TRUE(cache.Store("#b", ""));  // ends with its page, behind which there is nothing to read
  ASSERT_EQ(cache.PageAt(0)->p_alloc_ptr, cache.PageAt(0)->p_end);
  ASSERT_EQ(mprotect(cache.PageAt(1), 4096, PROT_NONE), 0);
  EXPECT_EQ(cache.Fetch("#b"), "");
  EXPECT_EQ(cache.Fetch("#bb"), "(none)");
  EXPECT_EQ(cache.Fetch("#b" + std::string(5000, 'b')), "(none)");
  ASSERT_EQ(mprotect(cache.PageAt(1), 4096, PROT_READ | PROT_WRITE), 0);
}

TEST_F(QXCacheStoreTest, AnEmptiedPagesOldLastBlockMayLieUnderTheNextValue) {
  const QuietCache cache({.region_size = 6, .page_size = 1024});
  ASSERT_TRUE(cache.Store("a", "1"));
  qxcache::AddFreePage(cache.get(), qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), FALSE, TRUE);
  ASSERT_TRUE(cache.Store("b", "2"));
  Page* const page = cache.PageAt(0);
  ASSERT_EQ(page->p_last, cache.Block("b"));
  qxcache::PageFreeBlocks(cache.get(), page);
  EXPECT_NE(page->p_last, nullptr);  // the dead block, in the middle of what comes next

  const std::string value(600, '\xff');
  for (const char* key : {"c", "d"}) {
    qxcache::AddFreePage(cache.get(), qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), FALSE, TRUE);
    ASSERT_TRUE(cache.Store(key, key[0] == 'c' ? value : "4"));
    ASSERT_EQ(cache.Block(key)->b_page, page);
  }
  EXPECT_EQ(cache.Fetch("c"), value);
  EXPECT_EQ(cache.Fetch("d"), "4");
  EXPECT_EQ(BlocksOf(page), (std::vector<CacheBlock*>{cache.Block("c"), cache.Block("d")}));
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(QXCacheStoreTest, AClockThatReadsAllOnesMakesNoDeadBlock) {
  const QuietCache cache;
  At(ULONG_MAX);
  ASSERT_TRUE(cache.Store("k", "v"));
  EXPECT_FALSE(support::IsDead(cache.Block("k")));
  At(kStart);
  EXPECT_EQ(cache.Fetch("k"), "v");
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST(PageAddBlockDeathTest, ALastBlockHasNoneBehindIt) {
  const auto spoil = [] {
    const QuietCache cache({.region_size = 6});
    cache.Store("a", "1");
    cache.Block("a")->b_next = cache.Block("a");
    qxcache::AddFreePage(cache.get(), qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), FALSE, TRUE);
    cache.Store("b", "2");
  };
  EXPECT_ASSERTION(spoil(), "dict/qxcache", "PageAddBlockUnlocked", "page->p_last->b_next == ((void *)0)");
}

TEST_F(QXCacheGetStaticTest, CopiesIntoABufferThatIsLargeEnough) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "value"));
  for (const UInt room : {5u, 6u, 10u}) {
    char buffer[11] = "..........";
    UInt size = 99;
    EXPECT_TRUE(QXCacheGetStatic(cache.get(), Bytes("k"), buffer, room, &size));
    EXPECT_EQ(size, 5u);
    EXPECT_STREQ(buffer, "value.....");
  }
}

TEST_F(QXCacheGetStaticTest, TellsTheSizeOfAValueThatDoesNotFit) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "value"));
  for (const UInt room : {0u, 4u}) {
    char buffer[6] = ".....";
    UInt size = 99;
    EXPECT_FALSE(QXCacheGetStatic(cache.get(), Bytes("k"), buffer, room, &size));
    EXPECT_EQ(size, 5u);
    EXPECT_STREQ(buffer, ".....");
  }
}

TEST_F(QXCacheGetStaticTest, ANullBufferAsksForTheSize) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "value"));
  UInt size = 99;
  EXPECT_FALSE(QXCacheGetStatic(cache.get(), Bytes("k"), nullptr, 100, &size));
  EXPECT_EQ(size, 5u);
}

TEST_F(QXCacheGetStaticTest, AnEmptyValueIsThere) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", ""));
  UInt size = 99;
  EXPECT_TRUE(QXCacheGetStatic(cache.get(), Bytes("k"), nullptr, 0, &size));
  EXPECT_EQ(size, 0u);
}

TEST_F(QXCacheGetStaticTest, WhatIsNotThereHasSizeZero) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("expired", "value", kStart));
  char buffer[6] = ".....";
  for (const char* key : {"absent", "expired"}) {
    UInt size = 99;
    EXPECT_FALSE(QXCacheGetStatic(cache.get(), Bytes(key), buffer, 5, &size));
    EXPECT_EQ(size, 0u);
  }
  UInt size = 99;
  EXPECT_FALSE(QXCacheGetStatic(cache.get(), nullptr, buffer, 5, &size));
  EXPECT_EQ(size, 0u);
  EXPECT_STREQ(buffer, ".....");
}

TEST_F(QXCacheGetStaticTest, RecordsTheAccess) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "value"));
  At(kStart + 30);
  char buffer[5];
  UInt size;
  ASSERT_TRUE(QXCacheGetStatic(cache.get(), Bytes("k"), buffer, 5, &size));
  EXPECT_EQ(cache.Block("k")->b_accessed, kStart + 30);
  EXPECT_EQ(cache.Block("k")->b_created, kStart);
}

TEST_F(QXCacheGetStaticTest, RecordsTheAccessOfAValueThatDidNotFitButLeavesTheHistogram) {
  const QuietCache cache;
  At(kStart - 2500);  // the clock was set back: the store falls into an older bucket
  ASSERT_TRUE(cache.Store("k", "value"));
  EXPECT_EQ(cache->c_age_histogram[2], 1u);
  At(kStart + 30);
  UInt size;
  ASSERT_FALSE(QXCacheGetStatic(cache.get(), Bytes("k"), nullptr, 0, &size));
  EXPECT_EQ(cache.Block("k")->b_accessed, kStart + 30);
  EXPECT_EQ(cache->c_age_histogram[2], 1u);
  EXPECT_EQ(cache->c_age_histogram[0], 0u);
}

TEST_F(QXCacheGetStaticTest, RecordsNoAccessOfWhatHasExpired) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "value", kStart + 5));
  At(kStart + 5);
  UInt size;
  ASSERT_FALSE(QXCacheGetStatic(cache.get(), Bytes("k"), nullptr, 0, &size));
  EXPECT_EQ(cache.Block("k")->b_accessed, kStart);
}

TEST(QXCacheGetStaticDeathTest, NeedsAPlaceForTheSize) {
  EXPECT_ASSERTION(
      {
        const QuietCache cache;
        QXCacheGetStatic(cache.get(), Bytes("k"), nullptr, 0, nullptr);
      },
      "dict/qxcache", "QXCacheGetStatic", "dataSize != ((void *)0)");
}

TEST(QXCacheGetDynamicDeathTest, NeedsAnArray) {
  EXPECT_ASSERTION(
      {
        const QuietCache cache;
        QXCacheGetDynamic(cache.get(), Bytes("k"), nullptr);
      },
      "dict/qxcache", "QXCacheGetDynamic", "buffer != ((void *)0)");
}

TEST_F(QXCacheGetDynamicTest, AppendsToWhatIsThere) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("a", "one"));
  ASSERT_TRUE(cache.Store("b", "two!"));
  UByteArray array;
  ArrayInit_(&array.a);
  EXPECT_TRUE(QXCacheGetDynamic(cache.get(), Bytes("a"), &array));
  EXPECT_TRUE(QXCacheGetDynamic(cache.get(), Bytes("b"), &array));
  EXPECT_FALSE(QXCacheGetDynamic(cache.get(), Bytes("c"), &array));
  EXPECT_FALSE(QXCacheGetDynamic(cache.get(), nullptr, &array));
  EXPECT_TRUE(QXCacheGetDynamic(cache.get(), Bytes("a"), &array));
  EXPECT_EQ(Text(array), "onetwo!one");
  EXPECT_GE(array.t.capacity, array.t.length);
  ArrayFree_(&array.a, "tests", __LINE__);
}

TEST_F(QXCacheGetDynamicTest, GrowsOnlyWhenTheCapacityIsShort) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "12345"));
  UByteArray array;
  ArrayInit_(&array.a);
  ArrayGrowExact_(&array.a, 10, 1, "tests", __LINE__);
  const UByte* const elements = array.t.elts;
  EXPECT_TRUE(QXCacheGetDynamic(cache.get(), Bytes("k"), &array));
  EXPECT_TRUE(QXCacheGetDynamic(cache.get(), Bytes("k"), &array));
  EXPECT_EQ(array.t.elts, elements);
  EXPECT_EQ(array.t.capacity, 10u);
  EXPECT_TRUE(QXCacheGetDynamic(cache.get(), Bytes("k"), &array));
  EXPECT_GE(array.t.capacity, 15u);
  EXPECT_EQ(Text(array), "123451234512345");
  ArrayFree_(&array.a, "tests", __LINE__);
}

TEST_F(QXCacheGetDynamicTest, AnEmptyValueLeavesAnEmptyArrayEmpty) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", ""));
  UByteArray array;
  ArrayInit_(&array.a);
  EXPECT_TRUE(QXCacheGetDynamic(cache.get(), Bytes("k"), &array));
  EXPECT_EQ(array.t.length, 0u);
  ArrayFree_(&array.a, "tests", __LINE__);
}

TEST_F(QXCacheGetDynamicTest, AnArrayThatCannotHoldMoreStaysAsItWas) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "12345"));
  for (const UInt length : {2147483643u, 2147483647u, 4294967295u}) {
    UByte here[1] = {'.'};
    UByteArray array;
    array.t.elts = here;  // a length that no memory stands behind: nothing may be touched
    array.t.length = length;
    array.t.capacity = length;
    EXPECT_FALSE(QXCacheGetDynamic(cache.get(), Bytes("k"), &array));
    EXPECT_EQ(array.t.elts, here);
    EXPECT_EQ(array.t.length, length);
    EXPECT_EQ(array.t.capacity, length);
    EXPECT_EQ(here[0], '.');
  }
}

TEST_F(QXCacheGetDynamicTest, FillsAnArrayUpToItsLastByte) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "12345"));
  void* const memory = MemoryMap_(2147483648, "tests", __LINE__);
  ASSERT_NE(memory, nullptr);
  UByteArray array;
  array.t.elts = static_cast<UByte*>(memory);
  array.t.length = 2147483642;
  array.t.capacity = 2147483647;
  EXPECT_TRUE(QXCacheGetDynamic(cache.get(), Bytes("k"), &array));
  EXPECT_EQ(array.t.length, 2147483647u);
  EXPECT_EQ(std::memcmp(array.t.elts + 2147483642, "12345\0", 6), 0);
  MemoryUnmap_(memory, 2147483648, "tests", __LINE__);
}

TEST_F(QXCacheGetDynamicTest, MovesTheObjectToTheYoungestBucket) {
  const QuietCache cache;
  At(kStart - 2500);
  ASSERT_TRUE(cache.Store("k", "value"));
  At(kStart + 30);
  EXPECT_EQ(cache.Fetch("k"), "value");
  EXPECT_EQ(cache->c_age_histogram[2], 0u);
  EXPECT_EQ(cache->c_age_histogram[0], 1u);
  EXPECT_EQ(cache.Block("k")->b_accessed, kStart + 30);
}

TEST_F(CacheHistogram, BucketsReachBackFromTheCreation) {
  const QuietCache cache({.generation = 1000});
  const auto bucket = [&cache](ULong time) { return qxcache::GetHistogramIndex(cache.get(), time); };
  EXPECT_EQ(bucket(ULONG_MAX), 0);
  EXPECT_EQ(bucket(kStart + 1), 0);
  EXPECT_EQ(bucket(kStart), 0);
  EXPECT_EQ(bucket(kStart - 999), 0);
  EXPECT_EQ(bucket(kStart - 1000), 1);
  EXPECT_EQ(bucket(kStart - 1999), 1);
  EXPECT_EQ(bucket(kStart - 99000), 99);
  EXPECT_EQ(bucket(kStart - 99999), 99);
  EXPECT_EQ(bucket(kStart - 100000), -1);  // there is no bucket 100
  EXPECT_EQ(bucket(kStart - 100001), -1);
  EXPECT_EQ(bucket(0), -1);
}

TEST_F(CacheHistogram, AClockThatHasJustBegunAndTheLongestGenerationDoNotWrap) {
  At(50);
  const QuietCache cache({.generation = 4294967295});
  EXPECT_EQ(qxcache::GetHistogramIndex(cache.get(), 0), 0);
  EXPECT_EQ(qxcache::GetHistogramIndex(cache.get(), 49), 0);
  At(kStart);
  EXPECT_EQ(qxcache::GetHistogramIndex(cache.get(), kStart), 0);
  EXPECT_TRUE(cache.Store("k", "v"));
  EXPECT_EQ(cache.Fetch("k"), "v");
}

TEST_F(CacheHistogram, AStoreBeforeTheHistogramIsCountedInNoBucket) {
  const QuietCache cache({.generation = 1000});
  At(kStart - 100001);
  ASSERT_TRUE(cache.Store("k", "v"));
  for (const UInt bucket : cache->c_age_histogram) EXPECT_EQ(bucket, 0u);
  EXPECT_EQ(cache.Objects(), 1u);
  At(kStart);
  EXPECT_EQ(cache.Fetch("k"), "v");
  EXPECT_EQ(cache->c_age_histogram[0], 1u);
}

TEST_F(CacheHistogram, UpdatesMoveOneCountAndNeverBelowZero) {
  const QuietCache cache({.generation = 1000});
  UInt* const buckets = cache->c_age_histogram;
  buckets[3] = 2;
  qxcache::UpdateHistogram(cache.get(), kStart - 3500, kStart - 7500);
  EXPECT_EQ(buckets[3], 1u);
  EXPECT_EQ(buckets[7], 1u);
  qxcache::UpdateHistogram(cache.get(), kStart - 3500, kStart - 3600);
  EXPECT_EQ(buckets[3], 1u);
  qxcache::UpdateHistogram(cache.get(), kStart - 5500, kStart);
  EXPECT_EQ(buckets[5], 0u);
  EXPECT_EQ(buckets[0], 1u);
  qxcache::UpdateHistogram(cache.get(), kStart, kStart - 200000);
  EXPECT_EQ(buckets[0], 0u);
  qxcache::UpdateHistogram(cache.get(), kStart - 200000, kStart);
  EXPECT_EQ(buckets[0], 1u);
}

// Lets a fetch look the key up, holds it at the door of the block's page, does `meanwhile`, lets it in, and returns
// what it found.
std::string FetchAcross(const QuietCache& cache, const std::string& key, const std::function<void()>& meanwhile) {
  Mutex* const door = &cache.Block(key)->b_page->p_mutex;
  pthread_mutex_lock(door);
  std::string found;
  std::thread fetcher([&cache, &key, &found] { found = cache.Fetch(key); });
  // 2: the mutex is held and somebody waits for it.
  while (__atomic_load_n(&door->__data.__lock, __ATOMIC_RELAXED) != 2) std::this_thread::yield();
  meanwhile();
  pthread_mutex_unlock(door);
  fetcher.join();
  return found;
}

TEST_F(CacheFetchRace, NothingHappening) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "value"));
  EXPECT_EQ(FetchAcross(cache, "k", [] {}), "value");
}

TEST_F(CacheFetchRace, AnotherKeyChanging) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("other", "1"));
  ASSERT_TRUE(cache.Store("k", "value"));
  EXPECT_EQ(FetchAcross(cache, "k", [&cache] { ASSERT_TRUE(cache.Store("other", "2")); }), "value");
}

TEST_F(CacheFetchRace, TheKeyStoredAnew) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "first"));
  EXPECT_EQ(FetchAcross(cache, "k", [&cache] { ASSERT_TRUE(cache.Store("k", "second")); }), "second");
}

// What the collector does to a page, but with its mutex held by the test. Then other bytes come to lie where the block
// was: here a whole forged block header, the right key behind it, and a page that is no page.
TEST_F(CacheFetchRace, TheBlockDroppedAndAForgedOneInItsPlace) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "value"));
  CacheBlock* const block = cache.Block("k");
  Page* const page = block->b_page;
  EXPECT_EQ(FetchAcross(cache, "k",
                        [&cache, block, page] {
                          qxcache::IndexRemove(cache.get(), block->b_key);
                          page->p_alloc_ptr = page->p_copy_ptr;
                          CacheBlock forged = *block;
                          forged.b_size = 100000;
                          forged.b_page = reinterpret_cast<Page*>(64);
                          std::memcpy(static_cast<void*>(block), &forged, sizeof forged);
                          cache->c_nb_objects = 0;
                          cache->c_total_size = 0;
                        }),
            "(none)");
}

TEST_F(CacheFetchRace, TheBlockMovedAndItsPlaceFilledWithOtherBytes) {
  const QuietCache cache({.region_size = 8, .page_size = 1024});
  ASSERT_TRUE(cache.Store("k", "value"));
  CacheBlock* const block = cache.Block("k");
  Page* const page = block->b_page;
  EXPECT_EQ(FetchAcross(cache, "k",
                        [&cache, block, page] {
                          Page* const to = cache.PageAt(5);
                          CacheBlock* const copy = reinterpret_cast<CacheBlock*>(to->p_alloc_ptr);
                          std::memcpy(static_cast<void*>(copy), block, sizeof(CacheBlock) + block->b_size);
                          copy->b_page = to;
                          to->p_last = copy;
                          to->p_alloc_ptr += 64;
                          qxcache::IndexInsert(cache.get(), block->b_key, copy);
                          page->p_alloc_ptr = page->p_copy_ptr;
                          std::memset(page->p_copy_ptr, 0xAA, 1024 - 88);
                          page->p_last = nullptr;
                        }),
            "value");
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

}  // namespace
