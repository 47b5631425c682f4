#include "service/notification_center.h"

#include <algorithm>

namespace kal {

NotificationCenter& NotificationCenter::defaultCenter() {
    // Never destroyed: threads may still post while exit() runs destructors.
    static NotificationCenter* center = new NotificationCenter;
    return *center;
}

NotificationCenter::ObserverId NotificationCenter::addObserver(std::string name,
                                                               Observer observer) {
    std::lock_guard lock(mutex_);
    ObserverId id = next_id_++;
    entries_.push_back({id, std::move(name), std::make_shared<Observer>(std::move(observer))});
    return id;
}

void NotificationCenter::removeObserver(ObserverId id) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [id](const Entry& e) { return e.id == id; });
}

void NotificationCenter::post(const Notification& n) {
    std::vector<std::shared_ptr<Observer>> targets;
    {
        std::lock_guard lock(mutex_);
        for (const auto& e : entries_)
            if (e.name.empty() || e.name == n.name)
                targets.push_back(e.fn);
    }
    for (const auto& fn : targets)
        (*fn)(n);
}

}  // namespace kal
