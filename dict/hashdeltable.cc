// HashDelTable: its memory, look-up, removal, growth and clean-up.
//
// A slot array of heap offsets beside a heap of entries (heap_entry.h has their layout). A removed key leaves a
// tombstone in its slot, so that keys behind it are still found, and its bytes in the heap.
//
//   t_entries  [ ---- | 48 | ++++ | ---- | 0 ]             ---- is kEmptySlot, ++++ kTombstone; n slots, n prime
//   t_data     [ entry 0 ][ removed ][ entry 48 ].....     ends at t_data_used
//
// The way of a key through the slots starts at s0 = hash mod n and goes on by n - 2 - (s0 mod (n - 2)), modulo n; it
// meets every slot once before it comes back to s0. For nearly every key the second slot is n - 2, which soon is taken
// and stays in the cache, and the third is n - 4 - s0.
//
// Slots follow from the hashes and the order of insertion since the last clean-up: growing and cleaning up place the
// heap's entries one after another into an empty array. Images carry slots, so this order is part of the format.

#include "dict/hashdeltable.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>

#include "dict/entry_places.h"
#include "dict/hashdeltable_internal.h"
#include "dict/heap_entry.h"
#include "dict/report.h"
#include "dict/slot_tags.h"
#include "qxlib/misc.h"

static_assert(offsetof(HashDelTable, t_data) == 24 && offsetof(HashDelTable, t_entries) == 32);
static_assert(offsetof(HashDelTable, t_data_used) == 40 && offsetof(HashDelTable, t_data_size) == 48);
static_assert(offsetof(HashDelTable, t_nkeys_max) == 56 && offsetof(HashDelTable, t_nkeys) == 60);
static_assert(offsetof(HashDelTable, t_nentries) == 64 && offsetof(HashDelTable, t_deleted) == 68);
static_assert(offsetof(HashDelTable, t_val_len) == 72 && offsetof(HashDelTable, t_selected) == 76);
static_assert(offsetof(HashDelTable, t_key_size) == 80 && offsetof(HashDelTable, t_aligned) == 84);

namespace hashdeltable {

void SlotsAllocate(HashDelTable* table, UInt slots) {
  const size_t tags_size = slots >= tags::kFewestSlots ? tags::SizeFor(slots) : 0;
  const size_t size = sizeof(UInt) * slots + tags_size;
  table->t_entries = static_cast<UInt*>(Allocate_(size, table->t_entries, kModule, __LINE__));
  table->t_nentries = slots;
  table->t_tags = nullptr;
  table->t_divisor = slots;
  table->t_reciprocal = heap::Reciprocal(slots);
}

}  // namespace hashdeltable

namespace {

using namespace hashdeltable;

constexpr UInt kSmallTable = 10000;                // slots that a cleared table keeps
constexpr float kOnlyJustAbove1 = 0x1.0000a8p+0F;  // nearest to 1.00001

static_assert(std::bit_cast<UInt>(kOnlyJustAbove1) == 0x3F800054);

// What the shared insertion must know about this table.
struct HashDelTableTraits {
  using Table = HashDelTable;
  static constexpr const char* kModule = hashdeltable::kModule;
  static constexpr const char* kFindName = "HashDelTableFind";

  // Whatever t_aligned says: it is about walking.
  static bool Padded(const HashDelTable&) { return true; }

  static bool ResizeHeap(HashDelTable* table, size_t size) {
    table->t_data = static_cast<UByte*>(Allocate_(size, table->t_data, kModule, __LINE__));
    std::memset(table->t_data + table->t_data_size, 0, size - table->t_data_size);
    table->t_data_size = size;
    return true;
  }

