// The life of a cache, its page lists and its locks.

#include "dict/qxcache.h"

#include <dirent.h>
#include <dlfcn.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <fstream>
#include <limits>
#include <sstream>

#include "dict/qxcache_internal.h"
#include "support/death.h"
#include "support/faults.h"
#include "support/messages.h"
#include "support/quiet_cache.h"

namespace {

using support::Bytes;
using support::CacheParameters;
using support::FreeList;
using support::FullList;
using support::kNever;
using support::Numbered;
using support::QuietCache;

std::atomic<long> signals_sent{0};

}  // namespace

// In front of the base library's, as in support/faults.cc.
extern "C" void ConditionSignal(Condition* condition) {
  static const auto real = reinterpret_cast<void (*)(Condition*)>(dlsym(RTLD_NEXT, "ConditionSignal"));
  signals_sent++;
  real(condition);
}

// ThreadSanitizer would end the test that unlocks a mutex nobody holds before the cache can.
extern "C" const char* __tsan_default_options() { return "report_mutex_bugs=0"; }

namespace {

size_t CountThreads() {
  size_t count = 0;
  DIR* const tasks = opendir("/proc/self/task");
  while (const dirent* entry = readdir(tasks)) {
    if (entry->d_name[0] != '.') count++;
  }
  closedir(tasks);
  return count;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

constexpr ULong kMiB = 1048576;

class Faults : public testing::Test {
 protected:
  ~Faults() override { support::faults::Clear(); }
};

using QXCacheNewFailure = Faults;

TEST(QXCacheNew, DefaultsAreAsDocumented) {
  Cache* const cache = QXCacheNew(33 * kMiB);
  ASSERT_NE(cache, nullptr);
  EXPECT_EQ(cache->c_region_size, 16u);
  EXPECT_EQ(cache->c_page_size, 1048576u);
  EXPECT_EQ(cache->c_safety_threshold, 1.0);
  EXPECT_EQ(cache->c_gc_low_threshold, 8.0);
  EXPECT_EQ(cache->c_gc_high_threshold, 16.0);
  EXPECT_EQ(cache->c_generation_time, 60000u);
  EXPECT_EQ(cache->c_regions.t.length, 2u);
  EXPECT_EQ(cache->c_regions.t.elts[0].r_size, 16777216u);
  EXPECT_EQ(QXCacheGetSize(cache, nullptr, nullptr), 33554432u);
  QXCacheDelete(cache);
}

TEST(QXCacheNew, KeepsItsParameters) {
  const CacheParameters p = {3, 4096, 1.5, 20.25, 30.5, 77, 5};
  const QuietCache cache(p);
  EXPECT_EQ(cache->c_region_size, 3u);
  EXPECT_EQ(cache->c_page_size, 4096u);
  EXPECT_EQ(cache->c_safety_threshold, 1.5);
  EXPECT_EQ(cache->c_gc_low_threshold, 20.25);
  EXPECT_EQ(cache->c_gc_high_threshold, 30.5);
  EXPECT_EQ(cache->c_generation_time, 77u);
  EXPECT_EQ(cache->c_regions.t.length, 5u);
  EXPECT_EQ(cache->c_nb_free_pages, 15u);
  EXPECT_EQ(cache->c_nb_full_pages, 0u);
  EXPECT_EQ(cache->c_nb_objects, 0u);
  EXPECT_EQ(cache->c_total_size, 0u);
  EXPECT_EQ(cache->c_dict->d_capacity, 100000u);
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);
}

TEST(QXCacheNew, TheHistogramStartsEmptyAtTheTimeOfCreation) {
  support::faults::ClockSet(1234567);
  const QuietCache cache;
  support::faults::ClockReal();
  EXPECT_EQ(cache->c_histo_updated, 1234567u);
  for (const UInt bucket : cache->c_age_histogram) EXPECT_EQ(bucket, 0u);
}

TEST(QXCacheNew, TheFreeListRunsFromTheLastPageCarvedToTheFirst) {
  const QuietCache cache({.region_size = 3, .regions = 2});
  std::vector<Page*> expected;
  for (UInt i = 6; i-- > 0;) expected.push_back(cache.PageAt(i));
  EXPECT_EQ(FreeList(cache.get()), expected);
}

TEST(QXCacheNew, PagesStartEmpty) {
  const QuietCache cache({.region_size = 2, .page_size = 512});
  UByte* const base = static_cast<UByte*>(cache->c_regions.t.elts[0].r_base);
  Page* const page = cache.PageAt(1);
  EXPECT_EQ(static_cast<void*>(page), base + 512);
  EXPECT_EQ(page->p_alloc_ptr, base + 512 + 88);
  EXPECT_EQ(page->p_copy_ptr, base + 512 + 88);
  EXPECT_EQ(page->p_end, base + 1024);
  EXPECT_EQ(page->p_last, nullptr);
}

TEST(QXCacheNew, ARemainderOfTheSizeIsNotUsed) {
  Cache* const cache = QXCacheNewWithParams(4, 1024, 1, 8, 16, 1000, 3 * 4096 + 4095);
  EXPECT_EQ(QXCacheGetSize(cache, nullptr, nullptr), 12288u);
  EXPECT_EQ(cache->c_regions.t.length, 3u);
  QXCacheDelete(cache);
}

TEST(QXCacheNew, BelowOneRegionIsACacheInWhichNothingFits) {
  for (const ULong size : {0ul, 4095ul}) {
    Cache* const cache = QXCacheNewWithParams(4, 1024, 1, 8, 16, 1000, size);
    ASSERT_NE(cache, nullptr);
    EXPECT_EQ(QXCacheGetSize(cache, nullptr, nullptr), 0u);
    EXPECT_FALSE(QXCacheStore(cache, Bytes("k"), Bytes("v"), 1, kNever));
    UInt size_told = 7;
    EXPECT_FALSE(QXCacheGetStatic(cache, Bytes("k"), nullptr, 0, &size_told));
    EXPECT_EQ(size_told, 0u);
    QXCacheDelete(cache);
  }
}

TEST(QXCacheNew, ParametersThatCannotWorkGiveNull) {
  struct Case {
    UInt region_size, page_size, generation;
    ULong size;
    const char* why;
  };
  const Case cases[] = {
      {0, 1024, 1000, 65536, "no pages a region"},
      {4, 0, 1000, 65536, "no bytes a page"},
      {4, 1024, 0, 65536, "no time a generation"},
      {4, 1020, 1000, 65536, "blocks would be misaligned"},
      {4, 1023, 1000, 65536, "blocks would be misaligned"},
      {4, 88, 1000, 65536, "a page of header alone"},
      {4, 144, 1000, 65536, "the smallest block has 57 bytes"},
      {65536, 65536, 1000, 65536, "exactly 2^32 bytes a region"},
      {4294967295, 4294967288, 1000, 65536, "a product that wraps"},
      {2, 2147483648, 1000, 65536, "a product that wraps to 0"},
      {1, 152, 1000, 4294967296 * 152, "2^32 pages"},
      {16, 1048576, 1000, ULONG_MAX, "more than any address space"},
      {16, 1048576, 1000, (1ul << 47) + 1, "more than any address space"},
  };
  const long maps = support::faults::Maps();
  for (const Case& c : cases) {
    EXPECT_EQ(QXCacheNewWithParams(c.region_size, c.page_size, 1, 8, 16, c.generation, c.size), nullptr) << c.why;
  }
  EXPECT_EQ(support::faults::Maps(), maps);
}

TEST(QXCacheNew, ParametersAtTheLimitsWork) {
  struct Case {
    UInt region_size, page_size, generation;
    ULong size, capacity;
  };
  const Case cases[] = {
      {8, 152, 1, 8 * 152, 1216},
      {1, 4294967288, 1000, 4294967288, 4294967288},
      {4, 1024, 4294967295, 4096, 4096},
  };
  for (const Case& c : cases) {
    Cache* const cache = QXCacheNewWithParams(c.region_size, c.page_size, 1, 8, 16, c.generation, c.size);
    ASSERT_NE(cache, nullptr);
    EXPECT_EQ(QXCacheGetSize(cache, nullptr, nullptr), c.capacity);
    QXCacheDelete(cache);
  }
}

TEST(QXCacheNew, TheSmallestPageHoldsTheSmallestBlockOrTwo) {
  const QuietCache cache({.region_size = 8, .page_size = 152});
  EXPECT_TRUE(cache.Store("", ""));
  EXPECT_EQ(cache.Fetch(""), "");
  EXPECT_TRUE(cache.Store("1234567", ""));
  EXPECT_EQ(cache.Fetch("1234567"), "");
  EXPECT_FALSE(cache.Store("12345678", ""));
  EXPECT_FALSE(cache.Store("1234567", "8"));
}

TEST(QXCacheNew, ThresholdsAreTakenAsTheyAre) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double infinity = std::numeric_limits<double>::infinity();
  const double thresholds[][3] = {{nan, nan, nan},    {infinity, infinity, infinity}, {-infinity, -infinity, -infinity},
                                  {-1.0, -1.0, -1.0}, {1000.0, 1000.0, 1000.0},       {1.0, 90.0, 10.0},
                                  {0.0, 0.0, 0.0},    {1e300, -1e300, 1e300}};
  for (const auto& [safety, low, high] : thresholds) {
    Cache* const cache = QXCacheNewWithParams(8, 1024, safety, low, high, 1000, 8 * 1024);
    ASSERT_NE(cache, nullptr);
    // The greatest share there is, 100 percent, is above the threshold or it is not.
    EXPECT_EQ(QXCacheStore(cache, Bytes("k"), Bytes("v"), 1, kNever), safety >= 100.0 ? FALSE : TRUE) << safety;
    QXCacheDelete(cache);
  }
}

