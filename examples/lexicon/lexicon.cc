#include "lexicon.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>

#include "qxlib/misc.h"

namespace lexicon {
namespace {

constexpr ULong kAnswerBytes = 16 << 20;  // memory for corrections: one region

const UByte* Bytes(std::string_view text) { return reinterpret_cast<const UByte*>(text.data()); }

bool InWord(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c >= 0x80;
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

WordCount ValueOf(const UByte* entry) {
  WordCount value;
  std::memcpy(&value, entry, sizeof value);
  return value;
}

std::string_view KeyOf(const HashTable* table, const UByte* entry) {
  const UByte* bytes = nullptr;
  const UInt length = HashTableKey(table, entry, &bytes);
  return {reinterpret_cast<const char*>(bytes), length};
}

void Count(HashTable* counts, std::string_view word, UInt line) {
  const UInt length = static_cast<UInt>(word.size());
  UByte* entry = HashTableFind(counts, Bytes(word), length, TRUE, nullptr, nullptr);
  if (entry == nullptr && HashTableFull(counts)) {
    HashTableGrow(counts, 2.0F, nullptr);
    entry = HashTableFind(counts, Bytes(word), length, TRUE, nullptr, nullptr);
  }
  if (entry == nullptr) throw Error{"the table of counted words cannot grow any more"};
  WordCount value = ValueOf(entry);
  if (value.count == 0) value.first_line = line;
  value.count++;
  std::memcpy(entry, &value, sizeof value);
}

std::ifstream OpenText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  // A directory opens, and fails at the first byte.
  if (!in || (in.peek(), in.bad())) throw Error{"cannot read " + path + ": " + std::strerror(errno)};
  in.clear();
  return in;
}

// What the base library recorded about the file that failed last.
std::string LastError() { return std::string(QXErrorText()) + ": " + std::strerror(QXErrorCode()); }

// The callback through which the builder asks for the keys.
UShort KeyOfWord(void* words, Id index, const UByte** bytes) {
  const std::string& word = (*static_cast<const std::vector<std::string>*>(words))[index];
  *bytes = Bytes(word);
  return static_cast<UShort>(word.size());
}

}  // namespace

Table NewCounts() {
  Table counts(HashTableNew(1024, nullptr, nullptr, nullptr, sizeof(WordCount), 0, TRUE));
  if (!counts) throw Error{"no memory for the counted words"};
  return counts;
}

void ForEachWord(const std::string& path, const std::function<void(const std::string&, UInt)>& visit) {
  std::ifstream in = OpenText(path);
  UInt line = 1;
  std::string word;
  const auto finish = [&] {
    while (!word.empty() && word.back() == '\'') word.pop_back();
    if (!word.empty()) visit(word, line);
    word.clear();
  };
  std::vector<char> piece(1 << 16);
  while (in.read(piece.data(), static_cast<std::streamsize>(piece.size())), in.gcount() > 0) {
    for (std::streamsize i = 0; i < in.gcount(); i++) {
      const char c = piece[static_cast<size_t>(i)];
      if (InWord(static_cast<unsigned char>(c)) || (c == '\'' && !word.empty())) {
        word += Lower(c);
      } else {
        finish();
        if (c == '\n') line++;
      }
    }
  }
  if (in.bad()) throw Error{"cannot read " + path + ": " + std::strerror(errno)};
  finish();
}

size_t CountWords(HashTable* counts, const std::string& path) {
  size_t words = 0;
  ForEachWord(path, [counts, &words](const std::string& word, UInt line) {
    Count(counts, word, line);
    words++;
  });
  return words;
}

void ForEachCount(const HashTable* counts, const std::function<void(std::string_view, WordCount)>& visit) {
  HashTableIterator* it = HashTableIteratorInit(counts);
  for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it)) {
    const UByte* bytes = nullptr;
    const UInt length = HashTableIteratorGetKey(it, &bytes);
    visit({reinterpret_cast<const char*>(bytes), length}, ValueOf(HashTableIteratorGetValue(it)));
  }
  HashTableIteratorFinalize(it);
}

