// Read-only file mappings.

#include "qxlib/filemap.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "util/descriptor_internal.h"

namespace {

// Joins directory and name, or copies the name; FALSE, with errno, when the path is longer than the kernel takes.
bool PathJoin(char (&path)[PATH_MAX], const char* dir, const char* name) {
  const size_t name_length = strlen(name);
  const size_t prefix_length = dir != nullptr ? strlen(dir) + 1 : 0;
  if (name_length >= sizeof(path) || prefix_length >= sizeof(path) - name_length) {
    errno = ENAMETOOLONG;
    return false;
  }
  if (dir != nullptr) {
    memcpy(path, dir, prefix_length - 1);
    path[prefix_length - 1] = '/';
  }
  memcpy(path + prefix_length, name, name_length + 1);
  return true;
}

// Whether an open regular file that calls itself empty is: files that the kernel makes up as they are read say so too.
bool ReadsNothing(int fd) {
  char byte = 0;
  ssize_t count = 0;
  do {
    count = read(fd, &byte, 1);
  } while (count < 0 && errno == EINTR);
  if (count > 0) errno = ENODEV;
  return count == 0;
}

void* MapDescriptor(int fd, size_t* size, Boolean* empty) {
  struct stat status;
  if (fstat(fd, &status) != 0) return nullptr;
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : ENODEV;
    return nullptr;
  }
  if (status.st_size == 0) {
    if (!ReadsNothing(fd)) return nullptr;
    *empty = TRUE;
    errno = ENODATA;
    return nullptr;
  }
  const size_t length = static_cast<size_t>(status.st_size);
  void* base = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
  if (base == MAP_FAILED) return nullptr;
  *size = length;
  return base;
}

}  // namespace

void* FileMapRead(const char* dir, const char* name, size_t* size, Boolean* empty) {
  Boolean ignored = FALSE;
  if (empty == nullptr) empty = &ignored;
  *empty = FALSE;
  *size = 0;
  char path[PATH_MAX];
  if (!PathJoin(path, dir, name)) return nullptr;
  const int fd = qx::OpenToMap(path);
  if (fd < 0) return nullptr;
  void* base = MapDescriptor(fd, size, empty);
  qx::CloseKeepingErrno(fd);
  return base;
}

Boolean FileUnmap(void* base, size_t size) {
  if (base == nullptr) {
    errno = EINVAL;
    return FALSE;
  }
  return munmap(base, size) == 0 ? TRUE : FALSE;
}
