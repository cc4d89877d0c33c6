// Reads arbitrary bytes as operations on the byte-keyed tables, makes each on a model too, and compares the two down to
// the last byte.

#include <cstddef>
#include <cstdint>

#include "outcome.h"
#include "scratch.h"
#include "support/table_operations.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::Outcome(support::OperateTables({data, size}, fuzz::Directory() + "/table"));
}
