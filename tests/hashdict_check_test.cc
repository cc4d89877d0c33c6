// Telling sound dictionaries from damaged ones, and that what is called sound serves every look-up and can be copied.

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "dict/hashdict.h"
#include "support/assertion_trap.h"
#include "support/files.h"
#include "support/guarded.h"
#include "support/hashdict_keys.h"
#include "support/ledger.h"

namespace {

using support::KeySet;
using support::NumberWords;
using support::Poke;

constexpr size_t kHeader = 48;
constexpr size_t kRanks = kHeader, kCoefficients = kHeader + 512;

const char* const kImages[] = {"hashdict-plain.dic",    "hashdict-probe3.dic", "hashdict-probe8.dic",
                               "hashdict-values.dic",   "hashdict-odd.dic",    "hashdict-values32.dic",
                               "hashdict-emptykey.dic", "hashdict-empty.dic",  "hashdict-bytes.dic"};

std::string Golden(const std::string& name) { return support::ReadFile(support::GoldenPath(name)); }

// An image in a block of its exact size.
class Opened {
 public:
  explicit Opened(const std::string& image) : image_(image) {
    opened_ = HashDictMemOpen_(&hdict_, image_.data(), image_.size(), TRUE) != FALSE;
  }
  bool opened() const { return opened_; }
  const HashDict* get() const { return &hdict_; }

  // What is wrong; "" when nothing is.
  std::string Fault() const {
    const char* reason = "not set";
    const Boolean sound = HashDictCheck(&hdict_, &reason);
    EXPECT_EQ(sound, reason == nullptr ? TRUE : FALSE);
    EXPECT_EQ(HashDictCheck(&hdict_, nullptr), sound);
    return reason != nullptr ? reason : "";
  }

