// The node base against fake lines: attachment, teardown and the delayed
// release on the driven clock, device loss and table replacement, and the
// exact bytes of every line command.

#include "nodes/node.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>

#include "core/device_table.h"
#include "fake_line.h"
#include "lineio/request_queue.h"
#include "lineio/timers.h"

using namespace kal;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// The bytes of a P or R command, laid out by hand from the wire format.
std::string audio_command(char c, const std::string& path, const std::string& stops,
                          const std::string& token, const std::string& firstDialing, int32_t flags,
                          int32_t length, int32_t pause) {
    std::string b(1629, '\0');
    b[0] = c;
    b.replace(1, path.size(), path);
    b.replace(1 + 1024, stops.size(), stops);
    b.replace(1 + 1104, token.size(), token);
    b.replace(1 + 1359, firstDialing.size(), firstDialing);
    b.replace(1 + 1616, 4, le32(flags));
    b.replace(1 + 1620, 4, le32(length));
    b.replace(1 + 1624, 4, le32(pause));
    return b;
}

class NodeTest : public ::testing::Test {
  protected:
    std::shared_ptr<Node> attached(int line = 0, int type = kNodeTypeVoicemail) {
        auto node = lines_.track(Node::create<Node>());
        node->attachToDeviceTable(FakeLines::serial(line), type);
        return node;
    }
    std::string nodeLog(const std::shared_ptr<Node>& node, const std::string& rest) {
        return "DEBUG: Node " + ptr(node.get()) + rest;
    }

    FakeLines lines_{2};
};

TEST_F(NodeTest, AttachingLinksTheRecordWeaklyAndRecordsTheType) {
    auto node = attached(1, kNodeTypeScript);
    EXPECT_EQ(lines_.nodeOn(1), node);
    EXPECT_EQ(lines_.record(1).nodeType, kNodeTypeScript);
    EXPECT_EQ(node->serialNumber(), FakeLines::serial(1));
    EXPECT_EQ(lines_.nodeOn(0), nullptr);
    // The table does not own it: the node's own reference and ours.
    EXPECT_EQ(node.use_count(), 2);
}

TEST_F(NodeTest, WithoutALineEveryCommandFailsAndNothingIsSent) {
    auto node = lines_.track(Node::create<Node>());
    node->attachToDeviceTable("NO-SUCH-SERIAL", kNodeTypeVoicemail);
    EXPECT_EQ(node->serialNumber(), std::nullopt);
    const std::string file = lines_.audioFile("ogm.raw", 8000);
    const std::vector<std::pair<const char*, std::function<bool()>>> commands = {
        {"hangup", [&] { return node->requestHangup(); }},
        {"cancel", [&] { return node->cancelAudio(); }},
        {"beep", [&] { return node->requestBeepOfType(1); }},
        {"play", [&] { return node->schedulePlayOf(file, 0x184, "Pp", 0, "101"); }},
        {"record", [&] { return node->scheduleRecordInto(file, 0x1AC, "Pp", 60, "102"); }},
        {"call", [&] { return node->placeCallTo("5551234", "t"); }},
        {"deadman", [&] { return node->resetDeadmanTimeout(35); }},
    };
    for (const auto& [name, command] : commands)
        EXPECT_FALSE(command()) << name;
    node->extendTimerWithLocking(true, 20);
    EXPECT_THAT(lines_.commands(0), IsEmpty());
    EXPECT_THAT(lines_.commands(1), IsEmpty());
    EXPECT_EQ(queued_todo_count(), 0);
    EXPECT_EQ(pending_timer_count(), 0) << "a failed renewal must not re-arm";
    EXPECT_EQ(lines_.countInLog("WARN: Couldn't extend deadman timer\n"), 1);
}

TEST_F(NodeTest, TakingOverALineTearsThePreviousNodeDownOnlyWhenAsked) {
    auto first = attached(0);
    auto second = lines_.track(Node::create<Node>());
    second->attachToDeviceTable(FakeLines::serial(0), kNodeTypeVoicemailCheck, true);
    EXPECT_TRUE(first->isTornDown());
    EXPECT_EQ(lines_.nodeOn(0), second);
    EXPECT_EQ(lines_.record(0).nodeType, kNodeTypeVoicemailCheck);
    EXPECT_EQ(lines_.countInLog("Warning: not clearing ptr"), 0);

    // Replaced silently: not torn down, still able to command its line, and
    // its own teardown finds the record is no longer its.
    auto third = lines_.track(Node::create<Node>());
    third->attachToDeviceTable(FakeLines::serial(0), kNodeTypeFaxWait);
    EXPECT_FALSE(second->isTornDown());
    EXPECT_EQ(second->serialNumber(), FakeLines::serial(0));
    EXPECT_TRUE(second->requestHangup());
    EXPECT_EQ(lines_.nextCommand(0)->bytes, std::string("H\0", 2));
    second->teardown();
    EXPECT_EQ(lines_.countInLog(nodeLog(second,
                                        ": Warning: not clearing ptr from device table on "
                                        "teardown.\n")),
              1);
    EXPECT_EQ(lines_.nodeOn(0), third);
}

