// kaldevicemaster: finds the telephone-line adapters, runs one line monitor
// per adapter, turns line events into call handling and serves clients.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "base/fatal.h"
#include "base/paths.h"
#include "core/babymonitor.h"
#include "core/event_loop.h"
#include "core/hotplug.h"
#include "core/qlxconfig.h"
#include "core/shutdown.h"
#include "core/signals.h"
#include "core/startup.h"
#include "lineio/intrapc.h"
#include "lineio/lineisr.h"
#include "log/kallog.h"
#include "log/trasher.h"
#include "service/notifier.h"
#include "service/spokesman.h"

using namespace kal;

namespace {

constexpr const char kProgramName[] = "KALDeviceMaster";
constexpr const char kVersionText[] = "QZ4.0.5 BD1.0.7 Oct  6 2006 15:57:48";

void print_help() {
    std::printf(
        "Usage: kaldevicemaster [--help | --version]\n"
        "\n"
        "Telephone-line adapter daemon. It takes no options: it runs until SIGINT or\n"
        "SIGTERM, logging to %s/%s.\n"
        "\n"
        "Environment:\n"
        "  KAL_ROOT                 prefix for every path the daemon uses (default: none)\n"
        "  DBUS_SYSTEM_BUS_ADDRESS  the system bus to serve clients on\n",
        log_dir().c_str(), kProgramName);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
            print_help();
            return 0;
        }
        if (std::strcmp(argv[1], "--version") == 0) {
            std::printf("kaldevicemaster %s\n", kVersionText);
            return 0;
        }
        std::fprintf(stderr, "kaldevicemaster: unknown option '%s' (try --help)\n", argv[1]);
        return 2;
    }

    kallogregister(kProgramName);
    kallogversion(kVersionText);
    install_dm_exit();
    kallog(KAL_NOTICE, "Hello, World!");
    // The client server exists from here on but serves only once the run
    // loop starts, after the line monitors are up.
    KALSpokesman spokesman;
    Notifier::soleInstance();
    kallog(KAL_DEBUG, "Notifier created.");

    srandom(static_cast<unsigned>(time(nullptr)));

    const std::string path = linemonitor_path();
    kallog(KAL_DEBUG, "Now checking linemonitor binary.");
    // The type-1 program comes with the adapters, not with our package, while
    // the voice-modem line monitor is ours and always installed. A machine
    // with only voice modems has no type-1 program, so either one is enough
    // to run; with neither there is nothing to supervise.
    const bool canRun = access(path.c_str(), R_OK | X_OK) == 0 ||
                        access(v253_linemonitor_path().c_str(), R_OK | X_OK) == 0;
    if (!canRun) {
        kallog(KAL_ERR, "Can't access KALLineMonitor at path %s", path.c_str());
        std::exit(1);
    }

    init_lmcomm_intrapc();

    sd_event* raw_loop = nullptr;
    if (int rc = sd_event_new(&raw_loop); rc < 0) {
        kallog(KAL_ERR, "Couldn't create the main event loop (%d-%s). Quitting.", -rc,
               strerror(-rc));
        std::exit(1);
    }
    EventPtr loop(raw_loop);
    setup_quit_signals(loop.get());
    start_babymonitor();

    // Hot-plug events are read on the main loop, so they are handled on the
    // main thread.
    HotplugMonitor hotplug(loop.get());
    start_line_monitors(hotplug);

    start_lineisr();
    start_trasher();

    if (read_silence_detection(qlxconfig_path())) {
        kallog(KAL_DEBUG, "Enabling silence detection for voicemail");
        qlx_enabled_silence_detection = 1;
    } else {
        qlx_enabled_silence_detection = 0;
    }

    spokesman.startRunloop(loop.get());
}
