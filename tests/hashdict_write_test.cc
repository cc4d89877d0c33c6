// Writing perfect-hash dictionaries: bytes as the golden images have them, in each container and byte order, and
// failures of every kind.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "dict/hashdict.h"
#include "support/death.h"
#include "support/files.h"
#include "support/hashdict_keys.h"
#include "support/ledger.h"

namespace {

// The channel operations that fail on demand; 0: the real one answers.
int fail_open = 0, fail_sync = 0, fail_close = 0;
int disturb_close = 0;  // errno that a close leaves behind though it succeeds

template <typename Function>
Function* Real(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

Boolean ChannelOpenFile(Channel* f, const char* path, const char* mode) {
  if (fail_open == 0) return Real(ChannelOpenFile, "ChannelOpenFile")(f, path, mode);
  errno = fail_open;
  return FALSE;
}

Boolean ChannelSync(Channel* f) {
  const Boolean done = Real(ChannelSync, "ChannelSync")(f);
  if (fail_sync == 0) return done;
  errno = fail_sync;
  return FALSE;
}

Boolean ChannelClose(Channel* f) {
  const Boolean done = Real(ChannelClose, "ChannelClose")(f);
  if (disturb_close != 0) errno = disturb_close;
  if (fail_close == 0) return done;
  errno = fail_close;
  return FALSE;
}

}  // extern "C"

namespace {

using support::KeySet;
using support::Ledger;
using support::NumberWords;
using support::Peek;
using support::Poke;

constexpr const char* kModule = "dict/hashdict";

std::string Golden(const std::string& name) { return support::ReadFile(support::GoldenPath(name)); }

// A dictionary around an image.
class Opened {
 public:
  explicit Opened(std::string image) : image_(std::move(image)) {
    EXPECT_TRUE(HashDictMemOpen_(&hdict_, reinterpret_cast<UByte*>(image_.data()), image_.size(), TRUE));
  }
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;
  const HashDict* get() const { return &hdict_; }
  size_t size() const { return image_.size(); }
  const std::string& image() const { return image_; }

 private:
  std::string image_;
  HashDict hdict_;
};

// A channel to a device that takes so many bytes and then fails.
class Device {
 public:
  explicit Device(size_t limit = SIZE_MAX) : limit_(limit), channel_(ChannelNew(-1, -1)) { channel_->device = &table_; }
  ~Device() { ChannelClose(channel_); }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  Channel* channel() const { return channel_; }
  const std::string& written() const { return written_; }
  std::string Flushed() {
    EXPECT_TRUE(ChannelFlush(channel_));
    return written_;
  }

 private:
  static ssize_t Write(const void* from, size_t count, void* arg) {
    auto* device = static_cast<Device*>(arg);
    const size_t room = device->limit_ - device->written_.size();
    if (room == 0) {
      errno = ENOSPC;
      return -1;
    }
    count = std::min(count, room);
    device->written_.append(static_cast<const char*>(from), count);
    return static_cast<ssize_t>(count);
  }

