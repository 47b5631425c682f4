// The script menu on fake lines and the driven clock: beep and pick window,
// codes ended by `#`, the clients' scripts and their run numbers, the
// returned audio played and then deleted, aborts, the limit of five, the
// pre-picked code, and the events that end a session.

#include "nodes/script_node.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "fake_line.h"
#include "log/kallog.h"
#include "nodes/fax_wait_node.h"
#include "service/vocabulary.h"

using namespace kal;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const std::string kToken = "script-token";
const std::string kHangup("H\0", 2);

std::string cmd_int(char c, int32_t v) {
    std::string s(5, '\0');
    s[0] = c;
    memcpy(&s[1], &v, 4);
    return s;
}
const std::string kMenu = cmd_int('>', 25) + cmd_int('!', 1);
const std::string kAwaitScript = cmd_int('>', 130);

// A script request the node posted: its code and run number.
struct ScriptRun {
    std::string code;
    int sequence;
    bool operator==(const ScriptRun&) const = default;
    friend void PrintTo(const ScriptRun& r, std::ostream* os) {
        *os << "{\"" << r.code << "\", " << r.sequence << "}";
    }
};

class ScriptNodeTest : public ::testing::Test {
  protected:
    std::shared_ptr<ScriptNode> start(std::vector<std::string> plain,
                                      std::vector<std::string> withAudio,
                                      std::optional<std::string> prepick = std::nullopt,
                                      int line = 0) {
        return lines_.track(ScriptNode::startForResource(FakeLines::serial(line), kToken, plain,
                                                         withAudio, prepick));
    }
    // Every command written to `line` since the last look, as one string.
    std::string sent(int line = 0) {
        std::string all;
        for (const auto& c : lines_.commands(line))
            all += c.bytes;
        return all;
    }
    void pick(const std::string& code, int line = 0) {
        for (char d : code)
            lines_.sendDigit(d, line);
        lines_.sendDigit('#', line);
    }
    std::vector<ScriptRun> runs() const {
        std::vector<ScriptRun> out;
        for (const auto& r : lines_.reports()) {
            if (r.name != kal_PleaseRunActionScriptForCaller)
                continue;
            EXPECT_EQ(r.token, kToken);
            out.push_back({r.cause, r.raw.userInfo.at(kal_SequenceNumber).as<int32_t>()});
        }
        return out;
    }
    // A script that answers with audio, picked and awaited on line 0.
    std::shared_ptr<ScriptNode> awaiting() {
        auto node = start({}, {"42"});
        EXPECT_EQ(sent(), kMenu);
        pick("42");
        EXPECT_EQ(sent(), kAwaitScript);
        EXPECT_EQ(node->state(), ScriptNode::kAwaiting);
        return node;
    }
    // The type of the next command, or 0 without one.
    char nextType(int line = 0) {
        auto c = lines_.nextCommand(line);
        return c ? c->type() : '\0';
    }
    std::string returned(const std::string& name) { return lines_.audioFile(name, 8000); }
    static bool exists(const std::string& path) { return std::filesystem::exists(path); }

    FakeLines lines_{2};
};

TEST_F(ScriptNodeTest, RunsThePickedScriptThenPlaysItsAudioDeletesItAndOffersTheMenuAgain) {
    kalsetcurrentloglevel(KAL_DEVEL);
    auto node = start({"7"}, {"12"});  // "7" answers nothing, "12" with audio
    EXPECT_EQ(lines_.record(0).nodeType, kNodeTypeScript);
    EXPECT_EQ(sent(), kMenu);
    pick("12");
    EXPECT_THAT(runs(), ElementsAre(ScriptRun{"12", 0})) << "run numbers start at 0";
    EXPECT_EQ(lines_.reports().back().serial, FakeLines::serial(0));
    EXPECT_EQ(sent(), kAwaitScript);

    const std::string audio = returned("answer.raw");
    node->scriptCompleted(kToken, 0, audio);
    auto play = lines_.nextCommand();
    ASSERT_TRUE(play);
    EXPECT_EQ(play->type(), 'P');
    EXPECT_EQ(play->audio().path, audio);
    EXPECT_EQ(play->audio().stopString, "PplbdceJafhH*#");
    EXPECT_EQ(play->audio().token, kToken);
    EXPECT_EQ(play->audio().flags, 0);
    EXPECT_EQ(play->audio().length, 1);
    EXPECT_EQ(node->state(), ScriptNode::kPlaying);
    EXPECT_TRUE(exists(audio));

    lines_.sendAudioResponse("anything", lm::kAudioComplete);
    EXPECT_FALSE(exists(audio));
    EXPECT_EQ(sent(), kMenu);
    EXPECT_EQ(node->state(), ScriptNode::kPicking);
    EXPECT_EQ(lines_.countInLog(": state AWAITING -> PLAYING (returned audio play sent)"), 1);
    kalsetcurrentloglevel(KAL_DEBUG);
}

