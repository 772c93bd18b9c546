#include "cmdsrv_apply.h"

#include <algorithm>
#include <utility>

namespace corvaned {

namespace {

constexpr std::size_t FILE_MAX_BYTES = 64 * 1024 * 1024, SAID_MAX = 1024;
// Lines that are carried out at once before others get their turn: those of the platform do not wait for anybody.
constexpr std::size_t LINES_A_TURN = 64;
// Lines that are with a client and not answered yet. It takes them in order, and waiting for each answer would cost
// more than the lines themselves.
constexpr std::size_t ON_THE_WAY_MAX = 64;

std::string placed(const std::string &interface, const std::string &line)
{
    return interface.empty() ? line : "interface " + interface + ": " + line;
}

constexpr const char *PLATFORM = "platform";

parse_result parse_change(const config_difference::change &change)
{
    return parse({&cmdsrv().commands, mode_of_interface(change.interface), false, false, nullptr}, change.line);
}

} // namespace

void file_application::finish(int status)
{
    if (const auto call = std::exchange(done, nullptr))
        call(status);
}

void file_application::data(std::uint8_t kind, std::string_view text)
{
    if (kind == corvane::FILE_FAILED) {
        print(name_ + ": " + std::string(text) + "\n");
        finish(corvane::STATUS_REJECTED);
        return;
    }
    if (text_.size() + text.size() > FILE_MAX_BYTES) {
        print(name_ + ": too long\n");
        finish(corvane::STATUS_REJECTED);
        return;
    }
    text_ += text;
    if (kind == corvane::FILE_LAST)
        begin();
}

void file_application::begin()
{
    config_store wanted;
    std::size_t refused = 0;
    read_configuration(
        text_,
        [&](const file_line &line) {
            if (line.command.command->enters_interface && !line.command.no)
                wanted.make_interface(line.command.interfaces.front(), line.command.command);
            else
                wanted.apply(line.interface, line.command);
        },
        [&](std::uint32_t number, const std::string &what) {
            ++refused;
            print(name_ + ":" + std::to_string(number) + ": " + what + "\n");
        });
    text_ = {};
    if (refused > 0) {                               // what could not be read would be taken for what is to go
        print("nothing was changed: the file has mistakes\n");
        finish(corvane::STATUS_REJECTED);
        return;
    }
    const auto what = difference(cmdsrv().running, wanted);
    if (check_) {
        show(what);
        return;
    }
    changes_ = what.back;
    changes_.insert(changes_.end(), what.enter.begin(), what.enter.end());
    drive();
}

void file_application::show(const config_difference &what)
{
    for (const auto *list : {&what.back, &what.replaced})
        for (const auto &change : *list)
            print("- " + placed(change.interface, change.gone) + "\n");
    for (const auto &change : what.enter)
        print("+ " + placed(change.interface, change.line) + "\n");
    if (what.back.empty() && what.enter.empty())
        print("nothing differs\n");
    finish(corvane::STATUS_DONE);
}

// Lines of the platform are done at once, those of clients later: then the answer goes on.
void file_application::drive()
{
    if (std::exchange(driving_, true))
        return;
    for (std::size_t n = 0; n < LINES_A_TURN && may_go_on(); ++n)
        carry_out(changes_[at_++]);
    driving_ = false;
    if (may_go_on()) {
        after(std::chrono::milliseconds(0), [self = shared_from_this()] { self->drive(); });
        return;
    }
    if (on_the_way_ > 0 || (at_ < changes_.size() && !stopped_))
        return;
    if (at_ < changes_.size())
        print("stopped: " + std::to_string(changes_.size() - at_) + " lines were not entered\n");
    finish(failed_ == 0 && at_ == changes_.size() ? corvane::STATUS_DONE : corvane::STATUS_REJECTED);
}

// Lines overtake each other only where nobody could see it: those of one client stay in order.
bool file_application::may_go_on()
{
    if (stopped_ || at_ == changes_.size())
        return false;
    if (on_the_way_ == 0)
        return true;
    return on_the_way_ < ON_THE_WAY_MAX && with_ != PLATFORM && client_of(changes_[at_]) == with_;
}

std::string file_application::client_of(const config_difference::change &change)
{
    const auto parsed = parse_change(change);
    return change.line.empty() || parsed.error ? PLATFORM : parsed.command.command->client;
}

void file_application::answered(const config_difference::change &change, int status, std::string text)
{
    if (status != corvane::STATUS_DONE) {
        ++failed_;
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        print(placed(change.interface, change.line) + ": " + (text.empty() ? "rejected" : text) + "\n");
    }
    --on_the_way_;
    drive();
}

void file_application::carry_out(const config_difference::change &change)
{
    ++on_the_way_;
    with_ = PLATFORM;
    if (change.line.empty()) {
        cmdsrv().running.remove(change.id);
        answered(change, corvane::STATUS_DONE, "");
        return;
    }
    auto parsed = parse_change(change);
    if (parsed.error) {
        answered(change, corvane::STATUS_REJECTED, parsed.error.text);
        return;
    }
    with_ = parsed.command.command->client;
    const auto said = std::make_shared<std::string>();
    command_request request;
    request.command = std::move(parsed.command);
    request.interface = change.interface;
    request.output = [said](std::string_view text) { said->append(text.substr(0, SAID_MAX)); };
    request.done = [self = shared_from_this(), said, &change](int status, const std::string &why) {
        self->answered(change, status, *said + why);
    };
    (void)run_command(std::move(request));
}

} // namespace corvaned
