// HashTable: its memory, look-up, insertion and growth.
//
// A slot array of heap offsets beside a heap of entries (heap_entry.h has their layout). A key is looked for from the
// slot that its hash names on, slot after slot, until a slot is empty; at most two slots of three are taken.
//
//   t_entries  [ ---- | 48 | 0 | ---- | 16 ]      ---- is kEmptySlot; S slots, S prime
//   t_data     [ entry 0 ][ entry 16 ][ entry 48 ].....
//
// Slots follow from the hashes and the order of insertion alone, never from the history of growth: growing places the
// heap's entries one after another into an empty array. Files carry slots, so this order is part of the format.

#include "dict/hashtable.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>

#include "dict/hashtable_internal.h"
#include "dict/heap_entry.h"
#include "dict/huge_pages.h"
#include "dict/report.h"
#include "dict/slot_tags.h"
#include "qxlib/misc.h"

static_assert(offsetof(HashTable, t_data) == 24 && offsetof(HashTable, t_entries) == 32);
static_assert(offsetof(HashTable, t_data_used) == 40 && offsetof(HashTable, t_data_size) == 48);
static_assert(offsetof(HashTable, t_entries_capacity) == 56 && offsetof(HashTable, t_entries_used) == 60);
static_assert(offsetof(HashTable, t_entries_size) == 64 && offsetof(HashTable, t_val_len) == 68);
static_assert(offsetof(HashTable, t_selected) == 72 && offsetof(HashTable, t_key_size) == 76);
static_assert(offsetof(HashTable, t_vm) == 77 && offsetof(HashTable, t_aligned) == 80);

namespace hashtable {

void* HashMalloc(const HashTable* table, size_t size, size_t nsize) {
  const size_t bytes = size * nsize;
  if (bytes == 0) return nullptr;
  if (!table->t_vm) return Allocate_(bytes, nullptr, kModule, __LINE__);
  void* block = MemoryMap_(bytes, kModule, __LINE__);
  if (block == nullptr) QX_MESSAGE(qx::kFailure, TRUE, ":hashtable: memory allocation failed: size=%lu", bytes);
  qx::AdviseHugePages(block, bytes);
  return block;
}

void* HashRealloc(const HashTable* table, size_t size, void* ptr, size_t osize, size_t nsize) {
  QX_ASSERT(osize <= nsize);
  const size_t bytes = size * nsize;
  if (bytes == 0) return nullptr;
  if (!table->t_vm) return Allocate_(bytes, ptr, kModule, __LINE__);
  void* block =
      ptr != nullptr ? MemoryRemap_(ptr, size * osize, bytes, kModule, __LINE__) : MemoryMap_(bytes, kModule, __LINE__);
  if (block == nullptr) QX_MESSAGE(qx::kFailure, TRUE, ":hashtable: memory reallocation failed: size=%lu", bytes);
  qx::AdviseHugePages(block, bytes);
  return block;
}

void HashFree(const HashTable* table, size_t size, void* ptr, size_t osize) {
  if (ptr == nullptr) return;
  if (!table->t_vm) {
    UnAllocate_(ptr, kModule, __LINE__);
  } else if (!MemoryUnmap_(ptr, size * osize, kModule, __LINE__)) {
    QX_MESSAGE(qx::kFailure, TRUE, ":hashtable: memory deallocation failed: size=%lu", size * osize);
  }
}

void EmptySlots(HashTable* table) {
  if (table->t_entries_size == 0) return;
  std::memset(table->t_entries, 0xFF, sizeof(UInt) * table->t_entries_size);
  tags::Reset(table, table->t_entries_size, kModule);
}

void NoteSlotCount(HashTable* table) {
  table->t_divisor = table->t_entries_size;
  table->t_reciprocal = heap::Reciprocal(table->t_divisor);
}

}  // namespace hashtable

namespace {

using namespace hashtable;

// What the shared insertion must know about this table.
struct HashTableTraits {
  using Table = HashTable;
  static constexpr const char* kModule = hashtable::kModule;
  static constexpr const char* kFindName = "HashTableFind";

  static bool Padded(const HashTable& table) { return table.t_aligned != FALSE; }

