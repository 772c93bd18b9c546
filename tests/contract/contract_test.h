// Fixture of the contract tests: the process is known to its platform and holds the process lock.
#pragma once

#include "contract_platform.h"

#include "intfmgr.h"
#include "mbus.h"
#include "plock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace contract {

class ContractTest : public ::testing::Test {
protected:
    ContractTest();
    ~ContractTest() override;

    // Queues are unbound after the test.
    mbus_q bind(std::uint32_t sap, std::uint32_t depth = 64);
    void unbind(mbus_q queue);
    static int send(mbus_q from, std::uint32_t sap, std::uint32_t opcode, const bytes &payload = {});
    static int notify(mbus_q from, std::uint32_t opcode, const bytes &payload = {});
    static bytes payload(const mbus_msg &msg);
    // Opcode of the next message, 0 when none came; the message is dropped.
    static std::uint32_t next_opcode(mbus_q queue);
    static std::uint32_t iod(const char *name) { return intfmgr_get_if_by_name(name); }

private:
    std::vector<mbus_q> queues_;
};

template <class T> T host(const bytes &data, std::size_t at)
{
    T value{};
    if (at + sizeof value <= data.size())
        std::memcpy(&value, data.data() + at, sizeof value);
    return value;
}
inline bytes text(const char *s) { return {s, s + std::strlen(s)}; }
inline bytes counting(std::size_t length)
{
    bytes data(length);
    for (std::size_t i = 0; i < length; ++i)
        data[i] = static_cast<std::uint8_t>(i);
    return data;
}

} // namespace contract
