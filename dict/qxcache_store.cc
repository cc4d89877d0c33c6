// Storing, fetching and removing: blocks in pages.
//
//   page:  [ Page ][ block ][ block ]...[ block ][ room ]
//          p_copy_ptr ^                   ^ p_last  ^ p_alloc_ptr          ^ p_end
//   block: [ CacheBlock ][ key text ][ 0 ][ value ][ pad to 8 ]            b_next: the block behind, null in the last
//
// Nothing is ever freed or moved here: a store appends, and a value that is stored over stays in its page. Whatever
// needs no lock (fingerprint, clock, place of the block) is worked out before one is taken.

#include "dict/qxcache.h"

#include "dict/qxcache_front.h"
#include "dict/qxcache_internal.h"
#include "dict/report.h"

#include <algorithm>
#include <cstring>

namespace qxcache {
namespace {

constexpr size_t kCacheLine = 64;
constexpr size_t kPrefetchedLines = 4;  // of a block: header, key and the beginning of the value

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

// Fetches wait for memory more than for anything else: this has several lines on their way at once.
void PrefetchBlock(CacheBlock* block) {
  __builtin_prefetch(block, 1);
  for (size_t line = 1; line < kPrefetchedLines; line++) {
    __builtin_prefetch(reinterpret_cast<UByte*>(block) + line * kCacheLine);
  }
}

// What a look at a key's block came to.
enum class Look {
  kDone,     // it was the key's, and `visit` has seen it
  kForeign,  // another key's block: this one is not there
  kMoved,    // the index names another by now, or none: not a byte was read
  kStranger  // the front took another key for this one: the index knows more
};

// Locks the page that the index, or the front of it, has named in `entry`, calls `held` when it has a block, whosever,
// and lets `visit` see the block if it is still the key's.
template <typename Held, typename Visit>
Look LookAt(Cache* cache, FPrint key, KeyText text, const Entry& entry, Held held, Visit visit) {
  Page* const page = PageOf(cache, entry.address);
  CacheBlock* const block = BlockAt(reinterpret_cast<UByte*>(entry.address));
  __builtin_prefetch(page, 1);
  PrefetchBlock(block);
  const ULong now = GetCurrentTimeMilliseconds();  // while both are on their way
  const Lock page_lock(&page->p_mutex, LockRank::kPage);
  if (!StillNames(cache, key, entry)) return Look::kMoved;
  held();
  if (entry.FromFront() && block->b_key != key) return Look::kStranger;
  if (!HasKey(block, key, text)) return Look::kForeign;
  visit(block, now);
  return Look::kDone;
}

// Finds a key's block and lets `visit` see it, with its page locked, and the time at which it was found. False when
// there is none. `held` is called when a page has just been locked and its block not been looked at yet.
template <typename Held, typename Visit>
bool VisitBlock(Cache* cache, FPrint key, KeyText text, Held held, Visit visit) {
  for (bool ask_front = true;;) {
    Entry entry;
    if (ask_front) entry = FrontFind(cache, key);
    if (entry.address == kNoBlock) entry = IndexFind(cache, key);
    if (entry.address == kNoBlock) return false;
    const Look look = LookAt(cache, key, text, entry, held, visit);
    if (look == Look::kDone || look == Look::kForeign) return look == Look::kDone;
    ask_front = look != Look::kStranger;
  }
}

// All fetches: lets `use` have the value and records the access, whatever it answers. Only where it answers TRUE the
// histogram learns of it, or where ages are to be true. Returns its answer; FALSE when there is no value.
template <typename Use>
Boolean UseBlock(Cache* cache, FPrint key, KeyText text, Use use) {
  bool expired = false;
  Boolean result = FALSE;
  ULong old_time = 0, new_time = 0;
  // The time of the access is read when the page has been locked, but before the block is: reading the clock waits for
  // all loads from memory that have begun, and this way it does not wait for the block, nor does what follows it.
  const auto held = [&] { new_time = GetCurrentTimeMilliseconds(); };
  const bool there = VisitBlock(cache, key, text, held, [&](CacheBlock* block, ULong now) {
    expired = now >= block->b_expires;
    if (expired) return;
    // Asking for a value is using it, also when it does not fit: the caller comes back with a larger buffer.
    old_time = block->b_accessed;
    block->b_accessed = new_time;
    result = use(KeyBytes(block) + text.size(), block->b_size - text.size());
  });
  const bool found = there && !expired;
  if (result || (found && HasPolicy(cache, QX_CACHE_TRUE_AGE))) UpdateHistogram(cache, old_time, new_time);
  Count(cache, found ? &Counters::hits : there ? &Counters::expired : &Counters::misses);
  return result;
}

}  // namespace

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

