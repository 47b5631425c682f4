// The benchmark's own arithmetic and parsing: a wrong percentile or a
// misread /proc field would print plausible numbers that mean nothing.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <sstream>
#include <stdexcept>

#include "base/unique_fd.h"
#include "bus_client.h"
#include "control_link.h"
#include "latency_stats.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "private_bus.h"
#include "proc_stats.h"
#include "service/vocabulary.h"
#include "stamp.h"
#include "test_support.h"

using namespace kal::bench;

namespace {

TEST(EventBenchStamp, RoundTripsAndRejectsAnythingElse) {
    const Stamp s{15, 2999, 123456789012345};
    EXPECT_EQ(stamp_text(s), "kalbench 15 2999 123456789012345");
    auto back = parse_stamp(stamp_text(s));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->line, 15);
    EXPECT_EQ(back->seq, 2999);
    EXPECT_EQ(back->ns, 123456789012345);
    for (const char* bad : {"", "kalbench", "kalbench 1 2", "kalbench 1 2 3 ", "kalbench 1 2 3x",
                            "kalbench -1 2 3", "kalbenc 1 2 3", "5551234 JANE DOE"})
        EXPECT_FALSE(parse_stamp(bad)) << bad;
}

TEST(EventBenchStamp, LinesTakeTurnsOnOneSchedule) {
    // 1000 events a second over 4 lines: every millisecond the next line.
    EXPECT_EQ(due_ns(1000, 1000, 4, 0, 0), 1000);
    EXPECT_EQ(due_ns(1000, 1000, 4, 3, 0), 1000 + 3'000'000);
    EXPECT_EQ(due_ns(1000, 1000, 4, 0, 1), 1000 + 4'000'000);
    EXPECT_EQ(due_ns(0, 10, 1, 0, 7), 700'000'000);
    EXPECT_EQ(line_serial(3), "BENCH03");
}

TEST(EventBenchStats, NearestRankPercentiles) {
    std::vector<int64_t> v;
    for (int i = 100; i >= 1; --i)
        v.push_back(i);
    auto d = distribution(v);
    EXPECT_EQ(d.p50, 50);
    EXPECT_EQ(d.p99, 99);
    EXPECT_EQ(d.max, 100);
    EXPECT_EQ(d.count, 100u);
    d = distribution({7});
    EXPECT_EQ(d.p50, 7);
    EXPECT_EQ(d.p99, 7);
    EXPECT_EQ(distribution({}).count, 0u);
    EXPECT_EQ(distribution({1, 2, 3}).p50, 2);
}

TEST(EventBenchStats, SpreadLeavesOutWhatARunCouldNotMeasure) {
    auto s = spread({4, std::nan(""), 1, 3, 2});
    ASSERT_FALSE(s.empty);
    EXPECT_DOUBLE_EQ(s.median, 2.5);
    EXPECT_DOUBLE_EQ(s.min, 1);
    EXPECT_DOUBLE_EQ(s.max, 4);
    EXPECT_DOUBLE_EQ(spread({3, 1, 2}).median, 2);
    EXPECT_TRUE(spread({std::nan("")}).empty);
}

TEST(EventBenchStats, CountsLostLateDuplicatedAndForeignEvents) {
    SequenceCheck inOrder(3);
    for (int64_t s : {0, 1, 2})
        inOrder.arrived(s);
    EXPECT_EQ(inOrder.lost(), 0);
    EXPECT_EQ(inOrder.reordered(), 0);

    SequenceCheck gaps(5);
    for (int64_t s : {0, 2, 1, 2, 7, 4})  // 1 late, 2 twice, 7 never sent, 3 missing
        gaps.arrived(s);
    EXPECT_EQ(gaps.lost(), 1);
    EXPECT_EQ(gaps.reordered(), 3);
}

TEST(EventBenchProc, ReadsCpuTicksPastACommandNameWithParentheses) {
    const char stat[] =
        "4242 (kal (x) y) S 1 4242 4242 0 -1 4194560 120 0 0 0 37 11 0 0 20 0 5 0 99 "
        "12345678 900 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n";
    EXPECT_EQ(parse_stat_cpu_ticks(stat), 48);
    EXPECT_FALSE(parse_stat_cpu_ticks("4242 (kal) S 1 2"));
    EXPECT_FALSE(parse_stat_cpu_ticks("no parenthesis"));
}

