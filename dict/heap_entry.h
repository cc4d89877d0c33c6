// What the two byte-keyed tables share: the entries of a data heap, and how they are read, appended, walked, compared,
// chosen and sorted. Nothing here knows either table; templates take the table's record, or a traits record that names
// its differences.
//
//   entry at e:  [ value: t_val_len ][ key length: t_key_size, or 1-5 bytes ][ key ][ pad to 8 ]
//                ^ e; what a lookup returns
//   heap:        t_data [ entry ][ entry ][ entry ]...............|
//                                      t_data_used ^    t_data_size ^
//
// A table that was read from outside may lie about all of it. Every function here is told an offset, not a pointer, and
// answers only for an entry that lies inside the t_data_size bytes that there are; the price on the way of a sound
// table is a comparison or two, always foreseen. A walk ends at t_data_used or in front of the first entry that is
// none.

#ifndef DICT_HEAP_ENTRY_H
#define DICT_HEAP_ENTRY_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "dict/hash_bytes.h"
#include "dict/hashtable.h"  // the callback types
#include "dict/remainder.h"
#include "dict/report.h"
#include "qxlib/array.h"
#include "qxlib/sort.h"
#include "util/io2.h"

namespace heap {

constexpr UInt kEmptySlot = 0xFFFFFFFF;
constexpr size_t kAlignment = 8;
constexpr size_t kLengthBudget = IO2_REF4_SIZE;  // an insertion always makes room for the longest key length field
constexpr size_t kShortKey = 0xFF >> 1;          // the longest key whose length of variable width takes one byte
constexpr size_t kHeapLimit = 0xFFFFFFF8;        // where a heap ends at the latest: offsets have 32 bits
constexpr UInt kMinimumCapacity = 5;
constexpr UInt kMaximumCapacity = 0xFFFFFFFF / 3;  // three slots for two keys, counted in 32 bits

static_assert(sizeof(void*) == kAlignment);

constexpr size_t RoundUp(size_t offset) { return (offset + (kAlignment - 1)) & ~(kAlignment - 1); }

// The number that the slot count is the next prime of. `capacity` is not above kMaximumCapacity.
constexpr UInt SlotsFor(UInt capacity) { return (capacity * 3) >> 1; }

// The capacity times the factor, in single precision and cut; false when that is no capacity.
inline bool ScaleCapacity(UInt capacity, float factor, UInt* scaled) {
  const double product = static_cast<double>(static_cast<float>(capacity) * factor);
  if (!(product < static_cast<double>(kMaximumCapacity) + 1)) return false;
  *scaled = static_cast<UInt>(product);
  return true;
}

// Whether a key length fits the table's length field. Wider fields than 4 bytes fail when they are written.
constexpr bool LengthFits(UInt len, UByte key_size) {
  return key_size == 0 || key_size >= 4 || len < (1u << (8 * key_size));
}

// Bytes of the length field of a key.
constexpr size_t LengthFieldSize(UInt len, UByte key_size) {
  if (key_size != 0) return key_size;
  return len < 1u << 7 ? 1 : len < 1u << 14 ? 2 : len < 1u << 21 ? 3 : len < 1u << 28 ? 4 : 5;
}

struct Key {
  const UByte* bytes;  // null: there is no such entry inside the heap
  UInt length;
};

// Decodes the length field at `field`, of which at least kLengthBudget bytes can be read. Asserts "size <= 4".
inline Key DecodeKey(const UByte* field, UByte key_size) {
  const UInt length = key_size == 0 ? IO2_MemRefReadChecked4(&field) : IO2_MemReadPaddedLE4(&field, key_size);
  return {field, length};
}

// KeyAt, for every entry.
template <typename Table>
[[gnu::noinline]] Key AnyKeyAt(const Table& table, size_t at) {
  const size_t end = table.t_data_size;
  const size_t field = at + table.t_val_len;  // cannot wrap: both have 32 bits, or `at` is inside the heap
  Key key;
  if (field + kLengthBudget <= end) [[likely]] {
    key = DecodeKey(table.t_data + field, table.t_key_size);
  } else {
    if (field >= end) return {nullptr, 0};
    UByte copy[kLengthBudget] = {};  // a field that ends behind the heap is told by what it takes of the zeros
    std::memcpy(copy, table.t_data + field, end - field);
    const Key copied = DecodeKey(copy, table.t_key_size);
    const size_t taken = static_cast<size_t>(copied.bytes - copy);
    if (taken > end - field) return {nullptr, 0};
    key = {table.t_data + field + taken, copied.length};
  }
  if (key.length > end - static_cast<size_t>(key.bytes - table.t_data)) [[unlikely]]
    return {nullptr, 0};
  return key;
}

// The key of the entry at `at`, if the entry lies inside the heap. Most keys are short enough for a length of one byte
// and lie so far from the heap's end that any such length is good.
template <typename Table>
Key KeyAt(const Table& table, size_t at) {
  const size_t field = at + table.t_val_len;
  if (table.t_key_size == 0 && field + 1 + kShortKey <= table.t_data_size) [[likely]] {
    const UByte* bytes = table.t_data + field;
    if ((*bytes & 1) == 0) [[likely]]
      return {bytes + 1, UInt{*bytes} >> 1};
  }
  return AnyKeyAt(table, at);
}

// Whether an entry's value, which is what callers are handed, lies inside the heap. Does not touch the entry.
template <typename Table>
bool HoldsValue(const Table& table, size_t at) {
  return at < table.t_data_size && table.t_val_len <= table.t_data_size - at;
}

// The offset behind the entry at `at`: where the next one starts. 0 when no entry is left: the heap ends here, or what
// is here is no entry inside the heap, or takes no room.
template <typename Table>
size_t Next(const Table& table, size_t at) {
  if (at >= table.t_data_used) return 0;
  const Key key = KeyAt(table, at);
  if (key.bytes == nullptr) [[unlikely]]
    return 0;
  const size_t end = static_cast<size_t>(key.bytes - table.t_data) + key.length;
  const size_t next = table.t_aligned ? RoundUp(end) : end;
  return next > at && next <= kHeapLimit ? next : 0;
}

// Has the processor fetch what a walk that has come to `at` will soon read. It would do so by itself, but not as far as
// into its nearest cache; there may be nothing there.
template <typename Table>
void FetchFrom(const Table& table, size_t at) {
  constexpr size_t kAhead = 2048;
  __builtin_prefetch(reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(table.t_data) + at + kAhead));
}

