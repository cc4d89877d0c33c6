// What the three ordered dictionaries have in common: creation, slots, growth, search, enumeration, failing memory.

#include <sys/mman.h>

#include <cerrno>
#include <random>

#include <rapidcheck.h>

#include "support/death.h"
#include "support/faults.h"
#include "support/messages.h"
#include "support/trees.h"

namespace {

using support::Owned;
using support::Pairs;
using support::TreeModel;

template <typename Api>
class OrderedDict : public testing::Test {
 protected:
  ~OrderedDict() override { support::faults::Clear(); }
};

template <typename Api>
class OrderedDictDeathTest : public OrderedDict<Api> {};

using All = testing::Types<support::Avll, support::Avl, support::Rb>;
TYPED_TEST_SUITE(OrderedDict, All, support::TreeNames);
TYPED_TEST_SUITE(OrderedDictDeathTest, All, support::TreeNames);

template <typename Api>
void InsertUpTo(typename Api::Dict* dict, typename Api::Key last) {
  for (typename Api::Key key = 1; key <= last; key++) ASSERT_EQ(Api::Insert(dict, key, key * 10, 7), 7u);
}

TYPED_TEST(OrderedDict, IsEmptyWhenNew) {
  Owned<TypeParam> dict;
  EXPECT_EQ(TypeParam::Size(dict.get()), 0u);
  EXPECT_EQ(TypeParam::Find(dict.get(), 5, 99), 99u);
  EXPECT_EQ(dict.get()->d_size, 0u);
  EXPECT_EQ(dict.get()->d_free, 2u);
  EXPECT_EQ(dict.get()->d_list, 0u);
  TypeParam::Check(dict.get());
}

TYPED_TEST(OrderedDict, HasAtLeast1024Slots) {
  for (const auto& [asked, given] :
       {std::pair{0u, 1024u}, {1u, 1024u}, {1023u, 1024u}, {1024u, 1024u}, {1025u, 1025u}, {100000u, 100000u}}) {
    Owned<TypeParam> dict(asked);
    EXPECT_EQ(dict.get()->d_capacity, given);
    EXPECT_EQ(support::faults::LastMapSize(), size_t{given} * sizeof(typename TypeParam::Node));
  }
}

TYPED_TEST(OrderedDict, InsertGivesTheMarkerForANewKeyAndTheOldValueForAPresentOne) {
  Owned<TypeParam> dict;
  EXPECT_EQ(TypeParam::Insert(dict.get(), 5, 50, 99), 99u);
  EXPECT_EQ(TypeParam::Size(dict.get()), 1u);
  EXPECT_EQ(TypeParam::Insert(dict.get(), 5, 51, 99), 50u);
  EXPECT_EQ(TypeParam::Size(dict.get()), 1u);
  EXPECT_EQ(TypeParam::Find(dict.get(), 5, 99), 51u);
}

TYPED_TEST(OrderedDict, RemoveGivesTheValueOrTheMarker) {
  Owned<TypeParam> dict;
  TypeParam::Insert(dict.get(), 5, 50, 99);
  EXPECT_EQ(TypeParam::Remove(dict.get(), 6, 99), 99u);
  EXPECT_EQ(TypeParam::Remove(dict.get(), 5, 99), 50u);
  EXPECT_EQ(TypeParam::Remove(dict.get(), 5, 99), 99u);
  EXPECT_EQ(TypeParam::Size(dict.get()), 0u);
}

TYPED_TEST(OrderedDict, StoresTheMarkerLikeAnyOtherValue) {
  Owned<TypeParam> dict;
  TypeParam::Insert(dict.get(), 5, 99, 99);
  EXPECT_EQ(TypeParam::Size(dict.get()), 1u);
  EXPECT_EQ(TypeParam::Find(dict.get(), 5, 7), 99u);
}

TYPED_TEST(OrderedDict, StoresTheGreatestKeyAndValue) {
  using Key = typename TypeParam::Key;
  constexpr Key kMax = ~Key{0};
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 20);
  EXPECT_EQ(TypeParam::Insert(dict.get(), kMax, kMax, 7), 7u);
  EXPECT_EQ(TypeParam::Insert(dict.get(), kMax - 1, 3, 7), 7u);
  EXPECT_EQ(TypeParam::Find(dict.get(), kMax, 7), kMax);
  EXPECT_EQ(Pairs<TypeParam>(dict.get()).back().first, kMax);
  EXPECT_EQ(TypeParam::Remove(dict.get(), kMax, 7), kMax);
  EXPECT_EQ(TypeParam::Find(dict.get(), kMax, 7), 7u);
}

