/**
 * @file
 * A minimal perfect-hash dictionary: built once from a known set of byte-string keys, then only looked up.
 *
 * A look-up gives the key's number 0 .. n-1, or a value that was given for it, from about 1.25 * log2(n) bits a key:
 * the keys themselves are not kept. A key outside the set gives an arbitrary number, unless the dictionary was built
 * with probe codes of 1 to 8 bytes a key, which turn nearly all foreign keys away. The image (docs/formats.md) lies in
 * a file of its own, in a channel, or in a larger mapped file, and is used where it lies.
 *
 *     HashDict* words = HashDictBuild(count, list, GetWord, NULL, 0, 4, FALSE);
 *     HashDictWrite(words, "/var/lib/lexicon", "words", NULL, FALSE);
 *     HashDictFree(words);
 *     ...
 *     HashDict* words = HashDictOpen("/var/lib/lexicon", "words", NULL);
 *     Id number = HashDictFind(words, bytes, length);
 *     HashDictClose(words);
 *
 * | made by            | owns                          | released by        |
 * |--------------------|-------------------------------|--------------------|
 * | `HashDictBuild`    | its four arrays               | `HashDictFree`     |
 * | `HashDictOpen`     | the mapped file               | `HashDictClose`    |
 * | `HashDictFileRead` | the buffer with the image     | `HashDictMemClose` |
 * | `HashDictMMRead`   | nothing: the caller's mapping | `HashDictMMFree`   |
 *
 * Threads: a handle does not change after it was made, and any number of threads may look up in it at once. A handle
 * must not be prepared (`HashDictPrepare`, whose copy goes with the handle) or released while look-ups run. Builds
 * reset the process-wide `random()` generator and must run one at a time.
 *
 * Trust: reading checks that the image is as long as its header says and nothing else. A damaged image gives wrong
 * answers, or ends the process with the assertion "*pc0 <= m0" or "*pc1 <= m0"; it never makes a look-up read outside
 * the image. `HashDictCheck` tells beforehand. All of this rests on an image that stays as it was when it was opened:
 * neither its bytes nor its length may change while a handle uses it.
 */
#ifndef DICT_HASHDICT_H
#define DICT_HASHDICT_H

#include "qxlib/misc.h"

QX_BEGIN_DECLS

/** What `HashDictFind` returns for a key that is known not to be in the dictionary. */
#define HASHDICT_NOT_FOUND 0xFFFFFFFEu

/** Suffix of a dictionary file when none is given. */
#define HASHDICT_SUFFIX "dic"

/** A dictionary. Its fields may be read by anyone and changed by nobody. */
typedef struct HashDict {
  Boolean h_created;     /**< TRUE: built in memory, owns its arrays; FALSE: they point into `h_file` */
  Id h_nentries;         /**< number of keys */
  Id h_size;             /**< number of graph vertices m; they are numbered 1 .. m */
  UShort h_maxlen;       /**< length in bytes of the longest key; longer keys are never found */
  UShort h_nchars;       /**< number of distinct byte values in the keys, at most 256 */
  Short* h_rank;         /**< by byte value: its rank 0 .. h_nchars-1, or -1 when no key contains it */
  size_t h_rank_size;    /**< bytes in `h_rank`: 512 when built */
  Id* h_coef;            /**< coefficients: entry (i * h_nchars + rank) * 3 + k for position i and k = 0, 1, 2 */
  size_t h_coef_size;    /**< bytes in `h_coef`, 0 when every key is empty */
  UShort h_probe;        /**< bytes in a probe code, 0 (none) .. 8 */
  UByte* h_probe_code;   /**< `h_probe` bytes for each key number, or null */
  size_t h_probe_size;   /**< bytes in `h_probe_code`, 0 when there is none */
  ULong h_probe_mask;    /**< the low 8 * `h_probe` bits; not stored */
  UShort h_nbits;        /**< width in bits of a function value, 1 .. 32 */
  ULong* h_fun;          /**< function values of the vertices 0 .. m, packed from the low bits of each word upwards */
  size_t h_fun_size;     /**< bytes in `h_fun` */
  UByte* h_file;         /**< the image that the arrays point into; null when built */
  size_t h_file_size;    /**< bytes in `h_file` */
  Id h_sound;            /**< the library's: `h_size` when the arrays cover what the header promises, else 0 */
  ULong h_reciprocal[3]; /**< the library's: for remainders modulo m, m-1 and m-2 */
  ULong h_fun_mask;      /**< the library's: the low `h_nbits` bits */
  Boolean h_released;    /**< the library's: the handle ends in a function of it, and `h_rows` with it */
  void* h_rows;          /**< the library's: the coefficients as many look-ups want them, or null */
} HashDict;

