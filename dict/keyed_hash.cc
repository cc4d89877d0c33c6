// The keyed hash for tables whose keys come from an adversary.

#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include "dict/hashtable.h"
#include "dict/siphash.h"

namespace {

// A key that is random in every process. Where the kernel has no randomness to give, what differs between processes
// has to do.
siphash::Key RandomKey() {
  siphash::Key key;
  if (getrandom(&key, sizeof key, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof key)) return key;
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  key.low = static_cast<ULong>(now.tv_nsec) << 32 ^ static_cast<ULong>(now.tv_sec);
  key.high = static_cast<ULong>(getpid()) << 32 ^ reinterpret_cast<uintptr_t>(&now);
  return key;
}

// Drawn when it is first wanted, and then the same for good.
siphash::Key ProcessKey() {
  static const siphash::Key key = RandomKey();
  return key;
}

}  // namespace

UInt HashBytesKeyed(const UByte* bytes, UInt len, void* ptr) {
  const siphash::Key key = ptr != nullptr ? siphash::ReadKey(static_cast<const UByte*>(ptr)) : ProcessKey();
  return static_cast<UInt>(siphash::Hash<1, 3>(key, bytes, len));
}
