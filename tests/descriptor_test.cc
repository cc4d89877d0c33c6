// Opening files of our own: never on the places of the standard streams, never left behind.

#include "util/descriptor_internal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/files.h"

namespace {

using support::TemporaryDirectory;

bool IsDirectory(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
}

TEST(OpenDescriptor, TellsTheErrorOfAFileThatIsNotThere) {
  errno = 0;
  EXPECT_EQ(qx::OpenDescriptor("/nowhere/at all", O_RDONLY), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(OpenDescriptor, IsClosedAcrossAnExec) {
  const int fd = qx::OpenDescriptor("/", O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 3);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  close(fd);
}

// Whichever of the standard streams are closed: the file gets a place behind them, and they are closed afterwards.
TEST(OpenDescriptor, LeavesThePlacesOfClosedStandardStreamsFree) {
  for (int closed = 0; closed < 8; closed++) {
    EXPECT_EXIT(
        {
          errno = EBADF;  // what a call before may have left
          for (int fd = 0; fd < 3; fd++) {
            if ((closed >> fd & 1) != 0) close(fd);
          }
          const int file = qx::OpenDescriptor("/", O_RDONLY | O_DIRECTORY);
          bool right = file == 3 || file > 3;
          for (int fd = 0; fd < 3; fd++) right = right && (fcntl(fd, F_GETFD) >= 0) == ((closed >> fd & 1) == 0);
          _exit(right && fcntl(file, F_GETFD) >= 0 ? 7 : 1);
        },
        testing::ExitedWithCode(7), "")
        << closed;
  }
}

TEST(OpenDirectoryOf, OpensTheDirectoryThatHoldsAFile) {
  const TemporaryDirectory directory;
  support::WriteFile(directory.file("f"), "");
  const int fd = qx::OpenDirectoryOf(directory.file("f").c_str());
  ASSERT_GE(fd, 3);
  struct stat ours, theirs;
  ASSERT_EQ(fstat(fd, &ours), 0);
  ASSERT_EQ(stat(directory.path().c_str(), &theirs), 0);
  EXPECT_EQ(ours.st_ino, theirs.st_ino);
  close(fd);
}

TEST(OpenDirectoryOf, KnowsTheRoot) {
  const int fd = qx::OpenDirectoryOf("/proc");
  EXPECT_TRUE(IsDirectory(fd));
  struct stat ours, theirs;
  ASSERT_EQ(fstat(fd, &ours), 0);
  ASSERT_EQ(stat("/", &theirs), 0);
  EXPECT_EQ(ours.st_ino, theirs.st_ino);
  close(fd);
}

TEST(OpenDirectoryOf, TellsTheErrorOfAFileThatIsNotThere) {
  errno = 0;
  EXPECT_EQ(qx::OpenDirectoryOf("/nowhere/at all"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(CloseKeepingErrno, KeepsErrno) {
  const int fd = qx::OpenDescriptor("/", O_RDONLY | O_DIRECTORY);
  errno = ENOSPC;
  qx::CloseKeepingErrno(fd);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  errno = ENOSPC;
  qx::CloseKeepingErrno(-1);
  EXPECT_EQ(errno, ENOSPC);
}

TEST(SyncDirectory, TakesWhatCannotBeSyncedForDone) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_TRUE(qx::SyncDirectory(ends[0]));  // EINVAL
  close(ends[0]);
  close(ends[1]);
  EXPECT_FALSE(qx::SyncDirectory(ends[0]));  // EBADF
  EXPECT_EQ(errno, EBADF);
}

TEST(SyncDirectory, OfAFileThatIsNotThereFails) {
  const support::TemporaryDirectory dir;
  EXPECT_FALSE(qx::SyncDirectoryOf(dir.file("missing").c_str()));
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
