/**
 * @file
 * An ordered dictionary from 32-bit keys to 32-bit values: an AVL tree in one array.
 *
 * The nodes lie in one growable array and refer to one another by 31-bit indices, so a node costs two 32-bit links
 * beside its key and value, 16 bytes in all. The balance lives in the links' top bits. `QXAVLLDict...` in
 * `dict/avlldict.h` is the same design over 64-bit keys and values; the two differ in how they choose the nearest key.
 *
 * The caller chooses a marker for "absent", the argument `n` of most functions, that it never stores: a lookup hands
 * it back unchanged when the key is not there.
 *
 * Pointers into the dictionary: a value pointer stays valid until the next insertion of a new key (the array may grow
 * and move), the next successful removal of any key (another key's value may move to a different node), and until
 * Clear or Delete. Lookups and replacing the value of a present key leave it valid.
 *
 * Threads: none. Every function writes to the dictionary, lookups included (they leave the searched key in node 0), so
 * not even two readers may use one dictionary at once. The additions at the end of this file are for readers that do.
 *
 * Limits: keys and nodes are counted in 31 bits. An insertion that would need more, or for which memory cannot be had,
 * reports it (":memory reallocation failed: size=%lu") and ends the process; the dictionary has no state without it.
 */
#ifndef DICT_AVLDICT_H
#define DICT_AVLDICT_H

#include <stddef.h>

#include "qxlib/types.h"

QX_BEGIN_DECLS

typedef UInt AVLDictIndex; /**< index of a node in the node array */
typedef UInt AVLDictKey;   /**< every 32-bit value is a key */
typedef UInt AVLDictValue; /**< every 32-bit value can be stored */

/** A node: also what tools read in a dump, so its layout is fixed (16 bytes). */
typedef struct {
  AVLDictIndex n_right; /**< bits 0-30: right child, 0 none, or the next released node; bit 31: right side is taller */
  AVLDictIndex n_left;  /**< bits 0-30: left child, 0 none; bit 31: left side is taller */
  AVLDictKey n_key;
  AVLDictValue n_value;
} AVLDictNode;

/**
 * A dictionary. To be read, not written, by callers.
 *
 * Node 0 stands for "no child": it ends every search and holds the key last searched for. Node 1 is the header: its
 * right link is the root, its key 0, its left link 0. Keys lie in the nodes from 2 on.
 */
typedef struct AVLDict {
  AVLDictNode* d_nodes;    /**< the node array, `d_capacity` nodes; moves when it grows */
  AVLDictIndex d_capacity; /**< nodes that the array has room for */
  AVLDictIndex d_size;     /**< keys stored */
  AVLDictIndex d_free;     /**< the first node never used since the last Clear */
  AVLDictIndex d_list;     /**< the node released last, linked to the others through `n_right`; 0: none */
} AVLDict;

/** Receives a pair; zero ends the enumeration, every other value goes on. May change values, not keys. */
typedef Boolean (*AVLDictEnumerateFun)(AVLDict* dict, AVLDictKey key, AVLDictValue value, void* arg);

/**
 * Makes an empty dictionary.
 *
 * @param capacity  nodes to make room for, two more than keys; raised to 1024
 * @return the dictionary, the caller's until `QXAVLDictDelete`; null, after the message ":memory reallocation failed:
 *         size=%lu", when the array cannot be mapped or `capacity` passes 2^31
 *
 * Cost: one mapping of 16 bytes a node; memory is taken as it is first used.
 */
QX_API AVLDict* QXAVLDictNew(UInt capacity);

/** Releases a dictionary and its nodes; `dict` must not be null (asserted). */
QX_API void QXAVLDictDelete(AVLDict* dict);

/** Empties a dictionary and keeps its memory. Numbering of nodes starts afresh. Cost: constant. */
QX_API void QXAVLDictClear(AVLDict* dict);

/** The number of keys. */
QX_API UInt QXAVLDictSize(AVLDict* dict);

/**
 * Looks a key up.
 *
 * @param v  the key
 * @param n  the caller's marker for an absent key
 * @return the value stored under `v`, or `n`
 *
 * Cost: at most 1.44 log2(size) comparisons.
 */
QX_API AVLDictValue QXAVLDictFind(AVLDict* dict, AVLDictKey v, AVLDictValue n);

/**
 * Finds the key nearest to another.
 *
 * @param v             the key to start from
 * @param roundingMode  negative: the greatest key below `v`; positive: the least key above it; 0: the nearer of the
 *                      two, the greater of two equally near
 * @param valPtr        receives a pointer to the answered key's value inside the node array; may be null
 * @return `v` itself when it is stored, else the neighbour; 0 when that neighbour is missing, and `*valPtr` then points
 *         into the header, at a value that nobody stored and nobody should use
 *
 * In mode 0 a missing lower neighbour counts as lying at 0 and a missing upper one at 2^32, and the answer is 0 when
 * the choice falls on such an end: with the single key 10, 3 gives 0 and 5 gives 10. A stored key 0 is a neighbour like
 * any other, so a result of 0 does not tell whether key 0 is stored: ask `QXAVLDictValueGet`. Cost: as `QXAVLDictFind`.
 */
QX_API AVLDictKey QXAVLDictFindNearest(AVLDict* dict, AVLDictKey v, int roundingMode, AVLDictValue** valPtr);

