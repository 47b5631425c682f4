#pragma once

// The whole daemon as a test runs it: a private KAL_ROOT, a private system
// bus, fake adapters (umockdev) and the line-monitor simulator installed
// under both program names. Suites derive from DaemonTest.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <memory>
#include <string>
#include <vector>

#include "fake_adapters.h"
#include "linesim_control.h"
#include "private_bus.h"
#include "test_support.h"

namespace kal::test {

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override { install_linesim(); }

    // Starts the daemon on the adapters plugged in so far, with `env` added
    // to its environment, and waits until its log shows `ready`.
    void start_daemon(const std::string& ready = "Adding logtrasher thread",
                      std::vector<std::string> env = {}) {
        daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{daemon_program_},
                                                 std::move(env), root_.path() + "/stderr.txt");
        ASSERT_TRUE(wait_for([&] { return logged(ready); })) << log();
    }
    // Stops it with SIGTERM; it must say goodbye with status 0.
    void stop_daemon() {
        if (!daemon_)
            return;
        daemon_->signal(SIGTERM);
        const int status = daemon_->wait_exit();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        daemon_.reset();
    }

    std::string log() const { return read_file(root_.daemon_log()); }
    bool logged(const std::string& text) const { return log().find(text) != std::string::npos; }
    int count(const std::string& text) const {
        const std::string all = log();
        int n = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
            ++n;
        return n;
    }

    std::string daemon_program_ = bin_path("kaldevicemaster");
    TempRoot root_;
    PrivateBus bus_;  // the daemon serves its clients on it
    FakeAdapters ports_;
    std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace kal::test
