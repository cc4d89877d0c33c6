// Where a key's block lies: the index, and a table in front of it that answers most fetches without a lock.
//
//   index   c_dict: the whole truth, a tree from fingerprint to address, under c_dict_lock
//   front   [ bucket: 8 words ][ bucket ] ... [ bucket ]       a bucket is a cache line, chosen by the fingerprint
//           word: [ 16 bits of the fingerprint | address of the block, a multiple of 8 | 3 bits: the stage ]
//
// The front forgets: a full bucket gives a word up for a new one, and a fetch that finds none asks the tree. What it
// holds it holds rightly. Words change only under c_dict_lock, together with the tree, so that at any time
//
//   an address that stands in a word of the present stage is one that the tree names.
//
// Enlarging the front is a new stage: twice the buckets, and all words of older stages are void at once, none of them
// touched. It is mapped at its largest size at creation, and costs memory only as far as the stages reach.
//
// A fetch reads a word without a lock, locks the page that the address lies in, and then looks whether the stage and
// the word are still the same. If so the tree still names that address: whoever gave the block's memory away, holding
// the page's mutex, changed tree and front before he released it, and the fetch has taken it after him.

#include "dict/qxcache_internal.h"
#include "dict/remainder.h"

#include <algorithm>
#include <bit>

namespace qxcache {
namespace {

constexpr UInt kWays = 8;
constexpr UInt kFullBucket = 5;  // words; with more on an average, many a bucket would have to give some up
constexpr UInt kStages = 8;      // the largest front has 2^7 times the buckets of the first
constexpr ULong kStageMask = kStages - 1;
constexpr UInt kTagShift = 48;
constexpr ULong kBytesPerWord = 128;  // of the cache, in the largest front: a word a small block

static_assert(kBlockAlignment >= kStages, "the stage lies in the zero bits of an address");

constexpr ULong WordOf(FPrint key, ULong address, UInt stage) {
  return key >> kTagShift << kTagShift | address | stage;
}
constexpr ULong AddressOf(ULong word) { return word & ((ULong{1} << kTagShift) - 1) & ~kStageMask; }
constexpr bool IsOfStage(ULong word, UInt stage) { return AddressOf(word) != 0 && (word & kStageMask) == stage; }

UInt Stage(const CacheExtra* extra) { return __atomic_load_n(&extra->front_stage, __ATOMIC_RELAXED); }
ULong WordIn(const ULong* place) { return __atomic_load_n(place, __ATOMIC_RELAXED); }
void SetWord(ULong* place, ULong word) { __atomic_store_n(place, word, __ATOMIC_RELAXED); }

ULong* BucketOf(const CacheExtra* extra, FPrint key, UInt stage) {
  return extra->front + (key & ((extra->front_first << stage) - 1)) * kWays;
}

// The tree names `address` under `key` now, and named `before`, or kNoBlock, until now. Caller holds c_dict_lock.
void FrontSet(CacheExtra* extra, FPrint key, ULong before, ULong address) {
  if (extra->front == nullptr || address >> kTagShift != 0) return;
  const UInt stage = Stage(extra);
  ULong* const bucket = BucketOf(extra, key, stage);
  const ULong old_word = WordOf(key, before, stage);
  ULong* place = nullptr;
  for (ULong* way = bucket; way != bucket + kWays; way++) {
    if (WordIn(way) == old_word && before != kNoBlock) {
      place = way;
      break;
    }
    if (place == nullptr && !IsOfStage(WordIn(way), stage)) place = way;
  }
  if (place == nullptr) place = bucket + extra->front_victim++ % kWays;
  SetWord(place, WordOf(key, address, stage));
}

// The tree does not name `before` under `key` any more, nor anything else. Caller holds c_dict_lock.
void FrontClear(CacheExtra* extra, FPrint key, ULong before) {
  if (extra->front == nullptr) return;
  const UInt stage = Stage(extra);
  ULong* const bucket = BucketOf(extra, key, stage);
  for (ULong* way = bucket; way != bucket + kWays; way++) {
    if (WordIn(way) == WordOf(key, before, stage)) SetWord(way, 0);
  }
}

// Goes to the next stage when the buckets are full, on an average. Caller holds c_dict_lock.
void FrontGrow(Cache* cache) {
  CacheExtra* const extra = cache->c_extra;
  const UInt stage = Stage(extra);
  if (stage + 1 >= kStages || extra->front_first << (stage + 1) > extra->front_most) return;
  if (QXAVLLDictSize(cache->c_dict) <= (extra->front_first << stage) * kFullBucket) return;
  __atomic_store_n(&extra->front_stage, stage + 1, __ATOMIC_RELAXED);
}

// An entry of the tree was replaced or removed. Caller holds c_dict_lock.
void NoteChange(Cache* cache) {
  CheckHeld(&cache->c_dict_lock);
  ULong* const changes = &cache->c_extra->dict_changes;
  __atomic_store_n(changes, *changes + 1, __ATOMIC_RELAXED);
}

// Caller holds c_dict_lock.
void Insert(Cache* cache, FPrint key, const CacheBlock* block) {
  const ULong address = reinterpret_cast<ULong>(block);
  const ULong before = QXAVLLDictInsert(cache->c_dict, key, address, kNoBlock);
  FrontSet(cache->c_extra, key, before, address);
  if (before != kNoBlock) {
    NoteChange(cache);
  } else {
    FrontGrow(cache);
  }
}

// Caller holds c_dict_lock.
void Remove(Cache* cache, FPrint key) {
  const ULong before = QXAVLLDictRemove(cache->c_dict, key, kNoBlock);
  if (before == kNoBlock) return;
  FrontClear(cache->c_extra, key, before);
  NoteChange(cache);
}

// Caller holds c_dict_lock.
bool Names(Cache* cache, const CacheBlock* block) {
  return QXAVLLDictFind(cache->c_dict, block->b_key, kNoBlock) == reinterpret_cast<ULong>(block);
}

}  // namespace

void FrontInit(Cache* cache) {
  CacheExtra* const extra = cache->c_extra;
  const ULong bytes = QXCacheGetSize(cache, nullptr, nullptr);
  if (bytes == 0) return;
  extra->front_most = std::bit_ceil(std::max<ULong>(bytes / kBytesPerWord / kWays, 1));
  extra->front_first = std::max<ULong>(extra->front_most >> (kStages - 1), 1);
  // Without it every fetch asks the tree.
  extra->front = static_cast<ULong*>(MemoryMap_(FrontBytes(extra), kModule, __LINE__));
}

size_t FrontBytes(const CacheExtra* extra) { return extra->front_most * kWays * sizeof(ULong); }

void FrontPrefetch(const Cache* cache, FPrint key) {
  const CacheExtra* const extra = cache->c_extra;
  if (extra->front != nullptr) __builtin_prefetch(BucketOf(extra, key, Stage(extra)));
}

Entry FrontFind(const Cache* cache, FPrint key) {
  const CacheExtra* const extra = cache->c_extra;
  if (extra->front == nullptr) return {};
  const UInt stage = Stage(extra);
  const ULong wanted = WordOf(key, 0, stage);
  constexpr ULong kCompared = ~((ULong{1} << kTagShift) - 1) | kStageMask;
  ULong* const bucket = BucketOf(extra, key, stage);
  for (ULong* way = bucket; way != bucket + kWays; way++) {
    const ULong word = WordIn(way);
    if ((word & kCompared) == wanted && AddressOf(word) != 0) {
      return {.address = AddressOf(word), .changes = 0, .place = way, .word = word};
    }
  }
  return {};
}

Entry IndexFind(Cache* cache, FPrint key) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  const ULong address = QXAVLLDictFind(cache->c_dict, key, kNoBlock);
  if (address != kNoBlock) FrontSet(cache->c_extra, key, address, address);
  return {.address = address, .changes = __atomic_load_n(&cache->c_extra->dict_changes, __ATOMIC_RELAXED)};
}

