// Clients starting, feeding and stopping call-handling nodes on a line of
// the whole daemon: one fake adapter whose line monitor is the simulator,
// requests over the private bus, outcomes as the simulator and the client
// see them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "bus_client.h"
#include "daemon_fixture.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

constexpr const char kSerial[] = "KL4401";
constexpr const char kOK[] = "KALResponseCodeOK";
constexpr const char kMalformed[] = "KALResponseCodeERRMalformedRequest";
constexpr const char kNoResource[] = "KALResponseCodeERRNoResource";

class DaemonNodeRequestsTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        ports_.add_adapter(1, kSerial);
        start_daemon("Vending Listener", {"KAL_LINESIM_SPEED=100"});
        line_ = std::make_unique<LineSimControl>(kSerial);
        ASSERT_TRUE(line_->connected()) << log();
        client_ = std::make_unique<BusClient>();
        // The daemon owns its name once it serves.
        ASSERT_TRUE(wait_for([&] { return client_->registerApp().ok(); })) << log();
        for (const char* name : {"RequestComplete", "KALPleaseRunActionScriptForCaller",
                                 "kal_PleaseProvideNextMessageForVMCheck"})
            ASSERT_TRUE(client_->subscribe(name).ok());
    }
    void TearDown() override { stop_daemon(); }

    std::string file(const std::string& name, size_t bytes = 8000) {
        const std::string path = root_.path() + "/" + name;
        write_file(path, std::string(bytes, '\x80'));
        return path;
    }
    // What came with the first `name` the client received for `token`.
    ValueDict received(const std::string& name, const std::string& token) {
        ValueDict info;
        pump_until({client_.get()}, [&] {
            for (const auto& n : client_->received())
                if (n.name == name && n.userInfo.count("KALToken") &&
                    n.userInfo.at("KALToken").str() == token)
                    info = n.userInfo;
            return !info.empty();
        });
        return info;
    }
    std::string completion(const std::string& token) {
        ValueDict info = received("RequestComplete", token);
        return info["KALResponseCode"].str();
    }

    std::unique_ptr<LineSimControl> line_;
    std::unique_ptr<BusClient> client_;
};

TEST_F(DaemonNodeRequestsTest, VoicemailAnswersARingingLineAndRecordsAfterTheDigit) {
    const std::string ogm = file("ogm.raw"), icm = root_.path() + "/icm.raw";
    EXPECT_EQ(line_->send("ring"), "ok sent R");
    EXPECT_EQ(client_
                  ->call("BeginVMNodeForResource", "ssssasiiis", kSerial, "vm-1", ogm.c_str(),
                         icm.c_str(), 0, 30, 60, 0, "")
                  .str(),
              kOK);
    EXPECT_THAT(line_->send("wait-command P"), StartsWith("ok P path=" + ogm + " "));
    // '#' picks the recording at once, during the greeting or the pause after it.
    EXPECT_THAT(line_->send("digits #"), StartsWith("ok sent #"));
    EXPECT_THAT(line_->send("wait-command R"), StartsWith("ok R path=" + icm + " "));
    EXPECT_EQ(completion("vm-1"), "kal_ResponseCode_OK_AudioReceived");
    EXPECT_FALSE(read_file(icm).empty());
    EXPECT_THAT(log(), HasSubstr("DEBUG: beginVMNodeForResource:" + std::string(kSerial) +
                                 " token:vm-1 ogm:" + ogm + " icm:" + icm +
                                 " choices:() maxlength:30 postOGMpause:60 special:0 "
                                 "firstCalling:nil called\n"));
}

