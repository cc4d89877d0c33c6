// Blocks from the C library's allocator, and anonymous mappings.

#include "qxlib/memory.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>

#include "qxlib/fatal_internal.h"

void* Allocate_(size_t size, void* old, const char* file, int line) {
  // realloc of 0 bytes would free the block and give null; a caller that shrinks to nothing keeps a block instead.
  void* block = realloc(old, size != 0 ? size : 1);
  if (block == nullptr) qxlib::Fatal(file, line, __func__, TRUE, "memory allocation failed: size=%zu", size);
  return block;
}

void UnAllocate_(void* block, const char* /*file*/, int /*line*/) { free(block); }

void* MemoryMap_(size_t size, const char* /*file*/, int /*line*/) {
  void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return base != MAP_FAILED ? base : nullptr;
}

void* MemoryRemap_(void* old, size_t oldSize, size_t newSize, const char* /*file*/, int /*line*/) {
  if (old == nullptr || oldSize == 0) {  // to the kernel an old size of 0 asks for a second mapping of the same pages
    errno = EINVAL;
    return nullptr;
  }
  void* base = mremap(old, oldSize, newSize, MREMAP_MAYMOVE);
  return base != MAP_FAILED ? base : nullptr;
}

Boolean MemoryUnmap_(void* base, size_t size, const char* /*file*/, int /*line*/) {
  if (base == nullptr) {  // unmapping what lies at address 0 succeeds, and would hide a lost pointer
    errno = EINVAL;
    return FALSE;
  }
  return munmap(base, size) == 0 ? TRUE : FALSE;
}
