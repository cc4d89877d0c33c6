// Writing perfect-hash dictionaries: a file of their own, a record in a channel, a record of a larger mapped file.
//
//   file     [ image ]
//   channel  [ length:4 | image ]
//   map      [ 0 .. up to a multiple of 8 | length:8 | image ]
//
// The image is written field for field as HashDictMemOpen_ reads it. Swapped, every number is turned round on its own;
// the words of the packed function values too, which leaves the packing as it is for a reader of the other byte order.
// Probe codes are bytes and are never turned.

#include <unistd.h>

#include "dict/hashdict_internal.h"
#include "dict/replace_file.h"
#include "util/errno_internal.h"

namespace hashdict {
namespace {

bool WriteByte(Channel* f, UByte byte) {
  if (f->outSize >= QX_CHANNEL_BUFFER && !ChannelFlush(f)) return false;
  f->outBuf[f->outSize++] = byte;
  return true;
}

// Elements of `size` bytes each.
bool WriteBytes(Channel* f, bool swap, size_t size, const void* bytes, size_t nbytes) {
  QX_ASSERT((nbytes % size) == 0);
  if (!swap) return ChannelWriteBuf(f, bytes, nbytes) != FALSE;
  for (const UByte* element = Bytes(bytes); nbytes > 0; nbytes -= size, element += size) {
    for (size_t j = size; j-- > 0;) {
      if (!WriteByte(f, element[j])) return false;
    }
  }
  return true;
}

template <typename T>
bool WriteNumber(Channel* f, bool swap, T value) {
  return WriteBytes(f, swap, sizeof value, &value, sizeof value);
}

bool PadToEight(Channel* f, size_t* writtenSize) {
  for (; *writtenSize % 8 != 0; ++*writtenSize) {
    if (!WriteByte(f, 0)) return false;
  }
  return true;
}

bool WriteFile(const HashDict& hdict, Channel* f, const char* path, Boolean swap) {
  return ChannelOpenFile(f, path, "w") && HashDictFileWrite_(&hdict, f, swap) && ChannelSync(f);
}

}  // namespace
}  // namespace hashdict

using namespace hashdict;

Boolean HashDictFileWrite_(const HashDict* hdict, Channel* f, Boolean swap) {
  const bool turn = swap != FALSE;
  const bool written =
      WriteNumber(f, turn, hdict->h_nentries) && WriteNumber(f, turn, hdict->h_size) &&
      WriteNumber(f, turn, hdict->h_maxlen) && WriteNumber(f, turn, hdict->h_nbits) &&
      WriteNumber(f, turn, hdict->h_nchars) && WriteNumber(f, turn, hdict->h_probe) &&
      WriteNumber(f, turn, hdict->h_rank_size) && WriteNumber(f, turn, hdict->h_coef_size) &&
      WriteNumber(f, turn, hdict->h_fun_size) && WriteNumber(f, turn, hdict->h_probe_size) &&
      WriteBytes(f, turn, sizeof(Short), hdict->h_rank, hdict->h_rank_size) &&
      (hdict->h_coef_size == 0 || WriteBytes(f, turn, sizeof(Id), hdict->h_coef, hdict->h_coef_size)) &&
      WriteBytes(f, turn, sizeof(ULong), hdict->h_fun, hdict->h_fun_size) &&
      (!HasProbeCode(*hdict) || WriteBytes(f, false, 1, hdict->h_probe_code, hdict->h_probe_size));
  return written ? TRUE : FALSE;
}

Boolean HashDictFileWrite(const HashDict* hdict, Channel* f, Boolean swap) {
  const auto length = static_cast<UInt>(HashDictFileSize(hdict));
  return WriteNumber(f, swap != FALSE, length) ? HashDictFileWrite_(hdict, f, swap) : FALSE;
}

Boolean HashDictWrite(const HashDict* hdict, const char* dir, const char* name, const char* suffix, Boolean swap) {
  char path[PATH_MAX];
  if (!FilePath(path, dir, name, suffix)) return FALSE;
  Channel* f = ChannelNew(-1, -1);
  if (WriteFile(*hdict, f, path, swap)) return ChannelClose(f);
  const qx::ErrnoKeeper keeper;
  ChannelClose(f);
  unlink(path);
  return FALSE;
}

Boolean HashDictReplace(const HashDict* hdict, const char* dir, const char* name, const char* suffix, Boolean swap) {
  char path[PATH_MAX];
  if (!FilePath(path, dir, name, suffix)) return FALSE;
  qx::Replacement file(path);
  if (!file) return FALSE;
  Channel* f = ChannelNew(-1, -1);
  if (!WriteFile(*hdict, f, file.beside(), swap)) {
    const qx::ErrnoKeeper keeper;
    ChannelClose(f);
    return FALSE;
  }
  return ChannelClose(f) && file.TakePlace() ? TRUE : FALSE;
}

Boolean HashDictMMWrite(const HashDict* hdict, Channel* f, size_t* writtenSize) {
  const size_t length = HashDictFileSize(hdict);
  if (!PadToEight(f, writtenSize)) return FALSE;
  *writtenSize += sizeof length;
  if (!ChannelWriteBuf(f, &length, sizeof length)) return FALSE;
  if (!HashDictFileWrite_(hdict, f, FALSE)) return FALSE;
  *writtenSize += length;
  return TRUE;
}

Boolean HashDictMMWriteSwapped(const HashDict* hdict, Channel* f, size_t* writtenSize) {
  const size_t length = HashDictFileSize(hdict);
  if (!PadToEight(f, writtenSize)) return FALSE;
  *writtenSize += sizeof length;
  for (size_t j = sizeof length; j-- > 0;) {
    if (!ChannelWriteBuf(f, Bytes(&length) + j, 1)) return FALSE;
  }
  if (!HashDictFileWrite_(hdict, f, TRUE)) return FALSE;
  *writtenSize += length;
  return TRUE;
}
