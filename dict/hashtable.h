/**
 * @file
 * HashTable: byte-string keys of any length, each with a value of fixed length, in one heap of memory.
 *
 * Entries are appended to the heap and never removed, so the heap is the sequence of all entries in the order of their
 * insertion; a slot array finds an entry by its key. A heap offset names an entry for as long as the table is not
 * cleared; an entry pointer is good until the next insertion. The table never grows its slot array by itself: a full
 * table refuses new keys until the caller grows it.
 *
 *     HashTable* table = HashTableNew(1000, NULL, NULL, NULL, sizeof(ULong), 0, FALSE);
 *     if (HashTableFull(table)) HashTableGrow(table, 1.5f, NULL);
 *     UByte* entry = HashTableFind(table, key, length, TRUE, NULL, NULL);   // value: 8 bytes at entry, zero when new
 *
 * A table is hashed, or, after `HashTableSelect`, selected: its slots are then a dense list of chosen entries that can
 * be sorted and indexed but no longer searched or grown. `HashTableClear` leads back.
 *
 * Threads: none inside. Callers that share a table lock around every call.
 *
 * Callbacks get the caller's pointer of the call last, unchanged. They must not change the table that calls them
 * (`HashTableEnumerate`'s visitor may insert), and must return: no exception, no jump. One that inserts or grows all
 * the same loses the operation under way, never memory, and its own entry pointers are stale after it as after any
 * insertion; one that clears or frees the table takes the ground away from under it.
 *
 * Damaged files: a table read from a file whose bytes are wrong may give wrong answers, null, or a walk that ends
 * early, or fail one of the assertions told here, but no operation leaves the table's memory and none runs for ever.
 */
#ifndef DICT_HASHTABLE_H
#define DICT_HASHTABLE_H

#include "qxlib/types.h"

QX_BEGIN_DECLS

/** The hash of a key; the same bytes must always give the same hash. */
typedef UInt (*HashKeyFunction)(const UByte* bytes, UInt len, void* ptr);

/** Fills the `t_val_len` bytes of a new entry's value; FALSE refuses the insertion. `value` is good during the call. */
typedef Boolean (*HashValueFunction)(UByte* value, const UByte* bytes, UInt len, void* ptr);

/** Whether a stored key equals the key looked for; keys that are equal must hash alike. */
typedef Boolean (*HashEqualFunction)(const UByte* stored, UInt stored_len, const UByte* bytes, UInt len, void* ptr);

/** The order of two entries: negative, 0 or positive. */
typedef int (*HashCompareFunction)(const UByte* entry1, const UByte* entry2, void* ptr);

/** Whether a selection keeps an entry. */
typedef Boolean (*HashSelectFunction)(UByte* entry, void* ptr);

/** Visits an entry; a result other than 0 ends the enumeration. */
typedef UInt (*HashEnumerateFunction)(UByte* entry, void* ptr);

/**
 * A table. Read the fields as you like, write none.
 *
 * An entry lies in the heap as its value (`t_val_len` bytes; the entry pointer points here), the length of its key
 * (`t_key_size` bytes little-endian, or 1 to 5 bytes when `t_key_size` is 0) and the bytes of its key, and starts at a
 * multiple of 8 when `t_aligned`. Heap bytes that no entry has covered yet are 0.
 */
typedef struct HashTable {
  HashKeyFunction t_hash;    /**< hash of a key; null: `HashBytes` */
  HashValueFunction t_value; /**< fills a new value; null: zero bytes */
  HashEqualFunction t_equal; /**< equality of keys; null: same length, same bytes */
  UByte* t_data;             /**< the heap */
  UInt* t_entries;           /**< the slots: heap offsets, 0xFFFFFFFF for an empty one; selected: the chosen offsets */
  size_t t_data_used;        /**< bytes of the heap in use; never above 0xFFFFFFF8 */
  size_t t_data_size;        /**< bytes of the heap allocated */
  UInt t_entries_capacity;   /**< the most keys that the table accepts before it must be grown */
  UInt t_entries_used;       /**< keys stored; selected: entries chosen */
  UInt t_entries_size;       /**< slots, a prime */
  UInt t_val_len;            /**< bytes of every value */
  Boolean t_selected;        /**< the table is in the selected state */
  UByte t_key_size;          /**< bytes of the key length, 1 to 4; 0: 1 to 5 as needed */
  UByte t_vm;                /**< heap and slots are memory mappings, not blocks of the allocator */
  Boolean t_aligned;         /**< entries start at multiples of 8 */

  UInt t_divisor;     /**< private: the slot count that `t_reciprocal` belongs to */
  ULong t_reciprocal; /**< private: divides a hash by the slot count */
  UByte* t_tags;      /**< private: a byte of the hash for each slot, or null */
} HashTable;

