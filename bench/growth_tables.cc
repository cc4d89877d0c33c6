// What an operation costs as a container grows, and what a key takes of memory: each family of ours from a thousand
// keys on, for docs/performance.md. Not a comparison: run by hand, `build/bench/bin/growth_tables [KEYS...]`; to 100
// million keys it takes half an hour, and 8 GiB of memory.
//
// Keys are numbers well mixed, or their bytes, made as they are asked for, so that nothing but the container grows.
// Each line is a process of its own. "slowest" is the longest single insertion in microseconds by the clock on the
// wall; every insertion is timed by one reading of it, which is in "insert". Hits and misses, in random order, count
// processor time.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "dict/qxdict.hpp"
#include "support/duel.h"

namespace {

constexpr ULong kLookups = 10000000;

// Distinct numbers for distinct numbers; 0 for 0 alone.
ULong Mixed(ULong i) {
  i = (i ^ (i >> 30)) * 0xBF58476D1CE4E5B9u;
  i = (i ^ (i >> 27)) * 0x94D049BB133111EBu;
  return i ^ (i >> 31);
}

UInt Mixed32(ULong n) {
  auto i = static_cast<UInt>(n);
  i = (i ^ (i >> 16)) * 0x7FEB352Du;
  i = (i ^ (i >> 15)) * 0x846CA68Bu;
  return i ^ (i >> 16);
}

struct KeyBytes {
  UByte bytes[8];
  explicit KeyBytes(ULong i) {
    const ULong key = Mixed(i);
    std::memcpy(bytes, &key, sizeof bytes);
  }
};

double ProcessorNanoseconds() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double ResidentBytes() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm").ignore(100, ' ') >> pages;
  return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

class Line {
 public:
  Line(const char* family, ULong keys) : keys_(keys) { std::printf("%-14s %10lu", family, keys); }

  // `insert(i)` for the keys 1 to n.
  template <typename Insert>
  void Inserts(Insert insert) {
    const double before = ResidentBytes(), start = ProcessorNanoseconds();
    auto last = std::chrono::steady_clock::now();
    std::chrono::nanoseconds slowest{0};
    for (ULong i = 1; i <= keys_; i++) {
      insert(i);
      const auto now = std::chrono::steady_clock::now();
      slowest = std::max<std::chrono::nanoseconds>(slowest, now - last);
      last = now;
    }
    Tell(ResidentBytes() - before, ProcessorNanoseconds() - start);
    std::printf(" %9.0f", static_cast<double>(slowest.count()) / 1000);
  }

  // All keys at once; `build()` gives the size of what it wrote.
  template <typename Build>
  void Built(Build build) {
    const double start = ProcessorNanoseconds();
    const auto bytes = static_cast<double>(build());
    const double end = ProcessorNanoseconds();
    Tell(bytes, end - start);
    std::printf(" %9s", "-");
  }

  // `find(i)` tells whether key i is there.
  template <typename Find>
  void Finds(Find find, bool misses = true) {
    duel::Random random(1);
    Timed([&] { return find(1 + random.Below(keys_)); }, true);
    if (misses) Timed([&] { return find(keys_ + 1 + random.Below(keys_)); }, false);
  }

 private:
  void Tell(double bytes, double nanoseconds) const {
    const auto keys = static_cast<double>(keys_);
    std::printf(" %7.1f %8.1f", bytes / keys, nanoseconds / keys);
  }

  template <typename Find>
  void Timed(Find find, bool expected) const {
    const ULong count = std::min(keys_ * 100, kLookups);
    ULong found = 0;
    const double start = ProcessorNanoseconds();
    for (ULong i = 0; i < count; i++) found += find() ? 1 : 0;
    std::printf(" %8.1f", (ProcessorNanoseconds() - start) / static_cast<double>(count));
    if (found != (expected ? count : 0)) std::abort();
  }

