// Open descriptors of this process, and a child that starts with its standard streams closed.
#ifndef TESTS_SUPPORT_DESCRIPTORS_H
#define TESTS_SUPPORT_DESCRIPTORS_H

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>

namespace support {

inline long OpenDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

inline bool IsCloseOnExec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

inline void CloseStandardStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(fd);
}

}  // namespace support

#endif
