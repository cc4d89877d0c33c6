// What a disk would hold after a power cut, and calls on it that fail. Link disk_log.cc into the test: its open, write,
// fsync, rename, unlink and so on stand before the C library's, for the libraries under test too, and write down what
// is done in one directory.
//
// A disk keeps what was synced: a file's bytes by fsync of the file, a name by fsync of its directory. Of the rest,
// block by block and name by name, it keeps what it likes.
#ifndef TESTS_SUPPORT_DISK_LOG_H
#define TESTS_SUPPORT_DISK_LOG_H

#include <cstddef>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace support {

// What becomes of blocks of 4 KiB that were not synced.
enum class Unsynced { kKept, kDropped, kZeroed, kAnyOfThem };

// Whether the names that are in a directory at the start are synced; the contents of the files are.
enum class FirstNames { kSynced, kUnsynced };

class DiskLog {
 public:
  // Writes down what is done in a directory from here on. One at a time.
  explicit DiskLog(const std::string& directory, FirstNames names = FirstNames::kSynced);
  ~DiskLog();
  DiskLog(const DiskLog&) = delete;
  DiskLog& operator=(const DiskLog&) = delete;

  // Ends the log.
  void Stop();

  size_t events() const;
  std::string Describe(size_t event) const;

  // How many changes of names are not synced behind the first `count` events.
  size_t UnsyncedNames(size_t count) const;

  // The files, by name, that the disk may hold when the power fails behind the first `count` events. Of the changes of
  // names that are not synced those are kept that have their bit in `names`, in their order.
  std::map<std::string, std::string> After(size_t count, Unsynced unsynced, size_t names, std::mt19937* random) const;
};

// Calls that open, write, sync, close, rename and remove, on any file, fail while it lives: `count` of them when
// `after` have been made. One that closes closes first. One at a time.
class FailingCalls {
 public:
  FailingCalls(int after, int count, int error);
  ~FailingCalls();
  FailingCalls(const FailingCalls&) = delete;
  FailingCalls& operator=(const FailingCalls&) = delete;

  int made() const;
};

// Every call that opens, writes or closes is interrupted once while it lives.
class InterruptedCalls {
 public:
  InterruptedCalls();
  ~InterruptedCalls();
  InterruptedCalls(const InterruptedCalls&) = delete;
  InterruptedCalls& operator=(const InterruptedCalls&) = delete;
};

}  // namespace support

#endif
