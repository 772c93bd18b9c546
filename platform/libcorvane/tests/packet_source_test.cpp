// Reception on real devices: frames sent into one end of a veth pair, received from the ring on the other.
#include "../packet/frame_source.h"

#include "net_lab.h"

#include "drops.h"

#include <gmock/gmock.h>

#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

using namespace corvane;
using namespace frames;
using testing::ElementsAreArray;

namespace {

constexpr std::uint32_t IOD = 7, OTHER_IOD = 300;

class PacketSource : public testing::Test {
protected:
    struct delivery {
        std::uint32_t iod;
        bytes frame;
    };

    PacketSource()
    {
        interfaces_.set(IOD, "pkA", INTERFACE_SWITCHPORT | INTERFACE_UP);
        source_.follow_ports();
    }
    ~PacketSource() override { close(wake_); }

    mbus_msg receive_message()
    {
        mbus_msg msg;
        EXPECT_EQ(source_.receive(msg, wake_), local_receive::MESSAGE);
        return msg;
    }
    delivery read(const mbus_msg &msg)
    {
        std::size_t length = 0;
        const std::uint8_t *p = source_.payload(msg, &length);
        EXPECT_NE(p, nullptr);
        const std::size_t frame_length = get16({p, length}, NET_L2_MSG_LENGTH);
        EXPECT_EQ(length, NET_L2_MSG_FRAME + frame_length);
        return {get32({p, length}, NET_L2_MSG_IOD), {p + NET_L2_MSG_FRAME, p + NET_L2_MSG_FRAME + frame_length}};
    }
    delivery receive()
    {
        const mbus_msg msg = receive_message();
        delivery d = read(msg);
        EXPECT_EQ(source_.drop(msg), 0);
        return d;
    }
    void wake() const
    {
        const std::uint64_t one = 1;
        ASSERT_EQ(write(wake_, &one, sizeof one), 8);
    }

    lab::interface_file interfaces_;
    lab::veth port_{"pkA"};
    lab::wire host_{"pkAp"};
    frame_source source_;
    int wake_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
};

const bytes PLAIN = ethernet("ffffffffffff", HOST_A, 0x88B5) + counting(50);

} // namespace

TEST_F(PacketSource, DeliversFrameWithItsInterfaceAndLength)
{
    host_.send(PLAIN);
    const delivery d = receive();
    EXPECT_EQ(d.iod, IOD);
    EXPECT_THAT(d.frame, ElementsAreArray(PLAIN));
}

TEST_F(PacketSource, KeepsOrderOverManyLotsAndTheRingsEnd)
{
    constexpr std::size_t TOTAL = 3 * port_ring::SLOTS;
    for (std::size_t i = 0; i < TOTAL; ++i) {
        host_.send(ethernet(HOST_B, HOST_A, 0x88B5) + be32(i) + bytes(46));
        const bool read_now = i % 500 == 499 || i + 1 == TOTAL;
        for (std::size_t k = i / 500 * 500; read_now && k <= i; ++k)
            ASSERT_EQ(get32(receive().frame, 14), k);
    }
}

TEST_F(PacketSource, PutsTagFromMetadataBackLowByteFirst)
{
    host_.send(ethernet(HOST_B, HOST_A, 0x8100) + hex("612c 88b5") + counting(46));
    EXPECT_THAT(receive().frame, ElementsAreArray(ethernet(HOST_B, HOST_A, 0x8100) + hex("2c61 88b5") + counting(46)));
}

TEST_F(PacketSource, FinishesChecksums)
{
    bytes ip = ipv4(17, udp(counting(31)));
    leave_to_device(ip, UDP_SUM);
    host_.send(ethernet(HOST_B, HOST_A, 0x0800) + ip, {OFFLOAD_NEEDS_CSUM, 0, 0, 0, 34, UDP_SUM});
    EXPECT_TRUE(sums_are_right(view(receive().frame).subspan(14)));
}

