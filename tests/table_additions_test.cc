// What has been added to both tables: room reserved at once, look-ups in bulk, figures, release, replacement of files.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "dict/hashdeltable.h"
#include "dict/hashtable.h"
#include "dict/replace_file.h"
#include "support/death.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/hashdeltable_model.h"
#include "support/hashtable_model.h"
#include "support/limits.h"
#include "support/messages.h"

using support::Bytes;
using support::HashDelTablePtr;
using support::HashTablePtr;
using support::Length;
using support::ReadFile;
using support::TemporaryDirectory;
using support::WriteFile;
namespace faults = support::faults;

namespace {

HashTablePtr New(UInt capacity, UInt val_len = 4, Boolean vm = FALSE) {
  return HashTablePtr(HashTableNew(capacity, nullptr, nullptr, nullptr, val_len, 0, vm));
}

TEST(HashTableReserve, GrowsToTheExactCapacity) {
  for (const Boolean vm : {FALSE, TRUE}) {
    const HashTablePtr table = New(5, 4, vm);
    for (const char* key : {"a", "b", "c", "d", "e"}) support::Insert(table.get(), key);
    EXPECT_TRUE(HashTableReserve(table.get(), 100, nullptr));
    EXPECT_EQ(HashTableCapacity(table.get()), 100u);
    EXPECT_EQ(table->t_entries_size, 151u);
    for (const char* key : {"a", "b", "c", "d", "e"}) EXPECT_NE(support::Find(table.get(), key), nullptr);
    for (int i = 0; i < 95; i++) ASSERT_NE(support::Insert(table.get(), std::to_string(i)), nullptr);
    EXPECT_TRUE(HashTableFull(table.get()));
  }
}

TEST(HashTableReserve, ChangesNothingWhereThereIsRoom) {
  const HashTablePtr table = New(10);
  const UInt* slots = table->t_entries;
  for (const UInt capacity : {0u, 5u, 10u}) EXPECT_TRUE(HashTableReserve(table.get(), capacity, nullptr));
  EXPECT_EQ(HashTableCapacity(table.get()), 10u);
  EXPECT_EQ(table->t_entries, slots);
}

TEST(HashTableReserve, ReportsWhatCannotBeAndLeavesTheTable) {
  const HashTablePtr table = New(5, 4, TRUE);
  support::Insert(table.get(), "a");
  {
    const support::Messages messages;
    EXPECT_FALSE(HashTableReserve(table.get(), 1431655766, nullptr));
    ASSERT_EQ(messages.all().size(), 1u);
    EXPECT_EQ(messages.all()[0].text, ":hashtable: capacity too large: capacity=1431655766");
    EXPECT_EQ(messages.all()[0].function, "HashTableReserve");
  }
  {
    const support::Messages messages;
    faults::FailRemap(0);
    EXPECT_FALSE(HashTableReserve(table.get(), 100, nullptr));
    faults::Clear();
    ASSERT_EQ(messages.all().size(), 1u);
    EXPECT_EQ(messages.all()[0].text, ":hashtable: memory reallocation failed: size=604: Cannot allocate memory");
  }
  EXPECT_EQ(HashTableCapacity(table.get()), 5u);
  EXPECT_NE(support::Find(table.get(), "a"), nullptr);
}

TEST(HashTableReserveDeathTest, AssertsTheHashedState) {
  const HashTablePtr table = New(5);
  HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr);
  EXPECT_ASSERTION(HashTableReserve(table.get(), 10, nullptr), "dict/hashtable", "HashTableReserve",
                   "!table->t_selected");
}

TEST(HashDelTableReserve, CleansUpAndGrowsToTheExactCapacity) {
  const HashDelTablePtr table(HashDelTableNew(5, nullptr, nullptr, nullptr, 4, 0));
  for (const char* key : {"a", "b", "c", "d", "e"}) support::Insert(table.get(), key);
  support::Remove(table.get(), "b");
  EXPECT_TRUE(HashDelTableReserve(table.get(), 5, nullptr));
  EXPECT_EQ(table->t_deleted, 1u);
  EXPECT_TRUE(HashDelTableReserve(table.get(), 6, nullptr));
  EXPECT_EQ(HashDelTableCapacity(table.get()), 6u);
  EXPECT_EQ(table->t_nentries, 11u);
  EXPECT_EQ(table->t_deleted, 0u);
  EXPECT_EQ(support::Find(table.get(), "b"), nullptr);
  for (const char* key : {"a", "c", "d", "e"}) EXPECT_NE(support::Find(table.get(), key), nullptr);
}

