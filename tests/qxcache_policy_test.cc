// Additions: policies, removal, reading in place, statistics.

#include "dict/qxcache.h"

#include <atomic>
#include <functional>
#include <thread>

#include "dict/qxcache_internal.h"
#include "support/cache_front.h"
#include "support/death.h"
#include "support/faults.h"
#include "support/quiet_cache.h"

namespace {

using qxcache::Collector;
using support::Bytes;
using support::FreeList;
using support::FullList;
using support::IsDead;
using support::kNever;
using support::Numbered;
using support::QuietCache;

constexpr ULong kStart = 1000000000;  // the clock of these tests

class PolicyTest : public testing::Test {
 protected:
  PolicyTest() { At(kStart); }
  ~PolicyTest() override { support::faults::ClockReal(); }
  static void At(ULong time) { support::faults::ClockSet(time); }
};

using NewestWins = PolicyTest;
using KeepPages = PolicyTest;
using TrueAge = PolicyTest;
using QXCacheRemoveTest = PolicyTest;
using QXCacheReadTest = PolicyTest;
using QXCacheStatsTest = PolicyTest;

// Stores into a chosen page of the cache, at a chosen time.
CacheBlock* Put(const QuietCache& cache, Page* page, const std::string& key, const std::string& value,
                ULong accessed = kStart, ULong expires = kNever) {
  Boolean too_large;
  const FPrint fingerprint = Fingerprint(Bytes(key), static_cast<UInt>(key.size()));
  support::faults::ClockSet(accessed);
  const bool written =
      qxcache::PageWriteBlock(cache.get(), page, fingerprint, {Bytes(key), key.size() + 1}, Bytes(value),
                              static_cast<UInt>(value.size()), expires, &too_large) != FALSE;
  support::faults::ClockSet(kStart);
  return written ? page->p_last : nullptr;
}

// Moves every page to the full list, the first of the region at the tail, where the collector begins.
void FillUp(const QuietCache& cache) {
  while (Page* const page = qxcache::GetFreePage(cache.get(), FALSE, TRUE, TRUE)) {
    qxcache::AddFullPage(cache.get(), page, TRUE, TRUE);
  }
}

TEST(QXCachePolicy, FlagsKeepTheirValues) {  // programs are compiled with them
  EXPECT_EQ(int{QX_CACHE_NEWEST_WINS}, 1);
  EXPECT_EQ(int{QX_CACHE_KEEP_PAGES}, 2);
  EXPECT_EQ(int{QX_CACHE_TRUE_AGE}, 4);
}

TEST(QXCacheNewWithPolicy, UnknownFlagsGiveNull) {
  for (const UInt policy : {8u, 16u, 0x80000000u, 0xFFFFFFFFu, 9u}) {
    EXPECT_EQ(QXCacheNewWithPolicy(8, 1024, 1, 8, 16, 1000, 8192, policy), nullptr) << policy;
  }
  EXPECT_EQ(QXCacheNewWithPolicy(0, 1024, 1, 8, 16, 1000, 8192, 0), nullptr);
}

TEST(QXCacheNewWithPolicy, EveryCombinationWorks) {
  for (UInt policy = 0; policy < 8; policy++) {
    Cache* const cache = QXCacheNewWithPolicy(8, 1024, 1, 8, 16, 1000, 8192, policy);
    ASSERT_NE(cache, nullptr);
    EXPECT_TRUE(QXCacheStore(cache, Bytes("k"), Bytes("v"), 1, kNever));
    UInt size = 0;
    char value;
    EXPECT_TRUE(QXCacheGetStatic(cache, Bytes("k"), &value, 1, &size));
    EXPECT_EQ(cache->c_extra->policy, policy);
    QXCacheDelete(cache);
  }
}

constexpr support::CacheParameters kNewest = {.page_size = 1024, .policy = QX_CACHE_NEWEST_WINS};

TEST_F(NewestWins, AHiddenBlockIsDroppedAndTheNewerStays) {
  const QuietCache cache(kNewest);
  Put(cache, cache.PageAt(0), "k", "older");
  Put(cache, cache.PageAt(1), "k", "newer");
  qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(2));
  EXPECT_EQ(cache.Fetch("k"), "newer");
  EXPECT_EQ(cache.Objects(), 1u);
  EXPECT_EQ(cache.PageAt(2)->p_last, nullptr);  // nothing was copied
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(NewestWins, AnIdleHiddenBlockLeavesTheNewerOnesEntry) {
  const QuietCache cache(kNewest);
  Put(cache, cache.PageAt(0), "k", "older", kStart - 1000);
  Put(cache, cache.PageAt(1), "k", "newer");
  qxcache::PageCopyBlocks(cache.get(), kStart - 500, cache.PageAt(0), cache.PageAt(2));
  EXPECT_EQ(cache.Fetch("k"), "newer");
  EXPECT_EQ(cache.Objects(), 1u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(NewestWins, AnEmergencyLeavesTheNewerOnesEntry) {
  const QuietCache cache(kNewest);
  Put(cache, cache.PageAt(0), "k", "older");
  Put(cache, cache.PageAt(1), "k", "newer");
  qxcache::PageFreeBlocks(cache.get(), cache.PageAt(0));
  EXPECT_EQ(cache.Fetch("k"), "newer");
  qxcache::PageFreeBlocks(cache.get(), cache.PageAt(1));
  EXPECT_EQ(cache.Fetch("k"), "(none)");
  EXPECT_EQ(cache.Objects(), 0u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(NewestWins, WhatTheIndexNamesIsKeptAndDroppedAsEver) {
  const QuietCache cache(kNewest);
  Put(cache, cache.PageAt(0), "kept", "1");
  Put(cache, cache.PageAt(0), "idle", "2", kStart - 1000);
  Put(cache, cache.PageAt(0), "expired", "3", kStart, kStart);
  qxcache::PageCopyBlocks(cache.get(), kStart - 500, cache.PageAt(0), cache.PageAt(2));
  EXPECT_EQ(cache.Fetch("kept"), "1");
  EXPECT_EQ(cache.Block("kept")->b_page, cache.PageAt(2));
  EXPECT_EQ(QXAVLLDictSize(cache->c_dict), 1u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(NewestWins, TheNewestOfOnePageIsTheOneThatMoves) {
  const QuietCache cache(kNewest);
  for (int i = 0; i < 5; i++) Put(cache, cache.PageAt(0), "k", Numbered("value", i));
  qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(1));
  EXPECT_EQ(cache.Fetch("k"), "value4");
  EXPECT_EQ(support::BlocksOf(cache.PageAt(1)).size(), 1u);
  EXPECT_EQ(cache.Objects(), 1u);
}

// A store over the key comes between the collector's copy and its word to the index.
TEST_F(NewestWins, ACopyOfWhatWasHiddenMeanwhileIsNotNamed) {
  const QuietCache cache(kNewest);
  CacheBlock* const older = Put(cache, cache.PageAt(0), "k", "older");
  CacheBlock* const newer = Put(cache, cache.PageAt(1), "k", "newer");
  CacheBlock* const copy = Put(cache, cache.PageAt(2), "other", "stands for a copy");
  qxcache::IndexMove(cache.get(), older, copy);
  EXPECT_EQ(cache.Block("k"), newer);
  qxcache::IndexMove(cache.get(), newer, copy);
  EXPECT_EQ(cache.Block("k"), copy);
  qxcache::IndexMove(cache.get(), copy, newer);
}

constexpr support::CacheParameters kTwenty = {.region_size = 20, .page_size = 1024, .low = 30.0, .high = 60.0};

TEST_F(KeepPages, AnEmergencyPutsItsLastPageBackAtTheTail) {
  support::CacheParameters parameters = kTwenty;
  parameters.policy = QX_CACHE_KEEP_PAGES;
  const QuietCache cache(parameters);
  for (UInt i = 0; i < 20; i++) Put(cache, cache.PageAt(i), Numbered("k", i), std::string(400, 'x'));
  FillUp(cache);
  Collector collector{.idle = false};
  qxcache::GCCollect(cache.get(), &collector);
  EXPECT_EQ(cache->c_nb_free_pages, 7u);
  EXPECT_EQ(cache->c_nb_full_pages, 13u);
  EXPECT_EQ(cache->c_full_tail, cache.PageAt(7));
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
  EXPECT_EQ(cache.Fetch("k7"), std::string(400, 'x'));
}

TEST_F(KeepPages, AHundredEmergenciesLoseNoPage) {
  support::CacheParameters parameters = kTwenty;
  parameters.policy = QX_CACHE_KEEP_PAGES;
  const QuietCache cache(parameters);
  Collector collector{.idle = false};
  for (int i = 0; i < 100; i++) {
    FillUp(cache);
    qxcache::GCCollect(cache.get(), &collector);
  }
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
  QXCacheStatistics statistics;
  QXCacheStats(cache.get(), &statistics);
  EXPECT_EQ(statistics.s_emergencies, 100u);
  EXPECT_EQ(statistics.s_lost_pages, 0u);
}

TEST_F(KeepPages, WithoutItEachEmergencyLosesOne) {
  const QuietCache cache(kTwenty);
  Collector collector{.idle = false};
  for (size_t i = 1; i <= 3; i++) {
    FillUp(cache);
    qxcache::GCCollect(cache.get(), &collector);
    EXPECT_EQ(support::CheckCache(cache.get()), i);
    QXCacheStatistics statistics;
    QXCacheStats(cache.get(), &statistics);
    EXPECT_EQ(statistics.s_emergencies, i);
    EXPECT_EQ(statistics.s_lost_pages, i);
    EXPECT_EQ(statistics.s_free_pages + statistics.s_full_pages + statistics.s_lost_pages, 20u);
  }
}

constexpr support::CacheParameters kAged = {.high = 16.0, .generation = 1000, .policy = QX_CACHE_TRUE_AGE};

// The non-zero buckets as "index:count" words.
std::string Buckets(const QuietCache& cache) {
  std::string text;
  for (int i = 0; i < QX_CACHE_BUCKETS; i++) {
    if (cache->c_age_histogram[i] == 0) continue;
    text += (text.empty() ? "" : " ") + std::to_string(i) + ":" + std::to_string(cache->c_age_histogram[i]);
  }
  return text;
}

TEST_F(TrueAge, TheReferenceTimeIsTheEndOfThePresentGeneration) {
  const QuietCache cache(kAged);
  EXPECT_EQ(cache->c_histo_updated, kStart);
  struct Case {
    ULong after, reference;
  };
  for (const Case& c : {Case{0, 0}, {1, 1000}, {1000, 1000}, {1001, 2000}, {5000, 5000}, {250001, 251000}}) {
    At(kStart + c.after);
    qxcache::ShiftHistogram(cache.get());
    EXPECT_EQ(cache->c_histo_updated, kStart + c.reference);
  }
}

TEST_F(TrueAge, AShiftMovesByTheGenerationsSinceTheLastOneAndOnlyOnce) {
  const QuietCache cache(kAged);
  At(kStart + 1);
  ASSERT_TRUE(cache.Store("a", "1"));
  EXPECT_EQ(Buckets(cache), "0:1");
  At(kStart + 1000);
  qxcache::ShiftHistogram(cache.get());
  EXPECT_EQ(Buckets(cache), "0:1");
  At(kStart + 1001);
  for (int i = 0; i < 3; i++) {
    qxcache::ShiftHistogram(cache.get());
    EXPECT_EQ(Buckets(cache), "1:1");
  }
  At(kStart + 5001);
  ASSERT_TRUE(cache.Store("b", "2"));  // a store shifts too, before it counts
  EXPECT_EQ(Buckets(cache), "0:1 5:1");
  At(kStart + 99001);
  qxcache::ShiftHistogram(cache.get());
  EXPECT_EQ(Buckets(cache), "94:1 99:1");
  At(kStart + 100001);
  qxcache::ShiftHistogram(cache.get());
  EXPECT_EQ(Buckets(cache), "95:1");  // a hundred generations have no bucket
}

TEST_F(TrueAge, AFetchMovesTheObjectToTheYoungestBucket) {
  const QuietCache cache(kAged);
  At(kStart + 500);
  ASSERT_TRUE(cache.Store("a", "1"));
  ASSERT_TRUE(cache.Store("b", "2"));
  At(kStart + 900);
  EXPECT_EQ(cache.Fetch("a"), "1");
  EXPECT_EQ(Buckets(cache), "0:2");
  At(kStart + 4200);
  EXPECT_EQ(cache.Fetch("a"), "1");
  EXPECT_EQ(Buckets(cache), "0:1 4:1");
  UInt size;
  EXPECT_FALSE(QXCacheGetStatic(cache.get(), Bytes("b"), nullptr, 0, &size));  // asked for, too large: used
  EXPECT_EQ(Buckets(cache), "0:2");
}

TEST_F(TrueAge, ADroppedObjectLeavesItsBucket) {
  const QuietCache cache(kAged);
  Put(cache, cache.PageAt(0), "a", "1", kStart + 500);
  Put(cache, cache.PageAt(1), "b", "2", kStart + 3500);
  EXPECT_EQ(Buckets(cache), "0:1 3:1");
  At(kStart + 3500);
  qxcache::PageFreeBlocks(cache.get(), cache.PageAt(0));
  EXPECT_EQ(Buckets(cache), "0:1");
  qxcache::PageFreeBlocks(cache.get(), cache.PageAt(1));
  EXPECT_EQ(Buckets(cache), "");
}

TEST_F(TrueAge, TheLimitFallsBetweenTwoBuckets) {
  support::CacheParameters parameters = kAged;
  parameters.region_size = 12;
  const QuietCache cache(parameters);
  // 10 objects in each of 10 generations, a page each. The two oldest are what 16 percent allow.
  for (ULong generation = 0; generation < 10; generation++) {
    At(kStart + generation * 1000 + 700);
    for (int i = 0; i < 10; i++) {
      Put(cache, cache.PageAt(static_cast<UInt>(generation)), Numbered(Numbered("k", generation) + "-", i), "",
          kStart + generation * 1000 + 700);
    }
  }
  At(kStart + 9800);
  EXPECT_EQ(Buckets(cache), "0:10 1:10 2:10 3:10 4:10 5:10 6:10 7:10 8:10 9:10");
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), kStart + 10000 - 8000);
  const ULong limit = qxcache::GCGetMinTime(cache.get());
  UInt dropped = 0;
  for (UInt i = 0; i < 3; i++) {
    const UInt before = cache.Objects();
    qxcache::PageCopyBlocks(cache.get(), limit, cache.PageAt(i), cache.PageAt(11));
    dropped += before - cache.Objects();
  }
  EXPECT_EQ(dropped, 20u);
  EXPECT_EQ(Buckets(cache), "0:10 1:10 2:10 3:10 4:10 5:10 6:10 7:10");
}

TEST_F(TrueAge, WhereAllIsOfOneGenerationAllMayGo) {
  const QuietCache cache(kAged);
  At(kStart + 10);
  for (int i = 0; i < 7; i++) ASSERT_TRUE(cache.Store(Numbered("k", i), "v"));
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), kStart + 1000);
}

TEST_F(TrueAge, AClockSetBackTakesTheReferenceTimeBackAndKeepsTheCounts) {
  const QuietCache cache(kAged);
  At(kStart + 500500);
  ASSERT_TRUE(cache.Store("a", "1"));
  EXPECT_EQ(cache->c_histo_updated, kStart + 501000);
  At(kStart + 100500);
  ASSERT_TRUE(cache.Store("b", "2"));
  EXPECT_EQ(cache->c_histo_updated, kStart + 101000);
  EXPECT_EQ(Buckets(cache), "0:2");
  At(kStart - 70500);  // before the creation
  ASSERT_TRUE(cache.Store("c", "3"));
  EXPECT_EQ(cache->c_histo_updated, kStart - 70000);
  EXPECT_EQ(cache.Fetch("a"), "1");
  EXPECT_EQ(Buckets(cache), "0:3");
  At(kStart + 100500);
  EXPECT_EQ(cache.Fetch("b"), "2");
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(TrueAge, TheLongestGenerationDoesNotWrap) {
  const QuietCache cache({.generation = 4294967295, .policy = QX_CACHE_TRUE_AGE});
  At(kStart + 4294967295ul * 3 + 1);
  ASSERT_TRUE(cache.Store("a", "1"));
  EXPECT_EQ(cache->c_histo_updated, kStart + 4294967295ul * 4);
  EXPECT_EQ(Buckets(cache), "0:1");
  At(ULONG_MAX - 5);
  EXPECT_EQ(cache.Fetch("a"), "1");
}

TEST_F(TrueAge, StoresOfValuesThatLiveForEverAreServed) {
  const auto refused_of = [](UInt policy) {
    const QuietCache cache(
        {.region_size = 64, .page_size = 1024, .low = 20.0, .high = 40.0, .generation = 10, .policy = policy});
    Collector collector;
    int refused = 0;
    for (int i = 0; i < 3000; i++) {
      At(kStart + static_cast<ULong>(i));
      if (!cache.Store(Numbered("k", i), std::string(300, 'x'))) refused++;
      qxcache::GCCollect(cache.get(), &collector);
    }
    return refused;
  };
  EXPECT_LT(refused_of(QX_CACHE_TRUE_AGE), 10);  // all in the first fill, at whose end all pages get full at once
  EXPECT_GT(refused_of(0), 1000);                // nothing is idle for a hundred generations: the cache is clogged
}

TEST_F(QXCacheRemoveTest, WhatWasRemovedIsGone) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("a", "1"));
  ASSERT_TRUE(cache.Store("b", "2"));
  const CacheBlock* const block = cache.Block("a");
  EXPECT_TRUE(QXCacheRemove(cache.get(), Bytes("a")));
  EXPECT_EQ(cache.Fetch("a"), "(none)");
  EXPECT_EQ(cache.Fetch("b"), "2");
  EXPECT_TRUE(IsDead(block));
  EXPECT_EQ(cache.Objects(), 1u);
  EXPECT_EQ(cache->c_total_size, 3u);
  EXPECT_EQ(cache->c_age_histogram[0], 1u);
  EXPECT_FALSE(QXCacheRemove(cache.get(), Bytes("a")));
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(QXCacheRemoveTest, AbsentAndNullKeysAreNotThere) {
  const QuietCache cache;
  EXPECT_FALSE(QXCacheRemove(cache.get(), Bytes("absent")));
  EXPECT_FALSE(QXCacheRemove(cache.get(), nullptr));
  EXPECT_FALSE(QXCacheRemove(cache.get(), Bytes("")));
  ASSERT_TRUE(cache.Store("", "of the empty key"));
  EXPECT_TRUE(QXCacheRemove(cache.get(), Bytes("")));
}

TEST_F(QXCacheRemoveTest, AnExpiredValueIsRemovedButWasNotThere) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "v", kStart + 5));
  At(kStart + 5);
  EXPECT_FALSE(QXCacheRemove(cache.get(), Bytes("k")));
  EXPECT_EQ(cache.Objects(), 0u);
  At(kStart + 4);
  EXPECT_EQ(cache.Fetch("k"), "(none)");
}