TEST(QXCacheNew, AddressesOfAllRegionsLeadToTheirPages) {
  // Regions of 3 * 1376 bytes do not touch one another in memory; those of 4096 mostly do.
  for (const UInt page_size : {1376u, 4096u}) {
    const QuietCache cache({.region_size = 3, .page_size = page_size, .regions = 7});
    for (int i = 0; i < 50; i++) ASSERT_TRUE(cache.Store(Numbered("key", i), Numbered("value", i)));
    for (int i = 0; i < 50; i++) EXPECT_EQ(cache.Fetch(Numbered("key", i)), Numbered("value", i));
    UInt used = 0;
    for (UInt i = 0; i < cache.PageCount(); i++) used += cache.PageAt(i)->p_last != nullptr ? 1u : 0u;
    EXPECT_EQ(used, 21u);
    // What looks the pages up: all regions, those that touch merged.
    size_t covered = 0;
    for (UInt i = 0; i < cache->c_extra->spans.t.length; i++) {
      const Region span = cache->c_extra->spans.t.elts[i];
      covered += span.r_size;
      if (i == 0) continue;
      const Region before = cache->c_extra->spans.t.elts[i - 1];
      EXPECT_LT(static_cast<char*>(before.r_base) + before.r_size, static_cast<char*>(span.r_base));
    }
    EXPECT_EQ(covered, size_t{7} * 3 * page_size);
    EXPECT_EQ(support::CheckCache(cache.get()), 0u);
  }
}

