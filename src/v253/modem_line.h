#pragma once

// One telephone line through a V.253 voice modem, between the daemon's
// line-monitor protocol and the modem's AT commands and DLE stream. It
// knows nothing of descriptors: bytes for the modem and messages for the
// daemon leave through a ModemLineOutput, time comes in as arguments, and
// the owner's poll loop (main.cc) decides when to read, write and wake.
// Thread-aware, not thread-safe: one thread owns it.
//
// Start-up: reset, echo off, voice mode, caller ID on (the voice command or
// the older one some makers use; a modem with neither runs without caller
// ID), the voice format chosen by name from the modem's list (8-bit
// unsigned linear, 8000 Hz), the line selection labelled "T", silence
// detection, no inactivity hang-up (the daemon's deadman does that).
// Every step must be answered; a refused format ends the program.
// Commands that come meanwhile wait for the end of it.
//
// Line to daemon: RING -> R; the caller-ID block -> one X with "number
// name"; DLE digits -> #; local handset off/on hook -> P/p; the other DLE
// events by their own character (b c d e s q a f l o u).
//
// Daemon to line:
//   P play    busy with audio: ^ 2. A file that cannot be read: ^ 1. The
//             line neither seized, ringing nor picked up: ^ 5. Otherwise
//             the line is seized (off hook) if need be, +VTX, the file
//             streams with DLE doubling, <DLE><ETX>; once the modem has
//             played it out the post-play pause runs, then ^ 3. An event in
//             the stop string ends it early: the modem's buffer is flushed
//             (<DLE><CAN>), and once the modem has stopped the event is
//             sent, then ^ 4 with it.
//   R record  the same rules; with digits to dial first the line is dialled
//             instead. +VRX into the file (truncated, or appended to with
//             flag bit 0x40) until the stop string, `length` seconds (none
//             when 0 or less), the modem's silence report when the stop
//             string names `s`/`q`, or X/H; ended with <DLE>!.
//   X cancel  running audio ends with ^ 4 and stop character X.
//   H hang up as X, then the modem goes on hook.
//   D dial    on hook: dialled with ATD (the line is then seized); off hook:
//             sent as touch tones.
//   C call    dialled; once the modem says the call is placed, / and the
//             token.
//   > deadman N > 0: the line is hung up N seconds from now unless renewed;
//             0 or less disarms it.
//   ! beep    a 450 Hz tone with +VTS when no audio runs, answering a
//             ringing or picked-up line first as P does; on hook or during
//             audio nothing is sent (logged).
//   V TRV     a modem cannot reverse the line: logged, nothing sent (the
//             protocol has no answer to it).
// Every ^ echoes the request's token; its last int is the number of audio
// bytes played or recorded.
//
// The modem failing ends the program (exit_status()): a refused start-up
// step, a command it stops answering, or a port that is gone.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "lineio/protocol.h"
#include "v253/at_command.h"
#include "v253/caller_id.h"
#include "v253/dle_codec.h"

namespace v253 {

// Exit statuses, so the supervisor's log says what went wrong.
enum ExitStatus {
    kExitDaemonGone = 0,    // the daemon closed the line socket
    kExitUsage = 1,         // bad arguments or orders record
    kExitPortUnusable = 2,  // cannot open, lock or set up the port
    kExitModemGone = 3,     // the port went away (unplugged)
    kExitModemRefused = 4,  // the modem answered ERROR to a step it must take
    kExitModemSilent = 5,   // the modem stopped answering
};

class ModemLineOutput {
  public:
    virtual ~ModemLineOutput() = default;
    // Bytes for the modem: commands and DLE codes, after any audio queued.
    virtual void to_modem(std::string_view bytes) = 0;
    // Drops queued audio not yet written (never half a doubled DLE).
    virtual void drop_audio() = 0;
    // One message for the daemon.
    virtual void to_daemon(const std::string& payload) = 0;
};

class ModemLine {
  public:
    enum class State { Initialising, Idle, Starting, Playing, Recording, Ending, Pausing };

