/**
 * @file
 * An ordered dictionary from 32-bit keys to 32-bit values: a red-black tree in one array.
 *
 * The nodes lie in one growable array and refer to one another by 31-bit indices, 16 bytes a node. Insertion works on
 * its way down and keeps no path; it costs a little more looking up than the AVL dictionaries do (the tree may be
 * taller) and has no lookup of neighbours and no pointers to values.
 *
 * The caller chooses a marker for "absent", the argument `n` of most functions, that it never stores: a lookup hands
 * it back unchanged when the key is not there.
 *
 * Key 0 is not for storing. The header of the tree has it, so inserting key 0 exchanges the header's value: it returns
 * the value that the last insertion of key 0 left there (0 at first), Size, Find, Remove and Enumerate do not see it,
 * and Clear does not forget it.
 *
 * Threads: none. Every function writes to the dictionary, lookups included (they leave the searched key in node 0), so
 * not even two readers may use one dictionary at once. The additions at the end of this file are for readers that do.
 *
 * Limits: nodes are counted in 31 bits. An insertion that would need more, or for which memory cannot be had, reports
 * it ("memory reallocation failed: size=%u") and ends the process.
 */
#ifndef DICT_RBDICT_H
#define DICT_RBDICT_H

#include <stddef.h>

#include "qxlib/types.h"

QX_BEGIN_DECLS

typedef UInt RBDictIndex; /**< index of a node in the node array */
typedef UInt RBDictKey;   /**< every 32-bit value but 0 is a key */
typedef UInt RBDictValue; /**< every 32-bit value can be stored */

/** A node: also what tools read in a dump, so its layout is fixed (16 bytes). */
typedef struct {
  RBDictIndex n_right; /**< right child, 0 none, or the next released node */
  RBDictIndex n_left;  /**< bits 0-30: left child, 0 none; bit 31: the colour, set for red */
  RBDictKey n_key;
  RBDictValue n_value;
} RBDictNode;

/**
 * A dictionary. To be read, not written, by callers.
 *
 * Node 0 stands for "no child": it is black, ends every search and holds the key last searched for. Node 1 is the
 * header: its right link is the root, its key 0, its left link 0. Keys lie in the nodes from 2 on.
 */
typedef struct RBDict {
  RBDictNode* d_nodes;    /**< the node array, `d_capacity` nodes; moves when it grows */
  RBDictIndex d_capacity; /**< nodes that the array has room for */
  RBDictIndex d_size;     /**< keys stored */
  RBDictIndex d_free;     /**< the first node never used since the last Clear */
  RBDictIndex d_list;     /**< the node released last, linked to the others through `n_right`; 0: none */
} RBDict;

/** Receives a pair; zero ends the enumeration, every other value goes on. May look keys up. */
typedef Boolean (*RBDictEnumerateFun)(RBDict* dict, RBDictKey key, RBDictValue value, void* arg);

/**
 * Makes an empty dictionary.
 *
 * @param capacity  nodes to make room for, two more than keys; raised to 1024
 * @return the dictionary, the caller's until `QXRBDictDelete`; null, after the message "memory allocation failed:
 *         size=%u" (the size in bytes, its low 32 bits), when the array cannot be mapped or `capacity` passes 2^31
 *
 * Cost: one mapping of 16 bytes a node; memory is taken as it is first used.
 */
QX_API RBDict* QXRBDictNew(UInt capacity);

/** Releases a dictionary and its nodes; `dict` must not be null (asserted). */
QX_API void QXRBDictDelete(RBDict* dict);

/** Empties a dictionary and keeps its memory. Numbering of nodes starts afresh. Cost: constant. */
QX_API void QXRBDictClear(RBDict* dict);

/** The number of keys. */
QX_API UInt QXRBDictSize(RBDict* dict);

/**
 * Looks a key up.
 *
 * @param v  the key
 * @param n  the caller's marker for an absent key
 * @return the value stored under `v`, or `n`; `n` for key 0
 *
 * Cost: at most 2 log2(size + 1) comparisons.
 */
QX_API RBDictValue QXRBDictFind(RBDict* dict, RBDictKey v, RBDictValue n);