  size_t limit_;
  std::string written_;
  const ChannelVirtual table_ = {nullptr, Write, nullptr, nullptr, nullptr, this};
  Channel* channel_;
};

std::string Reversed(std::string bytes) {
  std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

template <typename T>
std::string Number(T value) {
  std::string bytes(sizeof value, '\0');
  Poke(&bytes, 0, value);
  return bytes;
}

const char* const kImages[] = {"hashdict-plain.dic", "hashdict-probe3.dic",   "hashdict-values.dic", "hashdict-odd.dic",
                               "hashdict-empty.dic", "hashdict-emptykey.dic", "hashdict-bytes.dic"};

// A dictionary whose image fills several channel buffers.
std::string LargeImage() {
  static const std::string image = [] {
    KeySet set;
    for (int i = 0; i < 20000; i++) set.keys.push_back(std::to_string(i * 7919));
    HashDict* hdict = set.Build(1);
    std::string bytes = support::ImageOf(hdict);
    HashDictFree(hdict);
    return bytes;
  }();
  return image;
}

TEST(HashDictFileWriteBare, WritesTheImage) {
  for (const char* name : kImages) {
    const Opened opened(Golden(name));
    Device device;
    EXPECT_TRUE(HashDictFileWrite_(opened.get(), device.channel(), FALSE));
    EXPECT_TRUE(device.Flushed() == opened.image()) << name;
  }
}

TEST(HashDictFileWriteBare, WritesTheSwappedImage) {
  const Opened opened(Golden("hashdict-probe3.dic"));
  Device device;
  EXPECT_TRUE(HashDictFileWrite_(opened.get(), device.channel(), TRUE));
  support::ExpectGolden("hashdict-swapped.dic", device.Flushed());
}

TEST(HashDictFileWriteBare, AnyValueButZeroSwaps) {
  const Opened opened(Golden("hashdict-probe3.dic"));
  Device device;
  EXPECT_TRUE(HashDictFileWrite_(opened.get(), device.channel(), -2));
  support::ExpectGolden("hashdict-swapped.dic", device.Flushed());
}

TEST(HashDictFileWriteBare, AppendsToWhatTheChannelHolds) {
  const Opened opened(Golden("hashdict-plain.dic"));
  for (const Boolean swap : {FALSE, TRUE}) {
    Device device;
    EXPECT_TRUE(ChannelWriteBuf(device.channel(), "before", 6));
    EXPECT_TRUE(HashDictFileWrite_(opened.get(), device.channel(), swap));
    EXPECT_TRUE(ChannelWriteBuf(device.channel(), "behind", 6));
    const std::string written = device.Flushed();
    EXPECT_EQ(written.substr(0, 6), "before");
    EXPECT_EQ(written.substr(6 + 2744), "behind");
  }
}

TEST(HashDictFileWriteBare, ALargeImageCrossesManyBuffers) {
  const Opened opened(LargeImage());
  ASSERT_GT(opened.size(), 3u * QX_CHANNEL_BUFFER);
  Device plain, swapped;
  EXPECT_TRUE(HashDictFileWrite_(opened.get(), plain.channel(), FALSE));
  EXPECT_TRUE(plain.Flushed() == opened.image());
  EXPECT_TRUE(HashDictFileWrite_(opened.get(), swapped.channel(), TRUE));
  // Swapping each array's elements back gives the image.
  std::string back = swapped.Flushed();
  ASSERT_EQ(back.size(), opened.size());
  const HashDict* hdict = opened.get();
  size_t at = 48;
  const auto turn = [&](size_t width, size_t size) {
    for (const size_t end = at + size; at < end; at += width) std::reverse(&back[at], &back[at] + width);
  };
  turn(2, hdict->h_rank_size);
  turn(4, hdict->h_coef_size);
  turn(8, hdict->h_fun_size);
  EXPECT_TRUE(back.substr(48) == opened.image().substr(48));
}

TEST(HashDictFileWriteBare, WithoutProbeCodeNoProbeBytesAreWritten) {
  // The header may still give them a size; it is written as it is, and counts in no length.
  std::string image = Golden("hashdict-plain.dic");
  Poke<ULong>(&image, 40, 16);
  const Opened opened(image + std::string(16, 'p'));
  Device device;
  EXPECT_TRUE(HashDictFileWrite_(opened.get(), device.channel(), FALSE));
  EXPECT_EQ(HashDictFileSize(opened.get()), 48u + 512 + 2160 + 24);
  EXPECT_TRUE(device.Flushed() == image);
}

TEST(HashDictFileWriteBare, WithoutCoefficientsNoneAreWritten) {
  const Opened opened(Golden("hashdict-emptykey.dic"));
  Device device;
  EXPECT_TRUE(HashDictFileWrite_(opened.get(), device.channel(), TRUE));
  EXPECT_EQ(device.Flushed().size(), 48u + 512 + 8);
}

TEST(HashDictFileWrite, PutsTheLengthInFront) {
  const Opened opened(Golden("hashdict-probe3.dic"));
  Device plain, swapped;
  EXPECT_TRUE(HashDictFileWrite(opened.get(), plain.channel(), FALSE));
  EXPECT_TRUE(plain.Flushed() == Number<UInt>(2920) + opened.image());
  EXPECT_TRUE(HashDictFileWrite(opened.get(), swapped.channel(), TRUE));
  EXPECT_TRUE(swapped.Flushed() == Reversed(Number<UInt>(2920)) + Golden("hashdict-swapped.dic"));
}

TEST(HashDictFileWrite, CutsTheLengthToThirtyTwoBits) {
  // The sizes are those of 4 GiB and 16 bytes; the device ends long before they are written.
  HashDict hdict = *Opened(Golden("hashdict-plain.dic")).get();
  hdict.h_coef_size = (size_t{1} << 32) + 16 - 48 - 512 - 24;
  hdict.h_rank_size = 512;
  Device device(4);
  Ledger ledger;
  std::string filler(QX_CHANNEL_BUFFER, 'x');
  hdict.h_rank = static_cast<Short*>(static_cast<void*>(filler.data()));
  hdict.h_coef = static_cast<Id*>(static_cast<void*>(filler.data()));
  EXPECT_EQ(HashDictFileSize(&hdict), 0x100000010u);
  EXPECT_FALSE(HashDictFileWrite(&hdict, device.channel(), FALSE));
  EXPECT_EQ(device.written(), Number<UInt>(16));
}

TEST(HashDictMMWrite, PadsToEightCountedFromTheFilesStart) {
  const Opened opened(Golden("hashdict-plain.dic"));
  for (size_t before = 0; before <= 16; before++) {
    const size_t padding = (8 - before % 8) % 8;
    for (const bool swap : {false, true}) {
      Device device;
      size_t written = before;
      EXPECT_TRUE((swap ? HashDictMMWriteSwapped : HashDictMMWrite)(opened.get(), device.channel(), &written));
      EXPECT_EQ(written, before + padding + 8 + 2744);
      const std::string bytes = device.Flushed();
      ASSERT_EQ(bytes.size(), padding + 8 + 2744);
      EXPECT_EQ(bytes.substr(0, padding), std::string(padding, '\0'));
      EXPECT_EQ(bytes.substr(padding, 8), swap ? Reversed(Number<ULong>(2744)) : Number<ULong>(2744));
      EXPECT_EQ(bytes.substr(padding + 8) == opened.image(), !swap);
    }
  }
}

TEST(HashDictMMWrite, FromThirteenThreeZeroBytesLead) {
  const Opened opened(Golden("hashdict-emptykey.dic"));
  Device device;
  size_t written = 13;
  EXPECT_TRUE(HashDictMMWrite(opened.get(), device.channel(), &written));
  EXPECT_EQ(written, 24u + 568);
  EXPECT_TRUE(device.Flushed() == std::string(3, '\0') + Number<ULong>(568) + opened.image());
}

TEST(HashDictMMWrite, SwappedTheImageIsSwappedToo) {
  const Opened opened(Golden("hashdict-probe3.dic"));
  Device device;
  size_t written = 0;
  EXPECT_TRUE(HashDictMMWriteSwapped(opened.get(), device.channel(), &written));
  EXPECT_EQ(written, 8u + 2920);
  EXPECT_TRUE(device.Flushed() == Reversed(Number<ULong>(2920)) + Golden("hashdict-swapped.dic"));
}

TEST(HashDictMMWrite, WhatIsWrittenIsReadAgain) {
  const Opened plain(Golden("hashdict-plain.dic")), probe(Golden("hashdict-probe3.dic"));
  Device device;
  EXPECT_TRUE(ChannelWriteBuf(device.channel(), "magic", 5));
  size_t written = 5;
  EXPECT_TRUE(HashDictMMWrite(plain.get(), device.channel(), &written));
  EXPECT_TRUE(HashDictMMWrite(probe.get(), device.channel(), &written));
  std::string mapping = device.Flushed();
  EXPECT_EQ(mapping.size(), written);
  UByte* base = reinterpret_cast<UByte*>(mapping.data());
  UByte* from = base + 5;
  for (int i = 0; i < 2; i++) {
    HashDict* hdict = nullptr;
    ASSERT_TRUE(HashDictMMRead(&hdict, base, &from, base + mapping.size()));
    for (Id n = 0; n < 19; n++) EXPECT_EQ(support::Find(hdict, NumberWords()[n]), n);
    HashDictMMFree(hdict);
  }
  EXPECT_EQ(from, base + mapping.size());
}

class HashDictWriteTest : public ::testing::Test {
 protected:
  ~HashDictWriteTest() override { fail_open = fail_sync = fail_close = disturb_close = 0; }

  const char* dir() const { return directory_.path().c_str(); }
  bool Exists(const std::string& name) const {
    struct stat status;
    return lstat(directory_.file(name).c_str(), &status) == 0;
  }
  Boolean Write(const char* name, Boolean swap = FALSE) {
    return HashDictWrite(plain_.get(), dir(), name, nullptr, swap);
  }

  support::TemporaryDirectory directory_;
  const Opened plain_{Golden("hashdict-plain.dic")};
};

TEST_F(HashDictWriteTest, WritesTheBareImage) {
  Ledger ledger;
  EXPECT_TRUE(Write("numbers"));
  support::ExpectGolden("hashdict-plain.dic", support::ReadFile(directory_.file("numbers.dic")));
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(HashDictWriteTest, WritesTheSwappedImage) {
  const Opened probe(Golden("hashdict-probe3.dic"));
  EXPECT_TRUE(HashDictWrite(probe.get(), dir(), "numbers", nullptr, TRUE));
  support::ExpectGolden("hashdict-swapped.dic", support::ReadFile(directory_.file("numbers.dic")));
}

TEST_F(HashDictWriteTest, TakesAnotherSuffix) {
  EXPECT_TRUE(HashDictWrite(plain_.get(), dir(), "numbers", "words", FALSE));
  EXPECT_TRUE(Exists("numbers.words"));
  EXPECT_FALSE(Exists("numbers.dic"));
}

TEST_F(HashDictWriteTest, WithoutADirectoryTheNameIsThePath) {
  EXPECT_TRUE(HashDictWrite(plain_.get(), nullptr, directory_.file("numbers").c_str(), nullptr, FALSE));
  EXPECT_TRUE(Exists("numbers.dic"));
}

TEST_F(HashDictWriteTest, ReplacesALongerFile) {
  support::WriteFile(directory_.file("numbers.dic"), std::string(100000, 'x'));
  EXPECT_TRUE(Write("numbers"));
  support::ExpectGolden("hashdict-plain.dic", support::ReadFile(directory_.file("numbers.dic")));
}

TEST_F(HashDictWriteTest, WhatIsBuiltIsWrittenAndOpenedAgain) {
  KeySet set{NumberWords(), {}, {}};
  HashDict* built = set.Build(4);
  EXPECT_TRUE(HashDictWrite(built, dir(), "numbers", nullptr, FALSE));
  HashDictFree(built);
  HashDict* hdict = HashDictOpen(dir(), "numbers", nullptr);
  ASSERT_NE(hdict, nullptr);
  for (Id n = 0; n < 19; n++) EXPECT_EQ(support::Find(hdict, NumberWords()[n]), n);
  EXPECT_EQ(support::Find(hdict, "hundert"), 0xFFFFFFFEu);
  HashDictClose(hdict);
}

TEST_F(HashDictWriteTest, AMissingDirectoryFailsWithItsErrno) {
  errno = 0;
  EXPECT_FALSE(HashDictWrite(plain_.get(), directory_.file("missing").c_str(), "numbers", nullptr, FALSE));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(HashDictWriteTest, ADirectoryInItsPlaceFailsAndStays) {
  ASSERT_EQ(mkdir(directory_.file("numbers.dic").c_str(), 0777), 0);
  errno = 0;
  EXPECT_FALSE(Write("numbers"));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_TRUE(Exists("numbers.dic"));
}

TEST_F(HashDictWriteTest, AFailedOpenRemovesThePath) {
  // Out of descriptors, say: the file that was there is gone.
  support::WriteFile(directory_.file("numbers.dic"), "old");
  fail_open = EMFILE;
  disturb_close = EBADF;
  Ledger ledger;
  errno = 0;
  EXPECT_FALSE(Write("numbers"));
  EXPECT_EQ(errno, EMFILE);
  EXPECT_FALSE(Exists("numbers.dic"));
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(HashDictWriteTest, AFailedSyncRemovesTheFile) {
  fail_sync = EIO;
  disturb_close = EBADF;
  Ledger ledger;
  errno = 0;
  EXPECT_FALSE(Write("numbers"));
  EXPECT_EQ(errno, EIO);
  EXPECT_FALSE(Exists("numbers.dic"));
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(HashDictWriteTest, AFailedCloseIsTheResult) {
  // Everything is stable by then: the file stays.
  fail_close = EIO;
  errno = 0;
  EXPECT_FALSE(Write("numbers"));
  EXPECT_EQ(errno, EIO);
  EXPECT_TRUE(Exists("numbers.dic"));
}

TEST_F(HashDictWriteTest, AFullDiskFailsAndRemovesTheFile) {
  const Opened large(LargeImage());
  for (const Boolean swap : {FALSE, TRUE}) {
    // Small: the sync writes and fails. Large: writing fails.
    for (const HashDict* hdict : {plain_.get(), large.get()}) {
      ASSERT_EQ(symlink("/dev/full", directory_.file("numbers.dic").c_str()), 0);
      errno = 0;
      EXPECT_FALSE(HashDictWrite(hdict, dir(), "numbers", nullptr, swap));
      EXPECT_EQ(errno, ENOSPC);
      EXPECT_FALSE(Exists("numbers.dic"));
    }
  }
}

TEST_F(HashDictWriteTest, AFileSizeLimitFailsAndRemovesTheFile) {
  const Opened large(LargeImage());
  EXPECT_EXIT(
      {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit;
        limit.rlim_cur = limit.rlim_max = 20000;
        setrlimit(RLIMIT_FSIZE, &limit);
        const bool failed = !HashDictWrite(large.get(), dir(), "numbers", nullptr, FALSE) && errno == EFBIG;
        _exit(failed && !Exists("numbers.dic") ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

// Replacing: of a file "numbers.dic" with "old" in it.
class HashDictReplaceTest : public HashDictWriteTest {
 protected:
  HashDictReplaceTest() { support::WriteFile(path_, "old"); }

  Boolean Replace(const HashDict* hdict, Boolean swap = FALSE) {
    errno = 0;
    return HashDictReplace(hdict, dir(), "numbers", nullptr, swap);
  }
  // After a failure: the old file, nothing else, and the reason.
  void ExpectOld(int error) {
    EXPECT_EQ(errno, error);
    EXPECT_EQ(support::ReadFile(path_), "old");
    EXPECT_EQ(Files(), 1);
  }
  int Files() const {
    int files = 0;
    for ([[maybe_unused]] const auto& file : std::filesystem::directory_iterator(directory_.path())) files++;
    return files;
  }

  const std::string path_ = directory_.file("numbers.dic");
};

TEST_F(HashDictReplaceTest, PutsTheImageInTheOldFilesPlace) {
  Ledger ledger;
  EXPECT_TRUE(Replace(plain_.get()));
  support::ExpectGolden("hashdict-plain.dic", support::ReadFile(path_));
  EXPECT_EQ(Files(), 1);
  EXPECT_EQ(ledger.blocks(), 0u);
  EXPECT_TRUE(Replace(plain_.get(), TRUE));
  EXPECT_EQ(support::ReadFile(path_).substr(0, 8), std::string("\0\0\0\x13\0\0\0\x1C", 8));
}

TEST_F(HashDictReplaceTest, AFileThatIsNotThereIsMade) {
  EXPECT_TRUE(HashDictReplace(plain_.get(), dir(), "others", "dictionary", FALSE));
  support::ExpectGolden("hashdict-plain.dic", support::ReadFile(directory_.file("others.dictionary")));
  EXPECT_TRUE(HashDictReplace(plain_.get(), nullptr, directory_.file("path").c_str(), nullptr, FALSE));
  support::ExpectGolden("hashdict-plain.dic", support::ReadFile(directory_.file("path.dic")));
}

TEST_F(HashDictReplaceTest, WhoeverHasTheOldFileOpenKeepsIt) {
  ASSERT_TRUE(Write("numbers"));
  HashDict* old = HashDictOpen(dir(), "numbers", nullptr);
  ASSERT_NE(old, nullptr);
  KeySet one{{"siebzehn"}, {}, {}};
  HashDict* built = one.Build();
  EXPECT_TRUE(Replace(built));
  HashDictFree(built);
  EXPECT_EQ(support::Find(old, "siebzehn"), 18u);
  HashDict* now = HashDictOpen(dir(), "numbers", nullptr);
  ASSERT_NE(now, nullptr);
  EXPECT_EQ(support::Find(now, "siebzehn"), 0u);
  EXPECT_TRUE(HashDictClose(now));
  EXPECT_TRUE(HashDictClose(old));
}

TEST_F(HashDictReplaceTest, TheFilesPermissionsStay) {
  ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
  EXPECT_TRUE(Replace(plain_.get()));
  struct stat status;
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(HashDictReplaceTest, AFailedOpenLeavesTheOldFile) {
  fail_open = EMFILE;
  disturb_close = EBADF;
  Ledger ledger;
  EXPECT_FALSE(Replace(plain_.get()));
  ExpectOld(EMFILE);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(HashDictReplaceTest, AFailedSyncLeavesTheOldFile) {
  fail_sync = EIO;
  disturb_close = EBADF;
  EXPECT_FALSE(Replace(plain_.get()));
  ExpectOld(EIO);
}

TEST_F(HashDictReplaceTest, AFailedCloseLeavesTheOldFile) {
  fail_close = EIO;
  EXPECT_FALSE(Replace(plain_.get()));
  ExpectOld(EIO);
}

TEST_F(HashDictReplaceTest, ADirectoryIsNotReplaced) {
  ASSERT_TRUE(std::filesystem::create_directory(directory_.file("folder.dic")));
  errno = 0;
  EXPECT_FALSE(HashDictReplace(plain_.get(), dir(), "folder", nullptr, FALSE));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_TRUE(std::filesystem::is_directory(directory_.file("folder.dic")));
  EXPECT_EQ(Files(), 2);
}

TEST_F(HashDictReplaceTest, AMissingDirectoryFailsWithItsErrno) {
  errno = 0;
  EXPECT_FALSE(HashDictReplace(plain_.get(), directory_.file("missing").c_str(), "numbers", nullptr, FALSE));
  ExpectOld(ENOENT);
}

TEST_F(HashDictReplaceTest, APathWithoutRoomTouchesNothing) {
  errno = 0;
  EXPECT_FALSE(HashDictReplace(plain_.get(), dir(), std::string(PATH_MAX, 'n').c_str(), nullptr, FALSE));
  ExpectOld(ENAMETOOLONG);
}

TEST_F(HashDictReplaceTest, AFileSizeLimitLeavesTheOldFile) {
  const Opened large(LargeImage());
  EXPECT_EXIT(
      {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit;
        limit.rlim_cur = limit.rlim_max = 20000;
        setrlimit(RLIMIT_FSIZE, &limit);
        const bool failed = !Replace(large.get()) && errno == EFBIG;
        _exit(failed && support::ReadFile(path_) == "old" && Files() == 1 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(HashDictWriteTest, APathWithoutRoomTouchesNothing) {
  // What is left of the path when it is cut names a file that is there.
  std::string path = directory_.path();
  while (path.size() + 1 + 200 < PATH_MAX - 60) {
    path += "/" + std::string(200, 'd');
    // Made one by one: the whole path is about as long as a path can be.
    ASSERT_TRUE(std::filesystem::create_directory(path));
  }
  const std::string name(PATH_MAX - 1 - path.size() - 1, 'n');  // "dir/nnn" is just a path; ".dic" is too much
  support::WriteFile(path + "/" + name, "old");
  errno = 0;
  EXPECT_FALSE(HashDictWrite(plain_.get(), path.c_str(), name.c_str(), nullptr, FALSE));
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(support::ReadFile(path + "/" + name), "old");

  const std::string fits = name.substr(4);
  EXPECT_TRUE(HashDictWrite(plain_.get(), path.c_str(), fits.c_str(), nullptr, FALSE));
}

// Every operation, on a device that fails after each number of bytes.
template <typename Operation>
void FailEverywhere(size_t whole, size_t step, Operation operation) {
  for (size_t limit = 0; limit < whole; limit += step) {
    Device device(limit);
    bool done = operation(device.channel());
    if (done) done = ChannelFlush(device.channel()) != FALSE;
    EXPECT_FALSE(done) << limit;
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(device.written().size(), limit);
  }
  Device device(whole);
  EXPECT_TRUE(operation(device.channel()));
  EXPECT_TRUE(ChannelFlush(device.channel()));
}

TEST(HashDictWriteFails, AtEveryByte) {
  const Opened opened(Golden("hashdict-plain.dic"));
  for (const Boolean swap : {FALSE, TRUE}) {
    FailEverywhere(2744, 1, [&](Channel* f) { return HashDictFileWrite_(opened.get(), f, swap) != FALSE; });
    FailEverywhere(2748, 1, [&](Channel* f) { return HashDictFileWrite(opened.get(), f, swap) != FALSE; });
    FailEverywhere(3 + 8 + 2744, 1, [&](Channel* f) {
      size_t written = 13;
      return (swap ? HashDictMMWriteSwapped : HashDictMMWrite)(opened.get(), f, &written) != FALSE;
    });
  }
}

TEST(HashDictWriteFails, WhereverALargeImageIs) {
  const Opened opened(LargeImage());
  for (const Boolean swap : {FALSE, TRUE}) {
    FailEverywhere(opened.size(), 997, [&](Channel* f) { return HashDictFileWrite_(opened.get(), f, swap) != FALSE; });
  }
}

TEST(HashDictWriteFails, InTheMiddleOfALargeImageTheOperationItselfTells) {
  const Opened opened(LargeImage());
  for (const Boolean swap : {FALSE, TRUE}) {
    for (const size_t limit : {size_t{0}, size_t{20000}, opened.size() - 2 * QX_CHANNEL_BUFFER}) {
      Device bare(limit), record(limit), map(limit);
      size_t written = 0;
      EXPECT_FALSE(HashDictFileWrite_(opened.get(), bare.channel(), swap));
      EXPECT_FALSE(HashDictFileWrite(opened.get(), record.channel(), swap));
      EXPECT_FALSE((swap ? HashDictMMWriteSwapped : HashDictMMWrite)(opened.get(), map.channel(), &written));
      EXPECT_EQ(written, 8u) << "the length counts, the image does not";
    }
  }
}

TEST(HashDictWriteFails, InThePaddingTheCountStopsThere) {
  const Opened opened(Golden("hashdict-plain.dic"));
  for (const bool swap : {false, true}) {
    Device device(0);
    // Room for two bytes of the three.
    const std::string filler(QX_CHANNEL_BUFFER - 2, 'x');
    ASSERT_TRUE(ChannelWriteBuf(device.channel(), filler.data(), filler.size()));
    size_t written = 13;
    EXPECT_FALSE((swap ? HashDictMMWriteSwapped : HashDictMMWrite)(opened.get(), device.channel(), &written));
    EXPECT_EQ(written, 15u);
  }
}

TEST(HashDictWriteFails, InTheLengthTheCountIsAlreadyPastIt) {
  const Opened opened(Golden("hashdict-plain.dic"));
  for (const bool swap : {false, true}) {
    Device device(0);
    const std::string filler(QX_CHANNEL_BUFFER - 4, 'x');
    ASSERT_TRUE(ChannelWriteBuf(device.channel(), filler.data(), filler.size()));
    size_t written = 16;
    EXPECT_FALSE((swap ? HashDictMMWriteSwapped : HashDictMMWrite)(opened.get(), device.channel(), &written));
    EXPECT_EQ(written, 24u);
  }
}

TEST(HashDictWriteDeathTest, ArraysHoldWholeElements) {
  const char* text = "(nbytes % size) == 0";
  const struct { size_t field, size; } odd[] = {{16, 511}, {24, 2158}, {32, 23}};
  for (const auto& [field, size] : odd) {
    std::string image = Golden("hashdict-plain.dic");
    Poke<ULong>(&image, field, size);
    const Opened opened(image);
    for (const Boolean swap : {FALSE, TRUE}) {
      EXPECT_ASSERTION(
          {
            Device device;
            HashDictFileWrite_(opened.get(), device.channel(), swap);
          },
          kModule, "WriteBytes", text)
          << field;
    }
  }
}

}  // namespace
