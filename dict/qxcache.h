/**
 * @file
 * A cache of byte values under text keys, each with a time of expiry, safe for any number of threads.
 *
 * All memory is taken at creation, as regions that are cut into pages of one size. A store appends its value as a block
 * to a page of the free list; a page that has no room for a block goes to the full list. A collector thread, one a
 * cache, copies the blocks worth keeping out of full pages and gives the emptied pages back.
 *
 *     region   [ page ][ page ] ... [ page ]                c_region_size pages of c_page_size bytes
 *     page     [ Page: 88 bytes ][ block ][ block ] ... [ room ]
 *     block    [ CacheBlock: 56 bytes ][ key text, zero byte ][ value ][ pad to 8 ]
 *
 * What to know before choosing it:
 *
 * - It forgets. A value may go before it expires: when the collector judges it idle, when pages run out, when a key
 *   with the same 64-bit fingerprint is stored. It never gives back a value that was not stored under the very key.
 * - A store over a key hides the older value, but does not overwrite it: the older block stays where it is until the
 *   collector meets it. If it is then neither expired nor idle it is kept, and from then on a fetch may give the older
 *   value again. Do not use a store to revoke or shorten what was stored: put a version into the key or the value.
 * - A refused store (FALSE) changes nothing: an older value of the key can still be fetched.
 * - A cache that a round of the collector could not relieve is looked at again after a second, or once a page is taken;
 *   a full one refuses stores until then, even when values expire meanwhile.
 * - Where not one page is free, the collector drops whole pages until the low threshold's share and 5 pages are free,
 *   and one page more stays out of use until the cache is deleted. A cache that this happens to often shrinks: give it
 *   more pages, a shorter generation time, or expiries.
 * - Time is wall-clock time. When the machine's clock is set forward values expire early, set back they live longer.
 * - Choose the generation time so that 100 generations are at most half of the time in which your stores fill the
 *   cache (see `QXCacheNewWithParams`), or give values an expiry within that time. Otherwise nothing is ever old enough
 *   to go, and once the cache is full stores are refused.
 * - While a cache is filled for the first time all its pages fill evenly and reach their end at about the same time:
 *   expect some refused stores in a row just then, before the collector has caught up.
 * - Keys are found by a public, unkeyed fingerprint and then compared in full. Who can choose keys can make two keys
 *   drive one another out; he cannot make one give the other's value.
 * - After `fork` the child must not touch the cache: its collector lives in the parent alone. The collector blocks all
 *   signals.
 * - An operation waits for no longer than it takes to copy one page, beside the other callers who copy values out of
 *   that page (its mutex is not fair: many readers of one large value queue for it), or to enlarge the index: it starts
 *   with 100000 nodes and doubles, which moves 24 bytes a node while other threads wait. Where memory for that cannot
 *   be had the process ends with a message. The index holds 2147483646 keys, the cache 4294967295 blocks.
 *
 * A mutex that cannot be locked or unlocked means that memory is damaged, and ends the process: "pthread_mutex_lock
 * failed" with the system error text and a failed assertion, or "pthread_mutex_unlock failed" and exit status 1.
 */
#ifndef DICT_QXCACHE_H
#define DICT_QXCACHE_H

#include "dict/avlldict.h"
#include "qxlib/types.h"

QX_BEGIN_DECLS

typedef struct Page Page;
typedef struct CacheBlock CacheBlock;
typedef struct CacheExtra CacheExtra; /**< the library's own */

/** A mapped region. */
typedef struct {
  size_t r_size; /**< bytes mapped */
  void* r_base;  /**< where it starts */
} Region;

/** A growable array of regions. */
typedef union {
  Array_ a;
  struct {
    Region* elts;
    UInt length;
    UInt capacity;
  } t;
} RegionArray;

/**
 * The header at the start of each page; the block area follows it directly. 88 bytes. `p_mutex` guards the other fields
 * and all blocks of the page, but for the two links: they belong to the list's lock, `c_alloc_mutex`.
 */
struct Page {
  Mutex p_mutex;
  UByte* p_alloc_ptr; /**< where the next block goes; a multiple of 8 */
  UByte* p_copy_ptr;  /**< the first block: the start of the block area */
  UByte* p_end;       /**< the end of the page */
  CacheBlock* p_last; /**< the block appended last; null in a page never used. An emptied page keeps it, stale. */
  Page* p_next;       /**< towards the tail of the list, free or full, that holds the page */
  Page* p_prev;       /**< towards its head */
};

/**
 * The header of a stored value, followed directly by the key text with its zero byte and the value. 56 bytes. The
 * blocks of a page form a list in the order of their addresses.
 */
