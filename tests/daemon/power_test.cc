// Sleep and wake: the daemon under a fake logind (python3-dbusmock) on the
// private bus, with fake adapters and the line-monitor simulator. It holds
// a sleep delay lock while awake, stops its line monitors and holds back
// rescans before sleep, and starts them again on wake.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "bus_client.h"
#include "daemon_fixture.h"
#include "fake_logind.h"

using namespace kal::test;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

class DaemonPowerTest : public DaemonTest {
  protected:
    // Power registration comes just before the daemon starts serving.
    void start_daemon() { DaemonTest::start_daemon("IORegisterForSystemPower"); }
    // Exactly the daemon's lock, as logind lists it.
    bool holds_sleep_lock() {
        const auto locks = logind_->inhibitors();
        return locks.size() == 1 && locks[0].what == "sleep" && locks[0].mode == "delay" &&
               locks[0].who == "KALDeviceMaster";
    }
    void start_logind() { logind_ = std::make_unique<FakeLogind>(root_.path()); }

    std::unique_ptr<FakeLogind> logind_;
};

TEST_F(DaemonPowerTest, SleepStopsTheLineMonitorsAndWakeStartsThemAgain) {
    start_logind();
    const std::string serials[] = {"KL1101", "ZR2202"};
    const std::string nodes[] = {ports_.add_adapter(1, serials[0]),
                                 ports_.add_adapter(2, serials[1])};
    start_daemon();
    EXPECT_TRUE(logged("NOTICE: IORegisterForSystemPower complete\n")) << log();
    EXPECT_TRUE(holds_sleep_lock());

    // Twice: the lock taken on waking must be the one let go at the next sleep.
    for (int cycle = 1; cycle <= 2; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        for (const auto& serial : serials) {
            LineSimControl line(serial);
            ASSERT_THAT(line.send("orders"), StartsWith("ok fd=4 ")) << serial << "\n" << log();
        }

        logind_->prepareForSleep(true);
        for (const auto& serial : serials)
            EXPECT_TRUE(wait_for([&] { return !file_exists(linesim_socket(serial)); }))
                << serial << " still runs\n"
                << log();
        EXPECT_TRUE(wait_for([&] { return logind_->inhibitors().empty(); }))
            << "the sleep delay lock was kept";
        // The dead line monitors ask for a rescan, which waits for the wake.
        ASSERT_TRUE(wait_for([&] {
            return count("DEBUG: Deferring rescan because of system sleep state\n") >= cycle;
        })) << log();
        EXPECT_EQ(count("Trying to restart rescanned QLX"), 2 * (cycle - 1)) << log();

        logind_->prepareForSleep(false);
        for (const auto& serial : serials) {
            LineSimControl line(serial);
            ASSERT_TRUE(line.connected()) << serial << " was not started again\n" << log();
            const std::string orders = line.send("orders");
            EXPECT_THAT(orders, StartsWith("ok fd=4 "));
            EXPECT_THAT(orders, HasSubstr(" serial=" + serial + " "));
        }
        EXPECT_TRUE(wait_for([&] { return holds_sleep_lock(); })) << "no lock after waking";
    }

    const std::string all = log();
    EXPECT_THAT(all, HasSubstr("DEBUG: Received kIOMessageSystemWillSleep. Shutting down line "
                               "monitors. Preventing rescan.\n"));
    for (const auto& node : nodes)
        EXPECT_THAT(all, ContainsRegex("Sending signal 'hup' to process [0-9]+ servicing line " +
                                       node + "\\.\n"));
    for (const char* line : {"DEBUG: Received kIOMessageSystemHasPoweredOn.\n",
                             "DEBUG: Unlocking rescan\n", "DEBUG: Signalling for rescan\n"})
        EXPECT_EQ(count(line), 2) << line;
    EXPECT_THAT(all, Not(HasSubstr("Couldn't wake up linemonitor service thread.")));
    stop_daemon();
}

TEST_F(DaemonPowerTest, AdapterPluggedInWhileAsleepIsSetUpOnWaking) {
    start_logind();
    ports_.add_adapter(1, "KL3303");
    start_daemon();
    ASSERT_TRUE(LineSimControl("KL3303").connected()) << log();
    logind_->prepareForSleep(true);
    ASSERT_TRUE(wait_for([&] { return !file_exists(linesim_socket("KL3303")); })) << log();

    const std::string added = ports_.add_adapter(2, "ZR4404");
    const auto deferred_after_plug = [&] {
        const std::string all = log();
        const size_t plug = all.find("ioNotificationHandler informed of new IOSerialDevice(s).");
        return plug != std::string::npos &&
               all.find("Deferring rescan because of system sleep state", plug) !=
                   std::string::npos;
    };
    ASSERT_TRUE(wait_for(deferred_after_plug)) << log();
    EXPECT_FALSE(file_exists(linesim_socket("ZR4404")));
    EXPECT_FALSE(logged("Trying to initialize rescanned")) << log();

    logind_->prepareForSleep(false);
    for (const char* serial : {"KL3303", "ZR4404"}) {
        LineSimControl line(serial);
        EXPECT_THAT(line.send("orders"), StartsWith("ok fd=4 ")) << serial << "\n" << log();
    }
    EXPECT_THAT(log(), HasSubstr("(s/n: 'ZR4404') at " + added + "\n"));
    stop_daemon();
}

TEST_F(DaemonPowerTest, WithoutLogindTheDaemonLogsTheFailureAndStillServes) {
    ports_.add_adapter(1, "KL5505");
    start_daemon();
    EXPECT_TRUE(logged("NOTICE: IORegisterForSystemPower failed\n")) << log();
    BusClient client;
    EXPECT_TRUE(wait_for([&] { return client.registerApp().ok(); })) << log();
    EXPECT_THAT(LineSimControl("KL5505").send("orders"), StartsWith("ok fd=4 "));
    stop_daemon();
}

}  // namespace
