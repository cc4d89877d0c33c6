// Makes the base library fail on demand.
//
// The test program defines these operations of the base library itself, in front of the shared library's, so that both
// libraries call through here; unless a fault is planned, the call goes on to the real one. The seam is the same one
// that lets a platform put its own base library in place.
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <cstddef>
#include <cstdint>

namespace support::faults {

// Fails a call `after` more have succeeded, and `count` calls in all; -1 is every call from then on.
void FailMap(long after, long count = 1);
void FailRemap(long after, long count = 1);
void FailUnmap(long after, long count = 1);
void FailThreadCreate(long after, long count = 1);

// Calls that a plan has failed so far, of any operation here or in ledger.h.
long Failures();
void CountFailure();

// Forgets every planned fault.
void Clear();

// The sizes that the last calls asked for.
size_t LastMapSize();
size_t LastRemapSize();

// Mappings that were given and not taken back.
long LiveMaps();

// Calls so far.
long Maps();
long Unmaps();

// Replaces the wall clock; ClockReal gives it back.
void ClockSet(uint64_t milliseconds);
void ClockReal();

}  // namespace support::faults

#endif
