// The version of the library, as its own header told it when it was compiled.

#include "dict/version.h"

const char* QXDictVersion(void) { return QXDICT_VERSION_STRING; }
