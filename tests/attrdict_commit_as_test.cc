// Putting a dictionary in the place of another: the new pair whole, or the old one as it was.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "dict/attrdict.h"
#include "support/attr_pairs.h"
#include "support/death.h"
#include "support/files.h"
#include "support/limits.h"
#include "support/system_calls.h"

namespace {

namespace calls = support::calls;
using support::OpenAttrDict;
using Strings = std::vector<std::string>;

constexpr const char* kModule = "dict/attrdict";

// What becomes of the renames: each is counted, from 1, and can fail; before it, a test may look around.
struct Renames {
  int made = 0;
  int failing = 0;       // the one that fails with EIO
  bool all = false;      // those after it, too, with ENOSPC
  bool exchange = true;  // whether the file system can
  std::function<void(int)> before;
};
Renames renames;

int Rename(const char* from, const char* to, unsigned flags) {
  renames.made++;
  if (renames.before) renames.before(renames.made);
  if (renames.made == renames.failing) {
    errno = EIO;
    return -1;
  }
  if (renames.all && renames.made > renames.failing) {
    errno = ENOSPC;
    return -1;
  }
  return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, reinterpret_cast<uintptr_t>(from), AT_FDCWD,
                                  reinterpret_cast<uintptr_t>(to), flags));
}

}  // namespace

// These stand before the C library's, for the library under test too.
extern "C" {

int rename(const char* from, const char* to) noexcept { return Rename(from, to, 0); }

int renameat2(int, const char* from, int, const char* to, unsigned flags) noexcept {
  if (renames.exchange) return Rename(from, to, flags);
  errno = EINVAL;
  return -1;
}
}

namespace {

class AttrDictCommitAsTest : public ::testing::Test {
 protected:
  AttrDictCommitAsTest() {
    calls::Reset();
    renames = {};
  }
  ~AttrDictCommitAsTest() override {
    calls::Reset();
    renames = {};
  }

  const char* dir() const { return dir_.path().c_str(); }

  AttrDict* Start(const Strings& strings, const char* name) const {
    AttrDict* adict = AttrDictBuild(dir(), name, FALSE);
    if (adict != nullptr) support::AddAll(adict, strings);
    return adict;
  }

  void BuildOld() const { ASSERT_EQ(AttrDictCommit(Start({"old", "pair"}, "words")), TRUE); }

  // The new pair, started under a name of its own.
  AttrDict* StartNew() const { return Start({"a", "new", "", "pair", "of five"}, "words.new"); }

  OpenAttrDict Open(const char* name = "words") const { return OpenAttrDict(AttrDictOpen(dir(), name)); }

  Strings Read() const {
    const OpenAttrDict adict = Open();
    return adict ? support::GetAll(adict.get()) : Strings{"(does not open)"};
  }

  std::set<std::string> Files() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) names.insert(entry.path().filename());
    return names;
  }

  void ExpectOld() const {
    EXPECT_EQ(Read(), (Strings{"old", "pair"}));
    EXPECT_EQ(Files(), (std::set<std::string>{"words.idx", "words.dat"}));
  }

  void ExpectNew() const {
    EXPECT_EQ(Read(), (Strings{"a", "new", "", "pair", "of five"}));
    EXPECT_EQ(Files(), (std::set<std::string>{"words.idx", "words.dat"}));
  }

  support::TemporaryDirectory dir_;
};

TEST_F(AttrDictCommitAsTest, TakesThePlaceOfAPairAndLeavesNothingElse) {
  BuildOld();
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), TRUE);
  ExpectNew();
}

TEST_F(AttrDictCommitAsTest, NeedsNoPairToTakeThePlaceOf) {
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), TRUE);
  ExpectNew();
}

TEST_F(AttrDictCommitAsTest, TakesAPathWithoutADirectory) {
  BuildOld();
  EXPECT_EQ(AttrDictCommitAs(StartNew(), nullptr, dir_.file("words").c_str()), TRUE);
  ExpectNew();
}

TEST_F(AttrDictCommitAsTest, UnderItsOwnNameCompletes) {
  EXPECT_EQ(AttrDictCommitAs(Start({"a", "new", "", "pair", "of five"}, "words"), dir(), "./words"), TRUE);
  ExpectNew();
  EXPECT_EQ(renames.made, 0);
}

