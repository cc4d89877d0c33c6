// Building perfect-hash dictionaries.
//
//   size     one pass over the keys: longest key, bytes that occur
//   attempt  draw coefficients, hash the keys into a random graph, take it apart edge by edge (hashdict_graph.h); with
//            1.25 vertices a key a large graph comes apart nearly always, a small one often; else the next draw decides
//   assign   values to the vertices, in the reverse order
//   check    one pass over the keys: write the probe codes, or check the values
//
// The same keys give the same image everywhere, which fixes more than it seems: the coefficients come from random()
// after srandom(0), one draw each, in the order in which they lie in memory, an attempt's all at once; and all three
// kinds are drawn modulo m.

#include <cstdlib>

#include "dict/hashdict_graph.h"
#include "dict/hashdict_rows.h"
#include "dict/huge_pages.h"

namespace hashdict {
namespace {

// With more, there would be more than 2^31 - 1 vertices, and the sum of two coefficients would not fit 32 bits.
constexpr Id kMaxEntries = 1717986914;
constexpr Id kMaxAttempts = 1000;
constexpr Id kAhead = 16;  // keys hashed ahead of the one whose places in memory are used

constexpr Id VertexCount(Id nentries) { return static_cast<Id>(nentries * 1.25) + 5; }

static_assert(VertexCount(kMaxEntries) == kMaxFastSize);

// From marks (1: the byte occurs) to ranks.
void RankBytes(HashDict* hdict) {
  hdict->h_nchars = 0;
  for (size_t byte = 0; byte < kRanks; byte++) {
    Short& rank = hdict->h_rank[byte];
    rank = rank != 0 ? static_cast<Short>(hdict->h_nchars++) : Short{-1};
  }
}

// An array of coefficients, and four bytes behind it that a look-up may load; none when every key is empty.
void CoefficientsNew(HashDict* hdict) {
  const ULong count = ULong{hdict->h_maxlen} * hdict->h_nchars * 3;
  if (count == 0) return;
  hdict->h_coef = static_cast<Id*>(ArrayNew(count + 1, 0xFFFFFFFF, nullptr, nullptr));
  hdict->h_coef_size = (count + 1) / 2 * sizeof(ULong);
}

HashDict* HashDictInit(Id nentries, void* dict, DictKeyFun key, ULong maxvalue, UByte probe, Boolean verbose) {
  auto* hdict = static_cast<HashDict*>(Allocate_(sizeof(HashDict), nullptr, kModule, __LINE__));
  *hdict = HashDict{};
  hdict->h_created = TRUE;
  hdict->h_released = TRUE;
  hdict->h_nentries = nentries;
  hdict->h_size = VertexCount(nentries);
  hdict->h_fun = static_cast<ULong*>(ArrayNew(ULong{hdict->h_size} + 1, maxvalue, &hdict->h_nbits, &hdict->h_fun_size));

  hdict->h_rank = static_cast<Short*>(ArrayNew(kRanks, 0xFFFF, nullptr, &hdict->h_rank_size));
  std::memset(hdict->h_rank, 0, kRanks * sizeof(Short));
  for (Id idx = 0; idx < nentries; idx++) {
    UShort length = 0;
    const UByte* bytes = GetKey(dict, key, idx, &length);
    QX_ASSERT_TEXT(bytes != nullptr, "bytes != ((void *)0)");
    for (UInt i = 0; i < length; i++) hdict->h_rank[bytes[i]] = 1;
    hdict->h_maxlen = std::max(hdict->h_maxlen, length);
  }
  RankBytes(hdict);
  CoefficientsNew(hdict);

  QX_ASSERT(probe <= 8);
  hdict->h_probe = probe;
  hdict->h_probe_mask = ProbeMask(probe);
  if (probe > 0) {
    // Entries as wide as a code, and as many as the codes have bytes: more than is used, and part of the format.
    hdict->h_probe_code =
        static_cast<UByte*>(ArrayNew(ULong{probe} * nentries, hdict->h_probe_mask, nullptr, &hdict->h_probe_size));
  }
  SoundnessSet(hdict);
  if (verbose) QX_MESSAGE(qx::kProgress, FALSE, "hdict: nentries=%d", static_cast<int>(hdict->h_nentries));
  return hdict;
}

void DrawCoefficients(HashDict* hdict) {
  const ULong count = ULong{hdict->h_maxlen} * hdict->h_nchars * 3;
  for (ULong i = 0; i < count; i++) hdict->h_coef[i] = static_cast<Id>(random() % long{hdict->h_size});
}

// Rows for the coefficients just drawn, if there are keys enough to pay for them. Those of the last attempt stay.
void RowsRenew(HashDict* hdict) {
  RowsDelete(hdict);
  if (hdict->h_nentries >= kRowsWorthwhile) hdict->h_rows = RowsNew(*hdict);
}

// Draws graphs until one comes apart. Two equal keys join the same vertices, and none of their graphs ever does.
void GraphBuild(Graph* graph, HashDict* hdict, void* dict, DictKeyFun key, Boolean verbose) {
  const Id nentries = hdict->h_nentries;
  for (Id attempts = 0;;) {
    if (verbose && attempts > 0) QX_MESSAGE(qx::kProgress, FALSE, "hdict: retry %d", static_cast<int>(attempts));
    DrawCoefficients(hdict);
    RowsRenew(hdict);
    GraphClear(graph);
    Triple ring[kAhead];
    for (ULong i = 0; i < ULong{nentries} + kAhead; i++) {
      Triple& vertices = ring[i % kAhead];
      if (i >= kAhead) GraphAddEdge(graph, static_cast<Id>(i - kAhead + 1), vertices);
      if (i >= nentries) continue;
      UShort length = 0;
      const UByte* bytes = GetKey(dict, key, static_cast<Id>(i), &length);
      QX_ASSERT_TEXT(bytes != nullptr, "bytes != ((void *)0)");
      // A key that is not the one that was measured has no vertices: its edge hangs on vertex 0, where none is removed.
      vertices = Triple{};
      HashKey<Watch::kNothing>(*hdict, RowsOf(*hdict), bytes, length, &vertices);
      GraphPrefetchEdge(*graph, vertices);
    }
    // Nothing is given up: with distinct keys an attempt succeeds some day, and the caller was told.
    if (++attempts == kMaxAttempts + 1) QX_MESSAGE(qx::kFailure, FALSE, "hdict: cannot generate");
    if (GraphPeel(graph)) break;
  }
  if (verbose) {
    QX_MESSAGE(qx::kProgress, FALSE, "hdict: size=%lukB",
               (hdict->h_coef_size + hdict->h_rank_size + hdict->h_probe_size + hdict->h_fun_size) / 1024);
  }
}

// A key on its way through the check: its function values are being fetched.
struct Pending {
  Triple triple;
  bool hashed;
  Id expected;
};

Id Find(const HashDict& hdict, const Pending& pending) {
  if (!pending.hashed) return HASHDICT_NOT_FOUND;
  return Combine(hdict, pending.triple);
}

// The code of entry `id`: the low bytes of p, least significant first.
void ProbeSet(HashDict* hdict, Id id, ULong p) {
  UByte* code = hdict->h_probe_code + size_t{id} * hdict->h_probe;
  for (UInt j = 0; j < hdict->h_probe; j++, p >>= 8) code[j] = static_cast<UByte>(p);
}

// Writes the probe codes, and sees that every key is found under its number; or sees that every value is found.
void HashDictProbe(HashDict* hdict, void* dict, DictKeyFun key, DictValFun val) {
  if (hdict->h_probe == 0 && val == nullptr) return;
  const ULong nentries = hdict->h_nentries;
  Pending ring[kAhead];
  for (ULong i = 0; i < nentries + kAhead; i++) {
    Pending& pending = ring[i % kAhead];
    if (i >= kAhead) {
      // The code that was just written matches, so what HashDictFind adds to this cannot fail where this does not.
      if (val != nullptr) {
        QX_ASSERT_TEXT(Find(*hdict, pending) == pending.expected,
                       "HashDictFind(hdict, bytes, len) == (*val)(dict, idx)");
      } else {
        QX_ASSERT_TEXT(Find(*hdict, pending) == pending.expected, "HashDictFind(hdict, bytes, len) == idx");
      }
    }
    if (i >= nentries) continue;
    const Id idx = static_cast<Id>(i);
    UShort length = 0;
    const UByte* bytes = GetKey(dict, key, idx, &length);
    QX_ASSERT_TEXT(bytes != nullptr, "bytes != ((void *)0)");
    pending.hashed =
        HashKey<Watch::kNothing>(*hdict, RowsOf(*hdict), bytes, length, &pending.triple) == Hashed::kVertices;
    if (pending.hashed) PrefetchFun(*hdict, pending.triple);
    if (hdict->h_probe > 0) ProbeSet(hdict, idx, ProbeValue(bytes, length));
    pending.expected = val != nullptr ? val(dict, idx) : idx;
  }
}

// Keys and values that lie in memory, as the callbacks' `dict`.
struct Slices {
  const UByte* const* keys;
  const UShort* lens;
  const Id* values;

