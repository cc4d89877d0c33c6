// The life of a cache, its two page lists, and what it tells of itself.
//
//   free list   c_free_head -> [page] <-> [page] <-> ... <-> [page] <- c_free_tail     pages with room
//   full list   c_full_head -> [page] <-> ...                       <- c_full_tail     pages that refused a block
//
// A page is in one of the lists, or held by a storing thread that has taken it, or held by the collector. Pages are
// taken from the tails and come back to the heads, so stores go round all free pages. Pages never leave their region,
// and regions live as long as the cache: nothing about them changes after creation, so their addresses need no lock.

#include "dict/qxcache.h"

#include "dict/qxcache_internal.h"
#include "dict/remainder.h"
#include "dict/report.h"

#include <signal.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <span>

namespace qxcache {
namespace {

constexpr UInt kDictCapacity = 100000;
constexpr ULong kMostBytes = ULong{1} << 47;  // what a process can address

constexpr UInt kDefaultRegionSize = 16;
constexpr UInt kDefaultPageSize = 1048576;
constexpr double kDefaultSafety = 1.0;
constexpr double kDefaultLow = 8.0;
constexpr double kDefaultHigh = 16.0;
constexpr UInt kDefaultGeneration = 60000;

// One of the two lists: its fields, and what its assertions say.
struct List {
  Page* Cache::*head;
  Page* Cache::*tail;
  UInt Cache::*count;
  const char* taker;
  const char* next_links_back;
  const char* prev_links_on;
  const char* was_also_tail;
  const char* was_also_head;
  const char* counted;
  const char* consistent;
};

constexpr List kFreeList = {
    &Cache::c_free_head,
    &Cache::c_free_tail,
    &Cache::c_nb_free_pages,
    "GetFreePage",
    "cache->c_free_head->p_prev == result",
    "cache->c_free_tail->p_next == result",
    "cache->c_free_tail == result",
    "cache->c_free_head == result",
    "cache->c_nb_free_pages > 0",
    "cache->c_nb_free_pages > 0 || (cache->c_free_head == ((void *)0) && cache->c_free_tail == ((void *)0))",
};

constexpr List kFullList = {
    &Cache::c_full_head,
    &Cache::c_full_tail,
    &Cache::c_nb_full_pages,
    "GetFullPage",
    "cache->c_full_head->p_prev == result",
    "cache->c_full_tail->p_next == result",
    "cache->c_full_tail == result",
    "cache->c_full_head == result",
    "cache->c_nb_full_pages > 0",
    "cache->c_nb_full_pages > 0 || (cache->c_full_head == ((void *)0) && cache->c_full_tail == ((void *)0))",
};

// Caller holds c_alloc_mutex.
void Link(Cache* cache, const List& list, Page* page, bool at_head) {
  CheckHeld(&cache->c_alloc_mutex);
  Page*& head = cache->*list.head;
  Page*& tail = cache->*list.tail;
  page->p_prev = at_head ? nullptr : tail;
  page->p_next = at_head ? head : nullptr;
  (page->p_prev != nullptr ? page->p_prev->p_next : head) = page;
  (page->p_next != nullptr ? page->p_next->p_prev : tail) = page;
  cache->*list.count += 1;
}

// Caller holds c_alloc_mutex.
Page* Unlink(Cache* cache, const List& list, bool at_head) {
  CheckHeld(&cache->c_alloc_mutex);
  Page*& head = cache->*list.head;
  Page*& tail = cache->*list.tail;
  Page* const result = at_head ? head : tail;
  if (result == nullptr) return nullptr;
  if (at_head) {
    QX_ASSERT_IN(kModule, list.taker, result->p_prev == nullptr, "result->p_prev == ((void *)0)");
    head = result->p_next;
    if (head == nullptr) {
      QX_ASSERT_IN(kModule, list.taker, tail == result, list.was_also_tail);
      tail = nullptr;
    } else {
      QX_ASSERT_IN(kModule, list.taker, head->p_prev == result, list.next_links_back);
      head->p_prev = nullptr;
    }
  } else {
    QX_ASSERT_IN(kModule, list.taker, result->p_next == nullptr, "result->p_next == ((void *)0)");
    tail = result->p_prev;
    if (tail == nullptr) {
      QX_ASSERT_IN(kModule, list.taker, head == result, list.was_also_head);
      head = nullptr;
    } else {
      QX_ASSERT_IN(kModule, list.taker, tail->p_next == result, list.prev_links_on);
      tail->p_next = nullptr;
    }
  }
  QX_ASSERT_IN(kModule, list.taker, cache->*list.count > 0, list.counted);
  cache->*list.count -= 1;
  QX_ASSERT_IN(kModule, list.taker, cache->*list.count > 0 || (head == nullptr && tail == nullptr), list.consistent);
  return result;
}

// Takes c_alloc_mutex for a scope, or leaves it to the caller, who holds it.
class ListLock {
 public:
  ListLock(Cache* cache, Boolean lock) : mutex_(lock != FALSE ? &cache->c_alloc_mutex : nullptr) {
    if (mutex_ != nullptr) MutexLock(mutex_, LockRank::kAlloc);
  }
  ~ListLock() {
    if (mutex_ != nullptr) MutexUnlock(mutex_);
  }
  ListLock(const ListLock&) = delete;
  ListLock& operator=(const ListLock&) = delete;

