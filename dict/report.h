// How the modules of this library fail: assertions, messages, recorded errors and the clear end.
//
// Each module names itself in a constant kModule ("dict/hashtable") that these macros pick up where they are used; code
// that is shared between modules names the caller's module and function in its traits and uses the ..._IN forms.

#ifndef DICT_REPORT_H
#define DICT_REPORT_H

// Assertions are behaviour in every build: <assert.h> declares its failure function only without NDEBUG.
#undef NDEBUG
#include <assert.h>

#include <cstdlib>

#include "qxlib/message.h"

namespace qx {

constexpr const char* kMessageModule = "qxdict";
constexpr int kProgress = 2;
constexpr int kFailure = 4;

}  // namespace qx

// Fails with exactly `text`, in the C library's form: program: module:line: function: Assertion `text' failed.
#define QX_ASSERT_IN(module, function, condition, text) \
  ((condition) ? static_cast<void>(0) : __assert_fail(text, module, __LINE__, function))
#define QX_ASSERT_TEXT(condition, text) QX_ASSERT_IN(kModule, __func__, condition, text)
#define QX_ASSERT(condition) QX_ASSERT_TEXT(condition, #condition)

// Reports a message at a level; `flag` asks for the system error text behind it.
#define QX_MESSAGE_IN(module, function, level, flag, ...) \
  (QXSetMessageContext2_(module, __LINE__, qx::kMessageModule, function, level, flag), QXMessage_(__VA_ARGS__))
#define QX_MESSAGE(level, flag, ...) QX_MESSAGE_IN(kModule, __func__, level, flag, __VA_ARGS__)

// Records a failure of a named file, with errno, as the calling thread's current error.
#define QX_RETHROW_IN(module, function, format, path)                                          \
  (QXSetMessageContext2_(module, __LINE__, qx::kMessageModule, function, qx::kFailure, FALSE), \
   QXErrorRethrow_(format, path))
#define QX_RETHROW(format, path) QX_RETHROW_IN(kModule, __func__, format, path)

// Where going on would corrupt memory and there is no result to return: a message, then the end of the process.
#define QX_DIE_IN(module, function, ...) \
  (QX_MESSAGE_IN(module, function, qx::kFailure, FALSE, __VA_ARGS__), std::abort())
#define QX_DIE(...) QX_DIE_IN(kModule, __func__, __VA_ARGS__)

#endif
