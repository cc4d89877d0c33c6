// A merge sort that stays in bounds whatever the comparison answers.
//
// The C library's qsort_r is not used: when its scratch memory cannot be had, some versions of it fall back on a
// quicksort that runs past the array's end if the comparison contradicts itself. Here the comparison only ever chooses
// which of two elements comes next; what is read and written is decided by counts. Without scratch memory a heap sort
// takes over, for which the same holds.
//
//   sort    [ left half | right half ]           each half by itself, down to short runs that are sorted by insertion
//   merge   scratch [ left half ]  --+
//           [      gap  | right half ] --> [ merged ... | right half ]    the gap is what the left half has still to
//           give

#include "qxlib/sort.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace {

using Compare = int (*)(const void*, const void*, void*);

constexpr size_t kShortRun = 6;
constexpr size_t kStackScratch = 1024;

// Size is size_t, or an integral constant for the sizes that are worth code of their own.
template <typename Size>
class Sorter {
 public:
  Sorter(Size size, Compare compare, void* context) : size_(size), compare_(compare), context_(context) {}

  // Keeps the order of equal elements. Scratch holds half of the elements, rounded down, and at least one.
  void MergeSort(UByte* base, size_t count, UByte* scratch) const {
    if (count <= kShortRun) {
      InsertionSort(base, count, scratch);
      return;
    }
    const size_t half = count / 2;
    UByte* middle = At(base, half);
    MergeSort(base, half, scratch);
    MergeSort(middle, count - half, scratch);
    if (Ordered(middle - size_, middle)) return;
    memcpy(scratch, base, half * size_);
    Merge(scratch, At(scratch, half), middle, At(base, count), base);
  }

  void HeapSort(UByte* base, size_t count) const {
    for (size_t root = count / 2; root-- > 0;) SiftDown(base, root, count);
    for (size_t end = count - 1; end > 0; end--) {
      Swap(base, At(base, end));
      SiftDown(base, 0, end);
    }
  }

 private:
  UByte* At(UByte* base, size_t index) const { return base + index * size_; }
  bool Ordered(const UByte* a, const UByte* b) const { return compare_(a, b, context_) <= 0; }
  void Copy(UByte* to, const UByte* from) const { memcpy(to, from, size_); }

  void InsertionSort(UByte* base, size_t count, UByte* spare) const {
    for (size_t i = 1; i < count; i++) {
      UByte* from = At(base, i);
      UByte* to = from;
      while (to > base && !Ordered(to - size_, from)) to -= size_;
      if (to == from) continue;
      Copy(spare, from);
      memmove(to + size_, to, static_cast<size_t>(from - to));
      Copy(to, spare);
    }
  }

  // Every step moves `to` and one source by one element, so `to` reaches `right` only when `left` is used up.
  void Merge(const UByte* left, const UByte* left_end, const UByte* right, const UByte* right_end, UByte* to) const {
    while (left != left_end && right != right_end) {
      const UByte*& next = Ordered(left, right) ? left : right;
      Copy(to, next);
      next += size_;
      to += size_;
    }
    memcpy(to, left, static_cast<size_t>(left_end - left));
  }

  void SiftDown(UByte* base, size_t root, size_t count) const {
    for (size_t child = 2 * root + 1; child < count; root = child, child = 2 * root + 1) {
      if (child + 1 < count && !Ordered(At(base, child + 1), At(base, child))) child++;
      if (Ordered(At(base, child), At(base, root))) return;
      Swap(At(base, root), At(base, child));
    }
  }

  void Swap(UByte* a, UByte* b) const { std::swap_ranges(a, a + size_, b); }

  [[no_unique_address]] Size size_;
  Compare compare_;
  void* context_;
};

template <typename Size>
void Sort(UByte* base, size_t count, Size size, Compare compare, void* context) {
  const Sorter<Size> sorter(size, compare, context);
  const size_t needed = count / 2 * size;
  if (needed <= kStackScratch) {
    alignas(std::max_align_t) UByte scratch[kStackScratch];
    sorter.MergeSort(base, count, scratch);
  } else if (UByte* scratch = static_cast<UByte*>(malloc(needed)); scratch != nullptr) {
    sorter.MergeSort(base, count, scratch);
    free(scratch);
  } else {
    sorter.HeapSort(base, count);
  }
}

}  // namespace

void QSort(void* base, size_t count, size_t size, int (*compare)(const void*, const void*, void*), void* context) {
  if (count < 2 || size == 0) return;
  UByte* bytes = static_cast<UByte*>(base);
  switch (size) {
    case 4:
      return Sort(bytes, count, std::integral_constant<size_t, 4>(), compare, context);
    case 8:
      return Sort(bytes, count, std::integral_constant<size_t, 8>(), compare, context);
    default:
      return Sort(bytes, count, size, compare, context);
  }
}
