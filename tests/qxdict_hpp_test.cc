// The C++ face: what it owns, what it gives, and what becomes of exceptions on their way through C.

#include "dict/qxdict.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <list>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "support/files.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Optional;
using ::testing::Pair;

struct Thrown {};

// None of it can be copied by accident, all of it moves, nothing has a table of virtual functions.
template <class T>
constexpr bool kOwner =
    !std::is_copy_constructible_v<T> && std::is_nothrow_move_constructible_v<T> && !std::is_polymorphic_v<T>;
static_assert(kOwner<qx::Dict> && kOwner<qx::Table<int>> && kOwner<qx::DelTable<int>> && kOwner<qx::Attributes> &&
              kOwner<qx::AttributesBuilder> && kOwner<qx::Map32> && kOwner<qx::Map64> && kOwner<qx::Tree32> &&
              kOwner<qx::Tree64> && kOwner<qx::RedBlackTree> && kOwner<qx::ObjectCache>);
// An owner is the pointer that it owns.
static_assert(sizeof(qx::Map32) == sizeof(void*) && sizeof(qx::Tree64) == sizeof(void*) &&
              sizeof(qx::ObjectCache) == sizeof(void*));
static_assert(std::ranges::forward_range<decltype(std::declval<qx::Table<int>&>().entries())>);
static_assert(std::ranges::random_access_range<decltype(std::declval<const qx::Table<int>&>().selected())>);
static_assert(std::ranges::random_access_range<decltype(std::declval<const qx::Map32&>().pairs())>);
static_assert(std::ranges::forward_range<decltype(std::declval<const qx::Tree64&>().pairs())>);

TEST(HppBytes, TakesTextAndSpans) {
  const std::vector<UByte> bytes = {'a', 0, 'b'};
  EXPECT_EQ(qx::Bytes("abc").size(), 3u);
  EXPECT_EQ(qx::Bytes(std::string("a\0c", 3)).size(), 3u);
  EXPECT_EQ(qx::Bytes(std::string_view("ab")).text(), "ab");
  EXPECT_EQ(qx::Bytes(std::span(bytes)).text(), std::string_view("a\0b", 3));
}

TEST(HppBytes, LengthPastWhatTheCallTakesThrows) {
  EXPECT_EQ(qx::Bytes("abc").length(3), 3u);
  EXPECT_THROW(static_cast<void>(qx::Bytes("abcd").length(3)), std::length_error);
}

TEST(HppDict, GivesEachKeyItsPlace) {
  const std::vector<std::string> words = {"one", "two", "three"};
  const qx::Dict dict = qx::Dict::Build(words, {.probe = 4});
  EXPECT_EQ(dict.size(), 3u);
  EXPECT_EQ(dict.max_length(), 5u);
  EXPECT_EQ(dict.Find("one"), 0u);
  EXPECT_EQ(dict.Find("two"), 1u);
  EXPECT_EQ(dict.Find("three"), 2u);
  EXPECT_EQ(dict.Find("four"), std::nullopt);
  EXPECT_EQ(dict.Find("a key longer than every key"), std::nullopt);
}

TEST(HppDict, CanBePreparedForManyLookUps) {
  const std::vector<std::string> words = {"one", "two", "three"};
  qx::Dict dict = qx::Dict::Build(words, {.probe = 4});
  EXPECT_TRUE(dict.Prepare());
  for (Id i = 0; i < words.size(); i++) EXPECT_EQ(dict.Find(words[i]), i);
  EXPECT_EQ(dict.Find("no such word"), std::nullopt);
}

TEST(HppDict, GivesEachKeyItsValue) {
  const std::vector<std::string_view> words = {"a", "b", "c"};
  const qx::Dict dict = qx::Dict::Build(words, std::vector<Id>{70000, 0, 7});
  EXPECT_EQ(dict.Find("a"), 70000u);
  EXPECT_EQ(dict.Find("b"), 0u);
  EXPECT_EQ(dict.Find("c"), 7u);
  EXPECT_EQ(dict.get()->h_nbits, 17);
  EXPECT_THROW(qx::Dict::Build(words, std::vector<Id>{1, 2}), std::length_error);
}

// A range that makes its strings as it is walked.
struct Words {
  UInt size() const { return 3; }
  std::string At(UInt i) const { return std::vector<std::string>{"x", "yy", ""}[i]; }
  auto begin() const { return qx::detail::Places<&Words::At>(*this).begin(); }
  auto end() const { return qx::detail::Places<&Words::At>(*this).end(); }
};

