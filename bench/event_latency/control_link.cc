#include "control_link.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "lineio/safe_io.h"
#include "stamp.h"

namespace kal::bench {

std::optional<std::string> LineReader::next(std::chrono::milliseconds timeout) {
    const int64_t end = mono_ns() + timeout.count() * 1000000;
    for (;;) {
        if (const size_t eol = buf_.find('\n'); eol != std::string::npos) {
            std::string line = buf_.substr(0, eol);
            buf_.erase(0, eol + 1);
            return line;
        }
        int wait_ms = -1;
        if (timeout.count() >= 0) {
            const int64_t left = end - mono_ns();
            if (left <= 0)
                return std::nullopt;
            wait_ms = static_cast<int>((left + 999999) / 1000000);
        }
        struct pollfd p = {fd_, POLLIN, 0};
        if (::poll(&p, 1, wait_ms) < 0)
            return std::nullopt;
        if (!p.revents)
            continue;
        char chunk[512];
        const ssize_t n = ::read(fd_, chunk, sizeof chunk);
        if (n <= 0)
            return std::nullopt;
        buf_.append(chunk, static_cast<size_t>(n));
    }
}

bool send_line(int fd, const std::string& line) {
    const std::string text = line + '\n';
    return safe_write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

ControlSocket::ControlSocket(const std::string& path) {
    listen_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    if (!listen_ || path.size() >= sizeof addr.sun_path)
        throw std::runtime_error("cannot make the control socket " + path);
    strcpy(addr.sun_path, path.c_str());
    if (::bind(listen_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listen_.get(), 64) != 0)
        throw std::runtime_error("cannot listen on " + path);
    setenv(kControlEnv, path.c_str(), 1);
}

std::map<std::string, ControlSocket::Monitor> ControlSocket::accept(
    int count, std::chrono::milliseconds deadline) {
    std::map<std::string, Monitor> out;
    const int64_t end = mono_ns() + deadline.count() * 1000000;
    while (static_cast<int>(out.size()) < count) {
        const int64_t left_ms = (end - mono_ns()) / 1000000;
        struct pollfd p = {listen_.get(), POLLIN, 0};
        if (left_ms <= 0 || ::poll(&p, 1, static_cast<int>(left_ms)) <= 0)
            throw std::runtime_error(std::to_string(out.size()) + " of " + std::to_string(count) +
                                     " line monitors came up");
        Monitor m;
        m.fd.reset(::accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!m.fd)
            continue;
        m.reader = std::make_unique<LineReader>(m.fd.get());
        auto hello = m.reader->next(std::chrono::milliseconds(10000));
        if (!hello || hello->rfind("hello ", 0) != 0)
            continue;
        out[hello->substr(6)] = std::move(m);
    }
    return out;
}

}  // namespace kal::bench
