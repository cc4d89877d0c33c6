// Any bytes, read as the file of a HashTable or the image of a HashDelTable, with operations to make on what comes out:
// the bodies of the fuzzers, and of the tests that replay what those have found. Each gives "" when all is well, else
// what is not.
//
// The bytes are read twice. Once the table is used without asking: any answer will do, but none outside its heap, no
// assertion but those that the headers tell of damaged bytes, and no walk without end. Then the check is asked, and a
// table that it calls sound must stay so through the same operations, assert nothing that the arguments do not call
// for, and come back from its own file or image.
//
// Include in one file of a program (assertion_trap.h), with ledger.cc and tests/ in front of the base library.
//
//   [ way:1 | n:1 | n operations of 4 bytes | the file or image ]
#ifndef TESTS_SUPPORT_TABLE_BYTES_H
#define TESTS_SUPPORT_TABLE_BYTES_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include "dict/hashdeltable.h"
#include "dict/hashtable.h"
#include "qxlib/misc.h"
#include "support/assertion_trap.h"
#include "support/guarded.h"
#include "support/keys.h"
#include "support/ledger.h"
#include "support/numbers.h"

namespace support {

struct FileTable {
  using Table = HashTable;
  using Iterator = HashTableIterator;
  static constexpr bool kRemoves = false;
  static constexpr auto Free = HashTableFree;
  static constexpr auto Clear = HashTableClear;
  static constexpr auto Copy = HashTableCopy;
  static constexpr auto Find = HashTableFind;
  static constexpr auto Grow = HashTableGrow;
  static constexpr auto Reserve = HashTableReserve;
  static constexpr auto Key = HashTableKey;
  static constexpr auto GetOffset = HashTableGetOffset;
  static constexpr auto Size = HashTableSize;
  static constexpr auto Capacity = HashTableCapacity;
  static constexpr auto Full = HashTableFull;
  static constexpr auto IteratorEnd = HashTableIteratorEnd;
  static constexpr auto IteratorGetValue = HashTableIteratorGetValue;
  static constexpr auto IteratorGetKey = HashTableIteratorGetKey;
  static constexpr auto IteratorNext = HashTableIteratorNext;
  static constexpr auto IteratorFinalize = HashTableIteratorFinalize;
  static constexpr auto Enumerate = HashTableEnumerate;
  static constexpr auto Check = HashTableCheck;
  static constexpr auto Stats = HashTableStats;
  static Iterator* IteratorInit(Table* table, void*) { return HashTableIteratorInit(table); }
  static void Sort(Table* table, HashCompareFunction cmp, void* ptr) { HashTableSort(table, cmp, ptr, nullptr); }
  static UInt Select(Table* table, UInt count, HashSelectFunction select, void* ptr) {
    return HashTableSelect(table, count, select, ptr, nullptr);
  }
  static UByte* GetIndex(const Table* table, UInt i) { return HashTableGetIndex(table, i, nullptr); }
  static Boolean Remove(Table*, const UByte*, UInt, void*) { return FALSE; }
};

struct ImageTable {
  using Table = HashDelTable;
  using Iterator = HashDelTableIterator;
  static constexpr bool kRemoves = true;
  static constexpr auto Free = HashDelTableFree;
  static constexpr auto Clear = HashDelTableClear;
  static constexpr auto Copy = HashDelTableCopy;
  static constexpr auto Find = HashDelTableFind;
  static constexpr auto Remove = HashDelTableRemove;
  static constexpr auto Grow = HashDelTableGrow;
  static constexpr auto Reserve = HashDelTableReserve;
  static constexpr auto Key = HashDelTableKey;
  static constexpr auto GetOffset = HashDelTableGetOffset;
  static constexpr auto Size = HashDelTableSize;
  static constexpr auto Capacity = HashDelTableCapacity;
  static constexpr auto Full = HashDelTableFull;
  static constexpr auto IteratorInit = HashDelTableIteratorInit;
  static constexpr auto IteratorEnd = HashDelTableIteratorEnd;
  static constexpr auto IteratorGetValue = HashDelTableIteratorGetValue;
  static constexpr auto IteratorGetKey = HashDelTableIteratorGetKey;
  static constexpr auto IteratorNext = HashDelTableIteratorNext;
  static constexpr auto IteratorFinalize = HashDelTableIteratorFinalize;
  static constexpr auto Enumerate = HashDelTableEnumerate;
  static constexpr auto Sort = HashDelTableSort;
  static constexpr auto Select = HashDelTableSelect;
  static constexpr auto GetIndex = HashDelTableGetIndex;
  static constexpr auto Check = HashDelTableCheck;
  static constexpr auto Stats = HashDelTableStats;
};

// Whether an assertion has been jumped out of, which keeps what it worked with: elsewhere it ends the process.
inline bool jumped_out = false;

// Books the blocks that are taken while it lives, and gives back what a jump has kept. What is kept without one is a
// leak, for a sanitizer to see.
class KeptBlocks {
 public:
  KeptBlocks() { jumped_out = false; }
  ~KeptBlocks() {
    if (jumped_out) ledger_.Release();
  }
  KeptBlocks(const KeptBlocks&) = delete;
  KeptBlocks& operator=(const KeptBlocks&) = delete;

