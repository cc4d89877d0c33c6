// The attribute dictionary: building, opening, look-up, enumeration, its files, and every way to fail.

#include "dict/attrdict.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include "support/attr_pairs.h"
#include "support/death.h"
#include "support/files.h"
#include "support/ledger.h"
#include "support/limits.h"

namespace {

using support::AttrPair;
using support::EnumerateFrom;
using support::GetAll;
using support::OpenAttrDict;
using support::Visits;
using Strings = std::vector<std::string>;

constexpr const char* kModule = "dict/attrdict";

std::string Bytes(std::initializer_list<int> bytes) {
  std::string result;
  for (const int byte : bytes) result += static_cast<char>(byte);
  return result;
}

size_t OpenDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) count++;
  return count;
}

TEST(AttrDict, HasTheRecordThatToolsRead) {
  EXPECT_EQ(offsetof(AttrDict, a_size), 0u);
  EXPECT_EQ(offsetof(AttrDict, a_idx), 8u);
  EXPECT_EQ(offsetof(AttrDict, a_idx_size), 16u);
  EXPECT_EQ(offsetof(AttrDict, a_dat), 24u);
  EXPECT_EQ(offsetof(AttrDict, a_dat_size), 32u);
  EXPECT_EQ(offsetof(AttrDict, a_idx_file), 40u);
  EXPECT_EQ(offsetof(AttrDict, a_dat_file), 48u);
  EXPECT_EQ(offsetof(AttrDict, a_offset), 56u);
  EXPECT_EQ(offsetof(AttrDict, a_swap), 60u);
}

TEST(AttrDictBuild, StartsWithNothingWritten) {
  AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), TRUE);
  ASSERT_NE(adict, nullptr);
  EXPECT_EQ(adict->a_size, 0u);
  EXPECT_EQ(adict->a_offset, 0u);
  EXPECT_EQ(adict->a_swap, TRUE);
  EXPECT_NE(adict->a_idx_file, nullptr);
  EXPECT_NE(adict->a_dat_file, nullptr);
  EXPECT_EQ(AttrDictSize(adict), 0u);
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
}

TEST(AttrDictBuild, CountsStringsAndBytes) {
  AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  support::AddAll(adict, {"abc", "", "de"});
  EXPECT_EQ(AttrDictSize(adict), 3u);
  EXPECT_EQ(adict->a_offset, 8u);
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
}

TEST(AttrDictBuild, EmptiesTheFilesThatWereThere) {
  AttrPair pair;
  ASSERT_EQ(pair.Build(support::ManyStrings()), TRUE);
  ASSERT_EQ(pair.Build({"x"}), TRUE);
  EXPECT_EQ(pair.idx(), Bytes({0, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(pair.dat(), "\1x");
}

TEST(AttrDictBuild, TakesTheNameAloneWithoutADirectory) {
  AttrPair pair;
  const std::string path = std::string(pair.dir()) + "/" + pair.name();
  AttrDict* adict = AttrDictBuild(nullptr, path.c_str(), FALSE);
  ASSERT_NE(adict, nullptr);
  support::AddAll(adict, {"x"});
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
  const OpenAttrDict open(AttrDictOpen(nullptr, path.c_str()));
  ASSERT_NE(open, nullptr);
  EXPECT_EQ(GetAll(open.get()), Strings{"x"});
}

TEST(AttrDictAdd, TakesNoBytesFromNowhereWhenTheLengthIsZero) {
  AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  AttrDictAdd(adict, nullptr, 0);
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
  EXPECT_EQ(pair.idx(), Bytes({0, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(pair.dat(), Bytes({0}));
}

TEST(AttrDictFormat, AnEmptyDictionaryIsTheWordZeroAndNoData) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({}), TRUE);
  EXPECT_EQ(pair.idx(), Bytes({0, 0, 0, 0}));
  EXPECT_EQ(pair.dat(), "");
}

TEST(AttrDictFormat, FourStringsHaveAnIndexOfTwoWords) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"one", "two", "three", "four"}), TRUE);
  EXPECT_EQ(pair.idx(), Bytes({0, 0, 0, 0, 4, 0, 0, 0}));
  EXPECT_EQ(pair.dat(), "\3one\3two\5three\4four");
}

