#include "answer/bus_service.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "base/unique_fd.h"

namespace kal::answer {

namespace {

BusService* self(void* userdata) {
    return static_cast<BusService*>(userdata);
}

int no_such_message(sd_bus_error* error, int64_t id) {
    return sd_bus_error_setf(error, kAnswerErrorNoSuchMessage, "There is no message %lld.",
                             static_cast<long long>(id));
}

// Store failures reach the caller as text, never as a dead service.
template <typename F>
int guarded(sd_bus_error* error, F&& f) {
    try {
        return f();
    } catch (const std::exception& e) {
        return sd_bus_error_set(error, kAnswerErrorFailed, e.what());
    }
}

// Replies to `m` with an array of `element`, one appended by `append` for
// each of `items`.
template <typename Items, typename Append>
int reply_with_array(sd_bus_message* m, const char* element, const Items& items, Append&& append) {
    sd_bus_message* raw = nullptr;
    int rc = sd_bus_message_new_method_return(m, &raw);
    MessagePtr reply(raw);
    if (rc >= 0)
        rc = sd_bus_message_open_container(raw, 'a', element);
    for (const auto& item : items) {
        if (rc < 0)
            break;
        rc = append(raw, item);
    }
    if (rc >= 0)
        rc = sd_bus_message_close_container(raw);
    return rc < 0 ? rc : sd_bus_send(nullptr, raw, nullptr);
}

// Reads the one argument of a method, then runs `f` guarded.
template <typename T, typename F>
int with_argument(sd_bus_message* m, char type, sd_bus_error* error, F&& f) {
    T value{};
    const int r = sd_bus_message_read_basic(m, type, &value);
    if (r < 0)
        return r;
    return guarded(error, [&] { return f(value); });
}

}  // namespace

// (x id, i mailbox, s line, s number, s name, x received, x duration_ms, s state)
#define KAL_MESSAGE_STRUCT "(xisssxxs)"
// (x id, s line, s number, s name, x started, s outcome, x message_id)
#define KAL_CALL_STRUCT "(xsssxsx)"

void BusService::attach(sd_bus* bus) {
    static const sd_bus_vtable kVtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_NAMES("ListMessages", "i", SD_BUS_PARAM(mailbox), "a" KAL_MESSAGE_STRUCT,
                                 SD_BUS_PARAM(messages), &BusService::onListMessages,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("OpenMessage", "x", SD_BUS_PARAM(id), "h", SD_BUS_PARAM(wav),
                                 &BusService::onOpenMessage, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("DeleteMessage", "x", SD_BUS_PARAM(id), "", ,
                                 &BusService::onDeleteMessage, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("MarkHeard", "x", SD_BUS_PARAM(id), "", , &BusService::onMarkHeard,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("ListCalls", "i", SD_BUS_PARAM(limit), "a" KAL_CALL_STRUCT,
                                 SD_BUS_PARAM(calls), &BusService::onListCalls,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("WebAddress", "", , "s", SD_BUS_PARAM(url),
                                 &BusService::onWebAddress, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_PROPERTY("MessagesWaiting", "u", &BusService::onGetWaiting, 0,
                        SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_SIGNAL_WITH_NAMES("NewMessage", "xisssxxu",
                                 SD_BUS_PARAM(id) SD_BUS_PARAM(mailbox) SD_BUS_PARAM(line)
                                     SD_BUS_PARAM(number) SD_BUS_PARAM(name) SD_BUS_PARAM(received)
                                         SD_BUS_PARAM(duration_ms) SD_BUS_PARAM(waiting),
                                 0),
        SD_BUS_VTABLE_END,
    };
    sd_bus_slot* slot = nullptr;
    int r =
        sd_bus_add_object_vtable(bus, &slot, kAnswerObjectPath, kAnswerInterface, kVtable, this);
    if (r < 0)
        throw std::runtime_error(std::string("cannot export ") + kAnswerObjectPath + ": " +
                                 std::strerror(-r));
    slot_.reset(slot);
    r = sd_bus_request_name(bus, kAnswerBusName, 0);
    if (r < 0) {
        slot_.reset();
        throw std::runtime_error(std::string("cannot own ") + kAnswerBusName +
                                 " on the system bus (" + std::strerror(-r) +
                                 "): is another kal-answer running, or is the D-Bus policy "
                                 "com.orvane.answer.conf not installed?");
    }
    bus_ = bus;
}

void BusService::detach() {
    slot_.reset();
    bus_ = nullptr;
}

void BusService::announce(const Message& m, int waiting) {
    if (!bus_)
        return;
    sd_bus_emit_signal(bus_, kAnswerObjectPath, kAnswerInterface, "NewMessage", "xisssxxu", m.id,
                       m.mailbox, m.line.c_str(), m.callerNumber.c_str(), m.callerName.c_str(),
                       m.received, m.durationMs, static_cast<uint32_t>(waiting));
    waitingChanged();
}

void BusService::waitingChanged() {
    if (bus_)
        sd_bus_emit_properties_changed(bus_, kAnswerObjectPath, kAnswerInterface, "MessagesWaiting",
                                       nullptr);
}

int BusService::onGetWaiting(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                             void* userdata, sd_bus_error* error) {
    return guarded(error, [&] {
        const uint32_t waiting = static_cast<uint32_t>(self(userdata)->store_.waiting());
        return sd_bus_message_append_basic(reply, 'u', &waiting);
    });
}

int BusService::onListMessages(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    return with_argument<int32_t>(m, 'i', error, [&](int32_t mailbox) {
        return reply_with_array(m, KAL_MESSAGE_STRUCT, self(userdata)->store_.messages(mailbox),
                                [](sd_bus_message* reply, const Message& msg) {
                                    return sd_bus_message_append(
                                        reply, KAL_MESSAGE_STRUCT, msg.id, msg.mailbox,
                                        msg.line.c_str(), msg.callerNumber.c_str(),
                                        msg.callerName.c_str(), msg.received, msg.durationMs,
                                        message_state_name(msg.state));
                                });
    });
}

int BusService::onOpenMessage(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    return with_argument<int64_t>(m, 'x', error, [&](int64_t id) {
        MessageStore& store = self(userdata)->store_;
        const auto msg = store.message(id);
        if (!msg || msg->state == MessageState::Deleted)
            return no_such_message(error, id);
        // A descriptor, not a path: the caller may not read the store's
        // folder, and the file may be deleted while it reads.
        unique_fd fd(::open(store.path_of(*msg).c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd)
            return sd_bus_error_setf(error, kAnswerErrorFailed, "Cannot open message %lld: %s",
                                     static_cast<long long>(id), std::strerror(errno));
        return sd_bus_reply_method_return(m, "h", fd.get());
    });
}

int BusService::onDeleteMessage(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    return with_argument<int64_t>(m, 'x', error, [&](int64_t id) {
        if (!self(userdata)->store_.remove(id))
            return no_such_message(error, id);
        self(userdata)->waitingChanged();
        return sd_bus_reply_method_return(m, "");
    });
}

int BusService::onMarkHeard(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    return with_argument<int64_t>(m, 'x', error, [&](int64_t id) {
        if (!self(userdata)->store_.set_state(id, MessageState::Heard))
            return no_such_message(error, id);
        self(userdata)->waitingChanged();
        return sd_bus_reply_method_return(m, "");
    });
}

int BusService::onWebAddress(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    const std::string& url = self(userdata)->webAddress_;
    if (url.empty())
        return sd_bus_error_set(error, kAnswerErrorFailed,
                                "The messages page is off (kal-answer runs with --web-port off).");
    return sd_bus_reply_method_return(m, "s", url.c_str());
}

int BusService::onListCalls(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    return with_argument<int32_t>(m, 'i', error, [&](int32_t limit) {
        return reply_with_array(
            m, KAL_CALL_STRUCT, self(userdata)->store_.calls(limit > 0 ? limit : 100),
            [](sd_bus_message* reply, const CallRecord& c) {
                return sd_bus_message_append(reply, KAL_CALL_STRUCT, c.id, c.line.c_str(),
                                             c.callerNumber.c_str(), c.callerName.c_str(),
                                             c.started, call_outcome_name(c.outcome), c.messageId);
            });
    });
}

}  // namespace kal::answer