TEST_F(QXCacheRemoveTest, NoOlderCopyComesBack) {
  const QuietCache cache({.page_size = 1024});
  Put(cache, cache.PageAt(0), "k", "oldest");
  Put(cache, cache.PageAt(1), "k", "older");
  Put(cache, cache.PageAt(2), "k", "newest");
  EXPECT_TRUE(QXCacheRemove(cache.get(), Bytes("k")));
  EXPECT_EQ(cache.Objects(), 2u);  // the hidden ones, until they are met
  for (UInt i = 0; i < 3; i++) {
    qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(i), cache.PageAt(7));
    EXPECT_EQ(cache.Fetch("k"), "(none)");
  }
  EXPECT_EQ(cache.Objects(), 0u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(QXCacheRemoveTest, AStoreAfterItIsThereToStay) {
  const QuietCache cache({.page_size = 1024});
  Put(cache, cache.PageAt(0), "k", "older");
  EXPECT_TRUE(QXCacheRemove(cache.get(), Bytes("k")));
  Put(cache, cache.PageAt(1), "k", "newer");
  qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(2));
  qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(1), cache.PageAt(2));
  EXPECT_EQ(cache.Fetch("k"), "newer");
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(QXCacheRemoveTest, ARemovalOfAnAbsentKeyKeepsItsHiddenCopiesHiddenToo) {
  const QuietCache cache({.page_size = 1024});
  Put(cache, cache.PageAt(0), "k", "older");
  Put(cache, cache.PageAt(1), "k", "newer", kStart - 1000);
  qxcache::PageCopyBlocks(cache.get(), kStart - 500, cache.PageAt(1), cache.PageAt(2));  // takes the entry along
  EXPECT_FALSE(QXCacheRemove(cache.get(), Bytes("k")));
  qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(2));
  EXPECT_EQ(cache.Fetch("k"), "(none)");
}