 private:
  Ledger ledger_;
};

// What operations may make of a table, so that one input takes bounded time and memory.
constexpr UInt kMostValue = 1 << 16;  // an insertion of a longer value is not tried
constexpr size_t kMostPadding = 1 << 17;
constexpr size_t kMostHeap = 1 << 14;  // in a larger one keys that are all alike would take long
constexpr UInt kMostSlots = 1 << 13;

// A table in use. Callbacks get it, and hold every pointer that they are given against the heap.
template <typename Api>
class UsedTable {
 public:
  using Table = typename Api::Table;

  // Takes the table over.
  UsedTable(Table* table, bool sound) : table_(table), sound_(sound) { CollectKeys(); }
  ~UsedTable() { Api::Free(table_); }
  UsedTable(const UsedTable&) = delete;
  UsedTable& operator=(const UsedTable&) = delete;

  // Makes the operations; the first thing that is wrong, or "".
  std::string Use(Numbers operations) {
    while (!operations.Empty() && wrong_.empty() && Small()) Operate(operations);
    if (wrong_.empty()) Look(0, 0);
    if (!sound_) Api::Check(table_, nullptr);
    return wrong_;
  }

  Table* get() const { return table_; }

  static Boolean Equal(const UByte* stored, UInt stored_len, const UByte* bytes, UInt len, void* ptr) {
    auto* self = static_cast<UsedTable*>(ptr);
    if (self == nullptr) return FALSE;
    self->Inside(stored, stored_len, "a stored key");
    return stored_len == len && (len == 0 || std::memcmp(stored, bytes, len) == 0) ? TRUE : FALSE;
  }
  // Refuses keys that begin with an x.
  static Boolean Value(UByte* value, const UByte* bytes, UInt len, void* ptr) {
    auto* self = static_cast<UsedTable*>(ptr);
    if (self == nullptr) return FALSE;
    self->Inside(value, self->table_->t_val_len, "a new value");
    std::memset(value, 7, self->table_->t_val_len);
    return len != 0 && bytes[0] == 'x' ? FALSE : TRUE;
  }

 private:
  void Wrong(const std::string& what) {
    if (wrong_.empty()) wrong_ = what;
  }

  // Whether so many bytes lie inside the heap; a sanitizer sees whether they are there.
  void Inside(const UByte* bytes, size_t length, const char* what) {
    const auto at = static_cast<size_t>(bytes - table_->t_data);
    if (at > table_->t_data_size || length > table_->t_data_size - at) {
      Wrong(std::string(what) + " lies outside the heap");
    } else if (length != 0) {
      sum_ += bytes[0] + bytes[length - 1];
    }
  }

  // A call, and the assertions that its arguments and the table's state explain.
  template <typename Body>
  bool Call(Body&& body, std::initializer_list<const char*> allowed = {}) {
    const std::string text = Trap(body);
    if (text.empty()) return true;
    jumped_out = true;
    for (const char* known : allowed) {
      if (known != nullptr && text == known) return false;
    }
    // A width that damaged bytes claim fails wherever a key is read; so do tombstones beside a selection.
    if (!sound_ && table_->t_key_size > 4 && text == "size <= 4") return false;
    if (!sound_ && table_->t_selected && text == "!table->t_selected") return false;
    Wrong("an assertion: " + text);
    return false;
  }