bool StillNames(Cache* cache, FPrint key, const Entry& entry) {
  const CacheExtra* const extra = cache->c_extra;
  if (entry.place != nullptr) {
    return WordIn(entry.place) == entry.word && Stage(extra) == (entry.word & kStageMask);
  }
  // As long as no entry at all was replaced or removed since, this one was not.
  if (__atomic_load_n(&extra->dict_changes, __ATOMIC_RELAXED) == entry.changes) return true;
  return IndexFind(cache, key).address == entry.address;
}

void IndexInsert(Cache* cache, FPrint key, const CacheBlock* block) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  Insert(cache, key, block);
}

void IndexRemove(Cache* cache, FPrint key) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  Remove(cache, key);
}

bool IndexHides(Cache* cache, const CacheBlock* block) {
  if (!HasPolicy(cache, QX_CACHE_NEWEST_WINS)) return false;
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  return !Names(cache, block);
}

void IndexMove(Cache* cache, const CacheBlock* from, const CacheBlock* to) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  if (HasPolicy(cache, QX_CACHE_NEWEST_WINS) && !Names(cache, from)) return;
  Insert(cache, from->b_key, to);
}

void IndexDrop(Cache* cache, const CacheBlock* block) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  if (HasPolicy(cache, QX_CACHE_NEWEST_WINS) && !Names(cache, block)) return;
  Remove(cache, block->b_key);
}

bool IndexTake(Cache* cache, const CacheBlock* block) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  if (!Names(cache, block)) return false;
  Remove(cache, block->b_key);
  return true;
}

void KeepHiddenBlocksHidden(Cache* cache) {
  if (HasPolicy(cache, QX_CACHE_NEWEST_WINS)) return;
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  __atomic_fetch_or(&cache->c_extra->policy, QX_CACHE_NEWEST_WINS, __ATOMIC_RELAXED);
}

Page* PageOf(const Cache* cache, ULong address) {
  const CacheExtra* const extra = cache->c_extra;
  UByte* const at = reinterpret_cast<UByte*>(address);
  const Region* const spans = extra->spans.t.elts;
  const Region* const behind = std::upper_bound(spans, spans + extra->spans.t.length, at,
                                                [](const UByte* a, const Region& span) { return a < span.r_base; });
  const ULong offset = address - reinterpret_cast<ULong>(behind[-1].r_base);
  return static_cast<Page*>(static_cast<void*>(at - qx::Remainder(offset, extra->page_size, extra->page_reciprocal)));
}

}  // namespace qxcache
