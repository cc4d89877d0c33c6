// The integer maps: int_map.h over slots of 32 and of 64 bits.
//
//   IdMapEntry   [ e_key 4 | e_val 4 ]
//   RefMapEntry  [ e_key 8 | e_val 8 ]

#include "dict/idmap.h"

#include "dict/int_map.h"

namespace {

constexpr const char* kModuleName = "dict/idmap";

// The texts of the key assertions show the markers as the C library's constants expand.
struct IdTraits {
  using Map = IdMap;
  using Entry = IdMapEntry;
  using Key = Id;
  static constexpr Key kNone = IDMAP_NONE;
  static constexpr const char* kModule = kModuleName;
  static constexpr const char* kDeleteName = "IdMapDelete";
  static constexpr const char* kClearName = "IdMapClear";
  static constexpr const char* kSizeName = "IdMapSize";
  static constexpr const char* kGetName = "IdMapGet";
  static constexpr const char* kFindName = "IdMapFind";
  static constexpr const char* kGrowName = "IdMapGrow";
  static constexpr const char* kFindManyName = "IdMapFindMany";
  static constexpr const char* kFindText = "map != ((void *)0) && key != (((UInt) (2147483647 * 2U + 1U)) - 1)";
};

struct RefTraits {
  using Map = RefMap;
  using Entry = RefMapEntry;
  using Key = ULong;
  static constexpr Key kNone = REFMAP_NONE;
  static constexpr const char* kModule = kModuleName;
  static constexpr const char* kDeleteName = "RefMapDelete";
  static constexpr const char* kClearName = "RefMapClear";
  static constexpr const char* kSizeName = "RefMapSize";
  static constexpr const char* kGetName = "RefMapGet";
  static constexpr const char* kFindName = "RefMapFind";
  static constexpr const char* kGrowName = "RefMapGrow";
  static constexpr const char* kFindManyName = "RefMapFindMany";
  static constexpr const char* kFindText = "map != ((void *)0) && key != ((ULong) (9223372036854775807L * 2UL + 1UL))";
};

// Callers and tools read these.
static_assert(sizeof(IdMapEntry) == 8 && offsetof(IdMapEntry, e_val) == 4);
static_assert(sizeof(RefMapEntry) == 16 && offsetof(RefMapEntry, e_val) == 8);
static_assert(offsetof(IdMap, m_capacity) == 0 && offsetof(RefMap, m_capacity) == 0);
static_assert(offsetof(IdMap, m_allocated) == 4 && offsetof(RefMap, m_allocated) == 4);
static_assert(offsetof(IdMap, m_entries) == 8 && offsetof(RefMap, m_entries) == 8);
static_assert(offsetof(IdMap, m_used) == 16 && offsetof(RefMap, m_used) == 16);

}  // namespace

IdMap* IdMapNew(void) { return int_map::New<IdTraits>(); }

void IdMapDelete(IdMap* map) { int_map::Delete<IdTraits>(map); }

void IdMapClear(IdMap* map) { int_map::Clear<IdTraits>(map); }

UInt IdMapSize(IdMap* map) { return int_map::Size<IdTraits>(map); }

void IdMapGet(IdMap* map, UInt n, Id* key, Id* val) { int_map::Get<IdTraits>(map, n, key, val); }

Id IdMapFind(IdMap* map, Id key, Id create, Id update, Boolean* added) {
  return int_map::Find<IdTraits>(map, key, create, update, added);
}

void IdMapGrow(IdMap* map, UInt capacity) { int_map::Grow<IdTraits>(map, capacity); }

RefMap* RefMapNew(void) { return int_map::New<RefTraits>(); }

void RefMapDelete(RefMap* map) { int_map::Delete<RefTraits>(map); }

void RefMapClear(RefMap* map) { int_map::Clear<RefTraits>(map); }

UInt RefMapSize(RefMap* map) { return int_map::Size<RefTraits>(map); }

void RefMapGet(RefMap* map, UInt n, ULong* key, ULong* val) { int_map::Get<RefTraits>(map, n, key, val); }

ULong RefMapFind(RefMap* map, ULong key, ULong create, ULong update, Boolean* added) {
  return int_map::Find<RefTraits>(map, key, create, update, added);
}

void RefMapGrow(RefMap* map, UInt capacity) { int_map::Grow<RefTraits>(map, capacity); }

void IdMapFindMany(const IdMap* map, const Id* keys, size_t count, Id* values) {
  int_map::FindMany<IdTraits>(map, keys, count, values);
}

void RefMapFindMany(const RefMap* map, const ULong* keys, size_t count, ULong* values) {
  int_map::FindMany<RefTraits>(map, keys, count, values);
}
