#include "modemsim/server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "base/unique_fd.h"
#include "modemsim/control.h"
#include "modemsim/control_path.h"
#include "simctl/control_server.h"
#include "simctl/trace.h"

namespace kal::modemsim {

namespace {

using simctl::fail;
using simctl::trace;

class Server final : public ModemOutput {
  public:
    explicit Server(const ServerOptions& o)
        : options_(o),
          modem_(Quirks{}, o.speed, *this),
          control_([this](std::string_view line, Clock::time_point now) {
              ControlContext ctx{modem_, [this] { vanish(); }};
              return run_control(ctx, line, now);
          }) {}
    ~Server() override { remove_link(); }

    int run();

  private:
    void to_host(std::string_view bytes) override;
    bool open_port();
    void remove_link();
    void vanish();
    bool setup_signals();
    void on_signal();
    void on_port(short revents, Clock::time_point now);
    void flush_port();

    ServerOptions options_;
    Modem modem_;
    simctl::ControlServer control_;
    kal::unique_fd master_;
    kal::unique_fd slave_;  // held so the port stays up between the host's opens
    std::string slave_name_;
    std::string out_;  // to the host, not yet taken by the pty
    kal::unique_fd signal_fd_;
};

bool Server::open_port() {
    if (options_.master_fd >= 0) {
        master_.reset(options_.master_fd);
    } else {
        master_.reset(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (!master_ || grantpt(master_.get()) != 0 || unlockpt(master_.get()) != 0) {
            fail("cannot make a pseudo-terminal: %s", strerror(errno));
            return false;
        }
    }
    char name[128];
    if (ptsname_r(master_.get(), name, sizeof name) != 0) {
        fail("descriptor %d is not a pseudo-terminal master: %s", master_.get(), strerror(errno));
        return false;
    }
    slave_name_ = name;
    slave_.reset(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    fcntl(master_.get(), F_SETFL, fcntl(master_.get(), F_GETFL) | O_NONBLOCK);
    fcntl(master_.get(), F_SETFD, FD_CLOEXEC);
    if (!options_.link_path.empty()) {
        // Replaced in one step, so a host never finds the path missing.
        std::string tmp = options_.link_path + ".modemsim-new";
        ::unlink(tmp.c_str());
        if (symlink(name, tmp.c_str()) != 0 ||
            rename(tmp.c_str(), options_.link_path.c_str()) != 0) {
            fail("cannot link %s to %s: %s", options_.link_path.c_str(), name, strerror(errno));
            ::unlink(tmp.c_str());
            return false;
        }
    }
    trace("port %s%s%s", name, options_.link_path.empty() ? "" : " linked at ",
          options_.link_path.c_str());
    return true;
}

void Server::remove_link() {
    if (options_.link_path.empty() || slave_name_.empty())
        return;
    // Only our own link: someone may have put another device there since.
    std::error_code ec;
    if (std::filesystem::read_symlink(options_.link_path, ec).string() == slave_name_)
        ::unlink(options_.link_path.c_str());
}

void Server::vanish() {
    remove_link();
    trace("the port vanishes");
    master_.reset();
    slave_.reset();
    out_.clear();
}

void Server::to_host(std::string_view bytes) {
    if (!master_)
        return;
    out_.append(bytes);
    flush_port();
}

void Server::flush_port() {
    while (master_ && !out_.empty()) {
        ssize_t n = write(master_.get(), out_.data(), out_.size());
        if (n > 0) {
            out_.erase(0, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        return;  // full (EAGAIN): the rest goes when the pty takes it
    }
}

void Server::on_port(short revents, Clock::time_point now) {
    if (revents & POLLIN) {
        char buf[4096];
        for (;;) {
            ssize_t n = read(master_.get(), buf, sizeof buf);
            if (n > 0) {
                modem_.on_host_bytes(std::string_view(buf, static_cast<size_t>(n)), now);
                if (!master_)
                    return;
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            break;
        }
    }
    if (revents & POLLOUT)
        flush_port();
}

bool Server::setup_signals() {
    signal_fd_ = simctl::signal_fd_for({SIGTERM, SIGHUP, SIGINT});
    return static_cast<bool>(signal_fd_);
}

void Server::on_signal() {
    struct signalfd_siginfo si;
    while (read(signal_fd_.get(), &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
        int sig = static_cast<int>(si.ssi_signo);
        trace("signal %d: ending", sig);
        control_.remove_socket();
        remove_link();
        simctl::die_by(sig);
    }
}

int Server::run() {
    if (!setup_signals() || !open_port())
        return 1;
    for (const auto& [name, value] : options_.quirks) {
        std::string why = apply_quirk(modem_, name, value);
        if (!why.empty()) {
            fail("%s", why.c_str());
            return 2;
        }
    }
    control_.open(options_.socket_path.empty() ? control_socket_path(options_.serial)
                                               : options_.socket_path);
    std::vector<struct pollfd> fds;
    while (!control_.ending()) {
        fds.clear();
        fds.push_back({signal_fd_.get(), POLLIN, 0});
        fds.push_back({master_ ? master_.get() : -1,
                       static_cast<short>(POLLIN | (out_.empty() ? 0 : POLLOUT)), 0});
        int n = control_.poll(fds, modem_.next_deadline());
        if (n < 0)
            return 1;
        Clock::time_point now = Clock::now();
        if (n > 0 && fds[0].revents)
            on_signal();
        if (n > 0 && master_ && fds[1].revents)
            on_port(fds[1].revents, now);
        modem_.on_time(now);
        control_.on_poll(fds, now);
    }
    return control_.finish();
}

}  // namespace

int serve_modem(const ServerOptions& options) {
    Server server(options);
    return server.run();
}

}  // namespace kal::modemsim
