// Writers on a disk that fails: each call that they make on it fails in its turn, alone and with all that follow it, or
// is interrupted; and a file system without room. TRUE is always the truth. FALSE leaves what the headers say, and no
// descriptor.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <filesystem>
#include <string>
#include <type_traits>

#include "support/descriptors.h"
#include "support/disk_log.h"
#include "support/files.h"
#include "support/writers.h"

namespace {

using support::Strings;
using support::TemporaryDirectory;
namespace writers = support::writers;

const Strings& Old() {
  static const Strings old = {"some", "older", "strings"};
  return old;
}
const Strings& New() {
  static const Strings strings = {"one", "two", "three", "", "five", "six"};
  return strings;
}

// What there is of a writer to know: whether it leaves the old file when it fails, how many files it has, and how many
// of its calls may fail without harm. Those open and close directories, twice with a replacement that is synced
// together with its first name; close a file that was only made; exchange two names, where renaming will do; and remove
// old data.
template <typename W, bool kReplacing, int kFileCount, int kHarmlessCalls>
struct Case {
  using Writer = W;
  static constexpr bool kReplaces = kReplacing;
  static constexpr int kFiles = kFileCount;
  static constexpr int kHarmless = kHarmlessCalls;
};

template <typename C>
class FailingDisk : public ::testing::Test {
 protected:
  using Writer = typename C::Writer;

  // Writes over the old files while the calls fail; how many calls there were.
  int Write(int after, int count, bool* written) {
    const TemporaryDirectory dir;
    if (!Writer::Write(dir, Old())) ADD_FAILURE();
    const long descriptors = support::OpenDescriptors();
    int made;
    {
      const support::FailingCalls failing(after, count, EIO);
      errno = 0;
      *written = Writer::Write(dir, New());
      made = failing.made();
      if (!*written) {
        EXPECT_EQ(errno, EIO);
      }
    }
    EXPECT_EQ(support::OpenDescriptors(), descriptors);
    const std::string is_new = Writer::Ask(dir, New()), is_old = Writer::Ask(dir, Old());
    if (*written) {
      EXPECT_EQ(is_new, "whole");
    } else if (C::kReplaces) {
      // Two files change their names one after the other, and where nothing works any more the first cannot go back.
      const bool torn = C::kFiles == 2 && count > 1 && is_new == "refused";
      EXPECT_TRUE(is_new == "whole" || is_old == "whole" || torn) << is_new << ", " << is_old;
    } else {
      EXPECT_TRUE(is_new == "whole" || is_new == "refused" || is_new == "empty" || is_old == "whole")
          << is_new << ", " << is_old;
    }
    if (C::kReplaces && count == 1) {
      // Beside a pair old data that could not be removed are left, and empty files of one that could not be begun.
      int files = 0;
      for (const auto& file : std::filesystem::directory_iterator(dir.path())) files += file.file_size() > 0 ? 1 : 0;
      EXPECT_LE(files, C::kFiles == 1 ? 1 : 3);
    }
    return made;
  }
};

using Cases =
    ::testing::Types<Case<writers::HashDictWriter, false, 1, 2>, Case<writers::HashDictReplacer, true, 1, 5>,
                     Case<writers::HashTableWriter, false, 1, 2>, Case<writers::HashTableReplacer, true, 1, 3>,
                     Case<writers::AttrDictWriter, false, 2, 2>, Case<writers::AttrDictReplacer, true, 2, 6>>;

class CaseNames {
 public:
  template <typename C>
  static std::string GetName(int i) {
    static constexpr const char* kNames[] = {"HashDictWrite",    "HashDictReplace", "HashTableWrite",
                                             "HashTableReplace", "AttrDictCommit",  "AttrDictCommitAs"};
    return kNames[i];
  }
};
TYPED_TEST_SUITE(FailingDisk, Cases, CaseNames);

TYPED_TEST(FailingDisk, EveryCallFailsInItsTurn) {
  int harmless = 0;
  bool written = false;
  for (int nth = 0;; nth++) {
    const int made = this->Write(nth, 1, &written);
    if (nth >= made) break;
    harmless += written ? 1 : 0;
    ASSERT_FALSE(this->HasFailure()) << "call " << nth;
  }
  EXPECT_TRUE(written);
  EXPECT_EQ(harmless, TypeParam::kHarmless);
}

TYPED_TEST(FailingDisk, EveryCallFailsWithAllThatFollow) {
  bool written = false;
  for (int nth = 0;; nth++) {
    const int made = this->Write(nth, INT_MAX, &written);
    if (nth >= made) break;
    ASSERT_FALSE(this->HasFailure()) << "call " << nth;
  }
  EXPECT_TRUE(written);
}

// What a signal without SA_RESTART does. Opening and closing go on, and so do a channel's writes. A stream's writes
// give up: on a file system whose writes can be interrupted, such a signal fails a table or a pair as any error does.
TYPED_TEST(FailingDisk, EveryCallIsInterrupted) {
  using W = typename TypeParam::Writer;
  constexpr bool kChannel = std::is_base_of_v<writers::HashDictWriter, W>;
  const TemporaryDirectory dir;
  ASSERT_TRUE(W::Write(dir, Old()));
  bool written;
  {
    const support::InterruptedCalls interrupted;
    written = W::Write(dir, New());
    if (!written) {
      EXPECT_EQ(errno, EINTR);
    }
  }
  EXPECT_EQ(written, kChannel);
  const std::string is_new = W::Ask(dir, New());
  if (kChannel) {
    EXPECT_EQ(is_new, "whole");
  } else if (TypeParam::kReplaces) {
    EXPECT_EQ(W::Ask(dir, Old()), "whole");
  } else {
    EXPECT_EQ(is_new, "refused");
  }
}

// A file system of so few bytes, in a namespace of our own; false where the machine does not allow that.
bool MountSmall(const std::string& path, const char* options) {
  const auto put = [](const char* file, const std::string& text) {
    const int fd = open(file, O_WRONLY | O_CLOEXEC);
    const bool whole = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return whole;
  };
  const std::string user = std::to_string(getuid()), group = std::to_string(getgid());
  return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && put("/proc/self/setgroups", "deny") &&
         put("/proc/self/uid_map", "0 " + user + " 1") && put("/proc/self/gid_map", "0 " + group + " 1") &&
         mount("none", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options) == 0;
}

// So that no file of this process grows past so many bytes; a soft limit, which can be raised again.
void LimitFiles(rlim_t bytes) {
  rlimit limit = {};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = std::min(bytes, limit.rlim_max);
  setrlimit(RLIMIT_FSIZE, &limit);
}

// On a file system of 64 KiB; where none may be mounted, with files limited to as much.
TYPED_TEST(FailingDisk, WithoutRoom) {
  using W = typename TypeParam::Writer;
  const TemporaryDirectory dir;
  const Strings large = support::Many("b", 20000);
  const pid_t child = fork();
  if (child == 0) {
    const bool mounted = MountSmall(dir.path(), "size=64k");
    std::signal(SIGXFSZ, SIG_IGN);
    if (!W::Write(dir, Old()) || W::Ask(dir, Old()) != "whole") _exit(1);
    if (!mounted) LimitFiles(65536);
    if (W::Write(dir, large)) _exit(2);
    if (errno != (mounted ? ENOSPC : EFBIG)) _exit(3);
    if (!mounted) LimitFiles(RLIM_INFINITY);
    if (TypeParam::kReplaces ? W::Ask(dir, Old()) != "whole" : W::Ask(dir, large) != "refused") _exit(4);
    if (!W::Write(dir, New()) || W::Ask(dir, New()) != "whole") _exit(6);  // there is room again
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
