#pragma once

// How failures cross the bus in both directions: a KALException raised in a
// request becomes a com.orvane.KALException error reply, and the error names
// of a failed call to a client tell whether that client is unreachable.
// Every callback the server gives sd-bus or sd-event runs inside guarded(),
// so no exception ever unwinds through C.

#include <systemd/sd-bus.h>

#include <exception>
#include <string_view>

#include "service/kal_errors.h"

namespace kal::bus {

// Answers `call` with the error com.orvane.KALException, message = reason.
int reply_exception(sd_bus_message* call, const KALException& e);

// True for the errors that mean the client is gone or not answering
// (ServiceUnknown, NameHasNoOwner, NoReply, Timeout, TimedOut, Disconnected,
// UnknownObject); any other error is the client's own and is only logged.
bool is_communication_error(std::string_view error_name);

// Logs an exception that escaped to the main loop, at ERR.
void log_uncaught(const std::exception& e);
void log_uncaught_unknown();

// Runs `f`, returning its result, or `fallback` after logging whatever it threw.
template <typename F>
int guarded(int fallback, F&& f) noexcept {
    try {
        return f();
    } catch (const std::exception& e) {
        log_uncaught(e);
    } catch (...) {
        log_uncaught_unknown();
    }
    return fallback;
}

}  // namespace kal::bus
