// Every family on a machine that fails: each mapping, thread and block that the base library is asked for fails in its
// turn, alone and with all that follow it. Every operation then either has its result or gives its failure value and
// leaves what it worked on as it was, nothing stays behind, and where there is no value to give the process ends with a
// message that says why.
//
// A script uses one family and checks what it gets against what it put in. It runs in a process of its own, once for
// each call that can fail.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "dict/attrdict.h"
#include "dict/avldict.h"
#include "dict/avlldict.h"
#include "dict/hashdeltable.h"
#include "dict/hashdict.h"
#include "dict/hashtable.h"
#include "dict/idmap.h"
#include "dict/qxcache.h"
#include "dict/rbdict.h"
#include "qxlib/misc.h"
#include "support/death.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/ledger.h"
#include "support/sanitizers.h"

QX_ALLOCATIONS_MAY_FAIL;

namespace {

namespace faults = support::faults;

// A check inside a script. The process that fails one ends at once, and says where.
constexpr int kCheckFailed = 9;
#define MUST(condition)                                                  \
  do {                                                                   \
    if (!(condition)) {                                                  \
      std::fprintf(stderr, "line %d: MUST(%s)\n", __LINE__, #condition); \
      _exit(kCheckFailed);                                               \
    }                                                                    \
  } while (false)

const support::TemporaryDirectory* directory;

std::string KeyOf(UInt i) { return "key" + std::to_string(i) + std::string(i % 5, '.'); }
const UByte* Bytes(const std::string& text) { return reinterpret_cast<const UByte*>(text.data()); }

using Contents = std::map<std::string, UInt>;

int CompareEntries(const UByte* a, const UByte* b, void*) { return std::memcmp(a, b, sizeof(UInt)); }

// What the scripts call of either table.
template <typename Table>
struct Calls;
template <>
struct Calls<HashTable> {
  static constexpr auto find = HashTableFind;
  static constexpr auto full = HashTableFull;
  static constexpr auto grow = HashTableGrow;
  static constexpr auto size = HashTableSize;
};
template <>
struct Calls<HashDelTable> {
  static constexpr auto find = HashDelTableFind;
  static constexpr auto full = HashDelTableFull;
  static constexpr auto grow = HashDelTableGrow;
  static constexpr auto size = HashDelTableSize;
};

// Inserts keys first to last - 1 into a table that grows where it is full. One that cannot be inserted is not there.
template <typename Table>
void Fill(Table* table, UInt first, UInt last, Contents* contents) {
  constexpr auto find = Calls<Table>::find;
  for (UInt i = first; i < last; i++) {
    if (Calls<Table>::full(table)) Calls<Table>::grow(table, 1.5F, nullptr);
    const std::string key = KeyOf(i);
    const auto length = static_cast<UInt>(key.size());
    UByte* value = find(table, Bytes(key), length, TRUE, nullptr, nullptr);
    if (value == nullptr) {
      MUST(find(table, Bytes(key), length, FALSE, nullptr, nullptr) == nullptr);
      continue;
    }
    std::memcpy(value, &i, sizeof i);
    (*contents)[key] = i;
  }
}

template <typename Table>
void MustHold(Table* table, const Contents& contents) {
  constexpr auto find = Calls<Table>::find;
  MUST(Calls<Table>::size(table) == contents.size());
  for (const auto& [key, expected] : contents) {
    const UByte* value = find(table, Bytes(key), static_cast<UInt>(key.size()), FALSE, nullptr, nullptr);
    MUST(value != nullptr && std::memcmp(value, &expected, sizeof expected) == 0);
  }
}

void UseHashTable(Boolean vm) {
  HashTable* table = HashTableNew(5, nullptr, nullptr, nullptr, sizeof(UInt), 0, vm);
  if (table == nullptr) return;
  Contents contents;
  Fill(table, 0, 60, &contents);
  MustHold(table, contents);
  HashTableGrow(table, 3, nullptr);
  MustHold(table, contents);
  const UInt capacity = table->t_entries_capacity;
  const bool reserved = HashTableReserve(table, 500, nullptr) != FALSE;
  MUST(table->t_entries_capacity == (reserved ? 500 : capacity));
  MustHold(table, contents);

  if (HashTable* copy = HashTableCopy(table); copy != nullptr) {
    MustHold(copy, contents);
    UIntArray chosen;
    ArrayInit_(&chosen.a);
    MUST(HashTableSelect(copy, 3, nullptr, nullptr, &chosen) == chosen.t.length);
    HashTableSort(copy, CompareEntries, nullptr, &chosen);
    ArrayFree_(&chosen.a, "tests/failing_machine", __LINE__);
    HashTableFree(copy);
  }

  HashTableIterator* it = HashTableIteratorInit(table);
  size_t seen = 0;
  for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it)) seen++;
  HashTableIteratorFinalize(it);
  MUST(seen == contents.size());

