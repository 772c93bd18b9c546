// The contract tests on the fake platform: time is virtual, devices are entries of its table, wires its records.
#include "contract_platform.h"

#include "fake.h"
#include "frames.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <map>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>

namespace contract {

namespace {

using fake::mac_address;

std::map<std::string, std::uint32_t> iods;                   // a name keeps its iod
std::set<std::string> present;
std::size_t queries_answered = 0;

std::uint32_t iod_of(const std::string &name)
{
    return iods.try_emplace(name, static_cast<std::uint32_t>(iods.size()) + 1).first->second;
}

void add(const std::string &name, fake::interface_options options)
{
    platform.add_interface(iod_of(name), name, std::move(options));
    present.insert(name);
}

void announce(std::uint32_t opcode, const fake::bytes &payload)
{
    std::set<std::uint32_t> saps;
    for (const fake::subscription &s : platform.subscriptions())
        if (s.opcode == opcode && s.option != 3 && platform.queue_of(s.sap) != MBUS_Q_INVALID)
            saps.insert(s.sap);
    for (const std::uint32_t sap : saps)
        platform.deliver(sap, opcode, payload);
}

void announce_change(std::uint32_t opcode, const std::string &name, std::uint64_t mask)
{
    announce(opcode, fake::platform_object::changes({{iod_of(name), mask}}));
}

// The interface's address as the IP stack announces it to whoever registered with it.
void announce_address(const std::string &name, std::uint32_t change, std::uint32_t address)
{
    const ip_address_change payload{IP_MSG_CLASS, IP_MSG_ADDRESS_CHANGE, iod_of(name), 0, change, 0, address};
    for (const fake::call_record &call : platform.calls_of("ip_register"))
        for (std::uint32_t sap = 1; sap < 1000; ++sap)
            if (platform.queue_of(sap) == call.number(2))
                platform.deliver(sap, IP_NOTIFY_OPCODE, fake::bytes().add_host(payload));
}

// The VLAN manager: no switchport here has a VLAN.
void answer_membership_queries()
{
    const std::vector<fake::bus_message> queries = platform.sent_with(VLANMGR_OPC_MEMBERSHIP);
    for (; queries_answered < queries.size(); ++queries_answered)
        platform.deliver(queries[queries_answered].from_sap, VLANMGR_OPC_MEMBERSHIP,
                         fake::platform_object::membership(queries[queries_answered].payload.host32(4), {}));
}

std::uint32_t ipv4_of(const std::string &text)
{
    in_addr address{};
    inet_pton(AF_INET, text.c_str(), &address);
    return ntohl(address.s_addr);
}

bytes swap_tag(bytes frame)
{
    if (frame.size() > 16 && frame[12] == 0x81 && frame[13] == 0x00)
        std::swap(frame[14], frame[15]);
    return frame;
}

bytes plain(const fake::bytes &data) { return {data.begin(), data.end()}; }

// What the stack puts right before it sends.
bytes finished(fake::bytes packet)
{
    packet.set_be16(2, packet.host16(2));
    packet.set_be16(10, 0);
    packet.set_be16(10, fake::internet_checksum(packet.range(0, 20)));
    return plain(packet);
}

} // namespace

bool eventually(const std::function<bool()> &condition, milliseconds limit)
{
    for (milliseconds passed{0}; passed <= limit; passed += milliseconds(5)) {
        if (condition())
            return true;
        platform.advance_ms(5);
    }
    return condition();
}

void let_pass(milliseconds time)
{
    platform.advance_ms(static_cast<std::uint64_t>(time.count()));
    fake::without_process_lock([] { std::this_thread::sleep_for(milliseconds(10)); });
}

bool receive(mbus_q queue, mbus_msg &msg, milliseconds /*limit*/)
{
    answer_membership_queries();
    return mbus_recv(queue, msg) == 0;
}

void *join(pthread_t /*thread*/, const char *name) { return platform.run_thread(name); }

void begin_test()
{
    platform.reset();
    platform.accept_all_saps = false;
    platform.known_saps = {VLANMGR_SAP};
    platform.services_up = {SVC_IP, SVC_CMDSRV};
    present.clear();
    queries_answered = 0;
    add(CORE, {.ipv4 = CORE_ADDRESS, .ipv6 = CORE_ADDRESS6});
    add(SWITCHPORT, {.switchport = true});
    add(OVERLAY, {.overlay = true});
}

void end_test() { platform.reset(); }

void add_device(const std::string &name)
{
    add(name, {.up = false});
    announce_change(INTFMGR_OPC_CREATE, name, 0);
}

void remove_device(const std::string &name)
{
    if (present.erase(name) == 0)
        return;
    platform.remove_interface(iod_of(name));
    announce_change(INTFMGR_OPC_DELETE, name, 0);
}

void set_link(const std::string &name, bool up)
{
    platform.interface(iod_of(name)).up = up;
    announce_change(INTFMGR_OPC_L3_STATE, name, std::uint64_t{1} << INTFMGR_CHANGE_L3_STATE);
}

void add_address(const std::string &name, const std::string &address, unsigned /*length*/)
{
    platform.interface(iod_of(name)).ipv4 = ipv4_of(address);
    announce_address(name, 1, ipv4_of(address));
}

void remove_address(const std::string &name, const std::string &address, unsigned /*length*/)
{
    platform.interface(iod_of(name)).ipv4 = 0;
    announce_address(name, 0, ipv4_of(address));
}

bool group_joined(const std::string &name, std::uint32_t group) { return platform.groups.contains({iod_of(name), group}); }
bool group_joined(const std::string &name, const ipv6_address &group)
{
    return platform.groups6.contains({iod_of(name), group});
}

std::vector<bytes> frames_out(const std::string &device)
{
    std::vector<bytes> frames;
    for (const fake::l2_frame &frame : platform.l2_sent)
        if (frame.iod == iod_of(device))
            frames.push_back(swap_tag(plain(frame)));
    for (const fake::l2_multicast &sent : platform.l2_multicast_sent)
        if (sent.iod == iod_of(device))
            frames.push_back(plain(fake::ethernet(fake::group_mac(sent.be32(16)), mac_address{}, 0x0800, sent)));
    platform.l2_sent.clear();
    platform.l2_multicast_sent.clear();
    return frames;
}

void frame_in(const std::string &device, const bytes &frame)
{
    const bytes as_the_daemon_sees_it = swap_tag(frame);
    platform.deliver_frame(iod_of(device), fake::bytes(std::span<const std::uint8_t>(as_the_daemon_sees_it)));
}

std::vector<bytes> packets_out(const std::string & /*device*/)
{
    std::vector<bytes> packets;
    for (const fake::ip_packet &packet : platform.ip_sent)
        packets.push_back(finished(packet));
    for (const fake::ipv6_packet &packet : platform.ipv6_sent)
        packets.push_back(plain(packet));
    platform.ip_sent.clear();
    platform.ipv6_sent.clear();
    return packets;
}

void datagram_in(int family, std::uint16_t port, const bytes &payload)
{
    const fake::bytes datagram = fake::udp(40000, port, fake::bytes(std::span<const std::uint8_t>(payload)));
    if (family == AF_INET)
        platform.datagram(family, fake::ip_packet_of(17, CORE_NEIGHBOUR, CORE_ADDRESS, datagram));
    else
        platform.datagram(family, fake::ipv6_packet_of(17, CORE_NEIGHBOUR6, CORE_ADDRESS6, datagram));
}

} // namespace contract

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
