#pragma once

// A V.253 (IS-101) voice modem as its host sees it through the serial port:
// the AT command interpreter, voice receive (+VRX) and transmit (+VTX)
// streams with DLE shielding, DLE-shielded event reports, rings with caller
// ID. No I/O of its own: the host's bytes come in through on_host_bytes(),
// the modem's bytes go out through ModemOutput, and timed work (playing the
// transmit buffer, streaming a recording, dialling, tone generation) is
// driven by on_time() at next_deadline(). Audio time runs `speed` times
// faster than real time.
//
// What the host can do:
//   - command state: lines that start with "AT" (any case) and end with CR.
//     Basic commands (E V Q H A D Z I M L X S &F &C &D &K ...) and extended
//     ones (+FCLASS +VCID +VSM +VLS +VSD +VIT +VTD +VTS +VRX +VTX +VGT +VGR
//     +VEM +VRA +VRN +VNH +VDR +VIP +GMI +GMM +GMR +FMI +FMM +FMR), several
//     on a line ("AT+FCLASS=8;+VCID=1", "ATE0V1"). Voice commands answer
//     ERROR unless +FCLASS=8. Echo is on until ATE0, as after power-up.
//     Results are verbose ("\r\nOK\r\n"); information text comes first.
//   - +VTX (off hook only): CONNECT, then the host's bytes are voice data:
//     <DLE><DLE> is one 0x10, <DLE><SUB> two; <DLE><CAN> throws away what
//     is buffered and not yet played; <DLE><ETX> ends the stream: once the
//     buffer has played out the modem answers OK (VCON with the vcon quirk).
//     Data plays at 8000 bytes a second. Every byte received is kept (a
//     Play) so that a test can compare it with what the host sent.
//   - +VRX (off hook only): CONNECT, then the recording source (or silence,
//     0x80, once it is used up) goes to the host at 8000 bytes a second with
//     every 0x10 doubled; when the source is used up and +VSD set a silence
//     interval, <DLE>q (or <DLE>s when the source was empty) is reported
//     once after that much silence. <DLE>! from the host (also <DLE><ETX>,
//     <DLE><CAN>, <DLE><DC4>) ends it: <DLE><ETX>, then OK.
//   - off hook: ATA, ATD..., +VLS=n where label n contains "T"; on hook:
//     ATH, ATZ, AT&F, +VLS=n otherwise.
//
// Quirks imitate modems that differ from one another (see Quirks).

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kal::modemsim {

using Clock = std::chrono::steady_clock;

inline constexpr char kDLE = 0x10;
inline constexpr char kETX = 0x03;
inline constexpr char kCAN = 0x18;
inline constexpr char kSUB = 0x1a;
inline constexpr char kDC4 = 0x14;
inline constexpr int kBytesPerSecond = 8000;

// One +VSM=? line: the number the host selects and what it names.
struct VoiceFormat {
    int cml;
    std::string name;
    int bits;
};

// Voice format lists as two families of modems number them.
enum class VsmProfile { Conexant, Usr };
const std::vector<VoiceFormat>& voice_formats(VsmProfile p);
const char* profile_name(VsmProfile p);
std::optional<VsmProfile> profile_from_name(std::string_view name);

struct Quirks {
    VsmProfile vsm = VsmProfile::Conexant;
    // The +VLS=? labels, by number; a label containing 'T' takes the line
    // off hook. Empty: the profile's own list.
    std::vector<std::string> vls;
    bool vsm_error = false;     // ERROR to every +VSM=n
    bool no_callerid = false;   // ERROR to +VCID (caller ID unsupported)
    bool vcon = false;          // VCON instead of OK after going off hook and after a playback
    bool mute = false;          // answers nothing at all (a modem that hangs)
    std::string mute_at;        // starts answering nothing at the first command with this prefix
    bool dtmf_bracket = false;  // digits as <DLE>/ <DLE>d... <DLE>~
    int dtmf_repeat = 3;        // how often a bracketed digit repeats while the key is held
    bool nmbr_spaces = false;   // "NMBR = 5551234" rather than "NMBR=5551234"
    bool dle_sub = false;       // two 0x10 in a recording go out as <DLE><SUB>
};

class ModemOutput {
  public:
    virtual ~ModemOutput() = default;
    virtual void to_host(std::string_view bytes) = 0;
};

// One +VTX stream as the modem received it.
struct Play {
    std::string bytes;         // after undoing DLE shielding, everything received
    size_t discarded = 0;      // of those, thrown away by <DLE><CAN> before playing
    bool ended = false;        // <DLE><ETX> came and the buffer played out
    std::vector<size_t> cans;  // where in `bytes` each <DLE><CAN> came
};

// What the caller-ID block says. A number or name of "P" (private) or "O"
// (unavailable) is sent as that marker.
struct CallerId {
    std::string number;
    std::string name;  // empty: no NAME line
};

class Modem {
  public:
    enum class State { Command, Transmit, Receive, Busy };

    Modem(Quirks quirks, double speed, ModemOutput& out);

    void on_host_bytes(std::string_view bytes, Clock::time_point now);
    void on_time(Clock::time_point now);
    std::optional<Clock::time_point> next_deadline() const;

    // Driven by a test or a person.
    void ring(Clock::time_point now);  // RING, then the pending caller ID once
    void set_caller_id(std::optional<CallerId> cid) { caller_id_ = std::move(cid); }
    void send_event(char code);            // <DLE><code>
    void send_digit(char key);             // as the dtmf quirk says
    void send_text(const std::string& s);  // "\r\n<s>\r\n", e.g. a result code
    void send_raw(std::string_view bytes) { out_.to_host(bytes); }
    void set_record_source(std::string bytes) { record_source_ = std::move(bytes); }

    Quirks& quirks() { return quirks_; }
    void set_muted(bool m) { muted_ = m; }
    double speed() const { return speed_; }
    void set_speed(double s) { speed_ = s; }

    // Read back.
    State state() const { return state_; }
    bool off_hook() const { return off_hook_; }
    const std::vector<Play>& plays() const { return plays_; }
    // The audio of each +VRX as sent (before DLE shielding).
    const std::vector<std::string>& records() const { return records_; }
    // Every AT command line (as "AT..."), stream end and ignored input.
    const std::vector<std::string>& log() const { return log_; }
    // The oldest log entry starting with `prefix` (any case) that no earlier
    // call returned, if any.
    std::optional<std::string> take_log(std::string_view prefix);
    void clear_logs();
    std::string status_text() const;
    std::string dialled() const { return dialled_; }

    static const char* state_name(State s);

  private:
    void set_state(State s, const char* why);
    void note(std::string entry);
    void result(const char* code);
    void info(const std::string& text);
    void command_byte(char c, Clock::time_point now);
    void run_line(const std::string& line, Clock::time_point now);
    // false: ERROR. `deferred` is set when the final result comes later.
    bool run_basic(char letter, const std::string& arg, std::string& rest, Clock::time_point now);
    bool run_extended(const std::string& cmd, Clock::time_point now);
    void reset();
    void go_off_hook();
    // The end of a timed command or a playback: its result, then what the
    // host sent meanwhile.
    void back_to_command(const char* why, const std::string& result_code, Clock::time_point now);
    std::string off_hook_result() const { return quirks_.vcon ? "VCON" : "OK"; }
    const std::vector<std::string>& vls_labels() const;
    const VoiceFormat* find_format(int cml) const;

    void transmit_byte(char c, Clock::time_point now);
    void drain_transmit(Clock::time_point now);
    void receive_byte(char c, Clock::time_point now);
    void stream_recording(Clock::time_point now);
    Clock::duration audio_time(double bytes) const;

    Quirks quirks_;
    double speed_;
    ModemOutput& out_;

    State state_ = State::Command;
    bool echo_ = true;
    bool off_hook_ = false;
    int fclass_ = 0;
    int vcid_ = 0;
    int vsm_ = 1;
    int vsm_rate_ = 8000;
    int vls_ = 0;
    int vsd_sds_ = 128;
    int vsd_sdi_ = 50;
    int vit_ = 0;
    int vtd_ = 100;
    bool muted_ = false;
    std::string line_;
    std::optional<CallerId> caller_id_;
    std::string dialled_;

    // Busy: a final result due at busy_until_.
    Clock::time_point busy_until_;
    std::string busy_result_;
    std::string pending_input_;  // what the host sent meanwhile (also after <DLE><ETX>)

    // Transmit.
    bool dle_pending_ = false;
    double unplayed_ = 0;  // bytes buffered and not yet played
    Clock::time_point played_at_;
    bool etx_ = false;

    // Receive.
    std::string record_source_;
    size_t record_pos_ = 0;
    Clock::time_point record_at_;
    double record_credit_ = 0;
    double silence_sent_ = 0;
    bool silence_reported_ = false;
    char last_sent_ = 0;
    bool pending_dle_out_ = false;

    std::vector<Play> plays_;
    std::vector<std::string> records_;
    std::vector<std::string> log_;
    std::vector<bool> log_taken_;
};

}  // namespace kal::modemsim
