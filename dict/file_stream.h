// Streams of the C library on files, as all modules open them: close-on-exec, and never on a descriptor that a message
// printed to standard error could end up in.

#ifndef DICT_FILE_STREAM_H
#define DICT_FILE_STREAM_H

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace qx {

struct StreamCloser {
  void operator()(FILE* stream) const { fclose(stream); }
};

// A stream that is closed where its name ends, unless release() has taken it.
using Stream = std::unique_ptr<FILE, StreamCloser>;

constexpr int kFirstFreeDescriptor = 3;  // 0 to 2 are the standard streams, open or not

// Opens a file with a mode of fopen that includes "e". Null, with errno, on failure.
inline Stream OpenStream(const char* path, const char* mode) {
  Stream stream(fopen(path, mode));
  if (!stream || fileno(stream.get()) >= kFirstFreeDescriptor) return stream;
  const int moved = fcntl(fileno(stream.get()), F_DUPFD_CLOEXEC, kFirstFreeDescriptor);
  Stream result(moved >= 0 ? fdopen(moved, mode) : nullptr);
  const int error = errno;
  if (!result && moved >= 0) close(moved);
  stream.reset();
  errno = error;
  return result;
}

}  // namespace qx

#endif
