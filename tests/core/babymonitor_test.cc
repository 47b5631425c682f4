#include "core/babymonitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "core/device_table.h"
#include "lineio/intrapc.h"
#include "service/notification_center.h"
#include "service/vocabulary.h"
#include "test_support.h"

using namespace kal;
using ::testing::ElementsAre;

namespace {

TEST(RestartPolicyTest, FourRestartsWithinABurstThenAbandon) {
    qlx rec;
    time_t t = 5000;
    std::vector<std::string> verdicts;
    for (int death = 0; death < 5; ++death)
        verdicts.push_back(restart_decision(rec, t += 10));
    EXPECT_THAT(
        verdicts,
        ElementsAre("Restarting.", "Restarting again.", "Restarting again.", "Restarting again.",
                    "Too many restarts too fast. Permanently abandoning this line."));
    EXPECT_EQ(rec.status(), QLX_STATUS_ABANDONED);
    EXPECT_EQ(rec.restartCount, 5);
}

TEST(RestartPolicyTest, BurstIsMeasuredFromTheLatestRestart) {
    qlx rec;
    EXPECT_STREQ(restart_decision(rec, 1000), "Restarting.");
    EXPECT_STREQ(restart_decision(rec, 1120), "Restarting again.");  // exactly 120 s: same burst
    EXPECT_EQ(rec.restartCount, 2);
    EXPECT_STREQ(restart_decision(rec, 1241), "Restarting.");  // 121 s after the last restart
    EXPECT_EQ(rec.restartCount, 1);
    EXPECT_EQ(rec.status(), QLX_STATUS_RESTART);
    EXPECT_EQ(rec.lastRestart, 1241);
}

TEST(BabymonitorTest, ReapedChildMarksItsLineAndWakesTheRescan) {
    init_lmcomm_intrapc();
    std::vector<std::string> events;
    NotificationCenter::defaultCenter().addObserver(kal_QLXEvent, [&](const Notification& n) {
        events.push_back(n.userInfo.at(kal_NotificationNameKey).str() + ":" +
                         std::to_string(n.userInfo.at(kal_ResourceAvailabilityKey).as<int32_t>()));
    });
    pid_t child = fork();
    if (child == 0)
        _exit(18);
    {
        DeviceTableLock lock(kTableChange);
        qlx rec;
        rec.serial = "A1";
        rec.pid = child;
        set_line_status(rec, QLX_STATUS_UP, "a test line");
        std::vector<qlx> table;
        table.push_back(std::move(rec));
        install_device_table(std::move(table));
    }

    start_babymonitor();
    pollfd pfd{lmthread_babymonitor_socket_private, POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, 20000), 1);
    {
        DeviceTableLock lock(kTableRead);
        EXPECT_EQ(gLines[0].pid, -1);
        EXPECT_EQ(gLines[0].status(), QLX_STATUS_RESTART);
        EXPECT_EQ(gMustRescan, 1);
    }
    EXPECT_THAT(events, ElementsAre("KALResourceAvailabilityChanged:0"));
    // With no child left the supervisor ends by itself.
    EXPECT_TRUE(test::wait_for([] { return !babymonitor_running(); }));
}

}  // namespace