TEST(HppDict, SameImageAsTheCallbacksGive) {
  const std::vector<std::string> words = {"x", "yy", ""};
  const qx::Dict by_range = qx::Dict::Build(words);
  const qx::Dict by_function = qx::Dict::Build(3, [&](Id i) { return words[i]; });
  const qx::Dict by_copies = qx::Dict::Build(Words());
  const support::TemporaryDirectory directory;
  by_range.Write(directory.path().c_str(), "range");
  by_function.Write(directory.path().c_str(), "function");
  by_copies.Write(directory.path().c_str(), "copies");
  const std::string image = support::ReadFile(directory.file("range.dic"));
  EXPECT_EQ(image.size(), by_range.image_size());
  EXPECT_EQ(image, support::ReadFile(directory.file("function.dic")));
  EXPECT_EQ(image, support::ReadFile(directory.file("copies.dic")));
}

TEST(HppDict, ExceptionOfTheKeyFunctionIsThrownAgain) {
  EXPECT_THROW(qx::Dict::Build(3,
                               [](Id i) -> std::string {
                                 if (i == 2) throw Thrown();
                                 return std::to_string(i);
                               }),
               Thrown);
}

TEST(HppDict, FindsEqualKeys) {
  EXPECT_EQ(qx::Dict::FindEqual(std::vector<std::string>{"a", "b", "c"}), std::nullopt);
  EXPECT_THAT(qx::Dict::FindEqual(std::vector<std::string>{"a", "b", "c", "b", "a"}), Optional(Pair(1, 3)));
}

TEST(HppDict, AFileThatCannotBeReplacedThrows) {
  const qx::Dict dict = qx::Dict::Build(std::vector<std::string>{"k"});
  try {
    dict.Replace("/nonexistent", "d");
    FAIL() << "nothing was thrown";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), ENOENT);
    EXPECT_NE(std::string(error.what()).find("cannot replace /nonexistent/d.dic"), std::string::npos) << error.what();
  }
}

TEST(HppDict, TellsDamage) {
  const support::TemporaryDirectory directory;
  qx::Dict::Build(std::vector<std::string>{"k"}).Replace(directory.path().c_str(), "d");
  EXPECT_EQ(qx::Dict::Open(directory.path().c_str(), "d").Damage(), std::nullopt);
  std::string image = support::ReadFile(directory.file("d.dic"));
  image[12] = 77;  // distinct byte values
  support::WriteFile(directory.file("d.dic"), image);
  EXPECT_TRUE(qx::Dict::Open(directory.path().c_str(), "d").Damage().has_value());
}

TEST(HppDict, KeyPastTheLongestThrows) {
  EXPECT_THROW(qx::Dict::Build(std::vector<std::string>{std::string(65536, 'x')}), std::length_error);
}

TEST(HppDict, MapsWhatWasWritten) {
  const support::TemporaryDirectory directory;
  qx::Dict::Build(std::vector<std::string>{"k"}, {.probe = 8}).Write(directory.path().c_str(), "d", "other");
  const qx::Dict dict = qx::Dict::Open(directory.path().c_str(), "d", "other");
  EXPECT_EQ(dict.Find("k"), 0u);
  EXPECT_EQ(dict.Find("l"), std::nullopt);
}

TEST(HppDict, OpeningWhatIsNotThereThrowsItsErrno) {
  try {
    qx::Dict::Open("/nonexistent", "d");
    FAIL();
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), ENOENT);
    EXPECT_THAT(error.what(), HasSubstr("/nonexistent/d.dic"));
  }
  EXPECT_THROW(qx::Dict::Build(std::vector<std::string>{"k"}).Write("/nonexistent", "d"), std::system_error);
}

