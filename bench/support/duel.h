// Runs contenders against one another and prints what each cost, as medians and as ratios.
//
// A contender is a function that does the same work as the others on the same keys, part by part, and tells each part's
// time and checksum to a Sheet. Every turn of a contender is a process of its own (a fork), so that no allocator state,
// page table or branch history of one turn reaches another; contenders take turns, round after round, so that a machine
// that slows down slows all of them. Of each part the median over the rounds is printed, beside its ratio to the first
// contender, which is ours. Contenders that disagree on a part's checksum end the run: one of them skipped the work.
//
//   duel::Main(argc, argv, "idmap", [](duel::Duel& duel, size_t keys) {
//     const auto input = Keys(keys);
//     duel.Contend("IdMap", [&](duel::Sheet& sheet) {
//       IdMap* map = IdMapNew();
//       sheet.Time("insert", keys, [&] { ...; return checksum; });
//       sheet.BytesPerKey(keys);
//       ...
//     });
//     duel.Contend("absl::flat_hash_map", ...);
//   });
#ifndef BENCH_SUPPORT_DUEL_H
#define BENCH_SUPPORT_DUEL_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace duel {

// One part of one turn.
struct Entry {
  char part[40];
  double value;       // nanoseconds an operation, or a plain figure
  uint64_t checksum;  // must be the same for all contenders; 0 for plain figures
  bool timed;
};

// Where a contender tells what it did.
class Sheet {
 public:
  Sheet();

  // Times `work`, which does `operations` operations and returns a checksum of their results.
  template <typename Work>
  void Time(const char* part, size_t operations, Work work) {
    const double start = Now();
    const uint64_t checksum = work();
    Add(part, (Now() - start) / static_cast<double>(operations), checksum, true);
  }

  // A plain figure: a hit ratio, a height; printed with the medians, not compared by checksum.
  void Tell(const char* part, double value) { Add(part, value, 0, false); }

  // Resident memory grown since the turn began, a key.
  void BytesPerKey(size_t keys);

  const std::vector<Entry>& entries() const { return entries_; }

 private:
  static double Now();  // nanoseconds
  void Add(const char* part, double value, uint64_t checksum, bool timed);

  size_t resident_at_start_;
  std::vector<Entry> entries_;
};

class Duel {
 public:
  // Adds a contender; the first is ours.
  void Contend(std::string name, std::function<void(Sheet&)> turn);

 private:
  friend int Main(int, char**, const char*, const std::function<void(Duel&, size_t)>&, std::vector<size_t>);
  void Run(const char* family, size_t keys, int rounds, std::FILE* csv);

  struct Contender {
    std::string name;
    std::function<void(Sheet&)> turn;
    std::vector<std::vector<Entry>> rounds;
  };
  std::vector<Contender> contenders_;
};

// Options: --rounds N (default 7), --sizes N,N,... (default `sizes`), --cpu (the process's processor time in place of
// the clock on the wall: for one thread on a busy machine), --csv FILE (appends the medians, a line for each: family,
// keys, part, unit, contender, value). Calls `fill` once a size to add the contenders.
int Main(int argc, char** argv, const char* family, const std::function<void(Duel&, size_t)>& fill,
         std::vector<size_t> sizes = {10000, 1000000});

// A fixed stream of random numbers (SplitMix64), the same in every run.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t operator()() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
  }
  uint64_t Below(uint64_t bound) { return (*this)() % bound; }

 private:
  uint64_t state_;
};

// Distinct printable byte strings of `shortest` to `longest` bytes (8 at least); another seed gives other strings.
std::vector<std::string> Strings(size_t count, size_t shortest, size_t longest, uint64_t seed);

// The numbers below `count` in random order: the order in which look-ups are made.
std::vector<uint32_t> Shuffled(size_t count, uint64_t seed);

}  // namespace duel

#endif
