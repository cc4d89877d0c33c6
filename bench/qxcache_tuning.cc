// How generation time and policy decide what a full cache does: which share of stores it refuses, how many fetches hit,
// how many of the hits give a value older than the one stored last, what its collector costs.
//
// The workload is a cache beside a slow source: fetch a key, store it when it is missing, so many requests a second for
// a key space of four times the cache, skewed; one request in twenty stores a new version of the key instead. The fill
// time T is the cache's size over the bytes stored a second, as measured in that very run; "100 g/T" is the idle time
// after which values go by default, a hundred generations, as a share of T. RocksDB's LRU cache of the same size, which
// always drops the value used longest ago, shows what hits are to be had.
//
// usage: qxcache_tuning [--seconds N] [--mib N] [--rate REQUESTS_A_SECOND]

#include <rocksdb/cache.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "dict/qxcache.h"
#include "qxlib/misc.h"
#include "support/duel.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMiB = 1048576;
constexpr UInt kPageSize = 65536;  // a thousand pages in 64 MiB, as the default page size gives in 1 GiB
constexpr size_t kValueSize = 1024;
constexpr size_t kBlockSize = 56 + 17 + 1024 + 7;  // with its header, key and padding

struct Options {
  double seconds = 8;
  size_t mib = 64;
  double rate = 100000;
};

struct Outcome {
  double fetches = 0, hits = 0, stale = 0, stores = 0, refused = 0;
  double seconds = 0, collector_seconds = 0;
  ULong lost_pages = 0;
};

constexpr uint64_t kUpdateEvery = 20;  // requests
constexpr uint64_t kAbsent = ~uint64_t{0};

