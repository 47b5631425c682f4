#pragma once

// The one door from the posting threads into the main loop: notifications
// on their way to clients. Any thread pushes; the main loop, woken by the
// descriptor becoming readable, takes everything queued, oldest first.
//
// Thread-safe.

#include <deque>
#include <mutex>

#include "base/unique_fd.h"
#include "service/notification_center.h"

namespace kal {

class NotificationQueue {
  public:
    // Exits the daemon (dm_exit(1)) when the wake-up descriptor cannot be made.
    NotificationQueue();

    // Queues `n` and wakes the main loop unless it is already due to wake.
    void push(Notification n);
    // Wakes the main loop again without queueing anything (for work left over).
    void wake();
    // Everything queued so far, in order; resets the wake-up.
    std::deque<Notification> takeAll();
    // Readable while notifications wait (an eventfd, close-on-exec).
    int fd() const { return wake_.get(); }

  private:
    std::mutex mutex_;  // guards pending_
    std::deque<Notification> pending_;
    unique_fd wake_;
};

}  // namespace kal
