// Keys and values of the byte-keyed tables as strings, and hashes that collide on purpose.
#ifndef TESTS_SUPPORT_KEYS_H
#define TESTS_SUPPORT_KEYS_H

#include <string>

#include "qxlib/types.h"

namespace support {

inline const UByte* Bytes(const std::string& text) { return reinterpret_cast<const UByte*>(text.data()); }
inline UInt Length(const std::string& text) { return static_cast<UInt>(text.size()); }
inline std::string Text(const UByte* bytes, size_t length) { return {reinterpret_cast<const char*>(bytes), length}; }

// All keys at one slot; at few slots; at the last slots, so that probes wrap.
inline UInt HashToOne(const UByte*, UInt, void*) { return 3; }
inline UInt HashToFew(const UByte* bytes, UInt len, void*) { return len == 0 ? 0 : bytes[0] % 3; }
inline UInt HashToLength(const UByte*, UInt len, void*) { return 0xFFFFFFFF - len; }

}  // namespace support

#endif