  // The keys that are there, as far as a walk comes to them, for operations to meet again.
  void CollectKeys() {
    constexpr size_t kMost = 64;
    const HashEnumerateFunction keep = [](UByte* entry, void* ptr) -> UInt {
      auto* self = static_cast<UsedTable*>(ptr);
      const UByte* bytes = nullptr;
      const UInt length = Api::Key(self->table_, entry, &bytes);
      self->Inside(bytes, length, "a key");
      if (self->wrong_.empty()) self->keys_.emplace_back(Text(bytes, length));
      return self->keys_.size() == kMost ? 1 : 0;
    };
    Call([&] { Api::Enumerate(table_, 0, keep, this); });
  }

  std::string KeyFor(UByte kind, UInt number) const {
    if (kind == 255) return std::string(number, 'k');
    if (kind < 128 && !keys_.empty()) return keys_[number % keys_.size()];
    std::string key(kind % 4, static_cast<char>('v' + (number & 3)));
    if (!key.empty()) key.back() = static_cast<char>(number >> 2);
    return key;
  }

  UInt Slots() const {
    if constexpr (Api::kRemoves) {
      return table_->t_nentries;
    } else {
      return table_->t_entries_size;
    }
  }

  bool Small() const { return Slots() <= kMostSlots && MostEntries() <= kMostHeap; }

  // A step takes a byte at least.
  size_t MostEntries() const { return std::min(table_->t_data_used, table_->t_data_size) + 1; }

  const char* WhenSelected() const { return table_->t_selected ? "!table->t_selected" : nullptr; }
  // A file may have more slots than its capacity asks for. The check refuses it.
  const char* WhenSlotsAreMany() const { return !sound_ && !Api::kRemoves ? "osize <= nsize" : nullptr; }
  const char* WhenTooLong(UInt len) const {
    const UByte width = table_->t_key_size;
    return width != 0 && width < 4 && len >= 1u << 8 * width ? "l < (b << (8 * k))" : nullptr;
  }

  void Operate(Numbers& operations) {
    const auto what = static_cast<UByte>(operations.Next(1));
    const auto kind = static_cast<UByte>(operations.Next(1));
    const auto number = static_cast<UInt>(operations.Next(2));
    const std::string key = KeyFor(kind, number);
    switch (what % 16) {
      case 0:
      case 1:
      case 2:
        Find(key, TRUE);
        break;
      case 3:
        Find(key, FALSE);
        break;
      case 4:
      case 5:
        Remove(key);
        break;
      case 6:
        Grow(kind, number);
        break;
      case 7:
        Look(kind, number);
        break;
      case 8:
        Iterate();
        break;
      case 9:
        Walk(number);
        break;
      case 10:
        Select(kind, number);
        break;
      case 11:
        Sort();
        break;
      case 12:
        Index(number);
        break;
      case 13:
        Duplicate();
        break;
      case 14:
        if (kind < 64) Api::Clear(table_);
        break;
      default:
        Others(key, kind, number);
    }
    if (sound_ && wrong_.empty() && !StillSound())
      Wrong("no longer sound after operation " + std::to_string(what % 16));
  }

  bool StillSound() {
    // A capacity below 2, which only bytes from outside have, grows to one for which there are fewer than three slots.
    if (Api::Capacity(table_) < 2) sound_ = false;
    return !sound_ || Api::Check(table_, nullptr) != FALSE;
  }

  void Find(const std::string& key, Boolean create) {
    if (create && table_->t_val_len > kMostValue) return;
    UByte* entry = nullptr;
    UInt offset = 0;
    const UInt size = Api::Size(table_);
    Call([&] { entry = Api::Find(table_, Bytes(key), Length(key), create, &offset, this); },
         {WhenSelected(), WhenTooLong(Length(key))});
    if (entry == nullptr) return;
    Inside(entry, table_->t_val_len, "a value");
    if (entry != Api::GetOffset(table_, offset)) Wrong("the offset is not that of the entry");
    if (!create && Api::Size(table_) != size) Wrong("a look-up changes the number of keys");
  }

