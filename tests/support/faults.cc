#include "support/faults.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>

#include "qxlib/misc.h"

namespace {

std::atomic<long> failures{0};
std::atomic<long> live_maps{0};

// One operation's plan: succeed `after` more times, then fail `count` times.
struct Plan {
  std::atomic<long> after{0};
  std::atomic<long> count{0};
  std::atomic<long> calls{0};

  void Set(long a, long c) {
    after = a;
    count = c;
  }
  bool Fails() {
    calls++;
    if (count == 0) return false;
    if (after > 0) {
      after--;
      return false;
    }
    if (count > 0) count--;
    failures++;
    return true;
  }
};

Plan map_plan, remap_plan, unmap_plan, thread_plan;
std::atomic<size_t> last_map, last_remap;
std::atomic<bool> clock_set{false};
std::atomic<uint64_t> clock_now;

template <typename Function>
Function Real(Function, const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace support::faults {

void FailMap(long after, long count) { map_plan.Set(after, count); }
void FailRemap(long after, long count) { remap_plan.Set(after, count); }
void FailUnmap(long after, long count) { unmap_plan.Set(after, count); }
void FailThreadCreate(long after, long count) { thread_plan.Set(after, count); }

void Clear() {
  for (Plan* plan : {&map_plan, &remap_plan, &unmap_plan, &thread_plan}) plan->Set(0, 0);
}

long Failures() { return failures; }
void CountFailure() { failures++; }
long LiveMaps() { return live_maps; }

size_t LastMapSize() { return last_map; }
size_t LastRemapSize() { return last_remap; }
long Maps() { return map_plan.calls; }
long Unmaps() { return unmap_plan.calls; }

void ClockSet(uint64_t milliseconds) {
  clock_now = milliseconds;
  clock_set = true;
}
void ClockReal() { clock_set = false; }

}  // namespace support::faults

extern "C" {

void* MemoryMap_(size_t size, const char* file, int line) {
  last_map = size;
  if (map_plan.Fails()) {
    errno = ENOMEM;
    return nullptr;
  }
  void* base = Real(MemoryMap_, "MemoryMap_")(size, file, line);
  if (base != nullptr) live_maps++;
  return base;
}

void* MemoryRemap_(void* old, size_t oldSize, size_t newSize, const char* file, int line) {
  last_remap = newSize;
  if (remap_plan.Fails()) {
    errno = ENOMEM;
    return nullptr;
  }
  return Real(MemoryRemap_, "MemoryRemap_")(old, oldSize, newSize, file, line);
}

Boolean MemoryUnmap_(void* base, size_t size, const char* file, int line) {
  if (unmap_plan.Fails()) {
    if (Real(MemoryUnmap_, "MemoryUnmap_")(base, size, file, line)) live_maps--;  // a failure that leaks nothing
    errno = EINVAL;
    return FALSE;
  }
  const Boolean done = Real(MemoryUnmap_, "MemoryUnmap_")(base, size, file, line);
  if (done) live_maps--;
  return done;
}

Thread ThreadCreate_(void* (*start)(void*), void* arg, int flags, const char* file, int line) {
  if (thread_plan.Fails()) {
    errno = EAGAIN;
    return 0;
  }
  return Real(ThreadCreate_, "ThreadCreate_")(start, arg, flags, file, line);
}

ULong GetCurrentTimeMilliseconds(void) {
  if (clock_set) return clock_now;
  return Real(GetCurrentTimeMilliseconds, "GetCurrentTimeMilliseconds")();
}

}  // extern "C"
