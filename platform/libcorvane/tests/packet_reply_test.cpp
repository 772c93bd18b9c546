// Replies that the daemon builds itself to a frame it has in hand: on a trunk they leave in the VLAN of that frame.
#include "../packet/frame_source.h"

#include "../core/link_output.h"
#include "net_l2.h"
#include "net_lab.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <sys/eventfd.h>
#include <unistd.h>

using namespace corvane;
using namespace frames;
using testing::ElementsAreArray;

namespace {

constexpr std::uint32_t PORT = 5, OTHER_PORT = 6;
const std::string HOST_C = "02000000000c";

class PacketReply : public testing::Test {
protected:
    PacketReply()
    {
        interfaces_.set(PORT, "pr0", INTERFACE_UP | INTERFACE_SWITCHPORT);
        interfaces_.set(OTHER_PORT, "pr1", INTERFACE_UP | INTERFACE_SWITCHPORT);
        source_.follow_ports();
    }
    ~PacketReply() override { close(wake_); }

    void receive(const bytes &request)
    {
        host_.send(request);
        ASSERT_EQ(source_.receive(in_hand_, wake_), local_receive::MESSAGE);
    }
    static void reply(std::uint32_t iod = PORT, const std::string &to = HOST_A)
    {
        net_l2_header header{.ethertype_be = htons(0x0806)};
        const bytes host = hex(to), own = hex(HOST_B);
        std::copy_n(host.begin(), 6, header.destination.begin());
        std::copy_n(own.begin(), 6, header.source.begin());
        net_l2_send_request request;
        request.iod_be = htonl(iod);
        const bytes body = counting(28);
        EXPECT_EQ(net_l2_send(1, header, request, body.data(), static_cast<std::uint16_t>(body.size())), 1);
        link_output_flush();
    }
    static bytes reply_frame(const std::string &to, const std::string &tag)
    {
        return hex(to + HOST_B + tag + "0806") + counting(28);
    }
    bytes seen(lab::wire &host)
    {
        const auto sent = host.receive_if([](const bytes &f) { return get16(f, 12) != 0x86DD; });
        EXPECT_TRUE(sent);
        return sent ? sent->frame : bytes{};
    }

    lab::interface_file interfaces_;
    lab::veth port_{"pr0"}, other_port_{"pr1"};
    lab::wire host_{"pr0p"}, other_host_{"pr1p"};
    frame_source source_;
    mbus_msg in_hand_;
    int wake_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
};

const std::string BROADCAST = "ffffffffffff";
const bytes TAGGED = hex(BROADCAST + HOST_A + "8100a12c" + "0806") + counting(46);       // priority 5, VLAN 300

} // namespace

TEST_F(PacketReply, CarriesTheVlanOfTheRequestWithoutItsPriority)
{
    receive(TAGGED);
    reply();
    EXPECT_THAT(seen(host_), ElementsAreArray(reply_frame(HOST_A, "8100012c")));
}

TEST_F(PacketReply, CarriesTheVlanOfASnapRequest)
{
    receive(hex(BROADCAST + HOST_A + "8100012c" + "0032" + "aaaa03000000" + "0806") + counting(46));
    reply();
    EXPECT_THAT(seen(host_), ElementsAreArray(reply_frame(HOST_A, "8100012c")));
}

TEST_F(PacketReply, IsUntaggedWhenTheRequestWas)
{
    receive(hex(BROADCAST + HOST_A + "0806") + counting(46));
    reply();
    EXPECT_THAT(seen(host_), ElementsAreArray(reply_frame(HOST_A, "")));
}

TEST_F(PacketReply, IsUntaggedToAnotherHostAndOnAnotherPort)
{
    receive(TAGGED);
    reply(PORT, HOST_C);
    EXPECT_THAT(seen(host_), ElementsAreArray(reply_frame(HOST_C, "")));
    reply(OTHER_PORT);
    EXPECT_THAT(seen(other_host_), ElementsAreArray(reply_frame(HOST_A, "")));
}

TEST_F(PacketReply, IsUntaggedOnceTheRequestWasDropped)
{
    receive(TAGGED);
    ASSERT_EQ(source_.drop(in_hand_), 0);
    reply();
    EXPECT_THAT(seen(host_), ElementsAreArray(reply_frame(HOST_A, "")));
}
