// The fax-wait node on fake lines and the driven clock: it keeps the line
// monitor's watchdog at bay, gives up 30 seconds after it began, ends early
// on the events that mean the fax is done, and reports exactly once.

#include "nodes/fax_wait_node.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "fake_line.h"
#include "lineio/timers.h"
#include "service/vocabulary.h"

using namespace kal;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const std::string kDeadman35 = std::string(">") + std::string("\x23\0\0\0", 4);
const std::string kHangup("H\0", 2);

std::vector<std::string> bytes_of(const std::vector<LineCommand>& commands) {
    std::vector<std::string> out;
    for (const auto& c : commands)
        out.push_back(c.bytes);
    return out;
}

std::vector<std::string> names_of(const std::vector<Report>& reports) {
    std::vector<std::string> out;
    for (const auto& r : reports)
        out.push_back(r.name);
    return out;
}

class FaxWaitNodeTest : public ::testing::Test {
  protected:
    // A fax-wait node begun on `line`, its deadman command already read.
    std::shared_ptr<FaxWaitNode> waiting(int line = 0, const std::string& token = "vm-token") {
        auto node = FaxWaitNode::createWithSerial(FakeLines::serial(line), token);
        node->begin();
        EXPECT_EQ(lines_.nextCommand(line)->bytes, kDeadman35);
        EXPECT_EQ(node->state(), FaxWaitNode::kWaiting);
        return node;
    }
    void expectOneCompletion(const char* code, int line = 0) {
        auto done = lines_.completions();
        ASSERT_EQ(done.size(), 1u) << code;
        EXPECT_EQ(done[0].code, code);
        EXPECT_EQ(done[0].token, "vm-token");
        EXPECT_EQ(done[0].cause, "_");
        EXPECT_EQ(done[0].onHook, 0);
        EXPECT_EQ(done[0].serial, FakeLines::serial(line));
    }

    FakeLines lines_{8};
};

TEST_F(FaxWaitNodeTest, TakesTheLineFromTheVoicemailSessionAndExtendsTheWatchdog) {
    auto session = lines_.track(Node::create<Node>());
    session->attachToDeviceTable(FakeLines::serial(0), kNodeTypeVoicemail);
    auto node = waiting();
    EXPECT_EQ(lines_.nodeOn(0), node);
    EXPECT_EQ(lines_.record(0).nodeType, kNodeTypeFaxWait);
    EXPECT_FALSE(session->isTornDown()) << "the session finishes by itself";
    const std::string me = "DEBUG: FaxWaitNode " + ptr(node.get());
    EXPECT_EQ(lines_.countInLog(me + " being initialized for serial FAKE0\n"), 1);
    EXPECT_EQ(lines_.countInLog(me + ": Extending line monitor's timer by 35 seconds.\n"), 1);
}

TEST_F(FaxWaitNodeTest, SilenceForThirtySecondsHangsUpAndReportsAbortOnce) {
    std::weak_ptr<FaxWaitNode> weak = waiting();
    lines_.advance(29);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
    EXPECT_THAT(lines_.completions(), IsEmpty());
    lines_.advance(1);
    expectOneCompletion(kal_ResponseCode_OK_FaxAbort);
    EXPECT_THAT(bytes_of(lines_.commands()), ElementsAre(kHangup));
    EXPECT_TRUE(weak.lock()->isTornDown());
    EXPECT_EQ(lines_.nodeOn(0), nullptr);

    // Later events belong to clients alone, and the node is freed in time.
    lines_.sendEvent("p");
    EXPECT_EQ(lines_.completions().size(), 1u);
    lines_.advance(30);
    EXPECT_TRUE(weak.expired());
}

