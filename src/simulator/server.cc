#include "simulator/server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <list>
#include <memory>
#include <vector>

#include "base/unique_fd.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "simulator/control.h"
#include "simulator/control_path.h"
#include "simulator/trace.h"

namespace kal::linesim {

namespace {

// A control line longer than this closes the client.
constexpr size_t kMaxControlLine = 1 << 20;
// How long an exiting simulator tries to deliver its last replies.
constexpr auto kFinalFlush = std::chrono::seconds(1);

[[noreturn]] void die_by(int sig) {
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    struct sigaction sa {};
    sa.sa_handler = SIG_DFL;
    sigaction(sig, &sa, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    raise(sig);
    _exit(128 + sig);  // not reached for a signal that ends a process
}

int poll_timeout_ms(Clock::time_point now, std::optional<Clock::time_point> deadline) {
    if (!deadline)
        return -1;
    if (*deadline <= now)
        return 0;
    auto ms = std::chrono::ceil<std::chrono::milliseconds>(*deadline - now).count();
    return static_cast<int>(std::min<long long>(ms, 60000));
}

struct Client {
    kal::unique_fd fd;
    std::string in;
    std::string out;
    bool eof = false;
    bool broken = false;
    // A wait-command in progress: no further line is served until it ends.
    bool waiting = false;
    std::optional<char> wait_char;
    Clock::time_point wait_deadline;
    uint64_t wait_seq = 0;
};

class Server final : public LineOutput {
  public:
    Server(const Identity& id, double speed) : sim_(id, speed, *this) {}
    ~Server() override { remove_socket(); }

    int run();

  private:
    void send_frame(const std::string& payload) override;
    void send_raw(const std::string& bytes) override;
    bool line_writable();

    bool read_orders();
    void open_control_socket(const std::string& serial);
    void remove_socket();
    bool setup_signals();
    void on_signal();
    // false at end of file.
    bool on_line_readable(Clock::time_point now);
    void accept_clients();
    void on_client(Client& c, short revents, Clock::time_point now);
    void serve_lines(Client& c, Clock::time_point now);
    void resolve_waits(Clock::time_point now);
    void flush(Client& c);
    void final_flush();

    LineSim sim_;
    kal::unique_fd signal_fd_;
    kal::unique_fd listen_fd_;
    std::string socket_path_;
    dev_t socket_dev_ = 0;
    ino_t socket_ino_ = 0;
    std::list<Client> clients_;
    std::string line_in_;
    bool line_gone_ = false;
    uint64_t wait_seq_ = 0;
    // Set by `exit` / `crash`: the loop ends after the replies are out.
    std::optional<ControlReply> ending_;
};

// ---------------------------------------------------------------------------
// Start-up

bool Server::read_orders() {
    if (fcntl(kLineFd, F_GETFD) == -1) {
        fail(
            "descriptor %d is not open: kal-linesim runs as a line monitor started by the daemon "
            "(try kal-linesim --help)",
            kLineFd);
        return false;
    }
    std::string buf(lm::lm_orders::kSize, '\0');
    ssize_t n = safe_read(kLineFd, buf.data(), buf.size(), nullptr, -1);
    if (n != static_cast<ssize_t>(buf.size())) {
        fail("read %zd of the %zu bytes of the orders record on descriptor %d", n, buf.size(),
             kLineFd);
        return false;
    }
    sim_.set_orders(lm::parse_orders(buf.data(), buf.size()), kLineFd);
    return true;
}

bool Server::setup_signals() {
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGTERM, SIGHUP, SIGINT, SIGUSR1})
        sigaddset(&set, sig);
    // SIG_SETMASK, not SIG_BLOCK: whatever the daemon left blocked is open again.
    if (sigprocmask(SIG_SETMASK, &set, nullptr) != 0) {
        fail("sigprocmask: %s", strerror(errno));
        return false;
    }
    signal_fd_.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signal_fd_) {
        fail("signalfd: %s", strerror(errno));
        return false;
    }
    return true;
}

