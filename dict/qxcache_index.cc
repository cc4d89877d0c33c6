// Where a key's block lies: the index, and what writes the table in front of it.
//
//   index   c_dict: the whole truth, a tree from fingerprint to address, under c_dict_lock
//   front   what is in it, and how it is read: qxcache_front.h
//
// The front is mapped at its largest size at creation, and costs memory only as far as it has grown.

#include "dict/huge_pages.h"
#include "dict/qxcache_front.h"
#include "dict/qxcache_internal.h"

#include <algorithm>
#include <bit>

namespace qxcache {
namespace {

constexpr ULong kBytesPerWord = 128;  // of the cache, in the largest front: a word a small block
constexpr ULong kFewestBuckets = 2;
constexpr UInt kFewKeys = 5;        // the front grows when there are more than five keys
constexpr UInt kFewBuckets = 2;     // for two buckets, so that few buckets have to give a word up
constexpr UInt kDisplaceEvery = 8;  // of the fetches that ask the tree, one takes another's place in the front
constexpr UInt kGrowth = 16;        // buckets at once, so that those who read their number seldom see it change

ULong WordOf(const CacheExtra* extra, FPrint key, ULong address) {
  return address << kAddressShift | TagOf(extra, key);
}
void SetWord(ULong* place, ULong word) { __atomic_store_n(place, word, __ATOMIC_RELAXED); }

// The tree names `address` under `key` now, and named `before`, or kNoBlock, until now. In a full bucket the new word
// takes the place of another, or, without `displace`, is left out. Caller holds c_dict_lock.
void FrontSet(CacheExtra* extra, FPrint key, ULong before, ULong address, bool displace) {
  if (extra->front == nullptr || address >> (64 - kAddressShift) != 0) return;
  ULong* const bucket = BucketOf(extra, key);
  const ULong old_word = WordOf(extra, key, before);
  ULong* place = nullptr;
  for (ULong* way = bucket; way != bucket + kWays; way++) {
    if (WordIn(way) == old_word && before != kNoBlock) {
      place = way;
      break;
    }
    if (place == nullptr && WordIn(way) == 0) place = way;
  }
  if (place == nullptr) {
    if (!displace) return;
    place = bucket + extra->front_victim++ % kWays;
  }
  SetWord(place, WordOf(extra, key, address));
}

// The tree does not name `before` under `key` any more, nor anything else. Caller holds c_dict_lock.
void FrontClear(CacheExtra* extra, FPrint key, ULong before) {
  if (extra->front == nullptr) return;
  ULong* const bucket = BucketOf(extra, key);
  for (ULong* way = bucket; way != bucket + kWays; way++) {
    if (WordIn(way) == WordOf(extra, key, before)) SetWord(way, 0);
  }
}

// Moves to a new bucket, behind the `buckets` that there are, what belongs there. Caller holds c_dict_lock.
void Split(CacheExtra* extra, ULong buckets) {
  const ULong bit = std::bit_floor(buckets);  // of the key: set in what belongs there
  ULong* const from = extra->front + (buckets - bit) * kWays;
  ULong* to = extra->front + buckets * kWays;
  for (ULong* way = from; way != from + kWays; way++) {
    const ULong word = WordIn(way);
    if ((word & bit >> extra->front_first_bits) == 0) continue;
    SetWord(to++, word);
    SetWord(way, 0);
  }
}

// Whether there are many keys for the buckets of the front, and it can have more. Caller holds c_dict_lock.
bool FrontIsFull(const Cache* cache) {
  const CacheExtra* const extra = cache->c_extra;
  if (extra->front == nullptr || extra->front_buckets == extra->front_most) return false;
  return ULong{QXAVLLDictSize(cache->c_dict)} * kFewBuckets > extra->front_buckets * kFewKeys;
}

// Gives the front more buckets when it is full. Caller holds c_dict_lock.
void FrontGrow(Cache* cache) {
  if (!FrontIsFull(cache)) return;
  CacheExtra* const extra = cache->c_extra;
  ULong buckets = extra->front_buckets;
  const ULong more = std::min(buckets + kGrowth, extra->front_most);
  while (buckets < more) Split(extra, buckets++);
  __atomic_store_n(&extra->front_buckets, buckets, __ATOMIC_RELAXED);
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
  FrontSet(cache->c_extra, key, before, address, true);
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
  extra->front_most = std::bit_ceil(std::max<ULong>(bytes / kBytesPerWord / kWays, kFewestBuckets));
  extra->front_buckets = std::max<ULong>(extra->front_most >> kDoublings, kFewestBuckets);
  extra->front_first_bits = static_cast<UInt>(std::bit_width(extra->front_buckets)) - 1;
  // Without it every fetch asks the tree.
  extra->front = static_cast<ULong*>(MemoryMap_(FrontBytes(extra), kModule, __LINE__));
  qx::AdviseHugePages(extra->front, FrontBytes(extra));
}

size_t FrontBytes(const CacheExtra* extra) { return extra->front_most * kWays * sizeof(ULong); }

Entry IndexFind(Cache* cache, FPrint key) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  const ULong address = QXAVLLDictFind(cache->c_dict, key, kNoBlock);
  if (address != kNoBlock) {
    // Seldom: were each key that the front has no room for to drive out another, it would have none of them in time.
    const bool displace = cache->c_extra->front_asked++ % kDisplaceEvery == 0;
    FrontSet(cache->c_extra, key, address, address, displace);
  }
  return {.address = address, .changes = __atomic_load_n(&cache->c_extra->dict_changes, __ATOMIC_RELAXED)};
}

bool IndexStillNames(Cache* cache, FPrint key, const Entry& entry) {
  // As long as no entry at all was replaced or removed since, this one was not.
  if (__atomic_load_n(&cache->c_extra->dict_changes, __ATOMIC_RELAXED) == entry.changes) return true;
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

void IndexDrop(Cache* cache, Blocks blocks) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  for (const CacheBlock* block : blocks) {
    if (!HasPolicy(cache, QX_CACHE_NEWEST_WINS) || Names(cache, block)) Remove(cache, block->b_key);
  }
}

void IndexWarm(Cache* cache, std::span<FPrint> keys) {
  // A search for a number just below a key goes through the key's node and on to the one that will take its place when
  // it is removed.
  for (FPrint& key : keys) FrontPrefetch(cache, key--);
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  QXAVLLDictFindMany(cache->c_dict, keys.data(), keys.size(), kNoBlock, keys.data());
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

const Region* SpanOf(const CacheExtra* extra, ULong address) {
  const Region* const spans = extra->spans.t.elts;
  const auto before = [](ULong a, const Region& span) { return a < reinterpret_cast<ULong>(span.r_base); };
  return std::upper_bound(spans, spans + extra->spans.t.length, address, before) - 1;
}

}  // namespace qxcache
