// Any bytes, read as the two files of an attribute dictionary and used in every way: the body of its fuzzer, and of the
// test that replays what it has found. Gives "" when all is well, else what is not.
//
// The pair is used before the check is asked, and after. The files lie in blocks that end at protected pages. A pair
// that the check calls sound is also written anew, string by string: a writer makes the same bytes.
//
// Include in a program with ledger.cc and tests/ in front of the base library.
//
//   [ way:1 | 3 identifiers of 4 bytes | length of the index:2 | index | data ]
#ifndef TESTS_SUPPORT_ATTRDICT_BYTES_H
#define TESTS_SUPPORT_ATTRDICT_BYTES_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <map>
#include <span>
#include <sstream>
#include <string>

#include "dict/attrdict.h"
#include "support/ledger.h"
#include "support/numbers.h"

namespace support {

class UsedAttrDict {
 public:
  UsedAttrDict(const AttrDict* adict, bool sound) : adict_(adict), sound_(sound) {}

  // The first thing that is wrong, or "".
  std::string Use(std::span<const Id> ids) {
    const UInt count = AttrDictSize(adict_);
    for (const Id id : {Id{0}, Id{1}, Id{2}, Id{3}, Id{4}, Id{7}, count / 2, count - 2, count - 1, count, ~Id{0}})
      Ask(id);
    for (const Id id : ids) {
      Ask(id);
      if (count != 0) Ask(id % count);
    }
    return wrong_;
  }

 private:
  void Require(bool holds, const char* what) {
    if (!holds && wrong_.empty()) wrong_ = what;
  }

  void Inside(const UByte* bytes, size_t length) {
    const auto at = static_cast<size_t>(bytes - adict_->a_dat);
    if (at > adict_->a_dat_size || length > adict_->a_dat_size - at) {
      Require(false, "a string lies outside the data");
    } else if (length != 0) {
      sum_ += bytes[0] + bytes[length - 1];
    }
  }

  static UInt Visit(UByte* bytes, UInt length, void* ptr) {
    auto* self = static_cast<UsedAttrDict*>(ptr);
    self->Require(length <= 255, "a string is too long");
    self->Inside(bytes, length);
    if (self->sound_) {
      const UByte* found = nullptr;
      self->Require(AttrDictGet(self->adict_, self->next_, &found) == length && found == bytes,
                    "a walk and a look-up differ");
    }
    self->next_++;
    return --self->left_ == 0 ? 0x80000001 : 0;
  }

  void Ask(Id id) {
    constexpr unsigned kEnough = 4096;
    const UInt count = AttrDictSize(adict_);
    const UByte mark = 0;
    const UByte* bytes = &mark;
    const UByte length = AttrDictGet(adict_, id, &bytes);
    if (bytes == &mark) {
      Require(length == 0, "a length without a string");
      Require(!sound_ || id >= count, "a string is missing");
    } else {
      Require(id < count, "a string that is not there");
      Inside(bytes, length);
    }
    if (id >= count) return;  // asserted, when there are data
    next_ = id;
    left_ = kEnough;
    const UInt stopped = AttrDictEnumerate(adict_, id, Visit, this);
    Require(stopped == (left_ == 0 ? 0x80000001 : 0), "what a visitor says is lost");
    Require(!sound_ || left_ == 0 || next_ == count, "a walk ends too early");
  }

  const AttrDict* adict_;
  const bool sound_;
  std::string wrong_;
  Id next_ = 0;
  unsigned left_ = 0;
  unsigned sum_ = 0;
};

// Writes all strings of a sound pair into the directory and compares the files.
inline std::string WriteAnew(const AttrDict* adict, const std::string& idx, const std::string& dat,
                             const std::string& directory) {
  AttrDict* const written = AttrDictBuild(directory.c_str(), "anew", FALSE);
  if (written == nullptr) return "cannot be written";
  for (Id id = 0; id < AttrDictSize(adict); id++) {
    const UByte* bytes = nullptr;
    const UByte length = AttrDictGet(adict, id, &bytes);
    AttrDictAdd(written, bytes, length);
  }
  if (!AttrDictCommit(written)) return "cannot be completed";
  const auto whole = [&directory](const char* name) {
    std::ifstream in(directory + name, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
  };
  if (whole("/anew.idx") != idx) return "a sound index is not what a writer writes";
  if (whole("/anew.dat") != dat) return "sound data are not what a writer writes";
  return "";
}

// `directory` is where a pair may be written. way: write anew, when sound:1
inline std::string ReadAttrDictBytes(std::span<const uint8_t> input, const std::string& directory) {
  Numbers numbers(input);
  const uint64_t way = numbers.Next(1);
  std::array<Id, 3> ids;
  for (Id& id : ids) id = static_cast<Id>(numbers.Next(4));
  const auto index = numbers.Take(numbers.Next(2));
  const auto data = numbers.Rest();
  const std::map<std::string, std::string> files = {{"d.idx", {index.begin(), index.end()}},
                                                    {"d.dat", {data.begin(), data.end()}}};
  faults::ServeFileMaps(&files);
  AttrDict* const adict = AttrDictOpen("anywhere", "d");
  std::string wrong;
  if ((adict != nullptr) != !index.empty()) wrong = "opened, or not";
  if (adict != nullptr) {
    if (wrong.empty()) wrong = UsedAttrDict(adict, false).Use(ids);
    const char* reason = "";
    const bool sound = AttrDictCheck(adict, &reason) != FALSE;
    if (sound != (reason == nullptr)) wrong = "a reason without a fault, or the other way round";
    if (sound && AttrDictSize(adict) > input.size()) wrong = "more strings than bytes";
    if (sound && wrong.empty()) wrong = UsedAttrDict(adict, true).Use(ids);
    if (sound && wrong.empty() && (way & 1) != 0)
      wrong = WriteAnew(adict, files.at("d.idx"), files.at("d.dat"), directory);
    if (!AttrDictClose(adict)) wrong = "not closed";
  }
  faults::ServeFileMaps(nullptr);
  return wrong;
}

}  // namespace support

#endif
