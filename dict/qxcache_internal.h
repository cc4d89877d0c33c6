// What the files of the cache share: its locks, its constants, and the operations that cross from one to another.
//
//   qxcache.cc        life of a cache, the two page lists, what it tells of itself
//   qxcache_front.h   from a key to its block without a lock: the table in front of the index, the page of an address
//   qxcache_index.cc  the index, and what writes that table
//   qxcache_store.cc  blocks: store, fetch, remove
//   qxcache_gc.cc     the collector
//   qxcache_age.cc    the age histogram
//   qxcache_locks.cc  the order of the locks, and how they fail
//
// Lock order, the only place where it stands:
//
//   p_mutex of a full page  ->  p_mutex of the page it is copied into  ->  c_dict_lock or c_histo_mutex, never both
//   c_alloc_mutex           alone: no other is held when it is taken, none is taken while it is held
//
// Stores and fetches hold one page's mutex, as the first; only the collector holds two. A build with QX_DEBUG_CHECKS
// (every Debug build) ends the process at the first lock that breaks this order.
//
// Why a fetch may follow an address that it has read from the index. An entry of c_dict names a block only from the
// moment the block is whole, and whoever is about to give the block's memory away, holding its page's mutex, first
// changes or removes the entry under c_dict_lock: the collector's copy names the copy instead, its drop removes the
// entry. Entries of dead blocks never come back, because only the address of a new block is ever inserted. So while the
// index names a block, the block lies there; and while moreover its page's mutex is held, it stays.
//
//   fetch:  [address, from the front or the index]  page by arithmetic  [p_mutex: still that address?  read the block]
//
// Between the two looks at the index not one byte at the address is read: the collector may have emptied the page, and
// other values' bytes, chosen by anybody, may lie there.

#ifndef DICT_QXCACHE_INTERNAL_H
#define DICT_QXCACHE_INTERNAL_H

#include "dict/qxcache.h"
#include "qxlib/misc.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <span>

namespace qxcache {

constexpr const char* kModule = "dict/qxcache";  // every file of the family reports under its module

constexpr size_t kBlockAlignment = 8;
constexpr ULong kDead = ULONG_MAX;       // b_created of a block that was moved or dropped
constexpr ULong kNoBlock = 0;            // what the index answers for an absent key
constexpr UInt kReservedPages = 5;       // stores need more free pages than this, and the collector keeps more free
constexpr UInt kArrayMost = 2147483647;  // bytes that a growable array holds
constexpr int kIdleMilliseconds = 1000;  // the collector's longest sleep
constexpr int kStoreAttempts = 10;       // pages that a store tries before it gives up
constexpr ULong kAgeingPause = 10;       // milliseconds at least between two stores that have the histogram aged

constexpr UInt kAllPolicies = QX_CACHE_NEWEST_WINS | QX_CACHE_KEEP_PAGES | QX_CACHE_TRUE_AGE;

// What a block costs beside its key and value in a page that holds nothing else.
constexpr size_t kEmptyPageOverhead = sizeof(Page) + sizeof(CacheBlock);

// The headers are a promise to tools: 88 and 56 bytes where a mutex takes 40, as on x86-64.
static_assert(sizeof(Page) == sizeof(Mutex) + 48 && sizeof(CacheBlock) == 56);
static_assert(offsetof(Page, p_alloc_ptr) == sizeof(Mutex) && offsetof(Page, p_copy_ptr) == sizeof(Mutex) + 8 &&
              offsetof(Page, p_end) == sizeof(Mutex) + 16 && offsetof(Page, p_last) == sizeof(Mutex) + 24 &&
              offsetof(Page, p_next) == sizeof(Mutex) + 32 && offsetof(Page, p_prev) == sizeof(Mutex) + 40);
static_assert(offsetof(CacheBlock, b_key) == 0 && offsetof(CacheBlock, b_size) == 8 &&
              offsetof(CacheBlock, b_created) == 16 && offsetof(CacheBlock, b_expires) == 24 &&
              offsetof(CacheBlock, b_accessed) == 32 && offsetof(CacheBlock, b_page) == 40 &&
              offsetof(CacheBlock, b_next) == 48);
static_assert(sizeof(Page) % kBlockAlignment == 0 && sizeof(CacheBlock) % kBlockAlignment == 0);

// Why the collector sleeps, and so what wakes it: a page that was taken wakes an idle one only if it would find
// something to do, and one that has worked for nothing always.
enum class Sleep : UInt { kNone, kIdle, kFruitless };

// What one of many threads has counted. Every thread always counts into the same one.
struct alignas(64) Counters {
  ULong hits, misses, expired, stores, refused, removed;
};
constexpr size_t kCounters = 16;  // the index of one is 4 bits

// What the collector has counted. Nobody else writes these.
struct CollectorCounters {
  ULong moved, dropped, passes, emergencies, lost_pages;
};

}  // namespace qxcache

