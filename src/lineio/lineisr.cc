#include "lineio/lineisr.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "base/fatal.h"
#include "core/device_table.h"
#include "core/line_node.h"
#include "core/rescan.h"
#include "lineio/intrapc.h"
#include "lineio/protocol.h"
#include "lineio/request_queue.h"
#include "lineio/safe_io.h"
#include "log/kallog.h"
#include "service/notifier.h"

using namespace kal;

namespace {

// Sockets of line monitors that ended (end of file) or that we ended (a
// message left unfinished, a command not taken). Their children are dead or
// dying, but their records stay up until the supervisor reaps them, and a
// socket at end of file is always readable: watching it would spin this
// thread and starve the supervisor of the device-table lock it needs. They
// are watched no more, and get no more commands, until the next rescan
// closes or replaces them. Line event thread only.
std::set<int>& ended_fds = *new std::set<int>;

// The message each line monitor is in the middle of sending, by socket. The
// thread serves every line, so it never waits for the rest of a message: it
// takes what a socket holds and comes back when poll() says there is more.
// The pid tells a new line monitor given a reused descriptor number from
// the one whose bytes are kept. Line event thread only.
struct LineReading {
    pid_t pid;
    FrameReader reader;
};
std::map<int, LineReading>& line_readings = *new std::map<int, LineReading>;

// How long a line monitor may take to finish a message it has begun, or to
// take a command we send it.
std::atomic<int> frame_limit_ms{1000};

// The milliseconds until the oldest unfinished message runs out of time
// (0 if one already has), or -1 when no message is under way: how long the
// loop may wait for something to happen.
int ms_until_a_message_runs_out() {
    const auto limit = line_frame_limit();
    const auto now = std::chrono::steady_clock::now();
    int wait = -1;
    for (const auto& [fd, reading] : line_readings) {
        if (!reading.reader.inFrame())
            continue;
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(reading.reader.started() + limit - now)
                .count();
        const int ms = left <= 0 ? 0 : left > INT_MAX ? INT_MAX : static_cast<int>(left);
        wait = wait < 0 ? ms : std::min(wait, ms);
    }
    return wait;
}

// Ends every line monitor whose unfinished message has run out of time.
void end_line_monitors_out_of_time() {
    const auto limit = line_frame_limit();
    const auto now = std::chrono::steady_clock::now();
    std::vector<int> late;
    for (const auto& [fd, reading] : line_readings)
        if (reading.reader.inFrame() && now - reading.reader.started() >= limit)
            late.push_back(fd);
    for (int fd : late) {
        kallog(KAL_ERR, "QLX%d left a message unfinished for %d ms. Treating it as dead.",
               line_index_of(fd), static_cast<int>(limit.count()));
        end_line_monitor(fd);
    }
}

int descriptor_table_size() {
    struct rlimit rl {};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY)
        return static_cast<int>(rl.rlim_cur);
    return 1024;
}

void* lineisr_main(void*) {
    kallog(KAL_DEBUG, "LineISR thread started. Hello, World!");
    FdBounds bounds = calc_fdbounds();
    kallog(KAL_DEBUG,
           "LineISR: Initial check reveals maxfd=%d and minqlxfd=%d. Starting event loop.",
           bounds.maxfd, bounds.minqlxfd);
    for (;;)
        lineisr_pass(bounds);
    return nullptr;
}

}  // namespace

void start_lineisr() {
    kallog(KAL_DEBUG, "Adding lineisr thread");
    pthread_t tid;
    int rc = pthread_create(&tid, nullptr, lineisr_main, nullptr);
    if (rc != 0) {
        kallog(KAL_ERR, "Couldn't create lineisr thread. Quitting. (%d-%s)", rc, strerror(rc));
        dm_exit(1);
    }
    // Named for ps, top and the benchmark's per-thread figures.
    pthread_setname_np(tid, "kal-lineisr");
    pthread_detach(tid);
}

FdBounds calc_fdbounds() {
    FdBounds b{0, descriptor_table_size()};
    {
        DeviceTableLock lock(kTableRead);
        for (const qlx& rec : gLines) {
            if (rec.status() != QLX_STATUS_UP)
                continue;
            b.maxfd = std::max(b.maxfd, rec.fd.get());
            b.minqlxfd = std::min(b.minqlxfd, rec.fd.get());
        }
    }
    if (lmthread_babymonitor_socket_private > b.maxfd)
        b.maxfd = lmthread_babymonitor_socket_private;
    if (lmthread_userisr_socket_private > b.maxfd)
        b.maxfd = lmthread_userisr_socket_private;
    return b;
}

