// The fuzzers' bodies over bytes at random, and over their corpus.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/operations.h"
#include "support/sanitizers.h"
#include "support/table_operations.h"

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

std::string OperateTables(std::span<const uint8_t> bytes) {
  static const support::TemporaryDirectory directory;
  return support::OperateTables(bytes, directory.file("table"));
}

TEST(Operations, OnTablesAgreeWithTheModel) {
  for (uint32_t seed = 0; seed < kInputs; seed++) {
    ASSERT_EQ(OperateTables(Bytes(seed, 20 + seed * 4)), "") << seed;
  }
}

std::string OfCorpus(const std::string& name, std::string (*operate)(std::span<const uint8_t>)) {
  std::string differences;
  size_t files = 0;
  for (const auto& file : std::filesystem::directory_iterator(QX_SOURCE_DIR "/fuzz/corpus/" + name)) {
    std::ifstream in(file.path(), std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    differences += operate(bytes);
    files++;
  }
  return files != 0 ? differences : "no files";
}

TEST(Operations, OfTheCorpusAgreeWithTheModel) {
  EXPECT_EQ(OfCorpus("trees", support::OperateTrees), "");
  EXPECT_EQ(OfCorpus("maps", support::OperateMaps), "");
  EXPECT_EQ(OfCorpus("tables", OperateTables), "");
}

TEST(Operations, TakeNoBytesAtAll) {
  EXPECT_EQ(support::OperateTrees({}), "");
  EXPECT_EQ(support::OperateMaps({}), "");
  EXPECT_EQ(OperateTables({}), "");
}

}  // namespace
