#pragma once

// What kalctl's commands share: one registered connection for the length of
// a command, and the helpers that turn what a
// person typed into what the daemon is sent.

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "client/client.h"
#include "client/notification.h"
#include "kalctl/cli.h"

namespace kal::kalctl {

// Throws Failure with the user text of `responseCode` unless it is
// KALResponseCodeOK.
void check(const std::string& responseCode);

// The seconds of an option, or nullopt when it was not given. Throws
// UsageError.
std::optional<std::chrono::milliseconds> seconds_option(const Invocation& inv,
                                                        const std::string& option);

// A token for a request that was given none.
std::string made_up_token();

// One connection, registered, for the length of a command.
class Session {
  public:
    // Connects and registers; throws BusFailure, KALException or Failure.
    explicit Session(const GlobalOptions& global);

    client::Client& client() { return client_; }
    void onNotification(std::function<void(const client::Notification&)> handler) {
        handler_ = std::move(handler);
    }

  private:
    client::Client client_;
    std::function<void(const client::Notification&)> handler_;
};

}  // namespace kal::kalctl