  static void CheckPlace(const HashDelTable&, size_t) {}
};

// The slot where the search for a key with this hash starts; 0 when there are no slots.
UInt StartSlot(const HashDelTable& table, UInt hash) {
  if (table.t_divisor == table.t_nentries) [[likely]] {
    return heap::Remainder(hash, table.t_divisor, table.t_reciprocal);
  }
  return table.t_nentries != 0 ? hash % table.t_nentries : 0;
}

// Where a search ended: at the key's slot, or at the empty slot where the key is to be inserted.
struct Place {
  UInt slot;    // kNoSlot: every slot on the way is taken
  UInt offset;  // kEmptySlot: the key is absent
};

constexpr UInt kNoSlot = 0xFFFFFFFF;

// Looks for a key, slot after slot of its way.
Place SearchSlots(const HashDelTable& table, UInt start, const heap::KeyGiven<HashDelTable>& key, UInt len, void* ptr) {
  const UInt slots = table.t_nentries;
  Probe probe(slots, start);
  do {
    const UInt offset = table.t_entries[probe.slot()];
    if (offset == heap::kEmptySlot) return {probe.slot(), heap::kEmptySlot};
    if (offset != kTombstone && heap::Matches(table, offset, key.bytes(), len, ptr)) return {probe.slot(), offset};
    if (table.t_nentries != slots) [[unlikely]]  // the equality callback has changed the table
      break;
  } while (probe.Next());
  return {kNoSlot, heap::kEmptySlot};
}

// The first slots of a way, by their tags. Most ways end within them, and they do not depend on one another: their tags
// are fetched at once, and one branch decides about all.
class Front {
 public:
  Front(const HashDelTable& table, UInt start, UByte tag) : probe_(table.t_nentries, start) {
    UInt seen = 0;
    for (UInt i = 0; i < kSlots; i++) {
      slots_[i] = probe_.slot();
      seen |= UInt{table.t_tags[slots_[i]]} << (8 * i);
      // Where the number of slots is no prime, as an image may have it, a way may close within these: it is then gone
      // round again, which finds the same.
      more_ &= probe_.Next();
    }
    empty_ = ZeroBytes(seen ^ tags::kEmpty * kEachByte);
    equal_ = ZeroBytes(seen ^ tag * kEachByte) & (empty_ ^ (empty_ - 1));
  }

  UInt equal() const { return equal_; }  // a bit for each slot with the tag, none behind an empty one
  UInt slot(UInt bits) const { return slots_[std::countr_zero(bits) / 8]; }  // of the first bit
  bool ends() const { return empty_ != 0; }
  UInt empty_slot() const { return slot(empty_); }  // where it ends
  bool more() const { return more_; }
  Probe rest() const { return probe_; }

 private:
  static constexpr UInt kSlots = 4;
  static constexpr UInt kEachByte = 0x01010101;

  // The highest bit of each byte that is zero.
  static UInt ZeroBytes(UInt bytes) {
    constexpr UInt kLow = 0x7F * kEachByte;
    return ~(((bytes & kLow) + kLow) | bytes | kLow);
  }

