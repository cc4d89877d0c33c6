// Reads arbitrary bytes as a table's memory image, once without asking and once after the check, and makes operations
// on what comes out: nothing outside the image or the table's memory, no operation that does not end, and a table that
// the check calls sound stays so.

#include "mutation.h"
#include "outcome.h"
#include "support/table_bytes.h"

namespace {

size_t Head(const std::string& input) { return input.size() < 2 ? 0 : 2 + 4 * size_t{static_cast<uint8_t>(input[1])}; }

// The image of a table with some keys, and without others.
std::string Fresh(fuzz::Chance* chance) {
  const auto length = static_cast<UInt>(chance->Below(10));
  const auto width = static_cast<UByte>(chance->Below(5));
  HashDelTable* table = HashDelTableNew(static_cast<UInt>(chance->Below(30)), nullptr, nullptr, nullptr, length, width);
  for (size_t left = chance->Below(30); left > 0; left--) {
    const std::string key = fuzz::RandomKey(chance);
    if (HashDelTableFind(table, support::Bytes(key), support::Length(key), TRUE, nullptr, nullptr) == nullptr) {
      HashDelTableGrow(table, 1.7F, nullptr);
    }
    const std::string gone = fuzz::RandomKey(chance);
    if (chance->Below(3) == 0) HashDelTableRemove(table, support::Bytes(gone), support::Length(gone), nullptr);
  }
  if (chance->Below(6) == 0) HashDelTableSelect(table, 0, nullptr, nullptr);
  UByteArray array;
  ArrayInit_(&array.a);
  HashDelTableMemWrite(table, &array);
  const std::string image = support::Text(array.t.elts, array.t.length);
  ArrayFree_(&array.a, "fuzz", __LINE__);
  HashDelTableFree(table);
  return image;
}

std::vector<fuzz::Field> Fields(const std::string& input, size_t head, fuzz::Chance* chance) {
  const size_t heap = fuzz::Number4(input, head);
  const size_t counts = head + 4 + heap;
  const size_t slots = fuzz::Number4(input, counts);
  const size_t end = counts + 16 + 4 * slots;
  std::vector<fuzz::Field> fields = {{head, 4},        {counts, 4}, {counts + 4, 4}, {counts + 8, 4},
                                     {counts + 12, 4}, {end, 4},    {end + 4, 1},    {end + 5, 1}};
  for (int i = 0; i < 4; i++) {
    fields.push_back({counts + 16 + 4 * chance->Below(slots), 4});
    fields.push_back({head + 4 + chance->Below(heap), 1});
  }
  return fields;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
  return fuzz::Mutate(data, size, max_size, seed, Head, Fresh, Fields);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::Outcome(support::ReadHashDelTableBytes({data, size}));
}
