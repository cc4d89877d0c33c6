// The steps of the example: count the words of texts and keep the counts in a file, build a dictionary of a word list
// with an attribute a word, look words up in it, and correct those that are not there.

#ifndef EXAMPLES_LEXICON_LEXICON_H
#define EXAMPLES_LEXICON_LEXICON_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dict/attrdict.h"
#include "dict/hashdict.h"
#include "dict/hashtable.h"
#include "dict/qxcache.h"

namespace lexicon {

// Something a person should read: the input is missing, the output cannot be written.
struct Error {
  std::string text;
};

struct FreeTable {
  void operator()(HashTable* table) const { HashTableFree(table); }
};
struct FreeDictionary {
  void operator()(HashDict* dictionary) const { HashDictFree(dictionary); }
};
struct CloseDictionary {
  void operator()(HashDict* dictionary) const { HashDictClose(dictionary); }
};
struct CloseAttributes {
  void operator()(AttrDict* attributes) const { AttrDictClose(attributes); }
};
struct DeleteCache {
  void operator()(Cache* cache) const { QXCacheDelete(cache); }
};
using Table = std::unique_ptr<HashTable, FreeTable>;
using BuiltDictionary = std::unique_ptr<HashDict, FreeDictionary>;
using MappedDictionary = std::unique_ptr<HashDict, CloseDictionary>;
using Attributes = std::unique_ptr<AttrDict, CloseAttributes>;
using AnswerCache = std::unique_ptr<Cache, DeleteCache>;

// What a word's value in the counting table holds.
struct WordCount {
  UInt count;
  UInt first_line;  // of the text in which the word was met first, from 1
};

// An empty table for counting, in mapped memory.
Table NewCounts();

// Calls `visit` for each word of a text with the line it stands in: runs of letters, digits and bytes above 127, with
// apostrophes inside, in lower case. Throws Error when the file cannot be read.
void ForEachWord(const std::string& path, const std::function<void(const std::string&, UInt)>& visit);

// Counts the words of a text. Returns how many there were. Throws Error when the file cannot be read.
size_t CountWords(HashTable* counts, const std::string& path);

// Calls `visit` for each counted word, in order of first appearance.
void ForEachCount(const HashTable* counts, const std::function<void(std::string_view, WordCount)>& visit);

// Writes the counts to a file, and reads such a file. Both throw Error when they fail.
void Save(const HashTable* counts, const std::string& path);
Table Load(const std::string& path);

// The `most` most frequent words, the most frequent first and those that are as frequent in alphabetical order. Spends
// the table: afterwards it cannot be searched.
std::vector<std::pair<std::string, UInt>> MostFrequent(HashTable* counts, UInt most);

// The distinct words of a list, one a line. Throws Error when the file cannot be read or holds no word.
std::vector<std::string> ReadWordList(const std::string& path);

// Builds a dictionary that gives each word its line among `words`; a foreign word passes with a chance of 1 in
// 256^probe_bytes.
BuiltDictionary Build(const std::vector<std::string>& words, UByte probe_bytes);

// Writes the dictionary to <directory>/<name>.dic, and maps that file again. Both throw Error when they fail.
void Write(const HashDict* dictionary, const std::string& directory, const std::string& name);
MappedDictionary Open(const std::string& directory, const std::string& name);

// Writes, for each word, how often it was counted and where it was met first, to <directory>/<name>.idx and .dat; opens
// such a pair. Both throw Error when they fail.
void WriteAttributes(const std::vector<std::string>& words, HashTable* counts, const std::string& directory,
                     const std::string& name);
Attributes OpenAttributes(const std::string& directory, const std::string& name);

// The attribute of word `id`: "3 times, first in line 12", or nothing when it was not counted.
std::string AttributeOf(const AttrDict* attributes, Id id);

constexpr Id kAbsent = 0xFFFFFFFE;

// The word's number, or kAbsent.
Id LookUp(const HashDict* dictionary, std::string_view word);

// The words that differ from a foreign one by one letter left out, put in, replaced, or two that changed places:
// "receive, relieve" for "recieve", in alphabetical order; "" when there is none. Hundreds of look-ups an answer.
std::string WorkOutCorrections(const HashDict* dictionary, const std::vector<std::string>& words,
                               std::string_view foreign);

// Keeps corrections, so that none is worked out again before its time is up.
class Corrections {
 public:
  Corrections(const HashDict* dictionary, const std::vector<std::string>* words, ULong keep_milliseconds);

  // Which words the foreign one may stand for, and whether that had to be worked out.
  std::string Of(const std::string& foreign, bool* worked_out);

  // What has happened so far.
  QXCacheStatistics Statistics() const;

  // How many answers the cache holds, their bytes, and the bytes it could hold.
  struct Fill {
    UInt answers;
    ULong bytes;
    ULong capacity;
  };
  Fill HowFull() const;

 private:
  const HashDict* dictionary_;
  const std::vector<std::string>* words_;
  ULong keep_milliseconds_;
  AnswerCache cache_;
};

}  // namespace lexicon

#endif
