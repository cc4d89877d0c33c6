// The integer maps: look-up, places, growth, clearing, and what ends the process.

#include "dict/idmap.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <string>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include "support/death.h"
#include "support/int_maps.h"
#include "support/ledger.h"

namespace {

using support::Ids;
using support::ModelMap;
using support::OwnedMap;
using support::Refs;

template <typename T>
class IntMap : public ::testing::Test {};

struct Names {
  template <typename T>
  static std::string GetName(int) {
    return T::kPrefix;
  }
};

using BothMaps = ::testing::Types<Ids, Refs>;
TYPED_TEST_SUITE(IntMap, BothMaps, Names);

template <typename T>
std::vector<typename T::Key> Keys(const OwnedMap<T>& map) {
  std::vector<typename T::Key> keys;
  for (const auto& [key, value] : map.All()) keys.push_back(key);
  return keys;
}

// Ten keys that fill a new map: chains of three that meet at the end of the slots and go on at their beginning.
constexpr UInt kTen[] = {100, 33, 16, 50, 17, 0, 34, 8, 9, 25};

template <typename T>
void PutTen(const OwnedMap<T>& map) {
  for (const UInt key : kTen) map.Put(key, key + 1000);
}

TEST(IdMap, HasTheRecordsThatToolsRead) {
  EXPECT_EQ(sizeof(IdMapEntry), 8u);
  EXPECT_EQ(offsetof(IdMapEntry, e_key), 0u);
  EXPECT_EQ(offsetof(IdMapEntry, e_val), 4u);
  EXPECT_EQ(offsetof(IdMap, m_capacity), 0u);
  EXPECT_EQ(offsetof(IdMap, m_allocated), 4u);
  EXPECT_EQ(offsetof(IdMap, m_entries), 8u);
  EXPECT_EQ(offsetof(IdMap, m_used), 16u);
}

TEST(RefMap, HasTheRecordsThatToolsRead) {
  EXPECT_EQ(sizeof(RefMapEntry), 16u);
  EXPECT_EQ(offsetof(RefMapEntry, e_key), 0u);
  EXPECT_EQ(offsetof(RefMapEntry, e_val), 8u);
  EXPECT_EQ(offsetof(RefMap, m_capacity), 0u);
  EXPECT_EQ(offsetof(RefMap, m_allocated), 4u);
  EXPECT_EQ(offsetof(RefMap, m_entries), 8u);
  EXPECT_EQ(offsetof(RefMap, m_used), 16u);
}

TEST(IdMap, NamesItsMarker) { EXPECT_EQ(IDMAP_NONE, 0xFFFFFFFEu); }

TEST(RefMap, NamesItsMarker) { EXPECT_EQ(REFMAP_NONE, 0xFFFFFFFFFFFFFFFFu); }

TYPED_TEST(IntMap, StartsEmptyWithRoomForTenPairsInSeventeenSlots) {
  OwnedMap<TypeParam> map;
  EXPECT_EQ(TypeParam::Size(map.get()), 0u);
  EXPECT_EQ(map->m_capacity, 10u);
  EXPECT_EQ(map->m_allocated, 17u);
  EXPECT_EQ(map->m_used.t.length, 0u);
  EXPECT_EQ(map.Slots(), std::vector<typename TypeParam::Key>(17, TypeParam::kNone));
}

TYPED_TEST(IntMap, FindsNothingAndStoresNothingWithoutAValueToCreate) {
  OwnedMap<TypeParam> map;
  Boolean added = 7;
  EXPECT_EQ(TypeParam::Find(map.get(), 5, TypeParam::kNone, TypeParam::kNone, &added), TypeParam::kNone);
  EXPECT_EQ(added, FALSE);
  EXPECT_EQ(TypeParam::Size(map.get()), 0u);
  EXPECT_EQ(map.Slots(), std::vector<typename TypeParam::Key>(17, TypeParam::kNone));
}

TYPED_TEST(IntMap, DoesNotUpdateWhatIsAbsent) {
  OwnedMap<TypeParam> map;
  Boolean added = 7;
  EXPECT_EQ(TypeParam::Find(map.get(), 5, TypeParam::kNone, 70, &added), TypeParam::kNone);
  EXPECT_EQ(added, FALSE);
  EXPECT_EQ(map.At(5), TypeParam::kNone);
  EXPECT_EQ(TypeParam::Size(map.get()), 0u);
}

TYPED_TEST(IntMap, CreatesAMissingKey) {
  OwnedMap<TypeParam> map;
  Boolean added = 7;
  EXPECT_EQ(TypeParam::Find(map.get(), 5, 50, TypeParam::kNone, &added), 50u);
  EXPECT_EQ(added, TRUE);
  EXPECT_EQ(TypeParam::Size(map.get()), 1u);
  EXPECT_EQ(map->m_entries[5].e_key, 5u);
  EXPECT_EQ(map->m_entries[5].e_val, 50u);
  EXPECT_EQ(map.Used(), std::vector<UInt>{5});
}

TYPED_TEST(IntMap, CreatesWithTheCreateValueWhenBothAreGiven) {
  OwnedMap<TypeParam> map;
  Boolean added = 7;
  EXPECT_EQ(TypeParam::Find(map.get(), 5, 50, 70, &added), 50u);
  EXPECT_EQ(added, TRUE);
  EXPECT_EQ(map.At(5), 50u);
}

TYPED_TEST(IntMap, LeavesAPresentValueWithoutOneToUpdateWith) {
  OwnedMap<TypeParam> map;
  map.Put(5, 50);
  Boolean added = 7;
  EXPECT_EQ(TypeParam::Find(map.get(), 5, TypeParam::kNone, TypeParam::kNone, &added), 50u);
  EXPECT_EQ(added, FALSE);
  added = 7;
  EXPECT_EQ(TypeParam::Find(map.get(), 5, 60, TypeParam::kNone, &added), 50u);
  EXPECT_EQ(added, FALSE);
  EXPECT_EQ(map.At(5), 50u);
  EXPECT_EQ(TypeParam::Size(map.get()), 1u);
}

TYPED_TEST(IntMap, UpdatesAPresentValueAndReturnsTheNewOne) {
  OwnedMap<TypeParam> map;
  map.Put(5, 50);
  Boolean added = 7;
  EXPECT_EQ(TypeParam::Find(map.get(), 5, TypeParam::kNone, 70, &added), 70u);
  EXPECT_EQ(added, FALSE);
  EXPECT_EQ(map.At(5), 70u);
  EXPECT_EQ(TypeParam::Find(map.get(), 5, 60, 0, &added), 0u);
  EXPECT_EQ(map.At(5), 0u);
  EXPECT_EQ(TypeParam::Size(map.get()), 1u);
}

TYPED_TEST(IntMap, TellsNobodyWhetherAKeyWasAddedWhenNobodyAsks) {
  OwnedMap<TypeParam> map;
  EXPECT_EQ(TypeParam::Find(map.get(), 5, TypeParam::kNone, TypeParam::kNone, nullptr), TypeParam::kNone);
  EXPECT_EQ(TypeParam::Find(map.get(), 5, 50, TypeParam::kNone, nullptr), 50u);
  EXPECT_EQ(TypeParam::Find(map.get(), 5, 60, 70, nullptr), 70u);
}

TYPED_TEST(IntMap, CannotStoreTheMarkerAsAValue) {
  OwnedMap<TypeParam> map;
  map.Put(5, TypeParam::kNone);
  EXPECT_EQ(TypeParam::Size(map.get()), 0u);
  map.Put(5, 50);
  TypeParam::Find(map.get(), 5, 60, TypeParam::kNone, nullptr);
  EXPECT_EQ(map.At(5), 50u);
}

TYPED_TEST(IntMap, StoresEveryOtherKeyAndValue) {
  OwnedMap<TypeParam> map;
  const typename TypeParam::Key greatest = TypeParam::kGreatestKey;
  for (const auto key : {typename TypeParam::Key{0}, typename TypeParam::Key{0xFFFFFFFD}, greatest,
                         typename TypeParam::Key{0x80000000}, typename TypeParam::Key{0x7FFFFFFF}}) {
    map.Put(key, static_cast<typename TypeParam::Key>(greatest - key));
    EXPECT_EQ(map.At(key), greatest - key);
  }
  EXPECT_EQ(TypeParam::Size(map.get()), 5u);
}

TEST(IdMap, TakesItsGreatestNumberAsAnOrdinaryKeyAndValue) {
  OwnedMap<Ids> map;
  Boolean added = FALSE;
  EXPECT_EQ(IdMapFind(map.get(), 0xFFFFFFFF, 1, 0xFFFFFFFE, &added), 1u);
  EXPECT_EQ(added, TRUE);
  EXPECT_EQ(IdMapFind(map.get(), 0xFFFFFFFF, 0xFFFFFFFE, 0xFFFFFFFF, &added), 0xFFFFFFFFu);
  EXPECT_EQ(map.At(0xFFFFFFFF), 0xFFFFFFFFu);
  EXPECT_EQ(map->m_entries[0].e_key, 0xFFFFFFFFu);  // 4294967295 is 17 times 252645135
}

TEST(RefMap, TellsKeysApartByAll64Bits) {
  OwnedMap<Refs> map;
  map.Put(0x00000000FFFFFFFE, 1);
  map.Put(0xFFFFFFFE00000000, 2);
  map.Put(0xFFFFFFFF00000000, 3);
  map.Put(0x00000000FFFFFFFF, 4);
  map.Put(0xFFFFFFFEFFFFFFFF, 5);
  map.Put(0xFFFFFFFFFFFFFFFE, 6);
  EXPECT_EQ(map.At(0x00000000FFFFFFFE), 1u);
  EXPECT_EQ(map.At(0xFFFFFFFE00000000), 2u);
  EXPECT_EQ(map.At(0xFFFFFFFF00000000), 3u);
  EXPECT_EQ(map.At(0x00000000FFFFFFFF), 4u);
  EXPECT_EQ(map.At(0xFFFFFFFEFFFFFFFF), 5u);
  EXPECT_EQ(map.At(0xFFFFFFFFFFFFFFFE), 6u);
  EXPECT_EQ(map.At(0xFFFFFFFEFFFFFFFE), 0xFFFFFFFFFFFFFFFFu);
  EXPECT_EQ(map.At(0), 0xFFFFFFFFFFFFFFFFu);
}

// Keys that share a slot and half of their bits: a group of slots that holds one must not end the other's probe.
TEST(RefMap, TellsKeysApartThatShareASlotAndHalfTheirBits) {
  OwnedMap<Refs> map;
  // 2^32 is 1 modulo 17, so these all belong to slot 3.
  const ULong keys[] = {0x0000000000000003, 0x0000000100000002, 0x0000000200000001, 0x0000000300000000,
                        0x0000001100000003, 0x0000000000000014, 0x0000001400000000};
  for (const ULong key : keys) map.Put(key, ~key - 1);
  for (const ULong key : keys) EXPECT_EQ(map.At(key), ~key - 1);
  EXPECT_EQ(map.At(0x0000001100000014), 0xFFFFFFFFFFFFFFFFu);
  EXPECT_EQ(map.Used(), (std::vector<UInt>{3, 4, 5, 6, 7, 8, 9}));
}

TYPED_TEST(IntMap, PutsAKeyIntoTheFirstFreeSlotFromItsRemainderOn) {
  OwnedMap<TypeParam> map;
  PutTen(map);
  const auto none = TypeParam::kNone;
  EXPECT_EQ(map.Slots(), (std::vector<typename TypeParam::Key>{16, 50, 17, 0, 34, none, none, none, 8, 9, 25, none,
                                                               none, none, none, 100, 33}));
  EXPECT_EQ(map.Used(), (std::vector<UInt>{15, 16, 0, 1, 2, 3, 4, 8, 9, 10}));
  for (const UInt key : kTen) EXPECT_EQ(map.At(key), key + 1000u);
}

TYPED_TEST(IntMap, GivesThePairsInTheOrderInWhichTheyWerePlaced) {
  OwnedMap<TypeParam> map;
  PutTen(map);
  EXPECT_EQ(Keys(map), (std::vector<typename TypeParam::Key>{100, 33, 16, 50, 17, 0, 34, 8, 9, 25}));
  typename TypeParam::Key key = 0;
  typename TypeParam::Key val = 0;
  TypeParam::Get(map.get(), 3, &key, &val);
  EXPECT_EQ(key, 50u);
  EXPECT_EQ(val, 1050u);
}

TYPED_TEST(IntMap, KeepsTheOrderWhenAValueChanges) {
  OwnedMap<TypeParam> map;
  PutTen(map);
  TypeParam::Find(map.get(), 16, 1, 2, nullptr);
  EXPECT_EQ(Keys(map), (std::vector<typename TypeParam::Key>{100, 33, 16, 50, 17, 0, 34, 8, 9, 25}));
  EXPECT_EQ(map.At(16), 2u);
}

TYPED_TEST(IntMap, GrowsAtTheEleventhKeyAndPlacesTheOthersInTheOrderOfTheirOldSlots) {
  OwnedMap<TypeParam> map;
  PutTen(map);
  EXPECT_EQ(map->m_capacity, 10u);
  Boolean added = 7;
  EXPECT_EQ(TypeParam::Find(map.get(), 7, 1007, TypeParam::kNone, &added), 1007u);
  EXPECT_EQ(added, TRUE);
  EXPECT_EQ(map->m_capacity, 20u);
  EXPECT_EQ(map->m_allocated, 31u);
  for (const UInt key : kTen) EXPECT_EQ(map.At(key), key + 1000u);
  EXPECT_EQ(Keys(map), (std::vector<typename TypeParam::Key>{16, 50, 17, 0, 34, 8, 9, 25, 100, 33, 7}));
  EXPECT_EQ(map.Used(), (std::vector<UInt>{16, 19, 17, 0, 3, 8, 9, 25, 7, 2, 10}));
}

TYPED_TEST(IntMap, DoesNotGrowForWhatItNeedNotInsert) {
  OwnedMap<TypeParam> map;
  PutTen(map);
  EXPECT_EQ(TypeParam::Find(map.get(), 9, 1, 2, nullptr), 2u);
  EXPECT_EQ(TypeParam::Find(map.get(), 7, TypeParam::kNone, 2, nullptr), TypeParam::kNone);
  EXPECT_EQ(map->m_capacity, 10u);
  EXPECT_EQ(map->m_allocated, 17u);
}

TYPED_TEST(IntMap, DoublesItsCapacityEachTimeItIsFull) {
  const std::vector<std::pair<UInt, UInt>> expected = {{10, 17}, {20, 31}, {40, 61}, {80, 127}, {160, 241}, {320, 487}};
  OwnedMap<TypeParam> map;
  std::vector<std::pair<UInt, UInt>> sizes = {{map->m_capacity, map->m_allocated}};
  for (UInt key = 1; key <= 320; key++) {
    map.Put(key * 7, key);
    if (map->m_capacity == sizes.back().first) continue;
    sizes.emplace_back(map->m_capacity, map->m_allocated);
    EXPECT_EQ(key, sizes[sizes.size() - 2].first + 1);  // on the insertion that would pass it
  }
  EXPECT_EQ(sizes, expected);
}

TYPED_TEST(IntMap, GrowsToTheCapacityAskedFor) {
  OwnedMap<TypeParam> map;
  PutTen(map);
  TypeParam::Grow(map.get(), 100);
  EXPECT_EQ(map->m_capacity, 100u);
  EXPECT_EQ(map->m_allocated, 151u);
  EXPECT_EQ(Keys(map), (std::vector<typename TypeParam::Key>{16, 50, 17, 0, 34, 8, 9, 25, 100, 33}));
  EXPECT_EQ(map.Used(), (std::vector<UInt>{16, 50, 17, 0, 34, 8, 9, 25, 100, 33}));
  for (const UInt key : kTen) EXPECT_EQ(map.At(key), key + 1000u);
  TypeParam::Grow(map.get(), 101);  // 151 slots would do, and are taken again
  EXPECT_EQ(map->m_capacity, 101u);
  EXPECT_EQ(map->m_allocated, 151u);
  for (const UInt key : kTen) EXPECT_EQ(map.At(key), key + 1000u);
}

TYPED_TEST(IntMap, NeverShrinks) {
  OwnedMap<TypeParam> map;
  PutTen(map);
  const auto* entries = map->m_entries;
  for (const UInt capacity : {0u, 1u, 9u, 10u}) {
    TypeParam::Grow(map.get(), capacity);
    EXPECT_EQ(map->m_capacity, 10u);
    EXPECT_EQ(map->m_allocated, 17u);
    EXPECT_EQ(map->m_entries, entries);
    EXPECT_EQ(map.Used(), (std::vector<UInt>{15, 16, 0, 1, 2, 3, 4, 8, 9, 10}));
  }
}

TYPED_TEST(IntMap, LeavesTheValuesOfNewSlotsAsTheyAre) {
  const auto fill = static_cast<typename TypeParam::Key>(0xA5A5A5A5A5A5A5A5);
  OwnedMap<TypeParam> map;
  support::faults::FillBlocks(0xA5);
  TypeParam::Grow(map.get(), 20);
  support::faults::FillBlocks(0);
  for (UInt s = 0; s < 31; s++) EXPECT_EQ(map->m_entries[s].e_val, fill) << s;
}

TYPED_TEST(IntMap, ClearForgetsThePairsAndKeepsTheSlots) {
  OwnedMap<TypeParam> map;
  PutTen(map);
  const auto* entries = map->m_entries;
  TypeParam::Clear(map.get());
  EXPECT_EQ(TypeParam::Size(map.get()), 0u);
  for (const UInt key : kTen) EXPECT_EQ(map.At(key), TypeParam::kNone);
  EXPECT_EQ(map->m_capacity, 10u);
  EXPECT_EQ(map->m_allocated, 17u);
  EXPECT_EQ(map->m_entries, entries);
  EXPECT_EQ(map.Slots(), std::vector<typename TypeParam::Key>(17, TypeParam::kNone));
  PutTen(map);
  EXPECT_EQ(map.Used(), (std::vector<UInt>{15, 16, 0, 1, 2, 3, 4, 8, 9, 10}));
}

TYPED_TEST(IntMap, ClearsFewPairsInManySlots) {
  OwnedMap<TypeParam> map;
  TypeParam::Grow(map.get(), 1000);
  const UInt size = map->m_allocated;
  for (const UInt key : kTen) map.Put(key * 77, 1);
  TypeParam::Clear(map.get());
  EXPECT_EQ(TypeParam::Size(map.get()), 0u);
  EXPECT_EQ(map.Slots(), std::vector<typename TypeParam::Key>(size, TypeParam::kNone));
}

TYPED_TEST(IntMap, ClearsAnEmptyMap) {
  OwnedMap<TypeParam> map;
  TypeParam::Clear(map.get());
  TypeParam::Clear(map.get());
  EXPECT_EQ(TypeParam::Size(map.get()), 0u);
  map.Put(1, 2);
  EXPECT_EQ(map.At(1), 2u);
}

TYPED_TEST(IntMap, GivesAllItsMemoryBack) {
  support::Ledger ledger;
  {
    OwnedMap<TypeParam> map;
    EXPECT_EQ(ledger.blocks(), 2u);  // the record and its slots
    for (UInt key = 0; key < 1000; key++) map.Put(key, key);
    EXPECT_EQ(ledger.blocks(), 3u);  // and the list of those in use
    TypeParam::Clear(map.get());
  }
  EXPECT_EQ(ledger.blocks(), 0u);
  TypeParam::Delete(TypeParam::New());  // nothing was ever stored
  EXPECT_EQ(ledger.blocks(), 0u);
}

// Every slot as the start of a solid run of every length: the probe goes on from the last slot to the first, groups of
// slots end at the last one, and an absent key's probe ends behind the key that lies farthest from its home.
TYPED_TEST(IntMap, FindsAndMissesKeysAroundRunsOfEveryLengthAtEveryPlace) {
  for (UInt start = 0; start < 31; start++) {
    for (UInt length = 1; length <= 20; length++) {
      ModelMap<TypeParam> map;
      map.Grow(20);
      ASSERT_EQ(map.map()->m_allocated, 31u);
      for (UInt i = 0; i < length; i++) {
        // Every third one belongs where the run begins and is displaced to its end.
        const UInt key = i % 3 == 2 ? start + 31 * (i + 1) : (start + i) % 31;
        ASSERT_EQ(map.Find(key, key + 5, TypeParam::kNone), "");
      }
      ASSERT_EQ(map.Differences(), "");
      for (UInt key = 0; key < 31 * 23; key++) {
        ASSERT_EQ(map.Find(key, TypeParam::kNone, TypeParam::kNone), "") << start << " " << length;
      }
      for (UInt key = 31 * 22; key < 31 * 22 + 31 && map.map()->m_used.t.length < 20; key++) {
        ASSERT_EQ(map.Find(key, key, TypeParam::kNone), "");
        ASSERT_EQ(map.Differences(), "");
      }
    }
  }
}

TYPED_TEST(IntMap, MissesInsideALongRunWithoutWalkingIt) {
  constexpr UInt kKeys = 200000;
  OwnedMap<TypeParam> map;
  TypeParam::Grow(map.get(), kKeys + 1);
  for (UInt key = 0; key < kKeys; key++) map.Put(key, key);
  const UInt size = map->m_allocated;
  EXPECT_EQ(map->m_reach, 0u);
  // One slot after the other these would be 2 * 10^10 looks.
  for (UInt key = size; key < size + kKeys; key++) ASSERT_EQ(map.At(key), TypeParam::kNone);
  // A key that belongs to the run's beginning goes to its end all the same, and the others are still found.
  map.Put(size, 7);
  EXPECT_EQ(map.Used().back(), kKeys);
  EXPECT_EQ(map->m_reach, kKeys);
  EXPECT_EQ(map.At(size), 7u);
  EXPECT_EQ(map.At(size + 1), TypeParam::kNone);
  EXPECT_EQ(map.At(kKeys - 1), kKeys - 1);
  TypeParam::Clear(map.get());
  EXPECT_EQ(map->m_reach, 0u);
}

TYPED_TEST(IntMap, AgreesWithAPlainReadingOfTheRulesSlotForSlot) {
  using K = typename TypeParam::Key;
  EXPECT_TRUE(rc::check([] {
    enum { kFind, kClear, kGrow };
    const auto key = rc::gen::suchThat(
        rc::gen::oneOf(rc::gen::inRange<K>(0, 60),
                       rc::gen::map(rc::gen::inRange<K>(0, 12), [](K k) { return static_cast<K>(17 * 31 * k); }),
                       rc::gen::map(rc::gen::inRange<K>(0, 12),
                                    [](K k) { return static_cast<K>(TypeParam::kGreatestKey - 17 * k); }),
                       rc::gen::arbitrary<K>()),
        [](K k) { return k != TypeParam::kNone; });
    const auto value = rc::gen::oneOf(rc::gen::arbitrary<K>(), rc::gen::just(TypeParam::kNone));
    const auto kind = rc::gen::weightedElement<int>({{60, kFind}, {1, kClear}, {1, kGrow}});
    const auto calls =
        *rc::gen::container<std::vector<std::tuple<int, K, K, K>>>(rc::gen::tuple(kind, key, value, value));
    ModelMap<TypeParam> map;
    for (const auto& [what, k, create, update] : calls) {
      switch (what) {
        case kFind:
          RC_ASSERT(map.Find(k, create, update) == "");
          break;
        case kClear:
          map.Clear();
          break;
        default:
          map.Grow(static_cast<UInt>(k % 200));
      }
      RC_ASSERT(map.Differences() == "");
    }
  }));
}

TYPED_TEST(IntMap, AgreesWithAnUnorderedMapOverManyOperations) {
  using K = typename TypeParam::Key;
  uint64_t state = 11;
  const auto random = [&state] {
    state = state * 6364136223846793005u + 1442695040888963407u;
    return state >> 33;
  };
  ModelMap<TypeParam> map;
  std::unordered_map<K, K> expected;
  for (int i = 0; i < 60000; i++) {
    const K key = static_cast<K>(random() % 3 == 0 ? random() % 9000 : 487 * (random() % 9000));
    const K create = random() % 3 == 0 ? TypeParam::kNone : static_cast<K>(random());
    const K update = random() % 2 == 0 ? TypeParam::kNone : static_cast<K>(random());
    ASSERT_EQ(map.Find(key, create, update), "");
    const auto at = expected.find(key);
    if (at != expected.end()) {
      if (update != TypeParam::kNone) at->second = update;
    } else if (create != TypeParam::kNone) {
      expected.emplace(key, create);
    }
    if (i % 20011 == 20010) {
      ASSERT_EQ(map.Differences(), "");
      map.Clear();
      expected.clear();
    }
  }
  EXPECT_EQ(map.Differences(), "");
  ASSERT_EQ(TypeParam::Size(map.map().get()), expected.size());
  for (const auto& [key, value] : map.map().All()) {
    ASSERT_EQ(expected.count(key), 1u);
    EXPECT_EQ(expected[key], value);
  }
}

// Keys that share a remainder are stored one behind the other: as slow as a list, and right.
TYPED_TEST(IntMap, HoldsKeysThatAllBelongToOneSlot) {
  constexpr UInt kKeys = 20000;
  OwnedMap<TypeParam> map;
  TypeParam::Grow(map.get(), kKeys);
  const UInt size = map->m_allocated;
  ASSERT_EQ(size, 30011u);
  for (UInt i = 0; i < kKeys; i++) map.Put(5 + size * i, i);
  EXPECT_EQ(map->m_reach, kKeys - 1);
  EXPECT_EQ(map.At(5), 0u);
  EXPECT_EQ(map.At(5 + size * (kKeys - 1)), kKeys - 1);
  EXPECT_EQ(map.At(5 + size * kKeys), TypeParam::kNone);
}

TYPED_TEST(IntMap, FindManyGivesEachKeysValueOrTheMarkerAtItsPlace) {
  using Keys = std::vector<typename TypeParam::Key>;
  OwnedMap<TypeParam> map;
  map.Put(3, 30);
  map.Put(20, 200);  // its home, too, is slot 3 of 17
  map.Put(TypeParam::kGreatestKey, 0);
  const Keys keys = {20, 3, 37, 3, TypeParam::kGreatestKey, 0};
  Keys values(7, 77);
  TypeParam::FindMany(map.get(), keys.data(), keys.size(), values.data());
  EXPECT_EQ(values, (Keys{200, 30, TypeParam::kNone, 30, 0, TypeParam::kNone, 77}));
  EXPECT_EQ(TypeParam::Size(map.get()), 3u);
  TypeParam::FindMany(map.get(), nullptr, 0, nullptr);
}

TYPED_TEST(IntMap, FindManyTakesEveryNumberOfKeysAndMayAnswerInPlace) {
  using K = typename TypeParam::Key;
  OwnedMap<TypeParam> map;
  for (K key = 0; key < 100; key++) map.Put(key * 34, key);
  for (size_t count = 0; count < 90; count++) {
    std::vector<K> keys;
    for (K i = 0; i < count; i++) keys.push_back(i * 17);
    TypeParam::FindMany(map.get(), keys.data(), keys.size(), keys.data());
    for (K i = 0; i < count; i++) ASSERT_EQ(keys[i], i % 2 == 0 ? i / 2 : TypeParam::kNone) << count;
  }
}

TYPED_TEST(IntMap, FindManyAgreesWithTheSingleLookUps) {
  using K = typename TypeParam::Key;
  OwnedMap<TypeParam> map;
  uint64_t state = 5;
  std::vector<K> keys;
  for (int i = 0; i < 100000; i++) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    keys.push_back(static_cast<K>(state >> 20 | 1));
    if (i % 2 == 0) map.Put(keys.back(), static_cast<K>(i));
  }
  std::vector<K> values(keys.size());
  TypeParam::FindMany(map.get(), keys.data(), keys.size(), values.data());
  for (size_t i = 0; i < keys.size(); i++) ASSERT_EQ(values[i], map.At(keys[i]));
}

