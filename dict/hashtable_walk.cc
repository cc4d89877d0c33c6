// Walking, choosing, ordering, copying and emptying a HashTable.
//
// Two walks that never meet. The heap walk steps through t_data in insertion order and does not look at the slots. The
// slot walk follows offsets, the table's own or a caller's list, in hash order until somebody sorts them.
//
//   chosen:  t_entries [ 48 | 0 | 16 | ---- | ---- ]         t_entries_used 3; ---- is kEmptySlot
//   heap:    t_data    [ entry 0 ][ entry 16 ][ entry 48 ]   ends at t_data_used
//
// Choosing spends the hash index: afterwards only HashTableClear makes the table searchable again.

#include <algorithm>
#include <cstring>

#include "dict/hashtable.h"
#include "dict/hashtable_internal.h"
#include "dict/heap_entry.h"
#include "dict/report.h"
#include "dict/slot_tags.h"
#include "qxlib/misc.h"

using namespace hashtable;

HashTableIterator* HashTableIteratorInit(const HashTable* table) {
  if (table == nullptr) return nullptr;
  auto* it = static_cast<HashTableIterator*>(Allocate_(sizeof(HashTableIterator), nullptr, kModule, __LINE__));
  *it = {table, 0};
  return it;
}

Boolean HashTableIteratorEnd(const HashTableIterator* it) { return heap::AtEnd(*it->t_hash, it->t_offset); }

UByte* HashTableIteratorGetValue(const HashTableIterator* it) { return it->t_hash->t_data + it->t_offset; }

UInt HashTableIteratorGetKey(const HashTableIterator* it, const UByte** kLen) {
  return heap::KeyAtOffset(*it->t_hash, it->t_offset, kLen);
}

void HashTableIteratorNext(HashTableIterator* it) {
  // An iterator at the end stays there, where the next insertion puts its entry.
  const size_t next = heap::Next(*it->t_hash, it->t_offset);
  if (next == 0) return;
  it->t_offset = static_cast<UInt>(next);
  heap::FetchFrom(*it->t_hash, next);
}

void HashTableIteratorFinalize(HashTableIterator* it) { UnAllocate_(it, kModule, __LINE__); }

UInt HashTableEnumerate(const HashTable* table, UInt offset, HashEnumerateFunction fun, void* ptr) {
  return heap::Enumerate(*table, offset, fun, ptr);
}

void HashTableSort(HashTable* table, HashCompareFunction cmp, void* ptr, UIntArray* entries) {
  QX_ASSERT_TEXT(cmp != nullptr && (entries != nullptr || table->t_selected),
                 "cmp != ((void *)0) && (entries != ((void *)0) || table->t_selected)");
  if (entries != nullptr) {
    heap::Sort(*table, entries->t.elts, entries->t.length, cmp, ptr);
  } else {
    heap::Sort(*table, table->t_entries, std::min(table->t_entries_used, table->t_entries_size), cmp, ptr);
  }
}

UInt HashTableSelect(HashTable* table, UInt count, HashSelectFunction select, void* ptr, UIntArray* array) {
  const UInt slots = table->t_selected ? std::min(table->t_entries_used, table->t_entries_size) : table->t_entries_size;
  tags::Drop(table, kModule);
  if (array == nullptr) {
    table->t_selected = TRUE;
    table->t_entries_used = heap::SelectInPlace(*table, slots, count, select, ptr);
    return table->t_entries_used;
  }
  array->t.length = 0;
  heap::Select(
      *table, slots, select, ptr, [] { return true; },
      [&](UInt offset) {
        if (array->t.length == array->t.capacity) ArrayGrow_(&array->a, sizeof(UInt), kModule, __LINE__);
        array->t.elts[array->t.length++] = offset;
      });
  return array->t.length;
}

UByte* HashTableGetIndex(const HashTable* table, UInt i, UIntArray* entries) {
  if (entries != nullptr) return heap::Named(*table, entries->t.elts[i]);
  QX_ASSERT(table->t_selected);
  return i < table->t_entries_size ? heap::Named(*table, table->t_entries[i]) : nullptr;
}

HashTable* HashTableCopy(const HashTable* table) {
  auto* copy = static_cast<HashTable*>(Allocate_(sizeof(HashTable), nullptr, kModule, __LINE__));
  *copy = *table;
  copy->t_entries = nullptr;
  tags::Duplicate(copy, copy->t_entries_size, kModule);
  copy->t_data = static_cast<UByte*>(HashMalloc(copy, 1, copy->t_data_size));
  if (copy->t_data != nullptr || copy->t_data_size == 0) {
    copy->t_entries = static_cast<UInt*>(HashMalloc(copy, sizeof(UInt), copy->t_entries_size));
  }
  if ((copy->t_data == nullptr && copy->t_data_size != 0) ||
      (copy->t_entries == nullptr && copy->t_entries_size != 0)) {
    HashTableFree(copy);
    return nullptr;
  }
  if (copy->t_data_size != 0) std::memcpy(copy->t_data, table->t_data, copy->t_data_size);
  if (copy->t_entries_size != 0) {
    std::memcpy(copy->t_entries, table->t_entries, sizeof(UInt) * copy->t_entries_size);
  }
  return copy;
}

void HashTableClear(HashTable* table) {
  table->t_entries_used = 0;
  table->t_data_used = 0;
  table->t_selected = FALSE;
  EmptySlots(table);
}
