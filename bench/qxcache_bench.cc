// The cache beside other caches that live in one process: RocksDB's LRU cache and its lock-free clock cache, LevelDB's
// sharded LRU cache, and what many write for themselves, a mutex around a hash map with a list in LRU order.
//
// Everybody copies values in and copies them out again, as ours does. The peers hold as many bytes of keys and values
// as ours has memory. "fill" stores new keys. "hit" fetches keys that are all there, in another order than that of the
// stores; "mix" is 95 fetches to 5 stores of keys that are there. "steady store" goes on storing in a full cache, so
// that for each value an older one must go; ours may refuse. "small" is a cache with memory for a quarter of the keys:
// a miss is followed by a store, with an expiry where there is one, and what counts is how often a key was found. The
// size is the number of keys.

#include <leveldb/cache.h>
#include <rocksdb/cache.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "dict/qxcache.h"
#include "qxlib/misc.h"
#include "support/duel.h"

namespace {

constexpr size_t kKeyLength = 16;
constexpr size_t kMiB = 1048576;

// A value on the heap, for the caches that hold pointers.
struct Copy {
  size_t size;
  char bytes[];
};

Copy* MakeCopy(const char* bytes, size_t size) {
  Copy* const copy = static_cast<Copy*>(std::malloc(sizeof(Copy) + size));
  copy->size = size;
  std::memcpy(copy->bytes, bytes, size);
  return copy;
}

size_t CopyOut(const Copy* copy, char* to) {
  std::memcpy(to, copy->bytes, copy->size);
  return copy->size;
}

// What the contenders have in common. Store may refuse; Fetch returns the value's size, 0 when it is not there.
class Ours {
 public:
  Ours(size_t bytes, UInt generation, ULong lifetime)
      : cache_(QXCacheNewWithParams(16, kMiB, 1.0, 8.0, 16.0, generation, bytes)), lifetime_(lifetime) {}
  ~Ours() { QXCacheDelete(cache_); }
  bool Store(const std::string& key, const char* bytes, size_t size) {
    const ULong expires = lifetime_ == 0 ? ~0ul : GetCurrentTimeMilliseconds() + lifetime_;
    return QXCacheStore(cache_, reinterpret_cast<const UByte*>(key.c_str()), reinterpret_cast<const UByte*>(bytes),
                        static_cast<UInt>(size), expires) != FALSE;
  }
  size_t Fetch(const std::string& key, char* to, size_t room) {
    UInt size;
    const bool found = QXCacheGetStatic(cache_, reinterpret_cast<const UByte*>(key.c_str()), to,
                                        static_cast<UInt>(room), &size) != FALSE;
    return found ? size : 0;
  }

 private:
  Cache* cache_;
  ULong lifetime_;
};

class Rocks {
 public:
  static std::shared_ptr<rocksdb::Cache> Clock(size_t bytes, size_t entry) {
    return rocksdb::HyperClockCacheOptions(bytes, entry).MakeSharedCache();
  }

  explicit Rocks(std::shared_ptr<rocksdb::Cache> cache) : cache_(std::move(cache)) {}
  bool Store(const std::string& key, const char* bytes, size_t size) {
    return cache_->Insert(key, MakeCopy(bytes, size), size + key.size(), &Delete).ok();
  }
  size_t Fetch(const std::string& key, char* to, size_t) {
    rocksdb::Cache::Handle* const handle = cache_->Lookup(key);
    if (handle == nullptr) return 0;
    const size_t size = CopyOut(static_cast<const Copy*>(cache_->Value(handle)), to);
    cache_->Release(handle);
    return size;
  }

 private:
  static void Delete(const rocksdb::Slice&, void* value) { std::free(value); }
  std::shared_ptr<rocksdb::Cache> cache_;
};

class LevelLRU {
 public:
  explicit LevelLRU(size_t bytes) : cache_(leveldb::NewLRUCache(bytes)) {}
  bool Store(const std::string& key, const char* bytes, size_t size) {
    cache_->Release(cache_->Insert(key, MakeCopy(bytes, size), size + key.size(), &Delete));
    return true;
  }
  size_t Fetch(const std::string& key, char* to, size_t) {
    leveldb::Cache::Handle* const handle = cache_->Lookup(key);
    if (handle == nullptr) return 0;
    const size_t size = CopyOut(static_cast<const Copy*>(cache_->Value(handle)), to);
    cache_->Release(handle);
    return size;
  }

