// Any bytes as a perfect-hash dictionary: the fuzzer's body over its corpus, over sound images and over bytes at
// random.

#include "support/hashdict_bytes.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <filesystem>

#include "support/files.h"

namespace {

std::string Read(const std::string& bytes) { return support::ReadHashDictBytes({support::Bytes(bytes), bytes.size()}); }

TEST(HashDictBytes, TheCorpusIsReadWithoutAFault) {
  size_t files = 0;
  const std::string corpus = std::string(QX_SOURCE_DIR) + "/fuzz/corpus/hashdict";
  for (const auto& file : std::filesystem::directory_iterator(corpus)) {
    EXPECT_EQ(Read(support::ReadFile(file.path())), "") << file.path();
    files++;
  }
  EXPECT_GT(files, 0u);
}

TEST(HashDictBytes, SoundImagesServeInEveryContainerAtEveryShift) {
  for (char base = 0; base <= 7; base++) {
    for (int way = 0; way < 256; way++) EXPECT_EQ(Read({static_cast<char>(way), base}), "") << way << " " << int{base};
  }
}

TEST(HashDictBytes, AreReadWithoutAFault) {
  EXPECT_TRUE(rc::check([](const std::string& bytes) { RC_ASSERT(Read(bytes) == ""); }));
  EXPECT_TRUE(rc::check([] {
    std::string bytes{*rc::gen::arbitrary<char>(), *rc::gen::inRange('\1', '\x8')};
    bytes += *rc::gen::container<std::string>(size_t{4} * *rc::gen::inRange<size_t>(0, 8), rc::gen::arbitrary<char>());
    RC_ASSERT(Read(bytes) == "");
  }));
}

}  // namespace
