// The attribute dictionary: short byte strings in the order of their identifiers, and the offset of every fourth one.
//
//   .dat  [ L | L bytes ][ L | L bytes ] ...      one record an identifier, L in one byte
//          ^ 0                           ^ 4
//   .idx  [ offset of 0 | offset of 4 | ... | number of identifiers ]      32-bit words
//
// Reading is bounded without a pass over the files. a_indexed, found once at opening, is the number of identifiers that
// have an index word at all, and so the one bound that a look-up compares with anyway. Four records take at most
// kGroupSpan bytes: where an offset is below a_roomy, that far from the end of the data, whatever the bytes there say
// the group lies inside. Only the last kilobyte is walked with a check a record.

#include "dict/attrdict.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "dict/choose.h"
#include "dict/file_stream.h"
#include "dict/report.h"
#include "qxlib/misc.h"
#include "util/descriptor_internal.h"
#include "util/errno_internal.h"

namespace {

constexpr const char* kModule = "dict/attrdict";

constexpr const char* kIndexSuffix = "idx";
constexpr const char* kDataSuffix = "dat";
constexpr size_t kPathRoom = 4097;

constexpr UInt kGroup = 4;                           // identifiers to an index word
constexpr size_t kGroupSpan = size_t{kGroup} * 256;  // the most bytes of their records
constexpr ULong kMaxOffset = 0xFFFFFFFF;  // and the most bytes of data, so that each record's end is an offset, too
constexpr size_t kLine = 64;              // bytes of memory that are fetched at once
constexpr size_t kOutside = ~size_t{0};

static_assert(offsetof(AttrDict, a_idx) == 8 && offsetof(AttrDict, a_idx_size) == 16);
static_assert(offsetof(AttrDict, a_dat) == 24 && offsetof(AttrDict, a_dat_size) == 32);
static_assert(offsetof(AttrDict, a_idx_file) == 40 && offsetof(AttrDict, a_dat_file) == 48);
static_assert(offsetof(AttrDict, a_offset) == 56 && offsetof(AttrDict, a_swap) == 60);

using Path = std::array<char, kPathRoom>;

// Formats a path; false, with ENAMETOOLONG, when it does not fit.
__attribute__((__format__(__printf__, 2, 3))) bool Format(Path* path, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(path->data(), path->size(), format, arguments);
  va_end(arguments);
  if (length >= 0 && static_cast<size_t>(length) < path->size()) return true;
  errno = ENAMETOOLONG;
  return false;
}

// A dictionary being built, and the path of its two files without their suffixes.
struct Draft {
  AttrDict adict;
  Path stem;
};

// A new record: of an AttrDict that is read, or of a Draft.
template <class Record>
Record* New() {
  auto* record = static_cast<Record*>(Allocate_(sizeof(Record), nullptr, kModule, __LINE__));
  *record = {};
  return record;
}

void Release(AttrDict* adict) {
  const qx::ErrnoKeeper keeper;
  UnAllocate_(adict, kModule, __LINE__);
}

// The path of one of the pair; false, with errno, when there is none.
bool FormatName(Path* path, const char* dir, const char* name, const char* suffix) {
  if (name == nullptr) {
    errno = EINVAL;
    return false;
  }
  return dir != nullptr ? Format(path, "%s/%s.%s", dir, name, suffix) : Format(path, "%s.%s", name, suffix);
}

// The names of a pair.
struct Names {
  Path index;
  Path data;

  bool Format(const char* dir, const char* name) {
    return FormatName(&index, dir, name, kIndexSuffix) && FormatName(&data, dir, name, kDataSuffix);
  }
};

// Opens one of the pair for writing. Null, with errno, on failure.
qx::Stream OpenForWriting(const char* dir, const char* name, const char* suffix, Path* path) {
  return FormatName(path, dir, name, suffix) ? qx::OpenStream(path->data(), "w") : nullptr;
}

void NoteWriteError(AttrDict* adict) {
  if (adict->a_error == 0) adict->a_error = errno;
}

// Writes a word of the index: as it lies in memory, up to the first byte that cannot be written, or its bytes in
// reverse, whatever becomes of each. The streams are written without their locks: a dictionary being built belongs to
// one thread.
void WriteUInt(AttrDict* adict, UInt val) {
  std::array<UByte, sizeof val> bytes;
  std::memcpy(bytes.data(), &val, sizeof val);
  if (adict->a_swap) std::reverse(bytes.begin(), bytes.end());
  for (const UByte byte : bytes) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a dictionary belongs to one thread while it is built
    if (putc_unlocked(byte, adict->a_idx_file) != EOF) continue;
    NoteWriteError(adict);
    if (!adict->a_swap) return;
  }
}