  void Remove(const std::string& key) {
    if (!Api::kRemoves) return Find(key, FALSE);
    const UInt size = Api::Size(table_);
    Boolean removed = FALSE;
    Call([&] { removed = Api::Remove(table_, Bytes(key), Length(key), this); }, {WhenSelected()});
    if (sound_ && Api::Size(table_) != size - (removed ? 1 : 0)) Wrong("a removal miscounts");
  }

  void Grow(UByte kind, UInt number) {
    static constexpr float kFactors[] = {1.00001F, 1.1F, 1.5F, 2.0F, 1.0F, 0.0F, -3.0F, 1e30F};
    float factor = kFactors[kind % 8];
    if (kind == 200) factor = std::numeric_limits<float>::infinity();
    if (kind == 201) factor = std::numeric_limits<float>::quiet_NaN();
    if (kind >= 224) {
      Call([&] { Api::Reserve(table_, number % 5000, this); }, {WhenSelected(), WhenSlotsAreMany()});
      Call([&] { Api::Reserve(table_, 0xFFFFFFF0 + number % 16, this); }, {WhenSelected()});
    } else {
      Call([&] { Api::Grow(table_, factor, this); },
           {WhenSelected(), WhenSlotsAreMany(), factor > 1.0F ? nullptr : "factor > 1.0"});
    }
  }

  // Everything that only tells.
  void Look(UByte kind, UInt number) {
    HashTableStatistics stats;
    if (Small()) Call([&] { Api::Stats(table_, &stats, this); });
    const UInt size = Api::Size(table_);
    if ((Api::Full(table_) != FALSE) != (size == Api::Capacity(table_))) Wrong("full or not");
    if (table_->t_data_size == 0) return;
    UByte* const entry = table_->t_data + (size_t{kind} << 16 | number) % table_->t_data_size;
    const UByte* bytes = entry;
    UInt length = 0;
    if (Call([&] { length = Api::Key(table_, entry, &bytes); })) Inside(bytes, length, "the key at an odd place");
  }

  void Iterate() {
    size_t left = MostEntries() + 1;
    typename Api::Iterator* it = nullptr;
    if (!Call([&] { it = Api::IteratorInit(table_, this); })) return;
    Call([&] {
      for (; !Api::IteratorEnd(it) && left != 0; Api::IteratorNext(it), left--) {
        const UByte* bytes = nullptr;
        const UInt length = Api::IteratorGetKey(it, &bytes);
        Inside(bytes, length, "an iterator's key");
        Inside(Api::IteratorGetValue(it), table_->t_val_len, "an iterator's value");
      }
    });
    if (left == 0) Wrong("an iterator does not end");
    Api::IteratorFinalize(it);
  }

  void Walk(UInt number) {
    seen_ = 0;
    const HashEnumerateFunction visit = [](UByte* entry, void* ptr) -> UInt {
      auto* self = static_cast<UsedTable*>(ptr);
      self->Inside(entry, self->table_->t_val_len, "an enumerated value");
      return ++self->seen_ > self->MostEntries() ? 1 : 0;
    };
    UInt stopped = 0;
    Call([&] { stopped = Api::Enumerate(table_, (number & 0x8000) != 0 ? number & 0x7FFF : 0, visit, this); });
    if (stopped != 0) Wrong("an enumeration does not end");
  }

  // Keeps entries at even places, or every one.
  void Select(UByte kind, UInt number) {
    if (kind < 128 && !table_->t_selected) return;  // it ends all look-ups: not too often
    const HashSelectFunction choose = [](UByte* entry, void* ptr) -> Boolean {
      auto* self = static_cast<UsedTable*>(ptr);
      self->Inside(entry, self->table_->t_val_len, "a value to choose");
      return (entry - self->table_->t_data) % 16 == 0 ? TRUE : FALSE;
    };
    Call([&] { Api::Select(table_, number % 8, (number & 8) != 0 ? choose : nullptr, this); });
  }

