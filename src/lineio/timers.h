#pragma once

// One-shot timers with whole-second resolution, served by one thread that
// exists only while timers are pending. Due times are read from kal::now(),
// so tests drive them with a ManualClock (and call kick_timer_thread after
// moving it). Callbacks run on the timer thread without any timer lock held:
// a callback may add or cancel timers.

#include <cstdint>
#include <ctime>
#include <functional>

// The owner id a timer is cancelled by; a node uses its own address.
using TimerOwner = intptr_t;
using TimerCallback = std::function<void(TimerOwner id, int data)>;

// Adds a timer due at `when` (seconds since the epoch). Returns 1.
int add_timer_at(time_t when, TimerCallback callback, TimerOwner id, int data);
// Adds a timer due `seconds` from now. Returns 1.
int add_timer_in(int seconds, TimerCallback callback, TimerOwner id, int data);
// Removes every pending timer of `id`; returns how many. A callback already
// running is not affected.
int cancel_timer(TimerOwner id);

// Makes the timer thread look at the clock again (after a test moved it).
void kick_timer_thread();
// Number of pending timers, and whether the thread runs (for tests and
// diagnostics).
int pending_timer_count();
// Number of pending timers of `id`.
int pending_timer_count(TimerOwner id);
bool timer_thread_running();

template <typename T>
TimerOwner timer_owner(const T* object) {
    return reinterpret_cast<TimerOwner>(object);
}
