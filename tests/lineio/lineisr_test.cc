// The line event thread against fake lines: each line monitor is the test's
// end of a real socket pair, and passes of the loop run on the test thread.

#include "lineio/lineisr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "core/device_table.h"
#include "core/line_node.h"
#include "lineio/intrapc.h"
#include "lineio/protocol.h"
#include "lineio/request_queue.h"
#include "lineio/safe_io.h"
#include "log/kallog.h"
#include "service/notification_center.h"
#include "service/vocabulary.h"
#include "test_support.h"

using namespace kal;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// A node that answers every event with `answer` and records what it saw.
class ScriptedNode : public LineNode {
  public:
    explicit ScriptedNode(int answer, std::vector<std::string>* journal)
        : answer_(answer), journal_(journal) {}
    int handleEventWithBuffer(const char* b, int, int, const char*) override {
        journal_->push_back(std::string("node:") + b[0]);
        return answer_;
    }
    void rehandleEventWithBuffer(const char* b, int, int, const char*) override {
        journal_->push_back(std::string("rehandle:") + b[0]);
    }
    void setDevicePtr(qlx*) override {}
    void deviceLost() override {}

  private:
    int answer_;
    std::vector<std::string>* journal_;
};

class LineIsrTest : public ::testing::Test {
  protected:
    void SetUp() override {
        kallogregister("KALDeviceMaster");  // before anything logs
        init_lmcomm_intrapc();
        set_line_frame_limit(1s);
        for (const char* serial : {"A1", "B2"}) {
            int sv[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
            qlx rec;
            rec.serial = serial;
            rec.calloutDevice = std::string("/dev/tty") + serial;
            rec.fd.reset(sv[0]);
            rec.pid = 999999;  // no such process: nothing is ever signalled
            set_line_status(rec, QLX_STATUS_UP, "a test line");
            rec.deviceType = 1;
            gLines.push_back(std::move(rec));
            peers_.emplace_back(sv[1]);
        }
        gLinecount = static_cast<int>(gLines.size());
        bounds_ = calc_fdbounds();
        observer_ =
            NotificationCenter::defaultCenter().addObserver("", [this](const Notification& n) {
                auto it = n.userInfo.find(kal_NotificationNameKey);
                journal_.push_back(it != n.userInfo.end()
                                       ? it->second.str()
                                       : n.name + ":" + n.userInfo.at(kal_ResponseCode).str());
            });
    }
    void TearDown() override { NotificationCenter::defaultCenter().removeObserver(observer_); }

    void line_sends(int line, const std::string& payload) {
        ASSERT_EQ(dmp_write(peers_[line].get(), payload.data(), payload.size()),
                  static_cast<ssize_t>(payload.size()));
    }
    // The next frame the line monitor received, or "" when none is waiting.
    std::string line_received(int line) {
        char buf[4096] = {};
        ssize_t n = dmp_read(peers_[line].get(), buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    }
    void queue(int type, const std::string& serial, std::string data = "", int value = 0) {
        auto t = std::make_unique<lm_todo>();
        t->type = type;
        t->serial = serial;
        t->data = std::move(data);
        t->value = value;
        t->deadman = value;
        t->token = "tok";
        add_todo(std::move(t));
    }
    void pass() { lineisr_pass(bounds_); }

    test::TempRoot root_;
    std::vector<unique_fd> peers_;
    FdBounds bounds_{};
    std::vector<std::string> journal_;
    NotificationCenter::ObserverId observer_{};
};

TEST_F(LineIsrTest, QueuedRequestsAreWrittenInOrderOnePerPass) {
    queue(REQ_HANGUP, "A1");
    queue(REQ_BEEP, "B2", "", 3);
    queue(REQ_SET_DEADMAN, "A1", "", 30);
    pass();
    EXPECT_EQ(line_received(0), std::string("H\0", 2));
    EXPECT_EQ(line_received(1), "");
    pass();
    EXPECT_EQ(line_received(1), std::string("!\x03\0\0\0", 5));
    pass();
    EXPECT_EQ(line_received(0), std::string(">\x1e\0\0\0", 5));
    EXPECT_EQ(queued_todo_count(), 0);
}

TEST_F(LineIsrTest, WakeUpWithEmptyQueueWritesNothing) {
    ASSERT_EQ(write(lmthread_userisr_socket_public, "@", 1), 1);
    pass();
    EXPECT_EQ(line_received(0), "");
    EXPECT_EQ(line_received(1), "");
}

TEST_F(LineIsrTest, DialReportsSuccessAndDigitsOrFailsForAnUnknownOrEndedLine) {
    queue(REQ_DIAL, "ZZ", "123");
    pass();
    queue(REQ_DIAL, "B2", "9#");
    pass();
    EXPECT_EQ(line_received(1), std::string("D9#\0", 4));
    // A1's line monitor has ended: its dial fails, never reported as made.
    peers_[0].reset();
    pass();
    queue(REQ_DIAL, "A1", "5");
    pass();
    EXPECT_THAT(journal_,
                ElementsAre("RequestComplete:KALResponseCodeERRNoResource",
                            "RequestComplete:KALResponseCodeOK", "KALDigitDialed", "KALDigitDialed",
                            "RequestComplete:KALResponseCodeERRNoResource"));
}

TEST_F(LineIsrTest, RequestsForVanishedLinesAreDiscarded) {
    for (int type : std::initializer_list<int>{REQ_PLAY, REQ_RECORD, REQ_HANGUP, REQ_CANCEL_AUDIO,
                                               REQ_SET_DEADMAN, REQ_BEEP, REQ_TRV, REQ_CALL, 42}) {
        queue(type, "ZZ", "x");
        pass();
    }
    EXPECT_EQ(line_received(0), "");
    EXPECT_EQ(line_received(1), "");
    EXPECT_THAT(journal_, IsEmpty());
}

TEST_F(LineIsrTest, LineEventsReachNodeThenClientsByTheNodesAnswer) {
    auto consumer = std::make_shared<ScriptedNode>(kNodeConsumed, &journal_);
    auto rehandler = std::make_shared<ScriptedNode>(kNodeRehandle, &journal_);
    gLines[0].node = consumer;
    gLines[1].node = rehandler;
    line_sends(0, "R");
    pass();
    line_sends(1, "R");
    pass();
    EXPECT_THAT(journal_, ElementsAre("node:R", "node:R", "KALRingDetect", "rehandle:R"));

    journal_.clear();
    auto passer = std::make_shared<ScriptedNode>(kNodePassOn, &journal_);
    gLines[0].node = passer;
    line_sends(0, "b");
    pass();
    EXPECT_THAT(journal_, ElementsAre("node:b", "KALBusyTone"));
}

TEST_F(LineIsrTest, ReadyLinesAreServedLowestDescriptorFirstAfterPipes) {
    gSystemState = kSystemAsleep;  // the rescan defers and changes nothing
    line_sends(1, "d");
    line_sends(0, "c");
    ASSERT_EQ(write(lmthread_babymonitor_socket_public, "@", 1), 1);
    pass();  // the rescan request wins the pass
    EXPECT_THAT(journal_, IsEmpty());
    pass();
    EXPECT_THAT(journal_, ElementsAre("KALIncomingFaxTone", "KALDialtone"));
}

TEST_F(LineIsrTest, OffHookStartsTheLinesPendingDialElseAWildcardDial) {
    gLines[0].pendingDial = "555";
    gLines[0].pendingDialToken = "t0";
    gWildcardDialPending = "777";
    gWildcardDialToken = "tw";
    auto node = std::make_shared<ScriptedNode>(kNodePassOn, &journal_);
    gLines[1].node = node;

    line_sends(0, "P");
    pass();
    pass();  // the queued dial
    EXPECT_EQ(line_received(0), std::string("D555\0", 5));
    EXPECT_FALSE(gLines[0].pendingDial.has_value());
    EXPECT_TRUE(gWildcardDialPending.has_value());

    line_sends(1, "P");  // a node is on B2: the wildcard dial waits
    pass();
    EXPECT_TRUE(gWildcardDialPending.has_value());
    line_sends(0, "P");
    pass();
    pass();
    EXPECT_EQ(line_received(0), std::string("D777\0", 5));
    EXPECT_FALSE(gWildcardDialToken.has_value());
}

// Line 0 with a line monitor that waits for a signal.
class LineIsrChildTest : public LineIsrTest {
  protected:
    void SetUp() override {
        LineIsrTest::SetUp();
        child_ = test::fork_waiting_child();
        gLines[0].pid = child_;
    }
    int ending_signal() { return test::ending_signal(child_); }
    pid_t child_ = -1;
};

TEST_F(LineIsrChildTest, EndOfFileHangsUpTheLineMonitor) {
    peers_[0].reset();
    pass();
    EXPECT_EQ(ending_signal(), SIGHUP);
}

// A header announcing 16 bytes and two of them: the start of a message
// from a line monitor that then stays silent, alive and with its socket open.
std::string half_a_frame() {
    const int32_t announced = 16;
    return std::string(reinterpret_cast<const char*>(&announced), sizeof announced) + "RX";
}

TEST_F(LineIsrTest, MessageInPiecesIsServedWhenCompleteWithOtherLinesServedMeanwhile) {
    set_line_frame_limit(30s);  // never the cause of anything here, however slow the machine
    std::string caller_id;
    {
        const std::string payload = "X5551234";
        const int32_t n = static_cast<int32_t>(payload.size());
        caller_id = std::string(reinterpret_cast<const char*>(&n), sizeof n) + payload;
    }
    ASSERT_EQ(write(peers_[0].get(), caller_id.data(), 3), 3);  // inside the header
    pass();
    line_sends(1, "R");
    pass();
    ASSERT_EQ(write(peers_[0].get(), caller_id.data() + 3, 4), 4);
    pass();
    line_sends(1, "b");
    pass();
    EXPECT_THAT(journal_, ElementsAre("KALRingDetect", "KALBusyTone"));
    ASSERT_EQ(write(peers_[0].get(), caller_id.data() + 7, caller_id.size() - 7),
              ssize_t(caller_id.size() - 7));
    pass();
    EXPECT_THAT(journal_, ElementsAre("KALRingDetect", "KALBusyTone", "KALCallerID"));
}

TEST_F(LineIsrChildTest, LineMonitorStalledInAMessageHoldsUpNoOtherLineAndEndsAtTheLimit) {
    set_line_frame_limit(30s);
    const std::string part = half_a_frame();
    ASSERT_EQ(write(peers_[0].get(), part.data(), part.size()), ssize_t(part.size()));
    pass();
    line_sends(1, "R");
    pass();
    line_sends(1, "b");
    pass();
    queue(REQ_HANGUP, "B2");
    pass();
    EXPECT_THAT(journal_, ElementsAre("KALRingDetect", "KALBusyTone"));
    EXPECT_EQ(line_received(1), std::string("H\0", 2));
    // Had any of these waited on the stalled message, its 30 s would have
    // run out first, and its line monitor would have been hung up by now.
    EXPECT_EQ(waitpid(child_, nullptr, WNOHANG), 0) << "the stalled line monitor was ended early";

    // Out of time (its limit cut short): the next pass ends it.
    set_line_frame_limit(50ms);
    pass();
    EXPECT_EQ(ending_signal(), SIGHUP);
    EXPECT_THAT(test::read_file(root_.daemon_log()),
                ::testing::HasSubstr("QLX0 left a message unfinished for 50 ms"));
}

TEST_F(LineIsrChildTest, MessageLeftUnfinishedIsWaitedForNoLongerThanTheLimit) {
    set_line_frame_limit(50ms);
    const std::string part = half_a_frame();
    ASSERT_EQ(write(peers_[0].get(), part.data(), part.size()), ssize_t(part.size()));
    pass();  // takes the bytes
    pass();  // waits for the rest until the limit, then ends the line monitor
    EXPECT_EQ(ending_signal(), SIGHUP);
    // The other line is served as before.
    line_sends(1, "R");
    pass();
    EXPECT_THAT(journal_, ElementsAre("KALRingDetect"));
}

// A line monitor that stops reading its socket: once the socket is full, a
// command it does not take within the limit ends it, the commands after it
// are dropped at once, and the other line still gets its own.
TEST_F(LineIsrChildTest, LineMonitorThatStopsReadingIsEndedAndHoldsUpNoOtherLine) {
    set_line_frame_limit(50ms);
    const std::string sound(4000, 'a');
    constexpr int kCommands = 200;  // 800 kB: far more than a socket buffers
    for (int i = 0; i < kCommands; ++i)
        queue(REQ_PLAY, "A1", sound);
    queue(REQ_HANGUP, "B2");
    for (int i = 0; i <= kCommands; ++i)
        pass();
    EXPECT_EQ(queued_todo_count(), 0);
    EXPECT_EQ(ending_signal(), SIGHUP);
    EXPECT_EQ(line_received(1), std::string("H\0", 2));
    const std::string log = test::read_file(root_.daemon_log());
    EXPECT_THAT(log, ::testing::HasSubstr("Couldn't write a command to QLX0 within 50 ms"));
    EXPECT_THAT(log,
                ::testing::HasSubstr("QLX0 has no running line monitor. Dropping the command."));
}

TEST_F(LineIsrTest, AnEndedSocketIsNotWatchedAgainUntilTheRescan) {
    // Without this the loop would read the same end of file over and over,
    // holding the device-table lock the supervisor needs to restart the line.
    const auto ends = [&] {
        const std::string log = test::read_file(root_.daemon_log());
        int n = 0;
        for (size_t at = log.find("Read EOF from QLX0"); at != std::string::npos;
             at = log.find("Read EOF from QLX0", at + 1))
            ++n;
        return n;
    };
    peers_[0].reset();
    pass();
    ASSERT_EQ(ends(), 1);
    line_sends(1, "R");
    pass();
    line_sends(1, "b");
    pass();
    EXPECT_EQ(ends(), 1);
    EXPECT_THAT(journal_, ElementsAre("KALRingDetect", "KALBusyTone"));
}

TEST_F(LineIsrTest, LineMonitorDyingWithUnreadCommandsIsAnEndOfFileNotAFatalError) {
    queue(REQ_HANGUP, "A1");
    pass();  // written, never read: closing the peer now resets the socket
    peers_[0].reset();
    pass();
    // Still serving: the other line's events get through.
    line_sends(1, "R");
    pass();
    EXPECT_THAT(journal_, ElementsAre("KALRingDetect"));
}

}  // namespace
