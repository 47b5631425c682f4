// kal-bench-linemonitor: the benchmark's line monitor. The daemon starts it
// like any line monitor (installed under the line-monitor program names in
// the benchmark's KAL_ROOT): the socket on descriptor 4, the orders record
// first. It then connects to the driver (control_link.h), and on each "run"
// writes caller-ID events on its schedule, each stamped just before its
// write (stamp.h). What the daemon writes to it is read and dropped; end of
// file from either side ends it.

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "base/unique_fd.h"
#include "control_link.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "stamp.h"

using namespace kal::bench;

namespace {

constexpr int kLineFd = 4;

kal::unique_fd connect_control(const char* path) {
    kal::unique_fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    if (!fd || strlen(path) >= sizeof addr.sun_path)
        return {};
    strcpy(addr.sun_path, path);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        return {};
    return fd;
}

// Writes the events of one "run"; returns how many went out.
int64_t send_events(int line, int lines, double rate, int64_t count, int64_t start) {
    int64_t sent = 0;
    for (int64_t seq = 0; seq < count; ++seq) {
        sleep_until_ns(due_ns(start, rate, lines, line, seq));
        const Stamp stamp{line, seq, mono_ns()};
        const std::string payload = lm::kEvtCallerId + stamp_text(stamp) + '\0';
        if (dmp_write(kLineFd, payload.data(), payload.size()) < 0)
            break;
        ++sent;
    }
    return sent;
}

}  // namespace

int main(int argc, char** argv) {
    std::string serial;
    for (int i = 1; i + 1 < argc; ++i)
        if (strcmp(argv[i], "-QLXSerial") == 0)
            serial = argv[++i];
    const char* control_path = std::getenv(kControlEnv);
    if (serial.empty() || !control_path) {
        fprintf(stderr,
                "kal-bench-linemonitor runs as a line monitor of the event-latency benchmark, "
                "started by the daemon with %s set\n",
                kControlEnv);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    std::string orders(lm::lm_orders::kSize, '\0');
    if (safe_read(kLineFd, orders.data(), orders.size(), nullptr, -2) !=
        static_cast<ssize_t>(orders.size()))
        return 1;
    kal::unique_fd control = connect_control(control_path);
    if (!control || !send_line(control.get(), "hello " + serial))
        return 1;

    LineReader commands(control.get());
    for (;;) {
        struct pollfd fds[2] = {{kLineFd, POLLIN, 0}, {control.get(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0)
            continue;
        if (fds[0].revents) {
            char drain[4096];
            if (::read(kLineFd, drain, sizeof drain) <= 0)
                return 0;
        }
        if (!fds[1].revents)
            continue;
        auto line = commands.next(std::chrono::milliseconds(-1));
        if (!line)
            return 0;
        std::istringstream in(*line);
        std::string verb;
        int index = 0, lines = 0;
        double rate = 0;
        int64_t count = 0, start = 0;
        if (!(in >> verb >> index >> lines >> rate >> count >> start) || verb != "run" ||
            lines < 1 || rate <= 0)
            return 1;
        const int64_t sent = send_events(index, lines, rate, count, start);
        if (!send_line(control.get(), "done " + std::to_string(sent)))
            return 0;
    }
}
