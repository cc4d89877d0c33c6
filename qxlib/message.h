/**
 * @file
 * What went wrong: messages, the calling thread's current error, assertions.
 *
 * A message is two calls: `QXSetMessageContext2_` with where it comes from, then `QXMessage_` with its text. A failure
 * of a named file is recorded as the thread's current error with `QXErrorRethrow_` in place of `QXMessage_`.
 */
#ifndef QXLIB_MESSAGE_H
#define QXLIB_MESSAGE_H

#include "qxlib/types.h"

QX_BEGIN_DECLS

/** Where a message comes from. */
typedef struct {
  const char* file;     /**< source module, "dict/hashtable" */
  int line;             /**< line of the report */
  const char* module;   /**< module name, "qxdict" */
  const char* function; /**< reporting function */
  int level;            /**< severity: 2 progress, 4 failure */
  Boolean flag;         /**< whether the system error text follows the message */
} QXMessageContext;

/** Sets the calling thread's context for the message that follows. The strings are kept, not copied. */
QX_API void QXSetMessageContext2_(const char* file, int line, const char* module, const char* function, int level,
                                  Boolean flag);

/** Reports a message in the context set before. Never ends the process. Keeps `errno`. */
QX_API void QXMessage_(const char* format, ...) QX_PRINTF(1, 2);

/** Records the text and `errno` as the calling thread's current error. Prints nothing. Keeps `errno`. */
QX_API void QXErrorRethrow_(const char* format, ...) QX_PRINTF(1, 2);

/** Saves the calling thread's current error, and `errno`, before a clean-up that could disturb them. */
QX_API void QXErrorSave(void);

/** Restores what `QXErrorSave` saved. */
QX_API void QXErrorRestore(void);

/** The calling thread's current error, formatted ("error opening PATH"); "" when there is none. */
QX_API const char* QXErrorText(void);

/** The `errno` recorded with the current error; 0 when there is none. */
QX_API int QXErrorCode(void);

/** Forgets the calling thread's current error. */
QX_API void QXErrorClear(void);

/** Receives messages: the bare text, followed by ": " and the system error text when the context's flag is set. */
typedef void (*QXMessageHandler)(const QXMessageContext* context, const char* text, void* arg);

/** Hands messages of all threads to `handler`; a null handler: back to standard error, one line a message. */
QX_API void QXMessageHandlerSet(QXMessageHandler handler, void* arg);

/** Fails an assertion: prints it to standard error in the C library's form and aborts. */
QX_API void qxassert_(const char* expression, const char* file, int line) __attribute__((noreturn));

QX_END_DECLS

#endif
