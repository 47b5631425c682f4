#include "service/bus_errors.h"

#include <string>

#include "log/kallog.h"
#include "service/bus_contract.h"
#include "service/bus_values.h"

namespace kal::bus {

int reply_exception(sd_bus_message* call, const KALException& e) {
    return sd_bus_reply_method_errorf(call, kal_ExceptionErrorName, "%s",
                                      as_bus_text(e.reason()).c_str());
}

bool is_communication_error(std::string_view error_name) {
    static constexpr std::string_view kPrefix = "org.freedesktop.DBus.Error.";
    static constexpr std::string_view kUnreachable[] = {
        "ServiceUnknown", "NameHasNoOwner", "NoReply",       "Timeout",
        "TimedOut",       "Disconnected",   "UnknownObject",
    };
    if (!error_name.starts_with(kPrefix))
        return false;
    error_name.remove_prefix(kPrefix.size());
    for (auto name : kUnreachable)
        if (error_name == name)
            return true;
    return false;
}

void log_uncaught(const std::exception& e) {
    const auto* kal = dynamic_cast<const KALException*>(&e);
    const std::string info = kal ? kal->userInfoDescription() : "null userinfo";
    kallog(KAL_ERR, "Uncaught NSException in Listener runloop: %s %s", e.what(), info.c_str());
}

void log_uncaught_unknown() {
    kallog(KAL_ERR, "Uncaught NSException in Listener runloop: %s %s", "(not a std::exception)",
           "null userinfo");
}

}  // namespace kal::bus
