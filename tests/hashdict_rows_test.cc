// Rows: the coefficients of a dictionary, arranged for many look-ups. They change no answer.

#include "dict/hashdict_rows.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <string>
#include <vector>

#include "support/death.h"
#include "support/files.h"
#include "support/hashdict_keys.h"
#include "support/ledger.h"

namespace {

using hashdict::Hashed;
using hashdict::Rows;
using hashdict::RowsOf;
using support::Find;
using support::KeySet;
using support::Ledger;

// Each length up to `longest` with two keys of it.
KeySet EveryLength(size_t longest) {
  KeySet set;
  for (size_t length = 0; length <= longest; length++) {
    set.keys.push_back(std::string(length, 'a'));
    if (length > 0) set.keys.push_back('b' + std::string(length - 1, 'a'));
  }
  return set;
}

// A dictionary with rows, from so few keys that building alone makes none.
HashDict* Prepared(KeySet* set, UByte probe = 0) {
  HashDict* hdict = set->Build(probe);
  EXPECT_EQ(RowsOf(*hdict), nullptr);
  EXPECT_TRUE(HashDictPrepare(hdict));
  EXPECT_NE(RowsOf(*hdict), nullptr);
  return hdict;
}

// The image in a memory map's record, opened there, and what it is without rows.
class InRecord {
 public:
  explicit InRecord(const std::string& image) : record_(8 + image.size(), '\0'), plain_image_(image) {
    const size_t length = image.size();
    std::memcpy(record_.data(), &length, sizeof length);
    std::memcpy(record_.data() + 8, image.data(), length);
    auto* from = reinterpret_cast<UByte*>(record_.data());
    if (HashDictMMRead(&hdict_, from, &from, from + record_.size()) == FALSE) hdict_ = nullptr;
    auto* plain = reinterpret_cast<UByte*>(plain_image_.data());
    if (HashDictMemOpen_(&plain_, plain, plain_image_.size(), TRUE) == FALSE && hdict_ != nullptr) std::abort();
  }
  ~InRecord() {
    if (hdict_ != nullptr) HashDictMMFree(hdict_);
  }
  InRecord(const InRecord&) = delete;
  InRecord& operator=(const InRecord&) = delete;

  HashDict* get() const { return hdict_; }
  const HashDict* plain() const { return &plain_; }

