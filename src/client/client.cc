#include "client/client.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "service/bus_contract.h"
#include "service/bus_values.h"
#include "service/kal_errors.h"
#include "service/vocabulary.h"

namespace kal::client {

namespace {

std::string errno_text(int negative_errno) {
    return std::strerror(-negative_errno);
}

// The arguments of a request, in the contract's types.
struct Path {
    const std::string& path;
};

int append_arg(sd_bus_message* m, const std::string& s) {
    return sd_bus_message_append_basic(m, 's', s.c_str());
}
int append_arg(sd_bus_message* m, int32_t i) {
    return sd_bus_message_append_basic(m, 'i', &i);
}
int append_arg(sd_bus_message* m, uint32_t u) {
    return sd_bus_message_append_basic(m, 'u', &u);
}
int append_arg(sd_bus_message* m, bool b) {
    const int i = b ? 1 : 0;
    return sd_bus_message_append_basic(m, 'b', &i);
}
int append_arg(sd_bus_message* m, const Path& p) {
    return sd_bus_message_append_basic(m, 'o', p.path.c_str());
}
int append_arg(sd_bus_message* m, const std::vector<std::string>& list) {
    int r = sd_bus_message_open_container(m, 'a', "s");
    for (size_t i = 0; r >= 0 && i < list.size(); ++i)
        r = sd_bus_message_append_basic(m, 's', list[i].c_str());
    return r < 0 ? r : sd_bus_message_close_container(m);
}
int append_arg(sd_bus_message* m, const ValueDict& dict) {
    return bus::append_dict(m, dict);
}
int append_arg(sd_bus_message* m, const Value& value) {
    return bus::append_variant(m, value);
}

// A reply that does not read as the contract says is the daemon's fault (or
// a different daemon's): say which method it was.
[[noreturn]] void bad_reply(const char* member, int r) {
    throw BusFailure(SD_BUS_ERROR_INVALID_ARGS,
                     std::string("Unexpected reply to ") + member + ": " + errno_text(r));
}

std::string read_string(sd_bus_message* m, const char* member) {
    const char* s = nullptr;
    const int r = sd_bus_message_read_basic(m, 's', &s);
    if (r <= 0)
        bad_reply(member, r < 0 ? r : -ENXIO);
    return s;
}

std::vector<std::string> read_strings(sd_bus_message* m, const char* member) {
    std::vector<std::string> out;
    int r = sd_bus_message_enter_container(m, 'a', "s");
    const char* s = nullptr;
    while (r > 0 && (r = sd_bus_message_read_basic(m, 's', &s)) > 0)
        out.emplace_back(s);
    if (r >= 0)
        r = sd_bus_message_exit_container(m);
    if (r < 0)
        bad_reply(member, r);
    return out;
}

}  // namespace

BusFailure::BusFailure(std::string name, const std::string& message)
    : std::runtime_error(message), name_(std::move(name)) {}

Client::Client(ClientOptions options) : options_(std::move(options)) {
    sd_bus* raw = nullptr;
    int r;
    if (options_.address.empty()) {
        // Reads DBUS_SYSTEM_BUS_ADDRESS itself.
        r = sd_bus_open_system_with_description(&raw, "kal-client");
        bus_.reset(raw);
    } else {
        r = sd_bus_new(&raw);
        bus_.reset(raw);
        if (r >= 0)
            r = sd_bus_set_address(raw, options_.address.c_str());
        // Without this a bus made by hand is a peer connection: no Hello, no
        // unique name, and the daemon could not call us back.
        if (r >= 0)
            r = sd_bus_set_bus_client(raw, 1);
        if (r >= 0)
            r = sd_bus_start(raw);
    }
    if (r < 0) {
        const char* env = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
        const std::string where = !options_.address.empty() ? options_.address
                                  : env                     ? env
                                                            : "the system bus";
        throw BusFailure("", "Couldn't connect to " + where + ": " + errno_text(r));
    }
    if (options_.callTimeout.count() > 0)
        sd_bus_set_method_call_timeout(bus_.get(), options_.callTimeout.count() * 1000ULL);

    sd_event* ev = nullptr;
    if ((r = sd_event_new(&ev)) < 0)
        throw BusFailure("", "Couldn't create an event loop: " + errno_text(r));
    event_.reset(ev);
    if ((r = sd_bus_attach_event(bus_.get(), ev, SD_EVENT_PRIORITY_NORMAL)) < 0)
        throw BusFailure("", "Couldn't attach the bus to the event loop: " + errno_text(r));

    static const sd_bus_vtable kVtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_NAMES("Ping", "", "", "i", SD_BUS_PARAM(alive), &Client::onPing, 0),
        SD_BUS_METHOD_WITH_NAMES("Identification", "", "", "s", SD_BUS_PARAM(identification),
                                 &Client::onIdentification, 0),
        SD_BUS_METHOD_WITH_NAMES("InjectNotification", "sva{sv}",
                                 SD_BUS_PARAM(name) SD_BUS_PARAM(object) SD_BUS_PARAM(userInfo), "",
                                 "", &Client::onInjectNotification, 0),
        SD_BUS_VTABLE_END,
    };
    sd_bus_slot* slot = nullptr;
    r = sd_bus_add_object_vtable(bus_.get(), &slot, options_.delegatePath.c_str(),
                                 kal_EventReceivingInterface, kVtable, this);
    if (r < 0)
        throw BusFailure("", "Couldn't export " + options_.delegatePath + ": " + errno_text(r));
    delegateSlot_.reset(slot);
}

