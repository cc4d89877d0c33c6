// Limits on what a process can get of the system.
#ifndef TESTS_SUPPORT_LIMITS_H
#define TESTS_SUPPORT_LIMITS_H

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

namespace support {

// Those that follow cannot be lifted again: use them inside EXPECT_EXIT.
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

// A soft limit while its name lives. The signal that comes with the file-size limit is ignored.
class SoftLimit {
 public:
  SoftLimit(__rlimit_resource resource, rlim_t value) : resource_(resource) {
    handler_ = std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(resource_, &old_);
    const rlimit limit = {value, old_.rlim_max};
    setrlimit(resource_, &limit);
  }
  ~SoftLimit() {
    setrlimit(resource_, &old_);
    std::signal(SIGXFSZ, handler_);
  }
  SoftLimit(const SoftLimit&) = delete;
  SoftLimit& operator=(const SoftLimit&) = delete;

 private:
  __rlimit_resource resource_;
  rlimit old_;
  void (*handler_)(int);
};

}  // namespace support

#endif
