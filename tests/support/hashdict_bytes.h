// Any bytes, read as a perfect-hash dictionary in one of its containers and used in every way: the body of its fuzzer,
// and of the test that gives it bytes at random. Gives "" when all is well, else what is not. The dictionary is used
// before the checker is asked, and held against its answer afterwards.
//
// Include in one file of a test program (assertion_trap.h), with ledger.cc and tests/ in front of the base library.
//
//   [ way | base | ... ]    way: container:2 shift:3 of the image's start; base 0: the rest is the image itself
//                           base 1 and up: one of some sound images, and the rest are changes, 4 bytes each:
//   [ place:2 what:1 value:1 ]   in the header when the place's top bit is set
#ifndef TESTS_SUPPORT_HASHDICT_BYTES_H
#define TESTS_SUPPORT_HASHDICT_BYTES_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "support/assertion_trap.h"
#include "support/guarded.h"
#include "support/hashdict_keys.h"
#include "support/ledger.h"

namespace support {

// Sound images to start from.
inline const std::vector<std::string>& SoundImages() {
  static const std::vector<std::string> images = [] {
    std::vector<std::string> made;
    const auto add = [&made](HashDict* hdict) {
      made.push_back(ImageOf(hdict));
      HashDictFree(hdict);
    };
    KeySet numbers{NumberWords(), {}, {}}, empty, empty_key{{""}, {}, {}}, long_keys;
    for (Id i = 0; i < 19; i++) numbers.values.push_back(i * 226050910);
    for (char byte = 'a'; byte < 'e'; byte++) long_keys.keys.emplace_back(300, byte);
    add(empty.Build());
    add(empty_key.Build(2));
    add(numbers.Build());
    add(numbers.Build(3));
    add(numbers.Build(8));
    add(numbers.BuildValues(32));
    add(long_keys.Build(1));
    return made;
  }();
  return images;
}

// What a caller, and a damaged disk, may come up with for a number.
inline ULong OddNumber(UByte which) {
  static constexpr ULong kOdd[] = {0,          1,          2,         3,         4,         5,          7,
                                   8,          9,          32,        33,        64,        255,        256,
                                   257,        512,        0x7FFF,    0x8000,    0xFFFF,    0x7FFFFFFF, 0x80000000,
                                   0xFFFFFFFE, 0xFFFFFFFF, 1ul << 32, 1ul << 63, ~0ul - 47, ~0ul - 7,   ~0ul};
  return kOdd[which % std::size(kOdd)];
}

inline std::string HashDictImage(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return "";
  const UByte base = bytes[0];
  bytes = bytes.subspan(1);
  if (base == 0) return {bytes.begin(), bytes.end()};
  std::string image = SoundImages()[(base - 1u) % SoundImages().size()];
  for (; bytes.size() >= 4 && !image.empty(); bytes = bytes.subspan(4)) {
    const size_t limit = (bytes[0] & 0x80) != 0 ? std::min<size_t>(48, image.size()) : image.size();
    const size_t at = ((bytes[0] & 0x7Fu) << 8 | bytes[1]) % limit;
    const UByte value = bytes[3];
    const auto poke = [&](size_t width) {
      const ULong number = OddNumber(value);
      std::memcpy(image.data() + at, &number, std::min(width, image.size() - at));
    };
    switch (bytes[2] % 8) {
      case 0:
        image[at] = static_cast<char>(value);
        break;
      case 1:
        image[at] = static_cast<char>(image[at] + value);
        break;
      case 2:
        image[at] = static_cast<char>(image[at] ^ 1 << value % 8);
        break;
      case 3:
        poke(2);
        break;
      case 4:
        poke(4);
        break;
      case 5:
        poke(8);
        break;
      case 6:
        image.resize(at);
        break;
      default:
        image.append(value, static_cast<char>(at));
        break;
    }
  }
  return image;
}

// A channel over bytes in memory, or into them.
class StringChannel {
 public:
  explicit StringChannel(std::string bytes = "") : bytes_(std::move(bytes)), channel_(ChannelNew(-1, -1)) {
    channel_->device = &table_;
  }
  ~StringChannel() { ChannelClose(channel_); }
  StringChannel(const StringChannel&) = delete;
  StringChannel& operator=(const StringChannel&) = delete;

