#pragma once

// The daemon's notion of "now" in whole seconds. Everything that reads the
// time for a decision (log rolls, the trasher's age limit, timers, nodes)
// goes through kal::now(), so tests can install a ManualClock and move
// time forward instead of sleeping through it.

#include <ctime>
#include <functional>
#include <mutex>
#include <vector>

namespace kal {

class Clock {
  public:
    virtual ~Clock() = default;
    virtual time_t now() const = 0;
};

// The process-wide clock: the system clock unless a test installed another.
Clock& current_clock();
// Shorthand for current_clock().now().
inline time_t now() {
    return current_clock().now();
}
// Install `c` (not owned; must outlive its use), or nullptr for the system clock.
void set_clock(Clock* c);

// A clock that only moves when told to. Thread-safe. Listeners run after
// every change, on the thread that changed the time, so a thread that sleeps
// until a due time (the timer thread) can be woken to look again.
class ManualClock final : public Clock {
  public:
    explicit ManualClock(time_t start = 1000000000) : now_(start) {}
    time_t now() const override;
    void set(time_t t);
    void advance(time_t seconds) { set(now() + seconds); }
    void add_listener(std::function<void()> fn);

  private:
    mutable std::mutex mutex_;  // guards now_ and listeners_
    time_t now_;
    std::vector<std::function<void()>> listeners_;
};

}  // namespace kal
