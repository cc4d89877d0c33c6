// Whether a set of keys can be built: finding two equal ones, which no dictionary can tell apart.
//
// A table of numbers by fingerprint, filled key after key, half as many places again as keys:
//
//   places   [ - | mark:32 number+1:32 | - | ... ]      0: free; first tried: as far along as the fingerprint is in
//   2^64
//
// The upper bits of a fingerprint choose a place and the lower ones are its mark, so that only keys that agree in
// nearly all 64 bits are fetched and compared. Keys come a few ahead of the one that is placed: its place is then
// there.

#include "dict/hashdict_internal.h"

namespace hashdict {
namespace {

constexpr Id kInFlight = 16;

class Numbers {
 public:
  explicit Numbers(Id nentries) : size_(ULong{nentries} + nentries / 2 + 1) {
    places_ = static_cast<ULong*>(ArrayNew(size_, ~ULong{0}, nullptr, nullptr));
  }
  ~Numbers() { AnonArrayFree_(places_, kModule, __LINE__); }
  Numbers(const Numbers&) = delete;
  Numbers& operator=(const Numbers&) = delete;

  void Prefetch(FPrint print) const { __builtin_prefetch(&places_[Home(print)], 1); }

  // The number that has an equal key, as equal(number) says of those with the same mark; else `none`, and `idx` is in.
  template <typename Equal>
  Id FindOrAdd(FPrint print, Id idx, Id none, Equal equal) {
    const ULong mark = print << 32;
    ULong at = Home(print);
    for (; places_[at] != 0; at = at + 1 < size_ ? at + 1 : 0) {
      const Id number = static_cast<Id>(places_[at]) - 1;
      if ((places_[at] ^ mark) >> 32 == 0 && equal(number)) return number;
    }
    places_[at] = mark | (ULong{idx} + 1);
    return none;
  }

 private:
  ULong Home(FPrint print) const { return qx::HighProduct(print, size_); }

  ULong size_;
  ULong* places_;
};

// A copy of a key, for as long as another one is fetched.
class KeptKey {
 public:
  explicit KeptKey(const UByte* bytes, UShort length) : length_(length) {
    bytes_ = static_cast<UByte*>(Allocate_(size_t{length} + 1, nullptr, kModule, __LINE__));
    std::memcpy(bytes_, bytes, length);
  }
  ~KeptKey() { UnAllocate_(bytes_, kModule, __LINE__); }
  KeptKey(const KeptKey&) = delete;
  KeptKey& operator=(const KeptKey&) = delete;

  bool Equals(const UByte* bytes, UShort length) const {
    return length == length_ && std::memcmp(bytes, bytes_, length) == 0;
  }

 private:
  UByte* bytes_;
  UShort length_;
};

const UByte* KeyBytes(void* dict, DictKeyFun key, Id idx, UShort* length) {
  const UByte* bytes = GetKey(dict, key, idx, length);
  QX_ASSERT_IN(kModule, "HashDictKeysDistinct", bytes != nullptr, "bytes != ((void *)0)");
  return bytes;
}

}  // namespace
}  // namespace hashdict

using namespace hashdict;

Boolean HashDictKeysDistinct(Id nentries, void* dict, DictKeyFun key, Id* first, Id* second) {
  Numbers numbers(nentries);
  FPrint ring[kInFlight];
  for (ULong i = 0; i < ULong{nentries} + kInFlight; i++) {
    FPrint& print = ring[i % kInFlight];
    if (i >= kInFlight) {
      const Id idx = static_cast<Id>(i - kInFlight);
      const Id other = numbers.FindOrAdd(print, idx, idx, [&](Id number) {
        UShort length = 0;
        const UByte* bytes = KeyBytes(dict, key, number, &length);
        const KeptKey kept(bytes, length);
        bytes = KeyBytes(dict, key, idx, &length);
        return kept.Equals(bytes, length);
      });
      if (other != idx) {
        if (first != nullptr) *first = other;
        if (second != nullptr) *second = idx;
        return FALSE;
      }
    }
    if (i >= nentries) continue;
    UShort length = 0;
    const UByte* bytes = KeyBytes(dict, key, static_cast<Id>(i), &length);
    print = Fingerprint(bytes, length);
    numbers.Prefetch(print);
  }
  return TRUE;
}
