// Reads arbitrary bytes as a perfect-hash dictionary and looks keys up in it: any answer will do, but no access outside
// the image.
//
// The image is the input's tail, in a block of its exact size; its first bytes are the keys to look for.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "dict/hashdict.h"

namespace {

constexpr size_t kKeyBytes = 16;

// Coefficients that reach the vertex count end in an assertion, which is an answer too: such inputs are left to the
// death tests.
bool VerticesInRange(const HashDict& dictionary) {
  if (dictionary.h_size < 3) return false;
  for (size_t i = 0; i < dictionary.h_coef_size / sizeof(Id); i++) {
    Id coefficient;
    __builtin_memcpy(&coefficient, reinterpret_cast<const UByte*>(dictionary.h_coef) + i * sizeof(Id),
                     sizeof coefficient);
    if (coefficient >= dictionary.h_size) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kKeyBytes) return 0;
  const size_t length = size - kKeyBytes;
  const std::unique_ptr<UByte[]> image(new UByte[length]);
  if (length != 0) __builtin_memcpy(image.get(), data + kKeyBytes, length);

  HashDict dictionary = {};
  if (!HashDictMemOpen_(&dictionary, image.get(), length, TRUE)) return 0;
  if (!VerticesInRange(dictionary)) return 0;
  for (UInt bytes = 0; bytes <= kKeyBytes; bytes++) HashDictFind(&dictionary, data, bytes);
  for (size_t at = 0; at < kKeyBytes; at++) HashDictFind(&dictionary, data + at, 1);
  return 0;
}
