// Named threads.
#pragma once

#include <cstddef>
#include <pthread.h>

struct corvane_pthread_attr {
    std::size_t stack_bytes = 0;                              // 0: the library's default
};
void corvane_pthread_attr_init(corvane_pthread_attr &attr);
// 0, or an error number. `attr` may be null. The name is cut to what the system keeps (15 characters) for tools.
[[nodiscard]] int corvane_pthread_create(pthread_t &thread, const corvane_pthread_attr *attr, void *(*entry)(void *),
                                         void *argument, const char *name);
