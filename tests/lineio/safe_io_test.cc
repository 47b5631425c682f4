#include "lineio/safe_io.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bit>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "log/kallog.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using namespace std::string_literals;
using ::testing::HasSubstr;

namespace {

std::string header(int32_t len) {
    std::string h(4, '\0');
    memcpy(h.data(), &len, 4);
    return h;
}

std::string frame(const std::string& payload) {
    return header(static_cast<int32_t>(payload.size())) + payload;
}

void set_nonblocking(int fd) {
    ASSERT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0);
}

int unread_bytes(int fd) {
    int n = -1;
    ioctl(fd, FIONREAD, &n);
    return n;
}

// Our end (`near`) and the line monitor's (`far`) of a stream socket pair,
// with the daemon's log in a private root.
class SafeIoTest : public ::testing::Test {
  protected:
    void SetUp() override {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
        near_.reset(sv[0]);
        far_.reset(sv[1]);
        kallogregister("KALDeviceMaster");
    }
    void send(const std::string& bytes) {
        ASSERT_EQ(::write(far_.get(), bytes.data(), bytes.size()), ssize_t(bytes.size()));
    }
    std::string log_text() const { return read_file(root_.daemon_log()); }

    TempRoot root_;
    unique_fd near_, far_;
};

using DmpFraming = SafeIoTest;

TEST_F(DmpFraming, WritesHostOrderLengthThenPayload) {
    ASSERT_EQ(dmp_write(near_.get(), "R", 1), 1);
    ASSERT_EQ(dmp_write(near_.get(), "", 0), 0);
    char wire[16] = {};
    ASSERT_EQ(::read(far_.get(), wire, sizeof wire), 9);
    const std::string one = std::endian::native == std::endian::little ? "\1\0\0\0"s : "\0\0\0\1"s;
    EXPECT_EQ(std::string(wire, 9), one + "R" + "\0\0\0\0"s);
}

TEST_F(DmpFraming, ZeroLengthFrameAndEndOfFileBothReadAsZero) {
    send(frame("") + frame("P"));
    far_.reset();
    char buf[4096];
    EXPECT_EQ(dmp_read(near_.get(), buf, sizeof buf, -1), 0);
    EXPECT_EQ(dmp_read(near_.get(), buf, sizeof buf, -1), 1);
    EXPECT_EQ(buf[0], 'P');
    EXPECT_EQ(dmp_read(near_.get(), buf, sizeof buf, -1), 0);
}

TEST_F(DmpFraming, OverlongPayloadFillsTheBufferAndTheNextFrameStillReads) {
    // Far more than a socket holds, so the discard meets the data in pieces.
    std::string big(3 << 20, '\0');
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7);
    std::thread writer([&] { send(frame(big) + frame("^next")); });
    char buf[4096];
    EXPECT_EQ(dmp_read(near_.get(), buf, sizeof buf, -1), 4096);
    EXPECT_EQ(std::string(buf, sizeof buf), big.substr(0, 4096));
    EXPECT_EQ(dmp_read(near_.get(), buf, sizeof buf, -1), 5);
    EXPECT_EQ(std::string(buf, 5), "^next");
    writer.join();
    EXPECT_THAT(log_text(), HasSubstr("NOTICE: Discarded 3141632 excess bytes in dmp_read. "
                                      "Supplied buffer too small to receive them.\n"));
}

TEST_F(DmpFraming, MessageCutShortByTheLineMonitorDyingReadsAsEndOfFile) {
    char buf[64];
    send(frame("hello").substr(0, 6));
    far_.reset();
    EXPECT_EQ(dmp_read(near_.get(), buf, sizeof buf, -1), 0);

    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    unique_fd a(sv[0]), b(sv[1]);
    ASSERT_EQ(::write(b.get(), "\5\0", 2), 2);  // half a header
    b.reset();
    EXPECT_EQ(dmp_read(a.get(), buf, sizeof buf, -1), 0);
}

TEST_F(DmpFraming, HeaderSplitOnANonBlockingSocketIsCompleted) {
    set_nonblocking(near_.get());
    const std::string f = frame("#5");
    send(f.substr(0, 2));
    ssize_t got = -2;
    char buf[16] = {};
    std::thread reader([&] { got = dmp_read(near_.get(), buf, sizeof buf, -1); });
    ASSERT_TRUE(wait_for([&] { return unread_bytes(near_.get()) == 0; }));
    send(f.substr(2));
    reader.join();
    EXPECT_EQ(got, 2);
    EXPECT_EQ(std::string(buf), "#5");
}

