// Writers that die in the middle: at every byte of their files, by a file-size limit whose signal ends the process, and
// at random moments, killed. What the next open says of such a file is the truth: it is refused, or it is whole.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dict/attrdict.h"
#include "dict/hashdict.h"
#include "dict/hashtable.h"
#include "qxlib/misc.h"
#include "support/files.h"
#include "support/limits.h"

namespace {

using support::TemporaryDirectory;
using Strings = std::vector<std::string>;

const UByte* Bytes(const std::string& text) { return reinterpret_cast<const UByte*>(text.data()); }
UInt Count(const Strings& strings) { return static_cast<UInt>(strings.size()); }
UInt Length(const std::string& text) { return static_cast<UInt>(text.size()); }

// The writers that die. Each writes a set of strings, and tells of what is there whether it is one of them:
// "refused", "whole", or "wrong", which it must not be unless it is another of the sets.

struct HashDictWriter {
  static bool Write(const TemporaryDirectory& dir, const Strings& strings) {
    static std::map<Strings, std::unique_ptr<HashDict, decltype(&HashDictFree)>> built;
    auto at = built.find(strings);
    if (at == built.end()) {
      HashDict* hdict = HashDictBuild(Count(strings), const_cast<Strings*>(&strings), Key, nullptr, 0, 8, FALSE);
      at = built.try_emplace(strings, hdict, HashDictFree).first;
    }
    return HashDictWrite(at->second.get(), dir.path().c_str(), "words", nullptr, FALSE) != FALSE;
  }

  static std::string Ask(const TemporaryDirectory& dir, const Strings& strings) {
    HashDict* opened = HashDictOpen(dir.path().c_str(), "words", nullptr);
    if (opened == nullptr) return "refused";
    size_t right = 0;
    for (Id i = 0; i < strings.size(); i++) {
      right += HashDictFind(opened, Bytes(strings[i]), Length(strings[i])) == i ? 1u : 0u;
    }
    const bool whole = right == strings.size() && HashDictSize(opened) == strings.size();
    HashDictClose(opened);
    return whole ? "whole" : "wrong";
  }

 private:
  static UShort Key(void* strings, Id idx, const UByte** bytes) {
    const std::string& key = (*static_cast<Strings*>(strings))[idx];
    *bytes = Bytes(key);
    return static_cast<UShort>(key.size());
  }
};

struct HashTableWriter {
  static bool Write(const TemporaryDirectory& dir, const Strings& strings) {
    HashTable* table = HashTableNew(Count(strings), nullptr, nullptr, nullptr, sizeof(UInt), 0, FALSE);
    for (UInt i = 0; i < strings.size(); i++) {
      UByte* value = HashTableFind(table, Bytes(strings[i]), Length(strings[i]), TRUE, nullptr, nullptr);
      std::memcpy(value, &i, sizeof i);
    }
    const bool written = HashTableWrite(table, dir.file("table").c_str()) != FALSE;
    HashTableFree(table);
    return written;
  }

  static std::string Ask(const TemporaryDirectory& dir, const Strings& strings) {
    HashTable* read = HashTableRead(dir.file("table").c_str(), nullptr, nullptr, nullptr, FALSE);
    if (read == nullptr) return "refused";
    size_t right = 0;
    for (UInt i = 0; i < strings.size(); i++) {
      const UByte* value = HashTableFind(read, Bytes(strings[i]), Length(strings[i]), FALSE, nullptr, nullptr);
      right += value != nullptr && std::memcmp(value, &i, sizeof i) == 0 ? 1u : 0u;
    }
    const bool whole = right == strings.size() && HashTableSize(read) == strings.size();
    HashTableFree(read);
    return whole ? "whole" : "wrong";
  }
};

struct AttrDictWriter {
  static bool Write(const TemporaryDirectory& dir, const Strings& strings) {
    AttrDict* adict = AttrDictBuild(dir.path().c_str(), "strings", FALSE);
    if (adict == nullptr) return false;
    for (const std::string& s : strings) AttrDictAdd(adict, Bytes(s), static_cast<UByte>(s.size()));
    return AttrDictCommit(adict) != FALSE;
  }

  static std::string Ask(const TemporaryDirectory& dir, const Strings& strings) {
    AttrDict* opened = AttrDictOpen(dir.path().c_str(), "strings");
    if (opened == nullptr) return "refused";
    const bool sound = AttrDictCheck(opened, nullptr) != FALSE;
    size_t right = 0;
    for (Id i = 0; i < strings.size(); i++) {
      const UByte* bytes = nullptr;
      const UByte length = AttrDictGet(opened, i, &bytes);
      right += bytes != nullptr && std::string(reinterpret_cast<const char*>(bytes), length) == strings[i] ? 1u : 0u;
    }
    const UInt size = AttrDictSize(opened);
    AttrDictClose(opened);
    if (!sound) return "refused";
    if (size == 0) return "empty";
    return right == strings.size() && size == strings.size() ? "whole" : "wrong";
  }
};

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

// Large enough for many writes.
Strings Many(const std::string& prefix, UInt count) {
  Strings strings;
  for (UInt i = 0; i < count; i++) strings.push_back(prefix + std::to_string(i) + std::string(i % 7, '.'));
  return strings;
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

}  // namespace