 private:
  support::Guarded image_;
  HashDict hdict_;
  bool opened_;
};

TEST(HashDictCheck, GoldenImagesAreSound) {
  for (const char* name : kImages) EXPECT_EQ(Opened(Golden(name)).Fault(), "") << name;
}

TEST(HashDictCheck, WhatIsBuiltIsSound) {
  KeySet set;
  for (const size_t count : {0u, 1u, 2u, 100u, 3000u}) {
    while (set.keys.size() < count) set.keys.push_back(std::to_string(set.keys.size() * 31));
    for (const UByte probe : {UByte{0}, UByte{1}, UByte{5}, UByte{8}}) {
      HashDict* hdict = set.Build(probe);
      const char* reason = "not set";
      EXPECT_TRUE(HashDictCheck(hdict, &reason)) << count << " keys: " << reason;
      EXPECT_EQ(reason, nullptr);
      HashDictFree(hdict);
    }
  }
}

TEST(HashDictCheck, NoDictionaryIsNotSound) {
  const char* reason = nullptr;
  EXPECT_FALSE(HashDictCheck(nullptr, &reason));
  EXPECT_STREQ(reason, "no dictionary");
  EXPECT_FALSE(HashDictCheck(nullptr, nullptr));
}

TEST(HashDictCheck, ARefusedImageIsNotSound) {
  const std::string plain = Golden("hashdict-plain.dic");
  for (const size_t length : {size_t{0}, size_t{47}, size_t{48}, plain.size() - 1}) {
    const Opened cut(plain.substr(0, length));
    EXPECT_FALSE(cut.opened());
    EXPECT_EQ(cut.Fault(), "image is shorter than its header says") << length;
  }
}

TEST(HashDictCheck, ARecordWithoutFunctionValuesIsNotSound) {
  const Opened whole(Golden("hashdict-plain.dic"));
  HashDict record = *whole.get();
  record.h_fun = nullptr;
  const char* reason = nullptr;
  EXPECT_FALSE(HashDictCheck(&record, &reason));
  EXPECT_STREQ(reason, "image is shorter than its header says");
}

TEST(HashDictCheck, TheOppositeByteOrderIsNotSound) {
  EXPECT_EQ(Opened(Golden("hashdict-swapped.dic")).Fault(), "image is shorter than its header says");
}

TEST(HashDictCheck, FortyEightZeroBytesAreNotSound) {
  // What a power cut can leave of a file.
  const Opened zeros(std::string(48, '\0'));
  EXPECT_TRUE(zeros.opened());
  EXPECT_EQ(zeros.Fault(), "fewer than 5 vertices");
}

// An image of hashdict-plain.dic with one number changed, of as many bytes as the number's type has.
template <typename T>
std::string FaultWith(size_t at, T value, const char* name = "hashdict-plain.dic") {
  std::string image = Golden(name);
  Poke<T>(&image, at, value);
  const Opened damaged(image);
  EXPECT_TRUE(damaged.opened());
  return damaged.Fault();
}

TEST(HashDictCheck, NamesWhatIsWrongWithANumber) {
  // 19 keys, 28 vertices, values of 5 bits.
  EXPECT_EQ(FaultWith<Id>(4, 4), "fewer than 5 vertices");
  EXPECT_EQ(FaultWith<Id>(4, 0x80000000), "number of vertices is out of range");
  EXPECT_EQ(FaultWith<Id>(4, 0xFFFFFFFF), "number of vertices is out of range");
  EXPECT_EQ(FaultWith<Id>(4, 1000), "function values are missing");
  EXPECT_EQ(FaultWith<UShort>(8, 1000), "coefficients are missing");
  EXPECT_EQ(FaultWith<UShort>(10, 0), "width of a function value is out of range");
  EXPECT_EQ(FaultWith<UShort>(10, 33), "width of a function value is out of range");
  EXPECT_EQ(FaultWith<UShort>(10, 0xFFFF), "width of a function value is out of range");
  EXPECT_EQ(FaultWith<UShort>(10, 32), "function values are missing");
  EXPECT_EQ(FaultWith<UShort>(12, 300), "coefficients are missing");
  EXPECT_EQ(FaultWith<UShort>(12, 1), "rank of a byte is out of range");
  EXPECT_EQ(FaultWith<UShort>(14, 9), "width of a probe code is out of range");
  EXPECT_EQ(FaultWith<UShort>(14, 1), "probe codes are missing");
  EXPECT_EQ(FaultWith<Id>(0, 0xFFFFFFFF, "hashdict-probe3.dic"), "probe codes are missing");
  EXPECT_EQ(FaultWith<UShort>(14, 0, "hashdict-probe3.dic"), "probe codes without a width");
}

TEST(HashDictCheck, TheLastVertexMustHaveItsValue) {
  // 12 values of 3 bits lie in one word; with one vertex more than a word has room for there is none for the last.
  EXPECT_EQ(FaultWith<Id>(4, 20, "hashdict-probe8.dic"), "");
  EXPECT_EQ(FaultWith<Id>(4, 21, "hashdict-probe8.dic"), "function values are missing");
}

TEST(HashDictCheck, NamesWhatIsWrongWithAnArraysSize) {
  EXPECT_EQ(FaultWith<ULong>(16, 511), "fewer than 256 ranks");
  EXPECT_EQ(FaultWith<ULong>(16, 510), "fewer than 256 ranks");
  EXPECT_EQ(FaultWith<ULong>(24, 8), "coefficients are missing");
  EXPECT_EQ(FaultWith<ULong>(32, 16), "function values are missing");
  EXPECT_EQ(FaultWith<ULong>(40, 0, "hashdict-probe3.dic"), "probe codes are missing");
  // Bytes to spare in one array, taken from a longer image: what counts is where elements end.
  const struct {
    size_t at;
    ULong more;
    const char* fault;
  } sizes[] = {{16, 1, "array ends inside an element"},
               {16, 2, "function values are not aligned"},
               {24, 2, "array ends inside an element"},
               {24, 4, "function values are not aligned"},
               {32, 4, "array ends inside an element"},
               {16, 8, ""},
               {32, 8, ""},
               {40, 1, "probe codes without a width"}};
  for (const auto& size : sizes) {
    std::string image = Golden("hashdict-plain.dic");
    Poke<ULong>(&image, size.at, support::Peek<ULong>(image, size.at) + size.more);
    // All ranks, and zeros for everything behind them.
    image.resize(kCoefficients);
    image.resize(Golden("hashdict-plain.dic").size() + size.more);
    EXPECT_EQ(Opened(image).Fault(), size.fault) << size.at << " " << size.more;
  }
}

TEST(HashDictCheck, NamesWhatIsWrongWithRanks) {
  // "hashdict-probe8.dic" has ranks 0 to 10 for d e i l n r s u v w z.
  const auto fault = [](char byte, Short rank) {
    return FaultWith<Short>(kRanks + 2 * static_cast<size_t>(byte), rank, "hashdict-probe8.dic");
  };
  EXPECT_EQ(fault('d', 11), "rank of a byte is out of range");
  EXPECT_EQ(fault('d', 32767), "rank of a byte is out of range");
  EXPECT_EQ(fault('d', 1), "ranks do not ascend by one");
  EXPECT_EQ(fault('a', 0), "ranks do not ascend by one");
  EXPECT_EQ(fault('z', -1), "ranks do not ascend by one");
  EXPECT_EQ(fault('e', -2), "ranks do not ascend by one");
  EXPECT_EQ(fault('z', 10), "");
}

TEST(HashDictCheck, NoCoefficientReachesTheNumberOfVertices) {
  // "hashdict-probe8.dic" has 11 vertices and 4 x 11 x 3 coefficients.
  const auto fault = [](size_t index, Id value) {
    return FaultWith<Id>(kCoefficients + 4 * index, value, "hashdict-probe8.dic");
  };
  for (const size_t index : {0u, 1u, 2u, 66u, 129u, 130u, 131u}) {
    EXPECT_EQ(fault(index, 10), "") << index;
    EXPECT_EQ(fault(index, 11), "coefficient is not below the number of vertices") << index;
    EXPECT_EQ(fault(index, 0xFFFFFFFF), "coefficient is not below the number of vertices") << index;
  }
}

TEST(HashDictCheck, FillingBehindTheCoefficientsIsNotLookedAt) {
  // 3 coefficients and 4 bytes of filling.
  const std::string image = Golden("hashdict-odd.dic");
  const auto used = size_t{support::Peek<UShort>(image, 8)} * support::Peek<UShort>(image, 12) * 12;
  ASSERT_EQ(support::Peek<ULong>(image, 24), used + 4);
  EXPECT_EQ(FaultWith<Id>(kCoefficients + used, 0xFFFFFFFF, "hashdict-odd.dic"), "");
}

TEST(HashDictCheck, AllocatesNothing) {
  const Opened plain(Golden("hashdict-plain.dic"));
  support::Ledger ledger;
  EXPECT_TRUE(HashDictCheck(plain.get(), nullptr));
  EXPECT_EQ(ledger.blocks(), 0u);
}

std::vector<std::string> ManyKeys() {
  std::vector<std::string> keys = NumberWords();
  for (const char* key : {"n", "nnnnnnnnn", "zzzzzzzzz", "a", "siebenund", "\xFF\xFF\xFF", "abc"})
    keys.emplace_back(key);
  for (const size_t length : {size_t{10}, size_t{300}, size_t{65535}, size_t{65536}}) keys.emplace_back(length, 'n');
  keys.emplace_back(9, '\0');
  return keys;
}

// Takes a channel's bytes into a string.
class Copy {
 public:
  Copy() : channel_(ChannelNew(-1, -1)) { channel_->device = &table_; }
  ~Copy() { ChannelClose(channel_); }
  Copy(const Copy&) = delete;
  Copy& operator=(const Copy&) = delete;

