#include "kalctl/session.h"

#include <unistd.h>

#include <ctime>

#include "kalctl/commands.h"
#include "service/vocabulary.h"

namespace kal::kalctl {

void check(const std::string& responseCode) {
    if (responseCode != kal_ResponseCode_OK)
        throw Failure(describe_response_failure(responseCode));
}

std::optional<std::chrono::milliseconds> seconds_option(const Invocation& inv,
                                                        const std::string& option) {
    auto text = inv.value(option);
    if (!text)
        return std::nullopt;
    return std::chrono::seconds(parse_int(inv.command, option, *text, 0, 24 * 3600));
}

std::string made_up_token() {
    return "kalctl-" + std::to_string(getpid()) + "-" + std::to_string(time(nullptr));
}

Session::Session(const GlobalOptions& global)
    : client_(client::ClientOptions{
          .address = global.busAddress,
          .delegatePath = client::kDefaultDelegatePath,
          .identification = global.application + " (kalctl, pid " + std::to_string(getpid()) + ")",
          .callTimeout = {},
      }) {
    client_.setNotificationHandler([this](const client::Notification& n) {
        if (handler_)
            handler_(n);
    });
    const std::string version =
        global.protocolVersion.empty() ? client::kProtocolVersion : global.protocolVersion;
    check(client_.registerApplication(global.application, global.vendor, "", false, version));
}

}  // namespace kal::kalctl
