// Whether what a table's record says about its slots and its heap is true: what both checkers share.
//
// A table is sound when its heap is a gap-free sequence of entries up to t_data_used, and its slots name each live
// entry once. Everything is read once, in bounds; the only memory taken is the set of the places that slots name.

#ifndef DICT_HEAP_CHECK_H
#define DICT_HEAP_CHECK_H

#include <cstddef>

#include "dict/entry_places.h"
#include "dict/heap_entry.h"

namespace heap {

// What a record says, in the words of neither table.
struct Claims {
  UInt slots;
  UInt most_slots;  // that growing by any factor leaves
  UInt capacity;
  UInt keys;        // live, or chosen
  UInt tombstones;  // 0 where there are none
};

// The first thing wrong; null when nothing is. The texts are told in the headers.
template <typename Table>
const char* FirstFault(const Table& table, const Claims& claims) {
  if (table.t_key_size > 4) return "the key length field is wider than 4 bytes";
  if (claims.slots < 3 || table.t_entries == nullptr) return "there are too few slots";
  if (claims.capacity >= claims.slots) return "the capacity leaves no free slot";
  if (claims.slots > claims.most_slots) return "there are more slots than the capacity asks for";
  if (claims.keys > claims.capacity - std::min(claims.capacity, claims.tombstones) ||
      claims.tombstones > claims.capacity) {
    return "there are more keys than the capacity";
  }
  if (table.t_selected && claims.tombstones != 0) return "a selection has tombstones";
  if (table.t_data_used > table.t_data_size || (table.t_data_used != 0 && table.t_data == nullptr)) {
    return "the heap in use is larger than the heap";
  }
  if (table.t_data_used > kHeapLimit) return "the heap in use is larger than offsets reach";

  EntryPlaces named(table.t_data_used, table.t_aligned != FALSE, "dict/heap_check");
  UInt taken = 0;
  UInt tombstones = 0;
  for (UInt s = 0; s < claims.slots; s++) {
    const UInt offset = table.t_entries[s];
    if (offset == kEmptySlot) continue;
    if (table.t_selected && s >= claims.keys) return "a slot behind the selection is not empty";
    if (claims.tombstones != 0 && offset == kEmptySlot - 1) {
      tombstones++;
      continue;
    }
    if (offset >= table.t_data_used) return "a slot names a place outside the heap";
    if (table.t_aligned && offset % kAlignment != 0) return "a slot names a place between entries";
    if (named.Marked(offset)) return "two slots name the same entry";
    named.Mark(offset);
    taken++;
  }
  if (taken != claims.keys) return "the number of keys is not that of the slots taken";
  if (tombstones != claims.tombstones) return "the number of tombstones is not that of the slots";

  size_t at = 0;
  size_t entries = 0;
  UInt met = 0;
  while (at < table.t_data_used) {
    const Key key = KeyAt(table, at);
    if (key.bytes == nullptr) return "an entry leaves the heap";
    if (key.bytes == table.t_data + at + table.t_val_len) return "a key length is malformed";
    const size_t end = static_cast<size_t>(key.bytes - table.t_data) + key.length;
    if (end > table.t_data_used) return "an entry leaves the heap";
    if (named.Marked(at)) met++;
    entries++;
    at = table.t_aligned ? RoundUp(end) : end;
  }
  if (met != taken) return "a slot names a place between entries";
  if (!table.t_selected && entries != size_t{taken} + tombstones) return "an entry has no slot";
  return nullptr;
}

// Stores the first fault, when asked for it. TRUE when there is none.
template <typename Table>
Boolean Check(const Table& table, const Claims& claims, const char** reason) {
  const char* fault = FirstFault(table, claims);
  if (reason != nullptr) *reason = fault;
  return fault == nullptr ? TRUE : FALSE;
}

}  // namespace heap

#endif
