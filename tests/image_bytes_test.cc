// Any bytes as a table's file, a table's image or an attribute dictionary's pair: the fuzzers' bodies over their
// corpus, over what the golden files hold, and over bytes at random.

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <span>
#include <string>

#include "support/attrdict_bytes.h"
#include "support/files.h"
#include "support/sanitizers.h"
#include "support/table_bytes.h"

namespace {

using Body = std::string (*)(std::span<const uint8_t>);

std::string ReadPair(std::span<const uint8_t> input) {
  static const support::TemporaryDirectory directory;
  return support::ReadAttrDictBytes(input, directory.path());
}

std::string Read(Body body, const std::string& bytes) { return body({support::Bytes(bytes), bytes.size()}); }

// What is wrong with the files of a fuzzer's corpus.
std::string OfCorpus(const std::string& name, Body body) {
  std::string wrong;
  size_t files = 0;
  for (const auto& file : std::filesystem::directory_iterator(QX_SOURCE_DIR "/fuzz/corpus/" + name)) {
    if (const std::string said = Read(body, support::ReadFile(file.path())); !said.empty()) {
      wrong += file.path().string() + ": " + said + "\n";
    }
    files++;
  }
  return files != 0 ? wrong : "no files";
}

TEST(ImageBytes, TheCorpusIsReadWithoutAFault) {
  EXPECT_EQ(OfCorpus("hashtable_file", support::ReadHashTableBytes), "");
  EXPECT_EQ(OfCorpus("hashdeltable_image", support::ReadHashDelTableBytes), "");
  EXPECT_EQ(OfCorpus("attrdict", ReadPair), "");
}

// Every operation in turn on a sound table, in every way of reading it, and with one byte after the other changed.
void UseThroughout(Body body, const std::string& image) {
  std::string operations;
  for (int i = 0; i < 48; i++) {
    operations +=
        {static_cast<char>(i % 16), static_cast<char>(i * 37), static_cast<char>(i / 16), static_cast<char>(i)};
  }
  const auto input = [&](int way) {
    return std::string{static_cast<char>(way), static_cast<char>(operations.size() / 4)} + operations + image;
  };
  for (int way = 0; way < 128; way += support::kSanitized ? 5 : 1) ASSERT_EQ(Read(body, input(way)), "") << way;
  for (size_t at = 0; at < image.size(); at += support::kSanitized ? 7 : 1) {
    for (const char change : {'\x01', '\x80', '\xFF'}) {
      std::string changed = input(static_cast<int>(at % 128));
      char& byte = changed[changed.size() - image.size() + at];
      byte = static_cast<char>(byte ^ change);
      ASSERT_EQ(Read(body, changed), "") << at << " ^ " << int{change};
    }
  }
}

TEST(ImageBytes, ATablesFileServesWhateverIsChanged) {
  for (const char* name :
       {"hashtable_fixed.ht", "hashtable_grown.ht", "hashtable_selected.ht", "hashtable_unaligned.ht"}) {
    SCOPED_TRACE(name);
    UseThroughout(support::ReadHashTableBytes, support::ReadFile(support::GoldenPath(name)));
  }
}

TEST(ImageBytes, ATablesImageServesWhateverIsChanged) {
  for (const char* name : {"hashdeltable-empty.img", "hashdeltable-tombstones.img"}) {
    SCOPED_TRACE(name);
    UseThroughout(support::ReadHashDelTableBytes, support::ReadFile(support::GoldenPath(name)));
  }
}

TEST(ImageBytes, AreReadWithoutAFault) {
  constexpr uint32_t kInputs = support::kSanitized ? 300 : 2000;
  for (uint32_t seed = 0; seed < kInputs; seed++) {
    std::mt19937 random(seed);
    std::string bytes(seed % 500, '\0');
    // Mostly zeros, so that numbers are small and images whole.
    for (char& byte : bytes) byte = random() % 4 == 0 ? static_cast<char>(random()) : '\0';
    for (const Body body : {&support::ReadHashTableBytes, &support::ReadHashDelTableBytes, &ReadPair}) {
      ASSERT_EQ(Read(body, bytes), "") << seed;
    }
  }
}

}  // namespace
