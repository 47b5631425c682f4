#pragma once

// The simulated line behind one line monitor: what it does with each command
// from the daemon, which events it sends, and the audio it plays and records.
// It knows nothing of descriptors: messages leave through a LineOutput and
// time comes in as arguments, so the owner (the poll loop in server.h)
// decides when to read and when to wake up. Thread-aware, not thread-safe:
// one thread owns it.
//
// The line model, three flags:
//   hook     the extension handset on this line: on (down) or off (up).
//            Reported to the daemon as `P` (off hook) and `p` (on hook).
//   seized   the line monitor itself holds the line: it answered a ringing
//            line for audio, or dialled out (D, C, or R with digits to dial
//            first). Never reported as an event; H and the deadman drop it.
//   ringing  a ring came and nobody has answered yet.
// The line is connected while it is seized or the handset is off hook.
// Seizing and releasing are silent because the answering machine stops its
// greeting on `P`: those events mean someone picked up or put down a phone,
// not that the line monitor answered for the daemon.
//
// Commands (first byte of a message from the daemon):
//   P play    busy with audio: `^` status 2 (the running audio goes on).
//             Not connected: a ringing line is answered (seized, silently);
//             otherwise `^` status 5. A path that cannot be opened for
//             reading as a regular file: status 1. Otherwise the file
//             "plays" for size / 8000 seconds, then the post-play pause runs
//             for postPlayPause seconds, both divided by the speed factor;
//             status 3 after the pause. The request's length field is
//             recorded but the file's real size decides.
//   R record  busy: status 2. With digits to dial first, the line is seized
//             and the digits dialled (instantly); without, the connection
//             rules of P apply. A file that cannot be opened for writing:
//             status 1. Otherwise 8000 bytes a second (scaled) of a 400 Hz
//             tone, unsigned 8-bit samples around 128, are written into it
//             until `length` seconds (status 3); length 0 or less records
//             until stopped. Record flag bit 0x40 appends to the file
//             instead of truncating it.
//   X cancel  running audio ends with status 4 and stop character `X`;
//             with no audio, nothing is sent.
//   H hang up running audio ends as for X; the line is released, ringing
//             and any pending `/` reply are dropped, the deadman is
//             disarmed. No event: the handset's hook is unchanged.
//   D dial    seizes the line and dials the digits; nothing is sent.
//   C call    seizes the line, dials the number, and one simulated second
//             later sends `/` followed by the request's token, NUL-ended.
//   > deadman N > 0 arms (or re-arms) the watchdog N real seconds from now;
//             N <= 0 disarms it. The deadman watches the daemon's clock, so
//             the speed factor does not shorten it. On expiry the line monitor
//             hangs up as for H (running audio ends with stop character `X`).
//   ! beep, V TRV: recorded (and counted in `status`); nothing is sent.
// Every message is recorded, well formed or not. A message whose length is
// not exactly its command's, or an unknown command character, is recorded
// as malformed or unknown and otherwise ignored.
//
// Events and stop strings: an event that matches the stop string of running
// audio (a `#` digit event matches by its digit, so `#` in a stop string is
// the touch-tone key, every other event by its own character) ends the
// audio. The file is finished first, then the event itself is sent, then
// `^` status 4 with that character: the daemon always hears the event,
// and hears it before the reply.
//
// Every `^` echoes the request's token; its last int (offset 264) is the
// number of audio bytes played or recorded.

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "lineio/protocol.h"

namespace kal::linesim {

using Clock = std::chrono::steady_clock;

// Where the simulator's messages to the daemon go.
class LineOutput {
  public:
    virtual ~LineOutput() = default;
    // One message, framed with its length.
    virtual void send_frame(const std::string& payload) = 0;
    // Bytes exactly as given, no framing.
    virtual void send_raw(const std::string& bytes) = 0;
};

struct Identity {
    std::string program;  // argv[0]
    std::string line;     // -QLXLine
    std::string serial;   // -QLXSerial
};

class LineSim {
  public:
    LineSim(Identity id, double speed, LineOutput& out);
    ~LineSim();
    LineSim(const LineSim&) = delete;
    LineSim& operator=(const LineSim&) = delete;