// What the library keeps of a cache beside its record. What is written often lies in cache lines of its own, away from
// what every fetch reads.
struct CacheExtra {
  // What every fetch reads: written at creation, but for two fields that c_dict_lock guards and are read without, too.
  alignas(64) RegionArray spans;  // the regions in address order, neighbours merged
  ULong page_reciprocal;          // for remainders by
  UInt page_size;                 // c_page_size, whose own cache line every store writes
  UInt front_first_bits;          // 2^this: the buckets of the front at first
  ULong* front;                   // the table in front of the index; null when it could not be had
  ULong front_buckets;            // how many it has now; under c_dict_lock
  UInt policy;                    // under c_dict_lock

  // Written at creation.
  ULong front_most;  // the buckets that the front may come to have
  ULong born;        // when the cache was created
  void* memory;      // that this record lies in

  // Under c_dict_lock.
  alignas(64) ULong dict_changes;  // how often an entry of c_dict was replaced or removed; read without the lock too
  UInt front_victim;               // counts displaced words,
  UInt front_asked;                // and fetches that had to ask the tree

  // Under c_histo_mutex.
  alignas(64) ULong ageing_due;  // the time from which on a store has the histogram aged

  // Under c_alloc_mutex.
  alignas(64) qxcache::Sleep sleep;

  qxcache::CollectorCounters collector;
  qxcache::Counters counters[qxcache::kCounters];
};