// Lookups and removals leave their key in slot 0, insertions do not.
TYPED_TEST(OrderedDict, AnAbsentKeyChangesNothingButTheSentinelsKey) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 100);
  EXPECT_EQ(dict.node(0).n_key, 0u);
  const auto* nodes = dict.get()->d_nodes;
  std::vector<typename TypeParam::Node> before(nodes, nodes + 1024);

  EXPECT_EQ(TypeParam::Find(dict.get(), 1000, 7), 7u);
  before[0].n_key = 1000;
  EXPECT_EQ(std::memcmp(before.data(), nodes, 1024 * sizeof *nodes), 0);

  EXPECT_EQ(TypeParam::Remove(dict.get(), 2000, 7), 7u);
  before[0].n_key = 2000;
  EXPECT_EQ(std::memcmp(before.data(), nodes, 1024 * sizeof *nodes), 0);
  EXPECT_EQ(dict.get()->d_size, 100u);
}

TYPED_TEST(OrderedDict, The1023rdKeyDoublesTheArray) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 1022);
  EXPECT_EQ(dict.get()->d_capacity, 1024u);
  EXPECT_EQ(dict.get()->d_free, 1024u);
  TypeParam::Insert(dict.get(), 1023, 10230, 7);
  EXPECT_EQ(dict.get()->d_capacity, 2048u);
  EXPECT_EQ(dict.get()->d_free, 1025u);
  EXPECT_EQ(dict.node(1024).n_key, 1023u);
  EXPECT_EQ(support::faults::LastRemapSize(), 2048 * sizeof(typename TypeParam::Node));
  for (typename TypeParam::Key key = 1; key <= 1023; key++) EXPECT_EQ(TypeParam::Find(dict.get(), key, 7), key * 10);
  TypeParam::Check(dict.get());
}

TYPED_TEST(OrderedDict, AReleasedSlotIsReusedBeforeTheArrayGrows) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 1022);
  TypeParam::Remove(dict.get(), 500, 7);
  TypeParam::Insert(dict.get(), 5000, 1, 7);
  EXPECT_EQ(dict.get()->d_capacity, 1024u);
  EXPECT_EQ(dict.get()->d_list, 0u);
  TypeParam::Insert(dict.get(), 5001, 1, 7);
  EXPECT_EQ(dict.get()->d_capacity, 2048u);
}

TYPED_TEST(OrderedDict, AReplacedValueTakesNoSlot) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 1022);
  for (typename TypeParam::Key key = 1; key <= 1022; key++)
    EXPECT_EQ(TypeParam::Insert(dict.get(), key, 1, 7), key * 10);
  EXPECT_EQ(dict.get()->d_capacity, 1024u);
  EXPECT_EQ(dict.get()->d_free, 1024u);
}

