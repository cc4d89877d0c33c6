// The integer maps' one implementation: slots, the list of those in use, probing, growth.
//
//   m_entries  [ key val | ---- | key val | key val | ---- | ... ]   m_allocated slots, a prime; ---- is free: its key
//                 0                 2         3                      is the marker, its value has never been written
//   m_used     [ 2, 0, 3 ]                                           the slots in the order in which they were filled
//
// A key lies in the slot of its remainder modulo m_allocated, its home, or, when that is taken, in the first free one
// behind it, around the end. Nothing is ever removed, so all slots from a key's home to the one it lies in are taken,
// and a probe ends at the first free slot.
//
// Two things make that quick without moving a single key. Slots are looked at in groups of a cache line, with one
// branch for all of them: which slot ends a probe hangs on memory that has yet to arrive, and a branch for each would
// be guessed wrong about once a look-up. And the map remembers m_reach, the most slots that any key lies behind its
// home: a run of neighbouring keys can fill thousands of slots without a gap, and the probe for an absent key that
// starts inside one need not see its end.
//
// A map is told to these templates by a traits record:
//
//   Map, Entry, Key               the public types; values are of the keys' type
//   kNone                         the marker
//   kModule                       "dict/idmap", in messages and assertions
//   kDeleteName ... kGrowName     the exported functions, in messages and assertions
//   kFindText                     the assertion that there is a map and the key is not the marker

#ifndef DICT_INT_MAP_H
#define DICT_INT_MAP_H

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>

#include "dict/huge_pages.h"
#include "dict/idmap.h"
#include "dict/remainder.h"
#include "dict/report.h"
#include "qxlib/misc.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace int_map {

constexpr UInt kFirstCapacity = 10;
constexpr UInt kMaxCapacity = ~UInt{0} / 3;  // the slots are counted by way of three times as many
constexpr UInt kNoSlot = ~UInt{0};
constexpr UInt kSweepShare = 4;  // from this part of the slots on, emptying all is quicker than emptying the used ones
constexpr size_t kAhead = 32;    // keys whose slots are on their way from memory while many are looked up
constexpr size_t kRing = 32;     // pairs whose new slots are on their way from memory while a map grows

template <typename Entry>
constexpr UInt kGroup = 64 / sizeof(Entry);  // slots looked at together

// Ends: a bit for each slot of a group, set when it holds the key or is free.

#ifdef __SSE2__

inline __m128i FourKeys(const IdMapEntry* entries) {
  const auto* at = reinterpret_cast<const __m128i*>(entries);
  const __m128 low = _mm_castsi128_ps(_mm_loadu_si128(at));
  const __m128 high = _mm_castsi128_ps(_mm_loadu_si128(at + 1));
  return _mm_castps_si128(_mm_shuffle_ps(low, high, _MM_SHUFFLE(2, 0, 2, 0)));
}

inline UInt Ends(const IdMapEntry* entries, Id key) {
  const __m128i wanted = _mm_set1_epi32(static_cast<int>(key));
  const __m128i none = _mm_set1_epi32(static_cast<int>(IDMAP_NONE));
  const __m128i front = FourKeys(entries);
  const __m128i back = FourKeys(entries + 4);
  const __m128i front_ends = _mm_or_si128(_mm_cmpeq_epi32(front, wanted), _mm_cmpeq_epi32(front, none));
  const __m128i back_ends = _mm_or_si128(_mm_cmpeq_epi32(back, wanted), _mm_cmpeq_epi32(back, none));
  const __m128i ends = _mm_packs_epi32(front_ends, back_ends);
  return static_cast<UInt>(_mm_movemask_epi8(_mm_packs_epi16(ends, _mm_setzero_si128())));
}

inline __m128 TwoKeys(const RefMapEntry* entries) {
  const __m128i first = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&entries[0].e_key));
  const __m128i second = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&entries[1].e_key));
  return _mm_castsi128_ps(_mm_unpacklo_epi64(first, second));
}

// There is no comparison of 64 bits: the halves are compared apart.
inline UInt Ends(const RefMapEntry* entries, ULong key) {
  static_assert(REFMAP_NONE == ~ULong{0});
  const __m128i wanted_low = _mm_set1_epi32(static_cast<int>(key));
  const __m128i wanted_high = _mm_set1_epi32(static_cast<int>(key >> 32));
  const __m128 front = TwoKeys(entries);
  const __m128 back = TwoKeys(entries + 2);
  const __m128i low = _mm_castps_si128(_mm_shuffle_ps(front, back, _MM_SHUFFLE(2, 0, 2, 0)));
  const __m128i high = _mm_castps_si128(_mm_shuffle_ps(front, back, _MM_SHUFFLE(3, 1, 3, 1)));
  const __m128i same = _mm_and_si128(_mm_cmpeq_epi32(low, wanted_low), _mm_cmpeq_epi32(high, wanted_high));
  const __m128i none = _mm_cmpeq_epi32(_mm_and_si128(low, high), _mm_set1_epi32(-1));
  return static_cast<UInt>(_mm_movemask_ps(_mm_castsi128_ps(_mm_or_si128(same, none))));
}

