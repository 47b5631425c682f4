#pragma once

// The client side of kal-answer's D-Bus interface (com.orvane.KALAnswer,
// data/dbus/com.orvane.answer.xml): what kalctl messages/calls use.
//
// Thread-aware, not thread-safe.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "service/sd_bus_handles.h"

namespace kal::answer {

// A failed call: kal-answer is not running, refused, or the message is not
// there. `name` is the D-Bus error name.
class AnswerError : public std::runtime_error {
  public:
    AnswerError(std::string name, const std::string& message)
        : std::runtime_error(message), name_(std::move(name)) {}
    const std::string& name() const { return name_; }

  private:
    std::string name_;
};

struct MessageInfo {
    int64_t id = 0;
    int32_t mailbox = 0;
    std::string line;
    std::string callerNumber;
    std::string callerName;
    int64_t received = 0;
    int64_t durationMs = 0;
    std::string state;
};

struct CallInfo {
    int64_t id = 0;
    std::string line;
    std::string callerNumber;
    std::string callerName;
    int64_t started = 0;
    std::string outcome;
    int64_t messageId = 0;
};

class AnswerClient {
  public:
    // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS may point
    // elsewhere). Throws AnswerError.
    AnswerClient();

    std::vector<MessageInfo> listMessages(int32_t mailbox = 0);
    // A read-only descriptor of the message's WAV file.
    unique_fd openMessage(int64_t id);
    void deleteMessage(int64_t id);
    void markHeard(int64_t id);
    std::vector<CallInfo> listCalls(int32_t limit = 100);
    uint32_t messagesWaiting();
    // The messages page's URL, token included.
    std::string webAddress();

  private:
    MessagePtr call(const char* member, const char* types, ...);

    BusPtr bus_;
};

}  // namespace kal::answer
