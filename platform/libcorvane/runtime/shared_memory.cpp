// Files of shared memory: mapped at an address that stays, whatever happens to the file behind it.
#include "shared_memory.h"

#include "../plock_batch.h"
#include "drops.h"

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace corvane {
namespace {

struct mapping {
    std::string name;
    std::size_t size = 0;
    bool writable = false;
    void *address = nullptr;
    dev_t device = 0;
    ino_t inode = 0;                       // 0: private memory stands in until the file is there
};

struct mappings {
    std::mutex mutex;
    std::vector<mapping> list;
};

mappings &the()
{
    static auto *m = new mappings;
    return *m;
}

platform_page default_page;
const platform_page *settings_page = &default_page;

int open_file(const mapping &m, struct stat &about)
{
    const std::string path = root() + "/shm/" + m.name;
    const int fd = open(path.c_str(), (m.writable ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return -1;
    if (fstat(fd, &about) == 0 && static_cast<std::size_t>(about.st_size) == m.size)
        return fd;
    close(fd);
    errno = EINVAL;
    return -1;
}

int protection(const mapping &m)
{
    return m.writable ? PROT_READ | PROT_WRITE : PROT_READ;
}

// Maps the file as it is now, over what stands at the address. True when it is a file that was not mapped before.
bool refresh(mapping &m)
{
    struct stat about {};
    const int fd = open_file(m, about);
    if (fd < 0)
        return false;
    bool fresh = m.inode != about.st_ino || m.device != about.st_dev;
    if (fresh) {
        void *at = mmap(m.address, m.size, protection(m), MAP_SHARED | (m.address != nullptr ? MAP_FIXED : 0), fd, 0);
        fresh = at != MAP_FAILED;
        if (fresh) {
            m.address = at;
            m.inode = about.st_ino;
            m.device = about.st_dev;
        }
    }
    close(fd);
    return fresh;
}

mapping *find(const char *name, std::size_t size, bool writable)
{
    for (mapping &m : the().list)
        if (m.name == name && m.size == size && m.writable == writable)
            return &m;
    return nullptr;
}

// Private memory where the file is not there yet: it takes the file's place at the same address later.
void *map_now_or_later(const char *name, std::size_t size, bool writable)
{
    const std::lock_guard guard(the().mutex);
    if (const mapping *known = find(name, size, writable); known != nullptr)
        return known->address;
    mapping m{name, size, writable, nullptr, 0, 0};
    if (!refresh(m)) {
        void *at = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        m.address = at == MAP_FAILED ? nullptr : at;
    }
    if (m.address != nullptr)
        the().list.push_back(m);
    return m.address;
}

} // namespace

void *map_shared(const char *name, std::size_t size, bool writable)
{
    const std::lock_guard guard(the().mutex);
    if (const mapping *known = find(name, size, writable); known != nullptr)
        return known->inode != 0 ? known->address : nullptr;
    mapping m{name, size, writable, nullptr, 0, 0};
    if (!refresh(m))
        return nullptr;
    the().list.push_back(m);
    return m.address;
}

void shared_memory_start()
{
    if (auto *page = map_now_or_later(DROPS_SHM, sizeof(drop_counter_page), true); page != nullptr) {
        auto *counters = static_cast<drop_counter_page *>(page);
        for (std::size_t i = 0; i < std::size(counters->count); ++i)
            counters->count[i].fetch_add(drop_counters->count[i].exchange(0));
        drop_counters = counters;
    }
    if (auto *page = map_now_or_later(LOCKS_SHM, sizeof(lock_page), true); page != nullptr)
        plock_report_to(static_cast<lock_page *>(page));
    if (auto *page = map_now_or_later(PLATFORM_SHM, sizeof(platform_page), false); page != nullptr)
        settings_page = static_cast<const platform_page *>(page);
}

void shared_memory_refresh()
{
    const std::lock_guard guard(the().mutex);
    for (mapping &m : the().list)
        refresh(m);
}

const platform_page &platform_settings()
{
    if (settings_page->made.load(std::memory_order_relaxed) == PLATFORM_PAGE_MADE)
        return *settings_page;
    if (default_page.made.exchange(PLATFORM_PAGE_MADE) != PLATFORM_PAGE_MADE)
        default_page.log_level = PLATFORM_LOG_LEVEL_DEFAULT;
    return default_page;
}

} // namespace corvane
