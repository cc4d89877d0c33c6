// Any bytes, read as operations on a tree or a map and its model: the body of their fuzzers, and of the tests that give
// it bytes at random. Each gives "" when the two agree throughout, else what differs.
#ifndef TESTS_SUPPORT_OPERATIONS_H
#define TESTS_SUPPORT_OPERATIONS_H

#include <cstdint>
#include <span>
#include <string>

#include "support/int_maps.h"
#include "support/numbers.h"
#include "support/trees.h"

namespace support {

// Keys of one byte meet one another often, wide ones lie far apart. Runs of neighbours make the array grow.
template <typename Api>
std::string OperateTree(Numbers numbers) {
  using Key = typename Api::Key;
  constexpr size_t kEnough = 400;  // keys: each step compares all of them
  TreeModel<Api> model;
  std::string difference;
  while (!numbers.Empty() && difference.empty()) {
    const uint64_t what = numbers.Next(1);
    const auto key = static_cast<Key>((what & 0x80) != 0 ? numbers.Next(sizeof(Key)) : numbers.Next(1));
    switch (what & 7) {
      case 0:
      case 1:
      case 2:
        difference = (what & 0x20) != 0 ? model.InsertInPlace(key, key + 7) : model.Insert(key, key + 100);
        break;
      case 3:
      case 4:
        difference = model.Remove(key);
        break;
      case 5:
        difference = model.Find(key);
        if (difference.empty()) difference = model.Read(key, static_cast<Key>(key + numbers.Next(1) - 2));
        break;
      case 6:
        for (unsigned i = 0; i < 100 && difference.empty(); i++) {
          const auto next = static_cast<Key>(key + i);
          if ((what & 0x40) != 0) {
            difference = model.Remove(next);
          } else if (model.map().size() < kEnough) {
            difference = model.Insert(next, next ^ 1);
          }
        }
        break;
      default:
        if (key < 16) difference = model.Clear();
    }
  }
  return difference.empty() ? model.CompareOrder() : difference;
}

// The first byte chooses the family.
inline std::string OperateTrees(std::span<const uint8_t> bytes) {
  Numbers numbers(bytes);
  switch (numbers.Next(1) % 3) {
    case 0:
      return OperateTree<Avll>(numbers);
    case 1:
      return OperateTree<Avl>(numbers);
    default:
      return OperateTree<Rb>(numbers);
  }
}

template <typename T>
std::string OperateMap(Numbers numbers) {
  using Key = typename T::Key;
  constexpr UInt kMost = 3000;  // pairs to make room for
  ModelMap<T> model;
  std::string difference;
  for (unsigned step = 0; !numbers.Empty() && difference.empty(); step++) {
    const uint64_t what = numbers.Next(1);
    auto key = static_cast<Key>((what & 0x80) != 0 ? numbers.Next(sizeof(Key)) : numbers.Next(1));
    if ((what & 0x40) != 0) key *= model.map()->m_allocated;  // all at one home
    if (key == T::kNone) key--;
    const Key create = (what & 0x20) != 0 ? T::kNone : static_cast<Key>(step);
    const Key update = (what & 0x10) != 0 ? T::kNone : static_cast<Key>(step + 1);
    switch (what & 7) {
      case 6:
        for (unsigned i = 0; i < 50 && difference.empty(); i++) {
          const auto next = static_cast<Key>(key + i);
          if (next != T::kNone) difference = model.Find(next, create, update);
        }
        break;
      case 5:
        difference = model.FindMany(key, 40);
        break;
      case 7:
        if (key < 16) model.Clear();
        if (key >= 240) model.Grow(static_cast<UInt>(numbers.Next(2) % kMost));
        break;
      default:
        difference = model.Find(key, create, update);
    }
    if (difference.empty() && step % 16 == 0) difference = model.Differences();
  }
  return difference.empty() ? model.Differences() : difference;
}

// The first byte chooses the map.
inline std::string OperateMaps(std::span<const uint8_t> bytes) {
  Numbers numbers(bytes);
  return numbers.Next(1) % 2 == 0 ? OperateMap<Ids>(numbers) : OperateMap<Refs>(numbers);
}

}  // namespace support

#endif