struct CacheBlock {
  ULong b_key;        /**< `Fingerprint` of the key text, without its zero byte */
  size_t b_size;      /**< key length + 1 + value length */
  ULong b_created;    /**< time of the store, milliseconds; all ones: a dead block, moved or dropped by the collector */
  ULong b_expires;    /**< from this time on no fetch returns it */
  ULong b_accessed;   /**< time of the store or of the last fetch that found it */
  Page* b_page;       /**< the page that holds it */
  CacheBlock* b_next; /**< the next block of the page; null: the last */
};

/** Buckets of the age histogram. */
#define QX_CACHE_BUCKETS 100

/** A cache. For tools to look at; callers use the functions below. */
typedef struct Cache {
  UInt c_region_size;                     /**< pages a region */
  UInt c_page_size;                       /**< bytes a page, its header included */
  double c_safety_threshold;              /**< percent of free pages at or below which stores are refused */
  double c_gc_low_threshold;              /**< percent of free pages at or below which the collector starts */
  double c_gc_high_threshold;             /**< percent of free pages above which it stops */
  RegionArray c_regions;                  /**< the regions, in the order of creation */
  Page* c_free_head;                      /**< pages with room for blocks, */
  Page* c_free_tail;                      /**< taken from the tail and given back to the head; */
  UInt c_nb_free_pages;                   /**< how many */
  Page* c_full_head;                      /**< pages that had no room for a block, */
  Page* c_full_tail;                      /**< collected from the tail; */
  UInt c_nb_full_pages;                   /**< how many */
  Mutex c_alloc_mutex;                    /**< guards both lists and counts, c_regions, c_gc_started, c_closing */
  Condition c_alloc_cond;                 /**< wakes the collector: a page was taken, or the cache is closing */
  Condition c_start_cond;                 /**< the collector has started */
  Thread c_gc_thread;                     /**< the collector */
  Boolean c_gc_started;                   /**< set by the collector when it has started */
  Boolean c_closing;                      /**< set by deletion */
  AVLLDict* c_dict;                       /**< from the fingerprint of a key to the address of its block */
  Mutex c_dict_lock;                      /**< guards c_dict */
  UInt c_age_histogram[QX_CACHE_BUCKETS]; /**< objects by age, in generations */
  ULong c_histo_updated;                  /**< the histogram's reference time: when the cache was created */
  Mutex c_histo_mutex;                    /**< guards the histogram, c_nb_objects and c_total_size */
  UInt c_generation_time;                 /**< width of a bucket, milliseconds */
  ULong c_total_size;                     /**< sum of the counted objects' b_size */
  UInt c_nb_objects;                      /**< objects in pages: also those that a newer store of their key hides */
  CacheExtra* c_extra;                    /**< the library's own */
} Cache;

/**
 * Makes a cache and starts its collector.
 *
 * @param regionSize       pages a region
 * @param pageSize         bytes a page: a multiple of 8, at least 152. No value with its key can pass
 *                         `pageSize` - 145 bytes.
 * @param safetyThreshold  percent of free pages at or below which stores are refused; they are refused below 6 free
 *                         pages in any case
 * @param gcLowThreshold   percent of free pages at or below which the collector starts; it starts at 5 in any case
 * @param gcHighThreshold  percent of free pages above which the collector stops, and the percentage of all objects that
 *                         it would like to drop, the longest idle first
 * @param generationTime   milliseconds a generation, the unit in which idle time is counted
 * @param size             bytes to take: `size / (regionSize * pageSize)` regions are mapped, a remainder is not used.
 *                         0 regions are a cache in which every store fails.
 * @return the cache, the caller's until `QXCacheDelete`; null, with everything released, when a region or the index
 *         cannot be mapped, when the collector cannot be started, and for parameters that cannot work: `regionSize`,
 *         `pageSize` or `generationTime` 0; `pageSize` below 152 or no multiple of 8; a region of 4 GiB or more; more
 *         than 4294967295 pages; more than 128 TiB
 *
 * The thresholds are taken as they are. Sensible ones rise: safety < low < high. The collector never spins, whatever
 * they say: when it has nothing to do it waits for up to a second or until a store takes the page with which too few
 * are free, and when a round through all full pages gave no page back, for up to a second or until any page is taken.
 *
 * Choosing `generationTime`. The ages of the objects are counted from the cache's creation. In its first generation a
 * collection drops whatever it meets; after it, only what has expired or was not used for 100 generations. So let T be
 * the time in which your stores fill the cache once (its size divided by bytes stored a second, 64 bytes more a block)
 * and choose generationTime = T / 200: what is dropped has then been idle for half a turn of the cache, and there is
 * always something to drop. A generation of T / 100 and more refuses stores as soon as the cache is full; a much
 * shorter one drops what is still in use. The default of a minute fits caches that take over three hours to
 * fill, or whose values all expire within the time of filling.
 *
 * Cost: maps all regions and writes one header a page, so every page takes at least one page of the machine's memory at
 * once, the rest as it is filled. Beside the regions there is the index, 24 bytes a key, and in front of it a table of
 * 26 bytes a key, a sixteenth of `size` at most.
 */
