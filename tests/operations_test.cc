// The fuzzers' bodies over bytes at random, and over those that once told trees or maps from their models.

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "support/operations.h"
#include "support/sanitizers.h"

namespace {

constexpr int kInputs = support::kSanitized ? 60 : 300;

std::vector<uint8_t> Bytes(uint32_t seed, size_t count) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(count);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

TEST(Operations, OnTreesAgreeWithTheModel) {
  for (uint32_t seed = 0; seed < kInputs; seed++) {
    ASSERT_EQ(support::OperateTrees(Bytes(seed, 20 + seed)), "") << seed;
  }
}

TEST(Operations, OnMapsAgreeWithTheModel) {
  for (uint32_t seed = 0; seed < kInputs; seed++) {
    ASSERT_EQ(support::OperateMaps(Bytes(seed, 20 + seed * 4)), "") << seed;
  }
}

TEST(Operations, TakeNoBytesAtAll) {
  EXPECT_EQ(support::OperateTrees({}), "");
  EXPECT_EQ(support::OperateMaps({}), "");
}

}  // namespace
