// One message from a line monitor, taken as the line event thread takes it:
// a frame on the line's real socket, read by service_lineisr and handed to
// the notifier (and to the dial-on-pickup check) under the line's serial.
// Whatever a line monitor sends, the daemon must stay up. The line has no
// node attached: the nodes have suites of their own.
//
// Each input gets a fresh one-line device table, so no state carries over
// from one input to the next.

#include <cstdint>
#include <utility>

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
    rec.fd = fd;
    rec.pid = -1;
    rec.status = QLX_STATUS_UP;
    rec.deviceType = 1;
    lock_device_table(1);
    gLines.clear();
    gLines.push_back(std::move(rec));
    gLinecount = 1;
    unlock_device_table();
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
    one_line_table(pair.ours.get());
    if (dmp_write(pair.theirs.get(), data, size) < 0)
        __builtin_trap();
    kal::fuzz::write_and_close(pair.theirs.get(), nullptr, 0);
    service_lineisr(pair.ours.get());
    lock_device_table(1);
    gLines.clear();
    gLinecount = 0;
    unlock_device_table();
    return 0;
}
