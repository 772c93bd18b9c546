// Fixture of the contract tests.
#include "contract_test.h"

namespace contract {

ContractTest::ContractTest() CORVANE_NO_TSA
{
    begin_test();
    plock_proc_attr attr;
    EXPECT_TRUE(plock_proc_attr_init(attr));
    attr.service = SERVICE;
    EXPECT_TRUE(plock_init_proc(attr));
    plock_acquire_process_lock();
}

ContractTest::~ContractTest() CORVANE_NO_TSA
{
    for (const mbus_q queue : queues_)
        mbus_unbind(queue, 0);
    end_test();
    plock_release_process_lock();
}

mbus_q ContractTest::bind(std::uint32_t sap, std::uint32_t depth)
{
    mbus_q_attr attr;
    attr.depth = depth;
    const mbus_q queue = mbus_bind(1, sap, attr, "contract");
    EXPECT_NE(queue, MBUS_Q_INVALID) << std::strerror(errno);
    if (queue != MBUS_Q_INVALID)
        queues_.push_back(queue);
    return queue;
}

void ContractTest::unbind(mbus_q queue)
{
    EXPECT_EQ(mbus_unbind(queue, 0), 0);
    std::erase(queues_, queue);
}

int ContractTest::send(mbus_q from, std::uint32_t sap, std::uint32_t opcode, const bytes &payload)
{
    return mbus_send(from, {0, sap}, opcode, payload.empty() ? nullptr : payload.data(), payload.size(), {});
}

int ContractTest::notify(mbus_q from, std::uint32_t opcode, const bytes &payload)
{
    return mbus_send(from, {MBUS_NOTIFY_DESTINATION, 0}, opcode, payload.empty() ? nullptr : payload.data(),
                     payload.size(), {});
}

bytes ContractTest::payload(const mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *data = mbus_payload_get(msg, &length);
    return data == nullptr ? bytes{} : bytes(data, data + length);
}

std::uint32_t ContractTest::next_opcode(mbus_q queue)
{
    mbus_msg msg;
    if (!receive(queue, msg))
        return 0;
    const std::uint32_t opcode = mbus_opc_get(msg);
    EXPECT_EQ(mbus_drop(queue, msg), 0);
    return opcode;
}

} // namespace contract