    void set_orders(const lm::lm_orders& orders, int fd);

    // One message from the daemon.
    void on_message(const char* data, size_t len, Clock::time_point now);
    // When on_time wants to run next, if at all.
    std::optional<Clock::time_point> next_deadline() const;
    void on_time(Clock::time_point now);

    // --- Driving the line (the control socket) ---
    // Sends event `c` with `rest` after it, ending matching audio first. The
    // line's state is not touched. Returns the token of the audio it ended.
    std::optional<std::string> event(char c, std::string_view rest, Clock::time_point now);
    std::optional<std::string> ring(Clock::time_point now);
    // Handset up (`P`) or down (`p`); `notify` false changes it silently.
    std::optional<std::string> set_hook(bool off_hook, bool notify, Clock::time_point now);
    // Ends running audio as the line monitor's own decision; no event.
    // False when no audio runs.
    bool stop_audio(char stop_char, Clock::time_point now);
    bool finish_audio(Clock::time_point now);
    // Sends a `^` record as given.
    void send_audio_reply(const std::string& token, int32_t status, char stop_char,
                          int32_t extra = 0);
    // Messages that bypass the line model.
    void send_frame(const std::string& payload);
    void send_raw(const std::string& bytes);

    // --- Reading back ---
    struct Received {
        char command;
        std::string text;  // describe_command()
        bool taken = false;
    };
    const std::deque<Received>& received() const { return received_; }
    const std::deque<std::string>& sent() const { return sent_; }
    // The oldest received command not yet taken, with character `c` (any
    // command when empty); marks it taken.
    std::optional<std::string> take_command(std::optional<char> c);
    bool has_command(std::optional<char> c) const;
    void clear_logs();
    std::string status_text(Clock::time_point now) const;
    std::string orders_text() const;
    // The daemon sent SIGUSR1 (its log level changed): counted, nothing else.
    void note_usr1();
    double speed() const { return speed_; }
    // The serial from the command line, else the one in the orders.
    std::string serial() const { return id_.serial.empty() ? orders_.serial : id_.serial; }

  private:
    enum class AudioKind { Play, Record };
    struct Audio {
        AudioKind kind = AudioKind::Play;
        lm::lm_audio_request req;
        Clock::time_point start;
        Clock::time_point sound_end;  // play: end of the file; record: the limit
        Clock::time_point end;        // play: end of the post-play pause
        bool unlimited = false;       // record with length <= 0
        long long total = 0;          // play: file size; record: the limit in bytes
        long long done = 0;           // record: bytes written so far
        kal::unique_fd file;          // record
        Clock::time_point next_tick;  // record
    };
    struct PendingCall {
        Clock::time_point due;
        std::string token;
    };

    bool connected() const { return seized_ || off_hook_; }
    Clock::duration scaled(double seconds) const;
    void start_audio(AudioKind kind, const lm::lm_audio_request& req, Clock::time_point now);
    void seize() {
        seized_ = true;
        ringing_ = false;
    }
    // Brings the file up to `now`, ends the audio and returns its byte count.
    long long end_audio(Clock::time_point now);
    void finish(int32_t status, char stop_char, Clock::time_point now);
    void write_recording(Clock::time_point now);
    void hang_up(Clock::time_point now);
    void reply(const std::string& token, int32_t status, char stop_char = 0, int32_t extra = 0);

    Identity id_;
    double speed_;
    LineOutput& out_;

    bool have_orders_ = false;
    lm::lm_orders orders_;
    int orders_fd_ = -1;

    bool off_hook_ = false;
    bool seized_ = false;
    bool ringing_ = false;
    std::string dialed_;  // last digits dialled (D, C, R)
    std::optional<Audio> audio_;
    std::optional<Clock::time_point> deadman_;
    int32_t deadman_seconds_ = 0;
    bool deadman_expired_ = false;
    std::deque<PendingCall> calls_;
    int beeps_ = 0;
    int trvs_ = 0;
    int usr1_ = 0;

    std::deque<Received> received_;
    std::deque<std::string> sent_;
};

}  // namespace kal::linesim
