// Forwarding notifications to subscribed clients, and what happens to
// clients that die, hang, refuse, unregister or only listen (secondaries).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "service/bus_values.h"
#include "service/notifier.h"
#include "service/vocabulary.h"
#include "spokesman_fixture.h"

using namespace kal;
using namespace kal::test;
using namespace std::chrono_literals;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

void ring(const char* serial = "A1") {
    handle_qlx_message("R", 1, 0, serial);
}

std::string removal(const BusClient& c) {
    return "Removing distant object " + c.uniqueName() + c.path() + " due to ";
}

TEST_F(SpokesmanTest, NotificationsFromAnotherThreadArriveInOrderUnderTheirEventNames) {
    start();
    auto c = client({"KALDigitDialed", "RequestComplete"});
    std::thread line_thread([] {
        for (int i = 0; i < 50; ++i) {
            const char digit[] = {'#', static_cast<char>('0' + i % 10)};
            handle_qlx_message(digit, 2, 3, "A1");
            if (i % 10 == 9)
                notify_cmd_failure("tok" + std::to_string(i), kal_ResponseCode_ERR_NoResource,
                                   std::string("A1"));
        }
    });
    line_thread.join();
    ASSERT_TRUE(pump_until({c.get()}, [&] { return c->received().size() == 55; }))
        << c->received().size();

    std::string digits, completions;
    for (const auto& n : c->received()) {
        EXPECT_EQ(n.object.str(), "A1");
        // The event time travels as x, every other integer as i.
        EXPECT_TRUE(n.userInfo.at(kal_EventTimeKey).is<int64_t>());
        if (n.name == "KALDigitDialed") {
            digits += n.userInfo.at(kal_DigitContentsKey).str();
            EXPECT_EQ(n.userInfo.at(kal_QLXNumberKey).as<int32_t>(), 3);
        } else {
            EXPECT_EQ(n.name, "RequestComplete");
            completions += n.userInfo.at(kal_Token).str() + ",";
            // Each outcome comes right after the digit it followed.
            EXPECT_EQ(digits.size() % 10, 0u);
        }
    }
    EXPECT_EQ(digits, "01234567890123456789012345678901234567890123456789");
    EXPECT_EQ(completions, "tok9,tok19,tok29,tok39,tok49,");
}

TEST_F(SpokesmanTest, ASubscriberListedTwiceGetsEachNotificationTwice) {
    start();
    auto twice = client({"KALRingDetect", "KALRingDetect"}, "/twice");
    auto once = client({"KALRingDetect"}, "/once");
    ring();
    ring();
    ASSERT_TRUE(pump_until({twice.get(), once.get()}, [&] {
        return twice->received().size() == 4 && once->received().size() == 2;
    }));
    EXPECT_THAT(twice->receivedNames(),
                ElementsAre("KALRingDetect", "KALRingDetect", "KALRingDetect", "KALRingDetect"));
}

TEST_F(SpokesmanTest, NamesPostedInProcessReachTheirSubscribersAndUnwantedOnesAreDropped) {
    start();
    auto c = client({kal_PleaseChangeDebugLevel});
    NotificationCenter::defaultCenter().post(
        {kal_RequestComplete, Value("A1"), {{kal_Token, Value("nobody")}}});
    EXPECT_TRUE(
        waitLogged("No one cares about notifications of type RequestComplete. Discarding "
                   "notification {name = RequestComplete; object = A1} with user info "
                   "{KALToken = nobody}"));
    NotificationCenter::defaultCenter().post(
        {kal_PleaseChangeDebugLevel, Value(int32_t{3}), {{kal_DebugLevel, Value(int32_t{3})}}});
    ASSERT_TRUE(pump_until({c.get()}, [&] { return c->received().size() == 1; }));
    EXPECT_EQ(c->received()[0].object, Value(int32_t{3}));
    EXPECT_EQ(c->received()[0].userInfo.at(kal_DebugLevel), Value(int32_t{3}));
}

