#pragma once

// Text helpers for the modem's answers.

#include <cctype>
#include <string_view>

namespace v253 {

// `s` without the white space around it.
inline std::string_view trim(std::string_view s) {
    while (!s.empty() && isspace(static_cast<unsigned char>(s.front())))
        s.remove_prefix(1);
    while (!s.empty() && isspace(static_cast<unsigned char>(s.back())))
        s.remove_suffix(1);
    return s;
}

}  // namespace v253