TEST_F(NodeTest, AReplacedNodeKeepsItsOwnTimersButIsTornDownWithinItsChecks) {
    std::weak_ptr<Node> weak;
    {
        auto node = attached(0);
        weak = node;
        node->extendTimerWithLocking(true, 20);  // renews every 10 s, for ever
    }
    EXPECT_EQ(lines_.nextCommand(0)->bytes, ">" + le32(20));
    attached(0, kNodeTypeCallRecording);
    const int checked = Node::kDetachedChecks * Node::kReleaseDelaySeconds;
    // Until the last check its renewals still reach the line, as they did
    // before it was replaced...
    lines_.advance(checked - 1);
    EXPECT_FALSE(weak.expired());
    EXPECT_EQ(lines_.commands(0).size(), static_cast<size_t>((checked - 1) / 10));
    // ...then it is torn down, renews no more, and is freed.
    lines_.advance(1);
    EXPECT_TRUE(weak.lock()->isTornDown());
    lines_.advance(Node::kReleaseDelaySeconds);
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(lines_.nextCommand(0), std::nullopt);
}

TEST_F(NodeTest, ReleaseFreesTheNodeThirtyDrivenSecondsAfterTeardown) {
    std::weak_ptr<Node> weak;
    std::string name;
    {
        auto node = attached(0);
        weak = node;
        name = ptr(node.get());
        node->extendTimerWithLocking(true, 20);
        node->teardown();
        // The node's own timers are keyed by its address; the release is not.
        cancel_timer(node->timerId());
        EXPECT_EQ(lines_.nodeOn(0), nullptr);
        EXPECT_EQ(node->serialNumber(), std::nullopt);
    }
    lines_.advance(29);
    EXPECT_FALSE(weak.expired());
    lines_.advance(1);
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(lines_.countInLog("DEBUG: Node " + name +
                                ": Established release timer to fire in 30 seconds\n"),
              1);
    EXPECT_EQ(lines_.countInLog("DEBUG: Node " + name + ": Release time has arrived. Releasing.\n"),
              1);
    EXPECT_EQ(lines_.countInLog("DEBUG: Deallocating Node " + name + "\n"), 1);
}

TEST_F(NodeTest, SecondTeardownWarnsAndHoldsTheNodeUntilItsOwnRelease) {
    std::weak_ptr<Node> weak;
    {
        auto node = attached(0);
        weak = node;
        node->teardown();
        lines_.advance(10);
        node->teardown();
        EXPECT_EQ(lines_.countInLog(nodeLog(node, ": Warning: not clearing ptr")), 1);
    }
    EXPECT_EQ(lines_.countInLog(": Established release timer to fire in 30 seconds\n"), 2);
    lines_.advance(20);  // the first release has fired
    EXPECT_FALSE(weak.expired());
    lines_.advance(10);
    EXPECT_TRUE(weak.expired());
}

TEST_F(NodeTest, AudioTokensRunFromOneHundredAndOneToOneThousandThenWrap) {
    int token = Node::getNextAudioToken();
    int steps = 0;
    while (token != Node::kLastAudioToken && steps++ < 2000) {
        ASSERT_GE(token, 100);
        ASSERT_LE(token, 1000);
        const int next = Node::getNextAudioToken();
        ASSERT_EQ(next, token + 1);
        token = next;
    }
    EXPECT_EQ(Node::getNextAudioToken(), 100);
    EXPECT_EQ(Node::getNextAudioToken(), 101);
}

