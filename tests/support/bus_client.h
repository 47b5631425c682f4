#pragma once

// A client application for tests: its own connection to the private bus and
// a com.orvane.KALEventReceiving object that records what the daemon sends.
// Nothing runs in the background: the client handles the daemon's calls only
// while the test pumps it (pump_until), so a client the test never pumps is
// one that never answers, and close() makes one that has died.

#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "base/value.h"
#include "service/sd_bus_handles.h"

namespace kal::test {

struct ReceivedNotification {
    std::string name;
    Value object;
    ValueDict userInfo;
    // Taken as the handler starts, before the message is read: the
    // event-latency benchmark's end of the measurement.
    std::chrono::steady_clock::time_point arrived;
};

// The outcome of a call to the daemon.
struct BusReply {
    std::string errorName;  // empty on success
    std::string errorMessage;
    MessagePtr message;

    bool ok() const { return errorName.empty(); }
    // The reply's first argument when it is a string, else "".
    std::string str() const;
    // The reply's first argument when it is an array of strings.
    std::vector<std::string> strings() const;
};

class BusClient {
  public:
    // Connects to the bus named by DBUS_SYSTEM_BUS_ADDRESS and exports the
    // receiving object at `path`.
    explicit BusClient(std::string path = "/com/example/Listener");
    ~BusClient();
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    const std::string& uniqueName() const { return unique_name_; }
    const std::string& path() const { return path_; }
    sd_bus* bus() const { return bus_.get(); }

    // A method of com.orvane.KALActionRequesting, arguments as for
    // sd_bus_call_method ("ss", "A1", "tok").
    template <typename... A>
    BusReply call(const char* member, const char* types, A... args) {
        return callWith(
            member, [&](sd_bus_message* m) { return sd_bus_message_append(m, types, args...); });
    }
    // The same, the arguments appended by `append`.
    BusReply callWith(const char* member, const std::function<int(sd_bus_message*)>& append);
    // Calls any method of any destination.
    BusReply callMethod(const char* destination, const char* path, const char* interface,
                        const char* member);

    BusReply registerApp(const std::string& version = "QZ4.0.5", bool secondary = false);
    BusReply subscribe(const std::string& name);

    // What the daemon sent to the object, in arrival order.
    const std::vector<ReceivedNotification>& received() const { return received_; }
    std::vector<std::string> receivedNames() const;
    void clearReceived() { received_.clear(); }
    int pings() const { return pings_; }
    // Answers InjectNotification with this error from now on ("" answers normally).
    void failDeliveriesWith(std::string errorName) { inject_error_ = std::move(errorName); }

    // Handles whatever has arrived, without waiting.
    void process();
    // Closes the connection, as a client process that dies does.
    void close();

  private:
    static const sd_bus_vtable kEventReceiving[];
    static int onPing(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int onIdentification(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int onInject(sd_bus_message* m, void* userdata, sd_bus_error*);

    std::string path_;
    BusPtr bus_;
    SlotPtr object_;
    std::string unique_name_;
    std::vector<ReceivedNotification> received_;
    int pings_ = 0;
    std::string inject_error_;
};

// Pumps every client in `clients` until `cond` holds; false after `deadline`.
bool pump_until(std::initializer_list<BusClient*> clients, const std::function<bool()>& cond,
                std::chrono::milliseconds deadline = std::chrono::seconds(20));
bool pump_until(const std::vector<BusClient*>& clients, const std::function<bool()>& cond,
                std::chrono::milliseconds deadline = std::chrono::seconds(20));

}  // namespace kal::test