  const std::string path = directory->file("table");
  if (HashTableWrite(table, path.c_str()) && HashTableReplace(table, path.c_str())) {
    if (HashTable* read = HashTableRead(path.c_str(), nullptr, nullptr, nullptr, vm); read != nullptr) {
      MustHold(read, contents);
      HashTableFree(read);
    }
  }
  HashTableClear(table);
  contents.clear();
  Fill(table, 100, 200, &contents);
  MustHold(table, contents);
  HashTableFree(table);
}

void UseMappedHashTable() { UseHashTable(TRUE); }
void UseAllocatedHashTable() { UseHashTable(FALSE); }

void UseHashDelTable() {
  HashDelTable* table = HashDelTableNew(5, nullptr, nullptr, nullptr, sizeof(UInt), 0);
  Contents contents;
  Fill(table, 0, 60, &contents);
  for (UInt i = 0; i < 60; i += 2) {
    const std::string key = KeyOf(i);
    MUST(HashDelTableRemove(table, Bytes(key), static_cast<UInt>(key.size()), nullptr));
    contents.erase(key);
  }
  Fill(table, 60, 100, &contents);
  MUST(HashDelTableReserve(table, 500, nullptr));
  MustHold(table, contents);

  HashDelTable* copy = HashDelTableCopy(table);
  MUST(HashDelTableSelect(copy, 3, nullptr, nullptr) == 3);
  HashDelTableSort(copy, CompareEntries, nullptr);
  HashDelTableClear(copy);
  HashDelTableFree(copy);

  UByteArray image;
  ArrayInit_(&image.a);
  HashDelTableMemWrite(table, &image);
  HashDelTable* read = HashDelTableNew(5, nullptr, nullptr, nullptr, sizeof(UInt), 0);
  UByte* from = image.t.elts;
  MUST(HashDelTableMemRead(read, &from, image.t.elts + image.t.length));
  MustHold(read, contents);
  HashDelTableFree(read);
  ArrayFree_(&image.a, "tests/failing_machine", __LINE__);
  HashDelTableFree(table);
}

UShort DictKey(void* keys, Id idx, const UByte** bytes) {
  const std::string& key = (*static_cast<std::vector<std::string>*>(keys))[idx];
  *bytes = Bytes(key);
  return static_cast<UShort>(key.size());
}

void MustFindAll(const HashDict* hdict, const std::vector<std::string>& keys) {
  for (Id i = 0; i < keys.size(); i++) {
    MUST(HashDictFind(hdict, Bytes(keys[i]), static_cast<UInt>(keys[i].size())) == i);
  }
}

void UseHashDict() {
  std::vector<std::string> keys;
  for (UInt i = 0; i < 50; i++) keys.push_back(KeyOf(i));
  MUST(HashDictKeysDistinct(50, &keys, DictKey, nullptr, nullptr));
  HashDict* built = HashDictBuild(50, &keys, DictKey, nullptr, 0, 1, FALSE);
  MustFindAll(built, keys);
  const char* dir = directory->path().c_str();
  MUST(HashDictWrite(built, dir, "keys", nullptr, FALSE));
  MUST(HashDictReplace(built, dir, "keys", nullptr, FALSE));
  Channel* f = ChannelNew(-1, -1);
  const std::string record = directory->file("record");
  MUST(ChannelOpenFile(f, record.c_str(), "w") && HashDictFileWrite(built, f, FALSE));
  MUST(ChannelClose(f));
  HashDictFree(built);

  HashDict* opened = HashDictOpen(dir, "keys", nullptr);
  MUST(opened != nullptr);
  MustFindAll(opened, keys);
  HashDictClose(opened);

  f = ChannelNew(-1, -1);
  HashDict* read = nullptr;
  MUST(ChannelOpenFile(f, record.c_str(), "r") && HashDictFileRead(&read, f));
  MUST(ChannelClose(f));
  MustFindAll(read, keys);
  HashDictMemClose(read);
}

