// errno, kept over a clean-up: the failure that a caller hears of is the first, not one of what was done about it.

#ifndef UTIL_ERRNO_INTERNAL_H
#define UTIL_ERRNO_INTERNAL_H

#include <cerrno>

namespace qx {

// Puts errno back to what it was where its name begins.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : error_(errno) {}
  ~ErrnoKeeper() { errno = error_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  const int error_;
};

}  // namespace qx

#endif
