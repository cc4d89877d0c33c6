/**
 * @file
 * The C++ face of the library, an addition to the C interface: owners, views, optionals, ranges and lambdas over the C
 * functions, in one header, with nothing of its own to link.
 *
 *     qx::Table<UInt> counts(1000);
 *     for (std::string_view word : words) counts[word] += 1;
 *     for (auto entry : counts.entries()) std::cout << entry.key() << " " << entry.value() << "\n";
 *
 * | class                           | over                         |
 * |---------------------------------|------------------------------|
 * | `qx::Dict`                      | `HashDict`                   |
 * | `qx::Table<V>`                  | `HashTable`                  |
 * | `qx::DelTable<V>`               | `HashDelTable`               |
 * | `qx::AttributesBuilder`         | `AttrDict`, being built      |
 * | `qx::Attributes`                | `AttrDict`, open             |
 * | `qx::Map32`, `qx::Map64`        | `IdMap`, `RefMap`            |
 * | `qx::Tree32`, `qx::Tree64`      | `AVLDict`, `AVLLDict`        |
 * | `qx::RedBlackTree`              | `RBDict`                     |
 * | `qx::ObjectCache`               | `Cache`                      |
 *
 * What holds for all of them:
 *
 * - An object owns one record, moves, and is not copied by accident (`Copy()` where there is one). `get()` is the
 * record, for every C function that has no member here. A moved-from object may be destroyed and assigned to, nothing
 * else.
 * - Keys and values go in as anything that converts to `std::string_view`, or as `std::span<const UByte>`, and come out
 *   as `std::string_view` into the container: good as long as the C header says that the pointer is.
 * - What is absent is `std::nullopt`. What cannot be done is an exception: `std::system_error` with the `errno` of a
 *   file, `std::bad_alloc` for a mapping that failed, `std::length_error` for a limit, `std::invalid_argument` for a
 * key that the container cannot hold. Misuse stays an assertion of the library.
 * - Lambdas may throw: the exception is kept while the C function ends, and thrown again behind it. Hashes and
 * equalities of keys alone must be `noexcept`, which the compiler checks: a table half of which is hashed anew is none.
 * - Threads: as the C headers say.
 * - Nothing is virtual, nothing is allocated beside what the C functions allocate (where it is, it is said), and an
 *   inlined member costs what the C call costs.
 */
#ifndef DICT_QXDICT_HPP
#define DICT_QXDICT_HPP

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <exception>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <ranges>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "dict/attrdict.h"
#include "dict/avldict.h"
#include "dict/avlldict.h"
#include "dict/hashdeltable.h"
#include "dict/hashdict.h"
#include "dict/hashtable.h"
#include "dict/idmap.h"
#include "dict/qxcache.h"
#include "dict/rbdict.h"
#include "dict/version.h"
#include "qxlib/misc.h"

namespace qx {

/** Bytes on their way into a call: text, or a span of bytes. Refers to them, owns nothing. */
class Bytes {
 public:
  template <class Text>
  requires std::convertible_to<const Text&, std::string_view>
  constexpr Bytes(const Text& text) : text_(text) {}
  Bytes(std::span<const UByte> bytes) : text_(reinterpret_cast<const char*>(bytes.data()), bytes.size()) {}

  const UByte* data() const { return reinterpret_cast<const UByte*>(text_.data()); }
  size_t size() const { return text_.size(); }
  std::string_view text() const { return text_; }

  /** The length as the C functions take it. Throws `std::length_error` above `most`. */
  UInt length(size_t most = std::numeric_limits<UInt>::max()) const {
    if (text_.size() > most) throw std::length_error("qxdict: more bytes than a length can tell");
    return static_cast<UInt>(text_.size());
  }

 private:
  std::string_view text_;
};

namespace detail {

template <auto kFunction>
struct Release {
  template <class Record>
  void operator()(Record* record) const noexcept {
    kFunction(record);
  }
};

template <class Record, auto kFunction>
using Owner = std::unique_ptr<Record, Release<kFunction>>;

inline std::string_view Text(const UByte* bytes, UInt length) { return {reinterpret_cast<const char*>(bytes), length}; }

template <class Record>
Record* Mapped(Record* record) {
  if (record == nullptr) throw std::bad_alloc();
  return record;
}

[[noreturn]] inline void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/** Throws the calling thread's current error, as the base library recorded it. */
[[noreturn]] inline void ThrowRecorded() {
  if (QXErrorCode() == 0) throw std::runtime_error(QXErrorText());
  throw std::system_error(QXErrorCode(), std::generic_category(), QXErrorText());
}

inline std::string PathOf(const char* dir, const std::string& name) {
  return dir == nullptr ? name : std::string(dir) + "/" + name;
}

/** Whether to go on after a visitor's result: one that tells nothing goes on. */
template <class Fun, class... Args>
bool Visit(Fun& fun, Args&&... args) {
  if constexpr (std::is_void_v<std::invoke_result_t<Fun&, Args...>>) {
    std::invoke(fun, std::forward<Args>(args)...);
    return true;
  } else {
    return static_cast<bool>(std::invoke(fun, std::forward<Args>(args)...));
  }
}

/** What a checker of the library finds wrong with a record; nothing where it is sound. */
template <auto kCheck, class Record>
std::optional<std::string_view> Damage(const Record* record) {
  const char* reason = nullptr;
  if (kCheck(record, &reason)) return std::nullopt;
  return reason;
}

/** A caller's function on its way through a C function, together with what it threw there. */
template <class Fun>
class Passage {
 public:
  explicit Passage(Fun& fun) : fun_(fun) {}

  /** Runs `call`, which uses the function. Once it has thrown, this gives `after` and runs nothing. */
  template <class Result, class Call>
  Result Run(Result after, Call call) noexcept {
    if (thrown_ != nullptr) return after;
    try {
      return call(fun_);
    } catch (...) {
      thrown_ = std::current_exception();
      return after;
    }
  }

  /** Behind the C function: throws what was thrown in it. */
  void End() {
    if (thrown_ != nullptr) std::rethrow_exception(std::move(thrown_));
  }

 private:
  Fun& fun_;
  std::exception_ptr thrown_;
};

/** What a range-based `for` and the algorithms of `std::ranges` walk. */
template <class Iterator, class Sentinel>
class Range {
 public:
  Range(Iterator first, Sentinel last) : first_(std::move(first)), last_(std::move(last)) {}
  Iterator begin() const { return first_; }
  Sentinel end() const { return last_; }

 private:
  Iterator first_;
  Sentinel last_;
};

/** Walks what a container gives by its place, through the member function `kAt`. */
template <class Container, auto kAt>
class PlaceIterator {
 public:
  using value_type = std::invoke_result_t<decltype(kAt), const Container&, UInt>;
  using difference_type = std::ptrdiff_t;
  using iterator_concept = std::random_access_iterator_tag;
  using iterator_category = std::input_iterator_tag;

  PlaceIterator() = default;
  PlaceIterator(const Container* container, UInt place) : container_(container), place_(place) {}