  static bool ResizeHeap(HashTable* table, size_t size) {
    const size_t old = table->t_data_size;
    auto* data = static_cast<UByte*>(HashRealloc(table, 1, table->t_data, old, size));
    if (data == nullptr) return false;
    if (!table->t_vm) std::memset(data + old, 0, size - old);  // files carry the whole heap
    table->t_data = data;
    table->t_data_size = size;
    return true;
  }

  static void CheckPlace(const HashTable& table, size_t entry) {
    if (table.t_aligned && entry % sizeof(void*) != 0) {
      qxassert_("!table->t_aligned || (entry % sizeof(void*) == 0)", kModule, __LINE__);
    }
  }
};

std::atomic<int> initialized = 0;

// The slot where the search for a key with this hash starts; 0 when there are no slots.
UInt StartSlot(const HashTable& table, UInt hash) {
  if (table.t_divisor == table.t_entries_size) [[likely]] {
    return heap::Remainder(hash, table.t_divisor, table.t_reciprocal);
  }
  return table.t_entries_size != 0 ? hash % table.t_entries_size : 0;
}

// Where a search ended: at the key's slot, or at the empty slot where the key is to be inserted.
struct Place {
  UInt slot;    // kNoSlot: there is none
  UInt offset;  // kEmptySlot: the key is absent
};

constexpr UInt kNoSlot = 0xFFFFFFFF;
constexpr Place kNowhere = {kNoSlot, heap::kEmptySlot};

// Looks for a key, slot after slot from `s` on.
Place SearchSlots(const HashTable& table, UInt s, const heap::KeyGiven<HashTable>& key, UInt len, void* ptr) {
  const UInt slots = table.t_entries_size;
  for (UInt left = slots; left != 0; left--) {  // a table from a file may have no empty slot for the search to end at
    const UInt offset = table.t_entries[s];
    if (offset == heap::kEmptySlot) return {s, heap::kEmptySlot};
    if (heap::Matches(table, offset, key.bytes(), len, ptr)) return {s, offset};
    if (table.t_entries_size != slots) [[unlikely]]  // the equality callback has grown the table
      return kNowhere;
    if (++s == slots) s = 0;
  }
  return kNowhere;
}

// The same by the tags, a group at a time; a slot whose tag is another is not looked at. `match(offset)` says whether
// an entry is the one.
template <typename Match>
Place SearchTags(const HashTable& table, UInt s, UByte tag, Match match) {
  const UInt slots = table.t_entries_size;
  const auto wrapped = [slots](UInt slot) { return slot < slots ? slot : slot - slots; };
  for (size_t seen = 0; seen < slots; seen += tags::kGroup) {
    const tags::Group group(table.t_tags + s);
    const UInt empty = group.Equal(tags::kEmpty);
    // Only what lies in front of the first empty slot; all of the group when there is none.
    for (UInt equal = group.Equal(tag) & (empty ^ (empty - 1)); equal != 0; equal &= equal - 1) {
      const UInt slot = wrapped(s + static_cast<UInt>(std::countr_zero(equal)));
      const UInt offset = table.t_entries[slot];
      if (match(offset)) return {slot, offset};
    }
    if (empty != 0) return {wrapped(s + static_cast<UInt>(std::countr_zero(empty))), heap::kEmptySlot};
    s = wrapped(s + tags::kGroup);
  }
  return kNowhere;
}

void Fetch(const HashTable& table, UInt s) {
  if (table.t_tags != nullptr) __builtin_prefetch(table.t_tags + s);
  __builtin_prefetch(table.t_entries + s);
}

// The offset may be any that a file says, also where there is no heap: no pointer is made of it.
void FetchHeap(const HashTable& table, size_t at) {
  __builtin_prefetch(reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(table.t_data) + at));
}

// A key is read whole: its first and last byte lie in the same line or in neighbours, as a rule.
void FetchKey(const UByte* bytes, UInt len) {
  __builtin_prefetch(bytes);
  __builtin_prefetch(reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(bytes) + len));
}

