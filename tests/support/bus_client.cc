#include "bus_client.h"

#include <poll.h>

#include <cstdlib>
#include <stdexcept>

#include "service/bus_contract.h"
#include "service/bus_values.h"
#include "service/vocabulary.h"

namespace kal::test {

namespace {

BusReply finish(int r, BusError& error, sd_bus_message* reply) {
    BusReply out;
    out.message.reset(reply);
    if (r < 0) {
        out.errorName = error.is_set() ? error.name() : "System.Error";
        out.errorMessage = error.message();
    }
    return out;
}

}  // namespace

const sd_bus_vtable BusClient::kEventReceiving[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Ping", "", "i", onPing, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Identification", "", "s", onIdentification, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("InjectNotification", "sva{sv}", "", onInject, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

std::string BusReply::str() const {
    if (!message || sd_bus_message_rewind(message.get(), true) < 0)
        return "";
    const char* s = nullptr;
    if (sd_bus_message_read_basic(message.get(), 's', &s) <= 0)
        return "";
    return s;
}

std::vector<std::string> BusReply::strings() const {
    std::vector<std::string> out;
    if (!message || sd_bus_message_rewind(message.get(), true) < 0 ||
        sd_bus_message_enter_container(message.get(), 'a', "s") <= 0)
        return out;
    const char* s = nullptr;
    while (sd_bus_message_read_basic(message.get(), 's', &s) > 0)
        out.emplace_back(s);
    return out;
}

BusClient::BusClient(std::string path) : path_(std::move(path)) {
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (!address)
        throw std::runtime_error("DBUS_SYSTEM_BUS_ADDRESS is not set: start a PrivateBus first");
    sd_bus* raw = nullptr;
    if (sd_bus_new(&raw) < 0)
        throw std::runtime_error("sd_bus_new failed");
    bus_.reset(raw);
    const char* name = nullptr;
    if (sd_bus_set_address(raw, address) < 0 || sd_bus_set_bus_client(raw, 1) < 0 ||
        sd_bus_start(raw) < 0 || sd_bus_get_unique_name(raw, &name) < 0)
        throw std::runtime_error("couldn't connect to the private bus");
    unique_name_ = name;

    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_object_vtable(raw, &slot, path_.c_str(), kal_EventReceivingInterface,
                                 kEventReceiving, this) < 0)
        throw std::runtime_error("couldn't export the receiving object");
    object_.reset(slot);
}

BusClient::~BusClient() {
    close();
}

void BusClient::close() {
    object_.reset();
    bus_.reset();
}

BusReply BusClient::callWith(const char* member,
                             const std::function<int(sd_bus_message*)>& append) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus_.get(), &raw, kal_DO_Server_Name, kal_BusObjectPath,
                                           kal_ActionRequestingInterface, member);
    MessagePtr call(raw);
    BusError error;
    sd_bus_message* reply = nullptr;
    if (r >= 0)
        r = append(call.get());
    if (r >= 0)
        r = sd_bus_call(bus_.get(), call.get(), 0, error.get(), &reply);
    return finish(r, error, reply);
}

BusReply BusClient::callMethod(const char* destination, const char* path, const char* interface,
                               const char* member) {
    BusError error;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call_method(bus_.get(), destination, path, interface, member, error.get(),
                               &reply, nullptr);
    return finish(r, error, reply);
}

BusReply BusClient::registerApp(const std::string& version, bool secondary) {
    return call("RegisterApplication", "sssobs", "TestApp", "Example", "credential", path_.c_str(),
                secondary ? 1 : 0, version.c_str());
}

BusReply BusClient::subscribe(const std::string& name) {
    return call("Subscribe", "os", path_.c_str(), name.c_str());
}

std::vector<std::string> BusClient::receivedNames() const {
    std::vector<std::string> names;
    for (const auto& n : received_)
        names.push_back(n.name);
    return names;
}

void BusClient::process() {
    if (!bus_)
        return;
    while (sd_bus_process(bus_.get(), nullptr) > 0) {
    }
}

int BusClient::onPing(sd_bus_message* m, void* userdata, sd_bus_error*) {
    ++static_cast<BusClient*>(userdata)->pings_;
    return sd_bus_reply_method_return(m, "i", 1);
}

int BusClient::onIdentification(sd_bus_message* m, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(m, "s", "TestApp");
}

int BusClient::onInject(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    ReceivedNotification n;
    n.arrived = std::chrono::steady_clock::now();
    auto* self = static_cast<BusClient*>(userdata);
    const char* name = nullptr;
    int r = sd_bus_message_read_basic(m, 's', &name);
    if (r >= 0)
        r = bus::read_variant(m, n.object);
    if (r >= 0)
        r = bus::read_dict(m, n.userInfo);
    if (r < 0)
        return r;
    n.name = name;
    self->received_.push_back(std::move(n));
    if (!self->inject_error_.empty())
        return sd_bus_error_set(error, self->inject_error_.c_str(), "Refused by the test client");
    return sd_bus_reply_method_return(m, nullptr);
}

bool pump_until(std::initializer_list<BusClient*> clients, const std::function<bool()>& cond,
                std::chrono::milliseconds deadline) {
    return pump_until(std::vector<BusClient*>(clients), cond, deadline);
}

bool pump_until(const std::vector<BusClient*>& clients, const std::function<bool()>& cond,
                std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        for (BusClient* c : clients)
            c->process();
        if (cond())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        // Wait for traffic; the short timeout also catches conditions that
        // change on the server's side without a message to us.
        std::vector<pollfd> fds;
        for (BusClient* c : clients)
            if (c->bus())
                fds.push_back({sd_bus_get_fd(c->bus()), POLLIN, 0});
        ::poll(fds.data(), fds.size(), 10);
    }
}

}  // namespace kal::test
