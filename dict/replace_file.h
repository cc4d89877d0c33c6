// Replacing a file whole: readers see the old one or the new one, never a part, and a failure leaves the old one as it
// was.
//
//   qx::Replacement file(path);            a new file beside the old one, with its permissions; false: errno says why
//   if (!file) ...
//   ... write file.beside(), sync it, close it ...
//   if (!file.TakePlace()) ...             renamed over the old one, and the directory synced
//
// A replacement that has not taken its place is removed where its name ends, errno kept.

#ifndef DICT_REPLACE_FILE_H
#define DICT_REPLACE_FILE_H

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "qxlib/memory.h"
#include "util/descriptor_internal.h"
#include "util/errno_internal.h"

namespace qx {

class Replacement {
 public:
  explicit Replacement(const char* path) : path_(path) {
    constexpr size_t kSuffix = sizeof(".new-4294967295-4294967295");
    const size_t room = strlen(path) + kSuffix;
    beside_ = static_cast<char*>(Allocate_(room, nullptr, "dict/replace_file", __LINE__));
    // Left behind by a process that died with our number: the next one is tried.
    int fd;
    do {
      snprintf(beside_, room, "%s.new-%u-%u", path, static_cast<unsigned>(getpid()), NextNumber());
      fd = OpenDescriptor(beside_, O_WRONLY | O_CREAT | O_EXCL);
    } while (fd < 0 && errno == EEXIST);
    if (fd < 0) return;
    state_ = State::kBeside;
    struct stat old;
    if (stat(path, &old) == 0 && S_ISREG(old.st_mode) && fchmod(fd, old.st_mode & 07777) != 0) {
      RemoveBeside();
    }
    CloseKeepingErrno(fd);
  }
  ~Replacement() {
    const ErrnoKeeper keeper;
    if (state_ == State::kBeside) RemoveBeside();
    UnAllocate_(beside_, "dict/replace_file", __LINE__);
  }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  // Whether there is a file to be written, or that has taken its place.
  explicit operator bool() const { return state_ != State::kNone; }

  const char* beside() const { return beside_; }

  // Gives the file, written and synced, the old one's name. False, with errno: the old one stands, unless renamed()
  // says that only the directory could not be synced, and either may be there after a power cut.
  bool TakePlace() {
    if (rename(beside_, path_) != 0) return false;
    state_ = State::kRenamed;
    return SyncDirectoryOf(path_);
  }

  bool renamed() const { return state_ == State::kRenamed; }

 private:
  enum class State { kNone, kBeside, kRenamed };

  static unsigned NextNumber() {
    static std::atomic<unsigned> number = 0;
    return number++;
  }

  void RemoveBeside() {
    const ErrnoKeeper keeper;
    unlink(beside_);
    state_ = State::kNone;
  }

  const char* path_;
  char* beside_ = nullptr;
  State state_ = State::kNone;
};

}  // namespace qx

#endif