Place Search(const HashTable& table, UInt hash, const heap::KeyGiven<HashTable>& key, UInt len, void* ptr) {
  const UInt s = StartSlot(table, hash);
  if (table.t_tags == nullptr) return SearchSlots(table, s, key, len, ptr);
  __builtin_prefetch(table.t_entries + s);
  const UByte* bytes = key.bytes();
  return SearchTags(table, s, tags::Of(hash),
                    [&](UInt offset) { return heap::Matches(table, offset, bytes, len, ptr); });
}

// The first slot that a look-up of a key with this hash will have to follow into the heap, if there is one.
Place Likely(const HashTable& table, UInt hash) {
  if (table.t_entries_size == 0) return kNowhere;
  const UInt s = StartSlot(table, hash);
  if (table.t_tags != nullptr) return SearchTags(table, s, tags::Of(hash), [](UInt) { return true; });
  return {s, table.t_entries[s]};
}

// The entry that a search has found, or null; its offset is stored where asked for.
UByte* EntryAt(const HashTable& table, const Place& found, UInt* offset) {
  if (found.offset == heap::kEmptySlot) return nullptr;
  if (offset != nullptr) *offset = found.offset;
  return table.t_data + found.offset;
}

// The first empty slot from s on, or kNoSlot when all are taken.
UInt EmptySlotFrom(const HashTable& table, UInt s) {
  if (table.t_tags != nullptr) return SearchTags(table, s, tags::kEmpty, [](UInt) { return true; }).slot;
  for (UInt left = table.t_entries_size; left != 0; left--) {
    if (table.t_entries[s] == heap::kEmptySlot) return s;
    if (++s >= table.t_entries_size) s = 0;
  }
  return kNoSlot;
}

// Stores an entry's offset in a slot; false when there is no such slot.
bool Occupy(HashTable* table, UInt s, UInt offset, UInt hash) {
  if (s == kNoSlot) return false;
  table->t_entries[s] = offset;
  if (table->t_tags != nullptr) tags::Set(table->t_tags, table->t_entries_size, s, tags::Of(hash));
  return true;
}

// Hashes every key anew into slots for this capacity; false: the mapping failed, and all is as before.
bool Rebuild(HashTable* table, UInt capacity, void* ptr) {
  const UInt slots = Prime(heap::SlotsFor(capacity));
  void* entries = HashRealloc(table, sizeof(UInt), table->t_entries, table->t_entries_size, slots);
  if (entries == nullptr) return false;
  table->t_entries_capacity = capacity;
  table->t_entries_size = slots;
  table->t_entries = static_cast<UInt*>(entries);
  NoteSlotCount(table);
  EmptySlots(table);
  heap::Rehash(
      *table, ptr, [&](UInt hash) { return StartSlot(*table, hash); }, [&](UInt s) { Fetch(*table, s); },
      [&](UInt s, UInt entry, UInt hash) { return Occupy(table, EmptySlotFrom(*table, s), entry, hash); });
  return true;
}

// Whether look-ups can go by tags and by heap::SurelyMatches, without calling back.
bool HasPlainTags(const HashTable& table) {
  return table.t_tags != nullptr && table.t_hash == nullptr && table.t_equal == nullptr && table.t_key_size == 0 &&
         !table.t_selected;
}

// Inserts a key that is absent, into the first empty slot from where the search for it started.
[[gnu::noinline]] UByte* Insert(HashTable* table, const UByte* bytes, UInt len, UInt hash, UInt* offset, void* ptr) {
  if (HashTableFull(table)) return nullptr;
  size_t place;
  if (!heap::Append<HashTableTraits>(table, bytes, len, ptr, &place)) return nullptr;
  // The value callback may have grown the table: only now is it certain which slot that is.
  const UInt entry = static_cast<UInt>(place);
  if (!Occupy(table, EmptySlotFrom(*table, StartSlot(*table, hash)), entry, hash)) return nullptr;
  table->t_entries_used++;
  if (offset != nullptr) *offset = entry;
  return table->t_data + entry;
}

