#pragma once

// The daemon's calls to client objects: InjectNotification and Ping, always
// asynchronous, each with a reply expected within the call timeout.
//
// Every client object has its own outbox. Its notifications go out in order,
// a window of several InjectNotification calls in flight at once: the bus
// delivers the calls of one connection in the order they were sent, so the
// client still receives them in order, and a burst the daemon makes itself
// (one digit event per digit of a long dial) flows at the client's own pace.
// A client is judged by how long its oldest undelivered notification has
// waited for it, never by how many the daemon produced: each call carries the
// reply timeout, so a client that leaves its oldest delivery unanswered that
// long is unreachable. Memory is bounded per client in bytes, so a client
// that is alive but cannot keep up at all is dropped before the daemon runs
// short. However slow, dead or hostile a client is, it holds up nobody but
// itself. At most one Ping per client is in flight.
//
// Thread-aware, not thread-safe: main thread only, like the bus.

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "service/client_registry.h"
#include "service/notification_center.h"
#include "service/sd_bus_handles.h"

namespace kal {

enum class CallKind { Delivery, Ping };

struct CallFailure {
    std::string errorName;  // "org.freedesktop.DBus.Error.NoReply"
    std::string message;
    long elapsedSeconds = 0;   // since the call was sent
    bool unreachable = false;  // the client is gone or not keeping up
};

// A notification as the outboxes hold it: one copy shared by every
// subscriber, with the bytes it counts against each outbox that holds it.
struct Parcel {
    explicit Parcel(Notification notification);
    Notification n;
    size_t bytes;
};
using ParcelPtr = std::shared_ptr<const Parcel>;

class ClientLinks {
  public:
    struct Limits {
        std::chrono::microseconds callTimeout;
        size_t window;          // InjectNotification calls in flight per client object
        size_t maxQueuedBytes;  // bytes of notifications per client object, sent or not
    };
    // Told about every failed call. It may forget() the proxy; nothing of
    // that proxy's outbox is touched afterwards.
    using FailureHandler = std::function<void(const Proxy&, CallKind, const CallFailure&)>;
    using PingAnswered = std::function<void(const Proxy&)>;

    ClientLinks(sd_bus* bus, Limits limits, FailureHandler onFailure, PingAnswered onPingAnswered);
    ~ClientLinks();
    ClientLinks(const ClientLinks&) = delete;
    ClientLinks& operator=(const ClientLinks&) = delete;

    // Queues the parcel for the proxy's InjectNotification.
    void deliver(const Proxy& proxy, const ParcelPtr& parcel);
    // Sends a Ping unless one to the proxy is still unanswered (then false).
    bool ping(const Proxy& proxy);
    // Drops the proxy's outbox and cancels its calls in flight.
    void forget(const Proxy& proxy);
    // The same for every proxy of one connection.
    void forgetConnection(const std::string& sender);
    // The bytes every outbox holds, waiting or in flight.
    size_t queuedBytes() const;

  private:
    struct Call;
    struct Link;
    Link& link(const Proxy& proxy);
    void sendNext(Link& l);
    // Hands the failure on; false when the link is gone afterwards.
    bool failed(Link& l, CallKind kind, CallFailure failure);
    bool stillThere(const Proxy& proxy, const Link* l) const;
    static int onDeliveryReply(sd_bus_message* reply, void* userdata, sd_bus_error*);
    static int onPingReply(sd_bus_message* reply, void* userdata, sd_bus_error*);

    sd_bus* bus_;
    Limits limits_;
    FailureHandler onFailure_;
    PingAnswered onPingAnswered_;
    std::map<Proxy, std::unique_ptr<Link>> links_;
};

}  // namespace kal
