// The daemon as a person runs it: started in a private KAL_ROOT, stopped by
// a signal.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "base/paths.h"
#include "private_bus.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class DaemonStartupTest : public ::testing::Test {
  protected:
    void SetUp() override { write_file(linemonitor_path(), "#!/bin/sh\nexit 0\n", 0755); }

    std::unique_ptr<ChildProcess> start_daemon() {
        return std::make_unique<ChildProcess>(std::vector<std::string>{bin_path("kaldevicemaster")},
                                              std::vector<std::string>{},
                                              root_.path() + "/stderr.txt");
    }
    std::string log() const { return read_file(root_.daemon_log()); }
    // The trasher starts after the signal sources exist: from then on a
    // signal reaches quit_handler.
    bool wait_until_running() {
        return wait_for(
            [&] { return log().find("Adding logtrasher thread") != std::string::npos; });
    }

    TempRoot root_;
    PrivateBus bus_;  // the daemon serves its clients on it
};

TEST_F(DaemonStartupTest, LogsHelloAndSaysGoodbyeOnSigterm) {
    auto daemon = start_daemon();
    ASSERT_TRUE(wait_until_running()) << log();
    EXPECT_THAT(log(),
                HasSubstr("KALDeviceMaster(QZ4.0.5 BD1.0.7 Oct  6 2006 15:57:48) started at"));
    EXPECT_THAT(log(), HasSubstr("NOTICE: Hello, World!\n"));

    daemon->signal(SIGTERM);
    int status = daemon->wait_exit();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_THAT(log(), HasSubstr("INFO: quit handler called (signal=15-term).\n"));
    EXPECT_THAT(log(),
                HasSubstr("WARN: Shutting down normally in quit handler. Goodbye, World!\n"));
}

TEST_F(DaemonStartupTest, SigintEndsItTheSameWay) {
    auto daemon = start_daemon();
    ASSERT_TRUE(wait_until_running()) << log();
    daemon->signal(SIGINT);
    int status = daemon->wait_exit();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_THAT(log(), HasSubstr("quit handler called (signal=2-int)."));
    EXPECT_THAT(log(), HasSubstr("Goodbye, World!"));
}

TEST_F(DaemonStartupTest, MissingLineMonitorProgramExitsOne) {
    unlink(linemonitor_path().c_str());
    auto daemon = start_daemon();
    int status = daemon->wait_exit();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 1);
    const std::string line = "Can't access KALLineMonitor at path " + linemonitor_path();
    EXPECT_THAT(log(), HasSubstr("ERR: " + line + "\n"));
    EXPECT_THAT(read_file(root_.path() + "/stderr.txt"), HasSubstr(line));
}

TEST_F(DaemonStartupTest, TheVoiceModemLineMonitorAloneIsEnoughToRun) {
    unlink(linemonitor_path().c_str());
    write_file(v253_linemonitor_path(), "#!/bin/sh\n", 0755);
    auto daemon = start_daemon();
    ASSERT_TRUE(wait_until_running()) << log();
    daemon->signal(SIGTERM);
    int status = daemon->wait_exit();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_THAT(log(), Not(HasSubstr("Can't access KALLineMonitor")));
}

TEST_F(DaemonStartupTest, NonExecutableLineMonitorProgramExitsOne) {
    write_file(linemonitor_path(), "#!/bin/sh\n", 0644);
    auto daemon = start_daemon();
    int status = daemon->wait_exit();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST_F(DaemonStartupTest, VersionAndHelpPrintAndExitZero) {
    for (const char* option : {"--version", "--help"}) {
        ChildProcess p({bin_path("kaldevicemaster"), option});
        int status = p.wait_exit();
        ASSERT_TRUE(WIFEXITED(status)) << option;
        EXPECT_EQ(WEXITSTATUS(status), 0) << option;
    }
    EXPECT_FALSE(file_exists(root_.daemon_log()));
}

}  // namespace
