// Line and call requests: listing lines, dialing, placing calls, hanging up,
// timed reversals, rescans, line preferences and the system-wide log level.
//
// Nothing here talks to a line monitor: each request becomes an lm_todo for
// the line event thread (add_todo), or a dial parked in the device table
// until a line goes off hook. Parked dials are set, tested and cancelled
// under the device-table lock, which is never held across add_todo.

#include <cxxabi.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <typeinfo>

#include "base/fatal.h"
#include "base/paths.h"
#include "base/unique_fd.h"
#include "core/device_table.h"
#include "core/qlxconfig.h"
#include "core/shutdown.h"
#include "lineio/intrapc.h"
#include "lineio/protocol.h"
#include "lineio/request_queue.h"
#include "log/kallog.h"
#include "service/kal_errors.h"
#include "service/request_limits.h"
#include "service/requests.h"
#include "service/spokesman.h"
#include "service/vocabulary.h"

namespace kal::requests {

namespace {

// A text argument as the log shows it.
const char* text_or_null(const OptString& s) {
    return s ? s->c_str() : "(null)";
}

// The exception being handled, as the guards log it.
struct Caught {
    std::string name;
    std::string reason;
    std::string userInfo;
};

std::string type_name(const std::type_info& type) {
    int status = 0;
    std::unique_ptr<char, decltype(&free)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &free);
    return status == 0 && name ? name.get() : type.name();
}

// Only inside a catch block.
Caught caught_exception() {
    try {
        throw;
    } catch (const KALException& e) {
        return {e.name(), e.reason(), e.userInfoDescription()};
    } catch (const std::exception& e) {
        return {type_name(typeid(e)), e.what(), "null userinfo"};
    } catch (...) {
        return {"unknown exception", "", "null userinfo"};
    }
}

// Runs `body`; an exception is handed to `report` and answered with the
// internal error.
template <typename Body, typename Report>
std::string guarded(Body&& body, Report&& report) {
    try {
        return body();
    } catch (...) {
        report(caught_exception());
        return kal_ResponseCode_ERR_InternalError;
    }
}

std::unique_ptr<lm_todo> new_todo(int type, const std::string& serial) {
    try {
        auto todo = std::make_unique<lm_todo>();
        todo->type = type;
        todo->serial = serial;
        return todo;
    } catch (const std::bad_alloc&) {
        kallog(KAL_ERR, "Malloc of todo record failed. Quitting.");
        dm_exit(1);
    }
}

std::string new_call_record(const std::string& token, const std::string& number) {
    try {
        lm::lm_call_request call;
        call.token = token;
        call.number = number;
        // Each text is cut to its field, NUL-terminated.
        return lm::build_call_request(call);
    } catch (const std::bad_alloc&) {
        kallog(KAL_ERR, "Malloc of call request record failed. Quitting.");
        dm_exit(1);
    }
}

// Serials of the lines that are up, in table order; with `enhancedOnly`,
// of the second adapter model only.
StringList up_lines(bool enhancedOnly) {
    StringList serials;
    DeviceTableLock lock(kTableRead);
    for (const qlx& rec : gLines)
        if (rec.status() == QLX_STATUS_UP && (!enhancedOnly || rec.deviceType == 2))
            serials.push_back(rec.serial);
    return serials;
}

// A dial for whichever line goes off hook first.
std::string park_wildcard_dial(const std::string& digits, const OptString& token) {
    DeviceTableLock lock(kTableChange);
    if (gWildcardDialPending)
        return kal_ResponseCode_ERR_ResourceBusy;
    if (!any_line_up())
        return kal_ResponseCode_ERR_NoResource;
    gWildcardDialPending = digits;
    gWildcardDialToken = token;
    return kal_ResponseCode_OK;
}

// A dial for one line's next off-hook, whatever its state now.
std::string park_line_dial(const std::string& serial, const std::string& digits,
                           const OptString& token) {
    DeviceTableLock lock(kTableChange);
    qlx* rec = line_by_serial(serial);
    if (!rec)
        return kal_ResponseCode_ERR_NoResource;
    if (rec->pendingDial)
        return kal_ResponseCode_ERR_ResourceBusy;
    rec->pendingDial = digits;
    rec->pendingDialToken = token;
    return kal_ResponseCode_OK;
}

void write_debuglevel_file(int32_t level) {
    const std::string path = debuglevel_path();
    unlink(path.c_str());
    // rw-r--r-- set on the file itself: the creation mask is process-wide
    // and the log facility changes it on other threads.
    unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd) {
        const int e = errno;
        kallog(KAL_ERR, "Couldn't create debuglevel file '%s' (%d-%s)", path.c_str(), e,
               strerror(e));
        return;
    }
    // The level as one binary byte (not a digit), then a line feed.
    const char bytes[2] = {static_cast<char>(level), '\n'};
    if (fchmod(fd.get(), 0644) != 0 || write(fd.get(), bytes, sizeof bytes) != sizeof bytes) {
        const int e = errno;
        kallog(KAL_ERR, "Couldn't write debuglevel file '%s' (%d-%s)", path.c_str(), e,
               strerror(e));
    }
}

}  // namespace

