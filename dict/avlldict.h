/**
 * @file
 * An ordered dictionary from 64-bit keys to 64-bit values: an AVL tree in one array.
 *
 * The nodes lie in one growable array and refer to one another by 31-bit indices, so a node costs two 32-bit links
 * beside its key and value, 24 bytes in all. The balance lives in the links' top bits. `QXAVLDict...` in
 * `dict/avldict.h` is the same design over 32-bit keys and values.
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
#ifndef DICT_AVLLDICT_H
#define DICT_AVLLDICT_H

#include <stddef.h>

#include "qxlib/types.h"

QX_BEGIN_DECLS

typedef UInt AVLLDictIndex;  /**< index of a node in the node array */
typedef ULong AVLLDictKey;   /**< every 64-bit value is a key */
typedef ULong AVLLDictValue; /**< every 64-bit value can be stored */

/** A node: also what tools read in a dump, so its layout is fixed (24 bytes). */
typedef struct {
  AVLLDictIndex n_right; /**< bits 0-30: right child, 0 none, or the next released node; bit 31: right side is taller */
  AVLLDictIndex n_left;  /**< bits 0-30: left child, 0 none; bit 31: left side is taller */
  AVLLDictKey n_key;
  AVLLDictValue n_value;
} AVLLDictNode;

/**
 * A dictionary. To be read, not written, by callers.
 *
 * Node 0 stands for "no child": it ends every search and holds the key last searched for. Node 1 is the header: its
 * right link is the root, its key 0, its left link 0. Keys lie in the nodes from 2 on.
 */
typedef struct AVLLDict {
  AVLLDictNode* d_nodes;    /**< the node array, `d_capacity` nodes; moves when it grows */
  AVLLDictIndex d_capacity; /**< nodes that the array has room for */
  AVLLDictIndex d_size;     /**< keys stored */
  AVLLDictIndex d_free;     /**< the first node never used since the last Clear */
  AVLLDictIndex d_list;     /**< the node released last, linked to the others through `n_right`; 0: none */
} AVLLDict;

/** Receives a pair; zero ends the enumeration, every other value goes on. May change values, not keys. */
typedef Boolean (*AVLLDictEnumerateFun)(AVLLDict* dict, AVLLDictKey key, AVLLDictValue value, void* arg);

/**
 * Makes an empty dictionary.
 *
 * @param capacity  nodes to make room for, two more than keys; raised to 1024
 * @return the dictionary, the caller's until `QXAVLLDictDelete`; null, after the message ":memory reallocation failed:
 *         size=%lu", when the array cannot be mapped or `capacity` passes 2^31
 *
 * Cost: one mapping of 24 bytes a node; memory is taken as it is first used.
 */
QX_API AVLLDict* QXAVLLDictNew(UInt capacity);

/** Releases a dictionary and its nodes; `dict` must not be null (asserted). */
QX_API void QXAVLLDictDelete(AVLLDict* dict);

/** Empties a dictionary and keeps its memory. Numbering of nodes starts afresh. Cost: constant. */
QX_API void QXAVLLDictClear(AVLLDict* dict);

/** The number of keys. */
QX_API UInt QXAVLLDictSize(AVLLDict* dict);

/**
 * Looks a key up.
 *
 * @param v  the key
 * @param n  the caller's marker for an absent key
 * @return the value stored under `v`, or `n`
 *
 * Cost: at most 1.44 log2(size) comparisons.
 */
QX_API AVLLDictValue QXAVLLDictFind(AVLLDict* dict, AVLLDictKey v, AVLLDictValue n);

/**
 * Finds the key nearest to another.
 *
 * @param v             the key to start from
 * @param roundingMode  negative: the greatest key below `v`; positive: the least key above it; 0: the nearer of the
 *                      two, the greater of two equally near
 * @return `v` itself when it is stored, else the neighbour, else 0
 *
 * Key 0 doubles as the answer for "no neighbour". In mode 0 a stored key 0 is therefore never chosen as the lower
 * neighbour while there is an upper one, and a result of 0 does not tell whether key 0 is stored: ask
 * `QXAVLLDictValueGet`. Cost: as `QXAVLLDictFind`.
 */
QX_API AVLLDictKey QXAVLLDictFindNearest(AVLLDict* dict, AVLLDictKey v, int roundingMode);

/**
 * Looks a key up and gives its value in place, to be read and written.
 *
 * @return the value inside the node array, or null when `v` is absent; see above for how long it is valid
 */
QX_API AVLLDictValue* QXAVLLDictValueGet(AVLLDict* dict, AVLLDictKey v);

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
QX_API AVLLDictValue QXAVLLDictInsert(AVLLDict* dict, AVLLDictKey v, AVLLDictValue d, AVLLDictValue n);

