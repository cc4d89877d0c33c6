/**
 * @file
 * Read-only file mappings.
 */
#ifndef QXLIB_FILEMAP_H
#define QXLIB_FILEMAP_H

#include "qxlib/types.h"

QX_BEGIN_DECLS

/**
 * Maps a whole regular file read-only.
 *
 * @param dir    the directory; null: `name` alone is the path
 * @param name   the file's name, relative to `dir`
 * @param size   receives the file's size in bytes (0 on failure)
 * @param empty  receives TRUE when the file is there and empty, else FALSE; may be null
 * @return the mapping, page-aligned; null, with `errno` set, when the file cannot be opened or mapped; null with
 *         `*empty` TRUE when there is nothing to map
 */
QX_API void* FileMapRead(const char* dir, const char* name, size_t* size, Boolean* empty);

/** Releases a mapping from `FileMapRead`; FALSE, with `errno` set, on failure. */
QX_API Boolean FileUnmap(void* base, size_t size);

QX_END_DECLS

#endif
