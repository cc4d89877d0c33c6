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
  int directory;                 /**< the library's: the directory of a created file, until it is synced, or -1 */
  Boolean created;               /**< the library's: opening created the file, and its name is not yet stable */
  int error;                     /**< the library's: `errno` of the first failure of the way out, or 0 */
  TimeMilliseconds readTimeout;  /**< the library's */
  TimeMilliseconds writeTimeout; /**< the library's */
  const ChannelVirtual* device;  /**< the device in place of a descriptor, or null */
} Channel;

QX_API Channel* ChannelNew(TimeMilliseconds readTimeout, TimeMilliseconds writeTimeout);
QX_API Boolean ChannelOpenFile(Channel* f, const char* path, const char* mode);
QX_API Int ChannelReadBuf(Channel* f, void* to, size_t count, Int flags);
QX_API int ChannelReadByte_(Channel* f, Int flags);
QX_API Boolean ChannelWriteBuf(Channel* f, const void* from, size_t count);
QX_API Boolean ChannelFlush(Channel* f);
QX_API Boolean ChannelSync(Channel* f);
QX_API Boolean ChannelClose(Channel* f);

QX_END_DECLS

#endif