TEST_F(QXCacheRemoveTest, ADeadBlockIsSkippedByTheCollectorAndInAnEmergency) {
  const QuietCache cache({.page_size = 1024});
  for (const UInt page : {0u, 1u}) {
    Put(cache, cache.PageAt(page), Numbered("a", page), "1");
    Put(cache, cache.PageAt(page), Numbered("b", page), "2");
    EXPECT_TRUE(QXCacheRemove(cache.get(), Bytes(Numbered("a", page))));
  }
  EXPECT_TRUE(qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(2)).full_is_empty);
  qxcache::PageFreeBlocks(cache.get(), cache.PageAt(1));
  EXPECT_EQ(cache.Fetch("b0"), "2");
  EXPECT_EQ(cache.Objects(), 1u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST(QXCacheRemoveDeathTest, RemovedObjectsWereCounted) {
  EXPECT_ASSERTION(
      {
        const QuietCache cache;
        cache.Store("k", "value");
        cache->c_nb_objects = 0;
        QXCacheRemove(cache.get(), Bytes("k"));
      },
      "dict/qxcache", "QXCacheRemove", "cache->c_nb_objects > 0 && cache->c_total_size >= block->b_size");
}

// Lets an operation look the key up, holds it at the door of the block's page, does `meanwhile`, and lets it in.
void Across(const QuietCache& cache, const std::string& key, const std::function<void()>& operation,
            const std::function<void()>& meanwhile) {
  Mutex* const door = &cache.Block(key)->b_page->p_mutex;
  pthread_mutex_lock(door);
  std::thread thread(operation);
  // 2: the mutex is held and somebody waits for it.
  while (__atomic_load_n(&door->__data.__lock, __ATOMIC_RELAXED) != 2) std::this_thread::yield();
  meanwhile();
  pthread_mutex_unlock(door);
  thread.join();
}

TEST_F(QXCacheRemoveTest, AStoreInBetweenIsRemovedWithIt) {
  const QuietCache cache({.page_size = 1024});
  Put(cache, cache.PageAt(0), "k", "older");
  Boolean removed = FALSE;
  Across(
      cache, "k", [&] { removed = QXCacheRemove(cache.get(), Bytes("k")); },
      [&] { Put(cache, cache.PageAt(1), "k", "newer"); });
  EXPECT_TRUE(removed);
  EXPECT_EQ(cache.Fetch("k"), "(none)");
  EXPECT_EQ(cache.Objects(), 1u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

struct Visit {
  int calls = 0;
  std::string value = {};
  Boolean answer = TRUE;
};

Boolean Note(const UByte* value, UInt size, void* arg) {
  Visit* const visit = static_cast<Visit*>(arg);
  visit->calls++;
  visit->value.assign(reinterpret_cast<const char*>(value), size);
  return visit->answer;
}

TEST_F(QXCacheReadTest, ShowsTheValueWhereItLies) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", "value"));
  const UByte* seen = nullptr;
  const QXCacheReadFunction keep = [](const UByte* value, UInt size, void* arg) -> Boolean {
    *static_cast<const UByte**>(arg) = value;
    return size == 5 ? 7 : 0;
  };
  EXPECT_EQ(QXCacheRead(cache.get(), Bytes("k"), keep, &seen), 7);
  EXPECT_EQ(static_cast<const void*>(seen), reinterpret_cast<const UByte*>(cache.Block("k") + 1) + 2);
}

TEST_F(QXCacheReadTest, CallsNobodyWhenThereIsNothing) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("expired", "v", kStart));
  Visit visit;
  EXPECT_FALSE(QXCacheRead(cache.get(), Bytes("absent"), Note, &visit));
  EXPECT_FALSE(QXCacheRead(cache.get(), Bytes("expired"), Note, &visit));
  EXPECT_FALSE(QXCacheRead(cache.get(), nullptr, Note, &visit));
  EXPECT_EQ(visit.calls, 0);
}

