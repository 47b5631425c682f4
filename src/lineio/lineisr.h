#pragma once

#include <chrono>
#include <string_view>

// The line event thread: the only reader of line-monitor messages and the
// only writer of commands to them. It waits on every running child's socket
// and on the two wake-up pipes, and within one pass gives a rescan request
// priority over a queued request, and both over line events (served in
// ascending descriptor order).

// Starts the thread; a failure ends the daemon.
void start_lineisr();

// The descriptor bounds the loop watches: the highest descriptor, and the
// lowest child socket (the descriptor-table size when no line is up).
struct FdBounds {
    int maxfd;
    int minqlxfd;
};
FdBounds calc_fdbounds();

// Takes what the line monitor on `fd` has sent, without waiting for more,
// and hands on the message it completes. A message begun but not finished
// within the frame limit (one second unless set otherwise) ends that line
// monitor as an end of file does; so does a command it does not take within
// the limit.
void service_lineisr(int fd);
void set_line_frame_limit(std::chrono::milliseconds limit);
std::chrono::milliseconds line_frame_limit();

// Ends the line monitor on `fd` as a dead one (the caller logged why):
// signals it SIGHUP, shuts its socket, and neither watches the socket nor
// writes to it again until a rescan closes or replaces it; the supervisor
// reaps the child. Line event thread only.
void end_line_monitor(int fd);
bool line_monitor_ended(int fd);
// The "QLX%d" index of the line whose socket is `fd`, or -1.
int line_index_of(int fd);
// Drops what the line event thread keeps about sockets (ended ones, half
// messages) that a rescan closed or gave to a new line monitor.
void forget_lines_not_in_table();

// Hands one message of line `index` (its payload, cut to
// lm::kEventBufferSize bytes) to the line's node and to the clients, as the
// message's event requires. Takes the device-table lock only to look the
// line up; an index not in the table is logged and ignored.
void dispatch_line_message(std::string_view message, int index);

// Starts a dial that waits for this line (or any line) going off hook.
void react_to_qlx_message(const char* buffer, int length, int index, const char* serial);

// One pass of the loop (exposed so tests can run passes on their own thread).
void lineisr_pass(FdBounds& bounds);
