/**
 * @file
 * The whole base library in one include.
 */
#ifndef QXLIB_MISC_H
#define QXLIB_MISC_H

#include "qxlib/array.h"
#include "qxlib/channel.h"
#include "qxlib/filemap.h"
#include "qxlib/fingerprint.h"
#include "qxlib/memory.h"
#include "qxlib/message.h"
#include "qxlib/prime.h"
#include "qxlib/sort.h"
#include "qxlib/thread.h"
#include "qxlib/types.h"

#endif
