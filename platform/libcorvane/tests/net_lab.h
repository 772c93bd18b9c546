// A network of the test's own: one private namespace a process, veth pairs in it, the interface table of a corvaned that
// is not there, and sockets that send and capture on the far ends.
#pragma once

#include "../../wire/intfmgr.h"
#include "../packet/offload.h"
#include "packet_frames.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace lab {

using frames::bytes;

// Enters the namespace and makes the platform's folder, once a process. Throws std::runtime_error without the right to.
void enter();
void run(const std::string &command);                          // throws when it fails
void write_setting(const std::string &path, const std::string &value);

// Devices NAME and NAMEp, both up, silent (no IPv6), deleted with the object.
class veth {
public:
    explicit veth(const std::string &name, const std::string &options = "");
    ~veth();
    veth(const veth &) = delete;
    veth &operator=(const veth &) = delete;
    [[nodiscard]] std::uint32_t ifindex() const;
    [[nodiscard]] std::string peer() const { return name_ + "p"; }
    [[nodiscard]] const std::string &name() const { return name_; }
    void remove();

private:
    std::string name_;
    bool there_ = true;
};

[[nodiscard]] bytes mac_of(const std::string &device);
[[nodiscard]] std::uint32_t index_of(const std::string &device);

struct captured {
    bytes frame;                             // a tag in the metadata stands in its place again
    bool unfinished = false;
    std::uint8_t gso_type = 0;
};

// A raw socket on a device. It sees what comes in there.
class wire {
public:
    explicit wire(const std::string &device);
    ~wire();
    wire(const wire &) = delete;
    wire &operator=(const wire &) = delete;
    void send(const bytes &frame, const corvane::offload_meta &meta = {});
    [[nodiscard]] bool try_send(const bytes &frame, const corvane::offload_meta &meta = {});
    [[nodiscard]] std::optional<captured> receive(int wait_ms = 1000);
    // The next frame that `wanted` takes; others are skipped.
    template <class Wanted> std::optional<captured> receive_if(Wanted wanted, int wait_ms = 1000)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            std::optional<captured> c = receive(static_cast<int>(std::max<long long>(left.count(), 0)));
            if (!c || wanted(c->frame))
                return c;
        }
    }

private:
    int fd_ = -1;
};

// The interface table, as corvaned would write it.
class interface_file {
public:
    interface_file();
    ~interface_file();
    void set(std::uint32_t iod, const std::string &device, std::uint32_t flags);
    void clear(std::uint32_t iod);
    [[nodiscard]] corvane::interface_table &table() { return *table_; }

private:
    void bump();
    corvane::interface_table *table_ = nullptr;
};

[[nodiscard]] std::uint64_t drops(const char *text);           // of the reason that prints so

} // namespace lab
