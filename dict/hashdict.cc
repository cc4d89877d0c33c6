// Opening, looking up in and closing perfect-hash dictionaries.
//
// An image is used where it lies: opening points four arrays into it and reads no more of it than the header and the
// ranks.
//
//   0    numbers   n:4  m:4  maxlen:2  nbits:2  nchars:2  probe:2  sizes of the four arrays:8 each
//   48   h_rank    [ 16 bits a byte value ]
//        h_coef    [ three times 32 bits a position and rank ]
//        h_fun     [ nbits a vertex 0 .. m, packed in 64-bit words ]
//        h_probe_code [ probe bytes a key ]
//
// The reader accepts every image that is as long as its header says, by design: it is fast, and damage shows as wrong
// answers. So there are two ways to look a key up. The fast one serves dictionaries whose arrays cover all that the
// header promises (hashdict_internal.h); the slow one takes the hash step by step, and what lies outside an array reads
// as nothing: a byte that no key has, a coefficient or function value of 0, a probe code that does not match.

#include "dict/hashdict.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "dict/hashdict_rows.h"

namespace hashdict {
namespace {

// Element `index` of an array of `size` bytes, as far as its bytes are there; the others read as zero.
template <typename T>
T LoadWithin(const void* array, size_t size, ULong index) {
  T value = 0;
  const size_t elements = size / sizeof(T);
  if (index < elements) return Load<T>(Bytes(array) + index * sizeof(T));
  if (index == elements && size % sizeof(T) != 0) {
    std::memcpy(&value, Bytes(array) + index * sizeof(T), size % sizeof(T));
  }
  return value;
}

// The hash by the letter. False when the key cannot be in the dictionary.
bool Hash(const HashDict& hdict, Id* pc0, Id* pc1, Id* pc2, const UByte* bytes, UInt len) {
  const Id m0 = hdict.h_size;
  if (len > hdict.h_maxlen) return false;
  Id a = 0, b = 0, c = 0;
  for (UInt i = 0; i < len; i++) {
    if (hdict.h_rank_size / sizeof(Short) <= bytes[i]) return false;
    const Int r = Load<Short>(Bytes(hdict.h_rank) + bytes[i] * sizeof(Short));
    if (r < 0) return false;
    const ULong triple = (ULong{i} * hdict.h_nchars + static_cast<ULong>(r)) * 3;
    const auto coef = [&](ULong k) { return LoadWithin<Id>(hdict.h_coef, hdict.h_coef_size, triple + k); };
    a += coef(0);
    if (a >= m0) a -= m0;
    b += coef(1);
    if (b >= m0 - 1) b -= m0 - 1;
    // Coefficients reach m - 1 for this sum too, which is twice its modulus and more when it is added to a remainder.
    c += coef(2);
    if (c >= m0 - 2) c -= m0 - 2;
    if (c >= m0 - 2) c -= m0 - 2;
  }
  *pc0 = a + 1;
  Id t = a + 1 + b;
  *pc1 = (t >= m0 ? t - m0 : t) + 1;
  t = a + 1 + c + (b <= c ? 1 : 0);
  *pc2 = (t >= m0 ? t - m0 : t) + 1;
  QX_ASSERT(*pc0 <= m0);
  QX_ASSERT(*pc1 <= m0);
  return true;
}

Id FunGetWithin(const HashDict& hdict, Id v) {
  const UInt width = hdict.h_nbits;
  if (width == 0 || width > kMaxBits) return 0;
  const ULong first = ULong{v} * width;
  const ULong last = first + width - 1;
  return PackedBits(LoadWithin<ULong>(hdict.h_fun, hdict.h_fun_size, first >> 6),
                    LoadWithin<ULong>(hdict.h_fun, hdict.h_fun_size, last >> 6), first & 63, width);
}

// Whether the probe code of entry `id` holds the low bytes of p, least significant first.
bool ProbeMatches(const HashDict& hdict, Id id, ULong p) {
  const size_t width = hdict.h_probe;
  const size_t size = hdict.h_probe_size;
  const size_t at = size_t{id} * width;
  if (width > kMaxProbe || at > size || width > size - at) return false;
  if constexpr (std::endian::native == std::endian::little) {
    if (size >= sizeof(ULong)) {
      // A whole word that holds the code, from further to the left where the array ends.
      const size_t from = std::min(at, size - sizeof(ULong));
      return (((Load<ULong>(hdict.h_probe_code + from) >> 8 * (at - from)) ^ p) & hdict.h_probe_mask) == 0;
    }
  }
  for (size_t j = 0; j < width; j++, p >>= 8) {
    if (hdict.h_probe_code[at + j] != static_cast<UByte>(p)) return false;
  }
  return true;
}

// What the function values of a key's vertices make of it.
Id Answer(const HashDict& hdict, Id id, const UByte* bytes, UInt len) {
  if (hdict.h_probe == 0) return id;
  if (id >= hdict.h_nentries) return HASHDICT_NOT_FOUND;
  const ULong p = hdict.h_probe <= 2 ? ProbeValueShort(bytes, len) : ProbeValue(bytes, len);
  return ProbeMatches(hdict, id, p) ? id : HASHDICT_NOT_FOUND;
}

[[gnu::noinline]] Id FindSlow(const HashDict& hdict, const UByte* bytes, UInt len) {
  Id v0 = 0, v1 = 0, v2 = 0;
  if (!Hash(hdict, &v0, &v1, &v2, bytes, len)) return HASHDICT_NOT_FOUND;
  const Id id = FunGetWithin(hdict, v0) ^ FunGetWithin(hdict, v1) ^ FunGetWithin(hdict, v2);
  return Answer(hdict, id, bytes, len);
}

// What remains to be done in a sound dictionary when a key is hashed.
inline Id FindHashed(const HashDict& hdict, Hashed hashed, const Triple& triple, const UByte* bytes, UInt len) {
  if (hashed == Hashed::kVertices) [[likely]]
    return Answer(hdict, Combine(hdict, triple), bytes, len);
  return hashed == Hashed::kAbsent ? HASHDICT_NOT_FOUND : FindSlow(hdict, bytes, len);
}

// The look-up in a sound dictionary without rows.
template <Watch kWatch>
inline Id FindFast(const HashDict& hdict, const UByte* bytes, UInt len) {
  Triple triple;
  const Hashed hashed = HashFast<kWatch>(hdict, bytes, len, &triple);
  return FindHashed(hdict, hashed, triple, bytes, len);
}

// Many of them, kInFlight of which are between asking for memory and its use.
template <Watch kWatch>
inline void FindManyFast(const HashDict& hdict, UInt n, const UByte* const* keys, const UInt* lens, Id* ids) {
  constexpr UInt kInFlight = 32;
  const Rows* const rows = RowsOf(hdict);
  Triple vertices[kInFlight];
  Hashed hashed[kInFlight];
  for (UInt count; n > 0; n -= count, keys += count, lens += count, ids += count) {
    count = std::min(n, kInFlight);
    for (UInt i = 0; i < count; i++) {
      if (n - count > i) __builtin_prefetch(keys[count + i]);
      hashed[i] = HashKey<kWatch>(hdict, rows, keys[i], lens[i], &vertices[i]);
      if (hashed[i] == Hashed::kVertices) PrefetchFun(hdict, vertices[i]);
    }
    for (UInt i = 0; i < count; i++) {
      ids[i] = hashed[i] == Hashed::kVertices  ? Combine(hdict, vertices[i])
               : hashed[i] == Hashed::kDamaged ? FindSlow(hdict, keys[i], lens[i])
                                               : HASHDICT_NOT_FOUND;
      if (hdict.h_probe != 0 && ids[i] < hdict.h_nentries) {
        __builtin_prefetch(hdict.h_probe_code + size_t{ids[i]} * hdict.h_probe);
      }
    }
    for (UInt i = 0; i < count && hdict.h_probe != 0; i++) ids[i] = Answer(hdict, ids[i], keys[i], lens[i]);
  }
}

#ifdef QX_HAS_AVX2_TARGET
[[gnu::target("avx2"), gnu::flatten]] Id FindFastAvx2(const HashDict& hdict, const UByte* bytes, UInt len) {
  return FindFast<Watch::kLargest>(hdict, bytes, len);
}

[[gnu::target("avx2"), gnu::flatten]] void FindManyFastAvx2(const HashDict& hdict, UInt n, const UByte* const* keys,
                                                            const UInt* lens, Id* ids) {
  FindManyFast<Watch::kLargest>(hdict, n, keys, lens, ids);
}
#endif

[[gnu::noinline]] Id FindWithoutRows(const HashDict& hdict, const UByte* bytes, UInt len) {
#ifdef QX_HAS_AVX2_TARGET
  if (__builtin_cpu_supports("avx2")) [[likely]]
    return FindFastAvx2(hdict, bytes, len);
#endif
  return FindFast<Watch::kTopBits>(hdict, bytes, len);
}

// A channel's length prefix, through the channel's buffer.
bool ReadLength(Channel* f, UInt* length) {
  UByte bytes[sizeof *length];
  for (UByte& byte : bytes) {
    const int next = f->inFirst < f->inSize ? f->inBuf[f->inFirst++] : ChannelReadByte_(f, 0);
    if (next < 0) return false;
    byte = static_cast<UByte>(next);
  }
  *length = Load<UInt>(bytes);
  return true;
}

// Reads `length` bytes into a new block. A length is only a promise: beyond kTrusted the block grows with what has
// come.
UByte* ReadBlock(Channel* f, size_t length) {
  constexpr size_t kTrusted = size_t{16} << 20;
  UByte* block = nullptr;
  size_t filled = 0;
  do {
    const size_t size = std::min(length, std::max(kTrusted, filled * 2));
    block = static_cast<UByte*>(Allocate_(size, block, kModule, __LINE__));
    if (ChannelReadBuf(f, block + filled, size - filled, 0) != 0) {
      UnAllocate_(block, kModule, __LINE__);
      return nullptr;
    }
    filled = size;
  } while (filled < length);
  return block;
}

HashDict* HandleNew() { return static_cast<HashDict*>(Allocate_(sizeof(HashDict), nullptr, kModule, __LINE__)); }

// Marks a handle that will be released by us, and what hangs on it too.
HashDict* Ours(HashDict* hdict) {
  hdict->h_released = TRUE;
  return hdict;
}

void HandleDelete(HashDict* hdict) {
  RowsDelete(hdict);
  UnAllocate_(hdict, kModule, __LINE__);
}

// Bytes from `at` to `end`, none when it lies behind.
size_t Remaining(const UByte* at, const UByte* end) { return at < end ? static_cast<size_t>(end - at) : 0; }

}  // namespace

bool FilePath(char (&path)[PATH_MAX], const char* dir, const char* name, const char* suffix) {
  size_t length = 0;
  for (const char* part : {dir != nullptr ? dir : "", dir != nullptr ? "/" : "", name, ".",
                           suffix != nullptr ? suffix : HASHDICT_SUFFIX}) {
    const size_t size = std::strlen(part);
    if (size >= sizeof path - length) {
      errno = ENAMETOOLONG;
      return false;
    }
    std::memcpy(path + length, part, size);
    length += size;
  }
  path[length] = '\0';
  return true;
}

}  // namespace hashdict

