// kal-bench-floorsender: the floor the daemon is measured against. A bare
// sd-bus sender that puts on the bus, to the same clients, the call the
// daemon makes for each caller-ID event (InjectNotification with the same
// name, object and user-info), on the schedule the line monitors follow, and
// stamps each event where a line monitor would: before anything is done
// with it. Like the daemon it keeps one call in flight per client and queues
// the rest.
//
//   kal-bench-floorsender <lines> <rate> <count per line> <start ns> <result file>
//                         <client name> <client path> [<client name> <client path>]...
//
// The result file gets "<utime+stime ticks> <context switches> <refused calls>"
// spent from the first event to the last reply.

#include <poll.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <string>
#include <vector>

#include "proc_stats.h"
#include "service/bus_contract.h"
#include "service/bus_values.h"
#include "service/sd_bus_handles.h"
#include "service/vocabulary.h"
#include "stamp.h"

using namespace kal;
using namespace kal::bench;

namespace {

// One client, and like the daemon one call in flight to it at a time: the
// bus refuses a connection more than a limited number of calls awaiting
// replies, so a sender that did not queue would lose events whenever a
// client fell behind.
struct Destination {
    std::string name, path;
    std::deque<Stamp> waiting;
    bool inFlight = false;
};

sd_bus* the_bus = nullptr;
// Calls the client (or the bus) answered with an error: those events were
// not taken.
int64_t refused = 0;

int send_next(Destination& to);

int on_reply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto& to = *static_cast<Destination*>(userdata);
    to.inFlight = false;
    if (sd_bus_message_is_method_error(reply, nullptr))
        ++refused;
    return to.waiting.empty() ? 0 : send_next(to);
}

int send_next(Destination& to) {
    const Stamp stamp = to.waiting.front();
    to.waiting.pop_front();
    const std::string serial = line_serial(stamp.line);
    const ValueDict info{{kal_QLXSerialNumberKey, serial},
                         {kal_QLXNumberKey, int32_t{stamp.line}},
                         {kal_CallerIDContentsKey, stamp_text(stamp)},
                         {kal_EventTimeKey, static_cast<int64_t>(time(nullptr))},
                         {kal_NotificationNameKey, kal_CallerID}};
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(the_bus, &raw, to.name.c_str(), to.path.c_str(),
                                           kal_EventReceivingInterface, "InjectNotification");
    MessagePtr call(raw);
    if (r >= 0)
        r = sd_bus_message_append_basic(call.get(), 's', kal_CallerID);
    if (r >= 0)
        r = bus::append_variant(call.get(), Value(serial));
    if (r >= 0)
        r = bus::append_user_info(call.get(), info);
    if (r >= 0)
        r = sd_bus_call_async(the_bus, nullptr, call.get(), on_reply, &to, 0);
    if (r < 0) {
        fprintf(stderr, "kal-bench-floorsender: cannot send to %s\n", to.name.c_str());
        exit(1);
    }
    to.inFlight = true;
    return 0;
}

void queue(Destination& to, const Stamp& stamp) {
    to.waiting.push_back(stamp);
    if (!to.inFlight)
        send_next(to);
}

bool all_answered(const std::vector<Destination>& clients) {
    for (const auto& c : clients)
        if (c.inFlight || !c.waiting.empty())
            return false;
    return true;
}

// Handles what the bus has for us until `until` (mono_ns), or at most once
// when it has passed; sooner once every call is answered, when `or_answered`.
void pump(const std::vector<Destination>& clients, int64_t until, bool or_answered) {
    for (;;) {
        while (sd_bus_process(the_bus, nullptr) > 0) {
        }
        const int64_t left = until - mono_ns();
        if (left <= 0 || (or_answered && all_answered(clients)))
            return;
        struct pollfd p = {sd_bus_get_fd(the_bus), static_cast<short>(sd_bus_get_events(the_bus)),
                           0};
        struct timespec ts = {static_cast<time_t>(left / 1000000000),
                              static_cast<long>(left % 1000000000)};
        ::ppoll(&p, 1, &ts, nullptr);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 8 || (argc - 6) % 2 != 0) {
        fprintf(stderr,
                "usage: kal-bench-floorsender <lines> <rate> <count> <start ns> <result file> "
                "<client name> <client path>...\n");
        return 2;
    }
    const int lines = atoi(argv[1]);
    const double rate = atof(argv[2]);
    const int64_t count = atoll(argv[3]);
    const int64_t start = atoll(argv[4]);
    const std::string result = argv[5];
    std::vector<Destination> clients;
    for (int i = 6; i + 1 < argc; i += 2)
        clients.push_back({argv[i], argv[i + 1], {}, false});

    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0) {
        fprintf(stderr, "kal-bench-floorsender: cannot reach the system bus\n");
        return 1;
    }
    BusPtr bus(raw);
    the_bus = raw;
    const auto before = sample_process(getpid());
    for (int64_t j = 0; j < count * lines; ++j) {
        const Stamp due{static_cast<int>(j % lines), j / lines, 0};
        pump(clients, due_ns(start, rate, lines, due.line, due.seq), false);
        const Stamp stamp{due.line, due.seq, mono_ns()};
        for (auto& c : clients)
            queue(c, stamp);
    }
    pump(clients, mono_ns() + 30'000'000'000, true);
    const auto after = sample_process(getpid());
    std::ofstream out(result);
    if (before && after)
        out << after->cpu_ticks - before->cpu_ticks << ' ' << after->switches() - before->switches()
            << ' ' << refused << '\n';
    return all_answered(clients) ? 0 : 1;
}
