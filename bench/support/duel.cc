#include "support/duel.h"

#include <malloc.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <sstream>

namespace duel {
namespace {

clockid_t clock_used = CLOCK_MONOTONIC;

size_t ResidentBytes() {
  std::FILE* f = std::fopen("/proc/self/statm", "re");
  if (f == nullptr) return 0;
  size_t total = 0;
  size_t resident = 0;
  if (std::fscanf(f, "%zu %zu", &total, &resident) != 2) resident = 0;
  std::fclose(f);
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

[[noreturn]] void Fail(const std::string& why) {
  std::fprintf(stderr, "benchmark: %s\n", why.c_str());
  std::exit(1);
}

// One turn in a process of its own; what it told comes back through a pipe.
std::vector<Entry> Turn(const std::string& name, const std::function<void(Sheet&)>& turn) {
  int ends[2];
  if (pipe(ends) != 0) Fail("no pipe");
  std::fflush(stdout);
  const pid_t child = fork();
  if (child < 0) Fail("no process");
  if (child == 0) {
    close(ends[0]);
    Sheet sheet;
    turn(sheet);
    const std::vector<Entry>& entries = sheet.entries();
    const char* at = reinterpret_cast<const char*>(entries.data());
    size_t left = entries.size() * sizeof(Entry);
    while (left > 0) {
      const ssize_t wrote = write(ends[1], at, left);
      if (wrote <= 0) _exit(1);
      at += wrote;
      left -= static_cast<size_t>(wrote);
    }
    _exit(0);
  }
  close(ends[1]);
  std::vector<Entry> entries;
  std::string bytes;
  char buffer[4096];
  for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;) bytes.append(buffer, static_cast<size_t>(got));
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (status != 0) Fail(name + " did not finish its turn");
  entries.resize(bytes.size() / sizeof(Entry));
  std::memcpy(entries.data(), bytes.data(), entries.size() * sizeof(Entry));
  return entries;
}

double Median(std::vector<double> values) {
  const size_t middle = values.size() / 2;
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(middle), values.end());
  return values[middle];
}

const Entry* Find(const std::vector<Entry>& entries, const char* part) {
  for (const Entry& entry : entries) {
    if (std::strcmp(entry.part, part) == 0) return &entry;
  }
  return nullptr;
}

}  // namespace

Sheet::Sheet() {
  // What the parent has freed counts as resident and would be taken first: growth would not show.
  malloc_trim(0);
  resident_at_start_ = ResidentBytes();
}

