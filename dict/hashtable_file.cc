// The file of a HashTable: a header, all slots, the whole heap, in the machine's byte order and without padding.
//
//    0  4  t_selected           13  4  t_entries_capacity    37        slots, 4 * S
//    4  4  t_val_len            17  4  t_entries_size S      37 + 4S   heap, D bytes, used or not
//    8  1  t_key_size           21  8  t_data_used
//    9  4  t_entries_used       29  8  t_data_size D
//
// Callbacks, the kind of memory and t_aligned are not in the file; the reader is told the first two and derives the
// last. There is no checksum and no cross-check: what a damaged file says is believed here, and borne by the
// operations.

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "dict/file_stream.h"
#include "dict/hashtable.h"
#include "dict/hashtable_internal.h"
#include "dict/heap_entry.h"
#include "dict/replace_file.h"
#include "dict/report.h"
#include "qxlib/misc.h"
#include "util/errno_internal.h"

namespace {

using namespace hashtable;

constexpr size_t kHeaderSize = 37;
constexpr size_t kPieceItems = 16777216;  // one read request: so many slots, or so many bytes of the heap
constexpr size_t kFirstPiece = 65536;     // bytes taken for a block whose size only the file's header vouches for

template <typename Item>
bool WriteItem(FILE* f, Item item) {
  return fwrite(&item, sizeof(item), 1, f) == 1;
}

bool WriteHeader(FILE* f, const HashTable& table) {
  return WriteItem(f, UInt{table.t_selected != FALSE}) && WriteItem(f, table.t_val_len) &&
         WriteItem(f, table.t_key_size) && WriteItem(f, table.t_entries_used) &&
         WriteItem(f, table.t_entries_capacity) && WriteItem(f, table.t_entries_size) &&
         WriteItem(f, ULong{table.t_data_used}) && WriteItem(f, ULong{table.t_data_size});
}

bool WriteItems(FILE* f, const void* items, size_t size, size_t count) {
  return count == 0 || fwrite(items, size, count, f) == count;
}

// Reads exactly `count` bytes. A signal that comes in between is no failure.
bool ReadBytes(FILE* f, void* to, size_t count) {
  size_t done = 0;
  for (;;) {
    done += fread(static_cast<UByte*>(to) + done, 1, count - done, f);
    if (done == count) return true;
    if (!ferror(f) || errno != EINTR) return false;
    clearerr(f);
  }
}

template <typename Item>
bool ReadItem(FILE* f, Item* item) {
  return ReadBytes(f, item, sizeof(*item));
}

bool ReadHeader(FILE* f, HashTable* table) {
  return ReadItem(f, &table->t_selected) && ReadItem(f, &table->t_val_len) && ReadItem(f, &table->t_key_size) &&
         ReadItem(f, &table->t_entries_used) && ReadItem(f, &table->t_entries_capacity) &&
         ReadItem(f, &table->t_entries_size) && ReadItem(f, &table->t_data_used) && ReadItem(f, &table->t_data_size);
}

// What the file system says about the bytes behind the header.
enum class Rest { kUnknown, kEnough, kTooShort };

Rest RestOf(FILE* f, const HashTable& table) {
  struct stat status;
  if (fstat(fileno(f), &status) != 0 || !S_ISREG(status.st_mode)) return Rest::kUnknown;
  const size_t size = static_cast<size_t>(status.st_size);
  if (size < kHeaderSize) return Rest::kUnknown;  // and yet the header was read: sizes mean nothing here
  const size_t rest = size - kHeaderSize;
  const size_t slots = sizeof(UInt) * table.t_entries_size;
  return slots <= rest && table.t_data_size <= rest - slots ? Rest::kEnough : Rest::kTooShort;
}

enum class Outcome { kRead, kShort, kNoMemory };

// Reads a block of `count` items of `size` bytes. Where it is not `certain` that the file has them, the block starts
// small and doubles with what has been read. A block that could not be filled is freed.
Outcome ReadBlock(FILE* f, const HashTable* table, size_t size, size_t count, bool certain, void** result) {
  size_t room = certain ? count : std::min(count, kFirstPiece / size);
  auto* block = static_cast<UByte*>(HashMalloc(table, size, room));
  if (block == nullptr && room != 0) return Outcome::kNoMemory;
  for (size_t done = 0; done < count;) {
    if (done == room) {
      const size_t larger = std::min(count, 2 * room);
      void* moved = HashRealloc(table, size, block, room, larger);
      if (moved == nullptr) {
        HashFree(table, size, block, room);
        return Outcome::kNoMemory;
      }
      block = static_cast<UByte*>(moved);
      room = larger;
    }
    const size_t piece = std::min(room - done, kPieceItems);
    if (!ReadBytes(f, block + done * size, piece * size)) {
      const qx::ErrnoKeeper keeper;
      HashFree(table, size, block, room);
      return Outcome::kShort;
    }
    done += piece;
  }
  *result = block;
  return Outcome::kRead;
}

// Everything but the callbacks and the kind of memory. On failure the table has no blocks: a short file costs a reader
// nothing, however often it is tried.
Outcome ReadTable(FILE* f, HashTable* table) {
  if (!ReadHeader(f, table)) return Outcome::kShort;
  const Rest rest = RestOf(f, *table);
  if (rest == Rest::kTooShort) return Outcome::kShort;
  const bool certain = rest == Rest::kEnough;

  void* slots = nullptr;
  void* heap = nullptr;
  Outcome outcome = ReadBlock(f, table, sizeof(UInt), table->t_entries_size, certain, &slots);
  if (outcome != Outcome::kRead) return outcome;
  outcome = ReadBlock(f, table, 1, table->t_data_size, certain, &heap);
  if (outcome != Outcome::kRead) {
    const qx::ErrnoKeeper keeper;
    HashFree(table, sizeof(UInt), slots, table->t_entries_size);
    return outcome;
  }
  table->t_entries = static_cast<UInt*>(slots);
  table->t_data = static_cast<UByte*>(heap);
  return Outcome::kRead;
}

// Writes a file for an exported function, whose failures name the file `name`. One that is written under that name is
// made stable with it; another is to be renamed.
bool WriteFile(const HashTable& table, const char* path, const char* name, const char* function) {
  qx::Stream f = qx::OpenStream(path, "w");
  if (!f) {
    QX_RETHROW_IN(kModule, function, "error opening %s", name);
    return false;
  }
  if (!WriteHeader(f.get(), table)) return false;
  if (!WriteItems(f.get(), table.t_entries, sizeof(UInt), table.t_entries_size) ||
      !WriteItems(f.get(), table.t_data, 1, table.t_data_size) || fflush(f.get()) != 0 || fsync(fileno(f.get())) != 0 ||
      (path == name && !qx::SyncDirectoryOf(path))) {
    QX_RETHROW_IN(kModule, function, "error writing %s", name);
    QXErrorSave();
    f.reset();
    QXErrorRestore();
    return false;
  }
  if (fclose(f.release()) != 0) {
    QX_RETHROW_IN(kModule, function, "error closing %s", name);
    return false;
  }
  return true;
}

// Whether every offset in the slots is a multiple of 8. An empty slot counts as 0.
bool AlignedSlots(const HashTable& table) {
  static_assert(heap::kEmptySlot + 1 == 0);
  UInt bits = 0;
  for (UInt s = 0; s < table.t_entries_size; s++) {
    const UInt offset = table.t_entries[s];
    bits |= offset + (offset == heap::kEmptySlot ? 1 : 0);
  }
  return bits % heap::kAlignment == 0;
}

}  // namespace

