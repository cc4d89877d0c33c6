// Installs the libraries into an empty prefix, and builds and runs other people's programs against them: by
// find_package, by pkg-config, fetched and as a subdirectory, in C and in C++.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "support/files.h"
#include "support/programs.h"

namespace {

namespace fs = std::filesystem;
using ::support::MustRun;
using ::support::Outcome;
using ::testing::HasSubstr;

// What the consumers print, in C and in C++.
constexpr char kSaidByC[] = "C 1.0.0 a value 49 11\n";
constexpr char kSaidByCxx[] = "C++ 1.0.0 1 100 1 88\n";

constexpr char kManifest[] = QX_BUILD_DIR "/install_manifest.txt";

// Every file and link below a directory, by its path from there.
std::set<std::string> Tree(const fs::path& root) {
  std::set<std::string> paths;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_directory() || entry.is_symlink()) paths.insert(entry.path().lexically_relative(root).string());
  }
  return paths;
}

// One installation for all tests, moved once it is made: nothing in it may remember where it was laid down.
class InstallTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    work_ = new support::TemporaryDirectory;
    // What the person installed who builds here stays known to the target `uninstall`.
    if (fs::exists(kManifest)) fs::rename(kManifest, Work("manifest"));
    const std::string first = work_->path() + "/first";
    MustRun(std::string(QX_CMAKE) + " --install " QX_BUILD_DIR " --prefix " + first);
    fs::copy(first, Prefix(), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    fs::remove_all(first);
    for (const char* directory : {"lib", "lib64", "lib/x86_64-linux-gnu", "lib/aarch64-linux-gnu"}) {
      if (fs::exists(Prefix() + "/" + directory + "/libqxdict.so")) libraries_ = directory;
    }
  }

  static void TearDownTestSuite() {
    fs::remove(kManifest);
    if (fs::exists(Work("manifest"))) fs::copy(Work("manifest"), kManifest);
    delete work_;
    work_ = nullptr;
  }

  static std::string Prefix() { return work_->path() + "/prefix"; }
  static std::string Libraries() { return Prefix() + "/" + libraries_; }
  static std::string Work(const std::string& name) { return work_->path() + "/" + name; }

  // Configures and builds tests/consumer in the way that `how` says, without a compiler cache's help or need.
  static Outcome BuildConsumer(const std::string& how, const std::string& arguments) {
    const std::string build = Work(how);
    Outcome outcome = support::Run(
        std::string(QX_CMAKE) + " -S " QX_SOURCE_DIR "/tests/consumer -B " + build +
        " -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=" QX_CC " -DCMAKE_CXX_COMPILER=" QX_CXX " -DHOW=" + how +
        " " + arguments);
    if (outcome.status == 0) outcome = support::Run(std::string(QX_CMAKE) + " --build " + build);
    return outcome;
  }

  static void ExpectConsumerWorks(const std::string& how, const std::string& arguments) {
    const Outcome outcome = BuildConsumer(how, arguments);
    ASSERT_EQ(outcome.status, 0) << outcome.output;
    EXPECT_EQ(MustRun(Work(how) + "/consumer_c"), kSaidByC);
    EXPECT_EQ(MustRun(Work(how) + "/consumer_cc"), kSaidByCxx);
  }

  static std::string libraries_;
  static support::TemporaryDirectory* work_;
};

std::string InstallTest::libraries_;
support::TemporaryDirectory* InstallTest::work_ = nullptr;

TEST_F(InstallTest, LaysDownHeadersLibrariesAndDescriptions) {
  const std::set<std::string> paths = Tree(Prefix());
  for (const char* name :
       {"dict/hashdict.h", "dict/hashtable.h", "dict/hashdeltable.h", "dict/attrdict.h", "dict/idmap.h",
        "dict/rbdict.h", "dict/avldict.h", "dict/avlldict.h", "dict/qxcache.h", "dict/version.h", "dict/qxdict.hpp",
        "qxlib/misc.h", "qxlib/types.h", "util/io.h", "util/io2.h"}) {
    EXPECT_TRUE(paths.contains(std::string("include/qxdict/") + name)) << name;
  }
  for (const char* name : {"libqxdict.so", "libqxdict.so.1", "libqxdict.so.1.0.0", "libqxlib.so", "libqxlib.so.1",
                           "libqxlib.so.1.0.0", "cmake/qxdict/qxdictConfig.cmake",
                           "cmake/qxdict/qxdictConfigVersion.cmake", "pkgconfig/qxdict.pc", "pkgconfig/qxlib.pc"}) {
    EXPECT_TRUE(paths.contains(libraries_ + "/" + name)) << name;
  }
}

TEST_F(InstallTest, KeepsInternalHeadersBack) {
  for (const std::string& path : Tree(Prefix())) {
    for (const char* internal : {"internal", "heap_entry", "avl_tree", "node_tree", "int_map", "report.h"}) {
      EXPECT_EQ(path.find(internal), std::string::npos) << path;
    }
  }
}

