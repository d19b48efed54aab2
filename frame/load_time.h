// Attributes for code that runs while the dynamic loader relocates the
// library: the resolvers of GNU indirect functions, which pick a kernel for
// the processor at hand, and whatever they call.
#pragma once

// That code runs before the sanitizer runtimes are set up, so it must not
// be instrumented (nor, in fuzz builds, count coverage).
#if defined(__clang__)
#define VRK_NO_COVERAGE __attribute__((no_sanitize("coverage")))
#else
#define VRK_NO_COVERAGE
#endif
#define VRK_UNINSTRUMENTED \
  __attribute__((no_sanitize_address, no_sanitize("undefined"), no_stack_protector)) VRK_NO_COVERAGE
#define VRK_RESOLVER VRK_UNINSTRUMENTED __attribute__((used, visibility("hidden")))
