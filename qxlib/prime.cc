// Primes: strong probable-prime tests to fixed bases, which for 32 bits are a proof.
//
// No composite below 4,759,123,141 passes the test to the bases 2, 7 and 61 together: G. Jaeschke, "On strong
// pseudoprimes to several bases", Mathematics of Computation 61 (1993), 915-926.

#include "qxlib/prime.h"

#include <bit>

#include "qxlib/fatal_internal.h"

namespace {

constexpr UInt kGreatestPrime = 4294967291;  // of 32 bits
constexpr UInt kBases[] = {2, 7, 61};
constexpr UInt kSmallPrimes[] = {3, 5, 7, 11, 13, 17, 19, 23, 29, 31, 37, 41, 43, 47, 53, 59, 61};

UInt PowerModulo(UInt base, UInt exponent, UInt modulus) {
  uint64_t result = 1;
  for (uint64_t square = base % modulus; exponent != 0; exponent >>= 1, square = square * square % modulus) {
    if ((exponent & 1) != 0) result = result * square % modulus;
  }
  return static_cast<UInt>(result);
}

// Whether the odd number n, above each of the bases, passes the strong test to this one.
bool PassesStrongTest(UInt n, UInt base) {
  const int twos = std::countr_zero(n - 1);
  uint64_t x = PowerModulo(base, (n - 1) >> twos, n);
  if (x == 1 || x == n - 1) return true;
  for (int i = 1; i < twos; i++) {
    x = x * x % n;
    if (x == n - 1) return true;
  }
  return false;
}

bool IsOddPrime(UInt n) {
  for (const UInt p : kSmallPrimes) {
    if (n % p == 0) return n == p;
  }
  for (const UInt base : kBases) {
    if (!PassesStrongTest(n, base)) return false;
  }
  return true;
}

}  // namespace

UInt Prime(UInt n) {
  if (n <= 2) return 2;
  if (n > kGreatestPrime) {
    qxlib::Fatal("qxlib/prime", __LINE__, __func__, FALSE, "no prime of 32 bits is above %u: %u", kGreatestPrime, n);
  }
  n |= 1;
  while (!IsOddPrime(n)) n += 2;  // ends at kGreatestPrime
  return n;
}
