#include "client/notification.h"

#include <cstdint>
#include <ctime>

#include "service/vocabulary.h"

namespace kal::client {

const std::vector<std::string>& daemon_notification_names() {
    static const std::vector<std::string> names = {
        kal_RingDetect,
        kal_HookStatus,
        kal_CallerID,
        kal_DigitDialed,
        kal_BusyTone,
        kal_Dialtone,
        kal_DataTone,
        kal_IncomingFaxTone,
        kal_LineReversal,
        kal_FlowControl,
        kal_ResourceAvailabilityChanged,
        kal_PleaseRunActionScriptForCaller,
        kal_PleaseProvideNextMessageForVMCheck,
        kal_PleaseRestartVMCheck,
        kal_VMRecordingStart,
        kal_PleaseChangeDebugLevel,
        kal_RequestComplete,
    };
    return names;
}

namespace {

// KALEventTimeKey travels as x, but a client may have redistributed one of
// any integer width.
bool event_time(const ValueDict& info, time_t& out) {
    auto it = info.find(kal_EventTimeKey);
    if (it == info.end())
        return false;
    const Value& v = it->second;
    if (v.is<int64_t>())
        out = static_cast<time_t>(v.as<int64_t>());
    else if (v.is<int32_t>())
        out = v.as<int32_t>();
    else if (v.is<uint32_t>())
        out = v.as<uint32_t>();
    else if (v.is<uint64_t>())
        out = static_cast<time_t>(v.as<uint64_t>());
    else
        return false;
    return true;
}

}  // namespace

std::string format_notification(const Notification& n, bool full) {
    time_t when = 0;
    const bool has_time = event_time(n.userInfo, when);
    if (!has_time)
        when = time(nullptr);
    struct tm local {};
    localtime_r(&when, &local);
    char clock[16];
    strftime(clock, sizeof clock, "%H:%M:%S", &local);

    std::string line = clock;
    line += ' ';
    line += n.name.empty() ? "(no name)" : n.name;
    line += ' ';
    line += describe(n.object);

    ValueDict shown;
    for (const auto& [key, value] : n.userInfo) {
        if (!full) {
            if (key == kal_EventTimeKey && has_time)
                continue;
            if (key == kal_NotificationNameKey && value.str() == n.name)
                continue;
            if (key == kal_QLXSerialNumberKey && value == n.object)
                continue;
        }
        shown.emplace(key, value);
    }
    line += ' ';
    line += describe(Value(std::move(shown)));
    return line;
}

bool is_success_response(std::string_view code) {
    static constexpr std::string_view kSuccess[] = {
        kal_ResponseCode_OK,
        kal_ResponseCode_OK_NoAudio,
        kal_ResponseCode_OK_AudioReceived,
        kal_ResponseCode_OK_FaxWait,
        kal_ResponseCode_OK_FaxAbort,
        kal_ResponseCode_OK_FaxWaitEnd,
        kal_ResponseCode_Call_OK,
    };
    for (auto s : kSuccess)
        if (code == s)
            return true;
    return false;
}

bool completes(const Notification& n, std::string_view token) {
    if (n.name != kal_RequestComplete)
        return false;
    auto it = n.userInfo.find(kal_Token);
    return it != n.userInfo.end() && it->second.str() == token;
}

}  // namespace kal::client