  value_type operator*() const { return (container_->*kAt)(static_cast<UInt>(place_)); }
  value_type operator[](difference_type n) const { return *(*this + n); }
  PlaceIterator& operator+=(difference_type n) {
    place_ += n;
    return *this;
  }
  PlaceIterator& operator-=(difference_type n) { return *this += -n; }
  PlaceIterator& operator++() { return *this += 1; }
  PlaceIterator& operator--() { return *this -= 1; }
  PlaceIterator operator++(int) { return std::exchange(*this, *this + 1); }
  PlaceIterator operator--(int) { return std::exchange(*this, *this - 1); }
  friend PlaceIterator operator+(PlaceIterator at, difference_type n) { return at += n; }
  friend PlaceIterator operator+(difference_type n, PlaceIterator at) { return at += n; }
  friend PlaceIterator operator-(PlaceIterator at, difference_type n) { return at -= n; }
  friend difference_type operator-(const PlaceIterator& a, const PlaceIterator& b) { return a.place_ - b.place_; }
  bool operator==(const PlaceIterator& other) const { return place_ == other.place_; }
  auto operator<=>(const PlaceIterator& other) const { return place_ <=> other.place_; }

 private:
  const Container* container_ = nullptr;
  difference_type place_ = 0;
};

/** All places of a container, from 0 to its size. */
template <auto kAt, class Container>
auto Places(const Container& container) {
  using At = PlaceIterator<Container, kAt>;
  return Range(At(&container, 0), At(&container, container.size()));
}

/** A three-way result as the C functions want it: an `int`, or an ordering of the language's. */
template <class Order>
int Sign(Order order) {
  if constexpr (std::integral<Order>) {
    return order < 0 ? -1 : order > 0 ? 1 : 0;
  } else {
    return std::is_lt(order) ? -1 : std::is_gt(order) ? 1 : 0;
  }
}

}  // namespace detail

/** How `Dict` builds. */
struct BuildOptions {
  UByte probe = 0;      /**< bytes in a probe code, 0 .. 8: nearly all foreign keys are then known to be foreign */
  bool verbose = false; /**< report progress in messages of level 2 */
};

/**
 * A minimal perfect-hash dictionary; see `dict/hashdict.h`.
 *
 *     qx::Dict words = qx::Dict::Build(std::vector<std::string>{"one", "two"}, {.probe = 4});
 *     words.Write("/var/lib/lexicon", "words");
 *     qx::Dict mapped = qx::Dict::Open("/var/lib/lexicon", "words");
 *     if (std::optional<Id> id = mapped.Find("two")) ...
 */
class Dict {
 public:
  /**
   * Builds from the keys of a random-access range, each numbered by its place. The keys must be distinct: two equal
   * ones let the build go on for ever.
   *
   * Throws `std::length_error` for a key above 65535 bytes or more than 1717986914 keys. An element that is a view, or
   * a reference to a string, is read in place; a range that makes its strings anew is copied first.
   */
  template <std::ranges::random_access_range Keys>
  requires std::convertible_to<std::ranges::range_reference_t<Keys>, std::string_view>
  static Dict Build(const Keys& keys, BuildOptions options = {}) {
    return Building<Keys>(keys).Run(nullptr, 0, options);
  }

  /** As above, with the value of each key in a range of the same order. `options.probe` is ignored. */
  template <std::ranges::random_access_range Keys, std::ranges::random_access_range Values>
  requires std::convertible_to<std::ranges::range_reference_t<Keys>, std::string_view> &&
      std::convertible_to<std::ranges::range_reference_t<Values>, Id>
  static Dict Build(const Keys& keys, const Values& values, BuildOptions options = {}) {
    if (std::ranges::size(values) != std::ranges::size(keys)) throw std::length_error("qxdict: a value for each key");
    Building<Keys> building(keys);
    Id all = 1;
    building.values.reserve(std::ranges::size(values));
    for (const auto& value : values) {
      building.values.push_back(static_cast<Id>(value));
      all |= building.values.back();
    }
    options.probe = 0;
    return building.Run(&Building<Keys>::Value, static_cast<UByte>(std::bit_width(all)), options);
  }

  /** Builds from `count` keys that a function gives by their numbers; copies them first, so that it may throw. */
  template <std::invocable<Id> KeyOf>
  requires std::convertible_to<std::invoke_result_t<KeyOf&, Id>, std::string_view>
  static Dict Build(Id count, KeyOf key_of, BuildOptions options = {}) {
    std::vector<std::string> keys;
    keys.reserve(count);
    for (Id i = 0; i < count; i++) keys.emplace_back(std::string_view(std::invoke(key_of, i)));
    return Build(keys, options);
  }

  /** Maps a file. It is `<dir>/<name>.<suffix>`; a null `dir` is none. Throws `std::system_error`. */
  static Dict Open(const char* dir, const char* name, const char* suffix = nullptr) {
    ::HashDict* dict = HashDictOpen(dir, name, suffix);
    if (dict == nullptr) detail::ThrowErrno("cannot open " + detail::PathOf(dir, FileName(name, suffix)));
    return Dict(dict, [](::HashDict* d) { HashDictClose(d); });
  }

  /** Reads a record of `HashDictFileWrite` from a channel; nothing when the channel ends early or it is refused. */
  static std::optional<Dict> Read(Channel* channel) {
    ::HashDict* dict = nullptr;
    if (!HashDictFileRead(&dict, channel)) return std::nullopt;
    return Dict(dict, [](::HashDict* d) { HashDictMemClose(d); });
  }

  /**
   * Opens a record of `HashDictMMWrite` in a mapping of the caller's, from `*at` on; `*at` moves behind it. Nothing
   * when there is no record. The mapping must outlive the dictionary.
   */
  static std::optional<Dict> Map(std::span<const UByte> mapping, size_t* at) {
    UByte* base = const_cast<UByte*>(mapping.data());  // is read, not written
    UByte* from = base + *at;
    ::HashDict* dict = nullptr;
    const bool found = HashDictMMRead(&dict, base, &from, base + mapping.size()) != FALSE;
    *at = static_cast<size_t>(from - base);
    if (!found) return std::nullopt;
    return Dict(dict, HashDictMMFree);
  }

  /** The key's number or value; nothing for a key that is known to be foreign. */
  std::optional<Id> Find(Bytes key) const {
    if (key.size() > HashDictMaxLength(get())) return std::nullopt;
    const Id id = HashDictFind(get(), key.data(), static_cast<UInt>(key.size()));
    return id == HASHDICT_NOT_FOUND ? std::nullopt : std::optional<Id>(id);
  }

  /** The first two keys of a range that are equal, by their places: the later one is the first that repeats another. */
  template <std::ranges::random_access_range Keys>
  requires std::convertible_to<std::ranges::range_reference_t<Keys>, std::string_view>
  static std::optional<std::pair<Id, Id>> FindEqual(const Keys& keys) {
    Building<Keys> building(keys);
    std::pair<Id, Id> equal;
    if (HashDictKeysDistinct(static_cast<Id>(building.keys.size()), &building, Building<Keys>::Key, &equal.first,
                             &equal.second)) {
      return std::nullopt;
    }
    return equal;
  }

