// The emulator behind a umockdev ttyACM port: a program that opens the
// device node (as a line monitor under the testbed does) talks to it, and an
// unplug takes the port away under that program's feet.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"
#include "fake_adapters.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr char kDLE = 0x10;
constexpr char kETX = 0x03;

class ModemPortTest : public ::testing::Test {
  protected:
    // Opens the port as a line monitor would: raw, no controlling terminal.
    kal::unique_fd open_port(const std::string& devnode) {
        kal::unique_fd fd(::open(devnode.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
        EXPECT_TRUE(fd) << devnode << ": " << strerror(errno);
        termios tio{};
        if (fd && tcgetattr(fd.get(), &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(fd.get(), TCSANOW, &tio);
            tcflush(fd.get(), TCIOFLUSH);
        }
        return fd;
    }
    void write_all(int fd, const std::string& bytes) {
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // Reads until `want` has arrived (or the deadline); everything read.
    std::string read_until(int fd, const std::string& want) {
        std::string got;
        wait_for([&] {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 50) == 1 && (p.revents & POLLIN)) {
                char buf[4096];
                ssize_t n = ::read(fd, buf, sizeof buf);
                if (n > 0)
                    got.append(buf, static_cast<size_t>(n));
            }
            return got.find(want) != std::string::npos;
        });
        return got;
    }

    TempRoot root_;
    FakeAdapters ports_;
};

TEST_F(ModemPortTest, TheDeviceNodeReachesTheEmulatorBothWays) {
    auto modem = ports_.add_voice_modem();
    EXPECT_THAT(modem.port.devnode, StartsWith("/dev/ttyACM"));
    kal::unique_fd fd = open_port(modem.port.devnode);
    ASSERT_TRUE(fd);

    write_all(fd.get(), "ATE0\r");
    EXPECT_EQ(read_until(fd.get(), "OK\r\n"), "ATE0\r\r\nOK\r\n");  // echo, then the result
    write_all(fd.get(), "AT+FCLASS=8;+VLS=1\r");
    EXPECT_EQ(read_until(fd.get(), "OK\r\n"), "\r\nOK\r\n");
    EXPECT_EQ(modem.sim.send("wait-command AT+FCLASS 5"), "ok AT+FCLASS=8;+VLS=1");

    // Audio with a 0x10 in it reaches the emulator intact.
    write_all(fd.get(), "AT+VTX\r");
    EXPECT_EQ(read_until(fd.get(), "CONNECT\r\n"), "\r\nCONNECT\r\n");
    write_all(fd.get(), std::string("\x80\x10\x10\x7f", 4) + kDLE + kETX);
    EXPECT_EQ(read_until(fd.get(), "OK\r\n"), "\r\nOK\r\n");
    EXPECT_EQ(modem.sim.played(), std::string("\x80\x10\x7f", 3));

    modem.sim.send("ring");
    EXPECT_EQ(read_until(fd.get(), "RING\r\n"), "\r\nRING\r\n");
}

TEST_F(ModemPortTest, UnplugHangsUpTheOpenPort) {
    auto modem = ports_.add_voice_modem();
    kal::unique_fd fd = open_port(modem.port.devnode);
    ASSERT_TRUE(fd);
    write_all(fd.get(), "AT\r");
    read_until(fd.get(), "OK\r\n");

    ports_.unplug(modem.port.devnode);
    pollfd p{fd.get(), POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    EXPECT_TRUE(p.revents & POLLHUP);
    char c;
    EXPECT_LE(::read(fd.get(), &c, 1), 0);
    // The emulator stays for its control socket: what was received is there.
    EXPECT_THAT(modem.sim.send("log"), HasSubstr("\nAT"));
}

}  // namespace