 private:
  static void Delete(const leveldb::Slice&, void* value) { std::free(value); }
  std::unique_ptr<leveldb::Cache> cache_;
};

class MutexMap {
 public:
  explicit MutexMap(size_t bytes) : room_(static_cast<std::ptrdiff_t>(bytes)) {}
  bool Store(const std::string& key, const char* bytes, size_t size) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = map_.find(key);
    if (found != map_.end()) Evict(found->second);
    list_.push_front({key, std::string(bytes, size)});
    map_.emplace(list_.front().key, list_.begin());
    room_ -= static_cast<std::ptrdiff_t>(key.size() + size);
    while (room_ < 0 && list_.size() > 1) Evict(std::prev(list_.end()));
    return true;
  }
  size_t Fetch(const std::string& key, char* to, size_t) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = map_.find(key);
    if (found == map_.end()) return 0;
    list_.splice(list_.begin(), list_, found->second);
    const std::string& value = found->second->value;
    std::memcpy(to, value.data(), value.size());
    return value.size();
  }

 private:
  struct Entry {
    std::string key, value;
  };
  void Evict(std::list<Entry>::iterator entry) {
    room_ += static_cast<std::ptrdiff_t>(entry->key.size() + entry->value.size());
    map_.erase(entry->key);
    list_.erase(entry);
  }
  std::mutex mutex_;
  std::list<Entry> list_;  // the entry used last in front
  std::unordered_map<std::string_view, std::list<Entry>::iterator> map_;
  std::ptrdiff_t room_;
};

struct Input {
  std::vector<std::string> keys;
  std::vector<uint32_t> store_order;          // a fetch in the order of the stores would walk the allocator's blocks
  std::vector<std::vector<uint32_t>> orders;  // one a thread
  std::vector<std::string> steady_keys;       // four times those that the steady cache has room for
  std::vector<char> bytes;                    // values are cut out of these
  const char* Value(size_t key) const { return bytes.data() + key % 1024 * 8; }
};

// Runs `work(thread, order)` in so many threads and adds up their results.
template <typename Work>
uint64_t InThreads(const Input& input, unsigned threads, Work work) {
  std::vector<uint64_t> sums(threads);
  std::vector<std::thread> running;
  for (unsigned t = 1; t < threads; t++) {
    running.emplace_back([&sums, &input, &work, t] { sums[t] = work(input.orders[t]); });
  }
  sums[0] = work(input.orders[0]);
  for (std::thread& thread : running) thread.join();
  uint64_t sum = 0;
  for (const uint64_t s : sums) sum += s;
  return sum;
}

