// The integer maps under test and a model of them, slot for slot.
//
// A typed test runs on Ids and on Refs, which name a map's functions and write its constants out. ModelMap makes each
// call on a map and on a plain reading of the rules (one slot after the other, the operator's remainder, trial division
// for primes) and compares everything that a caller can read.
#ifndef TESTS_SUPPORT_INT_MAPS_H
#define TESTS_SUPPORT_INT_MAPS_H

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "dict/idmap.h"

namespace support {

struct Ids {
  using Map = IdMap;
  using Entry = IdMapEntry;
  using Key = Id;
  static constexpr Key kNone = 0xFFFFFFFE;
  static constexpr Key kGreatestKey = 0xFFFFFFFF;
  static constexpr const char* kPrefix = "IdMap";
  static constexpr const char* kFindText = "map != ((void *)0) && key != (((UInt) (2147483647 * 2U + 1U)) - 1)";
  static constexpr auto New = IdMapNew;
  static constexpr auto Delete = IdMapDelete;
  static constexpr auto Clear = IdMapClear;
  static constexpr auto Size = IdMapSize;
  static constexpr auto Get = IdMapGet;
  static constexpr auto Find = IdMapFind;
  static constexpr auto Grow = IdMapGrow;
  static constexpr auto FindMany = IdMapFindMany;
};

struct Refs {
  using Map = RefMap;
  using Entry = RefMapEntry;
  using Key = ULong;
  static constexpr Key kNone = 0xFFFFFFFFFFFFFFFF;
  static constexpr Key kGreatestKey = 0xFFFFFFFFFFFFFFFE;
  static constexpr const char* kPrefix = "RefMap";
  static constexpr const char* kFindText = "map != ((void *)0) && key != ((ULong) (9223372036854775807L * 2UL + 1UL))";
  static constexpr auto New = RefMapNew;
  static constexpr auto Delete = RefMapDelete;
  static constexpr auto Clear = RefMapClear;
  static constexpr auto Size = RefMapSize;
  static constexpr auto Get = RefMapGet;
  static constexpr auto Find = RefMapFind;
  static constexpr auto Grow = RefMapGrow;
  static constexpr auto FindMany = RefMapFindMany;
};

// A map that is deleted with its name.
template <typename T>
class OwnedMap {
 public:
  using Key = typename T::Key;
  using Pairs = std::vector<std::pair<Key, Key>>;

  OwnedMap() : map_(T::New()) {}
  ~OwnedMap() { T::Delete(map_); }
  OwnedMap(const OwnedMap&) = delete;
  OwnedMap& operator=(const OwnedMap&) = delete;

  typename T::Map* get() const { return map_; }
  typename T::Map* operator->() const { return map_; }

  // The value of a key, kNone when it is absent.
  Key At(Key key) const { return T::Find(map_, key, T::kNone, T::kNone, nullptr); }
  void Put(Key key, Key value) const { T::Find(map_, key, value, T::kNone, nullptr); }

  // All pairs, in the order in which Get gives them.
  Pairs All() const {
    Pairs pairs(T::Size(map_));
    for (UInt n = 0; n < pairs.size(); n++) T::Get(map_, n, &pairs[n].first, &pairs[n].second);
    return pairs;
  }

  // The keys of all slots.
  std::vector<Key> Slots() const {
    std::vector<Key> keys;
    for (UInt s = 0; s < map_->m_allocated; s++) keys.push_back(map_->m_entries[s].e_key);
    return keys;
  }

  std::vector<UInt> Used() const { return {map_->m_used.t.elts, map_->m_used.t.elts + map_->m_used.t.length}; }

 private:
  typename T::Map* map_;
};

// The rules, as plainly as they can be followed.
template <typename T>
class PlainMap {
 public:
  using Key = typename T::Key;

  struct Slot {
    Key key = T::kNone;
    Key value = 0;
  };

  PlainMap() { Grow(10); }

  Key Find(Key key, Key create, Key update, bool* added) {
    size_t s = Probe(key);
    *added = false;
    if (slots_[s].key == key) {
      if (update != T::kNone) slots_[s].value = update;
      return slots_[s].value;
    }
    if (create == T::kNone) return T::kNone;
    if (used_.size() == capacity_) {
      Grow(2 * used_.size());
      s = Probe(key);
    }
    *added = true;
    slots_[s] = {key, create};
    used_.push_back(static_cast<UInt>(s));
    return create;
  }

  void Clear() {
    for (const UInt s : used_) slots_[s].key = T::kNone;
    used_.clear();
  }