void UseAttrDict() {
  const char* dir = directory->path().c_str();
  AttrDict* adict = AttrDictBuild(dir, "strings.new", FALSE);
  MUST(adict != nullptr);
  for (UInt i = 0; i < 10; i++) AttrDictAdd(adict, Bytes("abcdefghij"), static_cast<UByte>(i));
  MUST(AttrDictCommitAs(adict, dir, "strings"));
  AttrDict* opened = AttrDictOpen(dir, "strings");
  MUST(opened != nullptr && AttrDictSize(opened) == 10 && AttrDictCheck(opened, nullptr));
  const UByte* bytes = nullptr;
  MUST(AttrDictGet(opened, 7, &bytes) == 7 && std::memcmp(bytes, "abcdefg", 7) == 0);
  AttrDictClose(opened);
}

void UseMaps() {
  IdMap* ids = IdMapNew();
  RefMap* refs = RefMapNew();
  for (UInt i = 0; i < 60; i++) {
    Boolean added = FALSE;
    MUST(IdMapFind(ids, i * 7, i, IDMAP_NONE, &added) == i && added);
    MUST(RefMapFind(refs, i * 7, i, REFMAP_NONE, &added) == i && added);
  }
  IdMapGrow(ids, 500);
  RefMapGrow(refs, 500);
  MUST(IdMapSize(ids) == 60 && IdMapFind(ids, 42, IDMAP_NONE, IDMAP_NONE, nullptr) == 6);
  MUST(RefMapSize(refs) == 60 && RefMapFind(refs, 42, REFMAP_NONE, REFMAP_NONE, nullptr) == 6);
  IdMapClear(ids);
  RefMapClear(refs);
  IdMapDelete(ids);
  RefMapDelete(refs);
}

// A tree that has to grow three times.
template <typename Dict, typename Key, typename Value>
void UseTree(Dict* (*make)(UInt), Value (*insert)(Dict*, Key, Value, Value), Value (*find)(Dict*, Key, Value),
             Value (*remove)(Dict*, Key, Value), UInt (*size)(Dict*), void (*drop)(Dict*)) {
  Dict* tree = make(0);
  if (tree == nullptr) return;
  const auto keys = static_cast<Key>(7 * tree->d_capacity);
  for (Key key = 1; key <= keys; key++) insert(tree, key, static_cast<Value>(key), Value{0});
  for (Key key = 1; key <= keys; key += 2) MUST(remove(tree, key, Value{0}) == static_cast<Value>(key));
  MUST(size(tree) == keys / 2);
  for (Key key = 1; key <= keys; key++) MUST(find(tree, key, Value{0}) == (key % 2 != 0 ? Value{0} : Value{key}));
  drop(tree);
}

void UseRBDict() { UseTree(QXRBDictNew, QXRBDictInsert, QXRBDictFind, QXRBDictRemove, QXRBDictSize, QXRBDictDelete); }
void UseAVLDict() {
  UseTree(QXAVLDictNew, QXAVLDictInsert, QXAVLDictFind, QXAVLDictRemove, QXAVLDictSize, QXAVLDictDelete);
}
void UseAVLLDict() {
  UseTree(QXAVLLDictNew, QXAVLLDictInsert, QXAVLLDictFind, QXAVLLDictRemove, QXAVLLDictSize, QXAVLLDictDelete);
}

void UseCache() {
  Cache* cache = QXCacheNewWithParams(8, 4096, 1.0, 8.0, 16.0, 1000, 3 * 8 * 4096);
  if (cache == nullptr) return;
  UByteArray fetched;
  ArrayInit_(&fetched.a);
  for (UInt i = 0; i < 20; i++) {
    const std::string key = KeyOf(i);
    MUST(QXCacheStore(cache, Bytes(key), Bytes(key), static_cast<UInt>(key.size()), ~ULong{0}));
    fetched.t.length = 0;
    MUST(QXCacheGetDynamic(cache, Bytes(key), &fetched));
    MUST(std::string(reinterpret_cast<char*>(fetched.t.elts), fetched.t.length) == key);
  }
  ArrayFree_(&fetched.a, "tests/failing_machine", __LINE__);
  QXCacheDelete(cache);
}

