#include "lineio/timers.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <list>
#include <mutex>

#include "base/clock.h"
#include "base/fatal.h"
#include "log/kallog.h"

using namespace kal;

namespace {

struct kal_timer {
    time_t when;
    TimerCallback callback;
    TimerOwner id;
    int data;
};

// timer_mutex guards tl_head, timer_running and the pipe descriptors.
std::mutex timer_mutex;
std::list<kal_timer>& tl_head = *new std::list<kal_timer>;  // in due-time order
bool timer_running = false;
int timer_main_fd = -1;    // write end of the wake-up pipe, made once
int timer_thread_fd = -1;  // read end

// Waits until `seconds` have passed or a wake-up byte arrives.
void wait_for_wakeup(time_t seconds) {
    kallog(KAL_DEVEL, "Timer Workthread: Starting sleep");
    struct pollfd pfd = {timer_thread_fd, POLLIN, 0};
    const int ms = seconds > 86400 ? 86400 * 1000 : static_cast<int>(seconds * 1000);
    int rc = poll(&pfd, 1, ms);
    kallog(KAL_DEVEL, "Timer Workthread: Ending sleep");
    if (rc > 0 && (pfd.revents & POLLIN)) {
        char drain[1024];
        if (read(timer_thread_fd, drain, sizeof drain) < 0 && errno != EAGAIN && errno != EINTR) {
            int e = errno;
            kallog(KAL_ERR, "Timer Workthread: Error draining timer_fd signal. Quitting. (%d-%s)",
                   e, strerror(e));
            dm_exit(1);
        }
    }
}

void* timer_main(void*) {
    for (;;) {
        std::unique_lock lock(timer_mutex);
        for (;;) {
            if (tl_head.empty()) {
                kallog(KAL_DEBUG, "Timer thread exiting due to no more work");
                timer_running = false;
                return nullptr;
            }
            if (tl_head.front().when > kal::now())
                break;
            kal_timer due = std::move(tl_head.front());
            tl_head.pop_front();
            kallog(KAL_DEBUG, "Timer thread executing callback for caller %ld",
                   static_cast<long>(due.id));
            lock.unlock();
            due.callback(due.id, due.data);
            lock.lock();
        }
        const time_t wait = tl_head.front().when - kal::now();
        lock.unlock();
        if (wait > 0)
            wait_for_wakeup(wait);
    }
}

// Called with timer_mutex held.
void ensure_thread_and_wake() {
    if (!timer_running) {
        kallog(KAL_DEBUG, "Adding timer thread");
        if (timer_main_fd == -1) {
            int fds[2];
            if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
                int e = errno;
                // The wording is shared with the line event thread's pipes.
                kallog(KAL_ERR,
                       "Couldn't create lineisr-babymonitor intrapc pipe. Quitting. (%d-%s)", e,
                       strerror(e));
                dm_exit(1);
            }
            timer_thread_fd = fds[0];
            timer_main_fd = fds[1];
            kallog(KAL_DEBUG, "main-thread intrapc pipe created (in=%d;out=%d).", timer_main_fd,
                   timer_thread_fd);
        }
        pthread_t tid;
        int rc = pthread_create(&tid, nullptr, timer_main, nullptr);
        if (rc != 0) {
            kallog(KAL_ERR, "Couldn't create timer thread. Quitting. (%d-%s)", rc, strerror(rc));
            dm_exit(1);
        }
        // Named for ps, top and the benchmark's per-thread figures.
        pthread_setname_np(tid, "kal-timers");
        timer_running = true;
        rc = pthread_detach(tid);
        if (rc != 0) {
            kallog(KAL_WARN,
                   "Couldn't detach timer thread. Things may get a bit piled up over time... "
                   "(%d-%s)",
                   rc, strerror(rc));
        }
    }
    ssize_t n = write(timer_main_fd, "@", 1);
    // A full pipe already holds a wake-up the thread has yet to see.
    if (n != 1 && !(n == -1 && errno == EAGAIN)) {
        int e = errno;
        kallog(KAL_WARN, "Couldn't wake up timer thread for userisr. Write returned %d. (%d-%s).",
               static_cast<int>(n), e, strerror(e));
        dm_exit(1);
    }
}

}  // namespace

int add_timer_at(time_t when, TimerCallback callback, TimerOwner id, int data) {
    std::lock_guard lock(timer_mutex);
    auto pos = tl_head.begin();
    if (tl_head.empty() || when < tl_head.front().when) {
        kallog(KAL_DEVEL, "Inserting into timer list in head case.");
    } else {
        kallog(KAL_DEVEL, "Inserting timer for %ld into timer list in seek case (head=%ld).",
               static_cast<long>(when), static_cast<long>(tl_head.front().when));
        // Past every timer not later than `when`: equal due times fire in
        // the order they were added.
        while (pos != tl_head.end() && pos->when <= when) {
            kallog(KAL_DEVEL, "Skipping because next's time %ld <= %ld",
                   static_cast<long>(pos->when), static_cast<long>(when));
            ++pos;
        }
        kallog(KAL_DEVEL, "Inserting record for %ld between record for %ld and record for %ld",
               static_cast<long>(when), static_cast<long>(std::prev(pos)->when),
               pos == tl_head.end() ? -1L : static_cast<long>(pos->when));
    }
    tl_head.insert(pos, kal_timer{when, std::move(callback), id, data});
    kallog(KAL_DEBUG, "add_timer_at %ld seconds. Callback: %p. id: %ld. data: %d.",
           static_cast<long>(when), static_cast<const void*>(&tl_head), static_cast<long>(id),
           data);
    ensure_thread_and_wake();
    return 1;
}

int add_timer_in(int seconds, TimerCallback callback, TimerOwner id, int data) {
    kallog(KAL_DEVEL, "add_timer_in %d seconds. Callback: %p. id: %ld. data: %d.", seconds,
           static_cast<const void*>(&callback), static_cast<long>(id), data);
    return add_timer_at(kal::now() + seconds, std::move(callback), id, data);
}

int cancel_timer(TimerOwner id) {
    kallog(KAL_DEBUG, "Cancelling timers for caller id %ld (%p)", static_cast<long>(id),
           reinterpret_cast<void*>(id));
    std::lock_guard lock(timer_mutex);
    int removed = 0;
    for (auto it = tl_head.begin(); it != tl_head.end();) {
        if (it->id == id) {
            kallog(KAL_DEVEL, "Removing timer node for id %ld (at %ld)", static_cast<long>(id),
                   static_cast<long>(it->when));
            it = tl_head.erase(it);
            ++removed;
        } else {
            kallog(KAL_DEVEL, "Skipping timer for id %ld (at %ld)", static_cast<long>(it->id),
                   static_cast<long>(it->when));
            ++it;
        }
    }
    return removed;
}

void kick_timer_thread() {
    std::lock_guard lock(timer_mutex);
    if (timer_running && timer_main_fd != -1) {
        ssize_t n = write(timer_main_fd, "@", 1);
        (void)n;  // a full pipe already holds a wake-up
    }
}

int pending_timer_count() {
    std::lock_guard lock(timer_mutex);
    return static_cast<int>(tl_head.size());
}

int pending_timer_count(TimerOwner id) {
    std::lock_guard lock(timer_mutex);
    int count = 0;
    for (const kal_timer& t : tl_head)
        count += t.id == id ? 1 : 0;
    return count;
}

bool timer_thread_running() {
    std::lock_guard lock(timer_mutex);
    return timer_running;
}