  static UShort Key(void* slices, Id idx, const UByte** bytes) {
    static constexpr UByte kEmpty = 0;
    const auto* self = static_cast<const Slices*>(slices);
    const UShort length = self->lens[idx];
    *bytes = length > 0 ? self->keys[idx] : &kEmpty;
    return length;
  }
  static Id Value(void* slices, Id idx) { return static_cast<const Slices*>(slices)->values[idx]; }
};

}  // namespace

void* ArrayNew(ULong nvalues, ULong maxvalue, UShort* nbits, size_t* size) {
  const auto width = static_cast<UShort>(std::bit_width(maxvalue | 1));
  size_t bytes = 0;
  void* ptr = AnonArrayGrow_(sizeof(ULong), 0, nvalues, width, &bytes, kModule, __LINE__);
  QX_ASSERT_TEXT(nvalues == 0 || ptr != nullptr, "nvalues == 0 || ptr != ((void *)0)");
  qx::AdviseHugePagesWithin(ptr, bytes);
  if (size != nullptr) *size = bytes;
  if (nbits != nullptr) *nbits = width;
  return ptr;
}

}  // namespace hashdict

using namespace hashdict;

HashDict* HashDictBuild(Id nentries, void* dict, DictKeyFun key, DictValFun val, UByte nbits, UByte probe,
                        Boolean verbose) {
  QX_ASSERT_TEXT(nbits <= 32 && (val == nullptr || (probe == 0 && nbits != 0)),
                 "nbits <= 32 && (val == ((void *)0) || (probe == 0 && nbits != 0))");
  if (nentries > kMaxEntries) QX_DIE("hdict: too many entries=%u", nentries);
  srandom(0);
  const ULong maxvalue = val != nullptr ? (ULong{1} << nbits) - 1 : nentries;
  HashDict* hdict = HashDictInit(nentries, dict, key, maxvalue, probe, verbose);
  Graph* graph = GraphNew(nentries, hdict->h_size);
  GraphBuild(graph, hdict, dict, key, verbose);
  GraphAssign(graph, hdict, dict, val);
  GraphDelete(graph);
  HashDictProbe(hdict, dict, key, val);
  return hdict;
}

void HashDictFree(HashDict* hdict) {
  RowsDelete(hdict);
  if (hdict->h_probe_code != nullptr) AnonArrayFree_(hdict->h_probe_code, kModule, __LINE__);
  if (hdict->h_coef != nullptr) AnonArrayFree_(hdict->h_coef, kModule, __LINE__);
  AnonArrayFree_(hdict->h_rank, kModule, __LINE__);
  AnonArrayFree_(hdict->h_fun, kModule, __LINE__);
  UnAllocate_(hdict, kModule, __LINE__);
}

HashDict* HashDictBuildFromSlices(Id nentries, const UByte* const* keys, const UShort* lens, const Id* values,
                                  UByte nbits, UByte probe, Boolean verbose) {
  Slices slices = {keys, lens, values};
  const DictValFun val = values != nullptr ? Slices::Value : nullptr;
  return HashDictBuild(nentries, &slices, Slices::Key, val, nbits, probe, verbose);
}
