// The perfect-hash dictionary beside cmph's CHD and BDZ and absl::flat_hash_map; look-ups in bulk beside single ones;
// and opening a file beside tinycdb.
//
// cmph builds minimal perfect hashes of the same kind: they number the keys and keep none. Their numbers are their own,
// ours are the caller's, so the checksum of a look-up pass is the sum of all numbers, n (n - 1) / 2 for each of them.
// absl::flat_hash_map is what one takes when the keys may be kept: it maps a std::string to its number, and knows for
// certain which keys are foreign; ours knows with a probe code, nearly. BDZ and CHD have nothing of that kind.
//
// Ours comes built, with its coefficients arranged for many look-ups, and as a file that was opened and not prepared.
// CHD comes twice: as it is by default, with a table half full and an index of what is used in it, and with a table
// nearly full, which halves the image and takes two to three times as long to build.
//
// Look-ups come in random order and find their key's bytes ready, one after the other, as they come from a stream.

#include <cdb.h>
#include <cmph.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "dict/hashdict.h"
#include "support/duel.h"

namespace {

// Keys one after the other, each with a zero behind it, which cmph wants.
struct Keys {
  std::string bytes;
  std::vector<size_t> starts{0};

  void Add(const std::string& key) {
    bytes += key;
    bytes += '\0';
    starts.push_back(bytes.size());
  }
  size_t size() const { return starts.size() - 1; }
  std::string_view operator[](size_t i) const { return {bytes.data() + starts[i], starts[i + 1] - starts[i] - 1}; }
};

struct Work {
  Keys keys, hits, misses;
};

std::shared_ptr<const Work> MakeWork(size_t count, size_t shortest, size_t longest) {
  auto work = std::make_shared<Work>();
  const std::vector<std::string> keys = duel::Strings(count, shortest, longest, 1);
  for (const std::string& key : keys) work->keys.Add(key);
  for (const uint32_t i : duel::Shuffled(count, 2)) work->hits.Add(keys[i]);
  for (const std::string& key : duel::Strings(count, shortest, longest, 3)) work->misses.Add(key);
  return work;
}

// The most resident memory since the last call with `reset`, in bytes.
size_t PeakBytes(bool reset) {
  if (reset) {
    if (std::FILE* f = std::fopen("/proc/self/clear_refs", "we")) {
      std::fputs("5", f);
      std::fclose(f);
    }
  }
  size_t kilobytes = 0;
  if (std::FILE* f = std::fopen("/proc/self/status", "re")) {
    char line[200];
    while (std::fgets(line, sizeof line, f) != nullptr) {
      if (std::sscanf(line, "VmHWM: %zu", &kilobytes) == 1) break;
    }
    std::fclose(f);
  }
  return kilobytes * 1024;
}

// Times a pass over the keys, repeated when they are few; the sum of what `find` gives.
template <typename Find>
void TimePasses(duel::Sheet& sheet, const char* part, const Keys& keys, Find find) {
  const size_t passes = keys.size() < 1000000 ? 1000000 / keys.size() : 1;
  sheet.Time(part, keys.size() * passes, [&] {
    uint64_t sum = 0;
    for (size_t pass = 0; pass < passes; pass++) {
      for (size_t i = 0; i < keys.size(); i++) sum += find(keys[i]);
    }
    return sum;
  });
}

UShort GetKey(void* keys, Id idx, const UByte** bytes) {
  const std::string_view key = (*static_cast<const Keys*>(keys))[idx];
  *bytes = reinterpret_cast<const UByte*>(key.data());
  return static_cast<UShort>(key.size());
}

void HashDictTurn(duel::Sheet& sheet, const Work& work, UByte probe) {
  const size_t count = work.keys.size();
  HashDict* hdict = nullptr;
  const size_t before = PeakBytes(true);
  sheet.Time("build", count, [&] {
    hdict = HashDictBuild(static_cast<Id>(count), const_cast<Keys*>(&work.keys), GetKey, nullptr, 0, probe, FALSE);
    return count;
  });
  sheet.Tell("peak bytes a key", static_cast<double>(PeakBytes(false) - before) / static_cast<double>(count));
  sheet.Tell("image bytes a key", static_cast<double>(HashDictFileSize(hdict)) / static_cast<double>(count));
  const auto find = [hdict](std::string_view key) {
    return HashDictFind(hdict, reinterpret_cast<const UByte*>(key.data()), static_cast<UInt>(key.size()));
  };
  TimePasses(sheet, "hit", work.hits, find);
  if (probe > 0) {
    size_t accepted = 0;
    TimePasses(sheet, "miss", work.misses, [&](std::string_view key) {
      accepted += find(key) != HASHDICT_NOT_FOUND ? 1 : 0;
      return 1;
    });
    const size_t passes = count < 1000000 ? 1000000 / count : 1;
    sheet.Tell("false in a million", static_cast<double>(accepted) / static_cast<double>(count * passes) * 1e6);
  }
  HashDictFree(hdict);
}

// A file that is opened for one look-up. In memory, so that no disk is measured.
constexpr const char* kDirectory = "/dev/shm";
constexpr size_t kOpenings = 20000;

std::string FileName(const char* what) { return "qxdict-bench-" + std::string(what) + "-" + std::to_string(getpid()); }

// The same look-ups in the dictionary's file, as it is opened.
void OpenedTurn(duel::Sheet& sheet, const Work& work) {
  const auto count = static_cast<Id>(work.keys.size());
  HashDict* hdict = HashDictBuild(count, const_cast<Keys*>(&work.keys), GetKey, nullptr, 0, 0, FALSE);
  const std::string name = FileName("hits");
  if (!HashDictWrite(hdict, kDirectory, name.c_str(), nullptr, FALSE)) std::abort();
  HashDictFree(hdict);
  hdict = HashDictOpen(kDirectory, name.c_str(), nullptr);
  std::filesystem::remove(std::string(kDirectory) + "/" + name + ".dic");
  TimePasses(sheet, "hit", work.hits, [hdict](std::string_view key) {
    return HashDictFind(hdict, reinterpret_cast<const UByte*>(key.data()), static_cast<UInt>(key.size()));
  });
  HashDictClose(hdict);
}

void CmphTurn(duel::Sheet& sheet, const Work& work, CMPH_ALGO algorithm, double load = 0) {
  const size_t count = work.keys.size();
  std::vector<char*> pointers;
  for (size_t i = 0; i < count; i++) pointers.push_back(const_cast<char*>(work.keys[i].data()));
  cmph_t* hash = nullptr;
  const size_t before = PeakBytes(true);
  sheet.Time("build", count, [&] {
    cmph_io_adapter_t* source = cmph_io_vector_adapter(pointers.data(), static_cast<cmph_uint32>(count));
    cmph_config_t* config = cmph_config_new(source);
    cmph_config_set_algo(config, algorithm);
    if (load > 0) cmph_config_set_graphsize(config, load);
    hash = cmph_new(config);
    cmph_config_destroy(config);
    cmph_io_vector_adapter_destroy(source);
    return hash != nullptr ? count : 0;
  });
  sheet.Tell("peak bytes a key", static_cast<double>(PeakBytes(false) - before) / static_cast<double>(count));
  sheet.Tell("image bytes a key", cmph_packed_size(hash) / static_cast<double>(count));
  TimePasses(sheet, "hit", work.hits, [hash](std::string_view key) {
    return cmph_search(hash, key.data(), static_cast<cmph_uint32>(key.size()));
  });
  cmph_destroy(hash);
}

void AbslTurn(duel::Sheet& sheet, const Work& work) {
  const size_t count = work.keys.size();
  absl::flat_hash_map<std::string, UInt> map;
  const size_t before = PeakBytes(true);
  sheet.Time("build", count, [&] {
    map.reserve(count);
    for (size_t i = 0; i < count; i++) map.emplace(work.keys[i], static_cast<UInt>(i));
    return count;
  });
  sheet.Tell("peak bytes a key", static_cast<double>(PeakBytes(false) - before) / static_cast<double>(count));
  TimePasses(sheet, "hit", work.hits,
             [&map](std::string_view key) { return map.find(absl::string_view(key.data(), key.size()))->second; });
  TimePasses(sheet, "miss", work.misses, [&map](std::string_view key) {
    return map.find(absl::string_view(key.data(), key.size())) == map.end() ? 1 : 0;
  });
}

// The same look-ups from slices: one after the other, or `batch` at a time.
void BulkTurn(duel::Sheet& sheet, const Work& work, UByte probe, UInt batch) {
  const size_t count = work.keys.size();
  HashDict* hdict =
      HashDictBuild(static_cast<Id>(count), const_cast<Keys*>(&work.keys), GetKey, nullptr, 0, probe, FALSE);
  std::vector<const UByte*> keys;
  std::vector<UInt> lens;
  for (size_t i = 0; i < count; i++) {
    keys.push_back(reinterpret_cast<const UByte*>(work.hits[i].data()));
    lens.push_back(static_cast<UInt>(work.hits[i].size()));
  }
  std::vector<Id> ids(count);
  const size_t passes = count < 1000000 ? 1000000 / count : 1;
  sheet.Time("hit", count * passes, [&] {
    uint64_t sum = 0;
    for (size_t pass = 0; pass < passes; pass++) {
      if (batch == 1) {
        for (size_t i = 0; i < count; i++) ids[i] = HashDictFind(hdict, keys[i], lens[i]);
      } else {
        for (size_t i = 0; i < count; i += batch) {
          HashDictFindMany(hdict, static_cast<UInt>(std::min<size_t>(batch, count - i)), &keys[i], &lens[i], &ids[i]);
        }
      }
      for (const Id id : ids) sum += id;
    }
    return sum;
  });
  HashDictFree(hdict);
}

void OpenHashDictTurn(duel::Sheet& sheet, const Work& work) {
  const auto count = static_cast<Id>(work.keys.size());
  HashDict* hdict = HashDictBuild(count, const_cast<Keys*>(&work.keys), GetKey, nullptr, 0, 1, FALSE);
  const std::string name = FileName("hashdict");
  if (!HashDictWrite(hdict, kDirectory, name.c_str(), nullptr, FALSE)) std::abort();
  HashDictFree(hdict);
  sheet.Time("open, find, close", kOpenings, [&] {
    uint64_t sum = 0;
    for (size_t i = 0; i < kOpenings; i++) {
      const std::string_view key = work.hits[i % work.hits.size()];
      HashDict* opened = HashDictOpen(kDirectory, name.c_str(), nullptr);
      sum += HashDictFind(opened, reinterpret_cast<const UByte*>(key.data()), static_cast<UInt>(key.size()));
      HashDictClose(opened);
    }
    return sum;
  });
  std::filesystem::remove(std::string(kDirectory) + "/" + name + ".dic");
}

void OpenCdbTurn(duel::Sheet& sheet, const Work& work) {
  const std::string path = std::string(kDirectory) + "/" + FileName("cdb");
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  cdb_make make;
  if (cdb_make_start(&make, fd) != 0) std::abort();
  for (uint32_t i = 0; i < work.keys.size(); i++) {
    const std::string_view key = work.keys[i];
    if (cdb_make_add(&make, key.data(), static_cast<unsigned>(key.size()), &i, sizeof i) != 0) std::abort();
  }
  if (cdb_make_finish(&make) != 0) std::abort();
  close(fd);
  sheet.Time("open, find, close", kOpenings, [&] {
    uint64_t sum = 0;
    for (size_t i = 0; i < kOpenings; i++) {
      const std::string_view key = work.hits[i % work.hits.size()];
      const int opened = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      cdb dict = {};
      uint32_t number = 0;
      if (cdb_init(&dict, opened) != 0) std::abort();
      if (cdb_find(&dict, key.data(), static_cast<unsigned>(key.size())) <= 0) std::abort();
      std::memcpy(&number, cdb_getdata(&dict), sizeof number);
      sum += number;
      cdb_free(&dict);
      close(opened);
    }
    return sum;
  });
  std::filesystem::remove(path);
}

struct Lengths {
  const char* text;
  size_t shortest, longest;
};

constexpr Lengths kLengths[] = {{"8 to 13 bytes", 8, 13}, {"16 bytes", 16, 16}, {"8 to 64 bytes", 8, 64}};

void Numbers(duel::Duel& duel, const std::shared_ptr<const Work>& work) {
  duel.Contend("HashDict", [work](duel::Sheet& sheet) { HashDictTurn(sheet, *work, 0); });
  duel.Contend("HashDict, opened", [work](duel::Sheet& sheet) { OpenedTurn(sheet, *work); });
  duel.Contend("cmph CHD", [work](duel::Sheet& sheet) { CmphTurn(sheet, *work, CMPH_CHD); });
  duel.Contend("cmph CHD, full", [work](duel::Sheet& sheet) { CmphTurn(sheet, *work, CMPH_CHD, 0.99); });
  duel.Contend("cmph BDZ", [work](duel::Sheet& sheet) { CmphTurn(sheet, *work, CMPH_BDZ); });
  duel.Contend("absl::flat_hash_map", [work](duel::Sheet& sheet) { AbslTurn(sheet, *work); });
}

void Membership(duel::Duel& duel, const std::shared_ptr<const Work>& work) {
  duel.Contend("HashDict, probe 1", [work](duel::Sheet& sheet) { HashDictTurn(sheet, *work, 1); });
  duel.Contend("HashDict, probe 4", [work](duel::Sheet& sheet) { HashDictTurn(sheet, *work, 4); });
  duel.Contend("absl::flat_hash_map", [work](duel::Sheet& sheet) { AbslTurn(sheet, *work); });
}

void Bulk(duel::Duel& duel, const std::shared_ptr<const Work>& work) {
  duel.Contend("HashDictFindMany", [work](duel::Sheet& sheet) { BulkTurn(sheet, *work, 0, 1000); });
  duel.Contend("HashDictFind", [work](duel::Sheet& sheet) { BulkTurn(sheet, *work, 0, 1); });
  duel.Contend("FindMany, probe 2", [work](duel::Sheet& sheet) { BulkTurn(sheet, *work, 2, 1000); });
  duel.Contend("Find, probe 2", [work](duel::Sheet& sheet) { BulkTurn(sheet, *work, 2, 1); });
}

void Opening(duel::Duel& duel, const std::shared_ptr<const Work>& work) {
  duel.Contend("HashDict, probe 1", [work](duel::Sheet& sheet) { OpenHashDictTurn(sheet, *work); });
  duel.Contend("tinycdb", [work](duel::Sheet& sheet) { OpenCdbTurn(sheet, *work); });
}

}  // namespace

int main(int argc, char** argv) {
  using Fill = void (*)(duel::Duel&, const std::shared_ptr<const Work>&);
  constexpr struct {
    const char* title;
    Fill fill;
  } kFamilies[] = {{"hashdict", Numbers},
                   {"hashdict with probe codes", Membership},
                   {"hashdict in bulk", Bulk},
                   {"hashdict opened", Opening}};
  int failed = 0;
  for (const Lengths& lengths : kLengths) {
    for (const auto& family : kFamilies) {
      const std::string title = std::string(family.title) + ", keys of " + lengths.text;
      failed |= duel::Main(argc, argv, title.c_str(), [&](duel::Duel& duel, size_t count) {
        family.fill(duel, MakeWork(count, lengths.shortest, lengths.longest));
      });
    }
  }
  return failed;
}
