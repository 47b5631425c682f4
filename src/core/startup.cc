#include "core/startup.h"

#include <cstdlib>

#include "core/device_table.h"
#include "core/discovery.h"
#include "core/linemonitor.h"
#include "log/kallog.h"

using namespace kal;

void start_line_monitors(HotplugMonitor& hotplug) {
    DeviceTableLock lock(kTableChange);
    if (!FindModems(&gLines, &gLinecount, true, &hotplug)) {
        // No child exists yet, so there is nobody to signal: a plain exit.
        kallog(KAL_ERR, "Failure to find QLXs. Exiting.");
        std::exit(1);
    }
    for (qlx& record : gLines) {
        const int i = line_index(record);
        kallog(KAL_INFO, "Trying to initialize QLX%d (s/n: '%s') at %s (device type = %d)", i,
               record.serial.c_str(), record.calloutDevice.c_str(), record.deviceType);
        if (spawn_correct_linemonitor(&record) == -1) {
            kallog(KAL_WARN, "Failed to initialize QLX%d skipping.", i);
            record.pid = -1;
            set_line_status(record, QLX_STATUS_FAILED, "its line monitor could not be started");
        }
    }
}
