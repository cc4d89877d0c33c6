// Thousands of schedules: threads that use one small cache, of which one at a time runs, and at every lock a random
// number decides which.
//
// Nothing else is left to chance: a seed makes the cache, its policy, what each thread does and who goes on where, so a
// seed that fails, fails again. QX_SCHEDULE_SEED=N runs that one alone, QX_SCHEDULES=N so many.
//
// What one thread at a time does can be put in an order: every operation has a first and a last moment. A fetch may
// give a value only if its store had begun; where the newest store wins, not if another store of the key, or a removal,
// came between that store's last moment and the fetch's first.

#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "dict/qxcache.h"
#include "dict/qxcache_internal.h"
#include "support/cache_front.h"
#include "support/faults.h"
#include "support/quiet_cache.h"

namespace {

using support::Bytes;
using support::kNever;
using support::Numbered;
using support::QuietCache;

constexpr unsigned kThreads = 3;
constexpr unsigned kMostKeys = 10;
constexpr ULong kStart = 1000000000;

// SplitMix64.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  unsigned Below(unsigned n) {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return static_cast<unsigned>((z ^ (z >> 31)) >> 33) % n;
  }

 private:
  uint64_t state_;
};

thread_local int my_number = -1;  // the scheduler knows me by it; -1: not at all

// Lets one of its threads run at a time. The threads stay from schedule to schedule.
class Scheduler {
 public:
  Scheduler() {
    // On one processor a turn is handed over without waking another.
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
    sched_getaffinity(0, sizeof before_, &before_);
    sched_setaffinity(0, sizeof one, &one);
    for (unsigned i = 0; i < kThreads; i++) threads_[i] = std::thread([this, i] { Live(static_cast<int>(i)); });
  }
  ~Scheduler() {
    ending_ = true;
    for (auto& turn : turns_) Give(&turn);
    for (std::thread& thread : threads_) thread.join();
    sched_setaffinity(0, sizeof before_, &before_);
  }
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // Runs `work(thread)` in all threads, by the schedule that the seed gives.
  template <typename Work>
  void Run(uint64_t seed, const Work& work) {
    random_ = std::make_unique<Random>(seed);
    const std::function<void(unsigned)> function = work;
    work_ = &function;
    for (bool& running : running_) running = true;
    for (unsigned& asleep : asleep_) asleep = 0;
    left_ = kThreads;
    Give(&turns_[random_->Below(kThreads)]);
    done_.wait(false);
    done_ = false;
  }

  // Called by the thread whose turn it is: perhaps another's goes on first. Now and then one is left standing for long,
  // while the others run: much must happen to the place where it means to go before going there is dangerous.
  void Switch() {
    if (random_->Below(8) == 0 && std::count(asleep_, asleep_ + kThreads, 0u) == kThreads) {
      asleep_[my_number] = random_->Below(500);
    }
    SwitchTo(Pick(-1));
  }
  void SwitchToAnother() { SwitchTo(Pick(my_number)); }

 private:
  using Turn = std::atomic<bool>;

  static void Give(Turn* turn) {
    *turn = true;
    turn->notify_one();
  }
  void Await(int number) {
    turns_[number].wait(false);
    turns_[number] = false;
  }

  // One of those that have something left to do, but for one; that one itself when it is the last. Who sleeps is taken
  // only when all do.
  int Pick(int but) {
    int awake[kThreads], candidates[kThreads];
    unsigned awake_count = 0, count = 0;
    for (int i = 0; i < static_cast<int>(kThreads); i++) {
      if (!running_[i] || i == but) continue;
      candidates[count++] = i;
      if (asleep_[i] == 0) awake[awake_count++] = i;
      asleep_[i] -= asleep_[i] > 0 ? 1 : 0;
    }
    if (awake_count > 0) return awake[random_->Below(awake_count)];
    return count == 0 ? but : candidates[random_->Below(count)];
  }