TEST(HppDict, ReadsChannelsAndMappings) {
  const support::TemporaryDirectory directory;
  const qx::Dict dict = qx::Dict::Build(std::vector<std::string>{"k", "m"}, {.probe = 4});
  Channel* out = ChannelNew(-1, -1);
  ASSERT_TRUE(ChannelOpenFile(out, directory.file("channel").c_str(), "w"));
  ASSERT_TRUE(HashDictFileWrite(dict.get(), out, FALSE));
  ASSERT_TRUE(ChannelClose(out));
  out = ChannelNew(-1, -1);
  ASSERT_TRUE(ChannelOpenFile(out, directory.file("mapping").c_str(), "w"));
  size_t written = 0;
  ASSERT_TRUE(HashDictMMWrite(dict.get(), out, &written));
  ASSERT_TRUE(ChannelClose(out));

  Channel* in = ChannelNew(-1, -1);
  ASSERT_TRUE(ChannelOpenFile(in, directory.file("channel").c_str(), "r"));
  const std::optional<qx::Dict> read = qx::Dict::Read(in);
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(read->Find("m"), 1u);
  EXPECT_FALSE(qx::Dict::Read(in).has_value());
  ChannelClose(in);

  const std::string mapping = support::ReadFile(directory.file("mapping"));
  const std::span bytes(reinterpret_cast<const UByte*>(mapping.data()), mapping.size());
  size_t at = 0;
  const std::optional<qx::Dict> mapped = qx::Dict::Map(bytes, &at);
  ASSERT_TRUE(mapped.has_value());
  EXPECT_EQ(mapped->Find("m"), 1u);
  EXPECT_EQ(at, mapping.size());
  EXPECT_FALSE(qx::Dict::Map(bytes, &at).has_value());
}

template <class T>
class HppTables : public ::testing::Test {};
using Tables = ::testing::Types<qx::Table<UInt>, qx::DelTable<UInt>>;
TYPED_TEST_SUITE(HppTables, Tables);

TYPED_TEST(HppTables, CountsWords) {
  TypeParam table(5);
  for (const char* word : {"to", "be", "or", "not", "to", "be"}) table[word] += 1;
  std::vector<std::pair<std::string, UInt>> entries;
  for (auto entry : table.entries()) entries.emplace_back(entry.key(), entry.value());
  EXPECT_THAT(entries, ElementsAre(Pair("to", 2), Pair("be", 2), Pair("or", 1), Pair("not", 1)));
}

TYPED_TEST(HppTables, FindGivesTheEntryOrNothing) {
  TypeParam table(5);
  table["key"].set(7);
  EXPECT_EQ(table.Find("key")->value(), 7u);
  EXPECT_EQ(table.Find("key")->key(), "key");
  EXPECT_FALSE(table.Find("other").has_value());
  EXPECT_TRUE(table.Contains("key"));
  EXPECT_FALSE(table.Contains(std::string("key\0", 4)));
  EXPECT_EQ(table.AtOffset(table.Find("key")->offset()).value(), 7u);
}

TYPED_TEST(HppTables, InsertGrowsAFullTableAndTryInsertDoesNot) {
  TypeParam table(5);
  for (int i = 0; i < 5; i++) table.Insert(std::to_string(i));
  EXPECT_TRUE(table.full());
  EXPECT_FALSE(table.TryInsert("one more").has_value());
  EXPECT_EQ(table.capacity(), 5u);
  table.Insert("one more").set(1);
  EXPECT_EQ(table.capacity(), 7u);
  EXPECT_EQ(table.size(), 6u);
  EXPECT_TRUE(table.TryInsert("another").has_value());
}

TYPED_TEST(HppTables, ReservesExactly) {
  TypeParam table(5);
  table["k"] += 1;
  table.Reserve(1000);
  EXPECT_EQ(table.capacity(), 1000u);
  EXPECT_EQ(table["k"].value(), 1u);
  EXPECT_THROW(table.Reserve(1431655766), std::length_error);
  EXPECT_EQ(table.Damage(), std::nullopt);
}

TYPED_TEST(HppTables, EmptyTableHasNoEntries) {
  TypeParam table(5);
  for (auto entry : table.entries()) FAIL() << entry.key();
  table["k"] += 1;
  table.Clear();
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(std::ranges::distance(table.entries()), 0);
}

TYPED_TEST(HppTables, IteratorsKeepTheirPlaceWhenCopied) {
  TypeParam table(5);
  for (const char* word : {"a", "b", "c"}) table[word] += 1;
  const auto entries = table.entries();
  auto at = entries.begin();
  const auto first = at++;
  EXPECT_EQ((*first).key(), "a");
  EXPECT_EQ((*at).key(), "b");
  EXPECT_TRUE(first != at);
  EXPECT_TRUE(first == entries.begin());
}

