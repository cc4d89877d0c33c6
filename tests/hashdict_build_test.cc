// Building perfect-hash dictionaries: the same bytes as the golden images and as a plain model, and every key found.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <rapidcheck.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "dict/hashdict.h"
#include "support/death.h"
#include "support/files.h"
#include "support/hashdict_keys.h"
#include "support/hashdict_model.h"
#include "support/ledger.h"
#include "support/messages.h"

namespace {

using support::Find;
using support::ImageOf;
using support::KeySet;
using support::Ledger;
using support::Messages;
using support::NumberWords;

constexpr const char* kModule = "dict/hashdict";
constexpr Id kNotFound = 0xFFFFFFFE;

struct Freed {
  void operator()(HashDict* hdict) const { HashDictFree(hdict); }
};
using Built = std::unique_ptr<HashDict, Freed>;

KeySet FirstNumbers(size_t count) {
  return {{NumberWords().begin(), NumberWords().begin() + static_cast<ptrdiff_t>(count)}, {}, {}};
}

// n keys of 1 to 20 bytes, any bytes, no two alike.
KeySet ManyKeys(Id n) {
  KeySet set;
  ULong state = n;
  for (Id i = 0; i < n; i++) {
    std::string key(reinterpret_cast<const char*>(&i), 4);
    for (ULong more = i * 7 % 17; more > 0; more--) {
      state = state * 6364136223846793005 + 1442695040888963407;
      key += static_cast<char>(state >> 56);
    }
    set.keys.push_back(key);
  }
  return set;
}

void ExpectFound(const HashDict* hdict, const KeySet& set) {
  for (Id i = 0; i < set.keys.size(); i++) {
    ASSERT_EQ(Find(hdict, set.keys[i]), set.values.empty() ? i : set.values[i]) << i;
  }
}

TEST(HashDictBuild, GivesTheGoldenImages) {
  KeySet numbers = FirstNumbers(19), five = FirstNumbers(5), four = FirstNumbers(4), abc, none, empty_key, bytes;
  support::ExpectGolden("hashdict-plain.dic", ImageOf(Built(numbers.Build()).get()));
  support::ExpectGolden("hashdict-probe3.dic", ImageOf(Built(numbers.Build(3)).get()));
  support::ExpectGolden("hashdict-probe8.dic", ImageOf(Built(five.Build(8)).get()));
  numbers.values = {0, 5, 20, 45, 80, 125, 180, 245, 320, 405, 500, 605, 720, 845, 980, 1125, 1280, 1445, 1620};
  support::ExpectGolden("hashdict-values.dic", ImageOf(Built(numbers.BuildValues(11)).get()));
  four.values = {0, 0xFFFFFFFF, 0x80000001, 0xFFFFFFFE};
  support::ExpectGolden("hashdict-values32.dic", ImageOf(Built(four.BuildValues(32)).get()));
  abc.keys = {"abc"};
  support::ExpectGolden("hashdict-odd.dic", ImageOf(Built(abc.Build()).get()));
  support::ExpectGolden("hashdict-empty.dic", ImageOf(Built(none.Build()).get()));
  empty_key.keys = {""};
  support::ExpectGolden("hashdict-emptykey.dic", ImageOf(Built(empty_key.Build()).get()));
  for (int byte = 0; byte < 256; byte++) bytes.keys.emplace_back(1, static_cast<char>(byte));
  support::ExpectGolden("hashdict-bytes.dic", ImageOf(Built(bytes.Build(1)).get()));
}

// One image followed by hand. A single key, "abc": m = trunc(1 * 1.25) + 5 = 6, and of one edge every graph comes
// apart.
TEST(HashDictBuild, OneKeyByHand) {
  KeySet set{{"abc"}, {}, {}};
  const Built hdict(set.Build());
  EXPECT_EQ(hdict->h_nentries, 1u);
  EXPECT_EQ(hdict->h_size, 6u);
  EXPECT_EQ(hdict->h_maxlen, 3u);
  EXPECT_EQ(hdict->h_nchars, 3u);
  EXPECT_EQ(hdict->h_nbits, 1u);
  EXPECT_EQ(hdict->h_rank_size, 512u);
  EXPECT_EQ(hdict->h_coef_size, 112u) << "27 numbers, and 4 bytes to fill the last word";
  EXPECT_EQ(hdict->h_fun_size, 8u);
  for (int byte = 0; byte < 256; byte++) {
    EXPECT_EQ(hdict->h_rank[byte], byte == 'a' ? 0 : byte == 'b' ? 1 : byte == 'c' ? 2 : -1) << byte;
  }
  // What random() gives after srandom(0), and what it leaves modulo 6.
  const Id drawn[27] = {1804289383, 846930886,  1681692777, 1714636915, 1957747793, 424238335,  719885386,
                        1649760492, 596516649,  1189641421, 1025202362, 1350490027, 783368690,  1102520059,
                        2044897763, 1967513926, 1365180540, 1540383426, 304089172,  1303455736, 35005211,
                        521595368,  294702567,  1726956429, 336465782,  861021530,  278722862};
  for (int i = 0; i < 27; i++) EXPECT_EQ(hdict->h_coef[i], drawn[i] % 6) << i;
  EXPECT_EQ(hdict->h_coef[27], 0u);
  // Its triples are those of rank 0 at position 0, rank 1 at 1 and rank 2 at 2: (1 4 3), (2 1 5), (2 2 2).
  //   a, modulo 6: 1, 3, 5                                 first vertex  5 + 1 = 6
  //   b, modulo 5: 4, 5 - 5 = 0, 2                         second        5 + 1 + 2 = 8, past 6: 2, + 1 = 3
  //   c, modulo 4: 3, 8 - 4 - 4 = 0, 2, and b <= c: 3      third         5 + 1 + 3 = 9, past 6: 3, + 1 = 4
  const Id expected[9] = {1, 4, 3, 2, 1, 5, 2, 2, 2};
  for (int i = 0; i < 9; i++) EXPECT_EQ(hdict->h_coef[(i / 3 * 3 + i / 3) * 3 + i % 3], expected[i]);
  for (const Id v : {6u, 3u, 4u}) {
    hdict->h_fun[0] = ULong{1} << v;
    EXPECT_EQ(Find(hdict.get(), "abc"), 1u) << v;
  }
  for (const Id v : {0u, 1u, 2u, 5u}) {
    hdict->h_fun[0] = ULong{1} << v;
    EXPECT_EQ(Find(hdict.get(), "abc"), 0u) << v;
  }
}

TEST(HashDictBuild, AnEmptySetHasFiveVerticesAndNoKey) {
  KeySet none;
  for (const UByte probe : std::initializer_list<UByte>{0, 4}) {
    const Built hdict(none.Build(probe));
    EXPECT_EQ(hdict->h_size, 5u);
    EXPECT_EQ(hdict->h_maxlen, 0u);
    EXPECT_EQ(hdict->h_nbits, 1u);
    EXPECT_EQ(hdict->h_coef, nullptr);
    EXPECT_EQ(hdict->h_probe_code, nullptr);
    EXPECT_EQ(hdict->h_probe_size, 0u);
    EXPECT_EQ(Find(hdict.get(), "a"), kNotFound);
    EXPECT_EQ(Find(hdict.get(), std::string(1, '\0')), kNotFound);
    EXPECT_EQ(Find(hdict.get(), ""), probe == 0 ? 0u : kNotFound);
  }
  EXPECT_TRUE(none.calls.empty());
}

TEST(HashDictBuild, ASingleEmptyKeyNeedsNoCoefficients) {
  KeySet set{{""}, {}, {}};
  const Built hdict(set.Build());
  EXPECT_EQ(hdict->h_maxlen, 0u);
  EXPECT_EQ(hdict->h_nchars, 0u);
  EXPECT_EQ(hdict->h_coef, nullptr);
  EXPECT_EQ(hdict->h_coef_size, 0u);
  EXPECT_EQ(Find(hdict.get(), ""), 0u);

  set = {{""}, {1000}, {}};
  EXPECT_EQ(Find(Built(set.BuildValues(10)).get(), ""), 1000u);
}

TEST(HashDictBuild, SetsEveryFieldOfABuiltDictionary) {
  KeySet set = FirstNumbers(19);
  const Built hdict(set.Build(3));
  EXPECT_TRUE(hdict->h_created);
  EXPECT_EQ(hdict->h_file, nullptr);
  EXPECT_EQ(hdict->h_file_size, 0u);
  EXPECT_EQ(hdict->h_probe, 3u);
  EXPECT_EQ(hdict->h_probe_mask, 0xFFFFFFu);
  EXPECT_EQ(hdict->h_probe_size, 176u) << "3 * 19 entries of 24 bits, in whole words";
  EXPECT_EQ(HashDictSize(hdict.get()), 19u);
  EXPECT_EQ(HashDictMaxLength(hdict.get()), 9u);
  EXPECT_EQ(HashDictFileSize(hdict.get()), 2920u);
}

TEST(HashDictBuild, TheNumberOfVerticesIsTruncated) {
  const Id vertices[] = {5, 6, 7, 8, 10, 11, 12, 13, 15};
  for (Id n = 0; n < 9; n++) {
    KeySet set = ManyKeys(n);
    EXPECT_EQ(Built(set.Build())->h_size, vertices[n]) << n;
  }
}

TEST(HashDictBuild, ValuesAreAsWideAsTheNumberOfKeys) {
  for (const auto& [n, nbits] : {std::pair<Id, int>{1, 1}, {2, 2}, {3, 2}, {4, 3}, {255, 8}, {256, 9}}) {
    KeySet set = ManyKeys(n);
    EXPECT_EQ(Built(HashDictBuild(n, &set, KeySet::Key, nullptr, 32, 0, FALSE))->h_nbits, nbits) << n;
  }
}

TEST(HashDictBuild, ValuesOfThirtyTwoBitsAreFoundUnchanged) {
  KeySet set = FirstNumbers(19);
  set.values.assign(19, 0xFFFFFFFF);
  set.values[3] = 0;
  set.values[4] = 0x80000000;
  const Built hdict(set.BuildValues(32));
  ExpectFound(hdict.get(), set);
}

TEST(HashDictBuild, ValuesOfEveryWidthAreFound) {
  for (UByte nbits = 1; nbits <= 32; nbits++) {
    KeySet set = ManyKeys(200);
    const ULong mask = (ULong{1} << nbits) - 1;
    for (Id i = 0; i < 200; i++) set.values.push_back(static_cast<Id>(i * 0x9E3779B97F4A7C15 >> 20 & mask));
    set.values[7] = static_cast<Id>(mask);
    const Built hdict(set.BuildValues(nbits));
    EXPECT_EQ(hdict->h_nbits, nbits);
    ExpectFound(hdict.get(), set);
  }
}

TEST(HashDictBuild, TheSameKeysGiveTheSameImage) {
  KeySet set = ManyKeys(3000);
  const std::string first = ImageOf(Built(set.Build(2)).get());
  srandom(12345);
  for (int i = 0; i < 100; i++) random();
  EXPECT_EQ(ImageOf(Built(set.Build(2)).get()), first);
}

TEST(HashDictBuild, GivesTheSameBytesWhateverMemoryHeldBefore) {
  const auto image_after = [](unsigned char byte) {
    mallopt(M_PERTURB, byte);  // fills what malloc gives out with the byte's complement
    support::faults::FillBlocks(byte);
    KeySet set = ManyKeys(3000);
    std::string image = ImageOf(Built(set.Build(5)).get());
    support::faults::FillBlocks(0);
    mallopt(M_PERTURB, 0);
    return image;
  };
  const std::string first = image_after(0x5A);
  EXPECT_GT(first.size(), 3000u * 25);
  EXPECT_EQ(image_after(0xA6), first);
}

TEST(HashDictBuild, StartsTheProcessWideGeneratorAfresh) {
  KeySet set{{"abc"}, {}, {}};
  srandom(99);
  const Built hdict(set.Build());
  srandom(0);
  for (int i = 0; i < 27; i++) random();
  const long next = random();
  srandom(99);
  const Built again(set.Build());
  EXPECT_EQ(random(), next) << "one draw a coefficient, and no other";
}

TEST(HashDictBuild, StorageThatIsNotClearedDoesNoHarm) {
  KeySet set = ManyKeys(500);
  support::faults::FillAnonArray(0xA5);
  const Built hdict(set.Build(4));
  support::faults::FillAnonArray(0);
  ExpectFound(hdict.get(), set);
}

TEST(HashDictBuild, FreeReleasesEverything) {
  KeySet set = ManyKeys(100);
  Ledger ledger;
  HashDict* hdict = set.Build(2);
  EXPECT_EQ(ledger.blocks(), 1u) << "of the graph nothing is left";
  EXPECT_EQ(ledger.arrays(), 4u);
  HashDictFree(hdict);
  EXPECT_EQ(ledger.blocks(), 0u);
  EXPECT_EQ(ledger.arrays(), 0u);

  KeySet empty_key{{""}, {}, {}};
  hdict = empty_key.Build();
  EXPECT_EQ(ledger.arrays(), 2u);
  HashDictFree(hdict);
  EXPECT_EQ(ledger.arrays(), 0u);
}

TEST(HashDictBuild, MatchesTheModelAroundTheLookAhead) {
  for (Id n = 0; n <= 70; n++) {
    KeySet set = ManyKeys(n);
    EXPECT_TRUE(ImageOf(Built(set.Build(1)).get()) == support::ModelBuild(set, 0, 1).image) << n;
  }
}

TEST(HashDictBuild, MatchesTheModelOnManyKeys) {
  KeySet set = ManyKeys(30000);
  const Built hdict(set.Build());
  EXPECT_TRUE(ImageOf(hdict.get()) == support::ModelBuild(set, 0, 0).image);
  ExpectFound(hdict.get(), set);
}

TEST(HashDictBuild, MatchesTheModelOnAnyKeys) {
  EXPECT_TRUE(rc::check([] {
    const auto keys = *rc::gen::arbitrary<std::set<std::string>>();
    KeySet set{{keys.begin(), keys.end()}, {}, {}};
    const auto probe = static_cast<UByte>(*rc::gen::inRange(0, 9));
    const Built hdict(set.Build(probe));
    const bool same = ImageOf(hdict.get()) == support::ModelBuild(set, 0, probe).image;
    RC_ASSERT(same);
    for (Id i = 0; i < set.keys.size(); i++) RC_ASSERT(Find(hdict.get(), set.keys[i]) == i);
  }));
}

TEST(HashDictBuild, MatchesTheModelOnAnyValues) {
  EXPECT_TRUE(rc::check([] {
    const auto keys = *rc::gen::arbitrary<std::set<std::string>>();
    const auto nbits = static_cast<UByte>(*rc::gen::inRange(1, 33));
    const ULong mask = (ULong{1} << nbits) - 1;
    KeySet set{{keys.begin(), keys.end()}, {}, {}};
    for (size_t i = 0; i < keys.size(); i++) set.values.push_back(static_cast<Id>(*rc::gen::arbitrary<Id>() & mask));
    const Built hdict(set.BuildValues(nbits));
    const bool same = ImageOf(hdict.get()) == support::ModelBuild(set, nbits, 0).image;
    RC_ASSERT(same);
    for (Id i = 0; i < set.keys.size(); i++) RC_ASSERT(Find(hdict.get(), set.keys[i]) == set.values[i]);
  }));
}

TEST(HashDictBuild, KeysOfTheGreatestLengthAreFound) {
  KeySet set{{std::string(65535, 'a'), std::string(65534, 'a'), std::string(65534, 'a') + "b", "a"}, {}, {}};
  const Built hdict(set.Build(8));
  EXPECT_EQ(hdict->h_maxlen, 65535u);
  ExpectFound(hdict.get(), set);
  EXPECT_EQ(Find(hdict.get(), std::string(65536, 'a')), kNotFound);
  EXPECT_EQ(Find(hdict.get(), std::string(65533, 'a')), kNotFound);
}

TEST(HashDictBuild, AWideProbeCodeTurnsForeignKeysAway) {
  KeySet set = ManyKeys(1000);
  const Built hdict(set.Build(8));
  const std::set<std::string> keys(set.keys.begin(), set.keys.end());
  ULong state = 1;
  for (int i = 0; i < 20000; i++) {
    std::string foreign;
    for (int j = 0; j < 6; j++) {
      state = state * 6364136223846793005 + 1442695040888963407;
      foreign += static_cast<char>(state >> 56);
    }
    if (keys.count(foreign) > 0) continue;
    ASSERT_EQ(Find(hdict.get(), foreign), kNotFound);
  }
}

// Each pass asks for every key, in ascending order.
std::vector<ULong> Passes(int passes, ULong n) {
  std::vector<ULong> calls;
  for (int pass = 0; pass < passes; pass++) {
    for (ULong i = 0; i < n; i++) calls.push_back(i);
  }
  return calls;
}

TEST(HashDictBuildCalls, KeysAreAskedForOnceToSizeAndOnceAnAttempt) {
  KeySet set = FirstNumbers(19);  // three attempts
  const Built hdict(set.Build());
  EXPECT_EQ(set.calls, Passes(1 + 3, 19));
}

TEST(HashDictBuildCalls, AndOnceMoreForProbeCodes) {
  KeySet set = FirstNumbers(19);
  const Built hdict(set.Build(2));
  EXPECT_EQ(set.calls, Passes(1 + 3 + 1, 19));
}

TEST(HashDictBuildCalls, ValuesAreAskedForInReverseOrderOfRemovalAndThenWithTheirKeys) {
  KeySet set = FirstNumbers(19);
  set.values.assign(19, 1);
  const Built hdict(set.BuildValues(1));
  std::vector<ULong> expected = Passes(1 + 3, 19);
  // The order in which the model removes the edges of the third graph, from its last to its first.
  std::vector<support::ModelTriple> edges;
  const std::vector<int> rank(hdict->h_rank, hdict->h_rank + 256);
  const std::vector<Id> coef(hdict->h_coef, hdict->h_coef + hdict->h_coef_size / 4);
  for (const std::string& key : set.keys) edges.push_back(support::ModelHash(key, rank, coef, 20, 28));
  const std::vector<Id> order = support::ModelGraph(edges, 28).order();
  ASSERT_EQ(order.size(), 19u);
  for (size_t i = 19; i-- > 0;) expected.push_back(KeySet::kValue | (order[i] - 1));
  for (ULong i = 0; i < 19; i++) {
    expected.push_back(i);
    expected.push_back(KeySet::kValue | i);
  }
  EXPECT_EQ(set.calls, expected);
}

// A key callback with one buffer, which every call overwrites.
struct OneBuffer {
  static UShort Key(void* self, Id idx, const UByte** bytes) {
    auto* set = static_cast<OneBuffer*>(self);
    set->buffer = set->keys[idx];
    *bytes = support::Bytes(set->buffer);
    return static_cast<UShort>(set->buffer.size());
  }
  std::vector<std::string> keys;
  std::string buffer;
};

TEST(HashDictBuildCalls, AKeyNeedStayOnlyUntilTheNextCall) {
  KeySet set = ManyKeys(100);
  OneBuffer one{set.keys, {}};
  const Built hdict(HashDictBuild(100, &one, OneBuffer::Key, nullptr, 0, 3, FALSE));
  EXPECT_EQ(ImageOf(hdict.get()), ImageOf(Built(set.Build(3)).get()));
}

// A key callback that gives other bytes in one of its passes.
struct Fickle {
  static UShort Key(void* self, Id idx, const UByte** bytes) {
    auto* set = static_cast<Fickle*>(self);
    const bool other = set->calls++ / set->keys.size() == set->pass;
    static const std::string longer(100, 'n');
    const std::string& key = !other ? set->keys[idx] : set->instead == nullptr ? longer : *set->instead;
    *bytes = set->none && other && idx == 2 ? nullptr : support::Bytes(key);
    return static_cast<UShort>(key.size());
  }
  HashDict* Build(UByte probe, DictValFun val = nullptr) {
    return HashDictBuild(static_cast<Id>(keys.size()), this, Key, val, 5, probe, FALSE);
  }
  static Id One(void*, Id) { return 1; }