  void SwitchTo(int number) {
    if (number == my_number) return;
    Give(&turns_[number]);
    Await(my_number);
  }

  void Live(int number) {
    my_number = number;
    for (;;) {
      Await(number);
      if (ending_) return;
      (*work_)(static_cast<unsigned>(number));
      running_[number] = false;
      if (--left_ == 0) {
        done_ = true;
        done_.notify_one();
      } else {
        Give(&turns_[Pick(number)]);
      }
    }
  }

  cpu_set_t before_;
  Turn turns_[kThreads] = {};
  bool running_[kThreads] = {};
  unsigned asleep_[kThreads] = {};  // for how many turns more
  unsigned left_ = 0;
  std::unique_ptr<Random> random_;
  const std::function<void(unsigned)>* work_ = nullptr;
  std::atomic<bool> done_{false};
  std::atomic<bool> ending_{false};
  std::thread threads_[kThreads];
};

Scheduler* scheduler = nullptr;

}  // namespace

// The cache calls this before it takes a mutex.
void qxcache::AtLock(Mutex* mutex, bool wait) {
  if (scheduler == nullptr || my_number < 0) return;
  scheduler->Switch();
  while (wait) {
    // Nobody else runs until this thread has taken it, so what is free stays free.
    if (pthread_mutex_trylock(mutex) == 0) {
      pthread_mutex_unlock(mutex);
      return;
    }
    scheduler->SwitchToAnother();
  }
}

namespace {

enum class Kind { kStore, kRemove };

// A store or a removal, from its first to its last moment; 0: it has not ended.
struct Change {
  Kind kind;
  uint64_t first, last;
  bool done;  // it has an effect: a store that was not refused
};

// What a value says of itself.
struct Head {
  uint32_t key;
  uint32_t number;  // of its store among the changes of the key
  uint32_t length;
  uint32_t checksum;
};

// A block of a value that is just its head takes 80 bytes: header 56, key 5, head 16, padding. So this offset in a
// value lies 80 bytes behind the beginning of its block.
constexpr size_t kForgedAt = 80 - 56 - 5;

uint32_t Checksum(const UByte* value, size_t length) {
  uint32_t sum = 17;
  for (size_t i = sizeof(Head); i < length; i++) sum = sum * 31 + value[i];
  return sum;
}

// One cache, what its threads do to it, and what they see.
class Play {
 public:
  explicit Play(uint64_t seed)
      : random_(seed), keys_(seed % 3 == 0 ? kMostKeys : 3), cache_((support::faults::ClockSet(kStart), Parameters())) {
    newest_wins_ = (policy_ & QX_CACHE_NEWEST_WINS) != 0;
    collects_ = random_.Below(8) != 0;
    removes_ = random_.Below(2) != 0;
    collector_.idle = false;
    // Within the first generation, soon after it, or when the histogram is empty and nothing is old.
    const ULong ages[] = {0, random_.Below(50), ULong{101} * cache_->c_generation_time + 5};
    time_ = ages[random_.Below(3)];
    support::faults::ClockSet(kStart + time_);
    for (unsigned i = random_.Below(40); i > 0; i--) Store(&random_, random_.Below(keys_));
    if (random_.Below(2) != 0) qxcache::ShiftHistogram(cache_.get());
  }

  void Act(unsigned thread, uint64_t seed) {
    Random random(seed * kThreads + thread);
    const unsigned steps = seed % 2 == 0 ? 30 + random.Below(50) : 3 + random.Below(6);
    for (unsigned i = 0; i < steps && !testing::Test::HasFailure(); i++) {
      const unsigned key = random.Below(keys_);
      if (thread == 0 && collects_) {
        Collect(&random);
      } else {
        switch (random.Below(8)) {
          case 0:
          case 1:
          case 2:
            Store(&random, key);
            break;
          case 3:
            if (removes_) Remove(key);
            break;
          default:
            Fetch(key, random.Below(3));
            break;
        }
      }
    }
  }

