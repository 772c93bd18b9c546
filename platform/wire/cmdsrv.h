// What the command server speaks: with clients that carry commands out, on <root>/cmdsrv.sock, and with shells, on
// <root>/cli.sock. Both are streams of frames: u32 length of what follows the kind, u32 kind, the record.
#pragma once

#include "bytes.h"
#include "methods.h"

#include <optional>

namespace corvane {

inline constexpr const char *CMDSRV_SOCKET = "cmdsrv.sock", *SHELL_SOCKET = "cli.sock";
inline constexpr std::uint32_t CMDSRV_VERSION = 1;
inline constexpr std::size_t CMDSRV_FRAME_HEADER = 8, CMDSRV_FRAME_MAX = 64 * 1024;

// ---- client -> command server
inline constexpr std::uint32_t
    CLIENT_HELLO = 1,        // u32 CMDSRV_VERSION, u64 instance (of the process, never 0), text name; answered WELCOME
    CLIENT_GRAMMAR = 2,      // text: a grammar file's text, for commands of this client
    CLIENT_HANDLER = 3,      // text: name of a handler
    CLIENT_APPLIED = 4,      // text interface, text line: in effect there since before this connection
    CLIENT_READY = 5,        // -: all handlers are named; what is configured and not in effect is sent
    CLIENT_REPLAY = 6,       // u32 iod, u64 request that is being carried out (0: none): the interface's lines again
    CLIENT_OUTPUT = 7,       // u64 request, the rest is text
    CLIENT_RESULT = 8;       // u64 request, i32 status

// ---- command server -> client
inline constexpr std::uint32_t
    SERVER_WELCOME = 1,      // u32 error (0 or an errno value), text why
    SERVER_EXECUTE = 2,      // execute_record
    SERVER_CREDIT = 3,       // u64 request, u32 bytes of output that may be sent beyond those granted before
    SERVER_STOP = 4,         // u64 request: no more output is wanted
    SERVER_FORGET = 5;       // text interface: its lines are gone with it

// Output that a client may send for a request before it is granted more.
inline constexpr std::uint32_t CLIENT_FIRST_CREDIT = 64 * 1024;

// How a line that was carried out changes what is in effect at the client, which it tells when the command server
// comes back after it was gone.
enum class applied_change : std::uint8_t {
    NOTHING,
    REPLACE_KEY,             // the line stands in place of all of its key
    MOVE_TO_END,             // the line stands once, as the last of its key
    APPEND,
    REMOVE_KEY,
    REMOVE_ONE,              // one line of this text goes
};

struct execute_record {
    std::uint64_t request = 0;
    std::string handler;
    bool no = false;
    std::uint32_t mode_iod = 0;
    std::string interface;                      // of the mode, "" at global level
    applied_change change = applied_change::NOTHING;
    std::string key;                            // "": the line is its own key
    std::string line;                           // with its "no " where that is what is kept
    std::vector<std::pair<std::string, std::string>> arguments;
};

inline void put_execute(byte_writer &out, const execute_record &record)
{
    out.put(record.request).text(record.handler).put<std::uint8_t>(record.no).put(record.mode_iod);
    out.text(record.interface).put(record.change).text(record.key).text(record.line);
    out.put(static_cast<std::uint32_t>(record.arguments.size()));
    for (const auto &[name, value] : record.arguments)
        out.text(name).text(value);
}

inline std::optional<execute_record> get_execute(byte_view data)
{
    byte_reader in(data);
    execute_record record;
    record.request = in.get<std::uint64_t>();
    record.handler = in.text();
    record.no = in.get<std::uint8_t>() != 0;
    record.mode_iod = in.get<std::uint32_t>();
    record.interface = in.text();
    record.change = in.get<applied_change>();
    record.key = in.text();
    record.line = in.text();
    const auto count = in.get<std::uint32_t>();
    for (std::uint32_t i = 0; i < count && in.ok(); ++i) {
        std::string name = in.text();
        record.arguments.emplace_back(std::move(name), in.text());
    }
    return in.done() ? std::optional(std::move(record)) : std::nullopt;
}

// ---- shell -> command server
inline constexpr std::uint32_t
    SHELL_HELLO = 1,         // u32 CMDSRV_VERSION; answered GREETING
    SHELL_EXECUTE = 2,       // text line; answered by what it prints and a RESULT
    SHELL_COMPLETE = 3,      // text line up to the cursor; answered CHOICES
    SHELL_STOP = 4,          // -: no more output of the command is wanted
    SHELL_FILE = 5;          // u8 more follows, text: the file that was asked for; u8 2: it cannot be read, text why

// ---- command server -> shell
inline constexpr std::uint32_t
    SHELL_GREETING = 1,      // u32 error (0 or an errno value), text why or host name, text notice
    SHELL_OUTPUT = 2,        // u8 SHELL_STREAM_..., the rest is text
    SHELL_ERROR = 3,         // u32 at, u32 length, text: the line was not understood there
    SHELL_RESULT = 4,        // i32 status, u8 shell_mode, u8 the session is over
    SHELL_CHOICES = 5,       // u32 from, u32 count, {text word, text help, u8 insertable}; u32 at, u32 length, text error
    SHELL_WANT_FILE = 6;     // text path: the shell reads the file, with its own rights

inline constexpr std::uint8_t SHELL_STREAM_OUT = 1, SHELL_STREAM_ERROR = 2;
enum class shell_mode : std::uint8_t { EXEC, CONFIGURE, INTERFACE };
inline constexpr std::int32_t STATUS_DONE = 0, STATUS_STOPPED = 1, STATUS_REJECTED = -500;
inline constexpr std::uint8_t FILE_LAST = 0, FILE_MORE = 1, FILE_FAILED = 2;

// ---- frames of a stream
inline void append_frame(std::vector<std::uint8_t> &out, std::uint32_t kind, byte_view record)
{
    const std::uint32_t header[2] = {static_cast<std::uint32_t>(record.size()), kind};
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(header);
    out.insert(out.end(), bytes, bytes + sizeof header);
    out.insert(out.end(), record.begin(), record.end());
}

// Collects what was read until a frame is whole. Holds at most one frame and what came behind it in the same read.
class frame_splitter {
public:
    void feed(byte_view data)
    {
        if (taken_ > 0) {
            bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(taken_));
            taken_ = 0;
        }
        bytes_.insert(bytes_.end(), data.begin(), data.end());
    }
    // True: `record` is valid until the next feed. A frame above the limit breaks the stream for good.
    bool next(std::uint32_t &kind, byte_view &record)
    {
        const byte_view rest = byte_view(bytes_).subspan(taken_);
        if (broken_ || rest.size() < CMDSRV_FRAME_HEADER)
            return false;
        byte_reader header(rest);
        const auto length = header.get<std::uint32_t>();
        kind = header.get<std::uint32_t>();
        broken_ = length > CMDSRV_FRAME_MAX;
        if (broken_ || rest.size() - CMDSRV_FRAME_HEADER < length)
            return false;
        record = rest.subspan(CMDSRV_FRAME_HEADER, length);
        taken_ += CMDSRV_FRAME_HEADER + length;
        return true;
    }
    [[nodiscard]] bool broken() const { return broken_; }

private:
    std::vector<std::uint8_t> bytes_;
    std::size_t taken_ = 0;
    bool broken_ = false;
};

} // namespace corvane
