// Reads arbitrary bytes as a perfect-hash dictionary, from a file, a channel and a map, and uses it in every way: no
// access outside the image, and none but the known assertions unless the checker has called it damaged.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "support/hashdict_bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string fault = support::ReadHashDictBytes({data, size});
  if (!fault.empty()) {
    std::fprintf(stderr, "%s\n", fault.c_str());
    std::abort();
  }
  return 0;
}
