// Growable arrays and storage for packed arrays.
//
//   elts [ 0 | 1 | ... | length - 1 | room ... ]   ends at capacity
//
// Counts are 32 bits wide and stay below 2^31; sizes in bytes are 64 bits wide. Every sum and product is made in a
// width that holds it, and compared before it is narrowed.

#include "qxlib/array.h"

#include <algorithm>
#include <cstdlib>

#include "qxlib/fatal_internal.h"
#include "qxlib/memory.h"
#include "qxlib/message.h"

namespace {

constexpr UInt kMaximumLength = 2147483647;
constexpr uint64_t kFirstCapacity = 8;  // spares a small array its first few growths

constexpr unsigned kWordBits = 64;
constexpr size_t kWordBytes = 8;

}  // namespace

void ArrayInit_(Array_* array) { *array = {nullptr, 0, 0}; }

void ArrayGrow_(Array_* array, size_t eltSize, const char* file, int line) {
  if (array->length < array->capacity) return;
  if (array->length >= kMaximumLength) {
    qxlib::Fatal(file, line, __func__, FALSE, "array is full: length=%u", array->length);
  }
  ArrayGrowExact_(array, ArrayNextSize(array->capacity, array->length + 1, kMaximumLength), eltSize, file, line);
}

void ArrayGrowExact_(Array_* array, UInt capacity, size_t eltSize, const char* file, int line) {
  if (capacity < array->length) qxassert_("capacity >= array->length", file, line);
  if (capacity == 0) {
    ArrayFree_(array, file, line);
    return;
  }
  size_t size = 0;
  if (__builtin_mul_overflow(size_t{capacity}, eltSize, &size)) {
    qxlib::Fatal(file, line, __func__, FALSE, "array is too large: capacity=%u, element size=%zu", capacity, eltSize);
  }
  array->elts = Allocate_(size, array->elts, file, line);
  array->capacity = capacity;
}

UInt ArrayNextSize(UInt capacity, UInt needed, UInt maximum) {
  if (needed > maximum) {
    qxlib::Fatal("qxlib/array", __LINE__, __func__, FALSE, "array is too large: needed=%u, maximum=%u", needed,
                 maximum);
  }
  if (needed <= capacity) return std::min(capacity, maximum);
  const uint64_t half_as_much_again = uint64_t{capacity} + capacity / 2;
  const uint64_t wanted = std::max({uint64_t{needed}, half_as_much_again, kFirstCapacity});
  return static_cast<UInt>(std::min(wanted, uint64_t{maximum}));
}

void ArrayFree_(Array_* array, const char* file, int line) {
  UnAllocate_(array->elts, file, line);
  ArrayInit_(array);
}

void* AnonArrayGrow_(size_t /*eltSize*/, UInt /*flags*/, ULong nvalues, UInt nbits, size_t* size, const char* file,
                     int line) {
  ULong bits = 0;
  if (__builtin_mul_overflow(nvalues, nbits, &bits)) {
    qxlib::Fatal(file, line, __func__, FALSE, "packed array is too large: values=%lu, bits=%u", nvalues, nbits);
  }
  const size_t bytes = (bits / kWordBits + (bits % kWordBits != 0 ? 1 : 0)) * kWordBytes;
  if (size != nullptr) *size = bytes;
  if (bytes == 0) return nullptr;
  // Zeroed, so that bits that nobody writes are the same in every image. Large storage comes zeroed from the kernel.
  void* words = calloc(bytes, 1);
  if (words == nullptr) qxlib::Fatal(file, line, __func__, TRUE, "memory allocation failed: size=%zu", bytes);
  return words;
}

void AnonArrayFree_(void* array, const char* /*file*/, int /*line*/) { free(array); }
