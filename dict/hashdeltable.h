/**
 * @file
 * HashDelTable: byte-string keys of any length, each with a value of fixed length, in one heap of memory; keys can be
 * removed.
 *
 * The sibling of `HashTable`, with the same entries, callbacks and default hash. A removed key leaves a tombstone in
 * its slot and its bytes in the heap; `HashDelTableGrow` cleans both up, moving the live entries together, and so does
 * every walk and selection before it starts. The table never cleans up or grows by itself: tombstones count twice
 * against the capacity, and a table that is full refuses new keys until the caller grows it.
 *
 *     HashDelTable* table = HashDelTableNew(1000, NULL, NULL, NULL, sizeof(ULong), 0);
 *     UByte* entry = HashDelTableFind(table, key, length, TRUE, NULL, NULL);   // value: 8 bytes, zero when new
 *     if (entry == NULL) {                                                     // full of keys, or of tombstones
 *       HashDelTableGrow(table, 1.5f, NULL);
 *       entry = HashDelTableFind(table, key, length, TRUE, NULL, NULL);
 *     }
 *     HashDelTableRemove(table, key, length, NULL);
 *
 * How long things stay good: an entry pointer until the next insertion or clean-up, a heap offset until the next
 * clean-up.
 * Clean-ups happen in `HashDelTableGrow`, `HashDelTableClear`, `HashDelTableMemRead` and, when keys have been removed
 * since the last one, in `HashDelTableIteratorInit`, `HashDelTableEnumerate` and `HashDelTableSelect`.
 *
 * A table is hashed, or, after `HashDelTableSelect`, selected: its slots are then a dense list of chosen entries that
 * can be sorted and indexed but no longer searched or changed. `HashDelTableClear` leads back.
 *
 * Threads: none inside. Callers that share a table lock around every call, walks included.
 *
 * Callbacks get the caller's pointer of the call last, unchanged. They must not change the table that calls them
 * (`HashDelTableEnumerate`'s visitor may insert and remove), and must return: no exception, no jump. One that inserts,
 * removes or grows all the same may leave wrong answers behind (keys lost, or found after their removal), but leads no
 * operation outside the table's memory; one that clears, frees or reads into the table takes the ground away from
 * under it.
 *
 * Memory: blocks of the allocator, which ends the process with a message when memory runs out.
 *
 * Damaged images: a table read from an image whose bytes are wrong may give wrong answers, null, or a walk that ends
 * early, or fail one of the assertions told here, but no operation leaves the table's memory and none runs for ever.
 */
#ifndef DICT_HASHDELTABLE_H
#define DICT_HASHDELTABLE_H

#include "dict/hashtable.h"
#include "qxlib/types.h"

QX_BEGIN_DECLS

/**
 * A table. Read the fields as you like, write none.
 *
 * An entry lies in the heap as in a `HashTable`: its value (`t_val_len` bytes; the entry pointer points here), the
 * length of its key (`t_key_size` bytes little-endian, or 1 to 5 bytes when `t_key_size` is 0) and the bytes of its
 * key. It starts at a multiple of 8. Padding, and heap bytes that no entry has covered yet, are 0.
 */
