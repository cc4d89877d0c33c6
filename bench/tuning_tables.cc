// The measured tables of docs/tuning.md: what probe codes of each width let through and cost, and what a table's growth
// factor costs while it fills. Not a comparison: run by hand, `build/bench/bin/tuning_tables [WORD LIST]`.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "dict/qxdict.hpp"

namespace {

constexpr int kForeign = 20000000;
constexpr UInt kKeys = 2000000;
constexpr int kRounds = 5;

class Clock {
 public:
  double Seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(); }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

double Median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

void Probes(const std::string& list) {
  std::vector<std::string> words;
  qx::Table<UByte> known(1 << 20);
  std::ifstream in(list);
  for (std::string line; std::getline(in, line);) {
    const UInt before = known.size();
    known.Insert(line);
    if (known.size() > before) words.push_back(line);
  }
  std::vector<qx::Dict> dicts;
  for (UByte probe = 0; probe <= 4; probe++) dicts.push_back(qx::Dict::Build(words, {.probe = probe}));

  // Foreign keys that only the probe can turn away: no longer than the words, of bytes that words have.
  std::vector<size_t> passed(dicts.size());
  std::minstd_rand random(1);
  int asked = 0;
  for (std::string key; asked < kForeign;) {
    key.resize(4 + random() % 9);
    for (char& c : key) c = static_cast<char>('a' + random() % 26);
    if (known.Contains(key)) continue;
    asked++;
    for (size_t i = 0; i < dicts.size(); i++) passed[i] += dicts[i].Find(key).has_value();
  }

  std::printf("%zu words, %d foreign keys\nprobe  passed  1 in  bytes a key  ns a hit\n", words.size(), asked);
  for (size_t i = 0; i < dicts.size(); i++) {
    std::vector<double> times;
    for (int round = 0; round < kRounds; round++) {
      std::minstd_rand order(2);
      ULong sum = 0;
      const Clock clock;
      for (size_t n = 0; n < words.size(); n++) sum += *dicts[i].Find(words[order() % words.size()]);
      times.push_back(clock.Seconds() / static_cast<double>(words.size()) * 1e9);
      if (sum == 0) std::abort();
    }
    std::printf("%5zu %10zu %12.0f %8.2f %8.1f\n", i, passed[i],
                passed[i] == 0 ? 0.0 : static_cast<double>(asked) / static_cast<double>(passed[i]),
                static_cast<double>(dicts[i].image_size()) / static_cast<double>(words.size()), Median(times));
  }
}

// What the probe codes of each width let through when all keys, known and foreign, are of one kind: a code is the key's
// number in base 257 modulo a power of 256, and keys that are alike have codes that are.
template <typename Fill>
void ProbesOfAKind(const char* kind, size_t length, Fill fill) {
  constexpr size_t kKnown = 1000000;
  constexpr size_t kAsked = 100000000;
  std::mt19937_64 random(3);
  std::set<std::string> known;
  for (std::string key(length, ' '); known.size() < kKnown; known.insert(key)) fill(random(), &key);
  const std::vector<std::string> keys(known.begin(), known.end());
  for (UByte probe = 1; probe <= 4; probe++) {
    const qx::Dict dict = qx::Dict::Build(keys, {.probe = probe});
    size_t passed = 0;
    std::string key(length, ' ');
    for (size_t n = 0; n < kAsked; n++) {
      fill(random(), &key);
      passed += dict.Find(key).has_value() && !known.contains(key);
    }
    std::printf("%-20s %d %10zu of %zu: one in %.0f\n", kind, probe, passed, kAsked,
                static_cast<double>(kAsked) / static_cast<double>(std::max<size_t>(passed, 1)));
  }
}

void Kinds() {
  std::printf("\nprobe codes, a million keys of one kind\n");
  ProbesOfAKind("10 digits", 10, [](ULong bits, std::string* key) {
    bits %= 10000000000;
    for (char& c : *key) c = static_cast<char>('0' + bits % 10), bits /= 10;
  });
  ProbesOfAKind("8 small letters", 8, [](ULong bits, std::string* key) {
    bits %= 208827064576;  // 26 to the 8th
    for (char& c : *key) c = static_cast<char>('a' + bits % 26), bits /= 26;
  });
  ProbesOfAKind("8 random bytes", 8, [](ULong bits, std::string* key) { std::memcpy(key->data(), &bits, 8); });
}

void Growth() {
  std::printf("\n%u keys of 10 bytes into a table, values of 8 bytes\nfactor  ns a key  capacity at the end  growths\n",
              kKeys);
  for (const double factor : {0.0, 1.1, 1.25, 1.5, 2.0, 4.0}) {
    std::vector<double> times;
    UInt capacity = 0;
    int growths = 0;
    for (int round = 0; round < kRounds; round++) {
      growths = 0;
      const Clock clock;
      qx::Table<ULong> table(factor == 0.0 ? kKeys : 1000);
      char key[16];
      for (UInt i = 0; i < kKeys; i++) {
        const size_t length = static_cast<size_t>(std::snprintf(key, sizeof key, "%010u", i * 2654435761u));
        if (table.full()) {
          table.Grow(static_cast<float>(factor));
          growths++;
        }
        table.TryInsert(std::string_view(key, length));
      }
      times.push_back(clock.Seconds() / kKeys * 1e9);
      capacity = table.capacity();
    }
    std::printf("%6.2f %9.1f %12u %8d\n", factor, Median(times), capacity, growths);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Probes(argc > 1 ? argv[1] : "/usr/share/dict/american-english-insane");
  Kinds();
  Growth();
}
