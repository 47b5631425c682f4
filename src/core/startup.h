#pragma once

// Start-up steps of the daemon core that main runs in order.

class HotplugMonitor;

// Finds the adapters, with `hotplug` watching for later arrivals and
// removals, and starts one line monitor per adapter, all under the
// device-table lock. An adapter whose line monitor cannot be started is
// marked failed and skipped; failing to search at all exits 1.
void start_line_monitors(HotplugMonitor& hotplug);