  void Grow(size_t capacity) {
    if (capacity_ >= capacity) return;
    capacity_ = capacity;
    std::vector<Slot> old = std::move(slots_);
    slots_.assign(PrimeFrom(capacity * 3 / 2), Slot{});
    used_.clear();
    for (const Slot& slot : old) {
      bool added;
      if (slot.key != T::kNone) Find(slot.key, slot.value, T::kNone, &added);
    }
  }

  size_t capacity() const { return capacity_; }
  const std::vector<Slot>& slots() const { return slots_; }
  const std::vector<UInt>& used() const { return used_; }

  // The most slots that any key lies behind its home.
  size_t Reach() const {
    size_t reach = 0;
    for (const UInt s : used_) {
      const size_t home = static_cast<size_t>(slots_[s].key % slots_.size());
      reach = std::max(reach, (s + slots_.size() - home) % slots_.size());
    }
    return reach;
  }

 private:
  static size_t PrimeFrom(size_t n) {
    for (;; n++) {
      size_t d = 2;
      while (d * d <= n && n % d != 0) d++;
      if (n > 1 && d * d > n) return n;
    }
  }

  size_t Probe(Key key) const {
    size_t s = static_cast<size_t>(key % slots_.size());
    while (slots_[s].key != key && slots_[s].key != T::kNone) s = (s + 1) % slots_.size();
    return s;
  }

  size_t capacity_ = 0;
  std::vector<Slot> slots_;
  std::vector<UInt> used_;
};

// A map and its model. Each operation tells what is different afterwards; "" when nothing is.
template <typename T>
class ModelMap {
 public:
  using Key = typename T::Key;

  std::string Find(Key key, Key create, Key update) {
    Boolean added = 7;
    bool plain_added;
    const Key result = T::Find(map_.get(), key, create, update, &added);
    const Key expected = plain_.Find(key, create, update, &plain_added);
    if (result != expected || added != (plain_added ? 1 : 0)) {
      std::ostringstream text;
      text << "Find(" << key << ", " << create << ", " << update << ") gave " << result << ", added " << added
           << "; expected " << expected << ", " << plain_added;
      return text.str();
    }
    return {};
  }

  // Some neighbouring keys at once.
  std::string FindMany(Key first, size_t count) {
    std::vector<Key> keys;
    for (size_t i = 0; i < count; i++) {
      const auto key = static_cast<Key>(first + i);
      if (key != T::kNone) keys.push_back(key);
    }
    std::vector<Key> values(keys.size());
    T::FindMany(map_.get(), keys.data(), keys.size(), values.data());
    for (size_t i = 0; i < keys.size(); i++) {
      bool added;
      if (values[i] != plain_.Find(keys[i], T::kNone, T::kNone, &added)) return "FindMany";
    }
    return {};
  }

  void Clear() {
    T::Clear(map_.get());
    plain_.Clear();
  }

  void Grow(UInt capacity) {
    T::Grow(map_.get(), capacity);
    plain_.Grow(capacity);
  }

  // Compares all that can be read: capacity, slots, values, order, and what the look-ups rely on.
  std::string Differences() const {
    std::ostringstream text;
    const typename T::Map& map = *map_.get();
    if (map.m_capacity != plain_.capacity()) text << "capacity " << map.m_capacity << "; ";
    if (map.m_allocated != plain_.slots().size()) return text.str() + "slots";
    for (size_t s = 0; s < plain_.slots().size(); s++) {
      const auto& slot = plain_.slots()[s];
      if (map.m_entries[s].e_key != slot.key) {
        text << "key in slot " << s << "; ";
      } else if (slot.key != T::kNone && map.m_entries[s].e_val != slot.value) {
        text << "value in slot " << s << "; ";
      }
    }
    if (map_.Used() != plain_.used()) text << "order; ";
    if (T::Size(map_.get()) != plain_.used().size()) text << "size; ";
    for (UInt n = 0; n < std::min<size_t>(plain_.used().size(), 8); n++) {
      const auto& slot = plain_.slots()[plain_.used()[n]];
      Key key = 0, value = 0;
      T::Get(map_.get(), n, &key, &value);
      if (key != slot.key || value != slot.value) text << "pair " << n << "; ";
    }
    if (map.m_used.t.length > map.m_used.t.capacity) text << "m_used; ";
    if (map.m_reach != plain_.Reach()) text << "reach " << map.m_reach << "; ";
    return text.str();
  }

  const OwnedMap<T>& map() const { return map_; }
  const PlainMap<T>& plain() const { return plain_; }

 private:
  OwnedMap<T> map_;
  PlainMap<T> plain_;
};

}  // namespace support

#endif
