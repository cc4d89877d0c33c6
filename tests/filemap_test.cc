// Read-only file mappings: of what can be mapped, and the errno of everything else.

#include "qxlib/filemap.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "support/descriptors.h"
#include "support/files.h"
#include "support/limits.h"

namespace {

// What a call gave, with outputs and errno set to nonsense before it.
struct Mapped {
  void* base;
  size_t size;
  Boolean empty;
  int error;
};

Mapped Map(const char* dir, const char* name) {
  Mapped result = {nullptr, 12345, 77, 0};
  errno = EXDEV;
  result.base = FileMapRead(dir, name, &result.size, &result.empty);
  result.error = errno;
  return result;
}

void ExpectFailure(const Mapped& mapped, int error) {
  EXPECT_EQ(mapped.base, nullptr);
  EXPECT_EQ(mapped.size, 0u);
  EXPECT_EQ(mapped.empty, FALSE);
  EXPECT_EQ(mapped.error, error) << strerror(mapped.error);
}

void ExpectContents(const Mapped& mapped, const std::string& contents) {
  ASSERT_NE(mapped.base, nullptr) << strerror(mapped.error);
  EXPECT_EQ(mapped.size, contents.size());
  EXPECT_EQ(mapped.empty, FALSE);
  EXPECT_EQ(std::string(static_cast<const char*>(mapped.base), mapped.size), contents);
  EXPECT_NE(FileUnmap(mapped.base, mapped.size), FALSE);
}

class FileMapTest : public testing::Test {
 protected:
  FileMapTest() {
    support::WriteFile(directory_.file("file"), "contents");
    support::WriteFile(directory_.file("empty"), "");
  }
  const char* dir() const { return directory_.path().c_str(); }

  support::TemporaryDirectory directory_;
};

TEST_F(FileMapTest, MapsAWholeFile) {
  ExpectContents(Map(dir(), "file"), "contents");
  std::string large;
  for (int i = 0; i < 100000; i++) large += static_cast<char>(i * 7);
  support::WriteFile(directory_.file("large"), large);
  ExpectContents(Map(dir(), "large"), large);
}

TEST_F(FileMapTest, ANullDirectoryMeansTheNameAlone) {
  ExpectContents(Map(nullptr, directory_.file("file").c_str()), "contents");
}

TEST_F(FileMapTest, DirectoriesAndNamesMayBeRelative) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::create_directory(directory_.file("sub"));
  support::WriteFile(directory_.file("sub/other"), "below");
  std::filesystem::current_path(directory_.path());
  ExpectContents(Map(".", "file"), "contents");
  ExpectContents(Map("sub", "other"), "below");
  ExpectContents(Map("sub/", "../file"), "contents");
  ExpectContents(Map(nullptr, "file"), "contents");
  std::filesystem::current_path(before);
}

TEST_F(FileMapTest, FollowsLinks) {
  std::filesystem::create_symlink("file", directory_.file("link"));
  ExpectContents(Map(dir(), "link"), "contents");
}

TEST_F(FileMapTest, AnEmptyFileIsToldApartFromAFailure) {
  const Mapped mapped = Map(dir(), "empty");
  EXPECT_EQ(mapped.base, nullptr);
  EXPECT_EQ(mapped.size, 0u);
  EXPECT_NE(mapped.empty, FALSE);
  EXPECT_EQ(mapped.error, ENODATA);
}

TEST_F(FileMapTest, NobodyNeedsToAskWhetherItIsEmpty) {
  size_t size = 1;
  void* base = FileMapRead(dir(), "file", &size, nullptr);
  EXPECT_EQ(size, 8u);
  EXPECT_NE(FileUnmap(base, size), FALSE);
  EXPECT_EQ(FileMapRead(dir(), "empty", &size, nullptr), nullptr);
  EXPECT_EQ(size, 0u);
}

TEST_F(FileMapTest, MissingFilesAndDirectories) {
  ExpectFailure(Map(dir(), "none"), ENOENT);
  ExpectFailure(Map("/no/such/directory", "file"), ENOENT);
  ExpectFailure(Map(directory_.file("file").c_str(), "below"), ENOTDIR);
  ExpectFailure(Map(nullptr, ""), ENOENT);
}

TEST_F(FileMapTest, ADirectoryIsNoFile) {
  ExpectFailure(Map(nullptr, dir()), EISDIR);
  ExpectFailure(Map(dir(), ""), EISDIR);
}

