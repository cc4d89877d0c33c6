// A cache, whose collector is a thread of its own, in what happens to a process: its end, a fork, the closing of the
// library.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "dict/qxcache.h"

namespace {

// The library, opened at run time.
struct Library {
  Library() : handle(dlopen(QX_LIBQXDICT, RTLD_NOW | RTLD_LOCAL)) {
    if (handle == nullptr) {
      ADD_FAILURE() << dlerror();
      return;
    }
    make = reinterpret_cast<decltype(make)>(dlsym(handle, "QXCacheNewWithParams"));
    store = reinterpret_cast<decltype(store)>(dlsym(handle, "QXCacheStore"));
    fetch = reinterpret_cast<decltype(fetch)>(dlsym(handle, "QXCacheGetStatic"));
    free = reinterpret_cast<decltype(free)>(dlsym(handle, "QXCacheDelete"));
  }
  ~Library() { Close(); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  void Close() {
    if (handle != nullptr) {
      EXPECT_EQ(dlclose(handle), 0);
    }
    handle = nullptr;
  }

  // A cache that its collector has something to do in: more is wanted free than is.
  Cache* NewBusy() const {
    Cache* const cache = make(64, 4096, 1.0, 90.0, 95.0, 1000, 64 * 4096);
    const UByte value[300] = {};
    for (int i = 0; i < 500; i++) {
      const std::string key = std::to_string(i);
      store(cache, reinterpret_cast<const UByte*>(key.c_str()), value, sizeof value, ~0ul);
    }
    return cache;
  }

  void* handle;
  decltype(&QXCacheNewWithParams) make = nullptr;
  decltype(&QXCacheStore) store = nullptr;
  decltype(&QXCacheGetStatic) fetch = nullptr;
  decltype(&QXCacheDelete) free = nullptr;
};

TEST(CacheProcessDeathTest, AProcessEndsWithACacheAlive) {
  const auto end = [] {
    const Library library;
    library.NewBusy();
    std::exit(0);
  };
  EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
}

TEST(CacheProcess, AForkLeavesTheParentsCacheAlone) {
  const Library library;
  Cache* const cache = library.NewBusy();
  const pid_t child = fork();
  if (child == 0) _exit(7);  // has the memory but no collector, and keeps its hands off
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 7);
  UInt size = 0;
  library.fetch(cache, reinterpret_cast<const UByte*>("1"), nullptr, 0, &size);
  library.free(cache);
}

TEST(CacheProcess, ALibraryThatIsClosedStaysForItsCollectors) {
  Library library;
  Cache* const cache = library.NewBusy();
  library.Close();
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // the collector wakes within a second
  const Library again;
  again.free(cache);
}

}  // namespace