namespace {

void serve_one_pass(FdBounds& bounds) {
    // poll() in place of select(): same bounds, no FD_SETSIZE limit. A child
    // socket above maxfd waits for the next rescan to be watched.
    std::vector<pollfd> fds;
    fds.push_back({lmthread_babymonitor_socket_private, POLLIN, 0});
    fds.push_back({lmthread_userisr_socket_private, POLLIN, 0});
    {
        DeviceTableLock lock(kTableRead);
        for (const qlx& rec : gLines) {
            const int fd = rec.fd.get();
            if (rec.status() == QLX_STATUS_UP && fd >= 0 && fd <= bounds.maxfd &&
                !ended_fds.count(fd))
                fds.push_back({fd, POLLIN, 0});
        }
    }

    // Waits no longer than the oldest unfinished message has left.
    int ready = poll(fds.data(), fds.size(), ms_until_a_message_runs_out());
    if (ready < 0) {
        int e = errno;
        if (e == EINTR) {
            kallog(KAL_DEBUG, "LineISR: EINTR from select. Continuing.");
            return;
        }
        kallog(KAL_ERR, "LineISR: Error from select. Quitting. (%d-%s)", e, strerror(e));
        dm_exit(1);
    }
    if (ready == 0)
        return;
    // A closed descriptor (poll's counterpart of select's EBADF): the
    // supervisor and the next rescan clean it up.
    for (const auto& p : fds) {
        if (p.revents & POLLNVAL) {
            kallog(KAL_DEBUG, "LineISR: EBADF from select. Assuming babymonitor will help.");
            sleep(1);
            return;
        }
    }

    if (fds[0].revents) {
        kallog(KAL_DEBUG, "LineISR: Caught flag from babymonitor.");
        char drain[4096];
        if (read(lmthread_babymonitor_socket_private, drain, sizeof drain) < 0) {
            int e = errno;
            kallog(KAL_ERR, "LineISR: Error draining babymonitor signal. Quitting. (%d-%s)", e,
                   strerror(e));
            dm_exit(1);
        }
        do_rescan();
        forget_lines_not_in_table();
        bounds = calc_fdbounds();
        kallog(KAL_DEBUG,
               "LineISR: Check after rescan reveals maxfd=%d. Lowest numbered QLX is %d. "
               "Restarting event loop.",
               bounds.maxfd, bounds.minqlxfd);
        return;
    }
    if (fds[1].revents) {
        kallog(KAL_DEBUG, "LineISR: Caught flag from UserISR.");
        char byte;
        if (read(lmthread_userisr_socket_private, &byte, 1) < 0) {
            int e = errno;
            kallog(KAL_ERR, "LineISR: Error draining UserISR signal. Quitting. (%d-%s)", e,
                   strerror(e));
            dm_exit(1);
        }
        service_userisr();
        return;
    }
    std::vector<int> ready_fds;
    for (size_t i = 2; i < fds.size(); ++i)
        if (fds[i].revents)
            ready_fds.push_back(fds[i].fd);
    std::sort(ready_fds.begin(), ready_fds.end());
    for (int fd : ready_fds)
        service_lineisr(fd);
}

}  // namespace

void lineisr_pass(FdBounds& bounds) {
    serve_one_pass(bounds);
    // Whatever woke the pass, a line monitor whose message has run out of
    // time is ended now, so a daemon kept busy by other lines ends it too.
    end_line_monitors_out_of_time();
}

void set_line_frame_limit(std::chrono::milliseconds limit) {
    frame_limit_ms = static_cast<int>(limit.count());
}

std::chrono::milliseconds line_frame_limit() {
    return std::chrono::milliseconds(frame_limit_ms.load());
}

int line_index_of(int fd) {
    DeviceTableLock lock(kTableRead);
    const qlx* rec = line_by_fd(fd);
    return rec ? line_index(*rec) : -1;
}

void end_line_monitor(int fd) {
    {
        DeviceTableLock lock(kTableRead);
        if (const qlx* rec = line_by_fd(fd)) {
            kill_qlx(line_index(*rec), SIGHUP);
            // The socket is shut, not closed: the descriptor number stays the
            // record's until the rescan after the reaping closes it, so no
            // other socket can take it meanwhile, and a line monitor that
            // ignores its hang-up still finds its line to the daemon gone.
            shutdown(fd, SHUT_RDWR);
        }
    }
    ended_fds.insert(fd);
    line_readings.erase(fd);
}

bool line_monitor_ended(int fd) {
    return ended_fds.count(fd) != 0;
}

void forget_lines_not_in_table() {
    ended_fds.clear();
    DeviceTableLock lock(kTableRead);
    std::erase_if(line_readings, [](const auto& entry) {
        const qlx* rec = line_by_fd(entry.first);
        return !rec || rec->status() != QLX_STATUS_UP || rec->pid != entry.second.pid;
    });
}

