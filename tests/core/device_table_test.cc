// The device table's own rules: lookups, the carry-over of a live record
// into a rescan's table, and status changes logged by name.

#include "core/device_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "core/line_node.h"
#include "log/kallog.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::HasSubstr;

namespace {

class IdleNode : public LineNode {
  public:
    int handleEventWithBuffer(const char*, int, int, const char*) override { return 0; }
    void rehandleEventWithBuffer(const char*, int, int, const char*) override {}
    void setDevicePtr(qlx*) override {}
    void deviceLost() override {}
};

qlx record(const std::string& serial, const std::string& devnode) {
    qlx rec;
    rec.serial = serial;
    rec.calloutDevice = devnode;
    return rec;
}

TEST(DeviceTable, LookupsFindTheOneRecordThatMatches) {
    auto node = std::make_shared<IdleNode>();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    unique_fd peer(sv[1]);
    std::vector<qlx> table;
    table.push_back(record("A1", "/dev/ttyUSB0"));
    table.push_back(record("B2", "/dev/ttyUSB1"));
    table[1].fd.reset(sv[0]);
    table[1].pid = 4242;
    table[1].node = node;
    table[1].pendingDialToken = "tok";
    DeviceTableLock lock(kTableChange);
    install_device_table(std::move(table));
    ASSERT_EQ(gLinecount, 2);

    const qlx* b2 = &gLines[1];
    EXPECT_EQ(line_by_serial("B2"), b2);
    EXPECT_EQ(line_by_fd(sv[0]), b2);
    EXPECT_EQ(line_by_callout("/dev/ttyUSB1"), b2);
    EXPECT_EQ(line_by_node(*node), b2);
    EXPECT_EQ(line_by_pid(4242), b2);
    EXPECT_EQ(line_by_dial_token("tok"), b2);
    EXPECT_EQ(line_index(*b2), 1);
    EXPECT_EQ(line_at(1), b2);
    // Near misses and the "none" values of a new record match nothing.
    EXPECT_EQ(line_by_serial("B"), nullptr);
    EXPECT_EQ(line_by_fd(-1), nullptr);
    EXPECT_EQ(line_by_pid(-1), nullptr);
    EXPECT_EQ(line_by_callout("/dev/ttyUSB"), nullptr);
    EXPECT_EQ(line_by_node(IdleNode()), nullptr);
    EXPECT_EQ(line_by_dial_token(""), nullptr);
    EXPECT_EQ(line_at(2), nullptr);
    EXPECT_EQ(line_at(-1), nullptr);
    EXPECT_FALSE(any_line_up());

    // Replacing the table closes the sockets of the records it drops.
    install_device_table({});
    char byte;
    EXPECT_EQ(recv(peer.get(), &byte, 1, MSG_DONTWAIT), 0);
}

TEST(DeviceTable, CarryOverMovesTheLiveLineAndKeepsWhatDiscoveryReadNow) {
    auto node = std::make_shared<IdleNode>();
    qlx old = record("OLD", "/dev/ttyUSB0");
    old.ttyDevice = "ttyUSB0";
    old.deviceType = 1;
    old.fd.reset(dup(2));
    const int fd = old.fd.get();
    old.pid = 4242;
    set_line_status(old, QLX_STATUS_UP, "test");
    old.lastRestart = 77;
    old.restartCount = 2;
    old.pendingDial = "555";
    old.pendingDialToken = "tok";
    old.node = node;
    old.nodeType = 3;

    qlx fresh = record("NEW", "/dev/ttyUSB0");
    fresh.ttyDevice = "ttyUSB0";
    fresh.deviceType = 2;
    carry_over(old, fresh);

    EXPECT_EQ(fresh.serial, "NEW");
    EXPECT_EQ(fresh.deviceType, 2);
    EXPECT_EQ(fresh.fd.get(), fd);
    EXPECT_EQ(fresh.pid, 4242);
    EXPECT_EQ(fresh.status(), QLX_STATUS_UP);
    EXPECT_EQ(fresh.lastRestart, 77);
    EXPECT_EQ(fresh.restartCount, 2);
    EXPECT_EQ(fresh.pendingDial, "555");
    EXPECT_EQ(fresh.pendingDialToken, "tok");
    EXPECT_EQ(fresh.node.lock(), node);
    EXPECT_EQ(fresh.nodeType, 3);
    // Nothing is left behind to be closed, signalled or failed twice.
    EXPECT_FALSE(old.fd);
    EXPECT_EQ(old.pid, -1);
    EXPECT_EQ(old.status(), QLX_STATUS_NEW);
    EXPECT_FALSE(old.pendingDialToken.has_value());
    EXPECT_TRUE(old.node.expired());
}

TEST(DeviceTable, StatusChangesAreLoggedByName) {
    TempRoot root;
    kallogregister("KALDeviceMaster");
    qlx rec = record("A1", "/dev/ttyUSB0");
    set_line_status(rec, QLX_STATUS_UP, "line monitor started");
    set_line_status(rec, QLX_STATUS_ABANDONED, "died too often");
    kallogflush();
    const std::string log = read_file(root.daemon_log());
    EXPECT_THAT(log, HasSubstr("QLX A1 at /dev/ttyUSB0: status new -> up (line monitor started)"));
    EXPECT_THAT(log, HasSubstr("status up -> abandoned (died too often)"));
}

}  // namespace