TEST(HashDelTableReserve, ReportsACapacityWithoutASlotCount) {
  const HashDelTablePtr table(HashDelTableNew(5, nullptr, nullptr, nullptr, 4, 0));
  const support::Messages messages;
  EXPECT_FALSE(HashDelTableReserve(table.get(), 1431655766, nullptr));
  ASSERT_EQ(messages.all().size(), 1u);
  EXPECT_EQ(messages.all()[0].text, ":hashdeltable: capacity too large: capacity=1431655766");
  EXPECT_EQ(HashDelTableCapacity(table.get()), 5u);
}

TEST(HashDelTableReserveDeathTest, AssertsTheHashedState) {
  const HashDelTablePtr table(HashDelTableNew(5, nullptr, nullptr, nullptr, 4, 0));
  HashDelTableSelect(table.get(), 0, nullptr, nullptr);
  EXPECT_ASSERTION(HashDelTableReserve(table.get(), 10, nullptr), "dict/hashdeltable", "HashDelTableReserve",
                   "!table->t_selected");
}

TEST(HashDelTableFinalize, ReleasesWhatInitTookAndLeavesZeros) {
  HashDelTable table;
  HashDelTableInit(&table, 200, nullptr, nullptr, nullptr, 4, 0);
  support::Insert(&table, "key");
  HashDelTableFinalize(&table);  // what it forgets the leak checker finds
  const HashDelTable zeros = {};
  EXPECT_EQ(std::memcmp(&table, &zeros, sizeof table), 0);
  HashDelTableFinalize(&table);
  HashDelTableInit(&table, 5, nullptr, nullptr, nullptr, 4, 0);
  EXPECT_NE(support::Insert(&table, "key"), nullptr);
  HashDelTableFinalize(&table);
}

struct Bulk {
  explicit Bulk(const std::vector<std::string>& texts) : entries(texts.size()), offsets(texts.size(), 77) {
    for (const std::string& text : texts) {
      keys.push_back(Bytes(text));
      lens.push_back(Length(text));
    }
  }
  void Find(const HashTable* table, void* ptr = nullptr) {
    HashTableFindMany(table, static_cast<UInt>(keys.size()), keys.data(), lens.data(), entries.data(), offsets.data(),
                      ptr);
  }
  std::vector<const UByte*> keys;
  std::vector<UInt> lens;
  std::vector<UByte*> entries;
  std::vector<UInt> offsets;
};

TEST(HashTableFindMany, GivesWhatSingleLookUpsGive) {
  std::vector<std::string> texts;
  for (int i = 0; i < 3001; i++) texts.push_back((i % 3 != 0 ? "key " : "other ") + std::to_string(i * 37 % 2000));
  texts.push_back("");
  for (const UInt capacity : {5u, 30u, 3000u}) {
    for (const HashKeyFunction hash : {HashKeyFunction{nullptr}, HashKeyFunction{HashBytesKeyed}}) {
      const HashTablePtr table(HashTableNew(capacity, hash, nullptr, nullptr, 4, 0, FALSE));
      for (int i = 0; i < 2000; i++) support::Insert(table.get(), "key " + std::to_string(i));
      ASSERT_EQ(HashTableSize(table.get()), std::min(capacity, 2000u));
      Bulk bulk(texts);
      bulk.Find(table.get());
      size_t found = 0;
      for (size_t i = 0; i < texts.size(); i++) {
        UInt offset = 77;
        UByte* entry = HashTableFind(table.get(), bulk.keys[i], bulk.lens[i], FALSE, &offset, nullptr);
        ASSERT_EQ(bulk.entries[i], entry) << texts[i];
        ASSERT_EQ(bulk.offsets[i], offset) << texts[i];
        found += entry != nullptr;
      }
      EXPECT_GT(found, 0u);
      EXPECT_LT(found, texts.size());
    }
  }
}