void Save(const HashTable* counts, const std::string& path) {
  if (!HashTableWrite(counts, path.c_str())) throw Error{LastError()};
}

Table Load(const std::string& path) {
  Table counts(HashTableRead(path.c_str(), nullptr, nullptr, nullptr, TRUE));
  if (!counts) throw Error{LastError()};
  return counts;
}

std::vector<std::pair<std::string, UInt>> MostFrequent(HashTable* counts, UInt most) {
  const HashCompareFunction by_count = [](const UByte* a, const UByte* b, void* table) {
    const UInt count_a = ValueOf(a).count;
    const UInt count_b = ValueOf(b).count;
    if (count_a != count_b) return count_a > count_b ? -1 : 1;
    const auto* words = static_cast<const HashTable*>(table);
    return KeyOf(words, a).compare(KeyOf(words, b));
  };
  const UInt chosen = HashTableSelect(counts, 0, nullptr, nullptr, nullptr);
  HashTableSort(counts, by_count, counts, nullptr);
  std::vector<std::pair<std::string, UInt>> result;
  for (UInt i = 0; i < chosen && i < most; i++) {
    const UByte* entry = HashTableGetIndex(counts, i, nullptr);
    result.emplace_back(KeyOf(counts, entry), ValueOf(entry).count);
  }
  return result;
}

std::vector<std::string> ReadWordList(const std::string& path) {
  std::ifstream in = OpenText(path);
  // The builder needs distinct keys; a table without values is a set.
  Table seen(HashTableNew(1 << 20, nullptr, nullptr, nullptr, 0, 0, TRUE));
  if (!seen) throw Error{"no memory for the word list"};
  std::vector<std::string> words;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    if (line.size() > 65535) throw Error{path + ": a line of more than 65535 bytes is no word"};
    if (HashTableFull(seen.get())) HashTableGrow(seen.get(), 2.0F, nullptr);
    const UInt before = HashTableSize(seen.get());
    if (HashTableFind(seen.get(), Bytes(line), static_cast<UInt>(line.size()), TRUE, nullptr, nullptr) == nullptr) {
      throw Error{path + ": too many words"};
    }
    if (HashTableSize(seen.get()) > before) words.push_back(line);
  }
  if (in.bad()) throw Error{"cannot read " + path + ": " + std::strerror(errno)};
  if (words.empty()) throw Error{path + " holds no word"};
  return words;
}

BuiltDictionary Build(const std::vector<std::string>& words, UByte probe_bytes) {
  return BuiltDictionary(HashDictBuild(static_cast<Id>(words.size()), const_cast<std::vector<std::string>*>(&words),
                                       KeyOfWord, nullptr, 0, probe_bytes, TRUE));
}

void Write(const HashDict* dictionary, const std::string& directory, const std::string& name) {
  if (!HashDictWrite(dictionary, directory.c_str(), name.c_str(), nullptr, FALSE)) {
    throw Error{"cannot write " + directory + "/" + name + ".dic: " + std::strerror(errno)};
  }
}

MappedDictionary Open(const std::string& directory, const std::string& name) {
  MappedDictionary dictionary(HashDictOpen(directory.c_str(), name.c_str(), nullptr));
  if (!dictionary) throw Error{"cannot open " + directory + "/" + name + ".dic: " + std::strerror(errno)};
  return dictionary;
}

Id LookUp(const HashDict* dictionary, std::string_view word) {
  return HashDictFind(dictionary, Bytes(word), static_cast<UInt>(word.size()));
}

