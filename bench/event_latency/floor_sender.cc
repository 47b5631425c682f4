// kal-bench-floorsender: the floor the daemon is measured against. A bare
// sd-bus sender that puts on the bus, to the same clients, the call the
// daemon makes for each caller-ID event (InjectNotification with the same
// name, object and user-info), on the schedule the line monitors follow, and
// stamps each event where a line monitor would: before anything is done
// with it.
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

struct Destination {
    std::string name, path;
};

int64_t pending = 0;
// Calls the bus or the client refused (the bus's limit on replies in flight
// when clients fall far behind, say): their events never arrive.
int64_t refused = 0;

int on_reply(sd_bus_message* reply, void*, sd_bus_error*) {
    --pending;
    if (sd_bus_message_is_method_error(reply, nullptr))
        ++refused;
    return 0;
}

// Handles what the bus has for us until `until` (mono_ns), or at most once
// when it has passed.
void pump(sd_bus* bus, int64_t until) {
    for (;;) {
        while (sd_bus_process(bus, nullptr) > 0) {
        }
        const int64_t left = until - mono_ns();
        if (left <= 0)
            return;
        struct pollfd p = {sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0};
        struct timespec ts = {static_cast<time_t>(left / 1000000000),
                              static_cast<long>(left % 1000000000)};
        ::ppoll(&p, 1, &ts, nullptr);
    }
}

int send_event(sd_bus* bus, const Destination& to, const Stamp& stamp) {
    const std::string serial = line_serial(stamp.line);
    const ValueDict info{{kal_QLXSerialNumberKey, serial},
                         {kal_QLXNumberKey, int32_t{stamp.line}},
                         {kal_CallerIDContentsKey, stamp_text(stamp)},
                         {kal_EventTimeKey, static_cast<int64_t>(time(nullptr))},
                         {kal_NotificationNameKey, kal_CallerID}};
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, to.name.c_str(), to.path.c_str(),
                                           kal_EventReceivingInterface, "InjectNotification");
    MessagePtr call(raw);
    if (r >= 0)
        r = sd_bus_message_append_basic(call.get(), 's', kal_CallerID);
    if (r >= 0)
        r = bus::append_variant(call.get(), Value(serial));
    if (r >= 0)
        r = bus::append_user_info(call.get(), info);
    if (r >= 0)
        r = sd_bus_call_async(bus, nullptr, call.get(), on_reply, nullptr, 0);
    if (r >= 0)
        ++pending;
    return r;
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
        clients.push_back({argv[i], argv[i + 1]});

    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0) {
        fprintf(stderr, "kal-bench-floorsender: cannot reach the system bus\n");
        return 1;
    }
    BusPtr bus(raw);
    const auto before = sample_process(getpid());
    for (int64_t j = 0; j < count * lines; ++j) {
        const Stamp due{static_cast<int>(j % lines), j / lines, 0};
        pump(bus.get(), due_ns(start, rate, lines, due.line, due.seq));
        const Stamp stamp{due.line, due.seq, mono_ns()};
        for (const auto& c : clients)
            if (send_event(bus.get(), c, stamp) < 0) {
                fprintf(stderr, "kal-bench-floorsender: cannot send to %s\n", c.name.c_str());
                return 1;
            }
    }
    const int64_t give_up = mono_ns() + 30'000'000'000;
    while (pending > 0 && mono_ns() < give_up)
        pump(bus.get(), std::min(give_up, mono_ns() + 100'000'000));
    const auto after = sample_process(getpid());
    std::ofstream out(result);
    if (before && after)
        out << after->cpu_ticks - before->cpu_ticks << ' ' << after->switches() - before->switches()
            << ' ' << refused << '\n';
    return pending == 0 ? 0 : 1;
}
