// The program qxdict, run as a person would.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "dict/qxdict.hpp"
#include "support/files.h"
#include "support/programs.h"
#include "tool.h"

namespace {

using ::support::Outcome;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class ToolTest : public ::testing::Test {
 protected:
  // Exit status and output of `qxdict ARGUMENTS`, run in the test's directory.
  Outcome Tool(const std::string& arguments) const {
    return support::Run("cd " + directory_.path() + " && " QX_TOOL " " + arguments);
  }
  std::string MustTool(const std::string& arguments) const {
    const Outcome outcome = Tool(arguments);
    EXPECT_EQ(outcome.status, 0) << arguments << "\n" << outcome.output;
    return outcome.output;
  }
  std::string file(const std::string& name) const { return directory_.file(name); }
  void Write(const std::string& name, const std::string& bytes) const { support::WriteFile(file(name), bytes); }

  support::TemporaryDirectory directory_;
};

TEST_F(ToolTest, SaysHowItIsUsed) {
  EXPECT_THAT(MustTool("--help"), StartsWith("usage: qxdict info FILE"));
  EXPECT_EQ(MustTool("--version"), "qxdict 1.0.0\n");
  for (const char* arguments : {"", "info", "unknown x.dic", "info x.dic y", "--unknown", "info x", "get x.dic",
                                "info --kind none x", "build x.dic --probe 9 l", "dump x.dic", "load x.dic"}) {
    const Outcome outcome = Tool(arguments);
    EXPECT_EQ(outcome.status, 2) << arguments;
    EXPECT_THAT(outcome.output, StartsWith("qxdict: ")) << arguments;
  }
}

TEST_F(ToolTest, BuildsADictionaryAndAsksIt) {
  Write("list", "one\ntwo\nthree\n");
  EXPECT_EQ(MustTool("build words.dic list --probe 4"), "");
  EXPECT_EQ(MustTool("check words.dic"), "words.dic: sound\n");
  EXPECT_EQ(MustTool("get words.dic three one"), "three\t2\none\t0\n");
  const Outcome absent = Tool("get words.dic two four");
  EXPECT_EQ(absent.status, 1);
  EXPECT_EQ(absent.output, "two\t1\nfour\t-\n");
  EXPECT_THAT(MustTool("info words.dic"), HasSubstr("keys                     3\n"));
  EXPECT_THAT(MustTool("stat words.dic"), HasSubstr("vertices                 8\n"));
}

TEST_F(ToolTest, DictionaryIsTheLibrarys) {
  Write("list", "one\na\\x00b\n");
  MustTool("build words.dic list --probe 8");
  const qx::Dict dict = qx::Dict::Open(directory_.path().c_str(), "words");
  EXPECT_EQ(dict.Find("one"), 0u);
  EXPECT_EQ(dict.Find(std::string("a\0b", 3)), 1u);
}

TEST_F(ToolTest, BuildsADictionaryWithValues) {
  Write("list", "one\t10\na\tb\t4294967295\n");
  MustTool("build words.dic list --values");
  EXPECT_EQ(MustTool("get words.dic one 'a\tb' --json"),
            "{\"key\": \"one\", \"value\": 10}\n{\"key\": \"a\\u0009b\", \"value\": 4294967295}\n");
  Write("list", "one\n");
  EXPECT_THAT(Tool("build words.dic list --values").output, HasSubstr("list:1: is no key, tab and number"));
}

TEST_F(ToolTest, EqualKeysAreNamedAndNothingIsBuilt) {
  Write("list", "one\ntwo\none\n\ntwo\n\n");
  const Outcome outcome = Tool("build words.dic list");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.output,
            "list:3: the same key as in line 1: one\nlist:5: the same key as in line 2: two\n"
            "list:6: the same key as in line 4: \nlist: 3 keys stand there twice\n");
  EXPECT_FALSE(std::filesystem::exists(file("words.dic")));
}

