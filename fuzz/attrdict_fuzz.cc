// Reads arbitrary bytes as the two files of an attribute dictionary: any answer will do, but no access outside the
// files, and no enumeration that does not end. A pair that the check calls sound has every string, and in order.
//
// Input: length of the index:2, index, data. The files lie in blocks of their exact size.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "dict/attrdict.h"
#include "qxlib/filemap.h"

namespace {

struct File {
  const uint8_t* bytes;
  size_t size;
};
File index_file, data_file;

void Require(bool condition, int line = __builtin_LINE()) {
  if (condition) return;
  std::fprintf(stderr, "line %d: not as required\n", line);
  std::abort();
}

bool Within(const AttrDict& adict, const UByte* bytes, size_t length) {
  return bytes >= adict.a_dat && length <= adict.a_dat_size - static_cast<size_t>(bytes - adict.a_dat);
}

struct Walk {
  const AttrDict* adict;
  Id next;
  unsigned left;  // strings to look at before the walk is stopped
  bool compare;   // with what a look-up gives; the pair is sound
};

UInt Visit(UByte* bytes, UInt length, void* ptr) {
  auto* walk = static_cast<Walk*>(ptr);
  Require(length <= 255 && Within(*walk->adict, bytes, length));
  if (walk->compare) {
    const UByte* found = nullptr;
    Require(AttrDictGet(walk->adict, walk->next, &found) == length && found == bytes);
  }
  walk->next++;
  return --walk->left == 0 ? 1 : 0;
}

void Exercise(const AttrDict* adict, size_t size) {
  constexpr unsigned kEnough = 4096;
  const char* reason = "";
  const bool sound = AttrDictCheck(adict, &reason) != FALSE;
  Require(sound == (reason == nullptr));
  const UInt count = AttrDictSize(adict);
  for (const Id id : {Id{0}, Id{1}, Id{2}, Id{3}, Id{4}, Id{7}, count / 2, count - 2, count - 1, count, ~Id{0}}) {
    const UByte mark = 0;
    const UByte* bytes = &mark;
    const UByte length = AttrDictGet(adict, id, &bytes);
    if (bytes == &mark) {
      Require(length == 0 && (!sound || id >= count));
    } else {
      Require(id < count && Within(*adict, bytes, length));
    }
    if (id >= count) continue;
    Walk walk = {adict, id, kEnough, sound};
    const UInt stopped = AttrDictEnumerate(adict, id, Visit, &walk);
    Require(stopped == (walk.left == 0 ? 1u : 0u));
    Require(!sound || stopped != 0 || walk.next == count);
  }
  Require(!sound || count <= size);
}

}  // namespace

// In front of the base library's: gives the two files instead of the file system's.
void* FileMapRead(const char*, const char* name, size_t* size, Boolean* empty) {
  const File& file = std::strcmp(name, "d.idx") == 0 ? index_file : data_file;
  *size = file.size;
  *empty = file.size == 0 ? TRUE : FALSE;
  if (file.size == 0) return nullptr;
  void* copy = std::malloc(file.size);
  std::memcpy(copy, file.bytes, file.size);
  return copy;
}

Boolean FileUnmap(void* base, size_t) {
  std::free(base);
  return TRUE;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t index_size = std::min(size - 2, size_t{data[0]} | size_t{data[1]} << 8);
  index_file = {data + 2, index_size};
  data_file = {data + 2 + index_size, size - 2 - index_size};
  AttrDict* adict = AttrDictOpen("", "d");
  Require((adict != nullptr) == (index_size != 0));
  if (adict == nullptr) return 0;
  Exercise(adict, size);
  Require(AttrDictClose(adict) == TRUE);
  return 0;
}
