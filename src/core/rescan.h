#pragma once

// Replaces the device table with a freshly discovered one, keeping every
// live line exactly as it is, restarting dead line monitors within the
// restart policy, starting new adapters and dropping vanished ones. Runs
// only on the line event thread, with no lock held.
void do_rescan();
