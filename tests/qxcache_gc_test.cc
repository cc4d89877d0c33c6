// The collector, step by step and then as a thread.

#include <dlfcn.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <numeric>
#include <thread>

#include "dict/qxcache.h"
#include "dict/qxcache_internal.h"
#include "support/death.h"
#include "support/faults.h"
#include "support/quiet_cache.h"

namespace {

using qxcache::Collector;
using qxcache::CopyOutcome;
using support::BlocksOf;
using support::Bytes;
using support::FreeList;
using support::FullList;
using support::IsDead;
using support::kNever;
using support::Numbered;
using support::QuietCache;

constexpr ULong kStart = 1000000000;  // the clock of these tests

std::atomic<long> rests{0};         // timed waits so far
std::atomic<int> rest_length{0};    // milliseconds that the last one asked for
std::atomic<bool> no_sleep{false};  // they return at once

}  // namespace

// In front of the base library's, as in support/faults.cc. Only the collector waits for a time.
extern "C" Boolean ConditionTimedWait(Condition* condition, Mutex* mutex, int milliseconds) {
  static const auto real =
      reinterpret_cast<Boolean (*)(Condition*, Mutex*, int)>(dlsym(RTLD_NEXT, "ConditionTimedWait"));
  rests++;
  rest_length = milliseconds;
  return no_sleep ? FALSE : real(condition, mutex, milliseconds);
}

namespace {

class CollectorAt : public testing::Test {
 protected:
  CollectorAt() { At(kStart); }
  ~CollectorAt() override { support::faults::ClockReal(); }
  static void At(ULong time) { support::faults::ClockSet(time); }
};

using GCThreshold = CollectorAt;
using GCGetMinTime = CollectorAt;
using ShiftHistogram = CollectorAt;
using PageCopyBlocks = CollectorAt;
using PageFreeBlocks = CollectorAt;
using GCCollect = CollectorAt;
using GCBeginTurn = CollectorAt;

// Stores into a chosen page of the cache, at a chosen time.
CacheBlock* Put(const QuietCache& cache, Page* page, const std::string& key, const std::string& value, ULong accessed,
                ULong expires = kNever) {
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

struct Levels {
  bool safety, low, high;
  bool operator==(const Levels&) const = default;
};

Levels LevelsWith(const QuietCache& cache, UInt free_pages) {
  const qxcache::Lock alloc(&cache->c_alloc_mutex, qxcache::LockRank::kAlloc);
  const UInt before = cache->c_nb_free_pages;
  cache->c_nb_free_pages = free_pages;
  const Levels levels = {qxcache::GCSafetyThreshold(cache.get()), qxcache::GCLowThreshold(cache.get()),
                         qxcache::GCHighThreshold(cache.get())};
  cache->c_nb_free_pages = before;
  return levels;
}

TEST_F(GCThreshold, SharesOfTwoHundredPages) {
  const QuietCache cache(
      {.region_size = 100, .page_size = 160, .safety = 5.0, .low = 10.0, .high = 20.0, .regions = 2});
  EXPECT_EQ(LevelsWith(cache, 0), (Levels{true, true, false}));
  EXPECT_EQ(LevelsWith(cache, 10), (Levels{true, true, false}));
  EXPECT_EQ(LevelsWith(cache, 11), (Levels{false, true, false}));
  EXPECT_EQ(LevelsWith(cache, 20), (Levels{false, true, false}));
  EXPECT_EQ(LevelsWith(cache, 21), (Levels{false, false, false}));
  EXPECT_EQ(LevelsWith(cache, 40), (Levels{false, false, false}));
  EXPECT_EQ(LevelsWith(cache, 41), (Levels{false, false, true}));
  EXPECT_EQ(LevelsWith(cache, 200), (Levels{false, false, true}));
}

TEST_F(GCThreshold, FivePagesAreAlwaysFew) {
  const QuietCache cache({.region_size = 8, .safety = 0.0, .low = 0.0, .high = 0.0});
  EXPECT_EQ(LevelsWith(cache, 5), (Levels{true, true, false}));
  EXPECT_EQ(LevelsWith(cache, 6), (Levels{false, false, true}));
}

TEST_F(GCThreshold, WithoutPagesNothingIsFree) {
  const QuietCache cache({.safety = -1.0, .low = -1.0, .high = -1.0, .regions = 0});
  EXPECT_EQ(LevelsWith(cache, 0), (Levels{true, true, false}));
}

TEST_F(GCGetMinTime, KeepsTheYoungestBucketsWhileTheRestIsTheShareToDrop) {
  const QuietCache cache({.high = 16.0, .generation = 1000});
  cache->c_nb_objects = 100;
  cache->c_age_histogram[0] = 50;
  cache->c_age_histogram[1] = 20;
  cache->c_age_histogram[2] = 14;
  cache->c_age_histogram[3] = 16;
  // Behind buckets 0 to 2 there are 16 left, which is the share; behind bucket 3 there are none.
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), kStart - 3000);
  cache->c_age_histogram[2] = 15;
  cache->c_age_histogram[3] = 15;
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), kStart - 2000);
  cache->c_nb_objects = 0;
  *cache->c_age_histogram = 0;
}

TEST_F(GCGetMinTime, InTheFirstGenerationEverythingIsOld) {
  const QuietCache cache({.high = 16.0, .generation = 1000});
  for (int i = 0; i < 7; i++) ASSERT_TRUE(cache.Store(Numbered("k", i), "v"));
  At(kStart + 5);
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), kStart + 5);
}

TEST_F(GCGetMinTime, AShareBelowOneObjectDropsNone) {
  const QuietCache cache({.high = 16.0, .generation = 1000});
  for (int i = 0; i < 6; i++) ASSERT_TRUE(cache.Store(Numbered("k", i), "v"));
  At(kStart + 5);
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), kStart + 5 - 100000);
}

TEST_F(GCGetMinTime, AnEmptyHistogramReachesBackAHundredGenerations) {
  const QuietCache cache({.generation = 1000});
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), kStart - 100000);
  cache->c_nb_objects = 50;
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), kStart - 100000);
  cache->c_nb_objects = 0;
}

