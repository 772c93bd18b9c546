// Files of shared memory under <root>/shm: made here, mapped by clients.
#include "shm.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvaned {
namespace {

// A file of another size is replaced, not resized: clients may have the old one mapped, and shrinking it would end them.
int open_sized(const std::string &path, std::size_t size)
{
    int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    struct stat about {};
    if (fd >= 0 && fstat(fd, &about) == 0 && static_cast<std::size_t>(about.st_size) == size)
        return fd;
    if (fd >= 0)
        close(fd);
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());
    fd = open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0660);
    if (fd >= 0 && (ftruncate(fd, static_cast<off_t>(size)) != 0 || rename(fresh.c_str(), path.c_str()) != 0)) {
        close(fd);
        fd = -1;
    }
    return fd;
}

} // namespace

void *make_shared(const char *name, std::size_t size)
{
    const std::string path = opts().root + "/shm/" + name;
    const int fd = open_sized(path, size);
    if (fd < 0) {
        log_line(2, "cannot make shared memory " + path + ": " + std::strerror(errno));
        return nullptr;
    }
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return memory == MAP_FAILED ? nullptr : memory;
}

corvane::platform_page &platform()
{
    static corvane::platform_page *page = [] {
        auto *made = static_cast<corvane::platform_page *>(make_shared(corvane::PLATFORM_SHM, sizeof(corvane::platform_page)));
        static corvane::platform_page fallback{};
        if (made == nullptr)
            made = &fallback;
        if (made->made.load() != corvane::PLATFORM_PAGE_MADE) {
            made->log_level = corvane::PLATFORM_LOG_LEVEL_DEFAULT;
            made->made = corvane::PLATFORM_PAGE_MADE;
        }
        return made;
    }();
    return *page;
}

} // namespace corvaned
