// Reads arbitrary bytes as a table's file, once without asking and once after the check, and makes operations on what
// comes out: nothing outside the table's memory, no operation that does not end, and a table that the check calls sound
// stays so.

#include <unistd.h>

#include "mutation.h"
#include "outcome.h"
#include "support/table_bytes.h"

namespace {

constexpr size_t kHeaderSize = 37;

size_t Head(const std::string& input) { return input.size() < 2 ? 0 : 2 + 4 * size_t{static_cast<uint8_t>(input[1])}; }

// The file of a table with some keys.
std::string Fresh(fuzz::Chance* chance) {
  const auto length = static_cast<UInt>(chance->Below(10));
  const auto width = static_cast<UByte>(chance->Below(5));
  HashTable* table =
      HashTableNew(static_cast<UInt>(chance->Below(30)), nullptr, nullptr, nullptr, length, width, FALSE);
  for (size_t left = chance->Below(25); left > 0; left--) {
    const std::string key = fuzz::RandomKey(chance);
    if (HashTableFull(table)) HashTableGrow(table, 1.7F, nullptr);
    HashTableFind(table, support::Bytes(key), support::Length(key), TRUE, nullptr, nullptr);
  }
  if (chance->Below(6) == 0) HashTableSelect(table, 0, nullptr, nullptr, nullptr);
  const support::ServedBytes file("", false);
  HashTableWrite(table, file.name());
  HashTableFree(table);
  return file.Read();
}

std::vector<fuzz::Field> Fields(const std::string& input, size_t head, fuzz::Chance* chance) {
  std::vector<fuzz::Field> fields = {{head, 4},      {head + 4, 4},  {head + 8, 1},  {head + 9, 4},
                                     {head + 13, 4}, {head + 17, 4}, {head + 21, 8}, {head + 29, 8}};
  const uint32_t slots = fuzz::Number4(input, head + 17);
  const size_t heap = head + kHeaderSize + size_t{4} * slots;
  for (int i = 0; i < 4; i++) {
    fields.push_back({head + kHeaderSize + 4 * chance->Below(slots), 4});
    if (heap < input.size()) fields.push_back({heap + chance->Below(input.size() - heap), 1});
  }
  return fields;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
  return fuzz::Mutate(data, size, max_size, seed, Head, Fresh, Fields);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::Outcome(support::ReadHashTableBytes({data, size}));
}
