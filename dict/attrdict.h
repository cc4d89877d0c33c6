/**
 * @file
 * An attribute dictionary: one short byte string for each of the identifiers 0, 1, 2, ..., in a pair of files.
 *
 * It is written once, in the order of the identifiers, and read by mapping both files:
 *
 *     AttrDictBuild   AttrDictAdd, once an identifier   AttrDictCommit
 *     AttrDictOpen    AttrDictGet, AttrDictEnumerate    AttrDictClose
 *
 * `<name>.dat` holds the strings, each behind a byte that is its length; `<name>.idx` holds the offset of every fourth
 * string and, last, the number of strings. `docs/formats.md` has both byte by byte. The index is in the byte order of
 * the machine that is to read it; nothing in it tells the order, so a pair that was written for the other one opens
 * well and gives wrong answers.
 *
 * What a reader can rely on, whatever the files hold: it reads inside the two files and nowhere else. An identifier
 * whose record would lie outside them has no string. Beyond that a pair is believed: one that was damaged, or whose
 * files do not belong together, gives wrong answers. A file must not be made shorter while it is mapped: the system
 * ends a process that reads behind the end of one. Replace files by renaming.
 *
 * Threads: a dictionary being built belongs to one thread. An open one is never written: any number of threads may
 * look up and enumerate at once.
 */
#ifndef DICT_ATTRDICT_H
#define DICT_ATTRDICT_H

#include <stdio.h>

#include "qxlib/types.h"

QX_BEGIN_DECLS

/** A dictionary, either being built or open for reading. To be read, not written, by callers. */
typedef struct AttrDict {
  UInt a_size;       /**< identifiers: as many as there are strings */
  UInt* a_idx;       /**< reading: the index, mapped */
  size_t a_idx_size; /**< its size in bytes */
  UByte* a_dat;      /**< reading: the data, mapped; null when there is none */
  size_t a_dat_size; /**< its size in bytes */
  FILE* a_idx_file;  /**< building: the index; null when reading */
  FILE* a_dat_file;  /**< building: the data; null when reading */
  UInt a_offset;     /**< building: where the next record starts in the data */
  Boolean a_swap;    /**< building: the index is in the byte order opposite to this machine's */
  UInt a_indexed;    /**< private, reading: identifiers that have a word in the index; at most `a_size` */
  Boolean a_full;    /**< private, building: a string did not fit below 4 GiB */
  size_t a_roomy;    /**< private, reading: four records that start below this offset lie inside the data */
  int a_error;       /**< private, building: the `errno` of the first write that failed; 0 when none has */
  int a_directory;   /**< private, building: the directory of the two files, to be synced, or -1 */
} AttrDict;

/**
 * Receives a string; zero goes on, every other value ends the enumeration.
 *
 * @param bytes   the string, inside a read-only mapping: it must not be written. Good until `AttrDictClose`.
 * @param length  its length in bytes, 0 to 255
 * @param ptr     what the enumeration was given
 */
typedef UInt (*AttrDictEnumerateFunction)(UByte* bytes, UInt length, void* ptr);

/**
 * Starts a dictionary: creates, or empties, its two files.
 *
 * @param dir   the directory; null: `name` alone is the path
 * @param name  the files are `<dir>/<name>.idx` and `<dir>/<name>.dat`
 * @param swap  true: write the index in the byte order opposite to this machine's
 * @return the dictionary being built, which `AttrDictCommit` releases; null, with `errno`, when a file cannot be opened
 *         and, with ENAMETOOLONG, when a path is too long; EINVAL: `name` is null
 *
 * The index is opened first: when the data cannot be, the index is left behind, empty, or both are. Both files are
 * close-on-exec, and on none of the descriptors 0 to 2.
 */
QX_API AttrDict* AttrDictBuild(const char* dir, const char* name, Boolean swap);

/**
 * Gives the next identifier its string.
 *
 * @param bytes  the string; may be null when `len` is 0
 * @param len    its length in bytes
 *
 * What cannot be written is found out by `AttrDictCommit`. So is a string that would bring the data to 4 GiB, where
 * 32-bit offsets end: it is not written, nor is any string after it.
 */
QX_API void AttrDictAdd(AttrDict* adict, const UByte* bytes, UByte len);

/**
 * Completes a dictionary: writes what is left, forces both files to stable storage, closes them, and forces their names
 * to stable storage too.
 *
 * @param adict  a dictionary being built (asserted: "adict != ((void *)0)", "adict->a_idx_file != ((void *)0)",
 *               "adict->a_dat_file != ((void *)0)"); released, whatever the result
 * @return TRUE when every byte was written and both files were closed without an error; FALSE, with the `errno` of the
 *         first failure (EFBIG at 4 GiB of data), when not: the files are then incomplete
 *
 * The index is completed first. A process that dies before both are leaves a pair that does not open or that
 * `AttrDictCheck` refuses; only one whose index got no further than its first word, 0, is an empty dictionary's. After
 * a power cut strings can also be an older pair's where this one overwrote it: `AttrDictCommitAs` overwrites nothing. A
 * file-size limit or a closed pipe also raises its signal, SIGXFSZ or SIGPIPE, which ends a process that has not asked
 * otherwise.
 */
QX_API Boolean AttrDictCommit(AttrDict* adict);

