// The client library against a fake daemon that answers as the contract
// file says: every call's signature, the values that cross in both
// directions, errors, the delegate object and the loop.

#include "client/client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <set>

#include "fake_daemon.h"
#include "private_bus.h"
#include "service/bus_contract.h"
#include "service/bus_values.h"
#include "service/kal_errors.h"
#include "service/vocabulary.h"

using namespace kal;
using namespace kal::client;
using namespace kal::test;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

class ClientTest : public ::testing::Test {
  protected:
    FakeDaemon::Call last_call(const std::string& member) {
        for (const auto& c : daemon_->calls())
            if (c.member == member)
                return c;
        ADD_FAILURE() << "no call of " << member;
        return {};
    }

    PrivateBus bus_;
    std::unique_ptr<FakeDaemon> daemon_ = std::make_unique<FakeDaemon>();
};

TEST_F(ClientTest, EveryRequestIsSentWithTheContractsSignatureAndArgumentOrder) {
    Client client;
    // The fake answers a call whose signature is not the contract's with
    // InvalidArgs, which would throw here.
    client.registerApplication("app", "vendor", "cred", true, "BD1.0.7");
    client.subscribe("KALRingDetect");
    client.redistributeNotification("Mine", Value("obj"), {{"k", Value(int32_t{1})}});
    client.resources();
    client.enhancedResources();
    client.deviceTypeForResource("KL1001");
    client.dial("555", "KL1001", "tok", true);
    client.cancelDialWithCallbackToken("tok");
    client.placeCallOnResource("KL1001", "5551234", "tok");
    client.hangUpResource("KL1001", "tok");
    client.performTRVOnResource("KL1001", "why", 3);
    client.fullResourceRescan();
    client.linePreferences();
    client.setLinePreferences({{"KALVMSilenceDetection", Value(int32_t{1})}});
    client.setSystemWideDebugLevel(8, true);
    client.beginVMNodeForResource("KL1001", "tok", "/g.raw", "/m.raw", {"1", "2"}, 60, 3, 16,
                                  "5551234");
    client.beginCRNodeForResource("KL1001", "tok", "/rec.raw", "/pre.raw", "", 2);
    client.stopCRNodeForResource("KL1001");
    client.startScriptNodeForResource("KL1001", "tok", {"1"}, {"2"}, "9");
    client.scriptCompletedForResource("KL1001", "tok", 4, "/a.raw");
    client.beginVMCheckNodeForResource("KL1001", "tok", "/i.raw", "/n.raw", 1);
    client.nextVMCheckMessage("KL1001", "tok", "/msg.raw");
    client.restartVMCheckNodeForResource("KL1001", "tok", "/i.raw");
    client.unRegisterMe();

    std::set<std::string> called, declared;
    for (const auto& c : daemon_->calls())
        called.insert(c.member);
    for (const auto& [name, method] : read_contract(kal_ActionRequestingInterface))
        declared.insert(name);
    EXPECT_EQ(called, declared) << "a method of the contract has no wrapper";

    // Same-typed arguments in the contract's order.
    const std::string me = client.uniqueName();
    EXPECT_THAT(last_call("RegisterApplication").args,
                ElementsAre(Value("app"), Value("vendor"), Value("cred"),
                            Value(client.delegatePath()), Value(true), Value("BD1.0.7")));
    EXPECT_EQ(last_call("RegisterApplication").sender, me);
    EXPECT_THAT(last_call("Subscribe").args,
                ElementsAre(Value(client.delegatePath()), Value("KALRingDetect")));
    EXPECT_THAT(last_call("Dial").args,
                ElementsAre(Value("555"), Value("KL1001"), Value("tok"), Value(true)));
    EXPECT_THAT(last_call("PlaceCallOnResource").args,
                ElementsAre(Value("KL1001"), Value("5551234"), Value("tok")));
    EXPECT_THAT(last_call("BeginVMNodeForResource").args,
                ElementsAre(Value("KL1001"), Value("tok"), Value("/g.raw"), Value("/m.raw"),
                            Value(ValueArray{Value("1"), Value("2")}), Value(int32_t{60}),
                            Value(int32_t{3}), Value(int32_t{16}), Value("5551234")));
    EXPECT_THAT(last_call("BeginCRNodeForResource").args,
                ElementsAre(Value("KL1001"), Value("tok"), Value("/rec.raw"), Value("/pre.raw"),
                            Value(""), Value(uint32_t{2})));
    EXPECT_THAT(last_call("StartScriptNodeForResource").args,
                ElementsAre(Value("KL1001"), Value("tok"), Value(ValueArray{Value("1")}),
                            Value(ValueArray{Value("2")}), Value("9")));
    EXPECT_THAT(last_call("RedistributeNotification").args,
                ElementsAre(Value("Mine"), Value("obj"), Value(ValueDict{{"k", Value(1)}})));
}

