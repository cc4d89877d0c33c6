// A HashDelTable and a plain model of it, side by side.
//
// Each operation is made on both, and what the table says, and what its record then holds, must be what the model
// expects: every slot with its tombstones, every heap byte, every count. The model keeps the heap as a list of entries
// and the slots as a plain array, and follows the rules one by one. A difference throws Mismatch, which a test, a
// property and a fuzzer all take for a failure.
#ifndef TESTS_SUPPORT_HASHDELTABLE_MODEL_H
#define TESTS_SUPPORT_HASHDELTABLE_MODEL_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "dict/hashdeltable.h"
#include "qxlib/misc.h"
#include "support/keys.h"

namespace support {

struct HashDelTableDeleter {
  void operator()(HashDelTable* table) const { HashDelTableFree(table); }
};
using HashDelTablePtr = std::unique_ptr<HashDelTable, HashDelTableDeleter>;

inline UByte* Find(HashDelTable* table, const std::string& key, void* ptr = nullptr) {
  return HashDelTableFind(table, Bytes(key), Length(key), FALSE, nullptr, ptr);
}
inline UByte* Insert(HashDelTable* table, const std::string& key, void* ptr = nullptr) {
  return HashDelTableFind(table, Bytes(key), Length(key), TRUE, nullptr, ptr);
}
inline bool Remove(HashDelTable* table, const std::string& key, void* ptr = nullptr) {
  return HashDelTableRemove(table, Bytes(key), Length(key), ptr) != FALSE;
}
inline std::string KeyText(const HashDelTable* table, const UByte* entry) {
  const UByte* bytes = nullptr;
  const UInt length = HashDelTableKey(table, entry, &bytes);
  return Text(bytes, length);
}
inline UInt OffsetOf(const HashDelTable* table, const UByte* entry) { return static_cast<UInt>(entry - table->t_data); }
inline std::vector<UInt> SlotsOf(const HashDelTable* table) {
  return {table->t_entries, table->t_entries + table->t_nentries};
}

// The image of a table, as a string.
inline std::string Image(HashDelTable* table) {
  UByteArray array;
  ArrayInit_(&array.a);
  HashDelTableMemWrite(table, &array);
  std::string image = Text(array.t.elts, array.t.length);
  ArrayFree_(&array.a, "hashdeltable_model", __LINE__);
  return image;
}

// Reads an image from a block of exactly its size, so that a sanitizer sees what looks past it. Returns whether it was
// read; `taken` receives how far the position went.
inline bool ReadImage(HashDelTable* table, const std::string& image, size_t* taken = nullptr) {
  std::vector<UByte> block(image.begin(), image.end());
  UByte* at = block.data();
  const bool whole = HashDelTableMemRead(table, &at, block.data() + block.size()) != FALSE;
  if (taken != nullptr) *taken = static_cast<size_t>(at - block.data());
  return whole;
}

class HashDelTableModel {
 public:
  struct Mismatch : std::logic_error {
    using std::logic_error::logic_error;
  };
  struct Options {
    UInt capacity = 5;
    UInt val_len = 8;
    UByte key_size = 0;
    HashKeyFunction hash = nullptr;
  };

  explicit HashDelTableModel(const Options& options)
      : options_(options),
        table_(HashDelTableNew(options.capacity, options.hash, nullptr, nullptr, options.val_len, options.key_size)) {
    Start(std::max(options.capacity, 5u));
    Check();
  }

  HashDelTable* table() { return table_.get(); }
  size_t size() const { return index_.size(); }
  bool selected() const { return selected_; }
  bool full() const { return 2 * deleted_ + index_.size() >= capacity_; }

  // Inserts or finds a key; a new entry's value gets the bytes that follow from `fill`.
  void Insert(const std::string& key, unsigned fill) {
    const auto known = index_.find(key);
    UInt offset = 0xABCDABCD;
    UByte* entry = HashDelTableFind(table_.get(), Bytes(key), Length(key), TRUE, &offset, nullptr);
    if (known != index_.end()) {
      Expect(entry == table_->t_data + known->second && offset == known->second,
             "an insertion finds the entry there is");
      return;
    }
    if (full()) {
      Expect(entry == nullptr && offset == 0xABCDABCD, "a full table refuses");
      return;
    }
    Expect(entry != nullptr, "a new key gets an entry");
    const size_t pad = (8 - heap_.size() % 8) % 8;
    const size_t room = heap_.size() + pad + options_.val_len + key.size() + 5;
    if (room > heap_size_) heap_size_ = std::max(room, heap_size_ * 3 / 2);
    heap_.append(pad, '\0');
    Expect(offset == heap_.size() && entry == table_->t_data + offset, "an entry is put at the end of the heap");
    Expect(Text(entry, options_.val_len) == std::string(options_.val_len, '\0'), "a new value is zero");
    std::string value(options_.val_len, '\0');
    for (char& c : value) c = static_cast<char>(fill++);
    std::memcpy(entry, value.data(), value.size());
    heap_ += value + LengthField(key.size()) + key;
    high_water_ = std::max(high_water_, heap_.size());
    entries_.push_back({key, value, offset, true});
    index_[key] = offset;
    slots_[WayOf(key).FirstEmpty(slots_)] = offset;
  }

