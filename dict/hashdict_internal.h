// What the files of the perfect-hash dictionary share: loads, packed arrays, the fast hash, probe values.
//
// A key's three vertices come from three sums of coefficients, one triple of neighbours in memory a key byte:
//
//   h_coef   [ position 0: rank 0 (a b c) | rank 1 (a b c) | ... ][ position 1: ... ]      12 bytes a triple
//   a, b, c  remainders of the sums modulo m, m - 1 and m - 2
//   vertices a + 1,  a + 1 + b (+1),  a + 1 + c (+1, +1 when b <= c), each round past m: three different ones of 1 .. m
//
// Taken by the letter, the remainders are kept from byte to byte by conditional subtractions. As long as every
// coefficient lies below m that gives the remainder of the plain sum, so the fast hash adds four lanes at a time and
// divides once; it notices a larger coefficient, which only a damaged image has, and leaves the key to the slow hash.
//
// The fast way trusts what SoundnessSet found out when the dictionary was made: that the arrays cover all that the
// header promises. Every other dictionary is looked up by the slow way, which checks each access.

#ifndef DICT_HASHDICT_INTERNAL_H
#define DICT_HASHDICT_INTERNAL_H

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>

#include "dict/hashdict.h"
#include "dict/remainder.h"
#include "dict/report.h"