// Whether an iterator that has come to `at` is at its end. Unlike Next, which every other walk asks, it takes a key
// length field of forbidden width for granted, as long as there is a byte of it: the next step then decodes it, and
// asserts.
template <typename Table>
bool AtEnd(const Table& table, size_t at) {
  if (table.t_key_size > 4) return at >= table.t_data_used || table.t_data_size <= at + size_t{table.t_val_len};
  return Next(table, at) == 0;
}

// The key of the entry at an offset; an empty one where no entry lies inside the heap.
template <typename Table>
UInt KeyAtOffset(const Table& table, size_t at, const UByte** bytes) {
  const Key key = KeyAt(table, at);
  *bytes = key.bytes != nullptr ? key.bytes : table.t_data + at;
  return key.length;
}

// HashTableKey and its twin. An entry in the heap is read no further than the heap goes; a caller's copy of one as it
// lies.
template <typename Table>
UInt KeyOf(const Table& table, const UByte* entry, const UByte** bytes) {
  const size_t at = reinterpret_cast<uintptr_t>(entry) - reinterpret_cast<uintptr_t>(table.t_data);
  if (at < table.t_data_size) return KeyAtOffset(table, at, bytes);
  const Key key = DecodeKey(entry + table.t_val_len, table.t_key_size);
  *bytes = key.bytes;
  return key.length;
}

template <typename Table>
UInt Hash(const Table& table, const UByte* bytes, UInt len, void* ptr) {
  return table.t_hash != nullptr ? table.t_hash(bytes, len, ptr) : HashKey(bytes, len);
}

// Whether two runs of `len` bytes are equal, wherever they are short: a call costs more than the comparison.
inline bool ShortBytesEqual(const UByte* a, const UByte* b, size_t len) {
#ifdef __SSE2__
  if (len >= 16) {
    const auto same = [a, b](size_t at) { return _mm_cmpeq_epi8(LoadBlock(a + at), LoadBlock(b + at)); };
    __m128i equal = same(len - 16);
    for (size_t i = 0; i + 16 < len; i += 16) equal = _mm_and_si128(equal, same(i));
    return _mm_movemask_epi8(equal) == 0xFFFF;
  }
#endif
  if (len >= 8) {
    ULong differ = 0;
    for (size_t i = 0; i + 8 < len; i += 8) differ |= IO_MemGetLE8(a + i) ^ IO_MemGetLE8(b + i);
    return (differ | (IO_MemGetLE8(a + (len - 8)) ^ IO_MemGetLE8(b + (len - 8)))) == 0;
  }
  if (len >= 4) {
    return ((IO_MemGetLE4(a) ^ IO_MemGetLE4(b)) | (IO_MemGetLE4(a + (len - 4)) ^ IO_MemGetLE4(b + (len - 4)))) == 0;
  }
  return len == 0 || (((a[0] ^ b[0]) | (a[len / 2] ^ b[len / 2]) | (a[len - 1] ^ b[len - 1])) == 0);
}

inline bool BytesEqual(const UByte* a, const UByte* b, size_t len) {
  return len <= kShortKey ? ShortBytesEqual(a, b, len) : std::memcmp(a, b, len) == 0;
}