TEST_F(PacketSource, CutsSuperFramesAndKeepsWhatComesBehindInOrder)
{
    const bytes payload = counting(60000);
    bytes ip = ipv4(6, tcp({}, payload));
    leave_to_device(ip, TCP_SUM);
    const offload_meta meta{OFFLOAD_NEEDS_CSUM, OFFLOAD_GSO_TCPV4, 54, 1448, 34, TCP_SUM};
    for (int round = 0; round < 3; ++round)
        host_.send(ethernet(HOST_B, HOST_A, 0x0800) + ip, meta);
    host_.send(PLAIN);
    for (int round = 0; round < 3; ++round) {
        bytes joined;
        while (joined.size() < payload.size()) {
            const bytes frame = receive().frame;
            ASSERT_LE(frame.size(), 14u + 40 + 1448);
            ASSERT_TRUE(sums_are_right(view(frame).subspan(14)));
            ASSERT_EQ(get32(frame, 38), 1000 + joined.size());
            joined.insert(joined.end(), frame.begin() + 54, frame.end());
        }
        EXPECT_EQ(joined, payload);
    }
    EXPECT_THAT(receive().frame, ElementsAreArray(PLAIN));
}

TEST_F(PacketSource, CutsTaggedSuperFrameIntoTaggedFrames)
{
    bytes ip = ipv6(6, tcp({}, counting(4000)));
    leave_to_device(ip, TCP_SUM);
    host_.send(ethernet(HOST_B, HOST_A, 0x8100) + hex("0064 86dd") + ip,
               {OFFLOAD_NEEDS_CSUM, OFFLOAD_GSO_TCPV6, 78, 1428, 58, TCP_SUM});
    for (int i = 0; i < 3; ++i) {
        const bytes frame = receive().frame;
        EXPECT_THAT(bytes(frame.begin() + 12, frame.begin() + 18), ElementsAreArray(hex("8100 6400 86dd")));
        EXPECT_TRUE(sums_are_right(view(frame).subspan(18)));
    }
}

TEST_F(PacketSource, CutsSmallSuperFrameInItsSlot)
{
    bytes ip = ipv4(17, udp(counting(1200)));
    leave_to_device(ip, UDP_SUM);
    host_.send(ethernet(HOST_B, HOST_A, 0x0800) + ip, {OFFLOAD_NEEDS_CSUM, OFFLOAD_GSO_UDP, 42, 500, 34, UDP_SUM});
    host_.send(PLAIN);
    for (const std::size_t share : {500u, 500u, 200u}) {
        const bytes frame = receive().frame;
        EXPECT_EQ(frame.size(), 42 + share);
        EXPECT_TRUE(sums_are_right(view(frame).subspan(14)));
    }
    EXPECT_THAT(receive().frame, ElementsAreArray(PLAIN));
}

TEST_F(PacketSource, CountsLinkLocalFramesAndDeliversTheNext)
{
    const std::uint64_t before = lab::drops("link-local by its standard");
    host_.send(ethernet("0180c2000000", HOST_A, 38) + hex("424203") + counting(43));
    host_.send(ethernet("0180c2000014", HOST_A, 38) + hex("fefe03") + counting(43));
    host_.send(PLAIN);
    EXPECT_THAT(receive().frame, ElementsAreArray(PLAIN));
    EXPECT_EQ(lab::drops("link-local by its standard"), before + 2);
}

TEST_F(PacketSource, DoesNotSeeWhatThePortItselfSends)
{
    lab::wire own("pkA");
    own.send(PLAIN + hex("01"));
    host_.send(PLAIN);
    EXPECT_THAT(receive().frame, ElementsAreArray(PLAIN));
}

TEST_F(PacketSource, CountsWhatTheFullRingLoses)
{
    const std::uint64_t before = lab::drops("receive ring full");
    for (std::size_t i = 0; i < port_ring::SLOTS + 100; ++i)
        host_.send(PLAIN);
    for (std::size_t i = 0; i < port_ring::SLOTS; ++i)
        (void)receive();
    host_.send(PLAIN);                       // the kernel tells of the loss with the next frame
    (void)receive();
    EXPECT_EQ(lab::drops("receive ring full"), before + 100);
}

