// The remote voicemail check on fake lines and the driven clock: the menus
// and their shared loop limit, the client asked for each message with the
// caller's disposition, repeats, starting over, the play flags, which files
// the node deletes and when, and taking the line from another node.

#include "nodes/vmcheck_node.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "log/kallog.h"
#include "nodes/vm_node.h"
#include "service/vocabulary.h"
#include "vm_node_fixture.h"

using namespace kal;
using namespace kal::test;

namespace {

const std::string kCheckToken = "check-token";
constexpr int kLong = 0xB00;  // 0x300 and the long-tone flag

// A request for a message: its disposition and its stream.
using Request = std::pair<std::string, std::string>;
Request request(const char* disposition, const char* stream) {
    return {disposition, stream};
}

class VMCheckNodeTest : public ::testing::Test {
  protected:
    std::shared_ptr<VMCheckNode> start(int special = 0) {
        return lines_.track(VMCheckNode::beginForResource(FakeLines::serial(0), kCheckToken,
                                                          greeting_, menu_, special));
    }
    // The next command must play `file` as the node plays it.
    void expectPlay(const std::string& file, const char* stops, int pause, int flags = kLong) {
        auto cmd = lines_.nextCommand();
        ASSERT_TRUE(cmd && cmd->type() == 'P') << "expected a play of " << file;
        EXPECT_EQ(cmd->audio().path, file);
        EXPECT_EQ(cmd->audio().stopString, stops);
        EXPECT_EQ(cmd->audio().postPlayPause, pause);
        EXPECT_EQ(cmd->audio().flags, flags);
        EXPECT_EQ(cmd->audio().token, kCheckToken);
    }
    void expectGreeting(const std::string& file) {
        expectPlay(file, VMCheckNode::kMainMenuStops, 5);
    }
    void expectMenu() { expectPlay(menu_, VMCheckNode::kMessageStops, 5); }
    void expectMessage(const std::string& file) { expectPlay(file, VMCheckNode::kMessageStops, 0); }
    void reply(int32_t status, char stop = '\0') {
        lines_.sendAudioResponse(kCheckToken, status, stop);
    }
    // The caller picks stream `key` at the main menu.
    std::shared_ptr<VMCheckNode> awaitingFirst(char key = '1') {
        auto node = start();
        expectGreeting(greeting_);
        reply(lm::kAudioStopped, key);
        EXPECT_EQ(lines_.nextCommand()->bytes, ">" + le32(60)) << "kept alive for the client";
        return node;
    }
    std::shared_ptr<VMCheckNode> playing(char key = '1') {
        // Fresh files: an earlier node may have deleted them.
        lines_.audioFile("msg1.raw", 24000);
        lines_.audioFile("msg2.raw", 8000);
        auto node = awaitingFirst(key);
        EXPECT_TRUE(node->nextMessage(msg1_));
        expectMessage(msg1_);
        return node;
    }
    std::shared_ptr<VMCheckNode> atMenu(char key = '1') {
        auto node = playing(key);
        reply(lm::kAudioComplete);
        expectMenu();
        return node;
    }
    // The last request for a message.
    Request lastRequest() {
        Request out;
        for (const auto& r : lines_.reports()) {
            if (r.name != kal_PleaseProvideNextMessageForVMCheck)
                continue;
            EXPECT_EQ(r.token, kCheckToken);
            EXPECT_EQ(r.serial, FakeLines::serial(0));
            out = {r.raw.userInfo.at(kal_VMCheckPresentMessageDisposition).str(),
                   r.raw.userInfo.at(kal_VMCheck_Filter).str()};
        }
        return out;
    }
    void expectHungUpAndGone(const std::shared_ptr<VMCheckNode>& node) {
        EXPECT_EQ(types_of(lines_.commands()), "H");
        EXPECT_TRUE(node->isTornDown());
        EXPECT_EQ(lines_.nodeOn(0), nullptr);
    }