// Whether the entry at `at` has this key and is such an entry as most are: its length of variable width takes one byte
// and lies so far from the heap's end that any such length is good. False says nothing.
template <typename Table>
bool SurelyMatches(const Table& table, size_t at, const UByte* bytes, UInt len) {
  const size_t field = at + table.t_val_len;
  if (field + 1 + kShortKey > table.t_data_size) [[unlikely]]
    return false;
  const UByte* stored = table.t_data + field;
  return len <= kShortKey && *stored == len << 1 && ShortBytesEqual(stored + 1, bytes, len);
}

// Whether the entry at `at` has this key, by the table's equality or by length and bytes. An entry that is none has no
// key.
template <typename Table>
bool Matches(const Table& table, size_t at, const UByte* bytes, UInt len, void* ptr) {
  const Key key = KeyAt(table, at);
  if (key.bytes == nullptr) [[unlikely]]
    return false;
  if (table.t_equal != nullptr) return table.t_equal(key.bytes, key.length, bytes, len, ptr) != FALSE;
  return key.length == len && BytesEqual(key.bytes, bytes, len);
}

// A caller's key that may lie in the heap that is about to move.
template <typename Table>
class KeyGiven {
 public:
  KeyGiven(const Table& table, const UByte* bytes) : table_(table), bytes_(bytes) {
    const size_t at = reinterpret_cast<uintptr_t>(bytes) - reinterpret_cast<uintptr_t>(table.t_data);
    if (bytes != nullptr && at < table.t_data_size) at_ = at;
  }
  const UByte* bytes() const { return at_ == kElsewhere ? bytes_ : table_.t_data + at_; }

 private:
  static constexpr size_t kElsewhere = SIZE_MAX;

  const Table& table_;
  const UByte* bytes_;
  size_t at_ = kElsewhere;
};

// Appends an entry: padding, value (by the table's callback, or zero), key length, key. The caller counts it and gives
// it a slot. False: nothing was appended, because the heap cannot grow or the callback refuses (its padding stays).
//
// Traits say:
//   Table                                the record
//   kModule, kFindName                   whose assertions these are
//   bool Padded(const Table&)            whether the entry is put at a multiple of 8
//   bool ResizeHeap(Table*, size_t)      makes t_data that large, new bytes zero, and sets t_data_size; or false
//   void CheckPlace(const Table&, size_t entry)   asserts that an aligned table's entry is
template <typename Traits>
bool Append(typename Traits::Table* table, const UByte* bytes, UInt len, void* ptr, size_t* place) {
  const size_t used = table->t_data_used;
  if (used > kHeapLimit) return false;
  const size_t pad = Traits::Padded(*table) ? RoundUp(used) - used : 0;
  const size_t entry = used + pad;
  const size_t length = table->t_val_len + LengthFieldSize(len, table->t_key_size) + len;
  if (length > kHeapLimit - std::min(entry, kHeapLimit)) return false;

  const KeyGiven<typename Traits::Table> key(*table, bytes);
  const size_t delta = pad + table->t_val_len + len + kLengthBudget;
  if (used + delta > table->t_data_size) {
    if (used > table->t_data_size) return false;  // a file's claim; the bytes were never there
    if (!Traits::ResizeHeap(table, std::max(used + delta, (table->t_data_size * 3) >> 1))) return false;
  }
  QX_ASSERT_IN(Traits::kModule, Traits::kFindName, table->t_data_used + delta <= table->t_data_size,
               "table->t_data_used + delta <= table->t_data_size");

  std::memset(table->t_data + used, 0, pad);
  table->t_data_used = entry;
  Traits::CheckPlace(*table, entry);
  if (table->t_value == nullptr) {
    std::memset(table->t_data + entry, 0, table->t_val_len);
  } else {
    if (table->t_value(table->t_data + entry, key.bytes(), len, ptr) == FALSE) return false;
    // A callback that has used the table has put its own entry here, or taken the heap away.
    if (table->t_data_used != entry || table->t_data_size < used + delta) return false;
  }

  UByte* at = table->t_data + entry + table->t_val_len;
  if (table->t_key_size == 0) {
    IO2_MemRefWrite4(&at, len);
  } else {
    IO2_MemWritePaddedLE4(&at, len, table->t_key_size);
  }
  if (len != 0) std::memmove(at, key.bytes(), len);
  table->t_data_used = static_cast<size_t>(at - table->t_data) + len;
  *place = entry;
  return true;
}

