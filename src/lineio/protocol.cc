#include "lineio/protocol.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace lm {

namespace {

// Copies `text` into the field at `offset`, at most width - 1 bytes, so the
// last byte of the field is always the terminator. The text ends at its
// first NUL, as the line monitor reads it as a C string anyway.
void put_text(std::string& buf, size_t offset, size_t width, const std::string& text) {
    const size_t n = std::min(strnlen(text.data(), text.size()), width - 1);
    memcpy(buf.data() + offset, text.data(), n);
    // The rest of the field is already zero: every record starts zero-filled.
}

// Reads a text field: up to the first NUL, never past the field's last
// byte but one (the terminator's place), never past `len`.
std::string get_text(const char* data, size_t len, size_t offset, size_t width) {
    if (data == nullptr || offset >= len)
        return {};
    const size_t avail = std::min(len - offset, width - 1);
    return std::string(data + offset, strnlen(data + offset, avail));
}

char get_char(const char* data, size_t len, size_t offset) {
    return data != nullptr && offset < len ? data[offset] : '\0';
}

std::string command(char c, const std::string& record) {
    std::string payload(1, c);
    payload += record;
    return payload;
}

std::string int_command(char c, int32_t value) {
    std::string payload(5, '\0');
    payload[0] = c;
    put_i32(payload, 1, value);
    return payload;
}

}  // namespace

int32_t get_i32(const char* data, size_t len, size_t offset) {
    // Missing bytes read as zero: a short payload from a line monitor must
    // not make us read past what arrived.
    unsigned char bytes[sizeof(int32_t)] = {};
    if (data != nullptr && offset < len)
        memcpy(bytes, data + offset, std::min(sizeof bytes, len - offset));
    int32_t value;
    memcpy(&value, bytes, sizeof value);
    return value;
}

void put_i32(std::string& buf, size_t offset, int32_t value) {
    if (buf.size() < offset + sizeof value)
        buf.resize(offset + sizeof value, '\0');
    memcpy(buf.data() + offset, &value, sizeof value);
}

std::string build_audio_response(const lm_audio_response& r) {
    std::string buf(lm_audio_response::kSize, '\0');
    buf[lm_audio_response::kTypeOffset] = r.type;
    put_text(buf, lm_audio_response::kTokenOffset, lm_audio_response::kTokenWidth, r.token);
    put_i32(buf, lm_audio_response::kStatusOffset, r.status);
    buf[lm_audio_response::kStopCharOffset] = r.stopChar;
    put_i32(buf, lm_audio_response::kExtraOffset, r.extra);
    return buf;
}

lm_audio_response parse_audio_response(const char* data, size_t len) {
    lm_audio_response r;
    r.type = get_char(data, len, lm_audio_response::kTypeOffset);
    r.token = get_text(data, len, lm_audio_response::kTokenOffset, lm_audio_response::kTokenWidth);
    r.status = get_i32(data, len, lm_audio_response::kStatusOffset);
    r.stopChar = get_char(data, len, lm_audio_response::kStopCharOffset);
    r.extra = get_i32(data, len, lm_audio_response::kExtraOffset);
    return r;
}

std::string build_audio_request(const lm_audio_request& r) {
    using R = lm_audio_request;
    std::string buf(R::kSize, '\0');
    put_text(buf, R::kPathOffset, R::kPathWidth, r.path);
    put_text(buf, R::kStopStringOffset, R::kStopStringWidth, r.stopString);
    put_text(buf, R::kTokenOffset, R::kTokenWidth, r.token);
    put_text(buf, R::kFirstDialingOffset, R::kFirstDialingWidth, r.firstDialing);
    put_i32(buf, R::kFlagsOffset, r.flags);
    put_i32(buf, R::kLengthOffset, r.length);
    put_i32(buf, R::kPostPlayPauseOffset, r.postPlayPause);
    return buf;
}

lm_audio_request parse_audio_request(const char* data, size_t len) {
    using R = lm_audio_request;
    lm_audio_request r;
    r.path = get_text(data, len, R::kPathOffset, R::kPathWidth);
    r.stopString = get_text(data, len, R::kStopStringOffset, R::kStopStringWidth);
    r.token = get_text(data, len, R::kTokenOffset, R::kTokenWidth);
    r.firstDialing = get_text(data, len, R::kFirstDialingOffset, R::kFirstDialingWidth);
    r.flags = get_i32(data, len, R::kFlagsOffset);
    r.length = get_i32(data, len, R::kLengthOffset);
    r.postPlayPause = get_i32(data, len, R::kPostPlayPauseOffset);
    return r;
}

