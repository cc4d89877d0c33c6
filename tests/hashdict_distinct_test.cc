// Finding two equal keys in a set.

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <map>
#include <string>
#include <vector>

#include "dict/hashdict.h"
#include "support/death.h"
#include "support/hashdict_keys.h"
#include "support/ledger.h"

namespace {

FPrint only_print = 0;  // every fingerprint, when not 0

}  // namespace

// Stands in front of the base library's, so that a test can make every fingerprint the same.
extern "C" FPrint Fingerprint(const UByte* bytes, UInt length) {
  if (only_print != 0) return only_print;
  FPrint print = 14695981039346656037u;
  for (UInt i = 0; i < length; i++) print = (print ^ bytes[i]) * 1099511628211u;
  print ^= print >> 32;
  return print * 0x9E3779B97F4A7C15u;
}

namespace {

using support::KeySet;

constexpr Id kUntouched = 0xABCDABCD;

struct Pair {
  Id first = kUntouched, second = kUntouched;
  bool operator==(const Pair&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Pair& pair) { return out << pair.first << " and " << pair.second; }

const Pair kNone;

// The pair that is found; kNone when the keys are distinct.
Pair EqualPair(KeySet* set) {
  Pair pair;
  const auto n = static_cast<Id>(set->keys.size());
  const Boolean distinct = HashDictKeysDistinct(n, set, KeySet::Key, &pair.first, &pair.second);
  EXPECT_EQ(distinct, pair == kNone ? TRUE : FALSE);
  return pair;
}

Pair EqualPair(std::vector<std::string> keys) {
  KeySet set{std::move(keys), {}, {}};
  return EqualPair(&set);
}

std::vector<std::string> Distinct(size_t n) {
  std::vector<std::string> keys;
  for (size_t i = 0; i < n; i++) keys.push_back("key " + std::to_string(i * i));
  return keys;
}

TEST(HashDictKeysDistinct, NoKeysAndOneKeyAreDistinct) {
  EXPECT_EQ(EqualPair(std::vector<std::string>{}), kNone);
  EXPECT_EQ(EqualPair({"a"}), kNone);
  EXPECT_EQ(EqualPair({""}), kNone);
}

TEST(HashDictKeysDistinct, DistinctKeysAre) {
  EXPECT_EQ(EqualPair(support::NumberWords()), kNone);
  for (const size_t n : {15u, 16u, 17u, 31u, 32u, 33u, 1000u, 100000u}) EXPECT_EQ(EqualPair(Distinct(n)), kNone) << n;
}

TEST(HashDictKeysDistinct, KeysThatBeginAlikeAreDistinct) {
  EXPECT_EQ(EqualPair({"a", "aa", "aaa", "", std::string("a\0", 2), std::string("a\0\0", 3)}), kNone);
}

TEST(HashDictKeysDistinct, NamesBothKeys) {
  EXPECT_EQ(EqualPair({"a", "b", "a"}), (Pair{0, 2}));
  EXPECT_EQ(EqualPair({"a", "", "b", ""}), (Pair{1, 3}));
  EXPECT_EQ(EqualPair({"a", "a"}), (Pair{0, 1}));
}

TEST(HashDictKeysDistinct, OfManyEqualKeysTheFirstThatRepeatsAndTheOneItRepeats) {
  EXPECT_EQ(EqualPair({"a", "b", "c", "b", "a", "b", "c"}), (Pair{1, 3}));
  EXPECT_EQ(EqualPair({"x", "x", "x"}), (Pair{0, 1}));
}

TEST(HashDictKeysDistinct, HoweverFarApartTheyAre) {
  for (const Id n : {40u, 1000u}) {
    for (const Id distance : {1u, 2u, 14u, 15u, 16u, 17u, 18u, 31u, 32u, 33u, 38u}) {
      for (const Id first : {0u, 1u, n - 1 - distance}) {
        std::vector<std::string> keys = Distinct(n);
        keys[first + distance] = keys[first];
        EXPECT_EQ(EqualPair(keys), (Pair{first, first + distance}));
      }
    }
  }
}

TEST(HashDictKeysDistinct, TheNumbersNeedNotBeAskedFor) {
  KeySet set{{"a", "b", "a"}, {}, {}};
  Id first = 7, second = 7;
  EXPECT_FALSE(HashDictKeysDistinct(3, &set, KeySet::Key, nullptr, nullptr));
  EXPECT_FALSE(HashDictKeysDistinct(3, &set, KeySet::Key, &first, nullptr));
  EXPECT_EQ(first, 0u);
  EXPECT_FALSE(HashDictKeysDistinct(3, &set, KeySet::Key, nullptr, &second));
  EXPECT_EQ(second, 2u);
}

TEST(HashDictKeysDistinct, KeysAreComparedNotOnlyTheirFingerprints) {
  // In the middle, at the first place, and from the last place round to the first.
  for (const FPrint print : {0x123456789ABCDEF0ul, 1ul, ~0ul}) {
    only_print = print;
    EXPECT_EQ(EqualPair(Distinct(50)), kNone);
    EXPECT_EQ(EqualPair({"a", "b", "c", "ab", "", "b"}), (Pair{1, 5}));
    EXPECT_EQ(EqualPair({std::string(65535, 'x') + "", std::string(65534, 'x') + "y", std::string(65535, 'x')}),
              (Pair{0, 2}));
  }
  only_print = 0;
}

TEST(HashDictKeysDistinct, EachKeyIsAskedForOnceInOrderAndTwoAgainWhenTheyLookEqual) {
  KeySet set{{"a", "b", "a"}, {}, {}};
  EXPECT_EQ(EqualPair(&set), (Pair{0, 2}));
  EXPECT_EQ(set.calls, (std::vector<ULong>{0, 1, 2, 0, 2}));
  KeySet distinct{Distinct(40), {}, {}};
  EXPECT_EQ(EqualPair(&distinct), kNone);
  ASSERT_EQ(distinct.calls.size(), 40u);
  for (ULong i = 0; i < 40; i++) EXPECT_EQ(distinct.calls[i], i);
}

// Gives each key in the same few bytes.
struct OneBuffer {
  std::vector<std::string> keys;
  std::string buffer;

