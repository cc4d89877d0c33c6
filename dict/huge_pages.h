// Advice to the kernel about mappings that are walked at random.

#ifndef DICT_HUGE_PAGES_H
#define DICT_HUGE_PAGES_H

#include <sys/mman.h>

#include <cerrno>
#include <cstddef>

namespace qx {

// Asks for huge pages in a mapping that is large enough to gain by them; a wish, whose failure means nothing. The
// mapping is advised whole, its last page too: it could not be resized as one if parts of it were of another kind.
inline void AdviseHugePages(void* mapping, size_t bytes) {
  constexpr size_t kSmallPage = 4096;
  constexpr size_t kWorthwhile = size_t{8} << 20;
  if (mapping == nullptr || bytes < kWorthwhile) return;
  const int error = errno;
  madvise(mapping, (bytes + kSmallPage - 1) & ~(kSmallPage - 1), MADV_HUGEPAGE);
  errno = error;
}

}  // namespace qx

#endif