// What can fail, and how it is made to: the n-th call alone, or with all after it where the seam has that.
using Fault = void (*)(long nth);
const std::map<std::string, Fault>& Faults() {
  static const std::map<std::string, Fault> kFaults = {
      {"mapping, once", [](long nth) { faults::FailMap(nth, 1); }},
      {"mapping, from then on", [](long nth) { faults::FailMap(nth, -1); }},
      {"enlarged mapping, once", [](long nth) { faults::FailRemap(nth, 1); }},
      {"enlarged mapping, from then on", [](long nth) { faults::FailRemap(nth, -1); }},
      {"released mapping, once", [](long nth) { faults::FailUnmap(nth, 1); }},
      {"released mapping, from then on", [](long nth) { faults::FailUnmap(nth, -1); }},
      {"thread, once", [](long nth) { faults::FailThreadCreate(nth, 1); }},
      {"block", [](long nth) { faults::FailAllocate(nth); }},
      {"packed array", [](long nth) { faults::FailAnonArray(static_cast<int>(nth)); }},
      {"released file", [](long nth) { faults::FailFileUnmap(ENOMEM, static_cast<int>(nth)); }},
  };
  return kFaults;
}

struct Result {
  bool struck;       // the planned call was made
  bool went_on;      // to the script's end, with all checks passed and nothing left behind
  bool ended;        // the process aborted
  std::string said;  // on standard error
};

constexpr int kNotStruck = 5;

[[noreturn]] void RunScript(void (*script)(), Fault fault, long nth) {
  const support::Ledger ledger;
  fault(nth);
  script();
  MUST(ledger.blocks() == 0);
  MUST(ledger.arrays() == 0);
  MUST(ledger.mappings() == 0);
  MUST(faults::LiveMaps() == 0);
  _exit(faults::Failures() != 0 ? 0 : kNotStruck);
}

Result RunInAProcess(void (*script)(), Fault fault, long nth) {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    RunScript(script, fault, nth);
  }
  close(ends[1]);
  Result result = {};
  std::array<char, 1024> buffer;
  for (ssize_t got; (got = read(ends[0], buffer.data(), buffer.size())) > 0;) {
    result.said.append(buffer.data(), static_cast<size_t>(got));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  result.went_on = WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kNotStruck);
  result.struck = !WIFEXITED(status) || WEXITSTATUS(status) != kNotStruck;
  result.ended = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
  return result;
}

// What a fault leads to: whether the process goes on or ends, and what it then says, "" being nothing and nullopt
// either; and how many calls of this kind the script makes at least.
enum class Course { kGoesOn, kEnds };
struct Expected {
  std::string fault;
  Course course;
  std::optional<std::string> said;
  long least_calls;
};

void ExpectCourse(void (*script)(), const Expected& expected) {
  const Fault fault = Faults().at(expected.fault);
  for (long nth = 0;; nth++) {
    const Result result = RunInAProcess(script, fault, nth);
    const std::string where = expected.fault + " " + std::to_string(nth) + ": " + result.said;
    if (!result.struck) {
      EXPECT_TRUE(result.went_on && result.said.empty()) << where;
      EXPECT_GE(nth, expected.least_calls) << expected.fault;
      return;
    }
    ASSERT_EQ(result.went_on, expected.course == Course::kGoesOn) << where;
    ASSERT_EQ(result.ended, expected.course == Course::kEnds) << where;
    if (!expected.said) continue;
    ASSERT_NE(result.said.find(*expected.said), std::string::npos) << where;
    ASSERT_EQ(result.said.empty(), expected.said->empty()) << where;
  }
}

class FailingMachine : public ::testing::Test {
 protected:
  FailingMachine() { directory = &directory_; }

