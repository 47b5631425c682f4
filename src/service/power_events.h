#pragma once

// System power events: the line monitors stop before the machine sleeps and
// the adapters are found again after it wakes. The events come from
// systemd-logind on the system bus, through the daemon's own connection,
// which is attached to the main loop: the callbacks run on the main thread.
//
// While the daemon runs it holds a "sleep" delay lock from logind, so the
// machine waits for it before sleeping. PrepareForSleep(true) sets the
// asleep state (rescans wait), hangs up every line monitor and lets go of
// the lock. PrepareForSleep(false) sets the running state, wakes the line
// event thread for the rescan that starts the line monitors again, and takes
// a new lock.

#include <systemd/sd-bus.h>

// Called once by the client server before it starts serving. Subscribes to
// logind's PrepareForSleep and takes the first lock, waiting for logind's
// answer. Without logind the daemon runs on without power handling. What it
// sets up belongs to `bus` and goes with it.
void registerForSleepNotification(sd_bus* bus);