TEST_F(QXCacheNewFailure, EachRegionThatCannotBeMappedGivesNullAndReleasesEverything) {
  const long regions = 5;
  for (long failing = 0; failing < regions; failing++) {
    const support::Messages messages;
    const long maps = support::faults::Maps();
    const long unmaps = support::faults::Unmaps();
    const size_t threads = CountThreads();
    support::faults::FailMap(1 + failing);  // behind the index
    EXPECT_EQ(QXCacheNewWithParams(4, 1024, 1, 8, 16, 1000, regions * 4096), nullptr);
    EXPECT_EQ(support::faults::Maps() - maps, 2 + failing);
    EXPECT_EQ(support::faults::Unmaps() - unmaps, 1 + failing);
    EXPECT_EQ(CountThreads(), threads);
    EXPECT_EQ(messages.all().size(), 0u);
  }
}

TEST_F(QXCacheNewFailure, AnIndexThatCannotBeMappedGivesNull) {
  const support::Messages messages;
  const long unmaps = support::faults::Unmaps();
  support::faults::FailMap(0);
  EXPECT_EQ(QXCacheNew(16 * kMiB), nullptr);
  EXPECT_EQ(support::faults::Unmaps(), unmaps);
  EXPECT_EQ(messages.texts(), std::vector<std::string>{":memory reallocation failed: size=2400000"});
}

TEST_F(QXCacheNewFailure, ACollectorThatCannotBeStartedGivesNullAndReleasesEverything) {
  const long maps = support::faults::Maps();
  const long unmaps = support::faults::Unmaps();
  support::faults::FailThreadCreate(0);
  EXPECT_EQ(QXCacheNew(32 * kMiB), nullptr);
  EXPECT_EQ(support::faults::Maps() - maps, 4);  // the index, two regions, the front of the index
  EXPECT_EQ(support::faults::Unmaps() - unmaps, 4);
}

