// Reads arbitrary bytes as a table's memory image and does everything with what comes out: any answer will do, but no
// access outside the table's memory, and no operation that does not end. A table that passes its check must be sound
// after everything, too.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dict/hashdeltable.h"
#include "qxlib/misc.h"

namespace {

constexpr UByte kWidest = 4;  // a wider key length is an assertion, left to the death tests

UInt Visit(UByte*, void*) { return 0; }

int Compare(const UByte* a, const UByte* b, void*) { return a < b ? -1 : a > b; }

// What a selection with tombstones asserts; only the check tells it from others.
bool Forbidden(const HashDelTable* table) {
  return table->t_key_size > kWidest || (table->t_selected && table->t_deleted != 0);
}

void Exercise(HashDelTable* table, const uint8_t* data, UInt length) {
  HashTableStatistics stats;
  HashDelTableStats(table, &stats, nullptr);
  HashDelTable* copy = HashDelTableCopy(table);
  const UInt selected = HashDelTableSelect(copy, 0, nullptr, nullptr);
  HashDelTableSort(copy, Compare, nullptr);
  if (selected > 0) HashDelTableGetIndex(copy, selected - 1);
  HashDelTableClear(copy);
  HashDelTableFind(copy, data, length & 7, TRUE, nullptr, nullptr);
  HashDelTableFree(copy);
  if (!table->t_selected) {
    HashDelTableFind(table, data, length, FALSE, nullptr, nullptr);
    for (UInt i = 0; i < 8; i++) {
      if (HashDelTableFind(table, data, length & i, TRUE, nullptr, nullptr) == nullptr) {
        HashDelTableGrow(table, 1.5F, nullptr);
      }
      if (i % 3 == 0) HashDelTableRemove(table, data, length & i, nullptr);
    }
  }
  HashDelTableEnumerate(table, 0, Visit, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  HashDelTable table;
  HashDelTableInit(&table, 5, nullptr, nullptr, nullptr, 4, 0);
  // A block of exactly the image's size: the sanitizer sees what looks past it.
  UByte* image = static_cast<UByte*>(Allocate_(size, nullptr, "fuzz", __LINE__));
  if (size > 0) std::memcpy(image, data, size);
  UByte* from = image;
  const bool whole = HashDelTableMemRead(&table, &from, image + size) != FALSE;
  if (from > image + size) std::abort();
  if (!whole) {
    HashDelTableClear(&table);
  } else if (table.t_val_len < 1u << 20 && !Forbidden(&table)) {
    const bool sound = HashDelTableCheck(&table, nullptr) != FALSE;
    Exercise(&table, data, static_cast<UInt>(size < 16 ? size : 16));
    if (sound && !HashDelTableCheck(&table, nullptr)) std::abort();
  } else if (table.t_key_size <= kWidest && table.t_selected && HashDelTableCheck(&table, nullptr) &&
             table.t_deleted != 0) {
    std::abort();
  }
  UnAllocate_(image, "fuzz", __LINE__);
  HashDelTableFinalize(&table);
  return 0;
}