TEST_F(GCGetMinTime, StopsAtABucketThatClaimsMoreThanThereIs) {
  const QuietCache cache({.high = 0.0, .generation = 1000});
  cache->c_nb_objects = 10;
  cache->c_age_histogram[0] = 4;
  cache->c_age_histogram[1] = 7;
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), kStart - 1000);
  cache->c_nb_objects = 0;
}

TEST_F(GCGetMinTime, TheShareIsTruncated) {
  const QuietCache cache({.high = 19.9, .generation = 1000});  // of 10 objects: 1.99, so 1
  cache->c_nb_objects = 10;
  cache->c_age_histogram[0] = 9;
  cache->c_age_histogram[1] = 1;
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), kStart - 1000);
  cache->c_nb_objects = 0;
}

TEST_F(GCGetMinTime, TimeDoesNotWrapBelowZero) {
  At(2500);
  const QuietCache cache({.generation = 1000});
  EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), 0u);
}

TEST_F(GCGetMinTime, OddPercentagesAreHarmless) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double infinity = std::numeric_limits<double>::infinity();
  struct Case {
    double high;
    ULong expected;
  };
  // A share that is no number, or negative, is none; one beyond all objects is never left.
  for (const Case& c : {Case{nan, kStart - 100000}, Case{-infinity, kStart - 100000}, Case{-5.0, kStart - 100000},
                        Case{infinity, kStart}, Case{1e300, kStart}, Case{120.0, kStart}}) {
    const QuietCache cache({.high = c.high, .generation = 1000});
    cache->c_nb_objects = 10;
    EXPECT_EQ(qxcache::GCGetMinTime(cache.get()), c.expected) << c.high;
    cache->c_nb_objects = 0;
  }
}

// The non-zero buckets as "index:count" words.
std::string Buckets(const QuietCache& cache) {
  std::string text;
  for (int i = 0; i < 100; i++) {
    if (cache->c_age_histogram[i] == 0) continue;
    if (!text.empty()) text += " ";
    text += std::to_string(i);
    text += ":";
    text += std::to_string(cache->c_age_histogram[i]);
  }
  return text;
}

TEST_F(ShiftHistogram, NothingMovesWithinTheFirstTwoGenerations) {
  const QuietCache cache({.generation = 1000});
  cache->c_age_histogram[0] = 7;
  for (const ULong time : {kStart - 5000, kStart, kStart + 1, kStart + 1000}) {
    At(time);
    qxcache::ShiftHistogram(cache.get());
    EXPECT_EQ(Buckets(cache), "0:7");
  }
}

TEST_F(ShiftHistogram, MovesByTheGenerationsThatHavePassed) {
  struct Case {
    ULong after;
    const char* expected;
  };
  const Case cases[] = {
      {1001, "1:7 4:5"},    {2000, "1:7 4:5"},    {2001, "2:7 5:5"},   {3000, "2:7 5:5"}, {3001, "3:7 6:5"},
      {96001, "96:7 99:5"}, {97000, "96:7 99:5"}, {97001, "97:7"},     {99001, "99:7"},   {100000, "99:7"},
      {100001, ""},         {100002, ""},         {1000000000000, ""},
  };
  for (const Case& c : cases) {
    At(kStart);
    const QuietCache cache({.generation = 1000});
    cache->c_age_histogram[0] = 7;
    cache->c_age_histogram[3] = 5;
    At(kStart + c.after);
    qxcache::ShiftHistogram(cache.get());
    EXPECT_EQ(Buckets(cache), c.expected) << c.after;
  }
}

TEST_F(ShiftHistogram, EveryCallShiftsByAllTheTimeSinceCreation) {
  const QuietCache cache({.generation = 1000});
  cache->c_age_histogram[0] = 7;
  At(kStart + 30001);
  for (const char* expected : {"30:7", "60:7", "90:7", ""}) {
    qxcache::ShiftHistogram(cache.get());
    EXPECT_EQ(Buckets(cache), expected);
  }
  EXPECT_EQ(cache->c_histo_updated, kStart);
}

TEST_F(ShiftHistogram, TheLongestGenerationDoesNotWrap) {
  const QuietCache cache({.generation = 4294967295});
  cache->c_age_histogram[0] = 7;
  At(kStart + 4294967295ul * 5 + 1);
  qxcache::ShiftHistogram(cache.get());
  EXPECT_EQ(Buckets(cache), "5:7");
}

