// HashTable: random operations beside a model, with hashes that collide on purpose.

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <string>
#include <vector>

#include "support/files.h"
#include "support/hashtable_model.h"

using support::HashTableModel;

namespace {

constexpr UInt kCapacity = 400;  // tables grow no further: each check goes through all slots

struct Operation {
  unsigned kind, number;
  std::string key;
};

Operation Draw() {
  Operation operation;
  operation.kind = *rc::gen::inRange(0u, 100u);
  operation.number = *rc::gen::inRange(0u, 1000u);
  // Few different keys, so that operations meet the same one again, and a few long ones.
  const size_t length = *rc::gen::weightedElement<size_t>({{8, 0}, {30, 1}, {30, 2}, {20, 5}, {8, 17}, {4, 140}});
  operation.key = *rc::gen::container<std::string>(length, rc::gen::element('a', 'b', 'c', '\0', '\xFF'));
  return operation;
}

void Apply(HashTableModel& model, const Operation& operation, const std::string& file) {
  const unsigned kind = operation.kind, number = operation.number;
  if (kind < 45) {
    if (model.indexed()) model.Insert(operation.key, number);
  } else if (kind < 70) {
    if (model.indexed()) model.Find(operation.key);
  } else if (kind < 80) {
    if (model.indexed() && HashTableCapacity(model.table()) < kCapacity)
      model.Grow(1.01F + static_cast<float>(number % 8) / 4);
  } else if (kind < 82) {
    model.Select(number % 5, number % 3 + 1, 0, true);
  } else if (kind < 86) {
    model.Select(number % 5, number % 3 + 1, 0, false);
  } else if (kind < 89) {
    if (model.selected()) model.Sort();
  } else if (kind < 93) {
    model.Copy();
  } else if (kind < 96) {
    model.WriteAndRead(file);
  } else {
    model.Clear();
  }
  model.Check();
}

void RandomOperations(HashKeyFunction hash) {
  const support::TemporaryDirectory directory;
  EXPECT_TRUE(rc::check([&] {
    HashTableModel::Options options;
    options.capacity = *rc::gen::inRange(0u, 30u);
    options.val_len = *rc::gen::element(0u, 1u, 3u, 8u, 21u);
    options.key_size = *rc::gen::inRange<UByte>(0, 5);
    options.vm = *rc::gen::inRange(0, 2);
    options.hash = hash;
    HashTableModel model(options);
    const auto operations = *rc::gen::container<std::vector<Operation>>(rc::gen::exec(Draw));
    for (const Operation& operation : operations) Apply(model, operation, directory.file("table"));
  }));
}

TEST(HashTableProperty, HoldsWithTheDefaultHash) { RandomOperations(nullptr); }
TEST(HashTableProperty, HoldsWhenAllKeysCollide) { RandomOperations(support::HashToOne); }
TEST(HashTableProperty, HoldsWhenMostKeysCollide) { RandomOperations(support::HashToFew); }
TEST(HashTableProperty, HoldsWhenProbesWrap) { RandomOperations(support::HashToLength); }

// The same operations, many more of them in one table than a property draws.
TEST(HashTableProperty, HoldsThroughALongLife) {
  const support::TemporaryDirectory directory;
  for (const HashKeyFunction hash : {HashKeyFunction{nullptr}, HashKeyFunction{support::HashToLength}}) {
    unsigned state = 1;
    const auto draw = [&state](unsigned below) {
      state = state * 1664525 + 1013904223;
      return (state >> 8) % below;
    };
    HashTableModel model({7, 4, 0, FALSE, hash});
    for (int i = 0; i < 3000; i++) {
      Operation operation{draw(1000) == 0 ? 99 : draw(96), draw(1000), ""};
      if (operation.kind >= 80 && operation.kind < 86 && draw(20) != 0) operation.kind = 0;  // selections end a life
      for (unsigned length = draw(6); length > 0; length--) operation.key += static_cast<char>('a' + draw(4));
      if (operation.kind >= 70 && operation.kind < 80 && draw(8) != 0) operation.kind = 0;
      if (!model.indexed() && draw(4) == 0) operation.kind = 99;
      Apply(model, operation, directory.file("table"));
    }
  }
}

}  // namespace
