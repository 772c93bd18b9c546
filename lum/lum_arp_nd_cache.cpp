// The ARP/ND caches of the overlays, the list of anycast addresses, and the store of port records.
#include "lum_private.h"

#include "drops.h"
#include "lum_inlines.h"
#include "lum_msgs.h"
#include "memacct.h"

#include <algorithm>

pt_tree lum_interface_pt;
std::array<lum_addr, LUM_ANYCAST_ADDRS> lum_anycast_arp_addrs;
std::uint32_t lum_any_anycast_arp_addrs;

// What the caps of the memory accounting count in.
static_assert(sizeof(lum_arp_nd_entry) == 48 && sizeof(lum_port) == 12);

namespace {

template <class Record> Record *allocate(lum_mem_type_t type)
{
    void *memory = memacct_alloc(LUM_SERVICE, type, sizeof(Record));
    return memory != nullptr ? new (memory) Record{} : nullptr;
}

// Most significant byte first, so that a walk over the port records ascends by iod.
std::array<std::uint8_t, 4> port_key(std::uint32_t iod)
{
    std::array<std::uint8_t, 4> key;
    wire_set_be32(key.data(), iod);
    return key;
}

} // namespace

lum_port *lum_get_from_pt(std::uint32_t iod)
{
    return static_cast<lum_port *>(pt_find(lum_interface_pt, port_key(iod).data()));
}

lum_port *lum_add_to_pt(std::uint32_t iod)
{
    auto *port = allocate<lum_port>(LUM_MEM_TYPE_INTERFACE_PT);
    if (port == nullptr)
        return nullptr;
    port->iod = iod;
    if (!pt_insert(lum_interface_pt, port_key(iod).data(), port)) {
        memacct_free(LUM_SERVICE, LUM_MEM_TYPE_INTERFACE_PT, port);
        return nullptr;
    }
    return port;
}

int lum_delete_from_pt(lum_port *port)
{
    const int result = pt_remove(lum_interface_pt, port_key(port->iod).data());
    if (result == 0)
        memacct_free(LUM_SERVICE, LUM_MEM_TYPE_INTERFACE_PT, port);
    return result;
}

void lum_build_key_for_arp_nd_cache(lum_arp_nd_key &key, std::uint32_t vlan, const lum_addr &address)
{
    key.fill(0);
    wire_set_host32(key.data(), vlan);
    if (address.kind == LUM_ADDR_IPV4)
        wire_set_be32(key.data() + 4, lum_addr_word(address, 0));
    else
        std::copy_n(address.body.begin(), ipv6_address{}.size(), key.begin() + 4);
}

bool lum_add_to_arp_nd_cache(pt_tree &root, lum_arp_nd_entry *entry)
{
    if (root.attr == 0)
        pt_init(root, pt_attr_create(0, 1, LUM_ARP_ND_KEY_SIZE));
    lum_arp_nd_key key;
    lum_build_key_for_arp_nd_cache(key, entry->mac.vlan, entry->address);
    return pt_insert(root, key.data(), entry);
}

lum_arp_nd_entry *lum_get_from_arp_nd_cache(const pt_tree &root, const lum_addr &address, std::uint32_t vlan)
{
    lum_arp_nd_key key;
    lum_build_key_for_arp_nd_cache(key, vlan, address);
    return static_cast<lum_arp_nd_entry *>(pt_find(root, key.data()));
}

int lum_delete_from_arp_nd_cache(pt_tree &root, lum_arp_nd_entry *entry)
{
    lum_arp_nd_key key;
    lum_build_key_for_arp_nd_cache(key, entry->mac.vlan, entry->address);
    return pt_remove(root, key.data());
}

namespace {

void set_mac(lum_arp_nd_entry &entry, std::uint32_t vlan, const std::uint8_t *mac)
{
    entry.mac.vlan = vlan;
    std::copy_n(mac, entry.mac.mac.size(), entry.mac.mac.begin());
}

// An entry that is refused, for want of memory or beyond the configured cap, costs its host the proxy replies only.
bool create_entry(pt_tree &root, const lum_addr &address, std::uint32_t vlan, const std::uint8_t *mac) LUM_LOCKED;
bool create_entry(pt_tree &root, const lum_addr &address, std::uint32_t vlan, const std::uint8_t *mac)
{
    auto *entry = allocate<lum_arp_nd_entry>(LUM_MEM_TYPE_ARP_ND_CACHE);
    if (entry == nullptr)
        return false;
    static_cast<void>(vemo_sys_mclock_get(entry->created));
    entry->address = address;
    set_mac(*entry, vlan, mac);
    if (lum_add_to_arp_nd_cache(root, entry))
        return true;
    memacct_free(LUM_SERVICE, LUM_MEM_TYPE_ARP_ND_CACHE, entry);
    return false;
}

} // namespace

void lum_cache_arp_nd(lum_overlay &overlay, std::uint32_t ipv4, const ipv6_address &ipv6, std::uint32_t vlan,
                      const std::uint8_t *mac)
{
    const lum_addr address = ipv4 != 0 ? lum_addr_ipv4(ipv4) : lum_addr_ipv6(ipv6);
    if (lum_arp_nd_entry *known = lum_get_from_arp_nd_cache(overlay.arp_nd_cache, address, vlan); known != nullptr)
        set_mac(*known, vlan, mac);
    else if (!create_entry(overlay.arp_nd_cache, address, vlan, mac))
        return drop_count(drop_reason::CACHE_REFUSED);
    if (lum_arp_nd_debug_flag != 0) {
        lum_mac_info info{.vlan = vlan};
        std::copy_n(mac, info.mac.size(), info.mac.begin());
        lum_text ip, host;
        LUM_TRACE_ARP_ND("Caching %s -> %s %s mapping\n", lum_print_addr(address, ip), lum_print_mac_info(info, host),
                         ipv4 != 0 ? "ARP" : "ND");
    }
}

void lum_free_arp_nd_cache(lum_overlay &overlay)
{
    pt_tree &root = overlay.arp_nd_cache;
    lum_arp_nd_key key;
    for (auto *entry = static_cast<lum_arp_nd_entry *>(pt_first(root)); entry != nullptr;) {
        lum_build_key_for_arp_nd_cache(key, entry->mac.vlan, entry->address);
        auto *next = static_cast<lum_arp_nd_entry *>(pt_next(root, key.data()));
        memacct_free(LUM_SERVICE, LUM_MEM_TYPE_ARP_ND_CACHE, entry);
        entry = next;
    }
    pt_destroy(root);
}

int lum_is_addr_anycast_arp(const std::uint32_t *ipv4, const ipv6_address *ipv6)
{
    if (ipv4 == nullptr && ipv6 == nullptr)
        return 0;
    const lum_addr sought = ipv4 != nullptr ? lum_addr_ipv4(*ipv4) : lum_addr_ipv6(*ipv6);
    const auto matches = [&](const lum_addr &slot) { return lum_addr_equal(slot, sought); };
    return std::ranges::any_of(lum_anycast_arp_addrs, matches) ? 1 : 0;
}