/** A position in a heap walk; see `HashTableIteratorInit`. */
typedef struct HashTableIterator {
  const HashTable* t_hash; /**< the table walked */
  UInt t_offset;           /**< heap offset of the current entry */
} HashTableIterator;

/** Marks the library initialised. Calling it is not necessary, calling it again does nothing. */
QX_API void QXDictInit(void);

/**
 * The default hash: the sum of bytes[i] * 257^i, modulo 2^32; 0 for the empty key.
 *
 * Files carry slot positions that follow from it, so it never changes. It is fast and weak: keys that differ only in
 * zero bytes at the end hash alike. Where keys come from an adversary, give the table `HashBytesKeyed`.
 */
QX_API UInt HashBytes(const UByte* bytes, UInt len);

/**
 * Makes an empty table.
 *
 * @param capacity  keys that the table accepts before it must be grown; at least 5 are taken
 * @param hash      hash of a key, or null for `HashBytes`
 * @param value     fills new values, or null for zero bytes
 * @param equal     equality of keys, or null for equality of bytes
 * @param val_len   bytes of every value
 * @param key_size  bytes of the key length in the heap: 1 to 4, or 0 for 1 to 5 bytes as each key needs; a width above
 *                  4 fails the assertion "size <= 4" when the first key is stored
 * @param vm        TRUE: heap and slots are memory mappings of their own; FALSE: blocks of the allocator
 * @return the table, to be released with `HashTableFree`; null, after a message, when a mapping fails or the capacity
 *         is above 1431655765, for which no slot count is known
 *
 * Cost: 9 bytes of memory a slot, 10 where hash and equality are the defaults; three slots for two keys.
 */
QX_API HashTable* HashTableNew(UInt capacity, HashKeyFunction hash, HashValueFunction value, HashEqualFunction equal,
                               UInt val_len, UByte key_size, Boolean vm);

/** Releases the table, its heap and its slots. A mapping that cannot be released is reported. */
QX_API void HashTableFree(HashTable* table);

/**
 * Looks a key up and, when `create` is true, inserts it if it is missing.
 *
 * @param table   the table, in the hashed state (asserted: "!table->t_selected")
 * @param bytes   the key, copied when inserted; may be null when `len` is 0; may lie in an entry of this very table
 * @param len     bytes of the key; below 2^(8 * t_key_size) when the key length has a fixed width (asserted:
 *                "l < (b << (8 * k))")
 * @param create  TRUE: insert a missing key; its value is zeroed, or filled by the table's value callback
 * @param offset  receives the entry's heap offset, when not null and an entry is returned; good until `HashTableClear`
 * @param ptr     handed through to the table's callbacks
 * @return the entry (its `t_val_len` value bytes, owned by the table); null when the key is missing and not created,
 *         and when it cannot be: the table is full (see `HashTableFull`), the value callback refuses, the heap cannot
 *         grow (reported when the mapping fails; silent where the heap would pass the 0xFFFFFFF8 bytes that offsets
 *         reach)
 *
 * An insertion that returns null changes nothing, except that one refused by the value callback may have enlarged and
 * moved the heap (entry pointers are then invalid), and leaves up to 7 bytes of padding counted in `t_data_used`.
 *
 * Invalidates: an insertion may move the heap, and with it every entry pointer handed out before; offsets stay good.
 * Cost: one hash of the key; at full load about 2 probes for a key that is there, 5 for one that is not, if the hash
 * spreads. An insertion copies the key and now and then enlarges the heap by half.
 */
QX_API UByte* HashTableFind(HashTable* table, const UByte* bytes, UInt len, Boolean create, UInt* offset, void* ptr);

