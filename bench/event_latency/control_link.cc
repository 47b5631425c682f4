#include "control_link.h"

#include <poll.h>
#include <unistd.h>

#include "lineio/safe_io.h"
#include "stamp.h"

namespace kal::bench {

std::optional<std::string> LineReader::next(std::chrono::milliseconds timeout) {
    const int64_t end = mono_ns() + timeout.count() * 1000000;
    for (;;) {
        if (const size_t eol = buf_.find('\n'); eol != std::string::npos) {
            std::string line = buf_.substr(0, eol);
            buf_.erase(0, eol + 1);
            return line;
        }
        int wait_ms = -1;
        if (timeout.count() >= 0) {
            const int64_t left = end - mono_ns();
            if (left <= 0)
                return std::nullopt;
            wait_ms = static_cast<int>((left + 999999) / 1000000);
        }
        struct pollfd p = {fd_, POLLIN, 0};
        if (::poll(&p, 1, wait_ms) < 0)
            return std::nullopt;
        if (!p.revents)
            continue;
        char chunk[512];
        const ssize_t n = ::read(fd_, chunk, sizeof chunk);
        if (n <= 0)
            return std::nullopt;
        buf_.append(chunk, static_cast<size_t>(n));
    }
}

bool send_line(int fd, const std::string& line) {
    const std::string text = line + '\n';
    return safe_write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace kal::bench