  void Find(const std::string& key) {
    const auto known = index_.find(key);
    UInt offset = 0xABCDABCD;
    UByte* entry = HashDelTableFind(table_.get(), Bytes(key), Length(key), FALSE, &offset, nullptr);
    if (known == index_.end()) {
      Expect(entry == nullptr && offset == 0xABCDABCD, "a missing key is not found");
      return;
    }
    Expect(entry == table_->t_data + known->second && offset == known->second, "a key is found at its offset");
    Expect(Text(entry, options_.val_len) == At(offset).value, "with its value");
    Expect(KeyText(table_.get(), entry) == key, "and its key");
  }

  void Remove(const std::string& key) {
    const auto known = index_.find(key);
    const bool removed = HashDelTableRemove(table_.get(), Bytes(key), Length(key), nullptr) != FALSE;
    Expect(removed == (known != index_.end()), "a removal says whether the key was there");
    if (!removed) return;
    At(known->second).live = false;
    std::replace(slots_.begin(), slots_.end(), known->second, kTombstone);
    index_.erase(known);
    deleted_++;
  }

  void Grow(float factor) {
    HashDelTableGrow(table_.get(), factor, nullptr);
    Rebuild(factor);
  }

  void Clear() {
    HashDelTableClear(table_.get());
    if (slots_.size() > 10000) {
      Start(5);
    } else {
      heap_.clear();
      entries_.clear();
      index_.clear();
      deleted_ = 0;
      selected_ = false;
      slots_.assign(slots_.size(), kEmpty);
    }
  }

  // Goes on with a copy; the original is changed afterwards, which the copy must not notice.
  void Copy() {
    HashDelTablePtr copy(HashDelTableCopy(table_.get()));
    std::memset(table_->t_data, 0xEE, table_->t_data_size);
    std::memset(table_->t_entries, 0xEE, sizeof(UInt) * table_->t_nentries);
    table_ = std::move(copy);
  }

  // Goes on with what an image brings back, read into a table that has held something else.
  void WriteAndRead() {
    const std::string image = support::Image(table_.get());
    Expect(image == Image(), "the image is the record, field by field");
    HashDelTablePtr read(HashDelTableNew(50, options_.hash, nullptr, nullptr, 1, 1));
    for (const char* key : {"some", "other", "keys"}) support::Insert(read.get(), key);
    size_t taken = 0;
    Expect(ReadImage(read.get(), image, &taken) && taken == image.size(), "a whole image is read to its end");
    Expect(support::Image(read.get()) == image, "what was read gives the same image again");
    table_ = std::move(read);
    heap_size_ = high_water_ = heap_.size();
  }

  // Walks with an iterator, or by enumerating: an unselected table is cleaned up before.
  void Iterate() {
    HashDelTableIterator* it = HashDelTableIteratorInit(table_.get(), nullptr);
    CleanUpBeforeWalk();
    size_t seen = 0;
    for (; !HashDelTableIteratorEnd(it); HashDelTableIteratorNext(it), seen++) {
      Expect(seen < entries_.size(), "an iterator ends with the last entry");
      const UByte* bytes = nullptr;
      const UInt length = HashDelTableIteratorGetKey(it, &bytes);
      Expect(HashDelTableIteratorGetValue(it) == table_->t_data + entries_[seen].offset, "an iterator goes in order");
      Expect(Text(bytes, length) == entries_[seen].key, "an iterator tells the key");
    }
    HashDelTableIteratorFinalize(it);
    Expect(seen == entries_.size(), "an iterator comes to every entry");
  }

  void Enumerate() {
    Visit visit{this};
    Expect(HashDelTableEnumerate(table_.get(), 0, VisitEntry, &visit) == 0, "an enumeration that ends gives 0");
    CleanUpBeforeWalk();
    std::vector<UInt> expected;
    for (const Entry& entry : entries_) expected.push_back(entry.offset);
    Expect(visit.seen == expected, "an enumeration visits every entry in order");
  }

