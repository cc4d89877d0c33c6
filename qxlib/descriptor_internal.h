// Opening files the way every part of the base library does.

#ifndef QXLIB_DESCRIPTOR_INTERNAL_H
#define QXLIB_DESCRIPTOR_INTERNAL_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace qxlib {

constexpr int kFirstFreeDescriptor = 3;  // 0 to 2 are the standard streams, whether they are open or not

// Closes a descriptor and keeps errno.
inline void CloseKeepingErrno(int fd) {
  const int error = errno;
  close(fd);
  errno = error;
}

// Opens a file close-on-exec. A process that was started with a standard stream closed would be given its number, and
// whatever is printed there later would go into the file: such a descriptor is moved. -1, with errno, on failure.
inline int OpenDescriptor(const char* path, int flags) {
  constexpr mode_t kCreationMode = 0666;  // less the umask
  int fd = -1;
  do {
    fd = open(path, flags | O_CLOEXEC | O_NOCTTY, kCreationMode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0 || fd >= kFirstFreeDescriptor) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, kFirstFreeDescriptor);
  CloseKeepingErrno(fd);
  return moved;
}

}  // namespace qxlib

#endif
