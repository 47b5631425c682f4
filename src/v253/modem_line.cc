#include "v253/modem_line.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "v253/log.h"
#include "v253/voice_format.h"

namespace v253 {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Record flag bit read as "append to the file".
constexpr int32_t kRecordAppend = 0x40;
// A ring with none after it for this long: the caller gave up.
constexpr auto kRingGap = seconds(8);
// The caller-ID block is complete once no field has come for this long.
constexpr auto kCallerIdQuiet = milliseconds(300);
// How long the modem may take over an ordinary command, a dial, and the end
// of audio (a play drains the modem's and the port's buffers first).
constexpr auto kCommandTimeout = seconds(5);
constexpr auto kResetTimeout = seconds(10);
constexpr auto kDialTimeout = seconds(60);
constexpr auto kAudioEndTimeout = seconds(20);
// A recording ends at its length in audio; by the clock only this much later.
constexpr auto kRecordSlack = seconds(5);
// The beep: 450 Hz for half a second, in the modem's hundredths.
constexpr const char kBeepCommand[] = "AT+VTS=[450,0,50]";

// Events the modem reports by a DLE code that pass to the daemon unchanged.
constexpr std::string_view kPlainEvents = "bcdesqaflou";

// Dial strings keep what a modem dials and nothing that could end the
// command or start another: digits, * # A-D, and ',' for a pause.
std::string dialable(const std::string& digits) {
    std::string out;
    for (char c : digits)
        if (is_dtmf_digit(c) || c == ',')
            out += c;
    return out;
}

// The same as touch tones for +VTS: "1,2,3".
std::string tone_list(const std::string& digits) {
    std::string out;
    for (char c : digits) {
        if (!is_dtmf_digit(c))
            continue;
        if (!out.empty())
            out += ',';
        out += c;
    }
    return out;
}

}  // namespace

// The decoder's output, handed back to the line with the time of the input.
class ModemLine::Decoded final : public DleSink {
  public:
    explicit Decoded(ModemLine& line) : line_(line) {}
    void on_data(std::string_view bytes) override {
        while (!bytes.empty()) {
            if (line_.receiving_) {
                line_.on_record_data(bytes);
                return;
            }
            const size_t n = line_.lines_.feed(bytes, [this](std::string_view l) {
                line_.on_line(l, line_.now_);
                return !line_.receiving_;
            });
            bytes.remove_prefix(n);
        }
    }
    void on_event(char code) override { line_.on_event(code, line_.now_); }

  private:
    ModemLine& line_;
};

ModemLine::ModemLine(std::string name, ModemLineOutput& out)
    : name_(std::move(name)), out_(out), at_([this](std::string_view b) { out_.to_modem(b); }) {}

ModemLine::~ModemLine() = default;

const char* ModemLine::state_name(State s) {
    switch (s) {
        case State::Initialising:
            return "initialising";
        case State::Idle:
            return "idle";
        case State::Starting:
            return "starting audio";
        case State::Playing:
            return "playing";
        case State::Recording:
            return "recording";
        case State::Ending:
            return "ending audio";
        case State::Pausing:
            return "post-play pause";
    }
    return "?";
}

void ModemLine::set_state(State s, const char* why) {
    if (s == state_)
        return;
    vlog(kLogDebug, "%s: %s -> %s (%s)", name_.c_str(), state_name(state_), state_name(s), why);
    state_ = s;
    // Text sent in a data state would be taken as audio.
    at_.hold(s == State::Playing || s == State::Recording || s == State::Ending, now_);
}

void ModemLine::fail(int status, const std::string& why) {
    vlog(kLogErr, "%s: %s; ending (status %d)", name_.c_str(), why.c_str(), status);
    if (!exit_)
        exit_ = status;
}

void ModemLine::send_event(char c, std::string_view rest) {
    std::string payload(1, c);
    payload += rest;
    vlog(kLogDebug, "%s: event %c", name_.c_str(), c);
    out_.to_daemon(payload);
}

void ModemLine::reply(const std::string& token, int32_t status, char stop_char, long long bytes) {
    lm::lm_audio_response r;
    r.token = token;
    r.status = status;
    r.stopChar = stop_char;
    r.extra = static_cast<int32_t>(std::min<long long>(bytes, INT32_MAX));
    vlog(kLogInfo, "%s: audio %s ends with status %d%s%c", name_.c_str(), token.c_str(), status,
         stop_char ? " by " : "", stop_char ? stop_char : ' ');
    out_.to_daemon(lm::build_audio_response(r));
}