// HashTableFind, for every table.
[[gnu::noinline]] UByte* FindOrInsert(HashTable* table, const UByte* bytes, UInt len, Boolean create, UInt* offset,
                                      void* ptr) {
  const heap::KeyGiven<HashTable> key(*table, bytes);  // callbacks that insert may move it
  const UInt hash = heap::Hash(*table, bytes, len, ptr);
  QX_ASSERT_IN(kModule, "HashTableFind", !table->t_selected, "!table->t_selected");
  QX_ASSERT_IN(kModule, "HashTableFind", heap::LengthFits(len, table->t_key_size), "l < (b << (8 * k))");

  const Place found = Search(*table, hash, key, len, ptr);
  if (UByte* entry = EntryAt(*table, found, offset); entry != nullptr) return entry;
  return found.slot != kNoSlot && create ? Insert(table, key.bytes(), len, hash, offset, ptr) : nullptr;
}

}  // namespace

void QXDictInit(void) {
  int before = 0;
  initialized.compare_exchange_strong(before, 1);
}

UInt HashBytes(const UByte* bytes, UInt len) { return heap::HashKey(bytes, len); }

HashTable* HashTableNew(UInt capacity, HashKeyFunction hash, HashValueFunction value, HashEqualFunction equal,
                        UInt val_len, UByte key_size, Boolean vm) {
  // Three slots for two keys would wrap in the 32 bits that count them, and leave a table whose probes never end.
  if (capacity > heap::kMaximumCapacity) {
    QX_MESSAGE(qx::kFailure, FALSE, ":hashtable: capacity too large: capacity=%u", capacity);
    return nullptr;
  }
  auto* table = static_cast<HashTable*>(Allocate_(sizeof(HashTable), nullptr, kModule, __LINE__));
  *table = {};
  table->t_hash = hash;
  table->t_value = value;
  table->t_equal = equal;
  table->t_val_len = val_len;
  table->t_key_size = key_size;
  table->t_vm = vm != FALSE;
  table->t_aligned = TRUE;
  table->t_entries_capacity = std::max(capacity, heap::kMinimumCapacity);
  table->t_entries_size = Prime(heap::SlotsFor(table->t_entries_capacity));
  table->t_data_size = size_t{5} * table->t_entries_size;
  NoteSlotCount(table);

  table->t_entries = static_cast<UInt*>(HashMalloc(table, sizeof(UInt), table->t_entries_size));
  if (table->t_entries != nullptr) table->t_data = static_cast<UByte*>(HashMalloc(table, 1, table->t_data_size));
  if (table->t_data == nullptr) {
    HashTableFree(table);
    return nullptr;
  }
  EmptySlots(table);
  if (!table->t_vm) std::memset(table->t_data, 0, table->t_data_size);
  return table;
}

void HashTableFree(HashTable* table) {
  HashFree(table, 1, table->t_data, table->t_data_size);
  HashFree(table, sizeof(UInt), table->t_entries, table->t_entries_size);
  tags::Drop(table, kModule);
  UnAllocate_(table, kModule, __LINE__);
}

// A look-up by tags, whose first group nearly always settles it, stands here alone. What it does not settle is called
// last, by a jump, so that it has nothing to save.
UByte* HashTableFind(HashTable* table, const UByte* bytes, UInt len, Boolean create, UInt* offset, void* ptr) {
  if (!HasPlainTags(*table)) return FindOrInsert(table, bytes, len, create, offset, ptr);
  const UInt hash = heap::HashKey(bytes, len);
  const UInt s = StartSlot(*table, hash);
  __builtin_prefetch(table->t_entries + s);
  const tags::Group group(table->t_tags + s);
  const UInt empty = group.Equal(tags::kEmpty);
  const UInt equal = group.Equal(tags::Of(hash)) & (empty ^ (empty - 1));
  if (equal == 0 && empty != 0) return create ? Insert(table, bytes, len, hash, offset, ptr) : nullptr;
  if (equal != 0) {
    const UInt slot = s + static_cast<UInt>(std::countr_zero(equal));
    const UInt found = table->t_entries[slot < table->t_entries_size ? slot : slot - table->t_entries_size];
    if (heap::SurelyMatches(*table, found, bytes, len)) [[likely]] {
      if (offset != nullptr) *offset = found;
      return table->t_data + found;
    }
  }
  return FindOrInsert(table, bytes, len, create, offset, ptr);
}