std::string build_call_request(const lm_call_request& r) {
    using R = lm_call_request;
    std::string buf(R::kSize, '\0');
    put_text(buf, R::kTokenOffset, R::kTokenWidth, r.token);
    put_text(buf, R::kNumberOffset, R::kNumberWidth, r.number);
    return buf;
}

lm_call_request parse_call_request(const char* data, size_t len) {
    using R = lm_call_request;
    lm_call_request r;
    r.token = get_text(data, len, R::kTokenOffset, R::kTokenWidth);
    r.number = get_text(data, len, R::kNumberOffset, R::kNumberWidth);
    return r;
}

std::string build_orders(const lm_orders& o) {
    std::string buf(lm_orders::kSize, '\0');
    put_text(buf, lm_orders::kLineOffset, lm_orders::kFieldWidth, o.line);
    put_text(buf, lm_orders::kSerialOffset, lm_orders::kFieldWidth, o.serial);
    put_text(buf, lm_orders::kExtraOffset, lm_orders::kFieldWidth, o.extra);
    return buf;
}

lm_orders parse_orders(const char* data, size_t len) {
    lm_orders o;
    o.line = get_text(data, len, lm_orders::kLineOffset, lm_orders::kFieldWidth);
    o.serial = get_text(data, len, lm_orders::kSerialOffset, lm_orders::kFieldWidth);
    o.extra = get_text(data, len, lm_orders::kExtraOffset, lm_orders::kFieldWidth);
    return o;
}

std::string cmd_dial(const std::string& digits) {
    // The dial string travels as a C string: it ends at its first NUL.
    std::string payload(1, kCmdDial);
    payload.append(digits.data(), strnlen(digits.data(), digits.size()));
    payload.push_back('\0');
    return payload;
}

std::string cmd_call(const lm_call_request& r) {
    return command(kCmdCall, build_call_request(r));
}

std::string cmd_play(const lm_audio_request& r) {
    return command(kCmdPlay, build_audio_request(r));
}

std::string cmd_record(const lm_audio_request& r) {
    return command(kCmdRecord, build_audio_request(r));
}

std::string cmd_hangup() {
    return std::string{kCmdHangup, '\0'};
}

std::string cmd_cancel_audio() {
    return std::string{kCmdCancelAudio, '\0'};
}

std::string cmd_deadman(int32_t seconds) {
    return int_command(kCmdDeadman, seconds);
}

std::string cmd_beep(int32_t type) {
    return int_command(kCmdBeep, type);
}

std::string cmd_trv(int32_t vls, const std::string& text) {
    std::string payload = int_command(kCmdTRV, vls);
    payload.append(text.data(), strnlen(text.data(), text.size()));
    payload.push_back('\0');
    return payload;
}

int32_t play_length_seconds(long long file_bytes) {
    if (file_bytes <= 0)
        return 0;
    // Whole seconds, rounded up: a line monitor told too short a length
    // would cut the end of the file.
    const long long seconds =
        file_bytes / kAudioBytesPerSecond + (file_bytes % kAudioBytesPerSecond != 0);
    return seconds > INT32_MAX ? INT32_MAX : static_cast<int32_t>(seconds);
}

size_t command_length(const char* data, size_t len) {
    if (data == nullptr || len == 0)
        return 0;
    auto text_size = [&](size_t offset) {
        return offset < len ? strnlen(data + offset, len - offset) : 0;
    };
    switch (data[0]) {
        case kCmdDial:
            return text_size(1) + 2;
        case kCmdTRV:
            return len < 5 ? 6 : text_size(5) + 6;
        case kCmdCall:
            return 1 + lm_call_request::kSize;
        case kCmdPlay:
        case kCmdRecord:
            return 1 + lm_audio_request::kSize;
        case kCmdHangup:
        case kCmdCancelAudio:
            return 2;
        case kCmdDeadman:
        case kCmdBeep:
            return 5;
        default:
            return 0;
    }
}

bool command_well_formed(const char* data, size_t len) {
    const size_t want = command_length(data, len);
    return want != 0 && want == len;
}

}  // namespace lm
