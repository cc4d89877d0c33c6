// Channels over files and devices, whatever the system calls beneath them do.

#include "qxlib/channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/descriptors.h"
#include "support/files.h"
#include "support/limits.h"
#include "support/system_calls.h"

namespace {

namespace calls = support::calls;

constexpr size_t kBuffer = 11680;

std::string Bytes(size_t count) {
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; i++) bytes[i] = static_cast<char>(i * 7 + i / 251);
  return bytes;
}

class ChannelTest : public ::testing::Test {
 protected:
  ChannelTest() { calls::Reset(); }
  ~ChannelTest() override { calls::Reset(); }

  std::string path() const { return dir_.file("file"); }

  Channel* Open(const char* mode) {
    Channel* f = ChannelNew(-1, -1);
    EXPECT_EQ(ChannelOpenFile(f, path().c_str(), mode), TRUE) << strerror(errno);
    return f;
  }

  // Reads `count` bytes of a file in pieces; what ended it is in `result`.
  static std::string Read(Channel* f, size_t count, size_t piece, Int* result) {
    std::string bytes(count, '\xEE');
    *result = 0;
    for (size_t at = 0; at < count && *result == 0; at += piece) {
      *result = ChannelReadBuf(f, bytes.data() + at, std::min(piece, count - at), 0);
    }
    return bytes;
  }

  support::TemporaryDirectory dir_;
};

using ChannelOpen = ChannelTest;
using ChannelRead = ChannelTest;
using ChannelWrite = ChannelTest;
using ChannelSyncing = ChannelTest;
using ChannelClosing = ChannelTest;
using ChannelDevice = ChannelTest;
using ChannelDeathTest = ChannelTest;

TEST_F(ChannelOpen, TakesTheThreeModesAndNoOther) {
  Channel* f = ChannelNew(-1, -1);
  EXPECT_EQ(ChannelOpenFile(f, path().c_str(), "rw"), FALSE);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ChannelOpenFile(f, path().c_str(), ""), FALSE);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ChannelOpenFile(f, path().c_str(), "r"), FALSE);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(std::filesystem::exists(path()));
  EXPECT_EQ(ChannelOpenFile(f, path().c_str(), "a"), TRUE);
  EXPECT_TRUE(std::filesystem::exists(path()));
  EXPECT_EQ(ChannelClose(f), TRUE);
}

TEST_F(ChannelOpen, AppendsOrStartsAnew) {
  support::WriteFile(path(), "old");
  Channel* f = Open("a");
  ChannelWriteBuf(f, "new", 3);
  EXPECT_EQ(ChannelClose(f), TRUE);
  EXPECT_EQ(support::ReadFile(path()), "oldnew");
  f = Open("w");
  EXPECT_EQ(support::ReadFile(path()), "");
  ChannelWriteBuf(f, "newer", 5);
  EXPECT_EQ(ChannelClose(f), TRUE);
  EXPECT_EQ(support::ReadFile(path()), "newer");
}

TEST_F(ChannelOpen, RefusesDirectoriesAndASecondFile) {
  Channel* f = ChannelNew(-1, -1);
  const long before = support::OpenDescriptors();
  EXPECT_EQ(ChannelOpenFile(f, dir_.path().c_str(), "r"), FALSE);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(ChannelOpenFile(f, dir_.path().c_str(), "w"), FALSE);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(support::OpenDescriptors(), before);
  EXPECT_EQ(ChannelOpenFile(f, path().c_str(), "w"), TRUE);
  EXPECT_EQ(ChannelOpenFile(f, path().c_str(), "w"), FALSE);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(ChannelClose(f), TRUE);
  EXPECT_EQ(support::OpenDescriptors(), before);
}

TEST_F(ChannelOpen, ProgramsThatAreStartedDoNotInheritTheFile) {
  Channel* f = Open("w");
  EXPECT_TRUE(support::IsCloseOnExec(f->fd));
  EXPECT_TRUE(support::IsCloseOnExec(f->directory));
  EXPECT_EQ(ChannelClose(f), TRUE);
}

