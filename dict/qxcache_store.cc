// Storing and fetching: blocks in pages, and the index that finds them.
//
//   page:  [ Page ][ block ][ block ]...[ block ][ room ]
//          p_copy_ptr ^                   ^ p_last  ^ p_alloc_ptr          ^ p_end
//   block: [ CacheBlock ][ key text ][ 0 ][ value ][ pad to 8 ]            b_next: the block behind, null in the last
//
// Nothing is ever freed or moved here: a store appends, and a value that is stored over stays in its page. Whatever
// needs no lock (fingerprint, clock, buckets) is worked out before one is taken.

#include "dict/qxcache.h"

#include "dict/qxcache_internal.h"
#include "dict/report.h"

#include <algorithm>
#include <cstring>

namespace qxcache {
namespace {

constexpr size_t RoundUp(size_t size) { return (size + kBlockAlignment - 1) & ~(kBlockAlignment - 1); }

UByte* KeyBytes(CacheBlock* block) { return static_cast<UByte*>(static_cast<void*>(block + 1)); }

// memcpy for the case, too, that there is nothing to copy and no memory to copy from or to.
void CopyBytes(void* to, const void* from, size_t size) {
  if (size != 0) std::memcpy(to, from, size);
}

KeyText TextOf(const UByte* key) { return {key, std::strlen(reinterpret_cast<const char*>(key)) + 1}; }

// A text of 4 GiB and more is refused whatever its fingerprint: no page has room for it.
FPrint FingerprintOf(KeyText text) {
  return Fingerprint(text.data(), static_cast<UInt>(std::min<size_t>(text.size() - 1, UINT_MAX)));
}

// What the index says of a key.
struct Entry {
  ULong address;  // of the block; kNoBlock: there is none
  ULong changes;  // the state of the index when it said so
};

Entry IndexFind(Cache* cache, FPrint key) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  return {QXAVLLDictFind(cache->c_dict, key, kNoBlock), __atomic_load_n(&cache->c_dict_changes, __ATOMIC_RELAXED)};
}

// An entry was replaced or removed. Caller holds c_dict_lock.
void NoteChange(Cache* cache) {
  CheckHeld(&cache->c_dict_lock);
  __atomic_store_n(&cache->c_dict_changes, cache->c_dict_changes + 1, __ATOMIC_RELAXED);
}

// Whether the index still names the block that it named in `entry`. Caller holds the p_mutex of the page that the block
// was in: with the answer true, the block stays there until the mutex is released.
//
// As long as no entry at all was replaced or removed since, this one was not. The count needs no lock: whoever emptied
// the page changed it before he released the page's mutex, which the caller has taken after him.
bool StillNames(Cache* cache, FPrint key, Entry entry) {
  if (__atomic_load_n(&cache->c_dict_changes, __ATOMIC_RELAXED) == entry.changes) return true;
  return IndexFind(cache, key).address == entry.address;
}

// The page that holds an address of one of the cache's blocks, without reading anything at that address.
Page* PageOf(const Cache* cache, ULong address) {
  UByte* const at = reinterpret_cast<UByte*>(address);
  const Region* const spans = cache->c_spans.t.elts;
  const Region* const behind = std::upper_bound(spans, spans + cache->c_spans.t.length, at,
                                                [](const UByte* a, const Region& span) { return a < span.r_base; });
  UByte* const base = static_cast<UByte*>(behind[-1].r_base);
  const size_t offset = static_cast<size_t>(at - base);
  return static_cast<Page*>(static_cast<void*>(at - offset % cache->c_page_size));
}

// Whether the block is `text`'s. Reads no further than the block, and so far only if it is long enough.
bool HasKey(CacheBlock* block, FPrint key, KeyText text) {
  return block->b_key == key && block->b_size >= text.size() &&
         std::memcmp(KeyBytes(block), text.data(), text.size()) == 0;
}

// Appends the bytes; false, and nothing changed, when the array cannot hold them.
Boolean ArrayAppend(UByteArray* array, const UByte* bytes, size_t size) {
  const size_t needed = array->t.length + size;
  if (needed > kArrayMost) return FALSE;
  if (needed > array->t.capacity) {
    const UInt capacity = ArrayNextSize(array->t.capacity, static_cast<UInt>(needed), kArrayMost);
    ArrayGrowExact_(&array->a, capacity, sizeof(UByte), kModule, __LINE__);
  }
  CopyBytes(array->t.elts + array->t.length, bytes, size);
  array->t.length = static_cast<UInt>(needed);
  return TRUE;
}

Boolean Absent(UInt* dataSize) {
  if (dataSize != nullptr) *dataSize = 0;
  return FALSE;
}

}  // namespace

int GetHistogramIndex(const Cache* cache, ULong time) {
  const ULong base = cache->c_histo_updated;
  if (time > base) return 0;
  // 64 bits hold any age; a time before the first bucket's end but exactly 100 generations back has no bucket either.
  const ULong age = (base - time) / cache->c_generation_time;
  return age < QX_CACHE_BUCKETS ? static_cast<int>(age) : -1;
}

void UpdateHistogram(Cache* cache, ULong old_time, ULong new_time) {
  const int from = GetHistogramIndex(cache, old_time);
  const int to = GetHistogramIndex(cache, new_time);
  if (from == to) return;
  const Lock histogram(&cache->c_histo_mutex, LockRank::kHistogram);
  UInt* const buckets = cache->c_age_histogram;
  if (from >= 0 && buckets[from] > 0) buckets[from]--;
  if (to >= 0) buckets[to]++;
}

void IndexInsert(Cache* cache, FPrint key, const CacheBlock* block) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  const ULong before = QXAVLLDictInsert(cache->c_dict, key, reinterpret_cast<ULong>(block), kNoBlock);
  if (before != kNoBlock) NoteChange(cache);
}

