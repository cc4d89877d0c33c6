// Any bytes, read as operations on a byte-keyed table and its model: the body of their fuzzer, and of the tests that
// give it bytes at random. Gives "" when the two agree throughout, else what differs.
//
//   [ which table, in a mapping:1 | capacity:1 | value length:1 | key length width:1 | hash:1 | operations ]
//   an operation: [ what:1 | number:1 | key ]
#ifndef TESTS_SUPPORT_TABLE_OPERATIONS_H
#define TESTS_SUPPORT_TABLE_OPERATIONS_H

#include <cstdint>
#include <span>
#include <string>

#include "support/hashdeltable_model.h"
#include "support/hashtable_model.h"
#include "support/numbers.h"

namespace support {

// Tables grow no further: each check goes through all slots.
constexpr UInt kGrownEnough = 300;

// Few different keys, so that operations meet the same one again; some differ in zero bytes at the end alone, and some
// cross the lengths at which hash, comparison and length field change their ways.
inline std::string TableKey(Numbers* numbers) {
  const auto number = static_cast<unsigned>(numbers->Next(1));
  switch (number / 64) {
    case 0:
      return std::to_string(number % 8);
    case 1:
      return std::string(number % 64, '\0');
    case 2:
      return std::string(number % 64, 'x') + static_cast<char>(numbers->Next(1) % 4);
    default:
      return std::string(100 + number % 64, static_cast<char>(number));
  }
}

inline void OperateOn(HashTableModel& model, unsigned what, unsigned number, const std::string& key,
                      const std::string& file) {
  if (what < 110) {
    if (model.indexed()) model.Insert(key, number);
  } else if (what < 160) {
    if (model.indexed()) model.Find(key);
  } else if (what < 200) {
    const bool small = HashTableCapacity(model.table()) < kGrownEnough;
    if (model.indexed() && small) model.Grow(1.01F + static_cast<float>(number % 8) / 4);
  } else if (what < 205) {
    model.Select(number % 5, number % 3 + 1, 0, true);
  } else if (what < 215) {
    model.Select(number % 5, number % 3 + 1, 0, false);
  } else if (what < 225) {
    if (model.selected()) model.Sort();
  } else if (what < 235) {
    model.Copy();
  } else if (what < 245) {
    model.WriteAndRead(file);
  } else {
    model.Clear();
  }
}

inline void OperateOn(HashDelTableModel& model, unsigned what, unsigned number, const std::string& key,
                      const std::string&) {
  const bool small = HashDelTableCapacity(model.table()) < kGrownEnough;
  if (model.selected()) {
    if (what < 80) return model.Select(number % 7, 1 + number % 3, 0);
    if (what < 150) return model.Sort();
    if (what >= 245) return model.Clear();
  } else if (what < 80) {
    if (model.full() && number % 4 != 0) model.Grow(number % 3 == 0 || !small ? 1.00001F : 1.4F);
    return model.Insert(key, number);
  } else if (what < 130) {
    return model.Remove(key);
  } else if (what < 160) {
    return model.Find(key);
  }
  if (what < 185) {
    if (!model.selected()) model.Grow(small ? 1.0F + static_cast<float>(1 + number % 60) / 50 : 1.00001F);
  } else if (what < 200) {
    model.Iterate();
  } else if (what < 210) {
    model.Enumerate();
  } else if (what < 225) {
    model.WriteAndRead();
  } else if (what < 240) {
    model.Copy();
  } else if (what < 245) {
    model.Select(number % 9, 1 + number % 3, 0);
  } else {
    model.Clear();
  }
}

template <typename Model>
std::string OperateTable(typename Model::Options options, Numbers numbers, const std::string& file) {
  static constexpr HashKeyFunction kHashes[] = {nullptr, nullptr, HashToOne, HashToFew, HashToLength};
  options.capacity = static_cast<UInt>(numbers.Next(1) % 40);
  options.val_len = static_cast<UInt>(numbers.Next(1) % 24);
  options.key_size = static_cast<UByte>(numbers.Next(1) % 5);
  options.hash = kHashes[numbers.Next(1) % 5];
  try {
    Model model(options);
    while (!numbers.Empty()) {
      const auto what = static_cast<unsigned>(numbers.Next(1));
      const auto number = static_cast<unsigned>(numbers.Next(1));
      OperateOn(model, what, number, TableKey(&numbers), file);
      model.Check();
    }
  } catch (const typename Model::Mismatch& mismatch) {
    return mismatch.what();
  }
  return "";
}

// `file` is where tables may be written.
inline std::string OperateTables(std::span<const uint8_t> bytes, const std::string& file) {
  Numbers numbers(bytes);
  const uint64_t which = numbers.Next(1);
  if (which % 2 != 0) return OperateTable<HashDelTableModel>({}, numbers, file);
  HashTableModel::Options options;
  options.vm = (which & 2) != 0 ? TRUE : FALSE;
  return OperateTable<HashTableModel>(options, numbers, file);
}

}  // namespace support

#endif
