// Reads arbitrary bytes as a table's file and does everything with what comes out: any answer will do, but no access
// outside the table's memory, and no operation that does not end.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "dict/hashtable.h"

namespace {

constexpr size_t kKeySizeAt = 8;  // the width of a key's length: above 4 is an assertion, left to the death tests
constexpr UByte kWidest = 4;

UInt Visit(UByte*, void*) { return 0; }

int Compare(const UByte* a, const UByte* b, void*) { return a < b ? -1 : a > b; }

void Exercise(HashTable* table, const uint8_t* data, size_t size) {
  const UInt length = size < 16 ? static_cast<UInt>(size) : 16;
  const bool sound = HashTableCheck(table, nullptr) != FALSE;
  HashTableStatistics stats;
  HashTableStats(table, &stats, nullptr);
  HashTableEnumerate(table, 0, Visit, nullptr);
  if (!table->t_selected) {
    HashTableFind(table, data, length, FALSE, nullptr, nullptr);
    HashTableFind(table, data, length & 7, TRUE, nullptr, nullptr);
  }
  HashTable* copy = HashTableCopy(table);
  const UInt selected = HashTableSelect(copy, 0, nullptr, nullptr, nullptr);
  HashTableSort(copy, Compare, nullptr, nullptr);
  if (selected > 0) HashTableGetIndex(copy, selected - 1, nullptr);
  HashTableClear(copy);
  HashTableFind(copy, data, length & 7, TRUE, nullptr, nullptr);
  HashTableFree(copy);
  if (sound && !HashTableCheck(table, nullptr)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kKeySizeAt && data[kKeySizeAt] > kWidest) return 0;
  const int file = memfd_create("table", MFD_CLOEXEC);
  if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size)) return 0;
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", file);
  for (const Boolean vm : {FALSE, TRUE}) {
    HashTable* table = HashTableRead(path, nullptr, nullptr, nullptr, vm);
    if (table == nullptr) continue;
    if (table->t_val_len < 1u << 20) Exercise(table, data, size);  // else an insertion takes gigabytes
    HashTableFree(table);
  }
  close(file);
  return 0;
}
