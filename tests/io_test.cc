// The little-endian codecs of util/io.h and util/io2.h.

#include "util/io.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "support/death.h"
#include "util/io2.h"

namespace {

using Buffer = std::array<UByte, 16>;

std::vector<UByte> RefBytes(UInt value) {
  Buffer buffer{};
  UByte* at = buffer.data();
  IO2_MemRefWrite4(&at, value);
  return {buffer.data(), at};
}

// Reads a Ref form from exactly these bytes and tells the value and the bytes taken.
std::pair<UInt, size_t> RefRead(const std::vector<UByte>& bytes) {
  const std::vector<UByte> exact(bytes);
  const UByte* at = exact.data();
  const UInt value = IO2_MemRefReadChecked4(&at);
  return {value, static_cast<size_t>(at - exact.data())};
}

using Bytes = std::vector<UByte>;

TEST(Io, NumbersLieLeastSignificantByteFirst) {
  Buffer b{};
  IO_MemPutLE8(b.data() + 1, 0x8877665544332211);  // at an odd address
  EXPECT_EQ(b, (Buffer{0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}));
  EXPECT_EQ(IO_MemGetLE1(b.data() + 8), 0x88u);
  EXPECT_EQ(IO_MemGetLE2(b.data() + 7), 0x8877u);
  EXPECT_EQ(IO_MemGetLE3(b.data() + 6), 0x887766u);
  EXPECT_EQ(IO_MemGetLE4(b.data() + 5), 0x88776655u);
  EXPECT_EQ(IO_MemGetLE8(b.data() + 1), 0x8877665544332211u);
}

TEST(Io, ShortWritesDropTheUpperBytes) {
  Buffer b{};
  IO_MemPutLE1(b.data(), 0x0102AA);
  IO_MemPutLE2(b.data() + 2, 0xFF02BBCC);
  IO_MemPutLE3(b.data() + 5, 0xFFDDEEFF);
  IO_MemPutLE4(b.data() + 9, 0xA1B2C3D4);
  EXPECT_EQ(b, (Buffer{0xAA, 0, 0xCC, 0xBB, 0, 0xFF, 0xEE, 0xDD, 0, 0xD4, 0xC3, 0xB2, 0xA1}));
}

TEST(Io2, FixedWidthsMoveByTheirWidth) {
  Buffer b{};
  UByte* to = b.data();
  IO2_MemWriteLE1(&to, 0x01);
  IO2_MemWriteLE2(&to, 0x0203);
  IO2_MemWriteLE3(&to, 0x040506);
  IO2_MemWriteLE4(&to, 0x0708090A);
  EXPECT_EQ(to, b.data() + 10);
  EXPECT_EQ(b, (Buffer{1, 3, 2, 6, 5, 4, 0x0A, 9, 8, 7}));

  const UByte* from = b.data();
  EXPECT_EQ(IO2_MemReadLE1(&from), 0x01u);
  EXPECT_EQ(IO2_MemReadLE2(&from), 0x0203u);
  EXPECT_EQ(IO2_MemReadLE3(&from), 0x040506u);
  EXPECT_EQ(IO2_MemReadLE4(&from), 0x0708090Au);
  EXPECT_EQ(from, b.data() + 10);
}

TEST(Io2, PaddedWidthsTakeAndPutExactlyTheirBytes) {
  const UByte bytes[] = {0x44, 0x33, 0x22, 0x11};
  const UInt expected[] = {0, 0x44, 0x3344, 0x223344, 0x11223344};
  for (UInt width = 0; width <= 4; width++) {
    const UByte* from = bytes;
    EXPECT_EQ(IO2_MemReadPaddedLE4(&from, width), expected[width]);
    EXPECT_EQ(from, bytes + width);

    Buffer b;
    b.fill(0xEE);
    UByte* to = b.data();
    IO2_MemWritePaddedLE4(&to, 0x11223344, width);
    EXPECT_EQ(to, b.data() + width);
    for (UInt i = 0; i < width; i++) EXPECT_EQ(b[i], bytes[i]);
    EXPECT_EQ(b[width], 0xEE);
  }
}

TEST(Io2DeathTest, PaddedWidthsAboveFourAreAsserted) {
  Buffer b{};
  EXPECT_ASSERTION(
      {
        const UByte* from = b.data();
        IO2_MemReadPaddedLE4(&from, 5);
      },
      "util/io2", "IO2_MemReadPaddedLE4", "size <= 4");
  EXPECT_ASSERTION(
      {
        UByte* to = b.data();
        IO2_MemWritePaddedLE4(&to, 1, 255);
      },
      "util/io2", "IO2_MemWritePaddedLE4", "size <= 4");
}

TEST(Io2, RefFormIsTheShortestOne) {
  EXPECT_EQ(RefBytes(0), (Bytes{0x00}));
  EXPECT_EQ(RefBytes(1), (Bytes{0x02}));
  EXPECT_EQ(RefBytes(127), (Bytes{0xFE}));
  EXPECT_EQ(RefBytes(128), (Bytes{0x01, 0x02}));
  EXPECT_EQ(RefBytes(300), (Bytes{0x59, 0x04}));
  EXPECT_EQ(RefBytes(16383), (Bytes{0xFF, 0xFE}));
  EXPECT_EQ(RefBytes(16384), (Bytes{0x01, 0x01, 0x02}));
  EXPECT_EQ(RefBytes(2097151), (Bytes{0xFF, 0xFF, 0xFE}));
  EXPECT_EQ(RefBytes(2097152), (Bytes{0x01, 0x01, 0x01, 0x02}));
  EXPECT_EQ(RefBytes(268435455), (Bytes{0xFF, 0xFF, 0xFF, 0xFE}));
  EXPECT_EQ(RefBytes(268435456), (Bytes{0x01, 0x01, 0x01, 0x01, 0x02}));
  EXPECT_EQ(RefBytes(0x12345678), (Bytes{0xF1, 0x59, 0xA3, 0x23, 0x02}));
  EXPECT_EQ(RefBytes(0xFFFFFFFF), (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0x1E}));
}

TEST(Io2, RefFormReadsBack) {
  for (UInt shift = 0; shift < 32; shift++) {
    for (const UInt value : {1u << shift, (1u << shift) - 1, 0xFFFFFFFFu >> shift}) {
      const Bytes bytes = RefBytes(value);
      EXPECT_EQ(RefRead(bytes), (std::pair<UInt, size_t>{value, bytes.size()})) << value;
    }
  }
}

TEST(Io2, RefFormNeedNotBeTheShortestToBeRead) {
  EXPECT_EQ(RefRead({0x0B, 0x00}), (std::pair<UInt, size_t>{5, 2}));
  EXPECT_EQ(RefRead({0x01, 0x01, 0x01, 0x01, 0x00}), (std::pair<UInt, size_t>{0, 5}));
}

TEST(Io2, RefFormDropsBitsAboveThe32nd) {
  EXPECT_EQ(RefRead({0x01, 0x01, 0x01, 0x01, 0xFE}), (std::pair<UInt, size_t>{0xF0000000, 5}));
}

TEST(Io2, RefFormOfMoreThanFiveBytesIsMalformedAndTakesNothing) {
  EXPECT_EQ(RefRead({0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), (std::pair<UInt, size_t>{0, 0}));
  EXPECT_EQ(RefRead({0x01, 0x01, 0x01, 0x01, 0x01, 0x02}), (std::pair<UInt, size_t>{0, 0}));
}

}  // namespace
