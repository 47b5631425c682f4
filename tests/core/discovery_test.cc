// Discovery and hot-plug against fake USB serial ports: the real libudev
// reads a umockdev testbed.

#include "core/discovery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <map>
#include <regex>

#include "core/hotplug.h"
#include "fake_adapters.h"
#include "lineio/intrapc.h"
#include "log/kallog.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class DiscoveryTest : public ::testing::Test {
  protected:
    void SetUp() override { kallogregister("KALDeviceMaster"); }

    std::string log() const { return read_file(root_.daemon_log()); }
    int count_in_log(const std::string& text) const {
        const std::string l = log();
        int n = 0;
        for (auto at = l.find(text); at != std::string::npos; at = l.find(text, at + 1))
            ++n;
        return n;
    }

    TempRoot root_;
    FakeAdapters ports_;
};

const qlx* find_serial(const std::vector<qlx>& table, const std::string& serial) {
    for (const auto& r : table)
        if (r.serial == serial)
            return &r;
    return nullptr;
}

TEST_F(DiscoveryTest, FindsBothModelsAndSkipsLookAlikes) {
    const std::string one = ports_.add_adapter(1, "KL0001");
    ports_.add_builtin_port();
    ports_.add_usb_port("USB Kestrel Line Unit ", "KL0002");  // trailing blank
    ports_.add_usb_port("usb kestrel line unit", "KL0003");
    ports_.add_usb_port("Kestrel Line Unit", "KL0004");
    ports_.add_adapter(1, "");                         // empty serial
    ports_.add_usb_port(kType2Product, std::nullopt);  // no serial at all
    const std::string two = ports_.add_adapter(2, "ZR0005");

    std::vector<qlx> table;
    int count = -1;
    ASSERT_TRUE(FindModems(&table, &count, false));
    ASSERT_EQ(count, 2);
    ASSERT_EQ(table.size(), 2u);

    struct Want {
        const char* serial;
        std::string callout;
        int type;
    } wants[] = {{"KL0001", one, 1}, {"ZR0005", two, 2}};
    for (const auto& w : wants) {
        SCOPED_TRACE(w.serial);
        const qlx* r = find_serial(table, w.serial);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->calloutDevice, w.callout);
        EXPECT_EQ("/dev/" + r->ttyDevice, w.callout);
        EXPECT_EQ(r->deviceType, w.type);
        EXPECT_EQ(r->fd, -1);
        EXPECT_EQ(r->pid, -1);
        EXPECT_EQ(r->status, QLX_STATUS_NEW);
        EXPECT_FALSE(r->node);
        EXPECT_TRUE(std::regex_search(
            log(),
            std::regex("DEBUG: Assigning #[01] to QLX" + std::to_string(w.type) +
                       " with serial number " + w.serial + ": \\{.*" + w.callout + ".*\\}\n")))
            << log();
    }
    EXPECT_THAT(log(), HasSubstr("DEBUG: FindModems() setupNotifications=0\n"));
    EXPECT_THAT(log(), HasSubstr("DEBUG: Creating buffers to hold at most 8 QLXs\n"));
    EXPECT_THAT(log(), HasSubstr("DEBUG: Done detecting 2 QLXs\n"));
    EXPECT_EQ(count_in_log("DEBUG: Skipping non-QLX device: {"), 5);
    EXPECT_EQ(count_in_log("DEBUG: Did not get success from parent entry. Assuming not a QLX: {"),
              1);
}

TEST_F(DiscoveryTest, NoPortsIsAnEmptyTableNotAFailure) {
    std::vector<qlx> table(3);
    int count = 3;
    ASSERT_TRUE(FindModems(&table, &count, false));
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(table.empty());
    EXPECT_THAT(log(), HasSubstr("Done detecting 0 QLXs"));
}

TEST_F(DiscoveryTest, WatchingWithoutAMonitorFailsAndLeavesTheTable) {
    ports_.add_adapter(1, "KL0001");
    std::vector<qlx> table(1);
    int count = 1;
    EXPECT_FALSE(FindModems(&table, &count, true, nullptr));
    EXPECT_EQ(count, 1);
    EXPECT_EQ(table.size(), 1u);
    EXPECT_THAT(log(), HasSubstr("ERR: Couldn't setup notifications.\n"));
}

// The daemon's start-up shape: the live table found with notifications,
// events handled on an sd-event loop that this test turns.
class HotplugTest : public DiscoveryTest {
  protected:
    void SetUp() override {
        DiscoveryTest::SetUp();
        init_lmcomm_intrapc();
        sd_event* raw = nullptr;
        ASSERT_GE(sd_event_new(&raw), 0);
        loop_.reset(raw);
        monitor_ = std::make_unique<HotplugMonitor>(loop_.get());
    }
    void TearDown() override {
        monitor_.reset();
        loop_.reset();
    }

