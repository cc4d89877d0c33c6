// Catches a failed assertion of the code under test without ending the process, for tests that go through thousands of
// damaged images of which some may assert. The library has nothing on its stack that a jump could leave unreleased.
//
// Include in one file of a test program: it stands in front of the C library's assertion failure.
#ifndef TESTS_SUPPORT_ASSERTION_TRAP_H
#define TESTS_SUPPORT_ASSERTION_TRAP_H

// <assert.h> declares the failure only without NDEBUG.
#undef NDEBUG
#include <assert.h>
#include <dlfcn.h>

#include <csetjmp>
#include <string>

namespace support {

inline thread_local std::jmp_buf* assertion_trap = nullptr;
inline thread_local const char* trapped_assertion = "";

// Calls body; the text of the assertion that ended it, "" when none did. Body must own nothing that needs destruction.
template <typename Body>
std::string Trap(Body&& body) {
  std::jmp_buf trap;
  trapped_assertion = "";
  assertion_trap = &trap;
  if (setjmp(trap) == 0) body();
  assertion_trap = nullptr;
  return trapped_assertion;
}

}  // namespace support

extern "C" void __assert_fail(const char* text, const char* file, unsigned int line, const char* function) noexcept {
  if (support::assertion_trap != nullptr) {
    support::trapped_assertion = text;
    std::longjmp(*support::assertion_trap, 1);
  }
  using Fail = void (*)(const char*, const char*, unsigned int, const char*);
  reinterpret_cast<Fail>(dlsym(RTLD_NEXT, "__assert_fail"))(text, file, line, function);
  __builtin_unreachable();
}

#endif