// Hashes every entry in heap order and places it. `locate(hash)` gives the slot to start at; `fetch(slot)` asks for its
// memory, which arrives while the next kAhead keys are hashed; `place(slot, offset, hash)` stores the entry, and false
// ends the work: no slot is left.
template <typename Table, typename Locate, typename Fetch, typename Place>
void Rehash(const Table& table, void* ptr, Locate locate, Fetch fetch, Place place) {
  constexpr size_t kAhead = 32;
  struct {
    UInt slot;
    UInt offset;
    UInt hash;
  } ring[kAhead];
  size_t hashed = 0;
  size_t placed = 0;
  const size_t used = table.t_data_used;  // what a callback appends has its slot already
  for (size_t at = 0, next; at < used && (next = Next(table, at)) != 0; at = next) {
    if (hashed - placed == kAhead) {
      const auto& oldest = ring[placed++ % kAhead];
      if (!place(oldest.slot, oldest.offset, oldest.hash)) return;
    }
    FetchFrom(table, next);
    const Key key = KeyAt(table, at);
    const UInt hash = Hash(table, key.bytes, key.length, ptr);
    const UInt slot = locate(hash);
    fetch(slot);
    ring[hashed++ % kAhead] = {slot, static_cast<UInt>(at), hash};
  }
  for (; placed < hashed; placed++) {
    const auto& oldest = ring[placed % kAhead];
    if (!place(oldest.slot, oldest.offset, oldest.hash)) return;
  }
}

// HashTableEnumerate and its twin. The heap is looked up anew for each entry: the visitor may insert and so move it.
template <typename Table>
UInt Enumerate(const Table& table, size_t offset, HashEnumerateFunction fun, void* ptr) {
  for (size_t next; (next = Next(table, offset)) != 0; offset = next) {
    FetchFrom(table, next);
    if (const UInt stop = fun(table.t_data + offset, ptr); stop != 0) return stop;
  }
  return 0;
}

// Chooses among the entries of the first `count` slots, in slot order, and empties these slots. Each entry is offered
// to `select` (null: every one is kept) as long as `keep` may still take one; `keep(offset)` takes it. Offsets that
// name no value inside the heap, tombstones among them, are dropped. Slots and heap are looked up anew for each: what
// `select` inserts or grows moves them, and never leaves fewer.
template <typename Table, typename Wants, typename Keep>
void Select(const Table& table, UInt count, HashSelectFunction select, void* ptr, Wants wants, Keep keep) {
  for (UInt s = 0; s < count; s++) {
    const UInt offset = table.t_entries[s];
    if (offset == kEmptySlot) continue;
    table.t_entries[s] = kEmptySlot;
    if (!wants() || !HoldsValue(table, offset)) continue;
    if (select == nullptr || select(table.t_data + offset, ptr) != FALSE) keep(offset);
  }
}

// Chooses in place: the kept offsets, at most `limit` (0: no limit), move to the first slots. Returns how many they
// are.
template <typename Table>
UInt SelectInPlace(const Table& table, UInt count, UInt limit, HashSelectFunction select, void* ptr) {
  UInt kept = 0;
  if (limit == 0) limit = count;
  Select(
      table, count, select, ptr, [&] { return kept < limit; }, [&](UInt offset) { table.t_entries[kept++] = offset; });
  return kept;
}

struct HashSortData {
  HashCompareFunction d_cmp;
  UByte* const* d_data;  // where the table keeps its heap: a comparison that inserts moves it
  void* d_ptr;
};

inline int Cmp(const void* entry1, const void* entry2, void* arg) {
  const auto* data = static_cast<const HashSortData*>(arg);
  const UInt offset1 = *static_cast<const UInt*>(entry1);
  const UInt offset2 = *static_cast<const UInt*>(entry2);
  const UByte* heap = *data->d_data;
  return data->d_cmp(heap + offset1, heap + offset2, data->d_ptr);
}

// Moves the offsets that name a value inside the heap to the front, order kept, the others behind them. Returns how
// many the first are.
template <typename Table>
UInt HeldFirst(const Table& table, UInt* offsets, UInt count) {
  UInt held = 0;
  while (held < count && HoldsValue(table, offsets[held])) held++;
  for (UInt i = held; i < count; i++) {
    if (!HoldsValue(table, offsets[i])) continue;
    const UInt offset = offsets[i];
    offsets[i] = offsets[held];
    offsets[held++] = offset;
  }
  return held;
}

// Sorts a list of offsets. What names no value inside the heap goes to the end, unseen by the comparison.
template <typename Table>
void Sort(const Table& table, UInt* offsets, UInt count, HashCompareFunction cmp, void* ptr) {
  HashSortData data = {cmp, &table.t_data, ptr};
  QSort(offsets, HeldFirst(table, offsets, count), sizeof(UInt), Cmp, &data);
}

// The entry that a list of offsets names; null when it names none.
template <typename Table>
UByte* Named(const Table& table, UInt offset) {
  return HoldsValue(table, offset) ? table.t_data + offset : nullptr;
}

using qx::Reciprocal;
using qx::Remainder;

}  // namespace heap

#endif
