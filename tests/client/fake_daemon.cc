#include "fake_daemon.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <regex>
#include <stdexcept>

#include "service/bus_contract.h"
#include "service/bus_values.h"
#include "service/vocabulary.h"
#include "test_support.h"

namespace kal::test {

std::map<std::string, ContractMethod> read_contract(const std::string& interface) {
    const std::string xml =
        read_file(std::string(KAL_SOURCE_DIR) + "/data/dbus/com.orvane.devicemaster.xml");
    const auto begin = xml.find("<interface name=\"" + interface + "\">");
    if (begin == std::string::npos)
        throw std::runtime_error("no interface " + interface + " in the contract");
    const auto end = xml.find("</interface>", begin);
    const std::string body = xml.substr(begin, end - begin);

    std::map<std::string, ContractMethod> out;
    static const std::regex method(R"re(<method name="(\w+)"\s*(/>|>([\s\S]*?)</method>))re");
    static const std::regex arg(R"re(<arg name="\w+" type="([^"]+)" direction="(in|out)"/>)re");
    for (std::sregex_iterator m(body.begin(), body.end(), method), e; m != e; ++m) {
        ContractMethod& cm = out[(*m)[1]];
        const std::string args = (*m)[3];
        for (std::sregex_iterator a(args.begin(), args.end(), arg); a != e; ++a)
            ((*a)[2] == "in" ? cm.in : cm.out) += (*a)[1];
    }
    return out;
}

namespace {

int read_all(sd_bus_message* m, std::vector<Value>& out) {
    int r;
    while ((r = sd_bus_message_at_end(m, false)) == 0) {
        Value v;
        if ((r = bus::read_value(m, v)) < 0)
            return r;
        out.push_back(std::move(v));
    }
    return r;
}

// A plausible reply of signature `sig`.
int fill_default(sd_bus_message* reply, const std::string& sig) {
    if (sig.empty())
        return 0;
    if (sig == "s")
        return sd_bus_message_append(reply, "s", kal_ResponseCode_OK);
    if (sig == "i")
        return sd_bus_message_append(reply, "i", int32_t{2});
    if (sig == "as")
        return sd_bus_message_append(reply, "as", 2, "KL1001", "ZR2002");
    if (sig == "a{sv}")
        return bus::append_dict(reply, {});
    return -EINVAL;
}

}  // namespace

FakeDaemon::FakeDaemon() : contract_(read_contract(kal_ActionRequestingInterface)) {
    sd_bus* raw = nullptr;
    int r = sd_bus_open_system_with_description(&raw, "fake-daemon");
    bus_.reset(raw);
    if (r < 0)
        throw std::runtime_error("fake daemon: no bus");
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_object(raw, &slot, kal_BusObjectPath, &FakeDaemon::onCall, this) < 0)
        throw std::runtime_error("fake daemon: cannot add the object");
    object_.reset(slot);
    if (sd_bus_request_name(raw, kal_DO_Server_Name, 0) < 0)
        throw std::runtime_error("fake daemon: cannot own the name");
    wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    thread_ = std::thread([this] { loop(); });
}

FakeDaemon::~FakeDaemon() {
    post([this] { stopping_ = true; });
    thread_.join();
}

void FakeDaemon::post(std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        work_.push_back(std::move(work));
    }
    const uint64_t one = 1;
    (void)!::write(wake_.get(), &one, sizeof one);
}

void FakeDaemon::loop() {
    for (;;) {
        std::vector<std::function<void()>> work;
        {
            std::lock_guard lock(mutex_);
            work.swap(work_);
        }
        for (auto& w : work)
            w();
        {
            std::lock_guard lock(mutex_);
            if (stopping_)
                return;
        }
        int r;
        while ((r = sd_bus_process(bus_.get(), nullptr)) > 0) {
        }
        if (r < 0)
            return;
        uint64_t usec = UINT64_MAX;
        sd_bus_get_timeout(bus_.get(), &usec);
        struct pollfd fds[2] = {
            {sd_bus_get_fd(bus_.get()), static_cast<short>(sd_bus_get_events(bus_.get())), 0},
            {wake_.get(), POLLIN, 0},
        };
        int timeout_ms = -1;
        if (usec != UINT64_MAX) {
            // sd-bus gives an absolute CLOCK_MONOTONIC time.
            struct timespec ts;
            clock_gettime(CLOCK_MONOTONIC, &ts);
            const uint64_t now = static_cast<uint64_t>(ts.tv_sec) * 1000000 +
                                 static_cast<uint64_t>(ts.tv_nsec) / 1000;
            timeout_ms = usec <= now ? 0 : static_cast<int>((usec - now + 999) / 1000);
        }
        ::poll(fds, 2, timeout_ms);
        uint64_t drained;
        (void)!::read(wake_.get(), &drained, sizeof drained);
    }
}

void FakeDaemon::script(const std::string& member, Answer answer) {
    std::lock_guard lock(mutex_);
    scripts_[member] = std::move(answer);
}

std::vector<FakeDaemon::Call> FakeDaemon::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

int FakeDaemon::onCall(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<FakeDaemon*>(userdata);
    if (sd_bus_message_is_method_call(m, kal_ActionRequestingInterface, nullptr) <= 0)
        return 0;  // introspection and the like: sd-bus answers

    Call call{sd_bus_message_get_sender(m) ?: "",
              sd_bus_message_get_member(m),
              sd_bus_message_get_signature(m, true),
              {}};
    const int r = read_all(m, call.args);
    Answer answer;
    {
        std::lock_guard lock(self->mutex_);
        self->calls_.push_back(call);
        if (auto it = self->scripts_.find(call.member); it != self->scripts_.end())
            answer = it->second;
    }
    auto method = self->contract_.find(call.member);
    if (method == self->contract_.end())
        return sd_bus_reply_method_errorf(m, SD_BUS_ERROR_UNKNOWN_METHOD, "No method %s",
                                          call.member.c_str());
    if (r < 0 || call.signature != method->second.in)
        return sd_bus_reply_method_errorf(m, SD_BUS_ERROR_INVALID_ARGS, "%s takes %s, not %s",
                                          call.member.c_str(), method->second.in.c_str(),
                                          call.signature.c_str());
    if (!answer.errorName.empty())
        return sd_bus_reply_method_errorf(m, answer.errorName.c_str(), "%s",
                                          answer.errorMessage.c_str());
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_return(m, &raw) < 0)
        return -ENOMEM;
    MessagePtr reply(raw);
    const int f = answer.fill ? answer.fill(call, raw) : fill_default(raw, method->second.out);
    if (f < 0)
        return f;
    return sd_bus_send(nullptr, raw, nullptr);
}