    bool find_live_table() {
        lock_device_table(1);
        const bool ok = FindModems(&gLines, &gLinecount, true, monitor_.get());
        unlock_device_table();
        return ok;
    }
    // Turns the loop until `text` has been logged.
    bool handled(const std::string& text) {
        return wait_for([&] {
            sd_event_run(loop_.get(), 0);
            return log().find(text) != std::string::npos;
        });
    }
    // True when a rescan was asked for (one byte was waiting); consumes it.
    bool rescan_requested() {
        pollfd p{lmthread_babymonitor_socket_private, POLLIN, 0};
        char byte = 0;
        return poll(&p, 1, 0) == 1 && read(p.fd, &byte, 1) == 1 && byte == 0x40;
    }
    qlx& line(const std::string& serial) {
        for (auto& r : gLines)
            if (r.serial == serial)
                return r;
        throw std::runtime_error("no line " + serial);
    }

    EventPtr loop_;
    std::unique_ptr<HotplugMonitor> monitor_;
};

TEST_F(HotplugTest, UnplugSignalsAnUpLineAndForcesARescanOnlyForAFailedOne) {
    struct Case {
        const char* serial;
        int status;
        bool hup;     // its line monitor gets SIGHUP
        bool rescan;  // the line event thread is woken directly
    } cases[] = {
        {"KL0001", QLX_STATUS_UP, true, false},
        {"KL0002", QLX_STATUS_RESTART, false, false},
        {"KL0003", QLX_STATUS_FAILED, false, true},
    };
    std::map<std::string, std::string> nodes;
    for (const auto& c : cases)
        nodes[c.serial] = ports_.add_adapter(1, c.serial);
    ASSERT_TRUE(find_live_table());
    ASSERT_TRUE(monitor_->watching());
    ASSERT_EQ(gLinecount, 3);
    EXPECT_THAT(log(), HasSubstr("DEBUG: IOServiceAddMatchingNotification(IOFirstMatch)\n"));

    for (const auto& c : cases) {
        SCOPED_TRACE(c.serial);
        ChildProcess monitor({"/bin/sleep", "60"});
        line(c.serial).pid = monitor.pid();
        line(c.serial).status = c.status;

        ports_.unplug(nodes[c.serial]);
        ASSERT_TRUE(handled("IOSerialDevice for path " + nodes[c.serial] + " unplugged."));
        EXPECT_EQ(rescan_requested(), c.rescan);
        if (c.hup) {
            const int status = monitor.wait_exit();
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGHUP) << status;
            EXPECT_THAT(log(), HasSubstr("DEBUG: Sending signal 'hup' to process " +
                                         std::to_string(monitor.pid()) + " servicing line " +
                                         nodes[c.serial] + ".\n"));
        } else {
            EXPECT_THAT(log(), Not(HasSubstr("to process " + std::to_string(monitor.pid()))));
            EXPECT_THAT(log(),
                        HasSubstr("Not killing process servicing line " + nodes[c.serial] +
                                  " as status (" + std::to_string(c.status) + ") is not UP."));
        }
        // The handler only reacts; the rescan edits the table.
        EXPECT_EQ(gLinecount, 3);
        EXPECT_EQ(line(c.serial).status, c.status);
    }
    EXPECT_EQ(count_in_log("DEBUG: Forcing rescan to clear status 4 QLX\n"), 1);
}

TEST_F(HotplugTest, UnplugOfAPortNotInTheTableOnlyWarns) {
    ports_.add_adapter(2, "ZR0001");
    const std::string plain = ports_.add_builtin_port();
    ASSERT_TRUE(find_live_table());
    ASSERT_EQ(gLinecount, 1);
    gLines[0].status = QLX_STATUS_UP;
    const qlx before = gLines[0];

    ports_.unplug(plain);
    ASSERT_TRUE(handled("WARN: IOSerialDevice " + plain +
                        " terminated but couldn't match it in the device table. Likely not a "
                        "QLX.\n"));
    EXPECT_FALSE(rescan_requested());
    ASSERT_EQ(gLinecount, 1);
    EXPECT_EQ(gLines[0].calloutDevice, before.calloutDevice);
    EXPECT_EQ(gLines[0].status, before.status);
    EXPECT_THAT(log(), Not(HasSubstr("Sending signal")));
}

TEST_F(HotplugTest, PlugInAsksForARescan) {
    ASSERT_TRUE(find_live_table());
    EXPECT_EQ(gLinecount, 0);
    ports_.add_adapter(1, "KL0009");
    ASSERT_TRUE(handled("NOTICE: ioNotificationHandler informed of new IOSerialDevice(s).\n"));
    EXPECT_TRUE(rescan_requested());
    EXPECT_EQ(gLinecount, 0) << "the handler itself must not edit the table";
}

}  // namespace