/**
 * Stores a value under a key, replacing the one that is there.
 *
 * @param v  the key; see above for key 0
 * @param d  the value to store
 * @param n  the caller's marker for an absent key
 * @return the value that `v` had before, or `n` when `v` is new
 *
 * Recolours and rotates nodes on the way down, also when `v` turns out to be there. Ends the process, after a message,
 * when the array is full and cannot grow. Cost: one descent; the array doubles when it is full.
 */
QX_API RBDictValue QXRBDictInsert(RBDict* dict, RBDictKey v, RBDictValue d, RBDictValue n);

/**
 * Removes a key.
 *
 * @param n  the caller's marker for an absent key
 * @return the value that `v` had, or `n` when it was absent, and then nothing has changed; `n` for key 0
 *
 * Where the removed node has two children, its successor's key and value move into it. Cost: a descent, recolouring
 * back up, and at most three rotations.
 */
QX_API RBDictValue QXRBDictRemove(RBDict* dict, RBDictKey v, RBDictValue n);

/**
 * Calls a function on every pair, in increasing order of the keys, or decreasing.
 *
 * @param reverse  true: in decreasing order
 * @param fun      called with the dictionary, a key, its value and `arg`; it may look keys up; it must not insert or
 *                 remove keys, and as an insertion may rotate, not even replace values
 * @return TRUE when every call returned non-zero (or there was none), FALSE as soon as one returned zero
 */
QX_API Boolean QXRBDictEnumerate(RBDict* dict, Boolean reverse, RBDictEnumerateFun fun, void* arg);

/**
 * Checks the colours: no red node has a red child, and every path down passes the same number of black nodes. Fails an
 * assertion at the first node that is wrong. Does not look at the keys. Cost: linear.
 */
QX_API void TreeCheck(RBDict* dict);

/*
 * Additions since 1.0. None of these writes to the dictionary, so any number of them may run at once, in any threads,
 * while no other function works on it.
 */

/**
 * Looks a key up as `QXRBDictFind` does, without writing to the dictionary. An addition since 1.0.
 *
 * @param v  the key
 * @param n  the caller's marker for an absent key
 * @return the value stored under `v`, or `n`; `n` for key 0
 *
 * Threads: may run beside itself and the other additions. Cost: that of `QXRBDictFind` and a little more.
 */
QX_API RBDictValue QXRBDictFindShared(const RBDict* dict, RBDictKey v, RBDictValue n);

/**
 * Looks many keys up. An addition since 1.0.
 *
 * @param keys    `count` keys, in any order, repeated or not
 * @param count   how many; 0 is allowed
 * @param n       the caller's marker for absent keys
 * @param values  receives for each key, at its place, what `QXRBDictFindShared` gives; may be the array of keys
 *                itself, must not overlap it otherwise
 *
 * Threads: as for `QXRBDictFindShared`. Cost: of a large tree a fraction of the single look-ups', because several
 * searches wait for memory at the same time.
 */
QX_API void QXRBDictFindMany(const RBDict* dict, const RBDictKey* keys, size_t count, RBDictValue n,
                             RBDictValue* values);

/**
 * Finds the least key that is not below another. An addition since 1.0.
 *
 * @param v      the key to start from, the answer itself when it is there
 * @param key    receives the key that was found; may be null
 * @param value  receives its value; may be null
 * @return TRUE; FALSE when every key is below `v`, and then nothing is stored
 *
 * Threads: as for `QXRBDictFindShared`. Cost: one descent.
 */
QX_API Boolean QXRBDictLowerBound(const RBDict* dict, RBDictKey v, RBDictKey* key, RBDictValue* value);

/**
 * Calls a function on the pairs whose keys lie in a range, in increasing order of the keys, or decreasing. An addition
 * since 1.0.
 *
 * @param lo       the least key of the range; need not be there
 * @param hi       the greatest; a range whose `hi` is below its `lo` is empty
 * @param reverse  true: in decreasing order
 * @param fun      as for `QXRBDictEnumerate`
 * @return TRUE when every call returned non-zero (or there was none), FALSE as soon as one returned zero
 *
 * Threads: as for `QXRBDictFindShared`, as far as `fun` keeps to it. Cost: one descent, and the pairs in the range.
 */
QX_API Boolean QXRBDictEnumerateRange(RBDict* dict, RBDictKey lo, RBDictKey hi, Boolean reverse, RBDictEnumerateFun fun,
                                      void* arg);

QX_END_DECLS

#endif
