#pragma once

// The whole daemon as a test runs it: a private KAL_ROOT, a private system
// bus, fake adapters (umockdev) and the line-monitor simulator installed
// under both program names. Suites derive from DaemonTest.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
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

    // The serials of the daemon's running line monitors, sorted; a child
    // that ended but was not reaped counts as "<unreaped>".
    std::vector<std::string> line_monitors() const {
        std::vector<std::string> serials;
        for (const ProcessInfo& child : children_of(daemon_->pid())) {
            auto flag = std::find(child.argv.begin(), child.argv.end(), "-QLXSerial");
            if (child.zombie)
                serials.push_back("<unreaped>");
            else if (flag != child.argv.end() && flag + 1 != child.argv.end())
                serials.push_back(flag[1]);
        }
        std::sort(serials.begin(), serials.end());
        return serials;
    }
    // The pid of the line monitor running for `serial`, or -1.
    pid_t line_monitor_pid(const std::string& serial) const {
        for (const ProcessInfo& child : children_of(daemon_->pid())) {
            auto flag = std::find(child.argv.begin(), child.argv.end(), "-QLXSerial");
            if (!child.zombie && flag != child.argv.end() && flag + 1 != child.argv.end() &&
                flag[1] == serial)
                return child.pid;
        }
        return -1;
    }
    // Whether the daemon's child `pid` is gone: ended and reaped.
    bool reaped(pid_t pid) const {
        for (const ProcessInfo& child : children_of(daemon_->pid()))
            if (child.pid == pid)
                return false;
        return true;
    }
    int daemon_descriptors() const { return open_descriptor_count(daemon_->pid()); }

    std::string daemon_program_ = bin_path("kaldevicemaster");
    TempRoot root_;
    PrivateBus bus_;  // the daemon serves its clients on it
    FakeAdapters ports_;
    std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace kal::test