TEST(HashTableFindMany, WorksWithoutOffsetsAndKeys) {
  const HashTablePtr table = New(5);
  HashTableFindMany(table.get(), 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  UByte* expected = support::Insert(table.get(), "k");
  const std::string text = "k";
  const UByte* key = Bytes(text);
  const UInt length = 1;
  UByte* entry = nullptr;
  HashTableFindMany(table.get(), 1, &key, &length, &entry, nullptr, nullptr);
  EXPECT_EQ(entry, expected);
}

TEST(HashTableFindMany, FindsNothingInATableWithoutSlots) {
  const TemporaryDirectory directory;
  WriteFile(directory.file("t"), std::string(37, '\0'));
  const HashTablePtr table(HashTableRead(directory.file("t").c_str(), nullptr, nullptr, nullptr, FALSE));
  ASSERT_NE(table, nullptr);
  const std::vector<std::string> texts = {"a", "b"};
  Bulk bulk(texts);
  bulk.Find(table.get());
  EXPECT_EQ(bulk.entries, (std::vector<UByte*>{nullptr, nullptr}));
}

TEST(HashTableFindMany, MakesCallbacksKeyByKey) {
  const auto hash = [](const UByte* bytes, UInt, void* ptr) -> UInt {
    *static_cast<std::string*>(ptr) += std::string("h") + static_cast<char>(*bytes);
    return 0;
  };
  const auto equal = [](const UByte* stored, UInt, const UByte* bytes, UInt, void* ptr) -> Boolean {
    *static_cast<std::string*>(ptr) += std::string("e") + static_cast<char>(*bytes);
    return *stored == *bytes;
  };
  const HashTablePtr table(HashTableNew(5, hash, nullptr, equal, 4, 0, FALSE));
  std::string calls;
  support::Insert(table.get(), "a", &calls);
  calls.clear();
  const std::vector<std::string> texts = {"a", "b", "a"};
  Bulk bulk(texts);
  bulk.Find(table.get(), &calls);
  EXPECT_EQ(calls, "haeahbebhaea");
}

TEST(HashTableFindManyDeathTest, AssertsAsSingleLookUpsDo) {
  const HashTablePtr table(HashTableNew(5, nullptr, nullptr, nullptr, 4, 1, FALSE));
  const std::string text(256, 'k');
  const std::vector<std::string> texts = {"a", text};
  Bulk bulk(texts);
  EXPECT_ASSERTION(bulk.Find(table.get()), "dict/hashtable", "HashTableFindMany", "l < (b << (8 * k))");
  HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr);
  EXPECT_ASSERTION(bulk.Find(table.get()), "dict/hashtable", "HashTableFindMany", "!table->t_selected");
}

// "a" lies in slot 6 of 7 (97 = 13 * 7 + 6), "h" (104) too and goes on to slot 0, "b" (98) to slot 1.
TEST(HashTableStats, TellsProbesAndBytes) {
  const HashTablePtr table = New(5, 4);
  for (const char* key : {"a", "h", "b"}) support::Insert(table.get(), key);
  HashTableStatistics stats;
  HashTableStats(table.get(), &stats, nullptr);
  EXPECT_EQ(stats.s_keys, 3u);
  EXPECT_EQ(stats.s_capacity, 5u);
  EXPECT_EQ(stats.s_slots, 7u);
  EXPECT_EQ(stats.s_tombstones, 0u);
  EXPECT_EQ(stats.s_longest_probe, 2u);
  EXPECT_DOUBLE_EQ(stats.s_mean_probe, 5.0 / 3);
  EXPECT_DOUBLE_EQ(stats.s_load, 3.0 / 7);
  EXPECT_EQ(stats.s_heap_used, 22u);
  EXPECT_EQ(stats.s_heap_size, 35u);
  EXPECT_EQ(stats.s_padding, 4u);
  EXPECT_EQ(stats.s_dead, 0u);

  HashTableSelect(table.get(), 1, nullptr, nullptr, nullptr);
  HashTableStats(table.get(), &stats, nullptr);
  EXPECT_EQ(stats.s_keys, 1u);
  EXPECT_EQ(stats.s_longest_probe, 0u);
  EXPECT_EQ(stats.s_mean_probe, 0.0);
  EXPECT_EQ(stats.s_dead, 12u);

  HashTableClear(table.get());
  HashTableStats(table.get(), &stats, nullptr);
  EXPECT_EQ(stats.s_load, 0.0);
  EXPECT_EQ(stats.s_mean_probe, 0.0);
  EXPECT_EQ(stats.s_heap_used, 0u);
}

