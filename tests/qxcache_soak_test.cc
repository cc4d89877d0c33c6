// Many threads on caches of a few small pages, with the collector at work all the time.
//
// Every value says under which key it was stored, by whom, as his how-manieth, and carries a checksum over all of that
// and its filling, so a fetched value is either one that was stored under that very key, whole, or the test fails. A
// part of the values is filled with forged block headers that name other keys. Where the newest store wins, nobody sees
// a number of a thread and key lower than one that he has seen before; and nobody ever sees what he removed. Rounds are
// short: each begins with a new cache of other parameters and policy and ends with a check of everything that must hold
// in it. The seed of a round is printed when it fails. QX_SOAK_SECONDS makes the soak longer.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "dict/qxcache.h"
#include "support/quiet_cache.h"

namespace {

constexpr unsigned kThreads = 8;
constexpr unsigned kKeys = 48;

// xorshift64*
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15 + 1) {}
  uint64_t operator()() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return state_ * 0x2545F4914F6CDD1D;
  }
  unsigned Below(unsigned n) { return static_cast<unsigned>((*this)() >> 33) % n; }

 private:
  uint64_t state_;
};

struct Head {
  uint32_t key;
  uint32_t thread;
  uint64_t number;  // the thread's stores under this key so far
  uint32_t length;  // of the whole value
  uint32_t checksum;
};

// Adler-32 over the value but for the checksum's own bytes.
uint32_t ChecksumOf(const std::vector<UByte>& value) {
  uint32_t a = 1, b = 0;
  for (size_t i = 0; i < value.size(); i++) {
    if (i >= offsetof(Head, checksum) && i < sizeof(Head)) continue;
    a = (a + value[i]) % 65521;
    b = (b + a) % 65521;
  }
  return b << 16 | a;
}

std::string KeyText(unsigned key) { return support::Numbered(std::string(key % 7, '-'), key); }

struct Counts {
  uint64_t stores = 0, refused = 0, hits = 0, misses = 0, too_small = 0, removed = 0, older = 0, checked = 0, wrong = 0;
  void operator+=(const Counts& other) {
    stores += other.stores;
    refused += other.refused;
    hits += other.hits;
    misses += other.misses;
    too_small += other.too_small;
    removed += other.removed;
    older += other.older;
    checked += other.checked;
    wrong += other.wrong;
  }
  uint64_t Operations() const { return stores + refused + hits + misses + too_small + removed; }
};

class Soak {
 public:
  Soak(uint64_t seed, Cache* cache, UInt policy, bool removes)
      : seed_(seed), cache_(cache), newest_wins_((policy & QX_CACHE_NEWEST_WINS) != 0), removes_(removes) {
    for (auto& of_thread : issued_) {
      for (auto& number : of_thread) number = 0;
    }
  }

  Counts Run(std::chrono::milliseconds length) {
    std::vector<std::thread> threads;
    std::array<Counts, kThreads> counts;
    for (unsigned t = 0; t < kThreads; t++) {
      threads.emplace_back([this, t, &counts] { counts[t] = Work(t); });
    }
    // A collector that can gain nothing sleeps for up to a second. Here it has to work all the time.
    const auto end = std::chrono::steady_clock::now() + length;
    while (std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      ConditionSignal(&cache_->c_alloc_cond);
    }
    stop_ = true;
    for (std::thread& thread : threads) thread.join();
    Counts sum;
    for (const Counts& c : counts) sum += c;
    return sum;
  }

 private:
  // What a thread knows.
  struct Known {
    Counts counts;
    uint64_t seen[kThreads][kKeys] = {};  // the highest number of each thread and key that it has seen
    uint64_t removed[kKeys] = {};         // its own number under the key when it last removed that
  };

  Counts Work(unsigned thread) {
    Random random(seed_ * 1000 + thread);
    const auto known = std::make_unique<Known>();
    Counts& counts = known->counts;
    while (!stop_) {
      const unsigned key = random.Below(kKeys);
      if (random.Below(3) == 0) {
        Store(thread, key, &random, &counts);
      } else if (random.Below(2) == 0) {
        FetchStatic(thread, key, &random, known.get());
      } else if (random.Below(2) == 0) {
        FetchDynamic(thread, key, known.get());
      } else {
        Read(thread, key, known.get());
      }
      if (removes_ && random.Below(50) == 0) {
        known->removed[key] = issued_[thread][key];
        if (QXCacheRemove(cache_, support::Bytes(KeyText(key)))) counts.removed++;
      }
      if (random.Below(64) == 0) {
        UInt objects;
        ULong bytes;
        QXCacheGetSize(cache_, &objects, &bytes);
        QXCacheStatistics statistics;
        QXCacheStats(cache_, &statistics);
        EXPECT_LE(statistics.s_free_pages + statistics.s_full_pages + statistics.s_lost_pages,
                  ULong{cache_->c_regions.t.length} * cache_->c_region_size);
      }
    }
    return counts;
  }