  std::vector<std::string> keys;
  size_t pass;
  bool none = false;
  const std::string* instead = nullptr;
  size_t calls = 0;
};

TEST(HashDictBuildCalls, KeysThatChangeInOneAttemptCostThatAttempt) {
  // Longer than every key measured, in the first attempt: no vertices, so the graph does not come apart.
  Fickle fickle{NumberWords(), 1};
  const Built hdict(fickle.Build(0));
  EXPECT_GT(fickle.calls, 2 * 19u);
  KeySet set = FirstNumbers(19);
  ExpectFound(hdict.get(), set);
}

// A key set as slices.
struct Slices {
  explicit Slices(const KeySet& set) {
    for (const std::string& key : set.keys) {
      keys.push_back(support::Bytes(key));
      lens.push_back(static_cast<UShort>(key.size()));
    }
  }
  std::vector<const UByte*> keys;
  std::vector<UShort> lens;

  Built Build(const Id* values, UByte nbits, UByte probe, Boolean verbose = FALSE) const {
    return Built(
        HashDictBuildFromSlices(static_cast<Id>(keys.size()), keys.data(), lens.data(), values, nbits, probe, verbose));
  }
};

TEST(HashDictBuildFromSlices, GivesTheGoldenImages) {
  const KeySet numbers = FirstNumbers(19);
  const Slices slices(numbers);
  support::ExpectGolden("hashdict-plain.dic", ImageOf(slices.Build(nullptr, 0, 0).get()));
  support::ExpectGolden("hashdict-probe3.dic", ImageOf(slices.Build(nullptr, 0, 3).get()));
  support::ExpectGolden("hashdict-probe8.dic", ImageOf(Slices(FirstNumbers(5)).Build(nullptr, 0, 8).get()));
}

TEST(HashDictBuildFromSlices, StoresValues) {
  const KeySet set = ManyKeys(1000);
  std::vector<Id> values;
  for (Id i = 0; i < 1000; i++) values.push_back(i * 7919 % 1024);
  const Built hdict = Slices(set).Build(values.data(), 10, 0);
  EXPECT_EQ(hdict->h_nbits, 10);
  for (Id i = 0; i < 1000; i++) EXPECT_EQ(Find(hdict.get(), set.keys[i]), values[i]);
  KeySet callbacks = set;
  callbacks.values = values;
  EXPECT_EQ(ImageOf(hdict.get()), ImageOf(Built(callbacks.BuildValues(10)).get()));
}

TEST(HashDictBuildFromSlices, NoKeysNeedNoArrays) {
  const Built hdict(HashDictBuildFromSlices(0, nullptr, nullptr, nullptr, 0, 0, FALSE));
  EXPECT_EQ(hdict->h_nentries, 0u);
  EXPECT_EQ(hdict->h_size, 5u);
}

TEST(HashDictBuildFromSlices, AnEmptyKeyMayBeNull) {
  const UByte* keys[] = {support::Bytes(NumberWords()[1]), nullptr};
  const UShort lens[] = {4, 0};
  const Built hdict(HashDictBuildFromSlices(2, keys, lens, nullptr, 0, 8, FALSE));
  EXPECT_EQ(Find(hdict.get(), "eins"), 0u);
  EXPECT_EQ(Find(hdict.get(), ""), 1u);
}

TEST(HashDictBuildFromSlices, ReportsWhenAsked) {
  Messages messages;
  Slices(FirstNumbers(1)).Build(nullptr, 0, 0, TRUE);
  ASSERT_FALSE(messages.all().empty());
  EXPECT_EQ(messages.all()[0].text, "hdict: nentries=1");
}

TEST(HashDictBuildMessages, TellWhatHappensWhenAsked) {
  KeySet set = FirstNumbers(19);
  const Messages messages;
  const Built hdict(set.Build(0, TRUE));
  ASSERT_THAT(messages.texts(),
              ::testing::ElementsAre("hdict: nentries=19", "hdict: retry 1", "hdict: retry 2", "hdict: size=2kB"));
  const char* functions[] = {"HashDictInit", "GraphBuild", "GraphBuild", "GraphBuild"};
  for (size_t i = 0; i < 4; i++) {
    const support::Message& message = messages.all()[i];
    EXPECT_EQ(message.function, functions[i]);
    EXPECT_EQ(message.file, kModule);
    EXPECT_EQ(message.module, "qxdict");
    EXPECT_EQ(message.level, 2);
    EXPECT_FALSE(message.flag);
    EXPECT_GT(message.line, 0);
  }
}

TEST(HashDictBuildMessages, TheSizeCountsAllFourArrays) {
  // 512 + 112 + 8 bytes are 0 kB; 512 + 3072 + 368 + 256 are 4 (4208).
  KeySet abc{{"abc"}, {}, {}}, bytes;
  for (int byte = 0; byte < 256; byte++) bytes.keys.emplace_back(1, static_cast<char>(byte));
  const Messages messages;
  const Built first(abc.Build(0, 2)), second(bytes.Build(1, -1));
  EXPECT_THAT(messages.texts(), ::testing::ElementsAre("hdict: nentries=1", "hdict: size=0kB", "hdict: nentries=256",
                                                       "hdict: retry 1", "hdict: retry 2", "hdict: size=4kB"));
}

TEST(HashDictBuildMessages, NothingIsToldUnasked) {
  KeySet set = FirstNumbers(19);
  const Messages messages;
  const Built hdict(set.Build());
  EXPECT_TRUE(messages.all().empty());
}

// Two equal keys. The build goes on for ever, so the key callback ends the process, and tells what was reported.
struct Twins {
  static UShort Key(void* self, Id, const UByte** bytes) {
    auto* twins = static_cast<Twins*>(self);
    const int attempt = (twins->calls++ - 2) / 2 + 1;
    if (!twins->messages.all().empty() && twins->told_at == 0) twins->told_at = attempt - 1;
    if (attempt == 1500) {
      const auto& all = twins->messages.all();
      const bool right = all.size() == 1 && all[0].text == "hdict: cannot generate" && all[0].level == 4 &&
                         all[0].function == "GraphBuild" && all[0].module == "qxdict" && all[0].file == kModule &&
                         !all[0].flag;
      dprintf(2, "%s at attempt %d\n", right ? "told once" : "told wrongly", twins->told_at);
      _exit(5);
    }
    *bytes = support::Bytes(twins->key);
    return static_cast<UShort>(twins->key.size());
  }
  std::string key = "twin";
  int calls = 0, told_at = 0;
  Messages messages;
};

using HashDictBuildDeathTest = ::testing::Test;

TEST_F(HashDictBuildDeathTest, EqualKeysNeverEndAndAreToldOnceAtAttempt1001) {
  EXPECT_EXIT(
      {
        Twins twins;
        HashDictBuild(2, &twins, Twins::Key, nullptr, 0, 0, FALSE);
      },
      ::testing::ExitedWithCode(5), "told once at attempt 1001\n");
}

TEST_F(HashDictBuildDeathTest, ArgumentsMustFitTogether) {
  const char* text = "nbits <= 32 && (val == ((void *)0) || (probe == 0 && nbits != 0))";
  KeySet set = FirstNumbers(3);
  set.values = {0, 1, 0};
  const auto build = [&set](DictValFun val, UByte nbits, UByte probe) {
    HashDictFree(HashDictBuild(3, &set, KeySet::Key, val, nbits, probe, FALSE));
  };
  EXPECT_ASSERTION(build(nullptr, 33, 0), kModule, "HashDictBuild", text);
  EXPECT_ASSERTION(build(KeySet::Value, 33, 0), kModule, "HashDictBuild", text);
  EXPECT_ASSERTION(build(KeySet::Value, 0, 0), kModule, "HashDictBuild", text);
  EXPECT_ASSERTION(build(KeySet::Value, 8, 1), kModule, "HashDictBuild", text);
  build(nullptr, 32, 8);
  build(KeySet::Value, 32, 0);
}

TEST_F(HashDictBuildDeathTest, SlicesWantKeysAndFittingArguments) {
  const UByte* keys[] = {nullptr};
  const UShort lens[] = {1};
  const Id values[] = {0};
  EXPECT_ASSERTION(HashDictBuildFromSlices(1, keys, lens, nullptr, 0, 0, FALSE), kModule, "HashDictInit",
                   "bytes != ((void *)0)");
  EXPECT_ASSERTION(HashDictBuildFromSlices(1, keys, lens, values, 0, 0, FALSE), kModule, "HashDictBuild",
                   "nbits <= 32 && (val == ((void *)0) || (probe == 0 && nbits != 0))");
}

TEST_F(HashDictBuildDeathTest, AProbeCodeHasEightBytesAtMost) {
  KeySet set = FirstNumbers(3);
  EXPECT_ASSERTION(set.Build(9), kModule, "HashDictInit", "probe <= 8");
  EXPECT_ASSERTION(set.Build(255), kModule, "HashDictInit", "probe <= 8");
}

TEST_F(HashDictBuildDeathTest, EveryKeyHasBytesInEveryPass) {
  const char* text = "bytes != ((void *)0)";
  const std::vector<std::string> keys = {"null", "eins", "zwei", "drei"};  // one attempt
  EXPECT_ASSERTION((Fickle{keys, 0, true}.Build(0)), kModule, "HashDictInit", text);
  EXPECT_ASSERTION((Fickle{keys, 1, true}.Build(0)), kModule, "GraphBuild", text);
  EXPECT_ASSERTION((Fickle{keys, 2, true}.Build(1)), kModule, "HashDictProbe", text);
  EXPECT_ASSERTION((Fickle{keys, 2, true}.Build(0, Fickle::One)), kModule, "HashDictProbe", text);
}

TEST_F(HashDictBuildDeathTest, WithProbeCodesEveryKeyIsLookedUp) {
  const char* text = "HashDictFind(hdict, bytes, len) == idx";
  const std::vector<std::string> keys = {"null", "eins", "zwei", "drei"};
  // Too long; another key; a byte that was not there before.
  EXPECT_ASSERTION((Fickle{keys, 2}.Build(1)), kModule, "HashDictProbe", text);
  EXPECT_ASSERTION((Fickle{keys, 2, false, &keys[1]}.Build(1)), kModule, "HashDictProbe", text);
  const std::string other = "x";
  EXPECT_ASSERTION((Fickle{keys, 2, false, &other}.Build(1)), kModule, "HashDictProbe", text);
}

TEST_F(HashDictBuildDeathTest, WithValuesEveryKeyIsLookedUp) {
  const char* text = "HashDictFind(hdict, bytes, len) == (*val)(dict, idx)";
  const std::vector<std::string> keys = {"null", "eins", "zwei", "drei"};
  EXPECT_ASSERTION((Fickle{keys, 2}.Build(0, Fickle::One)), kModule, "HashDictProbe", text);
}

TEST_F(HashDictBuildDeathTest, AValueMustFitItsWidth) {
  const char* text = "HashDictFind(hdict, bytes, len) == (*val)(dict, idx)";
  for (const UByte nbits : std::initializer_list<UByte>{1, 7, 31}) {
    KeySet set = FirstNumbers(4);
    set.values = {0, 0, Id{1} << nbits, 0};
    EXPECT_ASSERTION(set.BuildValues(nbits), kModule, "HashDictProbe", text);
  }
}

TEST_F(HashDictBuildDeathTest, StorageMustBeThere) {
  KeySet set = FirstNumbers(4);
  for (int nth = 0; nth < 7; nth++) {
    EXPECT_ASSERTION(
        {
          support::faults::FailAnonArray(nth);
          set.Build(1);
        },
        kModule, "ArrayNew", "nvalues == 0 || ptr != ((void *)0)")
        << nth;
  }
}

TEST_F(HashDictBuildDeathTest, MoreKeysThanThirtyOneBitsOfVerticesAllowEndTheProcess) {
  KeySet none;
  for (const Id n : {1717986915u, 3435973837u, 0xFFFFFFFFu}) {
    EXPECT_CLEAR_END(HashDictBuild(n, &none, KeySet::Key, nullptr, 0, 0, FALSE),
                     "hdict: too many entries=" + std::to_string(n));
  }
}

}  // namespace
