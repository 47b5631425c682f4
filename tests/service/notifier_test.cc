#include "service/notifier.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "base/clock.h"
#include "service/vocabulary.h"

using namespace kal;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// Records every notification posted while it lives.
class Recorder {
  public:
    Recorder() {
        id_ = NotificationCenter::defaultCenter().addObserver(
            "", [this](const Notification& n) { seen.push_back(n); });
    }
    ~Recorder() { NotificationCenter::defaultCenter().removeObserver(id_); }
    std::vector<std::string> event_names() const {
        std::vector<std::string> names;
        for (const auto& n : seen) {
            auto it = n.userInfo.find(kal_NotificationNameKey);
            names.push_back(it == n.userInfo.end() ? "(" + n.name + ")" : it->second.str());
        }
        return names;
    }
    std::vector<Notification> seen;

  private:
    NotificationCenter::ObserverId id_;
};

const Value* key(const Notification& n, const char* k) {
    auto it = n.userInfo.find(k);
    return it == n.userInfo.end() ? nullptr : &it->second;
}

class NotifierTest : public ::testing::Test {
  protected:
    void SetUp() override { set_clock(&clock_); }
    void TearDown() override { set_clock(nullptr); }
    void event(const std::string& bytes, int qlx = 0, const char* serial = "A1") {
        handle_qlx_message(bytes.data(), static_cast<int>(bytes.size()), qlx, serial);
    }
    ManualClock clock_{1700000000};
    Recorder rec_;
};

TEST_F(NotifierTest, LineEventsBecomeNamedQlxEvents) {
    event("R");
    event(std::string("#5", 2));
    event("#");
    event(std::string("XJane Doe\0junk", 14));
    event("X");
    event("c");
    event("o");
    event("u");
    ASSERT_THAT(rec_.event_names(), ElementsAre("KALRingDetect", "KALDigitDialed", "KALDigitDialed",
                                                "KALCallerID", "KALCallerID", "KALIncomingFaxTone",
                                                "KALFlowControl", "KALFlowControl"));
    for (const auto& n : rec_.seen) {
        EXPECT_EQ(n.name, "qlx_event");
        EXPECT_EQ(n.object.str(), "A1");
        EXPECT_EQ(key(n, kal_QLXSerialNumberKey)->str(), "A1");
        EXPECT_EQ(key(n, kal_QLXNumberKey)->as<int32_t>(), 0);
        EXPECT_EQ(key(n, kal_EventTimeKey)->as<int64_t>(), 1700000000);
    }
    EXPECT_EQ(key(rec_.seen[1], kal_DigitContentsKey)->str(), "5");
    EXPECT_EQ(key(rec_.seen[2], kal_DigitContentsKey), nullptr);
    EXPECT_EQ(key(rec_.seen[3], kal_CallerIDContentsKey)->str(), "Jane Doe");
    EXPECT_EQ(key(rec_.seen[4], kal_CallerIDContentsKey), nullptr);
    EXPECT_EQ(key(rec_.seen[6], kal_FlowControlContentsKey)->as<int32_t>(), 1);
    EXPECT_EQ(key(rec_.seen[7], kal_FlowControlContentsKey)->as<int32_t>(), 0);
}

TEST_F(NotifierTest, NodeOnlyAndUnknownEventsPostNothing) {
    event("/");
    event("S");
    event("s");
    event("^");
    event("H");
    event("\x7f");
    event("");
    EXPECT_THAT(rec_.seen, IsEmpty());
}

TEST_F(NotifierTest, OffHookSetCountsAdaptersNotEvents) {
    event("P", 0, "A1");
    event("P", 0, "A1");
    event("P", 1, "B2");
    event("p", 0, "A1");
    std::vector<int32_t> counts, hooks;
    for (const auto& n : rec_.seen) {
        counts.push_back(key(n, kal_OffHookCount)->as<int32_t>());
        hooks.push_back(key(n, kal_HookContentsKey)->as<int32_t>());
    }
    EXPECT_THAT(counts, ElementsAre(1, 1, 2, 1));
    EXPECT_THAT(hooks, ElementsAre(0, 0, 0, 1));
    EXPECT_THAT(Notifier::soleInstance().offHookSet(), ElementsAre("B2"));
}

