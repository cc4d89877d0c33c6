// Messages, the calling thread's current error, assertions.
//
// Everything but the message handler is kept per thread:
//
//   context    where the next message comes from
//   current    the thread's current error: text and errno
//   saved      a stack of current errors, kDeepest high, for clean-ups within clean-ups
//
// Reporting must work when memory has run out: a text that does not fit its built-in buffer is allocated, and when that
// fails it is cut and ends in "..." so that nobody takes it for the whole.

#include "qxlib/message.h"

// Assertions are behaviour in every build: <assert.h> declares its failure function only without NDEBUG.
#undef NDEBUG
#include <assert.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <type_traits>
#include <utility>

#include "qxlib/fatal_internal.h"
#include "util/errno_internal.h"

namespace {

constexpr int kFailure = 4;
constexpr int kDeepest = 8;
constexpr const char* kCutMark = "...";

// A string that never fails: what cannot be held is cut and marked. Trivially destructible, so that a thread's state
// can be used while its other objects are destroyed; whoever holds one clears it.
class Text {
 public:
  const char* c_str() const { return heap_ != nullptr ? heap_ : small_; }

  void Clear() {
    free(heap_);
    heap_ = nullptr;
    small_[0] = '\0';
  }

  // Takes the other text over, and leaves it empty.
  void Take(Text* other) {
    free(heap_);
    heap_ = std::exchange(other->heap_, nullptr);
    memcpy(small_, other->small_, sizeof(small_));
    other->small_[0] = '\0';
  }

  // Replaces the text. An argument may not point into this very text.
  QX_PRINTF(2, 0) void Format(const char* format, va_list args) {
    Clear();
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(small_, sizeof(small_), format, args);
    if (length < 0) {
      Assign(format);  // arguments that cannot be printed: better than nothing
    } else if (static_cast<size_t>(length) >= sizeof(small_)) {
      heap_ = static_cast<char*>(malloc(static_cast<size_t>(length) + 1));
      if (heap_ != nullptr) {
        vsnprintf(heap_, static_cast<size_t>(length) + 1, format, again);
      } else {
        Mark();
      }
    }
    va_end(again);
  }

  void Assign(const char* text) {
    Clear();
    Append(text);
  }

  void Append(const char* more) {
    const size_t length = strlen(c_str());
    const size_t added = strlen(more);
    if (heap_ == nullptr && length + added < sizeof(small_)) {
      memcpy(small_ + length, more, added + 1);
      return;
    }
    char* block = static_cast<char*>(realloc(heap_, length + added + 1));
    if (block != nullptr) {
      if (heap_ == nullptr) memcpy(block, small_, length);
      memcpy(block + length, more, added + 1);
      heap_ = block;
    } else if (heap_ != nullptr) {
      memcpy(heap_ + length - strlen(kCutMark), kCutMark, strlen(kCutMark));  // longer than small_, so than the mark
    } else {
      memcpy(small_ + length, more, sizeof(small_) - 1 - length);
      Mark();
    }
  }

  // A line is a line: control characters become question marks.
  void FlattenControls() {
    for (char* c = heap_ != nullptr ? heap_ : small_; *c != '\0'; c++) {
      if (static_cast<unsigned char>(*c) < ' ' || *c == '\x7f') *c = '?';
    }
  }

 private:
  void Mark() { memcpy(small_ + sizeof(small_) - 1 - strlen(kCutMark), kCutMark, strlen(kCutMark) + 1); }

