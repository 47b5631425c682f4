#pragma once

// The log trasher: every 21600 seconds it deletes ordinary files in the log
// directory whose inode change time is 432000 seconds (five days) old or
// more, and rolls the database backup to a dated name so that it ages out
// the same way. Hidden files and anything that is not a regular file stay.

#include <ctime>

namespace kal {
inline constexpr unsigned kTrashPeriodSeconds = 21600;
inline constexpr time_t kTrashAgeSeconds = 432000;
}  // namespace kal

// Starts the thread; its first pass runs at once.
void start_trasher();
// One sweep of the log directory, as of `now`.
void do_trashing(time_t now);
// One roll of the database backup, naming it with `now`.
void do_openbase_roll(time_t now);