typedef struct HashDelTable {
  HashKeyFunction t_hash;    /**< hash of a key; null: `HashBytes` */
  HashValueFunction t_value; /**< fills a new value; null: zero bytes */
  HashEqualFunction t_equal; /**< equality of keys; null: same length, same bytes */
  UByte* t_data;             /**< the heap */
  UInt* t_entries;           /**< the slots: heap offsets, 0xFFFFFFFE for a tombstone, 0xFFFFFFFF for an empty one;
                                  selected: the chosen offsets */
  size_t t_data_used;        /**< bytes of the heap in use, removed entries included; never above 0xFFFFFFF8 */
  size_t t_data_size;        /**< bytes of the heap allocated */
  UInt t_nkeys_max;          /**< capacity: the most keys that the table accepts before it must be grown */
  UInt t_nkeys;              /**< live keys; selected: entries chosen */
  UInt t_nentries;           /**< slots, a prime */
  UInt t_deleted;            /**< tombstones: keys removed since the last clean-up */
  UInt t_val_len;            /**< bytes of every value */
  Boolean t_selected;        /**< the table is in the selected state */
  UByte t_key_size;          /**< bytes of the key length, 1 to 4; 0: 1 to 5 as needed */
  Boolean t_aligned;         /**< walks and clean-ups take entries to start at multiples of 8 */

  UInt t_divisor;     /**< private: the slot count that `t_reciprocal` belongs to */
  ULong t_reciprocal; /**< private: divides a hash by the slot count */
  UByte* t_tags;      /**< private: a byte of the hash for each slot, or null */
  void* t_spare[2];   /**< private: room for later versions; null */
} HashDelTable;

/** A position in a heap walk; see `HashDelTableIteratorInit`. */
typedef struct HashDelTableIterator {
  const HashDelTable* t_hash; /**< the table walked */
  UInt t_offset;              /**< heap offset of the current entry */
} HashDelTableIterator;

/**
 * Makes an empty table of a record that the caller provides.
 *
 * @param table     the record; its old contents are not looked at, and not released
 * @param capacity  keys that the table accepts before it must be grown; at least 5 are taken. Above 1431655765, for
 *                  which no slot count is known, the process ends with a message
 * @param hash      hash of a key, or null for `HashBytes`
 * @param value     fills new values, or null for zero bytes
 * @param equal     equality of keys, or null for equality of bytes
 * @param val_len   bytes of every value
 * @param key_size  bytes of the key length in the heap: 1 to 4, or 0 for 1 to 5 bytes as each key needs; a width above
 *                  4 fails the assertion "size <= 4" when the first key is stored
 *
 * Release: a record from `Allocate_` with `HashDelTableFree`, any other with `HashDelTableFinalize`, or `t_data` and
 * `t_entries` with `UnAllocate_`: it owns nothing else.
 *
 * Cost: 10 bytes of memory a slot, three slots for two keys.
 */
QX_API void HashDelTableInit(HashDelTable* table, UInt capacity, HashKeyFunction hash, HashValueFunction value,
                             HashEqualFunction equal, UInt val_len, UByte key_size);

/**
 * Makes an empty table in a record of its own; arguments as for `HashDelTableInit`, of `key_size` the low 8 bits.
 *
 * @return the table, to be released with `HashDelTableFree`
 */
QX_API HashDelTable* HashDelTableNew(UInt capacity, HashKeyFunction hash, HashValueFunction value,
                                     HashEqualFunction equal, UInt val_len, UInt key_size);

/** Releases the heap, the slots and the record, which must come from `Allocate_` (as from `HashDelTableNew`). */
QX_API void HashDelTableFree(HashDelTable* table);

/**
 * Empties the table, whatever its state.
 *
 * A table of at most 10000 slots keeps its memory and capacity, and the heap its old bytes until new entries cover
 * them. A larger one gives its memory back and starts again with a capacity of 5, and so does one whose slots cannot
 * hold its capacity and one more (after a failed `HashDelTableMemRead`). Callbacks, value length and key length width
 * stay.
 *
 * Invalidates every entry pointer, offset and iterator.
 */
QX_API void HashDelTableClear(HashDelTable* table);

/**
 * An independent copy: callbacks, state, the whole heap and all slots, tombstones included.
 *
 * @return the copy, to be released with `HashDelTableFree`
 */
QX_API HashDelTable* HashDelTableCopy(const HashDelTable* table);

