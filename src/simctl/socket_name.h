#pragma once

// The file name of a simulator's control socket, from the serial of the
// line it stands for: bytes outside [A-Za-z0-9._-] become '_' (an empty
// serial is "_"), then ".sock". Header-only, so that the test support
// library can find the sockets without linking a simulator.

#include <string>

namespace kal::simctl {

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

}  // namespace kal::simctl
