// Threads, mutexes, condition variables and the clock.

#include "qxlib/thread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "support/death.h"
#include "support/limits.h"
#include "support/sanitizers.h"

QX_ALLOCATIONS_MAY_FAIL;

namespace {

constexpr const char* kFile = "dict/example";

using Clock = std::chrono::steady_clock;

long MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

Thread Start(void* (*start)(void*), void* arg) {
  const Thread thread = ThreadCreate_(start, arg, 0, kFile, 1);
  EXPECT_NE(thread, Thread{0});
  return thread;
}

TEST(Thread, RunsWithItsArgumentUntilItIsJoined) {
  int value = 1;
  const Thread thread = Start(
      [](void* arg) -> void* {
        usleep(20000);
        *static_cast<int*>(arg) = 2;
        return nullptr;
      },
      &value);
  ThreadJoin(thread);
  EXPECT_EQ(value, 2);
}

TEST(ThreadDeathTest, JoiningNoThreadEndsTheProcess) {
  EXPECT_CLEAR_END(ThreadJoin(0), "ThreadJoin: pthread_join failed: No such process\n");
}

TEST(ThreadDeathTest, JoiningOneselfEndsTheProcess) {
  EXPECT_CLEAR_END(ThreadJoin(pthread_self()), "ThreadJoin: pthread_join failed: Resource deadlock avoided\n");
}

TEST(ThreadDeathTest, AThreadThatCannotBeStartedGivesNullAndErrno) {
  EXPECT_EXIT(
      {
        support::LimitMemory();
        errno = 0;
        const Thread thread = ThreadCreate_([](void* arg) { return arg; }, nullptr, 0, kFile, 1);
        _exit(thread == 0 && errno == EAGAIN ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

struct Counter {
  Counter() {
    MutexInit(&mutex);
    ConditionInit(&condition);
  }
  ~Counter() {
    ConditionDestroy(&condition);
    MutexDestroy(&mutex);
  }
  Mutex mutex;
  Condition condition;
  int count = 0;
  int awake = 0;
};

TEST(Mutex, KeepsThreadsApart) {
  Counter counter;
  const auto body = [](void* arg) -> void* {
    Counter* c = static_cast<Counter*>(arg);
    for (int i = 0; i < 20000; i++) {
      pthread_mutex_lock(&c->mutex);
      c->count++;
      pthread_mutex_unlock(&c->mutex);
    }
    return nullptr;
  };
  Thread threads[4];
  for (Thread& thread : threads) thread = Start(body, &counter);
  for (const Thread thread : threads) ThreadJoin(thread);
  EXPECT_EQ(counter.count, 80000);
}

TEST(Mutex, IsNotRecursive) {
  Counter counter;
  pthread_mutex_lock(&counter.mutex);
  EXPECT_EQ(pthread_mutex_trylock(&counter.mutex), EBUSY);
  pthread_mutex_unlock(&counter.mutex);
}

TEST(MutexDeathTest, DestroyingALockedOneEndsTheProcess) {
  Mutex mutex;
  MutexInit(&mutex);
  EXPECT_CLEAR_END(
      {
        pthread_mutex_lock(&mutex);
        MutexDestroy(&mutex);
      },
      "MutexDestroy: pthread_mutex_destroy failed: Device or resource busy\n");
  MutexDestroy(&mutex);
}

TEST(Condition, ASignalEndsAWait) {
  Counter counter;
  const Thread thread = Start(
      [](void* arg) -> void* {
        Counter* c = static_cast<Counter*>(arg);
        pthread_mutex_lock(&c->mutex);
        c->count = 1;
        ConditionSignal(&c->condition);
        pthread_mutex_unlock(&c->mutex);
        return nullptr;
      },
      &counter);
  pthread_mutex_lock(&counter.mutex);
  while (counter.count == 0) ConditionWait(&counter.condition, &counter.mutex);
  EXPECT_EQ(pthread_mutex_trylock(&counter.mutex), EBUSY);  // held again
  pthread_mutex_unlock(&counter.mutex);
  ThreadJoin(thread);
}

TEST(Condition, ASignalWakesAWaiterThatHasATimeOut) {
  Counter counter;
  const Thread thread = Start(
      [](void* arg) -> void* {
        Counter* c = static_cast<Counter*>(arg);
        pthread_mutex_lock(&c->mutex);
        c->awake = 1;
        Boolean in_time = TRUE;
        while (c->count == 0 && in_time) in_time = ConditionTimedWait(&c->condition, &c->mutex, 60000);
        c->awake = in_time ? 2 : 3;
        pthread_mutex_unlock(&c->mutex);
        return nullptr;
      },
      &counter);
  const Clock::time_point start = Clock::now();
  for (bool waiting = false; !waiting;) {
    pthread_mutex_lock(&counter.mutex);
    waiting = counter.awake == 1;  // it lets go of the mutex only by waiting
    if (waiting) {
      counter.count = 1;
      ConditionSignal(&counter.condition);
    }
    pthread_mutex_unlock(&counter.mutex);
  }
  ThreadJoin(thread);
  EXPECT_EQ(counter.awake, 2);
  EXPECT_LT(MillisecondsSince(start), 30000);
}

TEST(Condition, ATimedWaitTellsThatItsTimeRanOut) {
  Counter counter;
  pthread_mutex_lock(&counter.mutex);
  // With a deadline on another clock than the condition's, this would end at once, or not for decades.
  for (const int milliseconds : {1, 60, 1100}) {
    const Clock::time_point start = Clock::now();
    while (ConditionTimedWait(&counter.condition, &counter.mutex, milliseconds) != FALSE) {
    }
    EXPECT_GE(MillisecondsSince(start), milliseconds - 1);
    EXPECT_LT(MillisecondsSince(start), milliseconds + 20000);
  }
  EXPECT_EQ(pthread_mutex_trylock(&counter.mutex), EBUSY);  // held again
  pthread_mutex_unlock(&counter.mutex);
}

TEST(Condition, NoTimeAndLessAreOverAtOnce) {
  Counter counter;
  pthread_mutex_lock(&counter.mutex);
  EXPECT_EQ(ConditionTimedWait(&counter.condition, &counter.mutex, 0), FALSE);
  EXPECT_EQ(ConditionTimedWait(&counter.condition, &counter.mutex, -1), FALSE);
  EXPECT_EQ(ConditionTimedWait(&counter.condition, &counter.mutex, INT32_MIN), FALSE);
  pthread_mutex_unlock(&counter.mutex);
}

TEST(ClockTest, GivesWallClockMilliseconds) {
  const auto now = [] {
    return static_cast<ULong>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
  };
  const ULong before = now();
  const ULong between = GetCurrentTimeMilliseconds();
  const ULong after = now();
  EXPECT_LE(before, between);
  EXPECT_LE(between, after);
}

}  // namespace