// 1, 2 and 3 lie in slots 2, 3 and 4; taken out leaf by leaf, no key moves.
TYPED_TEST(OrderedDict, ReleasedSlotsAreReusedLastReleasedFirst) {
  Owned<TypeParam> dict;
  TypeParam::Insert(dict.get(), 2, 0, 7);
  TypeParam::Insert(dict.get(), 1, 0, 7);
  TypeParam::Insert(dict.get(), 3, 0, 7);
  TypeParam::Remove(dict.get(), 1, 7);
  EXPECT_EQ(dict.get()->d_list, 3u);
  TypeParam::Remove(dict.get(), 3, 7);
  EXPECT_EQ(dict.get()->d_list, 4u);
  EXPECT_EQ(dict.right(4), 3u);
  TypeParam::Remove(dict.get(), 2, 7);
  EXPECT_EQ(dict.get()->d_list, 2u);
  EXPECT_EQ(dict.right(2), 4u);
  EXPECT_EQ(dict.right(3), 0u);
  EXPECT_EQ(dict.right(1), 0u);

  TypeParam::Insert(dict.get(), 20, 0, 7);
  TypeParam::Insert(dict.get(), 10, 0, 7);
  TypeParam::Insert(dict.get(), 30, 0, 7);
  TypeParam::Insert(dict.get(), 5, 0, 7);
  EXPECT_EQ(dict.node(2).n_key, 20u);
  EXPECT_EQ(dict.node(4).n_key, 10u);
  EXPECT_EQ(dict.node(3).n_key, 30u);
  EXPECT_EQ(dict.node(5).n_key, 5u);
}

TYPED_TEST(OrderedDict, ClearStartsTheSlotsAfreshAndKeepsTheMemory) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 2000);
  TypeParam::Remove(dict.get(), 1000, 7);
  TypeParam::Find(dict.get(), 1234, 7);
  const auto old_slot_9 = dict.node(9);
  TypeParam::Clear(dict.get());
  EXPECT_EQ(TypeParam::Size(dict.get()), 0u);
  EXPECT_EQ(dict.get()->d_free, 2u);
  EXPECT_EQ(dict.get()->d_list, 0u);
  EXPECT_EQ(dict.get()->d_capacity, 2048u);
  for (const uint32_t x : {0u, 1u}) {
    EXPECT_EQ(dict.node(x).n_right, 0u);
    EXPECT_EQ(dict.node(x).n_left, 0u);
  }
  EXPECT_EQ(dict.node(0).n_key, 1234u);  // nothing else is touched
  EXPECT_EQ(dict.node(1).n_key, 0u);
  EXPECT_EQ(std::memcmp(&dict.node(9), &old_slot_9, sizeof old_slot_9), 0);
  EXPECT_EQ(TypeParam::Find(dict.get(), 5, 7), 7u);
  TypeParam::Insert(dict.get(), 77, 1, 7);
  EXPECT_EQ(dict.right(1), 2u);
  EXPECT_EQ(dict.node(2).n_key, 77u);
  EXPECT_EQ(dict.node(2).n_left & ~support::kTopBit, 0u);  // what the slot held before is gone
  EXPECT_EQ(dict.node(2).n_right, 0u);
  TypeParam::Check(dict.get());
}

