// A HashTable and a plain model of it, side by side.
//
// Each operation is made on both, and what the table says, and what its record then holds, must be what the model
// expects: every slot, every heap byte, every count. The expectations are computed here from scratch, from the list of
// keys in the order of their insertion. A difference throws Mismatch, which a test, a property and a fuzzer all take
// for a failure.
#ifndef TESTS_SUPPORT_HASHTABLE_MODEL_H
#define TESTS_SUPPORT_HASHTABLE_MODEL_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "dict/hashtable.h"
#include "qxlib/misc.h"
#include "support/keys.h"

namespace support {

struct HashTableDeleter {
  void operator()(HashTable* table) const { HashTableFree(table); }
};
using HashTablePtr = std::unique_ptr<HashTable, HashTableDeleter>;

inline UByte* Find(HashTable* table, const std::string& key, void* ptr = nullptr) {
  return HashTableFind(table, Bytes(key), Length(key), FALSE, nullptr, ptr);
}
inline UByte* Insert(HashTable* table, const std::string& key, void* ptr = nullptr) {
  return HashTableFind(table, Bytes(key), Length(key), TRUE, nullptr, ptr);
}
inline std::string KeyText(const HashTable* table, const UByte* entry) {
  const UByte* bytes = nullptr;
  const UInt length = HashTableKey(table, entry, &bytes);
  return Text(bytes, length);
}
inline UInt OffsetOf(const HashTable* table, const UByte* entry) { return static_cast<UInt>(entry - table->t_data); }

class HashTableModel {
 public:
  struct Mismatch : std::logic_error {
    using std::logic_error::logic_error;
  };
  struct Options {
    UInt capacity = 5;
    UInt val_len = 8;
    UByte key_size = 0;
    Boolean vm = FALSE;
    HashKeyFunction hash = nullptr;
  };

  explicit HashTableModel(const Options& options)
      : options_(options),
        table_(HashTableNew(options.capacity, options.hash, nullptr, nullptr, options.val_len, options.key_size,
                            options.vm)),
        capacity_(std::max(options.capacity, 5u)) {
    Expect(table_ != nullptr, "HashTableNew gives a table");
    heap_size_ = 5 * static_cast<size_t>(SlotCount());
    Check();
  }

  HashTable* table() { return table_.get(); }
  size_t size() const { return entries_.size(); }
  bool selected() const { return selected_; }
  bool indexed() const { return !selected_ && !spent_; }

