// How a fuzzer's body ends: with nothing to say, or with what is wrong, which ends the process.
#ifndef FUZZ_OUTCOME_H
#define FUZZ_OUTCOME_H

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz {

inline int Outcome(const std::string& wrong) {
  if (wrong.empty()) return 0;
  std::fprintf(stderr, "%s\n", wrong.c_str());
  std::abort();
}

}  // namespace fuzz

#endif
