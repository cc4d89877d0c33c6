// A byte for each slot of a table, private and never stored: whether the slot is empty, a tombstone, or a few bits of
// the hash that its key has.
//
//   t_entries  [ ---- | 48 | 0  | ---- | 16 | ...     4 bytes a slot, the truth
//   t_tags     [ 0    | 7A | C3 | 0    | 19 | ...     1 byte a slot, in step with it
//
// A search that looks at the tags first meets another key's entry, which lies somewhere in the heap, once in 250
// times; a key that is absent is mostly told by one line of the tags. They are kept where hash and equality are the
// defaults, for there equal keys are sure to have equal tags and nobody is called back. A table goes without them
// (null) when it is small, has been read from outside or is a selection, until its slots are filled anew.

#ifndef DICT_SLOT_TAGS_H
#define DICT_SLOT_TAGS_H

#include <cstddef>
#include <cstring>

#include "qxlib/memory.h"
#include "qxlib/types.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace tags {

constexpr UByte kEmpty = 0;
constexpr UByte kTombstone = 1;
constexpr UInt kFewestSlots = 64;  // below, all slots are a few lines anyway
constexpr UInt kGroup = 16;        // tags that are looked at together

// The tag of a key: the bits that a multiplication brings to the top, since the low ones of a hash choose its slot.
constexpr UByte Of(UInt hash) {
  const UInt top = (hash * 0x9E3779B1u) >> 24;
  return static_cast<UByte>(top <= kTombstone ? top + 2 : top);
}

// Whether a table keeps tags for so many slots.
template <typename Table>
bool Wanted(const Table& table, UInt slots) {
  return table.t_hash == nullptr && table.t_equal == nullptr && slots >= kFewestSlots;
}

// Bytes for so many slots: behind the last tag the first ones follow once more, so that a group can start anywhere.
constexpr size_t SizeFor(UInt slots) { return size_t{slots} + kGroup; }

template <typename Table>
void Drop(Table* table, const char* module) {
  UnAllocate_(table->t_tags, module, __LINE__);
  table->t_tags = nullptr;
}

// Gives a table whose slots have just been emptied the tags for them, or none.
template <typename Table>
void Reset(Table* table, UInt slots, const char* module) {
  if (!Wanted(*table, slots)) return Drop(table, module);
  table->t_tags = static_cast<UByte*>(Allocate_(SizeFor(slots), table->t_tags, module, __LINE__));
  std::memset(table->t_tags, kEmpty, SizeFor(slots));
}

// Gives `copy`, whose tags are another table's, tags of its own.
template <typename Table>
void Duplicate(Table* copy, UInt slots, const char* module) {
  const UByte* original = copy->t_tags;
  if (original == nullptr) return;
  copy->t_tags = static_cast<UByte*>(Allocate_(SizeFor(slots), nullptr, module, __LINE__));
  std::memcpy(copy->t_tags, original, SizeFor(slots));
}

inline void Set(UByte* tags, UInt slots, UInt slot, UByte tag) {
  tags[slot] = tag;
  if (slot < kGroup) tags[slots + slot] = tag;
}

// The tags of a group that equal one value: a bit each, the first tag's the lowest.
class Group {
 public:
#ifdef __SSE2__
  explicit Group(const UByte* tags) { std::memcpy(&tags_, tags, sizeof tags_); }
  UInt Equal(UByte tag) const {
    return static_cast<UInt>(_mm_movemask_epi8(_mm_cmpeq_epi8(tags_, _mm_set1_epi8(static_cast<char>(tag)))));
  }

 private:
  __m128i tags_;
#else
  explicit Group(const UByte* tags) : tags_(tags) {}
  UInt Equal(UByte tag) const {
    UInt bits = 0;
    for (UInt i = 0; i < kGroup; i++) bits |= UInt{tags_[i] == tag} << i;
    return bits;
  }

 private:
  const UByte* tags_;
#endif
};

}  // namespace tags

#endif
