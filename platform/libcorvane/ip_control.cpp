// Control part of the IPv4 and IPv6 clients: registration, addresses, address notifications. Output is in core/.
#include "ip.h"
#include "ipv6.h"
#include "svcmgr.h"

#include "client.h"
#include "interfaces.h"
#include "service_retry.h"
#include "../wire/ipmgr.h"

#include <atomic>

using namespace corvane;

namespace {

constexpr std::uint32_t FAMILY_IPV4 = 4, FAMILY_IPV6 = 5;
constexpr std::uint32_t OPTION_SUBSCRIBE = 16;

std::atomic<std::uint32_t> last_client{0};
std::atomic<bool> registered_ipv4{false}, registered_ipv6{false};

void announce(std::uint32_t family)
{
    (void)call(IPMGR_REGISTER, byte_writer().put(family).view());
}

// Addresses that changed while corvaned was away are told once it is back.
void announce_again()
{
    if (registered_ipv4.load())
        announce(FAMILY_IPV4);
    if (registered_ipv6.load())
        announce(FAMILY_IPV6);
}

std::uint32_t service_of(std::uint32_t family) { return family == FAMILY_IPV4 ? SVC_IP : SVC_IPV6; }

std::uint32_t new_client(std::uint32_t family)
{
    if (interfaces() != nullptr)
        return ++last_client;
    service_failed(service_of(family));
    return 0;
}

bool register_client(std::uint32_t client, mbus_q main_queue, std::uint32_t family)
{
    if (client == 0 || mbus_options_set(main_queue, IP_NOTIFY_OPCODE, OPTION_SUBSCRIBE) < 0) {
        service_failed(service_of(family));
        return false;
    }
    std::atomic<bool> &registered = family == FAMILY_IPV4 ? registered_ipv4 : registered_ipv6;
    static std::atomic<bool> hooked{false};
    if (!hooked.exchange(true))
        on_connected(announce_again);
    registered.store(true);
    announce(family);
    return true;
}

} // namespace

ip_client ip_api_init() { return new_client(FAMILY_IPV4); }
ipv6_client ipv6_api_init() { return new_client(FAMILY_IPV6); }

void ip_api_close(ip_client client)
{
    if (client != 0)
        registered_ipv4.store(false);
}

void ipv6_api_close(ipv6_client client)
{
    if (client != 0)
        registered_ipv6.store(false);
}

bool ip_register(const char * /*name*/, mbus_q /*packet_queue*/, mbus_q main_queue, std::uint32_t /*flags*/,
                 std::uint32_t /*contexts*/, ip_client client, std::uint32_t /*a*/, std::uint32_t /*b*/)
{
    return register_client(client, main_queue, FAMILY_IPV4);
}

bool ipv6_register(const char * /*name*/, mbus_q /*packet_queue*/, mbus_q main_queue, std::uint32_t /*flags*/,
                   std::uint32_t /*contexts*/, ipv6_client client, std::uint32_t /*a*/, std::uint32_t /*b*/)
{
    return register_client(client, main_queue, FAMILY_IPV6);
}

std::uint32_t ip_if_address_get(std::uint32_t iod)
{
    const interface_table *table = interfaces();
    return table != nullptr && iod < INTERFACE_SLOTS ? table->slot[iod].ipv4.load(std::memory_order_acquire) : 0;
}

ipv6_address ipv6_if_address_get(std::uint32_t iod)
{
    const interface_table *table = interfaces();
    interface_record record;
    return table != nullptr && interface_read(*table, iod, record) ? record.ipv6 : ipv6_address{};
}