TEST(EventBenchProc, ReadsStatusFieldsAndThreadDifferences) {
    const char status[] =
        "Name:\tkaldevicemaster\nUmask:\t0022\nVmHWM:\t    7000 kB\nVmRSS:\t    6144 kB\n"
        "voluntary_ctxt_switches:\t10\nnonvoluntary_ctxt_switches:\t3\n";
    const auto t = parse_status_switches(status);
    EXPECT_EQ(t.name, "kaldevicemaster");
    EXPECT_EQ(t.voluntary, 10);
    EXPECT_EQ(t.nonvoluntary, 3);
    EXPECT_EQ(parse_status_kib(status, "VmRSS"), 6144);
    EXPECT_EQ(parse_status_kib(status, "VmHWM"), 7000);
    EXPECT_FALSE(parse_status_kib(status, "VmSwap"));
    EXPECT_FALSE(parse_status_kib(status, "Vm"));

    ProcSample before, after;
    before.threads[1] = {"main", 10, 3};
    before.threads[2] = {"gone", 5, 5};
    after.threads[1] = {"main", 12, 3};
    after.threads[3] = {"new", 4, 1};
    const auto d = switches_between(before, after);
    ASSERT_EQ(d.size(), 2u);
    EXPECT_EQ(d.at(1).total(), 2);
    EXPECT_EQ(d.at(3).total(), 5);
    EXPECT_EQ(after.switches(), 20);

    // This process, read for real.
    auto self = sample_process(getpid());
    ASSERT_TRUE(self);
    EXPECT_FALSE(self->threads.empty());
    EXPECT_GT(status_kib(getpid(), "VmRSS").value_or(0), 0);
}

TEST(EventBenchControl, ReadsLinesAcrossPartialWritesUntilEndOfFile) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    kal::unique_fd ours(sv[0]), theirs(sv[1]);
    LineReader reader(ours.get());
    ASSERT_EQ(write(theirs.get(), "hello BEN", 9), 9);
    EXPECT_FALSE(reader.next(std::chrono::milliseconds(0)));
    ASSERT_EQ(write(theirs.get(), "CH00\ndone 3\n", 12), 12);
    EXPECT_EQ(reader.next(std::chrono::milliseconds(1000)), "hello BENCH00");
    EXPECT_EQ(reader.next(std::chrono::milliseconds(1000)), "done 3");
    ASSERT_TRUE(send_line(theirs.get(), "run 0 1 10 5 0"));
    EXPECT_EQ(reader.next(std::chrono::milliseconds(1000)), "run 0 1 10 5 0");
    theirs.reset();
    EXPECT_FALSE(reader.next(std::chrono::milliseconds(1000)));
}

}  // namespace

// ---------------------------------------------------------------------------
// The benchmark's programs, run for real: what they put on the wire is what
// the measurement rests on.