// 11 slots; the way of a key goes from s0 by 9 - (s0 mod 9). "b" (98 mod 11 = 10, step 8) lies in slot 10; "m" (109, so
// 10 too) goes on to slot 7.
TEST(HashDelTableStats, TellsProbesTombstonesAndDeadBytes) {
  const HashDelTablePtr table(HashDelTableNew(6, nullptr, nullptr, nullptr, 4, 0));
  for (const char* key : {"b", "m", "c"}) support::Insert(table.get(), key);
  ASSERT_EQ(table->t_entries[7], 8u);
  support::Remove(table.get(), "b");
  HashTableStatistics stats;
  HashDelTableStats(table.get(), &stats, nullptr);
  EXPECT_EQ(stats.s_keys, 2u);
  EXPECT_EQ(stats.s_capacity, 6u);
  EXPECT_EQ(stats.s_slots, 11u);
  EXPECT_EQ(stats.s_tombstones, 1u);
  EXPECT_EQ(stats.s_longest_probe, 2u);
  EXPECT_DOUBLE_EQ(stats.s_mean_probe, 1.5);
  EXPECT_DOUBLE_EQ(stats.s_load, 3.0 / 11);
  EXPECT_EQ(stats.s_heap_used, 22u);
  EXPECT_EQ(stats.s_heap_size, 55u);
  EXPECT_EQ(stats.s_padding, 4u);
  EXPECT_EQ(stats.s_dead, 6u);
}

size_t FilesIn(const std::string& directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

TEST(HashTableReplace, PutsTheWholeNewFileInPlaceOfTheOld) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("t");
  const HashTablePtr table = New(5);
  support::Insert(table.get(), "key");
  ASSERT_TRUE(HashTableWrite(table.get(), directory.file("expected").c_str()));
  ASSERT_TRUE(HashTableReplace(table.get(), file.c_str()));
  EXPECT_EQ(ReadFile(file), ReadFile(directory.file("expected")));

  WriteFile(file, std::string(10000, 'o'));
  ASSERT_EQ(chmod(file.c_str(), 0640), 0);
  const int old = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_TRUE(HashTableReplace(table.get(), file.c_str()));
  EXPECT_EQ(ReadFile(file), ReadFile(directory.file("expected")));
  char byte = 0;
  EXPECT_EQ(pread(old, &byte, 1, 9999), 1);  // who has the old file open keeps it
  EXPECT_EQ(byte, 'o');
  close(old);
  struct stat status;
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(FilesIn(directory.path()), 2u);
}

TEST(HashTableReplace, TakesANameWithoutADirectory) {
  const TemporaryDirectory directory;
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory.path());
  EXPECT_TRUE(HashTableReplace(New(5).get(), "t"));
  std::filesystem::current_path(before);
  EXPECT_EQ(ReadFile(directory.file("t")).size(), 100u);
}