TEST_F(AttrDictCommitAsTest, WhoHasThePairOpenGoesOnReadingIt) {
  BuildOld();
  const OpenAttrDict old = Open();
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), TRUE);
  EXPECT_EQ(support::GetAll(old.get()), (Strings{"old", "pair"}));
  EXPECT_EQ(AttrDictCheck(old.get(), nullptr), TRUE);
}

TEST_F(AttrDictCommitAsTest, TheCheckRefusesWhatStandsBetweenTheRenames) {
  BuildOld();
  const char* reason = nullptr;
  renames.before = [&](int rename) {
    const OpenAttrDict adict = Open();
    ASSERT_NE(adict, nullptr);
    EXPECT_EQ(AttrDictCheck(adict.get(), &reason), rename == 1 ? TRUE : FALSE);
  };
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), TRUE);
  EXPECT_EQ(renames.made, 2);
  EXPECT_STREQ(reason, "data go on behind the last record");
}

TEST_F(AttrDictCommitAsTest, KeepsThePermissionsOfEachFile) {
  BuildOld();
  ASSERT_EQ(chmod(dir_.file("words.idx").c_str(), 0640), 0);
  ASSERT_EQ(chmod(dir_.file("words.dat").c_str(), 0604), 0);
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), TRUE);
  struct stat status = {};
  ASSERT_EQ(stat(dir_.file("words.idx").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0640u);
  ASSERT_EQ(stat(dir_.file("words.dat").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0604u);
}

TEST_F(AttrDictCommitAsTest, SyncsBothFilesBeforeTheyAreRenamedAndTheDirectoryAfter) {
  BuildOld();
  calls::Reset();
  std::vector<size_t> synced_before;
  renames.before = [&](int) { synced_before.push_back(calls::synced.size()); };
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), TRUE);
  EXPECT_EQ(synced_before, (std::vector<size_t>{3, 3}));
  EXPECT_EQ(calls::synced, (std::vector<std::string>{"file", "file", "directory", "directory"}));
}

TEST_F(AttrDictCommitAsTest, ADirectoryThatCannotBeSyncedIsToldWithThePairInPlaceAndTheOldDataBeside) {
  BuildOld();
  const std::string old_data = support::ReadFile(dir_.file("words.dat"));
  AttrDict* adict = StartNew();
  calls::Reset();
  calls::fsync_error = EIO;
  calls::fsync_from = 3;
  EXPECT_EQ(AttrDictCommitAs(adict, dir(), "words"), FALSE);
  EXPECT_EQ(errno, EIO);
  calls::Reset();
  EXPECT_EQ(support::ReadFile(dir_.file("words.new.dat")), old_data);
  std::filesystem::remove(dir_.file("words.new.dat"));
  ExpectNew();
}

TEST_F(AttrDictCommitAsTest, ASyncThatFailsLeavesTheOldPair) {
  BuildOld();
  for (const int first : {0, 1, 2}) {
    AttrDict* adict = StartNew();
    calls::Reset();
    calls::fsync_error = EIO;
    calls::fsync_from = first;
    EXPECT_EQ(AttrDictCommitAs(adict, dir(), "words"), FALSE) << first;
    EXPECT_EQ(errno, EIO) << first;
    calls::Reset();
    ExpectOld();
  }
}

TEST_F(AttrDictCommitAsTest, AByteThatCannotBeWrittenLeavesTheOldPair) {
  BuildOld();
  constexpr rlim_t kDataBytes = 20;  // 15 in five records; the index has 12
  for (rlim_t limit = 0; limit < kDataBytes; limit++) {
    AttrDict* adict = StartNew();
    {
      const support::SoftLimit file_size(RLIMIT_FSIZE, limit);
      EXPECT_EQ(AttrDictCommitAs(adict, dir(), "words"), FALSE) << limit;
      EXPECT_EQ(errno, EFBIG) << limit;
    }
    ExpectOld();
  }
  const support::SoftLimit file_size(RLIMIT_FSIZE, kDataBytes);
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), TRUE);
  ExpectNew();
}

TEST_F(AttrDictCommitAsTest, AnIndexThatCannotFollowPutsTheOldDataBack) {
  BuildOld();
  renames.failing = 2;
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), FALSE);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(renames.made, 3);
  ExpectOld();
}

