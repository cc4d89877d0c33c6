// The clear end: what the base library does when there is no result that a caller could be given.

#ifndef QXLIB_FATAL_INTERNAL_H
#define QXLIB_FATAL_INTERNAL_H

#include "qxlib/types.h"

namespace qxlib {

// Reports a failure through the message machinery, from module "qxlib" in the given context, and aborts. `flag` asks
// for the system error text of errno. Needs no memory, and ends even when the message handler itself ends up here.
[[noreturn]] void Fatal(const char* file, int line, const char* function, Boolean flag, const char* format, ...)
    QX_PRINTF(5, 6);

}  // namespace qxlib

#endif
