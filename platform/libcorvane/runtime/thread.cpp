// Named threads.
#include "corvane_thread.h"

#include "../service_retry.h"

#include <cstdio>
#include <csignal>
#include <memory>

namespace {

constexpr std::size_t NAME_MAX_KEPT = 15;

struct thread_start {
    void *(*entry)(void *);
    void *argument;
    char name[NAME_MAX_KEPT + 1];
};

void *run_named(void *start)
{
    const std::unique_ptr<thread_start> own(static_cast<thread_start *>(start));
    pthread_setname_np(pthread_self(), own->name);
    return own->entry(own->argument);
}

} // namespace

void corvane_pthread_attr_init(corvane_pthread_attr &attr)
{
    attr = {};
}

int corvane_pthread_create(pthread_t &thread, const corvane_pthread_attr *attr, void *(*entry)(void *), void *argument,
                           const char *name)
{
    pthread_attr_t native;
    pthread_attr_init(&native);
    if (attr != nullptr && attr->stack_bytes != 0)
        pthread_attr_setstacksize(&native, attr->stack_bytes);
    auto start = std::make_unique<thread_start>(thread_start{entry, argument, {}});
    std::snprintf(start->name, sizeof start->name, "%s", name == nullptr ? "corvane" : name);
    const int result = pthread_create(&thread, &native, run_named, start.get());
    pthread_attr_destroy(&native);
    if (result == 0)
        start.release();       // the thread owns it now
    else
        corvane::part_failed();
    return result;
}