Client::~Client() {
    // The delegate and the signal sources point at this object: drop them
    // before anything else can dispatch to it.
    delegateSlot_.reset();
    signalSources_.clear();
    sd_bus_detach_event(bus_.get());
}

void Client::setNotificationHandler(NotificationHandler handler) {
    handler_ = std::move(handler);
}

std::string Client::uniqueName() const {
    const char* name = nullptr;
    const int r = sd_bus_get_unique_name(bus_.get(), &name);
    if (r < 0)
        throw BusFailure("", "Couldn't learn our bus name: " + errno_text(r));
    return name;
}

// --- calls -------------------------------------------------------------------

MessagePtr Client::newCall(const char* member) {
    sd_bus_message* raw = nullptr;
    const int r =
        sd_bus_message_new_method_call(bus_.get(), &raw, kal_DO_Server_Name, kal_BusObjectPath,
                                       kal_ActionRequestingInterface, member);
    if (r < 0)
        throw BusFailure("", std::string("Couldn't make a ") + member + " call: " + errno_text(r));
    return MessagePtr(raw);
}

MessagePtr Client::call(sd_bus_message* m) {
    BusError error;
    sd_bus_message* reply = nullptr;
    const int r = sd_bus_call(bus_.get(), m, 0, error.get(), &reply);
    MessagePtr owned(reply);
    if (r >= 0)
        return owned;
    if (!error.is_set())
        throw BusFailure("", std::string("Call to ") + sd_bus_message_get_member(m) +
                                 " failed: " + errno_text(r));
    if (std::strcmp(error.name(), kal_ExceptionErrorName) == 0)
        throw KALExceptionFromReason(error.message());
    throw BusFailure(error.name(), error.message());
}

template <typename... Args>
MessagePtr Client::request(const char* member, const Args&... args) {
    MessagePtr m = newCall(member);
    int r = 0;
    ((r = r < 0 ? r : append_arg(m.get(), args)), ...);
    if (r < 0)
        throw BusFailure("", std::string("Couldn't build a ") + member + " call: " + errno_text(r));
    return call(m.get());
}

template <typename... Args>
std::string Client::requestCode(const char* member, const Args&... args) {
    MessagePtr reply = request(member, args...);
    return read_string(reply.get(), member);
}

// --- registration --------------------------------------------------------------

std::string Client::registerApplication(const std::string& application, const std::string& vendor,
                                        const std::string& credential, bool secondary,
                                        const std::string& protocolVersion) {
    return requestCode("RegisterApplication", application, vendor, credential,
                       Path{options_.delegatePath}, secondary, protocolVersion);
}

void Client::subscribe(const std::string& notificationName) {
    request("Subscribe", Path{options_.delegatePath}, notificationName);
}