TEST(HashTableReplace, LeavesTheOldFileWhateverFails) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("t");
  const HashTablePtr table = New(5);
  WriteFile(file, "old");

  // Nowhere to write.
  QXErrorClear();
  const std::string missing = directory.file("none/t");
  EXPECT_FALSE(HashTableReplace(table.get(), missing.c_str()));
  EXPECT_EQ(QXErrorText(), "error opening " + missing);
  EXPECT_EQ(QXErrorCode(), ENOENT);

  // A name that a directory has.
  std::filesystem::create_directory(directory.file("d"));
  QXErrorClear();
  EXPECT_FALSE(HashTableReplace(table.get(), directory.file("d").c_str()));
  EXPECT_EQ(QXErrorText(), "error renaming " + directory.file("d"));
  EXPECT_EQ(QXErrorCode(), EISDIR);

  // A file that may not grow so long: nothing of it fits, a part of the header, of the slots, of the heap.
  for (const rlim_t most : {0ul, 20ul, 40ul, 70ul, 99ul}) {
    EXPECT_EXIT(
        {
          int wrong = 0;
          support::LimitFileSize(most);
          QXErrorClear();
          if (HashTableReplace(table.get(), file.c_str())) wrong |= 1;
          if (std::string(QXErrorText()) != "error writing " + file || QXErrorCode() != EFBIG) wrong |= 2;
          _exit(wrong);
        },
        ::testing::ExitedWithCode(0), "");
  }
  EXPECT_EQ(ReadFile(file), "old");
  EXPECT_EQ(FilesIn(directory.path()), 2u);
}

// A process that writes one of two tables over and over until it is killed.
template <typename Write>
void KillAWriter(const std::string& file, const HashTable* first, const HashTable* second, int milliseconds,
                 Write write) {
  const pid_t child = fork();
  if (child == 0) {
    for (;;) {
      write(first, file.c_str());
      write(second, file.c_str());
    }
  }
  usleep(static_cast<useconds_t>(milliseconds) * 1000);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST(HashTableFile, KilledWriterLeavesAWholeTableOrARefusedOne) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("t");
  const HashTablePtr small = New(5), large = New(100000);
  support::Insert(small.get(), "small");
  support::Insert(large.get(), "large");
  for (int i = 0; i < 12; i++) {
    KillAWriter(file, small.get(), large.get(), 1 + 3 * i, HashTableWrite);
    const HashTablePtr read(HashTableRead(file.c_str(), nullptr, nullptr, nullptr, FALSE));
    if (read == nullptr) continue;
    EXPECT_TRUE(HashTableCheck(read.get(), nullptr));
    EXPECT_NE(support::Find(read.get(), HashTableCapacity(read.get()) == 5 ? "small" : "large"), nullptr);
  }
}

TEST(HashTableReplace, KilledWriterLeavesTheOldTableOrTheNewOne) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("t");
  const HashTablePtr small = New(5), large = New(100000);
  support::Insert(small.get(), "small");
  support::Insert(large.get(), "large");
  ASSERT_TRUE(HashTableReplace(small.get(), file.c_str()));
  for (int i = 0; i < 12; i++) {
    KillAWriter(file, small.get(), large.get(), 1 + 3 * i, HashTableReplace);
    const HashTablePtr read(HashTableRead(file.c_str(), nullptr, nullptr, nullptr, FALSE));
    ASSERT_NE(read, nullptr);
    EXPECT_TRUE(HashTableCheck(read.get(), nullptr));
    EXPECT_NE(support::Find(read.get(), HashTableCapacity(read.get()) == 5 ? "small" : "large"), nullptr);
  }
}

TEST(Replacement, PassesOverWhatAnotherProcessLeftBehind) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("t");
  const auto name = [&](unsigned number) {
    return file + ".new-" + std::to_string(getpid()) + "-" + std::to_string(number);
  };
  // Whatever number comes next is taken, and so are the two behind it.
  unsigned next;
  {
    const qx::Replacement first(file.c_str());
    ASSERT_TRUE(first);
    const std::string beside = first.beside();
    next = static_cast<unsigned>(std::stoul(beside.substr(beside.rfind('-') + 1))) + 1;
  }
  EXPECT_EQ(FilesIn(directory.path()), 0u);
  for (unsigned i = 0; i < 3; i++) WriteFile(name(next + i), "left behind");
  qx::Replacement replacement(file.c_str());
  ASSERT_TRUE(replacement);
  EXPECT_EQ(replacement.beside(), name(next + 3));
  WriteFile(replacement.beside(), "new");
  EXPECT_TRUE(replacement.TakePlace());
  EXPECT_TRUE(replacement.renamed());
  EXPECT_EQ(ReadFile(file), "new");
  EXPECT_EQ(ReadFile(name(next)), "left behind");
}

}  // namespace