TEST_F(PageCopyBlocks, KeepsWhatIsLiveAndRecentAndDropsTheRest) {
  const QuietCache cache;
  Page* const full = cache.PageAt(0);
  Page* const free = cache.PageAt(1);
  const ULong limit = kStart - 500;
  CacheBlock* const old = Put(cache, full, "old", "1", limit);
  CacheBlock* const recent = Put(cache, full, "recent", "22", limit + 1);
  CacheBlock* const expired = Put(cache, full, "expired", "333", kStart, kStart);
  CacheBlock* const expiring = Put(cache, full, "expiring", "4444", kStart, kStart + 1);
  CacheBlock* const both = Put(cache, full, "both", "55555", limit - 1, kStart - 1);
  const CopyOutcome outcome = qxcache::PageCopyBlocks(cache.get(), limit, full, free);
  EXPECT_TRUE(outcome.full_is_empty);
  EXPECT_FALSE(outcome.free_is_full);
  for (const CacheBlock* block : {old, recent, expired, expiring, both}) EXPECT_TRUE(IsDead(block));
  EXPECT_EQ(cache.Fetch("old"), "(none)");
  EXPECT_EQ(cache.Fetch("recent"), "22");
  EXPECT_EQ(cache.Fetch("expired"), "(none)");
  EXPECT_EQ(cache.Fetch("expiring"), "4444");
  EXPECT_EQ(cache.Fetch("both"), "(none)");
  EXPECT_EQ(BlocksOf(free), (std::vector<CacheBlock*>{cache.Block("recent"), cache.Block("expiring")}));
  EXPECT_EQ(cache.Objects(), 2u);
  EXPECT_EQ(cache->c_total_size, 9u + 13u);
  EXPECT_EQ(QXAVLLDictSize(cache->c_dict), 2u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(PageCopyBlocks, TheCopyIsTheBlockInItsNewPlace) {
  const QuietCache cache;
  Page* const full = cache.PageAt(0);
  Page* const free = cache.PageAt(1);
  Put(cache, free, "there before", "x", kStart);
  const CacheBlock* const before = Put(cache, full, "k", "value", kStart - 7, kStart + 9);
  Put(cache, full, "behind", "y", kStart);
  qxcache::PageCopyBlocks(cache.get(), kStart - 100, full, free);
  const CacheBlock* const copy = cache.Block("k");
  EXPECT_NE(copy, before);
  EXPECT_EQ(copy->b_key, Fingerprint(Bytes("k"), 1));
  EXPECT_EQ(copy->b_size, 7u);
  EXPECT_EQ(copy->b_created, kStart - 7);
  EXPECT_EQ(copy->b_expires, kStart + 9);
  EXPECT_EQ(copy->b_accessed, kStart - 7);
  EXPECT_EQ(copy->b_page, free);
  EXPECT_EQ(copy->b_next, cache.Block("behind"));
  EXPECT_EQ(cache.Block("behind")->b_next, nullptr);
  EXPECT_EQ(support::ValueOf(copy), "value");
  EXPECT_EQ(cache.Block("there before")->b_next, copy);
}

TEST_F(PageCopyBlocks, AnEmptiedPageStartsAfreshButKeepsItsStaleLastBlock) {
  const QuietCache cache;
  Page* const full = cache.PageAt(0);
  Put(cache, full, "a", "1", kStart);
  CacheBlock* const last = Put(cache, full, "b", "2", kStart);
  qxcache::PageCopyBlocks(cache.get(), 0, full, cache.PageAt(1));
  EXPECT_EQ(full->p_alloc_ptr, reinterpret_cast<UByte*>(full) + 88);
  EXPECT_EQ(full->p_copy_ptr, reinterpret_cast<UByte*>(full) + 88);
  EXPECT_EQ(full->p_last, last);
}

TEST_F(PageCopyBlocks, AStaleLastBlockMayLieUnderTheCopy) {
  const QuietCache cache({.page_size = 1024});
  Page* const full = cache.PageAt(0);
  Page* const free = cache.PageAt(1);
  Put(cache, free, "a", "1", kStart);
  Put(cache, free, "b", "2", kStart);
  qxcache::PageFreeBlocks(cache.get(), free);
  const std::string value(600, '\xff');
  Put(cache, full, "big", value, kStart);
  Put(cache, full, "small", "s", kStart);
  qxcache::PageCopyBlocks(cache.get(), 0, full, free);
  EXPECT_EQ(cache.Fetch("big"), value);
  EXPECT_EQ(cache.Fetch("small"), "s");
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(PageCopyBlocks, StopsWhenTheFreePageIsFullAndGoesOnWithAnother) {
  const QuietCache cache({.page_size = 1024});
  Page* const full = cache.PageAt(0);
  Put(cache, cache.PageAt(1), "there before", std::string(700, 'x'), kStart);
  const CacheBlock* const a = Put(cache, full, "a", std::string(100, 'a'), kStart);
  const CacheBlock* const b = Put(cache, full, "b", std::string(100, 'b'), kStart);
  const CacheBlock* const c = Put(cache, full, "c", "", kStart);
  UByte* const end = full->p_alloc_ptr;
  const CopyOutcome first = qxcache::PageCopyBlocks(cache.get(), 0, full, cache.PageAt(1));
  EXPECT_FALSE(first.full_is_empty);
  EXPECT_TRUE(first.free_is_full);
  EXPECT_TRUE(IsDead(a));
  EXPECT_FALSE(IsDead(b));
  EXPECT_FALSE(IsDead(c));  // it would fit, but comes behind one that does not
  EXPECT_EQ(full->p_alloc_ptr, end);
  EXPECT_EQ(cache.Fetch("a"), std::string(100, 'a'));
  EXPECT_EQ(cache.Fetch("b"), std::string(100, 'b'));
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);

  const CopyOutcome second = qxcache::PageCopyBlocks(cache.get(), 0, full, cache.PageAt(2));
  EXPECT_TRUE(second.full_is_empty);
  EXPECT_FALSE(second.free_is_full);
  EXPECT_EQ(BlocksOf(cache.PageAt(2)), (std::vector<CacheBlock*>{cache.Block("b"), cache.Block("c")}));
  EXPECT_EQ(cache.Fetch("a"), std::string(100, 'a'));
  EXPECT_EQ(cache.Objects(), 4u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(PageCopyBlocks, ABlockThatFillsTheRoomExactlyIsCopied) {
  const QuietCache cache({.page_size = 1024});
  Put(cache, cache.PageAt(1), "a", std::string(800, 'x'), kStart);  // leaves 72
  Put(cache, cache.PageAt(0), "b", std::string(72 - 56 - 2, 'b'), kStart);
  EXPECT_TRUE(qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(1)).full_is_empty);
  EXPECT_EQ(cache.PageAt(1)->p_alloc_ptr, cache.PageAt(1)->p_end);

  Put(cache, cache.PageAt(2), "c", std::string(800, 'x'), kStart);
  Put(cache, cache.PageAt(3), "d", std::string(72 - 56 - 2 + 1, 'd'), kStart);
  EXPECT_TRUE(qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(3), cache.PageAt(2)).free_is_full);
}

TEST_F(PageCopyBlocks, DropsNeedNoRoom) {
  const QuietCache cache({.page_size = 1024});
  Put(cache, cache.PageAt(1), "a", std::string(878, 'x'), kStart);  // leaves none
  ASSERT_EQ(cache.PageAt(1)->p_alloc_ptr, cache.PageAt(1)->p_end);
  Put(cache, cache.PageAt(0), "b", std::string(500, 'b'), kStart, kStart);
  EXPECT_TRUE(qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(1)).full_is_empty);
}

TEST_F(PageCopyBlocks, AnEmptyPageIsEmptied) {
  const QuietCache cache;
  EXPECT_TRUE(qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(1)).full_is_empty);
  // Also one that only looks back on its past.
  Put(cache, cache.PageAt(0), "a", "1", kStart);
  qxcache::PageFreeBlocks(cache.get(), cache.PageAt(0));
  cache.PageAt(0)->p_last->b_created = kStart;
  EXPECT_TRUE(qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(1)).full_is_empty);
  EXPECT_EQ(cache.PageAt(1)->p_last, nullptr);
}

