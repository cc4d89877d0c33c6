// What the files of HashDelTable share: hashdeltable.cc keeps memory, look-up, removal, growth and clean-up,
// hashdeltable_walk.cc walks, chooses and orders, hashdeltable_image.cc writes and reads images. All report under one
// module name.

#ifndef DICT_HASHDELTABLE_INTERNAL_H
#define DICT_HASHDELTABLE_INTERNAL_H

#include "dict/hashdeltable.h"

namespace hashdeltable {

inline constexpr const char* kModule = "dict/hashdeltable";

constexpr UInt kTombstone = 0xFFFFFFFE;

// Notes how to divide by the slot count; to be called whenever that changes.
void NoteSlotCount(HashDelTable* table);

// Moves the live entries together and hashes them anew, at a capacity that is the old one up to 99474.
void HashDelTableNormalize(HashDelTable* table, void* ptr);

}  // namespace hashdeltable

#endif
