#pragma once

// The client side of the daemon's D-Bus interface: one connection to the
// system bus, the event-receiving object the daemon calls back, and one typed
// call per method of com.orvane.KALActionRequesting
// (data/dbus/com.orvane.devicemaster.xml).
//
//     kal::client::Client client;                     // the system bus
//     client.setNotificationHandler([](const Notification& n) { ... });
//     client.registerApplication("myapp", "com.example");
//     client.subscribe(kal_RingDetect);
//     client.run(30s, [&] { return rang; });          // wait with a deadline
//
// Conventions, the contract's: an empty string is nil, an empty array a nil
// array. Every request that answers with a response code returns it as it
// came (see service/vocabulary.h); a com.orvane.KALException error reply is
// thrown as KALException (service/kal_errors.h) with the daemon's reason, and
// any other failure of the bus as BusFailure.
//
// Thread-aware, not thread-safe: a Client and everything it calls back belong
// to the thread that made it.

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/value.h"
#include "client/notification.h"
#include "core/event_loop.h"
#include "service/sd_bus_handles.h"

namespace kal::client {

// The protocol version this library speaks; the daemon accepts it.
inline constexpr const char kProtocolVersion[] = "QZ4.0.5";
// Where a client exports its com.orvane.KALEventReceiving object unless told
// otherwise.
inline constexpr const char kDefaultDelegatePath[] = "/com/orvane/KALClient";

// A failure of the bus itself or an error reply other than KALException:
// the daemon is not running, the policy refuses us, the connection broke.
class BusFailure : public std::runtime_error {
  public:
    // `name` is the D-Bus error name ("" when there was none, e.g. a failed
    // connect); `message` the text to show.
    BusFailure(std::string name, const std::string& message);
    const std::string& name() const noexcept { return name_; }

  private:
    std::string name_;
};

struct ClientOptions {
    // Empty: the system bus, which DBUS_SYSTEM_BUS_ADDRESS may point elsewhere.
    std::string address;
    // The path of the delegate object on our connection.
    std::string delegatePath = kDefaultDelegatePath;
    // What Identification answers; the daemon logs it at registration.
    std::string identification = "kal client";
    // Reply timeout of each request; 0 keeps sd-bus's default (25 s).
    std::chrono::milliseconds callTimeout{0};
};

class Client {
  public:
    using NotificationHandler = std::function<void(const Notification&)>;

    // Connects and exports the delegate object. Throws BusFailure.
    explicit Client(ClientOptions options = {});
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Called for every InjectNotification, on the thread that runs the loop.
    // An exception it throws is swallowed (the daemon is answered anyway).
    void setNotificationHandler(NotificationHandler handler);

    const std::string& delegatePath() const { return options_.delegatePath; }
    // Our unique bus name (":1.42").
    std::string uniqueName() const;
    // The unique name that owns `name` on the bus now, "" when nobody does.
    // A long-running client compares the daemon's owner over time to learn
    // that the daemon restarted (and forgot its registration).
    std::string nameOwner(const std::string& name);
    // The connection, for a client that serves an interface of its own on
    // it; its loop is run().
    sd_bus* bus() const { return bus_.get(); }

    // --- registration and subscriptions -------------------------------------

    // Registers this connection with our delegate object. Returns the
    // response code; throws KALException #35 for a version the daemon does
    // not accept. A secondary connection is pinged every minute, which the
    // loop answers while it runs.
    std::string registerApplication(const std::string& application, const std::string& vendor,
                                    const std::string& credential = "", bool secondary = false,
                                    const std::string& protocolVersion = kProtocolVersion);
    void subscribe(const std::string& notificationName);
    // Subscribes to every event name the daemon posts and to RequestComplete.
    void subscribeAll();
    // The daemon forgets this connection's registration.
    void unRegisterMe();
    void redistributeNotification(const std::string& name, const Value& object,
                                  const ValueDict& userInfo);

    // --- lines and calls ------------------------------------------------------