TYPED_TEST(HppTables, ForEachStopsWhenToldTo) {
  TypeParam table(5);
  for (const char* word : {"a", "b", "c"}) table[word] += 1;
  std::string seen;
  EXPECT_TRUE(table.ForEach([&](auto entry) { seen += entry.key(); }));
  EXPECT_EQ(seen, "abc");
  seen.clear();
  EXPECT_FALSE(table.ForEach([&](auto entry) {
    seen += entry.key();
    return entry.key() != "b";
  }));
  EXPECT_EQ(seen, "ab");
}

TYPED_TEST(HppTables, ExceptionOfAVisitorEndsTheWalkAndIsThrownAgain) {
  TypeParam table(5);
  for (const char* word : {"a", "b", "c"}) table[word] += 1;
  int visits = 0;
  EXPECT_THROW(table.ForEach([&](auto) {
    if (++visits == 2) throw Thrown();
  }),
               Thrown);
  EXPECT_EQ(visits, 2);
  EXPECT_EQ(table.size(), 3u);
}

TYPED_TEST(HppTables, SelectsAndSorts) {
  TypeParam table(5);
  table["a"].set(3);
  table["b"].set(1);
  table["c"].set(2);
  table["d"].set(9);
  EXPECT_EQ(table.Select([](auto entry) { return entry.value() < 5; }), 3u);
  table.Sort([](auto a, auto b) { return a.value() <=> b.value(); });
  std::string order;
  for (auto entry : table.selected()) order += entry.key();
  EXPECT_EQ(order, "bca");
  table.Sort([](auto a, auto b) { return static_cast<int>(b.value()) - static_cast<int>(a.value()); });
  EXPECT_EQ(table.At(0).key(), "a");
  EXPECT_EQ(table.Select([](auto) { return true; }, 2), 2u);
}

TYPED_TEST(HppTables, ExceptionsOfSelectionsAndComparisonsAreThrownAgain) {
  TypeParam table(5);
  for (const char* word : {"a", "b", "c"}) table[word] += 1;
  EXPECT_THROW(table.Select([](auto) -> bool { throw Thrown(); }), Thrown);
  EXPECT_EQ(table.size(), 0u);
  table.Clear();
  for (const char* word : {"a", "b", "c"}) table[word] += 1;
  EXPECT_EQ(table.SelectAll(), 3u);
  EXPECT_THROW(table.Sort([](auto, auto) -> int { throw Thrown(); }), Thrown);
  EXPECT_EQ(table.size(), 3u);
}

TYPED_TEST(HppTables, CopyIsIndependent) {
  TypeParam table(5);
  table["a"].set(1);
  TypeParam copy = table.Copy();
  copy["a"].set(2);
  copy["b"].set(3);
  EXPECT_EQ(table["a"].value(), 1u);
  EXPECT_EQ(table.size(), 1u);
  TypeParam moved = std::move(copy);
  EXPECT_EQ(moved["b"].value(), 3u);
}

// Keys whose case does not matter, with a hash that says so.
struct IgnoringCase {
  static char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
  UInt operator()(std::string_view key) const noexcept {
    UInt hash = 5381;
    for (const char c : key) hash = hash * 33 + static_cast<unsigned char>(Lower(c));
    return hash;
  }
  bool operator()(std::string_view a, std::string_view b) const noexcept {
    return std::ranges::equal(a, b, {}, Lower, Lower);
  }
};

TEST(HppTable, UsesAHashAndAnEqualityOfTheCallers) {
  qx::Table<UInt, IgnoringCase, IgnoringCase> table(5);
  for (int i = 0; i < 100; i++) table["Key" + std::to_string(i)] += 1;
  for (int i = 0; i < 100; i++) table["KEY" + std::to_string(i)] += 1;
  EXPECT_EQ(table.size(), 100u);
  EXPECT_EQ(table.Find("kEy99")->value(), 2u);
  EXPECT_EQ(table.Find("kEy99")->key(), "Key99");
}

TEST(HppDelTable, HashOfTheCallersServesTheCleanUpOfWalks) {
  qx::DelTable<UInt, IgnoringCase, IgnoringCase> table(5);
  for (int i = 0; i < 50; i++) table["Key" + std::to_string(i)] += 1;
  for (int i = 0; i < 50; i += 2) EXPECT_TRUE(table.Remove("KEY" + std::to_string(i)));
  EXPECT_FALSE(table.Remove("KEY0"));
  int walked = 0;
  EXPECT_TRUE(table.ForEach([&](auto) { walked++; }));
  EXPECT_EQ(walked, 25);
  table.Remove("key1");
  EXPECT_EQ(std::ranges::distance(table.entries()), 24);
  EXPECT_TRUE(table.Contains("kEY49"));
}