void Client::subscribeAll() {
    for (const auto& name : daemon_notification_names())
        subscribe(name);
}

void Client::unRegisterMe() {
    request("UnRegisterMe", Path{options_.delegatePath});
}

void Client::redistributeNotification(const std::string& name, const Value& object,
                                      const ValueDict& userInfo) {
    request("RedistributeNotification", name, object, userInfo);
}

// --- lines and calls -------------------------------------------------------------

std::vector<std::string> Client::resources() {
    MessagePtr reply = request("Resources");
    return read_strings(reply.get(), "Resources");
}

std::vector<std::string> Client::enhancedResources() {
    MessagePtr reply = request("EnhancedResources");
    return read_strings(reply.get(), "EnhancedResources");
}

int32_t Client::deviceTypeForResource(const std::string& serial) {
    MessagePtr reply = request("DeviceTypeForResource", serial);
    int32_t type = -1;
    const int r = sd_bus_message_read_basic(reply.get(), 'i', &type);
    if (r <= 0)
        bad_reply("DeviceTypeForResource", r < 0 ? r : -ENXIO);
    return type;
}

std::string Client::dial(const std::string& digits, const std::string& serial,
                         const std::string& callbackToken, bool waitingForPickup) {
    return requestCode("Dial", digits, serial, callbackToken, waitingForPickup);
}

std::string Client::cancelDialWithCallbackToken(const std::string& token) {
    return requestCode("CancelDialWithCallbackToken", token);
}

std::string Client::placeCallOnResource(const std::string& serial, const std::string& number,
                                        const std::string& token) {
    return requestCode("PlaceCallOnResource", serial, number, token);
}

std::string Client::hangUpResource(const std::string& serial, const std::string& token) {
    return requestCode("HangUpResource", serial, token);
}

std::string Client::performTRVOnResource(const std::string& serial, const std::string& reason,
                                         int32_t vlsMode) {
    return requestCode("PerformTRVOnResource", serial, reason, vlsMode);
}

void Client::fullResourceRescan() {
    request("FullResourceRescan");
}

ValueDict Client::linePreferences() {
    MessagePtr reply = request("LinePreferences");
    ValueDict prefs;
    const int r = bus::read_dict(reply.get(), prefs);
    if (r < 0)
        bad_reply("LinePreferences", r);
    return prefs;
}

void Client::setLinePreferences(const ValueDict& preferences) {
    request("SetLinePreferences", preferences);
}

void Client::setSystemWideDebugLevel(int32_t level, bool writeToFile) {
    request("SetSystemWideDebugLevel", level, writeToFile);
}

// --- call handling ------------------------------------------------------------------

std::string Client::beginVMNodeForResource(const std::string& serial, const std::string& token,
                                           const std::string& ogm, const std::string& icm,
                                           const std::vector<std::string>& choices,
                                           int32_t maxMessageLength, int32_t postOGMPause,
                                           int32_t special, const std::string& firstCalling) {
    return requestCode("BeginVMNodeForResource", serial, token, ogm, icm, choices, maxMessageLength,
                       postOGMPause, special, firstCalling);
}

std::string Client::beginCRNodeForResource(const std::string& serial, const std::string& token,
                                           const std::string& recFile, const std::string& prePlay,
                                           const std::string& postPlay, uint32_t flags) {
    return requestCode("BeginCRNodeForResource", serial, token, recFile, prePlay, postPlay, flags);
}

std::string Client::stopCRNodeForResource(const std::string& serial) {
    return requestCode("StopCRNodeForResource", serial);
}

std::string Client::startScriptNodeForResource(const std::string& serial, const std::string& token,
                                               const std::vector<std::string>& choices,
                                               const std::vector<std::string>& responseChoices,
                                               const std::string& prepicking) {
    return requestCode("StartScriptNodeForResource", serial, token, choices, responseChoices,
                       prepicking);
}

std::string Client::scriptCompletedForResource(const std::string& serial, const std::string& token,
                                               int32_t sequenceNumber,
                                               const std::string& responseAudio) {
    return requestCode("ScriptCompletedForResource", serial, token, sequenceNumber, responseAudio);
}

