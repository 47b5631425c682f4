#pragma once

// Owning handles for libudev objects: each drops its reference when
// destroyed.

#include <libudev.h>

#include <memory>

namespace kal {

struct UdevUnref {
    void operator()(udev* u) const { udev_unref(u); }
    void operator()(udev_device* d) const { udev_device_unref(d); }
    void operator()(udev_enumerate* e) const { udev_enumerate_unref(e); }
    void operator()(udev_monitor* m) const { udev_monitor_unref(m); }
};
using UdevPtr = std::unique_ptr<udev, UdevUnref>;
using UdevDevicePtr = std::unique_ptr<udev_device, UdevUnref>;
using UdevEnumeratePtr = std::unique_ptr<udev_enumerate, UdevUnref>;
using UdevMonitorPtr = std::unique_ptr<udev_monitor, UdevUnref>;

}  // namespace kal
