// kal-eventbench: how long a line monitor's event takes to reach a subscribed
// D-Bus client through the daemon, beside a floor measured in the same run,
// and what the daemon spends on it; then the idle daemon's wake-ups, its
// memory with 16 lines and its start-up time. Run it through
// bench/event_latency.sh, which builds it and runs it under umockdev.
//
// Everything runs in a private world: a KAL_ROOT, a dbus-daemon and umockdev
// adapters of its own. The line monitors are kal-bench-linemonitor, which
// the driver steers over its control socket (control_link.h); the floor is
// kal-bench-floorsender; the clients are the test suites' BusClient, one
// thread each, which stamps each call as its handler starts.

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "bus_client.h"
#include "control_link.h"
#include "fake_adapters.h"
#include "latency_stats.h"
#include "linesim_control.h"
#include "private_bus.h"
#include "proc_stats.h"
#include "service/sd_bus_handles.h"
#include "service/vocabulary.h"
#include "stamp.h"
#include "test_support.h"

using namespace kal;
using namespace kal::bench;
using namespace kal::test;
using namespace std::chrono_literals;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
// Lead time between telling the senders the start and the first event.
constexpr int64_t kLeadNs = 300'000'000;
// How long after the last event is due its notifications may still come.
constexpr int64_t kGraceNs = 15'000'000'000;

struct Options {
    int runs = 5;
    int64_t slow_events = 50;    // per run at 10 events/s, all lines together
    int64_t fast_events = 3000;  // per run at 1000 events/s
    int idle_seconds = 10;
    int startup_lines = 16;
};

struct Shape {
    int lines, clients;
};

// ---------------------------------------------------------------------------
// Who owns the daemon's bus name, seen from a connection of our own.

class NameWatch {
  public:
    NameWatch() {
        sd_bus* raw = nullptr;
        if (sd_bus_open_system(&raw) < 0)
            throw std::runtime_error("cannot reach the private bus");
        bus_.reset(raw);
        const std::string match =
            "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
            "member='NameOwnerChanged',arg0='" +
            bus_name() + "'";
        sd_bus_slot* slot = nullptr;
        if (sd_bus_add_match(raw, &slot, match.c_str(), onChange, this) < 0)
            throw std::runtime_error("cannot watch the daemon's bus name");
        slot_.reset(slot);
        // The match is in place once a round trip has passed.
        sd_bus_call_method(raw, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "GetId", nullptr, nullptr, "");
    }

    // Waits until the name is owned (or free); returns when that was seen
    // (mono_ns), or 0 after `deadline`.
    int64_t wait(bool owned, std::chrono::milliseconds deadline) {
        const int64_t end = mono_ns() + deadline.count() * 1000000;
        for (;;) {
            while (sd_bus_process(bus_.get(), nullptr) > 0) {
            }
            if (owned_ == owned)
                return changed_at_;
            if (mono_ns() >= end)
                return 0;
            sd_bus_wait(bus_.get(), 50000);
        }
    }

  private:
    static int onChange(sd_bus_message* m, void* userdata, sd_bus_error*) {
        const int64_t now = mono_ns();
        auto* self = static_cast<NameWatch*>(userdata);
        const char *name = nullptr, *from = nullptr, *to = nullptr;
        if (sd_bus_message_read(m, "sss", &name, &from, &to) >= 0) {
            self->owned_ = to && *to;
            self->changed_at_ = now;
        }
        return 0;
    }

    BusPtr bus_;
    SlotPtr slot_;
    bool owned_ = false;
    int64_t changed_at_ = 0;
};

// ---------------------------------------------------------------------------
// One daemon on `lines` fake adapters with `clients` subscribed clients.

int64_t file_size(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : 0;
}

class Stage {
  public:
    Stage(Shape shape, ControlSocket& control, NameWatch& names, const TempRoot& root)
        : shape_(shape), control_(control), names_(names), root_(root) {
        for (int i = 0; i < shape.lines; ++i)
            adapters_.add_adapter(1, line_serial(i));
    }
    ~Stage() { stop(); }

    // The floor of start-up on these adapters, in ms.
    double scanFloorMs() {
        const int64_t t0 = mono_ns();
        ChildProcess floor({bin_path("kal-bench-scanfloor")}, {},
                           root_.path() + "/scanfloor.stderr");
        const int64_t owned = names_.wait(true, 20s);
        floor.signal(SIGTERM);
        floor.wait_exit();
        if (!owned || !names_.wait(false, 20s))
            throw std::runtime_error("the start-up floor never took the bus name");
        return static_cast<double>(owned - t0) / 1e6;
    }

