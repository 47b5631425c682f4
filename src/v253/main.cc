// V253LineMonitor: the line monitor for USB voice modems (ITU-T V.253).
//
// Started by the daemon like every line monitor:
//     V253LineMonitor -QLXLine <callout device> -QLXSerial <serial>
// with the line socket on descriptor 4, where the daemon first writes the
// 3072-byte orders record. One poll loop over the socket, the modem's port,
// a timer descriptor and a signal descriptor; no thread, no busy waiting.
//
// Ends with one of the statuses of modem_line.h: 0 when the daemon closes
// the socket, otherwise why the modem or its port failed. SIGTERM, SIGHUP
// and SIGINT hang the line up and end the program as the signal would;
// SIGUSR1 (the daemon's log-level broadcast) is ignored.
//
// Environment: KAL_V253_VERBOSE=<level> (see log.h).

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "base/unique_fd.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "v253/log.h"
#include "v253/modem_line.h"
#include "v253/serial_port.h"
#include "v253/tty_output.h"

using namespace v253;

namespace {

// The descriptor the daemon leaves the line socket on.
constexpr int kLineFd = 4;
// Audio is read from the file in steps of this much, and more is read once
// less than this waits for the port.
constexpr size_t kAudioChunk = 1024;
// How long an ending program tries to hand the modem its last commands.
constexpr int kFinalFlushMs = 1000;

const char kUsage[] =
    "V253LineMonitor: the line monitor for V.253 voice modems.\n"
    "Started by the daemon with the line socket on descriptor 4:\n"
    "  V253LineMonitor -QLXLine <callout device> -QLXSerial <serial>\n"
    "Environment: KAL_V253_VERBOSE=<level> (3 errors ... 7 debug; default 5).\n";

class Output final : public ModemLineOutput {
  public:
    void to_modem(std::string_view bytes) override { tty.add_control(bytes); }
    void drop_audio() override { tty.drop_audio(); }
    // A daemon that takes no event for this long is treated as gone, so the
    // modem (audio under way included) is never left unserved longer.
    static constexpr std::chrono::seconds kDaemonWriteLimit{5};
    void to_daemon(const std::string& payload) override {
        if (!daemon_gone &&
            dmp_write_within(kLineFd, payload.data(), payload.size(), kDaemonWriteLimit) < 0)
            daemon_gone = true;
    }
    TtyOutput tty;
    bool daemon_gone = false;
};

bool block_signals(kal::unique_fd& sigfd) {
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGTERM, SIGHUP, SIGINT, SIGUSR1})
        sigaddset(&set, sig);
    // SIG_SETMASK: whatever the daemon left blocked is open again.
    if (sigprocmask(SIG_SETMASK, &set, nullptr) != 0)
        return false;
    sigfd.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    return static_cast<bool>(sigfd);
}

[[noreturn]] void die_by(int sig) {
    signal(sig, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    raise(sig);
    _exit(128 + sig);
}

void arm(int timer_fd, std::optional<Clock::time_point> when) {
    struct itimerspec its {};
    if (when) {
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(when->time_since_epoch());
        // 0 would disarm: a deadline already due fires at once.
        its.it_value.tv_sec = std::max<long long>(0, ns.count() / 1000000000);
        its.it_value.tv_nsec = std::max<long long>(1, ns.count() % 1000000000);
    }
    timerfd_settime(timer_fd, TFD_TIMER_ABSTIME, &its, nullptr);
}

// Hands the modem its last bytes, within a bound.
void final_flush(int tty_fd, TtyOutput& tty) {
    const auto until = Clock::now() + std::chrono::milliseconds(kFinalFlushMs);
    while (tty.pending() && Clock::now() < until) {
        struct pollfd p = {tty_fd, POLLOUT, 0};
        if (poll(&p, 1, 50) < 0 || (p.revents & (POLLERR | POLLHUP | POLLNVAL)))
            return;
        if (!tty.flush(tty_fd))
            return;
    }
}

// Reads what the port has; false when it is gone.
bool read_modem(int fd, ModemLine& line) {
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0) {
            line.on_modem_bytes(std::string_view(buf, static_cast<size_t>(n)), Clock::now());
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return true;
        return false;  // end of file or EIO: the device has gone
    }
}