TEST_F(ClientTest, ResultsComeBackAsTheDaemonSentThem) {
    daemon_->script("Dial", FakeDaemon::Answer::replying([](const auto&, sd_bus_message* r) {
                        return sd_bus_message_append(r, "s", kal_ResponseCode_ERR_ResourceBusy);
                    }));
    daemon_->script("EnhancedResources",
                    FakeDaemon::Answer::replying([](const auto&, sd_bus_message* r) {
                        return sd_bus_message_append(r, "as", 0);
                    }));
    daemon_->script("DeviceTypeForResource",
                    FakeDaemon::Answer::replying([](const auto&, sd_bus_message* r) {
                        return sd_bus_message_append(r, "i", -1);
                    }));
    Client client;
    EXPECT_EQ(client.dial("1", "", "t", true), kal_ResponseCode_ERR_ResourceBusy);
    EXPECT_THAT(client.resources(), ElementsAre("KL1001", "ZR2002"));
    EXPECT_TRUE(client.enhancedResources().empty());
    EXPECT_EQ(client.deviceTypeForResource("nope"), -1);
}

TEST_F(ClientTest, LinePreferencesOfEveryValueKindSurviveTheTripBothWays) {
    const ValueDict prefs = {
        {"bool", Value(true)},
        {"int", Value(int32_t{-7})},
        {"long", Value(int64_t{1} << 40)},
        {"unsigned", Value(uint32_t{4000000000u})},
        {"huge", Value(uint64_t{1} << 63)},
        {"real", Value(2.5)},
        {"text", Value("caf\xc3\xa9")},
        {"empty", Value("")},
        {"data", Value(Bytes{0, 1, 255})},
        {"list", Value(ValueArray{Value(int32_t{1}), Value("two"), Value(ValueArray{})})},
        {"dict", Value(ValueDict{{"inner", Value(ValueDict{{"deep", Value(false)}})}})},
    };
    daemon_->script("LinePreferences",
                    FakeDaemon::Answer::replying([&](const auto&, sd_bus_message* r) {
                        return bus::append_dict(r, prefs);
                    }));
    Client client;
    client.setLinePreferences(prefs);
    const auto sent = last_call("SetLinePreferences").args;
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], Value(prefs));
    EXPECT_EQ(client.linePreferences(), prefs);
}

TEST_F(ClientTest, AKALExceptionReplyIsThrownWithTheDaemonsReasonAndCode) {
    daemon_->script("Resources", FakeDaemon::Answer::failing(kal_ExceptionErrorName,
                                                             "#16 Unauthenticated request"));
    daemon_->script("RegisterApplication",
                    FakeDaemon::Answer::failing(
                        kal_ExceptionErrorName,
                        "#35 Invalid software version: The version of the application you are "
                        "running (QZ9) is not one of the versions supported"));
    Client client;
    try {
        client.resources();
        FAIL() << "no exception";
    } catch (const KALException& e) {
        EXPECT_TRUE(e.isKALException());
        EXPECT_EQ(e.reason(), "#16 Unauthenticated request");
        EXPECT_EQ(e.kalErrorCode(), 16);
    }
    try {
        client.registerApplication("app", "v", "", false, "QZ9");
        FAIL() << "no exception";
    } catch (const KALException& e) {
        EXPECT_EQ(e.kalErrorCode(), 35);
        EXPECT_THAT(e.reason(), HasSubstr("(QZ9)"));
    }
}