  /** What is wrong with an image from outside; nothing where it is sound. */
  std::optional<std::string_view> Damage() const { return detail::Damage<HashDictCheck>(get()); }

  /**
   * Arranges the dictionary for some thousand look-ups and more (HashDictPrepare); not beside look-ups. False when it
   * has to be asked as it is.
   */
  bool Prepare() { return HashDictPrepare(get()) != FALSE; }

  Id size() const { return HashDictSize(get()); }
  UInt max_length() const { return HashDictMaxLength(get()); }
  /** Bytes in the image. */
  size_t image_size() const { return HashDictFileSize(get()); }

  /** Writes a file in place. It is `<dir>/<name>.<suffix>`. Throws `std::system_error`. */
  void Write(const char* dir, const char* name, const char* suffix = nullptr) const {
    if (!HashDictWrite(get(), dir, name, suffix, FALSE)) {
      detail::ThrowErrno("cannot write " + detail::PathOf(dir, FileName(name, suffix)));
    }
  }

  /** As `Write`, in place of a file that may be there: readers see the old one or the new one, whole. */
  void Replace(const char* dir, const char* name, const char* suffix = nullptr) const {
    if (!HashDictReplace(get(), dir, name, suffix, FALSE)) {
      detail::ThrowErrno("cannot replace " + detail::PathOf(dir, FileName(name, suffix)));
    }
  }

  ::HashDict* get() const { return dict_.get(); }

 private:
  using Releaser = void (*)(::HashDict*);

  // The keys of a build where the C callbacks find them.
  template <class Keys>
  struct Building {
    // Elements that are references, or views, stay what they are while the build reads them again and again.
    static constexpr bool kInPlace = std::is_reference_v<std::ranges::range_reference_t<const Keys>> ||
                                     std::same_as<std::ranges::range_value_t<const Keys>, std::string_view>;
    std::vector<std::string_view> keys;
    std::vector<std::string> copies;
    std::vector<Id> values;

    explicit Building(const Keys& from) {
      const size_t count = std::ranges::size(from);
      if (count > kMostKeys) throw std::length_error("qxdict: more keys than a dictionary holds");
      keys.reserve(count);
      if constexpr (!kInPlace) copies.reserve(count);
      for (auto&& element : from) {
        if constexpr (kInPlace) {
          keys.emplace_back(element);
        } else {
          copies.emplace_back(std::string_view(element));
          keys.emplace_back(copies.back());
        }
        if (keys.back().size() > kLongestKey) throw std::length_error("qxdict: a key of more than 65535 bytes");
      }
    }

    static UShort Key(void* building, Id index, const UByte** bytes) {
      const std::string_view key = static_cast<Building*>(building)->keys[index];
      *bytes = key.empty() ? reinterpret_cast<const UByte*>("") : reinterpret_cast<const UByte*>(key.data());
      return static_cast<UShort>(key.size());
    }
    static Id Value(void* building, Id index) { return static_cast<Building*>(building)->values[index]; }

    Dict Run(DictValFun value, UByte bits, BuildOptions options) {
      return Dict(HashDictBuild(static_cast<Id>(keys.size()), this, Key, value, bits, options.probe, options.verbose),
                  HashDictFree);
    }
  };

  static constexpr size_t kMostKeys = 1717986914;
  static constexpr size_t kLongestKey = 65535;

  Dict(::HashDict* dict, Releaser release) : dict_(dict, release) {}

  static std::string FileName(const char* name, const char* suffix) {
    return std::string(name) + "." + (suffix == nullptr ? HASHDICT_SUFFIX : suffix);
  }

  std::unique_ptr<::HashDict, Releaser> dict_;
};

/** What a table without a hash, or an equality, of its own has: `HashBytes`, and equal bytes. */
struct ByBytes {};

namespace detail {

/** The C functions of `HashTable`, as the common face of both tables calls them. */
struct TableCalls {
  using Record = ::HashTable;
  using Iterator = ::HashTableIterator;
  static constexpr auto kFree = HashTableFree;
  static constexpr auto kFind = HashTableFind;
  static constexpr auto kGrow = HashTableGrow;
  static constexpr auto kReserve = HashTableReserve;
  static constexpr auto kCheck = HashTableCheck;
  static constexpr auto kKey = HashTableKey;
  static constexpr auto kSize = HashTableSize;
  static constexpr auto kCapacity = HashTableCapacity;
  static constexpr auto kFull = HashTableFull;
  static constexpr auto kClear = HashTableClear;
  static constexpr auto kCopy = HashTableCopy;
  static constexpr auto kGetOffset = HashTableGetOffset;
  static constexpr auto kEnumerate = HashTableEnumerate;
  static constexpr auto kIteratorEnd = HashTableIteratorEnd;
  static constexpr auto kIteratorNext = HashTableIteratorNext;
  static constexpr auto kIteratorGetValue = HashTableIteratorGetValue;
  static constexpr auto kIteratorFinalize = HashTableIteratorFinalize;
  static Iterator* Start(Record* table, void*) { return HashTableIteratorInit(table); }
  static UInt Select(Record* table, UInt count, HashSelectFunction select, void* context) {
    return HashTableSelect(table, count, select, context, nullptr);
  }
  static void Sort(Record* table, HashCompareFunction compare, void* context) {
    HashTableSort(table, compare, context, nullptr);
  }
  static UByte* At(const Record* table, UInt i) { return HashTableGetIndex(table, i, nullptr); }
};

/** The same of `HashDelTable`. */
struct DelTableCalls {
  using Record = ::HashDelTable;
  using Iterator = ::HashDelTableIterator;
  static constexpr auto kFree = HashDelTableFree;
  static constexpr auto kFind = HashDelTableFind;
  static constexpr auto kGrow = HashDelTableGrow;
  static constexpr auto kReserve = HashDelTableReserve;
  static constexpr auto kCheck = HashDelTableCheck;
  static constexpr auto kKey = HashDelTableKey;
  static constexpr auto kSize = HashDelTableSize;
  static constexpr auto kCapacity = HashDelTableCapacity;
  static constexpr auto kFull = HashDelTableFull;
  static constexpr auto kClear = HashDelTableClear;
  static constexpr auto kCopy = HashDelTableCopy;
  static constexpr auto kGetOffset = HashDelTableGetOffset;
  static constexpr auto kEnumerate = HashDelTableEnumerate;
  static constexpr auto kIteratorEnd = HashDelTableIteratorEnd;
  static constexpr auto kIteratorNext = HashDelTableIteratorNext;
  static constexpr auto kIteratorGetValue = HashDelTableIteratorGetValue;
  static constexpr auto kIteratorFinalize = HashDelTableIteratorFinalize;
  static Iterator* Start(Record* table, void* context) { return HashDelTableIteratorInit(table, context); }
  static UInt Select(Record* table, UInt count, HashSelectFunction select, void* context) {
    return HashDelTableSelect(table, count, select, context);
  }
  static void Sort(Record* table, HashCompareFunction compare, void* context) {
    HashDelTableSort(table, compare, context);
  }
  static UByte* At(const Record* table, UInt i) { return HashDelTableGetIndex(table, i); }
};

/** What both tables share: see `Table` and `DelTable`. */
template <class Calls, class Value, class Hash, class Equal>
requires std::is_trivially_copyable_v<Value>
class BasicTable {
 public:
  using Record = typename Calls::Record;