  void Sort() {
    const HashCompareFunction compare = [](const UByte* a, const UByte* b, void* ptr) {
      auto* self = static_cast<UsedTable*>(ptr);
      self->Inside(a, self->table_->t_val_len, "a value to compare");
      self->Inside(b, self->table_->t_val_len, "a value to compare");
      return a < b ? 1 : a > b ? -1 : 0;
    };
    Call([&] { Api::Sort(table_, compare, this); },
         {table_->t_selected ? nullptr
          : Api::kRemoves    ? "cmp != ((void *)0) && table->t_selected"
                             : "cmp != ((void *)0) && (entries != ((void *)0) || table->t_selected)"});
  }

  void Index(UInt number) {
    for (const UInt i : {0u, number & 15, number, 0xFFFFFFFFu}) {
      UByte* entry = nullptr;
      Call([&] { entry = Api::GetIndex(table_, i); }, {table_->t_selected ? nullptr : "table->t_selected"});
      if (entry != nullptr) Inside(entry, table_->t_val_len, "a chosen value");
    }
  }

  void Duplicate() {
    Table* const copy = Api::Copy(table_);
    if (copy == nullptr) return Wrong("no copy");
    Api::Free(table_);
    table_ = copy;
  }

  // A key that lies in the table's own heap, which an insertion may move.
  void UseOwnBytes(UByte kind, UInt number) {
    const size_t used = std::min(table_->t_data_used, table_->t_data_size);
    if (used == 0 || table_->t_val_len > kMostValue) return;
    const size_t at = number % used;
    const auto length = static_cast<UInt>(std::min<size_t>(kind % 40, used - at));
    const std::string key = Text(table_->t_data + at, length);
    UByte* entry = nullptr;
    Call([&] { entry = Api::Find(table_, table_->t_data + at, length, TRUE, nullptr, this); },
         {WhenSelected(), WhenTooLong(length)});
    if (entry != nullptr) Inside(entry, table_->t_val_len, "a value");
    if (entry != nullptr && sound_ && table_->t_hash == nullptr) {
      const UByte* bytes = nullptr;
      const UInt stored = Api::Key(table_, entry, &bytes);
      if (Text(bytes, stored) != key) Wrong("a key of the table's own is not the one that is stored");
    }
    Call([&] { Api::Remove(table_, table_->t_data + at, length, this); }, {WhenSelected()});
  }

  // What only one of the two has, and what is seldom done.
  void Others(const std::string& key, UByte kind, UInt number) {
    if (kind >= 128 && kind < 192) return UseOwnBytes(kind, number);
    if constexpr (!Api::kRemoves) {
      if (kind >= 192) return SelectIntoArray(number);
      const std::string other = KeyFor(static_cast<UByte>(kind + 1), number + 1);
      const UByte* const keys[] = {Bytes(key), Bytes(other), Bytes(key)};
      const UInt lens[] = {Length(key), Length(other), Length(key)};
      UByte* entries[3] = {};
      if (!Call([&] { HashTableFindMany(table_, 3, keys, lens, entries, nullptr, this); },
                {WhenSelected(), WhenTooLong(lens[0]), WhenTooLong(lens[1])})) {
        return;
      }
      for (size_t i = 0; i < 3; i++) {
        UByte* single = nullptr;
        Call([&] { single = Api::Find(table_, keys[i], lens[i], FALSE, nullptr, this); });
        if (single != entries[i]) Wrong("together and one by one differ");
      }
    }
  }

  void SelectIntoArray(UInt number) {
    if constexpr (!Api::kRemoves) {
      UIntArray array;
      ArrayInit_(&array.a);
      UInt count = 0;
      Call([&] { count = HashTableSelect(table_, number % 8, nullptr, this, &array); });
      if (count != array.t.length) Wrong("a selection miscounts");
      for (UInt i = 0; i < array.t.length; i++) {
        UByte* const entry = HashTableGetIndex(table_, i, &array);
        if (entry != nullptr) Inside(entry, table_->t_val_len, "a value in the array");
      }
      ArrayFree_(&array.a, "tests", __LINE__);
      sound_ = false;  // the slots are empty now
    }
  }

