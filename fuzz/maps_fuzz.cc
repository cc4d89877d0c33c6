// Reads arbitrary bytes as operations on the integer maps, makes each on a model too, and compares the two down
// to the last word.

#include <cstddef>
#include <cstdint>

#include "outcome.h"
#include "support/operations.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::Outcome(support::OperateMaps({data, size}));
}
