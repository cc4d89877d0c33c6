// visits: the door book of a museum, kept with what the library adds to its classic operations.
//
//   visits [DIRECTORY]     writes visitors.dic, .idx and .dat there (default: the current directory)
//
// Visitors' names come from strangers, so their table is hashed with a key; a day is asked for by range; questions that
// come by the hundred are answered in bulk; what is kept in files replaces yesterday's in one step; and who wants to be
// forgotten is. The book itself is drawn from a fixed seed: every run prints the same.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
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

namespace {

constexpr UInt kVisitors = 2000;
constexpr UInt kVisits = 100000;
constexpr UInt kDays = 365;
constexpr ULong kDay = 86400;
constexpr ULong kNever = ~ULong{0};

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "visits: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

const UByte* Bytes(const std::string& text) { return reinterpret_cast<const UByte*>(text.data()); }
UInt Length(const std::string& text) { return static_cast<UInt>(text.size()); }

std::vector<std::string> Names() {
  static constexpr const char* kFirst[] = {"Ada", "Alan", "Barbara", "Donald", "Edsger", "Grace", "John", "Margaret"};
  std::vector<std::string> names;
  for (UInt i = 0; i < kVisitors; i++) names.push_back(std::string(kFirst[i % 8]) + " " + std::to_string(i));
  return names;
}

struct Book {
  AVLLDict* by_time = QXAVLLDictNew(kVisits + 2);  // second of the year -> visitor, one a second at most
  IdMap* counts = IdMapNew();                      // visitor -> visits
  AVLDict* per_day = QXAVLDictNew(kDays + 2);      // day -> visits
  RBDict* busiest = QXRBDictNew(kDays + 2);        // visits of a day -> one such day
};

Book WriteBook() {
  Book book;
  std::mt19937 random(1);
  while (QXAVLLDictSize(book.by_time) < kVisits) {
    const ULong second = random() % (kDays * kDay);
    const ULong visitor = (random() % kVisitors) * (random() % kVisitors) / kVisitors;  // some come often
    if (QXAVLLDictInsert(book.by_time, second, visitor, kNever) != kNever) continue;
    Boolean first;
    const Id count = IdMapFind(book.counts, static_cast<Id>(visitor), 1, IDMAP_NONE, &first);
    if (!first) IdMapFind(book.counts, static_cast<Id>(visitor), IDMAP_NONE, count + 1, nullptr);
    UInt* day = QXAVLDictValueGet(book.per_day, static_cast<UInt>(second / kDay) + 1);
    if (day != nullptr) {
      ++*day;
    } else {
      QXAVLDictInsert(book.per_day, static_cast<UInt>(second / kDay) + 1, 1, 0);
    }
  }
  QXAVLDictEnumerate(
      book.per_day, FALSE,
      [](AVLDict*, UInt day, UInt visits, void* arg) -> Boolean {
        QXRBDictInsert(static_cast<RBDict*>(arg), visits, day, 0);
        return TRUE;
      },
      book.busiest);
  return book;
}

// The table of names: strangers chose them, so nobody outside may know which ones collide.
void CheckIn(const std::vector<std::string>& names) {
  static const UByte kKey[16] = {1, 7, 3, 9, 2, 8, 4, 6, 5, 0, 11, 13, 12, 15, 14, 10};  // a secret, kept elsewhere
  void* const key = const_cast<UByte*>(kKey);
  HashTable* table = HashTableNew(5, HashBytesKeyed, nullptr, nullptr, sizeof(UInt), 0, FALSE);
  if (!HashTableReserve(table, kVisitors, key)) Fail("the table of names");
  std::vector<const UByte*> keys;
  std::vector<UInt> lens;
  for (const std::string& name : names) {
    HashTableFind(table, Bytes(name), Length(name), TRUE, nullptr, key);
    keys.push_back(Bytes(name));
    lens.push_back(Length(name));
  }
  std::vector<UByte*> entries(keys.size());
  HashTableFindMany(table, static_cast<UInt>(keys.size()), keys.data(), lens.data(), entries.data(), nullptr, key);
  size_t found = 0;
  for (const UByte* entry : entries) found += entry != nullptr;
  HashTableStatistics stats;
  HashTableStats(table, &stats, key);
  std::printf("%u visitors checked in, %zu found again at once; room for %u, the longest way %u slots\n",
              HashTableSize(table), found, HashTableCapacity(table), stats.s_longest_probe);
  HashTableFree(table);
}

Boolean PrintDay(AVLDict*, UInt day, UInt visits, void*) {
  std::printf("    day %3u  %u visits\n", day, visits);
  return TRUE;
}

Boolean PrintBusy(RBDict*, UInt visits, UInt day, void* left) {
  std::printf("    day %3u  %u visits\n", day, visits);
  return --*static_cast<int*>(left) > 0;
}

void AskTheBook(const Book& book) {
  ULong first = 0;
  ULong visitor = 0;
  if (QXAVLLDictLowerBound(book.by_time, 100 * kDay, &first, &visitor)) {
    std::printf("the first to come on day 101 was visitor %lu, %lu s after midnight\n", visitor, first - 100 * kDay);
  }
  UInt morning = 0;
  QXAVLLDictEnumerateRange(
      book.by_time, 100 * kDay + 8 * 3600, 100 * kDay + 12 * 3600, FALSE,
      [](AVLLDict*, ULong, ULong, void* arg) -> Boolean { return ++*static_cast<UInt*>(arg), TRUE; }, &morning);
  std::printf("%u came between eight and noon\n", morning);
  std::puts("the last three days of the year");
  QXAVLDictEnumerateRange(book.per_day, kDays - 2, kDays, TRUE, PrintDay, nullptr);
  std::puts("the busiest days");
  int left = 3;
  QXRBDictEnumerateRange(book.busiest, 1, ~UInt{0}, TRUE, PrintBusy, &left);

  // Two guards read the book at the same time; neither writes a word into it.
  UInt seen[2] = {0, 0};
  const auto watch = [&book, &seen](UInt guard) {
    for (ULong second = guard; second < 10 * kDay; second += 2) {
      seen[guard] += QXAVLLDictFindShared(book.by_time, second, kNever) != kNever;
    }
  };
  std::thread other(watch, 1);
  watch(0);
  other.join();
  std::printf("two guards counted %u visits in the first ten days\n", seen[0] + seen[1]);

  std::vector<ULong> seconds(1000);
  for (size_t i = 0; i < seconds.size(); i++) seconds[i] = 100 * kDay + i;
  std::vector<ULong> visitors(seconds.size());
  QXAVLLDictFindMany(book.by_time, seconds.data(), seconds.size(), kNever, visitors.data());
  std::vector<Id> known;
  for (const ULong who : visitors) {
    if (who != kNever) known.push_back(static_cast<Id>(who));
  }
  std::vector<Id> counts(known.size());
  IdMapFindMany(book.counts, known.data(), known.size(), counts.data());
  UInt most = 0;
  for (const Id count : counts) most = count > most ? count : most;
  std::printf("%zu came in the first thousand seconds of day 101, the most faithful of them %u times\n", known.size(),
              most);
}

// Who is in the house: a table in the caller's own record.
void WatchTheHouse(const std::vector<std::string>& names) {
  HashDelTable house;
  HashDelTableInit(&house, 5, nullptr, nullptr, nullptr, 0, 0);
  if (!HashDelTableReserve(&house, 1000, nullptr)) Fail("the table of the house");
  for (UInt i = 0; i < 500; i++) HashDelTableFind(&house, Bytes(names[i]), Length(names[i]), TRUE, nullptr, nullptr);
  for (UInt i = 0; i < 300; i++) HashDelTableRemove(&house, Bytes(names[i]), Length(names[i]), nullptr);
  std::printf("500 went in, 300 went out, %u are inside\n", HashDelTableSize(&house));
  HashDelTableFinalize(&house);
}

// The year's files. Readers of last year's see those or these, whole.
void Publish(const std::string& directory, const std::vector<std::string>& names, const Book& book) {
  std::vector<const UByte*> keys;
  std::vector<UShort> lens;
  for (const std::string& name : names) {
    keys.push_back(Bytes(name));
    lens.push_back(static_cast<UShort>(name.size()));
  }
  HashDict* dict = HashDictBuildFromSlices(kVisitors, keys.data(), lens.data(), nullptr, 0, 4, FALSE);
  if (!HashDictReplace(dict, directory.c_str(), "visitors", "dic", FALSE)) Fail("visitors.dic");

  const std::vector<UInt> wide(lens.begin(), lens.end());
  std::vector<Id> ids(kVisitors);
  HashDictFindMany(dict, kVisitors, keys.data(), wide.data(), ids.data());
  RefMap* by_number = RefMapNew();  // number in the dictionary -> visitor
  for (ULong visitor = 0; visitor < kVisitors; visitor++)
    RefMapFind(by_number, ids[visitor], visitor, visitor, nullptr);
  std::vector<ULong> numbers(kVisitors);
  for (ULong i = 0; i < kVisitors; i++) numbers[i] = i;
  std::vector<ULong> visitors(kVisitors);
  RefMapFindMany(by_number, numbers.data(), numbers.size(), visitors.data());
  RefMapDelete(by_number);

  AttrDict* attributes = AttrDictBuild(directory.c_str(), "visitors.new", FALSE);
  if (attributes == nullptr) Fail("visitors.new");
  for (const ULong visitor : visitors) {
    const Id visits = IdMapFind(book.counts, static_cast<Id>(visitor), IDMAP_NONE, IDMAP_NONE, nullptr);
    const std::string text = std::to_string(visits == IDMAP_NONE ? 0 : visits) + " visits";
    AttrDictAdd(attributes, Bytes(text), static_cast<UByte>(text.size()));
  }
  if (!AttrDictCommitAs(attributes, directory.c_str(), "visitors")) Fail("visitors.idx, visitors.dat");

  AttrDict* published = AttrDictOpen(directory.c_str(), "visitors");
  if (published == nullptr) Fail("visitors");
  const UByte* text = nullptr;
  const UInt length = AttrDictGet(published, ids[7], &text);
  std::printf("published: %s, %.*s\n", names[7].c_str(), static_cast<int>(length), reinterpret_cast<const char*>(text));
  AttrDictClose(published);
  HashDictFree(dict);
}

// Answers at the desk, kept for an hour. The newest holds, and who asks for it is forgotten.
void AnswerAtTheDesk(const std::vector<std::string>& names) {
  Cache* cache = QXCacheNewWithPolicy(16, 65536, 8.0, 10.0, 16.0, 36000, 16 << 20,
                                      QX_CACHE_NEWEST_WINS | QX_CACHE_KEEP_PAGES | QX_CACHE_TRUE_AGE);
  if (cache == nullptr) Fail("the cache");
  const auto key = [&names](UInt i) { return reinterpret_cast<const UByte*>(names[i].c_str()); };
  for (UInt i = 0; i < kVisitors; i++) QXCacheStore(cache, key(i), Bytes("member"), 6, kNever);
  QXCacheStore(cache, key(7), Bytes("patron"), 6, kNever);
  const auto print = [](const UByte* value, UInt size, void* name) -> Boolean {
    std::printf("%s is a %.*s\n", static_cast<const char*>(name), static_cast<int>(size),
                reinterpret_cast<const char*>(value));
    return TRUE;
  };
  QXCacheRead(cache, key(7), print, const_cast<char*>(names[7].c_str()));
  QXCacheRemove(cache, key(7));
  if (!QXCacheRead(cache, key(7), print, const_cast<char*>(names[7].c_str()))) {
    std::printf("%s is forgotten\n", names[7].c_str());
  }
  QXCacheStatistics stats;
  QXCacheStats(cache, &stats);
  std::printf("the desk has stored %lu answers and given %lu\n", stats.s_stores, stats.s_hits);
  QXCacheDelete(cache);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2) return std::fputs("usage: visits [DIRECTORY]\n", stderr), 2;
  const std::string directory = argc == 2 ? argv[1] : ".";
  const std::vector<std::string> names = Names();
  const Book book = WriteBook();
  CheckIn(names);
  AskTheBook(book);
  WatchTheHouse(names);
  Publish(directory, names, book);
  AnswerAtTheDesk(names);
  QXAVLLDictDelete(book.by_time);
  IdMapDelete(book.counts);
  QXAVLDictDelete(book.per_day);
  QXRBDictDelete(book.busiest);
}
