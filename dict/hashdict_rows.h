// A dictionary's coefficients laid out for many look-ups, and the look-up in them.
//
//   image   position 0: rank 0 (a b c) | rank 1 (a b c) | ...     position 1: ...
//   rows    rank 0: position 0 (a b c -) | position 1 (a b c -) | ...     rank 1: ...     absent: (0 0 0 1) ...
//
// A byte leads to its row at once, and the positions of a run of bytes lie at fixed distances from there, so that a
// byte of a key costs three instructions: fetch it, fetch its row, add. What an image may have that a sum cannot take
// is told by the fourth lane: bytes that occur in no key are counted there, and coefficients out of range from 2^16 on.
//
// Keys of eight bytes and more are taken in runs as in hashdict_kernel.h: a full one first, more as long as they end
// before the key does, and last the key's final eight bytes, of which those counted already are skipped:
//
//   8 bytes    [ 0 - 7 ]  [ - - - - - - - - ]         9 bytes    [ 0 - 7 ]  [ - - - - - - - 8 ]
//   16 bytes   [ 0 - 7 ]  [ 8 - 15 ]                  17 bytes   [ 0 - 7 ]  [ 8 - 15 ]  [ - - - - - - - 16 ]
//
// So all keys of 8 to 16 bytes take the same way, with no branch to be guessed.
//
// Rows are made by a build of many keys, which keeps them, and by HashDictPrepare; never by a look-up. They hold what
// the image held at that time.

#ifndef DICT_HASHDICT_ROWS_H
#define DICT_HASHDICT_ROWS_H

#include "dict/hashdict_kernel.h"

namespace hashdict {

constexpr Id kRowsWorthwhile = 512;               // keys in a dictionary that is built
constexpr size_t kMaxRowsSize = size_t{1} << 20;  // larger ones leave the caches, and gain nothing

struct alignas(Lanes) Rows {
  void* block;       // where the storage that holds this begins
  UInt longest;      // the longest key whose sums fit 32 bits
  UInt row[kRanks];  // by byte: where its row is, in bytes from the end of this record
};

// Null when there would be none, or they would be too large.
Rows* RowsNew(const HashDict& hdict);

// Releases those of a dictionary, if it has some; nobody else uses it.
void RowsDelete(HashDict* hdict);

// The dictionary's rows, or null.
inline const Rows* RowsOf(const HashDict& hdict) { return static_cast<const Rows*>(hdict.h_rows); }

// For each of eight bytes behind another: whether it counts.
inline constexpr Lanes kNone = {0, 0, 0, 0}, kAll = {~0U, ~0U, ~0U, ~0U};
inline constexpr Lanes kCounting[16] = {kNone, kNone, kNone, kNone, kNone, kNone, kNone, kNone,
                                        kAll,  kAll,  kAll,  kAll,  kAll,  kAll,  kAll,  kAll};

// What kCount bytes have at the positions from `at` on; kSkipping: without the first `skip` of them.
template <UInt kCount, bool kSkipping = false>
inline Lanes RunSum(const Rows& rows, const UByte* at, const UByte* bytes, UInt skip = 0) {
  const Lanes* counting = kCounting + 8 - skip;
  Lanes sum = {0, 0, 0, 0};
  for (UInt i = 0; i < kCount; i++) {
    Lanes entry = *reinterpret_cast<const Lanes*>(at + rows.row[bytes[i]] + i * sizeof(Lanes));
    if constexpr (kSkipping) entry &= counting[i];
    sum += entry;
  }
  return sum;
}

// The vertices of a key of at most rows.longest bytes.
inline Hashed HashByRows(const HashDict& hdict, const Rows& rows, const UByte* bytes, UInt len, Triple* triple) {
  const UByte* entries = reinterpret_cast<const UByte*>(&rows + 1);
  Lanes sums = {0, 0, 0, 0};
  if (len >= 8) [[likely]] {
    const UInt last = len - 8;
    UInt i = 0;
    do {
      sums += RunSum<8>(rows, entries + i * sizeof(Lanes), bytes + i);
      i += 8;
    } while (i < last);
    sums += RunSum<8, true>(rows, entries + last * sizeof(Lanes), bytes + last, i - last);
  } else if (len >= 4) {
    const UInt last = len - 4;
    sums += RunSum<4>(rows, entries, bytes);
    sums += RunSum<4, true>(rows, entries + last * sizeof(Lanes), bytes + last, 4 - last);
  } else {
    for (UInt i = 0; i < len; i++) sums += RunSum<1>(rows, entries + i * sizeof(Lanes), bytes + i);
  }
  if (sums[3] != 0) [[unlikely]]
    return (sums[3] & 0xFFFF) != 0 ? Hashed::kAbsent : Hashed::kDamaged;
  *triple = Vertices(hdict, Reduce(hdict, sums));
  return Hashed::kVertices;
}

// The vertices of any key; `rows` are the dictionary's, or null.
template <Watch kWatch>
inline Hashed HashKey(const HashDict& hdict, const Rows* rows, const UByte* bytes, UInt len, Triple* triple) {
  if (rows != nullptr && len <= rows->longest) [[likely]]
    return HashByRows(hdict, *rows, bytes, len, triple);
  return HashFast<kWatch>(hdict, bytes, len, triple);
}

}  // namespace hashdict

#endif