// ---------------------------------------------------------------------------
// Start-up

void ModemLine::start(Clock::time_point now) {
    now_ = now;
    vlog(kLogInfo, "%s: setting the modem up for voice", name_.c_str());
    init_step("ATZ", {AtResult::Ok}, kResetTimeout);
    init_step("ATE0", {AtResult::Ok});
    init_step("AT+FCLASS=8", {AtResult::Ok});
    at_.queue("AT+VCID=1", {AtResult::Ok}, kCommandTimeout, [this](const AtOutcome& o) {
        if (o.kind == AtOutcome::Kind::TimedOut)
            return fail(kExitModemSilent, "the modem did not answer AT+VCID=1");
        if (!o.ok())
            choose_caller_id();
    });
    at_.queue("AT+VSM=?", {AtResult::Ok}, kCommandTimeout, [this](const AtOutcome& o) {
        if (o.kind == AtOutcome::Kind::TimedOut)
            return fail(kExitModemSilent, "the modem did not answer AT+VSM=?");
        if (!o.ok())
            vlog(kLogWarn, "%s: the modem does not list its voice formats; trying known ones",
                 name_.c_str());
        try_voice_format(choose_voice_methods(o.info), 0);
    });
    at_.pump(now);
}

void ModemLine::init_step(std::string command, std::initializer_list<AtResult> accept,
                          std::chrono::milliseconds timeout) {
    std::string what = command;
    at_.queue(std::move(command), accept, timeout, [this, what](const AtOutcome& o) {
        if (o.kind == AtOutcome::Kind::TimedOut)
            fail(kExitModemSilent, "the modem did not answer " + what);
        else if (!o.ok())
            fail(kExitModemRefused,
                 "the modem answered " + std::string(at_result_name(o.result)) + " to " + what);
    });
}

void ModemLine::choose_caller_id() {
    // The command some makers had before the voice standard named one.
    at_.queue("AT#CID=1", {AtResult::Ok}, kCommandTimeout, [this](const AtOutcome& o) {
        if (o.kind == AtOutcome::Kind::TimedOut)
            return fail(kExitModemSilent, "the modem did not answer AT#CID=1");
        if (!o.ok())
            vlog(kLogNotice, "%s: the modem offers no caller ID; running without it",
                 name_.c_str());
    });
}

void ModemLine::try_voice_format(std::vector<int> methods, size_t index) {
    if (exit_)
        return;
    if (index >= methods.size())
        return fail(kExitModemRefused,
                    "the modem accepts no 8-bit unsigned linear 8000 Hz voice format");
    const std::string command = "AT+VSM=" + std::to_string(methods[index]) + ",8000";
    at_.queue(command, {AtResult::Ok}, kCommandTimeout,
              [this, methods, index, command](const AtOutcome& o) {
                  if (o.kind == AtOutcome::Kind::TimedOut)
                      return fail(kExitModemSilent, "the modem did not answer " + command);
                  if (!o.ok()) {
                      vlog(kLogNotice, "%s: the modem refused %s", name_.c_str(), command.c_str());
                      return try_voice_format(methods, index + 1);
                  }
                  vlog(kLogInfo, "%s: voice format %d", name_.c_str(), methods[index]);
                  init_done();
              });
}

void ModemLine::init_done() {
    at_.queue("AT+VLS=?", {AtResult::Ok}, kCommandTimeout, [this](const AtOutcome& o) {
        if (o.kind == AtOutcome::Kind::TimedOut)
            return fail(kExitModemSilent, "the modem did not answer AT+VLS=?");
        if (auto n = find_line_selection(o.info))
            line_selection_ = *n;
        vlog(kLogInfo, "%s: the telephone line is selection %d", name_.c_str(), line_selection_);
    });
    // Silence detection: the modem's middle sensitivity, 5 s of it. Its
    // inactivity timer off: hanging up a forgotten line is the deadman's job.
    for (const char* optional : {"AT+VSD=128,50", "AT+VIT=0"})
        at_.queue(optional, {AtResult::Ok}, kCommandTimeout, [this, optional](const AtOutcome& o) {
            if (o.kind == AtOutcome::Kind::TimedOut)
                return fail(kExitModemSilent, std::string("the modem did not answer ") + optional);
            if (!o.ok())
                vlog(kLogNotice, "%s: the modem refused %s; going on", name_.c_str(), optional);
        });
    at_.queue("AT", {AtResult::Ok}, kCommandTimeout, [this](const AtOutcome& o) {
        if (!o.ok())
            return fail(kExitModemSilent, "the modem stopped answering after its set-up");
        set_state(State::Idle, "the modem is in voice mode");
        // What the daemon asked for meanwhile, in its order.
        for (const std::string& c : std::exchange(deferred_, {}))
            handle_command(c.data(), c.size(), now_);
    });
}