TEST_F(FileMapTest, AFifoIsRefusedWithoutWaitingForItsWriter) {
  ASSERT_EQ(mkfifo(directory_.file("fifo").c_str(), 0600), 0);
  ExpectFailure(Map(dir(), "fifo"), ENODEV);
}

TEST_F(FileMapTest, DevicesAreRefused) {
  ExpectFailure(Map(nullptr, "/dev/zero"), ENODEV);
  ExpectFailure(Map(nullptr, "/dev/null"), ENODEV);
}

TEST_F(FileMapTest, AFileThatTheKernelMakesUpIsNotEmptyAndCannotBeMapped) {
  ExpectFailure(Map("/proc/self", "status"), ENODEV);
}

TEST_F(FileMapTest, OverlongPathsAreRefusedByUs) {
  const std::string step = "./";
  std::string prefix;
  while (prefix.size() + step.size() <= 4000) prefix += step;
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory_.path());
  // 4095 bytes and the end is what a path can have: "././.../" + "/" + "file" with the prefix filled up.
  const std::string longest = prefix + std::string(4095 - prefix.size() - 5, '/');
  ExpectContents(Map(longest.c_str(), "file"), "contents");
  ExpectFailure(Map((longest + "/").c_str(), "file"), ENAMETOOLONG);
  ExpectFailure(Map(nullptr, std::string(4096, '/').c_str()), ENAMETOOLONG);
  ExpectFailure(Map(dir(), std::string(100000, 'n').c_str()), ENAMETOOLONG);
  ExpectFailure(Map(std::string(100000, 'd').c_str(), "file"), ENAMETOOLONG);
  std::filesystem::current_path(before);
  ExpectFailure(Map(dir(), std::string(256, 'n').c_str()), ENAMETOOLONG);
}

TEST_F(FileMapTest, LeavesNoDescriptorOpen) {
  const long before = support::OpenDescriptors();
  const Mapped mapped = Map(dir(), "file");
  Map(dir(), "empty");
  Map(dir(), "none");
  Map(nullptr, dir());
  Map(nullptr, "/dev/zero");
  EXPECT_EQ(support::OpenDescriptors(), before);
  EXPECT_NE(FileUnmap(mapped.base, mapped.size), FALSE);
}

TEST_F(FileMapTest, UnmappingFailsWithErrnoForWhatIsNoMapping) {
  errno = 0;
  EXPECT_EQ(FileUnmap(nullptr, 100), FALSE);
  EXPECT_EQ(errno, EINVAL);
  Mapped mapped = Map(dir(), "file");
  errno = 0;
  EXPECT_EQ(FileUnmap(static_cast<UByte*>(mapped.base) + 1, mapped.size), FALSE);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_NE(FileUnmap(mapped.base, mapped.size), FALSE);
}

using FileMapDeathTest = FileMapTest;

TEST_F(FileMapDeathTest, AnUnreadableFile) {
  ASSERT_EQ(chmod(dir(), 0755), 0);
  ASSERT_EQ(chmod(directory_.file("file").c_str(), 0), 0);
  EXPECT_EXIT(
      {
        if (geteuid() == 0 && setuid(65534) != 0) _exit(2);  // the superuser may read everything
        const Mapped mapped = Map(dir(), "file");
        _exit(mapped.base == nullptr && mapped.size == 0 && mapped.empty == FALSE && mapped.error == EACCES ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(FileMapDeathTest, AFileThatDoesNotFitTheAddressSpace) {
  ASSERT_EQ(truncate(directory_.file("file").c_str(), off_t{1} << 40), 0);
  EXPECT_EXIT(
      {
        support::LimitMemory();
        const Mapped mapped = Map(dir(), "file");
        _exit(mapped.base == nullptr && mapped.size == 0 && mapped.empty == FALSE && mapped.error == ENOMEM ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(FileMapDeathTest, WorksWithTheStandardStreamsClosed) {
  EXPECT_EXIT(
      {
        support::CloseStandardStreams();
        const Mapped mapped = Map(dir(), "file");
        const bool right = mapped.base != nullptr && mapped.size == 8 && memcmp(mapped.base, "contents", 8) == 0;
        _exit(right && open("/dev/null", O_RDONLY) == 0 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(FileMapDeathTest, WithoutADescriptorToSpareItFails) {
  EXPECT_EXIT(
      {
        const char* directory = dir();
        support::Limit(RLIMIT_NOFILE, 3);
        const Mapped mapped = Map(directory, "file");
        _exit(mapped.base == nullptr && mapped.error == EMFILE ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
