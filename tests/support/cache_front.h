// A checker of the table in front of a cache's index.
#ifndef TESTS_SUPPORT_CACHE_FRONT_H
#define TESTS_SUPPORT_CACHE_FRONT_H

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "dict/qxcache.h"
#include "dict/qxcache_front.h"
#include "dict/qxcache_internal.h"

namespace support {

// Checks that every word holds an address that the index names under a key of the word's bucket and tag, and no two the
// same. Nobody else may use the cache meanwhile. Returns how many there are.
inline size_t CheckFront(const Cache* cache) {
  const CacheExtra* const extra = cache->c_extra;
  if (extra->front == nullptr) return 0;
  std::map<ULong, FPrint> named;  // the key by the address
  QXAVLLDictEnumerate(
      cache->c_dict, FALSE,
      [](AVLLDict*, AVLLDictKey key, AVLLDictValue value, void* arg) -> Boolean {
        static_cast<std::map<ULong, FPrint>*>(arg)->emplace(value, key);
        return TRUE;
      },
      &named);
  std::set<ULong> seen;
  for (const ULong* word = extra->front; word != extra->front + extra->front_buckets * 8; word++) {
    if (*word == 0) continue;
    const ULong address = *word >> 16 & ~ULong{7};
    const auto entry = named.find(address);
    EXPECT_NE(entry, named.end()) << "the front names what the index does not";
    EXPECT_TRUE(seen.insert(address).second) << "the front names a block twice";
    if (entry == named.end()) continue;
    EXPECT_EQ(*word & 0x7FFFF, entry->second >> extra->front_first_bits & 0x7FFFF) << "another key's tag";
    EXPECT_EQ((word - extra->front) / 8, (qxcache::BucketOf(extra, entry->second) - extra->front) / 8);
  }
  return seen.size();
}

}  // namespace support

#endif
