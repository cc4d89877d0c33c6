// Figures of a table: what both statistics share.

#ifndef DICT_HEAP_STATS_H
#define DICT_HEAP_STATS_H

#include <algorithm>
#include <cstddef>

#include "dict/heap_entry.h"

namespace heap {

// Bytes of the entry at `at`, without padding; 0 where there is none inside the heap.
template <typename Table>
size_t EntryLength(const Table& table, size_t at) {
  const Key key = KeyAt(table, at);
  return key.bytes == nullptr ? 0 : static_cast<size_t>(key.bytes - table.t_data) + key.length - at;
}

// Fills in everything but the counts that the tables name differently. `probes(hash, slot)` says how many slots a
// search looks at that ends at `slot`; 0: none does. Keys are hashed as long as the slots name no more bytes than there
// are: a damaged table may name one long key over and over.
template <typename Table, typename Probes>
void Measure(const Table& table, UInt slots, void* ptr, HashTableStatistics* stats, Probes probes) {
  size_t live = 0;
  ULong looked_at = 0;
  UInt searched = 0;
  for (UInt s = 0; s < slots; s++) {
    const UInt offset = table.t_entries[s];
    const size_t length = offset < table.t_data_used ? EntryLength(table, offset) : 0;
    if (length == 0) continue;
    live += length;
    if (table.t_selected || live > table.t_data_used) continue;
    const Key key = KeyAt(table, offset);
    const UInt count = probes(Hash(table, key.bytes, key.length, ptr), s);
    if (count == 0) continue;
    searched++;
    looked_at += count;
    stats->s_longest_probe = std::max(stats->s_longest_probe, count);
  }
  size_t entries = 0;
  for (size_t at = 0, next; (next = Next(table, at)) != 0; at = next) entries += EntryLength(table, at);

  if (searched != 0) stats->s_mean_probe = static_cast<double>(looked_at) / searched;
  if (slots != 0) stats->s_load = (static_cast<double>(stats->s_keys) + stats->s_tombstones) / slots;
  stats->s_slots = slots;
  stats->s_heap_used = table.t_data_used;
  stats->s_heap_size = table.t_data_size;
  stats->s_padding = table.t_data_used - std::min(entries, table.t_data_used);
  stats->s_dead = entries - std::min(entries, live);
}

}  // namespace heap

#endif
