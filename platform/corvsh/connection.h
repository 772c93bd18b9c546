// The shell's connection to the command server. One line at a time.
#pragma once

#include "../wire/cmdsrv.h"

#include <functional>
#include <string>
#include <vector>

namespace corvsh {

using corvane::byte_view;

struct outcome {
    int status = 0;                              // STATUS_...
    corvane::shell_mode mode = corvane::shell_mode::EXEC;
    bool over = false;                           // the session ended
    bool lost = false;                           // the connection did
    [[nodiscard]] bool accepted() const
    {
        return !lost && (status == corvane::STATUS_DONE || status == corvane::STATUS_STOPPED);
    }
};
struct choice {
    std::string word, help;
    bool insertable = false;
};
struct choices {
    std::size_t from = 0;                        // where the word that is completed begins
    std::vector<choice> list;
    std::size_t error_at = 0;
    std::string error;                           // no way to get there
    bool lost = false;
};

// What becomes of a command's output. `print` returns false when no more is wanted; so does `interrupted` with true,
// which is asked when a signal ended the wait.
struct reader {
    std::function<bool(bool error, std::string_view text)> print;
    std::function<void(std::size_t at, std::size_t length, const std::string &text)> mistake;
    std::function<bool()> interrupted = [] { return false; };
};

class connection {
public:
    ~connection();
    // False: `error` says why not.
    bool open(const std::string &root, std::string &error);
    outcome execute(const std::string &line, const reader &to);
    choices complete(const std::string &line);
    [[nodiscard]] const std::string &host() const { return host_; }
    [[nodiscard]] const std::string &notice() const { return notice_; }

private:
    bool send(std::uint32_t kind, byte_view record);
    bool receive(std::uint32_t &kind, byte_view &record, const std::function<void()> &on_signal = {});
    void give_file(const std::string &path);

    int fd_ = -1;
    corvane::frame_splitter splitter_;
    std::string host_, notice_;
};

} // namespace corvsh
