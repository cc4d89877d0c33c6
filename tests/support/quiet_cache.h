// A cache without its collector, for tests that drive the collector's steps themselves, and a checker of everything
// that must hold in a cache that nobody is using.
#ifndef TESTS_SUPPORT_QUIET_CACHE_H
#define TESTS_SUPPORT_QUIET_CACHE_H

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "dict/qxcache.h"
#include "qxlib/misc.h"

namespace support {

struct CacheParameters {
  UInt region_size = 8;
  UInt page_size = 1024;
  double safety = 1.0;
  double low = 8.0;
  double high = 16.0;
  UInt generation = 1000;
  ULong regions = 1;
  UInt policy = 0;
};

inline Cache* NewCache(const CacheParameters& p) {
  const ULong size = p.regions * p.region_size * p.page_size;
  if (p.policy == 0) {
    return QXCacheNewWithParams(p.region_size, p.page_size, p.safety, p.low, p.high, p.generation, size);
  }
  return QXCacheNewWithPolicy(p.region_size, p.page_size, p.safety, p.low, p.high, p.generation, size, p.policy);
}

inline const UByte* Bytes(const char* text) { return reinterpret_cast<const UByte*>(text); }
inline const UByte* Bytes(const std::string& text) { return Bytes(text.c_str()); }

template <typename Number>
std::string Numbered(std::string text, Number number) {
  text += std::to_string(number);
  return text;
}

constexpr ULong kNever = ULONG_MAX;  // an expiry

// Ends the collector's thread. The cache stays usable, and deletion has nothing to join.
inline void StopCollector(Cache* cache) {
  pthread_mutex_lock(&cache->c_alloc_mutex);
  cache->c_closing = TRUE;
  ConditionSignal(&cache->c_alloc_cond);
  pthread_mutex_unlock(&cache->c_alloc_mutex);
  ThreadJoin(cache->c_gc_thread);
  cache->c_closing = FALSE;
  cache->c_gc_started = FALSE;
}

class QuietCache {
 public:
  explicit QuietCache(const CacheParameters& p = {}) : cache_(NewCache(p)) {
    EXPECT_NE(cache_, nullptr);
    StopCollector(cache_);
  }
  ~QuietCache() { QXCacheDelete(cache_); }
  QuietCache(const QuietCache&) = delete;
  QuietCache& operator=(const QuietCache&) = delete;

  Cache* get() const { return cache_; }
  Cache* operator->() const { return cache_; }

  bool Store(const std::string& key, const std::string& value, ULong expires = kNever) const {
    return QXCacheStore(cache_, Bytes(key), Bytes(value), static_cast<UInt>(value.size()), expires) != FALSE;
  }

  // The value, or "(none)".
  std::string Fetch(const std::string& key) const {
    UByteArray array;
    ArrayInit_(&array.a);
    std::string result = "(none)";
    if (QXCacheGetDynamic(cache_, Bytes(key), &array)) {
      result.clear();
      if (array.t.length > 0) result.assign(reinterpret_cast<const char*>(array.t.elts), array.t.length);
    } else {
      EXPECT_EQ(array.t.length, 0u);
    }
    ArrayFree_(&array.a, "tests", __LINE__);
    return result;
  }

  UInt Objects() const {
    UInt objects;
    QXCacheGetSize(cache_, &objects, nullptr);
    return objects;
  }
  ULong Bytes_() const {
    ULong bytes;
    QXCacheGetSize(cache_, nullptr, &bytes);
    return bytes;
  }

  // The address that the index has for a key; 0: none.
  ULong Indexed(const std::string& key) const {
    return QXAVLLDictFind(cache_->c_dict, Fingerprint(Bytes(key), static_cast<UInt>(key.size())), 0);
  }
  CacheBlock* Block(const std::string& key) const { return reinterpret_cast<CacheBlock*>(Indexed(key)); }

  Page* PageAt(UInt index) const {
    const Region region = cache_->c_regions.t.elts[index / cache_->c_region_size];
    return reinterpret_cast<Page*>(static_cast<char*>(region.r_base) +
                                   size_t{index % cache_->c_region_size} * cache_->c_page_size);
  }
  UInt PageCount() const { return cache_->c_regions.t.length * cache_->c_region_size; }

