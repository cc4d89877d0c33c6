// What a test must know about the sanitizer it runs under: they are slower, and stop at a failed allocation unless told
// otherwise.
#ifndef TESTS_SUPPORT_SANITIZERS_H
#define TESTS_SUPPORT_SANITIZERS_H

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QX_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define QX_SANITIZED 1
#endif
#endif

namespace support {

#ifdef QX_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

}  // namespace support

// Put once into a test program that makes allocations fail: a failed allocation then gives null, as it does elsewhere.
#define QX_ALLOCATIONS_MAY_FAIL                                                  \
  extern "C" {                                                                   \
  const char* __asan_default_options();                                          \
  const char* __tsan_default_options();                                          \
  const char* __asan_default_options() { return "allocator_may_return_null=1"; } \
  const char* __tsan_default_options() { return "allocator_may_return_null=1"; } \
  }                                                                              \
  static_assert(true, "")

#endif