QX_API Cache* QXCacheNewWithParams(UInt regionSize, UInt pageSize, double safetyThreshold, double gcLowThreshold,
                                   double gcHighThreshold, UInt generationTime, ULong size);

/**
 * As `QXCacheNewWithParams(16, 1048576, 1.0, 8.0, 16.0, 60000, size)`: regions of 16 pages of 1 MiB, stores refused at
 * 1 percent of free pages, collection between 8 and 16 percent, generations of a minute.
 */
QX_API Cache* QXCacheNew(ULong size);

/**
 * Stops the collector and frees everything. Null is nothing to delete.
 *
 * No other operation on the cache may be running or follow. Returns as soon as the collector has ended: at once when it
 * is idle, else after the page that it is copying.
 */
QX_API void QXCacheDelete(Cache* cache);

/**
 * Tells how much the cache holds.
 *
 * @param nbObjects  receives the number of objects in its pages, when not null: expired ones, and those that a newer
 *                   store of their key hides, count until the collector has met them
 * @param objSize    receives the bytes of their keys (a zero byte each included) and values, when not null
 * @return the capacity in bytes: number of regions * `c_region_size` * `c_page_size`, headers included
 *
 * Takes a lock only when it has something to store.
 */
QX_API ULong QXCacheGetSize(Cache* cache, UInt* nbObjects, ULong* objSize);

/**
 * Stores a value.
 *
 * @param key      zero-terminated text; "" is a key. Null is refused.
 * @param value    the bytes, copied; may be null when `size` is 0, else null is refused
 * @param size     bytes of `value`
 * @param expires  the time, in milliseconds of `GetCurrentTimeMilliseconds`, from which on no fetch returns it; a time
 *                 that has come gives a value that is never returned, all ones one that never expires
 * @return TRUE when it was stored. FALSE, at once and with nothing changed, when fewer than 6 pages or not more than
 *         the safety threshold's share are free; when key and value can never fit into a page (header sizes 88 and 56,
 *         a zero byte behind the key); when ten pages in a row had no room for it (they are then on the full list).
 *
 * Cost: one fingerprint, one insertion into the index, the copy. A store that takes the page with which too few are
 * free wakes the collector, which costs microseconds; once a generation has passed, so does one store in ten
 * milliseconds, behind which the collector ages the histogram.
 */
QX_API Boolean QXCacheStore(Cache* cache, const UByte* key, const UByte* value, UInt size, ULong expires);

/**
 * Copies a value into a buffer.
 *
 * @param key       zero-terminated text; null is never found
 * @param buffer    receives the value; may be null to ask for the size alone
 * @param bufSize   bytes that `buffer` has room for
 * @param dataSize  receives the value's length, also when the buffer is too small for it; 0 when there is no value.
 *                  Must not be null (asserted).
 * @return TRUE when the value was copied, an empty one included; FALSE, and nothing copied, when the key is absent or
 *         its value has expired (`*dataSize` 0) and when the buffer is too small (`*dataSize` the size needed; this
 *         counts as a use of the value)
 *
 * Cost: one fingerprint and the copy. Most keys that are there are found without the index and its lock.
 */
QX_API Boolean QXCacheGetStatic(Cache* cache, const UByte* key, void* buffer, UInt bufSize, UInt* dataSize);

/**
 * Appends a value to a growable array.
 *
 * @param key     zero-terminated text; null is never found
 * @param buffer  the array (asserted not null), the caller's; grows to `length` plus the value when its capacity is
 *                short, and then its elements may move. Free it with `ArrayFree_`.
 * @return TRUE when the value was appended, an empty one included; FALSE, and the array as it was, when the key is
 *         absent or its value has expired, and when the array would pass 2147483647 bytes
 *
 * Cost: as `QXCacheGetStatic`.
 */
QX_API Boolean QXCacheGetDynamic(Cache* cache, const UByte* key, UByteArray* buffer);

/* Additions since 1.0. */

/**
 * What a cache does otherwise than described above, for `QXCacheNewWithPolicy`. Flags, to be combined.
 */
