// A checker of the table in front of a cache's index.
#ifndef TESTS_SUPPORT_CACHE_FRONT_H
#define TESTS_SUPPORT_CACHE_FRONT_H

#include <gtest/gtest.h>

#include <set>

#include "dict/qxcache.h"
#include "dict/qxcache_internal.h"

namespace support {

// Checks that every word of the present stage holds an address that the index names, and no two the same. Nobody else
// may use the cache meanwhile. Returns how many there are.
inline size_t CheckFront(const Cache* cache) {
  const CacheExtra* const extra = cache->c_extra;
  if (extra->front == nullptr) return 0;
  std::set<ULong> named;
  QXAVLLDictEnumerate(
      cache->c_dict, FALSE,
      [](AVLLDict*, AVLLDictKey, AVLLDictValue value, void* arg) -> Boolean {
        static_cast<std::set<ULong>*>(arg)->insert(value);
        return TRUE;
      },
      &named);
  std::set<ULong> seen;
  for (const ULong* word = extra->front; word != extra->front + (extra->front_first << extra->front_stage) * 8;
       word++) {
    const ULong address = *word & 0x0000FFFFFFFFFFF8;
    if (address == 0 || (*word & 7) != extra->front_stage) continue;
    EXPECT_EQ(named.count(address), 1u) << "the front names what the index does not";
    EXPECT_TRUE(seen.insert(address).second) << "the front names a block twice";
  }
  return seen.size();
}

}  // namespace support

#endif
