/**
 * @file
 * Fingerprints of byte strings.
 */
#ifndef QXLIB_FINGERPRINT_H
#define QXLIB_FINGERPRINT_H

#include "qxlib/types.h"

QX_BEGIN_DECLS

/** A well-mixed 64-bit fingerprint, the same for the same bytes in every run and on every machine. */
QX_API FPrint Fingerprint(const UByte* bytes, UInt length);

QX_END_DECLS

#endif
