#pragma once

// The daemon's calls to client objects: InjectNotification and Ping, always
// asynchronous, each with a reply expected within the call timeout.
//
// Every client object has its own outbox with at most one InjectNotification
// in flight: it receives its notifications in order, each only after it
// answered the one before, and however slow, dead or hostile it is, it holds
// up nobody but itself. An outbox that grows past its limit means the client
// has stopped keeping up; it is then treated as unreachable. At most one
// Ping per client is in flight as well.
//
// Thread-aware, not thread-safe: main thread only, like the bus.

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <deque>
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

class ClientLinks {
  public:
    struct Limits {
        std::chrono::microseconds callTimeout;
        size_t maxQueued;  // notifications waiting per client object
    };
    // Told about every failed call. It may forget() the proxy; nothing of
    // that proxy's outbox is touched afterwards.
    using FailureHandler = std::function<void(const Proxy&, CallKind, const CallFailure&)>;
    using PingAnswered = std::function<void(const Proxy&)>;

    ClientLinks(sd_bus* bus, Limits limits, FailureHandler onFailure, PingAnswered onPingAnswered);
    ~ClientLinks();
    ClientLinks(const ClientLinks&) = delete;
    ClientLinks& operator=(const ClientLinks&) = delete;

    // Queues `n` for the proxy's InjectNotification.
    void deliver(const Proxy& proxy, const Notification& n);
    // Sends a Ping unless one to the proxy is still unanswered (then false).
    bool ping(const Proxy& proxy);
    // Drops the proxy's outbox and cancels its calls in flight.
    void forget(const Proxy& proxy);
    // The same for every proxy of one connection.
    void forgetConnection(const std::string& sender);

  private:
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
