/**
 * @file
 * Hash maps from integers to integers: IdMap, 32 bits to 32 bits, and RefMap, 64 bits to 64 bits.
 *
 * Twins of one design: open addressing with linear probing over an array of slots, each a key and its value, and a list
 * of the slots in use, so that emptying a map and walking it cost what it holds and not what it has room for. One call
 * looks a key up, inserts it when it is missing and changes its value when it is there, each as the caller asks. Keys
 * are not removed one by one.
 *
 * The marker. One number, `IDMAP_NONE` or `REFMAP_NONE`, says "none": it marks a free slot, so it is never a key
 * (asserted); as an answer it says that a key is absent; as the value to create or to update with it says not to. A
 * value equal to the marker can therefore not be stored: asking for it leaves the map as it is. The two markers differ
 * on purpose: 0xFFFFFFFF is an ordinary key and an ordinary value of an IdMap.
 *
 * Places. A key's slot is its remainder modulo the number of slots, a prime, or the first free one behind it: there is
 * no other hash. Keys that are neighbours lie in neighbouring slots, which is what identifiers want; keys chosen to
 * share a remainder make every operation as slow as a list. Who takes keys from strangers mixes them first.
 *
 * Threads: none. A caller that shares a map locks around every call.
 *
 * Limits: 1431655765 pairs; by insertions alone, which double, 1342177280. Growth past it, where the number of slots
 * leaves 32 bits, and memory that cannot be had end the process with a message.
 */
#ifndef DICT_IDMAP_H
#define DICT_IDMAP_H

#include <stddef.h>

#include "qxlib/types.h"

QX_BEGIN_DECLS

/** "None" of an IdMap: absent, no value to create, no value to update with. Never a key, never a stored value. */
#define IDMAP_NONE 0xFFFFFFFEU

/** "None" of a RefMap. */
#define REFMAP_NONE 0xFFFFFFFFFFFFFFFFUL

/** A slot of an IdMap. */
typedef struct {
  Id e_key; /**< the key; `IDMAP_NONE`: the slot is free */
  Id e_val; /**< the value; undefined while the slot is free */
} IdMapEntry;

/** A map from 32-bit keys to 32-bit values. To be read, not written, by callers. */
typedef struct IdMap {
  UInt m_capacity;       /**< pairs that it may hold before it grows */
  UInt m_allocated;      /**< slots: the prime that `Prime` gives for half as many again as `m_capacity` */
  IdMapEntry* m_entries; /**< the slots; move when the map grows */
  UIntArray m_used;      /**< the indices of the occupied slots, in the order in which they were filled */
  ULong m_reciprocal;    /**< private: divides by the number of slots */
  UInt m_reach;          /**< private: the most slots that a key lies behind the one it belongs to */
} IdMap;

/** A slot of a RefMap. */
typedef struct {
  ULong e_key; /**< the key; `REFMAP_NONE`: the slot is free */
  ULong e_val; /**< the value; undefined while the slot is free */
} RefMapEntry;

/** A map from 64-bit keys to 64-bit values. To be read, not written, by callers. The fields are those of IdMap. */
typedef struct RefMap {
  UInt m_capacity;
  UInt m_allocated;
  RefMapEntry* m_entries;
  UIntArray m_used;
  ULong m_reciprocal; /**< private */
  UInt m_reach;       /**< private */
} RefMap;

/** Makes an empty map with room for 10 pairs, the caller's until `IdMapDelete`. Never null. */
QX_API IdMap* IdMapNew(void);

/** Releases a map and its slots; `map` must not be null (asserted: "map != ((void *)0)"). */
QX_API void IdMapDelete(IdMap* map);

/**
 * Empties a map and keeps its capacity and slots; `map` must not be null (asserted as above).
 *
 * Cost: proportional to the number of pairs.
 */
QX_API void IdMapClear(IdMap* map);

/** The number of pairs; `map` must not be null (asserted as above). */
QX_API UInt IdMapSize(IdMap* map);