namespace hashdict {

constexpr const char* kModule = "dict/hashdict";
constexpr size_t kHeaderSize = 48;
constexpr UInt kMaxBits = 32;   // of a function value
constexpr UInt kMaxProbe = 8;   // bytes in a probe code
constexpr size_t kRanks = 256;  // byte values
constexpr Id kMaxFastSize = 0x7FFFFFFF;

// An array of `nvalues` zeroed entries of as many bits as `maxvalue` has, 1 at least; null when there is none.
void* ArrayNew(ULong nvalues, ULong maxvalue, UShort* nbits, size_t* size);

// "dir/name.suffix", or "name.suffix" without a directory; false, with errno, when it is longer than a path can be.
bool FilePath(char (&path)[PATH_MAX], const char* dir, const char* name, const char* suffix);

// Fills the fields behind the listed ones from those: call it last, whenever a dictionary's arrays are in place.
// (hashdict_check.cc)
void SoundnessSet(HashDict* hdict);

// A key and its length, from the caller. The bytes are good until the next key is asked for.
inline const UByte* GetKey(void* dict, DictKeyFun key, Id idx, UShort* length) {
  const UByte* bytes = nullptr;
  *length = key(dict, idx, &bytes);
  return bytes;
}

// Images lie at any address.
template <typename T>
inline T Load(const void* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

inline const UByte* Bytes(const void* at) { return static_cast<const UByte*>(at); }

// The low 8 * probe bits.
inline ULong ProbeMask(UInt probe) {
  if (probe >= kMaxProbe) return ~ULong{0};
  return (ULong{1} << 8 * probe) - 1;
}

inline bool HasProbeCode(const HashDict& hdict) { return hdict.h_probe != 0 && hdict.h_probe_code != nullptr; }

inline bool IsSound(const HashDict& hdict) { return hdict.h_sound == hdict.h_size && hdict.h_sound != 0; }

// An entry of a packed array, `width` 1 to 32 bits from bit `shift` of the word `low` on; `high` is the word that holds
// its last bit. When that is the same word, its low bits come in a second time, above the entry, where the mask takes
// them off.
inline Id PackedBits(ULong low, ULong high, UInt shift, UInt width) {
  const ULong bits = (low >> shift) | ((high << 1) << (63 - shift));
  return static_cast<Id>(bits & ((ULong{1} << width) - 1));
}

inline Id PackedGet(const void* words, ULong index, UInt width) {
  const ULong first = index * width;
  const ULong last = first + width - 1;
  return PackedBits(Load<ULong>(Bytes(words) + (first >> 6) * sizeof(ULong)),
                    Load<ULong>(Bytes(words) + (last >> 6) * sizeof(ULong)), first & 63, width);
}

inline void PackedSet(ULong* words, ULong index, UInt width, Id value) {
  const ULong mask = (ULong{1} << width) - 1;
  const ULong first = index * width;
  const UInt shift = first & 63;
  ULong* word = words + (first >> 6);
  word[0] = (word[0] & ~(mask << shift)) | ((value & mask) << shift);
  if (shift + width > 64) {
    const UInt there = 64 - shift;
    word[1] = (word[1] & ~(mask >> there)) | ((value & mask) >> there);
  }
}

inline Id FunGet(const HashDict& hdict, Id v) { return PackedGet(hdict.h_fun, v, hdict.h_nbits); }

struct Triple {
  Id v[3];
};

// What the function values of a key's vertices combine to. All loads are on their way before one is used.
inline Id Combine(const HashDict& hdict, const Triple& triple) {
  const Id x = FunGet(hdict, triple.v[0]), y = FunGet(hdict, triple.v[1]), z = FunGet(hdict, triple.v[2]);
  return x ^ y ^ z;
}

// Has the processor fetch what Combine will read.
inline void PrefetchFun(const HashDict& hdict, const Triple& triple) {
  for (const Id v : triple.v) __builtin_prefetch(Bytes(hdict.h_fun) + (ULong{v} * hdict.h_nbits >> 3));
}

enum class Hashed { kVertices, kAbsent, kDamaged };

// Four 32-bit lanes, of which the hash uses three.
using Lanes = UInt __attribute__((vector_size(16)));

// The vertices of a key in a sound dictionary. kAbsent: no key is so long, or has such a byte. kDamaged: a coefficient
// is out of range, so the key belongs to the slow hash; a dictionary that was just built (kTrusted) need not be asked.
template <bool kTrusted>
inline Hashed HashFast(const HashDict& hdict, const UByte* bytes, UInt len, Triple* triple) {
  if (len > hdict.h_maxlen) return Hashed::kAbsent;
  const Id m = hdict.h_size;
  const UByte* rank = Bytes(hdict.h_rank);
  const UByte* row = Bytes(hdict.h_coef);
  const size_t row_size = size_t{hdict.h_nchars} * sizeof(Triple);
  const auto rank_of = [rank](UByte byte) { return ptrdiff_t{Load<Short>(rank + size_t{byte} * sizeof(Short))}; };
  constexpr auto kTriple = static_cast<ptrdiff_t>(sizeof(Triple));

  Lanes sums = {0, 0, 0, 0};
  Lanes damage = {0, 0, 0, 0};  // a lane's top bit: a coefficient above m - 1
  const Lanes limit = {m - 1, m - 1, m - 1, m - 1};
  const auto add = [&](Lanes coef) {
    sums += coef;
    if constexpr (!kTrusted) damage |= coef | (limit - coef);
  };
  const auto reduce = [&] {
    sums[0] = qx::Remainder(UInt{sums[0]}, m, hdict.h_reciprocal[0]);
    sums[1] = qx::Remainder(UInt{sums[1]}, m - 1, hdict.h_reciprocal[1]);
    sums[2] = qx::Remainder(UInt{sums[2]}, m - 2, hdict.h_reciprocal[2]);
  };

  // So many coefficients, and a remainder, can be added up without passing 32 bits.
  UInt room = len;
  if (ULong{len} * m > 0xFFFFFFFF) room = 0xFFFFFFFF / m - 1;

  // All but the last position: there 16 bytes can be loaded for a triple's 12, since another row follows.
  UInt left = len;
  while (left > 1) {
    UInt block = std::min(left - 1, room);
    left -= block;
    for (; block >= 4; block -= 4, bytes += 4, row += 4 * row_size) {
      const ptrdiff_t r0 = rank_of(bytes[0]), r1 = rank_of(bytes[1]), r2 = rank_of(bytes[2]), r3 = rank_of(bytes[3]);
      if ((r0 | r1 | r2 | r3) < 0) return Hashed::kAbsent;
      add(Load<Lanes>(row + r0 * kTriple));
      add(Load<Lanes>(row + row_size + r1 * kTriple));
      add(Load<Lanes>(row + 2 * row_size + r2 * kTriple));
      add(Load<Lanes>(row + 3 * row_size + r3 * kTriple));
    }
    for (; block > 0; block--, bytes++, row += row_size) {
      const ptrdiff_t r = rank_of(*bytes);
      if (r < 0) return Hashed::kAbsent;
      add(Load<Lanes>(row + r * kTriple));
    }
    if (room < len) reduce();
  }
  if (left > 0) {
    const ptrdiff_t r = rank_of(*bytes);
    if (r < 0) return Hashed::kAbsent;
    const auto last = Load<Triple>(row + r * kTriple);
    add(Lanes{last.v[0], last.v[1], last.v[2], 0});
  }
  if constexpr (!kTrusted) {
    if ((damage[0] | damage[1] | damage[2]) >> 31 != 0) return Hashed::kDamaged;
  }
  reduce();

  const Id a = sums[0], b = sums[1], c = sums[2];
  const Id second = a + 1 + b;
  const Id third = a + 1 + c + (b <= c ? 1 : 0);
  triple->v[0] = a + 1;
  triple->v[1] = (second >= m ? second - m : second) + 1;
  triple->v[2] = (third >= m ? third - m : third) + 1;
  return Hashed::kVertices;
}

// The number whose digits to base 257 are the key's bytes, modulo 2^64: a probe code is its lowest bytes.
inline ULong ProbeValue(const UByte* bytes, UInt len) {
  constexpr ULong k1 = 257, k2 = k1 * k1, k4 = k2 * k2, k8 = k4 * k4;
  ULong p = 0;
  if constexpr (std::endian::native == std::endian::little) {
    constexpr ULong kBytes0And4 = 0x000000FF000000FF;
    for (; len >= 8; len -= 8, bytes += 8) {
      const auto eight = Load<ULong>(bytes);
      // Two numbers of two bytes each in the halves of a word: 257 * 255 + 255 fits.
      const ULong pair0 = (eight & kBytes0And4) * k1 + ((eight >> 8) & kBytes0And4);
      const ULong pair1 = ((eight >> 16) & kBytes0And4) * k1 + ((eight >> 24) & kBytes0And4);
      const ULong first_four = (pair0 & 0xFFFFFFFF) * k2 + (pair1 & 0xFFFFFFFF);
      const ULong last_four = (pair0 >> 32) * k2 + (pair1 >> 32);
      p = p * k8 + (first_four * k4 + last_four);
    }
  }
  for (; len > 0; len--) p = p * k1 + *bytes++;
  return p;
}

}  // namespace hashdict

#endif
