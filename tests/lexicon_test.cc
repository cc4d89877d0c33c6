// Runs the example program as a person would, on a small text.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

#include "support/files.h"

namespace {

using ::testing::HasSubstr;

struct Outcome {
  int status;
  std::string output;
};

Outcome Lexicon(const std::string& arguments) {
  const std::string command = std::string(QX_LEXICON) + " " + arguments + " 2>&1";
  std::FILE* pipe = popen(command.c_str(), "r");
  std::string output;
  std::array<char, 4096> buffer;
  for (size_t got; (got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) output.append(buffer.data(), got);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

class LexiconTest : public ::testing::Test {
 protected:
  LexiconTest() {
    support::WriteFile(directory_.file("list"), "apple\nbanana\r\ncherry\n\nbanana\ndate\n");
    support::WriteFile(directory_.file("text"), "Apple, banana: apple! Elderberry\n'date' apple's\n");
  }

  std::string Basics() const { return "--words " + directory_.file("list") + " --out " + directory_.file("out") + " "; }

  support::TemporaryDirectory directory_;
};

TEST_F(LexiconTest, CountsBuildsWritesAndLooksUp) {
  const Outcome run =
      Lexicon(Basics() + "--look-up cherry --look-up apple --look-up date --look-up fig " + directory_.file("text"));
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.output, HasSubstr("6 words, 5 different"));
  EXPECT_THAT(run.output, HasSubstr("    4 words in "));
  EXPECT_THAT(run.output, HasSubstr("hdict: nentries=4"));
  EXPECT_THAT(run.output,
              HasSubstr("the most frequent:\n        apple (2) apple's (1) banana (1) date (1) elderberry (1)\n"));
  EXPECT_THAT(run.output, HasSubstr("cherry                   is word 3, not in the texts"));
  EXPECT_THAT(run.output, HasSubstr("apple                    is word 1, 2 times, first in line 1"));
  EXPECT_THAT(run.output, HasSubstr("date                     is word 4, 1 time, first in line 2"));
  EXPECT_THAT(run.output, HasSubstr("fig                      is not in it"));
  EXPECT_THAT(run.output, HasSubstr("of the 5 counted words 3 are in it, 2 are not"));
  EXPECT_TRUE(std::filesystem::exists(directory_.file("out/words.dic")));
}

class CorrectionsTest : public LexiconTest {
 protected:
  CorrectionsTest() {
    // "chery" three times and "dete" twice; "elderberry" has no neighbour in the list.
    support::WriteFile(directory_.file("text"), "chery dete apple\nchery elderberry\ndete, chery!\n");
  }
};

TEST_F(CorrectionsTest, AreKeptAndFoundAgain) {
  const Outcome run = Lexicon(Basics() + directory_.file("text"));
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.output, HasSubstr("Correcting what is not in it, each correction kept for 60.00 s\n"
                                    "    chery                    cherry\n"
                                    "    dete                     date\n"
                                    "    6 of 7 words asked for: 3 hits, 3 misses, 50.0 percent hits\n"
                                    "    worked out in "));
  // Keys, their zero bytes and values: 5 + 1 + 6, 4 + 1 + 4, 10 + 1 + 0.
  EXPECT_THAT(run.output, HasSubstr("    the cache holds 3 answers, 0.0 KiB of its 16.0 MiB\n"));
}

TEST_F(CorrectionsTest, ThatMayNotBeKeptAreWorkedOutEachTime) {
  const Outcome run = Lexicon(Basics() + "--keep 0 " + directory_.file("text"));
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.output, HasSubstr("each correction kept for 0.0 us\n"));
  EXPECT_THAT(run.output, HasSubstr("    6 of 7 words asked for: 0 hits, 6 misses, 0.0 percent hits; 3 had expired\n"
                                    "    the cache holds 6 answers"));
}

TEST_F(CorrectionsTest, AreLettersLeftOutPutInReplacedOrSwapped) {
  support::WriteFile(directory_.file("list"), "bat\nbet\nbeta\nbt\nbte\nabet\nbets\nbeat\nbetas\ntebt\n");
  support::WriteFile(directory_.file("text"), "betx");
  const Outcome first = Lexicon(Basics() + directory_.file("text"));
  EXPECT_THAT(first.output, HasSubstr("    betx                     bet, beta, bets\n"));
  support::WriteFile(directory_.file("text"), "ebt");
  const Outcome second = Lexicon(Basics() + directory_.file("text"));
  EXPECT_THAT(second.output, HasSubstr("    ebt                      bet, bt, tebt\n"));
}

TEST_F(CorrectionsTest, AreNotAskedForOneLetterOrTwo) {
  support::WriteFile(directory_.file("text"), "x yz dat");
  const Outcome run = Lexicon(Basics() + directory_.file("text"));
  EXPECT_THAT(run.output, HasSubstr("    1 of 3 words asked for: 0 hits, 1 misses, 0.0 percent hits"));
}

TEST_F(CorrectionsTest, OfATextWithoutForeignWordsAreNone) {
  support::WriteFile(directory_.file("text"), "apple date\n");
  const Outcome run = Lexicon(Basics() + directory_.file("text"));
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.output, HasSubstr("    0 of 2 words asked for: 0 hits, 0 misses\n"
                                    "    the cache holds 0 answers, 0.0 KiB of its 16.0 MiB\n"));
}

TEST_F(CorrectionsTest, TakeANumberOfMilliseconds) {
  for (const char* keep : {"soon", "-1", "''", "1s", "99999999999999999999", "1000000000001"}) {
    const Outcome run = Lexicon(Basics() + "--keep " + keep + " " + directory_.file("text"));
    EXPECT_EQ(run.status, 1) << keep;
    EXPECT_THAT(run.output, HasSubstr("--keep takes a number of milliseconds")) << keep;
  }
}

TEST_F(LexiconTest, AMissingTextIsAClearError) {
  const Outcome run = Lexicon(Basics() + directory_.file("nowhere"));
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output,
              HasSubstr("lexicon: cannot read " + directory_.file("nowhere") + ": No such file or directory"));
}

TEST_F(LexiconTest, ADirectoryIsNoText) {
  const Outcome run = Lexicon(Basics() + directory_.path());
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, HasSubstr("cannot read " + directory_.path() + ": Is a directory"));
}

TEST_F(LexiconTest, AnEmptyListIsAClearError) {
  support::WriteFile(directory_.file("list"), "");
  const Outcome run = Lexicon(Basics() + directory_.file("text"));
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, HasSubstr("holds no word"));
}

TEST_F(LexiconTest, AnEmptyTextHasNoWords) {
  support::WriteFile(directory_.file("text"), "");
  const Outcome run = Lexicon(Basics() + directory_.file("text"));
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.output, HasSubstr("0 words, 0 different"));
}

TEST_F(LexiconTest, AnOutputThatCannotBeMadeIsAClearError) {
  const Outcome run = Lexicon("--words " + directory_.file("list") + " --out /proc/nowhere " + directory_.file("text"));
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, HasSubstr("cannot make /proc/nowhere"));
}

TEST_F(LexiconTest, WithoutArgumentsItSaysHowToUseIt) {
  const Outcome run = Lexicon("");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, HasSubstr("usage: lexicon --words LIST"));
}

}  // namespace
