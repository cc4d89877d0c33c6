// What makes the image of a perfect-hash dictionary sound, and the question whether one is.
//
// Opening asks for what the fast look-up rests on: every index that the header's numbers can give lies inside its
// array. Coefficients are left out there, since they are nearly all of a small image and the look-up watches them in
// passing. The checker asks for them too, and for what no image that was built can be.

#include "dict/hashdict_internal.h"

namespace hashdict {
namespace {

constexpr Id kFewestVertices = 5;  // of a dictionary without keys

Short RankOf(const HashDict& hdict, size_t byte) { return Load<Short>(Bytes(hdict.h_rank) + byte * sizeof(Short)); }

// The first reason why the fast look-up cannot serve a dictionary; null when it can.
const char* Uncovered(const HashDict& hdict) {
  if (hdict.h_size < 3 || hdict.h_size > kMaxFastSize) return "number of vertices is out of range";
  if (hdict.h_nbits == 0 || hdict.h_nbits > kMaxBits) return "width of a function value is out of range";
  if (hdict.h_probe > kMaxProbe) return "width of a probe code is out of range";
  if (hdict.h_rank_size < kRanks * sizeof(Short)) return "fewer than 256 ranks";
  if (hdict.h_coef_size / sizeof(Triple) < ULong{hdict.h_maxlen} * hdict.h_nchars) return "coefficients are missing";
  if (hdict.h_fun_size / sizeof(ULong) < ((ULong{hdict.h_size} + 1) * hdict.h_nbits + 63) / 64) {
    return "function values are missing";
  }
  if (hdict.h_probe_size < ULong{hdict.h_nentries} * hdict.h_probe) return "probe codes are missing";
  for (size_t byte = 0; byte < kRanks; byte++) {
    if (RankOf(hdict, byte) >= Int{hdict.h_nchars}) return "rank of a byte is out of range";
  }
  return nullptr;
}

// Every byte that occurs is one further than the one before, and there are as many as the header says.
bool RanksAscend(const HashDict& hdict) {
  Short next = 0;
  for (size_t byte = 0; byte < kRanks; byte++) {
    const Short rank = RankOf(hdict, byte);
    if (rank == -1) continue;
    if (rank != next) return false;
    next++;
  }
  return next == hdict.h_nchars;
}

bool CoefficientsInRange(const HashDict& hdict) {
  const ULong count = ULong{hdict.h_maxlen} * hdict.h_nchars * 3;
  Id largest = 0;
  for (ULong i = 0; i < count; i++) {
    largest = std::max(largest, Load<Id>(Bytes(hdict.h_coef) + i * sizeof(Id)));
  }
  return largest < hdict.h_size;
}

// The first thing wrong with a dictionary; null when it is sound.
const char* Fault(const HashDict& hdict) {
  if (hdict.h_rank == nullptr || hdict.h_fun == nullptr) return "image is shorter than its header says";
  if (hdict.h_size < kFewestVertices) return "fewer than 5 vertices";
  if (const char* const reason = Uncovered(hdict)) return reason;
  if (hdict.h_rank_size % sizeof(Short) != 0 || hdict.h_coef_size % sizeof(Id) != 0 ||
      hdict.h_fun_size % sizeof(ULong) != 0) {
    return "array ends inside an element";
  }
  if ((hdict.h_rank_size + hdict.h_coef_size) % sizeof(ULong) != 0) return "function values are not aligned";
  if (hdict.h_probe == 0 && hdict.h_probe_size != 0) return "probe codes without a width";
  if (!RanksAscend(hdict)) return "ranks do not ascend by one";
  if (!CoefficientsInRange(hdict)) return "coefficient is not below the number of vertices";
  return nullptr;
}

}  // namespace

void SoundnessSet(HashDict* hdict) {
  hdict->h_sound = 0;
  if (Uncovered(*hdict) != nullptr) return;
  hdict->h_sound = hdict->h_size;
  hdict->h_fun_mask = (ULong{1} << hdict->h_nbits) - 1;
  for (Id k = 0; k < 3; k++) hdict->h_reciprocal[k] = qx::Reciprocal(hdict->h_size - k);
}

}  // namespace hashdict

using namespace hashdict;

Boolean HashDictCheck(const HashDict* hdict, const char** reason) {
  const char* const fault = hdict != nullptr ? Fault(*hdict) : "no dictionary";
  if (reason != nullptr) *reason = fault;
  return fault == nullptr ? TRUE : FALSE;
}
