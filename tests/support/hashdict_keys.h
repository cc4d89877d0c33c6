// Key sets for tests of the perfect-hash dictionary, and what the callbacks were asked.
#ifndef TESTS_SUPPORT_HASHDICT_KEYS_H
#define TESTS_SUPPORT_HASHDICT_KEYS_H

#include <cstring>
#include <string>
#include <vector>

#include "dict/hashdict.h"
#include "support/keys.h"

namespace support {

inline Id Find(const HashDict* hdict, const std::string& key) {
  return HashDictFind(hdict, Bytes(key), static_cast<UInt>(key.size()));
}

// The keys of most golden images. One of them is empty.
inline const std::vector<std::string>& NumberWords() {
  static const std::vector<std::string> numbers = {
      "null",    "eins", "zwei", "drei",         "vier", "f\xC3\xBCnf", "sechs",    "sieben",          "acht",
      "neun",    "zehn", "elf",  "zw\xC3\xB6lf", "",     "dreizehn",    "vierzehn", "f\xC3\xBCnfzehn", "sechzehn",
      "siebzehn"};
  return numbers;
}

struct KeySet {
  std::vector<std::string> keys;
  std::vector<Id> values;

  // What was asked, in order: a key's number, or a value's number behind kValue.
  static constexpr ULong kValue = ULong{1} << 32;
  std::vector<ULong> calls;

  static UShort Key(void* set, Id idx, const UByte** bytes) {
    auto* self = static_cast<KeySet*>(set);
    self->calls.push_back(idx);
    *bytes = Bytes(self->keys[idx]);
    return static_cast<UShort>(self->keys[idx].size());
  }

  static Id Value(void* set, Id idx) {
    auto* self = static_cast<KeySet*>(set);
    self->calls.push_back(kValue | idx);
    return self->values[idx];
  }

  HashDict* Build(UByte probe = 0, Boolean verbose = FALSE) {
    return HashDictBuild(static_cast<Id>(keys.size()), this, Key, nullptr, 0, probe, verbose);
  }

  HashDict* BuildValues(UByte nbits) {
    return HashDictBuild(static_cast<Id>(keys.size()), this, Key, Value, nbits, 0, FALSE);
  }
};

// The image of a dictionary, from its fields.
inline std::string ImageOf(const HashDict* hdict) {
  std::string image;
  const auto put = [&image](const void* bytes, size_t size) { image.append(static_cast<const char*>(bytes), size); };
  put(&hdict->h_nentries, 4);
  put(&hdict->h_size, 4);
  put(&hdict->h_maxlen, 2);
  put(&hdict->h_nbits, 2);
  put(&hdict->h_nchars, 2);
  put(&hdict->h_probe, 2);
  put(&hdict->h_rank_size, 8);
  put(&hdict->h_coef_size, 8);
  put(&hdict->h_fun_size, 8);
  put(&hdict->h_probe_size, 8);
  put(hdict->h_rank, hdict->h_rank_size);
  if (hdict->h_coef != nullptr) put(hdict->h_coef, hdict->h_coef_size);
  put(hdict->h_fun, hdict->h_fun_size);
  if (hdict->h_probe_code != nullptr) put(hdict->h_probe_code, hdict->h_probe_size);
  return image;
}

// A number written into an image, or read from it.
template <typename T>
void Poke(std::string* image, size_t at, T value) {
  std::memcpy(image->data() + at, &value, sizeof value);
}

template <typename T>
T Peek(const std::string& image, size_t at) {
  T value;
  std::memcpy(&value, image.data() + at, sizeof value);
  return value;
}

}  // namespace support

#endif
