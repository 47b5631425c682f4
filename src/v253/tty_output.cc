#include "v253/tty_output.h"

#include <unistd.h>

#include <cerrno>

#include "v253/dle_codec.h"

namespace v253 {

void TtyOutput::drop_audio() {
    // The byte after an open pair is its second DLE.
    audio_.resize(pair_open_ && !audio_.empty() ? 1 : 0);
}

bool TtyOutput::write_some(const Writer& write, std::string& buf, bool audio) {
    while (!buf.empty()) {
        ssize_t n = write(buf.data(), buf.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return true;
        if (n <= 0)
            return false;
        if (audio)
            for (ssize_t i = 0; i < n; ++i)
                if (buf[static_cast<size_t>(i)] == kDle)
                    pair_open_ = !pair_open_;
        buf.erase(0, static_cast<size_t>(n));
    }
    return true;
}

bool TtyOutput::flush(int fd) {
    return flush([fd](const char* p, size_t n) { return ::write(fd, p, n); });
}

bool TtyOutput::flush(const Writer& write) {
    if (!write_some(write, audio_, true))
        return false;
    if (!audio_.empty())
        return true;  // the commands go after the audio
    return write_some(write, control_, false);
}

}  // namespace v253
