/**
 * @file
 * Little-endian integers at a place in memory.
 *
 * A number of n bytes lies at any address, least significant byte first, whatever the byte order of the machine.
 * Nothing here is bounded: the caller has made sure of n bytes. Compilers turn each function into one load or one
 * store.
 */
#ifndef UTIL_IO_H
#define UTIL_IO_H

#include "qxlib/types.h"

/* The lowest byte or 4 bytes of a number, in the cast of either language. */
#ifdef __cplusplus
#define IO_BYTE_(value) static_cast<UByte>(value)
#define IO_UINT_(value) static_cast<UInt>(value)
#else
#define IO_BYTE_(value) ((UByte)(value))
#define IO_UINT_(value) ((UInt)(value))
#endif

/** Reads the byte at `from`. */
static inline UInt IO_MemGetLE1(const UByte* from) { return from[0]; }

/** Reads the number in the 2 bytes at `from`. */
static inline UInt IO_MemGetLE2(const UByte* from) {
  const UInt high = from[1];
  return from[0] | (high << 8);
}

/** Reads the number in the 3 bytes at `from`. */
static inline UInt IO_MemGetLE3(const UByte* from) {
  const UInt high = from[2];
  return IO_MemGetLE2(from) | (high << 16);
}

/** Reads the number in the 4 bytes at `from`. */
static inline UInt IO_MemGetLE4(const UByte* from) {
  const UInt high = from[3];
  return IO_MemGetLE3(from) | (high << 24);
}

/** Reads the number in the 8 bytes at `from`. */
static inline ULong IO_MemGetLE8(const UByte* from) {
  const ULong high = IO_MemGetLE4(from + 4);
  return IO_MemGetLE4(from) | (high << 32);
}

/** Writes the lowest byte of `value` at `to`. */
static inline void IO_MemPutLE1(UByte* to, UInt value) { to[0] = IO_BYTE_(value); }

/** Writes the lowest 2 bytes of `value` at `to`. */
static inline void IO_MemPutLE2(UByte* to, UInt value) {
  to[0] = IO_BYTE_(value);
  to[1] = IO_BYTE_(value >> 8);
}

/** Writes the lowest 3 bytes of `value` at `to`. */
static inline void IO_MemPutLE3(UByte* to, UInt value) {
  IO_MemPutLE2(to, value);
  to[2] = IO_BYTE_(value >> 16);
}

/** Writes the 4 bytes of `value` at `to`. */
static inline void IO_MemPutLE4(UByte* to, UInt value) {
  IO_MemPutLE3(to, value);
  to[3] = IO_BYTE_(value >> 24);
}

/** Writes the 8 bytes of `value` at `to`. */
static inline void IO_MemPutLE8(UByte* to, ULong value) {
  IO_MemPutLE4(to, IO_UINT_(value));
  IO_MemPutLE4(to + 4, IO_UINT_(value >> 32));
}

#endif
