#include "core/rescan.h"

#include <unistd.h>

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

void close_fd(qlx& rec) {
    ::close(rec.fd);
    rec.fd = -1;
}

// Moves the live state of an old record into its counterpart in the new
// table; the new record keeps what discovery read this time.
void carry_over(qlx& from, qlx& to) {
    to.fd = from.fd;
    to.pid = from.pid;
    to.status = from.status;
    to.lastRestart = from.lastRestart;
    to.restartCount = from.restartCount;
    to.node = std::exchange(from.node, {});
    to.nodeType = from.nodeType;
    to.pendingDial = std::exchange(from.pendingDial, std::nullopt);
    to.pendingDialToken = std::exchange(from.pendingDialToken, std::nullopt);
}

void fail_waiting_dial(qlx& rec) {
    if (rec.pendingDialToken)
        notify_cmd_failure(*rec.pendingDialToken, kal_ResponseCode_ERR_NoResource, rec.serial);
    rec.pendingDialToken.reset();
    rec.pendingDial.reset();
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

    lock_device_table(1);
    for (int i = 0; i < gLinecount; ++i) {
        qlx& old = gLines[i];
        if ((old.status == QLX_STATUS_RESTART || old.status == QLX_STATUS_ABANDONED) &&
            old.fd != -1) {
            kallog(KAL_DEBUG, "Rescan is shutting down fd %d for old QLX%d (%s) in state %d",
                   old.fd, i, old.serial.c_str(), old.status);
            close_fd(old);
        }
    }

    for (int j = 0; j < fresh_count; ++j) {
        qlx& rec = fresh[j];
        kallog(KAL_DEBUG, "Rescan found QLX%d", j);
        int match = -1;
        for (int i = 0; i < gLinecount; ++i) {
            if (gLines[i].calloutDevice == rec.calloutDevice) {
                match = i;
                break;
            }
        }
        if (match >= 0) {
            kallog(KAL_DEBUG, "Rescanned QLX%d is old QLX%d.", j, match);
            carry_over(gLines[match], rec);
            if (auto node = rec.node.lock())
                node_setdeviceptr(*node, &rec);
        } else {
            kallog(KAL_INFO, "Trying to initialize rescanned QLX%d (s/n: '%s') at %s", j,
                   rec.serial.c_str(), rec.calloutDevice.c_str());
            if (spawn_correct_linemonitor(&rec) == -1) {
                kallog(KAL_WARN, "Failed to initialize rescanned QLX%d skipping.", j);
                rec.pid = -1;
                rec.status = QLX_STATUS_FAILED;
            }
        }
    }

    for (int j = 0; j < fresh_count; ++j) {
        qlx& rec = fresh[j];
        kallog(KAL_DEBUG, "Status of rescanned QLX%d is %d", j, rec.status);
        if (rec.status == QLX_STATUS_RESTART || rec.status == QLX_STATUS_ABANDONED) {
            if (rec.fd != -1) {
                kallog(KAL_DEBUG, "Closing fd=%d for rescanned QLX%d", rec.fd, j);
                close_fd(rec);
            }
            // Told once already by the supervisor; told again here, as the
            // line really is gone now.
            if (auto node = rec.node.lock())
                node_devicelost(*node);
            rec.node.reset();
        }
        if (rec.status == QLX_STATUS_ABANDONED && rec.pendingDialToken)
            fail_waiting_dial(rec);
        if (rec.status == QLX_STATUS_RESTART) {
            kallog(KAL_INFO, "Trying to restart rescanned QLX%d (s/n: '%s') at %s", j,
                   rec.serial.c_str(), rec.calloutDevice.c_str());
            if (spawn_correct_linemonitor(&rec) == -1) {
                kallog(KAL_WARN, "Failed to restart rescanned QLX%d skipping.", j);
                rec.pid = -1;
                rec.status = QLX_STATUS_FAILED;
            }
        } else if (rec.status == QLX_STATUS_ABANDONED) {
            kallog(KAL_DEBUG, "Marking rescanned QLX%d as permanently down.", j);
            rec.status = QLX_STATUS_FAILED;
        }
    }

    int up = 0;
    for (int j = 0; j < fresh_count; ++j)
        if (fresh[j].status == QLX_STATUS_UP)
            ++up;
    kallog(KAL_DEBUG, "%d QLXs left after rescan", up);
    if (up == 0 && gWildcardDialToken) {
        kallog(KAL_DEBUG, "Cancelling pending wildcard dial (aar=%d)", 0);
        notify_cmd_failure(*gWildcardDialToken, kal_ResponseCode_ERR_NoResource, std::nullopt);
        gWildcardDialToken.reset();
        gWildcardDialPending.reset();
    }

    // What is left in the old table belongs to adapters that vanished.
    for (int i = 0; i < gLinecount; ++i) {
        qlx& old = gLines[i];
        if (auto node = old.node.lock())
            node_devicelost(*node);
        fail_waiting_dial(old);
    }

    gLines = std::move(fresh);
    gLinecount = fresh_count;
    unlock_device_table();
}