    // Starts the daemon, waits for its bus name and its line monitors, and
    // registers the clients; returns the start-up time to the bus name (ms).
    double start() {
        // KAL_BENCH_DAEMON_WRAPPER: words put before the daemon's path (an
        // absolute program first), e.g. "/usr/bin/valgrind --tool=callgrind".
        std::vector<std::string> argv;
        if (const char* wrapper = std::getenv("KAL_BENCH_DAEMON_WRAPPER")) {
            std::istringstream words(wrapper);
            for (std::string w; words >> w;)
                argv.push_back(w);
        }
        argv.push_back(bin_path("kaldevicemaster"));
        const int64_t t0 = mono_ns();
        daemon_ = std::make_unique<ChildProcess>(argv, std::vector<std::string>{},
                                                 root_.path() + "/daemon.stderr");
        const int64_t owned = names_.wait(true, 30s);
        if (!owned)
            throw std::runtime_error("the daemon never took its bus name:\n" +
                                     read_file(root_.path() + "/daemon.stderr"));
        monitors_ = control_.accept(shape_.lines, 30s);
        for (int i = 0; i < shape_.clients; ++i) {
            auto c = std::make_unique<BusClient>();
            if (!wait_for([&] { return c->registerApp().str() == kal_ResponseCode_OK; }, 20s))
                throw std::runtime_error("a client could not register with the daemon");
            if (!c->subscribe(kal_CallerID).ok())
                throw std::runtime_error("a client could not subscribe");
            clients_.push_back(std::move(c));
        }
        return static_cast<double>(owned - t0) / 1e6;
    }

    void stop() {
        if (!daemon_)
            return;
        clients_.clear();
        daemon_->signal(SIGTERM);
        daemon_->wait_exit(30s);
        daemon_.reset();
        monitors_.clear();
        names_.wait(false, 20s);
    }

    pid_t daemonPid() const { return daemon_->pid(); }
    const std::vector<std::unique_ptr<BusClient>>& clients() const { return clients_; }

    struct Figures {
        std::vector<int64_t> latencies;  // ns, one per event and client
        int64_t lost = 0, reordered = 0;
        double cpuMsPer1000 = kNaN, switchesPerEvent = kNaN, logBytesPerEvent = kNaN;
    };

    // `profile`: a command run with the daemon's pid as its last argument
    // while the daemon's part is measured, and stopped by SIGINT after it.
    Figures measure(bool through_daemon, double rate, int64_t total_events,
                    const char* profile = nullptr) {
        const int64_t per_line = std::max<int64_t>(1, total_events / shape_.lines);
        const int64_t events = per_line * shape_.lines;
        for (auto& c : clients_)
            c->clearReceived();
        const int64_t start = mono_ns() + kLeadNs;
        const int64_t deadline =
            start + static_cast<int64_t>(static_cast<double>(events) * 1e9 / rate) + kGraceNs;
        const std::string log = root_.daemon_log();
        const std::string floor_result = root_.path() + "/floor.result";

        Figures f;
        std::optional<ProcSample> before;
        int64_t log_before = 0;
        std::unique_ptr<ChildProcess> floor, profiler;
        if (through_daemon && profile)
            profiler = std::make_unique<ChildProcess>(std::vector<std::string>{
                "/bin/sh", "-c", "exec " + std::string(profile) + " \"$0\"",
                std::to_string(daemon_->pid())});
        if (through_daemon) {
            before = sample_process(daemon_->pid());
            log_before = file_size(log);
            for (int i = 0; i < shape_.lines; ++i) {
                char run[160];
                snprintf(run, sizeof run, "run %d %d %g %lld %lld", i, shape_.lines, rate,
                         static_cast<long long>(per_line), static_cast<long long>(start));
                if (!send_line(monitors_.at(line_serial(i)).fd.get(), run))
                    throw std::runtime_error("a line monitor went away");
            }
        } else {
            std::vector<std::string> argv{bin_path("kal-bench-floorsender"),
                                          std::to_string(shape_.lines),
                                          std::to_string(rate),
                                          std::to_string(per_line),
                                          std::to_string(start),
                                          floor_result};
            for (auto& c : clients_) {
                argv.push_back(c->uniqueName());
                argv.push_back(c->path());
            }
            floor = std::make_unique<ChildProcess>(argv, std::vector<std::string>{},
                                                   root_.path() + "/floor.stderr");
        }

        std::vector<std::thread> receivers;
        for (auto& c : clients_)
            receivers.emplace_back(receive, c.get(), static_cast<size_t>(events), deadline);
        for (auto& t : receivers)
            t.join();
        if (profiler) {
            profiler->signal(SIGINT);
            profiler->wait_exit(120s);
        }

        if (through_daemon) {
            for (int i = 0; i < shape_.lines; ++i)
                monitors_.at(line_serial(i)).reader->next(10s);
            auto after = sample_process(daemon_->pid());
            if (before && after) {
                f.cpuMsPer1000 = static_cast<double>(after->cpu_ticks - before->cpu_ticks) *
                                 ms_per_tick() * 1000 / static_cast<double>(events);
                f.switchesPerEvent = static_cast<double>(after->switches() - before->switches()) /
                                     static_cast<double>(events);
            }
            f.logBytesPerEvent =
                static_cast<double>(file_size(log) - log_before) / static_cast<double>(events);
        } else {
            floor->wait_exit(30s);
            std::ifstream in(floor_result);
            int64_t ticks = 0, switches = 0, refused = 0;
            if (in >> ticks >> switches >> refused) {
                if (refused)
                    fprintf(stderr, "the bus refused %lld of the floor's calls\n",
                            static_cast<long long>(refused));
                f.cpuMsPer1000 =
                    static_cast<double>(ticks) * ms_per_tick() * 1000 / static_cast<double>(events);
                f.switchesPerEvent = static_cast<double>(switches) / static_cast<double>(events);
            } else {
                fprintf(stderr, "the floor sender left no result:\n%s",
                        read_file(root_.path() + "/floor.stderr").c_str());
            }
        }
        for (auto& c : clients_)
            tally(*c, per_line, f);
        return f;
    }

