// A table in front of a cache's index, which answers most fetches without a lock, and the way from an address to its
// page. Here is what reads them, inline in every fetch; qxcache_index.cc writes.
//
//   front   [ bucket: 8 words ][ bucket ] ... [ bucket ]       a bucket is a cache line, chosen by the fingerprint
//           word: [ address of the block: 48 bits, a multiple of 8 | tag: 16 bits and those three ]; 0: none
//
// The front forgets: a full bucket gives a word up for a new one, and a fetch that finds none asks the tree. What it
// holds it holds rightly. Words change only under c_dict_lock, together with the tree, so that at any time
//
//   an address that stands in a word is one that the tree names.
//
// A fetch reads a word without a lock, locks the page that the address lies in, and then looks whether the word is
// still the same. If so the tree still names that address: whoever gave the block's memory away, holding the page's
// mutex, changed tree and front before he released it, and the fetch has taken it after him.
//
// The front grows by linear hashing [Litwin: Linear hashing, 1980]: with 2^k and some more buckets, keys are told apart
// by their lowest k+1 bits, and those that would go to a bucket beyond the last by k bits. A new bucket at the end
// takes its words from one earlier bucket, and no others move. The bits of the key that can come to choose a bucket
// while the front grows are among those of the tag, so a word knows where it goes. A fetch that has an old number of
// buckets in mind, or finds a word gone, asks the tree.

#ifndef DICT_QXCACHE_FRONT_H
#define DICT_QXCACHE_FRONT_H

#include "dict/qxcache_internal.h"
#include "dict/remainder.h"

#include <bit>

namespace qxcache {

constexpr UInt kWays = 8;
constexpr UInt kTagBits = 19;
constexpr ULong kTagMask = (ULong{1} << kTagBits) - 1;
constexpr UInt kAddressShift = 16;
constexpr UInt kDoublings = 7;  // of the number of buckets, at most

static_assert(ULong{kBlockAlignment} << kAddressShift == kTagMask + 1, "the tag ends in the zero bits of an address");
static_assert(kDoublings <= kTagBits, "a word knows its bucket in a front of any size");

// Where the index has seen a key's block, and how to see whether it still does.
struct Entry {
  ULong address = kNoBlock;      // of the block; kNoBlock: there is none
  ULong changes = 0;             // the state of the index when it said so,
  const ULong* place = nullptr;  // or, when the front said so, the place of the word
  ULong word = 0;                // and the word

  bool FromFront() const { return place != nullptr; }
};

constexpr ULong AddressOf(ULong word) { return (word & ~kTagMask) >> kAddressShift; }
inline ULong TagOf(const CacheExtra* extra, FPrint key) { return key >> extra->front_first_bits & kTagMask; }

inline ULong WordIn(const ULong* place) { return __atomic_load_n(place, __ATOMIC_RELAXED); }

// Where the key's words are in a front of so many buckets.
inline ULong* BucketOf(const CacheExtra* extra, FPrint key, ULong buckets) {
  const ULong mask = ~ULong{0} >> (std::countl_zero(buckets - 1));  // of k+1 bits; buckets are never one alone
  const ULong index = key & mask;
  return extra->front + (index < buckets ? index : index & mask >> 1) * kWays;
}
inline ULong* BucketOf(const CacheExtra* extra, FPrint key) {
  return BucketOf(extra, key, __atomic_load_n(&extra->front_buckets, __ATOMIC_RELAXED));
}

// Has the key's bucket on its way from memory while the caller does something else.
inline void FrontPrefetch(const Cache* cache, FPrint key) {
  const CacheExtra* const extra = cache->c_extra;
  if (extra->front != nullptr) __builtin_prefetch(BucketOf(extra, key));
}

// What the front has under `key`. The block may be another key's, which the caller sees when it holds the page.
inline Entry FrontFind(const Cache* cache, FPrint key) {
  const CacheExtra* const extra = cache->c_extra;
  if (extra->front == nullptr) return {};
  const ULong tag = TagOf(extra, key);
  const ULong* const bucket = BucketOf(extra, key);
  for (const ULong* way = bucket; way != bucket + kWays; way++) {
    const ULong word = WordIn(way);
    if ((word & kTagMask) == tag && word > kTagMask) {
      return {.address = AddressOf(word), .changes = 0, .place = way, .word = word};
    }
  }
  return {};
}

// Whether the index still names the block that it named in `entry`. Caller holds the p_mutex of the page that the block
// was in: with the answer true, the block stays there until the mutex is released.
inline bool StillNames(Cache* cache, FPrint key, const Entry& entry) {
  return entry.FromFront() ? WordIn(entry.place) == entry.word : IndexStillNames(cache, key, entry);
}

// The page that holds an address of one of the cache's blocks, without reading anything at that address.
inline Page* PageOf(const Cache* cache, ULong address) {
  const CacheExtra* const extra = cache->c_extra;
  const Region* const span = extra->spans.t.length == 1 ? extra->spans.t.elts : SpanOf(extra, address);
  const ULong offset = address - reinterpret_cast<ULong>(span->r_base);
  UByte* const at = reinterpret_cast<UByte*>(address);
  return static_cast<Page*>(static_cast<void*>(at - qx::Remainder(offset, extra->page_size, extra->page_reciprocal)));
}

}  // namespace qxcache

#endif