TEST_F(NotifierTest, VanishedOffHookAdapterGetsASynthesisedOnHookFirst) {
    event("P", 3, "C3");
    rec_.seen.clear();
    report_disconnected_resource("C3");
    ASSERT_THAT(rec_.event_names(), ElementsAre("KALHookStatus", "KALResourceAvailabilityChanged"));
    EXPECT_EQ(key(rec_.seen[0], kal_QLXNumberKey)->as<int32_t>(), -1);
    EXPECT_EQ(key(rec_.seen[0], kal_HookContentsKey)->as<int32_t>(), 1);
    EXPECT_EQ(key(rec_.seen[1], kal_ResourceAvailabilityKey)->as<int32_t>(), 0);
    EXPECT_THAT(Notifier::soleInstance().offHookSet(), IsEmpty());

    rec_.seen.clear();
    report_available_resource("C3");  // on hook: no synthesised event
    ASSERT_THAT(rec_.event_names(), ElementsAre("KALResourceAvailabilityChanged"));
    EXPECT_EQ(key(rec_.seen[0], kal_ResourceAvailabilityKey)->as<int32_t>(), 1);
}

TEST_F(NotifierTest, AutodialedDigitsPostOneEventPerDialableDigit) {
    report_autodialed_digits("tok", "12x#", "A1");
    ASSERT_EQ(rec_.seen.size(), 3u);
    std::vector<std::string> digits;
    for (const auto& n : rec_.seen) {
        digits.push_back(key(n, kal_DigitContentsKey)->str());
        EXPECT_EQ(key(n, kal_MassDigitContentsKey)->str(), "12x#");
        EXPECT_EQ(key(n, kal_Token)->str(), "tok");
    }
    EXPECT_THAT(digits, ElementsAre("1", "2", "#"));
    rec_.seen.clear();
    report_autodialed_digits("tok", "", "A1");
    EXPECT_THAT(rec_.seen, IsEmpty());
}

TEST_F(NotifierTest, RequestCompletionsCarryNoEventName) {
    notify_dial_success("t1", "5551234", "A1");
    notify_cmd_failure("t2", kal_ResponseCode_ERR_NoResource, std::nullopt);
    report_vmnode_complete("t3", kal_ResponseCode_OK_NoAudio, '0', 1, "A1");
    report_call_placed("t4", kal_ResponseCode_Call_Busy, "BUSY", "A1");
    report_script_session_complete("t5", kal_ResponseCode_OK, '#', 0, "A1");
    ASSERT_EQ(rec_.seen.size(), 4u);
    for (const auto& n : rec_.seen) {
        EXPECT_EQ(n.name, "RequestComplete");
        EXPECT_EQ(key(n, kal_NotificationNameKey), nullptr);
        EXPECT_NE(key(n, kal_EventTimeKey), nullptr);
    }
    EXPECT_EQ(key(rec_.seen[0], kal_ResponseCode)->str(), "KALResponseCodeOK");
    EXPECT_EQ(key(rec_.seen[0], kal_OriginalRequestKey)->str(), "KALPleaseDial");
    EXPECT_EQ(key(rec_.seen[0], kal_Request_DialString)->str(), "5551234");
    EXPECT_EQ(key(rec_.seen[1], kal_QLXSerialNumberKey), nullptr);
    EXPECT_EQ(key(rec_.seen[1], kal_ResponseCode)->str(), "KALResponseCodeERRNoResource");
    EXPECT_EQ(key(rec_.seen[2], kal_DigitContentsKey)->str(), "0");
    EXPECT_EQ(key(rec_.seen[2], kal_HookContentsKey)->as<int32_t>(), 1);
    EXPECT_EQ(key(rec_.seen[3], kal_ModemResponse)->str(), "BUSY");
}

TEST_F(NotifierTest, NodeRequestsToClientsAreNamedQlxEvents) {
    request_script_execution("t", 7, "42#", "A1");
    vmcheck_request_next("t", "A1", kal_VMCheck_Disposition_Save, kal_VMCheck_Filter_Unheard);
    vmcheck_request_restart("t", "A1");
    report_vm_record_start("t", "A1");
    EXPECT_THAT(rec_.event_names(), ElementsAre("KALPleaseRunActionScriptForCaller",
                                                "kal_PleaseProvideNextMessageForVMCheck",
                                                "KALPleaseRestartVMCheck", "KALVMRecordingStart"));
    EXPECT_EQ(key(rec_.seen[0], kal_SequenceNumber)->as<int32_t>(), 7);
    EXPECT_EQ(key(rec_.seen[0], kal_DigitContentsKey)->str(), "42#");
    EXPECT_EQ(key(rec_.seen[1], kal_VMCheckPresentMessageDisposition)->str(), "KALDispositionSave");
    EXPECT_EQ(key(rec_.seen[1], kal_VMCheck_Filter)->str(), "KALFilterUnheard");
}

}  // namespace
