// Reads arbitrary bytes as a perfect-hash dictionary, from a file, a channel and a map, and uses it in every way: no
// access outside the image, and none but the known assertions unless the checker has called it damaged. Inputs are
// changes to sound images as well as images themselves.

#include <cstddef>
#include <cstdint>

#include "outcome.h"
#include "support/hashdict_bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::Outcome(support::ReadHashDictBytes({data, size}));
}
