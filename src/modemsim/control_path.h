#pragma once

// Where a modem emulator listens for whoever drives it: one UNIX stream
// socket per emulated modem, named after the name it was given (--serial),
//
//     $KAL_MODEMSIM_DIR/<serial>.sock    when KAL_MODEMSIM_DIR is set, else
//     $KAL_ROOT/run/kal-modemsim/<serial>.sock
//
// (simctl/socket_name.h spells the file name). Header-only, so that the test
// support library can find the sockets without linking the emulator.

#include <cstdlib>
#include <string>

#include "base/paths.h"
#include "simctl/socket_name.h"

namespace kal::modemsim {

inline std::string control_dir() {
    const char* dir = std::getenv("KAL_MODEMSIM_DIR");
    if (dir && *dir)
        return dir;
    return kal::kal_root() + "/run/kal-modemsim";
}

inline std::string control_socket_path(const std::string& serial) {
    return control_dir() + "/" + simctl::socket_file_name(serial);
}

}  // namespace kal::modemsim
