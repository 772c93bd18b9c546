// Fixture of the tests that run on the fake platform.
#pragma once

#include "fake.h"
#include "frames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Each test starts on an empty platform with the process lock held, and ends with the books in order.
class FakePlatformTest : public ::testing::Test {
protected:
    FakePlatformTest()
    {
        platform.reset();
        plock_acquire_process_lock();
        platform.forget();
    }
    ~FakePlatformTest() override
    {
        EXPECT_EQ(platform.double_drops, 0u) << "a message was dropped twice";
        EXPECT_EQ(platform.lock_errors, 0u) << "the process lock was given up or relied on without being held";
        EXPECT_EQ(platform.mbufs_out(), 0u) << "packet buffers were not given back";
        EXPECT_FALSE(platform.route_lock_held) << "the route table's reader lock was left held";
        platform.reset();
        while (platform.lock_held())
            plock_release_process_lock();
    }
};