TYPED_TEST(IntMap, FindManyMayBeCalledByManyThreadsAtOnce) {
  using K = typename TypeParam::Key;
  OwnedMap<TypeParam> map;
  for (K key = 0; key < 2000; key++) map.Put(key * 3, key);
  std::vector<std::thread> threads;
  for (K first = 0; first < 4; first++) {
    threads.emplace_back([&map, first] {
      std::vector<K> keys(6000), values(6000);
      std::iota(keys.begin(), keys.end(), first);
      TypeParam::FindMany(map.get(), keys.data(), keys.size(), values.data());
      for (K i = 0; i < 5990; i++) ASSERT_EQ(values[i], keys[i] % 3 == 0 ? keys[i] / 3 : TypeParam::kNone);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

template <typename T>
class IntMapDeathTest : public IntMap<T> {};

TYPED_TEST_SUITE(IntMapDeathTest, BothMaps, Names);

template <typename T>
std::string Function(const char* operation) {
  return std::string(T::kPrefix) + operation;
}

constexpr const char* kModule = "dict/idmap";
constexpr const char* kNoMap = "map != ((void *)0)";

TYPED_TEST(IntMapDeathTest, AMissingMap) {
  typename TypeParam::Map* none = nullptr;
  typename TypeParam::Key key;
  EXPECT_ASSERTION(TypeParam::Delete(none), kModule, Function<TypeParam>("Delete"), kNoMap);
  EXPECT_ASSERTION(TypeParam::Clear(none), kModule, Function<TypeParam>("Clear"), kNoMap);
  EXPECT_ASSERTION(TypeParam::Size(none), kModule, Function<TypeParam>("Size"), kNoMap);
  EXPECT_ASSERTION(TypeParam::Grow(none, 20), kModule, Function<TypeParam>("Grow"), kNoMap);
  EXPECT_ASSERTION(TypeParam::Get(none, 0, &key, &key), kModule, Function<TypeParam>("Get"),
                   "map != ((void *)0) && n < (((map)->m_used).t.length)");
  EXPECT_ASSERTION(TypeParam::Find(none, 1, 2, 3, nullptr), kModule, Function<TypeParam>("Find"), TypeParam::kFindText);
}

TYPED_TEST(IntMapDeathTest, TheMarkerAsAKey) {
  OwnedMap<TypeParam> map;
  EXPECT_ASSERTION(map.At(TypeParam::kNone), kModule, Function<TypeParam>("Find"), TypeParam::kFindText);
  EXPECT_ASSERTION(map.Put(TypeParam::kNone, 1), kModule, Function<TypeParam>("Find"), TypeParam::kFindText);
}

TYPED_TEST(IntMapDeathTest, AMissingMapOrTheMarkerAmongManyKeys) {
  OwnedMap<TypeParam> map;
  typename TypeParam::Key keys[] = {1, 2, TypeParam::kNone};
  typename TypeParam::Key values[3];
  EXPECT_ASSERTION(TypeParam::FindMany(nullptr, keys, 3, values), kModule, Function<TypeParam>("FindMany"), kNoMap);
  EXPECT_ASSERTION(TypeParam::FindMany(map.get(), keys, 3, values), kModule, Function<TypeParam>("FindMany"),
                   TypeParam::kFindText);
}

TYPED_TEST(IntMapDeathTest, AnIndexAtOrBeyondTheSize) {
  OwnedMap<TypeParam> map;
  typename TypeParam::Key key;
  const char* text = "map != ((void *)0) && n < (((map)->m_used).t.length)";
  EXPECT_ASSERTION(TypeParam::Get(map.get(), 0, &key, &key), kModule, Function<TypeParam>("Get"), text);
  map.Put(1, 2);
  TypeParam::Get(map.get(), 0, &key, &key);
  EXPECT_ASSERTION(TypeParam::Get(map.get(), 1, &key, &key), kModule, Function<TypeParam>("Get"), text);
  EXPECT_ASSERTION(TypeParam::Get(map.get(), 0xFFFFFFFF, &key, &key), kModule, Function<TypeParam>("Get"), text);
}

// What only a caller that writes into the slots can bring about.
TYPED_TEST(IntMapDeathTest, APairThatDoesNotLandAsANewOneWhenTheMapGrows) {
  OwnedMap<TypeParam> map;
  map.Put(1, 2);
  map.Put(2, 3);
  const char* text = "val == entry->e_val && added";
  map->m_entries[1].e_val = TypeParam::kNone;
  EXPECT_ASSERTION(TypeParam::Grow(map.get(), 20), kModule, Function<TypeParam>("Grow"), text);
  map->m_entries[1].e_val = 2;
  map->m_entries[2].e_key = 1;
  EXPECT_ASSERTION(TypeParam::Grow(map.get(), 20), kModule, Function<TypeParam>("Grow"), text);
}

constexpr size_t kTooMuch = size_t{1} << 32;  // bytes

// A map with more pairs than memory can hold, as far as its record tells.
template <typename T>
void Pretend(const OwnedMap<T>& map, UInt pairs) {
  map->m_used.t.length = pairs;
  map->m_capacity = pairs;
}

TYPED_TEST(IntMapDeathTest, NoRoomAfterGrowingBecauseTheDoubleIsZero) {
  OwnedMap<TypeParam> map;
  Pretend(map, 0x80000000);
  EXPECT_ASSERTION(map.Put(1, 2), kModule, Function<TypeParam>("Find"), "(((map)->m_used).t.length) < map->m_capacity");
  Pretend(map, 0);
}

TYPED_TEST(IntMapDeathTest, MoreSlotsThan32BitsCount) {
  OwnedMap<TypeParam> map;
  support::faults::RefuseBlocksAbove(kTooMuch);
  // 1431655765 pairs are the most: three times as many are 2^32 - 1. The slots, 2147483647, are a prime already.
  const std::string most = "asked for " + std::to_string(2147483647 * sizeof(typename TypeParam::Entry)) + " bytes";
  EXPECT_EXIT(TypeParam::Grow(map.get(), 1431655765), ::testing::ExitedWithCode(support::faults::kRefusedBlock), most);
  EXPECT_CLEAR_END(TypeParam::Grow(map.get(), 1431655766),
                   ":idmap: more slots than 32 bits can count: capacity=1431655766");
  EXPECT_CLEAR_END(TypeParam::Grow(map.get(), 0x80000000),
                   ":idmap: more slots than 32 bits can count: capacity=2147483648");
  EXPECT_CLEAR_END(TypeParam::Grow(map.get(), 0xFFFFFFFF),
                   ":idmap: more slots than 32 bits can count: capacity=4294967295");
  support::faults::RefuseBlocksAbove(SIZE_MAX);
}

TYPED_TEST(IntMapDeathTest, GrowthByAnInsertionToMoreSlotsThan32BitsCount) {
  OwnedMap<TypeParam> map;
  support::faults::RefuseBlocksAbove(kTooMuch);
  Pretend(map, 671088640);
  EXPECT_EXIT(map.Put(1, 2), ::testing::ExitedWithCode(support::faults::kRefusedBlock),
              "asked for [0-9]+ bytes");  // to 1342177280 pairs
  Pretend(map, 1342177280);
  EXPECT_CLEAR_END(map.Put(1, 2), ":idmap: more slots than 32 bits can count: capacity=2684354560");
  Pretend(map, 0);
  support::faults::RefuseBlocksAbove(SIZE_MAX);
}

TYPED_TEST(IntMapDeathTest, SlotsThatWereAllWrittenTo) {
  OwnedMap<TypeParam> map;
  for (UInt s = 0; s < 17; s++) map->m_entries[s].e_key = 17 + s;
  EXPECT_EQ(map.At(1), TypeParam::kNone);  // no probe goes on for ever
  EXPECT_CLEAR_END(map.Put(1, 2), ":idmap: no free slot");
  for (UInt s = 0; s < 17; s++) map->m_entries[s].e_val = s;
  TypeParam::Grow(map.get(), 20);  // more pairs than were ever counted
  EXPECT_EQ(TypeParam::Size(map.get()), 17u);
}

}  // namespace
