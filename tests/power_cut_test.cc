// The power fails while a file is written, at every moment and with every kind of loss. What was reported as written is
// there in full afterwards, its name included. What was not is refused, or can be used as anything else: the fuzzers'
// bodies do so, before the check is asked and after. And a file that is replaced is the old one or the new one, at
// every moment.

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/attrdict_bytes.h"
#include "support/disk_log.h"
#include "support/files.h"
#include "support/hashdict_bytes.h"
#include "support/sanitizers.h"
#include "support/table_bytes.h"
#include "support/writers.h"

namespace {

using support::DiskLog;
using support::FirstNames;
using support::Many;
using support::Strings;
using support::TemporaryDirectory;
using support::Unsynced;
namespace writers = support::writers;

using Files = std::map<std::string, std::string>;

std::string BytesOf(const Files& files, const std::string& name) {
  const auto file = files.find(name);
  return file != files.end() ? file->second : "";
}

template <typename Read>
std::string ReadBytes(Read read, const std::string& input) {
  return read(std::span<const uint8_t>(support::Bytes(input), input.size()));
}

// What using the files in every way finds wrong, whatever is in them.
template <typename Writer>
std::string Use(const Files& files) {
  if constexpr (std::is_base_of_v<writers::HashDictWriter, Writer>) {
    constexpr char kMapped = 3;
    return ReadBytes(support::ReadHashDictBytes, std::string{kMapped, '\0'} + BytesOf(files, "words.dic"));
  } else if constexpr (std::is_base_of_v<writers::HashTableWriter, Writer>) {
    std::string operations;
    for (int i = 0; i < 16; i++) operations += {static_cast<char>(i), static_cast<char>(i * 37), '\1', '\2'};
    return ReadBytes(support::ReadHashTableBytes, std::string{'\0', '\x10'} + operations + BytesOf(files, "table"));
  } else {
    static const TemporaryDirectory anew;
    const auto read = [](auto input) { return support::ReadAttrDictBytes(input, anew.path()); };
    const std::string idx = BytesOf(files, "strings.idx");
    const std::string size = {static_cast<char>(idx.size() >> 8), static_cast<char>(idx.size())};
    return ReadBytes(read, std::string(13, '\1') + size + idx + BytesOf(files, "strings.dat"));
  }
}

// So many random losses at each step; QX_POWER_CUT_MIXTURES sets another number.
int Mixtures() {
  const char* const wanted = std::getenv("QX_POWER_CUT_MIXTURES");
  return wanted != nullptr ? std::atoi(wanted) : support::kSanitized ? 6 : 20;
}

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
      if (Way::kMayBeRefused) old_data_ = support::ReadFile(dir.file("strings.dat"));
    }
    FailWhileWritingIn(dir, FirstNames::kSynced, old, strings);
  }

  void FailWhileWritingIn(const TemporaryDirectory& dir, FirstNames names, const Strings* old, const Strings& strings) {
    answers_.clear();
    DiskLog log(dir.path(), names);
    ASSERT_TRUE(Writer::Write(dir, strings));
    log.Stop();
    ASSERT_GT(log.events(), 2u);
    for (size_t count = 0; count <= log.events(); count++) {
      const size_t choices = size_t{1} << log.UnsyncedNames(count);
      ASSERT_LE(choices, 32u);
      for (size_t kept = 0; kept < choices; kept++) {
        for (const Unsynced unsynced : {Unsynced::kKept, Unsynced::kDropped, Unsynced::kZeroed}) {
          Look(log, count, unsynced, kept, old, strings);
        }
      }
      for (int i = 0; i < Mixtures(); i++) Look(log, count, Unsynced::kAnyOfThem, random_() % choices, old, strings);
    }
    RecordProperty("directories", static_cast<int>(answers_.size()));
  }

  int whole_ = 0, refused_ = 0;

 private:
  void Look(const DiskLog& log, size_t count, Unsynced unsynced, size_t names, const Strings* old,
            const Strings& strings) {
    const Files files = log.After(count, unsynced, names, &random_);
    const auto& [is_new, is_old] = Ask(files, old, strings);
    whole_ += is_new == "whole" || is_old == "whole" ? 1 : 0;
    refused_ += is_new == "refused" ? 1 : 0;
    const std::string where = std::to_string(count) + " of " + std::to_string(log.events()) +
                              " steps, the last: " + (count > 0 ? log.Describe(count - 1) : "none") +
                              "; unsynced: " + std::to_string(static_cast<int>(unsynced)) +
                              "; names kept: " + std::to_string(names);
    if (count == log.events()) {
      EXPECT_EQ(is_new, "whole") << where;
    } else if (Way::kOldOrNew && old != nullptr) {
      EXPECT_TRUE(is_new == "whole" || is_old == "whole" || (Way::kMayBeRefused && is_new == "refused"))
          << is_new << ", " << is_old << " after " << where;
      const auto holds_old = [this](const auto& file) { return file.second == old_data_; };
      EXPECT_TRUE(is_new == "whole" || is_old == "whole" || std::ranges::any_of(files, holds_old))
          << "the old strings are lost after " << where;
    }
  }

  using Answer = std::pair<std::string, std::string>;

  // Whether the files are the new ones, and the old ones. What has been there before is not asked again.
  const Answer& Ask(const Files& files, const Strings* old, const Strings& strings) {
    const auto [known, fresh] = answers_.try_emplace(files);
    if (fresh) {
      const TemporaryDirectory dir;
      for (const auto& [name, bytes] : files) support::WriteFile(dir.file(name), bytes);
      known->second = {Writer::Ask(dir, strings), old != nullptr ? Writer::Ask(dir, *old) : "refused"};
      EXPECT_EQ(Use<Writer>(files), "");
    }
    return known->second;
  }

  std::string old_data_;
  std::mt19937 random_{11};
  std::map<Files, Answer> answers_;
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

// Somebody made the files and died before their names were synced. Being there is not being stable.
TYPED_TEST(PowerCut, OfAFileWhoseNameWasNeverSynced) {
  const Strings strings = {"one", "two", "three", "", "five", "six"};
  const TemporaryDirectory dir;
  ASSERT_TRUE(TypeParam::Writer::Write(dir, strings));
  this->FailWhileWritingIn(dir, FirstNames::kUnsynced, nullptr, strings);
  EXPECT_GT(this->whole_, 0);
}

}  // namespace
