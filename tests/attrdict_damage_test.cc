// The attribute dictionary on pairs of files that nobody wrote in earnest: reading never leaves the mappings, and what
// lies inside them is read as ever. The mappings end at protected pages.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include "dict/attrdict.h"
#include "support/attr_pairs.h"
#include "support/files.h"
#include "support/ledger.h"

namespace {

using support::OpenAttrDict;
using support::PairInMemory;
using support::Visits;
using Strings = std::vector<std::string>;

class AttrDictDamage : public ::testing::Test {
 protected:
  PairInMemory pair_;
};

std::string Word(uint32_t word) { return {reinterpret_cast<const char*>(&word), sizeof word}; }

uint32_t WordAt(const std::string& bytes, size_t at) {
  uint32_t word;
  std::memcpy(&word, bytes.data() + at, sizeof word);
  return word;
}

// Where the string of an identifier lies in the data by the rules of the format, if all of it is there.
std::optional<size_t> Locate(const std::string& idx, const std::string& dat, uint64_t id) {
  const uint64_t size = idx.size() < 4 ? 0 : WordAt(idx, idx.size() - 4);
  if (id >= size || id / 4 * 4 + 4 > idx.size()) return std::nullopt;
  uint64_t at = WordAt(idx, id / 4 * 4);
  for (uint64_t skips = id % 4; skips != 0; skips--) {
    if (at >= dat.size()) return std::nullopt;
    at += static_cast<uint8_t>(dat[at]) + 1u;
  }
  if (at >= dat.size() || at + 1 + static_cast<uint8_t>(dat[at]) > dat.size()) return std::nullopt;
  return at + 1;
}

std::string StringAt(const std::string& dat, size_t at) { return dat.substr(at, static_cast<uint8_t>(dat[at - 1])); }

// Compares every operation on the pair with the rules. "" when all agree.
std::string Compare(PairInMemory& pair, const std::string& idx, const std::string& dat) {
  pair.Write(idx, dat);
  const OpenAttrDict adict = pair.Open();
  if (adict == nullptr) return idx.empty() ? "" : "not opened";
  if (idx.empty()) return "opened";
  const uint32_t size = idx.size() < 4 ? 0 : WordAt(idx, idx.size() - 4);
  if (AttrDictSize(adict.get()) != size) return "size";

  std::vector<Id> ids = {size - 1, size, size + 1, size / 2, 0x7FFFFFFF, 0xFFFFFFFC, 0xFFFFFFFF};
  for (Id id = 0; id < 132; id++) ids.push_back(id);
  for (const Id id : ids) {
    const UByte mark = 0;
    const UByte* bytes = &mark;
    const UByte length = AttrDictGet(adict.get(), id, &bytes);
    const auto expected = Locate(idx, dat, id);
    if (!expected) {
      if (length != 0 || bytes != &mark) return "found " + std::to_string(id);
    } else if (bytes != adict->a_dat + *expected ||
               std::string(reinterpret_cast<const char*>(bytes), length) != StringAt(dat, *expected)) {
      return "string of " + std::to_string(id);
    }
  }

  for (const Id start : {Id{0}, Id{1}, Id{6}, Id{121}, size - 1}) {
    if (start >= size && !dat.empty()) continue;  // asserted
    Strings expected;
    for (uint64_t id = start; const auto at = Locate(idx, dat, id); id++) expected.push_back(StringAt(dat, *at));
    if (dat.empty()) expected.clear();
    if (support::EnumerateFrom(adict.get(), start) != expected) return "enumeration from " + std::to_string(start);
  }
  return {};
}

std::string Golden(const char* name) { return support::ReadFile(support::GoldenPath(name)); }

TEST_F(AttrDictDamage, AnIndexWithoutAWholeWordHasNoIdentifiers) {
  for (const std::string& idx : {std::string("\1"), std::string("\1\1"), std::string("\1\1\1")}) {
    pair_.Write(idx, "\1x");
    const OpenAttrDict adict = pair_.Open();
    ASSERT_NE(adict, nullptr);
    EXPECT_EQ(AttrDictSize(adict.get()), 0u);
    const UByte mark = 0;
    const UByte* bytes = &mark;
    EXPECT_EQ(AttrDictGet(adict.get(), 0, &bytes), 0u);
    EXPECT_EQ(bytes, &mark);
  }
}

TEST_F(AttrDictDamage, AnIndexOfOddSizeHasItsSizeInTheLastFourBytes) {
  const std::string idx = Word(0) + "?" + Word(2);
  pair_.Write(idx, "\1x\1y");
  const OpenAttrDict adict = pair_.Open();
  ASSERT_NE(adict, nullptr);
  EXPECT_EQ(AttrDictSize(adict.get()), 2u);
  EXPECT_EQ(support::GetAll(adict.get()), (Strings{"x", "y"}));
}

TEST_F(AttrDictDamage, AnIdentifierWithoutAnIndexWordHasNoString) {
  // Says 100 and has the words of 4; the second word, the size, is far outside the data.
  pair_.Write(Word(0) + Word(100), "\1a\1b\1c\1d");
  const OpenAttrDict adict = pair_.Open();
  ASSERT_NE(adict, nullptr);
  EXPECT_EQ(AttrDictSize(adict.get()), 100u);
  const UByte mark = 0;
  for (const Id id : {4u, 7u, 8u, 99u, 100u}) {
    const UByte* bytes = &mark;
    EXPECT_EQ(AttrDictGet(adict.get(), id, &bytes), 0u) << id;
    EXPECT_EQ(bytes, &mark) << id;
  }
  const UByte* bytes = &mark;
  EXPECT_EQ(AttrDictGet(adict.get(), 3, &bytes), 1u);
  EXPECT_EQ(*bytes, 'd');
  EXPECT_EQ(support::EnumerateFrom(adict.get(), 2), (Strings{"c", "d"}));
  EXPECT_EQ(support::EnumerateFrom(adict.get(), 50), Strings{});
}

TEST_F(AttrDictDamage, EnumerationEndsWhereARecordLiesOutside) {
  pair_.Write(Word(0) + Word(1000) + Word(8) + Word(12), "\1a\1b\1c\1d\1e\1f\1g\1h");
  const OpenAttrDict adict = pair_.Open();
  ASSERT_NE(adict, nullptr);
  EXPECT_EQ(support::EnumerateFrom(adict.get(), 1), (Strings{"b", "c", "d"}));  // 4 to 7 are outside
  EXPECT_EQ(support::EnumerateFrom(adict.get(), 5), Strings{});
  EXPECT_EQ(support::EnumerateFrom(adict.get(), 9), (Strings{"f", "g", "h"}));
}

TEST_F(AttrDictDamage, ManyMoreIdentifiersThanTheIndexHasCostNothing) {
  pair_.Write(Word(0) + Word(0xFFFFFFFF), std::string(2000, '\0'));
  const OpenAttrDict adict = pair_.Open();
  ASSERT_NE(adict, nullptr);
  EXPECT_EQ(AttrDictSize(adict.get()), 0xFFFFFFFFu);
  EXPECT_EQ(support::EnumerateFrom(adict.get(), 0), Strings(4, ""));
}

TEST_F(AttrDictDamage, AnIndexWithoutDataHasNoStrings) {
  pair_.Write(Word(0) + Word(4), "");
  const OpenAttrDict adict = pair_.Open();
  ASSERT_NE(adict, nullptr);
  EXPECT_EQ(adict->a_dat, nullptr);
  EXPECT_EQ(AttrDictSize(adict.get()), 4u);
  const UByte mark = 0;
  const UByte* bytes = &mark;
  EXPECT_EQ(AttrDictGet(adict.get(), 0, &bytes), 0u);
  EXPECT_EQ(bytes, &mark);
  EXPECT_EQ(support::EnumerateFrom(adict.get(), 0), Strings{});
  EXPECT_EQ(support::EnumerateFrom(adict.get(), 9), Strings{});
}

TEST_F(AttrDictDamage, FilesCutAtAnyByte) {
  const std::string idx = Golden("attrdict-five.idx");
  const std::string dat = Golden("attrdict-five.dat");
  for (size_t i = 0; i <= idx.size(); i++) {
    for (size_t d = 0; d <= dat.size(); d++) {
      ASSERT_EQ(Compare(pair_, idx.substr(0, i), dat.substr(0, d)), "") << i << " " << d;
    }
  }
}

TEST_F(AttrDictDamage, AnyByteChanged) {
  const std::string idx = Golden("attrdict-eleven.idx");
  const std::string dat = Golden("attrdict-eleven.dat");
  for (size_t at = 0; at < idx.size() + dat.size(); at++) {
    std::string changed_idx = idx;
    std::string changed_dat = dat;
    char& byte = at < idx.size() ? changed_idx[at] : changed_dat[at - idx.size()];
    const char good = byte;
    for (const int bad : {0, 1, 0x7F, 0x80, 0xFF, good ^ 1, good + 1, good - 1}) {
      byte = static_cast<char>(bad);
      ASSERT_EQ(Compare(pair_, changed_idx, changed_dat), "") << at << " " << bad;
    }
  }
}

// The last kilobyte is read with more care than the rest: cuts that move all records across that border.
TEST_F(AttrDictDamage, LongDataCutAtAnyByte) {
  const std::string idx = Golden("attrdict-many.idx");
  const std::string dat = Golden("attrdict-many.dat");
  for (size_t size = 0; size <= dat.size(); size += size + 1300 < dat.size() ? 61u : 1u) {
    ASSERT_EQ(Compare(pair_, idx, dat.substr(0, size)), "") << size;
  }
}

TEST_F(AttrDictDamage, OffsetsAroundTheEndOfTheData) {
  std::string dat;
  while (dat.size() < 4000) dat += static_cast<char>(255u - dat.size() % 3);
  for (const char last : {'\0', '\1', '\xff'}) {
    dat.back() = last;
    for (uint32_t offset = 2900; offset < 4002; offset++) {
      ASSERT_EQ(Compare(pair_, Word(offset) + Word(4), dat), "") << offset;
    }
  }
  dat.assign(2000, '\xff');  // the longest records: four of them take 1024 bytes
  for (uint32_t offset = 900; offset < 1000; offset++) {
    ASSERT_EQ(Compare(pair_, Word(offset) + Word(4), dat), "") << offset;
  }
  for (const uint32_t offset : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFC00u, 0xFFFFFFFFu}) {
    ASSERT_EQ(Compare(pair_, Word(offset) + Word(4), dat), "") << offset;
  }
}