TEST_F(SpokesmanTest, RedistributedNotificationsKeepEveryNestedValue) {
    start();
    auto sender = client({}, "/sender");
    auto listener = client({"KALJobsChanged", "KALPleaseRecord"}, "/listener");
    const Value object(ValueDict{
        {"rows", Value(ValueArray{Value(int32_t{1}), Value(int64_t{-2}), Value("three")})},
        {"blob", Value(Bytes{0, 1, 255})},
        {"nested", Value(ValueDict{{"ok", Value(true)}, {"ratio", Value(0.5)}})},
    });
    const ValueDict info{
        {kal_EventTimeKey, Value(int32_t{1700000000})},
        {"big", Value(uint64_t{1} << 40)},
        {"list", Value(ValueArray{Value("a"), Value(ValueDict{{"b", Value(uint32_t{7})}})})},
    };
    auto redistribute = [&](const char* name, const Value& obj, const ValueDict& user_info) {
        return sender->callWith("RedistributeNotification", [&](sd_bus_message* m) {
            int r = sd_bus_message_append_basic(m, 's', name);
            if (r >= 0)
                r = bus::append_variant(m, obj);
            return r < 0 ? r : bus::append_dict(m, user_info);
        });
    };
    ASSERT_TRUE(redistribute("KALJobsChanged", object, info).ok());
    // A notification that names its event goes out under that name.
    ASSERT_TRUE(
        redistribute("Anything", Value("A1"), {{kal_NotificationNameKey, Value("KALPleaseRecord")}})
            .ok());
    ASSERT_TRUE(pump_until({listener.get()}, [&] { return listener->received().size() == 2; }));

    const auto& jobs = listener->received()[0];
    EXPECT_EQ(jobs.name, "KALJobsChanged");
    EXPECT_EQ(jobs.object, object);
    EXPECT_EQ(jobs.userInfo.at(kal_EventTimeKey), Value(int64_t{1700000000}));
    EXPECT_EQ(jobs.userInfo.at("big"), info.at("big"));
    EXPECT_EQ(jobs.userInfo.at("list"), info.at("list"));
    EXPECT_EQ(listener->received()[1].name, "KALPleaseRecord");
    EXPECT_TRUE(logged("Starting redistributeNotification with {name = KALJobsChanged; object = "));
}

TEST_F(SpokesmanTest, AClientThatDiedIsDroppedAtTheFirstFailedDelivery) {
    start();
    auto dead = client({"KALRingDetect", "RequestComplete"}, "/dead");
    auto alive = client({"KALRingDetect"}, "/alive");
    dead->close();
    ring();
    ASSERT_TRUE(pump_until({alive.get()}, [&] { return alive->received().size() == 1; }));
    ASSERT_TRUE(waitLogged(removal(*dead)));
    // Gone before the call, or gone with it unanswered: either way unreachable.
    EXPECT_THAT(log(), ContainsRegex("due to exception on send: "
                                     "org.freedesktop.DBus.Error.(ServiceUnknown|NoReply) "
                                     "\\([0-9]+ secs elapsed\\)"));
    EXPECT_FALSE(subscribed(*dead, "KALRingDetect"));
    EXPECT_FALSE(subscribed(*dead, "RequestComplete"));
    EXPECT_TRUE(subscribed(*alive, "KALRingDetect"));

    ring();
    ASSERT_TRUE(pump_until({alive.get()}, [&] { return alive->received().size() == 2; }));
    const std::string text = log();
    EXPECT_EQ(text.find(removal(*dead)), text.rfind(removal(*dead)));
}

TEST_F(SpokesmanTest, AClientThatNeverAnswersDelaysNoOneAndIsDroppedOnTimeout) {
    SpokesmanOptions options;
    options.callTimeout = 2s;
    start(options);
    auto hung = client({"KALRingDetect"}, "/hung");  // never pumped from here on
    auto prompt = client({"KALRingDetect"}, "/prompt");
    for (int i = 0; i < 20; ++i)
        ring();
    ASSERT_TRUE(pump_until({prompt.get()}, [&] { return prompt->received().size() == 20; }));
    EXPECT_FALSE(logged(removal(*hung))) << "the prompt client waited for the hung one";

    ASSERT_TRUE(
        waitLogged(removal(*hung) + "exception on send: org.freedesktop.DBus.Error.NoReply"));
    EXPECT_FALSE(subscribed(*hung, "KALRingDetect"));
    EXPECT_TRUE(subscribed(*prompt, "KALRingDetect"));
}