    ModemLine(std::string name, ModemLineOutput& out);
    ~ModemLine();
    ModemLine(const ModemLine&) = delete;
    ModemLine& operator=(const ModemLine&) = delete;

    void start(Clock::time_point now);
    void on_modem_bytes(std::string_view bytes, Clock::time_point now);
    // One message from the daemon.
    void on_command(const char* data, size_t len, Clock::time_point now);
    void on_time(Clock::time_point now);
    std::optional<Clock::time_point> next_deadline() const;

    // While true, the owner asks for audio as the port takes it.
    bool wants_audio() const;
    // Up to `max` bytes of the file, DLE-doubled; at its end the play is
    // closed with <DLE><ETX>.
    std::string next_audio(size_t max, Clock::time_point now);

    // Set once the program must end.
    std::optional<int> exit_status() const { return exit_; }
    // Best effort on the way out: hang up.
    void shutdown();

    State state() const { return state_; }
    static const char* state_name(State s);

  private:
    struct Audio {
        bool record = false;
        lm::lm_audio_request req;
        kal::unique_fd file;
        long long bytes = 0;
        bool file_done = false;
        std::optional<lm::lm_audio_response> stop;  // the requested end
        long long limit_bytes = 0;                  // record: its maximum length in audio
        std::optional<Clock::time_point> limit;     // record: the same by the clock
        Clock::time_point pause_end;
        std::vector<std::string> held;  // events for the daemon once the audio has ended
    };
    class Decoded;

    void set_state(State s, const char* why);
    void fail(int status, const std::string& why);
    void send_event(char c, std::string_view rest = {});
    void reply(const std::string& token, int32_t status, char stop_char = 0, long long bytes = 0);

    // Start-up.
    void init_step(std::string command, std::initializer_list<AtResult> accept,
                   std::chrono::milliseconds timeout = std::chrono::seconds(5));
    void choose_caller_id();
    void try_voice_format(std::vector<int> methods, size_t index);
    void init_done();

    // From the modem.
    void on_line(std::string_view line, Clock::time_point now);
    void on_event(char code, Clock::time_point now);
    void on_record_data(std::string_view bytes);
    void ring(Clock::time_point now);
    void flush_caller_id();
    // A line event for the daemon; `stop_char` is what a stop string names
    // it by (a digit by itself).
    void line_event(char c, char stop_char, std::string_view rest, Clock::time_point now);

    // Commands.
    void handle_command(const char* data, size_t len, Clock::time_point now);
    void start_audio(bool record, const lm::lm_audio_request& req);
    void audio_connected(const AtOutcome& o, Clock::time_point now);
    void stop_audio(int32_t status, char stop_char, Clock::time_point now);
    void expect_audio_end();
    void audio_ended(const AtOutcome& o, Clock::time_point now);
    void finish_audio(lm::lm_audio_response r, Clock::time_point now);
    void seize();
    void dial(const std::string& digits);
    void call(const lm::lm_call_request& req);
    void hang_up(Clock::time_point now);
    void beep();
    // A command the modem must answer during a call: a refusal is logged,
    // silence ends the program.
    bool call_step_ok(const AtOutcome& o, const char* what);

    std::string name_;
    ModemLineOutput& out_;
    AtExchange at_;
    DleDecoder decoder_;
    LineSplitter lines_;
    CallerIdBlock caller_id_;

    State state_ = State::Initialising;
    std::optional<int> exit_;
    int line_selection_ = 1;
    bool seized_ = false;       // the modem holds the line off hook
    bool handset_off_ = false;  // the local telephone is picked up
    bool ringing_ = false;
    bool receiving_ = false;  // audio from the modem goes to the recording
    bool skip_lf_ = false;    // the LF of "CONNECT\r\n" before the first sample
    bool hangup_after_audio_ = false;
    std::optional<Audio> audio_;
    std::vector<std::string> deferred_;  // commands that came during start-up
    std::optional<Clock::time_point> ring_end_;
    std::optional<Clock::time_point> caller_id_due_;
    std::optional<Clock::time_point> deadman_;
    Clock::time_point now_{};  // the time of the input being handled
};

}  // namespace v253
