// HashTable: its file, written and read, whole and damaged, on media that fail.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dict/hashtable.h"
#include "support/death.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/hashtable_model.h"
#include "support/messages.h"
#include "util/io.h"

using support::Find;
using support::HashTablePtr;
using support::Insert;
using support::KeyText;
using support::OffsetOf;
using support::ReadFile;
using support::TemporaryDirectory;
using support::Text;
namespace faults = support::faults;

namespace {

constexpr UInt kEmpty = 0xFFFFFFFF;

// The C library's streams, as the library under test calls them: counted, watched, failed on demand.
struct Streams {
  int writes_before_failure = -1, reads_before_failure = -1;
  int failure = 0;  // errno of what fails
  bool flush_fails = false, sync_fails = false, close_fails = false;
  bool sync_waits = true;
  std::function<void()> on_close;
  int writes = 0, closes = 0, descriptor = -1, descriptor_flags = 0;
  std::vector<size_t> requests;  // bytes asked for by each read

  void See(FILE* f) {
    descriptor = fileno(f);
    descriptor_flags = fcntl(descriptor, F_GETFD);
  }
};
Streams* streams = nullptr;

template <typename Function>
Function Real(Function, const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

size_t fwrite(const void* from, size_t size, size_t count, FILE* f) {
  if (streams != nullptr) {
    streams->See(f);
    if (streams->writes++ == streams->writes_before_failure) {
      errno = streams->failure;
      return 0;
    }
  }
  return Real(fwrite, "fwrite")(from, size, count, f);
}

size_t fread(void* to, size_t size, size_t count, FILE* f) {
  if (streams != nullptr) {
    streams->See(f);
    if (static_cast<int>(streams->requests.size()) == streams->reads_before_failure) {
      errno = streams->failure;
      f->_flags |= _IO_ERR_SEEN;
      streams->reads_before_failure = -1;
      return 0;
    }
    streams->requests.push_back(size * count);
  }
  return Real(fread, "fread")(to, size, count, f);
}

int fflush(FILE* f) {
  if (streams != nullptr && streams->flush_fails) {
    errno = streams->failure;
    return EOF;
  }
  return Real(fflush, "fflush")(f);
}

int fsync(int descriptor) {
  if (streams != nullptr && !streams->sync_waits) return 0;
  if (streams != nullptr && streams->sync_fails) {
    errno = streams->failure;
    return -1;
  }
  return Real(fsync, "fsync")(descriptor);
}

int fclose(FILE* f) {
  const int result = Real(fclose, "fclose")(f);
  if (streams == nullptr) return result;
  streams->closes++;
  if (streams->on_close) streams->on_close();
  if (!streams->close_fails) return result;
  errno = streams->failure;
  return EOF;
}

}  // extern "C"

namespace {

class WatchedStreams : public Streams {
 public:
  WatchedStreams() { streams = this; }
  ~WatchedStreams() { streams = nullptr; }
  WatchedStreams(const WatchedStreams&) = delete;
  WatchedStreams& operator=(const WatchedStreams&) = delete;
};

HashTablePtr New(UInt capacity, UInt val_len = 8, UByte key_size = 0, Boolean vm = FALSE) {
  return HashTablePtr(HashTableNew(capacity, nullptr, nullptr, nullptr, val_len, key_size, vm));
}

HashTablePtr Read(const std::string& path, Boolean vm = FALSE) {
  return HashTablePtr(HashTableRead(path.c_str(), nullptr, nullptr, nullptr, vm));
}

Boolean Write(const HashTablePtr& table, const std::string& path) { return HashTableWrite(table.get(), path.c_str()); }

void Put(HashTable* table, const std::string& key, const std::string& value) {
  UByte* entry = Insert(table, key);
  ASSERT_NE(entry, nullptr);
  std::memcpy(entry, value.data(), value.size());
}

// Expects that nothing comes of the file, and this to be recorded for it.
void ExpectNoTable(const std::string& path, Boolean vm, const std::string& error, int code) {
  const long held = faults::Maps() - faults::Unmaps();
  const support::Messages messages;
  QXErrorClear();
  EXPECT_EQ(Read(path, vm), nullptr);
  EXPECT_EQ(QXErrorText(), error + " " + path);
  EXPECT_EQ(QXErrorCode(), code);
  EXPECT_TRUE(messages.all().empty());
  EXPECT_EQ(faults::Maps() - faults::Unmaps(), held);
}

// A new file in place of the old one: cutting an old one down makes some file systems wait for the disk.
void WriteFile(const std::string& path, const std::string& bytes) {
  unlink(path.c_str());
  support::WriteFile(path, bytes);
}

std::string Number(ULong value, size_t bytes) {
  std::string text;
  for (; bytes > 0; bytes--, value >>= 8) text += static_cast<char>(value);
  return text;
}

// The parts of a file, to put a wrong one together.
struct File {
  ULong selected = 0, val_len = 0, key_size = 0, used = 0, capacity = 5, data_used = 0;
  std::vector<UInt> slots = std::vector<UInt>(7, kEmpty);
  std::string heap;
  ULong slot_count = ~ULong{0}, data_size = ~ULong{0};  // when they are not the true ones

  std::string bytes() const {
    std::string text = Number(selected, 4) + Number(val_len, 4) + Number(key_size, 1) + Number(used, 4) +
                       Number(capacity, 4) + Number(slot_count == ~ULong{0} ? slots.size() : slot_count, 4) +
                       Number(data_used, 8) + Number(data_size == ~ULong{0} ? heap.size() : data_size, 8);
    for (const UInt slot : slots) text += Number(slot, 4);
    return text + heap;
  }
};

// Every operation that a damaged table must bear, in an order in which each still has something to do.
struct Bearer {
  HashTable* table;
  size_t calls = 0;
  unsigned sum = 0;