TEST_F(NodeTest, MissingAndZeroByteRecordingsCountAsEmpty) {
    auto node = attached(0);
    const std::string missing = lines_.root().path() + "/missing.raw";
    const std::string empty = lines_.audioFile("empty.raw", 0);
    const std::string sound = lines_.audioFile("sound.raw", 1);
    EXPECT_TRUE(node->isAudioFileEmpty(missing));
    EXPECT_TRUE(node->isAudioFileEmpty(empty));
    EXPECT_FALSE(node->isAudioFileEmpty(sound));
    EXPECT_EQ(lines_.countInLog("WARN: Node " + ptr(node.get()) + ": couldn't stat recFile (" +
                                missing + ") - got 2 (No such file or directory)\n"),
              1);
    EXPECT_EQ(lines_.countInLog("WARN: Node " + ptr(node.get()) + ": recFile is empty at path " +
                                empty + "\n"),
              1);
    node->trashEmptyAudioFile(empty);
    EXPECT_FALSE(file_exists(empty));
    node->trashEmptyAudioFile(missing);
    EXPECT_EQ(lines_.countInLog(": couldn't unlink recFile (" + missing + ") - got 2 ("), 1);
}

TEST_F(NodeTest, PlayTellsTheLineMonitorTheLengthInWholeSecondsRoundedUp) {
    auto node = attached(1);
    const struct {
        size_t bytes;
        int32_t seconds;
    } cases[] = {{0, 0}, {1, 1}, {8000, 1}, {8001, 2}, {24000, 3}};
    for (const auto& c : cases) {
        const std::string file =
            lines_.audioFile("ogm" + std::to_string(c.bytes) + ".raw", c.bytes);
        ASSERT_TRUE(node->schedulePlayOf(file, 0x184, "PplbdcehHJa", 2, "417"));
        auto cmd = lines_.nextCommand(1);
        ASSERT_TRUE(cmd);
        EXPECT_EQ(cmd->bytes.size(), 1629u);
        EXPECT_EQ(cmd->bytes,
                  audio_command('P', file, "PplbdcehHJa", "417", "", 0x184, c.seconds, 2))
            << c.bytes << " bytes";
    }
    EXPECT_EQ(lines_.countInLog(nodeLog(node, ": playback length approx 3 seconds\n")), 1);
    EXPECT_THAT(lines_.commands(0), IsEmpty());
}

TEST_F(NodeTest, PlayOfAFileThatCannotBeExaminedSendsNothing) {
    auto node = attached(0);
    const std::string missing = lines_.root().path() + "/nothing.raw";
    EXPECT_FALSE(node->schedulePlayOf(missing, 0x184, "P", 0, "101"));
    EXPECT_EQ(lines_.nextCommand(0), std::nullopt);
    EXPECT_EQ(lines_.countInLog("WARN: Couldn't stat playback file '" + missing + "' in Node " +
                                ptr(node.get()) + ". 2-No such file or directory\n"),
              1);
}

TEST_F(NodeTest, RecordCarriesTheMaximumLengthAndOptionalDigitsToDialFirst) {
    auto node = attached(0);
    const std::string icm = lines_.root().path() + "/icm.raw";
    ASSERT_TRUE(node->scheduleRecordInto(icm, 0x1AC, "PplbdehHJa", 120, "205"));
    ASSERT_TRUE(node->scheduleRecordInto(icm, 0x11AC, "PplbdehHJasq", 30, "206", "9,5551234"));
    auto cmds = lines_.commands(0);
    ASSERT_EQ(cmds.size(), 2u);
    EXPECT_EQ(cmds[0].bytes, audio_command('R', icm, "PplbdehHJa", "205", "", 0x1AC, 120, 0));
    EXPECT_EQ(cmds[1].bytes,
              audio_command('R', icm, "PplbdehHJasq", "206", "9,5551234", 0x11AC, 30, 0));
    EXPECT_EQ(lines_.countInLog(
                  nodeLog(node, ": Requesting record start into " + icm + " with token 206.\n")),
              1);
}

TEST_F(NodeTest, SmallCommandsAreTheirExactBytes) {
    auto node = attached(0);
    const struct {
        const char* name;
        std::function<bool()> send;
        std::string bytes;
        std::string log;
    } cases[] = {
        {"hangup", [&] { return node->requestHangup(); }, std::string("H\0", 2),
         ": Asking line monitor to hang up (4).\n"},
        {"cancel", [&] { return node->cancelAudio(); }, std::string("X\0", 2),
         ": Asking line monitor to cancel audio (5).\n"},
        {"beep", [&] { return node->requestBeepOfType(3); }, "!" + le32(3),
         ": Requesting beep of type: 3\n"},
        {"deadman", [&] { return node->resetDeadmanTimeout(35); }, ">" + le32(35),
         ": Asking line monitor to extend timeout by 35 seconds.\n"},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(c.send()) << c.name;
        auto cmd = lines_.nextCommand(0);
        ASSERT_TRUE(cmd) << c.name;
        EXPECT_EQ(cmd->bytes, c.bytes) << c.name;
        EXPECT_EQ(lines_.countInLog(nodeLog(node, c.log)), 1) << c.name;
    }
}

