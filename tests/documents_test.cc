// What the documents say is so: the first programs compile and print what README shows, the worked examples are the
// bytes of the golden files, and every file that a document names is there.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/programs.h"

namespace {

namespace fs = std::filesystem;

std::string Document(const std::string& name) { return support::ReadFile(std::string(QX_SOURCE_DIR) + "/" + name); }

// Every document of the tree, by its path from the root.
std::vector<std::string> Documents() {
  std::vector<std::string> names = {"README.md",    "ARCHITECTURE.md", "CONTRIBUTING.md",
                                    "CHANGELOG.md", "SECURITY.md",     "bench/README.md"};
  for (const fs::directory_entry& entry : fs::directory_iterator(QX_SOURCE_DIR "/docs")) {
    if (entry.path().extension() == ".md") names.push_back("docs/" + entry.path().filename().string());
  }
  return names;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The n-th block between ```LANGUAGE and ``` of a document.
std::string Block(const std::string& document, const std::string& language, int n = 0) {
  size_t at = 0;
  for (;; n--) {
    at = document.find("\n```" + language + "\n", at);
    if (at == std::string::npos) return "";
    at += language.size() + 5;
    if (n == 0) break;
  }
  return document.substr(at, document.find("```\n", at) - at);
}

// README's programs, built as README says, but against this build.
std::string BuildAndRun(const std::string& compiler, const std::string& name, const std::string& program) {
  const support::TemporaryDirectory directory;
  support::WriteFile(directory.file(name), program);
  support::MustRun("cd " + directory.path() + " && " + compiler + " -Wall -Wextra -Werror -I" QX_SOURCE_DIR " " + name +
                   " -L" QX_LIBRARY_DIR " -lqxdict -lqxlib -Wl,-rpath," QX_LIBRARY_DIR " -o first");
  return support::MustRun("cd " + directory.path() + " && ./first");
}

TEST(Readme, FirstProgramInCPrintsWhatIsShown) {
  const std::string readme = Document("README.md");
  const std::string program = Block(readme, "c");
  EXPECT_LE(Lines(program).size(), 20u);
  EXPECT_EQ(BuildAndRun(QX_CC " -std=c11", "first.c", program), "4 different words\nto 2\nbe 2\nor 1\nnot 1\n");
  EXPECT_THAT(readme, ::testing::HasSubstr("\n    4 different words\n    to 2\n    be 2\n    or 1\n    not 1\n"));
}

TEST(Readme, DictionaryProgramInCPrintsWhatIsShown) {
  const std::string readme = Document("README.md");
  const std::string said = BuildAndRun(QX_CC " -std=c11", "first.c", Block(readme, "c", 1));
  EXPECT_EQ(said, "three is number 2 of 3\n");
  EXPECT_THAT(readme, ::testing::HasSubstr("\n    " + said));
}

TEST(Readme, FirstProgramInCxxPrintsTheSame) {
  const std::string program = Block(Document("README.md"), "cpp");
  EXPECT_LE(Lines(program).size(), 12u);
  EXPECT_EQ(BuildAndRun(QX_CXX " -std=c++20", "first.cc", program), "4 different words\nto 2\nbe 2\nor 1\nnot 1\n");
}

// A line of a worked example: where, which bytes, and what they mean.
const std::regex kExample(R"( +(\d+)  ((?:[0-9A-F]{2} )*[0-9A-F]{2})(?:  .*)?)");

TEST(Formats, WorkedExamplesAreTheGoldenFiles) {
  static const std::regex golden(R"(`tests/golden/([^`]+)`)");
  std::string name;
  std::string bytes;
  std::set<std::string> files;
  size_t compared = 0;
  for (const std::string& line : Lines(Document("docs/formats.md"))) {
    std::smatch match;
    if (std::regex_match(line, match, kExample)) {
      ASSERT_NE(name, "") << line;
      std::string said;
      std::istringstream numbers(match[2]);
      for (std::string number; numbers >> number;) said += static_cast<char>(std::stoi(number, nullptr, 16));
      EXPECT_EQ(bytes.substr(std::stoul(match[1]), said.size()), said) << name << ": " << line;
      compared += said.size();
      files.insert(name);
    } else if (std::regex_search(line, match, golden)) {
      name = match[1];
      bytes = support::ReadFile(support::GoldenPath(name));
    }
  }
  EXPECT_EQ(files, (std::set<std::string>{"attrdict-five.dat", "attrdict-five.idx", "hashdeltable-tombstones.img",
                                          "hashdict-probe8.dic", "hashtable_fixed.ht"}));
  EXPECT_EQ(compared, 24u + 12u + 192u + 82u + 117u);
}

// Names in backticks that look like a file of this tree.
// `Suite.Name` or `Suite.*`, as docs/trust.md names the tests that hold a promise.
TEST(Documents, EveryTestThatIsNamedIsThere) {
  std::set<std::string> tests;
  static const std::regex defined(R"(\nT(?:YPED_T)?EST(?:_F|_P)?\((\w+), (\w+)\))");
  for (const fs::directory_entry& entry : fs::directory_iterator(QX_SOURCE_DIR "/tests")) {
    if (entry.path().extension() != ".cc") continue;
    const std::string text = support::ReadFile(entry.path().string());
    for (std::sregex_iterator match(text.begin(), text.end(), defined), end; match != end; ++match) {
      tests.insert((*match)[1].str() + "." + (*match)[2].str());
      tests.insert((*match)[1].str() + ".*");
    }
  }
  static const std::regex named(R"(`([A-Z]\w+\.(?:\w+|\*))`)");
  const std::string text = Document("docs/trust.md");
  size_t names = 0;
  for (std::sregex_iterator match(text.begin(), text.end(), named), end; match != end; ++match) {
    names++;
    EXPECT_EQ(tests.count((*match)[1]), 1u) << (*match)[1];
  }
  EXPECT_GT(names, 100u);
}

TEST(Documents, EveryFileThatIsNamedIsThere) {
  static const std::regex named(
      R"(`((?:bench|cmake|dict|docs|examples|fuzz|qxlib|script|tests|tools|util|\.ci|\.github)/[A-Za-z0-9_./-]+)`)");
  size_t names = 0;
  for (const std::string& document : Documents()) {
    const std::string text = Document(document);
    for (std::sregex_iterator match(text.begin(), text.end(), named), end; match != end; ++match) {
      names++;
      const std::string name = (*match)[1];
      const std::string path = QX_SOURCE_DIR "/" + name;  // of a program, or of its source
      EXPECT_TRUE(fs::exists(path) || fs::exists(path + ".cc")) << document << ": " << name;
    }
  }
  EXPECT_GT(names, 50u);
}

TEST(Documents, LinksLeadSomewhere) {
  static const std::regex link(R"(\]\(([^)#:]+)(?:#[^)]*)?\))");
  for (const std::string& document : Documents()) {
    const fs::path directory = (fs::path(QX_SOURCE_DIR) / document).parent_path();
    const std::string text = Document(document);
    for (std::sregex_iterator match(text.begin(), text.end(), link), end; match != end; ++match) {
      EXPECT_TRUE(fs::exists(directory / (*match)[1].str())) << document << ": " << (*match)[1];
    }
  }
}

}  // namespace
