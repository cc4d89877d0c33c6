// examples/visits as a program: what it prints, that its files replace yesterday's, and how it fails.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/programs.h"

namespace {

constexpr char kBook[] =
    "2000 visitors checked in, 2000 found again at once; room for 2000, the longest way 46 slots\n"
    "the first to come on day 101 was visitor 715, 643 s after midnight\n"
    "39 came between eight and noon\n"
    "the last three days of the year\n"
    "    day 365  293 visits\n"
    "    day 364  287 visits\n"
    "    day 363  277 visits\n"
    "the busiest days\n"
    "    day  40  325 visits\n"
    "    day 321  320 visits\n"
    "    day  49  318 visits\n"
    "two guards counted 2682 visits in the first ten days\n"
    "4 came in the first thousand seconds of day 101, the most faithful of them 110 times\n"
    "500 went in, 300 went out, 200 are inside\n"
    "published: Margaret 7, 321 visits\n"
    "Margaret 7 is a patron\n"
    "Margaret 7 is forgotten\n"
    "the desk has stored 2001 answers and given 1\n";

TEST(Visits, PrintsTheBookAndPublishesItAgainAndAgain) {
  const support::TemporaryDirectory dir;
  for (int day = 0; day < 2; day++) {
    EXPECT_EQ(support::MustRun(QX_VISITS " " + dir.path()), kBook);
    for (const char* name : {"visitors.dic", "visitors.idx", "visitors.dat"}) {
      EXPECT_TRUE(std::filesystem::exists(dir.file(name))) << name;
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 3);
  }
}

TEST(Visits, SaysWhatItCouldNotWrite) {
  const support::Outcome outcome = support::Run(QX_VISITS " /nowhere/at/all");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.output.find("visits: visitors.dic: No such file or directory\n"), std::string::npos)
      << outcome.output;
}

TEST(Visits, TakesOneDirectory) {
  const support::Outcome outcome = support::Run(QX_VISITS " a b");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.output, "usage: visits [DIRECTORY]\n");
}

}  // namespace
