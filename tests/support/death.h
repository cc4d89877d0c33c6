// Death tests for assertions: the statement must end the process with exactly this assertion, from this module and
// function.
#ifndef TESTS_SUPPORT_DEATH_H
#define TESTS_SUPPORT_DEATH_H

#include <gtest/gtest.h>

#include <string>

namespace support {

inline std::string QuoteRegex(const std::string& text) {
  std::string quoted;
  for (const char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) quoted += '\\';
    quoted += c;
  }
  return quoted;
}

// program: dict/hashtable:123: HashTableFind: Assertion `text' failed.
inline std::string AssertionPattern(const std::string& module, const std::string& function, const std::string& text) {
  return ": " + QuoteRegex(module) + ":[0-9]+: " + QuoteRegex(function) + ": Assertion `" + QuoteRegex(text) +
         "' failed\\.";
}

}  // namespace support

#define EXPECT_ASSERTION(statement, module, function, text) \
  EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT), ::support::AssertionPattern(module, function, text))

// The clear end: a message that contains `text`, then abort.
#define EXPECT_CLEAR_END(statement, text) \
  EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT), ::support::QuoteRegex(text))

#endif