namespace kal::bench {
namespace {

using namespace kal::test;
using namespace std::chrono_literals;

// A line monitor as the daemon starts one: its end of a socket pair on
// descriptor 4.
class LineMonitorChild {
  public:
    LineMonitorChild() {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
            throw std::runtime_error("socketpair failed");
        line_.reset(sv[0]);
        kal::unique_fd theirs(sv[1]);
        const std::string program = bin_path("kal-bench-linemonitor");
        pid_ = fork();
        if (pid_ == 0) {
            dup2(theirs.get(), 4);
            execl(program.c_str(), "KALLineMonitor", "-QLXLine", "/dev/ttyUSB0", "-QLXSerial",
                  "BENCH02", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~LineMonitorChild() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    int line() const { return line_.get(); }
    void closeLine() { line_.reset(); }
    // The exit status, or -1 when it does not end within 20 s.
    int wait() {
        int status = -1;
        const bool ended = wait_for([&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
        if (!ended)
            return -1;
        pid_ = -1;
        return status;
    }

  private:
    kal::unique_fd line_;
    pid_t pid_ = -1;
};

TEST(EventBenchPrograms, LineMonitorStampsCallerIdFramesOnItsTurnOfTheSchedule) {
    TempRoot root;
    ControlSocket control(root.path() + "/bench.sock");
    LineMonitorChild monitor;
    const std::string orders = lm::build_orders({"/dev/ttyUSB0", "BENCH02", ""});
    ASSERT_EQ(write(monitor.line(), orders.data(), orders.size()),
              static_cast<ssize_t>(orders.size()));
    auto monitors = control.accept(1, 20s);
    ASSERT_EQ(monitors.count("BENCH02"), 1u);
    auto& m = monitors.at("BENCH02");

    // Line 2 of 4 at 1000/s in all: its events are 4 ms apart, 2 ms in.
    const int64_t start = mono_ns() + 20'000'000;
    ASSERT_TRUE(send_line(m.fd.get(), "run 2 4 1000 3 " + std::to_string(start)));
    for (int64_t seq = 0; seq < 3; ++seq) {
        char buf[256] = {};
        const ssize_t n = dmp_read(monitor.line(), buf, sizeof buf - 1, 20);
        ASSERT_GT(n, 1);
        EXPECT_EQ(buf[0], lm::kEvtCallerId);
        EXPECT_EQ(buf[n - 1], '\0') << "caller-ID text ends with its NUL";
        auto stamp = parse_stamp(buf + 1);
        ASSERT_TRUE(stamp) << buf + 1;
        EXPECT_EQ(stamp->line, 2);
        EXPECT_EQ(stamp->seq, seq);
        EXPECT_GE(stamp->ns, due_ns(start, 1000, 4, 2, seq));
        EXPECT_LE(stamp->ns, mono_ns());
    }
    EXPECT_EQ(m.reader->next(20s), "done 3");

    monitor.closeLine();  // the daemon went away
    const int status = monitor.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(EventBenchPrograms, FloorSenderCallsEachClientInTurnWithTheDaemonsMessage) {
    TempRoot root;
    PrivateBus bus;
    BusClient first, second;
    const std::string result = root.path() + "/floor.result";
    ChildProcess floor({bin_path("kal-bench-floorsender"), "2", "1000", "3",
                        std::to_string(mono_ns() + 50'000'000), result, first.uniqueName(),
                        first.path(), second.uniqueName(), second.path()});
    ASSERT_TRUE(pump_until({&first, &second}, [&] {
        return first.received().size() >= 6 && second.received().size() >= 6;
    }));
    const int status = floor.wait_exit();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    // The keys the daemon's caller-ID notification carries.
    const std::vector<std::string> keys{kal_CallerIDContentsKey, kal_EventTimeKey,
                                        kal_NotificationNameKey, kal_QLXNumberKey,
                                        kal_QLXSerialNumberKey};
    for (const BusClient* c : {&first, &second}) {
        ASSERT_EQ(c->received().size(), 6u);
        for (int j = 0; j < 6; ++j) {
            const auto& n = c->received()[static_cast<size_t>(j)];
            SCOPED_TRACE(j);
            EXPECT_EQ(n.name, kal_CallerID);
            EXPECT_EQ(n.object.str(), line_serial(j % 2));
            std::vector<std::string> got;
            for (const auto& [k, v] : n.userInfo)
                got.push_back(k);
            EXPECT_EQ(got, keys);
            EXPECT_EQ(n.userInfo.at(kal_QLXSerialNumberKey).str(), line_serial(j % 2));
            EXPECT_EQ(n.userInfo.at(kal_NotificationNameKey).str(), kal_CallerID);
            auto stamp = parse_stamp(n.userInfo.at(kal_CallerIDContentsKey).str());
            ASSERT_TRUE(stamp);
            EXPECT_EQ(stamp->line, j % 2);
            EXPECT_EQ(stamp->seq, j / 2);
            EXPECT_LE(stamp->ns, std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     n.arrived.time_since_epoch())
                                     .count());
        }
    }
    std::istringstream in(read_file(result));
    int64_t ticks = -1, switches = -1, refused = -1;
    ASSERT_TRUE(in >> ticks >> switches >> refused);
    EXPECT_EQ(refused, 0);
}

}  // namespace
}  // namespace kal::bench