 private:
  Mutex* mutex_;
};

// Parameters with which a cache can work. A page must hold one block with an empty key and no value.
bool Usable(UInt region_size, UInt page_size, UInt generation_time, ULong size) {
  if (region_size == 0 || page_size == 0 || generation_time == 0) return false;
  if (page_size % kBlockAlignment != 0 || page_size < kEmptyPageOverhead + 1) return false;
  const ULong region_bytes = ULong{region_size} * page_size;
  if (region_bytes > std::numeric_limits<UInt>::max()) return false;
  const ULong pages = size / region_bytes * region_size;  // at most `size`, so nothing wraps
  return pages <= std::numeric_limits<UInt>::max() && size <= kMostBytes;
}

void AppendRegion(RegionArray* array, Region region) {
  if (array->t.length == array->t.capacity) ArrayGrow_(&array->a, sizeof(Region), kModule, __LINE__);
  array->t.elts[array->t.length++] = region;
}

UByte* RegionBase(const Region& region) { return static_cast<UByte*>(region.r_base); }

Page* RegionPage(const Cache* cache, const Region& region, UInt index) {
  return static_cast<Page*>(static_cast<void*>(RegionBase(region) + size_t{index} * cache->c_page_size));
}

// Cuts a region into empty pages. Caller holds c_alloc_mutex.
void Carve(Cache* cache, const Region& region) {
  for (UInt index = 0; index < cache->c_region_size; index++) {
    Page* const page = RegionPage(cache, region, index);
    UByte* const start = static_cast<UByte*>(static_cast<void*>(page));
    page->p_next = nullptr;
    page->p_prev = nullptr;
    page->p_last = nullptr;
    page->p_alloc_ptr = start + sizeof(Page);
    page->p_copy_ptr = start + sizeof(Page);
    page->p_end = start + cache->c_page_size;
    MutexInit(&page->p_mutex);
    AddFreePage(cache, page, TRUE, FALSE);
  }
}

Boolean MapRegions(Cache* cache, ULong size) {
  const size_t region_bytes = size_t{cache->c_region_size} * cache->c_page_size;
  for (ULong left = size / region_bytes; left > 0; left--) {
    void* const base = MemoryMap_(region_bytes, kModule, __LINE__);
    if (base == nullptr) return FALSE;
    const Region region = {region_bytes, base};
    const Lock alloc(&cache->c_alloc_mutex, LockRank::kAlloc);
    AppendRegion(&cache->c_regions, region);
    Carve(cache, region);
  }
  return TRUE;
}

// Fills the spans: all regions by address, those that touch as one. Mappings of one size mostly come one beside the
// other, so however many regions there are, finding the page of an address looks at one or two spans.
void BuildSpans(Cache* cache) {
  const std::span<const Region> regions(cache->c_regions.t.elts, cache->c_regions.t.length);
  RegionArray& array = cache->c_extra->spans;
  for (const Region& region : regions) AppendRegion(&array, region);
  std::span<Region> spans(array.t.elts, array.t.length);
  std::ranges::sort(spans, {}, RegionBase);
  UInt used = 0;
  for (const Region& region : spans) {
    Region* const last = used > 0 ? &spans[used - 1] : nullptr;
    if (last != nullptr && RegionBase(*last) + last->r_size == region.r_base) {
      last->r_size += region.r_size;
    } else {
      spans[used++] = region;
    }
  }
  array.t.length = used;
}

// Starts the collector with all signals blocked, and waits until it runs. False when it cannot be started.
Boolean StartCollector(Cache* cache) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  cache->c_gc_thread = ThreadCreate_(CacheGCMain, cache, 0, kModule, __LINE__);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (cache->c_gc_thread == 0) return FALSE;
  const Lock alloc(&cache->c_alloc_mutex, LockRank::kAlloc);
  while (!cache->c_gc_started) ConditionWait(&cache->c_start_cond, &cache->c_alloc_mutex);
  return TRUE;
}

// A record of zeros whose cache lines are its own.
CacheExtra* NewExtra() {
  size_t size = sizeof(CacheExtra) + alignof(CacheExtra);
  void* const memory = Allocate_(size, nullptr, kModule, __LINE__);
  void* aligned = memory;
  std::align(alignof(CacheExtra), sizeof(CacheExtra), aligned, size);
  CacheExtra* const extra = static_cast<CacheExtra*>(std::memset(aligned, 0, sizeof(CacheExtra)));
  extra->memory = memory;
  ArrayInit_(&extra->spans.a);
  return extra;
}

void FreeExtra(CacheExtra* extra) {
  if (extra->front != nullptr) MemoryUnmap_(extra->front, FrontBytes(extra), kModule, __LINE__);
  if (extra->spans.t.capacity != 0) ArrayFree_(&extra->spans.a, kModule, __LINE__);
  UnAllocate_(extra->memory, kModule, __LINE__);
}

// The sum of what all threads have counted.
ULong Sum(const Cache* cache, ULong Counters::*which) {
  ULong sum = 0;
  for (const Counters& counters : cache->c_extra->counters)
    sum += __atomic_load_n(&(counters.*which), __ATOMIC_RELAXED);
  return sum;
}

}  // namespace