struct PlaybackEnd {
    const char* desc;
    int32_t status;  // 0: the caller presses `*` instead
    bool menuAgain;
};

TEST_F(ScriptNodeTest, TheReturnedAudioIsDeletedHoweverItsPlaybackEnds) {
    const PlaybackEnd cases[] = {
        {"played to its end", lm::kAudioComplete, true},
        {"invalid file", lm::kAudioInvalidFile, true},
        {"line monitor busy", lm::kAudioBusy, true},
        {"stopped: the stopping event decides", lm::kAudioStopped, false},
        {"caller pressed *", 0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        auto node = awaiting();
        const std::string audio = returned("answer.raw");
        node->scriptCompleted(kToken, runs().back().sequence, audio);
        ASSERT_EQ(nextType(), 'P');
        if (c.status != 0)
            lines_.sendAudioResponse(kToken, c.status, '#');
        else
            lines_.sendDigit('*');
        EXPECT_FALSE(exists(audio));
        EXPECT_EQ(sent(), c.menuAgain ? kMenu : "");
        EXPECT_EQ(node->state(), c.menuAgain ? ScriptNode::kPicking : ScriptNode::kPlaying);
        node->teardown();
    }
}

TEST_F(ScriptNodeTest, TheWholeCodeMustBeTypedWithinFifteenSecondsOfTheBeep) {
    auto node = start({"123"}, {});
    EXPECT_EQ(sent(), kMenu);
    lines_.advance(5);
    lines_.sendDigit('1');
    lines_.advance(9);
    lines_.sendDigit('2');  // digits do not renew the window
    EXPECT_EQ(sent(), "");
    lines_.advance(1);
    EXPECT_EQ(sent(), kHangup);
    EXPECT_TRUE(node->isTornDown());
    EXPECT_EQ(node->sessionEnd(), std::nullopt) << "nothing reported";
    EXPECT_THAT(runs(), IsEmpty());
}

TEST_F(ScriptNodeTest, AnInvalidCodeBringsTheMenuBackAfterOneOrTwoSecondsAndCountsTowardFive) {
    // `#` alone is the empty code: invalid here, a choice like any other in
    // the next session.
    auto node = start({"1"}, {});
    sent();
    for (const std::string code : {"", "1", "2", "11"}) {
        SCOPED_TRACE(code);
        pick(code);
        if (code != "1") {
            EXPECT_EQ(sent(), "") << "nothing at once";
            lines_.advance(2);
        }
        EXPECT_EQ(sent(), kMenu);
    }
    pick("1");  // the fifth script; no sixth menu
    EXPECT_EQ(sent(), kHangup);
    EXPECT_THAT(runs(), ElementsAre(ScriptRun{"1", 0}, ScriptRun{"1", 1}));
    ASSERT_TRUE(node->sessionEnd());
    EXPECT_EQ(node->sessionEnd()->cause, '\0');
    EXPECT_TRUE(node->sessionEnd()->onHook);

    start({""}, {});
    sent();
    pick("");
    EXPECT_EQ(runs().back(), (ScriptRun{"", 2}));
    EXPECT_EQ(sent(), kMenu);
}

TEST_F(ScriptNodeTest, ACodeTypedAsMoreThan1023DigitsKeepsTheFirst1023) {
    const std::string longest(ScriptNode::kMaxDigits, '5');
    start({longest}, {});
    sent();
    for (size_t i = 0; i < ScriptNode::kMaxDigits + 7; ++i)
        lines_.sendDigit('5');
    lines_.sendDigit('#');
    EXPECT_THAT(runs(), ElementsAre(ScriptRun{longest, 0}));
}

TEST_F(ScriptNodeTest, APrePickedCodeRunsExactlyOneScriptAndLeavesTheCallUp) {
    auto node = start({}, {"9"}, "9");
    EXPECT_EQ(sent(), kAwaitScript) << "no beep, no pick window";
    EXPECT_THAT(runs(), ElementsAre(ScriptRun{"9", 0}));
    node->scriptCompleted(kToken, 0, returned("answer.raw"));
    ASSERT_EQ(nextType(), 'P');
    lines_.sendAudioResponse(kToken, lm::kAudioComplete);

    EXPECT_EQ(sent(), "") << "no menu, no hang-up";
    EXPECT_TRUE(node->isTornDown());
    ASSERT_TRUE(node->sessionEnd());
    EXPECT_EQ(node->sessionEnd()->code, kal_ResponseCode_OK_NoAudio);
    EXPECT_EQ(node->sessionEnd()->cause, '#');
    EXPECT_FALSE(node->sessionEnd()->onHook);
    EXPECT_THAT(runs(), ElementsAre(ScriptRun{"9", 0}));
}

struct StaleCompletion {
    const char* desc;
    int advance;  // seconds waited before the completion
    char key;     // pressed before it, or 0
    std::string token;
    int sequenceDelta;  // added to the awaited run number
};

TEST_F(ScriptNodeTest, ACompletionThatIsNotAwaitedIsIgnoredAndItsFileDeleted) {
    const StaleCompletion cases[] = {
        {"after the 120-second run timeout", 120, '\0', kToken, 0},
        {"after the caller pressed #", 0, '#', kToken, 0},
        {"for another run", 0, '\0', kToken, 1},
        {"under another token", 0, '\0', "other", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        auto node = awaiting();
        lines_.advance(c.advance - (c.advance > 0 ? 1 : 0));
        EXPECT_EQ(sent(), "");
        lines_.advance(c.advance > 0 ? 1 : 0);
        if (c.key != '\0')
            lines_.sendDigit(c.key);
        const int state = node->state();
        const std::string audio = returned("late.raw");
        node->scriptCompleted(c.token, runs().back().sequence + c.sequenceDelta, audio);
        EXPECT_FALSE(exists(audio));
        EXPECT_EQ(node->state(), state);
        EXPECT_EQ(sent(), state == ScriptNode::kPicking ? kMenu : "") << "no play";
        node->teardown();
    }
}

TEST_F(ScriptNodeTest, ReversalOrAPickedUpExtensionEndsTheSessionAndHangsUp) {
    for (char event : {'l', 'P'}) {
        SCOPED_TRACE(event);
        auto node = awaiting();
        lines_.sendEvent(std::string(1, event));
        EXPECT_EQ(sent(), kHangup);
        EXPECT_EQ(lines_.nodeOn(0), nullptr);
        ASSERT_TRUE(node->sessionEnd());
        EXPECT_EQ(node->sessionEnd()->cause, event);
        EXPECT_TRUE(node->sessionEnd()->onHook);
    }
}

TEST_F(ScriptNodeTest, RunNumbersAreSharedByEveryScriptNodeOnEveryThread) {
    start({"1"}, {}, std::nullopt, 0);
    pick("1", 0);
    // As a client request would, from another thread: a pre-picked code
    // takes its number at once.
    std::thread([&] { start({}, {"2"}, "2", 1); }).join();
    pick("1", 0);
    EXPECT_THAT(runs(), ElementsAre(ScriptRun{"1", 0}, ScriptRun{"2", 1}, ScriptRun{"1", 2}));
    EXPECT_EQ(ScriptNode::nextRunNumber(), 3);
}

TEST_F(ScriptNodeTest, CompletionsReachOnlyAScriptNodeOnTheNamedLine) {
    auto node = awaiting();
    lines_.track(FaxWaitNode::createWithSerial(FakeLines::serial(1), "fax"));
    EXPECT_FALSE(ScriptNode::scriptCompletedForResource(FakeLines::serial(1), kToken, 0, {}))
        << "another kind of node";
    EXPECT_FALSE(ScriptNode::scriptCompletedForResource("NOSUCH", kToken, 0, {}));
    EXPECT_TRUE(ScriptNode::scriptCompletedForResource(FakeLines::serial(0), kToken, 0, {}));
    EXPECT_EQ(sent(), kMenu) << "no audio: the menu at once";

    lines_.loseDevice(0);
    EXPECT_TRUE(node->isTornDown());
    EXPECT_FALSE(ScriptNode::scriptCompletedForResource(FakeLines::serial(0), kToken, 1, {}));
    EXPECT_EQ(sent(), "") << "device loss sends nothing";
}

}  // namespace