/**
 * Raises the capacity and hashes every key anew.
 *
 * @param table   the table, in the hashed state (asserted: "!table->t_selected")
 * @param factor  the new capacity is the old one times this, in single precision and cut to an integer; above 1
 *                (asserted: "factor > 1.0"). To be sure of a gain, take 1 + 2 / capacity or more, and not less than
 *                1.000001: a little less is lost in single precision
 * @param ptr     handed to the table's hash callback
 *
 * On failure the table stays as it was, after a message: a mapping failed, or the new capacity passes 1431655765. A
 * damaged capacity, one that the slots do not hold, counts as the number of slots or as 10000, whichever is more; one
 * that asks for fewer slots than there are fails the assertion "osize <= nsize".
 *
 * Invalidates nothing: entries stay where they are. Cost: one hash and one slot a key, in the order of insertion.
 */
QX_API void HashTableGrow(HashTable* table, float factor, void* ptr);

/**
 * The key of an entry.
 *
 * @param val    an entry of this table
 * @param bytes  receives the address of the key, which lies in the heap and moves with it
 * @return the length of the key; 0 where a damaged entry's key would leave the heap
 */
QX_API UInt HashTableKey(const HashTable* table, const UByte* val, const UByte** bytes);

/** The entry at a heap offset that `HashTableFind` or a selection gave. Not checked; offset 0 is the start of the heap.
 */
QX_API UByte* HashTableGetOffset(const HashTable* table, UInt offset);

/** The number of keys; of a selected table, of the entries chosen. */
QX_API UInt HashTableSize(const HashTable* table);

/** The most keys that the table accepts before it must be grown. */
QX_API UInt HashTableCapacity(const HashTable* table);

/** TRUE when the table holds as many keys as it accepts. */
QX_API Boolean HashTableFull(const HashTable* table);

/**
 * Starts a walk over all entries in the order of their insertion, in either state of the table.
 *
 *     for (it = HashTableIteratorInit(table); !HashTableIteratorEnd(it); HashTableIteratorNext(it)) ...
 *     HashTableIteratorFinalize(it);
 *
 * @return the iterator, owned by the caller until `HashTableIteratorFinalize`; null for a null table
 *
 * Entries inserted while the iterator lives are visited too. Do not free or clear the table under it.
 */
QX_API HashTableIterator* HashTableIteratorInit(const HashTable* table);

/** TRUE when no entry is left. The other operations want one. */
QX_API Boolean HashTableIteratorEnd(const HashTableIterator* it);

/** The current entry, until the next insertion. */
QX_API UByte* HashTableIteratorGetValue(const HashTableIterator* it);

/** The length of the current key; `kLen` receives the address of its bytes (the name is historical). */
QX_API UInt HashTableIteratorGetKey(const HashTableIterator* it, const UByte** kLen);

/** Moves to the next entry. */
QX_API void HashTableIteratorNext(HashTableIterator* it);

/** Releases the iterator. */
QX_API void HashTableIteratorFinalize(HashTableIterator* it);

/**
 * Visits entries in the order of their insertion, in either state of the table.
 *
 * @param offset  where to start: 0, or the heap offset of an entry (not checked); at or past the end nothing is
 *                visited. To go on after a stop, pass the offset of the entry to go on with: its pointer minus
 *                `HashTableGetOffset(table, 0)`
 * @param fun     the visitor; it may insert, and then visits the new entries too
 * @return the first result of `fun` that is not 0, or 0
 */
QX_API UInt HashTableEnumerate(const HashTable* table, UInt offset, HashEnumerateFunction fun, void* ptr);

/**
 * Sorts chosen entries in the order of `cmp`.
 *
 * @param cmp      the order (asserted not to be null, and the table to be selected when `entries` is null:
 *                 "cmp != ((void *)0) && (entries != ((void *)0) || table->t_selected)")
 * @param entries  offsets of this table's entries; null: the table's own selection
 *
 * Entries that compare equal end up in an order that is not told. Cost: n log n comparisons.
 */
QX_API void HashTableSort(HashTable* table, HashCompareFunction cmp, void* ptr, UIntArray* entries);

/**
 * Chooses entries, in slot order, and gives the hash index up for it.
 *
 * @param count   the most entries to keep; 0: no limit. Once they are kept, `select` is no longer called. With `array`
 *                there is no limit, whatever `count` says
 * @param select  whether to keep an entry; null: every one
 * @param array   null: the table becomes selected, its first slots are the chosen offsets, all others empty, and
 *                `HashTableSize` is the number chosen; a selected table is chosen from again. Otherwise the array is
 *                emptied and receives the chosen offsets, and the table's state and size stay
 * @return the number of entries chosen
 *
 * Either way every slot is emptied on the way: a table selected into an array finds nothing afterwards, although it is
 * not in the selected state. Use it through the array, by heap walks, or clear it.
 */