/**
 * Gives key number `idx` (0 .. n-1) to a build: points `*bytes` at the key and returns its length in bytes.
 *
 * Called for all keys in ascending order once while sizing, once an attempt, and once while probe codes are made or
 * values checked; the same number must give the same bytes each time. `*bytes` must not be null (asserted), not even
 * for an empty key, and need be good only until the next call.
 */
typedef UShort (*DictKeyFun)(void* dict, Id idx, const UByte** bytes);

/** Gives the value to store for key number `idx`. Called in any order while building, and in ascending order at its
 * end. */
typedef Id (*DictValFun)(void* dict, Id idx);

/**
 * Builds a dictionary from `nentries` distinct keys.
 *
 * @param nentries  number of keys, at most 1717986914: above, the process ends with a message
 * @param dict      handed through to the callbacks
 * @param key       gives the keys
 * @param val       gives the values to store; null: each key's own number
 * @param nbits     width of a value in bits, 1 .. 32; without `val` it is ignored (but never above 32: asserted). A
 *                  value that does not fit ends the process with an assertion
 * @param probe     bytes in a probe code, 0 (none) .. 8 (asserted); 0 when there is a `val` (asserted)
 * @param verbose   TRUE: report progress in messages of level 2
 * @return the dictionary, the caller's, to be released with `HashDictFree`; never null
 *
 * The same keys in the same order give the same image, byte for byte, in every process: the build seeds the
 * process-wide generator with `srandom(0)` and draws from `random()`, which resets it for everyone; two builds at once,
 * or another user of `random()` meanwhile, change the image (never its answers).
 *
 * Two equal keys can never be told apart: the build then goes on for ever. It reports "hdict: cannot generate" once,
 * after attempt 1000, and goes on. `HashDictKeysDistinct` finds such keys beforehand.
 *
 * Memory: beside the dictionary about 25 bytes a key while building. Probe codes are stored in an array of
 * probe * probe bytes a key, of which the first `probe` bytes a key are used. Time: a pass over the keys for sizing,
 * one or two (few keys: more) for attempts, and one for probe codes or the check of values.
 */
QX_API HashDict* HashDictBuild(Id nentries, void* dict, DictKeyFun key, DictValFun val, UByte nbits, UByte probe,
                               Boolean verbose);

/** Releases a dictionary from `HashDictBuild`. */
QX_API void HashDictFree(HashDict* hdict);

/**
 * Opens a dictionary file by mapping it read-only. The file is `<dir>/<name>.<suffix>`.
 *
 * @param dir     the directory; null: none, the name is relative to the working directory (or absolute)
 * @param name    file name without the suffix
 * @param suffix  null: "dic"
 * @return the dictionary, to be released with `HashDictClose`; null, without a message and with `errno` set, when the
 *         file cannot be mapped, when its name has no room in a path (ENAMETOOLONG) and when it is empty or shorter
 *         than its header says (EINVAL)
 *
 * A file that was mapped and then refused stays mapped. A mapped file must not be changed in any way while it is open:
 * other bytes can make look-ups read outside it, and a shorter file ends the process with a signal, SIGBUS.
 * `HashDictWrite` writes in place; `HashDictReplace` renames a new file over the old one, which open handles keep.
 * Cost: a mapping; the file is read as look-ups touch it.
 */