TEST_F(PageCopyBlocks, TakesDroppedObjectsOutOfTheirBucket) {
  const QuietCache cache({.generation = 1000});
  Put(cache, cache.PageAt(0), "a", "1", kStart - 2500);
  Put(cache, cache.PageAt(0), "b", "2", kStart - 2600);
  Put(cache, cache.PageAt(0), "c", "3", kStart - 200000);  // in no bucket
  Put(cache, cache.PageAt(0), "d", "4", kStart - 5500);
  EXPECT_EQ(Buckets(cache), "2:2 5:1");
  cache->c_age_histogram[5] = 0;  // a shift may have carried a count away: nothing is taken from 0
  qxcache::PageCopyBlocks(cache.get(), kStart - 2550, cache.PageAt(0), cache.PageAt(1));
  EXPECT_EQ(Buckets(cache), "2:1");
  EXPECT_EQ(cache.Objects(), 1u);
}

// Drops are made by the batch, but never later than the block behind them is moved.
TEST_F(PageCopyBlocks, TheIndexChangesInTheOrderOfTheBlocks) {
  const QuietCache cache;
  Put(cache, cache.PageAt(0), "k", "idle", kStart - 1000);
  Put(cache, cache.PageAt(0), "k", "used", kStart);
  qxcache::PageCopyBlocks(cache.get(), kStart - 500, cache.PageAt(0), cache.PageAt(1));
  EXPECT_EQ(cache.Fetch("k"), "used");
  EXPECT_EQ(cache.Objects(), 1u);

  Put(cache, cache.PageAt(2), "j", "used", kStart);
  Put(cache, cache.PageAt(2), "j", "idle", kStart - 1000);
  qxcache::PageCopyBlocks(cache.get(), kStart - 500, cache.PageAt(2), cache.PageAt(3));
  EXPECT_EQ(cache.Fetch("j"), "(none)");
  EXPECT_EQ(cache.Objects(), 2u);
}

