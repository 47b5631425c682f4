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
    {
        std::lock_guard lock(mutex_);
        pending_.push_back(std::move(n));
    }
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
    // Reset the counter first: a push after this point wakes the loop again.
    uint64_t count;
    ssize_t ignored = ::read(wake_.get(), &count, sizeof count);
    (void)ignored;
    std::lock_guard lock(mutex_);
    return std::exchange(pending_, {});
}

}  // namespace kal