// A hash that counts how often it was asked: it lives in the table and moves with it.
struct Counting {
  int* asked;
  UInt operator()(std::string_view key) const noexcept {
    ++*asked;
    return static_cast<UInt>(key.size());
  }
};

TEST(HppTable, HashMayHaveState) {
  int asked = 0;
  qx::Table<UInt, Counting> table(5, {}, Counting{&asked});
  table["a"] += 1;
  const qx::Table<UInt, Counting> moved = std::move(table);
  EXPECT_EQ(asked, 1);
  table = moved.Copy();
  EXPECT_TRUE(table.Contains("a"));
  EXPECT_EQ(asked, 2);
}

struct Odd {
  char bytes[3];
};

TEST(HppTable, ValuesMayHaveAnySize) {
  qx::Table<Odd> table(5, {.key_size = 2, .mapped = true});
  table["a"].set(Odd{{'x', 'y', 'z'}});
  table["b"].set(Odd{{'1', '2', '3'}});
  EXPECT_EQ(std::string_view(table["a"].value().bytes, 3), "xyz");
  EXPECT_EQ(table.get()->t_val_len, 3u);
}

TEST(HppTable, SavesAndLoads) {
  const support::TemporaryDirectory directory;
  qx::Table<ULong> table(5);
  table["key"].set(1ul << 40);
  table.Save(directory.file("t"));
  EXPECT_EQ(qx::Table<ULong>::Load(directory.file("t"), true).Find("key")->value(), 1ul << 40);
  EXPECT_THROW(qx::Table<UInt>::Load(directory.file("t")), std::invalid_argument);
}

TEST(HppTable, ReplacesAFile) {
  const support::TemporaryDirectory directory;
  qx::Table<ULong> table(5);
  table.Save(directory.file("t"));
  table["key"].set(1);
  table.Replace(directory.file("t"));
  EXPECT_EQ(qx::Table<ULong>::Load(directory.file("t")).size(), 1u);
  EXPECT_THROW(table.Replace("/nonexistent/t"), std::system_error);
}

TEST(HppTable, FilesThatFailThrow) {
  const support::TemporaryDirectory directory;
  EXPECT_THROW(qx::Table<ULong>(5).Save("/nonexistent/t"), std::system_error);
  try {
    qx::Table<ULong>::Load("/nonexistent/t");
    FAIL();
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), ENOENT);
    EXPECT_THAT(error.what(), HasSubstr("error opening /nonexistent/t"));
  }
  qx::Table<ULong> table(5);
  table["key"] += 1;
  table.Save(directory.file("t"));
  support::WriteFile(directory.file("t"), support::ReadFile(directory.file("t")).substr(0, 50));
  EXPECT_THROW(qx::Table<ULong>::Load(directory.file("t")), std::runtime_error);
}

TEST(HppDelTable, ImageGoesRound) {
  qx::DelTable<UInt> table(5);
  table["a"].set(1);
  table["b"].set(2);
  table.Remove("a");
  const std::vector<UByte> image = table.Image();
  std::vector<UByte> twice = image;
  twice.insert(twice.end(), image.begin(), image.end());

  std::span<const UByte> rest(twice);
  qx::DelTable<UInt> read(5);
  ASSERT_TRUE(read.ReadImage(&rest));
  EXPECT_EQ(rest.size(), image.size());
  EXPECT_EQ(read.Find("b")->value(), 2u);
  EXPECT_FALSE(read.Contains("a"));
  ASSERT_TRUE(read.ReadImage(&rest));
  EXPECT_TRUE(rest.empty());
}

TEST(HppDelTable, RefusedImageLeavesAnEmptyTable) {
  qx::DelTable<UInt> table(5);
  table["a"].set(1);
  const std::vector<UByte> image = table.Image();
  for (size_t size = 0; size < image.size(); size++) {
    std::span<const UByte> rest(image.data(), size);
    qx::DelTable<UInt> read(5);
    read["old"] += 1;
    EXPECT_FALSE(read.ReadImage(&rest)) << size;
    EXPECT_TRUE(rest.empty());
    EXPECT_EQ(read.size(), 0u);
    read["new"] += 1;
    EXPECT_TRUE(read.Contains("new"));
  }
  std::span<const UByte> rest(image);
  qx::DelTable<ULong> other(5);
  EXPECT_FALSE(other.ReadImage(&rest));
  EXPECT_EQ(other["k"].value(), 0ul);
}

