#include "base/fatal.h"

#include <atomic>
#include <cstdlib>

namespace {
std::atomic<kal::DmExitHandler> g_handler{nullptr};
}

void kal::set_dm_exit_handler(DmExitHandler handler) {
    g_handler = handler;
}

void dm_exit(int status) {
    if (auto handler = g_handler.load())
        handler(status);
    std::exit(status);
}