Page* GetFreePage(Cache* cache, Boolean head, Boolean lock, Boolean force) {
  Page* page;
  bool wake = false;
  {
    const ListLock guard(cache, lock);
    if (!force && GCSafetyThreshold(cache)) return nullptr;
    page = Unlink(cache, kFreeList, head != FALSE);
    if (cache->c_free_tail != nullptr) __builtin_prefetch(cache->c_free_tail, 1);  // what the next store takes
    if (page != nullptr && GCWouldWork(cache)) {
      wake = true;
      cache->c_extra->sleep = Sleep::kNone;  // one signal is enough
    }
  }
  // After the lock is free again, where it is ours: the collector would wake only to wait for it. Waking it costs
  // microseconds, so it is left asleep where it would find nothing to do.
  if (wake) ConditionSignal(&cache->c_alloc_cond);
  return page;
}

Page* GetFullPage(Cache* cache, Boolean head, Boolean lock) {
  const ListLock guard(cache, lock);
  return Unlink(cache, kFullList, head != FALSE);
}

void AddFreePage(Cache* cache, Page* page, Boolean head, Boolean lock) {
  const ListLock guard(cache, lock);
  Link(cache, kFreeList, page, head != FALSE);
}

void AddFullPage(Cache* cache, Page* page, Boolean head, Boolean lock) {
  const ListLock guard(cache, lock);
  Link(cache, kFullList, page, head != FALSE);
}

void PageReset(Page* page) {
  CheckHeld(&page->p_mutex);
  page->p_copy_ptr = static_cast<UByte*>(static_cast<void*>(page)) + sizeof(Page);
  page->p_alloc_ptr = page->p_copy_ptr;
}

}  // namespace qxcache

Cache* QXCacheNewWithParams(UInt regionSize, UInt pageSize, double safetyThreshold, double gcLowThreshold,
                            double gcHighThreshold, UInt generationTime, ULong size) {
  return QXCacheNewWithPolicy(regionSize, pageSize, safetyThreshold, gcLowThreshold, gcHighThreshold, generationTime,
                              size, 0);
}

Cache* QXCacheNew(ULong size) {
  using namespace qxcache;
  return QXCacheNewWithParams(kDefaultRegionSize, kDefaultPageSize, kDefaultSafety, kDefaultLow, kDefaultHigh,
                              kDefaultGeneration, size);
}

