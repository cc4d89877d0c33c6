/**
 * @file
 * Channels: buffered byte streams over a file or over a device of the caller's.
 */
#ifndef QXLIB_CHANNEL_H
#define QXLIB_CHANNEL_H

#include "qxlib/types.h"

#include <sys/types.h>

QX_BEGIN_DECLS

/** Bytes in each of a channel's two buffers. */
#define QX_CHANNEL_BUFFER 11680

/** How a channel talks to a device that is not a file. A negative count is an error, told by `errno`. */
typedef struct {
  ssize_t (*read)(void* buffer, size_t count, void* arg);
  ssize_t (*write)(const void* buffer, size_t count, void* arg);
  void (*close)(void* arg);
  int (*shutdown)(void* arg);
  int (*sync)(void* arg); /**< 0 when all that was written is stable */
  void* arg;              /**< handed to each of them */
} ChannelVirtual;

/**
 * A channel belongs to one thread at a time. Callers may read `inBuf[inFirst]` and add one to `inFirst` while
 * `inFirst < inSize`, and may write `outBuf[outSize]` and add one to `outSize` while `outSize < QX_CHANNEL_BUFFER`.
 */
typedef struct Channel {
  int inFirst; /**< next byte to read in `inBuf` */
  int inSize;  /**< valid bytes in `inBuf` */
  UByte inBuf[QX_CHANNEL_BUFFER];
  int outSize; /**< bytes waiting in `outBuf` */
  UByte outBuf[QX_CHANNEL_BUFFER];
  int fd;                        /**< the library's: the open descriptor, or -1 */
  int directory;                 /**< the library's: the directory of a file to write, until it is synced, or -1 */
  Boolean created;               /**< the library's: opening may have created the file; its name is unsynced */
  int error;                     /**< the library's: `errno` of the first failure of the way out, or 0 */
  TimeMilliseconds readTimeout;  /**< the library's */
  TimeMilliseconds writeTimeout; /**< the library's */
  const ChannelVirtual* device;  /**< the device in place of a descriptor, or null */
} Channel;

/**
 * A new channel, unopened: for `ChannelOpenFile`, or to set its `device`.
 *
 * @param readTimeout   milliseconds that a read waits at most for a descriptor that has nothing yet; negative: for ever
 * @param writeTimeout  the same for writes
 * @return the channel, the caller's until `ChannelClose`. Memory that cannot be had ends the process with a message.
 */
QX_API Channel* ChannelNew(TimeMilliseconds readTimeout, TimeMilliseconds writeTimeout);

/**
 * Opens a file on an unopened channel: close-on-exec, and never on one of the descriptors 0 to 2.
 *
 * @param path  the file
 * @param mode  "r": to read what is there; "w": to write it anew; "a": to write behind its end. The last two create a
 *              missing file, readable and writable by all less the umask.
 * @return whether it is open. FALSE, and the channel as it was: `errno` is EBUSY for a channel that is open, EINVAL for
 *         another mode, EISDIR for a directory, else the system's.
 */
QX_API Boolean ChannelOpenFile(Channel* f, const char* path, const char* mode);

/**
 * Reads exactly `count` bytes. Short and interrupted reads go on.
 *
 * @param to     room for `count` bytes; on failure the beginning may have been written
 * @param flags  0
 * @return 0 when all were read; 1 at the end of the file (`errno` 0); -1 on an error, told by `errno` (ETIMEDOUT: the
 *         time-out has passed). What was read in front of either is lost to later reads.
 *
 * Cost: a system call for each 11680 bytes, or for each `count` when that is more.
 */
QX_API Int ChannelReadBuf(Channel* f, void* to, size_t count, Int flags);

/**
 * Refills the input buffer when it is used up, and takes a byte.
 *
 * @param flags  0
 * @return 0 to 255; -1 at the end of the file and on an error, as `ChannelReadBuf`
 */
QX_API int ChannelReadByte_(Channel* f, Int flags);

/**
 * Writes bytes, into the buffer or through it. Short and interrupted writes go on.
 *
 * @param from   may be null when `count` is 0
 * @return FALSE on an error, told by `errno`, at this write or an earlier one: the first failure stays, nothing is
 *         written after it, and every later write, flush, sync and the closing report it. TRUE does not say that the
 *         bytes have arrived; `ChannelFlush` does.
 */
QX_API Boolean ChannelWriteBuf(Channel* f, const void* from, size_t count);

/** Writes the output buffer out and empties it, also when that fails. @return FALSE as of `ChannelWriteBuf` */
QX_API Boolean ChannelFlush(Channel* f);

/**
 * Flushes, and forces what was written to stable storage: the file, and, the first time, its directory entry, whoever
 * created it. Where the directory cannot be forced by itself, all of its file system is. Pipes, terminals and other
 * devices without storage have nothing to force.
 *
 * @return FALSE as of `ChannelWriteBuf`; EBADF for an unopened channel, ENOTSUP for a device without `sync`. A failure
 *         is never tried again: the system forgets what it could not write, and a second try would succeed.
 */
QX_API Boolean ChannelSync(Channel* f);

/**
 * Flushes, closes and frees the channel, whatever fails. Does not sync.
 *
 * @param f  null does nothing
 * @return FALSE when anything on the way out has failed since the channel was opened, the closing included; `errno`
 *         tells the first failure
 */
QX_API Boolean ChannelClose(Channel* f);

QX_END_DECLS

#endif
