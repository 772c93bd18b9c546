// Core interfaces that do not take an overlay's full frames whole.
#include "../packet/overlay_size.h"

#include "../interfaces.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <tuple>

using namespace corvane;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::uint32_t OVERLAY = 600, OTHER = 601, CORE = 21, OTHER_CORE = 22;
constexpr std::uint32_t UDP4 = 1550, UDP6 = 1570, GRE4 = 1542, GRE6 = 1562;

class OverlaySize : public testing::Test {
protected:
    OverlaySize()
    {
        name(OVERLAY, "Overlay1", INTERFACE_OVERLAY);
        name(OTHER, "Overlay2", INTERFACE_OVERLAY);
        name(CORE, "core0", 0, 1500);
        name(OTHER_CORE, "core1", 0, 1500);
    }
    void name(std::uint32_t iod, const char *text, std::uint32_t flags, std::uint32_t mtu = 0)
    {
        interface_slot &slot = table_->slot[iod];
        slot.flags = INTERFACE_PRESENT | INTERFACE_UP | flags;
        slot.mtu = mtu;
        char bytes[8] = {};
        std::memcpy(bytes, text, std::min(std::strlen(text), sizeof bytes));
        std::uint64_t word = 0;
        std::memcpy(&word, bytes, sizeof word);
        slot.name[0] = word;
    }
    void set_mtu(std::uint32_t mtu) { table_->slot[CORE].mtu = mtu; }
    static overlay_config overlay(bool gre = false, std::uint8_t family = 4, std::uint32_t iod = OVERLAY)
    {
        overlay_config o;
        o.iod = iod;
        o.core_iod = CORE;
        o.gre = gre;
        o.family = family;
        o.up = true;
        return o;
    }
    std::vector<std::string> look(const std::vector<overlay_config> &overlays)
    {
        return notices_.look(overlays, *table_);
    }

    std::unique_ptr<interface_table> table_ = std::make_unique<interface_table>();
    overlay_size_notices notices_;
};

const std::string NOTICE =
    "Overlay1: full frames take packets of 1550 bytes, the MTU of core0 is 1500: they leave in fragments";

} // namespace

TEST_F(OverlaySize, CountsTheHeadersOfEachFormat)
{
    EXPECT_EQ(overlay_full_packet(overlay(false, 4)), UDP4);
    EXPECT_EQ(overlay_full_packet(overlay(false, 5)), UDP6);
    EXPECT_EQ(overlay_full_packet(overlay(true, 4)), GRE4);
    EXPECT_EQ(overlay_full_packet(overlay(true, 5)), GRE6);
}

TEST_F(OverlaySize, IsSaidOnceWithBothNumbers)
{
    EXPECT_THAT(look({overlay()}), ElementsAre(NOTICE));
    EXPECT_THAT(look({overlay()}), IsEmpty());
}

TEST_F(OverlaySize, IsNotSaidWhereAFullFrameJustFits)
{
    constexpr std::tuple<bool, int, std::uint32_t> FORMATS[] = {
        {false, 4, UDP4}, {false, 5, UDP6}, {true, 4, GRE4}, {true, 5, GRE6}};
    for (const auto &[gre, family, fits] : FORMATS) {
        const std::vector one{overlay(gre, static_cast<std::uint8_t>(family))};
        set_mtu(fits);
        EXPECT_THAT(look(one), IsEmpty()) << fits;
        set_mtu(fits - 1);
        EXPECT_EQ(look(one).size(), 1u) << fits;
    }
}

TEST_F(OverlaySize, WaitsUntilTheOverlayIsUpAndItsInterfaceKnown)
{
    overlay_config o = overlay();
    o.up = false;
    EXPECT_THAT(look({o}), IsEmpty());
    o.up = true;
    o.core_iod = 0;
    EXPECT_THAT(look({o}), IsEmpty());
    o.core_iod = CORE;
    EXPECT_THAT(look({o}), ElementsAre(NOTICE));
}

TEST_F(OverlaySize, IsNotSaidAgainAfterAFlap)
{
    overlay_config o = overlay();
    EXPECT_EQ(look({o}).size(), 1u);
    o.up = false;
    EXPECT_THAT(look({o}), IsEmpty());
    o.up = true;
    EXPECT_THAT(look({o}), IsEmpty());
}

TEST_F(OverlaySize, IsSaidAgainWhenANumberOrTheInterfaceChanges)
{
    overlay_config o = overlay();
    EXPECT_EQ(look({o}).size(), 1u);
    set_mtu(1400);
    EXPECT_EQ(look({o}).size(), 1u);
    o.family = 5;
    EXPECT_EQ(look({o}).size(), 1u);
    o.core_iod = OTHER_CORE;
    EXPECT_EQ(look({o}).size(), 1u);
    EXPECT_THAT(look({o}), IsEmpty());
}

TEST_F(OverlaySize, IsSaidAgainAfterTheMtuWasLargeEnough)
{
    EXPECT_EQ(look({overlay()}).size(), 1u);
    set_mtu(9000);
    EXPECT_THAT(look({overlay()}), IsEmpty());
    set_mtu(1500);
    EXPECT_THAT(look({overlay()}), ElementsAre(NOTICE));
}

TEST_F(OverlaySize, IsSaidForEachOverlayAndForOneThatWasMadeAnew)
{
    EXPECT_EQ(look({overlay(), overlay(false, 4, OTHER)}).size(), 2u);
    EXPECT_THAT(look({overlay(false, 4, OTHER)}), IsEmpty());
    EXPECT_THAT(look({overlay(), overlay(false, 4, OTHER)}), ElementsAre(NOTICE));
}
