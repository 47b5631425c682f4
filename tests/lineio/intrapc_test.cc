#include "lineio/intrapc.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "core/device_table.h"
#include "log/kallog.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::HasSubstr;

namespace {

class IntrapcTest : public ::testing::Test {
  protected:
    void SetUp() override {
        kallogregister("KALDeviceMaster");
        kallog(KAL_DEBUG, "test starts");  // opens the log file now, not mid-test
    }
    std::string log_text() const { return read_file(root_.daemon_log()); }

    // Leaves exactly `free_slots` descriptors available to the process.
    static void use_up_descriptors(int free_slots) {
        struct rlimit rl {};
        getrlimit(RLIMIT_NOFILE, &rl);
        rl.rlim_cur = 256;
        setrlimit(RLIMIT_NOFILE, &rl);
        std::vector<int> held;
        for (int fd; (fd = ::open("/dev/null", O_RDONLY)) >= 0;)
            held.push_back(fd);
        for (int i = 0; i < free_slots; ++i) {
            ::close(held.back());
            held.pop_back();
        }
    }

    TempRoot root_;
};

bool cloexec(int fd) {
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

TEST_F(IntrapcTest, CreatesBothPipesCloseOnExecAndNamesTheWriteEndFirst) {
    init_lmcomm_intrapc();
    const struct {
        const char* name;
        int in, out;
    } pipes[] = {
        {"lineisr-babymonitor", lmthread_babymonitor_socket_public,
         lmthread_babymonitor_socket_private},
        {"lineisr-userisr", lmthread_userisr_socket_public, lmthread_userisr_socket_private},
    };
    for (const auto& p : pipes) {
        EXPECT_TRUE(cloexec(p.in)) << p.name;
        EXPECT_TRUE(cloexec(p.out)) << p.name;
        ASSERT_EQ(::write(p.in, "@", 1), 1) << p.name << " is written at its public end";
        char c = 0;
        ASSERT_EQ(::read(p.out, &c, 1), 1);
        EXPECT_THAT(log_text(), HasSubstr("DEBUG: " + std::string(p.name) +
                                          " intrapc pipe created (in=" + std::to_string(p.in) +
                                          ";out=" + std::to_string(p.out) + ").\n"));
    }
    EXPECT_LT(log_text().find("lineisr-babymonitor intrapc"),
              log_text().find("lineisr-userisr intrapc"));
}

TEST_F(IntrapcTest, RescanWakeIsOneByteWrittenUnderTheIntrapcLock) {
    init_lmcomm_intrapc();
    const int out = lmthread_babymonitor_socket_private;
    struct pollfd p = {out, POLLIN, 0};

    lock_intrapc();
    int written = 0;
    std::thread waker([&] { written = wake_lineisr_for_rescan(); });
    EXPECT_EQ(poll(&p, 1, 200), 0) << "the byte came while the lock was held elsewhere";
    unlock_intrapc();
    waker.join();
    EXPECT_EQ(written, 1);

    ASSERT_EQ(fcntl(out, F_SETFL, O_NONBLOCK), 0);
    char buf[8];
    ASSERT_EQ(::read(out, buf, sizeof buf), 1);
    EXPECT_EQ(buf[0], 0x40);
}

TEST_F(IntrapcTest, NoDescriptorForAPipeEndsTheDaemon) {
    EXPECT_EXIT(
        {
            use_up_descriptors(0);
            init_lmcomm_intrapc();
        },
        ::testing::ExitedWithCode(1),
        "ERR: Couldn't create lineisr-babymonitor intrapc pipe\\. Quitting\\. \\(24-Too many "
        "open files\\)");
    EXPECT_EXIT(
        {
            use_up_descriptors(2);
            init_lmcomm_intrapc();
        },
        ::testing::ExitedWithCode(1),
        "ERR: Couldn't create lineisr-userisr intrapc pipe\\. Quitting\\. \\(24-Too many "
        "open files\\)");
}

}  // namespace
