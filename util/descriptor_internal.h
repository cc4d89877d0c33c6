// Opening files the way every part of the library does: close-on-exec, and never on one of the descriptors 0 to 2.
//
// A process whose standard streams are closed is given their numbers by the next open, and what any thread prints there
// goes into the file. Moving the descriptor afterwards would leave a moment for that. So the free ones among the three
// are taken first, by placeholders on which reading and writing fail as on a closed descriptor.

#ifndef UTIL_DESCRIPTOR_INTERNAL_H
#define UTIL_DESCRIPTOR_INTERNAL_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "util/errno_internal.h"

namespace qx {

constexpr int kFirstFreeDescriptor = 3;  // 0 to 2 are the standard streams, whether they are open or not

// Closes a descriptor and keeps errno.
inline void CloseKeepingErrno(int fd) {
  const ErrnoKeeper keeper;
  close(fd);
}

// Keeps those of the descriptors 0 to 2 that are closed from being given out, as long as it lives.
class StandardPlaces {
 public:
  StandardPlaces() {
    const ErrnoKeeper keeper;
    for (int fd = 0; fd < kFirstFreeDescriptor; fd++) {
      if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
      const int place = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
      if (place >= kFirstFreeDescriptor) close(place);  // another thread was faster
      if (place >= 0 && place < kFirstFreeDescriptor) held_[count_++] = place;
    }
  }
  ~StandardPlaces() {
    while (count_ > 0) CloseKeepingErrno(held_[--count_]);
  }
  StandardPlaces(const StandardPlaces&) = delete;
  StandardPlaces& operator=(const StandardPlaces&) = delete;

 private:
  int held_[kFirstFreeDescriptor];
  int count_ = 0;
};

// Opens a file; a descriptor among the standard streams' is moved behind them. -1, with errno, on failure.
inline int OpenAndMove(const char* path, int flags) {
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

// Opens a file. -1, with errno, on failure. A standard stream that another thread closes during the call can still be
// given to it; such a descriptor is moved.
inline int OpenDescriptor(const char* path, int flags) {
  const StandardPlaces places;
  return OpenAndMove(path, flags);
}

// Opens a file to be mapped for reading. Nothing can be printed into it, and what another thread reads from it does not
// matter to a mapping, so it does without the placeholders and their three system calls.
inline int OpenToMap(const char* path) {
  // Without O_NONBLOCK the opening of a FIFO would wait for a writer.
  return OpenAndMove(path, O_RDONLY | O_NONBLOCK);
}

// Opens the directory that holds a file that is there, wherever links on the path lead. -1, with errno, on failure.
inline int OpenDirectoryOf(const char* path) {
  char* const resolved = realpath(path, nullptr);
  if (resolved == nullptr) return -1;
  char* const slash = strrchr(resolved, '/');
  slash[slash == resolved ? 1 : 0] = '\0';
  const int directory = OpenDescriptor(resolved, O_RDONLY | O_DIRECTORY);
  const ErrnoKeeper keeper;
  free(resolved);
  return directory;
}

// Makes the names in a directory stable. Some file systems cannot do that, and say so: all of such a one is synced, and
// what that says counts for nothing, since it may be of any other file.
inline bool SyncDirectory(int directory) {
  if (fsync(directory) == 0) return true;
  if (errno != EINVAL && errno != EROFS) return false;
  syncfs(directory);
  return true;
}

// Makes the name of a file that is there stable. Where its directory cannot be opened, as one that may be written but
// not read, all of the file system is synced.
inline bool SyncDirectoryOf(const char* path) {
  const int directory = OpenDirectoryOf(path);
  if (directory >= 0) {
    const bool synced = SyncDirectory(directory);
    CloseKeepingErrno(directory);
    return synced;
  }
  const int file = OpenDescriptor(path, O_RDONLY);
  if (file < 0) return false;
  syncfs(file);
  CloseKeepingErrno(file);
  return true;
}

}  // namespace qx

#endif