TEST_F(QXCacheNewFailure, WithoutAFrontOfTheIndexTheCacheWorks) {
  const support::Messages messages;
  support::faults::FailMap(2);  // behind the index and a region
  const QuietCache cache({.region_size = 8, .page_size = 4096});
  EXPECT_EQ(cache->c_extra->front, nullptr);
  for (int i = 0; i < 100; i++) ASSERT_TRUE(cache.Store(Numbered("key", i), Numbered("value", i)));
  for (int i = 0; i < 100; i += 2) ASSERT_TRUE(cache.Store(Numbered("key", i), "newer"));
  for (int i = 0; i < 100; i++) {
    EXPECT_EQ(cache.Fetch(Numbered("key", i)), i % 2 == 0 ? "newer" : Numbered("value", i));
  }
  EXPECT_TRUE(QXCacheRemove(cache.get(), Bytes("key7")));
  EXPECT_EQ(cache.Fetch("key7"), "(none)");
  EXPECT_EQ(messages.all().size(), 0u);
}

// Threads that block every signal there is. SIGKILL, SIGSTOP and the two that the C library keeps to itself cannot be.
size_t CountDeafThreads() {
  size_t count = 0;
  DIR* const tasks = opendir("/proc/self/task");
  while (const dirent* entry = readdir(tasks)) {
    std::ifstream status(std::string("/proc/self/task/") + entry->d_name + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line == "SigBlk:\tfffffffe7ffbfeff") count++;
    }
  }
  closedir(tasks);
  return count;
}

TEST(QXCacheNew, TheCollectorRunsAndBlocksAllSignals) {
  const size_t threads = CountThreads();
  const size_t deaf = CountDeafThreads();
  Cache* const cache = QXCacheNew(16 * kMiB);
  EXPECT_TRUE(cache->c_gc_started);
  EXPECT_EQ(CountThreads(), threads + 1);
  EXPECT_EQ(CountDeafThreads(), deaf + 1);
  sigset_t mask;  // the caller's own
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGALRM}) EXPECT_EQ(sigismember(&mask, signal), 0);
  QXCacheDelete(cache);
}

TEST(QXCacheDelete, OfNullDoesNothing) { QXCacheDelete(nullptr); }

TEST(QXCacheDelete, CreationAndDeletionInALoopLeaveNoThreadAndNoMapping) {
  const size_t threads = CountThreads();
  const long mapped = support::faults::Maps() - support::faults::Unmaps();
  for (int i = 0; i < 200; i++) {
    Cache* const cache = QXCacheNewWithParams(4, 4096, 1, 8, 16, 1000, 4 * 16384);
    ASSERT_NE(cache, nullptr);
    ASSERT_TRUE(QXCacheStore(cache, Bytes("k"), Bytes("value"), 5, kNever));
    QXCacheDelete(cache);
  }
  EXPECT_EQ(CountThreads(), threads);
  EXPECT_EQ(support::faults::Maps() - support::faults::Unmaps(), mapped);
}

TEST(QXCacheDelete, WakesAnIdleCollector) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; i++) QXCacheDelete(QXCacheNew(16 * kMiB));
  EXPECT_LT(Seconds(start), 2.0);  // ten full sleeps would take ten seconds
}

TEST(QXCacheGetSize, TellsWhatIsAskedFor) {
  const QuietCache cache({.region_size = 8, .page_size = 1024, .regions = 3});
  ASSERT_TRUE(cache.Store("ab", "12345"));
  ASSERT_TRUE(cache.Store("abc", ""));
  UInt objects = 99;
  ULong bytes = 99;
  EXPECT_EQ(QXCacheGetSize(cache.get(), &objects, nullptr), 24576u);
  EXPECT_EQ(objects, 2u);
  EXPECT_EQ(QXCacheGetSize(cache.get(), nullptr, &bytes), 24576u);
  EXPECT_EQ(bytes, 8u + 4u);
  objects = 99;
  bytes = 99;
  EXPECT_EQ(QXCacheGetSize(cache.get(), &objects, &bytes), 24576u);
  EXPECT_EQ(objects, 2u);
  EXPECT_EQ(bytes, 12u);
}

TEST(QXCacheGetSize, TakesNoLockWhenNothingIsAskedFor) {
  const QuietCache cache;
  pthread_mutex_lock(&cache->c_alloc_mutex);
  pthread_mutex_lock(&cache->c_histo_mutex);
  pthread_mutex_lock(&cache->c_dict_lock);
  EXPECT_EQ(QXCacheGetSize(cache.get(), nullptr, nullptr), 8192u);
  pthread_mutex_unlock(&cache->c_dict_lock);
  pthread_mutex_unlock(&cache->c_histo_mutex);
  pthread_mutex_unlock(&cache->c_alloc_mutex);
}

