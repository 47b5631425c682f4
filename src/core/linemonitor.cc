#include "core/linemonitor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "core/babymonitor.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "log/kallog.h"
#include "service/notifier.h"

using namespace kal;

namespace {

// Where every line monitor expects its socket.
constexpr int kChildSocketFd = 4;
// The child's exit status when the program could not be executed; the
// supervisor treats it like any other death.
constexpr int kExecFailedStatus = 18;

// Everything the child needs, worked out before fork. Between fork and exec
// the child may only make async-signal-safe calls: another thread of ours
// may have held the allocator's or the log's lock at the moment of the fork.
struct ChildPlan {
    const char* path;
    const char* argv0;
    const char* line;
    const char* serial;
    int socket;      // the child's end of the pair
    int logfd;       // the log file, or -1
    int dtablesize;  // bound for the close loop when close_range is missing
};

[[noreturn]] void become_line_monitor(const ChildPlan& p) {
    if (p.logfd >= 0)
        close(p.logfd);

    // Both ends were born close-on-exec. dup2 onto 4 gives a descriptor
    // without the flag; when the end already is 4 the flag is cleared here.
    if (p.socket != kChildSocketFd) {
        if (dup2(p.socket, kChildSocketFd) < 0)
            _exit(1);
    } else if (fcntl(kChildSocketFd, F_SETFD, 0) < 0) {
        _exit(1);
    }

    // Only 0, 1, 2 and 4 survive; our own end of the pair is among the closed.
    close(3);
    if (close_range(5, ~0U, 0) != 0)
        for (int fd = 5; fd < p.dtablesize; ++fd)
            close(fd);

    // exec keeps ignored signals and the signal mask, and the daemon ignores
    // SIGPIPE and blocks SIGINT/SIGTERM in every thread: a line monitor must
    // start from the defaults or it could not be stopped.
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int sig = 1; sig < 32; ++sig)
        sigaction(sig, &dfl, nullptr);  // SIGKILL and SIGSTOP refuse; harmless
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);

    execl(p.path, p.argv0, "-QLXLine", p.line, "-QLXSerial", p.serial, static_cast<char*>(nullptr));
    _exit(kExecFailedStatus);
}

void send_orders(const qlx& record) {
    const lm::lm_orders orders{record.calloutDevice, record.serial,
                               orders_extra_for(record.serial, record.deviceType)};
    const std::string bytes = lm::build_orders(orders);
    kallog(KAL_DEBUG, "Orders for new child with pid %d: line '%s', serial '%s', extra '%s'",
           record.pid, orders.line.c_str(), orders.serial.c_str(), orders.extra.c_str());
    if (safe_write(record.fd.get(), bytes.data(), bytes.size()) <
        static_cast<ssize_t>(lm::lm_orders::kSize))
        kallog(KAL_WARN, "Couldn't write orders to new child with pid %d", record.pid);
}

}  // namespace

std::string orders_extra_for(const std::string&, int deviceType) {
    return "type=" + std::to_string(deviceType);
}

int spawn_correct_linemonitor(qlx* record) {
    switch (record->deviceType) {
        case 1:
            return spawn_linemonitor(linemonitor_path(), kLineMonitorName, record->calloutDevice,
                                     record);
        case 2:
            return spawn_linemonitor(zrx_linemonitor_path(), kZRXLineMonitorName,
                                     record->calloutDevice, record);
        case 3:
            return spawn_linemonitor(v253_linemonitor_path(), kV253LineMonitorName,
                                     record->calloutDevice, record);
        default:
            kallog(KAL_WARN, "Can't start line monitor for unknown device type %d",
                   record->deviceType);
            return -1;
    }
}

int spawn_linemonitor(const std::string& path, const char* argv0, const std::string& line,
                      qlx* record) {
    kallog(KAL_DEBUG, "spawn_linemonitor('%s','%s')", path.c_str(), line.c_str());

    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        int e = errno;
        kallog(KAL_ERR, "Can't spawn %s for %s. Socketpair failed (%d-%s)", path.c_str(),
               line.c_str(), e, strerror(e));
        return -1;
    }
    unique_fd childs_end(sv[0]);
    unique_fd ours(sv[1]);
    kallog(KAL_DEBUG, "generated bidirectional socket pair: %d, %d", sv[0], sv[1]);
    kallog(KAL_DEBUG, "Forking child process");
    kallogflush();  // the child must not inherit unwritten log text

    const ChildPlan plan{
        path.c_str(),     argv0,          line.c_str(), record->serial.c_str(), childs_end.get(),
        kallog_debugfd(), getdtablesize()};
    const pid_t pid = fork();
    if (pid < 0) {
        int e = errno;
        kallog(KAL_ERR, "Can't spawn %s for %s. Fork failed (%d-%s).", path.c_str(), line.c_str(),
               e, strerror(e));
        return -1;
    }
    if (pid == 0)
        become_line_monitor(plan);

    kallog(KAL_INFO,
           "Successful fork of %s as pid %d for %s. Closing fd %d (child side of socketpair)",
           path.c_str(), pid, line.c_str(), childs_end.get());
    childs_end.reset();
    kallog(KAL_DEBUG, "Returning linecomm fd=%d", ours.get());

    set_line_status(*record, QLX_STATUS_UP, "line monitor started");
    record->pid = pid;
    record->fd = std::move(ours);

    report_available_resource(record->serial);
    send_orders(*record);

    kallog(KAL_DEBUG, "Setting O_NONBLOCK for new child");
    if (fcntl(record->fd.get(), F_SETFL, O_NONBLOCK) < 0) {
        int e = errno;
        kallog(KAL_ERR, "Error setting O_NONBLOCK for qlx fd %d: %d-%s. Killing child.).\n",
               record->fd.get(), e, strerror(e));
        // The record stays up: the supervisor sees the child die and acts.
        if (record->pid > 0 && ::kill(record->pid, SIGINT) != 0) {
            e = errno;
            kallog(KAL_WARN, "Couldn't kill(SIGINT) process %d (%d-%s)", record->pid, e,
                   strerror(e));
        }
    }
    // A supervisor must run whenever a child exists; one that just ended
    // for lack of children is started again here.
    start_babymonitor();
    return record->fd.get();
}