TEST(HppAttributes, GoRound) {
  const support::TemporaryDirectory directory;
  qx::AttributesBuilder builder(directory.path().c_str(), "a");
  builder.Add("one");
  builder.Add("");
  builder.Add("three");
  EXPECT_EQ(builder.size(), 3u);
  EXPECT_THROW(builder.Add(std::string(256, 'x')), std::length_error);
  builder.Commit();

  const qx::Attributes attributes = qx::Attributes::Open(directory.path().c_str(), "a");
  EXPECT_EQ(attributes.size(), 3u);
  EXPECT_EQ(attributes.Damage(), std::nullopt);
  EXPECT_EQ(attributes.Get(0), "one");
  EXPECT_EQ(attributes.Get(1), "");
  EXPECT_EQ(attributes.Get(3), std::nullopt);
  std::vector<std::string> seen;
  EXPECT_TRUE(attributes.ForEach([&](std::string_view text) { seen.emplace_back(text); }, 1));
  EXPECT_THAT(seen, ElementsAre("", "three"));
  EXPECT_TRUE(attributes.ForEach([](std::string_view) { return false; }, 3));
  EXPECT_FALSE(attributes.ForEach([](std::string_view) { return false; }));
  EXPECT_THROW(attributes.ForEach([](std::string_view) { throw Thrown(); }), Thrown);
}

TEST(HppAttributes, FilesThatFailThrow) {
  EXPECT_THROW(qx::AttributesBuilder("/nonexistent", "a"), std::system_error);
  EXPECT_THROW(qx::Attributes::Open("/nonexistent", "a"), std::system_error);
}

TEST(HppAttributes, BuilderThatGoesWithoutCommitReleasesItsFiles) {
  const support::TemporaryDirectory directory;
  { qx::AttributesBuilder(directory.path().c_str(), "a").Add("one"); }
  EXPECT_EQ(qx::Attributes::Open(directory.path().c_str(), "a").Get(0), "one");
}

template <class T>
class HppMaps : public ::testing::Test {};
using Maps = ::testing::Types<qx::Map32, qx::Map64>;
TYPED_TEST_SUITE(HppMaps, Maps);

TYPED_TEST(HppMaps, InsertKeepsAndAssignReplaces) {
  TypeParam map;
  EXPECT_TRUE(map.Insert(1, 10));
  EXPECT_FALSE(map.Insert(1, 11));
  EXPECT_EQ(map.Find(1), 10u);
  EXPECT_FALSE(map.Assign(1, 12));
  EXPECT_TRUE(map.Assign(2, 20));
  EXPECT_EQ(map.Find(1), 12u);
  EXPECT_EQ(map.Find(3), std::nullopt);
  EXPECT_EQ(map.size(), 2u);
  EXPECT_THAT(map.At(1), Pair(2, 20));
  map.Clear();
  EXPECT_EQ(map.size(), 0u);
}

TYPED_TEST(HppMaps, PairsAreARange) {
  TypeParam map;
  map.Reserve(100);
  for (UInt i = 0; i < 100; i++) map.Insert(i, i * i);
  UInt expected = 0;
  for (const auto& [key, value] : map.pairs()) {
    EXPECT_EQ(key, expected);
    EXPECT_EQ(value, expected * expected);
    expected++;
  }
  EXPECT_EQ(expected, 100u);
}

TYPED_TEST(HppMaps, PairsAreReachedByTheirPlaces) {
  TypeParam map;
  for (UInt i = 0; i < 10; i++) map.Insert(i, i * i);
  const auto fifth = map.pairs().begin() + 5;
  EXPECT_THAT(*fifth, Pair(5, 25));
  EXPECT_THAT(fifth[2], Pair(7, 49));
  EXPECT_THAT(fifth[-2], Pair(3, 9));
  EXPECT_THAT(*(fifth - 1), Pair(4, 16));
  EXPECT_EQ(map.pairs().end() - fifth, 5);
}