  Channel* get() const { return channel_; }
  std::string Written() {
    ChannelFlush(channel_);
    return bytes_;
  }

 private:
  static ssize_t Read(void* to, size_t count, void* arg) {
    auto* self = static_cast<StringChannel*>(arg);
    // Short reads, as a pipe gives them.
    count = std::min({count, self->bytes_.size() - self->read_, size_t{1000}});
    std::memcpy(to, self->bytes_.data() + self->read_, count);
    self->read_ += count;
    return static_cast<ssize_t>(count);
  }
  static ssize_t Write(const void* from, size_t count, void* arg) {
    static_cast<StringChannel*>(arg)->bytes_.append(static_cast<const char*>(from), count);
    return static_cast<ssize_t>(count);
  }

  std::string bytes_;
  size_t read_ = 0;
  const ChannelVirtual table_ = {Read, Write, nullptr, nullptr, nullptr, this};
  Channel* channel_;
};

inline const std::vector<std::string>& KeysToFind() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> made = NumberWords();
    for (const char* key : {"n", "zz", "siebenund", "\xFF", "aaaa"}) made.emplace_back(key);
    for (const size_t length : {size_t{9}, size_t{10}, size_t{299}, size_t{300}, size_t{301}, size_t{65536}}) {
      made.emplace_back(length, 'n');
      made.emplace_back(length, 'a');
    }
    made.emplace_back(5, '\0');
    return made;
  }();
  return keys;
}

// Keys that the input itself gives: some of its bytes, from everywhere.
inline std::vector<std::string> KeysOfInput(std::span<const uint8_t> input) {
  std::vector<std::string> keys;
  for (size_t at = 0; at < input.size() && keys.size() < 16; at += 1 + input.size() / 16) {
    const auto bytes = input.subspan(at, std::min<size_t>(input[at] % 24, input.size() - at));
    keys.emplace_back(bytes.begin(), bytes.end());
  }
  return keys;
}

// Every look-up, one by one and together and prepared, the checker, the look-ups once more, every writer. What is
// wrong.
inline std::string UseHashDict(HashDict* hdict, std::span<const uint8_t> input) {
  HashDictSize(hdict);
  HashDictMaxLength(hdict);
  HashDictFileSize(hdict);

  std::vector<std::string> keys = KeysOfInput(input);
  keys.insert(keys.end(), KeysToFind().begin(), KeysToFind().end());
  std::vector<const UByte*> bytes;
  std::vector<UInt> lens;
  std::vector<Id> singles(keys.size()), many(keys.size());
  std::string first_assertion;
  for (size_t i = 0; i < keys.size(); i++) {
    bytes.push_back(Bytes(keys[i]));
    lens.push_back(static_cast<UInt>(keys[i].size()));
    const std::string text = Trap([&] { singles[i] = HashDictFind(hdict, bytes[i], lens[i]); });
    if (!text.empty() && text != "*pc0 <= m0" && text != "*pc1 <= m0") return "another assertion: " + text;
    if (first_assertion.empty()) first_assertion = text;
  }
  const std::string text =
      Trap([&] { HashDictFindMany(hdict, static_cast<UInt>(keys.size()), bytes.data(), lens.data(), many.data()); });
  if (text.empty() != first_assertion.empty()) return "one by one and together differ in assertions";
  if (text.empty() && singles != many) return "one by one and together differ";

  // A dictionary that is prepared answers in another way, and the same.
  HashDictPrepare(hdict);
  std::string later_assertion;
  for (size_t i = 0; i < keys.size(); i++) {
    Id later = 0;
    const std::string now = Trap([&] { later = HashDictFind(hdict, bytes[i], lens[i]); });
    if (later_assertion.empty()) later_assertion = now;
    if (now.empty() && first_assertion.empty() && later != singles[i]) return "prepared it answers otherwise";
  }
  if (later_assertion != first_assertion) return "prepared it differs in assertions";

  const char* reason = nullptr;
  const bool sound = HashDictCheck(hdict, &reason) != FALSE;
  if (sound != (reason == nullptr)) return "a reason without a fault, or the other way round";
  if (sound && !first_assertion.empty()) return "an assertion in a sound dictionary: " + first_assertion;
  for (size_t i = 0; i < keys.size() && sound; i++) {
    if (HashDictFind(hdict, bytes[i], lens[i]) != singles[i]) return "the checker has changed something";
  }

  for (const Boolean swap : {FALSE, TRUE}) {
    StringChannel bare, record, map;
    size_t size = 5;
    const std::string wrong = Trap([&] {
      HashDictFileWrite_(hdict, bare.get(), swap);
      HashDictFileWrite(hdict, record.get(), swap);
      swap ? HashDictMMWriteSwapped(hdict, map.get(), &size) : HashDictMMWrite(hdict, map.get(), &size);
    });
    if (!wrong.empty() && (sound || wrong != "(nbytes % size) == 0")) return "an assertion of a writer: " + wrong;
    if (!sound || swap) continue;
    const std::string image = bare.Written();
    if (record.Written().substr(4) != image || map.Written().substr(11) != image) return "the containers differ";
    if (image.size() != HashDictFileSize(hdict) || size != 16 + image.size()) return "a size is wrong";
    const Guarded copy(image);
    HashDict again;
    if (!HashDictMemOpen_(&again, copy.data(), copy.size(), FALSE)) return "a copy of a sound dictionary is refused";
    if (!HashDictCheck(&again, nullptr)) return "a copy of a sound dictionary is not sound";
    for (size_t i = 0; i < keys.size(); i++) {
      if (HashDictFind(&again, bytes[i], lens[i]) != singles[i])
        return "a copy of a sound dictionary answers otherwise";
    }
  }
  return "";
}

