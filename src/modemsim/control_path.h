#pragma once

// Where a modem emulator listens for whoever drives it: one UNIX stream
// socket per emulated modem, named after the name it was given (--serial),
//
//     $KAL_MODEMSIM_DIR/<serial>.sock    when KAL_MODEMSIM_DIR is set, else
//     $KAL_ROOT/run/kal-modemsim/<serial>.sock
//
// (simctl/socket_name.h spells the file name). Header-only, so that the test
// support library can find the sockets without linking the emulator.

#include <string>

#include "simctl/socket_name.h"

namespace kal::modemsim {

inline std::string control_dir() {
    return simctl::socket_dir("KAL_MODEMSIM_DIR", "kal-modemsim");
}

inline std::string control_socket_path(const std::string& serial) {
    return simctl::socket_path(control_dir(), serial);
}

}  // namespace kal::modemsim