TEST_F(AttrDictDamage, FilesThatDoNotBelongTogether) {
  const Strings names = {"attrdict-empty",  "attrdict-four",    "attrdict-five",
                         "attrdict-eleven", "attrdict-swapped", "attrdict-many"};
  for (const std::string& idx : names) {
    for (const std::string& dat : names) {
      ASSERT_EQ(Compare(pair_, Golden((idx + ".idx").c_str()), Golden((dat + ".dat").c_str())), "") << idx << dat;
      ASSERT_EQ(Compare(pair_, Golden((dat + ".dat").c_str()), Golden((idx + ".idx").c_str())), "") << idx << dat;
    }
  }
}

TEST_F(AttrDictDamage, AnyBytesAtAll) {
  EXPECT_TRUE(rc::check([this] {
    const auto byte = rc::gen::oneOf(rc::gen::inRange<int>(0, 4), rc::gen::inRange<int>(0, 256));
    const auto word = rc::gen::oneOf(rc::gen::inRange<uint32_t>(0, 40), rc::gen::arbitrary<uint32_t>());
    std::string idx, dat;
    for (const uint32_t w : *rc::gen::container<std::vector<uint32_t>>(word)) idx += Word(w);
    for (const int b : *rc::gen::container<std::vector<int>>(byte)) dat += static_cast<char>(b);
    idx.resize(idx.size() - std::min(idx.size(), *rc::gen::inRange<size_t>(0, 4)));
    RC_ASSERT(Compare(pair_, idx, dat) == "");
  }));
}

}  // namespace