QX_API HashDict* HashDictOpen(const char* dir, const char* name, const char* suffix);

/**
 * Releases a dictionary from `HashDictOpen`: unmaps the file.
 *
 * @param hdict  not null, with an image, not built (each asserted)
 * @return TRUE, with `errno` 0, when the file was unmapped. Otherwise `errno` tells the failure and the result is FALSE
 *         (TRUE if the failure left `errno` 0); the handle is gone all the same
 */
QX_API Boolean HashDictClose(HashDict* hdict);

/**
 * Releases a dictionary from `HashDictFileRead`: frees its buffer.
 *
 * @param hdict  not null, with an image, not built (each asserted)
 * @return TRUE
 */
QX_API Boolean HashDictMemClose(HashDict* hdict);

/** Releases a dictionary from `HashDictMMRead`: the handle only, the mapping stays the caller's. */
QX_API void HashDictMMFree(HashDict* hdict);

/**
 * Reads a dictionary from a channel: a 4-byte image length, then the image, copied into a buffer of the handle's.
 *
 * @param hdictPtr  receives the dictionary, to be released with `HashDictMemClose`; null on failure
 * @param f         the channel, positioned at the length; on success positioned behind the image
 * @return FALSE when the channel ends early or fails, or when the image is refused. A refused image's buffer and handle
 *         are not released
 *
 * Memory: the image; a length that promises more than the channel holds takes no more than twice what the channel holds
 * (or 16 MiB).
 */
QX_API Boolean HashDictFileRead(HashDict** hdictPtr, Channel* f);

/**
 * Opens a dictionary inside a larger mapping: zero bytes up to a multiple of 8, an 8-byte image length, the image.
 *
 * @param hdictPtr  receives the dictionary, to be released with `HashDictMMFree`; untouched on failure
 * @param base      start of the mapping, from which the multiples of 8 are counted; need not be aligned itself
 * @param from      in: where to look; out: behind the record. On failure: unchanged when fewer than 8 bytes are left;
 *                  at the first position without 8 bytes behind it when alignment runs past the end; behind the length
 *                  when the image is longer than what is left or is refused
 * @param end       one past the last usable byte
 * @return FALSE on failure. A refused image's handle is not released
 *
 * The mapping must stay as long as the handle lives.
 */
QX_API Boolean HashDictMMRead(HashDict** hdictPtr, UByte* base, UByte** from, UByte* end);

/**
 * Opens an image that lies in memory, in a handle of the caller's; what the reading functions are made of.
 *
 * @param hdict       receives every field; need not be initialised
 * @param data        the image, at any alignment; must stay as long as the handle is used
 * @param dataLength  bytes at `data`; bytes behind the image are allowed
 * @param fromMem     has no effect
 * @return FALSE when `dataLength` is below 48 (`h_created`, `h_file` and `h_file_size` are set) or below 48 and the
 *         array sizes of the header, added exactly (the header's fields and `h_probe_mask` are set too)
 */
QX_API Boolean HashDictMemOpen_(HashDict* hdict, UByte* data, size_t dataLength, Boolean fromMem);

/**
 * Looks a key up.
 *
 * @param hdict  the dictionary, not null (asserted)
 * @param bytes  the key; may be null when `len` is 0
 * @param len    its length in bytes
 * @return the key's number, or its value. `HASHDICT_NOT_FOUND` (0xFFFFFFFE) for a key that is longer than every key,
 *         has a byte that no key has, or fails the probe code. Any other foreign key gives an arbitrary number: with
 *         probe codes below `h_nentries` and rarely, without them always and perhaps not below it
 *
 * Probe codes catch mistakes, not attacks: they are no keyed hash.
 * Cost: one step a key byte, then three independent memory accesses, and one more with probe codes. Allocates nothing.
 * A dictionary that is opened for many look-ups gains by `HashDictPrepare`.
 */