using namespace hashdict;

HashDict* HashDictOpen(const char* dir, const char* name, const char* suffix) {
  char file_name[PATH_MAX];
  if (!FilePath(file_name, nullptr, name, suffix)) return nullptr;
  size_t size = 0;
  Boolean empty = FALSE;
  void* image = FileMapRead(dir, file_name, &size, &empty);
  if (image == nullptr) {
    if (empty) errno = EINVAL;
    return nullptr;
  }
  HashDict* hdict = HandleNew();
  if (HashDictMemOpen_(hdict, static_cast<UByte*>(image), size, FALSE)) return Ours(hdict);
  // The mapping stays. Refused images are rare, and a caller that meets them often checks them before opening.
  UnAllocate_(hdict, kModule, __LINE__);
  errno = EINVAL;
  return nullptr;
}

Boolean HashDictFileRead(HashDict** hdictPtr, Channel* f) {
  *hdictPtr = nullptr;
  UInt length = 0;
  if (!ReadLength(f, &length)) return FALSE;
  UByte* image = ReadBlock(f, length);
  if (image == nullptr) return FALSE;
  HashDict* hdict = HandleNew();
  // A refused image keeps its buffer and handle, as HashDictOpen keeps the mapping.
  if (!HashDictMemOpen_(hdict, image, length, TRUE)) return FALSE;
  *hdictPtr = Ours(hdict);
  return TRUE;
}