// The checked close: false when the file may not be whole on stable storage.
bool Close(FILE* f) {
  const bool failed = ferror(f) != 0;
  if (fflush(f) != 0 || fsync(fileno(f)) != 0) {
    const qx::ErrnoKeeper keeper;
    fclose(f);
    return false;
  }
  return fclose(f) == 0 && !failed;
}

// Makes the names of the pair stable, which may be new.
bool SyncNames(const AttrDict& adict) { return adict.a_directory < 0 || qx::SyncDirectory(adict.a_directory); }

// Writes what is left and closes both files. False, with errno, when they are not whole on stable storage.
bool Complete(AttrDict* adict) {
  WriteUInt(adict, adict->a_size);
  bool whole = Close(adict->a_idx_file);
  if (whole) {
    // The names in a directory that could not be opened, as one that may be written but not read, are synced with all
    // of its file system; a failure of that may be any other file's, so it counts for nothing.
    if (adict->a_directory < 0) syncfs(fileno(adict->a_dat_file));
    whole = Close(adict->a_dat_file) && SyncNames(*adict);
  } else {
    NoteWriteError(adict);
    fclose(adict->a_dat_file);
  }
  if (!whole) NoteWriteError(adict);
  if (adict->a_directory >= 0) close(adict->a_directory);
  int error = adict->a_error;
  if (whole && adict->a_full) {
    whole = false;
    error = EFBIG;
  }
  if (!whole) errno = error;
  return whole;
}

// Whether a file that is being written is the one of that name.
bool IsFile(FILE* f, const Path& path) {
  struct stat written;
  struct stat named;
  return fstat(fileno(f), &written) == 0 && stat(path.data(), &named) == 0 && written.st_dev == named.st_dev &&
         written.st_ino == named.st_ino;
}

// Gives a file that is being written the permissions of the one that it is to replace, if there is one.
bool TakePermissions(FILE* f, const Path& path) {
  struct stat old;
  if (stat(path.data(), &old) != 0 || !S_ISREG(old.st_mode)) return true;
  return fchmod(fileno(f), old.st_mode & 07777) == 0;
}

// Whether a name can be given to a file: false, with errno, where a directory has it.
bool IsFree(const Path& path) {
  struct stat there;
  if (lstat(path.data(), &there) != 0 || !S_ISDIR(there.st_mode)) return true;
  errno = EISDIR;
  return false;
}

bool Exchange(const Path& from, const Path& to) {
  return renameat2(AT_FDCWD, from.data(), AT_FDCWD, to.data(), RENAME_EXCHANGE) == 0;
}

void Remove(const Names& names) {
  const qx::ErrnoKeeper keeper;
  unlink(names.index.data());
  unlink(names.data.data());
}

// Gives a complete pair its place, for good. False, with errno, when the pair there stands as it did and the new one is
// gone: the data, which go first, are exchanged with those there, so that they can be put back when the index cannot
// follow. False too when the names cannot be made stable; then the old data stay beside, as they do until that moment.
//
//   exchange or rename of the data    rename of the index    sync     `to` holds      `from` holds        result
//   fails                             -                      -        what it held    nothing             false
//   done                              fails                  -        what it held    nothing             false
//   done                              done                   fails    the new pair    old data, if any    false
//   done                              done                   done     the new pair    nothing             true
bool TakePlace(const Names& from, const Names& to) {
  const bool vacant = IsFree(to.index) && IsFree(to.data);
  const bool exchanged = vacant && Exchange(from.data, to.data);
  if (!exchanged && (!vacant || rename(from.data.data(), to.data.data()) != 0)) {
    Remove(from);
    return false;
  }
  if (rename(from.index.data(), to.index.data()) == 0) {
    if (!qx::SyncDirectoryOf(to.data.data())) return false;
    if (exchanged) unlink(from.data.data());
    return true;
  }
  const qx::ErrnoKeeper keeper;
  unlink(from.index.data());
  // Old data that cannot be put back stay beside, under the new ones' first name.
  if (exchanged) {
    rename(from.data.data(), to.data.data());
  } else {
    unlink(to.data.data());
  }
  return false;
}

// Maps one of the pair. Null, with errno and *empty, on failure and when there is nothing to map.
void* Map(const char* dir, const char* name, const char* suffix, size_t* size, Boolean* empty) {
  Path path;
  *empty = FALSE;
  return FormatName(&path, nullptr, name, suffix) ? FileMapRead(dir, path.data(), size, empty) : nullptr;
}

// The number of identifiers: the index's last word. An index of odd size has it at an odd place.
UInt LastWord(const AttrDict& adict) {
  UInt word = 0;
  if (adict.a_idx_size >= sizeof word) {
    std::memcpy(&word, reinterpret_cast<const UByte*>(adict.a_idx) + adict.a_idx_size - sizeof word, sizeof word);
  }
  return word;
}

