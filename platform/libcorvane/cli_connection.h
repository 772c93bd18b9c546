// Connection of this process to the command server, used by the command thread. Comes back by itself when the server
// was away; what is in effect here is told to it then, so that nothing is applied twice.
#pragma once

#include "../wire/cmdsrv.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <unordered_map>

struct cli_cmd;

namespace corvane {

// Lines that were carried out and stay in effect, by what the server compares them with.
class applied_lines {
public:
    void change(const execute_record &record);
    void forget(const std::string &interface) { by_interface_.erase(interface); }
    template <class Visit> void each(Visit visit) const      // visit(interface, line)
    {
        for (const auto &[interface, lines] : by_interface_)
            for (const auto &[key, line] : lines)
                visit(interface, line.empty() ? key : line);
    }

private:
    // A line that is its own key stands in the key only.
    std::unordered_map<std::string, std::unordered_multimap<std::string, std::string>> by_interface_;
};

// A request that arrived, with what was said of it since: it may be stopped before it begins.
struct queued_request {
    execute_record record;
    std::uint64_t credit = CLIENT_FIRST_CREDIT;
    bool stopped = false;
};

class cli_connection {
public:
    // 0, or an errno value: no server, or it refuses this client. Waits a bounded time.
    [[nodiscard]] int open(const std::string &client);
    void announce(const std::vector<std::string> &handlers, const applied_lines &applied);
    void close();
    [[nodiscard]] bool is_open() const { return fd_ >= 0; }

    bool send(std::uint32_t kind, byte_view record);
    // Waits until something arrived, `wake_fd` is readable or the time is over. False: the connection is gone.
    bool wait(int wake_fd, int timeout_ms);
    // Takes the next request that arrived, in order. One without handler says that the lines of its interface went
    // with it. Does not wait.
    [[nodiscard]] bool next_request(queued_request &request);
    void look(cli_cmd *running);                             // reads what is there
    void wait_for_news(cli_cmd &running, int timeout_ms);

private:
    bool read_some();
    void take(std::uint32_t kind, byte_view record, cli_cmd *running);
    [[nodiscard]] int greet(const std::string &client);

    int fd_ = -1;
    frame_splitter splitter_;
    std::deque<queued_request> requests_;
};

[[nodiscard]] bool cli_ending();                             // the command thread is to end

} // namespace corvane