TEST_F(AttrDictCommitAsTest, OldDataThatCannotBePutBackAreKeptBeside) {
  BuildOld();
  const std::string old = support::ReadFile(dir_.file("words.dat"));
  renames.failing = 2;
  renames.all = true;
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), FALSE);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(renames.made, 3);
  EXPECT_EQ(support::ReadFile(dir_.file("words.new.dat")), old);
  EXPECT_EQ(Files(), (std::set<std::string>{"words.idx", "words.dat", "words.new.dat"}));
  EXPECT_EQ(AttrDictCheck(Open().get(), nullptr), FALSE);
}

TEST_F(AttrDictCommitAsTest, AnIndexThatCannotFollowLeavesNothingWhereNothingWas) {
  renames.failing = 3;  // an exchange with nothing, the data, the index
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), FALSE);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(Files(), std::set<std::string>{});
}

TEST_F(AttrDictCommitAsTest, DataThatCannotBeRenamedLeaveTheOldPair) {
  BuildOld();
  renames.exchange = false;
  renames.failing = 1;
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), FALSE);
  EXPECT_EQ(errno, EIO);
  ExpectOld();
}

TEST_F(AttrDictCommitAsTest, NeedsNoFileSystemThatExchangesNames) {
  BuildOld();
  renames.exchange = false;
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), TRUE);
  EXPECT_EQ(renames.made, 2);
  ExpectNew();
}

TEST_F(AttrDictCommitAsTest, ADirectoryInTheWayIsSeenBeforeAnythingIsRenamed) {
  for (const char* file : {"words.idx", "words.dat"}) {
    std::filesystem::remove_all(dir_.file("words.idx"));
    std::filesystem::remove_all(dir_.file("words.dat"));
    BuildOld();
    std::filesystem::remove(dir_.file(file));
    std::filesystem::create_directory(dir_.file(file));
    EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), "words"), FALSE) << file;
    EXPECT_EQ(errno, EISDIR) << file;
    EXPECT_EQ(renames.made, 0) << file;
    EXPECT_TRUE(std::filesystem::is_directory(dir_.file(file)));
    EXPECT_EQ(Files(), (std::set<std::string>{"words.idx", "words.dat"}));
  }
}

TEST_F(AttrDictCommitAsTest, ADirectoryThatIsNotThereLeavesNothingNew) {
  BuildOld();
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir_.file("none").c_str(), "words"), FALSE);
  EXPECT_EQ(errno, ENOENT);
  ExpectOld();
}

TEST_F(AttrDictCommitAsTest, ANameThatMakesNoPathLeavesNothingNew) {
  BuildOld();
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), nullptr), FALSE);
  EXPECT_EQ(errno, EINVAL);
  ExpectOld();
  EXPECT_EQ(AttrDictCommitAs(StartNew(), dir(), std::string(4096, 'n').c_str()), FALSE);
  EXPECT_EQ(errno, ENAMETOOLONG);
  ExpectOld();
}

using AttrDictCommitAsDeathTest = AttrDictCommitAsTest;

TEST_F(AttrDictCommitAsDeathTest, OfNothing) {
  EXPECT_ASSERTION(AttrDictCommitAs(nullptr, nullptr, "words"), kModule, "AttrDictCommitAs", "adict != ((void *)0)");
}

TEST_F(AttrDictCommitAsDeathTest, OfADictionaryOpenForReading) {
  BuildOld();
  const OpenAttrDict adict = Open();
  EXPECT_ASSERTION(AttrDictCommitAs(adict.get(), dir(), "other"), kModule, "AttrDictCommitAs",
                   "adict->a_idx_file != ((void *)0)");
}

TEST_F(AttrDictCommitAsDeathTest, WithoutADataFile) {
  AttrDict* adict = StartNew();
  FILE* file = adict->a_dat_file;
  adict->a_dat_file = nullptr;
  EXPECT_ASSERTION(AttrDictCommitAs(adict, dir(), "words"), kModule, "AttrDictCommitAs",
                   "adict->a_dat_file != ((void *)0)");
  adict->a_dat_file = file;
  EXPECT_EQ(AttrDictCommitAs(adict, dir(), "words"), TRUE);
}

}  // namespace
