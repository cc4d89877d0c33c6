// Random operations on a cache and on its model, and after each of them a check of everything that must hold in a
// cache.

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "dict/qxcache.h"
#include "dict/qxcache_internal.h"
#include "support/cache_front.h"
#include "support/cache_model.h"

namespace {

using support::CacheModel;
using support::CacheParameters;
using support::kNever;
using support::Numbered;

struct Step {
  int kind, key, size, time;
};

std::ostream& operator<<(std::ostream& out, const Step& s) {
  return out << "{" << s.kind << ", " << s.key << ", " << s.size << ", " << s.time << "}";
}

// 0 to 5: a store.
constexpr int kFetch = 6;  // up to 9
constexpr int kWait = 10;
constexpr int kCollect = 11;
constexpr int kAge = 12;
constexpr int kFill = 13;
constexpr int kRemove = 14;

rc::Gen<std::vector<Step>> Steps() {
  return rc::gen::container<std::vector<Step>>(rc::gen::construct<Step>(
      rc::gen::inRange(0, 15), rc::gen::inRange(0, 12), rc::gen::inRange(0, 900), rc::gen::inRange(0, 400)));
}

// Pages held by nobody: those that emergencies have lost.
size_t RunSteps(const CacheParameters& parameters, const std::vector<Step>& steps, bool removals) {
  CacheModel model(parameters);
  qxcache::Collector collector;
  size_t lost = 0;
  for (const Step& step : steps) {
    const std::string key = Numbered("key", step.key);
    switch (step.kind) {
      default:
        model.Store(key, static_cast<size_t>(step.size), step.time < 300 ? static_cast<ULong>(step.time) : kNever);
        break;
      case kFetch:
      case kFetch + 1:
      case kFetch + 2:
      case kFetch + 3:
        model.Fetch(key);
        break;
      case kWait:
        model.Wait(static_cast<ULong>(step.time));
        break;
      case kCollect:
        qxcache::GCCollect(model.cache(), &collector);
        model.Collected();
        break;
      case kAge:
        qxcache::ShiftHistogram(model.cache());
        break;
      case kFill:
        for (int i = 0; i < 5; i++) model.Store(key, 800, static_cast<ULong>(step.time));
        break;
      case kRemove:
        if (removals) model.Remove(key);
        break;
    }
    lost = support::CheckCache(model.cache());
    support::CheckFront(model.cache());
  }
  return lost;
}

TEST(CacheModel, RandomOperations) {
  EXPECT_TRUE(rc::check("a cache answers as its model allows", [] {
    const CacheParameters parameters = {.region_size = static_cast<UInt>(*rc::gen::inRange(6, 14)),
                                        .page_size = 1024,
                                        .low = static_cast<double>(*rc::gen::inRange(0, 101)),
                                        .high = static_cast<double>(*rc::gen::inRange(0, 101)),
                                        .generation = static_cast<UInt>(*rc::gen::inRange(1, 50)),
                                        .policy = static_cast<UInt>(*rc::gen::inRange(0, 8))};
    const bool removals = *rc::gen::inRange(0, 2) != 0;
    const std::vector<Step> steps = *rc::gen::scale(10.0, Steps());
    // What fails in one case must not count in the next, or no failing case could be made smaller.
    testing::TestPartResultArray failures;
    size_t lost;
    {
      testing::ScopedFakeTestPartResultReporter reporter(
          testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
      lost = RunSteps(parameters, steps, removals);
    }
    RC_TAG(lost > 0 ? "pages lost" : "no page lost");
    RC_ASSERT(lost == 0 || (parameters.policy & QX_CACHE_KEEP_PAGES) == 0);
    if (failures.size() > 0) RC_FAIL(failures.GetTestPartResult(0).message());
  }));
}

// The histogram counts what was used in no bucket twice: as long as nothing is shifted, its sum is the number of
// objects.
TEST(CacheModel, TheHistogramCountsEveryObjectOnce) {
  EXPECT_TRUE(rc::check("buckets add up to the objects", [] {
    CacheModel model({.region_size = 10, .page_size = 1024, .generation = 10});
    qxcache::Collector collector;
    for (const Step& step : *Steps()) {
      const std::string key = Numbered("key", step.key);
      if (step.kind <= 5) model.Store(key, static_cast<size_t>(step.size), static_cast<ULong>(step.time));
      if (step.kind >= kFetch && step.kind < kWait) model.Fetch(key);
      if (step.kind == kCollect) {
        qxcache::GCCollect(model.cache(), &collector);
        model.Collected();
      }
      UInt sum = 0;
      for (const UInt bucket : model.cache()->c_age_histogram) sum += bucket;
      RC_ASSERT(sum == model.cache()->c_nb_objects);
    }
  }));
}

// With true ages they do so while the histogram moves on with the time, as long as nothing is idle for a hundred
// generations, and each bucket counts exactly the objects of its age.
TEST(CacheModel, TrueAgesAreAges) {
  EXPECT_TRUE(rc::check("buckets are ages", [] {
    const ULong generation = *rc::gen::inRange<ULong>(1, 50);
    CacheModel model({.region_size = 10,
                      .page_size = 1024,
                      .generation = static_cast<UInt>(generation),
                      .policy = QX_CACHE_TRUE_AGE});
    Cache* const cache = model.cache();
    const ULong born = cache->c_histo_updated;
    qxcache::Collector collector;
    for (const Step& step : *Steps()) {
      const std::string key = Numbered("key", step.key);
      if (step.kind <= 5) model.Store(key, static_cast<size_t>(step.size), kNever);
      if (step.kind >= kFetch && step.kind < kWait) model.Fetch(key);
      if (step.kind == kWait) model.Wait(static_cast<ULong>(step.time) * generation / 100);
      if (step.kind == kAge) qxcache::ShiftHistogram(cache);
      if (step.kind == kRemove) model.Remove(key);
      if (step.kind == kCollect) {
        qxcache::GCCollect(cache, &collector);
        model.Collected();
      }
      std::vector<UInt> ages(QX_CACHE_BUCKETS);
      for (UInt i = 0; i < 10; i++) {
        const size_t offset = size_t{i} * 1024;
        Page* const page = reinterpret_cast<Page*>(static_cast<char*>(cache->c_regions.t.elts[0].r_base) + offset);
        for (const CacheBlock* block : support::BlocksOf(page)) {
          if (support::IsDead(block)) continue;
          // Generation 0 ends with the creation; n begins a millisecond after n - 1 has ended.
          const ULong of_block = (block->b_accessed - born + generation - 1) / generation;
          const ULong of_histogram = (cache->c_histo_updated - born) / generation;
          const ULong age = of_histogram > of_block ? of_histogram - of_block : 0;
          if (age < QX_CACHE_BUCKETS) ages[age]++;
        }
      }
      RC_ASSERT(std::equal(ages.begin(), ages.end(), cache->c_age_histogram));
    }
  }));
}

}  // namespace