  // Reads all that a caller is entitled to read of an entry.
  void Touch(const UByte* entry) {
    calls++;
    for (UInt i = 0; i < table->t_val_len; i++) sum += entry[i];
    if (table->t_key_size > 4) return;
    for (const char c : KeyText(table, entry)) sum += static_cast<UByte>(c);
  }
  static UInt Visit(UByte* entry, void* ptr) {
    static_cast<Bearer*>(ptr)->Touch(entry);
    return 0;
  }
  static Boolean Choose(UByte* entry, void* ptr) {
    static_cast<Bearer*>(ptr)->Touch(entry);
    return TRUE;
  }
  static int Compare(const UByte* a, const UByte* b, void* ptr) {
    static_cast<Bearer*>(ptr)->Touch(a);
    static_cast<Bearer*>(ptr)->Touch(b);
    return a < b ? -1 : a > b;
  }
};

void Bear(HashTablePtr table, const std::string& path) {
  Bearer bearer{table.get()};
  HashTable* t = table.get();
  const std::string keys[] = {"", "a", "bc", "one", "two", "word7", std::string(127, 'x'), std::string(300, 'z')};
  if (t->t_key_size <= 4) {
    const size_t most = t->t_data_size + 1;
    HashTableEnumerate(t, 0, Bearer::Visit, &bearer);
    EXPECT_LE(bearer.calls, most);
    bearer.calls = 0;
    HashTableIterator* it = HashTableIteratorInit(t);
    for (; !HashTableIteratorEnd(it); HashTableIteratorNext(it)) {
      const UByte* bytes = nullptr;
      const UInt length = HashTableIteratorGetKey(it, &bytes);
      bearer.sum += static_cast<unsigned>(Text(bytes, length).size());
      bearer.Touch(HashTableIteratorGetValue(it));
    }
    HashTableIteratorFinalize(it);
    EXPECT_LE(bearer.calls, most);
    HashTableEnumerate(t, 3, Bearer::Visit, &bearer);
  } else {
    HashTableIterator* it = HashTableIteratorInit(t);
    HashTableIteratorEnd(it);
    HashTableIteratorFinalize(it);
  }
  if (!t->t_selected && t->t_key_size <= 4) {
    for (const std::string& key : keys) {
      const size_t field = t->t_key_size;
      if (field != 0 && field < 2 && key.size() > 255) continue;
      if (const UByte* entry = Find(t, key); entry != nullptr) bearer.Touch(entry);
      if (t->t_val_len > 1000000) continue;  // a value that takes its time
      if (const UByte* entry = Insert(t, key); entry != nullptr) bearer.Touch(entry);
    }
    const float grown = static_cast<float>(t->t_entries_capacity) * 1.5F;
    // Neither slots without end nor fewer slots than before, which is asserted against.
    if (grown < 1e5F && static_cast<UInt>(grown) * 3 / 2 >= t->t_entries_size) HashTableGrow(t, 1.5F, nullptr);
    for (const std::string& key : keys) {
      if (t->t_key_size == 1 && key.size() > 255) continue;
      if (const UByte* entry = Find(t, key); entry != nullptr) bearer.Touch(entry);
    }
  }
  {
    WatchedStreams watch;
    watch.sync_waits = false;  // there are thousands of these tables
    unlink(path.c_str());
    EXPECT_TRUE(HashTableWrite(t, path.c_str()));
  }
  HashTablePtr copy(HashTableCopy(t));

  bearer.table = copy.get();
  UIntArray array;
  ArrayInit_(&array.a);
  const UInt chosen = HashTableSelect(copy.get(), 2, Bearer::Choose, &bearer, &array);
  HashTableSort(copy.get(), Bearer::Compare, &bearer, &array);
  for (UInt i = 0; i < chosen; i++) {
    if (const UByte* entry = HashTableGetIndex(copy.get(), i, &array); entry != nullptr) bearer.sum += entry[0];
  }
  ArrayFree_(&array.a, "test", __LINE__);

  bearer.table = t;
  if (t->t_selected) HashTableSort(t, Bearer::Compare, &bearer, nullptr);
  HashTableSelect(t, 0, Bearer::Choose, &bearer, nullptr);
  HashTableSort(t, Bearer::Compare, &bearer, nullptr);
  HashTableSelect(t, 3, nullptr, nullptr, nullptr);
  for (UInt i = 0; i < std::min(HashTableSize(t), 100u) + 20; i++) {
    if (const UByte* entry = HashTableGetIndex(t, i, nullptr); entry != nullptr) bearer.sum += entry[0];
  }

  HashTableClear(copy.get());
  if (t->t_key_size <= 4 && t->t_val_len <= 1000000) {
    for (const char* key : {"one", "two", "three"}) {
      Insert(copy.get(), key);
      Find(copy.get(), key);
    }
  }
}

TEST(HashTableWrite, IsTheGoldenFile) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("t");
  for (const Boolean vm : {FALSE, TRUE}) {
    ASSERT_TRUE(Write(New(0, 8, 0, vm), path));
    support::ExpectGolden("hashtable_empty.ht", ReadFile(path));

    HashTablePtr fixed = New(5, 8, 2, vm);
    Put(fixed.get(), "a", "valueone");
    Put(fixed.get(), "bc", "valuetwo");
    Put(fixed.get(), "", "value--3");
    ASSERT_TRUE(Write(fixed, path));
    support::ExpectGolden("hashtable_fixed.ht", ReadFile(path));

    HashTablePtr grown = New(5, 4, 0, vm);
    std::string all;
    for (int i = 0; i < 256; i++) all += static_cast<char>(i);
    std::vector<std::string> keys = {"",  std::string(1, '\0'),  std::string("a\0", 2), "a",
                                     all, std::string(127, 'x'), std::string(128, 'y')};
    for (int i = 0; i < 20; i++) keys.push_back("word" + std::to_string(i));
    for (size_t i = 0; i < keys.size(); i++) {
      if (HashTableFull(grown.get())) HashTableGrow(grown.get(), 1.5F, nullptr);
      Put(grown.get(), keys[i], Number(i, 4));
    }
    ASSERT_TRUE(Write(grown, path));
    support::ExpectGolden("hashtable_grown.ht", ReadFile(path));

    HashTablePtr selected = New(11, 0, 0, vm);
    for (char c = 'j'; c >= 'a'; c--) Insert(selected.get(), std::string(1, c));
    const HashSelectFunction odd = [](UByte* entry, void*) -> Boolean { return entry[1] % 2; };
    HashTableSelect(selected.get(), 3, odd, nullptr, nullptr);
    ASSERT_TRUE(Write(selected, path));
    support::ExpectGolden("hashtable_selected.ht", ReadFile(path));
  }
}

TEST(HashTableWrite, HeaderTakes37BytesAndSlotsFollow) {
  const TemporaryDirectory directory;
  HashTablePtr table = New(5, 8, 2);
  for (const char* key : {"a", "b", "c"}) Insert(table.get(), key);
  ASSERT_TRUE(Write(table, directory.file("t")));
  const std::string bytes = ReadFile(directory.file("t"));
  ASSERT_EQ(bytes.size(), 37u + 28 + table->t_data_size);
  EXPECT_EQ(bytes.substr(0, 37), Number(0, 4) + Number(8, 4) + Number(2, 1) + Number(3, 4) + Number(5, 4) +
                                     Number(7, 4) + Number(43, 8) + Number(52, 8));
  EXPECT_EQ(bytes.substr(37, 28), Text(reinterpret_cast<const UByte*>(table->t_entries), 28));
  EXPECT_EQ(bytes.substr(65), Text(table->t_data, table->t_data_size));
}

TEST(HashTableWrite, OverwritesALongerFile) {
  const TemporaryDirectory directory;
  WriteFile(directory.file("t"), std::string(100000, 'x'));
  ASSERT_TRUE(Write(New(5), directory.file("t")));
  EXPECT_EQ(ReadFile(directory.file("t")).size(), 100u);
}

TEST(HashTableWrite, HeapBytesThatWereNeverWrittenAreZero) {
  const TemporaryDirectory directory;
  for (int round = 0; round < 20; round++) {
    // Memory of the allocator that has been used before.
    for (size_t size : {28u, 35u, 52u, 100u, 1000u}) {
      void* dirty = Allocate_(size, nullptr, "test", __LINE__);
      std::memset(dirty, 0x5A, size);
      UnAllocate_(dirty, "test", __LINE__);
    }
    HashTablePtr table = New(5, 0);
    for (int i = 0; i < 5; i++) Insert(table.get(), std::string(static_cast<size_t>(20 * i), 'k'));
    ASSERT_TRUE(Write(table, directory.file("t")));
    const std::string bytes = ReadFile(directory.file("t"));
    EXPECT_EQ(bytes.find(0x5A), std::string::npos);
    EXPECT_EQ(bytes.substr(65 + table->t_data_used), std::string(table->t_data_size - table->t_data_used, '\0'));
  }
}

// The heap is written as it stands: what was cleared goes to the disk until something covers it.
TEST(HashTableWrite, ClearedEntriesStayInTheFile) {
  const TemporaryDirectory directory;
  HashTablePtr table = New(5, 0);
  Insert(table.get(), "a secret key");
  HashTableClear(table.get());
  ASSERT_TRUE(Write(table, directory.file("t")));
  EXPECT_NE(ReadFile(directory.file("t")).find("a secret key"), std::string::npos);
  Insert(table.get(), "another key!");
  ASSERT_TRUE(Write(table, directory.file("t")));
  EXPECT_EQ(ReadFile(directory.file("t")).find("secret"), std::string::npos);
}

TEST(HashTableRead, GivesBackTheGoldenFiles) {
  for (const Boolean vm : {FALSE, TRUE}) {
    HashTablePtr empty = Read(support::GoldenPath("hashtable_empty.ht"), vm);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(HashTableSize(empty.get()), 0u);
    EXPECT_EQ(HashTableCapacity(empty.get()), 5u);
    EXPECT_EQ(empty->t_entries_size, 7u);
    EXPECT_TRUE(empty->t_aligned);
    EXPECT_FALSE(empty->t_selected);
    EXPECT_EQ(empty->t_vm, vm);
    EXPECT_NE(Insert(empty.get(), "first"), nullptr);

    HashTablePtr fixed = Read(support::GoldenPath("hashtable_fixed.ht"), vm);
    ASSERT_NE(fixed, nullptr);
    EXPECT_EQ(fixed->t_key_size, 2);
    EXPECT_EQ(HashTableSize(fixed.get()), 3u);
    EXPECT_EQ(Text(Find(fixed.get(), "a"), 8), "valueone");
    EXPECT_EQ(Text(Find(fixed.get(), "bc"), 8), "valuetwo");
    EXPECT_EQ(Text(Find(fixed.get(), ""), 8), "value--3");
    EXPECT_EQ(Find(fixed.get(), "b"), nullptr);

    HashTablePtr grown = Read(support::GoldenPath("hashtable_grown.ht"), vm);
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(HashTableSize(grown.get()), 27u);
    for (UInt i = 0; i < 20; i++) {
      EXPECT_EQ(Text(Find(grown.get(), "word" + std::to_string(i)), 4), Number(i + 7, 4));
    }
    EXPECT_NE(Insert(grown.get(), "one more"), nullptr);
    HashTableGrow(grown.get(), 2.0F, nullptr);
    EXPECT_EQ(Text(Find(grown.get(), std::string(127, 'x')), 4), Number(5, 4));

    HashTablePtr selected = Read(support::GoldenPath("hashtable_selected.ht"), vm);
    ASSERT_NE(selected, nullptr);
    EXPECT_TRUE(selected->t_selected);
    EXPECT_EQ(HashTableSize(selected.get()), 3u);
    EXPECT_TRUE(selected->t_aligned);
    const char* expected[] = {"g", "i", "a"};
    for (UInt i = 0; i < 3; i++) {
      EXPECT_EQ(KeyText(selected.get(), HashTableGetIndex(selected.get(), i, nullptr)), expected[i]);
    }
    HashTableClear(selected.get());
    EXPECT_NE(Insert(selected.get(), "a"), nullptr);
  }
}

TEST(HashTableRead, ThenWriteGivesTheSameBytes) {
  const TemporaryDirectory directory;
  for (const char* name : {"hashtable_empty.ht", "hashtable_fixed.ht", "hashtable_grown.ht", "hashtable_selected.ht",
                           "hashtable_unaligned.ht"}) {
    for (const Boolean vm : {FALSE, TRUE}) {
      HashTablePtr table = Read(support::GoldenPath(name), vm);
      ASSERT_NE(table, nullptr) << name;
      ASSERT_TRUE(Write(table, directory.file("t")));
      support::ExpectGolden(name, ReadFile(directory.file("t")));
    }
  }
}

TEST(HashTableRead, TakesTheCallersCallbacks) {
  const HashValueFunction value = [](UByte*, const UByte*, UInt, void*) -> Boolean { return TRUE; };
  const HashEqualFunction equal = [](const UByte*, UInt, const UByte*, UInt, void*) -> Boolean { return TRUE; };
  HashTablePtr table(
      HashTableRead(support::GoldenPath("hashtable_empty.ht").c_str(), support::HashToOne, value, equal, 9));
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->t_hash, support::HashToOne);
  EXPECT_EQ(table->t_value, value);
  EXPECT_EQ(table->t_equal, equal);
  EXPECT_EQ(table->t_vm, 1);
}

