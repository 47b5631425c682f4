// The call-recording node on fake lines and the driven clock: announcement,
// recording and announcement as the line monitor answers, the stop strings,
// the beep between appended recordings, the client's stop and device loss,
// each ending in exactly one report.

#include "nodes/cr_node.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>

#include "base/paths.h"
#include "core/device_table.h"
#include "fake_line.h"
#include "linesim_control.h"
#include "log/kallog.h"
#include "service/vocabulary.h"

using namespace kal;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const std::string kToken = "cr-token";
const char* const kAudio = kal_ResponseCode_OK_AudioReceived;
const char* const kNoAudio = kal_ResponseCode_OK_NoAudio;

// A P or R command laid out by hand from the wire format.
std::string audio_command(char c, const std::string& path, const std::string& stops, int32_t flags,
                          int32_t length) {
    std::string b(1629, '\0');
    b[0] = c;
    b.replace(1, path.size(), path);
    b.replace(1 + 1024, stops.size(), stops);
    b.replace(1 + 1104, kToken.size(), kToken);
    b.replace(1 + 1616, 4, le32(flags));
    b.replace(1 + 1620, 4, le32(length));
    return b;
}

std::vector<char> types_of(const std::vector<LineCommand>& commands) {
    std::vector<char> out;
    for (const auto& c : commands)
        out.push_back(c.type());
    return out;
}

class CRNodeTest : public ::testing::Test {
  protected:
    std::string rec(int line) const { return lines_.root().path() + "/rec" + std::to_string(line); }

    std::shared_ptr<CRNode> start(int line, bool pre = true, bool post = true, uint32_t flags = 0) {
        return lines_.track(CRNode::beginForResource(
            FakeLines::serial(line), kToken, rec(line), pre ? std::optional(pre_) : std::nullopt,
            post ? std::optional(post_) : std::nullopt, flags));
    }
    // A node begun on `line` and brought to `state` by the line monitor's
    // replies (or the client's stop), its commands read.
    std::shared_ptr<CRNode> at(CRNode::State state, int line, bool post = true) {
        auto node = start(line, state != CRNode::kRecording, post);
        if (state == CRNode::kPostPlay) {
            lines_.sendAudioResponse(kToken, lm::kAudioComplete, 0, line);
            write_file(rec(line), "recorded");
            lines_.sendAudioResponse(kToken, lm::kAudioStopped, 'X', line);
        }
        if (state == CRNode::kCancelled)
            node->stop();
        lines_.commands(line);
        EXPECT_EQ(node->state(), state);
        return node;
    }
    // One report, a completion on hook unless `onHook` says otherwise
    // (-1: a failure, which carries no hook state and no cause).
    void expectOneReport(const char* code, char cause, int line = 0, int onHook = 1) {
        auto done = lines_.completions();
        ASSERT_EQ(done.size(), 1u) << code;
        EXPECT_EQ(done[0].code, code);
        EXPECT_EQ(done[0].token, kToken);
        if (cause != '\0')
            EXPECT_EQ(done[0].cause, std::string(1, cause));
        else
            EXPECT_EQ(done[0].cause.find_first_not_of('\0'), std::string::npos) << "no cause";
        EXPECT_EQ(done[0].onHook, onHook);
        EXPECT_EQ(done[0].serial, FakeLines::serial(line));
    }
    std::string logOf(const std::shared_ptr<CRNode>& node, const std::string& rest) const {
        return "CRNode " + ptr(node.get()) + rest;
    }

    FakeLines lines_{10};
    std::string pre_ = lines_.audioFile("pre.raw", 16000);
    std::string post_ = lines_.audioFile("post.raw", 8000);
};

