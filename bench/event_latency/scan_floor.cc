// kal-bench-scanfloor: the floor of the daemon's start-up. What any daemon
// must do before it can serve: start, find the adapters with libudev (every
// tty, its USB device, that device's product and serial) and take the bus
// name. Then it waits to be killed.

#include <libudev.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>

#include "base/paths.h"
#include "core/udev_handles.h"
#include "service/sd_bus_handles.h"

int main() {
    kal::UdevPtr udev(udev_new());
    kal::UdevEnumeratePtr ttys(udev ? udev_enumerate_new(udev.get()) : nullptr);
    if (!ttys || udev_enumerate_add_match_subsystem(ttys.get(), "tty") < 0 ||
        udev_enumerate_scan_devices(ttys.get()) < 0) {
        fprintf(stderr, "kal-bench-scanfloor: the udev scan failed\n");
        return 1;
    }
    int adapters = 0;
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(ttys.get())) {
        kal::UdevDevicePtr tty(
            udev_device_new_from_syspath(udev.get(), udev_list_entry_get_name(entry)));
        udev_device* usb =
            tty ? udev_device_get_parent_with_subsystem_devtype(tty.get(), "usb", "usb_device")
                : nullptr;
        if (usb && udev_device_get_sysattr_value(usb, "product") &&
            udev_device_get_sysattr_value(usb, "serial") && udev_device_get_devnode(tty.get()))
            ++adapters;
    }
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0) {
        fprintf(stderr, "kal-bench-scanfloor: cannot reach the system bus\n");
        return 1;
    }
    kal::BusPtr bus(raw);
    if (sd_bus_request_name(bus.get(), kal::bus_name().c_str(), 0) < 0) {
        fprintf(stderr, "kal-bench-scanfloor: cannot take the bus name\n");
        return 1;
    }
    fprintf(stderr, "kal-bench-scanfloor: %d adapters\n", adapters);
    for (;;)
        pause();
}
