// How a notification reads on one line, and which response codes count as
// success.

#include "client/notification.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>

#include "service/vocabulary.h"

using namespace kal;
using namespace kal::client;
using ::testing::Contains;
using ::testing::Not;

namespace {

class NotificationFormatTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    // 12:00:01 UTC on some day.
    static constexpr int64_t kNoonAndASecond = 1700000000 - 1700000000 % 86400 + 43201;
};

TEST_F(NotificationFormatTest, OneLineWithTheEventTimeAndWithoutRepeatedKeys) {
    struct Case {
        const char* desc;
        Notification n;
        bool full;
        std::string line;
    } cases[] = {
        {"line event",
         {kal_RingDetect,
          Value("KL1001"),
          {{kal_EventTimeKey, Value(kNoonAndASecond)},
           {kal_NotificationNameKey, Value(kal_RingDetect)},
           {kal_QLXSerialNumberKey, Value("KL1001")},
           {kal_QLXNumberKey, Value(int32_t{0})}}},
         false,
         "12:00:01 KALRingDetect KL1001 {KALQLXNumberKey = 0}"},
        {"everything when full",
         {kal_RingDetect,
          Value("KL1001"),
          {{kal_EventTimeKey, Value(kNoonAndASecond)}, {kal_QLXSerialNumberKey, Value("KL1001")}}},
         true,
         "12:00:01 KALRingDetect KL1001 {KALEventTimeKey = " + std::to_string(kNoonAndASecond) +
             "; KALQLXSerialNumberKey = KL1001}"},
        {"request completion keeps its own keys",
         {kal_RequestComplete,
          Value("ZR2002"),
          {{kal_EventTimeKey, Value(kNoonAndASecond)},
           {kal_Token, Value("t1")},
           {kal_ResponseCode, Value(kal_ResponseCode_OK)},
           {kal_QLXSerialNumberKey, Value("ZR2002")}}},
         false,
         "12:00:01 RequestComplete ZR2002 {KALResponseCode = KALResponseCodeOK; KALToken = t1}"},
        {"debug level: a number as object, a 32-bit time",
         {kal_PleaseChangeDebugLevel,
          Value(int32_t{8}),
          {{kal_EventTimeKey, Value(static_cast<int32_t>(43201))}, {kal_DebugLevel, Value(8)}}},
         false,
         "12:00:01 KALPleaseChangeDebugLevel 8 {KALDebugLevel = 8}"},
        {"a redistributed name key that differs is shown",
         {"Mine",
          Value(),
          {{kal_EventTimeKey, Value(kNoonAndASecond)},
           {kal_NotificationNameKey, Value("Other")},
           {kal_QLXSerialNumberKey, Value("KL1001")}}},
         false,
         "12:00:01 Mine (nil) {KALNotificationName = Other; KALQLXSerialNumberKey = KL1001}"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(format_notification(c.n, c.full), c.line) << c.desc;
}

TEST_F(NotificationFormatTest, WithoutAnEventTimeTheArrivalTimeIsShownAndNoKeyDropped) {
    const Notification n{"Mine", Value("x"), {{kal_EventTimeKey, Value("not a number")}}};
    const std::string line = format_notification(n);
    ASSERT_GE(line.size(), 9u);
    EXPECT_EQ(line.substr(8), " Mine x {KALEventTimeKey = not a number}");
}

TEST(ResponseCodeTest, OnlyTheSuccessfulVariantsCountAsSuccess) {
    for (const char* ok :
         {kal_ResponseCode_OK, kal_ResponseCode_OK_NoAudio, kal_ResponseCode_OK_AudioReceived,
          kal_ResponseCode_OK_FaxWait, kal_ResponseCode_OK_FaxAbort, kal_ResponseCode_OK_FaxWaitEnd,
          kal_ResponseCode_Call_OK})
        EXPECT_TRUE(is_success_response(ok)) << ok;
    for (const char* bad :
         {kal_ResponseCode_ERR_NoResource, kal_ResponseCode_ERR_ResourceBusy,
          kal_ResponseCode_ERR_InternalError, kal_ResponseCode_Call_Busy, "", "KALResponseCodeok"})
        EXPECT_FALSE(is_success_response(bad)) << bad;
}

TEST(ResponseCodeTest, ARequestCompletesOnlyUnderItsOwnToken) {
    const Notification done{kal_RequestComplete, Value("KL1001"), {{kal_Token, Value("t1")}}};
    EXPECT_TRUE(completes(done, "t1"));
    EXPECT_FALSE(completes(done, "t2"));
    const Notification event{kal_VMRecordingStart, Value("KL1001"), {{kal_Token, Value("t1")}}};
    EXPECT_FALSE(completes(event, "t1"));
}

TEST(ResponseCodeTest, MonitorSubscribesToClientNamesNotInternalOnes) {
    const auto& names = daemon_notification_names();
    EXPECT_THAT(names, Contains(kal_RequestComplete));
    EXPECT_THAT(names, Contains(kal_PleaseProvideNextMessageForVMCheck));
    EXPECT_THAT(names, Contains(kal_PleaseChangeDebugLevel));
    EXPECT_THAT(names, Not(Contains(kal_QLXEvent)));
    EXPECT_EQ(names.size(), 17u);
}

}  // namespace
