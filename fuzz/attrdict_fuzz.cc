// Reads arbitrary bytes as the two files of an attribute dictionary: any answer will do, but no access outside the
// files, and no enumeration that does not end. A pair that the check calls sound has every string, in order, and is
// what a writer writes.

#include "mutation.h"
#include "outcome.h"
#include "scratch.h"
#include "support/attrdict_bytes.h"

namespace {

constexpr size_t kLengthAt = 13;  // of the index, behind the way and three identifiers

size_t Head(const std::string&) { return kLengthAt; }

// A sound pair, the length of its index in front.
std::string Fresh(fuzz::Chance* chance) {
  std::string index, data;
  const size_t count = chance->Below(20);
  for (size_t id = 0; id < count; id++) {
    if (id % 4 == 0) index += fuzz::Bytes4(data.size());
    const std::string bytes = fuzz::RandomKey(chance);
    data += static_cast<char>(bytes.size());
    data += bytes;
  }
  index += fuzz::Bytes4(count);
  return std::string{'\0', static_cast<char>(index.size())} + index + data;
}

std::vector<fuzz::Field> Fields(const std::string& input, size_t head, fuzz::Chance* chance) {
  if (input.size() < head + 2) return {};
  const size_t length = size_t{static_cast<uint8_t>(input[head])} << 8 | static_cast<uint8_t>(input[head + 1]);
  const size_t data = head + 2 + length;
  std::vector<fuzz::Field> fields = {{head + 1, 1}, {data < 4 ? 0 : data - 4, 4}, {0, 1}, {1, 4}, {5, 4}, {9, 4}};
  for (int i = 0; i < 4; i++) {
    fields.push_back({head + 2 + 4 * chance->Below(length / 4), 4});
    if (data < input.size()) fields.push_back({data + chance->Below(input.size() - data), 1});
  }
  return fields;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
  return fuzz::Mutate(data, size, max_size, seed, Head, Fresh, Fields);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::Outcome(support::ReadAttrDictBytes({data, size}, fuzz::Directory()));
}
