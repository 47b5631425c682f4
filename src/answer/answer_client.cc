#include "answer/answer_client.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "answer/bus_service.h"

namespace kal::answer {

namespace {

[[noreturn]] void bad_reply(const char* member, int r) {
    throw AnswerError(SD_BUS_ERROR_INVALID_ARGS,
                      std::string("unexpected reply to ") + member + ": " + std::strerror(-r));
}

// Reads an array of `element` from `reply`, one item at a time by `read`
// (which returns what sd_bus_message_read returned).
template <typename Item, typename Read>
std::vector<Item> read_array(sd_bus_message* reply, const char* member, const char* element,
                             Read&& read) {
    std::vector<Item> out;
    int r = sd_bus_message_enter_container(reply, 'a', element);
    while (r > 0) {
        Item item;
        if ((r = read(item)) <= 0)
            break;
        out.push_back(std::move(item));
    }
    if (r < 0)
        bad_reply(member, r);
    return out;
}

}  // namespace

AnswerClient::AnswerClient() {
    sd_bus* raw = nullptr;
    const int r = sd_bus_open_system_with_description(&raw, "kal-answer-client");
    bus_.reset(raw);
    if (r < 0)
        throw AnswerError("",
                          std::string("cannot connect to the system bus: ") + std::strerror(-r));
}

MessagePtr AnswerClient::call(const char* member, const char* types, ...) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus_.get(), &raw, kAnswerBusName, kAnswerObjectPath,
                                           kAnswerInterface, member);
    MessagePtr m(raw);
    if (r >= 0 && types && *types) {
        va_list ap;
        va_start(ap, types);
        r = sd_bus_message_appendv(m.get(), types, ap);
        va_end(ap);
    }
    if (r < 0)
        throw AnswerError("", std::string("cannot build ") + member + ": " + std::strerror(-r));
    BusError error;
    sd_bus_message* reply = nullptr;
    r = sd_bus_call(bus_.get(), m.get(), 0, error.get(), &reply);
    MessagePtr out(reply);
    if (r < 0) {
        const char* name = error.get()->name ? error.get()->name : "";
        if (!std::strcmp(name, SD_BUS_ERROR_SERVICE_UNKNOWN) ||
            !std::strcmp(name, SD_BUS_ERROR_NAME_HAS_NO_OWNER))
            throw AnswerError(name, "kal-answer is not running (no one owns " +
                                        std::string(kAnswerBusName) + " on the system bus)");
        if (!std::strcmp(name, SD_BUS_ERROR_ACCESS_DENIED))
            throw AnswerError(name,
                              "the system bus does not let you talk to kal-answer: run "
                              "as root or as a member of the group kal");
        throw AnswerError(name, error.get()->message ? error.get()->message : std::strerror(-r));
    }
    return out;
}

std::vector<MessageInfo> AnswerClient::listMessages(int32_t mailbox) {
    MessagePtr reply = call("ListMessages", "i", mailbox);
    return read_array<MessageInfo>(reply.get(), "ListMessages", "(xisssxxs)", [&](MessageInfo& m) {
        const char *line, *number, *name, *state;
        const int r = sd_bus_message_read(reply.get(), "(xisssxxs)", &m.id, &m.mailbox, &line,
                                          &number, &name, &m.received, &m.durationMs, &state);
        if (r > 0) {
            m.line = line;
            m.callerNumber = number;
            m.callerName = name;
            m.state = state;
        }
        return r;
    });
}

unique_fd AnswerClient::openMessage(int64_t id) {
    MessagePtr reply = call("OpenMessage", "x", id);
    int fd = -1;
    const int r = sd_bus_message_read_basic(reply.get(), 'h', &fd);
    if (r <= 0)
        bad_reply("OpenMessage", r < 0 ? r : -ENXIO);
    // The message owns the descriptor it read.
    unique_fd own(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
    if (!own)
        throw AnswerError("", std::string("cannot keep the descriptor: ") + std::strerror(errno));
    return own;
}

void AnswerClient::deleteMessage(int64_t id) {
    call("DeleteMessage", "x", id);
}

void AnswerClient::markHeard(int64_t id) {
    call("MarkHeard", "x", id);
}

std::vector<CallInfo> AnswerClient::listCalls(int32_t limit) {
    MessagePtr reply = call("ListCalls", "i", limit);
    return read_array<CallInfo>(reply.get(), "ListCalls", "(xsssxsx)", [&](CallInfo& c) {
        const char *line, *number, *name, *outcome;
        const int r = sd_bus_message_read(reply.get(), "(xsssxsx)", &c.id, &line, &number, &name,
                                          &c.started, &outcome, &c.messageId);
        if (r > 0) {
            c.line = line;
            c.callerNumber = number;
            c.callerName = name;
            c.outcome = outcome;
        }
        return r;
    });
}

uint32_t AnswerClient::messagesWaiting() {
    BusError error;
    uint32_t waiting = 0;
    const int r =
        sd_bus_get_property_trivial(bus_.get(), kAnswerBusName, kAnswerObjectPath, kAnswerInterface,
                                    "MessagesWaiting", error.get(), 'u', &waiting);
    if (r < 0)
        throw AnswerError(error.get()->name ? error.get()->name : "",
                          error.get()->message ? error.get()->message : std::strerror(-r));
    return waiting;
}

std::string AnswerClient::webAddress() {
    MessagePtr reply = call("WebAddress", "");
    const char* url = nullptr;
    const int r = sd_bus_message_read_basic(reply.get(), 's', &url);
    if (r < 0)
        bad_reply("WebAddress", r);
    return url;
}

}  // namespace kal::answer
