// The locks of a cache: in which order they are taken, in debug builds, and how they fail.

#include "dict/qxcache_internal.h"
#include "dict/report.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace qxcache {

#ifdef QX_DEBUG_CHECKS

namespace {

// The mutexes that the calling thread holds, in the order in which it took them: never more than two pages and a leaf.
struct Held {
  const Mutex* mutex;
  LockRank rank;
};
constexpr size_t kMostHeld = 3;
thread_local Held held[kMostHeld];
thread_local size_t held_count = 0;

// A page comes first or behind a page; the index or the histogram behind pages; the lists' mutex alone.
bool InOrder(LockRank rank) {
  if (held_count == 0) return rank != LockRank::kTargetPage;
  const LockRank last = held[held_count - 1].rank;
  if (rank == LockRank::kTargetPage) return last == LockRank::kPage;
  if (rank == LockRank::kIndex || rank == LockRank::kHistogram) {
    return last == LockRank::kPage || last == LockRank::kTargetPage;
  }
  return false;
}

}  // namespace

void CheckOrder(LockRank rank) {
  QX_ASSERT_TEXT(held_count < kMostHeld && InOrder(rank), "the lock order of the cache is kept");
}

void NoteLocked(const Mutex* mutex, LockRank rank) { held[held_count++] = {mutex, rank}; }

void NoteUnlocked(const Mutex* mutex) {
  QX_ASSERT_TEXT(held_count > 0 && held[held_count - 1].mutex == mutex, "the mutex taken last is released first");
  held_count--;
}

void CheckHeld(const Mutex* mutex) {
  for (size_t i = 0; i < held_count; i++) {
    if (held[i].mutex == mutex) return;
  }
  QX_ASSERT_TEXT(false, "the caller holds the mutex");
}

#endif

void LockFailed(int error) {
  errno = error;  // perror tells the code of the failure, which the calls return instead of setting errno
  std::perror("pthread_mutex_lock failed");
  __assert_fail("0", kModule, __LINE__, "MutexLock");
}

void UnlockFailed(int error) {
  errno = error;
  std::perror("pthread_mutex_unlock failed");
  std::exit(EXIT_FAILURE);  // NOLINT(concurrency-mt-unsafe): nothing is destroyed at exit that threads use
}

}  // namespace qxcache