QX_API UInt HashTableSelect(HashTable* table, UInt count, HashSelectFunction select, void* ptr, UIntArray* array);

/**
 * The i-th chosen entry.
 *
 * @param i        0 to the number chosen - 1 (not checked against that number)
 * @param entries  the array selected into; null: the table's own selection (asserted: "table->t_selected")
 * @return the entry; null where no entry of this heap can start: an empty slot, an index past the slots, a damaged
 *         offset
 */
QX_API UByte* HashTableGetIndex(const HashTable* table, UInt i, UIntArray* entries);

/**
 * An independent copy: callbacks, state, the whole heap and all slots, in the same kind of memory.
 *
 * @return the copy, to be released with `HashTableFree`; null, after a message, when a mapping fails
 */
QX_API HashTable* HashTableCopy(const HashTable* table);

/**
 * Empties the table, whatever its state, and keeps its memory and capacity.
 *
 * Invalidates every entry pointer, offset and iterator. Cost: one pass over the slots. The heap keeps its old bytes
 * until new entries cover them.
 */
QX_API void HashTableClear(HashTable* table);

/**
 * Writes the table to a file, created or overwritten in place: all slots and the whole heap, as they stand.
 *
 * @return TRUE when the file is written, flushed, synced, its name included, and closed: it survives a power cut. FALSE
 *         otherwise, with the current error recorded ("error opening %s", "error writing %s" or "error closing %s"; a
 *         failure within the first 37 bytes records none) and a part of the file left behind; the table is unharmed
 *
 * A process that dies here leaves neither the old file nor the new one, a power cut perhaps a file of the right length
 * with zeros or older bytes in it, which `HashTableCheck` refuses or calls safe to use: `HashTableReplace` does better.
 * The file holds the heap's unused bytes too, with what cleared entries left there. The descriptor is close-on-exec and
 * never one of 0 to 2. A file-size limit raises SIGXFSZ first: ignore the signal to get the error. Where a file system
 * lets a signal interrupt a write, EINTR is a failure as any other: use SA_RESTART.
 */
QX_API Boolean HashTableWrite(const HashTable* table, const char* filename);

/**
 * Reads a table from a file of `HashTableWrite`.
 *
 * @param hash   must hash as the writer's did: the file holds slot positions
 * @param value  as for `HashTableNew`
 * @param equal  as for `HashTableNew`
 * @param vm     the kind of memory to read into, whatever the writer's was
 * @return the table, selected if it was written so; to be released with `HashTableFree`. Null, with the current error
 *         recorded ("error opening %s", "error reading %s", the latter with error code 0 when the file is shorter than
 *         its header asks for), or after a message, when a mapping fails. Nothing stays allocated
 *
 * The file carries no checksum: see the note on damaged files above. A regular file that is too short is refused before
 * memory is taken for it; any other kind is read in growing pieces.
 */
QX_API HashTable* HashTableRead(const char* filename, HashKeyFunction hash, HashValueFunction value,
                                HashEqualFunction equal, Boolean vm);

/*
 * Additions: what follows has been added to the table's original interface since 1.0. Files, slots and everything told
 * above are the same with it and without.
 */

/** Figures of a table, for people who tune it; see `HashTableStats` and `HashDelTableStats`. */
typedef struct HashTableStatistics {
  UInt s_keys;          /**< live keys; selected: entries chosen */
  UInt s_capacity;      /**< the most keys that the table accepts before it must be grown */
  UInt s_slots;         /**< slots */
  UInt s_tombstones;    /**< slots of removed keys; 0 in a `HashTable` */
  UInt s_longest_probe; /**< the most slots that a look-up of a stored key looks at; 0: none, or selected */
  double s_mean_probe;  /**< the mean of that over all keys; 0: none, or selected */
  double s_load;        /**< slots taken, tombstones among them, out of all */
  size_t s_heap_used;   /**< bytes of the heap in use */
  size_t s_heap_size;   /**< bytes of the heap allocated */
  size_t s_padding;     /**< bytes in use between entries */
  size_t s_dead;        /**< bytes of entries that no slot names: removed, or not chosen */
} HashTableStatistics;

