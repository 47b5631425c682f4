#include "core/device_table.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

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

// `intent` (1 change, 0 read) documents the caller; both take one mutex.
void lock_device_table(int) {
    device_table_mutex.lock();
}
void unlock_device_table() {
    device_table_mutex.unlock();
}

template <typename Match>
qlx* find_line(Match&& match) {
    auto it = std::find_if(gLines.begin(), gLines.end(), match);
    return it == gLines.end() ? nullptr : &*it;
}

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

DeviceTableLock::DeviceTableLock(TableIntent intent) : DeviceTableLock(intent, false) {}

DeviceTableLock::DeviceTableLock(TableIntent intent, bool alreadyHeld) : held_(!alreadyHeld) {
    if (held_)
        lock_device_table(intent);
}

DeviceTableLock::~DeviceTableLock() {
    unlock();
}

void DeviceTableLock::unlock() {
    if (std::exchange(held_, false))
        unlock_device_table();
}

qlx* line_at(int index) {
    return index >= 0 && index < gLinecount ? &gLines[static_cast<size_t>(index)] : nullptr;
}

qlx* line_by_serial(std::string_view serial) {
    return find_line([&](const qlx& rec) { return rec.serial == serial; });
}

qlx* line_by_fd(int fd) {
    if (fd < 0)
        return nullptr;
    return find_line([&](const qlx& rec) { return rec.fd.get() == fd; });
}

qlx* line_by_callout(std::string_view calloutDevice) {
    return find_line([&](const qlx& rec) { return rec.calloutDevice == calloutDevice; });
}

qlx* line_by_node(const LineNode& node) {
    return find_line([&](const qlx& rec) {
        const std::shared_ptr<LineNode> attached = rec.node.lock();
        return attached.get() == &node;
    });
}

qlx* line_by_pid(pid_t pid) {
    if (pid <= 0)
        return nullptr;
    return find_line([&](const qlx& rec) { return rec.pid == pid; });
}

qlx* line_by_dial_token(std::string_view token) {
    return find_line([&](const qlx& rec) { return rec.pendingDialToken == token; });
}

int line_index(const qlx& record) {
    return static_cast<int>(&record - gLines.data());
}

bool any_line_up() {
    return std::any_of(gLines.begin(), gLines.end(),
                       [](const qlx& rec) { return rec.status() == QLX_STATUS_UP; });
}

void install_device_table(std::vector<qlx> table) {
    gLines = std::move(table);
    gLinecount = static_cast<int>(gLines.size());
}

void set_line_status(qlx& record, QlxStatus next, const char* reason) {
    kallog(kal::KAL_DEBUG, "QLX %s at %s: status %s -> %s (%s)", record.serial.c_str(),
           record.calloutDevice.c_str(), qlx_status_name(record.status_), qlx_status_name(next),
           reason);
    record.status_ = next;
}

void carry_over(qlx& from, qlx& to) {
    qlx discovered = std::exchange(to, std::exchange(from, qlx{}));
    to.serial = std::move(discovered.serial);
    to.ttyDevice = std::move(discovered.ttyDevice);
    to.calloutDevice = std::move(discovered.calloutDevice);
    to.deviceType = discovered.deviceType;
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
    if (rec.pid > 0 && rec.status() == QLX_STATUS_UP) {
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
               "%d (%s). This is not necessarily a bad thing.",
               name, rec.pid, rec.calloutDevice.c_str(), rec.status(),
               qlx_status_name(rec.status()));
    }
}
