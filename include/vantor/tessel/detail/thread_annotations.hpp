#pragma once

// Clang's thread-safety attributes, spelled as macros that vanish for other compilers. The library's
// mutex type is a capability, its scoped lock acquires and releases it, and every member that a mutex
// guards says so, so that -Wthread-safety proves under clang that no guarded member is touched without
// its lock.

#if defined(__clang__)
#define VANTOR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VANTOR_THREAD_ANNOTATION(x)
#endif

#define VANTOR_CAPABILITY(name) VANTOR_THREAD_ANNOTATION(capability(name))
#define VANTOR_SCOPED_CAPABILITY VANTOR_THREAD_ANNOTATION(scoped_lockable)
#define VANTOR_GUARDED_BY(mutex) VANTOR_THREAD_ANNOTATION(guarded_by(mutex))
#define VANTOR_REQUIRES(...) VANTOR_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VANTOR_ACQUIRE(...) VANTOR_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VANTOR_RELEASE(...) VANTOR_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define VANTOR_NO_THREAD_SAFETY_ANALYSIS VANTOR_THREAD_ANNOTATION(no_thread_safety_analysis)
