#pragma once

// One notification as a client receives it, and how a person reads it.

#include <string>
#include <string_view>
#include <vector>

#include "base/value.h"

namespace kal::client {

struct Notification {
    std::string name;    // "KALRingDetect", "RequestComplete", ...
    Value object;        // the adapter's serial for everything the daemon posts
    ValueDict userInfo;  // KALEventTimeKey and the event's own keys
};

// Every notification name the daemon posts itself: the line events, the
// requests its call handling makes of clients, the debug-level broadcast and
// RequestComplete. Names that clients send one another are not among them.
const std::vector<std::string>& daemon_notification_names();

// One line: "12:00:01 KALRingDetect KL1001 {KALQLXNumberKey = 0}". The time
// is the event's KALEventTimeKey in local time (the arrival time when it has
// none). Unless `full`, keys that repeat the line's time, name or serial are
// left out of the braces.
std::string format_notification(const Notification& n, bool full = false);

// The response codes that mean success: KALResponseCodeOK and the
// successful variants (no audio, audio received, fax, placed call OK).
bool is_success_response(std::string_view responseCode);

// The RequestComplete for `token`, if `n` is one.
bool completes(const Notification& n, std::string_view token);

}  // namespace kal::client
