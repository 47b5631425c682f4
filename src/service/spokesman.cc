// The server's life: connecting, vending, owning the name, the connection
// filter and the main loop.

#include "service/spokesman.h"

#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstring>

#include "base/fatal.h"
#include "base/paths.h"
#include "log/kallog.h"
#include "service/action_vtable.h"
#include "service/bus_contract.h"
#include "service/bus_errors.h"
#include "service/bus_method.h"
#include "service/kal_errors.h"
#include "service/power_events.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

// Set while the one instance lives; main thread only.
KALSpokesman* the_spokesman = nullptr;

// "com.orvane.KALActionRequesting.Subscribe(os) on /com/orvane/DeviceMaster"
std::string describe_call(sd_bus_message* m) {
    auto text = [](const char* s) { return s ? s : "(none)"; };
    return std::string(text(sd_bus_message_get_interface(m))) + "." +
           text(sd_bus_message_get_member(m)) + "(" + text(sd_bus_message_get_signature(m, true)) +
           ") on " + text(sd_bus_message_get_path(m));
}

}  // namespace

KALSpokesman::KALSpokesman(SpokesmanOptions options)
    : options_(options), queue_(std::make_shared<NotificationQueue>()) {
    the_spokesman = this;
}

KALSpokesman::~KALSpokesman() {
    for (auto id : observers_)
        NotificationCenter::defaultCenter().removeObserver(id);
    if (the_spokesman == this)
        the_spokesman = nullptr;
}

KALSpokesman* KALSpokesman::current() {
    return the_spokesman;
}

void KALSpokesman::startRunloop(sd_event* loop) {
    startServing(loop);
    runloop();
}

void KALSpokesman::startServing(sd_event* loop) {
    loop_ = loop;
    observe(kal_RequestComplete);
    observe(kal_QLXEvent);

    sd_bus* raw = nullptr;
    int r = sd_bus_open_system(&raw);
    bus_.reset(raw);
    if (r < 0) {
        kallog(KAL_ERR, "Couldn't open the system bus (%d-%s)", -r, strerror(-r));
        cannotServe();
    }
    registerForSleepNotification(bus_.get());

    sd_bus_slot* slot = nullptr;
    if ((r = sd_bus_add_filter(bus_.get(), &slot, onFilter, this)) >= 0) {
        filter_slot_.reset(slot);
        r = sd_bus_add_object_vtable(bus_.get(), &slot, kal_BusObjectPath,
                                     kal_ActionRequestingInterface, action_requesting_vtable(),
                                     this);
    }
    if (r >= 0) {
        object_slot_.reset(slot);
        r = sd_bus_attach_event(bus_.get(), loop, SD_EVENT_PRIORITY_NORMAL);
    }
    sd_event_source* source = nullptr;
    if (r >= 0) {
        r = sd_event_add_io(loop, &source, queue_->fd(), EPOLLIN, onWake, this);
        wake_source_.reset(source);
    }
    if (r < 0) {
        kallog(KAL_ERR, "Couldn't set up the client service (%d-%s)", -r, strerror(-r));
        cannotServe();
    }
    links_ = std::make_unique<ClientLinks>(
        bus_.get(),
        ClientLinks::Limits{options_.callTimeout, options_.deliveryWindow,
                            options_.maxQueuedBytesPerClient},
        [this](const Proxy& p, CallKind kind, const CallFailure& f) { callFailed(p, kind, f); },
        [](const Proxy& p) {
            kallog(KAL_DEBUG, "Done pinging secondary %s.", p.describe().c_str());
        });

    kallog(KAL_DEBUG, "Vending Listener");
    // The filter is in place before the name is owned: no request is ever
    // served to a connection that has not registered.
    if ((r = sd_bus_request_name(bus_.get(), bus_name().c_str(), 0)) < 0)
        cannotServe();
    sd_notify(0, "READY=1");
}

void KALSpokesman::cannotServe() {
    kallog(KAL_ERR,
           "Couldn't connect to distributed objects as server %s. Perhaps another instance is "
           "running?",
           bus_name().c_str());
    dm_exit(1);
}

void KALSpokesman::runloop() {
    // Every callback catches what its work throws (bus::guarded, serve<>),
    // so nothing a client does ends the loop; it returns only on a failure
    // of the loop itself or when told to exit.
    const int rc = sd_event_loop(loop_);
    if (rc < 0) {
        kallog(KAL_ERR, "Main event loop failed (%d-%s). Quitting.", -rc, strerror(-rc));
        dm_exit(1);
    }
    dm_exit(rc);
}

int KALSpokesman::onFilter(sd_bus_message* m, void* userdata, sd_bus_error*) {
    // Refuse rather than let a request through when the filter itself fails.
    return bus::guarded(1, [&] { return static_cast<KALSpokesman*>(userdata)->filter(m); });
}

int KALSpokesman::filter(sd_bus_message* m) {
    if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Local", "Disconnected")) {
        kallog(KAL_ERR, "Lost the connection to the system bus. Quitting.");
        dm_exit(1);
    }
    if (!sd_bus_message_is_method_call(m, nullptr, nullptr))
        return 0;
    const char* interface = sd_bus_message_get_interface(m);
    const char* member = sd_bus_message_get_member(m);
    const std::string sender = bus::message_sender(m);
    const bool protocol =
        (!interface || std::strcmp(interface, kal_ActionRequestingInterface) == 0) && member &&
        is_action_requesting_method(member);
    if (!protocol) {
        kallog(KAL_DEBUG,
               "Allowing non-protocol request through credential filter for connection %s: %s",
               sender.c_str(), describe_call(m).c_str());
        return 0;
    }
    if (std::strcmp(member, "RegisterApplication") == 0) {
        kallog(KAL_DEBUG,
               "Allowing registration request through credential filter for connection %s",
               sender.c_str());
        return 0;
    }
    if (!registry_.isAuthenticated(sender)) {
        kallog(KAL_DEBUG, "Disallowing unauthenticated request for connection %s: %s",
               sender.c_str(), describe_call(m).c_str());
        bus::reply_exception(m, CreateKALException(std::nullopt, kal_ErrorUnauthenticated));
        return 1;
    }
    kallog(KAL_DEBUG, "Allowing authenticated request for connection %s: %s", sender.c_str(),
           describe_call(m).c_str());
    return 0;
}