TEST(PageLists, PagesComeOffEitherEnd) {
  const QuietCache cache({.region_size = 8});
  Page* const first = cache.PageAt(7);
  Page* const last = cache.PageAt(0);
  EXPECT_EQ(qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), first);
  EXPECT_EQ(qxcache::GetFreePage(cache.get(), FALSE, TRUE, TRUE), last);
  EXPECT_EQ(cache->c_nb_free_pages, 6u);
  EXPECT_EQ(cache->c_free_head, cache.PageAt(6));
  EXPECT_EQ(cache->c_free_tail, cache.PageAt(1));
  EXPECT_EQ(cache->c_free_head->p_prev, nullptr);
  EXPECT_EQ(cache->c_free_tail->p_next, nullptr);
  EXPECT_EQ(support::CheckCache(cache.get()), 2u);
}

TEST(PageLists, PagesGoOnEitherEnd) {
  const QuietCache cache({.region_size = 4});
  Page* pages[4];
  for (Page*& page : pages) page = qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE);
  EXPECT_EQ(cache->c_free_head, nullptr);
  EXPECT_EQ(cache->c_free_tail, nullptr);
  qxcache::AddFullPage(cache.get(), pages[0], TRUE, TRUE);
  qxcache::AddFullPage(cache.get(), pages[1], FALSE, TRUE);
  qxcache::AddFullPage(cache.get(), pages[2], TRUE, TRUE);
  EXPECT_EQ(FullList(cache.get()), (std::vector<Page*>{pages[2], pages[0], pages[1]}));
  EXPECT_EQ(cache->c_nb_full_pages, 3u);
  qxcache::AddFreePage(cache.get(), pages[3], FALSE, TRUE);
  EXPECT_EQ(FreeList(cache.get()), (std::vector<Page*>{pages[3]}));
  EXPECT_EQ(support::CheckCache(cache.get()), 0u);

  EXPECT_EQ(qxcache::GetFullPage(cache.get(), TRUE, TRUE), pages[2]);
  EXPECT_EQ(qxcache::GetFullPage(cache.get(), FALSE, TRUE), pages[1]);
  EXPECT_EQ(qxcache::GetFullPage(cache.get(), FALSE, TRUE), pages[0]);
  EXPECT_EQ(qxcache::GetFullPage(cache.get(), FALSE, TRUE), nullptr);
  EXPECT_EQ(qxcache::GetFullPage(cache.get(), TRUE, TRUE), nullptr);
  EXPECT_EQ(cache->c_nb_full_pages, 0u);
}

TEST(PageLists, WithoutLockTheCallerHoldsIt) {
  const QuietCache cache({.region_size = 8});
  const qxcache::Lock alloc(&cache->c_alloc_mutex, qxcache::LockRank::kAlloc);
  Page* const page = qxcache::GetFreePage(cache.get(), FALSE, FALSE, FALSE);
  ASSERT_NE(page, nullptr);
  qxcache::AddFullPage(cache.get(), page, TRUE, FALSE);
  EXPECT_EQ(qxcache::GetFullPage(cache.get(), TRUE, FALSE), page);
  qxcache::AddFreePage(cache.get(), page, TRUE, FALSE);
  EXPECT_EQ(cache->c_free_head, page);
}

TEST(PageLists, FivePagesAreKeptFromStores) {
  const QuietCache cache({.region_size = 6, .safety = 0.0});
  Page* const sixth = qxcache::GetFreePage(cache.get(), FALSE, TRUE, FALSE);
  ASSERT_NE(sixth, nullptr);
  EXPECT_EQ(qxcache::GetFreePage(cache.get(), FALSE, TRUE, FALSE), nullptr);
  EXPECT_EQ(cache->c_nb_free_pages, 5u);
  EXPECT_NE(qxcache::GetFreePage(cache.get(), FALSE, TRUE, TRUE), nullptr);
  EXPECT_EQ(cache->c_nb_free_pages, 4u);
}

