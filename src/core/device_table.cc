#include "core/device_table.h"

#include <signal.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "base/signame.h"
#include "log/kallog.h"

// Never destroyed: other threads may still look at it while exit() runs.
std::vector<qlx>& gLines = *new std::vector<qlx>;
int gLinecount = 0;
int gSystemState = kSystemRunning;
std::optional<std::string>& gWildcardDialPending = *new std::optional<std::string>;
std::optional<std::string>& gWildcardDialToken = *new std::optional<std::string>;
int gMustRescan = 0;

namespace {
std::mutex device_table_mutex;  // gLines, gLinecount and every record field
std::mutex system_state_mutex;  // gSystemState
std::mutex intrapc_mutex;       // the request queue and the wake-pipe writes
}  // namespace

const char* qlx_status_name(int status) {
    switch (status) {
        case QLX_STATUS_NEW:
            return "new";
        case QLX_STATUS_UP:
            return "up";
        case QLX_STATUS_RESTART:
            return "restart";
        case QLX_STATUS_ABANDONED:
            return "abandoned";
        case QLX_STATUS_FAILED:
            return "failed";
        default:
            return "unknown";
    }
}

void lock_device_table(int) {
    device_table_mutex.lock();
}
void unlock_device_table() {
    device_table_mutex.unlock();
}
void lock_system_state(int) {
    system_state_mutex.lock();
}
void unlock_system_state() {
    system_state_mutex.unlock();
}
void lock_intrapc() {
    intrapc_mutex.lock();
}
void unlock_intrapc() {
    intrapc_mutex.unlock();
}

void kill_qlx(int index, int signal) {
    qlx& rec = gLines[index];
    const char* name = kal::signal_short_name(signal);
    if (rec.pid > 0 && rec.status == QLX_STATUS_UP) {
        kallog(kal::KAL_DEBUG, "Sending signal '%s' to process %d servicing line %s.", name,
               rec.pid, rec.calloutDevice.c_str());
        if (::kill(rec.pid, signal) != 0) {
            int e = errno;
            kallog(kal::KAL_WARN, "Couldn't kill(%s) process %d (%d-%s)", name, rec.pid, e,
                   strerror(e));
        }
    } else {
        kallog(kal::KAL_DEBUG,
               "Not trying to kill(%s) a process with PID %d servicing line %s. QLX status was "
               "%d. This is not necessarily a bad thing.",
               name, rec.pid, rec.calloutDevice.c_str(), rec.status);
    }
}
