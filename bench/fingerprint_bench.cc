// Fingerprints beside XXH3, the fastest widespread hash of its kind: as a library function, which ours is too, and
// compiled into the caller.
//
// The checksum says that each contender has been over all the bytes: the values themselves differ by nature, and go
// into a sink that the compiler cannot look through.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qxlib/fingerprint.h"
#include "support/duel.h"

// Once as a declaration of the library's function, and once more as inline functions under names of their own.
#include <xxhash.h>
static const auto XxhLibrary = &XXH3_64bits;
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

struct Key {
  const UByte* bytes;
  UInt length;
};

// Keys of one length range, one after the other in memory at any alignment, visited in a random order.
struct Keys {
  std::string name;
  std::vector<UByte> bytes;
  std::vector<Key> keys;
  uint64_t total = 0;
};

Keys MakeKeys(std::string name, size_t count, UInt shortest, UInt longest) {
  duel::Random random(longest);
  Keys result;
  result.name = std::move(name);
  std::vector<UInt> lengths(count);
  for (UInt& length : lengths) {
    length = shortest + static_cast<UInt>(random.Below(longest - shortest + 1));
    result.total += length;
  }
  result.bytes.resize(result.total);
  for (UByte& byte : result.bytes) byte = static_cast<UByte>(random());
  size_t at = 0;
  for (const UInt length : lengths) {
    result.keys.push_back({&result.bytes[at], length});
    at += length;
  }
  std::vector<Key> shuffled;
  for (const uint32_t i : duel::Shuffled(count, 3)) shuffled.push_back(result.keys[i]);
  result.keys = std::move(shuffled);
  return result;
}

volatile uint64_t sink;
volatile uint64_t no_bits = 0;

// Rounds over the same keys, so that a turn is long enough to be timed.
constexpr size_t kRounds = 50;

template <typename Hash>
void Turn(duel::Sheet& sheet, const std::vector<Keys>& sets, Hash hash) {
  for (const Keys& set : sets) {
    sheet.Time(set.name.c_str(), set.keys.size() * kRounds, [&] {
      uint64_t sum = 0;
      uint64_t total = 0;
      for (size_t round = 0; round < kRounds; round++) {
        for (const Key& key : set.keys) {
          sum += hash(key.bytes, key.length);
          total += key.length;
        }
      }
      sink = sum;
      return total;
    });
  }
  for (const Keys& set : sets) {
    // The next key depends on the last fingerprint: what a look-up waits for.
    sheet.Time((set.name + ", one by one").c_str(), set.keys.size() * kRounds, [&] {
      const uint64_t none = no_bits;
      uint64_t last = 0;
      uint64_t total = 0;
      for (size_t round = 0; round < kRounds; round++) {
        for (const Key& key : set.keys) {
          last = hash(key.bytes + (last & none), key.length);
          total += key.length;
        }
      }
      sink = last;
      return total;
    });
  }
}

}  // namespace

int main(int argc, char** argv) {
  return duel::Main(argc, argv, "fingerprint",
                    [](duel::Duel& duel, size_t count) {
                      const auto sets = std::make_shared<std::vector<Keys>>();
                      for (const UInt length : {8u, 12u, 16u, 24u, 32u, 48u, 64u, 96u, 128u, 192u, 256u}) {
                        sets->push_back(MakeKeys(std::to_string(length) + " bytes", count, length, length));
                      }
                      sets->push_back(MakeKeys("8 to 256 bytes", count, 8, 256));
                      sets->push_back(MakeKeys("8 to 32 bytes", count, 8, 32));
                      duel.Contend("Fingerprint", [sets](duel::Sheet& sheet) {
                        Turn(sheet, *sets, [](const UByte* bytes, UInt length) { return Fingerprint(bytes, length); });
                      });
                      duel.Contend("XXH3, library", [sets](duel::Sheet& sheet) {
                        Turn(sheet, *sets, [](const UByte* bytes, UInt length) { return XxhLibrary(bytes, length); });
                      });
                      duel.Contend("XXH3, inlined", [sets](duel::Sheet& sheet) {
                        Turn(sheet, *sets, [](const UByte* bytes, UInt length) { return XXH3_64bits(bytes, length); });
                      });
                    },
                    {1000});
}
