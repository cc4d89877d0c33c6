// What a look-up in a sound dictionary computes: the key's vertices, what their function values combine to, and the
// value of which a probe code is the low bytes. Nothing here asks whether an access lies inside its array.
//
// A key's length is at random, so a branch on it is guessed wrong, which costs more than the work that it saves. Keys
// are therefore taken in runs of eight bytes, of which the last ends where the key ends and begins inside the run
// before it; the bytes that both have are counted once. Shorter keys are taken in runs of four in the same way.
//
//   key of 13 bytes   [ 0 1 2 3 4 5 6 7 ]
//                               [ - - - 8 9 10 11 12 ]
//
// A triple's twelve bytes are loaded as sixteen: behind the coefficients there are always four bytes more
// (CoefficientsNew), the function values in an image.

#ifndef DICT_HASHDICT_KERNEL_H
#define DICT_HASHDICT_KERNEL_H

#include "dict/hashdict_internal.h"

// Look-ups are compiled a second time for processors with AVX2, and the one to take is chosen as the program runs.
#if defined(__x86_64__) && !defined(__AVX2__)
#define QX_HAS_AVX2_TARGET
#endif

namespace hashdict {

enum class Hashed { kVertices, kAbsent, kDamaged };

// Four 32-bit lanes, of which the hash uses three.
using Lanes = UInt __attribute__((vector_size(16)));
using SignedLanes = Int __attribute__((vector_size(16)));

// How coefficients that are not below the number of vertices are noticed.
enum class Watch {
  kNothing,  // there are none: the dictionary is being built
  kTopBits,  // by differences from the largest good one
  kLargest,  // by the largest one, where the processor has an instruction for that
};

// From sums of coefficients to remainders.
inline Lanes Reduce(const HashDict& hdict, Lanes sums) {
  for (UInt k = 0; k < 3; k++) sums[k] = qx::Remainder(UInt{sums[k]}, hdict.h_size - k, hdict.h_reciprocal[k]);
  return sums;
}

// The vertices that remainders give.
inline Triple Vertices(const HashDict& hdict, Lanes remainders) {
  const Id m = hdict.h_size;
  const Id a = remainders[0], b = remainders[1], c = remainders[2];
  const Id second = a + 1 + b;
  const Id third = a + 1 + c + (b <= c ? 1 : 0);
  return {a + 1, (second >= m ? second - m : second) + 1, (third >= m ? third - m : third) + 1};
}

// Adds up coefficients.
template <Watch kWatch>
class CoefficientSums {
 public:
  explicit CoefficientSums(const HashDict& hdict)
      : rank_(Bytes(hdict.h_rank)),
        row_(Bytes(hdict.h_coef)),
        row_size_(size_t{hdict.h_nchars} * sizeof(Triple)),
        limit_{hdict.h_size - 1, hdict.h_size - 1, hdict.h_size - 1, hdict.h_size - 1} {}

  // Adds the coefficients of kCount bytes, the first of which is the key's byte `position`; kSkipping: without the
  // first `skip` of them. False when one of the bytes occurs in no key.
  template <UInt kCount, bool kSkipping = false>
  bool Add(const UByte* bytes, size_t position, Int skip = 0) {
    const UByte* row = row_ + position * row_size_;
    ptrdiff_t ranks[kCount];
    ptrdiff_t signs = 0;
    for (UInt i = 0; i < kCount; i++) {
      ranks[i] = Load<Short>(rank_ + size_t{bytes[i]} * sizeof(Short));
      signs |= ranks[i];
    }
    if (signs < 0) return false;
    for (UInt i = 0; i < kCount; i++, row += row_size_) {
      const auto coef = Load<Lanes>(row + ranks[i] * static_cast<ptrdiff_t>(sizeof(Triple)));
      if constexpr (kWatch == Watch::kTopBits) watched_ |= coef | (limit_ - coef);
      if constexpr (kWatch == Watch::kLargest) watched_ = coef > watched_ ? coef : watched_;
      if constexpr (kSkipping) {
        const Int index = static_cast<Int>(i);
        sums_ += coef & reinterpret_cast<Lanes>(SignedLanes{index, index, index, index} >= skip);
      } else {
        sums_ += coef;
      }
    }
    return true;
  }