std::string Client::beginVMCheckNodeForResource(const std::string& serial, const std::string& token,
                                                const std::string& initialGreeting,
                                                const std::string& interMessageGreeting,
                                                int32_t special) {
    return requestCode("BeginVMCheckNodeForResource", serial, token, initialGreeting,
                       interMessageGreeting, special);
}

std::string Client::nextVMCheckMessage(const std::string& serial, const std::string& token,
                                       const std::string& audio) {
    return requestCode("NextVMCheckMessage", serial, token, audio);
}

std::string Client::restartVMCheckNodeForResource(const std::string& serial,
                                                  const std::string& token,
                                                  const std::string& initialGreeting) {
    return requestCode("RestartVMCheckNodeForResource", serial, token, initialGreeting);
}

// --- the delegate object ---------------------------------------------------------------

int Client::onPing(sd_bus_message* m, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(m, "i", int32_t{1});
}

int Client::onIdentification(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const auto* self = static_cast<Client*>(userdata);
    return sd_bus_reply_method_return(m, "s", self->options_.identification.c_str());
}

int Client::onInjectNotification(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<Client*>(userdata);
    Notification n;
    const char* name = nullptr;
    int r = sd_bus_message_read_basic(m, 's', &name);
    if (r > 0) {
        n.name = name;
        r = bus::read_variant(m, n.object);
    }
    if (r >= 0)
        r = bus::read_dict(m, n.userInfo);
    if (r < 0)
        return sd_bus_error_set_errnof(error, -r, "Couldn't read the notification: %m");
    // The daemon only learns that we got it; what we make of it is ours, and
    // no exception may unwind through sd-bus.
    if (self->handler_) {
        try {
            self->handler_(n);
        } catch (...) {
        }
    }
    return sd_bus_reply_method_return(m, nullptr);
}

std::string Client::nameOwner(const std::string& name) {
    BusError error;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call_method(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus", "GetNameOwner", error.get(), &raw, "s",
                                     name.c_str());
    MessagePtr reply(raw);
    if (r < 0) {
        if (sd_bus_error_has_name(error.get(), SD_BUS_ERROR_NAME_HAS_NO_OWNER))
            return "";
        throw BusFailure(error.get()->name ? error.get()->name : "",
                         "GetNameOwner failed: " + errno_text(r));
    }
    return read_string(reply.get(), "GetNameOwner");
}

// --- the loop ---------------------------------------------------------------------------

Client::RunResult Client::run(std::optional<std::chrono::milliseconds> timeout,
                              const std::function<bool()>& done) {
    using clock = std::chrono::steady_clock;
    const auto deadline = timeout ? clock::now() + *timeout : clock::time_point::max();
    for (;;) {
        if (done && done())
            return RunResult::Done;
        if (stopped_) {
            stopped_ = false;
            return RunResult::Stopped;
        }
        uint64_t wait = UINT64_MAX;
        if (timeout) {
            const auto left = deadline - clock::now();
            if (left <= clock::duration::zero())
                return RunResult::TimedOut;
            wait = std::chrono::ceil<std::chrono::microseconds>(left).count();
        }
        const int r = sd_event_run(event_.get(), wait);
        if (r < 0)
            throw BusFailure("", "The event loop failed: " + errno_text(r));
        if (sd_bus_is_open(bus_.get()) <= 0)
            throw BusFailure(SD_BUS_ERROR_DISCONNECTED, "The connection to the bus was closed");
    }
}

void Client::stopOnSignals(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : signals)
        sigaddset(&set, sig);
    // sd-event reads them from a signalfd, which sees only blocked signals.
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    for (int sig : signals) {
        sd_event_source* src = nullptr;
        const int r = sd_event_add_signal(
            event_.get(), &src, sig,
            [](sd_event_source*, const struct signalfd_siginfo* si, void* userdata) {
                auto* self = static_cast<Client*>(userdata);
                self->stopSignal_ = static_cast<int>(si->ssi_signo);
                self->stopped_ = true;
                return 0;
            },
            this);
        if (r < 0)
            throw BusFailure("", std::string("Couldn't watch signal ") + sigabbrev_np(sig) + ": " +
                                     errno_text(r));
        signalSources_.emplace_back(src);
    }
}

}  // namespace kal::client
