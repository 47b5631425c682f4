// Forwarding notifications to subscribers, and pinging secondary clients.

#include <algorithm>
#include <cstring>

#include "log/kallog.h"
#include "service/bus_errors.h"
#include "service/spokesman.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

std::string describe_notification(const Notification& n) {
    return "{name = " + n.name + "; object = " + describe(n.object) + "}";
}

// The forwarder proper. Captures only the queue, which outlives the server
// for as long as a posting thread still holds the observer.
void pass_through(NotificationQueue& queue, const Notification& n) {
    auto it = n.userInfo.find(kal_NotificationNameKey);
    if (it != n.userInfo.end() && !it->second.str().empty())
        queue.push(Notification{it->second.str(), n.object, n.userInfo});
    else
        queue.push(n);
}

// What a connection that asked to be unregistered answers from now on.
CallFailure cancelled_connection() {
    return {"org.freedesktop.DBus.Error.Disconnected", "The client unregistered", 0, true};
}

}  // namespace

void KALSpokesman::observe(const std::string& name) {
    if (name.empty() || !observed_.insert(name).second)
        return;
    observers_.push_back(NotificationCenter::defaultCenter().addObserver(
        name, [queue = queue_](const Notification& n) { pass_through(*queue, n); }));
}

void KALSpokesman::handleLineISRPassThrough(const Notification& n) {
    pass_through(*queue_, n);
}

void KALSpokesman::redistributeNotification(const Notification& n) {
    const std::string info = n.userInfo.empty() ? "NO USERINFO" : describe(Value(n.userInfo));
    kallog(KAL_DEBUG, "Starting redistributeNotification with %s\n%s",
           describe_notification(n).c_str(), info.c_str());
    handleLineISRPassThrough(n);
    kallog(KAL_DEBUG, "Done redistributeNotification");
}

void KALSpokesman::redistributeNotificationFromClient(const Caller&, const OptString& name,
                                                      const Value& object,
                                                      const ValueDict& userInfo) {
    redistributeNotification(Notification{name.value_or(""), object, userInfo});
}

int KALSpokesman::onWake(sd_event_source*, int, uint32_t, void* userdata) {
    return bus::guarded(0, [&] {
        auto* self = static_cast<KALSpokesman*>(userdata);
        for (auto& n : self->queue_->takeAll())
            self->backlog_.push_back(std::move(n));
        self->dispatchBacklog();
        return 0;
    });
}

void KALSpokesman::dispatchBacklog() {
    constexpr int kSlice = 64;
    for (int i = 0; i < kSlice && !backlog_.empty(); ++i) {
        Notification n = std::move(backlog_.front());
        backlog_.pop_front();
        dispatch(std::move(n));
    }
    // Through the wake-up descriptor, not a deferred source: sd-event polls
    // no descriptor while a deferred source is pending, so the replies would
    // wait for the whole burst after all.
    if (!backlog_.empty())
        queue_->wake();
}

void KALSpokesman::dispatch(Notification n) {
    const auto& subscribers = registry_.subscribers(n.name);
    if (subscribers.empty()) {
        kallog(KAL_DEBUG,
               "No one cares about notifications of type %s. Discarding notification %s with user "
               "info %s",
               n.name.c_str(), describe_notification(n).c_str(),
               describe(Value(n.userInfo)).c_str());
        return;
    }
    // A copy: a client dropped during the walk leaves the list.
    const std::vector<Proxy> walk = subscribers;
    // One copy for every subscriber's outbox, the one taken from the queue.
    const auto parcel = std::make_shared<const Parcel>(std::move(n));
    const std::string& name = parcel->n.name;
    for (const Proxy& proxy : walk) {
        if (!registry_.isSubscribed(proxy, name))
            continue;
        if (registry_.isCancelled(proxy.sender))
            callFailed(proxy, CallKind::Delivery, cancelled_connection());
        else
            links_->deliver(proxy, parcel);
    }
}

void KALSpokesman::callFailed(const Proxy& proxy, CallKind kind, const CallFailure& f) {
    const bool ping = kind == CallKind::Ping;
    if (f.unreachable) {
        unregisterDistantObject(proxy, std::string("exception on ") + (ping ? "ping" : "send") +
                                           ": " + f.errorName + " (" +
                                           std::to_string(f.elapsedSeconds) + " secs elapsed)");
        return;
    }
    if (ping)
        kallog(KAL_ERR,
               "Eating exception which occurred in ping checks of "
               "handleLineISRPassThrough/redistributedNotification: %s (%s) userInfo: %s",
               f.errorName.c_str(), f.message.c_str(), "null userinfo");
    else
        kallog(KAL_ERR,
               "Eating exception which occurred in "
               "handleLineISRPassThrough/redistributedNotification: %s (%s) userInfo: %s",
               f.errorName.c_str(), f.message.c_str(), "null userinfo");
}

void KALSpokesman::startPingTimer() {
    const uint64_t interval = static_cast<uint64_t>(options_.pingInterval.count());
    sd_event_source* source = nullptr;
    const int r =
        sd_event_add_time_relative(loop_, &source, CLOCK_MONOTONIC, interval,
                                   std::max<uint64_t>(interval / 10, 1), onPingTimer, this);
    if (r < 0) {
        kallog(KAL_ERR, "Couldn't start the ping timer of secondary clients (%d-%s)", -r,
               strerror(-r));
        return;
    }
    ping_timer_.reset(source);
}

std::optional<std::chrono::microseconds> KALSpokesman::untilNextPing() const {
    uint64_t due = 0, now = 0;
    if (!ping_timer_ || sd_event_source_get_time(ping_timer_.get(), &due) < 0 ||
        sd_event_now(loop_, CLOCK_MONOTONIC, &now) < 0)
        return std::nullopt;
    return std::chrono::microseconds(due > now ? due - now : 0);
}

int KALSpokesman::onPingTimer(sd_event_source* s, uint64_t, void* userdata) {
    return bus::guarded(0, [&] {
        auto* self = static_cast<KALSpokesman*>(userdata);
        self->pingDistants();
        // Time sources fire once: set the next tick, unless the pass ended it.
        if (self->ping_timer_.get() == s) {
            sd_event_source_set_time_relative(
                s, static_cast<uint64_t>(self->options_.pingInterval.count()));
            sd_event_source_set_enabled(s, SD_EVENT_ONESHOT);
        }
        return 0;
    });
}

void KALSpokesman::pingDistants() {
    kallog(KAL_DEVEL, "Pinging secondary distants");
    // A copy: a client dropped during the pass leaves the list.
    const std::vector<Proxy> walk = registry_.secondaryDistants();
    for (const Proxy& proxy : walk) {
        const auto& current = registry_.secondaryDistants();
        if (std::find(current.begin(), current.end(), proxy) == current.end())
            continue;
        kallog(KAL_DEBUG, "Pinging secondary %s.", proxy.describe().c_str());
        if (registry_.isCancelled(proxy.sender)) {
            callFailed(proxy, CallKind::Ping, cancelled_connection());
        } else if (!links_->ping(proxy)) {
            kallog(KAL_DEVEL, "Secondary %s has not answered the last ping yet.",
                   proxy.describe().c_str());
        }
    }
    if (registry_.secondaryDistants().empty()) {
        kallog(KAL_DEBUG, "No more secondaries. Invalidating timer.");
        ping_timer_.reset();
    }
    kallog(KAL_DEBUG, "Finished pinging secondaries");
}
