/**
 * @file
 * Sorting with a context.
 */
#ifndef QXLIB_SORT_H
#define QXLIB_SORT_H

#include "qxlib/types.h"

QX_BEGIN_DECLS

/**
 * Sorts `count` elements of `size` bytes in place, in the order of `compare` (negative, 0, positive), which gets
 * `context` as its last argument. Elements that compare equal end up in an order that is not told.
 */
QX_API void QSort(void* base, size_t count, size_t size, int (*compare)(const void*, const void*, void*),
                  void* context);

QX_END_DECLS

#endif