    std::vector<std::string> resources();
    std::vector<std::string> enhancedResources();
    // 1 or 2, or -1 when no line has that serial.
    int32_t deviceTypeForResource(const std::string& serial);
    // serial "" dials on whichever line goes off hook first (waiting only).
    std::string dial(const std::string& digits, const std::string& serial,
                     const std::string& callbackToken, bool waitingForPickup);
    std::string cancelDialWithCallbackToken(const std::string& token);
    std::string placeCallOnResource(const std::string& serial, const std::string& number,
                                    const std::string& token);
    std::string hangUpResource(const std::string& serial, const std::string& token);
    std::string performTRVOnResource(const std::string& serial, const std::string& reason,
                                     int32_t vlsMode);
    void fullResourceRescan();
    // Empty when the daemon has none.
    ValueDict linePreferences();
    void setLinePreferences(const ValueDict& preferences);
    void setSystemWideDebugLevel(int32_t level, bool writeToFile);

    // --- call handling on a line ---------------------------------------------

    std::string beginVMNodeForResource(const std::string& serial, const std::string& token,
                                       const std::string& ogm, const std::string& icm,
                                       const std::vector<std::string>& choices,
                                       int32_t maxMessageLength, int32_t postOGMPause,
                                       int32_t special, const std::string& firstCalling);
    std::string beginCRNodeForResource(const std::string& serial, const std::string& token,
                                       const std::string& recFile, const std::string& prePlay,
                                       const std::string& postPlay, uint32_t flags);
    std::string stopCRNodeForResource(const std::string& serial);
    std::string startScriptNodeForResource(const std::string& serial, const std::string& token,
                                           const std::vector<std::string>& choices,
                                           const std::vector<std::string>& responseChoices,
                                           const std::string& prepicking);
    std::string scriptCompletedForResource(const std::string& serial, const std::string& token,
                                           int32_t sequenceNumber,
                                           const std::string& responseAudio);
    std::string beginVMCheckNodeForResource(const std::string& serial, const std::string& token,
                                            const std::string& initialGreeting,
                                            const std::string& interMessageGreeting,
                                            int32_t special);
    std::string nextVMCheckMessage(const std::string& serial, const std::string& token,
                                   const std::string& audio);
    std::string restartVMCheckNodeForResource(const std::string& serial, const std::string& token,
                                              const std::string& initialGreeting);

    // --- the loop -------------------------------------------------------------

    enum class RunResult {
        Done,      // `done` held
        TimedOut,  // the timeout passed first
        Stopped,   // stop() was called or a stop signal came
    };
    // Serves the bus (notifications, pings) until `done` holds, `timeout`
    // passes (nullopt: no limit) or the loop is stopped. `done` is checked
    // before the first wait and after every dispatch. Throws BusFailure when
    // the connection breaks.
    RunResult run(std::optional<std::chrono::milliseconds> timeout,
                  const std::function<bool()>& done = {});
    // Makes the running (or next) run() return Stopped.
    void stop() { stopped_ = true; }
    // Blocks these signals in the calling thread and makes each of them stop
    // the loop instead of ending the process. The caller's threads that
    // should not take them must block them too.
    void stopOnSignals(std::initializer_list<int> signals);
    // The signal that last stopped the loop, or 0.
    int stopSignal() const { return stopSignal_; }

  private:
    MessagePtr newCall(const char* member);
    // Sends `call` and waits for its reply; throws on an error reply.
    MessagePtr call(sd_bus_message* call);
    template <typename... Args>
    MessagePtr request(const char* member, const Args&... args);
    template <typename... Args>
    std::string requestCode(const char* member, const Args&... args);

    static int onPing(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onIdentification(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onInjectNotification(sd_bus_message* m, void* userdata, sd_bus_error* error);

    ClientOptions options_;
    BusPtr bus_;
    EventPtr event_;
    SlotPtr delegateSlot_;
    std::vector<EventSourcePtr> signalSources_;
    NotificationHandler handler_;
    bool stopped_ = false;
    int stopSignal_ = 0;
};

}  // namespace kal::client