TYPED_TEST(OrderedDict, DeleteUnmapsTheGrownArray) {
  auto* dict = TypeParam::New(0);
  InsertUpTo<TypeParam>(dict, 5000);
  auto* first = reinterpret_cast<char*>(dict->d_nodes);
  const size_t size = dict->d_capacity * sizeof(typename TypeParam::Node);
  const long unmaps = support::faults::Unmaps();
  TypeParam::Delete(dict);
  EXPECT_EQ(support::faults::Unmaps(), unmaps + 1);
  for (char* page : {first, first + size - 4096}) {
    EXPECT_EQ(msync(page, 4096, MS_ASYNC), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
}

TYPED_TEST(OrderedDict, DeleteOfARecordWithoutAnArrayUnmapsNothing) {
  auto* dict = TypeParam::New(0);
  auto* nodes = dict->d_nodes;
  dict->d_nodes = nullptr;
  const long unmaps = support::faults::Unmaps();
  TypeParam::Delete(dict);
  EXPECT_EQ(support::faults::Unmaps(), unmaps);
  MemoryUnmap_(nodes, 1024 * sizeof(typename TypeParam::Node), "node_tree_test", __LINE__);
}

template <typename Api>
struct Calls {
  long stop_at;
  Boolean go_on = TRUE;
  long count = 0;
};

template <typename Api>
Boolean Count(typename Api::Dict*, typename Api::Key, typename Api::Value, void* arg) {
  auto* calls = static_cast<Calls<Api>*>(arg);
  return ++calls->count == calls->stop_at ? FALSE : calls->go_on;
}

TYPED_TEST(OrderedDict, EnumerationOfAnEmptyDictionaryIsTrueWithoutACall) {
  Owned<TypeParam> dict;
  Calls<TypeParam> calls{0};
  EXPECT_EQ(TypeParam::Enumerate(dict.get(), FALSE, Count<TypeParam>, &calls), TRUE);
  EXPECT_EQ(TypeParam::Enumerate(dict.get(), TRUE, Count<TypeParam>, &calls), TRUE);
  EXPECT_EQ(calls.count, 0);
}

TYPED_TEST(OrderedDict, EnumerationStopsAtTheFirstZero) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 50);
  for (const Boolean reverse : {FALSE, TRUE}) {
    for (long k = 1; k <= 50; k++) {
      Calls<TypeParam> calls{k};
      EXPECT_EQ(TypeParam::Enumerate(dict.get(), reverse, Count<TypeParam>, &calls), FALSE);
      EXPECT_EQ(calls.count, k);
    }
  }
}

TYPED_TEST(OrderedDict, EveryNonZeroBooleanIsTrue) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 3);
  for (const Boolean truth : {1, 2, -1, 256, 65536, INT32_MIN}) {
    Calls<TypeParam> calls{0, truth};
    EXPECT_EQ(TypeParam::Enumerate(dict.get(), FALSE, Count<TypeParam>, &calls), TRUE);
    EXPECT_EQ(calls.count, 3);
    EXPECT_EQ(Pairs<TypeParam>(dict.get(), truth).front().first, 3u);
  }
}

TYPED_TEST(OrderedDict, EnumerationGivesThePairsInOrder) {
  using Pair = std::pair<typename TypeParam::Key, typename TypeParam::Value>;
  Owned<TypeParam> dict;
  for (const typename TypeParam::Key key : {40u, 10u, 30u, 20u, 50u}) TypeParam::Insert(dict.get(), key, key + 1, 7);
  EXPECT_EQ(Pairs<TypeParam>(dict.get()), (std::vector<Pair>{{10, 11}, {20, 21}, {30, 31}, {40, 41}, {50, 51}}));
  EXPECT_EQ(Pairs<TypeParam>(dict.get(), TRUE), (std::vector<Pair>{{50, 51}, {40, 41}, {30, 31}, {20, 21}, {10, 11}}));
}

TYPED_TEST(OrderedDict, AVisitorMayLookKeysUp) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 300);
  typename TypeParam::Key next = 1;
  EXPECT_TRUE(TypeParam::Enumerate(
      dict.get(), FALSE,
      [](typename TypeParam::Dict* d, typename TypeParam::Key key, typename TypeParam::Value value,
         void* arg) -> Boolean {
        auto* expected = static_cast<typename TypeParam::Key*>(arg);
        EXPECT_EQ(key, (*expected)++);
        EXPECT_EQ(TypeParam::Find(d, key, 7), value);
        EXPECT_EQ(TypeParam::Find(d, key + 1000, 7), 7u);
        return TRUE;
      },
      &next));
  EXPECT_EQ(next, 301u);
}

TYPED_TEST(OrderedDict, AFailedMappingIsReportedAndGivesNull) {
  support::Messages messages;
  support::faults::FailMap(0);
  EXPECT_EQ(TypeParam::New(5000), nullptr);
  ASSERT_EQ(messages.all().size(), 1u);
  const support::Message& message = messages.all()[0];
  EXPECT_EQ(message.text, TypeParam::kMappingText + std::to_string(5000 * sizeof(typename TypeParam::Node)));
  EXPECT_EQ(message.file, TypeParam::kModule);
  EXPECT_EQ(message.module, "qxdict");
  EXPECT_EQ(message.function, TypeParam::kNewName);
  EXPECT_EQ(message.level, 4);
  EXPECT_FALSE(message.flag);
}