TEST_F(PageCopyBlocks, WhereItStopsTheDropsBeforeAreMade) {
  const QuietCache cache({.page_size = 1024});
  Put(cache, cache.PageAt(1), "there before", std::string(700, 'x'), kStart);
  const CacheBlock* const idle = Put(cache, cache.PageAt(0), "idle", "", kStart - 1000);
  const CacheBlock* const used = Put(cache, cache.PageAt(0), "used", std::string(500, 'u'), kStart);
  const CacheBlock* const behind = Put(cache, cache.PageAt(0), "behind", "", kStart - 1000);
  EXPECT_TRUE(qxcache::PageCopyBlocks(cache.get(), kStart - 500, cache.PageAt(0), cache.PageAt(1)).free_is_full);
  EXPECT_TRUE(IsDead(idle));
  EXPECT_FALSE(IsDead(used));
  EXPECT_FALSE(IsDead(behind));
  EXPECT_EQ(cache.Indexed("idle"), 0u);
  EXPECT_NE(cache.Indexed("behind"), 0u);
  EXPECT_EQ(cache.Objects(), 3u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

// Deliberate: the collector does not ask whether a newer store has hidden a block.
TEST_F(PageCopyBlocks, AHiddenBlockThatIsKeptComesBack) {
  const QuietCache cache;
  Put(cache, cache.PageAt(0), "k", "older", kStart);
  Put(cache, cache.PageAt(1), "k", "newer", kStart);
  EXPECT_EQ(cache.Fetch("k"), "newer");
  qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(2));
  EXPECT_EQ(cache.Fetch("k"), "older");
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(PageCopyBlocks, AHiddenBlockThatIsDroppedTakesTheNewerOnesEntryAlong) {
  const QuietCache cache;
  Put(cache, cache.PageAt(0), "k", "older", kStart - 1000);
  Put(cache, cache.PageAt(1), "k", "newer", kStart);
  const CacheBlock* const newer = cache.Block("k");
  qxcache::PageCopyBlocks(cache.get(), kStart - 500, cache.PageAt(0), cache.PageAt(2));
  EXPECT_EQ(cache.Fetch("k"), "(none)");
  EXPECT_FALSE(IsDead(newer));
  EXPECT_EQ(cache.Objects(), 1u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
  // Until it is dropped itself; its key is then not in the index.
  qxcache::PageCopyBlocks(cache.get(), kStart, cache.PageAt(1), cache.PageAt(2));
  EXPECT_TRUE(IsDead(newer));
  EXPECT_EQ(cache.Objects(), 0u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

// 2: the mutex is held and somebody waits for it.
void AwaitWaiter(Mutex* mutex) {
  while (__atomic_load_n(&mutex->__data.__lock, __ATOMIC_RELAXED) != 2) std::this_thread::yield();
}

TEST_F(PageCopyBlocks, WaitsForReadersOfTheFreePageWithoutHoldingUpThoseOfTheFullOne) {
  const QuietCache cache;
  Page* const full = cache.PageAt(0);
  Page* const free = cache.PageAt(1);
  Put(cache, full, "k", "value", kStart);
  pthread_mutex_lock(&free->p_mutex);
  std::thread collector([&cache, full, free] { qxcache::PageCopyBlocks(cache.get(), 0, full, free); });
  AwaitWaiter(&free->p_mutex);
  EXPECT_EQ(cache.Fetch("k"), "value");
  EXPECT_EQ(cache.Block("k")->b_page, full);
  pthread_mutex_unlock(&free->p_mutex);
  collector.join();
  EXPECT_EQ(cache.Block("k")->b_page, free);
}

TEST_F(PageCopyBlocks, WaitsForReadersOfTheFullPage) {
  const QuietCache cache;
  Page* const full = cache.PageAt(0);
  CacheBlock* const block = Put(cache, full, "k", "value", kStart);
  pthread_mutex_lock(&full->p_mutex);
  std::thread collector([&cache, full] { qxcache::PageCopyBlocks(cache.get(), 0, full, cache.PageAt(1)); });
  AwaitWaiter(&full->p_mutex);
  EXPECT_FALSE(IsDead(block));
  pthread_mutex_unlock(&full->p_mutex);
  collector.join();
  EXPECT_TRUE(IsDead(block));
}

TEST(PageCopyBlocksDeathTest, DroppedObjectsWereCounted) {
  const char* const text = "cache->c_nb_objects > 0 && cache->c_total_size >= block->b_size";
  EXPECT_ASSERTION(
      {
        const QuietCache cache;
        Put(cache, cache.PageAt(0), "k", "value", kStart);
        cache->c_nb_objects = 0;
        qxcache::PageCopyBlocks(cache.get(), kStart, cache.PageAt(0), cache.PageAt(1));
      },
      "dict/qxcache", "PageCopyBlocks", text);
  EXPECT_ASSERTION(
      {
        const QuietCache cache;
        Put(cache, cache.PageAt(0), "k", "value", kStart);
        cache->c_total_size = 6;
        qxcache::PageCopyBlocks(cache.get(), kStart, cache.PageAt(0), cache.PageAt(1));
      },
      "dict/qxcache", "PageCopyBlocks", text);
}

TEST_F(PageFreeBlocks, DropsEverything) {
  const QuietCache cache;
  Put(cache, cache.PageAt(0), "a", "1", kStart);
  Put(cache, cache.PageAt(0), "b", "22", kStart);
  Put(cache, cache.PageAt(1), "c", "333", kStart);
  qxcache::PageFreeBlocks(cache.get(), cache.PageAt(0));
  EXPECT_EQ(cache.Fetch("a"), "(none)");
  EXPECT_EQ(cache.Fetch("b"), "(none)");
  EXPECT_EQ(cache.Fetch("c"), "333");
  EXPECT_EQ(cache.Objects(), 1u);
  EXPECT_EQ(cache->c_total_size, 5u);
  EXPECT_EQ(Buckets(cache), "0:1");
  EXPECT_EQ(cache.PageAt(0)->p_alloc_ptr, cache.PageAt(0)->p_copy_ptr);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(PageFreeBlocks, SkipsTheDeadOfAPageLeftHalfCopied) {
  const QuietCache cache({.page_size = 1024});
  Put(cache, cache.PageAt(1), "there before", std::string(690, 'x'), kStart);
  Put(cache, cache.PageAt(0), "moved", std::string(100, 'a'), kStart);
  Put(cache, cache.PageAt(0), "left", std::string(100, 'b'), kStart);
  ASSERT_TRUE(qxcache::PageCopyBlocks(cache.get(), 0, cache.PageAt(0), cache.PageAt(1)).free_is_full);
  qxcache::PageFreeBlocks(cache.get(), cache.PageAt(0));
  EXPECT_EQ(cache.Fetch("moved"), std::string(100, 'a'));
  EXPECT_EQ(cache.Fetch("left"), "(none)");
  EXPECT_EQ(cache.Objects(), 2u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(PageFreeBlocks, WaitsForReaders) {
  const QuietCache cache;
  Page* const page = cache.PageAt(0);
  CacheBlock* const block = Put(cache, page, "k", "value", kStart);
  pthread_mutex_lock(&page->p_mutex);
  std::thread collector([&cache, page] { qxcache::PageFreeBlocks(cache.get(), page); });
  AwaitWaiter(&page->p_mutex);
  EXPECT_FALSE(IsDead(block));
  pthread_mutex_unlock(&page->p_mutex);
  collector.join();
  EXPECT_TRUE(IsDead(block));
}

TEST(PageFreeBlocksDeathTest, DroppedObjectsWereCounted) {
  EXPECT_ASSERTION(
      {
        const QuietCache cache;
        Put(cache, cache.PageAt(0), "k", "value", kStart);
        cache->c_nb_objects = 0;
        qxcache::PageFreeBlocks(cache.get(), cache.PageAt(0));
      },
      "dict/qxcache", "PageFreeBlocks", "cache->c_nb_objects > 0 && cache->c_total_size >= block->b_size");
}

// A cache of `pages` pages, each on the full list with one block, of which every second has expired.
class HalfExpired {
 public:
  explicit HalfExpired(UInt pages, double low, double high)
      : cache_({.region_size = pages, .page_size = 1024, .low = low, .high = high}) {
    for (UInt i = 0; i < pages; i++) {
      Put(cache_, cache_.PageAt(i), Numbered("k", i), std::string(400, 'x'), kStart + 1, i % 2 == 0 ? kStart : kNever);
    }
  }
  const QuietCache& cache() const { return cache_; }

 private:
  QuietCache cache_;
};

TEST_F(GCCollect, EmptiesFullPagesFromTheTailUntilEnoughIsFree) {
  const HalfExpired half(20, 10.0, 40.0);
  const QuietCache& cache = half.cache();
  At(kStart + 50000);  // the histogram has aged: what was used 100 generations ago and later stays
  cache->c_age_histogram[0] = 0;
  FillUp(cache);
  Page* const target = qxcache::GetFullPage(cache.get(), TRUE, TRUE);  // page 19, the head
  qxcache::AddFreePage(cache.get(), target, TRUE, TRUE);
  Collector collector{.idle = false};
  qxcache::GCCollect(cache.get(), &collector);
  // More than 8 of 20 pages are free, and not many more.
  EXPECT_EQ(cache->c_nb_free_pages, 10u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
  EXPECT_FALSE(collector.fruitless);
  EXPECT_EQ(collector.free, nullptr);
  EXPECT_EQ(collector.full, nullptr);
  for (UInt i = 0; i < 20; i++) {
    EXPECT_EQ(cache.Fetch(Numbered("k", i)), i % 2 == 0 ? "(none)" : std::string(400, 'x')) << i;
  }
}

TEST_F(GCCollect, AnEmptiedPageGoesToTheHeadAndTheFilledOneBackToTheTail) {
  const QuietCache cache({.region_size = 8, .page_size = 1024, .low = 99.0, .high = 99.0});
  Page* const full = qxcache::GetFreePage(cache.get(), FALSE, TRUE, TRUE);
  ASSERT_EQ(full, cache.PageAt(0));
  Put(cache, full, "k", "value", kStart + 1);
  qxcache::AddFullPage(cache.get(), full, TRUE, TRUE);
  At(kStart + 200000);
  qxcache::ShiftHistogram(cache.get());
  At(kStart + 50000);
  Collector collector{.idle = false};
  qxcache::GCCollect(cache.get(), &collector);
  EXPECT_EQ(FreeList(cache.get()),
            (std::vector<Page*>{cache.PageAt(0), cache.PageAt(7), cache.PageAt(6), cache.PageAt(5), cache.PageAt(4),
                                cache.PageAt(3), cache.PageAt(2), cache.PageAt(1)}));
  EXPECT_EQ(cache.Block("k")->b_page, cache.PageAt(1));
}

TEST_F(GCCollect, AFilledPageGoesToTheHeadOfTheFullList) {
  const QuietCache cache({.region_size = 8, .page_size = 1024, .low = 100.0, .high = 100.0});
  std::vector<Page*> full;
  for (int i = 0; i < 3; i++) {
    full.push_back(qxcache::GetFreePage(cache.get(), FALSE, TRUE, TRUE));
    Put(cache, full.back(), Numbered("k", i), std::string(500, 'x'), kStart + 1);
    qxcache::AddFullPage(cache.get(), full.back(), TRUE, TRUE);
  }
  std::fill_n(cache->c_age_histogram, 100, 0);
  Collector collector{.idle = false};
  qxcache::GCCollect(cache.get(), &collector);
  // Pages 0 to 2 move into 3 to 5. That gave three pages back for the two that it filled, so another round is worth
  // trying: pages 3 and 4 move into 6 and 7, which fills as many. Page 7 is then full too, but has refused nothing yet.
  EXPECT_EQ(FullList(cache.get()), (std::vector<Page*>{cache.PageAt(6), cache.PageAt(5)}));
  EXPECT_EQ(cache->c_free_tail, cache.PageAt(7));
  EXPECT_EQ(cache.Block("k2")->b_page, cache.PageAt(5));
  EXPECT_EQ(cache.Block("k0")->b_page, cache.PageAt(6));
  EXPECT_EQ(cache.Block("k1")->b_page, cache.PageAt(7));
  EXPECT_TRUE(collector.fruitless);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(GCCollect, ExpiredBlocksAreNeverCopied) {
  const HalfExpired half(10, 50.0, 90.0);
  const QuietCache& cache = half.cache();
  std::fill_n(cache->c_age_histogram, 100, 0);
  FillUp(cache);
  qxcache::AddFreePage(cache.get(), qxcache::GetFullPage(cache.get(), TRUE, TRUE), TRUE, TRUE);
  Collector collector{.idle = false};
  qxcache::GCCollect(cache.get(), &collector);
  for (UInt i = 0; i < 10; i++) {
    for (const CacheBlock* block : BlocksOf(cache.PageAt(i))) {
      if (!IsDead(block)) {
        EXPECT_EQ(block->b_expires, kNever);
      }
    }
  }
  EXPECT_EQ(cache.Objects(), 5u);
}

TEST_F(GCCollect, WhereAllIsWorthKeepingItStopsAfterOneRound) {
  const QuietCache cache({.region_size = 10, .page_size = 1024, .low = 50.0, .high = 90.0});
  for (UInt i = 0; i < 9; i++) {
    Page* const page = qxcache::GetFreePage(cache.get(), FALSE, TRUE, TRUE);
    Put(cache, page, Numbered("k", i), std::string(860, 'x'), kStart + 1);
    qxcache::AddFullPage(cache.get(), page, TRUE, TRUE);
  }
  std::fill_n(cache->c_age_histogram, 100, 0);
  for (int turn = 0; turn < 3; turn++) {
    Collector collector{.idle = false};
    qxcache::GCCollect(cache.get(), &collector);
    // The last page to be filled is full as well, which the first round cannot see.
    if (turn > 0) {
      EXPECT_TRUE(collector.fruitless);
    }
    EXPECT_EQ(cache->c_nb_free_pages + cache->c_nb_full_pages, 10u);
    EXPECT_EQ(support::CheckCache(cache.get()), 0u);
  }
  for (UInt i = 0; i < 9; i++) EXPECT_EQ(cache.Fetch(Numbered("k", i)), std::string(860, 'x'));
}

TEST_F(GCCollect, LooksForTheCachesEndAfterEachPage) {
  const HalfExpired half(20, 50.0, 99.0);
  const QuietCache& cache = half.cache();
  std::fill_n(cache->c_age_histogram, 100, 0);
  FillUp(cache);
  qxcache::AddFreePage(cache.get(), qxcache::GetFullPage(cache.get(), TRUE, TRUE), TRUE, TRUE);
  cache->c_closing = TRUE;
  Collector collector{.idle = false};
  qxcache::GCCollect(cache.get(), &collector);
  cache->c_closing = FALSE;
  EXPECT_EQ(cache->c_nb_full_pages, 18u);
  EXPECT_EQ(cache->c_nb_free_pages, 2u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST_F(GCCollect, WithNothingFullItGivesTheFreePageBackToTheTail) {
  const QuietCache cache({.region_size = 4});
  const std::vector<Page*> before = FreeList(cache.get());
  Collector collector{.idle = false};
  qxcache::GCCollect(cache.get(), &collector);
  EXPECT_EQ(FreeList(cache.get()), before);
  EXPECT_TRUE(collector.fruitless);
}

TEST_F(GCCollect, TheEmergencyFreesWholePagesUntilTheLowThresholdIsPassedAndLosesOne) {
  const HalfExpired half(20, 30.0, 60.0);
  const QuietCache& cache = half.cache();
  FillUp(cache);
  Collector collector{.idle = false};
  qxcache::GCCollect(cache.get(), &collector);
  // 7 of 20 pages are more than 30 percent. They come from the tail; the next one was taken to look and is on no list.
  EXPECT_EQ(cache->c_nb_free_pages, 7u);
  EXPECT_EQ(cache->c_nb_full_pages, 12u);
  EXPECT_EQ(FreeList(cache.get()),
            (std::vector<Page*>{cache.PageAt(6), cache.PageAt(5), cache.PageAt(4), cache.PageAt(3), cache.PageAt(2),
                                cache.PageAt(1), cache.PageAt(0)}));
  EXPECT_EQ(support::CheckCache(cache.get()), 1u);
  for (UInt i = 0; i < 7; i++) EXPECT_EQ(cache.Fetch(Numbered("k", i)), "(none)");
  EXPECT_EQ(cache.Objects(), 13u);
  // What lies in the lost page can still be fetched.
  At(kStart - 1);
  EXPECT_NE(cache.Fetch("k7"), "(none)");
  EXPECT_FALSE(collector.fruitless);
}

TEST_F(GCCollect, TheEmergencyAlwaysFreesSixPages) {
  const HalfExpired half(20, 0.0, 60.0);
  FillUp(half.cache());
  Collector collector{.idle = false};
  qxcache::GCCollect(half.cache().get(), &collector);
  EXPECT_EQ(half.cache()->c_nb_free_pages, 6u);
  EXPECT_EQ(half.cache()->c_nb_full_pages, 13u);
}

TEST_F(GCCollect, TheEmergencyEndsWithTheFullPages) {
  const HalfExpired half(4, 30.0, 60.0);
  FillUp(half.cache());
  Collector collector{.idle = false};
  qxcache::GCCollect(half.cache().get(), &collector);
  EXPECT_EQ(half.cache()->c_nb_free_pages, 4u);
  EXPECT_EQ(half.cache()->c_nb_full_pages, 0u);
  EXPECT_EQ(support::CheckCache(half.cache().get()), 0u);
  EXPECT_EQ(half.cache().Objects(), 0u);
}

// The only free page fills up while a full page is half copied. The emergency then frees other pages, and the
// half-copied one goes back to the tail of the full list.
TEST_F(GCCollect, TheEmergencyPutsAHalfCopiedPageBack) {
  const QuietCache cache({.region_size = 10, .page_size = 1024, .low = 0.0, .high = 90.0});
  for (UInt i = 0; i < 10; i++) {
    const std::string key = Numbered("k", i);
    Put(cache, cache.PageAt(i), key + "a", std::string(300, 'x'), kStart + 1);
    if (i < 9) Put(cache, cache.PageAt(i), key + "b", std::string(300, 'y'), kStart + 1);
  }
  std::fill_n(cache->c_age_histogram, 100, 0);
  FillUp(cache);
  Page* const only = qxcache::GetFullPage(cache.get(), TRUE, TRUE);
  ASSERT_EQ(only, cache.PageAt(9));  // with room for one more
  Page* const held[] = {qxcache::GetFullPage(cache.get(), TRUE, TRUE)};
  qxcache::AddFreePage(cache.get(), only, TRUE, TRUE);
  Collector collector{.idle = false};
  qxcache::GCCollect(cache.get(), &collector);
  // Page 0 gave its first block away and is half dead. The emergency took pages 1 to 6 and lost page 7.
  EXPECT_EQ(cache->c_nb_free_pages, 6u);
  EXPECT_EQ(cache->c_full_tail, cache.PageAt(0));
  EXPECT_EQ(cache.Block("k0a")->b_page, only);
  EXPECT_EQ(cache.Fetch("k0a"), std::string(300, 'x'));
  EXPECT_EQ(cache.Fetch("k0b"), std::string(300, 'y'));
  for (UInt i = 1; i < 7; i++) EXPECT_EQ(cache.Fetch(Numbered("k", i) + "a"), "(none)") << i;
  EXPECT_EQ(cache.Fetch("k7a"), std::string(300, 'x'));
  EXPECT_EQ(support::CheckCache(cache.get()), 2u);  // page 7 is lost, page 8 held by the test
  qxcache::AddFullPage(cache.get(), held[0], TRUE, TRUE);
}

// Begins a turn, and tells how often it slept.
long RestsOfTurn(const QuietCache& cache, Collector* collector, bool open = true) {
  no_sleep = true;
  const long before = rests;
  EXPECT_EQ(qxcache::GCBeginTurn(cache.get(), collector), open);
  no_sleep = false;
  return rests - before;
}

TEST_F(GCBeginTurn, CollectsAtOnceWhenLittleIsFree) {
  const QuietCache cache({.region_size = 10, .low = 60.0, .high = 80.0});
  for (int i = 0; i < 4; i++) qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE);
  Collector collector;
  EXPECT_EQ(RestsOfTurn(cache, &collector), 0);
  EXPECT_FALSE(collector.idle);
  // And goes on until more than the high threshold is free, not only more than the low one.
  EXPECT_EQ(RestsOfTurn(cache, &collector), 0);
  EXPECT_FALSE(collector.idle);
  cache->c_nb_free_pages = 8;
  EXPECT_EQ(RestsOfTurn(cache, &collector), 0);
  EXPECT_FALSE(collector.idle);
  cache->c_nb_free_pages = 9;
  EXPECT_EQ(RestsOfTurn(cache, &collector), 0);
  EXPECT_TRUE(collector.idle);
  EXPECT_EQ(RestsOfTurn(cache, &collector), 1);
  EXPECT_TRUE(collector.idle);
  cache->c_nb_free_pages = 6;
}

TEST_F(GCBeginTurn, AnIdleOneSleepsForASecondAtMost) {
  const QuietCache cache({.region_size = 10});
  Collector collector;
  EXPECT_EQ(RestsOfTurn(cache, &collector), 1);
  EXPECT_EQ(rest_length, 1000);
  EXPECT_TRUE(collector.idle);
}

TEST_F(GCBeginTurn, AFruitlessRoundIsFollowedByASleepAndAnotherRound) {
  const QuietCache cache({.region_size = 5});
  Collector collector{.idle = false, .fruitless = true};
  EXPECT_EQ(RestsOfTurn(cache, &collector), 1);
  EXPECT_EQ(rest_length, 1000);
  EXPECT_FALSE(collector.idle);
}

TEST_F(GCBeginTurn, SleepsWhenTheThresholdsAreTheWrongWayRound) {
  const QuietCache cache({.region_size = 10, .low = 100.0, .high = 10.0});
  Collector collector;
  EXPECT_EQ(RestsOfTurn(cache, &collector), 1);
  EXPECT_TRUE(collector.idle);
}

TEST_F(GCBeginTurn, DoesNotSleepWhenTheCacheIsClosing) {
  const QuietCache cache({.region_size = 10});
  cache->c_closing = TRUE;
  Collector collector;
  EXPECT_EQ(RestsOfTurn(cache, &collector, false), 0);
  cache->c_closing = FALSE;
}

TEST_F(GCCollect, NoEmergencyOutlivesTheCache) {
  const HalfExpired half(20, 30.0, 60.0);
  FillUp(half.cache());
  half.cache()->c_closing = TRUE;
  Collector collector{.idle = false};
  qxcache::GCCollect(half.cache().get(), &collector);
  half.cache()->c_closing = FALSE;
  EXPECT_EQ(half.cache()->c_nb_full_pages, 20u);
  EXPECT_EQ(support::CheckCache(half.cache().get()), 0u);
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// How long a turn sleeps while another thread stores.
double SleepUntilAStore(const QuietCache& cache, Collector* collector) {
  std::thread store([&cache] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(cache.Store("k", "v"));
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(qxcache::GCBeginTurn(cache.get(), collector));
  const double seconds = Seconds(start);
  store.join();
  return seconds;
}

TEST_F(GCBeginTurn, IsWokenByAPageThatMakesTooFew) {
  const QuietCache cache({.region_size = 10, .low = 50.0});
  for (int i = 0; i < 4; i++) qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE);
  Collector collector;
  EXPECT_LT(SleepUntilAStore(cache, &collector), 0.9);
}

TEST_F(GCBeginTurn, IsWokenByAnyPageAfterAFruitlessRound) {
  const QuietCache cache({.region_size = 10});
  Collector collector{.idle = false, .fruitless = true};
  EXPECT_LT(SleepUntilAStore(cache, &collector), 0.9);
}

TEST_F(GCBeginTurn, IsLeftAsleepWhereThereIsNothingToDo) {
  const QuietCache cache({.region_size = 10});
  Collector collector;
  EXPECT_GT(SleepUntilAStore(cache, &collector), 0.9);
}

// The thread's processor time so far, in seconds.
double CollectorTime(const Cache* cache) {
  clockid_t clock;
  timespec time = {};
  EXPECT_EQ(pthread_getcpuclockid(cache->c_gc_thread, &clock), 0);
  EXPECT_EQ(clock_gettime(clock, &time), 0);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

TEST(CacheGCMain, NeverSpins) {
  struct Case {
    UInt region_size;
    ULong regions;
    double low, high;
    const char* why;
  };
  const Case cases[] = {
      {4, 0, 8.0, 16.0, "no page"},
      {1, 1, 8.0, 16.0, "one page"},
      {5, 1, 8.0, 16.0, "five pages: always few, never enough"},
      {5, 1, 100.0, 100.0, "five pages, all of them wanted"},
      {16, 1, 100.0, 0.0, "thresholds the wrong way round"},
      {16, 1, 200.0, 200.0, "never enough"},
      {16, 1, 50.0, std::numeric_limits<double>::quiet_NaN(), "no number"},
  };
  std::vector<Cache*> caches;
  for (const Case& c : cases) {
    caches.push_back(
        QXCacheNewWithParams(c.region_size, 4096, 1.0, c.low, c.high, 60000, c.regions * c.region_size * 4096));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  for (size_t i = 0; i < caches.size(); i++) {
    EXPECT_LT(CollectorTime(caches[i]), 0.05) << cases[i].why;
    QXCacheDelete(caches[i]);
  }
}

// A cache whose collector is never done: everything is worth keeping, and more is wanted free than is.
Cache* NewClogged(UInt pages, UInt page_size) {
  Cache* const cache = QXCacheNewWithParams(pages, page_size, 1.0, 90.0, 95.0, 1, ULong{pages} * page_size);
  std::this_thread::sleep_for(std::chrono::milliseconds(110));  // a hundred generations: the histogram is empty
  const std::string value(page_size / 16, 'x');
  const ULong far = GetCurrentTimeMilliseconds() + 100000000;
  support::faults::ClockSet(far);  // so that no block ever seems idle
  for (UInt i = 0; i < pages * 12; i++) {
    const std::string key = Numbered("k", i);
    QXCacheStore(cache, Bytes(key), Bytes(value), static_cast<UInt>(value.size()), kNever);
  }
  return cache;
}

TEST(CacheGCMain, RestsWhenNothingCanBeGained) {
  Cache* const cache = NewClogged(64, 65536);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the last page that a store took has woken it
  const double before = CollectorTime(cache);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_LT(CollectorTime(cache) - before, 0.1);
  QXCacheDelete(cache);
  support::faults::ClockReal();
}

TEST(CacheGCMain, EndsWithinASecondWhateverItIsDoing) {
  for (int i = 0; i < 5; i++) {
    Cache* const cache = NewClogged(64, 65536);
    std::this_thread::sleep_for(std::chrono::milliseconds(7 * i));
    const auto start = std::chrono::steady_clock::now();
    QXCacheDelete(cache);
    EXPECT_LT(Seconds(start), 1.0);
    support::faults::ClockReal();
  }
}

TEST(CacheGCMain, MakesRoomForStores) {
  support::faults::ClockReal();
  Cache* const cache = QXCacheNewWithParams(16, 4096, 1.0, 30.0, 60.0, 1000, 16 * 4096);
  const std::string value(1000, 'x');
  int stored = 0;
  for (int i = 0; i < 2000; i++) {
    const std::string key = Numbered("k", i);
    const ULong soon = GetCurrentTimeMilliseconds() + 1;
    if (QXCacheStore(cache, Bytes(key), Bytes(value), 1000, soon)) {
      stored++;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  EXPECT_GT(stored, 500);  // ten times what it holds
  QXCacheDelete(cache);
}

}  // namespace
