#include "linesim_control.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <thread>

#include "base/paths.h"
#include "simulator/control_path.h"
#include "test_support.h"

namespace kal::test {

namespace {

// "ok <n> commands|messages|lines" announces n more lines.
int listed_lines(const std::string& first) {
    std::istringstream in(first);
    std::string ok, noun, extra;
    long n = 0;
    if (!(in >> ok >> n >> noun) || ok != "ok" || (in >> extra))
        return 0;
    return (noun == "commands" || noun == "messages" || noun == "lines") && n > 0
               ? static_cast<int>(n)
               : 0;
}

}  // namespace

void install_linesim() {
    install_linemonitor(bin_path("kal-linesim"));
}

void install_linemonitor(const std::string& program) {
    make_dirs(kal::resources_dir());
    for (const std::string& path : {kal::linemonitor_path(), kal::zrx_linemonitor_path()}) {
        std::error_code ec;
        std::filesystem::remove(path, ec);
        std::filesystem::create_symlink(program, path);
    }
}

void install_tone450() {
    make_dirs(kal::resources_dir());
    std::filesystem::copy_file(KAL_TEST_RESOURCES_DIR "/tone450.raw", kal::tone450_path(),
                               std::filesystem::copy_options::overwrite_existing);
}

std::string linesim_socket(const std::string& serial) {
    return kal::linesim::control_socket_path(serial);
}

LineSimControl::LineSimControl(const std::string& serial, std::chrono::milliseconds deadline) {
    const bool is_path = serial.rfind("/", 0) == 0 || serial.rfind("./", 0) == 0;
    const std::string path = is_path ? serial : linesim_socket(serial);
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        error_ = "socket path too long: " + path;
        return;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    auto until = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        kal::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (fd && connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
            fd_ = std::move(fd);
            return;
        }
        error_ = path + ": " + strerror(errno);
        if (std::chrono::steady_clock::now() >= until)
            return;
        // The simulator is still starting: nothing to wait on but the file.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void LineSimControl::request(const std::string& command) {
    if (!fd_)
        return;
    const std::string line = command + "\n";
    for (size_t off = 0; off < line.size();) {
        ssize_t n = ::send(fd_.get(), line.data() + off, line.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            error_ = std::string("send: ") + strerror(errno);
            fd_.reset();
            return;
        }
        off += static_cast<size_t>(n);
    }
}

std::string LineSimControl::read_line(std::chrono::steady_clock::time_point until) {
    for (;;) {
        size_t nl = buf_.find('\n');
        if (nl != std::string::npos) {
            std::string line = buf_.substr(0, nl);
            buf_.erase(0, nl + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            until - std::chrono::steady_clock::now());
        struct pollfd p = {fd_.get(), POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(std::max<long long>(0, left.count())));
        if (r < 0 && errno == EINTR)
            continue;
        if (r == 0) {
            error_ = "no reply in time";
            fd_.reset();
            return "";
        }
        char tmp[4096];
        ssize_t n = recv(fd_.get(), tmp, sizeof tmp, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            error_ = n == 0 ? "closed by the simulator" : std::string("recv: ") + strerror(errno);
            fd_.reset();
            return "";
        }
        buf_.append(tmp, static_cast<size_t>(n));
    }
}

std::string LineSimControl::reply(std::chrono::milliseconds deadline) {
    auto until = std::chrono::steady_clock::now() + deadline;
    if (!fd_)
        return "error connection: " + error_;
    std::string text = read_line(until);
    if (!fd_)
        return "error connection: " + error_;
    for (int i = listed_lines(text); i > 0; --i) {
        std::string more = read_line(until);
        if (!fd_)
            return "error connection: " + error_;
        text += "\n" + more;
    }
    return text;
}

std::string LineSimControl::send(const std::string& command) {
    request(command);
    return reply();
}

}  // namespace kal::test
