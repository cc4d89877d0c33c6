// What the check of an attribute dictionary calls sound: the pairs that can be written, and no others.

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "dict/attrdict.h"
#include "support/attr_pairs.h"
#include "support/files.h"

namespace {

using support::AttrPair;
using support::OpenAttrDict;
using support::PairInMemory;
using Strings = std::vector<std::string>;

// What the check says of a pair: "" when it is sound, else the reason.
std::string Check(const AttrDict* adict) {
  const char* reason = "untouched";
  const Boolean sound = AttrDictCheck(adict, &reason);
  EXPECT_EQ(sound, AttrDictCheck(adict, nullptr));
  EXPECT_EQ(sound, reason == nullptr ? TRUE : FALSE);
  return reason == nullptr ? "" : reason;
}

std::string Check(PairInMemory& pair, const std::string& idx, const std::string& dat) {
  pair.Write(idx, dat);
  return Check(pair.Open().get());
}

std::string Words(const std::vector<uint32_t>& words) {
  return {reinterpret_cast<const char*>(words.data()), words.size() * sizeof(uint32_t)};
}

std::string Golden(const std::string& name) { return support::ReadFile(support::GoldenPath(name)); }

TEST(AttrDictCheck, WhatIsCommittedIsSound) {
  PairInMemory pair;
  for (const char* name : {"empty", "four", "five", "eleven", "many"}) {
    const std::string stem = std::string("attrdict-") + name;
    EXPECT_EQ(Check(pair, Golden(stem + ".idx"), Golden(stem + ".dat")), "") << name;
  }
}

TEST(AttrDictCheck, OnlyAnOpenDictionaryIsSound) {
  EXPECT_EQ(Check(nullptr), "dictionary is not open for reading");
  const AttrPair pair;
  AttrDict* adict = AttrDictBuild(pair.dir(), pair.name(), FALSE);
  ASSERT_NE(adict, nullptr);
  EXPECT_EQ(Check(adict), "dictionary is not open for reading");
  EXPECT_EQ(AttrDictCommit(adict), TRUE);
}

TEST(AttrDictCheck, AnIndexHasWholeWords) {
  PairInMemory pair;
  EXPECT_EQ(Check(pair, "\1", "\1x"), "size of the index is no multiple of 4");
  EXPECT_EQ(Check(pair, Words({0}) + "?" + Words({2}), std::string("\1x\1y")), "size of the index is no multiple of 4");
}

TEST(AttrDictCheck, AnIndexHasAWordForEachGroupAndTheSize) {
  PairInMemory pair;
  const std::string four("\0\0\0\0", 4);
  EXPECT_EQ(Check(pair, Words({0, 4}), four), "");
  EXPECT_EQ(Check(pair, Words({0, 3}), four.substr(1)), "");
  EXPECT_EQ(Check(pair, Words({0, 1}), four.substr(3)), "");
  EXPECT_EQ(Check(pair, Words({0, 0}), ""), "size of the index is not its identifiers'");
  EXPECT_EQ(Check(pair, Words({0, 5}), four + '\0'), "size of the index is not its identifiers'");
  EXPECT_EQ(Check(pair, Words({4}), four), "size of the index is not its identifiers'");
  EXPECT_EQ(Check(pair, Words({0, 4, 4}), four), "size of the index is not its identifiers'");
  EXPECT_EQ(Check(pair, Words({0, 0xFFFFFFFF}), four), "size of the index is not its identifiers'");
  EXPECT_EQ(Check(pair, Words({0xFFFFFFFF}), ""), "size of the index is not its identifiers'");
}

TEST(AttrDictCheck, AnIndexOfTheOtherByteOrderIsToldByName) {
  const AttrPair pair;
  ASSERT_TRUE(pair.Build({"one", "two", "three", "four", "five"}, TRUE));
  EXPECT_EQ(Check(pair.Open().get()), "index is in the other byte order");
}

TEST(AttrDictCheck, EveryOffsetIsItsRecords) {
  PairInMemory pair;
  const std::string five = std::string("\1a\0\0\2bc\1d", 9);
  EXPECT_EQ(Check(pair, Words({0, 7, 5}), five), "");
  for (const uint32_t offset : {0u, 6u, 8u, 9u, 0xFFFFFFFFu}) {
    EXPECT_EQ(Check(pair, Words({0, offset, 5}), five), "offset is not where its record starts") << offset;
  }
  EXPECT_EQ(Check(pair, Words({2, 7, 5}), five), "offset is not where its record starts");
}

TEST(AttrDictCheck, EveryRecordIsInsideTheData) {
  PairInMemory pair;
  EXPECT_EQ(Check(pair, Words({0, 2}), std::string("\1a\1b")), "");
  EXPECT_EQ(Check(pair, Words({0, 2}), std::string("\1a\1")), "record is not inside the data");
  EXPECT_EQ(Check(pair, Words({0, 2}), std::string("\1a")), "record is not inside the data");
  EXPECT_EQ(Check(pair, Words({0, 2}), ""), "record is not inside the data");
  EXPECT_EQ(Check(pair, Words({0, 1}), std::string("\xff") + std::string(254, 'x')), "record is not inside the data");
}

TEST(AttrDictCheck, NothingFollowsTheLastRecord) {
  PairInMemory pair;
  EXPECT_EQ(Check(pair, Words({0, 2}), std::string("\1a\1b\0", 5)), "data go on behind the last record");
  EXPECT_EQ(Check(pair, Words({0}), "x"), "data go on behind the last record");
}

// A length byte decides where the next record starts: none can change unseen. Bytes of strings may.
TEST(AttrDictCheck, NoByteOfIndexOrLengthsChangesUnseen) {
  PairInMemory pair;
  const std::string idx = Golden("attrdict-eleven.idx");
  const std::string dat = Golden("attrdict-eleven.dat");
  std::vector<bool> is_length(dat.size());
  for (size_t at = 0; at < dat.size(); at += static_cast<uint8_t>(dat[at]) + size_t{1}) is_length[at] = true;
  for (size_t at = 0; at < idx.size() + dat.size(); at++) {
    for (const int change : {1, 0x80, 0xFF}) {
      std::string changed_idx = idx, changed_dat = dat;
      char& byte = at < idx.size() ? changed_idx[at] : changed_dat[at - idx.size()];
      byte = static_cast<char>(byte ^ change);
      const bool seen = at < idx.size() || is_length[at - idx.size()];
      ASSERT_EQ(Check(pair, changed_idx, changed_dat) != "", seen) << at << " " << change;
    }
  }
}

TEST(AttrDictCheck, NoCutIsUnseen) {
  PairInMemory pair;
  const std::string idx = Golden("attrdict-eleven.idx");
  const std::string dat = Golden("attrdict-eleven.dat");
  for (size_t size = 1; size < idx.size(); size++) ASSERT_NE(Check(pair, idx.substr(0, size), dat), "") << size;
  for (size_t size = 0; size < dat.size(); size++) ASSERT_NE(Check(pair, idx, dat.substr(0, size)), "") << size;
}

// The strings that a pair of exactly these bytes would have been written for, by the rules of the format.
std::optional<Strings> Parse(const std::string& idx, const std::string& dat) {
  Strings strings;
  std::vector<uint32_t> words;
  for (size_t at = 0; at < dat.size();) {
    if (strings.size() % 4 == 0) words.push_back(static_cast<uint32_t>(at));
    const size_t length = static_cast<uint8_t>(dat[at]);
    if (length >= dat.size() - at) return std::nullopt;
    strings.push_back(dat.substr(at + 1, length));
    at += length + 1;
  }
  words.push_back(static_cast<uint32_t>(strings.size()));
  return idx == Words(words) ? std::optional(strings) : std::nullopt;
}

RC_GTEST_PROP(AttrDictCheckProperty, AgreesWithTheFormat, ()) {
  const auto short_string = rc::gen::container<std::string>(rc::gen::inRange('\0', '\4'));
  const auto strings = *rc::gen::container<Strings>(short_string);
  std::string idx, dat;
  {
    const AttrPair built;
    RC_ASSERT(built.Build(strings));
    idx = built.idx();
    dat = built.dat();
  }
  const bool whole = *rc::gen::inRange(0, 4) == 0;
  if (!whole) {
    std::string& changed = *rc::gen::inRange(0, 2) == 0 || dat.empty() ? idx : dat;
    changed[*rc::gen::inRange<size_t>(0, changed.size())] = static_cast<char>(*rc::gen::inRange(0, 6));
  }
  const auto parsed = Parse(idx, dat);
  RC_ASSERT(!whole || parsed == strings);
  PairInMemory pair;
  pair.Write(idx, dat);
  const OpenAttrDict adict = pair.Open();
  RC_ASSERT((AttrDictCheck(adict.get(), nullptr) == TRUE) == parsed.has_value());
  if (parsed) RC_ASSERT(support::GetAll(adict.get()) == *parsed);
}

}  // namespace