  bool ageing_due;
  {
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
    ageing_due = CountIn(cache, now, need);
  }
  if (ageing_due) GCWakeToAge(cache);  // which takes a lock that is taken alone
  return TRUE;
}

Boolean PageReadBlock(Cache* cache, FPrint key, KeyText keystr, UByteArray* dynbuffer, void* statbuffer, UInt bufSize,
                      UInt* dataSize) {
  if (dataSize != nullptr) *dataSize = 0;
  return UseBlock(cache, key, keystr, [&](const UByte* value, size_t size) -> Boolean {
    if (dynbuffer != nullptr) return ArrayAppend(dynbuffer, value, size);
    *dataSize = static_cast<UInt>(size);
    if (bufSize < size) return FALSE;
    CopyBytes(statbuffer, value, size);
    return TRUE;
  });
}

}  // namespace qxcache

Boolean QXCacheStore(Cache* cache, const UByte* key, const UByte* value, UInt size, ULong expires) {
  using namespace qxcache;
  if (key == nullptr || (value == nullptr && size != 0)) return FALSE;
  const KeyText text = TextOf(key);
  const FPrint fingerprint = FingerprintOf(text);
  FrontPrefetch(cache, fingerprint);
  Boolean written = FALSE;
  for (int attempts = 0; attempts < kStoreAttempts; attempts++) {
    Page* const page = GetFreePage(cache, FALSE, TRUE, FALSE);
    if (page == nullptr) break;
    Boolean too_large;
    written = PageWriteBlock(cache, page, fingerprint, text, value, size, expires, &too_large);
    if (written || too_large) {
      AddFreePage(cache, page, TRUE, TRUE);
      break;
    }
    AddFullPage(cache, page, TRUE, TRUE);
  }
  Count(cache, written ? &Counters::stores : &Counters::refused);
  return written;
}

Boolean QXCacheGetStatic(Cache* cache, const UByte* key, void* buffer, UInt bufSize, UInt* dataSize) {
  using namespace qxcache;
  QX_ASSERT_TEXT(dataSize != nullptr, "dataSize != ((void *)0)");
  *dataSize = 0;
  if (key == nullptr) return FALSE;
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

Boolean QXCacheRead(Cache* cache, const UByte* key, QXCacheReadFunction fun, void* arg) {
  using namespace qxcache;
  QX_ASSERT_TEXT(fun != nullptr, "fun != ((void *)0)");
  if (key == nullptr) return FALSE;
  const KeyText text = TextOf(key);
  return UseBlock(cache, FingerprintOf(text), text,
                  [fun, arg](const UByte* value, size_t size) { return fun(value, static_cast<UInt>(size), arg); });
}

Boolean QXCacheRemove(Cache* cache, const UByte* key) {
  using namespace qxcache;
  if (key == nullptr) return FALSE;
  const KeyText text = TextOf(key);
  const FPrint fingerprint = FingerprintOf(text);
  KeepHiddenBlocksHidden(cache);  // first: what the index does not name from now on, it never will again
  for (bool hidden = true; hidden;) {
    bool live = false;
    const auto nothing = [] {};
    const bool there = VisitBlock(cache, fingerprint, text, nothing, [&](CacheBlock* block, ULong now) {
      hidden = !IndexTake(cache, block);  // a store over the key since we looked: that value is the one to remove
      if (hidden) return;
      live = now < block->b_expires;
      DiscardBlocks(cache, {&block, 1}, "QXCacheRemove");
    });
    if (!there) break;
    if (live) Count(cache, &Counters::removed);
    if (!hidden) return live;
  }
  return FALSE;
}
