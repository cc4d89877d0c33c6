// Looking at a HashTable from outside: whether it is sound, and figures about it.

#include "dict/hashtable.h"

#include <algorithm>

#include "dict/heap_check.h"
#include "dict/heap_entry.h"
#include "dict/heap_stats.h"
#include "qxlib/prime.h"

Boolean HashTableCheck(const HashTable* table, const char** reason) {
  // Growing asserts that slots never become fewer.
  const UInt capacity = table->t_entries_capacity;
  const UInt most_slots = Prime(heap::SlotsFor(std::min(capacity, heap::kMaximumCapacity)));
  return heap::Check(*table, {table->t_entries_size, most_slots, capacity, table->t_entries_used, 0}, reason);
}

void HashTableStats(const HashTable* table, HashTableStatistics* stats, void* ptr) {
  *stats = {};
  stats->s_keys = table->t_entries_used;
  stats->s_capacity = table->t_entries_capacity;
  const UInt slots = table->t_entries_size;
  heap::Measure(*table, slots, ptr, stats, [slots](UInt hash, UInt slot) {
    const UInt start = hash % slots;
    return (slot >= start ? slot - start : slots - start + slot) + 1;
  });
}