  static UShort Key(void* set, Id idx, const UByte** bytes) {
    auto* self = static_cast<OneBuffer*>(set);
    self->buffer = self->keys[idx];
    *bytes = support::Bytes(self->buffer);
    return static_cast<UShort>(self->buffer.size());
  }
};

TEST(HashDictKeysDistinct, AKeyNeedStayOnlyUntilTheNextCall) {
  OneBuffer set{{"aa", "bb", "cc", "bb"}, {}};
  Pair pair;
  EXPECT_FALSE(HashDictKeysDistinct(4, &set, OneBuffer::Key, &pair.first, &pair.second));
  EXPECT_EQ(pair, (Pair{1, 3}));
}

TEST(HashDictKeysDistinct, ReleasesEverything) {
  support::Ledger ledger;
  EXPECT_EQ(EqualPair({"a", "b"}), kNone);
  EXPECT_EQ(EqualPair({"a", "b", "a"}), (Pair{0, 2}));
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST(HashDictKeysDistinct, AgreesWithAMap) {
  EXPECT_TRUE(rc::check([](const std::vector<std::string>& some) {
    // Few different keys, so that equal ones are frequent.
    std::vector<std::string> keys;
    for (const std::string& key : some) keys.push_back(key.substr(0, 2));
    std::map<std::string, Id> seen;
    Pair expected;
    for (Id i = 0; i < keys.size(); i++) {
      const auto [at, added] = seen.emplace(keys[i], i);
      if (added) continue;
      expected = {at->second, i};
      break;
    }
    RC_ASSERT(EqualPair(keys) == expected);
  }));
}

UShort NoKey(void*, Id, const UByte** bytes) {
  *bytes = nullptr;
  return 0;
}

TEST(HashDictKeysDistinctDeathTest, EveryKeyHasBytes) {
  EXPECT_ASSERTION(HashDictKeysDistinct(1, nullptr, NoKey, nullptr, nullptr), "dict/hashdict", "HashDictKeysDistinct",
                   "bytes != ((void *)0)");
}

}  // namespace
