// Primes, against sieves.

#include "qxlib/prime.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "support/death.h"

namespace {

// composite[i]: whether begin + i is a composite number, or below 2. The sieve of Eratosthenes over one segment.
std::vector<bool> Sieve(uint64_t begin, uint64_t end) {
  std::vector<bool> composite(end - begin);
  for (uint64_t n = begin; n < 2; n++) composite[n - begin] = true;
  for (uint64_t divisor = 2; divisor * divisor < end; divisor++) {
    uint64_t multiple = (begin + divisor - 1) / divisor * divisor;
    if (multiple < divisor * divisor) multiple = divisor * divisor;
    for (; multiple < end; multiple += divisor) composite[multiple - begin] = true;
  }
  return composite;
}

// Every answer for begin <= n, up to the last prime before end.
void ExpectSieved(uint64_t begin, uint64_t end) {
  const std::vector<bool> composite = Sieve(begin, end);
  uint64_t next = 0;
  for (uint64_t n = end; n-- > begin;) {
    if (!composite[n - begin]) next = n;
    if (next == 0) continue;
    ASSERT_EQ(Prime(static_cast<UInt>(n)), next) << n;
  }
}

TEST(Prime, TheSmallestOnes) {
  EXPECT_EQ(Prime(0), 2u);
  EXPECT_EQ(Prime(1), 2u);
  EXPECT_EQ(Prime(2), 2u);
  EXPECT_EQ(Prime(3), 3u);
  EXPECT_EQ(Prime(4), 5u);
  EXPECT_EQ(Prime(7), 7u);
  EXPECT_EQ(Prime(8), 11u);
  EXPECT_EQ(Prime(61), 61u);
  EXPECT_EQ(Prime(62), 67u);
}

TEST(Prime, AgreesWithASieveFromZero) { ExpectSieved(0, 200000); }

TEST(Prime, AgreesWithASieveAroundSixteenBits) { ExpectSieved(65536u * 65535u - 10000, 65536u * 65535u + 10000); }

TEST(Prime, AgreesWithASieveAroundThirtyOneBits) { ExpectSieved(2147473648u, 2147493648u); }

TEST(Prime, AgreesWithASieveUpToTheGreatest) { ExpectSieved(4294957296u, 4294967292u); }

TEST(Prime, IsNotDeceivedByStrongPseudoprimes) {
  EXPECT_EQ(Prime(2047), 2053u);              // to base 2
  EXPECT_EQ(Prime(1373653), 1373677u);        // to 2 and 3
  EXPECT_EQ(Prime(25326001), 25326023u);      // to 2, 3 and 5
  EXPECT_EQ(Prime(3215031751), 3215031767u);  // to 2, 3, 5 and 7
  EXPECT_EQ(Prime(314821), 314827u);          // to 2 and 7
  EXPECT_EQ(Prime(916327), 916337u);          // to 2 and 61
  EXPECT_EQ(Prime(79381), 79393u);            // to 7 and 61
  EXPECT_EQ(Prime(561), 563u);                // a Carmichael number
  EXPECT_EQ(Prime(4294836225), 4294836241u);  // 65535 squared
}

TEST(Prime, TheGreatestOfThirtyTwoBits) { EXPECT_EQ(Prime(4294967291), 4294967291u); }

TEST(PrimeDeathTest, AboveTheGreatestThereIsNone) {
  EXPECT_CLEAR_END(Prime(4294967292), "Prime: no prime of 32 bits is above 4294967291: 4294967292\n");
  EXPECT_CLEAR_END(Prime(UINT32_MAX), "no prime of 32 bits is above 4294967291: 4294967295\n");
}

}  // namespace
