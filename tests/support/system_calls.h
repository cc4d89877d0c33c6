// System calls that fail, stop short or are interrupted where a test says so. Link system_calls.cc into the test: its
// open, read, write, fsync, syncfs and close stand before the C library's, for the libraries under test too.
#ifndef TESTS_SUPPORT_SYSTEM_CALLS_H
#define TESTS_SUPPORT_SYSTEM_CALLS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace support::calls {

// What happens to the reads, or the writes, of every descriptor above 2.
struct Plan {
  size_t most_bytes = SIZE_MAX;     // that one call moves
  size_t fail_behind = SIZE_MAX;    // bytes that are moved before calls fail
  int error = 0;                    // what they then fail with
  unsigned interrupted_before = 0;  // so many calls are interrupted before each that does something

  size_t moved = 0;
  unsigned interrupted = 0;
};

extern Plan reads;
extern Plan writes;
extern int fsync_error;   // what fsync fails with; 0: it does not
extern int fsync_from;    // counted from 0: the first fsync that fails
extern int syncfs_error;  // what syncfs fails with
extern int close_error;   // what close fails with after it has closed
extern int no_directory;  // what the opening of a directory fails with

// What was synced since Reset, in order: "file", "directory", "file system".
extern std::vector<std::string> synced;

void Reset();

}  // namespace support::calls

#endif