TEST_F(PacketSource, ReceivesFromAPortThatComesLaterAndNotFromOneThatIsGone)
{
    const lab::veth later("pkB");
    lab::wire later_host("pkBp");
    later_host.send(PLAIN);                  // no switchport yet
    interfaces_.set(OTHER_IOD, "pkB", INTERFACE_SWITCHPORT);
    source_.follow_ports();
    later_host.send(PLAIN + hex("02"));
    const delivery d = receive();
    EXPECT_EQ(d.iod, OTHER_IOD);
    EXPECT_THAT(d.frame, ElementsAreArray(PLAIN + hex("02")));

    interfaces_.clear(IOD);
    source_.follow_ports();
    host_.send(PLAIN + hex("03"));
    later_host.send(PLAIN + hex("04"));
    EXPECT_THAT(receive().frame, ElementsAreArray(PLAIN + hex("04")));
}

TEST_F(PacketSource, FollowsAPortToItsNewDevice)
{
    port_.remove();
    interfaces_.clear(IOD);
    const lab::veth again("pkA");
    lab::wire host("pkAp");
    interfaces_.set(IOD, "pkA", INTERFACE_SWITCHPORT);
    source_.follow_ports();
    host.send(PLAIN);
    EXPECT_EQ(receive().iod, IOD);
}

TEST_F(PacketSource, SurvivesLinkGoingDownAndUp)
{
    lab::run("ip link set pkA down && ip link set pkA up");
    std::thread sender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        host_.send(PLAIN);
    });
    EXPECT_THAT(receive().frame, ElementsAreArray(PLAIN));
    sender.join();
}

TEST_F(PacketSource, WaitsUntilFrameOrWakeComes)
{
    mbus_msg msg;
    std::thread waker([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        wake();
    });
    EXPECT_EQ(source_.receive(msg, wake_), local_receive::WOKEN);
    waker.join();
}

TEST_F(PacketSource, TakesPortThatComesWhileItWaits)
{
    const lab::veth later("pkB");
    lab::wire later_host("pkBp");
    std::thread changer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        interfaces_.set(OTHER_IOD, "pkB", INTERFACE_SWITCHPORT);
        source_.wake();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        later_host.send(PLAIN);
    });
    EXPECT_EQ(receive().iod, OTHER_IOD);
    changer.join();
}

TEST_F(PacketSource, RecognisesHandlesOfMessagesThatAreGone)
{
    host_.send(PLAIN);
    const mbus_msg msg = receive_message();
    EXPECT_EQ(source_.drop(msg), 0);
    EXPECT_EQ(source_.payload(msg, nullptr), nullptr);
    EXPECT_EQ(source_.drop(msg), 0);
    mbus_msg never = msg;
    never.word[1] += 1000;
    EXPECT_EQ(source_.drop(never), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(source_.payload(never, nullptr), nullptr);
}

TEST_F(PacketSource, TakesFramesOfEveryLengthThatTheDeviceSends)
{
    for (std::size_t length = 14; length <= 1514; ++length) {
        const bytes frame = ethernet(HOST_B, HOST_A, 0x88B5) + counting(length - 14);
        host_.send(frame);
        ASSERT_EQ(receive().frame, frame);
    }
}

TEST_F(PacketSource, TakesJumboFramesWhole)
{
    lab::run("ip link set pkA mtu 9000 && ip link set pkAp mtu 9000");
    const bytes frame = ethernet(HOST_B, HOST_A, 0x88B5) + counting(8900);
    host_.send(frame);
    host_.send(PLAIN);
    EXPECT_THAT(receive().frame, ElementsAreArray(frame));
    EXPECT_THAT(receive().frame, ElementsAreArray(PLAIN));
}

TEST_F(PacketSource, CountsTaggedFrameTooShortForItsTag)
{
    const std::uint64_t before = lab::drops("site frame shorter than its headers");
    host_.send(ethernet(HOST_B, HOST_A, 0x8100) + hex("0064") + be16(4) + hex("01020304"));   // 802.3 without SNAP header
    host_.send(PLAIN);
    EXPECT_THAT(receive().frame, ElementsAreArray(PLAIN));
    EXPECT_EQ(lab::drops("site frame shorter than its headers"), before + 1);
}
