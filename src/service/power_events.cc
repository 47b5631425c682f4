#include "service/power_events.h"

#include <fcntl.h>
#include <signal.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "base/unique_fd.h"
#include "core/device_table.h"
#include "core/shutdown.h"
#include "lineio/intrapc.h"
#include "log/kallog.h"
#include "service/sd_bus_handles.h"

// The log texts name the power messages of the platform this daemon was
// first written for; they are kept so that logs read the same everywhere.

using namespace kal;

namespace {

constexpr const char kLogind[] = "org.freedesktop.login1";
constexpr const char kLogindPath[] = "/org/freedesktop/login1";
constexpr const char kLogindManager[] = "org.freedesktop.login1.Manager";
// Who and why, as `systemd-inhibit --list` shows them.
constexpr const char kInhibitWho[] = "KALDeviceMaster";
constexpr const char kInhibitWhy[] = "Stopping the telephone line monitors";

// Back from sleep (or a sleep that did not happen): rescans may run again,
// and the line event thread is woken for one.
void power_on_steps() {
    lock_system_state(1);
    kallog(KAL_DEBUG, "Unlocking rescan");
    gSystemState = kSystemRunning;
    unlock_system_state();

    kallog(KAL_DEBUG, "Signalling for rescan");
    const int rc = wake_lineisr_for_rescan();
    if (rc != 1) {
        const int e = errno;
        kallog(KAL_WARN,
               "Couldn't wake up linemonitor service thread. Write returned %d. (%d-%s). Not "
               "quitting and not trying again.",
               rc, e, strerror(e));
    }
    kallog(KAL_DEVEL, "Signal lineisr complete. return=%d", rc);
}

// logind as one bus connection sees it: the delay lock and the sleep
// notifications. It lives as long as the connection, which owns it through
// the PrepareForSleep match. Thread-aware, not thread-safe: main thread only.
class SleepWatch {
  public:
    explicit SleepWatch(sd_bus* bus) : bus_(bus) {}

    // Takes the delay lock, waiting for logind's answer; `error` says why not.
    bool takeLockNow(BusError& error);
    // Asks for a new lock unless one is held or asked for; the answer
    // arrives on the main loop.
    void takeLockLater();

    void willSleep();
    void hasPoweredOn();