Boolean HashDictMMRead(HashDict** hdictPtr, UByte* base, UByte** from, UByte* end) {
  size_t length = 0;
  if (Remaining(*from, end) < sizeof length) return FALSE;
  UByte* at = *from;
  while ((at - base) % 8 != 0 && Remaining(at, end) >= sizeof length) at++;
  *from = at;
  if (Remaining(at, end) < sizeof length) return FALSE;
  length = Load<size_t>(at);
  at += sizeof length;
  *from = at;
  if (Remaining(at, end) < length) return FALSE;
  HashDict* hdict = HandleNew();
  if (!HashDictMemOpen_(hdict, at, length, TRUE)) return FALSE;
  *from = at + length;
  *hdictPtr = Ours(hdict);
  return TRUE;
}

Boolean HashDictMemOpen_(HashDict* hdict, UByte* data, size_t dataLength, [[maybe_unused]] Boolean fromMem) {
  *hdict = HashDict{};
  hdict->h_created = FALSE;
  hdict->h_file = data;
  hdict->h_file_size = dataLength;
  if (dataLength < kHeaderSize) return FALSE;
  hdict->h_nentries = Load<Id>(data);
  hdict->h_size = Load<Id>(data + 4);
  hdict->h_maxlen = Load<UShort>(data + 8);
  hdict->h_nbits = Load<UShort>(data + 10);
  hdict->h_nchars = Load<UShort>(data + 12);
  hdict->h_probe = Load<UShort>(data + 14);
  hdict->h_rank_size = Load<size_t>(data + 16);
  hdict->h_coef_size = Load<size_t>(data + 24);
  hdict->h_fun_size = Load<size_t>(data + 32);
  hdict->h_probe_size = Load<size_t>(data + 40);
  hdict->h_probe_mask = ProbeMask(hdict->h_probe);

  UByte* at = data + kHeaderSize;
  size_t left = dataLength - kHeaderSize;
  const auto take = [&](size_t size) -> void* {
    if (size > left) return nullptr;
    void* array = at;
    at += size;
    left -= size;
    return array;
  };
  void* rank = take(hdict->h_rank_size);
  void* coef = take(hdict->h_coef_size);
  void* fun = take(hdict->h_fun_size);
  void* probe_code = take(hdict->h_probe_size);
  if (rank == nullptr || coef == nullptr || fun == nullptr || probe_code == nullptr) return FALSE;
  // Images may lie at odd addresses: every access goes through Load.
  hdict->h_rank = static_cast<Short*>(rank);
  hdict->h_coef = static_cast<Id*>(coef);
  hdict->h_fun = static_cast<ULong*>(fun);
  if (hdict->h_probe_size != 0) hdict->h_probe_code = static_cast<UByte*>(probe_code);
  SoundnessSet(hdict);
  return TRUE;
}

