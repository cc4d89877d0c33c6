// The default hash of both tables, inline: the sum of bytes[i] * 257^i, modulo 2^32.
//
// Sixteen bytes a step. Bytes become 16-bit lanes, pairs of them b0 + 257 * b1, pairs of those p0 + 257^2 * p1, so that
// a block ends as two partial sums t0 + 257^2 * ... in 64-bit lanes of which only the low 32 bits count; Horner's rule
// runs over the blocks from the last one to the first. The last bytes of a key that is no multiple of 16 come first, as
// a block that overlaps its neighbour: the bytes that are not its own are masked, and the power that its own start with
// is put right by one multiplication:
//
//   21 bytes    bytes 5 to 20, of which 16 to 20 count: they stand for powers 11 to 15 of their block, and belong to
//               16 to 20, so times 257^5. Then bytes 0 to 15, as they are.
//   37 bytes    bytes 21 to 36, of which 32 to 36 count, times 257^5; bytes 16 to 31; all of that times 257^16; and
//               bytes 0 to 15.

#ifndef DICT_HASH_BYTES_H
#define DICT_HASH_BYTES_H

#include <cstring>

#include "qxlib/types.h"
#include "util/io.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace heap {

constexpr UInt kRadix = 257;

constexpr UInt RadixPower(UInt exponent) {
  UInt power = 1;
  for (UInt i = 0; i < exponent; i++) power *= kRadix;
  return power;
}

// One byte after another, as the hash is defined.
constexpr UInt HashBytewise(const UByte* bytes, UInt len) {
  UInt hash = 0;
  while (len > 0) hash = hash * kRadix + bytes[--len];
  return hash;
}

#ifdef __SSE2__

struct RadixPowers {
  UInt power[16];
};

constexpr RadixPowers MakeRadixPowers() {
  RadixPowers powers{};
  for (UInt i = 0; i < 16; i++) powers.power[i] = RadixPower(i);
  return powers;
}

inline constexpr RadixPowers kRadixPowers = MakeRadixPowers();

// Loaded from kTailMask + r, the mask keeps the last r bytes of a block.
alignas(32) inline constexpr UByte kTailMask[32] = {0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
                                                    0,    0,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                                    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

inline __m128i LoadBlock(const UByte* bytes) {
  __m128i block;
  std::memcpy(&block, bytes, sizeof(block));
  return block;
}

// Two 64-bit lanes t0, t1 whose low halves give the block's sum as t0 + 257^4 * t1.
inline __m128i BlockSums(__m128i block) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i pair = _mm_set1_epi32(static_cast<int>(kRadix << 16 | 1));
  const __m128i low32 = _mm_set1_epi64x(0xFFFFFFFF);
  const __m128i first = _mm_madd_epi16(_mm_unpacklo_epi8(block, zero), pair);   // bytes 0 to 7: p0 p1 p2 p3
  const __m128i second = _mm_madd_epi16(_mm_unpackhi_epi8(block, zero), pair);  // bytes 8 to 15
  const __m128i radix2 = _mm_set1_epi64x(RadixPower(2));
  const __m128i radix8 = _mm_set1_epi64x(RadixPower(8));
  const __m128i quads1 = _mm_add_epi64(_mm_and_si128(first, low32), _mm_mul_epu32(_mm_srli_epi64(first, 32), radix2));
  const __m128i quads2 = _mm_add_epi64(_mm_and_si128(second, low32), _mm_mul_epu32(_mm_srli_epi64(second, 32), radix2));
  return _mm_add_epi64(quads1, _mm_mul_epu32(quads2, radix8));
}

inline UInt SumLanes(__m128i sums) {
  const ULong low = static_cast<ULong>(_mm_cvtsi128_si64(sums));
  const ULong high = static_cast<ULong>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(sums, sums)));
  return static_cast<UInt>(low + high * RadixPower(4));
}

// The first `len` bytes, below 16, as a block that is zero behind them.
inline __m128i LoadShort(const UByte* bytes, UInt len) {
  if (len >= 8) {
    const ULong last = IO_MemGetLE8(bytes + (len - 8));
    const ULong rest = len == 8 ? 0 : last >> (8 * (16 - len));
    return _mm_set_epi64x(static_cast<long long>(rest), static_cast<long long>(IO_MemGetLE8(bytes)));
  }
  ULong value = 0;
  if (len >= 4) {
    const ULong last = IO_MemGetLE4(bytes + (len - 4));
    value = IO_MemGetLE4(bytes) | last << (8 * (len - 4));
  } else if (len > 0) {
    // Bytes 0, len / 2 and len - 1 are all there are; one that is taken twice goes to one place.
    value = static_cast<ULong>(bytes[0]) | static_cast<ULong>(bytes[len / 2]) << (8 * (len / 2)) |
            static_cast<ULong>(bytes[len - 1]) << (8 * (len - 1));
  }
  return _mm_cvtsi64_si128(static_cast<long long>(value));
}

inline UInt HashKey(const UByte* bytes, UInt len) {
  if (len < 16) return SumLanes(BlockSums(LoadShort(bytes, len)));
  const __m128i radix16 = _mm_set1_epi64x(RadixPower(16));
  const UInt rest = len % 16;
  size_t at = len - rest;
  __m128i sums = _mm_setzero_si128();
  if (rest != 0) {
    const __m128i tail = _mm_and_si128(LoadBlock(bytes + (len - 16)), LoadBlock(kTailMask + rest));
    // The block starts 16 - rest bytes below the tail: 257^rest above the block that Horner's rule takes next.
    sums = _mm_mul_epu32(BlockSums(tail), _mm_set1_epi64x(kRadixPowers.power[rest]));
    at -= 16;
    sums = _mm_add_epi64(sums, BlockSums(LoadBlock(bytes + at)));
  }
  while (at > 0) {
    at -= 16;
    sums = _mm_add_epi64(_mm_mul_epu32(sums, radix16), BlockSums(LoadBlock(bytes + at)));
  }
  return SumLanes(sums);
}

#else

// Four bytes a step keep the multiplications apart from one another.
inline UInt HashKey(const UByte* bytes, UInt len) {
  const UInt rest = len % 4;
  size_t at = len - rest;
  UInt hash = HashBytewise(bytes + at, rest);
  while (at > 0) {
    at -= 4;
    hash = hash * RadixPower(4) +
           (bytes[at] + bytes[at + 1] * RadixPower(1) + bytes[at + 2] * RadixPower(2) + bytes[at + 3] * RadixPower(3));
  }
  return hash;
}

#endif

}  // namespace heap

#endif
