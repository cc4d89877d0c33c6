// Messages, the calling thread's current error, assertions.

#include "qxlib/message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "qxlib/memory.h"
#include "support/death.h"
#include "support/limits.h"
#include "support/messages.h"
#include "support/sanitizers.h"
#include "support/standard_error.h"

QX_ALLOCATIONS_MAY_FAIL;

namespace {

using support::Messages;
using support::StandardErrorOf;
using testing::ElementsAre;

void Context(Boolean flag = FALSE) { QXSetMessageContext2_("dict/example", 12, "qxdict", "ExampleNew", 4, flag); }

TEST(Message, GoesToStandardErrorAsOneLineThatNamesItsContext) {
  EXPECT_EQ(StandardErrorOf([] {
              Context();
              QXMessage_("hdict: retry %d", 3);
            }),
            "qxdict: level 4: dict/example:12: ExampleNew: hdict: retry 3\n");
}

TEST(Message, TheSystemErrorTextFollowsWithTheFlag) {
  EXPECT_EQ(StandardErrorOf([] {
              QXSetMessageContext2_("dict/hashtable", 99, "qxdict", "HashMalloc", 4, TRUE);
              errno = ENOMEM;
              QXMessage_(":hashtable: memory allocation failed: size=%lu", 88ul);
            }),
            "qxdict: level 4: dict/hashtable:99: HashMalloc: :hashtable: memory allocation failed: size=88: Cannot "
            "allocate memory\n");
}

TEST(Message, EveryNonZeroFlagIsTrue) {
  EXPECT_EQ(StandardErrorOf([] {
              Context(-7);
              errno = EACCES;
              QXMessage_("no");
            }),
            "qxdict: level 4: dict/example:12: ExampleNew: no: Permission denied\n");
}

TEST(Message, ControlCharactersCannotBreakTheLine) {
  EXPECT_EQ(StandardErrorOf([] {
              Context();
              QXMessage_("a\nb\rc\x1b[31md\x7f\xc3\xa9");
            }),
            "qxdict: level 4: dict/example:12: ExampleNew: a?b?c?[31md?\xc3\xa9\n");
}

TEST(Message, MissingNamesAreEmpty) {
  EXPECT_EQ(StandardErrorOf([] {
              QXSetMessageContext2_(nullptr, 1, nullptr, nullptr, 2, FALSE);
              QXMessage_("text");
            }),
            ": level 2: :1: : text\n");
}

TEST(Message, KeepsErrno) {
  StandardErrorOf([] {
    Context(TRUE);
    errno = EXDEV;
    QXMessage_("text");
    EXPECT_EQ(errno, EXDEV);
  });
}

TEST(MessageHandler, GetsTheBareTextAndTheContext) {
  Messages messages;
  EXPECT_EQ(StandardErrorOf([] {
              QXSetMessageContext2_("dict/rbdict", 7, "qxdict", "NodeNew", 2, FALSE);
              QXMessage_("size=%lukB", 12ul);
            }),
            "");
  ASSERT_EQ(messages.all().size(), 1u);
  const support::Message& message = messages.all()[0];
  EXPECT_EQ(message.text, "size=12kB");
  EXPECT_EQ(message.file, "dict/rbdict");
  EXPECT_EQ(message.line, 7);
  EXPECT_EQ(message.module, "qxdict");
  EXPECT_EQ(message.function, "NodeNew");
  EXPECT_EQ(message.level, 2);
  EXPECT_FALSE(message.flag);
}

TEST(MessageHandler, GetsTheSystemErrorTextOnlyWithTheFlag) {
  Messages messages;
  errno = ENOSPC;
  Context(TRUE);
  QXMessage_("one");
  Context(FALSE);
  QXMessage_("two");
  EXPECT_THAT(messages.texts(), ElementsAre("one: No space left on device", "two"));
}

TEST(MessageHandler, GetsControlCharactersAsTheyAre) {
  Messages messages;
  Context();
  QXMessage_("a\nb");
  EXPECT_THAT(messages.texts(), ElementsAre("a\nb"));
}

TEST(MessageHandler, CannotDisturbErrno) {
  QXMessageHandlerSet([](const QXMessageContext*, const char*, void*) { errno = EBADF; }, nullptr);
  Context(TRUE);
  errno = EXDEV;
  QXMessage_("text");
  EXPECT_EQ(errno, EXDEV);
  QXMessageHandlerSet(nullptr, nullptr);
}

TEST(MessageHandler, NullGoesBackToStandardError) {
  { Messages messages; }
  EXPECT_EQ(StandardErrorOf([] {
              Context();
              QXMessage_("back");
            }),
            "qxdict: level 4: dict/example:12: ExampleNew: back\n");
}

TEST(MessageHandler, MayReportItself) {
  static std::vector<std::string> texts;
  QXMessageHandlerSet(
      [](const QXMessageContext*, const char* text, void*) {
        texts.emplace_back(text);
        if (texts.size() < 3) QXMessage_("%s again", text);
      },
      nullptr);
  Context();
  QXMessage_("text");
  QXMessageHandlerSet(nullptr, nullptr);
  EXPECT_THAT(texts, ElementsAre("text", "text again", "text again again"));
}

TEST(MessageHandler, KeepsItsContextWhileItReportsFromElsewhere) {
  static std::string function;
  QXMessageHandlerSet(
      [](const QXMessageContext* context, const char*, void*) {
        QXSetMessageContext2_("dict/other", 1, "other", "Other", 2, FALSE);
        function = context->function;
      },
      nullptr);
  Context();
  QXMessage_("text");
  QXMessageHandlerSet(nullptr, nullptr);
  EXPECT_EQ(function, "ExampleNew");
}

TEST(Message, AContextHoldsUntilTheNext) {
  Messages messages;
  Context();
  QXMessage_("one");
  QXMessage_("two");
  ASSERT_EQ(messages.all().size(), 2u);
  EXPECT_EQ(messages.all()[1].function, "ExampleNew");
}

TEST(Message, TheContextIsTheThreadsOwn) {
  Messages messages;
  Context();
  std::thread([] { QXSetMessageContext2_("dict/other", 1, "qxdict", "Other", 2, FALSE); }).join();
  QXMessage_("text");
  ASSERT_EQ(messages.all().size(), 1u);
  EXPECT_EQ(messages.all()[0].file, "dict/example");
}

TEST(Message, LongTextsAreWhole) {
  // Around the size where a text no longer fits what needs no memory, and far beyond.
  for (const size_t length : {0u, 1u, 254u, 255u, 256u, 257u, 5000u, 1000000u}) {
    for (const Boolean flag : {FALSE, TRUE}) {
      Messages messages;
      const std::string text(length, 'x');
      Context(flag);
      errno = EIO;
      QXMessage_("%s", text.c_str());
      EXPECT_THAT(messages.texts(), ElementsAre(flag != FALSE ? text + ": Input/output error" : text));
    }
  }
}

TEST(MessageDeathTest, WithoutMemoryALongTextIsCutAndMarked) {
  EXPECT_EXIT(
      {
        const std::string text(size_t{8} << 20, 'x');
        Context(TRUE);
        support::LimitMemory();
        errno = EIO;
        QXMessage_("%s", text.c_str());
        _exit(0);
      },
      testing::ExitedWithCode(0), "ExampleNew: x{252}\\.\\.\\.: Input/output error\n$");
}

#ifndef QX_SANITIZED  // a sanitizer's allocator does not go on without memory

// Takes all memory that there is, down to the smallest block.
void ExhaustMemory() {
  support::LimitMemory();
  for (size_t size = size_t{1} << 20; size >= 16; size = size > 4096 ? size / 2 : size - 16) {
    while (malloc(size) != nullptr) {
    }
  }
}

TEST(MessageDeathTest, WithoutMemoryTheEndOfATextIsCutAndMarked) {
  EXPECT_EXIT(
      {
        const std::string text(250, 'x');
        Context(TRUE);
        ExhaustMemory();
        errno = EIO;
        QXMessage_("%s", text.c_str());
        _exit(0);
      },
      testing::ExitedWithCode(0), "ExampleNew: x{250}: \\.\\.\\.\n$");
}

// A block of whole pages that there is no page more for.
TEST(MessageDeathTest, WithoutMemoryTheEndOfALongTextIsCutAndMarked) {
  EXPECT_EXIT(
      {
        static const std::string text((size_t{8} << 20) - 25, 'x');  // with the end and the allocator's own: 8 MiB
        QXMessageHandlerSet(
            [](const QXMessageContext*, const char* bytes, void*) {
              const std::string tail(bytes + strlen(bytes) - 5);
              _exit(strlen(bytes) == text.size() && tail == "xx..." ? 7 : 1);
            },
            nullptr);
        Context(TRUE);
        size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        support::Limit(RLIMIT_AS, pages * 4096 + (size_t{8} << 20));
        errno = EIO;
        QXMessage_("%s", text.c_str());
      },
      testing::ExitedWithCode(7), "");
}

TEST(MessageDeathTest, SavingAnErrorWithoutMemoryKeepsErrno) {
  EXPECT_EXIT(
      {
        errno = EIO;
        QXErrorRethrow_("error opening %s", std::string(300, 'p').c_str());
        ExhaustMemory();
        errno = EXDEV;
        QXErrorSave();
        const bool kept = errno == EXDEV;
        QXErrorRestore();
        const char* const text = QXErrorText();
        _exit(kept && strncmp(text, "error opening ppp", 17) == 0 && strcmp(text + 252, "...") == 0 ? 7 : 1);
      },
      testing::ExitedWithCode(7), "");
}

#endif

std::atomic<int> calls_of_the_handler_without_memory{0};

TEST(MessageDeathTest, AHandlerThatRunsOutOfMemoryToldOfLackOfMemoryEndsTheProcessAtOnce) {
  EXPECT_EXIT(
      {
        QXMessageHandlerSet(
            [](const QXMessageContext*, const char* text, void*) {
              fprintf(stderr, "call %d: %s\n", ++calls_of_the_handler_without_memory, text);
              Allocate_(SIZE_MAX / 4, nullptr, "handler", 1);
            },
            nullptr);
        Allocate_(SIZE_MAX / 4, nullptr, "dict/example", 1);
      },
      testing::KilledBySignal(SIGABRT),
      testing::AllOf(testing::HasSubstr("call 1: memory allocation failed: size=4611686018427387903: Cannot allocate "
                                        "memory\n"),
                     testing::Not(testing::HasSubstr("call 2"))));
}

// Two handlers, each to be called with its own argument, exchanged while messages are reported.
struct Pair {
  std::atomic<long> calls{0};
  std::atomic<long> strangers{0};
};
Pair pairs[2];

template <int which>
void PairHandler(const QXMessageContext*, const char*, void* arg) {
  Pair& own = pairs[which];
  own.calls++;
  if (arg != &own) own.strangers++;
}

TEST(MessageHandler, IsExchangedTogetherWithItsArgumentWhileThreadsReport) {
  QXMessageHandlerSet(PairHandler<0>, &pairs[0]);
  std::atomic<bool> done{false};
  std::vector<std::thread> reporters;
  for (int i = 0; i < 3; i++) {
    reporters.emplace_back([&done] {
      Context();
      while (!done) QXMessage_("text");
    });
  }
  for (int i = 0; i < 20000; i++) {
    QXMessageHandlerSet(PairHandler<1>, &pairs[1]);
    QXMessageHandlerSet(PairHandler<0>, &pairs[0]);
  }
  while (pairs[0].calls == 0 || pairs[1].calls == 0) {
    QXMessageHandlerSet(PairHandler<1>, &pairs[1]);
    std::this_thread::yield();
    QXMessageHandlerSet(PairHandler<0>, &pairs[0]);
    std::this_thread::yield();
  }
  done = true;
  for (std::thread& reporter : reporters) reporter.join();
  QXMessageHandlerSet(nullptr, nullptr);
  EXPECT_EQ(pairs[0].strangers, 0);
  EXPECT_EQ(pairs[1].strangers, 0);
}

class ErrorTest : public testing::Test {
 protected:
  ErrorTest() { QXErrorClear(); }
  ~ErrorTest() override { QXErrorClear(); }

