#include "core/hotplug.h"

#include <signal.h>

#include <cerrno>
#include <cstring>

#include "core/device_table.h"
#include "lineio/intrapc.h"
#include "log/kallog.h"

// The registration log texts name the calls of the platform this daemon was
// first written for; they are kept so that logs read the same everywhere.

using namespace kal;

namespace {

// Asks the line event thread for a rescan. Takes the intra-process lock.
void wake_for_rescan() {
    const int rc = wake_lineisr_for_rescan();
    if (rc != 1) {
        const int e = errno;
        kallog(KAL_WARN,
               "Couldn't wake up linemonitor service thread for new QLX notification. Write "
               "returned %d. (%d-%s). Not quitting and not trying again.",
               rc, e, strerror(e));
    }
    kallog(KAL_DEVEL, "Signal lineisr complete. return=%d", rc);
}

void port_removed(const char* devnode) {
    kallog(KAL_NOTICE, "ioNotificationHandler informed that IOSerialDevice(s) were unplugged.");
    if (!devnode) {
        kallog(KAL_WARN,
               "IOSerialDevice terminated but couldn't find out its identity. Likely wasn't a QLX");
        return;
    }
    kallog(KAL_DEBUG,
           "IOSerialDevice for path %s unplugged. Searching for this device in our table", devnode);
    DeviceTableLock lock(kTableRead);
    const qlx* rec = line_by_callout(devnode);
    if (!rec) {
        kallog(KAL_WARN,
               "IOSerialDevice %s terminated but couldn't match it in the device table. Likely not "
               "a QLX.",
               devnode);
    } else if (rec->status() == QLX_STATUS_UP) {
        // The line monitor exits, the supervisor reaps it and the rescan
        // that follows drops the vanished adapter.
        kill_qlx(line_index(*rec), SIGHUP);
    } else {
        const int status = rec->status();
        kallog(KAL_DEBUG,
               "Not killing process servicing line %s as status (%d-%s) is not UP. Likely there is "
               "actually no valid process on this line.",
               devnode, status, qlx_status_name(status));
        // No child will die to trigger the rescan that removes a failed line.
        if (status == QLX_STATUS_FAILED) {
            kallog(KAL_DEBUG, "Forcing rescan to clear status %d (%s) QLX", status,
                   qlx_status_name(status));
            wake_for_rescan();
        }
    }
}

}  // namespace

void ioNotificationHandler(const char* action, const char* devnode) {
    if (!action)
        return;
    if (std::strcmp(action, "add") == 0) {
        kallog(KAL_NOTICE, "ioNotificationHandler informed of new IOSerialDevice(s).");
        wake_for_rescan();
    } else if (std::strcmp(action, "remove") == 0) {
        port_removed(devnode);
    }
}

bool HotplugMonitor::setup_notifications() {
    if (watching())
        return true;

    kallog(KAL_DEBUG, "IOServiceAddMatchingNotification(IOFirstMatch)");
    UdevPtr udev(udev_new());
    UdevMonitorPtr monitor(udev ? udev_monitor_new_from_netlink(udev.get(), "udev") : nullptr);
    int rc = monitor ? 0 : -errno;
    if (rc == 0)
        rc = udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), "tty", nullptr);
    if (rc >= 0)
        rc = udev_monitor_enable_receiving(monitor.get());
    if (rc < 0) {
        kallog(KAL_ERR,
               "IOServiceAddMatchingNotification returned %d. There will be no notifications.", rc);
        return false;
    }

    // One monitor reports appearances and removals alike; its source on the
    // loop is what the removal registration stands for.
    kallog(KAL_DEBUG, "IOServiceAddMatchingNotification(IOTerminatedNotification)");
    sd_event_source* source = nullptr;
    rc = sd_event_add_io(loop_, &source, udev_monitor_get_fd(monitor.get()), EPOLLIN,
                         &HotplugMonitor::on_readable, this);
    if (rc < 0) {
        kallog(KAL_ERR,
               "IOServiceAddMatchingNotification(Termination) returned %d. There will be no "
               "notifications.",
               rc);
        return false;
    }
    udev_ = std::move(udev);
    monitor_ = std::move(monitor);
    source_.reset(source);
    return true;
}

int HotplugMonitor::on_readable(sd_event_source*, int, uint32_t, void* self) {
    auto* me = static_cast<HotplugMonitor*>(self);
    // One event per call: the source is level-triggered, so the loop comes
    // back while more are queued, and nothing here can block.
    UdevDevicePtr device(udev_monitor_receive_device(me->monitor_.get()));
    if (device)
        ioNotificationHandler(udev_device_get_action(device.get()),
                              udev_device_get_devnode(device.get()));
    return 0;
}
