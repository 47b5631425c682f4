#pragma once

// What the fuzz targets share: a private root for the daemon's paths with
// the log written there (never to syslog), and socket pairs.

#include <cstddef>
#include <cstdint>

#include "base/unique_fd.h"

namespace kal::fuzz {

// Makes a private KAL_ROOT (removed at exit) and registers the log there,
// at `level`. Call once, from LLVMFuzzerInitialize.
void use_private_root(int level);

// Both ends of a stream socket pair, close-on-exec.
struct SocketPair {
    unique_fd ours;
    unique_fd theirs;
};
SocketPair socket_pair();

// Writes all of `data` to `fd` (the other end reads it later), then shuts
// the writing side, so that a reader finds end of file after the bytes and
// never waits. The caller keeps `size` below the socket's buffer.
void write_and_close(int fd, const uint8_t* data, size_t size);

}  // namespace kal::fuzz
