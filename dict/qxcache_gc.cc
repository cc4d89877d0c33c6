// The collector: one thread a cache, which turns full pages into free ones.
//
//   full list, tail first         the page being filled           free list
//   [ live | old | live | dead ] --live ones--> [ live | live | ....  ]
//    ^ emptied: goes to the head of the free list                  ^ no room left: goes to the head of the full list
//
// A block is worth keeping when it has not expired and was used after a limit, which an age histogram suggests. The
// rest is dropped, index entry included. Two oddities are deliberate, callers are told of them in qxcache.h, and a
// policy cures each:
//
// - Whether a newer store has hidden a block plays no part: a kept one becomes what the index names, a dropped one
//   takes its key out of the index even when the entry names a newer block, which then lies unreachable until it is
//   dropped. QX_CACHE_NEWEST_WINS drops a hidden block, and leaves the entry alone.
// - When the emergency loop has freed enough, the page that it holds at that moment is on no list any more. Its blocks
//   can be fetched as long as the index names them; the page itself comes back only with the cache's end.
//   QX_CACHE_KEEP_PAGES puts it back.

#include "dict/qxcache_internal.h"
#include "dict/report.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace qxcache {
namespace {

constexpr size_t kBatch = 32;  // blocks

// Percent of the pages that are free. Without any page there is no share of them. Caller holds c_alloc_mutex.
double FreePercent(const Cache* cache) {
  CheckHeld(&cache->c_alloc_mutex);
  const ULong pages = ULong{cache->c_regions.t.length} * cache->c_region_size;
  return pages == 0 ? 0.0 : 100.0 * cache->c_nb_free_pages / static_cast<double>(pages);
}

// The block is not among the living any more. Caller holds p_mutex.
void MarkDead(CacheBlock* block) { block->b_created = kDead; }

// Blocks that are dropped one behind the other leave the index under one lock, and the counts under another. What
// comes between them in the page waits until they have: the order of all changes to the index is that of the blocks.
class Drops {
 public:
  // Of one page, whose p_mutex the caller holds, in the name of `function`.
  Drops(Cache* cache, const char* function) : cache_(cache), function_(function) {}
  ~Drops() { Finish(); }
  Drops(const Drops&) = delete;
  Drops& operator=(const Drops&) = delete;

  void Add(CacheBlock* block) {
    if (count_ == kBatch) Finish();
    blocks_[count_++] = block;
  }

  void Finish() {
    if (count_ == 0) return;
    const Blocks blocks(blocks_, count_);
    IndexDrop(cache_, blocks);
    DiscardBlocks(cache_, blocks, function_);
    Bump(&cache_->c_extra->collector.dropped, count_);
    count_ = 0;
  }

 private:
  Cache* cache_;
  const char* function_;
  CacheBlock* blocks_[kBatch] = {};
  size_t count_ = 0;
};

// Goes through the living blocks of a page. Caller holds its p_mutex.
class Walk {
 public:
  Walk(Cache* cache, Page* page) : cache_(cache), next_(PageFirstBlock(page)) {}

  // The next block, or null.
  CacheBlock* Next() {
    while (next_ != nullptr && next_->b_created == kDead) next_ = next_->b_next;
    if (next_ == nullptr) return nullptr;
    if (warm_ == 0) Warm();
    warm_--;
    return std::exchange(next_, next_->b_next);
  }

 private:
  void Warm() {
    FPrint keys[kBatch];
    for (const CacheBlock* block = next_; block != nullptr && warm_ < kBatch; block = block->b_next) {
      if (block->b_created != kDead) keys[warm_++] = block->b_key;
    }
    IndexWarm(cache_, {keys, warm_});
  }

