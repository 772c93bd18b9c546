// Feature manager client: answers go to whoever asked, the feature's state to the feature manager, which tells others.
#include "featmgr.h"

#include "../wire/bytes.h"
#include "../wire/svcmgr.h"

#include "client.h"

namespace {

using namespace corvane;

struct feature_request {
    std::uint32_t feature = SVC_LUM, request = 0;
};

// A request without payload is about the process's own feature.
feature_request read_request(const mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    byte_reader in({payload, length});
    const feature_request read{in.get<std::uint32_t>(), in.get<std::uint32_t>()};
    return in.ok() ? read : feature_request{};
}

} // namespace

void featmgr_rsp_feature_req(mbus_q queue, const mbus_msg &request, std::uint32_t status)
{
    const feature_request asked = read_request(request);
    const auto answer = byte_writer().put(asked.feature).put(asked.request).put(status).take();
    const mbus_addr source = mbus_saddr_get(request);
    if (source.sap == FEATMGR_SAP)
        (void)call(SVCMGR_FEATURE_ANSWER, answer);
    else
        (void)mbus_send(queue, source, FEATMGR_OPC_ANSWER, answer.data(), answer.size(), {});
}

void featmgr_notify_feature_status(mbus_q, std::uint32_t feature, std::uint32_t enabled, std::uint32_t status)
{
    (void)call(SVCMGR_FEATURE_STATUS, byte_writer().put(feature).put(enabled).put(status).view());
}
