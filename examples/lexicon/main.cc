// lexicon: counts the words of texts, keeps the counts in a file, builds a perfect-hash dictionary of a word list with
// an attribute a word, writes both, maps the files again, looks words up, and corrects those that are not there, with
// the corrections kept in a cache: the library's main job, in plain use of its public headers.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "lexicon.h"
#include "qxlib/misc.h"

namespace {

constexpr char kUsage[] =
    "usage: lexicon --words LIST --out DIRECTORY [--look-up WORD]... [--keep MILLISECONDS] TEXT...\n"
    "\n"
    "Counts the words of each TEXT into DIRECTORY/counts.tab, builds a dictionary of the words in LIST (one a\n"
    "line), writes it to DIRECTORY/words.dic and what was counted of each word to words.idx and words.dat,\n"
    "maps the files, and looks up every WORD and every counted word. Then it reads the texts once more and\n"
    "corrects each word that is not in LIST; a correction is kept for MILLISECONDS (a minute) and used again.\n";

constexpr UInt kMostFrequent = 10;
constexpr ULong kKeepMilliseconds = 60000;
constexpr ULong kMostMilliseconds = 1000000000000;  // some thirty years
constexpr size_t kExamples = 6;
constexpr size_t kShortest = 3;  // letters of a word worth correcting: one or two are near to everything

struct Options {
  std::string list;
  std::string directory;
  std::vector<std::string> look_ups;
  ULong keep_milliseconds = kKeepMilliseconds;
  std::vector<std::string> texts;
};

class Clock {
 public:
  double Seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(); }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// 1234567 as 1,234,567.
std::string Grouped(size_t number) {
  const std::string digits = std::to_string(number);
  std::string grouped;
  for (size_t i = 0; i < digits.size(); i++) {
    if (i != 0 && (digits.size() - i) % 3 == 0) grouped += ',';
    grouped += digits[i];
  }
  return grouped;
}

std::string Size(size_t bytes) {
  char text[32];
  if (bytes >= 1 << 20) {
    std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1 << 20));
  } else {
    std::snprintf(text, sizeof text, "%.1f KiB", static_cast<double>(bytes) / (1 << 10));
  }
  return text;
}

std::string Duration(double seconds) {
  char text[32];
  if (seconds >= 1) {
    std::snprintf(text, sizeof text, "%.2f s", seconds);
  } else if (seconds >= 1e-3) {
    std::snprintf(text, sizeof text, "%.1f ms", seconds * 1e3);
  } else if (seconds >= 1e-5) {
    std::snprintf(text, sizeof text, "%.0f us", seconds * 1e6);
  } else {
    std::snprintf(text, sizeof text, "%.1f us", seconds * 1e6);
  }
  return text;
}

std::string Rate(size_t operations, double seconds) {
  return Grouped(static_cast<size_t>(static_cast<double>(operations) / std::max(seconds, 1e-9))) + " a second";
}

// The builder's progress, as the person who waits wants to see it.
void ShowProgress(const QXMessageContext* context, const char* text, void*) {
  if (context->level > 2) {
    std::fprintf(stderr, "lexicon: %s\n", text);
  } else {
    std::printf("    .. %s\n", text);
    std::fflush(stdout);
  }
}

ULong Milliseconds(const std::string& text) {
  ULong number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number > kMostMilliseconds) {
    throw lexicon::Error{"--keep takes a number of milliseconds, not " + text + "\n" + kUsage};
  }
  return number;
}

Options Parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; i++) {
    const std::string argument = argv[i];
    const auto value = [&] {
      if (i + 1 >= argc) throw lexicon::Error{argument + " needs a value\n" + kUsage};
      return std::string(argv[++i]);
    };
    if (argument == "--words") {
      options.list = value();
    } else if (argument == "--out") {
      options.directory = value();
    } else if (argument == "--look-up") {
      options.look_ups.push_back(value());
    } else if (argument == "--keep") {
      options.keep_milliseconds = Milliseconds(value());
    } else if (argument.starts_with("--")) {
      throw lexicon::Error{"unknown option " + argument + "\n" + kUsage};
    } else {
      options.texts.push_back(argument);
    }
  }
  if (options.list.empty() || options.directory.empty() || options.texts.empty()) {
    throw lexicon::Error{std::string("nothing to do\n") + kUsage};
  }
  return options;
}

