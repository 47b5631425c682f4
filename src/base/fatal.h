#pragma once

// The daemon's single fatal-exit path. Lower layers (log, line I/O) call
// dm_exit without knowing what it tears down; the daemon core installs the
// real behaviour (signal every line monitor, then exit) at start-up. Until
// then, and in programs that install nothing, it is plain exit(status).

[[noreturn]] void dm_exit(int status);

namespace kal {
using DmExitHandler = void (*)(int status);
void set_dm_exit_handler(DmExitHandler handler);
}  // namespace kal