TEST_F(CRNodeTest, PlaysRecordsAndPlaysAgainThenReportsTheAudioOnce) {
    kalsetcurrentloglevel(KAL_DEVEL);  // the state changes
    auto node = start(0);
    EXPECT_EQ(lines_.record(0).nodeType, kNodeTypeCallRecording);
    EXPECT_EQ(lines_.nextCommand()->bytes, audio_command('P', pre_, "pl", 0, 2));
    lines_.sendAudioResponse(kToken, lm::kAudioComplete);
    EXPECT_EQ(lines_.nextCommand()->bytes, audio_command('R', rec(0), "pl", 0x18C, 0));
    EXPECT_EQ(lines_.nextCommand()->bytes, ">" + le32(120)) << "no limit: keep the call alive";

    // While recording, line events are the clients', and the watchdog is renewed.
    lines_.sendEvent("d");
    EXPECT_EQ(lines_.reports().at(0).name, kal_Dialtone);
    lines_.advance(60);
    const LineCommand renewal = *lines_.nextCommand();
    EXPECT_EQ(renewal.bytes, std::string(">\x78\0\0\0", 5)) << "120, byte for byte";
    EXPECT_EQ(renewal.value(), 120);

    write_file(rec(0), "recorded");
    lines_.sendAudioResponse(kToken, lm::kAudioStopped, 'X');
    const LineCommand postPlay = *lines_.nextCommand();
    EXPECT_EQ(postPlay.bytes, audio_command('P', post_, "pl", 0x400, 1));
    EXPECT_THAT(lines_.completions(), IsEmpty());

    lines_.sendAudioResponse(kToken, lm::kAudioComplete);
    expectOneReport(kAudio, '\0');
    EXPECT_TRUE(node->isTornDown());
    EXPECT_EQ(lines_.nodeOn(0), nullptr);
    lines_.advance(120);
    EXPECT_THAT(lines_.commands(), IsEmpty()) << "no hang-up, no more renewals";
    EXPECT_EQ(read_file(rec(0)), "recorded");
    for (const char* line : {": Preplay complete.\n", ": state IDLE -> PREPLAY (pre-play sent)\n",
                             ": state PREPLAY -> RECORDING (pre-play complete)\n",
                             ": Record stopped due to postplay stopchar X.\n",
                             ": state RECORDING -> POSTPLAY (post-play sent)\n"})
        EXPECT_EQ(lines_.countInLog(logOf(node, line)), 1) << line;
}

TEST_F(CRNodeTest, HowTheRecordEndsDecidesThePostPlayAndTheCode) {
    const struct {
        int32_t status;
        char stop;
        bool post;
        bool empty;
        const char* code;  // nullptr: the post-play follows
    } cases[] = {
        {lm::kAudioStopped, 'p', true, false, kAudio},
        {lm::kAudioStopped, 'd', true, false, kAudio},
        {lm::kAudioStopped, 'b', true, false, kAudio},
        {lm::kAudioStopped, 'l', true, true, kNoAudio},
        {lm::kAudioStopped, 'X', true, false, nullptr},
        {lm::kAudioStopped, 'P', false, false, kAudio},
        {lm::kAudioStopped, 'X', false, true, kNoAudio},
        {lm::kAudioComplete, 0, true, false, nullptr},
        // The line monitor's own limit counts as audio, even with none.
        {lm::kAudioComplete, 0, false, true, kAudio},
    };
    int line = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "status " << c.status << " stop " << c.stop << " post "
                                        << c.post << " empty " << c.empty);
        lines_.clearReports();
        auto node = at(CRNode::kRecording, line, c.post);
        write_file(rec(line), c.empty ? "" : "audio");
        lines_.sendAudioResponse(kToken, c.status, c.stop, line);
        if (c.code == nullptr) {
            EXPECT_EQ(lines_.nextCommand(line)->audio().path, post_);
            EXPECT_THAT(lines_.completions(), IsEmpty());
        } else {
            expectOneReport(c.code, c.stop, line);
            EXPECT_THAT(lines_.commands(line), IsEmpty());
            EXPECT_EQ(file_exists(rec(line)), !c.empty || c.status == lm::kAudioComplete);
        }
        ++line;
    }
}

TEST_F(CRNodeTest, EveryPostPlayReplyCompletesTheRecordingOnHook) {
    for (int32_t status = 1; status <= 5; ++status) {
        SCOPED_TRACE(status);
        lines_.clearReports();
        auto node = at(CRNode::kPostPlay, status - 1);
        lines_.sendAudioResponse(kToken, status, status == 4 ? 'p' : '\0', status - 1);
        expectOneReport(kAudio, status == 4 ? 'p' : '\0', status - 1);
        EXPECT_TRUE(node->isTornDown());
    }
    EXPECT_EQ(lines_.countInLog(": Couldn't start postplay. Line likely onhook.\n"), 1);

    // An unknown status is ignored; an empty recording goes and is no audio.
    lines_.clearReports();
    auto node = at(CRNode::kPostPlay, 5);
    write_file(rec(5), "");
    lines_.sendAudioResponse(kToken, 6, 0, 5);
    EXPECT_THAT(lines_.completions(), IsEmpty());
    lines_.sendAudioResponse(kToken, lm::kAudioOnHook, 0, 5);
    expectOneReport(kNoAudio, '\0', 5);
    EXPECT_FALSE(file_exists(rec(5)));
}