#else

template <typename Entry, typename Key>
UInt Ends(const Entry* entries, Key key) {
  constexpr Key kNone = sizeof(Key) == sizeof(Id) ? IDMAP_NONE : static_cast<Key>(REFMAP_NONE);
  UInt ends = 0;
  for (UInt i = 0; i < kGroup<Entry>; i++) {
    ends |= static_cast<UInt>((entries[i].e_key == key) | (entries[i].e_key == kNone)) << i;
  }
  return ends;
}

#endif

// Makes every slot free.
template <typename T>
void EmptySlots(typename T::Map* map) {
  for (UInt s = 0; s < map->m_allocated; s++) map->m_entries[s].e_key = T::kNone;
}

template <typename T>
UInt Home(const typename T::Map& map, typename T::Key key) {
  return qx::Remainder(key, map.m_allocated, map.m_reciprocal);
}

// The slot that ends the probe that has come to slot `s`: the first that holds the key or is free, among those that
// lie at most `reach` behind the key's home, which is `seen` slots back. kNoSlot: all of these hold other keys.
template <typename T>
UInt ProbeEnd(const typename T::Map& map, typename T::Key key, UInt s, UInt seen, UInt reach) {
  constexpr UInt kSlots = kGroup<typename T::Entry>;
  const typename T::Entry* entries = map.m_entries;
  const UInt size = map.m_allocated;
  while (seen <= reach) {
    if (s == size) s = 0;
    if (s + kSlots <= size) [[likely]] {
      const UInt ends = Ends(entries + s, key);
      if (ends != 0) [[likely]]
        return s + static_cast<UInt>(std::countr_zero(ends));
      s += kSlots;
      seen += kSlots;
    } else {
      if (entries[s].e_key == key || entries[s].e_key == T::kNone) return s;
      s++;
      seen++;
    }
  }
  return kNoSlot;
}

// The first free slot from a key's home on.
template <typename T>
UInt FreeSlot(const typename T::Map& map, UInt home) {
  const UInt s = ProbeEnd<T>(map, T::kNone, home, 0, map.m_allocated);
  if (s == kNoSlot) QX_DIE_IN(T::kModule, T::kFindName, ":idmap: no free slot: the map was written to by others");
  return s;
}

// Puts a pair into a free slot.
template <typename T>
void Place(typename T::Map* map, UInt home, UInt s, typename T::Key key, typename T::Key val) {
  if (map->m_used.t.length == map->m_used.t.capacity) {
    ArrayGrow_(&map->m_used.a, sizeof(UInt), T::kModule, __LINE__);
  }
  map->m_entries[s] = {key, val};
  map->m_used.t.elts[map->m_used.t.length++] = s;
  const UInt distance = s >= home ? s - home : s + map->m_allocated - home;
  if (distance > map->m_reach) map->m_reach = distance;
}

// A pair of the slots that a map had before it grew, and its home among the new ones.
template <typename T>
struct Moving {
  const typename T::Entry* entry;
  UInt home;
};

template <typename T>
void PlaceAgain(typename T::Map* map, const Moving<T>& pair) {
  const auto& [key, val] = *pair.entry;
  const UInt s = ProbeEnd<T>(*map, key, pair.home, 0, map->m_allocated);
  const bool added = s != kNoSlot && map->m_entries[s].e_key == T::kNone && val != T::kNone;
  QX_ASSERT_IN(T::kModule, T::kGrowName, added, "val == entry->e_val && added");
  Place<T>(map, pair.home, s, key, val);
}

// Places the pairs of the old slots, in their order. Slots of the new array are fetched ahead, so that one pair does
// not wait for the other's.
template <typename T>
void PlaceAll(typename T::Map* map, const typename T::Entry* old, UInt old_size) {
  std::array<Moving<T>, kRing> ring;
  size_t in = 0;
  size_t out = 0;
  for (UInt s = 0; s < old_size; s++) {
    if (old[s].e_key == T::kNone) continue;
    const UInt home = Home<T>(*map, old[s].e_key);
    __builtin_prefetch(map->m_entries + home, 1);
    __builtin_prefetch(map->m_entries + home + kGroup<typename T::Entry> - 1, 1);
    if (in - out == kRing) PlaceAgain<T>(map, ring[out++ % kRing]);
    ring[in++ % kRing] = {&old[s], home};
  }
  while (out != in) PlaceAgain<T>(map, ring[out++ % kRing]);
}

