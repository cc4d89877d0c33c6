// Making the rows of a dictionary.

#include "dict/hashdict_rows.h"

namespace hashdict {
namespace {

constexpr UInt kAbsentByte = 1;
constexpr UInt kDamagedEntry = 1 << 16;  // keys have fewer bytes

// What a triple of the image adds to a sum.
Lanes EntryOf(const HashDict& hdict, const UByte* triple) {
  const auto [a, b, c] = Load<Triple>(triple).v;
  const bool good = a < hdict.h_size && b < hdict.h_size && c < hdict.h_size;
  return Lanes{a, b, c, good ? 0 : kDamagedEntry};
}

void RowsFree(Rows* rows) {
  if (rows != nullptr) AnonArrayFree_(rows->block, kModule, __LINE__);
}

}  // namespace

Rows* RowsNew(const HashDict& hdict) {
  const UInt longest = std::min<UInt>(hdict.h_maxlen, 0xFFFFFFFF / hdict.h_size);
  const size_t row_size = longest * sizeof(Lanes);
  const size_t size = sizeof(Rows) + (size_t{hdict.h_nchars} + 1) * row_size;
  if (longest == 0 || size > kMaxRowsSize) return nullptr;
  void* const block = AnonArrayGrow_(sizeof(ULong), 0, (size + sizeof(Lanes)) / sizeof(ULong), CHAR_BIT * sizeof(ULong),
                                     nullptr, kModule, __LINE__);
  if (block == nullptr) return nullptr;
  auto* const rows =
      reinterpret_cast<Rows*>((reinterpret_cast<uintptr_t>(block) + sizeof(Lanes) - 1) / sizeof(Lanes) * sizeof(Lanes));
  rows->block = block;
  rows->longest = longest;
  for (size_t byte = 0; byte < kRanks; byte++) {
    const Short rank = Load<Short>(Bytes(hdict.h_rank) + byte * sizeof(Short));
    // A rank that was good when the dictionary was opened.
    const UInt row = rank < 0 || rank >= Int{hdict.h_nchars} ? hdict.h_nchars : static_cast<UInt>(rank);
    rows->row[byte] = static_cast<UInt>(row * row_size);
  }
  auto* entry = reinterpret_cast<Lanes*>(rows + 1);
  for (UInt rank = 0; rank < hdict.h_nchars; rank++) {
    for (UInt position = 0; position < longest; position++) {
      const size_t index = size_t{position} * hdict.h_nchars + rank;
      *entry++ = EntryOf(hdict, Bytes(hdict.h_coef) + index * sizeof(Triple));
    }
  }
  for (UInt position = 0; position < longest; position++) *entry++ = Lanes{0, 0, 0, kAbsentByte};
  return rows;
}

void RowsDelete(HashDict* hdict) {
  RowsFree(static_cast<Rows*>(hdict->h_rows));
  hdict->h_rows = nullptr;
}

void RowsCount(const HashDict& hdict, UInt finds) {
  // A handle lies in memory of the library's; what look-ups change in it is theirs alone.
  auto& shared = const_cast<HashDict&>(hdict);
  const ULong before = __atomic_load_n(&shared.h_finds, __ATOMIC_RELAXED);
  if (before >= kRowsWorthwhile) return;
  const ULong now = before + finds;
  __atomic_store_n(&shared.h_finds, now, __ATOMIC_RELAXED);
  if (now < kRowsWorthwhile) return;
  Rows* const rows = RowsNew(hdict);
  void* none = nullptr;
  if (!__atomic_compare_exchange_n(&shared.h_rows, &none, rows, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
    RowsFree(rows);  // another thread was faster
  }
}

}  // namespace hashdict
