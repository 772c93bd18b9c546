#include "cmdsrv_peers.h"

#include "cmdsrv_installed.h"

#include "../loop.h"
#include "../options.h"

#include <cstring>
#include <fstream>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace corvaned_test {

using namespace corvaned;

framed_peer::framed_peer(const char *name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = platform_process::the().root() + "/" + name;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        ADD_FAILURE() << path << ": " << std::strerror(errno);
}

void framed_peer::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    platform_process::turns();
}

void framed_peer::send_raw(byte_view rest)
{
    while (!rest.empty()) {
        const ssize_t sent = ::send(fd_, rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0)
            rest = rest.subspan(static_cast<std::size_t>(sent));
        else if (errno == EAGAIN)
            platform_process::turns(1);
        else
            return;
    }
}

void framed_peer::send(std::uint32_t kind, byte_view record)
{
    std::vector<std::uint8_t> bytes;
    corvane::append_frame(bytes, kind, record);
    send_raw(bytes);
}

void framed_peer::read()
{
    std::vector<std::uint8_t> buffer(64 * 1024);
    for (;;) {
        const ssize_t size = fd_ < 0 ? 0 : recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size < 0)
            return;
        if (size == 0) {
            closed_ = true;
            return;
        }
        splitter_.feed({buffer.data(), static_cast<std::size_t>(size)});
        std::uint32_t kind = 0;
        byte_view record;
        while (splitter_.next(kind, record))
            frames.push_back({kind, {record.begin(), record.end()}});
    }
}

bool framed_peer::closed()
{
    platform_process::turns();
    read();
    return closed_;
}

// ---- shell

void fake_shell::greet()
{
    send(corvane::SHELL_HELLO, byte_writer().put(corvane::CMDSRV_VERSION).view());
    EXPECT_TRUE(platform_process::until([&] {
        read();
        return !frames.empty();
    }));
    if (frames.empty())
        return;
    byte_reader in = frames.front().in();
    EXPECT_EQ(in.get<std::uint32_t>(), 0u);
    host = in.text();
    notice = in.text();
    frames.clear();
}

void fake_shell::begin(const std::string &line) { send(corvane::SHELL_EXECUTE, byte_writer().text(line).view()); }

void fake_shell::give_file()
{
    constexpr std::size_t PIECE = 30'000;
    for (std::size_t at = 0; at < file.size(); at += PIECE)
        send(corvane::SHELL_FILE, byte_writer().put(corvane::FILE_MORE).text(file.substr(at, PIECE)).view());
    if (file.empty())
        send(corvane::SHELL_FILE, byte_writer().put(corvane::FILE_FAILED).text("No such file or directory").view());
    else
        send(corvane::SHELL_FILE, byte_writer().put(corvane::FILE_LAST).text("").view());
}

fake_shell::answer fake_shell::finish(const std::function<void()> &between)
{
    answer result;
    bool done = false;
    const bool answered = platform_process::until([&] {
        between();
        read();
        while (!frames.empty() && !done) {
            const frame f = std::move(frames.front());
            frames.erase(frames.begin());
            byte_reader in = f.in();
            if (f.kind == corvane::SHELL_OUTPUT) {
                const bool error = in.get<std::uint8_t>() == corvane::SHELL_STREAM_ERROR;
                const byte_view text = in.rest();
                (error ? result.error : result.out).append(reinterpret_cast<const char *>(text.data()), text.size());
            } else if (f.kind == corvane::SHELL_ERROR) {
                result.at = in.get<std::uint32_t>();
                (void)in.get<std::uint32_t>();
                result.mistake = in.text();
            } else if (f.kind == corvane::SHELL_WANT_FILE) {
                give_file();
            } else if (f.kind == corvane::SHELL_RESULT) {
                result.status = in.get<std::int32_t>();
                result.mode = in.get<corvane::shell_mode>();
                result.over = in.get<std::uint8_t>() != 0;
                done = true;
            }
        }
        return done || (result.lost = closed() && frames.empty());
    });
    EXPECT_TRUE(answered) << "no result came";
    return result;
}

std::vector<std::string> fake_shell::choices(const std::string &line)
{
    send(corvane::SHELL_COMPLETE, byte_writer().text(line).view());
    std::vector<std::string> words;
    EXPECT_TRUE(platform_process::until([&] {
        read();
        return !frames.empty();
    }));
    if (frames.empty())
        return words;
    byte_reader in = frames.front().in();
    (void)in.get<std::uint32_t>();
    const auto count = in.get<std::uint32_t>();
    for (std::uint32_t i = 0; i < count; ++i) {
        words.push_back(in.text());
        (void)in.text();
        (void)in.get<std::uint8_t>();
    }
    frames.clear();
    return words;
}

// ---- client

fake_client::fake_client(std::vector<std::string> handlers, const std::string &name,
                         const std::vector<applied_line> &applied)
    : framed_peer(corvane::CMDSRV_SOCKET)
{
    static std::uint64_t last_instance = 0;
    send(corvane::CLIENT_HELLO, byte_writer().put(corvane::CMDSRV_VERSION).put(++last_instance).text(name).view());
    for (const auto &handler : handlers)
        send(corvane::CLIENT_HANDLER, byte_writer().text(handler).view());
    for (const auto &line : applied)
        send(corvane::CLIENT_APPLIED, byte_writer().text(line.interface).text(line.line).view());
    send(corvane::CLIENT_READY);
    EXPECT_TRUE(platform_process::until([&] {
        sort_frames();
        return welcome;
    }));
    EXPECT_TRUE(platform_process::until([&] { return client_ready(name); }));
}