  /** An entry: a reference into the table, good as long as an entry pointer is. Its value may lie at any address. */
  class Entry {
   public:
    Entry() = default;
    Entry(const Record* table, UByte* at) : table_(table), at_(at) {}

    std::string_view key() const {
      const UByte* bytes = nullptr;
      const UInt length = Calls::kKey(table_, at_, &bytes);
      return Text(bytes, length);
    }

    Value value() const {
      Value value;
      std::memcpy(&value, at_, sizeof value);
      return value;
    }
    void set(const Value& value) const { std::memcpy(at_, &value, sizeof value); }

    operator Value() const { return value(); }
    const Entry& operator+=(const Value& more) const requires requires(Value v) { v + v; }
    {
      set(static_cast<Value>(value() + more));
      return *this;
    }

    /** The entry pointer of the C functions. */
    UByte* get() const { return at_; }
    /** The heap offset of the entry, which outlives its pointer; see `AtOffset`. */
    UInt offset() const { return static_cast<UInt>(at_ - Calls::kGetOffset(table_, 0)); }

   private:
    const Record* table_ = nullptr;
    UByte* at_ = nullptr;
  };

  /** Walks the entries in the order of their insertion. */
  class Iterator {
   public:
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using iterator_concept = std::forward_iterator_tag;
    using iterator_category = std::input_iterator_tag;

    Iterator() = default;
    explicit Iterator(const typename Calls::Iterator& at) : at_(at) {}

    Entry operator*() const { return {at_.t_hash, Calls::kIteratorGetValue(&at_)}; }
    Iterator& operator++() {
      Calls::kIteratorNext(&at_);
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator& other) const { return at_.t_offset == other.at_.t_offset; }
    bool operator==(std::default_sentinel_t) const { return Calls::kIteratorEnd(&at_) != FALSE; }

   private:
    typename Calls::Iterator at_ = {};
  };

  /** Looks a key up. */
  std::optional<Entry> Find(Bytes key) { return Wrap(CallFind(key, FALSE)); }
  bool Contains(Bytes key) { return CallFind(key, FALSE) != nullptr; }

  /** Looks a key up and inserts it, its value all zero bytes, where it is missing. Nothing when the table is full. */
  std::optional<Entry> TryInsert(Bytes key) { return Wrap(CallFind(key, TRUE)); }

  /** As `TryInsert`, but grows a full table by half. Throws `std::length_error` when that does not help. */
  Entry Insert(Bytes key) {
    UByte* at = CallFind(key, TRUE);
    if (at == nullptr) {
      Grow(1.5F);
      at = CallFind(key, TRUE);
      if (at == nullptr) throw std::length_error("qxdict: the table cannot grow");
    }
    return {get(), at};
  }
  Entry operator[](Bytes key) { return Insert(key); }

  /** Raises the capacity to itself times `factor`; see the C function for what happens when it cannot. */
  void Grow(float factor) {
    Context context(functions_);
    Calls::kGrow(get(), factor, &context);
  }

  /** Grows at once to a capacity that is known. Throws `std::length_error` when that cannot be had. */
  void Reserve(UInt capacity) {
    Context context(functions_);
    if (!Calls::kReserve(get(), capacity, &context)) throw std::length_error("qxdict: the table cannot grow");
  }

  /** What is wrong with a table from outside; nothing where it is sound. */
  std::optional<std::string_view> Damage() const { return detail::Damage<Calls::kCheck>(get()); }

  UInt size() const { return Calls::kSize(get()); }
  UInt capacity() const { return Calls::kCapacity(get()); }
  bool full() const { return Calls::kFull(get()) != FALSE; }
  void Clear() { Calls::kClear(get()); }
  Entry AtOffset(UInt offset) const { return {get(), Calls::kGetOffset(get(), offset)}; }

  /** All entries in the order of their insertion, as a forward range; each call starts a walk. */
  auto entries() {
    Context context(functions_);
    Owner<typename Calls::Iterator, Calls::kIteratorFinalize> start(Calls::Start(get(), &context));
    return Range(Iterator(*start), std::default_sentinel);
  }

  /** Calls `visit(entry)` for all entries in the order of their insertion, until it returns false (if it returns). */
  template <std::invocable<Entry> Visit>
  bool ForEach(Visit visit) {
    Visiting<Visit> visiting(functions_, visit, get());
    const UInt stopped = Calls::kEnumerate(
        get(), 0,
        [](UByte* at, void* context) -> UInt {
          auto* v = static_cast<Visiting<Visit>*>(static_cast<Context*>(context));
          return v->passage.template Run<UInt>(
              1, [&](Visit& fun) -> UInt { return detail::Visit(fun, Entry(v->table, at)) ? 0 : 1; });
        },
        static_cast<Context*>(&visiting));
    visiting.passage.End();
    return stopped == 0;
  }

  /**
   * Chooses the entries of which `keep(entry)` is true, at most `count` of them (0: no limit), and gives the hash index
   * up for it: until `Clear` the table can be sorted and indexed, not searched. When `keep` throws the table is left
   * with what was chosen before.
   */
  template <std::predicate<Entry> Keep>
  UInt Select(Keep keep, UInt count = 0) {
    Visiting<Keep> visiting(functions_, keep, get());
    const UInt chosen = Calls::Select(
        get(), count,
        [](UByte* at, void* context) -> Boolean {
          auto* v = static_cast<Visiting<Keep>*>(static_cast<Context*>(context));
          return v->passage.template Run<Boolean>(
              FALSE, [&](Keep& fun) -> Boolean { return std::invoke(fun, Entry(v->table, at)) ? TRUE : FALSE; });
        },
        static_cast<Context*>(&visiting));
    visiting.passage.End();
    return chosen;
  }
  UInt SelectAll() {
    Context context(functions_);
    return Calls::Select(get(), 0, nullptr, &context);
  }

  /** Sorts the chosen entries by `compare(a, b)`, an `int` or an ordering. When it throws their order is not told. */
  template <class Compare>
  requires std::invocable<Compare&, Entry, Entry>
  void Sort(Compare compare) {
    Visiting<Compare> visiting(functions_, compare, get());
    Calls::Sort(
        get(),
        [](const UByte* a, const UByte* b, void* context) -> int {
          auto* v = static_cast<Visiting<Compare>*>(static_cast<Context*>(context));
          return v->passage.template Run<int>(0, [&](Compare& fun) -> int {
            return Sign(
                std::invoke(fun, Entry(v->table, const_cast<UByte*>(a)), Entry(v->table, const_cast<UByte*>(b))));
          });
        },
        static_cast<Context*>(&visiting));
    visiting.passage.End();
  }