TEST_F(SpokesmanTest, AClientThatHoldsTooManyBytesIsDroppedWithoutWaitingForTheTimeout) {
    SpokesmanOptions options;
    options.maxQueuedBytesPerClient = 64 * 1024;
    start(options);
    auto behind = client({"KALRingDetect"}, "/behind");  // never pumped from here on
    // Each ring holds at least this much.
    const size_t one = Parcel(Notification{"KALRingDetect", Value("A1"), {}}).bytes;
    const size_t rings = options.maxQueuedBytesPerClient / one + 1;
    for (size_t i = 0; i < rings; ++i)
        ring();
    ASSERT_TRUE(waitLogged(removal(*behind) +
                           "exception on send: org.freedesktop.DBus.Error.LimitsExceeded"));
    EXPECT_FALSE(subscribed(*behind, "KALRingDetect"));
    EXPECT_EQ(server_->get<size_t>([](KALSpokesman& s) { return s.queuedBytes(); }), 0u);
}

TEST_F(SpokesmanTest, AHundredThousandLineEventsFitInTheOutboxOfAClientThatFellBehind) {
    start();
    auto behind = client({"KALDigitDialed"}, "/behind");  // not pumped until the end
    auto canary = client({"KALRingDetect"}, "/canary");
    std::thread line_thread([] {
        for (int i = 0; i < 100000; ++i) {
            const char digit[] = {'#', static_cast<char>('0' + i % 10)};
            handle_qlx_message(digit, 2, 3, "A1");
        }
        ring();
    });
    line_thread.join();
    // Handed over in order: once the ring arrived, every digit was queued.
    ASSERT_TRUE(pump_until(
        {canary.get()}, [&] { return canary->received().size() == 1; }, 120s));
    EXPECT_TRUE(subscribed(*behind, "KALDigitDialed"));
    EXPECT_FALSE(logged("LimitsExceeded"));
    EXPECT_GT(server_->get<size_t>([](KALSpokesman& s) { return s.queuedBytes(); }),
              100000 * sizeof(Notification));

    behind->close();
    ASSERT_TRUE(waitLogged(removal(*behind)));
    EXPECT_TRUE(wait_for([&] {
        return server_->get<size_t>([](KALSpokesman& s) { return s.queuedBytes(); }) == 0;
    }));
}

// A burst from the line event thread, numbered by its tokens.
void burst(size_t count) {
    std::thread line_thread([count] {
        for (size_t i = 0; i < count; ++i)
            notify_cmd_failure(std::to_string(i), kal_ResponseCode_ERR_NoResource,
                               std::string("A1"));
    });
    line_thread.join();
}

// The full size, eight clients with 100000 each, is bench/delivery_bench.
TEST_F(SpokesmanTest, PromptClientsReceiveABurstWholeAndInOrderWhileAHungOneIsDroppedOnTimeout) {
    SpokesmanOptions options;
    options.callTimeout = 2s;
    start(options);
    constexpr size_t kBurst = 5000;
    auto hung = client({"RequestComplete"}, "/hung");  // never pumped from here on
    std::vector<std::unique_ptr<BusClient>> prompt;
    for (int i = 0; i < 8; ++i)
        prompt.push_back(client({"RequestComplete"}, "/prompt" + std::to_string(i)));
    auto bytes = [&] {
        return server_->get<size_t>([](KALSpokesman& s) { return s.queuedBytes(); });
    };
    EXPECT_EQ(bytes(), 0u);

    burst(kBurst);
    // Pumped one by one, in one thread: a client waits for the others' turns
    // but never for the hung one.
    std::vector<BusClient*> pumped;
    for (auto& c : prompt)
        pumped.push_back(c.get());
    ASSERT_TRUE(pump_until(
        pumped,
        [&] {
            return std::all_of(prompt.begin(), prompt.end(),
                               [](const auto& c) { return c->received().size() >= kBurst; });
        },
        120s));
    for (const auto& c : prompt) {
        SCOPED_TRACE(c->path());
        ASSERT_EQ(c->received().size(), kBurst);
        for (size_t i = 0; i < kBurst; ++i)
            ASSERT_EQ(c->received()[i].userInfo.at(kal_Token).str(), std::to_string(i));
        EXPECT_FALSE(logged(removal(*c)));
    }
    ASSERT_TRUE(
        waitLogged(removal(*hung) + "exception on send: org.freedesktop.DBus.Error.NoReply"));
    EXPECT_TRUE(wait_for([&] { return bytes() == 0; }));
}