uint64_t Word(const char* bytes) {
  uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

std::vector<unsigned> ThreadCounts() {
  std::vector<unsigned> counts = {1, 2, std::max(1u, std::thread::hardware_concurrency())};
  std::sort(counts.begin(), counts.end());
  counts.erase(std::unique(counts.begin(), counts.end()), counts.end());
  return counts;
}

// How often few keys are gone over, so that starting a thread, and the first touch of all, do not show.
size_t Passes(size_t keys) { return std::max<size_t>(1, 100000 / keys); }

// Fewer where there are stores among the fetches: the memory is to hold them all.
size_t MixPasses(size_t keys) { return std::min<size_t>(5, Passes(keys)); }

// The next key of an order. Others are on their way from memory: whoever asks a cache has just made up his key.
const std::string& KeyAt(const Input& input, const std::vector<uint32_t>& order, size_t i) {
  if (i + 16 < order.size()) {
    __builtin_prefetch(&input.keys[order[i + 16]]);
    __builtin_prefetch(input.keys[order[i + 8]].data());
  }
  return input.keys[order[i]];
}

template <typename Contender>
uint64_t StoreAll(Contender& cache, const Input& input, size_t size) {
  uint64_t stored = 0;
  for (size_t i = 0; i < input.store_order.size(); i++) {
    const std::string& key = KeyAt(input, input.store_order, i);
    stored += cache.Store(key, input.Value(input.store_order[i]), size) ? 1 : 0;
  }
  return stored;
}

template <typename Contender>
uint64_t FetchAll(Contender& cache, const Input& input, const std::vector<uint32_t>& order, size_t size,
                  unsigned store_every, size_t passes) {
  std::vector<char> buffer(size);
  uint64_t sum = 0;
  unsigned until_store = store_every;
  for (size_t pass = 0; pass < passes; pass++) {
    for (size_t i = 0; i < order.size(); i++) {
      const std::string& key = KeyAt(input, order, i);
      if (store_every != 0 && --until_store == 0) {
        until_store = store_every;
        sum += cache.Store(key, input.Value(order[i]), size) ? 1 : 0;
      } else {
        sum += cache.Fetch(key, buffer.data(), size) + Word(buffer.data());
      }
    }
  }
  return sum;
}

// Fetches with the skew of real traffic, and stores what is missing.
template <typename Contender>
double HitRatio(Contender& cache, const Input& input, size_t size, size_t operations) {
  std::vector<char> buffer(size);
  duel::Random random(7);
  size_t hits = 0;
  for (size_t i = 0; i < operations; i++) {
    // The square of a uniform number: half of the fetches go to a quarter of the keys.
    const uint64_t a = random.Below(1 << 20);
    const size_t key = (a * a >> 20) * input.keys.size() >> 20;
    if (cache.Fetch(input.keys[key], buffer.data(), size) != 0) {
      hits++;
    } else {
      cache.Store(input.keys[key], input.Value(key), size);
    }
  }
  return static_cast<double>(hits) / static_cast<double>(operations);
}

constexpr size_t kSizes[] = {100, 1024, 10240};

// Room for what is stored, its block headers, and for every store of a mix.
size_t RoomFor(size_t keys, size_t size) { return std::max<size_t>(64 * kMiB, keys * (size + 96) * 5 / 2); }

template <typename Make>
void Turn(duel::Sheet& sheet, const Input& input, Make make) {
  for (const size_t size : kSizes) {
    const std::string bytes = std::to_string(size) + " B ";
    const auto cache = make(RoomFor(input.keys.size(), size), size);
    const size_t passes = Passes(input.keys.size()), mix_passes = MixPasses(input.keys.size());
    sheet.Time((bytes + "fill").c_str(), input.keys.size(), [&] { return StoreAll(*cache, input, size); });
    for (const unsigned threads : ThreadCounts()) {
      const std::string name = bytes + "hit, " + std::to_string(threads);
      sheet.Time(name.c_str(), threads * passes * input.keys.size(), [&] {
        return InThreads(input, threads,
                         [&](const auto& order) { return FetchAll(*cache, input, order, size, 0, passes); });
      });
    }
    for (const unsigned threads : ThreadCounts()) {
      const std::string name = bytes + "mix, " + std::to_string(threads);
      sheet.Time(name.c_str(), threads * mix_passes * input.keys.size(), [&] {
        return InThreads(input, threads,
                         [&](const auto& order) { return FetchAll(*cache, input, order, size, 20, mix_passes); });
      });
    }
  }
}

constexpr size_t kSteadyValue = 100;
constexpr size_t kSteadyBlock = 56 + kKeyLength + 1 + kSteadyValue + 3;  // ours: with its header and padding
constexpr size_t kSteadyRoom = 64 * kMiB;
constexpr size_t kSteadyBlocks = kSteadyRoom / kSteadyBlock;

// Stores four times what the memory holds, in a cache that is full. A refused store counts as time, not as a store.
template <typename Contender>
void TellSteadyStore(duel::Sheet& sheet, const Input& input, Contender& cache) {
  size_t at = 0;
  size_t refused = 0;
  const auto store = [&](size_t count) {
    for (size_t stored = 0; stored < count; at++) {
      const size_t key = at % input.steady_keys.size();
      const bool kept = cache.Store(input.steady_keys[key], input.Value(key), kSteadyValue);
      (kept ? stored : refused)++;
    }
  };
  store(kSteadyBlocks);
  refused = 0;
  const size_t start = at;
  sheet.Time("100 B steady store", kSteadyBlocks * 4, [&] {
    store(kSteadyBlocks * 4);
    return uint64_t{0};
  });
  sheet.Tell("steady, refused %", 100.0 * static_cast<double>(refused) / static_cast<double>(at - start));
}

// As many bytes for the peers as ours has, header and all.
size_t SmallRoom(size_t keys) { return (keys * (1024 + 96) / 4 + 16 * kMiB - 1) / (16 * kMiB) * (16 * kMiB); }

template <typename Contender>
void TellHitRatio(duel::Sheet& sheet, const Input& input, Contender& cache) {
  HitRatio(cache, input, 1024, input.keys.size() * 4);
  double ratio = 0;
  sheet.Time("small, fetch or store", input.keys.size() * 8, [&] {
    ratio = HitRatio(cache, input, 1024, input.keys.size() * 8);
    return uint64_t{0};
  });
  sheet.Tell("small, hits %", 100 * ratio);
}

}  // namespace