template <typename T>
void Grow(typename T::Map* map, UInt capacity) {
  QX_ASSERT_IN(T::kModule, T::kGrowName, map != nullptr, "map != ((void *)0)");
  if (map->m_capacity >= capacity) return;
  const UInt size = capacity <= kMaxCapacity ? Prime(capacity * 3 / 2) : 0;
  if (size <= capacity) {
    QX_DIE_IN(T::kModule, T::kGrowName, ":idmap: more slots than 32 bits can count: capacity=%u", capacity);
  }
  typename T::Entry* old = map->m_entries;
  const UInt old_size = map->m_allocated;
  map->m_capacity = capacity;
  map->m_allocated = size;
  map->m_reciprocal = qx::Reciprocal(size);
  map->m_reach = 0;
  map->m_entries =
      static_cast<typename T::Entry*>(Allocate_(sizeof(typename T::Entry) * size, nullptr, T::kModule, __LINE__));
  qx::AdviseHugePagesWithin(map->m_entries, sizeof(typename T::Entry) * size);
  EmptySlots<T>(map);
  map->m_used.t.length = 0;
  if (old == nullptr) return;
  PlaceAll<T>(map, old, old_size);
  UnAllocate_(old, T::kModule, __LINE__);
}

template <typename T>
typename T::Map* New() {
  auto* map = static_cast<typename T::Map*>(Allocate_(sizeof(typename T::Map), nullptr, T::kModule, __LINE__));
  *map = {};
  ArrayInit_(&map->m_used.a);
  Grow<T>(map, kFirstCapacity);
  return map;
}

template <typename T>
void Delete(typename T::Map* map) {
  QX_ASSERT_IN(T::kModule, T::kDeleteName, map != nullptr, "map != ((void *)0)");
  if (map->m_used.t.elts != nullptr) ArrayFree_(&map->m_used.a, T::kModule, __LINE__);
  if (map->m_entries != nullptr) UnAllocate_(map->m_entries, T::kModule, __LINE__);
  UnAllocate_(map, T::kModule, __LINE__);
}

template <typename T>
void Clear(typename T::Map* map) {
  QX_ASSERT_IN(T::kModule, T::kClearName, map != nullptr, "map != ((void *)0)");
  const UInt used = map->m_used.t.length;
  if (used > map->m_allocated / kSweepShare) {
    EmptySlots<T>(map);
  } else {
    for (UInt i = 0; i < used; i++) map->m_entries[map->m_used.t.elts[i]].e_key = T::kNone;
  }
  map->m_used.t.length = 0;
  map->m_reach = 0;
}

template <typename T>
UInt Size(const typename T::Map* map) {
  QX_ASSERT_IN(T::kModule, T::kSizeName, map != nullptr, "map != ((void *)0)");
  return map->m_used.t.length;
}

template <typename T>
void Get(const typename T::Map* map, UInt n, typename T::Key* key, typename T::Key* val) {
  QX_ASSERT_IN(T::kModule, T::kGetName, map != nullptr && n < map->m_used.t.length,
               "map != ((void *)0) && n < (((map)->m_used).t.length)");
  const typename T::Entry& entry = map->m_entries[map->m_used.t.elts[n]];
  *key = entry.e_key;
  *val = entry.e_val;
}

// Inserts an absent key and returns its value. `s` is the slot that ended its probe, or kNoSlot. Not inlined, and told
// little: a look-up that inserts nothing need not save registers.
template <typename T>
[[gnu::noinline]] typename T::Key Insert(typename T::Map* map, UInt s, typename T::Key key, typename T::Key val) {
  if (map->m_used.t.length == map->m_capacity) [[unlikely]] {
    Grow<T>(map, map->m_used.t.length * 2);
    QX_ASSERT_IN(T::kModule, T::kFindName, map->m_used.t.length < map->m_capacity,
                 "(((map)->m_used).t.length) < map->m_capacity");
    s = kNoSlot;
  }
  const UInt home = Home<T>(*map, key);
  if (s == kNoSlot) s = FreeSlot<T>(*map, home);
  Place<T>(map, home, s, key, val);
  return val;
}

// The value of a key that is there, after the update that was asked for.
template <typename T>
typename T::Key Found(typename T::Entry* entry, typename T::Key update, Boolean* added) {
  if (added != nullptr) *added = FALSE;
  if (update != T::kNone) entry->e_val = update;
  return entry->e_val;
}

