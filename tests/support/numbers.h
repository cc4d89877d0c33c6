// Numbers taken off the front of some bytes: how the bodies of fuzzers read what they are to do.
#ifndef TESTS_SUPPORT_NUMBERS_H
#define TESTS_SUPPORT_NUMBERS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace support {

// Zeros when the bytes are used up.
class Numbers {
 public:
  explicit Numbers(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  bool Empty() const { return bytes_.empty(); }
  std::span<const uint8_t> Rest() const { return bytes_; }
  uint64_t Next(size_t width) {
    uint64_t number = 0;
    for (size_t i = 0; i < width && !bytes_.empty(); i++) {
      number = number << 8 | bytes_[0];
      bytes_ = bytes_.subspan(1);
    }
    return number;
  }
  std::span<const uint8_t> Take(size_t count) {
    const auto taken = bytes_.first(std::min(count, bytes_.size()));
    bytes_ = bytes_.subspan(taken.size());
    return taken;
  }

 private:
  std::span<const uint8_t> bytes_;
};

}  // namespace support

#endif
