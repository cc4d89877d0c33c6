/**
 * @file
 * The base types that every module uses, and the shape of a growable array.
 *
 * Widths are fixed: the library runs on 64-bit Linux, where `unsigned long` has 64 bits.
 */
#ifndef QXLIB_TYPES_H
#define QXLIB_TYPES_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define QX_BEGIN_DECLS extern "C" {
#define QX_END_DECLS }
#else
#define QX_BEGIN_DECLS
#define QX_END_DECLS
#endif

/** Marks a function that its shared library exports. */
#define QX_API __attribute__((visibility("default")))

/** Checks a printf-style format, argument `format`, against the arguments from `first` on. */
#define QX_PRINTF(format, first) __attribute__((__format__(__printf__, format, first)))

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

typedef int32_t Boolean; /**< `FALSE` is 0; every other value, given or returned, is true */
typedef uint8_t UByte;
typedef int16_t Short;
typedef uint16_t UShort;
typedef int32_t Int;
typedef uint32_t UInt;
typedef unsigned long ULong; /**< 64 bits: keys, values, times in milliseconds, fingerprints */

typedef UInt Id;                  /**< number of an entry of a dictionary */
typedef ULong FPrint;             /**< fingerprint of a byte string */
typedef int32_t TimeMilliseconds; /**< a channel's time-out; -1 is none */

/**
 * The generic view of every growable array, on which the operations of `qxlib/array.h` work.
 * `length <= capacity` always; `elts` may be null while `capacity` is 0.
 */
typedef struct {
  void* elts;    /**< first element */
  UInt length;   /**< elements in use */
  UInt capacity; /**< elements allocated */
} Array_;

/** A growable array of `UInt`: `a` is the generic view, `t` the typed one, of the same three fields. */
typedef union {
  Array_ a;
  struct {
    UInt* elts;
    UInt length;
    UInt capacity;
  } t;
} UIntArray;

/** A growable array of bytes. */
typedef union {
  Array_ a;
  struct {
    UByte* elts;
    UInt length;
    UInt capacity;
  } t;
} UByteArray;

typedef pthread_t Thread;
typedef pthread_mutex_t Mutex;
typedef pthread_cond_t Condition;

#endif
