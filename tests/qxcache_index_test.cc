// From a key to its block: the table in front of the index, and the page of an address.

#include "dict/qxcache.h"

#include <dlfcn.h>

#include <cstdlib>
#include <set>
#include <thread>

#include "dict/qxcache_front.h"
#include "dict/qxcache_internal.h"
#include "support/cache_front.h"
#include "support/faults.h"
#include "support/quiet_cache.h"

// In front of the base library's: a key "=0123456789abcdef" has that fingerprint.
extern "C" FPrint Fingerprint(const UByte* bytes, UInt length) {
  static const auto real = reinterpret_cast<FPrint (*)(const UByte*, UInt)>(dlsym(RTLD_NEXT, "Fingerprint"));
  if (length >= 17 && bytes[0] == '=') return std::strtoul(reinterpret_cast<const char*>(bytes) + 1, nullptr, 16);
  return real(bytes, length);
}

namespace {

using support::Bytes;
using support::CheckFront;
using support::kNever;
using support::Numbered;
using support::QuietCache;

// 64 KiB: the front has two buckets of 8 words at first, and 64 at most.
constexpr support::CacheParameters kSmall = {.region_size = 16, .page_size = 4096};

// Fetches while this thread holds the index's lock, so only the front can answer.
std::string FetchWithoutIndex(const QuietCache& cache, const std::string& key) {
  std::string found;
  pthread_mutex_lock(&cache->c_dict_lock);
  std::thread fetcher([&cache, &key, &found] { found = cache.Fetch(key); });
  fetcher.join();
  pthread_mutex_unlock(&cache->c_dict_lock);
  return found;
}

TEST(CacheFront, IsMadeToTheCachesMeasure) {
  const QuietCache small(kSmall);
  EXPECT_EQ(small->c_extra->front_buckets, 2u);
  EXPECT_EQ(small->c_extra->front_most, 64u);
  const QuietCache large({.region_size = 64, .page_size = 1048576});
  EXPECT_EQ(large->c_extra->front_buckets, 512u);
  EXPECT_EQ(large->c_extra->front_most, 65536u);
  EXPECT_EQ(qxcache::FrontBytes(large->c_extra), 4194304u);  // a sixteenth
  const QuietCache tiny({.region_size = 6, .page_size = 152});
  EXPECT_EQ(tiny->c_extra->front_buckets, 2u);
  EXPECT_EQ(tiny->c_extra->front_most, 2u);
  const QuietCache none({.regions = 0});
  EXPECT_EQ(none->c_extra->front, nullptr);
}

TEST(CacheFront, AnswersAFetchWithoutTheIndex) {
  const QuietCache cache(kSmall);
  ASSERT_TRUE(cache.Store("key", "value"));
  EXPECT_EQ(FetchWithoutIndex(cache, "key"), "value");
  ASSERT_TRUE(cache.Store("key", "newer"));
  EXPECT_EQ(FetchWithoutIndex(cache, "key"), "newer");
  EXPECT_EQ(CheckFront(cache.get()), 1u);
}

TEST(CacheFront, FollowsABlockThatIsMoved) {
  const QuietCache cache(kSmall);
  ASSERT_TRUE(cache.Store("key", "value"));
  Page* const page = cache.Block("key")->b_page;
  qxcache::PageCopyBlocks(cache.get(), 0, page, cache.PageAt(9));
  EXPECT_EQ(cache.Block("key")->b_page, cache.PageAt(9));
  EXPECT_EQ(FetchWithoutIndex(cache, "key"), "value");
  EXPECT_EQ(CheckFront(cache.get()), 1u);
}

TEST(CacheFront, ForgetsABlockThatIsDropped) {
  const QuietCache cache(kSmall);
  ASSERT_TRUE(cache.Store("key", "value"));
  qxcache::PageFreeBlocks(cache.get(), cache.Block("key")->b_page);
  EXPECT_EQ(CheckFront(cache.get()), 0u);
  EXPECT_EQ(cache.Fetch("key"), "(none)");
}

TEST(CacheFront, ABucketIsChosenByTheLowBitsOfTheFingerprint) {
  const QuietCache cache(kSmall);
  const CacheExtra* const extra = cache->c_extra;
  const auto buckets_of = [extra](ULong buckets) {
    std::vector<std::ptrdiff_t> indices;
    for (FPrint key = 0; key < 9; key++) indices.push_back((qxcache::BucketOf(extra, key, buckets) - extra->front) / 8);
    return indices;
  };
  EXPECT_EQ(buckets_of(2), (std::vector<std::ptrdiff_t>{0, 1, 0, 1, 0, 1, 0, 1, 0}));
  EXPECT_EQ(buckets_of(3), (std::vector<std::ptrdiff_t>{0, 1, 2, 1, 0, 1, 2, 1, 0}));
  EXPECT_EQ(buckets_of(4), (std::vector<std::ptrdiff_t>{0, 1, 2, 3, 0, 1, 2, 3, 0}));
  EXPECT_EQ(buckets_of(5), (std::vector<std::ptrdiff_t>{0, 1, 2, 3, 4, 1, 2, 3, 0}));
  EXPECT_EQ(buckets_of(8), (std::vector<std::ptrdiff_t>{0, 1, 2, 3, 4, 5, 6, 7, 0}));
}

// 20 keys for one bucket, each with a tag of its own: alike in the bits that choose the bucket, whatever their number.
std::vector<std::string> KeysOfOneBucket() {
  std::vector<std::string> keys;
  for (int i = 10; i < 30; i++) keys.push_back("=000000000000" + std::to_string(i) + "00");
  return keys;
}

TEST(CacheFront, AFullBucketGivesAWordUp) {
  const QuietCache cache(kSmall);
  const std::vector<std::string> keys = KeysOfOneBucket();
  for (const std::string& key : keys) ASSERT_TRUE(cache.Store(key, "of " + key));
  EXPECT_EQ(CheckFront(cache.get()), 8u);
  EXPECT_EQ(FetchWithoutIndex(cache, keys.back()), "of " + keys.back());  // a new word always finds a place
  for (int round = 0; round < 3; round++) {
    for (const std::string& key : keys) EXPECT_EQ(cache.Fetch(key), "of " + key);
    EXPECT_EQ(CheckFront(cache.get()), 8u);
  }
}

TEST(CacheFront, WhoHasToAskTheIndexTakesAPlaceOneTimeInEight) {
  const QuietCache cache(kSmall);
  const std::vector<std::string> keys = KeysOfOneBucket();
  for (const std::string& key : keys) ASSERT_TRUE(cache.Store(key, "of " + key));
  const FPrint first = Fingerprint(Bytes(keys[0]), 17);
  EXPECT_FALSE(qxcache::FrontFind(cache.get(), first).FromFront());
  int taken = 0;
  for (int i = 0; i < 16; i++) {
    qxcache::IndexFind(cache.get(), Fingerprint(Bytes(keys[static_cast<size_t>(i % 8)]), 17));
    const bool in_front =
        qxcache::FrontFind(cache.get(), Fingerprint(Bytes(keys[static_cast<size_t>(i % 8)]), 17)).FromFront();
    taken += in_front ? 1 : 0;
  }
  EXPECT_EQ(taken, 2);
  EXPECT_EQ(CheckFront(cache.get()), 8u);
}

TEST(CacheFront, WhoHadToAskTheIndexTakesAPlaceThatIsFree) {
  const QuietCache cache(kSmall);
  ASSERT_TRUE(cache.Store("key", "value"));
  const FPrint key = Fingerprint(Bytes("key"), 3);
  for (int round = 0; round < 10; round++) {
    *const_cast<ULong*>(qxcache::FrontFind(cache.get(), key).place) = 0;
    EXPECT_EQ(cache.Fetch("key"), "value");
    EXPECT_EQ(FetchWithoutIndex(cache, "key"), "value");
  }
}

TEST(CacheFront, AStrangerWithTheSameBitsIsNotTakenForTheKey) {
  const QuietCache cache(kSmall);
  // Alike in the bits that choose the bucket and in those that the word holds.
  const std::string one = "=abcd000001000000", other = "=abcd000002000000", absent = "=abcd000003000000";
  ASSERT_TRUE(cache.Store(one, "1"));
  EXPECT_EQ(cache.Fetch(other), "(none)");
  ASSERT_TRUE(cache.Store(other, "2"));
  for (int round = 0; round < 2; round++) {
    EXPECT_EQ(cache.Fetch(one), "1");
    EXPECT_EQ(cache.Fetch(other), "2");
    EXPECT_EQ(cache.Fetch(absent), "(none)");
  }
  EXPECT_TRUE(QXCacheRemove(cache.get(), Bytes(other)));
  EXPECT_FALSE(QXCacheRemove(cache.get(), Bytes(other)));
  EXPECT_EQ(cache.Fetch(one), "1");
  EXPECT_EQ(cache.Fetch(other), "(none)");
  EXPECT_EQ(CheckFront(cache.get()), 1u);
}

TEST(CacheFront, FingerprintsOfAllZerosAndAllOnesAreFound) {
  const QuietCache cache(kSmall);
  const std::string zeros = "=0000000000000000", ones = "=ffffffffffffffff";
  EXPECT_EQ(cache.Fetch(zeros), "(none)");
  EXPECT_EQ(cache.Fetch(ones), "(none)");
  ASSERT_TRUE(cache.Store(zeros, "0"));
  ASSERT_TRUE(cache.Store(ones, "1"));
  EXPECT_EQ(cache.Fetch(zeros), "0");
  EXPECT_EQ(cache.Fetch(ones), "1");
}

// More than are taken out of the index at once, the least and the greatest fingerprint among them.
TEST(CacheFront, EveryBlockOfAPageIsDropped) {
  const QuietCache cache({.region_size = 16, .page_size = 16384});
  ASSERT_TRUE(cache.Store("=0000000000000000", "0"));
  for (int i = 0; i < 1500; i++) ASSERT_TRUE(cache.Store(Numbered("key", i), "value"));
  ASSERT_TRUE(cache.Store("=ffffffffffffffff", "1"));
  EXPECT_EQ(QXAVLLDictSize(cache->c_dict), 1502u);
  for (UInt i = 0; i < cache.PageCount(); i++) qxcache::PageFreeBlocks(cache.get(), cache.PageAt(i));
  EXPECT_EQ(QXAVLLDictSize(cache->c_dict), 0u);
  EXPECT_EQ(CheckFront(cache.get()), 0u);
  EXPECT_EQ(cache->c_nb_objects, 0u);
  EXPECT_EQ(cache->c_total_size, 0u);
  QXCacheStatistics statistics;
  QXCacheStats(cache.get(), &statistics);
  EXPECT_EQ(statistics.s_dropped, 1502u);
}

TEST(CacheFront, GrowsWithTheIndexAndFindsEverythingAllTheWhile) {
  const QuietCache cache({.region_size = 64, .page_size = 4096});
  std::set<ULong> sizes;
  for (int i = 0; i < 2500; i++) {
    const std::string key = Numbered("key", i);
    ASSERT_TRUE(cache.Store(key, Numbered("value", i)));
    sizes.insert(cache->c_extra->front_buckets);
    EXPECT_EQ(cache.Fetch(key), Numbered("value", i));
    if (i % 100 == 0) CheckFront(cache.get());
    const int earlier = i * 7 / 11;
    ASSERT_EQ(cache.Fetch(Numbered("key", earlier)), Numbered("value", earlier));
  }
  EXPECT_EQ(sizes, (std::set<ULong>{2, 18, 34, 50, 66, 82, 98, 114, 130, 146, 162, 178, 194, 210, 226, 242, 256}));
  EXPECT_LE(CheckFront(cache.get()), 2048u);
  EXPECT_GT(CheckFront(cache.get()), 1900u);
}

// 64 buckets are all that there are; a table that is full of words goes on with them.
TEST(CacheFront, StaysAtItsLargestSizeWhenThatIsFull) {
  const QuietCache cache(kSmall);
  for (int i = 0; i < 500; i++) ASSERT_TRUE(cache.Store(Numbered("key", i), "v"));
  EXPECT_EQ(cache->c_extra->front_buckets, 64u);
  EXPECT_LE(CheckFront(cache.get()), 512u);
  for (int i = 0; i < 500; i++) ASSERT_EQ(cache.Fetch(Numbered("key", i)), "v");
}

TEST(CacheFront, GrowsWhenTwoBucketsHaveMoreThanFiveKeysAndLosesNoWord) {
  const QuietCache cache(kSmall);
  for (int i = 0; i < 5; i++) ASSERT_TRUE(cache.Store(Numbered("key", i), Numbered("value", i)));
  EXPECT_EQ(cache->c_extra->front_buckets, 2u);
  EXPECT_EQ(CheckFront(cache.get()), 5u);
  ASSERT_TRUE(cache.Store("one more", ""));
  EXPECT_EQ(cache->c_extra->front_buckets, 18u);
  EXPECT_EQ(CheckFront(cache.get()), 6u);
  for (int i = 0; i < 5; i++) EXPECT_EQ(FetchWithoutIndex(cache, Numbered("key", i)), Numbered("value", i));
}

TEST(CacheFront, AWordThatMovesToANewBucketBetweenTheTwoLooksSendsTheFetchBack) {
  const QuietCache cache(kSmall);
  const std::string last = "=0000000000000011";  // of the last of 18 buckets, of the second of two
  ASSERT_TRUE(cache.Store(last, "value"));
  const qxcache::Entry entry = qxcache::FrontFind(cache.get(), 0x11);
  EXPECT_EQ(entry.place, cache->c_extra->front + 8);
  EXPECT_EQ(entry.address, cache.Indexed(last));
  EXPECT_TRUE(qxcache::StillNames(cache.get(), 0x11, entry));
  for (int i = 0; i < 5; i++) ASSERT_TRUE(cache.Store(Numbered("key", i), ""));
  EXPECT_EQ(cache->c_extra->front_buckets, 18u);
  EXPECT_FALSE(qxcache::StillNames(cache.get(), 0x11, entry));
  EXPECT_EQ(qxcache::FrontFind(cache.get(), 0x11).place, cache->c_extra->front + size_t{17} * 8);
  EXPECT_EQ(FetchWithoutIndex(cache, last), "value");
}

TEST(CacheFront, AWordThatChangesBetweenTheTwoLooksSendsTheFetchBack) {
  const QuietCache cache(kSmall);
  ASSERT_TRUE(cache.Store("key", "value"));
  const FPrint key = Fingerprint(Bytes("key"), 3);
  const qxcache::Entry entry = qxcache::FrontFind(cache.get(), key);
  ASSERT_TRUE(cache.Store("key", "newer"));
  EXPECT_FALSE(qxcache::StillNames(cache.get(), key, entry));
  EXPECT_EQ(qxcache::FrontFind(cache.get(), key).address, cache.Indexed("key"));
}

TEST(CacheIndex, AnEntryIsGoodAsLongAsNoOtherChangedOrItStillNamesTheBlock) {
  const QuietCache cache(kSmall);
  ASSERT_TRUE(cache.Store("key", "value"));
  const FPrint key = Fingerprint(Bytes("key"), 3);
  const qxcache::Entry entry = qxcache::IndexFind(cache.get(), key);
  EXPECT_FALSE(entry.FromFront());
  EXPECT_EQ(entry.address, cache.Indexed("key"));
  EXPECT_TRUE(qxcache::StillNames(cache.get(), key, entry));
  ASSERT_TRUE(cache.Store("other", "1"));
  EXPECT_EQ(qxcache::IndexFind(cache.get(), key).changes, entry.changes);  // a new entry changes none
  ASSERT_TRUE(cache.Store("other", "2"));
  EXPECT_NE(qxcache::IndexFind(cache.get(), key).changes, entry.changes);
  EXPECT_TRUE(qxcache::StillNames(cache.get(), key, entry));
  ASSERT_TRUE(cache.Store("key", "newer"));
  EXPECT_FALSE(qxcache::StillNames(cache.get(), key, entry));
  qxcache::IndexRemove(cache.get(), key);
  EXPECT_EQ(qxcache::IndexFind(cache.get(), key).address, 0u);
  EXPECT_FALSE(qxcache::StillNames(cache.get(), key, entry));
}

TEST(CacheIndex, OnlyTheEntryThatNamesABlockIsTaken) {
  const QuietCache cache(kSmall);
  ASSERT_TRUE(cache.Store("key", "older"));
  const CacheBlock* const older = cache.Block("key");
  ASSERT_TRUE(cache.Store("key", "newer"));
  const CacheBlock* const newer = cache.Block("key");
  EXPECT_FALSE(qxcache::IndexTake(cache.get(), older));
  EXPECT_EQ(cache.Block("key"), newer);
  EXPECT_TRUE(qxcache::IndexTake(cache.get(), newer));
  EXPECT_EQ(cache.Indexed("key"), 0u);
  EXPECT_FALSE(qxcache::IndexTake(cache.get(), newer));
}

TEST(CacheIndex, EveryAddressLeadsToItsPage) {
  for (const UInt page_size : {152u, 1024u, 1376u, 4096u, 65544u}) {
    const QuietCache cache({.region_size = 5, .page_size = page_size, .regions = 6});
    for (UInt i = 0; i < cache.PageCount(); i++) {
      Page* const page = cache.PageAt(i);
      const ULong start = reinterpret_cast<ULong>(page);
      for (const ULong offset : {ULong{88}, ULong{96}, ULong{page_size} - 8}) {
        EXPECT_EQ(qxcache::PageOf(cache.get(), start + offset), page) << page_size;
      }
    }
  }
}

}  // namespace
