// The version, as the header and the library tell it.

#include "dict/version.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Version, LibraryTellsTheNumbersOfItsHeader) {
  EXPECT_STREQ(QXDictVersion(), "1.0.0");
  EXPECT_EQ(std::string(QXDictVersion()), std::to_string(QXDICT_VERSION_MAJOR) + "." +
                                              std::to_string(QXDICT_VERSION_MINOR) + "." +
                                              std::to_string(QXDICT_VERSION_PATCH));
}

TEST(Version, MacrosAgree) {
  EXPECT_STREQ(QXDICT_VERSION_STRING, "1.0.0");
  EXPECT_EQ(QXDICT_VERSION_NUMBER, 10000);
#if QXDICT_VERSION_NUMBER < 10000 || QXDICT_VERSION_NUMBER >= 20000
  FAIL() << "the preprocessor compares it otherwise";
#endif
}

TEST(Version, BuildSystemHasTheSameNumbers) { EXPECT_STREQ(QX_PROJECT_VERSION, "1.0.0"); }

}  // namespace
