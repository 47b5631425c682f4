#pragma once

// Running one kalctl invocation against the daemon.

#include <iosfwd>
#include <string>

#include "kalctl/cli.h"

namespace kal::kalctl {

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;    // the daemon refused, or the request failed
inline constexpr int kExitUsage = 2;     // a mistake on the command line
inline constexpr int kExitNoDaemon = 3;  // the bus or the daemon could not be reached

// Runs `inv` (help and version included) and returns the exit status.
// Normal output goes to `out`, one flushed line at a time; errors to `err`.
int run(const Invocation& inv, std::ostream& out, std::ostream& err);

// What kalctl says about a failed response code: the user text, then the code.
std::string describe_response_failure(const std::string& responseCode);

// What kalctl says when the bus fails, by D-Bus error name.
std::string describe_bus_failure(const std::string& errorName, const std::string& message);

}  // namespace kal::kalctl
