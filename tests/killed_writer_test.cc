// Writers that die in the middle: at every byte of their files, by a file-size limit whose signal ends the process, and
// at random moments, killed. What the next open says of such a file is the truth: it is refused, or it is whole. One
// that was to be replaced is the old one or the new one.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <type_traits>

#include "qxlib/misc.h"
#include "support/files.h"
#include "support/limits.h"
#include "support/writers.h"

namespace {

using support::Many;
using support::Strings;
using support::TemporaryDirectory;
using support::writers::AttrDictReplacer;
using support::writers::AttrDictWriter;
using support::writers::HashDictReplacer;
using support::writers::HashDictWriter;
using support::writers::HashTableReplacer;
using support::writers::HashTableWriter;

size_t LargestFile(const TemporaryDirectory& dir) {
  uintmax_t largest = 0;
  for (const auto& file : std::filesystem::directory_iterator(dir.path())) {
    largest = std::max(largest, file.file_size());
  }
  return largest;
}

// Writes in a process whose files cannot grow past so many bytes, and that dies when they would.
template <typename Writer>
bool SurvivesTheLimit(const TemporaryDirectory& dir, const Strings& strings, size_t bytes) {
  const pid_t child = fork();
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_DFL);
    support::Limit(RLIMIT_CORE, 0);
    support::Limit(RLIMIT_FSIZE, bytes);
    _exit(Writer::Write(dir, strings) ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) ? WEXITSTATUS(status) == 0 : WTERMSIG(status) == SIGXFSZ) << status;
  return WIFEXITED(status);
}

template <typename Writer>
class KilledWriter : public ::testing::Test {};
using Writers = ::testing::Types<HashDictWriter, HashTableWriter, AttrDictWriter>;
TYPED_TEST_SUITE(KilledWriter, Writers);

TYPED_TEST(KilledWriter, LeavesAWholeFileOrARefusedOneWhereverItDies) {
  const Strings strings = {"one", "two", "three", "", "five", "six"};
  const TemporaryDirectory dir;
  ASSERT_TRUE(TypeParam::Write(dir, strings));
  ASSERT_EQ(TypeParam::Ask(dir, strings), "whole");
  const size_t size = LargestFile(dir);
  ASSERT_GT(size, 20u);
  for (size_t bytes = 0; bytes <= size; bytes++) {
    EXPECT_EQ(SurvivesTheLimit<TypeParam>(dir, strings, bytes), bytes == size) << bytes;
    // A pair whose writer died when it had written the first word, 0, and nothing else looks like an empty
    // dictionary's.
    const bool looks_empty = std::is_same_v<TypeParam, AttrDictWriter> && bytes == sizeof(UInt);
    EXPECT_EQ(TypeParam::Ask(dir, strings), bytes == size ? "whole" : looks_empty ? "empty" : "refused") << bytes;
  }
}

// One process writes A and B in turns until it is killed.
template <typename Writer>
pid_t StartWriting(const TemporaryDirectory& dir, const Strings& a, const Strings& b) {
  int ready[2];
  if (pipe(ready) != 0) std::abort();
  const pid_t child = fork();
  if (child == 0) {
    while (Writer::Write(dir, a) && write(ready[1], "", 1) == 1 && Writer::Write(dir, b)) {
    }
    _exit(1);
  }
  char byte;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);  // A is written once
  close(ready[0]);
  close(ready[1]);
  return child;
}

TYPED_TEST(KilledWriter, LeavesAWholeFileOrARefusedOneWheneverItIsKilled) {
  constexpr int kKills = 40;
  const Strings a = Many("a", 3000), b = Many("b", 4000);
  std::mt19937 random(20);
  int whole = 0;
  for (int kill_count = 0; kill_count < kKills; kill_count++) {
    const TemporaryDirectory dir;
    const pid_t child = StartWriting<TypeParam>(dir, a, b);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    const std::string asked_a = TypeParam::Ask(dir, a), asked_b = TypeParam::Ask(dir, b);
    if (asked_a == "refused") {
      EXPECT_EQ(asked_b, "refused");
      continue;
    }
    whole++;
    EXPECT_TRUE((asked_a == "whole") != (asked_b == "whole")) << asked_a << ", " << asked_b;
  }
  this->RecordProperty("whole", whole);
}

template <typename Writer>
class KilledReplacer : public ::testing::Test {};
using Replacers = ::testing::Types<HashDictReplacer, HashTableReplacer, AttrDictReplacer>;
TYPED_TEST_SUITE(KilledReplacer, Replacers);

TYPED_TEST(KilledReplacer, LeavesTheOldFileWhereverItDies) {
  const Strings old = {"some", "older", "strings"}, strings = {"one", "two", "three", "", "five", "six"};
  const TemporaryDirectory elsewhere;
  ASSERT_TRUE(TypeParam::Write(elsewhere, strings));
  const size_t size = LargestFile(elsewhere);
  const TemporaryDirectory dir;
  ASSERT_TRUE(TypeParam::Write(dir, old));
  for (size_t bytes = 0; bytes < size; bytes += size / 100 + 1) {
    EXPECT_FALSE(SurvivesTheLimit<TypeParam>(dir, strings, bytes)) << bytes;
    ASSERT_EQ(TypeParam::Ask(dir, old), "whole") << bytes;
  }
  EXPECT_TRUE(SurvivesTheLimit<TypeParam>(dir, strings, size));
  EXPECT_EQ(TypeParam::Ask(dir, strings), "whole");
}

TYPED_TEST(KilledReplacer, LeavesTheOldFileOrTheNewOneWheneverItIsKilled) {
  constexpr int kKills = 25;
  const Strings a = Many("a", 3000), b = Many("b", 4000);
  std::mt19937 random(21);
  const TemporaryDirectory dir;  // what the killed ones have left beside is in nobody's way
  for (int kill_count = 0; kill_count < kKills; kill_count++) {
    const pid_t child = StartWriting<TypeParam>(dir, a, b);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    const std::string asked_a = TypeParam::Ask(dir, a), asked_b = TypeParam::Ask(dir, b);
    // Between the renames of a pair's two files.
    if (std::is_same_v<TypeParam, AttrDictReplacer> && asked_a == "refused" && asked_b == "refused") continue;
    EXPECT_TRUE((asked_a == "whole") != (asked_b == "whole")) << asked_a << ", " << asked_b;
  }
}

}  // namespace
