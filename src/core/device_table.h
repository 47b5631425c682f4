#pragma once

// The device table: one record per telephone-line adapter, and the three
// process-wide locks.
//
// Lock order for the whole daemon: a node's lock, then the device-table
// lock, then the intra-process lock. The system-state lock is released
// before the device-table lock is taken. The log lock is innermost.

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

class LineNode;

enum QlxStatus : int {
    QLX_STATUS_NEW = 0,        // made by discovery, no child yet
    QLX_STATUS_UP = 1,         // a line monitor runs and owns fd/pid
    QLX_STATUS_RESTART = 2,    // its child died; the next rescan restarts it
    QLX_STATUS_ABANDONED = 3,  // died too often too fast; the next rescan fails it
    QLX_STATUS_FAILED = 4,     // could not be started, or abandoned
};
const char* qlx_status_name(int status);

// One adapter. Pointers to records are valid only while the device-table
// lock is held: every rescan replaces the table.
struct qlx {
    std::string serial;         // the key by which clients name a line
    std::string ttyDevice;      // e.g. "ttyUSB0"
    std::string calloutDevice;  // e.g. "/dev/ttyUSB0": the line monitor's line
    int fd = -1;                // our end of the socket pair
    pid_t pid = -1;             // the line monitor
    int status = QLX_STATUS_NEW;
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

// `intent` (1 change, 0 read) documents the caller; both take one mutex.
void lock_device_table(int intent);
void unlock_device_table();
void lock_system_state(int intent);
void unlock_system_state();
// Guards the request queue and writes to the line event thread's wake pipes.
void lock_intrapc();
void unlock_intrapc();

// Signals the child of record `index` when it is up. Device-table lock held.
void kill_qlx(int index, int signal);
