// Table files and memory images: one set of commands over both kinds of table.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dict/qxdict.hpp"
#include "report.h"
#include "text.h"
#include "tool.h"

namespace tool {
namespace {

constexpr UInt kEmptySlot = 0xFFFFFFFF;
constexpr UInt kTombstone = 0xFFFFFFFE;
constexpr unsigned long kMostCapacity = 100000000;  // that a dump may ask for
constexpr unsigned long kMostValueLength = 0x7FFFFFFF;

const UByte* Bytes(std::string_view text) { return reinterpret_cast<const UByte*>(text.data()); }

struct Counts {
  UInt capacity;
  UInt keys;
  UInt slots;
  UInt deleted;
};

// A file of HashTableWrite.
struct TableFile {
  using Record = HashTable;
  struct Release {
    void operator()(Record* table) const { HashTableFree(table); }
  };
  using Owner = std::unique_ptr<Record, Release>;
  static constexpr const char* kKind = "table";
  static constexpr bool kRemoves = false;

  static Owner Read(const std::string& path) {
    QXErrorClear();
    Owner table(HashTableRead(path.c_str(), nullptr, nullptr, nullptr, TRUE));
    if (table != nullptr) return table;
    const std::string why = QXErrorCode() == 0 ? "shorter than its header asks for" : std::strerror(QXErrorCode());
    throw Trouble{"cannot read " + path + ": " + why};
  }
  static Owner New(UInt capacity, UInt val_len, UByte key_size) {
    return Owner(HashTableNew(capacity, nullptr, nullptr, nullptr, val_len, key_size, TRUE));
  }
  static void Write(Record* table, const std::string& path) {
    QXErrorClear();
    if (HashTableReplace(table, path.c_str())) return;
    throw Trouble{"cannot write " + path + ": " + std::strerror(QXErrorCode() != 0 ? QXErrorCode() : errno)};
  }
  static Counts Count(const Record& t) { return {t.t_entries_capacity, t.t_entries_used, t.t_entries_size, 0}; }
  static UByte* Find(Record* table, std::string_view key, Boolean create) {
    return HashTableFind(table, Bytes(key), static_cast<UInt>(key.size()), create, nullptr, nullptr);
  }
  static void Grow(Record* table) { HashTableGrow(table, 1.5F, nullptr); }
  static std::string_view Key(const Record* table, const UByte* entry) {
    const UByte* bytes = nullptr;
    const UInt length = HashTableKey(table, entry, &bytes);
    return {reinterpret_cast<const char*>(bytes), length};
  }
  template <class Visit>
  static void Walk(Record* table, Visit visit) {
    HashTableIterator* it = HashTableIteratorInit(table);
    for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it)) visit(HashTableIteratorGetValue(it));
    HashTableIteratorFinalize(it);
  }
  static bool Sound(const Record* table, const char** why) { return HashTableCheck(table, why) != FALSE; }
  static HashTableStatistics Figures(const Record* table) {
    HashTableStatistics figures;
    HashTableStats(table, &figures, nullptr);
    return figures;
  }
};

// A memory image of a HashDelTable, alone in a file.
struct ImageFile {
  using Record = HashDelTable;
  struct Release {
    void operator()(Record* table) const { HashDelTableFree(table); }
  };
  using Owner = std::unique_ptr<Record, Release>;
  static constexpr const char* kKind = "image";
  static constexpr bool kRemoves = true;

