// The attribute dictionary beside tinycdb and LMDB, and beside bare offsets: an array of 32-bit positions into the
// strings, which is what remains of a dictionary when nothing is saved on it.
//
// Identifiers are the numbers from 0 on; strings have 0 to 40 bytes. tinycdb and LMDB take the identifier as a key of
// four bytes (in LMDB a native integer, appended in order). All read a mapping of a file in memory, written by the same
// turn; building includes the file, without forcing it to the disk. The checksum takes the length and both ends of
// every string: to copy a number of bytes that nobody can guess would cost more than to find them.

#include <cdb.h>
#include <fcntl.h>
#include <lmdb.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "dict/attrdict.h"
#include "support/duel.h"

namespace {

struct Work {
  std::vector<std::string> strings;  // by identifier
  std::vector<uint32_t> probes;      // identifiers, shuffled
};

Work MakeWork(size_t count) {
  duel::Random random(1);
  Work work;
  for (size_t i = 0; i < count; i++) {
    std::string string(random.Below(41), '\0');
    for (char& c : string) c = static_cast<char>(random());
    work.strings.push_back(std::move(string));
  }
  work.probes = duel::Shuffled(count, 2);
  return work;
}

// A folder in memory that goes with its turn.
class Folder {
 public:
  Folder() {
    char name[] = "/dev/shm/qxdict-bench-XXXXXX";
    if (mkdtemp(name) == nullptr) std::abort();
    path_ = name;
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  std::string file(const char* name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }
  size_t bytes() const {
    size_t sum = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) sum += entry.file_size();
    return sum;
  }

 private:
  std::string path_;
};

void Check(bool done) {
  if (!done) std::abort();
}

uint64_t Mix(uint64_t sum, std::string_view string) {
  const unsigned ends =
      string.empty() ? 0 : static_cast<UByte>(string.front()) * 256u + static_cast<UByte>(string.back());
  return sum * 3 + ends + string.size();
}

// Each contender has Build, Get (the string of an identifier) and Sum (over all strings in order).

struct AttrDictContender {
  AttrDict* dict = nullptr;
  ~AttrDictContender() { AttrDictClose(dict); }
  void Build(const Folder& folder, const Work& work) {
    AttrDict* building = AttrDictBuild(folder.path().c_str(), "attributes", FALSE);
    for (const std::string& string : work.strings) {
      AttrDictAdd(building, reinterpret_cast<const UByte*>(string.data()), static_cast<UByte>(string.size()));
    }
    Check(AttrDictCommit(building) != FALSE);
    dict = AttrDictOpen(folder.path().c_str(), "attributes");
  }
  std::string_view Get(uint32_t id) const {
    const UByte* bytes = nullptr;
    const size_t length = AttrDictGet(dict, id, &bytes);
    return {reinterpret_cast<const char*>(bytes), length};
  }
  uint64_t Sum() const {
    uint64_t sum = 0;
    AttrDictEnumerate(
        dict, 0,
        [](UByte* bytes, UInt length, void* ptr) -> UInt {
          auto* s = static_cast<uint64_t*>(ptr);
          *s = Mix(*s, {reinterpret_cast<const char*>(bytes), length});
          return 0;
        },
        &sum);
    return sum;
  }
};

struct CdbContender {
  cdb dict = {};
  int fd = -1;
  ~CdbContender() {
    cdb_free(&dict);
    close(fd);
  }
  void Build(const Folder& folder, const Work& work) {
    fd = open(folder.file("cdb").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    cdb_make make;
    Check(cdb_make_start(&make, fd) == 0);
    for (uint32_t id = 0; id < work.strings.size(); id++) {
      const std::string& string = work.strings[id];
      Check(cdb_make_add(&make, &id, sizeof id, string.data(), static_cast<unsigned>(string.size())) == 0);
    }
    Check(cdb_make_finish(&make) == 0);
    Check(cdb_init(&dict, fd) == 0);
  }
  std::string_view Get(uint32_t id) {
    if (cdb_find(&dict, &id, sizeof id) <= 0) return {};
    return {static_cast<const char*>(cdb_getdata(&dict)), cdb_datalen(&dict)};
  }
  uint64_t Sum() {
    uint64_t sum = 0;
    unsigned position;
    cdb_seqinit(&position, &dict);
    while (cdb_seqnext(&position, &dict) > 0) {
      sum = Mix(sum, {static_cast<const char*>(cdb_getdata(&dict)), cdb_datalen(&dict)});
    }
    return sum;
  }
};

struct LmdbContender {
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi dbi = 0;
  MDB_cursor* cursor = nullptr;
  ~LmdbContender() {
    mdb_cursor_close(cursor);
    mdb_txn_abort(txn);
    mdb_env_close(env);
  }
  void Build(const Folder& folder, const Work& work) {
    Check(mdb_env_create(&env) == 0);
    Check(mdb_env_set_mapsize(env, size_t{4} << 30) == 0);
    Check(mdb_env_open(env, folder.file("lmdb").c_str(), MDB_NOSUBDIR | MDB_NOSYNC | MDB_NOLOCK, 0600) == 0);
    Check(mdb_txn_begin(env, nullptr, 0, &txn) == 0);
    Check(mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi) == 0);
    for (uint32_t id = 0; id < work.strings.size(); id++) {
      MDB_val key = {sizeof id, &id};
      MDB_val data = {work.strings[id].size(), const_cast<char*>(work.strings[id].data())};
      Check(mdb_put(txn, dbi, &key, &data, MDB_APPEND) == 0);
    }
    Check(mdb_txn_commit(txn) == 0);
    Check(mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn) == 0);
    Check(mdb_cursor_open(txn, dbi, &cursor) == 0);
  }
  std::string_view Get(uint32_t id) {
    MDB_val key = {sizeof id, &id};
    MDB_val data;
    if (mdb_get(txn, dbi, &key, &data) != 0) return {};
    return {static_cast<const char*>(data.mv_data), data.mv_size};
  }
  uint64_t Sum() {
    uint64_t sum = 0;
    MDB_val key, data;
    while (mdb_cursor_get(cursor, &key, &data, MDB_NEXT) == 0) {
      sum = Mix(sum, {static_cast<const char*>(data.mv_data), data.mv_size});
    }
    return sum;
  }
};