TEST(AttrDictFormat, FiveStringsHaveAnIndexOfThreeWords) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"one", "two", "three", "four", "five"}), TRUE);
  EXPECT_EQ(pair.idx(), Bytes({0, 0, 0, 0, 19, 0, 0, 0, 5, 0, 0, 0}));
  EXPECT_EQ(pair.dat(), "\3one\3two\5three\4four\4five");
}

TEST(AttrDictFormat, SwappedWordsAreReversedAndTheDataAreTheSame) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"one", "two", "three", "four", "five"}, TRUE), TRUE);
  EXPECT_EQ(pair.idx(), Bytes({0, 0, 0, 0, 0, 0, 0, 19, 0, 0, 0, 5}));
  EXPECT_EQ(pair.dat(), "\3one\3two\5three\4four\4five");
}

TEST(AttrDictFormat, EveryTrueSwapSwaps) {
  AttrPair pair;
  for (const Boolean swap : {2, -1, 256}) {
    ASSERT_EQ(pair.Build({"x"}, swap), TRUE);
    EXPECT_EQ(pair.idx(), Bytes({0, 0, 0, 0, 0, 0, 0, 1}));
  }
}

void ExpectGoldenPair(const std::string& name, const Strings& strings, Boolean swap) {
  AttrPair pair;
  ASSERT_EQ(pair.Build(strings, swap), TRUE);
  support::ExpectGolden(name + ".idx", pair.idx());
  support::ExpectGolden(name + ".dat", pair.dat());
}

TEST(AttrDictFormat, IsThatOfTheGoldenFiles) {
  ExpectGoldenPair("attrdict-empty", {}, FALSE);
  ExpectGoldenPair("attrdict-four", {"one", "two", "three", "four"}, FALSE);
  ExpectGoldenPair("attrdict-five", {"one", "two", "three", "four", "five"}, FALSE);
  ExpectGoldenPair("attrdict-eleven", support::ElevenStrings(), FALSE);
  ExpectGoldenPair("attrdict-swapped", support::ElevenStrings(), TRUE);
  ExpectGoldenPair("attrdict-many", support::ManyStrings(), FALSE);
}

void ExpectReadsGoldenPair(const std::string& name, const Strings& strings) {
  const std::string dir = support::GoldenPath("");
  const OpenAttrDict adict(AttrDictOpen(dir.c_str(), name.c_str()));
  ASSERT_NE(adict, nullptr) << name;
  EXPECT_EQ(GetAll(adict.get()), strings) << name;
  EXPECT_EQ(EnumerateFrom(adict.get(), 0), strings) << name;
}

TEST(AttrDictOpen, ReadsTheGoldenFiles) {
  ExpectReadsGoldenPair("attrdict-empty", {});
  ExpectReadsGoldenPair("attrdict-four", {"one", "two", "three", "four"});
  ExpectReadsGoldenPair("attrdict-five", {"one", "two", "three", "four", "five"});
  ExpectReadsGoldenPair("attrdict-eleven", support::ElevenStrings());
  ExpectReadsGoldenPair("attrdict-many", support::ManyStrings());
}

TEST(AttrDictOpen, FillsInWhatReadingNeeds) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"one", "two", "three", "four", "five"}), TRUE);
  const OpenAttrDict adict = pair.Open();
  ASSERT_NE(adict, nullptr);
  EXPECT_EQ(adict->a_size, 5u);
  EXPECT_EQ(AttrDictSize(adict.get()), 5u);
  EXPECT_EQ(adict->a_idx_size, 12u);
  EXPECT_EQ(adict->a_idx[1], 19u);
  EXPECT_EQ(adict->a_dat_size, 24u);
  EXPECT_EQ(adict->a_dat[19], 4u);
  EXPECT_EQ(adict->a_idx_file, nullptr);
  EXPECT_EQ(adict->a_dat_file, nullptr);
}

TEST(AttrDictOpen, TakesAnEmptyDictionary) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({}), TRUE);
  const OpenAttrDict adict = pair.Open();
  ASSERT_NE(adict, nullptr);
  EXPECT_EQ(adict->a_dat, nullptr);
  EXPECT_EQ(adict->a_dat_size, 0u);
  EXPECT_EQ(AttrDictSize(adict.get()), 0u);
  EXPECT_EQ(EnumerateFrom(adict.get(), 0), Strings{});
  EXPECT_EQ(EnumerateFrom(adict.get(), 7), Strings{});  // no assertion: there is nothing to be outside of
}