  static Owner Read(const std::string& path) {
    size_t size = 0;
    Boolean empty = FALSE;
    UByte* const base = static_cast<UByte*>(FileMapRead(nullptr, path.c_str(), &size, &empty));
    if (base == nullptr && !empty) throw Trouble{"cannot read " + path + ": " + std::strerror(errno)};
    Owner table = New(0, 0, 0);
    UByte* at = base;
    const bool read = base != nullptr && HashDelTableMemRead(table.get(), &at, base + size) != FALSE;
    const size_t behind = base == nullptr ? 0 : static_cast<size_t>(base + size - at);
    if (base != nullptr) FileUnmap(base, size);
    if (!read) throw Trouble{path + ": is no image, or ends too early"};
    if (behind != 0) throw Trouble{path + ": " + std::to_string(behind) + " bytes behind the image"};
    return table;
  }
  static Owner New(UInt capacity, UInt val_len, UByte key_size) {
    return Owner(HashDelTableNew(capacity, nullptr, nullptr, nullptr, val_len, key_size));
  }
  static void Write(Record* table, const std::string& path) {
    const std::string beside = path + ".new";
    UByteArray image;
    ArrayInit_(&image.a);
    HashDelTableMemWrite(table, &image);
    Channel* out = ChannelNew(-1, -1);
    bool written = ChannelOpenFile(out, beside.c_str(), "w") && ChannelWriteBuf(out, image.t.elts, image.t.length) &&
                   ChannelSync(out);
    int error = errno;
    if (!ChannelClose(out) && written) {
      written = false;
      error = errno;
    }
    ArrayFree_(&image.a, "qxdict", __LINE__);
    if (written) return TakePlace(beside, path);
    unlink(beside.c_str());
    throw Trouble{"cannot write " + path + ": " + std::strerror(error)};
  }
  static Counts Count(const Record& t) { return {t.t_nkeys_max, t.t_nkeys, t.t_nentries, t.t_deleted}; }
  static UByte* Find(Record* table, std::string_view key, Boolean create) {
    return HashDelTableFind(table, Bytes(key), static_cast<UInt>(key.size()), create, nullptr, nullptr);
  }
  static void Grow(Record* table) { HashDelTableGrow(table, 1.5F, nullptr); }
  static std::string_view Key(const Record* table, const UByte* entry) {
    const UByte* bytes = nullptr;
    const UInt length = HashDelTableKey(table, entry, &bytes);
    return {reinterpret_cast<const char*>(bytes), length};
  }
  // Cleans the table up first.
  template <class Visit>
  static void Walk(Record* table, Visit visit) {
    HashDelTableIterator* it = HashDelTableIteratorInit(table, nullptr);
    for (; !HashDelTableIteratorEnd(it); HashDelTableIteratorNext(it)) visit(HashDelTableIteratorGetValue(it));
    HashDelTableIteratorFinalize(it);
  }
  static bool Sound(const Record* table, const char** why) { return HashDelTableCheck(table, why) != FALSE; }
  static HashTableStatistics Figures(const Record* table) {
    HashTableStatistics figures;
    HashDelTableStats(table, &figures, nullptr);
    return figures;
  }
};

// The entries that the slots of a sound table name.
template <class F, class Visit>
void ForEachNamed(const typename F::Record& table, Visit visit) {
  for (UInt slot = 0; slot < F::Count(table).slots; slot++) {
    const UInt offset = table.t_entries[slot];
    if (offset == kEmptySlot || (F::kRemoves && offset == kTombstone)) continue;
    visit(table.t_data + offset);
  }
}

template <class F>
void CheckTable(typename F::Record* table, bool default_hash, Report* report) {
  const char* why = nullptr;
  if (!F::Sound(table, &why)) return report->Problem(why);
  if (table->t_selected || !default_hash) return;
  // Nobody is harmed by a key that is not found; but the reader who is to find it would like to know.
  ForEachNamed<F>(*table, [&](const UByte* entry) {
    const std::string_view key = F::Key(table, entry);
    if (F::Find(table, key, FALSE) != entry) {
      report->Problem("is not found where the default hash puts it: " + Escaped(key));
    }
  });
  if (!report->sound()) report->Problem("a table with a hash of its own? then --any-hash");
}

// A table that may be walked and asked.
template <class F>
typename F::Owner ReadSound(const std::string& path, const Options& options) {
  typename F::Owner table = F::Read(path);
  Report report;
  CheckTable<F>(table.get(), options.default_hash, &report);
  if (!report.sound()) throw Trouble{path + ": is damaged, or has a hash of its own; see qxdict check"};
  return table;
}

template <class F>
Exit Info(const std::string& path, const Options& options, std::FILE* out) {
  const typename F::Owner table = F::Read(path);
  const Counts n = F::Count(*table);
  Report report;
  report.Add("kind", F::kKind);
  report.Add("selected", table->t_selected != FALSE);
  report.Add(table->t_selected ? "chosen entries" : "keys", ULong{n.keys});
  report.Add("capacity", ULong{n.capacity});
  report.Add("slots", ULong{n.slots});
  if (F::kRemoves) report.Add("tombstones", ULong{n.deleted});
  report.Add("value bytes", ULong{table->t_val_len});
  report.Add("key length bytes", ULong{table->t_key_size});
  report.Add("heap bytes used", table->t_data_used);
  report.Add("heap bytes", table->t_data_size);
  report.Print(options, out);
  return kYes;
}

template <class F>
Exit Check(const std::string& path, const Options& options, std::FILE* out) {
  const typename F::Owner table = F::Read(path);
  Report report;
  CheckTable<F>(table.get(), options.default_hash, &report);
  return report.Verdict(path, options, out);
}

template <class F>
Exit Statistics(const std::string& path, const Options& options, std::FILE* out) {
  const typename F::Owner table = ReadSound<F>(path, options);
  const HashTableStatistics figures = F::Figures(table.get());
  ULong key_bytes = 0;
  ForEachNamed<F>(*table, [&](const UByte* entry) { key_bytes += F::Key(table.get(), entry).size(); });
  Report report;
  report.Add("keys", ULong{figures.s_keys});
  report.Add("load", figures.s_load);
  if (F::kRemoves) report.Add("tombstones", ULong{figures.s_tombstones});
  if (figures.s_longest_probe != 0 && options.default_hash) {
    report.Add("mean probe", figures.s_mean_probe);
    report.Add("longest probe", ULong{figures.s_longest_probe});
  }
  report.Add("key bytes", key_bytes);
  report.Add("value bytes", ULong{figures.s_keys} * table->t_val_len);
  report.Add("padding bytes", figures.s_padding);
  report.Add("dead bytes", figures.s_dead);
  report.Add("heap bytes used", figures.s_heap_used);
  report.Add("heap bytes free", figures.s_heap_size - figures.s_heap_used);
  report.Add("slot bytes", size_t{figures.s_slots} * sizeof(UInt));
  report.Print(options, out);
  return kYes;
}

