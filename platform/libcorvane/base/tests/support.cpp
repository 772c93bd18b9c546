// The few service calls that this folder's code makes, in their smallest form.
#include "support.h"

#include "mbuf.h"
#include "plock.h"
#include "rtab.h"

#include <cctype>
#include <cstring>
#include <string>

plock_lock plock_process_lock;

struct mbuf {
    bytes data;
};

namespace support {

bytes payload;
timestamp elapsed;
std::vector<bytes> route_updates;
std::size_t buffers_out = 0;
bool no_buffers = false, copy_fails = false;
std::function<void()> on_yield;

void reset()
{
    payload.clear();
    elapsed = {};
    route_updates.clear();
    no_buffers = copy_fails = false;
    on_yield = nullptr;
}

} // namespace support

bytes from_hex(std::string_view text)
{
    std::string digits;
    for (const char c : text)
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0)
            digits += c;
    bytes out;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

mbuf *m_get(std::size_t /*size_hint*/)
{
    if (support::no_buffers)
        return nullptr;
    ++support::buffers_out;
    return new mbuf;
}

bool m_copyback(mbuf *m, std::size_t offset, std::size_t length, const void *data)
{
    if (support::copy_fails)
        return false;
    m->data.resize(std::max(m->data.size(), offset + length));
    std::memcpy(m->data.data() + offset, data, length);
    return true;
}

void m_freem(mbuf *m)
{
    --support::buffers_out;
    delete m;
}

std::size_t m_length(const mbuf *m) { return m->data.size(); }
const std::uint8_t *m_data(const mbuf *m) { return m->data.data(); }

std::uint8_t *mbus_payload_get(const mbus_msg & /*msg*/, std::size_t *length)
{
    if (length != nullptr)
        *length = support::payload.size();
    return support::payload.empty() ? nullptr : support::payload.data();
}

timestamp timestamp_elapsed(const timestamp & /*since*/) { return support::elapsed; }

int rtab_update_route(const void *buffer, std::uint16_t count, std::uint32_t length, std::uint32_t /*flags*/)
{
    const auto *p = static_cast<const std::uint8_t *>(buffer);
    support::route_updates.emplace_back(p, p + RTAB_UPDATE_HEADER + count * RTAB_UPDATE_STRIDE);
    return length == support::route_updates.back().size() ? 1 : 0;
}

void plock_assert_held() CORVANE_NO_TSA {}
void plock_sched_yield() CORVANE_NO_TSA
{
    if (support::on_yield)
        support::on_yield();
}