TEST(AttrDictOpen, GivesAWrongSizeForTheOtherByteOrder) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"one", "two", "three", "four", "five"}, TRUE), TRUE);
  const OpenAttrDict adict = pair.Open();
  ASSERT_NE(adict, nullptr);
  EXPECT_EQ(AttrDictSize(adict.get()), 0x05000000u);
}

TEST(AttrDictOpen, FailsWithTheSystemsErrorWhenAFileIsMissing) {
  AttrPair pair;
  support::Ledger ledger;
  errno = 0;
  EXPECT_EQ(AttrDictOpen(pair.dir(), pair.name()), nullptr);
  EXPECT_EQ(errno, ENOENT);
  support::WriteFile(pair.idx_path(), Bytes({0, 0, 0, 0}));
  errno = 0;
  EXPECT_EQ(AttrDictOpen(pair.dir(), pair.name()), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(ledger.blocks(), 0u);
  EXPECT_EQ(ledger.mappings(), 0u);
}

TEST(AttrDictOpen, FailsWithTheSystemsErrorWhenAFileCannotBeMapped) {
  AttrPair pair;
  support::Ledger ledger;
  support::WriteFile(pair.idx_path(), Bytes({0, 0, 0, 0}));
  std::filesystem::create_directory(pair.dat_path());
  errno = 0;
  EXPECT_EQ(AttrDictOpen(pair.dir(), pair.name()), nullptr);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(ledger.blocks(), 0u);
  EXPECT_EQ(ledger.mappings(), 0u);
}

TEST(AttrDictOpen, KeepsTheFirstErrorWhenTheCleanUpFailsToo) {
  AttrPair pair;
  support::WriteFile(pair.idx_path(), Bytes({0, 0, 0, 0}));
  support::faults::FailFileUnmap(EIO);
  errno = 0;
  EXPECT_EQ(AttrDictOpen(pair.dir(), pair.name()), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST(AttrDictOpen, RefusesAnIndexWithoutAByte) {
  AttrPair pair;
  support::Ledger ledger;
  pair.Write("", "\1x");
  errno = 0;
  EXPECT_EQ(AttrDictOpen(pair.dir(), pair.name()), nullptr);
  EXPECT_EQ(errno, ENODATA);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST(AttrDictGet, GivesTheStringWhereItLies) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"one", "two", "three", "four", "five"}), TRUE);
  const OpenAttrDict adict = pair.Open();
  const UByte* bytes = nullptr;
  EXPECT_EQ(AttrDictGet(adict.get(), 0, &bytes), 3u);
  EXPECT_EQ(bytes, adict->a_dat + 1);
  EXPECT_EQ(AttrDictGet(adict.get(), 3, &bytes), 4u);
  EXPECT_EQ(bytes, adict->a_dat + 15);
  EXPECT_EQ(AttrDictGet(adict.get(), 4, &bytes), 4u);
  EXPECT_EQ(bytes, adict->a_dat + 20);
}

TEST(AttrDictGet, GivesAnAddressForAStringOfNoBytes) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"", ""}), TRUE);
  EXPECT_EQ(pair.dat(), Bytes({0, 0}));
  const OpenAttrDict adict = pair.Open();
  const UByte* bytes = nullptr;
  EXPECT_EQ(AttrDictGet(adict.get(), 0, &bytes), 0u);
  EXPECT_EQ(bytes, adict->a_dat + 1);
  EXPECT_EQ(AttrDictGet(adict.get(), 1, &bytes), 0u);
  EXPECT_EQ(bytes, adict->a_dat + 2);  // the end of the data: there are no bytes to read
}

TEST(AttrDictGet, StoresNothingForAnIdentifierOutOfRange) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"one", "two", "three", "four", "five"}), TRUE);
  const OpenAttrDict adict = pair.Open();
  const UByte mark = 0;
  for (const Id id : {5u, 6u, 7u, 8u, 0x80000000u, 0xFFFFFFFFu}) {
    const UByte* bytes = &mark;
    EXPECT_EQ(AttrDictGet(adict.get(), id, &bytes), 0u) << id;
    EXPECT_EQ(bytes, &mark) << id;
  }
}

