// Starting line monitors: the programs here are shell scripts that report
// what a line monitor would see when it starts.

#include "core/linemonitor.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "log/kallog.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

// Writes its arguments, signal state and open descriptors, then the orders
// it reads from descriptor 4, into files named after its serial. bash, not
// sh: dash empties the signal mask when it starts, which would hide a leak.
constexpr const char kReporter[] = R"(#!/bin/bash
out="$KAL_ROOT/lm-$4"
{
    echo "args: $*"
    grep -E '^(SigBlk|SigIgn):' /proc/self/status
    ls -ln /proc/self/fd
} > "$out.tmp"
head -c 3072 <&4 > "$out.orders"
mv "$out.tmp" "$out.report"
)";

// Makes `fd` the lowest free descriptor by filling every hole below it (or,
// with `take_it`, fills it too). The fillers live as long as the result.
std::vector<unique_fd> arrange_lowest_free(int fd, bool take_it) {
    std::vector<unique_fd> fillers;
    for (;;) {
        unique_fd f(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        const int got = f.get();
        if (got > fd || (got == fd && !take_it))
            break;
        fillers.push_back(std::move(f));
    }
    return fillers;
}

class LineMonitorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        kallogregister("KALDeviceMaster");
        {
            // The log opens with its first line; keep it off descriptor 4,
            // which a test wants free.
            auto hold = arrange_lowest_free(4, true);
            kallog(KAL_DEBUG, "test begins");
        }
        // As in the daemon: a child that dies before reading its orders
        // must not take the test down with it.
        signal(SIGPIPE, SIG_IGN);
    }

    std::string log() const { return read_file(root_.daemon_log()); }
    qlx record(int type, const std::string& serial) {
        qlx r;
        r.serial = serial;
        r.ttyDevice = "ttyUSB7";
        r.calloutDevice = "/dev/ttyUSB7";
        r.deviceType = type;
        return r;
    }

    // The spawn starts the supervisor, which reaps every child: its log line
    // tells how one ended.
    bool child_exited_with(pid_t pid, int code) {
        const std::string line = "Child " + std::to_string(pid) +
                                 " exited normally with return code " + std::to_string(code) + ".";
        return wait_for([&] { return log().find(line) != std::string::npos; });
    }

    TempRoot root_;
};

// Descriptor number -> what it points at, from `ls -ln /proc/self/fd`.
std::map<int, std::string> parse_fd_listing(const std::string& report) {
    std::map<int, std::string> fds;
    std::istringstream in(report);
    for (std::string line; std::getline(in, line);) {
        auto arrow = line.find(" -> ");
        if (arrow == std::string::npos)
            continue;
        auto start = line.rfind(' ', arrow - 1) + 1;
        fds[std::stoi(line.substr(start, arrow - start))] = line.substr(arrow + 4);
    }
    return fds;
}

// What every descriptor of this process points at ("socket:[123]", paths).
std::set<std::string> open_descriptors() {
    std::set<std::string> targets;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
        auto target = std::filesystem::read_symlink(e.path(), ec);
        if (!ec)
            targets.insert(target.string());
    }
    return targets;
}

// The NUL-terminated text of one 1024-byte orders field.
std::string orders_field(const std::string& orders, int index) {
    std::string field = orders.substr(static_cast<size_t>(index) * 1024, 1024);
    return field.substr(0, field.find('\0'));
}