    static int onPrepareForSleep(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int onInhibitReply(sd_bus_message* m, void* userdata, sd_bus_error*);
    static void destroy(void* userdata) { delete static_cast<SleepWatch*>(userdata); }

  private:
    // Keeps the descriptor of an Inhibit reply as the lock.
    bool keep(sd_bus_message* reply);

    sd_bus* bus_;     // not owned: the connection outlives this object
    unique_fd lock_;  // the delay lock; closing it lets the sleep go on
    bool asleep_ = false;
    // An asynchronous Inhibit is in flight. Its reply callback cannot run
    // after this object is gone: the object goes only when the connection is
    // freed, and a freed connection calls no more callbacks.
    bool asking_ = false;
};

bool SleepWatch::takeLockNow(BusError& error) {
    sd_bus_message* raw = nullptr;
    const int r =
        sd_bus_call_method(bus_, kLogind, kLogindPath, kLogindManager, "Inhibit", error.get(), &raw,
                           "ssss", "sleep", kInhibitWho, kInhibitWhy, "delay");
    MessagePtr reply(raw);
    if (r < 0 && !error.is_set())
        sd_bus_error_set_errno(error.get(), r);
    return r >= 0 && keep(reply.get());
}

void SleepWatch::takeLockLater() {
    if (lock_ || asking_)
        return;
    // A floating call: nothing but its reply refers to it.
    const int r = sd_bus_call_method_async(bus_, nullptr, kLogind, kLogindPath, kLogindManager,
                                           "Inhibit", onInhibitReply, this, "ssss", "sleep",
                                           kInhibitWho, kInhibitWhy, "delay");
    if (r < 0) {
        kallog(KAL_WARN, "Couldn't ask logind for a sleep delay lock (%d-%s)", -r, strerror(-r));
        return;
    }
    asking_ = true;
}

bool SleepWatch::keep(sd_bus_message* reply) {
    int fd = -1;
    const int r = sd_bus_message_read(reply, "h", &fd);
    if (r < 0) {
        kallog(KAL_WARN, "logind's answer to Inhibit holds no descriptor (%d-%s)", -r,
               strerror(-r));
        return false;
    }
    // The message owns its descriptor; ours is close-on-exec from birth, so
    // that no line monitor ever holds the lock.
    unique_fd mine(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
    if (!mine) {
        const int e = errno;
        kallog(KAL_WARN, "Couldn't keep the sleep delay lock (%d-%s)", e, strerror(e));
        return false;
    }
    lock_ = std::move(mine);
    return true;
}

void SleepWatch::willSleep() {
    kallog(KAL_DEBUG,
           "Received kIOMessageSystemWillSleep. Shutting down line monitors. Preventing rescan.");
    lock_system_state(1);
    gSystemState = kSystemAsleep;
    unlock_system_state();
    // Takes the device-table lock: the system-state lock is released first.
    kill_children_with_signal(SIGHUP);
    asleep_ = true;
    // Allow: sleep is never vetoed.
    lock_.reset();
}

void SleepWatch::hasPoweredOn() {
    kallog(KAL_DEBUG, "Received kIOMessageSystemHasPoweredOn.");
    power_on_steps();
    asleep_ = false;
    takeLockLater();
}

int SleepWatch::onPrepareForSleep(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SleepWatch*>(userdata);
    // The bus checks the sender of a broadcast against the match; a signal
    // sent to us alone could come from anyone.
    if (sd_bus_message_get_destination(m)) {
        kallog(KAL_WARN, "Ignoring a PrepareForSleep signal sent to us alone by %s",
               sd_bus_message_get_sender(m) ? sd_bus_message_get_sender(m) : "(unknown)");
        return 0;
    }
    int start = 0;
    const int r = sd_bus_message_read(m, "b", &start);
    if (r < 0) {
        kallog(KAL_WARN, "Ignoring a PrepareForSleep signal without its argument (%d-%s)", -r,
               strerror(-r));
        return 0;
    }
    if (start)
        self->willSleep();
    else
        self->hasPoweredOn();
    return 0;
}

int SleepWatch::onInhibitReply(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SleepWatch*>(userdata);
    self->asking_ = false;
    if (const sd_bus_error* e = sd_bus_message_get_error(m)) {
        kallog(KAL_WARN, "logind gave no sleep delay lock: %s (%s)", e->name ? e->name : "",
               e->message ? e->message : "");
        return 0;
    }
    // Asleep again before the answer came: the lock would only hold the
    // sleep up. It is dropped with the message; the next wake asks again.
    if (self->asleep_ || self->lock_)
        return 0;
    self->keep(m);
    return 0;
}

}  // namespace

void registerForSleepNotification(sd_bus* bus) {
    // The match first, so that no PrepareForSleep is missed once the lock
    // is held.
    auto watch = std::make_unique<SleepWatch>(bus);
    sd_bus_slot* raw = nullptr;
    const int r =
        bus ? sd_bus_match_signal(bus, &raw, kLogind, kLogindPath, kLogindManager,
                                  "PrepareForSleep", SleepWatch::onPrepareForSleep, watch.get())
            : -ENOTCONN;
    SlotPtr match(raw);
    BusError error;
    if (r < 0) {
        kallog(KAL_DEBUG, "Couldn't subscribe to logind's PrepareForSleep (%d-%s)", -r,
               strerror(-r));
    } else {
        // From here on the match owns the watch: dropping it deletes both.
        sd_bus_slot_set_destroy_callback(match.get(), SleepWatch::destroy);
        SleepWatch* w = watch.release();
        if (w->takeLockNow(error)) {
            // The connection owns the match from now on, and with it the
            // watch and the lock.
            sd_bus_slot_set_floating(match.get(), 1);
            kallog(KAL_NOTICE, "IORegisterForSystemPower complete");
            return;
        }
        if (error.is_set())
            kallog(KAL_DEBUG, "logind gave no sleep delay lock: %s (%s)", error.name(),
                   error.message());
    }
    kallog(KAL_NOTICE, "IORegisterForSystemPower failed");
}
