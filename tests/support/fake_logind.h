#pragma once

// A fake systemd-logind on the private bus: python3-dbusmock's logind
// template, run as a child of the test. Start a PrivateBus first.
//
//     PrivateBus bus;
//     FakeLogind logind(root.path());   // returns once it owns its name
//     ... start the daemon ...
//     EXPECT_EQ(logind.inhibitors().size(), 1u);
//     logind.prepareForSleep(true);

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "service/sd_bus_handles.h"
#include "test_support.h"

namespace kal::test {

// Polls the bus until `name` has an owner; false after `deadline`.
bool wait_for_bus_name(const std::string& name,
                       std::chrono::milliseconds deadline = std::chrono::seconds(20));

class FakeLogind {
  public:
    // One lock as ListInhibitors reports it.
    struct Inhibitor {
        std::string what, who, why, mode;
    };

    // Starts the mock, logging what it is asked to `dir`/dbusmock-logind.log,
    // and waits until it owns org.freedesktop.login1; throws
    // std::runtime_error when it does not in time.
    explicit FakeLogind(const std::string& dir);
    ~FakeLogind();
    FakeLogind(const FakeLogind&) = delete;
    FakeLogind& operator=(const FakeLogind&) = delete;

    // The locks logind holds for its callers (gone when they close them).
    std::vector<Inhibitor> inhibitors();
    // Emits PrepareForSleep(start), as logind does before (true) and after
    // (false) the machine sleeps.
    void prepareForSleep(bool start);

  private:
    std::unique_ptr<ChildProcess> mock_;
    BusPtr bus_;
};

}  // namespace kal::test