  ULong keys_;
};

void IdMapLine(ULong n) {
  IdMap* map = IdMapNew();
  Line line("IdMap", n);
  line.Inserts([&](ULong i) { IdMapFind(map, Mixed32(i), static_cast<Id>(i), IDMAP_NONE, nullptr); });
  line.Finds([&](ULong i) { return IdMapFind(map, Mixed32(i), IDMAP_NONE, IDMAP_NONE, nullptr) == i; });
  IdMapDelete(map);
}

void RefMapLine(ULong n) {
  RefMap* map = RefMapNew();
  Line line("RefMap", n);
  line.Inserts([&](ULong i) { RefMapFind(map, Mixed(i), i, REFMAP_NONE, nullptr); });
  line.Finds([&](ULong i) { return RefMapFind(map, Mixed(i), REFMAP_NONE, REFMAP_NONE, nullptr) == i; });
  RefMapDelete(map);
}

void HashTableLine(ULong n) {
  HashTable* table = HashTableNew(0, nullptr, nullptr, nullptr, 4, 0, TRUE);
  Line line("HashTable", n);
  line.Inserts([&](ULong i) {
    if (HashTableFull(table)) HashTableGrow(table, 2.0F, nullptr);
    HashTableFind(table, KeyBytes(i).bytes, 8, TRUE, nullptr, nullptr);
  });
  line.Finds([&](ULong i) { return HashTableFind(table, KeyBytes(i).bytes, 8, FALSE, nullptr, nullptr) != nullptr; });
  HashTableFree(table);
}

void HashDelTableLine(ULong n) {
  HashDelTable* table = HashDelTableNew(0, nullptr, nullptr, nullptr, 4, 0);
  Line line("HashDelTable", n);
  line.Inserts([&](ULong i) {
    if (HashDelTableFull(table)) HashDelTableGrow(table, 2.0F, nullptr);
    HashDelTableFind(table, KeyBytes(i).bytes, 8, TRUE, nullptr, nullptr);
  });
  line.Finds(
      [&](ULong i) { return HashDelTableFind(table, KeyBytes(i).bytes, 8, FALSE, nullptr, nullptr) != nullptr; });
  HashDelTableFree(table);
}

void AvllLine(ULong n) {
  AVLLDict* dict = QXAVLLDictNew(0);
  Line line("AVLLDict", n);
  line.Inserts([&](ULong i) { QXAVLLDictInsert(dict, Mixed(i), i, 0); });
  line.Finds([&](ULong i) { return QXAVLLDictFind(dict, Mixed(i), 0) == i; });
  QXAVLLDictDelete(dict);
}

void AvlLine(ULong n) {
  AVLDict* dict = QXAVLDictNew(0);
  Line line("AVLDict", n);
  line.Inserts([&](ULong i) { QXAVLDictInsert(dict, Mixed32(i), static_cast<UInt>(i), 0); });
  line.Finds([&](ULong i) { return QXAVLDictFind(dict, Mixed32(i), 0) == i; });
  QXAVLDictDelete(dict);
}

void RbLine(ULong n) {
  RBDict* dict = QXRBDictNew(0);
  Line line("RBDict", n);
  line.Inserts([&](ULong i) { QXRBDictInsert(dict, Mixed32(i), static_cast<UInt>(i), 0); });
  line.Finds([&](ULong i) { return QXRBDictFind(dict, Mixed32(i), 0) == i; });
  QXRBDictDelete(dict);
}

UShort NumberedKey(void*, Id idx, const UByte** bytes) {
  static KeyBytes key(0);
  key = KeyBytes(ULong{idx} + 1);
  *bytes = key.bytes;
  return sizeof key.bytes;
}

void HashDictLine(ULong n) {
  HashDict* dict = nullptr;
  Line line("HashDict", n);
  line.Built([&] {
    dict = HashDictBuild(static_cast<Id>(n), nullptr, NumberedKey, nullptr, 0, 4, FALSE);
    return HashDictFileSize(dict);
  });
  line.Finds([&](ULong i) { return HashDictFind(dict, KeyBytes(i).bytes, 8) == i - 1; });
  HashDictFree(dict);
}

void AttrDictLine(ULong n) {
  char directory[] = "/tmp/growth_tables.XXXXXX";
  if (mkdtemp(directory) == nullptr) std::abort();
  AttrDict* dict = nullptr;
  Line line("AttrDict", n);
  line.Built([&] {
    dict = AttrDictBuild(directory, "growth", FALSE);
    for (ULong i = 1; i <= n; i++) AttrDictAdd(dict, KeyBytes(i).bytes, 8);
    AttrDictCommit(dict);
    dict = AttrDictOpen(directory, "growth");
    return dict->a_idx_size + dict->a_dat_size;
  });
  line.Finds(
      [&](ULong i) {
        const UByte* bytes = nullptr;
        return AttrDictGet(dict, static_cast<Id>(i - 1), &bytes) == 8 && std::memcmp(bytes, KeyBytes(i).bytes, 8) == 0;
      },
      false);
  AttrDictClose(dict);
  for (const char* suffix : {"idx", "dat"}) std::remove((std::string(directory) + "/growth." + suffix).c_str());
  rmdir(directory);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<ULong> sizes;
  for (int i = 1; i < argc; i++) sizes.push_back(std::strtoul(argv[i], nullptr, 10));
  if (sizes.empty()) sizes = {1000, 10000, 100000, 1000000, 10000000};
  std::printf("%-14s %10s %7s %8s %9s %8s %8s\n", "family", "keys", "bytes", "insert", "slowest", "hit", "miss");
  constexpr void (*kLines[])(ULong) = {
      IdMapLine, RefMapLine, HashTableLine, HashDelTableLine, HashDictLine, AttrDictLine, AvllLine, AvlLine, RbLine};
  for (const auto line : kLines) {
    for (const ULong size : sizes) {
      std::fflush(stdout);
      const pid_t child = fork();
      if (child == 0) {
        line(size);
        std::printf("\n");
        std::fflush(stdout);
        _exit(0);
      }
      int status = 0;
      if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return 1;
    }
  }
}
