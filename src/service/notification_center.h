#pragma once

// The daemon's in-process notification centre. Any thread may post; each
// observer runs synchronously on the posting thread, without the centre's
// lock held, so an observer may post or (un)subscribe in turn. Observers
// that need another thread (the D-Bus forwarder) hand the notification on
// through their own queue.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/value.h"

namespace kal {

struct Notification {
    std::string name;
    Value object;        // the adapter's serial for everything the daemon posts
    ValueDict userInfo;  // every key of the shared vocabulary
};

class NotificationCenter {
  public:
    using Observer = std::function<void(const Notification&)>;
    using ObserverId = uint64_t;

    // The process's default centre.
    static NotificationCenter& defaultCenter();

    // Observes notifications named `name`, or every notification when empty.
    ObserverId addObserver(std::string name, Observer observer);
    void removeObserver(ObserverId id);
    void post(const Notification& n);

  private:
    struct Entry {
        ObserverId id;
        std::string name;
        std::shared_ptr<Observer> fn;
    };
    std::mutex mutex_;  // guards entries_ and next_id_
    std::vector<Entry> entries_;
    ObserverId next_id_ = 1;
};

}  // namespace kal
