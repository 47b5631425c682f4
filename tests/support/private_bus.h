#pragma once

// A private system bus for one test: a dbus-daemon of its own, on a socket
// inside the build tree, exported as DBUS_SYSTEM_BUS_ADDRESS while it lives.
// It is configured by data/dbus/test-bus.conf.in, which applies the
// installed policy (data/dbus/com.orvane.devicemaster.conf) and lets the
// test's user act as the daemon and as its clients, so tests run under the
// rules the installed daemon gets; without that file it allows everything.

#include <sys/types.h>

#include <string>

namespace kal::test {

class PrivateBus {
  public:
    // Starts the bus and waits until it listens; throws std::runtime_error
    // when it cannot.
    PrivateBus();
    // Stops the bus and removes its directory.
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // Stops the bus now, as a crash or restart of the system bus would:
    // every connection to it ends.
    void stop();

    // "unix:path=...,guid=..." as the bus printed it.
    const std::string& address() const { return address_; }
    // Scratch directory: the socket, the configuration, the bus's own stderr.
    const std::string& dir() const { return dir_; }

  private:
    std::string dir_;
    std::string address_;
    pid_t pid_ = -1;
};

}  // namespace kal::test
