// HashBytesKeyed: the published values, keys that count, and the flood that it stops.

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "dict/hashtable.h"
#include "dict/siphash.h"
#include "support/keys.h"

namespace {

std::vector<UByte> Counting(size_t count) {
  std::vector<UByte> bytes(count);
  for (size_t i = 0; i < count; i++) bytes[i] = static_cast<UByte>(i);
  return bytes;
}

const siphash::Key kCountingKey = siphash::ReadKey(Counting(16).data());

TEST(SipHash, GivesThePublishedValueOfTwoAndFourRounds) {
  // Aumasson, Bernstein: SipHash, a fast short-input PRF, appendix A.
  EXPECT_EQ((siphash::Hash<2, 4>(kCountingKey, Counting(15).data(), 15)), 0xA129CA6149BE45E5u);
  // And the first and last of the authors' list for messages of 0 to 63 bytes.
  EXPECT_EQ((siphash::Hash<2, 4>(kCountingKey, nullptr, 0)), 0x726FDB47DD0E0E31u);
  EXPECT_EQ((siphash::Hash<2, 4>(kCountingKey, Counting(63).data(), 63)), 0x958A324CEB064572u);
}

TEST(SipHash, GivesThePublishedValueOfOneAndThreeRounds) {
  EXPECT_EQ((siphash::Hash<1, 3>(kCountingKey, nullptr, 0)), 0xABAC0158050FC4DCu);
}

// CPython 3.11 hashes bytes with SipHash-1-3; with PYTHONHASHSEED=0 under the key 0, with 1 under the key below.
TEST(SipHash, GivesWhatAnotherImplementationGives) {
  const struct {
    UInt length;
    ULong under_zero, under_one;
  } values[] = {
      {1, 0x68A914128E01E473, 0xECD3E5AFCECDA4B9},  {2, 0x010BAC45C41E3669, 0xBF360F1EA1745965},
      {7, 0x2F098AB0C751325A, 0xFD15E78052A69DDF},  {8, 0xEAD411E67EBE2EEA, 0xC0B5739E7E28DD01},
      {9, 0x75927F9D95124362, 0x208A1A5A0CBBF778},  {15, 0xF30EB725BB91C9EA, 0xFA87985F39E97A53},
      {16, 0x8972188433A5C5B7, 0x12E9D283F9F37002}, {63, 0x385D3E39E5F37359, 0x542052345BC68274},
  };
  UByte zero[16] = {};
  UByte one[16] = {0x29, 0x23, 0xBE, 0x84, 0xE1, 0x6C, 0xD6, 0xAE, 0x52, 0x90, 0x49, 0xF1, 0xF1, 0xBB, 0xE9, 0xEB};
  for (const auto& value : values) {
    const std::vector<UByte> bytes = Counting(value.length);
    EXPECT_EQ((siphash::Hash<1, 3>(siphash::ReadKey(zero), bytes.data(), value.length)), value.under_zero);
    EXPECT_EQ((siphash::Hash<1, 3>(siphash::ReadKey(one), bytes.data(), value.length)), value.under_one);
    EXPECT_EQ(HashBytesKeyed(bytes.data(), value.length, zero), static_cast<UInt>(value.under_zero));
    EXPECT_EQ(HashBytesKeyed(bytes.data(), value.length, one), static_cast<UInt>(value.under_one));
  }
}

TEST(HashBytesKeyed, TakesItsKeyFromThePointer) {
  const std::vector<UByte> bytes = Counting(20);
  std::vector<UByte> key = Counting(16);
  EXPECT_EQ(HashBytesKeyed(nullptr, 0, key.data()), 0x050FC4DCu);
  std::set<UInt> seen = {HashBytesKeyed(bytes.data(), 20, key.data())};
  for (size_t at = 0; at < 16; at++) {
    key[at] ^= 1;
    EXPECT_TRUE(seen.insert(HashBytesKeyed(bytes.data(), 20, key.data())).second) << at;
    key[at] ^= 1;
  }
}

std::string HashInAnotherProcess() {
  std::string text;
  int ends[2];
  if (pipe(ends) != 0) return text;
  if (const pid_t child = fork(); child == 0) {
    const UInt hash = HashBytesKeyed(nullptr, 0, nullptr);
    const ssize_t written = write(ends[1], &hash, sizeof hash);
    _exit(written == sizeof hash ? 0 : 1);
  }
  close(ends[1]);
  UInt hash = 0;
  if (read(ends[0], &hash, sizeof hash) == sizeof hash) text = std::to_string(hash);
  close(ends[0]);
  return text;
}

TEST(HashBytesKeyed, HasARandomKeyInEveryProcess) {
  // Before this process has one of its own, which a fork would hand on.
  std::set<std::string> hashes;
  for (int i = 0; i < 4; i++) hashes.insert(HashInAnotherProcess());
  EXPECT_GE(hashes.size(), 3u);
  EXPECT_FALSE(hashes.contains(""));
  EXPECT_EQ(HashBytesKeyed(nullptr, 0, nullptr), HashBytesKeyed(nullptr, 0, nullptr));
}

// Keys that differ in zero bytes at their end are one to HashBytes: each insertion looks at all that came before.
TEST(HashBytesKeyed, StopsAFloodOfKeysThatHashAlike) {
  constexpr UInt kKeys = 2000;
  const std::string zeros = "a" + std::string(kKeys, '\0');
  const auto probes = [&](HashKeyFunction hash) {
    HashTable* table = HashTableNew(kKeys, hash, nullptr, nullptr, 0, 0, FALSE);
    for (UInt len = 1; len <= kKeys; len++) {
      HashTableFind(table, support::Bytes(zeros), len, TRUE, nullptr, nullptr);
    }
    HashTableStatistics stats;
    HashTableStats(table, &stats, nullptr);
    EXPECT_EQ(stats.s_keys, kKeys);
    HashTableFree(table);
    return stats.s_mean_probe;
  };
  EXPECT_EQ(probes(nullptr), 1000.5);
  EXPECT_LT(probes(HashBytesKeyed), 4.0);
}

}  // namespace
