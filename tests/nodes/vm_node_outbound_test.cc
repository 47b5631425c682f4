// The outbound session on fake lines and the driven clock: the dial with the
// dial-sound capture, each outcome the line monitor's analysis can give, the
// probes after the OGM and their 60-second window, capture names by log
// level, and the developer's test marker.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/paths.h"
#include "log/kallog.h"
#include "nodes/vm_node.h"
#include "service/vocabulary.h"
#include "vm_node_fixture.h"

using namespace kal;
using namespace kal::test;
using ::testing::IsEmpty;

namespace {

const std::string kNumber = "5551212";

class VMNodeOutboundTest : public VMNodeTest {
  protected:
    std::shared_ptr<VMNode> dial(int special = 0, int line = 0) {
        return start({.choices = {"1"}, .special = special, .dial = kNumber}, line);
    }
    // The next command must be the dialing record; answers it.
    lm::lm_audio_request expectDialRecord(int line = 0) {
        auto cmd = lines_.nextCommand(line);
        if (!cmd || cmd->type() != 'R') {
            ADD_FAILURE() << "expected the dialing record";
            return {};
        }
        EXPECT_EQ(cmd->audio().firstDialing, kNumber);
        EXPECT_EQ(cmd->audio().length, 45);
        return cmd->audio();
    }
    lm::lm_audio_request expectProbeRecord(int line = 0) {
        auto cmd = lines_.nextCommand(line);
        if (!cmd || cmd->type() != 'R') {
            ADD_FAILURE() << "expected the probe";
            return {};
        }
        EXPECT_EQ(cmd->audio().firstDialing, "");
        EXPECT_EQ(cmd->audio().length, 2);
        EXPECT_EQ(cmd->audio().stopString, "PplbehHJafq");
        return cmd->audio();
    }
    // A call answered after a signal, its first OGM just sent; answers the
    // OGM's token. Each probe must listen afresh: the dial's signal is old.
    std::string answered(int special) {
        auto node = dial(special);
        const std::string token = expectDialRecord().token;
        lines_.sendEvent("S");
        lines_.sendAudioResponse(token, lm::kAudioComplete);
        return expectPlay();
    }
    static std::string modemResponse(const Report& r) {
        auto it = r.raw.userInfo.find(kal_ModemResponse);
        return it == r.raw.userInfo.end() ? "" : it->second.str();
    }
};

struct DialCase {
    const char* desc;
    int special;
    int flags;
    const char* stops;
};

TEST_F(VMNodeOutboundTest, DialsWhileCapturingTheDialSound) {
    const DialCase cases[] = {
        {"plain", 0, 0x38004, "PplbehHJafsq"},
        {"probing also stops on a signal", VMNode::kSpecialProbe, 0x38004, "PplbehHJafsqS"},
        {"bit 64 flags", VMNode::kSpecialAltDialFlags, 0xB8004, "PplbehHJafsq"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        auto node = dial(c.special);
        auto rec = expectDialRecord();
        EXPECT_EQ(rec.flags, c.flags);
        EXPECT_EQ(rec.stopString, c.stops);
        EXPECT_EQ(rec.path, dialsound_capture_at(static_cast<long>(lines_.clock().now())))
            << "a name of its own at DEBUG";
        EXPECT_EQ(node->state(), VMNode::kDialing);
        node->teardown();
        lines_.advance(1);
    }
}

struct OutcomeCase {
    const char* desc;
    bool signalFirst;  // an `S` event while dialing
    int32_t status;
    char stopChar;
    const char* code;
    const char* response;  // nullptr: a failure report
    bool plays;            // else the call is hung up
};

TEST_F(VMNodeOutboundTest, TheDialingOutcomeIsReportedAndDecidesBetweenPlayAndHangUp) {
    using namespace lm;
    const OutcomeCase cases[] = {
        {"busy", false, kAudioStopped, 'b', kal_ResponseCode_Call_Busy, "BUSY", false},
        {"no dial tone", false, kAudioStopped, 'X', kal_ResponseCode_Call_NoDialTone, "NO DIALTONE",
         false},
        {"45 s without a signal", false, kAudioComplete, 0, kal_ResponseCode_Call_NoAnswer,
         "AUDIO_COMPLETE", false},
        {"45 s after a signal", true, kAudioComplete, 0, kal_ResponseCode_Call_OK, "OK", true},
        {"silence q", false, kAudioStopped, 'q', kal_ResponseCode_Call_OK, "OK", true},
        {"silence s", false, kAudioStopped, 's', kal_ResponseCode_Call_OK, "OK", true},
        {"signal", false, kAudioStopped, 'S', kal_ResponseCode_Call_OK, "OK", true},
        {"another stop character", false, kAudioStopped, 'h', kal_ResponseCode_Call_Error,
         "STOPCHAR", false},
        {"line monitor busy", false, kAudioBusy, 0, kal_ResponseCode_ERR_ResourceBusy, nullptr,
         false},
        {"invalid file", false, kAudioInvalidFile, 0, kal_ResponseCode_ERR_InvalidFile, nullptr,
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        lines_.clearReports();
        auto node = dial();
        const std::string token = expectDialRecord().token;
        if (c.signalFirst) {
            lines_.sendEvent("S");
            EXPECT_THAT(lines_.reports(), IsEmpty()) << "the signal is the node's alone";
        }
        lines_.sendAudioResponse(token, c.status, c.stopChar);

        Report r = onlyCompletion();
        EXPECT_EQ(r.code, c.code);
        EXPECT_EQ(modemResponse(r), c.response ? c.response : "");
        if (c.plays) {
            expectPlay();
            EXPECT_EQ(node->state(), VMNode::kSentPlay);
            node->teardown();
        } else {
            EXPECT_EQ(types_of(lines_.commands()), "H");
            EXPECT_TRUE(node->isTornDown());
        }
    }
}

TEST_F(VMNodeOutboundTest, WhileDialingTonesAreTheNodesAndStopCharactersWaitForTheReply) {
    auto node = dial();
    const std::string token = expectDialRecord().token;
    lines_.sendEvent("d");
    EXPECT_THAT(lines_.reports(), IsEmpty()) << "dial tone consumed";
    lines_.sendEvent("b");
    ASSERT_EQ(lines_.reports().size(), 1u);
    EXPECT_EQ(lines_.reports()[0].name, kal_BusyTone);
    EXPECT_EQ(node->state(), VMNode::kDialing) << "the record's reply settles it";
    lines_.sendAudioResponse(token, lm::kAudioStopped, 'b');
    EXPECT_EQ(modemResponse(onlyCompletion()), "BUSY");
}

TEST_F(VMNodeOutboundTest, ACalleeTalkingOverTheOgmIsReprobedFor60SecondsAndOnceMore) {
    auto node = dial(VMNode::kSpecialProbe);
    lines_.sendAudioResponse(expectDialRecord().token, lm::kAudioStopped, 'S');
    lines_.sendAudioResponse(expectPlay(), lm::kAudioComplete);
    const time_t firstOgmEnd = lines_.clock().now();

    int plays = 1;
    for (int second = 1; second <= 70 && !node->isTornDown(); ++second) {
        auto probe = expectProbeRecord();
        EXPECT_EQ(probe.flags, 0x68004);
        lines_.advance(1);
        lines_.sendEvent("S");
        lines_.sendAudioResponse(probe.token, lm::kAudioComplete);
        if (node->isTornDown())
            break;
        ++plays;
        lines_.sendAudioResponse(expectPlay(), lm::kAudioComplete);
    }
    EXPECT_EQ(lines_.clock().now() - firstOgmEnd, 61);
    EXPECT_EQ(plays, 61) << "the first OGM, then one per re-probe, past the loop limit";
    EXPECT_EQ(lines_.nextCommand(), std::nullopt) << "no hang-up: the message was delivered";
    auto done = lines_.completions();
    ASSERT_EQ(done.size(), 2u);
    EXPECT_EQ(done[0].code, kal_ResponseCode_Call_OK);
    EXPECT_EQ(done[1].code, kal_ResponseCode_OK_NoAudio);
    EXPECT_EQ(done[1].cause, "#");
    EXPECT_EQ(done[1].onHook, 1);
}

struct ProbeCase {
    const char* desc;
    const char* event;  // sent during the probe, or nullptr
    int32_t status;
    char stopChar;
    const char* code;
    const char* cause;
    bool hangUp;
};

TEST_F(VMNodeOutboundTest, AProbeEndsTheCallOnSilenceOrAStopCharacter) {
    const ProbeCase cases[] = {
        {"silent callee", nullptr, lm::kAudioComplete, 0, kal_ResponseCode_OK_NoAudio, "#", false},
        {"silence is good news", "s", lm::kAudioComplete, 0, kal_ResponseCode_OK_NoAudio, "#",
         false},
        {"stopped by the line", nullptr, lm::kAudioStopped, 'p', kal_ResponseCode_Call_Error, "",
         true},
        {"line monitor busy", nullptr, lm::kAudioBusy, 0, kal_ResponseCode_ERR_ResourceBusy, "",
         true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        lines_.sendAudioResponse(answered(VMNode::kSpecialProbe), lm::kAudioComplete);
        auto probe = expectProbeRecord();
        lines_.clearReports();
        if (c.event) {
            lines_.sendEvent(c.event);
            EXPECT_THAT(lines_.reports(), IsEmpty());
        }
        lines_.sendAudioResponse(probe.token, c.status, c.stopChar);
        Report r = onlyCompletion();
        EXPECT_EQ(r.code, c.code);
        EXPECT_EQ(r.cause, c.cause);
        EXPECT_EQ(types_of(lines_.commands()), c.hangUp ? "H" : "");
        EXPECT_EQ(lines_.nodeOn(0), nullptr);
    }
}

TEST_F(VMNodeOutboundTest, BelowDebugLevelTheCapturesReuseOneNameAndStartAfresh) {
    kalsetcurrentloglevel(KAL_INFO);
    make_dirs(log_dir());
    write_file(dialsound_capture(), "old dial sound");
    write_file(probesound_capture(), "old probe sound");

    auto node = dial(VMNode::kSpecialProbe);
    EXPECT_EQ(expectDialRecord().path, dialsound_capture());
    EXPECT_FALSE(file_exists(dialsound_capture()));
    EXPECT_TRUE(file_exists(probesound_capture()));
    lines_.sendEvent("S");
    lines_.sendAudioResponse("0", lm::kAudioComplete);
    lines_.sendAudioResponse(expectPlay(), lm::kAudioComplete);
    EXPECT_EQ(expectProbeRecord().path, probesound_capture());
    EXPECT_FALSE(file_exists(probesound_capture()));

    kalsetcurrentloglevel(KAL_DEBUG);
    lines_.advance(7);
    auto timed = dial(VMNode::kSpecialProbe, 1);
    const long now = static_cast<long>(lines_.clock().now());
    EXPECT_EQ(expectDialRecord(1).path, dialsound_capture_at(now));
    lines_.sendAudioResponse("0", lm::kAudioStopped, 'q', 1);
    lines_.sendAudioResponse(expectPlay(1), lm::kAudioComplete, '\0', 1);
    EXPECT_EQ(expectProbeRecord(1).path, probesound_capture_at(now));
}

TEST_F(VMNodeOutboundTest, TheTestMarkerAddsToTheDialAndProbeFlags) {
    const std::string marker = vmntest_marker();
    make_dirs(marker.substr(0, marker.rfind('/')));
    write_file(marker, "");
    ASSERT_TRUE(VMNode::isDialTestMode());

    auto alt = dial(VMNode::kSpecialAltDialFlags, 1);
    EXPECT_EQ(expectDialRecord(1).flags, 0xB9004);
    auto node = dial(VMNode::kSpecialProbe);
    EXPECT_EQ(expectDialRecord().flags, 0x39004);
    lines_.sendAudioResponse("0", lm::kAudioStopped, 's');
    lines_.sendAudioResponse(expectPlay(), lm::kAudioComplete);
    EXPECT_EQ(expectProbeRecord().flags, 0x69004);
}

TEST_F(VMNodeOutboundTest, DeviceLossWhileDialingReportsNoResourceOnce) {
    auto node = dial();
    const std::string token = expectDialRecord().token;
    lines_.loseDevice(0);
    expectFailure(kal_ResponseCode_ERR_NoResource);
    lines_.sendAudioResponse(token, lm::kAudioStopped, 'b');
    EXPECT_EQ(lines_.completions().size(), 1u);
}

TEST_F(VMNodeOutboundTest, ADialOnAnUnknownLineFailsWithoutAHangUp) {
    auto node = lines_.track(
        VMNode::beginForResource("GONE", kToken, std::nullopt, icmPath(), {}, 60, 0, 0, kNumber));
    EXPECT_TRUE(node->isTornDown());
    auto done = lines_.completions();
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0].code, kal_ResponseCode_ERR_NoResource);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
}

}  // namespace
