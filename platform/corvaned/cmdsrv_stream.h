// One connection of the command server: frames in, frames out, both bounded. Reading can be paused.
#pragma once

#include "corvaned.h"

#include "../wire/cmdsrv.h"

#include <memory>

namespace corvaned {

class framed_stream : public std::enable_shared_from_this<framed_stream> {
public:
    struct hooks {
        std::function<void(std::uint32_t kind, byte_view record)> frame;
        std::function<void()> drained;          // what was sent has left, or less than the low mark of it waits
        std::function<void(const char *why)> closed;                       // once, from the loop; not by close()
    };
    // Takes the descriptor over; it is non-blocking.
    static std::shared_ptr<framed_stream> make(int fd, std::size_t most_waiting, hooks callbacks);
    ~framed_stream();

    // False: more would wait than the limit, and the connection is closed for that; or it is closed already.
    bool send(std::uint32_t kind, byte_view record);
    [[nodiscard]] std::size_t waiting() const { return out_.size() - out_sent_; }
    void pause(bool on);                        // frames that were read already stay until it goes on
    void close();
    // Closes once what waits has left, or after a short time.
    void finish();
    [[nodiscard]] bool open() const { return fd_ >= 0; }

    framed_stream(const framed_stream &) = delete;
    framed_stream &operator=(const framed_stream &) = delete;

private:
    framed_stream(int fd, std::size_t most_waiting, hooks callbacks)
        : fd_(fd), most_waiting_(most_waiting), hooks_(std::move(callbacks))
    {
    }
    void ready(std::uint32_t events);
    void read_some();
    void deliver();
    void write_some();
    void update();
    void fail(const char *why);
    void report(const char *why);

    int fd_;
    std::size_t most_waiting_;
    hooks hooks_;
    corvane::frame_splitter splitter_;
    std::vector<std::uint8_t> out_;
    std::size_t out_sent_ = 0;
    std::uint32_t watched_ = 0;
    bool paused_ = false, finishing_ = false, delivering_ = false, resume_queued_ = false;
};

inline constexpr std::size_t STREAM_LOW_MARK = 64 * 1024;

// Listens on <root>/<name>. False with errno.
[[nodiscard]] bool stream_listen(const char *name, mode_t access, std::function<void(int fd, const peer &who)> accepted);

} // namespace corvaned