double ThreadSeconds(pthread_t thread) {
  clockid_t clock;
  timespec time = {};
  if (pthread_getcpuclockid(thread, &clock) == 0) clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// Makes requests at the given rate: a first half to reach the steady state, a second half that is counted. `fetch`
// tells the version that it found, or kAbsent; `store` stores one, or refuses.
template <typename Fetch, typename Store, typename CollectorSeconds>
Outcome Run(const Options& options, const std::vector<std::string>& keys, Fetch fetch, Store store,
            CollectorSeconds collector_seconds) {
  duel::Random random(5);
  std::vector<uint64_t> versions(keys.size());  // the one stored last
  Outcome outcome;
  const auto start = Clock::now();
  const auto batch_length = std::chrono::duration<double>(200 / options.rate);
  double collector_before = 0;
  double counted_from = 0;
  for (size_t batch = 0;; batch++) {
    const double now = std::chrono::duration<double>(Clock::now() - start).count();
    if (counted_from == 0 && now > options.seconds / 2) {
      outcome = {};
      collector_before = collector_seconds();
      counted_from = now;
    }
    if (now > options.seconds) {
      outcome.seconds = now - counted_from;
      outcome.collector_seconds = collector_seconds() - collector_before;
      return outcome;
    }
    for (int i = 0; i < 200; i++) {
      const uint64_t a = random.Below(1 << 20);
      const size_t key = (a * a >> 20) * keys.size() >> 20;  // half of the requests go to a quarter of the keys
      if (random.Below(kUpdateEvery) != 0) {
        outcome.fetches++;
        const uint64_t version = fetch(keys[key]);
        if (version != kAbsent) {
          outcome.hits++;
          if (version < versions[key]) outcome.stale++;
          continue;
        }
      }
      if (store(keys[key], versions[key] + 1)) {
        outcome.stores++;
        versions[key]++;
      } else {
        outcome.refused++;
      }
    }
    std::this_thread::sleep_until(
        start + std::chrono::duration_cast<Clock::duration>(batch_length * static_cast<double>(batch + 1)));
  }
}

void Print(const char* name, const char* policy, const Options& options, double generation, const Outcome& o) {
  const double fill = static_cast<double>(options.mib * kMiB) / ((o.stores + o.refused) / o.seconds * kBlockSize);
  std::printf("%-18s%-18s", name, policy);
  if (generation > 0) {
    std::printf("%8.0f %8.2f", generation, 100 * generation / 1000 / fill);
  } else {
    std::printf("%8s %8s", "-", "-");
  }
  std::printf(" %6.2f %7.1f %8.2f %10.2f %11lu %12.1f\n", fill, 100 * o.hits / o.fetches, 100 * o.stale / o.hits,
              100 * o.refused / (o.stores + o.refused), o.lost_pages, 100 * o.collector_seconds / o.seconds);
  std::fflush(stdout);
}

struct Policy {
  const char* name;
  UInt flags;
};
constexpr Policy kDefault = {"-", 0};
constexpr Policy kNewest = {"newest", QX_CACHE_NEWEST_WINS};
constexpr Policy kAge = {"age", QX_CACHE_TRUE_AGE};
constexpr Policy kAll = {"newest+pages+age", QX_CACHE_NEWEST_WINS | QX_CACHE_KEEP_PAGES | QX_CACHE_TRUE_AGE};

void RunOurs(const Options& options, const std::vector<std::string>& keys, const char* name, Policy policy,
             UInt generation, ULong lifetime) {
  Cache* const cache =
      QXCacheNewWithPolicy(256, kPageSize, 1.0, 8.0, 16.0, generation, options.mib * kMiB, policy.flags);
  std::vector<UByte> value(kValueSize, 'v');
  Outcome outcome = Run(
      options, keys,
      [&](const std::string& key) {
        UInt size;
        if (!QXCacheGetStatic(cache, reinterpret_cast<const UByte*>(key.c_str()), value.data(), kValueSize, &size)) {
          return kAbsent;
        }
        uint64_t version;
        std::memcpy(&version, value.data(), sizeof version);
        return version;
      },
      [&](const std::string& key, uint64_t version) {
        std::memcpy(value.data(), &version, sizeof version);
        const ULong expires = lifetime == 0 ? ~0ul : GetCurrentTimeMilliseconds() + lifetime;
        return QXCacheStore(cache, reinterpret_cast<const UByte*>(key.c_str()), value.data(), kValueSize, expires) !=
               FALSE;
      },
      [&] { return ThreadSeconds(cache->c_gc_thread); });
  QXCacheStatistics statistics;
  QXCacheStats(cache, &statistics);
  outcome.lost_pages = statistics.s_lost_pages;
  Print(name, policy.name, options, generation, outcome);
  QXCacheDelete(cache);
}

void RunRocks(const Options& options, const std::vector<std::string>& keys) {
  const auto cache = rocksdb::NewLRUCache(options.mib * kMiB);
  std::vector<char> value(kValueSize, 'v');
  const Outcome outcome = Run(
      options, keys,
      [&](const std::string& key) {
        rocksdb::Cache::Handle* const handle = cache->Lookup(key);
        if (handle == nullptr) return kAbsent;
        std::memcpy(value.data(), cache->Value(handle), kValueSize);
        cache->Release(handle);
        uint64_t version;
        std::memcpy(&version, value.data(), sizeof version);
        return version;
      },
      [&](const std::string& key, uint64_t version) {
        std::memcpy(value.data(), &version, sizeof version);
        void* const copy = std::malloc(kValueSize);
        std::memcpy(copy, value.data(), kValueSize);
        return cache->Insert(key, copy, kBlockSize, [](const rocksdb::Slice&, void* old) { std::free(old); }).ok();
      },
      [] { return 0.0; });
  Print("rocksdb::LRUCache", "-", options, 0, outcome);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--seconds") options.seconds = std::atof(argv[i + 1]);
    if (option == "--mib") options.mib = static_cast<size_t>(std::atol(argv[i + 1]));
    if (option == "--rate") options.rate = std::atof(argv[i + 1]);
  }
  const std::vector<std::string> keys = duel::Strings(options.mib * kMiB / kBlockSize * 4, 16, 16, 1);
  std::printf("%zu MiB, %zu keys of 1 KiB, %.0f requests a second\n\n%-18s%-18s%8s %8s %6s %7s %8s %10s %11s %12s\n",
              options.mib, keys.size(), options.rate, "values live", "policy", "g, ms", "100 g/T", "T, s", "hits %",
              "stale %", "refused %", "pages lost", "collector %");
  RunRocks(options, keys);
  for (const UInt generation : {1u, 2u, 3u, 4u, 5u, 6u, 8u, 12u, 24u, 60000u}) {
    RunOurs(options, keys, "for ever", kDefault, generation, 0);
  }
  for (const UInt generation : {4u, 24u}) RunOurs(options, keys, "for ever", kNewest, generation, 0);
  for (const UInt generation : {1u, 4u, 24u, 100u, 1000u, 60000u}) {
    RunOurs(options, keys, "for ever", kAge, generation, 0);
  }
  for (const UInt generation : {4u, 24u, 100u}) RunOurs(options, keys, "for ever", kAll, generation, 0);
  for (const Policy& policy : {kDefault, kAll}) {
    for (const UInt generation : {4u, 24u}) {
      RunOurs(options, keys, "for 0.5 s", policy, generation, 500);
      RunOurs(options, keys, "for 5 s", policy, generation, 5000);
    }
  }
  return 0;
}