Id HashDictFind(const HashDict* hdict, const UByte* bytes, UInt len) {
  QX_ASSERT_TEXT(hdict != nullptr, "hdict != ((void *)0)");
  if (!IsSound(*hdict)) return FindSlow(*hdict, bytes, len);
  const Rows* const rows = RowsOf(*hdict);
  if (rows == nullptr || len > rows->longest) [[unlikely]]
    return FindWithoutRows(*hdict, bytes, len);
  Triple triple;
  const Hashed hashed = HashByRows(*hdict, *rows, bytes, len, &triple);
  return FindHashed(*hdict, hashed, triple, bytes, len);
}

Id HashDictSize(const HashDict* hdict) { return hdict->h_nentries; }

UInt HashDictMaxLength(const HashDict* hdict) { return hdict->h_maxlen; }

size_t HashDictFileSize(const HashDict* hdict) {
  const size_t size = kHeaderSize + hdict->h_rank_size + hdict->h_coef_size + hdict->h_fun_size;
  return HasProbeCode(*hdict) ? size + hdict->h_probe_size : size;
}

Boolean HashDictClose(HashDict* hdict) {
  QX_ASSERT_TEXT(hdict != nullptr, "hdict != ((void *)0)");
  QX_ASSERT_TEXT(hdict->h_file != nullptr, "hdict->h_file != ((void *)0)");
  QX_ASSERT(!hdict->h_created);
  const int error = FileUnmap(hdict->h_file, hdict->h_file_size) ? 0 : errno;
  HandleDelete(hdict);
  errno = error;
  return error == 0 ? TRUE : FALSE;
}

Boolean HashDictMemClose(HashDict* hdict) {
  QX_ASSERT_TEXT(hdict != nullptr, "hdict != ((void *)0)");
  QX_ASSERT_TEXT(hdict->h_file != nullptr, "hdict->h_file != ((void *)0)");
  QX_ASSERT(!hdict->h_created);
  UnAllocate_(hdict->h_file, kModule, __LINE__);
  HandleDelete(hdict);
  return TRUE;
}

void HashDictMMFree(HashDict* hdict) { HandleDelete(hdict); }

void HashDictFindMany(const HashDict* hdict, UInt n, const UByte* const* keys, const UInt* lens, Id* ids) {
  QX_ASSERT_TEXT(hdict != nullptr, "hdict != ((void *)0)");
  if (!IsSound(*hdict)) {
    for (UInt i = 0; i < n; i++) ids[i] = FindSlow(*hdict, keys[i], lens[i]);
    return;
  }
#ifdef QX_HAS_AVX2_TARGET
  if (__builtin_cpu_supports("avx2")) return FindManyFastAvx2(*hdict, n, keys, lens, ids);
#endif
  FindManyFast<Watch::kTopBits>(*hdict, n, keys, lens, ids);
}

Boolean HashDictPrepare(HashDict* hdict) {
  QX_ASSERT_TEXT(hdict != nullptr, "hdict != ((void *)0)");
  if (hdict->h_rows == nullptr && IsSound(*hdict) && hdict->h_released) hdict->h_rows = RowsNew(*hdict);
  return hdict->h_rows != nullptr ? TRUE : FALSE;
}
