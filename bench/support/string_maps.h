// The peers of the byte-keyed tables, one interface: maps from a string, copied into the map, to a number.
//
// Insert gives a key that is not there a number; Find tells its number, kAbsent when it has none; Remove whether it was
// there. robin_map keeps the hash beside the entry and GHashTable too, as their users would have it.
#ifndef BENCH_SUPPORT_STRING_MAPS_H
#define BENCH_SUPPORT_STRING_MAPS_H

#include <glib.h>
#include <tsl/robin_map.h>

#include <cstdint>
#include <string>
#include <unordered_map>

#include "absl/container/flat_hash_map.h"

namespace bench {

constexpr uint64_t kAbsent = ~uint64_t{0};

template <typename Map>
class StringMap {
 public:
  void Insert(const std::string& key, uint64_t value) { map_.emplace(key, value); }
  uint64_t Find(const std::string& key) const {
    const auto at = map_.find(key);
    return at == map_.end() ? kAbsent : at->second;
  }
  bool Remove(const std::string& key) { return map_.erase(key) != 0; }
  uint64_t Sum() const {
    uint64_t sum = 0;
    for (const auto& [key, value] : map_) sum += value + key.size();
    return sum;
  }

 private:
  Map map_;
};

using AbslMap = StringMap<absl::flat_hash_map<std::string, uint64_t>>;
using StdMap = StringMap<std::unordered_map<std::string, uint64_t>>;
using RobinMap = StringMap<tsl::robin_map<std::string, uint64_t, std::hash<std::string>, std::equal_to<>,
                                          std::allocator<std::pair<std::string, uint64_t>>, true>>;

// Keys are C strings; a number is kept in the place of the value's pointer.
class GlibMap {
 public:
  GlibMap() : map_(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr)) {}
  ~GlibMap() { g_hash_table_destroy(map_); }
  GlibMap(const GlibMap&) = delete;
  GlibMap& operator=(const GlibMap&) = delete;

  void Insert(const std::string& key, uint64_t value) {
    g_hash_table_insert(map_, g_strndup(key.data(), key.size()), GSIZE_TO_POINTER(value));
  }
  uint64_t Find(const std::string& key) const {
    gpointer value;
    return g_hash_table_lookup_extended(map_, key.c_str(), nullptr, &value) ? GPOINTER_TO_SIZE(value) : kAbsent;
  }
  bool Remove(const std::string& key) { return g_hash_table_remove(map_, key.c_str()); }
  uint64_t Sum() const {
    uint64_t sum = 0;
    g_hash_table_foreach(
        map_,
        [](gpointer key, gpointer value, gpointer total) {
          *static_cast<uint64_t*>(total) += GPOINTER_TO_SIZE(value) + strlen(static_cast<const char*>(key));
        },
        &sum);
    return sum;
  }

 private:
  GHashTable* map_;
};

}  // namespace bench

#endif