template <class F>
Exit Get(const std::string& path, const std::vector<std::string>& keys, const Options& options, std::FILE* out) {
  const typename F::Owner table = ReadSound<F>(path, options);
  if (table->t_selected) throw Trouble{path + ": is a selected table, which cannot be searched; dump it"};
  if (!options.default_hash) throw Trouble{"get needs the default hash"};
  Exit exit = kYes;
  for (const std::string& key : keys) {
    const UByte* entry = F::Find(table.get(), key, FALSE);
    if (entry == nullptr) exit = kNo;
    const std::string value = entry == nullptr ? "-" : Hex({reinterpret_cast<const char*>(entry), table->t_val_len});
    Report report;
    report.Add("key", key);
    if (entry != nullptr) report.Add("value", value);
    if (options.json) {
      report.Print(options, out);
    } else {
      std::fprintf(out, "%s\t%s\n", Escaped(key).c_str(), value.c_str());
    }
  }
  return exit;
}

template <class F>
Exit Dump(const std::string& path, const Options& options, std::FILE* out) {
  const typename F::Owner table = ReadSound<F>(path, options);
  if (F::kRemoves && !options.default_hash) throw Trouble{"the dump of an image needs the default hash"};
  std::fprintf(out, "%%qxdict %s 1\n%%capacity %u\n%%val_len %u\n%%key_size %u\n", F::kKind, F::Count(*table).capacity,
               table->t_val_len, static_cast<unsigned>(table->t_key_size));
  F::Walk(table.get(), [&](const UByte* entry) {
    const std::string value = Hex({reinterpret_cast<const char*>(entry), table->t_val_len});
    std::fprintf(out, "%s\t%s\n", Escaped(F::Key(table.get(), entry)).c_str(), value.c_str());
  });
  return kYes;
}

// Puts one line of a dump into the table.
template <class F>
void LoadEntry(typename F::Record* table, const std::string& line, const std::string& where) {
  const size_t tab = line.find('\t');
  if (tab == std::string::npos) throw Trouble{where + ": no tab"};
  const std::optional<std::string> key = Unescaped(std::string_view(line).substr(0, tab));
  const std::optional<std::string> value = Unhex(std::string_view(line).substr(tab + 1));
  if (!key || !value) throw Trouble{where + ": no key, tab and pairs of hexadecimal digits"};
  if (value->size() != table->t_val_len) {
    throw Trouble{where + ": a value of " + std::to_string(value->size()) + " bytes, not " +
                  std::to_string(table->t_val_len)};
  }
  if (table->t_key_size != 0 && key->size() >> (8 * table->t_key_size) != 0) {
    throw Trouble{where + ": a key too long for key_size"};
  }
  const UInt before = F::Count(*table).keys;
  UByte* entry = F::Find(table, *key, TRUE);
  if (entry == nullptr) {
    F::Grow(table);
    entry = F::Find(table, *key, TRUE);
  }
  if (entry == nullptr) throw Trouble{where + ": the table cannot grow any more"};
  if (F::Count(*table).keys == before) throw Trouble{where + ": a key that was there before: " + Escaped(*key)};
  std::copy(value->begin(), value->end(), entry);
}

template <class F>
Exit Load(const std::string& path, std::FILE* in) {
  typename F::Owner table;
  ReadDump(
      in, F::kKind, {{"capacity", kMostCapacity}, {"val_len", kMostValueLength}, {"key_size", 4}},
      [&table](const std::map<std::string, unsigned long>& settings) {
        const auto setting = [&settings](const char* name) {
          const auto found = settings.find(name);
          return found == settings.end() ? 0 : found->second;
        };
        table = F::New(static_cast<UInt>(setting("capacity")), static_cast<UInt>(setting("val_len")),
                       static_cast<UByte>(setting("key_size")));
        if (table == nullptr) throw Trouble{"no memory for a table of that capacity"};
      },
      [&table](const std::string& line, const std::string& where) { LoadEntry<F>(table.get(), line, where); });
  F::Write(table.get(), path);
  return kYes;
}

}  // namespace

const Commands kTable = {"table",        " .ht .tab ",    Info<TableFile>, Check<TableFile>, Statistics<TableFile>,
                         Get<TableFile>, Dump<TableFile>, Load<TableFile>};
const Commands kImage = {"image",        " .img ",        Info<ImageFile>, Check<ImageFile>, Statistics<ImageFile>,
                         Get<ImageFile>, Dump<ImageFile>, Load<ImageFile>};

}  // namespace tool
