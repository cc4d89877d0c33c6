// Runs every writer under MemorySanitizer, which stops the program when a byte that nobody has set reaches a file or an
// image: padding, unused slots and unused heap are bytes of the format too, and what lay in memory before is nobody's
// business.
//
// The C++ library is not instrumented: this program and what it calls keep to what is compiled here.

#include <sanitizer/msan_interface.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "dict/attrdict.h"
#include "dict/hashdeltable.h"
#include "dict/hashdict.h"
#include "dict/hashtable.h"
#include "qxlib/misc.h"

namespace {

char directory[] = "/dev/shm/qxdict-writers-XXXXXX";

struct Path {
  explicit Path(const char* name) { std::snprintf(text, sizeof text, "%s/%s", directory, name); }
  char text[80];
};

void Require(Boolean done, int line = __builtin_LINE()) {
  if (done) return;
  std::perror("writers");
  std::fprintf(stderr, "line %d: not written\n", line);
  std::abort();
}

// A key of 0 to 40 bytes.
struct Key {
  explicit Key(unsigned number) {
    length = static_cast<UShort>(std::snprintf(text, sizeof text, "%u", number * 2654435761u));
    for (unsigned i = 0; i < number % 30; i++) text[length++] = static_cast<char>('a' + i % 3);
    if (number == 0) length = 0;
  }
  const UByte* bytes() const { return reinterpret_cast<const UByte*>(text); }
  char text[64];
  UShort length;
};

// Keys for a build: the same number gives the same bytes.
struct Keys {
  char last[64];
  static UShort Get(void* keys, Id number, const UByte** bytes) {
    const Key key(number);
    std::memcpy(static_cast<Keys*>(keys)->last, key.text, sizeof key.text);
    *bytes = reinterpret_cast<const UByte*>(static_cast<Keys*>(keys)->last);
    return key.length;
  }
  static Id Value(void*, Id number) { return number % 7; }
};

ssize_t WriteChecked(const void* bytes, size_t count, void*) {
  __msan_check_mem_is_initialized(bytes, count);
  return static_cast<ssize_t>(count);
}

void WriteHashDict(const HashDict* hdict) {
  for (const Boolean swap : {FALSE, TRUE}) {
    Require(HashDictWrite(hdict, directory, "words", nullptr, swap));
    const ChannelVirtual table = {nullptr, WriteChecked, nullptr, nullptr, nullptr, nullptr};
    Channel* const channel = ChannelNew(-1, -1);
    channel->device = &table;
    size_t size = 3;
    Require(HashDictFileWrite(hdict, channel, swap));
    Require(HashDictFileWrite_(hdict, channel, swap));
    Require(swap ? HashDictMMWriteSwapped(hdict, channel, &size) : HashDictMMWrite(hdict, channel, &size));
    Require(ChannelFlush(channel));
    ChannelClose(channel);
  }
  Require(HashDictReplace(hdict, directory, "words", nullptr, FALSE));
}

void WriteHashDicts() {
  Keys keys = {};
  for (const Id count : {0u, 1u, 2u, 19u, 1000u}) {
    for (const UByte probe : {UByte{0}, UByte{1}, UByte{3}, UByte{8}}) {
      HashDict* const hdict = HashDictBuild(count, &keys, Keys::Get, nullptr, 0, probe, FALSE);
      WriteHashDict(hdict);
      HashDictFree(hdict);
    }
    for (const UByte bits : {UByte{3}, UByte{32}}) {
      HashDict* const hdict = HashDictBuild(count, &keys, Keys::Get, Keys::Value, bits, 0, FALSE);
      WriteHashDict(hdict);
      HashDictFree(hdict);
    }
  }
}

void WriteHashTables() {
  const Path file("table");
  for (unsigned kind = 0; kind < 10; kind++) {
    HashTable* table = HashTableNew(kind * 3, nullptr, nullptr, nullptr, kind * 5 % 13, static_cast<UByte>(kind % 5),
                                    kind % 2 != 0 ? TRUE : FALSE);
    Require(HashTableWrite(table, file.text));
    for (unsigned i = 0; i < 50 * kind; i++) {
      const Key key(i);
      if (HashTableFull(table)) HashTableGrow(table, 1.6F, nullptr);
      HashTableFind(table, key.bytes(), key.length, TRUE, nullptr, nullptr);
    }
    Require(HashTableWrite(table, file.text));
    HashTable* const copy = HashTableCopy(table);
    HashTableFree(table);
    table = copy;
    HashTableSelect(table, 7, nullptr, nullptr, nullptr);
    Require(HashTableReplace(table, file.text));
    HashTableClear(table);
    Require(HashTableWrite(table, file.text));
    HashTableFree(table);
  }
}

void WriteImage(HashDelTable* table) {
  UByteArray image;
  ArrayInit_(&image.a);
  HashDelTableMemWrite(table, &image);
  __msan_check_mem_is_initialized(image.t.elts, image.t.length);
  ArrayFree_(&image.a, "writers", __LINE__);
}

void WriteHashDelTables() {
  for (unsigned kind = 0; kind < 10; kind++) {
    HashDelTable* table = HashDelTableNew(kind * 3, nullptr, nullptr, nullptr, kind * 5 % 13, kind % 5);
    WriteImage(table);
    for (unsigned i = 0; i < 50 * kind; i++) {
      const Key key(i);
      if (HashDelTableFind(table, key.bytes(), key.length, TRUE, nullptr, nullptr) == nullptr) {
        HashDelTableGrow(table, 1.6F, nullptr);
      }
      const Key gone(i / 2);
      if (i % 3 == 0) HashDelTableRemove(table, gone.bytes(), gone.length, nullptr);
    }
    WriteImage(table);
    HashDelTable* const copy = HashDelTableCopy(table);
    HashDelTableFree(table);
    table = copy;
    HashDelTableSelect(table, 7, nullptr, nullptr);
    WriteImage(table);
    HashDelTableClear(table);
    WriteImage(table);
    HashDelTableFree(table);
  }
}

void WriteAttrDicts() {
  for (const Boolean swap : {FALSE, TRUE}) {
    for (const unsigned count : {0u, 1u, 4u, 5u, 1000u}) {
      for (const Boolean as : {FALSE, TRUE}) {
        AttrDict* const adict = AttrDictBuild(directory, "attributes", swap);
        Require(adict != nullptr ? TRUE : FALSE);
        for (unsigned i = 0; i < count; i++) {
          const Key key(i);
          AttrDictAdd(adict, key.bytes(), static_cast<UByte>(key.length));
        }
        Require(as ? AttrDictCommitAs(adict, directory, "renamed") : AttrDictCommit(adict));
      }
    }
  }
}

}  // namespace

int main() {
  if (mkdtemp(directory) == nullptr) std::abort();
  WriteHashDicts();
  WriteHashTables();
  WriteHashDelTables();
  WriteAttrDicts();
  for (const char* name : {"words.dic", "table", "attributes.idx", "attributes.dat", "renamed.idx", "renamed.dat"}) {
    unlink(Path(name).text);
  }
  rmdir(directory);
  std::puts("every writer sets every byte that it writes");
  return 0;
}