/**
 * As `QXAVLLDictInsert`, and gives the stored value in place.
 *
 * @param vPtr  receives a pointer to the value of `v` inside the node array, taken after any growth; may be null
 */
QX_API AVLLDictValue QXAVLLDictValueInsert(AVLLDict* dict, AVLLDictKey v, AVLLDictValue d, AVLLDictValue n,
                                           AVLLDictValue** vPtr);

/**
 * Removes a key.
 *
 * @param n  the caller's marker for an absent key
 * @return the value that `v` had, or `n` when it was absent, and then nothing has changed
 *
 * Invalidates value pointers when `v` was present: where the removed node has children, a neighbour's key and value
 * (the predecessor's, when there is a left side) move into it. Cost: a descent and at most one rotation a level.
 */
QX_API AVLLDictValue QXAVLLDictRemove(AVLLDict* dict, AVLLDictKey v, AVLLDictValue n);

/**
 * Calls a function on every pair, in increasing order of the keys, or decreasing.
 *
 * @param reverse  true: in decreasing order
 * @param fun      called with the dictionary, a key, its value and `arg`; it may look keys up and change values, also
 *                 of keys still to come; it must not insert or remove keys
 * @return TRUE when every call returned non-zero (or there was none), FALSE as soon as one returned zero
 */
QX_API Boolean QXAVLLDictEnumerate(AVLLDict* dict, Boolean reverse, AVLLDictEnumerateFun fun, void* arg);

/**
 * Checks the balance: the sides of every node differ by at most one in height, and its flags say which is taller. Fails
 * an assertion at the first node that is wrong. Does not look at the keys. Cost: linear.
 */
QX_API void AVLLCheck(AVLLDict* dict);

/*
 * Additions since 1.0. None of these writes to the dictionary, so any number of them may run at once, in any threads,
 * while no other function works on it.
 */

/**
 * Looks a key up as `QXAVLLDictFind` does, without writing to the dictionary. An addition since 1.0.
 *
 * @param v  the key
 * @param n  the caller's marker for an absent key
 * @return the value stored under `v`, or `n`
 *
 * Threads: may run beside itself and the other additions. Cost: that of `QXAVLLDictFind` and a little more.
 */
QX_API AVLLDictValue QXAVLLDictFindShared(const AVLLDict* dict, AVLLDictKey v, AVLLDictValue n);

/**
 * Looks many keys up. An addition since 1.0.
 *
 * @param keys    `count` keys, in any order, repeated or not
 * @param count   how many; 0 is allowed
 * @param n       the caller's marker for absent keys
 * @param values  receives for each key, at its place, what `QXAVLLDictFindShared` gives; may be the array of keys
 *                itself, must not overlap it otherwise
 *
 * Threads: as for `QXAVLLDictFindShared`. Cost: of a large tree a fraction of the single look-ups', because several
 * searches wait for memory at the same time.
 */
QX_API void QXAVLLDictFindMany(const AVLLDict* dict, const AVLLDictKey* keys, size_t count, AVLLDictValue n,
                               AVLLDictValue* values);

/**
 * Finds the least key that is not below another. An addition since 1.0.
 *
 * @param v      the key to start from, the answer itself when it is there
 * @param key    receives the key that was found; may be null
 * @param value  receives its value; may be null
 * @return TRUE; FALSE when every key is below `v`, and then nothing is stored
 *
 * Threads: as for `QXAVLLDictFindShared`. Cost: one descent.
 */
QX_API Boolean QXAVLLDictLowerBound(const AVLLDict* dict, AVLLDictKey v, AVLLDictKey* key, AVLLDictValue* value);

/**
 * Calls a function on the pairs whose keys lie in a range, in increasing order of the keys, or decreasing. An addition
 * since 1.0.
 *
 * @param lo       the least key of the range; need not be there
 * @param hi       the greatest; a range whose `hi` is below its `lo` is empty
 * @param reverse  true: in decreasing order
 * @param fun      as for `QXAVLLDictEnumerate`
 * @return TRUE when every call returned non-zero (or there was none), FALSE as soon as one returned zero
 *
 * Threads: as for `QXAVLLDictFindShared`, as far as `fun` keeps to it. Cost: one descent, and the pairs in the range.
 */
QX_API Boolean QXAVLLDictEnumerateRange(AVLLDict* dict, AVLLDictKey lo, AVLLDictKey hi, Boolean reverse,
                                        AVLLDictEnumerateFun fun, void* arg);

QX_END_DECLS

#endif
