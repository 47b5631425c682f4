#include "core/startup.h"

#include <cstdlib>

#include "core/device_table.h"
#include "core/discovery.h"
#include "core/linemonitor.h"
#include "log/kallog.h"

using namespace kal;

void start_line_monitors(HotplugMonitor& hotplug) {
    lock_device_table(1);
    if (!FindModems(&gLines, &gLinecount, true, &hotplug)) {
        // No child exists yet, so there is nobody to signal: a plain exit.
        kallog(KAL_ERR, "Failure to find QLXs. Exiting.");
        std::exit(1);
    }
    for (int i = 0; i < gLinecount; ++i) {
        qlx& record = gLines[i];
        kallog(KAL_INFO, "Trying to initialize QLX%d (s/n: '%s') at %s (device type = %d)", i,
               record.serial.c_str(), record.calloutDevice.c_str(), record.deviceType);
        if (spawn_correct_linemonitor(&record) == -1) {
            kallog(KAL_WARN, "Failed to initialize QLX%d skipping.", i);
            record.pid = -1;
            record.status = QLX_STATUS_FAILED;
        }
    }
    unlock_device_table();
}
