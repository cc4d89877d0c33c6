// A cache beside what it may remember.
//
// A cache forgets when it likes, so the model holds, for each key, every value that was ever stored under it, with its
// expiry. Until the first collection the cache must answer exactly: the value stored last, or nothing once that has
// expired. From then on it may answer nothing, or any stored value that has not expired. Where the newest store wins,
// by policy or since the first removal, a store leaves none but its own value.
#ifndef TESTS_SUPPORT_CACHE_MODEL_H
#define TESTS_SUPPORT_CACHE_MODEL_H

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/faults.h"
#include "support/quiet_cache.h"

namespace support {

class CacheModel {
 public:
  explicit CacheModel(const CacheParameters& parameters)
      : cache_((faults::ClockSet(now_), parameters)), newest_wins_((parameters.policy & QX_CACHE_NEWEST_WINS) != 0) {}
  ~CacheModel() { faults::ClockReal(); }
  CacheModel(const CacheModel&) = delete;
  CacheModel& operator=(const CacheModel&) = delete;

  Cache* cache() const { return cache_.get(); }
  UInt stores() const { return stores_; }

  // A value of so many bytes, unlike every other. Whether it was stored.
  bool Store(const std::string& key, size_t size, ULong lifetime) {
    std::string value = Numbered(key + "/", stores_);
    value.resize(value.size() + size, static_cast<char>('a' + stores_ % 26));
    stores_++;
    const ULong expires = lifetime == kNever ? kNever : now_ + lifetime;
    if (!cache_.Store(key, value, expires)) return false;
    if (newest_wins_) stored_[key].clear();
    stored_[key].push_back({value, expires});
    return true;
  }

  void Fetch(const std::string& key) {
    const std::string found = fetches_ % 3 == 0 ? cache_.Fetch(key) : fetches_ % 3 == 1 ? FetchStatic(key) : Read(key);
    fetches_++;
    const std::vector<Value>& values = stored_[key];
    if (exact_) {
      const bool there = !values.empty() && now_ < values.back().expires;
      EXPECT_EQ(found, there ? values.back().bytes : "(none)");
      return;
    }
    if (found == "(none)") return;
    for (const Value& value : values) {
      if (value.bytes == found) {
        EXPECT_LT(now_, value.expires);
        return;
      }
    }
    ADD_FAILURE() << "a value that was never stored under " << key << ", or came back: " << found.substr(0, 20);
  }

  void Remove(const std::string& key) {
    const std::vector<Value>& values = stored_[key];
    const bool there = !values.empty() && now_ < values.back().expires;
    const bool removed = QXCacheRemove(cache_.get(), Bytes(key)) != FALSE;
    if (exact_) {
      EXPECT_EQ(removed, there);
    } else if (values.empty()) {
      EXPECT_FALSE(removed);
    }
    stored_[key].clear();
    newest_wins_ = true;
    EXPECT_EQ(cache_.Fetch(key), "(none)");
  }

  void Wait(ULong milliseconds) {
    now_ += milliseconds;
    faults::ClockSet(now_);
  }

  // After a collection, by whatever means.
  void Collected() { exact_ = false; }

 private:
  struct Value {
    std::string bytes;
    ULong expires;
  };

  std::string FetchStatic(const std::string& key) {
    UInt size = 0;
    std::string buffer(5, '.');
    if (!QXCacheGetStatic(cache_.get(), Bytes(key), buffer.data(), 5, &size)) {
      if (size == 0) return "(none)";
      EXPECT_GT(size, 5u);
      EXPECT_EQ(buffer, ".....");
      buffer.resize(size);
      UInt again = 0;
      EXPECT_TRUE(QXCacheGetStatic(cache_.get(), Bytes(key), buffer.data(), size, &again));
      EXPECT_EQ(again, size);
    }
    buffer.resize(size);
    return buffer;
  }

  std::string Read(const std::string& key) {
    std::string value = "(none)";
    const QXCacheReadFunction keep = [](const UByte* bytes, UInt size, void* arg) -> Boolean {
      static_cast<std::string*>(arg)->assign(reinterpret_cast<const char*>(bytes), size);
      return TRUE;
    };
    const bool read = QXCacheRead(cache_.get(), Bytes(key), keep, &value) != FALSE;
    EXPECT_EQ(read, value != "(none)");
    return value;
  }

  ULong now_ = 1000000000;
  QuietCache cache_;
  std::map<std::string, std::vector<Value>> stored_;
  bool exact_ = true;
  bool newest_wins_;
  UInt stores_ = 0;
  UInt fetches_ = 0;
};

}  // namespace support

#endif