  static void Record(int error, const char* path) {
    errno = error;
    Context();
    QXErrorRethrow_("error opening %s", path);
  }
};

TEST_F(ErrorTest, ThereIsNoneAtFirst) {
  EXPECT_STREQ(QXErrorText(), "");
  EXPECT_EQ(QXErrorCode(), 0);
}

TEST_F(ErrorTest, RethrowRecordsTextAndErrno) {
  Record(ENOENT, "/no/such/file");
  EXPECT_STREQ(QXErrorText(), "error opening /no/such/file");
  EXPECT_EQ(QXErrorCode(), ENOENT);
}

TEST_F(ErrorTest, RethrowPrintsNothingAndKeepsErrno) {
  EXPECT_EQ(StandardErrorOf([] {
              Record(EACCES, "x");
              EXPECT_EQ(errno, EACCES);
            }),
            "");
  Messages messages;
  Record(EACCES, "x");
  EXPECT_THAT(messages.all(), testing::IsEmpty());
}

TEST_F(ErrorTest, TheLastRethrowHolds) {
  Record(ENOENT, "one");
  Record(EIO, "two");
  EXPECT_STREQ(QXErrorText(), "error opening two");
  EXPECT_EQ(QXErrorCode(), EIO);
}

TEST_F(ErrorTest, ALongPathIsWhole) {
  const std::string path(5000, 'p');
  Record(ENAMETOOLONG, path.c_str());
  EXPECT_EQ(QXErrorText(), "error opening " + path);
  QXErrorSave();
  QXErrorClear();
  QXErrorRestore();
  EXPECT_EQ(QXErrorText(), "error opening " + path);
}

TEST_F(ErrorTest, RethrowMayQuoteTheCurrentError) {
  Record(EIO, "x");
  QXErrorRethrow_("while building: %s", QXErrorText());
  EXPECT_STREQ(QXErrorText(), "while building: error opening x");
  const std::string path(1000, 'p');
  Record(EIO, path.c_str());
  QXErrorRethrow_("while building: %s", QXErrorText());
  EXPECT_EQ(QXErrorText(), "while building: error opening " + path);
}

TEST_F(ErrorTest, ClearForgets) {
  Record(EIO, "x");
  QXErrorClear();
  EXPECT_STREQ(QXErrorText(), "");
  EXPECT_EQ(QXErrorCode(), 0);
}

TEST_F(ErrorTest, SaveAndRestoreBringBackTheFirstErrorAndErrno) {
  Record(ENOSPC, "first");
  errno = ENOSPC;
  QXErrorSave();
  EXPECT_STREQ(QXErrorText(), "error opening first");
  EXPECT_EQ(errno, ENOSPC);
  Record(EBADF, "second");
  errno = EBADF;
  QXErrorRestore();
  EXPECT_STREQ(QXErrorText(), "error opening first");
  EXPECT_EQ(QXErrorCode(), ENOSPC);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(ErrorTest, NoErrorIsRestoredAsNone) {
  QXErrorSave();
  Record(EIO, "x");
  QXErrorRestore();
  EXPECT_STREQ(QXErrorText(), "");
  EXPECT_EQ(QXErrorCode(), 0);
}

TEST_F(ErrorTest, CleanUpsMayNest) {
  Record(1, "outer");
  QXErrorSave();
  Record(2, "inner");
  QXErrorSave();
  Record(3, "innermost");
  QXErrorRestore();
  EXPECT_STREQ(QXErrorText(), "error opening inner");
  EXPECT_EQ(QXErrorCode(), 2);
  QXErrorRestore();
  EXPECT_STREQ(QXErrorText(), "error opening outer");
  EXPECT_EQ(QXErrorCode(), 1);
}

TEST_F(ErrorTest, BelowTheEighthLevelTheErrorIsTheLastRecorded) {
  for (int level = 1; level <= 10; level++) {
    Record(level, std::to_string(level).c_str());
    QXErrorSave();
  }
  Record(11, "11");
  for (const int expected : {11, 11, 8, 7, 6, 5, 4, 3, 2, 1}) {
    QXErrorRestore();
    EXPECT_EQ(QXErrorCode(), expected);
    EXPECT_EQ(QXErrorText(), "error opening " + std::to_string(expected));
  }
}

TEST_F(ErrorTest, RestoreWithoutSaveChangesNothing) {
  Record(EIO, "x");
  errno = EXDEV;
  QXErrorRestore();
  EXPECT_STREQ(QXErrorText(), "error opening x");
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(ErrorTest, IsTheThreadsOwn) {
  Record(EIO, "mine");
  std::thread([] {
    EXPECT_STREQ(QXErrorText(), "");
    EXPECT_EQ(QXErrorCode(), 0);
    const std::string path(3000, 'p');
    Record(ENOENT, path.c_str());
    QXErrorSave();
    EXPECT_EQ(QXErrorText(), "error opening " + path);
  }).join();
  EXPECT_STREQ(QXErrorText(), "error opening mine");
  EXPECT_EQ(QXErrorCode(), EIO);
}

// A thread's other destructors may still fail at something.
struct ReportsAtTheEnd {
  ~ReportsAtTheEnd() {
    errno = EIO;
    QXErrorRethrow_("error closing %s", "last");
    text = QXErrorText();
    QXErrorClear();
  }
  static std::string text;
};
std::string ReportsAtTheEnd::text;

TEST_F(ErrorTest, WorksWhileAThreadEnds) {
  std::thread([] {
    thread_local ReportsAtTheEnd object;
    static_cast<void>(&object);
    Record(EIO, std::string(3000, 'p').c_str());  // its destructor runs before the object's
  }).join();
  EXPECT_EQ(ReportsAtTheEnd::text, "error closing last");
}

TEST(AssertionDeathTest, PrintsTheCLibrarysFormWithoutAFunction) {
  EXPECT_EXIT(qxassert_("!table->t_aligned || (entry % sizeof(void*) == 0)", "dict/hashtable", 77),
              testing::KilledBySignal(SIGABRT),
              "^message_test: dict/hashtable:77: Assertion `!table->t_aligned \\|\\| \\(entry % sizeof\\(void\\*\\) == "
              "0\\)' failed\\.\n$");
}

}  // namespace