TEST(HashTableRead, OffsetThatIsNoMultipleOfEightMakesTheTableUnaligned) {
  HashTablePtr table = Read(support::GoldenPath("hashtable_unaligned.ht"));
  ASSERT_NE(table, nullptr);
  EXPECT_FALSE(table->t_aligned);
  EXPECT_EQ(OffsetOf(table.get(), Find(table.get(), "one")), 0u);
  EXPECT_EQ(OffsetOf(table.get(), Find(table.get(), "two")), 5u);
  EXPECT_EQ(OffsetOf(table.get(), Find(table.get(), "three")), 10u);
  EXPECT_EQ(OffsetOf(table.get(), Insert(table.get(), "4")), 17u);  // no padding
  EXPECT_EQ(OffsetOf(table.get(), Insert(table.get(), "5")), 20u);
  HashTableGrow(table.get(), 2.0F, nullptr);
  for (const char* key : {"one", "two", "three", "4", "5"}) EXPECT_NE(Find(table.get(), key), nullptr);
}

TEST(HashTableRead, AlignmentIsToldByEachBitAndSlot) {
  const TemporaryDirectory directory;
  for (size_t slot = 0; slot < 7; slot++) {
    for (const UInt offset : {1u, 2u, 4u, 0xFFFFFFFEu}) {
      File file;
      file.slots[slot] = offset;
      WriteFile(directory.file("t"), file.bytes());
      EXPECT_FALSE(Read(directory.file("t"))->t_aligned);
    }
    File file;
    file.slots[slot] = 8;
    WriteFile(directory.file("t"), file.bytes());
    EXPECT_TRUE(Read(directory.file("t"))->t_aligned);
  }
}

