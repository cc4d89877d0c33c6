// What the writers of files force to stable storage, and that each failure of it is told.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "dict/attrdict.h"
#include "dict/hashdict.h"
#include "dict/hashtable.h"
#include "qxlib/misc.h"
#include "support/descriptors.h"
#include "support/files.h"
#include "support/system_calls.h"

namespace {

namespace calls = support::calls;
using Synced = std::vector<std::string>;

class Durability : public ::testing::Test {
 protected:
  Durability() { calls::Reset(); }
  ~Durability() override { calls::Reset(); }

  support::TemporaryDirectory dir_;
};

bool WriteTable(const support::TemporaryDirectory& dir) {
  HashTable* table = HashTableNew(5, nullptr, nullptr, nullptr, 4, 0, FALSE);
  const bool written = HashTableWrite(table, dir.file("table").c_str()) != FALSE;
  HashTableFree(table);
  return written;
}

bool ReplaceTable(const support::TemporaryDirectory& dir) {
  HashTable* table = HashTableNew(5, nullptr, nullptr, nullptr, 4, 0, FALSE);
  const bool written = HashTableReplace(table, dir.file("table").c_str()) != FALSE;
  HashTableFree(table);
  return written;
}

bool WriteAttributes(const support::TemporaryDirectory& dir) {
  AttrDict* adict = AttrDictBuild(dir.path().c_str(), "attributes", FALSE);
  AttrDictAdd(adict, nullptr, 0);
  return AttrDictCommit(adict) != FALSE;
}

bool WriteHashDict(const support::TemporaryDirectory& dir) {
  HashDict* hdict = HashDictBuild(
      1, nullptr,
      [](void*, Id, const UByte** bytes) -> UShort {
        static constexpr UByte kKey[] = {'k'};
        *bytes = kKey;
        return 1;
      },
      nullptr, 0, 0, FALSE);
  const bool written = HashDictWrite(hdict, dir.path().c_str(), "words", "dic", FALSE) != FALSE;
  HashDictFree(hdict);
  return written;
}

TEST_F(Durability, ATableIsSyncedAndItsName) {
  EXPECT_TRUE(WriteTable(dir_));
  EXPECT_EQ(calls::synced, (Synced{"file", "directory"}));
}

TEST_F(Durability, AReplacedTableIsSyncedBeforeItsNewName) {
  EXPECT_TRUE(ReplaceTable(dir_));
  EXPECT_EQ(calls::synced, (Synced{"file", "directory"}));
}

TEST_F(Durability, AReplacementWhoseNameCannotBeSyncedIsInPlace) {
  calls::fsync_error = EIO;
  calls::fsync_from = 1;
  EXPECT_FALSE(ReplaceTable(dir_));
  EXPECT_EQ(QXErrorText(), "error syncing directory of " + dir_.file("table"));
  EXPECT_EQ(QXErrorCode(), EIO);
  EXPECT_EQ(support::ReadFile(dir_.file("table")).size(), 100u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 1);
}

TEST_F(Durability, BothFilesOfAnAttributeDictionaryAreSyncedThenTheirNames) {
  EXPECT_TRUE(WriteAttributes(dir_));
  EXPECT_EQ(calls::synced, (Synced{"file", "file", "directory"}));
}

TEST_F(Durability, AHashDictIsSyncedAndItsName) {
  EXPECT_TRUE(WriteHashDict(dir_));
  EXPECT_EQ(calls::synced, (Synced{"file", "directory"}));
}

TEST_F(Durability, EverySyncThatFailsIsTold) {
  const struct {
    bool (*write)(const support::TemporaryDirectory&);
    int syncs;
  } writers[] = {{WriteTable, 2}, {ReplaceTable, 2}, {WriteAttributes, 3}, {WriteHashDict, 2}};
  for (const auto& [write, syncs] : writers) {
    for (int from = 0; from < syncs; from++) {
      const support::TemporaryDirectory dir;
      calls::Reset();
      calls::fsync_error = EIO;
      calls::fsync_from = from;
      const long before = support::OpenDescriptors();
      EXPECT_FALSE(write(dir));
      EXPECT_EQ(errno, EIO);
      EXPECT_EQ(support::OpenDescriptors(), before);
      EXPECT_EQ(calls::synced.size(), static_cast<size_t>(from) + 1);  // none is tried again
    }
  }
}

TEST_F(Durability, ADirectoryThatCannotBeSyncedIsNoFailure) {
  for (const int error : {EINVAL, EROFS}) {
    calls::Reset();
    calls::fsync_error = error;
    calls::fsync_from = 1;
    EXPECT_TRUE(WriteTable(dir_)) << error;
  }
  calls::Reset();
  calls::fsync_error = EINVAL;
  calls::fsync_from = 2;
  EXPECT_TRUE(WriteAttributes(dir_));
}

// One may write to a directory and not read it. All of the file system is then synced; what that says is of others too.
TEST_F(Durability, ADirectoryThatCannotBeOpenedIsSyncedWithItsFileSystem) {
  calls::no_directory = EACCES;
  calls::syncfs_error = EIO;
  EXPECT_TRUE(WriteTable(dir_));
  EXPECT_EQ(calls::synced, (Synced{"file", "file system"}));
  calls::synced.clear();
  EXPECT_TRUE(ReplaceTable(dir_));
  EXPECT_EQ(calls::synced, (Synced{"file", "file system"}));
  calls::synced.clear();
  EXPECT_TRUE(WriteHashDict(dir_));
  EXPECT_EQ(calls::synced, (Synced{"file", "file system"}));
  calls::synced.clear();
  EXPECT_TRUE(WriteAttributes(dir_));
  EXPECT_EQ(calls::synced, (Synced{"file", "file system", "file"}));
}

TEST_F(Durability, AnAttributeDictionaryWantsAName) {
  EXPECT_EQ(AttrDictBuild(dir_.path().c_str(), nullptr, FALSE), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(AttrDictOpen(dir_.path().c_str(), nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

}  // namespace
