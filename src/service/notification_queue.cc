#include "service/notification_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "base/fatal.h"
#include "log/kallog.h"

namespace kal {

NotificationQueue::NotificationQueue() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_) {
        int e = errno;
        kallog(KAL_ERR, "Couldn't create the notification wake-up descriptor (%d-%s). Quitting.", e,
               strerror(e));
        dm_exit(1);
    }
}

void NotificationQueue::push(Notification n) {
    bool first;
    {
        std::lock_guard lock(mutex_);
        first = pending_.empty();
        pending_.push_back(std::move(n));
    }
    // The loop takes everything queued at once, so only the notification
    // that finds the queue empty has to wake it: the others ride along. One
    // that finds it taken a moment later wakes it again.
    if (first)
        wake();
}

void NotificationQueue::wake() {
    // Only fails when the counter would overflow, and then the loop is
    // already due to wake.
    const uint64_t one = 1;
    ssize_t ignored = ::write(wake_.get(), &one, sizeof one);
    (void)ignored;
}

std::deque<Notification> NotificationQueue::takeAll() {
    // The counter is reset under the lock, with the queue emptied: a push
    // that found the queue non-empty has nothing left to wake for, and the
    // next push finds it empty and wakes the loop again.
    std::lock_guard lock(mutex_);
    uint64_t count;
    ssize_t ignored = ::read(wake_.get(), &count, sizeof count);
    (void)ignored;
    return std::exchange(pending_, {});
}

}  // namespace kal