enum {
  /** A store over a key hides the older value for good: the collector drops a block that the index does not name, and
   *  does not touch the index for it. Without it an older value may come back. */
  QX_CACHE_NEWEST_WINS = 1,

  /** The page that the collector has taken to see whether enough is free goes back on the full list. Without it each
   *  emergency, in which not one page was left to copy into, takes a page out of use for good. */
  QX_CACHE_KEEP_PAGES = 2,

  /** The ages of objects are counted back from the present: the reference time of the histogram moves on with it.
   *  `c_histo_updated` is then the end of the present generation. A collection drops the buckets of the objects that
   *  were not used for longest, however long that is, until they are `gcHighThreshold` percent of all: it always finds
   *  something to drop, and the cache serves values without expiry. Without it, see `QXCacheNewWithParams`. */
  QX_CACHE_TRUE_AGE = 4
};

/**
 * As `QXCacheNewWithParams`, which is this function with policy 0.
 *
 * @param policy  flags `QX_CACHE_...`; others give null
 *
 * Choosing `generationTime` under `QX_CACHE_TRUE_AGE`: a tenth to a hundredth of the time in which stores fill the
 * cache once. A longer one than that time makes the cache a queue, which drops what was stored first; a very short one
 * makes everything idle for a hundred generations look equally old.
 */
QX_API Cache* QXCacheNewWithPolicy(UInt regionSize, UInt pageSize, double safetyThreshold, double gcLowThreshold,
                                   double gcHighThreshold, UInt generationTime, ULong size, UInt policy);

/**
 * Sees a value where it lies, while its page is locked.
 *
 * @param value  the bytes; at no particular alignment, not null even when `size` is 0, good until the function returns
 * @param size   how many
 * @param arg    what the caller gave
 * @return handed back by `QXCacheRead`; non-zero also says that the value was of use
 *
 * Must be quick and must not call the cache: stores and fetches that need the same page, and the collector, wait.
 */
typedef Boolean (*QXCacheReadFunction)(const UByte* value, UInt size, void* arg);

/**
 * Shows a value to a function, without copying it.
 *
 * @param key  zero-terminated text; null is never found
 * @param fun  called once when there is a value, else not at all (asserted not null)
 * @param arg  handed through
 * @return what `fun` returned; FALSE when the key is absent or its value has expired. The value counts as used whatever
 *         `fun` returns.
 *
 * Cost: as `QXCacheGetStatic`, less the copy.
 */
QX_API Boolean QXCacheRead(Cache* cache, const UByte* key, QXCacheReadFunction fun, void* arg);

/**
 * Removes a key: no later fetch sees a value that was stored under it before.
 *
 * @param key  zero-terminated text; null is never found
 * @return TRUE when there was a value, FALSE when the key was absent or its value had expired
 *
 * The first removal puts the whole cache under `QX_CACHE_NEWEST_WINS` for good: older values of the key, which earlier
 * stores over it have hidden, may still lie in pages, and must not come back. What they take counts in
 * `QXCacheGetSize` until the collector has met them. A store of the key at the same time comes before the removal or
 * after it.
 *
 * Cost: one fingerprint, two operations on the index.
 */
QX_API Boolean QXCacheRemove(Cache* cache, const UByte* key);

/** What has happened in a cache since its creation, and its pages now. */
typedef struct {
  ULong s_hits;        /**< fetches that found a value, also one that did not fit or that the reader did not want */
  ULong s_misses;      /**< fetches of an absent key */
  ULong s_expired;     /**< fetches of a key whose value had expired */
  ULong s_stores;      /**< values stored */
  ULong s_refused;     /**< stores refused, of values too large for any page included */
  ULong s_removed;     /**< values removed by `QXCacheRemove` */
  ULong s_moved;       /**< blocks that the collector has copied */
  ULong s_dropped;     /**< blocks that it has dropped: expired, idle, hidden, or in an emergency */
  ULong s_passes;      /**< copies from one page to another, whole or until the other was full */
  ULong s_emergencies; /**< times at which no page was left to copy into */
  ULong s_lost_pages;  /**< pages that emergencies have taken out of use */
  ULong s_free_pages;  /**< pages on the free list */
  ULong s_full_pages;  /**< pages on the full list; those on neither are lost or being worked on */
} QXCacheStatistics;

/**
 * Tells what has happened in a cache.
 *
 * @param statistics  receives it (asserted not null). What other threads are doing at the time may be counted or not.
 *
 * Calls with a null key are not counted. Counting takes no lock. Cost: a few dozen reads, and the lists' lock.
 */
QX_API void QXCacheStats(Cache* cache, QXCacheStatistics* statistics);

QX_END_DECLS

#endif
