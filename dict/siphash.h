// SipHash with `kCompressions` rounds a word and `kFinalizations` at the end: a hash whose values nobody can foresee
// who does not know its key. [Aumasson, Bernstein: SipHash, a fast short-input PRF, 2012]

#ifndef DICT_SIPHASH_H
#define DICT_SIPHASH_H

#include <bit>
#include <cstddef>

#include "qxlib/types.h"
#include "util/io.h"

namespace siphash {

struct Key {
  ULong low;
  ULong high;
};

constexpr size_t kKeyBytes = 16;

inline Key ReadKey(const UByte* bytes) { return {IO_MemGetLE8(bytes), IO_MemGetLE8(bytes + 8)}; }

class State {
 public:
  explicit State(Key key)
      : v0_(key.low ^ 0x736F6D6570736575),
        v1_(key.high ^ 0x646F72616E646F6D),
        v2_(key.low ^ 0x6C7967656E657261),
        v3_(key.high ^ 0x7465646279746573) {}

  template <int kRounds>
  void Absorb(ULong word) {
    v3_ ^= word;
    Rounds<kRounds>();
    v0_ ^= word;
  }

  template <int kRounds>
  ULong Finish() {
    v2_ ^= 0xFF;
    Rounds<kRounds>();
    return v0_ ^ v1_ ^ v2_ ^ v3_;
  }

 private:
  template <int kRounds>
  void Rounds() {
    for (int i = 0; i < kRounds; i++) {
      v0_ += v1_;
      v2_ += v3_;
      v1_ = std::rotl(v1_, 13) ^ v0_;
      v3_ = std::rotl(v3_, 16) ^ v2_;
      v0_ = std::rotl(v0_, 32);
      v2_ += v1_;
      v0_ += v3_;
      v1_ = std::rotl(v1_, 17) ^ v2_;
      v3_ = std::rotl(v3_, 21) ^ v0_;
      v2_ = std::rotl(v2_, 32);
    }
  }

  ULong v0_, v1_, v2_, v3_;
};

template <int kCompressions, int kFinalizations>
ULong Hash(Key key, const UByte* bytes, size_t length) {
  State state(key);
  const size_t whole = length & ~size_t{7};
  for (size_t at = 0; at < whole; at += 8) state.Absorb<kCompressions>(IO_MemGetLE8(bytes + at));
  ULong last = length << 56;
  for (size_t at = whole; at < length; at++) last |= static_cast<ULong>(bytes[at]) << (8 * (at - whole));
  state.Absorb<kCompressions>(last);
  return state.Finish<kFinalizations>();
}

}  // namespace siphash

#endif