  // Inserts or finds a key; a new entry's value gets the bytes that follow from `fill`.
  void Insert(const std::string& key, unsigned fill) {
    const auto known = index_.find(key);
    UInt offset = 0xABCDABCD;
    UByte* entry = HashTableFind(table_.get(), Bytes(key), Length(key), TRUE, &offset, nullptr);
    if (known != index_.end()) {
      Expect(entry == table_->t_data + entries_[known->second].offset, "an insertion finds the entry that there is");
      Expect(offset == entries_[known->second].offset, "and tells its offset");
      return;
    }
    if (entries_.size() == capacity_) {
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
    index_[key] = entries_.size();
    entries_.push_back({key, value, offset});
  }

  void Find(const std::string& key) {
    const auto known = index_.find(key);
    UInt offset = 0xABCDABCD;
    UByte* entry = HashTableFind(table_.get(), Bytes(key), Length(key), FALSE, &offset, nullptr);
    if (known == index_.end()) {
      Expect(entry == nullptr && offset == 0xABCDABCD, "a missing key is not found");
      return;
    }
    const Entry& expected = entries_[known->second];
    Expect(entry != nullptr && offset == expected.offset, "a key is found at its offset");
    Expect(Text(entry, options_.val_len) == expected.value, "with its value");
    Expect(KeyText(table_.get(), entry) == key, "and its key");
  }

  void Grow(float factor) {
    HashTableGrow(table_.get(), factor, nullptr);
    capacity_ = static_cast<UInt>(static_cast<float>(capacity_) * factor);
  }

  void Clear() {
    HashTableClear(table_.get());
    entries_.clear();
    index_.clear();
    heap_.clear();
    selected_ = spent_ = false;
  }

  // Goes on with a copy; the original is changed afterwards, which the copy must not notice.
  void Copy() {
    HashTablePtr copy(HashTableCopy(table_.get()));
    Expect(copy != nullptr, "HashTableCopy gives a table");
    std::memset(table_->t_data, 0xEE, table_->t_data_size);
    std::memset(table_->t_entries, 0xEE, sizeof(UInt) * table_->t_entries_size);
    table_ = std::move(copy);
  }

  // Goes on with what a file brings back, in the other kind of memory.
  void WriteAndRead(const std::string& path) {
    Expect(HashTableWrite(table_.get(), path.c_str()) != FALSE, "HashTableWrite succeeds");
    options_.vm = !options_.vm;
    table_.reset(HashTableRead(path.c_str(), options_.hash, nullptr, nullptr, options_.vm));
    Expect(table_ != nullptr, "HashTableRead gives a table");
  }

  // Selects the entries whose key has a length of `rest` modulo `divisor`, in place or into an array.
  void Select(UInt count, UInt divisor, UInt rest, bool into_array) {
    Chooser chooser{this, divisor, rest};
    std::vector<UInt> expected;
    const std::vector<UInt> before = Slots();
    const size_t limit = count == 0 || into_array ? before.size() : count;
    for (const UInt offset : before) {
      if (offset != kEmpty && expected.size() < limit && Chooses(divisor, rest, offset)) expected.push_back(offset);
    }
    const size_t offered =
        static_cast<size_t>(std::count_if(before.begin(), before.end(), [](UInt offset) { return offset != kEmpty; }));
    UIntArray array;
    ArrayInit_(&array.a);
    const UInt chosen = HashTableSelect(table_.get(), count, Choose, &chooser, into_array ? &array : nullptr);
    std::vector<UInt> got;
    for (UInt i = 0; i < chosen; i++) got.push_back(into_array ? array.t.elts[i] : table_->t_entries[i]);
    for (UInt i = 0; i < chosen; i++) {
      Expect(HashTableGetIndex(table_.get(), i, into_array ? &array : nullptr) == table_->t_data + got[i],
             "HashTableGetIndex gives the i-th chosen entry");
    }
    ArrayFree_(&array.a, "hashtable_model", __LINE__);
    Expect(got == expected, "the chosen entries are those, in slot order");
    Expect(chooser.calls <= offered && (expected.size() == limit || chooser.calls == offered),
           "each entry is offered, until enough are kept");
    if (into_array) {
      spent_ = true;
    } else {
      selected_ = true;
      spent_ = false;
      chosen_ = expected;
    }
  }

  // Sorts the table's own selection by key.
  void Sort() {
    HashTableSort(table_.get(), Compare, this, nullptr);
    std::sort(chosen_.begin(), chosen_.end(), [&](UInt a, UInt b) { return KeyAt(a) < KeyAt(b); });
  }

  // Holds the whole record against the model.
  void Check() {
    const HashTable& t = *table_;
    Expect(t.t_entries_capacity == capacity_ && HashTableCapacity(&t) == capacity_, "capacity");
    Expect(t.t_entries_size == SlotCount(), "slot count");
    Expect(t.t_data_size == heap_size_, "heap size");
    Expect(t.t_data_used == heap_.size(), "heap bytes in use");
    const size_t used = selected_ ? chosen_.size() : entries_.size();
    Expect(t.t_entries_used == used && HashTableSize(&t) == used, "number of keys");
    Expect((HashTableFull(&t) != FALSE) == (used == capacity_), "fullness");
    Expect((t.t_selected != FALSE) == selected_ && t.t_aligned && (t.t_vm != 0) == (options_.vm != FALSE), "flags");
    Expect(t.t_val_len == options_.val_len && t.t_key_size == options_.key_size, "widths");
    Expect(Text(t.t_data, t.t_data_used) == heap_, "heap bytes");
    Expect(std::count(t.t_data + high_water_, t.t_data + heap_size_, 0) == static_cast<long>(heap_size_ - high_water_),
           "unused heap bytes are zero");
    Expect(std::equal(t.t_entries, t.t_entries + t.t_entries_size, Slots().begin()), "slots");
    CheckWalks();
  }

 private:
  struct Entry {
    std::string key, value;
    UInt offset;
  };
  struct Chooser {
    HashTableModel* model;
    UInt divisor, rest;
    size_t calls = 0;
  };
  struct Visit {
    HashTableModel* model;
    size_t seen = 0;
  };
  static constexpr UInt kEmpty = 0xFFFFFFFF;

  static void Expect(bool holds, const char* what) {
    if (!holds) throw Mismatch(std::string("HashTable differs from its model: ") + what);
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

  UInt SlotCount() const {
    UInt n = capacity_ * 3 / 2;
    const auto composite = [&] {
      for (UInt d = 2; d * d <= n; d++) {
        if (n % d == 0) return true;
      }
      return false;
    };
    while (composite()) n++;
    return n;
  }

  UInt HashOf(const std::string& key) const {
    if (options_.hash != nullptr) return options_.hash(Bytes(key), Length(key), nullptr);
    UInt hash = 0;
    for (size_t i = key.size(); i-- > 0;) hash = hash * 257 + static_cast<UByte>(key[i]);
    return hash;
  }

  // What the slot array must hold.
  std::vector<UInt> Slots() const {
    std::vector<UInt> slots(SlotCount(), kEmpty);
    if (selected_) {
      if (!spent_) std::copy(chosen_.begin(), chosen_.end(), slots.begin());
      return slots;
    }
    if (spent_) return slots;
    for (const Entry& entry : entries_) {
      size_t s = HashOf(entry.key) % slots.size();
      while (slots[s] != kEmpty) s = (s + 1) % slots.size();
      slots[s] = entry.offset;
    }
    return slots;
  }

  const std::string& KeyAt(UInt offset) const {
    const auto entry = std::lower_bound(entries_.begin(), entries_.end(), offset,
                                        [](const Entry& e, UInt value) { return e.offset < value; });
    return entry->key;
  }

  bool Chooses(UInt divisor, UInt rest, UInt offset) const { return KeyAt(offset).size() % divisor == rest; }

  static Boolean Choose(UByte* entry, void* ptr) {
    auto* chooser = static_cast<Chooser*>(ptr);
    chooser->calls++;
    HashTable* table = chooser->model->table();
    return KeyText(table, entry).size() % chooser->divisor == chooser->rest;
  }

  static int Compare(const UByte* a, const UByte* b, void* ptr) {
    const HashTable* table = static_cast<HashTableModel*>(ptr)->table();
    return KeyText(table, a).compare(KeyText(table, b));
  }

  static UInt VisitEntry(UByte* entry, void* ptr) {
    auto* visit = static_cast<Visit*>(ptr);
    visit->model->Expect(visit->seen < visit->model->entries_.size(), "an enumeration ends with the last entry");
    const Entry& expected = visit->model->entries_[visit->seen++];
    Expect(OffsetOf(visit->model->table(), entry) == expected.offset, "an enumeration visits in insertion order");
    return 0;
  }

  void CheckWalks() {
    Visit visit{this};
    Expect(HashTableEnumerate(table_.get(), 0, VisitEntry, &visit) == 0, "an enumeration that nobody stops gives 0");
    Expect(visit.seen == entries_.size(), "an enumeration visits every entry");
    size_t i = 0;
    HashTableIterator* it = HashTableIteratorInit(table_.get());
    for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it), i++) {
      Expect(i < entries_.size(), "an iterator ends with the last entry");
      const UByte* bytes = nullptr;
      const UInt length = HashTableIteratorGetKey(it, &bytes);
      Expect(HashTableIteratorGetValue(it) == table_->t_data + entries_[i].offset, "an iterator goes in heap order");
      Expect(Text(bytes, length) == entries_[i].key, "an iterator tells the key");
    }
    HashTableIteratorFinalize(it);
    Expect(i == entries_.size(), "an iterator comes to every entry");
  }

  Options options_;
  HashTablePtr table_;
  UInt capacity_;
  size_t heap_size_ = 0;
  size_t high_water_ = 0;  // no entry has ever reached further
  std::string heap_;
  std::vector<Entry> entries_;
  std::unordered_map<std::string, size_t> index_;
  bool selected_ = false;
  bool spent_ = false;  // selected into an array: the slots are empty
  std::vector<UInt> chosen_;
};

}  // namespace support

#endif
