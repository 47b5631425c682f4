#pragma once

// The line event thread's two wake-up pipes. A byte on the babymonitor pipe
// means "the device table changed: rescan"; a byte "@" on the userisr pipe
// means "one request was queued". Writes happen under the intra-process lock.

// Write ends (public) and read ends (private); -1 until init_lmcomm_intrapc.
extern int lmthread_babymonitor_socket_public;
extern int lmthread_babymonitor_socket_private;
extern int lmthread_userisr_socket_public;
extern int lmthread_userisr_socket_private;

// Creates both pipes (close-on-exec); a failure ends the daemon (dm_exit(1)).
void init_lmcomm_intrapc();

// Writes one 0x40 byte to the babymonitor pipe under the intra-process lock
// and returns what write() returned (1 on success); errno is kept.
int wake_lineisr_for_rescan();
