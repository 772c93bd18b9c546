// The other end of the library's connection: a server on a root of its own that records what it is asked and answers
// as told. One root a test program, as the library asks for it once.
#pragma once

#include "../../wire/bus.h"
#include "../../wire/bytes.h"
#include "../../wire/frame.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace corvane_test {

using corvane::byte_reader;
using corvane::byte_view;
using corvane::byte_writer;

struct request {
    std::uint32_t kind = 0, method = 0;
    std::vector<std::uint8_t> body;
};
struct answer {
    std::uint32_t error = 0;
    std::vector<std::uint8_t> data;
    bool silent = false;                     // no answer at all
};

class corvaned_double {
public:
    static corvaned_double &the();

    void start();                            // listens; harmless when it does
    void stop();                             // ends the connection and listens no more
    void disconnect();                       // ends the connection; the library comes back by itself

    void answer_with(std::uint32_t method, std::function<answer(byte_view)> handler);
    void forget();                           // answers and records
    // Waits for the n-th request of a method since forget(); null when it does not come.
    const request *await(std::uint32_t method, std::size_t n = 1);
    std::vector<request> all();
    std::size_t count(std::uint32_t method);
    void await_connection();
    std::size_t connections();               // so far, and those of them whose first frame was no greeting
    std::size_t ungreeted();

    void deliver(std::uint32_t queue, std::uint32_t opcode, byte_view payload, std::uint32_t source_sap = 7,
                 std::uint32_t sync_event = 0);
    void send(std::uint32_t kind, std::uint32_t number, byte_view body);

private:
    corvaned_double();
    void run();
    void serve(int fd);
    answer answer_to(const request &r);

    std::string root_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::thread thread_;
    int listener_ = -1, connection_ = -1;
    bool stopping_ = false, greeted_ = false;
    std::size_t connections_ = 0, ungreeted_ = 0;
    std::uint32_t next_sap_ = 0x10000;
    std::vector<request> requests_;
    std::map<std::uint32_t, std::function<answer(byte_view)>> answers_;
};

std::vector<std::uint8_t> bytes(std::string_view text);

} // namespace corvane_test