void CountTexts(HashTable* counts, const std::vector<std::string>& texts) {
  std::printf("Counting words\n");
  const Clock clock;
  size_t words = 0;
  for (const std::string& text : texts) {
    const size_t here = lexicon::CountWords(counts, text);
    std::printf("    %-48s %12s words\n", text.c_str(), Grouped(here).c_str());
    words += here;
  }
  const double seconds = clock.Seconds();
  std::printf("    %s words, %s different, in %s: %s\n", Grouped(words).c_str(), Grouped(HashTableSize(counts)).c_str(),
              Duration(seconds).c_str(), Rate(words, seconds).c_str());
}

void MakeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
    throw lexicon::Error{"cannot make " + path + ": " + std::strerror(errno)};
  }
}

// Saves the counts, reads them back, and shows the most frequent words of what came back.
void SaveAndRank(const HashTable* counts, const std::string& path) {
  const Clock clock;
  lexicon::Save(counts, path);
  const lexicon::Table saved = lexicon::Load(path);
  const auto ranked = lexicon::MostFrequent(saved.get(), kMostFrequent);
  std::printf("    saved to %s, read back and ranked in %s; the most frequent:\n       ", path.c_str(),
              Duration(clock.Seconds()).c_str());
  for (const auto& [word, count] : ranked) std::printf(" %s (%s)", word.c_str(), Grouped(count).c_str());
  std::printf("\n");
}

// Returns the words, each in the place of its number.
std::vector<std::string> BuildAndWrite(const Options& options, HashTable* counts) {
  std::printf("\nBuilding a dictionary of %s\n", options.list.c_str());
  std::vector<std::string> words = lexicon::ReadWordList(options.list);
  const Clock clock;
  const lexicon::BuiltDictionary dictionary = lexicon::Build(words, 2);
  const double seconds = clock.Seconds();
  const size_t size = HashDictFileSize(dictionary.get());
  std::printf("    %s words in %s: %s\n", Grouped(words.size()).c_str(), Duration(seconds).c_str(),
              Rate(words.size(), seconds).c_str());
  std::printf("    %s, %.1f bits a word, the longest word %u bytes\n", Size(size).c_str(),
              8.0 * static_cast<double>(size) / static_cast<double>(words.size()), HashDictMaxLength(dictionary.get()));
  lexicon::Write(dictionary.get(), options.directory, "words");
  lexicon::WriteAttributes(words, counts, options.directory, "words");
  std::printf("    written to %s/words.dic, with an attribute a word in words.idx and words.dat\n",
              options.directory.c_str());
  return words;
}

void LookUpGiven(const HashDict* dictionary, const AttrDict* attributes, const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    const Id id = lexicon::LookUp(dictionary, word);
    if (id == lexicon::kAbsent) {
      std::printf("    %-24s is not in it\n", word.c_str());
    } else {
      const std::string attribute = lexicon::AttributeOf(attributes, id);
      std::printf("    %-24s is word %s, %s\n", word.c_str(), Grouped(id + size_t{1}).c_str(),
                  attribute.empty() ? "not in the texts" : attribute.c_str());
    }
  }
}