 private:
  Cache* cache_;
};

inline std::vector<Page*> ListFromHead(Page* head) {
  std::vector<Page*> pages;
  for (Page* page = head; page != nullptr; page = page->p_next) pages.push_back(page);
  return pages;
}
inline std::vector<Page*> FreeList(const Cache* cache) { return ListFromHead(cache->c_free_head); }
inline std::vector<Page*> FullList(const Cache* cache) { return ListFromHead(cache->c_full_head); }

inline std::vector<CacheBlock*> BlocksOf(Page* page) {
  std::vector<CacheBlock*> blocks;
  if (page->p_alloc_ptr == page->p_copy_ptr) return blocks;
  for (auto* block = reinterpret_cast<CacheBlock*>(page->p_copy_ptr); block != nullptr; block = block->b_next) {
    blocks.push_back(block);
  }
  return blocks;
}

inline bool IsDead(const CacheBlock* block) { return block->b_created == ULONG_MAX; }

inline std::string KeyOf(const CacheBlock* block) { return reinterpret_cast<const char*>(block + 1); }
inline std::string ValueOf(const CacheBlock* block) {
  const std::string key = KeyOf(block);
  return {reinterpret_cast<const char*>(block + 1) + key.size() + 1, block->b_size - key.size() - 1};
}

// Checks lists, pages, blocks, index and counts against one another. Nobody else may use the cache meanwhile, its
// collector included. Returns how many pages are on neither list.
inline size_t CheckCache(Cache* cache) {
  std::set<Page*> listed;
  for (const bool full : {false, true}) {
    Page* const head = full ? cache->c_full_head : cache->c_free_head;
    Page* const tail = full ? cache->c_full_tail : cache->c_free_tail;
    Page* before = nullptr;
    UInt count = 0;
    for (Page* page = head; page != nullptr; before = page, page = page->p_next, count++) {
      EXPECT_EQ(page->p_prev, before);
      EXPECT_TRUE(listed.insert(page).second) << "a page is listed twice";
    }
    EXPECT_EQ(tail, before);
    EXPECT_EQ(count, full ? cache->c_nb_full_pages : cache->c_nb_free_pages);
  }

  UInt objects = 0;
  ULong bytes = 0;
  std::set<const CacheBlock*> live;
  for (UInt r = 0; r < cache->c_regions.t.length; r++) {
    for (UInt i = 0; i < cache->c_region_size; i++) {
      char* const start = static_cast<char*>(cache->c_regions.t.elts[r].r_base) + size_t{i} * cache->c_page_size;
      Page* const page = reinterpret_cast<Page*>(start);
      UByte* expected = reinterpret_cast<UByte*>(start) + sizeof(Page);
      EXPECT_EQ(page->p_copy_ptr, expected);
      EXPECT_EQ(page->p_end, reinterpret_cast<UByte*>(start) + cache->c_page_size);
      for (CacheBlock* block : BlocksOf(page)) {
        EXPECT_EQ(reinterpret_cast<UByte*>(block), expected);
        EXPECT_EQ(block->b_page, page);
        expected += (56 + block->b_size + 7) / 8 * 8;
        if (block->b_next == nullptr) {
          EXPECT_EQ(page->p_last, block);
        }
        const std::string key = KeyOf(block);
        EXPECT_LT(key.size(), block->b_size);
        EXPECT_EQ(block->b_key, Fingerprint(Bytes(key), static_cast<UInt>(key.size())));
        if (IsDead(block)) continue;
        live.insert(block);
        objects++;
        bytes += block->b_size;
      }
      EXPECT_EQ(page->p_alloc_ptr, expected);
      EXPECT_LE(page->p_alloc_ptr, page->p_end);
    }
  }
  EXPECT_EQ(cache->c_nb_objects, objects);
  EXPECT_EQ(cache->c_total_size, bytes);

  QXAVLLDictEnumerate(
      cache->c_dict, FALSE,
      [](AVLLDict*, AVLLDictKey key, AVLLDictValue value, void* arg) -> Boolean {
        const auto* block = reinterpret_cast<const CacheBlock*>(value);
        if (static_cast<std::set<const CacheBlock*>*>(arg)->count(block) == 0) {
          ADD_FAILURE() << "the index names what is no live block";
          return FALSE;
        }
        EXPECT_EQ(block->b_key, key);
        return TRUE;
      },
      &live);
  AVLLCheck(cache->c_dict);
  return size_t{cache->c_regions.t.length} * cache->c_region_size - listed.size();
}

}  // namespace support

#endif
