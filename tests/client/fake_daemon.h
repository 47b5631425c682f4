#pragma once

// A stand-in for kaldevicemaster on the private bus, for testing the client
// library without the daemon. It owns the daemon's name and answers every
// method of com.orvane.KALActionRequesting as the contract file
// (data/dbus/com.orvane.devicemaster.xml) declares it: a call whose
// signature differs from the contract's is answered with InvalidArgs, any
// other with a reply of the contract's out-signature, unless the test has
// scripted an answer. It can also call a client's delegate, as the daemon does.
//
// It runs on a thread of its own, because the client's calls block until
// answered; everything the test reads is guarded by `mutex_`.

#include <systemd/sd-bus.h>

#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "base/value.h"
#include "service/sd_bus_handles.h"

namespace kal::test {

// One method of the contract: its in and out signatures.
struct ContractMethod {
    std::string in;
    std::string out;
};
// The methods of one interface of the contract file, by name.
std::map<std::string, ContractMethod> read_contract(const std::string& interface);

class FakeDaemon {
  public:
    // One call the fake received.
    struct Call {
        std::string sender;  // the caller's unique name
        std::string member;
        std::string signature;
        std::vector<Value> args;  // every argument, read generically
    };
    // How to answer a call: `fill` appends the reply's values, or
    // `errorName` and `errorMessage` make it an error.
    struct Answer {
        std::function<int(const Call& call, sd_bus_message* reply)> fill;
        std::string errorName;
        std::string errorMessage;

        static Answer replying(std::function<int(const Call&, sd_bus_message*)> fill) {
            return Answer{std::move(fill), "", ""};
        }
        static Answer failing(std::string name, std::string message) {
            return Answer{nullptr, std::move(name), std::move(message)};
        }
    };
    // The outcome of one call to a client.
    struct Reply {
        std::string errorName;  // "" on success
        std::vector<Value> values;
    };

    // Connects to DBUS_SYSTEM_BUS_ADDRESS and owns the daemon's name.
    FakeDaemon();
    ~FakeDaemon();
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    // Every call of `member` is answered so from now on.
    void script(const std::string& member, Answer answer);
    std::vector<Call> calls() const;

    // Calls method `member` of com.orvane.KALEventReceiving at `path` on the
    // connection `destination`, with arguments appended by `append`.
    std::future<Reply> callClient(const std::string& destination, const std::string& path,
                                  const std::string& member,
                                  std::function<int(sd_bus_message*)> append = {});

  private:
    void loop();
    void post(std::function<void()> work);
    static int onCall(sd_bus_message* m, void* userdata, sd_bus_error* error);

    std::map<std::string, ContractMethod> contract_;
    BusPtr bus_;
    SlotPtr object_;
    unique_fd wake_;

    mutable std::mutex mutex_;
    std::vector<Call> calls_;                  // guarded by mutex_
    std::map<std::string, Answer> scripts_;    // guarded by mutex_
    std::vector<std::function<void()>> work_;  // guarded by mutex_
    bool stopping_ = false;                    // guarded by mutex_

    // Calls to clients in flight and the promises their replies keep; the
    // fake's thread only.
    std::vector<SlotPtr> pending_;
    std::vector<std::shared_ptr<std::promise<Reply>>> promises_;
    std::thread thread_;
};

}  // namespace kal::test
