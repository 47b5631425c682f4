#include "core/signals.h"

#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/shutdown.h"
#include "log/kallog.h"

using namespace kal;

namespace {

int on_quit_signal(sd_event_source*, const signalfd_siginfo* si, void*) {
    quit_handler(static_cast<int>(si->ssi_signo));
}

void route_to_quit_handler(sd_event* loop, int sig, const char* name) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    int rc = pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (rc == 0)
        rc = -sd_event_add_signal(loop, nullptr, sig, on_quit_signal, nullptr);
    if (rc != 0) {
        kallog(KAL_ERR, "Couldn't install signal handler for %s (%d-%s). Quitting.", name, rc,
               strerror(rc));
        std::exit(1);
    }
}

}  // namespace

void setup_quit_signals(sd_event* loop) {
    if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
        int e = errno;
        kallog(KAL_ERR, "Couldn't ignore SIGPIPE signals (%d-%s). Quitting.", e, strerror(e));
        std::exit(1);
    }
    route_to_quit_handler(loop, SIGINT, "SIGINT");
    route_to_quit_handler(loop, SIGTERM, "SIGTERM");
}