  /** The i-th chosen entry, below `size()`. */
  Entry At(UInt i) const { return {get(), Calls::At(get(), i)}; }

  /** The chosen entries, as a random-access range. */
  auto selected() const { return Places<&BasicTable::At>(*this); }

  Record* get() const { return record_.get(); }

 protected:
  struct Functions {
    [[no_unique_address]] Hash hash;
    [[no_unique_address]] Equal equal;
  };

  // What every call hands to the table's callbacks; a visitor's context starts with it.
  struct Context {
    explicit Context(const Functions& f) : functions(&f) {}
    const Functions* functions;
  };
  template <class Fun>
  struct Visiting : Context {
    Visiting(const Functions& f, Fun& fun, const Record* t) : Context(f), passage(fun), table(t) {}
    Passage<Fun> passage;
    const Record* table;
  };

  BasicTable(Record* record, Hash hash, Equal equal)
      : record_(Mapped(record)), functions_{std::move(hash), std::move(equal)} {}

  static constexpr HashKeyFunction HashFunction() {
    if constexpr (std::same_as<Hash, ByBytes>) {
      return nullptr;
    } else {
      static_assert(std::is_nothrow_invocable_r_v<UInt, const Hash&, std::string_view>, "a noexcept hash of a key");
      return [](const UByte* bytes, UInt length, void* context) -> UInt {
        return static_cast<Context*>(context)->functions->hash(Text(bytes, length));
      };
    }
  }

  static constexpr HashEqualFunction EqualFunction() {
    if constexpr (std::same_as<Equal, ByBytes>) {
      return nullptr;
    } else {
      static_assert(std::is_nothrow_invocable_r_v<bool, const Equal&, std::string_view, std::string_view>,
                    "a noexcept equality of two keys");
      return [](const UByte* stored, UInt stored_length, const UByte* bytes, UInt length, void* context) -> Boolean {
        const Functions* functions = static_cast<Context*>(context)->functions;
        return functions->equal(Text(stored, stored_length), Text(bytes, length)) ? TRUE : FALSE;
      };
    }
  }

  UByte* CallFind(Bytes key, Boolean create) {
    Context context(functions_);
    return Calls::kFind(get(), key.data(), key.length(), create, nullptr, &context);
  }

  std::optional<Entry> Wrap(UByte* at) const {
    return at == nullptr ? std::nullopt : std::optional<Entry>(std::in_place, get(), at);
  }

  Owner<Record, Calls::kFree> record_;
  Functions functions_;
};

}  // namespace detail

/** How a table keeps its keys and its memory. */
struct TableOptions {
  UByte key_size = 0;  /**< bytes of a key's length, 1 to 4; 0: 1 to 5 as each key needs */
  bool mapped = false; /**< `Table` only: mappings of its own in place of blocks of the allocator */
};

/**
 * Byte-string keys, each with a `Value`, none removed; see `dict/hashtable.h`. `Value` is any trivially copyable type.
 *
 * A hash and an equality of the caller's are function objects, `UInt(std::string_view) const noexcept` and
 * `bool(std::string_view stored, std::string_view wanted) const noexcept`.
 */
template <class Value, class Hash = ByBytes, class Equal = ByBytes>
class Table : public detail::BasicTable<detail::TableCalls, Value, Hash, Equal> {
  using Base = detail::BasicTable<detail::TableCalls, Value, Hash, Equal>;

 public:
  explicit Table(UInt capacity, TableOptions options = {}, Hash hash = {}, Equal equal = {})
      : Base(HashTableNew(capacity, Base::HashFunction(), nullptr, Base::EqualFunction(), sizeof(Value),
                          options.key_size, options.mapped),
             std::move(hash), std::move(equal)) {}

  /**
   * Reads a file of `Save`. Throws `std::system_error`, `std::runtime_error` for a file that is too short, and
   * `std::invalid_argument` for one with values of another size.
   */
  static Table Load(const std::string& path, bool mapped = false, Hash hash = {}, Equal equal = {}) {
    QXErrorClear();
    ::HashTable* table = HashTableRead(path.c_str(), Base::HashFunction(), nullptr, Base::EqualFunction(), mapped);
    if (table == nullptr && *QXErrorText() == '\0') throw std::bad_alloc();
    if (table == nullptr) detail::ThrowRecorded();
    Table loaded(table, std::move(hash), std::move(equal));
    if (table->t_val_len != sizeof(Value)) throw std::invalid_argument(path + ": values of another size");
    return loaded;
  }

  /** Writes the table to a file, in place. Throws `std::system_error`. */
  void Save(const std::string& path) const { WriteWith<HashTableWrite>(path); }

  /** As `Save`, in place of a file that may be there: readers see the old one or the new one, whole. */
  void Replace(const std::string& path) const { WriteWith<HashTableReplace>(path); }

  /** An independent copy. */
  Table Copy() const { return Table(HashTableCopy(this->get()), this->functions_.hash, this->functions_.equal); }

 private:
  Table(::HashTable* table, Hash hash, Equal equal) : Base(table, std::move(hash), std::move(equal)) {}

  template <auto kWrite>
  void WriteWith(const std::string& path) const {
    QXErrorClear();
    if (kWrite(this->get(), path.c_str())) return;
    if (*QXErrorText() == '\0') detail::ThrowErrno("error writing " + path);
    detail::ThrowRecorded();
  }
};

/** Byte-string keys, each with a `Value`, removable; see `dict/hashdeltable.h`. Otherwise as `Table`. */
template <class Value, class Hash = ByBytes, class Equal = ByBytes>
class DelTable : public detail::BasicTable<detail::DelTableCalls, Value, Hash, Equal> {
  using Base = detail::BasicTable<detail::DelTableCalls, Value, Hash, Equal>;

 public:
  explicit DelTable(UInt capacity, TableOptions options = {}, Hash hash = {}, Equal equal = {})
      : Base(HashDelTableNew(capacity, Base::HashFunction(), nullptr, Base::EqualFunction(), sizeof(Value),
                             options.key_size),
             std::move(hash), std::move(equal)) {}

  /** Removes a key; false when it was not there. */
  bool Remove(Bytes key) {
    typename Base::Context context(this->functions_);
    return HashDelTableRemove(this->get(), key.data(), key.length(), &context) != FALSE;
  }

  DelTable Copy() const {
    return DelTable(HashDelTableCopy(this->get()), this->functions_.hash, this->functions_.equal);
  }

  /** The table's memory image. */
  std::vector<UByte> Image() const {
    UByteArray array;
    ArrayInit_(&array.a);
    HashDelTableMemWrite(this->get(), &array);
    const std::unique_ptr<UByteArray, FreeArray> owner(&array);
    return {array.t.elts, array.t.elts + array.t.length};
  }