  Table* table_;
  bool sound_;
  std::vector<std::string> keys_;
  std::string wrong_;
  size_t seen_ = 0;
  unsigned sum_ = 0;
};

// A file descriptor over bytes, and a name for it.
class ServedBytes {
 public:
  // As a file, or through a pipe, which does not tell its size.
  ServedBytes(const std::string& bytes, bool pipe) {
    if (pipe) {
      int ends[2];
      if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
      fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);
      fcntl(ends[1], F_SETFL, O_NONBLOCK);
      Write(ends[1], bytes);  // what has no room is missing
      close(ends[1]);
      fd_ = ends[0];
    } else {
      fd_ = memfd_create("table", MFD_CLOEXEC);
      Write(fd_, bytes);
    }
    std::snprintf(name_, sizeof name_, "/proc/self/fd/%d", fd_);
  }
  ~ServedBytes() { close(fd_); }
  ServedBytes(const ServedBytes&) = delete;
  ServedBytes& operator=(const ServedBytes&) = delete;
  const char* name() const { return name_; }

  // What lies in the file now.
  std::string Read() const {
    std::string bytes(static_cast<size_t>(lseek(fd_, 0, SEEK_END)), '\0');
    if (pread(fd_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) std::abort();
    return bytes;
  }

 private:
  static void Write(int fd, const std::string& bytes) {
    if (!bytes.empty() && write(fd, bytes.data(), bytes.size()) < 0) return;
  }

  int fd_;
  char name_[40];
};

inline UInt LittleEndian4(const std::string& bytes, size_t at) {
  UInt number = 0;
  if (at + 4 <= bytes.size()) std::memcpy(&number, bytes.data() + at, 4);
  return number;
}

// What follows from the bits of `way`.
template <typename Api>
struct Callbacks {
  explicit Callbacks(UByte bits)
      : hash(bits % 4 == 2   ? HashToFew
             : bits % 4 == 3 ? HashToLength
                             : nullptr),
        value(bits % 4 == 1 ? UsedTable<Api>::Value : nullptr),
        equal(bits % 4 == 1 ? UsedTable<Api>::Equal : nullptr) {}
  HashKeyFunction hash;
  HashValueFunction value;
  HashEqualFunction equal;
};

inline void TakeMessage(const QXMessageContext*, const char*, void*) {}

// way: in a mapping:1, through a pipe:1, callbacks:2, followed by zeros up to the size that it claims:1
inline std::string ReadHashTableBytes(std::span<const uint8_t> input) {
  QXMessageHandlerSet(TakeMessage, nullptr);
  const KeptBlocks kept;
  Numbers numbers(input);
  const auto way = static_cast<UByte>(numbers.Next(1));
  const size_t count = numbers.Next(1);
  const Numbers operations(numbers.Take(4 * count));
  const auto rest = numbers.Rest();
  std::string file(rest.begin(), rest.end());
  if ((way & 16) != 0 && file.size() >= 37) {
    const size_t claimed = 37 + size_t{4} * LittleEndian4(file, 17) + LittleEndian4(file, 29);
    if (claimed < kMostPadding) file.resize(std::max(file.size(), claimed));
  }
  const Callbacks<FileTable> callbacks(way >> 2 & 3);
  const bool pipe = (way & 2) != 0;
  const auto read = [&](const std::string& bytes, bool vm, bool through_pipe) {
    const ServedBytes served(bytes, through_pipe);
    return HashTableRead(served.name(), callbacks.hash, callbacks.value, callbacks.equal, vm ? TRUE : FALSE);
  };
  HashTable* table = read(file, (way & 1) != 0, pipe);
  if (table == nullptr) return "";
  if (const std::string wrong = UsedTable<FileTable>(table, false).Use(operations); !wrong.empty()) return wrong;

  table = read(file, (way & 1) == 0, pipe);
  if (table == nullptr) return "read only once";
  const char* reason = "";
  const bool sound = HashTableCheck(table, &reason) != FALSE;
  UsedTable<FileTable> used(table, sound);
  if (sound != (reason == nullptr)) return "a reason without a fault, or the other way round";
  if (!sound) return "";
  if (const std::string wrong = used.Use(operations); !wrong.empty()) return "sound: " + wrong;

  const ServedBytes written("", false);
  if (HashTableWrite(used.get(), written.name()) == FALSE) return "cannot be written";
  HashTable* const again = HashTableRead(written.name(), callbacks.hash, nullptr, nullptr, FALSE);
  if (again == nullptr) return "what was written cannot be read";
  // Whether entries start at multiples of 8 is not in the file: a selection that has only such ones is taken for it.
  const bool same = (again->t_aligned != used.get()->t_aligned ||
                     HashTableCheck(again, nullptr) == HashTableCheck(used.get(), nullptr)) &&
                    again->t_data_used == used.get()->t_data_used && HashTableSize(again) == HashTableSize(used.get());
  HashTableFree(again);
  return same ? "" : "what was written is read otherwise";
}

// way: bytes behind the image:3, callbacks:2, followed by zeros up to the size that it claims:1, into a table in use:1
inline std::string ReadHashDelTableBytes(std::span<const uint8_t> input) {
  QXMessageHandlerSet(TakeMessage, nullptr);
  const KeptBlocks kept;
  Numbers numbers(input);
  const auto way = static_cast<UByte>(numbers.Next(1));
  const size_t count = numbers.Next(1);
  const Numbers operations(numbers.Take(4 * count));
  const auto rest = numbers.Rest();
  std::string image(rest.begin(), rest.end());
  if ((way & 32) != 0) {
    const size_t heap = LittleEndian4(image, 0);
    if (heap < kMostPadding) image.resize(std::max(image.size(), heap + 8));
    const size_t claimed = 26 + heap + size_t{4} * LittleEndian4(image, 4 + heap);
    if (claimed < kMostPadding) image.resize(std::max(image.size(), claimed));
  }
  const Callbacks<ImageTable> callbacks(way >> 3 & 3);

  // Reads the image at the end of its block, with so many bytes behind it; null when it is not whole.
  std::string wrong;
  const auto read = [&](size_t behind) -> HashDelTable* {
    const Guarded block(image + std::string(behind, '\xFF'));
    HashDelTable* table = HashDelTableNew(7, callbacks.hash, callbacks.value, callbacks.equal, 4, 0);
    if ((way & 64) != 0) {
      for (const char* key : {"some", "other", "keys"}) {
        HashDelTableFind(table, Bytes(key), Length(key), TRUE, nullptr, nullptr);
      }
    }
    UByte* from = block.data();
    const bool whole = HashDelTableMemRead(table, &from, block.end()) != FALSE;
    if (from < block.data() || from > block.end()) wrong = "the position leaves the block";
    if (whole) return table;
    if (from != block.end()) wrong = "a missing byte is told where none is missing";
    // As it stands such a table can be cleared, and is then good again. Only the width of key lengths stays.
    HashDelTableClear(table);
    if (table->t_key_size <= 4 && !HashDelTableCheck(table, nullptr)) wrong = "a cleared table is not sound";
    HashDelTableFree(table);
    return nullptr;
  };
  HashDelTable* table = read(0);
  if (table != nullptr) wrong += UsedTable<ImageTable>(table, false).Use(operations);
  table = read(way & 7);
  if (table == nullptr || !wrong.empty()) {
    if (table != nullptr) HashDelTableFree(table);
    return wrong;
  }
  const char* reason = "";
  const bool sound = HashDelTableCheck(table, &reason) != FALSE;
  UsedTable<ImageTable> used(table, sound);
  if (sound != (reason == nullptr)) return "a reason without a fault, or the other way round";
  if (!sound) return "";
  if (wrong = used.Use(operations); !wrong.empty()) return "sound: " + wrong;

  UByteArray array;
  ArrayInit_(&array.a);
  HashDelTableMemWrite(used.get(), &array);
  image.assign(reinterpret_cast<const char*>(array.t.elts), array.t.length);
  ArrayFree_(&array.a, "tests", __LINE__);
  HashDelTable* const again = read(0);
  if (again == nullptr) return "what was written cannot be read";
  const bool same = HashDelTableCheck(again, nullptr) == HashDelTableCheck(used.get(), nullptr) &&
                    again->t_data_used == used.get()->t_data_used &&
                    HashDelTableSize(again) == HashDelTableSize(used.get());
  HashDelTableFree(again);
  return same ? wrong : "what was written is read otherwise";
}

}  // namespace support

#endif
