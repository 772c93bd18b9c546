// Persistent store client: each call is answered when the record is kept.
#include "pstore.h"

#include "client.h"

#include "../wire/sdb.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>

namespace {

using namespace corvane;

struct open_stores {
    std::mutex mutex;
    std::deque<std::string> names;               // a handle is its place plus one; "" = closed
};

open_stores &the()
{
    static auto *stores = new open_stores;
    return *stores;
}

std::string name_of(pstore_handle handle)
{
    const std::lock_guard guard(the().mutex);
    return handle != 0 && handle <= the().names.size() ? the().names[handle - 1] : std::string{};
}

byte_view view(const void *data, std::size_t length)
{
    return {static_cast<const std::uint8_t *>(data), length};
}

} // namespace

pstore_handle pstore_open(const char *name)
{
    if (name == nullptr || call(PSTORE_OPEN, byte_writer().text(name).view()).error != 0)
        return 0;
    const std::lock_guard guard(the().mutex);
    the().names.emplace_back(name);
    return static_cast<pstore_handle>(the().names.size());
}

void pstore_close(pstore_handle handle)
{
    const std::lock_guard guard(the().mutex);
    if (handle != 0 && handle <= the().names.size())
        the().names[handle - 1].clear();
}

int pstore_write(pstore_handle handle, const void *key, std::size_t key_length, const void *value,
                 std::size_t value_length)
{
    const std::string name = name_of(handle);
    if (name.empty())
        return 0;
    const auto request = byte_writer().text(name).blob(view(key, key_length)).blob(view(value, value_length)).take();
    return call(PSTORE_WRITE, request).error == 0 ? 1 : 0;
}

long pstore_read(pstore_handle handle, const void *key, std::size_t key_length, void *value, std::size_t size)
{
    const std::string name = name_of(handle);
    if (name.empty())
        return -1;
    const reply answer = call(PSTORE_READ, byte_writer().text(name).blob(view(key, key_length)).view());
    byte_reader in(answer.data);
    const byte_view found = in.blob();
    if (answer.error != 0 || !in.done())
        return -1;
    if (!found.empty() && size != 0)
        std::memcpy(value, found.data(), std::min(size, found.size()));
    return static_cast<long>(found.size());
}

int pstore_delete(pstore_handle handle, const void *key, std::size_t key_length)
{
    const std::string name = name_of(handle);
    if (name.empty())
        return 0;
    return call(PSTORE_DELETE, byte_writer().text(name).blob(view(key, key_length)).view()).error == 0 ? 1 : 0;
}
