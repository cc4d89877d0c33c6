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

}  // namespace

Rows* RowsNew(const HashDict& hdict) {
  const UInt longest = std::min<UInt>(hdict.h_maxlen, 0xFFFFFFFF / hdict.h_size);
  const size_t row_size = longest * sizeof(Lanes);
  const size_t size = sizeof(Rows) + (size_t{hdict.h_nchars} + 1) * row_size;
  if (longest == 0 || size > kMaxRowsSize) return nullptr;
  void* const block = Allocate_(size + sizeof(Lanes), nullptr, kModule, __LINE__);
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
  if (hdict->h_rows != nullptr) UnAllocate_(RowsOf(*hdict)->block, kModule, __LINE__);
  hdict->h_rows = nullptr;
}

}  // namespace hashdict