TEST_F(CRNodeTest, StopInEachStateLeadsToExactlyOneReport) {
    const struct {
        CRNode::State state;
        bool post;
        const char* log;
        std::vector<char> sent;  // commands after the stop, up to the report
        const char* code;
    } cases[] = {
        // The announcement finishes, nothing is recorded, the post-play still plays.
        {CRNode::kPrePlay, false, ": Cancelling after plays\n", {}, kNoAudio},
        {CRNode::kPrePlay, true, ": Cancelling after plays\n", {'P'}, kNoAudio},
        {CRNode::kCancelled, true, ": Ignoring duplicate stop request\n", {'P'}, kNoAudio},
        {CRNode::kRecording, true, ": User stopped recording.\n", {'X', 'P'}, kAudio},
        {CRNode::kPostPlay, true, ": ignoring stop request during postplay.\n", {}, kAudio},
    };
    int line = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(CRNode::stateName(c.state));
        lines_.clearReports();
        auto node = at(c.state, line, c.post);
        EXPECT_TRUE(CRNode::stopForResource(FakeLines::serial(line)));
        EXPECT_EQ(lines_.countInLog(logOf(node, c.log)), 1);
        write_file(rec(line), "audio");
        // The line monitor ends the cancelled record, then each play runs out.
        for (int i = 0; i < 3 && !node->isTornDown(); ++i) {
            const bool cancelled = c.state == CRNode::kRecording && i == 0;
            lines_.sendAudioResponse(kToken, cancelled ? lm::kAudioStopped : lm::kAudioComplete,
                                     cancelled ? 'X' : '\0', line);
        }
        expectOneReport(c.code, '\0', line);
        EXPECT_EQ(types_of(lines_.commands(line)), c.sent);
        EXPECT_FALSE(CRNode::stopForResource(FakeLines::serial(line))) << "off the line";
        node->stop();
        EXPECT_EQ(lines_.countInLog(logOf(node, ": No need to stop because finished\n")), 1);
        ++line;
    }
    auto idle = lines_.track(CRNode::createWithSerial(FakeLines::serial(line), kToken, rec(line),
                                                      std::nullopt, std::nullopt, 0));
    idle->stop();
    EXPECT_EQ(lines_.countInLog(logOf(idle, ": ignoring stop request during unknown state 0.\n")),
              1);
    Node::create<Node>()->attachToDeviceTable(FakeLines::serial(line), kNodeTypeScript);
    EXPECT_FALSE(CRNode::stopForResource(FakeLines::serial(line))) << "not a recording";
}

TEST_F(CRNodeTest, DeviceLossReportsWhatWasRecordedOnce) {
    const struct {
        CRNode::State state;
        const char* recorded;
        const char* code;
    } cases[] = {
        {CRNode::kPrePlay, "old", kNoAudio},   {CRNode::kCancelled, "old", kNoAudio},
        {CRNode::kRecording, "audio", kAudio}, {CRNode::kRecording, "", kNoAudio},
        {CRNode::kPostPlay, "audio", kAudio},
    };
    int line = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(CRNode::stateName(c.state));
        lines_.clearReports();
        auto node = at(c.state, line);
        write_file(rec(line), c.recorded);
        lines_.loseDevice(line);
        expectOneReport(c.code, '\0', line);
        EXPECT_TRUE(node->isTornDown());
        EXPECT_EQ(file_exists(rec(line)), c.code == kAudio || c.state != CRNode::kRecording);
        // A reply already on its way finds the node finished.
        const std::string late = lm::build_audio_response({'^', kToken, 3, 0, 0});
        EXPECT_EQ(node->handleEventWithBuffer(late.data(), static_cast<int>(late.size()), line, ""),
                  kNodePassOn);
        EXPECT_EQ(lines_.completions().size(), 1u);
        EXPECT_THAT(lines_.commands(line), IsEmpty());
        ++line;
    }
}

