#include "lineio/safe_io.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "log/kallog.h"

using namespace kal;

namespace {

// The tap pair is read as one value, so a write never sees a new source
// with an old (or already cleared) destination.
struct TapPair {
    int src = -1;
    int dest = -1;
};
std::atomic<TapPair> g_tap{TapPair{}};

// Waits up to `ms` milliseconds (-1: for ever) for `fd` to be ready for
// `events`. Returns what poll() returned; errno is poll's.
int wait_for(int fd, short events, int ms) {
    struct pollfd p = {fd, events, 0};
    return ::poll(&p, 1, ms);
}

// As wait_for with no limit, but a signal does not end the wait.
void wait_until_ready(int fd, short events) {
    while (wait_for(fd, events, -1) < 0 && errno == EINTR) {
    }
}

int seconds_to_ms(long long seconds) {
    return seconds >= INT_MAX / 1000 ? INT_MAX : static_cast<int>(seconds * 1000);
}

bool would_block(int e) {
    return e == EAGAIN || e == EWOULDBLOCK;
}

}  // namespace

void safe_writetap(int srcfd, int destfd) {
    if (destfd == -1) {
        const TapPair old = g_tap.exchange(TapPair{});
        kallog(KAL_DEBUG, "SAFEIO: Terminated tapping: fd %d -> fd %d", old.src, old.dest);
        return;
    }
    g_tap = TapPair{srcfd, destfd};
    kallog(KAL_DEBUG, "SAFEIO: Initiated tapping: fd %d -> fd %d", srcfd, destfd);
}

