// The age histogram: how many objects were last used in which generation. From it the collector takes how old is old.
//
//   c_age_histogram   [ 0 | 1 | 2 | ... | 99 ]     objects by generations between their last use and the reference time
//   c_histo_updated   the reference time; later times count as bucket 0, more than 100 generations back as none
//
// Deliberate: the reference time stays the cache's creation, so every store and fetch counts in bucket 0, and every
// shift moves the counts by all the time since then. After 100 generations each one empties the histogram, and the
// collector's limit is then 100 generations back.
//
// QX_CACHE_TRUE_AGE makes ages of these counts: the reference time is the end of the present generation, and moves on
// with the shifts. Generations begin at whole multiples of their length after the creation, so two times belong to the
// same one whatever the reference time is.

#include "dict/qxcache_internal.h"
#include "dict/report.h"

#include <algorithm>
#include <cstring>

namespace qxcache {
namespace {

// n * percent / 100, truncated, whatever the percentage is.
ULong Share(UInt n, double percent) {
  const double share = n * percent / 100.0;
  if (!(share > 0.0)) return 0;  // a negative share is as good as none; so is no number
  constexpr double kTooMuch = 18446744073709551616.0;
  return share < kTooMuch ? static_cast<ULong>(share) : ULONG_MAX;
}

// Moves every count up. Caller holds c_histo_mutex.
void Shift(Cache* cache, ULong generations) {
  const size_t shift = std::min<size_t>(generations, QX_CACHE_BUCKETS);
  UInt* const buckets = cache->c_age_histogram;
  std::memmove(buckets + shift, buckets, (QX_CACHE_BUCKETS - shift) * sizeof *buckets);
  std::fill_n(buckets, shift, 0);
}

// Under QX_CACHE_TRUE_AGE: moves the reference time on to the end of the generation that `now` lies in, and the counts
// with it. A clock that was set back takes it back; the counts stay, and what was used in that clock's future counts as
// used now. Caller holds c_histo_mutex.
void Advance(Cache* cache, ULong now) {
  if (!HasPolicy(cache, QX_CACHE_TRUE_AGE)) return;
  CheckHeld(&cache->c_histo_mutex);
  const ULong base = cache->c_histo_updated;
  const ULong generation = cache->c_generation_time;
  if (now <= base) {
    cache->c_histo_updated = base - (base - now) / generation * generation;
    return;
  }
  const ULong passed = (now - base - 1) / generation + 1;
  Shift(cache, passed);
  cache->c_histo_updated = base + passed * generation;
}

// Whether a store at `now` is to have the histogram aged by the collector: once a generation has passed, and then not
// for every store, each of which would change the counts, but as often as can be seen. Under QX_CACHE_TRUE_AGE stores
// age it themselves. Caller holds c_histo_mutex.
bool AgeingIsDue(Cache* cache, ULong now) {
  CheckHeld(&cache->c_histo_mutex);
  CacheExtra* const extra = cache->c_extra;
  if (now < extra->ageing_due) return false;
  extra->ageing_due = now + kAgeingPause;
  return !HasPolicy(cache, QX_CACHE_TRUE_AGE);
}

// Whether two times, both after the creation, lie in one generation.
bool OfOneGeneration(const Cache* cache, ULong a, ULong b) {
  const ULong born = cache->c_extra->born;
  if (a <= born || b <= born) return false;
  return (a - born - 1) / cache->c_generation_time == (b - born - 1) / cache->c_generation_time;
}

// Caller holds c_histo_mutex.
void TakeFromBucket(Cache* cache, int bucket) {
  if (bucket >= 0 && cache->c_age_histogram[bucket] > 0) cache->c_age_histogram[bucket]--;
}

// Caller holds c_histo_mutex.
void AddToBucket(Cache* cache, int bucket) {
  if (bucket >= 0) cache->c_age_histogram[bucket]++;
}

}  // namespace

int GetHistogramIndex(const Cache* cache, ULong time) {
  const ULong base = cache->c_histo_updated;
  if (time > base) return 0;
  // 64 bits hold any age; a time before the first bucket's end but exactly 100 generations back has no bucket either.
  const ULong age = (base - time) / cache->c_generation_time;
  return age < QX_CACHE_BUCKETS ? static_cast<int>(age) : -1;
}

void MoveInHistogram(Cache* cache, ULong old_time, ULong new_time) {
  if (HasPolicy(cache, QX_CACHE_TRUE_AGE)) {
    if (OfOneGeneration(cache, old_time, new_time)) return;
  } else if (GetHistogramIndex(cache, old_time) == GetHistogramIndex(cache, new_time)) {
    return;
  }
  const Lock histogram(&cache->c_histo_mutex, LockRank::kHistogram);
  Advance(cache, new_time);
  TakeFromBucket(cache, GetHistogramIndex(cache, old_time));
  AddToBucket(cache, GetHistogramIndex(cache, new_time));
}

bool CountIn(Cache* cache, ULong now, size_t size) {
  const Lock histogram(&cache->c_histo_mutex, LockRank::kHistogram);
  Advance(cache, now);
  AddToBucket(cache, GetHistogramIndex(cache, now));
  cache->c_nb_objects++;
  cache->c_total_size += size;
  return AgeingIsDue(cache, now);
}

void CountOut(Cache* cache, Blocks blocks, const char* function) {
  const Lock histogram(&cache->c_histo_mutex, LockRank::kHistogram);
  for (const CacheBlock* block : blocks) {
    TakeFromBucket(cache, GetHistogramIndex(cache, block->b_accessed));
    QX_ASSERT_IN(kModule, function, cache->c_nb_objects > 0 && cache->c_total_size >= block->b_size,
                 "cache->c_nb_objects > 0 && cache->c_total_size >= block->b_size");
    cache->c_nb_objects -= 1;
    cache->c_total_size -= block->b_size;
  }
}

void ShiftHistogram(Cache* cache) {
  const ULong now = GetCurrentTimeMilliseconds();
  if (HasPolicy(cache, QX_CACHE_TRUE_AGE)) {
    const Lock histogram(&cache->c_histo_mutex, LockRank::kHistogram);
    Advance(cache, now);
    return;
  }
  const ULong base = cache->c_histo_updated;
  // A generation has passed when the next one's first millisecond has, so a whole number of them is not yet that many.
  const ULong passed = now > base ? (now - base - 1) / cache->c_generation_time : 0;
  if (passed == 0) return;
  const Lock histogram(&cache->c_histo_mutex, LockRank::kHistogram);
  Shift(cache, passed);
}

ULong GCGetMinTime(Cache* cache) {
  ULong time = GetCurrentTimeMilliseconds();
  const Lock histogram(&cache->c_histo_mutex, LockRank::kHistogram);
  Advance(cache, time);
  // Under QX_CACHE_TRUE_AGE the buckets end where the present generation does, and the limit falls between two of them.
  if (HasPolicy(cache, QX_CACHE_TRUE_AGE)) time = cache->c_histo_updated;
  UInt n = cache->c_nb_objects;
  const ULong target = Share(n, cache->c_gc_high_threshold);
  for (const UInt bucket : cache->c_age_histogram) {
    if (n < bucket) break;
    n -= bucket;
    if (target > n) break;
    time -= std::min<ULong>(time, cache->c_generation_time);  // a clock that has just begun has no time before 0
  }
  return time;
}

}  // namespace qxcache