QX_API Id HashDictFind(const HashDict* hdict, const UByte* bytes, UInt len);

/** Number of keys. */
QX_API Id HashDictSize(const HashDict* hdict);

/** Length in bytes of the longest key. */
QX_API UInt HashDictMaxLength(const HashDict* hdict);

/** Bytes in the dictionary's image, without the length and padding of a record. */
QX_API size_t HashDictFileSize(const HashDict* hdict);

/**
 * Writes the image to a file and forces both, the image and the name, to stable storage: after TRUE they survive a
 * power cut. The file is `<dir>/<name>.<suffix>`.
 *
 * @param dir     the directory; null: none, as for `HashDictOpen`
 * @param suffix  null: "dic"
 * @param swap    TRUE: in the opposite byte order, for another machine; nothing here reads that
 * @return FALSE, without a message and with `errno` set, when opening, writing, forcing or closing fails. A name
 *         without room in a path is ENAMETOOLONG and touches nothing
 *
 * The file is truncated first and written in place, and whatever goes by its name is REMOVED when opening, writing or
 * forcing fails, an older file that could not be opened included. A process that dies here leaves a part of the file,
 * which does not open; a power cut perhaps one with zeros or older bytes in it, which `HashDictCheck` refuses or calls
 * safe to use. `HashDictReplace` keeps the older file until the new one is whole.
 */
QX_API Boolean HashDictWrite(const HashDict* hdict, const char* dir, const char* name, const char* suffix,
                             Boolean swap);

/**
 * Writes a 4-byte image length and the image to a channel.
 *
 * @param swap  TRUE: both in the opposite byte order
 * @return FALSE at the first failed write; the channel is left as it is
 *
 * The length is cut to 32 bits: images of 4 GiB and more cannot be carried this way.
 */
QX_API Boolean HashDictFileWrite(const HashDict* hdict, Channel* f, Boolean swap);

/** Writes the bare image to a channel; otherwise as `HashDictFileWrite`. */
QX_API Boolean HashDictFileWrite_(const HashDict* hdict, Channel* f, Boolean swap);

/**
 * Writes a record for `HashDictMMRead` to a channel: zero bytes up to a multiple of 8, an 8-byte image length, the
 * image.
 *
 * @param writtenSize  in: bytes written so far, counted from the byte that will be the mapping's base; out: the same
 *                     behind the record. On failure it tells how far the record's start came: the 8 bytes of the length
 *                     are added before they are written, the image's bytes only when all are
 * @return FALSE at the first failed write; the channel is left as it is
 */
QX_API Boolean HashDictMMWrite(const HashDict* hdict, Channel* f, size_t* writtenSize);

/** `HashDictMMWrite` in the opposite byte order. */
QX_API Boolean HashDictMMWriteSwapped(const HashDict* hdict, Channel* f, size_t* writtenSize);

/* Additions since 1.0. */

/**
 * Addition: finds out whether keys are distinct, as a build wants them.
 *
 * @param nentries  number of keys
 * @param dict      handed through to the callback
 * @param key       gives the keys, as for `HashDictBuild` ("bytes != ((void *)0)" asserted)
 * @param first     receives the number of the earlier one of two equal keys; may be null
 * @param second    receives the number of the later one: the first key that repeats an earlier one; may be null
 * @return TRUE when no two are equal; `*first` and `*second` are then left alone
 *
 * Memory: 12 bytes a key, for the time of the call. Time: expected linear, one pass over the keys in ascending order;
 * two keys that look equal are asked for again, up to 16 keys after the later one came by.
 */
QX_API Boolean HashDictKeysDistinct(Id nentries, void* dict, DictKeyFun key, Id* first, Id* second);