TEST(AttrDictGet, StoresNothingWithoutADictionary) {
  const UByte mark = 0;
  const UByte* bytes = &mark;
  EXPECT_EQ(AttrDictGet(nullptr, 0, &bytes), 0u);
  EXPECT_EQ(bytes, &mark);
}

TEST(AttrDictGet, FindsNothingInADictionaryBeingBuilt) {
  AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  support::AddAll(adict, {"one"});
  const UByte mark = 0;
  const UByte* bytes = &mark;
  EXPECT_EQ(AttrDictGet(adict, 0, &bytes), 0u);
  EXPECT_EQ(bytes, &mark);
  EXPECT_EQ(EnumerateFrom(adict, 0), Strings{});
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
}

TEST(AttrDictEnumerate, VisitsFromItsStartingPointToTheEnd) {
  const Strings ten = {"0", "1", "22", "333", "4", "55", "666", "7", "", "9999"};
  AttrPair pair;
  ASSERT_EQ(pair.Build(ten), TRUE);
  const OpenAttrDict adict = pair.Open();
  EXPECT_EQ(EnumerateFrom(adict.get(), 6), (Strings{"666", "7", "", "9999"}));
  EXPECT_EQ(EnumerateFrom(adict.get(), 9), Strings{"9999"});
  for (Id start = 0; start < 10; start++) {
    EXPECT_EQ(EnumerateFrom(adict.get(), start), Strings(ten.begin() + start, ten.end())) << start;
  }
}

TEST(AttrDictEnumerate, ReturnsTheFirstResultThatIsNotZero) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"one", "two", "three", "four", "five"}), TRUE);
  const OpenAttrDict adict = pair.Open();
  for (const UInt result : {1u, 7u, 0xFFFFFFFFu}) {
    Visits visits;
    visits.stop_at = 2;
    visits.result = result;
    EXPECT_EQ(AttrDictEnumerate(adict.get(), 1, &Visits::Take, &visits), result);
    EXPECT_EQ(visits.strings, (Strings{"two", "three"}));
  }
  Visits visits;
  visits.stop_at = 1;
  visits.result = 9;
  EXPECT_EQ(AttrDictEnumerate(adict.get(), 4, &Visits::Take, &visits), 9u);
}

TEST(AttrDict, GivesBackTheStringsItWasGiven) {
  EXPECT_TRUE(rc::check([] {
    const auto bytes = rc::gen::container<std::string>(rc::gen::arbitrary<char>());
    const auto string = rc::gen::oneOf(
        rc::gen::map(bytes, [](std::string s) { return s.substr(0, 255); }),
        rc::gen::map(rc::gen::inRange<size_t>(0, 256), [](size_t length) { return std::string(length, 'x'); }));
    const auto strings = *rc::gen::container<Strings>(string);
    const bool swap = *rc::gen::arbitrary<bool>();
    AttrPair pair;
    RC_ASSERT(pair.Build(strings, FALSE) == TRUE);
    const std::string idx = pair.idx();
    const std::string dat = pair.dat();
    RC_ASSERT(idx.size() == 4 * ((strings.size() + 3) / 4 + 1));
    {
      const OpenAttrDict adict = pair.Open();
      RC_ASSERT(adict != nullptr);
      RC_ASSERT(AttrDictSize(adict.get()) == strings.size());
      RC_ASSERT(GetAll(adict.get()) == strings);
      for (Id start = 0; start < strings.size(); start++) {
        RC_ASSERT(EnumerateFrom(adict.get(), start) == Strings(strings.begin() + start, strings.end()));
      }
    }
    if (swap) {
      RC_ASSERT(pair.Build(strings, TRUE) == TRUE);
      RC_ASSERT(pair.dat() == dat);
      std::string reversed = pair.idx();
      for (size_t word = 0; word < reversed.size(); word += 4) {
        std::reverse(reversed.begin() + static_cast<ptrdiff_t>(word),
                     reversed.begin() + static_cast<ptrdiff_t>(word + 4));
      }
      RC_ASSERT(reversed == idx);
    }
  }));
}

TEST(AttrDict, IsReadByManyThreadsAtOnce) {
  const Strings strings = support::ManyStrings();
  AttrPair pair;
  ASSERT_EQ(pair.Build(strings), TRUE);
  const OpenAttrDict adict = pair.Open();
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (size_t t = 0; t < wrong.size(); t++) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 20; round++) {
        if (GetAll(adict.get()) != strings || EnumerateFrom(adict.get(), 0) != strings) wrong[t]++;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, (std::vector<int>{0, 0, 0, 0}));
}