/**
 * Looks a key up and gives its value in place, to be read and written.
 *
 * @return the value inside the node array, or null when `v` is absent; see above for how long it is valid
 */
QX_API AVLDictValue* QXAVLDictValueGet(AVLDict* dict, AVLDictKey v);

/**
 * Stores a value under a key, replacing the one that is there.
 *
 * @param v  the key
 * @param d  the value to store
 * @param n  the caller's marker for an absent key
 * @return the value that `v` had before, or `n` when `v` is new
 *
 * Invalidates value pointers when `v` is new. Ends the process, after a message, when the array is full and cannot
 * grow. Cost: a descent and at most one rotation, single or double; the array doubles when it is full.
 */
QX_API AVLDictValue QXAVLDictInsert(AVLDict* dict, AVLDictKey v, AVLDictValue d, AVLDictValue n);

/**
 * As `QXAVLDictInsert`, and gives the stored value in place.
 *
 * @param vPtr  receives a pointer to the value of `v` inside the node array, taken after any growth; may be null
 */
QX_API AVLDictValue QXAVLDictValueInsert(AVLDict* dict, AVLDictKey v, AVLDictValue d, AVLDictValue n,
                                         AVLDictValue** vPtr);

/**
 * Removes a key.
 *
 * @param n  the caller's marker for an absent key
 * @return the value that `v` had, or `n` when it was absent, and then nothing has changed
 *
 * Invalidates value pointers when `v` was present: where the removed node has children, a neighbour's key and value
 * (the predecessor's, when there is a left side) move into it. Cost: a descent and at most one rotation a level.
 */
QX_API AVLDictValue QXAVLDictRemove(AVLDict* dict, AVLDictKey v, AVLDictValue n);

/**
 * Calls a function on every pair, in increasing order of the keys, or decreasing.
 *
 * @param reverse  true: in decreasing order
 * @param fun      called with the dictionary, a key, its value and `arg`; it may look keys up and change values, also
 *                 of keys still to come; it must not insert or remove keys
 * @return TRUE when every call returned non-zero (or there was none), FALSE as soon as one returned zero
 */
QX_API Boolean QXAVLDictEnumerate(AVLDict* dict, Boolean reverse, AVLDictEnumerateFun fun, void* arg);

/**
 * Checks the balance: the sides of every node differ by at most one in height, and its flags say which is taller. Fails
 * an assertion at the first node that is wrong. Does not look at the keys. Cost: linear.
 */
QX_API void AVLCheck(AVLDict* dict);

/*
 * Additions since 1.0. None of these writes to the dictionary, so any number of them may run at once, in any threads,
 * while no other function works on it.
 */

/**
 * Looks a key up as `QXAVLDictFind` does, without writing to the dictionary. An addition since 1.0.
 *
 * @param v  the key
 * @param n  the caller's marker for an absent key
 * @return the value stored under `v`, or `n`
 *
 * Threads: may run beside itself and the other additions. Cost: that of `QXAVLDictFind` and a little more.
 */
QX_API AVLDictValue QXAVLDictFindShared(const AVLDict* dict, AVLDictKey v, AVLDictValue n);

/**
 * Looks many keys up. An addition since 1.0.
 *
 * @param keys    `count` keys, in any order, repeated or not
 * @param count   how many; 0 is allowed
 * @param n       the caller's marker for absent keys
 * @param values  receives for each key, at its place, what `QXAVLDictFindShared` gives; may be the array of keys
 *                itself, must not overlap it otherwise
 *
 * Threads: as for `QXAVLDictFindShared`. Cost: of a large tree a fraction of the single look-ups', because several
 * searches wait for memory at the same time.
 */
QX_API void QXAVLDictFindMany(const AVLDict* dict, const AVLDictKey* keys, size_t count, AVLDictValue n,
                              AVLDictValue* values);

/**
 * Finds the least key that is not below another. An addition since 1.0.
 *
 * @param v      the key to start from, the answer itself when it is there
 * @param key    receives the key that was found; may be null
 * @param value  receives its value; may be null
 * @return TRUE; FALSE when every key is below `v`, and then nothing is stored
 *
 * Threads: as for `QXAVLDictFindShared`. Cost: one descent.
 */
QX_API Boolean QXAVLDictLowerBound(const AVLDict* dict, AVLDictKey v, AVLDictKey* key, AVLDictValue* value);

/**
 * Calls a function on the pairs whose keys lie in a range, in increasing order of the keys, or decreasing. An addition
 * since 1.0.
 *
 * @param lo       the least key of the range; need not be there
 * @param hi       the greatest; a range whose `hi` is below its `lo` is empty
 * @param reverse  true: in decreasing order
 * @param fun      as for `QXAVLDictEnumerate`
 * @return TRUE when every call returned non-zero (or there was none), FALSE as soon as one returned zero
 *
 * Threads: as for `QXAVLDictFindShared`, as far as `fun` keeps to it. Cost: one descent, and the pairs in the range.
 */
QX_API Boolean QXAVLDictEnumerateRange(AVLDict* dict, AVLDictKey lo, AVLDictKey hi, Boolean reverse,
                                       AVLDictEnumerateFun fun, void* arg);

QX_END_DECLS

#endif