StringList resources(const Caller&) {
    try {
        kallog(KAL_DEBUG, "resources called");
        return up_lines(false);
    } catch (...) {
        const Caught e = caught_exception();
        kallog(KAL_ERR, "Exception occurred in resources: %s userInfo: %s", e.reason.c_str(),
               e.userInfo.c_str());
        return {};
    }
}

StringList enhancedResources(const Caller&) {
    try {
        kallog(KAL_DEBUG, "enhancedResources called");
        return up_lines(true);
    } catch (...) {
        const Caught e = caught_exception();
        kallog(KAL_ERR, "Exception occurred in enhancedResources: %s userInfo: %s",
               e.reason.c_str(), e.userInfo.c_str());
        return {};
    }
}

int32_t deviceTypeForResource(const Caller&, const OptString& serial) {
    DeviceTableLock lock(kTableRead);
    const qlx* rec = line_by_serial(serial.value_or(""));
    return rec ? rec->deviceType : -1;
}

std::string dial(const Caller&, const OptString& digits, const OptString& serial,
                 const OptString& callbackToken, bool waitingForPickup) {
    return guarded(
        [&]() -> std::string {
            kallog(KAL_DEBUG, "dial:'%s' onResource:%s callbackToken:%s called",
                   text_or_null(digits), text_or_null(serial), text_or_null(callbackToken));
            if (!digits || !limits::fits(digits, limits::kDialString) ||
                !limits::fits(serial, limits::kSerial) ||
                !limits::fits(callbackToken, limits::kToken))
                return kal_ResponseCode_ERR_MalformedRequest;
            if (waitingForPickup) {
                // Carried out by the line event thread at the next off-hook.
                return serial ? park_line_dial(*serial, *digits, callbackToken)
                              : park_wildcard_dial(*digits, callbackToken);
            }
            if (!serial)
                return kal_ResponseCode_ERR_MalformedRequest;
            kallog(KAL_DEBUG, "Processing JetDial request");
            auto todo = new_todo(REQ_DIAL, *serial);
            todo->data = *digits;
            todo->token = callbackToken;
            add_todo(std::move(todo));
            return kal_ResponseCode_OK;
        },
        [](const Caught& e) {
            kallog(KAL_ERR, "Exception occurred in dial:onResource:callbackToken: %s userInfo: %s",
                   e.reason.c_str(), e.userInfo.c_str());
        });
}

std::string cancelDialWithCallbackToken(const Caller&, const OptString& token) {
    return guarded(
        [&]() -> std::string {
            kallog(KAL_DEBUG, "cancelDialWithCallbackToken: '%s' called", text_or_null(token));
            if (!token || !limits::fits(token, limits::kToken))
                return kal_ResponseCode_ERR_MalformedRequest;
            DeviceTableLock lock(kTableChange);
            if (gWildcardDialToken == token) {
                kallog(KAL_DEBUG, "Found token. Cancelling dial of %s",
                       gWildcardDialPending ? gWildcardDialPending->c_str() : "nil");
                gWildcardDialPending.reset();
                gWildcardDialToken.reset();
                return kal_ResponseCode_OK;
            }
            if (qlx* rec = line_by_dial_token(*token)) {
                kallog(KAL_DEBUG, "Found token. Cancelling dial of %s on line %s",
                       rec->pendingDial ? rec->pendingDial->c_str() : "nil", rec->serial.c_str());
                rec->pendingDialToken.reset();
                rec->pendingDial.reset();
                return kal_ResponseCode_OK;
            }
            kallog(KAL_DEBUG, "No such token found. Can't cancel.");
            return kal_ResponseCode_ERR_NoResource;
        },
        [](const Caught& e) {
            kallog(KAL_ERR, "Exception occurred in cancelDialWithCallbackToken: %s userInfo: %s",
                   e.reason.c_str(), e.userInfo.c_str());
        });
}