  void Store(unsigned thread, unsigned key, Random* random, Counts* counts) {
    const unsigned kinds[] = {0, 40, 300, 900};
    std::vector<UByte> value(sizeof(Head) + random->Below(1 + kinds[random->Below(4)]));
    if (random->Below(2) == 0) {
      for (UByte& byte : value) byte = static_cast<UByte>((*random)());
    } else {
      Forge(&value, random);
    }
    const uint64_t number = ++issued_[thread][key];  // before anybody can fetch it
    Head head = {key, thread, number, static_cast<uint32_t>(value.size()), 0};
    std::memcpy(value.data(), &head, sizeof head);
    head.checksum = ChecksumOf(value);
    std::memcpy(value.data(), &head, sizeof head);
    const ULong expires = random->Below(100) == 0 ? support::kNever : GetCurrentTimeMilliseconds() + random->Below(8);
    const bool stored = QXCacheStore(cache_, support::Bytes(KeyText(key)), value.data(),
                                     static_cast<UInt>(value.size()), expires) != FALSE;
    (stored ? counts->stores : counts->refused)++;
  }

  // Block headers, each followed by the text of a key and something that was never stored.
  void Forge(std::vector<UByte>* value, Random* random) const {
    for (size_t at = sizeof(Head); at + 80 <= value->size(); at += 80) {
      const std::string key = KeyText(random->Below(kKeys));
      CacheBlock block = {};
      block.b_key = Fingerprint(support::Bytes(key), static_cast<UInt>(key.size()));
      block.b_size = 1 + random->Below(2) * 1000000;
      block.b_created = 1;
      block.b_expires = ULONG_MAX;
      block.b_page = static_cast<Page*>(cache_->c_regions.t.elts[0].r_base);
      block.b_next = reinterpret_cast<CacheBlock*>(0x10);
      std::memcpy(value->data() + at, &block, sizeof block);
      std::memcpy(value->data() + at + sizeof block, key.c_str(), std::min<size_t>(key.size() + 1, 24));
    }
  }

  void Verify(unsigned thread, unsigned key, const std::vector<UByte>& value, Known* known) {
    known->counts.hits++;
    known->counts.checked++;
    const std::string wrong = WhatIsWrong(thread, key, value, known);
    if (wrong.empty()) return;
    known->counts.wrong++;
    ADD_FAILURE() << wrong;
  }

  // What is wrong with a fetched value, or nothing.
  std::string WhatIsWrong(unsigned thread, unsigned key, const std::vector<UByte>& value, Known* known) {
    Head head;
    if (value.size() < sizeof head) return "shorter than any that was stored";
    std::memcpy(&head, value.data(), sizeof head);
    if (head.key != key) return "stored under another key";
    if (head.thread >= kThreads) return "stored by nobody";
    if (head.length != value.size()) return "another length than was stored";
    if (head.checksum != ChecksumOf(value)) return "other bytes than were stored";
    if (head.number > issued_[head.thread][key]) return "never stored";
    uint64_t& seen = known->seen[head.thread][key];
    const bool older = head.number < seen;
    seen = head.number;
    if (older) {
      known->counts.older++;
      if (newest_wins_) return "an older value came back";
    }
    if (head.thread == thread && head.number <= known->removed[key]) return "a removed value came back";
    return "";
  }

  void FetchStatic(unsigned thread, unsigned key, Random* random, Known* known) {
    std::vector<UByte> buffer(random->Below(1200));
    UInt size = 12345;
    if (QXCacheGetStatic(cache_, support::Bytes(KeyText(key)), buffer.data(), static_cast<UInt>(buffer.size()),
                         &size)) {
      ASSERT_LE(size, buffer.size());
      buffer.resize(size);
      Verify(thread, key, buffer, known);
    } else if (size == 0) {
      known->counts.misses++;
    } else {
      ASSERT_GT(size, buffer.size());
      ASSERT_LE(size, sizeof(Head) + 900);
      known->counts.too_small++;
    }
  }

  void FetchDynamic(unsigned thread, unsigned key, Known* known) {
    UByteArray array;
    ArrayInit_(&array.a);
    if (QXCacheGetDynamic(cache_, support::Bytes(KeyText(key)), &array)) {
      Verify(thread, key, {array.t.elts, array.t.elts + array.t.length}, known);
    } else {
      ASSERT_EQ(array.t.length, 0u);
      known->counts.misses++;
    }
    ArrayFree_(&array.a, "tests", __LINE__);
  }

  void Read(unsigned thread, unsigned key, Known* known) {
    std::vector<UByte> value;
    const QXCacheReadFunction keep = [](const UByte* bytes, UInt size, void* arg) -> Boolean {
      static_cast<std::vector<UByte>*>(arg)->assign(bytes, bytes + size);
      return TRUE;
    };
    if (QXCacheRead(cache_, support::Bytes(KeyText(key)), keep, &value)) {
      Verify(thread, key, value, known);
    } else {
      known->counts.misses++;
    }
  }