TEST(HashTableRead, AsksForPiecesOfBoundedSize) {
  const TemporaryDirectory directory;
  File file;
  file.slot_count = 16777217;
  file.slots.clear();
  file.data_size = 2 * 16777216 + 5;
  file.data_used = 8;
  WriteFile(directory.file("t"), file.bytes());
  ASSERT_EQ(truncate(directory.file("t").c_str(), 37 + 4 * 16777217 + 2 * 16777216 + 5), 0);  // a hole of zeros
  for (const Boolean vm : {FALSE, TRUE}) {
    WatchedStreams watch;
    ASSERT_NE(Read(directory.file("t"), vm), nullptr);
    const std::vector<size_t> behind_the_header(watch.requests.begin() + 8, watch.requests.end());
    EXPECT_EQ(behind_the_header, (std::vector<size_t>{67108864, 4, 16777216, 16777216, 5}));
  }
}

TEST(HashTableRead, MissingFileCannotBeOpened) {
  const TemporaryDirectory directory;
  ExpectNoTable(directory.file("missing"), FALSE, "error opening", ENOENT);
  ExpectNoTable(directory.file("missing"), TRUE, "error opening", ENOENT);
}

TEST(HashTableRead, DirectoryCannotBeRead) {
  const TemporaryDirectory directory;
  ExpectNoTable(directory.path(), FALSE, "error reading", EISDIR);
}

TEST(HashTableRead, FileCutAnywhereIsRefusedBeforeMemoryIsTaken) {
  const TemporaryDirectory directory;
  for (const char* name : {"hashtable_fixed.ht", "hashtable_grown.ht"}) {
    const std::string whole = ReadFile(support::GoldenPath(name));
    for (size_t length = 0; length < whole.size(); length += length < 200 ? 1 : 17) {
      WriteFile(directory.file("t"), whole.substr(0, length));
      const long maps = faults::Maps();
      ExpectNoTable(directory.file("t"), TRUE, "error reading", 0);
      EXPECT_EQ(faults::Maps(), maps);
      ExpectNoTable(directory.file("t"), FALSE, "error reading", 0);
    }
  }
}

TEST(HashTableRead, LongerFileIsReadToItsTablesEnd) {
  const TemporaryDirectory directory;
  WriteFile(directory.file("t"), ReadFile(support::GoldenPath("hashtable_fixed.ht")) + "more");
  HashTablePtr table = Read(directory.file("t"));
  ASSERT_NE(table, nullptr);
  EXPECT_NE(Find(table.get(), "bc"), nullptr);
}

