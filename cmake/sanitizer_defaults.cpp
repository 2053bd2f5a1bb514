// Default options of the sanitizer runtimes for the test programs, so that a
// plain `ctest` in a sanitizer build behaves as `make sanitize` / `make tsan`.
// The runtimes read these first; *SAN_OPTIONS in the environment still win.

// GCC announces a sanitizer with __SANITIZE_*__, clang through __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define KORN_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KORN_ASAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define KORN_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KORN_TSAN 1
#endif
#endif

#define KORN_SANITIZER_HOOK extern "C" __attribute__((visibility("default"), used))

#if defined(KORN_ASAN)
// Leak checking stays on, also in the children of death tests: a child that
// stops through exit() still reaches its allocations from globals and stacks.
KORN_SANITIZER_HOOK const char* __asan_default_options() {
  return "detect_leaks=1:check_initialization_order=1:strict_init_order=1:"
         "detect_stack_use_after_return=1:strict_string_checks=1";
}
KORN_SANITIZER_HOOK const char* __ubsan_default_options() {
  return "print_stacktrace=1:halt_on_error=1";
}
#endif

#if defined(KORN_TSAN)
// libomp, LAPACK and GoogleTest are not instrumented: their inner accesses are
// ignored, and archer supplies the OpenMP ordering for the library's own code.
KORN_SANITIZER_HOOK const char* __tsan_default_options() {
  return "ignore_noninstrumented_modules=1:halt_on_error=1:second_deadlock_stack=1";
}
#endif
