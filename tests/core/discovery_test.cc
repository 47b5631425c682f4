// Discovery and hot-plug against fake USB serial ports: the real libudev
// reads a umockdev testbed, and hot-plug events arrive on an sd-event loop
// that the test turns, as the daemon's main loop would.

#include "core/discovery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

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
    void SetUp() override {
        kallogregister("KALDeviceMaster");
        init_lmcomm_intrapc();
        sd_event* raw = nullptr;
        ASSERT_GE(sd_event_new(&raw), 0);
        loop_.reset(raw);
        monitor_ = std::make_unique<HotplugMonitor>(loop_.get());
    }

    std::string log() const { return read_file(root_.daemon_log()); }
    int count_in_log(const std::string& text) const {
        const std::string l = log();
        int n = 0;
        for (auto at = l.find(text); at != std::string::npos; at = l.find(text, at + 1))
            ++n;
        return n;
    }
    // As at start-up: the live table, with hot-plug watching.
    void find_live_table() {
        DeviceTableLock lock(kTableChange);
        ASSERT_TRUE(FindModems(&gLines, &gLinecount, true, monitor_.get()));
    }
    qlx* line(const std::string& serial) { return line_by_serial(serial); }
    // Turns the loop until `text` has been logged.
    bool handled(const std::string& text) {
        return wait_for([&] {
            sd_event_run(loop_.get(), 0);
            return log().find(text) != std::string::npos;
        });
    }
    // True when a rescan was asked for; consumes the request.
    bool rescan_requested() {
        pollfd p{lmthread_babymonitor_socket_private, POLLIN, 0};
        char byte = 0;
        return poll(&p, 1, 0) == 1 && read(p.fd, &byte, 1) == 1 && byte == 0x40;
    }

    // A voice modem's port with this USB serial and KAL_VOICE_MODEM tag.
    VoiceModemPort voice_modem(std::optional<std::string> serial,
                               std::optional<std::string> tag = "1") {
        VoiceModemOptions o;
        o.serial = std::move(serial);
        o.tag = std::move(tag);
        return ports_.add_voice_modem_port(o);
    }

    TempRoot root_;
    FakeAdapters ports_;
    EventPtr loop_;
    std::unique_ptr<HotplugMonitor> monitor_;
};

TEST_F(DiscoveryTest, FindsBothModelsAndSkipsLookAlikes) {
    const std::string one = ports_.add_adapter(1, "KL0001");
    ports_.add_builtin_port();
    ports_.add_usb_port("USB Kestrel Line Unit ", "KL0002");  // trailing blank
    ports_.add_usb_port("usb kestrel line unit", "KL0003");
    ports_.add_usb_port("Kestrel Line Unit", "KL0004");
    ports_.add_adapter(1, "");                         // empty serial
    ports_.add_usb_port(kType2Product, std::nullopt);  // no serial at all
    const std::string two = ports_.add_adapter(2, "ZR0005");

    find_live_table();
    ASSERT_EQ(gLinecount, 2);
    ASSERT_EQ(gLines.size(), 2u);
    struct Want {
        const char* serial;
        std::string callout;
        int type;
    } wants[] = {{"KL0001", one, 1}, {"ZR0005", two, 2}};
    for (const auto& w : wants) {
        SCOPED_TRACE(w.serial);
        const qlx* r = line(w.serial);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->calloutDevice, w.callout);
        EXPECT_EQ("/dev/" + r->ttyDevice, w.callout);
        EXPECT_EQ(r->deviceType, w.type);
        EXPECT_FALSE(r->fd);
        EXPECT_EQ(r->pid, -1);
        EXPECT_EQ(r->status(), QLX_STATUS_NEW);
        EXPECT_THAT(log(), HasSubstr(" to QLX" + std::to_string(w.type) + " with serial number " +
                                     w.serial + ": {"));
    }
    EXPECT_THAT(log(), HasSubstr("DEBUG: Creating buffers to hold at most 8 QLXs\n"));
    EXPECT_THAT(log(), HasSubstr("DEBUG: Done detecting 2 QLXs\n"));
    EXPECT_EQ(count_in_log("DEBUG: Skipping non-QLX device: {"), 5);
    EXPECT_EQ(count_in_log("DEBUG: Did not get success from parent entry. Assuming not a QLX: {"),
              1);
}

TEST_F(DiscoveryTest, ATaggedVoiceModemIsTypeThreeBesideTheAdapters) {
    ports_.add_adapter(1, "KL0001");
    const VoiceModemPort modem = voice_modem("C0FFEE01");
    ports_.add_builtin_port();

    find_live_table();
    ASSERT_EQ(gLinecount, 2);
    const qlx* r = line("C0FFEE01");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->deviceType, 3);
    EXPECT_EQ(r->calloutDevice, modem.devnode);
    EXPECT_EQ("/dev/" + r->ttyDevice, modem.devnode);
    EXPECT_EQ(r->status(), QLX_STATUS_NEW);
    ASSERT_NE(line("KL0001"), nullptr);
    EXPECT_EQ(line("KL0001")->deviceType, 1);
    EXPECT_THAT(log(), HasSubstr("to voice modem with serial number C0FFEE01"));
}

