// Streams of the C library on files, as all modules open them: close-on-exec, and never on a descriptor that a message
// printed to standard error could end up in.

#ifndef DICT_FILE_STREAM_H
#define DICT_FILE_STREAM_H

#include <stdio.h>

#include <memory>

#include "util/descriptor_internal.h"

namespace qx {

struct StreamCloser {
  void operator()(FILE* stream) const { fclose(stream); }
};

// A stream that is closed where its name ends, unless release() has taken it.
using Stream = std::unique_ptr<FILE, StreamCloser>;

// Opens a file to read it ("r"), or to write it anew ("w"). Null, with errno, on failure.
inline Stream OpenStream(const char* path, const char* mode) {
  const int fd = OpenDescriptor(path, *mode == 'w' ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY);
  if (fd < 0) return nullptr;
  Stream stream(fdopen(fd, mode));
  if (!stream) CloseKeepingErrno(fd);
  return stream;
}

}  // namespace qx

#endif