// ---------------------------------------------------------------------------
// From the modem

void ModemLine::on_modem_bytes(std::string_view bytes, Clock::time_point now) {
    now_ = now;
    Decoded sink(*this);
    decoder_.feed(bytes, sink);
    at_.pump(now);
}

void ModemLine::on_record_data(std::string_view bytes) {
    if (skip_lf_) {
        skip_lf_ = false;
        if (!bytes.empty() && bytes.front() == '\n')
            bytes.remove_prefix(1);
    }
    if (!audio_ || !audio_->file || bytes.empty())
        return;
    // The length is audio time: what the modem sent, not how long it took.
    bool full = false;
    if (audio_->limit_bytes > 0 &&
        audio_->bytes + static_cast<long long>(bytes.size()) >= audio_->limit_bytes) {
        bytes = bytes.substr(0, static_cast<size_t>(audio_->limit_bytes - audio_->bytes));
        full = true;
    }
    while (!bytes.empty()) {
        ssize_t n = ::write(audio_->file.get(), bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            vlog(kLogWarn, "%s: writing %s: %s; the rest of the recording is lost", name_.c_str(),
                 audio_->req.path.c_str(), strerror(errno));
            audio_->file.reset();
            return;
        }
        audio_->bytes += n;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    if (full) {
        audio_->file.reset();  // what still comes before the modem stops is past the length
        if (state_ == State::Recording)
            stop_audio(lm::kAudioComplete, 0, now_);
    }
}

void ModemLine::on_line(std::string_view line, Clock::time_point now) {
    if (line == "RING" || line.rfind("RING ", 0) == 0)
        return ring(now);
    if (caller_id_.add_line(line)) {
        caller_id_due_ = now + kCallerIdQuiet;
        return;
    }
    if (at_.on_line(line, now))
        return;
    vlog(kLogDebug, "%s: unexpected line from the modem: %.*s", name_.c_str(),
         static_cast<int>(line.size()), line.data());
}

void ModemLine::ring(Clock::time_point now) {
    flush_caller_id();
    if (handset_off_)
        return;  // answered at the handset; the exchange's last ring can trail
    ringing_ = true;
    ring_end_ = now + kRingGap;
    send_event(lm::kEvtRing);
}

void ModemLine::flush_caller_id() {
    caller_id_due_.reset();
    if (caller_id_.empty())
        return;
    std::string text = caller_id_.take_text();
    vlog(kLogInfo, "%s: caller ID %s", name_.c_str(), text.c_str());
    send_event(lm::kEvtCallerId, text + '\0');
}

void ModemLine::on_event(char code, Clock::time_point now) {
    if (code == kEtx) {
        if (!receiving_)
            return;
        receiving_ = false;
        if (state_ == State::Recording) {  // the modem ended it on its own
            set_state(State::Ending, "the modem ended the recording");
            expect_audio_end();
        }
        return;
    }
    if (is_dtmf_digit(code)) {
        return line_event(lm::kEvtDigit, code, std::string_view(&code, 1), now);
    }
    switch (code) {
        case 'H':  // the local handset picked up
        case 'P':
            handset_off_ = true;
            ringing_ = false;
            return line_event(lm::kEvtOffHook, lm::kEvtOffHook, {}, now);
        case 'h':  // and put down
        case 'p':
            handset_off_ = false;
            return line_event(lm::kEvtOnHook, lm::kEvtOnHook, {}, now);
        case 'R':
            return ring(now);
    }
    if (kPlainEvents.find(code) != std::string_view::npos) {
        return line_event(code, code, {}, now);
    }
    vlog(kLogDebug, "%s: modem event 0x%02x ignored", name_.c_str(),
         static_cast<unsigned char>(code));
}

void ModemLine::line_event(char c, char stop_char, std::string_view rest, Clock::time_point now) {
    const bool stops = audio_ && audio_->req.stopString.find(stop_char) != std::string::npos;
    // An event that ends audio reaches the daemon after the audio has ended
    // (a recording is complete on disk when its caller hears of the hang-up),
    // and so does any that comes while it ends, in order.
    if (stops || (audio_ && state_ == State::Ending)) {
        std::string payload(1, c);
        payload += rest;
        audio_->held.push_back(std::move(payload));
    } else {
        send_event(c, rest);
    }
    if (stops)
        stop_audio(lm::kAudioStopped, stop_char, now);
}

// ---------------------------------------------------------------------------
// Commands from the daemon

void ModemLine::on_command(const char* data, size_t len, Clock::time_point now) {
    now_ = now;
    handle_command(data, len, now);
    at_.pump(now);
}

void ModemLine::handle_command(const char* data, size_t len, Clock::time_point now) {
    if (!lm::command_well_formed(data, len)) {
        vlog(kLogWarn, "%s: malformed command (%zu bytes, first 0x%02x) ignored", name_.c_str(),
             len, len ? static_cast<unsigned char>(data[0]) : 0);
        return;
    }
    // Commands for the modem wait until it is in voice mode; the deadman
    // runs from when it was asked for.
    if (state_ == State::Initialising && data[0] != lm::kCmdDeadman) {
        deferred_.emplace_back(data, len);
        return;
    }
    switch (data[0]) {
        case lm::kCmdPlay:
        case lm::kCmdRecord:
            return start_audio(data[0] == lm::kCmdRecord,
                               lm::parse_audio_request(data + 1, len - 1));
        case lm::kCmdCancelAudio:
            return stop_audio(lm::kAudioStopped, lm::kCmdCancelAudio, now);
        case lm::kCmdHangup:
            return hang_up(now);
        case lm::kCmdDial:
            return dial(std::string(data + 1, strnlen(data + 1, len - 1)));
        case lm::kCmdCall:
            return call(lm::parse_call_request(data + 1, len - 1));
        case lm::kCmdDeadman: {
            const int32_t secs = lm::get_i32(data, len, 1);
            if (secs > 0)
                deadman_ = now + seconds(secs);
            else
                deadman_.reset();
            return;
        }
        case lm::kCmdBeep:
            return beep();
        case lm::kCmdTRV:
            vlog(kLogNotice,
                 "%s: a timed line reversal was asked for; a voice modem cannot "
                 "reverse the line, so nothing is done",
                 name_.c_str());
            return;
    }
}

void ModemLine::start_audio(bool record, const lm::lm_audio_request& req) {
    if (audio_)
        return reply(req.token, lm::kAudioBusy);
    Audio a;
    a.record = record;
    a.req = req;
    if (record) {
        const int flags =
            O_WRONLY | O_CREAT | O_CLOEXEC | ((req.flags & kRecordAppend) ? O_APPEND : O_TRUNC);
        a.file.reset(req.path.empty() ? -1 : ::open(req.path.c_str(), flags, 0644));
    } else {
        a.file.reset(req.path.empty() ? -1 : ::open(req.path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st;
        if (a.file && (::fstat(a.file.get(), &st) != 0 || !S_ISREG(st.st_mode)))
            a.file.reset();
    }
    if (!a.file) {
        vlog(kLogWarn, "%s: cannot open %s for %s", name_.c_str(), req.path.c_str(),
             record ? "recording" : "playing");
        return reply(req.token, lm::kAudioInvalidFile);
    }
    const bool dial_first = record && !dialable(req.firstDialing).empty();
    if (!dial_first && !seized_ && !ringing_ && !handset_off_)
        return reply(req.token, lm::kAudioOnHook);

    audio_ = std::move(a);
    set_state(State::Starting, record ? "record" : "play");
    if (dial_first)
        dial(req.firstDialing);
    else if (!seized_)
        seize();
    at_.queue(record ? "AT+VRX" : "AT+VTX", {AtResult::Connect}, kCommandTimeout,
              [this](const AtOutcome& o) { audio_connected(o, now_); });
}

void ModemLine::seize() {
    at_.queue("AT+VLS=" + std::to_string(line_selection_), {AtResult::Ok, AtResult::Vcon},
              kCommandTimeout, [this](const AtOutcome& o) {
                  if (call_step_ok(o, "taking the line off hook")) {
                      seized_ = true;
                      ringing_ = false;
                  }
              });
}

bool ModemLine::call_step_ok(const AtOutcome& o, const char* what) {
    if (o.kind == AtOutcome::Kind::TimedOut) {
        fail(kExitModemSilent, std::string("the modem stopped answering while ") + what);
        return false;
    }
    if (!o.ok()) {
        vlog(kLogWarn, "%s: the modem answered %s %s", name_.c_str(), at_result_name(o.result),
             what);
        return false;
    }
    return true;
}

void ModemLine::audio_connected(const AtOutcome& o, Clock::time_point now) {
    if (!audio_)
        return;
    if (!call_step_ok(o, audio_->record ? "starting to record" : "starting to play")) {
        lm::lm_audio_response r;
        r.token = audio_->req.token;
        r.status = audio_->stop ? audio_->stop->status : lm::kAudioOnHook;
        r.stopChar = audio_->stop ? audio_->stop->stopChar : 0;
        return finish_audio(r, now);
    }
    if (audio_->record) {
        receiving_ = true;
        skip_lf_ = true;
        if (audio_->req.length > 0) {
            audio_->limit_bytes =
                static_cast<long long>(audio_->req.length) * lm::kAudioBytesPerSecond;
            // In case the modem sends less than it should.
            audio_->limit = now + seconds(audio_->req.length) + kRecordSlack;
        }
        set_state(State::Recording, "the modem records");
    } else {
        set_state(State::Playing, "the modem plays");
    }
    if (audio_->stop) {  // stopped while it started
        auto stop = *audio_->stop;
        audio_->stop.reset();
        stop_audio(stop.status, stop.stopChar, now);
    }
}

void ModemLine::stop_audio(int32_t status, char stop_char, Clock::time_point now) {
    if (!audio_)
        return;
    lm::lm_audio_response r;
    r.token = audio_->req.token;
    r.status = status;
    r.stopChar = stop_char;
    switch (state_) {
        case State::Playing:
            audio_->stop = r;
            out_.drop_audio();
            out_.to_modem(kFlushPlay);
            set_state(State::Ending, "play stopped");
            return expect_audio_end();
        case State::Recording:
            audio_->stop = r;
            out_.to_modem(kStopRecord);
            set_state(State::Ending, "recording stopped");
            return expect_audio_end();
        case State::Pausing:
            return finish_audio(r, now);
        default:  // starting or ending: the first reason stands
            if (!audio_->stop)
                audio_->stop = r;
            return;
    }
}

void ModemLine::expect_audio_end() {
    at_.expect_first({AtResult::Ok, AtResult::Vcon}, kAudioEndTimeout,
                     [this](const AtOutcome& o) { audio_ended(o, now_); });
}

std::string ModemLine::next_audio(size_t max, Clock::time_point now) {
    now_ = now;
    if (!wants_audio())
        return {};
    std::string raw(std::max<size_t>(1, max / 2), '\0');
    ssize_t n;
    do {
        n = ::read(audio_->file.get(), raw.data(), raw.size());
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
        if (n < 0)
            vlog(kLogWarn, "%s: reading %s: %s; the play ends here", name_.c_str(),
                 audio_->req.path.c_str(), strerror(errno));
        audio_->file_done = true;
        out_.to_modem(kEndOfPlay);
        set_state(State::Ending, "end of the file");
        expect_audio_end();
        at_.pump(now);
        return {};
    }
    audio_->bytes += n;
    raw.resize(static_cast<size_t>(n));
    return dle_escape(raw);
}

bool ModemLine::wants_audio() const {
    return state_ == State::Playing && audio_ && !audio_->record && !audio_->file_done;
}

void ModemLine::audio_ended(const AtOutcome& o, Clock::time_point now) {
    if (!audio_)
        return;
    if (o.kind == AtOutcome::Kind::TimedOut)
        return fail(kExitModemSilent, "the modem did not end the audio");
    if (!o.ok())
        vlog(kLogWarn, "%s: the modem answered %s at the end of the audio", name_.c_str(),
             at_result_name(o.result));
    receiving_ = false;
    audio_->file.reset();
    if (audio_->stop)
        return finish_audio(*audio_->stop, now);
    if (!audio_->record && audio_->req.postPlayPause > 0) {
        audio_->pause_end = now + seconds(audio_->req.postPlayPause);
        set_state(State::Pausing, "played out");
        return;
    }
    lm::lm_audio_response r;
    r.token = audio_->req.token;
    r.status = lm::kAudioComplete;
    finish_audio(r, now);
}

void ModemLine::finish_audio(lm::lm_audio_response r, Clock::time_point now) {
    const long long bytes = audio_ ? audio_->bytes : 0;
    std::vector<std::string> held;
    if (audio_)
        held = std::move(audio_->held);
    audio_.reset();
    for (const auto& payload : held)
        out_.to_daemon(payload);
    receiving_ = false;
    reply(r.token, r.status, r.stopChar, bytes);
    set_state(State::Idle, "audio finished");
    if (hangup_after_audio_) {
        hangup_after_audio_ = false;
        hang_up(now);
    }
}

void ModemLine::dial(const std::string& digits) {
    const std::string d = dialable(digits);
    if (d.empty()) {
        vlog(kLogNotice, "%s: nothing to dial in \"%s\"", name_.c_str(), digits.c_str());
        return;
    }
    if (seized_) {
        at_.queue("AT+VTS=" + tone_list(d), {AtResult::Ok}, kCommandTimeout + seconds(d.size()),
                  [this](const AtOutcome& o) { call_step_ok(o, "sending touch tones"); });
        return;
    }
    at_.queue("ATDT" + d, {AtResult::Ok, AtResult::Vcon}, kDialTimeout, [this](const AtOutcome& o) {
        if (call_step_ok(o, "dialing")) {
            seized_ = true;
            ringing_ = false;
        } else if (o.result == AtResult::Busy) {
            send_event(lm::kEvtBusy);
        }
    });
}

void ModemLine::call(const lm::lm_call_request& req) {
    dial(req.number);
    // Answered once the dial above has been answered: the call is placed.
    std::string token = req.token;
    at_.queue("AT", {AtResult::Ok}, kCommandTimeout, [this, token](const AtOutcome& o) {
        if (!call_step_ok(o, "placing a call") || !seized_)
            return;
        send_event(lm::kEvtCallPlaced, token + '\0');
    });
}

void ModemLine::hang_up(Clock::time_point now) {
    ringing_ = false;
    deadman_.reset();
    if (audio_) {
        hangup_after_audio_ = true;
        return stop_audio(lm::kAudioStopped, lm::kCmdCancelAudio, now);
    }
    at_.queue("ATH", {AtResult::Ok}, kCommandTimeout, [this](const AtOutcome& o) {
        call_step_ok(o, "hanging up");
        seized_ = false;
    });
}

void ModemLine::beep() {
    if (audio_ || (!seized_ && !ringing_ && !handset_off_)) {
        vlog(kLogNotice, "%s: beep asked for %s; not sent", name_.c_str(),
             audio_ ? "during audio" : "with the line on hook");
        return;
    }
    // A menu that starts with a beep answers a ringing line, as a play does.
    if (!seized_)
        seize();
    at_.queue(kBeepCommand, {AtResult::Ok}, kCommandTimeout,
              [this](const AtOutcome& o) { call_step_ok(o, "beeping"); });
}

// ---------------------------------------------------------------------------
// Time

std::optional<Clock::time_point> ModemLine::next_deadline() const {
    std::optional<Clock::time_point> next;
    auto consider = [&](std::optional<Clock::time_point> t) {
        if (t && (!next || *t < *next))
            next = t;
    };
    consider(at_.next_deadline());
    consider(ring_end_);
    consider(caller_id_due_);
    consider(deadman_);
    if (audio_ && state_ == State::Recording)
        consider(audio_->limit);
    if (audio_ && state_ == State::Pausing)
        consider(audio_->pause_end);
    return next;
}

void ModemLine::on_time(Clock::time_point now) {
    now_ = now;
    at_.on_time(now);
    if (ring_end_ && *ring_end_ <= now) {
        ring_end_.reset();
        ringing_ = false;
    }
    if (caller_id_due_ && *caller_id_due_ <= now)
        flush_caller_id();
    if (deadman_ && *deadman_ <= now) {
        vlog(kLogNotice, "%s: the deadman ran out; hanging up", name_.c_str());
        hang_up(now);
    }
    if (audio_ && state_ == State::Recording && audio_->limit && *audio_->limit <= now)
        stop_audio(lm::kAudioComplete, 0, now);
    if (audio_ && state_ == State::Pausing && audio_->pause_end <= now) {
        lm::lm_audio_response r;
        r.token = audio_->req.token;
        r.status = lm::kAudioComplete;
        finish_audio(r, now);
    }
    at_.pump(now);
}

void ModemLine::shutdown() {
    out_.drop_audio();
    if (state_ == State::Playing)
        out_.to_modem(kFlushPlay);
    else if (state_ == State::Recording)
        out_.to_modem(kStopRecord);
    if (seized_ || audio_)
        out_.to_modem("ATH\r");
}

}  // namespace v253
