#pragma once

// Starting line-monitor children: one program per adapter model, talking to
// the daemon over a socket pair. The child finds its end of the pair on
// descriptor 4 and reads a 3072-byte orders record from it first.

#include <string>

#include "core/device_table.h"

// Picks the program for `record->deviceType` (1 KALLineMonitor, 2
// ZRXLineMonitor, 3 V253LineMonitor) and spawns it for the record's callout
// device. Returns our socket end, or -1 (an unknown type forks nothing and
// leaves the record as it was). Device-table lock held.
int spawn_correct_linemonitor(qlx* record);

// Forks and execs `path` as `argv0 -QLXLine <line> -QLXSerial <serial>`.
// On success the record is up (status 1) with the child's pid and our
// socket end, which is close-on-exec and non-blocking, and the orders have
// been written. A program that cannot be executed still counts as a
// successful spawn: the child exits 18. Returns our socket end, or -1 when
// no child was made. Device-table lock held.
int spawn_linemonitor(const std::string& path, const char* argv0, const std::string& line,
                      qlx* record);

// The third field of the orders record. The daemon does not interpret it;
// it tells the line monitor which adapter model it drives, as "type=<n>"
// with the record's deviceType in decimal (e.g. "type=2"). `serial` is
// accepted so that per-adapter settings can be added without changing the
// callers.
std::string orders_extra_for(const std::string& serial, int deviceType);
