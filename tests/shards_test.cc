// Splitting keys over shards, and the example program that does it.

#include "examples/shard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/programs.h"

namespace {

using ::testing::HasSubstr;

TEST(ShardOf, ShardFollowsFromTheBytesAlone) {
  EXPECT_EQ(shard::Of("key", 1), 0u);
  EXPECT_EQ(shard::Of("key", 16), shard::Of(std::string("key"), 16));
}

TEST(ShardOf, SpreadsKeysEvenly) {
  std::vector<int> keys(16);
  for (int i = 0; i < 16000; i++) keys[shard::Of("key" + std::to_string(i), 16)]++;
  for (const int count : keys) {
    EXPECT_GT(count, 800);
    EXPECT_LT(count, 1200);
  }
}

TEST(ShardOf, DoublingSplitsEachShardInTwo) {
  for (int i = 0; i < 1000; i++) {
    const std::string key = "key" + std::to_string(i);
    EXPECT_EQ(shard::Of(key, 16) / 2, shard::Of(key, 8)) << key;
  }
}

shard::Manifest Parsed(const std::string& text) {
  std::istringstream in(text);
  return shard::Parse(in, "m");
}

TEST(ShardManifest, GoesRound) {
  const std::string text = "qxshards 1\nshards 2\nkeys 5\na.shards 0 100 2 0 17\na.shards 100 56 3 2 18\n";
  EXPECT_EQ(shard::Text(Parsed(text)), text);
}

TEST(ShardManifest, WhatDoesNotFitTogetherIsRefused) {
  for (const char* text :
       {"", "qxshards 2\nshards 1\nkeys 0\na 0 0 0 0 0\n", "qxshards 1\nshards 0\nkeys 0\n",
        "qxshards 1\nshards 1\nkeys 1\n", "qxshards 1\nshards 1\nkeys 1\na 0 9 2 0 0\n",
        "qxshards 1\nshards 1\nkeys 1\na 0 9 1 1 0\n", "qxshards 1\nshards 1\nkeys 1\n../a 0 9 1 0 0\n",
        "qxshards 1\nshards 1\nkeys 1\na 0 -1 1 0\n"}) {
    EXPECT_THROW(Parsed(text), std::runtime_error) << text;
  }
}

class ShardsTest : public ::testing::Test {
 protected:
  ShardsTest() {
    std::string list;
    for (int i = 0; i < 1000; i++) list += "word" + std::to_string(i) + "\n";
    support::WriteFile(directory_.file("list"), list + "word7\n\n");
  }

  support::Outcome Shards(const std::string& arguments) const { return support::Run(QX_SHARDS " " + arguments); }
  std::string Build() const {
    return support::MustRun(QX_SHARDS " build " + directory_.file("list") + " " + directory_.path() + " words 7 3");
  }

  support::TemporaryDirectory directory_;
};

TEST_F(ShardsTest, BuildsChecksAndLooksUp) {
  EXPECT_THAT(Build(), HasSubstr("1000 keys in 7 shards in 3 files"));
  EXPECT_EQ(Shards("check " + directory_.path() + " words").output,
            "1000 keys in 7 shards, every byte as the manifest says\n");
  const support::Outcome looked = Shards("look-up " + directory_.path() + " words word0 word999 other");
  EXPECT_EQ(looked.status, 0);
  EXPECT_THAT(looked.output,
              HasSubstr("word0                    shard " + std::to_string(shard::Of("word0", 7)) + " of"));
  EXPECT_THAT(looked.output, HasSubstr("other                    would be in shard " +
                                       std::to_string(shard::Of("other", 7)) + ", and is not"));
}

TEST_F(ShardsTest, EachKeyHasANumberOfItsOwn) {
  Build();
  std::string keys;
  for (int i = 0; i < 1000; i++) keys += " word" + std::to_string(i);
  std::istringstream lines(support::MustRun(QX_SHARDS " look-up " + directory_.path() + " words" + keys));
  std::vector<bool> seen(1000);
  for (std::string line; std::getline(lines, line);) {
    const size_t number = std::stoul(line.substr(line.rfind(' ') + 1));
    ASSERT_LT(number, 1000u) << line;
    EXPECT_FALSE(seen[number]) << line;
    seen[number] = true;
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 1000);
}

TEST_F(ShardsTest, LeavesNoSpoolBehind) {
  Build();
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
    files += entry.path().filename() != "list";
  }
  EXPECT_EQ(files, 4u);  // three files and the manifest
}

TEST_F(ShardsTest, DamageIsFound) {
  Build();
  const std::string file = directory_.file("words-1.shards");
  std::string bytes = support::ReadFile(file);
  bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 1);
  support::WriteFile(file, bytes);
  const support::Outcome changed = Shards("check " + directory_.path() + " words");
  EXPECT_EQ(changed.status, 1);
  EXPECT_THAT(changed.output, HasSubstr("words-1.shards: has other bytes than its manifest says"));
  support::WriteFile(file, bytes.substr(0, bytes.size() / 2));
  EXPECT_THAT(Shards("check " + directory_.path() + " words").output, HasSubstr("is shorter than its manifest says"));
  std::filesystem::remove(file);
  EXPECT_THAT(Shards("check " + directory_.path() + " words").output, HasSubstr("cannot map"));
}

TEST_F(ShardsTest, WhatCannotBeDoneIsSaid) {
  EXPECT_THAT(Shards("").output, HasSubstr("usage: shards build"));
  EXPECT_EQ(Shards("").status, 1);
  EXPECT_THAT(Shards("build /nonexistent " + directory_.path() + " words 2 1").output,
              HasSubstr("cannot read /nonexistent"));
  EXPECT_THAT(Shards("build " + directory_.file("list") + " /nonexistent words 2 1").output, HasSubstr("cannot open"));
  EXPECT_THAT(Shards("build " + directory_.file("list") + " " + directory_.path() + " words 2 3").output,
              HasSubstr("3 is no number from 1 to 2"));
  EXPECT_THAT(Shards("look-up " + directory_.path() + " words key").output, HasSubstr("cannot read"));
}

}  // namespace
