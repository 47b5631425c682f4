#include "simctl/control_server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "simctl/trace.h"

namespace kal::simctl {

namespace {

// A control line longer than this closes the client.
constexpr size_t kMaxControlLine = 1 << 20;
// How long an exiting simulator tries to deliver its last replies.
constexpr auto kFinalFlush = std::chrono::seconds(1);

// Milliseconds for poll() until `deadline` (-1: none), at most a minute.
int poll_timeout_ms(Clock::time_point now, std::optional<Clock::time_point> deadline) {
    if (!deadline)
        return -1;
    if (*deadline <= now)
        return 0;
    auto ms = std::chrono::ceil<std::chrono::milliseconds>(*deadline - now).count();
    return static_cast<int>(std::min<long long>(ms, 60000));
}

}  // namespace

void ControlServer::open(const std::string& path) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    socket_path_ = path;
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    if (socket_path_.size() >= sizeof addr.sun_path) {
        fail(
            "control socket path is %zu bytes, more than a socket address holds: %s (use a "
            "shorter directory); running without a control socket",
            socket_path_.size(), socket_path_.c_str());
        socket_path_.clear();
        return;
    }
    memcpy(addr.sun_path, socket_path_.c_str(), socket_path_.size() + 1);
    kal::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // A socket left by a simulator that crashed or was killed is replaced.
    ::unlink(socket_path_.c_str());
    struct stat st;
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(fd.get(), 16) != 0 || ::stat(socket_path_.c_str(), &st) != 0) {
        fail("control socket %s: %s; running without one", socket_path_.c_str(), strerror(errno));
        socket_path_.clear();
        return;
    }
    socket_dev_ = st.st_dev;
    socket_ino_ = st.st_ino;
    listen_fd_ = std::move(fd);
    trace("control socket %s", socket_path_.c_str());
}

void ControlServer::remove_socket() {
    if (socket_path_.empty())
        return;
    // Only our own: a newer simulator for the same serial may have replaced it.
    struct stat st;
    if (::stat(socket_path_.c_str(), &st) == 0 && st.st_dev == socket_dev_ &&
        st.st_ino == socket_ino_)
        ::unlink(socket_path_.c_str());
    socket_path_.clear();
}

int ControlServer::poll(std::vector<struct pollfd>& fds,
                        std::optional<Clock::time_point> deadline) {
    if (auto d = next_deadline(); d && (!deadline || *d < *deadline))
        deadline = d;
    add_to_poll(fds);
    int n = ::poll(fds.data(), fds.size(), poll_timeout_ms(Clock::now(), deadline));
    if (n < 0 && errno != EINTR) {
        fail("poll: %s", strerror(errno));
        return -1;
    }
    return std::max(n, 0);
}

int ControlServer::finish() {
    final_flush();
    if (ending_->then == ControlReply::Then::Crash) {
        clients_.clear();
        die_by(ending_->value);
    }
    return ending_->value;
}

void ControlServer::add_to_poll(std::vector<struct pollfd>& fds) {
    clients_.remove_if(
        [](const Client& c) { return c.broken || (c.eof && c.out.empty() && !c.waiting); });
    first_fd_ = fds.size();
    polled_.clear();
    fds.push_back({listen_fd_ ? listen_fd_.get() : -1, POLLIN, 0});
    for (auto& c : clients_) {
        short events = static_cast<short>((c.eof ? 0 : POLLIN) | (c.out.empty() ? 0 : POLLOUT));
        fds.push_back({c.fd.get(), events, 0});
        polled_.push_back(&c);
    }
}

std::optional<Clock::time_point> ControlServer::next_deadline() const {
    std::optional<Clock::time_point> deadline;
    for (const auto& c : clients_)
        if (c.waiting && (!deadline || c.wait_deadline < *deadline))
            deadline = c.wait_deadline;
    return deadline;
}

void ControlServer::on_poll(const std::vector<struct pollfd>& fds, Clock::time_point now) {
    for (size_t i = 0; i < polled_.size(); ++i)
        on_client(*polled_[i], fds[first_fd_ + 1 + i].revents, now);
    resolve_waits(now);
    if (listen_fd_ && fds[first_fd_].revents)
        accept_clients();
    for (auto& c : clients_)
        flush(c);
    polled_.clear();
}

void ControlServer::accept_clients() {
    for (;;) {
        int fd = accept4(listen_fd_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        clients_.emplace_back().fd.reset(fd);
    }
}

void ControlServer::serve_lines(Client& c, Clock::time_point now) {
    size_t nl;
    while (!c.waiting && !ending_ && (nl = c.in.find('\n')) != std::string::npos) {
        std::string line = c.in.substr(0, nl);
        c.in.erase(0, nl + 1);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        trace("control: %s", line.c_str());
        ControlReply r = handler_(line, now);
        switch (r.then) {
            case ControlReply::Then::Wait:
                c.wait_deadline = now + r.wait_timeout;
                c.wait_seq = ++wait_seq_;
                c.waiting = std::move(r);
                break;
            case ControlReply::Then::Exit:
            case ControlReply::Then::Crash:
                c.out += r.text + "\n";
                ending_ = std::move(r);
                break;
            case ControlReply::Then::Reply:
                c.out += r.text + "\n";
                break;
        }
    }
    if (c.in.size() > kMaxControlLine) {
        c.out += "error control line too long\n";
        c.in.clear();
        c.eof = true;
    }
}

void ControlServer::resolve_waits(Clock::time_point now) {
    // The oldest wait that can end goes first, so that two clients waiting
    // for the same thing are served in the order they asked.
    for (;;) {
        std::vector<Client*> waiting;
        for (auto& c : clients_)
            if (c.waiting && !c.broken)
                waiting.push_back(&c);
        std::sort(waiting.begin(), waiting.end(),
                  [](const Client* a, const Client* b) { return a->wait_seq < b->wait_seq; });
        Client* done = nullptr;
        for (Client* c : waiting) {
            if (auto reply = c->waiting->wait()) {
                c->out += *reply + "\n";
                done = c;
            } else if (c->wait_deadline <= now) {
                c->out += c->waiting->wait_timeout_text + "\n";
                done = c;
            }
            if (done)
                break;
        }
        if (!done)
            return;
        done->waiting.reset();
        serve_lines(*done, now);
    }
}

void ControlServer::flush(Client& c) {
    while (!c.out.empty()) {
        ssize_t n = send(c.fd.get(), c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            c.out.erase(0, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        c.broken = true;
        return;
    }
}

void ControlServer::on_client(Client& c, short revents, Clock::time_point now) {
    if (revents & (POLLIN | POLLHUP | POLLERR)) {
        char buf[4096];
        for (;;) {
            ssize_t n = recv(c.fd.get(), buf, sizeof buf, MSG_DONTWAIT);
            if (n > 0) {
                c.in.append(buf, static_cast<size_t>(n));
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                break;
            c.eof = true;
            break;
        }
        serve_lines(c, now);
        // Gone in both directions: no reply can reach it any more.
        if (c.eof && (revents & (POLLHUP | POLLERR)))
            c.broken = true;
    }
    flush(c);
}

void ControlServer::final_flush() {
    auto until = Clock::now() + kFinalFlush;
    for (auto& c : clients_) {
        while (!c.out.empty() && !c.broken && Clock::now() < until) {
            struct pollfd p = {c.fd.get(), POLLOUT, 0};
            if (::poll(&p, 1, poll_timeout_ms(Clock::now(), until)) <= 0)
                break;
            flush(c);
        }
    }
}

}  // namespace kal::simctl
