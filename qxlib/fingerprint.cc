// Fingerprints by folded multiplication.
//
// The construction is that of Wang Yi's wyhash (Wang Yi, Diep, Yang: "Modern Non-Cryptographic Hash Function and
// Pseudorandom Number Generator"): two words, each masked with a secret, are multiplied to 128 bits, and the product's
// halves are folded together. We keep the factors in the fold as N. De Carli's rapidhash does in its protected form, so
// that a factor that happens to be 0 does not wipe out the other one. Secrets are the first bits of pi's fraction.
//
//   length      what goes into the last two words (a, b), after what came before went into the state
//   0           0, 0
//   1 to 3      first, middle and last byte; 0
//   4 to 7      first and last 4 bytes
//   8 to 16     first and last 8 bytes
//   17 and up   the last 16 bytes; the others in steps of 16, up to three of them side by side
//
// Words overlap where the length is no multiple of theirs, and the length enters at both ends.

#include "qxlib/fingerprint.h"

#include <bit>
#include <cstring>

namespace {

__extension__ using Product = unsigned __int128;

constexpr uint64_t kSecret0 = 0x243f6a8885a308d3;
constexpr uint64_t kSecret1 = 0x13198a2e03707344;
constexpr uint64_t kSecret2 = 0xa4093822299f31d0;
constexpr uint64_t kSecret3 = 0x082efa98ec4e6c89;

constexpr size_t kStep = 16;
constexpr size_t kWideStep = 3 * kStep;

// Little-endian on every machine, at any alignment.
inline uint64_t Load64(const UByte* from) {
  uint64_t word = 0;
  memcpy(&word, from, sizeof(word));
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  return word;
}

inline uint64_t Load32(const UByte* from) {
  uint32_t word = 0;
  memcpy(&word, from, sizeof(word));
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
  return word;
}

inline void Multiply(uint64_t* a, uint64_t* b) {
  const Product product = Product{*a} * *b;
  *a ^= static_cast<uint64_t>(product);
  *b ^= static_cast<uint64_t>(product >> 64);
}

inline uint64_t Mix(uint64_t a, uint64_t b) {
  Multiply(&a, &b);
  return a ^ b;
}

inline uint64_t Absorb(uint64_t state, const UByte* from, uint64_t secret) {
  return Mix(Load64(from) ^ secret, Load64(from + 8) ^ state);
}

}  // namespace

FPrint Fingerprint(const UByte* bytes, UInt length) {
  uint64_t state = kSecret0 ^ length;
  uint64_t a = 0;
  uint64_t b = 0;
  if (length > kStep) {
    const UByte* end = bytes + length;
    size_t left = length;
    if (left > kWideStep) {
      uint64_t state1 = state;
      uint64_t state2 = state;
      do {
        state = Absorb(state, bytes, kSecret1);
        state1 = Absorb(state1, bytes + kStep, kSecret2);
        state2 = Absorb(state2, bytes + 2 * kStep, kSecret3);
        bytes += kWideStep;
        left -= kWideStep;
      } while (left > kWideStep);
      state ^= state1 ^ state2;
    }
    if (left > 2 * kStep) {
      state = Absorb(state, bytes, kSecret1) ^ Absorb(state, bytes + kStep, kSecret2);
    } else if (left > kStep) {
      state = Absorb(state, bytes, kSecret3);
    }
    a = Load64(end - 16);
    b = Load64(end - 8);
  } else if (length >= 8) {
    a = Load64(bytes);
    b = Load64(bytes + length - 8);
  } else if (length >= 4) {
    a = Load32(bytes);
    b = Load32(bytes + length - 4);
  } else if (length > 0) {
    a = uint64_t{bytes[0]} << 16 | uint64_t{bytes[length >> 1]} << 8 | bytes[length - 1];
  }
  a ^= kSecret1;
  b ^= state;
  Multiply(&a, &b);
  return Mix(a ^ kSecret0 ^ length, b ^ kSecret1);
}