  Probe probe_;
  UInt slots_[kSlots];
  UInt empty_;
  UInt equal_;
  bool more_ = true;
};

// A search by tags that has come past the first slots.
[[gnu::noinline]] Place SearchBehind(const HashDelTable& table, Probe probe, UByte tag, const UByte* bytes, UInt len) {
  do {
    const UByte seen = table.t_tags[probe.slot()];
    if (seen == tags::kEmpty) return {probe.slot(), heap::kEmptySlot};
    if (seen != tag) continue;
    const UInt offset = table.t_entries[probe.slot()];
    if (heap::Matches(table, offset, bytes, len, nullptr)) return {probe.slot(), offset};
  } while (probe.Next());
  return {kNoSlot, heap::kEmptySlot};
}

// The same by the tags: a slot whose tag is another is not looked at.
Place SearchTags(const HashDelTable& table, UInt start, UByte tag, const UByte* bytes, UInt len) {
  const Front front(table, start, tag);
  for (UInt equal = front.equal(); equal != 0; equal &= equal - 1) {
    const UInt offset = table.t_entries[front.slot(equal)];
    if (heap::Matches(table, offset, bytes, len, nullptr)) return {front.slot(equal), offset};
  }
  if (front.ends()) return {front.empty_slot(), heap::kEmptySlot};
  if (!front.more()) return {kNoSlot, heap::kEmptySlot};
  return SearchBehind(table, front.rest(), tag, bytes, len);
}

Place Search(const HashDelTable& table, UInt hash, const heap::KeyGiven<HashDelTable>& key, UInt len, void* ptr) {
  if (table.t_nentries < kFewestSlots) [[unlikely]]
    return {kNoSlot, heap::kEmptySlot};
  const UInt start = StartSlot(table, hash);
  if (table.t_tags == nullptr) return SearchSlots(table, start, key, len, ptr);
  __builtin_prefetch(table.t_entries + start);
  return SearchTags(table, start, tags::Of(hash), key.bytes(), len);
}

// The first empty slot on the way of a hash that starts at `start`, or kNoSlot.
UInt EmptySlotFrom(const HashDelTable& table, UInt start) {
  if (table.t_nentries < kFewestSlots || start >= table.t_nentries) return kNoSlot;
  Probe probe(table.t_nentries, start);
  do {
    const UInt slot = probe.slot();
    if (table.t_tags != nullptr ? table.t_tags[slot] == tags::kEmpty : table.t_entries[slot] == heap::kEmptySlot) {
      return slot;
    }
  } while (probe.Next());
  return kNoSlot;
}

// Stores an entry's offset in a slot; false when there is no such slot.
bool Occupy(HashDelTable* table, UInt slot, UInt offset, UInt hash) {
  if (slot == kNoSlot) return false;
  table->t_entries[slot] = offset;
  if (table->t_tags != nullptr) tags::Set(table->t_tags, table->t_nentries, slot, tags::Of(hash));
  return true;
}

// Whether a slot still holds what a search found there. A callback may have changed the table since.
bool Holds(const HashDelTable& table, UInt slot, UInt value) {
  return slot < table.t_nentries && table.t_entries[slot] == value;
}

// Where the tags of a table are, if it has any.
UByte* TagsPlace(const HashDelTable& table) { return reinterpret_cast<UByte*>(table.t_entries + table.t_nentries); }

void EmptySlots(HashDelTable* table) {
  std::memset(table->t_entries, 0xFF, sizeof(UInt) * table->t_nentries);
  table->t_tags = tags::Wanted(*table, table->t_nentries) ? TagsPlace(*table) : nullptr;
  if (table->t_tags != nullptr) std::memset(table->t_tags, tags::kEmpty, tags::SizeFor(table->t_nentries));
}

// The capacity as far as it can be believed: an image may claim any.
UInt CredibleCapacity(const HashDelTable& table) {
  return std::min(table.t_nkeys_max, std::max(table.t_nentries, kSmallTable));
}

// Visits the offsets of the live entries inside the heap, in ascending order.
template <typename Visit>
void ForEachLive(const HashDelTable& table, Visit visit) {
  const size_t heap = std::min({table.t_data_used, table.t_data_size, size_t{kTombstone}});
  UInt all = 0;  // every offset, ored: only an image has entries at odd places
  for (UInt s = 0; s < table.t_nentries; s++) all |= table.t_entries[s] < heap ? table.t_entries[s] : 0;

  heap::EntryPlaces live(heap, all % heap::kAlignment == 0, kModule);
  for (UInt s = 0; s < table.t_nentries; s++) {
    if (table.t_entries[s] < heap) live.Mark(table.t_entries[s]);
  }
  live.ForEach(visit);
}

// Moves entries, given in ascending order, to the front of the heap. Neighbours move together.
//
//   [ run written ][ pad ]......[ run: entry | entry | entry ]......
//                         ^ to  ^ from_                      ^ end_
//
// An entry that is none, or starts inside its predecessor or in front of where it would go, is left behind: nothing
// is ever moved up, and nothing leaves the heap.
class Compactor {
 public:
  explicit Compactor(HashDelTable* table) : table_(table), aligned_(table->t_aligned != FALSE) {}

  void Take(size_t offset) {
    if (offset < end_) return;
    const bool neighbour = offset == Round(end_) && Round(from_) == from_ && end_ != from_;
    if (!neighbour) Flush();
    if (offset < to_) return;
    const heap::Key key = heap::KeyAt(*table_, offset);
    if (key.bytes == nullptr) return;
    if (!neighbour) from_ = offset;
    end_ = static_cast<size_t>(key.bytes - table_->t_data) + key.length;
  }

  // The heap bytes then in use.
  size_t Finish() {
    Flush();
    return to_;
  }