// Find, where the kSeen slots from the key's home to in front of `next` have told nothing.
template <typename T, UInt kSeen>
[[gnu::noinline]] typename T::Key FindFarther(typename T::Map* map, typename T::Key key, typename T::Entry* next,
                                              typename T::Key create, typename T::Key update, Boolean* added) {
  const UInt s = ProbeEnd<T>(*map, key, static_cast<UInt>(next - map->m_entries), kSeen, map->m_reach);
  if (s != kNoSlot && map->m_entries[s].e_key == key) return Found<T>(&map->m_entries[s], update, added);
  if (added != nullptr) *added = create != T::kNone ? TRUE : FALSE;
  return create != T::kNone ? Insert<T>(map, s, key, create) : T::kNone;
}

// Nearly always the first group, the slots from the key's home on, settles it:
//
//   the group holds the key          found
//   it has a free slot before that   absent; a new key goes there
//   neither, and keys were placed    the search goes on behind the group
//     as far as a group from home
//   neither, and none was            absent
//   it would pass the last slot      the search goes on at home, slot by slot
//
// Whatever else there is to do is called last, by a jump, and is told what lies in registers anyway: so nothing has to
// be saved.
template <typename T>
typename T::Key Find(typename T::Map* map, typename T::Key key, typename T::Key create, typename T::Key update,
                     Boolean* added) {
  QX_ASSERT_IN(T::kModule, T::kFindName, map != nullptr && key != T::kNone, T::kFindText);
  constexpr UInt kSlots = kGroup<typename T::Entry>;
  const UInt home = Home<T>(*map, key);
  typename T::Entry* entry = map->m_entries + home;
  UInt ends = 1;
  if (map->m_reach != 0) {  // else every key is at home, as neighbouring keys are
    if (home + kSlots > map->m_allocated) [[unlikely]]
      return FindFarther<T, 0>(map, key, entry, create, update, added);
    ends = Ends(entry, key);
    entry += std::countr_zero(ends | 1u << (kSlots - 1));  // none: the last one, which is another key's
  }
  if (entry->e_key == key) return Found<T>(entry, update, added);
  // Where no key lies that far from home this is not asked: inside a solid run it would be guessed wrong.
  if (map->m_reach >= kSlots && ends == 0) [[unlikely]]
    return FindFarther<T, kSlots>(map, key, entry + 1, create, update, added);
  if (added != nullptr) *added = create != T::kNone ? TRUE : FALSE;
  if (create == T::kNone) return T::kNone;
  return Insert<T>(map, entry->e_key == T::kNone ? static_cast<UInt>(entry - map->m_entries) : kNoSlot, key, create);
}

// Looks many keys up: the value of each, or the marker. The slots of keys to come are fetched ahead.
template <typename T>
void FindMany(const typename T::Map* map, const typename T::Key* keys, size_t count, typename T::Key* values) {
  QX_ASSERT_IN(T::kModule, T::kFindManyName, map != nullptr, "map != ((void *)0)");
  constexpr UInt kSlots = kGroup<typename T::Entry>;
  const typename T::Map as_is = *map;  // whatever is written to `values`
  UInt homes[kAhead];
  const auto fetch = [&](size_t i) {
    const UInt home = Home<T>(as_is, keys[i]);
    homes[i % kAhead] = home;
    __builtin_prefetch(as_is.m_entries + home);
    __builtin_prefetch(as_is.m_entries + home + kSlots - 1);  // a group lies in two cache lines, as a rule
  };
  for (size_t i = 0; i < std::min(count, kAhead); i++) fetch(i);
  for (size_t i = 0; i < count; i++) {
    const typename T::Key key = keys[i];
    const UInt home = homes[i % kAhead];
    if (i + kAhead < count) fetch(i + kAhead);
    QX_ASSERT_IN(T::kModule, T::kFindManyName, key != T::kNone, T::kFindText);
    UInt s = home;
    if (as_is.m_reach != 0) {
      if (home + kSlots > as_is.m_allocated) [[unlikely]] {
        s = ProbeEnd<T>(as_is, key, home, 0, as_is.m_reach);
      } else {
        const UInt ends = Ends(as_is.m_entries + home, key);
        s += static_cast<UInt>(std::countr_zero(ends | 1u << (kSlots - 1)));
        if (as_is.m_reach >= kSlots && ends == 0) [[unlikely]]
          s = ProbeEnd<T>(as_is, key, home + kSlots, kSlots, as_is.m_reach);
      }
    }
    if (s == kNoSlot) [[unlikely]] {
      values[i] = T::kNone;
      continue;
    }
    // All ones where the slot is not the key's: the marker, by arithmetic, as half of the keys may be absent.
    const typename T::Key absent = static_cast<typename T::Key>(as_is.m_entries[s].e_key == key) - 1;
    values[i] = (as_is.m_entries[s].e_val & ~absent) | (T::kNone & absent);
  }
}

}  // namespace int_map

#endif