void fake_client::sort_frames()
{
    read();
    for (const auto &f : frames) {
        byte_reader in = f.in();
        if (f.kind == corvane::SERVER_WELCOME)
            welcome = in.get<std::uint32_t>() == 0;
        else if (f.kind == corvane::SERVER_EXECUTE)
            requests_.push_back(corvane::get_execute(f.record).value());
        else if (f.kind == corvane::SERVER_FORGET)
            forgotten.push_back(in.text());
        else if (f.kind == corvane::SERVER_STOP)
            stopped = true;
        else if (f.kind == corvane::SERVER_CREDIT) {
            (void)in.get<std::uint64_t>();
            credit += in.get<std::uint32_t>();
        }
    }
    frames.clear();
}

std::vector<corvane::execute_record> fake_client::waiting()
{
    platform_process::turns();
    sort_frames();
    return requests_;
}

std::optional<corvane::execute_record> fake_client::next()
{
    for (int turn = 0; turn < 20 && requests_.empty(); ++turn) {
        platform_process::turns();
        sort_frames();
    }
    if (requests_.empty())
        return std::nullopt;
    auto request = std::move(requests_.front());
    requests_.erase(requests_.begin());
    return request;
}

void fake_client::print(std::uint64_t request, const std::string &text)
{
    byte_writer record;
    record.put(request).raw({reinterpret_cast<const std::uint8_t *>(text.data()), text.size()});
    send(corvane::CLIENT_OUTPUT, record.view());
}

void fake_client::result(std::uint64_t request, int status)
{
    send(corvane::CLIENT_RESULT, byte_writer().put(request).put(static_cast<std::int32_t>(status)).view());
}

std::vector<std::string> fake_client::serve(const std::map<std::string, std::string> &refuse)
{
    std::vector<std::string> done;
    while (const auto request = next()) {
        std::string line = request->no ? "no" : "";
        for (const auto &[name, value] : request->arguments)
            line += (line.empty() ? "" : " ") + value;
        const auto refused = refuse.find(line);
        if (refused != refuse.end())
            print(request->request, refused->second);
        result(request->request, refused != refuse.end() ? corvane::STATUS_REJECTED : corvane::STATUS_DONE);
        done.push_back("[" + request->interface + "] " + line);
    }
    return done;
}

// ---- the whole

void CommandServer::interface(const std::string &name, std::uint32_t iod, bool up)
{
    interfaces[name] = {iod, name, name.starts_with("Overlay"), false, up};
}

void CommandServer::SetUp()
{
    platform_process::the();
    auto &server = cmdsrv();
    if (server.commands.all().empty()) {
        EXPECT_TRUE(server.commands.add_file(installed_grammar("platform.cli")).empty());
        EXPECT_TRUE(server.commands.add_file(installed_grammar("lum.cli")).empty());
        cmdsrv_serve();
        clients_start();
        sessions_start();
    }
    interface("eth0", 1);
    interface("eth1", 2);
    server.interfaces.find = [this](const std::string &name) {
        const auto found = interfaces.find(name);
        return found == interfaces.end() ? 0 : found->second.iod;
    };
    server.interfaces.name = [this](std::uint32_t iod) {
        for (const auto &[name, i] : interfaces)
            if (i.iod == iod)
                return name;
        return std::string();
    };
    server.interfaces.up = [this](std::uint32_t iod) {
        for (const auto &[name, i] : interfaces)
            if (i.iod == iod)
                return i.up;
        return false;
    };
    server.interfaces.list = [this] {
        std::vector<interface_info> all;
        for (const auto &[name, i] : interfaces)
            all.push_back(i);
        return all;
    };
    for (const char *handler : {"switchport", "switchport_access_vlan", "switchport_trunk_allowed", "shutdown",
                                "join_group", "chassis", "interface_overlay"})
        serve_command(handler, [this](command &c) {
            std::string did = "[" + c.mode_name + "]" + (c.no ? " no " : " ") + c.handler;
            for (const auto &[name, value] : c.arguments)
                if (name.front() == '<')
                    did += " " + name + "=" + value;
            platform_did.push_back(did);
            if (c.handler == platform_refuses) {
                c.print("not today\n");
                return corvane::STATUS_REJECTED;
            }
            if (c.handler == "interface_overlay" && !c.no)
                interface("Overlay" + *c.get("<N>"), 100 + static_cast<std::uint32_t>(std::stoi(*c.get("<N>"))));
            if (c.handler == "interface_overlay" && c.no)
                interfaces.erase("Overlay" + *c.get("<N>"));
            return corvane::STATUS_DONE;
        });
}

void CommandServer::TearDown()
{
    platform_process::turns(20);
    auto &server = cmdsrv();
    std::vector<std::uint64_t> ids;
    server.running.each([&](config_line &line) { ids.push_back(line.id); });
    for (const auto id : ids)
        server.running.remove(id);
    server.load_errors.clear();
    server.load_error_count = 0;
    server.interfaces = {};
    server.stands_by = [](pid_t) { return false; };
}

void CommandServer::load(const std::string &text)
{
    corvaned::options chosen = opts();
    chosen.config = platform_process::the().root() + "/startup.test";
    std::ofstream(chosen.config) << text;
    options_set(chosen);
    load_startup();
    platform_process::turns();
}

} // namespace corvaned_test
