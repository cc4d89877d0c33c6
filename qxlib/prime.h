/**
 * @file
 * Primes, for the sizes of hash tables.
 */
#ifndef QXLIB_PRIME_H
#define QXLIB_PRIME_H

#include "qxlib/types.h"

QX_BEGIN_DECLS

/** The smallest prime not below n; above 4294967291, the greatest of 32 bits, the process ends with a message. */
QX_API UInt Prime(UInt n);

QX_END_DECLS

#endif
