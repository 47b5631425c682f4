#pragma once

// The daemon's two ways out: a signal (quit_handler) and dm_exit. Both
// signal every live line monitor with SIGTERM and exit; nothing else is
// torn down.

// Runs the quit steps for SIGINT/SIGTERM and exits 0. Called on the main
// loop by the signal source, never from a real signal handler.
[[noreturn]] void quit_handler(int signal);

// Makes dm_exit (base/fatal.h) log and signal the children before exiting.
void install_dm_exit();

void kill_children();
// Sends `signal` to every line monitor that is up. SIGTERM also sets the
// shutting-down state, which stops the supervisor from restarting children.
void kill_children_with_signal(int signal);
