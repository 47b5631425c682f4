#pragma once

// Where a simulator's control sockets are: one per line, in
//
//     $<ENV> when that is set and not empty, else $KAL_ROOT/run/<program>,
//
// named after the serial of the line it stands for: bytes outside
// [A-Za-z0-9._-] become '_' (an empty serial is "_"), then ".sock".
// Header-only, so that the test support library can find the sockets without
// linking a simulator.

#include <cstdlib>
#include <string>

#include "base/paths.h"

namespace kal::simctl {

inline std::string socket_dir(const char* env, const char* program) {
    const char* dir = std::getenv(env);
    if (dir && *dir)
        return dir;
    return kal::kal_root() + "/run/" + program;
}

inline std::string socket_file_name(const std::string& serial) {
    std::string name = serial.empty() ? "_" : serial;
    for (char& c : name) {
        bool keep = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '_' || c == '-';
        if (!keep)
            c = '_';
    }
    return name + ".sock";
}

inline std::string socket_path(const std::string& dir, const std::string& serial) {
    return dir + "/" + socket_file_name(serial);
}

}  // namespace kal::simctl
