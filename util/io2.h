/**
 * @file
 * Little-endian codecs that move along a buffer: each one starts at `*position` and leaves it behind what it took or
 * put.
 *
 * Two forms of a length. Padded: as many bytes as the caller says, 0 to 4. Ref: 1 to 5 bytes of seven bits each, least
 * significant group first, in bits 1 to 7; bit 0 of a byte says that another one follows.
 *
 *   127    FE            128    01 02        16383  FF FE
 *   16384  01 01 02      2^28   01 01 01 01 02
 *
 * Nothing here is bounded: a writer has room for the longest form, a reader's caller has made sure that up to
 * `IO2_REF4_SIZE` bytes (or the padded width) can be read.
 */
#ifndef UTIL_IO2_H
#define UTIL_IO2_H

#include <sys/cdefs.h>

#include "util/io.h"

/** Bytes of the longest Ref form. */
#define IO2_REF4_SIZE 5

QX_BEGIN_DECLS
/* The C library's own assertion failure, which <assert.h> hides where NDEBUG is set: ours hold in every build. */
extern void __assert_fail(const char* assertion, const char* file, unsigned int line, const char* function) __THROW
    __attribute__((__noreturn__));
QX_END_DECLS

static inline void IO2_MemWriteLE1(UByte** position, UInt value) {
  IO_MemPutLE1(*position, value);
  *position += 1;
}

static inline void IO2_MemWriteLE2(UByte** position, UInt value) {
  IO_MemPutLE2(*position, value);
  *position += 2;
}

static inline void IO2_MemWriteLE3(UByte** position, UInt value) {
  IO_MemPutLE3(*position, value);
  *position += 3;
}

static inline void IO2_MemWriteLE4(UByte** position, UInt value) {
  IO_MemPutLE4(*position, value);
  *position += 4;
}

static inline UInt IO2_MemReadLE1(const UByte** position) {
  const UInt value = IO_MemGetLE1(*position);
  *position += 1;
  return value;
}

static inline UInt IO2_MemReadLE2(const UByte** position) {
  const UInt value = IO_MemGetLE2(*position);
  *position += 2;
  return value;
}

static inline UInt IO2_MemReadLE3(const UByte** position) {
  const UInt value = IO_MemGetLE3(*position);
  *position += 3;
  return value;
}

static inline UInt IO2_MemReadLE4(const UByte** position) {
  const UInt value = IO_MemGetLE4(*position);
  *position += 4;
  return value;
}

/** Writes the lowest `size` bytes of `value`; nothing when `size` is 0. A size above 4 is asserted against. */
static inline void IO2_MemWritePaddedLE4(UByte** position, UInt value, UInt size) {
  switch (size) {
    case 0:
      return;
    case 1:
      IO2_MemWriteLE1(position, value);
      return;
    case 2:
      IO2_MemWriteLE2(position, value);
      return;
    case 3:
      IO2_MemWriteLE3(position, value);
      return;
    case 4:
      IO2_MemWriteLE4(position, value);
      return;
    default:
      __assert_fail("size <= 4", "util/io2", __LINE__, __func__);
  }
}

/** Reads a number of `size` bytes; 0, and nothing taken, when `size` is 0. A size above 4 is asserted against. */
static inline UInt IO2_MemReadPaddedLE4(const UByte** position, UInt size) {
  switch (size) {
    case 0:
      return 0;
    case 1:
      return IO2_MemReadLE1(position);
    case 2:
      return IO2_MemReadLE2(position);
    case 3:
      return IO2_MemReadLE3(position);
    case 4:
      return IO2_MemReadLE4(position);
    default:
      __assert_fail("size <= 4", "util/io2", __LINE__, __func__);
  }
}

/** Writes `value` in the shortest Ref form that holds it. */
static inline void IO2_MemRefWrite4(UByte** position, UInt value) {
  while (value > 127) {
    IO2_MemWriteLE1(position, (value << 1) | 1);
    value >>= 7;
  }
  IO2_MemWriteLE1(position, value << 1);
}

/**
 * Reads a number in the Ref form, shortest or not.
 *
 * A fifth byte that says that a sixth one follows is malformed: the result is 0 and nothing is taken. Bits above the
 * 32nd are dropped.
 */
static inline UInt IO2_MemRefReadChecked4(const UByte** position) {
  const UByte* from = *position;
  UInt byte = from[0];
  UInt value = byte >> 1;
  if ((byte & 1) == 0) { /* most keys are short */
    *position = from + 1;
    return value;
  }
  for (UInt i = 1; i < IO2_REF4_SIZE; i++) {
    byte = from[i];
    value += (byte >> 1) << (7 * i);
    if ((byte & 1) == 0) {
      *position = from + i + 1;
      return value;
    }
  }
  return 0;
}

#endif
