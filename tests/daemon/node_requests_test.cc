// Clients starting, feeding and stopping call-handling nodes on a line of
// the whole daemon: one fake adapter whose line monitor is the simulator,
// requests over the private bus, outcomes as the simulator and the client
// see them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "bus_client.h"
#include "fake_adapters.h"
#include "linesim_control.h"
#include "private_bus.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr const char kSerial[] = "KL4401";
constexpr const char kOK[] = "KALResponseCodeOK";
constexpr const char kMalformed[] = "KALResponseCodeERRMalformedRequest";
constexpr const char kNoResource[] = "KALResponseCodeERRNoResource";

class DaemonNodeRequestsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        install_linesim();
        ports_.add_adapter(1, kSerial);
        daemon_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{bin_path("kaldevicemaster")},
            std::vector<std::string>{"KAL_LINESIM_SPEED=100"}, root_.path() + "/stderr.txt");
        line_ = std::make_unique<LineSimControl>(kSerial);
        ASSERT_TRUE(line_->connected()) << log();
        client_ = std::make_unique<BusClient>();
        // The daemon owns its name once it serves.
        ASSERT_TRUE(wait_for([&] { return client_->registerApp().ok(); })) << log();
        ASSERT_TRUE(client_->subscribe("RequestComplete").ok());
    }
    void TearDown() override {
        daemon_->signal(SIGTERM);
        const int status = daemon_->wait_exit();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

    std::string log() const { return read_file(root_.daemon_log()); }
    std::string file(const std::string& name, size_t bytes = 8000) {
        const std::string path = root_.path() + "/" + name;
        write_file(path, std::string(bytes, '\x80'));
        return path;
    }
    // The code of the client's RequestComplete for `token`, once it came.
    std::string completion(const std::string& token) {
        std::string code;
        pump_until({client_.get()}, [&] {
            for (const auto& n : client_->received())
                if (n.name == "RequestComplete" && n.userInfo.at("KALToken").str() == token)
                    code = n.userInfo.at("KALResponseCode").str();
            return !code.empty();
        });
        return code;
    }

    TempRoot root_;
    PrivateBus bus_;
    FakeAdapters ports_;
    std::unique_ptr<ChildProcess> daemon_;
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
    ASSERT_TRUE(wait_for([&] { return log().find("Tearing down Node") != std::string::npos; }));
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
    };
    for (size_t i = 0; i < std::size(replies); ++i)
        EXPECT_EQ(replies[i].str(), kMalformed) << "request " << i << " " << replies[i].errorName;
    EXPECT_EQ(line_->send("commands"), "ok 0 commands");
    EXPECT_TRUE(file_exists(ogm));
}

}  // namespace