TEST(AttrDictBuild, FailsWithTheSystemsErrorWhenTheIndexCannotBeOpened) {
  AttrPair pair;
  support::Ledger ledger;
  errno = 0;
  EXPECT_EQ(AttrDictBuild((std::string(pair.dir()) + "/none").c_str(), "d", FALSE), nullptr);
  EXPECT_EQ(errno, ENOENT);
  std::filesystem::create_directory(pair.idx_path());
  errno = 0;
  EXPECT_EQ(AttrDictBuild(pair.dir(), pair.name(), FALSE), nullptr);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_FALSE(std::filesystem::exists(pair.dat_path()));
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST(AttrDictBuild, FailsWithTheSystemsErrorWhenTheDataCannotBeOpened) {
  AttrPair pair;
  support::Ledger ledger;
  std::filesystem::create_directory(pair.dat_path());
  const size_t descriptors = OpenDescriptors();
  errno = 0;
  EXPECT_EQ(AttrDictBuild(pair.dir(), pair.name(), FALSE), nullptr);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(pair.idx(), "");
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST(AttrDictBuild, GivesTheIndexsDescriptorBackWhenThereIsNoneForTheData) {
  AttrPair pair;
  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(next, 3);
  close(next);
  AttrDict* adict;
  int error;
  {
    const support::SoftLimit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next) + 1);
    errno = 0;
    adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
    error = errno;
  }
  EXPECT_EQ(adict, nullptr);
  EXPECT_EQ(error, EMFILE);
  EXPECT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), next);
  close(next);
}