TEST_F(NodeTest, CallRequestCarriesTokenAndNumberAtTheirOffsets) {
    auto node = attached(0);
    ASSERT_TRUE(node->placeCallTo("18005551234", "client-7"));
    auto cmd = lines_.nextCommand(0);
    ASSERT_TRUE(cmd);
    std::string expected(511, '\0');
    expected[0] = 'C';
    expected.replace(1, 8, "client-7");
    expected.replace(1 + 255, 11, "18005551234");
    EXPECT_EQ(cmd->bytes, expected);
    EXPECT_EQ(
        lines_.countInLog(nodeLog(node, ": Placing call to 18005551234 with token client-7\n")), 1);
}

TEST_F(NodeTest, DeadmanIsRenewedEveryHalfIntervalUntilTeardown) {
    auto node = attached(0);
    node->extendTimerWithLocking(true, 21);  // renewed every 10 s
    const std::string renewal = ">" + le32(21);
    EXPECT_EQ(lines_.nextCommand(0)->bytes, renewal);
    lines_.advance(9);
    EXPECT_EQ(lines_.nextCommand(0), std::nullopt);
    lines_.advance(1);
    EXPECT_EQ(lines_.nextCommand(0)->bytes, renewal);
    lines_.advance(10);
    EXPECT_EQ(lines_.nextCommand(0)->bytes, renewal);
    node->teardown();
    lines_.advance(30);
    EXPECT_EQ(lines_.nextCommand(0), std::nullopt);
    EXPECT_EQ(lines_.countInLog(nodeLog(node, ": Extending deadman timer by 21 seconds\n")), 3);
}

TEST_F(NodeTest, DeviceLossTearsDownUnderTheCallersLock) {
    auto node = attached(0);
    node->extendTimerWithLocking(true, 20);
    ASSERT_TRUE(lines_.nextCommand(0));
    lines_.loseDevice(0);  // would deadlock if teardown took the table lock
    EXPECT_TRUE(node->isTornDown());
    EXPECT_EQ(lines_.nodeOn(0), nullptr);
    EXPECT_EQ(node->serialNumber(), std::nullopt);
    EXPECT_FALSE(node->requestHangup());
    lines_.advance(20);
    EXPECT_EQ(lines_.nextCommand(0), std::nullopt) << "the keep-alive ends with the node";
    EXPECT_EQ(lines_.countInLog(nodeLog(node, " notified of loss of device\n")), 1);
}

TEST_F(NodeTest, ARescanRepointsTheAttachedNodeAndLeavesNoPointerBehind) {
    auto owner = attached(0);
    auto replaced = lines_.track(Node::create<Node>());
    replaced->attachToDeviceTable(FakeLines::serial(1), kNodeTypeVoicemail);
    auto taker = lines_.track(Node::create<Node>());
    taker->attachToDeviceTable(FakeLines::serial(1), kNodeTypeFaxWait);

    lines_.replaceTable();  // frees the records every node was attached to
    EXPECT_EQ(lines_.countInLog(nodeLog(owner, ": Resetting device pointer from ")), 1);
    EXPECT_EQ(owner->serialNumber(), FakeLines::serial(0));
    EXPECT_TRUE(owner->requestHangup());
    EXPECT_EQ(lines_.nextCommand(0)->bytes, std::string("H\0", 2));
    // The silently replaced node still reaches its line, and tearing it
    // down touches nothing of the freed table (AddressSanitizer watches).
    EXPECT_TRUE(replaced->cancelAudio());
    EXPECT_EQ(lines_.nextCommand(1)->bytes, std::string("X\0", 2));
    replaced->teardown();
    EXPECT_EQ(lines_.nodeOn(1), taker);
    owner->teardown();
    EXPECT_EQ(lines_.nodeOn(0), nullptr);
}

TEST_F(NodeTest, TheBaseNodePassesEveryEventOnToClients) {
    auto node = attached(0);
    lines_.sendEvent("R");
    lines_.sendDigit('7');
    std::vector<std::string> names;
    for (const auto& r : lines_.reports())
        names.push_back(r.name);
    EXPECT_THAT(names, ElementsAre("KALRingDetect", "KALDigitDialed"));
}

}  // namespace
