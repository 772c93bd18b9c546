// Clang thread-safety attributes, empty with other compilers. The `thread-safety` preset turns them into errors.
#pragma once

#if defined(__clang__)
#define CORVANE_TSA(x) __attribute__((x))
#else
#define CORVANE_TSA(x)
#endif

#define CORVANE_CAPABILITY(name) CORVANE_TSA(capability(name))
#define CORVANE_SCOPED CORVANE_TSA(scoped_lockable)
#define CORVANE_REQUIRES(...) CORVANE_TSA(requires_capability(__VA_ARGS__))
#define CORVANE_EXCLUDES(...) CORVANE_TSA(locks_excluded(__VA_ARGS__))
#define CORVANE_ACQUIRE(...) CORVANE_TSA(acquire_capability(__VA_ARGS__))
#define CORVANE_RELEASE(...) CORVANE_TSA(release_capability(__VA_ARGS__))
#define CORVANE_ASSERT_HELD(...) CORVANE_TSA(assert_capability(__VA_ARGS__))
#define CORVANE_NO_TSA CORVANE_TSA(no_thread_safety_analysis)

#define CORVANE_PRINTF(format_at, values_at) __attribute__((format(printf, format_at, values_at)))
