#include "modemsim/modem.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <utility>

#include "simctl/text.h"
#include "simctl/trace.h"

namespace kal::modemsim {

namespace {

// How often a recording in progress sends what has accumulated.
constexpr auto kStreamTick = std::chrono::milliseconds(20);
constexpr unsigned char kSilence = 0x80;

std::string upper(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return out;
}

bool starts_with_nocase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && upper(text.substr(0, prefix.size())) == upper(prefix);
}

std::optional<int> to_int(std::string_view s) {
    auto v = simctl::parse_long(simctl::trim(s));
    if (!v || *v < 0 || *v > 100000)
        return std::nullopt;
    return static_cast<int>(*v);
}

// "a,b,c" split at commas outside brackets and braces.
std::vector<std::string> split_top(std::string_view s) {
    std::vector<std::string> parts;
    std::string cur;
    int depth = 0;
    for (char c : s) {
        if (c == '[' || c == '{')
            ++depth;
        if (c == ']' || c == '}')
            --depth;
        if (c == ',' && depth == 0) {
            parts.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    parts.push_back(cur);
    return parts;
}

}  // namespace

const std::vector<VoiceFormat>& voice_formats(VsmProfile p) {
    // The first family calls 8-bit unsigned linear "UNSIGNED PCM" and numbers
    // it 1 (and again 130); the second numbers its formats from 128 and calls
    // it "8-BIT LINEAR".
    static const std::vector<VoiceFormat> conexant = {
        {1, "UNSIGNED PCM", 8}, {129, "IMA ADPCM", 4},  {130, "UNSIGNED PCM", 8},
        {131, "G.711 ULAW", 8}, {132, "G.711 ALAW", 8}, {140, "2 Bit ADPCM", 2},
        {141, "4 Bit ADPCM", 4}};
    static const std::vector<VoiceFormat> usr = {{128, "8-BIT LINEAR", 8},
                                                 {129, "16-BIT LINEAR", 16},
                                                 {130, "8-BIT ALAW", 8},
                                                 {131, "8-BIT ULAW", 8},
                                                 {132, "IMA ADPCM", 4}};
    return p == VsmProfile::Usr ? usr : conexant;
}

const char* profile_name(VsmProfile p) {
    return p == VsmProfile::Usr ? "usr" : "conexant";
}

std::optional<VsmProfile> profile_from_name(std::string_view name) {
    std::string n = simctl::lower(name);
    if (n == "conexant")
        return VsmProfile::Conexant;
    if (n == "usr")
        return VsmProfile::Usr;
    return std::nullopt;
}

const char* Modem::state_name(State s) {
    switch (s) {
        case State::Command:
            return "command";
        case State::Transmit:
            return "transmit";
        case State::Receive:
            return "receive";
        case State::Busy:
            return "busy";
    }
    return "?";
}

Modem::Modem(Quirks quirks, double speed, ModemOutput& out)
    : quirks_(std::move(quirks)), speed_(speed), out_(out) {
    muted_ = quirks_.mute;
    reset();
}

void Modem::set_state(State s, const char* why) {
    if (s == state_)
        return;
    simctl::trace("state %s -> %s (%s)", state_name(state_), state_name(s), why);
    state_ = s;
}

void Modem::note(std::string entry) {
    simctl::trace("log: %s", entry.c_str());
    log_.push_back(std::move(entry));
    log_taken_.push_back(false);
}

std::optional<std::string> Modem::take_log(std::string_view prefix) {
    for (size_t i = 0; i < log_.size(); ++i) {
        if (!log_taken_[i] && starts_with_nocase(log_[i], prefix)) {
            log_taken_[i] = true;
            return log_[i];
        }
    }
    return std::nullopt;
}

void Modem::clear_logs() {
    log_.clear();
    log_taken_.clear();
    plays_.clear();
    records_.clear();
}

void Modem::result(const char* code) {
    send_text(code);
}

void Modem::info(const std::string& text) {
    send_text(text);
}

void Modem::send_text(const std::string& s) {
    out_.to_host("\r\n" + s + "\r\n");
}

void Modem::send_event(char code) {
    out_.to_host(std::string{kDLE, code});
}

void Modem::send_digit(char key) {
    if (!quirks_.dtmf_bracket) {
        send_event(key);
        return;
    }
    std::string s{kDLE, '/'};
    for (int i = 0; i < std::max(1, quirks_.dtmf_repeat); ++i)
        s += std::string{kDLE, key};
    s += std::string{kDLE, '~'};
    out_.to_host(s);
}

void Modem::ring(Clock::time_point) {
    result("RING");
    if (!caller_id_ || vcid_ == 0)
        return;
    const char* eq = quirks_.nmbr_spaces ? " = " : "=";
    std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    char date[8], hm[8];
    snprintf(date, sizeof date, "%02d%02d", (tm.tm_mon + 1) % 100, tm.tm_mday % 100);
    snprintf(hm, sizeof hm, "%02d%02d", tm.tm_hour % 100, tm.tm_min % 100);
    std::string block = std::string("\r\nDATE") + eq + date + "\r\nTIME" + eq + hm + "\r\nNMBR" +
                        eq + caller_id_->number + "\r\n";
    if (!caller_id_->name.empty())
        block += std::string("NAME") + eq + caller_id_->name + "\r\n";
    out_.to_host(block);
    caller_id_.reset();  // reported once, between the first and second ring
}

// ---------------------------------------------------------------------------
// Host input

void Modem::on_host_bytes(std::string_view bytes, Clock::time_point now) {
    if (muted_) {
        note("no answer to " + simctl::to_hex(bytes.substr(0, 64)));
        return;
    }
    for (char c : bytes) {
        switch (state_) {
            case State::Command:
                command_byte(c, now);
                break;
            case State::Transmit:
                transmit_byte(c, now);
                break;
            case State::Receive:
                receive_byte(c, now);
                break;
            case State::Busy:
                pending_input_ += c;
                break;
        }
        if (muted_)
            return;
    }
}

void Modem::command_byte(char c, Clock::time_point now) {
    if (echo_)
        out_.to_host(std::string_view(&c, 1));
    if (c == '\r') {
        std::string line = std::exchange(line_, {});
        run_line(line, now);
        return;
    }
    if (c == '\n')
        return;
    if (c == 0x08 || c == 0x7f) {
        if (!line_.empty())
            line_.pop_back();
        return;
    }
    if (line_.size() < 1024)
        line_ += c;
}

void Modem::run_line(const std::string& raw, Clock::time_point now) {
    std::string line(simctl::trim(raw));
    if (line.empty())
        return;
    if (!starts_with_nocase(line, "AT")) {
        note("ignored " + simctl::to_hex(line.substr(0, 64)));
        return;
    }
    std::string body = line.substr(2);
    note("AT" + body);
    if (!quirks_.mute_at.empty() && starts_with_nocase(body, quirks_.mute_at)) {
        simctl::trace("muted from %s on", quirks_.mute_at.c_str());
        muted_ = true;
        return;
    }
    busy_result_ = "OK";
    std::string rest = body;
    bool ok = true;
    while (ok && !rest.empty() && state_ == State::Command) {
        char c = static_cast<char>(std::toupper(static_cast<unsigned char>(rest[0])));
        if (c == ' ' || c == ';') {
            rest.erase(0, 1);
            continue;
        }
        if (c == '+') {
            size_t semi = rest.find(';');
            std::string cmd = rest.substr(0, semi);
            rest = semi == std::string::npos ? "" : rest.substr(semi + 1);
            ok = run_extended(cmd, now);
            continue;
        }
        std::string letter(1, c);
        rest.erase(0, 1);
        if (c == '&' && !rest.empty()) {
            letter += static_cast<char>(std::toupper(static_cast<unsigned char>(rest[0])));
            rest.erase(0, 1);
        }
        std::string arg;
        if (c == 'D') {
            arg = rest;
            rest.clear();
        } else if (c == 'S') {
            size_t end = 0;
            while (end < rest.size() && (std::isdigit(static_cast<unsigned char>(rest[end])) ||
                                         rest[end] == '=' || rest[end] == '?'))
                ++end;
            arg = rest.substr(0, end);
            rest.erase(0, end);
        } else {
            size_t end = 0;
            while (end < rest.size() && std::isdigit(static_cast<unsigned char>(rest[end])))
                ++end;
            arg = rest.substr(0, end);
            rest.erase(0, end);
        }
        ok = run_basic(letter[0] == '&' ? '&' : letter[0],
                       letter.size() > 1 ? letter.substr(1) + arg : arg, rest, now);
    }
    if (!ok) {
        if (state_ == State::Busy)
            set_state(State::Command, "error");
        result("ERROR");
        return;
    }
    if (state_ == State::Command)
        result(busy_result_.c_str());
    // Transmit and Receive answered CONNECT; Busy answers when its time is up.
}

bool Modem::run_basic(char letter, const std::string& arg, std::string&, Clock::time_point now) {
    switch (letter) {
        case 'E':
            echo_ = arg != "0";
            return arg.empty() || arg == "0" || arg == "1";
        case 'V':
        case 'Q':
        case 'M':
        case 'L':
        case 'X':
        case 'B':
        case 'W':
        case 'S':
            if (letter == 'S' && arg.find('?') != std::string::npos)
                info("000");
            return true;
        case '&':
            if (!arg.empty() && (arg[0] == 'F' || arg[0] == 'f')) {
                reset();
                return true;
            }
            return true;  // &C &D &K &S &V...: accepted
        case 'Z':
            reset();
            return true;
        case 'I':
            info(quirks_.vsm == VsmProfile::Usr ? "USR-LIKE VOICE MODEM (EMULATED)"
                                                : "CX-LIKE VOICE MODEM (EMULATED)");
            return true;
        case 'H':
            if (arg == "1") {
                go_off_hook();
            } else {
                if (off_hook_)
                    simctl::trace("on hook (ATH)");
                off_hook_ = false;
            }
            return true;
        case 'A':
            if (fclass_ != 8) {
                busy_result_ = "NO CARRIER";
                return true;
            }
            go_off_hook();
            busy_result_ = off_hook_result();
            return true;
        case 'D': {
            dialled_ = arg;
            if (fclass_ != 8) {
                busy_result_ = "NO CARRIER";
                return true;
            }
            go_off_hook();
            int digits = 0;
            for (char d : arg)
                if (std::isdigit(static_cast<unsigned char>(d)) || d == '*' || d == '#')
                    ++digits;
            busy_until_ = now + audio_time(kBytesPerSecond * (0.5 + 0.1 * digits));
            busy_result_ = off_hook_result();
            set_state(State::Busy, "dialling");
            return true;
        }
        default:
            return false;
    }
}

bool Modem::run_extended(const std::string& cmd, Clock::time_point now) {
    size_t op = cmd.find_first_of("=?");
    const std::string name = upper(cmd.substr(0, op));
    const std::string tail = op == std::string::npos ? "" : cmd.substr(op);
    const bool query = tail == "?";
    const bool range = tail == "=?";
    const std::string value = tail.size() > 1 && tail[0] == '=' ? tail.substr(1) : "";
    const bool set = !tail.empty() && tail[0] == '=' && !range;
    const std::vector<std::string> args = split_top(value);

    if (name == "+FCLASS") {
        if (range)
            info("0,1,1.0,2,8");
        else if (query)
            info(std::to_string(fclass_));
        else if (value == "0" || value == "1" || value == "1.0" || value == "2" || value == "8")
            fclass_ = value == "1.0" ? 1 : std::stoi(value);
        else
            return false;
        return true;
    }
    if (name == "+GMI" || name == "+FMI") {
        info("KAL EMULATED MODEMS");
        return true;
    }
    if (name == "+GMM" || name == "+FMM") {
        info(quirks_.vsm == VsmProfile::Usr ? "USR-LIKE" : "CX-LIKE");
        return true;
    }
    if (name == "+GMR" || name == "+FMR") {
        info("1.0");
        return true;
    }
    if (name.rfind("+V", 0) != 0 || fclass_ != 8)
        return false;

    if (name == "+VCID") {
        if (quirks_.no_callerid)
            return false;
        if (range)
            info("(0-2)");
        else if (query)
            info(std::to_string(vcid_));
        else if (auto n = to_int(value); set && n && *n <= 2)
            vcid_ = *n;
        else
            return false;
        return true;
    }
    if (name == "+VSM") {
        if (range) {
            std::string lines;
            for (const auto& f : voice_formats(quirks_.vsm))
                lines += (lines.empty() ? "" : "\r\n") + std::to_string(f.cml) + ",\"" + f.name +
                         "\"," + std::to_string(f.bits) + ",0,(7200,8000,11025),(0),(0)";
            info(lines);
            return true;
        }
        if (query) {
            info(std::to_string(vsm_) + "," + std::to_string(vsm_rate_) + ",0,0");
            return true;
        }
        if (!set || quirks_.vsm_error)
            return false;
        auto cml = to_int(args[0]);
        if (!cml || !find_format(*cml))
            return false;
        int rate = vsm_rate_;
        if (args.size() > 1 && !simctl::trim(args[1]).empty()) {
            auto r = to_int(args[1]);
            if (!r || (*r != 7200 && *r != 8000 && *r != 11025))
                return false;
            rate = *r;
        }
        vsm_ = *cml;
        vsm_rate_ = rate;
        return true;
    }
    if (name == "+VLS") {
        const auto& labels = vls_labels();
        if (range) {
            std::string lines;
            for (size_t i = 0; i < labels.size(); ++i)
                lines += (lines.empty() ? "" : "\r\n") + std::to_string(i) + ",\"" + labels[i] +
                         "\",00000000,00000000,00000000";
            info(lines);
            return true;
        }
        if (query) {
            info(std::to_string(vls_));
            return true;
        }
        auto n = to_int(value);
        if (!set || !n || static_cast<size_t>(*n) >= labels.size())
            return false;
        vls_ = *n;
        if (labels[*n].find('T') != std::string::npos) {
            go_off_hook();
            busy_result_ = off_hook_result();
        } else if (labels[*n].empty()) {
            off_hook_ = false;
        }
        return true;
    }
    if (name == "+VSD" || name == "+VIT" || name == "+VTD") {
        int* first = name == "+VSD" ? &vsd_sds_ : name == "+VIT" ? &vit_ : &vtd_;
        if (range) {
            info(name == "+VSD" ? "(0-255),(0-255)" : "(0-255)");
            return true;
        }
        if (query) {
            info(name == "+VSD" ? std::to_string(vsd_sds_) + "," + std::to_string(vsd_sdi_)
                                : std::to_string(*first));
            return true;
        }
        auto a = to_int(args[0]);
        if (!set || !a || *a > 255)
            return false;
        *first = *a;
        if (name == "+VSD" && args.size() > 1) {
            auto b = to_int(args[1]);
            if (!b || *b > 255)
                return false;
            vsd_sdi_ = *b;
        }
        return true;
    }
    if (name == "+VTS") {
        if (!set)
            return range || query;
        // Each element is a tone: [f1,f2,duration], {dtmf,duration} or a
        // single DTMF digit of +VTD hundredths of a second.
        double hundredths = 0;
        for (const auto& e : args) {
            std::string t(simctl::trim(e));
            if (t.empty())
                continue;
            if (t.front() == '[' || t.front() == '{') {
                auto inner = split_top(std::string_view(t).substr(1, t.size() - 2));
                auto d = inner.size() >= 2 ? to_int(inner.back()) : std::nullopt;
                hundredths += d ? *d : vtd_;
            } else {
                hundredths += vtd_;
            }
        }
        busy_until_ = now + audio_time(kBytesPerSecond * hundredths / 100.0);
        set_state(State::Busy, "generating tones");
        return true;
    }
    if (name == "+VTX" || name == "+VRX") {
        if (!off_hook_ || set || query || range)
            return false;
        info("CONNECT");
        if (name == "+VTX") {
            plays_.emplace_back();
            dle_pending_ = false;
            unplayed_ = 0;
            played_at_ = now;
            etx_ = false;
            set_state(State::Transmit, "+VTX");
        } else {
            record_pos_ = 0;
            record_at_ = now;
            record_credit_ = 0;
            silence_sent_ = 0;
            silence_reported_ = false;
            dle_pending_ = false;
            pending_dle_out_ = false;
            records_.emplace_back();
            set_state(State::Receive, "+VRX");
        }
        return true;
    }
    // Gains, event masks, ring timers, distinctive ring, voice parameters:
    // accepted as they are.
    static const char* const accepted[] = {"+VGT", "+VGR", "+VEM", "+VRA", "+VRN",
                                           "+VNH", "+VDR", "+VIP", "+VSP", "+VDT"};
    for (const char* a : accepted)
        if (name == a) {
            if (range)
                info("(0-255)");
            else if (query)
                info("0");
            return true;
        }
    return false;
}

void Modem::reset() {
    echo_ = true;
    off_hook_ = false;
    fclass_ = 0;
    vcid_ = 0;
    vsm_ = voice_formats(quirks_.vsm).front().cml;
    vsm_rate_ = 8000;
    vls_ = 0;
    vsd_sds_ = 128;
    vsd_sdi_ = 50;
    vit_ = 0;
    vtd_ = 100;
}

void Modem::go_off_hook() {
    if (!off_hook_)
        simctl::trace("off hook");
    off_hook_ = true;
}

const std::vector<std::string>& Modem::vls_labels() const {
    static const std::vector<std::string> conexant = {"", "T", "L", "LT", "S", "ST", "M", "MST"};
    static const std::vector<std::string> usr = {"", "T", "L", "LT", "S", "ST", "M", "MT"};
    if (!quirks_.vls.empty())
        return quirks_.vls;
    return quirks_.vsm == VsmProfile::Usr ? usr : conexant;
}

const VoiceFormat* Modem::find_format(int cml) const {
    const auto& list = voice_formats(quirks_.vsm);
    auto it = std::find_if(list.begin(), list.end(), [&](const auto& f) { return f.cml == cml; });
    return it == list.end() ? nullptr : &*it;
}

Clock::duration Modem::audio_time(double bytes) const {
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(bytes / kBytesPerSecond / speed_));
}

// ---------------------------------------------------------------------------
// Voice transmit

void Modem::transmit_byte(char c, Clock::time_point now) {
    drain_transmit(now);
    Play& play = plays_.back();
    if (etx_) {
        pending_input_ += c;  // commands for after the playback
        return;
    }
    if (!dle_pending_) {
        if (c == kDLE) {
            dle_pending_ = true;
        } else {
            play.bytes += c;
            unplayed_ += 1;
        }
        return;
    }
    dle_pending_ = false;
    switch (c) {
        case kDLE:
            play.bytes += kDLE;
            unplayed_ += 1;
            break;
        case kSUB:
            play.bytes += std::string{kDLE, kDLE};
            unplayed_ += 2;
            break;
        case kCAN: {
            size_t dropped = static_cast<size_t>(std::ceil(unplayed_));
            play.discarded += dropped;
            play.cans.push_back(play.bytes.size());
            unplayed_ = 0;
            note("<DLE><CAN> play=" + std::to_string(plays_.size()) +
                 " discarded=" + std::to_string(dropped));
            break;
        }
        case kETX:
            etx_ = true;
            break;
        default:
            // Volume, pause and resume: nothing to emulate.
            note("<DLE>" + simctl::char_text(c) + " in +VTX");
            break;
    }
}

void Modem::drain_transmit(Clock::time_point now) {
    double elapsed = std::chrono::duration<double>(now - played_at_).count();
    unplayed_ = std::max(0.0, unplayed_ - elapsed * kBytesPerSecond * speed_);
    played_at_ = now;
}

// ---------------------------------------------------------------------------
// Voice receive

void Modem::receive_byte(char c, Clock::time_point now) {
    if (!dle_pending_) {
        if (c == kDLE)
            dle_pending_ = true;
        else
            note("in +VRX " + simctl::to_hex(std::string_view(&c, 1)));
        return;
    }
    dle_pending_ = false;
    if (c == '!' || c == kETX || c == kCAN || c == kDC4) {
        stream_recording(now);
        std::string tail;
        if (pending_dle_out_)
            tail += std::string{kDLE, kDLE};
        pending_dle_out_ = false;
        tail += std::string{kDLE, kETX};
        out_.to_host(tail);
        note("<DLE>" + simctl::char_text(c) + " record=" + std::to_string(records_.size()) +
             " bytes=" + std::to_string(records_.back().size()));
        set_state(State::Command, "receive ended by the host");
        result("OK");
        return;
    }
    note("<DLE>" + simctl::char_text(c) + " in +VRX");
}

void Modem::stream_recording(Clock::time_point now) {
    double elapsed = std::chrono::duration<double>(now - record_at_).count();
    record_at_ = now;
    record_credit_ += elapsed * kBytesPerSecond * speed_;
    auto n = static_cast<size_t>(record_credit_);
    if (n == 0)
        return;
    record_credit_ -= static_cast<double>(n);
    std::string wire;
    wire.reserve(n * 2);
    bool had_source = !record_source_.empty();
    for (size_t i = 0; i < n; ++i) {
        char b;
        if (record_pos_ < record_source_.size()) {
            b = record_source_[record_pos_++];
        } else {
            b = static_cast<char>(kSilence);
            silence_sent_ += 1;
        }
        records_.back() += b;
        if (b != kDLE) {
            if (pending_dle_out_)
                wire += std::string{kDLE, kDLE};
            pending_dle_out_ = false;
            wire += b;
        } else if (!quirks_.dle_sub) {
            wire += std::string{kDLE, kDLE};
        } else if (pending_dle_out_) {
            wire += std::string{kDLE, kSUB};
            pending_dle_out_ = false;
        } else {
            pending_dle_out_ = true;
        }
    }
    out_.to_host(wire);
    if (!silence_reported_ && vsd_sdi_ > 0 && silence_sent_ >= vsd_sdi_ / 10.0 * kBytesPerSecond) {
        silence_reported_ = true;
        // 'q': quiet after a message; 's': nothing was said at all.
        send_event(had_source ? 'q' : 's');
    }
}

// ---------------------------------------------------------------------------
// Time

void Modem::back_to_command(const char* why, const std::string& result_code,
                            Clock::time_point now) {
    set_state(State::Command, why);
    result(result_code.c_str());
    std::string input = std::exchange(pending_input_, {});
    if (!input.empty())
        on_host_bytes(input, now);
}

void Modem::on_time(Clock::time_point now) {
    switch (state_) {
        case State::Busy:
            if (now >= busy_until_)
                back_to_command("timed command done", busy_result_, now);
            break;
        case State::Transmit:
            drain_transmit(now);
            if (etx_ && unplayed_ <= 0) {
                Play& play = plays_.back();
                play.ended = true;
                note("<DLE><ETX> play=" + std::to_string(plays_.size()) +
                     " bytes=" + std::to_string(play.bytes.size()) +
                     " discarded=" + std::to_string(play.discarded));
                back_to_command("playback done", quirks_.vcon ? "VCON" : "OK", now);
            }
            break;
        case State::Receive:
            stream_recording(now);
            break;
        case State::Command:
            break;
    }
}

std::optional<Clock::time_point> Modem::next_deadline() const {
    switch (state_) {
        case State::Busy:
            return busy_until_;
        case State::Transmit:
            if (etx_)
                return played_at_ + audio_time(unplayed_);
            return std::nullopt;
        case State::Receive:
            return record_at_ + kStreamTick;
        case State::Command:
            return std::nullopt;
    }
    return std::nullopt;
}

std::string Modem::status_text() const {
    const VoiceFormat* f = find_format(vsm_);
    std::string s = std::string("state=") + state_name(state_) +
                    " hook=" + (off_hook_ ? "off" : "on") + " fclass=" + std::to_string(fclass_) +
                    " echo=" + (echo_ ? "1" : "0") + " vcid=" + std::to_string(vcid_) +
                    " vsm=" + std::to_string(vsm_) + " format=\"" + (f ? f->name : "?") + "\"" +
                    " rate=" + std::to_string(vsm_rate_) + " vls=" + std::to_string(vls_) +
                    " vsd=" + std::to_string(vsd_sds_) + "," + std::to_string(vsd_sdi_) +
                    " vit=" + std::to_string(vit_) + " plays=" + std::to_string(plays_.size()) +
                    " records=" + std::to_string(records_.size()) +
                    " dialled=" + (dialled_.empty() ? "-" : dialled_) +
                    " muted=" + (muted_ ? "1" : "0") + " profile=" + profile_name(quirks_.vsm);
    return s;
}

}  // namespace kal::modemsim
