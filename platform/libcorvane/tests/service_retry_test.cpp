// When the service manager is asked again for a service whose set-up failed.
#include "../service_retry.h"

#include <gmock/gmock.h>

using corvane::service_failed, corvane::services_to_retry;
using testing::ElementsAre, testing::IsEmpty;

namespace {

// Numbers of their own: what failed is kept for the life of the process.
constexpr std::uint32_t ONE = 9001, OTHER = 9002, STUBBORN = 9003;

} // namespace

TEST(ServiceRetry, AsksOnceASecondAfterTheFailure)
{
    EXPECT_THAT(services_to_retry(1000), IsEmpty());
    service_failed(ONE);
    service_failed(ONE);
    EXPECT_THAT(services_to_retry(1000), IsEmpty());
    EXPECT_THAT(services_to_retry(1001), ElementsAre(ONE));
    EXPECT_THAT(services_to_retry(1002), IsEmpty());
    EXPECT_THAT(services_to_retry(2000), IsEmpty());
}

TEST(ServiceRetry, KeepsServicesApart)
{
    service_failed(ONE);
    EXPECT_THAT(services_to_retry(5000), IsEmpty());
    service_failed(OTHER);
    EXPECT_THAT(services_to_retry(5001), ElementsAre(ONE));
    EXPECT_THAT(services_to_retry(5002), ElementsAre(OTHER));
}

TEST(ServiceRetry, WaitsTwiceAsLongAfterEachFailureUpToAMinute)
{
    std::uint64_t now = 10000;
    for (const std::uint64_t wait : {1, 2, 4, 8, 16, 32, 60, 60}) {
        service_failed(STUBBORN);
        EXPECT_THAT(services_to_retry(now), IsEmpty());
        EXPECT_THAT(services_to_retry(now + wait - 1), IsEmpty()) << wait;
        EXPECT_THAT(services_to_retry(now + wait), ElementsAre(STUBBORN)) << wait;
        now += wait;
    }
    now += 100;                                                // it was well meanwhile
    service_failed(STUBBORN);
    EXPECT_THAT(services_to_retry(now), IsEmpty());
    EXPECT_THAT(services_to_retry(now + 1), ElementsAre(STUBBORN));
}
