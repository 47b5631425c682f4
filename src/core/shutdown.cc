#include "core/shutdown.h"

#include <signal.h>

#include <cstdlib>

#include "base/fatal.h"
#include "base/signame.h"
#include "core/device_table.h"
#include "log/kallog.h"

using namespace kal;

void quit_handler(int signal) {
    kallog(KAL_INFO, "quit handler called (signal=%d-%s).", signal, signal_short_name(signal));
    kill_children_with_signal(SIGTERM);
    kallog(KAL_WARN, "Shutting down normally in quit handler. Goodbye, World!");
    kallogflush();
    std::exit(0);
}

namespace {
void dm_exit_steps(int status) {
    kallog(KAL_INFO, "dm_exit(%d) called.", status);
    kill_children_with_signal(SIGTERM);
}
}  // namespace

void install_dm_exit() {
    set_dm_exit_handler(dm_exit_steps);
}

void kill_children() {
    kill_children_with_signal(SIGTERM);
}

void kill_children_with_signal(int signal) {
    kallog(KAL_DEBUG, "In kill_children_with_signal(%s)", signal_short_name(signal));
    if (signal == SIGTERM) {
        lock_system_state(1);
        gSystemState = kSystemShuttingDown;
        unlock_system_state();
    }
    DeviceTableLock lock(kTableRead);
    for (int i = 0; i < gLinecount; ++i)
        kill_qlx(i, signal);
}
