// The answering session on fake lines and the driven clock: the OGM and its
// loops, mailbox choices by one digit or several, the post-OGM pause and the
// inter-digit timer, recording the ICM, stop characters, stale replies, fax
// tones, and the one report every session ends with.

#include "nodes/vm_node.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/qlxconfig.h"
#include "log/kallog.h"
#include "nodes/cr_node.h"
#include "nodes/fax_wait_node.h"
#include "service/vocabulary.h"
#include "vm_node_fixture.h"

using namespace kal;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const Session kTwoChoicesWithIcm{.icm = true, .choices = {"1", "2"}};
const Session kMultiDigit{.choices = {"12", "123"}};

TEST_F(VMNodeTest, PlaysTheOgmAsOneExactPlayCommand) {
    kalsetcurrentloglevel(KAL_DEVEL);
    auto node = start(kTwoChoicesWithIcm);
    auto cmd = lines_.nextCommand();
    ASSERT_TRUE(cmd);
    const std::string token = cmd->audio().token;
    ASSERT_EQ(token.size(), 3u) << "tokens run 100..1000";

    std::string expected(1629, '\0');
    expected[0] = 'P';
    expected.replace(1, ogmPath().size(), ogmPath());
    expected.replace(1 + 1024, 14, "12#PplbdcehHJa");
    expected.replace(1 + 1104, 3, token);
    expected.replace(1 + 1616, 4, le32(0x184));
    expected.replace(1 + 1620, 4, le32(2));  // 16000 bytes at 8000 a second
    expected.replace(1 + 1624, 4, le32(0));
    EXPECT_EQ(cmd->bytes, expected);

    EXPECT_EQ(node->state(), VMNode::kSentPlay);
    EXPECT_EQ(lines_.record(0).nodeType, kNodeTypeVoicemail);
    EXPECT_EQ(lines_.nodeOn(0), node);
    EXPECT_EQ(lines_.countInLog("VMNode " + ptr(node.get()) + ": state IDLE -> SENTPLAY"), 1);
    kalsetcurrentloglevel(KAL_DEBUG);
}

struct StopStringCase {
    const char* desc;
    std::vector<std::string> choices;
    bool icm;
    int special;
    const char* stops;
};