TEST_F(CRNodeTest, AppendingPutsTheBeepBetweenTheRecordings) {
    install_tone450();
    const std::string beep = read_file(tone450_path());
    ASSERT_EQ(beep.size(), 4000u);
    write_file(rec(0), "earlier");
    auto node = start(0, true, false, CRNode::kFlagAppend | CRNode::kFlagACR);
    EXPECT_EQ(lines_.nextCommand()->audio().stopString, "ldbp");
    EXPECT_EQ(read_file(rec(0)), "earlier") << "not before the pre-play has played";
    lines_.sendAudioResponse(kToken, lm::kAudioComplete);
    EXPECT_EQ(read_file(rec(0)), "earlier" + beep);
    const lm::lm_audio_request record = lines_.nextCommand()->audio();
    EXPECT_EQ(record.flags, 0x1CC) << "the line monitor appends";
    EXPECT_EQ(record.stopString, "ldbp");
    EXPECT_EQ(lines_.countInLog(logOf(node, " appendBeep: Appended beep\n")), 1);

    // Without a beep, or without a recording to append to, it records all the same.
    ::unlink(tone450_path().c_str());
    write_file(rec(1), "earlier");
    start(1, false, false, CRNode::kFlagAppend);
    EXPECT_EQ(read_file(rec(1)), "earlier");
    install_tone450();
    start(2, false, false, CRNode::kFlagAppend);
    EXPECT_FALSE(file_exists(rec(2)));
    for (int line : {1, 2})
        EXPECT_THAT(types_of(lines_.commands(line)), ElementsAre('R', '>'));
    EXPECT_EQ(lines_.countInLog("appendBeep: Couldn't open tone file for reading. 2-"), 1);
    EXPECT_EQ(lines_.countInLog("appendBeep: Couldn't open append file for writing. 2-"), 1);
}

TEST_F(CRNodeTest, FailuresReportOnceAndNeverHangUp) {
    const char* const invalid = kal_ResponseCode_ERR_InvalidFile;
    const char* const busy = kal_ResponseCode_ERR_ResourceBusy;
    const struct {
        CRNode::State at;
        int32_t status;  // the line monitor's reply there; 0 for none
        bool gone;       // the announcements are missing when needed
        const char* code;
    } cases[] = {
        {CRNode::kIdle, 0, true, invalid},
        {CRNode::kPrePlay, lm::kAudioInvalidFile, false, invalid},
        {CRNode::kPrePlay, lm::kAudioBusy, false, busy},
        {CRNode::kRecording, lm::kAudioInvalidFile, false, invalid},
        {CRNode::kRecording, lm::kAudioBusy, false, busy},
        {CRNode::kRecording, lm::kAudioComplete, true, invalid},
    };
    const std::string pre = pre_, post = post_, missing = lines_.root().path() + "/missing";
    int line = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << CRNode::stateName(c.at) << " " << c.status);
        lines_.clearReports();
        pre_ = c.gone ? missing : pre;
        post_ = c.gone ? missing : post;
        at(c.at, line);
        if (c.status != 0)
            lines_.sendAudioResponse(kToken, c.status, 0, line);
        expectOneReport(c.code, '\0', line, -1);
        EXPECT_EQ(lines_.nodeOn(line), nullptr);
        EXPECT_THAT(lines_.commands(line), IsEmpty()) << "no hang-up";
        ++line;
    }
    // Without a line, recording cannot start and nobody is told.
    lines_.clearReports();
    EXPECT_TRUE(start(-1, false)->isTornDown());
    EXPECT_THAT(lines_.completions(), IsEmpty());
}

TEST_F(CRNodeTest, ADeviceLossAfterOrDuringTheLastReplyAddsNoReport) {
    // Already on its way when the reply ended the node.
    auto ended = at(CRNode::kRecording, 1, false);
    lines_.sendAudioResponse(kToken, lm::kAudioStopped, 'p', 1);
    {
        DeviceTableLock lock(kTableChange);
        node_devicelost(*ended);
    }
    EXPECT_EQ(lines_.completions().size(), 1u);

    // Racing it, on the supervisor's thread.
    for (int round = 0; round < 20; ++round) {
        lines_.clearReports();
        auto node = at(CRNode::kRecording, 0, false);
        std::thread loss([&] { lines_.loseDevice(0); });
        lines_.sendAudioResponse(kToken, lm::kAudioStopped, 'p');
        loss.join();
        ASSERT_EQ(lines_.completions().size(), 1u) << "round " << round;
    }
}

}  // namespace