TEST_F(QXCacheReadTest, AnEmptyValueIsShown) {
  const QuietCache cache;
  ASSERT_TRUE(cache.Store("k", ""));
  Visit visit;
  visit.value = "before";
  EXPECT_TRUE(QXCacheRead(cache.get(), Bytes("k"), Note, &visit));
  EXPECT_EQ(visit.calls, 1);
  EXPECT_EQ(visit.value, "");
}

TEST_F(QXCacheReadTest, WhatTheReaderDoesNotWantWasUsedAllTheSame) {
  const QuietCache cache({.generation = 1000});
  At(kStart - 2500);
  ASSERT_TRUE(cache.Store("k", "value"));
  At(kStart + 30);
  Visit visit{.answer = FALSE};
  EXPECT_FALSE(QXCacheRead(cache.get(), Bytes("k"), Note, &visit));
  EXPECT_EQ(visit.value, "value");
  EXPECT_EQ(cache.Block("k")->b_accessed, kStart + 30);
  EXPECT_EQ(cache->c_age_histogram[2], 1u);  // as with a buffer that is too small
  visit.answer = TRUE;
  At(kStart - 2400);
  EXPECT_TRUE(QXCacheRead(cache.get(), Bytes("k"), Note, &visit));
  At(kStart + 40);
  EXPECT_TRUE(QXCacheRead(cache.get(), Bytes("k"), Note, &visit));
  EXPECT_EQ(cache->c_age_histogram[0], 1u);
}

