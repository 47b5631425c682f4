// kal-linesim: a line-monitor simulator, and the client that drives it.
//
// Installed under the line monitors' program names (KALLineMonitor,
// ZRXLineMonitor) it is started by the daemon like a real line monitor:
//     <program> -QLXLine <callout device> -QLXSerial <serial>
// with the line socket on descriptor 4 (server.h, line_sim.h). Run by hand:
//     kal-linesim ctl <serial> <command...>    drive a running simulator
//     kal-linesim list                         the simulators that listen
//
// Environment:
//   KAL_LINESIM_SPEED    simulated audio time runs this many times faster
//                        than real time (default 1; tests use e.g. 100)
//   KAL_LINESIM_DIR      directory of the control sockets (default
//                        $KAL_ROOT/run/kal-linesim)
//   KAL_LINESIM_VERBOSE  when set and not "0": trace commands, events and
//                        control requests on standard error

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "simctl/ctl.h"
#include "simctl/trace.h"
#include "simulator/control_path.h"
#include "simulator/server.h"

using namespace kal::linesim;
using kal::simctl::fail;

namespace {

const char kUsage[] =
    "kal-linesim: a line-monitor simulator for tests and demonstrations.\n"
    "\n"
    "As a line monitor (the daemon starts it; the line socket is descriptor 4):\n"
    "  KALLineMonitor -QLXLine <callout device> -QLXSerial <serial>\n"
    "Driving one:\n"
    "  kal-linesim ctl [-w SECONDS] <serial> <command...>   one command\n"
    "  kal-linesim ctl <serial>                             commands from stdin\n"
    "  kal-linesim ctl <serial> help                        the commands\n"
    "  kal-linesim list                                     running simulators\n"
    "Environment: KAL_LINESIM_SPEED (audio time factor, default 1),\n"
    "  KAL_LINESIM_DIR (control sockets; default $KAL_ROOT/run/kal-linesim),\n"
    "  KAL_LINESIM_VERBOSE=1 (trace on standard error).\n";

double speed_from_env() {
    const char* text = std::getenv("KAL_LINESIM_SPEED");
    if (!text || !*text)
        return 1;
    char* end = nullptr;
    double v = strtod(text, &end);
    if (*end || !std::isfinite(v) || v <= 0) {
        fail("KAL_LINESIM_SPEED=%s is not a positive number; using 1", text);
        return 1;
    }
    return v;
}

}  // namespace

int main(int argc, char** argv) {
    if (auto status = kal::simctl::run_client({"kal-linesim", control_dir()}, argc, argv))
        return *status;
    if (argc >= 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fputs(kUsage, stdout);
        return 0;
    }

    Identity id;
    const char* slash = strrchr(argv[0], '/');
    id.program = slash ? slash + 1 : argv[0];
    bool monitor = false;
    for (int i = 1; i + 1 < argc; ++i) {
        if (strcmp(argv[i], "-QLXLine") == 0) {
            id.line = argv[++i];
            monitor = true;
        } else if (strcmp(argv[i], "-QLXSerial") == 0) {
            id.serial = argv[++i];
            monitor = true;
        }
    }
    if (!monitor) {
        fputs(kUsage, stderr);
        return 2;
    }
    const char* verbose = std::getenv("KAL_LINESIM_VERBOSE");
    kal::simctl::set_trace_verbose(verbose && *verbose && strcmp(verbose, "0") != 0);
    kal::simctl::set_trace_name("kal-linesim[" + id.serial + "]");
    return serve_line(id, speed_from_env());
}