TEST_F(ToolTest, FailedBuildLeavesTheOldFileAlone) {
  Write("words.dic", "old");
  EXPECT_EQ(Tool("build words.dic missing").status, 2);
  EXPECT_EQ(support::ReadFile(file("words.dic")), "old");
  std::filesystem::create_directory(file("directory.dic"));
  Write("list", "one\n");
  EXPECT_EQ(Tool("build directory.dic list").status, 2);
  EXPECT_EQ(Tool("build words list").status, 2);
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) files += entry.exists();
  EXPECT_EQ(files, 3u);  // the old file, the directory and the list, and nothing beside them
}

constexpr char kTableDump[] =
    "%qxdict table 1\n%capacity 9\n%val_len 2\n%key_size 0\none\t0100\na\\x5c\\x00 b\tffee\n\t0000\n";

TEST_F(ToolTest, TableGoesRoundThroughText) {
  Write("dump", kTableDump);
  MustTool("load t.ht dump");
  EXPECT_EQ(MustTool("check t.ht"), "t.ht: sound\n");
  EXPECT_EQ(MustTool("dump t.ht"), kTableDump);
  EXPECT_EQ(MustTool("get t.ht one"), "one\t0100\n");
  EXPECT_EQ(MustTool("get t.ht ''"), "\t0000\n");
  EXPECT_EQ(Tool("get t.ht two").status, 1);
  MustTool("dump t.ht | " QX_TOOL " load u.ht");
  EXPECT_EQ(support::ReadFile(file("u.ht")), support::ReadFile(file("t.ht")));
}

TEST_F(ToolTest, TableOfTheLibraryGoesRoundThroughText) {
  qx::Table<ULong> table(5, {.key_size = 2});
  for (ULong i = 0; i < 300; i++) table[std::string(i, 'x')].set(i * 1000003);
  table.Save(file("t.ht"));
  MustTool("dump t.ht | " QX_TOOL " load u.ht");
  EXPECT_EQ(MustTool("dump u.ht"), MustTool("dump t.ht"));
  EXPECT_EQ(qx::Table<ULong>::Load(file("u.ht")).Find(std::string(299, 'x'))->value(), 299u * 1000003u);
  EXPECT_THAT(MustTool("stat t.ht"), HasSubstr("keys                     300\n"));
  EXPECT_THAT(MustTool("stat t.ht"), HasSubstr("key bytes                44850\n"));
  EXPECT_THAT(MustTool("info --json t.ht"), StartsWith("{\"kind\": \"table\", \"selected\": false, \"keys\": 300, "));
}

TEST_F(ToolTest, SelectedTableCanBeCheckedAndDumpedNotSearched) {
  qx::Table<UInt> table(5);
  for (const char* word : {"a", "b", "c"}) table[word] += 1;
  table.Select([](auto entry) { return entry.key() != "b"; });
  table.Save(file("t.ht"));
  EXPECT_EQ(MustTool("check t.ht"), "t.ht: sound\n");
  EXPECT_THAT(MustTool("dump t.ht"), HasSubstr("a\t01000000\nb\t01000000\nc\t01000000\n"));
  EXPECT_EQ(Tool("get t.ht a").status, 2);
}

struct ByLength {
  UInt operator()(std::string_view key) const noexcept { return static_cast<UInt>(key.size()); }
};

TEST_F(ToolTest, TableWithAHashOfItsOwnIsTold) {
  qx::Table<UInt, ByLength> table(5);
  for (const char* word : {"a", "bb", "ccc"}) table[word] += 1;
  table.Save(file("t.ht"));
  EXPECT_EQ(Tool("check t.ht").status, 1);
  EXPECT_EQ(MustTool("check t.ht --any-hash"), "t.ht: sound\n");
  EXPECT_EQ(Tool("dump t.ht").status, 2);
  EXPECT_THAT(MustTool("dump t.ht --any-hash"), HasSubstr("\nbb\t01000000\n"));
}

