// Remainders of a division by a number that stays, as multiplications: the same results as the operator's.
//
// The reciprocal of d is 2^64 / d, rounded up; of 0 and of 1 it is 0, which gives the remainder 0: right for 1, and
// what those want who have nothing to divide by. [Lemire, Kaser, Kurz: Faster remainder by direct computation, 2019]

#ifndef DICT_REMAINDER_H
#define DICT_REMAINDER_H

#include "qxlib/types.h"

namespace qx {

__extension__ typedef unsigned __int128 Wide;

constexpr ULong Reciprocal(UInt divisor) { return divisor == 0 ? 0 : ~ULong{0} / divisor + 1; }

constexpr ULong HighProduct(ULong a, ULong b) { return static_cast<ULong>((static_cast<Wide>(a) * b) >> 64); }

constexpr UInt Remainder(UInt n, UInt divisor, ULong reciprocal) {
  return static_cast<UInt>(HighProduct(reciprocal * n, divisor));
}

// For 64 bits, and divisors from 2 on: the quotient that the reciprocal gives may be one too large, and the rest is
// then below zero.
constexpr UInt Remainder(ULong n, UInt divisor, ULong reciprocal) {
  const ULong rest = n - HighProduct(reciprocal, n) * divisor;
  return static_cast<UInt>(rest + (rest >> 63 != 0 ? divisor : 0));
}

}  // namespace qx

#endif