  // Selects the entries whose key has a length of `rest` modulo `divisor`.
  void Select(UInt count, UInt divisor, UInt rest) {
    if (deleted_ != 0) Rebuild(kOnlyJustAbove1);
    Chooser chooser{this, divisor, rest};
    std::vector<UInt> chosen;
    size_t offered = 0;
    const size_t limit = count == 0 ? slots_.size() : count;
    for (const UInt offset : slots_) {
      if (offset == kEmpty || chosen.size() == limit) continue;
      offered++;
      if (At(offset).key.size() % divisor == rest) chosen.push_back(offset);
    }
    const UInt got = HashDelTableSelect(table_.get(), count, Choose, &chooser);
    Expect(got == chosen.size(), "a selection tells how many it chose");
    Expect(chooser.calls == offered, "each entry is offered, until enough are kept");
    for (UInt i = 0; i < got; i++) {
      Expect(HashDelTableGetIndex(table_.get(), i) == table_->t_data + chosen[i],
             "the i-th chosen entry, in slot order");
    }
    selected_ = true;
    chosen_ = chosen.size();
    slots_.assign(slots_.size(), kEmpty);
    std::copy(chosen.begin(), chosen.end(), slots_.begin());
  }

  // Sorts the selection by key; all keys differ.
  void Sort() {
    HashDelTableSort(table_.get(), Compare, this);
    std::sort(slots_.begin(), slots_.begin() + static_cast<std::ptrdiff_t>(chosen_),
              [&](UInt a, UInt b) { return At(a).key < At(b).key; });
  }

  // Holds the whole record against the model.
  void Check() {
    const HashDelTable& t = *table_;
    Expect(t.t_nkeys_max == capacity_ && HashDelTableCapacity(&t) == capacity_, "capacity");
    Expect(t.t_nentries == slots_.size(), "slot count");
    Expect(t.t_data_size == heap_size_, "heap size");
    Expect(t.t_data_used == heap_.size(), "heap bytes in use");
    const size_t keys = selected_ ? chosen_ : index_.size();
    Expect(t.t_nkeys == keys && HashDelTableSize(&t) == keys, "number of keys");
    Expect(t.t_deleted == deleted_, "number of tombstones");
    Expect((HashDelTableFull(&t) != FALSE) == (keys == capacity_), "fullness");
    Expect((t.t_selected != FALSE) == selected_ && t.t_aligned, "flags");
    Expect(t.t_val_len == options_.val_len && t.t_key_size == options_.key_size, "widths");
    Expect(Text(t.t_data, t.t_data_used) == heap_, "heap bytes");
    for (size_t at = high_water_; at < heap_size_; at++) Expect(t.t_data[at] == 0, "unused heap bytes are zero");
    Expect(SlotsOf(&t) == slots_, "slots");
    if (!selected_) CheckCounts(t);
  }

 private:
  struct Entry {
    std::string key, value;
    UInt offset;
    bool live;
  };
  struct Chooser {
    HashDelTableModel* model;
    UInt divisor, rest;
    size_t calls = 0;
  };
  struct Visit {
    HashDelTableModel* model;
    std::vector<UInt> seen{};
  };
  // The slots of a key, in order.
  struct Way {
    size_t slots, at, step;
    size_t FirstEmpty(const std::vector<UInt>& content) const {
      for (size_t s = at;; s = (s + step) % slots) {
        if (content[s] == kEmpty) return s;
      }
    }
  };
  static constexpr UInt kEmpty = 0xFFFFFFFF;
  static constexpr UInt kTombstone = 0xFFFFFFFE;
  static constexpr float kOnlyJustAbove1 = 1.00001F;

  static void Expect(bool holds, const char* what) {
    if (!holds) throw Mismatch(std::string("HashDelTable differs from its model: ") + what);
  }

  // What the record must say of itself, whatever the model says.
  static void CheckCounts(const HashDelTable& t) {
    UInt live = 0;
    UInt tombstones = 0;
    for (const UInt slot : SlotsOf(&t)) {
      live += slot < kTombstone;
      tombstones += slot == kTombstone;
    }
    Expect(live == t.t_nkeys && tombstones == t.t_deleted, "the counts are those of the slots");
    Expect(live + tombstones < t.t_nentries, "a slot is empty");
    Expect(t.t_data_used <= t.t_data_size, "the heap in use lies in the heap");
  }