std::string placeCallOnResource(const Caller&, const OptString& serial, const OptString& number,
                                const OptString& token) {
    return guarded(
        [&]() -> std::string {
            if (!serial || !number || !token || !limits::fits(serial, limits::kSerial) ||
                !limits::fits(number, limits::kNumber) || !limits::fits(token, limits::kToken))
                return kal_ResponseCode_ERR_MalformedRequest;
            kallog(KAL_DEBUG, "Received Place Call request on serial %s for %s with token %s",
                   serial->c_str(), number->c_str(), token->c_str());
            auto todo = new_todo(REQ_CALL, *serial);
            // The token travels in the call record; the line monitor echoes
            // it when the call is placed.
            todo->data = new_call_record(*token, *number);
            add_todo(std::move(todo));
            return kal_ResponseCode_OK;
        },
        [](const Caught& e) {
            kallog(KAL_ERR, "Exception occurred in TRV request: %s (%s)", e.name.c_str(),
                   e.reason.c_str());
        });
}

std::string hangUpResource(const Caller&, const OptString& serial, const OptString& token) {
    return guarded(
        [&]() -> std::string {
            // The token is required although nothing uses it.
            if (!serial || !token || !limits::fits(serial, limits::kSerial) ||
                !limits::fits(token, limits::kToken))
                return kal_ResponseCode_ERR_MalformedRequest;
            kallog(KAL_DEBUG, "Received Hangup request for device %s", serial->c_str());
            add_todo(new_todo(REQ_HANGUP, *serial));
            return kal_ResponseCode_OK;
        },
        [](const Caught& e) {
            kallog(KAL_ERR, "Exception occurred in Hangup request: %s (%s)", e.name.c_str(),
                   e.reason.c_str());
        });
}

std::string performTRVOnResource(const Caller&, const OptString& serial, const OptString& reason,
                                 int32_t vlsMode) {
    return guarded(
        [&]() -> std::string {
            if (!serial || !reason || !limits::fits(serial, limits::kSerial) ||
                !limits::fits(reason, limits::kTRVText))
                return kal_ResponseCode_ERR_MalformedRequest;
            kallog(KAL_DEBUG, "Received TRV request for %s", reason->c_str());
            auto todo = new_todo(REQ_TRV, *serial);
            todo->data = *reason;
            todo->value = vlsMode;
            add_todo(std::move(todo));
            return kal_ResponseCode_OK;
        },
        [](const Caught& e) {
            kallog(KAL_ERR, "Exception occurred in TRV request: %s (%s)", e.name.c_str(),
                   e.reason.c_str());
        });
}

void fullResourceRescan(const Caller&) {
    kallog(KAL_DEBUG, "fullResourceRescan requested. Lock and set full rescan flag");
    {
        DeviceTableLock lock(kTableChange);
        gMustRescan = 1;
    }
    kallog(KAL_DEBUG, "Request rescan from lineisr");
    const int n = wake_lineisr_for_rescan();
    if (n != 1) {
        const int e = errno;
        kallog(KAL_WARN,
               "Couldn't wake up linemonitor service thread. Write returned %d. (%d-%s). Not "
               "quitting and not trying again.",
               n, e, strerror(e));
    }
    kallog(KAL_DEVEL, "Signal lineisr complete. return=%d", n);
}

void setLinePreferences(const Caller&, const ValueDict& preferences) {
    kallog(KAL_DEBUG, "Writing new line preferences: %s", describe(Value(preferences)).c_str());
    if (preferences.empty())
        return;
    const std::string path = qlxconfig_path();
    if (!write_line_preferences(path, preferences)) {
        const int e = errno;
        kallog(KAL_ERR, "Couldn't write line preferences to '%s' (%d-%s)", path.c_str(), e,
               strerror(e));
    }
}

std::optional<ValueDict> linePreferences(const Caller&) {
    return read_line_preferences(qlxconfig_path());
}

void setSystemWideDebugLevel(const Caller&, int32_t level, bool writeToFile) {
    kalsetcurrentloglevel(static_cast<unsigned>(level));
    if (writeToFile)
        write_debuglevel_file(level);
    kill_children_with_signal(SIGUSR1);
    // Clients change their own level too.
    if (KALSpokesman* spokesman = KALSpokesman::current())
        spokesman->redistributeNotification(Notification{
            kal_PleaseChangeDebugLevel, Value(level), {{kal_DebugLevel, Value(level)}}});
}

}  // namespace kal::requests
