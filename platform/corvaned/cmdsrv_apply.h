// `configure file`: makes the running configuration that of a file, by entering only what differs.
#pragma once

#include "cmdsrv.h"

namespace corvaned {

class file_application : public std::enable_shared_from_this<file_application> {
public:
    file_application(bool check, std::string name) : check_(check), name_(std::move(name)) {}

    std::function<void(const std::string &text)> print;
    std::function<void(int status)> done;            // once

    void data(std::uint8_t kind, std::string_view text);     // a piece of the file, FILE_...
    void stop() { stopped_ = true; }                 // behind the lines that are on their way nothing more is entered

private:
    void begin();
    void show(const config_difference &what);
    void drive();
    [[nodiscard]] bool may_go_on();
    [[nodiscard]] static std::string client_of(const config_difference::change &change);
    void carry_out(const config_difference::change &change);
    void answered(const config_difference::change &change, int status, std::string text);
    void finish(int status);

    bool check_, stopped_ = false, driving_ = false;
    std::string name_, text_;
    std::string with_;                               // who the lines are with that are on their way
    std::size_t on_the_way_ = 0;
    std::vector<config_difference::change> changes_;
    std::size_t at_ = 0, failed_ = 0;
};

} // namespace corvaned
