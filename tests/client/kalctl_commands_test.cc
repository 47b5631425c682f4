// kalctl's commands against the fake daemon: what they send, what they
// print, and their exit statuses.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <sstream>

#include "client/client.h"
#include "fake_daemon.h"
#include "kalctl/answering.h"
#include "kalctl/commands.h"
#include "private_bus.h"
#include "service/bus_contract.h"
#include "service/bus_values.h"
#include "service/vocabulary.h"
#include "test_support.h"

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

    std::vector<FakeDaemon::Call> calls_of(const std::string& member) {
        std::vector<FakeDaemon::Call> out;
        for (const auto& c : daemon_->calls())
            if (c.member == member)
                out.push_back(c);
        return out;
    }
    // Delivers a notification about KL1001 to the client `to`, as the
    // daemon does.
    void inject(const std::string& to, const std::string& name, ValueDict info) {
        info.emplace(kal_EventTimeKey, Value(int64_t{1700000000}));
        info.emplace(kal_QLXSerialNumberKey, Value("KL1001"));
        daemon_->callClient(to, client::kDefaultDelegatePath, "InjectNotification",
                            [name, info](sd_bus_message* m) {
                                int r = sd_bus_message_append(m, "s", name.c_str());
                                if (r >= 0)
                                    r = bus::append_variant(m, Value("KL1001"));
                                return r < 0 ? r : bus::append_user_info(m, info);
                            });
    }
    // Answers `member` with `code`, first running `then` (on the fake's
    // thread) with the call.
    void answer(const std::string& member, std::function<void(const FakeDaemon::Call&)> then,
                std::string code = kal_ResponseCode_OK) {
        daemon_->script(member, FakeDaemon::Answer::replying(
                                    [then, code](const FakeDaemon::Call& call, sd_bus_message* r) {
                                        if (then)
                                            then(call);
                                        return sd_bus_message_append(r, "s", code.c_str());
                                    }));
    }
    ValueDict next_message_request(const std::string& token, const char* disposition) {
        return {{kal_Token, Value(token)},
                {kal_VMCheckPresentMessageDisposition, Value(disposition)},
                {kal_VMCheck_Filter, Value(kal_VMCheck_Filter_Unheard)}};
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

TEST_F(KalctlCommandsTest, ScriptAnswersItsOwnRequestsWithFreshCopiesUntilTheCallEnds) {
    TempRoot root;  // the copies go below its var/tmp
    const std::string weather = root.path() + "/weather.raw";
    write_file(weather, "sunny", 0600);
    answer("StartScriptNodeForResource", [this](const FakeDaemon::Call& call) {
        // Another client's session on another line, then ours.
        inject(call.sender, kal_PleaseRunActionScriptForCaller,
               {{kal_Token, Value("theirs")},
                {kal_DigitContentsKey, Value("1")},
                {kal_SequenceNumber, Value(int32_t{3})}});
        inject(call.sender, kal_PleaseRunActionScriptForCaller,
               {{kal_Token, Value("S1")},
                {kal_DigitContentsKey, Value("2")},
                {kal_SequenceNumber, Value(int32_t{4})}});
        inject(call.sender, kal_PleaseRunActionScriptForCaller,
               {{kal_Token, Value("S1")},
                {kal_DigitContentsKey, Value("1")},
                {kal_SequenceNumber, Value(int32_t{5})}});
    });
    answer("ScriptCompletedForResource", [this](const FakeDaemon::Call& call) {
        inject(call.sender, kal_BusyTone, {{kal_QLXNumberKey, Value(int32_t{0})}});
    });

    const auto o = kalctl({"script", "KL1001", "--answer", "1=" + weather, "--codes", "2#",
                           "--token", "S1", "--timeout", "20"});
    EXPECT_EQ(o.status, kExitOk) << o.err;
    EXPECT_THAT(o.out, StartsWith("Script menu started on KL1001 (token S1): 2 answers nothing, "
                                  "1 plays weather.raw\n"));
    EXPECT_THAT(o.out, HasSubstr("Script 2 ran; it answers nothing."));
    EXPECT_THAT(o.out, HasSubstr(" KALBusyTone KL1001 {KALQLXNumberKey = 0}\nThe call on KL1001 "
                                 "has ended.\n"));
    EXPECT_THAT(last_call("StartScriptNodeForResource").args,
                ElementsAre(Value("KL1001"), Value("S1"), Value(ValueArray{Value("2")}),
                            Value(ValueArray{Value("1")}), Value("")));

    // One completion: the code that answers audio, under its run number.
    const auto completions = calls_of("ScriptCompletedForResource");
    ASSERT_EQ(completions.size(), 1u);
    const auto& args = completions[0].args;
    ASSERT_EQ(args.size(), 4u);
    EXPECT_EQ(args[0], Value("KL1001"));
    EXPECT_EQ(args[1], Value("S1"));
    EXPECT_EQ(args[2], Value(int32_t{5}));
    const std::string copy = args[3].str();
    EXPECT_THAT(copy, StartsWith(AudioCopies::default_dir() + "/weather."));
    EXPECT_EQ(read_file(copy), "sunny");
    EXPECT_THAT(o.out, HasSubstr("Answered with " + copy + " (a copy of " + weather + ")."));
    EXPECT_EQ(read_file(weather), "sunny");
}

TEST_F(KalctlCommandsTest, ScriptEndsAfterItsOnlyScriptWhenTheSessionLeftOrFailed) {
    TempRoot root;
    const std::string file = root.path() + "/seven.raw";
    write_file(file, "7");
    // Pre-picked: one script, and that is the session.
    answer("StartScriptNodeForResource", [this](const FakeDaemon::Call& call) {
        inject(call.sender, kal_PleaseRunActionScriptForCaller,
               {{kal_Token, call.args[1]},
                {kal_DigitContentsKey, Value("7")},
                {kal_SequenceNumber, Value(int32_t{0})}});
    });
    answer("ScriptCompletedForResource", nullptr);
    auto o =
        kalctl({"script", "KL1001", "--answer", "7=" + file, "--prepick", "7#", "--timeout", "20"});
    EXPECT_EQ(o.status, kExitOk) << o.err;
    EXPECT_THAT(o.out, HasSubstr("That was the pre-picked script, the session's only one.\n"));
    EXPECT_EQ(last_call("StartScriptNodeForResource").args.at(4), Value("7"));

    // Nothing is asked; the session has left the line, which the probe finds.
    answer("StartScriptNodeForResource", nullptr);
    answer("ScriptCompletedForResource", nullptr, kal_ResponseCode_ERR_NoResource);
    o = kalctl({"script", "KL1001", "--codes", "1", "--token", "S2", "--timeout", "20"});
    EXPECT_EQ(o.status, kExitOk) << o.err;
    EXPECT_THAT(o.out, HasSubstr("The session on KL1001 has ended.\n"));
    EXPECT_THAT(calls_of("ScriptCompletedForResource").back().args,
                ElementsAre(Value("KL1001"), Value("S2"), Value(int32_t{-1}), Value("")));

    // A failure the daemon reports ends it too, by its code.
    answer("StartScriptNodeForResource", [this](const FakeDaemon::Call& call) {
        inject(call.sender, kal_RequestComplete,
               {{kal_Token, call.args[1]},
                {kal_ResponseCode, Value(kal_ResponseCode_ERR_InternalError)}});
    });
    o = kalctl({"script", "KL1001", "--codes", "1", "--timeout", "20"});
    EXPECT_EQ(o.status, kExitFailed);
    EXPECT_THAT(o.err, HasSubstr("(kal_ResponseCode_ERR_InternalError)"));

    // No such line: refused before anything starts.
    daemon_->script("DeviceTypeForResource",
                    FakeDaemon::Answer::replying([](const auto&, sd_bus_message* r) {
                        return sd_bus_message_append(r, "i", int32_t{-1});
                    }));
    const size_t starts = calls_of("StartScriptNodeForResource").size();
    o = kalctl({"script", "KL9", "--codes", "1"});
    EXPECT_EQ(o.status, kExitFailed);
    EXPECT_THAT(o.err, HasSubstr("(KALResponseCodeERRNoResource)"));
    EXPECT_EQ(calls_of("StartScriptNodeForResource").size(), starts);
}

TEST_F(KalctlCommandsTest, VmcheckWalksTheFolderDoingWhatTheCallerSaysAndSendsOnlyCopies) {
    TempRoot root;
    const std::string dir = root.path() + "/messages";
    make_dirs(dir);
    write_file(dir + "/m1.raw", "one");
    write_file(dir + "/m2.raw", "two");
    const std::string greeting = root.path() + "/greeting.raw";
    const std::string menu = root.path() + "/menu.raw";
    const std::string noMore = root.path() + "/no-more.raw";
    write_file(greeting, "greeting");
    write_file(menu, "menu");
    write_file(noMore, "no more");

    answer("BeginVMCheckNodeForResource", [this](const FakeDaemon::Call& call) {
        inject(call.sender, kal_PleaseProvideNextMessageForVMCheck,
               next_message_request("C1", kal_VMCheck_Disposition_Skip));
    });
    // The caller deletes the first message and saves the second.
    std::atomic<int> nexts{0};
    answer("NextVMCheckMessage", [&](const FakeDaemon::Call& call) {
        inject(call.sender, kal_PleaseProvideNextMessageForVMCheck,
               next_message_request("C1", ++nexts == 1 ? kal_VMCheck_Disposition_Delete
                                                       : kal_VMCheck_Disposition_Save));
    });
    // Back at the main menu, the caller starts over with *, then hangs up.
    std::atomic<int> restarts{0};
    answer("RestartVMCheckNodeForResource", [&](const FakeDaemon::Call& call) {
        if (++restarts == 1)
            inject(call.sender, kal_PleaseRestartVMCheck, {{kal_Token, Value("C1")}});
        else
            inject(call.sender, kal_Dialtone, {{kal_QLXNumberKey, Value(int32_t{0})}});
    });

    const auto o =
        kalctl({"vmcheck", "KL1001", "--greeting", greeting, "--inter-greeting", menu, "--messages",
                dir, "--no-more", noMore, "--token", "C1", "--timeout", "20"});
    EXPECT_EQ(o.status, kExitOk) << o.err;
    EXPECT_THAT(o.out, StartsWith("Voicemail check started on KL1001 (token C1): 2 unheard, "
                                  "0 saved\n"));

    // Every file handed over is a copy; the inter-message menu, which the
    // daemon never deletes, is the user's own.
    const auto begin = last_call("BeginVMCheckNodeForResource").args;
    ASSERT_EQ(begin.size(), 5u);
    EXPECT_THAT(begin[2].str(), StartsWith(AudioCopies::default_dir() + "/greeting."));
    EXPECT_EQ(read_file(begin[2].str()), "greeting");
    EXPECT_EQ(begin[3], Value(menu));
    EXPECT_EQ(begin[4], Value(int32_t{0}));
    std::vector<std::string> sent;
    for (const auto& call : calls_of("NextVMCheckMessage"))
        sent.push_back(read_file(call.args.at(2).str()));
    for (const auto& call : calls_of("RestartVMCheckNodeForResource"))
        sent.push_back(read_file(call.args.at(2).str()));
    EXPECT_THAT(sent, ElementsAre("one", "two", "no more", "greeting"));

    EXPECT_FALSE(file_exists(dir + "/m1.raw"));
    EXPECT_FALSE(file_exists(dir + "/m2.raw"));
    EXPECT_EQ(read_file(dir + "/saved/m2.raw"), "two");
    for (const auto& file : {greeting, menu, noMore})
        EXPECT_TRUE(file_exists(file)) << file;

    EXPECT_THAT(o.out, HasSubstr("  Presenting m1.raw, 1 of 2 unheard.\n"));
    EXPECT_THAT(o.out, HasSubstr("  m1.raw deleted.\n  Presenting m2.raw, 2 of 2 unheard.\n"));
    EXPECT_THAT(o.out, HasSubstr("  m2.raw saved to " + dir +
                                 "/saved/m2.raw.\n  No more unheard messages: back to the main "
                                 "menu (no-more.raw).\n"));
    EXPECT_THAT(o.out, HasSubstr("  The caller starts over: back to the main menu "
                                 "(greeting.raw).\n"));
    EXPECT_THAT(o.out, HasSubstr("The call on KL1001 has ended.\n"));
}

}  // namespace