TYPED_TEST(HppMaps, NumberForNoneIsNeitherKeyNorValue) {
  TypeParam map;
  EXPECT_THROW(map.Insert(TypeParam::kNone, 1), std::invalid_argument);
  EXPECT_THROW(map.Assign(1, TypeParam::kNone), std::invalid_argument);
  EXPECT_EQ(map.Find(TypeParam::kNone), std::nullopt);
  EXPECT_EQ(map.size(), 0u);
}

template <class T>
class HppTrees : public ::testing::Test {};
using Trees = ::testing::Types<qx::Tree32, qx::Tree64, qx::RedBlackTree>;
TYPED_TEST_SUITE(HppTrees, Trees);

TYPED_TEST(HppTrees, TellOldValuesWhateverTheyAre) {
  TypeParam tree;
  EXPECT_EQ(tree.Insert(5, 0), std::nullopt);
  EXPECT_EQ(tree.Insert(5, 1), 0u);
  EXPECT_EQ(tree.Insert(5, 0), 1u);
  EXPECT_EQ(tree.Find(5), 0u);
  EXPECT_EQ(tree.Find(6), std::nullopt);
  EXPECT_EQ(tree.Remove(6), std::nullopt);
  EXPECT_EQ(tree.Remove(5), 0u);
  EXPECT_EQ(tree.size(), 0u);
}

TYPED_TEST(HppTrees, ForEachGoesInOrderAndStops) {
  TypeParam tree(1000);
  for (UInt key : {30u, 10u, 20u}) tree.Insert(key, key + 1);
  std::vector<ULong> seen;
  EXPECT_TRUE(tree.ForEach([&](auto key, auto value) {
    seen.push_back(key);
    EXPECT_EQ(value, key + 1);
  }));
  EXPECT_THAT(seen, ElementsAre(10, 20, 30));
  seen.clear();
  EXPECT_FALSE(tree.ForEach(
      [&](auto key, auto) {
        seen.push_back(key);
        return key != 20;
      },
      true));
  EXPECT_THAT(seen, ElementsAre(30, 20));
  EXPECT_THROW(tree.ForEach([](auto, auto) { throw Thrown(); }), Thrown);
  tree.Clear();
  EXPECT_EQ(tree.size(), 0u);
}

TEST(HppRedBlackTree, PairsAreARangeFromAKeyOn) {
  qx::RedBlackTree tree;
  for (const UInt key : {0xFFFFFFFFu, 1u, 5u}) tree.Insert(key, key / 2);
  std::vector<UInt> keys;
  for (const auto& [key, value] : tree.pairs()) {
    keys.push_back(key);
    EXPECT_EQ(value, key / 2);
  }
  EXPECT_THAT(keys, ElementsAre(1u, 5u, 0xFFFFFFFFu));
  EXPECT_EQ(std::ranges::distance(tree.pairs(2)), 2);
  EXPECT_THAT(tree.FindAbove(2), Optional(Pair(5, 2)));
  EXPECT_EQ(qx::RedBlackTree().FindAbove(1), std::nullopt);
}

TEST(HppRedBlackTree, DoesNotStoreKeyZero) {
  qx::RedBlackTree tree;
  EXPECT_THROW(tree.Insert(0, 1), std::invalid_argument);
  EXPECT_EQ(tree.Find(0), std::nullopt);
}

template <class T>
class HppAvlTrees : public ::testing::Test {};
using AvlTrees = ::testing::Types<qx::Tree32, qx::Tree64>;
TYPED_TEST_SUITE(HppAvlTrees, AvlTrees);

TYPED_TEST(HppAvlTrees, NeighboursAreFoundOrMissing) {
  TypeParam tree;
  EXPECT_EQ(tree.FindAbove(5), std::nullopt);
  EXPECT_EQ(tree.FindBelow(5), std::nullopt);
  EXPECT_EQ(tree.FindNearest(5), std::nullopt);
  tree.Insert(0, 7);
  tree.Insert(10, 8);
  EXPECT_THAT(tree.FindBelow(5), Optional(Pair(0, 7)));
  EXPECT_THAT(tree.FindAbove(5), Optional(Pair(10, 8)));
  EXPECT_THAT(tree.FindAbove(10), Optional(Pair(10, 8)));
  EXPECT_THAT(tree.FindBelow(10), Optional(Pair(10, 8)));
  EXPECT_THAT(tree.FindAbove(0), Optional(Pair(0, 7)));
  EXPECT_EQ(tree.FindAbove(11), std::nullopt);
  tree.Remove(0);
  EXPECT_EQ(tree.FindBelow(5), std::nullopt);
  EXPECT_EQ(tree.FindBelow(0), std::nullopt);
}

