#pragma once

// The child supervisor: a thread that reaps line monitors, marks their lines
// down, tells clients and the attached node, decides restart or abandon,
// and wakes the line event thread, whose rescan does the restarting. It
// exists only while children exist: it ends when wait() finds none and every
// spawn starts it again.

#include <ctime>

#include "core/device_table.h"

// Restart policy: a death more than this long after the line's last restart
// starts a new burst; the death that brings a burst to the limit abandons
// the line.
inline constexpr time_t kRestartBurstSeconds = 120;
inline constexpr int kRestartBurstLimit = 5;

void start_babymonitor();
void stop_babymonitor();
// True while a supervisor thread exists.
bool babymonitor_running();

// Applies the restart policy to the record of a child that died at `now`;
// returns the verdict text for the log. Device-table lock held.
const char* restart_decision(qlx& record, time_t now);
