// The writers of files, for tests that stop them in the middle. Each writes a set of strings, and tells of what is
// there afterwards whether it is that set: "whole"; "refused" by opening or by the check; or "wrong", as another set
// is.
#ifndef TESTS_SUPPORT_WRITERS_H
#define TESTS_SUPPORT_WRITERS_H

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dict/attrdict.h"
#include "dict/hashdict.h"
#include "dict/hashtable.h"
#include "support/files.h"

namespace support {

using Strings = std::vector<std::string>;

namespace writers {

inline const UByte* Bytes(const std::string& text) { return reinterpret_cast<const UByte*>(text.data()); }
inline UInt Count(const Strings& strings) { return static_cast<UInt>(strings.size()); }
inline UInt Length(const std::string& text) { return static_cast<UInt>(text.size()); }

struct HashDictWriter {
  static bool Write(const TemporaryDirectory& dir, const Strings& strings) {
    return HashDictWrite(Built(strings), dir.path().c_str(), "words", nullptr, FALSE) != FALSE;
  }

  static std::string Ask(const TemporaryDirectory& dir, const Strings& strings) {
    HashDict* opened = HashDictOpen(dir.path().c_str(), "words", nullptr);
    if (opened == nullptr) return "refused";
    const bool sound = HashDictCheck(opened, nullptr) != FALSE;
    size_t right = 0;
    for (Id i = 0; sound && i < strings.size(); i++) {
      right += HashDictFind(opened, Bytes(strings[i]), Length(strings[i])) == i ? 1u : 0u;
    }
    const bool whole = right == strings.size() && HashDictSize(opened) == strings.size();
    HashDictClose(opened);
    if (!sound) return "refused";
    return whole ? "whole" : "wrong";
  }

  // Built once for each set.
  static const HashDict* Built(const Strings& strings) {
    static std::map<Strings, std::unique_ptr<HashDict, decltype(&HashDictFree)>> built;
    auto at = built.find(strings);
    if (at == built.end()) {
      HashDict* hdict = HashDictBuild(Count(strings), const_cast<Strings*>(&strings), Key, nullptr, 0, 8, FALSE);
      at = built.try_emplace(strings, hdict, HashDictFree).first;
    }
    return at->second.get();
  }

 private:
  static UShort Key(void* strings, Id idx, const UByte** bytes) {
    const std::string& key = (*static_cast<Strings*>(strings))[idx];
    *bytes = Bytes(key);
    return static_cast<UShort>(key.size());
  }
};

struct HashTableWriter {
  static bool Write(const TemporaryDirectory& dir, const Strings& strings) { return Put(dir, strings, HashTableWrite); }

  static bool Put(const TemporaryDirectory& dir, const Strings& strings,
                  Boolean (*put)(const HashTable*, const char*)) {
    HashTable* table = HashTableNew(Count(strings), nullptr, nullptr, nullptr, sizeof(UInt), 0, FALSE);
    for (UInt i = 0; i < strings.size(); i++) {
      UByte* value = HashTableFind(table, Bytes(strings[i]), Length(strings[i]), TRUE, nullptr, nullptr);
      std::memcpy(value, &i, sizeof i);
    }
    const bool written = put(table, dir.file("table").c_str()) != FALSE;
    const int error = errno;
    HashTableFree(table);
    errno = error;
    return written;
  }

  static std::string Ask(const TemporaryDirectory& dir, const Strings& strings) {
    HashTable* read = HashTableRead(dir.file("table").c_str(), nullptr, nullptr, nullptr, FALSE);
    if (read == nullptr) return "refused";
    size_t right = 0;
    for (UInt i = 0; i < strings.size(); i++) {
      const UByte* value = HashTableFind(read, Bytes(strings[i]), Length(strings[i]), FALSE, nullptr, nullptr);
      right += value != nullptr && std::memcmp(value, &i, sizeof i) == 0 ? 1u : 0u;
    }
    const bool whole = right == strings.size() && HashTableSize(read) == strings.size();
    const bool sound = HashTableCheck(read, nullptr) != FALSE;
    HashTableFree(read);
    if (!sound) return "refused";
    return whole ? "whole" : "wrong";
  }
};

struct HashTableReplacer : HashTableWriter {
  static bool Write(const TemporaryDirectory& dir, const Strings& strings) {
    return Put(dir, strings, HashTableReplace);
  }
};

struct HashDictReplacer : HashDictWriter {
  static bool Write(const TemporaryDirectory& dir, const Strings& strings) {
    return HashDictReplace(Built(strings), dir.path().c_str(), "words", nullptr, FALSE) != FALSE;
  }
};

struct AttrDictWriter {
  static bool Write(const TemporaryDirectory& dir, const Strings& strings) {
    AttrDict* adict = Begun(dir, "strings", strings);
    return adict != nullptr && AttrDictCommit(adict) != FALSE;
  }

  static AttrDict* Begun(const TemporaryDirectory& dir, const char* name, const Strings& strings) {
    AttrDict* adict = AttrDictBuild(dir.path().c_str(), name, FALSE);
    if (adict == nullptr) return nullptr;
    for (const std::string& s : strings) AttrDictAdd(adict, Bytes(s), static_cast<UByte>(s.size()));
    return adict;
  }

  static std::string Ask(const TemporaryDirectory& dir, const Strings& strings) {
    AttrDict* opened = AttrDictOpen(dir.path().c_str(), "strings");
    if (opened == nullptr) return "refused";
    const bool sound = AttrDictCheck(opened, nullptr) != FALSE;
    size_t right = 0;
    for (Id i = 0; i < strings.size(); i++) {
      const UByte* bytes = nullptr;
      const UByte length = AttrDictGet(opened, i, &bytes);
      right += bytes != nullptr && std::string(reinterpret_cast<const char*>(bytes), length) == strings[i] ? 1u : 0u;
    }
    const UInt size = AttrDictSize(opened);
    AttrDictClose(opened);
    if (!sound) return "refused";
    if (size == 0) return "empty";
    return right == strings.size() && size == strings.size() ? "whole" : "wrong";
  }
};

struct AttrDictReplacer : AttrDictWriter {
  static bool Write(const TemporaryDirectory& dir, const Strings& strings) {
    AttrDict* adict = Begun(dir, "beside", strings);
    return adict != nullptr && AttrDictCommitAs(adict, dir.path().c_str(), "strings") != FALSE;
  }
};

}  // namespace writers

// So many different strings, in files of several blocks when they are a thousand.
inline Strings Many(const std::string& prefix, UInt count) {
  Strings strings;
  for (UInt i = 0; i < count; i++) strings.push_back(prefix + std::to_string(i) + std::string(i % 7, '.'));
  return strings;
}

}  // namespace support

#endif