TEST_F(ToolTest, ImageGoesRoundThroughText) {
  qx::DelTable<UShort> table(5);
  for (const char* word : {"a", "b", "c"}) table[word].set(7);
  table.Remove("b");
  const std::vector<UByte> image = table.Image();
  Write("t.img", std::string(image.begin(), image.end()));
  EXPECT_EQ(MustTool("check t.img"), "t.img: sound\n");
  EXPECT_THAT(MustTool("info t.img"), HasSubstr("tombstones               1\n"));
  EXPECT_THAT(MustTool("stat t.img"), HasSubstr("longest probe            1\n"));
  const std::string dump = "%qxdict image 1\n%capacity 5\n%val_len 2\n%key_size 0\na\t0700\nc\t0700\n";
  EXPECT_EQ(MustTool("dump t.img"), dump);
  Write("dump", dump);
  MustTool("load u.img dump");
  EXPECT_EQ(MustTool("dump u.img"), dump);
  EXPECT_EQ(Tool("get u.img a b").output, "a\t0700\nb\t-\n");
}

TEST_F(ToolTest, AttributesGoRoundThroughText) {
  const std::string dump = "%qxdict attributes 1\n\tone\n\t\n\t%three\\x0a\n\tfour\n\tfive\n";
  Write("dump", dump);
  MustTool("load a.idx dump");
  EXPECT_EQ(MustTool("check a.dat"), "a: sound\n");
  EXPECT_EQ(MustTool("dump --kind attributes a"), dump);
  EXPECT_EQ(MustTool("get a.idx 2 4"), "2\t%three\\x0a\n4\tfive\n");
  EXPECT_EQ(Tool("get a.idx 5").status, 1);
  EXPECT_EQ(Tool("get a.idx five").status, 2);
  EXPECT_EQ(MustTool("stat a.idx"),
            "identifiers              5\nstring bytes             18\nmean length              3.600\n"
            "longest                  7\nempty                    1\n");
  EXPECT_EQ(MustTool("info --json a.idx"),
            "{\"kind\": \"attributes\", \"identifiers\": 5, \"index bytes\": 12, \"data bytes\": 23}\n");
}

TEST_F(ToolTest, DumpsThatAreWrongAreRefusedWithTheirLine) {
  const std::pair<const char*, const char*> wrong[] = {
      {"", "line 1: a dump of this kind starts with"},
      {"%qxdict image 1\n", "line 1: a dump of this kind starts with"},
      {"%qxdict table 1\n%unknown 1\n", "line 2: unknown setting"},
      {"%qxdict table 1\n%key_size 5\n", "line 2: unknown setting"},
      {"%qxdict table 1\n%val_len\n", "line 2: unknown setting"},
      {"%qxdict table 1\nno tab\n", "line 2: no tab"},
      {"%qxdict table 1\nk\tzz\n", "line 2: no key, tab and pairs"},
      {"%qxdict table 1\n\\\t\n", "line 2: no key, tab and pairs"},
      {"%qxdict table 1\nk\t00\n", "line 2: a value of 1 bytes, not 0"},
      {"%qxdict table 1\nk\t\nk\t\n", "line 3: a key that was there before: k"},
  };
  for (const auto& [dump, why] : wrong) {
    Write("dump", dump);
    const Outcome outcome = Tool("load t.ht dump");
    EXPECT_EQ(outcome.status, 2) << dump;
    EXPECT_THAT(outcome.output, HasSubstr(why)) << dump;
    EXPECT_FALSE(std::filesystem::exists(file("t.ht"))) << dump;
    EXPECT_FALSE(std::filesystem::exists(file("t.ht.new"))) << dump;
  }
  Write("dump", "%qxdict table 1\n%key_size 1\n" + std::string(256, 'k') + "\t\n");
  EXPECT_THAT(Tool("load t.ht dump").output, HasSubstr("line 3: a key too long for key_size"));
  Write("dump", "%qxdict attributes 1\n\t" + std::string(256, 's') + "\n");
  EXPECT_THAT(Tool("load a.idx dump").output, HasSubstr("line 2: a string of more than 255 bytes"));
  EXPECT_FALSE(std::filesystem::exists(file("a.new.idx")));
}