TEST(HashTableRead, HugeSizesInTheHeaderAreRefused) {
  const TemporaryDirectory directory;
  for (const ULong data_size :
       {ULong{36}, ULong{1} << 32, ULong{1} << 62, ~ULong{0} - 1, ~ULong{0} - 27, ~ULong{0} - 28}) {
    File file;
    file.heap = std::string(35, '\0');
    file.data_size = data_size;
    WriteFile(directory.file("t"), file.bytes());
    ExpectNoTable(directory.file("t"), FALSE, "error reading", 0);
    ExpectNoTable(directory.file("t"), TRUE, "error reading", 0);
  }
  for (const ULong slots : {ULong{16}, ULong{0x3FFFFFFF}, ULong{0x40000000}, ULong{0xFFFFFFFF}}) {
    File file;
    file.heap = std::string(35, '\0');
    file.slot_count = slots;
    file.data_size = 0;
    WriteFile(directory.file("t"), file.bytes());
    ExpectNoTable(directory.file("t"), FALSE, "error reading", 0);
    ExpectNoTable(directory.file("t"), TRUE, "error reading", 0);
  }
}

TEST(HashTableRead, FailedReadIsRecordedWithItsError) {
  for (int request = 0; request < 10; request++) {
    const std::string path = support::GoldenPath("hashtable_fixed.ht");
    WatchedStreams watch;
    watch.reads_before_failure = request;
    watch.failure = EIO;
    watch.on_close = [] {
      QXErrorClear();  // the clean-up's own troubles
      errno = EBADF;
    };
    ExpectNoTable(path, request % 2, "error reading", EIO);
    EXPECT_EQ(watch.closes, 1);
  }
}

TEST(HashTableRead, SignalInBetweenIsNoFailure) {
  for (int request = 0; request < 10; request++) {
    WatchedStreams watch;
    watch.reads_before_failure = request;
    watch.failure = EINTR;
    EXPECT_NE(Read(support::GoldenPath("hashtable_fixed.ht")), nullptr) << request;
  }
}

TEST(HashTableRead, FailedMappingIsReportedAndGivesNull) {
  const std::string path = support::GoldenPath("hashtable_fixed.ht");
  for (const long after : {0L, 1L}) {
    const long held = faults::Maps() - faults::Unmaps();
    WatchedStreams watch;
    const support::Messages messages;
    QXErrorClear();
    faults::FailMap(after);
    EXPECT_EQ(Read(path, TRUE), nullptr);
    faults::Clear();
    ASSERT_EQ(messages.all().size(), 1u);
    EXPECT_EQ(messages.all()[0].text, after == 0
                                          ? ":hashtable: memory allocation failed: size=28: Cannot allocate memory"
                                          : ":hashtable: memory allocation failed: size=52: Cannot allocate memory");
    EXPECT_EQ(messages.all()[0].function, "HashMalloc");
    EXPECT_STREQ(QXErrorText(), "");
    EXPECT_EQ(faults::Maps() - faults::Unmaps(), held + 1);  // the refused call is counted
    EXPECT_EQ(watch.closes, 1);
  }
}

// Hands bytes to whoever reads the path, which becomes a named pipe.
class Fifo {
 public:
  Fifo(const std::string& path, std::string bytes) {
    unlink(path.c_str());
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    writer_ = std::thread([path, bytes = std::move(bytes)] {
      const int descriptor = open(path.c_str(), O_WRONLY);
      for (size_t done = 0; done < bytes.size();) {
        const ssize_t written = write(descriptor, bytes.data() + done, bytes.size() - done);
        if (written < 0) break;  // the reader has seen enough
        done += static_cast<size_t>(written);
      }
      close(descriptor);
    });
  }
  ~Fifo() { writer_.join(); }
  Fifo(const Fifo&) = delete;
  Fifo& operator=(const Fifo&) = delete;

 private:
  std::thread writer_;
};

// A table of half a megabyte and the bytes of its file.
HashTablePtr LargeTable(const std::string& path, std::string* bytes) {
  HashTablePtr table = New(20000, 8, 0);
  for (int i = 0; i < 20000; i++) Put(table.get(), "key " + std::to_string(i), Number(static_cast<ULong>(i), 8));
  EXPECT_TRUE(Write(table, path));
  *bytes = ReadFile(path);
  return table;
}

TEST(HashTableRead, ReadsFromAPipe) {
  signal(SIGPIPE, SIG_IGN);
  const TemporaryDirectory directory;
  std::string bytes;
  HashTablePtr expected = LargeTable(directory.file("t"), &bytes);
  for (const Boolean vm : {FALSE, TRUE}) {
    const Fifo fifo(directory.file("pipe"), bytes);
    HashTablePtr table = Read(directory.file("pipe"), vm);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->t_data_size, expected->t_data_size);
    EXPECT_EQ(Text(table->t_data, table->t_data_size), Text(expected->t_data, expected->t_data_size));
    for (int i = 0; i < 20000; i += 7) ASSERT_NE(Find(table.get(), "key " + std::to_string(i)), nullptr);
  }
}

TEST(HashTableRead, CutPipeIsAShortRead) {
  signal(SIGPIPE, SIG_IGN);
  const TemporaryDirectory directory;
  std::string bytes;
  LargeTable(directory.file("t"), &bytes);
  for (const size_t length : {size_t{0}, size_t{36}, size_t{37}, size_t{65573}, size_t{65574}, size_t{120036},
                              size_t{120100}, size_t{300000}, bytes.size() - 1}) {
    for (const Boolean vm : {FALSE, TRUE}) {
      const Fifo fifo(directory.file("pipe"), bytes.substr(0, length));
      ExpectNoTable(directory.file("pipe"), vm, "error reading", 0);
    }
  }
}

TEST(HashTableRead, PipeIsNotTrustedForItsSizes) {
  signal(SIGPIPE, SIG_IGN);
  const TemporaryDirectory directory;
  File file;
  file.heap = std::string(300000, '\0');
  file.data_size = ULong{1} << 60;
  for (const Boolean vm : {FALSE, TRUE}) {
    const Fifo fifo(directory.file("pipe"), file.bytes());
    ExpectNoTable(directory.file("pipe"), vm, "error reading", 0);
  }
  EXPECT_LE(faults::LastRemapSize(), 524288u);
  for (const Boolean vm : {FALSE, TRUE}) {
    file.slot_count = 0xFFFFFFFF;
    const Fifo fifo(directory.file("pipe"), file.bytes());
    ExpectNoTable(directory.file("pipe"), vm, "error reading", 0);
  }
  EXPECT_LE(faults::LastRemapSize(), 524288u);
}