TEST_F(InstallTest, DescriptionsNameNeitherBuildNorSourceDirectory) {
  size_t descriptions = 0;
  for (const std::string& path : Tree(Prefix())) {
    if (!path.ends_with(".cmake") && !path.ends_with(".pc")) continue;
    descriptions++;
    const std::string text = support::ReadFile(Prefix() + "/" + path);
    EXPECT_EQ(text.find(QX_BUILD_DIR), std::string::npos) << path;
    EXPECT_EQ(text.find(QX_SOURCE_DIR), std::string::npos) << path;
  }
  EXPECT_EQ(descriptions, 6u);  // Config, ConfigVersion, Targets and the build type's Targets; qxdict.pc, qxlib.pc
}

TEST_F(InstallTest, IsFoundAsAPackage) {
  ExpectConsumerWorks("find_package", "-DCMAKE_PREFIX_PATH=" + Prefix() + " -DWANTED=1.0");
}

TEST_F(InstallTest, PackageOfAnotherMajorVersionIsNotFound) {
  const Outcome outcome = BuildConsumer("find_package", "-DCMAKE_PREFIX_PATH=" + Prefix() + " -DWANTED=2.0");
  EXPECT_NE(outcome.status, 0);
  EXPECT_THAT(outcome.output, HasSubstr("considered but not accepted"));
}

TEST_F(InstallTest, IsFoundByPkgConfig) {
  const std::string flags =
      "$(PKG_CONFIG_PATH=" + Libraries() + "/pkgconfig pkg-config --cflags --libs qxdict) -Wl,-rpath," + Libraries();
  const std::string source = QX_SOURCE_DIR "/tests/consumer/consumer";
  MustRun(QX_CC " -std=c11 -Wall -Wextra -Werror " + source + ".c -o " + Work("by_pc_c") + " " + flags);
  MustRun(QX_CXX " -std=c++20 -Wall -Wextra -Werror " + source + ".cc -o " + Work("by_pc_cc") + " " + flags);
  EXPECT_EQ(MustRun(Work("by_pc_c")), kSaidByC);
  EXPECT_EQ(MustRun(Work("by_pc_cc")), kSaidByCxx);
  EXPECT_EQ(MustRun("PKG_CONFIG_PATH=" + Libraries() + "/pkgconfig pkg-config --modversion qxdict qxlib"),
            "1.0.0\n1.0.0\n");
}

TEST_F(InstallTest, IsFetched) {
  const std::string archive = Work("qxdict.tar.gz");
  MustRun("tar -C " QX_SOURCE_DIR " --exclude=./build --exclude=./.git -czf " + archive + " .");
  ExpectConsumerWorks("FetchContent", "-DSOURCE=" + archive);
}

TEST_F(InstallTest, IsASubdirectory) { ExpectConsumerWorks("add_subdirectory", "-DSOURCE=" QX_SOURCE_DIR); }

// A program that takes only what libqxdict itself offers need not know where its base library is.
TEST_F(InstallTest, LibraryFindsItsBaseLibraryBesideItself) {
  EXPECT_THAT(MustRun("readelf -d " + Libraries() + "/libqxdict.so"), HasSubstr("[$ORIGIN]"));
  EXPECT_THAT(MustRun("ldd " + Libraries() + "/libqxdict.so"), HasSubstr(Libraries() + "/libqxlib.so.1"));
}

TEST_F(InstallTest, ProgramRunsWhereItIs) {
  EXPECT_EQ(MustRun(Prefix() + "/bin/qxdict --version"), "qxdict 1.0.0\n");
  EXPECT_THAT(support::ReadFile(Prefix() + "/share/man/man1/qxdict.1"), HasSubstr(".SH EXIT STATUS"));
}

TEST_F(InstallTest, UninstallLeavesNothing) {
  const std::string prefix = Work("gone");
  fs::create_directories(prefix);
  MustRun(std::string(QX_CMAKE) + " --install " QX_BUILD_DIR " --prefix " + prefix);
  EXPECT_FALSE(fs::is_empty(prefix));
  MustRun(std::string(QX_CMAKE) + " --build " QX_BUILD_DIR " --target uninstall");
  EXPECT_TRUE(fs::exists(prefix));
  EXPECT_TRUE(fs::is_empty(prefix)) << MustRun("find " + prefix);
}

TEST_F(InstallTest, UninstallLeavesWhatIsNotOurs) {
  const std::string prefix = Work("shared");
  fs::create_directories(prefix + "/include");
  std::ofstream(prefix + "/include/other.h") << "/* somebody else's */\n";
  MustRun(std::string(QX_CMAKE) + " --install " QX_BUILD_DIR " --prefix " + prefix);
  MustRun(std::string(QX_CMAKE) + " --build " QX_BUILD_DIR " --target uninstall");
  EXPECT_EQ(Tree(prefix), std::set<std::string>{"include/other.h"});
}

}  // namespace