void Server::open_control_socket(const std::string& serial) {
    const std::string dir = control_dir();
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    socket_path_ = control_socket_path(serial);
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    if (socket_path_.size() >= sizeof addr.sun_path) {
        fail(
            "control socket path is %zu bytes, more than a socket address holds: %s (set "
            "KAL_LINESIM_DIR to a shorter directory); running without a control socket",
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

void Server::remove_socket() {
    if (socket_path_.empty())
        return;
    // Only our own: a newer simulator for the same serial may have replaced it.
    struct stat st;
    if (::stat(socket_path_.c_str(), &st) == 0 && st.st_dev == socket_dev_ &&
        st.st_ino == socket_ino_)
        ::unlink(socket_path_.c_str());
    socket_path_.clear();
}

// ---------------------------------------------------------------------------
// The line

bool Server::line_writable() {
    // A daemon that has closed its end shows as a hang-up; finding it here
    // keeps the failed write (and its complaint) from happening at all.
    struct pollfd p = {kLineFd, POLLOUT, 0};
    if (!line_gone_ && poll(&p, 1, 0) >= 0 && (p.revents & (POLLHUP | POLLERR))) {
        trace("the daemon's end of the line socket is gone");
        line_gone_ = true;
    }
    return !line_gone_;
}

void Server::send_frame(const std::string& payload) {
    if (line_writable() && dmp_write(kLineFd, payload.data(), payload.size()) < 0)
        line_gone_ = true;
}

void Server::send_raw(const std::string& bytes) {
    if (line_writable() && safe_write(kLineFd, bytes.data(), bytes.size()) < 0)
        line_gone_ = true;
}

bool Server::on_line_readable(Clock::time_point now) {
    bool eof = false;
    char buf[8192];
    for (;;) {
        ssize_t n = recv(kLineFd, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            line_in_.append(buf, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (n < 0)
            trace("reading descriptor %d: %s", kLineFd, strerror(errno));
        eof = true;
        break;
    }
    size_t pos = 0;
    while (line_in_.size() - pos >= sizeof(int32_t)) {
        int32_t len;
        memcpy(&len, line_in_.data() + pos, sizeof len);
        if (len == 0) {
            trace("frame of length 0: taken as the end of the line");
            return false;
        }
        if (len < 0 || static_cast<size_t>(len) > kMaxFrame) {
            fail("frame length %d from the daemon: not a line-monitor command; giving up", len);
            ending_.emplace();
            ending_->then = ControlReply::Then::Exit;
            ending_->value = 1;
            return true;
        }
        if (line_in_.size() - pos - sizeof len < static_cast<size_t>(len))
            break;  // the rest of this frame is still on its way
        sim_.on_message(line_in_.data() + pos + sizeof len, static_cast<size_t>(len), now);
        pos += sizeof len + static_cast<size_t>(len);
    }
    line_in_.erase(0, pos);
    resolve_waits(now);
    return !eof;
}

// ---------------------------------------------------------------------------
// Control clients

void Server::accept_clients() {
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

void Server::serve_lines(Client& c, Clock::time_point now) {
    size_t nl;
    while (!c.waiting && !ending_ && (nl = c.in.find('\n')) != std::string::npos) {
        std::string line = c.in.substr(0, nl);
        c.in.erase(0, nl + 1);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        trace("control: %s", line.c_str());
        ControlReply r = run_control(sim_, line, now);
        switch (r.then) {
            case ControlReply::Then::Wait:
                c.waiting = true;
                c.wait_char = r.wait_char;
                c.wait_deadline = now + r.wait_timeout;
                c.wait_seq = ++wait_seq_;
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

void Server::resolve_waits(Clock::time_point now) {
    // The oldest wait that can end goes first, so that two clients waiting
    // for the same command character are served in the order they asked.
    for (;;) {
        Client* next = nullptr;
        for (auto& c : clients_) {
            if (!c.waiting || c.broken || (next && next->wait_seq < c.wait_seq))
                continue;
            if (sim_.has_command(c.wait_char) || c.wait_deadline <= now)
                next = &c;
        }
        if (!next)
            return;
        if (auto found = sim_.take_command(next->wait_char))
            next->out += wait_found_reply(*found) + "\n";
        else
            next->out += wait_timeout_reply(next->wait_char) + "\n";
        next->waiting = false;
        serve_lines(*next, now);
    }
}

void Server::flush(Client& c) {
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

void Server::on_client(Client& c, short revents, Clock::time_point now) {
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

void Server::final_flush() {
    auto until = Clock::now() + kFinalFlush;
    for (auto& c : clients_) {
        while (!c.out.empty() && !c.broken && Clock::now() < until) {
            struct pollfd p = {c.fd.get(), POLLOUT, 0};
            if (poll(&p, 1, poll_timeout_ms(Clock::now(), until)) <= 0)
                break;
            flush(c);
        }
    }
}

void Server::on_signal() {
    struct signalfd_siginfo si;
    while (read(signal_fd_.get(), &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
        int sig = static_cast<int>(si.ssi_signo);
        if (sig == SIGUSR1) {
            sim_.note_usr1();
            continue;
        }
        trace("signal %d: ending", sig);
        remove_socket();
        die_by(sig);
    }
}

// ---------------------------------------------------------------------------
// The loop

int Server::run() {
    if (!setup_signals() || !read_orders())
        return 1;
    open_control_socket(sim_.serial());

    std::vector<struct pollfd> fds;
    std::vector<Client*> polled;
    for (;;) {
        if (ending_ || line_gone_)
            break;
        Clock::time_point now = Clock::now();
        std::optional<Clock::time_point> deadline = sim_.next_deadline();
        fds.clear();
        polled.clear();
        fds.push_back({kLineFd, POLLIN, 0});
        fds.push_back({signal_fd_.get(), POLLIN, 0});
        if (listen_fd_)
            fds.push_back({listen_fd_.get(), POLLIN, 0});
        const size_t first_client = fds.size();
        for (auto& c : clients_) {
            short events = (c.eof ? 0 : POLLIN) | (c.out.empty() ? 0 : POLLOUT);
            fds.push_back({c.fd.get(), events, 0});
            polled.push_back(&c);
            if (c.waiting && (!deadline || c.wait_deadline < *deadline))
                deadline = c.wait_deadline;
        }

        int n = poll(fds.data(), fds.size(), poll_timeout_ms(now, deadline));
        if (n < 0 && errno != EINTR) {
            fail("poll: %s", strerror(errno));
            return 1;
        }
        now = Clock::now();
        if (n > 0 && fds[1].revents)
            on_signal();
        if (n > 0 && fds[0].revents && !on_line_readable(now)) {
            trace("end of the line socket: exiting");
            return 0;
        }
        sim_.on_time(now);
        for (size_t i = 0; n > 0 && i < polled.size(); ++i)
            on_client(*polled[i], fds[first_client + i].revents, now);
        resolve_waits(now);
        if (n > 0 && listen_fd_ && fds[2].revents)
            accept_clients();
        for (auto& c : clients_)
            flush(c);
        clients_.remove_if(
            [](const Client& c) { return c.broken || (c.eof && c.out.empty() && !c.waiting); });
    }

    final_flush();
    if (line_gone_ && !ending_)
        return 0;
    if (ending_->then == ControlReply::Then::Crash) {
        clients_.clear();
        die_by(
            ending_
                ->value);  // the crashed simulator's socket file stays, as a crash would leave it
    }
    return ending_->value;
}

}  // namespace

int serve_line(const Identity& id, double speed) {
    Server server(id, speed);
    return server.run();
}

}  // namespace kal::linesim