namespace {

// When a write must be done by, or nothing for no limit.
using WriteDeadline = std::optional<std::chrono::steady_clock::time_point>;

// The milliseconds left until `deadline`, rounded up, at least 0.
int ms_until(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
            .count();
    return left <= 0 ? 0 : left > INT_MAX ? INT_MAX : static_cast<int>(left);
}

void tap_copy(int fd, const char* p, ssize_t n) {
    const TapPair tap = g_tap.load();
    if (tap.src == -1 || fd != tap.src)
        return;
    const ssize_t t = ::write(tap.dest, p, static_cast<size_t>(n));
    if (t != n) {
        kallog(KAL_DEBUG, "Tap failed. (Wrote %d of %d bytes.)", static_cast<int>(t),
               static_cast<int>(n));
        // A tap exists to see every byte; one that silently drops some would
        // mislead whoever is debugging. (As a wait status this reads
        // 999 & 0xff = 231.)
        exit(999);
    }
}

// Writes all of `length` bytes. Without a deadline, a full descriptor is
// waited out for as long as it takes; with one, `fd` must be a socket, is
// never blocked on whatever its mode, and a write still short when the
// deadline passes fails with ETIMEDOUT.
ssize_t write_all(int fd, const void* buffer, size_t length, const WriteDeadline& deadline) {
    const char* p = static_cast<const char*>(buffer);
    size_t left = length;
    while (left > 0) {
        // No SIGPIPE from a bounded write: a line monitor gone is an error
        // to report like any other, in a test as in the daemon.
        const ssize_t n =
            deadline ? ::send(fd, p, left, MSG_DONTWAIT | MSG_NOSIGNAL) : ::write(fd, p, left);
        if (n < 0) {
            const int e = errno;
            if (e == EINTR)
                continue;
            if (would_block(e)) {
                // A full descriptor: retrying at once would only spin.
                if (!deadline) {
                    wait_until_ready(fd, POLLOUT);
                    continue;
                }
                const int ms = ms_until(*deadline);
                if (ms == 0 || (wait_for(fd, POLLOUT, ms) < 0 && errno != EINTR)) {
                    errno = ms == 0 ? ETIMEDOUT : errno;
                    return -1;
                }
                continue;
            }
            kallog(KAL_INFO, "safe_write error: fd=%d - %s(%d)", fd, strerror(e), e);
            errno = e;
            return -1;
        }
        if (n > 0)
            tap_copy(fd, p, n);
        p += n;
        left -= static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(length);
}

ssize_t write_frame(int fd, const void* buffer, size_t length, const WriteDeadline& deadline) {
    if (length > INT32_MAX) {
        // The header could not say it; the reader would lose the framing.
        kallog(KAL_INFO, "dmp_write: message of %zu bytes too long for its header (fd=%d)", length,
               fd);
        errno = EMSGSIZE;
        return -1;
    }
    const int32_t header = static_cast<int32_t>(length);
    if (write_all(fd, &header, sizeof header, deadline) < 0)
        return -1;
    return write_all(fd, buffer, length, deadline);
}

}  // namespace

ssize_t safe_write(int fd, const void* buffer, size_t length) {
    return write_all(fd, buffer, length, std::nullopt);
}

const char* mempbrk(const char* buffer, size_t length, const char* stops) {
    if (buffer == nullptr || stops == nullptr)
        return nullptr;
    for (size_t i = 0; i < length; ++i)
        for (const char* s = stops; *s != '\0'; ++s)
            if (buffer[i] == *s)
                return buffer + i;
    return nullptr;
}

ssize_t dmp_write(int fd, const void* buffer, size_t length) {
    return write_frame(fd, buffer, length, std::nullopt);
}

ssize_t dmp_write_within(int fd, const void* buffer, size_t length,
                         std::chrono::milliseconds limit) {
    return write_frame(fd, buffer, length, std::chrono::steady_clock::now() + limit);
}

ssize_t safe_read(int fd, void* buffer, size_t length, const char* stops, int timeout) {
    char* buf = static_cast<char*>(buffer);

    if (timeout >= 0) {
        // 1 is the callers' short poll: a quarter second, not one second.
        const int ms = timeout == 1 ? 250 : seconds_to_ms(timeout);
        if (wait_for(fd, POLLIN, ms) == 0)
            return 0;
        // A failed wait still tries the read: the read reports the real error.
    }

    // Whether a read that yields nothing ends the call: only in the modes
    // that read "what is there" and only without a stop set.
    const bool nothing_ends_call = stops == nullptr && timeout >= -1;

    size_t got = 0;
    bool first_pass = true;
    while (got < length) {
        if (!first_pass && mempbrk(buf, got, stops) != nullptr)
            return static_cast<ssize_t>(got);
        first_pass = false;

        if (timeout < -2) {
            const int r = wait_for(fd, POLLIN, seconds_to_ms(-static_cast<long long>(timeout)));
            if (r == 0)
                return static_cast<ssize_t>(got);
            if (r < 0) {
                const int e = errno;
                if (e == EINTR)
                    continue;
                kallog(KAL_DEBUG, "safe_read: error during timeout select: %d-%s", e, strerror(e));
                return static_cast<ssize_t>(got);
            }
        }

        const ssize_t n = ::read(fd, buf + got, length - got);
        if (n > 0) {
            got += static_cast<size_t>(n);
            continue;
        }
        if (n == 0) {
            // End of file. On a socket, pipe or file it is final, so it ends
            // every mode: one that would "keep reading" (-2, the timed mode,
            // a stop-set read short of its stop byte) could only spin for
            // ever, and on a line monitor that died in the middle of a
            // message it would spin in the line event thread, holding the
            // device table. Hand back what arrived.
            return static_cast<ssize_t>(got);
        }
        const int e = errno;
        if (e == EINTR)
            continue;
        if (!would_block(e)) {
            kallog(KAL_INFO, "safe_read error: fd=%d - %s(%d)", fd, strerror(e), e);
            return -1;
        }
        // Nothing there yet on a non-blocking descriptor.
        if (nothing_ends_call)
            return static_cast<ssize_t>(got);
        // The timed mode waits before its next read anyway; the others
        // would retry at once, so wait for data instead of spinning.
        if (timeout >= -2)
            wait_until_ready(fd, POLLIN);
    }
    return static_cast<ssize_t>(got);
}

namespace {

// Reads `length` bytes, fewer only at an end of file, waiting as long as it
// takes. Returns the bytes read, or -1.
ssize_t read_fully(int fd, void* buffer, size_t length) {
    return safe_read(fd, buffer, length, nullptr, -2);
}

// A frame's length is judged before any of its payload is read, so a
// hostile one ends the process at once rather than after the daemon has
// waited for a buffer full of bytes that may never come.
// Plain exit, not dm_exit: a reader may hold locks (the device table's)
// that dm_exit's teardown would wait for.
void refuse_hostile_excess(size_t excess) {
    if (excess > kDmpMaxExcess) {
        kallog(KAL_ERR, "Couldn't malloc in dmp_read for excess. Quitting.");
        exit(1);
    }
}

void log_discarded_excess(size_t excess) {
    kallog(KAL_NOTICE,
           "Discarded %d excess bytes in dmp_read. Supplied buffer too small to receive them.",
           static_cast<int>(excess));
}

ssize_t read_frame(int fd, void* buffer, size_t size, int timeout) {
    unsigned char header_bytes[sizeof(int32_t)];
    ssize_t n = safe_read(fd, header_bytes, sizeof header_bytes, nullptr, timeout);
    if (n <= 0)
        return n;
    if (static_cast<size_t>(n) < sizeof header_bytes) {
        // Part of a header came (a non-blocking descriptor, or a timed wait
        // that ran out mid-header). It is consumed, so the rest must be read
        // now or the framing is lost.
        const size_t have = static_cast<size_t>(n);
        n = read_fully(fd, header_bytes + have, sizeof header_bytes - have);
        if (n < 0)
            return -1;
        if (have + static_cast<size_t>(n) < sizeof header_bytes)
            return 0;  // the peer went away inside the header
    }
    int32_t header;
    memcpy(&header, header_bytes, sizeof header);

    // A negative length reads as a huge one.
    const uint32_t announced = static_cast<uint32_t>(header);
    const size_t want = announced > size ? size : announced;
    const size_t excess = announced - want;

    refuse_hostile_excess(excess);

    n = read_fully(fd, buffer, want);
    if (n < 0)
        return -1;
    if (static_cast<size_t>(n) < want)
        return 0;  // the peer went away inside the payload
    if (excess == 0)
        return static_cast<ssize_t>(announced);

    // The excess is of no use to anyone, so it is read through a small
    // buffer and dropped rather than held in one allocation of its size:
    // the same bytes leave the socket, without the memory.
    char scrap[4096];
    for (size_t left = excess; left > 0;) {
        const size_t chunk = left < sizeof scrap ? left : sizeof scrap;
        n = read_fully(fd, scrap, chunk);
        if (n < 0)
            return -1;
        if (static_cast<size_t>(n) < chunk)
            return 0;
        left -= chunk;
    }
    log_discarded_excess(excess);
    return static_cast<ssize_t>(size);
}

}  // namespace

ssize_t dmp_read(int fd, void* buffer, size_t size, int timeout) {
    return read_frame(fd, buffer, size, timeout);
}

FrameReader::Step FrameReader::readSome(int fd) {
    if (complete_) {
        header_got_ = 0;
        received_ = 0;
        payload_.clear();
        complete_ = false;
    }
    for (;;) {
        char scrap[4096];
        void* into;
        size_t want;
        if (header_got_ < sizeof header_) {
            into = header_ + header_got_;
            want = sizeof header_ - header_got_;
        } else if (received_ < payload_.size()) {
            into = payload_.data() + received_;
            want = payload_.size() - received_;
        } else if (received_ < announced_) {
            into = scrap;
            want = std::min<size_t>(announced_ - received_, sizeof scrap);
        } else {
            if (announced_ > payload_.size())
                log_discarded_excess(announced_ - payload_.size());
            complete_ = true;
            return Step::kFrame;
        }
        // MSG_DONTWAIT: the socket need not be non-blocking for this reader
        // never to block on it.
        const ssize_t n = ::recv(fd, into, want, MSG_DONTWAIT);
        if (n < 0) {
            const int e = errno;
            if (e == EINTR)
                continue;
            if (would_block(e))
                return Step::kWaiting;
            kallog(KAL_INFO, "safe_read error: fd=%d - %s(%d)", fd, strerror(e), e);
            errno = e;
            return Step::kError;
        }
        if (n == 0)
            return Step::kEnd;
        if (header_got_ < sizeof header_) {
            if (header_got_ == 0)
                started_ = std::chrono::steady_clock::now();
            header_got_ += static_cast<size_t>(n);
            if (header_got_ < sizeof header_)
                continue;
            int32_t header;
            memcpy(&header, header_, sizeof header);
            // A negative length reads as a huge one.
            announced_ = static_cast<uint32_t>(header);
            const size_t keep = announced_ > capacity_ ? capacity_ : announced_;
            refuse_hostile_excess(announced_ - keep);
            payload_.assign(keep, '\0');
            continue;
        }
        received_ += static_cast<size_t>(n);
    }
}

ssize_t safe_cleanread(int fd, char* buffer, size_t size, const char* stops, int timeout) {
    const ssize_t n = safe_read(fd, buffer, size, stops, timeout);
    if (n < 0)
        return -1;
    if (size == 0)
        return 0;
    if (n == 0) {
        buffer[0] = '\0';
        return 0;
    }
    const size_t got = static_cast<size_t>(n);
    if (char* stop = const_cast<char*>(mempbrk(buffer, got, stops)))
        memset(stop, 0, static_cast<size_t>(buffer + size - stop));
    else if (got < size)
        buffer[got] = '\0';  // whatever the buffer held before stays out of the string
    buffer[size - 1] = '\0';
    return n;
}