  private:
    // Pumps one client until `expected` notifications have come or `deadline`.
    static void receive(BusClient* c, size_t expected, int64_t deadline) {
        for (;;) {
            c->process();
            const int64_t now = mono_ns();
            if (c->received().size() >= expected || now >= deadline)
                return;
            struct pollfd p = {sd_bus_get_fd(c->bus()),
                               static_cast<short>(sd_bus_get_events(c->bus())), 0};
            ::poll(&p, 1, 50);
        }
    }

    void tally(const BusClient& c, int64_t per_line, Figures& f) const {
        std::vector<SequenceCheck> lines(static_cast<size_t>(shape_.lines),
                                         SequenceCheck(per_line));
        for (const auto& n : c.received()) {
            // Nothing else was sent: anything else can only be garbled.
            const auto it = n.userInfo.find(kal_CallerIDContentsKey);
            if (n.name != kal_CallerID || it == n.userInfo.end()) {
                ++f.reordered;
                continue;
            }
            const std::optional<Stamp> stamp = parse_stamp(it->second.str());
            if (!stamp || stamp->line >= shape_.lines) {
                ++f.reordered;
                continue;
            }
            lines[static_cast<size_t>(stamp->line)].arrived(stamp->seq);
            f.latencies.push_back(
                std::chrono::duration_cast<std::chrono::nanoseconds>(n.arrived.time_since_epoch())
                    .count() -
                stamp->ns);
        }
        for (const auto& l : lines) {
            f.lost += l.lost();
            f.reordered += l.reordered();
        }
    }

    Shape shape_;
    ControlSocket& control_;
    NameWatch& names_;
    const TempRoot& root_;
    FakeAdapters adapters_;
    std::unique_ptr<ChildProcess> daemon_;
    std::map<std::string, ControlSocket::Monitor> monitors_;
    std::vector<std::unique_ptr<BusClient>> clients_;
};

// ---------------------------------------------------------------------------
// Results and the table.

struct CaseResult {
    std::vector<Distribution> floor, daemon;
    std::vector<double> floorCpu, daemonCpu, floorSwitches, daemonSwitches, logBytes;
    int64_t floorLost = 0, floorReordered = 0, daemonLost = 0, daemonReordered = 0;

    void add(const Stage::Figures& f, const Stage::Figures& d) {
        floor.push_back(distribution(f.latencies));
        daemon.push_back(distribution(d.latencies));
        floorCpu.push_back(f.cpuMsPer1000);
        daemonCpu.push_back(d.cpuMsPer1000);
        floorSwitches.push_back(f.switchesPerEvent);
        daemonSwitches.push_back(d.switchesPerEvent);
        logBytes.push_back(d.logBytesPerEvent);
        floorLost += f.lost;
        floorReordered += f.reordered;
        daemonLost += d.lost;
        daemonReordered += d.reordered;
    }
};

