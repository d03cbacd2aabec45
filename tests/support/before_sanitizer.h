#pragma once

/// Marks a replaced function that is called before the thread sanitizer is initialised. Until then it must not
/// instrument, intercept or guard anything in the function.
#ifdef __clang__  // its no_sanitize still instruments the function's entry
#define BEFORE_SANITIZER __attribute__((disable_sanitizer_instrumentation))
#else
#define BEFORE_SANITIZER __attribute__((no_sanitize("thread")))
#endif