// Runs in a death-test child: one frame header on a socket pair of the
// child's own, whose far end then closes, so a reader that waited for the
// payload before judging the length would see an end of file, not hang.
void read_frame_with_header(int32_t len) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
        exit(3);
    const std::string h = header(len);
    if (::write(sv[1], h.data(), h.size()) != 4)
        exit(3);
    ::close(sv[1]);
    char buf[4096];
    dmp_read(sv[0], buf, sizeof buf, -1);
}

// The line event thread's reader: frames come out as soon as their last
// byte does, however the bytes are sliced, and a socket with nothing in it
// never blocks the reader, even a blocking one.
TEST_F(DmpFraming, FrameReaderAssemblesFramesFromAnySlicesWithoutWaiting) {
    FrameReader reader(8);
    using Step = FrameReader::Step;
    EXPECT_EQ(reader.readSome(near_.get()), Step::kWaiting);
    EXPECT_FALSE(reader.inFrame());

    // One byte at a time: a header, then a payload past the capacity.
    const std::string first = frame("X5551234JOS");
    for (size_t i = 0; i + 1 < first.size(); ++i) {
        send(first.substr(i, 1));
        ASSERT_EQ(reader.readSome(near_.get()), Step::kWaiting) << i;
        EXPECT_TRUE(reader.inFrame());
    }
    const auto started = reader.started();
    // The last byte, with a whole frame and a half one behind it.
    send(first.substr(first.size() - 1) + frame("R") + frame("bb").substr(0, 5));
    ASSERT_EQ(reader.readSome(near_.get()), Step::kFrame);
    EXPECT_EQ(reader.frame(), "X5551234");  // cut to the capacity, the rest dropped
    EXPECT_FALSE(reader.inFrame());
    ASSERT_EQ(reader.readSome(near_.get()), Step::kFrame);
    EXPECT_EQ(reader.frame(), "R");
    EXPECT_EQ(reader.readSome(near_.get()), Step::kWaiting);
    EXPECT_TRUE(reader.inFrame());
    EXPECT_TRUE(reader.started() >= started);
    send("b");
    ASSERT_EQ(reader.readSome(near_.get()), Step::kFrame);
    EXPECT_EQ(reader.frame(), "bb");

    send(frame(""));
    ASSERT_EQ(reader.readSome(near_.get()), Step::kFrame);
    EXPECT_EQ(reader.frame(), "");
    send(header(3) + "x");
    far_.reset();
    EXPECT_EQ(reader.readSome(near_.get()), Step::kEnd);  // inside a frame
    EXPECT_THAT(log_text(), HasSubstr("NOTICE: Discarded 3 excess bytes in dmp_read."));
}

TEST(FrameReaderHostileLength, EndsTheProcessOnTheHeader) {
    EXPECT_EXIT(
        {
            int sv[2];
            socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
            const int32_t hostile = static_cast<int32_t>(4096 + kDmpMaxExcess + 1);
            (void)::write(sv[1], &hostile, sizeof hostile);
            FrameReader reader(4096);
            reader.readSome(sv[0]);
            exit(3);
        },
        ::testing::ExitedWithCode(1), "Couldn't malloc in dmp_read for excess\\. Quitting\\.");
}