TEST_F(SpokesmanTest, OtherErrorsFromAClientAreLoggedAndItStaysSubscribed) {
    start();
    auto refusing = client({"KALRingDetect"});
    refusing->failDeliveriesWith("com.example.Error.Busy");
    ring();
    ring();
    ASSERT_TRUE(pump_until({refusing.get()}, [&] { return refusing->received().size() == 2; }));
    EXPECT_TRUE(
        waitLogged("Eating exception which occurred in "
                   "handleLineISRPassThrough/redistributedNotification: "
                   "com.example.Error.Busy (Refused by the test client) userInfo: "
                   "null userinfo"));
    EXPECT_TRUE(subscribed(*refusing, "KALRingDetect"));
    EXPECT_FALSE(logged("Removing distant object"));
}

TEST_F(SpokesmanTest, UnRegisterMeEndsServiceAndTheNextDeliveryDropsTheClient) {
    start();
    auto leaving = client({"KALRingDetect"});
    ASSERT_TRUE(leaving->call("UnRegisterMe", "o", leaving->path().c_str()).ok());
    EXPECT_EQ(leaving->call("Resources", "").errorMessage, "#16 Unauthenticated request");
    EXPECT_TRUE(subscribed(*leaving, "KALRingDetect"));

    ring();
    ASSERT_TRUE(waitLogged(removal(*leaving) +
                           "exception on send: org.freedesktop.DBus.Error.Disconnected "
                           "(0 secs elapsed)"));
    leaving->process();
    EXPECT_THAT(leaving->received(), IsEmpty());
    EXPECT_FALSE(subscribed(*leaving, "KALRingDetect"));
}

TEST_F(SpokesmanTest, ASecondaryIsFirstPingedOneIntervalAfterItRegisteredAndThenEveryInterval) {
    SpokesmanOptions options;
    options.pingInterval = 1s;
    start(options);
    auto primary = client({}, "/primary");
    const auto registered = std::chrono::steady_clock::now();
    auto secondary = client({}, "/secondary", true);
    ASSERT_TRUE(pump_until({secondary.get()}, [&] { return secondary->pings() == 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - registered, options.pingInterval);
    ASSERT_TRUE(pump_until({secondary.get()}, [&] { return secondary->pings() == 2; }));
    EXPECT_GE(std::chrono::steady_clock::now() - registered, 2 * options.pingInterval);
    EXPECT_EQ(primary->pings(), 0);
}

TEST_F(SpokesmanTest, SecondariesAreNextPingedAMinuteFromNow) {
    start();
    auto until_next = [&] {
        return server_->get<std::optional<std::chrono::microseconds>>(
            [](KALSpokesman& s) { return s.untilNextPing(); });
    };
    auto primary = client({}, "/primary");
    EXPECT_EQ(until_next(), std::nullopt);
    auto secondary = client({}, "/secondary", true);
    const auto next = until_next();
    ASSERT_TRUE(next.has_value());
    EXPECT_GT(*next, 55s);
    EXPECT_LE(*next, 60s);
}

TEST_F(SpokesmanTest, SecondariesArePingedUntilTheyAreGone) {
    SpokesmanOptions options;
    options.pingInterval = 50ms;
    start(options);
    auto primary = client({}, "/primary");
    auto secondary = client({}, "/secondary", true);
    ASSERT_TRUE(
        pump_until({primary.get(), secondary.get()}, [&] { return secondary->pings() >= 3; }));
    EXPECT_EQ(primary->pings(), 0);
    EXPECT_TRUE(logged("Done pinging secondary " + secondary->uniqueName() + "/secondary."));

    secondary->close();
    ASSERT_TRUE(waitLogged(removal(*secondary) + "exception on ping: "));
    EXPECT_TRUE(waitLogged("No more secondaries. Invalidating timer."));
    EXPECT_FALSE(server_->get<bool>([](KALSpokesman& s) { return s.pingTimerRunning(); }));
    EXPECT_THAT(server_->get<std::vector<Proxy>>(
                    [](KALSpokesman& s) { return s.registry().secondaryDistants(); }),
                IsEmpty());
}

}  // namespace