TEST(PageLists, TheSafetyThresholdKeepsItsShareFromStores) {
  const QuietCache cache({.region_size = 50, .safety = 7.0, .regions = 2});
  for (int left = 100; left > 7; left--) ASSERT_NE(qxcache::GetFreePage(cache.get(), TRUE, TRUE, FALSE), nullptr);
  EXPECT_EQ(cache->c_nb_free_pages, 7u);  // 7 percent are not above 7 percent
  EXPECT_EQ(qxcache::GetFreePage(cache.get(), TRUE, TRUE, FALSE), nullptr);
  EXPECT_EQ(cache->c_nb_free_pages, 7u);
  EXPECT_NE(qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), nullptr);
}

// Tells how many signals a taken page sends to a collector that sleeps for a reason, with so many pages left.
long SignalsFor(qxcache::Sleep why, UInt pages_left, double low, double high) {
  const QuietCache cache({.region_size = 20, .safety = 0.0, .low = low, .high = high});
  while (cache->c_nb_free_pages > pages_left + 1) qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE);
  cache->c_extra->sleep = why;
  signals_sent = 0;
  EXPECT_NE(qxcache::GetFreePage(cache.get(), FALSE, TRUE, TRUE), nullptr);
  const long first = signals_sent;
  EXPECT_NE(qxcache::GetFreePage(cache.get(), FALSE, TRUE, TRUE), nullptr);
  EXPECT_EQ(signals_sent, first) << "one signal is enough";
  return first;
}

TEST(PageLists, ATakenPageWakesACollectorThatWouldFindWork) {
  using qxcache::Sleep;
  EXPECT_EQ(SignalsFor(Sleep::kIdle, 10, 50.0, 70.0), 1);
  EXPECT_EQ(SignalsFor(Sleep::kIdle, 12, 50.0, 70.0), 0);       // more than the low threshold is free
  EXPECT_EQ(SignalsFor(Sleep::kIdle, 5, 0.0, 0.0), 1);          // five pages are always few
  EXPECT_EQ(SignalsFor(Sleep::kIdle, 10, 90.0, 10.0), 0);       // few enough to start, enough to stop
  EXPECT_EQ(SignalsFor(Sleep::kFruitless, 12, 50.0, 70.0), 1);  // every page taken is news
  EXPECT_EQ(SignalsFor(Sleep::kNone, 3, 50.0, 70.0), 0);
}

TEST(QXCacheStore, WakesASleepingCollectorForTheHistogramOncePerTenMilliseconds) {
  support::faults::ClockSet(5000000);
  const QuietCache cache({.region_size = 20, .generation = 100});
  const auto signals_at = [&cache](ULong now, qxcache::Sleep sleep) {
    support::faults::ClockSet(now);
    cache->c_extra->sleep = sleep;
    signals_sent = 0;
    EXPECT_TRUE(cache.Store("k", "v"));
    return signals_sent.load();
  };
  using qxcache::Sleep;
  EXPECT_EQ(signals_at(5000100, Sleep::kIdle), 0);  // the first generation: nothing would be aged
  EXPECT_EQ(signals_at(5000101, Sleep::kIdle), 1);
  EXPECT_EQ(cache->c_extra->sleep, Sleep::kNone);
  EXPECT_EQ(signals_at(5000110, Sleep::kIdle), 0);
  EXPECT_EQ(signals_at(5000111, Sleep::kIdle), 1);
  EXPECT_EQ(signals_at(5000121, Sleep::kNone), 0);
  EXPECT_EQ(signals_at(5009999, Sleep::kIdle), 1);
  support::faults::ClockReal();
}

// Were it not woken, the collector would sleep for a second after the creation.
TEST(QXCacheStore, TheHistogramIsAgedBehindAStoreAtOnce) {
  Cache* const cache = support::NewCache({.region_size = 20, .generation = 20});
  const auto start = std::chrono::steady_clock::now();
  while (Seconds(start) < 0.05) usleep(1000);
  EXPECT_TRUE(QXCacheStore(cache, Bytes("k"), Bytes("v"), 1, kNever));
  UInt young = 1;
  while (young != 0 && Seconds(start) < 0.6) {
    usleep(1000);
    const qxcache::Lock lock(&cache->c_histo_mutex, qxcache::LockRank::kHistogram);
    young = cache->c_age_histogram[0];
  }
  EXPECT_EQ(young, 0u);
  QXCacheDelete(cache);
}