Boolean HashTableWrite(const HashTable* table, const char* filename) {
  return WriteFile(*table, filename, filename, __func__) ? TRUE : FALSE;
}

Boolean HashTableReplace(const HashTable* table, const char* filename) {
  qx::Replacement file(filename);
  if (!file) {
    QX_RETHROW("error opening %s", filename);
    return FALSE;
  }
  if (!WriteFile(*table, file.beside(), filename, __func__)) return FALSE;
  if (!file.TakePlace()) {
    if (file.renamed()) {
      QX_RETHROW("error syncing directory of %s", filename);
    } else {
      QX_RETHROW("error renaming %s", filename);
    }
    return FALSE;
  }
  return TRUE;
}

HashTable* HashTableRead(const char* filename, HashKeyFunction hash, HashValueFunction value, HashEqualFunction equal,
                         Boolean vm) {
  auto* table = static_cast<HashTable*>(Allocate_(sizeof(HashTable), nullptr, kModule, __LINE__));
  qx::Stream f = qx::OpenStream(filename, "r");
  if (!f) {
    QX_RETHROW("error opening %s", filename);
    UnAllocate_(table, kModule, __LINE__);
    return nullptr;
  }
  *table = {};
  table->t_hash = hash;
  table->t_value = value;
  table->t_equal = equal;
  table->t_vm = vm != FALSE;
  const Outcome outcome = ReadTable(f.get(), table);
  if (outcome != Outcome::kRead) {
    const int error = ferror(f.get()) ? errno : 0;  // the end of a file is no error of the system's
    UnAllocate_(table, kModule, __LINE__);
    if (outcome == Outcome::kShort) {
      errno = error;
      QX_RETHROW("error reading %s", filename);
      QXErrorSave();
      f.reset();
      QXErrorRestore();
    }
    return nullptr;
  }
  f.reset();
  table->t_aligned = AlignedSlots(*table);
  NoteSlotCount(table);
  return table;
}