TEST_F(ToolTest, FilesThatCannotBeReadAreTrouble) {
  Write("empty.dic", "");
  Write("empty.ht", "");
  Write("empty.img", "");
  Write("empty.idx", "");
  Write("empty.dat", "");
  for (const char* command : {"info", "check", "stat", "dump"}) {
    for (const char* name : {"empty.dic", "empty.ht", "empty.img", "empty.idx", "missing.dic", "missing.ht",
                             "missing.img", "missing.idx"}) {
      const Outcome outcome = Tool(std::string(command) + " " + name);
      EXPECT_EQ(outcome.status, 2) << command << " " << name << outcome.output;
      EXPECT_THAT(outcome.output, StartsWith("qxdict: ")) << command << " " << name;
    }
  }
}

TEST_F(ToolTest, OutputThatCannotBeWrittenIsTrouble) {
  Write("dump", kTableDump);
  MustTool("load t.ht dump");
  EXPECT_EQ(Tool("dump t.ht > /dev/full").status, 2);
  EXPECT_EQ(Tool("load /nonexistent/t.ht dump").status, 2);
}

// Damaged files, in this very process: the tool says sound or not, and never takes it down.
class ToolDamageTest : public ToolTest {
 protected:
  static int InProcess(const std::vector<std::string>& arguments) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> null(std::fopen("/dev/null", "r+"), std::fclose);
    return tool::Run(arguments, null.get(), null.get(), null.get());
  }

  void ExpectExitCodes(const std::string& name, const std::string& companion = "") {
    const std::string golden = support::ReadFile(support::GoldenPath(name));
    const std::string path = file("damaged" + std::filesystem::path(name).extension().string());
    if (!companion.empty()) {
      Write("damaged" + std::filesystem::path(companion).extension().string(),
            support::ReadFile(support::GoldenPath(companion)));
    }
    std::minstd_rand random(7);
    for (int i = 0; i < 150; i++) {
      std::string bytes = golden;
      const size_t at = random() % bytes.size();
      bytes[at] = static_cast<char>(random());
      if (i % 3 == 0) bytes[random() % std::min<size_t>(bytes.size(), 48)] = static_cast<char>(random() % 2 * 255);
      if (i % 7 == 0) bytes.resize(at);
      support::WriteFile(path, bytes);
      for (const char* command : {"info", "check", "stat", "dump"}) {
        EXPECT_LE(InProcess({command, path}), 2) << command << " " << i;
      }
      EXPECT_LE(InProcess({"get", path, "1"}), 2) << i;
      EXPECT_LE(InProcess({"dump", "--any-hash", path}), 2) << i;
    }
  }
};

TEST_F(ToolDamageTest, Dictionary) { ExpectExitCodes("hashdict-probe8.dic"); }
TEST_F(ToolDamageTest, DictionaryOfAllBytes) { ExpectExitCodes("hashdict-bytes.dic"); }
TEST_F(ToolDamageTest, Table) { ExpectExitCodes("hashtable_grown.ht"); }
TEST_F(ToolDamageTest, UnalignedTable) { ExpectExitCodes("hashtable_unaligned.ht"); }
TEST_F(ToolDamageTest, Image) { ExpectExitCodes("hashdeltable-tombstones.img"); }
TEST_F(ToolDamageTest, Attributes) { ExpectExitCodes("attrdict-eleven.idx", "attrdict-eleven.dat"); }

TEST_F(ToolDamageTest, GoldenFilesAreSound) {
  for (const auto& entry : std::filesystem::directory_iterator(support::GoldenPath(""))) {
    const std::string path = entry.path().string();
    if (path.ends_with(".py") || path.find("swapped") != std::string::npos) continue;
    EXPECT_EQ(Tool("check " + path).status, 0) << Tool("check " + path).output;
  }
}

}  // namespace