    FakeLines lines_{1};
    std::string greeting_ = lines_.audioFile("greeting.raw", 16000);
    std::string menu_ = lines_.audioFile("menu.raw", 8000);
    std::string msg1_ = lines_.audioFile("msg1.raw", 24000);
    std::string msg2_ = lines_.audioFile("msg2.raw", 8000);
};

TEST_F(VMCheckNodeTest, ACallerWhoNeverPressesAKeyHearsTheGreetingSevenTimesThenIsHungUp) {
    kalsetcurrentloglevel(KAL_DEVEL);
    auto node = start();
    EXPECT_EQ(lines_.record(0).nodeType, kNodeTypeVoicemailCheck);
    std::string first(1629, '\0');
    first[0] = 'P';
    first.replace(1, greeting_.size(), greeting_);
    first.replace(1 + 1024, 15, "PplbdceJafhH123");
    first.replace(1 + 1104, kCheckToken.size(), kCheckToken);
    first.replace(1 + 1616, 4, le32(0xB00));
    first.replace(1 + 1620, 4, le32(2));
    first.replace(1 + 1624, 4, le32(5));
    EXPECT_EQ(lines_.nextCommand()->bytes, first);
    EXPECT_EQ(lines_.countInLog("VMCheckNode " + ptr(node.get()) + ": state IDLE -> MAINMENU"), 1);

    reply(lm::kAudioComplete);
    for (int play = 2; play <= 7; ++play) {
        expectGreeting(greeting_);
        EXPECT_FALSE(node->isTornDown()) << "play " << play;
        reply(lm::kAudioComplete);
    }
    expectHungUpAndGone(node);
    EXPECT_EQ(lines_.countInLog("Not looping again due to too many tries."), 1);
    kalsetcurrentloglevel(KAL_DEBUG);
}

TEST_F(VMCheckNodeTest, EachStreamChoiceAsksForItsFirstMessageSkipping) {
    const std::pair<char, const char*> cases[] = {
        {'1', kal_VMCheck_Filter_Unheard},
        {'2', kal_VMCheck_Filter_Recent},
        {'3', kal_VMCheck_Filter_CallLog},
    };
    for (const auto& [key, stream] : cases) {
        SCOPED_TRACE(key);
        auto node = awaitingFirst(key);
        EXPECT_EQ(node->state(), VMCheckNode::kAwaitMsg);
        EXPECT_EQ(lastRequest(), request(kal_VMCheck_Disposition_Skip, stream));
        EXPECT_EQ(lines_.nextCommand(), std::nullopt) << "nothing plays until the client answers";
        node->teardown();
    }
}

TEST_F(VMCheckNodeTest, EachMessageKeyAsksForTheNextWithItsDispositionOnTheChosenStream) {
    const std::pair<char, const char*> keys[] = {
        {'2', kal_VMCheck_Disposition_Save},
        {'3', kal_VMCheck_Disposition_Delete},
        {'#', kal_VMCheck_Disposition_Skip},
    };
    for (const bool inMenu : {false, true}) {
        for (const auto& [key, disposition] : keys) {
            SCOPED_TRACE(std::string(inMenu ? "menu " : "message ") + key);
            auto node = inMenu ? atMenu('3') : playing('3');
            const int state = node->state();
            reply(lm::kAudioStopped, key);
            EXPECT_EQ(lastRequest(), request(disposition, kal_VMCheck_Filter_CallLog));
            EXPECT_EQ(types_of(lines_.commands()), ">");
            EXPECT_EQ(node->state(), state) << "unchanged until the next message arrives";
            ASSERT_TRUE(node->nextMessage(msg2_));
            expectMessage(msg2_);
            node->teardown();
        }
    }
}

TEST_F(VMCheckNodeTest, OneRepeatsTheSameFileFromTheMessageOrTheMenu) {
    for (const bool inMenu : {false, true}) {
        SCOPED_TRACE(inMenu ? "menu" : "message");
        lines_.clearReports();
        auto node = inMenu ? atMenu() : playing();
        reply(lm::kAudioStopped, '1');
        expectMessage(msg1_);
        EXPECT_EQ(node->state(), VMCheckNode::kPlayMsg);
        EXPECT_TRUE(file_exists(msg1_));
        EXPECT_EQ(lastRequest().first, kal_VMCheck_Disposition_Skip) << "only the first request";
        node->teardown();
    }
}

TEST_F(VMCheckNodeTest, AMessageHeardOutOrCutShortWithStarClearsTheLoopCount) {
    const std::pair<int32_t, char> endings[] = {{lm::kAudioComplete, '\0'},
                                                {lm::kAudioStopped, '*'}};
    for (const auto& [status, stop] : endings) {
        SCOPED_TRACE(stop ? "star" : "to its end");
        auto node = start();
        for (int play = 1; play <= 4; ++play) {
            expectGreeting(greeting_);
            reply(lm::kAudioComplete);
        }
        expectGreeting(greeting_);
        reply(lm::kAudioStopped, '1');
        lines_.commands();
        ASSERT_TRUE(node->nextMessage(msg1_));
        expectMessage(msg1_);
        reply(status, stop);
        // Seven menus in a row, not the three left after the greeting's four.
        for (int play = 1; play <= 7; ++play) {
            expectMenu();
            reply(lm::kAudioComplete);
        }
        expectHungUpAndGone(node);
    }
}

TEST_F(VMCheckNodeTest, StarEndsAMessageAtTheLineMonitorAndTheMenuFollows) {
    lines_.audioFile("msg1.raw", 24000);
    auto node = awaitingFirst();
    ASSERT_TRUE(node->nextMessage(msg1_));
    // The line monitor itself must stop the message on `*`: it is in the
    // stop string the message is played with.
    auto play = lines_.nextCommand();
    ASSERT_TRUE(play && play->type() == 'P');
    EXPECT_EQ(play->bytes.substr(1 + 1024, 18), std::string("PplbdceJafhH123#*\0", 18));
    EXPECT_EQ(play->audio().path, msg1_);

    reply(lm::kAudioStopped, '*');
    expectMenu();
    EXPECT_EQ(node->state(), VMCheckNode::kMsgMenu);
    EXPECT_NE(lines_.reports().back().name, kal_PleaseRestartVMCheck) << "a message, not the menu";
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
}

TEST_F(VMCheckNodeTest, StarAtTheMenuStartsOverWithTheClientsGreetingAndTheCountCarriesOver) {
    auto node = atMenu();
    for (int loop = 1; loop <= 3; ++loop) {
        reply(lm::kAudioComplete);
        expectMenu();
    }
    reply(lm::kAudioStopped, '*');
    EXPECT_EQ(node->state(), VMCheckNode::kRestarting);
    EXPECT_EQ(lines_.reports().back().name, kal_PleaseRestartVMCheck);
    EXPECT_EQ(lines_.reports().back().token, kCheckToken);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);