void LookUpCounted(const HashDict* dictionary, const HashTable* counts) {
  size_t known = 0;
  size_t unknown = 0;
  std::vector<std::pair<UInt, std::string>> strangers;
  const Clock clock;
  lexicon::ForEachCount(counts, [&](std::string_view word, lexicon::WordCount value) {
    if (lexicon::LookUp(dictionary, word) != lexicon::kAbsent) {
      known++;
    } else {
      unknown++;
      strangers.emplace_back(value.count, word);
    }
  });
  const double seconds = clock.Seconds();
  std::printf("    of the %s counted words %s are in it, %s are not: %s\n", Grouped(known + unknown).c_str(),
              Grouped(known).c_str(), Grouped(unknown).c_str(), Rate(known + unknown, seconds).c_str());
  std::stable_sort(strangers.begin(), strangers.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  if (strangers.size() > 8) strangers.resize(8);
  if (strangers.empty()) return;
  std::printf("    the most frequent that are not:");
  for (const auto& [count, word] : strangers) std::printf(" %s (%s)", word.c_str(), Grouped(count).c_str());
  std::printf("\n");
}

// Reads the texts once more, in running order, and corrects each word that is not in the dictionary.
void CorrectTexts(const HashDict* dictionary, const std::vector<std::string>& words, const Options& options) {
  std::printf("\nCorrecting what is not in it, each correction kept for %s\n",
              Duration(static_cast<double>(options.keep_milliseconds) / 1e3).c_str());
  lexicon::Corrections corrections(dictionary, &words, options.keep_milliseconds);
  size_t read = 0;
  double hit_seconds = 0;
  double miss_seconds = 0;
  std::vector<std::pair<std::string, std::string>> examples;
  const auto correct = [&](const std::string& word, UInt) {
    read++;
    if (word.size() < kShortest || lexicon::LookUp(dictionary, word) != lexicon::kAbsent) return;
    bool missed = false;
    const Clock clock;
    const std::string answer = corrections.Of(word, &missed);
    (missed ? miss_seconds : hit_seconds) += clock.Seconds();
    if (missed && !answer.empty() && examples.size() < kExamples) examples.emplace_back(word, answer);
  };
  for (const std::string& text : options.texts) lexicon::ForEachWord(text, correct);

  const QXCacheStatistics statistics = corrections.Statistics();
  const size_t hits = statistics.s_hits;
  const size_t misses = statistics.s_misses + statistics.s_expired;
  for (const auto& [word, answer] : examples) std::printf("    %-24s %s\n", word.c_str(), answer.c_str());
  std::printf("    %s of %s words asked for: %s hits, %s misses", Grouped(hits + misses).c_str(), Grouped(read).c_str(),
              Grouped(hits).c_str(), Grouped(misses).c_str());
  if (hits + misses > 0) {
    std::printf(", %.1f percent hits", 100 * static_cast<double>(hits) / static_cast<double>(hits + misses));
  }
  if (statistics.s_expired > 0) std::printf("; %s had expired", Grouped(statistics.s_expired).c_str());
  std::printf("\n");
  if (hits > 0) {
    std::printf("    worked out in %s each, found in the cache in %s each\n",
                Duration(miss_seconds / static_cast<double>(misses)).c_str(),
                Duration(hit_seconds / static_cast<double>(hits)).c_str());
  }
  const lexicon::Corrections::Fill fill = corrections.HowFull();
  std::printf("    the cache holds %s answers, %s of its %s\n", Grouped(fill.answers).c_str(), Size(fill.bytes).c_str(),
              Size(fill.capacity).c_str());
}

void Run(const Options& options) {
  const lexicon::Table counts = lexicon::NewCounts();
  CountTexts(counts.get(), options.texts);
  MakeDirectory(options.directory);
  SaveAndRank(counts.get(), options.directory + "/counts.tab");
  const std::vector<std::string> words = BuildAndWrite(options, counts.get());

  const Clock clock;
  const lexicon::MappedDictionary dictionary = lexicon::Open(options.directory, "words");
  const lexicon::Attributes attributes = lexicon::OpenAttributes(options.directory, "words");
  std::printf("\nLooking words up in the mapped files, opened in %s\n", Duration(clock.Seconds()).c_str());
  LookUpGiven(dictionary.get(), attributes.get(), options.look_ups);
  LookUpCounted(dictionary.get(), counts.get());
  CorrectTexts(dictionary.get(), words, options);
}

}  // namespace

int main(int argc, char** argv) {
  QXMessageHandlerSet(ShowProgress, nullptr);
  try {
    Run(Parse(argc, argv));
  } catch (const lexicon::Error& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "lexicon: %s\n", error.text.c_str());
    return 1;
  }
  if (std::fflush(stdout) != 0) {
    std::fprintf(stderr, "lexicon: cannot write the report: %s\n", std::strerror(errno));
    return 1;
  }
  return 0;
}
