#include "support/ledger.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "qxlib/misc.h"
#include "support/faults.h"
#include "support/guarded.h"

namespace {

struct Books {
  std::mutex mutex;
  bool open = false;
  size_t largest = 0;
  std::set<void*> blocks, arrays;
  std::map<void*, size_t> mappings;
};

Books& Open() {
  static auto* books = new Books;
  return *books;
}

std::atomic<long> fail_block_after = -1;
int fail_array_after = -1;
unsigned char array_fill = 0;
int fail_unmap_after = -1;
int unmap_error = 0;
unsigned char block_fill = 0;
size_t greatest_block = SIZE_MAX;
const std::map<std::string, std::string>* served_files = nullptr;
std::map<void*, std::unique_ptr<support::Guarded>> served_maps;

template <typename Function>
Function* Real(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <typename Change>
void Book(Change change) {
  Books& books = Open();
  const std::lock_guard<std::mutex> lock(books.mutex);
  if (books.open) change(books);
}

void* ServeFile(const char* name, size_t* size, Boolean* empty) {
  const auto file = served_files->find(name);
  *empty = file != served_files->end() && file->second.empty() ? TRUE : FALSE;
  *size = 0;
  if (file == served_files->end()) errno = ENOENT;
  if (file == served_files->end() || file->second.empty()) return nullptr;
  *size = file->second.size();
  std::string bytes = file->second;
  if (std::string_view(name).ends_with(".idx")) bytes.resize((bytes.size() + 3) / 4 * 4, '\xEE');
  auto copy = std::make_unique<support::Guarded>(bytes);
  void* base = copy->data();
  served_maps[base] = std::move(copy);
  return base;
}

}  // namespace

namespace support {

Ledger::Ledger() {
  Books& books = Open();
  const std::lock_guard<std::mutex> lock(books.mutex);
  books.blocks.clear();
  books.arrays.clear();
  books.mappings.clear();
  books.largest = 0;
  books.open = true;
}

Ledger::~Ledger() {
  Books& books = Open();
  const std::lock_guard<std::mutex> lock(books.mutex);
  books.open = false;
}

size_t Ledger::blocks() const { return Open().blocks.size(); }
size_t Ledger::arrays() const { return Open().arrays.size(); }
size_t Ledger::mappings() const { return Open().mappings.size(); }
size_t Ledger::largest() const { return Open().largest; }

void Ledger::Release() {
  while (!Open().blocks.empty()) UnAllocate_(*Open().blocks.begin(), "tests/ledger", __LINE__);
  while (!Open().arrays.empty()) AnonArrayFree_(*Open().arrays.begin(), "tests/ledger", __LINE__);
  while (!Open().mappings.empty()) FileUnmap(Open().mappings.begin()->first, Open().mappings.begin()->second);
}

namespace faults {

void FailAllocate(long after) { fail_block_after = after; }
void FailAnonArray(int after) { fail_array_after = after; }
void FillAnonArray(unsigned char byte) { array_fill = byte; }
void FillBlocks(unsigned char byte) { block_fill = byte; }
void RefuseBlocksAbove(size_t size) { greatest_block = size; }
void ServeFileMaps(const std::map<std::string, std::string>* files) { served_files = files; }
void FailFileUnmap(int error, int after) {
  fail_unmap_after = after;
  unmap_error = error;
}

}  // namespace faults

}  // namespace support

extern "C" {

void* Allocate_(size_t size, void* old, const char* file, int line) {
  if (size > greatest_block) {
    fprintf(stderr, "asked for %zu bytes\n", size);
    _exit(support::faults::kRefusedBlock);
  }
  if (fail_block_after >= 0 && fail_block_after-- == 0) {
    support::faults::CountFailure();
    size = PTRDIFF_MAX;
  }
  Book([old](Books& books) { books.blocks.erase(old); });
  void* block = Real(Allocate_, "Allocate_")(size, old, file, line);
  if (block_fill != 0 && old == nullptr) std::memset(block, block_fill, size);
  Book([block, size](Books& books) {
    books.blocks.insert(block);
    if (size > books.largest) books.largest = size;
  });
  return block;
}

void UnAllocate_(void* block, const char* file, int line) {
  Book([block](Books& books) { books.blocks.erase(block); });
  Real(UnAllocate_, "UnAllocate_")(block, file, line);
}

void* AnonArrayGrow_(size_t eltSize, UInt flags, ULong nvalues, UInt nbits, size_t* size, const char* file, int line) {
  if (fail_array_after >= 0 && fail_array_after-- == 0) {
    support::faults::CountFailure();
    return nullptr;
  }
  size_t bytes = 0;
  void* array = Real(AnonArrayGrow_, "AnonArrayGrow_")(eltSize, flags, nvalues, nbits, &bytes, file, line);
  if (size != nullptr) *size = bytes;
  if (array == nullptr) return nullptr;
  if (array_fill != 0) std::memset(array, array_fill, bytes);
  Book([array](Books& books) { books.arrays.insert(array); });
  return array;
}

void AnonArrayFree_(void* array, const char* file, int line) {
  Book([array](Books& books) { books.arrays.erase(array); });
  Real(AnonArrayFree_, "AnonArrayFree_")(array, file, line);
}

void* FileMapRead(const char* dir, const char* name, size_t* size, Boolean* empty) {
  void* base =
      served_files != nullptr ? ServeFile(name, size, empty) : Real(FileMapRead, "FileMapRead")(dir, name, size, empty);
  if (base != nullptr) Book([base, size](Books& books) { books.mappings[base] = *size; });
  return base;
}

Boolean FileUnmap(void* base, size_t size) {
  Book([base](Books& books) { books.mappings.erase(base); });
  const Boolean done = served_maps.erase(base) != 0 ? TRUE : Real(FileUnmap, "FileUnmap")(base, size);
  if (fail_unmap_after < 0 || fail_unmap_after-- > 0) return done;
  support::faults::CountFailure();
  errno = unmap_error;
  return FALSE;
}

}  // extern "C"
