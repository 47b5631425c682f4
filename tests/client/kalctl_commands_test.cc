// kalctl's commands against the fake daemon: what they send, what they
// print, and their exit statuses.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "client/client.h"
#include "fake_daemon.h"
#include "kalctl/commands.h"
#include "private_bus.h"
#include "service/bus_contract.h"
#include "service/bus_values.h"
#include "service/vocabulary.h"

using namespace kal;
using namespace kal::kalctl;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class KalctlCommandsTest : public ::testing::Test {
  protected:
    struct Outcome {
        int status;
        std::string out;
        std::string err;
    };
    Outcome kalctl(const std::vector<std::string>& argv) {
        std::ostringstream out, err;
        const int status = run(parse_command_line(argv), out, err);
        return {status, out.str(), err.str()};
    }
    FakeDaemon::Call last_call(const std::string& member) {
        for (const auto& c : daemon_->calls())
            if (c.member == member)
                return c;
        ADD_FAILURE() << "no call of " << member;
        return {};
    }
    // Makes the fake answer `member` with OK and then deliver a
    // RequestComplete for the caller's token with `code`.
    void complete_with(const std::string& member, size_t token_arg, const std::string& code) {
        daemon_->script(
            member,
            FakeDaemon::Answer::replying([this, token_arg, code](const FakeDaemon::Call& call,
                                                                 sd_bus_message* reply) {
                const ValueDict info = {{kal_Token, call.args.at(token_arg)},
                                        {kal_ResponseCode, Value(code)},
                                        {kal_QLXSerialNumberKey, Value("KL1001")},
                                        {kal_EventTimeKey, Value(int64_t{1700000000})}};
                daemon_->callClient(call.sender, client::kDefaultDelegatePath, "InjectNotification",
                                    [info](sd_bus_message* m) {
                                        int r = sd_bus_message_append(m, "s", kal_RequestComplete);
                                        if (r >= 0)
                                            r = bus::append_variant(m, Value("KL1001"));
                                        return r < 0 ? r : bus::append_user_info(m, info);
                                    });
                return sd_bus_message_append(reply, "s", kal_ResponseCode_OK);
            }));
    }

    PrivateBus bus_;
    std::unique_ptr<FakeDaemon> daemon_ = std::make_unique<FakeDaemon>();
};

TEST_F(KalctlCommandsTest, LinesListsEachLineWithItsType) {
    daemon_->script("EnhancedResources",
                    FakeDaemon::Answer::replying([](const auto&, sd_bus_message* r) {
                        return sd_bus_message_append(r, "as", 1, "ZR2002");
                    }));
    daemon_->script("DeviceTypeForResource",
                    FakeDaemon::Answer::replying([](const FakeDaemon::Call& c, sd_bus_message* r) {
                        return sd_bus_message_append(r, "i", c.args[0].str()[0] == 'Z' ? 2 : 1);
                    }));
    const auto o = kalctl({"lines"});
    EXPECT_EQ(o.status, kExitOk) << o.err;
    EXPECT_EQ(o.out, "KL1001  type 1\nZR2002  type 2 (enhanced)\n");
    // Registered first, with the library's protocol version.
    const auto calls = daemon_->calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls[0].member, "RegisterApplication");
    EXPECT_EQ(calls[0].args[5], Value(client::kProtocolVersion));
}

TEST_F(KalctlCommandsTest, NoLinesSaysSoInTheUsersWords) {
    daemon_->script("Resources", FakeDaemon::Answer::replying([](const auto&, sd_bus_message* r) {
                        return sd_bus_message_append(r, "as", 0);
                    }));
    const auto o = kalctl({"lines"});
    EXPECT_EQ(o.status, kExitOk);
    EXPECT_EQ(o.out, "No USB Telephone Adapter is currently connected.\n");
}