TEST_F(VMNodeTest, TheOgmStopStringFollowsTheChoices) {
    const StopStringCase cases[] = {
        {"single digits", {"1", "2"}, false, 0, "12PplbdcehHJa"},
        {"single digits, ICM adds #", {"1", "2"}, true, 0, "12#PplbdcehHJa"},
        {"single digits, # already there", {"#", "3"}, true, 0, "#3PplbdcehHJa"},
        {"multi-digit: every digit", {"12", "123"}, false, 0, "0123456789PplbdcehHJa"},
        {"multi-digit: * and # per choice",
         {"*1", "#2", "*3"},
         true,
         0,
         "0123456789*#*PplbdcehHJa"},
        {"call blocking drops the fax tone",
         {"1"},
         false,
         VMNode::kSpecialCallBlocking,
         "1PplbdhHJae"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        auto node = start({.icm = c.icm, .choices = c.choices, .special = c.special});
        auto cmd = lines_.nextCommand();
        ASSERT_TRUE(cmd);
        EXPECT_EQ(cmd->audio().stopString, c.stops);
        node->teardown();
    }
}

struct LoopCase {
    const char* desc;
    Session session;
    int plays;
};

TEST_F(VMNodeTest, TheOgmIsPlayedAtMostItsLoopLimitThenTheCallIsHungUp) {
    const LoopCase cases[] = {
        {"menu without ICM loops", {.choices = {"1", "2"}}, 5},
        {"menu looping after a post-OGM pause", {.choices = {"1", "2"}, .pause = 4}, 5},
        {"bit 16 limits to two", {.choices = {"1", "2"}, .special = 16}, 2},
        {"announce-only leaf looping on request", {.choices = {"*"}, .special = 1}, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        lines_.clearReports();
        auto node = start(c.session);
        for (int play = 1; play <= c.plays; ++play) {
            const std::string token = expectPlay();
            EXPECT_THAT(lines_.completions(), IsEmpty()) << "play " << play;
            lines_.sendAudioResponse(token, lm::kAudioComplete);
            if (c.session.pause > 0) {
                lines_.advance(c.session.pause - 1);
                EXPECT_EQ(lines_.nextCommand(), std::nullopt) << "pausing after play " << play;
                lines_.advance(1);
            }
        }
        EXPECT_EQ(types_of(lines_.commands()), "H") << "no sixth play";
        expectCompletion(kal_ResponseCode_OK_NoAudio, kNoCause, 1);
        EXPECT_TRUE(node->isTornDown());
    }
}

TEST_F(VMNodeTest, AnAnnounceOnlyLeafPlaysOnceThenHangsUpOrLeavesTheLineOffHook) {
    start({.choices = {"*"}}, 0);
    start({.choices = {}, .special = VMNode::kSpecialLeaveOffHook}, 1);
    lines_.sendAudioResponse(expectPlay(0), lm::kAudioComplete, '\0', 0);
    lines_.sendAudioResponse(expectPlay(1), lm::kAudioComplete, '\0', 1);
    EXPECT_EQ(types_of(lines_.commands(0)), "H");
    EXPECT_EQ(types_of(lines_.commands(1)), "") << "left off hook";
    auto done = lines_.completions();
    ASSERT_EQ(done.size(), 2u);
    EXPECT_EQ(done[0].cause, kNoCause);
    EXPECT_EQ(done[1].cause, "#");
    for (const auto& r : done) {
        EXPECT_EQ(r.code, kal_ResponseCode_OK_NoAudio);
        EXPECT_EQ(r.onHook, 1);
    }
}

// ---- choices ----

TEST_F(VMNodeTest, AnInvalidDigitIsIgnoredAndAValidOneEndsTheSessionWithoutHangingUp) {
    auto node = start(kTwoChoicesWithIcm);
    const std::string token = expectPlay();
    lines_.sendDigit('3');  // not in the OGM's stop string either
    EXPECT_EQ(node->state(), VMNode::kSentPlay);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
    EXPECT_THAT(lines_.completions(), IsEmpty());

    // The OGM stops on the digit; its reply and the digit arrive apart. The
    // ignored `3` is forgotten: `2` alone is a choice.
    lines_.sendAudioResponse(token, lm::kAudioStopped, '2');
    EXPECT_THAT(lines_.completions(), IsEmpty());
    lines_.sendDigit('2');
    expectCompletion(kal_ResponseCode_OK_NoAudio, "2", 0);
    EXPECT_TRUE(node->isTornDown());
    EXPECT_EQ(lines_.nodeOn(0), nullptr);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt) << "the client carries on with the call";
}

TEST_F(VMNodeTest, HashRecordsAtOnceAndTheInterruptedOgmsReplyIsStale) {
    auto node = start(kTwoChoicesWithIcm);
    const std::string playToken = expectPlay();
    lines_.sendDigit('#');
    auto rec = expectRecord();
    EXPECT_NE(rec.token, playToken);
    EXPECT_EQ(node->state(), VMNode::kSentRec);

    lines_.sendAudioResponse(playToken, lm::kAudioStopped, '#');
    EXPECT_EQ(node->state(), VMNode::kSentRec);
    EXPECT_EQ(lines_.countInLog(": EOF message is stale (" + playToken + " != " + rec.token +
                                "). Discarding."),
              1);
    EXPECT_THAT(lines_.completions(), IsEmpty());
}

TEST_F(VMNodeTest, SeveralDigitsMatchAWholeChoiceAtOnce) {
    auto node = start(kMultiDigit);
    expectPlay();
    lines_.sendDigit('1');
    EXPECT_EQ(node->state(), VMNode::kDigitWait);
    lines_.sendDigit('2');
    expectCompletion(kal_ResponseCode_OK_NoAudio, "12", 0);
    lines_.advance(3);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt) << "no hang-up, and the digit timer is gone";
}

TEST_F(VMNodeTest, WithoutAMatchTheOgmReplaysThreeSecondsAfterTheLastDigit) {
    auto node = start(kMultiDigit);
    expectPlay();
    lines_.sendDigit('4');
    lines_.advance(2);
    lines_.sendDigit('1');  // not a choice either ("41"), and it restarts the wait
    lines_.advance(2);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
    lines_.advance(1);
    expectPlay();
    // The replay forgot "41": "12" matches from scratch.
    lines_.sendDigit('1');
    lines_.sendDigit('2');
    expectCompletion(kal_ResponseCode_OK_NoAudio, "12", 0);
}

TEST_F(VMNodeTest, ADigitDuringThePostOgmPauseReplacesItsTimer) {
    auto node = start({.choices = {"12", "123"}, .pause = 2});
    lines_.sendAudioResponse(expectPlay(), lm::kAudioComplete);
    EXPECT_EQ(node->state(), VMNode::kPausing);
    lines_.sendDigit('9');
    lines_.advance(2);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt) << "the pause's timer was cancelled";
    lines_.advance(1);
    expectPlay();
}

