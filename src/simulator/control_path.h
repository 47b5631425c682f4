#pragma once

// Where a line-monitor simulator listens for whoever drives it: one UNIX
// stream socket per line, named after the adapter's serial,
//
//     $KAL_LINESIM_DIR/<serial>.sock     when KAL_LINESIM_DIR is set, else
//     $KAL_ROOT/run/kal-linesim/<serial>.sock
//
// Bytes of the serial outside [A-Za-z0-9._-] become '_' in the file name
// (an empty serial is "_"). Header-only, so that the test support library
// can find the sockets without linking the simulator.

#include <string>

#include "simctl/socket_name.h"

namespace kal::linesim {

inline std::string control_dir() {
    return simctl::socket_dir("KAL_LINESIM_DIR", "kal-linesim");
}

inline std::string control_socket_path(const std::string& serial) {
    return simctl::socket_path(control_dir(), serial);
}

}  // namespace kal::linesim
