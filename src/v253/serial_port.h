#pragma once

// The modem's serial port: opened without becoming our controlling
// terminal, close-on-exec, non-blocking; locked with flock so that no other
// program (a getty, a second line monitor) shares it; and set raw with
// hardware flow control, since a freshly opened port is in cooked terminal
// mode and would echo, translate line ends and swallow control bytes.

#include <string>

#include "base/unique_fd.h"

namespace v253 {

struct PortResult {
    kal::unique_fd fd;
    std::string error;    // why it failed, when fd is empty
    bool in_use = false;  // another process holds the lock
};

PortResult open_modem_port(const std::string& path);

}  // namespace v253