void WriteAttributes(const std::vector<std::string>& words, HashTable* counts, const std::string& directory,
                     const std::string& name) {
  AttrDict* attributes = AttrDictBuild(directory.c_str(), name.c_str(), FALSE);
  if (attributes == nullptr) {
    throw Error{"cannot write " + directory + "/" + name + ".idx: " + std::strerror(errno)};
  }
  for (const std::string& word : words) {
    const UByte* entry = HashTableFind(counts, Bytes(word), static_cast<UInt>(word.size()), FALSE, nullptr, nullptr);
    std::string text;
    if (entry != nullptr) {
      const WordCount value = ValueOf(entry);
      text = std::to_string(value.count) + (value.count == 1 ? " time" : " times") + ", first in line " +
             std::to_string(value.first_line);
    }
    AttrDictAdd(attributes, Bytes(text), static_cast<UByte>(text.size()));
  }
  if (!AttrDictCommit(attributes)) {
    throw Error{"cannot write " + directory + "/" + name + ".dat: " + std::strerror(errno)};
  }
}

Attributes OpenAttributes(const std::string& directory, const std::string& name) {
  Attributes attributes(AttrDictOpen(directory.c_str(), name.c_str()));
  if (!attributes) throw Error{"cannot open " + directory + "/" + name + ".idx: " + std::strerror(errno)};
  return attributes;
}

std::string AttributeOf(const AttrDict* attributes, Id id) {
  const UByte* bytes = nullptr;
  const UByte length = AttrDictGet(attributes, id, &bytes);
  return length == 0 ? std::string() : std::string(reinterpret_cast<const char*>(bytes), length);
}

std::string WorkOutCorrections(const HashDict* dictionary, const std::vector<std::string>& words,
                               std::string_view foreign) {
  std::set<std::string> found;
  const auto consider = [&](const std::string& candidate) {
    const Id id = LookUp(dictionary, candidate);
    // Now and then a foreign candidate passes the probe: what it was taken for tells.
    if (id != kAbsent && words[id] == candidate) found.insert(candidate);
  };
  for (size_t i = 0; i <= foreign.size(); i++) {
    const std::string before(foreign.substr(0, i));
    const std::string_view behind = foreign.substr(i);
    for (char letter = 'a'; letter <= 'z'; letter++) {
      consider((before + letter).append(behind));
      if (!behind.empty()) consider((before + letter).append(behind.substr(1)));
    }
    if (!behind.empty()) consider(std::string(before).append(behind.substr(1)));
    if (behind.size() > 1) consider((before + behind[1] + behind[0]).append(behind.substr(2)));
  }
  std::string corrections;
  for (const std::string& word : found) corrections += (corrections.empty() ? "" : ", ") + word;
  return corrections;
}

Corrections::Corrections(const HashDict* dictionary, const std::vector<std::string>* words, ULong keep_milliseconds)
    : dictionary_(dictionary), words_(words), keep_milliseconds_(keep_milliseconds), cache_(QXCacheNew(kAnswerBytes)) {
  if (!cache_) throw Error{"no memory for the cache of corrections"};
}

std::string Corrections::Of(const std::string& foreign, bool* worked_out) {
  std::string answer;
  const QXCacheReadFunction copy = [](const UByte* value, UInt size, void* to) -> Boolean {
    static_cast<std::string*>(to)->assign(reinterpret_cast<const char*>(value), size);
    return TRUE;
  };
  const UByte* const key = Bytes(foreign);
  *worked_out = !QXCacheRead(cache_.get(), key, copy, &answer);
  if (!*worked_out) return answer;
  answer = WorkOutCorrections(dictionary_, *words_, foreign);
  // A cache that refuses has no room just now. The answer is as good without it, and will be worked out again.
  QXCacheStore(cache_.get(), key, Bytes(answer), static_cast<UInt>(answer.size()),
               GetCurrentTimeMilliseconds() + keep_milliseconds_);
  return answer;
}

QXCacheStatistics Corrections::Statistics() const {
  QXCacheStatistics statistics;
  QXCacheStats(cache_.get(), &statistics);
  return statistics;
}

Corrections::Fill Corrections::HowFull() const {
  Fill fill = {};
  fill.capacity = QXCacheGetSize(cache_.get(), &fill.answers, &fill.bytes);
  return fill;
}

}  // namespace lexicon
