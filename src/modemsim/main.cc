// kal-modemsim: a V.253 voice-modem emulator on a pseudo-terminal, and the
// client that drives it. See --help, modem.h (what the host sees),
// control.h (what a test or a person can do) and server.h (the port).

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "modemsim/control_path.h"
#include "modemsim/server.h"
#include "simctl/ctl.h"
#include "simctl/trace.h"

using namespace kal::modemsim;

namespace {

const char kUsage[] =
    "kal-modemsim: a V.253 voice-modem emulator on a pseudo-terminal.\n"
    "\n"
    "Running a modem:\n"
    "  kal-modemsim [options] --link PATH   make a pty and link its port at PATH\n"
    "  kal-modemsim [options] --fd N        be the modem behind pty master N\n"
    "Options:\n"
    "  --serial NAME       names the control socket (default \"modem\")\n"
    "  --socket PATH       the control socket (default\n"
    "                      $KAL_MODEMSIM_DIR or $KAL_ROOT/run/kal-modemsim, /NAME.sock)\n"
    "  --speed X           audio time runs X times faster (default 1, or\n"
    "                      KAL_MODEMSIM_SPEED)\n"
    "  --profile conexant|usr   +VSM numbering and +VLS labels (default conexant)\n"
    "  --quirk NAME=VALUE  as the control command `set NAME VALUE`, e.g.\n"
    "                      --quirk no-callerid=on --quirk mute-at=+VSM\n"
    "                      --quirk vcon=on --quirk bracket=on --quirk vsm-error=on\n"
    "                      --quirk nmbr-spaces=on --quirk dle-sub=on\n"
    "  --verbose           trace on standard error (also KAL_MODEMSIM_VERBOSE=1)\n"
    "Driving one:\n"
    "  kal-modemsim ctl [-w SECONDS] <serial> <command...>   one command\n"
    "  kal-modemsim ctl <serial>                             commands from stdin\n"
    "  kal-modemsim ctl <serial> help                        the commands\n"
    "  kal-modemsim list                                     running emulators\n"
    "\n"
    "Under umockdev, --link $UMOCKDEV_DIR/dev/ttyACM0 puts the emulator behind the\n"
    "testbed's /dev/ttyACM0.\n";

bool parse_speed(const char* text, double& speed) {
    char* end = nullptr;
    double v = strtod(text, &end);
    if (*end || !std::isfinite(v) || v <= 0)
        return false;
    speed = v;
    return true;
}

int usage_error(const char* what) {
    fprintf(stderr, "kal-modemsim: %s (try --help)\n", what);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (auto status = kal::simctl::run_client({"kal-modemsim", control_dir()}, argc, argv))
        return *status;

    ServerOptions o;
    if (const char* s = std::getenv("KAL_MODEMSIM_SPEED"); s && *s && !parse_speed(s, o.speed))
        return usage_error("KAL_MODEMSIM_SPEED is not a positive number");
    const char* verbose = std::getenv("KAL_MODEMSIM_VERBOSE");
    bool trace = verbose && *verbose && strcmp(verbose, "0") != 0;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
        auto take = [&]() -> const char* {
            ++i;
            return next;
        };
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return 0;
        } else if (a == "--verbose") {
            trace = true;
        } else if (!next) {
            return usage_error(("missing value after " + a).c_str());
        } else if (a == "--link") {
            o.link_path = take();
        } else if (a == "--fd") {
            o.master_fd = atoi(take());
        } else if (a == "--serial") {
            o.serial = take();
        } else if (a == "--socket") {
            o.socket_path = take();
        } else if (a == "--speed") {
            if (!parse_speed(take(), o.speed))
                return usage_error("--speed needs a positive number");
        } else if (a == "--profile") {
            o.quirks.emplace_back("profile", take());
        } else if (a == "--quirk") {
            std::string q = take();
            size_t eq = q.find('=');
            if (eq == std::string::npos)
                return usage_error("--quirk needs NAME=VALUE");
            o.quirks.emplace_back(q.substr(0, eq), q.substr(eq + 1));
        } else {
            return usage_error(("unknown argument " + a).c_str());
        }
    }
    if (o.link_path.empty() && o.master_fd < 0)
        return usage_error("needs --link PATH or --fd N");
    kal::simctl::set_trace_verbose(trace);
    kal::simctl::set_trace_name("kal-modemsim[" + o.serial + "]");
    return serve_modem(o);
}