// Notes what a look-up need not check again.
void NoteBounds(AttrDict* adict) {
  const size_t indexed = adict->a_idx_size / sizeof(UInt) * kGroup;
  adict->a_indexed = static_cast<UInt>(std::min(size_t{adict->a_size}, indexed));
  adict->a_roomy = adict->a_dat_size >= kGroupSpan ? adict->a_dat_size - kGroupSpan + 1 : 0;
}

// Whether a record lies inside the data.
bool Inside(const AttrDict& adict, size_t record) {
  return record < adict.a_dat_size && adict.a_dat[record] < adict.a_dat_size - record;
}

size_t Next(const AttrDict& adict, size_t record) { return record + 1 + adict.a_dat[record]; }

// Where the record of an identifier below a_indexed is, or kOutside when it is not inside the data.
size_t Find(const AttrDict& adict, Id id) {
  size_t record = adict.a_idx[id / kGroup];
  const UInt skips = id % kGroup;
  if (record < adict.a_roomy) [[likely]] {
    // Four records mostly reach into another line of memory: it is fetched together with the first.
    __builtin_prefetch(adict.a_dat + record + kLine);
    // All three steps, those too many on the spot: how many there are is at random, and a branch would guess wrong.
    for (UInt i = 0; i < kGroup - 1; i++) record = qx::IfBelow(i, skips, Next(adict, record), record);
    return record;
  }
  for (UInt i = 0; i < skips && Inside(adict, record); i++) record = Next(adict, record);
  return Inside(adict, record) ? record : kOutside;
}

using Places = std::array<size_t, kGroup>;

// Finds where the records of a group are, of which there are `count`, and gives how many come before the first that is
// not inside the data. All are found before one is visited: what a visitor does with lengths that the processor cannot
// guess need not wait for the next one.
UInt FindGroup(const AttrDict& adict, size_t record, UInt count, Places* places) {
  if (record < adict.a_roomy) [[likely]] {
    for (size_t& place : *places) {
      place = record;
      record = Next(adict, record);
    }
    return count;
  }
  UInt inside = 0;
  for (; inside < count && Inside(adict, record); inside++) {
    (*places)[inside] = record;
    record = Next(adict, record);
  }
  return inside;
}

// The words of the index for so many identifiers, its last one included.
size_t IndexWords(UInt size) { return (size_t{size} + kGroup - 1) / kGroup + 1; }

// The first thing wrong with a pair that is open; null when there is nothing.
const char* Fault(const AttrDict& adict) {
  const size_t words = adict.a_idx_size / sizeof(UInt);
  if (adict.a_idx_size % sizeof(UInt) != 0) return "size of the index is no multiple of 4";
  if (words != IndexWords(adict.a_size)) {
    return words == IndexWords(__builtin_bswap32(adict.a_size)) ? "index is in the other byte order"
                                                                : "size of the index is not its identifiers'";
  }
  size_t record = 0;
  for (Id id = 0; id < adict.a_size; id++) {
    if (id % kGroup == 0 && adict.a_idx[id / kGroup] != record) return "offset is not where its record starts";
    if (!Inside(adict, record)) return "record is not inside the data";
    record = Next(adict, record);
  }
  return record == adict.a_dat_size ? nullptr : "data go on behind the last record";
}

}  // namespace

AttrDict* AttrDictBuild(const char* dir, const char* name, Boolean swap) {
  auto* draft = New<Draft>();
  AttrDict* adict = &draft->adict;
  Path path;
  qx::Stream idx = OpenForWriting(dir, name, kIndexSuffix, &path);
  qx::Stream dat = idx ? OpenForWriting(dir, name, kDataSuffix, &path) : nullptr;
  if (!dat) {
    const qx::ErrnoKeeper keeper;
    idx.reset();
    Release(adict);
    return nullptr;
  }
  adict->a_idx_file = idx.release();
  adict->a_dat_file = dat.release();
  adict->a_swap = swap;
  adict->a_directory = qx::OpenDirectoryOf(path.data());
  const size_t stem = strlen(path.data()) - strlen(kDataSuffix) - 1;
  std::memcpy(draft->stem.data(), path.data(), stem);
  return adict;
}

void AttrDictAdd(AttrDict* adict, const UByte* bytes, UByte len) {
  if (adict->a_full || ULong{adict->a_offset} + 1 + len > kMaxOffset) {
    adict->a_full = TRUE;
    return;
  }
  if (adict->a_size % kGroup == 0) WriteUInt(adict, adict->a_offset);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): as above
  if (putc_unlocked(len, adict->a_dat_file) == EOF) NoteWriteError(adict);
  if (len != 0 && fwrite_unlocked(bytes, 1, len, adict->a_dat_file) != len) NoteWriteError(adict);
  adict->a_size++;
  adict->a_offset += UInt{len} + 1;
}

