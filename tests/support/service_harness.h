#pragma once

// The daemon's client server for tests: a KALSpokesman serving on the
// private bus (start a PrivateBus first) from its own thread, which plays
// the daemon's main thread and runs its sd-event loop. Everything that
// touches the server goes through run(), which executes on that thread.

#include <systemd/sd-event.h>

#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include "base/unique_fd.h"
#include "service/spokesman.h"

namespace kal::test {

class ServiceHarness {
  public:
    // Returns once the server owns its name.
    explicit ServiceHarness(SpokesmanOptions options = SpokesmanOptions());
    // Stops the loop and destroys the server on its thread.
    ~ServiceHarness();
    ServiceHarness(const ServiceHarness&) = delete;
    ServiceHarness& operator=(const ServiceHarness&) = delete;

    // Runs `fn` on the server's thread and waits for it.
    void run(const std::function<void(KALSpokesman&)>& fn);
    template <typename R>
    R get(const std::function<R(KALSpokesman&)>& fn) {
        R result{};
        run([&](KALSpokesman& s) { result = fn(s); });
        return result;
    }

  private:
    void serve(SpokesmanOptions options, std::promise<void>& started);
    static int onTask(sd_event_source*, int, uint32_t, void* userdata);

    unique_fd wake_;
    std::mutex mutex_;  // guards tasks_
    std::deque<std::function<void()>> tasks_;
    // Used on the server thread only.
    sd_event* loop_ = nullptr;
    std::unique_ptr<KALSpokesman> spokesman_;
    std::thread thread_;
};

}  // namespace kal::test
