// The binary interface: a program that was compiled before runs with these libraries.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/files.h"
#include "support/programs.h"

namespace {

using ::testing::HasSubstr;

TEST(Abi, FunctionsAndRecordsAreThoseOfTheBaseline) { support::MustRun(QX_SOURCE_DIR "/script/abi"); }

// What the test above is worth: a function that went and a field that moved are noticed.
TEST(Abi, ChangesAreNoticed) {
  const support::TemporaryDirectory directory;
  const std::string baseline = support::ReadFile(QX_SOURCE_DIR "/tests/abi/libqxdict.abi");
  support::WriteFile(directory.file("libqxlib.abi"), support::ReadFile(QX_SOURCE_DIR "/tests/abi/libqxlib.abi"));

  std::string changed = baseline;
  const size_t offset = changed.rfind("layout-offset-in-bits='", changed.find("name='t_nkeys_max'"));
  ASSERT_NE(offset, std::string::npos);
  changed.insert(changed.find('\'', offset) + 1, "1");
  support::WriteFile(directory.file("libqxdict.abi"), changed);
  const support::Outcome moved = support::Run("BASELINE=" + directory.path() + " " QX_SOURCE_DIR "/script/abi");
  EXPECT_EQ(moved.status, 1);
  EXPECT_THAT(moved.output, HasSubstr("t_nkeys_max"));

  changed = baseline;
  for (size_t at = 0; (at = changed.find("HashDictSize", at)) != std::string::npos;) {
    changed.replace(at, 12, "HashDictGone");
  }
  support::WriteFile(directory.file("libqxdict.abi"), changed);
  const support::Outcome gone = support::Run("BASELINE=" + directory.path() + " " QX_SOURCE_DIR "/script/abi");
  EXPECT_EQ(gone.status, 1);
  EXPECT_THAT(gone.output, HasSubstr("HashDictGone"));
}

}  // namespace