 private:
  std::string record_, plain_image_;
  HashDict* hdict_ = nullptr;
  HashDict plain_;
};

std::string ImageOfSet(KeySet set, UByte probe = 0) {
  HashDict* hdict = set.Build(probe);
  const std::string image = support::ImageOf(hdict);
  HashDictFree(hdict);
  return image;
}

TEST(HashDictRows, ComeWithPreparationAndOnce) {
  KeySet set = EveryLength(3);
  HashDict* hdict = Prepared(&set);
  const Rows* rows = RowsOf(*hdict);
  EXPECT_TRUE(HashDictPrepare(hdict));
  EXPECT_EQ(RowsOf(*hdict), rows);
  HashDictFree(hdict);
}

TEST(HashDictRows, NeverComeWithALookUp) {
  KeySet set = EveryLength(3);
  HashDict* hdict = set.Build();
  Ledger ledger;
  for (int i = 0; i < 5000; i++) EXPECT_EQ(Find(hdict, "baa"), 6u);
  EXPECT_EQ(ledger.blocks() + ledger.arrays(), 0u);
  EXPECT_EQ(RowsOf(*hdict), nullptr);
  HashDictFree(hdict);
}

TEST(HashDictRows, ServeManyLookUpsAtOnce) {
  KeySet set = EveryLength(40);
  HashDict* hdict = Prepared(&set);
  std::vector<const UByte*> keys;
  std::vector<UInt> lens;
  std::vector<Id> ids(set.keys.size()), expected;
  set.keys.push_back(std::string(41, 'a'));
  ids.push_back(0);
  for (const std::string& key : set.keys) {
    expected.push_back(key.size() <= 40 ? static_cast<Id>(keys.size()) : HASHDICT_NOT_FOUND);
    keys.push_back(support::Bytes(key));
    lens.push_back(static_cast<UInt>(key.size()));
  }
  HashDictFindMany(hdict, static_cast<UInt>(keys.size()), keys.data(), lens.data(), ids.data());
  EXPECT_EQ(ids, expected);
  HashDictFree(hdict);
}

TEST(HashDictRows, GiveKeysOfEveryLengthTheirNumbers) {
  for (const UByte probe : std::initializer_list<UByte>{0, 1, 8}) {
    KeySet set = EveryLength(70);
    HashDict* hdict = Prepared(&set, probe);
    for (Id idx = 0; idx < set.keys.size(); idx++) EXPECT_EQ(Find(hdict, set.keys[idx]), idx) << set.keys[idx];
    EXPECT_EQ(Find(hdict, std::string(71, 'a')), HASHDICT_NOT_FOUND);
    HashDictFree(hdict);
  }
}

TEST(HashDictRows, NoticeAByteOfNoKeyAtEveryPositionOfEveryLength) {
  KeySet set = EveryLength(40);
  HashDict* hdict = Prepared(&set);
  for (size_t length = 1; length <= 40; length++) {
    for (size_t at = 0; at < length; at++) {
      std::string key(length, 'a');
      key[at] = 'c';
      EXPECT_EQ(Find(hdict, key), HASHDICT_NOT_FOUND) << key;
    }
  }
  HashDictFree(hdict);
}

TEST(HashDictRows, LeaveCoefficientsOutOfRangeToTheSlowHashAtEveryPositionOfEveryLength) {
  KeySet set;
  for (size_t length = 0; length <= 20; length++) set.keys.push_back(std::string(length, 'a'));
  HashDict* hdict = set.Build();
  ASSERT_EQ(hdict->h_size, 31u);
  for (const Id bad : {31u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    for (size_t at = 0; at < 20 * 3; at++) {
      const Id good = hdict->h_coef[at];
      hdict->h_coef[at] = bad;
      Rows* const rows = hashdict::RowsNew(*hdict);
      hdict->h_coef[at] = good;
      for (Id length = 0; length <= 20; length++) {
        hashdict::Triple triple;
        const Hashed hashed = hashdict::HashByRows(*hdict, *rows, support::Bytes(set.keys[length]), length, &triple);
        EXPECT_EQ(hashed, length > at / 3 ? Hashed::kDamaged : Hashed::kVertices) << at << ' ' << bad;
        if (hashed == Hashed::kVertices) {
          EXPECT_EQ(hashdict::Combine(*hdict, triple), length) << at << ' ' << bad;
        }
      }
      hdict->h_rows = rows;
      hashdict::RowsDelete(hdict);
    }
  }
  HashDictFree(hdict);
}

TEST(HashDictRows, AByteOfNoKeyCountsMoreThanDamage) {
  KeySet set = EveryLength(9);
  HashDict* hdict = set.Build();
  hdict->h_coef[0] = 0xFFFFFFFF;
  EXPECT_TRUE(HashDictPrepare(hdict));
  EXPECT_EQ(Find(hdict, "aaaaaaaaz"), HASHDICT_NOT_FOUND);
  HashDictFree(hdict);
}

TEST(HashDictRows, ChangeNoAnswerWhateverTheImageHolds) {
  const std::string image = ImageOfSet(EveryLength(12), 1);
  constexpr size_t kHeader = 48;
  EXPECT_TRUE(rc::check([&] {
    std::string damaged = image;
    // Ranks, coefficients, function values, codes. Numbers of the header have tests of their own, with ranks out of
    // range there are no rows, and coefficients out of range end the process in the slow hash.
    const auto m = support::Peek<Id>(image, 4);
    const size_t coefs = kHeader + support::Peek<size_t>(image, 16), funs = coefs + support::Peek<size_t>(image, 24);
    for (const auto at : *rc::gen::container<std::vector<size_t>>(rc::gen::inRange<size_t>(kHeader, image.size()))) {
      if (at < coefs) {
        support::Poke<Short>(&damaged, at / 2 * 2, *rc::gen::inRange<Short>(-1, 2));
      } else if (at >= funs) {
        damaged[at] = *rc::gen::arbitrary<char>();
      } else {
        support::Poke<Id>(&damaged, at - (at - coefs) % sizeof(Id), *rc::gen::inRange<Id>(0, m));
      }
    }
    const InRecord dict(damaged);
    RC_ASSERT(dict.get() != nullptr);
    RC_ASSERT(HashDictPrepare(dict.get()));
    const auto keys = *rc::gen::container<std::vector<std::string>>(
        rc::gen::container<std::string>(rc::gen::weightedElement<char>({{4, 'a'}, {4, 'b'}, {1, 'c'}, {1, '\0'}})));
    for (const std::string& key : keys) RC_ASSERT(Find(dict.get(), key) == Find(dict.plain(), key));
  }));
}

TEST(HashDictRows, DoNotComeForImagesThatAreNotSound) {
  std::string image = ImageOfSet(EveryLength(3));
  support::Poke<UShort>(&image, 10, 33);  // bits of a function value
  const InRecord dict(image);
  ASSERT_NE(dict.get(), nullptr);
  EXPECT_FALSE(HashDictPrepare(dict.get()));
  EXPECT_EQ(RowsOf(*dict.get()), nullptr);
}

TEST(HashDictRows, DoNotComeWhereTheCallerOwnsTheRecord) {
  std::string image = ImageOfSet(EveryLength(3));
  HashDict hdict;
  ASSERT_TRUE(HashDictMemOpen_(&hdict, reinterpret_cast<UByte*>(image.data()), image.size(), TRUE));
  EXPECT_FALSE(HashDictPrepare(&hdict));
  EXPECT_EQ(RowsOf(hdict), nullptr) << "nobody would release them";
  EXPECT_EQ(Find(&hdict, "baa"), 6u);
}

TEST(HashDictRows, DoNotComeWhereTheyWouldBeLarge) {
  KeySet set;
  for (int i = 0; i < 256; i++) set.keys.push_back(std::string(300, static_cast<char>(i)));
  HashDict* hdict = set.Build();
  EXPECT_FALSE(HashDictPrepare(hdict));
  EXPECT_EQ(RowsOf(*hdict), nullptr);
  for (Id idx = 0; idx < 256; idx++) EXPECT_EQ(Find(hdict, set.keys[idx]), idx);
  HashDictFree(hdict);
}

TEST(HashDictRows, LeaveKeysWhoseSumsPass32BitsAlone) {
  KeySet set = EveryLength(9);
  HashDict* hdict = set.Build();
  HashDict large = *hdict;
  large.h_size = 0x7FFFFFFF;  // three largest coefficients do not fit
  ASSERT_EQ(large.h_rows, nullptr);
  large.h_rows = hashdict::RowsNew(large);
  EXPECT_EQ(RowsOf(large)->longest, 2u);
  hashdict::RowsDelete(&large);
  HashDictFree(hdict);
}

TEST(HashDictRows, DoNotComeForTheEmptyKeyAlone) {
  KeySet set{{""}, {}, {}};
  HashDict* hdict = set.Build();
  EXPECT_FALSE(HashDictPrepare(hdict));
  EXPECT_EQ(RowsOf(*hdict), nullptr);
  EXPECT_EQ(Find(hdict, ""), 0u);
  HashDictFree(hdict);
}

TEST(HashDictRows, GoWithTheirDictionary) {
  const support::TemporaryDirectory directory;
  Ledger ledger;
  KeySet set = EveryLength(9);
  HashDict* built = Prepared(&set);
  EXPECT_EQ(ledger.blocks(), 2u);
  ASSERT_TRUE(HashDictWrite(built, directory.path().c_str(), "rows", nullptr, FALSE));
  std::string image = support::ImageOf(built);
  HashDictFree(built);
  EXPECT_EQ(ledger.blocks(), 0u);

  HashDict* opened = HashDictOpen(directory.path().c_str(), "rows", nullptr);
  ASSERT_NE(opened, nullptr);
  EXPECT_TRUE(HashDictPrepare(opened));
  EXPECT_EQ(ledger.blocks(), 2u);
  EXPECT_EQ(Find(opened, "baaaaaaaa"), 18u);
  EXPECT_TRUE(HashDictClose(opened));
  EXPECT_EQ(ledger.blocks(), 0u);

  {
    const InRecord mapped(image);
    EXPECT_TRUE(HashDictPrepare(mapped.get()));
    EXPECT_EQ(ledger.blocks(), 2u);
    EXPECT_EQ(Find(mapped.get(), "baaaaaaaa"), 18u);
  }
  EXPECT_EQ(ledger.blocks(), 0u);
}

TEST(HashDictRows, ComeWithABuildOfManyKeys) {
  for (const int count : {511, 512}) {
    KeySet set;
    for (int i = 0; i < count; i++) set.keys.push_back("key " + std::to_string(i));
    Ledger ledger;
    HashDict* hdict = set.Build(2);
    EXPECT_EQ(ledger.arrays(), 4u);
    EXPECT_EQ(RowsOf(*hdict) != nullptr, count == 512);
    for (Id idx = 0; idx < set.keys.size(); idx++) EXPECT_EQ(Find(hdict, set.keys[idx]), idx);
    HashDictFree(hdict);
    EXPECT_EQ(ledger.arrays() + ledger.blocks(), 0u);
  }
}

TEST(HashDictPrepareDeathTest, ADictionaryIsNeeded) {
  EXPECT_ASSERTION(HashDictPrepare(nullptr), "dict/hashdict", "HashDictPrepare", "hdict != ((void *)0)");
}

}  // namespace