void service_lineisr(int fd) {
    int index;
    pid_t pid;
    {
        DeviceTableLock lock(kTableRead);
        const qlx* rec = line_by_fd(fd);
        if (!rec) {
            kallog(KAL_ERR,
                   "Message received on linefd %d but no such fd in devicetable... ignoring "
                   "message.",
                   fd);
            return;
        }
        index = line_index(*rec);
        pid = rec->pid;
    }
    kallog(KAL_DEVEL, "Message received from QLX%d.", index);

    // The message is put together without the device-table lock and without
    // waiting for its rest: a line monitor that starts a message and then
    // hangs, alive and with its socket open, must not stop the other lines
    // and every client needing the table with it. One not finished within
    // the frame limit counts as a dead line monitor (see the pass). The
    // socket stays open meanwhile: only a rescan closes line sockets, and
    // rescans run on this thread.
    auto it = line_readings.find(fd);
    if (it == line_readings.end() || it->second.pid != pid)
        it = line_readings.insert_or_assign(fd, LineReading{pid, FrameReader(lm::kEventBufferSize)})
                 .first;
    FrameReader& reader = it->second.reader;
    switch (reader.readSome(fd)) {
        case FrameReader::Step::kWaiting:
            return;
        case FrameReader::Step::kFrame:
            // A message of no bytes has always meant the same as an end of
            // file.
            if (!reader.frame().empty()) {
                const std::string message(reader.frame());
                dispatch_line_message(message, index);
                return;
            }
            break;
        case FrameReader::Step::kEnd:
            break;
        case FrameReader::Step::kError: {
            // A line monitor that dies with our commands still unread in its
            // socket leaves us a reset instead of an end of file. It is the
            // same death, and must not take the daemon down with it.
            const int e = errno;
            if (e == ECONNRESET || e == EPIPE)
                break;
            kallog(KAL_ERR, "LineISR: Error draining QLX%d signal. Quitting. (%d-%s)", index, e,
                   strerror(e));
            dm_exit(1);
        }
    }
    kallog(KAL_ERR, "Read EOF from QLX%d. Killing child process.", index);
    end_line_monitor(fd);
}

void dispatch_line_message(std::string_view message, int index) {
    // One spare byte keeps even a full 4096-byte payload NUL-terminated.
    char buffer[lm::kEventBufferSize + 1] = {};
    const int length = static_cast<int>(std::min(message.size(), lm::kEventBufferSize));
    memcpy(buffer, message.data(), static_cast<size_t>(length));
    kallog(KAL_DEBUG, "Read %d bytes from QLX%d: '%s'", length, index, buffer);

    char serial[80] = {};
    // Held across the calls, so a node that detaches itself inside its
    // handler stays alive until we are done with it.
    std::shared_ptr<LineNode> node;
    {
        DeviceTableLock lock(kTableRead);
        const qlx* rec = line_at(index);
        if (!rec) {
            kallog(KAL_ERR, "Message for QLX%d, which is not in the device table. Ignored.", index);
            return;
        }
        strncpy(serial, rec->serial.c_str(), sizeof serial - 1);
        node = rec->node.lock();
    }
    bool rehandle = false;
    if (node) {
        kallog(KAL_DEVEL, "Dispatching event to node %p", static_cast<void*>(node.get()));
        const int result = node->handleEventWithBuffer(buffer, length, index, serial);
        if (result == kNodeRehandle) {
            kallog(KAL_DEBUG,
                   "Event dispatched to node %p. Node wants to rehandle it. Not releasing in "
                   "line_isr",
                   static_cast<void*>(node.get()));
            rehandle = true;
        } else {
            kallog(KAL_DEVEL, "Event dispatched to node %p. Now releasing in line_isr",
                   static_cast<void*>(node.get()));
            if (result != kNodePassOn)
                return;
        }
    }
    handle_qlx_message(buffer, length, index, serial);
    react_to_qlx_message(buffer, length, index, serial);
    if (rehandle) {
        kallog(KAL_DEBUG, "Asking node %p to re-handle event. Releasing after.",
               static_cast<void*>(node.get()));
        node->rehandleEventWithBuffer(buffer, length, index, serial);
    }
}

void react_to_qlx_message(const char* buffer, int length, int index, const char*) {
    if (length < 1 || buffer[0] != lm::kEvtOffHook)
        return;
    std::optional<std::string> dial, token;
    std::string serial;
    DeviceTableLock lock(kTableChange);
    if (qlx* rec = line_at(index)) {
        if (rec->pendingDial) {
            dial = std::exchange(rec->pendingDial, std::nullopt);
            token = std::exchange(rec->pendingDialToken, std::nullopt);
            serial = rec->serial;
        } else if (gWildcardDialPending) {
            if (!rec->node.expired()) {
                kallog(KAL_DEBUG, "Not doing dial on QLX%d because a node is active on that line.",
                       index);
            } else {
                dial = std::exchange(gWildcardDialPending, std::nullopt);
                token = std::exchange(gWildcardDialToken, std::nullopt);
                serial = rec->serial;
            }
        }
    }
    lock.unlock();
    if (!dial)
        return;
    auto todo = std::make_unique<lm_todo>();
    todo->type = REQ_DIAL;
    todo->data = std::move(*dial);
    todo->token = std::move(token);
    todo->serial = std::move(serial);
    add_todo(std::move(todo));
}