void IndexRemove(Cache* cache, FPrint key) {
  const Lock index(&cache->c_dict_lock, LockRank::kIndex);
  if (QXAVLLDictRemove(cache->c_dict, key, kNoBlock) != kNoBlock) NoteChange(cache);
}

void PageAddBlockUnlocked(Page* page, CacheBlock* block, size_t size) {
  CheckHeld(&page->p_mutex);
  if (page->p_last != nullptr) {
    QX_ASSERT_TEXT(page->p_last->b_next == nullptr, "page->p_last->b_next == ((void *)0)");
    page->p_last->b_next = block;
  }
  page->p_last = block;
  block->b_next = nullptr;
  page->p_alloc_ptr += RoundUp(size);  // a page's end is a multiple of 8 too, so this does not pass it
}

Boolean PageWriteBlock(Cache* cache, Page* page, FPrint key, KeyText keystr, const UByte* value, UInt size,
                       ULong expires, Boolean* tooLarge) {
  const size_t need = keystr.size() + size;
  const size_t total = need + sizeof(CacheBlock);
  const ULong now = std::min(GetCurrentTimeMilliseconds(), kDead - 1);
  const int bucket = GetHistogramIndex(cache, now);

  const Lock page_lock(&page->p_mutex, LockRank::kPage);
  if (total > PageRoom(page)) {
    *tooLarge = cache->c_page_size < need + kEmptyPageOverhead;
    return FALSE;
  }
  *tooLarge = FALSE;

  // Linked first and filled then: in an emptied page p_last may lie inside the bytes that are about to be written.
  CacheBlock* const block = BlockAt(page->p_alloc_ptr);
  PageAddBlockUnlocked(page, block, total);
  block->b_key = key;
  block->b_size = need;
  block->b_created = now;
  block->b_expires = expires;
  block->b_accessed = now;
  block->b_page = page;
  std::memcpy(KeyBytes(block), keystr.data(), keystr.size());
  CopyBytes(KeyBytes(block) + keystr.size(), value, size);

  IndexInsert(cache, key, block);
  const Lock histogram(&cache->c_histo_mutex, LockRank::kHistogram);
  if (bucket >= 0) cache->c_age_histogram[bucket]++;
  cache->c_nb_objects++;
  cache->c_total_size += need;
  return TRUE;
}

Boolean PageReadBlock(Cache* cache, FPrint key, KeyText keystr, UByteArray* dynbuffer, void* statbuffer, UInt bufSize,
                      UInt* dataSize) {
  for (;;) {
    const ULong now = GetCurrentTimeMilliseconds();
    const Entry entry = IndexFind(cache, key);
    if (entry.address == kNoBlock) return Absent(dataSize);

    Page* const page = PageOf(cache, entry.address);
    CacheBlock* const block = BlockAt(reinterpret_cast<UByte*>(entry.address));
    __builtin_prefetch(block);
    Boolean result;
    ULong old_time, new_time;
    {
      const Lock page_lock(&page->p_mutex, LockRank::kPage);
      if (!StillNames(cache, key, entry)) continue;  // moved, dropped or stored anew meanwhile: not a byte was read
      if (now >= block->b_expires || !HasKey(block, key, keystr)) return Absent(dataSize);

      const UByte* const value = KeyBytes(block) + keystr.size();
      const size_t size = block->b_size - keystr.size();
      if (dynbuffer != nullptr) {
        result = ArrayAppend(dynbuffer, value, size);
      } else {
        *dataSize = static_cast<UInt>(size);
        result = bufSize >= size;
        if (result) CopyBytes(statbuffer, value, size);
      }
      // Asking for a value is using it, also when it did not fit: the caller comes back with a larger buffer.
      old_time = block->b_accessed;
      new_time = GetCurrentTimeMilliseconds();
      block->b_accessed = new_time;
    }
    if (result) UpdateHistogram(cache, old_time, new_time);
    return result;
  }
}

}  // namespace qxcache

Boolean QXCacheStore(Cache* cache, const UByte* key, const UByte* value, UInt size, ULong expires) {
  using namespace qxcache;
  if (key == nullptr || (value == nullptr && size != 0)) return FALSE;
  const KeyText text = TextOf(key);
  const FPrint fingerprint = FingerprintOf(text);
  for (int attempts = 0; attempts < kStoreAttempts; attempts++) {
    Page* const page = GetFreePage(cache, FALSE, TRUE, FALSE);
    if (page == nullptr) return FALSE;
    Boolean too_large;
    const Boolean written = PageWriteBlock(cache, page, fingerprint, text, value, size, expires, &too_large);
    if (written || too_large) {
      AddFreePage(cache, page, TRUE, TRUE);
      return written;
    }
    AddFullPage(cache, page, TRUE, TRUE);
  }
  return FALSE;
}

Boolean QXCacheGetStatic(Cache* cache, const UByte* key, void* buffer, UInt bufSize, UInt* dataSize) {
  using namespace qxcache;
  QX_ASSERT_TEXT(dataSize != nullptr, "dataSize != ((void *)0)");
  if (key == nullptr) return Absent(dataSize);
  const KeyText text = TextOf(key);
  return PageReadBlock(cache, FingerprintOf(text), text, nullptr, buffer, buffer != nullptr ? bufSize : 0, dataSize);
}

Boolean QXCacheGetDynamic(Cache* cache, const UByte* key, UByteArray* buffer) {
  using namespace qxcache;
  QX_ASSERT_TEXT(buffer != nullptr, "buffer != ((void *)0)");
  if (key == nullptr) return FALSE;
  const KeyText text = TextOf(key);
  return PageReadBlock(cache, FingerprintOf(text), text, buffer, nullptr, 0, nullptr);
}
