// Opening, looking up in and closing perfect-hash dictionaries. The images come from tests/golden, made by a model of
// their own, so that nothing here depends on the builder and the writer.

#include "dict/hashdict.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/assertion_trap.h"
#include "support/death.h"
#include "support/files.h"
#include "support/guarded.h"
#include "support/hashdict_keys.h"
#include "support/hashdict_model.h"
#include "support/ledger.h"

namespace {

using support::Find;
using support::Guarded;
using support::Ledger;
using support::NumberWords;
using support::Peek;
using support::Poke;

constexpr const char* kModule = "dict/hashdict";
constexpr Id kNotFound = 0xFFFFFFFE;

// Offsets of the header's fields.
constexpr size_t kEntries = 0, kSize = 4, kMaxLength = 8, kBits = 10, kChars = 12, kProbe = 14, kRankSize = 16;
constexpr size_t kCoefSize = 24, kFunSize = 32, kProbeSize = 40, kHeader = 48;

std::string Golden(const std::string& name) { return support::ReadFile(support::GoldenPath(name)); }

// An image opened where it lies, which must be as exactly there as it says.
class Opened {
 public:
  explicit Opened(const std::string& image) : image_(image) {
    opened_ = HashDictMemOpen_(&hdict_, image_.data(), image_.size(), TRUE) != FALSE;
  }
  bool opened() const { return opened_; }
  HashDict* get() { return &hdict_; }
  const HashDict* get() const { return &hdict_; }
  UByte* data() const { return image_.data(); }
  Id Find(const std::string& key) const { return support::Find(&hdict_, key); }

 private:
  Guarded image_;
  HashDict hdict_;
  bool opened_;
};

void ExpectNumbers(const HashDict* hdict) {
  for (Id i = 0; i < 19; i++) EXPECT_EQ(Find(hdict, NumberWords()[i]), i) << NumberWords()[i];
}

struct ChannelClosed {
  void operator()(Channel* f) const { ChannelClose(f); }
};
using ChannelPtr = std::unique_ptr<Channel, ChannelClosed>;

ChannelPtr Reading(const std::string& path) {
  ChannelPtr f(ChannelNew(-1, -1));
  EXPECT_TRUE(ChannelOpenFile(f.get(), path.c_str(), "r"));
  return f;
}

std::string Record(const std::string& image) {
  std::string record(4, '\0');
  Poke<UInt>(&record, 0, static_cast<UInt>(image.size()));
  return record + image;
}

std::string MapRecord(const std::string& image) {
  std::string record(8, '\0');
  Poke<ULong>(&record, 0, image.size());
  return record + image;
}

class HashDictOpenTest : public ::testing::Test {
 protected:
  std::string Put(const std::string& name, const std::string& bytes) {
    support::WriteFile(directory_.file(name), bytes);
    return name;
  }
  const char* dir() const { return directory_.path().c_str(); }

