#include "service/client_links.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <list>
#include <type_traits>

#include "service/bus_contract.h"
#include "service/bus_errors.h"
#include "service/bus_values.h"

namespace kal {

using Clock = std::chrono::steady_clock;

// One InjectNotification in flight. Its address is the call's userdata, so
// it stays where it is until the reply came or the link went.
struct ClientLinks::Call {
    Link& link;
    size_t bytes;
    Clock::time_point sent;
    SlotPtr slot;
};

struct ClientLinks::Link {
    ClientLinks& owner;
    Proxy proxy;
    std::deque<ParcelPtr> waiting;  // not yet sent, oldest first
    std::list<Call> inFlight;       // sent, not yet answered, oldest first
    size_t bytes = 0;               // of the parcels waiting and in flight
    SlotPtr ping;                   // the Ping in flight
    Clock::time_point pingSent;
};

namespace {

size_t footprint(const Value& value);

// A dictionary's entries, roughly as the heap sees them: a tree node, the
// key and the value each.
size_t footprint(const ValueDict& dict) {
    constexpr size_t kNode = 4 * sizeof(void*);  // colour, parent, children
    size_t total = 0;
    for (const auto& [key, element] : dict)
        total += kNode + sizeof(std::string) + key.size() + footprint(element);
    return total;
}

// What a value holds, roughly as the heap sees it: the value itself and the
// characters of its texts.
size_t footprint(const Value& value) {
    const size_t held = std::visit(
        [](const auto& v) -> size_t {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, Bytes>)
                return v.size();
            else if constexpr (std::is_same_v<T, ValueDict>)
                return footprint(v);
            else if constexpr (std::is_same_v<T, ValueArray>) {
                size_t total = 0;
                for (const auto& element : v)
                    total += footprint(element);
                return total;
            } else
                return 0;
        },
        value.v);
    return sizeof(Value) + held;
}

long seconds_since(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - t).count());
}

// A failure of our own (the call could not even be sent) under the name
// sd-bus gives the errno.
CallFailure local_failure(int negative_errno) {
    BusError e;
    sd_bus_error_set_errno(e.get(), -negative_errno);
    return {e.name(), e.message(), 0, false};
}

CallFailure reply_failure(sd_bus_message* reply, Clock::time_point sent) {
    const sd_bus_error* e = sd_bus_message_get_error(reply);
    std::string name = e && e->name ? e->name : "";
    std::string message = e && e->message ? e->message : "";
    const bool unreachable = bus::is_communication_error(name);
    return {std::move(name), std::move(message), seconds_since(sent), unreachable};
}

int new_call(sd_bus* bus, const Proxy& proxy, const char* member, MessagePtr& out) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, proxy.sender.c_str(), proxy.path.c_str(),
                                           kal_EventReceivingInterface, member);
    out.reset(raw);
    return r;
}

int new_delivery(sd_bus* bus, const Proxy& proxy, const Notification& n, MessagePtr& out) {
    int r = new_call(bus, proxy, "InjectNotification", out);
    if (r >= 0)
        r = bus::append_text(out.get(), n.name);
    if (r >= 0)
        r = bus::append_variant(out.get(), n.object);
    if (r >= 0)
        r = bus::append_user_info(out.get(), n.userInfo);
    return r;
}

}  // namespace

Parcel::Parcel(Notification notification)
    : n(std::move(notification)),
      bytes(sizeof(Parcel) + n.name.size() + footprint(n.object) + footprint(n.userInfo)) {}

ClientLinks::ClientLinks(sd_bus* bus, Limits limits, FailureHandler onFailure,
                         PingAnswered onPingAnswered)
    : bus_(bus),
      limits_(limits),
      onFailure_(std::move(onFailure)),
      onPingAnswered_(std::move(onPingAnswered)) {
    limits_.window = std::max<size_t>(limits_.window, 1);
}

ClientLinks::~ClientLinks() = default;

ClientLinks::Link& ClientLinks::link(const Proxy& proxy) {
    auto& l = links_[proxy];
    if (!l)
        l = std::make_unique<Link>(Link{*this, proxy, {}, {}, 0, nullptr, {}});
    return *l;
}