  const uint64_t seed_;
  Cache* const cache_;
  const bool newest_wins_;
  const bool removes_;
  std::atomic<bool> stop_{false};
  std::array<std::array<std::atomic<uint64_t>, kKeys>, kThreads> issued_;
};

double SoakSeconds() {
  const char* const text = std::getenv("QX_SOAK_SECONDS");
  return text != nullptr ? std::atof(text) : 2.0;
}

TEST(CacheSoak, EveryFetchedValueWasStoredUnderItsKey) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(SoakSeconds());
  Counts counts;
  size_t lost_pages = 0;
  uint64_t moved = 0, dropped = 0, passes = 0;
  uint64_t rounds = 0;
  for (uint64_t seed = 1; std::chrono::steady_clock::now() < end && !HasFailure(); seed++, rounds++) {
    SCOPED_TRACE(support::Numbered("seed ", seed));
    Random random(seed);
    const UInt pages = 6 + random.Below(20);
    const UInt page_size = 1024u << random.Below(3);
    const double low = random.Below(101);
    const double high = low + random.Below(30);
    const UInt policy = random.Below(8);
    Cache* const cache =
        QXCacheNewWithPolicy(pages, page_size, 1.0, low, high, 1 + random.Below(5), ULong{pages} * page_size, policy);
    ASSERT_NE(cache, nullptr);
    Soak soak(seed, cache, policy, random.Below(2) != 0);
    const Counts of_round = soak.Run(std::chrono::milliseconds(100));
    counts += of_round;
    support::StopCollector(cache);
    const size_t lost = support::CheckCache(cache);
    QXCacheStatistics statistics;
    QXCacheStats(cache, &statistics);
    EXPECT_EQ(statistics.s_lost_pages, lost);
    EXPECT_EQ(statistics.s_free_pages + statistics.s_full_pages + lost, pages);
    EXPECT_EQ(statistics.s_stores, of_round.stores);
    EXPECT_EQ(statistics.s_refused, of_round.refused);
    EXPECT_EQ(statistics.s_hits, of_round.hits + of_round.too_small);
    EXPECT_EQ(statistics.s_misses + statistics.s_expired, of_round.misses);
    EXPECT_EQ(statistics.s_removed, of_round.removed);
    EXPECT_TRUE(lost == 0 || (policy & QX_CACHE_KEEP_PAGES) == 0);
    lost_pages += lost;
    moved += statistics.s_moved;
    dropped += statistics.s_dropped;
    passes += statistics.s_passes;
    QXCacheDelete(cache);
  }
  std::printf(
      "rounds %lu, operations %lu: stores %lu, refused %lu, hits %lu, misses %lu, too small %lu, removed %lu\n"
      "collections %lu, blocks moved %lu, dropped %lu, pages lost %zu\n"
      "values checked %lu, wrong %lu (older ones where the policy allows them %lu)\n",
      rounds, counts.Operations(), counts.stores, counts.refused, counts.hits, counts.misses, counts.too_small,
      counts.removed, passes, moved, dropped, lost_pages, counts.checked, counts.wrong, counts.older);
  EXPECT_EQ(counts.wrong, 0u);
  EXPECT_GT(counts.checked, 0u);
  EXPECT_GT(passes, rounds) << "the collector hardly worked";
  EXPECT_GT(moved, 0u);
  EXPECT_GT(counts.stores, 0u);
  EXPECT_GT(counts.hits, 0u);
  EXPECT_GT(counts.misses, 0u);
}

// Stores of one key by everybody, fetched by everybody: the value comes from a store that had begun.
TEST(CacheSoak, OneKeyStoredByAllThreads) {
  Cache* const cache = QXCacheNewWithParams(16, 4096, 1.0, 30.0, 60.0, 1000, 16 * 4096);
  std::atomic<uint64_t> begun{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; t++) {
    threads.emplace_back([cache, &begun, &stop] {
      while (!stop) {
        const uint64_t number = ++begun;
        QXCacheStore(cache, support::Bytes("the key"), reinterpret_cast<const UByte*>(&number), sizeof number,
                     GetCurrentTimeMilliseconds() + 2);
      }
    });
    threads.emplace_back([cache, &begun, &stop] {
      while (!stop) {
        uint64_t number = 0;
        UInt size;
        if (QXCacheGetStatic(cache, support::Bytes("the key"), &number, sizeof number, &size)) {
          ASSERT_EQ(size, sizeof number);
          ASSERT_GE(number, 1u);
          ASSERT_LE(number, begun);
        }
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  stop = true;
  for (std::thread& thread : threads) thread.join();
  support::StopCollector(cache);
  support::CheckCache(cache);
  QXCacheDelete(cache);
}

}  // namespace