/**
 * Looks a key up and, when `create` is true, inserts it if it is missing.
 *
 * @param table   the table, in the hashed state (asserted: "!table->t_selected")
 * @param bytes   the key, copied when inserted; may be null when `len` is 0; may lie in an entry of this very table
 * @param len     bytes of the key; below 2^(8 * t_key_size) when the key length has a fixed width (asserted:
 *                "l < (b << (8 * k))")
 * @param create  TRUE: insert a missing key; its value is zeroed, or filled by the table's value callback
 * @param offset  receives the entry's heap offset, when not null and an entry is returned; good until the next clean-up
 * @param ptr     handed through to the table's callbacks
 * @return the entry (its `t_val_len` value bytes, owned by the table); null when the key is missing and not created,
 *         and when it cannot be: 2 * t_deleted + t_nkeys has reached the capacity, the value callback refuses, or the
 *         heap would pass the 0xFFFFFFF8 bytes that offsets reach
 *
 * Tombstones count twice so that a table with many removals is cleaned up before its probes grow long: a null result
 * does not mean `HashDelTableFull`. `HashDelTableGrow` makes room in either case. An insertion that returns null
 * changes nothing, except that one refused by the value callback may have enlarged and moved the heap, and leaves up to
 * 7 bytes of padding counted in `t_data_used`.
 *
 * Invalidates: an insertion may move the heap, and with it every entry pointer handed out before; offsets stay good.
 * Cost: one hash of the key; at full load about 2 probes for a key that is there, 4 for one that is not, if the hash
 * spreads, of which each may cost a cache miss in the slots and one in the heap (the second probe is nearly always of
 * the same slot). An insertion copies the key and now and then enlarges the heap by half.
 */
QX_API UByte* HashDelTableFind(HashDelTable* table, const UByte* bytes, UInt len, Boolean create, UInt* offset,
                               void* ptr);

/**
 * Removes a key.
 *
 * @param table  the table, in the hashed state (asserted: "!table->t_selected")
 * @param bytes  the key; may be null when `len` is 0; may lie in the very entry that goes
 * @param ptr    handed through to the table's callbacks
 * @return TRUE when the key was there and is now removed, FALSE when it was not
 *
 * Invalidates nothing: the entry's bytes stay where they are until the next clean-up. Cost: a look-up.
 */
QX_API Boolean HashDelTableRemove(HashDelTable* table, const UByte* bytes, UInt len, void* ptr);

/**
 * Cleans up, raises the capacity and hashes every key anew.
 *
 * @param table   the table, in the hashed state (asserted: "!table->t_selected")
 * @param factor  the new capacity is the old one times this, in single precision and cut to an integer; above 1
 *                (asserted: "factor > 1.0"). To be sure of a gain, take 1 + 2 / capacity or more, and not less than
 *                1.000001; to clean up only, a little above 1, say 1.00001f
 * @param ptr     handed to the table's hash callback
 *
 * When keys have been removed since the last clean-up, the live entries move to the front of the heap, in their old
 * order, and `t_data_used` shrinks; the heap's allocation stays. A new capacity above 1431655765 is refused: the table
 * stays as it was, after a message. A damaged capacity, one that the slots do not hold, counts as the number of slots
 * or as 10000, whichever is more.
 *
 * Invalidates entry pointers and offsets when there was something to clean up, else nothing. Cost: one pass over the
 * slots and one over the heap, which moves what is alive; one hash and one slot a live key.
 */
QX_API void HashDelTableGrow(HashDelTable* table, float factor, void* ptr);

/**
 * The key of an entry.
 *
 * @param val    an entry of this table
 * @param bytes  receives the address of the key, which lies in the heap and moves with it
 * @return the length of the key; 0 where a damaged entry's key would leave the heap
 */
QX_API UInt HashDelTableKey(const HashDelTable* table, const UByte* val, const UByte** bytes);

/** The entry at a heap offset that `HashDelTableFind` or a selection gave. Not checked; offset 0 is the heap's start.
 */
QX_API UByte* HashDelTableGetOffset(const HashDelTable* table, UInt offset);

/** The number of live keys; of a selected table, of the entries chosen. */
QX_API UInt HashDelTableSize(const HashDelTable* table);

/** The most keys that the table accepts before it must be grown. */
QX_API UInt HashDelTableCapacity(const HashDelTable* table);

