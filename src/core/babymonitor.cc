#include "core/babymonitor.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "base/clock.h"
#include "base/fatal.h"
#include "base/signame.h"
#include "core/line_node.h"
#include "lineio/intrapc.h"
#include "log/kallog.h"
#include "service/notifier.h"

using namespace kal;

namespace {

// babymonitor_mutex guards the two below; taken only at start and end of
// the thread, never while this thread holds another lock.
std::mutex babymonitor_mutex;
bool babymonitor_is_running = false;
pthread_t babymonitor_tid{};
bool babymonitor_tid_valid = false;

void raise_priority() {
    int policy = 0;
    struct sched_param param {};
    int rc = pthread_getschedparam(pthread_self(), &policy, &param);
    if (rc != 0) {
        kallog(KAL_ERR, "Can't get babymonitor thread scheduling parameters (%d-%s). Quitting.", rc,
               strerror(rc));
        dm_exit(1);
    }
    param.sched_priority += 1;
    kallog(KAL_DEBUG, "Increasing babymonitor thread priority to %d", param.sched_priority);
    rc = pthread_setschedparam(pthread_self(), policy, &param);
    if (rc != 0) {
        // The normal time-sharing policy has no priorities on Linux: running
        // one step above our producers is a nicety, not a need.
        kallog(KAL_DEBUG, "Can't set babymonitor thread scheduling parameters (%d-%s). Going on.",
               rc, strerror(rc));
    }
}

void log_death(pid_t pid, int status, const char* verdict) {
    if (WIFEXITED(status)) {
        kallog(KAL_NOTICE, "Child %d exited normally with return code %d. %s", pid,
               WEXITSTATUS(status), verdict ? verdict : "(null)");
    } else if (WIFSIGNALED(status)) {
        const int sig = WTERMSIG(status);
        kallog(KAL_ERR, "Child %d was terminated with signal %d (%s%s). %s", pid, sig,
               signal_short_name(sig), WCOREDUMP(status) ? " -- Core dumped" : "",
               verdict ? verdict : "(null)");
    } else {
        kallog(KAL_ERR, "Child %d terminated for unknown reasons. %s", pid,
               verdict ? verdict : "(null)");
    }
}

void* babymonitor(void*) {
    raise_priority();
    // Not cleared between deaths: a pid that matches no line is logged with
    // the previous verdict.
    const char* verdict = nullptr;
    for (;;) {
        int status = 0;
        pid_t pid = wait(&status);
        if (pid == -1) {
            // A child forked after wait() gave up finds us still marked as
            // running, so its spawn starts no supervisor: look again under
            // the lock, which that spawn's start_babymonitor takes after the
            // fork, and only end when there really is no child.
            std::lock_guard lock(babymonitor_mutex);
            siginfo_t info{};
            if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0)
                continue;
            kallog(KAL_DEBUG, "Babymonitor exiting due to no more children");
            babymonitor_is_running = false;
            babymonitor_tid_valid = false;
            return nullptr;
        }
        lock_system_state(0);
        if (gSystemState == kSystemShuttingDown) {
            kallog(KAL_DEBUG, "Baby monitor exiting due to system shutdown.");
            unlock_system_state();
            // babymonitor_is_running stays set: no new supervisor may start
            // while the daemon exits.
            return nullptr;
        }
        unlock_system_state();

        {
            DeviceTableLock lock(kTableChange);
            if (qlx* rec = line_by_pid(pid)) {
                rec->pid = -1;
                gMustRescan = 1;
                report_disconnected_resource(rec->serial);
                if (auto node = rec->node.lock()) {
                    kallog(KAL_DEVEL, "notifying node %p - device lost",
                           static_cast<void*>(node.get()));
                    node_devicelost(*node);
                }
                verdict = restart_decision(*rec, kal::now());
            }
        }

        log_death(pid, status, verdict);

        int n = wake_lineisr_for_rescan();
        if (n != 1) {
            int e = errno;
            kallog(KAL_WARN,
                   "Couldn't wake up linemonitor service thread. Write returned %d. (%d-%s). Not "
                   "quitting and not trying again.",
                   n, e, strerror(e));
        }
        kallog(KAL_DEVEL, "Signal lineisr complete. return=%d", n);
    }
}

}  // namespace

const char* restart_decision(qlx& rec, time_t now) {
    if (now - rec.lastRestart > kRestartBurstSeconds) {
        rec.lastRestart = now;
        rec.restartCount = 1;
        set_line_status(rec, QLX_STATUS_RESTART, "its line monitor died");
        return "Restarting.";
    }
    if (++rec.restartCount < kRestartBurstLimit) {
        set_line_status(rec, QLX_STATUS_RESTART, "its line monitor died again");
        rec.lastRestart = now;
        return "Restarting again.";
    }
    set_line_status(rec, QLX_STATUS_ABANDONED, "its line monitor died too often too fast");
    return "Too many restarts too fast. Permanently abandoning this line.";
}

void start_babymonitor() {
    std::lock_guard lock(babymonitor_mutex);
    if (babymonitor_is_running)
        return;
    babymonitor_is_running = true;
    kallog(KAL_DEBUG, "Adding babymonitor thread");
    int rc = pthread_create(&babymonitor_tid, nullptr, babymonitor, nullptr);
    if (rc != 0) {
        kallog(KAL_ERR, "Couldn't create babymonitor thread. Quitting. (%d-%s)", rc, strerror(rc));
        dm_exit(1);
    }
    // Named for ps, top and the benchmark's per-thread figures.
    pthread_setname_np(babymonitor_tid, "kal-babymon");
    babymonitor_tid_valid = true;
    kallog(KAL_DEBUG, "Detaching babymonitor thread");
    rc = pthread_detach(babymonitor_tid);
    if (rc != 0) {
        kallog(KAL_WARN,
               "Couldn't detach babymonitor thread. Things may get a bit piled up over time... "
               "(%d-%s)",
               rc, strerror(rc));
    }
}

void stop_babymonitor() {
    pthread_t tid;
    {
        std::lock_guard lock(babymonitor_mutex);
        if (!babymonitor_tid_valid)
            return;
        tid = babymonitor_tid;
    }
    kallog(KAL_DEBUG, "Cancelling babymonitor thread");
    int rc = pthread_cancel(tid);
    if (rc != 0) {
        kallog(KAL_ERR,
               "Couldn't cancel babymonitor thread. Not quitting but things could get weird. "
               "(%d-%s)",
               rc, strerror(rc));
        return;
    }
    // The thread is detached: there is nothing to join. Cancellation takes
    // effect at its next wait().
    kallog(KAL_DEBUG, "Done killing babymonitor thread");
    std::lock_guard lock(babymonitor_mutex);
    babymonitor_tid_valid = false;
    babymonitor_is_running = false;
}

bool babymonitor_running() {
    std::lock_guard lock(babymonitor_mutex);
    return babymonitor_is_running;
}