  void Start(UInt capacity) {
    capacity_ = capacity;
    slots_.assign(SlotCount(), kEmpty);
    heap_.clear();
    heap_size_ = 5 * slots_.size();
    high_water_ = 0;
    entries_.clear();
    index_.clear();
    deleted_ = 0;
    selected_ = false;
  }

  // What a growth does: the live entries close up when there are tombstones, then every key gets a slot anew.
  void Rebuild(float factor) {
    if (deleted_ != 0) {
      std::vector<Entry> live;
      heap_.clear();
      for (Entry& entry : entries_) {
        if (!entry.live) continue;
        entry.offset = static_cast<UInt>(heap_.size());
        heap_ += entry.value + LengthField(entry.key.size()) + entry.key;
        heap_.append((8 - heap_.size() % 8) % 8, '\0');
        index_[entry.key] = entry.offset;
        live.push_back(entry);
      }
      entries_ = live;
      deleted_ = 0;
    }
    capacity_ = static_cast<UInt>(static_cast<float>(capacity_) * factor);
    slots_.assign(SlotCount(), kEmpty);
    for (const Entry& entry : entries_) slots_[WayOf(entry.key).FirstEmpty(slots_)] = entry.offset;
  }

  void CleanUpBeforeWalk() {
    if (!selected_ && deleted_ != 0) Rebuild(kOnlyJustAbove1);
  }

  std::string Image() const {
    std::string image;
    const auto add = [&](size_t value) {
      for (unsigned i = 0; i < 4; i++) image += static_cast<char>(value >> (8 * i));
    };
    add(heap_.size());
    image += heap_;
    add(slots_.size());
    add(capacity_);
    add(selected_ ? chosen_ : index_.size());
    add(deleted_);
    for (const UInt slot : slots_) add(slot);
    add(options_.val_len);
    image += static_cast<char>(options_.key_size);
    image += static_cast<char>(selected_ ? 1 : 0);
    return image;
  }

  std::string LengthField(size_t length) const {
    std::string field;
    if (options_.key_size != 0) {
      for (UByte i = 0; i < options_.key_size; i++) field += static_cast<char>(length >> (8 * i));
      return field;
    }
    do {
      field += static_cast<char>((length & 127) << 1 | (length > 127 ? 1 : 0));
      length >>= 7;
    } while (length != 0);
    return field;
  }

  size_t SlotCount() const {
    size_t n = size_t{capacity_} * 3 / 2;
    const auto composite = [&] {
      for (size_t d = 2; d * d <= n; d++) {
        if (n % d == 0) return true;
      }
      return false;
    };
    while (composite()) n++;
    return n;
  }

  Way WayOf(const std::string& key) const {
    UInt hash = 0;
    if (options_.hash != nullptr) {
      hash = options_.hash(Bytes(key), Length(key), nullptr);
    } else {
      for (size_t i = key.size(); i-- > 0;) hash = hash * 257 + static_cast<UByte>(key[i]);
    }
    const size_t n = slots_.size();
    const size_t start = hash % n;
    return {n, start, n - 2 - start % (n - 2)};
  }

  Entry& At(UInt offset) {
    return *std::lower_bound(entries_.begin(), entries_.end(), offset,
                             [](const Entry& entry, UInt value) { return entry.offset < value; });
  }

  static Boolean Choose(UByte* entry, void* ptr) {
    auto* chooser = static_cast<Chooser*>(ptr);
    chooser->calls++;
    return KeyText(chooser->model->table(), entry).size() % chooser->divisor == chooser->rest;
  }

  static int Compare(const UByte* a, const UByte* b, void* ptr) {
    const HashDelTable* table = static_cast<HashDelTableModel*>(ptr)->table();
    return KeyText(table, a).compare(KeyText(table, b));
  }

  static UInt VisitEntry(UByte* entry, void* ptr) {
    auto* visit = static_cast<Visit*>(ptr);
    visit->seen.push_back(OffsetOf(visit->model->table(), entry));
    return 0;
  }

  Options options_;
  HashDelTablePtr table_;
  UInt capacity_ = 0;
  std::vector<UInt> slots_;  // selected: the chosen offsets first
  std::string heap_;         // the bytes in use
  size_t heap_size_ = 0;
  size_t high_water_ = 0;                        // no entry has ever reached further
  std::vector<Entry> entries_;                   // in heap order, removed ones included
  std::unordered_map<std::string, UInt> index_;  // live keys
  size_t deleted_ = 0;
  bool selected_ = false;
  size_t chosen_ = 0;
};

}  // namespace support

#endif