inline std::string ReadHashDictBytes(std::span<const uint8_t> input) {
  if (input.empty()) return "";
  SoundImages();
  const UByte way = input[0];
  std::string image = HashDictImage(input.subspan(1));
  // Bytes behind an image are allowed: with them it begins somewhere else, and still ends at the protected page.
  image.append(way >> 2 & 7, '\xFF');
  const auto prefix = [&image](size_t width) {
    const ULong length = image.size();
    return std::string(reinterpret_cast<const char*>(&length), width) + image;
  };

  Ledger ledger;  // keeps what a refused image keeps
  std::string said;
  HashDict* hdict = nullptr;
  switch (way & 3) {
    case 0: {
      const Guarded block(image);
      HashDict handle;
      if (HashDictMemOpen_(&handle, block.data(), block.size(), TRUE)) {
        said = UseHashDict(&handle, input);
      } else if (HashDictCheck(&handle, nullptr)) {
        said = "a refused image is sound";
      }
      break;
    }
    case 1: {
      // As it comes: its first four bytes are the length. Or with its own length in front.
      StringChannel f((way & 0x80) != 0 ? image : prefix(4));
      if (HashDictFileRead(&hdict, f.get())) {
        said = UseHashDict(hdict, input);
        HashDictMemClose(hdict);
      }
      break;
    }
    case 2: {
      const Guarded block((way & 0x80) != 0 ? image : prefix(8));
      UByte* from = block.data() + ((way & 0x40) != 0 ? std::min<size_t>(3, block.size()) : 0);
      while (HashDictMMRead(&hdict, block.data(), &from, block.end())) {
        if (said.empty()) said = UseHashDict(hdict, input);
        HashDictMMFree(hdict);
      }
      if (from < block.data() || from > block.end()) said = "the position left the mapping";
      break;
    }
    default: {
      const std::map<std::string, std::string> files = {{"image.dic", image}};
      faults::ServeFileMaps(&files);
      hdict = HashDictOpen("anywhere", "image", nullptr);
      if (hdict != nullptr) {
        said = UseHashDict(hdict, input);
        HashDictClose(hdict);
      }
      faults::ServeFileMaps(nullptr);
      break;
    }
  }
  ledger.Release();
  return said;
}

}  // namespace support

#endif