TEST_F(VMNodeTest, AStaleReplyIsIgnoredButTokenZeroIsAlwaysFresh) {
    auto node = start(kTwoChoicesWithIcm);
    const std::string token = expectPlay();
    const std::string other = token == "999" ? "998" : "999";
    lines_.sendAudioResponse(other, lm::kAudioComplete);
    EXPECT_EQ(node->state(), VMNode::kSentPlay);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
    EXPECT_EQ(lines_.countInLog(": EOF message is stale (" + other + " != " + token + ")"), 1);

    lines_.sendAudioResponse("0", lm::kAudioInvalidFile);
    EXPECT_EQ(types_of(lines_.commands()), "H");
    expectFailure(kal_ResponseCode_ERR_InvalidFile);
}

struct PlayReplyCase {
    const char* desc;
    int32_t status;
    char stopChar;
    const char* code;  // nullptr: the session goes on
    const char* cause;
};

TEST_F(VMNodeTest, EachPlayReplyEndsOrContinuesTheSession) {
    const PlayReplyCase cases[] = {
        {"busy line monitor", lm::kAudioBusy, 0, kal_ResponseCode_ERR_ResourceBusy, nullptr},
        {"invalid file", lm::kAudioInvalidFile, 0, kal_ResponseCode_ERR_InvalidFile, nullptr},
        {"stopped by a hang-up event", lm::kAudioStopped, 'h', kal_ResponseCode_OK_NoAudio, "h"},
        {"stopped by a digit", lm::kAudioStopped, '5', nullptr, nullptr},
        {"unknown status", 9, 0, nullptr, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        lines_.clearReports();
        auto node = start(kTwoChoicesWithIcm);
        lines_.sendAudioResponse(expectPlay(), c.status, c.stopChar);
        if (c.code == nullptr) {
            EXPECT_EQ(node->state(), VMNode::kSentPlay);
            EXPECT_EQ(lines_.nextCommand(), std::nullopt);
            EXPECT_THAT(lines_.completions(), IsEmpty());
            node->teardown();
            continue;
        }
        EXPECT_EQ(types_of(lines_.commands()), "H");
        if (c.cause)
            expectCompletion(c.code, c.cause, 1);
        else
            expectFailure(c.code);
    }
}

TEST_F(VMNodeTest, ABareStopCharacterIsHandledAfterClientsHeardOfIt) {
    auto node = start(kTwoChoicesWithIcm);
    const std::string token = expectPlay();
    EXPECT_EQ(node->handleEventWithBuffer("l", 1, 0, "FAKE0"), kNodeRehandle);
    EXPECT_THAT(lines_.completions(), IsEmpty()) << "only marked for re-handling";

    lines_.sendEvent("p");  // caller hung up before the line monitor answered
    auto all = lines_.reports();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].name, kal_HookStatus);
    EXPECT_EQ(all[1].name, kal_RequestComplete);
    expectCompletion(kal_ResponseCode_OK_NoAudio, "p", 1);
    EXPECT_EQ(types_of(lines_.commands()), "H");

    // The line monitor's own reply for the same play comes too late.
    lines_.sendAudioResponse(token, lm::kAudioStopped, 'p');
    EXPECT_EQ(lines_.completions().size(), 1u);
}

TEST_F(VMNodeTest, AStopCharacterWhilePausingEndsTheSession) {
    auto node = start({.choices = {"1"}, .pause = 5});
    lines_.sendAudioResponse(expectPlay(), lm::kAudioComplete);
    lines_.sendEvent("l");
    expectCompletion(kal_ResponseCode_OK_NoAudio, "l", 1);
    EXPECT_EQ(types_of(lines_.commands()), "H");
    lines_.advance(5);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt) << "the pause's timer went with the node";
}

// ---- recording ----

struct RecordCase {
    const char* desc;
    int8_t silenceDetection;
    int special;
    int flags;
    const char* stops;
};

TEST_F(VMNodeTest, TheIcmRecordCarriesTheConfiguredStopStringAndFlags) {
    const RecordCase cases[] = {
        {"plain", 0, 0, 0x1AC, "PplbdehHJa"},
        {"silence detection stops on silence", 1, 0, 0x1AC, "PplbdehHJasq"},
        {"bit 8 flags", 0, VMNode::kSpecialAltRecordFlags, 0x11AC, "PplbdehHJa"},
    };
    const int8_t saved = qlx_enabled_silence_detection;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        qlx_enabled_silence_detection = c.silenceDetection;
        lines_.clearReports();
        auto node = start({.icm = true, .maxLength = 90, .pause = 2, .special = c.special});
        lines_.sendAudioResponse(expectPlay(), lm::kAudioComplete);
        lines_.advance(1);
        EXPECT_EQ(lines_.nextCommand(), std::nullopt) << "the post-OGM pause runs";
        lines_.advance(1);
        auto rec = expectRecord();
        EXPECT_EQ(rec.flags, c.flags);
        EXPECT_EQ(rec.stopString, c.stops);
        EXPECT_EQ(rec.length, 90);
        EXPECT_EQ(rec.firstDialing, "");
        auto reports = lines_.reports();
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_EQ(reports[0].name, kal_VMRecordingStart);
        EXPECT_EQ(reports[0].token, kToken);
        node->teardown();
    }
    qlx_enabled_silence_detection = saved;
}