  char small_[256] = "";
  char* heap_ = nullptr;  // the text, when small_ cannot hold it
};

struct Error {
  Text text;
  int code = 0;
};

struct SavedError {
  Error error;
  int system_error = 0;
};

struct ThreadState {
  QXMessageContext context = {"", 0, "", "", kFailure, FALSE};
  Error current;
  SavedError saved[kDeepest];
  int depth = 0;
  bool ending = false;
};
static_assert(std::is_trivially_destructible_v<ThreadState>);

thread_local constinit ThreadState state;

// Frees the texts of a thread that ends. What is recorded still later, by objects destroyed after this one, is kept.
struct ThreadEnd {
  ~ThreadEnd() {
    state.current.text.Clear();
    for (SavedError& saved : state.saved) saved.error.text.Clear();
  }
  void Arm() const {}
};

thread_local constinit ThreadEnd thread_end;

// The handler and its argument change together: both are read and written under the lock, and called outside it.
struct Handler {
  QXMessageHandler function = nullptr;
  void* arg = nullptr;
};

constinit std::mutex handler_mutex;
constinit Handler handler;

Handler HandlerGet() {
  const std::lock_guard lock(handler_mutex);
  return handler;
}

// The context is a copy: a handler's own messages change the thread's.
void Deliver(QXMessageContext context, Text* text) {
  const Handler to = HandlerGet();
  if (to.function != nullptr) {
    to.function(&context, text->c_str(), to.arg);
    return;
  }
  text->FlattenControls();
  fprintf(stderr, "%s: level %d: %s:%d: %s: %s\n", context.module, context.level, context.file, context.line,
          context.function, text->c_str());
}

QX_PRINTF(2, 0) void Report(const QXMessageContext& context, const char* format, va_list args) {
  const qx::ErrnoKeeper keeper;
  const int error = errno;
  Text text;
  text.Format(format, args);
  if (context.flag != FALSE) {
    char buffer[128];
    text.Append(": ");
    text.Append(strerror_r(error, buffer, sizeof(buffer)));
  }
  Deliver(context, &text);
  text.Clear();
}

const char* OrEmpty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

namespace qxlib {

void Fatal(const char* file, int line, const char* function, Boolean flag, const char* format, ...) {
  if (!state.ending) {
    state.ending = true;
    va_list args;
    va_start(args, format);
    Report({OrEmpty(file), line, "qxlib", function, kFailure, flag}, format, args);
    va_end(args);
  }
  abort();
}

}  // namespace qxlib

void QXSetMessageContext2_(const char* file, int line, const char* module, const char* function, int level,
                           Boolean flag) {
  state.context = {OrEmpty(file), line, OrEmpty(module), OrEmpty(function), level, flag};
}

void QXMessage_(const char* format, ...) {
  va_list args;
  va_start(args, format);
  Report(state.context, format, args);
  va_end(args);
}

void QXErrorRethrow_(const char* format, ...) {
  const qx::ErrnoKeeper keeper;
  const int error = errno;
  Text text;  // the arguments may point into the current error's
  va_list args;
  va_start(args, format);
  text.Format(format, args);
  va_end(args);
  thread_end.Arm();
  state.current.text.Take(&text);
  state.current.code = error;
}

void QXErrorSave(void) {
  const qx::ErrnoKeeper keeper;
  const int error = errno;
  if (state.depth < kDeepest) {
    SavedError& saved = state.saved[state.depth];
    saved.error.text.Assign(state.current.text.c_str());
    saved.error.code = state.current.code;
    saved.system_error = error;
  }
  state.depth++;
}

void QXErrorRestore(void) {
  if (state.depth == 0) return;
  state.depth--;
  if (state.depth >= kDeepest) return;
  SavedError& saved = state.saved[state.depth];
  state.current.text.Take(&saved.error.text);
  state.current.code = saved.error.code;
  errno = saved.system_error;
}

const char* QXErrorText(void) { return state.current.text.c_str(); }

int QXErrorCode(void) { return state.current.code; }

void QXErrorClear(void) {
  const qx::ErrnoKeeper keeper;
  state.current.text.Clear();
  state.current.code = 0;
}

void QXMessageHandlerSet(QXMessageHandler function, void* arg) {
  const std::lock_guard lock(handler_mutex);
  handler = {function, arg};
}

void qxassert_(const char* expression, const char* file, int line) {
  __assert_fail(expression, file, static_cast<unsigned>(line), nullptr);
}
