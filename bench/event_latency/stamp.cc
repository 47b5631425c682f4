#include "stamp.h"

#include <time.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace kal::bench {

namespace {

constexpr std::string_view kTag = "kalbench";

// Reads one unsigned decimal number followed by `end` (or the end of the
// text when `end` is 0) and moves `text` past both.
template <typename T>
bool take_number(std::string_view& text, T& out, char end) {
    const char* last = text.data() + text.size();
    auto [next, ec] = std::from_chars(text.data(), last, out);
    if (ec != std::errc() || next == text.data() || out < 0)
        return false;
    if (end == 0) {
        text = {};
        return next == last;
    }
    if (next == last || *next != end)
        return false;
    text.remove_prefix(static_cast<size_t>(next - text.data()) + 1);
    return true;
}

}  // namespace

int64_t mono_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

void sleep_until_ns(int64_t when) {
    struct timespec ts;
    ts.tv_sec = when / 1000000000;
    ts.tv_nsec = when % 1000000000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

std::string stamp_text(const Stamp& s) {
    return std::string(kTag) + ' ' + std::to_string(s.line) + ' ' + std::to_string(s.seq) + ' ' +
           std::to_string(s.ns);
}

std::optional<Stamp> parse_stamp(std::string_view text) {
    if (text.substr(0, kTag.size() + 1) != std::string(kTag) + ' ')
        return std::nullopt;
    text.remove_prefix(kTag.size() + 1);
    Stamp s;
    if (!take_number(text, s.line, ' ') || !take_number(text, s.seq, ' ') ||
        !take_number(text, s.ns, 0))
        return std::nullopt;
    return s;
}

std::string line_serial(int line) {
    char text[32];
    snprintf(text, sizeof text, "BENCH%02d", line);
    return text;
}

int64_t due_ns(int64_t start_ns, double rate, int lines, int line, int64_t seq) {
    const double j = static_cast<double>(seq) * lines + line;
    return start_ns + static_cast<int64_t>(std::llround(j * 1e9 / rate));
}

}  // namespace kal::bench