TEST_F(QXCacheReadTest, HoldsTheCollectorOffWhileItLooks) {
  const QuietCache cache({.page_size = 1024});
  Put(cache, cache.PageAt(0), "k", "value");
  struct Look {
    const QuietCache* cache;
    std::thread collector;
    bool same;
  } look = {&cache, {}, false};
  const QXCacheReadFunction slow = [](const UByte* value, UInt size, void* arg) -> Boolean {
    Look* const mine = static_cast<Look*>(arg);
    const QuietCache& c = *mine->cache;
    mine->collector = std::thread([&c] { qxcache::PageCopyBlocks(c.get(), 0, c.PageAt(0), c.PageAt(1)); });
    Mutex* const door = &c.PageAt(0)->p_mutex;
    while (__atomic_load_n(&door->__data.__lock, __ATOMIC_RELAXED) != 2) std::this_thread::yield();
    mine->same = std::string(reinterpret_cast<const char*>(value), size) == "value";
    return TRUE;
  };
  EXPECT_TRUE(QXCacheRead(cache.get(), Bytes("k"), slow, &look));
  look.collector.join();
  EXPECT_TRUE(look.same);
  EXPECT_EQ(cache.Block("k")->b_page, cache.PageAt(1));
}

TEST(QXCacheReadDeathTest, NeedsAFunction) {
  EXPECT_ASSERTION(
      {
        const QuietCache cache;
        QXCacheRead(cache.get(), Bytes("k"), nullptr, nullptr);
      },
      "dict/qxcache", "QXCacheRead", "fun != ((void *)0)");
}

