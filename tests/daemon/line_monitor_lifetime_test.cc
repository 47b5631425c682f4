// Line monitors that outlive their adapter's record or stop halfway through
// a message: whatever happens, the daemon ends up with exactly one running
// line monitor per adapter present, every other child reaped and no socket
// left open for a line it no longer has.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <map>

#include "bus_client.h"
#include "daemon_fixture.h"
#include "service/vocabulary.h"

using namespace kal;
using namespace kal::test;
using ::testing::Contains;
using ::testing::HasSubstr;

namespace {

class LineMonitorLifetimeTest : public DaemonTest {
  protected:
    void TearDown() override { stop_daemon(); }

    // Plugs in an adapter and remembers it as present.
    std::string plug(int type, const std::string& serial) {
        present_[serial] = ports_.add_adapter(type, serial);
        return serial;
    }
    std::vector<std::string> present() const {
        std::vector<std::string> serials;
        for (const auto& [serial, devnode] : present_)
            serials.push_back(serial);
        return serials;  // sorted, as the map is
    }
    // What the daemon's descriptor for the line monitor `pid` links to
    // ("socket:[inode]"), found through the spawn's log lines.
    std::string socket_of(pid_t pid) const {
        const std::string all = log();
        size_t at = all.find(" as pid " + std::to_string(pid) + " for ");
        const std::string returning = "Returning linecomm fd=";
        at = all.find(returning, at);
        if (at == std::string::npos)
            return "";
        const int fd = std::stoi(all.substr(at + returning.size()));
        return link_of(fd);
    }
    std::string link_of(int fd) const {
        char target[PATH_MAX] = {};
        const std::string path =
            "/proc/" + std::to_string(daemon_->pid()) + "/fd/" + std::to_string(fd);
        return readlink(path.c_str(), target, sizeof target - 1) > 0 ? target : "";
    }
    // What each of the daemon's descriptors links to, one a line.
    std::string descriptor_links() const {
        std::string text;
        for (const std::string& name : list_dir("/proc/" + std::to_string(daemon_->pid()) + "/fd"))
            text += name + " -> " + link_of(std::stoi(name)) + "\n";
        return text;
    }
    bool daemon_holds(const std::string& link) const {
        for (const std::string& name : list_dir("/proc/" + std::to_string(daemon_->pid()) + "/fd"))
            if (link_of(std::stoi(name)) == link)
                return true;
        return false;
    }

    std::map<std::string, std::string> present_;  // serial -> device node
};

TEST_F(LineMonitorLifetimeTest, RescanThatNoLongerFindsAnAdapterHangsUpItsLineMonitor) {
    plug(1, "KL1001");
    plug(2, "ZR2002");
    start_daemon();
    ASSERT_TRUE(wait_for([&] { return line_monitors() == present(); })) << log();
    const pid_t orphan = line_monitor_pid("KL1001");
    const std::string orphan_socket = socket_of(orphan);
    ASSERT_THAT(orphan_socket, HasSubstr("socket:")) << log();
    ASSERT_TRUE(daemon_holds(orphan_socket));

    // The adapter has left sysfs but udev has not announced it yet; a
    // rescan that runs in between (another adapter plugged in) misses it.
    ports_.forget(present_.at("KL1001"));
    present_.erase("KL1001");
    plug(1, "KL3003");
    EXPECT_TRUE(wait_for([&] { return line_monitors() == present(); }, 60s))
        << ::testing::PrintToString(line_monitors()) << "\n"
        << log();
    EXPECT_TRUE(wait_for([&] { return !daemon_holds(orphan_socket); }))
        << "the dropped line's socket is still open";
    EXPECT_THAT(log(), HasSubstr("Sending signal 'hup' to process " + std::to_string(orphan) +
                                 " servicing line /dev/"));
}

TEST_F(LineMonitorLifetimeTest, ChurnLeavesOneLineMonitorPerAdapterAndNoStrayDescriptor) {
    plug(1, "KL9000");
    plug(2, "ZR9001");
    // Serving clients: every descriptor of its own is open by now.
    start_daemon("Vending Listener", {"KAL_LINESIM_SPEED=100"});
    ASSERT_TRUE(wait_for([&] { return line_monitors() == present(); })) << log();
    const int baseline = daemon_descriptors() - static_cast<int>(present_.size());
    const std::string at_start = descriptor_links();

    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        plug(1 + round % 2, "KL910" + std::to_string(round));
        // The adapter plugged in the round before dies once; the rescan its
        // death starts restarts it.
        const std::string victim = std::prev(present_.end(), 2)->first;
        EXPECT_EQ(LineSimControl(victim).send("exit 3"), "ok exiting with status 3");
        // The oldest line rings and takes digits, then goes: announced on
        // even rounds, silently on odd ones, so that only a later rescan
        // finds it gone.
        const auto oldest = present_.begin();
        LineSimControl events(oldest->first);
        EXPECT_EQ(events.send("ring"), "ok sent R");
        EXPECT_THAT(events.send("digits 12#"), HasSubstr("sent #"));
        if (round % 2 == 0)
            ports_.unplug(oldest->second);
        else
            ports_.forget(oldest->second);
        present_.erase(oldest);
    }
    // A rescan after the last silent removal.
    plug(2, "ZR9200");

