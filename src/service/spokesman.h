#pragma once

// KALSpokesman: the daemon's server for client applications. It owns the
// connection to the system bus, owns the name com.orvane.devicemaster.listener.v2,
// serves com.orvane.KALActionRequesting at /com/orvane/DeviceMaster to
// registered connections only, keeps who subscribed to which notification
// name, and forwards every notification the daemon posts (and every one a
// client redistributes) to the subscribers' KALEventReceiving objects.
//
// Threads: the bus, the registry, the outboxes and the ping timer belong to
// the main thread, which runs the sd-event loop. handleLineISRPassThrough()
// is the one entry for other threads: it queues the notification and wakes
// the loop through the NotificationQueue, whose mutex is the only lock here.
// Thread-aware, not thread-safe otherwise.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/event_loop.h"
#include "service/client_links.h"
#include "service/client_registry.h"
#include "service/notification_center.h"
#include "service/notification_queue.h"
#include "service/requests.h"
#include "service/sd_bus_handles.h"

struct SpokesmanOptions {
    // How often secondary clients are pinged.
    std::chrono::microseconds pingInterval = std::chrono::seconds(60);
    // How long a call to a client may go unanswered before it counts as
    // unreachable (NoReply).
    std::chrono::microseconds callTimeout = std::chrono::seconds(120);
    // Notifications on their way to one client object at once. The system
    // bus answers at most 128 calls in flight per connection by default, so
    // this times the number of clients should stay below that.
    size_t deliveryWindow = 4;
    // Bytes of notifications one client object may hold (sent and not yet
    // answered, or waiting): room for about 140000 line events. Past
    // that the client is dropped as not keeping up.
    size_t maxQueuedBytesPerClient = size_t{128} << 20;
};

class KALSpokesman {
  public:
    // Creates the collections; nothing is served until startRunloop.
    explicit KALSpokesman(SpokesmanOptions options = SpokesmanOptions());
    ~KALSpokesman();
    KALSpokesman(const KALSpokesman&) = delete;
    KALSpokesman& operator=(const KALSpokesman&) = delete;

    // The one instance while it lives, else nullptr.
    static KALSpokesman* current();

    // Serves on `loop` (startServing) and runs it for the life of the process.
    [[noreturn]] void startRunloop(sd_event* loop);
    // Observes the notification centre, connects to the system bus, vends
    // the object, owns the name and tells systemd it is ready. Ends the
    // process with status 1 when the name cannot be owned.
    void startServing(sd_event* loop);

    // Client requests (over the bus; main thread).
    std::string registerApplication(const kal::Caller& caller, const kal::OptString& application,
                                    const kal::OptString& vendor, const kal::OptString& credential,
                                    const kal::ObjectPath& delegate, bool secondaryConnection,
                                    const kal::OptString& protocolVersion);
    void subscribe(const kal::Caller& caller, const kal::ObjectPath& delegate,
                   const kal::OptString& notificationName);
    void unRegisterMe(const kal::Caller& caller, const kal::ObjectPath& delegate);
    void redistributeNotificationFromClient(const kal::Caller& caller, const kal::OptString& name,
                                            const kal::Value& object,
                                            const kal::ValueDict& userInfo);

    // Sends `n` to everyone subscribed to its name (or to its
    // KALNotificationName). Main thread: requests use it to broadcast.
    void redistributeNotification(const kal::Notification& n);
    // The forwarder: any thread. Renames a notification that carries
    // KALNotificationName to that name and hands it to the main loop, which
    // delivers it to the subscribers in the order it was handed over.
    void handleLineISRPassThrough(const kal::Notification& n);

    // Forgets a client object everywhere.
    void unregisterDistantObject(const kal::Proxy& proxy, const std::string& reason);
    // Forgets the client object registered on a connection.
    void unregisterObjectsForConnectionHash(const std::string& sender, const std::string& reason);
    // One ping pass over the secondary clients (the timer's work).
    void pingDistants();

    std::string subscriptionDescription() const { return registry_.subscriptionDescription(); }
    const kal::ClientRegistry& registry() const { return registry_; }
    // The daemon's system bus connection (for the power events), or nullptr
    // before startServing.
    sd_bus* bus() const { return bus_.get(); }
    bool pingTimerRunning() const { return ping_timer_ != nullptr; }
    // How long until the next ping pass; nothing while the timer is off.
    std::optional<std::chrono::microseconds> untilNextPing() const;
    // The bytes of notifications the outboxes hold for clients.
    size_t queuedBytes() const { return links_ ? links_->queuedBytes() : 0; }

  private:
    void observe(const std::string& name);
    [[noreturn]] void cannotServe();
    // Connection filter: only registered connections reach the protocol.
    static int onFilter(sd_bus_message* m, void* userdata, sd_bus_error*);
    int filter(sd_bus_message* m);
    static int onWake(sd_event_source*, int, uint32_t, void* userdata);
    // Dispatches a slice of the backlog and, while some is left, wakes the
    // loop again for more.
    void dispatchBacklog();
    static int onPingTimer(sd_event_source* s, uint64_t, void* userdata);
    void dispatch(kal::Notification n);
    void startPingTimer();
    void callFailed(const kal::Proxy& proxy, kal::CallKind kind, const kal::CallFailure& f);
    [[noreturn]] void runloop();

    const SpokesmanOptions options_;
    // Shared with the centre's observers, which may still be running on
    // another thread when this object goes.
    std::shared_ptr<kal::NotificationQueue> queue_;
    std::vector<kal::NotificationCenter::ObserverId> observers_;
    std::set<std::string> observed_;  // names observed on the centre

    kal::ClientRegistry registry_;
    sd_event* loop_ = nullptr;
    // Declared before everything that refers to it, so it goes last.
    kal::BusPtr bus_;
    kal::SlotPtr filter_slot_;
    kal::SlotPtr object_slot_;
    kal::EventSourcePtr wake_source_;
    // Notifications taken from the queue and not yet dispatched. A burst is
    // dispatched in slices, each one loop iteration, so the replies of
    // clients (and their requests) are handled in between and none waits
    // behind the daemon's own burst for its timeout.
    std::deque<kal::Notification> backlog_;
    kal::EventSourcePtr ping_timer_;  // exists while secondaries are registered
    std::unique_ptr<kal::ClientLinks> links_;
};