  void Check() {
    const size_t lost = support::CheckCache(cache_.get());
    support::CheckFront(cache_.get());
    QXCacheStatistics statistics;
    QXCacheStats(cache_.get(), &statistics);
    EXPECT_EQ(statistics.s_lost_pages, lost);
    EXPECT_EQ(statistics.s_hits, hits_);
    EXPECT_EQ(statistics.s_moved + statistics.s_dropped > 0,
              statistics.s_moved + statistics.s_dropped > 0 && collects_);
    moved_ += statistics.s_moved;
    dropped_ += statistics.s_dropped;
  }

  static uint64_t moved_, dropped_, fetched_, older_;

 private:
  support::CacheParameters Parameters() {
    support::CacheParameters parameters;
    parameters.region_size = 6 + random_.Below(11);
    parameters.page_size = 512;
    parameters.safety = 1.0;
    parameters.low = random_.Below(101);
    parameters.high = random_.Below(101);
    parameters.generation = 1 + random_.Below(20);
    parameters.policy = policy_ = random_.Below(8);
    return parameters;
  }

  static std::string Key(unsigned key) { return Numbered("key", key); }
  uint64_t Now() { return ++moment_; }

  // A block of another key, which nobody has stored, in a value: where, in a page that is filled anew, a short value's
  // second block began.
  static void Forge(std::vector<UByte>* value, unsigned key) {
    CacheBlock block = {};
    block.b_key = Fingerprint(Bytes(Key(key)), 4);
    block.b_size = 5 + sizeof(Head);
    block.b_created = 1;
    block.b_expires = kNever;
    value->resize(kForgedAt + sizeof block + 5 + sizeof(Head));
    std::memcpy(value->data() + kForgedAt, &block, sizeof block);
    std::memcpy(value->data() + kForgedAt + sizeof block, Key(key).c_str(), 5);
  }

  void Store(Random* random, unsigned key) {
    std::vector<UByte> value(sizeof(Head));
    switch (random->Below(4)) {
      case 0:
      case 1:
        break;
      case 2:
        value.resize(kForgedAt + random->Below(150));
        break;
      default:
        Forge(&value, random->Below(keys_));
        break;
    }
    std::vector<Change>& changes = changes_[key];
    const size_t number = changes.size();
    const Head head = {key, static_cast<uint32_t>(number), static_cast<uint32_t>(value.size()),
                       Checksum(value.data(), value.size())};
    std::memcpy(value.data(), &head, sizeof head);
    changes.push_back({Kind::kStore, Now(), ~uint64_t{0}, true});
    const bool stored =
        QXCacheStore(cache_.get(), Bytes(Key(key)), value.data(), static_cast<UInt>(value.size()), kNever) != FALSE;
    changes_[key][number].done = stored;
    changes_[key][number].last = Now();
  }

  void Remove(unsigned key) {
    const size_t number = changes_[key].size();
    changes_[key].push_back({Kind::kRemove, Now(), ~uint64_t{0}, true});
    removed_ = true;
    QXCacheRemove(cache_.get(), Bytes(Key(key)));
    changes_[key][number].last = Now();
  }

  void Collect(Random* random) {
    switch (random->Below(6)) {
      case 0:
        qxcache::ShiftHistogram(cache_.get());
        break;
      case 1:
        support::faults::ClockSet(kStart + (time_ += random->Below(30)));
        break;
      default:
        qxcache::GCCollect(cache_.get(), &collector_);
        break;
    }
  }