 private:
  size_t Round(size_t offset) const { return aligned_ ? heap::RoundUp(offset) : offset; }

  void Flush() {
    const size_t length = end_ - from_;
    if (from_ != to_) std::memmove(table_->t_data + to_, table_->t_data + from_, length);
    const size_t end = to_ + length;
    to_ = std::min(Round(end), table_->t_data_size);
    std::memset(table_->t_data + end, 0, to_ - end);
    from_ = end_;
  }

  HashDelTable* table_;
  const bool aligned_;
  // to_ <= from_ <= end_: what lies before `to_` is done, from `from_` to `end_` are live entries without a gap.
  size_t from_ = 0;  // the run not yet moved
  size_t end_ = 0;
  size_t to_ = 0;  // where it goes
};

// Moves the live entries to the front of the heap, in their order. The slots still tell the old offsets afterwards: the
// caller rebuilds them.
void HashDelTableRewrite(HashDelTable* table) {
  Compactor compactor(table);
  ForEachLive(*table, [&](size_t offset) { compactor.Take(offset); });
  table->t_data_used = compactor.Finish();
  table->t_deleted = 0;
}

// Cleans up and hashes every key anew into slots for this capacity.
void Rebuild(HashDelTable* table, UInt capacity, void* ptr) {
  if (table->t_deleted != 0) HashDelTableRewrite(table);
  table->t_nkeys_max = capacity;
  SlotsAllocate(table, Prime(heap::SlotsFor(capacity)));
  EmptySlots(table);
  heap::Rehash(
      *table, ptr, [&](UInt hash) { return StartSlot(*table, hash); },
      [&](UInt slot) {
        if (table->t_tags != nullptr) __builtin_prefetch(table->t_tags + slot);
        __builtin_prefetch(table->t_entries + slot, 1);
      },
      [&](UInt start, UInt offset, UInt hash) { return Occupy(table, EmptySlotFrom(*table, start), offset, hash); });
}

// Whether look-ups can go by tags and by heap::SurelyMatches, without calling back.
bool HasPlainTags(const HashDelTable& table) {
  return table.t_tags != nullptr && table.t_hash == nullptr && table.t_equal == nullptr && table.t_key_size == 0 &&
         !table.t_selected && table.t_nentries >= kFewestSlots;
}

// SearchTags for such tables, inline as far as most searches go.
[[gnu::always_inline]] inline Place SearchPlainTags(const HashDelTable& table, const UByte* bytes, UInt len) {
  const UInt hash = heap::HashKey(bytes, len);
  const UByte tag = tags::Of(hash);
  const UInt start = StartSlot(table, hash);
  __builtin_prefetch(table.t_entries + start);
  const Front front(table, start, tag);
  if (front.equal() != 0) {
    const UInt slot = front.slot(front.equal());
    const UInt offset = table.t_entries[slot];
    if (heap::SurelyMatches(table, offset, bytes, len)) [[likely]]
      return {slot, offset};
  } else {
    if (front.ends()) return {front.empty_slot(), heap::kEmptySlot};
    if (front.more()) return SearchBehind(table, front.rest(), tag, bytes, len);
  }
  return SearchTags(table, start, tag, bytes, len);
}

// Puts a tombstone into a slot.
void Bury(HashDelTable* table, UInt slot) {
  table->t_deleted++;
  table->t_nkeys--;
  table->t_entries[slot] = kTombstone;
  if (table->t_tags != nullptr) tags::Set(table->t_tags, table->t_nentries, slot, tags::kTombstone);
}

// HashDelTableFind, for every table.
[[gnu::noinline]] UByte* FindOrInsert(HashDelTable* table, const UByte* bytes, UInt len, Boolean create, UInt* offset,
                                      void* ptr) {
  const heap::KeyGiven<HashDelTable> key(*table, bytes);  // callbacks that insert may move it
  const UInt hash = heap::Hash(*table, bytes, len, ptr);
  QX_ASSERT_IN(kModule, "HashDelTableFind", !table->t_selected, "!table->t_selected");
  QX_ASSERT_IN(kModule, "HashDelTableFind", heap::LengthFits(len, table->t_key_size), "l < (b << (8 * k))");

  const Place place = Search(*table, hash, key, len, ptr);
  if (place.offset != heap::kEmptySlot) {
    if (offset != nullptr) *offset = place.offset;
    return table->t_data + place.offset;
  }
  if (!create || place.slot == kNoSlot) return nullptr;
  // Tombstones count twice: the table is to be cleaned up before its probes grow long with them.
  if (size_t{2} * table->t_deleted + table->t_nkeys >= table->t_nkeys_max) return nullptr;

  size_t entry;
  if (!heap::Append<HashDelTableTraits>(table, key.bytes(), len, ptr, &entry)) return nullptr;
  UInt slot = place.slot;
  if (table->t_value != nullptr) {
    // The callback may have grown the table: the search is then made again, to the same slot if it has not.
    slot = EmptySlotFrom(*table, StartSlot(*table, hash));
  }
  if (!Occupy(table, slot, static_cast<UInt>(entry), hash)) return nullptr;
  table->t_nkeys++;
  if (offset != nullptr) *offset = static_cast<UInt>(entry);
  return table->t_data + entry;
}

// HashDelTableRemove, for every table.
[[gnu::noinline]] Boolean RemoveAny(HashDelTable* table, const UByte* bytes, UInt len, void* ptr) {
  const heap::KeyGiven<HashDelTable> key(*table, bytes);  // callbacks that insert may move it
  const UInt hash = heap::Hash(*table, bytes, len, ptr);
  QX_ASSERT_IN(kModule, "HashDelTableRemove", !table->t_selected, "!table->t_selected");
  const Place place = Search(*table, hash, key, len, ptr);
  if (place.offset == heap::kEmptySlot || !Holds(*table, place.slot, place.offset)) return FALSE;
  Bury(table, place.slot);
  return TRUE;
}

}  // namespace