/** TRUE when the table holds as many live keys as it accepts. FALSE does not promise room: tombstones take it too. */
QX_API Boolean HashDelTableFull(const HashDelTable* table);

/**
 * Starts a walk over all live entries in the order of their insertion, in either state of the table.
 *
 *     for (it = HashDelTableIteratorInit(table, NULL); !HashDelTableIteratorEnd(it); HashDelTableIteratorNext(it)) ...
 *     HashDelTableIteratorFinalize(it);
 *
 * @param table  an unselected table with tombstones is cleaned up first, as by `HashDelTableGrow` with the factor
 *               1.00001: its capacity stays up to 99474 and rises by a hundred-thousandth above
 * @param ptr    handed to the table's hash callback by that clean-up
 * @return the iterator, owned by the caller until `HashDelTableIteratorFinalize`; null for a null table
 *
 * Entries inserted while the iterator lives are visited too; one removed ahead of it is still visited. Do not clean up,
 * free or clear the table under it: it would go on in the middle of other entries.
 */
QX_API HashDelTableIterator* HashDelTableIteratorInit(HashDelTable* table, void* ptr);

/** TRUE when no entry is left. The other operations want one. */
QX_API Boolean HashDelTableIteratorEnd(const HashDelTableIterator* it);

/** The current entry, until the next insertion. */
QX_API UByte* HashDelTableIteratorGetValue(const HashDelTableIterator* it);

/** The length of the current key; `kLen` receives the address of its bytes (the name is historical). */
QX_API UInt HashDelTableIteratorGetKey(const HashDelTableIterator* it, const UByte** kLen);

/** Moves to the next entry. */
QX_API void HashDelTableIteratorNext(HashDelTableIterator* it);

/** Releases the iterator. */
QX_API void HashDelTableIteratorFinalize(HashDelTableIterator* it);

/**
 * Visits the live entries in the order of their insertion, in either state of the table.
 *
 * @param table   an unselected table with tombstones is cleaned up first, as for `HashDelTableIteratorInit`
 * @param offset  where to start: 0, or the heap offset of an entry (not checked), as it is after the clean-up; at or
 *                past the end nothing is visited
 * @param fun     the visitor; it may insert, and then visits the new entries too, and remove: what it removes ahead of
 *                itself is still visited. It must not clean up
 * @param ptr     handed to the visitor, and to the table's hash callback by the clean-up
 * @return the first result of `fun` that is not 0, or 0
 */
QX_API UInt HashDelTableEnumerate(HashDelTable* table, UInt offset, HashEnumerateFunction fun, void* ptr);

/**
 * Sorts the chosen entries in the order of `cmp`.
 *
 * @param table  a selected table
 * @param cmp    the order; not null (asserted with the state: "cmp != ((void *)0) && table->t_selected")
 *
 * Entries that compare equal end up in an order that is not told. Cost: n log n comparisons.
 */
QX_API void HashDelTableSort(HashDelTable* table, HashCompareFunction cmp, void* ptr);

/**
 * Chooses entries, in slot order, and gives the hash index up for it: the table becomes selected, its first slots are
 * the chosen offsets, all others empty, and `HashDelTableSize` is the number chosen. A selected table is chosen from
 * again.
 *
 * @param table   a table with tombstones is cleaned up first, as for `HashDelTableIteratorInit`
 * @param count   the most entries to keep; 0: no limit. Once they are kept, `select` is no longer called
 * @param select  whether to keep an entry; null: every one
 * @param ptr     handed to `select`, and to the table's hash callback by the clean-up
 * @return the number of entries chosen
 */
QX_API UInt HashDelTableSelect(HashDelTable* table, UInt count, HashSelectFunction select, void* ptr);

/**
 * The i-th chosen entry of a selected table (asserted: "table->t_selected").
 *
 * @param i  0 to the number chosen - 1 (not checked against that number)
 * @return the entry; null where no entry of this heap can start: an empty slot, an index past the slots, a damaged
 *         offset
 */
