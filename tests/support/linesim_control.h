#pragma once

// Driving the line-monitor simulator (kal-linesim) from a test: install it
// as both line-monitor programs in the test's KAL_ROOT, then talk to the
// simulator of each line through its control socket.
//
//     TempRoot root;
//     install_linesim();                      // KALLineMonitor, ZRXLineMonitor
//     ... start the daemon with KAL_LINESIM_SPEED=100 in its environment ...
//     LineSimControl line("SERIAL1");         // waits for the socket
//     EXPECT_EQ(line.send("ring"), "ok sent R");
//     EXPECT_THAT(line.send("wait-command P"), StartsWith("ok P path="));
//
// The command vocabulary is in src/simulator/control.h; `help` lists it.

#include <chrono>
#include <string>

#include "base/unique_fd.h"

namespace kal::test {

// Symlinks bin/kal-linesim as the type-1 and type-2 line-monitor programs
// of the current KAL_ROOT (creating the resources directory).
void install_linesim();
// The same for any program that speaks the line-monitor protocol.
void install_linemonitor(const std::string& program);
// Copies the recording beep the build generated (resources/tone450.raw) to
// tone450_path() of the current KAL_ROOT (creating the resources directory).
void install_tone450();

// The control socket of the simulator for `serial` in the current KAL_ROOT.
std::string linesim_socket(const std::string& serial);

// One connection to one simulator. Thread-aware, not thread-safe.
class LineSimControl {
  public:
    // Connects to the simulator of `serial` (or to a socket path, when the
    // text starts with "/" or "./"), retrying until it listens or
    // `deadline` passes.
    explicit LineSimControl(const std::string& serial,
                            std::chrono::milliseconds deadline = std::chrono::seconds(20));

    bool connected() const { return static_cast<bool>(fd_); }
    // One command, its whole reply: lines joined by '\n', no final newline.
    // A reply of "error connection: ..." when the simulator cannot be
    // reached or went away before answering.
    std::string send(const std::string& command);
    // The two halves of send(), for a command that blocks (wait-command)
    // while the test makes it come true.
    void request(const std::string& command);
    std::string reply(std::chrono::milliseconds deadline = std::chrono::seconds(60));

  private:
    std::string read_line(std::chrono::steady_clock::time_point until);

    kal::unique_fd fd_;
    std::string error_;
    std::string buf_;
};

}  // namespace kal::test
