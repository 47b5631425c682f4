#include "lineio/lineisr.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
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

// Sockets that reached end of file. Their children are dead or dying, but
// their records stay up until the supervisor reaps them, and a socket at end
// of file is always readable: watching it would spin this thread and starve
// the supervisor of the device-table lock it needs. They are watched no
// more until the next rescan closes or replaces them. Line event thread only.
std::set<int>& ended_fds = *new std::set<int>;

// How long a line monitor may take to finish a message it has begun.
std::atomic<int> frame_limit_ms{1000};

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

void lineisr_pass(FdBounds& bounds) {
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

    int ready = poll(fds.data(), fds.size(), -1);
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
        ended_fds.clear();
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

void set_line_frame_limit(std::chrono::milliseconds limit) {
    frame_limit_ms = static_cast<int>(limit.count());
}

void service_lineisr(int fd) {
    int index;
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
    }
    kallog(KAL_DEVEL, "Message received from QLX%d.", index);

    // The frame is read without the device-table lock, and a frame that is
    // not complete within the limit counts as a dead line monitor: one that
    // starts a message and then hangs, alive and with its socket open, must
    // not stop the other lines and every client needing the table with it.
    // The socket stays open meanwhile: only a rescan closes line sockets,
    // and rescans run on this thread.
    const int limit_ms = frame_limit_ms;
    char buffer[lm::kEventBufferSize];
    ssize_t n = dmp_read_within(fd, buffer, sizeof buffer, std::chrono::milliseconds(limit_ms));
    if (n < 0 && errno == ETIMEDOUT) {
        kallog(KAL_ERR, "QLX%d left a message unfinished for %d ms. Treating it as dead.", index,
               limit_ms);
        n = 0;
    }
    // A line monitor that dies with our commands still unread in its socket
    // leaves us a reset instead of an end of file. It is the same death, and
    // must not take the daemon down with it.
    if (n < 0 && (errno == ECONNRESET || errno == EPIPE))
        n = 0;
    if (n < 0) {
        int e = errno;
        kallog(KAL_ERR, "LineISR: Error draining QLX%d signal. Quitting. (%d-%s)", index, e,
               strerror(e));
        dm_exit(1);
    }
    if (n == 0) {
        kallog(KAL_ERR, "Read EOF from QLX%d. Killing child process.", index);
        DeviceTableLock lock(kTableRead);
        if (const qlx* rec = line_by_fd(fd))
            kill_qlx(line_index(*rec), SIGHUP);
        ended_fds.insert(fd);
        return;
    }
    dispatch_line_message(std::string_view(buffer, static_cast<size_t>(n)), index);
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