QX_API UByte* HashDelTableGetIndex(const HashDelTable* table, UInt i);

/**
 * Appends the table's memory image to an array: 26 bytes, the heap in use and 4 bytes a slot.
 *
 * The table is written as it stands: state, tombstones and the bytes of removed entries included; to leave these out,
 * clean up first. Callbacks are not written. A heap of 0xFFFFFFFF bytes or more is asserted against
 * ("table->t_data_used < ((UInt) (2147483647 * 2U + 1U))"); an array that would come to hold more than 2147483647 bytes
 * ends the process with a message, before anything is written.
 *
 * Invalidates `to`'s elements. Cost: one allocation, one pass over the heap in use and the slots.
 */
QX_API void HashDelTableMemWrite(HashDelTable* table, UByteArray* to);

/**
 * Reads a memory image into a table and moves on behind it.
 *
 * @param table  an initialised table: its callbacks stay, and must hash as the writer's did (the image holds slot
 *               positions); everything else is replaced
 * @param from   the position of the image; receives the position just behind it, or, when bytes are missing, of the
 *               first missing one, which is `end`. Must not point into the table's own memory
 * @param end    behind the last byte that may be read
 * @return TRUE when the whole image was there; FALSE, without a message, when bytes are missing
 *
 * There is no roll-back: a table that met its end in the middle holds whatever of the new came whole, the heap, then
 * the counts, then the slots, beside what it held before. No memory is taken for what cannot be there. Such a table can
 * be cleared, freed and read into again, and nothing else is worth doing with it.
 *
 * The image carries no checksum: see the note on damaged images above. The table read is always marked aligned, and its
 * heap is just as large as its entries.
 */
QX_API Boolean HashDelTableMemRead(HashDelTable* table, UByte** from, UByte* end);

/*
 * Additions: what follows has been added to the table's original interface since 1.0. Images, slots and everything told
 * above are the same with it and without.
 */

/**
 * Addition: releases the heap and the slots of a table that `HashDelTableInit` made, but not its record, which is then
 * all zeros: it can be initialised again, or finalized once more, and nothing else.
 */
QX_API void HashDelTableFinalize(HashDelTable* table);

/**
 * Addition: says whether a table that was read from outside is sound, as `HashTableCheck` does.
 *
 * @param reason  when not null, receives a constant text that names the first thing wrong, or null when nothing is
 * @return TRUE only when every later operation, whatever its arguments, stays inside the table's memory, ends, and
 * fails no assertion but those about its arguments and the table's state
 *
 * Tombstones and removed entries are part of a sound table, as long as every entry of the heap is either live or
 * removed and their numbers are the recorded ones.
 */
QX_API Boolean HashDelTableCheck(const HashDelTable* table, const char** reason);

/**
 * Addition: cleans a table up and grows it to an exact capacity, at once, in place of by a factor.
 *
 * @param table     the table, in the hashed state (asserted: "!table->t_selected")
 * @param capacity  keys that the table is to accept; one that it accepts already changes nothing, and cleans nothing up
 * @param ptr       handed to the table's hash callback
 * @return TRUE when the table now accepts so many; FALSE, after a message and with the table as it was, when the
 *         capacity is above 1431655765
 *
 * Invalidates what `HashDelTableGrow` does. Cost: as `HashDelTableGrow`.
 */
QX_API Boolean HashDelTableReserve(HashDelTable* table, UInt capacity, void* ptr);

/**
 * Addition: figures of a table, as it stands: nothing is cleaned up.
 *
 * @param stats  receives them; of keys whose slot a search does not reach, or only after 65536 others, as a damaged
 *               table may have them, the probes count as that or not at all, and so do those of further keys after 2^26
 *               steps and 64 a slot
 * @param ptr    handed to the table's hash callback
 */
QX_API void HashDelTableStats(const HashDelTable* table, HashTableStatistics* stats, void* ptr);

QX_END_DECLS

#endif