struct RecordingOutcome {
    const char* desc;
    int fileBytes;  // -1: no file at all
    int32_t status;
    char stopChar;
    const char* code;
};

TEST_F(VMNodeTest, AFinishedRecordingReportsWhetherAudioCameAndDropsEmptyFiles) {
    const RecordingOutcome cases[] = {
        {"audio, ran to its length", 8000, lm::kAudioComplete, '\0',
         kal_ResponseCode_OK_AudioReceived},
        {"audio, caller hung up", 8000, lm::kAudioStopped, 'p', kal_ResponseCode_OK_AudioReceived},
        {"empty file", 0, lm::kAudioStopped, 'p', kal_ResponseCode_OK_NoAudio},
        {"no file", -1, lm::kAudioComplete, '\0', kal_ResponseCode_OK_NoAudio},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        lines_.clearReports();
        auto node = start({.ogm = false, .icm = true});
        auto rec = expectRecord();  // no OGM: straight to the recording
        if (c.fileBytes >= 0)
            lines_.audioFile("icm.raw", static_cast<size_t>(c.fileBytes));
        lines_.sendAudioResponse(rec.token, c.status, c.stopChar);
        auto done = lines_.completions();
        ASSERT_EQ(done.size(), 1u);
        EXPECT_EQ(done[0].code, c.code);
        EXPECT_EQ(done[0].cause, c.stopChar ? std::string(1, c.stopChar) : kNoCause);
        EXPECT_EQ(done[0].onHook, 1);
        EXPECT_EQ(lines_.nextCommand(), std::nullopt) << "no hang-up of its own";
        EXPECT_EQ(file_exists(icmPath()), c.fileBytes > 0);
        ::unlink(icmPath().c_str());
    }
}

TEST_F(VMNodeTest, DigitsDuringTheRecordingAreNotChoices) {
    auto node = start({.ogm = false, .icm = true, .choices = {"1"}});
    expectRecord();
    lines_.sendDigit('1');
    lines_.sendDigit('#');
    EXPECT_EQ(node->state(), VMNode::kSentRec);
    EXPECT_THAT(lines_.completions(), IsEmpty());
}

TEST_F(VMNodeTest, WithNeitherGreetingNorRecordingTheFirstPlayFailsWithoutAHangUp) {
    auto node = start({.ogm = false, .choices = {"1"}});
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
    expectFailure(kal_ResponseCode_ERR_InvalidFile);
    EXPECT_TRUE(node->isTornDown());
}

// ---- fax ----

