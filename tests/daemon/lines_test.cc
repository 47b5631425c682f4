// The daemon with fake adapters plugged in (umockdev) and the line-monitor
// simulator installed under both program names: one line monitor per
// adapter, and what unplugging does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "base/paths.h"
#include "daemon_fixture.h"

using namespace kal;
using namespace kal::test;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

// The trasher starts once every line monitor has been spawned: the
// fixture's default readiness line.
using DaemonLinesTest = DaemonTest;

TEST_F(DaemonLinesTest, EachAdapterGetsALineMonitorOfItsModelWithItsOrders) {
    struct Adapter {
        int type;
        const char* serial;
        const char* program;
        std::string node;
    } adapters[] = {{1, "KL1001", "KALLineMonitor", ""}, {2, "ZR2002", "ZRXLineMonitor", ""}};
    for (auto& a : adapters)
        a.node = ports_.add_adapter(a.type, a.serial);
    ports_.add_builtin_port();  // not an adapter: no line monitor

    start_daemon();
    for (const auto& a : adapters) {
        SCOPED_TRACE(a.serial);
        EXPECT_THAT(log(), HasSubstr("(s/n: '" + std::string(a.serial) + "') at " + a.node +
                                     " (device type = " + std::to_string(a.type) + ")\n"));
        LineSimControl line(a.serial);
        ASSERT_TRUE(line.connected());
        const std::string orders = line.send("orders");
        EXPECT_THAT(orders, StartsWith("ok fd=4 "));
        EXPECT_THAT(orders, HasSubstr(" line=" + a.node + " "));
        EXPECT_THAT(orders, HasSubstr(" serial=" + std::string(a.serial) + " "));
        EXPECT_THAT(orders, HasSubstr(" program=" + std::string(a.program) + " "));
    }
    EXPECT_THAT(log(), HasSubstr("Done detecting 2 QLXs"));
    EXPECT_THAT(log(), Not(HasSubstr("Failed to initialize")));

    stop_daemon();
    for (const auto& a : adapters)
        EXPECT_TRUE(wait_for([&] { return !file_exists(linesim_socket(a.serial)); }))
            << a.serial << " still runs after the daemon stopped";
}

TEST_F(DaemonLinesTest, UnplugHangsUpTheLineMonitorAndPlugInIsNoticed) {
    const std::string adapter = ports_.add_adapter(1, "KL3003");
    start_daemon();
    LineSimControl line("KL3003");
    ASSERT_THAT(line.send("orders"), StartsWith("ok fd=4 "));
    const pid_t linemonitor = line_monitor_pid("KL3003");

    ports_.unplug(adapter);
    // A rescan that runs before the port has left the testbed restarts the
    // line: wait for this line monitor, not for the line's.
    EXPECT_TRUE(wait_for([&] { return reaped(linemonitor); }))
        << "the line monitor never got SIGHUP\n"
        << log();
    EXPECT_THAT(log(), ContainsRegex("Sending signal 'hup' to process [0-9]+ servicing line " +
                                     adapter + "\\.\n"));

    ports_.add_adapter(2, "ZR4004");
    EXPECT_TRUE(wait_for([&] {
        return logged("NOTICE: ioNotificationHandler informed of new IOSerialDevice(s).");
    })) << log();
    stop_daemon();
}

TEST_F(DaemonLinesTest, HotPlugAddsAndRemovesLinesThroughTheRescan) {
    const std::string first = ports_.add_adapter(1, "KL5005");
    start_daemon();
    ASSERT_TRUE(LineSimControl("KL5005").connected());

    ports_.add_adapter(2, "ZR6006");
    LineSimControl second("ZR6006");
    ASSERT_TRUE(second.connected()) << log();
    EXPECT_THAT(second.send("orders"), StartsWith("ok fd=4 "));
    EXPECT_TRUE(logged("Rescanned QLX0 is old QLX0.")) << log();
    EXPECT_TRUE(logged("Trying to initialize rescanned QLX1 (s/n: 'ZR6006')")) << log();

    // The rescan that follows the unplug may still see the port, which the
    // testbed removes only after announcing the removal; plugging in a third
    // adapter afterwards guarantees a rescan that no longer does.
    ports_.unplug(first);
    ports_.add_adapter(1, "KL8008");
    ASSERT_TRUE(LineSimControl("KL8008").connected()) << log();
    EXPECT_TRUE(wait_for([&] { return logged("Rescanned QLX0 is old QLX1."); })) << log();
    EXPECT_TRUE(logged("2 QLXs left after rescan"));
    EXPECT_THAT(second.send("orders"), StartsWith("ok fd=4 "));
    stop_daemon();
}

TEST_F(DaemonLinesTest, DyingLineMonitorIsRestartedThenAbandoned) {
    ports_.add_adapter(1, "KL7007");
    start_daemon();
    // Four deaths within the burst are restarted, the fifth abandons the line.
    for (int death = 1; death <= 5; ++death) {
        LineSimControl line("KL7007");
        ASSERT_TRUE(line.connected()) << "death " << death << "\n" << log();
        line.send(death == 3 ? "crash 11" : "exit 3");
        const int restarts = death < 5 ? death : 4;
        ASSERT_TRUE(wait_for([&] {
            return count("Trying to restart rescanned QLX0") == restarts &&
                   count("LineISR: Check after rescan") >= death;
        })) << "death "
            << death << "\n"
            << log();
    }
    EXPECT_THAT(log(), HasSubstr("exited normally with return code 3. Restarting.\n"));
    EXPECT_THAT(log(), HasSubstr("was terminated with signal 11 (segv). Restarting again.\n"));
    EXPECT_THAT(log(), HasSubstr("Too many restarts too fast. Permanently abandoning this line."));
    EXPECT_TRUE(wait_for([&] { return logged("Marking rescanned QLX0 as permanently down."); }));
    stop_daemon();
}

}  // namespace
