// One message from a line monitor, taken as the line event thread takes it:
// a frame on the line's real socket, read by service_lineisr (which takes
// what the socket holds, the whole frame here, then its end) and handed to
// the notifier (and to the dial-on-pickup check) under the line's serial.
// Whatever a line monitor sends, the daemon must stay up. The line has no
// node attached: the nodes have suites of their own.
//
// Each input gets a fresh one-line device table, so no state carries over
// from one input to the next.

#include <cstdint>
#include <utility>
#include <vector>

#include "core/device_table.h"
#include "fuzz_support.h"
#include "lineio/lineisr.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "log/kallog.h"

namespace {

// One frame of the daemon's buffer and a little more, so payloads longer
// than the buffer (an excess) are tried too; far below the socket's buffer.
constexpr size_t kMaxPayload = lm::kEventBufferSize + 512;

// Replaces the table with one running line whose socket is `fd`; no child
// process (pid -1), so an end of file signals nobody.
void one_line_table(int fd) {
    qlx rec;
    rec.serial = "FUZZ0";
    rec.ttyDevice = "ttyFUZZ0";
    rec.calloutDevice = "/dev/ttyFUZZ0";
    rec.fd.reset(fd);
    rec.pid = -1;
    set_line_status(rec, QLX_STATUS_UP, "a fuzzed line");
    rec.deviceType = 1;
    std::vector<qlx> table;
    table.push_back(std::move(rec));
    DeviceTableLock lock(kTableChange);
    install_device_table(std::move(table));
}

// Empties the table (closing the line's socket) and drops what the line
// event thread kept about it, so the next input starts afresh even when its
// socket gets the same descriptor number.
void no_table() {
    {
        DeviceTableLock lock(kTableChange);
        install_device_table({});
    }
    forget_lines_not_in_table();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kal::fuzz::use_private_root(kal::KAL_DEBUG);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxPayload)
        size = kMaxPayload;
    kal::fuzz::SocketPair pair = kal::fuzz::socket_pair();
    one_line_table(pair.ours.release());  // the table owns it now
    if (dmp_write(pair.theirs.get(), data, size) < 0)
        __builtin_trap();
    kal::fuzz::write_and_close(pair.theirs.get(), nullptr, 0);
    int fd;
    {
        DeviceTableLock lock(kTableRead);
        fd = gLines[0].fd.get();
    }
    // The frame, then (for a frame cut short or the end after it) the end.
    service_lineisr(fd);
    service_lineisr(fd);
    no_table();
    return 0;
}
