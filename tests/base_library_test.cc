// A platform's own base library in place of the embedded one: libqxdict is configured with it, links it and no other,
// and defines nothing of it. The platform's here is the embedded one's code under a name, a number and symbols of its
// own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "support/files.h"
#include "support/programs.h"

namespace {

using ::support::MustRun;
using ::support::Outcome;
using ::testing::HasSubstr;
using ::testing::Not;

// One build for all tests, without optimisation: what is linked is in question, not what it does.
class BaseLibrary : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    work_ = new support::TemporaryDirectory;
    MustRun(QX_CMAKE " -S " QX_SOURCE_DIR " -B " + work_->path() +
            " -G Ninja -DCMAKE_BUILD_TYPE= -DCMAKE_CXX_FLAGS=-O0"
            " -DCMAKE_C_COMPILER=" QX_CC " -DCMAKE_CXX_COMPILER=" QX_CXX " -DQXDICT_BASE_LIBRARY=" QX_PLATFORM_LIBRARY
            " -DQXDICT_BUILD_TESTS=OFF -DQXDICT_BUILD_EXAMPLES=OFF");
    build_ = support::Run(QX_CMAKE " --build " + work_->path() + " --target qxdict");
  }
  static void TearDownTestSuite() {
    delete work_;
    work_ = nullptr;
  }

  void SetUp() override { ASSERT_EQ(build_.status, 0) << build_.output; }

  static std::string Library() { return work_->path() + "/lib/libqxdict.so"; }

  static support::TemporaryDirectory* work_;
  static Outcome build_;
};

support::TemporaryDirectory* BaseLibrary::work_ = nullptr;
Outcome BaseLibrary::build_;

// The bare names that `nm` lists.
std::set<std::string> Symbols(const std::string& nm) {
  std::set<std::string> names;
  std::istringstream lines(MustRun(nm + " -P"));
  for (std::string line; std::getline(lines, line);) names.insert(line.substr(0, line.find_first_of("@ ")));
  return names;
}

std::set<std::string> BaseOperations() {
  std::set<std::string> names;
  std::ifstream lines(QX_SOURCE_DIR "/tests/exports/libqxlib.txt");
  for (std::string name; lines >> name;) names.insert(name);
  return names;
}

TEST_F(BaseLibrary, OfThePlatformIsTheOneThatIsLinked) {
  const std::string needed = MustRun("readelf -d " + Library());
  EXPECT_THAT(needed, HasSubstr("Shared library: [libplatform.so.7]"));
  EXPECT_THAT(needed, Not(HasSubstr("libqxlib")));
  EXPECT_THAT(MustRun("ldd " + Library()), HasSubstr("libplatform.so.7 => " QX_PLATFORM_DIR "/libplatform.so.7 "));
}

TEST_F(BaseLibrary, IsNotBuilt) {
  EXPECT_EQ(MustRun("find " + work_->path() + " -name '*qxlib*.so*' -o -name '*qxlib*.a' -o -path '*qxlib*.o'"), "");
}

TEST_F(BaseLibrary, GivesEveryOperationThatTheDictionariesCall) {
  const std::set<std::string> called = Symbols("nm -D --undefined-only " + Library());
  const std::set<std::string> defined = Symbols("nm -D --defined-only " + Library());
  const std::set<std::string> everything = Symbols("nm --defined-only " + Library());
  size_t imported = 0;
  EXPECT_EQ(BaseOperations().size(), 45u);
  for (const std::string& name : BaseOperations()) {
    EXPECT_FALSE(defined.contains(name)) << name;
    EXPECT_FALSE(everything.contains(name)) << name;
    imported += called.count(name);
  }
  EXPECT_GT(imported, 30u);
  EXPECT_TRUE(called.contains("Allocate_"));
  EXPECT_TRUE(defined.contains("HashTableFind"));
}

// The embedded library gives its symbols a version; a platform's does not, and must not be asked for one.
TEST_F(BaseLibrary, IsAskedForNoVersionOfTheEmbeddedOne) {
  EXPECT_THAT(MustRun("nm -D " + Library()), Not(HasSubstr("QXLIB_")));
}

TEST_F(BaseLibrary, OfThePlatformRunsAProgram) {
  const std::string program = work_->path() + "/program";
  MustRun(QX_CC " -std=c11 -I" QX_SOURCE_DIR " " QX_SOURCE_DIR "/tests/consumer/consumer.c -o " + program + " " +
          Library() + " " QX_PLATFORM_LIBRARY " -Wl,-rpath," + work_->path() + "/lib:" QX_PLATFORM_DIR);
  EXPECT_THAT(MustRun("ldd " + program), Not(HasSubstr("libqxlib")));
  EXPECT_EQ(MustRun(program), "C 1.0.0 a value 49 11\n");
}

}  // namespace