TEST(AttrDict, RefusesPathsThatAreTooLong) {
  AttrPair pair;
  support::Ledger ledger;
  const std::string dir = std::string(pair.dir()) + "/";
  // Paths of 4096 bytes fit the buffer and not the system, those from 4097 on fit neither.
  for (const size_t length : {size_t{4096}, size_t{4097}, size_t{4100}, size_t{100000}}) {
    const std::string name(length - dir.size() - 4, 'n');
    errno = 0;
    EXPECT_EQ(AttrDictBuild(pair.dir(), name.c_str(), FALSE), nullptr) << length;
    EXPECT_EQ(errno, ENAMETOOLONG) << length;
    errno = 0;
    EXPECT_EQ(AttrDictOpen(pair.dir(), name.c_str()), nullptr) << length;
    EXPECT_EQ(errno, ENAMETOOLONG) << length;
    std::string long_dir = dir;
    while (long_dir.size() < length - 6) long_dir += '/';
    errno = 0;
    EXPECT_EQ(AttrDictBuild(long_dir.c_str(), "d", FALSE), nullptr) << length;
    EXPECT_EQ(errno, ENAMETOOLONG) << length;
    errno = 0;
    EXPECT_EQ(AttrDictOpen(long_dir.c_str(), "d"), nullptr) << length;
    EXPECT_EQ(errno, ENAMETOOLONG) << length;
  }
  EXPECT_TRUE(std::filesystem::is_empty(pair.dir()));
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST(AttrDict, TakesTheLongestPathsOfTheSystem) {
  AttrPair pair;
  std::string dir = pair.dir();
  while (dir.size() < 4095 - 6) dir += '/';
  ASSERT_EQ((dir + "/d.idx").size(), 4095u);
  AttrDict* adict = AttrDictBuild(dir.c_str(), "d", FALSE);
  ASSERT_NE(adict, nullptr);
  support::AddAll(adict, {"x"});
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
  const OpenAttrDict open(AttrDictOpen(dir.c_str(), "d"));
  ASSERT_NE(open, nullptr);
  EXPECT_EQ(GetAll(open.get()), Strings{"x"});
}

TEST(AttrDictBuild, OpensItsFilesCloseOnExec) {
  AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  EXPECT_EQ(fcntl(fileno(adict->a_idx_file), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(fileno(adict->a_dat_file), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
}

TEST(AttrDict, KeepsOffTheStandardDescriptors) {
  AttrPair pair;
  const pid_t child = fork();
  if (child == 0) {
    for (const int fd : {0, 1, 2}) close(fd);
    AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
    if (adict == nullptr) _exit(1);
    if (fileno(adict->a_idx_file) < 3 || fileno(adict->a_dat_file) < 3) _exit(2);
    if (fcntl(fileno(adict->a_idx_file), F_GETFD) != FD_CLOEXEC) _exit(3);
    if (fcntl(fileno(adict->a_dat_file), F_GETFD) != FD_CLOEXEC) _exit(4);
    AttrDictAdd(adict, reinterpret_cast<const UByte*>("x"), 1);
    if (AttrDictCommit(adict) != TRUE) _exit(5);
    for (const int fd : {0, 1, 2}) {
      if (fcntl(fd, F_GETFD) != -1) _exit(6);
    }
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(pair.dat(), "\1x");
}

// Builds under a file-size limit; whatever fails, nothing is left open or allocated, and what is on the disk is the
// beginning of what should be.
void BuildWithin(const AttrPair& pair, rlim_t limit, const Strings& strings, const std::string& idx,
                 const std::string& dat) {
  support::Ledger ledger;
  const size_t descriptors = OpenDescriptors();
  Boolean result;
  int error;
  {
    const support::SoftLimit file_size(RLIMIT_FSIZE, limit);
    errno = 0;
    result = pair.Build(strings);
    error = errno;
  }
  const bool fits = idx.size() <= limit && dat.size() <= limit;
  ASSERT_EQ(result, fits ? TRUE : FALSE) << limit;
  ASSERT_EQ(error, fits ? error : EFBIG) << limit;
  ASSERT_EQ(OpenDescriptors(), descriptors) << limit;
  ASSERT_EQ(ledger.blocks(), 0u) << limit;
  ASSERT_EQ(pair.idx(), idx.substr(0, std::min<size_t>(limit, idx.size()))) << limit;
  ASSERT_EQ(dat.compare(0, pair.dat().size(), pair.dat()), 0) << limit;
}

TEST(AttrDictCommit, FailsWhereverTheDiskEnds) {
  AttrPair pair;
  const std::string idx = support::ReadFile(support::GoldenPath("attrdict-five.idx"));
  const std::string dat = support::ReadFile(support::GoldenPath("attrdict-five.dat"));
  for (rlim_t limit = 0; limit <= dat.size(); limit++) {
    BuildWithin(pair, limit, {"one", "two", "three", "four", "five"}, idx, dat);
    if (HasFatalFailure()) return;
  }
}

TEST(AttrDictCommit, FailsWhereverTheDiskEndsWhileStringsAreStillAdded) {
  AttrPair pair;
  const std::string idx = support::ReadFile(support::GoldenPath("attrdict-many.idx"));
  const std::string dat = support::ReadFile(support::GoldenPath("attrdict-many.dat"));
  std::vector<rlim_t> limits = {idx.size() - 1, idx.size(), 4095, 4096, 4097, 8192, 12288, dat.size() - 1, dat.size()};
  for (rlim_t limit = 0; limit < dat.size(); limit += 331) limits.push_back(limit);
  for (const rlim_t limit : limits) {
    BuildWithin(pair, limit, support::ManyStrings(), idx, dat);
    if (HasFatalFailure()) return;
  }
}

TEST(AttrDictCommit, FailsWhenTheIndexWordsOfTheOtherOrderCannotBeWritten) {
  AttrPair pair;
  const Strings strings(5000, "");  // 5004 bytes of index: written before the end
  Boolean result;
  int error;
  {
    const support::SoftLimit file_size(RLIMIT_FSIZE, 4098);
    errno = 0;
    result = pair.Build(strings, TRUE);
    error = errno;
  }
  EXPECT_EQ(result, FALSE);
  EXPECT_EQ(error, EFBIG);
}

// One of the files is a device: full, or one that cannot be forced to the disk.
void BuildOnDevice(const std::string& suffix, const char* device, const Strings& strings, int expected_error,
                   Boolean swap = FALSE) {
  AttrPair pair;
  support::Ledger ledger;
  std::filesystem::create_symlink(device, std::string(pair.dir()) + "/d" + suffix);
  const size_t descriptors = OpenDescriptors();
  errno = 0;
  EXPECT_EQ(pair.Build(strings, swap), FALSE) << suffix << " " << device;
  EXPECT_EQ(errno, expected_error) << suffix << " " << device;
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST(AttrDictCommit, FailsOnAFullDisk) {
  BuildOnDevice(".idx", "/dev/full", {"x"}, ENOSPC);
  BuildOnDevice(".dat", "/dev/full", {"x"}, ENOSPC);
  BuildOnDevice(".idx", "/dev/full", support::ManyStrings(), ENOSPC);
  BuildOnDevice(".dat", "/dev/full", support::ManyStrings(), ENOSPC);
  BuildOnDevice(".idx", "/dev/full", {}, ENOSPC);
}

// More words than a stream's buffer holds: they cannot be written while strings are still being added.
TEST(AttrDictCommit, FailsOnADiskThatIsFullBeforeAllIsAdded) {
  BuildOnDevice(".idx", "/dev/full", Strings(20000, ""), ENOSPC);
  BuildOnDevice(".idx", "/dev/full", Strings(20000, ""), ENOSPC, TRUE);
  BuildOnDevice(".dat", "/dev/full", Strings(20000, "string"), ENOSPC);
}

TEST(AttrDictCommit, FailsWhereNothingCanBeForcedToTheDisk) {
  BuildOnDevice(".idx", "/dev/null", {"x"}, EINVAL);
  BuildOnDevice(".dat", "/dev/null", {"x"}, EINVAL);
}

TEST(AttrDictCommit, RemembersAWriteThatFailedThoughTheRestSucceeds) {
  AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  const Strings strings(40, std::string(255, 'x'));
  {
    const support::SoftLimit file_size(RLIMIT_FSIZE, 4096);
    support::AddAll(adict, strings);
  }
  EXPECT_EQ(AttrDictSize(adict), 40u);
  errno = 0;
  EXPECT_EQ(AttrDictCommit(adict), FALSE);  // no limit any more
  EXPECT_EQ(errno, EFBIG);
}

// A stream whose second write fails; it counts the others.
ssize_t FailSecondWrite(void* counts, const char*, size_t size) {
  auto* count = static_cast<std::pair<int, int>*>(counts);
  if (++count->first == 2) {
    errno = EIO;
    return 0;
  }
  count->second++;
  return static_cast<ssize_t>(size);
}

// A word in this machine's order stops at the byte that cannot be written, one in the other order does not.
TEST(AttrDictCommit, StopsAWordAtAFailedByteUnlessItIsSwapped) {
  for (const Boolean swap : {FALSE, TRUE}) {
    AttrPair pair;
    AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), swap);
    fclose(adict->a_idx_file);
    std::pair<int, int> counts = {0, 0};
    adict->a_idx_file = fopencookie(&counts, "w", {nullptr, FailSecondWrite, nullptr, nullptr});
    setvbuf(adict->a_idx_file, nullptr, _IONBF, 0);
    errno = 0;
    EXPECT_EQ(AttrDictCommit(adict), FALSE);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(counts.second, swap ? 3 : 1);
  }
}

TEST(AttrDictCommit, FailsWhenTheDataWouldReachFourGigabytes) {
  AttrPair pair;
  support::Ledger ledger;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  adict->a_offset = 0xFFFFFFFF - 10;
  support::AddAll(adict, {std::string(9, 'a')});  // ends at the greatest offset
  EXPECT_EQ(AttrDictSize(adict), 1u);
  EXPECT_EQ(adict->a_offset, 0xFFFFFFFFu);
  support::AddAll(adict, {"", "b"});
  EXPECT_EQ(AttrDictSize(adict), 1u);
  EXPECT_EQ(adict->a_offset, 0xFFFFFFFFu);
  errno = 0;
  EXPECT_EQ(AttrDictCommit(adict), FALSE);
  EXPECT_EQ(errno, EFBIG);
  EXPECT_EQ(pair.dat(),
            "\x09"
            "aaaaaaaaa");
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST(AttrDictCommit, WritesNoShorterStringAfterOneThatReachedFourGigabytes) {
  AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  adict->a_offset = 0xFFFFFFFF - 10;
  support::AddAll(adict, {std::string(10, 'a'), "b"});
  EXPECT_EQ(AttrDictSize(adict), 0u);
  EXPECT_EQ(AttrDictCommit(adict), FALSE);
  EXPECT_EQ(pair.dat(), "");
  EXPECT_EQ(pair.idx(), Bytes({0, 0, 0, 0}));
}

TEST(AttrDictCommit, TakesDataOfJustBelowFourGigabytes) {
  AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  adict->a_offset = 0xFFFFFFFE;
  support::AddAll(adict, {""});
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
  EXPECT_EQ(pair.idx(), Bytes({0xFE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0}));
}

TEST(AttrDictClose, SaysWhenAMappingCouldNotBeReleased) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"x"}), TRUE);
  for (const int after : {0, 1}) {
    support::Ledger ledger;
    AttrDict* adict = AttrDictOpen(pair.dir(), pair.name());
    ASSERT_NE(adict, nullptr);
    EXPECT_EQ(ledger.mappings(), 2u);
    support::faults::FailFileUnmap(EIO, after);
    EXPECT_EQ(AttrDictClose(adict), FALSE);
    EXPECT_EQ(ledger.mappings(), 0u);
    EXPECT_EQ(ledger.blocks(), 0u);
  }
}

TEST(AttrDictClose, GivesEverythingBack) {
  AttrPair pair;
  for (const Strings& strings : {Strings{}, Strings{"x"}}) {
    support::Ledger ledger;
    const size_t descriptors = OpenDescriptors();
    ASSERT_EQ(pair.Build(strings), TRUE);
    AttrDict* adict = AttrDictOpen(pair.dir(), pair.name());
    ASSERT_NE(adict, nullptr);
    EXPECT_EQ(AttrDictClose(adict), TRUE);
    EXPECT_EQ(ledger.mappings(), 0u);
    EXPECT_EQ(ledger.blocks(), 0u);
    EXPECT_EQ(OpenDescriptors(), descriptors);
  }
}

TEST(AttrDictDeathTest, CommitOfNothing) {
  EXPECT_ASSERTION(AttrDictCommit(nullptr), kModule, "AttrDictCommit", "adict != ((void *)0)");
}

TEST(AttrDictDeathTest, CommitOfADictionaryOpenForReading) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"x"}), TRUE);
  const OpenAttrDict adict = pair.Open();
  EXPECT_ASSERTION(AttrDictCommit(adict.get()), kModule, "AttrDictCommit", "adict->a_idx_file != ((void *)0)");
}