size_t ClientLinks::queuedBytes() const {
    size_t total = 0;
    for (const auto& [proxy, l] : links_)
        total += l->bytes;
    return total;
}

void ClientLinks::deliver(const Proxy& proxy, const ParcelPtr& parcel) {
    Link& l = link(proxy);
    if (l.bytes + parcel->bytes > limits_.maxQueuedBytes) {
        const long waited = l.inFlight.empty() ? 0 : seconds_since(l.inFlight.front().sent);
        failed(l, CallKind::Delivery,
               {"org.freedesktop.DBus.Error.LimitsExceeded",
                "Client does not keep up with its notifications", waited, true});
        return;
    }
    l.bytes += parcel->bytes;
    l.waiting.push_back(parcel);
    sendNext(l);
}

void ClientLinks::sendNext(Link& l) {
    while (l.inFlight.size() < limits_.window && !l.waiting.empty()) {
        const ParcelPtr parcel = std::move(l.waiting.front());
        l.waiting.pop_front();
        Call& call = l.inFlight.emplace_back(Call{l, parcel->bytes, Clock::now(), nullptr});
        MessagePtr message;
        int r = new_delivery(bus_, l.proxy, parcel->n, message);
        sd_bus_slot* slot = nullptr;
        if (r >= 0)
            r = sd_bus_call_async(bus_, &slot, message.get(), onDeliveryReply, &call,
                                  static_cast<uint64_t>(limits_.callTimeout.count()));
        if (r >= 0) {
            call.slot.reset(slot);
            continue;
        }
        l.bytes -= call.bytes;
        l.inFlight.pop_back();
        if (!failed(l, CallKind::Delivery, local_failure(r)))
            return;
    }
}

bool ClientLinks::ping(const Proxy& proxy) {
    Link& l = link(proxy);
    if (l.ping)
        return false;
    MessagePtr call;
    int r = new_call(bus_, proxy, "Ping", call);
    sd_bus_slot* slot = nullptr;
    if (r >= 0)
        r = sd_bus_call_async(bus_, &slot, call.get(), onPingReply, &l,
                              static_cast<uint64_t>(limits_.callTimeout.count()));
    if (r < 0) {
        failed(l, CallKind::Ping, local_failure(r));
        return true;
    }
    l.ping.reset(slot);
    l.pingSent = Clock::now();
    return true;
}

void ClientLinks::forget(const Proxy& proxy) {
    links_.erase(proxy);
}

void ClientLinks::forgetConnection(const std::string& sender) {
    std::erase_if(links_, [&](const auto& entry) { return entry.first.sender == sender; });
}

bool ClientLinks::stillThere(const Proxy& proxy, const Link* l) const {
    auto it = links_.find(proxy);
    return it != links_.end() && it->second.get() == l;
}

bool ClientLinks::failed(Link& l, CallKind kind, CallFailure failure) {
    // A copy: the handler may drop the link that owns l.proxy.
    const Proxy proxy = l.proxy;
    onFailure_(proxy, kind, failure);
    return stillThere(proxy, &l);
}

int ClientLinks::onDeliveryReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    return bus::guarded(0, [&] {
        Call& call = *static_cast<Call*>(userdata);
        Link& l = call.link;
        const Clock::time_point sent = call.sent;
        l.bytes -= call.bytes;
        // Dropping the call and its slot is safe here: sd-bus holds the slot
        // for the length of this callback.
        l.inFlight.remove_if([&](const Call& c) { return &c == &call; });
        if (sd_bus_message_is_method_error(reply, nullptr) &&
            !l.owner.failed(l, CallKind::Delivery, reply_failure(reply, sent)))
            return 0;
        l.owner.sendNext(l);
        return 0;
    });
}

int ClientLinks::onPingReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    return bus::guarded(0, [&] {
        Link& l = *static_cast<Link*>(userdata);
        l.ping.reset();
        if (sd_bus_message_is_method_error(reply, nullptr))
            l.owner.failed(l, CallKind::Ping, reply_failure(reply, l.pingSent));
        else
            l.owner.onPingAnswered_(l.proxy);
        return 0;
    });
}

}  // namespace kal