  /**
   * Reads an image from the front of `*from`, which then starts behind it; false when bytes are missing, or when the
   * image's values have another size: the table is then empty.
   */
  bool ReadImage(std::span<const UByte>* from) {
    UByte* at = const_cast<UByte*>(from->data());  // is read, not written
    UByte* const end = at + from->size();
    bool read = HashDelTableMemRead(this->get(), &at, end) != FALSE;
    *from = {at, end};
    if (read && this->get()->t_val_len == sizeof(Value)) return true;
    *this = DelTable(0, {.key_size = 0, .mapped = false}, this->functions_.hash, this->functions_.equal);
    return false;
  }

 private:
  struct FreeArray {
    void operator()(UByteArray* array) const { ArrayFree_(&array->a, "dict/qxdict.hpp", __LINE__); }
  };

  DelTable(::HashDelTable* table, Hash hash, Equal equal) : Base(table, std::move(hash), std::move(equal)) {}
};

/** Strings for the identifiers 0, 1, 2, ... on their way into a pair of files; see `dict/attrdict.h`. */
class AttributesBuilder {
 public:
  /** Creates, or empties, the two files. Throws `std::system_error`. */
  explicit AttributesBuilder(const char* dir, const char* name) : dict_(AttrDictBuild(dir, name, FALSE)) {
    if (dict_ == nullptr) detail::ThrowErrno("cannot build " + detail::PathOf(dir, name));
  }

  /** Gives the next identifier its string. Throws `std::length_error` above 255 bytes. */
  void Add(Bytes text) { AttrDictAdd(dict_.get(), text.data(), static_cast<UByte>(text.length(255))); }

  UInt size() const { return AttrDictSize(dict_.get()); }

  /** Completes the files. Throws `std::system_error`. A builder that goes without leaves files with what was added. */
  void Commit() {
    if (!AttrDictCommit(dict_.release())) detail::ThrowErrno("cannot write an attribute dictionary");
  }

  ::AttrDict* get() const { return dict_.get(); }

 private:
  detail::Owner<::AttrDict, AttrDictCommit> dict_;
};

/** An attribute dictionary open for reading. */
class Attributes {
 public:
  /** Maps the two files. Throws `std::system_error`. */
  static Attributes Open(const char* dir, const char* name) {
    ::AttrDict* dict = AttrDictOpen(dir, name);
    if (dict == nullptr) detail::ThrowErrno("cannot open " + detail::PathOf(dir, name));
    return Attributes(dict);
  }

  UInt size() const { return AttrDictSize(get()); }

  /** What is wrong with a pair from outside; nothing where it is sound. */
  std::optional<std::string_view> Damage() const { return detail::Damage<AttrDictCheck>(get()); }

  /** The string of an identifier; nothing when it has none. */
  std::optional<std::string_view> Get(Id id) const {
    const UByte* bytes = nullptr;
    const UByte length = AttrDictGet(get(), id, &bytes);
    return bytes == nullptr ? std::nullopt : std::optional<std::string_view>(detail::Text(bytes, length));
  }

  /** Calls `visit(text)` for the identifiers from `first` on, in order, until it returns false (if it returns). */
  template <std::invocable<std::string_view> Visit>
  bool ForEach(Visit visit, Id first = 0) const {
    if (first >= size()) return true;
    detail::Passage<Visit> passage(visit);
    const UInt stopped = AttrDictEnumerate(
        get(), first,
        [](UByte* bytes, UInt length, void* p) -> UInt {
          return static_cast<detail::Passage<Visit>*>(p)->template Run<UInt>(
              1, [&](Visit& fun) -> UInt { return detail::Visit(fun, detail::Text(bytes, length)) ? 0 : 1; });
        },
        &passage);
    passage.End();
    return stopped == 0;
  }

  ::AttrDict* get() const { return dict_.get(); }

 private:
  explicit Attributes(::AttrDict* dict) : dict_(dict) {}

  detail::Owner<::AttrDict, AttrDictClose> dict_;
};

namespace detail {

struct Map32Calls {
  using Record = ::IdMap;
  using Number = Id;
  static constexpr Number kNone = IDMAP_NONE;
  static constexpr auto kNew = IdMapNew;
  static constexpr auto kDelete = IdMapDelete;
  static constexpr auto kClear = IdMapClear;
  static constexpr auto kSize = IdMapSize;
  static constexpr auto kGet = IdMapGet;
  static constexpr auto kFind = IdMapFind;
  static constexpr auto kGrow = IdMapGrow;
};

struct Map64Calls {
  using Record = ::RefMap;
  using Number = ULong;
  static constexpr Number kNone = REFMAP_NONE;
  static constexpr auto kNew = RefMapNew;
  static constexpr auto kDelete = RefMapDelete;
  static constexpr auto kClear = RefMapClear;
  static constexpr auto kSize = RefMapSize;
  static constexpr auto kGet = RefMapGet;
  static constexpr auto kFind = RefMapFind;
  static constexpr auto kGrow = RefMapGrow;
};

/** What both integer maps share: see `Map32` and `Map64`. */
template <class Calls>
class BasicMap {
 public:
  using Number = typename Calls::Number;
  using Pair = std::pair<Number, Number>;

  /** The one number that is neither key nor value: as one it throws `std::invalid_argument`. */
  static constexpr Number kNone = Calls::kNone;

  BasicMap() : map_(Calls::kNew()) {}

  std::optional<Number> Find(Number key) const {
    if (key == kNone) return std::nullopt;
    Boolean added = FALSE;
    const Number value = Calls::kFind(get(), key, kNone, kNone, &added);
    return value == kNone ? std::nullopt : std::optional<Number>(value);
  }

  /** Inserts a missing key; false, and its value stays, when it is there. */
  bool Insert(Number key, Number value) { return Put(key, value, kNone); }
  /** Inserts a missing key, or replaces the value of one that is there; true when it was missing. */
  bool Assign(Number key, Number value) { return Put(key, value, value); }

  UInt size() const { return Calls::kSize(get()); }
  void Clear() { Calls::kClear(get()); }
  void Reserve(UInt pairs) { Calls::kGrow(get(), pairs); }

  /** The n-th pair, below `size()`. */
  Pair At(UInt n) const {
    Pair pair;
    Calls::kGet(get(), n, &pair.first, &pair.second);
    return pair;
  }

  /** All pairs, as a random-access range. */
  auto pairs() const { return Places<&BasicMap::At>(*this); }

  typename Calls::Record* get() const { return map_.get(); }

 private:
  bool Put(Number key, Number value, Number update) {
    if (key == kNone || value == kNone) throw std::invalid_argument("qxdict: the number that stands for none");
    Boolean added = FALSE;
    Calls::kFind(get(), key, value, update, &added);
    return added != FALSE;
  }