    const std::string fresh = lines_.audioFile("greeting2.raw", 8000);
    ASSERT_TRUE(VMCheckNode::restartForResource(FakeLines::serial(0), fresh));
    EXPECT_FALSE(file_exists(greeting_)) << "the replaced greeting is deleted";
    // Three loops of the menu used: the new greeting plays four times.
    for (int play = 1; play <= 4; ++play) {
        expectGreeting(fresh);
        reply(lm::kAudioComplete);
    }
    expectHungUpAndGone(node);
}

TEST_F(VMCheckNodeTest, EachMessageDeletesTheLastAndReleaseDeletesAllButTheMenu) {
    auto node = playing();
    ASSERT_TRUE(VMCheckNode::nextMessageForResource(FakeLines::serial(0), msg2_));
    expectMessage(msg2_);
    EXPECT_FALSE(file_exists(msg1_));
    // A client that reuses its path has written the new message there.
    ASSERT_TRUE(node->nextMessage(msg2_));
    expectMessage(msg2_);
    EXPECT_TRUE(file_exists(msg2_));

    lines_.sendEvent("l");
    expectHungUpAndGone(node);
    for (const auto& r : lines_.reports())
        EXPECT_NE(r.name, kal_LineReversal) << "consumed";
    node.reset();
    lines_.advance(29);
    EXPECT_TRUE(file_exists(msg2_) && file_exists(greeting_)) << "until the release";
    lines_.advance(1);
    // The release runs on the timer thread; the greeting is the last to go.
    EXPECT_TRUE(wait_for([&] { return !file_exists(greeting_); }));
    EXPECT_FALSE(file_exists(msg2_));
    EXPECT_TRUE(file_exists(menu_));
    EXPECT_EQ(lines_.countInLog("Failed to unlink"), 0);
}

TEST_F(VMCheckNodeTest, TheLongToneFlagIsSetUnlessSpecialAsksForShortTones) {
    const std::pair<int, int> cases[] = {{0, 0xB00}, {1, 0x300}, {0x800, 0x300}, {-1, 0x300}};
    for (const auto& [special, flags] : cases) {
        SCOPED_TRACE(special);
        auto node = start(special);
        expectPlay(greeting_, VMCheckNode::kMainMenuStops, 5, flags);
        reply(lm::kAudioStopped, '2');
        lines_.commands();
        node->nextMessage(msg1_);
        expectPlay(msg1_, VMCheckNode::kMessageStops, 0, flags);
        reply(lm::kAudioComplete);
        expectPlay(menu_, VMCheckNode::kMessageStops, 5, flags);
        node->teardown();
    }
}