namespace hashdeltable {

void HashDelTableNormalize(HashDelTable* table, void* ptr) {
  QX_ASSERT_IN(kModule, "HashDelTableGrow", !table->t_selected, "!table->t_selected");
  const UInt old = CredibleCapacity(*table);
  UInt capacity;
  if (!heap::ScaleCapacity(old, kOnlyJustAbove1, &capacity)) capacity = std::min(old, heap::kMaximumCapacity);
  Rebuild(table, capacity, ptr);
}

}  // namespace hashdeltable

void HashDelTableInit(HashDelTable* table, UInt capacity, HashKeyFunction hash, HashValueFunction value,
                      HashEqualFunction equal, UInt val_len, UByte key_size) {
  if (capacity > heap::kMaximumCapacity) QX_DIE(":hashdeltable: capacity too large: capacity=%u", capacity);
  *table = {};
  table->t_hash = hash;
  table->t_value = value;
  table->t_equal = equal;
  table->t_val_len = val_len;
  table->t_key_size = key_size;
  table->t_aligned = TRUE;
  table->t_nkeys_max = std::max(capacity, heap::kMinimumCapacity);
  SlotsAllocate(table, Prime(heap::SlotsFor(table->t_nkeys_max)));
  table->t_data_size = size_t{5} * table->t_nentries;
  table->t_data = static_cast<UByte*>(Allocate_(table->t_data_size, nullptr, kModule, __LINE__));
  EmptySlots(table);
  std::memset(table->t_data, 0, table->t_data_size);
}

HashDelTable* HashDelTableNew(UInt capacity, HashKeyFunction hash, HashValueFunction value, HashEqualFunction equal,
                              UInt val_len, UInt key_size) {
  auto* table = static_cast<HashDelTable*>(Allocate_(sizeof(HashDelTable), nullptr, kModule, __LINE__));
  HashDelTableInit(table, capacity, hash, value, equal, val_len, static_cast<UByte>(key_size));
  return table;
}

void HashDelTableFree(HashDelTable* table) {
  HashDelTableFinalize(table);
  UnAllocate_(table, kModule, __LINE__);
}

void HashDelTableFinalize(HashDelTable* table) {
  UnAllocate_(table->t_data, kModule, __LINE__);
  UnAllocate_(table->t_entries, kModule, __LINE__);
  *table = {};
}