TEST_F(DiscoveryTest, VoiceModemsWithoutAUsableSerialAreNamedByTheirPorts) {
    // Two identical modems reporting the same placeholder, one reporting
    // nothing, one with a serial of its own.
    const VoiceModemPort a = voice_modem("12345678");
    const VoiceModemPort b = voice_modem("12345678");
    const VoiceModemPort c = voice_modem("");
    const VoiceModemPort d = voice_modem(std::nullopt);
    VoiceModemOptions usr;
    usr.serial = "USR0001";
    usr.vendor = "0baf";
    usr.product_id = "0303";
    ports_.add_voice_modem_port(usr);
    ASSERT_NE(a.id_path, b.id_path);

    for (int pass = 0; pass < 2; ++pass) {  // the same names every time
        SCOPED_TRACE(pass);
        std::vector<qlx> table;
        int count = 0;
        ASSERT_TRUE(FindModems(&table, &count, false));
        ASSERT_EQ(count, 5);
        std::vector<std::string> serials;
        for (const auto& r : table) {
            EXPECT_EQ(r.deviceType, 3);
            serials.push_back(r.serial);
        }
        EXPECT_THAT(serials, ::testing::UnorderedElementsAre(a.id_path, b.id_path, c.id_path,
                                                             d.id_path, "USR0001"));
    }
}

TEST_F(DiscoveryTest, PortsNotTaggedOneAreNotVoiceModems) {
    voice_modem("AAAA", std::nullopt);
    voice_modem("BBBB", "0");
    voice_modem("CCCC", "yes");
    std::vector<qlx> table;
    int count = -1;
    ASSERT_TRUE(FindModems(&table, &count, false));
    EXPECT_EQ(count, 0);
    EXPECT_EQ(count_in_log("DEBUG: Skipping non-QLX device: {"), 3);
}

TEST_F(DiscoveryTest, NoPortsIsAnEmptyTableNotAFailure) {
    std::vector<qlx> table(3);
    int count = 3;
    ASSERT_TRUE(FindModems(&table, &count, false));
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(table.empty());
}

// The handler never edits the table: it signals, or asks the line event
// thread for the rescan that does.
TEST_F(DiscoveryTest, UnplugHangsUpAnUpLineAndForcesARescanOnlyForAFailedOne) {
    struct Case {
        const char* serial;  // nullptr: a built-in port, not in the table
        QlxStatus status;
        bool hup;     // its line monitor gets SIGHUP
        bool rescan;  // the line event thread is woken directly
        std::string node;
    } cases[] = {
        {"KL0001", QLX_STATUS_UP, true, false, ""},
        {"KL0002", QLX_STATUS_RESTART, false, false, ""},
        {"KL0003", QLX_STATUS_FAILED, false, true, ""},
        {nullptr, QLX_STATUS_NEW, false, false, ""},
    };
    for (auto& c : cases)
        c.node = c.serial ? ports_.add_adapter(1, c.serial) : ports_.add_builtin_port();
    find_live_table();
    ASSERT_EQ(gLinecount, 3);

    for (const auto& c : cases) {
        SCOPED_TRACE(c.node);
        ChildProcess linemonitor({"/bin/sleep", "60"});
        if (c.serial) {
            line(c.serial)->pid = linemonitor.pid();
            set_line_status(*line(c.serial), c.status, "test");
        }

        ports_.unplug(c.node);
        ASSERT_TRUE(handled("IOSerialDevice for path " + c.node + " unplugged."));
        EXPECT_EQ(rescan_requested(), c.rescan);
        const std::string hup = "Sending signal 'hup' to process " +
                                std::to_string(linemonitor.pid()) + " servicing line " + c.node;
        if (c.hup) {
            const int status = linemonitor.wait_exit();
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGHUP) << status;
            EXPECT_THAT(log(), HasSubstr(hup));
        } else {
            EXPECT_THAT(log(), Not(HasSubstr(hup)));
        }
        EXPECT_EQ(gLinecount, 3);
        if (c.serial) {
            EXPECT_EQ(line(c.serial)->status(), c.status);
        } else {
            EXPECT_THAT(log(), HasSubstr("WARN: IOSerialDevice " + c.node +
                                         " terminated but couldn't match it in the device "
                                         "table. Likely not a QLX.\n"));
        }
    }
}

TEST_F(DiscoveryTest, PlugInAsksForARescan) {
    find_live_table();
    ports_.add_adapter(1, "KL0009");
    ASSERT_TRUE(handled("NOTICE: ioNotificationHandler informed of new IOSerialDevice(s).\n"));
    EXPECT_TRUE(rescan_requested());
    EXPECT_EQ(gLinecount, 0);
}

}  // namespace