void HashTableGrow(HashTable* table, float factor, void* ptr) {
  QX_ASSERT(!table->t_selected);
  QX_ASSERT_TEXT(factor > 1.0F, "factor > 1.0");
  // A large capacity that the slots do not hold comes from a damaged file, and would take memory without bounds.
  constexpr UInt kSmallTable = 10000;
  const UInt old = std::min(table->t_entries_capacity, std::max(table->t_entries_size, kSmallTable));
  UInt capacity;
  if (!heap::ScaleCapacity(old, factor, &capacity)) {
    QX_MESSAGE(qx::kFailure, FALSE, ":hashtable: capacity too large: capacity=%u, factor=%g", table->t_entries_capacity,
               static_cast<double>(factor));
    return;
  }
  Rebuild(table, capacity, ptr);
}

UInt HashTableKey(const HashTable* table, const UByte* val, const UByte** bytes) {
  return heap::KeyOf(*table, val, bytes);
}

UByte* HashTableGetOffset(const HashTable* table, UInt offset) { return table->t_data + offset; }

UInt HashTableSize(const HashTable* table) { return table->t_entries_used; }

UInt HashTableCapacity(const HashTable* table) { return table->t_entries_capacity; }

Boolean HashTableFull(const HashTable* table) { return table->t_entries_used == table->t_entries_capacity; }

Boolean HashTableReserve(HashTable* table, UInt capacity, void* ptr) {
  QX_ASSERT(!table->t_selected);
  if (capacity <= table->t_entries_capacity) return TRUE;
  if (capacity > heap::kMaximumCapacity) {
    QX_MESSAGE(qx::kFailure, FALSE, ":hashtable: capacity too large: capacity=%u", capacity);
    return FALSE;
  }
  return Rebuild(table, capacity, ptr) ? TRUE : FALSE;
}

void HashTableFindMany(const HashTable* table, UInt n, const UByte* const* keys, const UInt* lens, UByte** entries,
                       UInt* offsets, void* ptr) {
  const bool calls_back = table->t_hash != nullptr || table->t_equal != nullptr;
  const bool plain_tags = HasPlainTags(*table);
  constexpr UInt kInFlight = 32;  // look-ups between asking for memory and its use
  UInt hashes[kInFlight];
  Place places[kInFlight];
  for (UInt done = 0; done < n;) {
    // Callbacks are made key by key, as by single look-ups.
    const UInt count = calls_back ? 1 : std::min(n - done, kInFlight);
    for (UInt i = 0; i < count; i++) {
      if (n - done > i + kInFlight) FetchKey(keys[done + i + kInFlight], lens[done + i + kInFlight]);
      hashes[i] = heap::Hash(*table, keys[done + i], lens[done + i], ptr);
      QX_ASSERT(!table->t_selected);
      QX_ASSERT_TEXT(heap::LengthFits(lens[done + i], table->t_key_size), "l < (b << (8 * k))");
      if (table->t_entries_size != 0) Fetch(*table, StartSlot(*table, hashes[i]));
    }
    for (UInt i = 0; i < count; i++) {
      places[i] = Likely(*table, hashes[i]);
      if (places[i].offset == heap::kEmptySlot) continue;
      FetchHeap(*table, places[i].offset);
      FetchHeap(*table, size_t{places[i].offset} + table->t_val_len + lens[done + i]);
    }
    for (UInt i = 0; i < count; i++, done++) {
      const heap::KeyGiven<HashTable> key(*table, keys[done]);
      // Nothing likely is an answer, and so is a likely entry that is the one. Else the search goes its whole way.
      const UInt likely = places[i].offset;
      const bool settled = likely == heap::kEmptySlot ||
                           (plain_tags ? heap::SurelyMatches(*table, likely, key.bytes(), lens[done])
                                       : !calls_back && heap::Matches(*table, likely, key.bytes(), lens[done], ptr));
      if (!settled) [[unlikely]]
        places[i] = Search(*table, hashes[i], key, lens[done], ptr);
      entries[done] = EntryAt(*table, places[i], offsets != nullptr ? &offsets[done] : nullptr);
    }
  }
}