TEST_F(KalctlCommandsTest, WaitPrintsTheRequestCompleteAndExitsByItsCode) {
    complete_with("Dial", 2, kal_ResponseCode_OK);
    auto o = kalctl({"dial", "KL1001", "5551234", "--token", "T1", "--wait", "--timeout", "20"});
    EXPECT_EQ(o.status, kExitOk) << o.err;
    EXPECT_THAT(o.out, StartsWith("Dialling 5551234 on KL1001 (token T1)\n"));
    EXPECT_THAT(o.out, HasSubstr(" RequestComplete KL1001 {KALResponseCode = KALResponseCodeOK; "
                                 "KALToken = T1}\n"));
    EXPECT_THAT(last_call("Dial").args,
                ElementsAre(Value("5551234"), Value("KL1001"), Value("T1"), Value(false)));

    complete_with("BeginCRNodeForResource", 1, kal_ResponseCode_ERR_InvalidFile);
    o = kalctl({"record", "KL1001", "rec.raw", "--wait", "--token", "T2"});
    EXPECT_EQ(o.status, kExitFailed);
    EXPECT_THAT(o.err, HasSubstr("Call Recording audio file missing. "
                                 "(kal_ResponseCode_ERR_InvalidFile)"));
}

TEST_F(KalctlCommandsTest, VoicemailSendsAbsolutePathsChoicesAndNumbers) {
    const auto o =
        kalctl({"voicemail", "KL1001", "--greeting", "greet.raw", "--message", "/var/tmp/m.raw",
                "--choices", "1,2", "--max-length", "60", "--pause", "3", "--token", "T3"});
    EXPECT_EQ(o.status, kExitOk) << o.err;
    const std::string cwd = std::filesystem::current_path().string();
    EXPECT_THAT(last_call("BeginVMNodeForResource").args,
                ElementsAre(Value("KL1001"), Value("T3"), Value(cwd + "/greet.raw"),
                            Value("/var/tmp/m.raw"), Value(ValueArray{Value("1"), Value("2")}),
                            Value(int32_t{60}), Value(int32_t{3}), Value(int32_t{0}), Value("")));
}

TEST_F(KalctlCommandsTest, PrefsChangesTheGivenKeysAndKeepsTheOthers) {
    daemon_->script(
        "LinePreferences", FakeDaemon::Answer::replying([](const auto&, sd_bus_message* r) {
            return bus::append_dict(r, {{"Gone", Value(int32_t{1})}, {"Kept", Value("yes")}});
        }));
    const auto o = kalctl({"prefs", "KALVMSilenceDetection=1", "Name=x y", "--unset", "Gone"});
    EXPECT_EQ(o.status, kExitOk) << o.err;
    EXPECT_THAT(last_call("SetLinePreferences").args,
                ElementsAre(Value(ValueDict{{"KALVMSilenceDetection", Value(int32_t{1})},
                                            {"Kept", Value("yes")},
                                            {"Name", Value("x y")}})));

    const auto shown = kalctl({"prefs"});
    EXPECT_EQ(shown.out, "Gone = 1\nKept = yes\n");
}

TEST_F(KalctlCommandsTest, RefusalsPrintTheirTextAndExitNonZero) {
    daemon_->script("HangUpResource",
                    FakeDaemon::Answer::replying([](const auto&, sd_bus_message* r) {
                        return sd_bus_message_append(r, "s", kal_ResponseCode_ERR_NoResource);
                    }));
    auto o = kalctl({"hangup", "KL9"});
    EXPECT_EQ(o.status, kExitFailed);
    EXPECT_EQ(o.err,
              "kalctl hangup: No USB Telephone Adapter is currently connected. "
              "(KALResponseCodeERRNoResource)\n");

    daemon_->script(
        "StopCRNodeForResource",
        FakeDaemon::Answer::failing(kal_ExceptionErrorName, "#16 Unauthenticated request"));
    o = kalctl({"stop-record", "KL1001"});
    EXPECT_EQ(o.status, kExitFailed);
    EXPECT_THAT(o.err, HasSubstr("#16 Unauthenticated request"));

    daemon_.reset();
    o = kalctl({"rescan"});
    EXPECT_EQ(o.status, kExitNoDaemon);
    EXPECT_THAT(o.err, HasSubstr("kaldevicemaster is not running"));
}

}  // namespace
