#pragma once

// Everything that crosses the socket between the daemon and a line monitor:
// framing is in safe_io.h; this unit is the records, built and parsed at
// explicit byte offsets. Integers are 32-bit in host byte order, packed
// without alignment. Text fields are NUL-terminated within their width;
// longer text is cut to width - 1 bytes.
//
// Payloads are held in std::string as raw bytes.

#include <cstddef>
#include <cstdint>
#include <string>

namespace lm {

// Size of the zero-filled buffer the daemon reads each event message into.
inline constexpr size_t kEventBufferSize = 4096;

// Events, byte 0 of a message from a line monitor.
inline constexpr char kEvtDigit = '#';       // byte 1: the digit
inline constexpr char kEvtCallPlaced = '/';  // reply to a `C` command
inline constexpr char kEvtOffHook = 'P';
inline constexpr char kEvtOnHook = 'p';
inline constexpr char kEvtRing = 'R';
inline constexpr char kEvtSignal = 'S';
inline constexpr char kEvtCallerId = 'X';  // bytes 1..: caller-ID text
inline constexpr char kEvtAudio = '^';     // an lm_audio_response record
inline constexpr char kEvtBusy = 'b';
inline constexpr char kEvtFax = 'c';
inline constexpr char kEvtDialTone = 'd';
inline constexpr char kEvtData = 'e';
inline constexpr char kEvtReversal = 'l';
inline constexpr char kEvtFlowOn = 'o';
inline constexpr char kEvtFlowOff = 'u';
inline constexpr char kEvtSilence = 's';

// Commands, byte 0 of a message to a line monitor.
inline constexpr char kCmdDial = 'D';
inline constexpr char kCmdCall = 'C';
inline constexpr char kCmdPlay = 'P';
inline constexpr char kCmdRecord = 'R';
inline constexpr char kCmdHangup = 'H';
inline constexpr char kCmdCancelAudio = 'X';
inline constexpr char kCmdDeadman = '>';
inline constexpr char kCmdBeep = '!';
inline constexpr char kCmdTRV = 'V';

// Audio-response status values.
inline constexpr int32_t kAudioInvalidFile = 1;
inline constexpr int32_t kAudioBusy = 2;
inline constexpr int32_t kAudioComplete = 3;
inline constexpr int32_t kAudioStopped = 4;
inline constexpr int32_t kAudioOnHook = 5;

// Audio files are 8000 one-byte samples a second.
inline constexpr int kAudioBytesPerSecond = 8000;

// lm_audio_response: 268 bytes, the whole payload of a `^` event.
struct lm_audio_response {
    static constexpr size_t kSize = 268;
    static constexpr size_t kTypeOffset = 0;
    static constexpr size_t kTokenOffset = 1, kTokenWidth = 255;
    static constexpr size_t kStatusOffset = 256;
    static constexpr size_t kStopCharOffset = 260;
    static constexpr size_t kExtraOffset = 264;

    char type = kEvtAudio;
    std::string token;  // decimal audio token
    int32_t status = 0;
    char stopChar = 0;
    int32_t extra = 0;  // the line monitor's own; the daemon does not read it
};

// lm_audio_request: 1628 bytes, shared by `P` and `R`.
struct lm_audio_request {
    static constexpr size_t kSize = 1628;
    static constexpr size_t kPathOffset = 0, kPathWidth = 1024;
    static constexpr size_t kStopStringOffset = 1024, kStopStringWidth = 80;
    static constexpr size_t kTokenOffset = 1104, kTokenWidth = 255;
    static constexpr size_t kFirstDialingOffset = 1359, kFirstDialingWidth = 257;
    static constexpr size_t kFlagsOffset = 1616;
    static constexpr size_t kLengthOffset = 1620;
    static constexpr size_t kPostPlayPauseOffset = 1624;

    std::string path;
    std::string stopString;
    std::string token;
    std::string firstDialing;  // record only; empty for play
    int32_t flags = 0;
    int32_t length = 0;         // play: seconds of audio; record: the maximum
    int32_t postPlayPause = 0;  // play only
};

// lm_call_request: 510 bytes.
struct lm_call_request {
    static constexpr size_t kSize = 510;
    static constexpr size_t kTokenOffset = 0, kTokenWidth = 255;
    static constexpr size_t kNumberOffset = 255, kNumberWidth = 255;

    std::string token;
    std::string number;
};

// The orders record written once to each new line monitor: 3072 bytes.
struct lm_orders {
    static constexpr size_t kSize = 3072;
    static constexpr size_t kFieldWidth = 1024;
    static constexpr size_t kLineOffset = 0, kSerialOffset = 1024, kExtraOffset = 2048;

    std::string line;    // callout device
    std::string serial;  // adapter serial
    std::string extra;   // opaque per-adapter text
};

// Record builders and parsers. Parsers read missing bytes (past `len`) as
// zero, so a short payload never reads out of bounds.
std::string build_audio_response(const lm_audio_response& r);
lm_audio_response parse_audio_response(const char* data, size_t len);
std::string build_audio_request(const lm_audio_request& r);
lm_audio_request parse_audio_request(const char* data, size_t len);
std::string build_call_request(const lm_call_request& r);
lm_call_request parse_call_request(const char* data, size_t len);
std::string build_orders(const lm_orders& o);
lm_orders parse_orders(const char* data, size_t len);

// Command payloads, byte 0 the command character, lengths exactly as the
// line monitors expect them.
std::string cmd_dial(const std::string& digits);            // digits + 2
std::string cmd_call(const lm_call_request& r);             // 511
std::string cmd_play(const lm_audio_request& r);            // 1629
std::string cmd_record(const lm_audio_request& r);          // 1629
std::string cmd_hangup();                                   // 2
std::string cmd_cancel_audio();                             // 2
std::string cmd_deadman(int32_t seconds);                   // 5
std::string cmd_beep(int32_t type);                         // 5
std::string cmd_trv(int32_t vls, const std::string& text);  // text + 6

// The payload length a command needs (from its character and, for `D` and
// `V`, its text), or 0 for an empty payload or an unknown character.
size_t command_length(const char* data, size_t len);
// True when the payload's length is exactly what its command needs.
bool command_well_formed(const char* data, size_t len);

// Approximate play length in whole seconds: bytes / 8000, rounded up.
int32_t play_length_seconds(long long file_bytes);

// Host-order 32-bit integer at an unaligned offset.
int32_t get_i32(const char* data, size_t len, size_t offset);
void put_i32(std::string& buf, size_t offset, int32_t value);

}  // namespace lm