TEST_F(LineMonitorTest, ChildStartsWithItsSocketOnFourTheOrdersAndADefaultSignalState) {
    write_file(linemonitor_path(), kReporter, 0755);
    write_file(zrx_linemonitor_path(), kReporter, 0755);
    write_file(v253_linemonitor_path(), kReporter, 0755);

    // What the daemon's state would leak into a child if it were not reset:
    // an inheritable descriptor, blocked signals and (SetUp) an ignored one.
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    unique_fd stray(dup2(p[1], 50));
    close(p[0]);
    close(p[1]);
    sigset_t quit;
    sigemptyset(&quit);
    sigaddset(&quit, SIGINT);
    sigaddset(&quit, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &quit, nullptr);

    struct Case {
        int type;
        const char* serial;
        bool child_end_is_four;  // no dup2 needed
    } cases[] = {{1, "KL0001", false}, {2, "ZR0002", true}, {3, "VM0003", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.serial);
        qlx r = record(c.type, c.serial);
        int fd;
        {
            auto fillers = arrange_lowest_free(4, !c.child_end_is_four);
            fd = spawn_correct_linemonitor(&r);
        }
        ASSERT_GE(fd, 0);
        EXPECT_EQ(r.fd.get(), fd);
        EXPECT_EQ(r.status(), QLX_STATUS_UP);
        EXPECT_GT(r.pid, 0);
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        if (c.child_end_is_four) {
            EXPECT_THAT(log(), HasSubstr("generated bidirectional socket pair: 4, " +
                                         std::to_string(fd) + "\n"));
        }

        const std::set<std::string> ours = open_descriptors();
        const std::string out = root_.path() + "/lm-" + c.serial;
        ASSERT_TRUE(wait_for([&] { return file_exists(out + ".report"); })) << log();
        const std::string report = read_file(out + ".report");
        EXPECT_THAT(report, HasSubstr("args: -QLXLine /dev/ttyUSB7 -QLXSerial " +
                                      std::string(c.serial) + "\n"));
        EXPECT_THAT(report, HasSubstr("SigBlk:\t0000000000000000\n"));
        EXPECT_THAT(report, HasSubstr("SigIgn:\t0000000000000000\n"));

        // Descriptor 4 is the new socket, and nothing of ours came along:
        // the shell opens descriptors of its own, so the test compares what
        // the child holds with what this process holds.
        auto fds = parse_fd_listing(report);
        EXPECT_THAT(fds[4], StartsWith("socket:")) << report;
        for (const auto& [n, target] : fds) {
            if (n > 2) {
                EXPECT_FALSE(ours.count(target)) << n << " -> " << target << "\n" << report;
            }
        }

        const std::string orders = read_file(out + ".orders");
        ASSERT_EQ(orders.size(), 3072u);
        EXPECT_EQ(orders_field(orders, 0), "/dev/ttyUSB7");
        EXPECT_EQ(orders_field(orders, 1), c.serial);
        EXPECT_EQ(orders_field(orders, 2), "type=" + std::to_string(c.type));

        EXPECT_TRUE(child_exited_with(r.pid, 0));
        close(fd);
    }
    EXPECT_THAT(log(),
                HasSubstr("INFO: Successful fork of " + zrx_linemonitor_path() + " as pid "));
    EXPECT_THAT(log(),
                HasSubstr("INFO: Successful fork of " + v253_linemonitor_path() + " as pid "));
}

TEST_F(LineMonitorTest, UnknownDeviceTypeForksNothingAndLogsOneWarning) {
    for (int type : {0, 4}) {
        qlx r = record(type, "KL0003");
        const size_t before = log().size();
        EXPECT_EQ(spawn_correct_linemonitor(&r), -1);
        EXPECT_EQ(r.pid, -1);
        EXPECT_FALSE(r.fd);
        EXPECT_EQ(r.status(), QLX_STATUS_NEW);
        const std::string added = log().substr(before);
        EXPECT_THAT(added, HasSubstr("WARN: Can't start line monitor for unknown device type " +
                                     std::to_string(type) + "\n"));
        EXPECT_THAT(added, Not(ContainsRegex("DEBUG|INFO|ERR"))) << added;
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was forked";
}

TEST_F(LineMonitorTest, ProgramThatCannotBeExecutedStillSpawnsAndTheChildExits18) {
    // Type 1 present but not executable; types 2 and 3 missing altogether.
    write_file(linemonitor_path(), kReporter, 0644);
    for (int type : {1, 2, 3}) {
        SCOPED_TRACE(type);
        qlx r = record(type, "KL0004");
        const int fd = spawn_correct_linemonitor(&r);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(r.status(), QLX_STATUS_UP);
        EXPECT_TRUE(child_exited_with(r.pid, 18));
        close(fd);
    }
}

}  // namespace