void HashDelTableClear(HashDelTable* table) {
  // An image may claim any capacity. One that leaves no free slot is none.
  const bool holds_capacity = table->t_nentries >= kFewestSlots && table->t_nentries > table->t_nkeys_max;
  if (table->t_nentries > kSmallTable || !holds_capacity) {
    UnAllocate_(table->t_entries, kModule, __LINE__);
    UnAllocate_(table->t_data, kModule, __LINE__);
    HashDelTableInit(table, heap::kMinimumCapacity, table->t_hash, table->t_value, table->t_equal, table->t_val_len,
                     table->t_key_size);
    return;
  }
  table->t_nkeys = 0;
  table->t_deleted = 0;
  table->t_data_used = 0;
  table->t_selected = FALSE;
  EmptySlots(table);
}

HashDelTable* HashDelTableCopy(const HashDelTable* table) {
  auto* copy = static_cast<HashDelTable*>(Allocate_(sizeof(HashDelTable), nullptr, kModule, __LINE__));
  *copy = *table;
  copy->t_data = static_cast<UByte*>(Allocate_(table->t_data_size, nullptr, kModule, __LINE__));
  std::memcpy(copy->t_data, table->t_data, table->t_data_size);
  copy->t_entries = nullptr;
  SlotsAllocate(copy, table->t_nentries);
  std::memcpy(copy->t_entries, table->t_entries, sizeof(UInt) * table->t_nentries);
  if (table->t_tags != nullptr) {
    copy->t_tags = TagsPlace(*copy);
    std::memcpy(copy->t_tags, table->t_tags, tags::SizeFor(table->t_nentries));
  }
  return copy;
}

UByte* HashDelTableFind(HashDelTable* table, const UByte* bytes, UInt len, Boolean create, UInt* offset, void* ptr) {
  if (create || !HasPlainTags(*table)) return FindOrInsert(table, bytes, len, create, offset, ptr);
  const Place place = SearchPlainTags(*table, bytes, len);
  if (place.offset == heap::kEmptySlot) return nullptr;
  if (offset != nullptr) *offset = place.offset;
  return table->t_data + place.offset;
}

Boolean HashDelTableRemove(HashDelTable* table, const UByte* bytes, UInt len, void* ptr) {
  if (!HasPlainTags(*table)) return RemoveAny(table, bytes, len, ptr);
  const Place place = SearchPlainTags(*table, bytes, len);
  if (place.offset == heap::kEmptySlot) return FALSE;
  Bury(table, place.slot);
  return TRUE;
}

void HashDelTableGrow(HashDelTable* table, float factor, void* ptr) {
  QX_ASSERT(!table->t_selected);
  QX_ASSERT_TEXT(factor > 1.0F, "factor > 1.0");
  UInt capacity;
  if (!heap::ScaleCapacity(CredibleCapacity(*table), factor, &capacity)) {
    QX_MESSAGE(qx::kFailure, FALSE, ":hashdeltable: capacity too large: capacity=%u, factor=%g", table->t_nkeys_max,
               static_cast<double>(factor));
    return;
  }
  Rebuild(table, capacity, ptr);
}

UInt HashDelTableKey(const HashDelTable* table, const UByte* val, const UByte** bytes) {
  return heap::KeyOf(*table, val, bytes);
}

UByte* HashDelTableGetOffset(const HashDelTable* table, UInt offset) { return table->t_data + offset; }

UInt HashDelTableSize(const HashDelTable* table) { return table->t_nkeys; }

UInt HashDelTableCapacity(const HashDelTable* table) { return table->t_nkeys_max; }

Boolean HashDelTableFull(const HashDelTable* table) { return table->t_nkeys == table->t_nkeys_max; }

Boolean HashDelTableReserve(HashDelTable* table, UInt capacity, void* ptr) {
  QX_ASSERT(!table->t_selected);
  if (capacity <= CredibleCapacity(*table)) return TRUE;
  if (capacity > heap::kMaximumCapacity) {
    QX_MESSAGE(qx::kFailure, FALSE, ":hashdeltable: capacity too large: capacity=%u", capacity);
    return FALSE;
  }
  Rebuild(table, capacity, ptr);
  return TRUE;
}
