#pragma once

// The device table: one record per telephone-line adapter, the lookups over
// it, the one place a line's status changes, and the three process-wide
// locks.
//
// Lock order for the whole daemon: a node's lock, then the device-table
// lock, then the intra-process lock. The system-state lock is released
// before the device-table lock is taken. The log lock is innermost.

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

class LineNode;

enum QlxStatus : int {
    QLX_STATUS_NEW = 0,        // made by discovery, no child yet
    QLX_STATUS_UP = 1,         // a line monitor runs and owns fd/pid
    QLX_STATUS_RESTART = 2,    // its child died; the next rescan restarts it
    QLX_STATUS_ABANDONED = 3,  // died too often too fast; the next rescan fails it
    QLX_STATUS_FAILED = 4,     // could not be started, or abandoned
};
const char* qlx_status_name(int status);

// One adapter. Move-only: it owns its socket, so a record that is dropped
// (a table replaced by a rescan) closes it. Pointers to records are valid
// only while the device-table lock is held: every rescan replaces the table.
struct qlx {
    std::string serial;                           // the key by which clients name a line
    std::string ttyDevice;                        // e.g. "ttyUSB0"
    std::string calloutDevice;                    // e.g. "/dev/ttyUSB0": the line monitor's line
    kal::unique_fd fd;                            // our end of the socket pair
    pid_t pid = -1;                               // the line monitor
    time_t lastRestart = 0;                       // when the supervisor last decided to restart it
    int restartCount = 0;                         // restarts in the current burst
    std::optional<std::string> pendingDial;       // a dial waiting for the line
    std::optional<std::string> pendingDialToken;  // its client's callback token
    int deviceType = 0;                           // 1 or 2: which line-monitor program
    // The attached call-handling node. A weak link: a node keeps itself
    // alive until its delayed release, and the line event thread holds it
    // across each call into it.
    std::weak_ptr<LineNode> node;
    int nodeType = 0;

    // Written by set_line_status alone.
    QlxStatus status() const { return status_; }

  private:
    friend void set_line_status(qlx& record, QlxStatus next, const char* reason);
    QlxStatus status_ = QLX_STATUS_NEW;
};

// Guarded by the device-table lock. gLinecount == gLines.size() always.
extern std::vector<qlx>& gLines;
extern int gLinecount;

// A dial waiting for whichever line goes off hook first: its number and its
// client's token (device-table lock).
extern std::optional<std::string>& gWildcardDialPending;
extern std::optional<std::string>& gWildcardDialToken;

// Set when the supervisor reaped a child of a known line.
extern int gMustRescan;

// System state: 0 running, 1 shutting down, 2 asleep (system-state lock).
enum SystemState : int { kSystemRunning = 0, kSystemShuttingDown = 1, kSystemAsleep = 2 };
extern int gSystemState;

// What a holder of the device-table lock means to do. It documents the
// caller; both take the one mutex.
enum TableIntent : int { kTableRead = 0, kTableChange = 1 };

// Holds the device-table lock for its scope (gLines, gLinecount, every
// record field, the wildcard dial and gMustRescan).
class DeviceTableLock {
  public:
    explicit DeviceTableLock(TableIntent intent);
    // Takes nothing when `alreadyHeld`: for code that a holder of the lock
    // calls back (a node torn down from deviceLost).
    DeviceTableLock(TableIntent intent, bool alreadyHeld);
    ~DeviceTableLock();
    DeviceTableLock(const DeviceTableLock&) = delete;
    DeviceTableLock& operator=(const DeviceTableLock&) = delete;

    // Releases the lock before the end of the scope.
    void unlock();

  private:
    bool held_;
};

// Lookups in gLines; null when no record matches. Device-table lock held.
qlx* line_at(int index);
qlx* line_by_serial(std::string_view serial);
qlx* line_by_fd(int fd);
qlx* line_by_callout(std::string_view calloutDevice);
qlx* line_by_node(const LineNode& node);
qlx* line_by_pid(pid_t pid);
qlx* line_by_dial_token(std::string_view token);
// The position of a record of gLines: the n of the "QLX%d" in the logs, the
// index kill_qlx takes and the nodes are told.
int line_index(const qlx& record);
// Whether any line is up.
bool any_line_up();

// Installs `table` as gLines (and its size as gLinecount), dropping the
// records it replaces and so closing their sockets. Device-table lock held.
void install_device_table(std::vector<qlx> table);

// The one place a line's status changes: logs old -> new by name, with why.
// Device-table lock held (or a record not yet in the table).
void set_line_status(qlx& record, QlxStatus next, const char* reason);

// A rescan found the adapter of `from` (a record of the old table) again as
// `to`: `to` takes over everything of `from` (its running line, socket,
// restart bookkeeping, parked dial, node, and any field added later) except
// what discovery read this time. `from` is left a new, empty record.
void carry_over(qlx& from, qlx& to);

void lock_system_state(int intent);
void unlock_system_state();
// Guards the request queue and writes to the line event thread's wake pipes.
void lock_intrapc();
void unlock_intrapc();

// Signals the child of record `index` when it is up. Device-table lock held.
void kill_qlx(int index, int signal);