TEST(PageLists, OnlyATakenFreePageWakesTheCollector) {
  const QuietCache cache({.region_size = 6});
  cache->c_extra->sleep = qxcache::Sleep::kFruitless;
  signals_sent = 0;
  Page* const page = qxcache::GetFreePage(cache.get(), FALSE, TRUE, FALSE);
  EXPECT_EQ(signals_sent, 1);
  cache->c_extra->sleep = qxcache::Sleep::kFruitless;
  EXPECT_EQ(qxcache::GetFreePage(cache.get(), FALSE, TRUE, FALSE), nullptr);
  EXPECT_EQ(qxcache::GetFullPage(cache.get(), FALSE, TRUE), nullptr);
  qxcache::AddFullPage(cache.get(), page, TRUE, TRUE);
  EXPECT_EQ(qxcache::GetFullPage(cache.get(), FALSE, TRUE), page);
  qxcache::AddFreePage(cache.get(), page, TRUE, TRUE);
  EXPECT_EQ(signals_sent, 1);
}

// Runs a list operation on a cache of three free and three full pages that `damage` has spoiled.
template <typename Damage, typename Operation>
void Spoil(Damage damage, Operation operation) {
  const QuietCache cache({.region_size = 6});
  for (int i = 0; i < 3; i++) {
    qxcache::AddFullPage(cache.get(), qxcache::GetFreePage(cache.get(), TRUE, TRUE, TRUE), TRUE, TRUE);
  }
  damage(cache.get());
  operation(cache.get());
}

void TakeFreeHead(Cache* cache) { qxcache::GetFreePage(cache, TRUE, TRUE, TRUE); }
void TakeFreeTail(Cache* cache) { qxcache::GetFreePage(cache, FALSE, TRUE, TRUE); }
void TakeFullHead(Cache* cache) { qxcache::GetFullPage(cache, TRUE, TRUE); }
void TakeFullTail(Cache* cache) { qxcache::GetFullPage(cache, FALSE, TRUE); }

Page stray;

TEST(PageListsDeathTest, AHeadHasNoPageBeforeIt) {
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_free_head->p_prev = &stray; }, TakeFreeHead), "dict/qxcache",
                   "GetFreePage", "result->p_prev == ((void *)0)");
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_full_head->p_prev = &stray; }, TakeFullHead), "dict/qxcache",
                   "GetFullPage", "result->p_prev == ((void *)0)");
}

TEST(PageListsDeathTest, ATailHasNoPageBehindIt) {
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_free_tail->p_next = &stray; }, TakeFreeTail), "dict/qxcache",
                   "GetFreePage", "result->p_next == ((void *)0)");
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_full_tail->p_next = &stray; }, TakeFullTail), "dict/qxcache",
                   "GetFullPage", "result->p_next == ((void *)0)");
}

TEST(PageListsDeathTest, TheNewHeadLinksBackToTheOld) {
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_free_head->p_next->p_prev = &stray; }, TakeFreeHead), "dict/qxcache",
                   "GetFreePage", "cache->c_free_head->p_prev == result");
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_full_head->p_next->p_prev = &stray; }, TakeFullHead), "dict/qxcache",
                   "GetFullPage", "cache->c_full_head->p_prev == result");
}

TEST(PageListsDeathTest, TheNewTailLinksOnToTheOld) {
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_free_tail->p_prev->p_next = &stray; }, TakeFreeTail), "dict/qxcache",
                   "GetFreePage", "cache->c_free_tail->p_next == result");
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_full_tail->p_prev->p_next = &stray; }, TakeFullTail), "dict/qxcache",
                   "GetFullPage", "cache->c_full_tail->p_next == result");
}

TEST(PageListsDeathTest, TheOnlyPageIsHeadAndTail) {
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_free_head->p_next = nullptr; }, TakeFreeHead), "dict/qxcache",
                   "GetFreePage", "cache->c_free_tail == result");
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_full_head->p_next = nullptr; }, TakeFullHead), "dict/qxcache",
                   "GetFullPage", "cache->c_full_tail == result");
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_free_tail->p_prev = nullptr; }, TakeFreeTail), "dict/qxcache",
                   "GetFreePage", "cache->c_free_head == result");
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_full_tail->p_prev = nullptr; }, TakeFullTail), "dict/qxcache",
                   "GetFullPage", "cache->c_full_head == result");
}

TEST(PageListsDeathTest, ThePageTakenWasCounted) {
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_nb_free_pages = 0; }, TakeFreeHead), "dict/qxcache", "GetFreePage",
                   "cache->c_nb_free_pages > 0");
  EXPECT_ASSERTION(Spoil([](Cache* c) { c->c_nb_full_pages = 0; }, TakeFullTail), "dict/qxcache", "GetFullPage",
                   "cache->c_nb_full_pages > 0");
}

