#pragma once

// Serial ports appearing and vanishing while the daemon runs. A udev monitor
// on subsystem "tty" is read by an I/O source on the main sd-event loop, so
// ioNotificationHandler always runs on the main thread. The handler never
// edits the device table: it signals a line monitor or wakes the line event
// thread, whose rescan does the rest.

#include <systemd/sd-event.h>

#include "core/event_loop.h"
#include "core/udev_handles.h"

// Owns the udev monitor and its source on the loop; destroying it stops the
// watching. Thread-aware, not thread-safe: the main thread only.
class HotplugMonitor {
  public:
    // Watches nothing until setup_notifications; `loop` must outlive this.
    explicit HotplugMonitor(sd_event* loop) : loop_(loop) {}
    HotplugMonitor(const HotplugMonitor&) = delete;
    HotplugMonitor& operator=(const HotplugMonitor&) = delete;

    // Starts watching; logs and returns false when it cannot. Calling it
    // again once watching does nothing and returns true.
    bool setup_notifications();
    bool watching() const { return source_ != nullptr; }

  private:
    static int on_readable(sd_event_source* source, int fd, uint32_t revents, void* self);

    sd_event* loop_;
    kal::UdevPtr udev_;
    kal::UdevMonitorPtr monitor_;
    kal::EventSourcePtr source_;
};

// One udev event: `action` "add" (a port appeared) or "remove" (the port
// whose device node is `devnode` vanished); other actions are ignored. Takes
// the device-table lock, and inside it the intra-process lock for a wake-up.
void ioNotificationHandler(const char* action, const char* devnode);