  Owner<typename Calls::Record, Calls::kDelete> map_;
};

struct Tree32Calls {
  using Record = ::AVLDict;
  using Number = AVLDictKey;
  static constexpr auto kNew = QXAVLDictNew;
  static constexpr auto kDelete = QXAVLDictDelete;
  static constexpr auto kClear = QXAVLDictClear;
  static constexpr auto kSize = QXAVLDictSize;
  static constexpr auto kValueGet = QXAVLDictValueGet;
  static constexpr auto kValueInsert = QXAVLDictValueInsert;
  static constexpr auto kRemove = QXAVLDictRemove;
  static constexpr auto kEnumerate = QXAVLDictEnumerate;

  static constexpr auto kLowerBound = QXAVLDictLowerBound;
  static Number Below(Record* tree, Number key) { return QXAVLDictFindNearest(tree, key, -1, nullptr); }
};

struct Tree64Calls {
  using Record = ::AVLLDict;
  using Number = AVLLDictKey;
  static constexpr auto kNew = QXAVLLDictNew;
  static constexpr auto kDelete = QXAVLLDictDelete;
  static constexpr auto kClear = QXAVLLDictClear;
  static constexpr auto kSize = QXAVLLDictSize;
  static constexpr auto kValueGet = QXAVLLDictValueGet;
  static constexpr auto kValueInsert = QXAVLLDictValueInsert;
  static constexpr auto kRemove = QXAVLLDictRemove;
  static constexpr auto kEnumerate = QXAVLLDictEnumerate;

  static constexpr auto kLowerBound = QXAVLLDictLowerBound;
  static Number Below(Record* tree, Number key) { return QXAVLLDictFindNearest(tree, key, -1); }
};

/** Calls `visit(key, value)` in order through a tree's enumeration, until it returns false (if it returns). */
template <class Number, auto kEnumerate, class Record, class Visit>
bool EnumerateTree(Record* tree, bool reverse, Visit& visit) {
  Passage<Visit> passage(visit);
  const Boolean ended = kEnumerate(
      tree, reverse ? TRUE : FALSE,
      [](Record*, Number key, Number value, void* p) -> Boolean {
        return static_cast<Passage<Visit>*>(p)->template Run<Boolean>(
            FALSE, [&](Visit& fun) -> Boolean { return detail::Visit(fun, key, value) ? TRUE : FALSE; });
      },
      &passage);
  passage.End();
  return ended != FALSE;
}

/** The pair of the least key that is not below another. */
template <auto kLowerBound, class Record, class Number>
std::optional<std::pair<Number, Number>> LowerBound(const Record* tree, Number key) {
  std::pair<Number, Number> pair;
  if (!kLowerBound(tree, key, &pair.first, &pair.second)) return std::nullopt;
  return pair;
}

/** Walks a tree's pairs upwards by one search a step, so that the tree may change meanwhile. */
template <class Tree>
class PairIterator {
 public:
  using Number = typename Tree::Number;
  using value_type = std::pair<Number, Number>;
  using difference_type = std::ptrdiff_t;
  using iterator_concept = std::forward_iterator_tag;
  using iterator_category = std::input_iterator_tag;

  PairIterator() = default;
  PairIterator(const Tree* tree, Number from) : tree_(tree), at_(tree->FindAbove(from)) {}

  const value_type& operator*() const { return *at_; }
  PairIterator& operator++() {
    const bool last = at_->first == std::numeric_limits<Number>::max();
    at_ = last ? std::nullopt : tree_->FindAbove(at_->first + 1);
    return *this;
  }
  PairIterator operator++(int) {
    PairIterator before = *this;
    ++*this;
    return before;
  }
  bool operator==(const PairIterator& other) const { return at_ == other.at_; }
  bool operator==(std::default_sentinel_t) const { return !at_.has_value(); }

 private:
  const Tree* tree_ = nullptr;
  std::optional<value_type> at_;
};

/** The pairs of a tree with keys from `from` on. */
template <class Tree>
auto PairsFrom(const Tree* tree, typename Tree::Number from) {
  return Range(PairIterator<Tree>(tree, from), std::default_sentinel);
}

/** What both AVL trees share: see `Tree32` and `Tree64`. */
template <class Calls>
class BasicTree {
 public:
  using Number = typename Calls::Number;
  using Pair = std::pair<Number, Number>;

  /** @param keys  keys to make room for. Throws `std::bad_alloc`. */
  explicit BasicTree(UInt keys = 0) : tree_(Mapped(Calls::kNew(keys > ~UInt{0} - 2 ? ~UInt{0} : keys + 2))) {}

  std::optional<Number> Find(Number key) const {
    const Number* value = Calls::kValueGet(get(), key);
    return value == nullptr ? std::nullopt : std::optional<Number>(*value);
  }

  /** Stores a value; gives the one that the key had before. */
  std::optional<Number> Insert(Number key, Number value) {
    const UInt before = size();
    const Number old = Calls::kValueInsert(get(), key, value, 0, nullptr);
    return size() != before ? std::nullopt : std::optional<Number>(old);
  }

  /** Removes a key; gives the value that it had. */
  std::optional<Number> Remove(Number key) {
    const UInt before = size();
    const Number old = Calls::kRemove(get(), key, 0);
    return size() == before ? std::nullopt : std::optional<Number>(old);
  }

  /** The pair of the greatest key that is not above `key`. */
  std::optional<Pair> FindBelow(Number key) const {
    const Number found = Calls::Below(get(), key);
    // 0 says "none", or is the neighbour.
    const Number* value = Calls::kValueGet(get(), found);
    return value == nullptr ? std::nullopt : std::optional<Pair>(std::in_place, found, *value);
  }

  /** The pair of the least key that is not below `key`. */
  std::optional<Pair> FindAbove(Number key) const { return LowerBound<Calls::kLowerBound>(get(), key); }

  /** The pair of the key nearest to `key`, of two equally near the greater. Costs both of the above. */
  std::optional<Pair> FindNearest(Number key) const {
    const std::optional<Pair> below = FindBelow(key);
    const std::optional<Pair> above = FindAbove(key);
    if (!below || !above) return below ? below : above;
    return key - below->first < above->first - key ? below : above;
  }

  UInt size() const { return Calls::kSize(get()); }
  void Clear() { Calls::kClear(get()); }

  /** Calls `visit(key, value)` for all pairs in order, until it returns false (if it returns). */
  template <std::invocable<Number, Number> Visit>
  bool ForEach(Visit visit, bool reverse = false) const {
    return EnumerateTree<Number, Calls::kEnumerate>(get(), reverse, visit);
  }

  /** The pairs with keys from `from` on, in order, as a forward range. */
  auto pairs(Number from = 0) const { return PairsFrom(this, from); }

  typename Calls::Record* get() const { return tree_.get(); }