  void ReduceSoFar(const HashDict& hdict) { sums_ = Reduce(hdict, sums_); }

  // The vertices that the sums give.
  Triple ToVertices(const HashDict& hdict) const { return Vertices(hdict, Reduce(hdict, sums_)); }

  // A coefficient was above m - 1.
  bool Damaged() const {
    if constexpr (kWatch == Watch::kNothing) return false;
    const Lanes above = kWatch == Watch::kLargest ? watched_ | (limit_ - watched_) : watched_;
    return (above[0] | above[1] | above[2]) >> 31 != 0;
  }

 private:
  const UByte* rank_;
  const UByte* row_;  // of position 0
  size_t row_size_;
  Lanes sums_ = {0, 0, 0, 0};
  Lanes watched_ = {0, 0, 0, 0};
  Lanes limit_;
};

// Every byte of a key of at least four, once. False when one occurs in no key.
template <Watch kWatch>
inline bool AddKey(const UByte* bytes, UInt len, CoefficientSums<kWatch>* sums) {
  if (len >= 8) [[likely]] {
    const UInt last = len - 8;
    UInt i = 0;
    for (; i < last; i += 8) {
      if (!sums->template Add<8>(bytes + i, i)) return false;
    }
    return sums->template Add<8, true>(bytes + last, last, static_cast<Int>(i - last));
  }
  const UInt last = len - 4;
  return sums->template Add<4>(bytes, 0) && sums->template Add<4, true>(bytes + last, last, static_cast<Int>(4 - last));
}

// The same as HashFast byte by byte, in pieces whose sums do not pass 32 bits: for keys of less than four bytes, and
// for long ones in large dictionaries.
template <Watch kWatch>
[[gnu::noinline]] Hashed HashByBytes(const HashDict& hdict, const UByte* bytes, UInt len, Triple* triple) {
  CoefficientSums<kWatch> sums(hdict);
  const UInt room = 0xFFFFFFFF / hdict.h_size - 1;  // so many coefficients, and a remainder
  UInt left = room;
  for (UInt i = 0; i < len; i++) {
    if (!sums.template Add<1>(bytes + i, i)) return Hashed::kAbsent;
    if (--left > 0) continue;
    sums.ReduceSoFar(hdict);
    left = room;
  }
  if (sums.Damaged()) return Hashed::kDamaged;
  *triple = sums.ToVertices(hdict);
  return Hashed::kVertices;
}

// The vertices of a key in a sound dictionary. kAbsent: no key is so long, or has such a byte. kDamaged: a coefficient
// is out of range, so the key belongs to the slow hash.
template <Watch kWatch>
inline Hashed HashFast(const HashDict& hdict, const UByte* bytes, UInt len, Triple* triple) {
  if (len > hdict.h_maxlen) return Hashed::kAbsent;
  if (len < 4 || ULong{len} * hdict.h_size > 0xFFFFFFFF) return HashByBytes<kWatch>(hdict, bytes, len, triple);
  CoefficientSums<kWatch> sums(hdict);
  if (!AddKey(bytes, len, &sums)) return Hashed::kAbsent;
  if (sums.Damaged()) return Hashed::kDamaged;
  *triple = sums.ToVertices(hdict);
  return Hashed::kVertices;
}

// The function value of a vertex: bits of the eight bytes from its first one on, or of the array's last eight.
inline Id FunGetFast(const HashDict& hdict, Id v) {
  const UInt width = hdict.h_nbits;
  if constexpr (std::endian::native != std::endian::little) return PackedGet(hdict.h_fun, v, width);
  const ULong first = ULong{v} * width;
  const size_t from = std::min(first / CHAR_BIT, hdict.h_fun_size - sizeof(ULong));
  const ULong bits = Load<ULong>(Bytes(hdict.h_fun) + from) >> (first - from * CHAR_BIT);
  return static_cast<Id>(bits & hdict.h_fun_mask);
}

// What the function values of a key's vertices combine to. All loads are on their way before one is used.
inline Id Combine(const HashDict& hdict, const Triple& triple) {
  return FunGetFast(hdict, triple.v[0]) ^ FunGetFast(hdict, triple.v[1]) ^ FunGetFast(hdict, triple.v[2]);
}

// Has the processor fetch what Combine will read.
inline void PrefetchFun(const HashDict& hdict, const Triple& triple) {
  for (const Id v : triple.v) __builtin_prefetch(Bytes(hdict.h_fun) + (ULong{v} * hdict.h_nbits >> 3));
}

// The number whose digits to base 257 are eight bytes, modulo 2^64.
inline ULong ProbeValueOfEight(ULong eight) {
  constexpr ULong kBytes0And4 = 0x000000FF000000FF;
  constexpr ULong k1 = 257, k2 = k1 * k1, k4 = k2 * k2;
  // Two numbers of two bytes each in the halves of a word: 257 * 255 + 255 fits.
  const ULong pair0 = (eight & kBytes0And4) * k1 + ((eight >> 8) & kBytes0And4);
  const ULong pair1 = ((eight >> 16) & kBytes0And4) * k1 + ((eight >> 24) & kBytes0And4);
  const ULong first_four = (pair0 & 0xFFFFFFFF) * k2 + (pair1 & 0xFFFFFFFF);
  const ULong last_four = (pair0 >> 32) * k2 + (pair1 >> 32);
  return first_four * k4 + last_four;
}

// The number whose digits to base 257 are the key's bytes, modulo 2^64: a probe code is its lowest bytes.
inline ULong ProbeValue(const UByte* bytes, UInt len) {
  constexpr ULong k1 = 257, k2 = k1 * k1, k4 = k2 * k2, k8 = k4 * k4;
  ULong p = 0;
  if (std::endian::native == std::endian::little && len >= 8) {
    // The odd bytes come first, as eight with zeros before them.
    const UInt head = (len - 1) % 8 + 1;
    p = ProbeValueOfEight(Load<ULong>(bytes) << 8 * (8 - head));
    for (UInt i = head; i < len; i += 8) p = p * k8 + ProbeValueOfEight(Load<ULong>(bytes + i));
    return p;
  }
  for (; len > 0; len--) p = p * k1 + *bytes++;
  return p;
}

// The same modulo 2^16, which is all that a code of one or two bytes has of it, in lanes of 16 bits.
inline ULong ProbeValueShort(const UByte* bytes, UInt len) {
  using Shorts = UShort __attribute__((vector_size(16)));
  using EightBytes = UByte __attribute__((vector_size(8)));
  // 257^k = 1 + 256 k modulo 2^16; the first byte has the highest power.
  constexpr Shorts kPowers = {0x701, 0x601, 0x501, 0x401, 0x301, 0x201, 0x101, 1};
  constexpr UShort k8 = 0x801;
  if (std::endian::native != std::endian::little || len < 8) return ProbeValue(bytes, len);
  const UInt head = (len - 1) % 8 + 1;
  const auto lanes = [](ULong eight) { return __builtin_convertvector(std::bit_cast<EightBytes>(eight), Shorts); };
  Shorts p = lanes(Load<ULong>(bytes) << 8 * (8 - head));
  for (UInt i = head; i < len; i += 8) p = p * k8 + lanes(Load<ULong>(bytes + i));
  p *= kPowers;
  UShort sum = 0;
  for (UInt i = 0; i < 8; i++) sum = static_cast<UShort>(sum + p[i]);
  return sum;
}

}  // namespace hashdict

#endif