  // The listed kinds take the listed course; a script meets no other kind.
  static void ExpectCourses(void (*script)(), const std::vector<Expected>& courses) {
    for (const auto& [name, fault] : Faults()) {
      const auto listed = [&kind = name](const Expected& e) { return e.fault == kind; };
      const auto expected = std::find_if(courses.begin(), courses.end(), listed);
      if (expected != courses.end()) {
        ExpectCourse(script, *expected);
      } else {
        EXPECT_FALSE(RunInAProcess(script, fault, 0).struck) << name;
      }
      if (HasFatalFailure()) return;
    }
  }

 private:
  support::TemporaryDirectory directory_;
};

const char kNoBlock[] = "memory allocation failed: size=9223372036854775807";

TEST_F(FailingMachine, HashTableInMappings) {
  const char kNoMap[] = "allocation failed: size=";
  ExpectCourses(
      UseMappedHashTable,
      {{"mapping, once", Course::kGoesOn, kNoMap, 6},
       {"mapping, from then on", Course::kGoesOn, kNoMap, 6},
       {"enlarged mapping, once", Course::kGoesOn, ":hashtable: memory reallocation failed: size=", 6},
       {"enlarged mapping, from then on", Course::kGoesOn, ":hashtable: memory reallocation failed: size=", 6},
       {"released mapping, once", Course::kGoesOn, ":hashtable: memory deallocation failed: size=", 6},
       {"released mapping, from then on", Course::kGoesOn, ":hashtable: memory deallocation failed: size=", 6},
       {"block", Course::kEnds, kNoBlock, 3}});
}

TEST_F(FailingMachine, HashTableInBlocks) {
  ExpectCourses(UseAllocatedHashTable, {{"block", Course::kEnds, kNoBlock, 20}});
}

TEST_F(FailingMachine, HashDelTable) { ExpectCourses(UseHashDelTable, {{"block", Course::kEnds, kNoBlock, 20}}); }

TEST_F(FailingMachine, HashDict) {
  ExpectCourses(UseHashDict,
                {{"block", Course::kEnds, kNoBlock, 6},
                 {"packed array", Course::kEnds, "Assertion `nvalues == 0 || ptr != ((void *)0)' failed.", 4},
                 {"released file", Course::kGoesOn, "", 1}});
}

TEST_F(FailingMachine, AttrDict) {
  ExpectCourses(UseAttrDict, {{"block", Course::kEnds, kNoBlock, 2}, {"released file", Course::kGoesOn, "", 2}});
}

TEST_F(FailingMachine, Maps) { ExpectCourses(UseMaps, {{"block", Course::kEnds, kNoBlock, 10}}); }

std::vector<Expected> CoursesOfATree(const std::string& no_map, const std::string& no_growth) {
  return {{"mapping, once", Course::kGoesOn, no_map, 1},
          {"mapping, from then on", Course::kGoesOn, no_map, 1},
          {"enlarged mapping, once", Course::kEnds, no_growth, 3},
          {"enlarged mapping, from then on", Course::kEnds, no_growth, 3},
          {"released mapping, once", Course::kGoesOn, "", 1},
          {"released mapping, from then on", Course::kGoesOn, "", 1},
          {"block", Course::kEnds, kNoBlock, 1}};
}

TEST_F(FailingMachine, RBDict) {
  ExpectCourses(UseRBDict, CoursesOfATree("memory allocation failed: size=", "memory reallocation failed: size="));
}

TEST_F(FailingMachine, AVLDict) {
  const char kNone[] = ":memory reallocation failed: size=";
  ExpectCourses(UseAVLDict, CoursesOfATree(kNone, kNone));
}

TEST_F(FailingMachine, AVLLDict) {
  const char kNone[] = ":memory reallocation failed: size=";
  ExpectCourses(UseAVLLDict, CoursesOfATree(kNone, kNone));
}

// The index reports its mapping, as every tree does; the regions do not.
TEST_F(FailingMachine, Cache) {
  ExpectCourses(UseCache, {{"mapping, once", Course::kGoesOn, std::nullopt, 4},
                           {"mapping, from then on", Course::kGoesOn, std::nullopt, 4},
                           {"released mapping, once", Course::kGoesOn, "", 4},
                           {"released mapping, from then on", Course::kGoesOn, "", 4},
                           {"thread, once", Course::kGoesOn, "", 1},
                           {"block", Course::kEnds, kNoBlock, 4}});
}

}  // namespace
