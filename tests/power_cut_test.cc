// The power fails while a file is written, at every moment and with every kind of loss. What was reported as written is
// there in full afterwards, its name included. What was not is refused, or can be used as anything else; and a file
// that is replaced is the old one or the new one, at every moment.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/disk_log.h"
#include "support/files.h"
#include "support/writers.h"

namespace {

using support::DiskLog;
using support::Many;
using support::Strings;
using support::TemporaryDirectory;
using support::Unsynced;
namespace writers = support::writers;

// What a writer does to what was there before.
struct InPlace {
  static constexpr bool kOldOrNew = false;
};
struct Beside {
  static constexpr bool kOldOrNew = true;
};

// Two files cannot change their names in one step: in between the check refuses them.
template <typename W, typename How, bool kRefusedInBetween = false>
struct Way : How {
  using Writer = W;
  static constexpr bool kMayBeRefused = kRefusedInBetween;
};

template <typename Way>
class PowerCut : public ::testing::Test {
 protected:
  using Writer = typename Way::Writer;

  // Writes `strings` and fails the power behind each step.
  void FailWhileWriting(const Strings* old, const Strings& strings) {
    const TemporaryDirectory dir;
    if (old != nullptr) {
      ASSERT_TRUE(Writer::Write(dir, *old));
    }
    DiskLog log(dir.path());
    ASSERT_TRUE(Writer::Write(dir, strings));
    log.Stop();
    ASSERT_GT(log.events(), 2u);

    std::mt19937 random(11);
    for (size_t count = 0; count <= log.events(); count++) {
      for (const Unsynced unsynced : {Unsynced::kKept, Unsynced::kDropped, Unsynced::kZeroed}) {
        Look(log, count, unsynced, &random, old, strings);
      }
      for (int seed = 0; seed < 8; seed++) Look(log, count, Unsynced::kAnyOfThem, &random, old, strings);
    }
  }

  int looks_ = 0, whole_ = 0, refused_ = 0;

 private:
  void Look(const DiskLog& log, size_t count, Unsynced unsynced, std::mt19937* random, const Strings* old,
            const Strings& strings) {
    const TemporaryDirectory dir;
    for (const auto& [name, bytes] : log.After(count, unsynced, random)) support::WriteFile(dir.file(name), bytes);
    const std::string is_new = Writer::Ask(dir, strings);
    const std::string is_old = old != nullptr ? Writer::Ask(dir, *old) : "refused";
    looks_++;
    whole_ += is_new == "whole" || is_old == "whole" ? 1 : 0;
    refused_ += is_new == "refused" ? 1 : 0;
    const std::string where = std::to_string(count) + " of " + std::to_string(log.events()) +
                              " steps, the last: " + (count > 0 ? log.Describe(count - 1) : "none") +
                              "; unsynced: " + std::to_string(static_cast<int>(unsynced));
    if (count == log.events()) {
      EXPECT_EQ(is_new, "whole") << where;
    } else if (Way::kOldOrNew && old != nullptr) {
      EXPECT_TRUE(is_new == "whole" || is_old == "whole" || (Way::kMayBeRefused && is_new == "refused"))
          << is_new << ", " << is_old << " after " << where;
    }
  }
};

using Ways = ::testing::Types<Way<writers::HashDictWriter, InPlace>, Way<writers::HashDictReplacer, Beside>,
                              Way<writers::HashTableWriter, InPlace>, Way<writers::HashTableReplacer, Beside>,
                              Way<writers::AttrDictWriter, InPlace>, Way<writers::AttrDictReplacer, Beside, true>>;

class WayNames {
 public:
  template <typename Way>
  static std::string GetName(int i) {
    static constexpr const char* kNames[] = {"HashDictWrite",    "HashDictReplace", "HashTableWrite",
                                             "HashTableReplace", "AttrDictCommit",  "AttrDictCommitAs"};
    return kNames[i];
  }
};
TYPED_TEST_SUITE(PowerCut, Ways, WayNames);

TYPED_TEST(PowerCut, OfAFirstFileOfOneBlock) {
  this->FailWhileWriting(nullptr, {"one", "two", "three", "", "five", "six"});
  EXPECT_GT(this->whole_, 0);
  EXPECT_GT(this->refused_, 0);
}

TYPED_TEST(PowerCut, OfAFirstFileOfManyBlocks) {
  this->FailWhileWriting(nullptr, Many("b", 4000));
  EXPECT_GT(this->whole_, 0);
  EXPECT_GT(this->refused_, 0);
}

TYPED_TEST(PowerCut, OfANewFileOverAnOld) {
  const Strings old = Many("a", 3000);
  this->FailWhileWriting(&old, Many("b", 4000));
  EXPECT_GT(this->whole_, 0);
}

TYPED_TEST(PowerCut, OfASmallFileOverALarge) {
  const Strings old = Many("a", 3000);
  this->FailWhileWriting(&old, {"one", "two", "three", "", "five", "six"});
  EXPECT_GT(this->whole_, 0);
}

}  // namespace
