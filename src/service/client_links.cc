#include "service/client_links.h"

#include <cstring>

#include "service/bus_contract.h"
#include "service/bus_errors.h"
#include "service/bus_values.h"

namespace kal {

using Clock = std::chrono::steady_clock;

struct ClientLinks::Link {
    ClientLinks& owner;
    Proxy proxy;
    std::deque<Notification> waiting;  // not yet sent
    SlotPtr delivery;                  // the InjectNotification in flight
    Clock::time_point deliverySent;
    SlotPtr ping;  // the Ping in flight
    Clock::time_point pingSent;
};

namespace {

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

}  // namespace

ClientLinks::ClientLinks(sd_bus* bus, Limits limits, FailureHandler onFailure,
                         PingAnswered onPingAnswered)
    : bus_(bus),
      limits_(limits),
      onFailure_(std::move(onFailure)),
      onPingAnswered_(std::move(onPingAnswered)) {}

ClientLinks::~ClientLinks() = default;

ClientLinks::Link& ClientLinks::link(const Proxy& proxy) {
    auto& l = links_[proxy];
    if (!l)
        l = std::make_unique<Link>(Link{*this, proxy, {}, nullptr, {}, nullptr, {}});
    return *l;
}

void ClientLinks::deliver(const Proxy& proxy, const Notification& n) {
    Link& l = link(proxy);
    if (l.waiting.size() >= limits_.maxQueued) {
        failed(l, CallKind::Delivery,
               {"org.freedesktop.DBus.Error.LimitsExceeded",
                "Client does not keep up with its notifications", seconds_since(l.deliverySent),
                true});
        return;
    }
    l.waiting.push_back(n);
    if (!l.delivery)
        sendNext(l);
}

void ClientLinks::sendNext(Link& l) {
    while (!l.delivery && !l.waiting.empty()) {
        const Notification n = std::move(l.waiting.front());
        l.waiting.pop_front();
        MessagePtr call;
        int r = new_call(bus_, l.proxy, "InjectNotification", call);
        if (r >= 0)
            r = bus::append_text(call.get(), n.name);
        if (r >= 0)
            r = bus::append_variant(call.get(), n.object);
        if (r >= 0)
            r = bus::append_user_info(call.get(), n.userInfo);
        sd_bus_slot* slot = nullptr;
        if (r >= 0)
            r = sd_bus_call_async(bus_, &slot, call.get(), onDeliveryReply, &l,
                                  static_cast<uint64_t>(limits_.callTimeout.count()));
        if (r >= 0) {
            l.delivery.reset(slot);
            l.deliverySent = Clock::now();
        } else if (!failed(l, CallKind::Delivery, local_failure(r))) {
            return;
        }
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
        Link& l = *static_cast<Link*>(userdata);
        // Dropping our reference is safe here: sd-bus holds the slot for the
        // length of this callback.
        l.delivery.reset();
        if (sd_bus_message_is_method_error(reply, nullptr) &&
            !l.owner.failed(l, CallKind::Delivery, reply_failure(reply, l.deliverySent)))
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
