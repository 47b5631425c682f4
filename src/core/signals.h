#pragma once

#include <systemd/sd-event.h>

// Ignores SIGPIPE (a write to a dead line monitor then fails with EPIPE
// instead of killing us) and routes SIGINT and SIGTERM to quit_handler
// through signal sources on `loop`: the signals are blocked in every thread
// created afterwards, so no real signal handler ever logs, locks or exits.
// Any failure logs its line and exits 1. Call before any thread exists.
void setup_quit_signals(sd_event* loop);
