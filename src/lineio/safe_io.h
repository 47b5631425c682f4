#pragma once

// Descriptor transfers that survive interruptions and non-blocking
// descriptors, reads that stop at a stop byte or a timeout, the
// length-prefixed framing of the line-monitor protocol, and a debugging tap.
//
// safe_read's timeout selects a mode:
//    1   wait up to 0.25 s for readability first (the callers' short poll)
//   >=0  (other) wait up to that many seconds first; 0 polls
//   -1   no wait; a read of 0 bytes ends the call
//   -2   no wait; keep reading until `length` bytes have arrived
//   <-2  before every read, wait up to |timeout| seconds
// An end of file ends every mode with the bytes read so far. EAGAIN on a
// non-blocking descriptor ends the -1 and >=0 modes (without a stop set);
// the others wait in poll() for more.
//
// dmp_read returns the payload length (at most `size`; a longer payload is
// cut and the rest read off and dropped), 0 for an end of file, a zero-length
// frame or a frame cut short by an end of file, -1 for an error. An excess
// above kDmpMaxExcess (so any negative length) ends the process, status 1.
// dmp_read_within reads one frame from a descriptor that has become
// readable (no wait for its first byte) as dmp_read does, but the frame
// must be complete within `limit`: one still short then fails with ETIMEDOUT
// (what arrived of it is lost, and the framing with it).
// safe_write waits out EAGAIN; a failing tap ends the process (exit(999)).
// Each descriptor is used by one thread at a time.

#include <sys/types.h>

#include <chrono>
#include <cstddef>

// An excess above this is treated as an allocation failure: a hostile
// length must never make the daemon wait for gigabytes.
inline constexpr size_t kDmpMaxExcess = 16u * 1024 * 1024;

void safe_writetap(int srcfd, int destfd);
ssize_t safe_write(int fd, const void* buffer, size_t length);
const char* mempbrk(const char* buffer, size_t length, const char* stops);
ssize_t dmp_write(int fd, const void* buffer, size_t length);
ssize_t safe_read(int fd, void* buffer, size_t length, const char* stops, int timeout);
ssize_t dmp_read(int fd, void* buffer, size_t size, int timeout);
ssize_t dmp_read_within(int fd, void* buffer, size_t size, std::chrono::milliseconds limit);
ssize_t safe_cleanread(int fd, char* buffer, size_t size, const char* stops, int timeout);
