// What the two shared libraries export: exactly the pinned lists, and what was added to them since.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "support/files.h"
#include "support/programs.h"

namespace {

using Names = std::set<std::string>;

// The names that a library defines for others, each of which carries `version`.
Names Exported(const std::string& library, const std::string& version) {
  Names names;
  std::istringstream lines(support::MustRun("nm -D --defined-only " + library));
  for (std::string address, type, symbol; lines >> address >> type >> symbol;) {
    if (symbol == version) continue;  // the version itself
    const size_t at = symbol.find("@@");
    EXPECT_EQ(symbol.substr(std::min(at, symbol.size())), "@@" + version) << symbol;
    names.insert(symbol.substr(0, at));
  }
  return names;
}

Names Pinned(const std::string& list) {
  Names names;
  std::ifstream lines(std::string(QX_SOURCE_DIR) + "/tests/exports/" + list);
  for (std::string name; lines >> name;) names.insert(name);
  return names;
}

TEST(Exports, DictionaryLibraryExportsThePinnedListAndItsAdditions) {
  EXPECT_EQ(Pinned("libqxdict.txt").size(), 130u);
  Names names = Pinned("libqxdict.txt");
  names.merge(Pinned("libqxdict_additions.txt"));
  EXPECT_EQ(Exported(QX_LIBQXDICT, "QXDICT_1.0"), names);
}

TEST(Exports, BaseLibraryExportsThePinnedList) {
  EXPECT_EQ(Pinned("libqxlib.txt").size(), 45u);
  EXPECT_EQ(Exported(QX_LIBQXLIB, "QXLIB_1.0"), Pinned("libqxlib.txt"));
}

TEST(Exports, DictionaryLibraryDefinesNoBaseOperation) {
  const Names defined = Exported(QX_LIBQXDICT, "QXDICT_1.0");
  for (const std::string& name : Pinned("libqxlib.txt")) EXPECT_FALSE(defined.contains(name)) << name;
}

TEST(Exports, LibrariesCarryTheirVersionInTheirNames) {
  const std::string dict = support::MustRun("readelf -d " QX_LIBQXDICT);
  EXPECT_NE(dict.find("Library soname: [libqxdict.so.1]"), std::string::npos) << dict;
  EXPECT_NE(dict.find("Shared library: [libqxlib.so.1]"), std::string::npos) << dict;
  const std::string base = support::MustRun("readelf -d " QX_LIBQXLIB);
  EXPECT_NE(base.find("Library soname: [libqxlib.so.1]"), std::string::npos) << base;
}

}  // namespace