std::future<FakeDaemon::Reply> FakeDaemon::callClient(const std::string& destination,
                                                      const std::string& path,
                                                      const std::string& member,
                                                      std::function<int(sd_bus_message*)> append) {
    auto promise = std::make_shared<std::promise<Reply>>();
    auto future = promise->get_future();
    post([this, promise, destination, path, member, append] {
        sd_bus_message* raw = nullptr;
        int r = sd_bus_message_new_method_call(bus_.get(), &raw, destination.c_str(), path.c_str(),
                                               kal_EventReceivingInterface, member.c_str());
        MessagePtr call(raw);
        if (r >= 0 && append)
            r = append(raw);
        sd_bus_slot* slot = nullptr;
        if (r >= 0)
            r = sd_bus_call_async(
                bus_.get(), &slot, raw,
                [](sd_bus_message* reply, void* userdata, sd_bus_error*) {
                    auto* p = static_cast<std::promise<Reply>*>(userdata);
                    Reply out;
                    if (const sd_bus_error* e = sd_bus_message_get_error(reply))
                        out.errorName = e->name;
                    else
                        read_all(reply, out.values);
                    p->set_value(std::move(out));
                    return 0;
                },
                promise.get(), 5'000'000);
        if (r < 0) {
            promise->set_value(Reply{"call failed", {}});
            return;
        }
        // The promise lives as long as the slot: both end with this object.
        pending_.emplace_back(slot);
        promises_.push_back(promise);
    });
    return future;
}

}  // namespace kal::test
