#include "v253/serial_port.h"

#include <fcntl.h>
#include <sys/file.h>
#include <termios.h>

#include <cerrno>
#include <cstring>

namespace v253 {

namespace {

std::string failure(const char* what, const std::string& path) {
    return std::string(what) + " " + path + ": " + strerror(errno);
}

}  // namespace

PortResult open_modem_port(const std::string& path) {
    PortResult r;
    kal::unique_fd fd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
        r.error = failure("cannot open", path);
        return r;
    }
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        r.in_use = errno == EWOULDBLOCK;
        r.error = failure(r.in_use ? "another program holds" : "cannot lock", path);
        return r;
    }
    struct termios t;
    if (tcgetattr(fd.get(), &t) != 0) {
        r.error = failure("not a terminal:", path);
        return r;
    }
    cfmakeraw(&t);
    // The modem paces us with RTS/CTS; its carrier line means nothing in
    // voice mode, so it must not hang the port up.
    t.c_cflag |= CRTSCTS | CLOCAL | CREAD;
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    cfsetispeed(&t, B115200);
    cfsetospeed(&t, B115200);
    if (tcsetattr(fd.get(), TCSANOW, &t) != 0) {
        r.error = failure("cannot set raw mode on", path);
        return r;
    }
    // Whatever the port held from before us is not an answer to us.
    tcflush(fd.get(), TCIOFLUSH);
    r.fd = std::move(fd);
    return r;
}

}  // namespace v253