TEST_F(QXCacheStatsTest, CountsWhatHappens) {
  const QuietCache cache({.region_size = 8, .page_size = 1024});
  ASSERT_TRUE(cache.Store("a", "1"));
  ASSERT_TRUE(cache.Store("b", "2"));
  ASSERT_TRUE(cache.Store("c", "3", kStart));
  EXPECT_FALSE(cache.Store("d", std::string(1024, 'x')));
  EXPECT_EQ(cache.Fetch("a"), "1");
  EXPECT_EQ(cache.Fetch("a"), "1");
  EXPECT_EQ(cache.Fetch("c"), "(none)");
  EXPECT_EQ(cache.Fetch("d"), "(none)");
  UInt size;
  EXPECT_FALSE(QXCacheGetStatic(cache.get(), Bytes("b"), nullptr, 0, &size));  // found, though it does not fit
  Visit visit{.answer = FALSE};
  EXPECT_FALSE(QXCacheRead(cache.get(), Bytes("b"), Note, &visit));
  EXPECT_TRUE(QXCacheRemove(cache.get(), Bytes("b")));
  EXPECT_FALSE(QXCacheRemove(cache.get(), Bytes("b")));
  QXCacheStatistics s;
  QXCacheStats(cache.get(), &s);
  EXPECT_EQ(s.s_hits, 4u);
  EXPECT_EQ(s.s_misses, 1u);
  EXPECT_EQ(s.s_expired, 1u);
  EXPECT_EQ(s.s_stores, 3u);
  EXPECT_EQ(s.s_refused, 1u);
  EXPECT_EQ(s.s_removed, 1u);
  EXPECT_EQ(s.s_moved, 0u);
  EXPECT_EQ(s.s_dropped, 0u);
  EXPECT_EQ(s.s_passes, 0u);
  EXPECT_EQ(s.s_emergencies, 0u);
  EXPECT_EQ(s.s_lost_pages, 0u);
  EXPECT_EQ(s.s_free_pages, 8u);
  EXPECT_EQ(s.s_full_pages, 0u);
}

