// Counting by single steps, and an allocator that counts.
#include "instructions.h"

#include <atomic>
#include <csignal>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *memory, std::size_t size);
}

namespace {

std::atomic<std::uint64_t> allocation_count{0};

void stop_self()
{
    kill(getpid(), SIGSTOP);
}

[[noreturn]] void run_traced(const std::function<void()> &work, std::size_t calls)
{
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    stop_self();
    for (std::size_t i = 0; i < calls; ++i)
        work();
    stop_self();
    _exit(0);
}

// Steps from the child's first stop to its second; negative when that cannot be seen.
long long steps_of(const std::function<void()> &work, std::size_t calls)
{
    const pid_t child = fork();
    if (child == 0)
        run_traced(work, calls);
    int status = 0;
    long long steps = -1;
    if (child > 0 && waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
        steps = 0;
        while (ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) == 0 && waitpid(child, &status, 0) == child &&
               WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP)
            ++steps;
        if (!WIFSTOPPED(status) || WSTOPSIG(status) != SIGSTOP)
            steps = -1;
    }
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    return steps;
}

} // namespace

extern "C" void *malloc(std::size_t size)
{
    allocation_count.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
extern "C" void *calloc(std::size_t count, std::size_t size)
{
    allocation_count.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
extern "C" void *realloc(void *memory, std::size_t size)
{
    allocation_count.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(memory, size);
}

namespace bench {

double instructions_per_call(const std::function<void()> &work, std::size_t calls)
{
    const long long around = steps_of(work, 0);
    const long long with = steps_of(work, calls);
    if (around < 0 || with < 0)
        return -1;
    return static_cast<double>(with - around) / static_cast<double>(calls);
}

std::uint64_t allocations() { return allocation_count.load(std::memory_order_relaxed); }

} // namespace bench
