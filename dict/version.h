/**
 * @file
 * Which version of the library this is: of the headers, when compiling, and of the library, when running.
 *
 *     printf("built with %s, runs with %s\n", QXDICT_VERSION_STRING, QXDictVersion());
 *
 * Everything here is an addition since the first interface of 1.0.
 *
 * Numbers rise as usual: a new major number may break callers and comes with a new soname, a new minor number adds, a
 * new patch number mends. A program that was built with one version runs with every later one of the same major number.
 */
#ifndef DICT_VERSION_H
#define DICT_VERSION_H

#include "qxlib/types.h"

QX_BEGIN_DECLS

#define QXDICT_VERSION_MAJOR 1
#define QXDICT_VERSION_MINOR 0
#define QXDICT_VERSION_PATCH 0

/** The three numbers as text: "1.0.0". */
#define QXDICT_VERSION_STRING "1.0.0"

/** The three numbers in one, for comparisons in the preprocessor: 1.2.3 is 10203. */
#define QXDICT_VERSION_NUMBER (QXDICT_VERSION_MAJOR * 10000 + QXDICT_VERSION_MINOR * 100 + QXDICT_VERSION_PATCH)

/**
 * The version of the library that the program runs with, as `QXDICT_VERSION_STRING` writes it.
 *
 * @return a zero-terminated text that lives as long as the library is loaded
 */
QX_API const char* QXDictVersion(void);

QX_END_DECLS

#endif