TEST(HashTableRead, FailedGrowthWhileReadingAPipeIsReported) {
  signal(SIGPIPE, SIG_IGN);
  const TemporaryDirectory directory;
  std::string bytes;
  LargeTable(directory.file("t"), &bytes);
  for (const long after : {0L, 1L}) {
    const long held = faults::Maps() - faults::Unmaps();
    const Fifo fifo(directory.file("pipe"), bytes);
    const support::Messages messages;
    faults::FailRemap(after);
    EXPECT_EQ(Read(directory.file("pipe"), TRUE), nullptr);
    faults::Clear();
    ASSERT_EQ(messages.all().size(), 1u);
    EXPECT_EQ(messages.all()[0].function, "HashRealloc");
    EXPECT_EQ(faults::Maps() - faults::Unmaps(), held);
  }
}

TEST(HashTableRead, ZeroBytesAreATableWithoutSlots) {
  const TemporaryDirectory directory;
  WriteFile(directory.file("t"), std::string(37, '\0'));
  for (const std::string& path : {directory.file("t"), std::string("/dev/zero")}) {
    for (const Boolean vm : {FALSE, TRUE}) {
      HashTablePtr table = Read(path, vm);
      ASSERT_NE(table, nullptr);
      EXPECT_TRUE(table->t_aligned);
      EXPECT_EQ(Find(table.get(), "a"), nullptr);
      EXPECT_EQ(Insert(table.get(), "a"), nullptr);
      EXPECT_TRUE(HashTableFull(table.get()));
      EXPECT_NE(HashTablePtr(HashTableCopy(table.get())), nullptr);
      EXPECT_TRUE(Write(table, directory.file("u")));
      EXPECT_EQ(ReadFile(directory.file("u")), std::string(37, '\0'));
      HashTableClear(table.get());
      HashTableGrow(table.get(), 2.0F, nullptr);  // two times no keys
      EXPECT_EQ(Insert(table.get(), "a"), nullptr);
      EXPECT_EQ(HashTableSelect(table.get(), 0, nullptr, nullptr, nullptr), 0u);
    }
  }
}

TEST(HashTableRead, TableWithoutSlotsOrHeapGrowsBoth) {
  const TemporaryDirectory directory;
  File file;
  file.slots.clear();
  WriteFile(directory.file("t"), file.bytes());
  for (const Boolean vm : {FALSE, TRUE}) {
    HashTablePtr table = Read(directory.file("t"), vm);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(Insert(table.get(), "a"), nullptr);  // no slot
    HashTableGrow(table.get(), 2.0F, nullptr);
    EXPECT_EQ(table->t_entries_size, 17u);
    EXPECT_NE(Insert(table.get(), "a"), nullptr);
    EXPECT_NE(Find(table.get(), "a"), nullptr);
  }
}

TEST(HashTableRead, ClaimedCapacityThatIsNotThereTakesNoMemoryToGrow) {
  const TemporaryDirectory directory;
  File file;
  file.capacity = 900000000;
  WriteFile(directory.file("t"), file.bytes());
  HashTablePtr table = Read(directory.file("t"), FALSE);
  ASSERT_NE(table, nullptr);
  HashTableGrow(table.get(), 1.5F, nullptr);
  EXPECT_EQ(HashTableCapacity(table.get()), 15000u);  // half as much again as 10000
}

// The entries that a look-up of many asks the memory for in advance need not be there.
TEST(HashTableRead, SlotsWithoutAHeapAreLookedUpManyAtOnce) {
  const TemporaryDirectory directory;
  File file;
  file.slots = {56, 56, 56, 56, 56, 56, 0xFFFFFFF0};
  file.used = 5;
  WriteFile(directory.file("t"), file.bytes());
  HashTablePtr table = Read(directory.file("t"));
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(table->t_data, nullptr);
  const std::string texts[] = {"a", "b"};
  const UByte* const keys[] = {support::Bytes(texts[0]), support::Bytes(texts[1])};
  const UInt lens[] = {1, 1};
  UByte something = 0;
  UByte* entries[] = {&something, &something};
  HashTableFindMany(table.get(), 2, keys, lens, entries, nullptr, nullptr);
  EXPECT_EQ(entries[0], nullptr);
  EXPECT_EQ(entries[1], nullptr);
}

TEST(HashTableRead, ClaimedHeapBytesThatAreNotThereTakeNoInsertion) {
  const TemporaryDirectory directory;
  for (const ULong data_used : {ULong{53}, ULong{1} << 31, ULong{0xFFFFFFF8}, ULong{1} << 40, ~ULong{0}}) {
    File file;
    file.heap = std::string(52, '\0');
    file.data_used = data_used;
    WriteFile(directory.file("t"), file.bytes());
    HashTablePtr table = Read(directory.file("t"));
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(Insert(table.get(), "a"), nullptr);
    EXPECT_EQ(table->t_data_used, data_used);
    EXPECT_EQ(table->t_data_size, 52u);
    Bear(std::move(table), directory.file("u"));
  }
}

