#include "core/rescan.h"

#include <signal.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "core/device_table.h"
#include "core/discovery.h"
#include "core/line_node.h"
#include "core/linemonitor.h"
#include "log/kallog.h"
#include "service/notifier.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

void fail_waiting_dial(qlx& rec) {
    if (rec.pendingDialToken)
        notify_cmd_failure(*rec.pendingDialToken, kal_ResponseCode_ERR_NoResource, rec.serial);
    rec.pendingDialToken.reset();
    rec.pendingDial.reset();
}

bool is_dead(const qlx& rec) {
    return rec.status() == QLX_STATUS_RESTART || rec.status() == QLX_STATUS_ABANDONED;
}

// A record of the old table whose adapter this scan did not find. udev
// reports a removal only after the device has left sysfs, so a rescan run
// in between (another adapter plugged in, another line monitor died) drops
// the record of an adapter whose line monitor still runs and whose
// "remove" is yet to come, and will then find nothing. Its line monitor is
// hung up here as the removal would have done, and the supervisor reaps it
// as any other child; its socket closes with the old table.
void drop_vanished(qlx& old, int index) {
    if (old.pid > 0 && old.status() == QLX_STATUS_UP) {
        kallog(KAL_INFO,
               "Rescan no longer finds old QLX%d (s/n: '%s') at %s. Hanging up its line monitor "
               "and closing fd %d.",
               index, old.serial.c_str(), old.calloutDevice.c_str(), old.fd.get());
        kill_qlx(index, SIGHUP);
    }
    if (auto node = old.node.lock())
        node_devicelost(*node);
    fail_waiting_dial(old);
}

}  // namespace

void do_rescan() {
    lock_system_state(0);
    if (gSystemState == kSystemAsleep) {
        kallog(KAL_DEBUG, "Deferring rescan because of system sleep state");
        unlock_system_state();
        return;
    }
    unlock_system_state();

    kallog(KAL_DEBUG, "Beginning device rescan");
    std::vector<qlx> fresh;
    int fresh_count = 0;
    if (!FindModems(&fresh, &fresh_count, false)) {
        kallog(KAL_WARN, "Rescan failed to determine devices. ");
        return;
    }

    DeviceTableLock lock(kTableChange);
    for (qlx& old : gLines) {
        if (is_dead(old) && old.fd) {
            kallog(KAL_DEBUG, "Rescan is shutting down fd %d for old QLX%d (%s) in state %s",
                   old.fd.get(), line_index(old), old.serial.c_str(),
                   qlx_status_name(old.status()));
            old.fd.reset();
        }
    }

    for (int j = 0; j < fresh_count; ++j) {
        qlx& rec = fresh[j];
        kallog(KAL_DEBUG, "Rescan found QLX%d", j);
        if (qlx* old = line_by_callout(rec.calloutDevice)) {
            kallog(KAL_DEBUG, "Rescanned QLX%d is old QLX%d.", j, line_index(*old));
            carry_over(*old, rec);
            if (auto node = rec.node.lock())
                node_setdeviceptr(*node, &rec);
        } else {
            kallog(KAL_INFO, "Trying to initialize rescanned QLX%d (s/n: '%s') at %s", j,
                   rec.serial.c_str(), rec.calloutDevice.c_str());
            if (spawn_correct_linemonitor(&rec) == -1) {
                kallog(KAL_WARN, "Failed to initialize rescanned QLX%d skipping.", j);
                rec.pid = -1;
                set_line_status(rec, QLX_STATUS_FAILED, "its line monitor could not be started");
            }
        }
    }

    for (int j = 0; j < fresh_count; ++j) {
        qlx& rec = fresh[j];
        kallog(KAL_DEBUG, "Status of rescanned QLX%d is %s", j, qlx_status_name(rec.status()));
        if (is_dead(rec)) {
            if (rec.fd) {
                kallog(KAL_DEBUG, "Closing fd=%d for rescanned QLX%d", rec.fd.get(), j);
                rec.fd.reset();
            }
            // Told once already by the supervisor; told again here, as the
            // line really is gone now.
            if (auto node = rec.node.lock())
                node_devicelost(*node);
            rec.node.reset();
        }
        if (rec.status() == QLX_STATUS_ABANDONED && rec.pendingDialToken)
            fail_waiting_dial(rec);
        if (rec.status() == QLX_STATUS_RESTART) {
            kallog(KAL_INFO, "Trying to restart rescanned QLX%d (s/n: '%s') at %s", j,
                   rec.serial.c_str(), rec.calloutDevice.c_str());
            if (spawn_correct_linemonitor(&rec) == -1) {
                kallog(KAL_WARN, "Failed to restart rescanned QLX%d skipping.", j);
                rec.pid = -1;
                set_line_status(rec, QLX_STATUS_FAILED, "its line monitor could not be restarted");
            }
        } else if (rec.status() == QLX_STATUS_ABANDONED) {
            kallog(KAL_DEBUG, "Marking rescanned QLX%d as permanently down.", j);
            set_line_status(rec, QLX_STATUS_FAILED, "abandoned");
        }
    }

    const auto up = std::count_if(fresh.begin(), fresh.end(),
                                  [](const qlx& rec) { return rec.status() == QLX_STATUS_UP; });
    kallog(KAL_DEBUG, "%d QLXs left after rescan", static_cast<int>(up));
    if (up == 0 && gWildcardDialToken) {
        kallog(KAL_DEBUG, "Cancelling pending wildcard dial (aar=%d)", 0);
        notify_cmd_failure(*gWildcardDialToken, kal_ResponseCode_ERR_NoResource, std::nullopt);
        gWildcardDialToken.reset();
        gWildcardDialPending.reset();
    }

    // What is left in the old table (records carried over are empty now)
    // belongs to adapters that vanished.
    for (qlx& old : gLines)
        drop_vanished(old, line_index(old));

    install_device_table(std::move(fresh));
}