  void Fetch(unsigned key, unsigned how) {
    const uint64_t first = Now();
    std::vector<UByte> value(400);
    bool found;
    if (how == 0) {
      UInt size = 0;
      found = QXCacheGetStatic(cache_.get(), Bytes(Key(key)), value.data(), 400, &size) != FALSE;
      value.resize(size);
    } else if (how == 1) {
      UByteArray array;
      ArrayInit_(&array.a);
      found = QXCacheGetDynamic(cache_.get(), Bytes(Key(key)), &array) != FALSE;
      value.assign(array.t.elts, array.t.elts + array.t.length);
      ArrayFree_(&array.a, "tests", __LINE__);
    } else {
      const QXCacheReadFunction keep = [](const UByte* bytes, UInt size, void* arg) -> Boolean {
        static_cast<std::vector<UByte>*>(arg)->assign(bytes, bytes + size);
        return TRUE;
      };
      found = QXCacheRead(cache_.get(), Bytes(Key(key)), keep, &value) != FALSE;
    }
    if (found) {
      hits_++;
      fetched_++;
      JudgeFound(key, value, first);
    } else {
      JudgeMissed(key, first);
    }
  }

  void JudgeFound(unsigned key, const std::vector<UByte>& value, uint64_t first) {
    ASSERT_GE(value.size(), sizeof(Head));
    Head head;
    std::memcpy(&head, value.data(), sizeof head);
    ASSERT_EQ(head.key, key);
    ASSERT_EQ(head.length, value.size());
    ASSERT_EQ(head.checksum, Checksum(value.data(), value.size()));
    ASSERT_LT(head.number, changes_[key].size());
    const Change& store = changes_[key][head.number];
    ASSERT_TRUE(store.kind == Kind::kStore && store.done);
    for (const Change& later : changes_[key]) {
      if (!later.done || later.first <= store.last || later.last >= first) continue;
      // A store after this one, or a removal, and both were over when the fetch began.
      EXPECT_NE(later.kind, Kind::kRemove) << "a removed value came back";
      if (newest_wins_) {
        EXPECT_NE(later.kind, Kind::kStore) << "an older value came back";
      } else {
        older_++;
      }
    }
  }

  // Without a collector nothing goes but by removal.
  void JudgeMissed(unsigned key, uint64_t first) {
    if (collects_ || removed_) return;
    for (const Change& change : changes_[key]) {
      EXPECT_FALSE(change.kind == Kind::kStore && change.done && change.last < first) << "a value was lost";
    }
  }

  Random random_;
  unsigned keys_;
  UInt policy_ = 0;
  QuietCache cache_;
  qxcache::Collector collector_;
  std::vector<Change> changes_[kMostKeys];
  bool newest_wins_ = false, collects_ = false, removes_ = false, removed_ = false;
  uint64_t hits_ = 0;
  uint64_t moment_ = 0;  // grows with every step
  ULong time_ = 0;
};

uint64_t Play::moved_, Play::dropped_, Play::fetched_, Play::older_;

uint64_t FromEnvironment(const char* name, uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

TEST(CacheSchedules, EveryFetchIsTrue) {
  Scheduler threads;
  scheduler = &threads;
  const uint64_t only = FromEnvironment("QX_SCHEDULE_SEED", 0);
  const uint64_t first = only != 0 ? only : 1;
  const uint64_t last = only != 0 ? only : FromEnvironment("QX_SCHEDULES", 10000);
  for (uint64_t seed = first; seed <= last && !HasFailure(); seed++) {
    SCOPED_TRACE(Numbered("replay with QX_SCHEDULE_SEED=", seed));
    Play play(seed);
    threads.Run(seed, [&play, seed](unsigned thread) { play.Act(thread, seed); });
    play.Check();
  }
  scheduler = nullptr;
  support::faults::ClockReal();
  std::printf("schedules %lu, fetched %lu, older by default %lu, moved %lu, dropped %lu\n", last - first + 1,
              Play::fetched_, Play::older_, Play::moved_, Play::dropped_);
  if (only == 0) {
    EXPECT_GT(Play::moved_, 0u);
    EXPECT_GT(Play::dropped_, 0u);
    EXPECT_GT(Play::fetched_, 0u);
    EXPECT_GT(Play::older_, 0u);  // without the policy they do come back: the check that they do not can fail
  }
}

}  // namespace
