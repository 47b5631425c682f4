#include "simctl/text.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace kal::simctl {

std::string_view trim(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front())))
        s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back())))
        s.remove_suffix(1);
    return s;
}

std::string_view next_word(std::string_view& s) {
    s = trim(s);
    size_t end = 0;
    while (end < s.size() && !std::isspace(static_cast<unsigned char>(s[end])))
        ++end;
    std::string_view word = s.substr(0, end);
    s = trim(s.substr(end));
    return word;
}

std::string lower(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::optional<long> parse_long(std::string_view s) {
    long v = 0;
    auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || p != s.data() + s.size() || s.empty())
        return std::nullopt;
    return v;
}

std::optional<double> parse_seconds(std::string_view s) {
    std::string text(s);
    char* end = nullptr;
    double v = strtod(text.c_str(), &end);
    if (text.empty() || *end || !std::isfinite(v) || v < 0)
        return std::nullopt;
    return v;
}

std::optional<char> parse_char(std::string_view s) {
    if (s.size() == 1)
        return s[0];
    if (s.size() == 4 && (s.substr(0, 2) == "0x" || s.substr(0, 2) == "\\x")) {
        auto bytes = from_hex(s.substr(2));
        if (bytes && bytes->size() == 1)
            return (*bytes)[0];
    }
    return std::nullopt;
}

std::string char_text(char c) {
    auto u = static_cast<unsigned char>(c);
    if (u > ' ' && u < 0x7f)
        return std::string(1, c);
    char buf[8];
    snprintf(buf, sizeof buf, "\\x%02x", u);
    return buf;
}

std::string to_hex(std::string_view bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (char c : bytes) {
        auto u = static_cast<unsigned char>(c);
        out += digits[u >> 4];
        out += digits[u & 15];
    }
    return out;
}

std::optional<std::string> from_hex(std::string_view text) {
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    std::string out;
    int high = -1;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == ' ' || c == '\t' || c == ':') {
            if (high >= 0)
                return std::nullopt;
            continue;
        }
        if (high < 0 && c == '0' && i + 1 < text.size() &&
            (text[i + 1] == 'x' || text[i + 1] == 'X')) {
            ++i;
            continue;
        }
        int n = nibble(c);
        if (n < 0)
            return std::nullopt;
        if (high < 0) {
            high = n;
        } else {
            out += static_cast<char>(high << 4 | n);
            high = -1;
        }
    }
    if (high >= 0)
        return std::nullopt;
    return out;
}

}  // namespace kal::simctl
