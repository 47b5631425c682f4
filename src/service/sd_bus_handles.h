#pragma once

// Owning handles for sd-bus objects. Like the bus itself they belong to the
// thread that made them (the main thread in the daemon).

#include <systemd/sd-bus.h>

#include <memory>

namespace kal {

struct SdBusUnref {
    // Flushes what is queued (error replies to clients included) before the
    // connection goes.
    void operator()(sd_bus* b) const { sd_bus_flush_close_unref(b); }
};
struct SdBusSlotUnref {
    void operator()(sd_bus_slot* s) const { sd_bus_slot_unref(s); }
};
struct SdBusMessageUnref {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using BusPtr = std::unique_ptr<sd_bus, SdBusUnref>;
// Dropping a slot cancels what it stands for: a method call in flight, an
// exported object, a filter.
using SlotPtr = std::unique_ptr<sd_bus_slot, SdBusSlotUnref>;
using MessagePtr = std::unique_ptr<sd_bus_message, SdBusMessageUnref>;

// An sd_bus_error that frees itself.
class BusError {
  public:
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&error_); }

    sd_bus_error* get() { return &error_; }
    bool is_set() const { return sd_bus_error_is_set(&error_); }
    const char* name() const { return error_.name ? error_.name : ""; }
    const char* message() const { return error_.message ? error_.message : ""; }

  private:
    sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

}  // namespace kal
