// Runs programs as a person at a shell would.
#ifndef TESTS_SUPPORT_PROGRAMS_H
#define TESTS_SUPPORT_PROGRAMS_H

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

namespace support {

struct Outcome {
  int status;          // the exit status; -1 when a signal ended the program
  std::string output;  // what it wrote, to standard output and standard error unless the command says otherwise
};

inline Outcome RunAs(const std::string& command) {
  std::FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, "cannot run " + command};
  std::string output;
  std::array<char, 4096> buffer;
  for (size_t got; (got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) output.append(buffer.data(), got);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

inline Outcome Run(const std::string& command) { return RunAs("{ " + command + "\n} 2>&1"); }

// The output of a command that must succeed.
inline std::string MustRun(const std::string& command) {
  const Outcome outcome = Run(command);
  EXPECT_EQ(outcome.status, 0) << command << "\n" << outcome.output;
  return outcome.output;
}

}  // namespace support

#endif