TEST(PageListsDeathTest, ACountOfNoneIsAnEmptyList) {
  EXPECT_ASSERTION(
      Spoil([](Cache* c) { c->c_nb_free_pages = 1; }, TakeFreeTail), "dict/qxcache", "GetFreePage",
      "cache->c_nb_free_pages > 0 || (cache->c_free_head == ((void *)0) && cache->c_free_tail == ((void *)0))");
  EXPECT_ASSERTION(
      Spoil([](Cache* c) { c->c_nb_full_pages = 1; }, TakeFullHead), "dict/qxcache", "GetFullPage",
      "cache->c_nb_full_pages > 0 || (cache->c_full_head == ((void *)0) && cache->c_full_tail == ((void *)0))");
}

// Gives a mutex the kind that notices misuse.
void MakeChecking(Mutex* mutex) {
  pthread_mutexattr_t kind;
  pthread_mutexattr_init(&kind);
  pthread_mutexattr_settype(&kind, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_destroy(mutex);
  pthread_mutex_init(mutex, &kind);
  pthread_mutexattr_destroy(&kind);
}

TEST(CacheMutexDeathTest, AFailedLockTellsTheSystemErrorAndFailsAnAssertion) {
  const auto lock_twice = [] {
    const QuietCache cache;
    MakeChecking(&cache->c_histo_mutex);
    pthread_mutex_lock(&cache->c_histo_mutex);
    cache.Objects();
  };
  EXPECT_EXIT(lock_twice(), testing::KilledBySignal(SIGABRT),
              "pthread_mutex_lock failed: Resource deadlock avoided\n.*: dict/qxcache:[0-9]+: MutexLock: Assertion `0' "
              "failed\\.");
}

TEST(CacheMutexDeathTest, AFailedUnlockTellsTheSystemErrorAndExits) {
  const auto unlock_free = [] {
    const QuietCache cache;
    MakeChecking(&cache->c_histo_mutex);
    qxcache::MutexUnlock(&cache->c_histo_mutex);
  };
  EXPECT_EXIT(unlock_free(), testing::ExitedWithCode(1), "pthread_mutex_unlock failed: Operation not permitted");
}

#ifdef QX_DEBUG_CHECKS

TEST(CacheLockOrderDeathTest, BreakingTheOrderEndsADebugBuild) {
  using qxcache::Lock;
  using qxcache::LockRank;
  const QuietCache cache({.region_size = 6});
  Page* const a = cache.PageAt(0);
  Page* const b = cache.PageAt(1);
  const char* const text = "the lock order of the cache is kept";
  EXPECT_DEATH(
      {
        const Lock first(&cache->c_dict_lock, LockRank::kIndex);
        const Lock second(&a->p_mutex, LockRank::kPage);
      },
      text);
  EXPECT_DEATH(
      {
        const Lock first(&cache->c_dict_lock, LockRank::kIndex);
        const Lock second(&cache->c_histo_mutex, LockRank::kHistogram);
      },
      text);
  EXPECT_DEATH(
      {
        const Lock first(&a->p_mutex, LockRank::kPage);
        const Lock second(&b->p_mutex, LockRank::kPage);
      },
      text);
  EXPECT_DEATH({ const Lock first(&a->p_mutex, LockRank::kTargetPage); }, text);
  EXPECT_DEATH(
      {
        const Lock first(&a->p_mutex, LockRank::kPage);
        const Lock second(&cache->c_alloc_mutex, LockRank::kAlloc);
      },
      text);
  EXPECT_DEATH(
      {
        const Lock first(&cache->c_alloc_mutex, LockRank::kAlloc);
        const Lock second(&cache->c_histo_mutex, LockRank::kHistogram);
      },
      text);
}

TEST(CacheLockOrderDeathTest, WhatTheCallerMustHoldIsChecked) {
  const QuietCache cache({.region_size = 6});
  const char* const text = "the caller holds the mutex";
  EXPECT_DEATH(qxcache::GetFreePage(cache.get(), TRUE, FALSE, TRUE), text);
  EXPECT_DEATH(qxcache::GCLowThreshold(cache.get()), text);
  EXPECT_DEATH(qxcache::PageReset(cache.PageAt(0)), text);
}

#endif

}  // namespace
