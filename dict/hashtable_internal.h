// What the files of HashTable share: hashtable.cc keeps memory, look-up and growth, hashtable_walk.cc walks, chooses,
// orders and copies, hashtable_file.cc writes and reads files. All report under one module name.

#ifndef DICT_HASHTABLE_INTERNAL_H
#define DICT_HASHTABLE_INTERNAL_H

#include <cstddef>

#include "dict/hashtable.h"

namespace hashtable {

inline constexpr const char* kModule = "dict/hashtable";

// The table's memory: mappings of their own (t_vm) or blocks of the allocator. Sizes are in elements of `size` bytes.
// No bytes are no block: null, in either kind of memory, which is no failure. A mapping that fails is reported; null.

// A new block. Only a mapping's bytes are defined: zero.
void* HashMalloc(const HashTable* table, size_t size, size_t nsize);

// The block with nsize elements in place of osize (asserted: "osize <= nsize"). On failure the old block stands.
void* HashRealloc(const HashTable* table, size_t size, void* ptr, size_t osize, size_t nsize);

// Frees a block of osize elements; a null block is nothing to free.
void HashFree(const HashTable* table, size_t size, void* ptr, size_t osize);

// Makes every slot empty, and sees to the tags.
void EmptySlots(HashTable* table);

// Notes how to divide by the slot count; to be called whenever that changes.
void NoteSlotCount(HashTable* table);

}  // namespace hashtable

#endif