  // The image that is written of a dictionary.
  std::string Of(const HashDict* hdict) {
    EXPECT_TRUE(HashDictFileWrite_(hdict, channel_, FALSE));
    EXPECT_TRUE(ChannelFlush(channel_));
    return bytes_;
  }

 private:
  static ssize_t Write(const void* from, size_t count, void* arg) {
    static_cast<Copy*>(arg)->bytes_.append(static_cast<const char*>(from), count);
    return static_cast<ssize_t>(count);
  }

  std::string bytes_;
  const ChannelVirtual table_ = {nullptr, Write, nullptr, nullptr, nullptr, this};
  Channel* channel_;
};

TEST(HashDictCheck, WhatIsCalledSoundServesEveryKeyAndCanBeCopied) {
  const std::vector<std::string> keys = ManyKeys();
  std::vector<std::string> images;
  for (const char* name : kImages) images.push_back(Golden(name));
  size_t sound = 0, damaged = 0;
  EXPECT_TRUE(rc::check([&] {
    std::string image = *rc::gen::elementOf(images);
    const auto changes = *rc::gen::inRange(0, 6);
    for (int i = 0; i < changes; i++) {
      const size_t limit = *rc::gen::element(kHeader, kCoefficients, image.size());
      const size_t at = *rc::gen::inRange<size_t>(0, limit);
      image[at] = static_cast<char>(image[at] + *rc::gen::element(1, 2, 8, -1, 100));
    }
    const Opened opened(image);
    if (!opened.opened() || !opened.Fault().empty()) {
      damaged++;
      return;
    }
    sound++;
    for (const std::string& key : keys) {
      const HashDict* hdict = opened.get();
      RC_ASSERT(support::Trap([&] { support::Find(hdict, key); }) == "");
    }
    const Opened again(Copy().Of(opened.get()));
    RC_ASSERT(again.opened());
    RC_ASSERT(again.Fault() == "");
    for (const std::string& key : keys) RC_ASSERT(support::Find(again.get(), key) == support::Find(opened.get(), key));
  }));
  EXPECT_GT(sound, 10u);
  EXPECT_GT(damaged, 10u);
}

}  // namespace