TYPED_TEST(HppAvlTrees, NearestOfTwoIsTheGreaterWhenEquallyNear) {
  TypeParam tree;
  tree.Insert(0, 1);
  tree.Insert(10, 2);
  EXPECT_THAT(tree.FindNearest(4), Optional(Pair(0, 1)));
  EXPECT_THAT(tree.FindNearest(5), Optional(Pair(10, 2)));
  EXPECT_THAT(tree.FindNearest(1000), Optional(Pair(10, 2)));
  tree.Remove(0);
  EXPECT_THAT(tree.FindNearest(1), Optional(Pair(10, 2)));
}

TYPED_TEST(HppAvlTrees, PairsAreARangeFromAKeyOn) {
  using Number = typename TypeParam::Number;
  const Number last = std::numeric_limits<Number>::max();
  TypeParam tree;
  for (const Number key : {last, Number{0}, Number{5}}) tree.Insert(key, 1);
  std::vector<Number> all;
  for (const auto& [key, value] : tree.pairs()) all.push_back(key);
  EXPECT_THAT(all, ElementsAre(0, 5, last));
  EXPECT_EQ(std::ranges::distance(tree.pairs(1)), 2);
  EXPECT_EQ(std::ranges::distance(TypeParam().pairs()), 0);
}

TEST(HppCache, StoresAndFetches) {
  using namespace std::chrono_literals;
  qx::ObjectCache cache(16 << 20, {.region_pages = 16, .page_size = 65536});
  EXPECT_TRUE(cache.Store("short", "value"));
  EXPECT_TRUE(cache.Store("empty", "", 1h));
  EXPECT_TRUE(cache.Store("long", std::string(10000, 'x'), std::chrono::system_clock::now() + 1h));
  EXPECT_TRUE(cache.Store("gone", "value", 0ms));
  EXPECT_EQ(cache.Fetch("short"), "value");
  EXPECT_EQ(cache.Fetch("empty"), "");
  EXPECT_EQ(cache.Fetch("long"), std::string(10000, 'x'));
  EXPECT_EQ(cache.Fetch("gone"), std::nullopt);
  EXPECT_EQ(cache.Fetch("absent"), std::nullopt);
  EXPECT_EQ(cache.HowFull().objects, 4u);
  EXPECT_EQ(cache.HowFull().capacity, 16ul << 20);
}

TEST(HppCache, FetchesIntoABuffer) {
  qx::ObjectCache cache(16 << 20);
  ASSERT_TRUE(cache.Store("key", "value"));
  std::vector<UByte> buffer(5);
  EXPECT_EQ(cache.FetchInto("key", buffer), 5u);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "value");
  std::vector<UByte> small(2);
  EXPECT_EQ(cache.FetchInto("key", small), 5u);
  EXPECT_THAT(small, ElementsAre(0, 0));
  EXPECT_EQ(cache.FetchInto("absent", buffer), std::nullopt);
}

TEST(HppCache, RemovesForGood) {
  qx::ObjectCache cache(16 << 20, {.policy = QX_CACHE_NEWEST_WINS});
  ASSERT_TRUE(cache.Store("key", "old"));
  ASSERT_TRUE(cache.Store("key", "new"));
  EXPECT_TRUE(cache.Remove("key"));
  EXPECT_EQ(cache.Fetch("key"), std::nullopt);
  EXPECT_FALSE(cache.Remove("key"));
}

TEST(HppCache, ParametersThatCannotWorkThrow) {
  EXPECT_THROW(qx::ObjectCache(1 << 20, {.policy = 8}), std::invalid_argument);
  EXPECT_THROW(qx::ObjectCache(1 << 20, {.page_size = 7}), std::invalid_argument);
}

TEST(HppCache, ServesManyThreads) {
  qx::ObjectCache cache(16 << 20);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++) {
    threads.emplace_back([&cache, t] {
      for (int i = 0; i < 200; i++) {
        const std::string key = std::to_string(t) + ":" + std::to_string(i);
        EXPECT_TRUE(cache.Store(key, key));
        const std::optional<std::string> value = cache.Fetch(key);
        EXPECT_EQ(value.value_or(key), key);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