/**
 * Addition: says whether a table that was read from outside is sound.
 *
 * @param reason  when not null, receives a constant text that names the first thing wrong, or null when nothing is
 * @return TRUE only when every later operation, whatever its arguments, stays inside the table's memory, ends, and
 * fails no assertion but those about its arguments and the table's state
 *
 * A sound table has slots that name the start of each entry once, a heap that is entries from its start to its end, and
 * a slot free for every search to end at. Not checked, because no harm comes of it but a wrong answer: that each key
 * lies where its hash says, so that another hash than the writer's passes; the meaning of values; `t_val_len`, which a
 * caller compares with what it expects. A table that was selected into an array, whose slots no longer name its keys,
 * is not sound.
 *
 * Reads every slot and every entry's key length once. Takes memory for a 64th of the heap that is there (an eighth,
 * when entries start at any byte), whatever the table claims. No messages, no callbacks.
 */
QX_API Boolean HashTableCheck(const HashTable* table, const char** reason);

/**
 * Addition: a hash for keys that an adversary may choose: the low 32 bits of SipHash-1-3.
 *
 * A `HashKeyFunction`: give it to `HashTableNew`. Without its key nobody can make keys that collide; the default hash,
 * `HashBytes`, is no match for such a one.
 *
 * @param ptr  the pointer that the table's operations hand to callbacks: the 16 bytes of the key, the same in every
 * call; null: a random key of this process, the same in all its calls. A table under the random key makes no sense in a
 * file: another process cannot search it
 *
 * Cost: two to three times that of `HashBytes`; and tables with a hash of their own keep no tags, so that look-ups go
 * to the heap more often.
 */
QX_API UInt HashBytesKeyed(const UByte* bytes, UInt len, void* ptr);

/**
 * Addition: grows a table to an exact capacity, at once, in place of by a factor.
 *
 * @param table     the table, in the hashed state (asserted: "!table->t_selected")
 * @param capacity  keys that the table is to accept; one that it accepts already changes nothing
 * @param ptr       handed to the table's hash callback
 * @return TRUE when the table now accepts so many; FALSE, after a message and with the table as it was, when a mapping
 *         failed or the capacity is above 1431655765
 *
 * Invalidates nothing. Cost: as `HashTableGrow`.
 */
QX_API Boolean HashTableReserve(HashTable* table, UInt capacity, void* ptr);

/**
 * Addition: looks many keys up, several in flight at once: exactly what `HashTableFind` gives for each with `create`
 * FALSE, in less time when the table is larger than the caches.
 *
 * @param n        number of keys
 * @param keys     their bytes
 * @param lens     their lengths; each as for `HashTableFind`, with the same assertions
 * @param entries  receives `n` entries, null where a key is missing
 * @param offsets  when not null, receives the entries' heap offsets; the places of missing keys stay as they are
 * @param ptr      handed to the table's callbacks, which are made key by key in order: a table that has a hash or an
 *                 equality of its own gains nothing here
 *
 * Invalidates nothing.
 */
QX_API void HashTableFindMany(const HashTable* table, UInt n, const UByte* const* keys, const UInt* lens,
                              UByte** entries, UInt* offsets, void* ptr);

/**
 * Addition: figures of a table.
 *
 * @param stats  receives them; of a damaged table whose slots name more bytes than there are, without the probes of
 *               what is too much
 * @param ptr    handed to the table's hash callback
 *
 * Cost: one hash a key, one pass over the slots and one over the heap.
 */
QX_API void HashTableStats(const HashTable* table, HashTableStatistics* stats, void* ptr);

/**
 * Addition: writes the table as `HashTableWrite` does, in place of a file that may be there: readers see the old file
 * or the new one, whole, whenever they look and whatever fails.
 *
 * The new file is written beside the old one (its name and ".new-" with numbers behind it), with its permissions,
 * synced, and renamed; then the directory is synced. A symbolic link is replaced, not followed.
 *
 * @return TRUE when the new file is in place and synced. FALSE otherwise, with the current error recorded as by
 *         `HashTableWrite`, or "error renaming %s": the old file stands, and nothing is left beside it. Only with
 * "error syncing directory of %s" the new file is in place, but after a power cut the old one may be back
 *
 * A process that dies here leaves the old file, and perhaps the new one beside it.
 */
QX_API Boolean HashTableReplace(const HashTable* table, const char* filename);

QX_END_DECLS

#endif