TEST_F(QXCacheStatsTest, CountsTheCollectorsWork) {
  const QuietCache cache({.page_size = 1024});
  Put(cache, cache.PageAt(0), "a", "1");
  Put(cache, cache.PageAt(0), "b", "2", kStart - 1000);
  Put(cache, cache.PageAt(0), "c", "3", kStart, kStart);
  Put(cache, cache.PageAt(1), "d", "4");
  qxcache::PageCopyBlocks(cache.get(), kStart - 500, cache.PageAt(0), cache.PageAt(2));
  qxcache::PageFreeBlocks(cache.get(), cache.PageAt(1));
  QXCacheStatistics s;
  QXCacheStats(cache.get(), &s);
  EXPECT_EQ(s.s_moved, 1u);
  EXPECT_EQ(s.s_dropped, 3u);
  EXPECT_EQ(s.s_passes, 1u);
}

TEST_F(QXCacheStatsTest, ManyThreadsCountEverything) {
  const QuietCache cache({.region_size = 64, .page_size = 4096});
  ASSERT_TRUE(cache.Store("k", "v"));
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; t++) {
    threads.emplace_back([&cache] {
      for (int i = 0; i < 500; i++) {
        cache.Fetch("k");
        cache.Fetch("absent");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  QXCacheStatistics s;
  QXCacheStats(cache.get(), &s);
  EXPECT_EQ(s.s_hits, 4000u);
  EXPECT_EQ(s.s_misses, 4000u);
}

TEST(QXCacheStatsDeathTest, NeedsAPlace) {
  EXPECT_ASSERTION(
      {
        const QuietCache cache;
        QXCacheStats(cache.get(), nullptr);
      },
      "dict/qxcache", "QXCacheStats", "statistics != ((void *)0)");
}

}  // namespace