/**
 * Addition: `HashDictBuild` from keys that lie in memory; the image is the same as the callbacks give.
 *
 * @param keys    the keys; one of length 0 may be null, another not (asserted: "bytes != ((void *)0)")
 * @param lens    their lengths in bytes
 * @param values  the values to store; null: each key's own number
 *
 * All three are only read, and not used after the call. Everything else is as for `HashDictBuild`.
 */
QX_API HashDict* HashDictBuildFromSlices(Id nentries, const UByte* const* keys, const UShort* lens, const Id* values,
                                         UByte nbits, UByte probe, Boolean verbose);

/**
 * Addition: looks many keys up, several in flight at once: exactly what `HashDictFind` gives for each, in less time
 * when the dictionary is larger than the caches.
 *
 * @param hdict  the dictionary, not null (asserted)
 * @param n      number of keys; 0 is allowed
 * @param keys   the keys, in any order, repeated or not; one of length 0 may be null
 * @param lens   their lengths in bytes
 * @param ids    receives for each key, at its place, what `HashDictFind` gives
 */
QX_API void HashDictFindMany(const HashDict* hdict, UInt n, const UByte* const* keys, const UInt* lens, Id* ids);

/**
 * Addition: tells whether a dictionary is sound: every look-up of any key stays inside the image and ends without an
 * assertion, and what is written of it is read again. Reading and look-ups stay inside the image without it; a caller
 * who does not trust the source of an image asks once, after opening it.
 *
 * @param hdict   a dictionary, however made, or a handle whose image was refused by `HashDictMemOpen_`; null is not
 * sound
 * @param reason  receives a constant text that names the first thing wrong, or null when there is none; may be null
 * @return TRUE when numbers, array sizes, widths, ranks and coefficients fit together. Function values and probe codes
 *         can be any, so changed bytes among those are not seen, nor is an image of other keys
 *
 * Every dictionary that was built is sound. An image of the opposite byte order is not, nor are 48 zero bytes.
 * Writes nothing, allocates nothing and gives no message. Cost: one pass over ranks and coefficients.
 */
QX_API Boolean HashDictCheck(const HashDict* hdict, const char** reason);

/**
 * Addition: writes the image as `HashDictWrite` does, in place of a file that may be there: readers see the old file or
 * the new one, whole, whenever they look and whatever fails.
 *
 * The new file is written beside the old one (its name and ".new-" with numbers behind it), with its permissions,
 * forced to stable storage, and renamed; then the directory is forced. A symbolic link is replaced, not followed.
 * Handles that have the old file open keep it until they are closed.
 *
 * @return TRUE when the new file is in place and stable. FALSE, without a message and with `errno` set, when something
 *         failed: the old file stands as it was and nothing is left beside it. Only when it was the directory that
 * could not be forced is the new file in place, and the old one may be back after a power cut
 *
 * A process that dies here leaves the old file, and perhaps the new one beside it.
 */
QX_API Boolean HashDictReplace(const HashDict* hdict, const char* dir, const char* name, const char* suffix,
                               Boolean swap);

/**
 * Addition: arranges a copy of the coefficients for look-ups, which then take about two thirds of the time and give the
 * same. It pays from some thousand look-ups on. `HashDictBuild` does so by itself for 512 keys and more.
 *
 * Memory: 16 bytes for each position and byte value of the keys, and a kilobyte; at most 1 MiB; released with the
 * handle. Time: proportional. Must not run beside look-ups in the same handle, nor twice at once.
 *
 * @param hdict  the dictionary, not null (asserted)
 * @return TRUE when the dictionary is prepared, now or before. FALSE, and nothing has changed, when the copy would be
 *         larger, when the header's numbers do not fit the image, or when the record was filled in by
 *         `HashDictMemOpen_`, since nothing releases that one
 */
QX_API Boolean HashDictPrepare(HashDict* hdict);

QX_END_DECLS

#endif
