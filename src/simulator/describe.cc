#include "simulator/describe.h"

#include <cstdio>
#include <cstring>

#include "lineio/protocol.h"

namespace kal::linesim {

namespace {

bool bare_ok(std::string_view v) {
    if (v.empty())
        return false;
    for (char c : v) {
        auto u = static_cast<unsigned char>(c);
        if (u <= ' ' || u >= 0x7f || c == '"' || c == '\\' || c == '=')
            return false;
    }
    return true;
}

std::string hex_int(int32_t v) {
    char buf[16];
    snprintf(buf, sizeof buf, "0x%x", static_cast<unsigned>(v));
    return buf;
}

// The NUL-terminated text at `offset`, bounded by the payload.
std::string text_at(const char* data, size_t len, size_t offset) {
    if (offset >= len)
        return "";
    const char* p = data + offset;
    return std::string(p, strnlen(p, len - offset));
}

std::string audio_request_text(const lm::lm_audio_request& r, bool record) {
    std::string s = "path=" + quote(r.path) + " stop=" + quote(r.stopString) +
                    " token=" + quote(r.token) + " flags=" + hex_int(r.flags) +
                    " length=" + std::to_string(r.length);
    if (record)
        s += " dial=" + quote(r.firstDialing);
    else
        s += " pause=" + std::to_string(r.postPlayPause);
    return s;
}

}  // namespace

std::string quote(std::string_view value) {
    if (bare_ok(value))
        return std::string(value);
    std::string out = "\"";
    for (char c : value) {
        auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (u < ' ' || u >= 0x7f) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", u);
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string describe_command(const char* data, size_t len) {
    if (len == 0)
        return "(empty)";
    const std::string head = char_text(data[0]);
    const std::string_view raw(data, len);
    size_t want = lm::command_length(data, len);
    if (want == 0)
        return head + " unknown length=" + std::to_string(len) + " hex=" + to_hex(raw);
    if (want != len)
        return head + " malformed length=" + std::to_string(len) +
               " expected=" + std::to_string(want) + " hex=" + to_hex(raw);
    switch (data[0]) {
        case lm::kCmdDial:
            return head + " digits=" + quote(text_at(data, len, 1));
        case lm::kCmdCall: {
            auto r = lm::parse_call_request(data + 1, len - 1);
            return head + " token=" + quote(r.token) + " number=" + quote(r.number);
        }
        case lm::kCmdPlay:
        case lm::kCmdRecord:
            return head + " " +
                   audio_request_text(lm::parse_audio_request(data + 1, len - 1),
                                      data[0] == lm::kCmdRecord);
        case lm::kCmdDeadman:
            return head + " seconds=" + std::to_string(lm::get_i32(data, len, 1));
        case lm::kCmdBeep:
            return head + " type=" + std::to_string(lm::get_i32(data, len, 1));
        case lm::kCmdTRV:
            return head + " vls=" + std::to_string(lm::get_i32(data, len, 1)) +
                   " text=" + quote(text_at(data, len, 5));
        default:  // H, X: nothing after the zero byte
            return head;
    }
}

std::string describe_event(std::string_view payload) {
    if (payload.empty())
        return "(empty)";
    const char c = payload[0];
    const std::string head = char_text(c);
    if (c == lm::kEvtAudio && payload.size() == lm::lm_audio_response::kSize) {
        auto r = lm::parse_audio_response(payload.data(), payload.size());
        return head + " token=" + quote(r.token) + " status=" + std::to_string(r.status) + " (" +
               audio_status_name(r.status) + ")" +
               " stop=" + (r.stopChar ? char_text(r.stopChar) : std::string()) +
               " extra=" + std::to_string(r.extra);
    }
    if (payload.size() == 1)
        return head;
    if (c == lm::kEvtDigit && payload.size() == 2)
        return head + " digit=" + char_text(payload[1]);
    std::string_view rest = payload.substr(1);
    if (!rest.empty() && rest.back() == '\0' && rest.find('\0') == rest.size() - 1)
        return head + " text=" + quote(rest.substr(0, rest.size() - 1));
    return head + " payload=" + quote(rest);
}

const char* audio_status_name(int status) {
    switch (status) {
        case lm::kAudioInvalidFile:
            return "invalid-file";
        case lm::kAudioBusy:
            return "busy";
        case lm::kAudioComplete:
            return "complete";
        case lm::kAudioStopped:
            return "stopped";
        case lm::kAudioOnHook:
            return "on-hook";
        default:
            return "unknown";
    }
}

}  // namespace kal::linesim