int main(int argc, char** argv) {
  return duel::Main(
      argc, argv, "cache",
      [](duel::Duel& duel, size_t keys) {
        auto input = std::make_shared<Input>();
        input->keys = duel::Strings(keys, kKeyLength, kKeyLength, 1);
        input->steady_keys = duel::Strings(kSteadyBlocks * 4, kKeyLength, kKeyLength, 2);
        input->store_order = duel::Shuffled(keys, 99);
        for (unsigned t = 0; t < ThreadCounts().back(); t++) input->orders.push_back(duel::Shuffled(keys, t + 1));
        duel::Random random(3);
        input->bytes.resize(1024 * 8 + kSizes[2]);
        for (char& byte : input->bytes) byte = static_cast<char>(random());

        duel.Contend("QXCache", [input, keys](duel::Sheet& sheet) {
          Turn(sheet, *input, [](size_t room, size_t) { return std::make_unique<Ours>(room, 60000, 0); });
          Ours steady(kSteadyRoom, 1, 0);
          TellSteadyStore(sheet, *input, steady);
          Ours small(SmallRoom(keys), 10, 0);
          TellHitRatio(sheet, *input, small);
        });
        duel.Contend("rocksdb::LRUCache", [input, keys](duel::Sheet& sheet) {
          Turn(sheet, *input, [](size_t room, size_t) { return std::make_unique<Rocks>(rocksdb::NewLRUCache(room)); });
          Rocks steady(rocksdb::NewLRUCache(kSteadyRoom));
          TellSteadyStore(sheet, *input, steady);
          Rocks small(rocksdb::NewLRUCache(SmallRoom(keys)));
          TellHitRatio(sheet, *input, small);
        });
        duel.Contend("rocksdb HyperClock", [input, keys](duel::Sheet& sheet) {
          Turn(sheet, *input,
               [](size_t room, size_t size) { return std::make_unique<Rocks>(Rocks::Clock(room, size + kKeyLength)); });
          Rocks steady(Rocks::Clock(kSteadyRoom, kSteadyValue + kKeyLength));
          TellSteadyStore(sheet, *input, steady);
          Rocks small(Rocks::Clock(SmallRoom(keys), 1024 + kKeyLength));
          TellHitRatio(sheet, *input, small);
        });
        duel.Contend("leveldb LRU", [input, keys](duel::Sheet& sheet) {
          Turn(sheet, *input, [](size_t room, size_t) { return std::make_unique<LevelLRU>(room); });
          LevelLRU steady(kSteadyRoom);
          TellSteadyStore(sheet, *input, steady);
          LevelLRU small(SmallRoom(keys));
          TellHitRatio(sheet, *input, small);
        });
        duel.Contend("mutex+unordered_map", [input, keys](duel::Sheet& sheet) {
          Turn(sheet, *input, [](size_t room, size_t) { return std::make_unique<MutexMap>(room); });
          MutexMap steady(kSteadyRoom);
          TellSteadyStore(sheet, *input, steady);
          MutexMap small(SmallRoom(keys));
          TellHitRatio(sheet, *input, small);
        });
      },
      {4000, 100000});
}
