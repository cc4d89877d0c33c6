// Looking at a HashDelTable from outside: whether it is sound, and figures about it.

#include "dict/hashdeltable.h"
#include "dict/hashdeltable_internal.h"
#include "dict/heap_check.h"
#include "dict/heap_entry.h"
#include "dict/heap_stats.h"

using namespace hashdeltable;

namespace {

// How many slots the way of a hash meets up to `slot`, itself included; 0 when an empty one comes before, at which a
// search ends, when the table is too damaged to have ways, and when no steps are left.
UInt ProbesUpTo(const HashDelTable& table, UInt hash, UInt slot, ULong* steps_left) {
  constexpr UInt kLongest = 1u << 16;  // in a table that grew by itself it is a hundred at most
  if (table.t_nentries < kFewestSlots) return 0;
  Probe probe(table.t_nentries, hash % table.t_nentries);
  for (UInt count = 1; count <= kLongest; count++) {
    if (*steps_left == 0) return 0;
    --*steps_left;
    if (probe.slot() == slot) return count;
    if (table.t_entries[probe.slot()] == heap::kEmptySlot || !probe.Next()) return 0;
  }
  return kLongest;
}

}  // namespace

Boolean HashDelTableCheck(const HashDelTable* table, const char** reason) {
  const UInt slots = table->t_nentries;
  return heap::Check(*table, {slots, slots, table->t_nkeys_max, table->t_nkeys, table->t_deleted}, reason);
}

void HashDelTableStats(const HashDelTable* table, HashTableStatistics* stats, void* ptr) {
  *stats = {};
  stats->s_keys = table->t_nkeys;
  stats->s_capacity = table->t_nkeys_max;
  stats->s_tombstones = table->t_deleted;
  // In a damaged table all slots may lie on one way, and each key would go through all of it.
  ULong steps_left = (ULong{1} << 26) + ULong{64} * table->t_nentries;
  heap::Measure(*table, table->t_nentries, ptr, stats,
                [&](UInt hash, UInt slot) { return ProbesUpTo(*table, hash, slot, &steps_left); });
}
