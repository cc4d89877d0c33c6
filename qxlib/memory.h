/**
 * @file
 * Memory: blocks from the allocator and anonymous mappings.
 *
 * Every operation takes the calling source module's name and line last. They serve diagnostics and change nothing.
 */
#ifndef QXLIB_MEMORY_H
#define QXLIB_MEMORY_H

#include "qxlib/types.h"

QX_BEGIN_DECLS

/**
 * Allocates a block, or resizes one.
 *
 * @param size  bytes wanted; 0 is no failure and gives a block of its own
 * @param old   null for a new block, else a block from this function, which is resized and keeps its contents up to the
 *              smaller size
 * @return the block, aligned for every type; never null: when memory runs out the process ends with a message
 *
 * A new block's contents are undefined. Invalidates `old`. Cost: the C library's malloc or realloc.
 */
QX_API void* Allocate_(size_t size, void* old, const char* file, int line);

/** Frees a block from `Allocate_`; a null block is nothing to free. */
QX_API void UnAllocate_(void* block, const char* file, int line);

/**
 * Maps fresh anonymous memory, zeroed, readable and writable.
 *
 * @return the mapping, page-aligned; null, with `errno` set, on failure (a size of 0 is one)
 */
QX_API void* MemoryMap_(size_t size, const char* file, int line);

/**
 * Resizes a mapping from `MemoryMap_`, keeping its contents; added memory is zeroed.
 *
 * @param oldSize  the size last mapped
 * @return the mapping, which may have moved; null, with `errno` set, on failure: the old mapping then stands as it was
 */
QX_API void* MemoryRemap_(void* old, size_t oldSize, size_t newSize, const char* file, int line);

/** Releases a mapping, given the size last mapped; FALSE, with `errno` set, on failure. */
QX_API Boolean MemoryUnmap_(void* base, size_t size, const char* file, int line);

QX_END_DECLS

#endif