  Cache* cache_;
  CacheBlock* next_;
  size_t warm_ = 0;  // living blocks from the next one on whose entries in the index are at hand
};

// Appends a copy, which the index names from then on. Caller holds both pages' p_mutex and has seen that there is room.
void Move(Cache* cache, CacheBlock* block, Page* to, const char* function) {
  const size_t total = sizeof(CacheBlock) + block->b_size;
  CacheBlock* const new_block = BlockAt(to->p_alloc_ptr);
  PageAddBlockUnlocked(to, new_block, total);  // first: in an emptied page p_last may lie under the copy
  std::memcpy(new_block, block, total);
  new_block->b_page = to;
  new_block->b_next = nullptr;
  QX_ASSERT_IN(kModule, function, new_block->b_created != kDead, "((new_block)->b_created != (ULong) -1)");
  IndexMove(cache, block, new_block);
  MarkDead(block);
  Bump(&cache->c_extra->collector.moved);
}

// Sleeps until a page is taken that is worth waking for, for a second at most, or not at all when the cache is closing.
// Caller holds c_alloc_mutex.
void Rest(Cache* cache, Sleep why) {
  CheckHeld(&cache->c_alloc_mutex);
  if (cache->c_closing) return;
  cache->c_extra->sleep = why;
  ConditionTimedWait(&cache->c_alloc_cond, &cache->c_alloc_mutex, kIdleMilliseconds);
  cache->c_extra->sleep = Sleep::kNone;
}

// Holds a full page's mutex and then that of the page it is copied into.
//
// The second one is tried, not waited for. Where a reader holds it, the first is let go until he has finished: nobody
// who reads the full page has to wait for somebody who reads the other one. And since a page is the source of a copy
// today and its target tomorrow, waiting would look like an inversion to tools that watch the order of mutexes, though
// nobody but the collector ever holds two.
class PagePair {
 public:
  PagePair(Page* full, Page* free) : full_(&full->p_mutex), free_(&free->p_mutex) {
    MutexLock(full_, LockRank::kPage);
    while (!MutexTryLock(free_, LockRank::kTargetPage)) {
      MutexUnlock(full_);
      { const Lock reader_has_finished(free_, LockRank::kPage); }
      MutexLock(full_, LockRank::kPage);
    }
  }
  ~PagePair() {
    MutexUnlock(free_);
    MutexUnlock(full_);
  }
  PagePair(const PagePair&) = delete;
  PagePair& operator=(const PagePair&) = delete;

 private:
  Mutex* full_;
  Mutex* free_;
};

UInt FullPages(Cache* cache) {
  const Lock alloc(&cache->c_alloc_mutex, LockRank::kAlloc);
  return cache->c_nb_full_pages;
}

// No page is free, not even one to copy into: drops whole full pages until the free share passes the low threshold.
// Returns how many.
UInt Emergency(Cache* cache) {
  CollectorCounters& counters = cache->c_extra->collector;
  Bump(&counters.emergencies);
  for (UInt freed = 0;; freed++) {
    Page* page;
    {
      const Lock alloc(&cache->c_alloc_mutex, LockRank::kAlloc);
      if (cache->c_closing) return freed;
      page = GetFullPage(cache, FALSE, FALSE);
      if (page == nullptr) return freed;
      if (cache->c_nb_free_pages > kReservedPages && FreePercent(cache) > cache->c_gc_low_threshold) {
        if (HasPolicy(cache, QX_CACHE_KEEP_PAGES)) {
          AddFullPage(cache, page, FALSE, FALSE);
        } else {
          Bump(&counters.lost_pages);  // enough is free: the page just taken stays on no list
        }
        return freed;
      }
    }
    PageFreeBlocks(cache, page);
    AddFreePage(cache, page, TRUE, TRUE);
  }
}

// Tells after each copy pass whether collecting on can gain anything. Where everything is worth keeping, copying would
// go round all pages for ever and give back as many as it fills: a round, in which as many pages were emptied as were
// full when it began, must have given more pages back than it has filled.
struct Round {
  UInt length;  // pages to empty
  UInt emptied = 0;
  UInt filled = 0;

  bool Fruitful() const { return emptied > filled; }
};

}  // namespace

bool GCSafetyThreshold(const Cache* cache) {
  CheckHeld(&cache->c_alloc_mutex);
  return cache->c_nb_free_pages <= kReservedPages || cache->c_safety_threshold >= FreePercent(cache);
}

bool GCLowThreshold(const Cache* cache) {
  CheckHeld(&cache->c_alloc_mutex);
  return cache->c_nb_free_pages <= kReservedPages || cache->c_gc_low_threshold >= FreePercent(cache);
}

bool GCHighThreshold(const Cache* cache) {
  CheckHeld(&cache->c_alloc_mutex);
  return cache->c_nb_free_pages > kReservedPages && FreePercent(cache) > cache->c_gc_high_threshold;
}

bool GCWouldWork(const Cache* cache) {
  CheckHeld(&cache->c_alloc_mutex);
  switch (cache->c_extra->sleep) {
    case Sleep::kIdle:
      return GCLowThreshold(cache) && !GCHighThreshold(cache);
    case Sleep::kFruitless:
      return true;
    case Sleep::kNone:
      break;
  }
  return false;
}

void GCWakeToAge(Cache* cache) {
  {
    const Lock alloc(&cache->c_alloc_mutex, LockRank::kAlloc);
    if (cache->c_extra->sleep == Sleep::kNone) return;
    cache->c_extra->sleep = Sleep::kNone;  // one signal is enough
  }
  ConditionSignal(&cache->c_alloc_cond);
}

void DiscardBlocks(Cache* cache, Blocks blocks, const char* function) {
  for (CacheBlock* block : blocks) MarkDead(block);
  CountOut(cache, blocks, function);
}

