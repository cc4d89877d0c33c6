// Processes that read dictionaries while another one replaces them: two open the files, again and again, and hold all
// that they find against one generation; a third puts one generation in the place of the other.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "dict/attrdict.h"
#include "dict/hashdict.h"
#include "support/files.h"
#include "support/keys.h"
#include "support/limits.h"
#include "support/sanitizers.h"

namespace {

using support::Bytes;
using support::TemporaryDirectory;

constexpr UInt kGenerations = support::kSanitized ? 30 : 100;
constexpr int kReaders = 2;
constexpr Id kKeys = 3000;  // an image of several pages

// How a reader ends.
enum Ending { kSawTheLast = 0, kNotOpened = 3, kMixed = 4, kWentBack = 5, kChangedWhileOpen = 6 };

std::string KeyOf(Id i) { return "key " + std::to_string(i); }

// What differs from generation to generation: every value of the perfect-hash dictionary.
struct Words {
  static void Replace(const TemporaryDirectory& dir, UInt generation) {
    const auto key = [](void* keep, Id i, const UByte** bytes) -> UShort {
      auto& text = *static_cast<std::string*>(keep);
      text = KeyOf(i);
      *bytes = Bytes(text);
      return static_cast<UShort>(text.size());
    };
    static UInt value;
    value = generation;
    std::string keep;
    HashDict* built = HashDictBuild(
        kKeys, &keep, key, [](void*, Id) -> Id { return value; }, 16, 0, FALSE);
    const bool replaced = HashDictReplace(built, dir.path().c_str(), "words", nullptr, FALSE) != FALSE;
    HashDictFree(built);
    if (!replaced) _exit(1);
  }

  explicit Words(const TemporaryDirectory& dir) : hdict_(HashDictOpen(dir.path().c_str(), "words", nullptr)) {
    if (hdict_ == nullptr || !HashDictCheck(hdict_, nullptr)) _exit(kNotOpened);
  }
  ~Words() { HashDictClose(hdict_); }
  Words(const Words&) = delete;
  Words& operator=(const Words&) = delete;

  static constexpr bool whole = true;

  UInt Generation() const {
    const UInt first = ValueOf(0);
    for (Id i = 1; i < kKeys; i++) {
      if (ValueOf(i) != first) _exit(kMixed);
    }
    return first;
  }

 private:
  Id ValueOf(Id i) const {
    const std::string key = KeyOf(i);
    return HashDictFind(hdict_, Bytes(key), support::Length(key));
  }
  HashDict* hdict_;
};

// Every string of the attribute dictionary, and their number, so that no two generations have the same index.
struct Strings {
  static std::string StringOf(UInt generation, Id i) {
    return std::to_string(generation) + " of " + std::string(i % 11, '.');
  }
  static UInt CountOf(UInt generation) { return 500 + generation; }

  static void Replace(const TemporaryDirectory& dir, UInt generation) {
    AttrDict* adict = AttrDictBuild(dir.path().c_str(), "strings.new", FALSE);
    if (adict == nullptr) _exit(1);
    for (Id i = 0; i < CountOf(generation); i++) {
      const std::string string = StringOf(generation, i);
      AttrDictAdd(adict, Bytes(string), static_cast<UByte>(string.size()));
    }
    if (!AttrDictCommitAs(adict, dir.path().c_str(), "strings")) _exit(1);
  }

  explicit Strings(const TemporaryDirectory& dir) : adict_(AttrDictOpen(dir.path().c_str(), "strings")) {
    if (adict_ == nullptr) _exit(kNotOpened);
    whole = AttrDictCheck(adict_, nullptr) != FALSE;
  }
  ~Strings() { AttrDictClose(adict_); }
  Strings(const Strings&) = delete;
  Strings& operator=(const Strings&) = delete;

  bool whole = false;  // else it was opened between the renames of its two files

  UInt Generation() const {
    const UInt generation = AttrDictSize(adict_) - CountOf(0);
    for (Id i = 0; i < AttrDictSize(adict_); i++) {
      const UByte* bytes = nullptr;
      const UByte length = AttrDictGet(adict_, i, &bytes);
      if (bytes == nullptr || support::Text(bytes, length) != StringOf(generation, i)) _exit(kMixed);
    }
    return generation;
  }

 private:
  AttrDict* adict_;
};

// Reads until the last generation is there. Tells when it has seen its first.
template <typename Dictionary>
[[noreturn]] void ReadOn(const TemporaryDirectory& dir, int ready) {
  UInt last = 0;
  for (bool first = true; last < kGenerations - 1; first = false) {
    const Dictionary dictionary(dir);
    if (!dictionary.whole) continue;
    const UInt generation = dictionary.Generation();
    if (generation < last) _exit(kWentBack);
    last = generation;
    if (first && write(ready, "", 1) != 1) _exit(1);
    usleep(generation % 5 * 200);
    if (dictionary.Generation() != generation) _exit(kChangedWhileOpen);
  }
  _exit(kSawTheLast);
}

int StatusOf(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

template <typename Dictionary>
class ReplacedFile : public ::testing::Test {};

class DictionaryNames {
 public:
  template <typename Dictionary>
  static std::string GetName(int i) {
    return i == 0 ? "HashDictReplace" : "AttrDictCommitAs";
  }
};
using Dictionaries = ::testing::Types<Words, Strings>;
TYPED_TEST_SUITE(ReplacedFile, Dictionaries, DictionaryNames);

TYPED_TEST(ReplacedFile, IsOfOneGenerationToEveryReader) {
  const TemporaryDirectory dir;
  TypeParam::Replace(dir, 0);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  std::vector<pid_t> readers;
  for (int i = 0; i < kReaders; i++) {
    readers.push_back(fork());
    if (readers.back() == 0) ReadOn<TypeParam>(dir, ready[1]);
  }
  char byte;
  for (int i = 0; i < kReaders; i++) EXPECT_EQ(read(ready[0], &byte, 1), 1);
  const pid_t writer = fork();
  if (writer == 0) {
    for (UInt generation = 1; generation < kGenerations; generation++) TypeParam::Replace(dir, generation);
    _exit(0);
  }
  const int written = StatusOf(writer);
  EXPECT_EQ(written, 0);
  if (written != 0) {
    for (const pid_t reader : readers) kill(reader, SIGKILL);  // the last generation will not come
  }
  for (const pid_t reader : readers) EXPECT_EQ(StatusOf(reader), kSawTheLast);
  close(ready[0]);
  close(ready[1]);
}

// Where a writer works in place, a mapped file that becomes shorter under its reader ends it, once it looks behind the
// last page that there is.
TEST(ReplacedFileDeathTest, AFileMadeShorterInPlaceEndsItsReader) {
  const TemporaryDirectory dir;
  Words::Replace(dir, 7);
  const auto read_a_cut_file = [&dir] {
    support::Limit(RLIMIT_CORE, 0);
    const Words words(dir);
    if (words.Generation() != 7) _exit(1);
    if (truncate(dir.file("words.dic").c_str(), 4096) != 0) _exit(1);
    words.Generation();
    _exit(0);
  };
  if (support::kSanitized) {
    EXPECT_DEATH(read_a_cut_file(), "BUS");
  } else {
    EXPECT_EXIT(read_a_cut_file(), ::testing::KilledBySignal(SIGBUS), "");
  }
}

}  // namespace
