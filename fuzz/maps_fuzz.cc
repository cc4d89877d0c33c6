// Reads arbitrary bytes as operations on the integer maps, makes each on a model too, and compares the two down to the
// last word.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "support/operations.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string difference = support::OperateMaps({data, size});
  if (!difference.empty()) {
    std::fprintf(stderr, "%s\n", difference.c_str());
    std::abort();
  }
  return 0;
}