Boolean AttrDictCommit(AttrDict* adict) {
  QX_ASSERT_TEXT(adict != nullptr, "adict != ((void *)0)");
  QX_ASSERT_TEXT(adict->a_idx_file != nullptr, "adict->a_idx_file != ((void *)0)");
  QX_ASSERT_TEXT(adict->a_dat_file != nullptr, "adict->a_dat_file != ((void *)0)");
  const bool whole = Complete(adict);
  Release(adict);
  return whole ? TRUE : FALSE;
}

AttrDict* AttrDictOpen(const char* dir, const char* name) {
  AttrDict* adict = New<AttrDict>();
  Boolean empty;
  adict->a_idx = static_cast<UInt*>(Map(dir, name, kIndexSuffix, &adict->a_idx_size, &empty));
  if (adict->a_idx == nullptr) {
    if (empty) errno = ENODATA;
    Release(adict);
    return nullptr;
  }
  adict->a_dat = static_cast<UByte*>(Map(dir, name, kDataSuffix, &adict->a_dat_size, &empty));
  if (adict->a_dat == nullptr && !empty) {
    const qx::ErrnoKeeper keeper;
    FileUnmap(adict->a_idx, adict->a_idx_size);
    Release(adict);
    return nullptr;
  }
  adict->a_size = LastWord(*adict);
  NoteBounds(adict);
  return adict;
}

UInt AttrDictSize(const AttrDict* adict) { return adict->a_size; }

UByte AttrDictGet(const AttrDict* adict, Id id, const UByte** bytes) {
  if (adict == nullptr || id >= adict->a_indexed) return 0;
  const size_t place = Find(*adict, id);
  if (place == kOutside) return 0;
  const UByte* record = adict->a_dat + place;
  *bytes = record + 1;
  return *record;
}

UInt AttrDictEnumerate(const AttrDict* adict, Id startPoint, AttrDictEnumerateFunction fun, void* ptr) {
  QX_ASSERT_TEXT(adict != nullptr, "adict != ((void *)0)");
  if (adict->a_dat == nullptr) return 0;
  QX_ASSERT_TEXT(startPoint < adict->a_size, "id < adict->a_size");
  UInt skips = startPoint % kGroup;
  for (size_t first = startPoint - skips; first < adict->a_indexed; first += kGroup) {
    const UInt count = static_cast<UInt>(std::min(size_t{kGroup}, adict->a_indexed - first));
    Places places;
    const UInt inside = FindGroup(*adict, adict->a_idx[first / kGroup], count, &places);
    for (UInt i = skips; i < inside; i++) {
      UByte* record = adict->a_dat + places[i];
      const UInt stop = fun(record + 1, *record, ptr);
      if (stop != 0) return stop;
    }
    if (inside < count) return 0;  // so that the visitor's count of calls tells it the identifier
    skips = 0;
  }
  return 0;
}

Boolean AttrDictClose(AttrDict* adict) {
  QX_ASSERT_TEXT(adict != nullptr, "adict != ((void *)0)");
  QX_ASSERT_TEXT(adict->a_idx_file == nullptr && adict->a_dat_file == nullptr,
                 "adict->a_idx_file == ((void *)0) && adict->a_dat_file == ((void *)0)");
  Boolean released = FileUnmap(adict->a_idx, adict->a_idx_size);
  if (adict->a_dat != nullptr && !FileUnmap(adict->a_dat, adict->a_dat_size)) released = FALSE;
  Release(adict);
  return released;
}

Boolean AttrDictCheck(const AttrDict* adict, const char** reason) {
  const bool open = adict != nullptr && adict->a_idx != nullptr;
  const char* const fault = open ? Fault(*adict) : "dictionary is not open for reading";
  if (reason != nullptr) *reason = fault;
  return fault == nullptr ? TRUE : FALSE;
}

Boolean AttrDictCommitAs(AttrDict* adict, const char* dir, const char* name) {
  QX_ASSERT_TEXT(adict != nullptr, "adict != ((void *)0)");
  QX_ASSERT_TEXT(adict->a_idx_file != nullptr, "adict->a_idx_file != ((void *)0)");
  QX_ASSERT_TEXT(adict->a_dat_file != nullptr, "adict->a_dat_file != ((void *)0)");
  Names from;
  Names to;
  from.Format(nullptr, reinterpret_cast<Draft*>(adict)->stem.data());
  const bool named = to.Format(dir, name);
  if (named && IsFile(adict->a_dat_file, to.data)) return AttrDictCommit(adict);
  const bool fit = named && TakePermissions(adict->a_idx_file, to.index) && TakePermissions(adict->a_dat_file, to.data);
  const int unfit = errno;
  const bool whole = Complete(adict);
  if (whole && !fit) errno = unfit;
  Release(adict);
  if (!whole || !fit) {
    Remove(from);
    return FALSE;
  }
  return TakePlace(from, to) ? TRUE : FALSE;
}