int run(const std::string& port_path, const std::string& serial) {
    kal::unique_fd sigfd;
    if (!block_signals(sigfd)) {
        vlog(kLogErr, "cannot set up signals: %s", strerror(errno));
        return kExitUsage;
    }
    PortResult port = open_modem_port(port_path);
    if (!port.fd) {
        vlog(kLogErr, "%s", port.error.c_str());
        return kExitPortUnusable;
    }
    kal::unique_fd timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!timer) {
        vlog(kLogErr, "timerfd: %s", strerror(errno));
        return kExitUsage;
    }
    const int tty = port.fd.get();
    Output out;
    ModemLine line(serial.empty() ? port_path : serial, out);
    line.start(Clock::now());

    FrameReader commands(lm::kEventBufferSize);
    for (;;) {
        if (out.daemon_gone) {
            line.shutdown();
            final_flush(tty, out.tty);
            return kExitDaemonGone;
        }
        if (auto status = line.exit_status()) {
            line.shutdown();
            final_flush(tty, out.tty);
            return *status;
        }
        // Audio goes out until the port is full (poll then waits for room)
        // or the file has ended.
        bool port_ok = true;
        for (;;) {
            while (line.wants_audio() && out.tty.audio_size() < kAudioChunk) {
                std::string chunk = line.next_audio(kAudioChunk, Clock::now());
                if (chunk.empty())
                    break;
                out.tty.add_audio(chunk);
            }
            port_ok = out.tty.flush(tty);
            if (!port_ok || out.tty.audio_size() > 0 || !line.wants_audio())
                break;
        }
        if (!port_ok) {
            vlog(kLogErr, "writing to %s: %s; the modem has gone", port_path.c_str(),
                 strerror(errno));
            return kExitModemGone;
        }
        arm(timer.get(), line.next_deadline());

        struct pollfd fds[4] = {
            {kLineFd, POLLIN, 0},
            {tty, static_cast<short>(POLLIN | (out.tty.pending() ? POLLOUT : 0)), 0},
            {timer.get(), POLLIN, 0},
            {sigfd.get(), POLLIN, 0},
        };
        if (poll(fds, 4, -1) < 0) {
            if (errno == EINTR)
                continue;
            vlog(kLogErr, "poll: %s", strerror(errno));
            return kExitUsage;
        }
        if (fds[3].revents) {
            struct signalfd_siginfo si;
            while (read(sigfd.get(), &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
                const int sig = static_cast<int>(si.ssi_signo);
                if (sig == SIGUSR1)
                    continue;
                vlog(kLogInfo, "signal %d: hanging up and ending", sig);
                line.shutdown();
                final_flush(tty, out.tty);
                die_by(sig);
            }
        }
        if (fds[1].revents & POLLIN) {
            if (!read_modem(tty, line)) {
                vlog(kLogErr, "%s has gone (unplugged?)", port_path.c_str());
                return kExitModemGone;
            }
        } else if (fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) {
            vlog(kLogErr, "%s has gone (unplugged?)", port_path.c_str());
            return kExitModemGone;
        }
        if (fds[0].revents) {
            // Every whole command the socket holds; one still arriving is
            // finished on a later wake-up, and the modem is served meanwhile.
            for (;;) {
                const FrameReader::Step step = commands.readSome(kLineFd);
                if (step == FrameReader::Step::kWaiting)
                    break;
                if (step != FrameReader::Step::kFrame || commands.frame().empty()) {
                    vlog(kLogInfo, "the daemon closed the line socket");
                    out.daemon_gone = true;
                    break;
                }
                line.on_command(commands.frame().data(), commands.frame().size(), Clock::now());
            }
        }
        if (fds[2].revents) {
            uint64_t expirations;
            while (read(timer.get(), &expirations, sizeof expirations) > 0) {
            }
        }
        line.on_time(Clock::now());
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fputs(kUsage, stdout);
        return 0;
    }
    std::string port_path, serial;
    for (int i = 1; i + 1 < argc; ++i) {
        if (strcmp(argv[i], "-QLXLine") == 0)
            port_path = argv[++i];
        else if (strcmp(argv[i], "-QLXSerial") == 0)
            serial = argv[++i];
    }
    if (fcntl(kLineFd, F_GETFD) == -1) {
        fputs(kUsage, stderr);
        return kExitUsage;
    }
    std::string orders(lm::lm_orders::kSize, '\0');
    if (safe_read(kLineFd, orders.data(), orders.size(), nullptr, -2) !=
        static_cast<ssize_t>(orders.size())) {
        vlog(kLogErr, "the orders record did not arrive on descriptor %d", kLineFd);
        return kExitUsage;
    }
    const lm::lm_orders o = lm::parse_orders(orders.data(), orders.size());
    if (port_path.empty())
        port_path = o.line;
    if (serial.empty())
        serial = o.serial;
    const std::string name = "V253LineMonitor[" + serial + "]";
    set_log_name(name.c_str());
    if (port_path.empty()) {
        vlog(kLogErr, "no modem port given");
        return kExitUsage;
    }
    return run(port_path, serial);
}