// Works on a half-built cache too: one whose collector has not started, or with regions or the index missing.
void QXCacheDelete(Cache* cache) {
  using namespace qxcache;
  if (cache == nullptr) return;
  Boolean started;
  {
    const Lock alloc(&cache->c_alloc_mutex, LockRank::kAlloc);
    started = cache->c_gc_started;
    if (started) {
      cache->c_closing = TRUE;
      ConditionSignal(&cache->c_alloc_cond);
    }
  }
  if (started) ThreadJoin(cache->c_gc_thread);

  for (const Region& region : std::span(cache->c_regions.t.elts, cache->c_regions.t.length)) {
    for (UInt index = 0; index < cache->c_region_size; index++) {
      MutexDestroy(&RegionPage(cache, region, index)->p_mutex);
    }
    MemoryUnmap_(region.r_base, region.r_size, kModule, __LINE__);
  }

  if (cache->c_dict != nullptr) QXAVLLDictDelete(cache->c_dict);
  MutexDestroy(&cache->c_dict_lock);
  MutexDestroy(&cache->c_alloc_mutex);
  // c_histo_mutex is not destroyed, deliberately: it owns nothing, and its memory goes with the record.
  ConditionDestroy(&cache->c_alloc_cond);
  ConditionDestroy(&cache->c_start_cond);

  FreeExtra(cache->c_extra);
  if (cache->c_regions.t.capacity != 0) ArrayFree_(&cache->c_regions.a, kModule, __LINE__);
  UnAllocate_(cache, kModule, __LINE__);
}

ULong QXCacheGetSize(Cache* cache, UInt* nbObjects, ULong* objSize) {
  using namespace qxcache;
  if (nbObjects != nullptr || objSize != nullptr) {
    const Lock histogram(&cache->c_histo_mutex, LockRank::kHistogram);
    if (nbObjects != nullptr) *nbObjects = cache->c_nb_objects;
    if (objSize != nullptr) *objSize = cache->c_total_size;
  }
  return ULong{cache->c_regions.t.length} * cache->c_region_size * cache->c_page_size;
}

Cache* QXCacheNewWithPolicy(UInt regionSize, UInt pageSize, double safetyThreshold, double gcLowThreshold,
                            double gcHighThreshold, UInt generationTime, ULong size, UInt policy) {
  using namespace qxcache;
  if (!Usable(regionSize, pageSize, generationTime, size) || (policy & ~kAllPolicies) != 0) return nullptr;
  void* const memory = Allocate_(sizeof(Cache), nullptr, kModule, __LINE__);
  Cache* const cache = static_cast<Cache*>(std::memset(memory, 0, sizeof(Cache)));
  cache->c_region_size = regionSize;
  cache->c_page_size = pageSize;
  cache->c_safety_threshold = safetyThreshold;
  cache->c_gc_low_threshold = gcLowThreshold;
  cache->c_gc_high_threshold = gcHighThreshold;
  cache->c_generation_time = generationTime;
  cache->c_histo_updated = GetCurrentTimeMilliseconds();
  cache->c_extra = NewExtra();
  cache->c_extra->page_size = pageSize;
  cache->c_extra->page_reciprocal = qx::Reciprocal(pageSize);
  cache->c_extra->born = cache->c_histo_updated;
  cache->c_extra->ageing_due = cache->c_histo_updated + generationTime + 1;
  cache->c_extra->policy = policy;

  ArrayInit_(&cache->c_regions.a);
  MutexInit(&cache->c_alloc_mutex);
  MutexInit(&cache->c_histo_mutex);
  ConditionInit(&cache->c_alloc_cond);
  ConditionInit(&cache->c_start_cond);
  cache->c_dict = QXAVLLDictNew(kDictCapacity);
  MutexInit(&cache->c_dict_lock);

  if (cache->c_dict != nullptr && MapRegions(cache, size)) {
    BuildSpans(cache);
    FrontInit(cache);
    if (StartCollector(cache)) return cache;
  }
  QXCacheDelete(cache);
  return nullptr;
}

void QXCacheStats(Cache* cache, QXCacheStatistics* statistics) {
  using namespace qxcache;
  QX_ASSERT_TEXT(statistics != nullptr, "statistics != ((void *)0)");
  const CollectorCounters& collector = cache->c_extra->collector;
  const auto read = [](const ULong& count) { return __atomic_load_n(&count, __ATOMIC_RELAXED); };
  *statistics = {};
  statistics->s_hits = Sum(cache, &Counters::hits);
  statistics->s_misses = Sum(cache, &Counters::misses);
  statistics->s_expired = Sum(cache, &Counters::expired);
  statistics->s_stores = Sum(cache, &Counters::stores);
  statistics->s_refused = Sum(cache, &Counters::refused);
  statistics->s_removed = Sum(cache, &Counters::removed);
  statistics->s_moved = read(collector.moved);
  statistics->s_dropped = read(collector.dropped);
  statistics->s_passes = read(collector.passes);
  statistics->s_emergencies = read(collector.emergencies);
  statistics->s_lost_pages = read(collector.lost_pages);
  const Lock alloc(&cache->c_alloc_mutex, LockRank::kAlloc);
  statistics->s_free_pages = cache->c_nb_free_pages;
  statistics->s_full_pages = cache->c_nb_full_pages;
}
