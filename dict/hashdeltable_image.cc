// The memory image of a HashDelTable: its writer and its reader, field for field in the same order.
//
//   D = t_data_used | heap: D bytes | N = t_nentries | t_nkeys_max | t_nkeys | t_deleted | slots: N x 4 bytes |
//   t_val_len | t_key_size: 1 byte | t_selected: 1 byte
//
// Numbers without a width have 4 bytes, least significant first.

#include <algorithm>
#include <cstring>

#include "dict/hashdeltable.h"
#include "dict/hashdeltable_internal.h"
#include "dict/report.h"
#include "qxlib/misc.h"
#include "util/io.h"

using namespace hashdeltable;

namespace {

constexpr size_t kFixedSize = 26;  // an image without heap and slots
constexpr size_t kLongestArray = 0x7FFFFFFF;

// Makes room for `count` more bytes. The caller has seen that the array may grow so long.
void Reserve(UByteArray* array, size_t count) {
  const size_t length = array->t.length + count;
  if (length <= array->t.capacity) return;
  const UInt capacity = ArrayNextSize(array->t.capacity, static_cast<UInt>(length), kLongestArray);
  ArrayGrowExact_(&array->a, capacity, sizeof(UByte), kModule, __LINE__);
}

// The codecs append where there is room.

void UByteMemWrite(UByte value, UByteArray* array) { array->t.elts[array->t.length++] = value; }

void BooleanMemWrite(Boolean value, UByteArray* array) { UByteMemWrite(value ? 1 : 0, array); }

void UIntMemWrite(UInt value, UByteArray* array) {
  IO_MemPutLE4(array->t.elts + array->t.length, value);
  array->t.length += sizeof(UInt);
}

// The readers take a value that lies whole in front of `end`, and else leave the position at the first missing byte.

size_t BytesLeft(const UByte* from, const UByte* end) { return from < end ? static_cast<size_t>(end - from) : 0; }

bool Missing(UByte** from, UByte* end) {
  if (*from < end) *from = end;
  return false;
}

bool UIntMemRead(UInt* value, UByte** from, UByte* end) {
  if (BytesLeft(*from, end) < sizeof(UInt)) return Missing(from, end);
  *value = IO_MemGetLE4(*from);
  *from += sizeof(UInt);
  return true;
}

bool UByteMemRead(UByte* value, UByte** from, UByte* end) {
  if (BytesLeft(*from, end) < sizeof(UByte)) return Missing(from, end);
  *value = *(*from)++;
  return true;
}

bool BooleanMemRead(Boolean* value, UByte** from, UByte* end) {
  UByte byte;
  if (!UByteMemRead(&byte, from, end)) return false;
  *value = byte == 1;
  return true;
}

// Reads the heap, resized to its size: never without the bytes for it.
bool HeapMemRead(HashDelTable* table, UByte** from, UByte* end) {
  UInt used;
  if (!UIntMemRead(&used, from, end)) return false;
  table->t_aligned = TRUE;
  if (BytesLeft(*from, end) < used) return Missing(from, end);
  table->t_data = static_cast<UByte*>(Allocate_(used, table->t_data, kModule, __LINE__));
  table->t_data_used = table->t_data_size = used;
  std::memcpy(table->t_data, *from, used);
  *from += used;
  return true;
}

// Reads the slots, their array resized to their number: never without the bytes for them.
bool SlotsMemRead(HashDelTable* table, UInt nentries, UByte** from, UByte* end) {
  if (BytesLeft(*from, end) / sizeof(UInt) < nentries) return Missing(from, end);
  SlotsAllocate(table, nentries);
  for (size_t s = 0; s < nentries; s++) table->t_entries[s] = IO_MemGetLE4(*from + sizeof(UInt) * s);
  *from += sizeof(UInt) * nentries;
  return true;
}

}  // namespace

void HashDelTableMemWrite(HashDelTable* table, UByteArray* to) {
  QX_ASSERT_TEXT(table->t_data_used < 0xFFFFFFFF, "table->t_data_used < ((UInt) (2147483647 * 2U + 1U))");
  const size_t size = kFixedSize + table->t_data_used + sizeof(UInt) * table->t_nentries;
  if (size + to->t.length > kLongestArray) QX_DIE(":hashdeltable: memory image too large: size=%lu", size);
  Reserve(to, size);

  UIntMemWrite(static_cast<UInt>(table->t_data_used), to);
  std::memcpy(to->t.elts + to->t.length, table->t_data, table->t_data_used);
  to->t.length += static_cast<UInt>(table->t_data_used);
  UIntMemWrite(table->t_nentries, to);
  UIntMemWrite(table->t_nkeys_max, to);
  UIntMemWrite(table->t_nkeys, to);
  UIntMemWrite(table->t_deleted, to);
  UByte* const slots = to->t.elts + to->t.length;
  for (size_t s = 0; s < table->t_nentries; s++) IO_MemPutLE4(slots + sizeof(UInt) * s, table->t_entries[s]);
  to->t.length += static_cast<UInt>(sizeof(UInt) * table->t_nentries);
  UIntMemWrite(table->t_val_len, to);
  UByteMemWrite(table->t_key_size, to);
  BooleanMemWrite(table->t_selected, to);
}

Boolean HashDelTableMemRead(HashDelTable* table, UByte** from, UByte* end) {
  UInt nentries;
  return HeapMemRead(table, from, end) && UIntMemRead(&nentries, from, end) &&
         UIntMemRead(&table->t_nkeys_max, from, end) && UIntMemRead(&table->t_nkeys, from, end) &&
         UIntMemRead(&table->t_deleted, from, end) && SlotsMemRead(table, nentries, from, end) &&
         UIntMemRead(&table->t_val_len, from, end) && UByteMemRead(&table->t_key_size, from, end) &&
         BooleanMemRead(&table->t_selected, from, end);
}
