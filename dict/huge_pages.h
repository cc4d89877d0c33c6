// Advice to the kernel about mappings that are walked at random.

#ifndef DICT_HUGE_PAGES_H
#define DICT_HUGE_PAGES_H

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

#include "util/errno_internal.h"

namespace qx {

// Asks for huge pages in a mapping that is large enough to gain by them; a wish, whose failure means nothing. The
// mapping is advised whole, its last page too: it could not be resized as one if parts of it were of another kind.
inline void AdviseHugePages(void* mapping, size_t bytes) {
  constexpr size_t kSmallPage = 4096;
  constexpr size_t kWorthwhile = size_t{8} << 20;
  if (mapping == nullptr || bytes < kWorthwhile) return;
  const ErrnoKeeper keeper;
  madvise(mapping, (bytes + kSmallPage - 1) & ~(kSmallPage - 1), MADV_HUGEPAGE);
}

// The same for a block of the allocator's, whose ends lie within pages that are not its own: all pages between them.
inline void AdviseHugePagesWithin(void* block, size_t bytes) {
  constexpr size_t kSmallPage = 4096;
  const size_t skip = (kSmallPage - reinterpret_cast<uintptr_t>(block) % kSmallPage) % kSmallPage;
  if (bytes < skip + kSmallPage) return;
  AdviseHugePages(static_cast<char*>(block) + skip, (bytes - skip) & ~(kSmallPage - 1));
}

}  // namespace qx

#endif