TEST(HashTableRead, EveryWrongHeaderNumberIsBorne) {
  const support::Messages messages;
  const TemporaryDirectory directory;
  const struct { size_t offset, size; } fields[] = {{0, 4}, {4, 4}, {8, 1}, {9, 4}, {13, 4}, {17, 4}, {21, 8}, {29, 8}};
  size_t read = 0;
  for (const char* name : {"hashtable_fixed.ht", "hashtable_selected.ht", "hashtable_unaligned.ht"}) {
    const std::string whole = ReadFile(support::GoldenPath(name));
    for (const auto& field : fields) {
      const ULong truth = IO_MemGetLE8(support::Bytes(whole.substr(field.offset, field.size) + std::string(8, '\0')));
      std::vector<ULong> values = {0,  1,  2,  3,   4,   5,   6,   7,   8,     9,
                                   16, 17, 42, 100, 127, 128, 255, 256, 65535, 1431655766};
      for (UInt bit = 8; bit < 8 * field.size; bit += 4) {
        for (const ULong value : {ULong{1} << bit, (ULong{1} << bit) - 1}) values.push_back(value);
      }
      for (const ULong value :
           {truth - 1, truth + 1, truth + 8, truth * 2, ~ULong{0}, ~ULong{0} - 1, ~ULong{0} - 7, ~ULong{0} / 2}) {
        values.push_back(value);
      }
      for (const ULong value : values) {
        std::string bytes = whole;
        bytes.replace(field.offset, field.size, Number(value, field.size));
        WriteFile(directory.file("t"), bytes);
        for (const Boolean vm : {FALSE, TRUE}) {
          HashTablePtr table = Read(directory.file("t"), vm);
          if (table == nullptr) continue;
          read++;
          Bear(std::move(table), directory.file("u"));
        }
      }
    }
  }
  EXPECT_GT(read, 1000u);
}

TEST(HashTableRead, EveryWrongByteIsBorne) {
  const support::Messages messages;
  const TemporaryDirectory directory;
  for (const char* name : {"hashtable_fixed.ht", "hashtable_selected.ht", "hashtable_unaligned.ht"}) {
    const std::string whole = ReadFile(support::GoldenPath(name));
    for (size_t at = 37; at < whole.size(); at++) {
      for (const int value : {0, 1, 0x2F, 0x80, 0xFF}) {
        std::string bytes = whole;
        bytes[at] = static_cast<char>(value);
        WriteFile(directory.file("t"), bytes);
        HashTablePtr table = Read(directory.file("t"));
        ASSERT_NE(table, nullptr);
        Bear(std::move(table), directory.file("u"));
      }
    }
  }
}

TEST(HashTableRead, ManyWrongBytesAtOnceAreBorne) {
  const support::Messages messages;
  const TemporaryDirectory directory;
  std::mt19937 random(7);
  size_t read = 0;
  for (int round = 0; round < 1500; round++) {
    File file;
    file.selected = random() % 4 == 0;
    file.val_len = random() % 3 == 0 ? 0 : random() % 12;
    file.key_size = random() % 6;
    file.used = random() % 12;
    file.capacity = random() % 12;
    file.slots.resize(random() % 13);
    for (int i = static_cast<int>(random() % 70); i > 0; i--) {
      file.heap += static_cast<char>(random() % 2 == 0 ? random() % 12 : random());
    }
    for (UInt& slot : file.slots) {
      const UInt kinds[] = {kEmpty, kEmpty - 1, static_cast<UInt>(random() % 80), static_cast<UInt>(random() % 10 * 8)};
      slot = kinds[random() % 4];
    }
    file.data_used = random() % 3 == 0 ? random() % 100 : file.heap.size();
    WriteFile(directory.file("t"), file.bytes());
    HashTablePtr table = Read(directory.file("t"), round % 8 == 0);
    ASSERT_NE(table, nullptr);
    read++;
    Bear(std::move(table), directory.file("u"));
  }
  EXPECT_EQ(read, 1500u);
}

TEST(HashTableRead, MalformedLengthsWithoutValuesEndTheWalk) {
  const TemporaryDirectory directory;
  File file;
  file.heap = std::string(64, '\xFF');
  file.data_used = 64;
  file.slots[0] = 0;
  WriteFile(directory.file("t"), file.bytes());
  HashTablePtr table = Read(directory.file("t"));
  HashTableIterator* it = HashTableIteratorInit(table.get());
  EXPECT_TRUE(HashTableIteratorEnd(it));
  HashTableIteratorFinalize(it);
  const HashEnumerateFunction stop = [](UByte*, void*) { return 1u; };
  EXPECT_EQ(HashTableEnumerate(table.get(), 0, stop, nullptr), 0u);
  HashTableGrow(table.get(), 2.0F, nullptr);  // ends, too
}

TEST(HashTableWrite, FileThatCannotBeOpenedIsRecorded) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("no/such");
  QXErrorClear();
  EXPECT_FALSE(Write(New(5), path));
  EXPECT_EQ(QXErrorText(), "error opening " + path);
  EXPECT_EQ(QXErrorCode(), ENOENT);
  EXPECT_FALSE(Write(New(5), directory.path()));
  EXPECT_EQ(QXErrorCode(), EISDIR);
}

TEST(HashTableWrite, FailureInTheHeaderIsSilent) {
  const TemporaryDirectory directory;
  for (int item = 0; item < 8; item++) {
    const support::Messages messages;
    WatchedStreams watch;
    watch.writes_before_failure = item;
    watch.failure = ENOSPC;
    QXErrorClear();
    EXPECT_FALSE(Write(New(5), directory.file("t")));
    EXPECT_STREQ(QXErrorText(), "");
    EXPECT_EQ(watch.writes, item + 1);
    EXPECT_EQ(watch.closes, 1);
    EXPECT_TRUE(messages.all().empty());
  }
}

// Makes one step of a write fail, with a close that disturbs the error.
void ExpectFailedWrite(const std::string& error, const std::function<void(Streams&)>& plan) {
  const TemporaryDirectory directory;
  HashTablePtr table = New(5);
  Insert(table.get(), "a");
  {
    WatchedStreams watch;
    watch.failure = ENOSPC;
    watch.on_close = [] {
      QXErrorClear();
      errno = EBADF;
    };
    plan(watch);
    EXPECT_FALSE(Write(table, directory.file("t")));
    EXPECT_EQ(watch.closes, 1);
  }
  EXPECT_EQ(QXErrorText(), error + " " + directory.file("t"));
  EXPECT_EQ(QXErrorCode(), ENOSPC);
  EXPECT_TRUE(Write(table, directory.file("t")));  // the table is unharmed
  EXPECT_NE(Find(Read(directory.file("t")).get(), "a"), nullptr);
}

