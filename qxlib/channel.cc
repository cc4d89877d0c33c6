// Channels: buffered byte streams.
//
//   inBuf  [ taken | waiting     | free ]      outBuf [ waiting | free ]
//                  ^ inFirst     ^ inSize                       ^ outSize
//
// Reading hands out what waits in inBuf before anything else; writing keeps the order of outBuf and what goes around
// it. The first failure to write, to sync or to close is kept in `error`: from then on nothing more is written, so that
// what has arrived is always a beginning of what was sent, and every later flush, sync and close says so again.

#include "qxlib/channel.h"

#include <poll.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "qxlib/memory.h"
#include "util/descriptor_internal.h"

namespace {

constexpr const char* kModule = "qxlib/channel";
constexpr Int kReadFailed = -1;
constexpr Int kReadShort = 1;
constexpr size_t kBuffer = QX_CHANNEL_BUFFER;

Boolean Fail(int error) {
  errno = error;
  return FALSE;
}

bool IsOpen(const Channel* f) { return f->fd >= 0 || f->device != nullptr; }

int64_t MonotonicMilliseconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Waits until the descriptor is ready; a negative time-out is none.
bool Wait(int fd, short events, TimeMilliseconds timeout) {
  const int64_t deadline = timeout >= 0 ? MonotonicMilliseconds() + timeout : 0;
  int64_t left = timeout;
  for (;;) {
    pollfd entry = {fd, events, 0};
    const int ready = poll(&entry, 1, timeout >= 0 ? static_cast<int>(left) : -1);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
    if (timeout >= 0) left = std::max<int64_t>(deadline - MonotonicMilliseconds(), 0);
    if (ready == 0) {
      errno = ETIMEDOUT;
      return false;
    }
  }
}

// Makes a system call on the descriptor until it is done, has failed, or has waited too long.
template <typename Call>
ssize_t Transfer(int fd, short events, TimeMilliseconds timeout, Call call) {
  for (;;) {
    const ssize_t count = call();
    if (count >= 0) return count;
    if (errno == EINTR) continue;
    if (errno != EAGAIN || !Wait(fd, events, timeout)) return -1;
  }
}

ssize_t MissingOperation() {
  errno = EBADF;
  return -1;
}

// A device may say that it did more than it was asked for, or fail and not say why; neither may hurt us.
ssize_t DeviceResult(ssize_t count, size_t asked) {
  if (count > 0 && static_cast<size_t>(count) > asked) {
    errno = EIO;
    return -1;
  }
  if (count < 0) {
    if (errno == 0) errno = EIO;
    return -1;
  }
  return count;
}

// Reads at least one byte; 0 at the end, -1 on failure.
ssize_t ReadSome(Channel* f, UByte* to, size_t count) {
  if (f->device != nullptr) {
    if (f->device->read == nullptr) return MissingOperation();
    errno = 0;
    return DeviceResult(f->device->read(to, count, f->device->arg), count);
  }
  return Transfer(f->fd, POLLIN, f->readTimeout, [&] { return read(f->fd, to, count); });
}

ssize_t WriteSome(Channel* f, const UByte* from, size_t count) {
  if (f->device != nullptr) {
    if (f->device->write == nullptr) return MissingOperation();
    errno = 0;
    return DeviceResult(f->device->write(from, count, f->device->arg), count);
  }
  return Transfer(f->fd, POLLOUT, f->writeTimeout, [&] { return write(f->fd, from, count); });
}

// Records the first failure of the way out.
Boolean FailWriting(Channel* f, int error) {
  if (f->error == 0) f->error = error;
  return Fail(f->error);
}

Boolean WriteAll(Channel* f, const UByte* from, size_t count) {
  if (f->error != 0) return Fail(f->error);
  while (count > 0) {
    const ssize_t written = WriteSome(f, from, count);
    if (written < 0) return FailWriting(f, errno);
    if (written == 0) return FailWriting(f, EIO);  // it would take nothing for ever
    from += written;
    count -= static_cast<size_t>(written);
  }
  return TRUE;
}

// How a read that got nothing ends: there is no system error behind an end of file, so errno is 0 then.
Int ReadEnd(ssize_t count) {
  if (count < 0) return kReadFailed;
  errno = 0;
  return kReadShort;
}

// Refills the input buffer, which is used up; 0 when there is something in it.
Int Fill(Channel* f) {
  f->inFirst = 0;
  f->inSize = 0;
  const ssize_t count = ReadSome(f, f->inBuf, kBuffer);
  if (count <= 0) return ReadEnd(count);
  f->inSize = static_cast<int>(count);
  return 0;
}

size_t TakeBuffered(Channel* f, UByte* to, size_t count) {
  const size_t taken = std::min(count, static_cast<size_t>(f->inSize - f->inFirst));
  memcpy(to, f->inBuf + f->inFirst, taken);
  f->inFirst += static_cast<int>(taken);
  return taken;
}

void CloseDirectory(Channel* f) {
  if (f->directory >= 0) qx::CloseKeepingErrno(f->directory);
  f->directory = -1;
}

// Makes the file's name stable, once: a file that was there may have been made by somebody who died before he did that.
// A directory that cannot be opened is synced with all of its file system.
bool SyncName(Channel* f) {
  if (!f->created) return true;
  if (f->directory < 0) {
    syncfs(f->fd);
  } else if (!qx::SyncDirectory(f->directory)) {
    return false;
  }
  f->created = FALSE;
  CloseDirectory(f);
  return true;
}

bool SyncDevice(Channel* f) {
  errno = 0;
  if (f->device->sync == nullptr) return Fail(ENOTSUP);
  if (f->device->sync(f->device->arg) == 0) return true;
  if (errno == 0) errno = EIO;
  return false;
}

// Pipes, terminals and the like hold nothing that could be made stable, and say EINVAL.
bool IsStorage(int fd) {
  struct stat status;
  return fstat(fd, &status) != 0 || S_ISREG(status.st_mode) || S_ISBLK(status.st_mode);
}

bool SyncFile(Channel* f) {
  if (!IsStorage(f->fd)) return true;
  return fsync(f->fd) == 0 && SyncName(f);
}

bool CloseDevice(Channel* f) {
  errno = 0;
  const int result = f->device->shutdown != nullptr ? f->device->shutdown(f->device->arg) : 0;
  const int error = result == 0 ? 0 : errno != 0 ? errno : EIO;
  if (f->device->close != nullptr) f->device->close(f->device->arg);
  errno = error;
  return result == 0;
}

// The descriptor is gone even when close says that it was interrupted.
bool CloseFile(Channel* f) { return close(f->fd) == 0 || errno == EINTR; }

struct Mode {
  int flags;
  bool creates;
};

bool ModeParse(const char* text, Mode* mode) {
  if (strcmp(text, "r") == 0) {
    *mode = {O_RDONLY, false};
  } else if (strcmp(text, "w") == 0) {
    *mode = {O_WRONLY | O_TRUNC, true};
  } else if (strcmp(text, "a") == 0) {
    *mode = {O_WRONLY | O_APPEND, true};
  } else {
    errno = EINVAL;
    return false;
  }
  return true;
}

// Opens the file, creating it where the mode asks for that.
int OpenFile(const char* path, const Mode& mode) {
  const int fd = qx::OpenDescriptor(path, mode.flags);
  if (fd >= 0 || errno != ENOENT || !mode.creates) return fd;
  return qx::OpenDescriptor(path, mode.flags | O_CREAT);
}

bool PrepareDescriptor(const Channel* f, int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return false;
  if (S_ISDIR(status.st_mode)) {
    errno = EISDIR;
    return false;
  }
  if (f->readTimeout < 0 && f->writeTimeout < 0) return true;
  // Time-outs need calls that return when they would have to wait.
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

}  // namespace

Channel* ChannelNew(TimeMilliseconds readTimeout, TimeMilliseconds writeTimeout) {
  Channel* f = static_cast<Channel*>(Allocate_(sizeof(Channel), nullptr, kModule, __LINE__));
  f->inFirst = 0;
  f->inSize = 0;
  f->outSize = 0;
  f->fd = -1;
  f->directory = -1;
  f->created = FALSE;
  f->error = 0;
  f->readTimeout = readTimeout;
  f->writeTimeout = writeTimeout;
  f->device = nullptr;
  return f;
}

Boolean ChannelOpenFile(Channel* f, const char* path, const char* mode) {
  if (IsOpen(f)) return Fail(EBUSY);
  Mode parsed = {};
  if (!ModeParse(mode, &parsed)) return FALSE;
  const int fd = OpenFile(path, parsed);
  if (fd < 0) return FALSE;
  if (!PrepareDescriptor(f, fd)) {
    qx::CloseKeepingErrno(fd);
    return FALSE;
  }
  f->fd = fd;
  f->inFirst = 0;
  f->inSize = 0;
  f->outSize = 0;
  f->error = 0;
  f->created = parsed.creates ? TRUE : FALSE;
  f->directory = parsed.creates ? qx::OpenDirectoryOf(path) : -1;
  return TRUE;
}

Int ChannelReadBuf(Channel* f, void* to, size_t count, Int /*flags*/) {
  if (count == 0) return 0;
  UByte* at = static_cast<UByte*>(to);
  for (;;) {
    const size_t taken = TakeBuffered(f, at, count);
    at += taken;
    count -= taken;
    if (count == 0) return 0;
    if (count < kBuffer) {
      if (const Int result = Fill(f); result != 0) return result;
      continue;
    }
    const ssize_t got = ReadSome(f, at, count);  // straight to where it belongs
    if (got <= 0) return ReadEnd(got);
    at += got;
    count -= static_cast<size_t>(got);
  }
}

int ChannelReadByte_(Channel* f, Int /*flags*/) {
  if (f->inFirst >= f->inSize && Fill(f) != 0) return -1;
  return f->inBuf[f->inFirst++];
}

Boolean ChannelWriteBuf(Channel* f, const void* from, size_t count) {
  if (f->error != 0) return Fail(f->error);
  if (!IsOpen(f)) return Fail(EBADF);
  const UByte* at = static_cast<const UByte*>(from);
  if (count > kBuffer - static_cast<size_t>(f->outSize) && !ChannelFlush(f)) return FALSE;
  if (count >= kBuffer) return WriteAll(f, at, count);
  if (count > 0) memcpy(f->outBuf + f->outSize, at, count);
  f->outSize += static_cast<int>(count);
  return TRUE;
}

Boolean ChannelFlush(Channel* f) {
  // Emptied even when writing fails: a caller that appends byte by byte must find room whatever happened.
  const size_t waiting = static_cast<size_t>(f->outSize);
  f->outSize = 0;
  return WriteAll(f, f->outBuf, waiting);
}

Boolean ChannelSync(Channel* f) {
  if (!ChannelFlush(f)) return FALSE;
  if (!IsOpen(f)) return Fail(EBADF);
  // Never tried again after a failure: the kernel drops what it could not write, and a second call would succeed.
  const bool synced = f->device != nullptr ? SyncDevice(f) : SyncFile(f);
  return synced ? TRUE : FailWriting(f, errno);
}

Boolean ChannelClose(Channel* f) {
  if (f == nullptr) return TRUE;
  ChannelFlush(f);
  if (f->device != nullptr) {
    if (!CloseDevice(f)) FailWriting(f, errno);
  } else if (f->fd >= 0) {
    if (!CloseFile(f)) FailWriting(f, errno);
  }
  CloseDirectory(f);
  const int error = f->error;
  UnAllocate_(f, kModule, __LINE__);
  return error == 0 ? TRUE : Fail(error);
}
