// Pairs of an attribute dictionary's files, and everything that can be asked of an open one.
#ifndef TESTS_SUPPORT_ATTR_PAIRS_H
#define TESTS_SUPPORT_ATTR_PAIRS_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dict/attrdict.h"
#include "support/files.h"
#include "support/ledger.h"

namespace support {

struct AttrDictCloser {
  void operator()(AttrDict* adict) const { EXPECT_EQ(AttrDictClose(adict), TRUE); }
};

// A dictionary that is open for reading while its name lives.
using OpenAttrDict = std::unique_ptr<AttrDict, AttrDictCloser>;

inline void AddAll(AttrDict* adict, const std::vector<std::string>& strings) {
  for (const std::string& s : strings) {
    AttrDictAdd(adict, reinterpret_cast<const UByte*>(s.data()), static_cast<UByte>(s.size()));
  }
}

// What a visitor was given, in order; it stops at the call that makes `stop_at` of them, with `result`.
struct Visits {
  std::vector<std::string> strings;
  size_t stop_at = 0;
  UInt result = 0;

  static UInt Take(UByte* bytes, UInt length, void* self) {
    auto* visits = static_cast<Visits*>(self);
    visits->strings.emplace_back(reinterpret_cast<const char*>(bytes), length);
    return visits->strings.size() == visits->stop_at ? visits->result : 0;
  }
};

inline std::vector<std::string> EnumerateFrom(const AttrDict* adict, Id start) {
  Visits visits;
  EXPECT_EQ(AttrDictEnumerate(adict, start, &Visits::Take, &visits), 0u);
  return visits.strings;
}

// The strings of all identifiers, by look-up.
inline std::vector<std::string> GetAll(const AttrDict* adict) {
  std::vector<std::string> strings;
  for (Id id = 0; id < AttrDictSize(adict); id++) {
    const UByte* bytes = nullptr;
    const UByte length = AttrDictGet(adict, id, &bytes);
    EXPECT_NE(bytes, nullptr) << id;
    if (bytes != nullptr) strings.emplace_back(reinterpret_cast<const char*>(bytes), length);
  }
  return strings;
}

// The pair <directory>/d.idx, <directory>/d.dat.
class AttrPair {
 public:
  const char* dir() const { return directory_.path().c_str(); }
  static const char* name() { return "d"; }
  std::string idx_path() const { return directory_.file("d.idx"); }
  std::string dat_path() const { return directory_.file("d.dat"); }
  std::string idx() const { return ReadFile(idx_path()); }
  std::string dat() const { return ReadFile(dat_path()); }

  void Write(const std::string& idx, const std::string& dat) const {
    WriteFile(idx_path(), idx);
    WriteFile(dat_path(), dat);
  }

  Boolean Build(const std::vector<std::string>& strings, Boolean swap = FALSE) const {
    AttrDict* adict = AttrDictBuild(dir(), name(), swap);
    if (adict == nullptr) return FALSE;
    AddAll(adict, strings);
    return AttrDictCommit(adict);
  }

  OpenAttrDict Open() const { return OpenAttrDict(AttrDictOpen(dir(), name())); }

 private:
  TemporaryDirectory directory_;
};

// A pair that no file holds; while it lives, nothing else can be opened. Mappings end at protected pages.
class PairInMemory {
 public:
  PairInMemory() { faults::ServeFileMaps(&files_); }
  ~PairInMemory() { faults::ServeFileMaps(nullptr); }
  PairInMemory(const PairInMemory&) = delete;
  PairInMemory& operator=(const PairInMemory&) = delete;

  void Write(const std::string& idx, const std::string& dat) {
    files_["d.idx"] = idx;
    files_["d.dat"] = dat;
  }
  OpenAttrDict Open() const { return OpenAttrDict(AttrDictOpen("directory", "d")); }

 private:
  std::map<std::string, std::string> files_;
};

// The strings of the golden pairs "attrdict-eleven", "attrdict-swapped" and "attrdict-many".
inline std::vector<std::string> ElevenStrings() {
  return {"",
          "a",
          std::string(1, '\0'),
          "",
          std::string(255, '\xff'),
          "attribute",
          "",
          std::string("two\0words", 9),
          std::string(128, 'x'),
          "",
          "end"};
}

inline std::vector<std::string> ManyStrings() {
  std::vector<std::string> strings;
  for (unsigned id = 0; id < 123; id++) {
    strings.emplace_back();
    for (unsigned at = 0; at < id * 37 % 256; at++) strings.back() += static_cast<char>((id + at) % 256);
  }
  return strings;
}

}  // namespace support

#endif