// A socket that nobody reads: a bounded write gives up at its limit instead
// of waiting for room that never comes, and never raises SIGPIPE.
TEST_F(DmpFraming, WriteWithinALimitFailsOnAPeerThatStopsReadingOrLeft) {
    const std::string big(64 * 1024, 'P');
    ssize_t n = 0;
    int frames = 0;
    while ((n = dmp_write_within(near_.get(), big.data(), big.size(), 50ms)) > 0)
        ASSERT_LT(++frames, 1000);
    EXPECT_EQ(n, -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    far_.reset();
    EXPECT_EQ(dmp_write_within(near_.get(), "H", 1, 50ms), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST(DmpHostileLength, EndsTheProcessBeforeAnyPayloadIsRead) {
    const char* const kMessage = "ERR: Couldn't malloc in dmp_read for excess\\. Quitting\\.";
    EXPECT_EXIT(read_frame_with_header(-1), ::testing::ExitedWithCode(1), kMessage);
    EXPECT_EXIT(read_frame_with_header(static_cast<int32_t>(4096 + kDmpMaxExcess + 1)),
                ::testing::ExitedWithCode(1), kMessage);
}

TEST_F(DmpFraming, ExcessOfExactlyTheLimitIsDiscarded) {
    char buf[4096];
    std::thread writer([&] { send(frame(std::string(4096 + kDmpMaxExcess, 'x')) + frame("R")); });
    EXPECT_EQ(dmp_read(near_.get(), buf, sizeof buf, -1), 4096);
    EXPECT_EQ(dmp_read(near_.get(), buf, sizeof buf, -1), 1);
    writer.join();
}

// Random frames written in random slices: every frame reads back whole or
// cut to the buffer, in order, with nothing lost between them.
TEST_F(DmpFraming, RandomFramesInRandomSlicesKeepTheirBoundaries) {
    std::mt19937 rng(20240611);
    std::vector<std::string> frames;
    std::string stream;
    for (int i = 0; i < 300; ++i) {
        std::string p(rng() % 3 == 0 ? rng() % 9000 : rng() % 40, '\0');
        for (auto& c : p)
            c = static_cast<char>(rng());
        if (p.empty())
            p = "!";  // an empty frame would read as end of file
        frames.push_back(p);
        stream += frame(p);
    }
    std::thread writer([&] {
        for (size_t at = 0; at < stream.size();) {
            const size_t n = std::min<size_t>(1 + rng() % 5000, stream.size() - at);
            send(stream.substr(at, n));
            at += n;
        }
        far_.reset();
    });
    std::vector<char> buf(4096);
    for (const auto& p : frames) {
        const size_t want = std::min(p.size(), buf.size());
        ASSERT_EQ(dmp_read(near_.get(), buf.data(), buf.size(), -1), ssize_t(want));
        ASSERT_EQ(std::string(buf.data(), want), p.substr(0, want));
    }
    EXPECT_EQ(dmp_read(near_.get(), buf.data(), buf.size(), -1), 0);
    writer.join();
}

// Garbage from a broken line monitor: reading it may end the process with
// the out-of-memory status, but never crashes and never overruns the buffer.
TEST_F(DmpFraming, GarbageNeverCrashes) {
    for (unsigned seed = 1; seed <= 8; ++seed) {
        std::mt19937 rng(seed);
        std::string junk;
        while (junk.size() < 20000) {
            if (rng() % 4 == 0)
                junk += header(static_cast<int32_t>(rng() % 6000));  // plausible lengths
            else
                junk.push_back(static_cast<char>(rng()));
        }
        EXPECT_EXIT(
            {
                // A socket pair of the child's own: the parent's copy of the
                // far end would keep the end of file from ever coming.
                int sv[2];
                if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
                    exit(3);
                std::thread([&] {
                    (void)!::write(sv[1], junk.data(), junk.size());
                    ::close(sv[1]);
                }).detach();
                char buf[4096 + 1];
                buf[4096] = 'G';
                ssize_t n;
                while ((n = dmp_read(sv[0], buf, 4096, -1)) > 0)
                    if (n > 4096 || buf[4096] != 'G')
                        abort();
                exit(n == 0 ? 0 : 2);
            },
            [](int st) { return WIFEXITED(st) && (WEXITSTATUS(st) == 0 || WEXITSTATUS(st) == 1); },
            "")
            << "seed " << seed;
    }
}

using SafeRead = SafeIoTest;

TEST_F(SafeRead, PollModesReturnZeroWhenNothingCame) {
    char buf[8];
    EXPECT_EQ(safe_read(near_.get(), buf, sizeof buf, nullptr, 0), 0);

    // 1 is a quarter of a second, not a second.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(safe_read(near_.get(), buf, sizeof buf, nullptr, 1), 0);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 200ms);
    EXPECT_LT(took, 900ms);
}

TEST_F(SafeRead, NonBlockingDescriptorModes) {
    set_nonblocking(near_.get());
    char buf[8] = {};
    // -1 takes what is there; "nothing yet" is not an error.
    EXPECT_EQ(safe_read(near_.get(), buf, sizeof buf, nullptr, -1), 0);
    send("ab");
    EXPECT_EQ(safe_read(near_.get(), buf, sizeof buf, nullptr, -1), 2);

    // -2 waits for every byte asked for, however they trickle in.
    ssize_t got = -2;
    std::thread reader([&] { got = safe_read(near_.get(), buf, 6, nullptr, -2); });
    send("cde");
    ASSERT_TRUE(wait_for([&] { return unread_bytes(near_.get()) == 0; }));
    send("fgh");
    reader.join();
    EXPECT_EQ(got, 6);
    EXPECT_EQ(std::string(buf, 6), "cdefgh");
}

TEST_F(SafeRead, TimedModeGivesUpWhenTheLineGoesQuiet) {
    send("abc");
    char buf[8];
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(safe_read(near_.get(), buf, sizeof buf, nullptr, -3), 3);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2900ms);
    send("d");
    far_.reset();
    EXPECT_EQ(safe_read(near_.get(), buf, sizeof buf, nullptr, -3), 1);
}

TEST_F(SafeRead, ErrorIsLoggedWithDescriptorAndErrno) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    unique_fd r(p[0]), w(p[1]);
    char c;
    EXPECT_EQ(safe_read(w.get(), &c, 1, nullptr, -1), -1);
    EXPECT_THAT(log_text(), HasSubstr("INFO: safe_read error: fd=" + std::to_string(w.get()) +
                                      " - Bad file descriptor(9)\n"));
}

TEST_F(SafeRead, CleanReadCutsAtTheStopByte) {
    // The writer stays open: the read must end at the stop byte, not at
    // the end of the data or of the buffer.
    send("ab#cd");
    char buf[10];
    memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(safe_cleanread(near_.get(), buf, sizeof buf, "#", -1), 5);
    EXPECT_EQ(std::string(buf, sizeof buf), "ab\0\0\0\0\0\0\0\0"s);
}

TEST_F(SafeRead, CleanReadWithoutStopsIsAlwaysTerminated) {
    set_nonblocking(near_.get());  // so a short read ends instead of waiting for more
    char buf[4];
    memset(buf, 'Z', sizeof buf);
    send("ab");
    EXPECT_EQ(safe_cleanread(near_.get(), buf, sizeof buf, nullptr, 0), 2);
    EXPECT_STREQ(buf, "ab");

    send("wxyz");
    EXPECT_EQ(safe_cleanread(near_.get(), buf, sizeof buf, nullptr, 0), 4);
    EXPECT_STREQ(buf, "wxy");

    EXPECT_EQ(safe_cleanread(near_.get(), buf, sizeof buf, nullptr, 0), 0);
    EXPECT_EQ(buf[0], '\0');
}

TEST(Mempbrk, FindsTheFirstBufferByteInTheStopSet) {
    const char text[] = "xy\0ba";
    EXPECT_EQ(mempbrk(text, 5, "ab"), text + 3);
    EXPECT_EQ(mempbrk(text, 3, "ab"), nullptr);
    EXPECT_EQ(mempbrk(text, 5, ""), nullptr);  // a NUL is never a stop byte
    EXPECT_EQ(mempbrk(text, 5, nullptr), nullptr);
}

using SafeWrite = SafeIoTest;

TEST_F(SafeWrite, FullNonBlockingSocketStillTakesEveryByte) {
    set_nonblocking(near_.get());
    const std::string data(2 << 20, 'q');
    std::string seen;
    std::thread reader([&] {
        char buf[65536];
        ssize_t n;
        while ((n = ::read(far_.get(), buf, sizeof buf)) > 0)
            seen.append(buf, n);
    });
    EXPECT_EQ(safe_write(near_.get(), data.data(), data.size()), ssize_t(data.size()));
    shutdown(near_.get(), SHUT_WR);
    reader.join();
    EXPECT_EQ(seen, data);
}

TEST_F(SafeWrite, ErrorIsLoggedAndReported) {
    signal(SIGPIPE, SIG_IGN);  // as in the daemon
    far_.reset();
    EXPECT_EQ(safe_write(near_.get(), "x", 1), -1);
    EXPECT_THAT(log_text(), HasSubstr("INFO: safe_write error: fd=" + std::to_string(near_.get()) +
                                      " - Broken pipe(32)\n"));
}

TEST_F(SafeWrite, TapCopiesOnlyTheTappedDescriptorUntilStopped) {
    int p[2];
    ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
    unique_fd tap_r(p[0]), tap_w(p[1]);
    const int src = near_.get(), dest = tap_w.get();
    char buf[32] = {};

    safe_writetap(src, dest);
    ASSERT_EQ(safe_write(src, "hello", 5), 5);
    ASSERT_EQ(safe_write(far_.get(), "other", 5), 5);  // not the tapped descriptor
    EXPECT_EQ(::read(tap_r.get(), buf, sizeof buf), 5);
    EXPECT_EQ(std::string(buf, 5), "hello");

    safe_writetap(src, -1);
    ASSERT_EQ(safe_write(src, "later", 5), 5);
    EXPECT_EQ(::read(tap_r.get(), buf, sizeof buf), -1);

    const std::string pair = "fd " + std::to_string(src) + " -> fd " + std::to_string(dest);
    EXPECT_THAT(log_text(), HasSubstr("DEBUG: SAFEIO: Initiated tapping: " + pair + "\n"));
    EXPECT_THAT(log_text(), HasSubstr("DEBUG: SAFEIO: Terminated tapping: " + pair + "\n"));
}

TEST_F(SafeWrite, FailedTapEndsTheProcess) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    unique_fd r(p[0]), w(p[1]);
    // Tapping into a pipe's read end: every tap write fails.
    EXPECT_EXIT(
        {
            safe_writetap(near_.get(), r.get());
            safe_write(near_.get(), "hello", 5);
        },
        ::testing::ExitedWithCode(999 & 0xff), "");
    EXPECT_THAT(log_text(), HasSubstr("DEBUG: Tap failed. (Wrote -1 of 5 bytes.)\n"));
}

}  // namespace