CopyOutcome PageCopyBlocks(Cache* cache, ULong limit, Page* page_full, Page* page_free) {
  const ULong now = GetCurrentTimeMilliseconds();
  Bump(&cache->c_extra->collector.passes);
  const PagePair locks(page_full, page_free);
  Drops drops(cache, __func__);
  Walk walk(cache, page_full);
  while (CacheBlock* const block = walk.Next()) {
    if (block->b_accessed <= limit || now >= block->b_expires || IndexHides(cache, block)) {
      drops.Add(block);
    } else if (sizeof(CacheBlock) + block->b_size <= PageRoom(page_free)) {
      drops.Finish();
      Move(cache, block, page_free, __func__);
    } else {
      // The rest waits for another page. The next pass walks all blocks again and skips those that are dead by then.
      return {.full_is_empty = false, .free_is_full = true};
    }
  }
  drops.Finish();
  PageReset(page_full);
  return {.full_is_empty = true, .free_is_full = false};
}

void PageFreeBlocks(Cache* cache, Page* page) {
  const Lock page_lock(&page->p_mutex, LockRank::kPage);
  Drops drops(cache, __func__);
  Walk walk(cache, page);  // which skips dead blocks: a pass that ran out of free pages left this page half-copied
  while (CacheBlock* const block = walk.Next()) drops.Add(block);
  drops.Finish();
  PageReset(page);
}

// How a turn begins, by how the one before ended:
//
//   idle, no need to start                       rest, and stay idle
//   idle, need to start                          work; or, when so much is free that it ought to stop, rest and stay
//   idle at work, with nothing to show for a round    rest, since another round would find the same; then as below at
//   work                                      work; or be idle from now on, when enough is free
bool GCBeginTurn(Cache* cache, Collector* collector) {
  const Lock alloc(&cache->c_alloc_mutex, LockRank::kAlloc);
  const bool was_idle = collector->idle;
  bool rested = false;
  if (collector->idle) {
    collector->idle = !GCLowThreshold(cache);
    rested = collector->idle;
  } else {
    rested = collector->fruitless;
  }
  if (rested) Rest(cache, collector->idle ? Sleep::kIdle : Sleep::kFruitless);
  if (!collector->idle) collector->idle = GCHighThreshold(cache);
  // Thresholds the wrong way round: so little is free that it ought to start, and so much that it ought to stop.
  if (was_idle && collector->idle && !rested) Rest(cache, Sleep::kIdle);
  return !cache->c_closing;
}

void GCCollect(Cache* cache, Collector* collector) {
  Round round{.length = FullPages(cache)};
  for (;;) {
    const ULong limit = GCGetMinTime(cache);
    if (collector->free == nullptr) collector->free = GetFreePage(cache, FALSE, TRUE, TRUE);
    if (collector->free == nullptr) {
      round = {.length = 0, .emptied = Emergency(cache)};
      break;
    }
    if (collector->full == nullptr) collector->full = GetFullPage(cache, FALSE, TRUE);
    if (collector->full == nullptr) break;

    const CopyOutcome outcome = PageCopyBlocks(cache, limit, collector->full, collector->free);
    if (outcome.full_is_empty) {
      AddFreePage(cache, collector->full, TRUE, TRUE);
      collector->full = nullptr;
      round.emptied++;
    }
    if (outcome.free_is_full) {
      AddFullPage(cache, collector->free, TRUE, TRUE);
      collector->free = nullptr;
      round.filled++;
    }
    ShiftHistogram(cache);

    const Lock alloc(&cache->c_alloc_mutex, LockRank::kAlloc);
    if (GCHighThreshold(cache) || cache->c_closing) break;
    if (round.emptied >= round.length) {
      if (!round.Fruitful()) break;
      round = {.length = cache->c_nb_full_pages};
    }
  }
  collector->fruitless = !round.Fruitful();
  if (collector->full != nullptr) AddFullPage(cache, collector->full, FALSE, TRUE);
  if (collector->free != nullptr) AddFreePage(cache, collector->free, FALSE, TRUE);
  collector->full = nullptr;
  collector->free = nullptr;
}

void* CacheGCMain(void* argument) {
  Cache* const cache = static_cast<Cache*>(argument);
  {
    const Lock alloc(&cache->c_alloc_mutex, LockRank::kAlloc);
    cache->c_gc_started = TRUE;
    ConditionSignal(&cache->c_start_cond);
  }
  Collector collector;
  while (GCBeginTurn(cache, &collector)) {
    ShiftHistogram(cache);
    if (!collector.idle) GCCollect(cache, &collector);
  }
  return nullptr;
}

}  // namespace qxcache
