// Limits that a child process sets on itself. They cannot be lifted again: use them inside EXPECT_EXIT.
#ifndef TESTS_SUPPORT_LIMITS_H
#define TESTS_SUPPORT_LIMITS_H

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

namespace support {

inline void Limit(__rlimit_resource_t resource, rlim_t most) {
  const rlimit limit = {most, most};
  if (setrlimit(resource, &limit) != 0) std::abort();
}

// From here on only a mebibyte of new memory can be mapped: enough for the stack and the sanitizers, not for what is
// tested.
inline void LimitMemory() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  if (pages == 0) std::abort();
  Limit(RLIMIT_AS, pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) + (size_t{1} << 20));
}

// A file cannot grow past so many bytes: EFBIG, since the signal is ignored.
inline void LimitFileSize(rlim_t bytes) {
  std::signal(SIGXFSZ, SIG_IGN);
  Limit(RLIMIT_FSIZE, bytes);
}

}  // namespace support

#endif
