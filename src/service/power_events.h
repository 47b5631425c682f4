#pragma once

// System power events: the line monitors stop before the machine sleeps and
// the adapters are found again after it wakes. The events come from
// systemd-logind on the system bus, through the daemon's own connection,
// which is attached to the main loop: the callbacks run on the main thread.

#include <systemd/sd-bus.h>

// Called once by the client server before it starts serving.
void registerForSleepNotification(sd_bus* bus);
