/**
 * @file
 * Threads, mutexes, condition variables and the clock.
 */
#ifndef QXLIB_THREAD_H
#define QXLIB_THREAD_H

#include "qxlib/types.h"

QX_BEGIN_DECLS

/** Starts a joinable thread; 0, with `errno` set, when it cannot be started. `flags` is always 0. */
QX_API Thread ThreadCreate_(void* (*start)(void*), void* arg, int flags, const char* file, int line);

/** Waits for the thread to end. */
QX_API void ThreadJoin(Thread thread);

/** A plain, non-recursive mutex; lock it with `pthread_mutex_lock`. */
QX_API void MutexInit(Mutex* mutex);
QX_API void MutexDestroy(Mutex* mutex);

QX_API void ConditionInit(Condition* condition);
QX_API void ConditionDestroy(Condition* condition);

/** Wakes one waiter. */
QX_API void ConditionSignal(Condition* condition);

/** Waits with the mutex released, and holds it again on return. Wake-ups may be spurious. */
QX_API void ConditionWait(Condition* condition, Mutex* mutex);

/** As `ConditionWait`, for at most so many milliseconds of the monotonic clock; FALSE when they ran out. */
QX_API Boolean ConditionTimedWait(Condition* condition, Mutex* mutex, int milliseconds);

/** Wall-clock time, milliseconds since 1970. */
QX_API ULong GetCurrentTimeMilliseconds(void);

QX_END_DECLS

#endif
