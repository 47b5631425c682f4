#include "base/clock.h"

#include <atomic>

namespace kal {
namespace {

class SystemClock final : public Clock {
  public:
    time_t now() const override { return ::time(nullptr); }
};

// Never destroyed: detached threads may read the time while exit() runs.
SystemClock& g_system_clock = *new SystemClock;
std::atomic<Clock*> g_clock{&g_system_clock};

}  // namespace

Clock& current_clock() {
    return *g_clock.load(std::memory_order_acquire);
}

void set_clock(Clock* c) {
    g_clock.store(c ? c : &g_system_clock, std::memory_order_release);
}

time_t ManualClock::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

void ManualClock::set(time_t t) {
    std::vector<std::function<void()>> listeners;
    {
        std::lock_guard lock(mutex_);
        now_ = t;
        listeners = listeners_;
    }
    for (auto& fn : listeners)
        fn();
}

void ManualClock::add_listener(std::function<void()> fn) {
    std::lock_guard lock(mutex_);
    listeners_.push_back(std::move(fn));
}

}  // namespace kal