TEST_F(DaemonNodeRequestsTest, RecordingRunsUntilTheClientStopsIt) {
    const std::string rec = root_.path() + "/call.raw";
    EXPECT_EQ(line_->send("offhook"), "ok sent P");
    EXPECT_EQ(
        client_->call("BeginCRNodeForResource", "sssssu", kSerial, "cr-1", rec.c_str(), "", "", 2u)
            .str(),
        kOK);
    EXPECT_THAT(line_->send("wait-command R"), StartsWith("ok R path=" + rec + " stop=ldbp "));
    EXPECT_EQ(client_->call("StopCRNodeForResource", "s", kSerial).str(), kOK);
    EXPECT_THAT(line_->send("wait-command X"), StartsWith("ok X"));
    EXPECT_THAT(completion("cr-1"), StartsWith("kal_ResponseCode_OK_"));
    // Once the node has left the line there is nothing to stop.
    ASSERT_TRUE(wait_for([&] { return logged("Tearing down Node"); }));
    EXPECT_EQ(client_->call("StopCRNodeForResource", "s", kSerial).str(), kNoResource);
    EXPECT_THAT(log(), HasSubstr("DEBUG: beginCRNodeForResource:" + std::string(kSerial) +
                                 " token:cr-1 recFile:" + rec +
                                 " prePlay:nil postPlay:nil flags: 2 called\n"));
    EXPECT_THAT(log(), HasSubstr("DEBUG: No such node, or node no longer CR node\n"));
}

TEST_F(DaemonNodeRequestsTest, RequestsMissingWhatTheyNeedAreMalformedAndStartNothing) {
    const std::string ogm = file("ogm.raw");
    const char* s = kSerial;
    const char* o = ogm.c_str();
    const BusReply replies[] = {
        client_->call("BeginVMNodeForResource", "ssssasiiis", "", "t", o, o, 0, 0, 0, 0, ""),
        client_->call("BeginVMNodeForResource", "ssssasiiis", s, "", o, o, 0, 0, 0, 0, ""),
        client_->call("BeginVMNodeForResource", "ssssasiiis", s, "t", "", "", 0, 0, 0, 0, ""),
        client_->call("BeginCRNodeForResource", "sssssu", "", "t", o, o, o, 0u),
        client_->call("BeginCRNodeForResource", "sssssu", s, "", o, o, o, 0u),
        client_->call("BeginCRNodeForResource", "sssssu", s, "t", "", o, o, 0u),
        client_->call("StopCRNodeForResource", "s", ""),
        client_->call("BeginVMCheckNodeForResource", "ssssi", s, "t", o, "", 0),
        client_->call("RestartVMCheckNodeForResource", "sss", s, "t", ""),
        client_->call("NextVMCheckMessage", "sss", s, "", o),
        client_->call("ScriptCompletedForResource", "ssis", s, "", 0, o),
        client_->call("StartScriptNodeForResource", "ssasass", s, "t", 0, 0, ""),
    };
    for (size_t i = 0; i < std::size(replies); ++i)
        EXPECT_EQ(replies[i].str(), kMalformed) << "request " << i << " " << replies[i].errorName;
    EXPECT_EQ(line_->send("commands"), "ok 0 commands");
    EXPECT_TRUE(file_exists(ogm));
}

TEST_F(DaemonNodeRequestsTest, ANodeOnAnUnknownLineStartsAndReportsItsFailure) {
    const std::string ogm = file("ogm.raw");
    EXPECT_EQ(client_
                  ->call("BeginVMNodeForResource", "ssssasiiis", "NOSUCH", "vm-2", ogm.c_str(), "",
                         0, 30, 0, 0, "")
                  .str(),
              kOK);
    EXPECT_EQ(completion("vm-2"), "kal_ResponseCode_ERR_InvalidFile");
}