TYPED_TEST(OrderedDict, ACapacityPast31BitIndicesIsReportedAndGivesNull) {
  support::Messages messages;
  const long maps = support::faults::Maps();
  EXPECT_EQ(TypeParam::New(0x80000001u), nullptr);
  EXPECT_EQ(TypeParam::New(0xFFFFFFFFu), nullptr);
  EXPECT_EQ(support::faults::Maps(), maps);
  // The AVL twins tell the size in 64 bits, 24 and 16 bytes a slot; the red-black tree in 32.
  const std::vector<std::string> sizes =
      std::is_same_v<TypeParam, support::Avll>  ? std::vector<std::string>{"51539607576", "103079215080"}
      : std::is_same_v<TypeParam, support::Avl> ? std::vector<std::string>{"34359738384", "68719476720"}
                                                : std::vector<std::string>{"16", "4294967280"};
  EXPECT_EQ(messages.texts(), (std::vector{TypeParam::kMappingText + sizes[0], TypeParam::kMappingText + sizes[1]}));
}

TYPED_TEST(OrderedDictDeathTest, DeleteOfNullIsAnAssertion) {
  EXPECT_ASSERTION(TypeParam::Delete(nullptr), TypeParam::kModule, TypeParam::kDeleteName, "dict != ((void *)0)");
}

// The context of every message, on one line, for death tests to match.
void PrintMessages() {
  QXMessageHandlerSet(
      [](const QXMessageContext* context, const char* text, void*) {
        fprintf(stderr, "[%s %s %s %d %d] %s\n", context->file, context->module, context->function, context->level,
                context->flag, text);
      },
      nullptr);
}

template <typename Api>
std::string GrowthReport(const std::string& size) {
  return "[" + std::string(Api::kModule) + " qxdict NodeNew 4 0] " + Api::kGrowthText + size + "\n";
}

TYPED_TEST(OrderedDictDeathTest, AFailedGrowthIsReportedAndEndsTheProcess) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 1022);
  EXPECT_CLEAR_END(
      {
        PrintMessages();
        support::faults::FailRemap(0);
        TypeParam::Insert(dict.get(), 1023, 1, 7);
      },
      GrowthReport<TypeParam>(std::to_string(2048 * sizeof(typename TypeParam::Node))));
  EXPECT_CLEAR_END(
      {
        support::faults::FailRemap(0);
        TypeParam::Insert(dict.get(), 1023, 1, 7);
      },
      "no room for another key beside 1022");
}

TYPED_TEST(OrderedDictDeathTest, AReplacedValueNeedsNoGrowth) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 1022);
  support::faults::FailRemap(0, -1);
  EXPECT_EQ(TypeParam::Insert(dict.get(), 1022, 1, 7), 10220u);
  TypeParam::Remove(dict.get(), 3, 7);
  EXPECT_EQ(TypeParam::Insert(dict.get(), 4000, 1, 7), 7u);
}

// A capacity of 2^31 doubles to 0 in 32 bits. The record is forged: nobody has 32 GiB for this.
TYPED_TEST(OrderedDictDeathTest, IndicesPast31BitsAreReportedAndEndTheProcess) {
  Owned<TypeParam> dict;
  InsertUpTo<TypeParam>(dict.get(), 3);
  EXPECT_CLEAR_END(
      {
        PrintMessages();
        dict.get()->d_capacity = 0x80000000u;
        dict.get()->d_free = 0x80000000u;
        TypeParam::Insert(dict.get(), 4, 1, 7);
      },
      GrowthReport<TypeParam>("0"));
  EXPECT_CLEAR_END(  // an array that was asked for with an odd size can have more slots than indices
      {
        dict.get()->d_capacity = 0xC0000000u;
        dict.get()->d_free = 0x80000000u;
        TypeParam::Insert(dict.get(), 4, 1, 7);
      },
      "no room for another key beside 3");
}