TEST_F(FaxWaitNodeTest, EachEndingEventHangsUpReportsOnceAndCancelsTheWait) {
    const std::string enders = "JPadflpr";
    std::vector<std::shared_ptr<FaxWaitNode>> nodes;
    for (int line = 0; line < static_cast<int>(enders.size()); ++line)
        nodes.push_back(waiting(line));
    lines_.advance(10);
    for (int line = 0; line < static_cast<int>(enders.size()); ++line) {
        SCOPED_TRACE(std::string("event ") + enders[line]);
        lines_.clearReports();
        lines_.sendEvent(std::string(1, enders[line]), line);
        expectOneCompletion(kal_ResponseCode_OK_FaxWaitEnd, line);
        // Not consumed: clients hear of the event too (the notifier knows
        // only some of these characters, and ignores the rest).
        EXPECT_THAT(bytes_of(lines_.commands(line)), ElementsAre(kHangup));
        EXPECT_TRUE(nodes[line]->isTornDown());
        EXPECT_EQ(lines_.nodeOn(line), nullptr);
    }
    lines_.clearReports();
    lines_.advance(30);
    EXPECT_THAT(lines_.completions(), IsEmpty()) << "the wait timers were cancelled";
}

TEST_F(FaxWaitNodeTest, AnEndingEventStillReachesClients) {
    waiting();
    lines_.sendEvent("d");
    EXPECT_THAT(names_of(lines_.reports()),
                ElementsAre(kal_RequestComplete, std::string(kal_Dialtone)));
}

TEST_F(FaxWaitNodeTest, RepeatedFaxTonesAreSwallowedAndDoNotExtendTheWait) {
    waiting();
    lines_.advance(10);
    lines_.sendEvent("c");
    lines_.advance(10);
    lines_.sendEvent("e");
    EXPECT_THAT(lines_.reports(), IsEmpty()) << "consumed: clients never see them";
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
    lines_.advance(10);
    expectOneCompletion(kal_ResponseCode_OK_FaxAbort);
}

TEST_F(FaxWaitNodeTest, OtherEventsPassOnWithoutEndingTheWait) {
    auto node = waiting();
    lines_.sendEvent("R");
    lines_.sendDigit('5');
    lines_.sendEvent("b");
    lines_.sendAudioResponse("0", lm::kAudioComplete);
    EXPECT_THAT(names_of(lines_.reports()),
                ElementsAre(std::string(kal_RingDetect), std::string(kal_DigitDialed),
                            std::string(kal_BusyTone)));
    EXPECT_FALSE(node->isTornDown());
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
}

TEST_F(FaxWaitNodeTest, WithoutALineBeginEndsTheNodeWithoutAReport) {
    auto node = lines_.track(FaxWaitNode::createWithSerial("GONE", "vm-token"));
    node->begin();
    EXPECT_TRUE(node->isTornDown());
    EXPECT_EQ(node->state(), FaxWaitNode::kCreated);
    EXPECT_EQ(pending_timer_count(), 1) << "only its release";
    lines_.advance(30);
    EXPECT_THAT(lines_.completions(), IsEmpty());
    for (int line = 0; line < lines_.count(); ++line)
        EXPECT_EQ(lines_.nextCommand(line), std::nullopt);
}

TEST_F(FaxWaitNodeTest, DeviceLossEndsTheWaitSilently) {
    auto node = waiting();
    lines_.loseDevice(0);
    EXPECT_TRUE(node->isTornDown());
    lines_.advance(30);
    EXPECT_THAT(lines_.completions(), IsEmpty());
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
}

TEST_F(FaxWaitNodeTest, EventsAfterTheEndAreLeftToClients) {
    auto node = waiting();
    lines_.sendEvent("l");
    lines_.clearReports();
    // Still referenced by its release timer, and still called if an event
    // raced its teardown: it must neither report nor hang up again.
    EXPECT_EQ(node->handleEventWithBuffer("p", 1, 0, "FAKE0"), kNodePassOn);
    node->timerReturned();
    EXPECT_THAT(lines_.completions(), IsEmpty());
    EXPECT_THAT(bytes_of(lines_.commands()), ElementsAre(kHangup));
}

}  // namespace