TEST_F(ClientTest, OtherErrorsAreBusFailuresWithTheirNames) {
    daemon_->script("HangUpResource",
                    FakeDaemon::Answer::failing(SD_BUS_ERROR_ACCESS_DENIED, "no"));
    Client client;
    try {
        client.hangUpResource("KL1001", "t");
        FAIL() << "no exception";
    } catch (const BusFailure& e) {
        EXPECT_EQ(e.name(), SD_BUS_ERROR_ACCESS_DENIED);
    }

    daemon_.reset();  // the daemon is gone
    try {
        client.resources();
        FAIL() << "no exception";
    } catch (const BusFailure& e) {
        EXPECT_EQ(e.name(), SD_BUS_ERROR_SERVICE_UNKNOWN);
    }
}

TEST_F(ClientTest, AnUnreachableBusIsReportedWithItsAddress) {
    try {
        ClientOptions options;
        options.address = "unix:path=" + bus_.dir() + "/nobody.sock";
        Client client(options);
        FAIL() << "connected";
    } catch (const BusFailure& e) {
        EXPECT_THAT(e.what(), HasSubstr("nobody.sock"));
    }
}

TEST_F(ClientTest, TheDelegateAnswersPingAndIdentificationAndHandsOverNotifications) {
    ClientOptions options;
    options.identification = "test client 1";
    Client client(options);
    std::vector<Notification> got;
    client.setNotificationHandler([&](const Notification& n) { got.push_back(n); });
    const std::string me = client.uniqueName();
    const std::string path = client.delegatePath();

    auto ping = daemon_->callClient(me, path, "Ping");
    auto ident = daemon_->callClient(me, path, "Identification");
    const ValueDict info = {{kal_EventTimeKey, Value(int64_t{1700000000})},
                            {kal_QLXNumberKey, Value(int32_t{0})},
                            {kal_QLXSerialNumberKey, Value("KL1001")}};
    auto inject = daemon_->callClient(me, path, "InjectNotification", [&](sd_bus_message* m) {
        int r = sd_bus_message_append(m, "s", kal_RingDetect);
        if (r >= 0)
            r = bus::append_variant(m, Value("KL1001"));
        return r < 0 ? r : bus::append_user_info(m, info);
    });
    // The daemon's calls are served in order, so the notification comes last.
    ASSERT_EQ(client.run(20s, [&] { return !got.empty(); }), Client::RunResult::Done);
    EXPECT_EQ(got[0].name, kal_RingDetect);
    EXPECT_EQ(got[0].object, Value("KL1001"));
    EXPECT_EQ(got[0].userInfo, info);

    ASSERT_EQ(ping.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(ping.get().values, std::vector<Value>{Value(int32_t{1})});
    ASSERT_EQ(ident.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(ident.get().values, std::vector<Value>{Value("test client 1")});
    ASSERT_EQ(inject.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(inject.get().errorName, "");
}

TEST_F(ClientTest, AHandlerThatThrowsStillAnswersTheDaemon) {
    Client client;
    int calls = 0;
    client.setNotificationHandler([&](const Notification&) {
        ++calls;
        throw std::runtime_error("client bug");
    });
    auto inject = daemon_->callClient(
        client.uniqueName(), client.delegatePath(), "InjectNotification", [](sd_bus_message* m) {
            int r = sd_bus_message_append(m, "s", "KALPleaseChangeDebugLevel");
            if (r >= 0)
                r = bus::append_variant(m, Value(int32_t{8}));
            return r < 0 ? r : bus::append_dict(m, {});
        });
    ASSERT_EQ(client.run(20s, [&] { return calls == 1; }), Client::RunResult::Done);
    ASSERT_EQ(inject.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(inject.get().errorName, "");
}

TEST_F(ClientTest, RunEndsOnItsConditionItsDeadlineStopOrAStopSignal) {
    Client client;
    EXPECT_EQ(client.run(std::nullopt, [] { return true; }), Client::RunResult::Done);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.run(100ms), Client::RunResult::TimedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);

    client.stop();
    EXPECT_EQ(client.run(std::nullopt), Client::RunResult::Stopped);

    client.stopOnSignals({SIGUSR2});
    raise(SIGUSR2);  // blocked now: waits for the loop
    EXPECT_EQ(client.run(20s), Client::RunResult::Stopped);
    EXPECT_EQ(client.stopSignal(), SIGUSR2);
}

}  // namespace