/**
 * Gives the n-th pair in the order in which the pairs were placed: with n from 0 to the size less one, all of them.
 *
 * Growth places all pairs anew, in the order of the old slots. The order is therefore that of the insertions only since
 * the last growth; what was there before comes first, in the order that its slots had.
 *
 * @param n    below the size (asserted: "map != ((void *)0) && n < (((map)->m_used).t.length)")
 * @param key  receives the key
 * @param val  receives the value
 */
QX_API void IdMapGet(IdMap* map, UInt n, Id* key, Id* val);

/**
 * Looks a key up; inserts it when it is missing, or changes its value when it is there, if asked to.
 *
 * @param key     the key; not `IDMAP_NONE` (asserted, together with the map: "map != ((void *)0) && key != (((UInt)
 *                (2147483647 * 2U + 1U)) - 1)")
 * @param create  the value to insert a missing key with; `IDMAP_NONE`: do not insert
 * @param update  the value to give a key that is there; `IDMAP_NONE`: leave its value
 * @param added   receives TRUE when the key was inserted, else FALSE; may be null
 * @return the key's value after the call; `IDMAP_NONE` when the key is missing and was not inserted
 *
 * An insertion that finds the map full doubles its capacity first, and then moves `m_entries`. Cost: a few slots, all
 * of them close together, while keys spread over the slots; an absent key costs no more than the key that lies
 * farthest from its place.
 */
QX_API Id IdMapFind(IdMap* map, Id key, Id create, Id update, Boolean* added);

/**
 * Raises the capacity, so that a known number of pairs can be inserted without growth in between; never lowers it.
 *
 * @param map       not null (asserted: "map != ((void *)0)")
 * @param capacity  pairs to make room for. Above 1431655765 (when that is more than the map has) the process ends
 *                  with a message: 32 bits do not hold the number of slots.
 *
 * All pairs are placed anew, in the order of their old slots; see `IdMapGet`. A slot with a value equal to the marker,
 * or the same key twice, which only a caller that wrote into the slots can bring about, fails an assertion ("val ==
 * entry->e_val && added"). Cost: linear in the slots, old and new.
 */
QX_API void IdMapGrow(IdMap* map, UInt capacity);

/** As `IdMapNew`. */
QX_API RefMap* RefMapNew(void);

/** As `IdMapDelete`. */
QX_API void RefMapDelete(RefMap* map);

/** As `IdMapClear`. */
QX_API void RefMapClear(RefMap* map);

/** As `IdMapSize`. */
QX_API UInt RefMapSize(RefMap* map);

/** As `IdMapGet`. */
QX_API void RefMapGet(RefMap* map, UInt n, ULong* key, ULong* val);

/**
 * As `IdMapFind`, with `REFMAP_NONE` for "none" (asserted: "map != ((void *)0) && key != ((ULong)
 * (9223372036854775807L * 2UL + 1UL))").
 */
QX_API ULong RefMapFind(RefMap* map, ULong key, ULong create, ULong update, Boolean* added);

/** As `IdMapGrow`. */
QX_API void RefMapGrow(RefMap* map, UInt capacity);

/*
 * Additions since 1.0.
 */

/**
 * Looks many keys up, and neither inserts nor changes any. An addition since 1.0.
 *
 * @param map     not null (asserted: "map != ((void *)0)"). It is only read: any number of these look-ups may run at
 *                once, while no other function works on the map.
 * @param keys    `count` keys, in any order, repeated or not; none of them `IDMAP_NONE` (asserted as by `IdMapFind`)
 * @param count   how many; 0 is allowed
 * @param values  receives for each key, at its place, its value, or `IDMAP_NONE` when it is missing; may be the array
 *                of keys itself, must not overlap it otherwise
 *
 * Cost: of a large map a fraction of the single look-ups', because several of them wait for memory at the same time.
 */
QX_API void IdMapFindMany(const IdMap* map, const Id* keys, size_t count, Id* values);

/** As `IdMapFindMany`, with `REFMAP_NONE`. An addition since 1.0. */
QX_API void RefMapFindMany(const RefMap* map, const ULong* keys, size_t count, ULong* values);

QX_END_DECLS

#endif
