// What the files of the perfect-hash dictionary share: loads, packed arrays.
//
// A key's three vertices come from three sums of coefficients, one triple of neighbours in memory a key byte:
//
//   h_coef   [ position 0: rank 0 (a b c) | rank 1 (a b c) | ... ][ position 1: ... ]      12 bytes a triple
//   a, b, c  remainders of the sums modulo m, m - 1 and m - 2
//   vertices a + 1,  a + 1 + b (+1),  a + 1 + c (+1, +1 when b <= c), each round past m: three different ones of 1 .. m
//
// Taken by the letter, the remainders are kept from byte to byte by conditional subtractions. As long as every
// coefficient lies below m that gives the remainder of the plain sum, so the fast hash (hashdict_kernel.h) adds four
// lanes at a time and divides once; it notices a larger coefficient, which only a damaged image has, and leaves the key
// to the slow hash.
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

// A key's vertices, or the coefficients of a byte at a position.
struct Triple {
  Id v[3];
};

inline Id FunGet(const HashDict& hdict, Id v) { return PackedGet(hdict.h_fun, v, hdict.h_nbits); }

}  // namespace hashdict

#endif
