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
// safe_write waits out EAGAIN; a failing tap ends the process (exit(999)).
// dmp_write_within writes one frame to a socket without ever blocking on it
// beyond `limit`: a frame not taken whole by then fails with ETIMEDOUT (the
// part written is lost, and the framing with it).
// Each descriptor is used by one thread at a time.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// An excess above this is treated as an allocation failure: a hostile
// length must never make the daemon wait for gigabytes.
inline constexpr size_t kDmpMaxExcess = 16u * 1024 * 1024;

void safe_writetap(int srcfd, int destfd);
ssize_t safe_write(int fd, const void* buffer, size_t length);
const char* mempbrk(const char* buffer, size_t length, const char* stops);
ssize_t dmp_write(int fd, const void* buffer, size_t length);
ssize_t dmp_write_within(int fd, const void* buffer, size_t length,
                         std::chrono::milliseconds limit);
ssize_t safe_read(int fd, void* buffer, size_t length, const char* stops, int timeout);
ssize_t dmp_read(int fd, void* buffer, size_t size, int timeout);
ssize_t safe_cleanread(int fd, char* buffer, size_t size, const char* stops, int timeout);

// The frames of one socket, put together from whatever each read yields, for
// a reader that serves many sockets and must never wait on one of them.
// Same framing, cut to `capacity` and hostile-length guard as dmp_read; the
// excess of a longer frame is read off and dropped as it comes.
class FrameReader {
  public:
    enum class Step {
        kFrame,    // a frame is complete: frame() holds its payload
        kWaiting,  // the socket is empty; a frame may be under way (inFrame)
        kEnd,      // end of file, before or inside a frame
        kError,    // a read failed; errno says why
    };

    explicit FrameReader(size_t capacity) : capacity_(capacity) {}

    // Reads what `fd` holds, never waiting, until a frame is complete (the
    // bytes after it stay in the socket for the next call), the socket is
    // empty, or it ended.
    Step readSome(int fd);
    // The payload of the frame the last readSome completed (valid until the
    // next call).
    std::string_view frame() const { return payload_; }
    // Whether part of a frame has come, and since when.
    bool inFrame() const { return header_got_ > 0 && !complete_; }
    std::chrono::steady_clock::time_point started() const { return started_; }

  private:
    size_t capacity_;
    unsigned char header_[sizeof(int32_t)] = {};
    size_t header_got_ = 0;
    uint32_t announced_ = 0;  // the payload length the header gave
    size_t received_ = 0;     // payload bytes read so far, kept or dropped
    std::string payload_;     // the kept part: at most capacity_ bytes
    bool complete_ = false;
    std::chrono::steady_clock::time_point started_{};
};