TEST_F(ChannelDeathTest, FilesNeverLandOnTheStandardStreams) {
  EXPECT_EXIT(
      {
        support::CloseStandardStreams();
        Channel* f = ChannelNew(-1, -1);
        const bool opened = ChannelOpenFile(f, path().c_str(), "w") != FALSE;
        _exit(opened && f->fd > 2 && f->directory > 2 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ChannelRead, GivesTheBytesInAnyPieces) {
  for (const size_t size : {size_t{0}, size_t{1}, kBuffer - 1, kBuffer, kBuffer + 1, 3 * kBuffer + 17}) {
    support::WriteFile(path(), Bytes(size));
    for (const size_t piece : {size_t{1}, size_t{1000}, kBuffer - 1, kBuffer, kBuffer + 1, 2 * kBuffer + 5}) {
      Channel* f = Open("r");
      Int result;
      EXPECT_TRUE(Read(f, size, piece, &result) == Bytes(size)) << size << " in pieces of " << piece;
      EXPECT_EQ(result, 0);
      char more;
      EXPECT_EQ(ChannelReadBuf(f, &more, 1, 0), 1);
      EXPECT_EQ(errno, 0);
      EXPECT_EQ(ChannelClose(f), TRUE);
    }
  }
}

TEST_F(ChannelRead, GoesOnAfterShortAndInterruptedReads) {
  const std::string bytes = Bytes(2 * kBuffer + 100);
  support::WriteFile(path(), bytes);
  for (const size_t piece : {size_t{64}, 2 * kBuffer}) {
    calls::Reset();
    calls::reads.most_bytes = 33;
    calls::reads.interrupted_before = 2;
    Channel* f = Open("r");
    Int result;
    EXPECT_TRUE(Read(f, bytes.size(), piece, &result) == bytes);
    EXPECT_EQ(result, 0);
    calls::Reset();
    EXPECT_EQ(ChannelClose(f), TRUE);
  }
}

TEST_F(ChannelRead, TellsAnErrorFromAnEnd) {
  support::WriteFile(path(), Bytes(100));
  Channel* f = Open("r");
  calls::reads.fail_behind = 40;
  calls::reads.error = EIO;
  std::string bytes(100, '\0');
  EXPECT_EQ(ChannelReadBuf(f, bytes.data(), 100, 0), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(bytes.substr(0, 40), Bytes(40));
  calls::Reset();
  EXPECT_EQ(ChannelReadBuf(f, bytes.data() + 40, 61, 0), 1);
  EXPECT_EQ(errno, 0);
  EXPECT_TRUE(bytes == Bytes(100));
  EXPECT_EQ(ChannelReadByte_(f, 0), -1);
  EXPECT_EQ(ChannelClose(f), TRUE);
}

TEST_F(ChannelRead, BytesAndBuffersAndTheCallersOwnHandTakeTurns) {
  support::WriteFile(path(), std::string("\xFF\x00", 2) + "abcdef");
  Channel* f = Open("r");
  EXPECT_EQ(ChannelReadByte_(f, 0), 255);
  EXPECT_EQ(ChannelReadByte_(f, 0), 0);
  char two[2];
  EXPECT_EQ(ChannelReadBuf(f, two, 2, 0), 0);
  EXPECT_EQ(std::string(two, 2), "ab");
  EXPECT_EQ(f->inFirst, 4);
  EXPECT_EQ(f->inSize, 8);
  EXPECT_EQ(f->inBuf[f->inFirst++], 'c');
  EXPECT_EQ(ChannelReadByte_(f, 0), 'd');
  EXPECT_EQ(ChannelReadBuf(f, two, 0, 0), 0);
  EXPECT_EQ(ChannelReadBuf(f, two, 2, 0), 0);
  EXPECT_EQ(std::string(two, 2), "ef");
  EXPECT_EQ(ChannelReadByte_(f, 0), -1);
  EXPECT_EQ(ChannelClose(f), TRUE);
}

TEST_F(ChannelRead, AnUnopenedChannelHasNothing) {
  Channel* f = ChannelNew(-1, -1);
  char byte;
  EXPECT_EQ(ChannelReadBuf(f, &byte, 0, 0), 0);
  EXPECT_EQ(ChannelReadBuf(f, &byte, 1, 0), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(ChannelReadByte_(f, 0), -1);
  EXPECT_EQ(ChannelClose(f), TRUE);
}

TEST_F(ChannelRead, GivesUpAfterItsTime) {
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  const int other = open(path().c_str(), O_RDWR | O_CLOEXEC);
  Channel* f = ChannelNew(30, 30);
  ASSERT_EQ(ChannelOpenFile(f, path().c_str(), "r"), TRUE);
  char byte;
  EXPECT_EQ(ChannelReadBuf(f, &byte, 1, 0), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  ASSERT_EQ(write(other, "x", 1), 1);
  EXPECT_EQ(ChannelReadBuf(f, &byte, 1, 0), 0);
  EXPECT_EQ(byte, 'x');
  EXPECT_EQ(ChannelClose(f), TRUE);
  close(other);
}

TEST_F(ChannelWrite, KeepsTheOrderOfBytesInAnyPieces) {
  for (const size_t piece : {size_t{1}, size_t{1000}, kBuffer - 1, kBuffer, kBuffer + 1, 2 * kBuffer + 5}) {
    const std::string bytes = Bytes(3 * kBuffer + 17);
    Channel* f = Open("w");
    for (size_t at = 0; at < bytes.size(); at += piece) {
      EXPECT_EQ(ChannelWriteBuf(f, bytes.data() + at, std::min(piece, bytes.size() - at)), TRUE);
    }
    EXPECT_EQ(ChannelWriteBuf(f, nullptr, 0), TRUE);
    EXPECT_EQ(ChannelClose(f), TRUE);
    EXPECT_TRUE(support::ReadFile(path()) == bytes) << piece;
  }
}

TEST_F(ChannelWrite, TheCallersOwnHandFillsTheBufferAndFlushEmptiesIt) {
  Channel* f = Open("w");
  f->outBuf[f->outSize++] = 'a';
  ChannelWriteBuf(f, "b", 1);
  f->outBuf[f->outSize++] = 'c';
  EXPECT_EQ(f->outSize, 3);
  EXPECT_EQ(support::ReadFile(path()), "");
  EXPECT_EQ(ChannelFlush(f), TRUE);
  EXPECT_EQ(f->outSize, 0);
  EXPECT_EQ(support::ReadFile(path()), "abc");
  EXPECT_EQ(ChannelClose(f), TRUE);
}

TEST_F(ChannelWrite, GoesOnAfterShortAndInterruptedWrites) {
  const std::string bytes = Bytes(2 * kBuffer + 100);
  for (const size_t piece : {size_t{64}, 2 * kBuffer}) {
    calls::Reset();
    calls::writes.most_bytes = 33;
    calls::writes.interrupted_before = 2;
    Channel* f = Open("w");
    for (size_t at = 0; at < bytes.size(); at += piece) {
      EXPECT_EQ(ChannelWriteBuf(f, bytes.data() + at, std::min(piece, bytes.size() - at)), TRUE);
    }
    EXPECT_EQ(ChannelClose(f), TRUE);
    calls::Reset();
    EXPECT_TRUE(support::ReadFile(path()) == bytes);
  }
}

// Wherever a write fails: what has arrived is a beginning of what was sent, and everything later says so again.
TEST_F(ChannelWrite, TheFirstFailureStays) {
  const std::string bytes = Bytes(2 * kBuffer);
  for (const size_t fail_behind : {size_t{0}, size_t{1}, kBuffer - 1, kBuffer, kBuffer + 1, 2 * kBuffer - 1}) {
    for (const size_t piece : {size_t{100}, kBuffer}) {
      calls::Reset();
      Channel* f = Open("w");
      calls::writes.fail_behind = fail_behind;
      calls::writes.error = ENOSPC;
      for (size_t at = 0; at < bytes.size(); at += piece) {
        ChannelWriteBuf(f, bytes.data() + at, std::min(piece, bytes.size() - at));
      }
      EXPECT_EQ(ChannelFlush(f), FALSE);
      EXPECT_EQ(errno, ENOSPC);
      EXPECT_EQ(f->outSize, 0);
      calls::writes = {};
      errno = 0;
      EXPECT_EQ(ChannelWriteBuf(f, "x", 1), FALSE);
      EXPECT_EQ(errno, ENOSPC);
      EXPECT_EQ(ChannelSync(f), FALSE);
      EXPECT_EQ(errno, ENOSPC);
      calls::close_error = EIO;  // fails too, and later
      errno = 0;
      EXPECT_EQ(ChannelClose(f), FALSE);
      EXPECT_EQ(errno, ENOSPC);
      EXPECT_TRUE(calls::synced.empty());
      EXPECT_TRUE(support::ReadFile(path()) == bytes.substr(0, fail_behind)) << fail_behind << " " << piece;
    }
  }
}

TEST_F(ChannelWrite, AFullDeviceIsAnError) {
  Channel* f = ChannelNew(-1, -1);
  ASSERT_EQ(ChannelOpenFile(f, "/dev/full", "w"), TRUE);
  EXPECT_EQ(ChannelWriteBuf(f, "x", 1), TRUE);  // waits in the buffer
  EXPECT_EQ(ChannelFlush(f), FALSE);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(ChannelClose(f), FALSE);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(ChannelDeathTest, AFileThatMayNotGrowIsAnError) {
  EXPECT_EXIT(
      {
        support::LimitFileSize(5);
        Channel* f = ChannelNew(-1, -1);
        ChannelOpenFile(f, path().c_str(), "w");
        ChannelWriteBuf(f, "0123456789", 10);
        const bool failed = !ChannelClose(f) && errno == EFBIG;
        _exit(failed ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(support::ReadFile(path()), "01234");
}

TEST_F(ChannelWrite, AnUnopenedChannelTakesNothing) {
  Channel* f = ChannelNew(-1, -1);
  EXPECT_EQ(ChannelWriteBuf(f, "x", 1), FALSE);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(ChannelSync(f), FALSE);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(ChannelClose(f), TRUE);
}

TEST_F(ChannelWrite, AFileOpenedForReadingTakesNothing) {
  support::WriteFile(path(), "old");
  Channel* f = Open("r");
  EXPECT_EQ(ChannelWriteBuf(f, "x", 1), TRUE);  // waits in the buffer
  EXPECT_EQ(ChannelClose(f), FALSE);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(support::ReadFile(path()), "old");
}

// Each of the two times holds by itself, none at all among them.
TEST_F(ChannelRead, GivesUpAfterItsTimeWhateverThatOfWritingIs) {
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  const int other = open(path().c_str(), O_RDWR | O_CLOEXEC);
  for (const TimeMilliseconds time : {30, 1, 0}) {
    Channel* f = ChannelNew(time, -1);
    ASSERT_EQ(ChannelOpenFile(f, path().c_str(), "r"), TRUE);
    char byte;
    EXPECT_EQ(ChannelReadBuf(f, &byte, 1, 0), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(ChannelClose(f), TRUE);
  }
  close(other);
}

TEST_F(ChannelRead, AWaitThatFailsIsAFailure) {
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  const int other = open(path().c_str(), O_RDWR | O_CLOEXEC);
  Channel* f = ChannelNew(2000, 2000);
  ASSERT_EQ(ChannelOpenFile(f, path().c_str(), "r"), TRUE);
  char byte;
  Int result = 0;
  {
    const support::SoftLimit limit(RLIMIT_NOFILE, 0);  // of descriptors, which poll then refuses
    result = ChannelReadBuf(f, &byte, 1, 0);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ChannelClose(f), TRUE);
  close(other);
}

TEST_F(ChannelWrite, GivesUpAfterItsTimeWhateverThatOfReadingIs) {
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  const int other = open(path().c_str(), O_RDWR | O_CLOEXEC);
  const std::string bytes = Bytes(1 << 20);
  for (const TimeMilliseconds time : {30, 0}) {
    Channel* f = ChannelNew(-1, time);
    ASSERT_EQ(ChannelOpenFile(f, path().c_str(), "w"), TRUE);
    EXPECT_EQ(ChannelWriteBuf(f, bytes.data(), bytes.size()), FALSE);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(ChannelClose(f), FALSE);
  }
  close(other);
}

TEST_F(ChannelWrite, GivesUpAfterItsTime) {
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  const int other = open(path().c_str(), O_RDWR | O_CLOEXEC);
  Channel* f = ChannelNew(30, 30);
  ASSERT_EQ(ChannelOpenFile(f, path().c_str(), "w"), TRUE);
  const std::string bytes = Bytes(1 << 20);  // more than a pipe holds
  EXPECT_EQ(ChannelWriteBuf(f, bytes.data(), bytes.size()), FALSE);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(ChannelClose(f), FALSE);
  EXPECT_EQ(errno, ETIMEDOUT);
  close(other);
}

TEST_F(ChannelSyncing, AFilesNameIsSyncedOnce) {
  Channel* f = Open("w");
  ChannelWriteBuf(f, "x", 1);
  EXPECT_EQ(ChannelSync(f), TRUE);
  EXPECT_EQ(support::ReadFile(path()), "x");
  EXPECT_EQ(calls::synced, (std::vector<std::string>{"file", "directory"}));
  EXPECT_EQ(ChannelSync(f), TRUE);
  EXPECT_EQ(calls::synced, (std::vector<std::string>{"file", "directory", "file"}));
  EXPECT_EQ(ChannelClose(f), TRUE);
}

// Whoever created it may have died before he synced its name.
TEST_F(ChannelSyncing, TheNameOfAFileThatWasThereToo) {
  for (const char* mode : {"w", "a"}) {
    support::WriteFile(path(), "old");
    calls::Reset();
    Channel* f = Open(mode);
    EXPECT_EQ(ChannelSync(f), TRUE) << mode;
    EXPECT_EQ(calls::synced, (std::vector<std::string>{"file", "directory"})) << mode;
    EXPECT_EQ(ChannelClose(f), TRUE) << mode;
  }
}

TEST_F(ChannelSyncing, ClosingDoesNotSync) {
  Channel* f = Open("w");
  ChannelWriteBuf(f, "x", 1);
  EXPECT_EQ(ChannelClose(f), TRUE);
  EXPECT_TRUE(calls::synced.empty());
}

TEST_F(ChannelSyncing, AFailureOfFileOrDirectoryStaysAndIsNotTriedAgain) {
  for (const int from : {0, 1}) {
    std::filesystem::remove(path());
    calls::Reset();
    Channel* f = Open("w");
    calls::fsync_error = EIO;
    calls::fsync_from = from;
    EXPECT_EQ(ChannelSync(f), FALSE);
    EXPECT_EQ(errno, EIO);
    calls::fsync_error = 0;
    calls::synced.clear();
    EXPECT_EQ(ChannelSync(f), FALSE);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(calls::synced.empty());
    EXPECT_EQ(ChannelClose(f), FALSE);
    EXPECT_EQ(errno, EIO);
  }
}

// Some file systems do not sync directories. All of them is then synced; what that says is of other files too.
TEST_F(ChannelSyncing, ADirectoryThatCannotBeSyncedIsSyncedWithItsFileSystem) {
  Channel* f = Open("w");
  calls::fsync_error = EINVAL;
  calls::fsync_from = 1;
  calls::syncfs_error = EIO;
  EXPECT_EQ(ChannelSync(f), TRUE);
  EXPECT_EQ(calls::synced, (std::vector<std::string>{"file", "directory", "file system"}));
  EXPECT_EQ(ChannelClose(f), TRUE);
}

TEST_F(ChannelSyncing, PipesHaveNothingToSync) {
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  const int other = open(path().c_str(), O_RDWR | O_CLOEXEC);
  Channel* f = Open("w");
  ChannelWriteBuf(f, "x", 1);
  EXPECT_EQ(ChannelSync(f), TRUE);
  EXPECT_TRUE(calls::synced.empty());
  char byte = 0;
  EXPECT_EQ(read(other, &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
  EXPECT_EQ(ChannelClose(f), TRUE);
  close(other);
}

TEST_F(ChannelClosing, NoChannelIsClosed) { EXPECT_EQ(ChannelClose(nullptr), TRUE); }

TEST_F(ChannelClosing, WritesWhatWaitsAndGivesTheDescriptorsBack) {
  const long before = support::OpenDescriptors();
  Channel* f = Open("w");
  ChannelWriteBuf(f, "last", 4);
  EXPECT_EQ(ChannelClose(f), TRUE);
  EXPECT_EQ(support::ReadFile(path()), "last");
  EXPECT_EQ(support::OpenDescriptors(), before);
}

TEST_F(ChannelClosing, ReportsAFailureButNoInterruption) {
  Channel* f = Open("w");
  calls::close_error = EDQUOT;
  EXPECT_EQ(ChannelClose(f), FALSE);
  EXPECT_EQ(errno, EDQUOT);
  f = Open("w");
  calls::close_error = EINTR;  // the descriptor is gone all the same
  EXPECT_EQ(ChannelClose(f), TRUE);
}

// A device that does what a test tells it.
struct Device {
  std::string input;
  size_t taken = 0;
  std::string output;
  ssize_t answer = 0;  // when not 0: what reading and writing say in place of what they did
  int error = 0;       // what errno is then
  bool idle = false;   // reads and writes do nothing, successfully
  int shutdown_result = 0;
  int sync_result = 0;
  int shutdowns = 0;
  int closes = 0;
  int syncs = 0;

  static ssize_t Read(void* buffer, size_t count, void* arg) {
    auto* device = static_cast<Device*>(arg);
    if (device->answer != 0) return device->Answer();
    const size_t got = device->idle ? 0 : std::min({count, size_t{7}, device->input.size() - device->taken});
    memcpy(buffer, device->input.data() + device->taken, got);
    device->taken += got;
    return static_cast<ssize_t>(got);
  }
  static ssize_t Write(const void* buffer, size_t count, void* arg) {
    auto* device = static_cast<Device*>(arg);
    if (device->answer != 0) return device->Answer();
    const size_t took = device->idle ? 0 : std::min(count, size_t{7});
    device->output.append(static_cast<const char*>(buffer), took);
    return static_cast<ssize_t>(took);
  }
  static void Close(void* arg) { static_cast<Device*>(arg)->closes++; }
  static int Shutdown(void* arg) {
    auto* device = static_cast<Device*>(arg);
    device->shutdowns++;
    errno = device->error;
    return device->shutdown_result;
  }
  static int Sync(void* arg) {
    auto* device = static_cast<Device*>(arg);
    device->syncs++;
    errno = device->error;
    return device->sync_result;
  }
  ssize_t Answer() const {
    errno = error;
    return answer;
  }

  ChannelVirtual operations() { return {Read, Write, Close, Shutdown, Sync, this}; }
};

Channel* Over(const ChannelVirtual* operations) {
  Channel* f = ChannelNew(-1, -1);
  f->device = operations;
  return f;
}

TEST_F(ChannelDevice, IsReadWrittenSyncedAndClosed) {
  Device device;
  device.input = Bytes(100);
  const ChannelVirtual operations = device.operations();
  Channel* f = Over(&operations);
  EXPECT_EQ(ChannelOpenFile(f, path().c_str(), "w"), FALSE);
  EXPECT_EQ(errno, EBUSY);
  std::string bytes(100, '\0');
  EXPECT_EQ(ChannelReadBuf(f, bytes.data(), 100, 0), 0);
  EXPECT_TRUE(bytes == Bytes(100));
  EXPECT_EQ(ChannelReadByte_(f, 0), -1);
  EXPECT_EQ(ChannelWriteBuf(f, bytes.data(), 100), TRUE);
  EXPECT_EQ(ChannelSync(f), TRUE);
  EXPECT_TRUE(device.output == Bytes(100));
  EXPECT_EQ(ChannelClose(f), TRUE);
  EXPECT_EQ(device.syncs, 1);
  EXPECT_EQ(device.shutdowns, 1);
  EXPECT_EQ(device.closes, 1);
}

TEST_F(ChannelDevice, ThatClaimsMoreThanItWasAskedForFails) {
  Device device;
  device.answer = static_cast<ssize_t>(kBuffer) + 1;
  const ChannelVirtual operations = device.operations();
  Channel* f = Over(&operations);
  char byte;
  EXPECT_EQ(ChannelReadBuf(f, &byte, 1, 0), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(f->inSize, 0);
  ChannelWriteBuf(f, "x", 1);
  EXPECT_EQ(ChannelFlush(f), FALSE);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(ChannelClose(f), FALSE);
}

// A system call moves so many bytes at most. The device's stand for it, and look at nothing: of the memory there are
// only addresses.
TEST_F(ChannelDevice, FiveGibibytesAreMovedInPieces) {
  static constexpr size_t kMostOfACall = 2147479552;
  constexpr size_t kCount = size_t{5} << 30;
  void* const memory = mmap(nullptr, kCount, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  struct Calls {
    std::vector<size_t> asked;
    ssize_t Take(size_t count) {
      asked.push_back(count);
      return static_cast<ssize_t>(std::min(count, kMostOfACall));
    }
  } moved;
  const ChannelVirtual operations = {
      [](void*, size_t count, void* arg) { return static_cast<Calls*>(arg)->Take(count); },
      [](const void*, size_t count, void* arg) { return static_cast<Calls*>(arg)->Take(count); },
      nullptr,
      nullptr,
      nullptr,
      &moved};
  Channel* f = Over(&operations);
  EXPECT_EQ(ChannelReadBuf(f, memory, kCount, 0), 0);
  EXPECT_EQ(moved.asked, (std::vector<size_t>{5368709120, 3221229568, 1073750016}));
  moved.asked.clear();
  EXPECT_EQ(ChannelWriteBuf(f, memory, kCount), TRUE);
  EXPECT_EQ(moved.asked, (std::vector<size_t>{5368709120, 3221229568, 1073750016}));
  EXPECT_EQ(ChannelClose(f), TRUE);
  munmap(memory, kCount);
}

TEST_F(ChannelDevice, ThatTakesNothingForEverFails) {
  Device device;
  device.idle = true;
  const ChannelVirtual operations = device.operations();
  Channel* f = Over(&operations);
  char byte;
  EXPECT_EQ(ChannelReadBuf(f, &byte, 1, 0), 1);  // an end
  ChannelWriteBuf(f, "x", 1);
  EXPECT_EQ(ChannelFlush(f), FALSE);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(ChannelClose(f), FALSE);
}

TEST_F(ChannelDevice, ThatFailsWithoutAReasonGetsOne) {
  Device device;
  device.answer = -1;
  const ChannelVirtual operations = device.operations();
  Channel* f = Over(&operations);
  char byte;
  EXPECT_EQ(ChannelReadBuf(f, &byte, 1, 0), -1);
  EXPECT_EQ(errno, EIO);
  device.error = ECONNRESET;
  EXPECT_EQ(ChannelReadBuf(f, &byte, 1, 0), -1);
  EXPECT_EQ(errno, ECONNRESET);
  ChannelWriteBuf(f, "x", 1);
  EXPECT_EQ(ChannelFlush(f), FALSE);
  EXPECT_EQ(errno, ECONNRESET);
  EXPECT_EQ(ChannelClose(f), FALSE);
}

TEST_F(ChannelDevice, ThatFailsSilentlyIsNotGivenAnOldReason) {
  const ChannelVirtual operations = {[](void*, size_t, void*) -> ssize_t { return -1; },
                                     [](const void*, size_t, void*) -> ssize_t { return -1; },
                                     nullptr,
                                     [](void*) { return -1; },
                                     [](void*) { return -1; },
                                     nullptr};
  Channel* f = Over(&operations);
  char byte;
  errno = ENOENT;
  EXPECT_EQ(ChannelReadBuf(f, &byte, 1, 0), -1);
  EXPECT_EQ(errno, EIO);
  errno = ENOENT;
  EXPECT_EQ(ChannelSync(f), FALSE);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(ChannelClose(f), FALSE);

  f = Over(&operations);
  ChannelWriteBuf(f, "x", 1);
  errno = ENOENT;
  EXPECT_EQ(ChannelFlush(f), FALSE);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(ChannelClose(f), FALSE);

  f = Over(&operations);
  errno = ENOENT;
  EXPECT_EQ(ChannelClose(f), FALSE);
  EXPECT_EQ(errno, EIO);
}

TEST_F(ChannelDevice, ThatCannotSyncOrShutDownSaysSo) {
  Device device;
  device.sync_result = -1;
  const ChannelVirtual operations = device.operations();
  Channel* f = Over(&operations);
  EXPECT_EQ(ChannelSync(f), FALSE);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(ChannelClose(f), FALSE);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(device.closes, 1);

  device = {};
  device.shutdown_result = -1;
  device.error = EPIPE;
  f = Over(&operations);
  EXPECT_EQ(ChannelClose(f), FALSE);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(device.closes, 1);
}

TEST_F(ChannelDevice, WithoutOperationsCanDoNothing) {
  const ChannelVirtual nothing = {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
  Channel* f = Over(&nothing);
  char byte;
  EXPECT_EQ(ChannelReadBuf(f, &byte, 1, 0), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(ChannelSync(f), FALSE);
  EXPECT_EQ(errno, ENOTSUP);
  EXPECT_EQ(ChannelClose(f), FALSE);
  f = Over(&nothing);
  EXPECT_EQ(ChannelClose(f), TRUE);
  f = Over(&nothing);
  ChannelWriteBuf(f, "x", 1);
  EXPECT_EQ(ChannelClose(f), FALSE);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
