// Threads, mutexes, condition variables and the clock: POSIX threads, with their failures turned into a clear end where
// a caller could not go on, and condition variables on the monotonic clock.

#include "qxlib/thread.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>

#include "qxlib/fatal_internal.h"

namespace {

constexpr const char* kModule = "qxlib/thread";
constexpr long kNanosecondsASecond = 1000000000;
constexpr long kNanosecondsAMillisecond = 1000000;
constexpr int kMillisecondsASecond = 1000;

// These calls fail only when what they are given is no such object, or is still in use: going on would be undefined.
void Check(int error, int line, const char* function, const char* call) {
  if (error == 0) return;
  errno = error;
  qxlib::Fatal(kModule, line, function, TRUE, "%s failed", call);
}

timespec MonotonicAfter(int milliseconds) {
  timespec at = {};
  clock_gettime(CLOCK_MONOTONIC, &at);
  at.tv_sec += milliseconds / kMillisecondsASecond;
  at.tv_nsec += milliseconds % kMillisecondsASecond * kNanosecondsAMillisecond;
  if (at.tv_nsec >= kNanosecondsASecond) {
    at.tv_nsec -= kNanosecondsASecond;
    at.tv_sec++;
  }
  return at;
}

}  // namespace

Thread ThreadCreate_(void* (*start)(void*), void* arg, int /*flags*/, const char* /*file*/, int /*line*/) {
  Thread thread = 0;
  const int error = pthread_create(&thread, nullptr, start, arg);
  if (error == 0) return thread;
  errno = error;
  return 0;
}

void ThreadJoin(Thread thread) {
  Check(thread != 0 ? pthread_join(thread, nullptr) : ESRCH, __LINE__, __func__, "pthread_join");
}

void MutexInit(Mutex* mutex) { Check(pthread_mutex_init(mutex, nullptr), __LINE__, __func__, "pthread_mutex_init"); }

void MutexDestroy(Mutex* mutex) { Check(pthread_mutex_destroy(mutex), __LINE__, __func__, "pthread_mutex_destroy"); }

void ConditionInit(Condition* condition) {
  pthread_condattr_t attributes;
  Check(pthread_condattr_init(&attributes), __LINE__, __func__, "pthread_condattr_init");
  Check(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC), __LINE__, __func__, "pthread_condattr_setclock");
  Check(pthread_cond_init(condition, &attributes), __LINE__, __func__, "pthread_cond_init");
  pthread_condattr_destroy(&attributes);
}

void ConditionDestroy(Condition* condition) {
  Check(pthread_cond_destroy(condition), __LINE__, __func__, "pthread_cond_destroy");
}

void ConditionSignal(Condition* condition) {
  Check(pthread_cond_signal(condition), __LINE__, __func__, "pthread_cond_signal");
}

void ConditionWait(Condition* condition, Mutex* mutex) {
  Check(pthread_cond_wait(condition, mutex), __LINE__, __func__, "pthread_cond_wait");
}

Boolean ConditionTimedWait(Condition* condition, Mutex* mutex, int milliseconds) {
  const timespec until = MonotonicAfter(milliseconds > 0 ? milliseconds : 0);
  const int error = pthread_cond_timedwait(condition, mutex, &until);
  if (error == ETIMEDOUT) return FALSE;
  Check(error, __LINE__, __func__, "pthread_cond_timedwait");
  return TRUE;
}

ULong GetCurrentTimeMilliseconds(void) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<ULong>(now.tv_sec) * kMillisecondsASecond +
         static_cast<ULong>(now.tv_nsec / kNanosecondsAMillisecond);
}
