#include "lineio/intrapc.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/fatal.h"
#include "core/device_table.h"
#include "log/kallog.h"

using namespace kal;

int lmthread_babymonitor_socket_public = -1;
int lmthread_babymonitor_socket_private = -1;
int lmthread_userisr_socket_public = -1;
int lmthread_userisr_socket_private = -1;

namespace {

// Close-on-exec from birth: a line monitor forked at any moment must never
// hold our wake-up pipes open. The log texts are whole format strings, not
// assembled, so that a line in the log can be found in the code.
void make_pipe(int& write_end, int& read_end, const char* created_format,
               const char* failed_format) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) == -1) {
        const int e = errno;
        kallog(KAL_ERR, failed_format, e, strerror(e));
        dm_exit(1);
    }
    read_end = fds[0];
    write_end = fds[1];
    kallog(KAL_DEBUG, created_format, write_end, read_end);
}

}  // namespace

void init_lmcomm_intrapc() {
    make_pipe(lmthread_babymonitor_socket_public, lmthread_babymonitor_socket_private,
              "lineisr-babymonitor intrapc pipe created (in=%d;out=%d).",
              "Couldn't create lineisr-babymonitor intrapc pipe. Quitting. (%d-%s)");
    make_pipe(lmthread_userisr_socket_public, lmthread_userisr_socket_private,
              "lineisr-userisr intrapc pipe created (in=%d;out=%d).",
              "Couldn't create lineisr-userisr intrapc pipe. Quitting. (%d-%s)");
}

int wake_lineisr_for_rescan() {
    static constexpr char kRescan = 0x40;
    lock_intrapc();
    ssize_t n;
    do {
        n = ::write(lmthread_babymonitor_socket_public, &kRescan, 1);
    } while (n < 0 && errno == EINTR);
    const int e = errno;
    unlock_intrapc();
    errno = e;
    return static_cast<int>(n);
}
