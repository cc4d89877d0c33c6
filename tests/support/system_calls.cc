#include "support/system_calls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>

namespace support::calls {

Plan reads;
Plan writes;
int fsync_error = 0;
int fsync_from = 0;
int syncfs_error = 0;
int close_error = 0;
int no_directory = 0;
std::vector<std::string> synced;

void Reset() {
  reads = writes = Plan{};
  fsync_error = fsync_from = syncfs_error = close_error = no_directory = 0;
  synced.clear();
}

namespace {

constexpr int kStandardStreams = 3;

// Makes the call as the plan says.
ssize_t Planned(Plan& plan, long number, int fd, uintptr_t buffer, size_t count) {
  if (fd >= kStandardStreams) {
    if (plan.interrupted < plan.interrupted_before) {
      plan.interrupted++;
      errno = EINTR;
      return -1;
    }
    plan.interrupted = 0;
    if (plan.error != 0 && plan.moved >= plan.fail_behind) {
      errno = plan.error;
      return -1;
    }
    count = std::min({count, plan.most_bytes, plan.fail_behind - plan.moved});
  }
  const ssize_t moved = syscall(number, fd, buffer, count);
  if (fd >= kStandardStreams && moved > 0) plan.moved += static_cast<size_t>(moved);
  return moved;
}

}  // namespace
}  // namespace support::calls

using namespace support::calls;

extern "C" {

int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  if (no_directory != 0 && (flags & O_DIRECTORY) != 0 && (flags & O_PATH) == 0) {
    errno = no_directory;
    return -1;
  }
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, reinterpret_cast<uintptr_t>(path), flags, mode));
}

ssize_t read(int fd, void* buffer, size_t count) {
  return Planned(reads, SYS_read, fd, reinterpret_cast<uintptr_t>(buffer), count);
}

ssize_t write(int fd, const void* buffer, size_t count) {
  return Planned(writes, SYS_write, fd, reinterpret_cast<uintptr_t>(buffer), count);
}

int fsync(int fd) {
  struct stat status = {};
  fstat(fd, &status);
  const int before = static_cast<int>(synced.size());
  synced.push_back(S_ISDIR(status.st_mode) ? "directory" : "file");
  if (fsync_error != 0 && before >= fsync_from) {
    errno = fsync_error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, fd));
}

int syncfs(int) noexcept {
  synced.push_back("file system");
  if (syncfs_error == 0) return 0;
  errno = syncfs_error;
  return -1;
}

int close(int fd) {
  const int result = static_cast<int>(syscall(SYS_close, fd));
  if (fd < kStandardStreams || close_error == 0 || result != 0) return result;
  errno = close_error;
  return -1;
}

}  // extern "C"