TEST(AttrDictDeathTest, CommitWithoutADataFile) {
  AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  FILE* file = adict->a_dat_file;
  adict->a_dat_file = nullptr;
  EXPECT_ASSERTION(AttrDictCommit(adict), kModule, "AttrDictCommit", "adict->a_dat_file != ((void *)0)");
  adict->a_dat_file = file;
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
}

TEST(AttrDictDeathTest, EnumerationOfNothing) {
  Visits visits;
  EXPECT_ASSERTION(AttrDictEnumerate(nullptr, 0, &Visits::Take, &visits), kModule, "AttrDictEnumerate",
                   "adict != ((void *)0)");
}

TEST(AttrDictDeathTest, EnumerationFromAnIdentifierOutOfRange) {
  AttrPair pair;
  ASSERT_EQ(pair.Build({"one", "two", "three", "four", "five"}), TRUE);
  const OpenAttrDict adict = pair.Open();
  Visits visits;
  for (const Id start : {5u, 8u, 0xFFFFFFFFu}) {
    EXPECT_ASSERTION(AttrDictEnumerate(adict.get(), start, &Visits::Take, &visits), kModule, "AttrDictEnumerate",
                     "id < adict->a_size");
  }
}

TEST(AttrDictDeathTest, CloseOfNothing) {
  EXPECT_ASSERTION(AttrDictClose(nullptr), kModule, "AttrDictClose", "adict != ((void *)0)");
}

TEST(AttrDictDeathTest, CloseOfADictionaryBeingBuilt) {
  AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  const char* text = "adict->a_idx_file == ((void *)0) && adict->a_dat_file == ((void *)0)";
  EXPECT_ASSERTION(AttrDictClose(adict), kModule, "AttrDictClose", text);
  FILE* file = adict->a_idx_file;
  adict->a_idx_file = nullptr;  // one of them is enough
  EXPECT_ASSERTION(AttrDictClose(adict), kModule, "AttrDictClose", text);
  adict->a_idx_file = file;
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
}

}  // namespace
