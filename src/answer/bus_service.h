#pragma once

// kal-answer's own D-Bus interface (data/dbus/com.orvane.answer.xml): what
// kalctl and desktop programs use to list, fetch and change messages and to
// read the call log, without touching the database file, and the signal that
// announces each new message.
//
// Thread-aware, not thread-safe: it lives on the thread of the connection's
// loop.

#include <systemd/sd-bus.h>

#include <string>

#include "answer/store.h"
#include "service/sd_bus_handles.h"

namespace kal::answer {

inline constexpr const char kAnswerBusName[] = "com.orvane.answer";
inline constexpr const char kAnswerObjectPath[] = "/com/orvane/KALAnswer";
inline constexpr const char kAnswerInterface[] = "com.orvane.KALAnswer";
inline constexpr const char kAnswerErrorNoSuchMessage[] = "com.orvane.KALAnswer.NoSuchMessage";
inline constexpr const char kAnswerErrorFailed[] = "com.orvane.KALAnswer.Failed";

class BusService {
  public:
    explicit BusService(MessageStore& store) : store_(store) {}

    // Exports the object on `bus` and takes the well-known name. Throws
    // std::runtime_error when either fails (another kal-answer runs, or the
    // policy refuses the name).
    void attach(sd_bus* bus);
    void detach();

    // Announces a stored message and the new count of messages waiting.
    void announce(const Message& m, int waiting);
    // Tells watchers that MessagesWaiting changed.
    void waitingChanged();
    // What WebAddress answers: the messages page's URL with its token, ""
    // when the page is off.
    void setWebAddress(std::string url) { webAddress_ = std::move(url); }

  private:
    static int onListMessages(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onOpenMessage(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onDeleteMessage(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onMarkHeard(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onWebAddress(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onListCalls(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onGetWaiting(sd_bus* bus, const char* path, const char* interface,
                            const char* property, sd_bus_message* reply, void* userdata,
                            sd_bus_error* error);

    MessageStore& store_;
    sd_bus* bus_ = nullptr;
    SlotPtr slot_;
    std::string webAddress_;
};

}  // namespace kal::answer
