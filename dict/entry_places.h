// A set of places in a heap where entries start: a bit for each place where one can.
//
// The set takes a 64th of the heap in memory, an eighth where entries start at any byte: never more than is there
// already, whatever a damaged table claims.

#ifndef DICT_ENTRY_PLACES_H
#define DICT_ENTRY_PLACES_H

#include <bit>
#include <cstddef>
#include <cstring>

#include "qxlib/memory.h"
#include "qxlib/types.h"

namespace heap {

class EntryPlaces {
 public:
  // For a heap of so many bytes; `aligned`: only multiples of 8 will be marked.
  EntryPlaces(size_t heap, bool aligned, const char* module)
      : shift_(aligned ? 3 : 0), count_((heap >> shift_) / kBits + 1), module_(module) {
    words_ = static_cast<ULong*>(Allocate_(sizeof(ULong) * count_, nullptr, module_, __LINE__));
    std::memset(words_, 0, sizeof(ULong) * count_);
  }
  ~EntryPlaces() { UnAllocate_(words_, module_, __LINE__); }
  EntryPlaces(const EntryPlaces&) = delete;
  EntryPlaces& operator=(const EntryPlaces&) = delete;

  void Mark(size_t offset) { words_[offset >> shift_ >> 6] |= Bit(offset); }

  bool Marked(size_t offset) const { return (words_[offset >> shift_ >> 6] & Bit(offset)) != 0; }

  // Visits the marked offsets in ascending order.
  template <typename Visit>
  void ForEach(Visit visit) const {
    for (size_t w = 0; w < count_; w++) {
      for (ULong word = words_[w]; word != 0; word &= word - 1) {
        visit((w * kBits + static_cast<size_t>(std::countr_zero(word))) << shift_);
      }
    }
  }

 private:
  static constexpr size_t kBits = 64;

  ULong Bit(size_t offset) const { return ULong{1} << ((offset >> shift_) % kBits); }

  unsigned shift_;
  size_t count_;
  const char* module_;
  ULong* words_;
};

}  // namespace heap

#endif