std::string cell(const Spread& s, const char* fmt) {
    if (s.empty)
        return "-";
    const auto text = [&](double v) {
        char part[32];
        snprintf(part, sizeof part, fmt, v);
        return std::string(part);
    };
    return text(s.median) + " (" + text(s.min) + "-" + text(s.max) + ")";
}

template <typename F>
Spread over_runs(const std::vector<Distribution>& runs, F field) {
    std::vector<double> v;
    for (const auto& d : runs)
        v.push_back(d.count ? static_cast<double>(field(d)) / 1000.0 : kNaN);  // µs
    return spread(v);
}

template <typename F>
Spread ratio_over_runs(const CaseResult& r, F field) {
    std::vector<double> v;
    for (size_t i = 0; i < r.floor.size(); ++i)
        v.push_back(r.floor[i].count && r.daemon[i].count && field(r.floor[i]) > 0
                        ? static_cast<double>(field(r.daemon[i])) /
                              static_cast<double>(field(r.floor[i]))
                        : kNaN);
    return spread(v);
}

void print_table(const std::vector<std::pair<std::string, CaseResult>>& cases, int runs) {
    printf(
        "\nEvent to client, %d runs: median of the runs (lowest-highest run); latencies in µs\n\n",
        runs);
    printf(
        "| case | floor p50 | daemon p50 | p50 ratio | floor p99 | daemon p99 | p99 ratio | "
        "floor max | daemon max | daemon CPU ms/1000 ev | floor CPU ms/1000 ev | "
        "daemon switches/ev | floor switches/ev | daemon log B/ev | lost d/f | reordered d/f |\n");
    printf("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
    const auto p50 = [](const Distribution& d) { return d.p50; };
    const auto p99 = [](const Distribution& d) { return d.p99; };
    const auto max = [](const Distribution& d) { return d.max; };
    for (const auto& [name, r] : cases) {
        printf(
            "| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %lld/%lld | "
            "%lld/%lld |\n",
            name.c_str(), cell(over_runs(r.floor, p50), "%.0f").c_str(),
            cell(over_runs(r.daemon, p50), "%.0f").c_str(),
            cell(ratio_over_runs(r, p50), "%.2f").c_str(),
            cell(over_runs(r.floor, p99), "%.0f").c_str(),
            cell(over_runs(r.daemon, p99), "%.0f").c_str(),
            cell(ratio_over_runs(r, p99), "%.2f").c_str(),
            cell(over_runs(r.floor, max), "%.0f").c_str(),
            cell(over_runs(r.daemon, max), "%.0f").c_str(),
            cell(spread(r.daemonCpu), "%.0f").c_str(), cell(spread(r.floorCpu), "%.0f").c_str(),
            cell(spread(r.daemonSwitches), "%.2f").c_str(),
            cell(spread(r.floorSwitches), "%.2f").c_str(), cell(spread(r.logBytes), "%.0f").c_str(),
            static_cast<long long>(r.daemonLost), static_cast<long long>(r.floorLost),
            static_cast<long long>(r.daemonReordered), static_cast<long long>(r.floorReordered));
    }
}

void print_idle(const std::map<int, ThreadSwitches>& idle, int seconds) {
    printf(
        "\nIdle daemon (16 lines, 8 clients registered): context switches of each thread in "
        "%d s\n\n",
        seconds);
    printf("| thread id | name | voluntary | involuntary |\n|---|---|---|---|\n");
    int64_t total = 0;
    for (const auto& [tid, t] : idle) {
        printf("| %d | %s | %lld | %lld |\n", tid, t.name.c_str(),
               static_cast<long long>(t.voluntary), static_cast<long long>(t.nonvoluntary));
        total += t.total();
    }
    printf("| all | | %lld in all | |\n", static_cast<long long>(total));
}

std::string load_average() {
    std::string text = read_file("/proc/loadavg");
    return text.substr(0, text.find(' ', text.find(' ', text.find(' ') + 1) + 1));
}

int usage() {
    fprintf(stderr,
            "usage: kal-eventbench [--quick] [--runs N]\n"
            "  Run it through bench/event_latency.sh, which builds it and runs it under\n"
            "  umockdev. --quick: 2 shorter runs and 3 idle seconds, for development.\n"
            "  KAL_BENCH_PROFILE=\"perf record -g -o FILE -p\": a profiler attached to the\n"
            "  daemon during the last run's 16 lines x 8 clients at 1000/s.\n"
            "  KAL_BENCH_DAEMON_WRAPPER=\"/usr/bin/valgrind --tool=callgrind ...\": runs the\n"
            "  daemon under that program.\n");
    return 2;
}

int run(const Options& opt) {
    printf(
        "kal-eventbench: %d runs; %lld events a run at 10/s, %lld at 1000/s; load average "
        "%s at the start\n",
        opt.runs, static_cast<long long>(opt.slow_events), static_cast<long long>(opt.fast_events),
        load_average().c_str());
    fflush(stdout);
    TempRoot root;
    PrivateBus bus;
    install_linemonitor(bin_path("kal-bench-linemonitor"));
    ControlSocket control(root.path() + "/bench.sock");
    NameWatch names;

    const Shape shapes[] = {{1, 1}, {16, 8}};
    const double rates[] = {10, 1000};
    std::vector<std::pair<std::string, CaseResult>> cases;
    for (const Shape& s : shapes)
        for (double rate : rates)
            cases.emplace_back(std::to_string(s.lines) + (s.lines == 1 ? " line x " : " lines x ") +
                                   std::to_string(s.clients) +
                                   (s.clients == 1 ? " client, " : " clients, ") +
                                   std::to_string(static_cast<int>(rate)) + "/s",
                               CaseResult{});
    std::vector<double> startup, scan_floor;
    std::map<int, ThreadSwitches> idle;
    int64_t rss = 0, hwm = 0;

    for (int r = 0; r < opt.runs; ++r) {
        size_t next_case = 0;
        for (const Shape& s : shapes) {
            Stage stage(s, control, names, root);
            const bool startup_shape = s.lines == opt.startup_lines;
            if (startup_shape)
                scan_floor.push_back(stage.scanFloorMs());
            const double ms = stage.start();
            if (startup_shape)
                startup.push_back(ms);
            for (double rate : rates) {
                const int64_t events = rate < 100 ? opt.slow_events : opt.fast_events;
                auto floor = stage.measure(false, rate, events);
                // The profile, when asked for, of the busiest case of the last run.
                const bool profiled = r == opt.runs - 1 && s.lines == 16 && rate >= 1000;
                auto daemon = stage.measure(true, rate, events,
                                            profiled ? std::getenv("KAL_BENCH_PROFILE") : nullptr);
                cases[next_case++].second.add(floor, daemon);
                fprintf(stderr, "run %d: %s: floor p50 %.0f µs, daemon p50 %.0f µs\n", r + 1,
                        cases[next_case - 1].first.c_str(),
                        static_cast<double>(distribution(floor.latencies).p50) / 1000,
                        static_cast<double>(distribution(daemon.latencies).p50) / 1000);
            }
            if (startup_shape && r == opt.runs - 1) {
                rss = status_kib(stage.daemonPid(), "VmRSS").value_or(0);
                hwm = status_kib(stage.daemonPid(), "VmHWM").value_or(0);
                auto before = sample_process(stage.daemonPid());
                std::this_thread::sleep_for(std::chrono::seconds(opt.idle_seconds));
                auto after = sample_process(stage.daemonPid());
                if (before && after)
                    idle = switches_between(*before, *after);
            }
        }
    }

    print_table(cases, opt.runs);
    print_idle(idle, opt.idle_seconds);
    printf(
        "\nResident memory with 16 lines and 8 clients, after the runs: VmRSS %.1f MiB "
        "(VmHWM %.1f MiB)\n",
        static_cast<double>(rss) / 1024, static_cast<double>(hwm) / 1024);
    printf("Start-up to the bus name with 16 adapters: daemon %s ms, libudev-scan floor %s ms\n",
           cell(spread(startup), "%.1f").c_str(), cell(spread(scan_floor), "%.1f").c_str());
    printf("Load average at the end: %s\n", load_average().c_str());
    int64_t bad = 0;
    for (const auto& [name, r] : cases)
        bad += r.daemonLost + r.daemonReordered + r.floorLost + r.floorReordered;
    if (bad) {
        printf("FAILED: %lld events lost or out of order\n", static_cast<long long>(bad));
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0) {
            opt.runs = 2;
            opt.slow_events = 20;
            opt.fast_events = 1000;
            opt.idle_seconds = 3;
        } else if (strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
            opt.runs = atoi(argv[++i]);
            if (opt.runs < 1)
                return usage();
        } else {
            return usage();
        }
    }
    signal(SIGPIPE, SIG_IGN);
    try {
        return run(opt);
    } catch (const std::exception& e) {
        fprintf(stderr, "kal-eventbench: %s\n", e.what());
        return 1;
    }
}
