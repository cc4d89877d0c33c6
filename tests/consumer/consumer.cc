// Uses the C functions and the C++ face from C++.

#include <cstdio>
#include <string>

#include "dict/qxdict.hpp"
#include "util/io.h"
#include "util/io2.h"

int main() {
  static const char* const kWords[] = {"one", "two", "three"};
  const auto key = [](void*, Id index, const UByte** bytes) -> UShort {
    *bytes = reinterpret_cast<const UByte*>(kWords[index]);
    return static_cast<UShort>(std::string(kWords[index]).size());
  };
  HashDict* dictionary = HashDictBuild(3, nullptr, key, nullptr, 0, 4, FALSE);
  const Id two = HashDictFind(dictionary, reinterpret_cast<const UByte*>("two"), 3);
  HashDictFree(dictionary);

  AVLLDict* tree = QXAVLLDictNew(16);
  QXAVLLDictInsert(tree, 10, 100, 0);
  const ULong hundred = QXAVLLDictFind(tree, 10, 0);
  QXAVLLDictDelete(tree);

  qx::ObjectCache cache(16 << 20);
  const bool stored = cache.Store("text", "text") && cache.Fetch("text") == "text";

  std::printf("C++ %s %u %lu %d %zu\n", QXDictVersion(), two, hundred, stored ? 1 : 0, sizeof(Page));
}
