// The benchmark's own arithmetic and parsing: a wrong percentile or a
// misread /proc field would print plausible numbers that mean nothing.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>

#include "base/unique_fd.h"
#include "control_link.h"
#include "latency_stats.h"
#include "proc_stats.h"
#include "stamp.h"

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