double Sheet::Now() {
  timespec now = {};
  clock_gettime(clock_used, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

void Sheet::BytesPerKey(size_t keys) {
  const double grown = static_cast<double>(ResidentBytes()) - static_cast<double>(resident_at_start_);
  Tell("bytes a key", grown / static_cast<double>(keys));
}

void Sheet::Add(const char* part, double value, uint64_t checksum, bool timed) {
  Entry entry{};
  std::snprintf(entry.part, sizeof entry.part, "%s", part);
  entry.value = value;
  entry.checksum = checksum;
  entry.timed = timed;
  entries_.push_back(entry);
}

void Duel::Contend(std::string name, std::function<void(Sheet&)> turn) {
  contenders_.push_back({std::move(name), std::move(turn), {}});
}

void Duel::Run(const char* family, size_t keys, int rounds, std::FILE* csv) {
  for (int round = 0; round < rounds; round++) {
    for (Contender& contender : contenders_) contender.rounds.push_back(Turn(contender.name, contender.turn));
  }

  std::printf("\n%s, %zu keys, median of %d rounds; in brackets ours over theirs\n%-22s", family, keys, rounds, "");
  for (const Contender& contender : contenders_) std::printf(" %24s", contender.name.c_str());
  std::printf("\n");
  std::vector<Entry> parts;  // every part that anybody did, in order of appearance
  for (const Contender& contender : contenders_) {
    for (const Entry& entry : contender.rounds[0]) {
      if (Find(parts, entry.part) == nullptr) parts.push_back(entry);
    }
  }
  for (const Entry& part : parts) {
    std::printf("%-22s", part.part);
    double ours = 0;
    for (const Contender& contender : contenders_) {
      std::vector<double> values;
      for (const std::vector<Entry>& entries : contender.rounds) {
        const Entry* entry = Find(entries, part.part);
        if (entry == nullptr) continue;
        values.push_back(entry->value);
        if (entry->checksum != part.checksum) {
          Fail(contender.name + " disagrees on \"" + part.part + "\": it did not do the same work");
        }
      }
      if (values.empty()) {
        std::printf(" %24s", "-");
        continue;
      }
      const double median = Median(values);
      const char* unit = part.timed ? " ns" : "";
      if (csv != nullptr) {
        std::fprintf(csv, "\"%s\",%zu,\"%s\",%s,\"%s\",%.3f\n", family, keys, part.part, part.timed ? "ns" : "",
                     contender.name.c_str(), median);
      }
      if (&contender == &contenders_[0]) {
        ours = median;
        std::printf(" %21.1f%-3s", median, unit);
      } else if (ours != 0 && median != 0) {
        std::printf(" %12.1f%-3s [%6.2f]", median, unit, ours / median);
      } else {
        std::printf(" %21.1f%-3s", median, unit);
      }
    }
    std::printf("\n");
  }
}

int Main(int argc, char** argv, const char* family, const std::function<void(Duel&, size_t)>& fill,
         std::vector<size_t> sizes) {
  int rounds = 7;
  std::FILE* csv = nullptr;
  for (int i = 1; i < argc; i++) {
    const std::string option = argv[i];
    if (option == "--rounds" && i + 1 < argc) {
      rounds = std::max(1, std::atoi(argv[++i]));
    } else if (option == "--sizes" && i + 1 < argc) {
      sizes.clear();
      std::stringstream list(argv[++i]);
      for (std::string item; std::getline(list, item, ',');) sizes.push_back(std::strtoull(item.c_str(), nullptr, 10));
    } else if (option == "--cpu") {
      clock_used = CLOCK_PROCESS_CPUTIME_ID;
    } else if (option == "--csv" && i + 1 < argc) {
      csv = std::fopen(argv[++i], "ae");
      if (csv == nullptr) Fail(std::string("cannot write ") + argv[i]);
    } else {
      std::fprintf(stderr, "usage: %s [--rounds N] [--sizes N,N,...] [--cpu] [--csv FILE]\n", argv[0]);
      return 2;
    }
  }
  for (const size_t size : sizes) {
    if (size == 0) Fail("a size must be a number above 0");
    Duel duel;
    fill(duel, size);
    duel.Run(family, size, rounds, csv);
  }
  if (csv != nullptr && std::fclose(csv) != 0) Fail("the figures could not be written");
  return 0;
}

std::vector<std::string> Strings(size_t count, size_t shortest, size_t longest, uint64_t seed) {
  static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
  Random random(seed);
  std::vector<std::string> strings(count);
  for (size_t i = 0; i < count; i++) {
    std::string& s = strings[i];
    s.resize(std::max<size_t>(8, shortest) + random.Below(longest - shortest + 1));
    for (char& c : s) c = kAlphabet[random.Below(64)];
    // The first bytes number the string within its seed: strings are distinct by construction up to 64^5 of them.
    size_t number = i;
    for (size_t digit = 0; digit < 5; digit++, number /= 64) s[digit] = kAlphabet[number % 64];
    // The next two tell streams of different seeds apart.
    s[5] = kAlphabet[seed % 64];
    s[6] = kAlphabet[seed / 64 % 64];
  }
  return strings;
}

std::vector<uint32_t> Shuffled(size_t count, uint64_t seed) {
  std::vector<uint32_t> order(count);
  std::iota(order.begin(), order.end(), 0u);
  Random random(seed);
  for (size_t i = count; i > 1; i--) std::swap(order[i - 1], order[random.Below(i)]);
  return order;
}

}  // namespace duel
