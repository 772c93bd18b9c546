// The platform process inside the test: its services on a root of their own, its loop turned by hand, and clients that
// speak the bus's frames byte by byte.
#pragma once

#include "../corvaned.h"

#include "../../wire/bus.h"
#include "../../wire/frame.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace corvaned_test {

using corvane::byte_reader;
using corvane::byte_view;
using corvane::byte_writer;

// Made once a test program; the services cannot be stopped and started again in one process.
class platform_process {
public:
    static platform_process &the();
    [[nodiscard]] const std::string &root() const { return root_; }
    // Turns the loop until the condition holds. False after five seconds without it.
    static bool until(const std::function<bool()> &condition);
    static void turns(int count = 8);               // turns that wait for nothing

private:
    platform_process();
    std::string root_;
};

struct frame {
    corvane::frame_header header;
    std::vector<std::uint8_t> body;
    [[nodiscard]] byte_reader read() const { return byte_reader(body); }
};

struct delivered {
    corvane::delivery_header header;
    std::uint32_t queue = 0;
    std::vector<std::uint8_t> payload;
};

class bus_client {
public:
    explicit bus_client(bool greet = true);
    ~bus_client();
    bus_client(const bus_client &) = delete;
    bus_client &operator=(const bus_client &) = delete;

    void send(std::uint32_t kind, std::uint32_t number, std::uint64_t id, byte_view body);
    void send_raw(byte_view packet);
    corvaned::answer call(std::uint32_t method, byte_view request);
    void oneway(std::uint32_t method, byte_view request) { send(corvane::FRAME_ONEWAY, method, 0, request); }

    std::uint32_t bind(std::uint32_t queue, std::uint32_t sap, std::uint32_t depth = 16);      // error
    std::uint32_t option(std::uint32_t queue, std::uint32_t opcode, std::uint32_t option);
    int send_message(std::uint32_t queue, std::uint32_t sap, std::uint32_t opcode, byte_view payload = {});
    int notify(std::uint32_t queue, std::uint32_t opcode, byte_view payload = {});

    std::optional<frame> next();                     // the next reply that has arrived
    std::vector<frame> events();                     // everything that came by itself up to now, once
    std::vector<delivered> deliveries();             // everything delivered up to now, once
    [[nodiscard]] bool closed();                     // corvaned has closed the connection

private:
    int transfer(std::uint32_t queue, std::uint32_t node, std::uint32_t sap, std::uint32_t opcode, byte_view payload);
    bool read_one();
    int fd_ = -1;
    std::uint64_t last_id_ = 0;
    bool closed_ = false;
    std::vector<frame> frames_, events_;
    std::vector<delivered> deliveries_;
};

std::vector<std::uint8_t> bytes(std::string_view text);
std::vector<std::uint8_t> packet_of(const corvane::frame_header &header, byte_view body);

} // namespace corvaned_test
