// What the files of HashDelTable share: hashdeltable.cc keeps memory, look-up, removal, growth and clean-up,
// hashdeltable_walk.cc walks, chooses and orders, hashdeltable_image.cc writes and reads images. All report under one
// module name.

#ifndef DICT_HASHDELTABLE_INTERNAL_H
#define DICT_HASHDELTABLE_INTERNAL_H

#include <cstddef>

#include "dict/hashdeltable.h"

namespace hashdeltable {

inline constexpr const char* kModule = "dict/hashdeltable";

constexpr UInt kTombstone = 0xFFFFFFFE;
constexpr UInt kFewestSlots = 3;  // below, there is no step; only an image can have so few

// The way of a key through at least kFewestSlots slots.
class Probe {
 public:
  Probe(UInt slots, UInt start) : slots_(slots), start_(start), slot_(start) {
    // start mod (n - 2): below 2 * (n - 2), but for n = 3.
    size_t rest = start;
    if (rest >= slots_ - 2) rest -= slots_ - 2;
    if (rest >= slots_ - 2) rest -= slots_ - 2;
    step_ = slots_ - 2 - rest;
  }

  UInt slot() const { return static_cast<UInt>(slot_); }

  // Moves on; false when the way is back at its start.
  bool Next() {
    slot_ += step_;
    if (slot_ >= slots_) slot_ -= slots_;
    return slot_ != start_;
  }

 private:
  size_t slots_;
  size_t start_;
  size_t slot_;
  size_t step_;
};

// Gives the table a slot array of so many slots, in place of the one that it may have, and no tags. Their place is
// behind the slots in the same block: the slots of a record that its owner has initialised are also freed by the owner,
// who knows nothing of tags.
void SlotsAllocate(HashDelTable* table, UInt slots);

// Moves the live entries together and hashes them anew, at a capacity that is the old one up to 99474.
void HashDelTableNormalize(HashDelTable* table, void* ptr);

}  // namespace hashdeltable

#endif
