#include "simulator/server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "base/unique_fd.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "simctl/control_server.h"
#include "simctl/trace.h"
#include "simulator/control.h"
#include "simulator/control_path.h"

namespace kal::linesim {

namespace {

using simctl::fail;
using simctl::trace;

class Server final : public LineOutput {
  public:
    Server(const Identity& id, double speed)
        : sim_(id, speed, *this), control_([this](std::string_view line, Clock::time_point now) {
              return run_control(sim_, line, now);
          }) {}

    int run();

  private:
    void send_frame(const std::string& payload) override;
    void send_raw(const std::string& bytes) override;
    bool line_writable();

    bool read_orders();
    bool setup_signals();
    void on_signal();
    // false at end of file.
    bool on_line_readable(Clock::time_point now);

    LineSim sim_;
    simctl::ControlServer control_;
    kal::unique_fd signal_fd_;
    std::string line_in_;
    bool line_gone_ = false;
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
    signal_fd_ = simctl::signal_fd_for({SIGTERM, SIGHUP, SIGINT, SIGUSR1});
    return static_cast<bool>(signal_fd_);
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
            ControlReply r;
            r.then = ControlReply::Then::Exit;
            r.value = 1;
            control_.end_with(std::move(r));
            return true;
        }
        if (line_in_.size() - pos - sizeof len < static_cast<size_t>(len))
            break;  // the rest of this frame is still on its way
        sim_.on_message(line_in_.data() + pos + sizeof len, static_cast<size_t>(len), now);
        pos += sizeof len + static_cast<size_t>(len);
    }
    line_in_.erase(0, pos);
    control_.resolve_waits(now);
    return !eof;
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
        control_.remove_socket();
        simctl::die_by(sig);
    }
}

// ---------------------------------------------------------------------------
// The loop

int Server::run() {
    if (!setup_signals() || !read_orders())
        return 1;
    control_.open(control_socket_path(sim_.serial()));

    std::vector<struct pollfd> fds;
    while (!control_.ending() && !line_gone_) {
        fds.clear();
        fds.push_back({kLineFd, POLLIN, 0});
        fds.push_back({signal_fd_.get(), POLLIN, 0});
        int n = control_.poll(fds, sim_.next_deadline());
        if (n < 0)
            return 1;
        Clock::time_point now = Clock::now();
        if (n > 0 && fds[1].revents)
            on_signal();
        if (n > 0 && fds[0].revents && !on_line_readable(now)) {
            trace("end of the line socket: exiting");
            return 0;
        }
        sim_.on_time(now);
        control_.on_poll(fds, now);
    }
    if (!control_.ending())
        return 0;  // the daemon's end of the line is gone
    return control_.finish();
}

}  // namespace

int serve_line(const Identity& id, double speed) {
    Server server(id, speed);
    return server.run();
}

}  // namespace kal::linesim
