// Keeps book of what the code under test takes from the base library, and makes it fail or behave oddly on demand.
//
// The test program stands in front of these operations of the base library (Allocate_, AnonArrayGrow_, FileMapRead and
// their counterparts), as a platform's own base library would. What is kept on purpose can so be counted, and then
// released by the test.
#ifndef TESTS_SUPPORT_LEDGER_H
#define TESTS_SUPPORT_LEDGER_H

#include <cstddef>
#include <map>
#include <string>

namespace support {

// One at a time; books only while it lives.
class Ledger {
 public:
  Ledger();
  ~Ledger();
  Ledger(const Ledger&) = delete;
  Ledger& operator=(const Ledger&) = delete;

  size_t blocks() const;    // from Allocate_ and not freed
  size_t arrays() const;    // from AnonArrayGrow_ and not freed
  size_t mappings() const;  // from FileMapRead and not unmapped
  size_t largest() const;   // bytes in the largest block that Allocate_ was asked for

  // Releases all that is live.
  void Release();
};

namespace faults {

// Allocate_ asks the real one for more than there is, once, after so many more calls; -1: never.
void FailAllocate(long after);

// AnonArrayGrow_ gives null, once, after so many more calls; -1: never.
void FailAnonArray(int after);

// AnonArrayGrow_ fills new storage with this byte, as an allocator that does not clear would; 0 is the real one's.
void FillAnonArray(unsigned char byte);

// Allocate_ fills new blocks with this byte; 0 is none.
void FillBlocks(unsigned char byte);

// A block above so many bytes is not taken: the process prints "asked for N bytes" and exits with kRefusedBlock.
void RefuseBlocksAbove(size_t size);
constexpr int kRefusedBlock = 3;

// FileMapRead finds these files, by name, and no others; null: the file system's. The mappings end at a protected page;
// those of indexes (".idx"), whose words are read where they lie, up to 3 bytes before it: they begin at multiples
// of 4.
void ServeFileMaps(const std::map<std::string, std::string>* files);

// FileUnmap unmaps, but answers FALSE with this errno, once, after so many more calls.
void FailFileUnmap(int error, int after = 0);

}  // namespace faults

}  // namespace support

#endif