TEST_F(VMNodeTest, AFaxToneHandsTheLineToAFaxWaitNode) {
    struct {
        const char* desc;
        bool record;
    } cases[] = {{"during the OGM", false}, {"during the recording", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        lines_.clearReports();
        auto node = start({.icm = true, .choices = {"1"}});
        const std::string token = expectPlay();
        if (c.record) {
            lines_.sendDigit('#');
            expectRecord();
        }
        lines_.clearReports();
        lines_.sendEvent("c");
        auto fax = std::dynamic_pointer_cast<FaxWaitNode>(lines_.nodeOn(0));
        ASSERT_TRUE(fax);
        EXPECT_EQ(fax->token(), kToken);
        EXPECT_EQ(lines_.record(0).nodeType, kNodeTypeFaxWait);
        EXPECT_TRUE(node->isTornDown());
        expectCompletion(kal_ResponseCode_OK_FaxWait, kNoCause, 1);
        EXPECT_EQ(lines_.reports().back().name, kal_IncomingFaxTone) << "clients hear it too";
        EXPECT_EQ(types_of(lines_.commands()), ">") << "the fax node's watchdog; no hang-up";
        fax->teardown();
    }
}

TEST_F(VMNodeTest, CallBlockingIgnoresFaxTones) {
    auto node = start({.icm = true, .choices = {"1"}, .special = VMNode::kSpecialCallBlocking});
    expectPlay();
    lines_.sendDigit('#');
    expectRecord();
    lines_.clearReports();
    lines_.sendEvent("c");
    EXPECT_EQ(lines_.nodeOn(0), node);
    EXPECT_EQ(node->state(), VMNode::kSentRec);
    EXPECT_THAT(lines_.reports(), IsEmpty()) << "consumed";
}

// ---- endings from outside ----

TEST_F(VMNodeTest, DeviceLossReportsNoResourceOnce) {
    auto node = start({.choices = {"1"}, .pause = 5});
    lines_.sendAudioResponse(expectPlay(), lm::kAudioComplete);
    lines_.loseDevice(0);
    EXPECT_TRUE(node->isTornDown());
    expectFailure(kal_ResponseCode_ERR_NoResource);
    lines_.advance(5);
    lines_.sendEvent("p");
    EXPECT_EQ(lines_.completions().size(), 1u);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
}

TEST_F(VMNodeTest, DeviceLossBeforeBeginIsSilent) {
    auto node = lines_.track(VMNode::createWithSerial(FakeLines::serial(0), kToken, std::nullopt,
                                                      icmPath(), {}, 60, 0, 0, std::nullopt));
    lines_.loseDevice(0);
    EXPECT_TRUE(node->isTornDown());
    EXPECT_THAT(lines_.completions(), IsEmpty());
}

TEST_F(VMNodeTest, AClientHangingUpDuringTheRecordingEndsItWithOneReport) {
    auto node = start({.ogm = false, .icm = true});
    auto rec = expectRecord();
    lines_.audioFile("icm.raw", 4000);
    // hangUpResource: the line goes on hook before the record's reply.
    lines_.sendEvent("p");
    expectCompletion(kal_ResponseCode_OK_AudioReceived, "p", 1);
    lines_.sendAudioResponse(rec.token, lm::kAudioStopped, 'p');
    EXPECT_EQ(lines_.completions().size(), 1u);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
}

TEST_F(VMNodeTest, ANodeTakingTheLineByForceEndsTheSessionQuietly) {
    auto node = start({.choices = {"1"}, .pause = 5});
    lines_.sendAudioResponse(expectPlay(), lm::kAudioComplete);
    auto taker = lines_.track(Node::create<Node>());
    taker->attachToDeviceTable(FakeLines::serial(0), kNodeTypeVoicemailCheck, true);
    EXPECT_TRUE(node->isTornDown());
    EXPECT_EQ(lines_.nodeOn(0), taker);
    lines_.advance(5);
    EXPECT_THAT(lines_.completions(), IsEmpty()) << "the taker's client speaks for the line";
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
}

TEST_F(VMNodeTest, ASessionACallRecorderTakesTheLineFromIsFreedWithoutASound) {
    // Line 1 is the yardstick: the same recorder on a line of its own.
    const std::string rec = lines_.root().path() + "/rec.raw";
    const auto recorder = [&](int line) {
        return lines_.track(
            CRNode::beginForResource(FakeLines::serial(line), "cr-token", rec, {}, {}, 0));
    };
    std::weak_ptr<VMNode> weak;
    {
        auto node = start({.choices = {"1"}});
        weak = node;
        expectPlay();  // waiting for the greeting's reply
    }
    recorder(0);
    recorder(1);
    EXPECT_FALSE(weak.expired());
    lines_.advance(2 * Node::kReleaseDelaySeconds);
    EXPECT_TRUE(weak.expired()) << "the replaced session is torn down and released";

    const auto line0 = lines_.commands(0);
    const auto line1 = lines_.commands(1);
    EXPECT_EQ(types_of(line0), "R>>");
    ASSERT_EQ(line0.size(), line1.size());
    for (size_t i = 0; i < line0.size(); ++i)
        EXPECT_EQ(line0[i].bytes, line1[i].bytes) << "command " << i;
    EXPECT_THAT(lines_.completions(), IsEmpty());
    std::vector<std::string> notes[2];
    for (const auto& r : lines_.reports())
        notes[r.serial == FakeLines::serial(1) ? 1 : 0].push_back(r.name);
    EXPECT_EQ(notes[0], notes[1]);
}

TEST_F(VMNodeTest, OnAnUnknownLineTheSessionFailsAtOnce) {
    lines_.audioFile("ogm.raw", 8000);
    auto node = lines_.track(VMNode::beginForResource("GONE", kToken, ogmPath(), std::nullopt,
                                                      {"1"}, 60, 0, 0, std::nullopt));
    EXPECT_TRUE(node->isTornDown());
    auto done = lines_.completions();
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0].code, kal_ResponseCode_ERR_InvalidFile);
    EXPECT_EQ(lines_.nextCommand(0), std::nullopt);
}

}  // namespace
