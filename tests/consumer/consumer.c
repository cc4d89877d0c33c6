/* Uses both libraries from C. */

#include <stdio.h>
#include <string.h>

#include "dict/hashtable.h"
#include "dict/idmap.h"
#include "dict/version.h"
#include "qxlib/misc.h"

int main(void) {
  IdMap* map = IdMapNew();
  Boolean added = FALSE;
  HashTable* table = HashTableNew(10, NULL, NULL, NULL, 8, 0, FALSE);
  UByte* entry = HashTableFind(table, (const UByte*)"key", 3, TRUE, NULL, NULL);
  memcpy(entry, "a value", 8);
  IdMapFind(map, 7, 49, IDMAP_NONE, &added);
  printf("C %s %s %u %u\n", QXDictVersion(),
         (const char*)HashTableFind(table, (const UByte*)"key", 3, FALSE, NULL, NULL),
         IdMapFind(map, 7, IDMAP_NONE, IDMAP_NONE, &added), Prime(8));
  IdMapDelete(map);
  HashTableFree(table);
  return 0;
}
