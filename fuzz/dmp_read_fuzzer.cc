// The frame decoder against whatever a line monitor might put on its socket:
// any header (a length past the reader's buffer, a negative one, a header
// cut short) and any payload, several frames in a row, read as the line
// event thread reads them, from the non-blocking end of a real socket pair.
// dmp_read must never write past the buffer it is given (AddressSanitizer
// watches a buffer of exactly that size) nor return more than it holds, and
// the non-blocking FrameReader must read the same bytes as the same frames.
//
// The first input byte picks the buffer's size: the daemon's own, or a small
// one that turns most payloads into an excess to read off and drop.

#include <fcntl.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "log/kallog.h"

namespace {

constexpr size_t kMaxInput = 64 * 1024;

// An excess above kDmpMaxExcess ends the daemon by design (status 1), which
// libFuzzer would take for a failure: the input is cut before such a frame.
size_t before_fatal_excess(const uint8_t* data, size_t size, size_t buffer) {
    uint64_t pos = 0;
    while (pos + sizeof(int32_t) <= size) {
        uint32_t announced;
        memcpy(&announced, data + pos, sizeof announced);
        const uint64_t excess = announced > buffer ? announced - buffer : 0;
        if (excess > kDmpMaxExcess)
            return static_cast<size_t>(pos);
        pos += sizeof(int32_t) + announced;
    }
    return size;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kal::fuzz::use_private_root(kal::KAL_DEBUG);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const size_t buffer_size = (data[0] & 1) ? lm::kEventBufferSize : data[0] >> 1;
    ++data;
    --size;
    // All of it must fit the socket's buffer: the reader runs after the writer.
    size = before_fatal_excess(data, size < kMaxInput ? size : kMaxInput, buffer_size);

    kal::fuzz::SocketPair pair = kal::fuzz::socket_pair();
    // As the spawn leaves the daemon's end of a line monitor's socket.
    fcntl(pair.ours.get(), F_SETFL, O_NONBLOCK);
    kal::fuzz::write_and_close(pair.theirs.get(), data, size);

    auto buffer = std::make_unique<char[]>(buffer_size);
    std::vector<std::string> frames;
    for (;;) {
        const ssize_t n = dmp_read(pair.ours.get(), buffer.get(), buffer_size, -1);
        if (n <= 0)
            break;
        if (static_cast<size_t>(n) > buffer_size)
            __builtin_trap();
        frames.emplace_back(buffer.get(), static_cast<size_t>(n));
    }

    // The line event thread's reader must see the very same frames in the
    // same bytes, and stop where dmp_read stops (an end of file, a frame cut
    // short, or a frame of no bytes).
    kal::fuzz::SocketPair again = kal::fuzz::socket_pair();
    kal::fuzz::write_and_close(again.theirs.get(), data, size);
    FrameReader reader(buffer_size);
    for (size_t i = 0;; ++i) {
        const FrameReader::Step step = reader.readSome(again.ours.get());
        if (step == FrameReader::Step::kFrame && !reader.frame().empty()) {
            if (i >= frames.size() || reader.frame() != frames[i])
                __builtin_trap();
            continue;
        }
        if (step == FrameReader::Step::kWaiting || step == FrameReader::Step::kError ||
            i != frames.size())
            __builtin_trap();
        break;
    }
    return 0;
}