    EXPECT_TRUE(wait_for(
        [&] {
            return line_monitors() == present() &&
                   daemon_descriptors() == baseline + static_cast<int>(present_.size());
        },
        90s))
        << "line monitors: " << ::testing::PrintToString(line_monitors())
        << "\nadapters: " << ::testing::PrintToString(present())
        << "\ndescriptors: " << daemon_descriptors() << ", baseline " << baseline << " + one a line"
        << "\nat start:\n"
        << at_start << "now:\n"
        << descriptor_links();
}

TEST_F(LineMonitorLifetimeTest, HalfAFrameHangsUpThatLineMonitorAndStallsNothingElse) {
    plug(1, "KL1001");
    plug(2, "ZR2002");
    start_daemon("Vending Listener", {"KAL_LINESIM_SPEED=100"});
    BusClient client;
    ASSERT_TRUE(wait_for([&] { return client.registerApp().str() == kal_ResponseCode_OK; }))
        << log();
    ASSERT_TRUE(client.subscribe(kal_RingDetect).ok());
    LineSimControl stalled("KL1001"), other("ZR2002");
    ASSERT_TRUE(stalled.connected() && other.connected());
    const pid_t stuck = line_monitor_pid("KL1001");

    // A header announcing 16 bytes, 2 of them, then silence from a line
    // monitor that stays alive with its socket open.
    ASSERT_EQ(stalled.send("raw 10000000 5258"), "ok sent 6 raw bytes");

    EXPECT_EQ(other.send("ring"), "ok sent R");
    ASSERT_TRUE(pump_until({&client},
                           [&] {
                               for (const auto& n : client.received())
                                   if (n.name == kal_RingDetect && n.object.str() == "ZR2002")
                                       return true;
                               return false;
                           }))
        << "the other line's event never reached the client\n"
        << log();
    const BusReply resources = client.call("Resources", "");
    EXPECT_TRUE(resources.ok()) << resources.errorName;
    EXPECT_THAT(resources.strings(), Contains("ZR2002"));
    EXPECT_EQ(client.call("HangUpResource", "ss", "ZR2002", "T").str(), kal_ResponseCode_OK);
    EXPECT_EQ(other.send("wait-command H"), "ok H");

    EXPECT_TRUE(wait_for([&] { return reaped(stuck); }))
        << "the stalled line monitor was not hung up and reaped\n"
        << log();
    EXPECT_THAT(log(), HasSubstr("Sending signal 'hup' to process " + std::to_string(stuck)));
}

}  // namespace