template <typename Api>
void RunOrder(const std::vector<typename Api::Key>& keys) {
  TreeModel<Api> model;
  for (const auto key : keys) ASSERT_EQ(model.Insert(key, key ^ 0x55), "");
  ASSERT_EQ(model.CompareOrder(), "");
  for (const auto key : keys) ASSERT_EQ(model.Find(key), "");
  for (const auto key : keys) ASSERT_EQ(model.Remove(key), "");
  ASSERT_EQ(model.map().size(), 0u);
}

TYPED_TEST(OrderedDict, TakesKeysInEveryRegularOrder) {
  using Key = typename TypeParam::Key;
  constexpr Key kCount = 2500;  // past two doublings
  std::vector<Key> ascending, descending, inward, outward;
  for (Key i = 1; i <= kCount; i++) {
    ascending.push_back(i);
    descending.push_back(kCount + 1 - i);
    inward.push_back(i % 2 != 0 ? (i + 1) / 2 : kCount + 1 - i / 2);
  }
  outward.assign(inward.rbegin(), inward.rend());
  RunOrder<TypeParam>(ascending);
  RunOrder<TypeParam>(descending);
  RunOrder<TypeParam>(inward);
  RunOrder<TypeParam>(outward);
}

// Small key spaces, in phases that grow and that shrink the tree, so that removals meet every shape.
TYPED_TEST(OrderedDict, AgreesWithTheReferenceAfterEveryRandomStep) {
  std::mt19937_64 random(20240607);
  for (const unsigned space : {3u, 8u, 30u, 150u, 1500u}) {
    TreeModel<TypeParam> model;
    for (unsigned step = 0; step < 12000; step++) {
      const auto key = static_cast<typename TypeParam::Key>(random() % space);
      const unsigned growing = step / 1500 % 2 == 0 ? 6 : 3;
      const unsigned dice = static_cast<unsigned>(random() % 10);
      if (dice == 9) {
        ASSERT_EQ(model.Find(key), "") << space << " " << step;
      } else if (dice < growing) {
        ASSERT_EQ(model.Insert(key, static_cast<typename TypeParam::Value>(random())), "") << space << " " << step;
      } else {
        ASSERT_EQ(model.Remove(key), "") << space << " " << step;
      }
      if (step % 500 == 0) {
        ASSERT_EQ(model.CompareOrder(), "") << space << " " << step;
      }
      if (step % 5000 == 4999) {
        ASSERT_EQ(model.Clear(), "") << space << " " << step;
      }
    }
  }
}

TYPED_TEST(OrderedDict, AgreesWithTheReferenceOnAnyOperations) {
  using Key = typename TypeParam::Key;
  EXPECT_TRUE(rc::check([] {
    // Keys from a few, and from the ends of the range.
    const auto key =
        rc::gen::oneOf(rc::gen::inRange<Key>(0, 24), rc::gen::element<Key>(~Key{0}, ~Key{0} - 1, ~Key{0} / 2),
                       rc::gen::arbitrary<Key>());
    const auto operations =
        *rc::gen::container<std::vector<std::pair<int, Key>>>(rc::gen::pair(rc::gen::inRange(0, 16), key));
    TreeModel<TypeParam> model;
    typename TypeParam::Value value = 1;
    for (const auto& [operation, v] : operations) {
      std::string difference;
      if (operation == 0) {
        difference = model.Clear();
      } else if (operation < 3) {
        difference = model.Find(v);
      } else if (operation < 10) {
        difference = model.Insert(v, value++);
      } else {
        difference = model.Remove(v);
      }
      RC_ASSERT(difference == "");
    }
    RC_ASSERT(model.CompareOrder() == "");
  }));
}

}  // namespace
