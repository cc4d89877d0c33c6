/**
 * @file
 * Growable arrays, and storage for packed arrays.
 *
 * To append an element: when `length` equals `capacity` call `ArrayGrow_`; store at index `length`; add one to
 * `length`.
 */
#ifndef QXLIB_ARRAY_H
#define QXLIB_ARRAY_H

#include "qxlib/types.h"

QX_BEGIN_DECLS

/** Makes the array empty: no elements, no storage. Frees nothing. */
QX_API void ArrayInit_(Array_* array);

/**
 * Makes room for at least one more element. Growth is geometric.
 *
 * @param eltSize  bytes an element
 *
 * `length` stays. Invalidates `elts`. An array that already holds 2147483647 elements cannot grow: the process ends
 * with a message.
 */
QX_API void ArrayGrow_(Array_* array, size_t eltSize, const char* file, int line);

/** Sets the capacity to exactly `capacity` elements, not below `length` (asserted). Invalidates `elts`. */
QX_API void ArrayGrowExact_(Array_* array, UInt capacity, size_t eltSize, const char* file, int line);

/**
 * The capacity to grow to before a bulk copy: at least `needed`, at most `maximum`, and geometric in `capacity`
 * between. `needed` above `maximum` is a caller's error: the process ends with a message.
 */
QX_API UInt ArrayNextSize(UInt capacity, UInt needed, UInt maximum);

/** Frees the elements; the array is empty afterwards. */
QX_API void ArrayFree_(Array_* array, const char* file, int line);

/**
 * Storage for a packed array: `nvalues` entries of `nbits` bits in 64-bit words.
 *
 * @param eltSize  bytes a word, always 8
 * @param flags    always 0
 * @param size     receives the byte size when not null: exactly 8 * ceil(nvalues * nbits / 64)
 * @return zeroed storage, null when the size is 0
 */
QX_API void* AnonArrayGrow_(size_t eltSize, UInt flags, ULong nvalues, UInt nbits, size_t* size, const char* file,
                            int line);

/** Frees storage from `AnonArrayGrow_`; null is nothing to free. */
QX_API void AnonArrayFree_(void* array, const char* file, int line);

QX_END_DECLS

#endif