TEST(HashTableWrite, FailedSlotsAreRecorded) {
  ExpectFailedWrite("error writing", [](Streams& s) { s.writes_before_failure = 8; });
}
TEST(HashTableWrite, FailedHeapIsRecorded) {
  ExpectFailedWrite("error writing", [](Streams& s) { s.writes_before_failure = 9; });
}
TEST(HashTableWrite, FailedFlushIsRecorded) {
  ExpectFailedWrite("error writing", [](Streams& s) { s.flush_fails = true; });
}
TEST(HashTableWrite, FailedSyncIsRecorded) {
  ExpectFailedWrite("error writing", [](Streams& s) { s.sync_fails = true; });
}
TEST(HashTableWrite, FailedCloseIsRecorded) {
  ExpectFailedWrite("error closing", [](Streams& s) { s.close_fails = true; });
}

TEST(HashTableWrite, FullDiskIsRecorded) {
  HashTablePtr table = New(5);
  QXErrorClear();
  EXPECT_FALSE(Write(table, "/dev/full"));
  EXPECT_STREQ(QXErrorText(), "error writing /dev/full");
  EXPECT_EQ(QXErrorCode(), ENOSPC);
}

TEST(HashTableWrite, FileSizeLimitAtAnyByteIsRecorded) {
  const TemporaryDirectory directory;
  HashTablePtr table = New(5, 8, 2);
  Put(table.get(), "a", "valueone");
  Put(table.get(), "bc", "valuetwo");
  Put(table.get(), "", "value--3");
  HashTablePtr large = New(2000);
  for (int i = 0; i < 2000; i++) Insert(large.get(), std::to_string(i));
  signal(SIGXFSZ, SIG_IGN);
  struct rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto written_below = [&](const HashTablePtr& t, size_t limit) {
    const struct rlimit limited = {limit, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limited);
    QXErrorClear();
    const Boolean written = Write(t, directory.file("t"));
    setrlimit(RLIMIT_FSIZE, &before);
    return written;
  };
  for (size_t limit = 0; limit < 117; limit++) {
    EXPECT_FALSE(written_below(table, limit)) << limit;
    EXPECT_EQ(QXErrorText(), "error writing " + directory.file("t"));
    EXPECT_EQ(QXErrorCode(), EFBIG);
  }
  for (size_t limit = 0; limit < 37 + 4 * 3001 + large->t_data_size; limit += 1499) {
    EXPECT_FALSE(written_below(large, limit)) << limit;
    EXPECT_EQ(QXErrorCode(), EFBIG);
  }
  EXPECT_TRUE(written_below(table, 117));
  support::ExpectGolden("hashtable_fixed.ht", ReadFile(directory.file("t")));
}

TEST(HashTableFile, IsOpenedCloseOnExec) {
  const TemporaryDirectory directory;
  WatchedStreams watch;
  ASSERT_TRUE(Write(New(5), directory.file("t")));
  EXPECT_TRUE(watch.descriptor_flags & FD_CLOEXEC);
  watch.descriptor_flags = 0;
  ASSERT_NE(Read(directory.file("t")), nullptr);
  EXPECT_TRUE(watch.descriptor_flags & FD_CLOEXEC);
}

TEST(HashTableFileDeathTest, NeverLandsOnAStandardDescriptor) {
  const TemporaryDirectory directory;
  EXPECT_EXIT(
      {
        for (const int descriptor : {0, 1, 2}) close(descriptor);
        WatchedStreams watch;
        int fault = 0;
        if (!Write(New(5), directory.file("t"))) fault |= 1;
        if (watch.descriptor < 3 || (watch.descriptor_flags & FD_CLOEXEC) == 0) fault |= 2;
        watch.descriptor = -1;
        if (Read(directory.file("t")) == nullptr) fault |= 4;
        if (watch.descriptor < 3 || (watch.descriptor_flags & FD_CLOEXEC) == 0) fault |= 8;
        if (fcntl(0, F_GETFD) != -1 || fcntl(1, F_GETFD) != -1 || fcntl(2, F_GETFD) != -1) fault |= 16;
        _exit(fault);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(ReadFile(directory.file("t")).size(), 100u);
}

TEST(HashTableFileDeathTest, NothingThatAnotherThreadPrintsGoesIntoTheFile) {
  const TemporaryDirectory directory;
  const HashTablePtr table = New(5);
  ASSERT_NE(Insert(table.get(), "key"), nullptr);
  ASSERT_TRUE(Write(table, directory.file("t")));
  const std::string expected = ReadFile(directory.file("t"));
  EXPECT_EXIT(
      {
        for (const int descriptor : {0, 1, 2}) close(descriptor);
        std::atomic<bool> stop = false;
        std::thread printer([&] {
          while (!stop) {
            for (const int descriptor : {0, 1, 2}) [[maybe_unused]] const ssize_t ignored = write(descriptor, "!", 1);
          }
        });
        int wrong = 0;
        for (int i = 0; i < 500; i++) {
          unlink(directory.file("t").c_str());
          if (!Write(table, directory.file("t")) || ReadFile(directory.file("t")) != expected) wrong = 1;
        }
        stop = true;
        printer.join();
        _exit(wrong);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(HashTableFile, DescriptorsAreReleased) {
  const TemporaryDirectory directory;
  const int lowest = dup(0);
  close(lowest);
  ASSERT_TRUE(Write(New(5), directory.file("t")));
  ASSERT_NE(Read(directory.file("t")), nullptr);
  EXPECT_EQ(Read(directory.path()), nullptr);
  EXPECT_FALSE(Write(New(5), "/dev/full"));
  const int again = dup(0);
  close(again);
  EXPECT_EQ(again, lowest);
}

}  // namespace