 private:
  Owner<typename Calls::Record, Calls::kDelete> tree_;
};

}  // namespace detail

/** 32-bit numbers to 32-bit numbers, unordered; see `dict/idmap.h`. */
using Map32 = detail::BasicMap<detail::Map32Calls>;
/** 64-bit numbers to 64-bit numbers, unordered. */
using Map64 = detail::BasicMap<detail::Map64Calls>;
/** Ordered 32-bit numbers to 32-bit numbers; see `dict/avldict.h`. Look-ups write, too: one thread at a time. */
using Tree32 = detail::BasicTree<detail::Tree32Calls>;
/** Ordered 64-bit numbers to 64-bit numbers; see `dict/avlldict.h`. */
using Tree64 = detail::BasicTree<detail::Tree64Calls>;

/** Ordered 32-bit numbers, but 0, to 32-bit numbers; see `dict/rbdict.h`. */
class RedBlackTree {
 public:
  using Number = RBDictKey;

  explicit RedBlackTree(UInt keys = 0)
      : tree_(detail::Mapped(QXRBDictNew(keys > ~UInt{0} - 2 ? ~UInt{0} : keys + 2))) {}

  std::optional<Number> Find(Number key) const {
    // The marker for "absent" could be the value: then another marker tells.
    const Number value = QXRBDictFind(get(), key, 0);
    if (value == 0 && QXRBDictFind(get(), key, 1) == 1) return std::nullopt;
    return value;
  }

  /** Stores a value; gives the one that the key had before. Throws `std::invalid_argument` for key 0. */
  std::optional<Number> Insert(Number key, Number value) {
    if (key == 0) throw std::invalid_argument("qxdict: a red-black tree does not store key 0");
    const UInt before = size();
    const Number old = QXRBDictInsert(get(), key, value, 0);
    return size() != before ? std::nullopt : std::optional<Number>(old);
  }

  std::optional<Number> Remove(Number key) {
    const UInt before = size();
    const Number old = QXRBDictRemove(get(), key, 0);
    return size() == before ? std::nullopt : std::optional<Number>(old);
  }

  /** The pair of the least key that is not below `key`. */
  std::optional<std::pair<Number, Number>> FindAbove(Number key) const {
    return detail::LowerBound<QXRBDictLowerBound>(get(), key);
  }

  /** The pairs with keys from `from` on, in order, as a forward range. */
  auto pairs(Number from = 0) const { return detail::PairsFrom(this, from); }

  UInt size() const { return QXRBDictSize(get()); }
  void Clear() { QXRBDictClear(get()); }

  template <std::invocable<Number, Number> Visit>
  bool ForEach(Visit visit, bool reverse = false) const {
    return detail::EnumerateTree<Number, QXRBDictEnumerate>(get(), reverse, visit);
  }

  ::RBDict* get() const { return tree_.get(); }

 private:
  detail::Owner<::RBDict, QXRBDictDelete> tree_;
};

/** How a cache is cut and when it collects; see `QXCacheNewWithParams`. */
struct CacheOptions {
  UInt region_pages = 16;
  UInt page_size = 1048576;
  double safety_threshold = 1.0;
  double gc_low_threshold = 8.0;
  double gc_high_threshold = 16.0;
  std::chrono::milliseconds generation = std::chrono::minutes(1);
  UInt policy = 0; /**< `QX_CACHE_NEWEST_WINS`, `QX_CACHE_KEEP_PAGES`, `QX_CACHE_TRUE_AGE`, added up */
};

/**
 * A cache of bytes under text keys with a time of expiry, for any number of threads; see `dict/qxcache.h`, above all
 * for what it forgets. A key ends at its first zero byte.
 */
class ObjectCache {
 public:
  /** Throws `std::invalid_argument` for parameters that cannot work, and where memory cannot be had. */
  explicit ObjectCache(ULong bytes, const CacheOptions& options = {})
      : cache_(QXCacheNewWithPolicy(options.region_pages, options.page_size, options.safety_threshold,
                                    options.gc_low_threshold, options.gc_high_threshold,
                                    static_cast<UInt>(options.generation.count()), bytes, options.policy)) {
    if (cache_ == nullptr) throw std::invalid_argument("qxdict: no such cache can be made");
  }

  /**
   * Stores a value until a time; false when the cache has no room just now. An older value of the key is then still
   * there, and fetched as before.
   */
  [[nodiscard]] bool Store(const std::string& key, Bytes value, std::chrono::system_clock::time_point expires) {
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(expires.time_since_epoch());
    return StoreUntil(key, value, static_cast<ULong>(std::max<std::int64_t>(milliseconds.count(), 0)));
  }
  /** Stores a value for so long. */
  [[nodiscard]] bool Store(const std::string& key, Bytes value, std::chrono::milliseconds keep) {
    return StoreUntil(key, value,
                      GetCurrentTimeMilliseconds() + static_cast<ULong>(std::max<std::int64_t>(keep.count(), 0)));
  }
  /** Stores a value that does not expire. */
  [[nodiscard]] bool Store(const std::string& key, Bytes value) { return StoreUntil(key, value, ~ULong{0}); }

  /** A copy of the value. */
  std::optional<std::string> Fetch(const std::string& key) {
    std::string value(kFirstGuess, '\0');
    // The value may be another, and longer, when it is asked for again.
    for (;;) {
      UInt size = 0;
      const UByte* text = reinterpret_cast<const UByte*>(key.c_str());
      const bool copied =
          QXCacheGetStatic(cache_.get(), text, value.data(), static_cast<UInt>(value.size()), &size) != FALSE;
      if (!copied && size == 0) return std::nullopt;
      value.resize(size);
      if (copied) return value;
    }
  }

  /** Copies the value into a buffer: its size; larger than the buffer when it did not fit, and nothing was copied. */
  std::optional<UInt> FetchInto(const std::string& key, std::span<UByte> buffer) {
    UInt size = 0;
    const UByte* text = reinterpret_cast<const UByte*>(key.c_str());
    const UInt room = static_cast<UInt>(std::min<size_t>(buffer.size(), std::numeric_limits<UInt>::max()));
    const bool copied = QXCacheGetStatic(cache_.get(), text, buffer.data(), room, &size) != FALSE;
    return !copied && size == 0 ? std::nullopt : std::optional<UInt>(size);
  }

  /** Forgets a key for good; whether it had a value. */
  bool Remove(const std::string& key) {
    return QXCacheRemove(cache_.get(), reinterpret_cast<const UByte*>(key.c_str())) != FALSE;
  }

  struct Fill {
    UInt objects;   /**< objects in the pages, hidden and expired ones included */
    ULong bytes;    /**< of their keys and values */
    ULong capacity; /**< of all pages, headers included */
  };
  Fill HowFull() const {
    Fill fill = {};
    fill.capacity = QXCacheGetSize(cache_.get(), &fill.objects, &fill.bytes);
    return fill;
  }

  ::Cache* get() const { return cache_.get(); }

 private:
  static constexpr size_t kFirstGuess = 256;

  bool StoreUntil(const std::string& key, Bytes value, ULong expires) {
    return QXCacheStore(cache_.get(), reinterpret_cast<const UByte*>(key.c_str()), value.data(), value.length(),
                        expires) != FALSE;
  }

  detail::Owner<::Cache, QXCacheDelete> cache_;
};

}  // namespace qx

#endif