/**
 * Opens a dictionary for reading: maps its two files.
 *
 * @param dir   the directory; null: `name` alone is the path
 * @param name  the files are `<dir>/<name>.idx` and `<dir>/<name>.dat`
 * @return the dictionary, which `AttrDictClose` releases; null, with `errno`, when a file cannot be opened or mapped;
 *         with ENAMETOOLONG, when a path is too long; with ENODATA, when the index is empty
 *
 * The files must not be changed while they are open: other bytes make other strings, and a file that becomes shorter
 * ends the process with a signal, SIGBUS. `AttrDictBuild` empties files in place; `AttrDictCommitAs` renames new ones
 * over them, and who has the old ones open keeps them.
 *
 * Empty data are no failure: `a_dat` is then null. Nor is an index that makes no sense: `a_size` is its last four
 * bytes, or 0 when it has fewer. Cost: two mappings; nothing is read but the size.
 */
QX_API AttrDict* AttrDictOpen(const char* dir, const char* name);

/** The number of identifiers; while building, of strings added so far. */
QX_API UInt AttrDictSize(const AttrDict* adict);

/**
 * Looks up the string of an identifier.
 *
 * @param id     the identifier
 * @param bytes  receives the address of the string, inside the mapping, good until `AttrDictClose`
 * @return the length of the string; 0, with nothing stored in `bytes`, when `adict` is null, when `id` is not below the
 *         size, and when the record would lie outside the files
 *
 * A string of length 0 gives 0, too, but with an address: a caller that must tell the two apart passes a null pointer
 * in `bytes`. Cost: one index word and at most four records that lie side by side.
 */
QX_API UByte AttrDictGet(const AttrDict* adict, Id id, const UByte** bytes);

/**
 * Calls a function on the strings of all identifiers from one on, in order.
 *
 * @param adict       not null (asserted: "adict != ((void *)0)")
 * @param startPoint  the identifier to start from, below the size (asserted: "id < adict->a_size") unless the data are
 *                    empty, when there is nothing to enumerate
 * @param fun         called once an identifier
 * @param ptr         handed to `fun`
 * @return 0 when every call returned 0, or there was none; else the first other result
 *
 * The n-th call, from 0, is for identifier `startPoint` + n. Therefore an identifier whose record would lie outside the
 * files ends the enumeration, with 0: nothing is left out between.
 */
QX_API UInt AttrDictEnumerate(const AttrDict* adict, Id startPoint, AttrDictEnumerateFunction fun, void* ptr);

/**
 * Closes a dictionary that was open for reading.
 *
 * @param adict  a dictionary from `AttrDictOpen` (asserted: "adict != ((void *)0)", "adict->a_idx_file == ((void *)0)
 *               && adict->a_dat_file == ((void *)0)"); released, whatever the result
 * @return TRUE when both mappings were released without an error
 */
QX_API Boolean AttrDictClose(AttrDict* adict);

/* Additions. */

/**
 * Tells whether an open pair is one that `AttrDictCommit` could have completed, byte for byte: every identifier has its
 * string, every offset is where its record starts, and neither file has a byte too few or too many. An addition since
 * 1.0. Reading is safe without it; a caller that must tell a string that is not there from an empty one asks once,
 * after opening a pair that came from elsewhere or whose writer may have died.
 *
 * @param adict   a dictionary from `AttrDictOpen`; null and one being built are not sound
 * @param reason  receives a constant text that names the first thing wrong, or null when there is none; may be null
 * @return TRUE when the pair is sound. The strings themselves can be any, so a changed byte inside one is not seen.
 *
 * Writes nothing and allocates nothing. Cost: one pass over both files.
 */
QX_API Boolean AttrDictCheck(const AttrDict* adict, const char** reason);

/**
 * Completes a dictionary that was started under a name of its own, and puts it in the place of another: its files are
 * written and synced, get the permissions of those that they replace, and are renamed; then the directory is synced. An
 * addition since 1.0.
 *
 * @param adict  a dictionary being built (asserted as by `AttrDictCommit`); released, whatever the result
 * @param dir    the directory, on the same file system as the one it was started in; null: `name` alone is the path
 * @param name   the files become `<dir>/<name>.idx` and `<dir>/<name>.dat`. The name it was started under: as
 *               `AttrDictCommit`
 * @return TRUE when the new pair is in place; FALSE, with `errno`, when not: the old pair is then as it was, and the
 *         files of the new one are removed. Only when the directory cannot be synced is the result FALSE with the new
 *         pair in place, and the old data stay in the new pair's first name. Errors are those of `AttrDictCommit`, of
 * formatting a path (EINVAL, ENAMETOOLONG) and of rename(2), EISDIR and EXDEV among them
 *
 * Dictionaries that are open stay as they are. Two files cannot change their names in one step: the data are renamed
 * first, and until the index follows, and after a process or machine that went down between, the new data stand beside
 * the old index. `AttrDictCheck` refuses that pair, unless the old index is also the new one, byte for byte: an index
 * follows from its data. Who opens pairs that are replaced checks them, and opens again when they are refused. A file
 * system that cannot exchange two names, as some network file systems, cannot put the old data back when it then
 * refuses to rename the index; where one can and refuses all the same, the old data are left in the new pair's first
 * name. Relative paths are taken from the current directory, at the start and at the end.
 */
QX_API Boolean AttrDictCommitAs(AttrDict* adict, const char* dir, const char* name);

QX_END_DECLS

#endif
