#include "fake_logind.h"

#include <cstdlib>
#include <stdexcept>

namespace kal::test {

namespace {

constexpr const char kLogind[] = "org.freedesktop.login1";
constexpr const char kLogindPath[] = "/org/freedesktop/login1";

BusPtr connect_private_bus() {
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (!address)
        throw std::runtime_error("DBUS_SYSTEM_BUS_ADDRESS is not set: start a PrivateBus first");
    sd_bus* raw = nullptr;
    if (sd_bus_new(&raw) < 0)
        throw std::runtime_error("sd_bus_new failed");
    BusPtr bus(raw);
    if (sd_bus_set_address(raw, address) < 0 || sd_bus_set_bus_client(raw, 1) < 0 ||
        sd_bus_start(raw) < 0)
        throw std::runtime_error("couldn't connect to the private bus");
    return bus;
}

void check(int r, BusError& error, const char* what) {
    if (r < 0)
        throw std::runtime_error(std::string(what) + ": " + error.name() + " " + error.message());
}

}  // namespace

bool wait_for_bus_name(const std::string& name, std::chrono::milliseconds deadline) {
    BusPtr bus = connect_private_bus();
    return wait_for(
        [&] {
            BusError error;
            sd_bus_message* raw = nullptr;
            const int r = sd_bus_call_method(bus.get(), "org.freedesktop.DBus",
                                             "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                             "NameHasOwner", error.get(), &raw, "s", name.c_str());
            MessagePtr reply(raw);
            int owned = 0;
            return r >= 0 && sd_bus_message_read(reply.get(), "b", &owned) > 0 && owned;
        },
        deadline);
}

FakeLogind::FakeLogind(const std::string& dir) {
    // Debian's interpreter, which has the dbusmock module; DBUS_SYSTEM_BUS_ADDRESS
    // comes with the environment.
    mock_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"/usr/bin/python3", "-m", "dbusmock", "--system", "--template",
                                 "logind", "--logfile", dir + "/dbusmock-logind.log"},
        std::vector<std::string>{}, dir + "/dbusmock-logind.stderr");
    if (!wait_for_bus_name(kLogind))
        throw std::runtime_error("the fake logind never took its name: " +
                                 read_file(dir + "/dbusmock-logind.stderr"));
    bus_ = connect_private_bus();
}

FakeLogind::~FakeLogind() = default;

std::vector<FakeLogind::Inhibitor> FakeLogind::inhibitors() {
    BusError error;
    sd_bus_message* raw = nullptr;
    const int r =
        sd_bus_call_method(bus_.get(), kLogind, kLogindPath, "org.freedesktop.login1.Manager",
                           "ListInhibitors", error.get(), &raw, "");
    MessagePtr reply(raw);
    check(r, error, "ListInhibitors");
    std::vector<Inhibitor> out;
    if (sd_bus_message_enter_container(reply.get(), 'a', "(ssssuu)") < 0)
        throw std::runtime_error("ListInhibitors: unexpected reply");
    const char *what, *who, *why, *mode;
    uint32_t uid, pid;
    while (sd_bus_message_read(reply.get(), "(ssssuu)", &what, &who, &why, &mode, &uid, &pid) > 0)
        out.push_back({what, who, why, mode});
    return out;
}

void FakeLogind::prepareForSleep(bool start) {
    BusError error;
    const int r = sd_bus_call_method(bus_.get(), kLogind, kLogindPath, "org.freedesktop.DBus.Mock",
                                     "EmitSignal", error.get(), nullptr, "sssav",
                                     "org.freedesktop.login1.Manager", "PrepareForSleep", "b", 1,
                                     "b", static_cast<int>(start));
    check(r, error, "EmitSignal PrepareForSleep");
}

}  // namespace kal::test