struct BareContender {
  const uint32_t* offsets = nullptr;
  const char* data = nullptr;
  size_t count = 0;
  static const void* Write(const std::string& path, const void* from, size_t size) {
    std::FILE* f = std::fopen(path.c_str(), "we");
    Check(std::fwrite(from, 1, size, f) == size && std::fclose(f) == 0);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const void* base = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    return base;
  }
  void Build(const Folder& folder, const Work& work) {
    std::vector<uint32_t> places;
    std::string bytes;
    for (const std::string& string : work.strings) {
      places.push_back(static_cast<uint32_t>(bytes.size()));
      bytes += string;
    }
    places.push_back(static_cast<uint32_t>(bytes.size()));
    count = work.strings.size();
    offsets =
        static_cast<const uint32_t*>(Write(folder.file("offsets"), places.data(), places.size() * sizeof(uint32_t)));
    data = static_cast<const char*>(Write(folder.file("data"), bytes.data(), bytes.size() + 1));
  }
  std::string_view Get(uint32_t id) const { return {data + offsets[id], offsets[id + 1] - offsets[id]}; }
  uint64_t Sum() const {
    uint64_t sum = 0;
    for (uint32_t id = 0; id < count; id++) sum = Mix(sum, Get(id));
    return sum;
  }
};

template <typename Contender>
void Turn(duel::Sheet& sheet, const Work& work) {
  const size_t count = work.strings.size();
  const Folder folder;
  Contender contender;
  sheet.Time("build and open", count, [&] {
    contender.Build(folder, work);
    return count;
  });
  sheet.Tell("bytes a record", static_cast<double>(folder.bytes()) / static_cast<double>(count));
  sheet.Time("get, random", count, [&] {
    uint64_t sum = 0;
    for (const uint32_t id : work.probes) sum = Mix(sum, contender.Get(id));
    return sum;
  });
  sheet.Time("enumerate", count, [&] { return contender.Sum(); });
}

}  // namespace

int main(int argc, char** argv) {
  return duel::Main(argc, argv, "attrdict", [](duel::Duel& duel, size_t count) {
    const Work work = MakeWork(count);
    duel.Contend("AttrDict", [work](duel::Sheet& sheet) { Turn<AttrDictContender>(sheet, work); });
    duel.Contend("tinycdb", [work](duel::Sheet& sheet) { Turn<CdbContender>(sheet, work); });
    duel.Contend("LMDB", [work](duel::Sheet& sheet) { Turn<LmdbContender>(sheet, work); });
    duel.Contend("bare offsets", [work](duel::Sheet& sheet) { Turn<BareContender>(sheet, work); });
  });
}
