// The rescan against fake ports: what it keeps, restarts, fails and drops.

#include "core/rescan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "core/device_table.h"
#include "core/line_node.h"
#include "fake_adapters.h"
#include "linesim_control.h"
#include "service/notification_center.h"
#include "service/vocabulary.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class CountingNode : public LineNode {
  public:
    int handleEventWithBuffer(const char*, int, int, const char*) override { return 0; }
    void rehandleEventWithBuffer(const char*, int, int, const char*) override {}
    void setDevicePtr(qlx* r) override { record = r; }
    void deviceLost() override { ++lost; }
    qlx* record = nullptr;
    int lost = 0;
};

class RescanTest : public ::testing::Test {
  protected:
    void SetUp() override {
        install_linesim();
        observer_ = NotificationCenter::defaultCenter().addObserver(
            kal_RequestComplete, [this](const Notification& n) {
                failures_.push_back(n.userInfo.at(kal_Token).str() + ":" +
                                    n.userInfo.at(kal_ResponseCode).str());
            });
    }
    void TearDown() override {
        NotificationCenter::defaultCenter().removeObserver(observer_);
        DeviceTableLock lock(kTableChange);
        for (auto& rec : gLines)
            if (rec.pid > 0)
                kill(rec.pid, SIGKILL);
    }
    // A record as a previous scan would have left it.
    qlx old_record(const std::string& devnode, const std::string& serial, QlxStatus status) {
        qlx rec;
        rec.serial = serial;
        rec.calloutDevice = devnode;
        rec.deviceType = 1;
        set_line_status(rec, status, "a record of an earlier scan");
        int p[2];
        EXPECT_EQ(pipe(p), 0);
        close(p[1]);
        rec.fd.reset(p[0]);
        return rec;
    }
    void install(qlx rec) {
        std::vector<qlx> table;
        table.push_back(std::move(rec));
        DeviceTableLock lock(kTableChange);
        install_device_table(std::move(table));
    }

    TempRoot root_;
    FakeAdapters ports_;
    std::vector<std::string> failures_;
    NotificationCenter::ObserverId observer_{};
};

TEST_F(RescanTest, LiveLinesAreCarriedOverUntouched) {
    const std::string devnode = ports_.add_adapter(1, "KL0101");
    auto node = std::make_shared<CountingNode>();
    qlx rec = old_record(devnode, "KL0101", QLX_STATUS_UP);
    rec.pid = 4242;
    rec.node = node;
    rec.pendingDial = "555";
    rec.pendingDialToken = "t";
    const int fd = rec.fd.get();
    install(std::move(rec));

    do_rescan();
    ASSERT_EQ(gLinecount, 1);
    EXPECT_EQ(gLines[0].fd.get(), fd);
    EXPECT_EQ(gLines[0].pid, 4242);
    EXPECT_EQ(gLines[0].status(), QLX_STATUS_UP);
    EXPECT_EQ(gLines[0].pendingDial, "555");
    EXPECT_EQ(gLines[0].node.lock(), node);
    EXPECT_EQ(node->record, &gLines[0]) << "the node must point into the new table";
    EXPECT_EQ(node->lost, 0);
    EXPECT_THAT(failures_, IsEmpty());
    gLines[0].pid = -1;
}

TEST_F(RescanTest, AbandonedLineFailsItsWaitingDialAndWildcardDialGoesWhenNoLineIsUp) {
    const std::string devnode = ports_.add_adapter(1, "KL0202");
    auto node = std::make_shared<CountingNode>();
    qlx rec = old_record(devnode, "KL0202", QLX_STATUS_ABANDONED);
    rec.node = node;
    rec.pendingDial = "555";
    rec.pendingDialToken = "line-dial";
    install(std::move(rec));
    gWildcardDialPending = "777";
    gWildcardDialToken = "any-line-dial";

    do_rescan();
    ASSERT_EQ(gLinecount, 1);
    EXPECT_EQ(gLines[0].status(), QLX_STATUS_FAILED);
    EXPECT_FALSE(gLines[0].fd);
    EXPECT_FALSE(gLines[0].pendingDialToken.has_value());
    EXPECT_EQ(node->lost, 1);
    EXPECT_THAT(failures_, ElementsAre("line-dial:KALResponseCodeERRNoResource",
                                       "any-line-dial:KALResponseCodeERRNoResource"));
    EXPECT_FALSE(gWildcardDialPending.has_value());
    EXPECT_FALSE(gWildcardDialToken.has_value());
}

TEST_F(RescanTest, ChangedCalloutPathIsAVanishedAdapterPlusANewOne) {
    const std::string devnode = ports_.add_adapter(1, "KL0303");
    auto node = std::make_shared<CountingNode>();
    qlx rec = old_record("/dev/ttyUSB99", "KL0303", QLX_STATUS_UP);
    rec.node = node;
    rec.pendingDialToken = "t";
    install(std::move(rec));

    do_rescan();
    ASSERT_EQ(gLinecount, 1);
    EXPECT_EQ(gLines[0].calloutDevice, devnode);
    EXPECT_EQ(gLines[0].status(), QLX_STATUS_UP) << "a fresh line monitor for the new record";
    EXPECT_TRUE(gLines[0].node.expired());
    EXPECT_EQ(node->lost, 1);
    EXPECT_THAT(failures_, ElementsAre("t:KALResponseCodeERRNoResource"));
    EXPECT_TRUE(LineSimControl("KL0303").connected());
}

// Whether the other end of `peer` has been closed.
bool peer_closed(int peer) {
    char byte;
    return recv(peer, &byte, 1, MSG_DONTWAIT) == 0;
}

TEST_F(RescanTest, RestartClosesTheSocketOfTheRecordItReplaces) {
    const std::string devnode = ports_.add_adapter(1, "KL0505");
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    unique_fd peer(sv[1]);
    qlx rec = old_record(devnode, "KL0505", QLX_STATUS_RESTART);
    rec.fd.reset(sv[0]);
    install(std::move(rec));
    ASSERT_FALSE(peer_closed(peer.get()));

    do_rescan();
    EXPECT_TRUE(peer_closed(peer.get())) << "the dead line monitor's socket is still open";
    ASSERT_EQ(gLinecount, 1);
    EXPECT_EQ(gLines[0].status(), QLX_STATUS_UP) << "restarted on a socket of its own";
    EXPECT_TRUE(LineSimControl("KL0505").connected());
}

TEST_F(RescanTest, VanishedAdapterWithARunningLineMonitorIsHungUpAndItsSocketClosed) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    unique_fd peer(sv[1]);
    const pid_t child = fork_waiting_child(peer.get());
    // Never a port in the testbed: the adapter is gone, its "remove" to come.
    qlx rec = old_record("/dev/ttyUSB77", "KL0606", QLX_STATUS_UP);
    rec.fd.reset(sv[0]);
    rec.pid = child;
    install(std::move(rec));

    do_rescan();
    EXPECT_EQ(gLinecount, 0);
    // The child closes its inherited copy of our end on its own time.
    EXPECT_TRUE(wait_for([&] { return peer_closed(peer.get()); }))
        << "the dropped record's socket is still open";
    EXPECT_EQ(ending_signal(child), SIGHUP);
}

TEST_F(RescanTest, NothingHappensWhileAsleep) {
    ports_.add_adapter(1, "KL0404");
    gSystemState = kSystemAsleep;
    do_rescan();
    EXPECT_EQ(gLinecount, 0);
    gSystemState = kSystemRunning;
}

}  // namespace