  support::TemporaryDirectory directory_;
};

TEST_F(HashDictOpenTest, FindsEveryKeyOfAFile) {
  Put("numbers.dic", Golden("hashdict-plain.dic"));
  HashDict* hdict = HashDictOpen(dir(), "numbers", "dic");
  ASSERT_NE(hdict, nullptr);
  ExpectNumbers(hdict);
  EXPECT_FALSE(hdict->h_created);
  EXPECT_EQ(HashDictSize(hdict), 19u);
  EXPECT_EQ(HashDictMaxLength(hdict), 9u);
  EXPECT_EQ(HashDictFileSize(hdict), 2744u);
  EXPECT_EQ(hdict->h_file_size, 2744u);
  errno = 7;
  EXPECT_TRUE(HashDictClose(hdict));
  EXPECT_EQ(errno, 0);
}

TEST_F(HashDictOpenTest, TheSuffixIsDicWhenNoneIsGiven) {
  Put("numbers.dic", Golden("hashdict-plain.dic"));
  HashDict* hdict = HashDictOpen(dir(), "numbers", nullptr);
  ASSERT_NE(hdict, nullptr);
  ExpectNumbers(hdict);
  HashDictClose(hdict);
}

TEST_F(HashDictOpenTest, AnotherSuffixIsTaken) {
  Put("numbers.words", Golden("hashdict-plain.dic"));
  EXPECT_EQ(HashDictOpen(dir(), "numbers", nullptr), nullptr);
  HashDict* hdict = HashDictOpen(dir(), "numbers", "words");
  ASSERT_NE(hdict, nullptr);
  HashDictClose(hdict);
}

TEST_F(HashDictOpenTest, WithoutADirectoryTheNameIsThePath) {
  Put("numbers.dic", Golden("hashdict-plain.dic"));
  HashDict* hdict = HashDictOpen(nullptr, directory_.file("numbers").c_str(), nullptr);
  ASSERT_NE(hdict, nullptr);
  ExpectNumbers(hdict);
  HashDictClose(hdict);
}

TEST_F(HashDictOpenTest, BytesBehindTheImageDoNotMatter) {
  Put("numbers.dic", Golden("hashdict-plain.dic") + "and more");
  HashDict* hdict = HashDictOpen(dir(), "numbers", nullptr);
  ASSERT_NE(hdict, nullptr);
  ExpectNumbers(hdict);
  EXPECT_EQ(HashDictFileSize(hdict), 2744u);
  EXPECT_EQ(hdict->h_file_size, 2752u);
  HashDictClose(hdict);
}

TEST_F(HashDictOpenTest, AMissingFileGivesNoneAndItsErrno) {
  Ledger ledger;
  errno = 0;
  EXPECT_EQ(HashDictOpen(dir(), "numbers", nullptr), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(HashDictOpenTest, ADirectoryIsNoFile) {
  ASSERT_EQ(mkdir(directory_.file("numbers.dic").c_str(), 0777), 0);
  errno = 0;
  EXPECT_EQ(HashDictOpen(dir(), "numbers", nullptr), nullptr);
  EXPECT_NE(errno, 0);
}

TEST_F(HashDictOpenTest, AnEmptyFileGivesNone) {
  Put("numbers.dic", "");
  Ledger ledger;
  errno = 0;
  EXPECT_EQ(HashDictOpen(dir(), "numbers", nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(HashDictOpenTest, ANameWithoutRoomInAPathIsRefused) {
  const std::string longest(4091, 'x');  // with ".dic" and its zero: 4096
  errno = 0;
  EXPECT_EQ(HashDictOpen(dir(), (longest + "x").c_str(), nullptr), nullptr);
  EXPECT_EQ(errno, ENAMETOOLONG);
  errno = 0;
  EXPECT_EQ(HashDictOpen(nullptr, (longest + "x").c_str(), nullptr), nullptr);
  EXPECT_EQ(errno, ENAMETOOLONG);
  errno = 0;
  EXPECT_EQ(HashDictOpen(nullptr, longest.c_str(), nullptr), nullptr);
  EXPECT_EQ(errno, ENAMETOOLONG);  // the system's own answer
}

TEST_F(HashDictOpenTest, ARefusedImageStaysMappedAndItsHandleIsReleased) {
  Put("numbers.dic", Golden("hashdict-plain.dic").substr(0, 2743));
  Ledger ledger;
  errno = 0;
  EXPECT_EQ(HashDictOpen(dir(), "numbers", nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ledger.blocks(), 0u);
  EXPECT_EQ(ledger.mappings(), 1u);
  ledger.Release();
}

TEST_F(HashDictOpenTest, ClosingReleasesEverything) {
  Put("numbers.dic", Golden("hashdict-plain.dic"));
  Ledger ledger;
  HashDict* hdict = HashDictOpen(dir(), "numbers", nullptr);
  ASSERT_NE(hdict, nullptr);
  EXPECT_EQ(ledger.blocks(), 1u);
  EXPECT_EQ(ledger.mappings(), 1u);
  HashDictClose(hdict);
  EXPECT_EQ(ledger.blocks(), 0u);
  EXPECT_EQ(ledger.mappings(), 0u);
}

TEST_F(HashDictOpenTest, AFailedUnmapIsToldAndKeepsItsErrno) {
  Put("numbers.dic", Golden("hashdict-plain.dic"));
  Ledger ledger;
  HashDict* hdict = HashDictOpen(dir(), "numbers", nullptr);
  ASSERT_NE(hdict, nullptr);
  support::faults::FailFileUnmap(ENOMEM);
  EXPECT_FALSE(HashDictClose(hdict));
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(HashDictOpenTest, AFailedUnmapWithoutAnErrnoCountsAsDone) {
  Put("numbers.dic", Golden("hashdict-plain.dic"));
  HashDict* hdict = HashDictOpen(dir(), "numbers", nullptr);
  ASSERT_NE(hdict, nullptr);
  support::faults::FailFileUnmap(0);
  EXPECT_EQ(HashDictClose(hdict), TRUE);
}

using HashDictFileReadTest = HashDictOpenTest;

TEST_F(HashDictFileReadTest, ReadsRecordsOneAfterTheOther) {
  Put("records", Record(Golden("hashdict-plain.dic")) + Record(Golden("hashdict-probe3.dic")) + "!");
  const ChannelPtr f = Reading(directory_.file("records"));
  Ledger ledger;
  HashDict *first = nullptr, *second = nullptr;
  ASSERT_TRUE(HashDictFileRead(&first, f.get()));
  ASSERT_TRUE(HashDictFileRead(&second, f.get()));
  ExpectNumbers(first);
  ExpectNumbers(second);
  EXPECT_EQ(first->h_file_size, 2744u);
  EXPECT_EQ(ChannelReadByte_(f.get(), 0), '!');
  EXPECT_EQ(HashDictMemClose(first), TRUE);
  EXPECT_EQ(HashDictMemClose(second), TRUE);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(HashDictFileReadTest, TheLengthMayLieAcrossTwoFillsOfTheBuffer) {
  for (size_t before = QX_CHANNEL_BUFFER - 4; before <= QX_CHANNEL_BUFFER; before++) {
    Put("records", std::string(before, '-') + Record(Golden("hashdict-plain.dic")));
    const ChannelPtr f = Reading(directory_.file("records"));
    std::string skipped(before, '\0');
    ASSERT_EQ(ChannelReadBuf(f.get(), skipped.data(), before, 0), 0);
    HashDict* hdict = nullptr;
    ASSERT_TRUE(HashDictFileRead(&hdict, f.get())) << before;
    ExpectNumbers(hdict);
    HashDictMemClose(hdict);
  }
}

TEST_F(HashDictFileReadTest, ARecordCutAnywhereFailsAndLeavesNothing) {
  const std::string record = Record(Golden("hashdict-emptykey.dic"));
  Ledger ledger;
  for (size_t length = 0; length < record.size(); length++) {
    Put("record", record.substr(0, length));
    HashDict* hdict = reinterpret_cast<HashDict*>(&ledger);
    {
      const ChannelPtr f = Reading(directory_.file("record"));
      EXPECT_FALSE(HashDictFileRead(&hdict, f.get())) << length;
    }
    EXPECT_EQ(hdict, nullptr);
    EXPECT_EQ(ledger.blocks(), 0u) << length;
  }
}

TEST_F(HashDictFileReadTest, ARefusedImageKeepsItsBufferAndHandle) {
  std::string image = Golden("hashdict-plain.dic");
  Poke<ULong>(&image, kFunSize, 25);
  for (const std::string& refused : {std::string(), image.substr(0, 47), image}) {
    Put("record", Record(refused));
    HashDict* hdict = nullptr;
    Ledger ledger;
    size_t of_the_channel = 0;
    {
      const ChannelPtr f = Reading(directory_.file("record"));
      of_the_channel = ledger.blocks();
      EXPECT_FALSE(HashDictFileRead(&hdict, f.get()));
      EXPECT_EQ(ledger.blocks(), of_the_channel + 2);
    }
    EXPECT_EQ(hdict, nullptr);
    ledger.Release();
  }
}

TEST_F(HashDictFileReadTest, ALengthIsNotBelievedBeforeItsBytesAreThere) {
  Put("record", std::string(4, '\xFF') + Golden("hashdict-plain.dic"));
  const ChannelPtr f = Reading(directory_.file("record"));
  Ledger ledger;
  HashDict* hdict = nullptr;
  EXPECT_FALSE(HashDictFileRead(&hdict, f.get()));
  EXPECT_EQ(ledger.largest(), size_t{16} << 20);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(HashDictFileReadTest, ALengthThatIsNotWholeTakesNoMemory) {
  for (size_t length = 0; length < 4; length++) {
    Put("record", std::string(length, '\x01'));
    const ChannelPtr f = Reading(directory_.file("record"));
    Ledger ledger;
    HashDict* hdict = nullptr;
    EXPECT_FALSE(HashDictFileRead(&hdict, f.get()));
    EXPECT_LT(ledger.largest(), 1000u) << length;
  }
}

TEST_F(HashDictFileReadTest, AfterThatNoMoreThanTwiceOfWhatWasThere) {
  Put("record", std::string(4, '\xFF') + std::string(size_t{17} << 20, '\0'));
  const ChannelPtr f = Reading(directory_.file("record"));
  Ledger ledger;
  HashDict* hdict = nullptr;
  EXPECT_FALSE(HashDictFileRead(&hdict, f.get()));
  EXPECT_EQ(ledger.largest(), size_t{32} << 20);
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(HashDictFileReadTest, ALargeImageIsReadInGrowingPieces) {
  // An image with 40 MiB behind its arrays: three pieces.
  const size_t size = (size_t{40} << 20) + 5;
  std::string image = Golden("hashdict-plain.dic");
  image.resize(size, '-');
  Put("record", Record(image) + "!");
  const ChannelPtr f = Reading(directory_.file("record"));
  HashDict* hdict = nullptr;
  ASSERT_TRUE(HashDictFileRead(&hdict, f.get()));
  ExpectNumbers(hdict);
  EXPECT_EQ(hdict->h_file_size, size);
  EXPECT_EQ(hdict->h_file[size - 1], '-');
  EXPECT_EQ(ChannelReadByte_(f.get(), 0), '!');
  HashDictMemClose(hdict);
}

TEST(HashDictMMRead, FindsTheRecordAtTheNextMultipleOfEight) {
  const std::string record = MapRecord(Golden("hashdict-plain.dic"));
  for (size_t misaligned_base = 0; misaligned_base < 8; misaligned_base++) {
    for (size_t from = 0; from <= 16; from++) {
      const size_t at = (from + 7) / 8 * 8;
      std::string mapping = std::string(misaligned_base + at, '\0') + record;
      UByte* base = reinterpret_cast<UByte*>(mapping.data()) + misaligned_base;
      UByte* position = base + from;
      Ledger ledger;
      HashDict* hdict = nullptr;
      ASSERT_TRUE(HashDictMMRead(&hdict, base, &position, base + at + record.size()));
      EXPECT_EQ(position, base + at + record.size());
      EXPECT_EQ(hdict->h_file, base + at + 8);
      EXPECT_EQ(hdict->h_file_size, 2744u);
      ExpectNumbers(hdict);
      EXPECT_EQ(ledger.blocks(), 1u);
      HashDictMMFree(hdict);
      EXPECT_EQ(ledger.blocks(), 0u);
    }
  }
}

TEST(HashDictMMRead, ReadsRecordsOneAfterTheOther) {
  // The first image ends at an odd place, as one with bytes behind its arrays may.
  std::string mapping = MapRecord(Golden("hashdict-plain.dic") + "odd");
  mapping.resize((mapping.size() + 7) / 8 * 8);
  mapping += MapRecord(Golden("hashdict-probe3.dic"));
  const Guarded guarded(mapping);
  UByte* position = guarded.data();
  HashDict *first = nullptr, *second = nullptr, *third = nullptr;
  ASSERT_TRUE(HashDictMMRead(&first, guarded.data(), &position, guarded.end()));
  EXPECT_EQ(position, guarded.data() + 8 + 2747);
  ASSERT_TRUE(HashDictMMRead(&second, guarded.data(), &position, guarded.end()));
  EXPECT_EQ(position, guarded.end());
  EXPECT_FALSE(HashDictMMRead(&third, guarded.data(), &position, guarded.end()));
  EXPECT_EQ(position, guarded.end());
  EXPECT_EQ(third, nullptr);
  ExpectNumbers(first);
  ExpectNumbers(second);
  HashDictMMFree(first);
  HashDictMMFree(second);
}

TEST(HashDictMMRead, FewerThanEightBytesLeaveThePositionAlone) {
  UByte bytes[16] = {};
  HashDict* hdict = reinterpret_cast<HashDict*>(bytes);
  for (size_t left = 0; left < 8; left++) {
    UByte* position = bytes + 16 - left;
    EXPECT_FALSE(HashDictMMRead(&hdict, bytes, &position, bytes + 16));
    EXPECT_EQ(position, bytes + 16 - left);
  }
  EXPECT_EQ(hdict, reinterpret_cast<HashDict*>(bytes)) << "untouched on failure";
}

TEST(HashDictMMRead, APositionBehindTheEndLeavesThePositionAlone) {
  UByte bytes[32] = {};
  HashDict* hdict = nullptr;
  UByte* position = bytes + 24;
  EXPECT_FALSE(HashDictMMRead(&hdict, bytes, &position, bytes + 16));
  EXPECT_EQ(position, bytes + 24);
}

TEST(HashDictMMRead, AlignmentPastTheEndStopsWhereEightBytesNoLongerFit) {
  UByte bytes[24] = {};
  HashDict* hdict = nullptr;
  UByte* position = bytes + 9;
  EXPECT_FALSE(HashDictMMRead(&hdict, bytes, &position, bytes + 20));
  EXPECT_EQ(position, bytes + 13);
}

TEST(HashDictMMRead, ALengthPastTheEndFailsBehindTheLength) {
  const std::string image = Golden("hashdict-plain.dic");
  for (const ULong length : {ULong{2745}, ULong{1} << 32, ~ULong{0}, ~ULong{0} - 7, ~ULong{0} - 2751}) {
    std::string mapping = MapRecord(image);
    Poke<ULong>(&mapping, 0, length);
    const Guarded guarded(mapping);
    UByte* position = guarded.data();
    Ledger ledger;
    HashDict* hdict = nullptr;
    EXPECT_FALSE(HashDictMMRead(&hdict, guarded.data(), &position, guarded.end())) << length;
    EXPECT_EQ(position, guarded.data() + 8);
    EXPECT_EQ(ledger.blocks(), 0u);
  }
}

TEST(HashDictMMRead, ARefusedImageKeepsItsHandleAndThePositionBehindTheLength) {
  const Guarded guarded(MapRecord(Golden("hashdict-plain.dic").substr(0, 2743)));
  UByte* position = guarded.data();
  Ledger ledger;
  HashDict* hdict = nullptr;
  EXPECT_FALSE(HashDictMMRead(&hdict, guarded.data(), &position, guarded.end()));
  EXPECT_EQ(position, guarded.data() + 8);
  EXPECT_EQ(hdict, nullptr);
  EXPECT_EQ(ledger.blocks(), 1u);
  ledger.Release();
}

TEST(HashDictMMRead, ARecordCutAnywhereFails) {
  const std::string record = MapRecord(Golden("hashdict-emptykey.dic"));
  for (size_t length = 0; length < record.size(); length++) {
    const Guarded guarded(record.substr(0, length));
    UByte* position = guarded.data();
    HashDict* hdict = nullptr;
    EXPECT_FALSE(HashDictMMRead(&hdict, guarded.data(), &position, guarded.end())) << length;
    EXPECT_EQ(position, guarded.data() + (length < 8 ? 0 : 8));
  }
}

TEST(HashDictMemOpen, SetsEveryField) {
  Opened opened(Golden("hashdict-probe3.dic"));
  ASSERT_TRUE(opened.opened());
  const HashDict* hdict = opened.get();
  EXPECT_FALSE(hdict->h_created);
  EXPECT_EQ(hdict->h_nentries, 19u);
  EXPECT_EQ(hdict->h_size, 28u);
  EXPECT_EQ(hdict->h_maxlen, 9u);
  EXPECT_EQ(hdict->h_nchars, 20u);
  EXPECT_EQ(hdict->h_nbits, 5u);
  EXPECT_EQ(hdict->h_probe, 3u);
  EXPECT_EQ(hdict->h_probe_mask, 0xFFFFFFu);
  EXPECT_EQ(hdict->h_rank_size, 512u);
  EXPECT_EQ(hdict->h_coef_size, 2160u);
  EXPECT_EQ(hdict->h_fun_size, 24u);
  EXPECT_EQ(hdict->h_probe_size, 176u);
  EXPECT_EQ(static_cast<void*>(hdict->h_rank), opened.data() + 48);
  EXPECT_EQ(static_cast<void*>(hdict->h_coef), opened.data() + 48 + 512);
  EXPECT_EQ(static_cast<void*>(hdict->h_fun), opened.data() + 48 + 512 + 2160);
  EXPECT_EQ(hdict->h_probe_code, opened.data() + 48 + 512 + 2160 + 24);
  EXPECT_EQ(hdict->h_file, opened.data());
  EXPECT_EQ(hdict->h_file_size, 2920u);
  EXPECT_EQ(HashDictFileSize(hdict), 2920u);
}

TEST(HashDictMemOpen, WithoutProbeCodeThereIsNone) {
  Opened opened(Golden("hashdict-plain.dic"));
  ASSERT_TRUE(opened.opened());
  EXPECT_EQ(opened.get()->h_probe_code, nullptr);
  EXPECT_EQ(opened.get()->h_probe_mask, 0u);
}

TEST(HashDictMemOpen, TheProbeMaskHasEightBitsAByte) {
  const ULong masks[] = {
      0, 0xFF, 0xFFFF, 0xFFFFFF, 0xFFFFFFFF, 0xFFFFFFFFFF, 0xFFFFFFFFFFFF, 0xFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF};
  std::string image = Golden("hashdict-probe8.dic");
  for (UShort probe = 0; probe <= 8; probe++) {
    Poke<UShort>(&image, kProbe, probe);
    Opened opened(image);
    ASSERT_TRUE(opened.opened());
    EXPECT_EQ(opened.get()->h_probe_mask, masks[probe]);
  }
}

TEST(HashDictMemOpen, WhereTheImageComesFromDoesNotMatter) {
  std::string image = Golden("hashdict-plain.dic");
  HashDict hdict;
  for (const Boolean from_memory : {FALSE, TRUE}) {
    ASSERT_TRUE(HashDictMemOpen_(&hdict, reinterpret_cast<UByte*>(image.data()), image.size(), from_memory));
    ExpectNumbers(&hdict);
  }
}

TEST(HashDictMemOpen, AnImageCutAnywhereIsRefused) {
  for (const char* name : {"hashdict-plain.dic", "hashdict-probe3.dic", "hashdict-empty.dic"}) {
    const std::string image = Golden(name);
    for (size_t length = 0; length < image.size(); length++) {
      Opened cut(image.substr(0, length));
      EXPECT_FALSE(cut.opened()) << length;
      EXPECT_EQ(cut.get()->h_file, cut.data());
      EXPECT_EQ(cut.get()->h_file_size, length);
      EXPECT_FALSE(cut.get()->h_created);
      if (length >= 48) {
        EXPECT_EQ(cut.get()->h_size, Peek<Id>(image, kSize));
      }
    }
    EXPECT_TRUE(Opened(image).opened());
  }
}

TEST(HashDictMemOpen, SizesThatOnlyWrapIntoTheImageAreRefused) {
  const std::string image = Golden("hashdict-plain.dic");
  const size_t fields[] = {kRankSize, kCoefSize, kFunSize, kProbeSize};
  for (const size_t field : fields) {
    for (const ULong size : {~ULong{0}, ~ULong{0} - 47, ~ULong{0} - 48, ULong{1} << 63, image.size() - 47}) {
      std::string damaged = image;
      Poke<ULong>(&damaged, field, size);
      EXPECT_FALSE(Opened(damaged).opened()) << field << " " << size;
    }
    // What it takes with one field less: 48 + sizes comes to a little under 2^64, or a little over.
    std::string damaged = image;
    for (const size_t other : fields) Poke<ULong>(&damaged, other, 0);
    for (const ULong size : {~ULong{0} - 40, ~ULong{0} - 200, ~ULong{0}}) {
      Poke<ULong>(&damaged, field, size);
      EXPECT_FALSE(Opened(damaged).opened());
    }
  }
  // Split over four fields: the exact sum is 2^64, or 2^65 less a few.
  std::string damaged = image;
  for (const size_t field : fields) Poke<ULong>(&damaged, field, (ULong{1} << 62) - 12);
  EXPECT_FALSE(Opened(damaged).opened());
  for (const size_t field : fields) Poke<ULong>(&damaged, field, (ULong{1} << 63) - 12);
  EXPECT_FALSE(Opened(damaged).opened());
}

TEST(HashDictMemOpen, SizesThatFillTheImageExactlyAreTaken) {
  std::string image = Golden("hashdict-plain.dic");
  Poke<ULong>(&image, kProbeSize, 8);
  image += std::string(8, '\0');
  Opened opened(image);
  EXPECT_TRUE(opened.opened());
  EXPECT_EQ(opened.get()->h_probe_code, opened.data() + 2744);
  EXPECT_EQ(HashDictFileSize(opened.get()), 2744u) << "h_probe is 0: no probe code belongs to the image";
  Poke<ULong>(&image, kProbeSize, 9);
  EXPECT_FALSE(Opened(image).opened());
}

TEST(HashDictMemOpen, ASwappedImageShowsReversedNumbersAndLooksTooShort) {
  Opened swapped(Golden("hashdict-swapped.dic"));
  EXPECT_FALSE(swapped.opened());
  EXPECT_EQ(swapped.get()->h_nentries, 0x13000000u);
  EXPECT_EQ(swapped.get()->h_size, 0x1C000000u);
  EXPECT_EQ(swapped.get()->h_maxlen, 0x0900u);
  EXPECT_EQ(swapped.get()->h_nchars, 0x1400u);
  EXPECT_EQ(swapped.get()->h_nbits, 0x0500u);
  EXPECT_EQ(swapped.get()->h_probe, 0x0300u);
  EXPECT_EQ(swapped.get()->h_rank_size, 0x0002000000000000u);
}

TEST(HashDictFind, FindsTheKeysOfEveryGoldenImage) {
  Opened plain(Golden("hashdict-plain.dic")), probe3(Golden("hashdict-probe3.dic"));
  ExpectNumbers(plain.get());
  ExpectNumbers(probe3.get());

  Opened probe8(Golden("hashdict-probe8.dic"));
  for (Id i = 0; i < 5; i++) EXPECT_EQ(probe8.Find(NumberWords()[i]), i);

  const Id squares[] = {0, 5, 20, 45, 80, 125, 180, 245, 320, 405, 500, 605, 720, 845, 980, 1125, 1280, 1445, 1620};
  Opened values(Golden("hashdict-values.dic"));
  for (Id i = 0; i < 19; i++) EXPECT_EQ(values.Find(NumberWords()[i]), squares[i]);

  Opened values32(Golden("hashdict-values32.dic"));
  EXPECT_EQ(values32.Find("null"), 0u);
  EXPECT_EQ(values32.Find("eins"), 0xFFFFFFFFu);
  EXPECT_EQ(values32.Find("zwei"), 0x80000001u);
  EXPECT_EQ(values32.Find("drei"), 0xFFFFFFFEu);

  Opened bytes(Golden("hashdict-bytes.dic"));
  for (Id i = 0; i < 256; i++) EXPECT_EQ(bytes.Find(std::string(1, static_cast<char>(i))), i);

  Opened odd(Golden("hashdict-odd.dic"));
  EXPECT_EQ(odd.Find("abc"), 0u);
}

TEST(HashDictFind, AtEveryAlignmentOfTheImage) {
  for (const char* name : {"hashdict-plain.dic", "hashdict-probe3.dic"}) {
    for (size_t behind = 0; behind < 8; behind++) {
      Opened opened(Golden(name) + std::string(behind, '-'));
      ASSERT_TRUE(opened.opened());
      ExpectNumbers(opened.get());
      EXPECT_EQ(opened.Find("xylophon"), kNotFound);
    }
  }
}

TEST(HashDictFind, AtAnOddSizeOfTheRankArray) {
  // 513 bytes of ranks put everything behind them at odd addresses.
  std::string image = Golden("hashdict-probe3.dic");
  Poke<ULong>(&image, kRankSize, 513);
  image.insert(kHeader + 512, 1, '\0');
  Opened opened(image);
  ASSERT_TRUE(opened.opened());
  ExpectNumbers(opened.get());
}

TEST(HashDictFind, AKeyLongerThanAllKeysIsNotThere) {
  for (const char* name : {"hashdict-plain.dic", "hashdict-probe3.dic", "hashdict-values.dic"}) {
    Opened opened(Golden(name));
    EXPECT_EQ(opened.Find("zehnzehnze"), kNotFound) << name;
    EXPECT_EQ(HashDictFind(opened.get(), nullptr, 10), kNotFound) << "its bytes are not looked at";
    EXPECT_EQ(HashDictFind(opened.get(), nullptr, 0xFFFFFFFF), kNotFound);
  }
}

TEST(HashDictFind, AByteThatNoKeyHasIsNotThere) {
  for (const char* name : {"hashdict-plain.dic", "hashdict-probe3.dic", "hashdict-values.dic"}) {
    Opened opened(Golden(name));
    for (size_t at = 0; at < 9; at++) {
      std::string key = "siebzehnn";
      key[at] = 'x';
      EXPECT_EQ(opened.Find(key), kNotFound) << key;
      for (size_t length = at + 1; length < 9; length++) EXPECT_EQ(opened.Find(key.substr(0, length)), kNotFound);
      key[at] = '\xFF';
      EXPECT_EQ(opened.Find(key), kNotFound) << at;
    }
  }
}

TEST(HashDictFind, TheEmptyKeyIsFoundThroughVerticesOneTwoThree) {
  Opened opened(Golden("hashdict-emptykey.dic"));
  EXPECT_EQ(opened.Find(""), 0u);
  EXPECT_EQ(HashDictFind(opened.get(), nullptr, 0), 0u);
  EXPECT_EQ(opened.Find("a"), kNotFound);
  // One bit a vertex: 1, 2 and 3 decide, the others do not.
  UByte* fun = opened.data() + 48 + 512;
  *fun = 0b1110001;
  EXPECT_EQ(opened.Find(""), 0u);
  *fun = 0b0000010;
  EXPECT_EQ(opened.Find(""), 1u);
  *fun = 0b0000100;
  EXPECT_EQ(opened.Find(""), 1u);
  *fun = 0b0001000;
  EXPECT_EQ(opened.Find(""), 1u);
  *fun = 0b0001110;
  EXPECT_EQ(opened.Find(""), 1u);

  EXPECT_EQ(Opened(Golden("hashdict-plain.dic")).Find(""), 13u);
}

TEST(HashDictFind, AnEmptyDictionaryHasNoKey) {
  Opened opened(Golden("hashdict-empty.dic"));
  EXPECT_EQ(opened.Find("a"), kNotFound);
  EXPECT_EQ(opened.Find(std::string(1, '\0')), kNotFound);
  EXPECT_EQ(HashDictSize(opened.get()), 0u);
  EXPECT_EQ(HashDictMaxLength(opened.get()), 0u);
}

TEST(HashDictFind, WithoutProbeCodeAForeignKeyMayLookLikeAKey) {
  Opened opened(Golden("hashdict-plain.dic"));
  EXPECT_EQ(opened.Find("elfe"), 16u);   // vertices 8, 9 and 10
  EXPECT_EQ(opened.Find("hacht"), 15u);  // 13, 20 and 2
  EXPECT_EQ(opened.Find("n"), 12u);
  EXPECT_EQ(opened.Find("sieb"), 31u) << "nor is it always below the number of keys";
  EXPECT_EQ(opened.Find("zehnzehn"), 26u);
}

TEST(HashDictFind, ProbeCodesTurnForeignKeysAway) {
  Opened probe3(Golden("hashdict-probe3.dic")), probe8(Golden("hashdict-probe8.dic"));
  for (const char* key : {"elfe", "hacht", "n", "sieb", "zehnzehn", "neunzehn", "siebe", "e"}) {
    EXPECT_EQ(probe3.Find(key), kNotFound) << key;
  }
  for (const char* key : {"nill", "nie", "ei", "viel", "l", "in", ""}) EXPECT_EQ(probe8.Find(key), kNotFound) << key;
}

TEST(HashDictFind, AWideProbeCodeAcceptsAForeignKeyOnlyWithItsValue) {
  // "nill" leads to entry 3. Its digits to base 257: ((110 * 257 + 105) * 257 + 108) * 257 + 108.
  const ULong p = ((ULong{110} * 257 + 105) * 257 + 108) * 257 + 108;
  std::string image = Golden("hashdict-probe8.dic");
  const size_t code = 48 + 512 + 528 + 8 + 3 * 8;
  Poke<ULong>(&image, code, p);
  EXPECT_EQ(Opened(image).Find("nill"), 3u);
  EXPECT_EQ(Opened(image).Find("drei"), kNotFound);
  for (size_t bit = 0; bit < 64; bit++) {
    Poke<ULong>(&image, code, p ^ (ULong{1} << bit));
    EXPECT_EQ(Opened(image).Find("nill"), kNotFound) << bit;
  }
}

TEST(HashDictFind, EveryByteOfANarrowProbeCodeCounts) {
  std::string image = Golden("hashdict-probe3.dic");
  const size_t codes = 48 + 512 + 2160 + 24;
  for (Id i = 0; i < 19; i++) {
    for (size_t j = 0; j < 3; j++) {
      std::string damaged = image;
      damaged[codes + i * 3 + j] = static_cast<char>(damaged[codes + i * 3 + j] ^ 0x10);
      Opened opened(damaged);
      for (Id k = 0; k < 19; k++) EXPECT_EQ(opened.Find(NumberWords()[k]), k == i ? kNotFound : k);
    }
  }
}

TEST(HashDictFind, AProbeCodeOfJustTheBytesInUseIsEnough) {
  std::string image = Golden("hashdict-probe3.dic");
  const size_t codes = 48 + 512 + 2160 + 24;
  Poke<ULong>(&image, kProbeSize, 19 * 3);
  Opened opened(image.substr(0, codes + 19 * 3));
  ASSERT_TRUE(opened.opened());
  ExpectNumbers(opened.get());

  // Two keys are left of the five, with one byte each: less than a word.
  image = Golden("hashdict-bytes.dic");
  Poke<Id>(&image, kEntries, 5);
  Poke<ULong>(&image, kProbeSize, 5);
  Opened narrow(image.substr(0, image.size() - 256 + 5));
  ASSERT_TRUE(narrow.opened());
  for (Id i = 0; i < 5; i++) EXPECT_EQ(narrow.Find(std::string(1, static_cast<char>(i))), i);
  EXPECT_EQ(narrow.Find("\x05"), kNotFound);
}

TEST(HashDictFind, ANumberBeyondTheKeysIsNotThereAndItsProbeCodeIsNotRead) {
  Opened opened(Golden("hashdict-probe8.dic"));
  // "in" leads to number 6 of 5. With no probe code at all, reading it would end here.
  opened.get()->h_probe_code = nullptr;
  EXPECT_EQ(opened.Find("in"), kNotFound);
}

TEST(HashDictFind, ManyThreadsMayShareAHandle) {
  Opened opened(Golden("hashdict-probe3.dic"));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++) {
    threads.emplace_back([&opened] {
      for (int i = 0; i < 1000; i++) ExpectNumbers(opened.get());
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// What FindMany gives for some keys.
std::vector<Id> FindMany(const HashDict* hdict, const std::vector<std::string>& keys) {
  std::vector<const UByte*> bytes;
  std::vector<UInt> lens;
  for (const std::string& key : keys) {
    bytes.push_back(support::Bytes(key));
    lens.push_back(static_cast<UInt>(key.size()));
  }
  std::vector<Id> ids(keys.size(), 0x12345678);
  HashDictFindMany(hdict, static_cast<UInt>(keys.size()), bytes.data(), lens.data(), ids.data());
  return ids;
}

void ExpectManyAsSingle(const HashDict* hdict, const std::vector<std::string>& keys) {
  const std::vector<Id> ids = FindMany(hdict, keys);
  for (size_t i = 0; i < keys.size(); i++) EXPECT_EQ(ids[i], Find(hdict, keys[i])) << keys[i];
}

TEST(HashDictFindMany, FindsTheKeysInAnyOrder) {
  for (const char* name : {"hashdict-plain.dic", "hashdict-probe3.dic"}) {
    const std::string image = Golden(name);
    Opened opened(image);
    EXPECT_EQ(FindMany(opened.get(), {"zwei", "", "null", "zwei", "siebzehn", "eins"}),
              (std::vector<Id>{2, 13, 0, 2, 18, 1}));
  }
  EXPECT_EQ(FindMany(Opened(Golden("hashdict-probe3.dic")).get(), {"zwei", "zwie", "x", "eins", "siebzehnter"}),
            (std::vector<Id>{2, kNotFound, kNotFound, 1, kNotFound}));
}

TEST(HashDictFindMany, NoKeysAreLookedUpAtAll) {
  Opened opened(Golden("hashdict-plain.dic"));
  HashDictFindMany(opened.get(), 0, nullptr, nullptr, nullptr);
  const UByte* empty = nullptr;
  const UInt length = 0;
  Id id = 0;
  HashDictFindMany(opened.get(), 1, &empty, &length, &id);
  EXPECT_EQ(id, 13u);
}

TEST(HashDictFindMany, GivesWhatSingleLookUpsGiveHoweverMany) {
  for (const char* name : {"hashdict-plain.dic", "hashdict-probe3.dic", "hashdict-probe8.dic", "hashdict-values.dic",
                           "hashdict-odd.dic", "hashdict-empty.dic", "hashdict-bytes.dic"}) {
    Opened opened(Golden(name));
    for (const size_t count : {1u, 2u, 31u, 32u, 33u, 63u, 64u, 65u, 200u}) {
      std::vector<std::string> keys;
      for (size_t i = 0; i < count; i++) keys.push_back(i % 4 == 3 ? std::to_string(i) : NumberWords()[i * 7 % 19]);
      ExpectManyAsSingle(opened.get(), keys);
    }
  }
}

TEST(HashDictFindMany, OfADictionaryThatIsNotSoundToo) {
  std::string image = Golden("hashdict-probe3.dic");
  Poke<UShort>(&image, kMaxLength, 1000);  // more coefficients than there are
  Opened uncovered(image);
  ExpectManyAsSingle(uncovered.get(), NumberWords());
  EXPECT_EQ(FindMany(uncovered.get(), {"zwei", "x"}), (std::vector<Id>{2, kNotFound}));
  // A coefficient that keeps its vertex within the graph, though it is too large: rank 9 ("n") at position 0.
  image = Golden("hashdict-plain.dic");
  const Id m = Peek<Id>(image, kSize);
  Poke<Id>(&image, kHeader + 512 + 9 * 12, Peek<Id>(image, kHeader + 512 + 9 * 12) + m);
  Opened damaged(image);
  ExpectManyAsSingle(damaged.get(), {"eins", "null", "zwei", "neun"});
  EXPECT_EQ(FindMany(damaged.get(), {"eins", "null"}), (std::vector<Id>{1, 0}));
}

TEST(HashDictDamaged, ACoefficientOutOfRangeIsTakenByTheLetter) {
  // "n" has one triple: rank 9 at position 0. Its vertices are 15, 9 and 20, of 28.
  const std::string image = Golden("hashdict-plain.dic");
  ASSERT_EQ(Peek<Short>(image, kHeader + 2 * 'n'), 9);
  const size_t triple = kHeader + 512 + 9 * 12;
  ASSERT_EQ(Peek<Id>(image, triple), 14u);
  ASSERT_EQ(Opened(image).Find("n"), 12u);
  const auto with = [&](Id a, Id b, Id c) {
    std::string damaged = image;
    Poke<Id>(&damaged, triple, a);
    Poke<Id>(&damaged, triple + 4, b);
    Poke<Id>(&damaged, triple + 8, c);
    return damaged;
  };
  const Id a = Peek<Id>(image, triple), b = Peek<Id>(image, triple + 4), c = Peek<Id>(image, triple + 8);

  // m more is taken off again by the one subtraction; m - 1 and twice m - 2 more too.
  EXPECT_EQ(Opened(with(a + 28, b, c)).Find("n"), 12u);
  EXPECT_EQ(Opened(with(a, b + 27, c)).Find("n"), 12u);
  EXPECT_EQ(Opened(with(a, b, c + 26)).Find("n"), 12u);
  EXPECT_EQ(Opened(with(a, b, c + 52)).Find("n"), 12u);

  // More is not.
  for (const Id more : {Id{56}, Id{0x40000000}, Id{0x80000000}, Id{0xFFFFFFFF} - a}) {
    Opened first(with(a + more, b, c));
    EXPECT_EQ(support::Trap([&] { first.Find("n"); }), "*pc0 <= m0") << more;
  }
  for (const Id more : {Id{81}, Id{0x40000000}, Id{0x80000000}}) {
    Opened second(with(a, b + more, c));
    EXPECT_EQ(support::Trap([&] { second.Find("n"); }), "*pc1 <= m0") << more;
  }
  // The third vertex is past the array and reads as 0: what is left are vertices 15 and 9.
  for (const Id more : {Id{260}, Id{0x40000000}, Id{0x80000000}}) {
    Opened third(with(a, b, c + more));
    Id found = 0;
    EXPECT_EQ(support::Trap([&] { found = third.Find("n"); }), "") << more;
    const auto value = [&](Id v) {
      const ULong bits = Peek<ULong>(image, kHeader + 512 + 2160 + v * 5 / 64 * 8) >> v * 5 % 64;
      return static_cast<Id>(bits & 31);  // neither of the two lies across words
    };
    EXPECT_EQ(found, value(15) ^ value(9));
  }
}

TEST(HashDictDamaged, ATableThatIsOverwrittenAfterOpeningIsWatchedToo) {
  Opened opened(Golden("hashdict-plain.dic"));
  const auto coef = reinterpret_cast<Id*>(opened.data() + kHeader + 512) + 9 * 3;
  coef[0] = 200;
  EXPECT_EQ(support::Trap([&] { opened.Find("n"); }), "*pc0 <= m0");
  coef[0] = 14;
  EXPECT_EQ(opened.Find("n"), 12u);
  opened.get()->h_size = 2;
  EXPECT_EQ(support::Trap([&] { opened.Find("n"); }), "*pc0 <= m0");
}

TEST(HashDictDamaged, FortyEightZeroBytesAreADictionary) {
  Opened opened(std::string(48, '\0'));
  ASSERT_TRUE(opened.opened());
  EXPECT_EQ(HashDictSize(opened.get()), 0u);
  EXPECT_EQ(opened.Find("a"), kNotFound);
  EXPECT_EQ(support::Trap([&] { opened.Find(""); }), "*pc0 <= m0");
}

TEST(HashDictDamaged, ValuesOfImpossibleWidthReadAsNothing) {
  for (const UShort bits : std::initializer_list<UShort>{0, 33, 64, 65, 65535}) {
    std::string image = Golden("hashdict-plain.dic");
    Poke<UShort>(&image, kBits, bits);
    Opened opened(image);
    ASSERT_TRUE(opened.opened());
    EXPECT_EQ(opened.Find("zwei"), 0u) << bits;
  }
}

TEST(HashDictDamaged, AProbeCodeThatIsMissingOrTooWideMatchesNoKey) {
  std::string image = Golden("hashdict-probe3.dic");
  Poke<ULong>(&image, kProbeSize, 0);
  Opened missing(image);
  for (const std::string& key : NumberWords()) EXPECT_EQ(missing.Find(key), kNotFound);

  Poke<ULong>(&image, kProbeSize, 18 * 3 + 2);
  Opened cut(image);
  for (Id i = 0; i < 19; i++) EXPECT_EQ(cut.Find(NumberWords()[i]), i < 18 ? i : kNotFound);

  for (const UShort probe : std::initializer_list<UShort>{9, 64, 65535}) {
    std::string wide = Golden("hashdict-probe3.dic");
    Poke<UShort>(&wide, kProbe, probe);
    Opened opened(wide);
    for (const std::string& key : NumberWords()) EXPECT_EQ(opened.Find(key), kNotFound) << probe;
  }
}

TEST(HashDictDamaged, BytesWithoutARankAreInNoKey) {
  std::string image = Golden("hashdict-plain.dic");
  // The ranks end behind 'r': "drei" has no byte above it, "zwei" has two.
  const size_t size = 2 * ('r' + 1);
  image.erase(kHeader + size, 512 - size);
  Poke<ULong>(&image, kRankSize, size);
  Opened opened(image);
  ASSERT_TRUE(opened.opened());
  EXPECT_EQ(opened.Find("drei"), 3u);
  EXPECT_EQ(opened.Find("zwei"), kNotFound);
}

TEST(HashDictDamaged, TheCheckedWayGivesTheSameAnswers) {
  for (const char* name : {"hashdict-plain.dic", "hashdict-probe3.dic", "hashdict-values.dic", "hashdict-bytes.dic"}) {
    Opened fast(Golden(name)), slow(Golden(name));
    ASSERT_NE(fast.get()->h_sound, 0u);
    slow.get()->h_sound = 0;
    EXPECT_TRUE(rc::check([&](const std::string& key) {
      RC_ASSERT(slow.Find(key) == fast.Find(key));
      const std::string foreign =
          NumberWords()[key.size() % 19].substr(0, 5) + NumberWords()[key.size() / 19 % 19].substr(0, 4);
      RC_ASSERT(slow.Find(foreign) == fast.Find(foreign));
    }));
  }
}

// Keys that reach every position, and some that no dictionary here has.
std::vector<std::string> ManyKeys() {
  std::vector<std::string> keys = NumberWords();
  for (const char* key : {"n", "nnnnnnnnn", "zzzzzzzzz", "a", "siebenund", "\xFF\xFF\xFF", "abc"})
    keys.emplace_back(key);
  for (const size_t length : {size_t{10}, size_t{300}, size_t{65535}}) keys.emplace_back(length, 'n');
  keys.emplace_back(65536, 'n');
  keys.emplace_back(9, '\0');
  return keys;
}

// Looks everything up; some keys may meet one of the two assertions, and nothing else may happen.
void Probe(const Opened& opened) {
  for (const std::string& key : ManyKeys()) {
    Id single = 0, many = 0;
    const std::string assertion = support::Trap([&] { single = opened.Find(key); });
    EXPECT_THAT(assertion, ::testing::AnyOf("", "*pc0 <= m0", "*pc1 <= m0"));
    const UByte* bytes = support::Bytes(key);
    const auto length = static_cast<UInt>(key.size());
    EXPECT_EQ(support::Trap([&] { HashDictFindMany(opened.get(), 1, &bytes, &length, &many); }), assertion);
    EXPECT_EQ(many, single);
  }
}

TEST(HashDictDamaged, NoNumberInTheHeaderMakesALookUpReadOutside) {
  const struct {
    size_t at, width;
  } fields[] = {{kEntries, 4}, {kSize, 4},     {kMaxLength, 2}, {kBits, 2},    {kChars, 2},
                {kProbe, 2},   {kRankSize, 8}, {kCoefSize, 8},  {kFunSize, 8}, {kProbeSize, 8}};
  const ULong values[] = {0,   1,   2,      3,      4,      7,          8,          9,          15,         16,
                          31,  32,  33,     63,     64,     65,         255,        256,        257,        511,
                          512, 513, 0x7FFF, 0x8000, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF, ~ULong{0}};
  for (const char* name : {"hashdict-plain.dic", "hashdict-probe3.dic", "hashdict-probe8.dic"}) {
    const std::string image = Golden(name);
    for (const auto& field : fields) {
      ULong sound = 0;
      std::memcpy(&sound, image.data() + field.at, field.width);
      std::vector<ULong> tried(std::begin(values), std::end(values));
      for (const ULong near : {sound - 8, sound - 1, sound + 1, sound + 8, sound * 2, sound / 2}) tried.push_back(near);
      for (const ULong value : tried) {
        std::string damaged = image;
        std::memcpy(damaged.data() + field.at, &value, field.width);
        Opened opened(damaged);
        if (opened.opened()) Probe(opened);
      }
    }
  }
}

TEST(HashDictDamaged, NoBytesMakeALookUpReadOutside) {
  const std::string images[] = {Golden("hashdict-plain.dic"), Golden("hashdict-probe3.dic"),
                                Golden("hashdict-values.dic")};
  EXPECT_TRUE(rc::check([&] {
    std::string damaged = *rc::gen::elementOf(std::vector<std::string>(std::begin(images), std::end(images)));
    const auto changes = *rc::gen::inRange(1, 12);
    for (int i = 0; i < changes; i++) {
      // Half of them in the header, where they matter most.
      const size_t limit = *rc::gen::element(kHeader, kHeader + 512, damaged.size());
      damaged[*rc::gen::inRange<size_t>(0, limit)] = static_cast<char>(*rc::gen::inRange(0, 256));
    }
    Opened opened(damaged);
    if (opened.opened()) Probe(opened);
  }));
}

class Sparse {
 public:
  // Not covered: the header promises one position more than there is, which leaves all look-ups to the slow way.
  Sparse(Id m, UShort nchars, UShort maxlen, std::vector<Id> coef, bool covered = true) : coef_(std::move(coef)) {
    rank_.assign(256, -1);
    for (int r = 0; r < nchars; r++) rank_['a' + static_cast<size_t>(r)] = r;
    const size_t coef_size = (coef_.size() * 4 + 7) / 8 * 8;
    const size_t fun_size = (size_t{m} + 1 + 63) / 64 * 8;
    size_ = kHeader + 512 + coef_size + fun_size;
    void* image = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    EXPECT_NE(image, MAP_FAILED);
    image_ = static_cast<UByte*>(image);
    const auto put = [this](size_t at, auto value) { std::memcpy(image_ + at, &value, sizeof value); };
    put(kSize, m);
    put(kMaxLength, static_cast<UShort>(covered ? maxlen : maxlen + 1));
    put(kBits, UShort{1});
    put(kChars, nchars);
    put(kRankSize, ULong{512});
    put(kCoefSize, ULong{coef_size});
    put(kFunSize, ULong{fun_size});
    for (size_t byte = 0; byte < 256; byte++) put(kHeader + 2 * byte, static_cast<Short>(rank_[byte]));
    std::memcpy(image_ + kHeader + 512, coef_.data(), coef_.size() * 4);
    fun_ = image_ + kHeader + 512 + coef_size;
    EXPECT_TRUE(HashDictMemOpen_(&hdict_, image_, size_, TRUE));
  }
  ~Sparse() { munmap(image_, size_); }
  Sparse(const Sparse&) = delete;
  Sparse& operator=(const Sparse&) = delete;

  const HashDict* get() const { return &hdict_; }
  const std::vector<int>& rank() const { return rank_; }
  const std::vector<Id>& coef() const { return coef_; }
  void Flip(Id v) { fun_[v / 8] = static_cast<UByte>(fun_[v / 8] ^ 1 << v % 8); }

 private:
  std::vector<Id> coef_;
  std::vector<int> rank_;
  size_t size_ = 0;
  UByte* image_ = nullptr;
  UByte* fun_ = nullptr;
  HashDict hdict_;
};

// A key is found through exactly the vertices that the sums give: a single bit set at one of them is its value.
void ExpectVertices(Id m, UShort nchars, UShort maxlen, bool covered = true) {
  EXPECT_TRUE(rc::check([=] {
    // Coefficients near both ends of their range come up often: sums grow as large as they can.
    const auto coef_gen =
        rc::gen::oneOf(rc::gen::inRange<Id>(0, m), rc::gen::inRange<Id>(m - 3, m), rc::gen::just(Id{0}));
    Sparse sparse(m, nchars, maxlen, *rc::gen::container<std::vector<Id>>(size_t{3} * nchars * maxlen, coef_gen),
                  covered);
    const size_t length =
        *rc::gen::oneOf(rc::gen::inRange<size_t>(0, size_t{maxlen} + 1), rc::gen::just(size_t{maxlen}));
    const auto key = *rc::gen::container<std::string>(
        length, rc::gen::inRange('a', static_cast<char>('a' + static_cast<char>(nchars))));
    const support::ModelTriple v = support::ModelHash(key, sparse.rank(), sparse.coef(), nchars, m);
    RC_ASSERT(Find(sparse.get(), key) == 0u);
    for (const Id vertex : v) {
      sparse.Flip(vertex);
      RC_ASSERT(Find(sparse.get(), key) == 1u);
      sparse.Flip(vertex);
    }
  }));
}

TEST(HashDictVertices, InASmallGraph) {
  for (const Id m : {3u, 4u, 5u, 6u, 7u, 100u}) ExpectVertices(m, 3, 20);
}

TEST(HashDictVertices, InASmallGraphTheSlowWay) {
  for (const Id m : {3u, 4u, 5u, 6u, 7u, 100u}) ExpectVertices(m, 3, 20, false);
}

TEST(HashDictVertices, OfLongKeysInALargeGraph) {
  ExpectVertices(0x10000000, 2, 40);  // sums pass 32 bits after 16 positions
  ExpectVertices(0x7FFFFFFE, 2, 9);
  ExpectVertices(0x7FFFFFFF, 2, 12);
}

TEST(HashDictVertices, InAGraphOfMoreVerticesThanTheFastWayServes) { ExpectVertices(0x80000000, 2, 9); }

using HashDictDeathTest = HashDictOpenTest;

TEST_F(HashDictDeathTest, FindWantsADictionary) {
  EXPECT_ASSERTION(HashDictFindMany(nullptr, 0, nullptr, nullptr, nullptr), kModule, "HashDictFindMany",
                   "hdict != ((void *)0)");
  EXPECT_ASSERTION(HashDictFind(nullptr, support::Bytes("a"), 1), kModule, "HashDictFind", "hdict != ((void *)0)");
}

TEST_F(HashDictDeathTest, CloseWantsADictionary) {
  EXPECT_ASSERTION(HashDictClose(nullptr), kModule, "HashDictClose", "hdict != ((void *)0)");
  EXPECT_ASSERTION(HashDictMemClose(nullptr), kModule, "HashDictMemClose", "hdict != ((void *)0)");
}

TEST_F(HashDictDeathTest, CloseWantsAnImage) {
  HashDict hdict = {};
  EXPECT_ASSERTION(HashDictClose(&hdict), kModule, "HashDictClose", "hdict->h_file != ((void *)0)");
  EXPECT_ASSERTION(HashDictMemClose(&hdict), kModule, "HashDictMemClose", "hdict->h_file != ((void *)0)");
}

TEST_F(HashDictDeathTest, CloseWantsADictionaryThatWasNotBuilt) {
  UByte image[1];
  HashDict hdict = {};
  hdict.h_file = image;
  hdict.h_created = TRUE;
  EXPECT_ASSERTION(HashDictClose(&hdict), kModule, "HashDictClose", "!hdict->h_created");
  EXPECT_ASSERTION(HashDictMemClose(&hdict), kModule, "HashDictMemClose", "!hdict->h_created");
}

TEST_F(HashDictDeathTest, VerticesLieInTheGraph) {
  std::string image = Golden("hashdict-plain.dic");
  Poke<Id>(&image, kHeader + 512 + 9 * 12, 1000);
  Opened first(image);
  EXPECT_ASSERTION(first.Find("n"), kModule, "Hash", "*pc0 <= m0");
  image = Golden("hashdict-plain.dic");
  Poke<Id>(&image, kHeader + 512 + 9 * 12 + 4, 1000);
  Opened second(image);
  EXPECT_ASSERTION(second.Find("n"), kModule, "Hash", "*pc1 <= m0");
}

}  // namespace
