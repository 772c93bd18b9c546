// Both ends of the command server inside a test: a shell and a client that speak its frames, and interfaces that the
// test makes up. The loop is turned by hand.
#pragma once

#include "../cmdsrv.h"
#include "platform_process.h"

#include "../../wire/cmdsrv.h"

#include <gtest/gtest.h>

#include <map>

namespace corvaned_test {

class framed_peer {
public:
    explicit framed_peer(const char *socket);
    ~framed_peer() { close(); }
    framed_peer(const framed_peer &) = delete;
    framed_peer &operator=(const framed_peer &) = delete;

    void send(std::uint32_t kind, byte_view record = {});
    void send_raw(byte_view bytes);
    void close();
    [[nodiscard]] bool closed();                     // by the other side
    void read();                                     // what is there now

    struct frame {
        std::uint32_t kind;
        std::vector<std::uint8_t> record;
        [[nodiscard]] byte_reader in() const { return byte_reader(record); }
    };
    std::vector<frame> frames;                       // received and not taken yet

private:
    int fd_ = -1;
    bool closed_ = false;
    corvane::frame_splitter splitter_;
};

class fake_shell : public framed_peer {
public:
    fake_shell() : framed_peer(corvane::SHELL_SOCKET) { greet(); }

    struct answer {
        int status = -1;
        bool over = false, lost = false;
        corvane::shell_mode mode{};
        std::string out, error;                      // what was printed
        std::size_t at = 0;
        std::string mistake;
    };
    void begin(const std::string &line);
    // Turns the loop until the result is there; `between` runs between its turns.
    answer finish(const std::function<void()> &between = [] {});
    answer run(const std::string &line)
    {
        begin(line);
        return finish();
    }
    std::vector<std::string> choices(const std::string &line);
    std::string file;                                // given when a file is asked for; "" = it cannot be read
    std::string host, notice;

private:
    void greet();
    void give_file();
};

class fake_client : public framed_peer {
public:
    // Names itself and its handlers; what it has applied is told before it is ready.
    explicit fake_client(std::vector<std::string> handlers, const std::string &name = "lum",
                         const std::vector<corvaned::applied_line> &applied = {});
    // The next command that arrives; nothing when none comes.
    std::optional<corvane::execute_record> next();
    std::vector<corvane::execute_record> waiting();  // those that are there already, none of them answered
    void print(std::uint64_t request, const std::string &text);
    void result(std::uint64_t request, int status = corvane::STATUS_DONE);
    // Answers everything that comes until nothing does; returns "[interface] line" of each, in order.
    std::vector<std::string> serve(const std::map<std::string, std::string> &refuse = {});

    bool welcome = false;
    std::uint64_t credit = 0;
    bool stopped = false;
    std::vector<std::string> forgotten;

private:
    void sort_frames();
    std::vector<corvane::execute_record> requests_;
};

// The daemon's and the platform's grammar, two devices and no lines; handlers of the platform that note what they did.
class CommandServer : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    void interface(const std::string &name, std::uint32_t iod, bool up = true);
    static std::string running() { return corvaned::cmdsrv().running.text(); }
    static void load(const std::string &text);       // as the startup file
    std::vector<std::string> platform_did;           // "[interface] no handler argument=value"
    std::string platform_refuses;                    // this handler prints a line and refuses

    std::map<std::string, corvaned::interface_info> interfaces;
};

inline const std::vector<std::string> DAEMON_HANDLERS = {
    "lum_show_overlay_cmd", "lum_show_vlan_cmd", "lum_vpn_name_cmd", "lum_vpn_vlan_cmd", "lum_vpn_mgroup_addr_cmd",
    "lum_vlan_cmd", "lum_route_cmd", "lum_mroute_cmd", "lum_anycast_arp_cmd", "lum_filter_fhrp_cmd",
};

} // namespace corvaned_test