TEST_F(VMCheckNodeTest, TakesTheLineFromAVoicemailSessionAlreadyOnIt) {
    const std::string ogm = lines_.audioFile("ogm.raw", 8000);
    auto vm = lines_.track(VMNode::beginForResource(FakeLines::serial(0), "vm", ogm, std::nullopt,
                                                    {"1"}, 60, 0, 0, std::nullopt));
    EXPECT_EQ(lines_.nextCommand()->audio().path, ogm);
    auto node = start();
    EXPECT_TRUE(vm->isTornDown());
    EXPECT_EQ(lines_.nodeOn(0), node);
    EXPECT_EQ(lines_.record(0).nodeType, kNodeTypeVoicemailCheck);
    expectGreeting(greeting_);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt) << "no hang-up of the taken call";
    EXPECT_TRUE(lines_.completions().empty()) << "the voicemail session ends without a word";
}

TEST_F(VMCheckNodeTest, LineEventsAndFailuresEndTheCallAndLaterClientAnswersAreRefused) {
    const std::string missing = lines_.root().path() + "/missing.raw";
    const std::pair<const char*, std::function<void(VMCheckNode&)>> cases[] = {
        {"a stop character that is no menu key", [&](auto&) { reply(lm::kAudioStopped, 'p'); }},
        {"busy line monitor", [&](auto&) { reply(lm::kAudioBusy); }},
        {"invalid file", [&](auto&) { reply(lm::kAudioInvalidFile); }},
        {"an extension off hook",
         [&](auto&) {
             lines_.sendEvent("P");
             EXPECT_EQ(lines_.reports().back().name, kal_HookStatus) << "clients hear it first";
         }},
        {"a message that cannot be played", [&](auto& n) { n.nextMessage(missing); }},
    };
    for (const auto& [desc, end] : cases) {
        SCOPED_TRACE(desc);
        lines_.clearReports();
        auto node = atMenu();
        end(*node);
        expectHungUpAndGone(node);
        EXPECT_FALSE(VMCheckNode::nextMessageForResource(FakeLines::serial(0), msg2_));
        EXPECT_FALSE(node->nextMessage(msg2_));
        EXPECT_FALSE(node->restart(msg2_));
        EXPECT_TRUE(file_exists(msg2_)) << "left for the request layer to dispose of";
        EXPECT_EQ(lines_.nextCommand(), std::nullopt);
    }
}

TEST_F(VMCheckNodeTest, RepliesThatAreNoAnswerLeaveTheCallAsItIs) {
    auto node = awaitingFirst();
    reply(lm::kAudioComplete);  // nothing of the node's is playing
    lines_.sendDigit('5');
    EXPECT_EQ(lines_.reports().back().name, kal_DigitDialed) << "clients hear bare digits";
    ASSERT_TRUE(node->nextMessage(msg1_));
    expectMessage(msg1_);
    reply(9);
    EXPECT_EQ(node->state(), VMCheckNode::kPlayMsg);
    EXPECT_EQ(lines_.nextCommand(), std::nullopt);
}

TEST_F(VMCheckNodeTest, AClientAnsweringAndATakeoverRacingTheCallersKeysEndCleanly) {
    auto node = playing();
    const std::string other = lines_.audioFile("greeting-b.raw", 8000);
    std::shared_ptr<VMCheckNode> taker;
    std::thread client([&] {
        for (int i = 0; i < 50; ++i)
            VMCheckNode::nextMessageForResource(FakeLines::serial(0), msg1_);
        taker = VMCheckNode::beginForResource(FakeLines::serial(0), "b", other, menu_, 0);
    });
    // Keys that no menu of either node takes as the end of the call.
    for (int i = 0; i < 60; ++i) {
        reply(lm::kAudioStopped, "123"[i % 3]);
        lines_.commands();  // a line monitor that reads, so writes never block
    }
    client.join();
    lines_.drain();
    EXPECT_TRUE(node->isTornDown());
    EXPECT_EQ(lines_.nodeOn(0), taker);
    EXPECT_FALSE(taker->isTornDown());
    EXPECT_EQ(taker->token(), "b");
}

}  // namespace
