// Fingerprints: the same everywhere and for ever, of the key's bytes alone, and well mixed.

#include "qxlib/fingerprint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "support/sanitizers.h"

namespace {

FPrint Of(const std::string& bytes) {
  return Fingerprint(reinterpret_cast<const UByte*>(bytes.data()), static_cast<UInt>(bytes.size()));
}

struct Golden {
  UInt length;
  FPrint fingerprint;
};

// Of the bytes 3, 20, 37, ... (17 i + 3, modulo 256), computed by an implementation in another language.
constexpr Golden kGolden[] = {
    {0, 0xc0d14be641de029d},   {1, 0x6f5ecb97f6137f19},   {2, 0x88989f6527c717d2},    {3, 0xf59b61168f249f24},
    {4, 0xce8966cde882b060},   {5, 0x0567ccab6650e586},   {7, 0x3a4034d6153f1937},    {8, 0x58ac8089568c04a9},
    {9, 0x7174282b2da43102},   {15, 0x3c51a71578091fc9},  {16, 0x68c76abc38dac5c9},   {17, 0x0ce534b18ab05a18},
    {31, 0xe17eb6a26c54e281},  {32, 0x19bfa38d6bfee012},  {33, 0xb3e78c1426a69848},   {47, 0xfa8e9dfb6cfbe3e6},
    {48, 0xa10fcd1443403e08},  {49, 0xd50419a783a6cb17},  {63, 0xe7d014b84900b972},   {64, 0x4a0ed91d5c6c3bf5},
    {96, 0x3e8dd9a3af636142},  {97, 0xb6e4fd8d437e5f86},  {144, 0x0154a3f0d009da93},  {145, 0x4894fe513980a4e4},
    {255, 0x5ef1aaed75f0bbb8}, {256, 0xedf2f1544ecceb62}, {1000, 0xe3a7eb069bde27f7},
};

TEST(Fingerprint, NeverChanges) {
  std::string bytes;
  for (UInt i = 0; i < 1000; i++) bytes += static_cast<char>(17 * i + 3);
  for (const Golden& golden : kGolden)
    EXPECT_EQ(Of(bytes.substr(0, golden.length)), golden.fingerprint) << golden.length;
  EXPECT_EQ(Of("a"), 0x9ea09f101fb93f83u);
  EXPECT_EQ(Of("hello"), 0xd307312b7a01500fu);
  EXPECT_EQ(Of("The quick brown fox jumps over the lazy dog"), 0xdff2e54db2f0a14eu);
}

TEST(Fingerprint, NothingHasOneToo) { EXPECT_EQ(Fingerprint(nullptr, 0), 0xc0d14be641de029du); }

TEST(Fingerprint, DoesNotDependOnAlignmentOrOnWhatLiesAround) {
  std::mt19937_64 random(1);
  for (UInt length = 0; length <= 300; length++) {
    std::string key;
    for (UInt i = 0; i < length; i++) key += static_cast<char>(random());
    const FPrint expected = Of(key);
    for (size_t offset = 0; offset < 16; offset++) {
      // A block that ends with the key: a read behind it is seen by AddressSanitizer.
      const auto block = std::make_unique<UByte[]>(offset + length);
      for (size_t i = 0; i < offset; i++) block[i] = static_cast<UByte>(random());
      if (length > 0) memcpy(block.get() + offset, key.data(), length);
      ASSERT_EQ(Fingerprint(block.get() + offset, length), expected) << length << " " << offset;
    }
  }
}

// For every bit of a key of this length: how often each bit of the fingerprint changes with it, ideally every other
// time.
class FingerprintAvalanche : public testing::TestWithParam<UInt> {};

TEST_P(FingerprintAvalanche, EveryBitOfTheKeyMovesEveryBitOfTheFingerprint) {
  const UInt length = GetParam();
  constexpr int kTrials = support::kSanitized ? 100 : 500;
  // Honest coins: one of the 64 * 8 * length rates lies six standard deviations off once in a thousand such tests.
  // Short keys are few, whatever the number of trials.
  const double different = std::min<double>(kTrials, std::exp2(8 * length - 1));
  const double tolerance = 6 * 0.5 / std::sqrt(different);
  std::mt19937_64 random(length);
  std::vector<UByte> key(length);
  double worst = 0;
  double sum = 0;
  for (UInt bit = 0; bit < 8 * length; bit++) {
    int changes[64] = {};
    for (int trial = 0; trial < kTrials; trial++) {
      for (UByte& byte : key) byte = static_cast<UByte>(random());
      const FPrint before = Fingerprint(key.data(), length);
      key[bit / 8] = static_cast<UByte>(key[bit / 8] ^ 1 << bit % 8);
      const FPrint difference = before ^ Fingerprint(key.data(), length);
      for (int out = 0; out < 64; out++) changes[out] += static_cast<int>(difference >> out & 1);
    }
    for (const int count : changes) {
      const double rate = static_cast<double>(count) / kTrials;
      worst = std::max(worst, std::abs(rate - 0.5));
      sum += rate;
    }
  }
  EXPECT_LT(worst, tolerance);
  EXPECT_NEAR(sum / (64.0 * 8 * length), 0.5, 0.01);
}

// Both sides of every length at which the words are taken differently.
INSTANTIATE_TEST_SUITE_P(Lengths, FingerprintAvalanche,
                         testing::Values(1, 2, 3, 4, 5, 7, 8, 9, 12, 15, 16, 17, 24, 31, 32, 33, 47, 48, 49, 64, 65, 80,
                                         81, 96, 97));

TEST(Fingerprint, LengthsOfZeroBytesAreAllDifferent) {
  std::vector<FPrint> fingerprints;
  const std::vector<UByte> zeros(4096);
  for (UInt length = 0; length <= 4096; length++) fingerprints.push_back(Fingerprint(zeros.data(), length));
  std::sort(fingerprints.begin(), fingerprints.end());
  EXPECT_EQ(std::adjacent_find(fingerprints.begin(), fingerprints.end()), fingerprints.end());
}

TEST(Fingerprint, AFactorOfZeroDoesNotWipeOutTheRest) {
  // The first word cancels the secret it is masked with; a plain folded product would be the same for all of these.
  std::vector<FPrint> fingerprints;
  for (uint64_t i = 0; i < 1000; i++) {
    const uint64_t words[2] = {0x13198a2e03707344, i};
    fingerprints.push_back(Fingerprint(reinterpret_cast<const UByte*>(words), sizeof(words)));
  }
  std::sort(fingerprints.begin(), fingerprints.end());
  EXPECT_EQ(std::adjacent_find(fingerprints.begin(), fingerprints.end()), fingerprints.end());
}

// Pairs of equal numbers, in a sorted list.
template <typename Number>
size_t Pairs(std::vector<Number>* numbers) {
  std::sort(numbers->begin(), numbers->end());
  size_t pairs = 0;
  size_t run = 0;
  for (size_t i = 1; i < numbers->size(); i++) {
    run = (*numbers)[i] == (*numbers)[i - 1] ? run + 1 : 0;
    pairs += run;
  }
  return pairs;
}

// Five kinds of keys that real callers have, each poor in entropy in its own way.
std::vector<FPrint> FingerprintsOfPoorKeys(size_t count) {
  std::vector<FPrint> result;
  result.reserve(count);
  char text[64];
  UByte zeros[64] = {};
  for (size_t i = 0; result.size() < count; i++) {
    const uint64_t number = i;
    result.push_back(Fingerprint(reinterpret_cast<const UByte*>(&number), sizeof(number)));
    const int length = snprintf(text, sizeof(text), "%zu", i);
    result.push_back(Of(std::string(text, static_cast<size_t>(length))));
    snprintf(text, sizeof(text), "user:%020zu:session", i);
    result.push_back(Of(text));
    memcpy(zeros + 24, &number, 4);  // 64 bytes, all zero but for a counter in the middle
    result.push_back(Fingerprint(zeros, sizeof(zeros)));
    const uint32_t high = static_cast<uint32_t>(i) << 8;  // 32 bytes, whose lowest byte of a word never changes
    memcpy(text, "prefix  prefix  prefix  ", 24);
    memcpy(text + 24, &high, 4);
    memcpy(text + 28, &high, 4);
    result.push_back(Of(std::string(text, 32)));
  }
  result.resize(count);
  return result;
}

TEST(Fingerprint, TenMillionKeysDoNotCollide) {
  constexpr size_t kCount = support::kSanitized ? 500000 : 10000000;
  std::vector<FPrint> fingerprints = FingerprintsOfPoorKeys(kCount);
  constexpr size_t kHalves = kCount / 5;
  std::vector<uint32_t> low;
  std::vector<uint32_t> high;
  for (const FPrint fingerprint : std::span(fingerprints).first(kHalves)) {
    low.push_back(static_cast<uint32_t>(fingerprint));
    high.push_back(static_cast<uint32_t>(fingerprint >> 32));
  }
  EXPECT_EQ(Pairs(&fingerprints), 0u);
  // Each half is a hash of its own, and has as many collisions as chance gives.
  const double expected = static_cast<double>(kHalves) * static_cast<double>(kHalves) / 8589934592.0;
  const double tolerance = 6 * std::sqrt(expected);
  EXPECT_NEAR(static_cast<double>(Pairs(&low)), expected, tolerance);
  EXPECT_NEAR(static_cast<double>(Pairs(&high)), expected, tolerance);
}

}  // namespace