namespace qxcache {

// The locks: qxcache_locks.cc.

enum class LockRank { kPage, kTargetPage, kIndex, kHistogram, kAlloc };

// A test that decides at every lock which thread goes on compiles the cache with QX_CACHE_SCHEDULES and defines this:
// it returns when the calling thread may go on, and, if it is to wait, the mutex is free. Elsewhere nothing.
#ifdef QX_CACHE_SCHEDULES
void AtLock(Mutex* mutex, bool wait);
#else
inline void AtLock(Mutex*, bool) {}
#endif

// Debug builds follow the locks: in what order a thread takes and releases them, and, with CheckHeld, that the calling
// thread holds one; where something is wrong the process ends. Elsewhere nothing.
#ifdef QX_DEBUG_CHECKS
void CheckOrder(LockRank rank);
void NoteLocked(const Mutex* mutex, LockRank rank);
void NoteUnlocked(const Mutex* mutex);
void CheckHeld(const Mutex* mutex);
#else
inline void CheckOrder(LockRank) {}
inline void NoteLocked(const Mutex*, LockRank) {}
inline void NoteUnlocked(const Mutex*) {}
inline void CheckHeld(const Mutex*) {}
#endif

// How the locks fail: the end of the process.
[[noreturn]] void LockFailed(int error);
[[noreturn]] void UnlockFailed(int error);

inline void MutexLock(Mutex* mutex, LockRank rank) {
  CheckOrder(rank);
  AtLock(mutex, true);
  if (const int error = pthread_mutex_lock(mutex); error != 0) LockFailed(error);
  NoteLocked(mutex, rank);
}

// False, at once, when somebody holds it.
inline bool MutexTryLock(Mutex* mutex, LockRank rank) {
  CheckOrder(rank);
  AtLock(mutex, false);
  const int error = pthread_mutex_trylock(mutex);
  if (error == EBUSY) return false;
  if (error != 0) LockFailed(error);
  NoteLocked(mutex, rank);
  return true;
}

inline void MutexUnlock(Mutex* mutex) {
  if (const int error = pthread_mutex_unlock(mutex); error != 0) UnlockFailed(error);
  NoteUnlocked(mutex);
}

// Holds a mutex for the length of a scope.
class Lock {
 public:
  Lock(Mutex* mutex, LockRank rank) : mutex_(mutex) { MutexLock(mutex, rank); }
  ~Lock() { MutexUnlock(mutex_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  Mutex* mutex_;
};

// Counting without a lock. What only one thread writes needs no read-modify-write.
inline void Bump(ULong* count, ULong by = 1) { __atomic_store_n(count, *count + by, __ATOMIC_RELAXED); }

// The calling thread's share of the counters, or one that it shares with few.
inline Counters* MyCounters(const Cache* cache) {
  const ULong mixed = pthread_self() * 0x9E3779B97F4A7C15u;
  return &cache->c_extra->counters[mixed >> 60];
}
inline void Count(const Cache* cache, ULong Counters::*which) {
  __atomic_fetch_add(&(MyCounters(cache)->*which), 1, __ATOMIC_RELAXED);
}

// The page lists: qxcache.cc.
//
// `head` chooses the end of the list; `lock` says whether the operation takes c_alloc_mutex (true) or the caller holds
// it (false).

// Takes a page, or null. Without `force` none is taken where GCSafetyThreshold holds. Wakes the collector when it
// sleeps and would find work.
Page* GetFreePage(Cache* cache, Boolean head, Boolean lock, Boolean force);
Page* GetFullPage(Cache* cache, Boolean head, Boolean lock);
void AddFreePage(Cache* cache, Page* page, Boolean head, Boolean lock);
void AddFullPage(Cache* cache, Page* page, Boolean head, Boolean lock);

// Empties a page all of whose blocks are dead. p_last stays as it was, deliberately: the next block is linked behind
// that dead one, where nobody looks, since every walk starts at p_copy_ptr. Caller holds p_mutex.
void PageReset(Page* page);

// Blocks: qxcache_store.cc.

// A key's text with its zero byte.
using KeyText = std::span<const UByte>;

// Bytes left in the page. Caller holds p_mutex.
inline size_t PageRoom(const Page* page) { return static_cast<size_t>(page->p_end - page->p_alloc_ptr); }

// Where the page's next block goes, or its first one lies.
inline CacheBlock* BlockAt(UByte* at) { return static_cast<CacheBlock*>(static_cast<void*>(at)); }

// The page's first block; null when it is empty. Caller holds p_mutex.
inline CacheBlock* PageFirstBlock(Page* page) {
  return page->p_alloc_ptr == page->p_copy_ptr ? nullptr : BlockAt(page->p_copy_ptr);
}

// Appends a value to the page and names it in the index. False when it has no room; *tooLarge then tells whether even
// an empty page has none. Takes p_mutex.
Boolean PageWriteBlock(Cache* cache, Page* page, FPrint key, KeyText keystr, const UByte* value, UInt size,
                       ULong expires, Boolean* tooLarge);

// Links `block`, which lies at p_alloc_ptr and takes `size` bytes with its header, as the page's last. Caller holds
// p_mutex and has seen that there is room.
void PageAddBlockUnlocked(Page* page, CacheBlock* block, size_t size);

// Both copying fetches: into `dynbuffer` when it is not null, else into the `bufSize` bytes at `statbuffer`.
Boolean PageReadBlock(Cache* cache, FPrint key, KeyText keystr, UByteArray* dynbuffer, void* statbuffer, UInt bufSize,
                      UInt* dataSize);

// The index: qxcache_index.cc.

// What a look at the index or at the front of it has seen: qxcache_front.h.
struct Entry;

// Makes and measures the table in front of the index. The cache is not in use yet.
void FrontInit(Cache* cache);
size_t FrontBytes(const CacheExtra* extra);

// What the index has under `key`. Takes c_dict_lock.
Entry IndexFind(Cache* cache, FPrint key);

// Whether the index still names the block that it named in `entry`, which came from the index itself. Caller holds the
// p_mutex of the page that the block was in. Takes c_dict_lock, if at all.
bool IndexStillNames(Cache* cache, FPrint key, const Entry& entry);

// Makes the index name `block` under `key`. Takes c_dict_lock.
void IndexInsert(Cache* cache, FPrint key, const CacheBlock* block);

// Removes whatever the index has under `key`. Takes c_dict_lock.
void IndexRemove(Cache* cache, FPrint key);

// Whether a block is to be dropped because a newer store hides it: only under QX_CACHE_NEWEST_WINS. Takes c_dict_lock.
bool IndexHides(Cache* cache, const CacheBlock* block);

// Makes the index name a block's copy. Under QX_CACHE_NEWEST_WINS only where it names the block. Takes c_dict_lock.
void IndexMove(Cache* cache, const CacheBlock* from, const CacheBlock* to);

// Blocks of one page, in the order of their addresses, that are dropped together.
using Blocks = std::span<CacheBlock* const>;

// Removes the entries of the blocks' keys, one after the other. Under QX_CACHE_NEWEST_WINS only those that name the
// block. Takes c_dict_lock.
void IndexDrop(Cache* cache, Blocks blocks);

// Has the index's entries of the keys on their way from memory, all at once, for whoever is about to change them one by
// one. Spoils the array. Takes c_dict_lock.
void IndexWarm(Cache* cache, std::span<FPrint> keys);

// Removes the entry that names a block; false, and nothing done, when none does. Takes c_dict_lock.
bool IndexTake(Cache* cache, const CacheBlock* block);

// Puts the cache under QX_CACHE_NEWEST_WINS: from then on no block comes back that the index does not name. Takes
// c_dict_lock.
void KeepHiddenBlocksHidden(Cache* cache);

// The span that holds an address of one of the cache's blocks.
const Region* SpanOf(const CacheExtra* extra, ULong address);

// Whether a policy is set. Under c_dict_lock the answer stays.
inline bool HasPolicy(const Cache* cache, UInt policy) {
  return (__atomic_load_n(&cache->c_extra->policy, __ATOMIC_RELAXED) & policy) != 0;
}

// The age histogram: qxcache_age.cc.

// The bucket for a time of access, -1 when it lies before the histogram. Needs no lock, because neither the reference
// time nor the generation ever changes; under QX_CACHE_TRUE_AGE the reference time does, and the caller holds
// c_histo_mutex.
int GetHistogramIndex(const Cache* cache, ULong time);

// Moves an object from the bucket of one time of access to that of another. Takes c_histo_mutex when they differ.
void MoveInHistogram(Cache* cache, ULong old_time, ULong new_time);

// The same, where nearly always nothing is to do: both times lie after the reference time.
inline void UpdateHistogram(Cache* cache, ULong old_time, ULong new_time) {
  const bool base_is_fixed = !HasPolicy(cache, QX_CACHE_TRUE_AGE);
  if (base_is_fixed && std::min(old_time, new_time) > cache->c_histo_updated) return;
  MoveInHistogram(cache, old_time, new_time);
}

// Counts a new object. True when the collector, which ages the histogram whenever it wakes, is to be woken for that.
// Takes c_histo_mutex.
bool CountIn(Cache* cache, ULong now, size_t size);

// Takes blocks out of the counts, one after the other, in the name of the function that drops them. Caller holds the
// p_mutex of their page. Takes c_histo_mutex.
void CountOut(Cache* cache, Blocks blocks, const char* function);

// Ages the histogram by the generations that have passed since the cache was created, under QX_CACHE_TRUE_AGE by those
// that have passed since it was aged last. Takes c_histo_mutex.
void ShiftHistogram(Cache* cache);

// The time of access up to which blocks are dropped. Takes c_histo_mutex.
ULong GCGetMinTime(Cache* cache);

// The collector: qxcache_gc.cc.

// Whether free pages are too few for stores, few enough to start collecting, and enough to stop. Caller holds
// c_alloc_mutex.
bool GCSafetyThreshold(const Cache* cache);
bool GCLowThreshold(const Cache* cache);
bool GCHighThreshold(const Cache* cache);

// Whether the collector sleeps and would find work if it were woken. Caller holds c_alloc_mutex.
bool GCWouldWork(const Cache* cache);

// Wakes a collector that sleeps, so that it ages the histogram. Takes c_alloc_mutex.
void GCWakeToAge(Cache* cache);

// Ends the life of blocks that the index does not name any more, in the name of `function`. Caller holds the p_mutex of
// their page.
void DiscardBlocks(Cache* cache, Blocks blocks, const char* function);

// How a copy pass ended: exactly one of them holds.
struct CopyOutcome {
  bool full_is_empty;
  bool free_is_full;
};

// Copies what is worth keeping, accessed after `limit` and not expired, from one page to another and drops the rest.
CopyOutcome PageCopyBlocks(Cache* cache, ULong limit, Page* page_full, Page* page_free);

// Drops every block of the page.
void PageFreeBlocks(Cache* cache, Page* page);

// What the collector remembers from turn to turn.
struct Collector {
  bool idle = true;
  bool fruitless = false;  // the last round gave no page back
  Page* free = nullptr;    // the page being filled
  Page* full = nullptr;    // the page being emptied
};

// Decides whether this turn collects, and sleeps when there is nothing to do. False: the cache is closing.
bool GCBeginTurn(Cache* cache, Collector* collector);

// Collects until enough is free, or nothing more can be gained.
void GCCollect(Cache* cache, Collector* collector);

// The collector's thread; the argument is its cache.
void* CacheGCMain(void* cache);

}  // namespace qxcache

#endif