TEST_F(DaemonNodeRequestsTest, ScriptSessionIsFedItsAudioAndOtherNodesAudioIsDeleted) {
    const std::string answer = file("answer.raw"), message = file("message.raw"),
                      greeting = file("greeting.raw");
    // Ringing, not off hook: an extension picked up ends a script session.
    EXPECT_EQ(line_->send("ring"), "ok sent R");
    EXPECT_EQ(
        client_->call("StartScriptNodeForResource", "ssasass", kSerial, "scr", 0, 1, "1", "").str(),
        kOK);
    EXPECT_THAT(line_->send("wait-command !"), StartsWith("ok !"));
    EXPECT_THAT(log(), HasSubstr("DEBUG: startScriptNodeForResource:" + std::string(kSerial) +
                                 " token:scr with 1 choices:() achoices:(1) called\n"));

    // A script node is not a remote check: the audio meant for one goes.
    EXPECT_EQ(client_->call("NextVMCheckMessage", "sss", kSerial, "scr", message.c_str()).str(),
              kNoResource);
    EXPECT_EQ(
        client_->call("RestartVMCheckNodeForResource", "sss", kSerial, "scr", greeting.c_str())
            .str(),
        kNoResource);
    EXPECT_FALSE(file_exists(message));
    EXPECT_FALSE(file_exists(greeting));
    EXPECT_TRUE(logged("DEBUG: No such node, or node no longer vmcheck node\n"));
    EXPECT_TRUE(logged("DEBUG: DM removed non-needed temporary file '" + message + "'\n"));
    EXPECT_EQ(client_->call("NextVMCheckMessage", "sss", kSerial, "scr", message.c_str()).str(),
              kNoResource);
    EXPECT_TRUE(logged("WARN: DM could not dispose of non-needed temporary file '" + message +
                       "': 2-No such file or directory\n"));
    // Nor a recording, and stopping one touches no file.
    EXPECT_EQ(client_->call("StopCRNodeForResource", "s", kSerial).str(), kNoResource);

    EXPECT_THAT(line_->send("digits 1#"), StartsWith("ok sent #"));
    ValueDict run = received("KALPleaseRunActionScriptForCaller", "scr");
    ASSERT_TRUE(run["KALSequenceNumber"].is<int32_t>());
    EXPECT_EQ(client_
                  ->call("ScriptCompletedForResource", "ssis", kSerial, "scr",
                         run["KALSequenceNumber"].as<int32_t>(), answer.c_str())
                  .str(),
              kOK);
    EXPECT_THAT(line_->send("wait-command P"), StartsWith("ok P path=" + answer + " "));
}

TEST_F(DaemonNodeRequestsTest, RemoteCheckIsFedItsMessagesAndScriptAudioIsDeleted) {
    // Three seconds of greeting at the simulator's speed: the caller's choice
    // comes while it plays.
    const std::string greeting = file("greeting.raw", 3 * 100 * 8000), menu = file("menu.raw"),
                      message = file("message.raw"), answer = file("answer.raw");
    EXPECT_EQ(line_->send("ring"), "ok sent R");
    EXPECT_EQ(client_
                  ->call("BeginVMCheckNodeForResource", "ssssi", kSerial, "chk", greeting.c_str(),
                         menu.c_str(), 0)
                  .str(),
              kOK);
    EXPECT_THAT(line_->send("wait-command P"), StartsWith("ok P path=" + greeting + " "));

    EXPECT_EQ(client_->call("ScriptCompletedForResource", "ssis", kSerial, "chk", 0, answer.c_str())
                  .str(),
              kNoResource);
    EXPECT_FALSE(file_exists(answer));
    EXPECT_TRUE(logged("DEBUG: No such node, or node no longer script node\n"));
    // Without audio, and on a line that does not exist, there is nothing to delete.
    const std::string before = log();
    EXPECT_EQ(client_->call("ScriptCompletedForResource", "ssis", "NOSUCH", "chk", 0, "").str(),
              kNoResource);
    EXPECT_THAT(log().substr(before.size()), Not(HasSubstr("non-needed temporary file")));

    EXPECT_THAT(line_->send("digits 1"), StartsWith("ok sent #"));
    received("kal_PleaseProvideNextMessageForVMCheck", "chk");
    EXPECT_EQ(client_->call("NextVMCheckMessage", "sss", kSerial, "chk", message.c_str()).str(),
              kOK);
    EXPECT_THAT(line_->send("wait-command P"), StartsWith("ok P path=" + message + " "));
    EXPECT_TRUE(file_exists(message));
    EXPECT_TRUE(file_exists(menu));
}

}  // namespace
