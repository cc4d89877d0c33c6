// Walking, choosing and ordering the entries of a HashDelTable.
//
// Two walks that never meet. The heap walk steps through t_data in insertion order and does not look at the slots; it
// cannot tell a removed entry from a live one, so a table with tombstones is cleaned up before a walk starts. The slot
// walk follows the chosen offsets, in hash order until somebody sorts them.
//
//   chosen:  t_entries [ 48 | 0 | 16 | ---- | ---- ]         t_nkeys 3; ---- is kEmptySlot
//   heap:    t_data    [ entry 0 ][ entry 16 ][ entry 48 ]   ends at t_data_used
//
// A selected table never has tombstones: choosing cleans up first, and afterwards nothing can be removed. Choosing
// spends the hash index; only HashDelTableClear makes the table searchable again.

#include <algorithm>

#include "dict/hashdeltable.h"
#include "dict/hashdeltable_internal.h"
#include "dict/heap_entry.h"
#include "dict/report.h"
#include "qxlib/misc.h"

using namespace hashdeltable;

namespace {

void CleanUpBeforeWalk(HashDelTable* table, void* ptr) {
  if (!table->t_selected && table->t_deleted != 0) HashDelTableNormalize(table, ptr);
}

// The number of chosen entries; an image may claim more than there are slots.
UInt Chosen(const HashDelTable& table) { return std::min(table.t_nkeys, table.t_nentries); }

}  // namespace

HashDelTableIterator* HashDelTableIteratorInit(HashDelTable* table, void* ptr) {
  if (table == nullptr) return nullptr;
  CleanUpBeforeWalk(table, ptr);
  auto* it = static_cast<HashDelTableIterator*>(Allocate_(sizeof(HashDelTableIterator), nullptr, kModule, __LINE__));
  *it = {table, 0};
  return it;
}

Boolean HashDelTableIteratorEnd(const HashDelTableIterator* it) { return heap::AtEnd(*it->t_hash, it->t_offset); }

UByte* HashDelTableIteratorGetValue(const HashDelTableIterator* it) { return it->t_hash->t_data + it->t_offset; }

UInt HashDelTableIteratorGetKey(const HashDelTableIterator* it, const UByte** kLen) {
  return heap::KeyAtOffset(*it->t_hash, it->t_offset, kLen);
}

void HashDelTableIteratorNext(HashDelTableIterator* it) {
  // An iterator at the end stays there, where the next insertion puts its entry.
  const size_t next = heap::Next(*it->t_hash, it->t_offset);
  if (next == 0) return;
  it->t_offset = static_cast<UInt>(next);
  heap::FetchFrom(*it->t_hash, next);
}

void HashDelTableIteratorFinalize(HashDelTableIterator* it) { UnAllocate_(it, kModule, __LINE__); }

UInt HashDelTableEnumerate(HashDelTable* table, UInt offset, HashEnumerateFunction fun, void* ptr) {
  CleanUpBeforeWalk(table, ptr);
  return heap::Enumerate(*table, offset, fun, ptr);
}

void HashDelTableSort(HashDelTable* table, HashCompareFunction cmp, void* ptr) {
  QX_ASSERT_TEXT(cmp != nullptr && table->t_selected, "cmp != ((void *)0) && table->t_selected");
  heap::Sort(*table, table->t_entries, Chosen(*table), cmp, ptr);
}

UInt HashDelTableSelect(HashDelTable* table, UInt count, HashSelectFunction select, void* ptr) {
  if (table->t_deleted != 0) HashDelTableNormalize(table, ptr);
  const UInt slots = table->t_selected ? Chosen(*table) : table->t_nentries;
  table->t_selected = TRUE;
  table->t_tags = nullptr;
  table->t_nkeys = heap::SelectInPlace(*table, slots, count, select, ptr);
  return table->t_nkeys;
}

UByte* HashDelTableGetIndex(const HashDelTable* table, UInt i) {
  QX_ASSERT(table->t_selected);
  return i < table->t_nentries ? heap::Named(*table, table->t_entries[i]) : nullptr;
}
